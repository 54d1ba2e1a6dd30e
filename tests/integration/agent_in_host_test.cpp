#include <gtest/gtest.h>

#include <string>

#include "host.h"
#include "test_support.h"

namespace {

TEST(AgentInHost, LoadsReadsItsNamesAndAsksForTheOneSecondTick) {
  host_test::TempDir dir;
  std::string config = dir.Write("agent.ini",
                                 "[host]\nlog_file = host.log\nlog_level = 1\n"
                                 "[plugins]\nagent = " AGENT_PLUGIN_PATH "\n"
                                 "[common]\nhighprecision_frequency = 5\nmyname = /ovita2/agents/a1\n"
                                 "[names]\nMASTER = /ovita2/names/MASTER\nTELLAR2_ACCESS = /ovita2/names/TELLAR2_ACCESS\n"
                                 "UNUSED =\n");
  zelvar_host::Host host;
  std::string error;
  ASSERT_TRUE(host.Init(config, &error)) << error;
  EXPECT_EQ(host.RoutinePeriodUs(), 1000000u);

  std::string log = host_test::ReadFile(dir.Path() + "/host.log");
  EXPECT_NE(log.find("OnPeekInterface entry"), std::string::npos) << log;
  EXPECT_NE(log.find("define name MASTER to /ovita2/names/MASTER\n"), std::string::npos) << log;
  EXPECT_NE(log.find("define name TELLAR2_ACCESS to /ovita2/names/TELLAR2_ACCESS\n"), std::string::npos) << log;
  EXPECT_EQ(log.find("define name UNUSED"), std::string::npos) << log;
  host.Shutdown();
}

}  // namespace
