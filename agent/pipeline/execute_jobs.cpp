// The job executors' shared pass over the schedule, and ExecuteJobsMachine.
#include "pipeline/execute_jobs.h"

#include <cassert>
#include <cstdlib>

#include "framework/agent_switches.h"
#include "framework/host_api.h"
#include "framework/machine_registration.h"
#include "jobs/job_container.h"
#include "pipeline/parse_second_args.h"
#include "pipeline/stats_queues.h"
#include "zelvar/long_action.h"

bool ExecuteJobsMachine::m_bRunning = false;

OVITA2_MACHINE_CREATORS(ExecuteJobs)
OVITA2_MACHINE_STATE(ExecuteJobs, Init)
OVITA2_MACHINE_STATE(ExecuteJobs, WaitJobs)

static const ovita2::MachineRegistration kRegistration =
    ovita2::MachineRegistration(ExecuteJobsMachine::kType, ExecuteJobsCreateMySelf, ExecuteJobsCreateMySelfByAddr)
        .Routine(ExecuteJobsCreateMySelfForRoutine, kRoutineExecuteJobs, 10)
        .State(-1, ExecuteJobsMachineEntry_Init, "Entry_Init")
        .State(ExecuteJobsMachine::kWaitJobs, ExecuteJobsMachineEntry_WaitJobs, "Entry_WaitJobs");

namespace {

uint32_t TokenAsNumber(const std::vector<std::string>& tokens, size_t index) {
  if (index >= tokens.size()) return 0;
  return static_cast<uint32_t>(std::strtoul(tokens[index].c_str(), nullptr, 10));
}

std::string CommandLine(const zelvar::ovita2::JobDescription& job) {
  if (!job.has_command_args()) return job.command();
  return job.command() + " " + job.command_args();
}

}  // namespace

int JobPassMachine::Timeout(bool machineTimeout) {
  PassRunning() = false;
  return BEVMachineUtil::Timeout(machineTimeout);
}

int JobPassMachine::Entry_Init(zelvar::event_key_t, void*) {
  if (PassRunning()) return zelvar::kMachineDone;
  PassRunning() = true;
  return ExecuteJob();
}

int JobPassMachine::ExecuteJob() {
  JobContainer::ObjectJobs& objects = JobContainer::Instance()->GetObjectJobs();
  for (;;) {
    auto object = m_bPassStarted ? objects.upper_bound(m_uObjectCursor) : objects.begin();
    if (object == objects.end()) {
      PassRunning() = false;
      return zelvar::kMachineDone;
    }
    m_bPassStarted = true;
    m_uObjectCursor = object->first;
    m_mapJobInstances.clear();
    if (LaunchDueJobs(object->first, object->second) > 0) {
      SetState(kWaitJobs);
      return zelvar::kKeepMachine;
    }
  }
}

size_t JobPassMachine::LaunchDueJobs(uint32_t objectId, std::map<uint64_t, uint32_t>& jobs) {
  for (auto& job : jobs) {
    const zelvar::ovita2::JobDescription* define = JobContainer::Instance()->GetJobDefine(job.first);
    if (define == nullptr || !Takes(*define)) continue;
    int64_t now = ovita2::HostNow();
    if (static_cast<int64_t>(job.second) + define->interval() > now) continue;
    job.second = static_cast<uint32_t>(now);

    std::string command = CommandLine(*define);
    zelvar::ExecuteShell2 action(zelvar::ExecuteShell2::kName);
    action.Param(zelvar::ExecuteShell2::kCommandParam, command);
    ovita2::MachineLog(1, this, "shell cmd is %s", command.c_str());
    unsigned flow = SendLongAction(&action);
    // emplace keeps the first instance of a flow number.
    m_mapJobInstances.emplace(flow, JobInstance_t{objectId, job.first, static_cast<uint64_t>(now),
                                                  define->stat_key()});
  }
  return m_mapJobInstances.size();
}

int JobPassMachine::Entry_WaitJobs(zelvar::event_key_t, void* data) {
  auto* pMessage = static_cast<zelvar::LongActionResult*>(data);
  assert(pMessage);
  if (pMessage->status != 0) {
    ovita2::MachineLog(4, this, "long action stderr: %lld, %s", static_cast<long long>(pMessage->status),
                       pMessage->error.c_str());
    m_mapJobInstances.erase(pMessage->flow_no);
  } else {
    auto instance = m_mapJobInstances.find(pMessage->flow_no);
    if (instance == m_mapJobInstances.end()) {
      ovita2::MachineLog(4, this, "%s:%d", "can't find the flowno", static_cast<int>(pMessage->flow_no));
      return zelvar::kKeepMachine;
    }
    const zelvar::ovita2::JobDescription* define = JobContainer::Instance()->GetJobDefine(instance->second.job_key);
    if (define != nullptr) {
      MakeSample(*pMessage, instance->second, *define);
    } else {
      // The catalogue no longer knows the job: nothing says what its output means.
      ovita2::MachineLog(3, this, "job %llu is gone, its answer is dropped",
                         static_cast<unsigned long long>(instance->second.job_key));
    }
    m_mapJobInstances.erase(instance);
  }
  if (!m_mapJobInstances.empty()) return zelvar::kKeepMachine;
  return ExecuteJob();
}

bool ExecuteJobsMachine::Takes(const zelvar::ovita2::JobDescription& job) const {
  return job.interval() >= g_highprecision_frequency;
}

void ExecuteJobsMachine::MakeSample(const zelvar::LongActionResult& result, const JobInstance_t& instance,
                                    const zelvar::ovita2::JobDescription& job) {
  if (job.second_phase() == 1) {
    _second_info record;
    record.object_id = instance.object_id;
    record.args = ParseSecondArgs(result.output);
    // A missing token reads as 0, so an output without "|" is still safe.
    record.first_arg = TokenAsNumber(record.args, 0);
    record.second_arg = TokenAsNumber(record.args, 1);
    record.name = instance.stat_key;
    record.job.CopyFrom(job);
    g_vecSecondInfo.push_back(std::move(record));
  } else if (job.string_value() == 1) {
    g_vecStringUpper.push_back(
        string_stats_info_st{instance.stat_key, job.job_id(), result.output, static_cast<uint64_t>(ovita2::HostNow())});
  } else {
    g_vecUpper.push_back(_stats_info{instance.stat_key, instance.object_id, job.stat_item(), TenthsOf(result.output),
                                     static_cast<uint32_t>(instance.start_time)});
  }
}
