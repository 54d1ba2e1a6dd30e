// What the registry plug-ins' tests share: a machine that keeps the answers it
// is given, a plug-in loaded from where it was built (as zelvar-host loads it)
// onto the shared test host, and the conformance suite's fixture, run against
// each registry (registry_conformance.cpp).
//
// Test thread only.
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

// Stands in for the agent's machines that issue registry commands. Owned by
// the host's runtime once started.
class AnswerRecorder : public StateMachine {
 public:
  static AnswerRecorder* Start(TestHost& host) {
    static const bool declared = (SetGlobalStateList2(kType, kInitialState, &Keep), true);
    (void)declared;
    auto* recorder = new AnswerRecorder();
    host.Start(recorder);
    return recorder;
  }
  unsigned StateMachineType() override { return kType; }
  const char* MachineName() override { return "AnswerRecorder"; }

  std::vector<std::unique_ptr<ZKPluginResponse>> answers;

 private:
  static constexpr unsigned kType = 4290001;
  static int Keep(StateMachine* machine, event_key_t, void* answer) {
    auto* recorder = static_cast<AnswerRecorder*>(machine);
    if (answer != nullptr) recorder->answers.emplace_back(static_cast<ZKPluginResponse*>(answer));
    return kKeepMachine;
  }
};

// dlopen, then OnPeekInterface with the host's table; OnUnload (unless done)
// and dlclose on destruction.
class LoadedPlugin {
 public:
  LoadedPlugin(const char* path, TestHost& host) : m_pLibrary(dlopen(path, RTLD_NOW | RTLD_LOCAL)) {
    if (m_pLibrary == nullptr) ADD_FAILURE() << dlerror();
    if (m_pLibrary != nullptr) Entry<OnPeekInterfaceFn>("OnPeekInterface")(host.Table());
  }
  ~LoadedPlugin() {
    if (m_pLibrary == nullptr) return;
    Unload();
    dlclose(m_pLibrary);
  }
  LoadedPlugin(const LoadedPlugin&) = delete;
  LoadedPlugin& operator=(const LoadedPlugin&) = delete;

  bool Loaded() const { return m_pLibrary != nullptr; }
  int Init() { return Entry<OnInitFn>("OnInit")(nullptr); }
  bool IsReady() { return Entry<OnIsReadyFn>("OnIsReady")() != 0; }
  void Unload() {
    if (!m_bUnloaded) Entry<OnUnloadFn>("OnUnload")();
    m_bUnloaded = true;
  }
  ZKPluginHandle* Handle() { return static_cast<ZKPluginHandle*>(Entry<OnGetPluginHandleFn>("OnGetPluginHandle")()); }
  template <typename... Args>
  int Call(const StateMachine* machine, const char* command, Args... args) {
    return Handle()->ZKPluginCall(machine->GetMachineId(), command, args...);
  }

 private:
  template <typename Fn>
  Fn Entry(const char* name) {
    return reinterpret_cast<Fn>(dlsym(m_pLibrary, name));
  }

  void* m_pLibrary;
  bool m_bUnloaded = false;
};

// One registry as the conformance suite sees it.
class RegistryUnderTest {
 public:
  virtual ~RegistryUnderTest() = default;
  // A persistent node holding ip:port `address` as a NameNodeContent, with
  // its parents; before the plug-in loads.
  virtual void Seed(const std::string& path, const std::string& address) = 0;
  // Makes `path`'s parents exist, so that the plug-in can create it.
  virtual void EnsureParents(const std::string& path) = 0;
  // Writes the plug-in's configuration into the host.
  virtual void Configure(TestHost& host) = 0;
  virtual const char* PluginPath() const = 0;
};

struct RegistryKind {
  const char* name;
  std::unique_ptr<RegistryUnderTest> (*make)();
};

class RegistryConformance : public ::testing::TestWithParam<RegistryKind> {
 protected:
  void SetUp() override { ASSERT_FALSE(HasFailure()) << "the registry could not be prepared"; }
  // Configures, loads and initialises the plug-in, and waits until it is ready.
  void Load() {
    m_pRegistry->Configure(m_host);
    m_host.CountUndeliveredRecords();
    m_pPlugin = std::make_unique<LoadedPlugin>(m_pRegistry->PluginPath(), m_host);
    ASSERT_TRUE(m_pPlugin->Loaded());
    ASSERT_EQ(m_pPlugin->Init(), 0);
    ASSERT_TRUE(m_host.RunLoopUntil([this] { return m_pPlugin->IsReady(); })) << "never ready";
  }
  // Waits until `machine` holds `count` answers; the last one, or null.
  const ZKPluginResponse* Await(const AnswerRecorder* machine, size_t count) {
    m_host.RunLoopUntil([&] { return machine->answers.size() >= count; });
    EXPECT_EQ(machine->answers.size(), count);
    return machine->answers.size() == count ? machine->answers.back().get() : nullptr;
  }

  TestHost m_host{ovita2::testing::PluginEntries{}};
  std::unique_ptr<RegistryUnderTest> m_pRegistry = GetParam().make();
  std::unique_ptr<LoadedPlugin> m_pPlugin;
};

}  // namespace zelvar::registry::testing

#endif  // OVITA2_TESTS_PLUGINS_REGISTRY_TEST_H
