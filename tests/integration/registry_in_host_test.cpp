#include <gtest/gtest.h>

#include <unistd.h>

#include <string>

#include "host.h"
#include "test_support.h"
#include "zelvar/zk_plugin.h"

namespace {

std::string HostConfig(const std::string& registryPath, const std::string& extra) {
  return "[host]\nlog_file = host.log\nlog_level = 1\n[plugins]\nzookeeper = " + registryPath + "\n" + extra;
}

TEST(RegistryInHost, TheEmbeddedRegistryIsFoundAsZookeeperAndIsReadyAtOnce) {
  host_test::TempDir dir;
  std::string config = dir.Write("host.ini", HostConfig(EMBEDDED_REGISTRY_PATH,
                                                        "[embedded_registry]\n/ovita2/names/MASTER/m1 = 127.0.0.1:7100\n"));
  zelvar_host::Host host;
  std::string error;
  ASSERT_TRUE(host.Init(config, &error)) << error;
  auto* handle = static_cast<zelvar::ZKPluginHandle*>(host.GetPluginHandle("zookeeper"));
  ASSERT_NE(handle, nullptr);
  EXPECT_NE(handle->ZKPluginCall, nullptr);
  EXPECT_TRUE(host.IsReady());
  host.Shutdown();
}

TEST(RegistryInHost, TheZooKeeperRegistryLoadsAndIsNotReadyWithoutAnEnsemble) {
  int port = 0;
  int unused = host_test::ListenLoopback(&port);  // a port nothing answers ZooKeeper on
  ASSERT_GE(unused, 0);
  host_test::TempDir dir;
  std::string config = dir.Write(
      "host.ini", HostConfig(ZOOKEEPER_REGISTRY_PATH, "[zookeeper]\nhosts = 127.0.0.1:" + std::to_string(port) +
                                                          "\nsession_timeout_ms = 4000\n"));
  zelvar_host::Host host;
  std::string error;
  ASSERT_TRUE(host.Init(config, &error)) << error;
  EXPECT_NE(host.GetPluginHandle("zookeeper"), nullptr);
  EXPECT_FALSE(host.IsReady());
  host.Shutdown();
  close(unused);
}

}  // namespace
