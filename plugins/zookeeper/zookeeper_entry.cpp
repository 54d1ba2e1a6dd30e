// Entry points of the ZooKeeper registry plug-in (libregistry_zookeeper.so).
// OnInit starts connecting and returns at once; OnIsReady says whether a
// session is up; OnUnload closes the session.
#include "common/registry_entry.h"
#include "zookeeper/zookeeper_plugin_handle.h"
#include "zookeeper/zookeeper_registry.h"

namespace {

using zelvar::registry::ZooKeeperRegistry;
using Plugin = zelvar::registry::RegistryPlugin<ZooKeeperRegistry>;

int GetClientId(clientid_t* out) { return Plugin::registry ? Plugin::registry->GetClientId(out) : -1; }

zelvar::registry::ZooKeeperPluginHandle g_handle = {{&Plugin::Call}, &GetClientId};

}  // namespace

OVITA2_REGISTRY_ENTRY_POINTS(ZooKeeperRegistry, g_handle)
