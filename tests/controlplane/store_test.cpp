// The control plane's database: whole-or-nothing writes, what the reads pick
// and in which order, the agents' rows, retention, and the files it refuses.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <string>
#include <vector>

#include "local_system.h"
#include "store_test_support.h"

namespace controlplane {
namespace {

template <typename Row>
std::vector<int64_t> Ids(const std::vector<Row>& rows) {
  std::vector<int64_t> ids;
  for (const Row& row : rows) ids.push_back(row.id);
  return ids;
}

class SampleStoreTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(store.Open(path, &error)) << error; }
  std::vector<int64_t> AllIds() { return Ids(store.RecentSamples(SampleQuery{"", std::nullopt, "", 0, 100}, &error)); }

  ovita2::testing::TempDir dir;
  const std::string path = dir.Path() + "/cp.db";
  SampleStore store;
  std::string error;
};

TEST_F(SampleStoreTest, AWriteThatFailsPartWayKeepsNothing) {
  std::vector<SampleRow> batch(3, NumericRow("web-01", 1, "load", 5, 1000));
  batch.back().agent.clear();  // a sample nobody sent cannot be stored
  EXPECT_FALSE(store.AddSamples(batch, &error));
  EXPECT_EQ(error.rfind(path + ": cannot store samples", 0), 0u) << error;
  EXPECT_EQ(AllIds(), std::vector<int64_t>{});
  EXPECT_FALSE(store.AddRealTimeLine("", 1000, "orphan", &error));
  EXPECT_TRUE(store.RecentRealTimeLines(SampleQuery(), &error).empty());
  batch.back().agent = "web-01";
  ASSERT_TRUE(store.AddSamples(batch, &error)) << error;
  EXPECT_EQ(AllIds(), (std::vector<int64_t>{1, 2, 3}));
}

TEST_F(SampleStoreTest, RowsComeBackAsStoredAndQueriesPickTheirRowsOldestFirst) {
  const std::string output("line one\n\tsecond\0after nul\n", 27);
  ASSERT_TRUE(store.AddSamples({NumericRow("web-01", 1, "load", -15, 1234), NumericRow("web-01", 2, "load", 2, 1000),
                                NumericRow("web-02", 1, "load", 3, 1000), NumericRow("web-01", 1, "disk", 4, 1000),
                                TextRow("web-01", "load", output, 1000), NumericRow("web-01", 0, "load", 6, 1000)},
                               &error))
      << error;
  for (const char* agent : {"a", "b", "a", "a"}) ASSERT_TRUE(store.AddRealTimeLine(agent, 1000, agent, &error));
  std::vector<SampleRow> rows = store.RecentSamples(SampleQuery(), &error);
  ASSERT_EQ(rows.size(), 6u) << error;
  EXPECT_EQ(std::to_string(rows[0].received_at) + " " + std::to_string(*rows[0].object_id) + " " +
                std::to_string(rows[0].stat_item) + " " + std::to_string(rows[0].value),
            "1234 1 1001 -15");
  EXPECT_TRUE(rows[4].text && !rows[4].object_id && rows[4].job_id == 3 && rows[4].sample_time == 999);
  EXPECT_EQ(rows[4].text_value, output) << "a text sample keeps every byte, a NUL included";

  struct Case {
    bool recent;  // RecentSamples, else SamplesAfter
    SampleQuery query;
    std::vector<int64_t> ids;
  };
  for (const Case& c : std::vector<Case>{
           {true, {"web-01", 1, "load", 0, 100}, {1}},
           {true, {"web-01", std::nullopt, "load", 0, 100}, {1, 2, 5, 6}},
           {true, {"", 1, "", 0, 100}, {1, 3, 4}},
           {true, {"", 0, "", 0, 100}, {6}},  // object 0 is an object, not an unknown one
           {true, {"web-03", std::nullopt, "", 0, 100}, {}},
           {true, {"", std::nullopt, "", 0, 3}, {4, 5, 6}},
           {true, {"", std::nullopt, "", 4, 5}, {5, 6}},
           {false, {"", std::nullopt, "", 2, 2}, {3, 4}},
           {false, {"web-01", std::nullopt, "", 1, 2}, {2, 4}},
       }) {
    const auto found = c.recent ? store.RecentSamples(c.query, &error) : store.SamplesAfter(c.query, &error);
    EXPECT_EQ(Ids(found), c.ids) << c.query.agent << " after " << c.query.after_id << " limit " << c.query.limit;
  }
  EXPECT_EQ(Ids(store.RecentRealTimeLines({"a", std::nullopt, "", 0, 2}, &error)), (std::vector<int64_t>{3, 4}));
  EXPECT_EQ(Ids(store.RealTimeLinesAfter({"a", std::nullopt, "lines have no name", 1, 1}, &error)),
            (std::vector<int64_t>{3}));

  SampleStore reader;  // as the client reads while the control plane writes
  ASSERT_TRUE(reader.OpenReadOnly(path, &error)) << error;
  EXPECT_EQ(reader.RecentSamples(SampleQuery(), &error).size(), 6u) << error;
  EXPECT_FALSE(reader.AddSamples({NumericRow("web-01", 1, "load", 2, 1000)}, &error));
  EXPECT_FALSE(reader.Prune(1 << 30, &error));
}

TEST_F(SampleStoreTest, AnAgentKeepsItsFirstSightingAndAnyNodePathOrAddressItOnceGave) {
  ASSERT_TRUE(store.TouchAgent("web-01", "/ovita2/agents/web-01", "10.0.0.1", 100, &error)) << error;
  ASSERT_TRUE(store.TouchAgent("web-01", "", "", 200, &error)) << error;
  ASSERT_TRUE(store.RecordHeartbeat("web-01", "10.0.0.2", 300, "2.1.0", 7, &error)) << error;
  ASSERT_TRUE(store.RecordHeartbeat("a-new", "", 400, "2.0.0", 0, &error)) << error;
  std::vector<std::string> agents;
  for (const AgentRow& a : store.Agents(&error)) {
    agents.push_back(a.name + " " + a.node_path + " " + a.address + " " + std::to_string(a.first_seen) + " " +
                     std::to_string(a.last_seen) + " " + std::to_string(a.last_heartbeat) + " " + a.version + " " +
                     std::to_string(a.job_count));
  }
  EXPECT_EQ(agents, (std::vector<std::string>{"a-new   400 400 400 2.0.0 0",
                                              "web-01 /ovita2/agents/web-01 10.0.0.2 100 300 300 2.1.0 7"}));
}

TEST_F(SampleStoreTest, PruneDropsOldRowsKeepsAgentsAndNeverHandsAnIdOutTwice) {
  ASSERT_TRUE(store.AddSamples({NumericRow("a", 1, "load", 1, 100), NumericRow("a", 1, "load", 2, 200)}, &error));
  ASSERT_TRUE(store.AddRealTimeLine("a", 100, "old", &error));
  ASSERT_TRUE(store.AddRealTimeLine("a", 200, "kept", &error));
  ASSERT_TRUE(store.TouchAgent("a", "", "", 100, &error));
  ASSERT_TRUE(store.Prune(200, &error)) << error;
  EXPECT_EQ(AllIds(), (std::vector<int64_t>{2}));
  EXPECT_EQ(Ids(store.RecentRealTimeLines(SampleQuery(), &error)), (std::vector<int64_t>{2}));
  EXPECT_EQ(store.Agents(&error).size(), 1u);

  ASSERT_TRUE(store.Prune(1000, &error)) << error;
  EXPECT_EQ(store.LastSampleId(&error), 0);
  ASSERT_TRUE(store.AddSamples({NumericRow("a", 1, "load", 4, 2000)}, &error)) << error;
  ASSERT_TRUE(store.AddRealTimeLine("a", 2000, "new", &error)) << error;
  EXPECT_EQ(store.LastSampleId(&error), 3) << "a follower that saw id 2 must still see the next sample";
  EXPECT_EQ(store.LastRealTimeLineId(&error), 3);
}

TEST_F(SampleStoreTest, OpeningRefusesANewerSchemaAndReadingAMissingOrForeignFile) {
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db, "PRAGMA user_version = 2", nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_close(db);
  const std::string newer = ": the database has schema version 2, newer than the 1 this program knows";
  const std::string missing = dir.Path() + "/missing.db", notes = dir.Write("notes", std::string(4096, 'n'));
  struct Case {
    std::string path;
    bool readOnly, notCreatedYet;
    std::string error;  // its start
  };
  for (const Case& c : std::vector<Case>{
           {path, false, false, path + newer},
           {path, true, false, path + newer},
           {missing, true, true, missing + ": no such database (the control plane creates it when it starts)"},
           {dir.Write("empty.db", ""), true, true, dir.Path() + "/empty.db: no such database yet"},
           {notes, true, false, notes + ": cannot read the database: file is not a database"},
       }) {
    SampleStore other;
    EXPECT_FALSE(c.readOnly ? other.OpenReadOnly(c.path, &error) : other.Open(c.path, &error));
    EXPECT_EQ(error.substr(0, c.error.size()), c.error);
    EXPECT_EQ(other.NotCreatedYet(), c.notCreatedYet) << c.path;
  }
  EXPECT_FALSE(std::filesystem::exists(missing)) << "reading must not create the file";
}

}  // namespace
}  // namespace controlplane
