#!/usr/bin/env bash
# The demo: the control plane and an agent on this machine, talking over
# loopback, with the embedded registry and a few real jobs about this host
# (controlplane/examples/jobs.yaml). Installs what is missing, builds, starts
# both hosts and narrates what happens until Ctrl-C stops everything.
#
#   scripts/demo.sh            # OVITA2_DEMO_DIR=... to run elsewhere than build/demo
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib/local-hosts.sh
root=$PWD

build_dir=${OVITA2_DEMO_DIR:-build/demo}
run_dir=$build_dir/run
jobs_file=$root/controlplane/examples/jobs.yaml



say "installing what is missing (scripts/setup.sh) and building into $build_dir"
scripts/setup.sh
cmake -S . -B "$build_dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DBUILD_TESTING=OFF -DOVITA2_BENCHMARKS=OFF >/dev/null
cmake --build "$build_dir" -j "$(nproc)" \
  --target zelvar-host registry_embedded ovita2_agent ovita2_controlplane ovita2ctl

bin=$root/$build_dir/bin
lib=$root/$build_dir/lib
rm -rf "$run_dir"
mkdir -p "$run_dir"
run_dir=$(cd "$run_dir" && pwd)
cp_port=$(free_port 7100)
agent_port=$(free_port $((cp_port + 200)))
http_port=$(free_port 7180)
database=$run_dir/controlplane.db

write_controlplane_ini "$run_dir/controlplane.ini" "$cp_port" "$lib" "$jobs_file" "$database" "http = 127.0.0.1:$http_port"

write_agent_ini "$run_dir/agent.ini" demo 1 "$agent_port" "$cp_port" "$lib"

# The agent runs the script of an item enabled for real-time monitoring from
# ~/ovita2/agent/plugin/real_time_task/ITEM.sh, "~" being the HOME of the host
# process. Its host gets a HOME inside the run folder, so the demo never writes
# into yours; item 1 tells about this machine.
agent_home=$run_dir/agent-home
task_dir=$agent_home/ovita2/agent/plugin/real_time_task
mkdir -p "$task_dir"
cat >"$task_dir/1.sh" <<'EOF'
#!/bin/sh
# Real-time item 1 of the demo: each line printed is sent on its own.
echo "$(hostname): up $(cut -d' ' -f1 /proc/uptime) s, load $(cut -d' ' -f1-3 /proc/loadavg)"
echo "$(hostname): $(awk '/MemAvailable/ { print int($2 / 1024) }' /proc/meminfo) MiB available, $(ls /proc | grep -c '^[0-9]') processes"
EOF
chmod +x "$task_dir/1.sh"

children=()
stopping=
stop() {
  [[ -n $stopping ]] && return
  stopping=1
  echo
  say "stopping"
  for pid in "${children[@]}"; do kill -TERM "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  say "stopped; logs, configuration and database are in $run_dir"
  exit 0
}
trap stop INT TERM

# Friendly lines for what the two logs say, each shown once. tail ends with
# this script (--pid), whichever way it stops.
narrate() {
  tail -n +1 -F --pid=$$ "$run_dir/controlplane.log" "$run_dir/agent.log" 2>/dev/null | awk '
    function show(text) { if (!(text in seen)) { seen[text] = 1; print time "  " text; fflush() } }
    { time = substr($1, 12, 8) }    # the time the log line carries (after the T)
    /controlplane: serving as/      { sub(/.*controlplane: /, ""); show("control plane: " $0) }
    /controlplane: registered/      { sub(/.*controlplane: /, ""); show("control plane: " $0 " in its registry") }
    /Registe myself node:/          { sub(/.*node: /, ""); show("agent: registering itself as " $0) }
    /Register myself finished/      { show("agent: registered in its name service") }
    /\|name=.*, ip=.*, port=/        { sub(/.*\|name=/, ""); sub(/, ip=/, " at "); sub(/, port=/, ":");
                                      show("agent: found " $0 " in its name service") }
    /my task queue:/                { sub(/.*my task queue: /, "");
                                      show("agent: task queue found: " $0);
                                      show("agent: its job list is fetched at its next job-update run, about 2.5 minutes after start; waiting") }
    /controlplane: gave agent .* its / { sub(/.*controlplane: gave agent /, ""); sub(/ its /, " (");
                                      show("control plane: job list sent to agent " $0 "); first samples within 20 s") }
    /controlplane: gave agent .* configurations of/ {
                                      sub(/.*controlplane: gave agent [^ ]* /, "");
                                      show("control plane: " $0 " sent; the collectors report every 300 s") }
    /controlplane: heartbeat of/    { sub(/.*controlplane: heartbeat of /, "");
                                      print time "  control plane: heartbeat from " $0; fflush() }
    /RealTimeCollectMachine.*long action stderr:/ { sub(/.*long action stderr: /, ""); show("agent: a real-time script failed: " $0); next }
    /long action stderr:/           { sub(/.*long action stderr: /, ""); show("agent: a job failed: " $0) }
    / ERROR controlplane:/          { sub(/.* ERROR controlplane: /, ""); show("control plane error: " $0) }
  '
}

# Until the job list arrives, say every 30 s how long the agent has been up.
remind() {
  local started=$SECONDS
  while ! grep -q 'controlplane: gave agent .* its ' "$run_dir/controlplane.log" 2>/dev/null; do
    sleep 30
    grep -q 'controlplane: gave agent .* its ' "$run_dir/controlplane.log" 2>/dev/null && break
    say "still waiting for the agent's job-update run ($((SECONDS - started)) s of about 150 s)"
  done
}

cd "$run_dir"
say "starting the control plane on 127.0.0.1:$cp_port and the agent (listening on 127.0.0.1:$agent_port)"
narrate &
children+=($!)
"$bin/zelvar-host" -c "$run_dir/controlplane.ini" &
children+=($!)
for _ in $(seq 50); do
  grep -q 'controlplane: serving as' controlplane.log 2>/dev/null && break
  if ! kill -0 "${children[1]}" 2>/dev/null; then
    say "the control plane did not start; its log says:"
    cat controlplane.log >&2 || true
    exit 1
  fi
  sleep 0.1
done
HOME=$agent_home "$bin/zelvar-host" -c "$run_dir/agent.ini" &
children+=($!)
remind &
children+=($!)
"$bin/ovita2ctl" follow --db "$database" --last 0 &
children+=($!)
say "the web page: http://127.0.0.1:$http_port/  (Prometheus: http://127.0.0.1:$http_port/metrics)"
say "samples appear below as they are stored; Ctrl-C stops everything"
say "(another terminal: $bin/ovita2ctl samples --db $database)"
say "real-time monitoring, from another terminal (item 1 is $task_dir/1.sh):"
say "  $bin/ovita2ctl enable 127.0.0.1:$agent_port 1     answers \"item 1 enabled\""
say "  $bin/ovita2ctl lines --db $database --follow     its lines, every 10 s for 300 s unless enabled again"
say "  $bin/ovita2ctl disable 127.0.0.1:$agent_port 1    stops them; an item not enabled is refused (exit status 1)"
# Ctrl-C reaches both hosts too, and they stop with status 0; a host that
# fails on its own says why in its log.
status=0
wait -n "${children[1]}" "${children[2]}" || status=$?
[[ $status -eq 0 ]] || say "a host stopped with status $status; see $run_dir/*.log"
stop
