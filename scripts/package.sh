#!/usr/bin/env bash
# Builds the Debian packages ovita2-host, ovita2-agent and ovita2-controlplane
# from a Release tree in build/package (CPack's DEB generator over the tree's
# own install rules) and prints the paths of the .deb files.
#   scripts/package.sh            then   sudo apt install ./build/package/*.deb
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=$root/build/package
jobs=${JOBS:-$(nproc)}

launcher=()
if command -v ccache >/dev/null; then
  launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
fi
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
  -DBUILD_TESTING=OFF -DOVITA2_BENCHMARKS=OFF "${launcher[@]}" >/dev/null
cmake --build "$build" -j "$jobs" >/dev/null
rm -f "$build"/*.deb
(cd "$build" && cpack -G DEB >/dev/null)
ls "$build"/*.deb
