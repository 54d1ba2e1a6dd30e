// The control plane as zelvar-host loads it: on a real loopback port, with the
// embedded registry, its jobs file reloaded on SIGHUP.
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <string>

#include "host.h"
#include "test_support.h"
#include "zelvar/frame.h"
#include "zelvar/message_util.h"
#include "zelvar/ovita2.pb.h"

namespace {

namespace ov = zelvar::ovita2;

std::string JobsFile(const std::string& command) {
  return "agents:\n  web-01:\n    objects:\n      - object_id: 1\n        jobs:\n"
         "          - {job_id: 1, interval: 10, command: \"" + command + "\", stat_key: load1}\n";
}

int FreePort() {
  int port = 0;
  int fd = host_test::ListenLoopback(&port);
  close(fd);
  return port;
}

class ControlPlaneInHost : public ::testing::Test {
 protected:
  std::string Config(const std::string& extra) {
    return "[host]\nlog_file = host.log\nlog_level = 2\n"
           "[network]\nlisten-ip = 127.0.0.1\nlisten-port = " + std::to_string(port) +
           "\n[plugins]\nzookeeper = " EMBEDDED_REGISTRY_PATH "\ncontrolplane = " CONTROLPLANE_PLUGIN_PATH
           "\n[controlplane]\nname = cp-1\ndatabase = cp.db\n" + extra;
  }
  bool Start(const std::string& extra = "jobs_file = jobs.yaml\n") {
    return host.Init(dir.Write("cp.ini", Config(extra)), &error);
  }
  std::string Log() const { return host_test::ReadFile(dir.Path() + "/host.log"); }
  bool RunUntilLogged(const std::string& text) {
    return host.RunUntil([&] { return Log().find(text) != std::string::npos; }, 20.0);
  }

  // Sends `request` on `fd` and runs the host until one whole reply is back.
  bool Exchange(int fd, const zelvar::ZMessage& request, zelvar::ZMessage* reply) {
    if (!host_test::SendAll(fd, zelvar::EncodeFrame(request))) return false;
    std::string input;
    bool open = true;
    auto whole = [&] {
      open = open && host_test::ReadAvailable(fd, &input);
      if (input.size() < 4) return !open;
      uint32_t length = (uint32_t{uint8_t(input[0])} << 24) | (uint32_t{uint8_t(input[1])} << 16) |
                        (uint32_t{uint8_t(input[2])} << 8) | uint8_t(input[3]);
      return input.size() >= 4 + length || !open;
    };
    if (!host.RunUntil(whole, 20.0) || input.size() < 4) return false;
    return reply->ParseFromArray(input.data() + 4, static_cast<int>(input.size() - 4));
  }
  std::string FirstJobCommand(int fd) {
    zelvar::ZMessage request;
    zelvar::NewMessage(&request, 1, "s", ov::GET_JOB_REQUEST, 0, false, 7, 0, nullptr, nullptr, nullptr);
    request.mutable_body()->MutableExtension(ov::get_job_request)->set_agent_name("web-01");
    zelvar::ZMessage reply;
    if (!Exchange(fd, request, &reply)) return "(no reply)";
    const auto& jobs = reply.body().GetExtension(ov::get_job_response);
    return jobs.object_jobs_size() > 0 ? jobs.object_jobs(0).job().command() : "(no jobs)";
  }

  host_test::TempDir dir;
  int port = FreePort();
  zelvar_host::Host host;
  std::string error;
};

TEST_F(ControlPlaneInHost, AnswersOnItsPortAndRegistersBothEndpointsOnce) {
  dir.Write("jobs.yaml", JobsFile("echo 1"));
  ASSERT_TRUE(Start()) << error;
  int fd = host_test::ConnectLoopback(port);
  ASSERT_GE(fd, 0);

  zelvar::ZMessage request;
  zelvar::NewMessage(&request, 3, "s", ov::GET_TASK_QUEUE_REQUEST, 0, false, 9, 0, nullptr, nullptr, nullptr);
  request.mutable_body()->MutableExtension(ov::get_task_queue_request)->set_node_path("/ovita2/agents/web-01");
  zelvar::ZMessage reply;
  ASSERT_TRUE(Exchange(fd, request, &reply)) << Log();
  EXPECT_EQ(reply.head().dst_machine_id(), 9u);
  const auto& queue = reply.body().GetExtension(ov::get_task_queue_response);
  EXPECT_EQ(queue.name(), "cp-1");
  EXPECT_EQ(queue.ip(), "127.0.0.1");
  EXPECT_EQ(queue.port(), port);

  ASSERT_TRUE(RunUntilLogged("registered /ovita2/names/TELLAR2_ACCESS/cp-1")) << Log();
  EXPECT_NE(Log().find("registered /ovita2/names/MASTER/cp-1"), std::string::npos);
  // Later checks find the nodes in place and leave them.
  host.Clock().Skip(30);
  host.RunUntil([] { return false; }, 0.5);
  std::string log = Log();
  size_t first = log.find("registered /ovita2/names/MASTER/cp-1");
  EXPECT_EQ(log.find("registered /ovita2/names/MASTER/cp-1", first + 1), std::string::npos) << log;
  close(fd);
  host.Shutdown();
}

TEST_F(ControlPlaneInHost, SighupReloadsTheJobsFileAndABadFileKeepsThePreviousOne) {
  dir.Write("jobs.yaml", JobsFile("echo old"));
  ASSERT_TRUE(Start()) << error;
  int fd = host_test::ConnectLoopback(port);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(FirstJobCommand(fd), "echo old");

  dir.Write("jobs.yaml", "agents:\n  web-01:\n    objects:\n      - object_id: one\n");
  raise(SIGHUP);
  ASSERT_TRUE(RunUntilLogged("jobs file not reloaded")) << Log();
  EXPECT_NE(Log().find("jobs.yaml:4:"), std::string::npos) << "the error names the place:\n" << Log();
  EXPECT_EQ(FirstJobCommand(fd), "echo old");

  dir.Write("jobs.yaml", JobsFile("echo new"));
  raise(SIGHUP);
  ASSERT_TRUE(RunUntilLogged("jobs file reloaded: 1 jobs for 1 agents")) << Log();
  EXPECT_EQ(FirstJobCommand(fd), "echo new");
  close(fd);
  host.Shutdown();
}

TEST_F(ControlPlaneInHost, RefusesToStartWithTheReasonInItsLog) {
  struct Case {
    std::string jobs;
    std::string extra;
    std::string reason;
  };
  for (const Case& c : {Case{"agents:\n  web-01:\n    objectz: []\n", "jobs_file = jobs.yaml\n", "jobs.yaml:3:"},
                        Case{JobsFile("true"), "", "[controlplane] jobs_file must be set"},
                        Case{JobsFile("true"), "jobs_file = missing.yaml\n", "missing.yaml: cannot read"},
                        Case{JobsFile("true"), "jobs_file = jobs.yaml\nkeep_days = soon\n", "keep_days"}}) {
    dir.Write("jobs.yaml", c.jobs);
    zelvar_host::Host refused;
    std::string why;
    EXPECT_FALSE(refused.Init(dir.Write("cp.ini", Config(c.extra)), &why)) << c.reason;
    EXPECT_NE(why.find("\"controlplane\" failed to start"), std::string::npos) << why;
    EXPECT_NE(Log().find("controlplane: not started: "), std::string::npos) << Log();
    EXPECT_NE(Log().find(c.reason), std::string::npos) << c.reason << "\n" << Log();
    unlink((dir.Path() + "/host.log").c_str());
  }
}

TEST_F(ControlPlaneInHost, AFrameThatIsNoEnvelopeClosesItsConnection) {
  dir.Write("jobs.yaml", JobsFile("true"));
  ASSERT_TRUE(Start()) << error;
  int fd = host_test::ConnectLoopback(port);
  ASSERT_GE(fd, 0);
  ASSERT_TRUE(host_test::SendAll(fd, std::string("\0\0\0\3\xff\xff\xff", 7)));
  std::string input;
  EXPECT_TRUE(host.RunUntil([&] { return !host_test::ReadAvailable(fd, &input); }, 20.0));
  EXPECT_NE(Log().find("a frame of 7 bytes is no envelope"), std::string::npos) << Log();
  close(fd);
  host.Shutdown();
}

}  // namespace
