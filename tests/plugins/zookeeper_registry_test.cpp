// The ZooKeeper registry against a real server: sessions, ephemeral nodes,
// watches, a server that goes away and comes back, an expired session.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "answer_recorder.h"
#include "loaded_plugin.h"
#include "test_host.h"
#include "zk_test_client.h"
#include "zookeeper/zookeeper_plugin_handle.h"
#include "zookeeper_test_server.h"

namespace zelvar::registry::testing {
namespace {

struct WatchEvent {
  int type;
  int state;
  std::string path;
  void* context;
};
std::vector<WatchEvent> watchEvents;
void RecordingWatcher(zhandle_t*, int type, int state, const char* path, void* context) {
  watchEvents.push_back({type, state, path != nullptr ? path : "", context});
}

int callbackCalls = 0;
void CountingCallback() { ++callbackCalls; }

class ZooKeeperRegistryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    watchEvents.clear();
    callbackCalls = 0;
    m_host.SetConfig("zookeeper", "hosts", m_server.Address());
    m_host.SetConfig("zookeeper", "session_timeout_ms", "4000");
  }

  void StartServer() {
    std::string error;
    ASSERT_TRUE(m_server.Start(&error)) << error;
  }
  // Loads the plug-in; waits for its session when `waitReady`.
  void Load(bool waitReady = true) {
    m_pPlugin = std::make_unique<LoadedPlugin>(OVITA2_ZOOKEEPER_PLUGIN_PATH, m_host);
    ASSERT_EQ(m_pPlugin->Error(), "");
    ASSERT_EQ(m_pPlugin->Init(), 0);
    if (waitReady) {
      ASSERT_TRUE(m_host.RunUntil([this] { return m_pPlugin->IsReady(); }));
    }
  }
  void ConnectOther() { ASSERT_TRUE(m_other.Connect(m_server.Address())); }

  ZooKeeperPluginHandle* Handle() { return reinterpret_cast<ZooKeeperPluginHandle*>(m_pPlugin->Handle()); }
  clientid_t SessionOfPlugin() {
    clientid_t id{};
    EXPECT_EQ(Handle()->GetClientId(&id), 0);
    return id;
  }
  template <typename... Args>
  int Call(StateMachine* machine, const char* command, Args... args) {
    return Handle()->common.ZKPluginCall(machine->GetMachineId(), command, args...);
  }
  const ZKPluginResponse* Await(AnswerRecorder* recorder, size_t count) {
    m_host.RunUntil([&] { return recorder->answers.size() >= count; });
    EXPECT_EQ(recorder->answers.size(), count);
    return recorder->answers.size() == count ? recorder->answers.back().get() : nullptr;
  }

  TestHost m_host;
  ZooKeeperTestServer m_server;
  ZkTestClient m_other;
  std::unique_ptr<LoadedPlugin> m_pPlugin;
};

TEST_F(ZooKeeperRegistryTest, EphemeralNodeIsSeenFromAnotherSessionAndGoesWithThePlugin) {
  ASSERT_NO_FATAL_FAILURE(StartServer());
  ASSERT_NO_FATAL_FAILURE(ConnectOther());
  ASSERT_EQ(m_other.CreateWithParents("/ovita2/agents", ""), ZOK);
  ASSERT_NO_FATAL_FAILURE(Load());
  AnswerRecorder* machine = AnswerRecorder::Start(m_host);

  ASSERT_EQ(Call(machine, "create", "/ovita2/agents/me", "self", int64_t{4}, ZOO_EPHEMERAL), 0);
  const ZKPluginResponse* created = Await(machine, 1);
  ASSERT_NE(created, nullptr);
  ASSERT_EQ(created->retcode, 0);

  Stat stat{};
  ASSERT_EQ(m_other.Exists("/ovita2/agents/me", &stat), ZOK);
  EXPECT_EQ(stat.ephemeralOwner, SessionOfPlugin().client_id);
  EXPECT_EQ(stat.dataLength, 4);

  m_pPlugin->Unload();  // closes the session at once
  EXPECT_EQ(m_other.Exists("/ovita2/agents/me"), ZNONODE);
}

TEST_F(ZooKeeperRegistryTest, WatchFiresWithDeletedEventWhenAnotherClientDeletesTheNode) {
  ASSERT_NO_FATAL_FAILURE(StartServer());
  ASSERT_NO_FATAL_FAILURE(ConnectOther());
  ASSERT_EQ(m_other.CreateWithParents("/ovita2/agents/me", "x"), ZOK);
  ASSERT_NO_FATAL_FAILURE(Load());
  AnswerRecorder* machine = AnswerRecorder::Start(m_host);

  ASSERT_EQ(Call(machine, "get", "/ovita2/agents/me", &RecordingWatcher), 0);
  const ZKPluginResponse* read = Await(machine, 1);
  ASSERT_NE(read, nullptr);
  ASSERT_EQ(read->retcode, 0);
  EXPECT_TRUE(watchEvents.empty());

  ASSERT_EQ(m_other.Delete("/ovita2/agents/me"), ZOK);
  ASSERT_TRUE(m_host.RunUntil([] { return !watchEvents.empty(); }));
  ASSERT_EQ(watchEvents.size(), 1u);
  EXPECT_EQ(watchEvents[0].type, ZOO_DELETED_EVENT);
  EXPECT_EQ(watchEvents[0].state, ZOO_CONNECTED_STATE);
  EXPECT_EQ(watchEvents[0].path, "/ovita2/agents/me");
  EXPECT_EQ(watchEvents[0].context, nullptr);
}

TEST_F(ZooKeeperRegistryTest, StartsWithoutAServerAndConnectsWhenOneAppears) {
  ASSERT_NO_FATAL_FAILURE(Load(false));
  AnswerRecorder* machine = AnswerRecorder::Start(m_host);
  for (int i = 0; i < 5; ++i) m_host.Turn();
  EXPECT_FALSE(m_pPlugin->IsReady());
  EXPECT_EQ(Call(machine, "listvalue", "/", static_cast<watcher_fn>(nullptr)), ZCONNECTIONLOSS);
  EXPECT_EQ(Call(machine, "set_callback", &CountingCallback), 0) << "a callback is kept even while disconnected";

  ASSERT_NO_FATAL_FAILURE(StartServer());
  ASSERT_TRUE(m_host.RunUntil([this] { return m_pPlugin->IsReady(); }));
  EXPECT_TRUE(m_host.RunUntil([] { return callbackCalls == 1; }));
  ASSERT_EQ(Call(machine, "listvalue", "/", static_cast<watcher_fn>(nullptr)), 0);
  const ZKPluginResponse* root = Await(machine, 1);
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(root->retcode, 0);
  EXPECT_TRUE(machine->answers.size() == 1) << "the refused command was never answered";
}

TEST_F(ZooKeeperRegistryTest, ReconnectsAfterTheServerRestartsAndRunsTheCallbackAgain) {
  ASSERT_NO_FATAL_FAILURE(StartServer());
  ASSERT_NO_FATAL_FAILURE(Load());
  AnswerRecorder* machine = AnswerRecorder::Start(m_host);
  ASSERT_EQ(Call(machine, "set_callback", &CountingCallback), 0);
  EXPECT_EQ(callbackCalls, 0);

  m_server.Stop();
  ASSERT_TRUE(m_host.RunUntil([this] { return !m_pPlugin->IsReady(); })) << "the loss went unnoticed";
  EXPECT_NE(Call(machine, "get", "/", static_cast<watcher_fn>(nullptr)), 0);
  EXPECT_TRUE(m_host.Logged("connection to " + m_server.Address() + " lost"));

  ASSERT_NO_FATAL_FAILURE(StartServer());
  ASSERT_TRUE(m_host.RunUntil([this] { return m_pPlugin->IsReady() && callbackCalls >= 1; }));
  EXPECT_EQ(callbackCalls, 1);
  ASSERT_EQ(Call(machine, "get", "/", static_cast<watcher_fn>(nullptr)), 0);
  const ZKPluginResponse* root = Await(machine, 1);
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(root->retcode, 0);
}

TEST_F(ZooKeeperRegistryTest, OpensANewSessionAfterItsSessionExpired) {
  ASSERT_NO_FATAL_FAILURE(StartServer());
  ASSERT_NO_FATAL_FAILURE(ConnectOther());
  ASSERT_EQ(m_other.CreateWithParents("/ovita2/agents", ""), ZOK);
  ASSERT_NO_FATAL_FAILURE(Load());
  AnswerRecorder* machine = AnswerRecorder::Start(m_host);
  ASSERT_EQ(Call(machine, "set_callback", &CountingCallback), 0);
  ASSERT_EQ(Call(machine, "create", "/ovita2/agents/me", "", int64_t{0}, ZOO_EPHEMERAL), 0);
  ASSERT_EQ(Await(machine, 1)->retcode, 0);
  clientid_t before = SessionOfPlugin();

  // Joining the plug-in's session from another handle and closing it there
  // ends the session on the server: the plug-in learns it has expired.
  {
    ZkTestClient intruder;
    ASSERT_TRUE(intruder.Connect(m_server.Address(), &before));
  }
  ASSERT_TRUE(m_host.RunUntil([&] {
    return m_pPlugin->IsReady() && SessionOfPlugin().client_id != before.client_id && callbackCalls >= 1;
  })) << "no new session";
  EXPECT_TRUE(m_host.Logged("expired, opening a new one"));
  EXPECT_EQ(m_other.Exists("/ovita2/agents/me"), ZNONODE) << "the old session's ephemeral node outlived it";

  ASSERT_EQ(Call(machine, "create", "/ovita2/agents/me", "", int64_t{0}, ZOO_EPHEMERAL), 0);
  const ZKPluginResponse* again = Await(machine, 2);
  ASSERT_NE(again, nullptr);
  EXPECT_EQ(again->retcode, 0);
  Stat stat{};
  ASSERT_EQ(m_other.Exists("/ovita2/agents/me", &stat), ZOK);
  EXPECT_EQ(stat.ephemeralOwner, SessionOfPlugin().client_id);
}

}  // namespace
}  // namespace zelvar::registry::testing
