// UpdateJobsMachine: fetches this agent's job list from its task queue into the JobContainer.
#include "jobs/update_jobs.h"

#include "framework/agent_switches.h"
#include "framework/host_api.h"
#include "framework/machine_registration.h"
#include "jobs/job_container.h"
#include "naming/update_task_queue.h"
#include "zelvar/message_util.h"
#include "zelvar/ovita2.pb.h"

using ovita2::HostFn;

int32_t UpdateJobsMachine::s_iSlowCounter = 0;

OVITA2_MACHINE_CREATORS(UpdateJobs)
OVITA2_MACHINE_STATE(UpdateJobs, Init)
OVITA2_MACHINE_STATE(UpdateJobs, WaitJobs)

static const ovita2::MachineRegistration kRegistration =
    ovita2::MachineRegistration(UpdateJobsMachine::kType, UpdateJobsCreateMySelf, UpdateJobsCreateMySelfByAddr)
        .Routine(UpdateJobsCreateMySelfForRoutine, kRoutineUpdateJobs, 150)
        .State(-1, UpdateJobsMachineEntry_Init, "Entry_Init")
        .State(UpdateJobsMachine::kWaitJobs, UpdateJobsMachineEntry_WaitJobs, "Entry_WaitJobs");

int UpdateJobsMachine::Entry_Init(zelvar::event_key_t, void*) {
  if (!g_need_updatejobs && s_iSlowCounter < kSkippedRuns) {
    ++s_iSlowCounter;
    return zelvar::kMachineDone;
  }
  // Reduced, not reset: a fetch asked for half-way through the slow count
  // does not push the next unasked one further away.
  s_iSlowCounter %= kSkippedRuns;
  if (g_strTQIP.empty()) return zelvar::kMachineDone;

  zelvar::ZMessage request;
  NewRequest(&request, kRequestType);
  request.mutable_body()->MutableExtension(zelvar::ovita2::get_job_request)->set_agent_name(
      ovita2::HostConfigString("common", "agentname"));
  SendRequest(request, g_strTQIP.c_str(), static_cast<unsigned>(g_iTQPort), 0);
  SetState(kWaitJobs);
  return zelvar::kKeepMachine;
}

int UpdateJobsMachine::Entry_WaitJobs(zelvar::event_key_t, void* data) {
  auto* reply = static_cast<zelvar::ZMessage*>(data);
  const zelvar::ovita2::GetJobResponse& response = reply->body().GetExtension(zelvar::ovita2::get_job_response);
  if (response.rc().code() != 0) {
    ovita2::MachineLog(4, this, "query jobs failed, %s", response.rc().msg().c_str());
  } else if (response.object_jobs_size() == 0) {
    ovita2::MachineLog(1, this, "%s", "there is no jobs");
  } else {
    JobContainer::Instance()->UpdateJobs(response);
  }
  HostFn<zelvar::ReleaseMessageFn>(zelvar::kSlotReleaseMessage)(0, reply);
  return zelvar::kMachineDone;
}
