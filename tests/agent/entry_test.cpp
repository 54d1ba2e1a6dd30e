// The entry points the host calls: framing and routing of inbound envelopes,
// the hooks, the agent's own initialisation and the routine list.
#include <event2/buffer.h>
#include <event2/bufferevent.h>

#include <tuple>

#include "agent_test.h"
#include "entry/ovita2_agent.h"
#include "entry/so_entry.h"
#include "framework/bev_machine_util.h"
#include "framework/host_api.h"
#include "framework/machine_registration.h"
#include "framework/routine_util.h"

int EchoMachine::Entry_Init(zelvar::event_key_t, void* data) {
  auto release = ovita2::HostFn<zelvar::ReleaseMessageFn>(zelvar::kSlotReleaseMessage);
  if (data != nullptr) release(0, static_cast<zelvar::ZMessage*>(data));
  return zelvar::kKeepMachine;
}
OVITA2_MACHINE_CREATORS(Echo)
OVITA2_MACHINE_STATE(Echo, Init)
static const ovita2::MachineRegistration kEcho =
    ovita2::MachineRegistration(EchoMachine::kType, EchoCreateMySelf, EchoCreateMySelfByAddr)
        .State(-1, EchoMachineEntry_Init, "Entry_Init");

namespace ovita2 {
namespace testing {
namespace {

using Entry = AgentTest;

std::string Prefixed(uint32_t length, const std::string& body) {
  unsigned char prefix[zelvar::kFramePrefixSize];
  zelvar::PutFramePrefix(length, prefix);
  return std::string(reinterpret_cast<char*>(prefix), sizeof(prefix)) + body;
}

size_t Buffered(TestPeer& peer) { return evbuffer_get_length(bufferevent_get_input(peer.AgentSide())); }

TEST_F(Entry, FrameLengthNearTheTopOfTheRangeIsNeverComplete) {
  for (uint32_t length : {0xFFFFFFFFu, 0xFFFFFFFDu, 0xFFFFFFFCu}) {
    TestPeer& peer = host_.Accept("10.0.0.5", 7000);
    peer.WriteRaw(Prefixed(length, std::string(12, '\0')));
    EXPECT_EQ(host_.Route(peer), kDataInNeedMore) << std::hex << length;
    EXPECT_EQ(Buffered(peer), 16u) << "nothing is consumed";
  }
}

TEST_F(Entry, EachFrameGoesToTheMachineItNamesOrServesItsType) {
  auto* waiting = new EchoMachine();
  uint32_t waitingId = host_.Start(waiting).id;
  auto reply = [](uint32_t dst, uint32_t owner) {
    zelvar::ZMessage message;
    zelvar::NewMessage(&message, 0, std::string(300000, 's'), 77, 0, false, 0, 0, nullptr, nullptr, nullptr);
    message.mutable_head()->set_kind(zelvar::kKindResponse);  // its session spans several buffer blocks
    message.mutable_head()->set_dst_machine_id(dst);
    message.mutable_head()->set_owner_machine_id(owner);
    return message;
  };
  zelvar::ZMessage request;
  zelvar::NewMessage(&request, 5, "session-1", EchoMachine::kType, 0, false, 0, 0, nullptr, nullptr, nullptr);
  const std::tuple<zelvar::ZMessage, int, zelvar::StateMachine*> cases[] = {
      {reply(waitingId, 0), kDataInRouted, waiting}, {reply(0, waitingId), kDataInRouted, waiting},
      {reply(waitingId + 1000, 0), kDataInError, nullptr}, {request, kDataInRouted, nullptr}};
  size_t trailing = 0;
  for (const auto& [sent, result, target] : cases) {
    TestPeer& peer = host_.Accept("10.0.0.5", 7000);
    std::string next(trailing++, '\x01');  // the start of a next frame stays
    peer.WriteRaw(Frame(sent) + next);
    zelvar::ZMessage* message = nullptr;
    zelvar::StateMachine* machine = nullptr;
    ASSERT_EQ(OnDataIn(peer.ConnA(), peer.ConnB(), &message, &machine), result);
    EXPECT_EQ(Buffered(peer), next.size());
    if (result != kDataInRouted) continue;
    EXPECT_EQ(message->SerializeAsString(), sent.SerializeAsString());
    auto* served = dynamic_cast<EchoMachine*>(machine);
    ASSERT_NE(served, nullptr);
    if (target == nullptr) {
      EXPECT_EQ(served->ReplyConnA() * 1000 + served->ReplyConnB(), peer.ConnA() * 1000 + peer.ConnB());
      host_.Start(served);
    }
    EXPECT_EQ(served == waiting, target == waiting);
    host_.PostMessage(machine, message);
    host_.RunPending();
  }
  TestPeer& broken = host_.Accept("10.0.0.5", 7000);
  broken.WriteRaw(Prefixed(3, "\xff\xff\xff"));
  EXPECT_EQ(host_.Route(broken), kDataInError);
  broken.Close();
  EXPECT_EQ(host_.Route(broken), kDataInError) << "a connection the host no longer knows";
}

int g_hookCalls = 0;
int HookInit(void*) { return ++g_hookCalls, 7; }
int HookConn(uint64_t a, uint64_t b) { return ++g_hookCalls, static_cast<int>(a * 10 + b); }

TEST_F(Entry, AHookReplacesItsEntryPointUnlessItIsTheEntryPointItself) {
  for (bool self : {false, true}) {
    fn_usr_OnInit = self ? &OnInit : &HookInit;
    fn_usr_OnConnect = self ? &OnConnect : &HookConn;
    fn_usr_OnDisconnect = self ? &OnDisconnect : &HookConn;
    g_hookCalls = 0;
    host_.ClearLog();
    EXPECT_EQ(OnInit(nullptr) + OnConnect(3, 4) * 10 + OnDisconnect(5, 6) * 1000, self ? 0 : 7 + 340 + 56000);
    EXPECT_EQ(g_hookCalls, self ? 0 : 3);
    for (const char* line : {"OnInit entry", "OnConnect entry", "OnDisconnect entry"}) {
      EXPECT_EQ(host_.Logged(line), self) << line;
    }
  }
}

TEST_F(Entry, InitDefinesEveryConfiguredNameAndReadsTheHighPrecisionFrequency) {
  const std::map<std::string, std::string> defined = {{"MASTER", "/zelvar/master"}, {"x.y-1", "/zelvar/x"}};
  for (const auto& [name, path] : defined) host_.SetConfig("names", name, path);
  host_.SetConfig("names", "EMPTY", "");
  const std::pair<const char*, uint32_t> frequencies[] = {
      {"", 60}, {"0", 60}, {"30", 30}, {"abc", 60}, {"4294967296", 60}, {"4294967297", 1}};
  for (const auto& frequency : frequencies) {
    host_.SetConfig("common", "highprecision_frequency", frequency.first);
    g_need_updatejobs = false;
    EXPECT_EQ(OnInit(nullptr), 0);
    EXPECT_EQ(g_highprecision_frequency, frequency.second) << frequency.first;
  }
  EXPECT_TRUE(g_need_updatejobs);
  EXPECT_EQ(host_.RoutinePeriod(), 1000000u);
  EXPECT_EQ(host_.KeyPattern(), ".+") << "every key of the section, whatever its name";
  EXPECT_EQ(NameContainer::Instance()->Names(), defined);
}

int g_created = 0;
zelvar::StateMachine* Count() { return ++g_created, nullptr; }
zelvar::StateMachine* CountTen() { return g_created += 10, nullptr; }

TEST(Routines, TheFirstDueRoutineStartsAndEachKeepsItsInterval) {
  RoutineUtil routines;
  routines.SetRouting(&Count, 10, false);
  routines.SetRouting(&CountTen, 5, true);
  int64_t now = 1000;
  auto tick = [&] {
    g_created = 0;
    routines.StartFirstDue([&] { return now; });
    return g_created;
  };
  EXPECT_EQ(tick(), 1) << "the earlier entry wins";
  EXPECT_EQ(tick(), 10);
  EXPECT_EQ(tick(), 0) << "nothing due";
  now += 10;
  EXPECT_EQ(tick(), 1);
  EXPECT_EQ(tick(), 0) << "a once-routine never runs again";
  now -= 100;  // a clock that went backwards waits a whole interval past the last start
  EXPECT_EQ(tick(), 0);
  now += 110;
  EXPECT_EQ(tick(), 1);
}

}  // namespace
}  // namespace testing
}  // namespace ovita2
