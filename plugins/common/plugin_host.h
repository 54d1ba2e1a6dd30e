// PluginHost: a registry plug-in's view of zelvar-host, the copy of the host
// table the plug-in received in OnPeekInterface (zelvar/host_table.h) plus
// answer delivery. Before Adopt() every service is a harmless no-op: logging
// goes nowhere, configuration reads give their defaults, a delivered answer is
// freed.
//
// Thread rules: the event-loop thread only, like every host slot.
#ifndef OVITA2_PLUGINS_COMMON_PLUGIN_HOST_H
#define OVITA2_PLUGINS_COMMON_PLUGIN_HOST_H

#include "zelvar/host_table.h"

namespace zelvar {
class ZKPluginResponse;
}

namespace zelvar::registry {

class PluginHost : public HostTable {
 public:
  // Hands `answer` to machine `machineId`; the host runs it on a later loop
  // turn. The answer is the host's (or freed) from here on, whatever the
  // result: 0 queued, -1 no such machine.
  int Deliver(unsigned machineId, ZKPluginResponse* answer) const;
};

}  // namespace zelvar::registry

#endif  // OVITA2_PLUGINS_COMMON_PLUGIN_HOST_H
