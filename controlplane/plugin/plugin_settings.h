// The control plane's configuration: section [controlplane] of the host's INI
// file, plus the host's own [network] listening address, which is the
// endpoint the control plane names to agents and registers in the registry.
//
//   [controlplane]
//   name          = cp-1                  instance name in answers and registry nodes (default: host name)
//   advertise_ip  = 192.0.2.10            address agents are told (default: [network] listen-ip)
//   jobs_file     = jobs.yaml             required; relative paths are relative to the INI file
//   database      = controlplane.db       required; created when missing
//   keep_days     = 7                     samples older than this are deleted (0 keeps everything)
//   master_path   = /ovita2/names/MASTER          registry folder of the master endpoint
//   access_path   = /ovita2/names/TELLAR2_ACCESS  registry folder of the statistics access endpoint
//   http          = 127.0.0.1:7180        the web page and /metrics (default: off)
//   web_root      = /usr/share/ovita2/web the page's files (default: see DefaultWebRoot)
//   chart_js      = /usr/share/javascript/chart.js/chart.min.js   the charting library
#ifndef OVITA2_CONTROLPLANE_PLUGIN_SETTINGS_H
#define OVITA2_CONTROLPLANE_PLUGIN_SETTINGS_H

#include <functional>
#include <string>
#include <vector>

#include "services/control_plane_services.h"
#include "zelvar/host_interface.h"

namespace controlplane {

struct PluginSettings {
  Endpoint self;
  std::string jobs_file;
  std::string database;
  int keep_days = 7;
  // Registry nodes to keep: each folder + "/" + the instance name.
  std::vector<std::string> registry_nodes;
  // The HTTP address; http_port 0 when no address is configured.
  std::string http_ip;
  int http_port = 0;
  std::string web_root;  // "" when not configured
  std::string chart_js;
};

// Reads a key of a section; "" when absent.
using ConfigReader = std::function<std::string(const char* section, const char* key)>;

// Reads and checks the settings; `configPath` anchors relative paths. False
// with one line naming the key at fault.
// Every key ReadPluginSettings reads, for the host's configuration check.
extern const zelvar::ConfigKeyDeclaration kPluginConfigKeys[];

bool ReadPluginSettings(const ConfigReader& read, const std::string& configPath, PluginSettings* out,
                        std::string* error);

}  // namespace controlplane

#endif  // OVITA2_CONTROLPLANE_PLUGIN_SETTINGS_H
