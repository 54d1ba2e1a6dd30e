// MachineFactory: creates machines by numeric type.
//
// Each machine unit registers its creators from a static initialiser, before the
// host calls any entry point. The type id doubles as the message type a machine
// serves: an inbound request of type T is handed to a new machine of type T.
//
// The registry is a function-local singleton, so registration from static
// initialisers of any library is safe whatever their order. Registering one type
// twice is a programming error and aborts with a message naming the type.
#ifndef ZELVAR_MACHINE_FACTORY_H
#define ZELVAR_MACHINE_FACTORY_H

#include <map>

#include "zelvar/state_machine.h"

namespace zelvar {

using MachineCreator = StateMachine* (*)();
using MachineCreatorByAddr = StateMachine* (*)(void* memory);

class MachineFactory {
 public:
  static MachineFactory* Instance();

  static void AddMachine(unsigned type, MachineCreator creator);
  static void AddMachineByAddr(unsigned type, MachineCreatorByAddr creator);

  // A new machine of `type`, or null when no creator is registered.
  StateMachine* CreateMachine(unsigned type) const;
  // A machine of `type` constructed in `memory`, which the caller owns and
  // sizes; null when no creator is registered. Such a machine is destroyed by
  // its owner with an explicit destructor call, never by the runtime.
  StateMachine* CreateMachineByAddr(unsigned type, void* memory) const;
  bool HasType(unsigned type) const;

 private:
  std::map<unsigned, MachineCreator> m_mapCreators;
  std::map<unsigned, MachineCreatorByAddr> m_mapCreatorsByAddr;
};

}  // namespace zelvar

#endif  // ZELVAR_MACHINE_FACTORY_H
