"""Internet streams from a row of T_Streams to the card: the audio itself, window by window, against what libmpg123 gives.

What goes to air follows the card's clock, so no frame is predicted; but each stretch of a recording must be found in the
decoded stream, on both channels, one behind the other without a jump.
"""

import re
import threading

import numpy as np
import pytest

import mp3Decode
from daemonHarness import HEARTBEAT_PORT
from streamServers import (BAD_REQUEST, HEADER, ICY_HEADER, SHOUTCAST_REFUSAL, ScriptedServer, encode, heard, http_answer,
                           m3u, pls, xspf)

SERVER = "http://127.0.0.1:8000/"
ENTRY = SERVER + "live.mp3"
CARD_RATE = 48000
WINDOW = 2048       # frames; short enough that a pitch that is off by 0.1 % does not blur it
STEP = CARD_RATE // 8


def hiss(frames, rate, channels, seed):
    """Noise from 100 to 3000 Hz: one place is like no other, and neither encoder nor converter takes much off it."""
    spectrum = np.fft.rfft(np.random.default_rng(seed).standard_normal((frames, channels)), axis=0)
    frequency = np.fft.rfftfreq(frames, 1 / rate)
    spectrum[(frequency < 100) | (frequency > 3000)] = 0
    samples = np.fft.irfft(spectrum, frames, axis=0)
    return (samples * (5000 / samples.std())).round().clip(-30000, 30000).astype("<i2")


class Material:
    """Seconds of sound in which no two places are alike, as MP3 frames and as the card should have them."""

    def __init__(self, directory, rate=44100, channels=2, seconds=8, seed=1):
        self.audio = encode(directory, hiss(rate * seconds, rate, channels, seed), rate)
        path = directory / f"material-{rate}-{channels}-{seed}.mp3"
        path.write_bytes(b"".join(self.audio.frames))
        decoded_rate, decoded_channels, decoded = mp3Decode.decode(path)
        assert (decoded_rate, decoded_channels) == (rate, channels)
        samples = np.frombuffer(decoded, dtype="<i2").astype(float).reshape(-1, channels)
        place = np.arange(int(len(samples) * CARD_RATE / rate)) * (rate / CARD_RATE)
        sides = [np.interp(place, np.arange(len(samples)), samples[:, side]) for side in (0, -1)]
        self._size = 1 << (len(place) + WINDOW).bit_length()
        self._spectra = [np.fft.rfft(side, self._size) for side in sides]
        sums = [np.concatenate([[0.0], np.cumsum(side**2)]) for side in sides]
        self._energies = [each[WINDOW:] - each[:-WINDOW] for each in sums]

    def find(self, window, channel):
        """Where in the material this stretch of a recording is, in frames of the card, and how alike they are, 0 to 1."""
        products = np.fft.irfft(self._spectra[channel] * np.conj(np.fft.rfft(window, self._size)), self._size)
        energy = self._energies[channel]
        likeness = products[: len(energy)] / np.sqrt(np.maximum(energy * np.sum(window**2), 1.0))
        best = int(np.argmax(likeness))
        return best, likeness[best]


def stretches(recording):
    """The runs of the recording that hold sound, as (first frame, end); shorter ones than half a second left out."""
    loud = np.flatnonzero(np.any(np.abs(recording.astype(np.int64)) > 200 << 16, axis=1))
    parts = np.split(loud, np.flatnonzero(np.diff(loud) > WINDOW) + 1)
    return [(part[0], part[-1] + 1) for part in parts if len(part) and part[-1] - part[0] > CARD_RATE // 2]


def follow(material, recording, first, end):
    """Finds each window of recording[first:end] in the material; the places of the first and of the last one."""
    sound = recording[first:end].astype(float)
    places = []
    for begin in range(WINDOW, end - first - 2 * WINDOW, STEP):
        found = [material.find(sound[begin : begin + WINDOW, channel], channel) for channel in (0, 1)]
        for place, likeness in found:
            assert likeness > 0.97, f"frame {first + begin} is like nothing in the stream ({likeness:.3f})"
        assert abs(found[0][0] - found[1][0]) <= 1, f"frame {first + begin}: left and right have parted"
        places.append((first + begin, found[0][0]))
    assert len(places) >= 4
    for (frame, place), (next_frame, next_place) in zip(places, places[1:]):
        if next_place > place:  # or the material has begun again
            step = next_place - place
            assert abs(step - STEP) <= 15, f"from frame {frame} to {next_frame} the stream moves by {step} frames"
    assert sum(b[1] < a[1] for a, b in zip(places, places[1:])) <= 1
    return places[0], places[-1]




# What the server answers to the whole URL, by the kind of thing that stands there.
KINDS = {
    "shoutcast": (SHOUTCAST_REFUSAL, ICY_HEADER),
    "old-icecast": (BAD_REQUEST, HEADER),
    "silent": (b"", HEADER),
    "pls": (http_answer("audio/x-scpls", pls([ENTRY])), HEADER),
    "m3u": (http_answer("audio/x-mpegurl", m3u([ENTRY])), HEADER),
    "xspf": (http_answer("application/xspf+xml", xspf([ENTRY])), HEADER),
}


def serve(station, reply, header, play):
    def answer(peer):
        if "://" in peer.request:
            peer.send(reply)
            peer.hold()
        else:
            peer.send(header)
            play(peer)
    return ScriptedServer(station.daemon, answer)


def start(station, name="Stream", url=ENTRY):
    """Puts the URL on air by a datagram and waits until it is heard."""
    source = station.stream(name, url)
    station.daemon.start_source(source)
    station.daemon.wait_log(r"\d StreamPlayer::start$", 30)
    station.daemon.wait_until(lambda: heard(station.card), what="sound on the card")
    return source


@pytest.mark.parametrize("kind", KINDS)
def test_each_kind_of_url_puts_the_stream_on_air(station, kind):
    material = Material(station.directory)
    station.boot("-t", "2047")
    with serve(station, *KINDS[kind], lambda peer: peer.play(material.audio)) as server:
        start(station)
        station.wait_frames(station.card.frames() + 2 * CARD_RATE)
        station.daemon.kill()
    assert server.requests == [ENTRY, "/live.mp3"]
    (on_air,) = stretches(station.recording())
    follow(material, station.recording(), *on_air)
    assert station.card.underruns() == 0


@pytest.mark.parametrize("rate, channels", [(48000, 2), (44100, 1), (32000, 2), (22050, 1)])
def test_streams_of_other_shapes_are_on_air_as_they_are(station, rate, channels):
    material = Material(station.directory, rate, channels)
    station.boot("-t", "2047")
    with serve(station, *KINDS["shoutcast"], lambda peer: peer.play(material.audio)):
        start(station)
        station.wait_frames(station.card.frames() + 2 * CARD_RATE)
        station.daemon.kill()
    (on_air,) = stretches(station.recording())
    follow(material, station.recording(), *on_air)


def test_a_stop_silences_the_stream_and_hangs_up_and_a_start_brings_it_back(station):
    material = Material(station.directory)
    hung_up = threading.Event()

    def play(peer):
        try:
            peer.play(material.audio)
        finally:
            hung_up.set()

    station.boot("-t", "2047")
    with serve(station, *KINDS["pls"], play) as server:
        source = start(station)
        station.daemon.stop_source()
        station.daemon.wait_until(station.card.closed, what="the card closed")
        station.daemon.wait_until(hung_up.is_set, what="the server's connection closed")
        station.daemon.mark()
        station.daemon.start_source(source)
        station.daemon.wait_log(r"\d StreamPlayer::start$", 30)  # until then the card shows what it was closed with
        station.daemon.wait_until(lambda: heard(station.card), 30, "sound on the card")
        station.wait_frames(station.card.frames() + CARD_RATE)
        station.daemon.kill()
    assert server.requests == [ENTRY, "/live.mp3"] * 2
    recording = station.recording()
    follow(material, recording, *stretches(recording)[0])


def test_a_stall_costs_silence_but_nothing_of_the_audio_and_a_loss_neither(station):
    first, second = (Material(station.directory, seed=seed) for seed in (1, 2))
    url = SERVER + "list.pls"

    def answer(peer):
        if "://" in peer.request:
            peer.send(http_answer("audio/x-scpls", pls([SERVER + "one", SERVER + "two"])))
        elif peer.request == "/one":
            peer.send(HEADER)
            peer.play(first.audio, seconds=3)
            peer.pause(3)
            peer.play(first.audio, seconds=2)
        else:
            peer.send(HEADER)
            peer.play(second.audio)

    station.boot("-t", "2047")
    with ScriptedServer(station.daemon, answer) as server:
        start(station, url=url)
        station.daemon.wait_until(lambda: server.requests == [url, "/one", "/two"], 30, "the second entry asked for")
        station.wait_frames(station.card.frames() + 4 * CARD_RATE)
        station.daemon.kill()
    recording = station.recording()
    before, after = stretches(recording)  # the next entry plays before the mixer's ring has run dry
    (_, _), (last_frame, last_place) = follow(first, recording, *before)
    (frame, place), _ = follow(first, recording, after[0], after[0] + 3 * CARD_RATE // 2)
    # Sound between the two places, with the silence of the stall left out.
    heard_between = (before[1] - last_frame) + (frame - after[0])
    assert abs((place - last_place) - heard_between) < 100
    follow(second, recording, after[1] - 3 * CARD_RATE // 2, after[1])
    assert station.card.underruns() == 0


def test_a_stream_that_does_not_come_up_holds_up_the_loop_but_not_the_heartbeat(station):
    material = Material(station.directory)
    begin = threading.Event()

    def play(peer):
        peer.wait(begin)
        peer.play(material.audio)

    station.boot("-t", "2047")
    with serve(station, *KINDS["pls"], play), station.daemon.receiver(HEARTBEAT_PORT) as watchdog:
        station.daemon.start_source(station.stream("Stream", ENTRY))
        station.daemon.wait_output(r"^Read playlist item headers\.$")
        station.daemon.stop_source()
        for _ in range(3):
            assert len(watchdog.recv(16)) == 1
        assert not re.search(r"\d StreamPlayer::start$", station.daemon.log(), re.MULTILINE)
        assert "Removed SHOUTCAST_PLAYER" not in station.daemon.output()
        begin.set()
        station.daemon.wait_log(r"\d StreamPlayer::start$")
        station.daemon.wait_output(r"Removed SHOUTCAST_PLAYER from CAudioBlock::allBlocks$")
