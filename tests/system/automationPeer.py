"""
The studio's end of the automation connection, for system tests: the client library behind a few calls.

    from automationPeer import AutomationPeer, element

    peer = AutomationPeer(daemon.connect(8500))       # takes the socket over
    peer = AutomationPeer.seat(daemon)                # the same

    answer = peer.transaction("deletePlaylists", element("Playlist", name="Morning", clearAsPlayedLog="no"))
    answer.status, answer.command, answer.number      # "ERROR", "deletePlaylists", the number sent
    answer.log                                        # lines of the TransactionLog: ["Deleting playlist ...", "  ERROR: ..."]
    answer.xml                                        # xml.etree element of the Transaction
    answer.raw                                        # the bytes, from "<?xml" to the last ">" (the newline behind goes)

    peer.transaction("uploadPlaylist", element("Playlist", element("PlaylistItem", filename="a.wav"), name="Morning"))
    peer.send("stopPlaylist", type="other")           # sends, awaits nothing, answers the number
    peer.send_raw(b"<Transaction ...></Transaction>\\n")
    peer.next_document(timeout=5)                     # bytes of whatever comes next; TimeoutError, PeerClosed, Cut
    peer.next_answer()                                # the same as an Answer
    peer.others()                                     # Answers that came before the awaited ones: playingNow and such
    peer.fence()                                      # everything that the server had to say up to now, as Answers
    peer.wait_closed()                                # until the server has closed: the seat was taken

Numbers are made by the library and never repeat; `number=` gives one. Nothing is sent but what is asked for: no flush
of what an earlier peer left behind, unless `flush=True`. Times are in seconds.

Nothing sleeps: that a thing does not come is shown by fence(), which has an unknown command answered and hands out what
came before that answer.
"""

import ctypes
import os
import pathlib
import xml.etree.ElementTree as ElementTree

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ.get("AUDIOPLAYER_BUILD") or ROOT / "build" / "release").resolve()
LIBRARY = BUILD / "tools" / "automationClient" / "libautomationClientC.so"

AUTOMATION_PORT = 8500
DEFAULT_TIMEOUT = 15.0

OK, TIMEOUT, CLOSED, CUT, OVERSIZE, FAILED = 0, -1, -2, -3, -4, -5


class PeerClosed(ConnectionError):
    """The server closed the connection, and everything it sent has been handed out."""


class Cut(Exception):
    """A document whose rest was lost."""


_library = None


def _load():
    global _library
    if _library is None:
        library = ctypes.CDLL(str(LIBRARY))
        pointer, text, size, number = ctypes.c_void_p, ctypes.c_char_p, ctypes.c_size_t, ctypes.c_int
        out_size, out_int = ctypes.POINTER(ctypes.c_size_t), ctypes.POINTER(ctypes.c_int)
        for name, result, arguments in (
                ("Adopt", pointer, [number]),
                ("Free", None, [pointer]),
                ("SendRaw", number, [pointer, text, size, number]),
                ("Next", number, [pointer, number]),
                ("Send", number, [pointer, pointer, number, number]),
                ("Transact", number, [pointer, pointer, number, number]),
                ("Document", pointer, [pointer, out_size, out_int]),
                ("Number", text, [pointer]),
                ("TakeOther", number, [pointer]),
                ("Pending", size, [pointer]),
                ("Error", text, [pointer]),
                ("Log", pointer, [pointer, out_size]),
                ("RequestNew", pointer, [text, text, text]),
                ("RequestFree", None, [pointer]),
                ("RequestElement", number, [pointer, number, text]),
                ("RequestAttribute", number, [pointer, number, text, text])):
            function = getattr(library, "automationPeer" + name)
            function.restype, function.argtypes = result, arguments
        _library = library
    return _library


def _bytes(text):
    return text if isinstance(text, bytes) else str(text).encode()


def element(name, /, *children, **attributes):
    """An element of a transaction: element("Playlist", element("PlaylistItem", filename="a.wav"), name="Morning")."""
    return name, list(attributes.items()), children


class Answer:
    """A document of the server."""

    def __init__(self, raw, log=b"", cut=False):
        self.raw = raw
        self.cut = cut
        self.log = log.decode(errors="replace").splitlines()

    @property
    def xml(self):
        return ElementTree.fromstring(self.raw)

    def __getattr__(self, name):
        if name not in ("type", "command", "status", "number"):
            raise AttributeError(name)
        return self.xml.get("transactionNumber" if name == "number" else name)

    def __repr__(self):
        return f"Answer({self.raw!r})"


class AutomationPeer:
    def __init__(self, sock):
        """Takes a connected socket over."""
        self._library = _load()
        self._peer = self._library.automationPeerAdopt(sock.detach())

    @classmethod
    def seat(cls, daemon, port=AUTOMATION_PORT, timeout=DEFAULT_TIMEOUT):
        """Connects inside the daemon's namespace, as soon as the server is there."""
        return cls(daemon.connect(port, timeout))

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def __del__(self):
        self.close()

    def close(self):
        if getattr(self, "_peer", None):
            self._library.automationPeerFree(self._peer)
            self._peer = None

    # -- sending

    def send_raw(self, data, timeout=DEFAULT_TIMEOUT):
        data = _bytes(data)
        self._check(self._library.automationPeerSendRaw(self._open(), data, len(data), int(timeout * 1000)))

    def send(self, command, /, *children, number=None, type="request", flush=False, timeout=DEFAULT_TIMEOUT, **attributes):
        """Sends a transaction without awaiting an answer; its number."""
        self._with_request(self._library.automationPeerSend, command, children, number, type, flush, timeout, attributes)
        return self._library.automationPeerNumber(self._peer).decode()

    def transaction(self, command, /, *children, number=None, type="request", flush=False, timeout=DEFAULT_TIMEOUT,
                    **attributes):
        """Sends a transaction and waits for the answer with its number; what comes before goes to others()."""
        self._with_request(self._library.automationPeerTransact, command, children, number, type, flush, timeout,
                           attributes)
        return self._document()

    # -- receiving

    def next_document(self, timeout=DEFAULT_TIMEOUT):
        """The bytes of the next document that comes; raises Cut for a piece of one."""
        answer = self.next_answer(timeout)
        if answer.cut:
            raise Cut(answer.raw)
        return answer.raw

    def next_answer(self, timeout=DEFAULT_TIMEOUT):
        """The next document that comes, whatever it is."""
        self._check(self._library.automationPeerNext(self._open(), int(timeout * 1000)))
        return self._document()

    def others(self):
        """The documents that came while transaction() waited, oldest first; each is handed out once."""
        found = []
        while self._library.automationPeerTakeOther(self._open()):
            found.append(self._document())
        return found

    def infos(self):
        """others(), those of type "info" only; the rest is dropped."""
        return [answer for answer in self.others() if answer.type == "info"]

    def fence(self, timeout=DEFAULT_TIMEOUT):
        """Has an unknown command answered; the documents that came before that answer. It sets the server's last
        command to "fence", type and number too."""
        before = self.others()
        self.transaction("fence", timeout=timeout)
        return before + self.others()

    def pending(self):
        """Bytes of a document that has begun to come and not ended."""
        return self._library.automationPeerPending(self._open())

    def wait_closed(self, timeout=DEFAULT_TIMEOUT):
        """Waits until the server has closed; the documents that came before."""
        found = []
        while True:
            try:
                found.append(self.next_answer(timeout))
            except PeerClosed:
                return found

    # -- within

    def _open(self):
        assert self._peer, "the peer is closed"
        return self._peer

    def _with_request(self, call, command, children, number, type, flush, timeout, attributes):
        request = self._library.automationPeerRequestNew(_bytes(type), _bytes(command),
                                                         None if number is None else _bytes(number))
        try:
            self._attributes(request, -1, attributes.items())
            self._children(request, -1, children)
            self._check(call(self._open(), request, int(flush), int(timeout * 1000)))
        finally:
            self._library.automationPeerRequestFree(request)

    def _attributes(self, request, index, attributes):
        for name, value in attributes:
            self._library.automationPeerRequestAttribute(request, index, _bytes(name), _bytes(value))

    def _children(self, request, parent, children):
        for name, attributes, grandchildren in children:
            index = self._library.automationPeerRequestElement(request, parent, _bytes(name))
            self._attributes(request, index, attributes)
            self._children(request, index, grandchildren)

    def _document(self):
        size, cut = ctypes.c_size_t(), ctypes.c_int()
        raw = ctypes.string_at(self._library.automationPeerDocument(self._peer, size, cut), size.value)
        log = ctypes.string_at(self._library.automationPeerLog(self._peer, size), size.value)
        return Answer(raw, log, bool(cut.value))

    def _check(self, result):
        if result == OK:
            return
        text = self._library.automationPeerError(self._peer).decode(errors="replace")
        kind = {TIMEOUT: TimeoutError, CLOSED: PeerClosed, CUT: Cut}.get(result, OSError)
        raise kind(text)
