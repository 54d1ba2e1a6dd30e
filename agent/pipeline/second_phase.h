// SecondPhaseMachine: runs the second command of every pending second-phase
// record whose time has come, and turns its output into a numeric sample.
//
// Some jobs do not measure a value themselves: they print a time and further
// arguments ("time|arg|..."), and the measurement is a second command run
// later over those arguments. ExecuteJobsMachine queues such output in
// g_vecSecondInfo; this machine, every 10 s, launches every record whose time
// plus its job's second-phase delay has passed (by the system clock, since the
// time came from the job's own command), in one go, and takes each out of the
// queue as it is launched: a record is never run twice. Records not yet due
// stay in the queue in their order.
//
// An answer becomes a numeric sample in tenths (g_vecUpper) named after the
// job's statistics key and stamped with the record's time. A failed second
// command is logged and its entry left waiting on purpose: the pass then ends
// only when the machine times out (60 s), which keeps a failing second phase
// from being retried every tick.
//
// One pass at a time (isRunning). The runtime owns the machine; the launched
// records die with it. Event-loop thread only.
#ifndef OVITA2_AGENT_PIPELINE_SECOND_PHASE_H
#define OVITA2_AGENT_PIPELINE_SECOND_PHASE_H

#include <cstdint>
#include <map>

#include "framework/bev_machine_util.h"
#include "pipeline/stats_queues.h"

class SecondPhaseMachine : public BEVMachineUtil {
 public:
  static constexpr unsigned kType = 9000008;
  static constexpr int kWaitJobs = 1;
  static constexpr unsigned kMachineTimeoutSec = 60;

  SecondPhaseMachine() { SetMachineTimeout(kMachineTimeoutSec); }

  unsigned StateMachineType() override { return kType; }
  const char* MachineName() override { return "SecondPhaseMachine"; }
  // The common line, and the pass is given up; its records are not relaunched.
  int Timeout(bool machineTimeout) override;

  int Entry_Init(zelvar::event_key_t key, void* data);
  // `data` is the host's zelvar::LongActionResult, valid during the call only.
  int Entry_WaitJobs(zelvar::event_key_t key, void* data);

  static bool isRunning;

 private:
  void Launch(_second_info& record);

  std::map<uint32_t, _second_info> m_mapLaunched;  // by flow number
};

#endif  // OVITA2_AGENT_PIPELINE_SECOND_PHASE_H
