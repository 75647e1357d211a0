#!/usr/bin/env bash
# Searches for inputs that harm: builds the fuzz targets with clang and lets each run for a while on one core.
#
#   scripts/fuzz.sh [SECONDS] [TARGET...]     (default: 60 seconds, every target; 0 seconds: the saved inputs only)
#   scripts/fuzz.sh --merge [TARGET...]       adds to the saved inputs those that reach more code than they do
#
# Targets: the names in tests/fuzz without "Fuzz.cpp", for example automation. What a run learns stays in
# build/fuzz/found/TARGET and is where the next run goes on; inputs that harm are left in build/fuzz/harmful/TARGET.
# One line for each target; the exit status is 0 only if none found anything.
set -euo pipefail
cd "$(dirname "$0")/.."

longest_input_seconds=10
memory_mb=2048
checksum_name='.*/[0-9a-f]+' # as libFuzzer names what it finds

merge=no seconds=60
case "${1-}" in
  -h | --help) sed -n '2,10s/^# \{0,1\}//p' "$0"; exit 0 ;;
  --merge) merge=yes; shift ;;
  [0-9]*) seconds=$1; shift ;;
esac
[[ $seconds =~ ^[0-9]+$ ]] || { echo "$0: $seconds is no number of seconds" >&2; exit 2; }
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  for source in tests/fuzz/*Fuzz.cpp; do
    name=$(basename "$source" Fuzz.cpp)
    targets+=("$name")
  done
fi
for target in "${targets[@]}"; do
  [ -f "tests/fuzz/${target}Fuzz.cpp" ] || { echo "$0: no target $target in tests/fuzz" >&2; exit 2; }
done

scripts/install-dependencies.sh run fuzz

root=$PWD
build=$root/build/fuzz
mkdir -p "$build"
cmake --preset fuzz >"$build/configure.log" || { cat "$build/configure.log"; exit 1; }
cmake --build --preset fuzz -j "$(nproc)" --target "${targets[@]/%/Fuzz}" -- --quiet

run() { # target libfuzzer-argument... ; the daemon's own output is of no use here
  local target=$1 options
  shift
  mapfile -t options <"$build/tests/fuzz/${target}Fuzz.options"
  "$build/tests/fuzz/${target}Fuzz" "${options[@]}" -timeout=$longest_input_seconds -rss_limit_mb=$memory_mb \
    -close_fd_mask=3 "$@" </dev/null
}

search() { # target
  local target=$1 log=$build/$1.log
  local found=$build/found/$target harmful=$build/harmful/$target saved=$root/tests/fuzz/corpus/$target
  local limit=(-max_total_time="$seconds")
  [ "$seconds" -gt 0 ] || limit=(-runs=0)
  mkdir -p "$found" "$harmful"
  if run "$target" "${limit[@]}" -print_final_stats=1 -artifact_prefix="$harmful/" "$found" "$saved" >"$log" 2>&1; then
    printf '%-12s nothing found in %s inputs, %s a second, code points %s\n' "$target" "$(stat_of "$log" number_of_executed_units)" \
      "$(stat_of "$log" average_exec_per_sec)" "$(grep -aoE 'cov: [0-9]+' "$log" | tail -n 1 | cut -c6-)"
    return 0
  fi
  printf '%-12s HARMFUL: %s\n' "$target" "$(grep -aoE 'Test unit written to .*' "$log" | tail -n 1 | cut -d' ' -f5-)"
  grep -aE 'SUMMARY|runtime error|broken:' "$log" | sed 's/^/             /' || true
  printf '             the whole report: %s\n' "$log"
  return 1
}

stat_of() { # log name
  sed -n "s/^stat::$2: *//p" "$1"
}

merge_into_saved() { # target; the shortest inputs that reach what the named ones do not
  local target=$1 saved=tests/fuzz/corpus/$1 all
  all=$(mktemp -d "$build/merge.XXXXXX")
  mkdir -p "$build/found/$target"
  # Inputs with names of their own stand for a limit or a mistake once made: they stay.
  find "$saved" -type f -not -regex "$checksum_name" -exec cp -t "$all" {} +
  run "$target" -merge=1 -use_counters=0 "$all" "$saved" "$build/found/$target" >"$build/$target.log" 2>&1
  find "$saved" -type f -regex "$checksum_name" -delete
  find "$all" -type f -regex "$checksum_name" -exec cp -t "$saved" {} +
  rm -r "$all"
  printf '%-12s %s inputs, %s\n' "$target" "$(find "$saved" -type f | wc -l)" \
    "$(du -sh --apparent-size "$saved" | cut -f1)"
}

failed=no
for target in "${targets[@]}"; do
  if [ "$merge" = yes ]; then
    merge_into_saved "$target"
  else
    search "$target" || failed=yes
  fi
done
[ "$failed" = no ]
