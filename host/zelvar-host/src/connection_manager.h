// ConnectionManager: the host's TCP connections, inbound (the listening
// socket) and outbound (ConnectTo), and the path of their bytes into the
// plug-ins' OnDataIn.
//
// A connection is named by (connA, connB) = (socket descriptor, serial
// number); serials are never reused in the process, so a stale pair never
// names a newer connection that got the same descriptor.
//
// Input: when bytes arrive, OnDataIn is called while it returns 0 and input
// remains; each decoded message goes to `deliver` with the machine the plug-in
// named. 100 waits for more bytes; -1 closes the connection. When several
// plug-ins export OnDataIn, a connection's data is offered to them in load
// order until one answers 0 or 100: that plug-in keeps the connection from
// then on. A plug-in that answers -1 without consuming anything passes the
// data on to the next one; -1 after consuming bytes (or from the plug-in that
// keeps the connection) closes it. When no plug-in exports OnDataIn the bytes
// are discarded.
//
// Bounds, so that peers cannot hold the host's memory or descriptors:
// - a connection whose unconsumed input grows past `input_limit` is closed;
// - when the input buffered by all connections together passes
//   `total_input_limit`, the connection holding the most is closed (the one
//   that frees the most at once; a small reader is not punished for the
//   hoarding of others);
// - a connection holding part of a message, and an inbound one that has not
//   delivered a complete message yet, is closed when no byte arrives for
//   `idle_timeout_sec`. A connection with nothing pending otherwise waits
//   forever: an outbound one awaiting a reply, or an inbound peer that has
//   spoken already and keeps its connection for later;
// - when accept fails (out of descriptors, typically) the listener pauses for
//   a second, said once at the error level until accepting works again.
// Memory freed from buffers over 1 MiB is given back to the system (malloc_trim
// at most once a second), as glibc keeps freed small chains otherwise.
//
// Closing: the host closes a connection of its own accord (a plug-in's -1,
// the bounds above) by first sending what is queued for it, reading and
// discarding input meanwhile, for as long as the peer keeps taking bytes: it
// is cut when nothing could be written for kFlushSeconds (a slow reader still
// gets everything, one that stopped reading does not hold the memory). What is
// still unsent then, or whenever a connection ends with queued output, is
// logged at the error level with its address and byte count.
//
// Output: the host writes what the plug-ins queue straight to the socket at
// the end of the loop turn; the bufferevent writes only what the socket did
// not take at once, and the output of an outbound connection until it is
// connected.
//
// Outbound: ConnectTo reuses a live connection (connected or still
// connecting) to the same ip:port, or starts a non-blocking connect and returns
// its bufferevent at once; writes wait in its output buffer until connected. A
// failed connect closes it. OnConnect is called when an inbound connection is
// accepted and when an outbound one is established. OnDisconnect is called once
// per connection, when it is forgotten: when the peer closed or the socket
// failed, or when the host decided to close it (before its queued output is
// flushed). From then on GetConnectionBev answers null for it, ConnectTo opens
// a new connection, and its bufferevent must not be used any more.
//
// Owns the connections and the listener; borrows the base, the log and the
// plug-in list, which must outlive it. Event-loop thread only.
#ifndef ZELVAR_HOST_CONNECTION_MANAGER_H
#define ZELVAR_HOST_CONNECTION_MANAGER_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

struct bufferevent;
struct event;
struct evbuffer;
struct evbuffer_cb_entry;
struct evbuffer_cb_info;
struct event_base;
struct evconnlistener;
struct sockaddr;

namespace zelvar {
class StateMachine;
class ZMessage;
}  // namespace zelvar

namespace zelvar_host {

class Logger;
class Plugin;

struct ConnectionLimits {
  size_t input_limit = 16 * 1024 * 1024;
  size_t total_input_limit = 64 * 1024 * 1024;
  unsigned idle_timeout_sec = 60;  // 0: none
};

class ConnectionManager {
 public:
  static constexpr int kFlushSeconds = 5;

  // Takes the message; queues it for the machine.
  using Deliver = std::function<void(zelvar::ZMessage* message, zelvar::StateMachine* machine)>;

  ConnectionManager(event_base* base, Logger* log, const std::vector<std::unique_ptr<Plugin>>* plugins,
                    const ConnectionLimits& limits, Deliver deliver);
  ~ConnectionManager();  // CloseAll()
  ConnectionManager(const ConnectionManager&) = delete;
  ConnectionManager& operator=(const ConnectionManager&) = delete;

  // Listens on ip:port (port 0 picks a free one). False with a one-line reason.
  bool Listen(const std::string& ip, int port, std::string* error);
  // The port the listening socket is bound to, 0 when not listening.
  int ListenPort() const;
  void StopListening();

  // The live connection (connA, connB), or null.
  bufferevent* Find(uint64_t connA, uint64_t connB) const;
  // See the class comment; null when the address is not a numeric IPv4 or
  // IPv6 address or the connect cannot even start.
  bufferevent* ConnectTo(const char* ip, unsigned short port);
  // Closes every connection without calling the plug-ins or flushing (shutdown).
  void CloseAll();

 private:
  struct Connection {
    ConnectionManager* owner = nullptr;
    uint64_t serial = 0;
    int fd = -1;
    bufferevent* bev = nullptr;
    bool outbound = false;
    std::string peer;     // "ip:port"
    Plugin* reader = nullptr;  // the plug-in that keeps this connection's data
    size_t buffered = 0;       // input length counted in the owner's total
    size_t peak = 0;           // largest input or output length seen
    bool spoke = false;        // delivered a message
    std::chrono::steady_clock::time_point added = std::chrono::steady_clock::now();
    bool timed = false;        // the idle timeout is armed
    evbuffer_cb_entry* outputWatch = nullptr;  // queues the direct write
    bool writeQueued = false;                  // in the owner's write queue
  };
  enum class Step { kDelivered, kNeedMore, kFailed };

  Connection* Add(int fd, bufferevent* bev, bool outbound, const std::string& peer);
  // The host's own close: forget, notify, flush, then free. `why` completes
  // "connection <peer> (<fd>:<serial>) closed: ".
  void CloseFlushing(Connection* connection, int level, const std::string& why);
  void EndFlush(Connection* connection, const char* why);
  // Forgets the connection: no longer found, nor reused by ConnectTo.
  std::unique_ptr<Connection> Forget(Connection* connection);
  void NotifyDisconnect(const Connection& connection) const;
  // Logs queued output that is lost, with `why`.
  void Free(std::unique_ptr<Connection> connection, const char* why);
  void Close(Connection* connection, bool notify, const char* why);
  void CountInput(Connection* connection);
  bool EnforceTotalLimit(Connection* reading);
  void UpdateIdleTimeout(Connection* connection);
  void RequestTrim(size_t released);
  std::string Describe(const Connection& connection) const;
  void NotifyConnect(const Connection& connection) const;
  void ReadInput(Connection* connection);
  Step OfferOnce(Connection* connection);
  Step CallDataIn(Connection* connection, Plugin* plugin, int* result);
  void WatchOutput(Connection* connection);
  void UnwatchOutput(Connection* connection);
  void WriteOut(Connection* connection);

  static void OnAccept(evconnlistener* listener, int fd, sockaddr* address, int length, void* arg);
  static void OnRead(bufferevent* bev, void* arg);
  static void OnEvent(bufferevent* bev, short what, void* arg);
  static void OnOutputChanged(evbuffer* output, const evbuffer_cb_info* info, void* arg);
  static void OnWriteDue(int, short, void* arg);
  static void OnWritten(bufferevent* bev, void* arg);
  static void OnAcceptError(evconnlistener* listener, void* arg);
  static void OnListenerResume(int, short, void* arg);
  static void OnTrim(int, short, void* arg);
  static void OnFlushRead(bufferevent* bev, void* arg);
  static void OnFlushed(bufferevent* bev, void* arg);
  static void OnFlushEvent(bufferevent* bev, short what, void* arg);

  event_base* m_pBase;
  Logger* m_pLog;
  const std::vector<std::unique_ptr<Plugin>>* m_pPlugins;
  ConnectionLimits m_sLimits;
  Deliver m_fnDeliver;
  evconnlistener* m_pListener = nullptr;
  event* m_pListenerResume = nullptr;
  bool m_bAcceptFailing = false;  // said so; quiet until an accept works
  event* m_pTrim = nullptr;
  event* m_pWriteDue = nullptr;
  std::vector<uint64_t> m_vecWriteQueue;  // serials with output to write this turn
  size_t m_uBuffered = 0;
  std::map<uint64_t, std::unique_ptr<Connection>> m_mapConnections;  // by serial
  std::map<uint64_t, std::unique_ptr<Connection>> m_mapFlushing;     // closed, output draining
  std::map<std::string, uint64_t> m_mapOutbound;                      // "ip:port" -> serial
};

}  // namespace zelvar_host

#endif  // ZELVAR_HOST_CONNECTION_MANAGER_H
