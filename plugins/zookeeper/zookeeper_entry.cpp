// Entry points of the ZooKeeper registry plug-in (libregistry_zookeeper.so).
//
// The host calls them on its loop thread: OnPeekInterface, OnInit (which
// starts connecting and returns at once), then OnGetPluginHandle / OnIsReady
// as often as it likes, and OnUnload last (which closes the session).
#include <cstdarg>
#include <memory>

#include "common/plugin_export.h"
#include "common/plugin_host.h"
#include "common/zk_command.h"
#include "zookeeper/zookeeper_plugin_handle.h"
#include "zookeeper/zookeeper_registry.h"

namespace {

using zelvar::registry::PluginHost;
using zelvar::registry::ZKCommand;
using zelvar::registry::ZooKeeperRegistry;

PluginHost g_host;
std::unique_ptr<ZooKeeperRegistry> g_registry;

int ZooKeeperCall(unsigned machineId, const char* command, ...) {
  va_list args;
  va_start(args, command);
  int rc = ZKCommand::Dispatch("zookeeper registry", g_host, g_registry.get(), machineId, command, args);
  va_end(args);
  return rc;
}

int GetClientId(clientid_t* out) { return g_registry ? g_registry->GetClientId(out) : -1; }

zelvar::registry::ZooKeeperPluginHandle g_handle = {{&ZooKeeperCall}, &GetClientId};

}  // namespace

OVITA2_PLUGIN_EXPORT void OnPeekInterface(zelvar::HostFunction* table) { g_host.Adopt(table); }

OVITA2_PLUGIN_EXPORT int OnInit(void*) {
  g_registry = std::make_unique<ZooKeeperRegistry>(&g_host);
  if (g_registry->Open() != 0) {
    g_registry.reset();
    return -1;
  }
  return 0;
}

OVITA2_PLUGIN_EXPORT void* OnGetPluginHandle() { return &g_handle; }

OVITA2_PLUGIN_EXPORT const zelvar::ConfigKeyDeclaration* OnDescribeConfig() { return ZooKeeperRegistry::kConfigKeys; }

OVITA2_PLUGIN_EXPORT int OnIsReady() { return g_registry && g_registry->IsConnected() ? 1 : 0; }

OVITA2_PLUGIN_EXPORT void OnUnload() { g_registry.reset(); }
