// ServeRequestMachine: one per inbound request. The host hands it the decoded
// envelope; it has the control plane answer on the connection the request
// came from, then ends.
#ifndef OVITA2_CONTROLPLANE_SERVE_REQUEST_MACHINE_H
#define OVITA2_CONTROLPLANE_SERVE_REQUEST_MACHINE_H

#include <cstdint>

#include "zelvar/state_machine.h"

namespace controlplane {

class ServeRequestMachine : public zelvar::StateMachine {
 public:
  static constexpr unsigned kType = 9100001;

  ServeRequestMachine(uint64_t connA, uint64_t connB) : m_uConnA(connA), m_uConnB(connB) {}

  unsigned StateMachineType() override { return kType; }
  const char* MachineName() override { return "ServeRequestMachine"; }
  int DoNext2(zelvar::event_key_t key, void* data) override;

 private:
  uint64_t m_uConnA;
  uint64_t m_uConnB;
};

}  // namespace controlplane

#endif  // OVITA2_CONTROLPLANE_SERVE_REQUEST_MACHINE_H
