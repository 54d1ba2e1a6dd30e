#include "zelvar/machine_factory.h"

#include <cstdio>
#include <cstdlib>

namespace zelvar {
namespace {

template <typename Map, typename Creator>
void AddCreator(Map& creators, unsigned type, Creator creator, const char* what) {
  if (!creators.emplace(type, creator).second) {
    // Two units claiming one type would route messages to the wrong machine;
    // stop at load time rather than misbehave later.
    std::fprintf(stderr, "MachineFactory: machine type %u registered twice (%s)\n", type, what);
    std::abort();
  }
}

}  // namespace

MachineFactory* MachineFactory::Instance() {
  static MachineFactory factory;
  return &factory;
}

void MachineFactory::AddMachine(unsigned type, MachineCreator creator) {
  AddCreator(Instance()->m_mapCreators, type, creator, "AddMachine");
}

void MachineFactory::AddMachineByAddr(unsigned type, MachineCreatorByAddr creator) {
  AddCreator(Instance()->m_mapCreatorsByAddr, type, creator, "AddMachineByAddr");
}

StateMachine* MachineFactory::CreateMachine(unsigned type) const {
  auto it = m_mapCreators.find(type);
  return it == m_mapCreators.end() ? nullptr : it->second();
}

StateMachine* MachineFactory::CreateMachineByAddr(unsigned type, void* memory) const {
  auto it = m_mapCreatorsByAddr.find(type);
  return it == m_mapCreatorsByAddr.end() ? nullptr : it->second(memory);
}

bool MachineFactory::HasType(unsigned type) const { return m_mapCreators.count(type) != 0; }

}  // namespace zelvar
