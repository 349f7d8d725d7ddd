#!/usr/bin/env bash
# Renders the single-feature glTF sample scenes with `vyxgl render` and tiles them, each labelled,
# into one picture (default docs/gltf-features.png), to compare at a glance with the references
# in each sample's screenshot/ folder.
#
#   scripts/contact-sheet.sh [--vyxgl PATH] [-o FILE]
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
vyxgl="$root/build-test-qt6/apps/vyxgl/vyxgl"
output="$root/docs/gltf-features.png"
while (($#)); do
  case "$1" in
    --vyxgl) vyxgl="$2"; shift 2 ;;
    -o) output="$2"; shift 2 ;;
    -h | --help) sed -n '2,6p' "$0"; exit 0 ;;
    *) echo "contact-sheet: unknown argument $1" >&2; exit 2 ;;
  esac
done
[ -x "$vyxgl" ] || { echo "contact-sheet: no vyxgl at $vyxgl (build the vyxgl target, or pass --vyxgl)" >&2; exit 2; }
command -v montage > /dev/null || bash "$root/scripts/setup.sh"

samples="$(realpath -m "$root/../shared/testdata/gltf")"
scenes=(
  AlphaBlendModeTest/glTF-Binary/AlphaBlendModeTest.glb
  TextureSettingsTest/glTF-Binary/TextureSettingsTest.glb
  TextureCoordinateTest/glTF-Binary/TextureCoordinateTest.glb
  TextureTransformTest/glTF/TextureTransformTest.gltf
  MultiUVTest/glTF-Binary/MultiUVTest.glb
  VertexColorTest/glTF-Binary/VertexColorTest.glb
  NormalTangentMirrorTest/glTF-Binary/NormalTangentMirrorTest.glb
  NegativeScaleTest/glTF-Binary/NegativeScaleTest.glb
  OrientationTest/glTF-Binary/OrientationTest.glb
  MeshPrimitiveModes/glTF/MeshPrimitiveModes.gltf
  SimpleSparseAccessor/glTF/SimpleSparseAccessor.gltf
  SimpleInstancing/glTF-Binary/SimpleInstancing.glb
  Duck/glTF-Quantized/Duck.gltf
  UnlitTest/glTF-Binary/UnlitTest.glb
  EmissiveStrengthTest/glTF-Binary/EmissiveStrengthTest.glb
  MultipleScenes/glTF/MultipleScenes.gltf
  Cameras/glTF/Cameras.gltf
)
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
tiles=()
for scene in "${scenes[@]}"; do
  name="${scene%%/*}"
  [[ "$scene" == *Quantized* ]] && name="$name (quantized)"
  tile="$work/${#tiles[@]}.png"
  "$vyxgl" render "$samples/$scene" --size 400x300 -o "$tile" > /dev/null
  tiles+=(-label "$name" "$tile")
done
# ImageMagick's default font may not be installed; DejaVu comes with most Debian systems.
font=()
dejavu=/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf
[ -f "$dejavu" ] && font=(-font "$dejavu")
montage "${tiles[@]}" -tile 6x -geometry 400x300+4+4 "${font[@]}" -pointsize 18 -background white "$output"
echo "$output"
