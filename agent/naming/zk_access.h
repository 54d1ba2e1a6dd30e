// How the agent reaches the registry plug-in: the host hands out the plug-in
// registered as "zookeeper" (GetPluginHandle), whose first member is the
// variadic command entry ZKPluginCall. Answers come back to the issuing
// machine as a zelvar::ZKPluginResponse it owns and deletes.
//
// The first handle found is kept for the life of the process: the registry
// plug-in is loaded with the host and never replaced. A missing handle is not
// remembered, so the next caller asks the host again. Event-loop thread only.
#ifndef OVITA2_AGENT_NAMING_ZK_ACCESS_H
#define OVITA2_AGENT_NAMING_ZK_ACCESS_H

#include "zelvar/zk_plugin.h"

// The registry plug-in's handle, or null (with an error line) while the host
// has none to give.
zelvar::ZKPluginHandle* ei_handle();

#endif  // OVITA2_AGENT_NAMING_ZK_ACCESS_H
