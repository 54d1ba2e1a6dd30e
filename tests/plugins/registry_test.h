// The registry plug-ins' tests: a machine that keeps its answers, a plug-in
// loaded from where it was built (as zelvar-host loads it) onto the shared test
// host, and the fixture of the suite every registry must pass. Test thread only.
#ifndef OVITA2_TESTS_PLUGINS_REGISTRY_TEST_H
#define OVITA2_TESTS_PLUGINS_REGISTRY_TEST_H

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "test_host.h"
#include "zelvar/zk_plugin.h"

namespace zelvar::registry::testing {

using ovita2::testing::TestHost;
constexpr watcher_fn kNoWatch = nullptr;

// What the registry called back: watches (type, path) and connection callbacks.
inline std::vector<std::pair<int, std::string>> watchEvents;
inline int callbackCalls = 0;
inline void RecordingWatcher(zhandle_t*, int type, int, const char* at, void*) { watchEvents.emplace_back(type, at); }
inline void CountingCallback() { ++callbackCalls; }

// Stands in for the agent's machines that issue registry commands.
class AnswerRecorder : public StateMachine {
 public:
  static AnswerRecorder* Start(TestHost& host) {
    [[maybe_unused]] static const bool declared = (SetGlobalStateList2(4290001, kInitialState, &Keep), true);
    auto* recorder = new AnswerRecorder();
    host.Start(recorder);
    return recorder;
  }
  unsigned StateMachineType() override { return 4290001; }
  const char* MachineName() override { return "AnswerRecorder"; }
  static int Keep(StateMachine* machine, event_key_t, void* answer) {
    auto* kept = static_cast<ZKPluginResponse*>(answer);
    if (kept != nullptr) static_cast<AnswerRecorder*>(machine)->answers.emplace_back(kept);
    return kKeepMachine;
  }

  std::vector<std::unique_ptr<ZKPluginResponse>> answers;
};

// OnPeekInterface with the host's table first, OnUnload and dlclose last.
class LoadedPlugin {
 public:
  LoadedPlugin(const char* path, TestHost& host) : m_pLibrary(dlopen(path, RTLD_NOW | RTLD_LOCAL)) {
    if (m_pLibrary != nullptr) Entry<OnPeekInterfaceFn>("OnPeekInterface")(host.Table());
  }
  ~LoadedPlugin() {
    if (m_pLibrary != nullptr) Entry<OnUnloadFn>("OnUnload")();
    if (m_pLibrary != nullptr) dlclose(m_pLibrary);
  }
  // OnInit; -2 when the library could not be opened.
  int Init() { return m_pLibrary != nullptr ? Entry<OnInitFn>("OnInit")(nullptr) : -2; }
  bool IsReady() { return Entry<OnIsReadyFn>("OnIsReady")() != 0; }
  ZKPluginHandle* Handle() { return static_cast<ZKPluginHandle*>(Entry<OnGetPluginHandleFn>("OnGetPluginHandle")()); }

 private:
  template <typename Fn>
  Fn Entry(const char* name) { return reinterpret_cast<Fn>(dlsym(m_pLibrary, name)); }
  void* m_pLibrary;
};

// One registry as the conformance suite sees it.
struct RegistryUnderTest {
  virtual ~RegistryUnderTest() = default;
  // Before the plug-in loads: a node holding ip:port, with its parents.
  virtual void Seed(const std::string& path, const std::string& ip, int port) = 0;
  virtual const char* PluginPath() const = 0;
};
// Each test program makes the one registry it runs the suite on (named by the
// parameter), configured in `host`.
std::unique_ptr<RegistryUnderTest> MakeRegistry(TestHost& host);

class RegistryConformance : public ::testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    watchEvents.clear();
    callbackCalls = 0;
    ASSERT_FALSE(HasFailure()) << "the registry could not be prepared";
  }
  // Loads and initialises the plug-in; and waits until it is ready.
  void Load(bool awaitReady = true) {
    m_host.CountUndeliveredRecords();
    m_pPlugin = std::make_unique<LoadedPlugin>(m_pRegistry->PluginPath(), m_host);
    ASSERT_EQ(m_pPlugin->Init(), 0);
    m_pMachine = AnswerRecorder::Start(m_host);
    ASSERT_TRUE(!awaitReady || m_host.RunLoopUntil([this] { return m_pPlugin->IsReady(); })) << "never ready";
  }
  template <typename... Args>
  int Call(const char* command, Args... args) {
    return m_pPlugin->Handle()->ZKPluginCall(m_pMachine->GetMachineId(), command, args...);
  }
  // Call, then its answer; null when it was refused or never answered.
  template <typename... Args>
  const ZKPluginResponse* Ask(const char* command, Args... args) {
    size_t count = m_pMachine->answers.size() + 1;
    int refused = Call(command, args...);
    bool answered = refused == 0 && m_host.RunLoopUntil([&] { return m_pMachine->answers.size() >= count; });
    EXPECT_TRUE(answered) << command << (refused != 0 ? " was refused" : " was never answered");
    return answered ? m_pMachine->answers[count - 1].get() : nullptr;
  }

  TestHost m_host{ovita2::testing::PluginEntries{}};
  std::unique_ptr<RegistryUnderTest> m_pRegistry = MakeRegistry(m_host);
  std::unique_ptr<LoadedPlugin> m_pPlugin;
  AnswerRecorder* m_pMachine = nullptr;
};

}  // namespace zelvar::registry::testing

#endif  // OVITA2_TESTS_PLUGINS_REGISTRY_TEST_H
