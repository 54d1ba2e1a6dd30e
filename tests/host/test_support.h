// Helpers of the host's tests: a scratch folder, an in-process host running the
// probe plug-in, loopback sockets, and process bookkeeping (descriptors,
// zombies).
#ifndef OVITA2_TESTS_HOST_TEST_SUPPORT_H
#define OVITA2_TESTS_HOST_TEST_SUPPORT_H

#include <memory>
#include <string>

#include "host.h"
#include "probe_control.h"

namespace host_test {

// A folder under /tmp removed with everything in it.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  const std::string& Path() const { return m_strPath; }
  std::string Write(const std::string& name, const std::string& text) const;

 private:
  std::string m_strPath;
};

std::string ReadFile(const std::string& path);

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

// A blocking loopback client connected to `port`; -1 on failure.
int ConnectLoopback(int port);
// A listening loopback socket on a free port; its port in `*port`.
int ListenLoopback(int* port);
bool SendAll(int fd, const std::string& bytes);
// Appends what can be read now without blocking; false once the peer closed.
bool ReadAvailable(int fd, std::string* sink);

int CountOpenDescriptors();
// Children of this process that exited and were not reaped.
int CountZombieChildren();

}  // namespace host_test

#endif  // OVITA2_TESTS_HOST_TEST_SUPPORT_H
