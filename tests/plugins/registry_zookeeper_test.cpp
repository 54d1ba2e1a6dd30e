// The ZooKeeper registry against a real server: the conformance suite, then
// what only a server shows: sessions, watches, a server that goes and returns.
#include "registry_test.h"
#include "zelvar/kadri.pb.h"
#include "zk_test_client.h"
#include "zookeeper/zookeeper_plugin_handle.h"
#include "zookeeper_test_server.h"

namespace zelvar::registry::testing {
namespace {

// A server of its own, and a second session on it to seed and look.
struct ZooKeeperUnderTest : RegistryUnderTest {
  explicit ZooKeeperUnderTest(TestHost& host) : RegistryUnderTest(OVITA2_ZOOKEEPER_PLUGIN_PATH) {
    std::string error;
    if (!server.Start(&error)) ADD_FAILURE() << error;
    if (server.Running() && !other.Connect(server.Address())) ADD_FAILURE() << "no second session";
    host.SetConfig("zookeeper", "hosts", server.Address());
    host.SetConfig("zookeeper", "session_timeout_ms", "4000");
  }
  void Seed(const std::string& path, const std::string& ip, int port) override {
    kadri::NameNodeContent content;
    content.set_ip(ip), content.set_port(port);
    ASSERT_EQ(other.CreateWithParents(path, content.SerializeAsString()), ZOK) << path;
  }

  ZooKeeperTestServer server;
  ZkTestClient other;
};

INSTANTIATE_TEST_SUITE_P(ZooKeeper, RegistryConformance, ::testing::Values("zookeeper"));

class ZooKeeperRegistry : public RegistryConformance {
 protected:
  ZooKeeperUnderTest& Zk() { return static_cast<ZooKeeperUnderTest&>(*m_pRegistry); }
  clientid_t PluginSession() {
    clientid_t id{};
    EXPECT_EQ(reinterpret_cast<ZooKeeperPluginHandle*>(Handle())->GetClientId(&id), 0);
    return id;
  }
  // Creates the ephemeral node `path`: its owner as the second session sees it.
  int64_t CreateEphemeral(const char* path) {
    Ask("create", path, "", int64_t{0}, ZOO_EPHEMERAL);
    Stat stat{};
    return Zk().other.Exists(path, &stat) == ZOK ? stat.ephemeralOwner : 0;
  }
};

INSTANTIATE_TEST_SUITE_P(Server, ZooKeeperRegistry, ::testing::Values("zookeeper"));

TEST_P(ZooKeeperRegistry, OwnsItsEphemeralNodesForItsSessionOnlyAndOpensANewOneWhenItExpires) {
  m_pRegistry->Seed("/ovita2/agents/other", "127.0.0.1", 1);
  ASSERT_NO_FATAL_FAILURE(Load());
  ASSERT_EQ(Call("set_callback", &CountingCallback), 0);
  clientid_t before = PluginSession();
  EXPECT_EQ(CreateEphemeral("/ovita2/agents/me"), before.client_id);
  ASSERT_NE(Ask("get", "/ovita2/agents/other", &RecordingWatcher), nullptr);
  ASSERT_EQ(Zk().other.Delete("/ovita2/agents/other"), ZOK);
  ASSERT_TRUE(m_host.RunLoopUntil([] { return !watchEvents.empty(); }));
  EXPECT_EQ(watchEvents[0], std::make_pair(ZOO_DELETED_EVENT, std::string("/ovita2/agents/other")));

  // Joining the plug-in's session from another handle and closing it there
  // ends the session on the server: the plug-in learns it has expired.
  ASSERT_TRUE(ZkTestClient().Connect(Zk().server.Address(), &before));
  ASSERT_TRUE(m_host.RunLoopUntil([&] { return IsReady() && callbackCalls == 1; })) << "no new session";
  EXPECT_EQ(Zk().other.Exists("/ovita2/agents/me"), ZNONODE) << "the old session's node outlived it";
  EXPECT_EQ(CreateEphemeral("/ovita2/agents/me"), PluginSession().client_id);
  Unload();  // closes the session at once
  EXPECT_EQ(Zk().other.Exists("/ovita2/agents/me"), ZNONODE);
}

TEST_P(ZooKeeperRegistry, FollowsTheServerAwayAndBackRunningTheCallbackOnEachConnection) {
  Zk().server.Stop();
  ASSERT_NO_FATAL_FAILURE(Load(false));
  m_host.RunLoopUntil([] { return false; }, 200);
  EXPECT_FALSE(IsReady()) << "no server yet";
  EXPECT_EQ(Call("get", "/", kNoWatch), ZCONNECTIONLOSS);
  EXPECT_EQ(Call("set_callback", &CountingCallback), 0) << "kept while disconnected";
  std::string error;
  for (int connection = 1; connection <= 2; ++connection) {
    ASSERT_TRUE(Zk().server.Start(&error)) << error;
    ASSERT_TRUE(m_host.RunLoopUntil([&] { return IsReady() && callbackCalls >= connection; }));
    EXPECT_EQ(callbackCalls, connection);
    EXPECT_NE(Ask("get", "/", kNoWatch), nullptr);
    Zk().server.Stop();
    ASSERT_TRUE(m_host.RunLoopUntil([this] { return !IsReady(); })) << "the loss went unnoticed";
    EXPECT_NE(Call("get", "/", kNoWatch), 0);
  }
  EXPECT_EQ(m_pMachine->answers.size(), 2u) << "a refused command was answered";
  // Its data gone, the server refuses the old session for being ahead of it.
  Zk().server.StopAndWipe();
  ASSERT_TRUE(Zk().server.Start(&error)) << error;
  ASSERT_TRUE(m_host.RunLoopUntil([] { return callbackCalls == 3; }, 20000)) << "never rejoined";
  const ZKPluginResponse* created = Ask("create", "/ovita2/agents/a1", "x", int64_t{1}, 0);
  EXPECT_EQ(created != nullptr ? created->retcode : 1, ZOK) << "in the new session, under parents it makes";
}

}  // namespace

std::unique_ptr<RegistryUnderTest> MakeRegistry(TestHost& host) { return std::make_unique<ZooKeeperUnderTest>(host); }

}  // namespace zelvar::registry::testing
