#!/usr/bin/python3
"""What a change of files costs on air, as a function of the length of the file that ends.

    bench/changeOfFile.py [--rate 48000] [--items wav,wav,wav] [--filter data/FilterCoeff.bin]

Uses the model that the system tests hold the daemon to, sample by sample (tests/system/playoutModel.py): a constant
signal is played, and the frames without it around the change are counted. The change is from the second of the three
items to the third; the first is what the third one's converter played before it, which is why it counts.
"""
import argparse
import pathlib
import sys
import tempfile

import numpy as np

ROOT = pathlib.Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "tests" / "system"))
import playoutModel  # noqa: E402
from station import wav_bytes  # noqa: E402

LEVEL = 8000
EXTRA_FRAMES = {  # beyond a multiple of the period
    "wav": (0, 20, 47, 48, 500, 1000, 2000, 4096, 6000, 7500, 7700, 7800, 7900, 8000, 8100, 8191),
    "mp3": (0, 1, 20, 100, 255, 500, 750, 1000, 1024, 1250, 1500, 1750, 1900, 2000, 2047),
}
PERIOD = {"wav": playoutModel.FILE_PERIOD, "mp3": playoutModel.MP3_PERIOD}


def source(kind, length, rate, directory):
    """A constant signal of `length` frames: as decoded for an MP3, which an encoder would only blur."""
    audio = np.full((length, 2), LEVEL, dtype="<i2")
    if kind == "mp3":
        return playoutModel.Mp3Source(decoded=(rate, 2, audio))
    path = pathlib.Path(directory) / "constant.wav"
    path.write_bytes(wav_bytes(audio, rate))
    return playoutModel.WavSource(path)


def change(kinds, lengths, rate, filter_path, directory, taken):
    """(frames of the ending item that are not heard, frames of silence until the next one is), at 48 kHz."""
    playout = playoutModel.Playout(filter_path)
    before, ending, following = zip(kinds, lengths)
    sounding = []
    for kind, length in (ending, before, ending, following):  # both converters have been used by then
        segment = playout.next_file(source(kind, length, rate, directory))
        playout.decide(playout.active, taken)
        frames = np.concatenate([segment.frames, segment.optional]) if taken else segment.frames
        sounding.append((np.flatnonzero(np.abs(frames[:, 0]) > (LEVEL // 2) << 16), len(frames)))
    (ended, frames), (begun, _) = sounding[2:]
    return lengths[1] * 48000 / rate - len(ended), begun[0] + (frames - 1 - ended[-1])


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--rate", type=int, default=48000)
    parser.add_argument("--items", default="wav,wav,wav", help="kinds: before the change, ending, following")
    parser.add_argument("--filter", default=str(ROOT / "data" / "FilterCoeff.bin"))
    arguments = parser.parse_args()
    kinds = arguments.items.split(",")
    if len(kinds) != 3 or not set(kinds) <= set(PERIOD):
        parser.error("--items takes three of wav and mp3, with commas between")
    period = PERIOD[kinds[1]]
    print(f"{'frames':>8} {f'mod {period}':>8} {'cut ms, from':>12} {'to':>6} {'silence ms, from':>17} {'to':>8}")
    with tempfile.TemporaryDirectory() as directory:
        for extra in EXTRA_FRAMES[kinds[1]]:
            length = 32768 + extra
            lengths = (length if kinds[0] == kinds[1] else 32768 + 5000, length, length)
            results = [change(kinds, lengths, arguments.rate, arguments.filter, directory, taken)
                       for taken in (False, True)]
            cuts = sorted(max(0.0, cut) / 48.0 for cut, _ in results)
            gaps = sorted(gap / 48.0 for _, gap in results)
            print(f"{length:8d} {length % period:8d} {cuts[0]:12.1f} {cuts[1]:6.1f} {gaps[0]:17.1f} {gaps[1]:8.1f}")


if __name__ == "__main__":
    main()
