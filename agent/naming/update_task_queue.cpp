// UpdateTaskQueueMachine: asks a master instance which task queue serves this agent.
#include "naming/update_task_queue.h"

#include "framework/host_api.h"
#include "framework/machine_registration.h"
#include "naming/name_container.h"
#include "zelvar/message_util.h"
#include "zelvar/ovita2.pb.h"

using ovita2::HostFn;

std::string g_strTQName;
std::string g_strTQIP;
int32_t g_iTQPort = 0;

OVITA2_MACHINE_CREATORS(UpdateTaskQueue)
OVITA2_MACHINE_STATE(UpdateTaskQueue, Init)
OVITA2_MACHINE_STATE(UpdateTaskQueue, WaitTaskQueue)

static const ovita2::MachineRegistration kRegistration =
    ovita2::MachineRegistration(UpdateTaskQueueMachine::kType, UpdateTaskQueueCreateMySelf,
                                UpdateTaskQueueCreateMySelfByAddr)
        .Routine(UpdateTaskQueueCreateMySelfForRoutine, kRoutineUpdateTaskQueue, 10)
        .State(-1, UpdateTaskQueueMachineEntry_Init, "Entry_Init")
        .State(UpdateTaskQueueMachine::kWaitTaskQueue, UpdateTaskQueueMachineEntry_WaitTaskQueue,
               "Entry_WaitTaskQueue");

int UpdateTaskQueueMachine::Entry_Init(zelvar::event_key_t, void*) {
  const zelvar::kadri::NameNodeContent* master = NameContainer::Instance()->GetNameValue("MASTER");
  if (master == nullptr) {
    ovita2::MachineLog(4, this, "%s", "No valid master");
    return zelvar::kMachineDone;
  }
  zelvar::ZMessage request;
  NewRequest(&request, kRequestType);
  request.mutable_body()->MutableExtension(zelvar::ovita2::get_task_queue_request)->set_node_path(
      ovita2::HostConfigString("common", "myname"));
  SendRequest(request, master->ip().c_str(), static_cast<unsigned>(master->port()), 0);
  SetState(kWaitTaskQueue);
  return zelvar::kKeepMachine;
}

int UpdateTaskQueueMachine::Entry_WaitTaskQueue(zelvar::event_key_t, void* data) {
  auto* reply = static_cast<zelvar::ZMessage*>(data);
  const zelvar::ovita2::GetTaskQueueResponse& response =
      reply->body().GetExtension(zelvar::ovita2::get_task_queue_response);
  auto release = HostFn<zelvar::ReleaseMessageFn>(zelvar::kSlotReleaseMessage);
  if (response.rc().code() != 0) {
    ovita2::MachineLog(4, this, "get task queeu failed, %s", response.rc().msg().c_str());
    release(0, reply);
    return zelvar::kMachineDone;
  }
  // A known queue keeps the address it was first seen with: the name, not the
  // address, says which queue serves us.
  if (response.name().empty() || response.name() == g_strTQName) {
    release(0, reply);
    return zelvar::kMachineDone;
  }
  g_strTQName = response.name();
  g_strTQIP = response.ip();
  g_iTQPort = response.port();
  ovita2::MachineLog(2, this, "my task queue: %s, %s:%d", g_strTQName.c_str(), g_strTQIP.c_str(), g_iTQPort);
  release(0, reply);
  return zelvar::kMachineDone;
}
