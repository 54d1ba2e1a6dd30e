// The control plane without a host: jobs file, database, request handlers and ovita2ctl in-process.
#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <functional>
#include <optional>
#include <regex>
#include <sstream>
#include <thread>

#include "client/client_app.h"
#include "local_system.h"
#include "services/control_plane_services.h"
#include "zelvar/frame.h"
#include "zelvar/message_util.h"

namespace controlplane {
namespace {

using google::protobuf::TextFormat;
using ovita2::testing::TempDir;


// One job of object 1 of agent "web-01": its first field at line 6, column 13, the others below it.
std::string WithJob(const std::string& fields) {
  return "agents:\n  web-01:\n    objects:\n      - object_id: 1\n        jobs:\n          - " +
         std::regex_replace(fields, std::regex("\n"), "\n            ") + "\n";
}

// The latest value of every series, as "agent/stat_item=tenths@received_at ".
std::string LatestOf(const SampleStore& store) {
  std::string error, values;
  for (const LatestValueRow& row : store.LatestValues("", &error)) {
    values += row.agent + "/" + std::to_string(row.stat_item) + "=" + std::to_string(row.value) + "@" +
              std::to_string(row.received_at) + " ";
  }
  return values + error;
}

TEST(SampleStore, LatestValuesFollowInsertsAreRebuiltInAnOlderDatabaseAndLeaveWithPrunedSamples) {
  TempDir dir;
  const std::string path = dir.Path() + "/cp.db";
  std::string error;
  SampleRow first{0, 100, "web-01", false, "load", 1, 7, 0, 10, "", 0}, later = first, other = first, text = first;
  later.received_at = 200;
  later.value = 20;
  other.stat_item = 8;
  text.text = true;
  {
    SampleStore store;
    ASSERT_TRUE(store.Open(path, &error) && store.AddSamples({first, later, other, text}, &error)) << error;
    EXPECT_EQ(LatestOf(store), "web-01/7=20@200 web-01/8=10@100 ");
  }
  sqlite3* older = nullptr;  // as written before the latest values were kept
  ASSERT_EQ(sqlite3_open(path.c_str(), &older), SQLITE_OK);
  EXPECT_EQ(sqlite3_exec(older, "DROP TRIGGER samples_keep_latest; DROP TABLE latest_samples;"
                         "DROP INDEX samples_by_series", nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_close(older);
  SampleStore store;
  ASSERT_TRUE(store.Open(path, &error)) << error;
  EXPECT_EQ(LatestOf(store), "web-01/7=20@200 web-01/8=10@100 ");
  ASSERT_TRUE(store.Prune(150, &error)) << error;
  EXPECT_EQ(LatestOf(store), "web-01/7=20@200 ");
}

TEST(JobCatalogue, UnlistedAgentsGetTheAnyEntryAFailedLoadKeepsTheLastAndEachMistakeIsReportedWithItsPlace) {
  JobCatalogue catalogue;
  std::string error;
  ASSERT_TRUE(JobCatalogue::Parse("agents: {web-01: , \"*\": {objects: [{object_id: 9}]}}\n", "j", &catalogue, &error));
  EXPECT_TRUE(catalogue.Find("web-01")->object_jobs.empty());
  EXPECT_EQ(catalogue.Find("db-07"), catalogue.Find("*"));
  ASSERT_TRUE(JobCatalogue::Load(DEMO_JOBS_FILE, &catalogue, &error)) << error;
  EXPECT_EQ(catalogue.Find("db-07"), nullptr) << "without a \"*\" entry an unlisted agent is unknown";
  EXPECT_FALSE(JobCatalogue::Load("/nonexistent/jobs.yaml", &catalogue, &error));
  EXPECT_EQ(error, "/nonexistent/jobs.yaml: cannot read: No such file or directory");
  EXPECT_FALSE(catalogue.Find("demo")->object_jobs.empty());

  const std::string job = "job_id: 3\ncommand: c\nstat_key: k\n", web = "agents:\n  web-01:\n";
  const std::string confs = web + "    confs:\n      ";
  const std::string uint32 = "job field \"interval\" must be an unsigned 32-bit integer, not ";
  // Each message is whole, but for YAML's own words after "invalid YAML: ".
  const std::vector<std::pair<std::string, std::string>> cases = {
      {WithJob(job + "intervall: 10"), "9:13: unknown job field \"intervall\" (known: job_id, stat_item, interval, "},
      {WithJob(job + "interval: 4294967296"), "9:23: " + uint32 + "\"4294967296\""},
      {WithJob(job + "interval: \"10\""), "9:23: " + uint32 + "the quoted text \"10\" (drop the quotes)"},
      {WithJob(job + "interval: 0"), "9:23: job field \"interval\" must be at least 1, not 0"},
      {WithJob(job + "interval: 5\ninterval: 6"), "10:13: job field \"interval\" is given twice (first at line 9)"},
      {WithJob("job_id: 3\ninterval: 5\nstat_key: k"),
       "6:13: job 3 of object 1 of agent \"web-01\" has no \"command\""},
      {WithJob("job_id: 3\ninterval: 5\ncommand: ''\nstat_key: k"), "8:22: job field \"command\" must not be empty"},
      {WithJob(job + "interval: 5\ndescription:"), "10:13: job field \"description\" has no value (write \"\" for"},
      {WithJob(job + "interval: 5\ncommand_args: {a: 1}"), "10:27: job field \"command_args\" must be text, not a map"},
      {web + "    objects:\n      - {object_id: 1, jobs: [{job_id: 3, interval: 5, command: a, stat_key: a},\n"
             "          {job_id: 3, interval: 5, command: b, stat_key: b}]}\n",
       "5:20: job 3 of object 1 of agent \"web-01\" is defined twice (first at line 4)"},
      {"agents:\n  web-01: yes\n", "2:11: agent \"web-01\" must be a map (of \"objects\" and \"confs\"), not \"yes\""},
      {"agents:\n", "1:1: \"agents\" is empty (write \"agents: {}\" for no agents)"},
      {confs + "1: [{target: a, parameter: -1}]\n",
       "4:34: collector configuration field \"parameter\" must be an unsigned 64-bit decimal number, not \"-1\""},
      {confs + "2: [{target: sshd}, {target: cron},\n          {target: sshd}]\n",
       "5:20: target \"sshd\" of collector type 2 of agent \"web-01\" is given twice (first at line 4)"},
      {"agents:\n  web-01: {objects: [}\n", "2:22: invalid YAML: "},
      {"agents: {}\n---\nagents: {}\n", "3:1: a jobs file holds one YAML document, not more"},
      {"# nothing yet\n", " no \"agents\" map"},
  };
  for (const auto& mistake : cases) {
    EXPECT_FALSE(JobCatalogue::Parse(mistake.first, "jobs.yaml", &catalogue, &error)) << mistake.first;
    EXPECT_EQ(error.substr(0, mistake.second.size() + 10), "jobs.yaml:" + mistake.second) << mistake.first;
  }
}


SampleRow Numeric(const std::string& agent, int64_t tenths, int64_t receivedAt = 1000, uint32_t object = 1,
                  const std::string& name = "load") {
  return SampleRow{0, receivedAt, agent, false, name, object, 1001, 0, tenths, "", 0};
}
SampleRow Text(const std::string& agent, const std::string& name, const std::string& text, int64_t receivedAt = 1000) {
  return SampleRow{0, receivedAt, agent, true, name, std::nullopt, 0, 3, 0, text, uint32_t(receivedAt - 1)};
}

class SampleStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "UTC", 1);  // the client's tests read times in UTC
    tzset();
    ASSERT_TRUE(store.Open(path, &error)) << error;
    alarm(20);  // a follower that is never stopped ends this program rather than hang it
  }
  void TearDown() override { alarm(0); }
  void Store(const std::vector<SampleRow>& rows) { ASSERT_TRUE(store.AddSamples(rows, &error)) << error; }

  TempDir dir;
  const std::string path = dir.Path() + "/cp.db";
  SampleStore store;
  std::string error;
};


// Object 1 and 2 both have a job 1, so a text sample of job 1 has no object. Agents are handed
// exactly the fields written: a field set to its default is not a field left out.
constexpr const char* kJobs = R"(agents:
  web-01:
    objects:
      - {object_id: 1, jobs: [{job_id: 1, stat_item: 4294967295, interval: 9, command: 42, command_args: -p,
           second_phase: 1, second_phase_command: "echo x", second_phase_delay: 5, stat_key: "007", description: ""},
                              {job_id: 2, interval: 9, command: b, stat_key: y, string_value: 1}]}
      - {object_id: 2, jobs: [{job_id: 1, interval: 9, command: c, stat_key: x},
                              {job_id: 3, interval: 9, command: d, stat_key: z}]}
    confs: {1: [{target: sshd, parameter: 18446744073709551615}, {target: cron}, {target: "a|b", parameter: "007"}],
            2: [{target: "error|fail"}]}
)";
const std::string kOvita = "[zelvar.ovita2.", kTellar = "[zelvar.tellar2.";

zelvar::ZMessage Request(int type, const std::string& body = "") {  // from agent machine 42, on flow 9
  zelvar::ZMessage request;
  zelvar::NewMessage(&request, 9, "session-1", type, 0, false, 42, 0, nullptr, nullptr, nullptr);
  EXPECT_TRUE(TextFormat::ParseFromString(body, request.mutable_body())) << body;
  return request;
}
zelvar::ZMessage NumericSample(int value) {
  return Request(61030, kTellar + "record_stats_request] { stats { name: 'x' object_id: 1 stat_item: 11 value: " +
                            std::to_string(value) + " } }");
}
zelvar::ZMessage TextSample(int job, const std::string& name = "y") {
  return Request(61032, kTellar + "record_string_stats_request] { stats { name: '" + name +
                            "' job_id: " + std::to_string(job) +
                            " value: 'out' time: 1700000000 } }");
}
// Built when called: the extensions they name are registered by other files' static initialisers.
auto AskQueue() { return Request(67000, kOvita + "get_task_queue_request] { node_path: '/a/web-01' }"); }
auto AskAggregation() { return Request(66000, kOvita + "get_aggregation_request] { node_path: '/a/web-01' }"); }
auto AskJobs() { return Request(68000, kOvita + "get_job_request] { agent_name: 'web-01' }"); }

class ServicesTest : public SampleStoreTest {
 protected:
  void SetUp() override {
    SampleStoreTest::SetUp();
    ASSERT_TRUE(JobCatalogue::Parse(kJobs, "jobs.yaml", catalogue.get(), &error)) << error;
    Restart(&store);
  }
  void Restart(SampleStore* on) {
    services = std::make_unique<ControlPlaneServices>(Endpoint{"cp-1", "192.0.2.7", 7100}, on,
        [this](int level, const std::string& line) { logged += std::to_string(level) + " " + line + "\n"; });
    services->SetCatalogue(catalogue);
  }
  std::string Answer(const zelvar::ZMessage& request, PeerIdentity* peer, int64_t now = 1000) {
    zelvar::ZMessage reply;
    if (!services->Handle(request, peer, now, &reply)) return "none";
    EXPECT_TRUE(reply.head().message_type() == request.head().message_type() + 1 && reply.head().flow_no() == 9 &&
                reply.head().kind() == zelvar::kKindResponse && reply.head().dst_machine_id() == 42);
    return reply.body().ShortDebugString();
  }
  std::vector<std::string> Stored() {
    std::vector<std::string> rows;
    for (const SampleRow& row : store.RecentSamples(SampleQuery(), &error))
      rows.push_back(row.agent + " " + (row.object_id ? std::to_string(*row.object_id) : "-") + " " +
                     (row.text ? row.text_value : std::to_string(row.value)));
    return rows;
  }

  std::string logged;
  std::shared_ptr<JobCatalogue> catalogue = std::make_shared<JobCatalogue>();
  std::unique_ptr<ControlPlaneServices> services;
};

TEST_F(ServicesTest, EachRequestKindGetsItsAnswerAndResultCode) {
  const std::string endpoint = "response] { rc { code: 0 } name: \"cp-1\" ip: \"192.0.2.7\" port: 7100 }";
  auto bodyless = [](int type, const std::string& extension, const std::string& name) {
    return std::make_pair(Request(type), extension + name + "response] { rc { code: -70001 msg: \"request " +
                                             std::to_string(type) + " carries no " + name + "request\" } }");
  };
  const std::vector<std::pair<zelvar::ZMessage, std::string>> cases = {
      bodyless(67000, kOvita, "get_task_queue_"), bodyless(68000, kOvita, "get_job_"),
      bodyless(68010, kOvita, "get_conf_"), {Request(61030), "none"}, {Request(61032), "none"},
      {NumericSample(1), "none"}, {TextSample(2), "none"},
      {AskQueue(), kOvita + "get_task_queue_" + endpoint},
      {AskAggregation(), kOvita + "get_aggregation_" + endpoint},
      {AskJobs(),
       kOvita + "get_job_response] { rc { code: 0 } object_jobs { object_id: 1 job { job_id: 1 stat_item: 4294967295 "
                "interval: 9 command: \"42\" command_args: \"-p\" second_phase: 1 second_phase_command: \"echo x\" "
                "second_phase_delay: 5 stat_key: \"007\" description: \"\" } } "
           "object_jobs { object_id: 1 job { job_id: 2 interval: 9 command: \"b\" stat_key: \"y\" string_value: 1 } } "
           "object_jobs { object_id: 2 job { job_id: 1 interval: 9 command: \"c\" stat_key: \"x\" } } "
           "object_jobs { object_id: 2 job { job_id: 3 interval: 9 command: \"d\" stat_key: \"z\" } } }"},
      {Request(68000, kOvita + "get_job_request] { agent_name: 'db-07' }"),
       kOvita + "get_job_response] { rc { code: -70002 msg: \"agent \\\"db-07\\\" is not in the jobs file\" } }"},
      {Request(68000, kOvita + "get_job_request] { }"),
       kOvita + "get_job_response] { rc { code: -70002 msg: \"the request names no agent\" } }"},
      {Request(68010, kOvita + "get_conf_request] { agent_name: 'db-07' conf_type: 1 }"),
       kOvita + "get_conf_response] { rc { code: -70002 msg: \"agent \\\"db-07\\\" is not in the jobs file\" } }"},
      {Request(68010, kOvita + "get_conf_request] { agent_name: 'web-01' conf_type: 1 }"),
       kOvita + "get_conf_response] { rc { code: 0 } confs { target: \"sshd\" parameter: \"18446744073709551615\" } "
                "confs { target: \"cron\" parameter: \"0\" } confs { target: \"a|b\" parameter: \"7\" } }"},
      // An empty list past the last type ends the agent's pass over the types.
      {Request(68010, kOvita + "get_conf_request] { agent_name: 'web-01' conf_type: 3 }"),
       kOvita + "get_conf_response] { rc { code: 0 } }"},
      {Request(66015), "none"}, {Request(66014), "none"}, {Request(55555), "none"},
  };
  for (const auto& c : cases) {
    PeerIdentity peer{"127.0.0.1", "", ""};
    EXPECT_EQ(Answer(c.first, &peer), c.second) << c.first.head().message_type();
  }
}

TEST_F(ServicesTest, WhatAnAgentSendsIsCreditedToItAcrossReconnectionsAndRestartsOrRefused) {
  PeerIdentity first{"10.0.0.5", "", ""}, sameAddress{"10.0.0.5", "", ""}, moved{"10.0.0.9", "", ""},
      stranger{"10.0.0.77", "", ""}, later{"10.0.0.200", "", ""}, lastAddress{"10.0.0.9", "", ""};
  Answer(AskQueue(), &first);
  Answer(NumericSample(5), &first);  // nobody has named itself yet: the node path stands in
  Answer(AskJobs(), &first);
  Answer(NumericSample(123), &first);
  Answer(NumericSample(-7), &sameAddress);  // reconnected, has said nothing yet
  Answer(AskAggregation(), &moved, 1500);   // a new address, but the same node path
  Answer(NumericSample(0), &moved);
  Answer(NumericSample(1), &stranger);
  // The object whose job has that id and key: a collector's sample (the agent's name, its type as job) has none.
  const std::pair<int, const char*> texts[] = {{2, "y"}, {1, "x"}, {1, "web-01"}};
  for (const auto& [job, key] : texts) Answer(TextSample(job, key), &moved);
  EXPECT_EQ(Stored(), (std::vector<std::string>{"/a/web-01 1 5", "web-01 1 123", "web-01 1 -7", "web-01 1 0",
                                                "10.0.0.77 1 1", "web-01 1 out", "web-01 2 out", "web-01 - out"}));
  const std::vector<SampleRow> rows = store.RecentSamples(SampleQuery(), &error);
  EXPECT_TRUE(rows.at(1).stat_item == 11 && rows.at(1).received_at == 1000 && rows.at(1).name == "x");
  EXPECT_TRUE(rows.at(5).job_id == 2 && rows.at(5).name == "y" && rows.at(5).sample_time == 1700000000);

  Restart(&store);  // a restarted control plane learns who is where from the agents table
  Answer(AskQueue(), &later);
  EXPECT_EQ(services->AgentLabel(later) + " " + services->AgentLabel(lastAddress), "web-01 web-01");
  // A heartbeat carries no node path, and the one known is kept; neither it nor a real-time line is answered.
  auto beat = Request(66015, kOvita + "agent_heart_beat_request] { agent_name: 'web-01' version: '1.3' job_count: 2 }");
  auto line = Request(66014, kOvita + "send_real_time_buff_request] { line: 'eth0 rx 12' }");
  EXPECT_EQ(Answer(beat, &lastAddress, 2000) + Answer(line, &lastAddress, 2001), "nonenone");
  const AgentRow agent = store.Agents(&error).at(0);
  EXPECT_EQ(agent.name + " " + agent.node_path + " " + agent.address + " " + agent.version + " " +
                std::to_string(agent.job_count), "web-01 /a/web-01 10.0.0.9 1.3 2");
  EXPECT_TRUE(agent.first_seen == 1000 && agent.last_seen == 2000 && agent.last_heartbeat == 2000);
  const RealTimeLineRow stored = store.RecentRealTimeLines(SampleQuery(), &error).at(0);
  EXPECT_EQ(stored.agent + " " + stored.line + " " + std::to_string(stored.received_at), "web-01 eth0 rx 12 2001");

  SampleStore closed;  // never opened: every write fails, unanswered but in the log as an error
  Restart(&closed);
  EXPECT_EQ(Answer(NumericSample(1), &lastAddress) + Answer(TextSample(2), &lastAddress), "nonenone");
  EXPECT_NE(logged.find("4 1 numeric samples of web-01 lost: the sample database is not open"), std::string::npos)
      << logged;
  EXPECT_NE(logged.find("4 1 text samples of web-01 lost: "), std::string::npos) << logged;
}


constexpr int64_t kNoon = 1700049600;  // 2023-11-15 12:00:00 UTC
constexpr int kUsage = -1;             // a usage mistake: the parser's own status, above 2

int Ctl(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
  std::vector<const char*> argv{"ovita2ctl"};
  for (const std::string& arg : args) argv.push_back(arg.c_str());
  return RunClient(static_cast<int>(argv.size()), argv.data(), out, err);
}

// Acts each time the client flushes, as a follower does after every batch: rows stored then arrive between polls.
struct FlushHook : std::stringbuf {
  explicit FlushHook(std::function<void(int)> onFlush) : m_fnOnFlush(std::move(onFlush)) {}
  int sync() override { return m_fnOnFlush(++m_iFlushes), 0; }
  std::function<void(int)> m_fnOnFlush;
  int m_iFlushes = 0;
};

class ClientTest : public SampleStoreTest {};

// A batch that fails part way leaves no row and no id behind: the rows and ids below show none of it.
TEST_F(ClientTest, ReadingCommandsPrintWhatWasStoredExitWithTheirStatusAndFollowPrintsEachNewRowOnce) {
  std::vector<SampleRow> failing(2, Numeric("web-01", 5, kNoon));
  failing.back().agent.clear();  // a sample nobody sent cannot be stored
  EXPECT_FALSE(store.AddSamples(failing, &error));
  EXPECT_EQ(error.rfind(path + ": cannot store samples", 0), 0u) << error;
  EXPECT_FALSE(store.AddRealTimeLine("", kNoon, "orphan", &error));
  Store({Numeric("web-01", 123, kNoon), Numeric("web-01", -5, kNoon), Numeric("db-7", 0, kNoon, 22, "temp"),
         Text("web-01", "ps", "a\tb\nc\n\n", kNoon)});
  ASSERT_TRUE(store.TouchAgent("web-02", "", "", kNoon, &error));
  ASSERT_TRUE(store.RecordHeartbeat("web-01", "10.0.0.1", kNoon + 61, "2.1.0", 4, &error));
  for (const char* agent : {"web-01", "web-02", "web-01"})
    ASSERT_TRUE(store.AddRealTimeLine(agent, kNoon, agent, &error));
  setenv("OVITA2_DB", path.c_str(), 1);
  struct Case { std::vector<std::string> args; int status; std::string out, err; };  // err: its start
  const std::vector<Case> cases = {
      {{"samples", "--db", path, "--limit", "5"}, 0,
       "TIME                 AGENT   OBJECT  NAME  VALUE\n"
       "2023-11-15 12:00:00  web-01  1       load  12.3\n"
       "2023-11-15 12:00:00  web-01  1       load  -0.5\n"
       "2023-11-15 12:00:00  db-7    22      temp  0.0\n"
       "2023-11-15 12:00:00  web-01  -       ps    a\\tb\\nc\\n\n", ""},
      {{"samples", "--json", "--agent", "web-01", "--object", "01", "--limit", "1"}, 0,
       R"({"id":2,"received_at":1700049600,"agent":"web-01","kind":"numeric","object_id":1,"name":"load",)"
       R"("stat_item":1001,"tenths":-5,"value":-0.5})" "\n", ""},
      {{"agents", "--db", path}, 0,
       "NAME    LAST HEARTBEAT       VERSION  JOBS  LAST SEEN            ADDRESS   NODE PATH\n"
       "web-01  2023-11-15 12:01:01  2.1.0    4     2023-11-15 12:01:01  10.0.0.1  -\n"
       "web-02  never                -        0     2023-11-15 12:00:00  -         -\n", ""},
      {{"lines", "--agent", "web-01", "--limit", "1", "--json"}, 0,
       R"({"id":3,"received_at":1700049600,"agent":"web-01","line":"web-01"})" "\n", ""},
      {{"agents", "--json", "--db", "/nonexistent/cp.db"}, 2, "", "/nonexistent/cp.db: no such database (the control"},
      {{"samples", "--object", "4294967296"}, kUsage, "", "--object: '4294967296' is larger than 4294967295"},
      {{"enable", "[::1]7300", "7"}, kUsage, "", "ADDRESS: "},
      {{"disable", "127.0.0.1:7x", "7"}, kUsage, "", "ADDRESS: '7x' in '127.0.0.1:7x' is not a port"},
  };
  for (const Case& c : cases) {
    std::ostringstream out, err;
    const int status = Ctl(c.args, out, err);
    EXPECT_TRUE(c.status == kUsage ? status > 2 : status == c.status) << status << " " << err.str();
    EXPECT_EQ(out.str(), c.out);
    EXPECT_EQ(err.str().substr(0, c.err.size()), c.err);
  }
  unsetenv("OVITA2_DB");

  // Rows stored before the start, even those the filter skips, are not new.
  FlushHook hook([&](int flush) {
    if (flush == 1) Store({Numeric("web-01", 3), Numeric("web-02", 4), Numeric("web-01", 5)});
    if (flush == 2) Store({Numeric("web-01", 6)});
    if (flush == 3) raise(SIGINT);
  });
  std::ostream out(&hook);
  std::ostringstream err;
  EXPECT_EQ(Ctl({"follow", "--db", path, "--interval", "0", "--json", "--agent", "web-01", "--last", "0"}, out, err), 0)
      << err.str();
  std::vector<int64_t> ids;
  std::istringstream lines(hook.str());
  for (std::string line; std::getline(lines, line);) ids.push_back(std::stoll(line.substr(line.find(':') + 1)));
  EXPECT_EQ(ids, (std::vector<int64_t>{5, 7, 8}));
}

// Plays an agent for one connection: reads one request into `asked`, answers it with `type` (0: closes instead).
void AnswerOnce(int listener, int type, const std::string& rc, zelvar::ZMessage* asked) {
  pollfd listening{listener, POLLIN, 0};  // a client that never calls must not hang the test
  if (poll(&listening, 1, 5000) != 1) return;
  const int fd = accept(listener, nullptr, nullptr);
  std::string body(4, '\0');
  recv(fd, &body[0], 4, MSG_WAITALL);
  body.resize(zelvar::FrameBodyLength(reinterpret_cast<const unsigned char*>(body.data())));
  if (recv(fd, &body[0], body.size(), MSG_WAITALL) > 0 && asked->ParseFromString(body) && type != 0) {
    zelvar::ZMessage reply;
    zelvar::MakeResponse(*asked, type, &reply);
    TextFormat::ParseFromString(kOvita + "enable_real_time_monitor_response] { rc { " + rc + " } }",
                                reply.mutable_body());
    ovita2::testing::SendAll(fd, zelvar::EncodeFrame(reply));
  }
  close(fd);
}

TEST(ClientSwitch, EnableAndDisableSayWhatTheAgentAnsweredInTheirStatus) {
  struct Case { std::string command, item; int type; std::string rc; int status; std::string out, err; };
  for (const Case& c : std::vector<Case>{
           {"enable", "7", 66013, "code: 0", 0, "item 7 enabled\n", ""},
           {"disable", "4294967295", 66013, "code: -64190 msg: 'no'", 1, "",
            "item 4294967295: the agent refused: -64190 no\n"},
           {"enable", "7", 0, "", 2, "", ":%d closed the connection without answering\n"},
           {"enable", "7", 66001, "code: 0", 2, "", ":%d answered with a message of type 66001"}}) {
    int port = 0, listener = ovita2::testing::ListenLoopback(&port);
    zelvar::ZMessage asked;
    std::thread agent(AnswerOnce, listener, c.type, c.rc, &asked);
    std::ostringstream out, err;
    EXPECT_EQ(Ctl({c.command, "127.0.0.1:" + std::to_string(port), c.item}, out, err), c.status) << err.str();
    agent.join();  // the client has returned, so the agent's poll has ended too
    close(listener);
    EXPECT_EQ(out.str(), c.out);
    EXPECT_NE(err.str().find(std::regex_replace(c.err, std::regex("%d"), std::to_string(port))), std::string::npos);
    EXPECT_TRUE(asked.head().message_type() == 66012 && asked.head().kind() == zelvar::kKindRequest &&
                asked.head().session().size() == 36);
    EXPECT_EQ(asked.body().ShortDebugString(), kOvita + "enable_real_time_monitor_request] { item_id: " + c.item +
                                                   " operation: " + (c.command == "enable" ? "0 }" : "1 }"));
  }
}

}  // namespace
}  // namespace controlplane
