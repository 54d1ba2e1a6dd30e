// ZooKeeperTestServer: a real standalone ZooKeeper server for tests, from
// Debian's zookeeper package, on a free loopback port with its own temporary
// data directory.
//
// Start launches the server's Java main class directly and waits (bounded)
// until a client session connects; Stop ends it (SIGTERM, then SIGKILL) and
// reaps it. The data directory survives a Stop, so a restarted server knows
// its sessions and nodes again. The destructor stops the server and removes
// the directory, whatever state a failed test left.
//
// The class path can be changed with OVITA2_ZOOKEEPER_CLASSPATH and the Java
// binary with OVITA2_JAVA. Test thread only.
#ifndef OVITA2_TESTS_SUPPORT_ZOOKEEPER_TEST_SERVER_H
#define OVITA2_TESTS_SUPPORT_ZOOKEEPER_TEST_SERVER_H

#include <sys/types.h>

#include <string>

namespace zelvar::registry::testing {

class ZooKeeperTestServer {
 public:
  static constexpr int kTickMs = 500;
  static constexpr int kStartLimitMs = 30000;

  ZooKeeperTestServer();
  ~ZooKeeperTestServer();

  ZooKeeperTestServer(const ZooKeeperTestServer&) = delete;
  ZooKeeperTestServer& operator=(const ZooKeeperTestServer&) = delete;

  // True once a client could connect; otherwise false with the reason (and
  // the end of the server's output) in `error`.
  bool Start(std::string* error);
  void Stop();
  bool Running() const { return m_iPid > 0; }

  // "127.0.0.1:<port>"
  std::string Address() const;

 private:
  bool Launch(std::string* error);
  std::string OutputTail() const;

  std::string m_strDir;
  int m_iPort = 0;
  pid_t m_iPid = -1;
};

}  // namespace zelvar::registry::testing

#endif  // OVITA2_TESTS_SUPPORT_ZOOKEEPER_TEST_SERVER_H
