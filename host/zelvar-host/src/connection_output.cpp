// The output path of the host's connections. What a plug-in queues on a
// connection is written to the socket by the host itself, once per loop turn
// in which something was queued. Left to the bufferevent, every message would
// cost a loop turn and two more system calls: write interest turned on
// (epoll_ctl), a wait to learn that the socket is writable, which it nearly
// always is, the write, and write interest turned off again (epoll_ctl). Only
// what the socket does not take at once goes to the bufferevent, which holds
// write interest while it drains that and gives it back after.
#include "connection_manager.h"

#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>

namespace zelvar_host {

void ConnectionManager::WatchOutput(Connection* connection) {
  connection->outputWatch =
      evbuffer_add_cb(bufferevent_get_output(connection->bev), &ConnectionManager::OnOutputChanged, connection);
}

void ConnectionManager::UnwatchOutput(Connection* connection) {
  if (connection->outputWatch == nullptr) return;
  evbuffer_remove_cb_entry(bufferevent_get_output(connection->bev), connection->outputWatch);
  connection->outputWatch = nullptr;
}

// Called for every change of the output, the prefix and the body of one
// message alike; the write waits for the end of the turn so that they leave
// in one writev.
void ConnectionManager::OnOutputChanged(evbuffer*, const evbuffer_cb_info* info, void* arg) {
  auto* connection = static_cast<Connection*>(arg);
  if (info->n_added == 0 || connection->writeQueued) return;
  if (bufferevent_get_enabled(connection->bev) & EV_WRITE) return;  // connecting, or draining a rest
  connection->writeQueued = true;
  ConnectionManager* self = connection->owner;
  self->m_vecWriteQueue.push_back(connection->serial);
  event_active(self->m_pWriteDue, EV_WRITE, 0);
}

void ConnectionManager::OnWriteDue(int, short, void* arg) {
  auto* self = static_cast<ConnectionManager*>(arg);
  std::vector<uint64_t> due;
  due.swap(self->m_vecWriteQueue);
  for (uint64_t serial : due) {
    auto it = self->m_mapConnections.find(serial);  // closed meanwhile: not found
    if (it != self->m_mapConnections.end()) self->WriteOut(it->second.get());
  }
}

void ConnectionManager::WriteOut(Connection* connection) {
  connection->writeQueued = false;
  bufferevent* bev = connection->bev;
  if (bufferevent_get_enabled(bev) & EV_WRITE) return;
  evbuffer* output = bufferevent_get_output(bev);
  // The bufferevent keeps the front of its output frozen to all but itself.
  evbuffer_unfreeze(output, 1);
  evbuffer_write(output, connection->fd);
  evbuffer_freeze(output, 1);
  // A rest the socket would not take, or a write that failed: the bufferevent
  // tries again and reports a failure as it does for any write of its own.
  if (evbuffer_get_length(output) > 0) bufferevent_enable(bev, EV_WRITE);
}

// The bufferevent has written out what it was given (or finished a connect
// with nothing queued); the host writes again.
void ConnectionManager::OnWritten(bufferevent* bev, void*) { bufferevent_disable(bev, EV_WRITE); }

}  // namespace zelvar_host
