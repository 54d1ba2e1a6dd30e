// What the built-in collectors' hot paths cost against the system tools that
// answer the same question:
//   - one process lookup (getPIDByName) for a name no process has, over a
//     /proc holding about a thousand more processes, against `pgrep -f`;
//   - kmsgwatch over a 1 GiB log in the page cache, against `grep -cF` for
//     the same keyword (lines all shorter than 1024 bytes, so both count the
//     same, which is checked).
// Both pairs run in the same process, and the ratios are printed at the end.
// The thousand processes are `sleep` children started before the runs and
// killed and reaped after them; the log is made under /tmp once and removed.
#include <benchmark/benchmark.h>
#include <signal.h>
#include <spawn.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "collectors/process_monitor_product.h"

extern char** environ;

namespace {

constexpr int kSleepers = 1000;
constexpr const char* kNoSuchProcess = "ovita2-no-such-process";
constexpr const char* kKeyword = "segfault";
constexpr long long kWantedLogBytes = 1LL << 30;

std::string g_strLogDir;
std::string g_strLogPath;
long long g_llLogBytes = 0;
std::map<std::string, std::string> g_mapCounts;  // tool -> its last output

pid_t Spawn(const std::vector<const char*>& argv) {
  pid_t pid = -1;
  std::vector<char*> args;
  for (const char* arg : argv) args.push_back(const_cast<char*>(arg));
  args.push_back(nullptr);
  if (posix_spawn(&pid, args[0], nullptr, nullptr, args.data(), environ) != 0) return -1;
  return pid;
}

// The output of a shell command, as popen gives it.
std::string Output(const std::string& command) {
  FILE* pipe = popen(command.c_str(), "r");
  std::string output;
  char chunk[256];
  size_t got;
  while ((got = std::fread(chunk, 1, sizeof chunk, pipe)) > 0) output.append(chunk, got);
  pclose(pipe);
  return output;
}

// Log-like lines of 40 to 300 bytes, one in about fifty holding the keyword,
// written block after block up to `bytes` and read once into the page cache.
bool MakeLog(long long bytes) {
  char pattern[] = "/tmp/ovita2-bench-XXXXXX";
  if (mkdtemp(pattern) == nullptr) return false;
  g_strLogDir = pattern;
  g_strLogPath = g_strLogDir + "/kern.log";
  std::string block;
  unsigned seed = 12345;
  for (int line = 0; block.size() < (1 << 20); ++line) {
    seed = seed * 1103515245 + 12345;
    block += "Nov 23 06:27:12 host kernel: [" + std::to_string(line) + "] ";
    if (seed % 50 == 0) block += "app[1234]: segfault at 0 ip 00007f sp 00007ffd error 4 in libc.so ";
    block.append(10 + seed % 230, static_cast<char>('a' + seed % 26));
    block += '\n';
  }
  std::ofstream out(g_strLogPath, std::ios::binary);
  for (long long written = 0; written < bytes; written += static_cast<long long>(block.size())) out << block;
  out.close();
  Output("cat '" + g_strLogPath + "' > /dev/null");
  return static_cast<bool>(out);
}

void BM_GetPIDByNameNoMatch(benchmark::State& state) {
  ProcessMonitorProduct product;
  zelvar::ovita2::ConfObject conf;
  conf.set_target(kNoSuchProcess), conf.set_parameter("0");
  product.setAttribute(&conf);
  for (auto _ : state) {
    if (product.getPIDByName(kNoSuchProcess) != -1) state.SkipWithError("a process matched");
  }
}
BENCHMARK(BM_GetPIDByNameNoMatch)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_PgrepNoMatch(benchmark::State& state) {
  for (auto _ : state) {
    pid_t pid = Spawn({"/usr/bin/pgrep", "-f", kNoSuchProcess});
    int status = 0;
    waitpid(pid, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 1) state.SkipWithError("pgrep found something or failed");
  }
}
BENCHMARK(BM_PgrepNoMatch)->Unit(benchmark::kMillisecond)->UseRealTime();

void CountLog(benchmark::State& state, const std::string& tool, const std::string& command) {
  std::string positionFile = g_strLogDir + "/" + kKeyword + g_strLogPath + "_pos.txt";
  std::replace(positionFile.begin() + static_cast<long>(g_strLogDir.size()) + 1, positionFile.end(), '/', '-');
  if (g_llLogBytes == 0) state.SkipWithError("no log was made");
  for (auto _ : state) {
    state.PauseTiming();
    std::remove(positionFile.c_str());  // every run reads the whole log
    state.ResumeTiming();
    g_mapCounts[tool] = Output(command);
    if (!g_mapCounts[tool].empty()) g_mapCounts[tool].pop_back();  // the line feed
  }
  state.SetBytesProcessed(state.iterations() * g_llLogBytes);
}

void BM_KmsgwatchGiB(benchmark::State& state) {
  CountLog(state, "kmsgwatch",
           "cd '" + g_strLogDir + "' && " KMSGWATCH_PATH " " + kKeyword + " '" + g_strLogPath + "'");
}
BENCHMARK(BM_KmsgwatchGiB)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);

void BM_GrepCountGiB(benchmark::State& state) {
  CountLog(state, "grep", std::string("grep -cF ") + kKeyword + " '" + g_strLogPath + "'");
}
BENCHMARK(BM_GrepCountGiB)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);

// The console output, plus each run's real time per iteration by function name.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration || run.iterations == 0) continue;
      m_mapSeconds[run.run_name.function_name] = run.real_accumulated_time / static_cast<double>(run.iterations);
    }
  }
  // `first` / `second`, or nothing when either did not run.
  void PrintRatio(const char* label, const std::string& first, const std::string& second, const char* goal) const {
    auto a = m_mapSeconds.find(first), b = m_mapSeconds.find(second);
    if (a == m_mapSeconds.end() || b == m_mapSeconds.end()) return;
    std::printf("%-48s %6.2fx  (goal %s)\n", label, a->second / b->second, goal);
  }

 private:
  std::map<std::string, double> m_mapSeconds;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  std::vector<pid_t> sleepers;
  for (int i = 0; i < kSleepers; ++i) sleepers.push_back(Spawn({"/bin/sleep", "600"}));
  // A log of at most a quarter of the free room in /tmp, 1 GiB when there is room.
  struct statvfs tmp {};
  long long room = statvfs("/tmp", &tmp) == 0 ? static_cast<long long>(tmp.f_bavail) * tmp.f_frsize / 4 : 0;
  long long logBytes = std::min(kWantedLogBytes, room);
  if (logBytes < kWantedLogBytes) {
    std::printf("NOTE: /tmp is short of room: a log of %lld MiB, not 1 GiB\n", logBytes >> 20);
  }
  if (logBytes > 0 && MakeLog(logBytes)) g_llLogBytes = logBytes;

  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  for (pid_t pid : sleepers) kill(pid, SIGKILL);
  for (pid_t pid : sleepers) waitpid(pid, nullptr, 0);
  if (!g_strLogDir.empty()) Output("rm -rf '" + g_strLogDir + "'");

  std::printf("\nsame run, %d extra processes, a log of %lld MiB:\n", kSleepers, g_llLogBytes >> 20);
  reporter.PrintRatio("getPIDByName time / pgrep -f time", "BM_GetPIDByNameNoMatch", "BM_PgrepNoMatch", "<= 0.3");
  reporter.PrintRatio("kmsgwatch throughput / grep -cF throughput", "BM_GrepCountGiB", "BM_KmsgwatchGiB", ">= 0.8");
  if (g_mapCounts.count("grep") != 0 && g_mapCounts.count("kmsgwatch") != 0) {
    std::printf("counts: kmsgwatch %s, grep -cF %s -> %s\n", g_mapCounts["kmsgwatch"].c_str(),
                g_mapCounts["grep"].c_str(), g_mapCounts["kmsgwatch"] == g_mapCounts["grep"] ? "agree" : "DIFFER");
  }
  benchmark::Shutdown();
  return 0;
}
