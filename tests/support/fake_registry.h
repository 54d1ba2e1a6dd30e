// FakeRegistry: the "zookeeper" plug-in of the test host. Records every
// command; an answer reaches the issuing machine as a plug-in event. The handle
// is one object for the program, routed to the current TestHost, so a handle
// the agent kept from an earlier test stays valid.
#ifndef OVITA2_TESTS_SUPPORT_FAKE_REGISTRY_H
#define OVITA2_TESTS_SUPPORT_FAKE_REGISTRY_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "zelvar/zk_plugin.h"

namespace ovita2::testing {

struct RegistryCall {
  uint32_t machine_id = 0;
  std::string command;
  std::string path;
  std::string data;  // "create": the node's bytes
  int flags = 0;     // "create": creation flags
  watcher_fn watcher = nullptr;
  void (*callback)() = nullptr;
};

class FakeRegistry {
 public:
  void* PluginHandle() { return &s_sHandle; }

  const std::vector<RegistryCall>& Calls() const { return m_vecCalls; }
  const RegistryCall& LastCall() const { return m_vecCalls.at(m_vecCalls.size() - 1); }
  // What the next `command`s return: 0 accepts (the default), else refuses.
  void SetCommandResult(const std::string& command, int result) { m_mapResults[command] = result; }

  // Answers `call`; for "listvalue", with the children as (name, raw data).
  void Answer(const RegistryCall& call, int retcode,
              const std::vector<std::pair<std::string, std::string>>& children = {});

 private:
  static int Call(unsigned machineId, const char* command, ...);

  static zelvar::ZKPluginHandle s_sHandle;
  std::vector<RegistryCall> m_vecCalls;
  std::map<std::string, int> m_mapResults;
};

}  // namespace ovita2::testing

#endif  // OVITA2_TESTS_SUPPORT_FAKE_REGISTRY_H
