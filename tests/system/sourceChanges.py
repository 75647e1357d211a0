"""A station that has every kind of source, and starts each after each other: what a daemon keeps of the players that
have gone is seen in its registries, descriptors, threads and memory.

    changes = SourceChanges(daemon, card, directory)   # not started yet
    changes.begin("-t", "2")
    changes.play("mp3")                                # until it is heard
    changes.stop()                                     # until nothing of the player is left
"""

import itertools
import random
import time

from station import Station, sine
from stationCard import CardPage
from streamServers import ScriptedServer, Shoutcast, heard, resources, tone

KINDS = ("wav", "mp3", "mono", "stream", "livewire")


def every_pair(seed=1):
    """A round in which each kind starts once after each kind, itself included: the edges of a complete graph in a row."""
    left = {kind: list(KINDS) for kind in KINDS}
    for targets in left.values():
        random.Random(seed).shuffle(targets)
    path, round_trip = [KINDS[0]], []
    while path:
        if left[path[-1]]:
            path.append(left[path[-1]].pop())
        else:
            round_trip.append(path.pop())
    return round_trip[::-1]


def at_random(count, seed):
    generator = random.Random(seed)
    return [generator.choice(KINDS) for _ in itertools.repeat(None, count)]


class SourceChanges:
    def __init__(self, daemon, card, patience=30, channels_change=False):
        """`channels_change` has the playlist of mono and stereo files go on until each converter has had both."""
        self.daemon, self.card, self.patience, self.channels_change = daemon, card, patience, channels_change
        self.station = Station(daemon, card)
        CardPage(card.cards / "Axia-0-capture", create=True)
        card.environment.setdefault("VCARD_TONE_HZ", "1000")
        self.server = ScriptedServer(daemon, Shoutcast(tone(self.station.directory)), port=8000)
        self.sources = {}

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.server.close()

    def begin(self, *arguments, **options):
        daemon, station = self.daemon, self.station
        daemon.start(*arguments, **options)
        daemon.wait_until(lambda: daemon.bound(), self.patience, "the control port is bound")
        wav = station.wav("stereo.wav", samples=sine(48000, 44100, 500.0), rate=44100)
        mono = station.wav("mono.wav", samples=sine(24000, 48000, 700.0, channels=1), rate=48000)
        short = station.wav("short.wav", samples=sine(8192, 48000, 800.0), rate=48000)
        mp3 = station.mp3("stereo.mp3", samples=sine(66150, 44100, 900.0), rate=44100)
        self.sources = {
            "wav": station.playlist("wav", [wav]),
            "mp3": station.playlist("mp3", [mp3, wav]),
            "mono": station.playlist("mono", [mono, short, mono] if self.channels_change else [mono, wav]),
            "stream": station.stream("stream", "http://127.0.0.1:8000/"),
            "livewire": station.livewire("livewire", 1),
        }

    def play(self, kind):
        """Starts a source and waits until the card, opened for it, gives its sound."""
        sent = time.monotonic_ns()
        self.daemon.start_source(self.sources[kind])
        self.daemon.wait_until(lambda: self.card.page.status()["startedNs"] > sent and heard(self.card), self.patience,
                               f"{kind} is heard")
        if kind == "mono" and self.channels_change:
            opened = self.card.page.status()["totalFrames"]
            self.daemon.wait_until(lambda: self.card.frames() > opened + 150000, self.patience, "five files have played")

    def stop(self):
        """Stops the player and answers what the registries still hold, as the console shows them."""
        self.daemon.stop_source()
        self.daemon.wait_until(self.card.closed, self.patience, "the card is closed")
        self.daemon.mark()
        self.daemon.type("blocks\n")
        blocks = self.daemon.wait_output(r"(?s)Created Audio Blocks\n-{20}\n(.*?)Player:>", self.patience)[1]
        self.daemon.type("chains\n")
        chains = self.daemon.wait_output(r"(?s)Created Audio Chains\n-{20}\n(.*?)Player:>", self.patience)[1]
        return blocks + chains

    def resources(self):
        """Resident KiB, descriptors and threads."""
        return resources(self.daemon)
