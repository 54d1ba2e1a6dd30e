// ZKCommand: one registry command, read from the variadic arguments of
// ZKPluginCall, so that both registry plug-ins accept and refuse exactly the
// same calls.
//
// Arguments after the machine id and the command name (types as the caller
// must pass them through "..."):
//
//   "listvalue"     const char* path, watcher_fn watcher (may be null)
//   "create"        const char* path, const char* data, int64_t length, int flags
//   "get"           const char* path, watcher_fn watcher (may be null)
//   "set_callback"  void (*callback)(void)  (null removes the callback)
//
// Decoding refuses (ZBADARGUMENTS) an unknown or null command name, a null or
// malformed path, a negative length, a length above INT32_MAX, and null data
// with a non-zero length. Nothing is copied: the command borrows the caller's
// strings for the duration of the call.
//
// Thread rules: plain value; the loop thread, inside ZKPluginCall.
#ifndef OVITA2_PLUGINS_COMMON_ZK_COMMAND_H
#define OVITA2_PLUGINS_COMMON_ZK_COMMAND_H

#include <zookeeper/zookeeper.h>

#include "common/plugin_host.h"

#include <cstdarg>
#include <cstdint>

namespace zelvar::registry {

enum class ZKCommandKind { kListValue, kCreate, kGet, kSetCallback };

using ConnectionCallback = void (*)();

struct ZKCommand {
  ZKCommandKind kind = ZKCommandKind::kListValue;
  const char* path = nullptr;
  const char* data = nullptr;
  int64_t length = 0;
  int flags = 0;
  watcher_fn watcher = nullptr;
  ConnectionCallback callback = nullptr;

  // Reads the arguments of `command` from `args`. Returns ZOK, or
  // ZBADARGUMENTS when the call must be refused.
  static int Decode(const char* command, va_list args, ZKCommand* out);

  // The body of a plug-in's ZKPluginCall: decodes the arguments and hands the
  // command to `registry` (anything with Call(machineId, const ZKCommand&)).
  // Bad arguments are logged through `host` with the plug-in's `label` and
  // refused; a plug-in that is not started refuses with ZINVALIDSTATE.
  template <typename Registry>
  static int Dispatch(const char* label, const PluginHost& host, Registry* registry, unsigned machineId,
                      const char* command, va_list args) {
    ZKCommand decoded;
    int rc = Decode(command, args, &decoded);
    if (rc != ZOK) {
      host.Log(4, "%s: command \"%s\" from machine %u refused: bad arguments", label,
          command != nullptr ? command : "(null)", machineId);
      return rc;
    }
    if (registry == nullptr) return ZINVALIDSTATE;
    return registry->Call(machineId, decoded);
  }

  // ZooKeeper's rules for a node path: starts with '/', no empty component, no
  // "." or ".." component, no trailing '/' except the root itself.
  // `sequential` allows the trailing '/' a sequential create may end with.
  static bool IsValidPath(const char* path, bool sequential);
};

}  // namespace zelvar::registry

#endif  // OVITA2_PLUGINS_COMMON_ZK_COMMAND_H
