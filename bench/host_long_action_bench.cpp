// Long actions of zelvar-host against what this machine can spawn at all.
// The executor runs with the limits zelvar-host reads from an empty
// configuration file (its defaults), on its own loop; the baseline is raw
// posix_spawn of the same `/bin/sh -c <command>` plus waitpid, measured in the
// same run:
//   - `true` with 64 in flight: commands completed per second;
//   - a thousand due `sleep 1` at once: the wall time until the last answer
//     (about one second plus spawning, unless a cap makes them wait).
#include <benchmark/benchmark.h>
#include <event2/event.h>
#include <spawn.h>
#include <sys/wait.h>

#include <string>

#include "config.h"
#include "host_settings.h"
#include "logger.h"
#include "long_action_executor.h"
#include "zelvar/long_action.h"

extern char** environ;

namespace {

using zelvar_host::LongActionExecutor;
using zelvar_host::LongActionLimits;

constexpr int kTrueCommands = 256;
constexpr int kInFlight = 64;
constexpr int kSleepers = 1000;

LongActionLimits DefaultLimits() {
  zelvar_host::Config config;
  zelvar_host::HostSettings settings;
  std::string error;
  if (!config.LoadString("", "empty.ini", &error) || !zelvar_host::HostSettings::FromConfig(config, &settings, &error)) {
    return LongActionLimits();
  }
  return settings.long_action;
}

// Runs `count` copies of `command`, at most `inFlight` handed over at once,
// through an executor with the host's default limits and its own loop.
void RunThroughExecutor(const std::string& command, int count, int inFlight, benchmark::State& state) {
  event_base* base = event_base_new();
  zelvar_host::Logger log;
  log.SetThreshold(zelvar_host::Logger::kError);
  zelvar::ExecuteShell2 action;
  action.Param(zelvar::ExecuteShell2::kCommandParam, command);
  int started = 0;
  int answered = 0;
  int failed = 0;
  {
    LongActionExecutor* executorRef = nullptr;
    LongActionExecutor executor(base, &log, DefaultLimits(), [&](uint32_t, zelvar::LongActionResult* record) {
      ++answered;
      if (record->status != 0) ++failed;
      delete record;
      if (started < count) executorRef->Start(&action, 1, static_cast<uint32_t>(started++));
    });
    executorRef = &executor;
    while (started < count && started < inFlight) executor.Start(&action, 1, static_cast<uint32_t>(started++));
    while (answered < count) event_base_loop(base, EVLOOP_ONCE);
  }
  event_base_free(base);
  if (failed != 0) state.SkipWithError("a command failed");
}

// The same with posix_spawn and waitpid: a new command as soon as one ends.
void RunRaw(const std::string& command, int count, int inFlight, benchmark::State& state) {
  const char* argv[] = {"/bin/sh", "-c", command.c_str(), nullptr};
  int started = 0;
  int running = 0;
  int failed = 0;
  while (started < count || running > 0) {
    while (started < count && running < inFlight) {
      pid_t pid = 0;
      if (posix_spawn(&pid, "/bin/sh", nullptr, nullptr, const_cast<char**>(argv), environ) != 0) {
        state.SkipWithError("posix_spawn failed");
        return;
      }
      ++started;
      ++running;
    }
    int status = 0;
    if (waitpid(-1, &status, 0) > 0) {
      --running;
      if (status != 0) ++failed;
    }
  }
  if (failed != 0) state.SkipWithError("a command failed");
}

void BM_ExecutorTrueCommands(benchmark::State& state) {
  for (auto _ : state) RunThroughExecutor("true", kTrueCommands, kInFlight, state);
  state.SetItemsProcessed(state.iterations() * kTrueCommands);
}
BENCHMARK(BM_ExecutorTrueCommands)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_RawSpawnTrueCommands(benchmark::State& state) {
  for (auto _ : state) RunRaw("true", kTrueCommands, kInFlight, state);
  state.SetItemsProcessed(state.iterations() * kTrueCommands);
}
BENCHMARK(BM_RawSpawnTrueCommands)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_ExecutorThousandOneSecondSleeps(benchmark::State& state) {
  for (auto _ : state) RunThroughExecutor("sleep 1", kSleepers, kSleepers, state);
}
BENCHMARK(BM_ExecutorThousandOneSecondSleeps)->Iterations(2)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_RawSpawnThousandOneSecondSleeps(benchmark::State& state) {
  for (auto _ : state) RunRaw("sleep 1", kSleepers, kSleepers, state);
}
BENCHMARK(BM_RawSpawnThousandOneSecondSleeps)->Iterations(2)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
