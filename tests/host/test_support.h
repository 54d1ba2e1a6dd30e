// An in-process zelvar-host running the probe plug-in, for the host's tests.
#ifndef OVITA2_TESTS_HOST_TEST_SUPPORT_H
#define OVITA2_TESTS_HOST_TEST_SUPPORT_H

#include <string>

#include "host.h"
#include "local_system.h"
#include "probe_control.h"

namespace host_test {

// Older names of the shared helpers, for the suites that still use them.
using ovita2::testing::ConnectLoopback;
using ovita2::testing::CountOpenDescriptors;
using ovita2::testing::CountZombieChildren;
using ovita2::testing::ListenLoopback;
using ovita2::testing::ReadAvailable;
using ovita2::testing::ReadFile;
using ovita2::testing::SendAll;
using ovita2::testing::TempDir;

// A host loop in this process with the probe loaded as "probe", logging at
// level 1 to host.log in its folder; `extra` is appended to the configuration.
class ProbeHost {
 public:
  explicit ProbeHost(const std::string& extra = std::string()) {
    std::string config = "[host]\nlog_file = host.log\nlog_level = 1\n[plugins]\nprobe = " PROBE_PLUGIN_PATH "\n";
    config += extra;
    if (m_sHost.Init(m_sDir.Write("host.ini", config), &m_strError)) {
      m_pProbe = static_cast<probe::Control*>(m_sHost.GetPluginHandle("probe"));
    }
  }
  bool ok() const { return m_pProbe != nullptr; }
  const std::string& error() const { return m_strError; }
  zelvar_host::Host& host() { return m_sHost; }
  probe::Control& probe() { return *m_pProbe; }
  const ovita2::testing::TempDir& dir() const { return m_sDir; }
  std::string LogText() const { return ovita2::testing::ReadFile(m_sDir.Path() + "/host.log"); }
  // Runs loop turns until `done` (a generous cap guards against a hang).
  bool RunUntil(const std::function<bool()>& done) { return m_sHost.RunUntil(done, 30.0); }
  template <typename Fn>
  Fn Slot(zelvar::HostSlot slot) const {
    return zelvar::HostSlotAs<Fn>(m_sHost.Table(), slot);
  }

 private:
  ovita2::testing::TempDir m_sDir;
  zelvar_host::Host m_sHost;
  probe::Control* m_pProbe = nullptr;
  std::string m_strError;
};

}  // namespace host_test

#endif  // OVITA2_TESTS_HOST_TEST_SUPPORT_H
