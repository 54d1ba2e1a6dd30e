// The registry plug-ins' tests: a machine that keeps its answers, and the
// fixture of the suite every registry must pass, which loads a plug-in from
// where it was built onto the shared test host. Test thread only.
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
    return host.Start(recorder), recorder;
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

// One registry as the conformance suite sees it.
struct RegistryUnderTest {
  explicit RegistryUnderTest(const char* pluginPath) : plugin_path(pluginPath) {}
  virtual ~RegistryUnderTest() = default;
  // Before the plug-in loads: a node holding ip:port, with its parents.
  virtual void Seed(const std::string& path, const std::string& ip, int port) = 0;
  const char* plugin_path;
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
  ~RegistryConformance() override { Unload(); }

  // Loads the plug-in as zelvar-host does (the table, then OnInit), and waits
  // until it is ready.
  void Load(bool awaitReady = true) {
    m_host.CountUndeliveredRecords();
    m_pLibrary = dlopen(m_pRegistry->plugin_path, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(m_pLibrary, nullptr) << dlerror();
    Entry<OnPeekInterfaceFn>("OnPeekInterface")(m_host.Table());
    ASSERT_EQ(Entry<OnInitFn>("OnInit")(nullptr), 0);
    m_pMachine = AnswerRecorder::Start(m_host);
    ASSERT_TRUE(!awaitReady || m_host.RunLoopUntil([this] { return IsReady(); })) << "never ready";
  }
  void Unload() {
    if (m_pLibrary != nullptr) Entry<OnUnloadFn>("OnUnload")(), dlclose(m_pLibrary);
    m_pLibrary = nullptr;
  }
  template <typename Fn>
  Fn Entry(const char* name) { return reinterpret_cast<Fn>(dlsym(m_pLibrary, name)); }
  bool IsReady() { return Entry<OnIsReadyFn>("OnIsReady")() != 0; }
  ZKPluginHandle* Handle() { return static_cast<ZKPluginHandle*>(Entry<OnGetPluginHandleFn>("OnGetPluginHandle")()); }
  template <typename... Args>
  int Call(const char* command, Args... args) {
    return Handle()->ZKPluginCall(m_pMachine->GetMachineId(), command, args...);
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
  void* m_pLibrary = nullptr;
  AnswerRecorder* m_pMachine = nullptr;
};

}  // namespace zelvar::registry::testing

#endif  // OVITA2_TESTS_PLUGINS_REGISTRY_TEST_H
