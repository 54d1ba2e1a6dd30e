// The control plane's endpoint in a real ZooKeeper server, as ephemeral nodes agents list by name.
#include <gtest/gtest.h>

#include <string>

#include "host.h"
#include "local_system.h"
#include "zelvar/kadri.pb.h"
#include "zk_test_client.h"
#include "zookeeper_test_server.h"

namespace {

TEST(ControlPlaneZooKeeper, RegistersItsEndpointAsEphemeralNodesAndAgainWhenOneVanishes) {
  zelvar::registry::testing::ZooKeeperTestServer server;  // stopped by its destructor, pass or fail
  std::string error;
  ASSERT_TRUE(server.Start(&error)) << error;
  zelvar::registry::testing::ZkTestClient outside;
  ASSERT_TRUE(outside.Connect(server.Address()));

  ovita2::testing::TempDir dir;
  const int port = ovita2::testing::FreeLoopbackPort();
  dir.Write("jobs.yaml", "agents: {}\n");
  zelvar_host::Host host;
  const std::string config = "[host]\nlog_file = host.log\nlog_level = 2\n[network]\nlisten-ip = 127.0.0.1\n"
      "listen-port = " + std::to_string(port) + "\n[plugins]\nzookeeper = " ZOOKEEPER_REGISTRY_PATH "\ncontrolplane = "
      CONTROLPLANE_PLUGIN_PATH "\n[zookeeper]\nsession_timeout_ms = 4000\nhosts = " + server.Address() +
      "\n[controlplane]\nname = cp-z\njobs_file = jobs.yaml\ndatabase = cp.db\nmaster_path = /fleet/names/MASTER\n";
  ASSERT_TRUE(host.Init(dir.Write("cp.ini", config), &error)) << error;
  auto registered = [&](const std::string& node) {  // how often the log says so
    return ovita2::testing::Occurrences(ovita2::testing::ReadFile(dir.Path() + "/host.log"), ": registered " + node);
  };
  const std::string master = "/fleet/names/MASTER/cp-z", access = "/ovita2/names/TELLAR2_ACCESS/cp-z";
  ASSERT_TRUE(host.RunUntil([&] { return registered(master) == 1 && registered(access) == 1; }, 20.0))
      << ovita2::testing::ReadFile(dir.Path() + "/host.log");
  for (const std::string& node : {master, access}) {
    std::string data;
    Stat stat{};
    ASSERT_EQ(outside.Get(node, &data, &stat), ZOK) << node;
    EXPECT_NE(stat.ephemeralOwner, 0) << node << " goes with the control plane's session";
    zelvar::kadri::NameNodeContent endpoint;
    ASSERT_TRUE(endpoint.ParseFromString(data)) << node;
    EXPECT_EQ(endpoint.ip() + ":" + std::to_string(endpoint.port()), "127.0.0.1:" + std::to_string(port));
  }

  ASSERT_EQ(outside.Delete(master), ZOK);
  host.Clock().Skip(10);  // the next check
  ASSERT_TRUE(host.RunUntil([&] { return registered(master) == 2; }, 20.0));
  EXPECT_EQ(outside.Exists(master), ZOK);
  EXPECT_EQ(registered(access), 1u) << "a node still in place is left alone";
}

}  // namespace
