// ControlPlaneServices: the four services an agent talks to, answered by one
// endpoint: the master (67000, which task queue serves an agent), the task
// queue (68000 jobs, 68010 collector configurations, 66015 heartbeats), the
// statistics access service (66000, which aggregation endpoint to use; 66014
// real-time lines) and the aggregation service (61030 numeric and 61032 text
// samples, stored and never answered). It knows nothing of sockets or of the host: it turns one request
// into at most one reply and into rows of the store.
//
// Who sent a sample: samples carry no agent name, and an agent may reconnect
// at any time (it drops its connection when a reply finds no waiting machine),
// so each request is credited to the first known of: the agent name said on
// this connection (68000, 68010, 66015), the agent last named from the node
// path said on this connection (67000, 66000), the agent last named from this
// IP address, the node path, the IP address, "(unknown)". What was learned is kept across
// connections and, through the agents table, across restarts.
#ifndef OVITA2_CONTROLPLANE_CONTROL_PLANE_SERVICES_H
#define OVITA2_CONTROLPLANE_CONTROL_PLANE_SERVICES_H

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "catalogue/job_catalogue.h"
#include "store/sample_store.h"
#include "zelvar/message.pb.h"

namespace controlplane {

// The endpoint this control plane names in its answers to 67000 and 66000.
struct Endpoint {
  std::string name;
  std::string ip;
  int32_t port = 0;
};

// What is known of the agent at the other end of one connection.
struct PeerIdentity {
  std::string ip;
  std::string agent_name;
  std::string node_path;
};

// Result codes of the replies; 0 is success. Agents log the text with them.
enum ReplyCode : int32_t {
  kCodeMissingBody = -70001,   // the request lacks the extension of its type
  kCodeUnknownAgent = -70002,  // the jobs file has no entry for the agent
};

using ServiceLog = std::function<void(int level, const std::string& line)>;

// Counts since start, exported on /metrics. Every stored row counts once; a
// failed write counts as one error however many rows it carried.
struct ServiceCounters {
  std::map<unsigned, uint64_t> requests_by_type;
  uint64_t samples_stored = 0;
  uint64_t store_errors = 0;
};

class ControlPlaneServices {
 public:
  // `store` outlives the services. Learns the agents the store already knows.
  ControlPlaneServices(Endpoint self, SampleStore* store, ServiceLog log);

  // Installs a catalogue; requests handled afterwards see it.
  void SetCatalogue(std::shared_ptr<const JobCatalogue> catalogue) { m_pCatalogue = std::move(catalogue); }
  const JobCatalogue* Catalogue() const { return m_pCatalogue.get(); }
  const Endpoint& Self() const { return m_sSelf; }
  const ServiceCounters& Counters() const { return m_sCounters; }

  // Handles one request from the agent `peer` at time `now`. Returns true with
  // `*reply` filled (head included) when the request is answered; requests of
  // the no-reply kinds (61030, 61032, 66014, 66015) and of unknown types
  // return false.
  bool Handle(const zelvar::ZMessage& request, PeerIdentity* peer, int64_t now, zelvar::ZMessage* reply);

  // The name samples from `peer` are stored under.
  std::string AgentLabel(const PeerIdentity& peer) const;

 private:
  template <typename RequestExtension, typename ResponseExtension>
  void AnswerWithThisEndpoint(const zelvar::ZMessage& request, PeerIdentity* peer, int64_t now, zelvar::Body* reply,
                              const RequestExtension& asked, const ResponseExtension& answered,
                              const char* requestName);
  void AnswerJobs(const zelvar::ZMessage& request, PeerIdentity* peer, int64_t now, zelvar::Body* reply);
  void AnswerConfs(const zelvar::ZMessage& request, PeerIdentity* peer, int64_t now, zelvar::Body* reply);
  void StoreStats(const zelvar::ZMessage& request, PeerIdentity* peer, int64_t now);
  void StoreStringStats(const zelvar::ZMessage& request, PeerIdentity* peer, int64_t now);
  // Stores one request's samples in one transaction; a failure is only logged.
  void StoreRows(const std::vector<SampleRow>& rows, const std::string& agent, const char* what);
  void StoreHeartbeat(const zelvar::ZMessage& request, PeerIdentity* peer, int64_t now);
  void StoreRealTimeLine(const zelvar::ZMessage& request, PeerIdentity* peer, int64_t now);

  // The catalogue entry of a named agent, or null with `*why` set.
  const AgentCatalogue* FindAgent(const std::string& agentName, std::string* why) const;
  // Updates what is known of who the peer is; Learn* also record it in the store.
  void RememberAgentName(PeerIdentity* peer, const std::string& agentName);
  void LearnAgentName(PeerIdentity* peer, const std::string& agentName, int64_t now);
  void LearnNodePath(PeerIdentity* peer, const std::string& nodePath, int64_t now);
  void Log(int level, const std::string& line) const;

  Endpoint m_sSelf;
  SampleStore* m_pStore;
  ServiceLog m_fnLog;
  std::shared_ptr<const JobCatalogue> m_pCatalogue;
  std::map<std::string, std::string> m_mapAgentOfNode;     // node path -> agent name
  std::map<std::string, std::string> m_mapAgentOfAddress;  // IP -> agent name
  ServiceCounters m_sCounters;
};

}  // namespace controlplane

#endif  // OVITA2_CONTROLPLANE_CONTROL_PLANE_SERVICES_H
