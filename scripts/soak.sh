#!/usr/bin/env bash
# Ten minutes on air on the virtual card with the other core kept busy; no underrun is allowed.
#
#   scripts/soak.sh [--minutes N]      (10)
#
# Prints what was measured; the exit status is 0 only without an underrun.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
minutes=10
[ "${1:-}" != --minutes ] || minutes=${2:?--minutes needs a number}

hogs=()
for _ in $(seq 2 "$(nproc)"); do sh -c 'while :; do :; done' & hogs+=($!); done
trap 'kill "${hogs[@]}" 2>/dev/null || true; rm -rf "$scratch"' EXIT
scratch=$(mktemp -d)

"$root/scripts/on-air.sh" --virtual --seconds $((minutes * 60)) --record "$scratch/soak.wav" >"$scratch/said"
tail -n 25 "$scratch/said"
underruns=$(grep -oE 'underruns [0-9]+' "$scratch/said" | tail -n 1)
echo "After $minutes minutes: $underruns"
[ "$underruns" = "underruns 0" ]
