#!/usr/bin/env bash
# Long fuzzing campaign: every target in parallel jobs until each has run a number of executions
# (or a time limit passes). The bulk runs in a plain coverage-guided build (no sanitizers, several
# times faster); its corpus is then replayed through the ASan+UBSan build. Findings land in
# <work>/<target>/artifacts; copy each reproducer to fuzz/regressions/<target>/ once fixed.
#
#   scripts/fuzz-campaign.sh [-n executions] [-t seconds] [-j jobs] [-w workdir] [target...]
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
runs=10000000
seconds=86400
jobs="$(nproc)"
work="$root/build-fuzz-campaign"
while getopts "n:t:j:w:" option; do
  case "$option" in
    n) runs="$OPTARG" ;;
    t) seconds="$OPTARG" ;;
    j) jobs="$OPTARG" ;;
    w) work="$OPTARG" ;;
    *) exit 2 ;;
  esac
done
shift $((OPTIND - 1))
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(fuzz_ktx fuzz_ktx_roundtrip fuzz_hdr fuzz_astc fuzz_glsl fuzz_gltf)

source "$root/scripts/cmake-cache.sh"
configure() {
  local dir="$1"; shift
  CXX=clang++ cmake -S "$root" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "${compiler_cache[@]}" -DVYXGL_BUILD_FUZZERS=ON \
    -DVYXGL_BUILD_TESTS=OFF -DVYXGL_BUILD_APPS=OFF -DVYXGL_BUILD_BENCHMARKS=OFF "$@" > /dev/null
  cmake --build "$dir" -j"$jobs" --target "${targets[@]}" > /dev/null
}
# Beside the other build folders, so the compiler cache serves the library to both.
fast="$root/build-fuzz-fast"
asan="$root/build-fuzz"
configure "$fast" -DVYXGL_FUZZ_SANITIZE=OFF
configure "$asan" -DVYXGL_FUZZ_SANITIZE=ON

export ASAN_OPTIONS="detect_leaks=0:allocator_may_return_null=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
# One target per job; each stops at its execution count, so a slow target does not hold the rest.
# Every run keeps its own log, so running the campaign again resumes where it stopped.
executions() { cat "$1"/fuzz-*.log 2> /dev/null | awk '/stat::number_of_executed_units/ {n += $2} END {print n + 0}'; }
run_target() {
  local target="$1" dir="$work/$1"
  mkdir -p "$dir/corpus" "$dir/artifacts"
  cp -n "$root/fuzz/corpus/$target"/* "$dir/corpus/" 2> /dev/null || true
  local dict=() log="$dir/fuzz-$(date +%s).log" remaining=$((runs - $(executions "$dir")))
  [ -f "$root/fuzz/dict/$target.dict" ] && dict=(-dict="$root/fuzz/dict/$target.dict")
  # Generous timeout: the first shader llvmpipe compiles can take seconds on a loaded machine.
  if [ "$remaining" -gt 0 ]; then
    "$fast/fuzz/$target" "$dir/corpus" "${dict[@]}" -runs="$remaining" -max_total_time="$seconds" \
      -timeout=60 -rss_limit_mb=2048 -print_final_stats=1 -artifact_prefix="$dir/artifacts/" \
      > "$log" 2>&1 || echo "$target: finding, see $log" >&2
  fi
  # The sanitizers check every input the plain run kept.
  "$asan/fuzz/$target" -runs=0 -timeout=60 -artifact_prefix="$dir/artifacts/" "$dir/corpus" \
    > "$dir/replay.log" 2>&1 || echo "$target: sanitizer finding, see $dir/replay.log" >&2
  local seconds_run
  seconds_run="$(cat "$dir"/fuzz-*.log | grep -o 'Done [0-9]* runs in [0-9]* second' | awk '{s += $5} END {print s + 0}')"
  printf '%s: %s executions in %s s, %s artifacts\n' "$target" "$(executions "$dir")" "$seconds_run" \
    "$(ls "$dir/artifacts" | wc -l)"
}
export -f run_target
export work root runs seconds fast asan
export -f executions
printf '%s\n' "${targets[@]}" | xargs -P "$jobs" -I{} bash -c 'run_target {}'
