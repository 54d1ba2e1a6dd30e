#include "naming/update_names.h"

#include <cassert>
#include <vector>

#include "framework/host_api.h"
#include "framework/machine_registration.h"
#include "naming/name_container.h"
#include "naming/zk_access.h"
#include "zelvar/kadri.pb.h"
#include "zelvar/zk_plugin.h"

OVITA2_MACHINE_CREATORS(UpdateNames)
OVITA2_MACHINE_STATE(UpdateNames, Init)
OVITA2_MACHINE_STATE(UpdateNames, WaitInfo)

static const ovita2::MachineRegistration kUpdateNamesRegistration =
    ovita2::MachineRegistration(UpdateNamesMachine::kType, UpdateNamesCreateMySelf, UpdateNamesCreateMySelfByAddr)
        .Routine(UpdateNamesCreateMySelfForRoutine, kRoutineUpdateNames, UpdateNamesMachine::kRoutineInterval)
        .State(-1, UpdateNamesMachineEntry_Init, "Entry_Init")
        .State(UpdateNamesMachine::kStateWaitInfo, UpdateNamesMachineEntry_WaitInfo, "Entry_WaitInfo");

int UpdateNamesMachine::Entry_Init(zelvar::event_key_t, void*) {
  if (ei_handle() == nullptr) return zelvar::kMachineDone;
  m_itNextName = NameContainer::Instance()->Names().begin();
  return RequestName();
}

int UpdateNamesMachine::RequestName() {
  const auto& names = NameContainer::Instance()->Names();
  if (m_itNextName == names.end()) return zelvar::kMachineDone;
  m_strCurrentName = m_itNextName->first;
  const std::string& path = m_itNextName->second;
  int result = ei_handle()->ZKPluginCall(GetMachineId(), "listvalue", path.c_str(), static_cast<watcher_fn>(nullptr));
  ++m_itNextName;
  if (result != 0) {
    // The names after this one wait for the next run: a registry that
    // refuses one command is likely to refuse the rest.
    ovita2::MachineLog(4, this, "call listvalue failed, node: %s", path.c_str());
    return zelvar::kMachineDone;
  }
  SetState(kStateWaitInfo);
  return zelvar::kKeepMachine;
}

int UpdateNamesMachine::Entry_WaitInfo(zelvar::event_key_t, void* data) {
  auto* pMessage = static_cast<zelvar::ZKPluginResponse*>(data);
  assert(pMessage);
  if (pMessage->retcode != 0) {
    ovita2::MachineLog(4, this, "listvalue %s failed, %s", m_strCurrentName.c_str(), pMessage->error_message.c_str());
  } else {
    ovita2::MachineLog(1, this, "listvalue %s success", m_strCurrentName.c_str());
    if (ovita2::LogEnabled(1)) pMessage->Dump(ovita2::HostFn<zelvar::GetLogFdFn>(zelvar::kSlotGetLogFd)());
    StoreInstances(*pMessage);
  }
  delete pMessage;
  return RequestName();
}

void UpdateNamesMachine::StoreInstances(const zelvar::ZKPluginResponse& response) {
  // The listing is read whatever `type` says: only the children matter.
  std::vector<zelvar::ZKKeyValue> children = response.keyvalues;
  if (children.empty()) {
    ovita2::MachineLog(4, this, "no valid service for %s", m_strCurrentName.c_str());
    return;
  }
  NameContainer* container = NameContainer::Instance();
  container->ClearNameValue(m_strCurrentName);
  for (const zelvar::ZKKeyValue& child : children) {
    zelvar::kadri::NameNodeContent content;
    if (!content.ParseFromString(child.value)) {
      ovita2::MachineLog(4, this, "Can't parse NodeContent for Modules: %s", m_strCurrentName.c_str());
      continue;
    }
    container->SetNameValue(m_strCurrentName, child.key, content);
    ovita2::MachineLog(1, this, "name=%s, ip=%s, port=%d", m_strCurrentName.c_str(), content.ip().c_str(),
                       content.port());
  }
  if (NameContainer::UpdateHook hook = container->GetUpdateHook()) hook();
}
