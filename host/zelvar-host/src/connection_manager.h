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
// are discarded. A connection whose unconsumed input grows past `input_limit`
// is closed and logged, so a length prefix that lies cannot hold memory.
//
// Outbound: ConnectTo reuses a live connection (connected or still
// connecting) to the same ip:port, or starts a non-blocking connect and returns
// its bufferevent at once; writes wait in its output buffer until connected. A
// failed connect closes it. OnConnect is called when an inbound connection is
// accepted and when an outbound one is established; OnDisconnect when either
// closes (after it is forgotten, so GetConnectionBev already answers null).
//
// Owns the connections and the listener; borrows the base, the log and the
// plug-in list, which must outlive it. Event-loop thread only.
#ifndef ZELVAR_HOST_CONNECTION_MANAGER_H
#define ZELVAR_HOST_CONNECTION_MANAGER_H

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

struct bufferevent;
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

class ConnectionManager {
 public:
  // Takes the message; queues it for the machine.
  using Deliver = std::function<void(zelvar::ZMessage* message, zelvar::StateMachine* machine)>;

  ConnectionManager(event_base* base, Logger* log, const std::vector<std::unique_ptr<Plugin>>* plugins,
                    size_t inputLimit, Deliver deliver);
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
  // Closes every connection without calling the plug-ins (shutdown).
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
  };
  enum class Step { kDelivered, kNeedMore, kFailed };

  Connection* Add(int fd, bufferevent* bev, bool outbound, const std::string& peer);
  void Close(Connection* connection, bool notify);
  void NotifyConnect(const Connection& connection) const;
  void ReadInput(Connection* connection);
  Step OfferOnce(Connection* connection);
  Step CallDataIn(Connection* connection, Plugin* plugin, int* result);

  static void OnAccept(evconnlistener* listener, int fd, sockaddr* address, int length, void* arg);
  static void OnRead(bufferevent* bev, void* arg);
  static void OnEvent(bufferevent* bev, short what, void* arg);

  event_base* m_pBase;
  Logger* m_pLog;
  const std::vector<std::unique_ptr<Plugin>>* m_pPlugins;
  size_t m_uInputLimit;
  Deliver m_fnDeliver;
  evconnlistener* m_pListener = nullptr;
  std::map<uint64_t, std::unique_ptr<Connection>> m_mapConnections;  // by serial
  std::map<std::string, uint64_t> m_mapOutbound;                      // "ip:port" -> serial
};

}  // namespace zelvar_host

#endif  // ZELVAR_HOST_CONNECTION_MANAGER_H
