// TestHost: zelvar-host's 44-slot table over the real libmessage runtime, with
// a clock the test moves. Log keeps every line (the threshold is the plug-in's
// business); posts queue on the runtime until RunPending(). The slots are plain
// function pointers that find the host through Current(): one TestHost at a time.
#ifndef OVITA2_TESTS_SUPPORT_TEST_HOST_H
#define OVITA2_TESTS_SUPPORT_TEST_HOST_H

#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "fake_registry.h"
#include "test_peer.h"
#include "zelvar/host_interface.h"
#include "zelvar/long_action.h"
#include "zelvar/machine_runtime.h"

namespace ovita2::testing {

struct CapturedLongAction {
  std::string name;
  std::string command;  // its "command" parameter
  uint32_t machine_id = 0;
  uint32_t flow_no = 0;
  bool completed = false;
};

// The entry points of the plug-in a TestHost drives; any may be null.
struct PluginEntries {
  void (*peek)(zelvar::HostFunction* table) = nullptr;
  int (*routine)(zelvar::StateMachine** machineOut) = nullptr;
  int (*data_in)(uint64_t connA, uint64_t connB, zelvar::ZMessage** messageOut,
                 zelvar::StateMachine** machineOut) = nullptr;
};

// Puts the agent's process-wide state back as a fresh process has it.
void ResetAgentState();

class TestHost {
 public:
  // The agent's host (defined with the agent, so only its programs need it).
  explicit TestHost(unsigned defaultMachineTimeoutSec = 120);
  explicit TestHost(const PluginEntries& plugin, unsigned defaultMachineTimeoutSec = 120);
  ~TestHost();
  TestHost(const TestHost&) = delete;
  TestHost& operator=(const TestHost&) = delete;

  static TestHost* Current();
  // The table, for a plug-in a test loads itself.
  zelvar::HostFunction* Table() { return m_aTable; }

  // Moves the clock on and fires the machine timeouts that fell due.
  void AdvanceClock(int64_t seconds);

  void SetLogLevel(int threshold) { m_iLogLevel = threshold; }
  const std::vector<std::string>& LogLines() const { return m_vecLog; }
  // Some line contains `text`.
  bool Logged(const std::string& text) const;
  void ClearLog() { m_vecLog.clear(); }

  void SetConfig(const std::string& section, const std::string& key, const std::string& value) {
    m_mapConfig[section][key] = value;
  }
  const std::string& KeyPattern() const { return m_strKeyPattern; }  // of the last ListConfigKeys
  unsigned RoutinePeriod() const { return m_uRoutinePeriod; }        // 0 until asked
  void SetReady(bool ready) { m_bReady = ready; }

  // The runtime owns `machine` from now on; its id, as the machine may be gone.
  uint32_t Start(zelvar::StateMachine* machine);
  size_t RunPending() { return m_pRuntime->RunPending(); }
  bool IsAlive(uint32_t machineId) const { return m_pRuntime->IsManaged(machineId); }
  void PostMessage(zelvar::StateMachine* machine, zelvar::ZMessage* message) {
    m_pRuntime->Post(machine, zelvar::MessageEvent(message));
  }
  int DeliverRecord(uint32_t machineId, void* record, void (*drop)(void*)) {
    return m_pRuntime->PostById(machineId, zelvar::PluginEvent(record, drop));
  }

  // ReleaseMessage calls for `message` since the pool last handed it out.
  int Releases(const zelvar::ZMessage* message) const {
    return m_mapReleases.count(message) ? m_mapReleases.at(message) : 0;
  }
  unsigned LastPostedId() const { return m_uLastPostedId; }  // PostToMachine's id argument
  const zelvar::ZMessage* LastRouted() const { return m_pLastRouted; }

  // The open outbound connection to ip:port, made on first use.
  TestPeer& Peer(const std::string& ip, uint16_t port);
  // A new inbound connection from ip:port.
  TestPeer& Accept(const std::string& ip, uint16_t port, bool outbound = false);
  // OnDataIn until a call routes nothing, queueing each routed envelope for its
  // machine; OnDataIn's last result.
  int Route(TestPeer& peer);

  const std::vector<CapturedLongAction>& LongActions() const { return m_vecLongActions; }
  void CompleteLongAction(uint32_t flowNo, const std::string& output, const std::string& error, int64_t status);

  FakeRegistry& Registry() { return m_cRegistry; }
  // false: GetPluginHandle("zookeeper") gives null.
  void SetRegistryAvailable(bool available) { m_bRegistryAvailable = available; }

  // A registry plug-in's sockets and timers live on GetEventBase's loop, in real
  // time (machine timeouts stay on the simulated clock). Turns the loop, running
  // the deliveries it queued, until `done` holds or `limitMs` of real time passed.
  bool RunLoopUntil(const std::function<bool()>& done, int limitMs = 15000);
  // DeliverToMachine's records whose machine was gone, counted from this call on.
  void CountUndeliveredRecords() { m_uUndeliveredRecords = 0; }
  size_t UndeliveredRecords() const { return m_uUndeliveredRecords; }

 private:
  struct Clock : zelvar::MachineClock {
    int64_t seconds = 1700000000;
    int64_t NowMs() const override { return seconds * 1000; }
  };

  template <typename Fn>
  void Set(zelvar::HostSlot slot, Fn fn) { m_aTable[slot] = reinterpret_cast<zelvar::HostFunction>(fn); }
  const std::string* FindConfig(const char* section, const char* key) const;
  static void Log(int level, const char* format, ...);

  PluginEntries m_sPlugin;
  zelvar::HostFunction m_aTable[zelvar::kHostSlotCount];
  Clock m_cClock;
  event_base* m_pBase;
  std::unique_ptr<zelvar::MachineRuntime> m_pRuntime;

  int m_iLogLevel = 1;
  std::vector<std::string> m_vecLog;
  std::FILE* m_pLogFile;
  std::map<const zelvar::ZMessage*, int> m_mapReleases;
  const zelvar::ZMessage* m_pLastRouted = nullptr;
  unsigned m_uLastPostedId = 0;
  std::string m_strKeyPattern;
  std::map<std::string, std::map<std::string, std::string>> m_mapConfig;
  unsigned m_uRoutinePeriod = 0;
  bool m_bReady = true;

  std::vector<std::unique_ptr<TestPeer>> m_vecPeers;
  std::vector<CapturedLongAction> m_vecLongActions;
  FakeRegistry m_cRegistry;
  bool m_bRegistryAvailable = true;
  size_t m_uUndeliveredRecords = 0;
};

}  // namespace ovita2::testing

#endif  // OVITA2_TESTS_SUPPORT_TEST_HOST_H
