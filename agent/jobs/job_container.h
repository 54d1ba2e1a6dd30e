// JobContainer: the agent's catalogue of monitoring jobs and of their schedule.
//
// Two tables:
//   job table          job key -> JobDescription, every definition ever
//                      received; never pruned, so a key that left the
//                      schedule still finds its last definition;
//   object-jobs table  object id -> (job key -> last-run time, host seconds,
//                      0 = never run); the schedule the executors walk.
// A job key is the object id in the high 32 bits and the job id in the low
// 32 bits (MakeJobKey), so one job on two objects runs on two schedules.
// Every key of the schedule names a definition of the job table.
//
// One process-wide instance (Instance()), created on first use and destroyed
// at exit. Event-loop thread only; references and pointers it hands out are
// not to be kept across UpdateJobs.
#ifndef OVITA2_AGENT_JOBS_JOB_CONTAINER_H
#define OVITA2_AGENT_JOBS_JOB_CONTAINER_H

#include <cstdint>
#include <map>

#include "zelvar/ovita2.pb.h"

class JobContainer {
 public:
  using JobTimes = std::map<uint64_t, uint32_t>;
  using ObjectJobs = std::map<uint32_t, JobTimes>;

  static JobContainer* Instance();

  static uint64_t MakeJobKey(uint32_t objectId, uint32_t jobId) {
    return (static_cast<uint64_t>(objectId) << 32) + jobId;
  }

  JobContainer() = default;
  virtual ~JobContainer() = default;

  JobContainer(const JobContainer&) = delete;
  JobContainer& operator=(const JobContainer&) = delete;

  // Installs `response` as the complete schedule. Jobs that stay keep their
  // last-run time, so a refresh never makes a job run early or twice; new
  // ones start at 0; the definition of every listed key is replaced.
  void UpdateJobs(const zelvar::ovita2::GetJobResponse& response);

  // The definition stored under `key`, or null. Valid until the next
  // UpdateJobs that lists the same key (it is overwritten in place).
  const zelvar::ovita2::JobDescription* GetJobDefine(unsigned long key) const;

  // The schedule; executors write last-run times back into it.
  ObjectJobs& GetObjectJobs() { return m_mapObjectJobs; }

 private:
  std::map<uint64_t, zelvar::ovita2::JobDescription> m_mapJobs;
  ObjectJobs m_mapObjectJobs;
};

#endif  // OVITA2_AGENT_JOBS_JOB_CONTAINER_H
