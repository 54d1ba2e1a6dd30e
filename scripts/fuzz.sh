#!/usr/bin/env bash
# The fuzz targets (fuzz/), built with clang, libFuzzer, AddressSanitizer and
# UBSan in build/fuzz.
#
#   scripts/fuzz.sh                       each target over its corpus for a few seconds (ctest -L fuzz)
#   scripts/fuzz.sh SECONDS [TARGET...]   each target (or those named) for SECONDS, one after another;
#                                         prints runs, exec/s, coverage, corpus size and crashes of each
# What a long run finds stays in build/fuzz/fuzz/corpus/TARGET; a crashing input is written to
# build/fuzz/fuzz/crashes/. Once fixed, copy it into fuzz/regressions/TARGET/ so ctest runs it from then on.
set -euo pipefail
cd "$(dirname "$0")/.."

build_dir=${OVITA2_FUZZ_BUILD_DIR:-build/fuzz}
jobs=${OVITA2_JOBS:-$(nproc)}
CC=clang CXX=clang++ cmake -S . -B "$build_dir" -G Ninja -DCMAKE_BUILD_TYPE=Debug \
  -DOVITA2_SANITIZE=ON -DOVITA2_FUZZ=ON -DOVITA2_BENCHMARKS=OFF >/dev/null
cmake --build "$build_dir" -j "$jobs" --target fuzz_targets

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
if [[ $# -eq 0 ]]; then
  cd "$build_dir" && exec ctest --output-on-failure -L fuzz -j "$jobs"
fi

seconds=$1
shift
fuzz_dir=$build_dir/fuzz
mkdir -p "$fuzz_dir/crashes" "$fuzz_dir/logs"
targets=("$@")
[[ ${#targets[@]} -gt 0 ]] || targets=($(cd fuzz && ls *_fuzz.cpp | sed 's/_fuzz\.cpp$//'))
status=0
printf '%-20s %10s %8s %6s %7s %8s\n' target runs exec/s cov corpus crashes
for target in "${targets[@]}"; do
  regressions=()
  [[ -d fuzz/regressions/$target ]] && regressions=(fuzz/regressions/$target)
  log=$fuzz_dir/logs/$target.log
  "$build_dir/bin/${target}_fuzz" -max_total_time="$seconds" -timeout=10 -print_final_stats=1 \
    -artifact_prefix="$fuzz_dir/crashes/$target-" "$fuzz_dir/corpus/$target" "$fuzz_dir/seeds/$target" \
    "${regressions[@]}" >"$log" 2>&1 || status=1
  # The last status line: "#RUNS ... cov: C ft: F corp: N/SIZE ... exec/s: E ...".
  awk -v target="$target" -v crashes="$(ls "$fuzz_dir/crashes" | grep -c "^$target-" || true)" '
    /^#[0-9]+.*cov:/ { runs = substr($1, 2); for (i = 2; i < NF; i++) { if ($i == "cov:") cov = $(i + 1);
                       if ($i == "corp:") corp = $(i + 1); if ($i == "exec/s:") rate = $(i + 1) } }
    END { split(corp, c, "/"); printf "%-20s %10s %8s %6s %7s %8s\n", target, runs, rate, cov, c[1], crashes }' "$log"
done
exit "$status"
