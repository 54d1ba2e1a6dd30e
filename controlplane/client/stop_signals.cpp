#include "client/stop_signals.h"

#include <poll.h>
#include <time.h>

#include <cerrno>
#include <chrono>

namespace controlplane {
namespace {

volatile sig_atomic_t g_iStopSignal = 0;

void RememberStopSignal(int signalNumber) { g_iStopSignal = signalNumber; }

}  // namespace

StopSignals::StopSignals() {
  g_iStopSignal = 0;
  struct sigaction action {};
  action.sa_handler = RememberStopSignal;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, &m_sPreviousInt);
  sigaction(SIGTERM, &action, &m_sPreviousTerm);
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGINT);
  sigaddset(&stop, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop, &m_sPreviousMask);
  m_sSleepMask = m_sPreviousMask;
  sigdelset(&m_sSleepMask, SIGINT);
  sigdelset(&m_sSleepMask, SIGTERM);
}

StopSignals::~StopSignals() {
  // Unblocked while the handler is still ours: a pending signal only sets the flag.
  pthread_sigmask(SIG_SETMASK, &m_sPreviousMask, nullptr);
  sigaction(SIGINT, &m_sPreviousInt, nullptr);
  sigaction(SIGTERM, &m_sPreviousTerm, nullptr);
}

bool StopSignals::Sleep(double seconds) const {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point deadline =
      Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
  while (g_iStopSignal == 0) {
    auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(deadline - Clock::now());
    if (left.count() < 0) left = std::chrono::nanoseconds(0);
    timespec wait{static_cast<time_t>(left.count() / 1000000000), static_cast<long>(left.count() % 1000000000)};
    if (ppoll(nullptr, 0, &wait, &m_sSleepMask) == 0) return true;
    if (errno != EINTR) return true;
  }
  return false;
}

}  // namespace controlplane
