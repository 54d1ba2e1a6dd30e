#include "plugin/control_plane_plugin.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <sys/stat.h>

#include <csignal>

#include "plugin/host_access.h"
#include "plugin/register_endpoints_machine.h"
#include "zelvar/frame.h"
#include "zelvar/kadri.pb.h"

namespace controlplane {
namespace {

// The IP address at the other end of a connection, or "" when unknown.
std::string PeerAddressOf(bufferevent* bev) {
  if (bev == nullptr) return "";
  sockaddr_storage address{};
  socklen_t size = sizeof address;
  if (getpeername(bufferevent_getfd(bev), reinterpret_cast<sockaddr*>(&address), &size) != 0) return "";
  char text[INET6_ADDRSTRLEN] = {};
  const void* bytes = address.ss_family == AF_INET6
                          ? static_cast<const void*>(&reinterpret_cast<sockaddr_in6*>(&address)->sin6_addr)
                          : static_cast<const void*>(&reinterpret_cast<sockaddr_in*>(&address)->sin_addr);
  if (inet_ntop(address.ss_family, bytes, text, sizeof text) == nullptr) return "";
  return text;
}

bufferevent* ConnectionBev(uint64_t connA, uint64_t connB) {
  return HostSlot<zelvar::GetConnectionBevFn>(zelvar::kSlotGetConnectionBev)(connA, connB);
}

bool IsDirectory(const std::string& path) {
  struct stat info;
  return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

// The page's files when web_root is not set: where the install put them
// relative to the plug-in (<prefix>/share/ovita2/web for <prefix>/lib), else,
// for a plug-in run from its build tree, the source tree's copy.
std::string DefaultWebRoot() {
  Dl_info self{};
  if (dladdr(reinterpret_cast<void*>(&DefaultWebRoot), &self) != 0 && self.dli_fname != nullptr) {
    std::string library = self.dli_fname;
    std::string::size_type slash = library.rfind('/');
    std::string folder = slash == std::string::npos ? "." : library.substr(0, slash);
    std::string installed = folder + "/" OVITA2_WEB_FROM_PLUGIN;
    if (IsDirectory(installed)) return installed;
  }
  return OVITA2_WEB_SOURCE_DIR;
}

}  // namespace

std::unique_ptr<ControlPlanePlugin> ControlPlanePlugin::s_pInstance;

int ControlPlanePlugin::Start(const std::string& configPath) {
  std::unique_ptr<ControlPlanePlugin> plugin(new ControlPlanePlugin());
  std::string error;
  if (!plugin->Init(configPath, &error)) {
    HostLog(4, "not started: " + error);
    return -1;
  }
  s_pInstance = std::move(plugin);
  return 0;
}

void ControlPlanePlugin::Stop() { s_pInstance.reset(); }

ControlPlanePlugin::~ControlPlanePlugin() {
  if (m_pReloadEvent != nullptr) event_free(m_pReloadEvent);
  if (m_pRegistry != nullptr) m_pRegistry->ZKPluginCall(0, "set_callback", static_cast<void (*)(void)>(nullptr));
}

bool ControlPlanePlugin::Init(const std::string& configPath, std::string* error) {
  auto read = [](const char* section, const char* key) { return HostConfigString(section, key); };
  if (!ReadPluginSettings(read, configPath, &m_sSettings, error)) return false;
  if (!m_sStore.Open(m_sSettings.database, error)) return false;
  auto catalogue = std::make_shared<JobCatalogue>();
  if (!JobCatalogue::Load(m_sSettings.jobs_file, catalogue.get(), error)) return false;
  if (!WatchReloadSignal(error)) return false;

  m_pServices = std::make_unique<ControlPlaneServices>(m_sSettings.self, &m_sStore,
                                                       [](int level, const std::string& line) { HostLog(level, line); });
  m_pServices->SetCatalogue(catalogue);
  if (!ServeHttp(error)) return false;

  zelvar::kadri::NameNodeContent endpoint;
  endpoint.set_ip(m_sSettings.self.ip);
  endpoint.set_port(m_sSettings.self.port);
  m_strNodeData = endpoint.SerializeAsString();
  m_pRegistry = static_cast<zelvar::ZKPluginHandle*>(
      HostSlot<zelvar::GetPluginHandleFn>(zelvar::kSlotGetPluginHandle)("zookeeper"));
  if (m_pRegistry != nullptr) {
    m_pRegistry->ZKPluginCall(0, "set_callback", &ControlPlanePlugin::OnRegistryConnected);
  } else {
    HostLog(3, "no registry plug-in is loaded: agents must be told this endpoint by their own configuration");
  }

  HostLog(3, "serving as " + m_sSettings.self.name + " at " + m_sSettings.self.ip + ":" +
                 std::to_string(m_sSettings.self.port) + ", " + std::to_string(catalogue->JobCount()) +
                 " jobs for " + std::to_string(catalogue->AgentCount()) + " agents from " + m_sSettings.jobs_file +
                 ", database " + m_sSettings.database);
  return true;
}

bool ControlPlanePlugin::ServeHttp(std::string* error) {
  if (m_sSettings.http_port == 0) return true;
  WebFiles files{m_sSettings.web_root.empty() ? DefaultWebRoot() : m_sSettings.web_root, m_sSettings.chart_js};
  const std::string webRoot = files.web_root;
  m_pWebRoutes = std::make_unique<WebRoutes>(&m_sStore, m_pServices.get(), std::move(files));
  m_pHttp = std::make_unique<HttpServer>(m_pWebRoutes.get());
  if (!m_pHttp->Listen(HostSlot<zelvar::GetEventBaseFn>(zelvar::kSlotGetEventBase)(), m_sSettings.http_ip,
                       m_sSettings.http_port, error)) {
    return false;
  }
  HostLog(3, "web page and /metrics at http://" + m_sSettings.http_ip + ":" + std::to_string(m_sSettings.http_port) +
                 "/, files from " + webRoot);
  return true;
}

bool ControlPlanePlugin::WatchReloadSignal(std::string* error) {
  event_base* base = HostSlot<zelvar::GetEventBaseFn>(zelvar::kSlotGetEventBase)();
  if (base == nullptr) {
    *error = "the host offers no event loop to watch SIGHUP on";
    return false;
  }
  m_pReloadEvent = evsignal_new(base, SIGHUP, &ControlPlanePlugin::OnReloadSignal, nullptr);
  if (m_pReloadEvent == nullptr || event_add(m_pReloadEvent, nullptr) != 0) {
    *error = "cannot watch SIGHUP";
    return false;
  }
  return true;
}

void ControlPlanePlugin::OnReloadSignal(int, short, void*) {
  if (s_pInstance != nullptr) s_pInstance->ReloadJobsFile();
}

void ControlPlanePlugin::OnRegistryConnected() {
  // A new registry session has none of the old session's ephemeral nodes.
  if (s_pInstance != nullptr) s_pInstance->m_bCheckRegistryNow = true;
}

void ControlPlanePlugin::ReloadJobsFile() {
  auto catalogue = std::make_shared<JobCatalogue>();
  std::string error;
  if (!JobCatalogue::Load(m_sSettings.jobs_file, catalogue.get(), &error)) {
    HostLog(4, "jobs file not reloaded, the previous one stays in service: " + error);
    return;
  }
  m_pServices->SetCatalogue(catalogue);
  HostLog(3, "jobs file reloaded: " + std::to_string(catalogue->JobCount()) + " jobs for " +
                 std::to_string(catalogue->AgentCount()) + " agents");
}

void ControlPlanePlugin::OnConnect(uint64_t connA, uint64_t connB) {
  PeerIdentity& peer = m_mapPeers[{connA, connB}];
  peer.ip = PeerAddressOf(ConnectionBev(connA, connB));
}

void ControlPlanePlugin::OnDisconnect(uint64_t connA, uint64_t connB) { m_mapPeers.erase({connA, connB}); }

PeerIdentity ControlPlanePlugin::PeerOf(uint64_t connA, uint64_t connB) const {
  auto known = m_mapPeers.find({connA, connB});
  return known != m_mapPeers.end() ? known->second : PeerIdentity{};
}

void ControlPlanePlugin::Serve(const zelvar::ZMessage& request, uint64_t connA, uint64_t connB,
                               PeerIdentity peerAtArrival) {
  // An agent closes its connection when a reply finds no machine waiting, so
  // a connection may be gone by the time its last requests are served; what
  // they carry is still stored, under who sent them.
  auto known = m_mapPeers.find({connA, connB});
  PeerIdentity* peer = known != m_mapPeers.end() ? &known->second : &peerAtArrival;
  zelvar::ZMessage reply;
  if (m_pServices->Handle(request, peer, HostNow(), &reply)) WriteReply(reply, connA, connB);
}

void ControlPlanePlugin::WriteReply(const zelvar::ZMessage& reply, uint64_t connA, uint64_t connB) {
  bufferevent* bev = ConnectionBev(connA, connB);
  if (bev == nullptr) {
    HostLog(2, "reply " + std::to_string(reply.head().message_type()) + " dropped: its connection is closed");
    return;
  }
  std::string frame = zelvar::EncodeFrame(reply);
  evbuffer_add(bufferevent_get_output(bev), frame.data(), frame.size());
}

zelvar::StateMachine* ControlPlanePlugin::OnRoutine() {
  int64_t now = HostNow();
  PruneOldSamples(now);
  if (m_pRegistry == nullptr || RegisterEndpointsMachine::IsRunning()) return nullptr;
  if (!m_bCheckRegistryNow && now - m_iLastRegistryCheck < kRegistryCheckSeconds) return nullptr;
  m_bCheckRegistryNow = false;
  m_iLastRegistryCheck = now;
  return new RegisterEndpointsMachine(m_pRegistry, m_sSettings.registry_nodes, m_strNodeData);
}

void ControlPlanePlugin::PruneOldSamples(int64_t now) {
  if (m_sSettings.keep_days == 0 || now - m_iLastPrune < kPruneSeconds) return;
  m_iLastPrune = now;
  std::string error;
  if (!m_sStore.Prune(now - int64_t{m_sSettings.keep_days} * 86400, &error)) {
    HostLog(4, "old samples not deleted: " + error);
  }
}

}  // namespace controlplane
