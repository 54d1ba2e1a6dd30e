// The registry plug-ins without a server: the conformance suite on the embedded
// registry, its configuration, and the ZooKeeper registry's listing by hand.
#include "registry_test.h"
#include "zelvar/kadri.pb.h"
#include "zookeeper/children_listing.h"

namespace zelvar::registry::testing {
namespace {

struct EmbeddedUnderTest : RegistryUnderTest {
  explicit EmbeddedUnderTest(TestHost& host) : RegistryUnderTest(OVITA2_EMBEDDED_PLUGIN_PATH), host(host) {}
  void Seed(const std::string& path, const std::string& ip, int port) override {
    host.SetConfig("embedded_registry", path, ip + ":" + std::to_string(port));
  }
  TestHost& host;
};

INSTANTIATE_TEST_SUITE_P(Embedded, RegistryConformance, ::testing::Values("embedded"));

// The embedded registry's own rules, on the conformance fixture.
using EmbeddedRegistry = RegistryConformance;
INSTANTIATE_TEST_SUITE_P(Configured, EmbeddedRegistry, ::testing::Values("embedded"));

TEST_P(EmbeddedRegistry, KeepsOnlyConfiguredNodesWithAPathAndAnIpColonPort) {
  const char* bad[][2] = {{"n/relative", "127.0.0.1:1"}, {"/n/noport", "127.0.0.1"}, {"/n/noip", ":7100"},
                          {"/n/empty", "host:"},         {"/n/zero", "host:0"},      {"/n/big", "host:65536"},
                          {"/n/junk", "host:71x"},       {"/n/minus", "host:-1"},    {"/n/blank", ""}};
  for (const auto& entry : bad) m_host.SetConfig("embedded_registry", entry[0], entry[1]);
  m_host.SetConfig("embedded_registry", "/n/v4", "127.0.0.1:7100");
  m_host.SetConfig("embedded_registry", "/n/v6", "[::1]:65535");
  ASSERT_NO_FATAL_FAILURE(Load());
  size_t reported = 0;
  for (const std::string& line : m_host.LogLines()) reported += line.find("entry ignored") != std::string::npos;
  EXPECT_EQ(reported, std::size(bad)) << "each ignored entry is reported";
  const ZKPluginResponse* listed = Ask("listvalue", "/n", kNoWatch);
  ASSERT_NE(listed, nullptr);
  ASSERT_EQ(listed->keyvalues.size(), 2u);
  kadri::NameNodeContent v6;
  ASSERT_TRUE(v6.ParseFromString(listed->keyvalues[listed->keyvalues[0].key == "v6" ? 0 : 1].value));
  EXPECT_EQ(v6.ip() + ":" + std::to_string(v6.port()), "::1:65535");
}

TEST(ChildrenListing, AnswersOnceEveryChildIsBackLeavingOutVanishedOnesOrAtTheFirstFailure) {
  Stat stat{};
  stat.dataLength = 3;
  ChildrenListing listing(7, stat, {"m1", "gone", "m2"});
  listing.ChildFetched(2, ZOK, std::string("b\0b", 3).c_str(), 3, &stat);
  listing.ChildFetched(0, ZOK, "aa", 2, &stat);
  listing.ChildFetched(0, ZOK, "late duplicate", 14, &stat);  // a reply is counted once
  EXPECT_EQ(listing.TakeAnswer(), nullptr) << "\"gone\" is not back yet";
  listing.ChildFetched(1, ZNONODE, nullptr, -1, nullptr);
  std::unique_ptr<ZKPluginResponse> answer(listing.TakeAnswer());
  ASSERT_NE(answer, nullptr);
  EXPECT_EQ(listing.TakeAnswer(), nullptr) << "handed out once";
  ASSERT_EQ(answer->keyvalues.size(), 2u);
  EXPECT_EQ(answer->keyvalues[0].key + answer->keyvalues[0].value, "m1aa") << "in listing order";
  EXPECT_EQ(answer->keyvalues[1].value, std::string("b\0b", 3));
  EXPECT_EQ(answer->keyvalues[1].stat.dataLength, 3);

  ChildrenListing failing(1, stat, {"a", "b", "c"});
  failing.ChildFetched(1, ZCONNECTIONLOSS, nullptr, -1, nullptr);
  answer.reset(failing.TakeAnswer());
  ASSERT_NE(answer, nullptr) << "no need to wait for the other reads";
  EXPECT_EQ(answer->retcode, ZCONNECTIONLOSS);
  failing.ChildFetched(0, ZOK, "a", 1, &stat);
  failing.Fail(ZSESSIONEXPIRED);
  EXPECT_EQ(failing.TakeAnswer(), nullptr) << "the failed listing was answered already";
}

}  // namespace

std::unique_ptr<RegistryUnderTest> MakeRegistry(TestHost& host) { return std::make_unique<EmbeddedUnderTest>(host); }

}  // namespace zelvar::registry::testing
