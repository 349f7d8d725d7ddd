#!/usr/bin/env bash
# Renders every glTF sample scene with `vyxgl render` and prints one verdict a file:
#   ok (coverage) | blank | failed (exit N) | crashed (signal N) | timeout
# followed by the first line vyxgl wrote to standard error, if any. A picture is blank when no
# pixel differs from the sky alone (vyxgl's --report-coverage). Exits 1 when a scene crashed,
# timed out, raised a GL error or came out blank without a message.
#
#   scripts/render-all.sh [--vyxgl PATH] [--out DIR] [--timeout SECONDS] [--size WxH] [FOLDER...]
set -uo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
vyxgl="$root/build-test-qt6/apps/vyxgl/vyxgl"
out="$root/build-render-all"
limit=120
size=320x180
folders=()
while (($#)); do
  case "$1" in
    --vyxgl) vyxgl="$2"; shift 2 ;;
    --out) out="$2"; shift 2 ;;
    --timeout) limit="$2"; shift 2 ;;
    --size) size="$2"; shift 2 ;;
    -h | --help) sed -n '2,8p' "$0"; exit 0 ;;
    -*) echo "render-all: unknown option $1" >&2; exit 2 ;;
    *) folders+=("$1"); shift ;;
  esac
done
((${#folders[@]})) || folders=("$(realpath -m "$root/../shared/testdata/gltf")" /usr/share/assimp/models/glTF2)
if [ ! -x "$vyxgl" ]; then
  echo "render-all: no vyxgl at $vyxgl (build the vyxgl target, or pass --vyxgl)" >&2
  exit 2
fi
mkdir -p "$out"

total=0 bad=0
declare -A counts=()
while IFS= read -r -d '' scene; do
  total=$((total + 1))
  name="$(realpath --relative-to=/ "$scene" | tr '/' '_')"
  png="$out/${name%.*}.png"
  status=0
  timeout -k 10 "$limit" "$vyxgl" render "$scene" --size "$size" --samples 1 --report-coverage -o "$png" \
    > "$out/$name.out" 2> "$out/$name.err" < /dev/null || status=$?
  message="$(grep -v '^$' "$out/$name.err" | head -n 1)"
  covered="$(sed -n 's/^coverage: \([0-9]*\) of \([0-9]*\) pixels$/\1 \2/p' "$out/$name.out")"
  if ((status == 124)); then
    verdict="timeout"
  elif ((status > 128)); then
    verdict="crashed (signal $((status - 128)))"
  elif ((status != 0)); then
    verdict="failed (exit $status)"
  elif [ -z "$covered" ]; then
    verdict="failed (no coverage reported)"
  elif [ "${covered% *}" = 0 ]; then
    verdict="blank"
  else
    verdict="ok ($(awk -v c="$covered" 'BEGIN { split(c, n, " "); printf "%.1f%%", 100 * n[1] / n[2] }'))"
  fi
  kind="${verdict%% *}"
  counts[$kind]=$((${counts[$kind]:-0} + 1))
  # The goal: nothing crashes or hangs, no GL error, and a blank picture always says why.
  if [[ "$kind" == crashed || "$kind" == timeout ]] || grep -q 'GL error' "$out/$name.err" ||
    [[ "$kind" == blank && -z "$message" ]]; then
    bad=$((bad + 1))
    verdict="$verdict !!"
  fi
  printf '%-34s %s%s\n' "$verdict" "$scene" "${message:+  | $message}"
done < <(find -L "${folders[@]}" -type f \( -iname '*.gltf' -o -iname '*.glb' \) -print0 | sort -z)

summary="$total scenes:"
for kind in ok blank failed crashed timeout; do
  summary+=" ${counts[$kind]:-0} $kind,"
done
echo "${summary%,}; $bad against the goal (marked !!)"
((bad == 0))
