// ZooKeeperTestServer: a real ZooKeeper server (Debian's, or OVITA2_JAVA and
// OVITA2_ZOOKEEPER_CLASSPATH) on a free loopback port. Its data outlives Stop:
// a restarted server knows its sessions again. The destructor stops and reaps
// the server, which also dies with the test process. Test thread only.
#ifndef OVITA2_TESTS_SUPPORT_ZOOKEEPER_TEST_SERVER_H
#define OVITA2_TESTS_SUPPORT_ZOOKEEPER_TEST_SERVER_H

#include <sys/types.h>

#include <filesystem>
#include <string>

#include "local_system.h"

namespace zelvar::registry::testing {

class ZooKeeperTestServer {
 public:
  ZooKeeperTestServer();
  ~ZooKeeperTestServer() { Stop(); }

  // False, with the server's last output in `error`, when no session opens.
  bool Start(std::string* error);
  void Stop();
  // Started again, a fresh server on the same port: no session, no node.
  void StopAndWipe() { Stop(), std::filesystem::remove_all(m_cDir.Path() + "/data"); }
  bool Running() const { return m_iPid > 0; }
  std::string Address() const { return "127.0.0.1:" + std::to_string(m_iPort); }

 private:
  ovita2::testing::TempDir m_cDir;
  int m_iPort;
  pid_t m_iPid = -1;
};

}  // namespace zelvar::registry::testing

#endif  // OVITA2_TESTS_SUPPORT_ZOOKEEPER_TEST_SERVER_H
