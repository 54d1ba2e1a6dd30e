// Registering a machine class from its unit's static initialiser.
//
// A machine unit of class XxxMachine writes, at file scope:
//
//   OVITA2_MACHINE_CREATORS(Xxx)            // XxxCreateMySelf, ...ByAddr, ...ForRoutine
//   OVITA2_MACHINE_STATE(Xxx, Init)         // XxxMachineEntry_Init -> XxxMachine::Entry_Init
//   OVITA2_MACHINE_STATE(Xxx, WaitJobs)
//
//   static const ovita2::MachineRegistration kRegistration =
//       ovita2::MachineRegistration(kXxxType, XxxCreateMySelf, XxxCreateMySelfByAddr)
//           .Routine(XxxCreateMySelfForRoutine, kRoutineXxx, 10)
//           .State(-1, XxxMachineEntry_Init, "Entry_Init")
//           .State(1, XxxMachineEntry_WaitJobs, "Entry_WaitJobs");
//
// which registers, in this order: the factory creator, the in-place creator,
// the routine at its place in the start-up order (left out for a machine that
// only serves inbound requests), and
// per state its handler then its printable name. States are listed in
// ascending order starting with -1.
//
// The handlers Entry_Yyy(zelvar::event_key_t, void*) must be public members.
// Static initialisers only (the factory, state table and routine list are
// complete before the host calls any entry point).
#ifndef OVITA2_AGENT_FRAMEWORK_MACHINE_REGISTRATION_H
#define OVITA2_AGENT_FRAMEWORK_MACHINE_REGISTRATION_H

#include <new>

#include "framework/routine_util.h"
#include "zelvar/machine_factory.h"
#include "zelvar/state_machine.h"

namespace ovita2 {

class MachineRegistration {
 public:
  MachineRegistration(unsigned type, zelvar::MachineCreator create, zelvar::MachineCreatorByAddr createInPlace);

  // Adds, at `position` of the routine list, the routine that starts a machine
  // of this type every `interval` seconds (or once, the first time it is due).
  MachineRegistration& Routine(RoutineCreator createForRoutine, RoutinePosition position, unsigned interval,
                               bool once = false);
  // Declares a state's handler and its name.
  MachineRegistration& State(int state, zelvar::StateHandler handler, const char* name);

  unsigned Type() const { return m_uType; }

 private:
  unsigned m_uType;
};

}  // namespace ovita2

// The three creators of class Prefix##Machine. A routine's machine carries the
// created-by-routine mark and nothing else differs.
#define OVITA2_MACHINE_CREATORS(Prefix)                                      \
  zelvar::StateMachine* Prefix##CreateMySelf() { return new Prefix##Machine(); } \
  zelvar::StateMachine* Prefix##CreateMySelfByAddr(void* memory) {           \
    return memory == nullptr ? nullptr : new (memory) Prefix##Machine();     \
  }                                                                          \
  zelvar::StateMachine* Prefix##CreateMySelfForRoutine() {                   \
    zelvar::StateMachine* machine = new Prefix##Machine();                   \
    machine->SetCreatedByRoutine(true);                                      \
    return machine;                                                          \
  }

// The plain handler the state table holds for Prefix##Machine::Entry_##Handler.
// The table is keyed by machine type, so the cast always names the real class.
#define OVITA2_MACHINE_STATE(Prefix, Handler)                                              \
  int Prefix##MachineEntry_##Handler(zelvar::StateMachine* machine, zelvar::event_key_t key, \
                                     void* data) {                                         \
    return static_cast<Prefix##Machine*>(machine)->Entry_##Handler(key, data);            \
  }

#endif  // OVITA2_AGENT_FRAMEWORK_MACHINE_REGISTRATION_H
