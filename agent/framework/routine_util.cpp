#include "framework/routine_util.h"

RoutineUtil* RoutineUtil::Instance() {
  static RoutineUtil routines;
  return &routines;
}

int RoutineUtil::SetRouting(RoutineCreator creator, unsigned interval, bool once) {
  m_vecRoutines.push_back(routing_machine_t{interval, once, 0, 0, creator});
  return 0;
}

bool RoutineUtil::IsDue(const routing_machine_t& routine, int64_t now) {
  // Signed: a clock that went backwards leaves the routine waiting until the
  // clock is past its last start by a whole interval again.
  if (now - routine.last_start < static_cast<int64_t>(routine.interval)) return false;
  return !routine.once || routine.run_count == 0;
}
