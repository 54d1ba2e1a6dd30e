// The machines of the lookups, the job catalogue and the pipeline as the agent
// registers them: type ids, names, states, timeouts and their places in the
// routine list.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "framework/routine_util.h"
#include "jobs/update_jobs.h"
#include "zelvar/machine_factory.h"
#include "zelvar/state_machine.h"

zelvar::StateMachine* UpdateTaskQueueCreateMySelfForRoutine();
zelvar::StateMachine* UpdateJobsCreateMySelfForRoutine();
zelvar::StateMachine* UpdateAggregationCreateMySelfForRoutine();
zelvar::StateMachine* SendUpperCreateMySelfForRoutine();
zelvar::StateMachine* ExecuteJobsCreateMySelfForRoutine();

namespace {

struct Expected {
  RoutineCreator creator;
  unsigned type;
  const char* name;
  unsigned interval;
  std::vector<std::pair<int, const char*>> states;
};

// In the order of the agent's start-up.
const std::vector<Expected>& Table() {
  static const std::vector<Expected> table = {
      {UpdateTaskQueueCreateMySelfForRoutine, 9000002, "UpdateTaskQueueMachine", 10,
       {{-1, "Entry_Init"}, {1, "Entry_WaitTaskQueue"}}},
      {UpdateJobsCreateMySelfForRoutine, 9000003, "UpdateJobsMachine", 150,
       {{-1, "Entry_Init"}, {1, "Entry_WaitJobs"}}},
      {UpdateAggregationCreateMySelfForRoutine, 9000006, "UpdateAggregationMachine", 10,
       {{-1, "Entry_Init"}, {1, "Entry_WaitAggregation"}}},
      {SendUpperCreateMySelfForRoutine, 9000007, "SendUpperMachine", 10, {{-1, "Entry_Init"}}},
      {ExecuteJobsCreateMySelfForRoutine, 9000004, "ExecuteJobsMachine", 10,
       {{-1, "Entry_Init"}, {1, "Entry_WaitJobs"}}},
  };
  return table;
}

TEST(AgentRoutineTable, MachinesStartInTheAgentsOrderWithTheirIntervals) {
  const std::vector<routing_machine_t>& routines = RoutineUtil::Instance()->Routines();
  size_t previous = 0;
  for (size_t i = 0; i < Table().size(); ++i) {
    const Expected& expected = Table()[i];
    auto found = std::find_if(routines.begin(), routines.end(),
                              [&](const routing_machine_t& r) { return r.creator == expected.creator; });
    ASSERT_NE(found, routines.end()) << expected.name;
    EXPECT_EQ(std::count_if(routines.begin(), routines.end(),
                            [&](const routing_machine_t& r) { return r.creator == expected.creator; }),
              1)
        << expected.name;
    size_t position = static_cast<size_t>(found - routines.begin());
    if (i > 0) {
      EXPECT_GT(position, previous) << expected.name << " starts after " << Table()[i - 1].name;
    }
    previous = position;
    EXPECT_EQ(found->interval, expected.interval) << expected.name;
    EXPECT_FALSE(found->once) << expected.name;
  }
}

TEST(AgentRoutineTable, EachTypeMakesItsMachineWithItsNamedStates) {
  for (const Expected& expected : Table()) {
    std::unique_ptr<zelvar::StateMachine> made(zelvar::MachineFactory::Instance()->CreateMachine(expected.type));
    ASSERT_NE(made, nullptr) << expected.type;
    EXPECT_STREQ(made->MachineName(), expected.name);
    EXPECT_EQ(made->StateMachineType(), expected.type);
    EXPECT_FALSE(made->IsCreatedByRoutine());
    std::unique_ptr<zelvar::StateMachine> routine(expected.creator());
    EXPECT_TRUE(routine->IsCreatedByRoutine());
    EXPECT_STREQ(routine->MachineName(), expected.name);
    for (const auto& state : expected.states) {
      EXPECT_NE(zelvar::StateMachine::GetGlobalStateHandler(expected.type, state.first), nullptr) << expected.name;
      EXPECT_STREQ(zelvar::StateMachine::GetGlobalStateName(expected.type, state.first), state.second);
    }
    EXPECT_EQ(zelvar::StateMachine::GetGlobalStateHandler(expected.type, static_cast<int>(expected.states.size())),
              nullptr)
        << expected.name << " has no further state";
    unsigned timeout = expected.type == UpdateJobsMachine::kType ? 120u : 0u;
    EXPECT_EQ(made->GetMachineTimeout(), timeout) << expected.name;
  }
}

}  // namespace
