#include "zelvar/string_util.h"

#include <cstdarg>
#include <cstdio>

namespace zelvar {

size_t Split(const std::string& text, const std::string& separator, std::vector<std::string>* out) {
  size_t before = out->size();
  if (separator.empty()) {
    if (!text.empty()) out->push_back(text);
    return out->size() - before;
  }
  size_t start = 0;
  while (start <= text.size()) {
    size_t end = text.find(separator, start);
    if (end == std::string::npos) end = text.size();
    if (end > start) out->emplace_back(text, start, end - start);
    start = end + separator.size();
  }
  return out->size() - before;
}

std::string FormatString(const char* format, ...) {
  va_list args;
  va_start(args, format);
  va_list again;
  va_copy(again, args);
  char small[256];
  int length = std::vsnprintf(small, sizeof small, format, args);
  va_end(args);
  std::string text;
  if (length < 0) {
    va_end(again);
    return text;
  }
  if (static_cast<size_t>(length) < sizeof small) {
    text.assign(small, static_cast<size_t>(length));
  } else {
    text.resize(static_cast<size_t>(length));
    std::vsnprintf(&text[0], text.size() + 1, format, again);
  }
  va_end(again);
  return text;
}

}  // namespace zelvar
