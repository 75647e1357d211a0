"""packaging/systemd: the watchdog's decisions, the watchdog beside the daemon, and the units."""

import importlib.machinery
import importlib.util
import pathlib
import re
import subprocess

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
UNITS = ROOT / "packaging" / "systemd"
WATCHDOG = UNITS / "audioplayer-watchdog"


@pytest.fixture(scope="module")
def watchdog():
    loader = importlib.machinery.SourceFileLoader("watchdog", str(WATCHDOG))
    loader_spec = importlib.util.spec_from_loader("watchdog", loader)
    module = importlib.util.module_from_spec(loader_spec)
    loader.exec_module(module)
    return module


# ---- when it acts


def test_the_first_heartbeat_has_the_grace(watchdog):
    watch = watchdog.Watch(100, patience=10, grace=30)
    assert not watch.is_due(129.9)
    assert watch.is_due(130)


def test_a_heartbeat_puts_the_deadline_off_by_the_patience(watchdog):
    watch = watchdog.Watch(0, patience=10, grace=30)
    assert watch.beat(25)
    assert not watch.beat(26)
    assert not watch.is_due(35.9)
    assert watch.is_due(36)


def test_a_start_has_the_grace_again_and_then_it_acts_again(watchdog):
    watch = watchdog.Watch(0, patience=10, grace=30)
    watch.beat(1)
    assert watch.is_due(11)
    assert not watch.is_due(40.9)
    assert watch.is_due(41)


def test_the_heartbeat_that_comes_back_is_news(watchdog):
    watch = watchdog.Watch(0, patience=10, grace=30)
    watch.beat(1)
    watch.is_due(11)
    assert watch.beat(12)
    assert not watch.is_due(21.9)


# ---- beside the daemon


class Running:
    """The watchdog in the daemon's namespaces; it leaves a line in a file each time it acts."""

    def __init__(self, daemon, *options, command=None):
        self.acts = daemon.work_dir / "acts.txt"
        command = command or ("sh", "-c", f"echo acted >> {self.acts}")
        self.output = daemon.work_dir / "watchdog.txt"
        with open(self.output, "wb") as out:
            self.process = subprocess.Popen(daemon.command([WATCHDOG, *options, "--", *command]), stdout=out,
                                            stderr=subprocess.STDOUT)

    def said(self):
        return self.output.read_text()

    def close(self):
        self.process.kill()
        self.process.wait()


@pytest.fixture
def watched(daemon):
    made = []

    def start(*options, **more):
        made.append(Running(daemon, *options, **more))
        daemon.wait_until(lambda: daemon.bound(7009), what="the watchdog listens")
        return made[0]

    yield start
    for running in made:
        running.close()


def test_it_acts_when_the_daemon_ends_and_hears_it_come_back(daemon, watched):
    running = watched("--patience", "2.5", "--grace", "60")
    daemon.start()
    daemon.wait_until(lambda: running.said() == "the player's heart beats\n", what="a heartbeat")
    daemon.kill()
    daemon.wait_until(running.acts.exists, what="the command has run")
    assert running.said().splitlines()[1] == f"no heartbeat: sh -c echo acted >> {running.acts}"
    daemon.start()
    daemon.wait_until(lambda: running.said().count("the player's heart beats") == 2, what="the heartbeat is back")
    assert running.acts.read_text() == "acted\n"


def test_it_acts_again_while_nothing_comes(daemon, watched):
    running = watched("--patience", "0.2", "--grace", "0.2")
    daemon.wait_until(lambda: running.acts.exists() and running.acts.read_text().count("acted") >= 3, what="three acts")


def test_other_datagrams_are_no_heartbeat(daemon, watched):
    running = watched("--patience", "60", "--grace", "1")
    for _ in range(5):
        for other in (b"", b"\0", b"\1\1", b"x" * 100):
            daemon.send(other, port=7009)
    daemon.wait_until(running.acts.exists, what="the command has run")
    assert "beats" not in running.said()


@pytest.mark.parametrize("command, words", [(("false",), "false answers 1"), (("/no/such",), "cannot run /no/such: No such file")])
def test_a_command_that_fails_is_told_and_the_watch_goes_on(daemon, watched, command, words):
    running = watched("--patience", "0.2", "--grace", "0.2", command=command)
    daemon.wait_until(lambda: running.said().count(words) >= 2, what="two failures")
    assert running.process.poll() is None


# ---- the units


def unit(name):
    return (UNITS / name).read_text()


def test_systemd_finds_no_fault_in_the_units(tmp_path):
    files = []
    for file in UNITS.glob("*.service"):
        name = file.name.replace("@", "@morning")
        text = re.sub(r"^ExecStart=\S+", "ExecStart=/bin/true", file.read_text(), flags=re.MULTILINE)
        (tmp_path / name).write_text(text)
        files.append(tmp_path / name)
    assert len(files) == 3
    result = subprocess.run(["systemd-analyze", "verify", "--man=no", *files], capture_output=True, text=True)
    assert (result.returncode, result.stdout + result.stderr) == (0, "")


def test_the_units_name_what_is_installed():
    rules = (ROOT / "packaging" / "CMakeLists.txt").read_text()
    for file in UNITS.iterdir():
        assert f"systemd/{file.name}" in rules, file.name
    assert "ExecStart=/usr/local/bin/AudioPlayer " in unit("audioplayer.service")
    assert "ExecStart=/usr/local/bin/audioplayerctl start %I" in unit("audioplayer-on-air@.service")
    assert "ExecStart=/usr/local/libexec/audioplayer-watchdog " in unit("audioplayer-watchdog.service")


def test_the_daemon_is_started_without_d_in_its_directory_without_a_console():
    lines = unit("audioplayer.service").splitlines()
    (start,) = [line for line in lines if line.startswith("ExecStart=")]
    assert " -d" not in start
    for line in ("Type=exec", "WorkingDirectory=/vorelk/server", "StandardInput=null", "StandardOutput=journal",
                 "AmbientCapabilities=CAP_SYS_NICE", "Restart=always"):
        assert line in lines


def test_below_process_1_the_option_d_neither_detaches_nor_changes_the_directory(daemon):
    daemon.start("-d", wrapper=("unshare", "--pid", "--fork", "--kill-child", "sh", "-c", '"$@" & wait', "sh"))
    daemon.wait_output(r"^Daemonizing\.\.\. $")
    daemon.wait_log(r"Spawned audio_manager thread$")  # it would be in /dev/null
    assert "Audio Player Daemon Started." not in daemon.log()
    assert daemon.database.exists()  # beside the directory that it was started in


def test_at_the_end_of_its_input_the_daemon_goes_on(daemon):
    daemon.start(stdin=subprocess.DEVNULL)
    daemon.wait_bound()
    daemon.start_source(7)
    daemon.wait_log(r"No audio source with id = 7$")
    assert daemon.alive()
