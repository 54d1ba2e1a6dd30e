// kmsgwatch's counting from a kept position: the input's first line is the
// position file, the rest the file it watches for "error".
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "collectors/kmsgwatch_count.h"
#include "local_system.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const ovita2::testing::TempDir dir;  // removed at exit
  static std::FILE* counts = std::fopen("/dev/null", "w");
  const std::string input(reinterpret_cast<const char*>(data), size);
  const size_t lineEnd = std::min(input.find('\n'), input.size());
  const std::string position = dir.Write("position", input.substr(0, lineEnd));
  const std::string log = dir.Write("log", input.substr(std::min(lineEnd + 1, input.size())));
  kmsgwatch::Watch(position, "error", log.c_str(), counts);
  return 0;
}
