#include "zelvar/shell_process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "zelvar/string_util.h"

extern char** environ;

namespace zelvar {
namespace {

struct Pipe {
  int read_end = -1;
  int write_end = -1;
  bool Open() {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return false;
    read_end = fds[0];
    write_end = fds[1];
    return true;
  }
  void Close() {
    if (read_end >= 0) close(read_end);
    if (write_end >= 0) close(write_end);
    read_end = write_end = -1;
  }
};

// What the child gets: /dev/null on 0, the pipes on 1 and 2, nothing else open
// (every descriptor from 3 up is closed after the dups), its own process group.
bool SpawnWithPipes(const std::string& command, Pipe& out, Pipe& err, pid_t* pid, std::string* error) {
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
  posix_spawn_file_actions_init(&actions);
  posix_spawnattr_init(&attributes);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, out.write_end, 1);
  posix_spawn_file_actions_adddup2(&actions, err.write_end, 2);
  posix_spawn_file_actions_addclosefrom_np(&actions, 3);
  posix_spawnattr_setpgroup(&attributes, 0);
  sigset_t defaults;
  sigemptyset(&defaults);
  sigaddset(&defaults, SIGPIPE);
  sigaddset(&defaults, SIGINT);
  sigaddset(&defaults, SIGTERM);
  sigaddset(&defaults, SIGHUP);
  sigaddset(&defaults, SIGCHLD);
  posix_spawnattr_setsigdefault(&attributes, &defaults);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setflags(&attributes,
                           POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);

  const char* argv[] = {"sh", "-c", command.c_str(), nullptr};
  int rc = posix_spawn(pid, "/bin/sh", &actions, &attributes, const_cast<char* const*>(argv), environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  if (rc != 0) {
    *error = FormatString("cannot start /bin/sh: %s", strerror(rc));
    return false;
  }
  return true;
}

}  // namespace

bool SpawnShell(const std::string& command, ShellChild* child, std::string* error) {
  Pipe out;
  Pipe err;
  if (!out.Open() || !err.Open()) {
    *error = FormatString("cannot create pipes: %s", strerror(errno));
    out.Close();
    err.Close();
    return false;
  }
  pid_t pid = -1;
  bool started = SpawnWithPipes(command, out, err, &pid, error);
  close(out.write_end);
  close(err.write_end);
  out.write_end = err.write_end = -1;
  if (!started) {
    out.Close();
    err.Close();
    return false;
  }
  fcntl(out.read_end, F_SETFL, fcntl(out.read_end, F_GETFL) | O_NONBLOCK);
  fcntl(err.read_end, F_SETFL, fcntl(err.read_end, F_GETFL) | O_NONBLOCK);
  child->pid = pid;
  child->stdout_fd = out.read_end;
  child->stderr_fd = err.read_end;
  return true;
}

std::string DescribeWaitStatus(int waitStatus) {
  if (WIFEXITED(waitStatus)) return FormatString("exit status %d", WEXITSTATUS(waitStatus));
  if (WIFSIGNALED(waitStatus)) {
    int sig = WTERMSIG(waitStatus);
    const char* name = sigabbrev_np(sig);
    return FormatString("killed by signal %d (SIG%s)", sig, name != nullptr ? name : "?");
  }
  return "stopped";
}

long long StatusOfWait(int waitStatus) {
  if (WIFEXITED(waitStatus)) return WEXITSTATUS(waitStatus);
  if (WIFSIGNALED(waitStatus)) return 128 + WTERMSIG(waitStatus);
  return -1;
}

}  // namespace zelvar
