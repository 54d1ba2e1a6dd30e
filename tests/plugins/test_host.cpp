#include "test_host.h"

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <regex>

#include "zelvar/state_machine.h"

namespace zelvar::registry::testing {
namespace {

TestHost* g_current = nullptr;

void Unused() {}

bool Verbose() { return getenv("OVITA2_TEST_VERBOSE") != nullptr; }

}  // namespace

class TestHost::Clock : public MachineClock {
 public:
  int64_t NowMs() const override {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
  }
};

TestHost::TestHost() : m_pBase(event_base_new()), m_pClock(new Clock()) {
  m_pRuntime = std::make_unique<MachineRuntime>(m_pClock.get(), 3600);
  m_pTick = evtimer_new(m_pBase, [](evutil_socket_t, short, void*) {}, nullptr);
  for (auto& slot : m_table) slot = &Unused;
  m_table[kSlotLog] = reinterpret_cast<HostFunction>(&TestHost::Log);
  m_table[kSlotGetLogLevel] = reinterpret_cast<HostFunction>(&TestHost::GetLogLevel);
  m_table[kSlotGetLogFd] = reinterpret_cast<HostFunction>(&TestHost::GetLogFd);
  m_table[kSlotGetConfigInt] = reinterpret_cast<HostFunction>(&TestHost::GetConfigInt);
  m_table[kSlotGetConfigString] = reinterpret_cast<HostFunction>(&TestHost::GetConfigString);
  m_table[kSlotListConfigKeys] = reinterpret_cast<HostFunction>(&TestHost::ListConfigKeys);
  m_table[kSlotGetEventBase] = reinterpret_cast<HostFunction>(&TestHost::GetEventBase);
  m_table[kSlotDeliverToMachine] = reinterpret_cast<HostFunction>(&TestHost::DeliverToMachine);
  g_current = this;
}

TestHost::~TestHost() {
  m_pRuntime.reset();
  event_free(m_pTick);
  event_base_free(m_pBase);
  if (g_current == this) g_current = nullptr;
}

TestHost* TestHost::Current() { return g_current; }

void TestHost::SetConfig(const std::string& section, const std::string& key, const std::string& value) {
  m_mapConfig[section][key] = value;
}

void TestHost::Turn() {
  event_base_loop(m_pBase, EVLOOP_NONBLOCK);
  m_pRuntime->RunPending();
}

bool TestHost::RunUntil(const std::function<bool()>& done, int limitMs) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(limitMs);
  timeval slice = {0, 10 * 1000};
  while (!done()) {
    if (std::chrono::steady_clock::now() >= deadline) return done();
    // Wait for one event, at most a slice long, then run what it queued.
    evtimer_add(m_pTick, &slice);
    event_base_loop(m_pBase, EVLOOP_ONCE);
    evtimer_del(m_pTick);
    m_pRuntime->RunPending();
  }
  return true;
}

bool TestHost::Logged(const std::string& text) const {
  for (const std::string& line : log_lines) {
    if (line.find(text) != std::string::npos) return true;
  }
  return false;
}

void TestHost::Log(int level, const char* format, ...) {
  char line[4096];
  va_list args;
  va_start(args, format);
  vsnprintf(line, sizeof(line), format, args);
  va_end(args);
  if (Verbose()) fprintf(stderr, "[host log %d] %s\n", level, line);
  if (g_current != nullptr) g_current->log_lines.push_back(line);
}

int TestHost::GetLogLevel() { return g_current != nullptr ? g_current->log_level : 4; }

int TestHost::GetLogFd() { return 2; }

int TestHost::GetConfigInt(const char* section, const char* key, int dflt) {
  const char* text = GetConfigString(section, key, nullptr);
  if (text == nullptr || *text == '\0') return dflt;
  return atoi(text);
}

const char* TestHost::GetConfigString(const char* section, const char* key, const char* dflt) {
  if (g_current != nullptr) {
    auto sectionIt = g_current->m_mapConfig.find(section);
    if (sectionIt != g_current->m_mapConfig.end()) {
      auto keyIt = sectionIt->second.find(key);
      if (keyIt != sectionIt->second.end()) return keyIt->second.c_str();
    }
  }
  return dflt != nullptr ? dflt : "";
}

void TestHost::ListConfigKeys(const char* section, const char* regex, std::vector<std::string>* out) {
  if (g_current == nullptr || out == nullptr) return;
  auto sectionIt = g_current->m_mapConfig.find(section);
  if (sectionIt == g_current->m_mapConfig.end()) return;
  std::regex pattern(regex);
  for (const auto& entry : sectionIt->second) {
    if (std::regex_search(entry.first, pattern)) out->push_back(entry.first);
  }
}

event_base* TestHost::GetEventBase() { return g_current != nullptr ? g_current->m_pBase : nullptr; }

int TestHost::DeliverToMachine(unsigned machineId, void* record, void (*drop)(void*)) {
  int rc = g_current->m_pRuntime->PostById(machineId, PluginEvent(record, drop));
  if (rc != 0) ++g_current->answers_to_gone_machines;
  return rc;
}

}  // namespace zelvar::registry::testing
