// kmsgwatch over a position file and a watched file of any content: the
// input's first line is the position file, the rest the watched file.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "local_system.h"

int kmsgwatch_main(int argc, char** argv);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static ovita2::testing::TempDir* dir = new ovita2::testing::TempDir();
  static bool quiet = (chdir(dir->Path().c_str()) == 0 && std::freopen("/dev/null", "w", stdout) != nullptr);
  (void)quiet;
  const std::string input(reinterpret_cast<const char*>(data), size);
  const size_t lineEnd = std::min(input.find('\n'), input.size());
  dir->Write("errorlog_pos.txt", input.substr(0, lineEnd));
  dir->Write("log", input.substr(std::min(lineEnd + 1, input.size())));
  char program[] = "kmsgwatch", keyword[] = "error", target[] = "log";
  char* argv[] = {program, keyword, target, nullptr};
  kmsgwatch_main(3, argv);
  return 0;
}
