// What every machine can send: requests and responses on connections,
// messages to machines of this process, raw bytes, SQL and blob requests,
// and actions handed to the host.
#include "framework/bev_machine_util.h"

#include <arpa/inet.h>
#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "framework/host_api.h"
#include "framework/machine_registration.h"
#include "test_host.h"
#include "zelvar/dorvan.pb.h"
#include "zelvar/long_action.h"
#include "zelvar/message_util.h"

using ovita2::testing::TestHost;
using ovita2::testing::TestPeer;

// Serves requests of its type from inside the process, or waits (started
// with no message) for a response; keeps what it received.
constexpr unsigned kRecorderType = 4245001;

struct Received {
  uint32_t machine_id;
  uint32_t requester_id;
  uint32_t flow_no;
  std::string session;
};
std::vector<Received> g_received;

class RecorderMachine : public BEVMachineUtil {
 public:
  unsigned StateMachineType() override { return kRecorderType; }
  const char* MachineName() override { return "RecorderMachine"; }

  int Entry_Init(zelvar::event_key_t, void* data) {
    if (data == nullptr) {
      SetState(1);
      return zelvar::kKeepMachine;
    }
    auto* message = static_cast<zelvar::ZMessage*>(data);
    g_received.push_back({GetMachineId(), GetRequesterId(), message->head().flow_no(), message->head().session()});
    ovita2::HostFn<zelvar::ReleaseMessageFn>(zelvar::kSlotReleaseMessage)(0, message);
    return zelvar::kMachineDone;
  }
};

OVITA2_MACHINE_CREATORS(Recorder)
OVITA2_MACHINE_STATE(Recorder, Init)

static const ovita2::MachineRegistration kRecorderRegistration =
    ovita2::MachineRegistration(kRecorderType, RecorderCreateMySelf, RecorderCreateMySelfByAddr)
        .State(-1, RecorderMachineEntry_Init, "Entry_Init")
        .State(1, RecorderMachineEntry_Init, "Entry_WaitResponse");

namespace {

// The machine whose helpers a test calls; it never runs a handler.
class SenderMachine : public BEVMachineUtil {
 public:
  unsigned StateMachineType() override { return 4245002; }
  const char* MachineName() override { return "SenderMachine"; }
};

zelvar::ZMessage Envelope(unsigned type, uint32_t flow, const std::string& session) {
  zelvar::ZMessage message;
  zelvar::NewMessage(&message, flow, session, static_cast<int>(type), 0, false, 0, 0, nullptr, nullptr, nullptr);
  return message;
}

zelvar::ZMessage OnlyFrame(TestPeer& peer) {
  std::vector<zelvar::ZMessage> frames = peer.ReadFrames();
  EXPECT_EQ(frames.size(), 1u);
  EXPECT_EQ(peer.PendingBytes(), 0u);
  return frames.empty() ? zelvar::ZMessage() : frames[0];
}

class SendTest : public ::testing::Test {
 protected:
  SendTest() { g_received.clear(); }

  // A recorder started and waiting for a response.
  uint32_t WaitingRecorder() { return host_.Start(RecorderCreateMySelf()).id; }

  TestHost host_;
  SenderMachine sender_;
};

// --- flow numbers -------------------------------------------------------------------

TEST(FlowNumbers, ProcessCountsFromZero) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // a fresh process, fresh counter
  EXPECT_EXIT(
      {
        unsigned first = BEVMachineUtil::Flowno();
        unsigned second = BEVMachineUtil::Flowno();
        std::exit(first == 0 && second == 1 ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST_F(SendTest, StubSendersTakeAFlowNumberAndSendNothing) {
  unsigned before = BEVMachineUtil::Flowno();
  EXPECT_EQ(sender_.SendSql("10.0.0.5", 3306, "stats", 1u, std::string("DELETE FROM t")), before + 1);
  zelvar::ExecuteShell2 action;
  EXPECT_EQ(sender_.SendLongAction2(&action), before + 2);
  EXPECT_EQ(BEVMachineUtil::Flowno(), before + 3);
  EXPECT_TRUE(host_.OutboundPeers().empty());
  EXPECT_TRUE(host_.LongActions().empty());
}

// --- requests ----------------------------------------------------------------------

TEST_F(SendTest, RequestIsFramedOntoTheHostsConnectionToThePeer) {
  zelvar::ZMessage request = Envelope(67000, 3, "s-1");
  EXPECT_EQ(sender_.SendRequest(request, "10.0.0.1", 9000, 0), 0);
  EXPECT_EQ(OnlyFrame(host_.Peer("10.0.0.1", 9000)).SerializeAsString(), request.SerializeAsString());
  EXPECT_EQ(host_.LogLines(), std::vector<std::string>{"to_proc_out 10.0.0.1:9000\n" + request.DebugString()});

  in_addr address;
  inet_aton("10.0.0.2", &address);
  host_.SetLogLevel(2);
  EXPECT_EQ(sender_.SendRequestByAddr(request, address.s_addr, 65536 + 9001, 0), 0);
  EXPECT_EQ(OnlyFrame(host_.Peer("10.0.0.2", 9001)).head().session(), "s-1") << "the port is cut to 16 bits";
  EXPECT_EQ(host_.LogLines().size(), 1u);
}

TEST_F(SendTest, RequestToAnUnreachablePeerFailsQuietly) {
  host_.RefuseConnectTo("10.0.0.1", 9000);
  EXPECT_EQ(sender_.SendRequest(Envelope(67000, 3, "s-1"), "10.0.0.1", 9000, 0), -1);
  EXPECT_TRUE(host_.OutboundPeers().empty());
  EXPECT_TRUE(host_.LogLines().empty());
}

// --- responses -----------------------------------------------------------------------

TEST_F(SendTest, MachineCreatedByTheNetworkAnswersOnTheRequestsConnection) {
  TestPeer& client = host_.Accept("10.0.0.9", 41000);
  TestPeer& other = host_.Accept("10.0.0.8", 41001);
  sender_.SetReplyConnection(client.ConnA(), client.ConnB());
  zelvar::ZMessage response = Envelope(66013, 8, "s-2");

  EXPECT_EQ(sender_.SendResponse(response), 0);
  EXPECT_EQ(OnlyFrame(client).head().flow_no(), 8u);

  EXPECT_EQ(sender_.SendResponseTo(response, other.ConnA(), other.ConnB(), zelvar::kNoMachineId,
                                   zelvar::kNoMachineId),
            0);
  EXPECT_EQ(OnlyFrame(other).head().flow_no(), 8u);
  EXPECT_EQ(client.PendingBytes(), 0u);
}

TEST_F(SendTest, ResponseWithoutItsConnectionFailsWithATraceLine) {
  TestPeer& client = host_.Accept("10.0.0.9", 41000);
  sender_.SetReplyConnection(client.ConnA(), client.ConnB());
  client.Close();
  EXPECT_EQ(sender_.SendResponse(Envelope(66013, 8, "s-2")), -1);
  std::string line = "machine:SenderMachine(" + std::to_string(sender_.GetMachineId()) +
                     ")|state:(unnamed state)|Can't get request fd";
  EXPECT_EQ(host_.LogLines(), std::vector<std::string>{line});

  host_.ClearLog();
  host_.SetLogLevel(2);
  EXPECT_EQ(sender_.SendResponse(Envelope(66013, 8, "s-2")), -1);
  EXPECT_TRUE(host_.LogLines().empty());
}

TEST_F(SendTest, ResponseToAMachineOfThisProcessIsPostedToIt) {
  uint32_t requester = WaitingRecorder();
  sender_.SetRequesterId(requester);
  TestPeer& client = host_.Accept("10.0.0.9", 41000);
  sender_.SetReplyConnection(client.ConnA(), client.ConnB());

  EXPECT_EQ(sender_.SendResponse(Envelope(4245099, 11, "s-3")), 0);
  EXPECT_TRUE(g_received.empty()) << "delivered on a later loop turn";
  host_.RunPending();
  ASSERT_EQ(g_received.size(), 1u);
  EXPECT_EQ(g_received[0].machine_id, requester);
  EXPECT_EQ(g_received[0].flow_no, 11u);
  EXPECT_EQ(client.PendingBytes(), 0u);
}

TEST_F(SendTest, ResponseToPicksTheNamedMachineThenTheRequesterThenTheConnection) {
  TestPeer& client = host_.Accept("10.0.0.9", 41000);
  uint32_t named = WaitingRecorder();
  uint32_t requester = WaitingRecorder();
  zelvar::ZMessage response = Envelope(4245099, 12, "s-4");

  sender_.SetRequesterId(requester);
  EXPECT_EQ(sender_.SendResponseTo(response, client.ConnA(), client.ConnB(), zelvar::kNoMachineId, named), 0);
  EXPECT_EQ(sender_.SendResponseTo(response, client.ConnA(), client.ConnB(), 5, zelvar::kNoMachineId), 0);
  host_.RunPending();
  ASSERT_EQ(g_received.size(), 2u);
  EXPECT_EQ(g_received[0].machine_id, named);
  EXPECT_EQ(g_received[1].machine_id, requester);
  EXPECT_EQ(client.PendingBytes(), 0u);

  EXPECT_EQ(sender_.SendResponseTo(response, client.ConnA(), client.ConnB(), 5, 0x7ffffff0), -1)
      << "a machine that is gone";
}

// --- inside the process -------------------------------------------------------------

TEST_F(SendTest, InternalRequestCreatesAServingMachineThatKnowsItsRequester) {
  zelvar::ZMessage request = Envelope(kRecorderType, 21, "s-5");
  EXPECT_EQ(sender_.SendInternalRequest(request), 0);
  host_.RunPending();
  ASSERT_EQ(g_received.size(), 1u);
  EXPECT_EQ(g_received[0].requester_id, sender_.GetMachineId());
  EXPECT_EQ(g_received[0].session, "s-5");
  EXPECT_FALSE(host_.IsAlive(g_received[0].machine_id)) << "it ended after serving";

  EXPECT_EQ(sender_.SendInternalRequest(Envelope(4245098, 22, "s-6")), -1) << "no machine serves that type";
  EXPECT_EQ(sender_.SendInternalResponse(request, sender_.GetMachineId(), 0x7ffffff0), -1);
}

// --- raw bytes -------------------------------------------------------------------------

TEST_F(SendTest, RawBytesGoOutAsTheyAreWithoutAFrame) {
  TestPeer& peer = host_.Accept("10.0.0.9", 41000);
  const std::string bytes("line one\n\0two", 13);
  EXPECT_EQ(BEVMachineUtil::SendBuffer(bytes, peer.ConnA(), peer.ConnB()), 0);
  EXPECT_EQ(BEVMachineUtil::SendBuffer("xy", 2, peer.AgentSide()), 0);
  EXPECT_EQ(BEVMachineUtil::SendBuffer("ignored", 0, peer.ConnA(), peer.ConnB()), 0);
  EXPECT_EQ(peer.ReadRaw(), bytes + "xy");

  EXPECT_EQ(BEVMachineUtil::SendBuffer("", 0, static_cast<bufferevent*>(nullptr)), -1);
  EXPECT_EQ(BEVMachineUtil::SendBuffer(nullptr, 3, peer.AgentSide()), -1);
  EXPECT_EQ(BEVMachineUtil::SendBuffer("abc", 3, 999999, 1), -1);
  EXPECT_EQ(peer.PendingBytes(), 0u);
}

// --- database service ---------------------------------------------------------------------

TEST_F(SendTest, SqlRequestCarriesTheFormattedTextAndTheInvertedFlag) {
  unsigned flow = sender_.SendSql("10.0.0.5", 3306, "stats", 0u, "DELETE FROM t WHERE id=%d AND tag='%s'", 42, "x");
  zelvar::ZMessage sent = OnlyFrame(host_.Peer("10.0.0.5", 3306));
  EXPECT_EQ(sent.head().message_type(), 1000u);
  EXPECT_EQ(sent.head().flow_no(), flow);
  EXPECT_EQ(sent.head().src_machine_id(), sender_.GetMachineId());
  EXPECT_EQ(sent.head().session().size(), 36u);
  const auto& sql = sent.body().GetExtension(zelvar::dorvan::execute_sql_request);
  EXPECT_EQ(sql.db(), "stats");
  EXPECT_EQ(sql.sql(), "DELETE FROM t WHERE id=42 AND tag='x'");
  EXPECT_EQ(sql.flag(), 1u) << "flag 0 travels as 1";

  EXPECT_EQ(sender_.SendSql("10.0.0.5", 3306, "stats", 7u, "SELECT 1"), flow + 1);
  EXPECT_EQ(OnlyFrame(host_.Peer("10.0.0.5", 3306)).body().GetExtension(zelvar::dorvan::execute_sql_request).flag(),
            0u);
  sender_.SendSql("10.0.0.5", 3306, "stats", "SELECT %d", 2);
  EXPECT_EQ(OnlyFrame(host_.Peer("10.0.0.5", 3306)).body().GetExtension(zelvar::dorvan::execute_sql_request).flag(),
            0u)
      << "without a flag the request is sent as with flag 1";
  sender_.SendSql("10.0.0.5", 3306, "stats", std::string("UPDATE t SET p='100%'"));
  EXPECT_EQ(OnlyFrame(host_.Peer("10.0.0.5", 3306)).body().GetExtension(zelvar::dorvan::execute_sql_request).sql(),
            "UPDATE t SET p='100%'")
      << "a text given whole is not a format";
}

TEST_F(SendTest, FormatBufferGrowsWhenATextDoesNotLeaveRoomForItsEnd) {
  host_.RefuseConnectTo("10.0.0.5", 3306);  // the flow number comes back all the same
  EXPECT_EQ(sender_.FormatCapacity(), 0u);
  sender_.SendSql("10.0.0.5", 3306, "db", "%s", "");
  EXPECT_EQ(sender_.FormatCapacity(), 0u);
  sender_.SendSql("10.0.0.5", 3306, "db", "%s", "12345");
  EXPECT_EQ(sender_.FormatCapacity(), 10u);
  sender_.SendSql("10.0.0.5", 3306, "db", "%s", "123456789");
  EXPECT_EQ(sender_.FormatCapacity(), 10u);
  sender_.SendSql("10.0.0.5", 3306, "db", "%s", "1234567890");
  EXPECT_EQ(sender_.FormatCapacity(), 20u);
}

TEST_F(SendTest, BlobRequestKeepsItsBytesWhole) {
  const std::string blob("\x00\x01\xff\x00z", 5);
  unsigned flow = sender_.ReplaceBlob("10.0.0.6", 4000, "jobs.bin", blob, "version %u", 3u);
  sender_.ReplaceBlob("10.0.0.6", 4000, "other", "b", "%s", "second");
  std::vector<zelvar::ZMessage> frames = host_.Peer("10.0.0.6", 4000).ReadFrames();
  ASSERT_EQ(frames.size(), 2u);
  EXPECT_EQ(frames[0].head().message_type(), 1010u);
  EXPECT_EQ(frames[0].head().flow_no(), flow);
  const auto& first = frames[0].body().GetExtension(zelvar::dorvan::replace_blob_request);
  EXPECT_EQ(first.name(), "jobs.bin");
  EXPECT_EQ(first.text(), "version 3");
  EXPECT_EQ(first.blob(), blob);
  const auto& second = frames[1].body().GetExtension(zelvar::dorvan::replace_blob_request);
  EXPECT_EQ(second.text(), "second");
  EXPECT_EQ(second.blob(), "b");
  EXPECT_EQ(frames[1].head().flow_no(), flow + 1);
}

// --- host actions -----------------------------------------------------------------------

TEST_F(SendTest, LongActionIsHandedToTheHostUnderANewFlowNumber) {
  zelvar::ExecuteShell2 action;
  action.Param(zelvar::ExecuteShell2::kCommandParam, "uptime");
  unsigned flow = sender_.SendLongAction(&action);
  ASSERT_EQ(host_.LongActions().size(), 1u);
  const auto& captured = host_.LongActions()[0];
  EXPECT_EQ(captured.name, "ExecuteShell2");
  EXPECT_EQ(captured.Param("command"), "uptime");
  EXPECT_EQ(captured.machine_id, sender_.GetMachineId());
  EXPECT_EQ(captured.flow_no, flow);

  char buffer[16];
  EXPECT_EQ(sender_.SendAioRead(5, buffer, sizeof(buffer), 100), 0);
  EXPECT_EQ(sender_.SendAioWrite(6, buffer, 8, 0), 0);
  EXPECT_EQ(sender_.SendAioFDSync(6), 0);
  ASSERT_EQ(host_.AioRequests().size(), 3u);
  EXPECT_EQ(host_.AioRequests()[0].kind, "read");
  EXPECT_EQ(host_.AioRequests()[0].size, sizeof(buffer));
  EXPECT_EQ(host_.AioRequests()[0].offset, 100u);
  EXPECT_EQ(host_.AioRequests()[1].fd, 6);
  EXPECT_EQ(host_.AioRequests()[2].kind, "fdsync");
  EXPECT_EQ(host_.AioRequests()[2].machine_id, sender_.GetMachineId());
}

}  // namespace
