// ZkTestClient: a blocking ZooKeeper client for tests, to seed nodes, look at
// them from a second session or join a plug-in's session. Each call waits up to
// kWaitMs, driving the single-threaded client with poll(). Test thread only.
#ifndef OVITA2_TESTS_SUPPORT_ZK_TEST_CLIENT_H
#define OVITA2_TESTS_SUPPORT_ZK_TEST_CLIENT_H

#include <zookeeper/zookeeper.h>

#include <functional>
#include <memory>
#include <string>

namespace zelvar::registry::testing {

class ZkTestClient {
 public:
  static constexpr int kWaitMs = 10000;

  ZkTestClient() = default;
  ZkTestClient(const ZkTestClient&) = delete;
  ZkTestClient& operator=(const ZkTestClient&) = delete;

  // Opens a session (or joins `session`) and waits until it is connected.
  bool Connect(const std::string& hosts, const clientid_t* session = nullptr);

  // ZooKeeper return codes; ZOPERATIONTIMEOUT when no reply came in time.
  int Create(const std::string& path, const std::string& data, int flags);
  // A persistent node, with empty persistent parents made as needed.
  int CreateWithParents(const std::string& path, const std::string& data);
  int Delete(const std::string& path);
  int Get(const std::string& path, std::string* data, Stat* stat = nullptr);
  int Exists(const std::string& path, Stat* stat = nullptr) { return Get(path, nullptr, stat); }

 private:
  struct Reply;
  // The reply's code once `rc`, the call's, accepted it.
  int Await(int rc, const Reply& reply);
  bool WaitFor(const std::function<bool()>& done);

  std::unique_ptr<zhandle_t, int (*)(zhandle_t*)> m_pZh{nullptr, &zookeeper_close};
  int m_iState = 0;
};

}  // namespace zelvar::registry::testing

#endif  // OVITA2_TESTS_SUPPORT_ZK_TEST_CLIENT_H
