#include "entry/ovita2_agent.h"

#include <cstdlib>
#include <string>
#include <vector>

#include "framework/host_api.h"
#include "naming/name_container.h"

using ovita2::HostFn;

uint32_t g_highprecision_frequency = kDefaultHighPrecisionFrequency;
bool g_need_updatejobs = false;

namespace {

// The value is taken as strtol reads it, cut to 32 bits; a value whose low
// 32 bits are 0 (absent, empty, not a number, "0") means the default.
uint32_t ReadHighPrecisionFrequency() {
  const char* text = ovita2::HostConfigString("common", "highprecision_frequency");
  uint32_t frequency = static_cast<uint32_t>(std::strtol(text, nullptr, 10));
  return frequency != 0 ? frequency : kDefaultHighPrecisionFrequency;
}

void DefineNames(const std::vector<std::string>& keys) {
  for (const std::string& key : keys) {
    std::string path = ovita2::HostConfigString("names", key.c_str());
    if (key.empty() || path.empty()) continue;
    NameContainer::Instance()->DefineName(key, path);
    ovita2::HostLog(1, "define name %s to %s", key.c_str(), path.c_str());
  }
}

// The agent's own unit installs its initialisation as the OnInit hook.
struct InstallInitHook {
  InstallInitHook() { fn_usr_OnInit = OnMyInit; }
} installInitHook;

}  // namespace

const zelvar::ConfigKeyDeclaration* OnDescribeConfig() {
  // Without agentname or myname the agent starts, but its first fetch of jobs
  // fails minutes later; the check says it at once.
  static const zelvar::ConfigKeyDeclaration kKeys[] = {
      {"common", "highprecision_frequency", false}, {"common", "agentname", true},
      {"common", "myname", true},                   {"network", "listen-ip", false},
      {"network", "listen-port", false},            {"names", nullptr, false},
      {nullptr, nullptr, false},
  };
  return kKeys;
}

int OnMyInit(void*) {
  g_need_updatejobs = true;
  g_highprecision_frequency = ReadHighPrecisionFrequency();
  std::vector<std::string> keys;
  HostFn<zelvar::ListConfigKeysFn>(zelvar::kSlotListConfigKeys)("names", ".+", &keys);
  HostFn<zelvar::SetRoutinePeriodFn>(zelvar::kSlotSetRoutinePeriod)(kRoutinePeriodMicroseconds);
  DefineNames(keys);
  return 0;
}
