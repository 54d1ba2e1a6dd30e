# The configuration of an agent host beside a control plane on this machine,
# shared by the demo, the soak and the idle measurement. The agent's registry
# is embedded in its own process, so it is told where the control plane's
# master and statistics access endpoints are; with ZooKeeper it would find the
# nodes the control plane registers.
#
#   write_agent_ini FILE AGENT_NAME LOG_LEVEL AGENT_PORT CP_PORT LIB_DIR [EXTRA_INI_LINES]
write_agent_ini() {
  local file=$1 name=$2 level=$3 agent_port=$4 cp_port=$5 lib=$6 extra=${7:-}
  cat >"$file" <<EOF
; An agent beside a control plane on this machine (written by scripts/lib/agent-ini.sh).
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
