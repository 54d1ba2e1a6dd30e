// MachinePool: the live machines of the process, by id.
//
// A machine enters the pool in its constructor and leaves it in its destructor,
// so GetMachine never returns a machine that is gone. Ids are unique among live
// machines and never 0 or 0xFFFFFFFF (the two values that mean "no machine").
// Event-loop thread only.
#ifndef ZELVAR_MACHINE_POOL_H
#define ZELVAR_MACHINE_POOL_H

#include <cstddef>
#include <cstdint>
#include <unordered_map>

namespace zelvar {

class StateMachine;

class MachinePool {
 public:
  static MachinePool* Instance();

  // The live machine with this id, or null.
  StateMachine* GetMachine(uint32_t id) const;
  size_t Size() const { return m_mapMachines.size(); }

  // Called by StateMachine's constructor and destructor.
  uint32_t Register(StateMachine* machine);
  void Unregister(uint32_t id);

 private:
  uint32_t NextFreeId();

  std::unordered_map<uint32_t, StateMachine*> m_mapMachines;
  uint32_t m_uLastId = 0;
};

}  // namespace zelvar

#endif  // ZELVAR_MACHINE_POOL_H
