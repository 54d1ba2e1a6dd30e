// The entry points the host calls: the table hand-over, the hooks, and
// OnDataIn's framing and routing of inbound envelopes.
#include "entry/so_entry.h"

#include <arpa/inet.h>
#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "entry/ovita2_agent.h"
#include "framework/bev_machine_util.h"
#include "framework/host_api.h"
#include "framework/machine_registration.h"
#include "framework/routine_util.h"
#include "test_host.h"
#include "zelvar/machine_pool.h"
#include "zelvar/message_pool.h"
#include "zelvar/message_util.h"

using ovita2::testing::TestHost;
using ovita2::testing::TestPeer;

// A machine that serves inbound requests of its type and keeps what it got.
constexpr unsigned kInboxType = 4243001;

struct Delivery {
  uint32_t machine_id;
  uint32_t message_type;
  uint64_t conn_a;
  uint64_t conn_b;
};
std::vector<Delivery> g_deliveries;

class InboxMachine : public BEVMachineUtil {
 public:
  unsigned StateMachineType() override { return kInboxType; }
  const char* MachineName() override { return "InboxMachine"; }

  int Entry_Init(zelvar::event_key_t, void* data) {
    if (data == nullptr) {  // started by the test: wait for a reply
      SetState(1);
      return zelvar::kKeepMachine;
    }
    return Receive(data);
  }
  int Entry_Wait(zelvar::event_key_t, void* data) { return Receive(data); }

 private:
  int Receive(void* data) {
    auto* message = static_cast<zelvar::ZMessage*>(data);
    g_deliveries.push_back({GetMachineId(), message->head().message_type(), ReplyConnA(), ReplyConnB()});
    ovita2::HostFn<zelvar::ReleaseMessageFn>(zelvar::kSlotReleaseMessage)(0, message);
    return zelvar::kMachineDone;
  }
};

OVITA2_MACHINE_CREATORS(Inbox)
OVITA2_MACHINE_STATE(Inbox, Init)
OVITA2_MACHINE_STATE(Inbox, Wait)

static const ovita2::MachineRegistration kInboxRegistration =
    ovita2::MachineRegistration(kInboxType, InboxCreateMySelf, InboxCreateMySelfByAddr)
        .State(-1, InboxMachineEntry_Init, "Entry_Init")
        .State(1, InboxMachineEntry_Wait, "Entry_Wait");

namespace {

zelvar::ZMessage Request(unsigned type) {
  zelvar::ZMessage message;
  zelvar::NewMessage(&message, 5, "session-1", static_cast<int>(type), 0, false, 0, 0, nullptr, nullptr, nullptr);
  return message;
}

zelvar::ZMessage Reply(unsigned type, uint32_t dst, uint32_t owner) {
  zelvar::ZMessage message;
  message.mutable_head()->set_message_type(type);
  message.mutable_head()->set_kind(zelvar::kKindResponse);
  message.mutable_head()->set_dst_machine_id(dst);
  message.mutable_head()->set_owner_machine_id(owner);
  return message;
}

std::string Bytes(uint32_t prefix, const std::string& body) {
  uint32_t big = htonl(prefix);
  return std::string(reinterpret_cast<const char*>(&big), sizeof(big)) + body;
}

size_t Buffered(TestPeer& peer) { return evbuffer_get_length(bufferevent_get_input(peer.AgentSide())); }

int DataIn(TestPeer& peer, zelvar::ZMessage** message, zelvar::StateMachine** machine) {
  return OnDataIn(peer.ConnA(), peer.ConnB(), message, machine);
}

class EntryTest : public ::testing::Test {
 protected:
  EntryTest() { g_deliveries.clear(); }
  ~EntryTest() override {
    fn_usr_OnConnect = nullptr;
    fn_usr_OnDisconnect = nullptr;
    fn_usr_OnDataIn = nullptr;
    fn_usr_OnInit = OnMyInit;
  }

  // A machine of the inbox type, started and waiting for a reply.
  uint32_t WaitingInbox() { return host_.Start(InboxCreateMySelf()).id; }

  TestHost host_;
};

// --- the table and the hooks -------------------------------------------------------

int g_hookCalls = 0;
uint64_t g_hookArgs[2] = {0, 0};
int RecordingConnect(uint64_t connA, uint64_t connB) {
  ++g_hookCalls;
  g_hookArgs[0] = connA;
  g_hookArgs[1] = connB;
  return 7;
}

std::vector<std::string> g_otherLog;
void OtherLog(int, const char* format, ...) { g_otherLog.push_back(format); }

TEST_F(EntryTest, TableIsCopiedByValueAtHandOver) {
  OnPeekInterface(host_.Table());
  EXPECT_EQ(host_.LogLines(), std::vector<std::string>{"OnPeekInterface entry"});

  // The host's own array may change later: the agent keeps what it was given.
  zelvar::HostFunction original = host_.Table()[zelvar::kSlotLog];
  host_.Table()[zelvar::kSlotLog] = reinterpret_cast<zelvar::HostFunction>(&OtherLog);
  OnConnect(1, 2);
  EXPECT_TRUE(host_.Logged("OnConnect entry"));
  EXPECT_TRUE(g_otherLog.empty());

  // A table handed over again replaces every service at the next use.
  OnPeekInterface(host_.Table());
  OnDisconnect(1, 2);
  EXPECT_FALSE(host_.Logged("OnDisconnect entry"));
  EXPECT_EQ(g_otherLog.size(), 2u);
  host_.Table()[zelvar::kSlotLog] = original;
  OnPeekInterface(host_.Table());
}

TEST_F(EntryTest, EntryLinesAreTraceLines) {
  fn_usr_OnInit = nullptr;
  host_.SetLogLevel(2);
  EXPECT_EQ(OnInit(nullptr), 0);
  EXPECT_EQ(OnConnect(1, 2), 0);
  EXPECT_EQ(OnDisconnect(1, 2), 0);
  EXPECT_TRUE(host_.LogLines().empty());

  host_.SetLogLevel(1);
  OnInit(nullptr);
  OnConnect(1, 2);
  OnDisconnect(1, 2);
  std::vector<std::string> expected = {"OnInit entry", "OnConnect entry", "OnDisconnect entry"};
  EXPECT_EQ(host_.LogLines(), expected);
  EXPECT_EQ(host_.LogLinesAt(1), expected);
}

TEST_F(EntryTest, HookTakesOverTheWholeEntryPointUnlessItIsTheEntryPointItself) {
  EXPECT_EQ(fn_usr_OnInit, &OnMyInit) << "the agent installs its own initialisation";

  fn_usr_OnConnect = &RecordingConnect;
  g_hookCalls = 0;
  EXPECT_EQ(OnConnect(0x1111222233334444ull, 99), 7);
  EXPECT_EQ(g_hookCalls, 1);
  EXPECT_EQ(g_hookArgs[0], 0x1111222233334444ull);
  EXPECT_EQ(g_hookArgs[1], 99u);
  EXPECT_FALSE(host_.Logged("OnConnect entry"));

  fn_usr_OnConnect = &OnConnect;
  EXPECT_EQ(OnConnect(1, 2), 0);
  EXPECT_TRUE(host_.Logged("OnConnect entry"));

  fn_usr_OnDataIn = &OnDataIn;
  zelvar::ZMessage* message = nullptr;
  zelvar::StateMachine* machine = nullptr;
  EXPECT_EQ(OnDataIn(12345, 678, &message, &machine), -1) << "the default body runs";
}

// --- framing --------------------------------------------------------------------

TEST_F(EntryTest, UnknownConnectionIsAnError) {
  zelvar::ZMessage* message = nullptr;
  zelvar::StateMachine* machine = nullptr;
  EXPECT_EQ(OnDataIn(12345, 678, &message, &machine), -1);
  TestPeer& peer = host_.Accept("10.0.0.9", 5000);
  peer.Close();
  EXPECT_EQ(DataIn(peer, &message, &machine), -1);
}

TEST_F(EntryTest, IncompleteFrameWaitsWithoutConsumingAnything) {
  TestPeer& peer = host_.Accept("10.0.0.9", 5000);
  std::string frame = ovita2::testing::Frame(Request(kInboxType));
  zelvar::ZMessage* message = nullptr;
  zelvar::StateMachine* machine = nullptr;

  for (size_t i = 0; i + 1 < frame.size(); ++i) {
    EXPECT_EQ(DataIn(peer, &message, &machine), 100) << "with " << i << " bytes";
    EXPECT_EQ(Buffered(peer), i);
    peer.WriteRaw(frame.substr(i, 1));
  }
  EXPECT_EQ(DataIn(peer, &message, &machine), 100) << "the last byte is missing";
  EXPECT_TRUE(g_deliveries.empty());

  peer.WriteRaw(frame.substr(frame.size() - 1));
  ASSERT_EQ(DataIn(peer, &message, &machine), 0);
  EXPECT_EQ(Buffered(peer), 0u);
  host_.PostMessage(machine, message);
  host_.RunPending();
  ASSERT_EQ(g_deliveries.size(), 1u);
}

TEST_F(EntryTest, OneCallConsumesExactlyOneFrame) {
  TestPeer& peer = host_.Accept("10.0.0.9", 5000);
  std::string second = ovita2::testing::Frame(Request(kInboxType));
  peer.WriteRaw(ovita2::testing::Frame(Request(kInboxType)) + second);

  zelvar::ZMessage* message = nullptr;
  zelvar::StateMachine* machine = nullptr;
  ASSERT_EQ(DataIn(peer, &message, &machine), 0);
  EXPECT_EQ(Buffered(peer), second.size());
  host_.PostMessage(machine, message);
  EXPECT_EQ(host_.Route(peer), 100) << "the second frame routes, then nothing is left";
  host_.RunPending();
  EXPECT_EQ(g_deliveries.size(), 2u);
}

TEST_F(EntryTest, EmptyEnvelopeRoutesByDefaultHeadAndFindsNoMachine) {
  TestPeer& peer = host_.Accept("10.0.0.9", 5000);
  peer.WriteRaw(Bytes(0, ""));
  zelvar::ZMessage* message = nullptr;
  zelvar::StateMachine* machine = nullptr;
  EXPECT_EQ(DataIn(peer, &message, &machine), -1);
  EXPECT_EQ(Buffered(peer), 0u) << "the frame is consumed";
  EXPECT_EQ(host_.LogLines(), std::vector<std::string>{"Can't find machine for\n"});
  EXPECT_EQ(host_.LogLinesAt(4).size(), 1u);
}

TEST_F(EntryTest, UndecodableEnvelopeGoesBackToThePoolAndIsAnError) {
  TestPeer& peer = host_.Accept("10.0.0.9", 5000);
  size_t pooled = zelvar::MessagePool::Instance()->Size();
  // Field 1 as a length-delimited head claiming more bytes than the frame has.
  peer.WriteRaw(Bytes(3, "\x0a\x7f\x01") + "tail");
  zelvar::ZMessage* message = nullptr;
  zelvar::StateMachine* machine = nullptr;
  EXPECT_EQ(DataIn(peer, &message, &machine), -1);
  // Taken from the pool (or made when it was empty), then given back.
  EXPECT_EQ(zelvar::MessagePool::Instance()->Size(), std::max<size_t>(pooled, 1));
  EXPECT_TRUE(host_.LogLines().empty());
  std::string left(Buffered(peer), '\0');
  evbuffer_copyout(bufferevent_get_input(peer.AgentSide()), &left[0], left.size());
  EXPECT_EQ(left, "tail") << "what was read of the frame is drained";
}

// --- routing -----------------------------------------------------------------------

TEST_F(EntryTest, RequestCreatesAMachineThatAnswersOnTheSameConnection) {
  TestPeer& peer = host_.Accept("10.0.0.9", 5000);
  zelvar::ZMessage request = Request(kInboxType);
  peer.WriteFrame(request);
  zelvar::ZMessage* message = nullptr;
  zelvar::StateMachine* machine = nullptr;
  ASSERT_EQ(DataIn(peer, &message, &machine), 0);
  EXPECT_EQ(machine->StateMachineType(), kInboxType);
  EXPECT_EQ(message->head().session(), "session-1");
  EXPECT_EQ(host_.LogLines(), std::vector<std::string>{"from_proc_in\n" + request.DebugString()});

  host_.PostMessage(machine, message);
  host_.RunPending();
  ASSERT_EQ(g_deliveries.size(), 1u);
  EXPECT_EQ(g_deliveries[0].conn_a, peer.ConnA());
  EXPECT_EQ(g_deliveries[0].conn_b, peer.ConnB());
}

TEST_F(EntryTest, ReplyGoesToTheMachineItNames) {
  uint32_t waiting = WaitingInbox();
  TestPeer& peer = host_.Peer("10.0.0.1", 9000);
  zelvar::ZMessage reply = Reply(kInboxType, waiting, 0);
  peer.WriteFrame(reply);
  zelvar::ZMessage* message = nullptr;
  zelvar::StateMachine* machine = nullptr;
  ASSERT_EQ(DataIn(peer, &message, &machine), 0);
  EXPECT_EQ(machine->GetMachineId(), waiting) << "no new machine although the type is served";
  EXPECT_EQ(host_.LogLines(), std::vector<std::string>{"from_proc_out\n" + reply.DebugString()});
  host_.PostMessage(machine, message);
  host_.RunPending();
  EXPECT_FALSE(host_.IsAlive(waiting));
}

TEST_F(EntryTest, ReplyWithoutDestinationFallsBackToFactoryThenOwner) {
  uint32_t owner = WaitingInbox();
  TestPeer& peer = host_.Peer("10.0.0.1", 9000);
  zelvar::ZMessage* message = nullptr;
  zelvar::StateMachine* machine = nullptr;

  peer.WriteFrame(Reply(kInboxType, 0, owner));
  ASSERT_EQ(DataIn(peer, &message, &machine), 0);
  EXPECT_NE(machine->GetMachineId(), owner) << "a served type gets a new machine";
  EXPECT_EQ(host_.LogLines().back().rfind("from_proc_in\n", 0), 0u);
  host_.PostMessage(machine, message);

  peer.WriteFrame(Reply(4243999, 0, owner));
  ASSERT_EQ(DataIn(peer, &message, &machine), 0);
  EXPECT_EQ(machine->GetMachineId(), owner);
  EXPECT_EQ(host_.LogLines().back().rfind("from_proc_out\n", 0), 0u);
  host_.PostMessage(machine, message);
  host_.RunPending();
}

TEST_F(EntryTest, ReplyToAMachineThatIsGoneIsLoggedAndDropped) {
  TestPeer& peer = host_.Peer("10.0.0.1", 9000);
  zelvar::ZMessage reply = Reply(kInboxType, 0x7ffffff0, 0);
  peer.WriteFrame(reply);
  zelvar::ZMessage* message = nullptr;
  zelvar::StateMachine* machine = nullptr;
  host_.SetLogLevel(4);
  EXPECT_EQ(DataIn(peer, &message, &machine), -1);
  EXPECT_EQ(host_.LogLines(), std::vector<std::string>{"Can't find machine for\n" + reply.DebugString()});
  EXPECT_EQ(Buffered(peer), 0u);

  host_.SetLogLevel(5);
  peer.WriteFrame(reply);
  EXPECT_EQ(DataIn(peer, &message, &machine), -1);
  EXPECT_EQ(host_.LogLines().size(), 1u) << "above the error threshold nothing is written";
}

TEST_F(EntryTest, RoutedEnvelopeIsDumpedOnlyAtTraceThreshold) {
  host_.SetLogLevel(2);
  TestPeer& peer = host_.Accept("10.0.0.9", 5000);
  peer.Send(Request(kInboxType));
  host_.RunPending();
  EXPECT_EQ(g_deliveries.size(), 1u);
  EXPECT_TRUE(host_.LogLines().empty());
}

// --- OnRoutine ------------------------------------------------------------------------

zelvar::StateMachine* NewInboxForRoutine() { return InboxCreateMySelfForRoutine(); }

TEST_F(EntryTest, RoutineTickStartsTheFirstDueRoutineOfTheAgent) {
  std::vector<routing_machine_t> saved = RoutineUtil::Instance()->Routines();
  RoutineUtil::Instance()->Routines().clear();

  zelvar::StateMachine* untouched = reinterpret_cast<zelvar::StateMachine*>(0x1);
  zelvar::StateMachine* out = untouched;
  EXPECT_EQ(OnRoutine(&out), 0);
  EXPECT_EQ(out, untouched) << "an empty list leaves the output alone";

  RoutineUtil::Instance()->SetRouting(&NewInboxForRoutine, 30, false);
  ovita2::testing::StartedMachine started = host_.RunRoutine();
  EXPECT_EQ(started.name, "InboxMachine");
  EXPECT_EQ(RoutineUtil::Instance()->Routines()[0].last_start, host_.Now());
  EXPECT_FALSE(host_.RunRoutine());

  RoutineUtil::Instance()->Routines() = saved;
}

}  // namespace
