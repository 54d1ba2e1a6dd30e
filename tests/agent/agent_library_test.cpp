// The shipped library as the host loads it: its routines start one per tick
// in the agent's start-up order, then each on its own interval. Loaded with
// dlopen, so a change to how the units are built or linked shows here.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string>

#include "test_host.h"
#include "zelvar/state_machine.h"

namespace {

TEST(AgentLibrary, RoutinesStartInTheirOrderOnePerTickThenOnTheirIntervals) {
  void* library = dlopen(AGENT_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(library, nullptr) << dlerror();
  ovita2::testing::PluginEntries agent;
  agent.peek = reinterpret_cast<decltype(agent.peek)>(dlsym(library, "OnPeekInterface"));
  agent.routine = reinterpret_cast<decltype(agent.routine)>(dlsym(library, "OnRoutine"));
  ASSERT_TRUE(agent.peek != nullptr && agent.routine != nullptr);
  ovita2::testing::TestHost host(agent);

  // The machines OnRoutine starts on `ticks` calls at the present time, "-" for none.
  auto startedBy = [&](int ticks) {
    std::string names;
    for (int tick = 0; tick < ticks; ++tick) {
      zelvar::StateMachine* machine = nullptr;
      agent.routine(&machine);
      names += std::string(machine != nullptr ? machine->MachineName() : "-") + " ";
      delete machine;
    }
    return names;
  };
  EXPECT_EQ(startedBy(14), "UpdateTaskQueueMachine UpdateNamesMachine UpdateJobsMachine UpdateJobConfsMachine "
                           "UpdateAggregationMachine SendUpperMachine SecondPhaseMachine RegisterMyselfMachine "
                           "RealTimeCollectMachine HeartBeatMachine ExecuteJobsOfConfMachine ExecuteJobsMachine "
                           "ExecuteHpJobsMachine - ");
  host.AdvanceClock(5);
  EXPECT_EQ(startedBy(2), "ExecuteHpJobsMachine - ");
  host.AdvanceClock(5);
  EXPECT_EQ(startedBy(8), "UpdateTaskQueueMachine UpdateAggregationMachine SendUpperMachine SecondPhaseMachine "
                          "RealTimeCollectMachine ExecuteJobsMachine ExecuteHpJobsMachine - ");
}

}  // namespace
