// RegisterEndpointsMachine: keeps the control plane's endpoint nodes in the
// registry, so agents find it by name. For each node in turn it asks the
// registry whether the node is there ("get") and creates it as an ephemeral
// node holding the endpoint when it is not. A node that holds another
// endpoint belongs to another instance of the same name: it is reported and
// left alone, never overwritten.
//
// Missing folders above a node are the registry plug-in's to create, as both
// plug-ins do.
//
// Ephemeral nodes vanish with the registry session, so the check runs again
// every few seconds and at once after the registry reconnects; one machine
// runs at a time.
#ifndef OVITA2_CONTROLPLANE_REGISTER_ENDPOINTS_MACHINE_H
#define OVITA2_CONTROLPLANE_REGISTER_ENDPOINTS_MACHINE_H

#include <string>
#include <vector>

#include "zelvar/state_machine.h"
#include "zelvar/zk_plugin.h"

namespace controlplane {

class RegisterEndpointsMachine : public zelvar::StateMachine {
 public:
  static constexpr unsigned kType = 9100002;

  // `nodeData` is the serialised endpoint every node holds.
  RegisterEndpointsMachine(zelvar::ZKPluginHandle* registry, std::vector<std::string> nodes, std::string nodeData);
  ~RegisterEndpointsMachine() override;

  static bool IsRunning() { return s_bRunning; }

  unsigned StateMachineType() override { return kType; }
  const char* MachineName() override { return "RegisterEndpointsMachine"; }
  int DoNext2(zelvar::event_key_t key, void* data) override;
  int Timeout(bool machineTimeout) override;

 private:
  enum State : int { kStart = zelvar::kInitialState, kWaitLookup = 1, kWaitCreate = 2 };

  int LookUpNext();
  int CreateNode();
  int OnLookup(const zelvar::ZKPluginResponse& answer);
  int OnCreate(const zelvar::ZKPluginResponse& answer);

  static bool s_bRunning;

  zelvar::ZKPluginHandle* m_pRegistry;
  std::vector<std::string> m_vecNodes;
  std::string m_strNodeData;
  size_t m_uNext = 0;  // the node being checked
};

}  // namespace controlplane

#endif  // OVITA2_CONTROLPLANE_REGISTER_ENDPOINTS_MACHINE_H
