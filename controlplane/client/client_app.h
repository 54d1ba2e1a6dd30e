// ovita2ctl, the control plane's command-line client: lists what the control
// plane stored (agents, samples, real-time lines), follows new rows as they
// arrive, and asks an agent to start or stop real-time monitoring of an item.
#ifndef OVITA2_CONTROLPLANE_CLIENT_APP_H
#define OVITA2_CONTROLPLANE_CLIENT_APP_H

#include <ostream>

namespace controlplane {

constexpr int kExitRefused = 1;
constexpr int kExitRuntimeError = 2;

// Runs one command line; what it shows goes to `out`, what went wrong to
// `err`. Returns the exit status: 0 success, 1 the agent refused, 2 the
// database or the network failed, and the parser's own status for a usage
// mistake. Never throws.
int RunClient(int argc, const char* const* argv, std::ostream& out, std::ostream& err);

}  // namespace controlplane

#endif  // OVITA2_CONTROLPLANE_CLIENT_APP_H
