// The shared registry conformance suite, run against the ZooKeeper registry
// and a real server.
#include <gtest/gtest.h>

#include "registry_conformance.h"
#include "zelvar/kadri.pb.h"
#include "zk_test_client.h"
#include "zookeeper_test_server.h"

namespace zelvar::registry::testing {
namespace {

class ZooKeeperUnderTest : public RegistryUnderTest {
 public:
  bool Prepare(std::string* error) override {
    if (!m_server.Start(error)) return false;
    if (!m_client.Connect(m_server.Address())) {
      *error = "the seeding client could not connect to " + m_server.Address();
      return false;
    }
    return true;
  }
  bool Seed(const std::string& path, const std::string& address) override {
    size_t colon = address.rfind(':');
    kadri::NameNodeContent content;
    content.set_ip(address.substr(0, colon));
    content.set_port(std::stoi(address.substr(colon + 1)));
    return m_client.CreateWithParents(path, content.SerializeAsString()) == ZOK;
  }
  bool EnsureParents(const std::string& path) override {
    std::string parent = path.substr(0, path.rfind('/'));
    if (parent.empty()) return true;
    int rc = m_client.CreateWithParents(parent, "");
    return rc == ZOK || rc == ZNODEEXISTS;
  }
  void Configure(TestHost& host) override {
    host.SetConfig("zookeeper", "hosts", m_server.Address());
    host.SetConfig("zookeeper", "session_timeout_ms", "4000");
  }
  std::string PluginPath() const override { return OVITA2_ZOOKEEPER_PLUGIN_PATH; }

 private:
  ZooKeeperTestServer m_server;
  ZkTestClient m_client;
};

std::unique_ptr<RegistryUnderTest> MakeZooKeeper() { return std::make_unique<ZooKeeperUnderTest>(); }

}  // namespace

INSTANTIATE_TEST_SUITE_P(ZooKeeper, RegistryConformance,
                         ::testing::Values(RegistryKind{"zookeeper", &MakeZooKeeper}),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace zelvar::registry::testing
