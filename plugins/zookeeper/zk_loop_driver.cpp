#include "zookeeper/zk_loop_driver.h"

namespace zelvar::registry {
namespace {

// The client plans its own retries after an error; these floors only keep a
// zero delay from turning the loop into a busy spin.
constexpr long kFloorUs = 1000;
constexpr long kErrorFloorUs = 50 * 1000;

void ApplyFloor(timeval* tv, long floorUs) {
  long long us = static_cast<long long>(tv->tv_sec) * 1000000 + tv->tv_usec;
  if (us >= floorUs) return;
  tv->tv_sec = 0;
  tv->tv_usec = floorUs;
}

}  // namespace

ZkLoopDriver::ZkLoopDriver(event_base* base, FailureFn onFailure)
    : m_pBase(base), m_fnFailure(std::move(onFailure)) {
  m_pTimer = evtimer_new(m_pBase, &ZkLoopDriver::OnTimer, this);
}

ZkLoopDriver::~ZkLoopDriver() {
  Detach();
  event_free(m_pTimer);
}

void ZkLoopDriver::Attach(zhandle_t* zh) {
  Detach();
  m_pZh = zh;
  Pump();
}

void ZkLoopDriver::Detach() {
  ClearSocketEvent();
  evtimer_del(m_pTimer);
  m_pZh = nullptr;
}

void ZkLoopDriver::ClearSocketEvent() {
  if (m_pSocketEvent == nullptr) return;
  event_free(m_pSocketEvent);
  m_pSocketEvent = nullptr;
}

void ZkLoopDriver::Pump() {
  if (m_pZh == nullptr || m_bProcessing) return;
  int fd = -1;
  int interest = 0;
  timeval tv{};
  int rc = zookeeper_interest(m_pZh, &fd, &interest, &tv);
  // The socket is registered afresh every time: between two calls the client
  // may have closed it and opened a new one under the same number, which the
  // loop would otherwise never watch.
  ClearSocketEvent();
  evtimer_del(m_pTimer);
  if (rc == ZINVALIDSTATE) {
    Detach();
    m_fnFailure(rc);
    return;
  }
  if (fd >= 0 && interest != 0) {
    short what = 0;
    if (interest & ZOOKEEPER_READ) what |= EV_READ;
    if (interest & ZOOKEEPER_WRITE) what |= EV_WRITE;
    m_pSocketEvent = event_new(m_pBase, fd, what, &ZkLoopDriver::OnSocket, this);
    event_add(m_pSocketEvent, nullptr);
  }
  ApplyFloor(&tv, rc == ZOK ? kFloorUs : kErrorFloorUs);
  evtimer_add(m_pTimer, &tv);
}

void ZkLoopDriver::Process(int events) {
  if (m_pZh == nullptr) return;
  m_bProcessing = true;
  zookeeper_process(m_pZh, events);
  m_bProcessing = false;
  // Whatever zookeeper_process reported, the next zookeeper_interest sees the
  // same state and tells what to wait for (or that the handle is finished).
  Pump();
}

void ZkLoopDriver::OnSocket(evutil_socket_t, short what, void* self) {
  int events = 0;
  if (what & EV_READ) events |= ZOOKEEPER_READ;
  if (what & EV_WRITE) events |= ZOOKEEPER_WRITE;
  static_cast<ZkLoopDriver*>(self)->Process(events);
}

void ZkLoopDriver::OnTimer(evutil_socket_t, short, void* self) { static_cast<ZkLoopDriver*>(self)->Process(0); }

}  // namespace zelvar::registry
