// RegisterMyselfMachine against the fake registry: the node it creates, the
// watch it arms, the flag and the lock that keep runs from repeating or
// overlapping, and the callback and watcher that make the next run register
// again. Also where the naming machines sit in the routine list.
#include "naming/register_myself.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "framework/routine_util.h"
#include "naming/update_names.h"
#include "naming/zk_access.h"
#include "test_host.h"
#include "zelvar/kadri.pb.h"
#include "zelvar/machine_factory.h"

using ovita2::testing::TestHost;

namespace {

class RegisterMyself : public ::testing::Test {
 protected:
  RegisterMyself() {
    RegisterMyselfMachine::ResetForTesting();
    ovita2::ResetRegistryHandleForTesting();
    host_.SetConfig("common", "myname", "/ovita2/agents/a1");
    host_.SetConfig("network", "listen-ip", "10.1.2.3");
    host_.SetConfig("network", "listen-port", "7788");
  }
  ~RegisterMyself() override { RegisterMyselfMachine::ResetForTesting(); }

  uint32_t StartRun() { return host_.Start(RegisterMyselfCreateMySelf()).id; }

  std::string Line(uint32_t id, const std::string& state, const std::string& text) const {
    return "machine:RegisterMyselfMachine(" + std::to_string(id) + ")|state:" + state + "|" + text;
  }
  std::string Failed(uint32_t id, const std::string& state) const { return Line(id, state, "ended as failed"); }

  size_t CountCalls(const std::string& command) {
    const auto& calls = host_.Registry().Calls();
    return static_cast<size_t>(std::count_if(calls.begin(), calls.end(), [&](const auto& c) { return c.command == command; }));
  }

  void AnswerOk() {
    host_.Registry().AnswerOk(host_.Registry().LastCall());
    host_.RunPending();
  }

  TestHost host_;
};

TEST_F(RegisterMyself, CreatesAnEphemeralNodeWithItsAddressThenWatchesIt) {
  uint32_t id = StartRun();
  const auto& calls = host_.Registry().Calls();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].command, "set_callback");
  EXPECT_EQ(calls[0].callback, &conn_callback_myself);
  EXPECT_EQ(calls[1].command, "create");
  EXPECT_EQ(calls[1].path, "/ovita2/agents/a1");
  EXPECT_EQ(calls[1].flags, ZOO_EPHEMERAL);
  zelvar::kadri::NameNodeContent content;
  ASSERT_TRUE(content.ParseFromString(calls[1].data));
  EXPECT_EQ(content.ip(), "10.1.2.3");
  EXPECT_EQ(content.port(), 7788);
  EXPECT_TRUE(RegisterMyselfMachine::m_sLock.locked);
  EXPECT_EQ(RegisterMyselfMachine::m_sLock.owner, id);

  AnswerOk();
  ASSERT_EQ(calls.size(), 3u);
  EXPECT_EQ(calls[2].command, "get");
  EXPECT_EQ(calls[2].path, "/ovita2/agents/a1");
  EXPECT_EQ(calls[2].watcher, &myself_watcher_fn);
  EXPECT_FALSE(RegisterMyselfMachine::m_bRegister) << "not before the watch is armed";

  AnswerOk();
  EXPECT_FALSE(host_.IsAlive(id));
  EXPECT_TRUE(RegisterMyselfMachine::m_bRegister);
  EXPECT_FALSE(RegisterMyselfMachine::m_sLock.locked);
  EXPECT_EQ(RegisterMyselfMachine::m_sLock.owner, 0u);
  EXPECT_EQ(host_.LogLines(), (std::vector<std::string>{
                                  Line(id, "Entry_Init", "Registe myself node: /ovita2/agents/a1"),
                                  Line(id, "Entry_SetMyselfWatch", "Register myself finished"),
                              }));
  EXPECT_EQ(host_.LogLinesAt(2).size(), 2u);
  EXPECT_TRUE(host_.RuntimeLines().empty());

  // Registered: the next run takes and gives back the lock, and asks nothing.
  uint32_t next = StartRun();
  EXPECT_FALSE(host_.IsAlive(next));
  EXPECT_EQ(calls.size(), 3u);
  EXPECT_FALSE(RegisterMyselfMachine::m_sLock.locked);
  EXPECT_TRUE(host_.RuntimeLines().empty()) << "a run with nothing to do ends as done";
}

TEST_F(RegisterMyself, AnExistingNodeCountsAsCreated) {
  uint32_t id = StartRun();
  host_.Registry().AnswerError(host_.Registry().LastCall(), ZNODEEXISTS, "node exists");
  host_.RunPending();
  EXPECT_EQ(host_.Registry().LastCall().command, "get");
  AnswerOk();
  EXPECT_TRUE(RegisterMyselfMachine::m_bRegister);
  EXPECT_EQ(host_.LogLines().back(), Line(id, "Entry_SetMyselfWatch", "Register myself finished"));
}

TEST_F(RegisterMyself, ARunStartedWhileAnotherRegistersGivesUpAndLeavesTheLock) {
  uint32_t first = StartRun();
  uint32_t second = StartRun();
  EXPECT_FALSE(host_.IsAlive(second));
  EXPECT_TRUE(host_.IsAlive(first));
  EXPECT_EQ(host_.LogLines().back(), Line(second, "Entry_Init", "Someone is registing..."));
  EXPECT_EQ(host_.LogLinesAt(2).back(), Line(second, "Entry_Init", "Someone is registing..."));
  EXPECT_EQ(host_.RuntimeLines(), std::vector<std::string>{Failed(second, "Entry_Init")});
  EXPECT_EQ(CountCalls("create"), 1u);
  EXPECT_EQ(RegisterMyselfMachine::m_sLock.owner, first);

  // The first one fails; its end frees the lock and the next run tries again.
  host_.Registry().AnswerError(host_.Registry().LastCall(), ZNONODE, "no node");
  host_.RunPending();
  EXPECT_FALSE(host_.IsAlive(first));
  EXPECT_EQ(host_.LogLinesAt(4), std::vector<std::string>{Line(first, "Entry_RegisterMyNode", "Register my note failed, no node")});
  EXPECT_EQ(host_.RuntimeLines().back(), Failed(first, "Entry_RegisterMyNode"));
  EXPECT_FALSE(RegisterMyselfMachine::m_sLock.locked);
  EXPECT_FALSE(RegisterMyselfMachine::m_bRegister);

  StartRun();
  EXPECT_EQ(CountCalls("create"), 2u);
}

TEST_F(RegisterMyself, EveryRefusedCommandFailsTheRunAndTheNextRunRetries) {
  host_.Registry().SetCommandResult("set_callback", ZCONNECTIONLOSS);
  uint32_t id = StartRun();
  EXPECT_EQ(host_.LogLinesAt(4), std::vector<std::string>{Line(id, "Entry_Init", "call set_callback failed, node: /ovita2/agents/a1")});
  EXPECT_EQ(CountCalls("create"), 0u);
  EXPECT_EQ(host_.RuntimeLines().back(), Failed(id, "Entry_Init"));

  host_.ClearLog();
  host_.Registry().SetCommandResult("set_callback", 0);
  host_.Registry().SetCommandResult("create", ZBADARGUMENTS);
  id = StartRun();
  EXPECT_EQ(host_.LogLinesAt(4), std::vector<std::string>{Line(id, "Entry_Init", "call create failed, node: /ovita2/agents/a1")});
  EXPECT_EQ(host_.RuntimeLines().back(), Failed(id, "Entry_Init"));

  host_.ClearLog();
  host_.Registry().SetCommandResult("create", 0);
  host_.Registry().SetCommandResult("get", ZCONNECTIONLOSS);
  id = StartRun();
  AnswerOk();
  EXPECT_FALSE(host_.IsAlive(id));
  EXPECT_EQ(host_.LogLinesAt(4), std::vector<std::string>{Line(id, "Entry_RegisterMyNode", "call get myself failed")});
  EXPECT_EQ(host_.RuntimeLines().back(), Failed(id, "Entry_RegisterMyNode"));

  host_.ClearLog();
  host_.Registry().SetCommandResult("get", 0);
  id = StartRun();
  AnswerOk();
  host_.Registry().AnswerError(host_.Registry().LastCall(), ZCONNECTIONLOSS, "connection loss");
  host_.RunPending();
  EXPECT_EQ(host_.LogLinesAt(4), std::vector<std::string>{Line(id, "Entry_SetMyselfWatch", "Register myself watch failed, connection loss")});
  EXPECT_EQ(host_.RuntimeLines().back(), Failed(id, "Entry_SetMyselfWatch"));

  EXPECT_FALSE(RegisterMyselfMachine::m_bRegister);
  EXPECT_FALSE(RegisterMyselfMachine::m_sLock.locked);
}

TEST_F(RegisterMyself, NotReadyEndsAsDoneAndNoRegistryAsFailedBothWithoutACommand) {
  host_.SetReady(false);
  uint32_t id = StartRun();
  EXPECT_FALSE(host_.IsAlive(id));
  EXPECT_TRUE(host_.RuntimeLines().empty());
  EXPECT_FALSE(RegisterMyselfMachine::m_sLock.locked);

  host_.SetReady(true);
  host_.SetRegistryAvailable(false);
  id = StartRun();
  EXPECT_EQ(host_.RuntimeLines(), std::vector<std::string>{Failed(id, "Entry_Init")});
  EXPECT_EQ(host_.LogLines(), std::vector<std::string>{"handle of zookeeper not found"});
  EXPECT_TRUE(host_.Registry().Calls().empty());
  EXPECT_FALSE(RegisterMyselfMachine::m_sLock.locked);
}

TEST_F(RegisterMyself, TimeoutEndsTheRunAsFailedAndFreesTheLock) {
  uint32_t id = StartRun();
  host_.AdvanceClock(TestHost::kDefaultMachineTimeout);
  EXPECT_FALSE(host_.IsAlive(id));
  EXPECT_EQ(host_.LogLines().back(), Line(id, "Entry_RegisterMyNode", "Timeout occurred, delete myself"));
  EXPECT_EQ(host_.RuntimeLines(), std::vector<std::string>{Failed(id, "Entry_RegisterMyNode")});
  EXPECT_FALSE(RegisterMyselfMachine::m_sLock.locked);
  EXPECT_FALSE(RegisterMyselfMachine::m_bRegister);
}

TEST_F(RegisterMyself, OnlyALostNodeOrSessionOrAReconnectionMakesTheNextRunRegisterAgain) {
  StartRun();
  AnswerOk();
  AnswerOk();
  ASSERT_TRUE(RegisterMyselfMachine::m_bRegister);
  watcher_fn watcher = host_.Registry().LastCall().watcher;
  host_.ClearLog();

  watcher(nullptr, ZOO_CHANGED_EVENT, ZOO_CONNECTED_STATE, "/ovita2/agents/a1", nullptr);
  EXPECT_TRUE(RegisterMyselfMachine::m_bRegister);
  EXPECT_EQ(host_.LogLines(), std::vector<std::string>{"myself_watcher_fn type:" + std::to_string(ZOO_CHANGED_EVENT) +
                                                       ", state:" + std::to_string(ZOO_CONNECTED_STATE)});
  StartRun();
  EXPECT_EQ(CountCalls("create"), 1u);

  host_.ClearLog();
  watcher(nullptr, ZOO_DELETED_EVENT, ZOO_CONNECTED_STATE, "/ovita2/agents/a1", nullptr);
  EXPECT_FALSE(RegisterMyselfMachine::m_bRegister);
  EXPECT_EQ(host_.LogLines().back(), "Reset register flag by myself_watcher_fn\n");
  EXPECT_EQ(host_.LogLinesAt(2).size(), 2u);
  StartRun();
  EXPECT_EQ(CountCalls("create"), 2u);
  AnswerOk();
  AnswerOk();
  ASSERT_TRUE(RegisterMyselfMachine::m_bRegister);

  watcher(nullptr, ZOO_SESSION_EVENT, ZOO_EXPIRED_SESSION_STATE, "", nullptr);
  EXPECT_FALSE(RegisterMyselfMachine::m_bRegister);

  RegisterMyselfMachine::m_bRegister = true;
  host_.ClearLog();
  host_.Registry().Calls().front().callback();
  EXPECT_FALSE(RegisterMyselfMachine::m_bRegister);
  EXPECT_EQ(host_.LogLinesAt(2), std::vector<std::string>{"Reset register flag by conn_callback_myself"});

  // Above the progress level the callback and the watcher still act, silently.
  RegisterMyselfMachine::m_bRegister = true;
  host_.SetLogLevel(3);
  host_.ClearLog();
  watcher(nullptr, ZOO_DELETED_EVENT, ZOO_CONNECTED_STATE, "/ovita2/agents/a1", nullptr);
  EXPECT_FALSE(RegisterMyselfMachine::m_bRegister);
  EXPECT_TRUE(host_.LogLines().empty());
}

TEST(NamingRoutines, NamesAreRefreshedEveryTwentySecondsAndTheAgentRegistersEveryMinuteInThatOrder) {
  const auto& routines = RoutineUtil::Instance()->Routines();
  auto find = [&](zelvar::StateMachine* (*creator)()) {
    return std::find_if(routines.begin(), routines.end(), [&](const routing_machine_t& r) { return r.creator == creator; });
  };
  auto names = find(&UpdateNamesCreateMySelfForRoutine);
  auto myself = find(&RegisterMyselfCreateMySelfForRoutine);
  ASSERT_NE(names, routines.end());
  ASSERT_NE(myself, routines.end());
  EXPECT_LT(names, myself);
  EXPECT_EQ(names->interval, 20u);
  EXPECT_EQ(myself->interval, 60u);
  EXPECT_FALSE(names->once || myself->once);

  using zelvar::StateMachine;
  EXPECT_STREQ(StateMachine::GetGlobalStateName(55900, -1), "Entry_Init");
  EXPECT_STREQ(StateMachine::GetGlobalStateName(55900, 1), "Entry_WaitInfo");
  EXPECT_STREQ(StateMachine::GetGlobalStateName(9000000, -1), "Entry_Init");
  EXPECT_STREQ(StateMachine::GetGlobalStateName(9000000, 1), "Entry_RegisterMyNode");
  EXPECT_STREQ(StateMachine::GetGlobalStateName(9000000, 2), "Entry_SetMyselfWatch");
  std::unique_ptr<StateMachine> made(zelvar::MachineFactory::Instance()->CreateMachine(9000000));
  ASSERT_NE(made, nullptr);
  EXPECT_STREQ(made->MachineName(), "RegisterMyselfMachine");
  made.reset(zelvar::MachineFactory::Instance()->CreateMachine(55900));
  ASSERT_NE(made, nullptr);
  EXPECT_STREQ(made->MachineName(), "UpdateNamesMachine");
}

}  // namespace
