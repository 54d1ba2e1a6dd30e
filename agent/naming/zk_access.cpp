#include "naming/zk_access.h"

#include "framework/host_api.h"

namespace {

zelvar::ZKPluginHandle* g_pRegistryHandle = nullptr;

}  // namespace

zelvar::ZKPluginHandle* ei_handle() {
  if (g_pRegistryHandle != nullptr) return g_pRegistryHandle;
  auto getPluginHandle = ovita2::HostFn<zelvar::GetPluginHandleFn>(zelvar::kSlotGetPluginHandle);
  if (getPluginHandle == nullptr) {
    ovita2::HostLog(4, "handle of ei_get not found");
    return nullptr;
  }
  g_pRegistryHandle = static_cast<zelvar::ZKPluginHandle*>(getPluginHandle("zookeeper"));
  if (g_pRegistryHandle == nullptr) ovita2::HostLog(4, "handle of zookeeper not found");
  return g_pRegistryHandle;
}
