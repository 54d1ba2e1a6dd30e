// The job executors: one pass over the schedule of the JobContainer, one
// object at a time. Every due job of the current object is started at once as
// an "ExecuteShell2" long action, and the next object is taken only when all
// of them have answered. A job's last-run time is written when it starts, so a
// failing job is not retried before its interval.
//
// Two machines share that walk and differ in which jobs they take and what an
// answer becomes:
//   ExecuteJobsMachine     every 10 s, jobs whose interval is at least
//                          g_highprecision_frequency; an answer becomes a
//                          second-phase record (g_vecSecondInfo), a text
//                          sample (g_vecStringUpper) or a numeric sample in
//                          tenths (g_vecUpper);
//   ExecuteHpJobsMachine   every 5 s, the faster jobs; always numeric samples,
//                          and a second-phase job's "time|counter" reading
//                          becomes a rate at once (execute_hp_jobs.h).
// So every job is run by exactly one of them.
//
// Only one pass of each runs at a time: a class-wide flag is set by the
// machine that starts a pass and cleared when the pass ends or times out; a
// machine the routine starts meanwhile ends at once.
//
// The runtime owns the machine; the instance map dies with it. Event-loop
// thread only, like the flags, the queues and the container.
#ifndef OVITA2_AGENT_PIPELINE_EXECUTE_JOBS_H
#define OVITA2_AGENT_PIPELINE_EXECUTE_JOBS_H

#include <cstdint>
#include <map>
#include <string>

#include "framework/bev_machine_util.h"
#include "zelvar/ovita2.pb.h"

namespace zelvar {
struct LongActionResult;
}

// A started job awaiting its answer.
struct JobInstance_t {
  uint32_t object_id = 0;
  uint64_t job_key = 0;
  uint64_t start_time = 0;  // host seconds
  std::string stat_key;     // the definition's statistics key at start
};

class JobPassMachine : public BEVMachineUtil {
 public:
  static constexpr int kWaitJobs = 1;

  // The common line, and the pass is given up so the next tick starts afresh.
  int Timeout(bool machineTimeout) override;

  int Entry_Init(zelvar::event_key_t key, void* data);
  // `data` is the host's zelvar::LongActionResult, valid during the call only.
  int Entry_WaitJobs(zelvar::event_key_t key, void* data);

  // Starts the due jobs of the next object that has any: 0 after moving to
  // Entry_WaitJobs, 100 when the pass is over.
  int ExecuteJob();

 protected:
  // The class-wide flag of this kind of pass.
  virtual bool& PassRunning() = 0;
  // Whether this machine runs `job` at all (by its interval).
  virtual bool Takes(const zelvar::ovita2::JobDescription& job) const = 0;
  // Turns a successful answer of `job` into what it produces.
  virtual void MakeSample(const zelvar::LongActionResult& result, const JobInstance_t& instance,
                          const zelvar::ovita2::JobDescription& job) = 0;

 private:
  // Starts every due job of one object; returns how many were started.
  size_t LaunchDueJobs(uint32_t objectId, std::map<uint64_t, uint32_t>& jobs);

  // The object whose jobs were started last; meaningful once m_bPassStarted.
  uint32_t m_uObjectCursor = 0;
  // Kept beside the cursor so that an object with id 0 is visited once
  // instead of being taken for "start from the first object" again.
  bool m_bPassStarted = false;
  std::map<uint32_t, JobInstance_t> m_mapJobInstances;  // by flow number
};

class ExecuteJobsMachine : public JobPassMachine {
 public:
  static constexpr unsigned kType = 9000004;

  unsigned StateMachineType() override { return kType; }
  const char* MachineName() override { return "ExecuteJobsMachine"; }

  static bool m_bRunning;

 protected:
  bool& PassRunning() override { return m_bRunning; }
  bool Takes(const zelvar::ovita2::JobDescription& job) const override;
  void MakeSample(const zelvar::LongActionResult& result, const JobInstance_t& instance,
                  const zelvar::ovita2::JobDescription& job) override;
};

#endif  // OVITA2_AGENT_PIPELINE_EXECUTE_JOBS_H
