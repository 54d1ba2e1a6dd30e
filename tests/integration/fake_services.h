// FakeServices: the master, task queue, statistics access and aggregation
// services on one loopback port, answering the agent as the real ones would,
// on a thread of their own. Each request the agent sends is kept for the test.
#ifndef OVITA2_TESTS_INTEGRATION_FAKE_SERVICES_H
#define OVITA2_TESTS_INTEGRATION_FAKE_SERVICES_H

#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "zelvar/message.pb.h"
#include "zelvar/ovita2.pb.h"

namespace integration {

class FakeServices {
 public:
  FakeServices();
  ~FakeServices();  // stops the thread, closes every socket

  int Port() const { return m_iPort; }
  bool ok() const { return m_iListenFd >= 0; }

  // The port named in answers to 67000 and 66000 (this one's own by default).
  void SetNamedPort(int port) { m_iNamedPort = port; }
  // The job list answered to 68000.
  void SetJobs(const zelvar::ovita2::GetJobResponse& jobs);
  // Copies of the requests received so far of one message type.
  std::vector<zelvar::ZMessage> Received(unsigned messageType) const;

 private:
  void Serve();
  bool Answer(const zelvar::ZMessage& request, zelvar::ZMessage* reply);

  int m_iListenFd = -1;
  int m_iPort = 0;
  std::atomic<int> m_iNamedPort{0};
  int m_arrStopPipe[2] = {-1, -1};
  std::thread m_sThread;
  mutable std::mutex m_sMutex;
  zelvar::ovita2::GetJobResponse m_sJobs;
  std::multimap<unsigned, zelvar::ZMessage> m_mapReceived;
};

}  // namespace integration

#endif  // OVITA2_TESTS_INTEGRATION_FAKE_SERVICES_H
