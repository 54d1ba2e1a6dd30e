#include "zelvar/shell_process.h"

#include <fcntl.h>
#include <signal.h>
#include <pthread.h>
#include <sched.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

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

struct ChildSetup {
  const char* const* argv;
  int stdout_fd, stderr_fd;
  pid_t host;
};

// The child until exec. It shares the host's memory (as a vfork child does)
// and so calls nothing but system calls, with every signal blocked. It gets
// /dev/null on 0, the pipes on 1 and 2, nothing else open, its own process
// group, default signal handling, and SIGKILL when the host dies: the group
// kill covers a host that ends normally, this covers a host killed outright,
// but only for this process (the shell, or what it execs); its own children
// are left to the service manager's control group then. Not instrumented: its
// stack frames never return to unpoison what they poisoned.
__attribute__((no_sanitize("address", "undefined"))) int ExecShell(void* arg) {
  const ChildSetup& setup = *static_cast<const ChildSetup*>(arg);
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != setup.host) _exit(127);  // the host died before the line above took hold
  setpgid(0, 0);
  int null = open("/dev/null", O_RDONLY);
  if (null < 0 || dup2(null, 0) < 0 || dup2(setup.stdout_fd, 1) < 0 || dup2(setup.stderr_fd, 2) < 0) _exit(127);
  close_range(3, ~0U, 0);
  struct sigaction byDefault = {};
  byDefault.sa_handler = SIG_DFL;
  for (int sig : {SIGPIPE, SIGINT, SIGTERM, SIGHUP, SIGCHLD}) sigaction(sig, &byDefault, nullptr);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  execve("/bin/sh", const_cast<char* const*>(setup.argv), environ);
  _exit(127);
}

// A vfork-like clone rather than posix_spawn, which cannot ask for the
// parent-death signal, or fork, which copies the host's page tables for every
// command. The host waits until the child has called exec or ended.
bool SpawnWithPipes(const std::string& command, Pipe& out, Pipe& err, pid_t* pid, std::string* error) {
  constexpr size_t kChildStack = 64 * 1024;
  const char* argv[] = {"sh", "-c", command.c_str(), nullptr};
  ChildSetup setup{argv, out.write_end, err.write_end, getpid()};
  std::vector<char> stack(kChildStack);
  sigset_t all, saved;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &saved);
  *pid = clone(&ExecShell, stack.data() + stack.size(), CLONE_VM | CLONE_VFORK | SIGCHLD, &setup);
  int cloneError = errno;
  pthread_sigmask(SIG_SETMASK, &saved, nullptr);
  if (*pid < 0) {
    *error = FormatString("cannot start /bin/sh: %s", strerror(cloneError));
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
