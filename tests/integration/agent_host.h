// zelvar-host's loop in the test process with the agent from the build tree,
// after a registry plug-in loaded as "zookeeper" (the name the agent asks for).
// One per test (the host is process-wide); destroying it shuts the host down.
#ifndef OVITA2_TESTS_INTEGRATION_AGENT_HOST_H
#define OVITA2_TESTS_INTEGRATION_AGENT_HOST_H

#include <functional>
#include <string>

#include "host.h"
#include "local_system.h"
#include "zelvar/machine_factory.h"
#include "zelvar/state_machine.h"

namespace ovita2::testing {

class AgentHost {
 public:
  // `registryPlugin` may be empty; `sections` is appended to the configuration.
  AgentHost(const std::string& registryPlugin, const std::string& sections) {
    std::string registry = registryPlugin.empty() ? "" : "zookeeper = " + registryPlugin + "\n";
    m_bOk = m_sHost.Init(m_sDir.Write("agent.ini", "[host]\nlog_file = host.log\nlog_level = 1\n[plugins]\n" +
                                                        registry + "agent = " AGENT_PLUGIN_PATH "\n" + sections),
                         &m_strError);
  }
  bool ok() const { return m_bOk; }
  const std::string& error() const { return m_strError; }
  zelvar_host::Host& host() { return m_sHost; }

  std::string LogText() const { return ReadFile(m_sDir.Path() + "/host.log"); }
  size_t Count(const std::string& text) const {
    std::string log = LogText();
    size_t count = 0;
    for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) ++count;
    return count;
  }

  bool RunUntil(const std::function<bool()>& done, double seconds = 20.0) { return m_sHost.RunUntil(done, seconds); }
  bool RunUntilLogged(const std::string& text, size_t times = 1, double seconds = 20.0) {
    return RunUntil([&] { return Count(text) >= times; }, seconds);
  }

  // Starts a run of the agent's machine of `type` now, as its routine would,
  // so a test need not wait out the routine's interval.
  bool StartMachine(unsigned type) {
    zelvar::StateMachine* machine = zelvar::MachineFactory::Instance()->CreateMachine(type);
    if (machine != nullptr) machine->SetCreatedByRoutine(true), m_sHost.Runtime().Start(machine);
    return machine != nullptr;
  }

 private:
  TempDir m_sDir;  // outlives the host, which writes its log here until shut down
  zelvar_host::Host m_sHost;
  bool m_bOk = false;
  std::string m_strError;
};

}  // namespace ovita2::testing

#endif  // OVITA2_TESTS_INTEGRATION_AGENT_HOST_H
