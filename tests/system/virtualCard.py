"""Virtual sound cards for system tests: one object a test, its own directory, nothing shared.

    cards = VirtualCards(tmp_path)                  # "plughw:0,0" and "hw:Axia,0" to "hw:Axia,7"
    run(program, env=cards.environment(VCARD_PPM="-375"))
    cards.page().force_xrun()                       # while it runs
    cards.recording().frames, cards.events("underrun")

The build under test is $AUDIOPLAYER_BUILD, build/release if that is not set.
"""
import os
import sys
import wave
from pathlib import Path

import numpy

REPOSITORY = Path(__file__).resolve().parents[2]
TOOLS = REPOSITORY / "tools" / "virtualCard"
sys.path.insert(0, str(TOOLS))
import measureRecording  # noqa: E402
from virtualCardPage import CardPage, decibels  # noqa: E402,F401

PLAYBACK = "0-0-playback"


def build_directory():
    """The build tree under test, absolute."""
    return (REPOSITORY / os.environ.get("AUDIOPLAYER_BUILD", "build/release")).resolve()


def module_directory():
    return build_directory() / "tools" / "virtualCard"


class Recording:
    """A recording as the card left it; `frames` is an array of (frame, channel)."""

    def __init__(self, path):
        self.path = Path(path)
        with wave.open(str(path), "rb") as reader:
            self.rate = reader.getframerate()
            self.channels = reader.getnchannels()
            self.sample_bytes = reader.getsampwidth()
            raw = reader.readframes(reader.getnframes())
        self.frames = numpy.frombuffer(raw, f"<i{self.sample_bytes}").reshape(-1, self.channels)

    def measure(self, **limits):
        """As measureRecording.py reports."""
        return measureRecording.measure(str(self.path), **limits)


class VirtualCards:
    """The card directory, log and recordings of one run."""

    def __init__(self, directory, playback_cards=1, axia_cards=8):
        self.directory = Path(directory)
        self.cards = self.directory / "cards"
        self.record = self.directory / "record"
        self.source = self.directory / "source"
        self.log = self.directory / "log"
        for folder in (self.cards, self.record, self.source):
            folder.mkdir(parents=True, exist_ok=True)
        for number in range(playback_cards):
            CardPage(self.cards / f"{number}-0-playback", create=True)
        for number in range(axia_cards):
            CardPage(self.cards / f"Axia-{number}-capture", create=True)

    def environment(self, **more):
        """The caller's environment with these cards in it; keyword arguments are further variables."""
        environment = {key: value for key, value in os.environ.items() if not key.startswith(("VCARD_", "ALSA_"))}
        environment.update(
            ALSA_CONFIG_PATH=str(module_directory() / "virtualCard.conf"),
            VCARD_MODULE_DIR=str(module_directory()),
            VCARD_CARDS=str(self.cards),
            VCARD_RECORD=str(self.record),
            VCARD_SOURCE=str(self.source),
            VCARD_LOG=str(self.log),
        )
        environment.update({key: str(value) for key, value in more.items()})
        return environment

    def page(self, card=PLAYBACK):
        return CardPage(self.cards / card)

    def remove(self, card=PLAYBACK):
        """There is no such card any more."""
        (self.cards / card).unlink()

    def put_source(self, card, samples, rate=48000):
        """Lets a capture card ("Axia-0") hear 16-bit samples, an array of (frame, channel), in a loop."""
        with wave.open(str(self.source / f"{card}.wav"), "wb") as writer:
            writer.setnchannels(samples.shape[1])
            writer.setsampwidth(2)
            writer.setframerate(rate)
            writer.writeframes(samples.astype("<i2").tobytes())

    def recordings(self, card="0-0"):
        """Paths of all recordings of a card, oldest first."""
        return sorted(self.record.glob(f"{card}-*.wav"))

    def recording(self, number=-1, card="0-0"):
        return Recording(self.recordings(card)[number])

    def all_events(self):
        """(time, card, event, {key: text}) of the whole log."""
        return measureRecording.parse_log(self.log) if self.log.exists() else []

    def events(self, event, card=PLAYBACK):
        """(time, {key: text}) of each event of one card."""
        return [(when, pairs) for when, name, kind, pairs in self.all_events() if name == card and kind == event]

    def true_rate(self, card=PLAYBACK):
        """Frames a second by the card's log: position over time, whatever the test's clock did."""
        return measureRecording.true_rate([entry for entry in self.all_events() if entry[1] == card])
