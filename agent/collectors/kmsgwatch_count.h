// kmsgwatch's counting, apart from its command line (kmsgwatch.cpp): how many
// new lines of a file hold a keyword since the previous count for the same
// keyword and file, as a bare number a shell job can hand on as a numeric sample.
//
// The read position is kept in a position file (kmsgwatch's is in the current
// directory, named by PositionFileName). A file that is now shorter than the
// kept position (truncated or rotated) is read from its new end: what it holds
// now is skipped, not counted twice.
//
// Lines are counted the way a reader with a 1024-byte line buffer sees them: a
// line longer than 1023 bytes comes in 1023-byte pieces, each counting as a
// line, and a keyword cut by a piece boundary is not found. Byte-for-byte the
// same counts, but the file is read in large blocks: a line at a time would be
// several times slower on big logs.
#ifndef OVITA2_AGENT_COLLECTORS_KMSGWATCH_COUNT_H
#define OVITA2_AGENT_COLLECTORS_KMSGWATCH_COUNT_H

#include <cstdio>
#include <string>

namespace kmsgwatch {

// The keyword, then the target path, then "_pos.txt", each "/" as "-".
std::string PositionFileName(const char* keyword, const char* target);

// Counts the new lines of `target` holding `keyword` from the offset kept in
// `positionFile`, prints the count on `out` and keeps the new offset; 0, or 1
// on any failure (the count is printed before the offset is kept).
int Watch(const std::string& positionFile, const char* keyword, const char* target, std::FILE* out);

}  // namespace kmsgwatch

#endif  // OVITA2_AGENT_COLLECTORS_KMSGWATCH_COUNT_H
