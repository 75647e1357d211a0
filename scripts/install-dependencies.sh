#!/usr/bin/env bash
# Installs what building, testing and running AudioPlayer needs on Debian 12.
# This is the one place that lists the project's dependencies.
#
#   scripts/install-dependencies.sh [run|test|bench|arm|fuzz]...   (default: run test)
#
# Packages that are already there are left alone; without any missing, no
# network and no root are needed.
set -euo pipefail

run_packages=(
  g++ cmake ninja-build ccache          # build
  libasound2-dev libsqlite3-dev libmpg123-dev libtinyxml-dev
  libcli11-dev nlohmann-json3-dev       # audioplayerctl
  alsa-utils sox espeak-ng lame         # card look-up, demo material
  python3 python3-numpy                 # recording analysis
)
test_packages=(libgtest-dev libgmock-dev libmp3lame-dev lame python3-pytest python3-pytest-xdist iproute2 util-linux sqlite3 shellcheck systemd
  icecast2 apache2-bin nginx-light lighttpd)  # servers of the stream tests
bench_packages=(libbenchmark-dev libsamplerate0-dev libspeexdsp-dev libsoxr-dev libzita-resampler-dev gnuplot-nox)
arm_packages=(g++-arm-linux-gnueabihf qemu-user-static)
fuzz_packages=(clang-14 libclang-rt-14-dev llvm-14)

wanted=()
[ $# -gt 0 ] || set -- run test
for group in "$@"; do
  case "$group" in
    run)   wanted+=("${run_packages[@]}") ;;
    test)  wanted+=("${test_packages[@]}" "${bench_packages[@]}") ;;
    bench) wanted+=("${bench_packages[@]}") ;;
    arm)   wanted+=("${arm_packages[@]}") ;;
    fuzz)  wanted+=("${fuzz_packages[@]}") ;;
    *) echo "usage: $0 [run|test|bench|arm|fuzz]..." >&2; exit 2 ;;
  esac
done

missing=()
for package in "${wanted[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$package" 2>/dev/null || true)
  [ "$status" = "install ok installed" ] || missing+=("$package")
done
[ ${#missing[@]} -gt 0 ] || exit 0

as_root=()
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || { echo "Missing packages, and no root to install them: ${missing[*]}" >&2; exit 1; }
  as_root=(sudo)
fi
echo "Installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
# The servers among them are run by the tests, in namespaces; none is to begin work as a service of this machine.
policy=/usr/sbin/policy-rc.d
if [ ! -e "$policy" ]; then
  printf '#!/bin/sh\nexit 101\n' | "${as_root[@]}" tee "$policy" >/dev/null
  "${as_root[@]}" chmod +x "$policy"
  trap '"${as_root[@]}" rm -f "$policy"' EXIT
fi
"${as_root[@]}" apt-get update -qq
"${as_root[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
