#!/usr/bin/env bash
# Sets up, builds and runs every test three times: in a normal build against Qt 5, in one against
# Qt 6, and in a Qt 5 build with AddressSanitizer and UndefinedBehaviorSanitizer. Each run covers
# the GL tests on a 4.5 core context and again on a reduced 3.2 core one.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
bash "$root/scripts/setup.sh"
jobs="$(nproc)"

run_suite() {
  local build="$1"; shift
  cmake -S "$root" -B "$build" "$@"
  cmake --build "$build" -j"$jobs"
  (cd "$build" && ctest --output-on-failure -j"$jobs" --timeout 600)
}

echo "== normal build, Qt 5 =="
run_suite "$root/build-test" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVYXGL_QT_MAJOR=5

echo "== normal build, Qt 6 =="
run_suite "$root/build-test-qt6" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVYXGL_QT_MAJOR=6

echo "== sanitizer build, Qt 5 =="
# Leaks inside the GL driver are the driver's; ours are not suppressed.
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=0:strict_string_checks=1:detect_stack_use_after_return=1"
export LSAN_OPTIONS="suppressions=$root/tests/lsan.supp:print_suppressions=0"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
run_suite "$root/build-asan" -DCMAKE_BUILD_TYPE=Debug -DVYXGL_SANITIZE=ON -DVYXGL_BUILD_BENCHMARKS=OFF -DVYXGL_QT_MAJOR=5
