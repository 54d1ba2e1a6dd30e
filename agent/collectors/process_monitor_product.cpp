// ProcessMonitorProduct: process liveness from the command lines in /proc.
#include "collectors/process_monitor_product.h"

#include <dirent.h>
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "framework/host_api.h"

std::map<std::string, int32_t> ProcessMonitorProduct::mapWarnProcessInfo;

namespace {

constexpr const char* kProcDir = "/proc/";

bool IsDirectory(DIR* dir, const dirent* entry) {
  if (entry->d_type != DT_UNKNOWN) return entry->d_type == DT_DIR;
  struct stat info;
  return fstatat(dirfd(dir), entry->d_name, &info, 0) == 0 && S_ISDIR(info.st_mode);
}

}  // namespace

void ProcessMonitorProduct::setAttribute(const zelvar::ovita2::ConfObject* conf) {
  m_strTarget = conf->target();
  m_ulParameter = Atol64(conf->parameter().c_str());
  m_uCaseSensitive = getValueParse(kCaseSensitiveBit) ? 1 : 0;
  m_uExactMatch = getValueParse(kExactMatchBit) ? 1 : 0;
}

std::string ProcessMonitorProduct::operation() {
  int pid = getPIDByName(m_strTarget.c_str());
  ovita2::HostLog(1, "getPIDByName Process name: %s|pid: %d;", m_strTarget.c_str(), pid);
  if (pid > 0) {
    auto missing = mapWarnProcessInfo.find(m_strTarget);
    if (missing == mapWarnProcessInfo.end()) return "";
    mapWarnProcessInfo.erase(missing);  // the recovery is told once
    return m_strTarget + ":" + IntToStr(pid);
  }
  mapWarnProcessInfo.emplace(m_strTarget, pid);  // the first result that made it missing stays
  return m_strTarget + ":" + IntToStr(pid);
}

int ProcessMonitorProduct::getPIDByName(const char* name) {
  DIR* dir = opendir(kProcDir);
  if (dir == nullptr) {
    ovita2::HostLog(4, "Couldn't open the %s directory", kProcDir);
    return -2;
  }
  int pid = -1;
  while (const dirent* entry = readdir(dir)) {
    if (!IsDirectory(dir, entry) || !IsNumeric(entry->d_name)) continue;
    if (CommandLineMatches(dirfd(dir), entry->d_name, name)) {
      pid = atoi(entry->d_name);
      break;
    }
  }
  closedir(dir);
  return pid;
}

// The command line is read straight into the argument buffer, most often in
// one read: every NUL-terminated argument in it is tested where it lies, and
// an unfinished last one is moved to the front to be completed by the next
// read. An argument that fills the whole buffer is tested as it is and ends
// the reading; an unterminated tail at end of file is not an argument.
bool ProcessMonitorProduct::CommandLineMatches(int dirFd, const char* pid, const char* name) const {
  char path[64];
  std::snprintf(path, sizeof path, "%s/cmdline", pid);
  int fd = openat(dirFd, path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  char buffer[kArgumentBufferSize + 1];  // + the terminator of a full buffer
  size_t held = 0;
  bool matched = false;
  ssize_t got;
  while (!matched && (got = read(fd, buffer + held, kArgumentBufferSize - held)) > 0) {
    char* argument = buffer;
    char* end = buffer + held + got;
    while (!matched) {
      char* nul = static_cast<char*>(std::memchr(argument, '\0', end - argument));
      if (nul == nullptr) break;
      matched = ArgumentMatches(argument, name);
      argument = nul + 1;
    }
    held = end - argument;
    if (matched) break;
    if (held == kArgumentBufferSize) {
      buffer[held] = '\0';
      matched = ArgumentMatches(buffer, name);
      break;
    }
    std::memmove(buffer, argument, held);
  }
  close(fd);
  return matched;
}

bool ProcessMonitorProduct::ArgumentMatches(char* argument, const char* name) const {
  const char* slash = std::strrchr(argument, '/');
  const char* lastPart = slash != nullptr ? slash + 1 : argument;
  return m_uExactMatch != 0 ? strcmp_Wrapper(lastPart, name) : strstr_Wrapper(lastPart, name);
}

bool ProcessMonitorProduct::IsNumeric(const char* text) {
  for (; *text != '\0'; ++text) {
    if (*text < '0' || *text > '9') return false;
  }
  return true;
}

bool ProcessMonitorProduct::strstr_Wrapper(const char* haystack, const char* needle) const {
  return (m_uCaseSensitive != 0 ? std::strstr(haystack, needle) : strcasestr(haystack, needle)) != nullptr;
}

bool ProcessMonitorProduct::strcmp_Wrapper(const char* a, const char* b) const {
  return (m_uCaseSensitive != 0 ? std::strcmp(a, b) : strcasecmp(a, b)) == 0;
}

std::string ProcessMonitorProduct::IntToStr(int value) {
  char text[16];
  std::snprintf(text, sizeof text, "%d", value);
  return text;
}

uint64_t ProcessMonitorProduct::Atol64(const char* text) {
  unsigned long long value = 0;
  if (text != nullptr) std::sscanf(text, "%llu", &value);
  return value;
}
