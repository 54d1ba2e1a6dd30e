// Finding the aggregation instance through the statistics access service:
// the request, the stored answer, the failure lines and the stops on a
// broken conversation.
#include "naming/update_aggregation.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "agent_state.h"
#include "zelvar/ovita2.pb.h"

zelvar::StateMachine* UpdateAggregationCreateMySelf();

namespace {

using ovita2::testing::TestHost;
using ovita2::testing::TestPeer;

class UpdateAggregationTest : public ::testing::Test {
 protected:
  UpdateAggregationTest() {
    ovita2::testing::ResetAgentState();
    host_.SetConfig("common", "myname", "/zelvar/agents/agent-7");
    NameContainer::Instance()->SetNameValue("TELLAR2_ACCESS", "access-1",
                                            ovita2::testing::Address("10.0.0.2", 9300));
  }

  // A machine waiting for its reply; the request it sent in *request.
  uint32_t Waiting(zelvar::ZMessage* request) {
    uint32_t id = host_.Start(UpdateAggregationCreateMySelf()).id;
    EXPECT_TRUE(Access().ReadFrame(request));
    host_.ClearLog();
    return id;
  }

  static zelvar::ZMessage Reply(const zelvar::ZMessage& request, int code, const std::string& name,
                                const std::string& ip, int port) {
    zelvar::ZMessage reply = ovita2::testing::ReplyTo(request, 66001);
    auto* response = reply.mutable_body()->MutableExtension(zelvar::ovita2::get_aggregation_response);
    response->mutable_rc()->set_code(code);
    response->mutable_rc()->set_msg("the access service's own words");
    response->set_name(name);
    response->set_ip(ip);
    response->set_port(port);
    return reply;
  }

  TestPeer& Access() { return host_.Peer("10.0.0.2", 9300); }

  TestHost host_;
};

TEST_F(UpdateAggregationTest, AsksTheAccessServiceForThisAgentsNode) {
  zelvar::ZMessage request;
  uint32_t id = Waiting(&request);
  EXPECT_EQ(request.head().message_type(), 66000u);
  EXPECT_EQ(request.head().src_machine_id(), id);
  EXPECT_EQ(request.body().GetExtension(zelvar::ovita2::get_aggregation_request).node_path(),
            "/zelvar/agents/agent-7");
}

TEST_F(UpdateAggregationTest, NoAccessInstanceEndsTheRunWithALine) {
  NameContainer::Instance()->ClearNameValue("TELLAR2_ACCESS");
  uint32_t id = host_.Start(UpdateAggregationCreateMySelf()).id;
  EXPECT_FALSE(host_.IsAlive(id));
  EXPECT_TRUE(host_.OutboundPeers().empty());
  EXPECT_EQ(host_.LogLines(), std::vector<std::string>{"machine:UpdateAggregationMachine(" + std::to_string(id) +
                                                       ")|state:Entry_Init|can't find the access"});
}

TEST_F(UpdateAggregationTest, EverySuccessfulReplyIsStoredAsItComesEvenEmpty) {
  zelvar::ZMessage request;
  uint32_t id = Waiting(&request);
  EXPECT_TRUE(ovita2::testing::SendAndRun(host_, Access(), Reply(request, 0, "aggr-1", "10.4.0.1", 9400)));
  EXPECT_FALSE(host_.IsAlive(id));
  EXPECT_EQ(g_strAggrName, "aggr-1");
  EXPECT_EQ(g_strAggrIP, "10.4.0.1");
  EXPECT_EQ(g_iAggrPort, 9400);

  host_.SetLogLevel(2);
  Waiting(&request);
  EXPECT_TRUE(ovita2::testing::SendAndRun(host_, Access(), Reply(request, 0, "aggr-1", "10.4.0.1", 9400)));
  EXPECT_TRUE(host_.LogLines().empty()) << "an unchanged answer writes only the trace line";
  host_.SetLogLevel(1);

  Waiting(&request);
  EXPECT_TRUE(ovita2::testing::SendAndRun(host_, Access(), Reply(request, 0, "", "", 0)));
  EXPECT_EQ(g_strAggrName, "");
  EXPECT_EQ(g_strAggrIP, "") << "an empty address withdraws the instance";
  EXPECT_EQ(g_iAggrPort, 0);
  EXPECT_TRUE(host_.Logged("ok,update_aggregation response"));
  EXPECT_TRUE(host_.LogLinesAt(4).empty());
}

TEST_F(UpdateAggregationTest, ErrorReplyKeepsTheInstanceAndLogsBothLinesInOrder) {
  zelvar::ZMessage request;
  Waiting(&request);
  ovita2::testing::SendAndRun(host_, Access(), Reply(request, 0, "aggr-1", "10.4.0.1", 9400));

  uint32_t id = Waiting(&request);
  host_.SetLogLevel(1);
  EXPECT_TRUE(ovita2::testing::SendAndRun(host_, Access(), Reply(request, 5, "aggr-2", "10.5.0.1", 9500)));
  EXPECT_FALSE(host_.IsAlive(id));
  EXPECT_EQ(g_strAggrName, "aggr-1");
  EXPECT_EQ(g_strAggrIP, "10.4.0.1");
  EXPECT_EQ(g_iAggrPort, 9400);
  std::vector<std::string> lines = host_.LogLines();
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(lines[lines.size() - 2], "ok,update_aggregation response");
  EXPECT_EQ(lines.back(), "machine:UpdateAggregationMachine(" + std::to_string(id) +
                              ")|state:Entry_WaitAggregation|update_aggregation failed");
}

TEST_F(UpdateAggregationTest, AccessServiceThatNeverAnswersTimesTheMachineOut) {
  zelvar::ZMessage request;
  uint32_t id = Waiting(&request);
  host_.AdvanceClock(TestHost::kDefaultMachineTimeout);
  EXPECT_FALSE(host_.IsAlive(id));
  EXPECT_EQ(host_.LogLines().back(), "machine:UpdateAggregationMachine(" + std::to_string(id) +
                                         ")|state:Entry_WaitAggregation|Timeout occurred, delete myself");
}

using UpdateAggregationDeathTest = UpdateAggregationTest;

TEST_F(UpdateAggregationDeathTest, ReplyOfAnotherTypeStopsTheProcess) {
  zelvar::ZMessage request;
  Waiting(&request);
  zelvar::ZMessage reply = Reply(request, 0, "aggr-1", "10.4.0.1", 9400);
  reply.mutable_head()->set_message_type(67001);
  EXPECT_DEATH(ovita2::testing::SendAndRun(host_, Access(), reply),
               "rsp->head\\(\\)\\.message_type\\(\\) == ::zelvar::ovita2::GET_AGGREGATION_RESPONSE");
}

TEST_F(UpdateAggregationDeathTest, ReplyWithoutItsBodyStopsTheProcess) {
  zelvar::ZMessage request;
  Waiting(&request);
  zelvar::ZMessage reply = ovita2::testing::ReplyTo(request, 66001);
  EXPECT_DEATH(ovita2::testing::SendAndRun(host_, Access(), reply),
               "rsp->body\\(\\)\\.HasExtension\\(::zelvar::ovita2::get_aggregation_response\\)");
}

}  // namespace
