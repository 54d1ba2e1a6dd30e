// Plugin: one shared library loaded by the host, with the entry points it
// exports.
//
// OnPeekInterface and OnInit are required; the others are optional and null
// when the library does not export them. The library is opened with
// RTLD_NODELETE: machine creators registered by its static initialisers stay in
// the process-wide MachineFactory, so its code must stay mapped for as long as
// the process lives, even after Close().
//
// Owned by the Host; event-loop thread only.
#ifndef ZELVAR_HOST_PLUGIN_H
#define ZELVAR_HOST_PLUGIN_H

#include <string>

#include "zelvar/host_interface.h"

namespace zelvar_host {

class Plugin {
 public:
  Plugin(std::string name, std::string path) : m_strName(std::move(name)), m_strPath(std::move(path)) {}
  ~Plugin();
  Plugin(const Plugin&) = delete;
  Plugin& operator=(const Plugin&) = delete;

  // Opens the library and finds its entry points. On failure returns false
  // with one line naming the plug-in and dlerror's text.
  bool Load(std::string* error);
  // Calls OnUnload when exported, once. The host does it before it destroys
  // the machines, so a plug-in can still reach its own.
  void NotifyUnload();
  // Closes the library (after NotifyUnload when that was not called). Idempotent.
  void Close();

  const std::string& Name() const { return m_strName; }
  const std::string& Path() const { return m_strPath; }

  OnPeekInterfaceFn on_peek_interface = nullptr;
  OnInitFn on_init = nullptr;
  OnConnectFn on_connect = nullptr;
  OnDisconnectFn on_disconnect = nullptr;
  OnDataInFn on_data_in = nullptr;
  OnRoutineFn on_routine = nullptr;
  OnGetPluginHandleFn on_get_plugin_handle = nullptr;
  OnIsReadyFn on_is_ready = nullptr;
  OnUnloadFn on_unload = nullptr;
  OnDescribeConfigFn on_describe_config = nullptr;

 private:
  void* Symbol(const char* name);

  std::string m_strName;
  std::string m_strPath;
  void* m_pHandle = nullptr;
  bool m_bUnloadNotified = false;
};

}  // namespace zelvar_host

#endif  // ZELVAR_HOST_PLUGIN_H
