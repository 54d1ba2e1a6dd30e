// The C entry points of a registry plug-in, written once for both registries.
//
// The host calls them on its loop thread: OnPeekInterface, OnInit, then
// OnGetPluginHandle / OnIsReady as often as it likes, and OnUnload last. A
// registry class supplies what differs:
//
//   static constexpr const char* kLabel;        // names it in log lines
//   static const zelvar::ConfigKeyDeclaration kConfigKeys[];
//   explicit Registry(const PluginHost* host);
//   int Start();                                 // from OnInit; -1 fails the load
//   bool IsReady() const;
//
// and its unit writes OVITA2_REGISTRY_ENTRY_POINTS(Registry, handle) with the
// handle OnGetPluginHandle gives out, whose first member is the
// zelvar::ZKPluginHandle built on RegistryPlugin<Registry>::Call.
#ifndef OVITA2_PLUGINS_COMMON_REGISTRY_ENTRY_H
#define OVITA2_PLUGINS_COMMON_REGISTRY_ENTRY_H

#include <cstdarg>
#include <memory>

#include "common/plugin_export.h"
#include "common/plugin_host.h"
#include "common/zk_command.h"

namespace zelvar::registry {

template <typename Registry>
struct RegistryPlugin {
  static inline PluginHost host;
  static inline std::unique_ptr<Registry> registry;

  static int Call(unsigned machineId, const char* command, ...) {
    va_list args;
    va_start(args, command);
    int rc = ZKCommand::Dispatch(Registry::kLabel, host, registry.get(), machineId, command, args);
    va_end(args);
    return rc;
  }

  static int Init() {
    registry = std::make_unique<Registry>(&host);
    if (registry->Start() == 0) return 0;
    registry.reset();
    return -1;
  }

  static int IsReady() { return registry && registry->IsReady() ? 1 : 0; }
};

}  // namespace zelvar::registry

#define OVITA2_REGISTRY_ENTRY_POINTS(Registry, handle)                                                          \
  OVITA2_PLUGIN_EXPORT void OnPeekInterface(zelvar::HostFunction* table) {                                     \
    zelvar::registry::RegistryPlugin<Registry>::host.Adopt(table);                                              \
  }                                                                                                             \
  OVITA2_PLUGIN_EXPORT int OnInit(void*) { return zelvar::registry::RegistryPlugin<Registry>::Init(); }         \
  OVITA2_PLUGIN_EXPORT void* OnGetPluginHandle() { return &(handle); }                                          \
  OVITA2_PLUGIN_EXPORT const zelvar::ConfigKeyDeclaration* OnDescribeConfig() { return Registry::kConfigKeys; } \
  OVITA2_PLUGIN_EXPORT int OnIsReady() { return zelvar::registry::RegistryPlugin<Registry>::IsReady(); }        \
  OVITA2_PLUGIN_EXPORT void OnUnload() { zelvar::registry::RegistryPlugin<Registry>::registry.reset(); }

#endif  // OVITA2_PLUGINS_COMMON_REGISTRY_ENTRY_H
