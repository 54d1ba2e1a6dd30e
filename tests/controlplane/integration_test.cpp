// The control plane as zelvar-host loads it: inside a host loop in this
// process (its port, the embedded registry, SIGHUP, retention), and as its own
// process serving a real agent whose samples the client then reads back.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <set>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

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

std::string JobsFile(const std::string& agent, const std::string& jobs) {
  return "agents:\n  " + agent + ":\n    objects:\n      - object_id: 4\n        jobs:\n" + jobs;
}
std::string Job(int id, const std::string& command, const std::string& extra = "") {
  return "          - {job_id: " + std::to_string(id) + ", interval: 10, command: \"" + command + "\", stat_key: k" +
         std::to_string(id) + extra + "}\n";
}
// A host's configuration: its log, port, registry and plug-in, and `extra` sections or keys.
std::string HostConfig(const std::string& log, int port, const std::string& plugin, const std::string& extra) {
  return "[host]\nlog_file = " + log + "\nlog_level = 2\n[network]\nlisten-ip = 127.0.0.1\nlisten-port = " +
         std::to_string(port) + "\n[plugins]\nzookeeper = " EMBEDDED_REGISTRY_PATH "\n" + plugin + "\n" + extra;
}

class ControlPlaneInHost : public ::testing::Test {
 protected:
  bool Start(const std::string& settings) {
    return host.Init(dir.Write("cp.ini", HostConfig("host.log", port, "controlplane = " CONTROLPLANE_PLUGIN_PATH,
                                                    "[controlplane]\nname = cp-1\ndatabase = cp.db\n" + settings)),
                     &error);
  }
  std::string Log() const { return ReadFile(dir.Path() + "/host.log"); }
  bool RunUntilLogged(const std::string& text) {
    return host.RunUntil([&] { return Log().find(text) != std::string::npos; }, 20.0);
  }
  // Sends `request` on `fd` and runs the host until one whole reply is back.
  bool Exchange(int fd, const zelvar::ZMessage& request, zelvar::ZMessage* reply) {
    if (!ovita2::testing::SendAll(fd, zelvar::EncodeFrame(request))) return false;
    std::string input;
    bool open = true;
    auto whole = [&] {
      open = open && ovita2::testing::ReadAvailable(fd, &input);
      return !open || (input.size() >= zelvar::kFramePrefixSize &&
                       input.size() >= zelvar::kFramePrefixSize +
                                           zelvar::FrameBodyLength(reinterpret_cast<const unsigned char*>(input.data())));
    };
    return host.RunUntil(whole, 20.0) && reply->ParseFromString(input.substr(std::min(input.size(), zelvar::kFramePrefixSize)));
  }
  std::string FirstJobCommand(int fd) {
    zelvar::ZMessage request, reply;
    zelvar::NewMessage(&request, 1, "s", ov::GET_JOB_REQUEST, 0, false, 7, 0, nullptr, nullptr, nullptr);
    request.mutable_body()->MutableExtension(ov::get_job_request)->set_agent_name("web-01");
    if (!Exchange(fd, request, &reply)) return "(no reply)";
    const auto& jobs = reply.body().GetExtension(ov::get_job_response);
    return jobs.object_jobs_size() > 0 ? jobs.object_jobs(0).job().command() : "(no jobs)";
  }

  ovita2::testing::TempDir dir;
  const int port = ovita2::testing::FreeLoopbackPort();
  zelvar_host::Host host;
  std::string error;
};

TEST_F(ControlPlaneInHost, AnswersRegistersPrunesAndReloadsItsJobsOnSighup) {
  const int64_t now = std::time(nullptr);
  {
    SampleStore seed;
    ASSERT_TRUE(seed.Open(dir.Path() + "/cp.db", &error)) << error;
    SampleRow old, recent;
    old.agent = recent.agent = "web-01";
    old.received_at = now - 3 * 86400 - 60;
    recent.received_at = now - 3 * 86400 + 60;
    ASSERT_TRUE(seed.AddSamples({old, recent}, &error)) << error;
  }
  dir.Write("jobs.yaml", JobsFile("web-01", Job(1, "echo old")));
  ASSERT_TRUE(Start("jobs_file = jobs.yaml\nkeep_days = 3\n")) << error;
  const int fd = ovita2::testing::ConnectLoopback(port);
  ASSERT_GE(fd, 0);
  zelvar::ZMessage request, reply;
  zelvar::NewMessage(&request, 3, "s", ov::GET_TASK_QUEUE_REQUEST, 0, false, 9, 0, nullptr, nullptr, nullptr);
  request.mutable_body()->MutableExtension(ov::get_task_queue_request)->set_node_path("/ovita2/agents/web-01");
  ASSERT_TRUE(Exchange(fd, request, &reply)) << Log();
  EXPECT_EQ(reply.head().dst_machine_id(), 9u);
  const auto& queue = reply.body().GetExtension(ov::get_task_queue_response);
  EXPECT_EQ(queue.name() + " " + queue.ip() + ":" + std::to_string(queue.port()), "cp-1 127.0.0.1:" + std::to_string(port));

  // Registration is checked again every 10 s and finds its nodes in place.
  ASSERT_TRUE(RunUntilLogged("registered /ovita2/names/TELLAR2_ACCESS/cp-1")) << Log();
  host.Clock().Skip(30);
  host.RunUntil([] { return false; }, 0.5);
  const std::string log = Log();
  const size_t master = log.find("registered /ovita2/names/MASTER/cp-1");
  EXPECT_NE(master, std::string::npos) << log;
  EXPECT_EQ(log.find("registered /ovita2/names/MASTER/cp-1", master + 1), std::string::npos) << log;

  SampleStore reader;
  ASSERT_TRUE(reader.OpenReadOnly(dir.Path() + "/cp.db", &error)) << error;
  const std::vector<SampleRow> kept = reader.RecentSamples(SampleQuery(), &error);
  ASSERT_EQ(kept.size(), 1u) << "samples older than keep_days go: " << error;
  EXPECT_EQ(kept[0].id, 2);

  EXPECT_EQ(FirstJobCommand(fd), "echo old");
  dir.Write("jobs.yaml", "agents:\n  web-01:\n    objects:\n      - object_id: one\n");
  raise(SIGHUP);
  ASSERT_TRUE(RunUntilLogged("jobs file not reloaded, the previous one stays in service: " + dir.Path() +
                             "/jobs.yaml:4:")) << Log();
  EXPECT_EQ(FirstJobCommand(fd), "echo old");
  dir.Write("jobs.yaml", JobsFile("web-01", Job(1, "echo new")));
  raise(SIGHUP);
  ASSERT_TRUE(RunUntilLogged("jobs file reloaded: 1 jobs for 1 agents")) << Log();
  EXPECT_EQ(FirstJobCommand(fd), "echo new");

  // A frame that is no envelope closes its own connection only.
  const int bad = ovita2::testing::ConnectLoopback(port);
  ASSERT_TRUE(ovita2::testing::SendAll(bad, std::string("\0\0\0\3\xff\xff\xff", 7)));
  std::string ignored;
  EXPECT_TRUE(host.RunUntil([&] { return !ovita2::testing::ReadAvailable(bad, &ignored); }, 20.0));
  EXPECT_EQ(FirstJobCommand(fd), "echo new");
  close(bad);
  close(fd);
}

TEST_F(ControlPlaneInHost, RefusesToStartWithTheReasonInItsLog) {
  dir.Write("jobs.yaml", JobsFile("web-01", Job(1, "true")));
  dir.Write("bad.yaml", "agents:\n  web-01:\n    objectz: []\n");
  for (const auto& c : std::vector<std::pair<std::string, std::string>>{
           {"jobs_file = bad.yaml\n", "bad.yaml:3:5: unknown agent field"},
           {"", "[controlplane] jobs_file must be set"},
           {"jobs_file = missing.yaml\n", "missing.yaml: cannot read"},
           {"jobs_file = jobs.yaml\nkeep_days = soon\n", "[controlplane] keep_days must be a number of days"},
           {"jobs_file = jobs.yaml\nmaster_path = fleet/\n", "[controlplane] master_path \"fleet/\" is not a registry"},
       }) {
    zelvar_host::Host refused;
    EXPECT_FALSE(refused.Init(dir.Write("cp.ini", HostConfig("host.log", port, "controlplane = " CONTROLPLANE_PLUGIN_PATH,
                                                             "[controlplane]\ndatabase = cp.db\n" + c.first)),
                              &error));
    EXPECT_NE(error.find("\"controlplane\" failed to start"), std::string::npos) << error;
    EXPECT_NE(Log().find("controlplane: not started: "), std::string::npos) << Log();
    EXPECT_NE(Log().find(c.second), std::string::npos) << c.second << "\n" << Log();
    unlink((dir.Path() + "/host.log").c_str());
  }
}

// A zelvar-host process started in `dir` (its output in `dir`/host.out),
// stopped and reaped when this goes, however the test ended.
class HostProcess {
 public:
  HostProcess(const std::string& dir, const std::string& config) : m_iPid(fork()) {
    if (m_iPid != 0) return;
    const std::string out = dir + "/host.out";
    if (chdir(dir.c_str()) != 0 || !freopen(out.c_str(), "w", stdout) || !freopen(out.c_str(), "a", stderr)) _exit(127);
    execl(ZELVAR_HOST_PATH, ZELVAR_HOST_PATH, "-c", config.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  ~HostProcess() { Stop(); }
  HostProcess(const HostProcess&) = delete;
  HostProcess& operator=(const HostProcess&) = delete;
  // SIGTERM, and SIGKILL when it has not ended within 10 s; its exit status,
  // or -1 when a signal ended it.
  int Stop() {
    if (m_iPid <= 0) return m_iStatus;
    kill(m_iPid, SIGTERM);
    int status = 0;
    for (int wait = 0; waitpid(m_iPid, &status, WNOHANG) == 0; ++wait) {
      if (wait == 100) kill(m_iPid, SIGKILL);
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    m_iPid = 0;
    m_iStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return m_iStatus;
  }

 private:
  pid_t m_iPid;
  int m_iStatus = -1;
};

std::vector<nlohmann::json> SamplesOf(const std::string& agent, const std::string& database) {
  std::ostringstream out, err;
  const std::vector<const char*> argv = {"ovita2ctl", "samples", "--json", "--agent", agent.c_str(), "--db", database.c_str()};
  RunClient(static_cast<int>(argv.size()), argv.data(), out, err);
  std::vector<nlohmann::json> rows;
  std::istringstream lines(out.str());
  for (std::string line; std::getline(lines, line);) rows.push_back(nlohmann::json::parse(line));
  return rows;
}

// The agent's clock is skipped forward, so its 150 s job schedule passes at once.
TEST(AgentAgainstControlPlane, WhatTheAgentMeasuresIsReadBackThroughTheClient) {
  ovita2::testing::TempDir dir;
  const int cpPort = ovita2::testing::FreeLoopbackPort();
  const std::string database = dir.Path() + "/cp.db";
  dir.Write("jobs.yaml", JobsFile("e2e", Job(1, "echo 12.37", ", stat_item: 41") + Job(2, "echo hello", ", string_value: 1")));
  HostProcess controlPlane(
      dir.Path(), dir.Write("cp.ini", HostConfig("cp.log", cpPort, "controlplane = " CONTROLPLANE_PLUGIN_PATH,
                                                 "[controlplane]\nname = cp-e2e\njobs_file = jobs.yaml\ndatabase = cp.db\n")));
  auto cpLog = [&] { return ReadFile(dir.Path() + "/cp.log"); };
  for (int wait = 0; wait < 200 && cpLog().find("serving as cp-e2e") == std::string::npos; ++wait) usleep(100000);
  ASSERT_NE(cpLog().find("serving as cp-e2e"), std::string::npos) << cpLog() << ReadFile(dir.Path() + "/host.out");

  const std::string at = "127.0.0.1:" + std::to_string(cpPort);
  zelvar_host::Host agent;
  std::string error;
  ASSERT_TRUE(agent.Init(dir.Write("agent.ini",
                                   HostConfig("agent.log", ovita2::testing::FreeLoopbackPort(), "agent = " AGENT_PLUGIN_PATH,
                                              "[embedded_registry]\n/ovita2/names/MASTER/cp-e2e = " + at +
                                                  "\n/ovita2/names/TELLAR2_ACCESS/cp-e2e = " + at +
                                                  "\n[names]\nMASTER = /ovita2/names/MASTER\n"
                                                  "TELLAR2_ACCESS = /ovita2/names/TELLAR2_ACCESS\n[common]\n"
                                                  "agentname = e2e\nmyname = /ovita2/agents/e2e\nhighprecision_frequency = 10\n")),
                         &error))
      << error;
  agent.SetRoutinePeriod(10000);
  agent.Clock().Skip(10);  // the master is asked for the task queue
  ASSERT_TRUE(agent.RunUntil([&] { return ReadFile(dir.Path() + "/agent.log").find("my task queue: cp-e2e") != std::string::npos; }, 20.0))
      << ReadFile(dir.Path() + "/agent.log");
  agent.Clock().Skip(150);  // the job list is fetched
  ASSERT_TRUE(agent.RunUntil([&] { return cpLog().find("gave agent e2e its 2 jobs") != std::string::npos; }, 20.0))
      << cpLog() << ReadFile(dir.Path() + "/agent.log");

  // The jobs run, then their samples leave; each sample as "object name value".
  std::set<std::string> seen;
  for (int tick = 0; tick < 20 && seen.size() < 2; ++tick) {
    agent.Clock().Skip(10);
    agent.RunUntil([] { return false; }, 0.3);
    for (const nlohmann::json& row : SamplesOf("e2e", database)) {
      seen.insert(row["object_id"].dump() + " " + row["name"].get<std::string>() + " " +
                  (row["kind"] == "numeric" ? row["stat_item"].dump() + " " + row["tenths"].dump() : row["text"].get<std::string>()));
    }
  }
  EXPECT_EQ(seen, (std::set<std::string>{"4 k1 41 123", "4 k2 hello\n"})) << cpLog();
  agent.Shutdown();
  EXPECT_EQ(controlPlane.Stop(), 0) << "the control plane stops cleanly on SIGTERM\n" << cpLog();
}

}  // namespace
}  // namespace controlplane
