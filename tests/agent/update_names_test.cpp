// UpdateNamesMachine against the fake registry: one "listvalue" per name in
// key order, what each kind of answer does to the name's instances, and how a
// run ends early. Also the registry handle lookup every registry user shares.
#include "naming/update_names.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "naming/name_container.h"
#include "naming/zk_access.h"
#include "test_host.h"
#include "zelvar/kadri.pb.h"

using ovita2::testing::TestHost;

namespace {

std::string Address(const std::string& ip, int port) {
  zelvar::kadri::NameNodeContent content;
  content.set_ip(ip);
  content.set_port(port);
  return content.SerializeAsString();
}

zelvar::kadri::NameNodeContent Content(const std::string& ip, int port) {
  zelvar::kadri::NameNodeContent content;
  content.set_ip(ip);
  content.set_port(port);
  return content;
}

// Field 1 announces five bytes and the data ends after two.
const char kTruncatedNode[] = "\x0a\x05" "ab";

int g_hookCalls = 0;
void CountHookCall() { ++g_hookCalls; }

class UpdateNames : public ::testing::Test {
 protected:
  UpdateNames() {
    NameContainer::Instance()->ResetForTesting();
    ovita2::ResetRegistryHandleForTesting();
    g_hookCalls = 0;
  }
  ~UpdateNames() override { NameContainer::Instance()->ResetForTesting(); }

  static NameContainer& Names() { return *NameContainer::Instance(); }

  std::string Line(uint32_t id, const std::string& state, const std::string& text) const {
    return "machine:UpdateNamesMachine(" + std::to_string(id) + ")|state:" + state + "|" + text;
  }

  // Answers the last command and lets the machine handle it.
  void AnswerChildren(const std::vector<std::pair<std::string, std::string>>& children) {
    host_.Registry().AnswerChildren(host_.Registry().LastCall(), children);
    host_.RunPending();
  }

  TestHost host_;
};

TEST_F(UpdateNames, WalksTheNamesInKeyOrderAndAnErrorAnswerKeepsThatNamesInstances) {
  Names().DefineName("TELLAR2_ACCESS", "/ovita2/names/TELLAR2_ACCESS");
  Names().DefineName("MASTER", "/ovita2/names/MASTER");
  Names().DefineName("AGGR", "/ovita2/names/AGGR");
  Names().SetNameValue("MASTER", "old", Content("10.0.0.9", 9));
  Names().SetNameValue("AGGR", "stale", Content("10.0.0.8", 8));

  uint32_t id = host_.Start(UpdateNamesCreateMySelf()).id;
  ASSERT_EQ(host_.Registry().Calls().size(), 1u);
  const auto& first = host_.Registry().LastCall();
  EXPECT_EQ(first.command, "listvalue");
  EXPECT_EQ(first.path, "/ovita2/names/AGGR");
  EXPECT_EQ(first.watcher, nullptr);
  EXPECT_EQ(first.machine_id, id);
  AnswerChildren({{"a1", Address("10.0.1.1", 7001)}});

  ASSERT_EQ(host_.Registry().Calls().size(), 2u);
  EXPECT_EQ(host_.Registry().LastCall().path, "/ovita2/names/MASTER");
  host_.Registry().AnswerError(host_.Registry().LastCall(), ZNONODE, "no node");
  host_.RunPending();

  ASSERT_EQ(host_.Registry().Calls().size(), 3u);
  EXPECT_EQ(host_.Registry().LastCall().path, "/ovita2/names/TELLAR2_ACCESS");
  EXPECT_TRUE(host_.IsAlive(id));
  AnswerChildren({{"t1", Address("10.0.2.1", 7201)}, {"t2", Address("10.0.2.2", 7202)}});
  EXPECT_FALSE(host_.IsAlive(id)) << "the run ends after the last name";
  EXPECT_EQ(host_.Registry().Calls().size(), 3u);

  // The refreshed names lost their old instances; the failed one kept its own.
  EXPECT_EQ(Names().FindNameValues("AGGR").size(), 1u);
  EXPECT_EQ(Names().FindNameValues("AGGR").count("a1"), 1u);
  ASSERT_EQ(Names().FindNameValues("MASTER").size(), 1u);
  EXPECT_EQ(Names().GetNameValue("MASTER")->ip(), "10.0.0.9");
  auto tellar = Names().FindNameValues("TELLAR2_ACCESS");
  ASSERT_EQ(tellar.size(), 2u);
  EXPECT_EQ(tellar["t2"].port(), 7202);

  std::vector<std::string> expected = {
      Line(id, "Entry_WaitInfo", "listvalue AGGR success"),
      Line(id, "Entry_WaitInfo", "name=AGGR, ip=10.0.1.1, port=7001"),
      Line(id, "Entry_WaitInfo", "listvalue MASTER failed, no node"),
      Line(id, "Entry_WaitInfo", "listvalue TELLAR2_ACCESS success"),
      Line(id, "Entry_WaitInfo", "name=TELLAR2_ACCESS, ip=10.0.2.1, port=7201"),
      Line(id, "Entry_WaitInfo", "name=TELLAR2_ACCESS, ip=10.0.2.2, port=7202"),
  };
  EXPECT_EQ(host_.LogLines(), expected);
  EXPECT_EQ(host_.LogLinesAt(4), std::vector<std::string>{expected[2]});
  EXPECT_TRUE(host_.RuntimeLines().empty()) << "the run ends as done";

  // At trace level every successful answer is also dumped to the log file.
  std::string dump = host_.LogFdText();
  EXPECT_NE(dump.find("retcode:0, type:T_KEYVALUES\n"), std::string::npos) << dump;
  EXPECT_NE(dump.find("key=t2,value="), std::string::npos) << dump;
  EXPECT_EQ(dump.find("no node"), std::string::npos) << "error answers are not dumped";
}

TEST_F(UpdateNames, AboveTraceLevelOnlyErrorsAreWrittenAndNothingIsDumped) {
  Names().DefineName("MASTER", "/m");
  host_.SetLogLevel(2);
  host_.Start(UpdateNamesCreateMySelf());
  AnswerChildren({{"m1", Address("10.0.0.1", 1)}, {"bad", kTruncatedNode}});
  ASSERT_EQ(host_.LogLines().size(), 1u);
  EXPECT_NE(host_.LogLines()[0].find("Can't parse NodeContent for Modules: MASTER"), std::string::npos);
  EXPECT_EQ(host_.LogFdText(), "");
  EXPECT_NE(Names().GetNameValue("MASTER"), nullptr);
}

TEST_F(UpdateNames, AChildThatDoesNotParseIsLeftOutAndItsSiblingKept) {
  Names().DefineName("MASTER", "/m");
  Names().SetNameValue("MASTER", "gone", Content("10.9.9.9", 1));
  Names().SetUpdateHook(&CountHookCall);
  uint32_t id = host_.Start(UpdateNamesCreateMySelf()).id;
  AnswerChildren({{"bad", kTruncatedNode}, {"m1", Address("10.0.0.1", 7100)}});

  auto instances = Names().FindNameValues("MASTER");
  ASSERT_EQ(instances.size(), 1u);
  EXPECT_EQ(instances.begin()->first, "m1");
  EXPECT_EQ(instances.begin()->second.ip(), "10.0.0.1");
  EXPECT_EQ(host_.LogLinesAt(4),
            std::vector<std::string>{Line(id, "Entry_WaitInfo", "Can't parse NodeContent for Modules: MASTER")});
  EXPECT_EQ(g_hookCalls, 1) << "the hook runs once per refreshed name";
}

TEST_F(UpdateNames, AnEmptyListingNeverWipesKnownInstances) {
  Names().DefineName("MASTER", "/m");
  Names().DefineName("TELLAR2_ACCESS", "/t");
  Names().SetNameValue("MASTER", "m1", Content("10.0.0.1", 7100));
  Names().SetUpdateHook(&CountHookCall);
  uint32_t id = host_.Start(UpdateNamesCreateMySelf()).id;
  AnswerChildren({});
  AnswerChildren({{"t1", Address("10.0.2.1", 7200)}});
  EXPECT_FALSE(host_.IsAlive(id));

  ASSERT_NE(Names().GetNameValue("MASTER"), nullptr);
  EXPECT_EQ(Names().GetNameValue("MASTER")->port(), 7100);
  EXPECT_EQ(host_.LogLinesAt(4), std::vector<std::string>{Line(id, "Entry_WaitInfo", "no valid service for MASTER")});
  EXPECT_EQ(g_hookCalls, 1) << "only the name that was refreshed calls the hook";
}

TEST_F(UpdateNames, ARefusedListingEndsTheRunAndLeavesTheOtherNamesForTheNextRun) {
  Names().DefineName("A", "/a");
  Names().DefineName("B", "/b");
  host_.Registry().SetCommandResult(ZCONNECTIONLOSS);
  ovita2::testing::StartedMachine run = host_.Start(UpdateNamesCreateMySelf());
  EXPECT_FALSE(host_.IsAlive(run.id));
  ASSERT_EQ(host_.Registry().Calls().size(), 1u);
  EXPECT_EQ(host_.LogLines(), std::vector<std::string>{Line(run.id, "Entry_Init", "call listvalue failed, node: /a")});

  // The next run starts from the first name again.
  host_.Registry().SetCommandResult(0);
  host_.Start(UpdateNamesCreateMySelf());
  EXPECT_EQ(host_.Registry().LastCall().path, "/a");
}

TEST_F(UpdateNames, WithoutNamesOrWithoutARegistryARunEndsAtOnce) {
  uint32_t id = host_.Start(UpdateNamesCreateMySelf()).id;
  EXPECT_FALSE(host_.IsAlive(id));
  EXPECT_TRUE(host_.Registry().Calls().empty());
  EXPECT_TRUE(host_.LogLines().empty());

  // The handle found above is kept for good; start again without one.
  ovita2::ResetRegistryHandleForTesting();
  Names().DefineName("MASTER", "/m");
  host_.SetRegistryAvailable(false);
  host_.Start(UpdateNamesCreateMySelf());
  host_.Start(UpdateNamesCreateMySelf());
  EXPECT_TRUE(host_.Registry().Calls().empty());
  EXPECT_EQ(host_.LogLinesAt(4), (std::vector<std::string>{"handle of zookeeper not found",
                                                           "handle of zookeeper not found"}))
      << "a missing registry is asked for again at every run";

  host_.SetRegistryAvailable(true);
  host_.Start(UpdateNamesCreateMySelf());
  EXPECT_EQ(host_.Registry().Calls().size(), 1u);
}

TEST_F(UpdateNames, AHostWithoutThePluginLookupSaysSo) {
  Names().DefineName("MASTER", "/m");
  host_.ClearSlot(zelvar::kSlotGetPluginHandle);
  host_.Start(UpdateNamesCreateMySelf());
  EXPECT_EQ(host_.LogLines(), std::vector<std::string>{"handle of ei_get not found"});
  EXPECT_TRUE(host_.Registry().Calls().empty());
}

TEST_F(UpdateNames, TimeoutEndsTheWaitAndALateAnswerIsDropped) {
  Names().DefineName("MASTER", "/m");
  uint32_t id = host_.Start(UpdateNamesCreateMySelf()).id;
  ovita2::testing::RegistryCall pending = host_.Registry().LastCall();
  host_.AdvanceClock(TestHost::kDefaultMachineTimeout);
  EXPECT_FALSE(host_.IsAlive(id));
  EXPECT_EQ(host_.LogLines().back(), Line(id, "Entry_WaitInfo", "Timeout occurred, delete myself"));
  EXPECT_TRUE(host_.RuntimeLines().empty()) << "a timeout ends the run as done";

  host_.Registry().AnswerChildren(pending, {{"m1", Address("10.0.0.1", 1)}});
  host_.RunPending();
  EXPECT_EQ(Names().GetNameValue("MASTER"), nullptr);
}

}  // namespace
