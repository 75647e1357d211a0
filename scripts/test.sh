#!/usr/bin/env bash
# Installs what is missing, builds everything, runs all unit and system tests.
#
#   scripts/test.sh [--sanitize] [--unit-only]
#
#   --sanitize   also builds and runs the unit tests under AddressSanitizer and UndefinedBehaviorSanitizer
#   --unit-only  leaves the system tests (the real daemon on the virtual card) out
#
# The last line is "N passed, N failed"; the exit status is 0 only if nothing failed.
set -euo pipefail
cd "$(dirname "$0")/.."

sanitize=no system=yes
for option in "$@"; do
  case "$option" in
    --sanitize) sanitize=yes ;;
    --unit-only) system=no ;;
    *) sed -n '2,9s/^# \{0,1\}//p' "$0"; exit 2 ;;
  esac
done

scripts/install-dependencies.sh run test

results=$(mktemp -d)
trap 'rm -rf "$results"' EXIT
jobs=$(nproc)
failed=no

unit_tests() { # preset
  echo "== build: $1"
  cmake --preset "$1" >"$results/configure.log" || { cat "$results/configure.log"; exit 1; }
  cmake --build --preset "$1" -j "$jobs" -- --quiet
  echo "== unit tests: $1"
  ctest --preset "$1" -j "$jobs" --quiet --output-junit "$results/unit-$1.xml" --output-log "$results/unit-$1.log" ||
    { failed=yes; grep -aE -A40 '\*\*\*|\[  FAILED' "$results/unit-$1.log" | head -n 400; }
}

unit_tests release

if [ "$system" = yes ]; then
  echo "== system tests"
  # In memory where that is possible: a disk that stalls for half a second stalls what is on air.
  scratch=$results/system
  if [ -w /dev/shm ]; then scratch=$(mktemp -d /dev/shm/audioplayer-tests.XXXXXX); fi
  trap 'rm -rf "$results" "$scratch"' EXIT
  AUDIOPLAYER_BUILD=$PWD/build/release /usr/bin/python3 -B -m pytest -q -n "$((jobs * 2))" --dist loadfile \
    -p no:cacheprovider --basetemp "$scratch/tests" --junitxml "$results/system.xml" tests/system || failed=yes
fi

[ "$sanitize" = no ] || unit_tests asan

/usr/bin/python3 - "$failed" "$results"/*.xml <<'PY'
import sys
import xml.etree.ElementTree as tree

passed = failed = 0
for path in sys.argv[2:]:
    for case in tree.parse(path).getroot().iter("testcase"):
        broken = case.get("status") == "fail" or case.find("failure") is not None or case.find("error") is not None
        if broken:
            failed += 1
            print("failed:", case.get("classname"), case.get("name"))
        elif case.find("skipped") is None and case.get("status") != "notrun":
            passed += 1
if sys.argv[1] == "yes" and failed == 0:
    failed = 1
    print("failed: a test run ended with an error outside any test")
print(f"{passed} passed, {failed} failed")
sys.exit(1 if failed or not passed else 0)
PY
