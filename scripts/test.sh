#!/usr/bin/env bash
# The whole test suite, from a fresh clone: installs what is missing, configures
# a sanitizer build (AddressSanitizer + UndefinedBehaviorSanitizer), builds it
# and runs every test with ctest; then, without arguments, builds the fuzz
# targets with clang and runs each over its corpus (scripts/fuzz.sh). Exits
# non-zero when anything fails.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh

build_dir=${OVITA2_TEST_BUILD_DIR:-build/test}
jobs=${OVITA2_JOBS:-$(nproc)}

cmake -S . -B "$build_dir" -G Ninja \
  -DCMAKE_BUILD_TYPE=Debug -DOVITA2_SANITIZE=ON -DOVITA2_BENCHMARKS=OFF >/dev/null
cmake --build "$build_dir" -j "$jobs"

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=0}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
status=0
(cd "$build_dir" && ctest --output-on-failure --timeout 300 -j "$jobs" "$@") || status=$?
if [[ $# -eq 0 ]]; then
  scripts/fuzz.sh || status=1
fi
exit "$status"
