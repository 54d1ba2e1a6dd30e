// ExecuteJobsOfConfMachine: runs the built-in collectors for every
// configuration of the JobConfContainer and queues each non-empty result as a
// text sample (g_vecStringUpper) for the upward sender.
//
// A sample is named after the agent ("common"/"agentname") and carries the
// collector type where a job's sample carries its job id, so the receiving
// side tells the collectors apart by that id. A target runs at most once every
// 30 s, which the 300 s routine always allows: every target runs on every pass.
//
// The whole pass runs synchronously in the initial state: the collectors read
// /proc and the kernel ring buffer, bounded by the size of this host, never by
// the network. m_bRunning guards against a pass re-entering itself.
//
// One machine per routine run (every 300 s); the runtime owns it. Event-loop
// thread only.
#ifndef OVITA2_AGENT_JOBS_EXECUTE_JOBS_OF_CONF_H
#define OVITA2_AGENT_JOBS_EXECUTE_JOBS_OF_CONF_H

#include <cstdint>
#include <string>

#include "framework/bev_machine_util.h"

class DataCollectionFactory;

class ExecuteJobsOfConfMachine : public BEVMachineUtil {
 public:
  static constexpr unsigned kType = 9000017;
  // A target's shortest distance between two runs, in seconds.
  static constexpr uint32_t kMinRunDistanceSec = 30;

  // True while a pass is under way.
  static bool m_bRunning;

  unsigned StateMachineType() override { return kType; }
  const char* MachineName() override { return "ExecuteJobsOfConfMachine"; }

  // Runs the whole pass and ends the machine.
  int Entry_Init(zelvar::event_key_t key, void* data);

 private:
  // Runs the collector of `type` for `target` when it is due, and queues its result.
  void RunCollector(DataCollectionFactory* factory, uint32_t type, const std::string& target, uint32_t* lastRun);
};

#endif  // OVITA2_AGENT_JOBS_EXECUTE_JOBS_OF_CONF_H
