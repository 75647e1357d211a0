"""The virtual card below a daemon, as a system test sees it: its control page, its recordings, its switches."""

import pathlib
import sys

from daemonHarness import BUILD, ROOT

sys.path.insert(0, str(ROOT / "tools" / "virtualCard"))
from virtualCardPage import CardPage  # noqa: E402


class StationCard:
    """One playback card, "plughw:0,0", in directories of the test's own."""

    def __init__(self, work_dir):
        self.cards = work_dir / "cards"
        self.recorded = work_dir / "recorded"
        self.log_path = work_dir / "card.log"
        for directory in (self.cards, self.recorded):
            directory.mkdir(parents=True, exist_ok=True)
        self.page = CardPage(self.cards / "0-0-playback", create=True)
        self.environment = {
            "ALSA_CONFIG_PATH": str(BUILD / "tools" / "virtualCard" / "virtualCard.conf"),
            "VCARD_MODULE_DIR": str(BUILD / "tools" / "virtualCard"),
            "VCARD_CARDS": str(self.cards),
            "VCARD_RECORD": str(self.recorded),
            "VCARD_LOG": str(self.log_path),
        }

    def frames(self):
        """Frames that have left the card since it was opened."""
        return self.page.status()["totalFrames"]

    def underruns(self):
        return self.page.status()["xrunsEver"]

    def closed(self):
        return self.page.status()["state"] == "closed"

    def starved(self):
        """Whether the card's clock has passed everything that was written, seen or not."""
        status = self.page.status()
        return status["state"] == "running" and self.page.position_now() > status["applied"]

    def recordings(self):
        """One WAV file for each opening of the card, oldest first."""
        return sorted(self.recorded.glob("*.wav"), key=lambda path: path.stat().st_ctime_ns)

    def strict(self):
        """No forgiveness for stolen time: every late write underruns."""
        self.page.set_forgive_ms(0)

    def forgiving(self):
        """As it is made: time that the machine stole from the program is forgiven."""
        self.page.set_forgive_ms(None)

    def set_ppm(self, ppm):
        self.page.set_ppm(ppm)

    def refuse_open(self):
        self.page.fail("open", -1)
