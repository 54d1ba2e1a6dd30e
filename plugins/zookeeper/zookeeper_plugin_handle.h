// What the ZooKeeper registry plug-in returns from OnGetPluginHandle: the
// common registry handle, followed by what only this plug-in can offer.
#ifndef OVITA2_PLUGINS_ZOOKEEPER_ZOOKEEPER_PLUGIN_HANDLE_H
#define OVITA2_PLUGINS_ZOOKEEPER_ZOOKEEPER_PLUGIN_HANDLE_H

#include <zookeeper/zookeeper.h>

#include "zelvar/zk_plugin.h"

namespace zelvar::registry {

struct ZooKeeperPluginHandle {
  // First, so that the handle is usable as a zelvar::ZKPluginHandle.
  zelvar::ZKPluginHandle common;
  // The current session's id and password, for tools that must act on the
  // plug-in's session. 0, or -1 when no session is open.
  int (*GetClientId)(clientid_t* out);
};

}  // namespace zelvar::registry

#endif  // OVITA2_PLUGINS_ZOOKEEPER_ZOOKEEPER_PLUGIN_HANDLE_H
