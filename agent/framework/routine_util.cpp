#include "framework/routine_util.h"

#include <algorithm>

RoutineUtil* RoutineUtil::Instance() {
  static RoutineUtil routines;
  return &routines;
}

int RoutineUtil::SetRouting(RoutineCreator creator, unsigned interval, bool once, int position) {
  auto place = std::upper_bound(m_vecPositions.begin(), m_vecPositions.end(), position);
  auto index = place - m_vecPositions.begin();
  m_vecPositions.insert(place, position);
  m_vecRoutines.insert(m_vecRoutines.begin() + index, routing_machine_t{interval, once, 0, 0, creator});
  return 0;
}

bool RoutineUtil::IsDue(const routing_machine_t& routine, int64_t now) {
  // Signed: a clock that went backwards leaves the routine waiting until the
  // clock is past its last start by a whole interval again.
  if (now - routine.last_start < static_cast<int64_t>(routine.interval)) return false;
  return !routine.once || routine.run_count == 0;
}
