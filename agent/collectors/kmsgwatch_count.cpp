#include "collectors/kmsgwatch_count.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace kmsgwatch {
namespace {

constexpr size_t kPieceLength = 1023;  // a 1024-byte line buffer holds 1023 bytes and the NUL
constexpr size_t kBlockSize = 256 * 1024;
constexpr int kPositionTextLength = 80;

void replace_all(std::string& text, char from, char to) { std::replace(text.begin(), text.end(), from, to); }

// The saved offset (0 for a new, empty file); false when the file cannot be
// opened or created.
bool LoadPos(const std::string& name, long* offset) {
  FILE* file = std::fopen(name.c_str(), "a+");
  if (file == nullptr) return false;
  char text[kPositionTextLength + 1] = "";
  if (std::fgets(text, sizeof text, file) == nullptr) text[0] = '\0';
  std::fclose(file);
  *offset = std::strtol(text, nullptr, 10);
  return true;
}

int save_pos(const std::string& name, long offset) {
  FILE* file = std::fopen(name.c_str(), "w+");
  if (file == nullptr) return -1;
  std::fprintf(file, "%ld", offset);
  std::fclose(file);
  return 0;
}

// Where the complete pieces of `data` end, `data` starting at a piece
// boundary: after the last line feed, then in whole pieces. What follows is
// shorter than a piece and waits for more bytes.
size_t CompletePieces(const char* data, size_t length) {
  const char* lastLineFeed = static_cast<const char*>(memrchr(data, '\n', length));
  size_t lineStart = lastLineFeed != nullptr ? lastLineFeed + 1 - data : 0;
  return lineStart + (length - lineStart) / kPieceLength * kPieceLength;
}

// The pieces of [begin, end) that hold `keyword`, both ends being piece
// boundaries. Each hit is placed in its piece, counted when it ends inside
// the piece and before any NUL (a C-string search stops there), and the
// search goes on after that piece: any later hit in it would count the same
// piece again, or straddle its end as well.
long CountPieces(const char* begin, const char* end, const std::string& keyword) {
  long count = 0;
  const char* from = begin;  // also a piece boundary
  while (from < end) {
    const char* hit = static_cast<const char*>(memmem(from, end - from, keyword.data(), keyword.size()));
    if (hit == nullptr || hit >= end) break;
    const char* lineFeed = static_cast<const char*>(memrchr(from, '\n', hit - from));
    const char* lineStart = lineFeed != nullptr ? lineFeed + 1 : from;
    const char* pieceStart = lineStart + (hit - lineStart) / kPieceLength * kPieceLength;
    size_t span = std::min<size_t>(kPieceLength, end - pieceStart);
    const char* pieceLineFeed = static_cast<const char*>(std::memchr(pieceStart, '\n', span));
    const char* pieceEnd = pieceLineFeed != nullptr ? pieceLineFeed + 1 : pieceStart + span;
    const char* hitEnd = hit + keyword.size();
    if (hitEnd <= pieceEnd && std::memchr(pieceStart, '\0', hitEnd - pieceStart) == nullptr) ++count;
    from = pieceEnd;
  }
  return count;
}

// Counts from the current offset of `fd` to its end; false on a read error.
bool CountToEnd(int fd, const std::string& keyword, long* count) {
  std::vector<char> buffer(kBlockSize + kPieceLength);
  size_t held = 0;  // the start of an unfinished piece, carried over
  for (;;) {
    ssize_t got = read(fd, buffer.data() + held, kBlockSize);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return false;
    size_t length = held + static_cast<size_t>(got);
    size_t complete = got == 0 ? length : CompletePieces(buffer.data(), length);
    *count += CountPieces(buffer.data(), buffer.data() + complete, keyword);
    if (got == 0) return true;
    held = length - complete;
    std::memmove(buffer.data(), buffer.data() + complete, held);
  }
}

}  // namespace

std::string PositionFileName(const char* keyword, const char* target) {
  std::string name = std::string(keyword) + target + "_pos.txt";
  replace_all(name, '/', '-');
  return name;
}

int Watch(const std::string& positionFile, const char* keyword, const char* target, std::FILE* out) {
  long saved = 0;
  if (!LoadPos(positionFile, &saved)) return 1;
  int fd = open(target, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 1;
  struct stat info {};
  fstat(fd, &info);
  long start = std::max(0L, std::min(static_cast<long>(info.st_size), saved));
  lseek(fd, start, SEEK_SET);
  posix_fadvise(fd, start, 0, POSIX_FADV_SEQUENTIAL);
  long count = 0;
  bool readAll = CountToEnd(fd, keyword, &count);
  long offset = lseek(fd, 0, SEEK_CUR);
  close(fd);
  if (!readAll) return 1;
  std::fprintf(out, "%ld\n", count);
  return save_pos(positionFile, offset) == 0 ? 0 : 1;
}

}  // namespace kmsgwatch
