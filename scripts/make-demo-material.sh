#!/usr/bin/env bash
# Synthesises five short items into DIR: speech and tones, at 44.1 and 48 kHz, mono and stereo, the last one an MP3.
#
#   scripts/make-demo-material.sh DIR
set -euo pipefail
[ $# -eq 1 ] || { sed -n '2,4s/^# \{0,1\}//p' "$0" >&2; exit 2; }
mkdir -p "$1"
cd "$1"

# A tone's fade at both ends keeps the change of files from clicking; -D: no dither, so the files are the same each time.
speak() { espeak-ng -v "$1" -s 150 -w speech.tmp.wav "$2"; }
form() { sox -D "$1" -b 16 -e signed-integer -r "$2" -c "$3" "$4" gain -n -6; }

speak en-gb "This is the audio player, on air. You are listening to a mono file at forty-four point one kilohertz."
form speech.tmp.wav 44100 1 "1-speech-44100-mono.wav"
sox -D -n -r 48000 -b 16 -c 2 "2-tone-48000-stereo.wav" synth 5 sine 440 sine 660 fade t 0.02 0 0.02 gain -12
speak en-us "And this is a stereo file at forty-eight kilohertz. The playlist goes round for ever."
form speech.tmp.wav 48000 2 "3-speech-48000-stereo.wav"
sox -D -n -r 44100 -b 16 -c 1 "4-tone-44100-mono.wav" synth 5 sine 1000 fade t 0.02 0 0.02 gain -12
speak en-gb "The last item is an MP3 file."
form speech.tmp.wav 44100 2 speech-44100.tmp.wav
lame --quiet -b 128 speech-44100.tmp.wav "5-speech-44100-stereo.mp3"
rm -f -- *.tmp.wav
ls -- *.wav *.mp3
