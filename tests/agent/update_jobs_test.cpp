// Fetching the job list: when a run fetches, what it asks, and which answers
// replace the schedule.
#include "jobs/update_jobs.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "agent_state.h"
#include "zelvar/ovita2.pb.h"

zelvar::StateMachine* UpdateJobsCreateMySelf();

namespace {

using ovita2::testing::TestHost;
using ovita2::testing::TestPeer;

// Longer than the machine's own timeout, so a timeout at 120 s is the machine's.
constexpr unsigned kHostDefaultTimeout = 300;

class UpdateJobsTest : public ::testing::Test {
 protected:
  UpdateJobsTest() : host_(kHostDefaultTimeout) {
    ovita2::testing::ResetAgentState();
    host_.SetConfig("common", "agentname", "agent-7");
    g_strTQName = "tq-east";
    g_strTQIP = "10.2.0.5";
    g_iTQPort = 9200;
  }

  // Runs one machine; true when it sent a request (kept in *request).
  bool Run(zelvar::ZMessage* request = nullptr, uint32_t* id = nullptr) {
    uint32_t started = host_.Start(UpdateJobsCreateMySelf()).id;
    if (id != nullptr) *id = started;
    zelvar::ZMessage frame;
    bool sent = TaskQueue().ReadFrame(&frame);
    EXPECT_EQ(host_.IsAlive(started), sent) << "a machine waits exactly when it asked";
    if (request != nullptr) *request = frame;
    return sent;
  }

  static zelvar::ZMessage Reply(const zelvar::ZMessage& request, int code, int jobs) {
    zelvar::ZMessage reply = ovita2::testing::ReplyTo(request, 68001);
    auto* response = reply.mutable_body()->MutableExtension(zelvar::ovita2::get_job_response);
    response->mutable_rc()->set_code(code);
    response->mutable_rc()->set_msg("no such agent");
    for (int i = 0; i < jobs; ++i) {
      zelvar::ovita2::ObjectJob* objectJob = response->add_object_jobs();
      objectJob->set_object_id(100 + i);
      objectJob->mutable_job()->set_job_id(7);
      objectJob->mutable_job()->set_command("uptime");
    }
    return reply;
  }

  TestPeer& TaskQueue() { return host_.Peer("10.2.0.5", 9200); }
  size_t Objects() { return JobContainer::Instance()->GetObjectJobs().size(); }

  TestHost host_;
};

TEST_F(UpdateJobsTest, WithoutNeedAHundredRunsSkipAndTheNextOneFetches) {
  for (int run = 1; run <= 100; ++run) {
    ASSERT_FALSE(Run()) << "run " << run;
    ASSERT_EQ(UpdateJobsMachine::SlowCounter(), run);
  }
  EXPECT_TRUE(host_.LogLines().empty());
  zelvar::ZMessage request;
  uint32_t id = 0;
  ASSERT_TRUE(Run(&request, &id));
  EXPECT_EQ(UpdateJobsMachine::SlowCounter(), 0);
  EXPECT_EQ(request.head().message_type(), 68000u);
  EXPECT_EQ(request.head().src_machine_id(), id);
  EXPECT_EQ(request.body().GetExtension(zelvar::ovita2::get_job_request).agent_name(), "agent-7");
  EXPECT_FALSE(Run()) << "and the count starts again";
}

TEST_F(UpdateJobsTest, NeedFetchesAtOnceAndReducesTheCountInsteadOfResettingIt) {
  for (int run = 0; run < 37; ++run) Run();
  g_need_updatejobs = true;
  EXPECT_TRUE(Run());
  EXPECT_TRUE(Run());
  EXPECT_EQ(UpdateJobsMachine::SlowCounter(), 37);

  g_need_updatejobs = false;
  for (int run = 37; run < 100; ++run) Run();
  ASSERT_EQ(UpdateJobsMachine::SlowCounter(), 100);
  g_need_updatejobs = true;
  EXPECT_TRUE(Run());
  EXPECT_EQ(UpdateJobsMachine::SlowCounter(), 0);
}

TEST_F(UpdateJobsTest, UnknownTaskQueueSendsNothingAndSaysNothing) {
  g_need_updatejobs = true;
  g_strTQIP.clear();
  uint32_t id = host_.Start(UpdateJobsCreateMySelf()).id;
  EXPECT_FALSE(host_.IsAlive(id));
  EXPECT_TRUE(host_.OutboundPeers().empty());
  EXPECT_TRUE(host_.LogLines().empty());
}

TEST_F(UpdateJobsTest, OnlyASuccessfulNonEmptyAnswerReplacesTheSchedule) {
  g_need_updatejobs = true;
  zelvar::ZMessage request;
  uint32_t id = 0;
  Run(&request, &id);
  EXPECT_TRUE(ovita2::testing::SendAndRun(host_, TaskQueue(), Reply(request, 0, 3)));
  EXPECT_FALSE(host_.IsAlive(id));
  EXPECT_EQ(Objects(), 3u);

  Run(&request, &id);
  host_.ClearLog();
  EXPECT_TRUE(ovita2::testing::SendAndRun(host_, TaskQueue(), Reply(request, 2, 1)));
  EXPECT_EQ(Objects(), 3u) << "an error answer changes nothing, whatever it lists";
  std::string prefix = "machine:UpdateJobsMachine(" + std::to_string(id) + ")|state:Entry_WaitJobs|";
  EXPECT_EQ(host_.LogLinesAt(4), std::vector<std::string>{prefix + "query jobs failed, no such agent"});

  Run(&request, &id);
  host_.ClearLog();
  EXPECT_TRUE(ovita2::testing::SendAndRun(host_, TaskQueue(), Reply(request, 0, 0)));
  EXPECT_EQ(Objects(), 3u) << "an empty answer never wipes the schedule";
  prefix = "machine:UpdateJobsMachine(" + std::to_string(id) + ")|state:Entry_WaitJobs|";
  EXPECT_EQ(host_.LogLines().back(), prefix + "there is no jobs");
  EXPECT_EQ(host_.LogLinesAt(1).back(), prefix + "there is no jobs");

  Run(&request, &id);
  EXPECT_TRUE(ovita2::testing::SendAndRun(host_, TaskQueue(), Reply(request, 0, 1)));
  EXPECT_EQ(Objects(), 1u);
}

TEST_F(UpdateJobsTest, TaskQueueThatNeverAnswersTimesTheMachineOutAfterItsOwnTimeout) {
  g_need_updatejobs = true;
  uint32_t id = 0;
  Run(nullptr, &id);
  host_.AdvanceClock(UpdateJobsMachine::kMachineTimeoutSec - 1);
  EXPECT_TRUE(host_.IsAlive(id));
  host_.AdvanceClock(1);
  EXPECT_FALSE(host_.IsAlive(id));
  EXPECT_EQ(host_.LogLines().back(),
            "machine:UpdateJobsMachine(" + std::to_string(id) + ")|state:Entry_WaitJobs|Timeout occurred, delete myself");
}

}  // namespace
