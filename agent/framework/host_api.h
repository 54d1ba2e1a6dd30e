// How agent code reaches the host: the host table it was handed, and the
// logging convention every unit follows.
//
// The table is a by-value copy (g_sOXETInterface, filled by OnPeekInterface);
// a slot is read from it at each use and never cached, so a table handed over
// again replaces every service at once. Event-loop thread only.
//
// Logging: a line of level L is formatted and written only when the host's
// threshold (GetLogLevel) is at most L. Levels: 1 trace (entry lines, message
// dumps), 2 and 3 progress, 4 errors. Lines of a machine read
// "machine:<name>(<id>)|state:<state name>|<text>". A call site whose
// arguments are costly to build (a DebugString) tests LogEnabled first.
#ifndef OVITA2_AGENT_FRAMEWORK_HOST_API_H
#define OVITA2_AGENT_FRAMEWORK_HOST_API_H

#include <cstdint>

#include "zelvar/host_table.h"

namespace zelvar {
class StateMachine;
}

extern zelvar::HostFunction g_sOXETInterface[zelvar::kHostSlotCount];

namespace ovita2 {

// The slot as its signature; null before the host handed its table over.
template <typename Fn>
inline Fn HostFn(zelvar::HostSlot slot) {
  return zelvar::HostSlotAs<Fn>(g_sOXETInterface, slot);
}

// True when a line of `level` is to be written. Without a table nothing is.
inline bool LogEnabled(int level) { return zelvar::HostLogEnabled(g_sOXETInterface, level); }

// A configuration value, "" when the host has none (the agent asks with no
// default and uses the answer as a C string).
inline const char* HostConfigString(const char* section, const char* key) {
  const char* value = zelvar::HostConfigText(g_sOXETInterface, section, key, nullptr);
  return value != nullptr ? value : "";
}

// The host's clock in whole seconds since the epoch.
inline int64_t HostNow() { return zelvar::HostNowSeconds(g_sOXETInterface); }

// Writes one printf-style line at `level` when the threshold allows it.
void HostLog(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Writes one line of `machine` ("machine:%s(%u)|state:%s|%s") when the
// threshold allows it; `format` and what follows make the text.
void MachineLog(int level, zelvar::StateMachine* machine, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

}  // namespace ovita2

#endif  // OVITA2_AGENT_FRAMEWORK_HOST_API_H
