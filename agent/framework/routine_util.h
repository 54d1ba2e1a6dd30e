// The agent's periodic routines: which machine to start, and how often.
//
// Each machine unit adds its routine from a static initialiser, so the list is
// complete before the host calls any entry point. Once a second OnRoutine
// starts the first due routine; earlier entries win ties, which is why the
// routines start one per second in list order after load and then follow
// their own intervals.
//
// The list order is the agent's start-up order and it matters: the task-queue
// lookup comes first so that the job fetch two seconds later has an address.
// A machine unit therefore names its place (RoutinePosition) and the list is
// kept sorted by it, whatever order the static initialisers run in (that is
// the link order of the library, which a build-file edit changes silently).
//
// The singleton lives until unload and its entries are never removed. Static
// initialisers and the event-loop thread only; no lock.
#ifndef OVITA2_AGENT_FRAMEWORK_ROUTINE_UTIL_H
#define OVITA2_AGENT_FRAMEWORK_ROUTINE_UTIL_H

#include <cstdint>
#include <vector>

namespace zelvar {
class StateMachine;
}

using RoutineCreator = zelvar::StateMachine* (*)();

// The place of each machine's routine in the list, first to last.
enum RoutinePosition : int {
  kRoutineUpdateTaskQueue = 1,
  kRoutineUpdateNames,
  kRoutineUpdateJobs,
  kRoutineUpdateJobConfs,
  kRoutineUpdateAggregation,
  kRoutineSendUpper,
  kRoutineSecondPhase,
  kRoutineRegisterMyself,
  kRoutineRealTimeCollect,
  kRoutineHeartBeat,
  kRoutineExecuteJobsOfConf,
  kRoutineExecuteJobs,
  kRoutineExecuteHpJobs,
  kRoutineLast,
};

// One routine. `last_start` is in the host's seconds; 0 at load, so every
// routine is due at the first calls.
struct routing_machine_t {
  uint32_t interval;
  bool once;
  int64_t last_start;
  uint32_t run_count;
  RoutineCreator creator;
};

class RoutineUtil {
 public:
  static RoutineUtil* Instance();

  RoutineUtil() = default;
  virtual ~RoutineUtil() = default;

  // Adds a routine that has never run, after every routine whose position is
  // not greater. Returns 0.
  int SetRouting(RoutineCreator creator, unsigned interval, bool once, int position);
  // Appends a routine that has never run. Returns 0.
  int SetRouting(RoutineCreator creator, unsigned interval, bool once) {
    return SetRouting(creator, interval, once, kRoutineLast);
  }

  // Starts the first due routine: counts the run, stamps its start and
  // returns the machine its creator made; null when nothing is due. `now` is
  // asked once per entry examined and gives the host's seconds.
  template <typename NowFn>
  zelvar::StateMachine* StartFirstDue(NowFn now);

  const std::vector<routing_machine_t>& Routines() const { return m_vecRoutines; }

 private:
  static bool IsDue(const routing_machine_t& routine, int64_t now);

  std::vector<routing_machine_t> m_vecRoutines;
  std::vector<int> m_vecPositions;  // beside m_vecRoutines, ascending
};

template <typename NowFn>
zelvar::StateMachine* RoutineUtil::StartFirstDue(NowFn now) {
  for (routing_machine_t& routine : m_vecRoutines) {
    int64_t at = now();
    if (!IsDue(routine, at)) continue;
    ++routine.run_count;
    routine.last_start = at;
    return routine.creator();
  }
  return nullptr;
}

#endif  // OVITA2_AGENT_FRAMEWORK_ROUTINE_UTIL_H
