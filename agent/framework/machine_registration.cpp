#include "framework/machine_registration.h"

namespace ovita2 {

MachineRegistration::MachineRegistration(unsigned type, zelvar::MachineCreator create,
                                         zelvar::MachineCreatorByAddr createInPlace)
    : m_uType(type) {
  zelvar::MachineFactory::AddMachine(type, create);
  zelvar::MachineFactory::AddMachineByAddr(type, createInPlace);
}

MachineRegistration& MachineRegistration::Routine(RoutineCreator createForRoutine, RoutinePosition position,
                                                  unsigned interval, bool once) {
  RoutineUtil::Instance()->SetRouting(createForRoutine, interval, once, position);
  return *this;
}

MachineRegistration& MachineRegistration::State(int state, zelvar::StateHandler handler, const char* name) {
  zelvar::StateMachine::SetGlobalStateList2(m_uType, state, handler);
  zelvar::StateMachine::SetGlobalStateName(m_uType, state, name);
  return *this;
}

}  // namespace ovita2
