// Starting shell commands the way the host runs every long action:
// `/bin/sh -c <command>` in a process group of its own (so a time limit can kill
// the whole group), standard input from /dev/null, standard output and standard
// error on two pipes, the environment inherited, and no other descriptor of the
// parent open in the child. The child gets SIGKILL when the thread that started
// it ends (PR_SET_PDEATHSIG), so start commands from a thread that lives as long
// as the process: the host's loop thread.
#ifndef ZELVAR_SHELL_PROCESS_H
#define ZELVAR_SHELL_PROCESS_H

#include <sys/types.h>

#include <string>

namespace zelvar {

struct ShellChild {
  pid_t pid = -1;        // also the id of its process group
  int stdout_fd = -1;    // read ends, non-blocking, close-on-exec
  int stderr_fd = -1;
};

// Starts `command`. On failure returns false with the reason in `error` and no
// descriptor left open.
bool SpawnShell(const std::string& command, ShellChild* child, std::string* error);

// "exit status N", "killed by signal N (NAME)" or "stopped" for a wait status.
std::string DescribeWaitStatus(int waitStatus);

// The record status of a wait status: 0 for exit 0, the exit code for another
// exit, 128 + the signal for a signal.
long long StatusOfWait(int waitStatus);

}  // namespace zelvar

#endif  // ZELVAR_SHELL_PROCESS_H
