// The agent-wide switches that the entry sets from the configuration and the
// machines read and set. The entry (entry/ovita2_agent.cpp) defines them; they
// are declared here so that the machines never include the entry above them.
//
// Event-loop thread only; unsynchronised by design.
#ifndef OVITA2_AGENT_FRAMEWORK_AGENT_SWITCHES_H
#define OVITA2_AGENT_FRAMEWORK_AGENT_SWITCHES_H

#include <cstdint>

// Seconds between two runs of the high-precision jobs ("common" /
// "highprecision_frequency", 60 when unset or 0).
extern uint32_t g_highprecision_frequency;
// True when the job list is to be fetched again.
extern bool g_need_updatejobs;

constexpr uint32_t kDefaultHighPrecisionFrequency = 60;

#endif  // OVITA2_AGENT_FRAMEWORK_AGENT_SWITCHES_H
