// The end of the host's connections: forgetting them, telling the plug-ins,
// and the flush of queued output after the host closed one of its own accord.
#include "connection_manager.h"

#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <event2/util.h>

#include <cstring>

#include "logger.h"
#include "plugin.h"

namespace zelvar_host {

std::unique_ptr<ConnectionManager::Connection> ConnectionManager::Forget(Connection* connection) {
  auto outbound = m_mapOutbound.find(connection->peer);
  if (connection->outbound && outbound != m_mapOutbound.end() && outbound->second == connection->serial) {
    m_mapOutbound.erase(outbound);
  }
  m_uBuffered -= connection->buffered;
  connection->buffered = 0;
  UnwatchOutput(connection);
  auto it = m_mapConnections.find(connection->serial);
  std::unique_ptr<Connection> owned = std::move(it->second);
  m_mapConnections.erase(it);
  return owned;
}

void ConnectionManager::NotifyDisconnect(const Connection& connection) const {
  for (const auto& plugin : *m_pPlugins) {
    if (plugin->on_disconnect != nullptr) plugin->on_disconnect(connection.fd, connection.serial);
  }
}

void ConnectionManager::Free(std::unique_ptr<Connection> connection, const char* why) {
  size_t unsent = evbuffer_get_length(bufferevent_get_output(connection->bev));
  if (unsent > 0) {
    m_pLog->Log(Logger::kError, "%zu bytes queued for %s were not sent: %s", unsent, Describe(*connection).c_str(),
                why);
  }
  bufferevent_free(connection->bev);
  RequestTrim(connection->peak);
}

void ConnectionManager::Close(Connection* connection, bool notify, const char* why) {
  std::unique_ptr<Connection> owned = Forget(connection);
  if (notify) NotifyDisconnect(*owned);
  Free(std::move(owned), why);
}

void ConnectionManager::CloseFlushing(Connection* connection, int level, const std::string& why) {
  m_pLog->Log(level, "connection %s closed: %s", Describe(*connection).c_str(), why.c_str());
  std::unique_ptr<Connection> owned = Forget(connection);
  bufferevent* bev = owned->bev;
  evbuffer_drain(bufferevent_get_input(bev), evbuffer_get_length(bufferevent_get_input(bev)));
  NotifyDisconnect(*owned);
  if (evbuffer_get_length(bufferevent_get_output(bev)) == 0) {
    Free(std::move(owned), "");
    return;
  }
  // Input is still read and dropped: unread bytes at close would make the
  // kernel reset the connection, and the peer could lose what was flushed.
  Connection* raw = owned.get();
  bufferevent_setcb(bev, &ConnectionManager::OnFlushRead, &ConnectionManager::OnFlushed,
                    &ConnectionManager::OnFlushEvent, raw);
  bufferevent_setwatermark(bev, EV_WRITE, 0, 0);
  // A write timeout restarts with every write, so it measures the peer's
  // progress rather than the time since the close.
  timeval stalled{kFlushSeconds, 0};
  bufferevent_set_timeouts(bev, nullptr, &stalled);
  bufferevent_enable(bev, EV_READ | EV_WRITE);
  m_mapFlushing.emplace(raw->serial, std::move(owned));
}

void ConnectionManager::EndFlush(Connection* connection, const char* why) {
  auto it = m_mapFlushing.find(connection->serial);
  std::unique_ptr<Connection> owned = std::move(it->second);
  m_mapFlushing.erase(it);
  Free(std::move(owned), why);
}

void ConnectionManager::OnFlushRead(bufferevent* bev, void*) {
  evbuffer_drain(bufferevent_get_input(bev), evbuffer_get_length(bufferevent_get_input(bev)));
}

void ConnectionManager::OnFlushed(bufferevent*, void* arg) {
  auto* connection = static_cast<Connection*>(arg);
  connection->owner->EndFlush(connection, "");
}

// The peer's end of input is no reason to stop: it may still read.
void ConnectionManager::OnFlushEvent(bufferevent*, short what, void* arg) {
  auto* connection = static_cast<Connection*>(arg);
  if (what & BEV_EVENT_TIMEOUT) {
    static const std::string why = "nothing could be sent for " + std::to_string(kFlushSeconds) + " s";
    connection->owner->EndFlush(connection, why.c_str());
    return;
  }
  if (!(what & BEV_EVENT_ERROR)) return;
  int error = EVUTIL_SOCKET_ERROR();
  connection->owner->EndFlush(connection, error != 0 ? evutil_socket_error_to_string(error) : "socket error");
}

void ConnectionManager::CloseAll() {
  while (!m_mapConnections.empty()) Close(m_mapConnections.begin()->second.get(), false, "the host stopped");
  while (!m_mapFlushing.empty()) EndFlush(m_mapFlushing.begin()->second.get(), "the host stopped");
}

}  // namespace zelvar_host
