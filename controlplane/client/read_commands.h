// The reading commands of ovita2ctl: what the control plane stored (agents,
// samples, real-time lines), once or followed as new rows arrive.
#ifndef OVITA2_CONTROLPLANE_READ_COMMANDS_H
#define OVITA2_CONTROLPLANE_READ_COMMANDS_H

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>

namespace CLI {
class Option;
}  // namespace CLI

namespace controlplane {

// What a reading command was given.
struct ReadOptions {
  std::string m_strDb;
  bool m_bJson = false;
  std::string m_strAgent;
  uint32_t m_uObject = 0;
  CLI::Option* m_pObject = nullptr;  // tells whether --object was given
  std::string m_strName;
  size_t m_uLimit = 20;
  size_t m_uLast = 10;
  bool m_bFollow = false;
  double m_dInterval = 1.0;
};

// Each returns the command's exit status (see client_app.h).
int ListAgents(const ReadOptions& options, std::ostream& out, std::ostream& err);
int ListSamples(const ReadOptions& options, std::ostream& out, std::ostream& err);
int ListLines(const ReadOptions& options, std::ostream& out, std::ostream& err);
// Print the last `backlog` rows, then the new ones poll by poll until SIGINT
// or SIGTERM; the database may be created meanwhile.
int FollowSamples(const ReadOptions& options, size_t backlog, std::ostream& out, std::ostream& err);
int FollowLines(const ReadOptions& options, size_t backlog, std::ostream& out, std::ostream& err);

}  // namespace controlplane

#endif  // OVITA2_CONTROLPLANE_READ_COMMANDS_H
