// The name service: the container, the registry handle, refreshing the
// instances, registering this agent, and the two lookups built on names.
#include <zookeeper/zookeeper.h>

#include <tuple>

#include "agent_test.h"
#include "naming/register_myself.h"
#include "naming/update_aggregation.h"
#include "naming/update_names.h"
#include "naming/update_task_queue.h"
#include "naming/zk_access.h"
#include "zelvar/ovita2.pb.h"

zelvar::StateMachine* UpdateTaskQueueCreateMySelf();
zelvar::StateMachine* UpdateAggregationCreateMySelf();

namespace ovita2 {
namespace testing {
namespace {

using Naming = AgentTest;

TEST_F(Naming, FirstDefinitionWinsAndInstancesAreSharedByChildKey) {
  NameContainer* names = NameContainer::Instance();
  EXPECT_TRUE(names->DefineName("MASTER", "/a"));
  EXPECT_FALSE(names->DefineName("MASTER", "/b"));
  EXPECT_EQ(names->Names().at("MASTER"), "/a");
  names->SetNameValue("MASTER", "node-1", Address("10.0.0.1", 1));
  const zelvar::kadri::NameNodeContent* kept = names->GetNNCWithName("node-1");
  names->SetNameValue("OTHER", "node-1", Address("10.0.0.2", 1));  // same child key: the later write wins, in place
  EXPECT_EQ(kept, names->GetNNCWithName("node-1"));
  EXPECT_EQ(names->GetNameValue("MASTER")->ip(), "10.0.0.2");
  names->ClearNameValue("MASTER");
  EXPECT_TRUE(names->GetNameValue("MASTER") == nullptr && names->FindNameValues("MASTER").empty());
  EXPECT_EQ(names->FindNameValues("OTHER").size(), 1u);
}

TEST_F(Naming, RegistryHandleIsKeptOnceTheHostHasOne) {
  host_.SetRegistryAvailable(false);
  // Only a fresh process (as ctest runs each test) has no handle kept yet.
  if (ei_handle() == nullptr) {
    host_.SetRegistryAvailable(true);
    EXPECT_NE(ei_handle(), nullptr) << "a missing handle is asked for again";
    host_.SetRegistryAvailable(false);
  }
  EXPECT_NE(ei_handle(), nullptr) << "the first handle found is kept";
}

int g_refreshes = 0;

TEST_F(Naming, RefreshListsEveryNameAndKeepsWhatItCannotLearn) {
  NameContainer* names = NameContainer::Instance();
  names->DefineName("A", "/a");
  names->DefineName("B", "/b");
  names->DefineName("C", "/c");
  AddInstance("A", "10.0.0.8", 1);  // gone from the listing below
  AddInstance("B", "10.0.0.9", 1);
  names->SetUpdateHook([] { ++g_refreshes; });
  uint32_t id = host_.Start(new UpdateNamesMachine()).id;
  FakeRegistry& registry = host_.Registry();
  ASSERT_EQ(registry.LastCall().path, "/a");
  registry.Answer(registry.LastCall(), 0, {{"a1", Address("10.0.0.1", 11).SerializeAsString()}, {"bad", "\xff"}});
  host_.RunPending();
  ASSERT_EQ(registry.LastCall().path, "/b");
  registry.SetCommandResult("listvalue", ZCONNECTIONLOSS);
  registry.Answer(registry.LastCall(), ZNONODE);  // an error answer: B keeps its instance
  host_.RunPending();
  EXPECT_EQ(registry.Calls().size(), 3u);
  EXPECT_FALSE(host_.IsAlive(id)) << "a refused command ends the run";
  EXPECT_EQ(names->FindNameValues("A").size(), 1u);
  EXPECT_EQ(names->GetNameValue("A")->port(), 11) << "the listing replaces the old instance";
  EXPECT_EQ(names->GetNameValue("B")->ip(), "10.0.0.9");
  EXPECT_EQ(g_refreshes, 1);
}

class RegisterMyself : public AgentTest {
 protected:
  RegisterMyself() {
    host_.SetConfig("common", "myname", "/agents/a7");
    host_.SetConfig("network", "listen-ip", "10.1.1.1");
    host_.SetConfig("network", "listen-port", "9300");
  }
  uint32_t Run() { return host_.Start(new RegisterMyselfMachine()).id; }
  void Answer(int retcode) {
    host_.Registry().Answer(host_.Registry().LastCall(), retcode);
    host_.RunPending();
  }
};

TEST_F(RegisterMyself, CreatesTheEphemeralNodeThenWatchesItAndForgetsItWhenItMayBeGone) {
  for (int createResult : {ZOK, ZNODEEXISTS}) {
    ResetAgentState();
    uint32_t id = Run();
    const RegistryCall& create = host_.Registry().LastCall();
    EXPECT_EQ(create.command + create.path, "create/agents/a7");
    EXPECT_TRUE(create.data == Address("10.1.1.1", 9300).SerializeAsString() && create.flags == ZOO_EPHEMERAL);
    EXPECT_EQ(host_.Registry().Calls().front().callback, &conn_callback_myself);
    Answer(createResult);
    EXPECT_TRUE(host_.Registry().LastCall().command == "get" && host_.Registry().LastCall().watcher == &myself_watcher_fn);
    Answer(ZOK);
    EXPECT_TRUE(!host_.IsAlive(id) && RegisterMyselfMachine::m_bRegister);
  }
  size_t calls = host_.Registry().Calls().size();
  Run();
  EXPECT_EQ(host_.Registry().Calls().size(), calls) << "a registered agent does nothing";
  const std::tuple<int, int, bool> events[] = {{ZOO_CHANGED_EVENT, ZOO_CONNECTED_STATE, true},
                                               {ZOO_DELETED_EVENT, ZOO_CONNECTED_STATE, false},
                                               {ZOO_SESSION_EVENT, ZOO_EXPIRED_SESSION_STATE, false}};
  for (const auto& event : events) {
    RegisterMyselfMachine::m_bRegister = true;
    myself_watcher_fn(nullptr, std::get<0>(event), std::get<1>(event), "/agents/a7", nullptr);
    EXPECT_EQ(RegisterMyselfMachine::m_bRegister, std::get<2>(event)) << std::get<0>(event);
  }
  conn_callback_myself();
  EXPECT_FALSE(RegisterMyselfMachine::m_bRegister) << "a new session may have lost the node";
}

TEST_F(RegisterMyself, FailureAtAnyStepLeavesItUnregisteredAndUnlocked) {
  for (int failedStep = 0; failedStep < 2; ++failedStep) {
    Run();
    if (failedStep == 1) Answer(ZOK);
    Answer(ZCONNECTIONLOSS);
    EXPECT_FALSE(RegisterMyselfMachine::m_bRegister);
    EXPECT_EQ(RegisterMyselfMachine::m_sLock.locked, 0) << failedStep;
  }
}

TEST_F(RegisterMyself, TheLockIsTakenBeforeReadinessOrTheFlagIsLookedAt) {
  for (bool notReady : {true, false}) {
    ResetAgentState();
    host_.SetReady(true);
    Run();  // holds the lock while its node is being created
    host_.SetReady(!notReady);
    RegisterMyselfMachine::m_bRegister = !notReady;
    host_.ClearLog();
    Run();
    EXPECT_TRUE(host_.Logged("Someone is registing...")) << "a second run is turned away by the lock";
    Answer(ZCONNECTIONLOSS);
  }
}

template <typename Extension>
void FillReply(zelvar::ZMessage* reply, const Extension& extension, int code, const std::string& name) {
  auto* response = reply->mutable_body()->MutableExtension(extension);
  response->mutable_rc()->set_code(code);
  response->set_name(name);
  response->set_ip(name.empty() ? "" : "10.9.0." + name);
}

struct Lookup {
  const char* service;
  zelvar::StateMachine* (*create)();
  bool isTaskQueue;  // else the aggregation lookup, which takes its flow number before resolving its service
  unsigned replyType;
};
const Lookup kLookups[] = {{"MASTER", UpdateTaskQueueCreateMySelf, true, 67001},
                           {"TELLAR2_ACCESS", UpdateAggregationCreateMySelf, false, 66001}};

TEST_F(Naming, LookupWithoutAnInstanceSpendsAFlowNumberOnlyIfItTakesItFirst) {
  for (const Lookup& lookup : kLookups) {
    unsigned before = BEVMachineUtil::Flowno();
    EXPECT_FALSE(host_.IsAlive(host_.Start(lookup.create()).id));
    EXPECT_EQ(BEVMachineUtil::Flowno() - before, lookup.isTaskQueue ? 1u : 2u) << lookup.service;
  }
}

TEST_F(Naming, LookupRepliesAreReadAndEveryReplyIsGivenBack) {
  struct Step {
    int code;
    const char* name;
    const char* taskQueueKeeps;  // a known queue keeps its first address
    const char* aggregationKeeps;
  };
  const Step steps[] = {{0, "1", "1@10.9.0.1", "1@10.9.0.1"}, {5, "2", "1@10.9.0.1", "1@10.9.0.1"},
                        {0, "", "1@10.9.0.1", "@"}, {0, "3", "3@10.9.0.3", "3@10.9.0.3"}};
  host_.SetConfig("common", "myname", "/agents/a7");
  for (const Lookup& lookup : kLookups) {
    AddInstance(lookup.service, "10.0.0.1", 9100);
    for (const Step& step : steps) {
      host_.Start(lookup.create());
      zelvar::ZMessage request;
      ASSERT_TRUE(host_.Peer("10.0.0.1", 9100).ReadFrame(&request));
      EXPECT_EQ(request.head().message_type(), lookup.replyType - 1);
      EXPECT_NE(request.body().ShortDebugString().find("\"/agents/a7\""), std::string::npos);
      zelvar::ZMessage reply = ReplyTo(request, lookup.replyType);
      if (lookup.isTaskQueue) FillReply(&reply, zelvar::ovita2::get_task_queue_response, step.code, step.name);
      if (!lookup.isTaskQueue) FillReply(&reply, zelvar::ovita2::get_aggregation_response, step.code, step.name);
      host_.Peer("10.0.0.1", 9100).Send(reply);
      host_.RunPending();
      EXPECT_EQ(host_.Releases(host_.LastRouted()), 1) << lookup.service << " " << step.code << step.name;
      EXPECT_EQ(lookup.isTaskQueue ? g_strTQName + "@" + g_strTQIP : g_strAggrName + "@" + g_strAggrIP,
                lookup.isTaskQueue ? step.taskQueueKeeps : step.aggregationKeeps);
    }
  }
}

}  // namespace
}  // namespace testing
}  // namespace ovita2
