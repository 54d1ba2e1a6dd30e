#include "plugin/serve_request_machine.h"

#include "plugin/control_plane_plugin.h"
#include "plugin/host_access.h"
#include "zelvar/message.pb.h"

namespace controlplane {

int ServeRequestMachine::DoNext2(zelvar::event_key_t, void* data) {
  auto* request = static_cast<zelvar::ZMessage*>(data);
  if (request == nullptr) return zelvar::kKeepMachine;  // the request is still on its way
  if (ControlPlanePlugin* plugin = ControlPlanePlugin::Instance()) plugin->Serve(*request, m_uConnA, m_uConnB, m_sPeerAtArrival);
  HostSlot<zelvar::ReleaseMessageFn>(zelvar::kSlotReleaseMessage)(0, request);
  return zelvar::kMachineDone;
}

}  // namespace controlplane
