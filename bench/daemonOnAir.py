#!/usr/bin/python3
"""Measures the daemon on air with one WAV file on the virtual card, which records nothing meanwhile.

    sudo bench/daemonOnAir.py [--seconds 30] [--rate 44100] [--json]

Prints its share of one core (the virtual card's own work included), resident memory, passes of the audio manager's
loop a second, and the time from the start datagram to the first frame on the card. $AUDIOPLAYER_BUILD names the build,
build/release by default. Needs root for namespaces and real-time priority.
"""
import argparse
import json
import os
import pathlib
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "tests" / "system"))
from daemonHarness import Daemon  # noqa: E402
from station import Station  # noqa: E402
from stationCard import StationCard  # noqa: E402

TICKS = os.sysconf("SC_CLK_TCK")


def cpu_seconds(pid):
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / TICKS


def status_number(path, name):
    for line in pathlib.Path(path).read_text().splitlines():
        if line.startswith(name + ":"):
            return int(line.split()[1])
    raise KeyError(name)


def audio_manager_waits(pid):
    """Voluntary switches of the thread at priority 80: one wait in select a pass."""
    for task in pathlib.Path(f"/proc/{pid}/task").iterdir():
        if os.sched_getscheduler(int(task.name)) == os.SCHED_FIFO and os.sched_getparam(int(task.name)).sched_priority == 80:
            return status_number(task / "status", "voluntary_ctxt_switches")
    raise RuntimeError("no thread at real-time priority 80: run as root")


def measure(seconds, rate):
    with tempfile.TemporaryDirectory(dir="/dev/shm") as directory:
        work = pathlib.Path(directory)
        card = StationCard(work)
        card.environment["VCARD_RECORD"] = ""
        with Daemon(work, env=card.environment) as daemon:
            station = Station(daemon, card)
            item = station.wav("item.wav", rate=rate, seconds=seconds + 30)
            station.boot("-t", "2047")
            source = station.playlist("bench", [item])
            idle_cpu, idle_time = cpu_seconds(daemon.pid), time.monotonic()
            time.sleep(2)
            idle = (cpu_seconds(daemon.pid) - idle_cpu) / (time.monotonic() - idle_time)
            sent = time.monotonic_ns()
            daemon.start_source(source)
            daemon.wait_until(lambda: card.page.status()["startedNs"] > sent, what="the card runs")
            first_frame_ms = (card.page.status()["startedNs"] - sent) / 1e6
            time.sleep(2)
            cpu, waits, began = cpu_seconds(daemon.pid), audio_manager_waits(daemon.pid), time.monotonic()
            time.sleep(seconds)
            elapsed = time.monotonic() - began
            return {
                "cpu_percent_idle": round(100 * idle, 2),
                "cpu_percent_on_air": round(100 * (cpu_seconds(daemon.pid) - cpu) / elapsed, 2),
                "resident_kib": status_number(f"/proc/{daemon.pid}/status", "VmRSS"),
                "passes_per_second": round((audio_manager_waits(daemon.pid) - waits) / elapsed, 1),
                "start_to_first_frame_ms": round(first_frame_ms, 2),
                "underruns": card.underruns(),
            }


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--seconds", type=float, default=30)
    parser.add_argument("--rate", type=int, default=44100)
    parser.add_argument("--json", action="store_true")
    arguments = parser.parse_args()
    results = measure(arguments.seconds, arguments.rate)
    if arguments.json:
        print(json.dumps(results))
        return
    for name, value in results.items():
        print(f"{name:26} {value}")


if __name__ == "__main__":
    main()
