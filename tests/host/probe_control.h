// What the probe plug-in (built only for the host's tests) records and what a
// test steers, reached through GetPluginHandle("probe"); reset on each load.
#ifndef OVITA2_TESTS_HOST_PROBE_CONTROL_H
#define OVITA2_TESTS_HOST_PROBE_CONTROL_H

#include <string>
#include <utility>
#include <vector>

#include "zelvar/host_interface.h"

namespace probe {

// The probe's machine type, and the request type that creates one.
constexpr unsigned kProbeMachineType = 7001;

// One event a probe machine saw.
struct Seen {
  uint32_t machine_id, event_type, flow_no;
  int state;
  std::string text;  // session, plug-in record, "output|error" of a long action, errno of AIO
  int64_t status;    // long-action status, AIO result
};

struct Control {
  zelvar::HostFunction table[zelvar::kHostSlotCount] = {};
  std::vector<std::string> calls;  // entry points in call order
  std::string init_context;
  std::vector<Seen> seen;
  std::vector<std::pair<uint64_t, uint64_t>> connects, disconnects;
  std::vector<uint32_t> ended;  // probe machines, as they are destroyed
};

}  // namespace probe

#endif  // OVITA2_TESTS_HOST_PROBE_CONTROL_H
