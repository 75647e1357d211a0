#!/usr/bin/env bash
# Unpacks the target's libraries for the arm32 preset into build/arm-sysroot, without adding the
# architecture to this machine's package manager.
#
#   scripts/arm-sysroot.sh
#
# A private package state is used, and the main archive's list alone, because the security archive's
# armhf packages seldom match the machine's own versions.
set -euo pipefail
cd "$(dirname "$0")/.."
sysroot=$PWD/build/arm-sysroot
state=$(mktemp -d)
trap 'rm -rf "$state"' EXIT
mkdir -p "$sysroot" "$state"/{lists/partial,cache/archives/partial,debs}
: >"$state/status"
mirror=$(apt-cache policy libc6 | grep -oE 'https?://[^ ]+' | grep -v security | head -n 1)
echo "deb [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] $mirror bookworm main" >"$state/sources.list"
apt_private=(-o APT::Architecture=armhf -o APT::Architectures=armhf -o "Dir::State::Lists=$state/lists"
  -o "Dir::State::status=$state/status" -o "Dir::Cache=$state/cache" -o "Dir::Etc::sourcelist=$state/sources.list"
  -o Dir::Etc::sourceparts=/dev/null)
apt-get "${apt_private[@]}" update -qq
packages=(libasound2 libasound2-dev libsqlite3-0 libsqlite3-dev libmpg123-0 libmpg123-dev
  libtinyxml2.6.2v5 libtinyxml-dev libmp3lame0 libmp3lame-dev libgtest-dev libgmock-dev
  libcli11-dev nlohmann-json3-dev)
cd "$state/debs"
apt-get "${apt_private[@]}" download -qq "${packages[@]}"
for package in *.deb; do dpkg -x "$package" "$sysroot"; done
echo "$sysroot"
