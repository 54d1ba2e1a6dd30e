#!/usr/bin/env bash
# What the demo's agent host costs while nothing is due: CPU, wake-ups,
# system calls and PSS per idle minute, beside the published figures of
# collectd and zabbix_agentd (not installed here).
#
#   scripts/idle-footprint.sh [SECONDS]     # default 120; the figures are per minute
#
# Builds zelvar-host and the plug-ins in Release in build/bench, starts a
# control plane and an agent configured as scripts/demo.sh does, lets the
# agent settle, then measures the agent's host twice over SECONDS: first
# undisturbed (CPU time and wake-ups from every thread's schedstat, context
# switches from their status, PSS from smaps_rollup), then under strace -c -f
# for the system calls by name. OVITA2_IDLE_LOG_LEVEL sets the agent host's
# log level (default 1, as in the demo).
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib/local-hosts.sh
root=$PWD

seconds=${1:-120}
settle=${OVITA2_IDLE_SETTLE:-15}
build_dir=${OVITA2_BENCH_BUILD_DIR:-build/bench}

cmake -S . -B "$build_dir" -G Ninja -DCMAKE_BUILD_TYPE=Release -DOVITA2_BENCHMARKS=ON -DBUILD_TESTING=ON >/dev/null
cmake --build "$build_dir" -j "${OVITA2_JOBS:-$(nproc)}" --target zelvar-host registry_embedded ovita2_agent \
  ovita2_controlplane >/dev/null

bin=$root/$build_dir/bin
lib=$root/$build_dir/lib
run_dir=$(mktemp -d)
pids=()
finish() {
  for pid in "${pids[@]}"; do kill -TERM "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$run_dir"
}
trap finish EXIT

cp_port=$(free_port 7300)
agent_port=$(free_port $((cp_port + 200)))

write_controlplane_ini "$run_dir/controlplane.ini" "$cp_port" "$lib" "$root/controlplane/examples/jobs.yaml" "$run_dir/controlplane.db"
write_agent_ini "$run_dir/agent.ini" demo "${OVITA2_IDLE_LOG_LEVEL:-1}" "$agent_port" "$cp_port" "$lib"

cd "$run_dir"
"$bin/zelvar-host" -c "$run_dir/controlplane.ini" &
pids+=($!)
sleep 1
HOME=$run_dir "$bin/zelvar-host" -c "$run_dir/agent.ini" &
agent=$!
pids+=($agent)
sleep "$settle"

# Nanoseconds on a CPU (schedstat's first field; /proc/PID/stat counts in
# 10 ms ticks, too coarse for an idle minute) and times put on a CPU (its
# third) of every thread, and their context switches.
cpu_ns() { cat /proc/$agent/task/*/schedstat | awk '{ n += $1 } END { printf "%d", n }'; }
slices() { cat /proc/$agent/task/*/schedstat | awk '{ n += $3 } END { print n }'; }
switches() { cat /proc/$agent/task/*/status | awk '/ctxt_switches/ { n += $2 } END { print n }'; }

cpu0=$(cpu_ns) slices0=$(slices) switches0=$(switches)
sleep "$seconds"
cpu1=$(cpu_ns) slices1=$(slices) switches1=$(switches)
pss=$(awk '/^Pss:/ { print $2 }' "/proc/$agent/smaps_rollup")
private=$(awk '/^Private_(Clean|Dirty):/ { n += $2 } END { print n }' "/proc/$agent/smaps_rollup")
threads=$(ls "/proc/$agent/task" | wc -l)

strace -c -f -p "$agent" -o "$run_dir/strace.txt" &
tracer=$!
sleep "$seconds"
kill -INT "$tracer"
wait "$tracer" 2>/dev/null || true

awk -v s="$seconds" -v c0="$cpu0" -v c1="$cpu1" -v w0="$slices0" -v w1="$slices1" \
  -v x0="$switches0" -v x1="$switches1" -v pss="$pss" -v priv="$private" -v threads="$threads" 'BEGIN {
  per = 60 / s
  printf "idle agent host CPU per minute          %8.1f ms   goal <= 10 ms (collectd 10.7, zabbix_agentd 20.7, published)\n", (c1 - c0) / 1e6 * per
  printf "idle agent host wake-ups per minute     %8.1f      (schedstat; %.1f context switches)\n", (w1 - w0) * per, (x1 - x0) * per
  printf "idle agent host PSS                     %8.2f MiB  goal <= 4 MiB (private %.2f MiB, %d threads)\n", pss / 1024, priv / 1024, threads
}'
echo "idle agent host system calls per minute, by name (strace -c -f):"
awk -v per="$(awk -v s="$seconds" 'BEGIN { print 60 / s }')" '
  $NF != "syscall" && $NF != "total" && $4 ~ /^[0-9]+$/ { printf "  %-20s %8.1f\n", $NF, $4 * per; total += $4 * per }
  END { printf "  %-20s %8.1f\n", "total", total }' "$run_dir/strace.txt"

# Where the idle CPU goes, when asked (OVITA2_IDLE_PROFILE=1): a third window
# under perf, sampling the host's own threads and not the commands it starts,
# and its top symbols by own time. Release keeps the names of exported and
# library functions, which is enough to tell the loop from the work.
if [[ -n "${OVITA2_IDLE_PROFILE:-}" ]]; then
  perf record -q --no-inherit -F 20000 -g -o "$run_dir/perf.data" -p "$agent" -- sleep "$seconds" >/dev/null 2>&1
  echo "idle agent host profile, top symbols by own samples (perf):"
  perf report -i "$run_dir/perf.data" --no-children --stdio --sort dso,symbol 2>/dev/null | cut -c1-110 |
    awk '/^ +[0-9.]+%/ { print "  " $0; if (++n == 25) exit }'
fi
