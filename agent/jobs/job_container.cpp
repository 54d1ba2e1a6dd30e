// JobContainer: the agent's catalogue of monitoring jobs and of their schedule.
#include "jobs/job_container.h"

JobContainer* JobContainer::Instance() {
  static JobContainer instance;
  return &instance;
}

void JobContainer::UpdateJobs(const zelvar::ovita2::GetJobResponse& response) {
  ObjectJobs schedule;
  for (const zelvar::ovita2::ObjectJob& objectJob : response.object_jobs()) {
    const zelvar::ovita2::JobDescription& job = objectJob.job();
    uint64_t key = MakeJobKey(objectJob.object_id(), job.job_id());
    m_mapJobs[key].CopyFrom(job);

    uint32_t lastRun = 0;
    auto object = m_mapObjectJobs.find(objectJob.object_id());
    if (object != m_mapObjectJobs.end()) {
      auto known = object->second.find(key);
      if (known != object->second.end()) lastRun = known->second;
    }
    schedule[objectJob.object_id()][key] = lastRun;
  }
  m_mapObjectJobs.swap(schedule);
}

const zelvar::ovita2::JobDescription* JobContainer::GetJobDefine(unsigned long key) const {
  auto found = m_mapJobs.find(key);
  return found != m_mapJobs.end() ? &found->second : nullptr;
}
