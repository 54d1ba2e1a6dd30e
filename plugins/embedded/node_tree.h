// NodeTree: the embedded registry's nodes, in memory, with the bookkeeping a
// ZooKeeper server keeps (zxids, times, versions, child counts), so that users
// written against ZooKeeper read plausible values.
//
// Differences from a ZooKeeper server, all deliberate:
// - Create makes missing parents as empty persistent nodes, like the parents
//   of the configured nodes: a single-machine setup has nobody to create them.
// - There are no sessions: ephemeral nodes are stamped with this process's
//   pseudo session id and live as long as the tree.
// - Nodes are never changed or deleted after creation.
// Children are listed in name order.
//
// Owns every node. Not thread-safe: the loop thread only.
#ifndef OVITA2_PLUGINS_EMBEDDED_NODE_TREE_H
#define OVITA2_PLUGINS_EMBEDDED_NODE_TREE_H

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "zelvar/zk_plugin.h"

namespace zelvar::registry {

class NodeTree {
 public:
  // `sessionId` is what ephemeral nodes carry as their owner; it must not be 0.
  explicit NodeTree(int64_t sessionId);

  // Creates `path` with `data`. `flags`: ZOO_PERSISTENT, ZOO_EPHEMERAL, and
  // either of them with ZOO_SEQUENCE. Returns ZOK and the created path,
  // ZNODEEXISTS, ZNOCHILDRENFOREPHEMERALS (a parent is ephemeral), or
  // ZBADARGUMENTS (unsupported flags, malformed path). `nowMs` becomes ctime.
  int Create(const std::string& path, const std::string& data, int flags, int64_t nowMs,
             std::string* createdPath);
  // ZOK with the node's data and Stat, or ZNONODE.
  int Get(const std::string& path, std::string* data, Stat* stat) const;
  // ZOK with the node's Stat and its children in name order, or ZNONODE.
  int List(const std::string& path, Stat* stat, std::vector<ZKKeyValue>* children) const;

  size_t NodeCount() const { return m_mapNodes.size(); }

 private:
  struct Node {
    std::string data;
    Stat stat{};
    std::set<std::string> children;
  };

  // The node at `path`, made with its missing parents; null when an existing
  // ancestor is ephemeral.
  Node* MakeNode(const std::string& path, const std::string& data, int64_t owner, int64_t nowMs);
  static std::string ParentOf(const std::string& path);
  static std::string NameOf(const std::string& path);

  std::map<std::string, Node> m_mapNodes;
  int64_t m_iSessionId;
  int64_t m_iLastZxid = 0;
};

}  // namespace zelvar::registry

#endif  // OVITA2_PLUGINS_EMBEDDED_NODE_TREE_H
