#include "zelvar/machine_runtime.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "zelvar/machine_pool.h"

namespace zelvar {
namespace {

class FakeClock : public MachineClock {
 public:
  int64_t NowMs() const override { return now_ms; }
  void AdvanceSeconds(int64_t seconds) { now_ms += seconds * 1000; }
  int64_t now_ms = 1000000;
};

// A scripted machine: each handler call records what it saw and returns the
// next scripted result; state 1 is its waiting state.
constexpr unsigned kScriptedType = 4242001;

struct Journal {
  std::vector<std::string> calls;
  int destroyed = 0;
};

class ScriptedMachine : public StateMachine {
 public:
  ScriptedMachine(Journal* journal, std::vector<int> results) : journal_(journal), results_(std::move(results)) {}
  ~ScriptedMachine() override { ++journal_->destroyed; }

  unsigned StateMachineType() override { return kScriptedType; }
  const char* MachineName() override { return "ScriptedMachine"; }

  int Handle(void* data) {
    journal_->calls.push_back(std::string(GetStateName()) + (data ? ":" + *static_cast<std::string*>(data) : ""));
    int result = results_.empty() ? kMachineDone : results_.front();
    if (!results_.empty()) results_.erase(results_.begin());
    if (GetState() == kInitialState) SetState(1);
    return result;
  }
  int Timeout(bool machineTimeout) override {
    journal_->calls.push_back(machineTimeout ? "machine-timeout" : "state-timeout");
    return timeout_result;
  }

  int timeout_result = kMachineDone;

 private:
  Journal* journal_;
  std::vector<int> results_;
};

int ScriptedEntry(StateMachine* machine, event_key_t, void* data) {
  return static_cast<ScriptedMachine*>(machine)->Handle(data);
}

struct RegisterScripted {
  RegisterScripted() {
    StateMachine::SetGlobalStateList2(kScriptedType, -1, ScriptedEntry);
    StateMachine::SetGlobalStateName(kScriptedType, -1, "Entry_Init");
    StateMachine::SetGlobalStateList2(kScriptedType, 1, ScriptedEntry);
    StateMachine::SetGlobalStateName(kScriptedType, 1, "Entry_Wait");
  }
} registerScripted;

int droppedPayloads = 0;
void CountDrop(void* payload) {
  ++droppedPayloads;
  delete static_cast<std::string*>(payload);
}
void DeleteString(void* payload) { delete static_cast<std::string*>(payload); }

MachineEvent TextEvent(const std::string& text, PayloadFn after = DeleteString) {
  MachineEvent event;
  event.head.event_type = kEventMessage;
  event.data = new std::string(text);
  event.drop = CountDrop;
  event.after_dispatch = after;
  return event;
}

class MachineRuntimeTest : public ::testing::Test {
 protected:
  void SetUp() override { droppedPayloads = 0; }
  FakeClock clock;
  Journal journal;
  MachineRuntime runtime{&clock, 30};
};

TEST_F(MachineRuntimeTest, StartRunsInitialStateAndKeepsWaitingMachine) {
  auto* machine = new ScriptedMachine(&journal, {kKeepMachine, kMachineDone});
  uint32_t id = machine->GetMachineId();
  runtime.Start(machine);
  EXPECT_EQ(journal.calls, std::vector<std::string>{"Entry_Init"});
  EXPECT_TRUE(runtime.IsManaged(id));

  runtime.PostById(id, TextEvent("reply"));
  EXPECT_EQ(journal.calls.size(), 1u) << "a posted event must wait for the loop";
  EXPECT_EQ(runtime.RunPending(), 1u);
  EXPECT_EQ(journal.calls.back(), "Entry_Wait:reply");
  EXPECT_FALSE(runtime.IsManaged(id));
  EXPECT_EQ(journal.destroyed, 1);
  EXPECT_EQ(MachinePool::Instance()->GetMachine(id), nullptr);
}

TEST_F(MachineRuntimeTest, FailedAndUnknownResultsEndTheMachine) {
  std::vector<std::string> lines;
  runtime.SetLogger([&](int level, const std::string& line) { lines.push_back(std::to_string(level) + line); });
  runtime.Start(new ScriptedMachine(&journal, {kMachineFailed}));
  auto* odd = new ScriptedMachine(&journal, {7});
  std::string oddId = std::to_string(odd->GetMachineId());
  runtime.Start(odd);
  EXPECT_EQ(journal.destroyed, 2);
  EXPECT_EQ(runtime.MachineCount(), 0u);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[1], "4machine:ScriptedMachine(" + oddId + ")|state:Entry_Wait|handler returned 7, ending the machine");
}

TEST_F(MachineRuntimeTest, EventsForGoneMachinesAreDroppedAndFreed) {
  auto* machine = new ScriptedMachine(&journal, {kKeepMachine, kMachineDone});
  uint32_t id = machine->GetMachineId();
  runtime.Start(machine);
  runtime.PostById(id, TextEvent("first"));
  runtime.PostById(id, TextEvent("second"));  // the machine ends on "first"
  runtime.RunPending();
  EXPECT_EQ(journal.calls.back(), "Entry_Wait:first");
  EXPECT_EQ(droppedPayloads, 1);

  EXPECT_EQ(runtime.PostById(id, TextEvent("late")), -1);
  EXPECT_EQ(droppedPayloads, 2);
  EXPECT_EQ(runtime.PostById(kNoMachineId, TextEvent("nobody")), -1);
  EXPECT_EQ(droppedPayloads, 3);
}

TEST_F(MachineRuntimeTest, PostAdoptsAMachineThatWasNeverStarted) {
  // A machine created to serve a request runs its initial state with the request.
  auto* machine = new ScriptedMachine(&journal, {kMachineDone});
  runtime.Post(machine, TextEvent("request"));
  EXPECT_EQ(runtime.MachineCount(), 1u);
  runtime.RunPending();
  EXPECT_EQ(journal.calls, std::vector<std::string>{"Entry_Init:request"});
  EXPECT_EQ(runtime.MachineCount(), 0u);
}

TEST_F(MachineRuntimeTest, EventsPostedByHandlersWaitForTheNextTurn) {
  auto* machine = new ScriptedMachine(&journal, {kKeepMachine, kKeepMachine, kKeepMachine, kMachineDone});
  uint32_t id = machine->GetMachineId();
  runtime.Start(machine);
  runtime.PostById(id, TextEvent("a", [](void* p) {
    delete static_cast<std::string*>(p);
  }));
  int wakeups = 0;
  runtime.SetWakeup([&] { ++wakeups; });
  runtime.PostById(id, TextEvent("b"));
  EXPECT_EQ(wakeups, 1);
  EXPECT_EQ(runtime.RunPending(), 2u);
  EXPECT_EQ(runtime.RunPending(), 0u);
  EXPECT_TRUE(runtime.IsManaged(id));
}

TEST_F(MachineRuntimeTest, MachineTimeoutFiresAfterItsSecondsAndEndsTheMachine) {
  auto* machine = new ScriptedMachine(&journal, {kKeepMachine});
  machine->SetMachineTimeout(120);
  uint32_t id = machine->GetMachineId();
  runtime.Start(machine);
  EXPECT_EQ(runtime.NextDeadlineMs(), clock.now_ms + 120000);

  clock.AdvanceSeconds(119);
  EXPECT_EQ(runtime.FireTimeouts(), 0u);
  clock.AdvanceSeconds(1);
  EXPECT_EQ(runtime.FireTimeouts(), 1u);
  EXPECT_EQ(journal.calls.back(), "machine-timeout");
  EXPECT_FALSE(runtime.IsManaged(id));
  EXPECT_EQ(journal.destroyed, 1);
}

TEST_F(MachineRuntimeTest, DefaultTimeoutAppliesAndTimeoutReturningZeroRearms) {
  auto* machine = new ScriptedMachine(&journal, {kKeepMachine});
  machine->timeout_result = kKeepMachine;
  runtime.Start(machine);
  clock.AdvanceSeconds(30);
  EXPECT_EQ(runtime.FireTimeouts(), 1u);
  EXPECT_EQ(runtime.MachineCount(), 1u);
  clock.AdvanceSeconds(29);
  EXPECT_EQ(runtime.FireTimeouts(), 0u);
  machine->timeout_result = kMachineDone;
  clock.AdvanceSeconds(1);
  EXPECT_EQ(runtime.FireTimeouts(), 1u);
  EXPECT_EQ(runtime.MachineCount(), 0u);
}

TEST_F(MachineRuntimeTest, StateTimeoutCountsFromTheLastStateChange) {
  auto* machine = new ScriptedMachine(&journal, {kKeepMachine, kKeepMachine});
  machine->SetMachineTimeout(1000);
  machine->SetStateTimeout(10);
  uint32_t id = machine->GetMachineId();
  runtime.Start(machine);  // moves -1 -> 1: the state timer counts from here
  clock.AdvanceSeconds(9);
  runtime.PostById(id, TextEvent("no state change"));
  runtime.RunPending();
  clock.AdvanceSeconds(1);
  EXPECT_EQ(runtime.FireTimeouts(), 1u);
  EXPECT_EQ(journal.calls.back(), "state-timeout");
  EXPECT_FALSE(runtime.IsManaged(id));
}

TEST_F(MachineRuntimeTest, TimeoutOfAnEndedMachineNeverFires) {
  auto* machine = new ScriptedMachine(&journal, {kKeepMachine, kMachineDone});
  uint32_t id = machine->GetMachineId();
  runtime.Start(machine);
  runtime.PostById(id, TextEvent("done"));
  runtime.RunPending();
  clock.AdvanceSeconds(3600);
  EXPECT_EQ(runtime.FireTimeouts(), 0u);
}

TEST_F(MachineRuntimeTest, MachineWithoutHandlerForItsStateFails) {
  auto* machine = new ScriptedMachine(&journal, {kKeepMachine});
  machine->SetState(5);
  runtime.Start(machine);
  EXPECT_TRUE(journal.calls.empty());
  EXPECT_EQ(journal.destroyed, 1);
}

TEST_F(MachineRuntimeTest, DestroyingTheRuntimeEndsMachinesAndDropsQueuedPayloads) {
  {
    MachineRuntime local(&clock, 30);
    auto* machine = new ScriptedMachine(&journal, {kKeepMachine});
    local.Start(machine);
    local.PostById(machine->GetMachineId(), TextEvent("never delivered"));
  }
  EXPECT_EQ(journal.destroyed, 1);
  EXPECT_EQ(droppedPayloads, 1);
}

TEST(MachinePool, IdsAreUniqueAmongLiveMachinesAndNeverReserved) {
  Journal journal;
  std::vector<ScriptedMachine*> machines;
  for (int i = 0; i < 1000; ++i) machines.push_back(new ScriptedMachine(&journal, {}));
  std::set<uint32_t> ids;
  for (auto* machine : machines) {
    EXPECT_NE(machine->GetMachineId(), 0u);
    EXPECT_NE(machine->GetMachineId(), kNoMachineId);
    ids.insert(machine->GetMachineId());
    EXPECT_EQ(MachinePool::Instance()->GetMachine(machine->GetMachineId()), machine);
  }
  EXPECT_EQ(ids.size(), machines.size());
  for (auto* machine : machines) delete machine;
}

TEST(StateMachine, StateNamesAndDefaults) {
  Journal journal;
  ScriptedMachine machine(&journal, {});
  EXPECT_EQ(machine.GetState(), -1);
  EXPECT_STREQ(machine.GetStateName(), "Entry_Init");
  machine.SetState(77);
  EXPECT_STREQ(machine.GetStateName(), StateMachine::kUnnamedStateName);
  EXPECT_EQ(machine.GetRequesterId(), kNoMachineId);
  EXPECT_FALSE(machine.IsCreatedByRoutine());
  EXPECT_EQ(machine.GetMachineTimeout(), 0u);
  EXPECT_EQ(machine.GetStateTimeout(), 0u);
}

}  // namespace
}  // namespace zelvar
