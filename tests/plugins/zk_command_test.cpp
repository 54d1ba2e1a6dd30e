// Reading registry commands from ZKPluginCall's variadic arguments.
#include "common/zk_command.h"

#include <gtest/gtest.h>

namespace zelvar::registry {
namespace {

int Decode(ZKCommand* out, const char* command, ...) {
  va_list args;
  va_start(args, command);
  int rc = ZKCommand::Decode(command, args, out);
  va_end(args);
  return rc;
}

void SomeWatcher(zhandle_t*, int, int, const char*, void*) {}
void SomeCallback() {}

TEST(ZKCommand, ReadsEachCommandsArgumentsInTheirOrder) {
  ZKCommand command;
  ASSERT_EQ(Decode(&command, "create", "/a/b", "data", int64_t{4}, ZOO_EPHEMERAL), ZOK);
  EXPECT_EQ(command.kind, ZKCommandKind::kCreate);
  EXPECT_STREQ(command.path, "/a/b");
  EXPECT_STREQ(command.data, "data");
  EXPECT_EQ(command.length, 4);
  EXPECT_EQ(command.flags, ZOO_EPHEMERAL);

  // A length above 32 bits must be read as the 64-bit value it is.
  EXPECT_EQ(Decode(&command, "create", "/a", "x", int64_t{1} << 32, 0), ZBADARGUMENTS);

  ASSERT_EQ(Decode(&command, "get", "/a", &SomeWatcher), ZOK);
  EXPECT_EQ(command.kind, ZKCommandKind::kGet);
  EXPECT_EQ(command.watcher, &SomeWatcher);

  ASSERT_EQ(Decode(&command, "listvalue", "/", static_cast<watcher_fn>(nullptr)), ZOK);
  EXPECT_EQ(command.kind, ZKCommandKind::kListValue);
  EXPECT_STREQ(command.path, "/");
  EXPECT_EQ(command.watcher, nullptr);

  ASSERT_EQ(Decode(&command, "set_callback", &SomeCallback), ZOK);
  EXPECT_EQ(command.kind, ZKCommandKind::kSetCallback);
  EXPECT_EQ(command.callback, &SomeCallback);
}

TEST(ZKCommand, RefusesWhatNoRegistryCouldRun) {
  ZKCommand command;
  watcher_fn none = nullptr;
  EXPECT_EQ(Decode(&command, nullptr), ZBADARGUMENTS);
  EXPECT_EQ(Decode(&command, "delete", "/a", none), ZBADARGUMENTS);
  EXPECT_EQ(Decode(&command, "LISTVALUE", "/a", none), ZBADARGUMENTS);
  EXPECT_EQ(Decode(&command, "get", static_cast<const char*>(nullptr), none), ZBADARGUMENTS);
  EXPECT_EQ(Decode(&command, "create", "/a", "x", int64_t{-1}, 0), ZBADARGUMENTS);
  EXPECT_EQ(Decode(&command, "create", "/a", static_cast<const char*>(nullptr), int64_t{1}, 0), ZBADARGUMENTS);
  EXPECT_EQ(Decode(&command, "create", "/a", static_cast<const char*>(nullptr), int64_t{0}, 0), ZOK)
      << "no data at all is an empty node";
}

TEST(ZKCommand, NodePathsFollowZooKeepersRules) {
  for (const char* good : {"/", "/a", "/a/b", "/ovita2/names/MASTER/m-1", "/a.b/..c"}) {
    EXPECT_TRUE(ZKCommand::IsValidPath(good, false)) << good;
  }
  for (const char* bad : {"", "a", "a/b", "/a/", "//", "/a//b", "/a/./b", "/a/..", "/."}) {
    EXPECT_FALSE(ZKCommand::IsValidPath(bad, false)) << bad;
  }
  EXPECT_FALSE(ZKCommand::IsValidPath(nullptr, false));
  // A sequential node may be named by its parent alone: "/queue/" gives "/queue/0000000003".
  EXPECT_TRUE(ZKCommand::IsValidPath("/queue/", true));
  EXPECT_FALSE(ZKCommand::IsValidPath("/queue//", true));
}

}  // namespace
}  // namespace zelvar::registry
