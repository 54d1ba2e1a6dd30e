// StopSignals: lets SIGINT and SIGTERM end a follower with status 0 instead
// of killing the process. They stay blocked except while it sleeps, where
// ppoll unblocks them atomically: a signal that comes while rows are printed
// is acted on at the next sleep instead of being missed just before it.
#ifndef OVITA2_CONTROLPLANE_STOP_SIGNALS_H
#define OVITA2_CONTROLPLANE_STOP_SIGNALS_H

#include <signal.h>

namespace controlplane {

// One at a time per process: the signals' previous handlers and mask come
// back when it ends.
class StopSignals {
 public:
  StopSignals();
  ~StopSignals();
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;

  // False when a stop signal came before `seconds` passed.
  bool Sleep(double seconds) const;

 private:
  struct sigaction m_sPreviousInt {};
  struct sigaction m_sPreviousTerm {};
  sigset_t m_sPreviousMask;
  sigset_t m_sSleepMask;
};

}  // namespace controlplane

#endif  // OVITA2_CONTROLPLANE_STOP_SIGNALS_H
