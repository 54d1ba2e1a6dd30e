// HostSettings: the host's own part of the configuration file, read and
// checked once at start-up (plug-in sections are left to the plug-ins).
//
//   [host]        log_file (empty: standard error; relative to the
//                 configuration file's folder), log_level 1..4 (default 3),
//                 machine_timeout seconds (default 60)
//   [long_action] time_limit seconds (default 60, 0 none), output_limit bytes
//                 (default 1 MiB), max_children (default 1024)
//   [network]     listen-ip, listen-port (0 or absent: no listening socket),
//                 input_limit bytes per connection (default 16 MiB),
//                 total_input_limit bytes for all connections (default 64 MiB),
//                 idle_timeout seconds (default 60, 0 none)
//   [plugins]     name = path of a shared library, loaded in file order; a
//                 relative path is relative to the configuration file's folder
//
// A plain value type; any thread.
#ifndef ZELVAR_HOST_HOST_SETTINGS_H
#define ZELVAR_HOST_HOST_SETTINGS_H

#include <string>
#include <utility>
#include <vector>

#include "connection_manager.h"
#include "long_action_executor.h"
#include "zelvar/host_interface.h"

namespace zelvar_host {

class Config;

struct HostSettings {
  std::string log_file;
  int log_level = 3;
  unsigned machine_timeout_sec = 60;
  LongActionLimits long_action;
  std::string listen_ip;
  int listen_port = 0;
  ConnectionLimits connection_limits;
  std::vector<std::pair<std::string, std::string>> plugins;  // name, resolved path

  // Every key above, for the configuration check; null-terminated.
  static const zelvar::ConfigKeyDeclaration kConfigKeys[];

  // False with one line naming the section, key and what is expected.
  static bool FromConfig(const Config& config, HostSettings* settings, std::string* error);
};

}  // namespace zelvar_host

#endif  // ZELVAR_HOST_HOST_SETTINGS_H
