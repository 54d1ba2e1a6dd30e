// Registering a machine class from its unit: the factory creators, the
// routine, the state table, and the common timeout every machine inherits.
#include "framework/machine_registration.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>

#include "framework/bev_machine_util.h"
#include "framework/host_api.h"
#include "test_host.h"

using ovita2::testing::TestHost;

constexpr unsigned kProbeType = 4244001;

class ProbeMachine : public BEVMachineUtil {
 public:
  unsigned StateMachineType() override { return kProbeType; }
  const char* MachineName() override { return "ProbeMachine"; }

  int Entry_Init(zelvar::event_key_t, void*) {
    ovita2::MachineLog(2, this, "asked for %d things", 3);
    SetState(1);
    return zelvar::kKeepMachine;
  }
  int Entry_WaitThings(zelvar::event_key_t, void*) { return zelvar::kMachineDone; }
};

OVITA2_MACHINE_CREATORS(Probe)
OVITA2_MACHINE_STATE(Probe, Init)
OVITA2_MACHINE_STATE(Probe, WaitThings)

static const ovita2::MachineRegistration kProbeRegistration =
    ovita2::MachineRegistration(kProbeType, ProbeCreateMySelf, ProbeCreateMySelfByAddr)
        .Routine(ProbeCreateMySelfForRoutine, 15)
        .State(-1, ProbeMachineEntry_Init, "Entry_Init")
        .State(1, ProbeMachineEntry_WaitThings, "Entry_WaitThings");

namespace {

TEST(MachineRegistration, UnitDeclaresCreatorsStatesAndRoutine) {
  std::unique_ptr<zelvar::StateMachine> made(zelvar::MachineFactory::Instance()->CreateMachine(kProbeType));
  ASSERT_NE(made, nullptr);
  EXPECT_STREQ(made->MachineName(), "ProbeMachine");
  EXPECT_EQ(made->GetState(), -1);
  EXPECT_STREQ(made->GetStateName(), "Entry_Init");

  EXPECT_EQ(zelvar::StateMachine::GetGlobalStateHandler(kProbeType, -1), &ProbeMachineEntry_Init);
  EXPECT_EQ(zelvar::StateMachine::GetGlobalStateHandler(kProbeType, 1), &ProbeMachineEntry_WaitThings);
  EXPECT_STREQ(zelvar::StateMachine::GetGlobalStateName(kProbeType, 1), "Entry_WaitThings");
  EXPECT_EQ(zelvar::StateMachine::GetGlobalStateHandler(kProbeType, 2), nullptr);

  const auto& routines = RoutineUtil::Instance()->Routines();
  auto probe = std::find_if(routines.begin(), routines.end(),
                            [](const routing_machine_t& r) { return r.creator == &ProbeCreateMySelfForRoutine; });
  ASSERT_NE(probe, routines.end());
  EXPECT_EQ(probe->interval, 15u);
  EXPECT_FALSE(probe->once);
  EXPECT_EQ(probe->run_count, 0u);
  EXPECT_EQ(probe->last_start, 0);
}

TEST(MachineRegistration, CreatorsDifferOnlyInTheRoutineMark) {
  std::unique_ptr<zelvar::StateMachine> plain(ProbeCreateMySelf());
  std::unique_ptr<zelvar::StateMachine> routine(ProbeCreateMySelfForRoutine());
  EXPECT_FALSE(plain->IsCreatedByRoutine());
  EXPECT_TRUE(routine->IsCreatedByRoutine());
  EXPECT_NE(plain->GetMachineId(), routine->GetMachineId());

  EXPECT_EQ(ProbeCreateMySelfByAddr(nullptr), nullptr);
  alignas(ProbeMachine) unsigned char memory[sizeof(ProbeMachine)];
  zelvar::StateMachine* inPlace = zelvar::MachineFactory::Instance()->CreateMachineByAddr(kProbeType, memory);
  EXPECT_EQ(static_cast<void*>(inPlace), static_cast<void*>(memory));
  EXPECT_STREQ(inPlace->MachineName(), "ProbeMachine");
  EXPECT_FALSE(inPlace->IsCreatedByRoutine());
  inPlace->~StateMachine();
}

TEST(MachineRegistration, RoutineMachineRunsItsStatesAndEndsOnTimeoutWithALine) {
  // The agent's own machines are registered too; only the probe's routine may run here.
  std::vector<routing_machine_t> saved = RoutineUtil::Instance()->Routines();
  auto& routines = RoutineUtil::Instance()->Routines();
  routines.erase(std::remove_if(routines.begin(), routines.end(),
                                [](const routing_machine_t& r) { return r.creator != &ProbeCreateMySelfForRoutine; }),
                 routines.end());
  TestHost host;
  ovita2::testing::StartedMachine probe = host.RunRoutine();
  RoutineUtil::Instance()->Routines() = saved;
  ASSERT_EQ(probe.name, "ProbeMachine");
  std::string prefix = "machine:ProbeMachine(" + std::to_string(probe.id) + ")|state:";
  EXPECT_EQ(host.LogLines(), std::vector<std::string>{prefix + "Entry_Init|asked for 3 things"});
  EXPECT_EQ(host.LogLinesAt(2).size(), 1u);

  host.AdvanceClock(TestHost::kDefaultMachineTimeout - 1);
  EXPECT_TRUE(host.IsAlive(probe.id));
  host.AdvanceClock(1);
  EXPECT_FALSE(host.IsAlive(probe.id));
  EXPECT_EQ(host.LogLines().back(), prefix + "Entry_WaitThings|Timeout occurred, delete myself");
  EXPECT_EQ(host.LogLinesAt(4).size(), 1u);
  EXPECT_TRUE(host.RuntimeLines().empty()) << "a timeout ends the machine as done";
}

TEST(MachineRegistration, TimeoutEndsTheMachineSilentlyAboveTheErrorThreshold) {
  TestHost host;
  host.SetLogLevel(5);
  uint32_t id = host.Start(ProbeCreateMySelf()).id;
  host.AdvanceClock(TestHost::kDefaultMachineTimeout);
  EXPECT_FALSE(host.IsAlive(id));
  EXPECT_TRUE(host.LogLines().empty());
}

}  // namespace
