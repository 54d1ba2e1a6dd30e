// The name service: the container, the registry handle, refreshing the
// instances, registering this agent, and the two lookups built on names.
#include <google/protobuf/text_format.h>
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

namespace ovita2::testing {
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
  for (std::string name : {"A", "B", "C"}) names->DefineName(name, "/" + name);
  AddInstance("A", "10.0.0.8", 1);  // gone from the listing below
  AddInstance("B", "10.0.0.9", 1);
  names->SetUpdateHook([] { ++g_refreshes; });
  uint32_t id = host_.Start(new UpdateNamesMachine());
  FakeRegistry& registry = host_.Registry();
  ASSERT_EQ(registry.LastCall().path, "/A");
  registry.Answer(registry.LastCall(), 0, {{"a1", Address("10.0.0.1", 11).SerializeAsString()}, {"bad", "\xff"}});
  host_.RunPending();
  ASSERT_EQ(registry.LastCall().path, "/B");
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
  uint32_t Run() { return host_.Start(new RegisterMyselfMachine()); }
  void Answer(int retcode) {
    host_.Registry().Answer(host_.Registry().LastCall(), retcode);
    host_.RunPending();
  }
};

TEST_F(RegisterMyself, CreatesTheEphemeralNodeThenWatchesItAndForgetsItWhenItMayBeGone) {
  // The create's and the get's answers, and whether the agent is registered after them.
  const std::tuple<int, int, bool> answers[] = {
      {ZCONNECTIONLOSS, ZOK, false}, {ZOK, ZCONNECTIONLOSS, false}, {ZNODEEXISTS, ZOK, true}, {ZOK, ZOK, true}};
  for (const auto& [created, watched, registered] : answers) {
    RegisterMyselfMachine::m_bRegister = false;
    uint32_t id = Run();
    const RegistryCall& create = host_.Registry().LastCall();
    EXPECT_EQ(create.command + create.path, "create/agents/a7");
    EXPECT_TRUE(create.data == Address("10.1.1.1", 9300).SerializeAsString() && create.flags == ZOO_EPHEMERAL);
    EXPECT_EQ(host_.Registry().Calls().front().callback, &conn_callback_myself);
    Answer(created);
    if (created != ZCONNECTIONLOSS) {
      const RegistryCall& get = host_.Registry().LastCall();
      EXPECT_TRUE(get.command == "get" && get.watcher == &myself_watcher_fn);
      Answer(watched);
    }
    EXPECT_FALSE(host_.IsAlive(id));
    EXPECT_EQ(RegisterMyselfMachine::m_bRegister, registered) << created << "/" << watched;
    EXPECT_EQ(RegisterMyselfMachine::m_sLock.locked, 0) << "a run that ended leaves the lock free";
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
  RegisterMyselfMachine::m_bRegister = true;
  conn_callback_myself();
  EXPECT_FALSE(RegisterMyselfMachine::m_bRegister) << "a new session may have lost the node";
}

TEST_F(RegisterMyself, TheLockIsTakenBeforeReadinessOrTheFlagIsLookedAt) {
  for (bool notReady : {false, true}) {
    ResetAgentState();
    Run();  // holds the lock while its node is being created
    host_.SetReady(!notReady);
    RegisterMyselfMachine::m_bRegister = !notReady;
    host_.ClearLog();
    Run();
    EXPECT_TRUE(host_.Logged("Someone is registing...")) << "a second run is turned away by the lock";
    Answer(ZCONNECTIONLOSS);
  }
}

struct Lookup {
  const char* service;
  zelvar::StateMachine* (*create)();
  bool isTaskQueue;  // else the aggregation lookup, which takes its flow number before resolving its service
  unsigned replyType;
  const char* reply;
};
const Lookup kLookups[] = {{"MASTER", UpdateTaskQueueCreateMySelf, true, 67001, "get_task_queue_response"},
                           {"TELLAR2_ACCESS", UpdateAggregationCreateMySelf, false, 66001, "get_aggregation_response"}};

TEST_F(Naming, LookupRepliesAreReadEveryReplyIsGivenBackAndWithoutAnInstanceAFlowNumberIsSpentOnlyIfTakenFirst) {
  // The reply, then what each lookup keeps: a known task queue keeps its first address.
  const std::tuple<const char*, const char*, const char*> steps[] = {
      {"rc { code: 0 } name: '1' ip: '10.9.0.1'", "1@10.9.0.1", "1@10.9.0.1"},
      {"rc { code: 5 } name: '2' ip: '10.9.0.2'", "1@10.9.0.1", "1@10.9.0.1"},
      {"rc { code: 0 }", "1@10.9.0.1", "@"}, {"rc { code: 0 } name: '3' ip: '10.9.0.3'", "3@10.9.0.3", "3@10.9.0.3"}};
  host_.SetConfig("common", "myname", "/agents/a7");
  for (const Lookup& lookup : kLookups) {
    unsigned before = BEVMachineUtil::Flowno();
    EXPECT_FALSE(host_.IsAlive(host_.Start(lookup.create())));
    EXPECT_EQ(BEVMachineUtil::Flowno() - before, lookup.isTaskQueue ? 1u : 2u) << lookup.service;
    AddInstance(lookup.service, "10.0.0.1", 9100);
    for (const auto& [answer, taskQueueKeeps, aggregationKeeps] : steps) {
      host_.Start(lookup.create());
      zelvar::ZMessage request;
      ASSERT_TRUE(host_.Peer("10.0.0.1", 9100).ReadFrame(&request));
      EXPECT_EQ(request.head().message_type(), lookup.replyType - 1);
      EXPECT_NE(request.body().ShortDebugString().find("\"/agents/a7\""), std::string::npos);
      zelvar::ZMessage reply;
      zelvar::MakeResponse(request, static_cast<int>(lookup.replyType), &reply);
      std::string body = std::string("[zelvar.ovita2.") + lookup.reply + "] { " + answer + " }";
      ASSERT_TRUE(google::protobuf::TextFormat::MergeFromString(body, reply.mutable_body()));
      host_.Peer("10.0.0.1", 9100).Send(reply);
      host_.RunPending();
      EXPECT_EQ(host_.Releases(host_.LastRouted()), 1) << body;
      EXPECT_EQ(lookup.isTaskQueue ? g_strTQName + "@" + g_strTQIP : g_strAggrName + "@" + g_strAggrIP,
                lookup.isTaskQueue ? taskQueueKeeps : aggregationKeeps);
    }
  }
}

}  // namespace
}  // namespace ovita2::testing
