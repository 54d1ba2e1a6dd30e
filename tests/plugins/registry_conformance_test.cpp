// What every registry plug-in must do the same way, whatever backs it.
#include "registry_conformance.h"

#include <algorithm>

#include "zelvar/kadri.pb.h"

namespace zelvar::registry::testing {

void RegistryConformance::SetUp() {
  m_pRegistry = GetParam().make();
  std::string error;
  ASSERT_TRUE(m_pRegistry->Prepare(&error)) << error;
}

void RegistryConformance::TearDown() {
  m_pPlugin.reset();
  m_pRegistry.reset();
}

void RegistryConformance::Load() {
  m_pRegistry->Configure(m_host);
  m_pPlugin = std::make_unique<LoadedPlugin>(m_pRegistry->PluginPath(), m_host);
  ASSERT_EQ(m_pPlugin->Error(), "");
  ASSERT_EQ(m_pPlugin->Init(), 0);
  ASSERT_NE(m_pPlugin->Handle(), nullptr);
  ASSERT_NE(m_pPlugin->Handle()->ZKPluginCall, nullptr);
  ASSERT_TRUE(m_host.RunUntil([this] { return m_pPlugin->IsReady(); })) << "the registry never became ready";
}

const ZKPluginResponse* RegistryConformance::AwaitAnswers(AnswerRecorder* recorder, size_t count) {
  m_host.RunUntil([&] { return recorder->answers.size() >= count; });
  EXPECT_EQ(recorder->answers.size(), count);
  return recorder->answers.size() == count ? recorder->answers.back().get() : nullptr;
}

namespace {

std::vector<ZKKeyValue> ByKey(std::vector<ZKKeyValue> children) {
  std::sort(children.begin(), children.end(),
            [](const ZKKeyValue& a, const ZKKeyValue& b) { return a.key < b.key; });
  return children;
}

kadri::NameNodeContent Parse(const std::string& bytes) {
  kadri::NameNodeContent content;
  EXPECT_TRUE(content.ParseFromString(bytes));
  return content;
}

int watcherCalls = 0;
void CountingWatcher(zhandle_t*, int, int, const char*, void*) { ++watcherCalls; }

int callbackCalls = 0;
void CountingCallback() { ++callbackCalls; }

// Milliseconds since the epoch of 2020-01-01, a floor for any plausible ctime.
constexpr int64_t kYear2020Ms = 1577836800000LL;

}  // namespace

TEST_P(RegistryConformance, ListValueGivesEveryChildWithItsDataAndStat) {
  ASSERT_TRUE(m_pRegistry->Seed("/ovita2/names/MASTER/m1", "127.0.0.1:7100"));
  ASSERT_TRUE(m_pRegistry->Seed("/ovita2/names/MASTER/m2", "10.1.2.3:7200"));
  ASSERT_NO_FATAL_FAILURE(Load());
  AnswerRecorder* machine = AnswerRecorder::Start(m_host);

  ASSERT_EQ(Call(machine, "listvalue", "/ovita2/names/MASTER", static_cast<watcher_fn>(nullptr)), 0);
  const ZKPluginResponse* answer = AwaitAnswers(machine);
  ASSERT_NE(answer, nullptr);
  EXPECT_EQ(answer->retcode, 0);
  EXPECT_EQ(answer->type, ZKPluginResponse::T_KEYVALUES);
  EXPECT_EQ(answer->flags, ZKPluginResponse::kHasStat | ZKPluginResponse::kHasKeyValues);
  EXPECT_EQ(answer->stat.numChildren, 2);

  std::vector<ZKKeyValue> children = ByKey(answer->keyvalues);
  ASSERT_EQ(children.size(), 2u);
  EXPECT_EQ(children[0].key, "m1");
  EXPECT_EQ(Parse(children[0].value).ip(), "127.0.0.1");
  EXPECT_EQ(Parse(children[0].value).port(), 7100);
  EXPECT_EQ(children[1].key, "m2");
  EXPECT_EQ(Parse(children[1].value).ip(), "10.1.2.3");
  EXPECT_EQ(Parse(children[1].value).port(), 7200);
  for (const ZKKeyValue& child : children) {
    EXPECT_EQ(child.stat.dataLength, static_cast<int32_t>(child.value.size())) << child.key;
    EXPECT_EQ(child.stat.numChildren, 0) << child.key;
    EXPECT_EQ(child.stat.ephemeralOwner, 0) << child.key;
    EXPECT_EQ(child.stat.version, 0) << child.key;
    EXPECT_GT(child.stat.czxid, 0) << child.key;
    EXPECT_EQ(child.stat.mzxid, child.stat.czxid) << child.key;
    EXPECT_GT(child.stat.ctime, kYear2020Ms) << child.key;
  }
  EXPECT_LT(children[0].stat.czxid, children[1].stat.czxid) << "m1 was created first";

  // One level up, the implicit parent is a child with no data of its own.
  ASSERT_EQ(Call(machine, "listvalue", "/ovita2/names", static_cast<watcher_fn>(nullptr)), 0);
  answer = AwaitAnswers(machine, 2);
  ASSERT_NE(answer, nullptr);
  ASSERT_EQ(answer->keyvalues.size(), 1u);
  EXPECT_EQ(answer->keyvalues[0].key, "MASTER");
  EXPECT_EQ(answer->keyvalues[0].value, "");
  EXPECT_EQ(answer->keyvalues[0].stat.numChildren, 2);
}

TEST_P(RegistryConformance, ListValueOfALeafIsEmptyAndOfAMissingPathIsNoNode) {
  ASSERT_TRUE(m_pRegistry->Seed("/ovita2/names/MASTER/m1", "127.0.0.1:7100"));
  ASSERT_NO_FATAL_FAILURE(Load());
  AnswerRecorder* machine = AnswerRecorder::Start(m_host);

  ASSERT_EQ(Call(machine, "listvalue", "/ovita2/names/MASTER/m1", static_cast<watcher_fn>(nullptr)), 0);
  const ZKPluginResponse* leaf = AwaitAnswers(machine, 1);
  ASSERT_NE(leaf, nullptr);
  EXPECT_EQ(leaf->retcode, 0);
  EXPECT_TRUE(leaf->keyvalues.empty());

  ASSERT_EQ(Call(machine, "listvalue", "/ovita2/names/NOBODY", static_cast<watcher_fn>(nullptr)), 0);
  const ZKPluginResponse* missing = AwaitAnswers(machine, 2);
  ASSERT_NE(missing, nullptr);
  EXPECT_EQ(missing->retcode, ZNONODE);
  EXPECT_EQ(missing->error_message, "no node");
  EXPECT_EQ(missing->type, ZKPluginResponse::T_VOID);
  EXPECT_EQ(missing->flags, 0u);
  EXPECT_TRUE(missing->keyvalues.empty());
}

TEST_P(RegistryConformance, CreatedNodeIsReadBackListedAndCannotBeCreatedTwice) {
  ASSERT_TRUE(m_pRegistry->EnsureParents("/ovita2/agents/host-a"));
  ASSERT_NO_FATAL_FAILURE(Load());
  AnswerRecorder* machine = AnswerRecorder::Start(m_host);
  kadri::NameNodeContent self;
  self.set_ip("192.168.0.7");
  self.set_port(0);  // a zero field still encodes; the data holds a NUL byte
  std::string data = self.SerializeAsString() + std::string("\0tail", 5);

  ASSERT_EQ(Call(machine, "create", "/ovita2/agents/host-a", data.data(), static_cast<int64_t>(data.size()),
                 ZOO_EPHEMERAL),
            0);
  const ZKPluginResponse* created = AwaitAnswers(machine, 1);
  ASSERT_NE(created, nullptr);
  EXPECT_EQ(created->retcode, 0);
  EXPECT_EQ(created->type, ZKPluginResponse::T_STRING);
  EXPECT_EQ(created->string, "/ovita2/agents/host-a");

  ASSERT_EQ(Call(machine, "create", "/ovita2/agents/host-a", data.data(), static_cast<int64_t>(data.size()),
                 ZOO_EPHEMERAL),
            0);
  const ZKPluginResponse* again = AwaitAnswers(machine, 2);
  ASSERT_NE(again, nullptr);
  EXPECT_EQ(again->retcode, ZNODEEXISTS);
  EXPECT_EQ(again->error_message, "node exists");

  ASSERT_EQ(Call(machine, "get", "/ovita2/agents/host-a", &CountingWatcher), 0);
  const ZKPluginResponse* read = AwaitAnswers(machine, 3);
  ASSERT_NE(read, nullptr);
  EXPECT_EQ(read->retcode, 0);
  EXPECT_EQ(read->type, ZKPluginResponse::T_DATA);
  EXPECT_TRUE(read->flags & ZKPluginResponse::kHasStat);
  EXPECT_EQ(read->string, data) << "the data comes back byte for byte";
  EXPECT_EQ(read->stat.dataLength, static_cast<int32_t>(data.size()));
  EXPECT_NE(read->stat.ephemeralOwner, 0) << "an ephemeral node names its owner";

  ASSERT_EQ(Call(machine, "listvalue", "/ovita2/agents", static_cast<watcher_fn>(nullptr)), 0);
  const ZKPluginResponse* listed = AwaitAnswers(machine, 4);
  ASSERT_NE(listed, nullptr);
  ASSERT_EQ(listed->keyvalues.size(), 1u);
  EXPECT_EQ(listed->keyvalues[0].key, "host-a");
  EXPECT_EQ(listed->keyvalues[0].value, data);
  EXPECT_EQ(listed->keyvalues[0].stat.czxid, read->stat.czxid);
}

TEST_P(RegistryConformance, SequentialNodesAreNumberedByTheirParent) {
  ASSERT_TRUE(m_pRegistry->EnsureParents("/ovita2/queue/item-"));
  ASSERT_NO_FATAL_FAILURE(Load());
  AnswerRecorder* machine = AnswerRecorder::Start(m_host);

  ASSERT_EQ(Call(machine, "create", "/ovita2/queue/item-", "a", int64_t{1}, ZOO_PERSISTENT_SEQUENTIAL), 0);
  ASSERT_EQ(Call(machine, "create", "/ovita2/queue/item-", "b", int64_t{1}, ZOO_PERSISTENT_SEQUENTIAL), 0);
  AwaitAnswers(machine, 2);
  ASSERT_EQ(machine->answers.size(), 2u);
  EXPECT_EQ(machine->answers[0]->string, "/ovita2/queue/item-0000000000");
  EXPECT_EQ(machine->answers[1]->string, "/ovita2/queue/item-0000000001");
}

TEST_P(RegistryConformance, EphemeralNodesCannotHaveChildren) {
  ASSERT_TRUE(m_pRegistry->EnsureParents("/ovita2/agents/host-b"));
  ASSERT_NO_FATAL_FAILURE(Load());
  AnswerRecorder* machine = AnswerRecorder::Start(m_host);

  ASSERT_EQ(Call(machine, "create", "/ovita2/agents/host-b", "", int64_t{0}, ZOO_EPHEMERAL), 0);
  ASSERT_EQ(Call(machine, "create", "/ovita2/agents/host-b/child", "", int64_t{0}, ZOO_PERSISTENT), 0);
  AwaitAnswers(machine, 2);
  ASSERT_EQ(machine->answers.size(), 2u);
  EXPECT_EQ(machine->answers[0]->retcode, 0);
  EXPECT_EQ(machine->answers[1]->retcode, ZNOCHILDRENFOREPHEMERALS);
}

TEST_P(RegistryConformance, GetOfAMissingNodeIsNoNodeAndArmsNoWatch) {
  ASSERT_TRUE(m_pRegistry->EnsureParents("/ovita2/agents/late"));
  ASSERT_NO_FATAL_FAILURE(Load());
  AnswerRecorder* machine = AnswerRecorder::Start(m_host);
  watcherCalls = 0;

  ASSERT_EQ(Call(machine, "get", "/ovita2/agents/late", &CountingWatcher), 0);
  const ZKPluginResponse* missing = AwaitAnswers(machine, 1);
  ASSERT_NE(missing, nullptr);
  EXPECT_EQ(missing->retcode, ZNONODE);
  EXPECT_EQ(missing->error_message, "no node");

  // Creating the node afterwards would fire a watch that had been armed.
  ASSERT_EQ(Call(machine, "create", "/ovita2/agents/late", "x", int64_t{1}, ZOO_EPHEMERAL), 0);
  ASSERT_EQ(Call(machine, "get", "/ovita2/agents/late", static_cast<watcher_fn>(nullptr)), 0);
  AwaitAnswers(machine, 3);
  EXPECT_EQ(watcherCalls, 0);
}

TEST_P(RegistryConformance, AnswersReachOnlyTheIssuingMachineOnALaterLoopTurn) {
  ASSERT_TRUE(m_pRegistry->Seed("/ovita2/names/MASTER/m1", "127.0.0.1:7100"));
  ASSERT_NO_FATAL_FAILURE(Load());
  AnswerRecorder* lister = AnswerRecorder::Start(m_host);
  AnswerRecorder* reader = AnswerRecorder::Start(m_host);

  ASSERT_EQ(Call(lister, "listvalue", "/ovita2/names/MASTER", static_cast<watcher_fn>(nullptr)), 0);
  ASSERT_EQ(Call(reader, "get", "/ovita2/names/MASTER/m1", static_cast<watcher_fn>(nullptr)), 0);
  EXPECT_TRUE(lister->answers.empty()) << "an answer arrived inside the call";
  EXPECT_TRUE(reader->answers.empty()) << "an answer arrived inside the call";

  m_host.RunUntil([&] { return lister->answers.size() + reader->answers.size() >= 2; });
  ASSERT_EQ(lister->answers.size(), 1u);
  ASSERT_EQ(reader->answers.size(), 1u);
  EXPECT_EQ(lister->answers[0]->type, ZKPluginResponse::T_KEYVALUES);
  EXPECT_EQ(reader->answers[0]->type, ZKPluginResponse::T_DATA);
  EXPECT_EQ(Parse(reader->answers[0]->string).port(), 7100);
}

TEST_P(RegistryConformance, AnswerForAMachineThatIsGoneIsFreed) {
  ASSERT_TRUE(m_pRegistry->Seed("/ovita2/names/MASTER/m1", "127.0.0.1:7100"));
  ASSERT_NO_FATAL_FAILURE(Load());
  auto* gone = new AnswerRecorder();
  unsigned goneId = gone->GetMachineId();
  delete gone;

  ASSERT_EQ(m_pPlugin->Handle()->ZKPluginCall(goneId, "listvalue", "/ovita2/names/MASTER",
                                              static_cast<watcher_fn>(nullptr)),
            0);
  // The leak checker of the sanitizer build tells whether the record was freed.
  EXPECT_TRUE(m_host.RunUntil([this] { return m_host.answers_to_gone_machines == 1; }));
}

TEST_P(RegistryConformance, RefusedCommandsAndSetCallbackProduceNoAnswer) {
  ASSERT_TRUE(m_pRegistry->Seed("/ovita2/names/MASTER/m1", "127.0.0.1:7100"));
  ASSERT_NO_FATAL_FAILURE(Load());
  AnswerRecorder* machine = AnswerRecorder::Start(m_host);
  callbackCalls = 0;
  watcher_fn none = nullptr;

  EXPECT_NE(Call(machine, "delete", "/ovita2/names/MASTER/m1", none), 0);
  EXPECT_NE(Call(machine, "listvalue", static_cast<const char*>(nullptr), none), 0);
  EXPECT_NE(Call(machine, "get", "ovita2/names", none), 0);
  EXPECT_NE(Call(machine, "get", "/ovita2/names/", none), 0);
  EXPECT_NE(Call(machine, "get", "/ovita2//names", none), 0);
  EXPECT_NE(Call(machine, "create", "/ovita2/x", "abc", int64_t{-1}, ZOO_EPHEMERAL), 0);
  EXPECT_NE(Call(machine, "create", "/ovita2/x", static_cast<const char*>(nullptr), int64_t{3}, ZOO_EPHEMERAL), 0);
  EXPECT_NE(m_pPlugin->Handle()->ZKPluginCall(machine->GetMachineId(), nullptr), 0);
  EXPECT_EQ(Call(machine, "set_callback", &CountingCallback), 0);

  // One accepted command afterwards: its answer is the only one that comes.
  ASSERT_EQ(Call(machine, "get", "/ovita2/names/MASTER/m1", none), 0);
  const ZKPluginResponse* answer = AwaitAnswers(machine, 1);
  ASSERT_NE(answer, nullptr);
  EXPECT_EQ(answer->type, ZKPluginResponse::T_DATA);
  for (int i = 0; i < 5; ++i) m_host.Turn();
  EXPECT_EQ(machine->answers.size(), 1u);
  EXPECT_EQ(callbackCalls, 0) << "the connection was never lost";
}

}  // namespace zelvar::registry::testing
