// KernelLogsProduct: new kernel log lines since the previous run.
#include "collectors/kernel_logs_product.h"

#include <sys/klog.h>
#include <sys/utsname.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "framework/host_api.h"
#include "zelvar/string_util.h"

namespace {
constexpr int kSyslogActionReadAll = 3;
constexpr int kHourOffset = 8;
}  // namespace

char KernelLogsProduct::s_szLogBuffer[kLogBufferSize + 1];
char KernelLogsProduct::s_szSearchBuffer[kSearchBufferSize];
char KernelLogsProduct::s_szTime[kTimeBufferSize];
size_t KernelLogsProduct::s_uTimeLength = 0;
char KernelLogsProduct::s_szIdentity[kIdentityBufferSize];
size_t KernelLogsProduct::s_uIdentityLength = 0;
KernelLogsProduct::RingBufferReader KernelLogsProduct::s_pfnReadRingBuffer = &KernelLogsProduct::ReadKernelRingBuffer;
time_t (*KernelLogsProduct::s_pfnNow)(time_t*) = &time;

int KernelLogsProduct::ReadKernelRingBuffer(char* buffer, int length) {
  return klogctl(kSyslogActionReadAll, buffer, length);
}

void KernelLogsProduct::ResetSharedState() {
  s_szSearchBuffer[0] = '\0';
  s_uTimeLength = 0;
  s_uIdentityLength = 0;
  s_pfnReadRingBuffer = &ReadKernelRingBuffer;
  s_pfnNow = &time;
}

// The time slot stays zeroed until a report is made, so an unused report
// buffer reads as "".
KernelLogsProduct::KernelLogsProduct() {
  get_uname();
  get_time();
  m_pReport = static_cast<char*>(std::calloc(1, s_uTimeLength + s_uIdentityLength + kLogBufferSize + 1));
  if (m_pReport == nullptr) {
    ovita2::HostLog(4, "malloc report msg error!!");
    return;
  }
  std::memcpy(m_pReport + s_uTimeLength, s_szIdentity, s_uIdentityLength);
  m_pLines = m_pReport + s_uTimeLength + s_uIdentityLength;
}

KernelLogsProduct::~KernelLogsProduct() { std::free(m_pReport); }

// The host's Split leaves empty pieces out, so an empty target (or stray
// "|") gives no ignore word: an empty word would be found in every line and
// silence the collector.
void KernelLogsProduct::setAttribute(const zelvar::ovita2::ConfObject* conf) {
  m_vecIgnoreWords.clear();
  zelvar::Split(conf->target(), "|", &m_vecIgnoreWords);
  unsigned long long parameter = 0;
  std::sscanf(conf->parameter().c_str(), "%llu", &parameter);
  m_iLevel = static_cast<int>(parameter);  // "-1" wraps to a negative level
}

std::string KernelLogsProduct::operation() {
  if (m_pReport == nullptr) return "";
  if (get_kmsg(m_pLines) != 0) {
    report_kmsg(m_pReport);
    ovita2::HostLog(1, "KernelLogsProduct::operation report_msg: %s;", m_pReport);
  }
  return m_pReport;
}

int KernelLogsProduct::get_kmsg(char* out) {
  char* text = get_inc_kmsg();
  return text != nullptr ? filter_level(text, out) : 0;
}

// A failed read (negative) is not told apart from an empty ring buffer: the
// buffer stays zeroed and the text is "".
char* KernelLogsProduct::get_inc_kmsg() {
  std::memset(s_szLogBuffer, 0, kLogBufferSize);
  if (s_pfnReadRingBuffer(s_szLogBuffer, kLogBufferSize) == 0) return nullptr;
  if (s_szSearchBuffer[0] == '\0') return s_szLogBuffer;
  char* resume = d_strstr(s_szLogBuffer, s_szSearchBuffer);
  return resume != nullptr ? resume + std::strlen(s_szSearchBuffer) : s_szLogBuffer;
}

int KernelLogsProduct::filter_level(char* text, char* out) {
  std::memset(out, 0, kLogBufferSize);
  char* outEnd = out;
  char* line = text;
  for (;;) {
    char* lineFeed = d_strchrnul(line, '\n');
    if (*lineFeed == '\0') {
      // A line the kernel had not finished joins the resume line, so the next
      // run finds it whole only if it was not completed meanwhile.
      outEnd = appending_strcpy(outEnd, line);
      size_t held = std::strlen(s_szSearchBuffer);
      size_t room = kSearchBufferSize - 1 - held;
      size_t tail = std::min<size_t>(lineFeed - line, room);
      std::memcpy(s_szSearchBuffer + held, line, tail);
      s_szSearchBuffer[held + tail] = '\0';
      break;
    }
    bool hasPriority = line[0] == '<' && line[1] != '\0';
    bool passes = hasPriority ? line[1] - '0' <= m_iLevel : m_iLevel >= 0;
    if (passes) {
      // The resume point moves on even when an ignore word drops the line.
      size_t length = std::min<size_t>(lineFeed + 1 - line, kSearchBufferSize - 1);
      std::memcpy(s_szSearchBuffer, line, length);
      s_szSearchBuffer[length] = '\0';
      char after = lineFeed[1];
      lineFeed[1] = '\0';  // the words are looked for in this line alone
      if (!filter_keyword(line)) outEnd = appending_strcpy(outEnd, line);
      lineFeed[1] = after;
    }
    line = lineFeed + 1;
  }
  return static_cast<int>(outEnd - out);
}

bool KernelLogsProduct::filter_keyword(char* line) {
  if (line[0] == '\0') return true;
  for (const std::string& word : m_vecIgnoreWords) {
    if (std::strstr(line, word.c_str()) != nullptr) return true;
  }
  return false;
}

void KernelLogsProduct::report_kmsg(char* report) {
  get_time();
  std::memcpy(report, s_szTime, s_uTimeLength);  // no NUL: the slot runs into the identity block
}

void KernelLogsProduct::get_uname() {
  struct utsname names {};
  if (uname(&names) != 0) std::perror("uname error\r\n");
  // A block longer than the buffer is cut short, as the buffer's users expect.
  if (std::snprintf(s_szIdentity, sizeof s_szIdentity, "%s\n%s\n%s\n%s\n", names.nodename, names.release,
                    names.version, names.machine) < 0) {
    s_szIdentity[0] = '\0';
  }
  if (s_uIdentityLength == 0) s_uIdentityLength = std::strlen(s_szIdentity);
}

void KernelLogsProduct::get_time() {
  time_t now = s_pfnNow(nullptr);
  struct tm parts {};
  gmtime_r(&now, &parts);
  std::snprintf(s_szTime, sizeof s_szTime, "%d-%02d-%02d %02d:%02d:%02d\n", parts.tm_year + 1900, parts.tm_mon + 1,
                parts.tm_mday, parts.tm_hour + kHourOffset, parts.tm_min, parts.tm_sec);
  if (s_uTimeLength == 0) s_uTimeLength = std::strlen(s_szTime);
}

char* KernelLogsProduct::d_strchrnul(char* text, int c) { return strchrnul(text, c); }

char* KernelLogsProduct::d_strstr(char* text, const char* needle) {
  size_t length = std::strlen(needle);
  if (length == 0) return text;
  char* last = nullptr;
  for (char* found = std::strstr(text, needle); found != nullptr; found = std::strstr(found + length, needle)) {
    last = found;
  }
  return last;
}

char* KernelLogsProduct::appending_strcpy(char* dst, const char* src) {
  while (*src != '\0') {
    *dst++ = *src;
    if (*src++ == '\n') break;
  }
  return dst;
}
