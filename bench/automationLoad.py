#!/usr/bin/python3
"""Measures what automation costs the daemon on air, and what bounds it.

    sudo bench/automationLoad.py [--seconds 5] [--items 1,10,100,1000] [--directory /dev/shm] [--json]

A WAV file of noise is on air on the virtual card meanwhile. For each load: how many a second are done, the longest pass
of the audio manager's loop (the time between two waits: audio is serviced once in a pass), the longest silence in the
recording (the mixer's ring holds half a second: a longer pass is heard), and what bounds the figure. --directory is
where the audio database stands: /dev/shm is memory; a path on the controller's own store shows what its syncs cost.
$AUDIOPLAYER_BUILD names the build, with the benchmarks (cmake --preset bench), build/bench by default. Needs root for
namespaces and real-time priority.
"""
import argparse
import json
import mmap
import os
import pathlib
import sqlite3
import struct
import sys
import tempfile
import time

import numpy as np

ROOT = pathlib.Path(__file__).resolve().parents[1]
os.environ.setdefault("AUDIOPLAYER_BUILD", str(ROOT / "build" / "bench"))
sys.path.insert(0, str(ROOT / "tests" / "system"))
from automationPeer import AutomationPeer, element  # noqa: E402
from daemonHarness import BUILD, Daemon  # noqa: E402
from station import Station  # noqa: E402
from stationCard import StationCard  # noqa: E402

LOG_ROWS = 10000
PASS_BOUND = "one transaction a pass; a pass waits up to 10 ms"


class PassTimer:
    """The page that bench/passTimer.cpp writes."""

    def __init__(self, path):
        path.write_bytes(bytes(24))
        self.environment = {"LD_PRELOAD": str(BUILD / "bench" / "libpassTimer.so"), "PASS_TIMER_PAGE": str(path)}
        with open(path, "r+b") as file:
            self.page = mmap.mmap(file.fileno(), 24)

    def reset(self):
        self.page[:] = bytes(24)

    def longest_ms(self):
        return struct.unpack("QQQ", self.page)[1] / 1e6

    def passes(self):
        return struct.unpack("QQQ", self.page)[0]


class Bench:
    def __init__(self, work, seconds):
        self.seconds = seconds
        self.card = StationCard(work)
        self.timer = PassTimer(work / "passes")
        self.daemon = Daemon(work, env={**self.card.environment, **self.timer.environment})
        self.station = Station(self.daemon, self.card)
        self.results = []

    def begin(self):
        item = self.station.wav("item.wav", rate=44100, seconds=60)
        self.station.boot("-t", "2")
        self.source = self.station.playlist("bench", [item])
        self.start()
        self.station.wait_frames(96000)  # the ring is full
        self.peer = AutomationPeer.seat(self.daemon)
        self.peer.fence()

    def start(self):
        sent = time.monotonic_ns()
        self.daemon.start_source(self.source)
        self.daemon.wait_until(lambda: self.card.page.status()["startedNs"] > sent, what="the card runs")

    def measure(self, name, work, bound):
        """Runs `work`, which answers how many were done, and notes the rate, the longest pass and the silence."""
        first, recordings = self.card.frames(), len(self.card.recordings())
        self.timer.reset()
        began = time.monotonic()
        done = work()
        elapsed = time.monotonic() - began
        self.daemon.wait_until(lambda: self.timer.passes() > 0, what="a pass behind the load")
        same = recordings == len(self.card.recordings())
        if same:
            self.station.wait_frames(self.card.frames() + 48000)  # what the load did to the ring has been heard
        self.results.append({"load": name, "done": done, "seconds": round(elapsed, 3),
                             "per_second": round(done / elapsed, 1),
                             "longest_pass_ms": round(self.timer.longest_ms(), 2),
                             "silence_ms": self.silence_ms(first) if same else None, "bounded_by": bound})

    def silence_ms(self, first):
        """The longest run of zeros in what went to air since the frame `first`."""
        audible = np.flatnonzero(self.station.recording()[first:].any(axis=1))
        gaps = np.diff(audible, prepend=-1) - 1
        return round(float(gaps.max()) / 48, 1)

    def repeat(self, action):
        def work():
            done, end = 0, time.monotonic() + self.seconds
            while time.monotonic() < end:
                action()
                done += 1
            return done
        return work

    def fill_log(self):
        with sqlite3.connect(self.daemon.database, timeout=10) as db:
            db.execute("DELETE FROM T_As_Played_Log")
            db.execute("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < ?) "
                       "INSERT INTO T_As_Played_Log (log_time_sec, log_time_usec, playlist_assoc_id, playlist_id, "
                       "playlist_item_id, entry_type, player_status, tx_status, desc) "
                       "SELECT 1000000000 + i, 0, 1, 1, 1, 0, 1, 100, '' FROM n", (LOG_ROWS + 1,))
        db.close()

    def run(self, uploads):
        peer, timer = self.peer, self.timer
        self.measure("nothing but the audio", lambda: time.sleep(self.seconds) or timer.passes(), "passes of the loop")
        self.measure("unknown command", self.repeat(lambda: peer.transaction("unknown")), PASS_BOUND)
        self.measure("delete of a missing playlist", self.repeat(
            lambda: peer.transaction("deletePlaylists", element("Playlist", name="none", clearAsPlayedLog="no"))),
            PASS_BOUND)
        for count in uploads:
            items = [element("PlaylistItem", filename=f"{count}/item-{n}.wav") for n in range(count)]
            for what in ("new", "known"):
                self.measure(f"upload of {count} {what} items", lambda: peer.transaction(
                    "uploadPlaylist", element("Playlist", *items, name=f"upload {count}"), timeout=600) and count,
                    "writes of the database, each with its own sync")
        self.fill_log()
        self.measure(f"getAsPlayedLog, {LOG_ROWS} rows at once", lambda: int(peer.transaction(
            "getAsPlayedLog", element("Parameters"), timeout=60).xml.find("Info").get("numEntries")),
            "the answer as one text, built and sent in one pass")
        self.fill_log()
        self.measure(f"getAsPlayedLog, {LOG_ROWS} rows in pages of 100, deleted", self.page_through, PASS_BOUND)
        self.measure("start datagrams", self.repeat(self.start), "a player built and the card opened for each")

    def page_through(self):
        done = 0
        while True:
            answer = self.peer.transaction("getAsPlayedLog", element("Parameters", maxLogEntries=100, delete="yes"))
            count = int(answer.xml.find("Info").get("numEntries"))
            if count == 0:
                return done
            done += count


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--seconds", type=float, default=5)
    parser.add_argument("--items", default="1,10,100,1000")
    parser.add_argument("--directory", default="/dev/shm")
    parser.add_argument("--json", action="store_true")
    arguments = parser.parse_args()
    if not (BUILD / "bench" / "libpassTimer.so").exists():
        sys.exit(f"no benchmarks in {BUILD}: cmake --preset bench && cmake --build --preset bench")
    with tempfile.TemporaryDirectory(dir=arguments.directory) as directory:
        bench = Bench(pathlib.Path(directory), arguments.seconds)
        with bench.daemon:
            bench.begin()
            bench.run([int(count) for count in arguments.items.split(",")])
    if arguments.json:
        print(json.dumps(bench.results))
        return
    print(f"{'load':52} {'done':>6} {'s':>8} {'a second':>9} {'longest pass':>13} {'silence':>8}  bounded by")
    for row in bench.results:
        silence = "restarts" if row["silence_ms"] is None else f"{row['silence_ms']} ms"
        print(f"{row['load']:52} {row['done']:>6} {row['seconds']:>8} {row['per_second']:>9} "
              f"{row['longest_pass_ms']:>10} ms {silence:>8}  {row['bounded_by']}")


if __name__ == "__main__":
    main()
