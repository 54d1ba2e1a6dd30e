#include "zelvar/machine_pool.h"

#include "zelvar/state_machine.h"

namespace zelvar {

namespace {

// Small enough to stay in cache, large enough for the machines a quiet
// process keeps alive at once.
constexpr size_t kInitialSlots = 64;

}  // namespace

MachinePool::MachinePool() : m_vecSlots(kInitialSlots) {}

MachinePool* MachinePool::Instance() {
  static MachinePool pool;
  return &pool;
}

uint32_t MachinePool::Register(StateMachine* machine) {
  // At most half full, so that a free id is never far from the last one.
  if (2 * (m_uLive + 1) > m_vecSlots.size()) Grow();
  uint32_t id = NextFreeId();
  m_vecSlots[id & (m_vecSlots.size() - 1)] = Slot{id, machine};
  ++m_uLive;
  return id;
}

void MachinePool::Unregister(uint32_t id) {
  Slot& slot = m_vecSlots[id & (m_vecSlots.size() - 1)];
  if (slot.id != id || slot.machine == nullptr) return;
  slot = Slot{};
  --m_uLive;
}

// Ids count upwards and wrap; 0 and kNoMachineId mean "no machine" to every
// reader of a head. An id whose slot is taken is skipped: that keeps a lookup
// to one slot, and it means an id still held by a live machine is never
// handed out again, so a late reply can never reach a newer machine under an
// old machine's id while that old machine lives.
uint32_t MachinePool::NextFreeId() {
  for (;;) {
    ++m_uLastId;
    if (m_uLastId == 0 || m_uLastId == kNoMachineId) continue;
    if (m_vecSlots[m_uLastId & (m_vecSlots.size() - 1)].machine == nullptr) return m_uLastId;
  }
}

// Ids that differ in their low bits still differ in a wider mask, so every
// machine keeps a slot of its own in the doubled table.
void MachinePool::Grow() {
  std::vector<Slot> slots(2 * m_vecSlots.size());
  for (const Slot& slot : m_vecSlots) {
    if (slot.machine != nullptr) slots[slot.id & (slots.size() - 1)] = slot;
  }
  m_vecSlots.swap(slots);
}

}  // namespace zelvar
