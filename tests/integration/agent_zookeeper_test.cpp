// The agent inside zelvar-host with the ZooKeeper registry and a real server:
// its own node is an ephemeral node holding its listening address, a node
// deleted from outside comes back with the next registration, and instances
// registered under a name's path are picked up by the next name refresh.
//
// The routines' intervals (20 s and 60 s) are not waited out: the test starts
// runs of the machines through the factory, as the routine would.
#include <gtest/gtest.h>

#include <string>

#include "agent_registry_host.h"
#include "zelvar/kadri.pb.h"
#include "zk_test_client.h"
#include "zookeeper_test_server.h"

namespace {

using zelvar::registry::testing::ZkTestClient;
using zelvar::registry::testing::ZooKeeperTestServer;
using ovita2_it::AgentRegistryHost;

std::string Address(const std::string& ip, int port) {
  zelvar::kadri::NameNodeContent content;
  content.set_ip(ip);
  content.set_port(port);
  return content.SerializeAsString();
}

TEST(AgentZooKeeper, KeepsItsEphemeralNodeAndFollowsTheInstancesOfItsNames) {
  ZooKeeperTestServer server;
  std::string error;
  ASSERT_TRUE(server.Start(&error)) << error;
  ZkTestClient outside;
  ASSERT_TRUE(outside.Connect(server.Address()));
  ASSERT_EQ(outside.CreateWithParents("/ovita2/names/MASTER/m1", Address("127.0.0.1", 7100)), ZOK);
  // Field 1 announces five bytes and the data ends after two.
  ASSERT_EQ(outside.Create("/ovita2/names/MASTER/bad", std::string("\x0a\x05" "ab", 4), ZOO_PERSISTENT), ZOK);
  ASSERT_EQ(outside.Create("/ovita2/agents", "", ZOO_PERSISTENT), ZOK);

  int port = ovita2_it::FreeLoopbackPort();
  AgentRegistryHost agent;
  ASSERT_TRUE(agent.Start(ZOOKEEPER_PLUGIN_PATH,
                          "[zookeeper]\nhosts = " + server.Address() + "\nsession_timeout_ms = 4000\n"
                          "[network]\nlisten-ip = 127.0.0.1\nlisten-port = " + std::to_string(port) +
                          "\n[common]\nmyname = /ovita2/agents/a1\n[names]\nMASTER = /ovita2/names/MASTER\n",
                          &error))
      << error;
  ASSERT_TRUE(agent.host().RunUntil([&] { return agent.host().IsReady(); }, 10.0)) << agent.LogText();
  ASSERT_TRUE(agent.StartMachine(AgentRegistryHost::kUpdateNamesType));
  ASSERT_TRUE(agent.StartMachine(AgentRegistryHost::kRegisterMyselfType));

  ASSERT_TRUE(agent.RunUntilLogged("|Register myself finished", 1, 5.0)) << agent.LogText();
  ASSERT_TRUE(agent.RunUntilLogged("|name=MASTER, ip=127.0.0.1, port=7100", 1, 5.0)) << agent.LogText();
  EXPECT_GE(agent.Count("|Can't parse NodeContent for Modules: MASTER"), 1u) << agent.LogText();

  std::string data;
  Stat stat{};
  ASSERT_EQ(outside.Get("/ovita2/agents/a1", &data, &stat), ZOK);
  EXPECT_NE(stat.ephemeralOwner, 0) << "the node goes with the agent's session";
  zelvar::kadri::NameNodeContent content;
  ASSERT_TRUE(content.ParseFromString(data));
  EXPECT_EQ(content.ip(), "127.0.0.1");
  EXPECT_EQ(content.port(), port);

  // Deleted from outside: the watcher clears the flag and the next run creates it again.
  ASSERT_EQ(outside.Delete("/ovita2/agents/a1"), ZOK);
  ASSERT_TRUE(agent.RunUntilLogged("Reset register flag by myself_watcher_fn", 1, 5.0)) << agent.LogText();
  ASSERT_TRUE(agent.StartMachine(AgentRegistryHost::kRegisterMyselfType));
  ASSERT_TRUE(agent.RunUntilLogged("|Register myself finished", 2, 5.0)) << agent.LogText();
  Stat again{};
  ASSERT_EQ(outside.Exists("/ovita2/agents/a1", &again), ZOK);
  EXPECT_EQ(again.ephemeralOwner, stat.ephemeralOwner) << "same session, new node";
  EXPECT_NE(again.czxid, stat.czxid);

  // A new instance is picked up by the next refresh; the unreadable one stays out.
  ASSERT_EQ(outside.Create("/ovita2/names/MASTER/m2", Address("127.0.0.1", 7101), ZOO_EPHEMERAL), ZOK);
  size_t unreadable = agent.Count("|Can't parse NodeContent for Modules: MASTER");
  ASSERT_TRUE(agent.StartMachine(AgentRegistryHost::kUpdateNamesType));
  ASSERT_TRUE(agent.RunUntilLogged("|name=MASTER, ip=127.0.0.1, port=7101", 1, 5.0)) << agent.LogText();
  EXPECT_EQ(agent.Count("|Can't parse NodeContent for Modules: MASTER"), unreadable + 1);
  EXPECT_EQ(agent.Count("|state:Entry_WaitInfo|name=MASTER, ip="), 3u) << agent.LogText();
  agent.host().Shutdown();
}

}  // namespace
