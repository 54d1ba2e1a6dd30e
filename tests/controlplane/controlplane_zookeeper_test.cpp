// The control plane with the ZooKeeper registry and a real server: its
// endpoint appears as ephemeral nodes (folders created as needed) that agents
// list by name, and a node that vanishes is registered again.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "host.h"
#include "local_system.h"
#include "zelvar/kadri.pb.h"
#include "zk_test_client.h"
#include "zookeeper_test_server.h"

namespace {

using zelvar::registry::testing::ZkTestClient;
using zelvar::registry::testing::ZooKeeperTestServer;

size_t Count(const std::string& text, const std::string& what) {
  size_t count = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++count;
  return count;
}

TEST(ControlPlaneZooKeeper, RegistersItsEndpointAsEphemeralNodesAndAgainWhenOneVanishes) {
  ZooKeeperTestServer server;
  std::string error;
  ASSERT_TRUE(server.Start(&error)) << error;
  ZkTestClient outside;
  ASSERT_TRUE(outside.Connect(server.Address()));

  ovita2::testing::TempDir dir;
  const int port = ovita2::testing::FreeLoopbackPort();
  dir.Write("jobs.yaml", "agents: {}\n");
  std::string config = dir.Write(
      "cp.ini", "[host]\nlog_file = host.log\nlog_level = 2\n"
                "[network]\nlisten-ip = 127.0.0.1\nlisten-port = " + std::to_string(port) +
                    "\n[plugins]\nzookeeper = " ZOOKEEPER_REGISTRY_PATH "\ncontrolplane = " CONTROLPLANE_PLUGIN_PATH
                    "\n[zookeeper]\nhosts = " + server.Address() +
                    "\nsession_timeout_ms = 4000\n"
                    "[controlplane]\nname = cp-z\njobs_file = jobs.yaml\ndatabase = cp.db\n"
                    "master_path = /fleet/names/MASTER\n");
  zelvar_host::Host host;
  ASSERT_TRUE(host.Init(config, &error)) << error;
  auto log = [&] { return ovita2::testing::ReadFile(dir.Path() + "/host.log"); };
  auto registered = [&](const std::string& node) { return Count(log(), "controlplane: registered " + node); };
  ASSERT_TRUE(host.RunUntil(
      [&] { return registered("/fleet/names/MASTER/cp-z") == 1 && registered("/ovita2/names/TELLAR2_ACCESS/cp-z") == 1; },
      20.0))
      << log();

  for (const char* node : {"/fleet/names/MASTER/cp-z", "/ovita2/names/TELLAR2_ACCESS/cp-z"}) {
    std::string data;
    Stat stat{};
    ASSERT_EQ(outside.Get(node, &data, &stat), ZOK) << node;
    EXPECT_NE(stat.ephemeralOwner, 0) << node << " goes with the control plane's session";
    zelvar::kadri::NameNodeContent endpoint;
    ASSERT_TRUE(endpoint.ParseFromString(data)) << node;
    EXPECT_EQ(endpoint.ip(), "127.0.0.1");
    EXPECT_EQ(endpoint.port(), port);
  }
  Stat folder{};
  ASSERT_EQ(outside.Exists("/fleet/names/MASTER", &folder), ZOK);
  EXPECT_EQ(folder.ephemeralOwner, 0) << "folders outlive the control plane";

  ASSERT_EQ(outside.Delete("/fleet/names/MASTER/cp-z"), ZOK);
  host.Clock().Skip(10);
  ASSERT_TRUE(host.RunUntil([&] { return registered("/fleet/names/MASTER/cp-z") == 2; }, 20.0)) << log();
  EXPECT_EQ(outside.Exists("/fleet/names/MASTER/cp-z"), ZOK);
  EXPECT_EQ(registered("/ovita2/names/TELLAR2_ACCESS/cp-z"), 1u) << "a node still in place is left alone";

  host.Shutdown();
  int left = ZOK;
  for (int wait = 0; wait < 50 && (left = outside.Exists("/ovita2/names/TELLAR2_ACCESS/cp-z")) == ZOK; ++wait) {
    usleep(100000);
  }
  EXPECT_EQ(left, ZNONODE) << "the nodes go when the control plane stops";
}

}  // namespace
