#include "logger.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <regex>

#include "test_support.h"

namespace zelvar_host {
namespace {

TEST(HostLogger, WritesStampedLinesAtOrAboveTheThreshold) {
  host_test::TempDir dir;
  Logger logger;
  std::string error;
  ASSERT_TRUE(logger.Open(dir.Path() + "/a.log", &error)) << error;
  logger.SetThreshold(2);
  logger.Log(1, "hidden %d", 1);
  logger.Log(2, "shown %s", "two");
  logger.Log(4, "already ends\n");
  logger.Write(3, "");
  std::string text = host_test::ReadFile(dir.Path() + "/a.log");
  EXPECT_TRUE(std::regex_match(text, std::regex(R"((\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} (DEBUG|ERROR|INFO) [^\n]*\n){3})")))
      << text;
  EXPECT_EQ(text.find("hidden"), std::string::npos);
  EXPECT_NE(text.find(" DEBUG shown two\n"), std::string::npos);
  EXPECT_NE(text.find(" ERROR already ends\n"), std::string::npos);
  EXPECT_EQ(text.find("\n\n"), std::string::npos);
}

TEST(HostLogger, LongLinesAreWrittenWhole) {
  host_test::TempDir dir;
  Logger logger;
  std::string error;
  ASSERT_TRUE(logger.Open(dir.Path() + "/a.log", &error));
  logger.SetThreshold(1);
  std::string big(200000, 'q');
  logger.Log(1, "dump\n%s|end", big.c_str());
  std::string text = host_test::ReadFile(dir.Path() + "/a.log");
  EXPECT_NE(text.find("dump\n" + big + "|end\n"), std::string::npos);
}

TEST(HostLogger, ReopenKeepsTheDescriptorAndFollowsTheRotatedName) {
  host_test::TempDir dir;
  std::string path = dir.Path() + "/a.log";
  Logger logger;
  std::string error;
  ASSERT_TRUE(logger.Open(path, &error));
  int fd = logger.Fd();
  EXPECT_GT(fd, 2);
  logger.Log(3, "before");
  ASSERT_EQ(std::rename(path.c_str(), (path + ".1").c_str()), 0);
  ASSERT_TRUE(logger.Reopen(&error)) << error;
  EXPECT_EQ(logger.Fd(), fd);
  logger.Log(3, "after");
  EXPECT_NE(host_test::ReadFile(path + ".1").find("before"), std::string::npos);
  std::string fresh = host_test::ReadFile(path);
  EXPECT_NE(fresh.find("after"), std::string::npos);
  EXPECT_EQ(fresh.find("before"), std::string::npos);

  EXPECT_FALSE(logger.Open(dir.Path() + "/no/such/dir/x.log", &error));
  EXPECT_NE(error.find("no/such/dir/x.log"), std::string::npos);
}

}  // namespace
}  // namespace zelvar_host
