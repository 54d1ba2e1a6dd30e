#include "framework/host_api.h"

#include <cstdarg>
#include <cstdio>
#include <string>

#include "zelvar/state_machine.h"

namespace ovita2 {
namespace {

std::string FormatV(const char* format, va_list args) {
  va_list again;
  va_copy(again, args);
  int length = std::vsnprintf(nullptr, 0, format, args);
  std::string text;
  if (length > 0) {
    text.resize(static_cast<size_t>(length));
    std::vsnprintf(&text[0], text.size() + 1, format, again);
  }
  va_end(again);
  return text;
}

}  // namespace

void HostLog(int level, const char* format, ...) {
  if (!LogEnabled(level)) return;
  va_list args;
  va_start(args, format);
  std::string text = FormatV(format, args);
  va_end(args);
  zelvar::HostLogText(g_sOXETInterface, level, text.c_str());
}

void MachineLog(int level, zelvar::StateMachine* machine, const char* format, ...) {
  if (!LogEnabled(level)) return;
  va_list args;
  va_start(args, format);
  std::string text = FormatV(format, args);
  va_end(args);
  auto log = HostFn<zelvar::LogFn>(zelvar::kSlotLog);
  if (log == nullptr) return;
  log(level, "machine:%s(%u)|state:%s|%s", machine->MachineName(), machine->GetMachineId(),
      machine->GetStateName(), text.c_str());
}

}  // namespace ovita2
