// What tests need of the machine they run on, and a census of this process's
// descriptors and unreaped children to prove that nothing was left behind.
#ifndef OVITA2_TESTS_SUPPORT_LOCAL_SYSTEM_H
#define OVITA2_TESTS_SUPPORT_LOCAL_SYSTEM_H

#include <functional>
#include <string>

#include <sys/types.h>

namespace ovita2::testing {

// A folder under /tmp, removed with everything in it.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& Path() const { return m_strPath; }
  // Writes `text` to the file `name` in the folder; returns its path.
  std::string Write(const std::string& name, const std::string& text) const;

 private:
  std::string m_strPath;
};

// The whole file, or "" when it cannot be read.
std::string ReadFile(const std::string& path);
// How often `part` occurs in `text`, overlaps counted.
size_t Occurrences(const std::string& text, const std::string& part);

// A blocking loopback client connected to `port`; -1 on failure.
int ConnectLoopback(int port);
// A listening loopback socket on a free port; its port in `*port`.
int ListenLoopback(int* port);
// A loopback port nothing listens on right now.
int FreeLoopbackPort();
bool SendAll(int fd, const std::string& bytes);
// Appends what can be read now without blocking; false once the peer closed.
bool ReadAvailable(int fd, std::string* sink);

// Polls `done` every 10 ms until it holds or `seconds` passed, however long `done` takes.
bool Eventually(const std::function<bool()>& done, double seconds = 30);

// `/bin/sh -c command` in a child that dies with the test (however the test
// ends, even killed from outside), killed and reaped when destroyed.
class ChildProcess {
 public:
  explicit ChildProcess(const std::string& command);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t Pid() const { return m_iPid; }
  // Its exit status once it ends within 30 s; -1 after a signal or when it does not end.
  int Wait();

 private:
  pid_t m_iPid;
};

int CountOpenDescriptors();
// Children of this process that exited and were not reaped.
int CountZombieChildren();

}  // namespace ovita2::testing

#endif  // OVITA2_TESTS_SUPPORT_LOCAL_SYSTEM_H
