// ZooKeeperRegistry: the registry plug-in backed by a real ZooKeeper ensemble,
// through the single-threaded ZooKeeper C client driven by the host's loop.
//
// Configuration ([zookeeper]): hosts (the ensemble, "127.0.0.1:2181,..."),
// session_timeout_ms (default 10000).
//
// Commands map onto the client's asynchronous calls: "listvalue" lists the
// children and reads each one, answering once with all of them; "create" uses
// the flags given and the open ACL; "get" reads the node and arms the watcher
// given (its context argument is always null); "set_callback" keeps the
// connection callback, which runs every time a connection to the ensemble is
// established (the first one and every one after a loss, same session or
// new). While not connected every command but "set_callback" is refused with
// ZCONNECTIONLOSS and produces no answer; a command already sent when the
// connection drops is answered with the client's error (ZCONNECTIONLOSS,
// ZSESSIONEXPIRED, ...). After an expired session the registry closes the dead
// handle and opens a new session by itself, on a later loop turn; so it does
// when a lost connection is not back within the session timeout (a server that
// lost its data refuses the old session without a word). A "create" whose
// parent is missing makes the missing parents (persistent, empty) and is sent
// once more.
//
// Owns the ZooKeeper handle, its loop driver and every pending request;
// borrows the PluginHost, which must outlive it. Loop thread only. The
// destructor closes the session; no answer is delivered from then on.
#ifndef OVITA2_PLUGINS_ZOOKEEPER_ZOOKEEPER_REGISTRY_H
#define OVITA2_PLUGINS_ZOOKEEPER_ZOOKEEPER_REGISTRY_H

#include <event2/event.h>
#include <zookeeper/zookeeper.h>

#include <memory>
#include <set>
#include <string>

#include "common/plugin_host.h"
#include "common/zk_command.h"
#include "zookeeper/children_listing.h"
#include "zookeeper/zk_loop_driver.h"

namespace zelvar::registry {

class ZooKeeperRegistry {
 public:
  static constexpr const char* kSection = "zookeeper";
  static constexpr const char* kLabel = "zookeeper registry";
  // The keys Open() reads, for the host's configuration check; hosts is required.
  static const zelvar::ConfigKeyDeclaration kConfigKeys[];
  static constexpr int kDefaultSessionTimeoutMs = 10000;

  explicit ZooKeeperRegistry(const PluginHost* host);
  ~ZooKeeperRegistry();

  ZooKeeperRegistry(const ZooKeeperRegistry&) = delete;
  ZooKeeperRegistry& operator=(const ZooKeeperRegistry&) = delete;

  // Reads the configuration and starts connecting; never waits for the
  // connection. -1 (logged) when misconfigured or the client cannot start.
  int Open();
  bool IsConnected() const;
  int Start() { return Open(); }
  bool IsReady() const { return IsConnected(); }
  // Runs one command: ZOK when accepted, the ZooKeeper code of the refusal
  // otherwise.
  int Call(unsigned machineId, const ZKCommand& command);
  // The current session's id and password; -1 without a handle.
  int GetClientId(clientid_t* out) const;

 private:
  struct PendingCall {
    ZooKeeperRegistry* owner;
    unsigned machineId;
    std::string path;
    std::shared_ptr<ChildrenListing> listing;  // reads of one listing's children
    size_t childIndex = 0;
    std::string data;  // of a create, kept for its one retry after making the parents
    int flags = 0;
    bool parentsMade = false;
  };

  bool StartSession();
  void CloseSession(int leftoverRc);
  void ScheduleReopen();
  void OnConnected();
  void OnConnectionLost();
  int SendCreate(PendingCall* call);
  bool CreateParentsAndRetry(PendingCall* call);

  PendingCall* NewPending(unsigned machineId, const std::string& path);
  // Removes a pending call from the books; the caller deletes it.
  static PendingCall* Claim(const void* data);
  void Answer(unsigned machineId, ZKPluginResponse* answer);
  void FetchChildren(const std::shared_ptr<ChildrenListing>& listing, const std::string& parentPath);
  void AnswerListing(ChildrenListing* listing);

  static void OnSessionEvent(zhandle_t* zh, int type, int state, const char* path, void* context);
  static void OnCreated(int rc, const char* value, const void* data);
  static void OnData(int rc, const char* value, int length, const Stat* stat, const void* data);
  static void OnChildren(int rc, const String_vector* names, const Stat* stat, const void* data);
  static void OnChildData(int rc, const char* value, int length, const Stat* stat, const void* data);
  static void OnReopenTimer(evutil_socket_t fd, short what, void* self);
  static void OnRejoinTimer(evutil_socket_t fd, short what, void* self);
  static void ForwardClientLog(const char* message);

  const PluginHost* m_pHost;
  std::string m_strHosts;
  int m_iSessionTimeoutMs = kDefaultSessionTimeoutMs;
  zhandle_t* m_pZh = nullptr;
  std::unique_ptr<ZkLoopDriver> m_pDriver;
  event* m_pReopenTimer = nullptr;
  event* m_pRejoinTimer = nullptr;  // armed while a lost connection is not back
  bool m_bReopenScheduled = false;
  bool m_bClosing = false;  // in the destructor: answers are dropped
  ConnectionCallback m_fnCallback = nullptr;
  std::set<PendingCall*> m_setPending;
};

}  // namespace zelvar::registry

#endif  // OVITA2_PLUGINS_ZOOKEEPER_ZOOKEEPER_REGISTRY_H
