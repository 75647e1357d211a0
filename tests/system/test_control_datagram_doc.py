"""docs/control-datagram.md: each example in it is played to the running daemon and does what stands beside it."""

import os
import re
import sqlite3
import subprocess
import sys

import pytest

from daemonHarness import HEARTBEAT_PORT, Daemon, start_request, stop_request
from documentExamples import blocks, pattern, table, the_block
from station import noise, wav_bytes

DOCUMENT = "control-datagram.md"
WORDS = {"<date>": r"[A-Z][a-z]+ \d\d, \d{4} \d\d:\d\d:\d\d [AP]M", "<line>": r"\d+"}

START, STOP = "Start: 9 bytes", "Stop: 5 bytes"

# Sent behind what a test sends: once its lines are logged, everything before has been carried out. The one leaves alone
# what is on air; the other is for tests of requests that log the same line.
UNKNOWN = (bytes([2, 0xEE, 0xEE, 0, 0]),
           "<date> [DEBUG] AudioManager.cpp <line>: playlist manager received unknown set request")
NO_SOURCE = (start_request(424242),
             "<date> [DEBUG] AudioManager.cpp <line>: playlist manager received start request id = 424242\n"
             "<date> [DEBUG] AudioService.cpp <line>: AudioService::startPlayer id = 424242\n"
             "<date> [ERROR] AudioService.cpp <line> No audio source with id = 424242")


@pytest.fixture
def library(station):
    """The running daemon with the library that the document's examples use."""
    station.boot()
    (station.daemon.usb / "morning.wav").write_bytes(wav_bytes(noise(48000 * 60), 48000))
    entries = {"Morning": ["/mnt/usb/morning.wav"], "Empty": [], "Gone": ["/mnt/usb/gone.wav"]}
    assert [station.playlist(name, paths) for name, paths in entries.items()] == [1, 2, 3]
    station.daemon.wait_log("Spawned heartbeat thread")  # main's last line
    sent(station.daemon, lambda: None)
    return station.daemon


def sent(daemon, send, last=UNKNOWN):
    """What the daemon logs by the time it has carried out what `send` sends, without the last line end."""
    daemon.mark()
    send()
    datagram, lines = last
    daemon.send(datagram)
    return daemon.wait_log(rf"\A((?:[^\n]*\n)*?){pattern(lines, WORDS)}\n\Z")[1].rstrip("\n")


def on_air(daemon):
    """Starts source 1 and waits until that is done."""
    sent(daemon, lambda: daemon.send(start_request(1)))


def logs(daemon, send, expected, last=UNKNOWN):
    """Whether what is sent is logged exactly as the document says."""
    found = sent(daemon, send, last)
    assert re.fullmatch(pattern(expected, WORDS), found), f"the document says:\n{expected}\nthe log says:\n{found}"


def octets(text):
    return bytes.fromhex(text)


def log_of(heading, datagram):
    """The log that the document gives for a datagram."""
    section = blocks(DOCUMENT, heading=heading)
    place = next(i for i, block in enumerate(section) if block.kind == "hex" and octets(block.text) == datagram)
    return section[place + 1].text


def examples(heading):
    """The section's datagrams, each with the log that follows it."""
    section = blocks(DOCUMENT, heading=heading)
    for block, following in zip(section, section[1:]):
        if block.kind == "hex":
            assert following.kind == "log"
            yield octets(block.text), following.text


# ---- datagrams


def test_start_examples_are_logged_as_told(library):
    pairs = list(examples(START))
    assert len(pairs) == 4
    assert pairs[0][0] == start_request(1)
    for datagram, log in pairs:
        logs(library, lambda: library.send(datagram), log)


def test_stop_example_is_logged_as_told(library):
    ((datagram, log),) = examples(STOP)
    assert datagram == stop_request()
    on_air(library)
    logs(library, lambda: library.send(datagram), log)
    logs(library, lambda: library.send(datagram), "")  # with nothing on air


def test_what_is_ignored_is_logged_as_told(library):
    ((datagram, log),) = examples("What is ignored")
    logs(library, lambda: library.send(datagram), log, NO_SOURCE)
    rows = table(DOCUMENT, "What is ignored")
    assert len(rows) == 6
    for shown, _, text in rows:
        written = "" if text == "nothing" else log.split(": ")[0] + ": " + text.strip("`")
        for datagram in [b""] if shown == "*(none)*" else map(octets, re.findall("`([^`]*)`", shown)):
            logs(library, lambda: library.send(datagram), written, NO_SOURCE)
            if datagram and datagram[0] != 2:  # whatever follows
                logs(library, lambda: library.send(datagram[:1] + start_request(1)[1:]), written, NO_SOURCE)


def test_start_without_its_id_stops_what_plays(library):
    on_air(library)
    logs(library, lambda: library.send(start_request(1)[:5]), log_of(START, start_request(12345)).replace("12345", "0"))


def test_bytes_after_the_last_field_are_ignored(library):
    on_air(library)
    logs(library, lambda: library.send(stop_request() + b"\xff" * 3000), log_of(STOP, stop_request()))


def test_requests_wait_while_the_loop_is_held_up(library):
    texts = [log_of(START, start_request(3)), log_of(START, start_request(2))]
    logs(library, lambda: [library.send(start_request(3)), library.send(start_request(2))], "\n".join(texts))


def test_queries_run_on_the_daemons_database(library):
    database = sqlite3.connect(f"file:{library.database}?mode=ro", uri=True)
    rows = database.execute(the_block(DOCUMENT, "sql", START)).fetchall()
    assert "\n".join(f"{source}|{name}" for source, name in rows) == the_block(DOCUMENT, "text", START)
    database.execute(the_block(DOCUMENT, "sql", "No answer"))


def test_port_in_use_is_logged_as_told(daemon):
    with daemon.receiver(7100):
        daemon.start("-p", "7100")
        assert daemon.wait_exit() == 1
    daemon.wait_log("^" + pattern(the_block(DOCUMENT, "text", "The port"), WORDS) + "$")


def test_log_types_that_are_named_show_the_lines(daemon):
    daemon.start("-t", "1026")
    daemon.wait_bound()
    daemon.wait_log("Success! Policy")
    logs(daemon, lambda: daemon.send(b"\x02"), log_of("What is ignored", octets("02FFFF0000")), NO_SOURCE)


# ---- programs that send


def run(daemon, *argv, **options):
    done = daemon.run(*argv, **options)
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")


def test_python_example_starts_source_1(library):
    text = the_block(DOCUMENT, "python", "Sending it")
    logs(library, lambda: run(library, sys.executable, "-c", text), log_of(START, start_request(1)))
    text = text.replace("\nstart(1)", "\nstop()")
    logs(library, lambda: run(library, sys.executable, "-c", text), log_of(STOP, stop_request()))


def test_c_example_starts_and_stops(library):
    source = library.work_dir / "start.c"
    source.write_text(the_block(DOCUMENT, "c", "Sending it") + "\n")
    program = library.work_dir / "start"
    subprocess.run(["cc", "-std=c99", "-Wall", "-Wextra", "-Werror", source, "-o", program], check=True)
    logs(library, lambda: run(library, program, "1"), log_of(START, start_request(1)))
    logs(library, lambda: run(library, program), log_of(STOP, stop_request()))
    logs(library, lambda: run(library, program, "12345"),
         "\n".join(line for line in log_of(START, start_request(12345)).splitlines() if "FilePlayer" not in line))


def test_bash_example_starts_and_stops(library):
    start, stop = the_block(DOCUMENT, "bash", "Sending it").splitlines()
    logs(library, lambda: run(library, "bash", "-c", start), log_of(START, start_request(1)))
    logs(library, lambda: run(library, "bash", "-c", stop), log_of(STOP, stop_request()))


# Stands in for netcat and socat, with which a machine has to be equipped first: shows what they would be given.
SHOW = """#!/bin/sh
echo "${0##*/}" "$@"
exec od -An -v -tx1
"""


def test_shell_examples_give_netcat_and_socat_the_datagrams(tmp_path):
    for name in ("nc", "socat"):
        (tmp_path / name).write_text(SHOW)
        (tmp_path / name).chmod(0o755)
    script = the_block(DOCUMENT, "sh", "Sending it")
    done = subprocess.run(["sh", "-c", script], env={"PATH": f"{tmp_path}:{os.environ['PATH']}"}, text=True,
                          capture_output=True, check=True)
    given = [line.strip() for line in done.stdout.splitlines()]
    to_netcat, to_socat = "nc -u -w1 127.0.0.1 7004", "socat -u STDIN UDP4-SENDTO:127.0.0.1:7004"
    assert given == [to_netcat, start_request(1).hex(" "), to_netcat, stop_request().hex(" "),
                     to_socat, start_request(1).hex(" "), to_socat, stop_request().hex(" ")]


# ---- heartbeat


def test_beat_is_the_byte_told(daemon):
    beat = octets(the_block(DOCUMENT, "beat", "The heartbeat"))
    with daemon.receiver(HEARTBEAT_PORT) as watchdog:
        daemon.start()
        for _ in range(2):
            received, sender = watchdog.recvfrom(16)
            assert received == beat
            assert sender[0] == "127.0.0.1"


def test_watchdog_example_sees_the_daemon_end(daemon):
    lines = the_block(DOCUMENT, "text", "The heartbeat").splitlines()
    example = the_block(DOCUMENT, "python", "The heartbeat")
    daemon.start()
    daemon.wait_log("Spawned heartbeat thread$")
    with subprocess.Popen(daemon.command([sys.executable, "-c", example]), stdout=subprocess.PIPE, text=True) as watchdog:
        found = [watchdog.stdout.readline().rstrip("\n") for _ in lines[:-1]]
        daemon.kill()
        rest = watchdog.stdout.read().splitlines()
    while rest[0] == lines[0]:  # a beat that was quicker than the kill
        rest.pop(0)
    assert found + rest == lines


def test_beat_that_cannot_be_sent_is_logged_as_told(tmp_path):
    with Daemon(tmp_path, loopback=False) as daemon:
        daemon.start()
        assert daemon.wait_exit() == 1
        told = the_block(DOCUMENT, "text", "When the heartbeat itself fails")
        daemon.wait_log("^" + pattern(told, WORDS) + "$")
