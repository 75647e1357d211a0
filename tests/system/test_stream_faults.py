"""What the daemon on air makes of a stream that stalls, drops, sends garbage, changes its format, or ends.

A scripted server lists entries 1, 2, ... as a Shoutcast playlist and does to each what the test says. The lines are
compared as they stand on the daemon's standard output, but for the time in front of a trace line; a step that is
repeated until the server has answered counts once.
"""

import re

import numpy as np
import pytest

from daemonHarness import log_line
from streamServers import (HEADER, Dropping, ScriptedServer, heard, http_answer, pls, resources, tone,
                           tone_frequency)

URL = "http://127.0.0.1:8000/"
TRACE = re.compile(r"^ *\d+\.\d{6} \((\d)\): ")
SHORT_GAP = re.compile(r"Start_Time: .* Time between data: 0:\d+")


class Listing:
    """Lists as many entries as there are functions; each is called for its entry, behind the header."""

    def __init__(self, *entries):
        self.entries = entries

    def __call__(self, peer):
        if "://" in peer.request:
            peer.send(http_answer("audio/x-scpls", pls([f"{URL}{n}" for n in range(1, len(self.entries) + 1)])))
        else:
            self.entries[int(peer.request[1:]) - 1](peer)


class OnAir:
    """A daemon that plays the first entry, and the server."""

    def __init__(self, station, *entries, path="list.pls"):
        self.station, self.daemon = station, station.daemon
        self.server = ScriptedServer(self.daemon, Listing(*entries) if path == "list.pls" else entries[0])
        self.station.boot("-t", "2047")
        self.source = self.station.stream("Stream", URL + path)
        self.start()

    def start(self):
        self.daemon.start_source(self.source)
        self.daemon.wait_log(r"\d StreamPlayer::start$")
        self.wait_heard()
        self.daemon.mark()

    def wait_heard(self):
        self.daemon.wait_until(lambda: heard(self.station.card), what="sound on the card")

    def wait_silent(self):
        self.daemon.wait_until(lambda: not heard(self.station.card), what="silence on the card")

    def wait_requests(self, paths):
        self.daemon.wait_until(lambda: self.server.requests[1:] == paths, 30, f"requests {paths}: {self.server.requests}")

    def lines(self, first):
        """What was printed from the first line that begins with `first`, without repetitions and short gaps."""
        text = [TRACE.sub(r"(\1): ", line) for line in self.daemon.output().splitlines()]
        text = text[next(n for n, line in enumerate(text) if line.startswith(first)) :]
        return list(dict.fromkeys(line for line in text if not SHORT_GAP.fullmatch(line)))

    def wait_failed(self, status):
        """Waits for the line with which the player ends in an error."""
        text = f"Cannot service player block - streamStatus = {status}"
        self.daemon.wait_log(log_line("ERROR", "StreamPlayer.cpp", text))
        self.wait_silent()
        assert self.station.card.underruns() == 0


@pytest.fixture
def on_air(station):
    made = []

    def start(*entries, **options):
        made.append(OnAir(station, *entries, **options))
        return made[0]

    yield start
    for each in made:
        each.server.close()


def stream(audio, *steps):
    """An entry that sends the header and plays; `steps` are seconds to play, then functions called with the peer."""
    def entry(peer):
        peer.send(HEADER)
        for step in steps or (None,):
            step(peer) if callable(step) else peer.play(audio, step)
    return entry


def opened(entry, answer=("HTTP/1.0 200 OK", "Content-Type: audio/mpeg", "icy-name: Test")):
    """The lines from the opening of an entry to the point where it plays."""
    url = f"{URL}{entry}"
    return [f"(0): Opening item {url} ", "T0: TCP client is now connected (select)", f"pUrl = {url}",
            f"extractPath(pUrl) = /{entry}", f"GET /{entry} HTTP/1.0", "", "Request playlist item headers.",
            "Read playlist item headers.", "bytesReceived>0", "headerBytes>=IOBUF_SIZE", *answer,
            "Getting Port Params...", "MPG123_NEW_FORMAT != decodeStatus", "Getting more params...",
            "bytesReceived > 0 and MPG123_NEW_FORMAT==decodeStatus"]


def gaps(text):
    """Start, stop and length of each gap that was reported, as pairs of seconds and nanoseconds."""
    numbers = re.findall(r"^Start_Time: (\d+):(\d+) Stop_Time: (\d+):(\d+) Time between data: (\d+):(\d+)$", text, re.M)
    return [tuple(map(int, found)) for found in numbers]


def test_stalls_of_1_and_5_seconds_end_with_a_line_and_one_of_8_goes_to_the_next_entry(station, on_air):
    audio = tone(station.directory)
    first = stream(audio, 1.0, lambda peer: peer.pause(1.4), 1.0, lambda peer: peer.pause(5.4), 1.0, lambda peer: peer.hold())
    air = on_air(first, stream(audio))
    air.wait_requests(["/1", "/2"])
    air.wait_heard()
    reported = gaps(air.daemon.output())
    assert [gap[4] for gap in reported if gap[4]] == [1, 5]
    for start, start_ns, stop, stop_ns, seconds, ns in reported:
        assert (stop - start) * 10**9 + stop_ns - start_ns == seconds * 10**9 + ns
    assert re.fullmatch(r"streamMode = 1, streamRequestFailCount = \d+, Time:6:\d+", air.lines("streamMode")[0])
    assert air.lines("(0): Shoutcast gave up")[: 4 + len(opened(2))] == [
        "(0): Shoutcast gave up on playlist item: Entry 1.", "(0): Retrying item: Entry 1.",
        "(0): ERROR! Failed to open shoutcast connection", "(0): Trying next shoutcast playlist item: Entry 2", *opened(2)]
    assert station.card.underruns() == 0


def test_a_stream_that_drops_goes_on_with_the_next_entry(station, on_air):
    audio = tone(station.directory)
    air = on_air(stream(audio, 1.0), stream(audio, 1.0, lambda peer: peer.reset()), stream(audio))
    air.wait_requests(["/1", "/2", "/3"])
    air.wait_heard()
    assert air.lines("(0): ERROR! Connection lost.")[: 2 + len(opened(2))] == [
        "(0): ERROR! Connection lost.", "(0): Trying next shoutcast playlist item: Entry 2", *opened(2)]
    text = air.daemon.output()
    assert text.count("ERROR! Connection lost.") == 2
    assert text.count("Trying next shoutcast playlist item: Entry 3") == 1
    assert station.card.underruns() == 0


def test_a_single_stream_that_ends_ends_the_player_until_the_next_start(station, on_air):
    audio = tone(station.directory)
    air = on_air(lambda peer: None if "://" in peer.request else stream(audio, 1.0)(peer), path="live.mp3")
    air.wait_failed(-1)
    assert air.lines("(0): ERROR!") == ["(0): ERROR! Connection lost."]
    air.daemon.mark()
    air.start()
    assert len(air.server.requests) == 4


def test_an_entry_that_the_server_refuses_is_passed_over_and_the_list_is_gone_through_once(station, on_air):
    audio = tone(station.directory)
    refused = lambda peer: peer.send(b"HTTP/1.0 404 File Not Found\r\n\r\nno such mount point")  # noqa: E731
    air = on_air(stream(audio, 1.0), refused, stream(audio, 1.0))
    air.wait_failed(-1)
    assert air.server.requests == [f"{URL}list.pls", "/1", "/2", "/3"]
    refusal = [*opened(2)[:8], "bytesReceived>0", "bytesReceived<0", "(0): ERROR! Failed to open shoutcast connection",
               "(0): Trying next shoutcast playlist item: Entry 3", f"(0): Opening item {URL}3 "]
    assert air.lines("(0): Trying next shoutcast playlist item: Entry 2")[1 : 1 + len(refusal)] == refusal
    assert air.daemon.output().count("ERROR! Connection lost.") == 2


def test_an_entry_whose_header_has_no_end_ends_the_player(station, on_air):
    air = on_air(stream(tone(station.directory), 1.0), lambda peer: peer.send(b"x" * 4096) or peer.hold())
    air.wait_failed(-7)
    assert "no MP3 start marker found\n" in air.daemon.log()


def test_a_server_that_takes_the_connection_and_says_nothing_is_waited_for_without_end(station, on_air):
    said = []
    air = on_air(stream(tone(station.directory), 1.0), lambda peer: said.append(peer.pause(4)) or stream(tone(station.directory))(peer))
    air.wait_requests(["/1", "/2"])
    count = lambda: air.daemon.output().count("Read playlist item headers.")  # noqa: E731
    before = count()
    air.daemon.wait_until(lambda: count() > before + 200, 10, "200 looks at the silent server")
    assert not said and not heard(station.card)
    air.wait_heard()


def test_garbage_amid_a_stream_is_passed_over(station, on_air):
    audio = tone(station.directory)
    noise = np.random.default_rng(5).integers(0, 255, 20000, dtype=np.uint8).tobytes()  # no 255: no frame begins there
    air = on_air(stream(audio, 1.0, lambda peer: peer.send(noise), None))
    station.wait_frames(station.card.frames() + 48000 * 4)
    assert heard(station.card)
    air.daemon.kill()
    assert air.server.requests[1:] == ["/1"]
    assert abs(tone_frequency(station.recording()[-40960:, 0], 48000) / audio.frequency - 1) < 1.4e-3


def test_a_stream_of_garbage_is_refused(station):
    noise = np.random.default_rng(5).integers(0, 255, 20000, dtype=np.uint8).tobytes()
    station.boot("-t", "2047")
    with ScriptedServer(station.daemon, Listing(lambda peer: peer.send(HEADER + noise) or peer.hold())):
        station.daemon.start_source(station.stream("Stream", URL + "list.pls"))
        station.daemon.wait_log(log_line("DEBUG", "StreamPlayer.cpp", "Shoutcast unable to recover!"))
    assert re.search(r"^Could not feed mpg123: read 0 Bytes \d+ from file-?\d+ - ", station.daemon.log(), re.M)


def test_a_change_of_rate_within_a_stream_is_heard_at_the_wrong_pitch(station, on_air):
    first, second = tone(station.directory), tone(station.directory, rate=48000)
    def change(peer):
        stream(first, 1.0)(peer)
        peer.play(second)
    air = on_air(change)
    station.wait_frames(station.card.frames() + 48000 * 4)
    assert heard(station.card)
    air.daemon.kill()
    heard_at = tone_frequency(station.recording()[-40960:, 0], 48000)
    assert abs(heard_at / (second.frequency * 44100 / 48000) - 1) < 1.4e-3


@pytest.mark.parametrize("shape", [{"rate": 48000}, {"channels": 1}], ids=["rate", "channels"])
def test_an_entry_of_another_format_ends_the_player(station, on_air, shape):
    air = on_air(stream(tone(station.directory), 1.0), stream(tone(station.directory, **shape)))
    air.wait_failed(-9)
    assert air.server.requests[1:] == ["/1", "/2"]


def test_forty_reconnects_leave_memory_and_descriptors_as_they_were(station):
    answer = Dropping(tone(station.directory), 41)
    station.boot("-t", "2047")
    with ScriptedServer(station.daemon, answer):
        station.daemon.start_source(station.stream("Stream", URL + "list.m3u"))
        station.daemon.wait_until(lambda: answer.played >= 10, 40, "ten entries")
        memory, descriptors, threads = resources(station.daemon)
        station.daemon.wait_until(lambda: answer.played == 41, 40, "41 entries")
        now = resources(station.daemon)
    assert now[0] - memory <= 256 and abs(now[1] - descriptors) <= 1 and now[2] == threads
    assert station.card.underruns() == 0
