// The control plane's answers and what it stores, request by request, without
// a host: each request is written as the agent's envelope body would read.
#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "local_system.h"
#include "services/control_plane_services.h"
#include "zelvar/message_util.h"

namespace controlplane {
namespace {

// Object 1 and 2 both have a job 1, so a text sample of job 1 has no object.
constexpr const char* kJobs = R"(agents:
  web-01:
    objects:
      - {object_id: 1, jobs: [{job_id: 1, stat_item: 11, interval: 9, command: a, stat_key: x},
                              {job_id: 2, interval: 9, command: b, stat_key: y, string_value: 1}]}
      - {object_id: 2, jobs: [{job_id: 1, interval: 9, command: c, stat_key: x}, {job_id: 3, interval: 9, command: d, stat_key: z}]}
    confs: {1: [{target: sshd, parameter: 5}, {target: cron}], 2: [{target: "error|fail"}]}
)";

// A request of `type` from an agent's machine 42, its body in text format.
zelvar::ZMessage Request(int type, const std::string& body = "") {
  zelvar::ZMessage request;
  zelvar::NewMessage(&request, 9, "session-1", type, 0, false, 42, 0, nullptr, nullptr, nullptr);
  EXPECT_TRUE(google::protobuf::TextFormat::ParseFromString(body, request.mutable_body())) << body;
  return request;
}
zelvar::ZMessage Numeric(int value) {
  return Request(61030, "[zelvar.tellar2.record_stats_request] { stats { name: 'x' object_id: 1 stat_item: 11 value: " +
                            std::to_string(value) + " } }");
}
zelvar::ZMessage Text(int job) {
  return Request(61032, "[zelvar.tellar2.record_string_stats_request] { stats { name: 'y' job_id: " +
                            std::to_string(job) + " value: 'out\\n' time: 1700000000 } }");
}
const char* kAskQueue = "[zelvar.ovita2.get_task_queue_request] { node_path: '/ovita2/agents/web-01' }";
const char* kAskAggregation = "[zelvar.ovita2.get_aggregation_request] { node_path: '/ovita2/agents/web-01' }";
const char* kAskJobs = "[zelvar.ovita2.get_job_request] { agent_name: 'web-01' }";

class ServicesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string error;
    ASSERT_TRUE(store.Open(dir.Path() + "/cp.db", &error)) << error;
    ASSERT_TRUE(JobCatalogue::Parse(kJobs, "jobs.yaml", catalogue.get(), &error)) << error;
    Restart(&store);
  }
  void Restart(SampleStore* on) {
    services = std::make_unique<ControlPlaneServices>(
        Endpoint{"cp-1", "192.0.2.7", 7100}, on,
        [this](int level, const std::string& line) { logged += std::to_string(level) + " " + line + "\n"; });
    services->SetCatalogue(catalogue);
  }
  // The reply's body in text format, or "none" when there is no reply.
  std::string Answer(const zelvar::ZMessage& request, PeerIdentity* peer) {
    zelvar::ZMessage reply;
    if (!services->Handle(request, peer, 1000, &reply)) return "none";
    EXPECT_EQ(reply.head().message_type(), request.head().message_type() + 1);
    EXPECT_EQ(reply.head().kind(), zelvar::kKindResponse);
    EXPECT_EQ(reply.head().dst_machine_id(), 42u);
    EXPECT_EQ(reply.head().flow_no(), 9u);
    return reply.body().ShortDebugString();
  }
  // Stored samples as "agent object value-or-text".
  std::vector<std::string> Stored() const {
    std::string error;
    std::vector<std::string> rows;
    for (const SampleRow& row : store.RecentSamples(SampleQuery(), &error)) {
      rows.push_back(row.agent + " " + (row.object_id ? std::to_string(*row.object_id) : "-") + " " +
                     (row.text ? row.text_value : std::to_string(row.value)));
    }
    return rows;
  }

  ovita2::testing::TempDir dir;
  SampleStore store;
  std::shared_ptr<JobCatalogue> catalogue = std::make_shared<JobCatalogue>();
  std::string logged;
  std::unique_ptr<ControlPlaneServices> services;
};

TEST_F(ServicesTest, EachRequestKindGetsItsAnswerAndResultCode) {
  const std::string endpoint = "{ rc { code: 0 } name: \"cp-1\" ip: \"192.0.2.7\" port: 7100 }";
  const std::vector<std::pair<zelvar::ZMessage, std::string>> cases = {
      {Request(67000, kAskQueue), "[zelvar.ovita2.get_task_queue_response] " + endpoint},
      {Request(66000, kAskAggregation), "[zelvar.ovita2.get_aggregation_response] " + endpoint},
      {Request(68000, kAskJobs),
       "[zelvar.ovita2.get_job_response] { rc { code: 0 } "
       "object_jobs { object_id: 1 job { job_id: 1 stat_item: 11 interval: 9 command: \"a\" stat_key: \"x\" } } "
       "object_jobs { object_id: 1 job { job_id: 2 interval: 9 command: \"b\" stat_key: \"y\" string_value: 1 } } "
       "object_jobs { object_id: 2 job { job_id: 1 interval: 9 command: \"c\" stat_key: \"x\" } } "
       "object_jobs { object_id: 2 job { job_id: 3 interval: 9 command: \"d\" stat_key: \"z\" } } }"},
      {Request(68000, "[zelvar.ovita2.get_job_request] { agent_name: 'db-07' }"),
       "[zelvar.ovita2.get_job_response] { rc { code: -70002 msg: \"agent \\\"db-07\\\" is not in the jobs file\" } }"},
      {Request(68000, "[zelvar.ovita2.get_job_request] { }"),
       "[zelvar.ovita2.get_job_response] { rc { code: -70002 msg: \"the request names no agent\" } }"},
      {Request(68010, "[zelvar.ovita2.get_conf_request] { agent_name: 'web-01' conf_type: 1 }"),
       "[zelvar.ovita2.get_conf_response] { rc { code: 0 } confs { target: \"sshd\" parameter: \"5\" } "
       "confs { target: \"cron\" parameter: \"0\" } }"},
      // An empty list past the last type ends the agent's pass over the types.
      {Request(68010, "[zelvar.ovita2.get_conf_request] { agent_name: 'web-01' conf_type: 3 }"),
       "[zelvar.ovita2.get_conf_response] { rc { code: 0 } }"},
      {Request(68010, "[zelvar.ovita2.get_conf_request] { agent_name: 'db-07' conf_type: 1 }"),
       "[zelvar.ovita2.get_conf_response] { rc { code: -70002 msg: \"agent \\\"db-07\\\" is not in the jobs file\" } }"},
      {Numeric(5), "[zelvar.tellar2.record_stats_response] { rc { code: 0 } }"},
      {Text(2), "[zelvar.tellar2.record_string_stats_response] { rc { code: 0 } }"},
      {Request(67000), "[zelvar.ovita2.get_task_queue_response] { rc { code: -70001 msg: \"request 67000 carries no get_task_queue_request\" } }"},
      {Request(66000), "[zelvar.ovita2.get_aggregation_response] { rc { code: -70001 msg: \"request 66000 carries no get_aggregation_request\" } }"},
      {Request(68000), "[zelvar.ovita2.get_job_response] { rc { code: -70001 msg: \"request 68000 carries no get_job_request\" } }"},
      {Request(68010), "[zelvar.ovita2.get_conf_response] { rc { code: -70001 msg: \"request 68010 carries no get_conf_request\" } }"},
      {Request(61030), "[zelvar.tellar2.record_stats_response] { rc { code: -70001 msg: \"request 61030 carries no record_stats_request\" } }"},
      {Request(61032), "[zelvar.tellar2.record_string_stats_response] { rc { code: -70001 msg: \"request 61032 carries no record_string_stats_request\" } }"},
      // Heartbeats and real-time lines are never answered.
      {Request(66015, "[zelvar.ovita2.agent_heart_beat_request] { agent_name: 'web-01' }"), "none"},
      {Request(66014, "[zelvar.ovita2.send_real_time_buff_request] { line: 'l' }"), "none"},
      {Request(66015), "none"},
      {Request(66014), "none"},
      {Request(55555), "none"},
  };
  for (const auto& c : cases) {
    PeerIdentity peer{"127.0.0.1", "", ""};
    EXPECT_EQ(Answer(c.first, &peer), c.second) << c.first.head().message_type();
  }
  for (const char* dropped : {"4 dropped a heartbeat without agent_heart_beat_request from ",
                              "4 dropped a real-time line without send_real_time_buff_request from ",
                              "4 ignored a request of unknown type 55555 from "}) {
    EXPECT_NE(logged.find(dropped), std::string::npos) << logged;
  }
}

TEST_F(ServicesTest, SamplesAreCreditedToTheAgentAcrossReconnectionsAndRestarts) {
  PeerIdentity first{"10.0.0.5", "", ""};
  Answer(Request(67000, kAskQueue), &first);
  Answer(Numeric(5), &first);  // nobody has named itself yet: the node path stands in
  Answer(Request(68000, kAskJobs), &first);
  Answer(Numeric(123), &first);
  PeerIdentity sameAddress{"10.0.0.5", "", ""};  // reconnected, has said nothing yet
  Answer(Numeric(-7), &sameAddress);
  PeerIdentity sameNode{"10.0.0.9", "", ""};  // moved, but says its node path
  Answer(Request(66000, kAskAggregation), &sameNode);
  Answer(Numeric(0), &sameNode);
  PeerIdentity stranger{"10.0.0.77", "", ""};
  Answer(Numeric(1), &stranger);
  EXPECT_EQ(Stored(), (std::vector<std::string>{"/ovita2/agents/web-01 1 5", "web-01 1 123", "web-01 1 -7",
                                                "web-01 1 0", "10.0.0.77 1 1"}));
  std::string error;
  const SampleRow row = store.RecentSamples(SampleQuery(), &error).at(1);
  EXPECT_EQ(row.stat_item, 11u);
  EXPECT_EQ(row.received_at, 1000);

  Restart(&store);  // a restarted control plane learns from the agents table
  PeerIdentity later{"10.0.0.200", "", ""}, lastAddress{"10.0.0.9", "", ""};
  Answer(Request(67000, kAskQueue), &later);
  EXPECT_EQ(services->AgentLabel(later), "web-01");
  EXPECT_EQ(services->AgentLabel(lastAddress), "web-01");
}

TEST_F(ServicesTest, TextSamplesFindTheirObjectOnlyWhenOneObjectHasTheJob) {
  PeerIdentity peer{"127.0.0.1", "", ""};
  Answer(Request(68000, kAskJobs), &peer);
  for (int job : {2, 1, 3}) Answer(Text(job), &peer);
  EXPECT_EQ(Stored(), (std::vector<std::string>{"web-01 1 out\n", "web-01 - out\n", "web-01 2 out\n"}));
  std::string error;
  const SampleRow row = store.RecentSamples(SampleQuery(), &error).at(0);
  EXPECT_EQ(row.job_id, 2u);
  EXPECT_EQ(row.name, "y");
  EXPECT_EQ(row.sample_time, 1700000000u);
}

TEST_F(ServicesTest, HeartbeatsAndRealTimeLinesAreStoredUnderTheAgent) {
  PeerIdentity peer{"10.1.1.1", "", "/ovita2/agents/web-01"};
  zelvar::ZMessage reply;
  services->Handle(Request(66015, "[zelvar.ovita2.agent_heart_beat_request] { agent_name: 'web-01' version: '1.0.13' "
                                  "job_count: 2 }"),
                   &peer, 1234, &reply);
  services->Handle(Request(66014, "[zelvar.ovita2.send_real_time_buff_request] { line: 'eth0 rx 12' }"), &peer, 1240,
                   &reply);
  std::string error;
  std::vector<AgentRow> agents = store.Agents(&error);
  ASSERT_EQ(agents.size(), 1u) << error;
  EXPECT_EQ(agents[0].name + " " + agents[0].address + " " + agents[0].version, "web-01 10.1.1.1 1.0.13");
  EXPECT_EQ(agents[0].last_heartbeat, 1234);
  EXPECT_EQ(agents[0].job_count, 2u);
  std::vector<RealTimeLineRow> lines = store.RecentRealTimeLines(SampleQuery(), &error);
  ASSERT_EQ(lines.size(), 1u) << error;
  EXPECT_EQ(lines[0].agent + " " + lines[0].line + " " + std::to_string(lines[0].received_at), "web-01 eth0 rx 12 1240");
}

TEST_F(ServicesTest, SamplesThatCannotBeStoredAreAnsweredWithTheStoresError) {
  SampleStore closed;  // never opened: every write fails
  Restart(&closed);
  PeerIdentity peer{"127.0.0.1", "web-01", ""};
  EXPECT_EQ(Answer(Numeric(1), &peer),
            "[zelvar.tellar2.record_stats_response] { rc { code: -70003 msg: \"the sample database is not open\" } }");
  EXPECT_EQ(Answer(Text(2), &peer),
            "[zelvar.tellar2.record_string_stats_response] { rc { code: -70003 msg: \"the sample database is not open\" } }");
  EXPECT_NE(logged.find("4 1 numeric samples of web-01 lost"), std::string::npos) << logged;
}

}  // namespace
}  // namespace controlplane
