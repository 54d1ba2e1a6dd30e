// The agent's own test host and state reset, in a unit of their own: only
// programs that link the agent pull them in.
#include <new>

#include "collectors/kernel_logs_product.h"
#include "collectors/process_monitor_product.h"
#include "entry/ovita2_agent.h"
#include "entry/so_entry.h"
#include "framework/routine_util.h"
#include "jobs/execute_jobs_of_conf.h"
#include "jobs/job_conf_container.h"
#include "jobs/job_container.h"
#include "jobs/update_job_confs.h"
#include "jobs/update_jobs.h"
#include "liveness/enable_real_time.h"
#include "liveness/real_time_collect.h"
#include "naming/name_container.h"
#include "naming/register_myself.h"
#include "naming/update_aggregation.h"
#include "naming/update_task_queue.h"
#include "pipeline/execute_hp_jobs.h"
#include "pipeline/execute_jobs.h"
#include "pipeline/second_phase.h"
#include "pipeline/stats_queues.h"
#include "test_host.h"

namespace ovita2::testing {

namespace {
// The singletons are rebuilt in place: their tables only ever grow.
template <typename T>
void Rebuild(T* object) {
  object->~T();
  new (object) T();
}

// The slow counter saturates at its skip count from any value, and the next
// asked-for run (with no task queue known, so nothing is sent) wraps it to 0.
void ResetSlowCounter() {
  g_strTQIP.clear();
  g_need_updatejobs = false;
  for (int run = 0; run < UpdateJobsMachine::kSkippedRuns; ++run) UpdateJobsMachine().Entry_Init(zelvar::event_key_t{}, nullptr);
  g_need_updatejobs = true;
  UpdateJobsMachine().Entry_Init(zelvar::event_key_t{}, nullptr);
  g_need_updatejobs = false;
}

// The same for the configuration pass, which then stands where a fresh
// process starts it: a pass begins at type 1.
void ResetConfPass() {
  UpdateJobConfsMachine::g_need_updatejobconfs = false;
  for (int run = 0; run < UpdateJobConfsMachine::kIdleRuns; ++run) {
    UpdateJobConfsMachine().Entry_Init(zelvar::event_key_t{}, nullptr);
  }
  UpdateJobConfsMachine::g_need_updatejobconfs = true;
  UpdateJobConfsMachine().Entry_Init(zelvar::event_key_t{}, nullptr);
  UpdateJobConfsMachine::m_conf_type = 1;
}
}  // namespace

TestHost::TestHost(unsigned defaultMachineTimeoutSec)
    : TestHost(PluginEntries{&OnPeekInterface, nullptr, &OnDataIn}, defaultMachineTimeoutSec) {}

void ResetAgentState() {
  ResetSlowCounter();
  ResetConfPass();
  g_strTQName.clear();
  g_iTQPort = 0;
  g_strAggrName.clear();
  g_strAggrIP.clear();
  g_iAggrPort = 0;
  g_highprecision_frequency = kDefaultHighPrecisionFrequency;
  ExecuteJobsMachine::m_bRunning = false;
  ExecuteJobsOfConfMachine::m_bRunning = false;
  ExecuteHpJobsMachine::m_bRunning = false;
  SecondPhaseMachine::isRunning = false;
  RealTimeCollectMachine::m_rtRunning = false;
  g_mapRealtimeConf.clear();
  g_mapHpSecondInfo.clear();
  RegisterMyselfMachine::m_bRegister = false;
  RegisterMyselfMachine::m_sLock = {0, 0};
  g_vecUpper.clear();
  g_vecStringUpper.clear();
  g_vecSecondInfo.clear();
  ProcessMonitorProduct::mapWarnProcessInfo.clear();
  KernelLogsProduct::ResetSharedState();
  Rebuild(JobContainer::Instance());
  Rebuild(JobConfContainer::Instance());
  Rebuild(NameContainer::Instance());
  // Every routine back to "never run", in registration order.
  RoutineUtil fresh;
  for (const routing_machine_t& routine : RoutineUtil::Instance()->Routines()) {
    fresh.SetRouting(routine.creator, routine.interval, routine.once);
  }
  *RoutineUtil::Instance() = fresh;
  fn_usr_OnInit = OnMyInit;
  fn_usr_OnConnect = nullptr;
  fn_usr_OnDisconnect = nullptr;
  fn_usr_OnDataIn = nullptr;
}

}  // namespace ovita2::testing
