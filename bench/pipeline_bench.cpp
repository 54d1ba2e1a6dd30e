// What the agent's pipeline costs beyond protobuf itself:
//   - OnDataIn per frame (find the frame, decode it out of the connection's
//     buffer, pick the machine) against a plain ParseFromArray of the same
//     envelope bytes into a reused envelope; the input lies in the
//     connection's buffer either flat or in 4 KiB pieces, as reads from a
//     socket leave it;
//   - one upward send of ten thousand queued samples (build the 61030
//     request, frame it onto the connection, empty the queue) against
//     building and serialising the same request with plain protobuf, with the
//     page faults of each send (getrusage).
// Only the measured work is timed (manual timing): refilling the input or
// the queue and reading the connection empty are left out on both sides,
// without pausing the clock. The time is the thread's CPU time (page faults
// included), which other work on a shared machine does not inflate. Heap state matters to the send (glibc trims a
// heap top that a send freed, and the next one faults it in again), so
// scripts/bench.sh runs every case in a fresh process; run together, later
// cases inherit the heap the earlier ones left. The agent runs on the shared
// test host, with logging off.
#include <benchmark/benchmark.h>
#include <event2/buffer.h>
#include <event2/bufferevent.h>

#include <sys/resource.h>

#include <algorithm>
#include <ctime>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "entry/so_entry.h"
#include "framework/bev_machine_util.h"
#include "framework/host_api.h"
#include "naming/update_aggregation.h"
#include "pipeline/send_upper.h"
#include "pipeline/stats_queues.h"
#include "test_host.h"
#include "zelvar/message_pool.h"
#include "zelvar/message_util.h"
#include "zelvar/ovita2.pb.h"
#include "zelvar/tellar2.pb.h"

namespace {

using ovita2::testing::TestHost;
using ovita2::testing::TestPeer;

constexpr int kFramesPerBatch = 256;
constexpr size_t kSamples = 10000;

// A machine that only exists, so that replies have somewhere to go.
class WaitingMachine : public BEVMachineUtil {
 public:
  unsigned StateMachineType() override { return 4299001; }
  const char* MachineName() override { return "WaitingMachine"; }
};

// A job-list reply with `jobs` entries, addressed to machine `dst`.
zelvar::ZMessage JobListReply(uint32_t dst, int jobs) {
  zelvar::ZMessage request;
  zelvar::NewMessage(&request, 42, "0f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0", 68000, 0, false, dst, 0, nullptr, nullptr,
                     nullptr);
  zelvar::ZMessage reply;
  zelvar::MakeResponse(request, 68001, &reply);
  auto* response = reply.mutable_body()->MutableExtension(zelvar::ovita2::get_job_response);
  for (int i = 0; i < jobs; ++i) {
    zelvar::ovita2::ObjectJob* objectJob = response->add_object_jobs();
    objectJob->set_object_id(1000 + i / 8);
    zelvar::ovita2::JobDescription* job = objectJob->mutable_job();
    job->set_job_id(i);
    job->set_stat_item(i * 3);
    job->set_interval(60);
    job->set_command("/usr/lib/ovita2/jobs/check_disk.sh");
    job->set_command_args("--mount /var --warn 80");
    job->set_stat_key("disk.var.used_percent");
  }
  return reply;
}

std::vector<_stats_info> Samples() {
  std::vector<_stats_info> samples;
  samples.reserve(kSamples);
  for (size_t i = 0; i < kSamples; ++i) {
    samples.push_back(_stats_info{"cpu.user.percent." + std::to_string(i % 64), static_cast<uint32_t>(1000 + i / 16),
                                  static_cast<uint32_t>(i % 7), static_cast<int64_t>(i * 37 % 1000), 1700000000});
  }
  return samples;
}

double ThreadSeconds() {
  timespec now;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

double SecondsSince(double start) { return ThreadSeconds() - start; }

long MinorFaults() {
  rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_minflt;
}

constexpr size_t kSocketRead = 4096;

// Puts `bytes` into the agent's input: flat (one piece) or in 4 KiB pieces,
// each in its own buffer chain as socket reads leave them.
void FillInput(TestPeer& peer, const std::string& bytes, bool inPieces) {
  evbuffer* input = bufferevent_get_input(peer.AgentSide());
  // A bufferevent keeps the end of its input closed to everyone but itself.
  evbuffer_unfreeze(input, 0);
  if (!inPieces) {
    evbuffer_add(input, bytes.data(), bytes.size());
  } else {
    evbuffer* piece = evbuffer_new();
    for (size_t offset = 0; offset < bytes.size(); offset += kSocketRead) {
      evbuffer_add(piece, bytes.data() + offset, std::min(kSocketRead, bytes.size() - offset));
      evbuffer_add_buffer(input, piece);
    }
    evbuffer_free(piece);
  }
  evbuffer_freeze(input, 0);
}

// range(0): jobs in the reply; range(1): 1 for 4 KiB pieces, 0 for flat.
void BM_OnDataInPerFrame(benchmark::State& state) {
  TestHost host;
  host.SetLogLevel(5);
  // Envelopes come straight from the pool, as zelvar-host hands them out;
  // the test host's own bookkeeping of releases is no cost of the agent's.
  g_sOXETInterface[zelvar::kSlotAcquireMessage] =
      reinterpret_cast<zelvar::HostFunction>(+[](int) { return zelvar::MessagePool::Instance()->Acquire(); });
  WaitingMachine machine;
  TestPeer& peer = host.Accept("10.0.0.1", 9000);
  std::string frame = zelvar::EncodeFrame(JobListReply(machine.GetMachineId(), static_cast<int>(state.range(0))));
  std::string batch;
  for (int i = 0; i < kFramesPerBatch; ++i) batch += frame;

  for (auto _ : state) {
    FillInput(peer, batch, state.range(1) != 0);
    double start = ThreadSeconds();
    for (int i = 0; i < kFramesPerBatch; ++i) {
      zelvar::ZMessage* message = nullptr;
      zelvar::StateMachine* target = nullptr;
      if (OnDataIn(peer.ConnA(), peer.ConnB(), &message, &target) != kDataInRouted || target != &machine) {
        state.SkipWithError("a frame was not routed");
        return;
      }
      zelvar::MessagePool::ReleaseToInstance(message);
    }
    state.SetIterationTime(SecondsSince(start));
  }
  state.SetItemsProcessed(state.iterations() * kFramesPerBatch);
  state.SetBytesProcessed(state.iterations() * kFramesPerBatch * static_cast<int64_t>(frame.size()));
}

void BM_ParseFromArrayPerFrame(benchmark::State& state) {
  std::string envelope = JobListReply(7, static_cast<int>(state.range(0))).SerializeAsString();
  zelvar::ZMessage message;
  for (auto _ : state) {
    double start = ThreadSeconds();
    for (int i = 0; i < kFramesPerBatch; ++i) {
      message.Clear();
      bool parsed = message.ParseFromArray(envelope.data(), static_cast<int>(envelope.size()));
      benchmark::DoNotOptimize(parsed);
    }
    state.SetIterationTime(SecondsSince(start));
  }
  state.SetItemsProcessed(state.iterations() * kFramesPerBatch);
  state.SetBytesProcessed(state.iterations() * kFramesPerBatch * static_cast<int64_t>(envelope.size() + 4));
}

void BM_SendTenThousandSamples(benchmark::State& state) {
  TestHost host;
  host.SetLogLevel(5);
  g_strAggrIP = "10.4.0.1";
  g_iAggrPort = 9400;
  const std::vector<_stats_info> samples = Samples();
  SendUpperMachine sender;
  TestPeer& aggregation = host.Peer("10.4.0.1", 9400);
  size_t sent = 0;
  long faults = 0;
  for (auto _ : state) {
    g_vecUpper = samples;
    long faultsBefore = MinorFaults();
    double start = ThreadSeconds();
    sender.sendInt64Upper();
    state.SetIterationTime(SecondsSince(start));
    faults += MinorFaults() - faultsBefore;
    sent = aggregation.ReadRaw().size();
  }
  if (!g_vecUpper.empty() || sent == 0) state.SkipWithError("the samples did not leave");
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kSamples));
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(sent));
  state.counters["faults_per_send"] = static_cast<double>(faults) / static_cast<double>(state.iterations());
}

// The request built from the queue and serialised, without the machine,
// the framing or the connection: what the send costs beyond plain protobuf.
void BM_BuildAndSerializeTenThousandSamples(benchmark::State& state) {
  const std::vector<_stats_info> samples = Samples();
  std::string bytes;
  long faults = 0;
  for (auto _ : state) {
    long faultsBefore = MinorFaults();
    double start = ThreadSeconds();
    zelvar::ZMessage message;
    zelvar::NewMessage(&message, 1, "0f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0", 61030, 0, false, 1, 0, nullptr, nullptr,
                       nullptr);
    auto* request = message.mutable_body()->MutableExtension(zelvar::tellar2::record_stats_request);
    for (const _stats_info& sample : samples) {
      zelvar::tellar2::StatsData* data = request->add_stats();
      data->set_name(sample.name);
      data->set_object_id(sample.object_id);
      data->set_stat_item(sample.stat_item);
      data->set_value(sample.value);
    }
    bytes.clear();
    message.SerializeToString(&bytes);
    benchmark::DoNotOptimize(bytes.data());
    state.SetIterationTime(SecondsSince(start));
    faults += MinorFaults() - faultsBefore;
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kSamples));
  state.counters["faults_per_send"] = static_cast<double>(faults) / static_cast<double>(state.iterations());
}

BENCHMARK(BM_OnDataInPerFrame)->ArgsProduct({{1, 20, 500}, {0, 1}})->UseManualTime();
BENCHMARK(BM_ParseFromArrayPerFrame)->Arg(1)->Arg(20)->Arg(500)->UseManualTime();
BENCHMARK(BM_SendTenThousandSamples)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_BuildAndSerializeTenThousandSamples)->UseManualTime()->Unit(benchmark::kMicrosecond);

// The console output, plus each run's time per iteration in nanoseconds by
// name, for the ratios.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration || run.iterations == 0) continue;
      m_mapNanos[run.benchmark_name()] = run.real_accumulated_time * 1e9 / static_cast<double>(run.iterations);
    }
  }

  void PrintRatio(const std::string& label, const std::string& agent, const std::string& baseline) const {
    auto a = m_mapNanos.find(agent);
    auto b = m_mapNanos.find(baseline);
    if (a == m_mapNanos.end() || b == m_mapNanos.end() || b->second <= 0) return;
    std::printf("%-50s %6.2fx  (%s / %s)\n", label.c_str(), a->second / b->second, agent.c_str(), baseline.c_str());
  }

 private:
  std::map<std::string, double> m_mapNanos;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  std::printf("\nratio to plain protobuf, same run:\n");
  for (const char* jobs : {"1", "20", "500"}) {
    for (const char* input : {"0", "1"}) {
      const char* how = *input == '1' ? "4 KiB pieces" : "flat";
      reporter.PrintRatio(std::string("OnDataIn per frame, ") + jobs + " jobs, " + how,
                          std::string("BM_OnDataInPerFrame/") + jobs + "/" + input + "/manual_time",
                          std::string("BM_ParseFromArrayPerFrame/") + jobs + "/manual_time");
    }
  }
  reporter.PrintRatio("send of 10000 samples, against build+serialise", "BM_SendTenThousandSamples/manual_time",
                      "BM_BuildAndSerializeTenThousandSamples/manual_time");
  benchmark::Shutdown();
  return 0;
}
