#include "zookeeper/children_listing.h"

#include "common/zk_answer.h"

namespace zelvar::registry {

ChildrenListing::ChildrenListing(unsigned machineId, const Stat& parentStat, const std::vector<std::string>& names)
    : m_uMachineId(machineId),
      m_sParentStat(parentStat),
      m_vecArrived(names.size(), false),
      m_vecVanished(names.size(), false),
      m_uRemaining(names.size()) {
  for (const std::string& name : names) m_vecChildren.push_back(ZKKeyValue{name, "", Stat{}});
}

void ChildrenListing::ChildFetched(size_t index, int rc, const char* value, int length, const Stat* stat) {
  if (index >= m_vecChildren.size() || m_vecArrived[index]) return;
  m_vecArrived[index] = true;
  --m_uRemaining;
  if (rc == ZNONODE) {
    m_vecVanished[index] = true;
    return;
  }
  if (rc != ZOK) {
    Fail(rc);
    return;
  }
  ZKKeyValue& child = m_vecChildren[index];
  if (value != nullptr && length > 0) child.value.assign(value, static_cast<size_t>(length));
  if (stat != nullptr) child.stat = *stat;
}

void ChildrenListing::Fail(int rc) {
  if (m_iFailure == ZOK) m_iFailure = rc;
}

ZKPluginResponse* ChildrenListing::TakeAnswer() {
  if (m_bTaken) return nullptr;
  if (m_iFailure != ZOK) {
    m_bTaken = true;
    return ErrorAnswer(m_iFailure);
  }
  if (m_uRemaining != 0) return nullptr;
  m_bTaken = true;
  ZKPluginResponse* answer = ChildrenAnswer(m_sParentStat);
  for (size_t i = 0; i < m_vecChildren.size(); ++i) {
    if (!m_vecVanished[i]) answer->keyvalues.push_back(std::move(m_vecChildren[i]));
  }
  return answer;
}

}  // namespace zelvar::registry
