#include "zk_test_client.h"

#include <poll.h>

#include <algorithm>
#include <chrono>

namespace zelvar::registry::testing {

struct ZkTestClient::Reply {
  int rc = ZOPERATIONTIMEOUT;
  bool done = false;
  std::string data;
  Stat stat{};

  static Reply& Of(const void* self) { return *static_cast<Reply*>(const_cast<void*>(self)); }
  static void Done(int rc, const void* self) {
    Of(self).rc = rc;
    Of(self).done = true;
  }
};

bool ZkTestClient::Connect(const std::string& hosts, const clientid_t* session) {
  m_pZh.reset();  // before the state it reports to is reset
  m_iState = 0;
  auto onSession = [](zhandle_t*, int type, int state, const char*, void* stateOut) {
    if (type == ZOO_SESSION_EVENT) *static_cast<int*>(stateOut) = state;
  };
  m_pZh.reset(zookeeper_init2(hosts.c_str(), onSession, 4000, session, &m_iState, 0, [](const char*) {}));
  return m_pZh != nullptr &&
         WaitFor([this] { return m_iState == ZOO_CONNECTED_STATE || m_iState == ZOO_EXPIRED_SESSION_STATE; }) &&
         m_iState == ZOO_CONNECTED_STATE;
}

bool ZkTestClient::WaitFor(const std::function<bool()>& done) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWaitMs);
  while (!done() && std::chrono::steady_clock::now() < deadline) {
    int fd = -1;
    int interest = 0;
    timeval wait{};
    if (zookeeper_interest(m_pZh.get(), &fd, &interest, &wait) == ZINVALIDSTATE) break;
    pollfd watched{fd, static_cast<short>(((interest & ZOOKEEPER_READ) ? POLLIN : 0) |
                                          ((interest & ZOOKEEPER_WRITE) ? POLLOUT : 0)), 0};
    poll(&watched, fd >= 0 ? 1 : 0, std::clamp(static_cast<int>(wait.tv_sec * 1000 + wait.tv_usec / 1000), 1, 100));
    zookeeper_process(m_pZh.get(), ((watched.revents & (POLLIN | POLLHUP | POLLERR)) ? ZOOKEEPER_READ : 0) |
                                 ((watched.revents & POLLOUT) ? ZOOKEEPER_WRITE : 0));
  }
  return done();
}

int ZkTestClient::Await(int rc, const Reply& reply) {
  if (rc == ZOK) WaitFor([&reply] { return reply.done; });
  return rc == ZOK ? reply.rc : rc;
}

int ZkTestClient::Create(const std::string& path, const std::string& data, int flags) {
  Reply reply;
  auto onCreated = [](int rc, const char*, const void* self) { Reply::Done(rc, self); };
  int length = static_cast<int>(data.size());
  int rc = zoo_acreate(m_pZh.get(), path.c_str(), data.data(), length, &ZOO_OPEN_ACL_UNSAFE, flags, onCreated, &reply);
  return Await(rc, reply);
}

int ZkTestClient::CreateWithParents(const std::string& path, const std::string& data) {
  size_t slash = path.rfind('/');
  int parent = slash == 0 ? ZOK : CreateWithParents(path.substr(0, slash), "");
  return parent == ZOK || parent == ZNODEEXISTS ? Create(path, data, ZOO_PERSISTENT) : parent;
}

int ZkTestClient::Delete(const std::string& path) {
  Reply reply;
  return Await(zoo_adelete(m_pZh.get(), path.c_str(), -1, &Reply::Done, &reply), reply);
}

int ZkTestClient::Get(const std::string& path, std::string* data, Stat* stat) {
  Reply reply;
  auto onData = [](int rc, const char* value, int length, const Stat* found, const void* self) {
    if (value != nullptr && length > 0) Reply::Of(self).data.assign(value, static_cast<size_t>(length));
    if (found != nullptr) Reply::Of(self).stat = *found;
    Reply::Done(rc, self);
  };
  int rc = Await(zoo_aget(m_pZh.get(), path.c_str(), 0, onData, &reply), reply);
  if (data != nullptr) *data = reply.data;
  if (stat != nullptr) *stat = reply.stat;
  return rc;
}

}  // namespace zelvar::registry::testing
