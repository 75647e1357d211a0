#!/usr/bin/python3
"""What a change of files costs on air, as a function of the length of the file that ends.

    bench/changeOfFile.py [--rate 48000] [--filter data/FilterCoeff.bin]

Uses the model that the system tests hold the daemon to, sample by sample (tests/system/playoutModel.py): a constant
signal is played, and the frames without it around the change are counted.
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


def change(path, filter_path, taken):
    """(frames of the ending file that are not heard, frames of silence until the next one is), at 48 kHz."""
    playout = playoutModel.Playout(filter_path)
    sounding = []
    for number in range(4):  # the third change is the first that finds both converters used before
        segment = playout.next_file(path)
        playout.decide(playout.active, taken)
        frames = np.concatenate([segment.frames, segment.optional]) if taken else segment.frames
        sounding.append(np.flatnonzero(np.abs(frames[:, 0]) > (LEVEL // 2) << 16))
        lengths = len(frames)
    heard = len(sounding[2])
    gap = sounding[3][0] + (lengths - 1 - sounding[2][-1])
    return heard, gap


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--rate", type=int, default=48000)
    parser.add_argument("--filter", default=str(ROOT / "data" / "FilterCoeff.bin"))
    arguments = parser.parse_args()
    print(f"{'frames':>8} {'mod 8192':>8} {'cut ms, from':>12} {'to':>6} {'silence ms, from':>17} {'to':>8}")
    with tempfile.TemporaryDirectory() as directory:
        for extra in (0, 20, 47, 48, 500, 1000, 2000, 4096, 6000, 7500, 7700, 7800, 7900, 8000, 8100, 8191):
            length = 4 * 8192 + extra
            path = pathlib.Path(directory) / "constant.wav"
            path.write_bytes(wav_bytes(np.full((length, 2), LEVEL, dtype="<i2"), arguments.rate))
            results = [change(path, arguments.filter, taken) for taken in (False, True)]
            whole = length * 48000 / arguments.rate
            cuts = sorted(max(0.0, whole - heard) / 48.0 for heard, _ in results)
            gaps = sorted(gap / 48.0 for _, gap in results)
            print(f"{length:8d} {length % 8192:8d} {cuts[0]:12.1f} {cuts[1]:6.1f} {gaps[0]:17.1f} {gaps[1]:8.1f}")


if __name__ == "__main__":
    main()
