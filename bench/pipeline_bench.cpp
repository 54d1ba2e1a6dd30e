// What the agent's pipeline costs beyond protobuf itself:
//   - OnDataIn per frame (find the frame, decode it out of the connection's
//     buffer, pick the machine) against a plain ParseFromArray of the same
//     envelope bytes;
//   - one upward send of ten thousand queued samples (build the 61030
//     request, frame it onto the connection, empty the queue) against a plain
//     SerializeToString of the same request.
// Both pairs are measured in the same run, and the ratios are printed at the
// end. The agent runs on the shared test host, with logging off.
#include <benchmark/benchmark.h>
#include <event2/buffer.h>
#include <event2/bufferevent.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "entry/so_entry.h"
#include "framework/bev_machine_util.h"
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

void BM_OnDataInPerFrame(benchmark::State& state) {
  TestHost host;
  host.SetLogLevel(5);
  WaitingMachine machine;
  TestPeer& peer = host.Accept("10.0.0.1", 9000);
  std::string frame = ovita2::testing::Frame(JobListReply(machine.GetMachineId(), static_cast<int>(state.range(0))));
  std::string batch;
  for (int i = 0; i < kFramesPerBatch; ++i) batch += frame;

  for (auto _ : state) {
    state.PauseTiming();
    peer.WriteRaw(batch);
    state.ResumeTiming();
    for (int i = 0; i < kFramesPerBatch; ++i) {
      zelvar::ZMessage* message = nullptr;
      zelvar::StateMachine* target = nullptr;
      if (OnDataIn(peer.ConnA(), peer.ConnB(), &message, &target) != kDataInRouted || target != &machine) {
        state.SkipWithError("a frame was not routed");
        return;
      }
      zelvar::MessagePool::ReleaseToInstance(message);
    }
  }
  state.SetItemsProcessed(state.iterations() * kFramesPerBatch);
  state.SetBytesProcessed(state.iterations() * kFramesPerBatch * static_cast<int64_t>(frame.size()));
}

void BM_ParseFromArrayPerFrame(benchmark::State& state) {
  std::string envelope = JobListReply(7, static_cast<int>(state.range(0))).SerializeAsString();
  zelvar::ZMessage message;
  for (auto _ : state) {
    for (int i = 0; i < kFramesPerBatch; ++i) {
      message.Clear();
      bool parsed = message.ParseFromArray(envelope.data(), static_cast<int>(envelope.size()));
      benchmark::DoNotOptimize(parsed);
    }
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
  for (auto _ : state) {
    state.PauseTiming();
    g_vecUpper = samples;
    aggregation.ReadRaw();
    state.ResumeTiming();
    sender.sendInt64Upper();
    state.PauseTiming();
    sent = aggregation.PendingBytes();
    state.ResumeTiming();
  }
  if (!g_vecUpper.empty() || sent == 0) state.SkipWithError("the samples did not leave");
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kSamples));
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(sent));
}

void BM_SerializeToStringTenThousandSamples(benchmark::State& state) {
  zelvar::ZMessage message;
  zelvar::NewMessage(&message, 1, "0f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0", 61030, 0, false, 1, 0, nullptr, nullptr,
                     nullptr);
  auto* request = message.mutable_body()->MutableExtension(zelvar::tellar2::record_stats_request);
  for (const _stats_info& sample : Samples()) {
    zelvar::tellar2::StatsData* data = request->add_stats();
    data->set_name(sample.name);
    data->set_object_id(sample.object_id);
    data->set_stat_item(sample.stat_item);
    data->set_value(sample.value);
  }
  std::string bytes;
  for (auto _ : state) {
    bytes.clear();
    message.SerializeToString(&bytes);
    benchmark::DoNotOptimize(bytes.data());
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kSamples));
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytes.size() + 4));
}

// The request built from the queue and serialised, without the machine,
// the framing or the connection: what the send costs beyond plain protobuf.
void BM_BuildAndSerializeTenThousandSamples(benchmark::State& state) {
  const std::vector<_stats_info> samples = Samples();
  std::string bytes;
  for (auto _ : state) {
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
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kSamples));
}

BENCHMARK(BM_OnDataInPerFrame)->Arg(1)->Arg(20)->Arg(500);
BENCHMARK(BM_ParseFromArrayPerFrame)->Arg(1)->Arg(20)->Arg(500);
BENCHMARK(BM_SendTenThousandSamples)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_SerializeToStringTenThousandSamples)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_BuildAndSerializeTenThousandSamples)->Unit(benchmark::kMicrosecond);

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
    reporter.PrintRatio(std::string("OnDataIn per frame, ") + jobs + " jobs in the reply",
                        std::string("BM_OnDataInPerFrame/") + jobs, std::string("BM_ParseFromArrayPerFrame/") + jobs);
  }
  reporter.PrintRatio("send of 10000 samples", "BM_SendTenThousandSamples",
                      "BM_SerializeToStringTenThousandSamples");
  reporter.PrintRatio("send of 10000 samples, against build+serialise", "BM_SendTenThousandSamples",
                      "BM_BuildAndSerializeTenThousandSamples");
  benchmark::Shutdown();
  return 0;
}
