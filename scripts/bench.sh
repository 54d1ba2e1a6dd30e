#!/usr/bin/env bash
# Builds the benchmarks in Release (no sanitizers) in build/bench, runs every
# case of every benchmark in a fresh process (a case's heap then owes nothing
# to the cases before it), and prints the performance table: each figure with
# its ratio to the baseline measured in the same run, and its goal.
#
#   scripts/bench.sh                      everything, then the table
#   scripts/bench.sh --benchmark_filter=Sleeps
#                                         arguments go to every benchmark binary
#   OVITA2_IDLE_SECONDS=0 scripts/bench.sh
#                                         without the idle agent host (default
#                                         60 s of scripts/idle-footprint.sh)
#   OVITA2_BENCHES="pipeline_bench controlplane_bench" scripts/bench.sh
#                                         only these benchmark binaries
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh

build_dir=${OVITA2_BENCH_BUILD_DIR:-build/bench}
jobs=${OVITA2_JOBS:-$(nproc)}
idle_seconds=${OVITA2_IDLE_SECONDS:-60}
only=${OVITA2_BENCHES:-}

# Testing stays on: the agent's benchmarks drive it through the shared test
# host. Only the benchmarks are built.
cmake -S . -B "$build_dir" -G Ninja -DCMAKE_BUILD_TYPE=Release -DOVITA2_BENCHMARKS=ON -DBUILD_TESTING=ON >/dev/null
cmake --build "$build_dir" -j "$jobs" --target benchmarks

results=$(mktemp -d)
trap 'rm -rf "$results"' EXIT

status=0
for bench in "$build_dir"/bin/*_bench; do
  [[ -x "$bench" ]] || continue
  name=$(basename "$bench")
  [[ -z "$only" || " $only " == *" $name "* ]] || continue
  echo "== $name"
  cases=$("$bench" --benchmark_list_tests "$@") || { status=1; continue; }
  index=0
  while read -r case_name; do
    [[ "$case_name" == BM_* ]] || continue
    index=$((index + 1))
    filter="^$(printf '%s' "$case_name" | sed 's/[.*^$+?(){}|]/\\&/g')\$"
    "$bench" "$@" --benchmark_filter="$filter" --benchmark_out="$results/$name.$index.json" \
      --benchmark_out_format=json || status=1
  done <<<"$cases"
done

# brk calls per send, counted by strace around a fixed number of sends.
pipeline="$build_dir/bin/pipeline_bench"
if command -v strace >/dev/null && [[ -x "$pipeline" ]]; then
  for case_name in BM_SendTenThousandSamples BM_BuildAndSerializeTenThousandSamples; do
    strace -f -c -e trace=brk -o "$results/$case_name.strace" "$pipeline" \
      --benchmark_filter="^$case_name/" --benchmark_min_time=0.5 \
      --benchmark_out="$results/$case_name.brk.json" --benchmark_out_format=json >/dev/null || status=1
  done
fi

if [[ "$idle_seconds" -gt 0 ]]; then
  scripts/idle-footprint.sh "$idle_seconds" | tee "$results/idle.txt" || status=1
fi

python3 - "$results" <<'EOF'
import glob, json, os, re, sys

results = sys.argv[1]
nanos, cpu, counters, iterations = {}, {}, {}, {}
for path in glob.glob(os.path.join(results, "*.json")):
    brk = path.endswith(".brk.json")
    try:
        with open(path) as f:
            runs = json.load(f).get("benchmarks", [])
    except ValueError:
        continue
    for run in runs:
        if run.get("run_type") != "iteration":
            continue
        if brk:
            iterations[run["name"].split("/")[0]] = run["iterations"]
            continue
        scale = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}[run.get("time_unit", "ns")]
        nanos[run["name"]] = run["real_time"] * scale
        cpu[run["name"]] = run["cpu_time"] * scale
        counters[run["name"]] = run

def brk_per_run(name):
    path = os.path.join(results, name + ".strace")
    if name not in iterations or not os.path.exists(path):
        return None
    calls = 0
    for line in open(path):
        fields = line.split()
        if fields and fields[-1] == "brk":
            calls = int(fields[3])
    return calls / iterations[name]

def speed(agent, baseline):
    if agent in nanos and baseline in nanos and nanos[agent] > 0:
        return nanos[baseline] / nanos[agent]
    return None

def slowdown(agent, baseline):
    if agent in nanos and baseline in nanos and nanos[baseline] > 0:
        return nanos[agent] / nanos[baseline]
    return None

def show(what, goal, ratio, detail):
    figure = "    n/a" if ratio is None else "%6.2fx" % ratio
    print("%-84s %s  goal %-8s %s" % (what, figure, goal, detail))

def us(name):
    return "%.1f us" % (nanos[name] / 1e3) if name in nanos else "n/a"

print("\nperformance table (ratio to the baseline of the same run):")
dataIn = "BM_OnDataInPerFrame/%s/%d/manual_time"
parse = "BM_ParseFromArrayPerFrame/%s/manual_time"
for jobs in ("1", "20", "500"):
    for pieces, how in ((0, "flat"), (1, "4 KiB pieces")):
        a, b = dataIn % (jobs, pieces), parse % jobs
        show("OnDataIn per frame, %s jobs, %s, speed vs ParseFromArray" % (jobs, how), ">= 0.9x", speed(a, b),
             "%.0f ns vs %.0f ns" % (nanos.get(a, 0) / 256, nanos.get(b, 0) / 256))
send = "BM_SendTenThousandSamples/manual_time"
build = "BM_BuildAndSerializeTenThousandSamples/manual_time"
faults = lambda name: counters.get(name, {}).get("faults_per_send", float("nan"))
brk = lambda name: brk_per_run(name)
show("send of 10,000 samples, time vs build + serialise", "<= 1.2x", slowdown(send, build),
     "%s vs %s; faults/send %.0f vs %.0f; brk/send %s vs %s" % (
         us(send), us(build), faults(send), faults(build),
         "%.1f" % brk("BM_SendTenThousandSamples") if brk("BM_SendTenThousandSamples") is not None else "n/a",
         "%.1f" % brk("BM_BuildAndSerializeTenThousandSamples")
         if brk("BM_BuildAndSerializeTenThousandSamples") is not None else "n/a"))
idle = os.path.join(results, "idle.txt")
if os.path.exists(idle):
    for line in open(idle):
        if line.startswith("idle "):
            print(line.rstrip())
show("true commands, 64 in flight, speed vs raw posix_spawn", ">= 0.8x",
     speed("BM_ExecutorTrueCommands/real_time", "BM_RawSpawnTrueCommands/real_time"), "")
show("1,000 concurrent sleep 1, default configuration, time vs raw", "<= 1.1x",
     slowdown("BM_ExecutorThousandOneSecondSleeps/iterations:2/real_time",
              "BM_RawSpawnThousandOneSecondSleeps/iterations:2/real_time"),
     "%.0f ms vs %.0f ms" % (nanos.get("BM_ExecutorThousandOneSecondSleeps/iterations:2/real_time", 0) / 1e6,
                             nanos.get("BM_RawSpawnThousandOneSecondSleeps/iterations:2/real_time", 0) / 1e6))
# The store's figures are CPU time: its writes end in the page cache, and
# its wall time on a shared machine is mostly waiting.
nanos.update(("cpu:" + name, value) for name, value in cpu.items())
for size in ("1000", "10000"):
    a = "cpu:BM_StoreNumericRequest/%s" % size
    for memory, how in (("0", "SQLite defaults"), ("1", "temporary files in memory")):
        b = "cpu:BM_BareSqliteNumericRequest/%s/%s" % (size, memory)
        show("storing %s-sample requests, CPU speed vs bare SQLite, %s" % (size, how), ">= 0.9x", speed(a, b),
             "%.1f ms vs %.1f ms" % (nanos.get(a, 0) / 1e6, nanos.get(b, 0) / 1e6))
EOF
exit $status
