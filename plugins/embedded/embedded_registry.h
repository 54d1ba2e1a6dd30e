// EmbeddedRegistry: the registry plug-in that needs no server. Its nodes come
// from the configuration section [embedded_registry] (each key a node path,
// each value "ip:port", stored as a serialised zelvar.kadri.NameNodeContent)
// and from "create" commands at run time.
//
// It answers the four registry commands like the ZooKeeper plug-in does, with
// one difference of substance: it has no sessions, so nodes created as
// ephemeral stay until the process ends, watchers never fire, and the
// connection callback of "set_callback" is kept but never called (the
// registry is never disconnected).
//
// Owns its NodeTree; borrows the PluginHost, which must outlive it. Answers go
// through PluginHost::Deliver, which queues them for a later loop turn, so no
// answer reaches a machine inside Call. Loop thread only.
#ifndef OVITA2_PLUGINS_EMBEDDED_EMBEDDED_REGISTRY_H
#define OVITA2_PLUGINS_EMBEDDED_EMBEDDED_REGISTRY_H

#include <string>

#include "common/plugin_host.h"
#include "common/zk_command.h"
#include "embedded/node_tree.h"

namespace zelvar::registry {

class EmbeddedRegistry {
 public:
  static constexpr const char* kSection = "embedded_registry";
  static constexpr const char* kLabel = "embedded registry";
  // Every key of the section is a node path, for the host's configuration check.
  static const zelvar::ConfigKeyDeclaration kConfigKeys[];

  explicit EmbeddedRegistry(const PluginHost* host);

  // Loads the configured nodes; a malformed entry is logged and left out.
  // Returns how many nodes were loaded.
  int LoadConfiguration();
  // The plug-in's start: the configured nodes, then a line saying how many.
  int Start();
  bool IsReady() const { return true; }  // it has nothing to wait for

  // Runs one command. Returns ZOK when accepted (one answer follows, except
  // for "set_callback"), or the ZooKeeper code of the refusal.
  int Call(unsigned machineId, const ZKCommand& command);

  ConnectionCallback Callback() const { return m_fnCallback; }

  // "ip:port" into a serialised NameNodeContent; false when malformed.
  static bool EncodeAddress(const std::string& address, std::string* encoded);

 private:
  static int64_t NowMs();
  static int64_t PseudoSessionId();

  const PluginHost* m_pHost;
  NodeTree m_tree;
  ConnectionCallback m_fnCallback = nullptr;
};

}  // namespace zelvar::registry

#endif  // OVITA2_PLUGINS_EMBEDDED_EMBEDDED_REGISTRY_H
