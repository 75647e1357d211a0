#!/usr/bin/env bash
# Draws the measured response of a filter table with gnuplot: pass band, transition and stop band.
#
#   tools/filterDesign/plotResponse.sh FILTERDESIGN [TABLE [PNG]]   (data/FilterCoeff.bin, docs/filter-response.png)
#
# FILTERDESIGN is the built program, which evaluates the table.
set -euo pipefail
[ $# -ge 1 ] || { sed -n '2,6s/^# \{0,1\}//p' "$0" >&2; exit 2; }
here=$(cd "$(dirname "$0")/../.." && pwd)
table=${2:-$here/data/FilterCoeff.bin}
image=${3:-$here/docs/filter-response.png}
response=$(mktemp)
trap 'rm -f "$response"' EXIT
"$1" --response "$table" >"$response"
gnuplot <<PLOT
set terminal pngcairo size 1100,800 font "sans,11"
set output "$image"
set multiplot layout 2,1
set grid
set key off
set xlabel "frequency at 44.1 kHz input, kHz"
set ylabel "dB"
set title "Rate converter filter: whole response"
set xrange [0:88.2]
set yrange [-130:5]
plot "$response" using (\$1/1000):2 with lines lw 1.5
set title "Pass band and transition"
set xrange [0:24]
set yrange [-3:0.1]
plot "$response" using (\$1/1000):2 with lines lw 1.5
unset multiplot
PLOT
