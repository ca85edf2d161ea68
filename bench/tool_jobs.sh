#!/usr/bin/env bash
# Converts a folder of 64 generated textures (PNG to TIFF) with the imagery tool, one file at a time
# (--jobs 1) and two at a time (--jobs 2), and reports the time of each and their ratio. Each setting
# runs three times, alternating, and keeps its fastest run, so that other work on the machine weighs less.
#   bench/tool_jobs.sh [path/to/imagery] [texture size]
set -euo pipefail
tool=${1:-build-bench/tools/imagery}
size=${2:-1024}
if [ ! -x "$tool" ]; then
  echo "tool_jobs: no imagery tool at $tool (build it first, or give its path)" >&2
  exit 2
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

"$tool" samples "$work/in" --count 64 --size "$size" --quiet
declare -A best=()
for round in 1 2 3; do
  for jobs in 1 2; do
    rm -rf "$work/out"
    start=$(date +%s.%N)
    "$tool" convert "$work"/in/*.png -o "$work/out" --ext tif --jobs "$jobs" --quiet
    seconds=$(awk -v a="$start" -v b="$(date +%s.%N)" 'BEGIN { print b - a }')
    if [ -z "${best[$jobs]:-}" ] || awk -v s="$seconds" -v b="${best[$jobs]}" 'BEGIN { exit !(s < b) }'; then
      best[$jobs]=$seconds
    fi
  done
  [ "$(ls "$work/out" | wc -l)" -eq 64 ] || { echo "tool_jobs: expected 64 outputs" >&2; exit 1; }
done
printf 'imagery convert, 64 textures of %d x %d, PNG to TIFF, on %d processors\n' "$size" "$size" "$(nproc)"
printf '  --jobs 1   %7.3f s\n' "${best[1]}"
printf '  --jobs 2   %7.3f s   (%.2fx faster than --jobs 1)\n' "${best[2]}" "$(awk -v a="${best[1]}" -v b="${best[2]}" 'BEGIN { print a / b }')"
