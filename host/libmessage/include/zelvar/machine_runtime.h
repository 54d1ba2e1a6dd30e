// MachineRuntime: runs machines. It starts a machine at state -1, dispatches
// events to the handler of its current state, ends the machine on 100 or -1,
// and fires Timeout when a machine or state timeout expires.
//
// It knows nothing of sockets or of an event loop: the owner (zelvar-host, or a
// test) calls RunPending() and FireTimeouts() and reads time from a clock it
// controls. Posted events are queued and dispatched by the next RunPending(),
// never inside the call that posted them, so a handler is never re-entered.
//
// Ownership: the runtime owns every machine it has started or delivered to, and
// deletes it when it ends. It owns each queued payload until dispatch; a payload
// whose machine is gone by then is passed to the event's drop function.
//
// Thread rules: one thread (the event loop) for every call.
#ifndef ZELVAR_MACHINE_RUNTIME_H
#define ZELVAR_MACHINE_RUNTIME_H

#include <cstdint>
#include <deque>
#include <functional>
#include <queue>
#include <string>
#include <unordered_map>
#include <vector>

#include "zelvar/state_machine.h"

namespace zelvar {

// Milliseconds on a monotonic scale chosen by the owner.
class MachineClock {
 public:
  virtual ~MachineClock() = default;
  virtual int64_t NowMs() const = 0;
};

using PayloadFn = void (*)(void* payload);

struct MachineEvent {
  InternalHead_t head;
  void* data = nullptr;
  // Frees the payload when it cannot be delivered (machine gone, shutdown).
  PayloadFn drop = nullptr;
  // Frees the payload after the handler returned, for payloads that stay the
  // runtime's (completion records); null when the handler takes ownership.
  PayloadFn after_dispatch = nullptr;
};

struct LongActionResult;
struct AioResult;
class ZMessage;

// The events a host delivers, each with its payload's ownership rule spelt
// out once, so the host and its tests cannot disagree on it.
// An envelope the handler takes over; the pool gets it back if undeliverable.
MachineEvent MessageEvent(ZMessage* message);
// Completion records stay the runtime's: freed after the handler returns.
MachineEvent LongActionEvent(LongActionResult* record);
MachineEvent AioEvent(AioResult* record);
// A plug-in's record, handed over to the handler; `drop` frees it when it
// cannot be delivered.
MachineEvent PluginEvent(void* record, PayloadFn drop);

class MachineRuntime {
 public:
  using LogFn = std::function<void(int level, const std::string& line)>;

  // `defaultMachineTimeoutSec` applies to machines whose own timeout is 0.
  MachineRuntime(const MachineClock* clock, unsigned defaultMachineTimeoutSec);
  ~MachineRuntime();  // ends every machine and drops every queued payload

  MachineRuntime(const MachineRuntime&) = delete;
  MachineRuntime& operator=(const MachineRuntime&) = delete;

  void SetLogger(LogFn log) { m_fnLog = std::move(log); }
  // Called when an event is queued, so the owner can schedule RunPending().
  void SetWakeup(std::function<void()> wakeup) { m_fnWakeup = std::move(wakeup); }

  // Takes ownership of `machine` and runs its current state's handler at once
  // with a start event and no payload.
  void Start(StateMachine* machine);
  // Queues an event for a machine that may not be started yet: the runtime
  // takes ownership of it now. Returns 0.
  int Post(StateMachine* machine, const MachineEvent& event);
  // Queues an event for the live machine `id`; when there is none the payload
  // is dropped at once and -1 is returned.
  int PostById(uint32_t id, const MachineEvent& event);

  // Dispatches the events queued before this call. Returns how many ran.
  size_t RunPending();
  // Fires every timeout whose deadline is not after the clock. Returns how many.
  size_t FireTimeouts();
  // The earliest armed deadline, or -1 when none is armed. Forgets the
  // deadlines of machines that ended or re-armed first, so that an idle host
  // is not woken for them.
  int64_t NextDeadlineMs();

  bool IsManaged(uint32_t id) const { return m_mapMachines.count(id) != 0; }

 private:
  struct Managed {
    StateMachine* machine;
    uint64_t machine_timer = 0;  // generation of the armed machine timer, 0 none
    uint64_t state_timer = 0;
  };
  struct Deadline {
    int64_t at_ms;
    uint64_t generation;
    uint32_t machine_id;
    bool machine_timeout;
    bool operator>(const Deadline& other) const { return at_ms > other.at_ms; }
  };
  struct Queued {
    uint32_t machine_id;
    MachineEvent event;
  };

  Managed& Adopt(StateMachine* machine);
  void Dispatch(uint32_t id, const MachineEvent& event);
  void AfterHandler(uint32_t id, int stateBefore, int result);
  void ArmMachineTimer(Managed& managed, unsigned seconds);
  void ArmStateTimer(Managed& managed);
  void End(uint32_t id);
  bool IsArmed(const Deadline& deadline) const;
  void Log(int level, const std::string& line) const;

  const MachineClock* m_pClock;
  unsigned m_uDefaultMachineTimeout;
  LogFn m_fnLog;
  std::function<void()> m_fnWakeup;
  std::unordered_map<uint32_t, Managed> m_mapMachines;
  std::deque<Queued> m_dqEvents;
  std::priority_queue<Deadline, std::vector<Deadline>, std::greater<Deadline>> m_qDeadlines;
  uint64_t m_uNextGeneration = 1;
};

}  // namespace zelvar

#endif  // ZELVAR_MACHINE_RUNTIME_H
