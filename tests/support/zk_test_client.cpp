#include "zk_test_client.h"

#include <poll.h>

#include <algorithm>
#include <chrono>

namespace zelvar::registry::testing {

struct ZkTestClient::Reply {
  bool done = false;
  int rc = ZOPERATIONTIMEOUT;
  std::string data;
  Stat stat{};

  static void Done(int rc, const void* self) {
    auto* reply = static_cast<Reply*>(const_cast<void*>(self));
    reply->rc = rc;
    reply->done = true;
  }
};

bool ZkTestClient::Connect(const std::string& hosts, const clientid_t* session) {
  Close();
  auto onSession = [](zhandle_t*, int type, int state, const char*, void* stateOut) {
    if (type == ZOO_SESSION_EVENT) *static_cast<int*>(stateOut) = state;
  };
  m_pZh = zookeeper_init2(hosts.c_str(), onSession, 4000, session, &m_iState, 0, [](const char*) {});
  return m_pZh != nullptr &&
         WaitFor([this] { return m_iState == ZOO_CONNECTED_STATE || m_iState == ZOO_EXPIRED_SESSION_STATE; }) &&
         m_iState == ZOO_CONNECTED_STATE;
}

void ZkTestClient::Close() {
  if (m_pZh != nullptr) zookeeper_close(m_pZh);
  m_pZh = nullptr;
  m_iState = 0;
}

bool ZkTestClient::WaitFor(const std::function<bool()>& done) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWaitMs);
  while (!done() && std::chrono::steady_clock::now() < deadline) {
    pollfd watched{-1, 0, 0};
    int interest = 0;
    timeval wait{};
    if (zookeeper_interest(m_pZh, &watched.fd, &interest, &wait) == ZINVALIDSTATE) break;
    watched.events = static_cast<short>(((interest & ZOOKEEPER_READ) ? POLLIN : 0) |
                                        ((interest & ZOOKEEPER_WRITE) ? POLLOUT : 0));
    int waitMs = std::clamp(static_cast<int>(wait.tv_sec * 1000 + wait.tv_usec / 1000), 1, 100);
    int events = 0;
    if (poll(&watched, watched.fd >= 0 ? 1 : 0, waitMs) > 0) {
      if (watched.revents & (POLLIN | POLLHUP | POLLERR)) events |= ZOOKEEPER_READ;
      if (watched.revents & POLLOUT) events |= ZOOKEEPER_WRITE;
    }
    zookeeper_process(m_pZh, events);
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
  return Await(zoo_acreate(m_pZh, path.c_str(), data.data(), static_cast<int>(data.size()), &ZOO_OPEN_ACL_UNSAFE,
                           flags, onCreated, &reply),
               reply);
}

int ZkTestClient::CreateWithParents(const std::string& path, const std::string& data) {
  for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
    int rc = Create(path.substr(0, slash), "", ZOO_PERSISTENT);
    if (rc != ZOK && rc != ZNODEEXISTS) return rc;
  }
  return Create(path, data, ZOO_PERSISTENT);
}

int ZkTestClient::Delete(const std::string& path) {
  Reply reply;
  return Await(zoo_adelete(m_pZh, path.c_str(), -1, &Reply::Done, &reply), reply);
}

int ZkTestClient::Get(const std::string& path, std::string* data, Stat* stat) {
  Reply reply;
  auto onData = [](int rc, const char* value, int length, const Stat* found, const void* self) {
    auto* reply = static_cast<Reply*>(const_cast<void*>(self));
    if (value != nullptr && length > 0) reply->data.assign(value, static_cast<size_t>(length));
    if (found != nullptr) reply->stat = *found;
    Reply::Done(rc, self);
  };
  int rc = Await(zoo_aget(m_pZh, path.c_str(), 0, onData, &reply), reply);
  if (data != nullptr) *data = reply.data;
  if (stat != nullptr) *stat = reply.stat;
  return rc;
}

}  // namespace zelvar::registry::testing
