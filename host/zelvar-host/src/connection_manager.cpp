#include "connection_manager.h"

#include <arpa/inet.h>
#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/listener.h>
#include <event2/event.h>
#include <event2/util.h>
#include <malloc.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "logger.h"
#include "plugin.h"
#include "zelvar/string_util.h"

namespace zelvar_host {
namespace {

constexpr int kListenBacklog = 1024;
// Freeing this much makes a trim worth its cost; trims come at most this often.
constexpr size_t kTrimThreshold = 1024 * 1024;
constexpr timeval kTrimDelay{1, 0};
constexpr timeval kListenerPause{1, 0};
// Every connection gets a serial of its own for the life of the process.
uint64_t g_uNextSerial = 1;

// Fills `address` from a numeric IPv4 or IPv6 address; false otherwise.
bool ParseAddress(const std::string& ip, unsigned short port, sockaddr_storage* address,
                  socklen_t* length) {
  std::memset(address, 0, sizeof *address);
  auto* v4 = reinterpret_cast<sockaddr_in*>(address);
  if (evutil_inet_pton(AF_INET, ip.c_str(), &v4->sin_addr) == 1) {
    v4->sin_family = AF_INET;
    v4->sin_port = htons(port);
    *length = sizeof *v4;
    return true;
  }
  auto* v6 = reinterpret_cast<sockaddr_in6*>(address);
  if (evutil_inet_pton(AF_INET6, ip.c_str(), &v6->sin6_addr) == 1) {
    v6->sin6_family = AF_INET6;
    v6->sin6_port = htons(port);
    *length = sizeof *v6;
    return true;
  }
  return false;
}

std::string DescribeAddress(const sockaddr* address) {
  char text[INET6_ADDRSTRLEN] = "?";
  unsigned port = 0;
  if (address->sa_family == AF_INET) {
    auto* v4 = reinterpret_cast<const sockaddr_in*>(address);
    evutil_inet_ntop(AF_INET, &v4->sin_addr, text, sizeof text);
    port = ntohs(v4->sin_port);
  } else if (address->sa_family == AF_INET6) {
    auto* v6 = reinterpret_cast<const sockaddr_in6*>(address);
    evutil_inet_ntop(AF_INET6, &v6->sin6_addr, text, sizeof text);
    port = ntohs(v6->sin6_port);
  }
  return std::string(text) + ":" + std::to_string(port);
}

void SetNoDelay(int fd) {
  int on = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

}  // namespace

ConnectionManager::ConnectionManager(event_base* base, Logger* log,
                                     const std::vector<std::unique_ptr<Plugin>>* plugins,
                                     const ConnectionLimits& limits, Deliver deliver)
    : m_pBase(base), m_pLog(log), m_pPlugins(plugins), m_sLimits(limits), m_fnDeliver(std::move(deliver)),
      m_pListenerResume(evtimer_new(base, &ConnectionManager::OnListenerResume, this)),
      m_pTrim(evtimer_new(base, &ConnectionManager::OnTrim, this)),
      m_pWriteDue(event_new(base, -1, 0, &ConnectionManager::OnWriteDue, this)) {}

ConnectionManager::~ConnectionManager() {
  StopListening();
  CloseAll();
  event_free(m_pListenerResume);
  event_free(m_pTrim);
  event_free(m_pWriteDue);
}

bool ConnectionManager::Listen(const std::string& ip, int port, std::string* error) {
  std::string host = ip.empty() ? "0.0.0.0" : ip;
  std::string where = host + ":" + std::to_string(port);
  sockaddr_storage address;
  socklen_t length = 0;
  if (port < 0 || port > 65535 || !ParseAddress(host, static_cast<unsigned short>(port), &address, &length)) {
    *error = "cannot listen on " + where + ": not a numeric IP address and port";
    return false;
  }
  int fd = socket(address.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    *error = "cannot listen on " + where + ": " + std::strerror(errno);
    return false;
  }
  int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), length) != 0 || listen(fd, kListenBacklog) != 0) {
    *error = "cannot listen on " + where + ": " + std::strerror(errno);
    close(fd);
    return false;
  }
  m_pListener = evconnlistener_new(m_pBase, &ConnectionManager::OnAccept, this,
                                   LEV_OPT_CLOSE_ON_FREE | LEV_OPT_CLOSE_ON_EXEC, -1, fd);
  if (m_pListener == nullptr) {
    *error = "cannot listen on " + where + ": the event loop refused the socket";
    close(fd);
    return false;
  }
  evconnlistener_set_error_cb(m_pListener, &ConnectionManager::OnAcceptError);
  m_pLog->Log(Logger::kInfo, "listening on %s:%d", host.c_str(), ListenPort());
  return true;
}

int ConnectionManager::ListenPort() const {
  if (m_pListener == nullptr) return 0;
  sockaddr_storage address;
  socklen_t length = sizeof address;
  if (getsockname(evconnlistener_get_fd(m_pListener), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    return 0;
  }
  if (address.ss_family == AF_INET) return ntohs(reinterpret_cast<sockaddr_in*>(&address)->sin_port);
  return ntohs(reinterpret_cast<sockaddr_in6*>(&address)->sin6_port);
}

void ConnectionManager::StopListening() {
  if (m_pListener != nullptr) evconnlistener_free(m_pListener);
  m_pListener = nullptr;
  evtimer_del(m_pListenerResume);
}

// Level-triggered accept would fail again at once, so the listener rests
// while descriptors are short, instead of spinning the loop.
void ConnectionManager::OnAcceptError(evconnlistener* listener, void* arg) {
  auto* self = static_cast<ConnectionManager*>(arg);
  int error = EVUTIL_SOCKET_ERROR();
  evconnlistener_disable(listener);
  evtimer_add(self->m_pListenerResume, &kListenerPause);
  if (self->m_bAcceptFailing) return;
  self->m_bAcceptFailing = true;
  self->m_pLog->Log(Logger::kError, "cannot accept connections on port %d: %s; listener paused, retrying every %d s",
                    self->ListenPort(), evutil_socket_error_to_string(error), static_cast<int>(kListenerPause.tv_sec));
}

void ConnectionManager::OnListenerResume(int, short, void* arg) {
  auto* self = static_cast<ConnectionManager*>(arg);
  if (self->m_pListener != nullptr) evconnlistener_enable(self->m_pListener);
}

void ConnectionManager::OnTrim(int, short, void*) { malloc_trim(0); }

void ConnectionManager::RequestTrim(size_t released) {
  if (released > kTrimThreshold && !evtimer_pending(m_pTrim, nullptr)) evtimer_add(m_pTrim, &kTrimDelay);
}

std::string ConnectionManager::Describe(const Connection& connection) const {
  return connection.peer + " (" + std::to_string(connection.fd) + ":" + std::to_string(connection.serial) + ")";
}

ConnectionManager::Connection* ConnectionManager::Add(int fd, bufferevent* bev, bool outbound,
                                                      const std::string& peer) {
  auto connection = std::make_unique<Connection>();
  connection->owner = this;
  connection->serial = g_uNextSerial++;
  connection->fd = fd;
  connection->bev = bev;
  connection->outbound = outbound;
  connection->peer = peer;
  Connection* raw = connection.get();
  m_mapConnections.emplace(raw->serial, std::move(connection));
  bufferevent_setcb(bev, &ConnectionManager::OnRead, &ConnectionManager::OnWritten, &ConnectionManager::OnEvent,
                    raw);
  WatchOutput(raw);
  return raw;
}

bufferevent* ConnectionManager::Find(uint64_t connA, uint64_t connB) const {
  auto it = m_mapConnections.find(connB);
  if (it == m_mapConnections.end() || static_cast<uint64_t>(it->second->fd) != connA) return nullptr;
  return it->second->bev;
}

bufferevent* ConnectionManager::ConnectTo(const char* ip, unsigned short port) {
  if (ip == nullptr) return nullptr;
  std::string peer = std::string(ip) + ":" + std::to_string(port);
  auto live = m_mapOutbound.find(peer);
  if (live != m_mapOutbound.end()) return m_mapConnections.at(live->second)->bev;

  sockaddr_storage address;
  socklen_t length = 0;
  if (!ParseAddress(ip, port, &address, &length)) {
    m_pLog->Log(Logger::kError, "cannot connect to %s: not a numeric IP address", peer.c_str());
    return nullptr;
  }
  int fd = socket(address.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    m_pLog->Log(Logger::kError, "cannot connect to %s: %s", peer.c_str(), std::strerror(errno));
    return nullptr;
  }
  SetNoDelay(fd);
  bufferevent* bev = bufferevent_socket_new(m_pBase, fd, BEV_OPT_CLOSE_ON_FREE);
  if (bev == nullptr) {
    close(fd);
    return nullptr;
  }
  Connection* connection = Add(fd, bev, true, peer);
  if (bufferevent_socket_connect(bev, reinterpret_cast<sockaddr*>(&address), static_cast<int>(length)) != 0) {
    m_pLog->Log(Logger::kError, "cannot connect to %s: %s", peer.c_str(), std::strerror(errno));
    Close(connection, false, "the connect failed");
    return nullptr;
  }
  m_mapOutbound[peer] = connection->serial;
  bufferevent_enable(bev, EV_READ | EV_WRITE);
  m_pLog->Log(Logger::kDebug, "connecting to %s (connection %d:%llu)", peer.c_str(), fd,
              static_cast<unsigned long long>(connection->serial));
  return bev;
}

void ConnectionManager::OnAccept(evconnlistener*, int fd, sockaddr* address, int, void* arg) {
  auto* self = static_cast<ConnectionManager*>(arg);
  if (self->m_bAcceptFailing) {
    self->m_bAcceptFailing = false;
    self->m_pLog->Log(Logger::kInfo, "accepting connections again");
  }
  SetNoDelay(fd);
  bufferevent* bev = bufferevent_socket_new(self->m_pBase, fd, BEV_OPT_CLOSE_ON_FREE);
  if (bev == nullptr) {
    close(fd);
    return;
  }
  Connection* connection = self->Add(fd, bev, false, DescribeAddress(address));
  // A new bufferevent would write its output itself; the host does.
  bufferevent_disable(bev, EV_WRITE);
  bufferevent_enable(bev, EV_READ);
  self->UpdateIdleTimeout(connection);
  self->m_pLog->Log(Logger::kDebug, "accepted %s (connection %d:%llu)", connection->peer.c_str(), fd,
                    static_cast<unsigned long long>(connection->serial));
  self->NotifyConnect(*connection);
}

void ConnectionManager::NotifyConnect(const Connection& connection) const {
  for (const auto& plugin : *m_pPlugins) {
    if (plugin->on_connect != nullptr) plugin->on_connect(connection.fd, connection.serial);
  }
}

void ConnectionManager::OnEvent(bufferevent* bev, short what, void* arg) {
  auto* connection = static_cast<Connection*>(arg);
  ConnectionManager* self = connection->owner;
  if (what & BEV_EVENT_CONNECTED) {
    self->m_pLog->Log(Logger::kDebug, "connected to %s", connection->peer.c_str());
    if (evbuffer_get_length(bufferevent_get_output(bev)) == 0) bufferevent_disable(bev, EV_WRITE);
    self->NotifyConnect(*connection);
    return;
  }
  if (what & BEV_EVENT_TIMEOUT) {
    // Bytes waiting in the socket mean the loop was late, not the peer: they
    // are read now and the wait starts again.
    int waiting = 0;
    if (ioctl(bufferevent_getfd(bev), FIONREAD, &waiting) == 0 && waiting > 0) {
      bufferevent_enable(bev, EV_READ);
      return;
    }
    self->CloseFlushing(connection, Logger::kError,
                        zelvar::FormatString(connection->buffered > 0 ? "no byte in %u s while part of a message is held"
                                                               : "no complete message in %u s after it was accepted",
                                      self->m_sLimits.idle_timeout_sec));
    return;
  }
  if (what & BEV_EVENT_ERROR) {
    int error = EVUTIL_SOCKET_ERROR();
    self->m_pLog->Log(Logger::kInfo, "connection %s (%d:%llu) closed: %s", connection->peer.c_str(),
                      connection->fd, static_cast<unsigned long long>(connection->serial),
                      error != 0 ? evutil_socket_error_to_string(error) : "socket error");
  } else {
    self->m_pLog->Log(Logger::kDebug, "connection %s (%d:%llu) closed by the peer",
                      connection->peer.c_str(), connection->fd,
                      static_cast<unsigned long long>(connection->serial));
  }
  self->Close(connection, true, "the connection ended");
}

}  // namespace zelvar_host
