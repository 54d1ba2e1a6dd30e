// UpdateJobConfsMachine: fetches the built-in collectors' configurations from
// the task queue into the JobConfContainer, one collector type per run.
//
// A pass asks for types 1, 2, 3 ... one per run; the task queue marks the end
// of its types with an empty list, which ends the pass (a type without
// configurations therefore hides every higher type). Then 100 runs pass idle
// and the next one starts a new pass. An error reply or a timeout changes
// nothing, so the same type is asked again on the next run: a type is never
// skipped.
//
// The pass state (g_need_updatejobconfs, m_conf_type and a slow counter)
// outlives the machines. One machine per routine run (every 30 s, machine
// timeout 120 s); the runtime owns it. Event-loop thread only.
#ifndef OVITA2_AGENT_JOBS_UPDATE_JOB_CONFS_H
#define OVITA2_AGENT_JOBS_UPDATE_JOB_CONFS_H

#include <cstdint>

#include "framework/bev_machine_util.h"

class UpdateJobConfsMachine : public BEVMachineUtil {
 public:
  static constexpr unsigned kType = 9000016;
  static constexpr unsigned kRequestType = 68010;
  static constexpr unsigned kMachineTimeoutSec = 120;
  static constexpr int kWaitJobConfs = 1;
  // Idle runs between two passes.
  static constexpr int32_t kIdleRuns = 100;

  // True while a pass is under way.
  static bool g_need_updatejobconfs;
  // The collector type the next run asks for.
  static uint32_t m_conf_type;

  UpdateJobConfsMachine() { SetMachineTimeout(kMachineTimeoutSec); }

  unsigned StateMachineType() override { return kType; }
  const char* MachineName() override { return "UpdateJobConfsMachine"; }

  // Decides whether to ask, and asks for m_conf_type.
  int Entry_Init(zelvar::event_key_t key, void* data);
  // `data` is the reply envelope; released on every path.
  int Entry_WaitJobConfs(zelvar::event_key_t key, void* data);

 private:
  static int32_t s_iSlowCounter;
};

#endif  // OVITA2_AGENT_JOBS_UPDATE_JOB_CONFS_H
