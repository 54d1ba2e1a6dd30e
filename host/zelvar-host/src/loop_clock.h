// LoopClock: the time the host's machines and plug-ins see, read from the
// libevent loop's cached clock so that every callback of one loop turn sees the
// same instant and reading it costs no system call.
//
// Borrows the event_base, which must outlive it. Event-loop thread only.
#ifndef ZELVAR_HOST_LOOP_CLOCK_H
#define ZELVAR_HOST_LOOP_CLOCK_H

#include <cstdint>

#include "zelvar/machine_runtime.h"

struct event_base;

namespace zelvar_host {

class LoopClock : public zelvar::MachineClock {
 public:
  explicit LoopClock(event_base* base) : m_pBase(base) {}

  int64_t NowMs() const override;
  // Whole seconds since the epoch, refreshed by each call; the pointer stays
  // valid for the clock's lifetime (it is what GetNow hands out).
  const int64_t* RefreshSeconds();
  // Moves the clock forward at once. Integration tests use it to let the
  // agent's minutes-long schedules pass in a moment; the host never does.
  void Skip(int64_t seconds) { m_i64SkippedMs += seconds * 1000; }

 private:
  event_base* m_pBase;
  int64_t m_i64Seconds = 0;
  int64_t m_i64SkippedMs = 0;
};

}  // namespace zelvar_host

#endif  // ZELVAR_HOST_LOOP_CLOCK_H
