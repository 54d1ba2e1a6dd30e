#include "zelvar/machine_factory.h"

#include <gtest/gtest.h>

#include <new>

namespace zelvar {
namespace {

constexpr unsigned kProbeType = 4242101;

class ProbeMachine : public StateMachine {
 public:
  unsigned StateMachineType() override { return kProbeType; }
  const char* MachineName() override { return "ProbeMachine"; }
};

StateMachine* ProbeCreate() { return new ProbeMachine; }
StateMachine* ProbeCreateByAddr(void* memory) { return memory == nullptr ? nullptr : new (memory) ProbeMachine; }

struct RegisterProbe {
  RegisterProbe() {
    MachineFactory::AddMachine(kProbeType, ProbeCreate);
    MachineFactory::AddMachineByAddr(kProbeType, ProbeCreateByAddr);
  }
} registerProbe;

TEST(MachineFactory, CreatesRegisteredTypesAndNothingElse) {
  MachineFactory* factory = MachineFactory::Instance();
  StateMachine* machine = factory->CreateMachine(kProbeType);
  ASSERT_NE(machine, nullptr);
  EXPECT_EQ(machine->StateMachineType(), kProbeType);
  EXPECT_STREQ(machine->MachineName(), "ProbeMachine");
  delete machine;

  EXPECT_TRUE(factory->HasType(kProbeType));
  EXPECT_FALSE(factory->HasType(kProbeType + 1));
  EXPECT_EQ(factory->CreateMachine(kProbeType + 1), nullptr);
  EXPECT_EQ(factory->CreateMachineByAddr(kProbeType + 1, nullptr), nullptr);
}

TEST(MachineFactory, CreatesInCallerMemory) {
  alignas(ProbeMachine) unsigned char memory[sizeof(ProbeMachine)];
  StateMachine* machine = MachineFactory::Instance()->CreateMachineByAddr(kProbeType, memory);
  ASSERT_EQ(static_cast<void*>(machine), static_cast<void*>(memory));
  EXPECT_NE(machine->GetMachineId(), 0u);
  machine->~StateMachine();
  EXPECT_EQ(MachineFactory::Instance()->CreateMachineByAddr(kProbeType, nullptr), nullptr);
}

TEST(MachineFactoryDeathTest, RegisteringATypeTwiceStopsTheProcess) {
  EXPECT_DEATH(MachineFactory::AddMachine(kProbeType, ProbeCreate), "machine type 4242101 registered twice");
}

}  // namespace
}  // namespace zelvar
