#include "zelvar/long_action.h"

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "zelvar/shell_process.h"

namespace zelvar {
namespace {

// Reads what is available; false once the descriptor reached end of file (or
// failed), after which it is closed and set to -1.
bool DrainInto(int& fd, std::string* sink) {
  char buffer[16384];
  for (;;) {
    ssize_t n = read(fd, buffer, sizeof buffer);
    if (n > 0) {
      sink->append(buffer, static_cast<size_t>(n));
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return true;
    close(fd);
    fd = -1;
    return false;
  }
}

}  // namespace

void LongActionMethod::Do() {
  std::fprintf(stderr, "LongActionMethod::Do called on \"%s\", which has no action of its own\n",
               m_strName.c_str());
  std::abort();
}

std::string LongActionMethod::FirstParam(const std::string& key) const {
  auto it = m_mapParams.find(key);
  return it == m_mapParams.end() ? std::string() : it->second;
}

void ExecuteShell2::Do() {
  m_sResult = LongActionResult();
  ShellChild child;
  std::string error;
  if (!SpawnShell(FirstParam(kCommandParam), &child, &error)) {
    m_sResult.status = LongActionResult::kStatusSpawnFailed;
    m_sResult.error = error;
    return;
  }
  while (child.stdout_fd >= 0 || child.stderr_fd >= 0) {
    pollfd fds[2] = {{child.stdout_fd, POLLIN, 0}, {child.stderr_fd, POLLIN, 0}};
    if (poll(fds, 2, -1) < 0 && errno != EINTR) break;
    if (child.stdout_fd >= 0 && fds[0].revents != 0) DrainInto(child.stdout_fd, &m_sResult.output);
    if (child.stderr_fd >= 0 && fds[1].revents != 0) DrainInto(child.stderr_fd, &m_sResult.error);
  }
  if (child.stdout_fd >= 0) close(child.stdout_fd);
  if (child.stderr_fd >= 0) close(child.stderr_fd);
  int waitStatus = 0;
  while (waitpid(child.pid, &waitStatus, 0) < 0 && errno == EINTR) {
  }
  kill(-child.pid, SIGKILL);  // what the command left running in its group ends with it
  m_sResult.status = StatusOfWait(waitStatus);
  if (m_sResult.status != 0 && m_sResult.error.empty()) m_sResult.error = DescribeWaitStatus(waitStatus);
}

}  // namespace zelvar
