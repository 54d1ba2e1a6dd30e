// AnswerRecorder: a machine that only keeps the registry answers it receives,
// standing in for the agent's machines that issue registry commands.
//
// Started on a TestHost's runtime, which owns it; a test reads `answers`
// through the pointer Start returned while the host lives. Test thread only.
#ifndef OVITA2_TESTS_PLUGINS_ANSWER_RECORDER_H
#define OVITA2_TESTS_PLUGINS_ANSWER_RECORDER_H

#include <memory>
#include <vector>

#include "test_host.h"
#include "zelvar/state_machine.h"
#include "zelvar/zk_plugin.h"

namespace zelvar::registry::testing {

class AnswerRecorder : public StateMachine {
 public:
  static constexpr unsigned kType = 4290001;

  // A recorder started on `host`'s runtime.
  static AnswerRecorder* Start(TestHost& host);

  unsigned StateMachineType() override { return kType; }
  const char* MachineName() override { return "AnswerRecorder"; }

  const ZKPluginResponse* Last() const { return answers.empty() ? nullptr : answers.back().get(); }

  // The handler of its only state: keeps the payload, if any.
  static int Entry(StateMachine* machine, event_key_t key, void* data);

  std::vector<std::unique_ptr<ZKPluginResponse>> answers;
};

}  // namespace zelvar::registry::testing

#endif  // OVITA2_TESTS_PLUGINS_ANSWER_RECORDER_H
