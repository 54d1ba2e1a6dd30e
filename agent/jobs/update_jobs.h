// UpdateJobsMachine: fetches this agent's job list from its task queue into the JobContainer.
//
// A fetch happens when g_need_updatejobs asks for one (set at start-up and by
// the heartbeat while the schedule is empty); otherwise only every 101st run,
// counted by a slow counter that outlives the machines, which refreshes an
// agent that already has jobs about every four hours. An error reply or an
// empty list leaves the schedule as it is, so a task queue in trouble never
// wipes it.
//
// One machine per routine run (every 150 s, machine timeout 120 s); the
// runtime owns it. Event-loop thread only, like the counter.
#ifndef OVITA2_AGENT_JOBS_UPDATE_JOBS_H
#define OVITA2_AGENT_JOBS_UPDATE_JOBS_H

#include <cstdint>

#include "framework/bev_machine_util.h"

class UpdateJobsMachine : public BEVMachineUtil {
 public:
  static constexpr unsigned kType = 9000003;
  static constexpr unsigned kRequestType = 68000;
  static constexpr unsigned kMachineTimeoutSec = 120;
  static constexpr int kWaitJobs = 1;
  // Runs skipped between two fetches when no fetch is asked for.
  static constexpr int32_t kSkippedRuns = 100;

  UpdateJobsMachine() { SetMachineTimeout(kMachineTimeoutSec); }

  unsigned StateMachineType() override { return kType; }
  const char* MachineName() override { return "UpdateJobsMachine"; }

  // Decides whether to fetch, and sends the request.
  int Entry_Init(zelvar::event_key_t key, void* data);
  // `data` is the reply envelope; released on every path.
  int Entry_WaitJobs(zelvar::event_key_t key, void* data);

 private:
  static int32_t s_iSlowCounter;
};

#endif  // OVITA2_AGENT_JOBS_UPDATE_JOBS_H
