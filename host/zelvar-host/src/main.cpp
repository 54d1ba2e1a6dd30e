// zelvar-host: loads the configured plug-ins and runs them on one event loop
// until SIGTERM or SIGINT; or, with --check-config, checks a configuration
// file and exits without starting anything.
#include <getopt.h>

#include <cstdio>
#include <string>

#include "config_check.h"
#include "host.h"

namespace {

constexpr const char* kUsage =
    "Usage: zelvar-host -c FILE\n"
    "   or: zelvar-host --check-config FILE\n"
    "  -c, --config FILE  the configuration file (INI)\n"
    "  --check-config FILE\n"
    "                     load the plug-ins FILE names without starting them, report\n"
    "                     keys no component reads and missing required keys; exit\n"
    "                     0 when there is nothing to report, 1 otherwise\n"
    "  -h, --help         print this help and exit\n"
    "  -V, --version      print the version and exit\n";

}  // namespace

int main(int argc, char** argv) {
  static const option kOptions[] = {{"config", required_argument, nullptr, 'c'},
                                    {"help", no_argument, nullptr, 'h'},
                                    {"version", no_argument, nullptr, 'V'},
                                    {"check-config", required_argument, nullptr, 'C'},
                                    {nullptr, 0, nullptr, 0}};
  std::string configPath, checkPath;
  int option;
  while ((option = getopt_long(argc, argv, "c:hV", kOptions, nullptr)) != -1) {
    switch (option) {
      case 'c': configPath = optarg; break;
      case 'C': checkPath = optarg; break;
      case 'h': std::fputs(kUsage, stdout); return 0;
      case 'V': std::printf("zelvar-host %s\n", ZELVAR_HOST_VERSION); return 0;
      default: std::fputs(kUsage, stderr); return 2;
    }
  }
  if (!checkPath.empty() && configPath.empty() && optind == argc) {
    return zelvar_host::CheckConfigFile(checkPath, stdout);
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
