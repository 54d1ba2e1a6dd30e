// PluginHost: a registry plug-in's view of zelvar-host, built on the copy of the
// host table the plug-in received in OnPeekInterface.
//
// It wraps the few slots a registry uses (logging, configuration, the event
// loop, answer delivery) so that the plug-in's classes never cast slots
// themselves. Before Adopt() every service is a harmless no-op: logging goes
// nowhere, configuration reads give their defaults, a delivered answer is freed.
//
// Thread rules: the event-loop thread only, like every host slot.
#ifndef OVITA2_PLUGINS_COMMON_PLUGIN_HOST_H
#define OVITA2_PLUGINS_COMMON_PLUGIN_HOST_H

#include <string>
#include <vector>

#include "zelvar/host_interface.h"

namespace zelvar {
class ZKPluginResponse;
}

namespace zelvar::registry {

class PluginHost {
 public:
  PluginHost() = default;

  // Copies the host's table of kHostSlotCount slots.
  void Adopt(const HostFunction* table);
  bool HasTable() const { return m_bAdopted; }

  // True when a line of `level` would be written (the host's threshold is at
  // most `level`).
  bool LogEnabled(int level) const;
  // Formats and logs one line when the threshold allows its level.
  void Log(int level, const char* format, ...) const __attribute__((format(printf, 3, 4)));
  // The host's log descriptor, -1 without a host.
  int LogFd() const;

  std::string GetConfigString(const char* section, const char* key, const char* dflt) const;
  int GetConfigInt(const char* section, const char* key, int dflt) const;
  // Every key of `section` that matches the regular expression `regex`.
  std::vector<std::string> ListConfigKeys(const char* section, const char* regex) const;

  // The host's loop, null without a host.
  event_base* EventBase() const;
  // Hands `answer` to machine `machineId`; the host runs it on a later loop
  // turn. The answer is the host's (or freed) from here on, whatever the
  // result: 0 queued, -1 no such machine.
  int Deliver(unsigned machineId, ZKPluginResponse* answer) const;

 private:
  template <typename Fn>
  Fn Slot(HostSlot slot) const {
    return m_bAdopted ? HostSlotAs<Fn>(m_table, slot) : nullptr;
  }

  HostFunction m_table[kHostSlotCount] = {};
  bool m_bAdopted = false;
};

}  // namespace zelvar::registry

#endif  // OVITA2_PLUGINS_COMMON_PLUGIN_HOST_H
