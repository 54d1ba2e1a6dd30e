// ProcessMonitorProduct (collector type 1): is the named process alive?
//
// It reports changes worth an alarm only: while the process is missing every
// run gives "<name>:<lookup result>" (-1 none found, -2 /proc unreadable);
// the first run that finds it again gives "<name>:<pid>" once; a process that
// simply runs gives "". The missing state is kept in mapWarnProcessInfo, which
// outlives the products (one per run) and is shared by all of them.
//
// Matching: every argument of every command line is tested, not only the
// command name, so an interpreter running the target as a script matches
// through its script argument. Only the part after an argument's last "/" is
// compared, as a substring or (parameter bit 2) as the whole part, ignoring
// case unless parameter bit 1 is set.
//
// Event-loop thread only.
#ifndef OVITA2_AGENT_COLLECTORS_PROCESS_MONITOR_PRODUCT_H
#define OVITA2_AGENT_COLLECTORS_PROCESS_MONITOR_PRODUCT_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "collectors/data_collection.h"

class ProcessMonitorProduct : public DataCollectionProduct {
 public:
  static constexpr uint64_t kCaseSensitiveBit = 1;
  static constexpr uint64_t kExactMatchBit = 2;
  // An argument this long ends the reading of its command line.
  static constexpr size_t kArgumentBufferSize = 10240;

  // Targets now missing -> the lookup result that made them so.
  static std::map<std::string, int32_t> mapWarnProcessInfo;

  std::string operation() override;
  void setAttribute(const zelvar::ovita2::ConfObject* conf) override;

  // The pid of the first process (in /proc order) with a matching argument;
  // -1 when none matches, -2 when /proc cannot be opened.
  int getPIDByName(const char* name);

  // Every character a decimal digit; true for "" as well.
  static bool IsNumeric(const char* text);
  bool strstr_Wrapper(const char* haystack, const char* needle) const;
  bool strcmp_Wrapper(const char* a, const char* b) const;
  static std::string IntToStr(int value);
  // "%llu" reading; 0 for null or text that does not start with a number.
  static uint64_t Atol64(const char* text);
  // The parameter has a bit of `mask` set.
  bool getValueParse(uint64_t mask) const { return (m_ulParameter & mask) != 0; }

 private:
  // Tests one argument (NUL-terminated, writable) against `name`.
  bool ArgumentMatches(char* argument, const char* name) const;
  // Tests the arguments of one /proc/<pid>/cmdline.
  bool CommandLineMatches(int dirFd, const char* pid, const char* name) const;

  uint32_t m_uCaseSensitive = 0;
  uint32_t m_uExactMatch = 0;
  std::string m_strTarget;
  uint64_t m_ulParameter = 0;
};

#endif  // OVITA2_AGENT_COLLECTORS_PROCESS_MONITOR_PRODUCT_H
