"""Studio automation on the running daemon, over real sockets and with a file on air: what goes in, byte for byte what comes
out, and what the listener hears of it meanwhile."""

import contextlib
import errno
import functools
import itertools
import json
import os
import pathlib
import socket
import sqlite3
import struct
import sys
import time

import numpy as np
import pytest

import playoutModel
from automationPeer import AUTOMATION_PORT, AutomationPeer
from daemonHarness import CONTROL_PORT, ROOT
from station import noise, wav_bytes

FILTER = ROOT / "data" / "FilterCoeff.bin"

READ_BYTES = 4095  # what the daemon takes from the connection in one pass
ESTABLISHED = "01"
DECLARATION = b'<?xml version="1.0" ?>\n'

SHOW = "/mnt/usb/show.wav"  # on air in these tests, longer than any of them
SHOW_SECONDS = 60
FIRST_SOUND = playoutModel.PRE_BUFFER + playoutModel.FILE_PERIOD  # frames on the card, at the card's own rate

BUSY, DISK_FULL = 5, 13  # of SQLite


# ---- what is sent


def request(number, command="getAsPlayedLog", inside="", type="request"):
    text = f'<Transaction type="{type}" command="{command}" transactionNumber="{number}">{inside}</Transaction>'
    return text.encode()


def uploading(number, name, *files):
    items = "".join(f'<PlaylistItem filename="{file}"/>' for file in files)
    return request(number, "uploadPlaylist", f'<Playlist name="{name}">{items}</Playlist>')


def deleting(number, name, **attributes):
    more = "".join(f' {key}="{value}"' for key, value in attributes.items())
    return request(number, "deletePlaylists", f'<Playlist name="{name}"{more}/>')


def starting(number, name):
    return request(number, "startPlaylist", f'<Playlist name="{name}"/>')


# ---- what must come back


def escaped(text):
    for sign, entity in (("&", "&amp;"), ("<", "&lt;"), (">", "&gt;"), ('"', "&quot;"), ("'", "&apos;")):
        text = text.replace(sign, entity)
    return text


def answer(number, command="getAsPlayedLog", status="success", lines=()):
    """The answer's bytes up to its last '>': `lines` are those of its log, with the empty one at the end if it has one."""
    root = f'<Transaction type="response" command="{command}" transactionNumber="{number}" status="{status}"'
    if not lines:
        return DECLARATION + f"{root} />".encode()
    log = "".join(f"    {escaped(line)}\n" for line in lines)
    text = f"{root}>\n  <TransactionLog>\n{log}  </TransactionLog>\n</Transaction>"
    return DECLARATION + text.encode("utf-8", "surrogateescape")


def uploaded(number, name, *files, known=(), cleared=False):
    lines = [f"Clearing existing playlist {name}" if cleared else f"Created new playlist {name}"]
    for file in files:
        if file not in known:
            lines.append(f"Adding audio item /mnt/usb/{file} to local library")
        lines.append(f"Adding audio item /mnt/usb/{file} to playlist")
    return answer(number, "uploadPlaylist", lines=[*lines, ""])


def unknown(number, command):
    return answer(number, command, "ERROR", [f"Unknown transaction type {command}", ""])


def not_found(number, name):
    return answer(number, "startPlaylist", "ERROR", [f"Playlist {name} was not found", ""])


def unparsed(text, left_over=""):
    """The answer to a text that did not parse: with all of it, and behind the last line of the log before."""
    lines = f"{left_over}Error parsing the XML message\n({text})".split("\n")
    return answer("-1", "unknown", "ERROR", lines)


def playing_now(name, path):
    quote = "'" if '"' in path else '"'
    return DECLARATION + ('<Transaction type="info" command="playingNow" transactionNumber="0">\n'
                          f'  <Playlist name="{escaped(name)}" />\n'
                          f'  <PlaylistItem type="file" filename={quote}{escaped(path)}{quote} />\n'
                          "</Transaction>").encode()


# ---- the studio


def poll(condition, what, timeout=30):
    """wait_until for what changes within a pass of the daemon's loop."""
    deadline = time.monotonic() + timeout
    while not condition():
        assert time.monotonic() < deadline, f"not within {timeout} s: {what}"
        time.sleep(0.0005)


@functools.cache
def audio(frames, seed=1):
    return wav_bytes(noise(frames, channels=1, seed=seed), 48000)


def silences(recording):
    """Lengths in frames of the silent stretches behind the first sound, those of a millisecond and more."""
    quiet = np.concatenate([[False], ~np.any(recording != 0, axis=1), [False]])
    edges = np.flatnonzero(quiet[1:] != quiet[:-1]).reshape(-1, 2)
    return [int(end - begin) for begin, end in edges if begin > 0 and end - begin >= 48]


class Studio:
    """A station, and the seat of its automation."""

    def __init__(self, station, **sysctls):
        self.station = station
        self.daemon = station.daemon
        self.card = station.card
        # Each segment is acknowledged at once: the sender's queue is empty as soon as the daemon's side has the bytes.
        self.within("ip", "route", "replace", "local", "127.0.0.1", "dev", "lo", "table", "local", "quickack", "1")
        for name, value in sysctls.items():
            self.within("sh", "-c", f'echo "{value}" > /proc/sys/net/ipv4/{name}')
        self.file("show.wav", SHOW_SECONDS * 48000)
        self.nudges = self.daemon.socket(socket.SOCK_DGRAM)
        self.nudges.connect(("127.0.0.1", CONTROL_PORT))

    def within(self, *argv):
        done = self.daemon.run(*argv)
        assert done.returncode == 0, done.stderr
        return done.stdout

    def file(self, name, frames):
        """A file in the store; the path that the test sees it under."""
        path = self.daemon.usb / name
        path.write_bytes(audio(frames, len(name)))
        return str(path)

    def nudge(self):
        """Ends the wait of the daemon's loop by a datagram that means nothing."""
        with contextlib.suppress(ConnectionRefusedError):
            self.nudges.send(b"\0")

    def on_air(self):
        """Boots and puts the long file on air by transactions; answers itself."""
        self.station.boot()
        self.peer = self.seat()
        self.peer.send_raw(uploading("u", "Show", "show.wav") + b"\n" + starting("s", "Show") + b"\n")
        expected = [uploaded("u", "Show", "show.wav"), playing_now("Show", SHOW), answer("s", "startPlaylist")]
        assert [self.peer.next_document() for _ in expected] == expected
        return self

    def seat(self, **buffers):
        return AutomationPeer(self.socket(**buffers))

    def socket(self, receive_bytes=None):
        sock = self.daemon.socket()
        sock.settimeout(15)
        sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        if receive_bytes is not None:
            sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_bytes)
        self.daemon.wait_bound(AUTOMATION_PORT, "tcp")
        sock.connect(("127.0.0.1", AUTOMATION_PORT))
        return sock

    def queued(self, side, queue):
        """Bytes in the sending (0) or the receiving queue (1) of the open connections' "daemon" or "peer" side."""
        with open(f"/proc/{self.daemon.pid}/net/tcp") as table:
            rows = [line.split() for line in table.readlines()[1:]]
        address = 1 if side == "daemon" else 2
        return sum(int(row[4].split(":")[queue], 16) for row in rows
                   if row[address].endswith(f":{AUTOMATION_PORT:04X}") and row[3] == ESTABLISHED)

    def wait_taken(self, timeout=30):
        """Until the daemon has read all that was sent. The order matters: what has left the peer is with the daemon."""
        def taken():
            self.nudge()
            return self.queued("peer", 0) == 0 and self.queued("daemon", 1) == 0

        poll(taken, "everything read", timeout)

    def pour(self, data):
        """Sends megabytes; the daemon's loop goes round without a wait meanwhile."""
        for begin in range(0, len(data), 65536):
            self.peer.send_raw(data[begin : begin + 65536])
            self.wait_taken()

    def rows(self, statement, *values):
        database = sqlite3.connect(self.daemon.database, timeout=10)
        with contextlib.closing(database), database:
            return database.execute(statement, values).fetchall()

    def playlists(self):
        return [name for (name,) in self.rows("SELECT name FROM T_Playlists ORDER BY id")]

    def entries(self, name):
        return self.rows("SELECT a.sequence, i.pathname FROM T_Playlist_Item_Association a "
                         "JOIN T_Items i ON i.id = a.item_id JOIN T_Playlists p ON p.id = a.playlist_id "
                         "WHERE p.name = ? ORDER BY a.id", name)

    def as_played(self):
        """The files in the as-played log, in the order of writing."""
        return [path for (path,) in self.rows("SELECT i.pathname FROM T_As_Played_Log l "
                                              "LEFT JOIN T_Items i ON i.id = l.playlist_item_id ORDER BY l.id")]

    def recording(self):
        """Ends the daemon; what went to air since the card was opened last."""
        if self.daemon.alive():
            self.daemon.kill()
        return self.station.recording()

    def listen(self):
        """Waits until what has been written to the card by now is heard, and the lead-in behind a start anyway."""
        self.station.wait_frames(max(self.card.frames(), FIRST_SOUND) + 9600)

    def check_air(self):
        """Ends the daemon. Nothing was to be heard of all that the test did: no underrun, and no silence."""
        self.listen()
        assert self.daemon.alive(), self.daemon.log()[-2000:]
        recording = self.recording()
        assert self.card.underruns() == 0
        assert silences(recording) == []
        assert recording[-4800:].any()


@pytest.fixture
def studio(station):
    return Studio(station).on_air()


@pytest.fixture
def roomy_studio(station):
    """Connections that take megabytes at once, so that no answer is cut."""
    buffers = "4096 8388608 8388608"
    return Studio(station, tcp_wmem=buffers, tcp_rmem=buffers).on_air()


def exchange(peer, text, *expected):
    peer.send_raw(text)
    for document in expected:
        assert peer.next_document() == document


# ---- pieces


def test_transaction_in_two_pieces_is_answered_wherever_it_is_split(studio):
    first = uploading("7", "A &amp; B", "show.wav", "it&apos;s.wav") + b"\n"
    second = b'<TRANSACTION Type="Request" command="startPlaylist" transactionNumber="8"/>\n'
    lines = ["Adding audio item /mnt/usb/show.wav to playlist", "Adding audio item /mnt/usb/it's.wav to playlist", ""]
    exchange(studio.peer, first, answer("7", "uploadPlaylist", lines=[
        "Created new playlist A & B", lines[0], "Adding audio item /mnt/usb/it's.wav to local library", *lines[1:]]))
    again = answer("7", "uploadPlaylist", lines=["Clearing existing playlist A & B", *lines])
    for text, expected in ((first, again), (second, answer("8", "startPlaylist"))):
        for place in range(1, len(text) - 1):  # the newline alone is no piece of the transaction
            studio.peer.send_raw(text[:place])
            studio.wait_taken()
            studio.peer.send_raw(text[place:])
            studio.nudge()
            assert studio.peer.next_document() == expected
    assert studio.entries("A & B") == [(2, SHOW), (3, "/mnt/usb/it's.wav")]
    studio.check_air()


def test_transaction_byte_by_byte(studio):
    for byte in request("1", "stop"):
        studio.peer.send_raw(bytes([byte]))
        studio.wait_taken()
    assert studio.peer.next_document() == unknown("1", "stop")
    studio.check_air()


def test_many_in_one_write_are_answered_in_their_order(studio):
    sent, expected = [], []
    for number in range(0, 60, 6):
        name = f"List {number}"
        sent += [uploading(number, name, f"{number}.wav"), deleting(number + 1, "none", clearAsPlayedLog="no"),
                 request(number + 2, "bogus"), starting(number + 3, "none"), request(number + 4),
                 uploading(number + 5, name)]
        expected += [uploaded(number, name, f"{number}.wav"),
                     answer(number + 1, "deletePlaylists", "ERROR",
                            ["Deleting playlist none and keeping audio files", "  ERROR: Playlist not found", ""]),
                     unknown(number + 2, "bogus"), not_found(number + 3, "none"), answer(number + 4),
                     uploaded(number + 5, name, cleared=True)]
    exchange(studio.peer, b"\n".join(sent) + b"\n", *expected)
    studio.check_air()


def test_byte_behind_a_transaction_goes_and_the_first_one_that_ever_came_stays(studio):
    # The first byte was '<', and so stands for each '<' that is swallowed.
    exchange(studio.peer, request("1") + request("2") + request("3") + b"\n", answer("1"), answer("2"), answer("3"))
    # What is swallowed is one byte, whatever it is.
    exchange(studio.peer, request("4") + b"x" + request("5") + b"\n\n" + request("6") + b"\n",
             answer("4"), answer("5"), answer("6"))
    studio.check_air()


def test_without_newlines_behind_another_first_byte_every_second_transaction_is_lost(station):
    studio = Studio(station)
    station.boot()
    peer = studio.seat()
    peer.send_raw(b" " + request("1") + request("2") + request("3") + request("4") + b"\n")
    # " <1><2><3><4>.": <1> and the '<' of <2> go. Then <3> begins where the closing tag of <2> ends, with a text of no
    # length between; that tag and the '<' of <3> go. The same again with <4>.
    expected = [answer("1"), unparsed("\n\n"), unparsed("\n\n", left_over=")")]
    assert [peer.next_document() for _ in expected] == expected
    # " Transaction 4></Transaction>.": nothing begins here any more; what comes next begins behind the closing tag.
    exchange(peer, request("5") + b"\n", unparsed("", left_over=")"), answer("5"))
    assert peer.fence() == []


# ---- sizes


def test_long_messages_lose_nothing_at_the_seam_of_two_reads(studio):
    """In one write: the closing tag goes over the seam at each of its bytes, with the seam before and behind it too."""
    for size in (5000, *range(READ_BYTES - 2, READ_BYTES + 18), *range(2 * READ_BYTES - 2, 2 * READ_BYTES + 18)):
        name = "n" * (size - len(uploading(size, "")))
        text = uploading(size, name)
        assert len(text) == size
        exchange(studio.peer, text + b"\n", uploaded(size, name))
    studio.check_air()


def test_message_of_a_megabyte_is_carried_out_while_the_audio_goes_on(studio):
    filler = "f" * 1_000_000
    inside = f'<Playlist name="Big" automationRef="{filler}"><PlaylistItem filename="a.wav" automationRef="x"/></Playlist>'
    studio.pour(request("1", "uploadPlaylist", inside))
    exchange(studio.peer, b"\n" + request("2") + b"\n", uploaded("1", "Big", "a.wav"), answer("2"))
    assert studio.entries("Big") == [(2, "/mnt/usb/a.wav")]
    studio.check_air()


def test_megabyte_that_does_not_parse_comes_back_whole(roomy_studio):
    text = "<Transaction>" + "f" * 1_000_000 + "</Playlist></Transaction>"
    roomy_studio.pour(text.encode())
    exchange(roomy_studio.peer, b"\n" + request("2") + b"\n", unparsed(text + "\n\n"), answer("2"))
    roomy_studio.check_air()


# ---- peers that come and go


def test_next_peer_completes_what_a_lost_one_began_and_gets_the_answer(studio):
    text = uploading("7", "Half", "show.wav") + b"\n"
    exchange(studio.peer, text, uploaded("7", "Half", "show.wav", known=["show.wav"]))
    expected = uploaded("7", "Half", "show.wav", known=["show.wav"], cleared=True)
    old = studio.peer
    for place in range(1, len(text) - 1, 4):
        old.send_raw(text[:place])
        studio.wait_taken()
        peer = studio.seat()
        exchange(peer, text[place:], expected)
        assert old.wait_closed() == []
        old = peer
    studio.peer = old
    studio.check_air()


def test_half_transaction_of_a_peer_that_closed_is_completed_too(studio):
    for ending in ("orderly", "reset"):
        sock = studio.socket()
        sock.sendall(uploading("7", ending)[:-30])
        studio.wait_taken()
        if ending == "reset":
            sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        sock.close()
        exchange(studio.seat(), uploading("7", ending)[-30:] + b"\n", uploaded("7", ending))
    studio.check_air()


def test_newest_connection_wins_and_what_goes_on_air_is_told_to_it_alone(studio):
    peers = [studio.peer]
    for number in range(5):
        peers.append(studio.seat())
        exchange(peers[-1], request(number) + b"\n", answer(number))
        assert peers[-2].wait_closed() == []
    exchange(peers[-1], starting("s", "Show") + b"\n", playing_now("Show", SHOW), answer("s", "startPlaylist"))
    studio.check_air()


def test_peer_that_resets_with_answers_under_way_does_no_harm(studio):
    sock = studio.socket()
    last = uploading("last", "Last")
    count = (READ_BYTES - len(last) - 1) // (len(request("00", "bogus")) + 1)
    sock.sendall(b"".join(request(f"{n:02}", "bogus") + b"\n" for n in range(count)) + last + b"\n")
    studio.wait_taken()  # one read; from here on an answer in each pass goes to nobody
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    sock.close()
    poll(lambda: "Last" in studio.playlists(), "all carried out")
    exchange(studio.seat(), request("1") + b"\n", answer("1"))
    studio.check_air()


def test_port_is_refused_after_a_restart_while_the_kernel_holds_a_peer_of_before(station):
    daemon = station.boot().daemon
    source = station.playlist("morning", [station.wav("a.wav", seconds=SHOW_SECONDS)])
    before = daemon.connect(AUTOMATION_PORT)
    daemon.wait_output("New TCP connection")
    daemon.kill()
    daemon.mark()
    station.boot()
    daemon.wait_output(r"(?:Unable to bind TCP connection to port 8500 \(Address already in use\)\n[\s\S]*){3}")
    with daemon.socket() as refused, pytest.raises(ConnectionRefusedError):
        refused.connect(("127.0.0.1", AUTOMATION_PORT))
    station.on_air(source)
    # What a minute does, a reset of the old connection does at once.
    before.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    before.close()
    exchange(AutomationPeer(daemon.connect(AUTOMATION_PORT)), request("1") + b"\n", answer("1"))


def test_peer_that_never_reads_loses_answers_and_holds_up_nothing(station):
    studio = Studio(station, tcp_wmem="4096 4096 4096").on_air()
    # The first fill all that there is between the two; those behind find room at times, or none.
    commands = ["b" * 40_000] * 3 + ["bogus"] * 100
    sent = [request(f"{n:03}", command) for n, command in enumerate(commands)] + [uploading("last", "Last")]
    expected = [unknown(f"{n:03}", command) + b"\n" for n, command in enumerate(commands)]
    expected.append(uploaded("last", "Last") + b"\n")
    sock = studio.socket(receive_bytes=1)  # the kernel gives the least that it has
    sock.sendall(b"".join(text + b"\n" for text in sent))
    poll(lambda: "Last" in studio.playlists(), "all carried out")
    # The row is there before its answer is sent; a datagram is looked at when that pass of the loop is over.
    studio.daemon.mark()
    studio.daemon.send(b"\x02")
    studio.daemon.wait_log("received unknown set request$")

    received = bytearray()
    sock.setblocking(False)

    def drained():
        with contextlib.suppress(BlockingIOError):
            while True:
                received.extend(sock.recv(65536))
        return studio.queued("daemon", 0) == 0 and studio.queued("peer", 1) == 0

    poll(drained, "everything read")
    # Answers in their order, each whole, cut short or not there at all.
    pieces = [DECLARATION + piece for piece in bytes(received).split(DECLARATION)[1:]]
    cut = 0
    rest = iter(expected)
    for piece in pieces:
        whole = next((text for text in rest if text.startswith(piece)), None)
        assert whole is not None, f"{piece} is the beginning of no answer that was due"
        cut += piece != whole
    assert cut > 0
    assert len(pieces) < len(expected)

    sock.setblocking(True)
    sock.sendall(request("after") + b"\n")
    assert AutomationPeer(sock).next_document() == answer("after")
    studio.check_air()


# ---- noise


def test_megabytes_without_a_tag_are_passed_over(studio):
    nearly = b"<Transactio n></Transaction </Transaction\n> <?xml?> \r\n"
    studio.pour(nearly * (2_000_000 // len(nearly)) + b"<")
    exchange(studio.peer, request("1") + b"\n", answer("1"))
    exchange(studio.peer, request("2") + b"\n", answer("2"))
    studio.check_air()


def test_binary_noise_is_passed_over(studio):
    for seed in range(4):
        binary = np.random.default_rng(seed).integers(0, 256, 100_000).astype(np.uint8).tobytes()
        # A zero byte takes with it what follows in the same read.
        exchange(studio.peer, binary + b"x" * READ_BYTES + request(seed) + b"\n", answer(seed))
    studio.check_air()


def test_zero_byte_drops_the_rest_of_its_read(studio):
    exchange(studio.peer, request("1") + b"\n\0" + request("2") + b"\n", answer("1"))
    studio.peer.send_raw(request("3")[:20] + b"\0\0lost")
    studio.wait_taken()
    exchange(studio.peer, request("3")[20:] + b"\n", answer("3"))
    exchange(studio.peer, b"\0" * 3 * READ_BYTES + b"x" * READ_BYTES + request("4") + b"\n", answer("4"))
    assert studio.peer.fence() == []
    studio.check_air()


# ---- what would harm the parser


def hostile_texts():
    yield "<Transaction>" + "<a>" * 34_000 + "</Transaction>"  # 100 kB: eight times what uses up the stack
    yield "<Transaction>" + "<a>" * 34_000 + "</a>" * 34_000 + "</Transaction>"
    attributes = " ".join(f'a{i}=""' for i in range(40_000))
    yield f"<Transaction {attributes}></Transaction>"  # 440 kB: seconds, if each name is compared with all before it
    yield f"<Transaction><Playlist {attributes}/></Transaction>"


def test_deep_nesting_and_many_attributes_are_refused_in_no_time(roomy_studio):
    for number, text in enumerate(hostile_texts()):
        roomy_studio.pour(text.encode())
        exchange(roomy_studio.peer, b"\n" + request(number) + b"\n", unparsed(text + "\n\n"), answer(number))
    roomy_studio.check_air()


def test_text_that_ends_in_the_beginning_of_a_character(studio):
    """The declaration makes it UTF-8, and the first byte of four is the last but for a newline."""
    behind = b"<?xml?><a>\xf0"
    ahead = b"x" * (len(behind) - 1)  # with the byte that stays in front, as much as is taken behind the tag's end
    text = (b"<Transaction/>" + behind + b"\n").decode("utf-8", "surrogateescape")
    exchange(studio.peer, ahead + b"<Transaction/>" + behind, unparsed(text))
    exchange(studio.peer, request("1") + b"\n", answer("1"))
    studio.check_air()


# ---- uploads


@pytest.mark.busy_core
def test_long_upload_is_whole_and_the_audio_comes_back(station, record_property):
    """Each item is a write of its own, and the audio loop waits for all of them."""
    count = 10_000
    studio = Studio(station, tcp_wmem="4096 16777216 16777216", tcp_rmem="4096 16777216 16777216").on_air()
    files = [f"{n:05}.wav" for n in range(count)]
    text = uploading("1", "Long", *files) + b"\n"
    studio.pour(text)
    began = time.monotonic()
    assert studio.peer.next_document(timeout=60) == uploaded("1", "Long", *files)
    took = time.monotonic() - began
    assert studio.entries("Long") == [(n, f"/mnt/usb/{file}") for n, file in enumerate(files, start=2)]
    studio.listen()
    recording = studio.recording()
    gap = sum(silences(recording)) / 48000
    record_property("seconds", round(took, 2))
    record_property("silence", round(gap, 2))
    print(f"upload of {count} items: {took:.2f} s, {gap:.2f} s of silence, {studio.card.underruns()} underruns")
    assert silences(recording[-24000:]) == []


def test_upload_of_a_usual_length_is_not_heard(studio):
    files = [f"{n}.wav" for n in range(20)]
    exchange(studio.peer, uploading("1", "Usual", *files) + b"\n", uploaded("1", "Usual", *files))
    exchange(studio.peer, uploading("2", "Usual", *files) + b"\n",
             uploaded("2", "Usual", *files, known=files, cleared=True))
    assert studio.entries("Usual") == [(n, f"/mnt/usb/{file}") for n, file in enumerate(files, start=2)]
    studio.check_air()


# ---- a host that refuses


def test_files_that_cannot_be_removed_are_told_with_the_reason(studio):
    usb = studio.daemon.usb
    (usb / "gone.wav").write_bytes(b"")
    (usb / "empty").mkdir()
    (usb / "full").mkdir()
    (usb / "full" / "inside").write_bytes(b"")
    for name in ("locked", "mounted"):
        (usb / name).mkdir()
    (usb / "locked" / "a.wav").write_bytes(b"")
    studio.within("mount", "--bind", "/mnt/usb/locked", "/mnt/usb/locked")
    studio.within("mount", "-o", "remount,bind,ro", "/mnt/usb/locked")
    studio.within("mount", "--bind", "/mnt/usb/mounted", "/mnt/usb/mounted")
    long_name = "l" * 256 + ".wav"
    fates = {
        "gone.wav": None, "empty": None, "missing.wav": errno.ENOENT, "full": errno.ENOTEMPTY,
        "locked/a.wav": errno.EROFS, "mounted": errno.EBUSY, "show.wav/a.wav": errno.ENOTDIR, long_name: errno.ENAMETOOLONG,
    }
    files = [*fates, "gone.wav"]  # the second time it is not there any more
    exchange(studio.peer, uploading("1", "Doomed", *files) + b"\n",
             answer("1", "uploadPlaylist", lines=[
                 "Created new playlist Doomed",
                 *itertools.chain.from_iterable((f"Adding audio item /mnt/usb/{file} to local library",
                                                 f"Adding audio item /mnt/usb/{file} to playlist") for file in fates),
                 "Adding audio item /mnt/usb/gone.wav to playlist", ""]))
    told = [f"  Deleting /mnt/usb/{file} " + ("OK" if fate is None else f"ERROR: {os.strerror(fate)}")
            for file, fate in [*fates.items(), ("gone.wav", errno.ENOENT)]]
    exchange(studio.peer, deleting("2", "Doomed", deleteAudioFiles="YES") + b"\n",
             answer("2", "deletePlaylists", lines=["Deleting playlist Doomed and associated audio files", *told, ""]))
    assert sorted(path.name for path in usb.iterdir()) == ["full", "locked", "mounted", "show.wav"]
    assert (usb / "locked" / "a.wav").exists()
    assert studio.playlists() == ["Show"]
    studio.check_air()


def test_file_on_air_plays_on_after_it_was_deleted(studio):
    exchange(studio.peer, deleting("1", "Show", deleteAudioFiles="yes") + b"\n",
             answer("1", "deletePlaylists", lines=["Deleting playlist Show and associated audio files",
                                                   f"  Deleting {SHOW} OK", ""]))
    assert studio.playlists() == []
    studio.check_air()


class HiddenDatabase(Studio):
    """The database is in a file system that the daemon's mount namespace alone has."""

    READ = """
import json, sqlite3, sys
print(json.dumps(sqlite3.connect(sys.argv[1], timeout=10).execute(sys.argv[2], sys.argv[3:]).fetchall()))
"""

    def rows(self, statement, *values):
        return [tuple(row) for row in json.loads(self.within(sys.executable, "-c", self.READ, self.daemon.database,
                                                             statement, *values))]


def fill(directory):
    with open(directory / "ballast", "wb", buffering=0) as ballast, contextlib.suppress(OSError):
        while True:
            ballast.write(bytes(4096))


def test_full_disk_costs_what_would_be_written_and_nothing_on_air(station):
    studio = HiddenDatabase(station)
    folder = studio.daemon.database.parent
    folder.mkdir()
    studio.within("mount", "-t", "tmpfs", "-o", "size=512k", "tmpfs", folder)
    studio.on_air()
    assert studio.as_played() == [SHOW]
    inside = pathlib.Path(f"/proc/{studio.daemon.pid}/root{folder}")
    fill(inside)

    exchange(studio.peer, uploading("1", "New", "show.wav") + b"\n", answer("1", "uploadPlaylist"))
    exchange(studio.peer, uploading("2", "Show", "show.wav", "new.wav") + b"\n",
             uploaded("2", "Show", "show.wav", "new.wav", known=["show.wav"], cleared=True))
    exchange(studio.peer, deleting("3", "Show") + b"\n",
             answer("3", "deletePlaylists", lines=["Deleting playlist Show and keeping audio files", ""]))
    exchange(studio.peer, request("4", inside='<Parameters delete="yes"/>') + b"\n", DECLARATION +
             b'<Transaction type="response" command="getAsPlayedLog" transactionNumber="4" status="success">\n'
             b'  <Info entriesInLog="1" numEntries="0" />\n</Transaction>')
    studio.daemon.wait_log(rf"Playlist insert/update failed\. error-code {DISK_FULL}$")
    assert studio.playlists() == ["Show"]
    assert studio.entries("Show") == [(2, SHOW)]
    studio.listen()

    # A start writes the as-played log, in vain; the studio is told all the same.
    studio.daemon.mark()
    exchange(studio.peer, starting("5", "Show") + b"\n", playing_now("Show", SHOW), answer("5", "startPlaylist"))
    studio.daemon.wait_log(rf"As played log entry failed {DISK_FULL}$")
    assert studio.as_played() == [SHOW]
    studio.listen()

    (inside / "ballast").unlink()
    exchange(studio.peer, uploading("6", "New", "show.wav") + b"\n",
             uploaded("6", "New", "show.wav", known=["show.wav"]))
    exchange(studio.peer, starting("7", "Show") + b"\n", playing_now("Show", SHOW), answer("7", "startPlaylist"))
    assert studio.as_played() == [SHOW, SHOW]
    assert studio.rows("PRAGMA integrity_check") == [("ok",)]
    studio.listen()
    studio.daemon.kill()
    recordings = studio.card.recordings()
    assert len(recordings) == 3
    for number in range(3):
        assert silences(station.recording(number)) == []
    assert studio.card.underruns() == 0


@contextlib.contextmanager
def locked(database, kind):
    """This process holds the database: "IMMEDIATE" against writers, "EXCLUSIVE" against readers too."""
    with contextlib.closing(sqlite3.connect(database, isolation_level=None, timeout=10)) as holder:
        holder.execute(f"BEGIN {kind}")
        yield


BUSY_SECONDS = 0.3  # how long the daemon waits for a lock, at each statement


def waited(peer, text, *expected):
    """Exchanges the texts; the seconds that it took."""
    began = time.monotonic()
    exchange(peer, text, *expected)
    return time.monotonic() - began


def test_database_locked_for_writing_costs_the_write_and_is_not_heard(studio):
    with locked(studio.daemon.database, "IMMEDIATE"):
        took = waited(studio.peer, uploading("1", "New", "show.wav") + b"\n", answer("1", "uploadPlaylist"))
        assert took >= BUSY_SECONDS - 0.01
    studio.daemon.wait_log(rf"Playlist insert/update failed\. error-code {BUSY}$")
    assert studio.playlists() == ["Show"]
    exchange(studio.peer, uploading("2", "New", "show.wav") + b"\n",
             uploaded("2", "New", "show.wav", known=["show.wav"]))
    studio.check_air()


def test_database_locked_for_reading_hides_the_playlists_and_is_not_heard(studio):
    with locked(studio.daemon.database, "EXCLUSIVE"):
        took = waited(studio.peer, starting("1", "Show") + b"\n", not_found("1", "Show"))
        assert took >= BUSY_SECONDS - 0.01
    studio.listen()
    exchange(studio.peer, deleting("2", "Show", clearAsPlayedLog="no") + b"\n",
             answer("2", "deletePlaylists", lines=["Deleting playlist Show and keeping audio files", ""]))
    studio.check_air()


def test_item_that_goes_on_air_while_the_database_is_locked_is_told_and_not_logged(station):
    studio = Studio(station)
    # The next item is connected when the first has been read, seconds after the database is locked.
    files = [studio.file("blip.wav", 37 * playoutModel.FILE_PERIOD - 255), studio.file("next.wav", 480000)]
    station.boot()
    peer = studio.seat()
    exchange(peer, uploading("1", "Two", "blip.wav", "next.wav") + b"\n", uploaded("1", "Two", "blip.wav", "next.wav"))
    exchange(peer, starting("2", "Two") + b"\n", playing_now("Two", "/mnt/usb/blip.wav"), answer("2", "startPlaylist"))
    with locked(studio.daemon.database, "IMMEDIATE"):
        assert peer.next_document() == playing_now("Two", "/mnt/usb/next.wav")
    studio.daemon.wait_log(rf"As played log entry failed {BUSY}$")
    assert studio.as_played() == ["/mnt/usb/blip.wav"]
    station.wait_frames(FIRST_SOUND + 38 * playoutModel.FILE_PERIOD)
    assert len(playoutModel.explain(studio.recording(), files, FILTER)) == 2
    assert studio.card.underruns() == 0


# ---- on air


def test_each_item_that_goes_on_air_is_told_to_the_studio(station):
    studio = Studio(station)
    names = ["a &amp; b.wav", "fr\u00fch.wav", "c&apos;s &quot;c&quot;.wav"]
    paths = ["/mnt/usb/a & b.wav", "/mnt/usb/fr\u00fch.wav", '/mnt/usb/c\'s "c".wav']
    files = [studio.file(path.removeprefix("/mnt/usb/"), 7937) for path in paths]
    station.boot()
    peer = studio.seat()
    peer.send_raw(uploading("1", "Fr\u00fch &amp; sp\u00e4t", *names) + b"\n")
    peer.next_document()
    peer.send_raw(starting("2", "Fr\u00fch &amp; sp\u00e4t") + b"\n")
    expected = [playing_now("Fr\u00fch & sp\u00e4t", path) for path in paths * 3]
    assert peer.next_document() == expected[0]
    assert peer.next_document() == answer("2", "startPlaylist")
    assert [peer.next_document() for _ in expected[1:]] == expected[1:]
    assert studio.as_played()[:9] == paths * 3
    studio.listen()
    assert len(playoutModel.explain(studio.recording(), files * 5, FILTER)) >= 4
    assert studio.card.underruns() == 0


def test_playing_now_can_be_turned_off_and_on_while_the_log_goes_on(station):
    studio = Studio(station)
    for name in ("a.wav", "b.wav"):
        studio.file(name, 7937)
    station.boot()
    peer = studio.seat()
    exchange(peer, uploading("1", "Two", "a.wav", "b.wav") + b"\n", uploaded("1", "Two", "a.wav", "b.wav"))
    documents = [playing_now("Two", f"/mnt/usb/{name}") for name in ("a.wav", "b.wav")]
    exchange(peer, starting("2", "Two") + b"\n", documents[0], answer("2", "startPlaylist"), documents[1])

    def switch(attribute):
        peer.transaction("getAsPlayedLog", ("Parameters", [("maxLogEntries", "1"), *attribute], ()))
        peer.others()

    for attribute in ([("enablePlayingNow", "no")], [], [("enablePlayingNow", "maybe")]):
        switch(attribute)
        count = len(studio.as_played())
        poll(lambda: len(studio.as_played()) > count, "an item in the log")
        assert peer.fence() == []
    switch([("enablePlayingNow", "YES")])
    told = [peer.next_document() for _ in range(4)]
    first = documents.index(told[0])
    assert told == [documents[(first + n) % 2] for n in range(4)]
    assert studio.card.underruns() == 0


def test_start_stop_and_another_start_are_heard(station):
    studio = Studio(station)
    files = {name: studio.file(name, frames) for name, frames in (("one.wav", 50_000), ("two.wav", 60_000))}
    station.boot()
    peer = studio.seat()
    assert studio.card.closed()
    for number, name in enumerate(files):
        exchange(peer, uploading(number, f"List {number}", name) + b"\n", uploaded(number, f"List {number}", name))

    def reply(text):
        """What answers; each round of a file is told too, before and behind it."""
        peer.send_raw(text + b"\n")
        return next(document for document in iter(peer.next_document, None) if b'type="info"' not in document)

    def start(number):
        assert reply(starting("s", f"List {number}")) == answer("s", "startPlaylist")
        station.wait_frames(FIRST_SOUND + 4800)

    start(0)
    assert reply(starting("x", "none")) == not_found("x", "none")
    studio.listen()  # it plays on
    start(1)  # takes its place
    stop = b'<Transaction type="request" command="stopPlaylist" transactionNumber="p"/>'
    for text in (stop, stop.replace(b"/>", b"></Transaction>")):  # nothing to stop is no failure
        assert reply(text) == answer("p", "stopPlaylist")
        assert studio.card.closed()
    start(0)
    studio.daemon.kill()
    for number, name in enumerate(["one.wav", "two.wav", "one.wav"]):
        playoutModel.explain(station.recording(number), [files[name]] * 3, FILTER)
    assert studio.card.underruns() == 0
