// The main pipeline for real: zelvar-host's loop in this process with the
// embedded registry and the agent, fake services on loopback, commands run by
// the host's executor. The clock is skipped forward between steps so the
// agent's 10 s and 150 s schedules pass in a moment.
#include <gtest/gtest.h>

#include <string>

#include "fake_services.h"
#include "host.h"
#include "test_support.h"
#include "zelvar/tellar2.pb.h"

namespace {

namespace ov = zelvar::ovita2;
namespace tl = zelvar::tellar2;

ov::GetJobResponse JobsOfOneObject() {
  ov::GetJobResponse jobs;
  jobs.mutable_rc()->set_code(0);
  auto add = [&](unsigned id, const std::string& key, const std::string& command, bool text) {
    auto* objectJob = jobs.add_object_jobs();
    objectJob->set_object_id(1);
    auto* job = objectJob->mutable_job();
    job->set_job_id(id);
    job->set_stat_item(100 + id);
    job->set_interval(10);
    job->set_command(command);
    job->set_stat_key(key);
    job->set_string_value(text ? 1 : 0);
  };
  add(1, "load", "printf", false);
  jobs.mutable_object_jobs(0)->mutable_job()->set_command_args("'12.37\\n'");
  add(2, "kernel", "printf 'line one\\nline two\\n'", true);
  add(3, "broken", "exit 3", false);
  return jobs;
}

class PipelineInHost : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(services.ok() && queue.ok());
    services.SetNamedPort(queue.Port());  // the task queue and aggregation live elsewhere
    queue.SetJobs(JobsOfOneObject());
    std::string at = "127.0.0.1:" + std::to_string(services.Port());
    std::string config = dir.Write(
        "agent.ini", "[host]\nlog_file = host.log\nlog_level = 1\n"
                     "[plugins]\nzookeeper = " EMBEDDED_REGISTRY_PATH "\nagent = " AGENT_PLUGIN_PATH "\n"
                     "[embedded_registry]\n/ovita2/names/MASTER/m1 = " + at +
                         "\n/ovita2/names/TELLAR2_ACCESS/a1 = " + at +
                         "\n"
                         "[common]\nmyname = /ovita2/agents/it\nagentname = it\nhighprecision_frequency = 10\n"
                         "[network]\nlisten-ip = 127.0.0.1\n"
                         "[names]\nMASTER = /ovita2/names/MASTER\nTELLAR2_ACCESS = /ovita2/names/TELLAR2_ACCESS\n");
    std::string error;
    ASSERT_TRUE(host.Init(config, &error)) << error;
    host.SetRoutinePeriod(10000);  // every routine due starts within a few loop turns
  }

  std::string Log() const { return host_test::ReadFile(dir.Path() + "/host.log"); }
  bool RunUntilLogged(const std::string& text) {
    return host.RunUntil([&] { return Log().find(text) != std::string::npos; }, 20.0);
  }
  void Skip(int seconds) { host.Clock().Skip(seconds); }

  integration::FakeServices services;  // master and statistics access, found by name
  integration::FakeServices queue;     // task queue and aggregation, named by the two above
  host_test::TempDir dir;
  zelvar_host::Host host;
};

TEST_F(PipelineInHost, JobOutputReachesTheAggregationServiceTheAccessServiceNamed) {
  std::string endpoint = "127.0.0.1:" + std::to_string(queue.Port());
  ASSERT_TRUE(RunUntilLogged("name=MASTER, ip=127.0.0.1, port=" + std::to_string(services.Port()))) << Log();

  Skip(10);  // the task queue and the aggregation endpoint are asked for
  ASSERT_TRUE(RunUntilLogged("my task queue: tq-1, " + endpoint)) << Log();
  ASSERT_TRUE(host.RunUntil([&] { return !services.Received(ov::GET_AGGREGATION_REQUEST).empty(); }, 20.0));

  Skip(150);  // the job list is fetched
  ASSERT_TRUE(host.RunUntil([&] { return !queue.Received(ov::GET_JOB_REQUEST).empty(); }, 20.0)) << Log();
  EXPECT_EQ(queue.Received(ov::GET_JOB_REQUEST)[0].body().GetExtension(ov::get_job_request).agent_name(), "it");

  Skip(10);  // the jobs run
  ASSERT_TRUE(RunUntilLogged("long action stderr: 3, ")) << Log();
  host.RunUntil([] { return false; }, 0.3);

  Skip(10);  // the samples leave
  ASSERT_TRUE(host.RunUntil(
      [&] {
        return !queue.Received(ov::RECORD_STATS_REQUEST).empty() &&
               !queue.Received(ov::RECORD_STRING_STATS_REQUEST).empty();
      },
      20.0))
      << Log();

  EXPECT_TRUE(services.Received(ov::GET_JOB_REQUEST).empty());
  EXPECT_TRUE(services.Received(ov::RECORD_STATS_REQUEST).empty());
  const auto numeric = queue.Received(ov::RECORD_STATS_REQUEST)[0].body().GetExtension(tl::record_stats_request);
  ASSERT_EQ(numeric.stats_size(), 1) << numeric.DebugString();
  EXPECT_EQ(numeric.stats(0).name(), "load");
  EXPECT_EQ(numeric.stats(0).object_id(), 1u);
  EXPECT_EQ(numeric.stats(0).stat_item(), 101u);
  EXPECT_EQ(numeric.stats(0).value(), 123);

  const auto text =
      queue.Received(ov::RECORD_STRING_STATS_REQUEST)[0].body().GetExtension(tl::record_string_stats_request);
  ASSERT_EQ(text.stats_size(), 1) << text.DebugString();
  EXPECT_EQ(text.stats(0).name(), "kernel");
  EXPECT_EQ(text.stats(0).job_id(), 2u);
  EXPECT_EQ(text.stats(0).value(), "line one\nline two\n");

  std::string log = Log();
  size_t failure = log.find("long action stderr: 3, ");
  EXPECT_EQ(log.find("long action stderr:", failure + 1), std::string::npos) << "one line for the one failing command";
  host.Shutdown();
}

}  // namespace
