"""How a stream on air gets over stalls and drops: the lines it prints, the entry it goes to, and what it leaves behind."""

import re

import numpy as np

from streamOnAir import URL, opened, stream
from streamServers import Dropping, ScriptedServer, resources, tone


def gaps(text):
    """Start, stop and length of each gap that was reported, as pairs of seconds and nanoseconds."""
    numbers = re.findall(r"^Start_Time: (\d+):(\d+) Stop_Time: (\d+):(\d+) Time between data: (\d+):(\d+)$", text, re.M)
    return [tuple(map(int, found)) for found in numbers]


def test_stalls_of_1_and_5_seconds_end_with_a_line_and_one_of_8_goes_to_the_next_entry(station, on_air):
    audio = tone(station.directory)
    air = on_air(stream(audio, 0.5, lambda peer: peer.pause(1.4), 0.5, lambda peer: peer.pause(5.4), 0.5,
                        lambda peer: peer.hold()), stream(audio))
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


def longest_silence(recording):
    """The longest run of frames without sound behind the first sound, in seconds."""
    sound = np.flatnonzero(np.any(np.abs(recording.astype(np.int64)) > 1 << 20, axis=1))
    return np.diff(sound).max() / 48000


def test_what_a_server_has_sent_ahead_carries_a_stream_over_a_stall(station, on_air):
    audio = tone(station.directory)
    air = on_air(stream(audio, lambda peer: peer.play(audio, 1.0, ahead_seconds=4.0), lambda peer: peer.pause(3.0), None))
    station.wait_frames(station.card.frames() + 48000 * 5)
    air.daemon.kill()
    assert longest_silence(station.recording()) < 0.01
    assert air.server.requests[1:] == ["/1"]
    assert station.card.underruns() == 0


def test_a_stream_that_closes_or_breaks_off_goes_on_with_the_next_entry(station, on_air):
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
