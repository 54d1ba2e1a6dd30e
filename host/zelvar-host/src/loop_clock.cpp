#include "loop_clock.h"

#include <event2/event.h>
#include <sys/time.h>

namespace zelvar_host {

int64_t LoopClock::NowMs() const {
  timeval now;
  event_base_gettimeofday_cached(m_pBase, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_usec / 1000 + m_i64SkippedMs;
}

const int64_t* LoopClock::RefreshSeconds() {
  timeval now;
  event_base_gettimeofday_cached(m_pBase, &now);
  m_i64Seconds = now.tv_sec + m_i64SkippedMs / 1000;
  return &m_i64Seconds;
}

}  // namespace zelvar_host
