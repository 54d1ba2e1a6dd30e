#include "plugin/plugin_settings.h"

#include <arpa/inet.h>
#include <event2/util.h>
#include <netinet/in.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>

#include "zelvar/string_util.h"

namespace controlplane {
namespace {

constexpr const char* kSection = "controlplane";
constexpr const char* kDefaultMasterPath = "/ovita2/names/MASTER";
constexpr const char* kDefaultAccessPath = "/ovita2/names/TELLAR2_ACCESS";
// Where Debian's libjs-chart.js puts its single-file build.
constexpr const char* kDefaultChartJs = "/usr/share/javascript/chart.js/chart.min.js";

}  // namespace

// The control plane does not start without a jobs file, a database and a port.
const zelvar::ConfigKeyDeclaration kPluginConfigKeys[] = {
    {kSection, "name", false},       {kSection, "advertise_ip", false}, {kSection, "jobs_file", true},
    {kSection, "database", true},   {kSection, "keep_days", false},    {kSection, "master_path", false},
    {kSection, "access_path", false}, {kSection, "http", false},        {kSection, "web_root", false},
    {kSection, "chart_js", false},   {"network", "listen-ip", false},   {"network", "listen-port", true},
    {nullptr, nullptr, false},
};

namespace {

std::string ResolveAgainst(const std::string& configPath, const std::string& path) {
  if (path.empty() || path[0] == '/') return path;
  std::string::size_type slash = configPath.rfind('/');
  if (slash == std::string::npos) return path;
  return configPath.substr(0, slash + 1) + path;
}

std::string HostName() {
  char name[HOST_NAME_MAX + 1] = {};
  if (gethostname(name, sizeof name - 1) != 0 || name[0] == '\0') return "controlplane";
  return name;
}

bool IsWildcard(const std::string& ip) { return ip.empty() || ip == "0.0.0.0" || ip == "::" || ip == "[::]"; }

bool IsRegistryFolder(const std::string& path) {
  return path.size() > 1 && path[0] == '/' && path.back() != '/' && path.find("//") == std::string::npos;
}

bool ReadEndpoint(const ConfigReader& read, Endpoint* self, std::string* error) {
  self->name = read(kSection, "name");
  if (self->name.empty()) self->name = HostName();
  if (self->name.find('/') != std::string::npos) {
    *error = "[controlplane] name \"" + self->name + "\" may not contain '/': it names a registry node";
    return false;
  }
  self->ip = read(kSection, "advertise_ip");
  if (self->ip.empty()) self->ip = read("network", "listen-ip");
  if (IsWildcard(self->ip)) {
    *error = "[controlplane] advertise_ip is needed: [network] listen-ip \"" + self->ip +
             "\" is no address an agent can be told";
    return false;
  }
  long port = 0;
  if (zelvar::ParseInteger(read("network", "listen-port"), &port, 1, 65535) != zelvar::IntegerParse::kOk) {
    *error = "[network] listen-port must be set to a port (1-65535): the control plane answers there";
    return false;
  }
  self->port = static_cast<int32_t>(port);
  return true;
}

// "ip:port" or "[ipv6]:port", read by libevent, which also serves it.
bool ReadHttpAddress(const ConfigReader& read, PluginSettings* settings, std::string* error) {
  std::string address = read(kSection, "http");
  if (address.empty()) return true;
  sockaddr_storage parsed{};
  int length = sizeof parsed;
  char ip[INET6_ADDRSTRLEN] = "";
  auto* v4 = reinterpret_cast<sockaddr_in*>(&parsed);
  auto* v6 = reinterpret_cast<sockaddr_in6*>(&parsed);
  bool ok = evutil_parse_sockaddr_port(address.c_str(), reinterpret_cast<sockaddr*>(&parsed), &length) == 0;
  const bool isV6 = parsed.ss_family == AF_INET6;
  ok = ok && evutil_inet_ntop(parsed.ss_family, isV6 ? static_cast<void*>(&v6->sin6_addr) : &v4->sin_addr, ip,
                              sizeof ip) != nullptr;
  const uint16_t port = ntohs(isV6 ? v6->sin6_port : v4->sin_port);
  if (!ok || port == 0) {
    *error = "[controlplane] http \"" + address + "\" is not an address like 127.0.0.1:7180";
    return false;
  }
  settings->http_ip = ip;
  settings->http_port = port;
  return true;
}

}  // namespace

bool ReadPluginSettings(const ConfigReader& read, const std::string& configPath, PluginSettings* out,
                        std::string* error) {
  PluginSettings settings;
  if (!ReadEndpoint(read, &settings.self, error)) return false;
  settings.jobs_file = ResolveAgainst(configPath, read(kSection, "jobs_file"));
  settings.database = ResolveAgainst(configPath, read(kSection, "database"));
  if (settings.jobs_file.empty() || settings.database.empty()) {
    *error = std::string("[controlplane] ") + (settings.jobs_file.empty() ? "jobs_file" : "database") +
             " must be set";
    return false;
  }
  std::string keepDays = read(kSection, "keep_days");
  long days = settings.keep_days;
  if (!keepDays.empty() && zelvar::ParseInteger(keepDays, &days, 0, 36500) != zelvar::IntegerParse::kOk) {
    *error = "[controlplane] keep_days must be a number of days from 0 (keep everything) to 36500, not \"" +
             keepDays + "\"";
    return false;
  }
  settings.keep_days = static_cast<int>(days);
  for (const char* key : {"master_path", "access_path"}) {
    std::string folder = read(kSection, key);
    if (folder.empty()) folder = key == std::string("master_path") ? kDefaultMasterPath : kDefaultAccessPath;
    if (!IsRegistryFolder(folder)) {
      *error = std::string("[controlplane] ") + key + " \"" + folder + "\" is not a registry path like /a/b";
      return false;
    }
    settings.registry_nodes.push_back(folder + "/" + settings.self.name);
  }
  if (!ReadHttpAddress(read, &settings, error)) return false;
  settings.web_root = ResolveAgainst(configPath, read(kSection, "web_root"));
  settings.chart_js = ResolveAgainst(configPath, read(kSection, "chart_js"));
  if (settings.chart_js.empty()) settings.chart_js = kDefaultChartJs;
  *out = std::move(settings);
  return true;
}

}  // namespace controlplane
