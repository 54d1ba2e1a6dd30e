#include "zelvar/zk_plugin.h"

#include <cinttypes>
#include <cstdio>

namespace zelvar {
namespace {

const char* const kTypeNames[] = {"T_STRING", "T_DATA", "T_STAT", "T_STRINGS", "T_VOID", "T_KEYVALUES"};
constexpr uint32_t kTypeCount = sizeof(kTypeNames) / sizeof(kTypeNames[0]);

}  // namespace

ZKPluginResponse::~ZKPluginResponse() = default;

std::string ZKPluginResponse::DumpStat(const Stat& stat) {
  char text[512];
  snprintf(text, sizeof(text),
           "czxid=%" PRId64 ";mzxid=%" PRId64 ";ctime=%" PRId64 ";mtime=%" PRId64
           ";version=%" PRId32 ";cversion=%" PRId32 ";aversion=%" PRId32 ";ephemeralOwner=%" PRId64
           ";dataLength=%" PRId32 ";numChildren=%" PRId32 ";pzxid=%" PRId64 ";",
           static_cast<int64_t>(stat.czxid), static_cast<int64_t>(stat.mzxid),
           static_cast<int64_t>(stat.ctime), static_cast<int64_t>(stat.mtime),
           static_cast<int32_t>(stat.version), static_cast<int32_t>(stat.cversion),
           static_cast<int32_t>(stat.aversion), static_cast<int64_t>(stat.ephemeralOwner),
           static_cast<int32_t>(stat.dataLength), static_cast<int32_t>(stat.numChildren),
           static_cast<int64_t>(stat.pzxid));
  return text;
}

const char* ZKPluginResponse::TypeName(uint32_t type) {
  return type < kTypeCount ? kTypeNames[type] : "T_UNKNOWN";
}

// Lines written:
//   retcode:<retcode>, type:<type name>
// then, when retcode is 0, each only when its presence bit is set:
//   string:<string>
//   stat=<DumpStat(stat)>
//   strings[<i>]:<strings[i]>                     one line per element
//   key=<key>,value=<value>,stat=<DumpStat>        one line per child
// or, when retcode is not 0:
//   error_message:<error_message>
// Values are printed as C strings: binary data stops at its first NUL byte.
void ZKPluginResponse::Dump(int fd) const {
  dprintf(fd, "retcode:%d, type:%s\n", retcode, TypeName(type));
  if (retcode != 0) {
    dprintf(fd, "error_message:%s\n", error_message.c_str());
    return;
  }
  if (flags & kHasString) dprintf(fd, "string:%s\n", string.c_str());
  if (flags & kHasStat) dprintf(fd, "stat=%s\n", DumpStat(stat).c_str());
  if (flags & kHasStrings) {
    for (size_t i = 0; i < strings.size(); ++i) {
      dprintf(fd, "strings[%u]:%s\n", static_cast<unsigned>(i), strings[i].c_str());
    }
  }
  if (flags & kHasKeyValues) {
    for (const ZKKeyValue& child : keyvalues) {
      dprintf(fd, "key=%s,value=%s,stat=%s\n", child.key.c_str(), child.value.c_str(),
              DumpStat(child.stat).c_str());
    }
  }
}

void ZKPluginResponse::DropRecord(void* record) { delete static_cast<ZKPluginResponse*>(record); }

}  // namespace zelvar
