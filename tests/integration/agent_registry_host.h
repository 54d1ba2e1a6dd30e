// AgentRegistryHost: zelvar-host run in the test process with a registry
// plug-in (loaded as "zookeeper") and the agent, as an installation runs them.
//
// The test writes the configuration's extra sections, starts the host, and
// drives its loop until the log shows what it waits for. Runs of the agent's
// machines can also be started at once through the factory, as the routine
// would start them, so a test need not wait out a routine's interval.
//
// One per test (the host is process-wide while it lives); test thread only.
#ifndef OVITA2_TESTS_INTEGRATION_AGENT_REGISTRY_HOST_H
#define OVITA2_TESTS_INTEGRATION_AGENT_REGISTRY_HOST_H

#include <string>

#include "host.h"
#include "test_support.h"

namespace ovita2_it {

class AgentRegistryHost {
 public:
  static constexpr unsigned kUpdateNamesType = 55900;
  static constexpr unsigned kRegisterMyselfType = 9000000;

  // Starts the host, logging at level 1, with `registryPlugin` then the agent;
  // `sections` is appended to the configuration. False with the reason in `error`.
  bool Start(const std::string& registryPlugin, const std::string& sections, std::string* error);

  zelvar_host::Host& host() { return m_sHost; }
  std::string LogText() const { return host_test::ReadFile(m_sDir.Path() + "/host.log"); }
  // How often `text` occurs in the log so far.
  size_t Count(const std::string& text) const;
  // Runs the loop until `text` occurs `times` times, for at most `seconds`.
  bool RunUntilLogged(const std::string& text, size_t times, double seconds);
  // Starts a machine of `type` from the factory, as a routine run.
  bool StartMachine(unsigned type);

 private:
  host_test::TempDir m_sDir;
  zelvar_host::Host m_sHost;
};

// A loopback port nobody listens on now.
int FreeLoopbackPort();

}  // namespace ovita2_it

#endif  // OVITA2_TESTS_INTEGRATION_AGENT_REGISTRY_HOST_H
