// The control plane in a host loop in this process, and as its own process serving a real agent.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <ctime>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "client/client_app.h"
#include "host.h"
#include "local_system.h"
#include "store/sample_store.h"
#include "zelvar/frame.h"
#include "zelvar/message_util.h"
#include "zelvar/ovita2.pb.h"

namespace controlplane {
namespace {

namespace ov = zelvar::ovita2;
using ovita2::testing::ReadFile;

std::string Jobs(const std::string& agent, const std::string& command, const std::string& more = "") {
  return "agents:\n  " + agent + ":\n    objects:\n      - object_id: 4\n        jobs:\n          - {job_id: 1, " +
         "interval: 10, stat_item: 41, command: \"" + command + "\", stat_key: k1}\n" + more;
}
std::string HostConfig(const std::string& log, int port, const std::string& plugin, const std::string& extra) {
  return "[host]\nlog_file = " + log + "\nlog_level = 2\n[network]\nlisten-ip = 127.0.0.1\nlisten-port = " +
         std::to_string(port) + "\n[plugins]\nzookeeper = " EMBEDDED_REGISTRY_PATH "\n" + plugin + "\n" + extra;
}
std::string ControlPlaneConfig(int port, const std::string& settings) {
  return HostConfig("host.log", port, "controlplane = " CONTROLPLANE_PLUGIN_PATH,
                    "[controlplane]\nname = cp-1\ndatabase = cp.db\njobs_file = jobs.yaml\n" + settings);
}

class ControlPlaneInHost : public ::testing::Test {
 protected:
  std::string Log() const { return ReadFile(dir.Path() + "/host.log"); }
  bool RunUntilLogged(const std::string& text) {
    return host.RunUntil([&] { return Log().find(text) != std::string::npos; }, 20.0);
  }
  // The first job's command the control plane hands "web-01" now, asked on `fd`.
  std::string FirstJobCommand(int fd) {
    zelvar::ZMessage request, reply;
    zelvar::NewMessage(&request, 1, "s", ov::GET_JOB_REQUEST, 0, false, 7, 0, nullptr, nullptr, nullptr);
    request.mutable_body()->MutableExtension(ov::get_job_request)->set_agent_name("web-01");
    std::string in;
    ovita2::testing::SendAll(fd, zelvar::EncodeFrame(request));
    auto whole = [&] {
      ovita2::testing::ReadAvailable(fd, &in);
      return in.size() >= 4 && in.size() >= 4 + zelvar::FrameBodyLength(reinterpret_cast<const unsigned char*>(&in[0]));
    };
    if (!host.RunUntil(whole, 20.0) || !reply.ParseFromString(in.substr(4))) return "(no reply)";
    const auto& jobs = reply.body().GetExtension(ov::get_job_response);
    return jobs.object_jobs_size() > 0 ? jobs.object_jobs(0).job().command() : "(no jobs)";
  }

  ovita2::testing::TempDir dir;
  const int port = ovita2::testing::FreeLoopbackPort();
  zelvar_host::Host host;
  std::string error;
};

TEST_F(ControlPlaneInHost, RefusesBadSettingsAnswersPrunesAndReloadsItsJobsOnSighup) {
  SampleStore seed;  // two samples, either side of the three days kept
  const int64_t cutoff = std::time(nullptr) - 3 * 86400;
  SampleRow old{0, cutoff - 60, "web-01", false, "load", 1, 0, 0, 0, "", 0}, recent = old;
  recent.received_at = cutoff + 60;
  ASSERT_TRUE(seed.Open(dir.Path() + "/cp.db", &error) && seed.AddSamples({old, recent}, &error)) << error;
  dir.Write("jobs.yaml", Jobs("web-01", "echo old"));
  EXPECT_FALSE(zelvar_host::Host().Init(dir.Write("bad.ini", ControlPlaneConfig(port, "keep_days = soon\n")), &error));
  EXPECT_NE(Log().find("controlplane: not started: [controlplane] keep_days must be a number"), std::string::npos);
  ASSERT_TRUE(host.Init(dir.Write("cp.ini", ControlPlaneConfig(port, "keep_days = 3\n")),
                        &error)) << error;
  const int fd = ovita2::testing::ConnectLoopback(port);
  std::vector<SampleRow> kept;
  host.RunUntil([&] { return (kept = seed.RecentSamples(SampleQuery(), &error)).size() < 2; }, 20.0);
  ASSERT_TRUE(kept.size() == 1 && kept[0].id == 2) << "samples older than keep_days go at start: " << error;

  EXPECT_EQ(FirstJobCommand(fd), "echo old");
  dir.Write("jobs.yaml", "agents:\n  web-01:\n    objects:\n      - object_id: one\n");
  raise(SIGHUP);
  ASSERT_TRUE(RunUntilLogged("jobs file not reloaded, the previous one stays in service: " + dir.Path() + "/jobs"))
      << Log();
  EXPECT_EQ(FirstJobCommand(fd), "echo old");
  dir.Write("jobs.yaml", Jobs("web-01", "echo new"));
  raise(SIGHUP);
  ASSERT_TRUE(RunUntilLogged("jobs file reloaded: 1 jobs for 1 agents")) << Log();
  EXPECT_EQ(FirstJobCommand(fd), "echo new");
  close(fd);
}

// The agent's clock is skipped forward, so its 150 s job schedule passes at once.
TEST(AgentAgainstControlPlane, WhatTheAgentMeasuresIsReadBackThroughTheClient) {
  ovita2::testing::TempDir dir;
  const int cpPort = ovita2::testing::FreeLoopbackPort();
  const std::string at = "127.0.0.1:" + std::to_string(cpPort), database = dir.Path() + "/cp.db";
  dir.Write("jobs.yaml",
            Jobs("e2e", "echo 12.37", "          - {job_id: 2, interval: 10, command: 'echo hello', stat_key: k2, "
                                      "string_value: 1}\n"));
  ovita2::testing::ChildProcess controlPlane("cd " + dir.Path() + " && exec " ZELVAR_HOST_PATH " -c " +
                                             dir.Write("cp.ini", ControlPlaneConfig(cpPort, "")) + " >host.out 2>&1");
  auto cpLog = [&] { return ReadFile(dir.Path() + "/host.log"); };
  ASSERT_TRUE(ovita2::testing::Eventually([&] { return cpLog().find("serving as cp-1") != std::string::npos; }, 20))
      << cpLog() << ReadFile(dir.Path() + "/host.out");

  zelvar_host::Host agent;
  std::string error;
  const std::string names = "[embedded_registry]\n/ovita2/names/MASTER/cp-1 = " + at +
                            "\n/ovita2/names/TELLAR2_ACCESS/cp-1 = " + at +
                            "\n[names]\nMASTER = /ovita2/names/MASTER\nTELLAR2_ACCESS = /ovita2/names/TELLAR2_ACCESS\n"
                            "[common]\nagentname = e2e\nmyname = /ovita2/agents/e2e\nhighprecision_frequency = 10\n";
  ASSERT_TRUE(agent.Init(dir.Write("agent.ini", HostConfig("agent.log", ovita2::testing::FreeLoopbackPort(),
                                                           "agent = " AGENT_PLUGIN_PATH, names)), &error)) << error;
  agent.SetRoutinePeriod(10000);
  agent.Clock().Skip(10);  // the master is asked for the task queue
  const auto agentLog = [&] { return ReadFile(dir.Path() + "/agent.log"); };
  ASSERT_TRUE(agent.RunUntil([&] { return agentLog().find("my task queue: cp-1, " + at) != std::string::npos; }, 20.0))
      << agentLog();
  agent.Clock().Skip(150);  // the job list is fetched
  ASSERT_TRUE(agent.RunUntil([&] { return cpLog().find("gave agent e2e its 2 jobs") != std::string::npos; }, 20.0))
      << cpLog();

  std::set<std::string> seen;  // each sample as "object name value", once the jobs have run
  for (int tick = 0; tick < 20 && seen.size() < 2; ++tick) {
    agent.Clock().Skip(10);
    agent.RunUntil([] { return false; }, 0.3);
    std::ostringstream out, err;
    const char* argv[] = {"ovita2ctl", "samples", "--json", "--agent", "e2e", "--db", database.c_str()};
    RunClient(7, argv, out, err);
    std::istringstream lines(out.str());
    for (std::string line; std::getline(lines, line);) {
      const nlohmann::json row = nlohmann::json::parse(line);
      seen.insert(row["object_id"].dump() + " " + row["name"].get<std::string>() + " " +
                  (row["kind"] == "numeric" ? row["stat_item"].dump() + " " + row["tenths"].dump()
                                            : row["text"].get<std::string>()));
    }
  }
  EXPECT_EQ(seen, (std::set<std::string>{"4 k1 41 123", "4 k2 hello\n"})) << cpLog();
  agent.Shutdown();
  kill(controlPlane.Pid(), SIGTERM);
  EXPECT_EQ(controlPlane.Wait(), 0) << "the control plane stops cleanly on SIGTERM\n" << cpLog();
}

}  // namespace
}  // namespace controlplane
