// The jobs file: what each agent is handed, and how mistakes are reported.
#include "catalogue/job_catalogue.h"

#include <google/protobuf/util/message_differencer.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

namespace {

using controlplane::AgentCatalogue;
using controlplane::JobCatalogue;
using google::protobuf::util::MessageDifferencer;

// One job of object 1 of agent "web-01"; its first field is at line 6,
// column 13, and each further line of `fields` follows at column 13.
std::string WithJob(const std::string& fields) {
  std::string indented;
  for (char c : fields) indented += c == '\n' ? std::string("\n            ") : std::string(1, c);
  return "agents:\n  web-01:\n    objects:\n      - object_id: 1\n        jobs:\n          - " + indented + "\n";
}

std::string ParseError(const std::string& text) {
  JobCatalogue catalogue;
  std::string error;
  EXPECT_FALSE(JobCatalogue::Parse(text, "jobs.yaml", &catalogue, &error)) << text;
  return error;
}

TEST(JobCatalogue, CompleteFileYieldsExactlyTheWrittenFields) {
  const std::string text = R"(agents:
  web-01:
    objects:
      - object_id: 1
        jobs:
          - {job_id: 3, stat_item: 4294967295, interval: 10, command: uptime, command_args: -p,
             second_phase: 1, second_phase_command: "echo 'x'", second_phase_delay: 5,
             stat_key: up, string_value: 1, description: ""}
          - {job_id: 4, interval: 1, command: 42, stat_key: "007"}
      - object_id: 0
    confs:
      2:
        - {target: "Out of memory|segfault", parameter: 18446744073709551615}
        - {target: kswapd, parameter: "007"}
      1:
        - target: sshd
)";
  JobCatalogue catalogue;
  std::string error;
  ASSERT_TRUE(JobCatalogue::Parse(text, "jobs.yaml", &catalogue, &error)) << error;
  EXPECT_EQ(catalogue.AgentCount(), 1u);
  EXPECT_EQ(catalogue.JobCount(), 2u);
  const AgentCatalogue* agent = catalogue.Find("web-01");
  ASSERT_NE(agent, nullptr);

  zelvar::ovita2::GetJobResponse expected;
  zelvar::ovita2::ObjectJob* full = expected.add_object_jobs();
  full->set_object_id(1);
  zelvar::ovita2::JobDescription* job = full->mutable_job();
  job->set_job_id(3);
  job->set_stat_item(4294967295u);
  job->set_interval(10);
  job->set_command("uptime");
  job->set_command_args("-p");
  job->set_second_phase(1);
  job->set_second_phase_command("echo 'x'");
  job->set_second_phase_delay(5);
  job->set_stat_key("up");
  job->set_string_value(1);
  job->set_description("");
  zelvar::ovita2::ObjectJob* minimal = expected.add_object_jobs();
  minimal->set_object_id(1);
  minimal->mutable_job()->set_job_id(4);
  minimal->mutable_job()->set_interval(1);
  minimal->mutable_job()->set_command("42");
  minimal->mutable_job()->set_stat_key("007");
  zelvar::ovita2::GetJobResponse actual;
  for (const auto& objectJob : agent->object_jobs) *actual.add_object_jobs() = objectJob;
  // Equals() tells a field set to its default from a field left out.
  EXPECT_TRUE(MessageDifferencer::Equals(actual, expected)) << actual.DebugString();

  ASSERT_EQ(agent->confs.size(), 2u);
  const auto& oom = agent->confs.at(2);
  ASSERT_EQ(oom.size(), 2u);
  EXPECT_EQ(oom[0].target(), "Out of memory|segfault");
  EXPECT_EQ(oom[0].parameter(), "18446744073709551615");
  EXPECT_EQ(oom[1].target(), "kswapd");
  EXPECT_EQ(oom[1].parameter(), "7");
  ASSERT_EQ(agent->confs.at(1).size(), 1u);
  EXPECT_EQ(agent->confs.at(1)[0].parameter(), "0") << "a configuration without parameter gets 0";
}

TEST(JobCatalogue, UnlistedAgentGetsTheAnyEntryAndWithoutOneNothing) {
  JobCatalogue catalogue;
  std::string error;
  ASSERT_TRUE(JobCatalogue::Parse(R"(agents:
  web-01:
  "*":
    objects: [{object_id: 9, jobs: [{job_id: 1, interval: 5, command: date, stat_key: d}]}]
)",
                                  "jobs.yaml", &catalogue, &error))
      << error;
  ASSERT_NE(catalogue.Find("web-01"), nullptr);
  EXPECT_TRUE(catalogue.Find("web-01")->object_jobs.empty()) << "a listed agent never falls back to \"*\"";
  ASSERT_NE(catalogue.Find("db-07"), nullptr);
  ASSERT_EQ(catalogue.Find("db-07")->object_jobs.size(), 1u);
  EXPECT_EQ(catalogue.Find("db-07")->object_jobs[0].object_id(), 9u);

  ASSERT_TRUE(JobCatalogue::Parse("agents: {web-01: {}}\n", "jobs.yaml", &catalogue, &error)) << error;
  EXPECT_EQ(catalogue.Find("db-07"), nullptr);
  ASSERT_TRUE(JobCatalogue::Parse("agents: {}\n", "jobs.yaml", &catalogue, &error)) << error;
  EXPECT_EQ(catalogue.AgentCount(), 0u);
}

TEST(JobCatalogue, MistakesAreReportedWithTheirLineAndColumn) {
  const std::string job = "job_id: 3\ncommand: c\nstat_key: k\n";
  struct Case {
    std::string text;
    std::string place;
    std::vector<std::string> words;
  };
  const std::vector<Case> cases = {
      {WithJob(job + "intervall: 10"), "9:13", {"unknown job field \"intervall\"", "known: job_id, stat_item"}},
      {WithJob(job + "interval: ten"), "9:23", {"\"interval\"", "unsigned 32-bit integer", "\"ten\""}},
      {WithJob(job + "interval: -1"), "9:23", {"\"interval\"", "\"-1\""}},
      {WithJob(job + "interval: 4294967296"), "9:23", {"\"interval\"", "\"4294967296\""}},
      {WithJob(job + "interval: 1.5"), "9:23", {"\"interval\"", "\"1.5\""}},
      {WithJob(job + "interval: true"), "9:23", {"\"interval\"", "\"true\""}},
      {WithJob(job + "interval:"), "9:13", {"\"interval\"", "empty"}},
      {WithJob(job + "interval: \"10\""), "9:23", {"\"interval\"", "quoted"}},
      {WithJob(job + "interval: 0"), "9:23", {"\"interval\"", "at least 1"}},
      {WithJob(job + "interval: 5\ninterval: 6"), "10:13", {"\"interval\"", "twice", "first at line 9"}},
      {WithJob("job_id: 3\ninterval: 5\nstat_key: k"),
       "6:13",
       {"job 3 of object 1 of agent \"web-01\"", "\"command\""}},
      {WithJob("interval: 5\ncommand: c\nstat_key: k"), "6:13", {"job of object 1 of agent \"web-01\"", "\"job_id\""}},
      {WithJob("job_id: 3\ninterval: 5\ncommand: c"), "6:13", {"\"stat_key\""}},
      {WithJob(job + "interval: 5\ncommand: \"\""), "10:13", {"\"command\"", "twice", "first at line 7"}},
      {WithJob("job_id: 3\ninterval: 5\ncommand: ''\nstat_key: k"), "8:22", {"\"command\"", "must not be empty"}},
      {WithJob(job + "interval: 5\ndescription:"), "10:13", {"\"description\"", "no value"}},
      {WithJob(job + "interval: 5\ncommand_args: {a: 1}"), "10:27", {"\"command_args\"", "text", "a map"}},
      {"agents:\n  web-01:\n    objects:\n      - jobs: []\n", "4:9", {"object of agent \"web-01\"", "\"object_id\""}},
      {"agents:\n  web-01:\n    objects:\n      - 5\n", "4:9", {"object of agent \"web-01\"", "a map", "\"5\""}},
      {"agents:\n  web-01:\n    objects: {object_id: 1}\n", "3:14", {"\"objects\"", "a list", "a map"}},
      {"agents:\n  web-01:\n    objects:\n      - {object_id: 1, jobs: x}\n", "4:30", {"\"jobs\"", "a list"}},
      {"agents:\n  web-01: yes\n", "2:11", {"agent \"web-01\"", "a map"}},
      {"agents:\n  web-01:\n    object: []\n", "3:5", {"unknown agent field \"object\"", "known: objects, confs"}},
      {"agents:\n  \"\": {}\n", "2:3", {"agent name", "non-empty"}},
      {"agents:\n", "1:1", {"\"agents\"", "empty"}},
      {"agent: {}\n", "1:1", {"unknown top-level field \"agent\"", "known: agents"}},
      {"{}\n", "1:1", {"no \"agents\" map"}},
      {"- agents\n", "1:1", {"the file", "a map"}},
      {"agents:\n  web-01:\n    confs:\n      0: []\n", "4:7", {"collector type", "at least 1"}},
      {"agents:\n  web-01:\n    confs:\n      ssh: []\n", "4:7", {"collector type", "\"ssh\""}},
      {"agents:\n  web-01:\n    confs: [1]\n", "3:12", {"\"confs\"", "a list"}},
      {"agents:\n  web-01:\n    confs:\n      1: [{parameter: 1}]\n", "4:11", {"collector type 1", "\"target\""}},
      {"agents:\n  web-01:\n    confs:\n      1: [{target: a, parameter: -5}]\n", "4:34", {"\"parameter\"", "\"-5\""}},
      {"agents:\n  web-01:\n    confs:\n      1: [{target: a, parameter: 18446744073709551616}]\n",
       "4:34",
       {"\"parameter\"", "64-bit"}},
      {"agents:\n  web-01:\n    confs:\n      1: [{target: a, param: 1}]\n",
       "4:23",
       {"unknown collector configuration field \"param\"", "known: target, parameter"}},
      {"agents:\n  web-01:\n    confs:\n      1: [{target: \"\"}]\n", "4:20", {"\"target\"", "must not be empty"}},
      {"agents:\n  web-01: {objects: [}\n", "2:22", {"invalid YAML"}},
      {"agents: {}\n---\nagents: {}\n", "3:1", {"one YAML document"}},
  };
  for (const Case& mistake : cases) {
    const std::string error = ParseError(mistake.text);
    EXPECT_EQ(error.rfind("jobs.yaml:" + mistake.place + ": ", 0), 0u) << error << "\nin\n" << mistake.text;
    for (const std::string& word : mistake.words) {
      EXPECT_NE(error.find(word), std::string::npos) << error << "\nlacks " << word << "\nin\n" << mistake.text;
    }
    EXPECT_EQ(error.find('\n'), std::string::npos) << error;
  }
}

TEST(JobCatalogue, UnknownJobFieldMessageNamesEveryFieldOfTheJobDescription) {
  const std::string error = ParseError(WithJob("cmd: x"));
  const google::protobuf::Descriptor* descriptor = zelvar::ovita2::JobDescription::descriptor();
  for (int index = 0; index < descriptor->field_count(); ++index) {
    EXPECT_NE(error.find(descriptor->field(index)->name()), std::string::npos) << error;
  }
}

TEST(JobCatalogue, RepeatedDefinitionsNameBothPlaces) {
  const std::string twoJobs = R"(agents:
  web-01:
    objects:
      - object_id: 1
        jobs:
          - {job_id: 3, interval: 5, command: a, stat_key: a}
          - {job_id: 3, interval: 5, command: b, stat_key: b}
)";
  EXPECT_EQ(ParseError(twoJobs),
            "jobs.yaml:7:22: job 3 of object 1 of agent \"web-01\" is defined twice (first at line 6)");

  const std::string twoObjects = R"(agents:
  web-01:
    objects:
      - {object_id: 1, jobs: [{job_id: 3, interval: 5, command: a, stat_key: a}]}
      - {object_id: 2, jobs: [{job_id: 3, interval: 5, command: a, stat_key: a}]}
      - object_id: 1
)";
  EXPECT_EQ(ParseError(twoObjects), "jobs.yaml:6:20: object 1 of agent \"web-01\" is defined twice (first at line 4)");

  const std::string twoTargets = R"(agents:
  web-01:
    confs:
      1: [{target: sshd}]
      2: [{target: sshd}, {target: cron},
          {target: sshd}]
)";
  EXPECT_EQ(ParseError(twoTargets),
            "jobs.yaml:6:20: target \"sshd\" of collector type 2 of agent \"web-01\" is given twice (first at line 5)");

  const std::string twoTypes = "agents:\n  web-01:\n    confs:\n      1: []\n      01: []\n";
  EXPECT_EQ(ParseError(twoTypes),
            "jobs.yaml:5:7: collector type 1 of agent \"web-01\" is defined twice (first at line 4)");

  const std::string twoAgents = "agents:\n  web-01: {}\n  db-07:\n  web-01:\n";
  EXPECT_EQ(ParseError(twoAgents), "jobs.yaml:4:3: agent \"web-01\" is defined twice (first at line 2)");
}

TEST(JobCatalogue, FailedParseKeepsThePreviousCatalogue) {
  JobCatalogue catalogue;
  std::string error;
  ASSERT_TRUE(
      JobCatalogue::Parse(WithJob("job_id: 3\ninterval: 5\ncommand: c\nstat_key: k"), "jobs.yaml", &catalogue, &error))
      << error;
  const std::vector<std::string> failing = {WithJob("job_id: 4\ninterval: 5\ncommand: c"), "", "# nothing yet\n"};
  for (const std::string& text : failing) {
    EXPECT_FALSE(JobCatalogue::Parse(text, "jobs.yaml", &catalogue, &error));
    ASSERT_NE(catalogue.Find("web-01"), nullptr);
    ASSERT_EQ(catalogue.JobCount(), 1u);
    EXPECT_EQ(catalogue.Find("web-01")->object_jobs[0].job().job_id(), 3u);
  }
  EXPECT_EQ(error, "jobs.yaml: no \"agents\" map") << "a file of comments only is a mistake, not an empty catalogue";
}

TEST(JobCatalogue, LoadNamesTheFileItCannotReadOrParse) {
  JobCatalogue catalogue;
  std::string error;
  const std::string missing = testing::TempDir() + "/no-such-jobs.yaml";
  EXPECT_FALSE(JobCatalogue::Load(missing, &catalogue, &error));
  EXPECT_EQ(error, missing + ": cannot read: No such file or directory");
  EXPECT_FALSE(JobCatalogue::Load(testing::TempDir(), &catalogue, &error));
  EXPECT_EQ(error, testing::TempDir() + ": cannot read: Is a directory");

  const std::string bad = testing::TempDir() + "/bad-jobs.yaml";
  std::ofstream(bad) << "agents:\n  web-01: 5\n";
  EXPECT_FALSE(JobCatalogue::Load(bad, &catalogue, &error));
  EXPECT_EQ(error.rfind(bad + ":2:11: ", 0), 0u) << error;
  std::remove(bad.c_str());
}

TEST(AgentCatalogue, ObjectOfJobIsKnownOnlyWhenOneObjectHoldsTheJob) {
  JobCatalogue catalogue;
  std::string error;
  ASSERT_TRUE(JobCatalogue::Parse(R"(agents:
  web-01:
    objects:
      - {object_id: 1, jobs: [{job_id: 5, interval: 5, command: a, stat_key: a}]}
      - {object_id: 2, jobs: [{job_id: 5, interval: 5, command: a, stat_key: a},
                              {job_id: 6, interval: 5, command: a, stat_key: b}]}
)",
                                  "jobs.yaml", &catalogue, &error))
      << error;
  const AgentCatalogue* agent = catalogue.Find("web-01");
  ASSERT_NE(agent, nullptr);
  EXPECT_EQ(agent->ObjectOfJob(6), 2u);
  EXPECT_EQ(agent->ObjectOfJob(5), std::nullopt) << "two objects hold job 5";
  EXPECT_EQ(agent->ObjectOfJob(7), std::nullopt);
}

// The shipped example must load, and each of its commands must print what the
// agent will read: a number for a numeric job, one line for a text job.
TEST(DemoJobsFile, LoadsAndEveryCommandPrintsOneValue) {
  JobCatalogue catalogue;
  std::string error;
  ASSERT_TRUE(JobCatalogue::Load(DEMO_JOBS_FILE, &catalogue, &error)) << error;
  const AgentCatalogue* demo = catalogue.Find("demo");
  ASSERT_NE(demo, nullptr);
  ASSERT_EQ(demo->object_jobs.size(), 5u);
  const std::regex number("[0-9]+(\\.[0-9]+)?\n");
  const std::regex line("[^\n]+\n");
  for (const auto& objectJob : demo->object_jobs) {
    const zelvar::ovita2::JobDescription& job = objectJob.job();
    EXPECT_EQ(objectJob.object_id(), 1u);
    std::FILE* pipe = popen(job.command().c_str(), "r");
    ASSERT_NE(pipe, nullptr) << job.command();
    std::string output;
    char buffer[256];
    size_t got = 0;
    while ((got = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) output.append(buffer, got);
    EXPECT_EQ(pclose(pipe), 0) << job.command();
    EXPECT_TRUE(std::regex_match(output, job.string_value() == 1 ? line : number))
        << job.stat_key() << ": \"" << output << "\" from " << job.command();
  }
}

}  // namespace
