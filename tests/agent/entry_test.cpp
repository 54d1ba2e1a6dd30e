// The entry points the host calls (framing and routing of inbound envelopes,
// the hooks, the agent's own initialisation, the routine list) and the
// machines' common vocabulary: sends inside the process and back over a
// connection, flow numbers, and the database request.
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
#include "jobs/update_jobs.h"
#include "zelvar/dorvan.pb.h"
#include "zelvar/machine_factory.h"

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

namespace ovita2::testing {
namespace {

using Entry = AgentTest;

std::string Prefixed(uint32_t length, const std::string& body) {
  unsigned char prefix[zelvar::kFramePrefixSize];
  zelvar::PutFramePrefix(length, prefix);
  return std::string(reinterpret_cast<char*>(prefix), sizeof(prefix)) + body;
}

size_t Buffered(TestPeer& peer) { return evbuffer_get_length(bufferevent_get_input(peer.AgentSide())); }

TEST_F(Entry, EachFrameGoesToTheMachineItNamesOrServesItsTypeAndALengthNearTheTopIsNeverComplete) {
  auto* waiting = new EchoMachine();
  uint32_t waitingId = host_.Start(waiting);
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
    peer.WriteRaw(zelvar::EncodeFrame(sent) + next);
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
  for (uint32_t length : {0xFFFFFFFFu, 0xFFFFFFFDu, 0xFFFFFFFCu}) {
    TestPeer& peer = host_.Accept("10.0.0.5", 7000);
    peer.WriteRaw(Prefixed(length, std::string(12, '\0')));
    EXPECT_EQ(host_.Route(peer), kDataInNeedMore) << std::hex << length;
    EXPECT_EQ(Buffered(peer), 16u) << "nothing is consumed";
  }
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

using Framework = AgentTest;

TEST_F(Framework, SendsReachTheRightMachineOrGoBackOverTheConnection) {
  EchoMachine machine;
  EchoMachine& receiver = *new EchoMachine();  // the runtime takes it over with the message
  zelvar::ZMessage message;
  message.mutable_head()->set_message_type(4243199);
  EXPECT_EQ(machine.SendInternalResponse(message, 0, receiver.GetMachineId()), 0);
  EXPECT_EQ(host_.LastPostedId(), receiver.GetMachineId());
  EXPECT_EQ(machine.SendInternalResponse(message, 0, receiver.GetMachineId() + 1000), -1);
  EXPECT_EQ(machine.SendInternalRequest(message), -1) << "no machine serves the type";
  message.mutable_head()->set_message_type(EchoMachine::kType);
  EXPECT_EQ(machine.SendInternalRequest(message), 0);
  EXPECT_EQ(host_.LastPostedId(), zelvar::kNoMachineId) << "a new machine is named by its pointer only";

  // A response goes to the machine that asked, else back over the connection it came in on.
  EchoMachine& requester = *new EchoMachine();
  TestPeer& peer = host_.Accept("10.0.0.5", 7000);
  machine.SetReplyConnection(peer.ConnA(), peer.ConnB());
  message.mutable_head()->set_flow_no(42);
  EXPECT_EQ(machine.SendResponse(message), 0);
  zelvar::ZMessage sent;
  ASSERT_TRUE(peer.ReadFrame(&sent));
  EXPECT_EQ(sent.head().flow_no(), 42u);
  machine.SetRequesterId(requester.GetMachineId());
  EXPECT_EQ(machine.SendResponse(message), 0);
  EXPECT_EQ(host_.LastPostedId(), requester.GetMachineId());
  EXPECT_EQ(peer.PendingBytes(), 0u);
  peer.Close();
  machine.SetRequesterId(zelvar::kNoMachineId);
  EXPECT_EQ(machine.SendResponse(message), -1);
  host_.RunPending();
}

TEST_F(Framework, ARegisteredMachineIsAlsoBuiltInMemoryItsCallerOwns) {
  alignas(UpdateJobsMachine) unsigned char memory[sizeof(UpdateJobsMachine)];
  const zelvar::MachineFactory& factory = *zelvar::MachineFactory::Instance();
  zelvar::StateMachine* machine = factory.CreateMachineByAddr(UpdateJobsMachine::kType, memory);
  ASSERT_EQ(static_cast<void*>(machine), static_cast<void*>(memory));
  EXPECT_STREQ(machine->MachineName(), "UpdateJobsMachine");
  machine->~StateMachine();
  EXPECT_EQ(factory.CreateMachineByAddr(UpdateJobsMachine::kType, nullptr), nullptr);
}

TEST_F(Framework, LinesFromTheHostsThresholdUpAndSqlAndBlobRequestsCarryTheWholeTextAndTheFlagTurnedRound) {
  EchoMachine machine;
  host_.SetLogLevel(2);
  HostLog(1, "hidden %d", 1);
  MachineLog(2, &machine, "shown %d", 2);
  EXPECT_EQ(host_.LogLines(), std::vector<std::string>{"machine:EchoMachine(" + std::to_string(machine.GetMachineId()) +
                                                       ")|state:Entry_Init|shown 2"});
  std::string longText(200000, 'x');  // past one block of the output stream
  unsigned first = machine.SendSql("10.2.0.1", 9500, "stats", 1, "select '%s' -- %d", longText.c_str(), 7);
  unsigned second = machine.SendSql("10.2.0.1", 9500, "stats", 0, "%s", "short");
  EXPECT_EQ(second, first + 1);
  const std::string fullBuffer(machine.FormatCapacity(), 'f');  // no room left for the terminator
  machine.SendSql("10.2.0.1", 9500, "stats", 0, "%s", fullBuffer.c_str());
  zelvar::ZMessage sent;
  const std::string longSql = "select '" + longText + "' -- 7";
  for (auto expected : {std::make_tuple(first, 0u, longSql), std::make_tuple(second, 1u, std::string("short")),
                        std::make_tuple(second + 1, 1u, fullBuffer)}) {
    ASSERT_TRUE(host_.Peer("10.2.0.1", 9500).ReadFrame(&sent));
    EXPECT_EQ(sent.head().flow_no(), std::get<0>(expected));
    const auto& request = sent.body().GetExtension(zelvar::dorvan::execute_sql_request);
    EXPECT_EQ(request.db() + std::to_string(request.flag()) + request.sql(),
              "stats" + std::to_string(std::get<1>(expected)) + std::get<2>(expected));
  }
  machine.ReplaceBlob("10.2.0.1", 9500, "cfg", std::string("\0b", 2), "k=%d", 3);
  ASSERT_TRUE(host_.Peer("10.2.0.1", 9500).ReadFrame(&sent));
  const auto& blob = sent.body().GetExtension(zelvar::dorvan::replace_blob_request);
  EXPECT_EQ(blob.name() + "|" + blob.text() + "|" + blob.blob(), std::string("cfg|k=3|\0b", 10));
}

}  // namespace
}  // namespace ovita2::testing
