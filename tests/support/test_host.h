// TestHost: a fake of zelvar-host's 44-slot table over the real libmessage
// runtime, with a clock the test sets. It hands the table to its plug-in (the
// agent by default) as zelvar-host does. Log keeps every line (the threshold
// is the plug-in's business); config comes from SetConfig ("" when absent);
// ConnectTo and GetConnectionBev give TestPeers; long actions are captured; PostToMachine, CreateMachineForMessage and DeliverToMachine queue
// on the runtime until RunPending(); AcquireMessage/ReleaseMessage use the
// real pool and count releases per envelope; GetPluginHandle("zookeeper")
// gives Registry(). Other slots hold a harmless function.
// One TestHost at a time (the slots find it through Current()); test thread only.
#ifndef OVITA2_TESTS_SUPPORT_TEST_HOST_H
#define OVITA2_TESTS_SUPPORT_TEST_HOST_H

#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "fake_registry.h"
#include "test_peer.h"
#include "zelvar/host_interface.h"
#include "zelvar/long_action.h"
#include "zelvar/machine_runtime.h"

namespace ovita2 {
namespace testing {

struct CapturedLongAction {
  std::string name;
  zelvar::ParamMap params;
  uint32_t machine_id = 0;
  uint32_t flow_no = 0;
  bool completed = false;

  // The first value of `key`, or "".
  std::string Param(const std::string& key) const;
};

// The entry points of the plug-in a TestHost drives; any may be null.
struct PluginEntries {
  void (*peek)(zelvar::HostFunction* table) = nullptr;
  int (*routine)(zelvar::StateMachine** machineOut) = nullptr;
  int (*data_in)(uint64_t connA, uint64_t connB, zelvar::ZMessage** messageOut,
                 zelvar::StateMachine** machineOut) = nullptr;
};

// A machine the host started: its id and name as they were at the start (the
// machine itself may be gone already).
struct StartedMachine {
  uint32_t id = 0;
  std::string name;
  explicit operator bool() const { return id != 0; }
};

// Puts the agent's process-wide state (globals, containers, counters, flags)
// back as a fresh process has it. Defined with the agent's test host.
void ResetAgentState();

class TestHost {
 public:
  static constexpr int64_t kStartTime = 1700000000;  // seconds since the epoch
  static constexpr unsigned kDefaultMachineTimeout = 120;

  // The host of the agent's tests: the table goes to the agent (linked in).
  explicit TestHost(unsigned defaultMachineTimeoutSec = kDefaultMachineTimeout);
  // The host of another plug-in (or of none); needs no agent.
  explicit TestHost(const PluginEntries& plugin, unsigned defaultMachineTimeoutSec = kDefaultMachineTimeout);
  ~TestHost();

  TestHost(const TestHost&) = delete;
  TestHost& operator=(const TestHost&) = delete;

  // The live test host; aborts the test program when there is none.
  static TestHost* Current();

  zelvar::HostFunction* Table() { return m_aTable; }
  // Empties a slot and hands the table over again.
  void ClearSlot(zelvar::HostSlot slot);

  int64_t Now() const { return m_i64Now; }
  void SetNow(int64_t seconds) { m_i64Now = seconds; }
  // Moves the clock on and fires the machine timeouts that fell due.
  void AdvanceClock(int64_t seconds);

  void SetLogLevel(int threshold) { m_iLogLevel = threshold; }
  int LogLevel() const { return m_iLogLevel; }
  const std::vector<std::string>& LogLines() const { return m_vecLog; }
  bool Logged(const std::string& text) const;
  void ClearLog() { m_vecLog.clear(); }

  void SetConfig(const std::string& section, const std::string& key, const std::string& value);
  // The pattern of the last ListConfigKeys.
  const std::string& KeyPattern() const { return m_strKeyPattern; }
  // The last period asked with SetRoutinePeriod, 0 before.
  unsigned RoutinePeriod() const { return m_uRoutinePeriod; }
  void SetReady(bool ready) { m_bReady = ready; }

  zelvar::MachineRuntime& Runtime() { return *m_pRuntime; }
  // OnRoutine; the machine it returns (if any) starts at once.
  StartedMachine RunRoutine();
  // Starts a machine the test made: the runtime owns it from now on.
  StartedMachine Start(zelvar::StateMachine* machine);
  // Runs the deliveries queued so far.
  size_t RunPending();
  bool IsAlive(uint32_t machineId) const { return m_pRuntime->IsManaged(machineId); }
  // Queues an envelope (given up to the runtime) for a machine.
  void PostMessage(zelvar::StateMachine* machine, zelvar::ZMessage* message);
  // Queues a plug-in record for a live machine; `drop` frees it otherwise.
  int DeliverRecord(uint32_t machineId, void* record, void (*drop)(void*));

  // ReleaseMessage calls for `message` since the pool last handed it out.
  int Releases(const zelvar::ZMessage* message) const;
  // The id argument of the last PostToMachine.
  unsigned LastPostedId() const { return m_uLastPostedId; }
  // The envelope OnDataIn routed last.
  const zelvar::ZMessage* LastRouted() const { return m_pLastRouted; }

  // The open outbound connection to ip:port, made on first use.
  TestPeer& Peer(const std::string& ip, uint16_t port);
  // A new inbound connection from ip:port.
  TestPeer& Accept(const std::string& ip, uint16_t port);
  // OnDataIn on the peer's connection until a call routes nothing; every
  // routed envelope is queued for its machine. Returns the last result.
  int Route(TestPeer& peer);

  const std::vector<CapturedLongAction>& LongActions() const { return m_vecLongActions; }
  // Delivers the completion of the action handed over under `flowNo`.
  void CompleteLongAction(uint32_t flowNo, const std::string& output, const std::string& error, int64_t status);

  FakeRegistry& Registry() { return m_cRegistry; }
  // false: GetPluginHandle("zookeeper") gives null.
  void SetRegistryAvailable(bool available) { m_bRegistryAvailable = available; }

 private:
  class Clock : public zelvar::MachineClock {
   public:
    explicit Clock(const int64_t* seconds) : m_pSeconds(seconds) {}
    int64_t NowMs() const override { return *m_pSeconds * 1000; }

   private:
    const int64_t* m_pSeconds;
  };

  template <typename Fn>
  void Set(zelvar::HostSlot slot, Fn fn) {
    m_aTable[slot] = reinterpret_cast<zelvar::HostFunction>(fn);
  }
  const std::string* FindConfig(const char* section, const char* key) const;
  static void Log(int level, const char* format, ...);

  void InstallTable();
  TestPeer& NewPeer(const std::string& ip, uint16_t port, bool outbound);
  TestPeer* FindOpen(uint64_t connA, uint64_t connB) const;

  PluginEntries m_sPlugin;
  zelvar::HostFunction m_aTable[zelvar::kHostSlotCount];
  int64_t m_i64Now = kStartTime;
  Clock m_cClock{&m_i64Now};
  event_base* m_pBase;
  std::unique_ptr<zelvar::MachineRuntime> m_pRuntime;

  int m_iLogLevel = 1;
  std::vector<std::string> m_vecLog;
  std::FILE* m_pLogFile;
  std::map<const zelvar::ZMessage*, int> m_mapReleases;
  const zelvar::ZMessage* m_pLastRouted = nullptr;
  unsigned m_uLastPostedId = 0;
  std::string m_strKeyPattern;

  std::map<std::string, std::vector<std::pair<std::string, std::string>>> m_mapConfig;
  unsigned m_uRoutinePeriod = 0;
  bool m_bReady = true;

  std::vector<std::unique_ptr<TestPeer>> m_vecPeers;
  std::vector<bool> m_vecOutbound;
  uint64_t m_u64NextConn = 1;

  std::vector<CapturedLongAction> m_vecLongActions;

  FakeRegistry m_cRegistry;
  bool m_bRegistryAvailable = true;
};

}  // namespace testing
}  // namespace ovita2

#endif  // OVITA2_TESTS_SUPPORT_TEST_HOST_H
