// ServeRequestMachine: one per inbound request. The host hands it the decoded
// envelope; it has the control plane answer on the connection the request
// came from, then ends.
#ifndef OVITA2_CONTROLPLANE_SERVE_REQUEST_MACHINE_H
#define OVITA2_CONTROLPLANE_SERVE_REQUEST_MACHINE_H

#include <cstdint>
#include <utility>

#include "services/control_plane_services.h"
#include "zelvar/state_machine.h"

namespace controlplane {

class ServeRequestMachine : public zelvar::StateMachine {
 public:
  static constexpr unsigned kType = 9100001;

  // `peerAtArrival` is who was known to send the request when it arrived; it
  // stands in when the connection closes before the request is served.
  ServeRequestMachine(uint64_t connA, uint64_t connB, PeerIdentity peerAtArrival)
      : m_uConnA(connA), m_uConnB(connB), m_sPeerAtArrival(std::move(peerAtArrival)) {}

  unsigned StateMachineType() override { return kType; }
  const char* MachineName() override { return "ServeRequestMachine"; }
  int DoNext2(zelvar::event_key_t key, void* data) override;

 private:
  uint64_t m_uConnA;
  uint64_t m_uConnB;
  PeerIdentity m_sPeerAtArrival;
};

}  // namespace controlplane

#endif  // OVITA2_CONTROLPLANE_SERVE_REQUEST_MACHINE_H
