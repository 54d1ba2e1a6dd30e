// FakeRegistry: stands in for the "zookeeper" plug-in of the test host.
//
// The agent reaches it through GetPluginHandle("zookeeper"), a
// zelvar::ZKPluginHandle whose first member is the variadic command entry.
// Every command is recorded with its issuing machine and its arguments as the
// registry protocol defines them:
//   "listvalue"    path, watcher
//   "create"       path, data, data length (64-bit), creation flags
//   "get"          path, watcher
//   "set_callback" callback
// A test answers a command with a zelvar::ZKPluginResponse: the record reaches
// the issuing machine as the payload of its next handler call (a plug-in
// event), the machine owns it, and the host drops it with
// ZKPluginResponse::DropRecord when that machine is gone, as the real
// registries do.
//
// The handle is one object for the whole test program, routed to the current
// TestHost, so that an agent which kept the handle of an earlier test host
// still reaches a live one. Owned by its TestHost; test thread only.
#ifndef OVITA2_TESTS_SUPPORT_FAKE_REGISTRY_H
#define OVITA2_TESTS_SUPPORT_FAKE_REGISTRY_H

#include <cstdint>
#include <map>
#include <memory>
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
  // The result the next commands get: 0 accepts, anything else refuses.
  void SetCommandResult(int result) { m_iResult = result; }
  // The result the next `command`s get, whatever SetCommandResult says.
  void SetCommandResult(const std::string& command, int result) { m_mapResults[command] = result; }

  // Delivers `response` to the machine that issued `call`. Runs at the host's
  // next RunPending.
  void Answer(const RegistryCall& call, std::unique_ptr<zelvar::ZKPluginResponse> response);
  // A successful answer to "listvalue": the children as (name, raw data).
  void AnswerChildren(const RegistryCall& call, const std::vector<std::pair<std::string, std::string>>& children);
  // A successful answer to "create" (the path) or "get" (empty data).
  void AnswerOk(const RegistryCall& call);
  // A failed answer: no payload, `retcode` and its text.
  void AnswerError(const RegistryCall& call, int retcode, const std::string& message);

 private:
  static int Call(unsigned machineId, const char* command, ...);

  static zelvar::ZKPluginHandle s_sHandle;
  std::vector<RegistryCall> m_vecCalls;
  int m_iResult = 0;
  std::map<std::string, int> m_mapResults;
};

}  // namespace testing
}  // namespace ovita2

#endif  // OVITA2_TESTS_SUPPORT_FAKE_REGISTRY_H
