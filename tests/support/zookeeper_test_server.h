// ZooKeeperTestServer: a real standalone ZooKeeper server (Debian's package)
// on a free loopback port, with its own scratch folder.
//
// Start runs the server's Java main class and waits (bounded) until a client
// session opens. Stop ends and reaps it; the folder survives a Stop, so a
// restarted server knows its sessions and nodes again. The destructor stops
// the server, and the server dies with the test process should it crash.
// OVITA2_JAVA and OVITA2_ZOOKEEPER_CLASSPATH override where Java and the
// server are. Test thread only.
#ifndef OVITA2_TESTS_SUPPORT_ZOOKEEPER_TEST_SERVER_H
#define OVITA2_TESTS_SUPPORT_ZOOKEEPER_TEST_SERVER_H

#include <sys/types.h>

#include <string>

#include "local_system.h"

namespace zelvar::registry::testing {

class ZooKeeperTestServer {
 public:
  ZooKeeperTestServer();
  ~ZooKeeperTestServer() { Stop(); }
  ZooKeeperTestServer(const ZooKeeperTestServer&) = delete;
  ZooKeeperTestServer& operator=(const ZooKeeperTestServer&) = delete;

  // False, with the server's last output in `error`, when no session opens.
  bool Start(std::string* error);
  void Stop();
  bool Running() const { return m_iPid > 0; }
  std::string Address() const { return "127.0.0.1:" + std::to_string(m_iPort); }

 private:
  ovita2::testing::TempDir m_cDir;
  int m_iPort;
  pid_t m_iPid = -1;
};

}  // namespace zelvar::registry::testing

#endif  // OVITA2_TESTS_SUPPORT_ZOOKEEPER_TEST_SERVER_H
