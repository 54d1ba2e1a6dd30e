// Running the jobs: which jobs are due, how objects follow one another, what
// each kind of output becomes, and how failures and strays are handled.
#include "pipeline/execute_jobs.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "agent_state.h"
#include "pipeline/parse_second_args.h"

zelvar::StateMachine* ExecuteJobsCreateMySelf();

namespace {

using ovita2::testing::CapturedLongAction;
using ovita2::testing::TestHost;

struct JobSpec {
  uint32_t object_id;
  uint32_t job_id;
  uint32_t interval;
  std::string command;
  uint32_t second_phase = 0;
  uint32_t string_value = 0;
  const char* args = nullptr;
};

class ExecuteJobsTest : public ::testing::Test {
 protected:
  ExecuteJobsTest() { ovita2::testing::ResetAgentState(); }

  void Install(const std::vector<JobSpec>& specs) {
    zelvar::ovita2::GetJobResponse response;
    for (const JobSpec& spec : specs) {
      zelvar::ovita2::ObjectJob* objectJob = response.add_object_jobs();
      objectJob->set_object_id(spec.object_id);
      zelvar::ovita2::JobDescription* job = objectJob->mutable_job();
      job->set_job_id(spec.job_id);
      job->set_stat_item(spec.job_id * 10);
      job->set_interval(spec.interval);
      job->set_command(spec.command);
      job->set_stat_key("key." + spec.command);
      job->set_second_phase(spec.second_phase);
      job->set_string_value(spec.string_value);
      if (spec.args != nullptr) job->set_command_args(spec.args);
    }
    JobContainer::Instance()->UpdateJobs(response);
  }

  uint32_t& LastRun(uint32_t objectId, uint32_t jobId) {
    return JobContainer::Instance()->GetObjectJobs()[objectId][JobContainer::MakeJobKey(objectId, jobId)];
  }

  uint32_t Start() { return id_ = host_.Start(ExecuteJobsCreateMySelf()).id; }

  // The commands handed to the host from the n-th action on.
  std::vector<std::string> Commands(size_t from = 0) const {
    std::vector<std::string> commands;
    for (size_t i = from; i < host_.LongActions().size(); ++i) {
      commands.push_back(host_.LongActions()[i].Param("command"));
    }
    return commands;
  }

  const CapturedLongAction& Action(size_t i) const { return host_.LongActions().at(i); }

  void Complete(size_t i, const std::string& output) {
    host_.CompleteLongAction(Action(i).flow_no, output, "", 0);
    host_.RunPending();
  }

  std::string Prefix(const char* state) const {
    return "machine:ExecuteJobsMachine(" + std::to_string(id_) + ")|state:" + state + "|";
  }

  TestHost host_;
  uint32_t id_ = 0;
};

TEST_F(ExecuteJobsTest, RunsTheDueJobsOfNormalPrecisionAsShellCommands) {
  Install({{1, 1, 60, "at-frequency"}, {1, 2, 59, "high-precision"}, {1, 3, 300, "due-now"},
           {1, 4, 300, "not-yet"}, {1, 5, 120, "never-run", 0, 0, "-x 'a b'"}, {1, 6, 60, "empty-args", 0, 0, ""}});
  const int64_t now = host_.Now();
  LastRun(1, 3) = static_cast<uint32_t>(now - 300);
  LastRun(1, 4) = static_cast<uint32_t>(now - 299);

  Start();
  EXPECT_TRUE(host_.IsAlive(id_));
  EXPECT_TRUE(ExecuteJobsMachine::m_bRunning);
  EXPECT_EQ(Commands(), (std::vector<std::string>{"at-frequency", "due-now", "never-run -x 'a b'", "empty-args "}));
  for (const CapturedLongAction& action : host_.LongActions()) {
    EXPECT_EQ(action.name, "ExecuteShell2");
    EXPECT_EQ(action.params.size(), 1u);
    EXPECT_EQ(action.machine_id, id_);
  }
  EXPECT_EQ(LastRun(1, 1), now);
  EXPECT_EQ(LastRun(1, 2), 0u);
  EXPECT_EQ(LastRun(1, 3), now);
  EXPECT_EQ(LastRun(1, 4), now - 299);
  EXPECT_EQ(LastRun(1, 5), now);
  EXPECT_EQ(host_.LogLinesAt(1), (std::vector<std::string>{Prefix("Entry_Init") + "shell cmd is at-frequency",
                                                           Prefix("Entry_Init") + "shell cmd is due-now",
                                                           Prefix("Entry_Init") + "shell cmd is never-run -x 'a b'",
                                                           Prefix("Entry_Init") + "shell cmd is empty-args "}));
}

TEST_F(ExecuteJobsTest, ObjectsRunOneAfterAnotherAndTheLastAnswerStartsTheNext) {
  Install({{1, 1, 60, "idle"}, {2, 1, 60, "a"}, {2, 2, 60, "b"}, {3, 1, 60, "idle-too"}, {4, 1, 60, "c"}});
  LastRun(1, 1) = LastRun(3, 1) = static_cast<uint32_t>(host_.Now());

  Start();
  EXPECT_EQ(Commands(), (std::vector<std::string>{"a", "b"})) << "an object with nothing due costs no wait";
  Complete(1, "1");
  EXPECT_EQ(Commands().size(), 2u) << "object 4 waits for every answer of object 2";
  Complete(0, "2");
  EXPECT_EQ(Commands(2), std::vector<std::string>{"c"});
  EXPECT_TRUE(host_.IsAlive(id_));
  Complete(2, "3");
  EXPECT_FALSE(host_.IsAlive(id_));
  EXPECT_FALSE(ExecuteJobsMachine::m_bRunning);
  ASSERT_EQ(g_vecUpper.size(), 3u);
  EXPECT_EQ(g_vecUpper[0].object_id, 2u);
  EXPECT_EQ(g_vecUpper[0].name, "key.b");
  EXPECT_EQ(g_vecUpper[2].object_id, 4u);
}

TEST_F(ExecuteJobsTest, PassWithNothingDueEndsAtOnce) {
  Start();
  EXPECT_FALSE(host_.IsAlive(id_)) << "empty catalogue";
  Install({{1, 1, 60, "a"}, {2, 1, 30, "fast"}});
  LastRun(1, 1) = static_cast<uint32_t>(host_.Now());
  Start();
  EXPECT_FALSE(host_.IsAlive(id_));
  EXPECT_FALSE(ExecuteJobsMachine::m_bRunning);
  EXPECT_TRUE(host_.LongActions().empty());
}

TEST_F(ExecuteJobsTest, ObjectZeroIsVisitedOnceLikeAnyOther) {
  Install({{0, 1, 60, "zero"}, {5, 1, 60, "five"}});
  Start();
  EXPECT_EQ(Commands(), std::vector<std::string>{"zero"});
  Complete(0, "1");
  EXPECT_EQ(Commands(1), std::vector<std::string>{"five"});
  Complete(1, "1");
  EXPECT_FALSE(host_.IsAlive(id_));

  host_.AdvanceClock(60);
  LastRun(5, 1) = static_cast<uint32_t>(host_.Now());
  Start();
  EXPECT_EQ(Commands(2), std::vector<std::string>{"zero"});
  Complete(2, "1");
  EXPECT_FALSE(host_.IsAlive(id_)) << "nothing due after object 0 ends the pass instead of going round";
}

TEST_F(ExecuteJobsTest, OnlyOnePassRunsAndATimeoutGivesItUp) {
  Install({{1, 1, 60, "slow"}, {2, 1, 60, "next"}});
  uint32_t first = Start();
  uint32_t second = host_.Start(ExecuteJobsCreateMySelf()).id;
  EXPECT_FALSE(host_.IsAlive(second));
  EXPECT_TRUE(host_.IsAlive(first));
  EXPECT_EQ(Commands(), std::vector<std::string>{"slow"});

  host_.AdvanceClock(TestHost::kDefaultMachineTimeout);
  EXPECT_FALSE(host_.IsAlive(first));
  EXPECT_FALSE(ExecuteJobsMachine::m_bRunning);
  EXPECT_EQ(host_.LogLines().back(), Prefix("Entry_WaitJobs") + "Timeout occurred, delete myself");

  Start();
  EXPECT_EQ(Commands(1), (std::vector<std::string>{"slow"})) << "a fresh pass starts at the first object";
}

TEST_F(ExecuteJobsTest, NumericOutputIsKeptInTenths) {
  Install({{8, 1, 60, "load"}, {8, 2, 60, "neg"}, {8, 3, 60, "word"}, {8, 4, 60, "unit"}, {8, 5, 60, "big"},
           {8, 6, 60, "inf"}, {8, 7, 60, "nan"}});
  const int64_t start = host_.Now();
  Start();
  host_.AdvanceClock(3);
  const char* outputs[] = {"12.37\n", "-0.05", "n/a", "  7.5 MB", "-1e30", "inf", "nan"};
  for (size_t i = 0; i < 7; ++i) Complete(i, outputs[i]);
  ASSERT_EQ(g_vecUpper.size(), 7u);
  std::vector<int64_t> values;
  for (const _stats_info& sample : g_vecUpper) values.push_back(sample.value);
  EXPECT_EQ(values, (std::vector<int64_t>{123, 0, 0, 75, std::numeric_limits<int64_t>::min(),
                                          std::numeric_limits<int64_t>::max(), 0}));
  EXPECT_EQ(g_vecUpper[0].name, "key.load");
  EXPECT_EQ(g_vecUpper[0].object_id, 8u);
  EXPECT_EQ(g_vecUpper[0].stat_item, 10u);
  EXPECT_EQ(g_vecUpper[0].time, static_cast<uint32_t>(start)) << "the start, not the answer";
  EXPECT_TRUE(g_vecStringUpper.empty());
  EXPECT_TRUE(g_vecSecondInfo.empty());
}

TEST_F(ExecuteJobsTest, SecondPhaseOutputBecomesArgumentsAndTextOutputIsKeptWhole) {
  Install({{3, 1, 60, "pair", 1, 0}, {3, 2, 60, "single", 1, 1}, {3, 3, 60, "uptime", 0, 1}});
  Start();
  host_.AdvanceClock(4);
  Complete(0, "3|4|x");
  Complete(1, "17\n");
  Complete(2, "up 3 days\n");

  ASSERT_EQ(g_vecSecondInfo.size(), 2u) << "the second-phase flag wins over the string flag";
  const _second_info& pair = g_vecSecondInfo[0];
  EXPECT_EQ(pair.object_id, 3u);
  EXPECT_EQ(pair.first_arg, 3u);
  EXPECT_EQ(pair.second_arg, 4u);
  EXPECT_EQ(pair.args, (std::vector<std::string>{"3", "4", "x"}));
  EXPECT_EQ(pair.name, "key.pair");
  EXPECT_EQ(pair.job.command(), "pair");
  EXPECT_EQ(pair.job.job_id(), 1u);
  const _second_info& single = g_vecSecondInfo[1];
  EXPECT_EQ(single.first_arg, 17u);
  EXPECT_EQ(single.second_arg, 0u) << "a missing token reads as 0";
  EXPECT_EQ(single.args, std::vector<std::string>{"17\n"});

  ASSERT_EQ(g_vecStringUpper.size(), 1u);
  EXPECT_EQ(g_vecStringUpper[0].name, "key.uptime");
  EXPECT_EQ(g_vecStringUpper[0].job_id, 3u);
  EXPECT_EQ(g_vecStringUpper[0].value, "up 3 days\n");
  EXPECT_EQ(g_vecStringUpper[0].time, static_cast<uint64_t>(host_.Now())) << "the answer's time";
  EXPECT_TRUE(g_vecUpper.empty());
}

TEST_F(ExecuteJobsTest, FailedCommandIsLoggedAndMakesNoSample) {
  Install({{1, 1, 60, "broken"}, {1, 2, 60, "fine"}, {2, 1, 60, "later"}});
  Start();
  host_.ClearLog();
  host_.CompleteLongAction(Action(0).flow_no, "partial 5", "sh: broken: not found", 127);
  host_.RunPending();
  EXPECT_EQ(host_.LogLines(),
            std::vector<std::string>{Prefix("Entry_WaitJobs") + "long action stderr: 127, sh: broken: not found"});
  host_.CompleteLongAction(Action(1).flow_no, "", "timed out", zelvar::LongActionResult::kStatusTimedOut);
  host_.RunPending();
  std::vector<std::string> lines = host_.LogLinesAt(4);
  EXPECT_EQ(lines.back(), Prefix("Entry_WaitJobs") + "long action stderr: -2, timed out");
  EXPECT_TRUE(g_vecUpper.empty());
  EXPECT_EQ(Commands(2), std::vector<std::string>{"later"}) << "failures still finish the wait";
  EXPECT_EQ(LastRun(1, 1), host_.Now()) << "a failed job waits for its next interval";
}

TEST_F(ExecuteJobsTest, StrayOrRepeatedAnswerIsLoggedAndNeitherEndsNorAdvancesTheWait) {
  Install({{1, 1, 60, "a"}, {1, 2, 60, "b"}, {2, 1, 60, "next"}});
  Start();
  const uint32_t flowA = Action(0).flow_no;
  const uint32_t stray = Action(1).flow_no + 1000;
  host_.ClearLog();
  ovita2::testing::DeliverCompletion(host_, id_, stray, "9");
  EXPECT_EQ(host_.LogLines(),
            std::vector<std::string>{Prefix("Entry_WaitJobs") + "can't find the flowno:" + std::to_string(stray)});
  EXPECT_TRUE(host_.IsAlive(id_));

  Complete(0, "1");
  ovita2::testing::DeliverCompletion(host_, id_, flowA, "2");
  EXPECT_EQ(host_.LogLines().back(), Prefix("Entry_WaitJobs") + "can't find the flowno:" + std::to_string(flowA));
  ASSERT_EQ(g_vecUpper.size(), 1u);
  EXPECT_EQ(g_vecUpper[0].value, 10) << "the first answer is the one used";
  EXPECT_EQ(Commands().size(), 2u);

  ovita2::testing::DeliverCompletion(host_, id_, stray, "", 1, "boom");
  EXPECT_TRUE(host_.IsAlive(id_)) << "an unknown failed answer does not end the wait either";
  EXPECT_EQ(Commands().size(), 2u);
  Complete(1, "2");
  EXPECT_EQ(Commands(2), std::vector<std::string>{"next"});
}

TEST_F(ExecuteJobsTest, AnswerOfAJobThatLeftTheCatalogueIsDropped) {
  Install({{1, 1, 60, "a"}, {2, 1, 60, "b"}});
  Start();
  JobContainer::Instance()->Reset();
  Complete(0, "5");
  EXPECT_TRUE(g_vecUpper.empty());
  EXPECT_FALSE(host_.IsAlive(id_)) << "object 2 is gone with the catalogue";
  EXPECT_FALSE(ExecuteJobsMachine::m_bRunning);
}

TEST(ParseSecondArgs, EveryPieceIsATokenAndNothingIsTrimmed) {
  using Tokens = std::vector<std::string>;
  EXPECT_EQ(ParseSecondArgs("5|7"), (Tokens{"5", "7"}));
  EXPECT_EQ(ParseSecondArgs("5|7|"), (Tokens{"5", "7", ""}));
  EXPECT_EQ(ParseSecondArgs("|"), (Tokens{"", ""}));
  EXPECT_EQ(ParseSecondArgs(""), (Tokens{""}));
  EXPECT_EQ(ParseSecondArgs("a||b"), (Tokens{"a", "", "b"}));
  EXPECT_EQ(ParseSecondArgs(" 5 | 7\n"), (Tokens{" 5 ", " 7\n"}));
  EXPECT_EQ(ParseSecondArgs("whole text"), (Tokens{"whole text"}));
}

}  // namespace
