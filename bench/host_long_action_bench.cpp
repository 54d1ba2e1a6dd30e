// Long actions of zelvar-host: how many shell commands per second the
// executor completes, against running them one at a time with the blocking
// executor of libmessage (the baseline), and how long a thousand concurrent
// one-second commands take from hand-over to the last record.
#include <benchmark/benchmark.h>
#include <event2/event.h>

#include <string>

#include "logger.h"
#include "long_action_executor.h"
#include "zelvar/long_action.h"

namespace {

using zelvar_host::LongActionExecutor;
using zelvar_host::LongActionLimits;

// Runs `count` copies of `command` through an executor and its own loop.
void RunBatch(const std::string& command, int count, size_t maxChildren, benchmark::State& state) {
  event_base* base = event_base_new();
  zelvar_host::Logger log;
  log.SetThreshold(zelvar_host::Logger::kError);
  LongActionLimits limits;
  limits.max_children = maxChildren;
  int answered = 0;
  int failed = 0;
  {
    LongActionExecutor executor(base, &log, limits, [&](uint32_t, zelvar::LongActionResult* record) {
      ++answered;
      if (record->status != 0) ++failed;
      delete record;
    });
    zelvar::ExecuteShell2 action;
    action.Param(zelvar::ExecuteShell2::kCommandParam, command);
    for (int i = 0; i < count; ++i) executor.Start(&action, 1, static_cast<uint32_t>(i));
    while (answered < count) event_base_loop(base, EVLOOP_ONCE);
  }
  event_base_free(base);
  if (failed != 0) state.SkipWithError("a command failed");
}

void BM_ExecutorTrueCommands(benchmark::State& state) {
  const int kBatch = 200;
  for (auto _ : state) RunBatch("true", kBatch, static_cast<size_t>(state.range(0)), state);
  state.SetItemsProcessed(state.iterations() * kBatch);
  state.counters["actions_per_s"] = benchmark::Counter(static_cast<double>(state.iterations() * kBatch),
                                                       benchmark::Counter::kIsRate);
}
BENCHMARK(BM_ExecutorTrueCommands)->Arg(1)->Arg(16)->Arg(256)->UseRealTime()->Unit(benchmark::kMillisecond);

// Baseline: the same commands, one after the other, each waited for.
void BM_BlockingTrueCommands(benchmark::State& state) {
  const int kBatch = 200;
  for (auto _ : state) {
    for (int i = 0; i < kBatch; ++i) {
      zelvar::ExecuteShell2 action;
      action.Param(zelvar::ExecuteShell2::kCommandParam, "true");
      action.Do();
      if (action.Result().status != 0) state.SkipWithError("a command failed");
    }
  }
  state.SetItemsProcessed(state.iterations() * kBatch);
  state.counters["actions_per_s"] = benchmark::Counter(static_cast<double>(state.iterations() * kBatch),
                                                       benchmark::Counter::kIsRate);
}
BENCHMARK(BM_BlockingTrueCommands)->UseRealTime()->Unit(benchmark::kMillisecond);

// A thousand due commands that each sleep one second: the wall time until the
// last record is the figure to watch (about one second plus spawning).
void BM_ThousandConcurrentOneSecondSleeps(benchmark::State& state) {
  for (auto _ : state) RunBatch("sleep 1", 1000, 1024, state);
}
BENCHMARK(BM_ThousandConcurrentOneSecondSleeps)->Iterations(2)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
