// Helpers of the host's tests: an in-process host running the probe plug-in.
#ifndef OVITA2_TESTS_HOST_TEST_SUPPORT_H
#define OVITA2_TESTS_HOST_TEST_SUPPORT_H

#include <memory>
#include <string>

#include "host.h"
#include "local_system.h"
#include "probe_control.h"

namespace host_test {

using ovita2::testing::ConnectLoopback;
using ovita2::testing::CountOpenDescriptors;
using ovita2::testing::CountZombieChildren;
using ovita2::testing::ListenLoopback;
using ovita2::testing::ReadAvailable;
using ovita2::testing::ReadFile;
using ovita2::testing::SendAll;
using ovita2::testing::TempDir;

// A zelvar-host loop in this process with the probe loaded as "probe", logging
// at level 1 to a file in its folder.
class ProbeHost {
 public:
  // `extra` is appended to the configuration (more sections or keys).
  explicit ProbeHost(const std::string& extra = std::string());
  bool ok() const { return m_bOk; }
  const std::string& error() const { return m_strError; }

  zelvar_host::Host& host() { return m_sHost; }
  probe::Control& probe() { return *m_pProbe; }
  std::string LogText() const { return ReadFile(m_sDir.Path() + "/host.log"); }
  const TempDir& dir() const { return m_sDir; }
  // Runs loop turns until `done` (a generous cap guards against a hang).
  bool RunUntil(const std::function<bool()>& done) { return m_sHost.RunUntil(done, 30.0); }

  template <typename Fn>
  Fn Slot(zelvar::HostSlot slot) const {
    return zelvar::HostSlotAs<Fn>(m_sHost.Table(), slot);
  }

 private:
  TempDir m_sDir;
  zelvar_host::Host m_sHost;
  probe::Control* m_pProbe = nullptr;
  bool m_bOk = false;
  std::string m_strError;
};

}  // namespace host_test

#endif  // OVITA2_TESTS_HOST_TEST_SUPPORT_H
