# A control plane and an agent, each in its own host on this machine: what the
# demo, the soak and the idle measurement share.

say() { printf '%s  %s\n' "$(date +%T)" "$*"; }

# A TCP port on 127.0.0.1 that nothing answers on, from $1 upwards.
free_port() {
  local port=$1
  while (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; do port=$((port + 1)); done
  echo "$port"
}

#   write_controlplane_ini FILE CP_PORT LIB_DIR JOBS_FILE DATABASE [EXTRA_CONTROLPLANE_LINE]
write_controlplane_ini() {
  local file=$1 cp_port=$2 lib=$3 jobs=$4 database=$5 extra=${6:-}
  cat >"$file" <<EOF
; A control plane beside an agent on this machine (written by scripts/lib/local-hosts.sh).
[host]
log_file = controlplane.log
log_level = 2
[network]
listen-ip = 127.0.0.1
listen-port = $cp_port
[plugins]
zookeeper = $lib/libregistry_embedded.so
controlplane = $lib/libovita2_controlplane.so
[controlplane]
name = cp-1
jobs_file = $jobs
database = $database
${extra}
EOF
}

# The agent's configuration. Its registry is embedded in its own process, so
# it is told where the control plane's master and statistics access endpoints
# are; with ZooKeeper it would find the nodes the control plane registers.
#
#   write_agent_ini FILE AGENT_NAME LOG_LEVEL AGENT_PORT CP_PORT LIB_DIR [EXTRA_INI_LINES]
write_agent_ini() {
  local file=$1 name=$2 level=$3 agent_port=$4 cp_port=$5 lib=$6 extra=${7:-}
  cat >"$file" <<EOF
; An agent beside a control plane on this machine (written by scripts/lib/local-hosts.sh).
[host]
log_file = agent.log
log_level = $level
${extra}[network]
listen-ip = 127.0.0.1
listen-port = $agent_port
[plugins]
zookeeper = $lib/libregistry_embedded.so
agent = $lib/libovita2_agent.so
[embedded_registry]
/ovita2/names/MASTER/cp-1 = 127.0.0.1:$cp_port
/ovita2/names/TELLAR2_ACCESS/cp-1 = 127.0.0.1:$cp_port
[names]
MASTER = /ovita2/names/MASTER
TELLAR2_ACCESS = /ovita2/names/TELLAR2_ACCESS
[common]
agentname = $name
myname = /ovita2/agents/$name
EOF
}
