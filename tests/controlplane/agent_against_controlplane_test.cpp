// End to end on loopback: the control plane as its own zelvar-host process,
// the agent in a zelvar-host loop in this process (its clock skipped forward so
// the 150 s job schedule passes at once), and what the agent measured read
// back from the control plane's database by the command-line client.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "host.h"
#include "test_support.h"

namespace {

int FreePort() {
  int port = 0;
  int fd = host_test::ListenLoopback(&port);
  close(fd);
  return port;
}

// A program started in `dir`, its output in `dir`/`name`.out; stopped with
// SIGTERM at the end.
class ChildProcess {
 public:
  ChildProcess(const std::string& dir, const std::string& name, std::vector<std::string> argv) {
    m_iPid = fork();
    if (m_iPid != 0) return;
    std::string out = dir + "/" + name + ".out";
    if (chdir(dir.c_str()) != 0 || !freopen(out.c_str(), "w", stdout) || !freopen(out.c_str(), "a", stderr)) _exit(127);
    std::vector<char*> args;
    for (std::string& arg : argv) args.push_back(arg.data());
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
  }
  ~ChildProcess() { Stop(); }
  bool Running() const { return m_iPid > 0 && waitpid(m_iPid, nullptr, WNOHANG) == 0; }
  // SIGTERM, then the exit status (-1 when it did not exit by itself).
  int Stop() {
    if (m_iPid <= 0) return m_iStatus;
    kill(m_iPid, SIGTERM);
    int status = 0;
    waitpid(m_iPid, &status, 0);
    m_iPid = 0;
    m_iStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return m_iStatus;
  }

 private:
  pid_t m_iPid = 0;
  int m_iStatus = -1;
};

// Runs the client and returns what it printed on standard output.
std::string RunClient(const std::string& arguments) {
  std::string output;
  FILE* pipe = popen((std::string(OVITA2CTL_PATH) + " " + arguments + " 2>&1").c_str(), "r");
  if (pipe == nullptr) return output;
  char chunk[4096];
  size_t n;
  while ((n = fread(chunk, 1, sizeof chunk, pipe)) > 0) output.append(chunk, n);
  pclose(pipe);
  return output;
}

std::vector<nlohmann::json> JsonLines(const std::string& text) {
  std::vector<nlohmann::json> lines;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    if (end > start) lines.push_back(nlohmann::json::parse(text.substr(start, end - start), nullptr, false));
    start = end + 1;
  }
  return lines;
}

TEST(AgentAgainstControlPlane, WhatTheAgentMeasuresIsReadBackThroughTheClient) {
  host_test::TempDir dir;
  const int cpPort = FreePort();
  const std::string database = dir.Path() + "/cp.db";
  dir.Write("jobs.yaml",
            "agents:\n  e2e:\n    objects:\n      - object_id: 4\n        jobs:\n"
            "          - {job_id: 1, stat_item: 41, interval: 10, command: \"echo 12.37\", stat_key: load}\n"
            "          - {job_id: 2, interval: 10, command: \"echo hello\", stat_key: greeting, string_value: 1}\n");
  std::string cpConfig = dir.Write(
      "cp.ini", "[host]\nlog_file = cp.log\nlog_level = 2\n"
                "[network]\nlisten-ip = 127.0.0.1\nlisten-port = " + std::to_string(cpPort) +
                    "\n[plugins]\nzookeeper = " EMBEDDED_REGISTRY_PATH "\ncontrolplane = " CONTROLPLANE_PLUGIN_PATH
                    "\n[controlplane]\nname = cp-e2e\njobs_file = jobs.yaml\ndatabase = " + database + "\n");
  ChildProcess controlPlane(dir.Path(), "cp", {ZELVAR_HOST_PATH, "-c", cpConfig});
  auto cpLog = [&] { return host_test::ReadFile(dir.Path() + "/cp.log"); };
  zelvar_host::Host agent;
  auto agentLog = [&] { return host_test::ReadFile(dir.Path() + "/agent.log"); };
  for (int wait = 0; wait < 200 && cpLog().find("serving as cp-e2e") == std::string::npos; ++wait) usleep(100000);
  ASSERT_NE(cpLog().find("serving as cp-e2e"), std::string::npos)
      << cpLog() << host_test::ReadFile(dir.Path() + "/cp.out");

  const std::string at = "127.0.0.1:" + std::to_string(cpPort);
  std::string agentConfig = dir.Write(
      "agent.ini", "[host]\nlog_file = agent.log\nlog_level = 2\n"
                   "[plugins]\nzookeeper = " EMBEDDED_REGISTRY_PATH "\nagent = " AGENT_PLUGIN_PATH "\n"
                   "[embedded_registry]\n/ovita2/names/MASTER/cp-e2e = " + at +
                       "\n/ovita2/names/TELLAR2_ACCESS/cp-e2e = " + at +
                       "\n[names]\nMASTER = /ovita2/names/MASTER\nTELLAR2_ACCESS = /ovita2/names/TELLAR2_ACCESS\n"
                       "[common]\nagentname = e2e\nmyname = /ovita2/agents/e2e\nhighprecision_frequency = 10\n");
  std::string error;
  ASSERT_TRUE(agent.Init(agentConfig, &error)) << error;
  agent.SetRoutinePeriod(10000);
  auto cpLogged = [&](const std::string& text) {
    return agent.RunUntil([&] { return cpLog().find(text) != std::string::npos; }, 20.0);
  };

  agent.Clock().Skip(10);  // the master is asked for the task queue
  ASSERT_TRUE(agent.RunUntil([&] { return agentLog().find("my task queue: cp-e2e, " + at) != std::string::npos; },
                             20.0))
      << agentLog();
  agent.Clock().Skip(150);  // the job list is fetched
  ASSERT_TRUE(cpLogged("gave agent e2e its 2 jobs")) << cpLog();

  std::string samples;
  for (int tick = 0; tick < 10; ++tick) {  // the jobs run, then the samples leave
    agent.Clock().Skip(10);
    agent.RunUntil([] { return false; }, 0.3);
    samples = RunClient("samples --json --agent e2e --db " + database);
    if (samples.find("\"numeric\"") != std::string::npos && samples.find("\"text\"") != std::string::npos) break;
  }
  std::vector<nlohmann::json> rows = JsonLines(samples);
  ASSERT_GE(rows.size(), 2u) << samples << cpLog();
  bool numericSeen = false, textSeen = false;
  for (const nlohmann::json& row : rows) {
    ASSERT_TRUE(row.is_object()) << samples;
    EXPECT_EQ(row["agent"], "e2e");
    EXPECT_EQ(row["object_id"], 4);
    if (row["kind"] == "numeric") {
      numericSeen = true;
      EXPECT_EQ(row["name"], "load");
      EXPECT_EQ(row["stat_item"], 41);
      EXPECT_EQ(row["tenths"], 123);
    } else {
      textSeen = true;
      EXPECT_EQ(row["name"], "greeting");
      EXPECT_EQ(row["text"], "hello\n");
    }
  }
  EXPECT_TRUE(numericSeen && textSeen) << samples;

  std::string agents = RunClient("agents --db " + database);
  EXPECT_NE(agents.find("e2e"), std::string::npos) << agents;

  agent.Shutdown();
  EXPECT_EQ(controlPlane.Stop(), 0) << "the control plane stops cleanly on SIGTERM\n" << cpLog();
}

}  // namespace
