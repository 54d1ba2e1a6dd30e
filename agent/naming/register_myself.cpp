#include "naming/register_myself.h"

#include <cassert>

#include "framework/host_api.h"
#include "framework/machine_registration.h"
#include "naming/zk_access.h"
#include "zelvar/kadri.pb.h"
#include "zelvar/zk_plugin.h"

OVITA2_MACHINE_CREATORS(RegisterMyself)
OVITA2_MACHINE_STATE(RegisterMyself, Init)
OVITA2_MACHINE_STATE(RegisterMyself, RegisterMyNode)
OVITA2_MACHINE_STATE(RegisterMyself, SetMyselfWatch)

static const ovita2::MachineRegistration kRegisterMyselfRegistration =
    ovita2::MachineRegistration(RegisterMyselfMachine::kType, RegisterMyselfCreateMySelf,
                                RegisterMyselfCreateMySelfByAddr)
        .Routine(RegisterMyselfCreateMySelfForRoutine, kRoutineRegisterMyself,
                 RegisterMyselfMachine::kRoutineInterval)
        .State(-1, RegisterMyselfMachineEntry_Init, "Entry_Init")
        .State(RegisterMyselfMachine::kStateRegisterMyNode, RegisterMyselfMachineEntry_RegisterMyNode,
               "Entry_RegisterMyNode")
        .State(RegisterMyselfMachine::kStateSetMyselfWatch, RegisterMyselfMachineEntry_SetMyselfWatch,
               "Entry_SetMyselfWatch");

bool RegisterMyselfMachine::m_bRegister = false;
RegisterMyselfMachine::RegisterLock RegisterMyselfMachine::m_sLock = {0, 0};

namespace {

std::string SerializedAddress() {
  zelvar::kadri::NameNodeContent content;
  content.set_ip(ovita2::HostConfigString("network", "listen-ip"));
  content.set_port(ovita2::HostFn<zelvar::GetConfigIntFn>(zelvar::kSlotGetConfigInt)("network", "listen-port", 0));
  std::string bytes;
  content.SerializeToString(&bytes);
  return bytes;
}

}  // namespace

RegisterMyselfMachine::~RegisterMyselfMachine() {
  if (m_sLock.owner == GetMachineId()) m_sLock = {0, 0};
}

// Ended as failed, unlike the common timeout: the registration did not happen.
int RegisterMyselfMachine::Timeout(bool machineTimeout) {
  BEVMachineUtil::Timeout(machineTimeout);
  return zelvar::kMachineFailed;
}

int RegisterMyselfMachine::Entry_Init(zelvar::event_key_t, void*) {
  if (m_sLock.locked != 0) {
    ovita2::MachineLog(2, this, "%s", "Someone is registing...");
    return zelvar::kMachineFailed;
  }
  m_sLock.locked = 1;
  m_sLock.owner = GetMachineId();

  auto isReady = ovita2::HostFn<zelvar::IsReadyFn>(zelvar::kSlotIsReady);
  if (isReady == nullptr || !isReady() || m_bRegister) return zelvar::kMachineDone;

  zelvar::ZKPluginHandle* handle = ei_handle();
  if (handle == nullptr) return zelvar::kMachineFailed;

  m_strMyName = ovita2::HostConfigString("common", "myname");
  if (handle->ZKPluginCall(GetMachineId(), "set_callback", &conn_callback_myself) != 0) {
    ovita2::MachineLog(4, this, "call set_callback failed, node: %s", m_strMyName.c_str());
    return zelvar::kMachineFailed;
  }

  std::string data = SerializedAddress();
  ovita2::MachineLog(2, this, "Registe myself node: %s", m_strMyName.c_str());
  if (handle->ZKPluginCall(GetMachineId(), "create", m_strMyName.c_str(), data.data(),
                           static_cast<int64_t>(data.size()), ZOO_EPHEMERAL) != 0) {
    ovita2::MachineLog(4, this, "call create failed, node: %s", m_strMyName.c_str());
    return zelvar::kMachineFailed;
  }
  SetState(kStateRegisterMyNode);
  return zelvar::kKeepMachine;
}

int RegisterMyselfMachine::Entry_RegisterMyNode(zelvar::event_key_t, void* data) {
  auto* pMessage = static_cast<zelvar::ZKPluginResponse*>(data);
  assert(pMessage);
  // A node left by this agent's live session is as good as a new one; its
  // content is not rewritten.
  if (pMessage->retcode == 0 || pMessage->retcode == ZNODEEXISTS) {
    delete pMessage;
    return SetMyselfWatch();
  }
  ovita2::MachineLog(4, this, "Register my note failed, %s", pMessage->error_message.c_str());
  delete pMessage;
  return zelvar::kMachineFailed;
}

int RegisterMyselfMachine::SetMyselfWatch() {
  if (ei_handle()->ZKPluginCall(GetMachineId(), "get", m_strMyName.c_str(), &myself_watcher_fn) != 0) {
    ovita2::MachineLog(4, this, "%s", "call get myself failed");
    return zelvar::kMachineFailed;
  }
  SetState(kStateSetMyselfWatch);
  return zelvar::kKeepMachine;
}

int RegisterMyselfMachine::Entry_SetMyselfWatch(zelvar::event_key_t, void* data) {
  auto* pMessage = static_cast<zelvar::ZKPluginResponse*>(data);
  assert(pMessage);
  if (pMessage->retcode == 0) {
    m_bRegister = true;
    ovita2::MachineLog(2, this, "%s", "Register myself finished");
    delete pMessage;
    return zelvar::kMachineDone;
  }
  ovita2::MachineLog(4, this, "Register myself watch failed, %s", pMessage->error_message.c_str());
  delete pMessage;
  return zelvar::kMachineFailed;
}

void conn_callback_myself() {
  ovita2::HostLog(2, "Reset register flag by conn_callback_myself");
  RegisterMyselfMachine::m_bRegister = false;
}

void myself_watcher_fn(zhandle_t*, int type, int state, const char*, void*) {
  ovita2::HostLog(2, "myself_watcher_fn type:%d, state:%d", type, state);
  // Any other event (a data change, a reconnection) leaves the node in place;
  // the watch is not armed again, the next registration does that.
  if (type == ZOO_DELETED_EVENT || state == ZOO_EXPIRED_SESSION_STATE) {
    ovita2::HostLog(2, "Reset register flag by myself_watcher_fn\n");
    RegisterMyselfMachine::m_bRegister = false;
  }
}
