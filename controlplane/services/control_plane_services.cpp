#include "services/control_plane_services.h"

#include <utility>
#include <vector>

#include "zelvar/message_util.h"
#include "zelvar/ovita2.pb.h"
#include "zelvar/tellar2.pb.h"

namespace controlplane {
namespace {

namespace ov = zelvar::ovita2;
namespace tl = zelvar::tellar2;

template <typename Extension>
bool CarriesBody(const zelvar::ZMessage& request, const Extension& extension) {
  return request.has_body() && request.body().HasExtension(extension);
}

void FailMissingBody(const zelvar::ZMessage& request, const char* extensionName, zelvar::ResponseCode* rc) {
  rc->set_code(kCodeMissingBody);
  rc->set_msg("request " + std::to_string(request.head().message_type()) + " carries no " + extensionName);
}

void Succeed(zelvar::ResponseCode* rc) { rc->set_code(0); }

}  // namespace

ControlPlaneServices::ControlPlaneServices(Endpoint self, SampleStore* store, ServiceLog log)
    : m_sSelf(std::move(self)), m_pStore(store), m_fnLog(std::move(log)) {
  std::string error;
  for (const AgentRow& agent : m_pStore->Agents(&error)) {
    if (!agent.node_path.empty()) m_mapAgentOfNode[agent.node_path] = agent.name;
    if (!agent.address.empty()) m_mapAgentOfAddress[agent.address] = agent.name;
  }
  if (!error.empty()) Log(4, "known agents not read: " + error);
}

bool ControlPlaneServices::Handle(const zelvar::ZMessage& request, PeerIdentity* peer, int64_t now,
                                  zelvar::ZMessage* reply) {
  const unsigned type = request.head().message_type();
  ++m_sCounters.requests_by_type[type];
  zelvar::Body* body = reply->mutable_body();
  switch (type) {
    case ov::GET_TASK_QUEUE_REQUEST:
      // The master names this endpoint as the agent's task queue, and the
      // statistics access service names it as its aggregation endpoint.
      AnswerWithThisEndpoint(request, peer, now, body, ov::get_task_queue_request, ov::get_task_queue_response,
                             "get_task_queue_request");
      break;
    case ov::GET_AGGREGATION_REQUEST:
      AnswerWithThisEndpoint(request, peer, now, body, ov::get_aggregation_request, ov::get_aggregation_response,
                             "get_aggregation_request");
      break;
    case ov::GET_JOB_REQUEST:
      AnswerJobs(request, peer, now, body);
      break;
    case ov::GET_CONF_REQUEST:
      AnswerConfs(request, peer, now, body);
      break;
    // Samples are not answered: the agent sends them without waiting, and an
    // answer would find no machine there and make the agent drop the connection.
    case ov::RECORD_STATS_REQUEST:
      StoreStats(request, peer, now);
      return false;
    case ov::RECORD_STRING_STATS_REQUEST:
      StoreStringStats(request, peer, now);
      return false;
    case ov::AGENT_HEART_BEAT_REQUEST:
      StoreHeartbeat(request, peer, now);
      return false;
    case ov::SEND_REAL_TIME_BUFF_REQUEST:
      StoreRealTimeLine(request, peer, now);
      return false;
    default:
      Log(4, "ignored a request of unknown type " + std::to_string(type) + " from " + AgentLabel(*peer));
      return false;
  }
  zelvar::MakeResponse(request, static_cast<int>(type) + 1, reply);
  return true;
}

std::string ControlPlaneServices::AgentLabel(const PeerIdentity& peer) const {
  if (!peer.agent_name.empty()) return peer.agent_name;
  auto byNode = m_mapAgentOfNode.find(peer.node_path);
  if (!peer.node_path.empty() && byNode != m_mapAgentOfNode.end()) return byNode->second;
  auto byAddress = m_mapAgentOfAddress.find(peer.ip);
  if (byAddress != m_mapAgentOfAddress.end()) return byAddress->second;
  if (!peer.node_path.empty()) return peer.node_path;
  return !peer.ip.empty() ? peer.ip : "(unknown)";
}

template <typename RequestExtension, typename ResponseExtension>
void ControlPlaneServices::AnswerWithThisEndpoint(const zelvar::ZMessage& request, PeerIdentity* peer, int64_t now,
                                                  zelvar::Body* reply, const RequestExtension& asked,
                                                  const ResponseExtension& answered, const char* requestName) {
  auto* answer = reply->MutableExtension(answered);
  if (!CarriesBody(request, asked)) {
    FailMissingBody(request, requestName, answer->mutable_rc());
    return;
  }
  LearnNodePath(peer, request.body().GetExtension(asked).node_path(), now);
  Succeed(answer->mutable_rc());
  answer->set_name(m_sSelf.name);
  answer->set_ip(m_sSelf.ip);
  answer->set_port(m_sSelf.port);
  Log(2, std::string(requestName) + " of " + AgentLabel(*peer) + " answered");
}

void ControlPlaneServices::AnswerJobs(const zelvar::ZMessage& request, PeerIdentity* peer, int64_t now,
                                      zelvar::Body* reply) {
  auto* answer = reply->MutableExtension(ov::get_job_response);
  if (!CarriesBody(request, ov::get_job_request)) {
    FailMissingBody(request, "get_job_request", answer->mutable_rc());
    return;
  }
  const std::string& agentName = request.body().GetExtension(ov::get_job_request).agent_name();
  LearnAgentName(peer, agentName, now);
  std::string why;
  const AgentCatalogue* agent = FindAgent(agentName, &why);
  if (agent == nullptr) {
    answer->mutable_rc()->set_code(kCodeUnknownAgent);
    answer->mutable_rc()->set_msg(why);
    Log(4, "no jobs for " + peer->ip + ": " + why);
    return;
  }
  Succeed(answer->mutable_rc());
  for (const ov::ObjectJob& objectJob : agent->object_jobs) *answer->add_object_jobs() = objectJob;
  Log(3, "gave agent " + agentName + " its " + std::to_string(agent->object_jobs.size()) + " jobs");
}

void ControlPlaneServices::AnswerConfs(const zelvar::ZMessage& request, PeerIdentity* peer, int64_t now,
                                       zelvar::Body* reply) {
  auto* answer = reply->MutableExtension(ov::get_conf_response);
  if (!CarriesBody(request, ov::get_conf_request)) {
    FailMissingBody(request, "get_conf_request", answer->mutable_rc());
    return;
  }
  const ov::GetConfRequest& asked = request.body().GetExtension(ov::get_conf_request);
  LearnAgentName(peer, asked.agent_name(), now);
  std::string why;
  const AgentCatalogue* agent = FindAgent(asked.agent_name(), &why);
  if (agent == nullptr) {
    answer->mutable_rc()->set_code(kCodeUnknownAgent);
    answer->mutable_rc()->set_msg(why);
    Log(4, "no collector configurations for " + peer->ip + ": " + why);
    return;
  }
  Succeed(answer->mutable_rc());
  // A type past the last one is answered with an empty list: that is how the
  // agent learns its pass over the types is complete.
  auto confs = agent->confs.find(asked.conf_type());
  if (confs == agent->confs.end()) return;
  for (const ov::ConfObject& conf : confs->second) *answer->add_confs() = conf;
  Log(3, "gave agent " + asked.agent_name() + " " + std::to_string(confs->second.size()) +
             " configurations of collector type " + std::to_string(asked.conf_type()));
}

void ControlPlaneServices::StoreStats(const zelvar::ZMessage& request, PeerIdentity* peer, int64_t now) {
  const std::string agent = AgentLabel(*peer);
  if (!CarriesBody(request, tl::record_stats_request)) {
    Log(4, "dropped numeric samples without record_stats_request from " + agent);
    return;
  }
  std::vector<SampleRow> rows;
  for (const tl::StatsData& stats : request.body().GetExtension(tl::record_stats_request).stats()) {
    SampleRow row;
    row.received_at = now;
    row.agent = agent;
    row.name = stats.name();
    row.object_id = stats.object_id();
    row.stat_item = stats.stat_item();
    row.value = stats.value();
    rows.push_back(std::move(row));
  }
  StoreRows(rows, agent, "numeric samples");
}

void ControlPlaneServices::StoreStringStats(const zelvar::ZMessage& request, PeerIdentity* peer, int64_t now) {
  const std::string agent = AgentLabel(*peer);
  if (!CarriesBody(request, tl::record_string_stats_request)) {
    Log(4, "dropped text samples without record_string_stats_request from " + agent);
    return;
  }
  std::string unused;
  const AgentCatalogue* jobs = FindAgent(agent, &unused);
  std::vector<SampleRow> rows;
  for (const tl::StringStatsData& stats :
       request.body().GetExtension(tl::record_string_stats_request).stats()) {
    SampleRow row;
    row.received_at = now;
    row.agent = agent;
    row.text = true;
    row.name = stats.name();
    row.job_id = stats.job_id();
    if (jobs != nullptr) row.object_id = jobs->ObjectOfJob(stats.job_id(), stats.name());
    row.text_value = stats.value();
    row.sample_time = stats.time();
    rows.push_back(std::move(row));
  }
  StoreRows(rows, agent, "text samples");
}

void ControlPlaneServices::StoreRows(const std::vector<SampleRow>& rows, const std::string& agent,
                                     const char* what) {
  std::string error;
  if (!m_pStore->AddSamples(rows, &error)) {
    ++m_sCounters.store_errors;
    Log(4, std::to_string(rows.size()) + " " + what + " of " + agent + " lost: " + error);
    return;
  }
  m_sCounters.samples_stored += rows.size();
  Log(2, "stored " + std::to_string(rows.size()) + " " + what + " of " + agent);
}

void ControlPlaneServices::StoreHeartbeat(const zelvar::ZMessage& request, PeerIdentity* peer, int64_t now) {
  if (!CarriesBody(request, ov::agent_heart_beat_request)) {
    Log(4, "dropped a heartbeat without agent_heart_beat_request from " + AgentLabel(*peer));
    return;
  }
  const ov::AgentHeartBeatRequest& beat = request.body().GetExtension(ov::agent_heart_beat_request);
  RememberAgentName(peer, beat.agent_name());
  const std::string agent = AgentLabel(*peer);
  std::string error;
  if (!m_pStore->RecordHeartbeat(agent, peer->ip, now, beat.version(), beat.job_count(), &error)) {
    ++m_sCounters.store_errors;
    Log(4, "heartbeat of " + agent + " lost: " + error);
    return;
  }
  Log(2, "heartbeat of " + agent + ", version " + beat.version() + ", " + std::to_string(beat.job_count()) +
             " objects");
}

void ControlPlaneServices::StoreRealTimeLine(const zelvar::ZMessage& request, PeerIdentity* peer, int64_t now) {
  const std::string agent = AgentLabel(*peer);
  if (!CarriesBody(request, ov::send_real_time_buff_request)) {
    Log(4, "dropped a real-time line without send_real_time_buff_request from " + agent);
    return;
  }
  std::string error;
  if (!m_pStore->AddRealTimeLine(agent, now, request.body().GetExtension(ov::send_real_time_buff_request).line(),
                                 &error)) {
    ++m_sCounters.store_errors;
    Log(4, "real-time line of " + agent + " lost: " + error);
  }
}

const AgentCatalogue* ControlPlaneServices::FindAgent(const std::string& agentName, std::string* why) const {
  if (m_pCatalogue == nullptr) {
    *why = "no jobs file is loaded";
    return nullptr;
  }
  if (agentName.empty()) {
    *why = "the request names no agent";
    return nullptr;
  }
  const AgentCatalogue* agent = m_pCatalogue->Find(agentName);
  if (agent == nullptr) *why = "agent \"" + agentName + "\" is not in the jobs file";
  return agent;
}

void ControlPlaneServices::RememberAgentName(PeerIdentity* peer, const std::string& agentName) {
  if (agentName.empty()) return;
  peer->agent_name = agentName;
  m_mapAgentOfAddress[peer->ip] = agentName;
  if (!peer->node_path.empty()) m_mapAgentOfNode[peer->node_path] = agentName;
}

void ControlPlaneServices::LearnAgentName(PeerIdentity* peer, const std::string& agentName, int64_t now) {
  if (agentName.empty()) return;
  RememberAgentName(peer, agentName);
  std::string error;
  if (!m_pStore->TouchAgent(agentName, peer->node_path, peer->ip, now, &error)) {
    Log(4, "agent " + agentName + " not recorded: " + error);
  }
}

void ControlPlaneServices::LearnNodePath(PeerIdentity* peer, const std::string& nodePath, int64_t now) {
  if (nodePath.empty()) return;
  peer->node_path = nodePath;
  // A reconnected agent says its node path long before it names itself again.
  auto known = m_mapAgentOfNode.find(nodePath);
  if (peer->agent_name.empty() && known != m_mapAgentOfNode.end()) peer->agent_name = known->second;
  if (peer->agent_name.empty()) return;
  m_mapAgentOfNode[nodePath] = peer->agent_name;
  std::string error;
  if (!m_pStore->TouchAgent(peer->agent_name, nodePath, peer->ip, now, &error)) {
    Log(4, "agent " + peer->agent_name + " not recorded: " + error);
  }
}

void ControlPlaneServices::Log(int level, const std::string& line) const {
  if (m_fnLog) m_fnLog(level, line);
}

}  // namespace controlplane
