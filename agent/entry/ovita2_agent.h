// The agent's own initialisation, reached through OnInit, and the globals it
// sets for the machines.
//
// Event-loop thread only; the globals are unsynchronised by design.
#ifndef OVITA2_AGENT_ENTRY_OVITA2_AGENT_H
#define OVITA2_AGENT_ENTRY_OVITA2_AGENT_H

#include <cstdint>

#include "entry/so_entry.h"

extern "C" {
// Reads the configuration, defines the service names, asks for OnRoutine once
// a second and marks the job list as needing a fetch. Returns 0.
OVITA2_EXPORT int OnMyInit(void* hostContext);
// Every configuration key the agent reads, wherever in the agent it is read,
// for `zelvar-host --check-config`; agentname and myname are required.
OVITA2_EXPORT const zelvar::ConfigKeyDeclaration* OnDescribeConfig();
}

// Seconds between two runs of the high-precision jobs ("common" /
// "highprecision_frequency", 60 when unset or 0).
extern uint32_t g_highprecision_frequency;
// True when the job list is to be fetched again.
extern bool g_need_updatejobs;

constexpr uint32_t kDefaultHighPrecisionFrequency = 60;
constexpr unsigned kRoutinePeriodMicroseconds = 1000000;

#endif  // OVITA2_AGENT_ENTRY_OVITA2_AGENT_H
