// ZkLoopDriver: drives one handle of the single-threaded ZooKeeper C client on
// the host's libevent loop, without ever blocking it.
//
// The client tells, through zookeeper_interest, which socket it wants watched
// for what and when it wants to be called again (pings, connection attempts,
// timeouts); the driver turns that into a one-shot socket event and a timer,
// and calls zookeeper_process when either fires. Completions and watchers run
// inside that call, on the loop thread. Pump() must also be called after a
// request was queued, so that its bytes get a write interest.
//
// Owns its two libevent events; borrows the base and the handle. Detach()
// before the handle is closed. Loop thread only.
#ifndef OVITA2_PLUGINS_ZOOKEEPER_ZK_LOOP_DRIVER_H
#define OVITA2_PLUGINS_ZOOKEEPER_ZK_LOOP_DRIVER_H

#include <event2/event.h>
#include <zookeeper/zookeeper.h>

#include <functional>

namespace zelvar::registry {

class ZkLoopDriver {
 public:
  // Called with ZINVALIDSTATE when the handle became unusable (its session
  // expired or authentication failed); the handle is detached by then.
  using FailureFn = std::function<void(int rc)>;

  ZkLoopDriver(event_base* base, FailureFn onFailure);
  ~ZkLoopDriver();

  ZkLoopDriver(const ZkLoopDriver&) = delete;
  ZkLoopDriver& operator=(const ZkLoopDriver&) = delete;

  void Attach(zhandle_t* zh);
  void Detach();
  // Asks the client what it waits for and arms the events accordingly. Does
  // nothing inside zookeeper_process: the driver pumps when that returns.
  void Pump();

 private:
  static void OnSocket(evutil_socket_t fd, short what, void* self);
  static void OnTimer(evutil_socket_t fd, short what, void* self);
  void Process(int events);
  void ClearSocketEvent();

  event_base* m_pBase;
  FailureFn m_fnFailure;
  zhandle_t* m_pZh = nullptr;
  event* m_pSocketEvent = nullptr;
  event* m_pTimer = nullptr;
  bool m_bProcessing = false;
};

}  // namespace zelvar::registry

#endif  // OVITA2_PLUGINS_ZOOKEEPER_ZK_LOOP_DRIVER_H
