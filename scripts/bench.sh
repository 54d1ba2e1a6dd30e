#!/usr/bin/env bash
# Builds the benchmarks in Release (no sanitizers) in build/bench and runs
# each of them. Arguments are passed to every benchmark binary, for example
# scripts/bench.sh --benchmark_filter=Thousand
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh

build_dir=${OVITA2_BENCH_BUILD_DIR:-build/bench}
jobs=${OVITA2_JOBS:-$(nproc)}

# Testing stays on: the agent's benchmarks drive it through the shared test
# host. Only the benchmarks are built.
cmake -S . -B "$build_dir" -G Ninja -DCMAKE_BUILD_TYPE=Release -DOVITA2_BENCHMARKS=ON -DBUILD_TESTING=ON >/dev/null
cmake --build "$build_dir" -j "$jobs" --target benchmarks

status=0
for bench in "$build_dir"/bin/*_bench; do
  [[ -x "$bench" ]] || continue
  echo "== $(basename "$bench")"
  "$bench" "$@" || status=1
done
exit $status
