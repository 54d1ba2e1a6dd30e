#include "agent_registry_host.h"

#include <unistd.h>

#include "zelvar/machine_factory.h"
#include "zelvar/state_machine.h"

namespace ovita2_it {

bool AgentRegistryHost::Start(const std::string& registryPlugin, const std::string& sections, std::string* error) {
  std::string config = m_sDir.Write("agent.ini", "[host]\nlog_file = host.log\nlog_level = 1\n"
                                                 "[plugins]\nzookeeper = " + registryPlugin +
                                                     "\nagent = " AGENT_PLUGIN_PATH "\n" + sections);
  return m_sHost.Init(config, error);
}

size_t AgentRegistryHost::Count(const std::string& text) const {
  std::string log = LogText();
  size_t count = 0;
  for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + text.size())) ++count;
  return count;
}

bool AgentRegistryHost::RunUntilLogged(const std::string& text, size_t times, double seconds) {
  return m_sHost.RunUntil([&] { return Count(text) >= times; }, seconds);
}

bool AgentRegistryHost::StartMachine(unsigned type) {
  zelvar::StateMachine* machine = zelvar::MachineFactory::Instance()->CreateMachine(type);
  if (machine == nullptr) return false;
  machine->SetCreatedByRoutine(true);
  m_sHost.Runtime().Start(machine);
  return true;
}

int FreeLoopbackPort() {
  int port = 0;
  int fd = host_test::ListenLoopback(&port);
  if (fd >= 0) close(fd);
  return port;
}

}  // namespace ovita2_it
