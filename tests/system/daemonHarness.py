"""
Runs the real daemon for a system test, in a network and a mount namespace of its own.

    from daemonHarness import Daemon

    def test_something(daemon):                       # fixture of conftest.py: Daemon(tmp_path), closed afterwards
        daemon.start("-t", "2047")                    # the command line
        daemon.wait_bound()                           # from here on datagrams are kept
        daemon.start_source(7)                        # control datagrams on UDP 7004
        daemon.wait_log(r"received start request id = 7$")
        daemon.stop_source()
        daemon.send(b"\\x02")                          # any datagram
        peer = daemon.connect(8500)                   # a TCP connection into the namespace, as soon as it is accepted
        server = daemon.listen(8000)                  # a TCP server that the daemon reaches on 127.0.0.1
        sock = daemon.socket(socket.SOCK_DGRAM)       # any socket inside the namespace
        daemon.type("blocks\\n")                       # the debug console
        daemon.wait_output(r"Created Audio Blocks")
        daemon.kill(); daemon.start()                 # power cut and restart in the same namespaces and directories

Directories, all below the work directory that the test gives (its tmp_path):

    run/                    working directory of the daemon, so that
    audioplayerdatabase/    is its "../audioplayerdatabase"; Daemon.database is the file in it
    vorelk/, usb/           what the daemon sees as /vorelk and as /mnt/usb
    stdout.txt, stderr.txt  Daemon.output() and Daemon.log() read them; a restart appends

The namespaces exist from the construction to close(), so servers and files can be put in place before start().
Loopback is up in them and nothing else is there: tests run in parallel without sharing a port or a path.

Waiting: wait_log and wait_output look for a regular expression (re.MULTILINE) in what was written since the last
mark() and answer the match; wait_until polls any condition. They raise AssertionError with both texts when the time is
over, and at once when the daemon has ended and the text can't come any more. No test needs to sleep.

The binary is $AUDIOPLAYER_BUILD/src/AudioPlayer, build/release by default. The daemon inherits the environment, so a
virtual card that is set up there reaches it; `env` adds to it. Needs root (namespaces, real-time priority).
"""

import ctypes
import os
import pathlib
import re
import signal
import socket
import struct
import subprocess
import threading
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ.get("AUDIOPLAYER_BUILD") or ROOT / "build" / "release").resolve()
BINARY = BUILD / "src" / "AudioPlayer"

CONTROL_PORT = 7004
HEARTBEAT_PORT = 7009
AUTOMATION_PORT = 8500

# A date as the log writes it, then the type, the file, the line: the shape in front of every log text.
LOG_PREFIX = r"[A-Z][a-z]+ \d\d, \d{4} \d\d:\d\d:\d\d [AP]M \[%s\] %s \d+: "

POLL_SECONDS = 0.01
DEFAULT_TIMEOUT = 15.0

_CLONE_NEWNET = 0x40000000

# Holds the namespaces for as long as its standard input is open: they vanish with the test, however it ends.
_HOLDER = """
set -e
work=$1 network=$2
[ "$network" = down ] || ip link set lo up
mkdir -p /vorelk /mnt/usb
mount --bind "$work/vorelk" /vorelk
mount --bind "$work/usb" /mnt/usb
echo ready
exec cat
"""


def start_request(player_id):
    """The control datagram that starts the source with this id of T_Audio_Sources."""
    return struct.pack("<BIi", 2, 0x1202, player_id)


def stop_request():
    """The control datagram that stops what plays."""
    return struct.pack("<BI", 2, 0x1203)


def log_line(kind, file, text):
    """A regular expression for one whole log line: `text` is taken literally."""
    return "^" + LOG_PREFIX % (kind, re.escape(file)) + re.escape(text) + "$"


class Daemon:
    def __init__(self, work_dir, env=None, loopback=True):
        """Makes the directories and the namespaces. `env` adds to the environment; without loopback no datagram goes."""
        self.work_dir = pathlib.Path(work_dir).resolve()
        self.run_dir = self.work_dir / "run"
        self.vorelk = self.work_dir / "vorelk"
        self.usb = self.work_dir / "usb"
        self.database = self.work_dir / "audioplayerdatabase" / "audioDatabase.db"
        for directory in (self.run_dir, self.vorelk, self.usb):
            directory.mkdir(parents=True, exist_ok=True)
        coefficients = ROOT / "data" / "FilterCoeff.bin"
        if coefficients.exists() and not (self.run_dir / coefficients.name).exists():
            (self.run_dir / coefficients.name).symlink_to(coefficients)
        self.env = dict(os.environ, **(env or {}))
        self.process = None
        self._stdout = self.work_dir / "stdout.txt"
        self._stderr = self.work_dir / "stderr.txt"
        self._stdout.touch()
        self._stderr.touch()
        self._marks = {self._stdout: 0, self._stderr: 0}
        self._holder = subprocess.Popen(
            ["unshare", "--net", "--mount", "sh", "-c", _HOLDER, "sh", self.work_dir, "up" if loopback else "down"],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        if self._holder.stdout.readline() != "ready\n":
            raise RuntimeError("cannot make the namespaces (root is needed)")
        self._net = os.open(f"/proc/{self._holder.pid}/ns/net", os.O_RDONLY)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    # -- the process ------------------------------------------------------------------------------------------------

    def command(self, argv, cwd=None):
        """The command line that runs `argv` inside the namespaces; the process keeps its id through every exec."""
        return ["nsenter", "--target", str(self._holder.pid), "--net", "--mount", "--",
                "sh", "-c", 'cd "$1" && shift && exec "$@"', "sh", str(cwd or self.run_dir), *map(str, argv)]

    def start(self, *arguments, stdin=subprocess.PIPE, wrapper=(), binary=None):
        """Starts the daemon with these arguments. `wrapper` is a command before it, such as ("setpriv", ...)."""
        assert self.process is None or self.process.poll() is not None, "already running"
        with open(self._stdout, "ab") as out, open(self._stderr, "ab") as err:
            self.process = subprocess.Popen(self.command([*wrapper, binary or BINARY, *arguments]), stdin=stdin,
                                            stdout=out, stderr=err, env=self.env)
        return self

    def run(self, *argv, **options):
        """Runs another program inside the namespaces to its end and answers the CompletedProcess (text, captured)."""
        options = {"capture_output": True, "text": True, "timeout": 60, "env": self.env, **options}
        return subprocess.run(self.command(argv), **options)

    @property
    def pid(self):
        return self.process.pid

    def alive(self):
        return self.process is not None and self.process.poll() is None

    def wait_exit(self, timeout=DEFAULT_TIMEOUT):
        """Waits for the daemon's own end; the exit status, negative for a signal."""
        return self.process.wait(timeout)

    def kill(self):
        """Kills the daemon outright, as a power cut would."""
        self._end(signal.SIGKILL)

    def stop(self):
        """Ends the daemon by SIGTERM, which it does not handle."""
        self._end(signal.SIGTERM)

    def pids(self):
        """Every process in the network namespace but the holder: how a daemon that detached itself is found."""
        mine = os.fstat(self._net).st_ino
        found = []
        for entry in os.listdir("/proc"):
            try:
                if entry.isdigit() and os.stat(f"/proc/{entry}/ns/net").st_ino == mine:
                    found.append(int(entry))
            except OSError:
                pass  # ended meanwhile
        return [pid for pid in found if pid != self._holder.pid]

    def close(self):
        """Ends everything in the namespaces, and the namespaces."""
        if self._holder is None:
            return
        for pid in self.pids():
            try:
                os.kill(pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
        if self.process is not None:
            self.process.wait()
            if self.process.stdin is not None:
                self._close_stdin()
        self._holder.stdin.close()
        self._holder.wait()
        self._holder.stdout.close()
        self._holder = None
        os.close(self._net)

    def _end(self, number):
        if self.alive():
            self.process.send_signal(number)
        self.process.wait()

    def _close_stdin(self):
        try:
            self.process.stdin.close()
        except BrokenPipeError:
            pass

    # -- what it is sent ----------------------------------------------------------------------------------------------

    def type(self, text):
        """Types on the debug console."""
        self.process.stdin.write(text.encode())
        self.process.stdin.flush()

    def socket(self, kind=socket.SOCK_STREAM):
        """An IPv4 socket inside the network namespace. It stays there wherever it is used; the caller closes it."""
        made = []

        def make():
            # Threads have each their own namespace, so this one goes in and ends, and the test's stays where it is.
            if ctypes.CDLL(None, use_errno=True).setns(self._net, _CLONE_NEWNET) != 0:
                made.append(OSError(ctypes.get_errno(), "setns"))
            else:
                made.append(socket.socket(socket.AF_INET, kind))

        thread = threading.Thread(target=make)
        thread.start()
        thread.join()
        if isinstance(made[0], OSError):
            raise made[0]
        return made[0]

    def send(self, datagram, port=CONTROL_PORT):
        """Sends one datagram. One sent before the control socket is bound is lost: see wait_bound."""
        with self.socket(socket.SOCK_DGRAM) as sender:
            sender.sendto(datagram, ("127.0.0.1", port))

    def start_source(self, player_id, port=CONTROL_PORT):
        self.send(start_request(player_id), port)

    def stop_source(self, port=CONTROL_PORT):
        self.send(stop_request(), port)

    def bound(self, port=CONTROL_PORT, protocol="udp"):
        """Whether a socket in the namespace is bound to the port."""
        with open(f"/proc/{self._holder.pid}/net/{protocol}") as table:
            return any(line.split()[1].endswith(f":{port:04X}") for line in table.readlines()[1:])

    def wait_bound(self, port=CONTROL_PORT, protocol="udp", timeout=DEFAULT_TIMEOUT):
        """Waits until the port is bound: from then on the kernel keeps what is sent to it."""
        self.wait_until(lambda: self.bound(port, protocol), timeout, f"{protocol} port {port} bound")

    def listen(self, port, backlog=8):
        """A listening TCP socket on 127.0.0.1 inside the namespace."""
        server = self.socket()
        server.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        server.bind(("127.0.0.1", port))
        server.listen(backlog)
        server.settimeout(DEFAULT_TIMEOUT)
        return server

    def receiver(self, port, timeout=DEFAULT_TIMEOUT):
        """A UDP socket bound to 127.0.0.1 inside the namespace; port HEARTBEAT_PORT plays the watchdog."""
        sock = self.socket(socket.SOCK_DGRAM)
        sock.bind(("127.0.0.1", port))
        sock.settimeout(timeout)
        return sock

    def connect(self, port, timeout=DEFAULT_TIMEOUT):
        """A TCP connection to the port, retried until it is accepted."""
        deadline = time.monotonic() + timeout
        while True:
            sock = self.socket()
            sock.settimeout(timeout)
            try:
                sock.connect(("127.0.0.1", port))
                return sock
            except ConnectionRefusedError:
                sock.close()
                if time.monotonic() > deadline or not self.alive():
                    raise
            time.sleep(POLL_SECONDS)

    # -- what it says -------------------------------------------------------------------------------------------------

    def log(self):
        """Everything on standard error so far: the application's log."""
        return self._stderr.read_text(errors="replace")

    def output(self):
        """Everything on standard output so far: trace lines and the console."""
        return self._stdout.read_text(errors="replace")

    def mark(self):
        """Later waits look only at what is written from now on."""
        for path in self._marks:
            self._marks[path] = path.stat().st_size

    def wait_log(self, pattern, timeout=DEFAULT_TIMEOUT):
        return self._wait_text(self._stderr, pattern, timeout)

    def wait_output(self, pattern, timeout=DEFAULT_TIMEOUT):
        return self._wait_text(self._stdout, pattern, timeout)

    def wait_until(self, condition, timeout=DEFAULT_TIMEOUT, what="condition"):
        """Polls until `condition()` is true and answers its value."""
        deadline = time.monotonic() + timeout
        while True:
            answer = condition()
            if answer:
                return answer
            if time.monotonic() > deadline:
                raise AssertionError(f"not within {timeout} s: {what}\n{self._report()}")
            time.sleep(POLL_SECONDS)

    def _wait_text(self, path, pattern, timeout):
        deadline = time.monotonic() + timeout
        expression = re.compile(pattern, re.MULTILINE)
        while True:
            ended = not self.pids() if self.process is not None and self.process.poll() is not None else False
            with open(path, "rb") as file:
                file.seek(self._marks[path])
                match = expression.search(file.read().decode(errors="replace"))
            if match:
                return match
            if ended or time.monotonic() > deadline:
                why = "the daemon ended" if ended else f"{timeout} s passed"
                raise AssertionError(f"{why}, and {path.name} has no match of: {pattern}\n{self._report()}")
            time.sleep(POLL_SECONDS)

    def _report(self):
        return f"--- stdout\n{self.output()[-6000:]}\n--- stderr\n{self.log()[-6000:]}"
