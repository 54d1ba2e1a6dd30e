#include "connection_manager.h"

#include <arpa/inet.h>
#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/listener.h>
#include <event2/util.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "logger.h"
#include "plugin.h"
#include "zelvar/message_pool.h"

namespace zelvar_host {
namespace {

constexpr int kListenBacklog = 1024;
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
                                     size_t inputLimit, Deliver deliver)
    : m_pBase(base), m_pLog(log), m_pPlugins(plugins), m_uInputLimit(inputLimit),
      m_fnDeliver(std::move(deliver)) {}

ConnectionManager::~ConnectionManager() {
  StopListening();
  CloseAll();
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
  bufferevent_setcb(bev, &ConnectionManager::OnRead, nullptr, &ConnectionManager::OnEvent, raw);
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
    Close(connection, false);
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
  SetNoDelay(fd);
  bufferevent* bev = bufferevent_socket_new(self->m_pBase, fd, BEV_OPT_CLOSE_ON_FREE);
  if (bev == nullptr) {
    close(fd);
    return;
  }
  Connection* connection = self->Add(fd, bev, false, DescribeAddress(address));
  bufferevent_enable(bev, EV_READ | EV_WRITE);
  self->m_pLog->Log(Logger::kDebug, "accepted %s (connection %d:%llu)", connection->peer.c_str(), fd,
                    static_cast<unsigned long long>(connection->serial));
  self->NotifyConnect(*connection);
}

void ConnectionManager::NotifyConnect(const Connection& connection) const {
  for (const auto& plugin : *m_pPlugins) {
    if (plugin->on_connect != nullptr) plugin->on_connect(connection.fd, connection.serial);
  }
}

void ConnectionManager::OnRead(bufferevent*, void* arg) {
  auto* connection = static_cast<Connection*>(arg);
  connection->owner->ReadInput(connection);
}

void ConnectionManager::OnEvent(bufferevent*, short what, void* arg) {
  auto* connection = static_cast<Connection*>(arg);
  ConnectionManager* self = connection->owner;
  if (what & BEV_EVENT_CONNECTED) {
    self->m_pLog->Log(Logger::kDebug, "connected to %s", connection->peer.c_str());
    self->NotifyConnect(*connection);
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
  self->Close(connection, true);
}

ConnectionManager::Step ConnectionManager::CallDataIn(Connection* connection, Plugin* plugin, int* result) {
  zelvar::ZMessage* message = nullptr;
  zelvar::StateMachine* machine = nullptr;
  *result = plugin->on_data_in(connection->fd, connection->serial, &message, &machine);
  if (*result == 100) return Step::kNeedMore;
  if (*result != 0) return Step::kFailed;
  if (message != nullptr && machine != nullptr) {
    m_fnDeliver(message, machine);
  } else {
    m_pLog->Log(Logger::kError, "plug-in \"%s\" decoded data from %s without a %s; ignored",
                plugin->Name().c_str(), connection->peer.c_str(), message == nullptr ? "message" : "machine");
    zelvar::MessagePool::Instance()->Release(message);
  }
  return Step::kDelivered;
}

ConnectionManager::Step ConnectionManager::OfferOnce(Connection* connection) {
  int result = 0;
  if (connection->reader != nullptr) return CallDataIn(connection, connection->reader, &result);
  evbuffer* input = bufferevent_get_input(connection->bev);
  bool offered = false;
  for (const auto& plugin : *m_pPlugins) {
    if (plugin->on_data_in == nullptr) continue;
    offered = true;
    size_t before = evbuffer_get_length(input);
    Step step = CallDataIn(connection, plugin.get(), &result);
    if (step != Step::kFailed) {
      connection->reader = plugin.get();
      return step;
    }
    if (evbuffer_get_length(input) != before) return Step::kFailed;
  }
  if (!offered) {
    evbuffer_drain(input, evbuffer_get_length(input));
    return Step::kNeedMore;
  }
  return Step::kFailed;
}

void ConnectionManager::ReadInput(Connection* connection) {
  evbuffer* input = bufferevent_get_input(connection->bev);
  size_t length;
  while ((length = evbuffer_get_length(input)) > 0) {
    Step step = OfferOnce(connection);
    if (step == Step::kFailed) {
      m_pLog->Log(Logger::kInfo, "connection %s (%d:%llu) closed: its data could not be decoded",
                  connection->peer.c_str(), connection->fd,
                  static_cast<unsigned long long>(connection->serial));
      Close(connection, true);
      return;
    }
    if (step == Step::kNeedMore) break;
    if (evbuffer_get_length(input) >= length) {
      m_pLog->Log(Logger::kError, "a plug-in decoded a message from %s without consuming input",
                  connection->peer.c_str());
      break;
    }
  }
  length = evbuffer_get_length(input);
  if (length > m_uInputLimit) {
    m_pLog->Log(Logger::kError,
                "connection %s (%d:%llu) closed: %zu bytes buffered without a complete message, "
                "over the input limit of %zu",
                connection->peer.c_str(), connection->fd,
                static_cast<unsigned long long>(connection->serial), length, m_uInputLimit);
    Close(connection, true);
  }
}

void ConnectionManager::Close(Connection* connection, bool notify) {
  uint64_t serial = connection->serial;
  int fd = connection->fd;
  auto outbound = m_mapOutbound.find(connection->peer);
  if (connection->outbound && outbound != m_mapOutbound.end() && outbound->second == serial) {
    m_mapOutbound.erase(outbound);
  }
  bufferevent_free(connection->bev);
  m_mapConnections.erase(serial);
  if (!notify) return;
  for (const auto& plugin : *m_pPlugins) {
    if (plugin->on_disconnect != nullptr) plugin->on_disconnect(fd, serial);
  }
}

void ConnectionManager::CloseAll() {
  while (!m_mapConnections.empty()) Close(m_mapConnections.begin()->second.get(), false);
}

}  // namespace zelvar_host
