// The agent's own initialisation, reached through OnInit, which sets the
// switches of framework/agent_switches.h for the machines.
//
// Event-loop thread only; the globals are unsynchronised by design.
#ifndef OVITA2_AGENT_ENTRY_OVITA2_AGENT_H
#define OVITA2_AGENT_ENTRY_OVITA2_AGENT_H

#include <cstdint>

#include "entry/so_entry.h"
#include "framework/agent_switches.h"

extern "C" {
// Reads the configuration, defines the service names, asks for OnRoutine once
// a second and marks the job list as needing a fetch. Returns 0.
OVITA2_EXPORT int OnMyInit(void* hostContext);
// Every configuration key the agent reads, wherever in the agent it is read,
// for `zelvar-host --check-config`; agentname and myname are required.
OVITA2_EXPORT const zelvar::ConfigKeyDeclaration* OnDescribeConfig();
}

constexpr unsigned kRoutinePeriodMicroseconds = 1000000;

#endif  // OVITA2_AGENT_ENTRY_OVITA2_AGENT_H
