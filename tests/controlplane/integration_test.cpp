// The control plane in a host loop in this process, and as its own process serving a real agent.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <regex>
#include <set>
#include <sstream>
#include <thread>
#include <tuple>

#include "client/client_app.h"
#include "host.h"
#include "local_system.h"
#include "store/sample_store.h"
#include "zelvar/frame.h"
#include "zelvar/machine_factory.h"
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

  // One HTTP/1.0 exchange with the control plane's web address: status, Content-Type, body.
  std::tuple<int, std::string, std::string> Http(const std::string& method, const std::string& target) {
    const int fd = ovita2::testing::ConnectLoopback(httpPort);
    ovita2::testing::SendAll(fd, method + " " + target + " HTTP/1.0\r\n\r\n");
    std::string in;
    host.RunUntil([&] { return !ovita2::testing::ReadAvailable(fd, &in); }, 20.0);
    close(fd);
    const size_t type = in.find("Content-Type: "), end = in.find("\r\n\r\n");
    if (in.size() < 12 || type == std::string::npos || end == std::string::npos) return {0, "", in};
    return {std::stoi(in.substr(9, 3)), in.substr(type + 14, in.find("\r\n", type) - type - 14), in.substr(end + 4)};
  }
  nlohmann::json Json(const std::string& target) { return nlohmann::json::parse(std::get<2>(Http("GET", target))); }

  ovita2::testing::TempDir dir;
  const int port = ovita2::testing::FreeLoopbackPort(), httpPort = ovita2::testing::FreeLoopbackPort();
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

// Seeds, 100 s before now: web-01's heartbeat, two numeric samples of one series (the later one is
// latest), one of a series below zero, a text sample and a real-time line; and a sample of an agent
// whose name needs escaping.
void SeedWebData(const std::string& database) {
  SampleStore store;
  std::string error;
  const int64_t at = std::time(nullptr) - 100;
  SampleRow first{0, at - 60, "web-01", false, "load", 4, 41, 0, 117, "", 0}, latest = first, odd = first, text = first,
            below = first;
  latest.received_at = at;
  latest.value = 123;
  odd.agent = "we\"b\\\n1";
  below.stat_item = 42;
  below.value = -5;
  text.text = true;
  text.text_value = "sshd:-1";
  ASSERT_TRUE(store.Open(database, &error) && store.AddSamples({first, latest, odd, text, below}, &error) &&
              store.RecordHeartbeat("web-01", "10.1.2.3", at, "2.1.0", 7, &error) &&
              store.AddRealTimeLine("web-01", at, "tail line", &error)) << error;
}

TEST_F(ControlPlaneInHost, WebAddressAnswersReadOnlyJsonAndMetricsPrometheusAccepts) {
  SeedWebData(dir.Path() + "/cp.db");
  dir.Write("jobs.yaml", Jobs("web-01", "echo 1"));
  int busyPort = 0;
  const int busy = ovita2::testing::ListenLoopback(&busyPort);
  EXPECT_FALSE(zelvar_host::Host().Init(
      dir.Write("busy.ini", ControlPlaneConfig(port, "http = 127.0.0.1:" + std::to_string(busyPort))), &error));
  EXPECT_NE(Log().find("not started: [controlplane] http: cannot listen on 127.0.0.1:" + std::to_string(busyPort) +
                       ": Address already in use"), std::string::npos) << Log();
  close(busy);
  for (const char* bad : {"localhost:7180", "127.0.0.1", "127.0.0.1:0", "[::1]:x"}) {
    EXPECT_FALSE(zelvar_host::Host().Init(dir.Write("bad.ini", ControlPlaneConfig(port, std::string("http = ") + bad)), &error));
    EXPECT_NE(Log().find("[controlplane] http \"" + std::string(bad) + "\" is not an address like"), std::string::npos)
        << bad;
  }
  const std::string http = "http = 127.0.0.1:" + std::to_string(httpPort) + "\n";
  ASSERT_TRUE(host.Init(dir.Write("cp.ini", ControlPlaneConfig(port, http)), &error)) << error;

  const std::string json = "application/json", text = "text/plain; charset=utf-8";
  const std::tuple<std::string, std::string, int, std::string> cases[] = {
      {"GET", "/", 200, "text/html; charset=utf-8"},     {"GET", "/app.js", 200, "text/javascript; charset=utf-8"},
      {"GET", "/style.css", 200, "text/css; charset=utf-8"}, {"GET", "/api/agents", 200, json},
      {"GET", "/metrics", 200, "text/plain; version=0.0.4; charset=utf-8"}, {"GET", "/api/series", 400, json},
      {"GET", "/api/points?agent=web-01&stat_key=load&object=x", 400, json}, {"GET", "/api/lines?limit=0", 400, json},
      {"GET", "/../etc/passwd", 404, text},              {"POST", "/metrics", 405, text},
      {"DELETE", "/api/agents", 405, text}};
  for (const auto& [method, target, status, type] : cases) {
    const auto answer = Http(method, target);
    EXPECT_EQ(std::get<0>(answer), status) << method << " " << target;
    EXPECT_EQ(std::get<1>(answer), type) << method << " " << target;
  }

  EXPECT_EQ(Http("HEAD", "/api/agents"), std::make_tuple(200, json, std::string()));
  const nlohmann::json agents = Json("/api/agents")["agents"];
  ASSERT_EQ(agents.size(), 1u) << agents;
  EXPECT_EQ(agents[0]["address"], "10.1.2.3");
  EXPECT_EQ(agents[0]["version"], "2.1.0");
  EXPECT_EQ(agents[0]["job_count"], 7);
  EXPECT_NEAR(agents[0]["heartbeat_age"].get<double>(), 100, 10);
  const nlohmann::json series = Json("/api/series?agent=web-01")["series"];
  ASSERT_EQ(series.size(), 2u) << series;
  EXPECT_EQ(series[0]["value"], 12.3);
  EXPECT_EQ(series[1]["value"], -0.5);
  const nlohmann::json points = Json("/api/points?agent=web-01&object=4&stat_key=load&stat_item=41")["points"];
  EXPECT_EQ(points.size() == 2 ? nlohmann::json({points[0][1], points[1][1]}) : points, nlohmann::json({11.7, 12.3}));
  EXPECT_EQ(Json("/api/texts?agent=web-01")["samples"][0]["text"], "sshd:-1");
  EXPECT_EQ(Json("/api/lines?after=0")["lines"][0]["line"], "tail line");
  EXPECT_TRUE(Json("/api/lines?after=1")["lines"].empty());

  const std::string metrics = std::get<2>(Http("GET", "/metrics"));
  EXPECT_NE(metrics.find("ovita2_sample_value{agent=\"web-01\",object=\"4\",stat_key=\"load\",stat_item=\"41\"} 12.3"),
            std::string::npos) << metrics;
  EXPECT_NE(metrics.find(",stat_item=\"42\"} -0.5\n"), std::string::npos) << metrics;
  EXPECT_NE(metrics.find("{agent=\"we\\\"b\\\\\\n1\","), std::string::npos) << metrics;
  if (system("command -v promtool >/dev/null") != 0) GTEST_SKIP() << "promtool (Debian: prometheus) is not installed";
  const std::string check = "promtool check metrics < " + dir.Write("metrics.txt", metrics) + " 2>&1";
  FILE* out = popen(check.c_str(), "r");
  std::string said(4096, '\0');
  said.resize(fread(&said[0], 1, said.size(), out));
  EXPECT_EQ(pclose(out), 0) << said;
  EXPECT_EQ(said, "") << "promtool has no lint remark either";
}

// The command that runs zelvar-host serving the control plane from `dir` (its output in host.out).
std::string ControlPlaneCommand(const ovita2::testing::TempDir& dir, int port, const std::string& settings) {
  return "cd " + dir.Path() + " && exec " ZELVAR_HOST_PATH " -c " +
         dir.Write("cp.ini", ControlPlaneConfig(port, settings)) + " >host.out 2>&1";
}

// A control plane in its own process, and the agent "e2e" in this one, which
// finds it by name. The agent's clock is skipped forward, so its schedules
// pass at once; the control plane's database is read through ovita2ctl.
class AgentAgainstControlPlane : public ::testing::Test {
 protected:
  void Start(const std::string& jobs) {
    dir.Write("jobs.yaml", jobs);
    controlPlane.emplace(ControlPlaneCommand(dir, cpPort, ""));
    ASSERT_TRUE(ovita2::testing::Eventually([&] { return Logged(CpLog(), "serving as cp-1"); }, 20))
        << CpLog() << ReadFile(dir.Path() + "/host.out");
    const std::string names = "[embedded_registry]\n/ovita2/names/MASTER/cp-1 = " + at +
                              "\n/ovita2/names/TELLAR2_ACCESS/cp-1 = " + at +
                              "\n[names]\nMASTER = /ovita2/names/MASTER\nTELLAR2_ACCESS = /ovita2/names/TELLAR2_ACCESS\n"
                              "[common]\nagentname = e2e\nmyname = /ovita2/agents/e2e\nhighprecision_frequency = 10\n";
    ASSERT_TRUE(agent.Init(dir.Write("agent.ini", HostConfig("agent.log", agentPort, "agent = " AGENT_PLUGIN_PATH,
                                                             names)), &error)) << error;
    agent.SetRoutinePeriod(10000);  // every routine due starts within a few loop turns
  }
  std::string CpLog() const { return ReadFile(dir.Path() + "/host.log"); }
  std::string AgentLog() const { return ReadFile(dir.Path() + "/agent.log"); }
  static bool Logged(const std::string& log, const std::string& text) { return log.find(text) != std::string::npos; }
  // Skips `seconds` and serves for a moment, `rounds` times or until `done`.
  bool Rounds(int rounds, int seconds, const std::function<bool()>& done = [] { return false; }) {
    for (int round = 0; round < rounds && !done(); ++round)
      agent.Clock().Skip(seconds), agent.RunUntil([] { return false; }, 0.3);
    return done();
  }
  // What ovita2ctl prints for `args` against the database.
  std::string Ctl(std::vector<const char*> args) {
    args.insert(args.begin(), "ovita2ctl"), args.insert(args.end(), {"--db", database.c_str()});
    std::ostringstream out, err;
    RunClient(static_cast<int>(args.size()), args.data(), out, err);
    return out.str();
  }
  // Each stored sample of the agent as "object name stat_item tenths" or "object name text".
  std::set<std::string> Samples() {
    std::set<std::string> seen;
    std::istringstream lines(Ctl({"samples", "--json", "--agent", "e2e", "--limit", "100000"}));
    for (std::string line; std::getline(lines, line);) {
      const nlohmann::json row = nlohmann::json::parse(line);
      seen.insert(row["object_id"].dump() + " " + row["name"].get<std::string>() + " " +
                  (row["kind"] == "numeric" ? row["stat_item"].dump() + " " + row["tenths"].dump()
                                            : row["text"].get<std::string>()));
    }
    return seen;
  }

  ovita2::testing::TempDir dir;
  const int cpPort = ovita2::testing::FreeLoopbackPort(), agentPort = ovita2::testing::FreeLoopbackPort();
  const std::string at = "127.0.0.1:" + std::to_string(cpPort), database = dir.Path() + "/cp.db";
  std::optional<ovita2::testing::ChildProcess> controlPlane;  // killed and reaped after the agent stopped
  zelvar_host::Host agent;
  std::string error;
};

// Of object 1 a number, a text and a failing command. Of object 2 a counter
// whose reading moves 5 s and 50 units a run, faster than the high-precision
// frequency; and a job whose second command halves the value its first
// printed. And a process configured for watching that does not run.
TEST_F(AgentAgainstControlPlane, WhatTheAgentMeasuresIsStoredAndReadBackAlsoAfterTheControlPlaneIsKilled) {
  ovita2::testing::TempDir state;
  const std::string reading = "n=$(cat " + state.Path() + "/n 2>/dev/null || echo 0); echo $((n + 1)) > " +
                              state.Path() + "/n; echo $((1000 + n * 5))'|'$((n * 50))";
  ASSERT_NO_FATAL_FAILURE(Start(R"(agents:
  e2e:
    objects:
      - object_id: 1
        jobs:
          - {job_id: 1, stat_item: 101, interval: 10, stat_key: load, command: printf, command_args: '''12.37\n'''}
          - {job_id: 2, stat_item: 102, interval: 10, stat_key: kernel, string_value: 1,
             command: 'printf ''line one\nline two\n'''}
          - {job_id: 3, stat_item: 103, interval: 10, stat_key: broken, command: exit 3}
      - object_id: 2
        jobs:
          - {job_id: 4, stat_item: 104, interval: 5, stat_key: rate, second_phase: 1, second_phase_delay: 10,
             command: ")" + reading + R"("}
          - {job_id: 5, stat_item: 105, interval: 10, stat_key: half, second_phase: 1, command: "echo '1|42'",
             second_phase_command: 'half() { echo $(($2 / 2)); }; half'}
    confs: {1: [{target: ovita2-no-such-daemon, parameter: 3}]}
)"));
  agent.Clock().Skip(10);  // the master is asked for the task queue
  ASSERT_TRUE(agent.RunUntil([&] { return Logged(AgentLog(), "my task queue: cp-1, " + at); }, 20.0)) << AgentLog();
  agent.Clock().Skip(150);  // the job list is fetched
  ASSERT_TRUE(agent.RunUntil([&] { return Logged(CpLog(), "gave agent e2e its 5 jobs"); }, 20.0)) << CpLog();

  // The rate is 50 units in 5 s, 100 per 10 s period, in tenths; the
  // watched process is the agent's own text sample, its type as the job.
  const std::set<std::string> expected = {"1 load 101 123", "1 kernel line one\nline two\n", "2 rate 104 1000",
                                          "2 half 105 210", "null e2e ovita2-no-such-daemon:-1"};
  EXPECT_TRUE(Rounds(40, 30, [&] { return Samples() == expected; })) << CpLog();
  EXPECT_TRUE(Logged(CpLog(), "heartbeat of e2e, version 1.0.13, 2 objects")) << CpLog();
  EXPECT_TRUE(Logged(AgentLog(), "long action stderr: 3, ")) << AgentLog();

  // Killed outright while the agent sends: the agent's failed sends leave no
  // descriptor behind, and once the control plane is back on its port the
  // next send stores samples again.
  kill(controlPlane->Pid(), SIGKILL);
  controlPlane->Wait();
  Rounds(3, 10);
  const int descriptors = ovita2::testing::CountOpenDescriptors();
  Rounds(20, 10);
  EXPECT_LE(ovita2::testing::CountOpenDescriptors(), descriptors);
  auto stored = [&] { return Ctl({"samples", "--limit", "100000"}).size(); };
  const size_t before = stored();
  controlPlane.emplace(ControlPlaneCommand(dir, cpPort, ""));
  ASSERT_TRUE(ovita2::testing::Eventually([&] { return CpLog().rfind("serving as cp-1") > CpLog().find("serving"); }, 20));
  EXPECT_TRUE(Rounds(10, 10, [&] { return stored() > before; })) << CpLog();
  agent.Shutdown();
  kill(controlPlane->Pid(), SIGTERM);
  EXPECT_EQ(controlPlane->Wait(), 0) << "the control plane stops cleanly on SIGTERM\n" << CpLog();
}

TEST_F(AgentAgainstControlPlane, AnItemEnabledThroughTheClientHasTheCompleteLinesOfItsScriptStored) {
  ovita2::testing::TempDir home;  // this process's HOME, where "~" of the script path leads
  std::filesystem::create_directories(home.Path() + "/ovita2/agent/plugin/real_time_task");
  std::filesystem::permissions(home.Write("ovita2/agent/plugin/real_time_task/4.sh", "printf 'one\\n\\ntwo\\nrest'"),
                               std::filesystem::perms::owner_all);
  const std::string oldHome = std::getenv("HOME") ? std::getenv("HOME") : "";
  std::shared_ptr<void> restoreHome(nullptr, [&](void*) { setenv("HOME", oldHome.c_str(), 1); });
  setenv("HOME", home.Path().c_str(), 1);
  ASSERT_NO_FATAL_FAILURE(Start("agents:\n  e2e: {}\n"));

  std::ostringstream out, err;  // the client waits for the answer, which the agent gives in this thread
  std::atomic<bool> answered{false};
  std::thread client([&] {
    const std::string address = "127.0.0.1:" + std::to_string(agentPort);
    const char* argv[] = {"ovita2ctl", "enable", address.c_str(), "4"};
    RunClient(4, argv, out, err), answered = true;
  });
  agent.RunUntil([&] { return answered.load(); }, 20.0);
  client.join();
  EXPECT_EQ(out.str() + err.str(), "item 4 enabled\n");
  zelvar::StateMachine* collect = zelvar::MachineFactory::Instance()->CreateMachine(9000014);
  ASSERT_NE(collect, nullptr);  // the real-time cycle, without waiting out its 10 s
  collect->SetCreatedByRoutine(true), agent.Runtime().Start(collect);
  std::string lines;  // one JSON object a line; the agent has not named itself, so any agent's
  agent.RunUntil([&] { return lines = Ctl({"lines", "--json"}), std::count(lines.begin(), lines.end(), '\n') > 2; },
                 20.0);
  EXPECT_EQ(std::regex_replace(lines, std::regex(R"re(\{.*"line":"(.*)"\})re"), "$1"), "one\n\ntwo\n") << lines;
}

// What a headless Chromium run of `flags` on `url` prints on stdout.
std::string Chromium(const std::string& profile, const std::string& flags, const std::string& url) {
  const std::string command = "chromium --headless --no-sandbox --disable-gpu --user-data-dir=" + profile +
                              " --virtual-time-budget=8000 " + flags + " " + url + " 2>/dev/null";
  FILE* out = popen(command.c_str(), "r");
  std::string printed;
  for (char chunk[4096]; size_t got = fread(chunk, 1, sizeof chunk, out);) printed.append(chunk, got);
  pclose(out);
  return printed;
}

TEST(WebPageInChromium, ListsAgentsChartsTheFirstSeriesAndShowsTheLiveLists) {
  if (system("command -v chromium >/dev/null") != 0) GTEST_SKIP() << "chromium is not installed";
  ovita2::testing::TempDir dir;
  SeedWebData(dir.Path() + "/cp.db");
  dir.Write("jobs.yaml", Jobs("web-01", "echo 1"));
  const int httpPort = ovita2::testing::FreeLoopbackPort();
  ovita2::testing::ChildProcess controlPlane(ControlPlaneCommand(dir, ovita2::testing::FreeLoopbackPort(),
                                                                "http = 127.0.0.1:" + std::to_string(httpPort)));
  const std::string url = "http://127.0.0.1:" + std::to_string(httpPort) + "/";
  ovita2::testing::Eventually([&] { return ReadFile(dir.Path() + "/host.log").find(url) != std::string::npos; }, 20);
  const std::string dom = Chromium(dir.Path() + "/profile", "--dump-dom", url);
  for (const char* shown : {"<tr data-agent=\"web-01\"", "data-points=\"2\"", "load (job 0): sshd:-1", "tail line",
                            "<td>2.1.0</td><td class=\"num\">7</td>", "<td class=\"num\">12.3</td>"}) {
    EXPECT_NE(dom.find(shown), std::string::npos) << shown << " is not on the page:\n" << dom;
  }
  std::remove(WEB_SCREENSHOT_PATH);
  Chromium(dir.Path() + "/profile", "--window-size=1280,900 --screenshot=" WEB_SCREENSHOT_PATH, url);
  EXPECT_GT(ReadFile(WEB_SCREENSHOT_PATH).size(), 10000u) << "a screenshot of the page at " WEB_SCREENSHOT_PATH;
}

}  // namespace
}  // namespace controlplane
