// The registry plug-ins without a server: the conformance suite on the
// embedded registry, its configuration, and the ZooKeeper registry's parts
// that can be driven by hand.
#include <map>

#include "registry_test.h"
#include "zelvar/kadri.pb.h"
#include "zookeeper/children_listing.h"

namespace zelvar::registry::testing {
namespace {

// Seeding writes the configuration entry as it is.
struct EmbeddedUnderTest : RegistryUnderTest {
  void Seed(const std::string& path, const std::string& address) override { nodes[path] = address; }
  void Configure(TestHost& host) override {
    for (const auto& node : nodes) host.SetConfig("embedded_registry", node.first, node.second);
  }
  const char* PluginPath() const override { return OVITA2_EMBEDDED_PLUGIN_PATH; }
  std::map<std::string, std::string> nodes;
};

INSTANTIATE_TEST_SUITE_P(Embedded, RegistryConformance, ::testing::Values("embedded"));

// The embedded registry's own rules, on the conformance fixture.
using EmbeddedRegistry = RegistryConformance;
INSTANTIATE_TEST_SUITE_P(Configured, EmbeddedRegistry, ::testing::Values("embedded"));

TEST_P(EmbeddedRegistry, KeepsOnlyConfiguredNodesWithAPathAndAnIpColonPort) {
  const char* bad[][2] = {{"n/relative", "127.0.0.1:1"}, {"/n/noport", "127.0.0.1"}, {"/n/noip", ":7100"},
                          {"/n/empty", "host:"},         {"/n/zero", "host:0"},      {"/n/big", "host:65536"},
                          {"/n/junk", "host:71x"},       {"/n/minus", "host:-1"},    {"/n/blank", ""}};
  for (const auto& entry : bad) m_pRegistry->Seed(entry[0], entry[1]);
  m_pRegistry->Seed("/n/v4", "127.0.0.1:7100");
  m_pRegistry->Seed("/n/v6", "[::1]:65535");
  ASSERT_NO_FATAL_FAILURE(Load());
  EXPECT_TRUE(m_host.Logged("embedded registry: ready with 2 configured node(s)"));
  EXPECT_EQ(m_host.LogLinesAt(4).size(), std::size(bad)) << "each ignored entry is reported";
  const ZKPluginResponse* listed = Ask("listvalue", "/n", kNoWatch);
  ASSERT_NE(listed, nullptr);
  ASSERT_EQ(listed->keyvalues.size(), 2u);
  kadri::NameNodeContent v6;
  ASSERT_TRUE(v6.ParseFromString(listed->keyvalues[listed->keyvalues[0].key == "v6" ? 0 : 1].value));
  EXPECT_EQ(v6.ip() + ":" + std::to_string(v6.port()), "::1:65535");
}

TEST(ZooKeeperRegistry, RefusesToStartWithoutAnEnsemble) {
  TestHost host(ovita2::testing::PluginEntries{});
  LoadedPlugin plugin(OVITA2_ZOOKEEPER_PLUGIN_PATH, host);
  EXPECT_EQ(plugin.Init(), -1);
  EXPECT_EQ(host.LogLinesAt(4).size(), 1u) << "the missing setting is reported";
  EXPECT_FALSE(plugin.IsReady());
  EXPECT_NE(plugin.Handle()->ZKPluginCall(AnswerRecorder::Start(host)->GetMachineId(), "listvalue", "/", kNoWatch), 0);
}

TEST(ChildrenListing, AnswersOnceEveryChildIsBackLeavingOutVanishedOnesOrAtTheFirstFailure) {
  Stat stat{};
  stat.numChildren = 4;
  ChildrenListing listing(7, stat, {"m1", "gone", "m2", "m3"});
  listing.ChildFetched(3, ZOK, "c", 1, &stat);
  listing.ChildFetched(0, ZOK, "aa", 2, &stat);
  listing.ChildFetched(0, ZOK, "late duplicate", 14, &stat);  // a reply is counted once
  listing.ChildFetched(1, ZNONODE, nullptr, -1, nullptr);
  EXPECT_EQ(listing.TakeAnswer(), nullptr) << "m2 is not back yet";
  listing.ChildFetched(2, ZOK, std::string("b\0bbb", 5).c_str(), 5, &stat);
  std::unique_ptr<ZKPluginResponse> answer(listing.TakeAnswer());
  ASSERT_NE(answer, nullptr);
  EXPECT_EQ(listing.TakeAnswer(), nullptr) << "handed out once";
  ASSERT_EQ(answer->keyvalues.size(), 3u);
  EXPECT_EQ(answer->keyvalues[0].key + answer->keyvalues[1].key + answer->keyvalues[2].key, "m1m2m3");
  EXPECT_EQ(answer->keyvalues[0].value, "aa");
  EXPECT_EQ(answer->keyvalues[1].value, std::string("b\0bbb", 5));
  EXPECT_EQ(answer->keyvalues[1].stat.numChildren, 4);
  EXPECT_NE(std::unique_ptr<ZKPluginResponse>(ChildrenListing(1, stat, {}).TakeAnswer()), nullptr) << "no children";

  ChildrenListing failing(1, stat, {"a", "b", "c"});
  failing.ChildFetched(1, ZCONNECTIONLOSS, nullptr, -1, nullptr);
  answer.reset(failing.TakeAnswer());
  ASSERT_NE(answer, nullptr) << "no need to wait for the other reads";
  EXPECT_EQ(answer->retcode, ZCONNECTIONLOSS);
  EXPECT_TRUE(answer->keyvalues.empty());
  failing.ChildFetched(0, ZOK, "a", 1, &stat);
  failing.ChildFetched(2, ZOK, "c", 1, &stat);
  failing.Fail(ZSESSIONEXPIRED);
  EXPECT_EQ(failing.TakeAnswer(), nullptr) << "the failed listing was answered already";
}

}  // namespace

std::unique_ptr<RegistryUnderTest> MakeRegistry() { return std::make_unique<EmbeddedUnderTest>(); }

}  // namespace zelvar::registry::testing
