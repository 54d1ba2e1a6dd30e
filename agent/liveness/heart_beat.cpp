// HeartBeatMachine: the agent's once-a-minute report to its task queue.
#include "liveness/heart_beat.h"

#include "framework/agent_switches.h"
#include "framework/host_api.h"
#include "framework/machine_registration.h"
#include "jobs/job_container.h"
#include "naming/update_task_queue.h"
#include "zelvar/message_util.h"
#include "zelvar/ovita2.pb.h"

OVITA2_MACHINE_CREATORS(HeartBeat)
OVITA2_MACHINE_STATE(HeartBeat, Init)

static const ovita2::MachineRegistration kRegistration =
    ovita2::MachineRegistration(HeartBeatMachine::kType, HeartBeatCreateMySelf, HeartBeatCreateMySelfByAddr)
        .Routine(HeartBeatCreateMySelfForRoutine, kRoutineHeartBeat, 60)
        .State(-1, HeartBeatMachineEntry_Init, "Entry_Init");

int HeartBeatMachine::Entry_Init(zelvar::event_key_t, void*) {
  if (g_strTQIP.empty()) return zelvar::kMachineDone;

  // Never freed: the process's last heartbeat may be written after static
  // destructors have started to run.
  static zelvar::ZMessage& envelope = *new zelvar::ZMessage();
  static bool headFilled = false;
  if (!headFilled) {
    NewRequest(&envelope, kRequestType);
    headFilled = true;
  }

  auto* request = envelope.mutable_body()->MutableExtension(zelvar::ovita2::agent_heart_beat_request);
  request->set_agent_name(ovita2::HostConfigString("common", "agentname"));
  request->set_version(kAgentVersion);
  auto objects = static_cast<uint32_t>(JobContainer::Instance()->GetObjectJobs().size());
  request->set_job_count(objects);
  g_need_updatejobs = objects == 0;
  request->set_flags(0);

  SendRequest(envelope, g_strTQIP.c_str(), static_cast<unsigned>(g_iTQPort), 0);
  return zelvar::kMachineDone;
}
