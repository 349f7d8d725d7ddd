#!/usr/bin/env bash
# Renders one animation as a frame sequence with `vyxgl render --frames` and tiles the frames,
# each labelled with its time, into one picture (default: CesiumMan walking, eight frames over
# one stride, into docs/animation-sequence.png).
#
#   scripts/animation-sheet.sh [--vyxgl PATH] [--scene FILE] [--frames FIRST:LAST:FPS] [-o FILE]
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
vyxgl="$root/build-test-qt6/apps/vyxgl/vyxgl"
scene="$(realpath -m "$root/../shared/testdata/gltf/CesiumMan/glTF-Binary/CesiumMan.glb")"
frames="0:0.875:8"
output="$root/docs/animation-sequence.png"
while (($#)); do
  case "$1" in
    --vyxgl) vyxgl="$2"; shift 2 ;;
    --scene) scene="$2"; shift 2 ;;
    --frames) frames="$2"; shift 2 ;;
    -o) output="$2"; shift 2 ;;
    -h | --help) sed -n '2,6p' "$0"; exit 0 ;;
    *) echo "animation-sheet: unknown argument $1" >&2; exit 2 ;;
  esac
done
[ -x "$vyxgl" ] || { echo "animation-sheet: no vyxgl at $vyxgl (build the vyxgl target, or pass --vyxgl)" >&2; exit 2; }
command -v montage > /dev/null || bash "$root/scripts/setup.sh"

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
"$vyxgl" render "$scene" --animation 0 --frames "$frames" --size 240x320 --camera auto -o "$work/frame-%03d.png" > /dev/null
IFS=: read -r first _ rate <<< "$frames"
labelled=()
count=0
for picture in "$work"/frame-*.png; do
  n=$((10#$(basename "$picture" .png | sed 's/frame-//')))
  labelled+=(-label "$(awk -v f="$first" -v n="$n" -v r="$rate" 'BEGIN { printf "%.3f s", f + n / r }')" "$picture")
  count=$((count + 1))
done
# ImageMagick's default font may not be installed; DejaVu comes with most Debian systems.
font=()
dejavu=/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf
[ -f "$dejavu" ] && font=(-font "$dejavu")
montage "${labelled[@]}" -tile "${count}x1" -geometry +2+2 "${font[@]}" -pointsize 14 -background white "$output"
echo "$output"
