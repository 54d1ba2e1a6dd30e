// libmessage: the machine runtime, machine types and the frame codec.
#include <event2/buffer.h>
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <memory>
#include <set>
#include <sstream>
#include <tuple>

#include "zelvar/frame.h"
#include "zelvar/long_action.h"
#include "zelvar/machine_factory.h"
#include "zelvar/machine_pool.h"
#include "zelvar/machine_runtime.h"
#include "zelvar/my_uuid.h"
#include "zelvar/string_util.h"

namespace zelvar {
namespace {

constexpr unsigned kScriptedType = 4242001;
std::string g_journal;
MachineRuntime* g_echo = nullptr;  // set: every handler posts "echo" to its machine

void Note(const std::string& entry) { g_journal += entry + "|"; }
void DropText(void* text) {
  Note("drop:" + *static_cast<std::string*>(text));
  delete static_cast<std::string*>(text);
}

// Answers each event with the next scripted result; leaves state -1 for 1.
class ScriptedMachine : public StateMachine {
 public:
  explicit ScriptedMachine(std::vector<int> results) : results(results) {}
  ~ScriptedMachine() override { Note("end"); }
  unsigned StateMachineType() override { return kScriptedType; }
  const char* MachineName() override { return "Scripted"; }
  void PreTranslate(InternalHead_t* head, void*) override { head_ = *head; }
  int Timeout(bool machineTimeout) override { return Note(machineTimeout ? "mt" : "st"), on_timeout; }
  int Handle(void* data) {
    std::string seen = GetStateName() + (head_.flow_no != 0 ? "#" + std::to_string(head_.flow_no) : "");
    if (head_.event_type == kEventPlugin) seen += ":" + *std::unique_ptr<std::string>(static_cast<std::string*>(data));
    Note(seen);
    if (g_echo != nullptr) g_echo->PostById(GetMachineId(), PluginEvent(new std::string("echo"), DropText));
    SetState(1);
    int result = results.empty() ? kMachineDone : results.front();
    if (!results.empty()) results.erase(results.begin());
    return result;
  }
  std::vector<int> results;
  int on_timeout = kMachineDone;

 private:
  InternalHead_t head_;
};

const bool kScriptedStates = [] {
  auto handler = [](StateMachine* machine, event_key_t, void* data) {
    return static_cast<ScriptedMachine*>(machine)->Handle(data);
  };
  StateMachine::SetGlobalStateList2(kScriptedType, -1, handler);
  StateMachine::SetGlobalStateName(kScriptedType, -1, "Init");
  StateMachine::SetGlobalStateList2(kScriptedType, 1, handler);
  StateMachine::SetGlobalStateName(kScriptedType, 1, "Wait");
  return true;
}();

struct FakeClock : MachineClock {
  int64_t NowMs() const override { return now_ms; }
  int64_t now_ms = 5000000;
};

// A machine answers with `results` (then 100) and a script drives it. Words:
// Tn / tn machine / state timeout of n s; K keep the machine on a timeout; S
// start; Qx post x before the start; Px post x by id; L post a long-action
// record of flow 7; E echo from now on; R run what is pending; +n let n s pass
// and fire timeouts; D note the next deadline in s from now ("next-": none).
// Logs read "log<level>".
TEST(MachineRuntime, RunsMachinesByStateResultAndTimeout) {
  const std::tuple<std::vector<int>, std::string, std::string> cases[] = {
      {{0, 100}, "S Pa Pb R Pc R +3600", "Init|Wait:a|end|drop:b|drop:c|+3600|"},
      {{0, 100}, "S L R", "Init|Wait#7|end|"},
      {{-1}, "S", "Init|log3|end|"},
      {{7}, "S", "Init|log4|end|"},
      {{0, 0, 100}, "E S R R R", "Init|Wait:echo|Wait:echo|end|drop:echo|"},
      {{0}, "T120 S +119 +1", "Init|+119|+1|mt|end|"},
      {{0}, "K S +30 +29 +1", "Init|+30|mt|+29|+1|mt|end|"},
      {{0, 0}, "T1000 t10 S +9 Pa R +1", "Init|+9|Wait:a|+1|st|end|"},
      {{0}, "T1000 t5 Qa +3 R +3 +2", "+3|Init:a|+3|+2|st|end|"},
      {{0, 100}, "T120 t90 S D Pa R D", "Init|next90|Wait:a|end|next-|"},
  };
  for (const auto& [results, script, journal] : cases) {
    g_journal.clear();
    {
      FakeClock clock;
      MachineRuntime runtime(&clock, 30);
      runtime.SetLogger([](int level, const std::string&) { Note("log" + std::to_string(level)); });
      auto* machine = new ScriptedMachine(results);
      uint32_t id = machine->GetMachineId();
      std::istringstream words(script);
      for (std::string word; words >> word;) {
        auto text = [&] { return PluginEvent(new std::string(word.substr(1)), DropText); };
        if (word[0] == 'T') machine->SetMachineTimeout(std::stoi(word.substr(1)));
        if (word[0] == 't') machine->SetStateTimeout(std::stoi(word.substr(1)));
        if (word == "K") machine->on_timeout = kKeepMachine;
        if (word == "S") runtime.Start(machine);
        if (word[0] == 'Q') runtime.Post(machine, text());
        if (word[0] == 'P') runtime.PostById(id, text());
        if (word == "L") runtime.PostById(id, LongActionEvent(new LongActionResult{"", "", 0, 7}));
        if (word == "E") g_echo = &runtime;
        if (word == "R") runtime.RunPending();
        if (word[0] == '+') Note(word), clock.now_ms += std::stoll(word) * 1000, runtime.FireTimeouts();
        if (word == "D") {
          int64_t next = runtime.NextDeadlineMs();
          Note(next < 0 ? "next-" : "next" + std::to_string((next - clock.now_ms) / 1000));
        }
      }
      g_echo = nullptr;
    }  // ends what still runs
    EXPECT_EQ(g_journal, journal) << script;
  }
}

// Machines come and go across several growths of the pool's table, with ids
// already far past its size.
TEST(MachinePool, FindsEveryLiveMachineByItsOwnIdAndNoneThatEnded) {
  for (int i = 0; i < 1000; ++i) ScriptedMachine({});
  std::vector<std::unique_ptr<ScriptedMachine>> machines;
  std::vector<uint32_t> ended;
  for (int round = 0; round < 3; ++round) {
    for (int i = 0; i < 150; ++i) machines.push_back(std::make_unique<ScriptedMachine>(std::vector<int>{}));
    for (size_t i = round; i < machines.size(); i += 3) {
      if (machines[i] != nullptr) ended.push_back(machines[i]->GetMachineId()), machines[i].reset();
    }
  }
  std::set<uint32_t> liveIds;
  for (const auto& machine : machines) {
    if (machine == nullptr) continue;
    const uint32_t id = machine->GetMachineId();
    EXPECT_TRUE(id != 0 && id != kNoMachineId && liveIds.insert(id).second) << id;
    EXPECT_EQ(MachinePool::Instance()->GetMachine(id), machine.get());
  }
  EXPECT_EQ(MachinePool::Instance()->Size(), liveIds.size());
  for (uint32_t id : ended) {
    if (liveIds.count(id) == 0) {
      EXPECT_EQ(MachinePool::Instance()->GetMachine(id), nullptr) << id;
    }
  }
}

TEST(StringUtil, SplitKeepsOnlyNonEmptyPiecesFormatStringHasNoLengthLimitAndSessionsAreRandom) {
  for (const auto& [text, separator, pieces] : std::vector<std::tuple<std::string, std::string, std::string>>{
           {"a,,b,", ",", "a|b|"}, {"::a::b", "::", "a|b|"}, {"a b", "", "a b|"}, {"", "", ""}, {"", ",", ""}}) {
    std::vector<std::string> out{"kept"};
    const size_t appended = Split(text, separator, &out);
    EXPECT_EQ(appended, out.size() - 1) << text;
    std::string joined;
    for (size_t i = 1; i < out.size(); ++i) joined += out[i] + "|";
    EXPECT_EQ(joined, pieces) << text << " by " << separator;
  }
  const std::string first = MyUuid::NewUuid(), second = MyUuid::NewUuid();  // random, version 4, RFC 4122
  EXPECT_TRUE(first != second && first[14] == '4' && std::string("89ab").find(second[19]) != std::string::npos);
  const std::string longText(1000, 'y');
  EXPECT_EQ(FormatString("%s-%d", longText.c_str(), 7), longText + "-7");
}

TEST(ExecuteShell2, RunsTheCommandToItsEndKeepingBothStreamsAndTheStatus) {
  struct Case {
    const char* command;
    std::string output, error;
    int64_t status;
  };
  for (const Case& c : {Case{"printf out; printf err >&2; exit 3", "out", "err", 3},
                        Case{"exit 4", "", "exit status 4", 4},
                        Case{"kill -9 $$", "", "killed by signal 9 (SIGKILL)", 137},
                        Case{"head -c 100000 /dev/zero | tr '\\0' x", std::string(100000, 'x'), "", 0}}) {
    ExecuteShell2 action;
    action.Param(ExecuteShell2::kCommandParam, c.command);
    action.Do();
    EXPECT_EQ(action.Result().output, c.output) << c.command;
    EXPECT_EQ(action.Result().error, c.error) << c.command;
    EXPECT_EQ(action.Result().status, c.status) << c.command;
  }
}

TEST(MachineFactoryDeathTest, TwoCreatorsForOneTypeStopTheProcess) {
  MachineCreator create = [] { return static_cast<StateMachine*>(new ScriptedMachine({})); };
  MachineFactory::AddMachine(kScriptedType, create);
  EXPECT_DEATH(MachineFactory::AddMachine(kScriptedType, create), "machine type 4242001 registered twice");
}

// The flat and the evbuffer cut agree on every stream, in one chain or with
// the prefix across two, and name the body of its first frame only. The
// frames past the bound are mapped, never touched.
TEST(Frame, CutWaitsForWholeFramesAndRefusesOnlyWholeFramesPastTheBound) {
  auto cut = [](const void* bytes, size_t size) {
    auto said = [](FrameCut cut) { return std::to_string(cut.outcome) + ":" + std::to_string(cut.bodySize); };
    for (size_t split : {size, size < 2 ? size : 2}) {
      std::unique_ptr<evbuffer, void (*)(evbuffer*)> input(evbuffer_new(), evbuffer_free);
      evbuffer_add_reference(input.get(), bytes, split, nullptr, nullptr);
      evbuffer_add_reference(input.get(), static_cast<const char*>(bytes) + split, size - split, nullptr, nullptr);
      EXPECT_EQ(said(CutFrame(input.get())), said(CutFrame(bytes, size))) << split;
    }
    return said(CutFrame(bytes, size));
  };
  const std::string stream("\0\0\0\0\0\0\0\2xy\xff\xff\xff\xfc\0\0\0\0", 18);
  const std::tuple<size_t, size_t, std::string> cases[] = {
      {0, 3, "0:0"}, {0, 10, "2:0"}, {4, 5, "0:0"}, {4, 6, "2:2"}, {10, 8, "0:0"}};  // the last does not wrap
  for (const auto& [from, size, said] : cases) EXPECT_EQ(cut(stream.data() + from, size), said) << from;

  const size_t past = kFrameMaxSize + 1;
  void* mapped = mmap(nullptr, past, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  ASSERT_NE(mapped, MAP_FAILED);
  PutFramePrefix(past - kFramePrefixSize, static_cast<unsigned char*>(mapped));
  EXPECT_EQ(cut(mapped, past), "1:0");
  PutFramePrefix(past - kFramePrefixSize - 1, static_cast<unsigned char*>(mapped));
  EXPECT_EQ(cut(mapped, past), "2:" + std::to_string(kFrameMaxSize - kFramePrefixSize));
  munmap(mapped, past);
}

}  // namespace
}  // namespace zelvar
