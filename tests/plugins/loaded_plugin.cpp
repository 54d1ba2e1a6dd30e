#include "loaded_plugin.h"

#include <dlfcn.h>

namespace zelvar::registry::testing {

LoadedPlugin::LoadedPlugin(const std::string& path, TestHost& host) {
  m_pLibrary = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (m_pLibrary == nullptr) {
    m_strError = dlerror();
    return;
  }
  for (const char* name : {"OnPeekInterface", "OnInit", "OnGetPluginHandle", "OnIsReady", "OnUnload"}) {
    if (Entry(name) == nullptr) {
      m_strError = std::string(path) + " does not export " + name;
      return;
    }
  }
  reinterpret_cast<OnPeekInterfaceFn>(Entry("OnPeekInterface"))(host.Table());
}

LoadedPlugin::~LoadedPlugin() {
  if (m_pLibrary == nullptr) return;
  if (m_strError.empty()) Unload();
  dlclose(m_pLibrary);
}

void* LoadedPlugin::Entry(const char* name) { return m_pLibrary != nullptr ? dlsym(m_pLibrary, name) : nullptr; }

int LoadedPlugin::Init() { return reinterpret_cast<OnInitFn>(Entry("OnInit"))(nullptr); }

ZKPluginHandle* LoadedPlugin::Handle() {
  return static_cast<ZKPluginHandle*>(reinterpret_cast<OnGetPluginHandleFn>(Entry("OnGetPluginHandle"))());
}

bool LoadedPlugin::IsReady() { return reinterpret_cast<OnIsReadyFn>(Entry("OnIsReady"))() != 0; }

void LoadedPlugin::Unload() {
  if (m_bUnloaded) return;
  m_bUnloaded = true;
  reinterpret_cast<OnUnloadFn>(Entry("OnUnload"))();
}

}  // namespace zelvar::registry::testing
