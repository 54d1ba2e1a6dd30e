// The agent inside zelvar-host with the embedded registry, against fake
// control-plane services on loopback; the host's executor runs the commands.
// The clock is skipped forward between steps so the agent's 10 s and 150 s
// schedules pass in a moment.
#include <fcntl.h>
#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>

#include "agent_host.h"
#include "zelvar/frame.h"
#include "zelvar/message_util.h"
#include "zelvar/ovita2.pb.h"
#include "zelvar/tellar2.pb.h"

namespace {

namespace ov = zelvar::ovita2;
namespace tl = zelvar::tellar2;

// Control-plane services on one loopback port, answering as the real ones do
// and keeping every request. Served between the host loop's turns, so the one
// test thread drives both sides.
struct FakeServices {
  FakeServices() : listenFd(ovita2::testing::ListenLoopback(&port)) { fcntl(listenFd, F_SETFL, O_NONBLOCK); }
  ~FakeServices() {
    for (const auto& peer : inputs) close(peer.first);
    close(listenFd);
  }

  void Serve() {
    int accepted = accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
    if (accepted >= 0) inputs[accepted];
    for (auto& [fd, input] : inputs) {
      ovita2::testing::ReadAvailable(fd, &input);  // a peer that left is closed with the rest, at the end
      for (zelvar::FrameCut cut; (cut = zelvar::CutFrame(input.data(), input.size())).outcome == cut.kOneFrame;) {
        zelvar::ZMessage request, reply;
        request.ParseFromArray(input.data() + zelvar::kFramePrefixSize, static_cast<int>(cut.bodySize));
        input.erase(0, cut.FrameSize());
        if (Answer(request, &reply)) ovita2::testing::SendAll(fd, zelvar::EncodeFrame(reply));
      }
    }
  }

  bool Answer(const zelvar::ZMessage& request, zelvar::ZMessage* reply) {
    unsigned type = request.head().message_type();
    received.emplace(type, request);
    zelvar::Body* body = reply->mutable_body();
    auto point = [&](auto* answer, const char* name) {
      answer->mutable_rc()->set_code(0), answer->set_name(name);
      answer->set_ip("127.0.0.1"), answer->set_port(namedPort);
    };
    switch (type) {
      case ov::GET_TASK_QUEUE_REQUEST: point(body->MutableExtension(ov::get_task_queue_response), "tq-1"); break;
      case ov::GET_AGGREGATION_REQUEST: point(body->MutableExtension(ov::get_aggregation_response), "aggr-1"); break;
      case ov::GET_JOB_REQUEST: *body->MutableExtension(ov::get_job_response) = jobs; break;
      case ov::GET_CONF_REQUEST: {  // a type with nothing configured ends the agent's pass
        uint32_t confType = request.body().GetExtension(ov::get_conf_request).conf_type();
        *body->MutableExtension(ov::get_conf_response) = confs[confType];
        break;
      }
      case ov::RECORD_STATS_REQUEST: body->MutableExtension(tl::record_stats_response)->mutable_rc(); break;
      case ov::RECORD_STRING_STATS_REQUEST: body->MutableExtension(tl::record_string_stats_response)->mutable_rc(); break;
      default: return false;
    }
    zelvar::MakeResponse(request, static_cast<int>(type) + 1, reply);
    return true;
  }
  const zelvar::Body& First(unsigned type) const { return received.find(type)->second.body(); }

  int port = 0;
  int listenFd;
  int namedPort = 0;  // where the task queue and aggregation answers point
  ov::GetJobResponse jobs;
  std::map<uint32_t, ov::GetConfResponse> confs;  // by collector type
  std::multimap<unsigned, zelvar::ZMessage> received;
  std::map<int, std::string> inputs;  // connection -> bytes not yet framed
};

class AgentInHost : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(agent.ok()) << agent.error();
    services.namedPort = queue.port;  // the task queue and aggregation live elsewhere
    agent.host().SetRoutinePeriod(10000);  // every routine due starts within a few loop turns
  }
  std::string Sections() const {
    std::string at = "127.0.0.1:" + std::to_string(services.port);
    return "[embedded_registry]\n/ovita2/names/MASTER/m1 = " + at + "\n/ovita2/names/TELLAR2_ACCESS/a1 = " + at +
           "\n[common]\nmyname = /ovita2/agents/it\nagentname = it\nhighprecision_frequency = 10\n"
           "[network]\nlisten-ip = 127.0.0.1\nlisten-port = " + std::to_string(agentPort) + "\n"
           "[names]\nMASTER = /ovita2/names/MASTER\nTELLAR2_ACCESS = /ovita2/names/TELLAR2_ACCESS\n";
  }
  bool Until(const std::function<bool()>& done) {
    return agent.RunUntil([&] { return services.Serve(), queue.Serve(), done(); });
  }
  bool UntilLogged(const std::string& text) { return Until([&] { return agent.Count(text) > 0; }); }
  bool UntilAsked(const FakeServices& service, unsigned type) {
    return Until([&] { return service.received.count(type) > 0; });
  }
  // Waits for the agent to register itself and resolve its names, then skips
  // the clock until it has asked for the task queue, aggregation and job list.
  void UntilJobsAsked() {
    std::string at = "ip=127.0.0.1, port=" + std::to_string(services.port) + "\n";
    ASSERT_TRUE(UntilLogged("|Register myself finished")) << agent.LogText();
    ASSERT_TRUE(UntilLogged("|name=TELLAR2_ACCESS, " + at) && UntilLogged("|name=MASTER, " + at)) << agent.LogText();
    agent.host().Clock().Skip(10);
    ASSERT_TRUE(UntilAsked(services, ov::GET_TASK_QUEUE_REQUEST) && UntilAsked(services, ov::GET_AGGREGATION_REQUEST));
    agent.host().Clock().Skip(150);  // also the heartbeat's period
    ASSERT_TRUE(UntilAsked(queue, ov::GET_JOB_REQUEST)) << agent.LogText();
    EXPECT_EQ(queue.First(ov::GET_JOB_REQUEST).GetExtension(ov::get_job_request).agent_name(), "it");
  }

  FakeServices services;  // master and statistics access, found by name
  FakeServices queue;     // task queue and aggregation, named by the two above
  int agentPort = ovita2::testing::FreeLoopbackPort();
  ovita2::testing::AgentHost agent{EMBEDDED_REGISTRY_PATH, Sections()};
};

TEST_F(AgentInHost, CounterRatesSecondPhasesAndHeartbeatsReachTheirServices) {
  // Of object 1 a number, a text and a failing command. Of object 2 a counter
  // whose reading moves 5 s and 50 units a run, faster than the high-precision
  // frequency; and a job whose second command halves the value its first
  // printed, for a time long past.
  ovita2::testing::TempDir state;
  std::string reading = "n=$(cat " + state.Path() + "/n 2>/dev/null || echo 0); echo $((n + 1)) > " +
                        state.Path() + "/n; echo $((1000 + n * 5))'|'$((n * 50))";
  ASSERT_TRUE(google::protobuf::TextFormat::ParseFromString(
      R"(rc { code: 0 }
         object_jobs { object_id: 1 job { job_id: 1 stat_item: 101 interval: 10 stat_key: "load"
                                          command: "printf" command_args: "'12.37\\n'" } }
         object_jobs { object_id: 1 job { job_id: 2 stat_item: 102 interval: 10 stat_key: "kernel"
                                          command: "printf 'line one\\nline two\\n'" string_value: 1 } }
         object_jobs { object_id: 1 job { job_id: 3 stat_item: 103 interval: 10 stat_key: "broken" command: "exit 3" } }
         object_jobs { object_id: 2 job { job_id: 4 stat_item: 104 interval: 5 stat_key: "rate" second_phase: 1
                                          second_phase_delay: 10 command: ")" + reading + R"(" } }
         object_jobs { object_id: 2 job { job_id: 5 stat_item: 105 interval: 10 stat_key: "half" second_phase: 1
                                          command: "echo '1|42'"
                                          second_phase_command: "half() { echo $(($2 / 2)); }; half" } })",
      &queue.jobs));
  ASSERT_NO_FATAL_FAILURE(UntilJobsAsked());
  EXPECT_EQ(agent.Count("failed"), 0u) << agent.LogText();
  ASSERT_TRUE(UntilAsked(queue, ov::AGENT_HEART_BEAT_REQUEST));
  const auto& beat = queue.First(ov::AGENT_HEART_BEAT_REQUEST).GetExtension(ov::agent_heart_beat_request);
  EXPECT_EQ(beat.agent_name() + " " + beat.version(), "it 1.0.13");

  // Five host seconds a round, slow enough in real time for every command to
  // answer within its machine's timeout.
  std::map<std::string, std::string> samples;  // the last of each name
  for (int round = 0; round < 40 && (samples.size() < 3 || !queue.received.count(ov::RECORD_STRING_STATS_REQUEST));
       ++round) {
    agent.host().Clock().Skip(5);
    agent.RunUntil([&] { return services.Serve(), queue.Serve(), false; }, 0.3);
    for (auto [it, end] = queue.received.equal_range(ov::RECORD_STATS_REQUEST); it != end; ++it) {
      for (const auto& sample : it->second.body().GetExtension(tl::record_stats_request).stats()) {
        samples[sample.name()] = sample.ShortDebugString();
      }
    }
  }
  EXPECT_EQ(services.received.count(ov::GET_JOB_REQUEST) + services.received.count(ov::RECORD_STATS_REQUEST), 0u);
  EXPECT_EQ(samples["load"], R"(name: "load" object_id: 1 stat_item: 101 value: 123)");
  EXPECT_EQ(samples["rate"], R"(name: "rate" object_id: 2 stat_item: 104 value: 1000)")
      << "50 units in 5 s is 100 per 10 s period, in tenths";
  EXPECT_EQ(samples["half"], R"(name: "half" object_id: 2 stat_item: 105 value: 210)");
  ASSERT_TRUE(queue.received.count(ov::RECORD_STRING_STATS_REQUEST)) << agent.LogText();
  auto text = queue.First(ov::RECORD_STRING_STATS_REQUEST).GetExtension(tl::record_string_stats_request);
  for (auto& sample : *text.mutable_stats()) sample.clear_time();
  EXPECT_EQ(text.ShortDebugString(), R"(stats { name: "kernel" job_id: 2 value: "line one\nline two\n" })");
  EXPECT_GT(agent.Count("long action stderr: 3, "), 0u) << agent.LogText();
}

TEST_F(AgentInHost, AProcessConfiguredForWatchingButNotRunningIsReportedAsATextSampleOfTheAgent) {
  ov::ConfObject* watched = queue.confs[1].add_confs();
  watched->set_target("ovita2-no-such-daemon"), watched->set_parameter("3");
  ASSERT_NO_FATAL_FAILURE(UntilJobsAsked());
  // Type 1, then the empty type 2 ends the pass: type 1 is stored by then.
  auto passEnded = [&] { return agent.Count("|there is no job_confs") > 0; };
  for (int run = 0; run < 6 && !passEnded(); ++run) {
    agent.host().Clock().Skip(30);
    agent.RunUntil([&] { return services.Serve(), queue.Serve(), passEnded(); }, 2.0);
  }
  ASSERT_TRUE(passEnded()) << agent.LogText();
  agent.host().Clock().Skip(300);
  ASSERT_TRUE(UntilLogged("|product operation value: ")) << agent.LogText();
  agent.host().Clock().Skip(10);
  ASSERT_TRUE(UntilAsked(queue, ov::RECORD_STRING_STATS_REQUEST)) << agent.LogText();
  auto text = queue.First(ov::RECORD_STRING_STATS_REQUEST).GetExtension(tl::record_string_stats_request);
  ASSERT_EQ(text.stats_size(), 1);
  EXPECT_EQ(text.stats(0).name() + " " + std::to_string(text.stats(0).job_id()) + " " + text.stats(0).value(),
            "it 1 ovita2-no-such-daemon:-1");
}

TEST_F(AgentInHost, AnItemEnabledOnTheListeningPortHasTheCompleteLinesOfItsScriptSentToStatisticsAccess) {
  ovita2::testing::TempDir home;  // the host's HOME, where "~" of the script path leads
  std::filesystem::create_directories(home.Path() + "/ovita2/agent/plugin/real_time_task");
  std::filesystem::permissions(home.Write("ovita2/agent/plugin/real_time_task/4.sh", "printf 'one\\n\\ntwo\\nrest'"),
                               std::filesystem::perms::owner_all);
  const std::string oldHome = std::getenv("HOME") ? std::getenv("HOME") : "";
  std::shared_ptr<void> restoreHome(nullptr, [&](void*) { setenv("HOME", oldHome.c_str(), 1); });
  setenv("HOME", home.Path().c_str(), 1);
  ASSERT_TRUE(UntilLogged("|name=TELLAR2_ACCESS, ")) << agent.LogText();
  zelvar::ZMessage request, reply;
  zelvar::NewMessage(&request, 1, "ctl", ov::ENABLE_REAL_TIME_MONITOR_REQUEST, 0, false, 0, 0, nullptr, nullptr,
                     nullptr);
  request.mutable_body()->MutableExtension(ov::enable_real_time_monitor_request)->set_item_id(4);
  struct Client { int fd; ~Client() { close(fd); } } client{ovita2::testing::ConnectLoopback(agentPort)};
  ASSERT_TRUE(ovita2::testing::SendAll(client.fd, zelvar::EncodeFrame(request)));
  std::string answer;
  ASSERT_TRUE(Until([&] {
    ovita2::testing::ReadAvailable(client.fd, &answer);
    return zelvar::CutFrame(answer.data(), answer.size()).outcome == zelvar::FrameCut::kOneFrame;
  }));
  ASSERT_TRUE(reply.ParseFromString(answer.substr(4)));
  const auto& rc = reply.body().GetExtension(ov::enable_real_time_monitor_response).rc();
  EXPECT_EQ(std::to_string(reply.head().message_type()) + " " + rc.ShortDebugString(), "66013 code: 0");
  ASSERT_TRUE(agent.StartMachine(9000014));  // RealTimeCollectMachine, without waiting out its 10 s
  ASSERT_TRUE(Until([&] { return services.received.count(ov::SEND_REAL_TIME_BUFF_REQUEST) >= 3; })) << agent.LogText();
  std::string lines;
  for (auto [it, end] = services.received.equal_range(ov::SEND_REAL_TIME_BUFF_REQUEST); it != end; ++it)
    lines += it->second.body().GetExtension(ov::send_real_time_buff_request).line() + "|";
  EXPECT_EQ(lines, "one||two|");
}

}  // namespace
