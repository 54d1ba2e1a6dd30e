// SecondPhaseMachine: runs the due second-phase commands and makes their samples.
#include "pipeline/second_phase.h"

#include <cassert>
#include <ctime>

#include "framework/host_api.h"
#include "framework/machine_registration.h"
#include "zelvar/long_action.h"

bool SecondPhaseMachine::isRunning = false;

OVITA2_MACHINE_CREATORS(SecondPhase)
OVITA2_MACHINE_STATE(SecondPhase, Init)
OVITA2_MACHINE_STATE(SecondPhase, WaitJobs)

static const ovita2::MachineRegistration kRegistration =
    ovita2::MachineRegistration(SecondPhaseMachine::kType, SecondPhaseCreateMySelf, SecondPhaseCreateMySelfByAddr)
        .Routine(SecondPhaseCreateMySelfForRoutine, kRoutineSecondPhase, 10)
        .State(-1, SecondPhaseMachineEntry_Init, "Entry_Init")
        .State(SecondPhaseMachine::kWaitJobs, SecondPhaseMachineEntry_WaitJobs, "Entry_WaitJobs");

int SecondPhaseMachine::Timeout(bool machineTimeout) {
  isRunning = false;
  return BEVMachineUtil::Timeout(machineTimeout);
}

int SecondPhaseMachine::Entry_Init(zelvar::event_key_t, void*) {
  if (isRunning) return zelvar::kMachineDone;
  isRunning = true;
  const int64_t now = static_cast<int64_t>(std::time(nullptr));

  // Due records are launched and leave the queue; the others close up in
  // their order.
  auto kept = g_vecSecondInfo.begin();
  for (auto record = g_vecSecondInfo.begin(); record != g_vecSecondInfo.end(); ++record) {
    if (static_cast<int64_t>(record->first_arg) + record->job.second_phase_delay() <= now) {
      Launch(*record);
      continue;
    }
    if (kept != record) *kept = std::move(*record);
    ++kept;
  }
  g_vecSecondInfo.erase(kept, g_vecSecondInfo.end());

  if (m_mapLaunched.empty()) {
    isRunning = false;
    return zelvar::kMachineDone;
  }
  SetState(kWaitJobs);
  return zelvar::kKeepMachine;
}

void SecondPhaseMachine::Launch(_second_info& record) {
  // Every token goes to the second command, the time and second argument too.
  std::string command = record.job.second_phase_command();
  for (const std::string& token : record.args) command += " " + token;
  zelvar::ExecuteShell2 action(zelvar::ExecuteShell2::kName);
  action.Param(zelvar::ExecuteShell2::kCommandParam, command);
  ovita2::MachineLog(1, this, "second cmd is %s", command.c_str());
  unsigned flow = SendLongAction(&action);
  m_mapLaunched.try_emplace(flow, std::move(record));  // the first of a flow number stays
}

int SecondPhaseMachine::Entry_WaitJobs(zelvar::event_key_t, void* data) {
  auto* pMessage = static_cast<zelvar::LongActionResult*>(data);
  assert(pMessage);
  if (pMessage->status != 0) {
    ovita2::MachineLog(4, this, "long action stderr: %lld, %s", static_cast<long long>(pMessage->status),
                       pMessage->error.c_str());
    return zelvar::kKeepMachine;
  }
  auto launched = m_mapLaunched.find(pMessage->flow_no);
  if (launched == m_mapLaunched.end()) {
    ovita2::MachineLog(4, this, "%s:%d", "can't find the flowno", static_cast<int>(pMessage->flow_no));
    return zelvar::kKeepMachine;
  }
  const _second_info& record = launched->second;
  // Always a number, whatever the job's string-value flag says.
  g_vecUpper.push_back(
      _stats_info{record.name, record.object_id, record.job.stat_item(), TenthsOf(pMessage->output), record.first_arg});
  m_mapLaunched.erase(launched);
  if (!m_mapLaunched.empty()) return zelvar::kKeepMachine;
  isRunning = false;
  return zelvar::kMachineDone;
}
