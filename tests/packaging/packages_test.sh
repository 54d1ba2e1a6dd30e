#!/usr/bin/env bash
# Builds the .deb packages of a configured and built tree, unpacks them into a
# scratch root and checks what an operator gets: the files, conffiles and
# dependencies, man pages that carry the programs' options, units systemd
# accepts, and the unpacked host starting as each unit starts it, on the
# unpacked example configuration.
#   packages_test.sh BUILD_DIR PREFIX LIBDIR CONFIG_DIR
set -euo pipefail

build=$1 prefix=$2 libdir=$3 configdir=$4
scratch=$(mktemp -d)
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill -TERM "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$scratch"
}
trap cleanup EXIT

failures=0
fail() { echo "FAIL: $*" >&2; failures=$((failures + 1)); }

root=$scratch/root
state=$scratch/state
mkdir -p "$root/etc" "$state" "$scratch/home"

# The packages.
(cd "$build" && cpack -G DEB -B "$scratch/packages" >"$scratch/cpack.log" 2>&1) || {
  cat "$scratch/cpack.log" >&2
  exit 1
}
deb() { ls "$scratch"/packages/"$1"_*.deb; }
for package in ovita2-host ovita2-agent ovita2-controlplane; do
  dpkg -x "$(deb "$package")" "$root"
  dpkg-deb -e "$(deb "$package")" "$scratch/control-$package"
done

for part in agent controlplane; do
  depends=$(dpkg-deb -f "$(deb "ovita2-$part")" Depends)
  [[ $depends == *"ovita2-host (= "* ]] || fail "ovita2-$part does not depend on ovita2-host: $depends"
  [[ $depends == *libevent* ]] || fail "ovita2-$part has no dependency on the libraries it links: $depends"
done

units=$prefix/lib/systemd/system
expected=(
  "$prefix/bin/zelvar-host" "$libdir/libmessage.so.0" "$libdir/ovita2/libregistry_embedded.so"
  "$libdir/ovita2/libregistry_zookeeper.so" "$prefix/lib/sysusers.d/ovita2.conf"
  "$prefix/lib/tmpfiles.d/ovita2.conf" "$prefix/share/man/man8/zelvar-host.8.gz"
  "$prefix/bin/kmsgwatch" "$libdir/libovita2_agent.so" "$units/ovita2-agent.service" "$configdir/agent.ini"
  "$prefix/bin/ovita2ctl" "$libdir/libovita2_controlplane.so" "$units/ovita2-controlplane.service"
  "$configdir/controlplane.ini" "$configdir/jobs.yaml" "$prefix/share/man/man1/ovita2ctl.1.gz"
  "$prefix/share/ovita2/web/index.html"
)
for file in "${expected[@]}"; do [[ -e $root$file ]] || fail "not in the packages: $file"; done

# Every file under the configuration folder is a conffile, so an upgrade keeps
# the operator's edits.
while read -r file; do
  grep -qxF "${file#"$root"}" "$scratch"/control-*/conffiles || fail "not a conffile: ${file#"$root"}"
done < <(find "$root$configdir" -type f)

# The man pages are the programs' own --help.
zcat "$root$prefix/share/man/man8/zelvar-host.8.gz" | grep -qF -- '\-\-config' ||
  fail "zelvar-host(8) lacks the --config option"
zcat "$root$prefix/share/man/man1/ovita2ctl.1.gz" | grep -qF -- '--agent TEXT' ||
  fail "ovita2ctl(1) lacks the options of its commands"

# What the host package's postinst does, done in the scratch root: the user,
# then its folders (tmpfiles refuses a folder it could not make safely).
if command -v systemd-sysusers >/dev/null && command -v systemd-tmpfiles >/dev/null && ((EUID == 0)); then
  systemd-sysusers --root="$root" "$root$prefix/lib/sysusers.d/ovita2.conf" >/dev/null 2>&1 ||
    fail "systemd-sysusers refused ovita2.conf"
  systemd-tmpfiles --root="$root" --create "$root$prefix/lib/tmpfiles.d/ovita2.conf" ||
    fail "systemd-tmpfiles refused ovita2.conf"
  scripts=$root/var/lib/ovita2/ovita2/agent/plugin/real_time_task
  uid=$(awk -F: '$1 == "ovita2" { print $3 }' "$root/etc/passwd")
  [[ -n $uid && $(stat -c %u "$scripts" 2>/dev/null) == "$uid" ]] || fail "the real-time script folder is not the user's"
else
  echo "systemd-sysusers, systemd-tmpfiles or root missing: user and folders not checked"
fi

# The unpacked binaries and configuration, in the scratch root: paths and
# ports rewritten so nothing outside it is touched.
port() { echo $((20000 + RANDOM % 20000)); }
cp_port=$(port) http_port=$(port) agent_port=$(port)
for ini in agent.ini controlplane.ini; do
  sed -i -e "s|$libdir|$root$libdir|g" -e "s|/var/lib/ovita2|$state|g" \
    -e "s|7100|$cp_port|g" -e "s|7180|$http_port|g" -e "s|7200|$agent_port|g" "$root$configdir/$ini"
done
mkdir -p "$scratch/units"
for part in agent controlplane; do
  sed -e "s|$prefix/bin/|$root$prefix/bin/|" -e "s|$configdir/|$root$configdir/|" \
    "$root$units/ovita2-$part.service" >"$scratch/units/ovita2-$part.service"
done

if command -v systemd-analyze >/dev/null; then
  # Unknown keys are only warned about: any output is a finding.
  findings=$(systemd-analyze verify --man=no "$scratch"/units/*.service 2>&1) || fail "systemd-analyze verify failed"
  [[ -z $findings ]] || fail "systemd-analyze verify: $findings"
else
  echo "systemd-analyze not found: units not verified"
fi

zelvar_host=$root$prefix/bin/zelvar-host
for ini in agent.ini controlplane.ini; do
  LD_LIBRARY_PATH=$root$libdir "$zelvar_host" --check-config "$root$configdir/$ini" ||
    fail "zelvar-host --check-config finds fault with the example $ini"
done

# Each service's ExecStart, as systemd would run it, comes up with its plug-ins.
for part in controlplane agent; do
  read -r -a command < <(sed -n 's/^ExecStart=//p' "$scratch/units/ovita2-$part.service")
  LD_LIBRARY_PATH=$root$libdir HOME=$scratch/home "${command[@]}" 2>"$scratch/$part.log" &
  pids+=($!)
  for _ in $(seq 100); do
    grep -q 'zelvar-host started with 2 plug-in(s)' "$scratch/$part.log" && break
    kill -0 "${pids[-1]}" 2>/dev/null || break
    sleep 0.1
  done
  grep -q 'zelvar-host started with 2 plug-in(s)' "$scratch/$part.log" || {
    fail "ovita2-$part did not start:"
    cat "$scratch/$part.log" >&2
  }
done
[[ -f $state/controlplane.db ]] || fail "the control plane made no database in its state folder"
LD_LIBRARY_PATH=$root$libdir "$root$prefix/bin/ovita2ctl" agents --db "$state/controlplane.db" >/dev/null ||
  fail "ovita2ctl cannot read the control plane's database"

for pid in "${pids[@]}"; do
  kill -TERM "$pid" 2>/dev/null || true
  wait "$pid" || fail "a host stopped with status $? on SIGTERM"
done
pids=()

((failures == 0)) || exit 1
echo "packages: all checks passed"
