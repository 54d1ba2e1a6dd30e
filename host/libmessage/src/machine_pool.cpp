#include "zelvar/machine_pool.h"

#include "zelvar/state_machine.h"

namespace zelvar {

MachinePool* MachinePool::Instance() {
  static MachinePool pool;
  return &pool;
}

StateMachine* MachinePool::GetMachine(uint32_t id) const {
  auto it = m_mapMachines.find(id);
  return it == m_mapMachines.end() ? nullptr : it->second;
}

uint32_t MachinePool::Register(StateMachine* machine) {
  uint32_t id = NextFreeId();
  m_mapMachines.emplace(id, machine);
  return id;
}

void MachinePool::Unregister(uint32_t id) { m_mapMachines.erase(id); }

// Ids count upwards and wrap; 0 and kNoMachineId mean "no machine" to every
// reader of a head, and an id still held by a live machine is skipped, so a
// late reply can never reach a newer machine under an old machine's id while
// that old machine lives.
uint32_t MachinePool::NextFreeId() {
  for (;;) {
    ++m_uLastId;
    if (m_uLastId == 0 || m_uLastId == kNoMachineId) continue;
    if (m_mapMachines.count(m_uLastId) == 0) return m_uLastId;
  }
}

}  // namespace zelvar
