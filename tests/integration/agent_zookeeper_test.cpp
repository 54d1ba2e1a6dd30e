// The agent inside zelvar-host with the ZooKeeper registry and a real server.
// The routines' intervals (20 s and 60 s) are not waited out: the test starts
// runs of the machines through the factory, as the routine would.
#include <gtest/gtest.h>

#include "agent_host.h"
#include "zelvar/kadri.pb.h"
#include "zk_test_client.h"
#include "zookeeper_test_server.h"

namespace {

constexpr unsigned kUpdateNamesType = 55900;
constexpr unsigned kRegisterMyselfType = 9000000;

std::string LoopbackAddress(int port) {
  zelvar::kadri::NameNodeContent content;
  content.set_ip("127.0.0.1"), content.set_port(port);
  return content.SerializeAsString();
}

TEST(AgentZooKeeper, KeepsItsEphemeralNodeAndFollowsTheInstancesOfItsNames) {
  zelvar::registry::testing::ZooKeeperTestServer server;
  std::string error;
  ASSERT_TRUE(server.Start(&error)) << error;
  zelvar::registry::testing::ZkTestClient outside;
  ASSERT_TRUE(outside.Connect(server.Address()));
  ASSERT_EQ(outside.CreateWithParents("/ovita2/names/MASTER/m1", LoopbackAddress(7100)), ZOK);
  ASSERT_EQ(outside.Create("/ovita2/agents", "", ZOO_PERSISTENT), ZOK);

  int port = ovita2::testing::FreeLoopbackPort();
  ovita2::testing::AgentHost agent(ZOOKEEPER_REGISTRY_PATH,
                                  "[zookeeper]\nhosts = " + server.Address() + "\nsession_timeout_ms = 4000\n"
                                  "[network]\nlisten-ip = 127.0.0.1\nlisten-port = " + std::to_string(port) +
                                  "\n[common]\nmyname = /ovita2/agents/a1\n[names]\nMASTER = /ovita2/names/MASTER\n");
  ASSERT_TRUE(agent.ok()) << agent.error();
  ASSERT_TRUE(agent.RunUntil([&] { return agent.host().IsReady(); }, 10.0)) << agent.LogText();
  ASSERT_TRUE(agent.StartMachine(kUpdateNamesType) && agent.StartMachine(kRegisterMyselfType));
  ASSERT_TRUE(agent.RunUntilLogged("|Register myself finished", 1, 5.0)) << agent.LogText();
  ASSERT_TRUE(agent.RunUntilLogged("|name=MASTER, ip=127.0.0.1, port=7100", 1, 5.0)) << agent.LogText();

  // Its own node holds its listening address and goes with its session.
  std::string data;
  Stat stat{};
  ASSERT_EQ(outside.Get("/ovita2/agents/a1", &data, &stat), ZOK);
  EXPECT_NE(stat.ephemeralOwner, 0);
  EXPECT_EQ(data, LoopbackAddress(port));

  // Deleted from outside: the watcher clears the flag and the next run creates it again.
  ASSERT_EQ(outside.Delete("/ovita2/agents/a1"), ZOK);
  ASSERT_TRUE(agent.RunUntilLogged("Reset register flag by myself_watcher_fn", 1, 5.0)) << agent.LogText();
  ASSERT_TRUE(agent.StartMachine(kRegisterMyselfType));
  ASSERT_TRUE(agent.RunUntilLogged("|Register myself finished", 2, 5.0)) << agent.LogText();
  Stat again{};
  ASSERT_EQ(outside.Exists("/ovita2/agents/a1", &again), ZOK);
  EXPECT_EQ(again.ephemeralOwner, stat.ephemeralOwner) << "same session, new node";
  EXPECT_NE(again.czxid, stat.czxid);

  // Each name refresh reads the instances as they are now: new ones in, deleted ones out.
  ASSERT_EQ(outside.Create("/ovita2/names/MASTER/m2", LoopbackAddress(7101), ZOO_EPHEMERAL), ZOK);
  ASSERT_TRUE(agent.StartMachine(kUpdateNamesType));
  ASSERT_TRUE(agent.RunUntilLogged("|name=MASTER, ip=127.0.0.1, port=7101", 1, 5.0)) << agent.LogText();
  EXPECT_EQ(agent.Count("|name=MASTER, ip=127.0.0.1, port=7100"), 2u) << agent.LogText();
  ASSERT_EQ(outside.Delete("/ovita2/names/MASTER/m1"), ZOK);
  ASSERT_TRUE(agent.StartMachine(kUpdateNamesType));
  ASSERT_TRUE(agent.RunUntilLogged("|name=MASTER, ip=127.0.0.1, port=7101", 2, 5.0)) << agent.LogText();
  EXPECT_EQ(agent.Count("|name=MASTER, ip=127.0.0.1, port=7100"), 2u) << agent.LogText();
}

}  // namespace
