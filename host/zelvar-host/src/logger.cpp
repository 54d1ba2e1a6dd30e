#include "logger.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <vector>

namespace zelvar_host {
namespace {

constexpr size_t kStackLine = 2048;

int OpenLogFile(const std::string& path) {
  return open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
}

// "YYYY-MM-DDTHH:MM:SS.mmm+HH:MM LEVEL " into `out`; returns its length. The
// offset makes lines of hosts in different zones, or across a change of
// daylight saving time, comparable.
size_t FormatPrefix(int level, bool journal, char* out, size_t size) {
  if (journal) {  // the journal stamps the line itself; it reads "<priority>" as its level
    int priority = level >= Logger::kError ? 3 : level == Logger::kInfo ? 6 : 7;
    return static_cast<size_t>(std::snprintf(out, size, "<%d>", priority));
  }
  timeval now;
  gettimeofday(&now, nullptr);
  tm local;
  localtime_r(&now.tv_sec, &local);
  char stamp[32];
  strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%S", &local);
  const long offsetMinutes = local.tm_gmtoff / 60;
  const long absMinutes = offsetMinutes < 0 ? -offsetMinutes : offsetMinutes;
  int n = std::snprintf(out, size, "%s.%03d%c%02ld:%02ld %s ", stamp, static_cast<int>(now.tv_usec / 1000),
                        offsetMinutes < 0 ? '-' : '+', absMinutes / 60, absMinutes % 60, Logger::LevelName(level));
  return n < 0 ? 0 : static_cast<size_t>(n);
}

// Standard error is the journal when systemd names it in JOURNAL_STREAM
// ("device:inode" of the stream it connected).
bool StandardErrorIsJournal() {
  const char* stream = std::getenv("JOURNAL_STREAM");
  unsigned long long device = 0, inode = 0;
  struct stat info;
  return stream != nullptr && std::sscanf(stream, "%llu:%llu", &device, &inode) == 2 && fstat(2, &info) == 0 &&
         info.st_dev == device && info.st_ino == inode;
}

}  // namespace

Logger::~Logger() { Close(); }

const char* Logger::LevelName(int level) {
  switch (level) {
    case kTrace: return "TRACE";
    case kDebug: return "DEBUG";
    case kInfo: return "INFO";
    case kError: return "ERROR";
    default: return level < kTrace ? "TRACE" : "ERROR";
  }
}

bool Logger::Open(const std::string& path, std::string* error) {
  Close();
  m_strPath = path;
  m_bJournal = path.empty() && StandardErrorIsJournal();
  if (path.empty()) return true;
  int fd = OpenLogFile(path);
  if (fd < 0) {
    *error = "cannot open log file " + path + ": " + std::strerror(errno);
    return false;
  }
  m_iFd = fd;
  m_bOwnsFd = true;
  return true;
}

bool Logger::Reopen(std::string* error) {
  if (!m_bOwnsFd) return true;
  int fd = OpenLogFile(m_strPath);
  if (fd < 0) {
    *error = "cannot reopen log file " + m_strPath + ": " + std::strerror(errno);
    return false;
  }
  // dup3 keeps the descriptor number and its close-on-exec flag.
  int rc = dup3(fd, m_iFd, O_CLOEXEC);
  int saved = errno;
  close(fd);
  if (rc < 0) {
    *error = "cannot reopen log file " + m_strPath + ": " + std::strerror(saved);
    return false;
  }
  return true;
}

void Logger::Close() {
  if (m_bOwnsFd) {
    fsync(m_iFd);
    close(m_iFd);
  }
  m_iFd = 2;
  m_bOwnsFd = false;
  m_bJournal = false;
}

void Logger::Log(int level, const char* format, ...) {
  va_list args;
  va_start(args, format);
  VLog(level, format, args);
  va_end(args);
}

void Logger::VLog(int level, const char* format, va_list args) {
  if (!Enabled(level) || format == nullptr) return;
  char stack[kStackLine];
  size_t prefix = FormatPrefix(level, m_bJournal, stack, sizeof stack);
  va_list copy;
  va_copy(copy, args);
  int n = std::vsnprintf(stack + prefix, sizeof stack - prefix, format, copy);
  va_end(copy);
  if (n < 0) return;
  size_t textLength = static_cast<size_t>(n);
  if (prefix + textLength + 1 < sizeof stack) {
    size_t length = prefix + textLength;
    if (textLength == 0 || stack[length - 1] != '\n') stack[length++] = '\n';
    WriteAll(stack, length);
    return;
  }
  // A long line (a message dump): format it again into a buffer of its size.
  std::vector<char> heap(prefix + textLength + 2);
  std::memcpy(heap.data(), stack, prefix);
  std::vsnprintf(heap.data() + prefix, textLength + 1, format, args);
  size_t length = prefix + textLength;
  if (heap[length - 1] != '\n') heap[length++] = '\n';
  WriteAll(heap.data(), length);
}

void Logger::Write(int level, const std::string& text) {
  if (!Enabled(level)) return;
  char prefix[64];
  size_t prefixLength = FormatPrefix(level, m_bJournal, prefix, sizeof prefix);
  std::string line(prefix, prefixLength);
  line += text;
  if (text.empty() || text.back() != '\n') line += '\n';
  WriteAll(line.data(), line.size());
}

void Logger::WriteAll(const char* data, size_t size) {
  while (size > 0) {
    ssize_t n = write(m_iFd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;  // nowhere left to report a failing log
    data += n;
    size -= static_cast<size_t>(n);
  }
}

}  // namespace zelvar_host
