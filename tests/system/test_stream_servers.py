"""Which URLs of real servers play and which are refused: the table of docs/streams.md, row by row, on the servers.

Each row names a server, a URL of it, what it answers to the player's first request, and what the player makes of that.
The servers are Debian's, in the test's own namespaces; what they answer is asked for and compared too.
"""

import re

import pytest

from documentExamples import table, the_block
from streamServers import (Apache, Icecast, Lighttpd, Nginx, heard, m3u, pls, request_of, tone, tone_frequency, xspf)

STREAM_PORT, WEB_PORT = 8000, 8080
SILENCE = "nothing, closes"

# What stands behind the names in the table: the same files on every server.
LIVE = f"http://127.0.0.1:{STREAM_PORT}/live.mp3"
PROXIED = f"http://127.0.0.1:{WEB_PORT}/live.mp3"
FILES = {"live.pls": pls([LIVE]), "live.m3u": m3u([LIVE]), "live.m3u8": m3u([LIVE]), "live.xspf": xspf([LIVE]),
         "live.xml": xspf([LIVE]), "proxied.pls": pls([PROXIED]), "proxied.xspf": xspf([PROXIED])}

WEB_SERVERS = {
    "Apache 2.4": lambda daemon: Apache(daemon, FILES, WEB_PORT, {"live.mp3": LIVE}),
    "Apache 2.4, types added": lambda daemon: Apache(daemon, FILES, WEB_PORT, {"live.mp3": LIVE},
                                                     types=configuration("apache")),
    "nginx 1.22": lambda daemon: Nginx(daemon, FILES, WEB_PORT, {"live.mp3": LIVE}),
    "nginx 1.22, types added": lambda daemon: Nginx(daemon, FILES, WEB_PORT, {"live.mp3": LIVE},
                                                    types=configuration("nginx")),
    "lighttpd 1.4": lambda daemon: Lighttpd(daemon, FILES, WEB_PORT, {"live.mp3": LIVE}),
}


def configuration(language):
    """The lines that the document tells a web server's keeper to add."""
    return the_block("streams.md", language, "What real servers do")


def rows():
    """The rows of the table: (server, URL's last part, first line, content type, whether it plays)."""
    found, server = [], None
    for name, url, answer, verdict in table("streams.md", "What real servers do"):
        server = name or server
        words = re.findall(r"`([^`]+)`", answer)
        assert len(words) == 2 or answer == SILENCE, answer
        plays_it = re.match(r"\*\*(plays|refused)\*\*", verdict)[1] == "plays"
        found.append((server, url.strip("`"), *(words or (None, None)), plays_it))
    return found


def rows_of(server):
    found = [row[1:] for row in rows() if row[0] == server]
    assert found, f"docs/streams.md has no row of {server}"
    return found


def ask(daemon, port, url):
    """The first line and the content type that the server gives to the player's first request; None and None if none."""
    answer = b""
    with daemon.socket() as sock:
        sock.settimeout(5)
        sock.connect(("127.0.0.1", port))
        sock.sendall(request_of(url))
        while b"\r\n\r\n" not in answer:
            piece = sock.recv(4096)
            if not piece:
                break
            answer += piece
    head = answer.split(b"\r\n\r\n")[0].decode("latin1").split("\r\n")
    types = [line.split(": ", 1)[1] for line in head if line.lower().startswith("content-type: ")]
    return (head[0] or None, types[0] if types else None)


def plays(station, url):
    """Starts the URL and answers whether it gets to the card as sound."""
    station.daemon.mark()
    station.daemon.start_source(station.stream(url, url))
    word = station.daemon.wait_log(r"Shoutcast unable to recover!$|\d StreamPlayer::start$", 30).group(0)
    if "unable" in word:
        return False
    station.daemon.wait_until(lambda: heard(station.card), what=f"sound of {url}")
    return True


def compare(station, server, name):
    wrong = []
    for path, first_line, content_type, verdict in rows_of(name):
        url = server.url(path)
        if (answer := ask(station.daemon, server.port, url)) != (first_line, content_type):
            wrong.append(f"{path}: the server answers {answer}")
        if plays(station, url) != verdict:
            wrong.append(f"{path}: {'refused' if verdict else 'plays'}")
    assert not wrong, f"docs/streams.md, {name}: {wrong}\n{station.daemon.output()[-3000:]}"


def test_every_row_of_the_table_is_tried_here():
    assert {row[0] for row in rows()} == {"Icecast 2.4", *WEB_SERVERS}


def test_icecast(station):
    audio = tone(station.directory)
    station.boot("-t", "2047")
    with Icecast(station.daemon, STREAM_PORT, files=FILES) as server:
        server.source("live.mp3", audio)
        server.source("Upper.mp3", audio)
        compare(station, server, "Icecast 2.4")


@pytest.mark.parametrize("name", WEB_SERVERS)
@pytest.mark.busy_core
def test_web_server(station, name):
    audio = tone(station.directory)
    station.boot("-t", "2047")
    with Icecast(station.daemon, STREAM_PORT) as stream, WEB_SERVERS[name](station.daemon) as server:
        stream.source("live.mp3", audio)
        compare(station, server, name)


# The steps of an Icecast stream's start: what is printed besides the trace, in this order.
DIRECT = re.compile(r"""GET http://127\.0\.0\.1:8000/live\.mp3 HTTP/1\.0
.*Requesting http://127\.0\.0\.1:8000/live\.mp3 from stream
(?:.*\n)*?READ_PLAYLIST: No data received
(?:.*\n)*?case: DIRECT_SHOUTCAST or Direct_ICECAST
(?:.*\n)*?GET /live\.mp3 HTTP/1\.0
""")


SHAPES = [(44100, 1, 64), (44100, 2, 320), (48000, 2, 128), (48000, 1, 160)]  # rate, channels, kbit/s


def test_icecast_streams_of_every_shape_are_found_by_their_silence_and_keep_their_pitch(station):
    station.boot("-t", "2047")
    with Icecast(station.daemon, STREAM_PORT) as server:
        for rate, channels, kbps in SHAPES:
            audio = tone(station.directory, rate, channels, kbps, frequency=700 + kbps)
            server.source("live.mp3", audio)
            before = len(station.daemon.output())
            assert plays(station, server.url("live.mp3"))
            station.daemon.wait_until(lambda: DIRECT.search(station.daemon.output()[before:]), what="the steps")
            station.wait_frames(station.card.frames() + 43200)
            heard_last = station.recording()[-32768:].astype(float)
            # 375 ppm of it are for a card that is taken for one of 47982 Hz.
            assert abs(tone_frequency(heard_last[:, 0], 48000) / audio.frequency - 1) < 1.4e-3
            assert abs(heard_last[:, 0] - heard_last[:, 1]).max() < 1 << 25
            server.silence("live.mp3")
