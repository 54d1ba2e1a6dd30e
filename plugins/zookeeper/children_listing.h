// ChildrenListing: gathers one "listvalue" answer from the several replies it
// takes on ZooKeeper (the list of children, then one data read per child),
// which may arrive in any order.
//
// A child that vanished between the list and its read (ZNONODE) is left out,
// as if it had never been listed; any other error fails the whole listing with
// that code. The answer is handed out exactly once: TakeAnswer gives it when
// every read is back or at the first failure, and null before and after.
//
// Shared by the pending reads of one listing; loop thread only.
#ifndef OVITA2_PLUGINS_ZOOKEEPER_CHILDREN_LISTING_H
#define OVITA2_PLUGINS_ZOOKEEPER_CHILDREN_LISTING_H

#include <zookeeper/zookeeper.h>

#include <string>
#include <vector>

#include "zelvar/zk_plugin.h"

namespace zelvar::registry {

class ChildrenListing {
 public:
  ChildrenListing(unsigned machineId, const Stat& parentStat, const std::vector<std::string>& names);

  unsigned MachineId() const { return m_uMachineId; }
  size_t ChildCount() const { return m_vecChildren.size(); }
  const std::string& ChildName(size_t index) const { return m_vecChildren[index].key; }

  // The read of child `index` is back with `rc` (and, when rc is ZOK, its data
  // of `length` bytes, -1 for none, and its Stat).
  void ChildFetched(size_t index, int rc, const char* value, int length, const Stat* stat);
  // Fails the listing with `rc`, unless its answer was already handed out.
  void Fail(int rc);
  // The answer once complete or failed, exactly once; null otherwise.
  ZKPluginResponse* TakeAnswer();

 private:
  unsigned m_uMachineId;
  Stat m_sParentStat;
  std::vector<ZKKeyValue> m_vecChildren;
  std::vector<bool> m_vecArrived;
  std::vector<bool> m_vecVanished;
  size_t m_uRemaining;
  int m_iFailure = ZOK;
  bool m_bTaken = false;
};

}  // namespace zelvar::registry

#endif  // OVITA2_PLUGINS_ZOOKEEPER_CHILDREN_LISTING_H
