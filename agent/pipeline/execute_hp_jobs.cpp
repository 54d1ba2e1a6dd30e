// ExecuteHpJobsMachine: runs the fast jobs and turns counter readings into rates.
#include "pipeline/execute_hp_jobs.h"

#include <cstdlib>

#include "framework/agent_switches.h"
#include "framework/machine_registration.h"
#include "pipeline/parse_second_args.h"
#include "pipeline/stats_queues.h"
#include "zelvar/long_action.h"

std::map<uint64_t, _hp_second_info> g_mapHpSecondInfo;
bool ExecuteHpJobsMachine::m_bRunning = false;

OVITA2_MACHINE_CREATORS(ExecuteHpJobs)
OVITA2_MACHINE_STATE(ExecuteHpJobs, Init)
OVITA2_MACHINE_STATE(ExecuteHpJobs, WaitJobs)

static const ovita2::MachineRegistration kRegistration =
    ovita2::MachineRegistration(ExecuteHpJobsMachine::kType, ExecuteHpJobsCreateMySelf,
                                ExecuteHpJobsCreateMySelfByAddr)
        .Routine(ExecuteHpJobsCreateMySelfForRoutine, kRoutineExecuteHpJobs, 5)
        .State(-1, ExecuteHpJobsMachineEntry_Init, "Entry_Init")
        .State(ExecuteHpJobsMachine::kWaitJobs, ExecuteHpJobsMachineEntry_WaitJobs, "Entry_WaitJobs");

namespace {

// The increase from `last` to `current` per `period` seconds, in tenths, or
// false when the two readings make no rate.
bool CounterRate(const _hp_second_info& last, const _hp_second_info& current, uint32_t period, int64_t* rate) {
  int64_t elapsed = static_cast<int64_t>(current.time) - static_cast<int64_t>(last.time);
  uint32_t twoPeriods = period * 2u;  // as wide as the period: a huge one wraps
  if (elapsed < 1 || elapsed >= static_cast<int64_t>(twoPeriods) || last.value < 0) return false;
  // Multiplied before divided, in 64 bits; a product too large for them is
  // no rate rather than an undefined one.
  int64_t increase = 0;
  int64_t scaled = 0;
  if (__builtin_sub_overflow(current.value, last.value, &increase) ||
      __builtin_mul_overflow(static_cast<int64_t>(period) * 10, increase, &scaled)) {
    return false;
  }
  *rate = scaled / elapsed;
  return *rate >= 0;
}

}  // namespace

bool ExecuteHpJobsMachine::Takes(const zelvar::ovita2::JobDescription& job) const {
  return job.interval() < g_highprecision_frequency;
}

void ExecuteHpJobsMachine::MakeSample(const zelvar::LongActionResult& result, const JobInstance_t& instance,
                                      const zelvar::ovita2::JobDescription& job) {
  _stats_info sample{instance.stat_key, instance.object_id, job.stat_item(), 0,
                     static_cast<uint32_t>(instance.start_time)};
  if (job.second_phase() != 1) {
    sample.value = TenthsOf(result.output);
    g_vecUpper.push_back(std::move(sample));
    return;
  }
  std::vector<std::string> tokens = ParseSecondArgs(result.output);
  _hp_second_info reading;  // unparsable: no value, time 0
  if (tokens.size() >= 2) {
    reading.time = static_cast<uint32_t>(std::strtoul(tokens[0].c_str(), nullptr, 10));
    reading.value = static_cast<int64_t>(std::strtoul(tokens[1].c_str(), nullptr, 10));
  }
  auto last = g_mapHpSecondInfo.find(instance.job_key);
  if (last != g_mapHpSecondInfo.end() &&
      CounterRate(last->second, reading, job.second_phase_delay(), &sample.value)) {
    g_vecUpper.push_back(std::move(sample));
  }
  g_mapHpSecondInfo[instance.job_key] = reading;
}
