// zelvar-host: loads the configured plug-ins and runs them on one event loop
// until SIGTERM or SIGINT.
#include <getopt.h>

#include <cstdio>
#include <string>

#include "host.h"

namespace {

constexpr const char* kUsage =
    "usage: zelvar-host -c FILE\n"
    "  -c, --config FILE  the configuration file (INI)\n"
    "  -h, --help         print this help and exit\n"
    "  -V, --version      print the version and exit\n";

}  // namespace

int main(int argc, char** argv) {
  static const option kOptions[] = {{"config", required_argument, nullptr, 'c'},
                                    {"help", no_argument, nullptr, 'h'},
                                    {"version", no_argument, nullptr, 'V'},
                                    {nullptr, 0, nullptr, 0}};
  std::string configPath;
  int option;
  while ((option = getopt_long(argc, argv, "c:hV", kOptions, nullptr)) != -1) {
    switch (option) {
      case 'c': configPath = optarg; break;
      case 'h': std::fputs(kUsage, stdout); return 0;
      case 'V': std::printf("zelvar-host %s\n", ZELVAR_HOST_VERSION); return 0;
      default: std::fputs(kUsage, stderr); return 2;
    }
  }
  if (configPath.empty() || optind != argc) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  zelvar_host::Host host;
  std::string error;
  if (!host.Init(configPath, &error)) {
    std::fprintf(stderr, "zelvar-host: %s\n", error.c_str());
    return 1;
  }
  return host.Run();
}
