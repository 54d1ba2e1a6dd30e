#include "plugin/host_access.h"

#include <cstring>

namespace controlplane {
namespace {

zelvar::HostFunction g_arrHostTable[zelvar::kHostSlotCount] = {};

}  // namespace

void KeepHostTable(const zelvar::HostFunction* table) {
  std::memcpy(g_arrHostTable, table, sizeof(g_arrHostTable));
}

const zelvar::HostFunction* HostTable() { return g_arrHostTable; }

void HostLog(int level, const std::string& line) {
  auto getLevel = HostSlot<zelvar::GetLogLevelFn>(zelvar::kSlotGetLogLevel);
  if (getLevel == nullptr || getLevel() > level) return;
  HostSlot<zelvar::LogFn>(zelvar::kSlotLog)(level, "controlplane: %s", line.c_str());
}

std::string HostConfigString(const char* section, const char* key) {
  const char* value = HostSlot<zelvar::GetConfigStringFn>(zelvar::kSlotGetConfigString)(section, key, "");
  return value != nullptr ? value : "";
}

int HostConfigInt(const char* section, const char* key, int dflt) {
  return HostSlot<zelvar::GetConfigIntFn>(zelvar::kSlotGetConfigInt)(section, key, dflt);
}

int64_t HostNow() {
  const int64_t* now = HostSlot<zelvar::GetNowFn>(zelvar::kSlotGetNow)();
  return now != nullptr ? *now : 0;
}

}  // namespace controlplane
