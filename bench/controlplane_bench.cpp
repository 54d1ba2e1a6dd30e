// What the control plane's database costs:
//   - one Prometheus scrape of /metrics, from the database to the text: 100
//     agents with 100 numeric series each, every series holding 30 samples (so
//     the latest ones have to be told from older ones);
//   - storing requests of 1,000 and 10,000 numeric samples through the store,
//     against a bare loop over one prepared INSERT with positional parameters
//     and one transaction per request, on a database of the same schema; the
//     bare loop runs with SQLite's defaults and, as a second case, with
//     temporary files kept in memory.
// The figure to read for the store is the CPU time: its writes end in the
// page cache, and the wall time on a shared machine is mostly waiting.
// Each case works in a database under /tmp made for it and removed at the end.
#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "services/control_plane_services.h"
#include "store/sample_store.h"
#include "web/web_routes.h"

namespace {

constexpr int kAgents = 100;
constexpr int kSeriesPerAgent = 100;
constexpr int kSamplesPerSeries = 30;

bool Fill(controlplane::SampleStore* store, std::string* error) {
  for (int agent = 0; agent < kAgents; ++agent) {
    const std::string name = "agent-" + std::to_string(agent);
    if (!store->RecordHeartbeat(name, "10.0.0.1", 1000, "1.0", kSeriesPerAgent, error)) return false;
    std::vector<controlplane::SampleRow> rows;
    for (int round = 0; round < kSamplesPerSeries; ++round) {
      for (int series = 0; series < kSeriesPerAgent; ++series) {
        controlplane::SampleRow row;
        row.received_at = 1000 + round * 10;
        row.agent = name;
        row.name = "key_" + std::to_string(series % 10);
        row.object_id = static_cast<uint32_t>(series / 10);
        row.stat_item = static_cast<uint32_t>(series);
        row.value = round * 7 + series;
        rows.push_back(row);
      }
    }
    if (!store->AddSamples(rows, error)) return false;
  }
  return true;
}

void BM_MetricsOfHundredAgentsTimesHundredSeries(benchmark::State& state) {
  char dir[] = "/tmp/ovita2-metrics-bench-XXXXXX";
  if (mkdtemp(dir) == nullptr) {
    state.SkipWithError("no temporary folder");
    return;
  }
  const std::string database = std::string(dir) + "/cp.db";
  std::string error;
  {
    controlplane::SampleStore store;
    controlplane::ControlPlaneServices services({"cp-1", "127.0.0.1", 7100}, &store, [](int, const std::string&) {});
    controlplane::WebRoutes routes(&store, &services, {});
    if (!store.Open(database, &error) || !Fill(&store, &error)) {
      state.SkipWithError(error.c_str());
    } else {
      size_t bytes = 0;
      for (auto _ : state) {
        controlplane::WebReply reply = routes.Answer("/metrics", {}, 2000);
        bytes = reply.body.size();
        benchmark::DoNotOptimize(reply);
      }
      state.counters["bytes"] = static_cast<double>(bytes);
    }
  }
  for (const char* suffix : {"", "-wal", "-shm"}) std::remove((database + suffix).c_str());
  rmdir(dir);
}
BENCHMARK(BM_MetricsOfHundredAgentsTimesHundredSeries)->Unit(benchmark::kMillisecond)->Iterations(20);

// A folder under /tmp holding cp.db, removed with it.
class ScratchDatabase {
 public:
  ScratchDatabase() {
    char dir[] = "/tmp/ovita2-store-bench-XXXXXX";
    if (mkdtemp(dir) != nullptr) m_strDir = dir;
  }
  ~ScratchDatabase() {
    for (const char* suffix : {"", "-wal", "-shm"}) std::remove((Path() + suffix).c_str());
    if (!m_strDir.empty()) rmdir(m_strDir.c_str());
  }
  bool Made() const { return !m_strDir.empty(); }
  std::string Path() const { return m_strDir + "/cp.db"; }

 private:
  std::string m_strDir;
};

// One agent's request of `count` numeric samples over 640 series.
std::vector<controlplane::SampleRow> Request(size_t count) {
  std::vector<controlplane::SampleRow> rows(count);
  for (size_t i = 0; i < count; ++i) {
    rows[i].received_at = 1700000000;
    rows[i].agent = "10.1.2.3:agent-17";
    rows[i].name = "cpu.user.percent." + std::to_string(i % 64);
    rows[i].object_id = static_cast<uint32_t>(1000 + i % 10);
    rows[i].stat_item = static_cast<uint32_t>(i % 7);
    rows[i].value = static_cast<int64_t>(i * 37 % 1000);
  }
  return rows;
}

void BM_StoreNumericRequest(benchmark::State& state) {
  ScratchDatabase scratch;
  controlplane::SampleStore store;
  std::string error;
  if (!scratch.Made() || !store.Open(scratch.Path(), &error)) {
    state.SkipWithError("cannot make the database");
    return;
  }
  const std::vector<controlplane::SampleRow> rows = Request(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    if (!store.AddSamples(rows, &error)) state.SkipWithError(error.c_str());
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

// The same rows through one prepared statement, bound by position, in the
// database the store made (so schema, indexes and trigger are the same).
// range(1): 1 keeps SQLite's temporary files (statement journals) in memory.
void BM_BareSqliteNumericRequest(benchmark::State& state) {
  ScratchDatabase scratch;
  std::string error;
  {
    controlplane::SampleStore creator;
    if (!scratch.Made() || !creator.Open(scratch.Path(), &error)) {
      state.SkipWithError("cannot make the database");
      return;
    }
  }
  sqlite3* db = nullptr;
  sqlite3_open(scratch.Path().c_str(), &db);
  sqlite3_exec(db, "PRAGMA synchronous = NORMAL", nullptr, nullptr, nullptr);
  if (state.range(1) != 0) sqlite3_exec(db, "PRAGMA temp_store = MEMORY", nullptr, nullptr, nullptr);
  sqlite3_stmt* insert = nullptr;
  sqlite3_prepare_v2(db,
                     "INSERT INTO samples (received_at, agent, is_text, name, object_id, stat_item, value)"
                     " VALUES (?, ?, 0, ?, ?, ?, ?)",
                     -1, &insert, nullptr);
  const std::vector<controlplane::SampleRow> rows = Request(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    sqlite3_exec(db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr);
    for (const controlplane::SampleRow& row : rows) {
      sqlite3_bind_int64(insert, 1, row.received_at);
      sqlite3_bind_text(insert, 2, row.agent.data(), static_cast<int>(row.agent.size()), SQLITE_STATIC);
      sqlite3_bind_text(insert, 3, row.name.data(), static_cast<int>(row.name.size()), SQLITE_STATIC);
      sqlite3_bind_int64(insert, 4, *row.object_id);
      sqlite3_bind_int64(insert, 5, row.stat_item);
      sqlite3_bind_int64(insert, 6, row.value);
      if (sqlite3_step(insert) != SQLITE_DONE) state.SkipWithError("an insert failed");
      sqlite3_reset(insert);
    }
    if (sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr) != SQLITE_OK) state.SkipWithError("no commit");
  }
  sqlite3_finalize(insert);
  sqlite3_close(db);
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

BENCHMARK(BM_StoreNumericRequest)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_BareSqliteNumericRequest)->ArgsProduct({{1000, 10000}, {0, 1}})->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
