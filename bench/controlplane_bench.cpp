// What one Prometheus scrape of /metrics costs the control plane, from the
// database to the text: 100 agents with 100 numeric series each, every series
// holding 30 samples (so the latest ones have to be told from older ones), in
// a database under /tmp made once and removed at the end.
#include <benchmark/benchmark.h>
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

}  // namespace

BENCHMARK_MAIN();
