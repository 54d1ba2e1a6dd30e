#!/usr/bin/env bash
# Installs every Debian package the project needs to build, test and run.
# Idempotent and quiet: when everything is already there it prints nothing.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config
  clang            # libFuzzer, for the fuzz targets (scripts/fuzz.sh)
  protobuf-compiler libprotobuf-dev
  libevent-dev
  libinih-dev
  uuid-dev
  libzookeeper-st-dev zookeeper
  libsqlite3-dev
  libyaml-cpp-dev
  libcli11-dev
  nlohmann-json3-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  libjs-chart.js   # the control plane's web page draws its charts with it
  prometheus       # promtool checks /metrics in the tests
  chromium         # the web page's browser test, and the README's screenshot
  help2man         # the man pages, written from the programs' --help
  dpkg-dev         # dpkg-shlibdeps: the packages' library dependencies
)

missing=()
for pkg in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null || true)
  [[ "$status" == "install ok installed" ]] || missing+=("$pkg")
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

echo "setup: installing ${missing[*]}" >&2
sudo_cmd=()
[[ $(id -u) -eq 0 ]] || sudo_cmd=(sudo)
export DEBIAN_FRONTEND=noninteractive
"${sudo_cmd[@]}" apt-get update -qq >/dev/null
"${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
