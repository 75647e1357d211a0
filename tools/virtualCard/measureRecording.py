#!/usr/bin/python3
"""Measures a recording of the virtual sound card: length, level, silences, jumps, underruns.

  measureRecording.py FILE.wav [--log LOG] [--json] [--silence-db -80] [--silence-ms 20]

A silence is a stretch in which every channel stays below the threshold for at least the given time. With the card's
log the underruns, gaps and the true rate of that very recording are added. The file may still be growing. Of many
silences the longest are told, and all of them with --json.
"""
import argparse
import json
import os
import struct
import sys

import numpy

BLOCK_FRAMES = 1 << 20
REPORTED_SILENCES = 12  # in words, and all of them with --json


def read_header(stream):
    """(rate, channels, sample bytes, offset of the samples, bytes of samples) of a PCM WAV file."""
    head = stream.read(12)
    if len(head) < 12 or head[0:4] != b"RIFF" or head[8:12] != b"WAVE":
        raise ValueError("no WAV file")
    form = None
    while True:
        chunk = stream.read(8)
        if len(chunk) < 8:
            raise ValueError("no samples")
        name, length = chunk[0:4], struct.unpack("<I", chunk[4:8])[0]
        if name == b"data":
            break
        body = stream.read(length + length % 2)
        if name == b"fmt ":
            form = struct.unpack("<HHIIHH", body[0:16])
    if form is None or form[0] != 1 or form[5] not in (16, 32):
        raise ValueError("not PCM of 16 or 32 bits")
    return form[2], form[1], form[5] // 8, stream.tell(), length


def decibels(level):
    return round(20.0 * float(numpy.log10(level)), 2) if level > 0 else None


class Silences:
    """Collects stretches of quiet frames across blocks."""

    def __init__(self, least_frames):
        self.least_frames = least_frames
        self.found = []
        self._start = None

    def add(self, quiet, first_frame):
        edges = numpy.flatnonzero(numpy.diff(quiet.astype(numpy.int8)))
        bounds = [0, *(int(edge) + 1 for edge in edges), len(quiet)]
        for begin, end in zip(bounds, bounds[1:]):
            if quiet[begin]:
                if self._start is None:
                    self._start = first_frame + begin
            else:
                self.finish(first_frame + begin)

    def finish(self, frame):
        if self._start is not None and frame - self._start >= self.least_frames:
            self.found.append((self._start, frame - self._start))
        self._start = None


def measure(path, silence_db=-80.0, silence_ms=20.0):
    """Measures one file in blocks; a day of audio fits."""
    with open(path, "rb") as stream:
        rate, channels, sample_bytes, offset, data_bytes = read_header(stream)
    frame_bytes = channels * sample_bytes
    present = max(os.path.getsize(path) - offset, 0)
    num_frames = min(data_bytes, present) // frame_bytes
    kind, full_scale = ("<i2", 32768.0) if sample_bytes == 2 else ("<i4", 2147483648.0)
    threshold = 10.0 ** (silence_db / 20.0)
    silences = Silences(max(int(silence_ms * rate / 1000.0), 1))
    peaks, squares, sums = numpy.zeros(channels), numpy.zeros(channels), numpy.zeros(channels)
    biggest_step, last = numpy.zeros(channels), None
    with open(path, "rb") as stream:
        stream.seek(offset)
        for first in range(0, num_frames, BLOCK_FRAMES):
            count = min(BLOCK_FRAMES, num_frames - first)
            raw = numpy.frombuffer(stream.read(count * frame_bytes), kind).reshape(-1, channels)
            block = raw.astype(numpy.float64) / full_scale
            size = numpy.abs(block)
            peaks = numpy.maximum(peaks, size.max(axis=0))
            squares += (block * block).sum(axis=0)
            sums += block.sum(axis=0)
            joined = block if last is None else numpy.vstack((last, block))
            if len(joined) > 1:
                biggest_step = numpy.maximum(biggest_step, numpy.abs(numpy.diff(joined, axis=0)).max(axis=0))
            last = block[-1:]
            silences.add(size.max(axis=1) < threshold, first)
    silences.finish(num_frames)
    return {
        "file": path,
        "rateHz": rate,
        "channels": channels,
        "bits": sample_bytes * 8,
        "frames": num_frames,
        "seconds": round(num_frames / rate, 6),
        "headerAgrees": data_bytes <= present,
        "peakDb": [decibels(value) for value in peaks],
        "rmsDb": [decibels(value) for value in numpy.sqrt(squares / max(num_frames, 1))],
        "dcOffset": [round(float(value), 9) for value in sums / max(num_frames, 1)],
        "biggestStep": [round(float(value), 6) for value in biggest_step],
        "silences": [{"frame": frame, "frames": count, "at": round(frame / rate, 6), "seconds": round(count / rate, 6)}
                     for frame, count in silences.found],
        "silentSeconds": round(sum(count for _, count in silences.found) / rate, 6),
    }


def parse_log(path):
    """The card's log as (time, card, event, {key: text}) tuples."""
    events = []
    with open(path, encoding="utf-8", errors="replace") as stream:
        for line in stream:
            words = line.split()
            if len(words) >= 3:
                pairs = dict(word.split("=", 1) for word in words[3:] if "=" in word)
                events.append((float(words[0]), words[1], words[2], pairs))
    return events


def events_of_recording(events, path):
    """The events between the open and the close of the card that wrote the recording."""
    name = os.path.basename(path)
    for index, (_, card, event, pairs) in enumerate(events):
        if event == "record" and os.path.basename(pairs.get("file", "")) == name:
            mine = []
            for entry in events[index:]:
                if entry[1] != card:
                    continue
                mine.append(entry)
                if entry[2] == "close":
                    break
            return mine
    return []


def true_rate(events):
    """Frames a second between the first and the last position of the longest stretch at one rate.

    Time that the clock has forgiven (late wakes) has not passed for the card, so it does not count.
    """
    best, stretch, forgiven = None, [], 0.0
    for when, _, event, pairs in events:
        if event in ("start", "ppm", "stall", "stall_end", "suspend", "resume"):
            stretch = []
        elif event == "late_wake":
            forgiven += float(pairs["late_ms"]) / 1000.0
        elif event == "position":
            stretch.append((when - forgiven, int(pairs["frames"])))
            seconds = stretch[-1][0] - stretch[0][0]
            if seconds > 0 and (best is None or seconds > best[1]):
                best = ((stretch[-1][1] - stretch[0][1]) / seconds, seconds)
    return None if best is None else round(best[0], 3)


def measure_log(events):
    underruns = [entry for entry in events if entry[2] == "underrun"]
    gaps = [int(entry[3]["frames"]) for entry in events if entry[2] == "gap"]
    return {
        "underruns": [{"at": float(entry[3]["at"]), "frame": int(entry[3]["total"]), "forced": entry[3]["forced"] == "1"}
                      for entry in underruns],
        "gapFrames": sum(gaps),
        "lateWakes": sum(1 for entry in events if entry[2] == "late_wake"),
        "trueHz": true_rate(events),
    }


def print_report(result):
    print(f"{result['file']}: {result['seconds']:.3f} s, {result['frames']} frames, {result['rateHz']} Hz, "
          f"{result['channels']} channels, {result['bits']} bits")
    print(f"  peak {result['peakDb']} dB, rms {result['rmsDb']} dB, biggest step {result['biggestStep']}")
    silences = result["silences"]
    shown = sorted(sorted(silences, key=lambda each: -each["frames"])[:REPORTED_SILENCES], key=lambda each: each["frame"])
    print(f"  silences: {len(silences)}, {result['silentSeconds']:.3f} s in all"
          + (f"; the longest {len(shown)}:" if len(shown) < len(silences) else ""))
    for silence in shown:
        print(f"    at {silence['at']:.3f} s (frame {silence['frame']}) for {silence['seconds']:.3f} s")
    if "underruns" in result:
        print(f"  underruns: {len(result['underruns'])}, gaps {result['gapFrames']} frames, "
              f"late wakes forgiven {result['lateWakes']}, true rate {result['trueHz']} Hz")
        for underrun in result["underruns"]:
            print(f"    at {underrun['at']:.3f} (monotonic), frame {underrun['frame']}")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("file", nargs="+")
    parser.add_argument("--log")
    parser.add_argument("--json", action="store_true")
    parser.add_argument("--silence-db", type=float, default=-80.0)
    parser.add_argument("--silence-ms", type=float, default=20.0)
    arguments = parser.parse_args()
    events = parse_log(arguments.log) if arguments.log else None
    for path in arguments.file:
        try:
            result = measure(path, arguments.silence_db, arguments.silence_ms)
        except (OSError, ValueError) as failure:
            print(f"measureRecording: {path}: {failure}", file=sys.stderr)
            return 1
        if events is not None:
            result.update(measure_log(events_of_recording(events, path)))
        if arguments.json:
            print(json.dumps(result))
        else:
            print_report(result)
    return 0


if __name__ == "__main__":
    sys.exit(main())
