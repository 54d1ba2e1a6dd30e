// The answers both registry plug-ins build, so that the same command gets the
// same record from either (type, presence bits and error text included; see
// zelvar/zk_plugin.h for the table).
//
// Each function returns a new record that the caller hands to the host.
#ifndef OVITA2_PLUGINS_COMMON_ZK_ANSWER_H
#define OVITA2_PLUGINS_COMMON_ZK_ANSWER_H

#include <string>

#include "zelvar/zk_plugin.h"

namespace zelvar::registry {

// A failed command: type T_VOID, no presence bit, ZooKeeper's text for `retcode`.
ZKPluginResponse* ErrorAnswer(int retcode);
// "create" succeeded: the path actually created (differs for sequential nodes).
ZKPluginResponse* CreatedAnswer(const std::string& createdPath);
// "get" succeeded: the node's raw data and Stat.
ZKPluginResponse* DataAnswer(const std::string& data, const Stat& stat);
// "listvalue" succeeded: the listed node's Stat; the caller appends the children.
ZKPluginResponse* ChildrenAnswer(const Stat& parentStat);

}  // namespace zelvar::registry

#endif  // OVITA2_PLUGINS_COMMON_ZK_ANSWER_H
