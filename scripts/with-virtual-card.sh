#!/bin/sh
# Runs a command with virtual sound cards in the place of "plughw:0,0" and "hw:Axia,N".
#
#   scripts/with-virtual-card.sh [-d DIR] [-b BUILD] [-n] COMMAND [ARGUMENT ...]
#
#   -d DIR    where the run keeps its cards, recordings and log; default: a new directory below /dev/shm or /tmp
#   -b BUILD  build tree with the module; default: $AUDIOPLAYER_BUILD, else build/release
#   -n        no recording
#
# Sourced with VCARD_RUN_DIR set it only sets the environment, for the shell's own later commands. Everything else
# that tools/virtualCard/README.md lists (VCARD_PPM, VCARD_FAULTS, ...) passes through as it is.
#
#   DIR/cards/0-0-playback      the card's file: its lock and control page (virtualCardCtl reads and writes it)
#   DIR/record/0-0-0001.wav     what went to air, one file for each open
#   DIR/source/Axia-0.wav       what "hw:Axia,0" hears, if put there; a tone otherwise
#   DIR/log                     what happened, with monotonic time
#
# VCARD_AXIA_CARDS (default 8) says how many Axia cards there are, VCARD_PLAYBACK_CARDS (default 1) how many cards
# to play to: 0 means no sound card.

vcard_absolute() { case $1 in /*) printf '%s\n' "$1" ;; *) printf '%s/%s\n' "$PWD" "$1" ;; esac; }

vcard_new_run_dir() {
    vcard_parent=${TMPDIR:-/tmp}
    [ -d /dev/shm ] && [ -w /dev/shm ] && vcard_parent=/dev/shm # recordings are written by a real-time thread
    mktemp -d "$vcard_parent/virtualCard.XXXXXX"
}

vcard_make_cards() {
    mkdir -p "$VCARD_RUN_DIR/cards" "$VCARD_RUN_DIR/record" "$VCARD_RUN_DIR/source" || return 1
    vcard_number=0
    while [ "$vcard_number" -lt "${VCARD_PLAYBACK_CARDS:-1}" ]; do
        : >>"$VCARD_RUN_DIR/cards/$vcard_number-0-playback" || return 1
        vcard_number=$((vcard_number + 1))
    done
    vcard_number=0
    while [ "$vcard_number" -lt "${VCARD_AXIA_CARDS:-8}" ]; do
        : >>"$VCARD_RUN_DIR/cards/Axia-$vcard_number-capture" || return 1
        vcard_number=$((vcard_number + 1))
    done
}

vcard_environment() {
    VCARD_RUN_DIR=$(vcard_absolute "$VCARD_RUN_DIR")
    VCARD_MODULE_DIR=$(vcard_absolute "$vcard_build")/tools/virtualCard
    ALSA_CONFIG_PATH=$VCARD_MODULE_DIR/virtualCard.conf
    if [ ! -r "$ALSA_CONFIG_PATH" ] || [ ! -r "$VCARD_MODULE_DIR/libasound_module_pcm_vcard.so" ]; then
        echo "with-virtual-card.sh: no virtual card in $VCARD_MODULE_DIR: build it first" >&2
        return 1
    fi
    VCARD_CARDS=${VCARD_CARDS:-$VCARD_RUN_DIR/cards}
    VCARD_LOG=${VCARD_LOG:-$VCARD_RUN_DIR/log}
    VCARD_SOURCE=${VCARD_SOURCE:-$VCARD_RUN_DIR/source}
    [ -n "$vcard_no_record" ] || VCARD_RECORD=${VCARD_RECORD:-$VCARD_RUN_DIR/record}
    export VCARD_RUN_DIR VCARD_MODULE_DIR ALSA_CONFIG_PATH VCARD_CARDS VCARD_LOG VCARD_SOURCE VCARD_RECORD
    vcard_make_cards
}

vcard_no_record=
vcard_build=${AUDIOPLAYER_BUILD:-build/release}

case ${0##*/} in
with-virtual-card.sh) ;;
*) # sourced
    vcard_environment
    return
    ;;
esac

if [ -z "$AUDIOPLAYER_BUILD" ]; then
    vcard_build=$(dirname "$0")/../build/release
fi
while getopts d:b:n vcard_option; do
    case $vcard_option in
    d) VCARD_RUN_DIR=$OPTARG ;;
    b) vcard_build=$OPTARG ;;
    n) vcard_no_record=1 ;;
    *) exit 2 ;;
    esac
done
shift $((OPTIND - 1))
if [ $# -eq 0 ]; then
    echo "usage: with-virtual-card.sh [-d DIR] [-b BUILD] [-n] COMMAND [ARGUMENT ...]" >&2
    exit 2
fi
if [ -z "$VCARD_RUN_DIR" ]; then
    VCARD_RUN_DIR=$(vcard_new_run_dir) || exit 1
    echo "with-virtual-card.sh: run directory $VCARD_RUN_DIR" >&2
fi
vcard_environment || exit 1
exec "$@"
