#include "zookeeper/zookeeper_registry.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <vector>

#include "common/zk_answer.h"

namespace zelvar::registry {
namespace {

// The client's log callback carries no context; there is one registry per
// loaded plug-in, and this is the host it logs through.
const PluginHost* g_pClientLogHost = nullptr;

constexpr timeval kRetryOpenDelay = {1, 0};

long long SessionIdOf(zhandle_t* zh) {
  const clientid_t* id = zh != nullptr ? zoo_client_id(zh) : nullptr;
  return id != nullptr ? static_cast<long long>(id->client_id) : 0;
}

}  // namespace

ZooKeeperRegistry::ZooKeeperRegistry(const PluginHost* host) : m_pHost(host) {}

ZooKeeperRegistry::~ZooKeeperRegistry() {
  m_bClosing = true;
  CloseSession(ZCLOSING);
  m_pDriver.reset();
  if (m_pReopenTimer != nullptr) event_free(m_pReopenTimer);
  if (m_pRejoinTimer != nullptr) event_free(m_pRejoinTimer);
  if (g_pClientLogHost == m_pHost) g_pClientLogHost = nullptr;
}

const zelvar::ConfigKeyDeclaration ZooKeeperRegistry::kConfigKeys[] = {
    {kSection, "hosts", true}, {kSection, "session_timeout_ms", false}, {nullptr, nullptr, false}};

int ZooKeeperRegistry::Open() {
  m_strHosts = m_pHost->GetConfigString(kSection, "hosts", "");
  if (m_strHosts.empty()) {
    m_pHost->Log(4, "zookeeper registry: [%s] hosts is not set; give the ensemble, for example "
                    "hosts = 127.0.0.1:2181", kSection);
    return -1;
  }
  m_iSessionTimeoutMs = m_pHost->GetConfigInt(kSection, "session_timeout_ms", kDefaultSessionTimeoutMs);
  if (m_iSessionTimeoutMs <= 0) {
    m_pHost->Log(4, "zookeeper registry: [%s] session_timeout_ms = %d is not positive, using %d", kSection,
                 m_iSessionTimeoutMs, kDefaultSessionTimeoutMs);
    m_iSessionTimeoutMs = kDefaultSessionTimeoutMs;
  }
  event_base* base = m_pHost->EventBase();
  if (base == nullptr) {
    m_pHost->Log(4, "zookeeper registry: the host gives no event loop (GetEventBase), cannot run");
    return -1;
  }
  g_pClientLogHost = m_pHost;
  m_pDriver = std::make_unique<ZkLoopDriver>(base, [this](int) { ScheduleReopen(); });
  m_pReopenTimer = evtimer_new(base, &ZooKeeperRegistry::OnReopenTimer, this);
  m_pRejoinTimer = evtimer_new(base, &ZooKeeperRegistry::OnRejoinTimer, this);
  return StartSession() ? 0 : -1;
}

bool ZooKeeperRegistry::StartSession() {
  zoo_set_debug_level(m_pHost->LogEnabled(1) ? ZOO_LOG_LEVEL_INFO : ZOO_LOG_LEVEL_WARN);
  m_pZh = zookeeper_init2(m_strHosts.c_str(), &ZooKeeperRegistry::OnSessionEvent, m_iSessionTimeoutMs, nullptr,
                          this, 0, &ZooKeeperRegistry::ForwardClientLog);
  if (m_pZh == nullptr) {
    m_pHost->Log(4, "zookeeper registry: cannot start a session with \"%s\": %s; check [%s] hosts",
                 m_strHosts.c_str(), strerror(errno), kSection);
    return false;
  }
  m_pHost->Log(3, "zookeeper registry: connecting to %s (session timeout %d ms)", m_strHosts.c_str(),
               m_iSessionTimeoutMs);
  m_pDriver->Attach(m_pZh);
  return true;
}

void ZooKeeperRegistry::CloseSession(int leftoverRc) {
  if (m_pZh == nullptr) return;
  if (m_pDriver) m_pDriver->Detach();
  if (m_pRejoinTimer != nullptr) evtimer_del(m_pRejoinTimer);
  zhandle_t* zh = m_pZh;
  m_pZh = nullptr;  // session events of the closing handle are ignored
  // Requests still queued get their completion inside zookeeper_close; the
  // ones it does not call back are answered here, so every accepted command
  // still gets its one answer.
  zookeeper_close(zh);
  std::set<PendingCall*> leftovers;
  leftovers.swap(m_setPending);
  for (PendingCall* call : leftovers) {
    if (call->listing) {
      call->listing->Fail(leftoverRc);
      AnswerListing(call->listing.get());
    } else {
      Answer(call->machineId, ErrorAnswer(leftoverRc));
    }
    delete call;
  }
}

void ZooKeeperRegistry::ScheduleReopen() {
  if (m_bReopenScheduled || m_bClosing || m_pReopenTimer == nullptr) return;
  m_bReopenScheduled = true;
  // Never inside the client's own call stack: the dead handle is closed from
  // a fresh loop turn.
  timeval now = {0, 0};
  evtimer_add(m_pReopenTimer, &now);
}

void ZooKeeperRegistry::OnReopenTimer(evutil_socket_t, short, void* self) {
  auto* registry = static_cast<ZooKeeperRegistry*>(self);
  registry->m_bReopenScheduled = false;
  registry->CloseSession(ZSESSIONEXPIRED);
  if (!registry->StartSession()) evtimer_add(registry->m_pReopenTimer, &kRetryOpenDelay);
}

void ZooKeeperRegistry::OnRejoinTimer(evutil_socket_t, short, void* self) {
  auto* registry = static_cast<ZooKeeperRegistry*>(self);
  registry->m_pHost->Log(4, "zookeeper registry: session 0x%llx not back within its timeout; the ensemble may "
                            "have lost its data or be behind this client, opening a new session",
                         SessionIdOf(registry->m_pZh));
  registry->ScheduleReopen();
}

bool ZooKeeperRegistry::IsConnected() const {
  return m_pZh != nullptr && zoo_state(m_pZh) == ZOO_CONNECTED_STATE;
}

int ZooKeeperRegistry::GetClientId(clientid_t* out) const {
  if (m_pZh == nullptr || out == nullptr) return -1;
  *out = *zoo_client_id(m_pZh);
  return 0;
}

void ZooKeeperRegistry::OnSessionEvent(zhandle_t* zh, int type, int state, const char*, void* context) {
  auto* registry = static_cast<ZooKeeperRegistry*>(context);
  if (registry == nullptr || zh != registry->m_pZh || type != ZOO_SESSION_EVENT) return;
  const PluginHost* host = registry->m_pHost;
  if (state == ZOO_CONNECTED_STATE) {
    evtimer_del(registry->m_pRejoinTimer);
    registry->OnConnected();
  } else if (state == ZOO_EXPIRED_SESSION_STATE || state == ZOO_AUTH_FAILED_STATE) {
    host->Log(4, "zookeeper registry: session 0x%llx %s, opening a new one", SessionIdOf(zh),
              state == ZOO_EXPIRED_SESSION_STATE ? "expired" : "failed authentication");
    registry->ScheduleReopen();
  } else {
    host->Log(4, "zookeeper registry: connection to %s lost, reconnecting", registry->m_strHosts.c_str());
    registry->OnConnectionLost();
  }
}

// A server that lost its data (or any server behind the session's last zxid)
// refuses the session: it closes each connection before the handshake ends,
// and the client, which reports the loss once and then only retries, neither
// reaches the connected state nor learns that the session is expired. So the
// rule is the session timeout itself: a session whose connection is not back
// within it has expired on any server that was up meanwhile, and one that
// was down all along had no session worth keeping; either way a fresh session
// loses nothing and connects to whatever server answers.
void ZooKeeperRegistry::OnConnectionLost() {
  if (evtimer_pending(m_pRejoinTimer, nullptr)) return;
  int timeoutMs = m_pZh != nullptr ? zoo_recv_timeout(m_pZh) : m_iSessionTimeoutMs;
  timeval bound = {timeoutMs / 1000, (timeoutMs % 1000) * 1000};
  evtimer_add(m_pRejoinTimer, &bound);
}

void ZooKeeperRegistry::OnConnected() {
  const char* server = zoo_get_current_server(m_pZh);
  m_pHost->Log(3, "zookeeper registry: connected to %s, session 0x%llx, timeout %d ms",
               server != nullptr ? server : m_strHosts.c_str(), SessionIdOf(m_pZh), zoo_recv_timeout(m_pZh));
  // Whoever keeps state in the registry (ephemeral nodes, watches) learns
  // that it may be gone and must check again.
  if (m_fnCallback != nullptr) m_fnCallback();
}

ZooKeeperRegistry::PendingCall* ZooKeeperRegistry::NewPending(unsigned machineId, const std::string& path) {
  auto* call = new PendingCall{this, machineId, path, nullptr, 0, std::string(), 0, false};
  m_setPending.insert(call);
  return call;
}

ZooKeeperRegistry::PendingCall* ZooKeeperRegistry::Claim(const void* data) {
  auto* call = static_cast<PendingCall*>(const_cast<void*>(data));
  call->owner->m_setPending.erase(call);
  return call;
}

void ZooKeeperRegistry::Answer(unsigned machineId, ZKPluginResponse* answer) {
  if (m_bClosing) {
    ZKPluginResponse::DropRecord(answer);
    return;
  }
  if (answer->retcode != ZOK) {
    m_pHost->Log(3, "zookeeper registry: answer to machine %u: %s", machineId, answer->error_message.c_str());
  }
  m_pHost->Deliver(machineId, answer);
}

void ZooKeeperRegistry::AnswerListing(ChildrenListing* listing) {
  ZKPluginResponse* answer = listing->TakeAnswer();
  if (answer != nullptr) Answer(listing->MachineId(), answer);
}

int ZooKeeperRegistry::Call(unsigned machineId, const ZKCommand& command) {
  if (command.kind == ZKCommandKind::kSetCallback) {
    m_fnCallback = command.callback;
    return ZOK;
  }
  if (!IsConnected()) {
    m_pHost->Log(3, "zookeeper registry: %s from machine %u refused, not connected to %s", command.path, machineId,
                 m_strHosts.c_str());
    return ZCONNECTIONLOSS;
  }
  PendingCall* call = NewPending(machineId, command.path);
  int rc = ZOK;
  switch (command.kind) {
    case ZKCommandKind::kCreate:
      call->data = command.data != nullptr ? std::string(command.data, static_cast<size_t>(command.length)) : "";
      call->flags = command.flags;
      rc = SendCreate(call);
      break;
    case ZKCommandKind::kGet:
      rc = command.watcher != nullptr
               ? zoo_awget(m_pZh, command.path, command.watcher, nullptr, &ZooKeeperRegistry::OnData, call)
               : zoo_aget(m_pZh, command.path, 0, &ZooKeeperRegistry::OnData, call);
      break;
    case ZKCommandKind::kListValue:
      rc = command.watcher != nullptr
               ? zoo_awget_children2(m_pZh, command.path, command.watcher, nullptr, &ZooKeeperRegistry::OnChildren,
                                     call)
               : zoo_aget_children2(m_pZh, command.path, 0, &ZooKeeperRegistry::OnChildren, call);
      break;
    case ZKCommandKind::kSetCallback:
      break;
  }
  if (rc != ZOK) {
    m_setPending.erase(call);
    delete call;
    m_pHost->Log(3, "zookeeper registry: %s from machine %u refused: %s", command.path, machineId, zerror(rc));
    return rc;
  }
  m_pDriver->Pump();
  return ZOK;
}

int ZooKeeperRegistry::SendCreate(PendingCall* call) {
  return zoo_acreate(m_pZh, call->path.c_str(), call->data.data(), static_cast<int>(call->data.size()),
                     &ZOO_OPEN_ACL_UNSAFE, call->flags, &ZooKeeperRegistry::OnCreated, call);
}

// A server answers ZNONODE for a node whose parent is missing, where the
// embedded registry makes the parents; so the plug-in makes them too, then
// sends the create once more. The server runs one session's requests in order,
// so the parents exist (made here or by anyone else) when the retry runs; their
// own answers, ZNODEEXISTS included, do not matter.
bool ZooKeeperRegistry::CreateParentsAndRetry(PendingCall* call) {
  if (call->parentsMade || m_pZh == nullptr) return false;
  call->parentsMade = true;
  for (size_t slash = call->path.find('/', 1); slash != std::string::npos; slash = call->path.find('/', slash + 1)) {
    zoo_acreate(m_pZh, call->path.substr(0, slash).c_str(), "", 0, &ZOO_OPEN_ACL_UNSAFE, 0,
                [](int, const char*, const void*) {}, nullptr);
  }
  m_setPending.insert(call);
  if (SendCreate(call) == ZOK) return true;
  m_setPending.erase(call);
  return false;
}

void ZooKeeperRegistry::OnCreated(int rc, const char* value, const void* data) {
  PendingCall* call = Claim(data);
  if (rc == ZNONODE && call->owner->CreateParentsAndRetry(call)) return;
  call->owner->Answer(call->machineId, rc == ZOK ? CreatedAnswer(value != nullptr ? value : call->path)
                                                 : ErrorAnswer(rc));
  delete call;
}

void ZooKeeperRegistry::OnData(int rc, const char* value, int length, const Stat* stat, const void* data) {
  PendingCall* call = Claim(data);
  ZKPluginResponse* answer = nullptr;
  if (rc == ZOK) {
    std::string bytes = value != nullptr && length > 0 ? std::string(value, static_cast<size_t>(length)) : "";
    answer = DataAnswer(bytes, stat != nullptr ? *stat : Stat{});
  } else {
    answer = ErrorAnswer(rc);
  }
  call->owner->Answer(call->machineId, answer);
  delete call;
}

void ZooKeeperRegistry::OnChildren(int rc, const String_vector* names, const Stat* stat, const void* data) {
  PendingCall* call = Claim(data);
  ZooKeeperRegistry* registry = call->owner;
  if (rc != ZOK) {
    registry->Answer(call->machineId, ErrorAnswer(rc));
  } else {
    std::vector<std::string> children;
    for (int i = 0; names != nullptr && i < names->count; ++i) children.emplace_back(names->data[i]);
    auto listing = std::make_shared<ChildrenListing>(call->machineId, stat != nullptr ? *stat : Stat{}, children);
    registry->FetchChildren(listing, call->path);
  }
  delete call;
}

void ZooKeeperRegistry::FetchChildren(const std::shared_ptr<ChildrenListing>& listing, const std::string& parentPath) {
  std::string prefix = parentPath == "/" ? "/" : parentPath + "/";
  for (size_t i = 0; i < listing->ChildCount(); ++i) {
    if (m_pZh == nullptr) {
      listing->Fail(ZCONNECTIONLOSS);
      break;
    }
    PendingCall* child = NewPending(listing->MachineId(), prefix + listing->ChildName(i));
    child->listing = listing;
    child->childIndex = i;
    int rc = zoo_aget(m_pZh, child->path.c_str(), 0, &ZooKeeperRegistry::OnChildData, child);
    if (rc != ZOK) {
      m_setPending.erase(child);
      delete child;
      listing->Fail(rc);
      break;
    }
  }
  AnswerListing(listing.get());
}

void ZooKeeperRegistry::OnChildData(int rc, const char* value, int length, const Stat* stat, const void* data) {
  PendingCall* call = Claim(data);
  call->listing->ChildFetched(call->childIndex, rc, value, length, stat);
  call->owner->AnswerListing(call->listing.get());
  delete call;
}

void ZooKeeperRegistry::ForwardClientLog(const char* message) {
  if (g_pClientLogHost != nullptr) g_pClientLogHost->Log(2, "zookeeper client: %s", message);
}

}  // namespace zelvar::registry
