// kmsgwatch KEYWORD FILE: the command line of kmsgwatch_count.h, with the
// position file in the current directory.
//
// A plain program: it shares no code with the agent library.
#include <cstdio>

#include "collectors/kmsgwatch_count.h"

int main(int argc, char** argv) {
  if (argc != 3) {
    std::puts("Usage: ./kmsgwatch keyword targetfile ");
    return 1;
  }
  return kmsgwatch::Watch(kmsgwatch::PositionFileName(argv[1], argv[2]), argv[1], argv[2], stdout);
}
