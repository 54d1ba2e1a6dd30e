// The registry plug-in protocol: the handle a registry plug-in hands out, and
// the answer record it delivers to the machine that issued a command.
//
// A registry plug-in (embedded or ZooKeeper) is reached through the host's
// GetPluginHandle("zookeeper"). The handle's first member is the command entry:
//
//   handle->ZKPluginCall(machineId, "listvalue",    const char* path, watcher_fn watcher)
//   handle->ZKPluginCall(machineId, "create",       const char* path, const char* data,
//                                                   int64_t length, int flags)
//   handle->ZKPluginCall(machineId, "get",          const char* path, watcher_fn watcher)
//   handle->ZKPluginCall(machineId, "set_callback", void (*callback)(void))
//
// A call returns 0 when the command was accepted and non-zero when it was
// refused; a refused command produces no answer. Every accepted "listvalue",
// "create" and "get" produces exactly one ZKPluginResponse, handed to machine
// `machineId` as the payload of its next handler call (event kEventPlugin), on
// the loop thread and never inside ZKPluginCall. The handler owns the record and
// deletes it; the host frees a record whose machine is gone with DropRecord.
// "set_callback" produces no answer.
//
// What each answer holds:
//
//   command     retcode 0                                   retcode != 0
//   listvalue   type T_KEYVALUES, flags kHasStat|kHasKeyValues: type T_VOID, flags 0,
//               stat of the listed node, keyvalues = its       error_message = the
//               children (name, raw data, Stat)                ZooKeeper text of retcode
//   create      type T_STRING, flags kHasString: string =   (as above)
//               the path actually created
//   get         type T_DATA, flags kHasString|kHasData|     (as above)
//               kHasStat: string = the node's raw data
//
// Thread rules: the record is a plain value; it is built by the plug-in and read
// by one machine on the loop thread.
#ifndef ZELVAR_ZK_PLUGIN_H
#define ZELVAR_ZK_PLUGIN_H

#include <zookeeper/zookeeper.h>

#include <cstdint>
#include <string>
#include <vector>

namespace zelvar {

// One child of a listed node.
struct ZKKeyValue {
  std::string key;    // the child's name (last path component)
  std::string value;  // the child's raw data bytes
  Stat stat{};
};

// The answer to one registry command. Its destructor is its first virtual
// operation, so a receiver can delete it through a base pointer whatever
// plug-in built it.
class ZKPluginResponse {
 public:
  // Presence bits of `flags`.
  static constexpr uint32_t kHasString = 1;
  static constexpr uint32_t kHasData = 2;  // `string` holds a node's raw data
  static constexpr uint32_t kHasStat = 4;
  static constexpr uint32_t kHasStrings = 8;
  static constexpr uint32_t kHasKeyValues = 16;

  // Kinds of payload (`type`).
  static constexpr uint32_t T_STRING = 0;
  static constexpr uint32_t T_DATA = 1;
  static constexpr uint32_t T_STAT = 2;
  static constexpr uint32_t T_STRINGS = 3;
  static constexpr uint32_t T_VOID = 4;
  static constexpr uint32_t T_KEYVALUES = 5;

  ZKPluginResponse() = default;
  virtual ~ZKPluginResponse();

  ZKPluginResponse(const ZKPluginResponse&) = default;
  ZKPluginResponse& operator=(const ZKPluginResponse&) = default;

  // "czxid=..;mzxid=..;...;pzxid=..;": the eleven fields in their declared
  // order, each ending with ';', nothing else.
  static std::string DumpStat(const Stat& stat);
  // The printable name of a payload kind; "T_UNKNOWN" for values out of range.
  static const char* TypeName(uint32_t type);
  // Writes the record to `fd`, one line per item (see the .cpp for the lines).
  void Dump(int fd) const;

  // Deletes a record through its virtual destructor: the drop function handed
  // to the host with every answer, for answers whose machine is gone.
  static void DropRecord(void* record);

  uint32_t flags = 0;
  uint32_t type = T_VOID;
  int32_t retcode = 0;
  std::string error_message;
  std::string string;
  Stat stat{};
  std::vector<std::string> strings;
  std::vector<ZKKeyValue> keyvalues;
};

// What GetPluginHandle("zookeeper") points to. A plug-in may hand out a larger
// structure whose first member is this one.
struct ZKPluginHandle {
  int (*ZKPluginCall)(unsigned machineId, const char* command, ...);
};

}  // namespace zelvar

#endif  // ZELVAR_ZK_PLUGIN_H
