// RegistryConformance: the test cases every registry plug-in must pass, the
// same for each; an executable instantiates them for one plug-in with a
// RegistryKind.
#ifndef OVITA2_TESTS_PLUGINS_REGISTRY_CONFORMANCE_H
#define OVITA2_TESTS_PLUGINS_REGISTRY_CONFORMANCE_H

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "answer_recorder.h"
#include "loaded_plugin.h"
#include "registry_under_test.h"
#include "test_host.h"

namespace zelvar::registry::testing {

class RegistryConformance : public ::testing::TestWithParam<RegistryKind> {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Configures, loads and initialises the plug-in, and waits until it is ready.
  void Load();

  template <typename... Args>
  int Call(StateMachine* machine, const char* command, Args... args) {
    return m_pPlugin->Handle()->ZKPluginCall(machine->GetMachineId(), command, args...);
  }
  // Waits until `recorder` holds `count` answers; the last one, or null.
  const ZKPluginResponse* AwaitAnswers(AnswerRecorder* recorder, size_t count = 1);

  TestHost m_host;
  std::unique_ptr<RegistryUnderTest> m_pRegistry;
  std::unique_ptr<LoadedPlugin> m_pPlugin;
};

}  // namespace zelvar::registry::testing

#endif  // OVITA2_TESTS_PLUGINS_REGISTRY_CONFORMANCE_H
