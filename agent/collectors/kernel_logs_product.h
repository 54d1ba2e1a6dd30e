// KernelLogsProduct (collector type 2): the kernel log lines that appeared
// since the previous run, as one text block:
//
//   <time, UTC hour + 8>\n<node>\n<release>\n<version>\n<machine>\n<lines...>
//
// A line passes when its "<N>" priority is at most the configured level (a
// line without the prefix passes unless the level is negative) and it holds
// none of the ignore words (the target split at "|"); "" when no line passed.
//
// The resume point is the last line that passed the level filter, ignored or
// not, kept in a process-wide search buffer: the next run reads the whole ring
// buffer again and resumes after the last occurrence of that line (or from the
// start when the ring buffer wrapped past it). The first run after start-up
// therefore reports what the ring buffer already holds.
//
// The ring buffer, the resume line, the time text and the identity block live
// in class-wide buffers; a product owns only its report buffer. Event-loop
// thread only.
#ifndef OVITA2_AGENT_COLLECTORS_KERNEL_LOGS_PRODUCT_H
#define OVITA2_AGENT_COLLECTORS_KERNEL_LOGS_PRODUCT_H

#include <sys/types.h>

#include <cstddef>
#include <ctime>
#include <string>
#include <vector>

#include "collectors/data_collection.h"

class KernelLogsProduct : public DataCollectionProduct {
 public:
  static constexpr int kLogBufferSize = 262144;
  static constexpr size_t kSearchBufferSize = 5120;
  static constexpr size_t kTimeBufferSize = 64;
  static constexpr size_t kIdentityBufferSize = 256;

  // Where the ring buffer text comes from: fills at most `length` bytes of
  // `buffer`, returns the count (<= 0: nothing). klogctl(3, ...) by default;
  // tests feed their own text (containers refuse klogctl).
  using RingBufferReader = int (*)(char* buffer, int length);
  static RingBufferReader s_pfnReadRingBuffer;
  static int ReadKernelRingBuffer(char* buffer, int length);
  // The clock of the time line; time() by default.
  static time_t (*s_pfnNow)(time_t*);

  KernelLogsProduct();
  ~KernelLogsProduct() override;
  KernelLogsProduct(const KernelLogsProduct&) = delete;
  KernelLogsProduct& operator=(const KernelLogsProduct&) = delete;

  std::string operation() override;
  void setAttribute(const zelvar::ovita2::ConfObject* conf) override;

  // The ring buffer text after the resume line; null when nothing was read.
  char* get_inc_kmsg();
  // Copies the lines of `text` that pass into `out` (kLogBufferSize bytes)
  // and moves the resume line on; returns the length copied.
  int filter_level(char* text, char* out);
  // True for an empty line or one holding an ignore word (it is dropped).
  bool filter_keyword(char* line);
  int get_kmsg(char* out);
  // Writes the current time into the time slot of `report`.
  void report_kmsg(char* report);
  void get_uname();
  // The time text with 8 added to the UTC hour alone, never to the date: from
  // 16:00 UTC the hour reads 24 to 31. Readers of the block rely on it.
  void get_time();

  // The first `c` in `text`, or its terminating NUL.
  static char* d_strchrnul(char* text, int c);
  // The last of the non-overlapping occurrences of `needle`, found from the start.
  static char* d_strstr(char* text, const char* needle);
  // Copies `src` up to and including its first line feed or NUL; returns
  // where the copy ends in `dst` (past the line feed, or at the NUL).
  static char* appending_strcpy(char* dst, const char* src);

  // Back to a process that never read the ring buffer (tests).
  static void ResetSharedState();

 private:
  int m_iLevel = 0;
  std::vector<std::string> m_vecIgnoreWords;
  char* m_pLines = nullptr;
  char* m_pReport = nullptr;

  // + 1: a ring buffer read that fills the buffer still ends in a NUL.
  static char s_szLogBuffer[kLogBufferSize + 1];
  static char s_szSearchBuffer[kSearchBufferSize];
  static char s_szTime[kTimeBufferSize];
  static size_t s_uTimeLength;
  static char s_szIdentity[kIdentityBufferSize];
  static size_t s_uIdentityLength;
};

#endif  // OVITA2_AGENT_COLLECTORS_KERNEL_LOGS_PRODUCT_H
