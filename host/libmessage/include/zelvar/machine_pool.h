// MachinePool: the live machines of the process, by id.
//
// A machine enters the pool in its constructor and leaves it in its destructor,
// so GetMachine never returns a machine that is gone. Ids are unique among live
// machines and never 0 or 0xFFFFFFFF (the two values that mean "no machine").
// Every reply is routed through GetMachine, so a lookup is one slot of a
// table that ids are chosen to fit (id modulo the table's size, a power of
// two). Event-loop thread only.
#ifndef ZELVAR_MACHINE_POOL_H
#define ZELVAR_MACHINE_POOL_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace zelvar {

class StateMachine;

class MachinePool {
 public:
  MachinePool();
  static MachinePool* Instance();

  // The live machine with this id, or null.
  StateMachine* GetMachine(uint32_t id) const {
    const Slot& slot = m_vecSlots[id & (m_vecSlots.size() - 1)];
    return slot.id == id ? slot.machine : nullptr;
  }
  size_t Size() const { return m_uLive; }

  // Called by StateMachine's constructor and destructor.
  uint32_t Register(StateMachine* machine);
  void Unregister(uint32_t id);

 private:
  struct Slot {
    uint32_t id = 0;  // 0 is never an id, so an empty slot matches no lookup
    StateMachine* machine = nullptr;
  };

  uint32_t NextFreeId();
  void Grow();

  std::vector<Slot> m_vecSlots;  // a power of two long, at most half full
  size_t m_uLive = 0;
  uint32_t m_uLastId = 0;
};

}  // namespace zelvar

#endif  // ZELVAR_MACHINE_POOL_H
