#include "zelvar/long_action.h"

#include <gtest/gtest.h>

#include <unistd.h>

namespace zelvar {
namespace {

std::vector<std::string> ValuesOf(const LongActionMethod& action, const std::string& key) {
  std::vector<std::string> values;
  auto range = action.Params().equal_range(key);
  for (auto it = range.first; it != range.second; ++it) values.push_back(it->second);
  return values;
}

TEST(LongActionMethod, ValuesOfOneKeyStayInCallOrder) {
  ExecuteShell2 action;
  EXPECT_EQ(action.Name(), "ExecuteShell2");
  action.Param("command", "first");
  action.Param("a", "before");
  action.Param("command", "second");
  action.Param("command", "first");
  EXPECT_EQ(ValuesOf(action, "command"), (std::vector<std::string>{"first", "second", "first"}));
  EXPECT_EQ(action.FirstParam("command"), "first");
  EXPECT_EQ(action.FirstParam("missing"), "");
  EXPECT_EQ(action.Params().size(), 4u);
}

TEST(LongActionMethod, AForwardTakesTheParametersInstead) {
  ExecuteShell2 target;
  {
    LongActionMethod standIn("stand-in");
    standIn.SetForward(&target);
    standIn.Param("command", "true");
    EXPECT_TRUE(standIn.Params().empty());
  }  // the forward is not owned: the target outlives the stand-in
  EXPECT_EQ(ValuesOf(target, "command"), std::vector<std::string>{"true"});
}

struct CountedInner : Object {
  explicit CountedInner(int* deleted) : deleted_(deleted) {}
  ~CountedInner() override { ++*deleted_; }
  int* deleted_;
};

TEST(LongActionMethod, DestructorDeletesTheInnerObjectOnce) {
  int deleted = 0;
  {
    auto* action = new ExecuteShell2;
    action->SetInner(new CountedInner(&deleted));
    action->SetInner(new CountedInner(&deleted));  // the first is replaced and deleted
    EXPECT_EQ(deleted, 1);
    Object* asObject = action;
    delete asObject;  // through the root base
  }
  EXPECT_EQ(deleted, 2);
}

TEST(LongActionMethodDeathTest, TheBaseActionNeverRuns) {
  LongActionMethod action("plain");
  action.Dump(2);  // does nothing
  EXPECT_DEATH(action.Do(), "LongActionMethod::Do called on \"plain\"");
}

LongActionResult RunShell(const std::string& command) {
  ExecuteShell2 action;
  action.Param(ExecuteShell2::kCommandParam, command);
  action.Do();
  return action.Result();
}

TEST(ExecuteShell2, ReportsOutputErrorTextAndStatus) {
  LongActionResult ok = RunShell("printf '12.37\\n'; echo warn >&2");
  EXPECT_EQ(ok.status, 0);
  EXPECT_EQ(ok.output, "12.37\n");
  EXPECT_EQ(ok.error, "warn\n");

  LongActionResult failed = RunShell("echo partial; exit 3");
  EXPECT_EQ(failed.status, 3);
  EXPECT_EQ(failed.output, "partial\n");
  EXPECT_EQ(failed.error, "exit status 3") << "with no stderr the record says why it failed";

  LongActionResult killed = RunShell("kill -9 $$");
  EXPECT_EQ(killed.status, LongActionResult::kSignalBase + 9);
  EXPECT_EQ(killed.error, "killed by signal 9 (SIGKILL)");

  std::string big(200000, 'y');
  EXPECT_EQ(RunShell("head -c 200000 /dev/zero | tr '\\0' y").output, big);
}

TEST(ExecuteShell2, ChildSeesOnlyItsThreeStandardDescriptorsInItsOwnGroup) {
  int leaked = dup(1);  // a descriptor of ours without close-on-exec
  ASSERT_GE(leaked, 3);
  // ls replaces the shell and lists its own descriptors: the three standard
  // ones and the directory it is reading, which takes the lowest free number.
  LongActionResult fds = RunShell("exec ls /proc/self/fd");
  close(leaked);
  EXPECT_EQ(fds.output, "0\n1\n2\n3\n");

  EXPECT_EQ(RunShell("cat").output, "") << "standard input is /dev/null";
  // Field 5 of /proc/PID/stat is the process group.
  LongActionResult group = RunShell("echo $(cut -d' ' -f5 /proc/$$/stat) $$");
  std::string pgid = group.output.substr(0, group.output.find(' '));
  EXPECT_EQ(pgid + " " + pgid + "\n", group.output) << "the shell leads its own process group";
}

}  // namespace
}  // namespace zelvar
