// The routine list: which routine OnRoutine starts, and when.
#include "framework/routine_util.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "zelvar/state_machine.h"

namespace {

// Creators that leave a trace of which routine ran; they make no machine, so
// the selection is observed without a host.
std::vector<std::string> g_started;
template <int N>
zelvar::StateMachine* Routine() {
  g_started.push_back("routine-" + std::to_string(N));
  return reinterpret_cast<zelvar::StateMachine*>(static_cast<uintptr_t>(0x1000 + N));
}

class RoutineListTest : public ::testing::Test {
 protected:
  RoutineListTest() { g_started.clear(); }

  // One tick of the host at `now`; the name of the routine started, or "".
  std::string Tick(int64_t now) {
    size_t before = g_started.size();
    routines_.StartFirstDue([now] { return now; });
    return g_started.size() == before ? "" : g_started.back();
  }

  RoutineUtil routines_;
};

TEST_F(RoutineListTest, RoutinesStartOnePerTickInRegistrationOrderThenFollowTheirIntervals) {
  routines_.SetRouting(&Routine<1>, 10, false);
  routines_.SetRouting(&Routine<2>, 20, false);
  routines_.SetRouting(&Routine<3>, 5, false);
  const int64_t t0 = 1700000000;

  EXPECT_EQ(Tick(t0), "routine-1");
  EXPECT_EQ(Tick(t0 + 1), "routine-2");
  EXPECT_EQ(Tick(t0 + 2), "routine-3");
  EXPECT_EQ(Tick(t0 + 3), "");
  EXPECT_EQ(Tick(t0 + 6), "") << "routine-3 is due 5 seconds after its own start";
  EXPECT_EQ(Tick(t0 + 7), "routine-3");
  // routine-1 (due at +10) and routine-3 (due at +12) tie at +12: the earlier
  // entry wins and the other waits for the next tick.
  EXPECT_EQ(Tick(t0 + 12), "routine-1");
  EXPECT_EQ(Tick(t0 + 13), "routine-3");
  EXPECT_EQ(routines_.Routines()[2].last_start, t0 + 13) << "the interval counts from the actual start";
  EXPECT_EQ(routines_.Routines()[0].run_count, 2u);
  EXPECT_EQ(routines_.Routines()[1].run_count, 1u);
}

TEST_F(RoutineListTest, RoutineMarkedOnceStartsExactlyOnce) {
  routines_.SetRouting(&Routine<1>, 1, true);
  routines_.SetRouting(&Routine<2>, 100, false);
  EXPECT_EQ(Tick(1000), "routine-1");
  EXPECT_EQ(Tick(1001), "routine-2");
  for (int64_t now = 1002; now < 1100; ++now) EXPECT_EQ(Tick(now), "") << now;
}

TEST_F(RoutineListTest, ClockGoingBackwardsHoldsRoutinesUntilItCatchesUp) {
  routines_.SetRouting(&Routine<1>, 10, false);
  EXPECT_EQ(Tick(5000), "routine-1");
  EXPECT_EQ(Tick(4000), "");
  EXPECT_EQ(Tick(5009), "");
  EXPECT_EQ(Tick(5010), "routine-1");
}

TEST_F(RoutineListTest, FreshRoutineIsDueAtAnyTimeAtLeastItsInterval) {
  routines_.SetRouting(&Routine<1>, 10, false);
  EXPECT_EQ(Tick(9), "") << "last start 0: due from the interval on";
  EXPECT_EQ(Tick(10), "routine-1");
}

TEST_F(RoutineListTest, AskedTheTimeOncePerEntryItExamines) {
  routines_.SetRouting(&Routine<1>, 10, false);
  routines_.SetRouting(&Routine<2>, 10, false);
  routines_.SetRouting(&Routine<3>, 10, false);
  routines_.Routines()[0].last_start = 1000;
  int asked = 0;
  routines_.StartFirstDue([&asked] {
    ++asked;
    return int64_t{1005};
  });
  EXPECT_EQ(asked, 2) << "the second entry is due; the third is not looked at";
  EXPECT_EQ(g_started, std::vector<std::string>{"routine-2"});
}

}  // namespace
