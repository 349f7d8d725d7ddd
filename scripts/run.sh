#!/usr/bin/env bash
# Sets up, builds, and runs the vyxgl tool on its defaults (render the demo scene to a PNG and
# print its path); any arguments go to vyxgl instead.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
bash "$root/scripts/setup.sh"
source "$root/scripts/cmake-cache.sh"
build="$root/build"
cmake -S "$root" -B "$build" "${compiler_cache[@]}" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVYXGL_BUILD_TESTS=OFF -DVYXGL_BUILD_BENCHMARKS=OFF
cmake --build "$build" --target vyxgl -j"$(nproc)"
# Without arguments: the built-in demo, written next to the checkout.
if (($# == 0)); then
  set -- render -o "$root/vyxgl-render.png"
fi
"$build/apps/vyxgl/vyxgl" "$@"
