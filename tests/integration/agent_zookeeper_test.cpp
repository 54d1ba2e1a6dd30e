// The agent inside zelvar-host with the ZooKeeper registry and a real server.
// The routines' intervals (20 s and 60 s) are not waited out: the test starts
// runs of the machines through the factory, as the routine would.
#include <gtest/gtest.h>

#include <chrono>

#include "host.h"
#include "local_system.h"
#include "zelvar/kadri.pb.h"
#include "zelvar/machine_factory.h"
#include "zk_test_client.h"
#include "zookeeper/zookeeper_plugin_handle.h"
#include "zookeeper_test_server.h"

namespace {

constexpr unsigned kUpdateNamesType = 55900;
constexpr unsigned kRegisterMyselfType = 9000000;

std::string LoopbackAddress(int port) {
  zelvar::kadri::NameNodeContent content;
  content.set_ip("127.0.0.1"), content.set_port(port);
  return content.SerializeAsString();
}

// A server holding one MASTER instance, and an agent in this process whose
// node and names are in place.
class AgentZooKeeper : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string error;
    ASSERT_TRUE(server.Start(&error)) << error;
    ASSERT_TRUE(outside.Connect(server.Address()));
    ASSERT_EQ(outside.CreateWithParents("/ovita2/names/MASTER/m1", LoopbackAddress(7100)), ZOK);
    ASSERT_EQ(outside.Create("/ovita2/agents", "", ZOO_PERSISTENT), ZOK);
    const std::string config = "[host]\nlog_file = host.log\nlog_level = 1\n[plugins]\nzookeeper = "
        ZOOKEEPER_REGISTRY_PATH "\nagent = " AGENT_PLUGIN_PATH "\n[zookeeper]\nhosts = " + server.Address() +
        "\nsession_timeout_ms = 4000\n[network]\nlisten-ip = 127.0.0.1\nlisten-port = " + std::to_string(port) +
        "\n[common]\nmyname = /ovita2/agents/a1\n[names]\nMASTER = /ovita2/names/MASTER\n";
    ASSERT_TRUE(agent.Init(dir.Write("agent.ini", config), &error)) << error;
    ASSERT_TRUE(agent.RunUntil([&] { return agent.IsReady(); }, 10.0)) << Log();
    ASSERT_TRUE(StartMachine(kUpdateNamesType) && StartMachine(kRegisterMyselfType));
    ASSERT_TRUE(RunUntilLogged("|Register myself finished", 1, 5.0)) << Log();
    ASSERT_TRUE(RunUntilLogged("|name=MASTER, ip=127.0.0.1, port=7100", 1, 5.0)) << Log();
  }
  std::string Log() const { return ovita2::testing::ReadFile(dir.Path() + "/host.log"); }
  size_t Count(const std::string& text) const { return ovita2::testing::Occurrences(Log(), text); }
  bool RunUntilLogged(const std::string& text, size_t times, double seconds) {
    return agent.RunUntil([&] { return Count(text) >= times; }, seconds);
  }
  // Starts a run of the agent's machine of `type` now, as its routine would.
  bool StartMachine(unsigned type) {
    zelvar::StateMachine* machine = zelvar::MachineFactory::Instance()->CreateMachine(type);
    if (machine != nullptr) machine->SetCreatedByRoutine(true), agent.Runtime().Start(machine);
    return machine != nullptr;
  }
  clientid_t PluginSession() {
    clientid_t session{};
    static_cast<zelvar::registry::ZooKeeperPluginHandle*>(agent.GetPluginHandle("zookeeper"))
        ->GetClientId(&session);
    return session;
  }
  // The agent's node is there and belongs to its registry plug-in's current session.
  bool NodeOfCurrentSession() {
    Stat stat{};
    return outside.Exists("/ovita2/agents/a1", &stat) == ZOK && stat.ephemeralOwner == PluginSession().client_id;
  }

  zelvar::registry::testing::ZooKeeperTestServer server;
  zelvar::registry::testing::ZkTestClient outside;
  int port = ovita2::testing::FreeLoopbackPort();
  ovita2::testing::TempDir dir;  // outlives the host, which logs here until shut down
  zelvar_host::Host agent;
};

TEST_F(AgentZooKeeper, KeepsItsEphemeralNodeAndPutsItBackWhenItIsDeleted) {
  // Its own node holds its listening address and goes with its session.
  std::string data;
  Stat stat{};
  ASSERT_EQ(outside.Get("/ovita2/agents/a1", &data, &stat), ZOK);
  EXPECT_NE(stat.ephemeralOwner, 0);
  EXPECT_EQ(data, LoopbackAddress(port));

  // Deleted from outside: the watcher clears the flag and the next run creates it again.
  ASSERT_EQ(outside.Delete("/ovita2/agents/a1"), ZOK);
  ASSERT_TRUE(RunUntilLogged("Reset register flag by myself_watcher_fn", 1, 5.0)) << Log();
  ASSERT_TRUE(StartMachine(kRegisterMyselfType));
  ASSERT_TRUE(RunUntilLogged("|Register myself finished", 2, 5.0)) << Log();
  Stat again{};
  ASSERT_EQ(outside.Exists("/ovita2/agents/a1", &again), ZOK);
  EXPECT_EQ(again.ephemeralOwner, stat.ephemeralOwner) << "same session, new node";
  EXPECT_NE(again.czxid, stat.czxid);
}

// Each time the registry comes back (or the session is lost), the plug-in
// calls the agent's connection callback; registration runs (every 60 s, here
// every second) put the node back under the current session once the old
// session's node is gone, and the names resolve again at the next refresh.
TEST_F(AgentZooKeeper, ComesBackIntoTheRegistryAfterTheServerWasAwayAndAfterItsSessionExpired) {
  const std::string callback = "Reset register flag by conn_callback_myself";
  auto registersAgain = [&](size_t callbacks) {
    auto lastRun = std::chrono::steady_clock::now();
    return agent.RunUntil([&] {
      if (Count(callback) >= callbacks && NodeOfCurrentSession()) return true;
      if (std::chrono::steady_clock::now() - lastRun > std::chrono::seconds(1)) {
        StartMachine(kRegisterMyselfType), lastRun = std::chrono::steady_clock::now();
      }
      return false;
    }, 30.0);
  };
  const size_t resets = Count(callback);
  server.Stop();
  agent.RunUntil([] { return false; }, 30.0);
  ASSERT_TRUE(StartMachine(kUpdateNamesType));
  std::string error;
  ASSERT_TRUE(server.Start(&error)) << error;
  ASSERT_TRUE(outside.Connect(server.Address()));
  EXPECT_TRUE(registersAgain(resets + 1)) << Log();
  ASSERT_TRUE(StartMachine(kUpdateNamesType));
  EXPECT_TRUE(RunUntilLogged("|name=MASTER, ip=127.0.0.1, port=7100", 2, 10.0)) << Log();

  // Joining the plug-in's session elsewhere and closing it there expires it.
  const clientid_t expired = PluginSession();
  ASSERT_TRUE(zelvar::registry::testing::ZkTestClient().Connect(server.Address(), &expired));
  EXPECT_TRUE(registersAgain(resets + 2)) << Log();
  EXPECT_NE(PluginSession().client_id, expired.client_id);
}

}  // namespace