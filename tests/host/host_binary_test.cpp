// The real zelvar-host binary: command line, configuration errors (one line on
// standard error, non-zero exit), and a clean run with the probe plug-in that
// stops on SIGTERM.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>
#include <vector>

#include "test_support.h"

extern char** environ;

namespace {

struct Outcome {
  int exit_code = -1;
  std::string err;
  std::string out;
};

class HostProcess {
 public:
  HostProcess(const host_test::TempDir& dir, const std::vector<std::string>& args) : dir_(dir) {
    std::vector<char*> argv;
    std::string binary = ZELVAR_HOST_PATH;
    argv.push_back(binary.data());
    std::vector<std::string> copies = args;
    for (std::string& arg : copies) argv.push_back(arg.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, (dir.Path() + "/stdout").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, 2, (dir.Path() + "/stderr").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    started_ = posix_spawn(&pid_, binary.c_str(), &actions, nullptr, argv.data(), environ) == 0;
    posix_spawn_file_actions_destroy(&actions);
  }
  bool started() const { return started_; }
  void Signal(int sig) { kill(pid_, sig); }
  // Waits for the exit (a generous cap kills a hung process).
  Outcome Wait() {
    Outcome outcome;
    int status = 0;
    for (int i = 0; i < 3000; ++i) {
      if (waitpid(pid_, &status, WNOHANG) == pid_) {
        outcome.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        outcome.err = host_test::ReadFile(dir_.Path() + "/stderr");
        outcome.out = host_test::ReadFile(dir_.Path() + "/stdout");
        return outcome;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    kill(pid_, SIGKILL);
    waitpid(pid_, &status, 0);
    outcome.err = "did not exit";
    return outcome;
  }

 private:
  const host_test::TempDir& dir_;
  pid_t pid_ = -1;
  bool started_ = false;
};

Outcome RunHost(const host_test::TempDir& dir, const std::vector<std::string>& args) {
  HostProcess process(dir, args);
  EXPECT_TRUE(process.started());
  return process.Wait();
}

size_t CountLines(const std::string& text) { return std::count(text.begin(), text.end(), '\n'); }

TEST(HostBinary, CommandLineHelpVersionAndUsage) {
  host_test::TempDir dir;
  Outcome version = RunHost(dir, {"--version"});
  EXPECT_EQ(version.exit_code, 0);
  EXPECT_EQ(version.out.rfind("zelvar-host ", 0), 0u);
  Outcome help = RunHost(dir, {"--help"});
  EXPECT_EQ(help.exit_code, 0);
  EXPECT_NE(help.out.find("-c FILE"), std::string::npos);
  Outcome none = RunHost(dir, {});
  EXPECT_EQ(none.exit_code, 2);
  EXPECT_NE(none.err.find("usage"), std::string::npos);
}

TEST(HostBinary, ConfigurationErrorsGiveOneLineAndAFailingExit) {
  host_test::TempDir dir;
  Outcome missing = RunHost(dir, {"-c", dir.Path() + "/absent.ini"});
  EXPECT_EQ(missing.exit_code, 1);
  EXPECT_EQ(CountLines(missing.err), 1u) << missing.err;
  EXPECT_NE(missing.err.find("absent.ini: No such file or directory"), std::string::npos) << missing.err;

  std::string syntax = dir.Write("syntax.ini", "[host]\nlog_level = 2\n\n[plugins\n");
  Outcome bad = RunHost(dir, {"-c", syntax});
  EXPECT_EQ(bad.exit_code, 1);
  EXPECT_EQ(CountLines(bad.err), 1u) << bad.err;
  EXPECT_NE(bad.err.find("syntax.ini:4: syntax error"), std::string::npos) << bad.err;

  std::string plugin = dir.Write("plugin.ini", "[plugins]\nagent = missing-agent.so\n");
  Outcome unloadable = RunHost(dir, {"-c", plugin});
  EXPECT_EQ(unloadable.exit_code, 1);
  EXPECT_EQ(CountLines(unloadable.err), 1u) << unloadable.err;
  EXPECT_NE(unloadable.err.find("cannot load plug-in \"agent\""), std::string::npos) << unloadable.err;
  EXPECT_NE(unloadable.err.find(dir.Path() + "/missing-agent.so: cannot open shared object file"), std::string::npos)
      << unloadable.err;

  int port = 0;
  int taken = host_test::ListenLoopback(&port);
  std::string busy = dir.Write("busy.ini", "[network]\nlisten-ip = 127.0.0.1\nlisten-port = " + std::to_string(port) + "\n");
  Outcome bound = RunHost(dir, {"-c", busy});
  close(taken);
  EXPECT_EQ(bound.exit_code, 1);
  EXPECT_EQ(CountLines(bound.err), 1u) << bound.err;
  EXPECT_NE(bound.err.find("cannot listen on 127.0.0.1:" + std::to_string(port) + ": Address already in use"),
            std::string::npos)
      << bound.err;

  std::string refused = dir.Write("refused.ini", "[plugins]\nprobe = " PROBE_PLUGIN_PATH "\n[probe]\ninit_result = 5\n");
  Outcome init = RunHost(dir, {"-c", refused});
  EXPECT_EQ(init.exit_code, 1);
  EXPECT_NE(init.err.find("plug-in \"probe\" failed to start: OnInit returned 5"), std::string::npos) << init.err;
}

TEST(HostBinary, RunsThePluginAndStopsCleanlyOnSigterm) {
  host_test::TempDir dir;
  std::string record = dir.Path() + "/calls.txt";
  std::string config = dir.Write("run.ini", "[host]\nlog_file = run.log\nlog_level = 3\n[plugins]\nprobe = " PROBE_PLUGIN_PATH
                                            "\n[probe]\nroutine_period_us = 10000\nrecord_file = " + record + "\n");
  HostProcess process(dir, {"-c", config});
  ASSERT_TRUE(process.started());
  for (int i = 0; i < 3000 && host_test::ReadFile(record).find("OnRoutine\nOnRoutine\n") == std::string::npos; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  process.Signal(SIGTERM);
  Outcome outcome = process.Wait();
  EXPECT_EQ(outcome.exit_code, 0) << outcome.err;
  EXPECT_EQ(outcome.err, "");
  std::string calls = host_test::ReadFile(record);
  EXPECT_EQ(calls.rfind("OnPeekInterface\nOnInit\nOnRoutine\nOnRoutine\n", 0), 0u) << calls;
  EXPECT_GE(calls.size(), std::string("\nOnUnload\n").size());
  EXPECT_EQ(calls.substr(calls.size() - 10), "\nOnUnload\n") << calls;
  std::string log = host_test::ReadFile(dir.Path() + "/run.log");
  EXPECT_NE(log.find("stopping on signal 15 (SIGTERM)"), std::string::npos) << log;
  EXPECT_NE(log.find("zelvar-host stopped"), std::string::npos) << log;
}

}  // namespace
