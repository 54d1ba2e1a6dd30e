// FakeRegistry: stands in for the "zookeeper" plug-in of the test host.
//
// The agent reaches it through GetPluginHandle("zookeeper"), whose first
// member is the variadic command entry. Every command is recorded with its
// issuing machine and its arguments as the registry protocol defines them:
//   "listvalue"    path, watcher
//   "create"       path, data, data length (64-bit), creation flags
//   "get"          path, watcher
//   "set_callback" callback
// A test answers a command with any record it likes: the record reaches the
// issuing machine as the payload of its next handler call (a plug-in event),
// and the machine owns it.
//
// Owned by its TestHost; test thread only.
#ifndef OVITA2_TESTS_SUPPORT_FAKE_REGISTRY_H
#define OVITA2_TESTS_SUPPORT_FAKE_REGISTRY_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

struct _zhandle;

namespace ovita2 {
namespace testing {

// The registry's watcher signature (handle, event type, state, path, context).
using RegistryWatcher = void (*)(_zhandle*, int, int, const char*, void*);
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
  // What GetPluginHandle returns: the command entry comes first.
  struct Handle {
    int (*ZKPluginCall)(unsigned machineId, const char* command, ...);
  };

  FakeRegistry();

  void* PluginHandle() { return &m_sHandle; }

  const std::vector<RegistryCall>& Calls() const { return m_vecCalls; }
  // The most recent command; aborts the test program when there is none.
  const RegistryCall& LastCall() const;
  // The result the next commands get: 0 accepts, anything else refuses.
  void SetCommandResult(int result) { m_iResult = result; }

  // Delivers `record` to the machine that issued `call`; `drop` frees it if
  // that machine is gone. Runs at the host's next RunPending.
  void Answer(const RegistryCall& call, void* record, void (*drop)(void*));
  template <typename Record>
  void Answer(const RegistryCall& call, std::unique_ptr<Record> record) {
    Answer(call, record.release(), [](void* gone) { delete static_cast<Record*>(gone); });
  }

 private:
  static int Call(unsigned machineId, const char* command, ...);

  Handle m_sHandle;
  std::vector<RegistryCall> m_vecCalls;
  int m_iResult = 0;
};

}  // namespace testing
}  // namespace ovita2

#endif  // OVITA2_TESTS_SUPPORT_FAKE_REGISTRY_H
