// The control plane's database: whole-or-nothing writes, filters and order of
// the reads, the agents' upsert rules, a reader beside a writer, pruning, and
// which files it refuses to open.
#include "store/sample_store.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "store_test_support.h"

namespace controlplane {
namespace {

SampleRow Numeric(const std::string& agent, std::optional<uint32_t> objectId, const std::string& name,
                  int64_t tenths, int64_t receivedAt = 1000) {
  return NumericRow(agent, objectId, name, tenths, receivedAt);
}

SampleRow Text(const std::string& agent, std::optional<uint32_t> objectId, const std::string& name,
               const std::string& text) {
  return TextRow(agent, objectId, name, text, 1000);
}

std::vector<int64_t> Ids(const std::vector<SampleRow>& rows) {
  std::vector<int64_t> ids;
  for (const SampleRow& row : rows) ids.push_back(row.id);
  return ids;
}

std::vector<int64_t> Ids(const std::vector<RealTimeLineRow>& rows) {
  std::vector<int64_t> ids;
  for (const RealTimeLineRow& row : rows) ids.push_back(row.id);
  return ids;
}

SampleQuery Query(const std::string& agent, std::optional<uint32_t> objectId, const std::string& name,
                  size_t limit = 100) {
  SampleQuery query;
  query.agent = agent;
  query.object_id = objectId;
  query.name = name;
  query.limit = limit;
  return query;
}

TEST(SampleStore, AWriteThatFailsPartWayKeepsNothing) {
  ScratchDir dir;
  SampleStore store;
  std::string error;
  EXPECT_FALSE(store.AddSamples({Numeric("web-01", 1, "load", 5)}, &error));
  EXPECT_NE(error.find("not open"), std::string::npos) << error;

  ASSERT_TRUE(store.Open(dir.File("cp.db"), &error)) << error;
  std::vector<SampleRow> batch(10000, Numeric("web-01", 1, "load", 5));
  batch.back().agent.clear();  // a sample nobody sent cannot be stored
  EXPECT_FALSE(store.AddSamples(batch, &error));
  EXPECT_NE(error.find(dir.File("cp.db")), std::string::npos) << error;
  EXPECT_TRUE(store.RecentSamples(Query("", std::nullopt, "", 20000), &error).empty());
  EXPECT_FALSE(store.AddRealTimeLine("", 1000, "orphan", &error));
  EXPECT_TRUE(store.RecentRealTimeLines(Query("", std::nullopt, ""), &error).empty());

  batch.back().agent = "web-01";
  ASSERT_TRUE(store.AddSamples(batch, &error)) << error;
  std::vector<SampleRow> stored = store.RecentSamples(Query("", std::nullopt, "", 20000), &error);
  ASSERT_EQ(stored.size(), 10000u) << error;
  EXPECT_EQ(stored.back().id - stored.front().id, 9999) << "ids increase by one within a batch";
}

TEST(SampleStore, SamplesComeBackAsTheyWereStored) {
  ScratchDir dir;
  SampleStore store;
  std::string error;
  ASSERT_TRUE(store.Open(dir.File("cp.db"), &error)) << error;
  const std::string output("line one\n\tsecond\0after nul\n", 27);
  ASSERT_TRUE(store.AddSamples({Numeric("web-01", 4, "load", -15, 1234), Text("web-01", std::nullopt, "ps", output)},
                               &error))
      << error;

  std::vector<SampleRow> rows = store.RecentSamples(Query("", std::nullopt, ""), &error);
  ASSERT_EQ(rows.size(), 2u) << error;
  EXPECT_FALSE(rows[0].text);
  EXPECT_EQ(rows[0].received_at, 1234);
  EXPECT_EQ(rows[0].object_id, std::optional<uint32_t>(4));
  EXPECT_EQ(rows[0].stat_item, 1001u);
  EXPECT_EQ(rows[0].value, -15);
  EXPECT_TRUE(rows[1].text);
  EXPECT_EQ(rows[1].object_id, std::nullopt);
  EXPECT_EQ(rows[1].text_value, output) << "a text sample keeps every byte, a NUL included";
  EXPECT_EQ(rows[1].job_id, 3u);
  EXPECT_EQ(rows[1].sample_time, 999u);
}

TEST(SampleStore, FiltersCombineAndARowOfUnknownObjectNeverMatchesAGivenObject) {
  ScratchDir dir;
  SampleStore store;
  std::string error;
  ASSERT_TRUE(store.Open(dir.File("cp.db"), &error)) << error;
  ASSERT_TRUE(store.AddSamples({Numeric("web-01", 1, "load", 1), Numeric("web-01", 2, "load", 2),
                                Numeric("web-02", 1, "load", 3), Numeric("web-01", 1, "disk", 4),
                                Text("web-01", std::nullopt, "load", "x"), Numeric("web-01", 0, "load", 6)},
                               &error))
      << error;

  EXPECT_EQ(Ids(store.RecentSamples(Query("web-01", 1, "load"), &error)), (std::vector<int64_t>{1}));
  EXPECT_EQ(Ids(store.RecentSamples(Query("web-01", std::nullopt, "load"), &error)),
            (std::vector<int64_t>{1, 2, 5, 6}));
  EXPECT_EQ(Ids(store.RecentSamples(Query("", 1, ""), &error)), (std::vector<int64_t>{1, 3, 4}));
  EXPECT_EQ(Ids(store.RecentSamples(Query("", 0, ""), &error)), (std::vector<int64_t>{6}))
      << "object 0 is an object like any other, not an unknown one";
  EXPECT_TRUE(store.RecentSamples(Query("web-03", std::nullopt, ""), &error).empty());
  EXPECT_EQ(error, "");
  EXPECT_EQ(Ids(store.RecentSamples(Query("", std::nullopt, ""), &error)), (std::vector<int64_t>{1, 2, 3, 4, 5, 6}));
}

TEST(SampleStore, RecentGivesTheNewestRowsOldestFirstAndAfterGivesTheNextOnes) {
  ScratchDir dir;
  SampleStore store;
  std::string error;
  ASSERT_TRUE(store.Open(dir.File("cp.db"), &error)) << error;
  for (int i = 1; i <= 10; ++i) {
    ASSERT_TRUE(store.AddSamples({Numeric(i % 2 ? "odd" : "even", 1, "load", i)}, &error)) << error;
    ASSERT_TRUE(store.AddRealTimeLine(i % 2 ? "odd" : "even", 1000, "line " + std::to_string(i), &error)) << error;
  }

  EXPECT_EQ(Ids(store.RecentSamples(Query("", std::nullopt, "", 3), &error)), (std::vector<int64_t>{8, 9, 10}));
  EXPECT_EQ(Ids(store.RecentSamples(Query("odd", std::nullopt, "", 2), &error)), (std::vector<int64_t>{7, 9}));
  SampleQuery after = Query("", std::nullopt, "", 2);
  after.after_id = 3;
  EXPECT_EQ(Ids(store.SamplesAfter(after, &error)), (std::vector<int64_t>{4, 5}));
  after.after_id = 8;
  after.limit = 5;
  EXPECT_EQ(Ids(store.RecentSamples(after, &error)), (std::vector<int64_t>{9, 10}));
  after.after_id = 10;
  EXPECT_TRUE(store.SamplesAfter(after, &error).empty());

  std::vector<RealTimeLineRow> lines = store.RecentRealTimeLines(Query("even", std::nullopt, "", 2), &error);
  EXPECT_EQ(Ids(lines), (std::vector<int64_t>{8, 10}));
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[1].line, "line 10");
  SampleQuery linesAfter = Query("odd", std::nullopt, "ignored: lines have no name", 2);
  linesAfter.after_id = 4;
  EXPECT_EQ(Ids(store.RealTimeLinesAfter(linesAfter, &error)), (std::vector<int64_t>{5, 7}));
}

TEST(SampleStore, AgentKeepsItsFirstSightingAndAnyNodePathOrAddressItOnceGave) {
  ScratchDir dir;
  SampleStore store;
  std::string error;
  ASSERT_TRUE(store.Open(dir.File("cp.db"), &error)) << error;
  ASSERT_TRUE(store.TouchAgent("web-02", "", "", 50, &error)) << error;
  ASSERT_TRUE(store.TouchAgent("web-01", "/ovita2/agents/web-01", "10.0.0.1", 100, &error)) << error;
  ASSERT_TRUE(store.TouchAgent("web-01", "", "", 200, &error)) << error;

  std::vector<AgentRow> agents = store.Agents(&error);
  ASSERT_EQ(agents.size(), 2u) << error;
  EXPECT_EQ(agents[0].name, "web-01") << "agents come by name";
  EXPECT_EQ(agents[0].node_path, "/ovita2/agents/web-01");
  EXPECT_EQ(agents[0].address, "10.0.0.1");
  EXPECT_EQ(agents[0].first_seen, 100);
  EXPECT_EQ(agents[0].last_seen, 200);
  EXPECT_EQ(agents[0].last_heartbeat, 0);

  ASSERT_TRUE(store.RecordHeartbeat("web-01", "10.0.0.2", 300, "2.1.0", 7, &error)) << error;
  ASSERT_TRUE(store.RecordHeartbeat("web-03", "", 400, "2.0.0", 0, &error)) << error;
  agents = store.Agents(&error);
  ASSERT_EQ(agents.size(), 3u) << error;
  EXPECT_EQ(agents[0].node_path, "/ovita2/agents/web-01");
  EXPECT_EQ(agents[0].address, "10.0.0.2");
  EXPECT_EQ(agents[0].first_seen, 100);
  EXPECT_EQ(agents[0].last_seen, 300);
  EXPECT_EQ(agents[0].last_heartbeat, 300);
  EXPECT_EQ(agents[0].version, "2.1.0");
  EXPECT_EQ(agents[0].job_count, 7u);
  EXPECT_EQ(agents[2].first_seen, 400) << "a heartbeat alone introduces an agent";
  EXPECT_EQ(agents[2].last_heartbeat, 400);
}

TEST(SampleStore, AReaderSeesWhatASeparateWriterCommitsAndReadsOnAfterItStops) {
  ScratchDir dir;
  const std::string path = dir.File("cp.db");
  std::string error;
  auto writer = std::make_unique<SampleStore>();
  ASSERT_TRUE(writer->Open(path, &error)) << error;
  SampleStore reader;
  ASSERT_TRUE(reader.OpenReadOnly(path, &error)) << error;
  EXPECT_TRUE(reader.RecentSamples(Query("", std::nullopt, ""), &error).empty());

  ASSERT_TRUE(writer->AddSamples({Numeric("web-01", 1, "load", 1)}, &error)) << error;
  ASSERT_TRUE(writer->TouchAgent("web-01", "", "10.0.0.1", 100, &error)) << error;
  EXPECT_EQ(reader.RecentSamples(Query("", std::nullopt, ""), &error).size(), 1u) << error;
  EXPECT_EQ(reader.Agents(&error).size(), 1u) << error;
  EXPECT_FALSE(reader.AddSamples({Numeric("web-01", 1, "load", 2)}, &error));
  EXPECT_FALSE(reader.Prune(1 << 30, &error));

  writer.reset();
  SampleStore later;
  ASSERT_TRUE(later.OpenReadOnly(path, &error)) << error;
  EXPECT_EQ(later.RecentSamples(Query("", std::nullopt, ""), &error).size(), 1u) << error;
}

TEST(SampleStore, PruneDropsOldRowsKeepsAgentsAndNeverHandsAnIdOutTwice) {
  ScratchDir dir;
  SampleStore store;
  std::string error;
  ASSERT_TRUE(store.Open(dir.File("cp.db"), &error)) << error;
  ASSERT_TRUE(store.AddSamples({Numeric("a", 1, "load", 1, 100), Numeric("a", 1, "load", 2, 200),
                                Numeric("a", 1, "load", 3, 300)},
                               &error))
      << error;
  ASSERT_TRUE(store.AddRealTimeLine("a", 100, "old", &error)) << error;
  ASSERT_TRUE(store.AddRealTimeLine("a", 200, "kept", &error)) << error;
  ASSERT_TRUE(store.TouchAgent("a", "", "", 100, &error)) << error;

  ASSERT_TRUE(store.Prune(200, &error)) << error;
  EXPECT_EQ(Ids(store.RecentSamples(Query("", std::nullopt, ""), &error)), (std::vector<int64_t>{2, 3}));
  std::vector<RealTimeLineRow> lines = store.RecentRealTimeLines(Query("", std::nullopt, ""), &error);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].line, "kept");
  EXPECT_EQ(store.Agents(&error).size(), 1u);

  ASSERT_TRUE(store.Prune(1000, &error)) << error;
  EXPECT_EQ(store.LastSampleId(&error), 0);
  ASSERT_TRUE(store.AddSamples({Numeric("a", 1, "load", 4, 2000)}, &error)) << error;
  ASSERT_TRUE(store.AddRealTimeLine("a", 2000, "new", &error)) << error;
  EXPECT_EQ(store.LastSampleId(&error), 4) << "a follower that saw id 3 must still see the next sample";
  EXPECT_EQ(store.LastRealTimeLineId(&error), 3);
}

TEST(SampleStore, OpeningRefusesANewerSchemaAndReadingRefusesAMissingOrForeignFile) {
  ScratchDir dir;
  const std::string path = dir.File("cp.db");
  std::string error;
  {
    SampleStore store;
    ASSERT_TRUE(store.Open(path, &error)) << error;
  }
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db, "PRAGMA user_version = 2", nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_close(db);
  SampleStore store;
  EXPECT_FALSE(store.Open(path, &error));
  EXPECT_NE(error.find(path + ": the database has schema version 2"), std::string::npos) << error;
  EXPECT_FALSE(store.OpenReadOnly(path, &error));
  EXPECT_NE(error.find("schema version 2"), std::string::npos) << error;
  EXPECT_FALSE(store.NotCreatedYet());

  EXPECT_FALSE(store.OpenReadOnly(dir.File("missing.db"), &error));
  EXPECT_EQ(error.rfind(dir.File("missing.db") + ": no such database", 0), 0u) << error;
  EXPECT_TRUE(store.NotCreatedYet());
  EXPECT_FALSE(std::filesystem::exists(dir.File("missing.db"))) << "reading must not create the file";

  std::ofstream(dir.File("empty.db")).close();
  EXPECT_FALSE(store.OpenReadOnly(dir.File("empty.db"), &error));
  EXPECT_TRUE(store.NotCreatedYet()) << "a file the control plane is still creating: " << error;

  std::ofstream notes(dir.File("notes.txt"));
  for (int i = 0; i < 100; ++i) notes << "these are notes, not samples\n";
  notes.close();
  EXPECT_FALSE(store.OpenReadOnly(dir.File("notes.txt"), &error));
  EXPECT_NE(error.find("not a database"), std::string::npos) << error;
  EXPECT_FALSE(store.NotCreatedYet());
}

}  // namespace
}  // namespace controlplane
