#include "common/plugin_host.h"

#include <cstdarg>
#include <cstdio>

#include "zelvar/zk_plugin.h"

namespace zelvar::registry {

void PluginHost::Adopt(const HostFunction* table) {
  if (table == nullptr) return;
  for (int i = 0; i < kHostSlotCount; ++i) m_table[i] = table[i];
  m_bAdopted = true;
}

bool PluginHost::LogEnabled(int level) const {
  auto getLevel = Slot<GetLogLevelFn>(kSlotGetLogLevel);
  auto log = Slot<LogFn>(kSlotLog);
  return log != nullptr && getLevel != nullptr && getLevel() <= level;
}

void PluginHost::Log(int level, const char* format, ...) const {
  if (!LogEnabled(level)) return;
  char line[2048];
  va_list args;
  va_start(args, format);
  vsnprintf(line, sizeof(line), format, args);
  va_end(args);
  // The host's Log is variadic itself: hand it the finished text, never a
  // format that could carry a stray '%' from a path or a server's message.
  Slot<LogFn>(kSlotLog)(level, "%s", line);
}

int PluginHost::LogFd() const {
  auto getFd = Slot<GetLogFdFn>(kSlotGetLogFd);
  return getFd != nullptr ? getFd() : -1;
}

std::string PluginHost::GetConfigString(const char* section, const char* key, const char* dflt) const {
  auto get = Slot<GetConfigStringFn>(kSlotGetConfigString);
  const char* value = get != nullptr ? get(section, key, dflt) : dflt;
  return value != nullptr ? value : "";
}

int PluginHost::GetConfigInt(const char* section, const char* key, int dflt) const {
  auto get = Slot<GetConfigIntFn>(kSlotGetConfigInt);
  return get != nullptr ? get(section, key, dflt) : dflt;
}

std::vector<std::string> PluginHost::ListConfigKeys(const char* section, const char* regex) const {
  std::vector<std::string> keys;
  auto list = Slot<ListConfigKeysFn>(kSlotListConfigKeys);
  if (list != nullptr) list(section, regex, &keys);
  return keys;
}

event_base* PluginHost::EventBase() const {
  auto get = Slot<GetEventBaseFn>(kSlotGetEventBase);
  return get != nullptr ? get() : nullptr;
}

int PluginHost::Deliver(unsigned machineId, ZKPluginResponse* answer) const {
  auto deliver = Slot<DeliverToMachineFn>(kSlotDeliverToMachine);
  if (deliver == nullptr) {
    ZKPluginResponse::DropRecord(answer);
    return -1;
  }
  return deliver(machineId, answer, &ZKPluginResponse::DropRecord);
}

}  // namespace zelvar::registry
