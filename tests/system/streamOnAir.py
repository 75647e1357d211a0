"""A stream on air for system tests: a scripted server that lists entries, and the daemon that plays the first of them.

    air = on_air(stream(audio, 1.0), stream(audio))    # fixture of conftest.py: two entries; the first plays for 1 s
    air.wait_requests(["/1", "/2"])                    # the paths that have been asked for, after the list
    air.lines("(0): ERROR! Connection lost.")          # what was printed from that line on
"""

import re
import threading

from daemonHarness import log_line
from streamServers import HEADER, ScriptedServer, heard, http_answer, pls

URL = "http://127.0.0.1:8000/"
TRACE = re.compile(r"^ *\d+\.\d{6} \((\d)\): ")
SHORT_GAP = re.compile(r"Start_Time: .* Time between data: 0:\d+")


class Listing:
    """An answer of ScriptedServer: lists as many entries as there are functions; each is called for its entry."""

    def __init__(self, *entries):
        self.entries = entries

    def __call__(self, peer):
        if "://" in peer.request:
            peer.send(http_answer("audio/x-scpls", pls([f"{URL}{n}" for n in range(1, len(self.entries) + 1)])))
        else:
            self.entries[int(peer.request[1:]) - 1](peer)


def stream(audio, *steps):
    """An entry that sends the header and plays; `steps` are seconds to play, once the test has heard what it waits for
    at the start, or functions called with the peer."""
    def entry(peer):
        peer.send(HEADER)
        for step in steps or (None,):
            if callable(step):
                step(peer)
            else:
                peer.play(audio, step, after=peer.server.noticed)
    return entry


class OnAir:
    """A daemon that plays, and the server."""

    def __init__(self, station, *entries, answer=None, path="list.pls"):
        self.station, self.daemon = station, station.daemon
        self.server = ScriptedServer(self.daemon, answer or Listing(*entries))
        self.server.noticed = threading.Event()
        self.station.boot("-t", "2047")
        self.source = self.station.stream("Stream", URL + path)
        self.start()

    def start(self):
        self.daemon.mark()
        self.server.noticed.clear()
        self.daemon.start_source(self.source)
        self.daemon.wait_log(r"\d StreamPlayer::start$")
        self.wait_heard()
        self.daemon.mark()
        self.server.noticed.set()

    def wait_heard(self):
        self.daemon.wait_until(lambda: heard(self.station.card), what="sound on the card")

    def wait_silent(self):
        self.daemon.wait_until(lambda: not heard(self.station.card), what="silence on the card")

    def wait_requests(self, paths):
        self.daemon.wait_until(lambda: self.server.requests[1:] == paths, 30, f"requests {paths}: {self.server.requests}")

    def wait_failed(self, status):
        """Waits for the line with which the player ends in an error, and for the silence that follows."""
        text = f"Cannot service player block - streamStatus = {status}"
        self.daemon.wait_log(log_line("ERROR", "StreamPlayer.cpp", text))
        self.wait_silent()
        assert self.station.card.underruns() == 0

    def lines(self, first):
        """What was printed from the first line that begins with `first`, each line once, trace lines without their
        time, and without the gaps below a second that a stream at real time has all along."""
        text = [TRACE.sub(r"(\1): ", line) for line in self.daemon.output().splitlines()]
        text = text[next(n for n, line in enumerate(text) if line.startswith(first)) :]
        return list(dict.fromkeys(line for line in text if not SHORT_GAP.fullmatch(line)))


def opened(entry, answer=("HTTP/1.0 200 OK", "Content-Type: audio/mpeg", "icy-name: Test")):
    """The lines from the opening of an entry to the point where it plays."""
    url = f"{URL}{entry}"
    return [f"(0): Opening item {url} ", "T0: TCP client is now connected (select)", f"pUrl = {url}",
            f"extractPath(pUrl) = /{entry}", f"GET /{entry} HTTP/1.0", "", "Request playlist item headers.",
            "Read playlist item headers.", "bytesReceived>0", "headerBytes>=IOBUF_SIZE", *answer,
            "Getting Port Params...", "MPG123_NEW_FORMAT != decodeStatus", "Getting more params...",
            "bytesReceived > 0 and MPG123_NEW_FORMAT==decodeStatus"]
