#include "plugin/register_endpoints_machine.h"

#include <memory>
#include <utility>

#include "plugin/host_access.h"

namespace controlplane {

bool RegisterEndpointsMachine::s_bRunning = false;

RegisterEndpointsMachine::RegisterEndpointsMachine(zelvar::ZKPluginHandle* registry, std::vector<std::string> nodes,
                                                   std::string nodeData)
    : m_pRegistry(registry), m_vecNodes(std::move(nodes)), m_strNodeData(std::move(nodeData)) {
  s_bRunning = true;
}

RegisterEndpointsMachine::~RegisterEndpointsMachine() { s_bRunning = false; }

int RegisterEndpointsMachine::DoNext2(zelvar::event_key_t, void* data) {
  if (GetState() == kStart) return LookUpNext();
  // Every later event is the registry's answer, which this handler owns.
  std::unique_ptr<zelvar::ZKPluginResponse> answer(static_cast<zelvar::ZKPluginResponse*>(data));
  if (answer == nullptr) return zelvar::kKeepMachine;
  return GetState() == kWaitLookup ? OnLookup(*answer) : OnCreate(*answer);
}

int RegisterEndpointsMachine::Timeout(bool) {
  HostLog(4, "the registry did not answer about " + m_vecNodes[m_uNext] + "; asking again later");
  return zelvar::kMachineDone;
}

int RegisterEndpointsMachine::LookUpNext() {
  if (m_uNext >= m_vecNodes.size()) return zelvar::kMachineDone;
  const std::string& node = m_vecNodes[m_uNext];
  int refused = m_pRegistry->ZKPluginCall(GetMachineId(), "get", node.c_str(), static_cast<watcher_fn>(nullptr));
  if (refused != 0) {
    // Typically a lost registry connection; the next check retries.
    HostLog(2, "registry refused to look up " + node + " (" + std::to_string(refused) + ")");
    return zelvar::kMachineDone;
  }
  SetState(kWaitLookup);
  return zelvar::kKeepMachine;
}

int RegisterEndpointsMachine::OnLookup(const zelvar::ZKPluginResponse& answer) {
  const std::string& node = m_vecNodes[m_uNext];
  if (answer.retcode == ZOK) {
    if (answer.string != m_strNodeData) {
      HostLog(4, "registry node " + node + " holds another endpoint: is another control plane using this name?");
    }
    ++m_uNext;
    return LookUpNext();
  }
  if (answer.retcode != ZNONODE) {
    HostLog(4, "registry lookup of " + node + " failed: " + answer.error_message);
    return zelvar::kMachineDone;
  }
  return CreateNode();
}

int RegisterEndpointsMachine::CreateNode() {
  const std::string& node = m_vecNodes[m_uNext];
  int refused = m_pRegistry->ZKPluginCall(GetMachineId(), "create", node.c_str(), m_strNodeData.data(),
                                          static_cast<int64_t>(m_strNodeData.size()), ZOO_EPHEMERAL);
  if (refused != 0) {
    HostLog(2, "registry refused to create " + node + " (" + std::to_string(refused) + ")");
    return zelvar::kMachineDone;
  }
  SetState(kWaitCreate);
  return zelvar::kKeepMachine;
}

int RegisterEndpointsMachine::OnCreate(const zelvar::ZKPluginResponse& answer) {
  const std::string& node = m_vecNodes[m_uNext];
  if (answer.retcode == ZOK) {
    HostLog(3, "registered " + node);
  } else if (answer.retcode != ZNODEEXISTS) {  // created meanwhile: the next check reads it
    HostLog(4, "registering " + node + " failed: " + answer.error_message);
    return zelvar::kMachineDone;
  }
  ++m_uNext;
  return LookUpNext();
}

}  // namespace controlplane
