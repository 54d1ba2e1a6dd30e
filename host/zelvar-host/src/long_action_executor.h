// LongActionExecutor: runs the machines' long actions as child processes,
// without blocking the event loop and without a thread pool.
//
// An ExecuteShell2 action becomes `/bin/sh -c <command>` (zelvar::SpawnShell:
// own process group, stdin /dev/null, only 0, 1 and 2 open). Both output pipes
// are libevent read events; on SIGCHLD (a libevent signal event) the executor
// reaps the ended children that are its own, found with waitid, and never a
// process it did not start nor leaves one unreaped. The completion
// record goes out once both pipes reached end of file (or were closed by the
// executor) and the child was reaped; the command's whole process group is
// killed then, so background jobs it started do not outlive it.
//
// Limits: past `time_limit_sec` (0 = none) the child's whole process group is
// killed; past `output_limit` bytes on either pipe the first bytes are kept and
// the group is killed; at most `max_children` run at once and later actions
// wait in order.
//
// The executor owns its children, their descriptors and events. Event-loop
// thread only; one executor per event_base (libevent delivers a signal to one
// base only).
#ifndef ZELVAR_HOST_LONG_ACTION_EXECUTOR_H
#define ZELVAR_HOST_LONG_ACTION_EXECUTOR_H

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>

#include "zelvar/long_action.h"

struct event;
struct event_base;

namespace zelvar_host {

class Logger;

struct LongActionLimits {
  unsigned time_limit_sec = 60;
  size_t output_limit = 1024 * 1024;
  // A thousand due commands start at once; each running child holds two pipe
  // ends, which the host's raised descriptor limit leaves room for.
  size_t max_children = 1024;
};

class LongActionExecutor {
 public:
  // Takes the record; delivers it to machine `machineId` on a later loop turn.
  using Deliver = std::function<void(uint32_t machineId, zelvar::LongActionResult* result)>;

  LongActionExecutor(event_base* base, Logger* log, const LongActionLimits& limits, Deliver deliver);
  // Kills what still runs (see KillAll).
  ~LongActionExecutor();
  LongActionExecutor(const LongActionExecutor&) = delete;
  LongActionExecutor& operator=(const LongActionExecutor&) = delete;

  // Copies what it needs of `action` (which may be destroyed on return) and
  // starts or queues it. Unknown kinds and spawn failures are answered with a
  // record too. Returns 0, or -1 for a null action.
  int Start(const zelvar::LongActionMethod* action, uint32_t machineId, uint32_t flowNo);
  // Kills every running process group, reaps the children, forgets the queue.
  // No record is delivered for them.
  void KillAll();

 private:
  struct Child;
  struct Stream {
    Child* child = nullptr;
    int fd = -1;
    event* reader = nullptr;
    std::string data;
  };
  enum class Ending { kNormal, kTimedOut, kOutputCut };
  struct Child {
    LongActionExecutor* owner = nullptr;
    pid_t pid = -1;
    uint32_t machine_id = 0;
    uint32_t flow_no = 0;
    Stream streams[2];  // stdout, stderr
    event* timer = nullptr;
    bool reaped = false;
    int wait_status = 0;
    Ending ending = Ending::kNormal;
  };
  struct Pending {
    std::string command;
    uint32_t machine_id;
    uint32_t flow_no;
  };

  void Spawn(const Pending& pending);
  void StartQueued();
  void Answer(uint32_t machineId, uint32_t flowNo, int64_t status, std::string error);
  void CloseStream(Stream& stream);
  void KillGroup(Child& child, Ending why);
  void ReapChildren();
  // Reaps `child` when it has ended; true when this call reaped it.
  bool Reap(Child& child);
  void FinishIfDone(Child& child);
  zelvar::LongActionResult* MakeRecord(Child& child) const;

  static void OnReadable(int fd, short what, void* arg);
  static void OnTimeLimit(int fd, short what, void* arg);
  static void OnChildSignal(int signal, short what, void* arg);

  event_base* m_pBase;
  Logger* m_pLog;
  LongActionLimits m_sLimits;
  Deliver m_fnDeliver;
  event* m_pChildSignal = nullptr;
  std::unordered_map<pid_t, std::unique_ptr<Child>> m_mapChildren;
  std::deque<Pending> m_dqQueue;
};

}  // namespace zelvar_host

#endif  // ZELVAR_HOST_LONG_ACTION_EXECUTOR_H
