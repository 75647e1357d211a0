"""The virtual sound card through the real libasound, used by cardProbe as the daemon uses a card."""
import errno
import json
import os
import select
import signal
import subprocess
import sys
import threading

import numpy
import pytest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import virtualCard  # noqa: E402
from station import wav_bytes  # noqa: E402
from virtualCard import TOOLS, VirtualCards, module_directory  # noqa: E402

PROBE = str(module_directory() / "cardProbe")
SETUP_STEPS = ["open", "any", "access", "format", "resample", "rate", "channels", "periods", "buffer", "hw_params"]
STATE_PREPARED = 2
TIMEOUT = 60


@pytest.fixture
def cards(tmp_path):
    return VirtualCards(tmp_path)


class Probe:
    """A cardProbe at work; its lines are read as they come."""

    def __init__(self, environment, *arguments):
        self.process = subprocess.Popen([PROBE, *map(str, arguments)], env=environment, text=True, bufsize=1,
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.lines = []
        self.watchdog = threading.Timer(TIMEOUT, self.process.kill)
        self.watchdog.start()

    def next_line(self):
        text = self.process.stdout.readline()
        if not text:
            return None
        self.lines.append(json.loads(text))
        return self.lines[-1]

    def until(self, step, count=1):
        """Reads up to the count-th line of a step and returns its result."""
        while count:
            line = self.next_line()
            assert line is not None, f"ended without {step}: {self.lines}"
            count -= line["step"] == step
        return line["result"]

    def finish(self):
        self.process.stdin.close()
        while self.next_line() is not None:
            pass
        self.process.wait(TIMEOUT)
        return self

    def results(self, step):
        return [line["result"] for line in self.lines if line["step"] == step]

    def result(self, step):
        return self.results(step)[-1]

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.watchdog.cancel()
        self.process.kill()
        self.process.wait(TIMEOUT)
        for stream in (self.process.stdin, self.process.stdout, self.process.stderr):
            stream.close()


def run_probe(environment, *arguments):
    with Probe(environment, *arguments) as probe:
        return probe.finish()


def is_counted(frames, first):
    numbers = numpy.arange(first, first + len(frames), dtype=numpy.int32)
    return numpy.array_equal(frames[:, 0], numbers) and numpy.array_equal(frames[:, 1], ~numbers)


# --- opening ---

def test_every_step_is_granted_as_asked(cards):
    probe = run_probe(cards.environment(), "play", "--frames", 4608)
    assert [probe.result(step) for step in SETUP_STEPS] == [0] * len(SETUP_STEPS)
    assert probe.result("granted_rate") == 48000
    assert probe.result("granted_periods") == 18
    assert probe.result("granted_buffer") == 4608
    assert probe.result("granted_period") == 256
    assert probe.result("state") == STATE_PREPARED
    assert probe.result("drop") == 0 and probe.result("close") == 0


def test_unknown_card_number_is_enoent(cards):
    cards.remove()
    probe = run_probe(cards.environment(), "play")
    assert probe.result("open") == -errno.ENOENT
    assert probe.result("open_errno") == errno.ENOENT


def test_unknown_card_name_is_enodev(cards):
    probe = run_probe(cards.environment(), "capture", "--device", "hw:Axia,9")
    assert probe.result("open") == -errno.ENODEV
    assert probe.result("open_errno") == errno.ENODEV


def test_without_the_configuration_nothing_stands_in_for_a_card(cards):
    environment = cards.environment()
    del environment["ALSA_CONFIG_PATH"]
    run_probe(environment, "play", "--device", "hw:Axia,0", "--frames", 1)
    assert not cards.log.exists()
    assert cards.recordings() == []


def test_configuration_is_enough_without_module_directory(cards):
    environment = cards.environment()
    del environment["VCARD_MODULE_DIR"]
    assert run_probe(environment, "play", "--frames", 1).result("written") == 1


def test_card_is_exclusive_and_free_after_the_close(cards):
    with Probe(cards.environment(), "play", "--frames", 1, "--hold") as first:
        first.until("holding")
        second = run_probe(cards.environment(), "play", "--frames", 1)
        assert second.result("open") == -errno.EBUSY
        assert second.result("open_errno") == errno.EBUSY
        first.finish()
    assert run_probe(cards.environment(), "play", "--frames", 1).result("open") == 0


def test_setting_without_sense_is_einval(cards):
    assert run_probe(cards.environment(VCARD_PPM="fast"), "play").result("open") == -errno.EINVAL


# --- playing and recording ---

def test_recording_is_bit_exact(cards):
    probe = run_probe(cards.environment(VCARD_GAP="none"), "play", "--frames", 24000)
    assert probe.result("written") == 24000
    recording = cards.recording()
    assert (recording.rate, recording.channels, recording.sample_bytes) == (48000, 2, 4)
    # What was still in the ring at the drop never went to air.
    assert 24000 - 4608 <= len(recording.frames) <= 24000
    assert is_counted(recording.frames, 0)
    dropped = int(cards.events("stop")[0][1]["dropped"])
    assert len(recording.frames) + dropped == 24000


def test_each_open_has_its_own_recording(cards):
    for _ in range(2):
        run_probe(cards.environment(), "play", "--frames", 4608)
    assert [path.name for path in cards.recordings()] == ["0-0-0001.wav", "0-0-0002.wav"]


def test_recording_rolls_over_without_a_seam(cards):
    run_probe(cards.environment(VCARD_RECORD_LIMIT_BYTES=8000, VCARD_GAP="none"), "play", "--frames", 9216)
    parts = [cards.record / "0-0-0001.wav"] + [cards.record / f"0-0-0001-{number}.wav" for number in (2, 3, 4)]
    frames = [virtualCard.Recording(path).frames for path in parts]
    assert [len(part) for part in frames] == [1000] * 4
    assert is_counted(numpy.concatenate(frames), 0)


@pytest.mark.parametrize("ppm,hertz", [(0, 48000.0), (-375, 47982.0), (500, 48024.0), (5000, 48240.0)])
def test_rate_follows_the_ppm(cards, ppm, hertz):
    run_probe(cards.environment(VCARD_PPM=ppm), "play", "--frames", 154000)
    # Positions are whole frames seen at a wake, so over 2 s the log is good to 1 Hz or so.
    assert cards.true_rate() == pytest.approx(hertz, abs=2.0)


def test_rate_changes_while_playing(cards):
    with Probe(cards.environment(VCARD_GAP="none"), "play", "--frames", 40000) as probe:
        probe.until("write", 2)
        cards.page().set_ppm(5000)
        probe.finish()
    (_, pairs), = cards.events("ppm")
    assert pairs["value"] == "5000" and pairs["rate"] == "48240.0000"
    assert cards.page().status()["trueHz"] == pytest.approx(48240.0)
    assert is_counted(cards.recording().frames, 0)


def test_underrun_is_epipe_and_prepare_starts_again(cards):
    probe = run_probe(cards.environment(VCARD_FORGIVE_MS=0), "play", "--frames", 24000, "--starve-ms", 200,
                      "--starve-at", 9216)
    assert -errno.EPIPE in probe.results("write")
    assert probe.results("prepare")[0] == 0
    assert probe.result("written") == 24000
    when, pairs = cards.events("underrun")[0]
    assert pairs["forced"] == "0"
    assert float(pairs["at"]) < when
    status = cards.page().status()
    assert status["xruns"] == status["xrunsEver"] == len(cards.events("underrun"))


def test_gap_after_an_underrun_is_silence_of_its_length(cards):
    run_probe(cards.environment(VCARD_FORGIVE_MS=0), "play", "--frames", 18432, "--starve-ms", 200, "--starve-at", 9216)
    (_, underrun), = cards.events("underrun")
    start = cards.events("start")[1][0]
    gap = int(cards.events("gap")[0][1]["frames"])
    assert gap == pytest.approx((start - float(underrun["at"])) * 48000, abs=1)
    frames = cards.recording().frames
    before = int(underrun["total"])
    assert is_counted(frames[:before], 0)
    assert not frames[before:before + gap].any()
    assert is_counted(frames[before + gap:], before)


def test_gap_can_be_left_out(cards):
    run_probe(cards.environment(VCARD_FORGIVE_MS=0, VCARD_GAP="none"), "play", "--frames", 18432, "--starve-ms", 200,
              "--starve-at", 9216)
    assert cards.events("underrun")
    assert is_counted(cards.recording().frames, 0)


def test_stopped_program_is_forgiven_by_default(cards):
    with Probe(cards.environment(VCARD_GAP="none"), "play", "--frames", 10_000_000, "--errors", 100) as probe:
        probe.until("write", 3)
        # The program sleeps in the card's poll nearly always; a stop elsewhere is no late wake.
        for stops in range(1, 11):
            stop_for_longer_than_the_buffer(probe.process)
            probe.until("write", 3)
            if cards.events("late_wake"):
                break
    assert len(cards.events("late_wake")) >= 1
    assert len(cards.events("underrun")) < stops
    assert is_counted(cards.recording().frames, 0)


def test_stopped_program_runs_dry_in_strict_mode(cards):
    with Probe(cards.environment(VCARD_FORGIVE_MS=0), "play", "--frames", 48000) as probe:
        probe.until("write", 3)
        stop_for_longer_than_the_buffer(probe.process)
        probe.finish()
    assert cards.events("late_wake") == []
    assert cards.events("underrun")


def stop_for_longer_than_the_buffer(process):
    process.send_signal(signal.SIGSTOP)
    # The buffer holds 96 ms. Nothing can be awaited of a stopped process, so its time is let pass.
    select.select([], [], [], 0.2)
    process.send_signal(signal.SIGCONT)


def test_killed_program_leaves_a_valid_recording_and_a_free_card(cards):
    with Probe(cards.environment(VCARD_GAP="none"), "play", "--frames", 10_000_000) as probe:
        probe.until("write", 5)
        probe.process.send_signal(signal.SIGKILL)
        probe.process.wait(TIMEOUT)
    recording = cards.recording()
    assert len(recording.frames) >= 3 * 4608
    assert is_counted(recording.frames, 0)
    assert recording.path.stat().st_size == 44 + recording.frames.nbytes
    assert run_probe(cards.environment(), "play", "--frames", 1).result("open") == 0


# --- faults ---

def test_open_fails_as_often_as_asked_then_succeeds(cards):
    cards.page().fail("open", 2, errno.EBUSY)
    results = [run_probe(cards.environment(), "play", "--frames", 1).result("open") for _ in range(3)]
    assert results == [-errno.EBUSY, -errno.EBUSY, 0]


def test_open_fails_for_ever(cards):
    cards.page().fail("open", -1, errno.EIO)
    for _ in range(3):
        assert run_probe(cards.environment(), "play").result("open") == -errno.EIO


@pytest.mark.parametrize("faults,step,result", [
    ("open=ENODEV", "open", -errno.ENODEV),
    ("hwParams=EBUSY", "hw_params", -errno.EBUSY),
    ("swParams", "hw_params", -errno.EINVAL),
    ("prepare", "hw_params", -errno.EIO),
])
def test_step_refused_by_the_environment(cards, faults, step, result):
    assert run_probe(cards.environment(VCARD_FAULTS=faults), "play").result(step) == result


def test_write_error_comes_once_and_playing_goes_on(cards):
    probe = run_probe(cards.environment(VCARD_FAULTS="transfer=EIO"), "play", "--frames", 9216)
    assert probe.results("write")[0] == -errno.EIO
    assert probe.result("written") == 9216


def test_start_refused_shows_in_the_write(cards):
    probe = run_probe(cards.environment(VCARD_FAULTS="start*=EIO"), "play", "--frames", 9216, "--errors", 2)
    assert -errno.EIO in probe.results("write")
    assert cards.events("start") == []


def test_second_prepare_can_be_refused(cards):
    probe = run_probe(cards.environment(VCARD_FAULTS="xrun@9000 prepare+1=EIO"), "play", "--frames", 30000)
    assert probe.results("prepare")[0] == -errno.EIO


def test_unplugged_card_is_enodev_from_then_on(cards):
    probe = run_probe(cards.environment(VCARD_FAULTS="gone@12000"), "play", "--frames", 96000, "--errors", 3)
    assert probe.results("write")[-1] == -errno.ENODEV
    assert set(probe.results("prepare")) == {-errno.ENODEV}
    assert probe.result("close") == 0
    assert run_probe(cards.environment(), "play").result("open") == -errno.ENODEV
    cards.page().set_gone(False)
    assert run_probe(cards.environment(), "play", "--frames", 1).result("open") == 0


def test_forced_underrun_in_a_blocked_write_gives_a_short_count_or_the_error(cards):
    with Probe(cards.environment(), "play", "--frames", 40000) as probe:
        probe.until("write", 3)
        cards.page().force_xrun()
        probe.finish()
    (_, pairs), = [event for event in cards.events("underrun") if event[1]["forced"] == "1"]
    assert -errno.EPIPE in probe.results("write")
    assert probe.result("written") == 40000
    assert int(cards.events("close")[0][1]["dropped"]) > 0


def test_stalled_clock_answers_eio_after_its_time(cards):
    probe = run_probe(cards.environment(VCARD_FAULTS="stall@9000", VCARD_STALL_TIMEOUT_MS=200), "play", "--frames",
                      96000, "--errors", 1)
    assert probe.results("write")[-1] == -errno.EIO
    assert cards.events("stall_error")


def test_stalled_clock_goes_on_when_told(cards):
    with Probe(cards.environment(VCARD_GAP="none"), "play", "--frames", 30000) as probe:
        probe.until("write", 2)
        cards.page().set_stalled()
        wait_for_event(cards, "stall")
        cards.page().set_stalled(False)
        probe.finish()
    assert cards.events("stall_end")
    assert probe.result("written") == 30000
    assert is_counted(cards.recording().frames, 0)


def wait_for_event(cards, event):
    for _ in range(1000):
        if cards.events(event):
            return
        select.select([], [], [], 0.01)
    raise AssertionError(f"no {event} in the log")


@pytest.mark.parametrize("variables,step,granted", [
    ({"VCARD_RATES": "44100"}, "granted_rate", 44100),
    ({"VCARD_BUFFER_BYTES": "128:8192"}, "granted_buffer", 1024),
])
def test_card_grants_what_it_can(cards, variables, step, granted):
    assert run_probe(cards.environment(**variables), "play", "--frames", 1).result(step) == granted


def test_bare_card_grants_fewer_periods_and_plug_refuses_them(cards):
    environment = cards.environment(VCARD_PERIODS="2:8")
    assert run_probe(environment, "play", "--frames", 1, "--device", "vcard:0,0").result("granted_periods") == 8
    assert run_probe(environment, "play", "--frames", 1).result("periods") == -errno.EINVAL


@pytest.mark.parametrize("variables,step", [
    ({"VCARD_FORMATS": "S16_LE"}, "format"),
    ({"VCARD_CHANNELS": "6"}, "channels"),
])
def test_bare_card_refuses_what_it_lacks(cards, variables, step):
    probe = run_probe(cards.environment(**variables), "play", "--device", "vcard:0,0")
    assert probe.result(step) == -errno.EINVAL


def test_contradictory_limits_leave_no_configuration(cards):
    environment = cards.environment(VCARD_PERIOD_BYTES="65536:131072", VCARD_BUFFER_BYTES="128:4096")
    assert run_probe(environment, "play").result("any") == -errno.EINVAL


# --- capture ---

def counted_source(frames):
    numbers = numpy.arange(frames) - 32768
    return numpy.stack((numbers, -1 - numbers), axis=1)


def captured(path):
    return numpy.fromfile(path, "<i2").reshape(-1, 2)


def test_capture_is_bit_exact_and_answers_eagain(cards, tmp_path):
    cards.put_source("Axia-3", counted_source(30011))
    out = tmp_path / "captured"
    probe = run_probe(cards.environment(), "capture", "--device", "hw:Axia,3", "--frames", 40000, "--out", out)
    assert probe.result("granted_rate") == 48000 and probe.result("granted_buffer") == 16384
    assert -errno.EAGAIN in probe.results("read")
    assert max(probe.results("read")) <= 1024
    frames = captured(out)
    assert len(frames) >= 40000
    numbers = numpy.arange(len(frames)) % 30011 - 32768
    assert numpy.array_equal(frames[:, 0], numbers)
    assert numpy.array_equal(frames[:, 1], -1 - numbers)


def test_capture_without_a_file_hears_a_tone(cards, tmp_path):
    out = tmp_path / "captured"
    run_probe(cards.environment(VCARD_TONE_DB="-6.0206"), "capture", "--frames", 9600, "--out", out)
    assert int(numpy.abs(captured(out)).max()) == pytest.approx(16384, abs=2)


@pytest.mark.parametrize("ppm,hertz", [(1000, 48048.0), (-1000, 47952.0)])
def test_capture_runs_at_its_own_rate(cards, ppm, hertz):
    run_probe(cards.environment(VCARD_CAPTURE_PPM=ppm), "capture", "--frames", 154000)
    assert cards.true_rate("Axia-0-capture") == pytest.approx(hertz, abs=2.0)


def test_overrun_is_epipe_and_capture_goes_on(cards):
    probe = run_probe(cards.environment(), "capture", "--frames", 24000, "--pause-ms", 500, "--pause-at", 8000)
    assert -errno.EPIPE in probe.results("read")
    assert probe.results("restart")[0] == 0
    assert probe.result("captured") >= 24000
    assert cards.events("overrun", "Axia-0-capture")


@pytest.mark.parametrize("faults,step,result", [
    ("start=EIO", "start", -errno.EIO),
    ("hwParams=EBUSY", "hw_params", -errno.EBUSY),
    ("prepare", "hw_params", -errno.EIO),
    ("prepare+1", "prepare", -errno.EIO),
    ("transfer=EIO", "recover", -errno.EIO),
])
def test_capture_step_refused(cards, faults, step, result):
    probe = run_probe(cards.environment(VCARD_CAPTURE_FAULTS=faults), "capture", "--frames", 4096)
    assert result in probe.results(step)


def test_capture_card_unplugged(cards):
    probe = run_probe(cards.environment(VCARD_CAPTURE_FAULTS="gone@8000"), "capture")
    assert probe.results("read")[-1] == -errno.ENODEV
    assert probe.result("recover") == -errno.ENODEV
    assert probe.result("close") == 0


def test_suspended_capture_recovers(cards):
    probe = run_probe(cards.environment(VCARD_CAPTURE_FAULTS="suspend@8000"), "capture", "--frames", 16000)
    assert -errno.ESTRPIPE in probe.results("read")
    assert probe.results("recover")[0] == 0
    assert probe.result("captured") >= 16000


# --- tools ---

def test_control_tool_shows_level_position_and_underruns(cards):
    with Probe(cards.environment(), "play", "--frames", 10_000_000) as probe:
        probe.until("write", 4)
        shown = subprocess.run([str(TOOLS / "virtualCardCtl"), "--cards", str(cards.cards), "show", "--json"],
                               capture_output=True, text=True, check=True, timeout=TIMEOUT)
    state = json.loads(shown.stdout)
    assert state["state"] == "running" and not state["silentNow"]
    assert state["totalFrames"] > 4608
    assert state["seconds"] == pytest.approx(state["totalFrames"] / 48000)
    assert state["xruns"] == 0
    # Frame counters of a few thousand: between -125 and -90 dB.
    assert -125 < state["peakDb"][0] < -90
    assert state["recording"] == str(cards.recordings()[0])


def test_control_tool_forces_faults(cards):
    control = [str(TOOLS / "virtualCardCtl"), "--cards", str(cards.cards)]
    subprocess.run([*control, "fail", "open", "2", "EBUSY"], check=True, timeout=TIMEOUT)
    assert cards.page().failures_left("open") == 2
    subprocess.run([*control, "gone"], check=True, timeout=TIMEOUT)
    assert cards.page().gone()
    subprocess.run([*control, "clear"], check=True, timeout=TIMEOUT)
    assert cards.page().failures_left("open") == 0 and not cards.page().gone()


def test_measurement_finds_level_silence_and_underruns(cards):
    run_probe(cards.environment(VCARD_FORGIVE_MS=0), "play", "--frames", 18432, "--starve-ms", 200, "--starve-at", 9216)
    measured = subprocess.run(
        [str(TOOLS / "measureRecording.py"), str(cards.recordings()[0]), "--log", str(cards.log), "--json",
         "--silence-db", "-180"], capture_output=True, text=True, check=True, timeout=TIMEOUT)
    result = json.loads(measured.stdout)
    underrun, = result["underruns"]
    silence, = result["silences"]
    assert silence["frame"] == underrun["frame"]
    assert silence["frames"] == result["gapFrames"]
    frames = cards.recording().frames
    assert result["frames"] == len(frames)
    highest = numpy.abs(frames.astype(numpy.float64)).max() / 2 ** 31
    assert result["peakDb"][1] == pytest.approx(20 * numpy.log10(highest), abs=0.01)
    assert result["headerAgrees"]


def test_measurement_tells_the_longest_silences_in_their_order(tmp_path):
    silences = [30, 21, *range(40, 50), 22, 60]  # ms, of which the two shortest are left out
    sound = numpy.full((480, 2), 1000, "<i2")
    rows = [sound]
    for ms in silences:
        rows += [numpy.zeros((48 * ms, 2), "<i2"), sound]
    (tmp_path / "a.wav").write_bytes(wav_bytes(numpy.concatenate(rows), 48000))
    told = subprocess.run([str(TOOLS / "measureRecording.py"), "a.wav"], cwd=tmp_path, capture_output=True, text=True,
                          check=True, timeout=TIMEOUT).stdout.splitlines()
    assert told[2] == "  silences: 14, 0.578 s in all; the longest 12:"
    assert [line.split(" for ")[1] for line in told[3:]] == [f"0.{ms:03} s" for ms in silences if ms not in (21, 22)]
    assert told[3] == "    at 0.010 s (frame 480) for 0.030 s"


def test_script_sets_the_run_up(cards, tmp_path):
    script = virtualCard.REPOSITORY / "scripts" / "with-virtual-card.sh"
    run = tmp_path / "run"
    done = subprocess.run([str(script), "-d", str(run), "-b", str(virtualCard.build_directory()), PROBE, "play",
                           "--frames", "4608"], capture_output=True, text=True, timeout=TIMEOUT,
                          env={"PATH": os.environ["PATH"], "VCARD_PPM": "100"})
    assert done.returncode == 0, done.stderr
    assert (run / "record" / "0-0-0001.wav").exists()
    assert "ppm=100" in (run / "log").read_text()
