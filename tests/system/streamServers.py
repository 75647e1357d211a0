"""Servers of internet streams for system tests, inside the namespaces of a Daemon and reached on its 127.0.0.1.

Real ones:

    icecast = Icecast(daemon, port=8000)
    source = icecast.source("live.mp3", tone(directory, rate=44100))   # a studio's encoder, at real time
    web = Nginx(daemon, files={"live.pls": pls(["http://127.0.0.1:8000/live.mp3"])}, port=8080)

Scripted ones, which do as a test says: a function that is called, on a thread of its own, for each connection.

    def answer(peer):
        peer.send(HEADER)
        peer.play(audio, seconds=5)        # at real time, by a clock that may be off
        peer.pause(1.0)                    # sends nothing; so do fall_silent() and hold()
        peer.close()

    server = ScriptedServer(daemon, answer, port=8000)
    server.requests                        # the request lines that have come, in order

What a studio's encoder or a server sends is MP3 frames of a recorded length, repeated without a seam.
Everything ends with close(), or with the namespaces.
"""

import base64
import os
import pathlib
import re
import select
import shutil
import socket
import subprocess
import threading
import time

import numpy as np

from station import sine, wav_bytes

# The header of a stream as Icecast and Shoutcast send it.
HEADER = b"HTTP/1.0 200 OK\r\nContent-Type: audio/mpeg\r\nicy-name: Test\r\n\r\n"
ICY_HEADER = b"ICY 200 OK\r\nicy-name:Test\r\ncontent-type:audio/mpeg\r\nicy-br:128\r\n\r\n"

# How a Shoutcast server refuses the whole URL as a path, and how an older Icecast does.
SHOUTCAST_REFUSAL = b"ICY 404 Resource Not Found\r\nicy-notice1:<BR>SHOUTcast Distributed Network Audio Server<BR>\r\n\r\n"
BAD_REQUEST = b"HTTP/1.0 400 Bad Request\r\n\r\n<b>Bad request</b>\r\n"

TICK_SECONDS = 0.02  # how often a clocked sender looks at what is due
POLL_SECONDS = 0.005


# -- what is sent -------------------------------------------------------------------------------------------------------


class Mp3Audio:
    """MP3 frames for a sender: `frames` is a list of bytes, each `frame_samples` long at `rate`."""

    def __init__(self, data):
        self.frames, self.rate, self.channels = split_frames(data)
        self.frame_samples = 1152 if self.rate >= 32000 else 576
        self.seconds_per_frame = self.frame_samples / self.rate

    def bytes(self, first, count):
        """`count` frames from place `first` of the endless repetition."""
        return b"".join(self.frames[n % len(self.frames)] for n in range(first, first + count))

    def bytes_per_second(self):
        return sum(map(len, self.frames)) / len(self.frames) / self.seconds_per_frame


_BIT_RATES = {1: (0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320),
              2: (0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160)}  # kbit/s, layer III, ISO 11172-3 and 13818-3
_SAMPLE_RATES = {3: (44100, 48000, 32000), 2: (22050, 24000, 16000), 0: (11025, 12000, 8000)}


def split_frames(data):
    """The MPEG layer III frames of `data`, which holds nothing else; with them rate and channels."""
    frames, position, rate, channels = [], 0, 0, 0
    while position + 4 <= len(data):
        head = int.from_bytes(data[position : position + 4], "big")
        assert head >> 21 == 0x7FF and (head >> 17) & 3 == 1, f"no layer III frame at {position}"
        version = (head >> 19) & 3
        rate = _SAMPLE_RATES[version][(head >> 10) & 3]
        kilobits = _BIT_RATES[1 if version == 3 else 2][(head >> 12) & 15]
        length = (144 if version == 3 else 72) * kilobits * 1000 // rate + ((head >> 9) & 1)
        channels = 1 if (head >> 6) & 3 == 3 else 2
        if position + length > len(data):
            break
        frames.append(data[position : position + length])
        position += length
    return frames, rate, channels


def encode(directory, samples, rate, kbps=128):
    """The MP3 frames of `samples`: constant bit rate, each frame decodable on its own, no tag frame."""
    directory = pathlib.Path(directory)
    wav = directory / f"encode-{threading.get_ident()}-{time.monotonic_ns()}.wav"
    wav.write_bytes(wav_bytes(samples, rate))
    done = subprocess.run(["lame", "--quiet", "-t", "--nores", "--cbr", "-b", str(kbps), "--resample", str(rate / 1000),
                           "-m", "m" if samples.shape[1] == 1 else "j", wav, "-"], check=True, capture_output=True)
    wav.unlink()
    return Mp3Audio(done.stdout)


def tone(directory, rate=44100, channels=2, kbps=128, seconds=2.0, frequency=None):
    """A sine that ends where it begins, 1000 Hz or the next that does so in one MP3 frame's time."""
    frame = 1152 if rate >= 32000 else 576
    count = max(int(seconds * rate / frame), 4)
    cycles = round((frequency or 1000.0) * frame / rate)
    samples = sine(frame * (count + 4), rate, cycles * rate / frame, channels)
    audio = encode(directory, samples, rate, kbps)
    audio.frames = audio.frames[3 : count]  # away from the encoder's run-in and run-out
    audio.frequency = cycles * rate / frame
    return audio


def pls(urls, count=None, titles=True):
    lines = ["[playlist]", f"numberofentries={len(urls) if count is None else count}"]
    for number, url in enumerate(urls, 1):
        lines.append(f"File{number}={url}")
        if titles:
            lines += [f"Title{number}=Entry {number}", f"Length{number}=-1"]
    return ("\r\n".join(lines) + "\r\nVersion=2\r\n").encode()


def m3u(urls):
    return "".join(["#EXTM3U\r\n"] + [f"#EXTINF:-1,Entry\r\n{url}\r\n" for url in urls]).encode()


def xspf(urls):
    tracks = "".join(f"<track>\n<location>{url}</location>\n</track>\n" for url in urls)
    return ('<?xml version="1.0" encoding="UTF-8"?>\n<playlist version="1" xmlns="http://xspf.org/ns/0/">\n'
            f"<title>Entries</title>\n<trackList>\n{tracks}</trackList>\n</playlist>\n").encode()


def http_answer(content_type, body, first_line="HTTP/1.1 200 OK"):
    return (f"{first_line}\r\nServer: Test\r\nContent-Type: {content_type}\r\n"
            f"Content-Length: {len(body)}\r\nConnection: close\r\n\r\n").encode() + body


# -- clocks -------------------------------------------------------------------------------------------------------------


class FrameClock:
    """Says how many MP3 frames are due at a sender whose clock is off by `ppm`."""

    def __init__(self, audio, ppm=0.0, ahead_seconds=0.0):
        self._per_second = (1.0 + ppm * 1e-6) / audio.seconds_per_frame
        self._began = time.monotonic() - ahead_seconds

    def due(self):
        return int((time.monotonic() - self._began) * self._per_second)


def real_time_thread():
    """Lets the calling thread go before ordinary ones: a sender's clock is not to be a busy machine's."""
    try:
        os.sched_setscheduler(0, os.SCHED_FIFO, os.sched_param(50))
    except PermissionError:
        pass


# -- scripted servers ---------------------------------------------------------------------------------------------------


class Gone(Exception):
    """The other side has closed the connection, or the server ends."""


class Peer:
    """One connection of a ScriptedServer. `request` is the request line's middle: "/live.mp3" or a whole URL."""

    def __init__(self, server, sock, number):
        self.server, self._sock = server, sock
        self.number = number  # counts connections, from 0
        self.frame = 0        # the next frame of play()
        self.head = b""
        self.request = ""

    def read_request(self):
        self._sock.settimeout(0.2)
        while b"\r\n\r\n" not in self.head:
            try:
                piece = self._sock.recv(4096)
            except socket.timeout:
                self._check()
                continue
            except OSError:
                raise Gone from None
            if not piece:
                raise Gone
            self.head += piece
        self.request = self.head.split(b"\r\n")[0].decode("latin1").split(" ")[1]

    def send(self, data):
        view = memoryview(data)
        while view:
            self._check()
            try:
                view = view[self._sock.send(view) :]
            except socket.timeout:
                continue
            except OSError:
                raise Gone from None

    def play(self, audio, seconds=None, ppm=0.0, ahead_seconds=0.5, after=None):
        """Sends frames at real time; `ahead_seconds` of them at once, as servers do. Without `seconds`, until it ends;
        with an event `after`, for so many seconds when that has come."""
        clock, first = FrameClock(audio, ppm, ahead_seconds), self.frame
        count = None if seconds is None else round((seconds + ahead_seconds) / audio.seconds_per_frame)
        last = None if count is None or after is not None else first + count
        while last is None or self.frame < last:
            if last is None and count is not None and after.is_set():
                last = self.frame + count
            due = first + clock.due()
            due = due if last is None else min(due, last)
            if due > self.frame:
                self.send(audio.bytes(self.frame, due - self.frame))
                self.frame = due
            self.pause(TICK_SECONDS)

    def pause(self, seconds):
        """Sends nothing; notices when the other side goes."""
        deadline = time.monotonic() + seconds
        while True:
            self._check()
            left = deadline - time.monotonic()
            if left <= 0:
                return
            if self.server.ending.wait(min(left, TICK_SECONDS)):
                raise Gone

    def wait(self, event):
        while not event.wait(POLL_SECONDS):
            self._check()

    def hold(self):
        """Sends nothing until the other side goes or the server ends."""
        while True:
            self.pause(1.0)

    def close(self):
        """Closes the connection in order: the other side reads what was sent, and then its end."""
        try:
            self._sock.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass
        self._sock.close()

    def reset(self):
        """Breaks the connection off, as a server that loses its power does."""
        self._sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\x01\0\0\0\0\0\0\0")
        self._sock.close()

    def _check(self):
        if self.server.ending.is_set():
            raise Gone
        try:
            if select.select([self._sock], [], [], 0)[0] and not self._sock.recv(1, socket.MSG_PEEK):
                raise Gone
        except OSError:
            raise Gone from None


class ScriptedServer:
    """Calls `answer(peer)` for each connection; without a request within reach it is called all the same on close()."""

    def __init__(self, daemon, answer, port=8000):
        self.answer = answer
        self.requests = []
        self.ending = threading.Event()
        self.failure = None
        self._connections = []
        self._listener = daemon.listen(port, backlog=64)
        self._listener.settimeout(0.2)
        self._thread = threading.Thread(target=self._accept, daemon=True)
        self._thread.start()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        self.ending.set()
        self._thread.join()
        for thread in self._connections:
            thread.join()
        self._listener.close()
        if self.failure is not None:
            raise self.failure

    def _accept(self):
        number = 0
        while not self.ending.is_set():
            try:
                sock, _ = self._listener.accept()
            except socket.timeout:
                continue
            sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            self._connections = [thread for thread in self._connections if thread.is_alive()]
            thread = threading.Thread(target=self._serve, args=(sock, number), daemon=True)
            self._connections.append(thread)
            thread.start()
            number += 1

    def _serve(self, sock, number):
        real_time_thread()
        peer = Peer(self, sock, number)
        try:
            peer.read_request()
            self.requests.append(peer.request)
            self.answer(peer)
        except Gone:
            pass
        except Exception as error:  # close() raises it in the test's own thread
            self.failure = error
        finally:
            sock.close()


class Shoutcast:
    """What a Shoutcast server answers: refuses a whole URL, streams "/", and gives its list as `.pls` where asked.

    It is an `answer` of ScriptedServer: Shoutcast(audio, playlist=[urls]).
    """

    def __init__(self, audio, playlist=None, ppm=0.0, **options):
        self.audio, self.playlist, self.ppm, self.options = audio, playlist, ppm, options

    def __call__(self, peer):
        if "://" not in peer.request:
            peer.send(ICY_HEADER)
            peer.play(self.audio, ppm=self.ppm, **self.options)
        elif self.playlist is not None and peer.request.lower().endswith(".pls"):
            peer.send(http_answer("audio/x-scpls", pls(self.playlist)))
        else:
            peer.send(SHOUTCAST_REFUSAL)


class Dropping:
    """A server that lists itself many times over, and drops each connection soon after it has begun to play."""

    def __init__(self, audio, entries, seconds=0.05):
        self.audio, self.entries, self.seconds, self.played = audio, entries, seconds, 0

    def __call__(self, peer):
        if "://" in peer.request:
            urls = [f"http://127.0.0.1:8000/{n}" for n in range(self.entries)]
            peer.send(http_answer("audio/x-mpegurl", m3u(urls)))
            peer.hold()  # the player loses what it has not yet taken when a server closes
        else:
            peer.send(HEADER)
            peer.play(self.audio, self.seconds, ahead_seconds=0.6)
            self.played += 1


# -- real servers -------------------------------------------------------------------------------------------------------


class RealServer:
    """A server program in the daemon's namespaces, with its files below the test's directory."""

    name = ""
    package = ""  # of Debian, which scripts/install-dependencies.sh installs

    def __init__(self, daemon, port):
        self.daemon, self.port = daemon, port
        self.directory = daemon.work_dir / f"{self.name}-{port}"
        self.directory.mkdir(parents=True)
        self._output = open(self.directory / "output.txt", "wb")
        self._process = None

    def start(self, argv, env=None):
        self._process = subprocess.Popen(self.daemon.command(argv, cwd=self.directory), stdin=subprocess.DEVNULL,
                                         stdout=self._output, stderr=subprocess.STDOUT,
                                         env={**self.daemon.env, **(env or {})})
        self.daemon.wait_until(lambda: self.daemon.bound(self.port, "tcp") or self._ended(), what=f"{self.name} listens")

    def _ended(self):
        if self._process.poll() is not None:
            raise AssertionError(f"{self.name} ended: {(self.directory / 'output.txt').read_text(errors='replace')}")
        return False

    def url(self, path):
        return f"http://127.0.0.1:{self.port}/{path}"

    def close(self):
        if self._process is not None and self._process.poll() is None:
            self._process.terminate()
            self._process.wait()
        self._output.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()


_ICECAST = """<icecast>
  <location>Test</location><admin>nobody</admin><hostname>127.0.0.1</hostname>
  <limits><clients>100</clients><sources>8</sources><queue-size>524288</queue-size><client-timeout>30</client-timeout>
    <header-timeout>15</header-timeout><source-timeout>10</source-timeout><burst-on-connect>{burst_on}</burst-on-connect>
    <burst-size>{burst}</burst-size></limits>
  <authentication><source-password>studio</source-password><relay-password>studio</relay-password>
    <admin-user>admin</admin-user><admin-password>studio</admin-password></authentication>
  <listen-socket><port>{port}</port><bind-address>127.0.0.1</bind-address></listen-socket>
  <fileserve>1</fileserve>
  <paths><basedir>{directory}</basedir><logdir>{directory}</logdir><webroot>{directory}/web</webroot>
    <adminroot>/usr/share/icecast2/admin</adminroot></paths>
  <logging><accesslog>access.log</accesslog><errorlog>error.log</errorlog><loglevel>3</loglevel></logging>
  <security><chroot>0</chroot></security>
</icecast>
"""


# The order of the last two varies.
_ICECAST_READY = ["server started", "YP update thread started", "No SSL capability on any configured ports"]


class Icecast(RealServer):
    """Icecast 2 as Debian has it; `burst` bytes go to a listener at once (65535 in Debian's configuration)."""

    name = "icecast2"
    package = "icecast2"

    def __init__(self, daemon, port=8000, burst=65535, files=None):
        super().__init__(daemon, port)
        # It refuses to run as root, and its user must reach the files whatever the test's directory allows.
        for folder in [self.directory, *self.directory.parents][:-2]:
            os.chmod(folder, os.stat(folder).st_mode | 0o011)
        (self.directory / "web").mkdir()
        for file, content in (files or {}).items():
            (self.directory / "web" / file).write_bytes(content)
        config = self.directory / "icecast.xml"
        config.write_text(_ICECAST.format(port=port, burst=burst, burst_on=int(burst > 0), directory=self.directory))
        shutil.chown(self.directory, "nobody", "nogroup")
        self._sources = {}
        self.start(["setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups", "--", "icecast2", "-c", config])
        # It listens before it is ready, and a peer of these milliseconds can take it down.
        daemon.wait_until(lambda: all(line in self._log() for line in _ICECAST_READY), what="icecast2 is ready")

    def _log(self):
        log = self.directory / "error.log"
        return log.read_text() if log.exists() else ""

    def source(self, mount, audio, ppm=0.0):
        """A studio's encoder on this mount point; answers when the server has taken it."""
        self._sources[mount] = IcecastSource(self.daemon, self.port, mount, audio, ppm)
        return self._sources[mount]

    def silence(self, mount):
        """Switches the encoder of a mount point off, and answers when the server takes another one there."""
        self._sources.pop(mount).close()
        entry = f"<source mount=\"/{mount}\""
        self.daemon.wait_until(lambda: entry not in self._statistics(), what=f"{mount} is free")

    def _statistics(self):
        with self.daemon.socket() as sock:
            sock.settimeout(5)
            sock.connect(("127.0.0.1", self.port))
            password = base64.b64encode(b"admin:studio").decode()
            sock.sendall(f"GET /admin/stats HTTP/1.0\r\nAuthorization: Basic {password}\r\n\r\n".encode())
            return b"".join(iter(lambda: sock.recv(65536), b"")).decode()

    def close(self):
        for source in self._sources.values():
            source.close()
        super().close()


class IcecastSource:
    """An encoder that sends MP3 frames to an Icecast server at real time, by a clock that may be off."""

    def __init__(self, daemon, port, mount, audio, ppm=0.0):
        self._audio = audio
        self._ending = threading.Event()
        self._sock = daemon.socket()
        self._sock.settimeout(10)
        self._sock.connect(("127.0.0.1", port))
        password = base64.b64encode(b"source:studio").decode()
        self._sock.sendall((f"SOURCE /{mount} HTTP/1.0\r\nAuthorization: Basic {password}\r\nContent-Type: audio/mpeg\r\n"
                            "ice-name: Test\r\nice-public: 0\r\n\r\n").encode())
        answer = self._sock.recv(4096)
        assert b" 200 OK" in answer, answer
        # A server has heard its source for a while when a listener comes: enough for the reader's first 4096 bytes.
        self.sent = 0
        self._clock = FrameClock(audio, ppm, ahead_seconds=1.0)
        self._send_due()
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def close(self):
        """Ends the stream, as an encoder that is switched off."""
        if not self._ending.is_set():
            self._ending.set()
            self._thread.join()
            self._sock.close()

    def _run(self):
        real_time_thread()
        while not self._ending.wait(TICK_SECONDS):
            try:
                self._send_due()
            except OSError:
                return  # the server has ended

    def _send_due(self):
        due = self._clock.due()
        if due > self.sent:
            self._sock.sendall(self._audio.bytes(self.sent, due - self.sent))
            self.sent = due


class WebServer(RealServer):
    """A web server with `files` (name: bytes), and `proxied` (path: URL) if it is one that can."""

    def __init__(self, daemon, files=None, port=8080, proxied=None):
        super().__init__(daemon, port)
        self.www = self.directory / "www"
        self.www.mkdir()
        for folder in [self.directory, *self.directory.parents][:-2]:
            os.chmod(folder, os.stat(folder).st_mode | 0o011)
        for name, content in (files or {}).items():
            (self.www / name).write_bytes(content)
            os.chmod(self.www / name, 0o644)
        self.proxied = proxied or {}
        self.configure()

    def configure(self):
        raise NotImplementedError


class Apache(WebServer):
    """Apache with the MIME types that Debian gives it, or `types` (lines of AddType) beside them."""

    name = "apache2"
    package = "apache2-bin"

    def __init__(self, daemon, files=None, port=8080, proxied=None, types=""):
        self.types = types
        super().__init__(daemon, files, port, proxied)

    def configure(self):
        modules = {"mpm_event": "mpm_event", "authz_core": "authz_core", "mime": "mime"}
        if self.proxied:
            modules.update(proxy="proxy", proxy_http="proxy_http")
        lines = [f"LoadModule {module}_module /usr/lib/apache2/modules/mod_{file}.so" for module, file in modules.items()]
        lines += [f"ServerRoot {self.directory}", f"PidFile {self.directory}/pid", "ServerName 127.0.0.1",
                  f"Listen 127.0.0.1:{self.port}", f"ErrorLog {self.directory}/error.log", "TypesConfig /etc/mime.types",
                  f"DefaultRuntimeDir {self.directory}", f"DocumentRoot {self.www}", self.types,
                  f"<Directory {self.www}>\nRequire all granted\n</Directory>"]
        lines += [f"ProxyPass /{path} {url}" for path, url in self.proxied.items()]
        (self.directory / "apache.conf").write_text("\n".join(lines) + "\n")
        self.start(["apache2", "-DFOREGROUND", "-f", self.directory / "apache.conf"])


class Nginx(WebServer):
    """nginx with Debian's MIME types; `types` are lines for a types block that replaces the directory's."""

    name = "nginx"
    package = "nginx-light"

    def __init__(self, daemon, files=None, port=8080, proxied=None, types=""):
        self.types = types
        super().__init__(daemon, files, port, proxied)

    def configure(self):
        locations = "".join(f"location = /{path} {{ proxy_pass {url}; proxy_buffering off; }}\n"
                            for path, url in self.proxied.items())
        extra = f"types {{ {self.types} }}" if self.types else ""
        (self.directory / "nginx.conf").write_text(f"""daemon off; worker_processes 1; pid {self.directory}/pid;
error_log {self.directory}/error.log; user root;
events {{ worker_connections 64; }}
http {{
include /etc/nginx/mime.types; {extra} default_type application/octet-stream; access_log off;
client_body_temp_path {self.directory}/t1; proxy_temp_path {self.directory}/t2; fastcgi_temp_path {self.directory}/t3;
uwsgi_temp_path {self.directory}/t4; scgi_temp_path {self.directory}/t5;
server {{ listen 127.0.0.1:{self.port}; root {self.www};
{locations} }}
}}
""")
        self.start(["nginx", "-e", self.directory / "error.log", "-c", self.directory / "nginx.conf"])


class Lighttpd(WebServer):
    """lighttpd with the MIME types that Debian's configuration makes."""

    name = "lighttpd"
    package = "lighttpd"

    def configure(self):
        lines = [f'server.document-root = "{self.www}"', f"server.port = {self.port}", 'server.bind = "127.0.0.1"',
                 f'server.errorlog = "{self.directory}/error.log"', 'server.modules = ("mod_proxy")',
                 'include_shell "/usr/share/lighttpd/create-mime.conf.pl"']
        for path, url in self.proxied.items():
            host, port = url.split("/")[2].split(":")
            lines.append(f'$HTTP["url"] == "/{path}" {{ proxy.server = ("" => (("host" => "{host}", "port" => {port}))) }}')
            lines.append("server.stream-response-body = 2")
        (self.directory / "lighttpd.conf").write_text("\n".join(lines) + "\n")
        self.start(["lighttpd", "-D", "-f", self.directory / "lighttpd.conf"])


def request_of(url):
    """The first request that the player sends for this URL: the whole of it, and nothing more."""
    return f"GET {url} HTTP/1.0\r\n\r\n".encode()


def resources(daemon):
    """Resident KiB, descriptors and threads of the daemon."""
    status = pathlib.Path(f"/proc/{daemon.pid}/status").read_text()
    return (int(re.search(r"VmRSS:\s+(\d+)", status)[1]), len(os.listdir(f"/proc/{daemon.pid}/fd")),
            int(re.search(r"Threads:\s+(\d+)", status)[1]))


def heard(card):
    """Whether what leaves the card now is sound and no silence: its level over the last period, full scale 1.0."""
    return card.page.status()["rms0"] > 0.01


def tone_frequency(samples, rate):
    """The frequency of a sine to a few ppm, from the steps of its phase; `samples` is one channel."""
    count = len(samples) // 4096 * 4096
    window = np.hanning(4096)
    spectrum = np.abs(np.fft.rfft(samples[:4096] * window))
    rough = np.argmax(spectrum) * rate / 4096
    place = np.arange(count) / rate
    mixed = (samples[:count] * np.exp(-2j * np.pi * rough * place)).reshape(-1, 4096) @ window
    phase = np.unwrap(np.angle(mixed))
    slope = np.polyfit(np.arange(len(phase)), phase, 1)[0]
    return rough + slope * rate / 4096 / (2 * np.pi)
