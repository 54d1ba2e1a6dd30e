// The agent's face to zelvar-host: the entry points it exports with C linkage,
// the copy of the host table, and the hooks that let a build replace an entry
// point.
//
// Calling order, all on the host's event-loop thread: library load (static
// initialisers register the machines and routines), OnPeekInterface, OnInit,
// then OnConnect / OnDataIn / OnDisconnect as connections go, and OnRoutine
// once per routine period.
//
// Hook rule: an entry point whose hook is set, and is not the entry point
// itself, calls the hook with its arguments unchanged and returns what it
// returns; its own body (entry log line included) does not run.
#ifndef OVITA2_AGENT_ENTRY_SO_ENTRY_H
#define OVITA2_AGENT_ENTRY_SO_ENTRY_H

#include <cstdint>

#include "zelvar/host_interface.h"

#define OVITA2_EXPORT __attribute__((visibility("default")))

extern "C" {
// Copies the host's 44 slots; called first.
OVITA2_EXPORT void OnPeekInterface(zelvar::HostFunction* table);
OVITA2_EXPORT int OnInit(void* hostContext);
OVITA2_EXPORT int OnConnect(uint64_t connA, uint64_t connB);
OVITA2_EXPORT int OnDisconnect(uint64_t connA, uint64_t connB);
// Decodes and routes at most one frame of connection (connA, connB):
// 0 routed (*messageOut and *machineOut set; the host delivers the envelope),
// 100 the frame is not complete (nothing consumed), -1 error.
OVITA2_EXPORT int OnDataIn(uint64_t connA, uint64_t connB, zelvar::ZMessage** messageOut,
                           zelvar::StateMachine** machineOut);
// Creates the machine of the first due routine, if any, into *machineOut.
// Always 0.
OVITA2_EXPORT int OnRoutine(zelvar::StateMachine** machineOut);
}

extern OnInitFn fn_usr_OnInit;
extern OnConnectFn fn_usr_OnConnect;
extern OnDisconnectFn fn_usr_OnDisconnect;
extern OnDataInFn fn_usr_OnDataIn;

// Results of OnDataIn.
constexpr int kDataInRouted = 0;
constexpr int kDataInNeedMore = 100;
constexpr int kDataInError = -1;

#endif  // OVITA2_AGENT_ENTRY_SO_ENTRY_H
