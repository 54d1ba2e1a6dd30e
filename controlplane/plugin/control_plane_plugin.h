// ControlPlanePlugin: the control plane inside zelvar-host. It owns the
// database, the jobs catalogue and the services, tracks who is at the other
// end of each connection, frames the replies, keeps the endpoint registered
// and reloads the jobs file on SIGHUP (a bad new file leaves the old one in
// service). One instance lives from OnInit to OnUnload.
#ifndef OVITA2_CONTROLPLANE_CONTROL_PLANE_PLUGIN_H
#define OVITA2_CONTROLPLANE_CONTROL_PLANE_PLUGIN_H

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "plugin/http_server.h"
#include "plugin/plugin_settings.h"
#include "services/control_plane_services.h"
#include "store/sample_store.h"
#include "zelvar/message.pb.h"
#include "zelvar/state_machine.h"
#include "zelvar/zk_plugin.h"

struct event;

namespace controlplane {

class ControlPlanePlugin {
 public:
  // Seconds between two checks of the registry nodes, and between two prunes.
  static constexpr int64_t kRegistryCheckSeconds = 10;
  static constexpr int64_t kPruneSeconds = 3600;

  // The live instance, or null outside OnInit..OnUnload.
  static ControlPlanePlugin* Instance() { return s_pInstance.get(); }
  // OnInit: 0, or -1 with the reason in the host's log.
  static int Start(const std::string& configPath);
  // OnUnload.
  static void Stop();

  ~ControlPlanePlugin();

  void OnConnect(uint64_t connA, uint64_t connB);
  void OnDisconnect(uint64_t connA, uint64_t connB);
  // Who is known to be at the other end of a connection.
  PeerIdentity PeerOf(uint64_t connA, uint64_t connB) const;
  // Answers one request on its connection (when the request has an answer and
  // the connection is still there); `peerAtArrival` stands in for a closed one.
  void Serve(const zelvar::ZMessage& request, uint64_t connA, uint64_t connB, PeerIdentity peerAtArrival);
  // The host's tick: housekeeping, and a machine to start or null.
  zelvar::StateMachine* OnRoutine();
  // Reads the jobs file again; keeps the current catalogue when it is bad.
  void ReloadJobsFile();

 private:
  using ConnectionKey = std::pair<uint64_t, uint64_t>;

  ControlPlanePlugin() = default;
  bool Init(const std::string& configPath, std::string* error);
  bool WatchReloadSignal(std::string* error);
  bool ServeHttp(std::string* error);
  void WriteReply(const zelvar::ZMessage& reply, uint64_t connA, uint64_t connB);
  void PruneOldSamples(int64_t now);
  static void OnReloadSignal(int, short, void*);
  static void OnRegistryConnected();

  static std::unique_ptr<ControlPlanePlugin> s_pInstance;

  PluginSettings m_sSettings;
  SampleStore m_sStore;
  std::unique_ptr<ControlPlaneServices> m_pServices;
  std::unique_ptr<WebRoutes> m_pWebRoutes;
  std::unique_ptr<HttpServer> m_pHttp;  // null when no http address is configured
  std::map<ConnectionKey, PeerIdentity> m_mapPeers;
  zelvar::ZKPluginHandle* m_pRegistry = nullptr;
  std::string m_strNodeData;  // the endpoint, as every registry node holds it
  event* m_pReloadEvent = nullptr;
  int64_t m_iLastRegistryCheck = 0;
  int64_t m_iLastPrune = 0;
  bool m_bCheckRegistryNow = true;
};

}  // namespace controlplane

#endif  // OVITA2_CONTROLPLANE_CONTROL_PLANE_PLUGIN_H
