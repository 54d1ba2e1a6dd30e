// RealTimeCollectMachine: every 10 s, runs the script of each item whose
// real-time monitoring is enabled (g_mapRealtimeConf, enable_real_time.h) and
// forwards its output to the statistics access service ("TELLAR2_ACCESS"),
// one request (66014) per line.
//
// An item is run from "~/ovita2/agent/plugin/real_time_task/<item>.sh"; the
// shell of the host's long action expands "~" from the host process's HOME,
// so the scripts live under that account's home. Enablements older than
// kExpirySec are dropped first, by an unsigned difference on purpose: after
// the clock went backwards the difference is huge and the item is dropped
// too, rather than kept until the clock catches up.
//
// Only newline-terminated lines are sent: a script's last piece without a
// newline may be a line cut short, so it is dropped. Empty lines are sent.
// A failed script is logged and sends nothing. No answer is awaited.
//
// One cycle at a time (m_rtRunning): a machine the routine starts meanwhile
// ends at once. The flag is cleared when the last script answered or the
// machine times out. Event-loop thread only.
#ifndef OVITA2_AGENT_LIVENESS_REAL_TIME_COLLECT_H
#define OVITA2_AGENT_LIVENESS_REAL_TIME_COLLECT_H

#include <cstdint>
#include <map>
#include <string>

#include "framework/bev_machine_util.h"

class RealTimeCollectMachine : public BEVMachineUtil {
 public:
  static constexpr unsigned kType = 9000014;
  static constexpr int kWaitRealTimeJobs = 1;
  static constexpr unsigned kRequestType = 66014;
  static constexpr uint32_t kExpirySec = 301;  // an enablement this old is gone
  static constexpr const char* kScriptPath = "~/ovita2/agent/plugin/real_time_task/%u.sh";

  unsigned StateMachineType() override { return kType; }
  const char* MachineName() override { return "RealTimeCollectMachine"; }
  // Gives the cycle up so the next routine can start one, then the common end.
  int Timeout(bool machineTimeout) override;

  int Entry_Init(zelvar::event_key_t key, void* data);
  // `data` is the host's zelvar::LongActionResult, valid during the call only.
  int Entry_WaitRealTimeJobs(zelvar::event_key_t key, void* data);

  static bool m_rtRunning;

 private:
  static void ExpireEnablements();
  void StartScripts();
  void SendLines(const std::string& output);

  std::map<uint32_t, uint32_t> m_mapFlowItems;  // flow number -> item id
};

#endif  // OVITA2_AGENT_LIVENESS_REAL_TIME_COLLECT_H
