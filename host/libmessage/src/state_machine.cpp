#include "zelvar/state_machine.h"

#include <map>
#include <string>
#include <utility>

#include "zelvar/machine_pool.h"

namespace zelvar {
namespace {

struct StateEntry {
  StateHandler handler = nullptr;
  std::string name;
};

// Function-local so that machine units may declare states from their static
// initialisers in any order.
std::map<std::pair<unsigned, int>, StateEntry>& StateTable() {
  static std::map<std::pair<unsigned, int>, StateEntry> table;
  return table;
}

}  // namespace

StateMachine::StateMachine() { m_uMachineId = MachinePool::Instance()->Register(this); }

StateMachine::~StateMachine() { MachinePool::Instance()->Unregister(m_uMachineId); }

void StateMachine::Dump(int) {}

int StateMachine::DoNext(InternalHead_t* head, void* data) {
  PreTranslate(head, data);
  return DoNext2(head != nullptr ? head->key : event_key_t{}, data);
}

int StateMachine::DoNext2(event_key_t key, void* data) {
  StateHandler handler = GetGlobalStateHandler(StateMachineType(), m_iState);
  if (handler == nullptr) return kMachineFailed;
  return handler(this, key, data);
}

int StateMachine::Timeout(bool) { return kMachineDone; }

void StateMachine::PreTranslate(InternalHead_t*, void*) {}

void StateMachine::SetMachineTimeout(unsigned seconds) { m_uMachineTimeout = seconds; }
unsigned StateMachine::GetMachineTimeout() const { return m_uMachineTimeout; }
void StateMachine::SetStateTimeout(unsigned seconds) { m_uStateTimeout = seconds; }
unsigned StateMachine::GetStateTimeout() const { return m_uStateTimeout; }

const char* StateMachine::GetStateName() { return GetGlobalStateName(StateMachineType(), m_iState); }

void StateMachine::SetGlobalStateList2(unsigned type, int state, StateHandler handler) {
  StateTable()[{type, state}].handler = handler;
}

void StateMachine::SetGlobalStateName(unsigned type, int state, const char* name) {
  StateTable()[{type, state}].name = name != nullptr ? name : "";
}

StateHandler StateMachine::GetGlobalStateHandler(unsigned type, int state) {
  const auto& table = StateTable();
  auto it = table.find({type, state});
  return it == table.end() ? nullptr : it->second.handler;
}

const char* StateMachine::GetGlobalStateName(unsigned type, int state) {
  const auto& table = StateTable();
  auto it = table.find({type, state});
  if (it == table.end() || it->second.name.empty()) return kUnnamedStateName;
  return it->second.name.c_str();
}

}  // namespace zelvar
