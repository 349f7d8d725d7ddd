#!/usr/bin/env bash
# Sets up, builds, and runs the vyxgl tool on its defaults.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
bash "$root/scripts/setup.sh"
build="$root/build"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVYXGL_BUILD_TESTS=OFF -DVYXGL_BUILD_BENCHMARKS=OFF
cmake --build "$build" --target vyxgl -j"$(nproc)"
"$build/apps/vyxgl/vyxgl" "$@"
