// The control plane's view of the host: its copy of the 44-slot table
// (zelvar/host_table.h) and the few services it uses.
#ifndef OVITA2_CONTROLPLANE_HOST_ACCESS_H
#define OVITA2_CONTROLPLANE_HOST_ACCESS_H

#include <cstdint>
#include <string>

#include "zelvar/host_table.h"

namespace controlplane {

void KeepHostTable(const zelvar::HostFunction* table);
const zelvar::HostFunction* HostTable();

template <typename Fn>
Fn HostSlot(zelvar::HostSlot slot) {
  return zelvar::HostSlotAs<Fn>(HostTable(), slot);
}

// One line in the host's log, prefixed so it stands out in a shared log.
void HostLog(int level, const std::string& line);
// The value of a configuration key; "" when absent.
std::string HostConfigString(const char* section, const char* key);
int HostConfigInt(const char* section, const char* key, int dflt);
// The host's clock, whole seconds since the epoch.
int64_t HostNow();

}  // namespace controlplane

#endif  // OVITA2_CONTROLPLANE_HOST_ACCESS_H
