// LoadedPlugin: a registry plug-in opened with dlopen from its built path and
// handed a TestHost's table, the way zelvar-host loads it.
//
// Owns the library: OnUnload (if not called yet) and dlclose on destruction.
// Test thread only.
#ifndef OVITA2_TESTS_PLUGINS_LOADED_PLUGIN_H
#define OVITA2_TESTS_PLUGINS_LOADED_PLUGIN_H

#include <string>

#include "test_host.h"
#include "zelvar/zk_plugin.h"

namespace zelvar::registry::testing {

class LoadedPlugin {
 public:
  // Opens `path` and calls OnPeekInterface with `host`'s table. Check Error().
  LoadedPlugin(const std::string& path, TestHost& host);
  ~LoadedPlugin();

  LoadedPlugin(const LoadedPlugin&) = delete;
  LoadedPlugin& operator=(const LoadedPlugin&) = delete;

  // Empty when the library and all its entry points were found.
  const std::string& Error() const { return m_strError; }

  int Init();
  ZKPluginHandle* Handle();
  bool IsReady();
  void Unload();  // OnUnload, once

 private:
  void* Entry(const char* name);

  void* m_pLibrary = nullptr;
  std::string m_strError;
  bool m_bUnloaded = false;
};

}  // namespace zelvar::registry::testing

#endif  // OVITA2_TESTS_PLUGINS_LOADED_PLUGIN_H
