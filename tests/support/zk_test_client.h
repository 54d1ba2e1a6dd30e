// ZkTestClient: a blocking ZooKeeper client for tests: it seeds nodes, looks
// at them from a second session and acts on a plug-in's session, each call
// waiting (within a bound) for the server's reply by driving the
// single-threaded client with poll().
//
// Owns its handle; Close() or the destructor ends its session. Test thread only.
#ifndef OVITA2_TESTS_SUPPORT_ZK_TEST_CLIENT_H
#define OVITA2_TESTS_SUPPORT_ZK_TEST_CLIENT_H

#include <zookeeper/zookeeper.h>

#include <functional>
#include <string>

namespace zelvar::registry::testing {

class ZkTestClient {
 public:
  static constexpr int kWaitMs = 10000;

  ZkTestClient() = default;
  ~ZkTestClient();

  ZkTestClient(const ZkTestClient&) = delete;
  ZkTestClient& operator=(const ZkTestClient&) = delete;

  // Opens a session (or joins `session` when given) and waits until connected.
  bool Connect(const std::string& hosts, const clientid_t* session = nullptr, int sessionTimeoutMs = 4000);
  void Close();

  // ZooKeeper return codes; ZOPERATIONTIMEOUT when no reply came in time.
  int Create(const std::string& path, const std::string& data, int flags);
  // A persistent node, with empty persistent parents made as needed.
  int CreateWithParents(const std::string& path, const std::string& data);
  int Delete(const std::string& path);
  int Exists(const std::string& path, Stat* stat = nullptr);
  int Get(const std::string& path, std::string* data, Stat* stat = nullptr);

 private:
  bool WaitFor(const std::function<bool()>& done, int limitMs);
  static void OnSession(zhandle_t* zh, int type, int state, const char* path, void* context);

  zhandle_t* m_pZh = nullptr;
  bool m_bConnected = false;
  bool m_bExpired = false;
};

}  // namespace zelvar::registry::testing

#endif  // OVITA2_TESTS_SUPPORT_ZK_TEST_CLIENT_H
