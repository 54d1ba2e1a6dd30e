// What the probe plug-in (a plug-in built only for the host's tests) records
// and what a test can steer. The test reaches it through
// GetPluginHandle("probe"); the probe resets it in OnPeekInterface.
#ifndef OVITA2_TESTS_HOST_PROBE_CONTROL_H
#define OVITA2_TESTS_HOST_PROBE_CONTROL_H

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "zelvar/host_interface.h"

namespace probe {

// The machine type the probe registers; it also serves message type 7001
// (requests it answers with 7002 on the connection they came from).
constexpr unsigned kProbeMachineType = 7001;
constexpr unsigned kProbeReplyType = 7002;

// One event a probe machine received.
struct Seen {
  uint32_t machine_id = 0;
  int state = 0;
  uint32_t event_type = 0;
  uint32_t flow_no = 0;
  std::string session;     // message events: head.session
  unsigned message_type = 0;
  int64_t status = 0;      // long actions: status; AIO: result
  int error_number = 0;    // AIO: errno
  std::string output;      // long actions
  std::string error;       // long actions
  bool timeout = false;    // Timeout() rather than an event
};

struct Control {
  zelvar::HostFunction table[zelvar::kHostSlotCount] = {};
  std::vector<std::string> calls;  // entry points in call order
  std::string init_context;        // what OnInit received, as a C string
  int routine_calls = 0;
  bool routine_makes_machine = false;
  int ready = 1;
  std::vector<Seen> seen;
  std::vector<std::pair<uint64_t, uint64_t>> connects;
  std::vector<std::pair<uint64_t, uint64_t>> disconnects;
  // Machine ids of the probe machines that ended (in their destructor).
  std::vector<uint32_t> ended;
};

}  // namespace probe

#endif  // OVITA2_TESTS_HOST_PROBE_CONTROL_H
