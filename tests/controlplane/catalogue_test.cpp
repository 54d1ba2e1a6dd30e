// The jobs file: what each agent is handed, and how a mistake is placed.
#include <google/protobuf/text_format.h>
#include <google/protobuf/util/message_differencer.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <regex>
#include <string>
#include <vector>

#include "catalogue/job_catalogue.h"
#include "local_system.h"

namespace controlplane {
namespace {

// One job of object 1 of agent "web-01"; its first field is at line 6,
// column 13, and each further line of `fields` follows at column 13.
std::string WithJob(const std::string& fields) {
  std::string indented;
  for (char c : fields) indented += c == '\n' ? std::string("\n            ") : std::string(1, c);
  return "agents:\n  web-01:\n    objects:\n      - object_id: 1\n        jobs:\n          - " + indented + "\n";
}

TEST(JobCatalogue, AgentsGetExactlyTheFieldsWrittenAndUnlistedAgentsTheAnyEntry) {
  const std::string text = R"(agents:
  web-01:
    objects:
      - object_id: 1
        jobs:
          - {job_id: 3, stat_item: 4294967295, interval: 10, command: uptime, command_args: -p,
             second_phase: 1, second_phase_command: "echo 'x'", second_phase_delay: 5,
             stat_key: up, string_value: 1, description: ""}
          - {job_id: 4, interval: 1, command: 42, stat_key: "007"}
    confs:
      2: [{target: "Out of memory|segfault", parameter: 18446744073709551615}, {target: kswapd, parameter: "007"}]
      1: [{target: sshd}]
  "*":
    objects: [{object_id: 9, jobs: [{job_id: 1, interval: 5, command: date, stat_key: d}]}]
)";
  JobCatalogue catalogue;
  std::string error;
  ASSERT_TRUE(JobCatalogue::Parse(text, "jobs.yaml", &catalogue, &error)) << error;
  const AgentCatalogue* agent = catalogue.Find("web-01");
  ASSERT_NE(agent, nullptr);
  zelvar::ovita2::GetJobResponse expected, actual;
  ASSERT_TRUE(google::protobuf::TextFormat::ParseFromString(
      R"(object_jobs { object_id: 1 job { job_id: 3 stat_item: 4294967295 interval: 10 command: "uptime"
           command_args: "-p" second_phase: 1 second_phase_command: "echo 'x'" second_phase_delay: 5
           stat_key: "up" string_value: 1 description: "" } }
         object_jobs { object_id: 1 job { job_id: 4 interval: 1 command: "42" stat_key: "007" } })",
      &expected));
  for (const auto& objectJob : agent->object_jobs) *actual.add_object_jobs() = objectJob;
  // Equals() tells a field set to its default from a field left out.
  EXPECT_TRUE(google::protobuf::util::MessageDifferencer::Equals(actual, expected)) << actual.DebugString();
  std::vector<std::string> confs;
  for (const auto& ofType : agent->confs) {
    for (const auto& conf : ofType.second) confs.push_back(std::to_string(ofType.first) + " " + conf.target() + " " + conf.parameter());
  }
  EXPECT_EQ(confs, (std::vector<std::string>{"1 sshd 0", "2 Out of memory|segfault 18446744073709551615", "2 kswapd 7"}));

  ASSERT_NE(catalogue.Find("db-07"), nullptr);
  ASSERT_EQ(catalogue.Find("db-07")->object_jobs.size(), 1u);
  EXPECT_EQ(catalogue.Find("db-07")->object_jobs[0].object_id(), 9u);
  ASSERT_TRUE(JobCatalogue::Parse("agents: {web-01: }\n", "jobs.yaml", &catalogue, &error)) << error;
  EXPECT_TRUE(catalogue.Find("web-01")->object_jobs.empty());
  EXPECT_EQ(catalogue.Find("db-07"), nullptr) << "without a \"*\" entry an unlisted agent is unknown";
}

TEST(JobCatalogue, EachMistakeIsReportedWithItsLineAndColumn) {
  const std::string job = "job_id: 3\ncommand: c\nstat_key: k\n";
  const std::string web = "agents:\n  web-01:\n";
  const std::string confs = web + "    confs:\n      ";
  const std::string uint32 = "job field \"interval\" must be an unsigned 32-bit integer, not ";
  // Each message is whole, but for YAML's own words after "invalid YAML: ".
  const std::vector<std::pair<std::string, std::string>> cases = {
      {WithJob(job + "intervall: 10"), "9:13: unknown job field \"intervall\" (known: job_id, stat_item, interval, "},
      {WithJob(job + "interval: -1"), "9:23: " + uint32 + "\"-1\""},
      {WithJob(job + "interval: 4294967296"), "9:23: " + uint32 + "\"4294967296\""},
      {WithJob(job + "interval:"), "9:13: " + uint32 + "empty"},
      {WithJob(job + "interval: \"10\""), "9:23: " + uint32 + "the quoted text \"10\" (drop the quotes)"},
      {WithJob(job + "interval: 0"), "9:23: job field \"interval\" must be at least 1, not 0"},
      {WithJob(job + "interval: 5\ninterval: 6"), "10:13: job field \"interval\" is given twice (first at line 9)"},
      {WithJob("job_id: 3\ninterval: 5\nstat_key: k"), "6:13: job 3 of object 1 of agent \"web-01\" has no \"command\""},
      {WithJob("job_id: 3\ninterval: 5\ncommand: ''\nstat_key: k"), "8:22: job field \"command\" must not be empty"},
      {WithJob(job + "interval: 5\ndescription:"),
       "10:13: job field \"description\" has no value (write \"\" for an empty text)"},
      {WithJob(job + "interval: 5\ncommand_args: {a: 1}"), "10:27: job field \"command_args\" must be text, not a map"},
      {web + "    objects:\n      - 5\n", "4:9: an object of agent \"web-01\" must be a map, not \"5\""},
      {web + "    objects: {object_id: 1}\n", "3:14: \"objects\" of agent \"web-01\" must be a list, not a map"},
      {web + "    objects:\n      - {object_id: 1, jobs: [{job_id: 3, interval: 5, command: a, stat_key: a},\n"
             "                              {job_id: 3, interval: 5, command: b, stat_key: b}]}\n",
       "5:40: job 3 of object 1 of agent \"web-01\" is defined twice (first at line 4)"},
      {"agents:\n  web-01: yes\n", "2:11: agent \"web-01\" must be a map (of \"objects\" and \"confs\"), not \"yes\""},
      {"agents:\n  \"\": {}\n", "2:3: an agent name must be non-empty text, not \"\""},
      {"agents:\n  web-01: {}\n  db-07:\n  web-01:\n", "4:3: agent \"web-01\" is defined twice (first at line 2)"},
      {"agents:\n", "1:1: \"agents\" is empty (write \"agents: {}\" for no agents)"},
      {"{}\n", "1:1: no \"agents\" map"},
      {"- agents\n", "1:1: the file must be a map, not a list"},
      {confs + "0: []\n", "4:7: a collector type of agent \"web-01\" must be at least 1, not 0"},
      {confs + "1: []\n      01: []\n", "5:7: collector type 1 of agent \"web-01\" is defined twice (first at line 4)"},
      {web + "    confs: [1]\n",
       "3:12: \"confs\" of agent \"web-01\" must be a map from collector type to a list, not a list"},
      {confs + "1: [{target: a, parameter: 18446744073709551616}]\n",
       "4:34: collector configuration field \"parameter\" must be an unsigned 64-bit decimal number, not "
       "\"18446744073709551616\""},
      {confs + "1: [{target: sshd}]\n      2: [{target: sshd}, {target: cron},\n          {target: sshd}]\n",
       "6:20: target \"sshd\" of collector type 2 of agent \"web-01\" is given twice (first at line 5)"},
      {"agents:\n  web-01: {objects: [}\n", "2:22: invalid YAML: "},
      {"agents: {}\n---\nagents: {}\n", "3:1: a jobs file holds one YAML document, not more"},
  };
  for (const auto& mistake : cases) {
    JobCatalogue catalogue;
    std::string error;
    EXPECT_FALSE(JobCatalogue::Parse(mistake.first, "jobs.yaml", &catalogue, &error)) << mistake.first;
    EXPECT_EQ(error.substr(0, mistake.second.size() + 10), "jobs.yaml:" + mistake.second) << mistake.first;
  }
}

TEST(JobCatalogue, AFailedLoadKeepsThePreviousCatalogueAndSaysWhy) {
  ovita2::testing::TempDir dir;
  const std::string good = dir.Write("good.yaml", WithJob("job_id: 3\ninterval: 5\ncommand: c\nstat_key: k"));
  const std::string bad = dir.Write("bad.yaml", "agents:\n  web-01: 5\n");
  const std::string blank = dir.Write("blank.yaml", "# nothing yet\n");
  JobCatalogue catalogue;
  std::string error;
  ASSERT_TRUE(JobCatalogue::Load(good, &catalogue, &error)) << error;
  const std::vector<std::pair<std::string, std::string>> failing = {
      {dir.Path() + "/missing.yaml", dir.Path() + "/missing.yaml: cannot read: No such file or directory"},
      {dir.Path(), dir.Path() + ": cannot read: Is a directory"},
      {bad, bad + ":2:11: agent \"web-01\" must be a map (of \"objects\" and \"confs\"), not \"5\""},
      {blank, blank + ": no \"agents\" map"},
  };
  for (const auto& load : failing) {
    EXPECT_FALSE(JobCatalogue::Load(load.first, &catalogue, &error));
    EXPECT_EQ(error, load.second);
    ASSERT_EQ(catalogue.JobCount(), 1u) << load.first;
    EXPECT_EQ(catalogue.Find("web-01")->object_jobs[0].job().job_id(), 3u);
  }
}

// The shipped example must load, and each of its commands must print what the
// agent will read: a number for a numeric job, one line for a text job.
TEST(DemoJobsFile, LoadsAndEveryCommandPrintsOneValue) {
  JobCatalogue catalogue;
  std::string error;
  ASSERT_TRUE(JobCatalogue::Load(DEMO_JOBS_FILE, &catalogue, &error)) << error;
  const AgentCatalogue* demo = catalogue.Find("demo");
  ASSERT_NE(demo, nullptr);
  ASSERT_FALSE(demo->object_jobs.empty());
  for (const auto& objectJob : demo->object_jobs) {
    const zelvar::ovita2::JobDescription& job = objectJob.job();
    std::FILE* pipe = popen(job.command().c_str(), "r");
    ASSERT_NE(pipe, nullptr) << job.command();
    std::string output;
    char buffer[256];
    for (size_t got; (got = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) output.append(buffer, got);
    EXPECT_EQ(pclose(pipe), 0) << job.command();
    EXPECT_TRUE(std::regex_match(output, std::regex(job.string_value() == 1 ? "[^\n]+\n" : "[0-9]+(\\.[0-9]+)?\n")))
        << job.stat_key() << ": \"" << output << "\" from " << job.command();
  }
}

}  // namespace
}  // namespace controlplane
