// Entry points of the embedded registry plug-in (libregistry_embedded.so).
//
// The host calls them on its loop thread: OnPeekInterface, OnInit, then
// OnGetPluginHandle / OnIsReady as often as it likes, and OnUnload last.
#include <cstdarg>
#include <memory>

#include "common/plugin_export.h"
#include "common/plugin_host.h"
#include "common/zk_command.h"
#include "embedded/embedded_registry.h"
#include "zelvar/zk_plugin.h"

namespace {

using zelvar::registry::EmbeddedRegistry;
using zelvar::registry::PluginHost;
using zelvar::registry::ZKCommand;

PluginHost g_host;
std::unique_ptr<EmbeddedRegistry> g_registry;

int EmbeddedCall(unsigned machineId, const char* command, ...) {
  va_list args;
  va_start(args, command);
  int rc = ZKCommand::Dispatch("embedded registry", g_host, g_registry.get(), machineId, command, args);
  va_end(args);
  return rc;
}

zelvar::ZKPluginHandle g_handle = {&EmbeddedCall};

}  // namespace

OVITA2_PLUGIN_EXPORT void OnPeekInterface(zelvar::HostFunction* table) { g_host.Adopt(table); }

OVITA2_PLUGIN_EXPORT int OnInit(void*) {
  g_registry = std::make_unique<EmbeddedRegistry>(&g_host);
  int loaded = g_registry->LoadConfiguration();
  g_host.Log(3, "embedded registry: ready with %d configured node(s)", loaded);
  return 0;
}

OVITA2_PLUGIN_EXPORT void* OnGetPluginHandle() { return &g_handle; }

OVITA2_PLUGIN_EXPORT const zelvar::ConfigKeyDeclaration* OnDescribeConfig() { return EmbeddedRegistry::kConfigKeys; }

OVITA2_PLUGIN_EXPORT int OnIsReady() { return 1; }

OVITA2_PLUGIN_EXPORT void OnUnload() { g_registry.reset(); }
