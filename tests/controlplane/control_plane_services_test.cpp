// The control plane's answers and what it stores, driven request by request
// without a host: each test builds envelopes as an agent would send them.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "store_test_support.h"
#include "services/control_plane_services.h"
#include "zelvar/message_util.h"
#include "zelvar/ovita2.pb.h"
#include "zelvar/tellar2.pb.h"

namespace controlplane {
namespace {

namespace ov = zelvar::ovita2;
namespace tl = zelvar::tellar2;

constexpr const char* kJobs = R"(
agents:
  web-01:
    objects:
      - object_id: 1
        jobs:
          - {job_id: 1, stat_item: 11, interval: 10, command: "echo 1", stat_key: load1}
          - {job_id: 2, interval: 60, command: "uname -r", stat_key: kernel, string_value: 1}
      - object_id: 2
        jobs:
          - {job_id: 1, interval: 10, command: "echo 2", stat_key: load1}
          - {job_id: 3, interval: 60, command: "hostname", stat_key: host, string_value: 1}
    confs:
      1:
        - {target: sshd, parameter: 5}
        - {target: cron}
      2:
        - {target: "error|fail"}
)";

class ControlPlaneServicesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string error;
    ASSERT_TRUE(store.Open(dir.File("cp.db"), &error)) << error;
    auto catalogue = std::make_shared<JobCatalogue>();
    ASSERT_TRUE(JobCatalogue::Parse(kJobs, "jobs.yaml", catalogue.get(), &error)) << error;
    services = std::make_unique<ControlPlaneServices>(Endpoint{"cp-1", "192.0.2.7", 7100}, &store,
                                                      [this](int level, const std::string& line) {
                                                        logged.push_back(std::to_string(level) + " " + line);
                                                      });
    services->SetCatalogue(catalogue);
  }

  // A request as an agent's machine 42 sends it.
  static zelvar::ZMessage Request(unsigned type) {
    zelvar::ZMessage request;
    zelvar::NewMessage(&request, 9, "session-1", static_cast<int>(type), 0, false, 42, 0, nullptr, nullptr,
                       nullptr);
    request.mutable_body();
    return request;
  }
  static zelvar::ZMessage AskTaskQueue(const std::string& nodePath) {
    zelvar::ZMessage request = Request(ov::GET_TASK_QUEUE_REQUEST);
    request.mutable_body()->MutableExtension(ov::get_task_queue_request)->set_node_path(nodePath);
    return request;
  }
  static zelvar::ZMessage AskJobs(const std::string& agent) {
    zelvar::ZMessage request = Request(ov::GET_JOB_REQUEST);
    request.mutable_body()->MutableExtension(ov::get_job_request)->set_agent_name(agent);
    return request;
  }
  static zelvar::ZMessage AskConfs(const std::string& agent, unsigned type) {
    zelvar::ZMessage request = Request(ov::GET_CONF_REQUEST);
    auto* asked = request.mutable_body()->MutableExtension(ov::get_conf_request);
    asked->set_agent_name(agent);
    asked->set_conf_type(type);
    return request;
  }
  static zelvar::ZMessage OneNumericSample(const std::string& name, int64_t tenths) {
    zelvar::ZMessage request = Request(ov::RECORD_STATS_REQUEST);
    auto* stats = request.mutable_body()->MutableExtension(tl::record_stats_request)->add_stats();
    stats->set_name(name);
    stats->set_object_id(1);
    stats->set_stat_item(11);
    stats->set_value(tenths);
    return request;
  }
  static zelvar::ZMessage OneTextSample(unsigned jobId, const std::string& text) {
    zelvar::ZMessage request = Request(ov::RECORD_STRING_STATS_REQUEST);
    auto* stats = request.mutable_body()->MutableExtension(tl::record_string_stats_request)->add_stats();
    stats->set_name("text");
    stats->set_job_id(jobId);
    stats->set_value(text);
    stats->set_time(1700000000);
    return request;
  }

  // The result of any answer: the rc field of the one extension its body carries.
  static const zelvar::ResponseCode& ResultOf(const zelvar::ZMessage& reply) {
    std::vector<const google::protobuf::FieldDescriptor*> fields;
    reply.body().GetReflection()->ListFields(reply.body(), &fields);
    EXPECT_EQ(fields.size(), 1u) << reply.DebugString();
    const google::protobuf::Message& answer = reply.body().GetReflection()->GetMessage(reply.body(), fields.at(0));
    const google::protobuf::FieldDescriptor* rc = answer.GetDescriptor()->FindFieldByName("rc");
    return static_cast<const zelvar::ResponseCode&>(answer.GetReflection()->GetMessage(answer, rc));
  }

  zelvar::ZMessage Answer(const zelvar::ZMessage& request, PeerIdentity* peer) {
    zelvar::ZMessage reply;
    EXPECT_TRUE(services->Handle(request, peer, 1000, &reply)) << request.DebugString();
    return reply;
  }
  std::vector<SampleRow> Stored() const {
    std::string error;
    SampleQuery all;
    all.limit = 100;
    return store.RecentSamples(all, &error);
  }

  ScratchDir dir;
  SampleStore store;
  std::vector<std::string> logged;
  std::unique_ptr<ControlPlaneServices> services;
};

TEST_F(ControlPlaneServicesTest, TaskQueueAndAggregationAnswersNameThisEndpointAndFindTheAskingMachine) {
  PeerIdentity peer{"127.0.0.1", "", ""};
  zelvar::ZMessage reply = Answer(AskTaskQueue("/ovita2/agents/web-01"), &peer);
  EXPECT_EQ(reply.head().message_type(), unsigned{ov::GET_TASK_QUEUE_RESPONSE});
  EXPECT_EQ(reply.head().kind(), zelvar::kKindResponse);
  EXPECT_EQ(reply.head().dst_machine_id(), 42u);
  EXPECT_EQ(reply.head().flow_no(), 9u);
  const auto& queue = reply.body().GetExtension(ov::get_task_queue_response);
  EXPECT_EQ(queue.rc().code(), 0);
  EXPECT_EQ(queue.name(), "cp-1");
  EXPECT_EQ(queue.ip(), "192.0.2.7");
  EXPECT_EQ(queue.port(), 7100);
  EXPECT_EQ(peer.node_path, "/ovita2/agents/web-01");

  zelvar::ZMessage ask = Request(ov::GET_AGGREGATION_REQUEST);
  ask.mutable_body()->MutableExtension(ov::get_aggregation_request)->set_node_path("/ovita2/agents/web-01");
  reply = Answer(ask, &peer);
  EXPECT_EQ(reply.head().message_type(), unsigned{ov::GET_AGGREGATION_RESPONSE});
  const auto& aggregation = reply.body().GetExtension(ov::get_aggregation_response);
  EXPECT_EQ(aggregation.rc().code(), 0);
  EXPECT_EQ(aggregation.name(), "cp-1");
  EXPECT_EQ(aggregation.ip(), "192.0.2.7");
  EXPECT_EQ(aggregation.port(), 7100);
}

TEST_F(ControlPlaneServicesTest, JobsAreAnsweredToTheirAgentAndAnUnknownAgentIsToldWhy) {
  PeerIdentity peer{"127.0.0.1", "", ""};
  const auto jobs = Answer(AskJobs("web-01"), &peer).body().GetExtension(ov::get_job_response);
  EXPECT_EQ(jobs.rc().code(), 0);
  ASSERT_EQ(jobs.object_jobs_size(), 4);
  EXPECT_EQ(jobs.object_jobs(0).object_id(), 1u);
  EXPECT_EQ(jobs.object_jobs(0).job().stat_item(), 11u);
  EXPECT_EQ(jobs.object_jobs(1).job().string_value(), 1u);
  EXPECT_EQ(jobs.object_jobs(3).object_id(), 2u);
  EXPECT_EQ(jobs.object_jobs(3).job().command(), "hostname");

  PeerIdentity stranger{"127.0.0.2", "", ""};
  const auto refused = Answer(AskJobs("db-07"), &stranger).body().GetExtension(ov::get_job_response);
  EXPECT_EQ(refused.rc().code(), kCodeUnknownAgent);
  EXPECT_NE(refused.rc().msg().find("\"db-07\""), std::string::npos) << refused.rc().msg();
  EXPECT_EQ(refused.object_jobs_size(), 0);
  const auto nameless = Answer(AskJobs(""), &stranger).body().GetExtension(ov::get_job_response);
  EXPECT_EQ(nameless.rc().code(), kCodeUnknownAgent);

  const auto confs = Answer(AskConfs("db-07", 1), &stranger).body().GetExtension(ov::get_conf_response);
  EXPECT_EQ(confs.rc().code(), kCodeUnknownAgent);
}

TEST_F(ControlPlaneServicesTest, CollectorConfigurationsComeByTypeAndAnEmptyListEndsThePass) {
  PeerIdentity peer{"127.0.0.1", "", ""};
  const auto first = Answer(AskConfs("web-01", 1), &peer).body().GetExtension(ov::get_conf_response);
  EXPECT_EQ(first.rc().code(), 0);
  ASSERT_EQ(first.confs_size(), 2);
  EXPECT_EQ(first.confs(0).target(), "sshd");
  EXPECT_EQ(first.confs(0).parameter(), "5");
  EXPECT_EQ(first.confs(1).target(), "cron");

  const auto second = Answer(AskConfs("web-01", 2), &peer).body().GetExtension(ov::get_conf_response);
  ASSERT_EQ(second.confs_size(), 1);
  EXPECT_EQ(second.confs(0).target(), "error|fail");

  const auto past = Answer(AskConfs("web-01", 3), &peer).body().GetExtension(ov::get_conf_response);
  EXPECT_EQ(past.rc().code(), 0);
  EXPECT_EQ(past.confs_size(), 0);
}

TEST_F(ControlPlaneServicesTest, ARequestWithoutItsBodyIsRefusedNamingWhatIsMissing) {
  PeerIdentity peer{"127.0.0.1", "", ""};
  struct Case {
    unsigned type;
    const char* missing;
  };
  for (const Case& c : {Case{ov::GET_TASK_QUEUE_REQUEST, "get_task_queue_request"},
                        Case{ov::GET_AGGREGATION_REQUEST, "get_aggregation_request"},
                        Case{ov::GET_JOB_REQUEST, "get_job_request"}, Case{ov::GET_CONF_REQUEST, "get_conf_request"},
                        Case{ov::RECORD_STATS_REQUEST, "record_stats_request"},
                        Case{ov::RECORD_STRING_STATS_REQUEST, "record_string_stats_request"}}) {
    zelvar::ZMessage reply = Answer(Request(c.type), &peer);
    EXPECT_EQ(reply.head().message_type(), c.type + 1);
    const zelvar::ResponseCode& rc = ResultOf(reply);
    EXPECT_EQ(rc.code(), kCodeMissingBody) << c.type;
    EXPECT_NE(rc.msg().find(c.missing), std::string::npos) << rc.msg();
  }

  // The kinds that are never answered are dropped with a log line.
  zelvar::ZMessage reply;
  EXPECT_FALSE(services->Handle(Request(ov::AGENT_HEART_BEAT_REQUEST), &peer, 1000, &reply));
  EXPECT_FALSE(services->Handle(Request(ov::SEND_REAL_TIME_BUFF_REQUEST), &peer, 1000, &reply));
  EXPECT_FALSE(services->Handle(Request(55555), &peer, 1000, &reply));
  ASSERT_EQ(logged.size(), 3u);
  EXPECT_NE(logged[0].find("4 dropped a heartbeat"), std::string::npos) << logged[0];
  EXPECT_NE(logged[2].find("unknown type 55555"), std::string::npos) << logged[2];
  std::string error;
  EXPECT_TRUE(store.Agents(&error).empty());
  EXPECT_TRUE(Stored().empty());
}

TEST_F(ControlPlaneServicesTest, SamplesAreCreditedToTheAgentAcrossReconnections) {
  PeerIdentity first{"10.0.0.5", "", ""};
  Answer(AskTaskQueue("/ovita2/agents/web-01"), &first);
  Answer(OneNumericSample("load1", 5), &first);  // nobody has named itself yet: the node path stands in
  Answer(AskJobs("web-01"), &first);
  Answer(OneNumericSample("load1", 123), &first);

  PeerIdentity sameAddress{"10.0.0.5", "", ""};  // reconnected, has said nothing yet
  Answer(OneNumericSample("load1", -7), &sameAddress);
  PeerIdentity sameNode{"10.0.0.9", "", ""};  // moved, but says its node path
  Answer(AskTaskQueue("/ovita2/agents/web-01"), &sameNode);
  Answer(OneNumericSample("load1", 0), &sameNode);
  PeerIdentity stranger{"10.0.0.77", "", ""};
  Answer(OneNumericSample("load1", 1), &stranger);

  std::vector<SampleRow> rows = Stored();
  ASSERT_EQ(rows.size(), 5u);
  EXPECT_EQ(rows[0].agent, "/ovita2/agents/web-01");
  EXPECT_EQ(rows[1].agent, "web-01");
  EXPECT_EQ(rows[1].value, 123);
  EXPECT_EQ(rows[1].object_id, std::optional<uint32_t>(1));
  EXPECT_EQ(rows[1].stat_item, 11u);
  EXPECT_EQ(rows[1].received_at, 1000);
  EXPECT_FALSE(rows[1].text);
  EXPECT_EQ(rows[2].agent, "web-01");
  EXPECT_EQ(rows[2].value, -7);
  EXPECT_EQ(rows[3].agent, "web-01");
  EXPECT_EQ(rows[4].agent, "10.0.0.77");

  // A restarted control plane still knows who is behind the node path.
  ControlPlaneServices restarted(Endpoint{"cp-1", "192.0.2.7", 7100}, &store, nullptr);
  PeerIdentity later{"10.0.0.200", "", ""};
  zelvar::ZMessage reply;
  restarted.Handle(AskTaskQueue("/ovita2/agents/web-01"), &later, 2000, &reply);
  EXPECT_EQ(restarted.AgentLabel(later), "web-01");
}

TEST_F(ControlPlaneServicesTest, TextSamplesKeepTheirTextAndFindTheirObjectWhenTheJobIdIsUnambiguous) {
  PeerIdentity peer{"127.0.0.1", "", ""};
  Answer(AskJobs("web-01"), &peer);
  auto reply = Answer(OneTextSample(2, "6.1.0-13-amd64\n"), &peer);
  EXPECT_EQ(reply.body().GetExtension(tl::record_string_stats_response).rc().code(), 0);
  Answer(OneTextSample(1, "two objects have a job 1\n"), &peer);
  Answer(OneTextSample(3, "db\n"), &peer);

  std::vector<SampleRow> rows = Stored();
  ASSERT_EQ(rows.size(), 3u);
  EXPECT_TRUE(rows[0].text);
  EXPECT_EQ(rows[0].text_value, "6.1.0-13-amd64\n");
  EXPECT_EQ(rows[0].job_id, 2u);
  EXPECT_EQ(rows[0].sample_time, 1700000000u);
  EXPECT_EQ(rows[0].object_id, std::optional<uint32_t>(1));
  EXPECT_EQ(rows[1].object_id, std::nullopt);
  EXPECT_EQ(rows[2].object_id, std::optional<uint32_t>(2));
}

TEST_F(ControlPlaneServicesTest, HeartbeatsAndRealTimeLinesAreStoredWithoutAReply) {
  PeerIdentity peer{"10.1.1.1", "", "/ovita2/agents/web-01"};
  zelvar::ZMessage beat = Request(ov::AGENT_HEART_BEAT_REQUEST);
  auto* body = beat.mutable_body()->MutableExtension(ov::agent_heart_beat_request);
  body->set_agent_name("web-01");
  body->set_version("1.0.13");
  body->set_job_count(2);
  zelvar::ZMessage reply;
  EXPECT_FALSE(services->Handle(beat, &peer, 1234, &reply));

  zelvar::ZMessage line = Request(ov::SEND_REAL_TIME_BUFF_REQUEST);
  line.mutable_body()->MutableExtension(ov::send_real_time_buff_request)->set_line("eth0 rx 12");
  EXPECT_FALSE(services->Handle(line, &peer, 1240, &reply));

  std::string error;
  std::vector<AgentRow> agents = store.Agents(&error);
  ASSERT_EQ(agents.size(), 1u) << error;
  EXPECT_EQ(agents[0].name, "web-01");
  EXPECT_EQ(agents[0].last_heartbeat, 1234);
  EXPECT_EQ(agents[0].version, "1.0.13");
  EXPECT_EQ(agents[0].job_count, 2u);
  EXPECT_EQ(agents[0].address, "10.1.1.1");

  SampleQuery all;
  std::vector<RealTimeLineRow> lines = store.RecentRealTimeLines(all, &error);
  ASSERT_EQ(lines.size(), 1u) << error;
  EXPECT_EQ(lines[0].agent, "web-01");
  EXPECT_EQ(lines[0].line, "eth0 rx 12");
  EXPECT_EQ(lines[0].received_at, 1240);
}

TEST_F(ControlPlaneServicesTest, SamplesThatCannotBeStoredAreAnsweredWithTheStoresError) {
  SampleStore closed;  // never opened: every write fails
  ControlPlaneServices failing(Endpoint{"cp-1", "192.0.2.7", 7100}, &closed,
                               [this](int level, const std::string& line) {
                                 logged.push_back(std::to_string(level) + " " + line);
                               });
  PeerIdentity peer{"127.0.0.1", "web-01", ""};
  zelvar::ZMessage reply;
  ASSERT_TRUE(failing.Handle(OneNumericSample("load1", 1), &peer, 1000, &reply));
  const auto& rc = reply.body().GetExtension(tl::record_stats_response).rc();
  EXPECT_EQ(rc.code(), kCodeStoreFailed);
  EXPECT_FALSE(rc.msg().empty());
  ASSERT_FALSE(logged.empty());
  EXPECT_NE(logged.back().find("4 1 numeric samples of web-01 lost"), std::string::npos) << logged.back();
}

}  // namespace
}  // namespace controlplane
