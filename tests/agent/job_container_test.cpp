// The job catalogue: keys, definitions that outlive the schedule, and
// last-run times that survive a refresh.
#include "jobs/job_container.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace {

zelvar::ovita2::ObjectJob* Assign(zelvar::ovita2::GetJobResponse* response, uint32_t objectId, uint32_t jobId,
                                  const std::string& command) {
  zelvar::ovita2::ObjectJob* objectJob = response->add_object_jobs();
  objectJob->set_object_id(objectId);
  objectJob->mutable_job()->set_job_id(jobId);
  objectJob->mutable_job()->set_interval(60);
  objectJob->mutable_job()->set_command(command);
  return objectJob;
}

// The schedule as (key, last run) pairs, object by object.
std::vector<std::pair<uint64_t, uint32_t>> Schedule(JobContainer& jobs) {
  std::vector<std::pair<uint64_t, uint32_t>> flat;
  for (const auto& object : jobs.GetObjectJobs()) {
    for (const auto& job : object.second) flat.emplace_back(job.first, job.second);
  }
  return flat;
}

using Flat = std::vector<std::pair<uint64_t, uint32_t>>;

TEST(JobContainer, KeyIsTheObjectInTheHighHalfAndTheJobInTheLowHalf) {
  EXPECT_EQ(JobContainer::MakeJobKey(7, 9), 0x0000000700000009ull);
  EXPECT_EQ(JobContainer::MakeJobKey(0xFFFFFFFFu, 0xFFFFFFFFu), 0xFFFFFFFFFFFFFFFFull);

  JobContainer jobs;
  zelvar::ovita2::GetJobResponse response;
  Assign(&response, 1, 40, "uptime");
  Assign(&response, 2, 40, "uptime");
  jobs.UpdateJobs(response);
  EXPECT_EQ(Schedule(jobs), (Flat{{JobContainer::MakeJobKey(1, 40), 0}, {JobContainer::MakeJobKey(2, 40), 0}}))
      << "one job on two objects runs on two schedules";
  jobs.GetObjectJobs()[1][JobContainer::MakeJobKey(1, 40)] = 500;
  EXPECT_EQ(jobs.GetObjectJobs()[2][JobContainer::MakeJobKey(2, 40)], 0u);
  EXPECT_NE(jobs.GetJobDefine(JobContainer::MakeJobKey(2, 40)), nullptr);
  EXPECT_EQ(jobs.GetJobDefine(JobContainer::MakeJobKey(3, 40)), nullptr);
}

TEST(JobContainer, RefreshKeepsLastRunOfJobsThatStayAndRestartsReaddedOnes) {
  JobContainer jobs;
  const uint64_t cpu = JobContainer::MakeJobKey(1, 10);
  const uint64_t disk = JobContainer::MakeJobKey(1, 11);
  const uint64_t net = JobContainer::MakeJobKey(2, 12);
  zelvar::ovita2::GetJobResponse first;
  Assign(&first, 1, 10, "cpu");
  Assign(&first, 1, 11, "disk");
  jobs.UpdateJobs(first);
  jobs.GetObjectJobs()[1][cpu] = 1000;
  jobs.GetObjectJobs()[1][disk] = 1001;

  zelvar::ovita2::GetJobResponse second;
  Assign(&second, 2, 12, "net");
  Assign(&second, 1, 10, "cpu --all");
  jobs.UpdateJobs(second);
  EXPECT_EQ(Schedule(jobs), (Flat{{cpu, 1000}, {net, 0}}));
  EXPECT_EQ(jobs.GetJobDefine(cpu)->command(), "cpu --all");
  ASSERT_NE(jobs.GetJobDefine(disk), nullptr) << "a dropped job keeps its definition";
  EXPECT_EQ(jobs.GetJobDefine(disk)->command(), "disk");

  jobs.UpdateJobs(first);
  EXPECT_EQ(Schedule(jobs), (Flat{{cpu, 1000}, {disk, 0}})) << "a job that comes back starts afresh";
}

TEST(JobContainer, DuplicatedEntryTakesTheLaterDefinitionAndTheOldLastRun) {
  JobContainer jobs;
  const uint64_t key = JobContainer::MakeJobKey(4, 1);
  zelvar::ovita2::GetJobResponse response;
  Assign(&response, 4, 1, "old");
  jobs.UpdateJobs(response);
  jobs.GetObjectJobs()[4][key] = 77;
  const zelvar::ovita2::JobDescription* before = jobs.GetJobDefine(key);

  zelvar::ovita2::GetJobResponse twice;
  Assign(&twice, 4, 1, "first copy");
  Assign(&twice, 4, 1, "second copy")->mutable_job()->set_command_args("-v");
  jobs.UpdateJobs(twice);
  EXPECT_EQ(Schedule(jobs), (Flat{{key, 77}}));
  EXPECT_EQ(jobs.GetJobDefine(key), before) << "overwritten in place";
  EXPECT_EQ(before->command(), "second copy");
  EXPECT_EQ(before->command_args(), "-v");

  // A full copy: a field the new definition lacks does not survive.
  zelvar::ovita2::GetJobResponse plain;
  Assign(&plain, 4, 1, "plain");
  jobs.UpdateJobs(plain);
  EXPECT_FALSE(jobs.GetJobDefine(key)->has_command_args());
}

TEST(JobContainer, EmptyAnswerInstallsAnEmptyScheduleButKeepsDefinitions) {
  JobContainer jobs;
  zelvar::ovita2::GetJobResponse response;
  Assign(&response, 3, 5, "df");
  zelvar::ovita2::ObjectJob* bare = response.add_object_jobs();
  bare->set_object_id(9);  // no job: the default definition, job id 0
  jobs.UpdateJobs(response);
  EXPECT_EQ(Schedule(jobs), (Flat{{JobContainer::MakeJobKey(3, 5), 0}, {JobContainer::MakeJobKey(9, 0), 0}}));

  jobs.UpdateJobs(zelvar::ovita2::GetJobResponse());
  EXPECT_TRUE(jobs.GetObjectJobs().empty());
  EXPECT_NE(jobs.GetJobDefine(JobContainer::MakeJobKey(3, 5)), nullptr);
}

}  // namespace
