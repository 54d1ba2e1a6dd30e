#include "plugin.h"

#include <dlfcn.h>

#include "config.h"

namespace zelvar_host {

Plugin::~Plugin() { Close(); }

void* Plugin::Symbol(const char* name) { return dlsym(m_pHandle, name); }

bool Plugin::Load(std::string* error) {
  dlerror();
  m_pHandle = dlopen(m_strPath.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
  if (m_pHandle == nullptr) {
    const char* why = dlerror();
    std::string reason = why != nullptr ? why : "";
    // The reason starts with the path, which is configured text of any length.
    if (reason.compare(0, m_strPath.size(), m_strPath) == 0) reason.erase(0, m_strPath.size());
    *error = "cannot load plug-in \"" + m_strName + "\": " + Config::Clip(m_strPath) + reason;
    return false;
  }
  on_peek_interface = reinterpret_cast<OnPeekInterfaceFn>(Symbol("OnPeekInterface"));
  on_init = reinterpret_cast<OnInitFn>(Symbol("OnInit"));
  on_connect = reinterpret_cast<OnConnectFn>(Symbol("OnConnect"));
  on_disconnect = reinterpret_cast<OnDisconnectFn>(Symbol("OnDisconnect"));
  on_data_in = reinterpret_cast<OnDataInFn>(Symbol("OnDataIn"));
  on_routine = reinterpret_cast<OnRoutineFn>(Symbol("OnRoutine"));
  on_get_plugin_handle = reinterpret_cast<OnGetPluginHandleFn>(Symbol("OnGetPluginHandle"));
  on_is_ready = reinterpret_cast<OnIsReadyFn>(Symbol("OnIsReady"));
  on_unload = reinterpret_cast<OnUnloadFn>(Symbol("OnUnload"));
  on_describe_config = reinterpret_cast<OnDescribeConfigFn>(Symbol("OnDescribeConfig"));
  const char* missing = on_peek_interface == nullptr ? "OnPeekInterface"
                        : on_init == nullptr         ? "OnInit"
                                                     : nullptr;
  if (missing != nullptr) {
    *error = "cannot load plug-in \"" + m_strName + "\": " + Config::Clip(m_strPath) + " does not export " + missing;
    dlclose(m_pHandle);
    m_pHandle = nullptr;
    return false;
  }
  return true;
}

void Plugin::NotifyUnload() {
  if (m_bUnloadNotified || m_pHandle == nullptr) return;
  m_bUnloadNotified = true;
  if (on_unload != nullptr) on_unload();
}

void Plugin::Close() {
  if (m_pHandle == nullptr) return;
  NotifyUnload();
  dlclose(m_pHandle);
  m_pHandle = nullptr;
  on_peek_interface = nullptr;
  on_init = nullptr;
  on_connect = nullptr;
  on_disconnect = nullptr;
  on_data_in = nullptr;
  on_routine = nullptr;
  on_get_plugin_handle = nullptr;
  on_is_ready = nullptr;
  on_unload = nullptr;
}

}  // namespace zelvar_host
