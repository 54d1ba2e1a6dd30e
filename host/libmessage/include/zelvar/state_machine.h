// StateMachine: the base class of every machine the host runs.
//
// A machine is a small object that lives between its creation and the moment one
// of its handlers (or its timeout) returns 100 or -1. Each machine type declares
// its states once, process-wide, with SetGlobalStateList2 / SetGlobalStateName;
// an event for a machine is dispatched to the handler of its current state.
//
// Thread rules: machines, the state table and the machine pool are used on the
// host's event-loop thread only; state declarations happen in static
// initialisers before the loop starts.
#ifndef ZELVAR_STATE_MACHINE_H
#define ZELVAR_STATE_MACHINE_H

#include <cstdint>

namespace zelvar {

// The host's 128-bit event key. The runtime fills it with the kind of event and
// the flow number or source that produced it; handlers may ignore it.
struct event_key_t {
  uint64_t hi = 0;
  uint64_t lo = 0;
};

// What the runtime knows about an event besides its payload.
struct InternalHead_t {
  event_key_t key;
  uint32_t event_type = 0;       // one of EventType
  uint32_t src_machine_id = 0;   // the machine that caused it, 0 when none
  uint32_t flow_no = 0;          // flow number of a completion, 0 otherwise
};

enum EventType : uint32_t {
  kEventStart = 0,       // first run of a machine started by the host, no payload
  kEventMessage = 1,     // payload: zelvar::ZMessage*, owned by the handler
  kEventLongAction = 2,  // payload: LongActionResult*, valid during the call only
  kEventAio = 3,         // payload: AioResult*, valid during the call only
  kEventPlugin = 4,      // payload: a plug-in's record, owned by the handler
};

// Results of handlers and of Timeout.
enum HandlerResult : int {
  kKeepMachine = 0,
  kMachineDone = 100,
  kMachineFailed = -1,
};

constexpr uint32_t kNoMachineId = 0xFFFFFFFFu;
constexpr int kInitialState = -1;

class StateMachine;
using StateHandler = int (*)(StateMachine* machine, event_key_t key, void* data);

class StateMachine {
 public:
  // Registers the machine in the MachinePool, which gives it its id.
  StateMachine();
  // Unregisters the machine; its id may then be given to a new machine.
  virtual ~StateMachine();

  StateMachine(const StateMachine&) = delete;
  StateMachine& operator=(const StateMachine&) = delete;

  virtual void Dump(int fd);
  // Calls PreTranslate, then DoNext2 with the head's key.
  virtual int DoNext(InternalHead_t* head, void* data);
  // Runs the handler of the current state; -1 when the state has none.
  virtual int DoNext2(event_key_t key, void* data);
  // Called when the machine timeout (true) or the state timeout (false) expires.
  // 0 keeps the machine (the timeout is armed again), 100 or -1 ends it.
  virtual int Timeout(bool machineTimeout);
  virtual unsigned StateMachineType() = 0;
  virtual const char* MachineName() = 0;
  virtual void PreTranslate(InternalHead_t* head, void* data);
  // Timeouts are whole seconds; 0 means "the host's default" for the machine
  // timeout and "none" for the state timeout.
  virtual void SetMachineTimeout(unsigned seconds);
  virtual unsigned GetMachineTimeout() const;
  virtual void SetStateTimeout(unsigned seconds);
  virtual unsigned GetStateTimeout() const;

  uint32_t GetMachineId() const { return m_uMachineId; }
  int GetState() const { return m_iState; }
  void SetState(int state) { m_iState = state; }
  // Printable name of the current state, or the placeholder for an unnamed one.
  const char* GetStateName();

  // Id of the machine of this process that created this one to serve its
  // request, kNoMachineId when the machine was not created that way.
  uint32_t GetRequesterId() const { return m_uRequesterId; }
  void SetRequesterId(uint32_t id) { m_uRequesterId = id; }

  bool IsCreatedByRoutine() const { return m_bCreatedByRoutine; }
  void SetCreatedByRoutine(bool byRoutine) { m_bCreatedByRoutine = byRoutine; }

  // Process-wide state table, keyed by machine type and state id.
  static void SetGlobalStateList2(unsigned type, int state, StateHandler handler);
  static void SetGlobalStateName(unsigned type, int state, const char* name);
  static StateHandler GetGlobalStateHandler(unsigned type, int state);
  // The state's declared name, or kUnnamedStateName.
  static const char* GetGlobalStateName(unsigned type, int state);

  static constexpr const char* kUnnamedStateName = "(unnamed state)";

 private:
  uint32_t m_uMachineId = 0;
  int m_iState = kInitialState;
  uint32_t m_uRequesterId = kNoMachineId;
  bool m_bCreatedByRoutine = false;
  unsigned m_uMachineTimeout = 0;
  unsigned m_uStateTimeout = 0;
};

}  // namespace zelvar

#endif  // ZELVAR_STATE_MACHINE_H
