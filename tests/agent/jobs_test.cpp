// The job pipeline: the catalogue, fetching it from the task queue, running
// due jobs into samples, and sending the samples upward.
#include <google/protobuf/text_format.h>

#include <limits>
#include <tuple>

#include "agent_test.h"
#include "entry/ovita2_agent.h"
#include "framework/host_api.h"
#include "jobs/execute_jobs_of_conf.h"
#include "jobs/job_conf_container.h"
#include "jobs/job_container.h"
#include "jobs/update_job_confs.h"
#include "jobs/update_jobs.h"
#include "naming/update_aggregation.h"
#include "naming/update_task_queue.h"
#include "pipeline/execute_jobs.h"
#include "pipeline/parse_second_args.h"
#include "pipeline/send_upper.h"
#include "pipeline/stats_queues.h"
#include "zelvar/tellar2.pb.h"

namespace ovita2::testing {
namespace {

using Jobs = AgentTest;

// Job `job` of `object`, run as "cmd<job>" into "key<job>", with `more` fields of the job.
void AddJob(zelvar::ovita2::GetJobResponse* list, uint32_t object, uint32_t job, uint32_t interval,
            const std::string& more = "") {
  std::string text = "object_id: " + std::to_string(object) + " job { job_id: " + std::to_string(job) +
                     " interval: " + std::to_string(interval) + " stat_key: 'key" + std::to_string(job) +
                     "' command: 'cmd" + std::to_string(job) + "' " + more + " }";
  EXPECT_TRUE(google::protobuf::TextFormat::ParseFromString(text, list->add_object_jobs())) << text;
}

TEST_F(Jobs, ARefreshKeepsTheLastRunOfJobsThatStay) {
  JobContainer* jobs = JobContainer::Instance();
  zelvar::ovita2::GetJobResponse list;
  AddJob(&list, 1, 1, 60);
  AddJob(&list, 1, 2, 60);
  jobs->UpdateJobs(list);
  jobs->GetObjectJobs()[1][JobContainer::MakeJobKey(1, 1)] = 500;
  list.mutable_object_jobs()->RemoveLast();
  AddJob(&list, 2, 1, 60);
  jobs->UpdateJobs(list);
  EXPECT_EQ(jobs->GetObjectJobs(), (JobContainer::ObjectJobs{{1, {{JobContainer::MakeJobKey(1, 1), 500}}},
                                                            {2, {{JobContainer::MakeJobKey(2, 1), 0}}}}));
  EXPECT_NE(jobs->GetJobDefine(JobContainer::MakeJobKey(1, 2)), nullptr) << "definitions are never pruned";
}

class UpdateJobs : public AgentTest {
 protected:
  // Runs one machine; true when it asked the task queue for the list.
  bool Run() {
    host_.Start(new UpdateJobsMachine());
    return host_.Peer("10.3.0.1", 9200).ReadFrame(&request_);
  }
  zelvar::ZMessage request_;
};

TEST_F(UpdateJobs, FetchesWhenAskedElseOnceInAHundredAndOneRunsAndOnlyAListWithJobsReplacesTheSchedule) {
  host_.SetConfig("common", "agentname", "agent-7");
  for (int run = 0; run < UpdateJobsMachine::kSkippedRuns; ++run) EXPECT_FALSE(Run());
  g_strTQIP = "10.3.0.1";
  g_iTQPort = 9200;
  EXPECT_TRUE(Run()) << "the skipped runs were counted while no task queue was known";
  EXPECT_FALSE(Run());
  g_need_updatejobs = true;
  EXPECT_TRUE(Run());
  EXPECT_EQ(request_.head().message_type(), UpdateJobsMachine::kRequestType);
  EXPECT_EQ(request_.body().GetExtension(zelvar::ovita2::get_job_request).agent_name(), "agent-7");

  // Only a list with jobs replaces the schedule; every reply is given back.
  const std::tuple<int, uint32_t, size_t> cases[] = {{0, 2, 2}, {5, 3, 2}, {0, 0, 2}, {0, 1, 1}};
  for (const auto& [code, jobs, objectsAfter] : cases) {
    ASSERT_TRUE(Run());
    zelvar::ZMessage reply;
    zelvar::MakeResponse(request_, 68001, &reply);
    auto* list = reply.mutable_body()->MutableExtension(zelvar::ovita2::get_job_response);
    list->mutable_rc()->set_code(code);
    for (uint32_t object = 1; object <= jobs; ++object) AddJob(list, object, 1, 60);
    host_.Peer("10.3.0.1", 9200).Send(reply);
    host_.RunPending();
    EXPECT_EQ(host_.Releases(host_.LastRouted()), 1) << code << "/" << jobs;
    EXPECT_EQ(JobContainer::Instance()->GetObjectJobs().size(), objectsAfter);
  }
}

// A reply listing `targets`, each with the parameter "<type>".
zelvar::ovita2::GetConfResponse Confs(uint32_t type, std::initializer_list<const char*> targets) {
  zelvar::ovita2::GetConfResponse response;
  for (const char* target : targets) {
    zelvar::ovita2::ConfObject* conf = response.add_confs();
    conf->set_target(target), conf->set_parameter(std::to_string(type));
  }
  return response;
}

TEST_F(Jobs, ARefreshOfAKnownCollectorTypeRebuildsTheTypeTableWithThatTypeAlone) {
  JobConfContainer* confs = JobConfContainer::Instance();
  using Table = JobConfContainer::TypeTargets;
  confs->UpdateJobConfs(1, Confs(1, {"sshd", "cron"}));
  confs->UpdateJobConfs(2, Confs(2, {"oom", "cron"}));
  EXPECT_EQ(confs->GetJobConfs(), (Table{{1, {{"cron", 0}, {"sshd", 0}}}, {2, {{"cron", 0}, {"oom", 0}}}}));
  EXPECT_EQ(confs->GetJobConfDefine("cron")->parameter(), "2") << "one configuration per target, the later wins";
  confs->GetJobConfs()[1]["sshd"] = 500;
  confs->GetJobConfs()[2]["oom"] = 600;
  confs->UpdateJobConfs(1, Confs(1, {"sshd", "nginx"}));
  EXPECT_EQ(confs->GetJobConfs(), (Table{{1, {{"nginx", 0}, {"sshd", 500}}}}));
  confs->UpdateJobConfs(2, Confs(2, {"oom"}));
  EXPECT_EQ(confs->GetJobConfs(), (Table{{1, {{"nginx", 0}, {"sshd", 500}}}, {2, {{"oom", 0}}}}))
      << "a type met again after the rebuild is new: it is only added";
  EXPECT_NE(confs->GetJobConfDefine("cron"), nullptr) << "configurations are never pruned";
  EXPECT_EQ(confs->GetJobConfDefine("absent"), nullptr);
}

TEST_F(Jobs, AConfigurationPassAsksTypeAfterTypeUntilAnEmptyListThenIdlesAHundredRuns) {
  host_.SetConfig("common", "agentname", "agent-7");
  g_strTQIP = "10.3.0.1";
  g_iTQPort = 9200;
  // The type each run asks for (0: nothing sent) and how the task queue answers it.
  enum Answer { kConfs, kNone, kError };
  const std::pair<uint32_t, Answer> runs[] = {{1, kConfs}, {2, kError}, {2, kConfs}, {3, kNone}};
  for (const auto& [type, answer] : runs) {
    host_.Start(new UpdateJobConfsMachine());
    zelvar::ZMessage request, reply;
    ASSERT_TRUE(host_.Peer("10.3.0.1", 9200).ReadFrame(&request)) << type;
    const auto& asked = request.body().GetExtension(zelvar::ovita2::get_conf_request);
    EXPECT_EQ(asked.conf_type(), type);
    EXPECT_EQ(asked.agent_name() + std::to_string(request.head().message_type()), "agent-768010");
    zelvar::MakeResponse(request, 68011, &reply);
    auto* response = reply.mutable_body()->MutableExtension(zelvar::ovita2::get_conf_response);
    if (answer == kConfs) *response = Confs(type, {"t"});
    if (answer == kError) response->mutable_rc()->set_code(7);
    host_.Peer("10.3.0.1", 9200).Send(reply);
    host_.RunPending();
    EXPECT_EQ(host_.Releases(host_.LastRouted()), 1);
  }
  EXPECT_EQ(JobConfContainer::Instance()->GetJobConfs().size(), 2u);
  EXPECT_TRUE(host_.Logged("|query job_confs failed, "));
  zelvar::ZMessage request;
  for (int run = 0; run < UpdateJobConfsMachine::kIdleRuns; ++run) {
    host_.Start(new UpdateJobConfsMachine());
    ASSERT_FALSE(host_.Peer("10.3.0.1", 9200).ReadFrame(&request)) << run;
  }
  host_.Start(new UpdateJobConfsMachine());
  ASSERT_TRUE(host_.Peer("10.3.0.1", 9200).ReadFrame(&request));
  EXPECT_EQ(request.body().GetExtension(zelvar::ovita2::get_conf_request).conf_type(), 1u);
}

TEST_F(Jobs, ConfiguredCollectorsReportWhatTheyFindAsTextSamplesOfTheAgentAtMostEveryThirtySeconds) {
  host_.SetConfig("common", "agentname", "agent-7");
  host_.SetLogLevel(1);
  JobConfContainer* confs = JobConfContainer::Instance();
  confs->UpdateJobConfs(1, Confs(1, {"no-such-process-anywhere", "agent_unit_test"}));  // parameter 1: case-sensitive
  confs->UpdateJobConfs(3, Confs(3, {"unknown-kind"}));
  confs->GetJobConfs()[1]["never-configured"] = 0;
  auto runAt = [&](int64_t seconds) { host_.AdvanceClock(seconds), host_.Start(new ExecuteJobsOfConfMachine()); };
  runAt(0);
  ASSERT_EQ(g_vecStringUpper.size(), 1u) << "a process that runs is not reported";
  const string_stats_info_st& sample = g_vecStringUpper[0];
  EXPECT_EQ(sample.name + "/" + std::to_string(sample.job_id) + "/" + sample.value,
            "agent-7/1/no-such-process-anywhere:-1");
  EXPECT_EQ(sample.time, static_cast<uint64_t>(ovita2::HostNow()));
  EXPECT_TRUE(host_.Logged("|product is NULL,type:3"));
  EXPECT_TRUE(host_.Logged("|product operation value: |type: 1;"));
  EXPECT_FALSE(host_.Logged("never-configured"));
  runAt(29);
  EXPECT_EQ(g_vecStringUpper.size(), 1u);
  ExecuteJobsOfConfMachine::m_bRunning = true;
  runAt(1);
  EXPECT_EQ(g_vecStringUpper.size(), 1u) << "a pass under way lets no other start";
  ExecuteJobsOfConfMachine::m_bRunning = false;
  runAt(0);
  EXPECT_EQ(g_vecStringUpper.size(), 2u);
}

TEST(SecondPhaseArgs, EveryPieceBetweenBarsIsAToken) {
  const std::pair<const char*, std::vector<std::string>> cases[] = {
      {"5|7", {"5", "7"}}, {"5|7|", {"5", "7", ""}}, {"x\n", {"x\n"}}, {"", {""}}, {"||", {"", "", ""}}};
  for (const auto& c : cases) EXPECT_EQ(ParseSecondArgs(c.first), c.second) << c.first;
}

class ExecuteJobs : public AgentTest {
 protected:
  uint32_t Run() { return host_.Start(new ExecuteJobsMachine()); }
  void Complete(const std::string& command, const std::string& output, int64_t status = 0) {
    for (const CapturedLongAction& action : host_.LongActions()) {
      if (!action.completed && action.command.find(command) == 0) {
        host_.CompleteLongAction(action.flow_no, output, "", status);
        host_.RunPending();
        return;
      }
    }
    ADD_FAILURE() << "no running " << command;
  }
};

TEST_F(ExecuteJobs, APassRunsTheDueJobsObjectByObjectIntoTheirSamples) {
  zelvar::ovita2::GetJobResponse list;
  AddJob(&list, 1, 1, 60, "command_args: '-x'");
  AddJob(&list, 1, 2, 59);  // below the high-precision frequency: not ours
  AddJob(&list, 2, 3, 60, "string_value: 1");
  AddJob(&list, 2, 4, 60, "second_phase: 1");
  AddJob(&list, 2, 5, 60);
  JobContainer::Instance()->UpdateJobs(list);
  uint32_t pass = Run();
  ASSERT_EQ(host_.LongActions().size(), 1u) << "one object at a time";
  EXPECT_EQ(host_.LongActions()[0].command, "cmd1 -x");
  EXPECT_FALSE(host_.IsAlive(Run())) << "one pass at a time";
  Complete("cmd1", "12.37");
  ASSERT_EQ(host_.LongActions().size(), 4u);
  Complete("cmd3", "text\n");
  Complete("cmd5", "boom", 1);
  EXPECT_TRUE(host_.IsAlive(pass));
  Complete("cmd4", "5|7|x");
  EXPECT_FALSE(host_.IsAlive(pass));
  ASSERT_EQ(g_vecUpper.size() + g_vecStringUpper.size() + g_vecSecondInfo.size(), 3u);
  EXPECT_EQ(g_vecUpper.at(0).value * 10 + g_vecUpper.at(0).object_id, 1231);
  EXPECT_EQ(g_vecStringUpper.at(0).value, "text\n");
  EXPECT_EQ(g_vecSecondInfo.at(0).first_arg + g_vecSecondInfo.at(0).second_arg * 100, 705u);
  Run();
  EXPECT_EQ(host_.LongActions().size(), 4u) << "a job waits its interval, failed or not";
  host_.AdvanceClock(60);
  pass = Run();
  EXPECT_EQ(host_.LongActions().size(), 5u);
  host_.AdvanceClock(120);
  EXPECT_FALSE(host_.IsAlive(pass));
  EXPECT_TRUE(host_.IsAlive(Run())) << "a pass that timed out lets the next one start";
}

TEST_F(ExecuteJobs, NumericOutputIsKeptInTenthsWithinTheInt64Range) {
  const std::pair<const char*, int64_t> cases[] = {{"12.37", 123}, {"-0.05", 0}, {"abc", 0}, {"nan", 0},
                                                   {"1e30", std::numeric_limits<int64_t>::max()},
                                                   {"-1e30", std::numeric_limits<int64_t>::min()}};
  zelvar::ovita2::GetJobResponse list;
  for (uint32_t job = 0; job < 6; ++job) AddJob(&list, 1, job, 60);
  JobContainer::Instance()->UpdateJobs(list);
  Run();
  for (uint32_t job = 0; job < 6; ++job) Complete("cmd" + std::to_string(job), cases[job].first);
  ASSERT_EQ(g_vecUpper.size(), 6u);
  for (uint32_t job = 0; job < 6; ++job) EXPECT_EQ(g_vecUpper[job].value, cases[job].second) << cases[job].first;
}

TEST_F(Jobs, SenderEmptiesBothQueuesIntoOneRequestEachHoweverLarge) {
  g_strAggrIP = "10.4.0.1";
  g_iAggrPort = 9400;
  g_vecUpper = {_stats_info{"a", 1, 2, 30, 0}, _stats_info{"b", 3, 4, -5, 0}};
  g_vecUpper.resize(10000, _stats_info{std::string(60, 'k'), 5, 6, 7, 0});  // many output blocks
  g_vecStringUpper = {string_stats_info_st{"c", 9, "up\n", 1700000000}};
  host_.Start(new SendUpperMachine());
  EXPECT_TRUE(g_vecUpper.empty() && g_vecStringUpper.empty());
  zelvar::ZMessage numbers, texts;
  ASSERT_TRUE(host_.Peer("10.4.0.1", 9400).ReadFrame(&numbers) && host_.Peer("10.4.0.1", 9400).ReadFrame(&texts));
  EXPECT_EQ(numbers.head().message_type() * 100000 + texts.head().message_type(), 61030u * 100000 + 61032u);
  const auto& stats = numbers.body().GetExtension(zelvar::tellar2::record_stats_request).stats();
  const auto& lines = texts.body().GetExtension(zelvar::tellar2::record_string_stats_request).stats();
  ASSERT_EQ(stats.size() * 10 + lines.size(), 100001);
  EXPECT_EQ(stats[1].ShortDebugString(), "name: \"b\" object_id: 3 stat_item: 4 value: -5");
  EXPECT_EQ(lines[0].ShortDebugString(), "name: \"c\" job_id: 9 value: \"up\\n\" time: 1700000000");
}

}  // namespace
}  // namespace ovita2::testing
