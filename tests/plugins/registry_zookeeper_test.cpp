// The ZooKeeper registry against a real server: the conformance suite, then
// what only a server shows: other sessions, watches, a server that goes away
// and comes back, an expired session.
#include "registry_test.h"
#include "zelvar/kadri.pb.h"
#include "zk_test_client.h"
#include "zookeeper/zookeeper_plugin_handle.h"
#include "zookeeper_test_server.h"

namespace zelvar::registry::testing {
namespace {

constexpr watcher_fn kNoWatch = nullptr;

// A server of its own, and a second session on it for seeding and looking.
struct ZooKeeperUnderTest : RegistryUnderTest {
  ZooKeeperUnderTest() {
    std::string error;
    if (!server.Start(&error)) ADD_FAILURE() << error;
    if (server.Running() && !client.Connect(server.Address())) ADD_FAILURE() << "no seeding session";
  }
  void Seed(const std::string& path, const std::string& address) override {
    kadri::NameNodeContent content;
    content.set_ip(address.substr(0, address.rfind(':')));
    content.set_port(std::stoi(address.substr(address.rfind(':') + 1)));
    ASSERT_EQ(client.CreateWithParents(path, content.SerializeAsString()), ZOK) << path;
  }
  void EnsureParents(const std::string& path) override {
    ASSERT_EQ(client.CreateWithParents(path.substr(0, path.rfind('/')), ""), ZOK) << path;
  }
  void Configure(TestHost& host) override {
    host.SetConfig("zookeeper", "hosts", server.Address());
    host.SetConfig("zookeeper", "session_timeout_ms", "4000");
  }
  const char* PluginPath() const override { return OVITA2_ZOOKEEPER_PLUGIN_PATH; }

  ZooKeeperTestServer server;
  ZkTestClient client;
};

INSTANTIATE_TEST_SUITE_P(ZooKeeper, RegistryConformance,
                         ::testing::Values(RegistryKind{"zookeeper", [] {
                                                          return std::unique_ptr<RegistryUnderTest>(
                                                              new ZooKeeperUnderTest());
                                                        }}),
                         [](const auto& info) { return std::string(info.param.name); });

struct WatchEvent {
  int type;
  std::string path;
};
std::vector<WatchEvent> watchEvents;
void RecordingWatcher(zhandle_t*, int type, int, const char* path, void*) { watchEvents.push_back({type, path}); }
int callbackCalls = 0;
void CountingCallback() { ++callbackCalls; }

class ZooKeeperRegistry : public ::testing::Test {
 protected:
  ZooKeeperRegistry() {
    watchEvents.clear();
    callbackCalls = 0;
    m_host.SetConfig("zookeeper", "hosts", m_server.Address());
    m_host.SetConfig("zookeeper", "session_timeout_ms", "4000");
  }
  void StartServer() {
    std::string error;
    ASSERT_TRUE(m_server.Start(&error)) << error;
  }
  void Load() {
    m_pPlugin = std::make_unique<LoadedPlugin>(OVITA2_ZOOKEEPER_PLUGIN_PATH, m_host);
    ASSERT_TRUE(m_pPlugin->Loaded());
    ASSERT_EQ(m_pPlugin->Init(), 0);
    m_pMachine = AnswerRecorder::Start(m_host);
  }
  bool AwaitReady() {
    return m_host.RunLoopUntil([this] { return m_pPlugin->IsReady(); });
  }
  int64_t PluginSession() {
    clientid_t id{};
    reinterpret_cast<ZooKeeperPluginHandle*>(m_pPlugin->Handle())->GetClientId(&id);
    return id.client_id;
  }
  // The code of the answer to "create path" (ephemeral, empty).
  int CreateEphemeral(const char* path) {
    size_t before = m_pMachine->answers.size();
    int rc = m_pPlugin->Call(m_pMachine, "create", path, "", int64_t{0}, ZOO_EPHEMERAL);
    if (rc != 0) return rc;
    m_host.RunLoopUntil([&] { return m_pMachine->answers.size() > before; });
    return m_pMachine->answers.size() > before ? m_pMachine->answers.back()->retcode : ZOPERATIONTIMEOUT;
  }

  TestHost m_host{ovita2::testing::PluginEntries{}};
  ZooKeeperTestServer m_server;
  ZkTestClient m_other;
  std::unique_ptr<LoadedPlugin> m_pPlugin;
  AnswerRecorder* m_pMachine = nullptr;
};

TEST_F(ZooKeeperRegistry, OwnsItsEphemeralNodesAndPassesOnWatchesOfOtherSessionsChanges) {
  ASSERT_NO_FATAL_FAILURE(StartServer());
  ASSERT_TRUE(m_other.Connect(m_server.Address()));
  ASSERT_EQ(m_other.CreateWithParents("/ovita2/agents/other", ""), ZOK);
  ASSERT_NO_FATAL_FAILURE(Load());
  ASSERT_TRUE(AwaitReady());

  ASSERT_EQ(CreateEphemeral("/ovita2/agents/me"), ZOK);
  Stat stat{};
  ASSERT_EQ(m_other.Exists("/ovita2/agents/me", &stat), ZOK);
  EXPECT_EQ(stat.ephemeralOwner, PluginSession());

  ASSERT_EQ(m_pPlugin->Call(m_pMachine, "get", "/ovita2/agents/other", &RecordingWatcher), 0);
  ASSERT_TRUE(m_host.RunLoopUntil([this] { return m_pMachine->answers.size() == 2; }));
  EXPECT_TRUE(watchEvents.empty());
  ASSERT_EQ(m_other.Delete("/ovita2/agents/other"), ZOK);
  ASSERT_TRUE(m_host.RunLoopUntil([] { return !watchEvents.empty(); }));
  EXPECT_EQ(watchEvents[0].type, ZOO_DELETED_EVENT);
  EXPECT_EQ(watchEvents[0].path, "/ovita2/agents/other");

  m_pPlugin->Unload();  // closes the session at once
  EXPECT_EQ(m_other.Exists("/ovita2/agents/me"), ZNONODE);
}

TEST_F(ZooKeeperRegistry, FollowsTheServerAwayAndBackRunningTheCallbackOnEachConnection) {
  ASSERT_NO_FATAL_FAILURE(Load());
  m_host.RunLoopUntil([] { return false; }, 200);
  EXPECT_FALSE(m_pPlugin->IsReady()) << "no server yet";
  EXPECT_EQ(m_pPlugin->Call(m_pMachine, "get", "/", kNoWatch), ZCONNECTIONLOSS);
  EXPECT_EQ(m_pPlugin->Call(m_pMachine, "set_callback", &CountingCallback), 0) << "kept while disconnected";

  for (int connection = 1; connection <= 2; ++connection) {
    ASSERT_NO_FATAL_FAILURE(StartServer());
    ASSERT_TRUE(m_host.RunLoopUntil([this] { return m_pPlugin->IsReady() && callbackCalls > 0; })) << connection;
    EXPECT_EQ(callbackCalls, connection);
    EXPECT_EQ(CreateEphemeral(connection == 1 ? "/first" : "/second"), ZOK);

    m_server.Stop();
    ASSERT_TRUE(m_host.RunLoopUntil([this] { return !m_pPlugin->IsReady(); })) << "the loss went unnoticed";
    EXPECT_TRUE(m_host.Logged("zookeeper registry: connection to " + m_server.Address() + " lost, reconnecting"));
    EXPECT_NE(m_pPlugin->Call(m_pMachine, "get", "/", kNoWatch), 0);
  }
  EXPECT_EQ(m_pMachine->answers.size(), 2u) << "a refused command was answered";
}

TEST_F(ZooKeeperRegistry, OpensANewSessionAfterItsSessionExpired) {
  ASSERT_NO_FATAL_FAILURE(StartServer());
  ASSERT_TRUE(m_other.Connect(m_server.Address()));
  ASSERT_NO_FATAL_FAILURE(Load());
  ASSERT_TRUE(AwaitReady());
  ASSERT_EQ(m_pPlugin->Call(m_pMachine, "set_callback", &CountingCallback), 0);
  ASSERT_EQ(CreateEphemeral("/me"), ZOK);
  clientid_t before{};
  reinterpret_cast<ZooKeeperPluginHandle*>(m_pPlugin->Handle())->GetClientId(&before);

  // Joining the plug-in's session from another handle and closing it there
  // ends the session on the server: the plug-in learns it has expired.
  ASSERT_TRUE(ZkTestClient().Connect(m_server.Address(), &before));
  ASSERT_TRUE(m_host.RunLoopUntil([&] { return m_pPlugin->IsReady() && callbackCalls == 1; })) << "no new session";
  EXPECT_NE(PluginSession(), before.client_id);
  EXPECT_EQ(m_other.Exists("/me"), ZNONODE) << "the old session's node outlived it";
  ASSERT_EQ(CreateEphemeral("/me"), ZOK);
  Stat stat{};
  ASSERT_EQ(m_other.Exists("/me", &stat), ZOK);
  EXPECT_EQ(stat.ephemeralOwner, PluginSession());
}

}  // namespace
}  // namespace zelvar::registry::testing
