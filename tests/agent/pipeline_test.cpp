// What happens after a job's first answer: counter readings of fast jobs
// become rates, second-phase records are run when due, and the heartbeat
// reports the catalogue and steers the job fetch.
#include <google/protobuf/text_format.h>

#include <ctime>
#include <string>
#include <vector>

#include "agent_test.h"
#include "entry/ovita2_agent.h"
#include "jobs/job_container.h"
#include "liveness/heart_beat.h"
#include "naming/update_task_queue.h"
#include "pipeline/execute_hp_jobs.h"
#include "pipeline/second_phase.h"

zelvar::StateMachine* ExecuteHpJobsCreateMySelf();
zelvar::StateMachine* SecondPhaseCreateMySelf();
zelvar::StateMachine* HeartBeatCreateMySelf();

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
    uint32_t id = host_.Start(machine).id;
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

  uint32_t id = host_.Start(SecondPhaseCreateMySelf()).id;
  ASSERT_EQ(host_.LongActions().size(), 2u);
  EXPECT_EQ(host_.LongActions()[0].Param("command") + ", " + host_.LongActions()[1].Param("command"),
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

  EXPECT_FALSE(host_.IsAlive(host_.Start(SecondPhaseCreateMySelf()).id)) << "nothing is due";
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

}  // namespace
