// What every registry plug-in must answer the same way, whatever backs it.
#include <algorithm>

#include "registry_test.h"
#include "zelvar/kadri.pb.h"

namespace zelvar::registry::testing {
namespace {

int32_t PortIn(const std::string& bytes) {
  kadri::NameNodeContent content;
  return content.ParseFromString(bytes) ? content.port() : -1;
}

}  // namespace

TEST_P(RegistryConformance, ListValueGivesEachChildWithItsDataAndStat) {
  m_pRegistry->Seed("/ovita2/names/MASTER/m1", "127.0.0.1", 7100);
  m_pRegistry->Seed("/ovita2/names/MASTER/m2", "10.1.2.3", 7200);
  ASSERT_NO_FATAL_FAILURE(Load());

  const ZKPluginResponse* answer = Ask("listvalue", "/ovita2/names/MASTER", kNoWatch);
  ASSERT_NE(answer, nullptr);
  EXPECT_EQ(answer->type, ZKPluginResponse::T_KEYVALUES);
  EXPECT_EQ(answer->flags, ZKPluginResponse::kHasStat | ZKPluginResponse::kHasKeyValues);
  EXPECT_EQ(answer->stat.numChildren, 2);
  std::vector<ZKKeyValue> children = answer->keyvalues;
  std::sort(children.begin(), children.end(), [](const auto& a, const auto& b) { return a.key < b.key; });
  ASSERT_EQ(children.size(), 2u);
  for (const ZKKeyValue& child : children) {
    EXPECT_EQ(child.key + ":" + std::to_string(PortIn(child.value)), &child == &children[0] ? "m1:7100" : "m2:7200");
    EXPECT_EQ(child.stat.dataLength, static_cast<int32_t>(child.value.size()));
    EXPECT_EQ(child.stat.ephemeralOwner + child.stat.mzxid - child.stat.czxid, 0) << "persistent, never changed";
    EXPECT_GT(child.stat.ctime, 1577836800000LL) << "before 2020";
  }

  // One level up, the parent is a child with no data that counts its children.
  ASSERT_NE(answer = Ask("listvalue", "/ovita2/names", kNoWatch), nullptr);
  ASSERT_EQ(answer->keyvalues.size(), 1u);
  const ZKKeyValue& parent = answer->keyvalues[0];
  EXPECT_EQ(parent.key + parent.value, "MASTER");
  EXPECT_EQ(parent.stat.numChildren + 10 * parent.stat.cversion, 22);
  EXPECT_EQ(parent.stat.pzxid, children[1].stat.czxid);

  ASSERT_NE(answer = Ask("listvalue", "/ovita2/names/MASTER/m1", kNoWatch), nullptr);
  EXPECT_EQ(answer->retcode, 0);
  EXPECT_TRUE(answer->keyvalues.empty()) << "a leaf has no children";
  ASSERT_NE(answer = Ask("listvalue", "/ovita2/names/NOBODY", kNoWatch), nullptr);
  EXPECT_EQ(std::make_tuple(answer->retcode, answer->error_message, answer->type, answer->flags),
            std::make_tuple(int{ZNONODE}, std::string("no node"), ZKPluginResponse::T_VOID, 0u));
}

TEST_P(RegistryConformance, CreateAnswersAsAServerWouldAndKeepsTheDataByteForByte) {
  m_pRegistry->Seed("/ovita2/agents/seeded", "127.0.0.1", 1);
  ASSERT_NO_FATAL_FAILURE(Load());
  const std::string data("\x0a\x0b" "192.168.0.7\0tail", 18);
  // The created path, or the error's text.
  auto create = [&](const char* path, int flags, const char* bytes = nullptr, int64_t length = 0) {
    const ZKPluginResponse* created = Ask("create", path, bytes, length, flags);
    return created == nullptr ? "" : created->retcode != 0 ? created->error_message : created->string;
  };
  ASSERT_NE(Ask("get", "/ovita2/agents/host-a", &RecordingWatcher), nullptr);
  EXPECT_EQ(m_pMachine->answers.back()->error_message, "no node");

  EXPECT_EQ(create("/ovita2/agents/host-a", ZOO_EPHEMERAL, data.data(), 18), "/ovita2/agents/host-a");
  EXPECT_EQ(m_pMachine->answers.back()->type, ZKPluginResponse::T_STRING);
  EXPECT_TRUE(watchEvents.empty()) << "a get of a missing node armed a watch";
  EXPECT_EQ(create("/ovita2/agents/host-a", ZOO_EPHEMERAL, data.data(), 18), "node exists");
  EXPECT_EQ(create("/ovita2/agents/host-a/child", ZOO_PERSISTENT), "no children for ephemerals");
  EXPECT_EQ(create("/ovita2/agents/plain", ZOO_PERSISTENT), "/ovita2/agents/plain") << "no data is an empty node";
  // The number is the parent's count of child creations, whatever their kind.
  EXPECT_EQ(create("/ovita2/agents/seq-", ZOO_PERSISTENT_SEQUENTIAL, "s", 1), "/ovita2/agents/seq-0000000003");
  EXPECT_EQ(create("/ovita2/agents/seq-", ZOO_EPHEMERAL_SEQUENTIAL), "/ovita2/agents/seq-0000000004");
  EXPECT_EQ(create("/ovita2/agents/", ZOO_PERSISTENT_SEQUENTIAL), "/ovita2/agents/0000000005");
  EXPECT_EQ(create("/ovita2/made/on/the/way", ZOO_EPHEMERAL, "e", 1), "/ovita2/made/on/the/way");
  const ZKPluginResponse* parent = Ask("get", "/ovita2/made/on", kNoWatch);  // made persistent and empty
  EXPECT_EQ(parent != nullptr ? parent->string + std::to_string(parent->stat.ephemeralOwner) : "?", "0");

  const ZKPluginResponse* read = Ask("get", "/ovita2/agents/host-a", kNoWatch);
  ASSERT_NE(read, nullptr);
  EXPECT_EQ(std::make_tuple(read->type, read->string, read->stat.dataLength),
            std::make_tuple(ZKPluginResponse::T_DATA, data, 18));
  EXPECT_NE(read->stat.ephemeralOwner, 0) << "an ephemeral node names its owner";
  const ZKPluginResponse* listed = Ask("listvalue", "/ovita2/agents", kNoWatch);
  ASSERT_NE(listed, nullptr);
  EXPECT_EQ(listed->keyvalues.size(), 6u) << "a refused creation made a node";
}

TEST_P(RegistryConformance, OnlyAcceptedCommandsAreAnsweredAndOnlyToTheirIssuer) {
  m_pRegistry->Seed("/ovita2/names/MASTER/m1", "127.0.0.1", 7100);
  ASSERT_NO_FATAL_FAILURE(Load());
  AnswerRecorder* reader = AnswerRecorder::Start(m_host);
  unsigned goneId = std::make_unique<AnswerRecorder>()->GetMachineId();
  EXPECT_NE(Call("delete", "/ovita2/names/MASTER/m1", kNoWatch), 0);
  EXPECT_NE(Call("LISTVALUE", "/ovita2/names", kNoWatch), 0);
  EXPECT_NE(Call("listvalue", static_cast<const char*>(nullptr), kNoWatch), 0);
  for (const char* badPath : {"", "ovita2", "/ovita2/", "//ovita2", "/ovita2/./names", "/ovita2/..", "/."}) {
    EXPECT_NE(Call("get", badPath, kNoWatch), 0) << badPath;
  }
  for (int64_t badLength : {int64_t{-1}, int64_t{1} << 32}) {
    EXPECT_NE(Call("create", "/ovita2/x", "abc", badLength, ZOO_EPHEMERAL), 0) << badLength;
  }
  EXPECT_NE(Call("create", "/ovita2/x", static_cast<const char*>(nullptr), int64_t{3}, 0), 0);
  EXPECT_NE(Handle()->ZKPluginCall(m_pMachine->GetMachineId(), nullptr), 0);
  EXPECT_EQ(Call("set_callback", &CountingCallback), 0);

  ASSERT_EQ(Call("listvalue", "/ovita2/names/MASTER", kNoWatch), 0);
  ASSERT_EQ(Handle()->ZKPluginCall(reader->GetMachineId(), "get", "/ovita2/names/MASTER/m1", kNoWatch), 0);
  ASSERT_EQ(Handle()->ZKPluginCall(goneId, "get", "/ovita2/names/MASTER/m1", kNoWatch), 0);
  // Whether the dropped answer was freed is the sanitizer build's leak check.
  m_host.RunLoopUntil([&] { return m_host.UndeliveredRecords() + reader->answers.size() > 1; });
  m_host.RunLoopUntil([] { return false; }, 100);  // for answers that should not come
  ASSERT_EQ(m_pMachine->answers.size(), 1u);
  ASSERT_EQ(reader->answers.size(), 1u);
  EXPECT_EQ(m_host.UndeliveredRecords(), 1u);
  EXPECT_EQ(PortIn(reader->answers[0]->string), 7100);
  EXPECT_EQ(callbackCalls, 0) << "the connection was never lost";
}

}  // namespace zelvar::registry::testing
