"""The debug console of the running daemon: docs/console.md to the letter, scripts, pipes, and a terminal."""

import fcntl
import os
import pathlib
import pty
import re
import select
import subprocess
import termios
import time

import pytest

from daemonHarness import DEFAULT_TIMEOUT, HEARTBEAT_PORT
from documentExamples import blocks, pattern, the_block
from station import noise, wav_bytes

DOCUMENT = "console.md"
PROMPT = "Player:>"
WORDS = {
    "<time>": r"\d{8,}\.\d{6}",
    "<n>": r" *-?\d+(?:\.\d+)?",
    "<address>": "[0-9a-f]+",
    "<bar>": r"[|+-]{80}",
}
# A player tells these between its first passes, wherever the prompt stands by then.
LATE = r"(?:\d{8,}\.\d{6} \(0\): (?:Reinitialize asrc\.|Rates [^\n]*)\n|Filter taps: \d+\n|Loading \d+ taps\n)*"


def examples(heading):
    """The section's lines as they are typed, each with the text that follows it."""
    for block in blocks(DOCUMENT, "console", heading):
        first, *rest = (block.text + "\n").split(PROMPT)
        assert first == "", "an example begins with the prompt"
        for part in rest:
            line, _, answer = part.partition("\n")
            yield line, answer


def says(daemon, line, answer):
    """Types a line; what follows up to the next prompt must be the answer."""
    daemon.mark()
    daemon.type(line + "\n")
    daemon.wait_output(rf"\A{LATE}{pattern(answer, WORDS)}{PROMPT}")


def all_said(daemon, heading):
    lines = list(examples(heading))
    assert lines
    for line, answer in lines:
        says(daemon, line, answer)


@pytest.fixture
def bench(station):
    """The running daemon with the library of the document; nothing is on air."""
    station.boot()
    (station.daemon.usb / "morning.wav").write_bytes(wav_bytes(noise(48000 * 60), 48000))
    assert station.playlist("Morning", ["/mnt/usb/morning.wav"]) == 1
    station.daemon.wait_output(PROMPT * 2 + r"\Z")
    return station.daemon


@pytest.fixture
def on_air(bench):
    """The bench with its playlist on air, and all said that a start says: by the console, the player, the card's thread."""
    bench.type("start 1\n")
    bench.wait_log(r"Active chain started$")
    bench.wait_output(rf"(?:{PROMPT}[\s\S]*){{3}}")
    bench.wait_output(r"Rates 44100\.000000 Hz => 48000\.000000 Hz Ratio: 0\.918750, 2 channels\n")
    bench.wait_output(r"ALSA Playback getting real-time priority\.{4}\n[\s\S]*^(?:Success!|Failed!).*\n")
    return bench


def open_files(daemon):
    directory = pathlib.Path(f"/proc/{daemon.pid}/fd")
    return sorted(os.readlink(entry) for entry in directory.iterdir())


# ---- the document


@pytest.mark.parametrize("heading", ["help", "Lines", "Scripts"])
def test_examples_with_nothing_on_air(bench, heading):
    all_said(bench, heading)


@pytest.mark.parametrize("heading", ["chains", "blocks", "graph", "connect", "tl"])
def test_examples_on_air(on_air, heading):
    all_said(on_air, heading)
    assert on_air.alive()


# What the playback thread says, whenever it comes to it: its first lines may come within a line of another thread's.
OF_THE_THREAD = r"(?:(?:ALSA Playback getting real-time|Success! Policy)|^[^\n]*ASLA Write samples terminating).*\n"


def test_start_and_stop_examples(bench):
    lines = list(examples("start and stop"))
    assert [line for line, _ in lines] == ["start 1", "stop", "blocks", "stop"]
    for line, answer in lines:
        bench.mark()
        before = len(bench.output())
        bench.type(line + "\n")
        bench.wait_output(PROMPT)
        if line == "start 1":
            bench.wait_output(r"Ratio: 0\.918750")
        for said in re.findall(OF_THE_THREAD, answer, re.MULTILINE):
            bench.wait_output(pattern(said, WORDS))
        expected, found = (re.sub(OF_THE_THREAD, "", text, flags=re.MULTILINE) for text in
                           (answer, bench.output()[before:]))
        assert re.match(rf"{LATE}{pattern(expected, WORDS)}{PROMPT}", found), found


def test_script_example(bench):
    (bench.run_dir / "look").write_text(the_block(DOCUMENT, "script", "Scripts") + "\n")
    expected = the_block(DOCUMENT, "run", "Scripts")
    bench.mark()
    bench.type("run look\n")
    bench.wait_output(r"\A" + pattern(expected.removeprefix(PROMPT + "run look\n"), WORDS) + r"\Z")


def test_document_names_every_command(bench):
    helped = bench.run_dir / "help"
    helped.write_text("")
    rows = re.findall(r"^\| `(\w+)", pathlib.Path(__file__).parents[2].joinpath("docs", DOCUMENT).read_text(), re.M)
    says(bench, *next(examples("help")))
    listed = re.findall(r"^(\w+)(?: \[.*)?\n  ", bench.output(), re.MULTILINE)
    assert set(rows) == set(listed)


# ---- on air


def test_all_blocks_are_listed_with_the_numbers_that_choose_them(on_air):
    on_air.mark()
    on_air.type("blocks\n")
    listing = on_air.wait_output(rf"\ACreated Audio Blocks\n-{{20}}\n([\s\S]*){PROMPT}")[1]
    names = re.findall(r"^\((..)\) (\w+) ", listing, re.MULTILINE)
    assert names == [(f"{n:2}", name) for n, name in enumerate(
        ["MUX", "ALSA_SOURCE", "RATE_CONVERTER_1", "TONE_2", "RATE_CONVERTER_2", "WAV_PLAYER"])]
    for number, name in names:
        on_air.mark()
        on_air.type(f"blocks {number.strip()}\n")
        on_air.wait_output(rf"\APrinting Block: {name}\n-{{20}}\n{name} [\s\S]*{PROMPT}")


def test_commands_do_not_disturb_the_programme(station):
    item = station.wav("item.wav", seconds=60)
    station.boot()
    station.on_air(station.playlist("Morning", [item]))
    for line in ["blocks", "blocks 0", "chains", "graph 0", "graph 1", "connect 2 0", "tl 9", "tl 0", "help"] * 3:
        station.daemon.mark()
        station.daemon.type(line + "\n")
        station.daemon.wait_output(PROMPT)
    station.wait_frames(station.card.frames() + 4800)
    assert station.card.underruns() == 0


def test_start_replaces_what_plays(on_air):
    on_air.mark()
    on_air.type("start 12345\n")
    on_air.wait_log(r"No audio source with id = 12345$")
    on_air.wait_output(rf"\AStarting play list #12345\n[\s\S]*Removed WAV_PLAYER[\s\S]*{PROMPT}\Z")
    says(on_air, "chains", "Created Audio Chains\n--------------------\n")


def test_trace_level_9_shows_the_calls_at_once(bench):
    bench.mark()
    bench.type("tl 9\n")
    bench.wait_output(PROMPT)
    bench.type("blocks\n")
    bench.wait_output(r" \(9\): static std::string audioLibrarySpace::CAudioBlock::printAllBlocks\(\)$")
    bench.type("tl 0\n")
    bench.wait_output(rf"{PROMPT}[\s\S]*{PROMPT}[\s\S]*{PROMPT}\Z")
    says(bench, "blocks", "Created Audio Blocks\n--------------------\n")


def test_block_that_is_not_there_ends_the_daemon(bench):
    bench.type("blocks 6\n")
    assert bench.wait_exit() != 0  # by SIGSEGV, or by a sanitizer that saw it coming


# ---- scripts


def test_sleep_in_a_script_holds_back_its_next_line(on_air):
    # The graph's line has the time; of 1500 ms at least 500 are slept, whatever the fraction of the second.
    (on_air.run_dir / "twice").write_text("graph 0\nsleep 1500\ngraph 0\n")
    on_air.mark()
    on_air.type("run twice\n")
    found = on_air.wait_output(r"^(\d+\.\d+) \(0\): \[[\s\S]*Sleeping for 1500 ms\.\n[\s\S]*^(\d+\.\d+) \(0\): \[")
    assert 0.5 <= float(found[2]) - float(found[1])


def test_typed_line_waits_for_the_end_of_a_script(bench):
    (bench.run_dir / "script").write_text("sleep 1500\n# the end\n")
    bench.mark()
    bench.type("run script\n")
    bench.wait_output(r"Sleeping")
    bench.type("graph 99\n")
    bench.wait_output(rf"Sleeping for 1500 ms\.\n{PROMPT}# the end\n\n{PROMPT}Block not found\n{PROMPT}\Z")


def test_scripts_leave_no_file_open(bench):
    with bench.receiver(HEARTBEAT_PORT) as watchdog:
        watchdog.recv(16)  # the heartbeat has its socket too
    before = open_files(bench)
    (bench.run_dir / "inner").write_text("# inner\n")
    (bench.run_dir / "outer").write_text("run inner\n# never\n")
    for _ in range(20):
        bench.mark()
        bench.type("run outer\n")
        bench.wait_output(rf"\AOpening outer\n{PROMPT}run inner\n\nOpening inner\n{PROMPT}# inner\n\n{PROMPT}\Z")
    says(bench, "graph 99", "Block not found\n")
    assert open_files(bench) == before


# ---- pipes


def test_lines_written_together_are_one_line_of_a_pipe(bench):
    bench.mark()
    bench.type("graph 99\nchains\nwhat\n")
    bench.wait_output(rf"\ABlock not found\n{PROMPT}\Z")
    says(bench, "", "Block not found\n")


def test_hundred_bytes_are_two_lines(bench):
    bench.mark()
    bench.type("#" + "." * 98 + "graph 99\n")
    bench.wait_output(rf"\A{PROMPT}Block not found\n{PROMPT}\Z")


def test_any_bytes_are_survived(bench):
    bench.mark()
    bench.process.stdin.write(bytes(range(256)) * 40)
    bench.process.stdin.flush()
    bench.wait_until(lambda: bench.output().count("Command not recognized") >= 100, what="a hundred lines taken")
    bench.wait_until(lambda: bench.output().endswith(PROMPT), what="a prompt")
    assert bench.alive()


def test_end_of_input_is_silent_and_the_programme_goes_on(on_air):
    on_air.mark()
    before = on_air.output()
    on_air.process.stdin.close()
    on_air.process.stdin = None
    on_air.send(b"\x02")
    on_air.wait_log(r"received unknown set request$")
    assert on_air.output() == before
    on_air.stop_source()
    on_air.wait_log(r"FilePlayer destructor$")


def test_null_device_is_silent(daemon):
    daemon.start(stdin=subprocess.DEVNULL)
    daemon.wait_bound()
    daemon.wait_output(PROMPT * 2)
    for _ in range(3):
        daemon.mark()
        daemon.send(b"\x02")
        daemon.wait_log(r"received unknown set request$")
    assert daemon.output().endswith("\n" + PROMPT * 2)


# ---- a terminal


class Terminal:
    """The daemon in a terminal: input, output, and what is shown there."""

    def __init__(self, daemon):
        self.daemon = daemon
        self.master, self.slave = pty.openpty()
        daemon.start("-t", "0", stdin=self.slave, wrapper=("sh", "-c", 'exec "$@" >&0', "sh"))
        self.shown = ""

    def type(self, text):
        os.write(self.master, text.encode())

    def wait(self, expression):
        """Waits until what has been shown since the last wait matches."""
        deadline = time.monotonic() + DEFAULT_TIMEOUT
        while not (match := re.search(expression, self.shown)):
            assert self.daemon.alive() and time.monotonic() < deadline, f"not shown: {expression}\n{self.shown!r}"
            if select.select([self.master], [], [], 0.1)[0]:
                self.shown += os.read(self.master, 65536).decode()
                self.shown = self.shown.replace("\r\n", "\n")  # the two may have come apart
        self.shown = self.shown[match.end() :]
        return match

    def close(self):
        self.daemon.close()
        os.close(self.master)
        os.close(self.slave)


@pytest.fixture
def terminal(station):
    station.daemon.run_dir.joinpath("script").write_text("# one\ngraph 99\n")
    made = Terminal(station.daemon)
    made.wait(f"\n{PROMPT}{PROMPT}$")
    yield made
    made.close()


def test_terminal_shows_prompt_line_and_answer(terminal):
    terminal.type("grapj\x7fh 99\n")  # with a slip of the finger
    terminal.wait(rf"^grapj\x08 \x08h 99\nBlock not found\n{PROMPT}$")
    terminal.type("\n")
    terminal.wait(rf"^\nBlock not found\n{PROMPT}$")


def test_paste_into_a_terminal_is_carried_out_line_by_line(terminal):
    modes = termios.tcgetattr(terminal.slave)
    modes[3] &= ~termios.ECHO  # a long paste is echoed between the answers, wherever the kernel comes to it
    termios.tcsetattr(terminal.slave, termios.TCSANOW, modes)
    terminal.type("".join(f"graph {n}\nline{n}\n" for n in range(50, 80)))
    for _ in range(30):
        terminal.wait(rf"^Block not found\n{PROMPT}Command not recognized\n{PROMPT}")


def test_script_in_a_terminal(terminal):
    terminal.type("run script\n")
    terminal.wait(rf"^run script\nOpening script\n{PROMPT}# one\n\n{PROMPT}graph 99\n\nBlock not found\n{PROMPT}$")


def test_end_of_file_in_a_terminal_is_silent_and_not_for_ever(terminal):
    terminal.type("\x04\x04")
    terminal.type("graph 99\n")
    terminal.wait(rf"^graph 99\nBlock not found\n{PROMPT}$")


def test_line_sent_off_without_its_end_is_not_recognized(terminal):
    terminal.type("stop\x04")
    terminal.wait(rf"^stopCommand not recognized\n{PROMPT}$")


def test_terminal_is_made_non_blocking_for_everyone(terminal):
    assert fcntl.fcntl(terminal.slave, fcntl.F_GETFL) & os.O_NONBLOCK
    terminal.daemon.kill()
    assert fcntl.fcntl(terminal.slave, fcntl.F_GETFL) & os.O_NONBLOCK


def test_terminal_that_shows_nothing_does_not_stop_the_loop(terminal):
    termios.tcflow(terminal.slave, termios.TCOOFF)
    before = read_by(terminal.daemon)
    terminal.type("help\n" * 400)  # is answered by a quarter of a megabyte, more than a terminal holds
    terminal.daemon.wait_until(lambda: read_by(terminal.daemon) == before + 2000, what="every line taken")
    terminal.daemon.start_source(12345)
    terminal.daemon.wait_until(lambda: not unread(terminal.daemon), what="the datagram taken")
    termios.tcflow(terminal.slave, termios.TCOON)
    terminal.daemon.wait_until(lambda: answers(terminal), what="the terminal shows something again")
    assert terminal.shown.count("Supported commands") < 400  # the others are lost


def answers(terminal):
    """Types a comment; whether a prompt has been shown, for this one or one before."""
    terminal.type("#\n")
    while select.select([terminal.master], [], [], 0.1)[0]:
        terminal.shown += os.read(terminal.master, 65536).decode()
    return f"#\r\n{PROMPT}" in terminal.shown


def read_by(daemon):
    """Bytes that the daemon has read: of files, and of its terminal."""
    return int(re.match(r"rchar: (\d+)\n", pathlib.Path(f"/proc/{daemon.pid}/io").read_text())[1])


def unread(daemon):
    """Bytes that wait at the control port."""
    table = pathlib.Path(f"/proc/{daemon.pid}/net/udp").read_text().splitlines()[1:]
    return sum(int(line.split()[4].split(":")[1], 16) for line in table if line.split()[1].endswith(":1B5C"))


def test_hung_up_terminal_is_survived(terminal):
    slave, terminal.slave = terminal.slave, os.open("/dev/null", os.O_RDONLY)
    master, terminal.master = terminal.master, os.open("/dev/null", os.O_RDONLY)
    os.close(slave)
    os.close(master)
    for _ in range(5):
        terminal.daemon.start_source(12345)
        terminal.daemon.wait_until(lambda: not unread(terminal.daemon), what="the datagram taken")
    assert terminal.daemon.alive()
