#include "host_settings.h"

#include <climits>

#include "config.h"
#include "zelvar/string_util.h"

namespace zelvar_host {
namespace {

// Reads an integer key that must lie in [low, high]; absent keeps `*value`.
bool ReadRange(const Config& config, const char* section, const char* key,
               long long low, long long high, long long* value, std::string* error) {
  if (!config.Has(section, key)) return true;
  std::string text = config.GetString(section, key, nullptr);
  if (zelvar::ParseInteger(text, value, low, high) != zelvar::IntegerParse::kOk) {
    *error = config.Path() + ": [" + section + "] " + key + " = \"" + Config::Clip(text) +
             "\" must be a whole number from " + std::to_string(low) + " to " + std::to_string(high);
    return false;
  }
  return true;
}

}  // namespace

const zelvar::ConfigKeyDeclaration HostSettings::kConfigKeys[] = {
    {"host", "log_file", false},          {"host", "log_level", false},
    {"host", "machine_timeout", false},   {"long_action", "time_limit", false},
    {"long_action", "output_limit", false}, {"long_action", "max_children", false},
    {"network", "listen-ip", false},      {"network", "listen-port", false},
    {"network", "input_limit", false},    {"network", "total_input_limit", false},
    {"network", "idle_timeout", false},   {"plugins", nullptr, false},
    {nullptr, nullptr, false},
};

bool HostSettings::FromConfig(const Config& config, HostSettings* settings, std::string* error) {
  HostSettings s;
  std::string directory = config.Directory();
  s.log_file = config.GetString("host", "log_file", "");
  if (!s.log_file.empty() && s.log_file[0] != '/') s.log_file = directory + "/" + s.log_file;
  long long level = s.log_level;
  long long machineTimeout = s.machine_timeout_sec;
  long long timeLimit = s.long_action.time_limit_sec;
  long long outputLimit = static_cast<long long>(s.long_action.output_limit);
  long long maxChildren = static_cast<long long>(s.long_action.max_children);
  long long port = 0;
  long long inputLimit = static_cast<long long>(s.connection_limits.input_limit);
  long long totalInputLimit = static_cast<long long>(s.connection_limits.total_input_limit);
  long long idleTimeout = s.connection_limits.idle_timeout_sec;
  if (!ReadRange(config, "host", "log_level", 1, 4, &level, error) ||
      !ReadRange(config, "host", "machine_timeout", 0, INT_MAX, &machineTimeout, error) ||
      !ReadRange(config, "long_action", "time_limit", 0, INT_MAX, &timeLimit, error) ||
      !ReadRange(config, "long_action", "output_limit", 1, LLONG_MAX / 2, &outputLimit, error) ||
      !ReadRange(config, "long_action", "max_children", 1, 1 << 20, &maxChildren, error) ||
      !ReadRange(config, "network", "listen-port", 0, 65535, &port, error) ||
      !ReadRange(config, "network", "input_limit", 1, LLONG_MAX / 2, &inputLimit, error) ||
      !ReadRange(config, "network", "total_input_limit", 1, LLONG_MAX / 2, &totalInputLimit, error) ||
      !ReadRange(config, "network", "idle_timeout", 0, INT_MAX, &idleTimeout, error)) {
    return false;
  }
  s.log_level = static_cast<int>(level);
  s.machine_timeout_sec = static_cast<unsigned>(machineTimeout);
  s.long_action.time_limit_sec = static_cast<unsigned>(timeLimit);
  s.long_action.output_limit = static_cast<size_t>(outputLimit);
  s.long_action.max_children = static_cast<size_t>(maxChildren);
  s.listen_ip = config.GetString("network", "listen-ip", "");
  s.listen_port = static_cast<int>(port);
  s.connection_limits.input_limit = static_cast<size_t>(inputLimit);
  s.connection_limits.total_input_limit = static_cast<size_t>(totalInputLimit);
  s.connection_limits.idle_timeout_sec = static_cast<unsigned>(idleTimeout);

  for (const auto& entry : config.Section("plugins")) {
    if (entry.second.empty()) {
      *error = config.Path() + ": [plugins] " + entry.first + " has no library path";
      return false;
    }
    std::string path = entry.second;
    if (path[0] != '/') path = directory + "/" + path;
    s.plugins.emplace_back(entry.first, path);
  }
  if (s.plugins.empty()) {
    *error = config.Path() + ": [plugins] names no plug-in, so the host would have nothing to run";
    return false;
  }
  *settings = std::move(s);
  return true;
}

}  // namespace zelvar_host
