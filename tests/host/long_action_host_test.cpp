// Long actions run by the in-process host: records, limits, the queue, and
// what the children may see. These tests start many processes; ctest runs
// them under a resource lock so they do not overlap.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <map>
#include <set>

#include "test_support.h"
#include "zelvar/long_action.h"
#include "zelvar/message.pb.h"

namespace {

using host_test::ProbeHost;

class HostLongActions : public ::testing::Test {
 protected:
  void Start(const std::string& limits) {
    fixture_ = std::make_unique<ProbeHost>("[long_action]\n" + limits);
    ASSERT_TRUE(fixture_->ok()) << fixture_->error();
    machine_ = fixture_->Slot<zelvar::CreateMachineForMessageFn>(zelvar::kSlotCreateMachineForMessage)(
        probe::kProbeMachineType);
    id_ = machine_->GetMachineId();
    auto* adopt = new zelvar::ZMessage();
    adopt->mutable_head()->set_session("adopt");
    fixture_->Slot<zelvar::PostToMachineFn>(zelvar::kSlotPostToMachine)(adopt, machine_, id_);
    ASSERT_TRUE(fixture_->RunUntil([&] { return fixture_->probe().seen.size() == 1; }));
    fixture_->probe().seen.clear();
  }

  void Run(const std::string& command, uint32_t flow, const std::string& name = zelvar::ExecuteShell2::kName) {
    zelvar::ExecuteShell2 action(name);
    action.Param(zelvar::ExecuteShell2::kCommandParam, command);
    ASSERT_EQ(fixture_->Slot<zelvar::StartLongActionFn>(zelvar::kSlotStartLongAction)(&action, id_, flow), 0);
  }

  // The records by flow number, once `count` arrived.
  std::map<uint32_t, probe::Seen> Await(size_t count) {
    auto& seen = fixture_->probe().seen;
    EXPECT_TRUE(fixture_->RunUntil([&] { return seen.size() >= count; }));
    std::map<uint32_t, probe::Seen> byFlow;
    for (const probe::Seen& record : seen) {
      EXPECT_EQ(record.event_type, zelvar::kEventLongAction);
      byFlow[record.flow_no] = record;
    }
    EXPECT_EQ(byFlow.size(), count);
    return byFlow;
  }

  std::unique_ptr<ProbeHost> fixture_;
  zelvar::StateMachine* machine_ = nullptr;
  uint32_t id_ = 0;
};

TEST_F(HostLongActions, RecordsCarryOutputStatusAndTheHostsWords) {
  Start("time_limit = 30\n");
  Run("echo out; echo err >&2", 1);
  Run("echo partial; exit 3", 2);
  Run("echo why >&2; exit 4", 3);
  Run("kill -9 $$", 4);
  Run("echo never", 5, "NoSuchAction");
  Run("ls /proc/$$/fd", 6);
  auto records = Await(6);
  EXPECT_EQ(records[1].status, 0);
  EXPECT_EQ(records[1].output, "out\n");
  EXPECT_EQ(records[1].error, "err\n");
  EXPECT_EQ(records[2].status, 3);
  EXPECT_EQ(records[2].output, "partial\n");
  EXPECT_EQ(records[2].error, "exit status 3");
  EXPECT_EQ(records[3].status, 4);
  EXPECT_EQ(records[3].error, "why\n");
  EXPECT_EQ(records[4].status, 128 + 9);
  EXPECT_EQ(records[4].error, "killed by signal 9 (SIGKILL)");
  EXPECT_EQ(records[5].status, zelvar::LongActionResult::kStatusUnknownAction);
  EXPECT_NE(records[5].error.find("NoSuchAction"), std::string::npos);
  EXPECT_EQ(records[6].output, "0\n1\n2\n") << "the child sees only its standard descriptors";
  // The record went to the machine in the state it waited in.
  for (auto& entry : records) EXPECT_EQ(entry.second.machine_id, id_);
}

TEST_F(HostLongActions, TimeLimitKillsTheWholeGroupAndOutputIsCapped) {
  Start("time_limit = 1\noutput_limit = 1000\n");
  Run("sleep 60 & echo $!; wait", 1);
  Run("head -c 100000 /dev/zero; sleep 60", 2);
  auto records = Await(2);
  EXPECT_EQ(records[1].status, zelvar::LongActionResult::kStatusTimedOut);
  EXPECT_EQ(records[1].error, "time limit of 1 s reached, process group killed");
  pid_t background = static_cast<pid_t>(std::stol(records[1].output));
  // SIGKILL is sent to the whole group at once, but a member may take a moment
  // to die after the shell was reaped.
  std::string stat;
  auto gone = [&] {
    stat = host_test::ReadFile("/proc/" + std::to_string(background) + "/stat");
    size_t close = stat.rfind(')');
    return stat.empty() || (close != std::string::npos && stat[close + 2] == 'Z');
  };
  EXPECT_TRUE(fixture_->RunUntil(gone)) << "the background job of the command was killed too: " << stat;

  EXPECT_EQ(records[2].status, zelvar::LongActionResult::kStatusOutputCut);
  EXPECT_EQ(records[2].output, std::string(1000, '\0'));
  EXPECT_EQ(records[2].error, "output passed the limit of 1000 bytes, process group killed");
  EXPECT_EQ(host_test::CountZombieChildren(), 0);
}

TEST_F(HostLongActions, ChildrenOverTheCapWaitInOrder) {
  Start("max_children = 2\n");
  for (uint32_t flow = 1; flow <= 6; ++flow) Run("echo " + std::to_string(flow), flow);
  EXPECT_EQ(fixture_->host().LongActions().Running(), 2u);
  EXPECT_EQ(fixture_->host().LongActions().Queued(), 4u);
  auto records = Await(6);
  for (uint32_t flow = 1; flow <= 6; ++flow) EXPECT_EQ(records[flow].output, std::to_string(flow) + "\n");
  EXPECT_EQ(fixture_->host().LongActions().PeakRunning(), 2u);
}

TEST_F(HostLongActions, AThousandConcurrentSleepsAllAnswerAndLeaveNothingBehind) {
  int descriptorsBefore = host_test::CountOpenDescriptors();
  Start("max_children = 1024\ntime_limit = 120\n");
  int descriptorsStarted = host_test::CountOpenDescriptors();
  for (uint32_t flow = 1; flow <= 1000; ++flow) Run("sleep 1; echo " + std::to_string(flow), flow);
  EXPECT_EQ(fixture_->host().LongActions().Queued(), 0u) << "none waits behind a small pool";
  auto records = Await(1000);
  for (uint32_t flow = 1; flow <= 1000; ++flow) {
    ASSERT_EQ(records[flow].status, 0) << flow << ": " << records[flow].error;
    ASSERT_EQ(records[flow].output, std::to_string(flow) + "\n");
  }
  EXPECT_EQ(fixture_->host().LongActions().Running(), 0u);
  EXPECT_EQ(host_test::CountZombieChildren(), 0);
  EXPECT_EQ(host_test::CountOpenDescriptors(), descriptorsStarted);
  fixture_.reset();
  EXPECT_EQ(host_test::CountOpenDescriptors(), descriptorsBefore);
}

TEST_F(HostLongActions, ShutdownKillsWhatStillRuns) {
  Start("time_limit = 0\n");
  Run("sleep 60", 1);
  Run("sleep 60", 2);
  ASSERT_EQ(fixture_->host().LongActions().Running(), 2u);
  fixture_->host().Shutdown();
  EXPECT_TRUE(fixture_->probe().seen.empty()) << "no record after shutdown";
  EXPECT_EQ(host_test::CountZombieChildren(), 0);
}

}  // namespace
