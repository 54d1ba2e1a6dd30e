// What happens after a job's first answer, and what keeps the agent seen:
// counter readings of fast jobs become rates, second-phase records are run
// when due, the heartbeat reports the catalogue and steers the job fetch, and
// real-time items are switched from outside and their scripts run.
#include <google/protobuf/text_format.h>

#include <ctime>
#include <string>
#include <vector>

#include "agent_test.h"
#include "entry/ovita2_agent.h"
#include "jobs/job_container.h"
#include "liveness/enable_real_time.h"
#include "liveness/heart_beat.h"
#include "liveness/real_time_collect.h"
#include "naming/update_task_queue.h"
#include "pipeline/execute_hp_jobs.h"
#include "pipeline/second_phase.h"

zelvar::StateMachine* ExecuteHpJobsCreateMySelf();
zelvar::StateMachine* SecondPhaseCreateMySelf();
zelvar::StateMachine* HeartBeatCreateMySelf();
zelvar::StateMachine* RealTimeCollectCreateMySelf();

namespace {

// A string-valued job: the fast executor and the second phase never look at that.
zelvar::ovita2::JobDescription Job(uint32_t interval, uint32_t secondPhase, uint32_t period = 0) {
  zelvar::ovita2::JobDescription job;
  EXPECT_TRUE(google::protobuf::TextFormat::ParseFromString(
      "job_id: 7 stat_item: 70 command: 'reading' stat_key: 'rx' second_phase_command: 'second' string_value: 1", &job));
  job.set_interval(interval);
  job.set_second_phase(secondPhase);
  job.set_second_phase_delay(period);
  return job;
}

// `job` as the whole catalogue, on each of `objects`.
void Install(const zelvar::ovita2::JobDescription& job, std::vector<uint32_t> objects = {3}) {
  zelvar::ovita2::GetJobResponse response;
  for (uint32_t objectId : objects) {
    zelvar::ovita2::ObjectJob* entry = response.add_object_jobs();
    entry->set_object_id(objectId), *entry->mutable_job() = job;
  }
  JobContainer::Instance()->UpdateJobs(response);
}

std::string Sample(const _stats_info& sample) {
  return sample.name + " " + std::to_string(sample.object_id) + "/" + std::to_string(sample.stat_item) + " " +
         std::to_string(sample.value);
}

class PipelineFollowUp : public ovita2::testing::AgentTest {
 protected:
  // Starts `machine` and answers the one command it starts with `output`.
  uint32_t RunPass(zelvar::StateMachine* machine, const std::string& output) {
    size_t before = host_.LongActions().size();
    uint32_t id = host_.Start(machine);
    EXPECT_EQ(host_.LongActions().size(), before + 1);
    if (host_.LongActions().size() == before + 1) {
      host_.CompleteLongAction(host_.LongActions().back().flow_no, output, "", 0);
    }
    host_.RunPending();
    return id;
  }
  void RunFastPass(const std::string& output) {
    EXPECT_FALSE(host_.IsAlive(RunPass(ExecuteHpJobsCreateMySelf(), output)));
    host_.AdvanceClock(5);
  }
};

TEST_F(PipelineFollowUp, FastJobsRunHereAndTheirCounterReadingsBecomeTheIncreasePerPeriodInTenths) {
  Install(Job(60, 0));  // at the frequency: the regular executor's
  host_.Start(ExecuteHpJobsCreateMySelf());
  EXPECT_TRUE(host_.LongActions().empty());
  EXPECT_FALSE(ExecuteHpJobsMachine::m_bRunning);

  Install(Job(5, 0));
  RunFastPass("12.37\n");
  ASSERT_EQ(g_vecUpper.size(), 1u);
  EXPECT_EQ(Sample(g_vecUpper[0]), "rx 3/70 123");
  EXPECT_TRUE(g_vecStringUpper.empty() && g_vecSecondInfo.empty());

  struct Case {
    uint32_t period;
    std::string first, second, sent;  // the two readings, and the samples sent after the second
    _hp_second_info kept;  // the entry after the second reading
  } cases[] = {
      {10, "1000|500", "1010|800", "rx 3/70 3000", {800, 1010}},
      {10, "1000|500", "1003|510", "rx 3/70 333", {510, 1003}},  // truncated toward zero
      {5, "1000|500", "1010|800", "", {800, 1010}},              // two periods apart is too late
      {10, "1000|500", "1000|800", "", {800, 1000}},             // no time passed
      {10, "1000|800", "1005|100", "", {100, 1005}},             // the counter went back
      {10, "garbage", "1010|800", "", {800, 1010}},              // no usable last reading
      {10, "1000|500", "7\n", "", {-1, 0}},                      // no separator
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.first + " then " + c.second + ", period " + std::to_string(c.period));
    ovita2::testing::ResetAgentState();
    Install(Job(1, 1, c.period));
    RunFastPass(c.first);
    EXPECT_TRUE(g_vecUpper.empty()) << "a first reading only primes the counter";
    RunFastPass(c.second);
    std::string sent;
    for (const _stats_info& sample : g_vecUpper) sent += Sample(sample);
    EXPECT_EQ(sent, c.sent);
    const _hp_second_info& kept = g_mapHpSecondInfo[JobContainer::MakeJobKey(3, 7)];
    EXPECT_EQ(std::make_pair(kept.value, kept.time), std::make_pair(c.kept.value, c.kept.time));
  }
}

TEST_F(PipelineFollowUp, DueSecondPhasesRunTogetherLeaveTheQueueAndEndThePassWithTheLastAnswer) {
  const auto now = static_cast<uint32_t>(std::time(nullptr));
  auto record = [&](uint32_t at, const std::string& name) {
    return _second_info{4, at, 0, name, {std::to_string(at), "9", "x"}, Job(60, 1, 30)};
  };
  g_vecSecondInfo = {record(now - 100, "early"), record(now + 1000, "later"), record(now - 40, "due"),
                     record(now + 2000, "latest")};

  uint32_t id = host_.Start(SecondPhaseCreateMySelf());
  ASSERT_EQ(host_.LongActions().size(), 2u);
  EXPECT_EQ(host_.LongActions()[0].command + ", " + host_.LongActions()[1].command,
            "second " + std::to_string(now - 100) + " 9 x, second " + std::to_string(now - 40) + " 9 x");
  ASSERT_EQ(g_vecSecondInfo.size(), 2u);
  EXPECT_EQ(g_vecSecondInfo[0].name + ", " + g_vecSecondInfo[1].name, "later, latest");
  host_.Start(SecondPhaseCreateMySelf());
  EXPECT_EQ(host_.LongActions().size(), 2u) << "a second pass does not start while one runs";
  host_.CompleteLongAction(host_.LongActions()[0].flow_no, "4.56", "", 0);
  host_.CompleteLongAction(host_.LongActions()[1].flow_no, "", "no such file", 127);
  host_.RunPending();
  ASSERT_EQ(g_vecUpper.size(), 1u);
  EXPECT_EQ(Sample(g_vecUpper[0]) + " @" + std::to_string(g_vecUpper[0].time), "early 4/70 45 @" + std::to_string(now - 100));
  EXPECT_TRUE(host_.IsAlive(id)) << "a failed second command keeps the pass waiting";
  EXPECT_TRUE(host_.Logged("machine:SecondPhaseMachine(" + std::to_string(id) +
                           ")|state:Entry_WaitJobs|long action stderr: 127, no such file"));

  host_.AdvanceClock(SecondPhaseMachine::kMachineTimeoutSec);
  EXPECT_FALSE(host_.IsAlive(id));
  EXPECT_FALSE(SecondPhaseMachine::isRunning);
  EXPECT_EQ(g_vecSecondInfo.size(), 2u) << "the failed record is not queued again";

  EXPECT_FALSE(host_.IsAlive(host_.Start(SecondPhaseCreateMySelf()))) << "nothing is due";
  g_vecSecondInfo = {_second_info{0, 0, 0, "", {"1"}, Job(60, 1, 0)}};
  EXPECT_FALSE(host_.IsAlive(RunPass(SecondPhaseCreateMySelf(), "1"))) << "a pass ends with its last answer";
  EXPECT_FALSE(SecondPhaseMachine::isRunning);
}

TEST_F(PipelineFollowUp, HeartbeatReportsTheObjectCountAndSteersTheJobFetch) {
  host_.SetConfig("common", "agentname", "web-01");
  g_need_updatejobs = false;
  host_.Start(HeartBeatCreateMySelf());
  zelvar::ZMessage unsent;
  EXPECT_FALSE(host_.Peer("", 0).ReadFrame(&unsent)) << "no task queue known yet";
  EXPECT_FALSE(g_need_updatejobs);

  g_strTQIP = "10.0.0.5";
  g_iTQPort = 7300;
  auto beat = [&] {
    host_.Start(HeartBeatCreateMySelf());
    zelvar::ZMessage request;
    EXPECT_TRUE(host_.Peer("10.0.0.5", 7300).ReadFrame(&request));
    return request;
  };
  zelvar::ZMessage first = beat();
  const auto& body = first.body().GetExtension(zelvar::ovita2::agent_heart_beat_request);
  EXPECT_EQ(first.head().message_type(), 66015u);
  EXPECT_EQ(body.agent_name() + " " + body.version(), "web-01 1.0.13");
  EXPECT_TRUE(body.has_job_count() && body.has_flags() && body.job_count() == 0 && body.flags() == 0);
  EXPECT_TRUE(g_need_updatejobs) << "an agent without jobs asks for them";

  Install(Job(60, 0), {1, 2});
  zelvar::ZMessage second = beat();
  EXPECT_EQ(second.body().GetExtension(zelvar::ovita2::agent_heart_beat_request).job_count(), 2u);
  EXPECT_FALSE(g_need_updatejobs);
  EXPECT_EQ(second.head().ShortDebugString(), first.head().ShortDebugString()) << "the first beat's head is kept";
}

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
  EXPECT_FALSE(host_.IsAlive(host_.Start(RealTimeCollectCreateMySelf())) || RealTimeCollectMachine::m_rtRunning);
  uint32_t now, id;
  do {  // again until the table and the machine saw the same second; for 9 the clock went back
    RealTimeCollectMachine::m_rtRunning = false, now = static_cast<uint32_t>(std::time(nullptr));
    g_mapRealtimeConf = {{12, now - 300}, {3, now}, {5, now - 301}, {9, now + 60}};
  } while (id = host_.Start(RealTimeCollectCreateMySelf()), now != static_cast<uint32_t>(std::time(nullptr)));
  EXPECT_EQ(g_mapRealtimeConf, (Table{{3, now}, {12, now - 300}}));
  const size_t launched = host_.LongActions().size();
  ASSERT_GE(launched, 2u);
  const auto first = host_.LongActions()[launched - 2], last = host_.LongActions().back();
  EXPECT_EQ(first.command + " " + last.command,
            "~/ovita2/agent/plugin/real_time_task/3.sh ~/ovita2/agent/plugin/real_time_task/12.sh");
  EXPECT_FALSE(host_.IsAlive(host_.Start(RealTimeCollectCreateMySelf())));
  EXPECT_EQ(host_.LongActions().size(), launched) << "one cycle at a time";

  AddInstance("TELLAR2_ACCESS", "10.0.0.7", 7400);
  host_.CompleteLongAction(first.flow_no, "x\n", "no such file", 127);
  host_.RunPending();
  EXPECT_TRUE(host_.Logged("|state:Entry_WaitRealTimeJobs|long action stderr: 127, no such file"));
  EXPECT_EQ(host_.Peer("10.0.0.7", 7400).PendingBytes(), 0u) << "a failed script sends nothing";
  host_.CompleteLongAction(last.flow_no, "", "", 0), host_.RunPending();
  EXPECT_FALSE(host_.IsAlive(id) || RealTimeCollectMachine::m_rtRunning) << "the cycle ends with its last answer";

  id = host_.Start(RealTimeCollectCreateMySelf());
  host_.AdvanceClock(120);
  EXPECT_TRUE(!host_.IsAlive(id) && host_.Logged("|state:Entry_WaitRealTimeJobs|Timeout occurred, delete myself"));
  const size_t timedOut = host_.LongActions().size();
  host_.Start(RealTimeCollectCreateMySelf());
  EXPECT_GT(host_.LongActions().size(), timedOut) << "a timed-out cycle lets the next one start";
}

}  // namespace
