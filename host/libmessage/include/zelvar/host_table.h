// Typed reads of a plug-in's copy of the host table, with the argument
// conventions in one place. The free functions read any copy (the agent keeps
// its own global one, filled in OnPeekInterface); HostTable is a copy that
// offers them as members. A missing table or slot gives the harmless answer
// each function names: logging goes nowhere, configuration reads give their
// defaults.
//
// Thread rules: the event-loop thread only, like every host slot.
#ifndef ZELVAR_HOST_TABLE_H
#define ZELVAR_HOST_TABLE_H

#include <cstdint>
#include <string>
#include <vector>

#include "zelvar/host_interface.h"

namespace zelvar {

// True when a line of `level` would be written: the host's threshold is at
// most `level`.
bool HostLogEnabled(const HostFunction* table, int level);
// Writes finished text: the host's Log is variadic itself, and a path or a
// server's message may carry a stray '%'.
void HostLogText(const HostFunction* table, int level, const char* text);
// The host's answer, which may be null, or `dflt` without the slot.
const char* HostConfigText(const HostFunction* table, const char* section, const char* key, const char* dflt);
// The host's clock in whole seconds since the epoch; 0 without one.
int64_t HostNowSeconds(const HostFunction* table);

class HostTable {
 public:
  // Copies the host's table of kHostSlotCount slots; null is ignored.
  void Adopt(const HostFunction* table);
  bool HasTable() const { return m_bAdopted; }
  // The copy, every slot null before Adopt.
  const HostFunction* Table() const { return m_table; }

  template <typename Fn>
  Fn Slot(HostSlot slot) const {
    return HostSlotAs<Fn>(m_table, slot);
  }

  bool LogEnabled(int level) const { return HostLogEnabled(m_table, level); }
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
  int64_t Now() const { return HostNowSeconds(m_table); }

 private:
  HostFunction m_table[kHostSlotCount] = {};
  bool m_bAdopted = false;
};

}  // namespace zelvar

#endif  // ZELVAR_HOST_TABLE_H
