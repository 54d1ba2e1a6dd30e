#!/usr/bin/env bash
# A soak: the control plane and an agent, each in its own zelvar-host on
# loopback with the embedded registry, the agent running a few hundred jobs
# (numbers, text, failing, slow, over the time and output limits, leaving
# background children, counters) and the real-time path, for DURATION.
# Every OVITA2_SOAK_INTERVAL seconds (30) it samples, for each host: resident
# memory, open descriptors, threads, the processes of its session (commands
# and whatever they left behind) and the zombies among them. At the end it
# prints each figure's slope per hour and exits non-zero when a figure grew
# (the lowest value of the last third of the samples above that of the first,
# after a 5-minute warm-up), when a host died or when samples stopped arriving.
# Judging needs a run of 10 minutes or more.
#
#   scripts/soak.sh DURATION        # DURATION: 3600, 90m, 1h
#   OVITA2_SOAK_DIR (build/soak)  OVITA2_SOAK_JOBS (300)  OVITA2_SOAK_INTERVAL (30)
#   OVITA2_SOAK_RSS_TOLERANCE_KIB (2048)  OVITA2_SOAK_COUNT_TOLERANCE (2)
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib/local-hosts.sh
root=$PWD

[[ $# -eq 1 && $1 =~ ^([0-9]+)([smh]?)$ ]] || { echo "usage: $0 DURATION (e.g. 3600, 90m, 1h)" >&2; exit 2; }
case ${BASH_REMATCH[2]} in m) duration=$((BASH_REMATCH[1] * 60)) ;; h) duration=$((BASH_REMATCH[1] * 3600)) ;;
  *) duration=${BASH_REMATCH[1]} ;; esac
build_dir=${OVITA2_SOAK_DIR:-build/soak}
job_count=${OVITA2_SOAK_JOBS:-300}
interval=${OVITA2_SOAK_INTERVAL:-30}
rss_tolerance=${OVITA2_SOAK_RSS_TOLERANCE_KIB:-2048}
count_tolerance=${OVITA2_SOAK_COUNT_TOLERANCE:-2}
# The job list reaches the agent about 150 s after its start and the figures
# settle after that: what happens before the warm-up ends is not judged.
warmup=$((duration / 2 < 300 ? duration / 2 : 300))


say "building into $build_dir"
scripts/setup.sh
cmake -S . -B "$build_dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DBUILD_TESTING=OFF -DOVITA2_BENCHMARKS=OFF >/dev/null
cmake --build "$build_dir" -j "$(nproc)" \
  --target zelvar-host registry_embedded ovita2_agent ovita2_controlplane ovita2ctl >/dev/null
bin=$root/$build_dir/bin
lib=$root/$build_dir/lib
run_dir=$root/$build_dir/run
rm -rf "$run_dir"
mkdir -p "$run_dir"
cp_port=$(free_port 7400)
agent_port=$(free_port $((cp_port + 100)))
database=$run_dir/controlplane.db

# The jobs, by kind in turn. Intervals under 60 s go to the high-precision
# runner; the agent's time limit is 30 s and its output limit 1 MiB.
job_kind() {
  local i=$1 kind=$(($1 % 10))
  case $kind in
    0 | 1 | 2) echo "interval: 60, command: 'echo $i.$((i % 7))'" ;;
    3) echo "interval: 60, command: uname -r, string_value: 1" ;;
    4) case $((i % 3)) in
         0) echo "interval: 60, command: 'echo broken >&2; exit 3'" ;;
         1) echo "interval: 90, command: no-such-command-$i" ;;
         *) echo "interval: 60, command: echo not-a-number" ;;
       esac ;;
    5) echo "interval: 120, command: 'sleep $((5 + i % 20)); echo 1'" ;;
    6) case $((i % 3)) in
         0) echo "interval: 120, command: 'sleep 45; echo 1'" ;;
         1) echo "interval: 120, command: 'head -c 3000000 /dev/zero | tr \"\\\\0\" x'" ;;
         *) echo "interval: 60, command: 'sleep 600 >/dev/null 2>&1 & echo 2'" ;;
       esac ;;
    7) echo "interval: 10, command: 'cut -d\" \" -f1 /proc/loadavg'" ;;
    8) echo "interval: 10, command: 'echo \"\$(date +%s)|\$(cut -d. -f1 /proc/uptime)\"', second_phase: 1, second_phase_delay: 10" ;;
    *) echo "interval: 60, command: 'echo \"\$(date +%s)|$i\"', second_phase: 1, second_phase_delay: 5, second_phase_command: 'echo 7 #'" ;;
  esac
}
{
  echo "agents:"
  echo "  soak:"
  echo "    objects:"
  for object in 1 2 3; do
    echo "      - object_id: $object"
    echo "        jobs:"
    for ((i = object; i <= job_count; i += 3)); do
      echo "          - {job_id: $i, stat_item: $((1000 + i)), stat_key: k$i, $(job_kind "$i")}"
    done
  done
  echo "    confs:"
  echo "      1:"
  echo "        - {target: zelvar-host, parameter: 3}"
  echo "        - {target: ovita2-soak-missing-daemon}"
} >"$run_dir/jobs.yaml"

write_controlplane_ini "$run_dir/controlplane.ini" "$cp_port" "$lib" "$run_dir/jobs.yaml" "$database"
write_agent_ini "$run_dir/agent.ini" soak 2 "$agent_port" "$cp_port" "$lib" $'[long_action]\ntime_limit = 30\n'
# Real-time items: 1 prints three lines, 2 fails, 3 leaves a background child.
task_dir=$run_dir/agent-home/ovita2/agent/plugin/real_time_task
mkdir -p "$task_dir"
printf '#!/bin/sh\necho "up $(cut -d" " -f1 /proc/uptime)"\necho two\necho three\n' >"$task_dir/1.sh"
printf '#!/bin/sh\necho "item 2 fails" >&2\nexit 1\n' >"$task_dir/2.sh"
printf '#!/bin/sh\nsleep 600 >/dev/null 2>&1 &\necho forked\n' >"$task_dir/3.sh"
chmod +x "$task_dir"/*.sh

hosts=()
stop_hosts() { for pid in "${hosts[@]}"; do kill -TERM "$pid" 2>/dev/null || true; done; }
trap 'stop_hosts; wait' EXIT
cd "$run_dir"
# Each host leads its own session, so every process a command leaves behind,
# even one its shell's exit handed to init, is still counted as the host's.
setsid "$bin/zelvar-host" -c controlplane.ini &
hosts+=($!)
for _ in $(seq 100); do grep -q 'controlplane: serving as' controlplane.log 2>/dev/null && break; sleep 0.1; done
HOME=$run_dir/agent-home setsid "$bin/zelvar-host" -c agent.ini &
hosts+=($!)
say "control plane pid ${hosts[0]} on 127.0.0.1:$cp_port, agent pid ${hosts[1]} on 127.0.0.1:$agent_port," \
  "$job_count jobs, $duration s, a sample every $interval s into $run_dir/samples.tsv"

# One line per host: seconds, host, rss KiB, descriptors, threads, processes, zombies.
sample() {
  local now=$1 stat rest
  declare -A procs=() zombies=()
  for stat in /proc/[0-9]*/stat; do
    read -r rest 2>/dev/null <"$stat" || continue
    rest=${rest##*) }
    read -r state _ _ session _ <<<"$rest"
    procs[$session]=$((${procs[$session]:-0} + 1))
    [[ $state == Z ]] && zombies[$session]=$((${zombies[$session]:-0} + 1))
  done
  local name pid i=0
  for name in controlplane agent; do
    pid=${hosts[i]}
    i=$((i + 1))
    [[ -d /proc/$pid ]] || { echo "$now $name dead"; continue; }
    printf '%s %s %s %s %s %s %s\n' "$now" "$name" \
      "$(awk '/^VmRSS:/ { print $2 }' "/proc/$pid/status")" "$(ls "/proc/$pid/fd" | wc -l)" \
      "$(awk '/^Threads:/ { print $2 }' "/proc/$pid/status")" \
      "$((${procs[$pid]:-1} - 1))" "${zombies[$pid]:-0}"
  done
}
# The id of the newest stored sample (samples) or real-time line (lines), 0 for none.
newest() {
  local id
  id=$("$bin/ovita2ctl" "$1" --db "$database" --limit 1 --json 2>/dev/null | grep -o '"id":[0-9]*' || true)
  echo "${id#\"id\":}" | sed 's/^$/0/'
}

start=$SECONDS
next_enable=0
judged_from=
: >samples.tsv
while ((SECONDS - start < duration)); do
  elapsed=$((SECONDS - start))
  if ((elapsed >= next_enable)); then   # an enabled item lapses after 300 s
    for item in 1 2 3; do "$bin/ovita2ctl" enable "127.0.0.1:$agent_port" "$item" >/dev/null 2>&1 || true; done
    next_enable=$((elapsed + 240))
  fi
  sample "$elapsed" | tee -a samples.tsv | grep -q dead && { say "a host died; see $run_dir/*.log"; exit 1; }
  [[ -z $judged_from ]] && ((elapsed >= warmup + (duration - warmup) * 2 / 3)) &&
    judged_from="$(newest samples) $(newest lines)"
  # On the interval's grid, so the samples keep their phase against the jobs'.
  sleep $((interval - (SECONDS - start) % interval))
done
read -r samples_then lines_then <<<"${judged_from:-0 0}"
samples_now=$(newest samples)
lines_now=$(newest lines)
stop_hosts
status=0
for pid in "${hosts[@]}"; do wait "$pid" || status=1; done
trap - EXIT
((status == 0)) || say "a host did not stop cleanly; see $run_dir/*.log"
say "stored: $samples_now samples, $lines_now real-time lines;" \
  "$((samples_now - samples_then)) and $((lines_now - lines_then)) in the last third"
((samples_now > samples_then && lines_now > lines_then)) || { say "samples or real-time lines stopped arriving"; status=1; }

awk -v warmup="$warmup" -v rss_tol="$rss_tolerance" -v count_tol="$count_tolerance" \
  -f "$root/scripts/soak-judge.awk" samples.tsv || status=1
exit "$status"
