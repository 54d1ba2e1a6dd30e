// The input path of the host's connections: bytes offered to the plug-ins'
// OnDataIn, and the bounds on what a connection may hold unread.
#include "connection_manager.h"

#include <event2/buffer.h>
#include <event2/bufferevent.h>

#include "logger.h"
#include "plugin.h"
#include "zelvar/message_pool.h"
#include "zelvar/string_util.h"

namespace zelvar_host {

void ConnectionManager::OnRead(bufferevent*, void* arg) {
  auto* connection = static_cast<Connection*>(arg);
  connection->owner->ReadInput(connection);
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
  size_t arrived = evbuffer_get_length(input);
  size_t length;
  while ((length = evbuffer_get_length(input)) > 0) {
    Step step = OfferOnce(connection);
    if (step == Step::kFailed) {
      CloseFlushing(connection, Logger::kInfo, "its data could not be decoded");
      return;
    }
    if (step == Step::kNeedMore) break;
    connection->spoke = true;
    if (evbuffer_get_length(input) >= length) {
      m_pLog->Log(Logger::kError, "a plug-in decoded a message from %s without consuming input",
                  connection->peer.c_str());
      break;
    }
  }
  CountInput(connection);
  RequestTrim(arrived > connection->buffered ? arrived - connection->buffered : 0);
  if (connection->buffered > m_sLimits.input_limit) {
    CloseFlushing(connection, Logger::kError,
                  zelvar::FormatString("%zu bytes buffered without a complete message, over the input limit of %zu",
                                       connection->buffered, m_sLimits.input_limit));
    return;
  }
  // Each byte restarts the idle wait, so a peer dripping bytes without ever
  // completing a message is cut by the time since it was accepted instead.
  if (!connection->outbound && !connection->spoke && m_sLimits.idle_timeout_sec > 0 &&
      std::chrono::steady_clock::now() - connection->added >= std::chrono::seconds(m_sLimits.idle_timeout_sec)) {
    CloseFlushing(connection, Logger::kError,
                  zelvar::FormatString("no complete message in %u s after it was accepted", m_sLimits.idle_timeout_sec));
    return;
  }
  if (EnforceTotalLimit(connection)) UpdateIdleTimeout(connection);
}

void ConnectionManager::CountInput(Connection* connection) {
  size_t length = evbuffer_get_length(bufferevent_get_input(connection->bev));
  m_uBuffered = m_uBuffered - connection->buffered + length;
  connection->buffered = length;
  if (length > connection->peak) connection->peak = length;
}

bool ConnectionManager::EnforceTotalLimit(Connection* reading) {
  while (m_uBuffered > m_sLimits.total_input_limit) {
    Connection* largest = reading;
    for (const auto& entry : m_mapConnections) {
      if (entry.second->buffered > largest->buffered) largest = entry.second.get();
    }
    size_t total = m_uBuffered;
    CloseFlushing(largest, Logger::kError,
                  zelvar::FormatString("it held %zu of the %zu bytes buffered by all connections, over the total "
                                       "input limit of %zu",
                                       largest->buffered, total, m_sLimits.total_input_limit));
    if (largest == reading) return false;
  }
  return true;
}

void ConnectionManager::UpdateIdleTimeout(Connection* connection) {
  bool wanted = m_sLimits.idle_timeout_sec > 0 &&
                (connection->buffered > 0 || (!connection->outbound && !connection->spoke));
  if (wanted == connection->timed) return;
  connection->timed = wanted;
  timeval idle{static_cast<time_t>(m_sLimits.idle_timeout_sec), 0};
  bufferevent_set_timeouts(connection->bev, wanted ? &idle : nullptr, nullptr);
}

}  // namespace zelvar_host
