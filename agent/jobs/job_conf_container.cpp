// JobConfContainer: the configurations of the agent's built-in collectors.
#include "jobs/job_conf_container.h"

JobConfContainer* JobConfContainer::Instance() {
  static JobConfContainer instance;
  return &instance;
}

void JobConfContainer::UpdateJobConfs(unsigned int type, const zelvar::ovita2::GetConfResponse& response) {
  auto known = m_mapTypeTargets.find(type);
  const bool typeKnown = known != m_mapTypeTargets.end();
  TypeTargets rebuilt;
  for (const zelvar::ovita2::ConfObject& conf : response.confs()) {
    m_mapConfs[conf.target()].CopyFrom(conf);
    if (!typeKnown) {
      m_mapTypeTargets[type][conf.target()] = 0;
      continue;
    }
    auto lastRun = known->second.find(conf.target());
    rebuilt[type][conf.target()] = lastRun != known->second.end() ? lastRun->second : 0;
  }
  if (typeKnown) m_mapTypeTargets.swap(rebuilt);
}

const zelvar::ovita2::ConfObject* JobConfContainer::GetJobConfDefine(std::string target) const {
  auto found = m_mapConfs.find(target);
  return found != m_mapConfs.end() ? &found->second : nullptr;
}
