// FakeRegistry: the "zookeeper" plug-in of the test host. Every command is
// recorded with its issuing machine and arguments ("listvalue"/"get": path,
// watcher; "create": path, data, 64-bit length, flags; "set_callback":
// callback). An answer reaches the issuing machine as a plug-in event whose
// ZKPluginResponse the machine owns. The handle is one object for the program,
// routed to the current TestHost, so a handle the agent kept stays valid.
#ifndef OVITA2_TESTS_SUPPORT_FAKE_REGISTRY_H
#define OVITA2_TESTS_SUPPORT_FAKE_REGISTRY_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "zelvar/zk_plugin.h"

namespace ovita2 {
namespace testing {

using RegistryWatcher = watcher_fn;
using RegistryCallback = void (*)();

struct RegistryCall {
  uint32_t machine_id = 0;
  std::string command;
  std::string path;
  std::string data;  // "create": the node's bytes
  int flags = 0;     // "create": creation flags
  RegistryWatcher watcher = nullptr;
  RegistryCallback callback = nullptr;
};

class FakeRegistry {
 public:
  void* PluginHandle() { return &s_sHandle; }

  const std::vector<RegistryCall>& Calls() const { return m_vecCalls; }
  // The most recent command; aborts the test program when there is none.
  const RegistryCall& LastCall() const;
  // What the next `command`s return: 0 accepts (the default), else refuses.
  void SetCommandResult(const std::string& command, int result) { m_mapResults[command] = result; }

  // Answers `call` with `retcode` and, for "listvalue", the children as
  // (name, raw data). Runs at the host's next RunPending.
  void Answer(const RegistryCall& call, int retcode,
              const std::vector<std::pair<std::string, std::string>>& children = {});

 private:
  static int Call(unsigned machineId, const char* command, ...);

  static zelvar::ZKPluginHandle s_sHandle;
  std::vector<RegistryCall> m_vecCalls;
  std::map<std::string, int> m_mapResults;
};

}  // namespace testing
}  // namespace ovita2

#endif  // OVITA2_TESTS_SUPPORT_FAKE_REGISTRY_H
