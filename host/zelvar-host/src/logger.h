// Logger: the host's log, shared by the host and (through the Log slot) every
// plug-in.
//
// A line is "YYYY-MM-DDTHH:MM:SS.mmm+HH:MM LEVEL text" (ISO 8601, local time
// with its UTC offset), where LEVEL is
// TRACE (1), DEBUG (2), INFO (3) or ERROR (4); a line is written when its level
// is at least the threshold. Each line reaches the file in one write(2), so
// lines of concurrent writers (the host and a dprintf on GetLogFd) never
// interleave mid-line. A newline is appended when the text has none.
//
// The Logger owns its file descriptor (standard error is borrowed, not closed).
// Reopen() swaps the file underneath the same descriptor number, so a plug-in
// that kept GetLogFd's value keeps writing to the new file after a rotation.
// Event-loop thread only.
#ifndef ZELVAR_HOST_LOGGER_H
#define ZELVAR_HOST_LOGGER_H

#include <cstdarg>
#include <string>

namespace zelvar_host {

class Logger {
 public:
  static constexpr int kTrace = 1;
  static constexpr int kDebug = 2;
  static constexpr int kInfo = 3;
  static constexpr int kError = 4;

  Logger() = default;
  ~Logger();
  Logger(const Logger&) = delete;
  Logger& operator=(const Logger&) = delete;

  // Logs to `path` (appending), or to standard error when it is empty. Lines
  // begin with the local time (ISO 8601, with the UTC offset) and the level;
  // on a standard error that systemd connected to the journal they begin with
  // the journal's "<priority>" instead, since the journal stamps them itself.
  bool Open(const std::string& path, std::string* error);
  // Opens the file again under the same descriptor (after log rotation).
  bool Reopen(std::string* error);
  void Close();

  void SetThreshold(int level) { m_iThreshold = level; }
  int Threshold() const { return m_iThreshold; }
  int Fd() const { return m_iFd; }
  bool Enabled(int level) const { return level >= m_iThreshold; }

  void Log(int level, const char* format, ...) __attribute__((format(printf, 3, 4)));
  void VLog(int level, const char* format, va_list args);
  // Writes `text` as one line at `level`, without formatting.
  void Write(int level, const std::string& text);

  static const char* LevelName(int level);

 private:
  void WriteAll(const char* data, size_t size);

  std::string m_strPath;
  int m_iFd = 2;
  bool m_bOwnsFd = false;
  bool m_bJournal = false;
  int m_iThreshold = kInfo;
};

}  // namespace zelvar_host

#endif  // ZELVAR_HOST_LOGGER_H
