// The agent's initialisation as OnInit reaches it: configuration, service
// names, the routine period and the first job fetch.
#include "entry/ovita2_agent.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "naming/name_container.h"
#include "test_host.h"

namespace {

using ovita2::testing::TestHost;

TEST(AgentInit, HighPrecisionPeriodFallsBackTo60WhenItsLow32BitsAreZero) {
  struct Case {
    const char* value;  // null: the key is absent
    uint32_t expected;
  };
  const Case cases[] = {{nullptr, 60},       {"", 60},           {"soon", 60},         {"0", 60},
                        {"5", 5},            {"4294967296", 60}, {"4294967301", 5},    {"-1", 4294967295u},
                        {"12seconds", 12}};
  for (const Case& each : cases) {
    TestHost host;
    if (each.value != nullptr) host.SetConfig("common", "highprecision_frequency", each.value);
    g_highprecision_frequency = 0;
    EXPECT_EQ(OnInit(nullptr), 0);
    EXPECT_EQ(g_highprecision_frequency, each.expected) << (each.value ? each.value : "(absent)");
  }
}

TEST(AgentInit, DefinesTheConfiguredNamesAndStartsTheRoutineClock) {
  TestHost host;
  host.SetConfig("names", "MASTER", "/zelvar/master");
  host.SetConfig("names", "UNUSED", "");
  host.SetConfig("names", "TELLAR2_ACCESS", "/zelvar/tellar2_access");
  host.SetConfig("common", "myname", "/zelvar/agents/host-1");
  g_need_updatejobs = false;

  EXPECT_EQ(OnInit(nullptr), 0);

  EXPECT_TRUE(g_need_updatejobs);
  EXPECT_EQ(host.RoutinePeriod(), 1000000u);
  const auto& names = NameContainer::Instance()->Names();
  EXPECT_EQ(names.at("MASTER"), "/zelvar/master");
  EXPECT_EQ(names.at("TELLAR2_ACCESS"), "/zelvar/tellar2_access");
  EXPECT_EQ(names.count("UNUSED"), 0u);
  EXPECT_EQ(names.count("myname"), 0u);
  std::vector<std::string> expected = {"define name MASTER to /zelvar/master",
                                       "define name TELLAR2_ACCESS to /zelvar/tellar2_access"};
  EXPECT_EQ(host.LogLines(), expected) << "no entry line: OnInit handed over to the agent's initialisation";
  EXPECT_EQ(host.LogLinesAt(1), expected);
}

TEST(AgentInit, NamesAreDefinedSilentlyAboveTheTraceThreshold) {
  TestHost host;
  host.SetLogLevel(2);
  host.SetConfig("names", "QUIET_SERVICE", "/zelvar/quiet");
  OnInit(nullptr);
  EXPECT_EQ(NameContainer::Instance()->Names().at("QUIET_SERVICE"), "/zelvar/quiet");
  EXPECT_TRUE(host.LogLines().empty());
}

TEST(AgentInit, FirstDefinitionOfANameWinsAcrossInitialisations) {
  TestHost host;
  host.SetConfig("names", "ONCE", "/zelvar/first");
  OnInit(nullptr);
  host.SetConfig("names", "ONCE", "/zelvar/second");
  OnInit(nullptr);
  EXPECT_EQ(NameContainer::Instance()->Names().at("ONCE"), "/zelvar/first");
}

}  // namespace
