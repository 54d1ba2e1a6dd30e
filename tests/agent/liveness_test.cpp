// Real-time monitoring: items switched on and off from outside, and their scripts run while enabled.
#include <ctime>

#include "agent_test.h"
#include "liveness/enable_real_time.h"
#include "liveness/real_time_collect.h"

zelvar::StateMachine* RealTimeCollectCreateMySelf();

namespace {

using RealTime = ovita2::testing::AgentTest;
using Table = std::map<uint32_t, uint32_t>;

TEST_F(RealTime, EnablingRefreshesTheItemAndOnlyDisablingAnUnknownItemIsRefused) {
  const std::tuple<uint32_t, uint32_t, Table, std::string> cases[] = {  // item, operation, table after (1: now), answer
      {7, 0, {{7, 1}, {8, 5}}, "0 "}, {9, 0, {{7, 5}, {8, 5}, {9, 1}}, "0 "}, {7, 1, {{8, 5}}, "0 "},
      {9, 1, {{7, 5}, {8, 5}}, "-64190 the item has not been set real_time_monitor"}, {7, 2, {{7, 5}, {8, 5}}, "0 "}};
  for (const auto& [item, operation, after, answer] : cases) {
    g_mapRealtimeConf = {{7, 5}, {8, 5}};
    const auto before = static_cast<uint32_t>(std::time(nullptr));
    zelvar::ZMessage request, reply;
    zelvar::NewMessage(&request, 41, "asker", EnableRealTimeMachine::kType, 0, false, 3, 0, nullptr, nullptr, nullptr);
    auto* asked = request.mutable_body()->MutableExtension(zelvar::ovita2::enable_real_time_monitor_request);
    asked->set_item_id(item), asked->set_operation(operation);
    ovita2::testing::TestPeer& peer = host_.Accept("10.0.0.9", 7000);
    peer.Send(request), host_.RunPending();
    EXPECT_EQ(host_.Releases(host_.LastRouted()), 1);
    ASSERT_TRUE(peer.ReadFrame(&reply));
    const auto& rc = reply.body().GetExtension(zelvar::ovita2::enable_real_time_monitor_response).rc();
    EXPECT_EQ(std::to_string(rc.code()) + " " + rc.msg(), answer) << item << " " << operation;
    for (auto& enabled : g_mapRealtimeConf) enabled.second = enabled.second >= before ? 1 : enabled.second;
    EXPECT_EQ(g_mapRealtimeConf, after) << item << " " << operation;
  }
}

TEST_F(RealTime, ACycleRunsTheFreshItemsScriptsOneCycleAtATimeUntilTheLastAnswerOrTimeout) {
  EXPECT_FALSE(host_.IsAlive(host_.Start(RealTimeCollectCreateMySelf()).id) || RealTimeCollectMachine::m_rtRunning);
  uint32_t now, id;
  do {  // again until the table and the machine saw the same second; for 9 the clock went back
    RealTimeCollectMachine::m_rtRunning = false, now = static_cast<uint32_t>(std::time(nullptr));
    g_mapRealtimeConf = {{12, now - 300}, {3, now}, {5, now - 301}, {9, now + 60}};
  } while (id = host_.Start(RealTimeCollectCreateMySelf()).id, now != static_cast<uint32_t>(std::time(nullptr)));
  EXPECT_EQ(g_mapRealtimeConf, (Table{{3, now}, {12, now - 300}}));
  const size_t launched = host_.LongActions().size();
  ASSERT_GE(launched, 2u);
  const auto first = host_.LongActions()[launched - 2], last = host_.LongActions().back();
  EXPECT_EQ(first.Param("command") + " " + last.Param("command"),
            "~/ovita2/agent/plugin/real_time_task/3.sh ~/ovita2/agent/plugin/real_time_task/12.sh");
  EXPECT_FALSE(host_.IsAlive(host_.Start(RealTimeCollectCreateMySelf()).id));
  EXPECT_EQ(host_.LongActions().size(), launched) << "one cycle at a time";

  AddInstance("TELLAR2_ACCESS", "10.0.0.7", 7400);
  host_.CompleteLongAction(first.flow_no, "x\n", "no such file", 127);
  host_.RunPending();
  EXPECT_TRUE(host_.Logged("|state:Entry_WaitRealTimeJobs|long action stderr: 127, no such file"));
  EXPECT_EQ(host_.Peer("10.0.0.7", 7400).PendingBytes(), 0u) << "a failed script sends nothing";
  host_.CompleteLongAction(last.flow_no, "", "", 0), host_.RunPending();
  EXPECT_FALSE(host_.IsAlive(id) || RealTimeCollectMachine::m_rtRunning) << "the cycle ends with its last answer";

  id = host_.Start(RealTimeCollectCreateMySelf()).id;
  host_.AdvanceClock(120);
  EXPECT_TRUE(!host_.IsAlive(id) && host_.Logged("|state:Entry_WaitRealTimeJobs|Timeout occurred, delete myself"));
  const size_t timedOut = host_.LongActions().size();
  host_.Start(RealTimeCollectCreateMySelf());
  EXPECT_GT(host_.LongActions().size(), timedOut) << "a timed-out cycle lets the next one start";
}

}  // namespace
