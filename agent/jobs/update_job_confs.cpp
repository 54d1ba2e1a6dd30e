// UpdateJobConfsMachine: fetches the collectors' configurations, one type per run.
#include "jobs/update_job_confs.h"

#include "framework/host_api.h"
#include "framework/machine_registration.h"
#include "jobs/job_conf_container.h"
#include "naming/update_task_queue.h"
#include "zelvar/message_util.h"
#include "zelvar/ovita2.pb.h"

using ovita2::HostFn;

bool UpdateJobConfsMachine::g_need_updatejobconfs = true;
uint32_t UpdateJobConfsMachine::m_conf_type = 1;
int32_t UpdateJobConfsMachine::s_iSlowCounter = 0;

OVITA2_MACHINE_CREATORS(UpdateJobConfs)
OVITA2_MACHINE_STATE(UpdateJobConfs, Init)
OVITA2_MACHINE_STATE(UpdateJobConfs, WaitJobConfs)

static const ovita2::MachineRegistration kRegistration =
    ovita2::MachineRegistration(UpdateJobConfsMachine::kType, UpdateJobConfsCreateMySelf,
                                UpdateJobConfsCreateMySelfByAddr)
        .Routine(UpdateJobConfsCreateMySelfForRoutine, kRoutineUpdateJobConfs, 30)
        .State(-1, UpdateJobConfsMachineEntry_Init, "Entry_Init")
        .State(UpdateJobConfsMachine::kWaitJobConfs, UpdateJobConfsMachineEntry_WaitJobConfs, "Entry_WaitJobConfs");

int UpdateJobConfsMachine::Entry_Init(zelvar::event_key_t, void*) {
  if (!g_need_updatejobconfs && s_iSlowCounter < kIdleRuns) {
    ++s_iSlowCounter;
    return zelvar::kMachineDone;
  }
  g_need_updatejobconfs = true;
  s_iSlowCounter %= kIdleRuns;
  if (g_strTQIP.empty()) return zelvar::kMachineDone;

  zelvar::ZMessage request;
  NewRequest(&request, kRequestType);
  auto* asked = request.mutable_body()->MutableExtension(zelvar::ovita2::get_conf_request);
  asked->set_agent_name(ovita2::HostConfigString("common", "agentname"));
  asked->set_conf_type(m_conf_type);
  SendRequest(request, g_strTQIP.c_str(), static_cast<unsigned>(g_iTQPort), 0);
  SetState(kWaitJobConfs);
  return zelvar::kKeepMachine;
}

int UpdateJobConfsMachine::Entry_WaitJobConfs(zelvar::event_key_t, void* data) {
  auto* reply = static_cast<zelvar::ZMessage*>(data);
  const zelvar::ovita2::GetConfResponse& response = reply->body().GetExtension(zelvar::ovita2::get_conf_response);
  if (response.rc().code() != 0) {
    ovita2::MachineLog(4, this, "query job_confs failed, %s", response.rc().msg().c_str());
  } else if (response.confs_size() > 0) {
    JobConfContainer::Instance()->UpdateJobConfs(m_conf_type, response);
    ++m_conf_type;
  } else {
    ovita2::MachineLog(1, this, "%s", "there is no job_confs");
    m_conf_type = 1;
    g_need_updatejobconfs = false;
  }
  HostFn<zelvar::ReleaseMessageFn>(zelvar::kSlotReleaseMessage)(0, reply);
  return zelvar::kMachineDone;
}
