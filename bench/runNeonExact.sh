#!/usr/bin/env bash
# Proves the NEON form of the rate converter under qemu: cross-compiles the proof for 32-bit ARM and runs it.
#
#   bench/runNeonExact.sh [FRAMES [SEED]]      (500000 frames for each form; a million take about a minute)
#
# Needs g++-arm-linux-gnueabihf and qemu-user-static (scripts/install-dependencies.sh arm), and no library but libc.
set -euo pipefail
cd "$(dirname "$0")/.."
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
arm-linux-gnueabihf-g++ -std=c++20 -O2 -march=armv7-a -mfpu=neon -static -Wall -Wextra -Wconversion -Wshadow \
  -Isrc -Ibench src/audioLibrary/asyncSampleRateConverter/*.cpp \
  bench/asrcLiteral.cpp bench/asrcExactness.cpp bench/proveAsrc.cpp -o "$work/prove_asrc"
qemu-arm-static "$work/prove_asrc" "${1:-500000}" "${2:-1}" >/dev/null
