// TestHost: a small in-process zelvar-host for the registry plug-ins' tests.
//
// It fills the 44-slot host table with the slots a registry uses (logging with
// captured lines, configuration held in memory, a real libevent loop, answer
// delivery through a real MachineRuntime) and harmless no-ops elsewhere, and
// lets a test turn the loop until something happened, within a bound.
//
// Slots are plain functions, so one TestHost lives at a time (Current()).
// Owns the loop and the runtime (and so every machine started on it). Test
// thread only.
#ifndef OVITA2_TESTS_PLUGINS_TEST_HOST_H
#define OVITA2_TESTS_PLUGINS_TEST_HOST_H

#include <event2/event.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "zelvar/host_interface.h"
#include "zelvar/machine_runtime.h"

namespace zelvar::registry::testing {

class TestHost {
 public:
  TestHost();
  ~TestHost();

  TestHost(const TestHost&) = delete;
  TestHost& operator=(const TestHost&) = delete;

  static TestHost* Current();

  HostFunction* Table() { return m_table; }
  event_base* Base() const { return m_pBase; }
  MachineRuntime& Runtime() { return *m_pRuntime; }

  void SetConfig(const std::string& section, const std::string& key, const std::string& value);

  // Turns the loop (and runs the machines' queued events) until `done` holds
  // or `limitMs` passed. Returns `done()`.
  bool RunUntil(const std::function<bool()>& done, int limitMs = 15000);
  // One loop turn that does not wait, then the machines' queued events.
  void Turn();

  // True when a captured line contains `text`.
  bool Logged(const std::string& text) const;

  int log_level = 1;
  std::vector<std::string> log_lines;
  // Answers the host could not hand over because their machine was gone.
  size_t answers_to_gone_machines = 0;

  // Slot implementations (public so the table can point at them).
  static void Log(int level, const char* format, ...);
  static int GetLogLevel();
  static int GetLogFd();
  static int GetConfigInt(const char* section, const char* key, int dflt);
  static const char* GetConfigString(const char* section, const char* key, const char* dflt);
  static void ListConfigKeys(const char* section, const char* regex, std::vector<std::string>* out);
  static event_base* GetEventBase();
  static int DeliverToMachine(unsigned machineId, void* record, void (*drop)(void*));

 private:
  class Clock;

  HostFunction m_table[kHostSlotCount] = {};
  event_base* m_pBase = nullptr;
  event* m_pTick = nullptr;
  std::unique_ptr<Clock> m_pClock;
  std::unique_ptr<MachineRuntime> m_pRuntime;
  std::map<std::string, std::map<std::string, std::string>> m_mapConfig;
};

}  // namespace zelvar::registry::testing

#endif  // OVITA2_TESTS_PLUGINS_TEST_HOST_H
