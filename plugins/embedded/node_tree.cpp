#include "embedded/node_tree.h"

#include <cstdio>

#include "common/zk_command.h"

namespace zelvar::registry {

NodeTree::NodeTree(int64_t sessionId) : m_iSessionId(sessionId) {
  m_mapNodes.emplace("/", Node());
}

std::string NodeTree::ParentOf(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == 0 ? "/" : path.substr(0, slash);
}

std::string NodeTree::NameOf(const std::string& path) { return path.substr(path.rfind('/') + 1); }

int NodeTree::Create(const std::string& path, const std::string& data, int flags, int64_t nowMs,
                     std::string* createdPath) {
  bool sequential = (flags & ZOO_SEQUENCE) != 0;
  int mode = flags & ~ZOO_SEQUENCE;
  if (mode != ZOO_PERSISTENT && mode != ZOO_EPHEMERAL) return ZBADARGUMENTS;
  if (!ZKCommand::IsValidPath(path.c_str(), sequential)) return ZBADARGUMENTS;

  std::string target = path;
  if (sequential) {
    // As on a server: the parent's child-version counter, ten digits.
    auto parent = m_mapNodes.find(ParentOf(path + "0"));
    int32_t counter = parent != m_mapNodes.end() ? parent->second.stat.cversion : 0;
    char suffix[16];
    snprintf(suffix, sizeof(suffix), "%010d", counter);
    target += suffix;
  }
  if (m_mapNodes.count(target) != 0) return ZNODEEXISTS;

  int64_t owner = mode == ZOO_EPHEMERAL ? m_iSessionId : 0;
  if (MakeNode(target, data, owner, nowMs) == nullptr) return ZNOCHILDRENFOREPHEMERALS;
  if (createdPath != nullptr) *createdPath = target;
  return ZOK;
}

NodeTree::Node* NodeTree::MakeNode(const std::string& path, const std::string& data, int64_t owner,
                                   int64_t nowMs) {
  auto existing = m_mapNodes.find(path);
  if (existing != m_mapNodes.end()) return &existing->second;

  std::string parentPath = ParentOf(path);
  Node* parent = MakeNode(parentPath, "", 0, nowMs);
  if (parent == nullptr || parent->stat.ephemeralOwner != 0) return nullptr;

  int64_t zxid = ++m_iLastZxid;
  Node node;
  node.data = data;
  node.stat.czxid = node.stat.mzxid = node.stat.pzxid = zxid;
  node.stat.ctime = node.stat.mtime = nowMs;
  node.stat.ephemeralOwner = owner;
  node.stat.dataLength = static_cast<int32_t>(data.size());

  parent->children.insert(NameOf(path));
  parent->stat.numChildren = static_cast<int32_t>(parent->children.size());
  parent->stat.cversion += 1;
  parent->stat.pzxid = zxid;
  return &m_mapNodes.emplace(path, node).first->second;
}

int NodeTree::Get(const std::string& path, std::string* data, Stat* stat) const {
  auto it = m_mapNodes.find(path);
  if (it == m_mapNodes.end()) return ZNONODE;
  if (data != nullptr) *data = it->second.data;
  if (stat != nullptr) *stat = it->second.stat;
  return ZOK;
}

int NodeTree::List(const std::string& path, Stat* stat, std::vector<ZKKeyValue>* children) const {
  auto it = m_mapNodes.find(path);
  if (it == m_mapNodes.end()) return ZNONODE;
  if (stat != nullptr) *stat = it->second.stat;
  if (children == nullptr) return ZOK;
  std::string prefix = path == "/" ? "/" : path + "/";
  for (const std::string& name : it->second.children) {
    const Node& child = m_mapNodes.at(prefix + name);
    children->push_back(ZKKeyValue{name, child.data, child.stat});
  }
  return ZOK;
}

}  // namespace zelvar::registry
