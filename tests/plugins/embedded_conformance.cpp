// The shared registry conformance suite, run against the embedded registry.
#include <gtest/gtest.h>

#include <map>

#include "registry_conformance.h"

namespace zelvar::registry::testing {
namespace {

class EmbeddedUnderTest : public RegistryUnderTest {
 public:
  bool Prepare(std::string*) override { return true; }
  bool Seed(const std::string& path, const std::string& address) override {
    m_mapNodes[path] = address;
    return true;
  }
  bool EnsureParents(const std::string&) override { return true; }  // it makes them itself
  void Configure(TestHost& host) override {
    for (const auto& node : m_mapNodes) host.SetConfig("embedded_registry", node.first, node.second);
  }
  std::string PluginPath() const override { return OVITA2_EMBEDDED_PLUGIN_PATH; }

 private:
  std::map<std::string, std::string> m_mapNodes;
};

std::unique_ptr<RegistryUnderTest> MakeEmbedded() { return std::make_unique<EmbeddedUnderTest>(); }

}  // namespace

INSTANTIATE_TEST_SUITE_P(Embedded, RegistryConformance, ::testing::Values(RegistryKind{"embedded", &MakeEmbedded}),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace zelvar::registry::testing
