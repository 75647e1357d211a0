"""What the daemon on air makes of a stream that ends, that is refused, that sends garbage or changes its format."""

import re
import threading

import numpy as np
import pytest

from stationCard import CardPage
from streamOnAir import URL, opened, stream
from streamServers import SHOUTCAST_REFUSAL, heard, http_answer, pls, tone, tone_frequency

# No byte of 255, so that nowhere in it a frame begins.
GARBAGE = np.random.default_rng(5).integers(0, 255, 20000, dtype=np.uint8).tobytes()
PITCH = 1.4e-3  # how far the rate conversion and the card may move a pitch, as a ratio


def pitch_on_air(air, seconds=3):
    """The frequency of what is on air a while later; the daemon is killed for it."""
    air.station.wait_frames(air.station.card.frames() + 48000 * seconds)
    air.wait_heard()
    air.daemon.kill()
    return tone_frequency(last_sound(air.station.recording()[:, 0]), 48000)


def last_sound(samples, blocks=8, size=4096):
    """The last stretch that is sound all through: a stream that is played too fast is heard in bursts."""
    count = len(samples) // size
    level = np.abs(samples[: count * size].astype(float)).reshape(count, size).mean(axis=1)
    loud = level > 0.9 * level.max()
    last = next(end for end in range(count, blocks - 1, -1) if loud[end - blocks : end].all())
    return samples[(last - blocks) * size : last * size]


@pytest.mark.busy_core
def test_a_stream_without_a_list_that_ends_ends_the_player_until_the_next_start(station, on_air):
    play = stream(tone(station.directory), 1.0)
    air = on_air(answer=lambda peer: peer.send(SHOUTCAST_REFUSAL) if "://" in peer.request else play(peer), path="live.mp3")
    air.wait_failed(-1)
    assert air.lines("(0): ERROR!") == ["(0): ERROR! Connection lost."]
    air.start()
    assert air.server.requests == [f"{URL}live.mp3", "/live.mp3"] * 2


@pytest.mark.busy_core
def test_an_entry_that_the_server_refuses_is_passed_over_and_the_list_is_gone_through_once(station, on_air):
    audio = tone(station.directory)
    refusal = b"HTTP/1.0 404 File Not Found\r\n\r\nno such mount point"
    air = on_air(stream(audio, 1.0), lambda peer: peer.send(refusal), stream(audio, 1.0))
    air.wait_failed(-1)
    assert air.server.requests == [f"{URL}list.pls", "/1", "/2", "/3"]
    printed = [*opened(2)[:9], "bytesReceived<0", "(0): ERROR! Failed to open shoutcast connection",
               "(0): Trying next shoutcast playlist item: Entry 3", f"(0): Opening item {URL}3 "]
    assert air.lines("(0): Trying next shoutcast playlist item: Entry 2")[1 : 1 + len(printed)] == printed
    assert air.daemon.output().count("ERROR! Connection lost.") == 2


@pytest.mark.busy_core
def test_an_entry_whose_header_has_no_end_ends_the_player(station, on_air):
    def headerless(peer):
        peer.send(b"x" * 4096)
        peer.hold()

    air = on_air(stream(tone(station.directory), 1.0), headerless)
    air.wait_failed(-7)
    assert "no MP3 start marker found\n" in air.daemon.log()


def test_a_server_that_takes_the_connection_and_says_nothing_is_waited_for_without_end(station, on_air):
    play = stream(tone(station.directory))
    begin = threading.Event()

    def late(peer):
        peer.wait(begin)
        play(peer)

    air = on_air(stream(tone(station.directory), 1.0), late)
    air.wait_requests(["/1", "/2"])

    def looks():
        return air.daemon.output().count("Read playlist item headers.")

    before = looks()
    air.daemon.wait_until(lambda: looks() > before + 200, what="200 looks at the silent server")
    air.wait_silent()
    begin.set()
    air.wait_heard()


def test_a_list_is_read_to_4095_bytes_if_the_server_closes_behind_it(station, on_air):
    """The socket's own buffer, where the rest of it is, goes with the connection."""
    play = stream(tone(station.directory))
    answer = http_answer("audio/x-scpls", pls([f"{URL}{n}" for n in range(1, 101)]))
    on_air(answer=lambda peer: peer.send(answer) if "://" in peer.request else play(peer))
    entries = re.findall(r"^PLAYITEM (\d+):$", station.daemon.output(), re.M)
    assert len(entries) == answer[:4095].count(b"=-1\r\n") < 100


def test_garbage_before_a_stream_and_amid_it_is_passed_over(station, on_air):
    audio = tone(station.directory)
    air = on_air(stream(audio, lambda peer: peer.send(GARBAGE), 1.0, lambda peer: peer.send(GARBAGE), None))
    assert abs(pitch_on_air(air) / audio.frequency - 1) < PITCH
    assert air.server.requests[1:] == ["/1"]


def test_a_change_of_rate_within_a_stream_is_heard_at_the_wrong_pitch(station, on_air):
    first, second = tone(station.directory), tone(station.directory, rate=48000)
    air = on_air(stream(first, 1.0, lambda peer: peer.play(second)))
    assert abs(pitch_on_air(air) / (second.frequency * 44100 / 48000) - 1) < PITCH


# The port is fixed by the first entry's format, but its connection makes it variable: the next entry passes the check.
@pytest.mark.parametrize("shape, ratio", [({"rate": 48000}, 44100 / 48000), ({"channels": 1}, 2.0)],
                         ids=["rate", "channels"])
def test_an_entry_of_another_format_is_played_as_the_first_one_was(station, on_air, shape, ratio):
    second = tone(station.directory, **shape)
    air = on_air(stream(tone(station.directory), 1.0), stream(second))
    air.wait_requests(["/1", "/2"])
    assert abs(pitch_on_air(air) / (second.frequency * ratio) - 1) < PITCH


def demanded_rate(daemon):
    """The rate that the mixer demands of the converter, as the console shows it; 0 of one that it does not steer."""
    daemon.mark()
    daemon.type("blocks\n")
    shown = daemon.wait_output(r"(?s)\) RATE_CONVERTER .*?connected to MUX\n.*?True sample rate: +\(...\) ([\d.]+) Hz")
    return float(shown[1])


def test_a_stream_is_not_steered(station, on_air):
    on_air(stream(tone(station.directory)))
    assert demanded_rate(station.daemon) == 0


def test_a_livewire_capture_is_steered(station):
    CardPage(station.card.cards / "Axia-0-capture", create=True)
    station.boot("-t", "2047")
    station.daemon.start_source(station.livewire("Studio", 1))
    station.daemon.wait_until(lambda: heard(station.card), what="sound on the card")
    assert abs(demanded_rate(station.daemon) - 47982) <= 48.1
