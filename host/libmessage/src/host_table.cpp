#include "zelvar/host_table.h"

#include <cstdarg>
#include <cstdio>

namespace zelvar {

bool HostLogEnabled(const HostFunction* table, int level) {
  auto getLevel = HostSlotAs<GetLogLevelFn>(table, kSlotGetLogLevel);
  return HostSlotAs<LogFn>(table, kSlotLog) != nullptr && getLevel != nullptr && getLevel() <= level;
}

void HostLogText(const HostFunction* table, int level, const char* text) {
  if (HostLogEnabled(table, level)) HostSlotAs<LogFn>(table, kSlotLog)(level, "%s", text);
}

const char* HostConfigText(const HostFunction* table, const char* section, const char* key, const char* dflt) {
  auto get = HostSlotAs<GetConfigStringFn>(table, kSlotGetConfigString);
  return get != nullptr ? get(section, key, dflt) : dflt;
}

int64_t HostNowSeconds(const HostFunction* table) {
  auto getNow = HostSlotAs<GetNowFn>(table, kSlotGetNow);
  const int64_t* now = getNow != nullptr ? getNow() : nullptr;
  return now != nullptr ? *now : 0;
}

void HostTable::Adopt(const HostFunction* table) {
  if (table == nullptr) return;
  for (int i = 0; i < kHostSlotCount; ++i) m_table[i] = table[i];
  m_bAdopted = true;
}

void HostTable::Log(int level, const char* format, ...) const {
  if (!LogEnabled(level)) return;
  va_list args, again;
  va_start(args, format);
  va_copy(again, args);
  const int length = std::vsnprintf(nullptr, 0, format, args);
  std::string line(length > 0 ? static_cast<size_t>(length) : 0, '\0');
  std::vsnprintf(&line[0], line.size() + 1, format, again);
  va_end(again);
  va_end(args);
  HostLogText(m_table, level, line.c_str());
}

int HostTable::LogFd() const {
  auto getFd = Slot<GetLogFdFn>(kSlotGetLogFd);
  return getFd != nullptr ? getFd() : -1;
}

std::string HostTable::GetConfigString(const char* section, const char* key, const char* dflt) const {
  const char* value = HostConfigText(m_table, section, key, dflt);
  return value != nullptr ? value : "";
}

int HostTable::GetConfigInt(const char* section, const char* key, int dflt) const {
  auto get = Slot<GetConfigIntFn>(kSlotGetConfigInt);
  return get != nullptr ? get(section, key, dflt) : dflt;
}

std::vector<std::string> HostTable::ListConfigKeys(const char* section, const char* regex) const {
  std::vector<std::string> keys;
  auto list = Slot<ListConfigKeysFn>(kSlotListConfigKeys);
  if (list != nullptr) list(section, regex, &keys);
  return keys;
}

event_base* HostTable::EventBase() const {
  auto get = Slot<GetEventBaseFn>(kSlotGetEventBase);
  return get != nullptr ? get() : nullptr;
}

}  // namespace zelvar
