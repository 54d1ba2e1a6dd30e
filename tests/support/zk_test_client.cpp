#include "zk_test_client.h"

#include <poll.h>

#include <chrono>
#include <string>

namespace zelvar::registry::testing {
namespace {

struct Reply {
  bool done = false;
  int rc = ZOPERATIONTIMEOUT;
  Stat stat{};
  std::string data;
};

void OnVoid(int rc, const void* data) {
  auto* reply = static_cast<Reply*>(const_cast<void*>(data));
  reply->rc = rc;
  reply->done = true;
}

void OnString(int rc, const char*, const void* data) { OnVoid(rc, data); }

void OnStat(int rc, const Stat* stat, const void* data) {
  auto* reply = static_cast<Reply*>(const_cast<void*>(data));
  if (stat != nullptr) reply->stat = *stat;
  OnVoid(rc, data);
}

void OnData(int rc, const char* value, int length, const Stat* stat, const void* data) {
  auto* reply = static_cast<Reply*>(const_cast<void*>(data));
  if (value != nullptr && length > 0) reply->data.assign(value, static_cast<size_t>(length));
  OnStat(rc, stat, data);
}

void Quiet(const char*) {}

}  // namespace

ZkTestClient::~ZkTestClient() { Close(); }

void ZkTestClient::OnSession(zhandle_t*, int type, int state, const char*, void* context) {
  if (type != ZOO_SESSION_EVENT) return;
  auto* client = static_cast<ZkTestClient*>(context);
  client->m_bConnected = state == ZOO_CONNECTED_STATE;
  if (state == ZOO_EXPIRED_SESSION_STATE) client->m_bExpired = true;
}

bool ZkTestClient::Connect(const std::string& hosts, const clientid_t* session, int sessionTimeoutMs) {
  Close();
  m_pZh = zookeeper_init2(hosts.c_str(), &ZkTestClient::OnSession, sessionTimeoutMs, session, this, 0, &Quiet);
  if (m_pZh == nullptr) return false;
  return WaitFor([this] { return m_bConnected || m_bExpired; }, kWaitMs) && m_bConnected;
}

void ZkTestClient::Close() {
  if (m_pZh == nullptr) return;
  zookeeper_close(m_pZh);
  m_pZh = nullptr;
  m_bConnected = false;
}

bool ZkTestClient::WaitFor(const std::function<bool()>& done, int limitMs) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(limitMs);
  while (!done()) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0 || m_pZh == nullptr) return done();
    int fd = -1;
    int interest = 0;
    timeval tv{};
    if (zookeeper_interest(m_pZh, &fd, &interest, &tv) == ZINVALIDSTATE) return done();
    int waitMs = static_cast<int>(tv.tv_sec * 1000 + tv.tv_usec / 1000);
    if (waitMs > left.count()) waitMs = static_cast<int>(left.count());
    if (waitMs < 1) waitMs = 1;
    pollfd watched{fd, 0, 0};
    if (interest & ZOOKEEPER_READ) watched.events |= POLLIN;
    if (interest & ZOOKEEPER_WRITE) watched.events |= POLLOUT;
    int events = 0;
    if (poll(&watched, fd >= 0 ? 1 : 0, waitMs) > 0) {
      if (watched.revents & (POLLIN | POLLHUP | POLLERR)) events |= ZOOKEEPER_READ;
      if (watched.revents & POLLOUT) events |= ZOOKEEPER_WRITE;
    }
    zookeeper_process(m_pZh, events);
  }
  return true;
}

int ZkTestClient::Create(const std::string& path, const std::string& data, int flags) {
  if (m_pZh == nullptr) return ZINVALIDSTATE;
  Reply reply;
  int rc = zoo_acreate(m_pZh, path.c_str(), data.data(), static_cast<int>(data.size()), &ZOO_OPEN_ACL_UNSAFE, flags,
                       &OnString, &reply);
  if (rc != ZOK) return rc;
  WaitFor([&reply] { return reply.done; }, kWaitMs);
  return reply.rc;
}

int ZkTestClient::CreateWithParents(const std::string& path, const std::string& data) {
  for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
    int rc = Create(path.substr(0, slash), "", ZOO_PERSISTENT);
    if (rc != ZOK && rc != ZNODEEXISTS) return rc;
  }
  return Create(path, data, ZOO_PERSISTENT);
}

int ZkTestClient::Delete(const std::string& path) {
  if (m_pZh == nullptr) return ZINVALIDSTATE;
  Reply reply;
  int rc = zoo_adelete(m_pZh, path.c_str(), -1, &OnVoid, &reply);
  if (rc != ZOK) return rc;
  WaitFor([&reply] { return reply.done; }, kWaitMs);
  return reply.rc;
}

int ZkTestClient::Exists(const std::string& path, Stat* stat) {
  if (m_pZh == nullptr) return ZINVALIDSTATE;
  Reply reply;
  int rc = zoo_aexists(m_pZh, path.c_str(), 0, &OnStat, &reply);
  if (rc != ZOK) return rc;
  WaitFor([&reply] { return reply.done; }, kWaitMs);
  if (stat != nullptr) *stat = reply.stat;
  return reply.rc;
}

int ZkTestClient::Get(const std::string& path, std::string* data, Stat* stat) {
  if (m_pZh == nullptr) return ZINVALIDSTATE;
  Reply reply;
  int rc = zoo_aget(m_pZh, path.c_str(), 0, &OnData, &reply);
  if (rc != ZOK) return rc;
  WaitFor([&reply] { return reply.done; }, kWaitMs);
  if (data != nullptr) *data = reply.data;
  if (stat != nullptr) *stat = reply.stat;
  return reply.rc;
}

}  // namespace zelvar::registry::testing
