// ExecuteHpJobsMachine: runs the jobs whose interval is below
// g_highprecision_frequency, every 5 s, so they are not held back by the 10 s
// rhythm of ExecuteJobsMachine. The walk is that machine's (execute_jobs.h);
// what differs is what an answer becomes:
//   - always a numeric sample, whatever the job's string-value flag says;
//   - a second-phase job prints a counter reading, "time|value", which is
//     turned into a rate at once against the job's previous reading: the
//     increase per period (the job's second-phase delay), in tenths.
//
// g_mapHpSecondInfo keeps the previous reading of every counter job for the
// life of the process, which is what makes a rate possible across passes.
// A rate is made only from two good readings less than two periods apart,
// and a counter that went back (a restart) makes none; either way the new
// reading becomes the base for the next one. Event-loop thread only.
#ifndef OVITA2_AGENT_PIPELINE_EXECUTE_HP_JOBS_H
#define OVITA2_AGENT_PIPELINE_EXECUTE_HP_JOBS_H

#include <cstdint>
#include <map>

#include "pipeline/execute_jobs.h"

// The last reading of a counter job.
struct _hp_second_info {
  int64_t value = -1;  // -1: no usable reading yet
  uint32_t time = 0;   // seconds, as the job printed it
};

// Counter readings by job key; an entry is never removed.
extern std::map<uint64_t, _hp_second_info> g_mapHpSecondInfo;

class ExecuteHpJobsMachine : public JobPassMachine {
 public:
  static constexpr unsigned kType = 9000018;

  unsigned StateMachineType() override { return kType; }
  const char* MachineName() override { return "ExecuteHpJobsMachine"; }

  static bool m_bRunning;

 protected:
  bool& PassRunning() override { return m_bRunning; }
  bool Takes(const zelvar::ovita2::JobDescription& job) const override;
  void MakeSample(const zelvar::LongActionResult& result, const JobInstance_t& instance,
                  const zelvar::ovita2::JobDescription& job) override;
};

#endif  // OVITA2_AGENT_PIPELINE_EXECUTE_HP_JOBS_H
