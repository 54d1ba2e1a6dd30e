#include "plugin/host_access.h"

namespace controlplane {
namespace {

zelvar::HostTable g_sHost;

}  // namespace

void KeepHostTable(const zelvar::HostFunction* table) { g_sHost.Adopt(table); }

const zelvar::HostFunction* HostTable() { return g_sHost.Table(); }

void HostLog(int level, const std::string& line) {
  if (g_sHost.LogEnabled(level)) zelvar::HostLogText(g_sHost.Table(), level, ("controlplane: " + line).c_str());
}

std::string HostConfigString(const char* section, const char* key) { return g_sHost.GetConfigString(section, key, ""); }

int HostConfigInt(const char* section, const char* key, int dflt) { return g_sHost.GetConfigInt(section, key, dflt); }

int64_t HostNow() { return g_sHost.Now(); }

}  // namespace controlplane
