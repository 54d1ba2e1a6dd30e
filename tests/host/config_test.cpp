#include "config.h"

#include <gtest/gtest.h>

#include "host_settings.h"
#include "test_support.h"

namespace zelvar_host {
namespace {

TEST(HostConfig, AbsentKeysGiveEmptyTextOrTheDefault) {
  Config config;
  std::string error;
  ASSERT_TRUE(config.LoadString("[common]\nmyname = /ovita2/agents/a1\ncount = 42\nbad = 4x\n", "t.ini", &error))
      << error;
  EXPECT_STREQ(config.GetString("common", "myname", nullptr), "/ovita2/agents/a1");
  const char* absent = config.GetString("common", "agentname", nullptr);
  ASSERT_NE(absent, nullptr);
  EXPECT_STREQ(absent, "");
  EXPECT_STREQ(config.GetString("nosection", "x", "fallback"), "fallback");
  EXPECT_EQ(config.GetInt("common", "count", 7), 42);
  EXPECT_EQ(config.GetInt("common", "missing", 7), 7);
  EXPECT_EQ(config.GetInt("common", "bad", 7), 7);
  EXPECT_EQ(config.GetInt("common", "myname", 7), 7);
}

TEST(HostConfig, KeysKeepPathCharactersAndFileOrderAndMatchByRegex) {
  Config config;
  std::string error;
  ASSERT_TRUE(config.LoadString("[names]\nMASTER = /ovita2/master\nTELLAR2_ACCESS = /ovita2/access\n"
                                "empty =\n[nodes]\n/ovita2/master/n-1.a = 127.0.0.1 67000\n",
                                "t.ini", &error))
      << error;
  std::vector<std::string> keys;
  ASSERT_TRUE(config.ListKeys("names", ".+", &keys));
  EXPECT_EQ(keys, (std::vector<std::string>{"MASTER", "TELLAR2_ACCESS", "empty"}));
  keys.clear();
  ASSERT_TRUE(config.ListKeys("names", "^T", &keys));
  EXPECT_EQ(keys, std::vector<std::string>{"TELLAR2_ACCESS"});
  keys = {"kept"};
  ASSERT_TRUE(config.ListKeys("nodes", "^/ovita2/master/", &keys));
  EXPECT_EQ(keys, (std::vector<std::string>{"kept", "/ovita2/master/n-1.a"}));
  EXPECT_STREQ(config.GetString("nodes", "/ovita2/master/n-1.a", nullptr), "127.0.0.1 67000");
  EXPECT_FALSE(config.ListKeys("names", "(", &keys));
  EXPECT_STREQ(config.GetString("names", "empty", "x"), "");
}

TEST(HostConfig, ErrorsNameTheFileAndLine) {
  Config config;
  std::string error;
  EXPECT_FALSE(config.LoadString("[a]\nk = v\nthis line has no equals sign\n", "host.ini", &error));
  EXPECT_EQ(error.rfind("host.ini:3:", 0), 0u) << error;

  std::string longLine = "[a]\ncommand = " + std::string(300, 'x') + "\n";
  EXPECT_FALSE(config.LoadString(longLine, "host.ini", &error));
  EXPECT_EQ(error.rfind("host.ini:2: line is longer", 0), 0u) << error;

  EXPECT_FALSE(config.Load("/nonexistent/zelvar.ini", &error));
  EXPECT_NE(error.find("/nonexistent/zelvar.ini"), std::string::npos);
  EXPECT_NE(error.find("No such file"), std::string::npos);
}

TEST(HostSettings, DefaultsLimitsAndPluginPathsRelativeToTheFile) {
  host_test::TempDir dir;
  std::string path = dir.Write("z.ini",
                               "[plugins]\nzookeeper = libembedded.so\nagent = /opt/a.so\n"
                               "[network]\nlisten-port = 6700\n");
  Config config;
  std::string error;
  ASSERT_TRUE(config.Load(path, &error)) << error;
  HostSettings settings;
  ASSERT_TRUE(HostSettings::FromConfig(config, &settings, &error)) << error;
  EXPECT_EQ(settings.log_level, 3);
  EXPECT_EQ(settings.machine_timeout_sec, 60u);
  EXPECT_EQ(settings.long_action.time_limit_sec, 60u);
  EXPECT_EQ(settings.long_action.output_limit, 1024u * 1024u);
  EXPECT_EQ(settings.long_action.max_children, 256u);
  EXPECT_EQ(settings.input_limit, 16u * 1024u * 1024u);
  EXPECT_EQ(settings.listen_port, 6700);
  ASSERT_EQ(settings.plugins.size(), 2u);
  EXPECT_EQ(settings.plugins[0].first, "zookeeper");
  EXPECT_EQ(settings.plugins[0].second, dir.Path() + "/libembedded.so");
  EXPECT_EQ(settings.plugins[1].second, "/opt/a.so");

  ASSERT_TRUE(config.LoadString("[host]\nlog_level = 9\n", "bad.ini", &error));
  EXPECT_FALSE(HostSettings::FromConfig(config, &settings, &error));
  EXPECT_NE(error.find("[host] log_level"), std::string::npos) << error;
  ASSERT_TRUE(config.LoadString("[network]\nlisten-port = http\n", "bad.ini", &error));
  EXPECT_FALSE(HostSettings::FromConfig(config, &settings, &error));
  EXPECT_NE(error.find("listen-port"), std::string::npos) << error;
}

}  // namespace
}  // namespace zelvar_host
