#!/usr/bin/env bash
# Puts AudioPlayer on air with one command, with or without a sound card.
#
#   scripts/on-air.sh [--virtual] [--seconds N] [--record FILE.wav] [--port N] [FILE|DIR... | --stream URL | --livewire N]
#
#   FILE|DIR        what to play, WAV and MP3 files; without any, demo material is synthesised
#   --stream URL    play an internet stream: http://... of its playlist or of itself
#   --livewire N    play Livewire destination N; where there is no Axia driver, a virtual card hears a tone, or FILE
#   --virtual       use the virtual card even where there is a sound card
#   --seconds N     stop after N seconds on air; without it, Ctrl-C stops
#   --record FILE   where the recording goes (virtual card only)
#   --port N        UDP port of the control socket (7004)
#
# It installs what is missing, builds, fills a library of its own, starts the daemon, sends the start
# datagram, shows what is on air, and at the end what was. Everything it makes lies in one folder, which it names.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)

usage() { sed -n '2,16s/^# \{0,1\}//p' "$root/scripts/on-air.sh"; }

virtual=auto seconds=0 record='' port=7004 sources=() stream='' livewire=0
while [ $# -gt 0 ]; do
  case "$1" in
    --virtual) virtual=yes ;;
    --seconds) seconds=${2:?--seconds needs a number}; shift ;;
    --record) record=${2:?--record needs a file}; shift ;;
    --port) port=${2:?--port needs a number}; shift ;;
    --stream) stream=${2:?--stream needs a URL}; shift ;;
    --livewire)
      livewire=${2:?--livewire needs a number}
      shift
      [[ $livewire =~ ^[1-9][0-9]{0,4}$ ]] || { echo "--livewire needs a number from 1" >&2; exit 2; } ;;
    -h | --help) usage; exit 0 ;;
    -*) usage >&2; exit 2 ;;
    *) [ -e "$1" ] || { echo "There is no $1" >&2; exit 2; }
       sources+=("$(realpath "$1")") ;;
  esac
  shift
done
if [ -n "$stream" ] && { [ "$livewire" != 0 ] || [ ${#sources[@]} -gt 0 ]; }; then
  echo "--stream plays a stream and nothing else." >&2
  exit 2
fi
[ -z "$record" ] || record=$(realpath -m "$record")

"$root/scripts/install-dependencies.sh" run
echo "Building..."
cd "$root"
cmake --preset run >/dev/null
cmake --build --preset run -- --quiet
build=$root/build/run
ctl=$build/tools/audioplayerctl/audioplayerctl

station=$(mktemp -d "${TMPDIR:-/tmp}/audioplayer-on-air.XXXXXX")
mkdir -p "$station/server" "$station/audioplayerdatabase"
cp "$build/data/FilterCoeff.bin" "$station/server/"
database=$station/audioplayerdatabase/audioDatabase.db
log=$station/daemon.log

# --- the library ---
started='StreamPlayer::start$' # what the daemon logs once the source is on air
if [ -n "$stream" ]; then
  "$ctl" stream probe "$stream" || exit 1
  "$ctl" --db "$database" stream add "On air" "$stream" >/dev/null 2>&1
elif [ "$livewire" != 0 ]; then
  "$ctl" --db "$database" stream add "On air" --livewire "$livewire" >/dev/null 2>&1
else
  started='Active chain started$'
  if [ ${#sources[@]} -eq 0 ]; then
    echo "Synthesising demo material..."
    "$root/scripts/make-demo-material.sh" "$station/demo" >/dev/null
    sources=("$station/demo")
  fi
  files=()
  while IFS= read -r -d '' file; do files+=("$file"); done < <(find "${sources[@]}" -type f \( -iname '*.wav' -o -iname '*.mp3' \) -print0 | sort -z)
  [ ${#files[@]} -gt 0 ] || { echo "No WAV or MP3 files among: ${sources[*]}" >&2; exit 1; }
  "$ctl" --db "$database" upload "On air" "${files[@]}"
fi

# --- the card ---
if [ "$virtual" = auto ]; then
  virtual=yes
  if [ -z "${ALSA_CONFIG_PATH:-}" ] && aplay -l 2>/dev/null | grep -q '^card 0:'; then virtual=no; fi
fi
launcher=()
card_run=''
if [ "$livewire" != 0 ] && [ "$virtual" = no ] && ! grep -qs Axia /proc/asound/cards; then
  echo "There is no Axia driver here: the virtual cards are used."
  virtual=yes
fi
if [ "$virtual" = yes ]; then
  record=${record:-$station/on-air.wav}
  if [ -w /dev/shm ]; then card_run=$(mktemp -d /dev/shm/audioplayer-card.XXXXXX); else card_run=$station/card; fi
  launcher=("$root/scripts/with-virtual-card.sh" -d "$card_run" -b "$build")
  if [ "$livewire" != 0 ]; then
    [ "$livewire" -le 8 ] || export VCARD_AXIA_CARDS=$livewire
    mkdir -p "$card_run/source"
    [ ${#sources[@]} -eq 0 ] || cp "${sources[0]}" "$card_run/source/Axia-$((livewire - 1)).wav"
  fi
  echo "Playing to the virtual sound card, which records."
elif [ -n "$record" ]; then
  echo "A real card can't be recorded from here: --record needs --virtual." >&2
  exit 2
fi

# --- on air ---
daemon=0
finish() {
  trap - EXIT INT TERM
  echo
  if [ "$daemon" != 0 ]; then
    "$ctl" --port "$port" stop >/dev/null 2>&1 || true
    wait_for 2 grep -q 'Stopping ALSA Device' "$station/daemon.out" || true
    kill "$daemon" 2>/dev/null || true
    wait "$daemon" 2>/dev/null || true
  fi
  if [ "$daemon" != 0 ]; then
    echo "The as-played log:"
    "$ctl" --db "$database" as-played || true
  fi
  if [ -n "$card_run" ]; then
    first=$(find "$card_run/record" -name '*.wav' 2>/dev/null | sort | head -n 1)
    if [ -n "$first" ]; then
      mkdir -p "$(dirname "$record")"
      mv "$first" "$record"
      /usr/bin/python3 "$root/tools/virtualCard/measureRecording.py" "$record" || true
      echo "The recording: $record"
    fi
    cp "$card_run/log" "$station/card.log" 2>/dev/null || true
    case $card_run in /dev/shm/*) rm -rf "$card_run" ;; esac
  fi
  echo "Library, logs and demo material: $station"
}
wait_for() { # seconds, command...: polls until the command succeeds
  local tries=$(($1 * 20))
  shift
  while ! "$@"; do
    tries=$((tries - 1))
    [ "$tries" -gt 0 ] || return 1
    sleep 0.05
  done
}
control_port_open() { grep -q ":$(printf %04X "$port") " /proc/net/udp; }
daemon_alive() { kill -0 "$daemon" 2>/dev/null; }

if control_port_open; then
  echo "UDP port $port is taken: another AudioPlayer runs? Stop it, or use --port." >&2
  exit 1
fi
trap finish EXIT
trap 'exit 0' INT TERM
# A session of its own: Ctrl-C is for this script, which then ends the daemon.
cd "$station/server"
setsid "${launcher[@]}" "$build/src/AudioPlayer" -p "$port" </dev/null >"$station/daemon.out" 2>"$log" &
daemon=$!
cd "$root"
wait_for 10 control_port_open || { echo "The daemon did not come up:" >&2; cat "$log" >&2; exit 1; }
"$ctl" --db "$database" --port "$port" start "On air" >/dev/null 2>&1
wait_for 30 grep -q "$started" "$log" || { echo "Nothing went on air:" >&2; cat "$log" >&2; exit 1; }
echo "On air since $(date +%T).$([ "$seconds" != 0 ] || echo ' Ctrl-C stops.')"

show_card() {
  if [ -n "$card_run" ]; then
    "$root/tools/virtualCard/virtualCardCtl" --cards "$card_run/cards" watch --count 1 2>/dev/null || true
  else
    awk '/^hw_ptr/ {printf "%.1f s on the card", $3 / 48000}' /proc/asound/card0/pcm0p/sub0/status 2>/dev/null || true
    printf '   underruns %s' "$(grep -c 'Buffer Underrun' "$station/daemon.out" || true)"
  fi
}
# One line that is written over on a terminal, a line a second elsewhere.
if [ -t 1 ]; then clear=$'\r\033[K' end=''; else clear='' end=$'\n'; fi
began=$SECONDS playing=''
while daemon_alive && { [ "$seconds" = 0 ] || [ $((SECONDS - began)) -lt "$seconds" ]; }; do
  now=$(grep -aoP 'WavFilePlayer: \K.*|Mp3FilePlayer: \K.*' "$log" | tail -n 1 || true)
  if [ "$now" != "$playing" ]; then
    playing=$now
    printf '%sNext into the ring: %s\n' "$clear" "$playing"
  fi
  printf '%s%s%s' "$clear" "$(show_card)" "$end"
  sleep 1 || true
done
daemon_alive || { echo "The daemon ended by itself:"; tail -n 5 "$log"; exit 1; }
