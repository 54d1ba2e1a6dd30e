#include "answer_recorder.h"

namespace zelvar::registry::testing {
namespace {

struct DeclareStates {
  DeclareStates() {
    StateMachine::SetGlobalStateList2(AnswerRecorder::kType, kInitialState, &AnswerRecorder::Entry);
    StateMachine::SetGlobalStateName(AnswerRecorder::kType, kInitialState, "Entry_Record");
  }
} g_declareStates;

}  // namespace

AnswerRecorder* AnswerRecorder::Start(TestHost& host) {
  auto* recorder = new AnswerRecorder();
  host.Runtime().Start(recorder);
  return recorder;
}

int AnswerRecorder::Entry(StateMachine* machine, event_key_t, void* data) {
  auto* recorder = static_cast<AnswerRecorder*>(machine);
  if (data != nullptr) recorder->answers.emplace_back(static_cast<ZKPluginResponse*>(data));
  return kKeepMachine;
}

}  // namespace zelvar::registry::testing
