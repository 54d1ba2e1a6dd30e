// The statistics samples the job machines make, and the process-wide queues
// that carry them to the machines that send or post-process them.
//
//   queue              element                appended by              drained by
//   g_vecUpper         _stats_info            job, high-precision and  the upward sender,
//                                             second-phase machines    every 10 s
//   g_vecStringUpper   string_stats_info_st   job and configured-      the upward sender,
//                                             collector machines       every 10 s
//   g_vecSecondInfo    _second_info           job machine              second-phase machine
//
// Records are copied in at the end; a drain takes every element and leaves
// the queue empty. No bound is kept: the sender empties its queues on every
// tick whether or not its sends went out, so they hold ten seconds at most.
//
// Event-loop thread only; no lock.
#ifndef OVITA2_AGENT_PIPELINE_STATS_QUEUES_H
#define OVITA2_AGENT_PIPELINE_STATS_QUEUES_H

#include <cstdint>
#include <string>
#include <vector>

#include "zelvar/ovita2.pb.h"

// A numeric sample. The value is in tenths (an output of 12.37 is 123), which
// is how the aggregation service stores it.
struct _stats_info {
  std::string name;       // the job's statistics key
  uint32_t object_id = 0;
  uint32_t stat_item = 0;
  int64_t value = 0;      // tenths
  uint32_t time = 0;      // the job's start, host seconds; not sent upward
};

// A text sample: the command's whole output, trailing newline included.
struct string_stats_info_st {
  std::string name;       // the job's statistics key
  uint32_t job_id = 0;
  std::string value;
  uint64_t time = 0;      // when the answer arrived, host seconds
};

// What a second-phase job is later run over: the "|"-separated tokens of a
// job's output, the first two of them read as numbers.
struct _second_info {
  uint32_t object_id = 0;
  uint32_t first_arg = 0;
  uint32_t second_arg = 0;
  std::string name;       // the job's statistics key
  std::vector<std::string> args;
  zelvar::ovita2::JobDescription job;
};

// A command's output read as a float, in tenths, truncated toward zero: 12.37
// gives 123. A text that is no number reads as 0, as strtof has it.
int64_t TenthsOf(const std::string& output);

extern std::vector<_stats_info> g_vecUpper;
extern std::vector<string_stats_info_st> g_vecStringUpper;
extern std::vector<_second_info> g_vecSecondInfo;

#endif  // OVITA2_AGENT_PIPELINE_STATS_QUEUES_H
