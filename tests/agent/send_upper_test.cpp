// Sending the samples upward: one request per queue and tick, every field as
// the aggregation service reads it, and queues that empty whatever happens.
#include "pipeline/send_upper.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "agent_state.h"
#include "zelvar/tellar2.pb.h"

zelvar::StateMachine* SendUpperCreateMySelf();

namespace {

using ovita2::testing::TestHost;
using ovita2::testing::TestPeer;

class SendUpperTest : public ::testing::Test {
 protected:
  SendUpperTest() {
    ovita2::testing::ResetAgentState();
    g_strAggrName = "aggr-1";
    g_strAggrIP = "10.4.0.1";
    g_iAggrPort = 9400;
    host_.SetLogLevel(2);  // no message dumps: the 10000-sample one is large
  }

  uint32_t Tick() {
    uint32_t id = host_.Start(SendUpperCreateMySelf()).id;
    EXPECT_FALSE(host_.IsAlive(id)) << "the sender never waits";
    return id;
  }

  TestPeer& Aggregation() { return host_.Peer("10.4.0.1", 9400); }

  TestHost host_;
};

TEST_F(SendUpperTest, NothingQueuedSendsNothing) {
  Tick();
  EXPECT_TRUE(host_.OutboundPeers().empty());
  EXPECT_TRUE(host_.LogLines().empty());
}

TEST_F(SendUpperTest, TenThousandNumericSamplesLeaveInOneRequest) {
  for (uint32_t i = 0; i < 10000; ++i) {
    g_vecUpper.push_back(_stats_info{"cpu." + std::to_string(i), i, i % 7, static_cast<int64_t>(i) * -3 - 1, 99});
  }
  uint32_t id = Tick();
  EXPECT_TRUE(g_vecUpper.empty());

  std::vector<zelvar::ZMessage> frames = Aggregation().ReadFrames();
  ASSERT_EQ(frames.size(), 1u);
  const zelvar::ZMessage& request = frames[0];
  EXPECT_EQ(request.head().message_type(), 61030u);
  EXPECT_EQ(request.head().kind(), zelvar::kKindRequest);
  EXPECT_EQ(request.head().src_machine_id(), id);
  ASSERT_TRUE(request.body().HasExtension(zelvar::tellar2::record_stats_request));
  const zelvar::tellar2::RecordStatsRequest& stats = request.body().GetExtension(zelvar::tellar2::record_stats_request);
  ASSERT_EQ(stats.stats_size(), 10000);
  for (int i = 0; i < stats.stats_size(); ++i) {
    const zelvar::tellar2::StatsData& data = stats.stats(i);
    uint32_t n = static_cast<uint32_t>(i);
    ASSERT_EQ(data.name(), "cpu." + std::to_string(n)) << i;
    ASSERT_EQ(data.object_id(), n) << i;
    ASSERT_EQ(data.stat_item(), n % 7) << i;
    ASSERT_EQ(data.value(), static_cast<int64_t>(n) * -3 - 1) << i;
  }
  EXPECT_FALSE(request.body().HasExtension(zelvar::tellar2::record_string_stats_request));
}

TEST_F(SendUpperTest, OnlyTextSamplesSendOnlyTheTextRequest) {
  g_vecStringUpper.push_back(string_stats_info_st{"uptime", 4, "up 3 days\n", 1700000123});
  g_vecStringUpper.push_back(string_stats_info_st{"kernel", 5, "", (uint64_t{1} << 32) + 5});
  Tick();
  EXPECT_TRUE(g_vecStringUpper.empty());
  std::vector<zelvar::ZMessage> frames = Aggregation().ReadFrames();
  ASSERT_EQ(frames.size(), 1u);
  EXPECT_EQ(frames[0].head().message_type(), 61032u);
  const auto& text = frames[0].body().GetExtension(zelvar::tellar2::record_string_stats_request);
  ASSERT_EQ(text.stats_size(), 2);
  EXPECT_EQ(text.stats(0).name(), "uptime");
  EXPECT_EQ(text.stats(0).job_id(), 4u);
  EXPECT_EQ(text.stats(0).value(), "up 3 days\n");
  EXPECT_EQ(text.stats(0).time(), 1700000123u);
  EXPECT_TRUE(text.stats(1).has_value()) << "an empty text is still sent";
  EXPECT_EQ(text.stats(1).time(), 5u) << "the time is narrowed to 32 bits";
}

TEST_F(SendUpperTest, BothQueuesGoOutNumericFirstUnderTheirOwnFlowNumbers) {
  g_vecUpper.push_back(_stats_info{"load", 1, 2, 15, 0});
  g_vecStringUpper.push_back(string_stats_info_st{"uptime", 4, "up", 1});
  Tick();
  std::vector<zelvar::ZMessage> frames = Aggregation().ReadFrames();
  ASSERT_EQ(frames.size(), 2u);
  EXPECT_EQ(frames[0].head().message_type(), 61030u);
  EXPECT_EQ(frames[1].head().message_type(), 61032u);
  EXPECT_NE(frames[0].head().flow_no(), frames[1].head().flow_no());
  EXPECT_NE(frames[0].head().session(), frames[1].head().session());
}

TEST_F(SendUpperTest, QueuesEmptyEvenWhenTheAggregationServiceIsUnreachable) {
  host_.RefuseConnectTo("10.4.0.1", 9400);
  g_vecUpper.push_back(_stats_info{"load", 1, 2, 15, 0});
  g_vecStringUpper.push_back(string_stats_info_st{"uptime", 4, "up", 1});
  Tick();
  EXPECT_TRUE(g_vecUpper.empty());
  EXPECT_TRUE(g_vecStringUpper.empty());

  g_strAggrIP.clear();
  g_iAggrPort = 0;
  g_vecUpper.push_back(_stats_info{"load", 1, 2, 15, 0});
  Tick();
  EXPECT_TRUE(g_vecUpper.empty()) << "an unknown endpoint loses the tick too";
}

}  // namespace
