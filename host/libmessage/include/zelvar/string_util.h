// Small text helpers of the host framework.
#ifndef ZELVAR_STRING_UTIL_H
#define ZELVAR_STRING_UTIL_H

#include <string>
#include <vector>

namespace zelvar {

// Appends to `out` the pieces of `text` between occurrences of `separator`.
// Empty pieces are left out, so an empty text (or one made of separators only)
// gives nothing: a list of words never holds an empty word. An empty separator
// gives the whole text as one piece. Returns the number of pieces appended.
size_t Split(const std::string& text, const std::string& separator, std::vector<std::string>* out);

// printf into a std::string, of any length.
std::string FormatString(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace zelvar

#endif  // ZELVAR_STRING_UTIL_H
