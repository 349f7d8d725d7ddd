#!/usr/bin/env bash
# Sets up, builds and runs every test three times: in a normal build against Qt 5, in one against
# Qt 6, and in a Qt 5 build with AddressSanitizer and UndefinedBehaviorSanitizer, then fuzzes every
# parser for a minute. Each run covers the GL tests on a 4.5 core context and again on a reduced
# 3.2 core one.
#
#   scripts/test.sh           everything, as CI runs it
#   scripts/test.sh --quick   the Qt 6 build and its whole suite only, for day-to-day work
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
quick=0
case "${1:-}" in
  --quick) quick=1 ;;
  "") ;;
  *) echo "usage: scripts/test.sh [--quick]" >&2; exit 2 ;;
esac
bash "$root/scripts/setup.sh"
source "$root/scripts/cmake-cache.sh"
jobs="$(nproc)"

run_suite() {
  local build="$1"; shift
  cmake -S "$root" -B "$build" "${compiler_cache[@]}" "$@"
  cmake --build "$build" -j"$jobs"
  (cd "$build" && ctest --output-on-failure -j"$jobs" --timeout 600)
}

if ((quick)); then
  echo "== normal build, Qt 6 =="
  run_suite "$root/build-test-qt6" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVYXGL_QT_MAJOR=6
  exit 0
fi

echo "== normal build, Qt 5 =="
run_suite "$root/build-test" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVYXGL_QT_MAJOR=5

echo "== normal build, Qt 6 =="
run_suite "$root/build-test-qt6" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVYXGL_QT_MAJOR=6

echo "== sanitizer build, Qt 5 =="
# Leaks inside the GL driver are the driver's; ours are not suppressed.
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=0:strict_string_checks=1:detect_stack_use_after_return=1"
# LeakSanitizer's scan of thread-local storage can crash its tracer at a test process's exit
# (seen with this glibc whenever the process layout shifts), so TLS is not scanned: that can only
# add reports (blocks held from TLS alone, suppressed by name), never hide one.
export LSAN_OPTIONS="suppressions=$root/tests/lsan.supp:print_suppressions=0:use_tls=0"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
run_suite "$root/build-asan" -DCMAKE_BUILD_TYPE=Debug -DVYXGL_SANITIZE=ON -DVYXGL_BUILD_BENCHMARKS=OFF -DVYXGL_QT_MAJOR=5

# ---- fuzzing: every fuzz target for a bounded time, from the committed corpus ----
# A finding fails the run; the reproducer is printed (base64) so it survives in the CI log.
run_fuzzers() {
  local build="$root/build-fuzz" seconds="${VYX_FUZZ_SECONDS:-60}" out="$root/build-fuzz/ci"
  local targets=(fuzz_ktx fuzz_ktx2 fuzz_ktx_roundtrip fuzz_hdr fuzz_astc fuzz_glsl fuzz_gltf)
  CXX=clang++ cmake -S "$root" -B "$build" "${compiler_cache[@]}" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVYXGL_BUILD_FUZZERS=ON \
    -DVYXGL_FUZZ_SANITIZE=ON -DVYXGL_BUILD_TESTS=OFF -DVYXGL_BUILD_APPS=OFF -DVYXGL_BUILD_BENCHMARKS=OFF
  cmake --build "$build" -j"$jobs" --target "${targets[@]}"
  rm -rf "$out"
  local target running=0 failed=0
  for target in "${targets[@]}"; do
    mkdir -p "$out/$target/corpus" "$out/$target/artifacts"
    cp "$root/fuzz/corpus/$target"/* "$out/$target/corpus/"
    cp "$root/fuzz/regressions/$target"/* "$out/$target/corpus/" 2> /dev/null || true
    local dict=()
    [ -f "$root/fuzz/dict/$target.dict" ] && dict=(-dict="$root/fuzz/dict/$target.dict")
    # The GL driver keeps allocations it never frees; the importer's own are checked by the tests.
    # Timeouts are wall-clock time, generous for a loaded machine; the outer limit catches a
    # fuzzer that deadlocks reporting one.
    local leaks=1
    [ "$target" = fuzz_gltf ] && leaks=0
    (
      status=0
      ASAN_OPTIONS="detect_leaks=$leaks:allocator_may_return_null=1" UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1" \
        timeout -s KILL $((seconds + 600)) \
        "$build/fuzz/$target" "$out/$target/corpus" "${dict[@]}" -max_total_time="$seconds" -timeout=120 \
        -rss_limit_mb=2048 -print_final_stats=1 -artifact_prefix="$out/$target/artifacts/" \
        > "$out/$target/log" 2>&1 || status=$?
      echo "$status" > "$out/$target/status"
    ) &
    running=$((running + 1))
    if [ "$running" -ge "$jobs" ]; then
      wait -n || true
      running=$((running - 1))
    fi
  done
  wait || true
  for target in "${targets[@]}"; do
    local executions
    executions="$(grep -h 'stat::number_of_executed_units' "$out/$target/log" | awk '{print $2}')"
    printf '%s: %s executions\n' "$target" "${executions:-no}"
    if [ "$(cat "$out/$target/status")" != 0 ]; then
      failed=1
      echo "== $target ended with status $(cat "$out/$target/status"); log tail:"
      tail -n 60 "$out/$target/log"
    fi
    local artifact
    # Slow units are only noted; crashes, leaks, timeouts and memory blow-ups fail.
    for artifact in "$out/$target/artifacts"/{crash,leak,timeout,oom}-*; do
      [ -e "$artifact" ] || continue
      failed=1
      echo "== $target reproducer $(basename "$artifact") (base64; decode and run: $target <file>):"
      base64 "$artifact"
    done
  done
  return "$failed"
}

echo "== fuzzing =="
run_fuzzers
