// Small text helpers of the host framework.
#ifndef ZELVAR_STRING_UTIL_H
#define ZELVAR_STRING_UTIL_H

#include <charconv>
#include <limits>
#include <string>
#include <string_view>
#include <system_error>
#include <type_traits>
#include <vector>

namespace zelvar {

// Appends to `out` the pieces of `text` between occurrences of `separator`.
// Empty pieces are left out, so an empty text (or one made of separators only)
// gives nothing: a list of words never holds an empty word. An empty separator
// gives the whole text as one piece. Returns the number of pieces appended.
size_t Split(const std::string& text, const std::string& separator, std::vector<std::string>* out);

// printf into a std::string, of any length.
std::string FormatString(const char* format, ...) __attribute__((format(printf, 1, 2)));

enum class IntegerParse { kOk, kNotAnInteger, kOutOfRange };

// Reads `text` as one whole decimal integer in [low, high]: digits, with one
// leading '-' only for a signed type, and nothing else (no blank, no '+', no
// base prefix), so that a slip in a setting is refused instead of read as a
// different number. `*value` is set only on kOk.
template <typename Integer>
IntegerParse ParseInteger(std::string_view text, Integer* value,
                          std::common_type_t<Integer> low = std::numeric_limits<Integer>::min(),
                          std::common_type_t<Integer> high = std::numeric_limits<Integer>::max()) {
  Integer parsed{};
  const char* end = text.data() + text.size();
  const std::from_chars_result read = std::from_chars(text.data(), end, parsed, 10);
  if (read.ec == std::errc::invalid_argument || read.ptr != end) return IntegerParse::kNotAnInteger;
  if (read.ec == std::errc::result_out_of_range || parsed < low || parsed > high) return IntegerParse::kOutOfRange;
  *value = parsed;
  return IntegerParse::kOk;
}

}  // namespace zelvar

#endif  // ZELVAR_STRING_UTIL_H
