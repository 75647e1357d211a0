"""The daemon as a process: command line, becoming a daemon, heartbeat, control datagrams, log, fatal conditions."""

import os
import pathlib
import re
import signal
import socket
import struct
import sys
import time

import pytest

from daemonHarness import BINARY, CONTROL_PORT, HEARTBEAT_PORT, Daemon, log_line, start_request, stop_request

USAGE = "Usage: AudioPlayer -t [LOG_LEVEL] -p [PORTNUMBER] -d [DAEMONIZE]\n"
BANNER = r"Vorelk Audio Player Version 1\.1\.0\.15\ncompiled on [A-Z][a-z]{2} [ \d]\d \d{4} at \d\d:\d\d:\d\d\n"

# Runs a command whose processes all come back to this one, and prints the status of each. The child keeps a name: an
# unnamed one that has ended already is reaped by its own disposal, and its status lost.
REAP = """
import ctypes, os, subprocess, sys
PR_SET_CHILD_SUBREAPER = 36
ctypes.CDLL(None).prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)
child = subprocess.Popen(sys.argv[1:], stdin=subprocess.DEVNULL, stdout=2)
while True:
    try:
        print(os.waitstatus_to_exitcode(os.wait()[1]))
    except ChildProcessError:
        break
"""


def statuses(daemon, *arguments):
    """The exit statuses of all processes that the daemon becomes, sorted, and what they write, both streams as one."""
    done = daemon.run(sys.executable, "-c", REAP, BINARY, *arguments)
    return sorted(done.stdout.split()), done.stderr


def unknown_request(daemon, port=CONTROL_PORT):
    """Sends a request that only leaves a log line, and waits for it: everything sent before has been handled then."""
    daemon.mark()
    daemon.send(bytes([2, 0xFF, 0xFF, 0, 0]), port)
    daemon.wait_log(log_line("DEBUG", "AudioManager.cpp", "playlist manager received unknown set request"))


def udp_ports(daemon):
    """The ports of the daemon's UDP sockets."""
    table = pathlib.Path(f"/proc/{daemon.pid}/net/udp").read_text().splitlines()[1:]
    return [int(line.split()[1].split(":")[1], 16) for line in table]


def detached(daemon):
    """The process id of a daemon that has left its parent and serves its control port."""
    assert daemon.wait_exit() == 0
    return daemon.wait_until(lambda: len(daemon.pids()) == 1 and daemon.pids()[0], what="one process left")


# ---- command line


def test_without_arguments_everything_is_logged_and_the_banner_printed(daemon):
    daemon.start()
    daemon.wait_bound(7004)
    daemon.wait_output(r"\A" + BANNER)
    for text in ("Spawned audio_manager thread", "Spawned heartbeat thread"):
        daemon.wait_log(log_line("INFO", "globals.cpp", text))
    daemon.wait_log(log_line("DEBUG", "AudioManager.cpp", "Success! Policy = RealTime-FIFO, Priority = 80"))
    assert daemon.alive()
    assert daemon.pids() == [daemon.pid]  # no fork


def test_objects_are_built_before_the_threads_start(daemon):
    daemon.start()
    daemon.wait_log("Spawned heartbeat thread")
    assert daemon.database.exists()
    lines = daemon.log()
    assert lines.index("AudioDatabase.cpp") < lines.index("Spawned audio_manager") < lines.index("Spawned heartbeat")


def test_log_level_is_a_decimal_mask(daemon):
    daemon.start("-t", "1024")
    daemon.wait_output(r"\ATracelevel: 1024\n" + BANNER)
    daemon.wait_bound()
    unknown_request(daemon)
    assert "[INFO]" not in daemon.log() and "[ERROR]" not in daemon.log()
    assert "[DEBUG]" in daemon.log()


@pytest.mark.parametrize("value, level", [("0", 0), ("abc", 0), ("0x7ff", 0), (" 0", 0)])
def test_log_level_zero_logs_nothing(daemon, value, level):
    beats = daemon.receiver(HEARTBEAT_PORT)
    daemon.start("-t", value)
    daemon.wait_output(rf"\ATracelevel: {level}\n" + BANNER)
    daemon.wait_bound()
    daemon.start_source(7)
    beats.recv(16)
    beats.recv(16)  # a second later
    assert daemon.log() == ""


@pytest.mark.parametrize("value, level", [("99999999999", 2147483647), ("-99999999999", -2147483648), ("12x", 12)])
def test_number_saturates_at_32_bits_and_ends_at_the_first_stranger(daemon, value, level):
    daemon.start("-t", value, "-?")
    assert daemon.wait_exit() == 0
    assert daemon.output() == f"Tracelevel: {level}\n"


def test_only_two_letters_of_an_option_count_and_its_value_is_the_next_argument(daemon):
    daemon.start("-txyz", "3", "-port", "7100")
    daemon.wait_output(r"\ATracelevel: 3\nPort:       7100\n" + BANNER)
    daemon.wait_bound(7100)


def test_options_come_in_any_order(daemon):
    daemon.start("-p", "7100", "-t", "2047", "-p", "7200")
    daemon.wait_output(r"\APort:       7100\nTracelevel: 2047\nPort:       7200\n" + BANNER)
    daemon.wait_bound(7200)
    assert not daemon.bound(7100)
    unknown_request(daemon, port=7200)


def test_port_is_cut_to_its_low_sixteen_bits(daemon):
    daemon.start("-p", str(65536 + 7100))
    daemon.wait_output(r"^Port:       72636$")
    daemon.wait_bound(7100)


def test_port_that_is_no_number_is_zero(daemon):
    daemon.start("-p", "abc")
    daemon.wait_output(r"^Port:       0$")
    daemon.wait_log("Success! Policy")
    # The kernel chooses a port for this socket and for the heartbeat's, which takes no notice of what it is sent.
    daemon.wait_until(lambda: len(udp_ports(daemon)) == 2, what="both sockets have a port")
    assert not daemon.bound(7004)
    for port in udp_ports(daemon):
        daemon.start_source(7, port)
    daemon.wait_log(log_line("DEBUG", "AudioManager.cpp", "playlist manager received start request id = 7"))


@pytest.mark.parametrize("arguments, printed", [
    (["-x"], ""),
    (["help"], ""),
    ([""], ""),
    (["-t", "5", "what"], "Tracelevel: 5\n"),
    (["-p", "7100", "-t", "5", "-h"], "Port:       7100\nTracelevel: 5\n"),
])
def test_unknown_argument_is_answered_with_the_usage_and_status_0(daemon, arguments, printed):
    daemon.start(*arguments)
    assert daemon.wait_exit() == 0
    assert daemon.log() == USAGE
    assert daemon.output() == printed


@pytest.mark.parametrize("option", ["-t", "-p"])
def test_option_at_the_end_reads_the_null_behind_the_arguments(daemon, option):
    daemon.start(option)
    assert daemon.wait_exit() != 0  # by SIGSEGV, or by a sanitizer that saw it coming
    assert "Version" not in daemon.output()


# ---- becoming a daemon


def test_daemon_leaves_its_parent_its_directory_and_its_streams(daemon):
    (daemon.vorelk / "server").mkdir()
    daemon.start("-d")
    pid = detached(daemon)
    daemon.wait_bound()
    assert daemon.output() == "Daemonizing... \n"  # the banner is lost
    assert daemon.log() == "Audio Player Daemon Started.\n"  # and so is the log
    assert os.readlink(f"/proc/{pid}/cwd") == "/vorelk/server"
    assert [os.readlink(f"/proc/{pid}/fd/{fd}") for fd in range(3)] == ["/dev/null"] * 3
    assert os.getsid(pid) == pid
    assert re.search(r"^Umask:\s+0000$", pathlib.Path(f"/proc/{pid}/status").read_text(), re.MULTILINE)
    assert (daemon.vorelk / "audioplayerdatabase" / "audioDatabase.db").exists()


def test_daemon_serves_on(daemon):
    (daemon.vorelk / "server").mkdir()
    beats = daemon.receiver(HEARTBEAT_PORT)
    daemon.start("-d")
    pid = detached(daemon)
    assert beats.recv(16) == b"\x01"
    daemon.wait_bound()
    daemon.start_source(7)
    assert beats.recv(16) == b"\x01"
    assert daemon.pids() == [pid]


def test_options_around_the_daemon_option_all_take_effect(daemon):
    (daemon.vorelk / "server").mkdir()
    daemon.start("-t", "3", "-d", "-p", "7100")
    detached(daemon)
    daemon.wait_bound(7100)
    assert daemon.output() == "Tracelevel: 3\nDaemonizing... \n"


def test_daemon_option_takes_no_value(daemon):
    (daemon.vorelk / "server").mkdir()
    ended, written = statuses(daemon, "-d", "1")
    assert ended == ["0", "0"]
    assert written == "Daemonizing... \nAudio Player Daemon Started.\n"  # the usage went to /dev/null


def test_missing_directory_ends_the_daemon(daemon):
    ended, written = statuses(daemon, "-d")
    assert ended == ["0", "1"]
    assert written == "Daemonizing... \nERROR!, Could not change directory.\n"


def test_child_of_process_1_is_a_daemon_already(daemon):
    done = daemon.run("unshare", "--pid", "--fork", "sh", "-c", '"$0" -d what; echo "status $?"', BINARY)
    assert done.stdout == "Daemonizing... \nstatus 0\n"
    assert done.stderr == USAGE


# A user that has one process and may have no second one; a leak checker would want one.
ALONE = ("env", "ASAN_OPTIONS=detect_leaks=0", "setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "prlimit", "--nproc=1")


def test_failed_fork_goes_on_as_the_child(daemon):
    (daemon.vorelk / "server").mkdir()
    daemon.vorelk.chmod(0o777)
    daemon.start("-d", wrapper=ALONE)
    assert daemon.wait_exit() == 255  # no thread can be started either
    assert daemon.output() == "Daemonizing... \n"
    assert daemon.log() == "ERROR! Failed to fork the process\nAudio Player Daemon Started.\n"


def test_failed_session_ends_the_process_with_a_word_on_stdout(daemon):
    daemon.start("-d", wrapper=("setsid", *ALONE))  # the leader of a session can't make another one
    assert daemon.wait_exit() == 1
    assert daemon.output() == "Daemonizing... \nERROR! Failed to create SID\n"
    assert daemon.log() == "ERROR! Failed to fork the process\n"


def test_refused_thread_ends_the_process(daemon):
    (daemon.work_dir / "audioplayerdatabase").mkdir()
    for path in (daemon.run_dir, daemon.work_dir / "audioplayerdatabase"):
        path.chmod(0o777)
    daemon.start(wrapper=ALONE)
    assert daemon.wait_exit() == 255
    daemon.wait_log(r"^[A-Z][^\n]+ \[ERROR\] -?\d+ \d+: Unable to spawn audio_manager thread $")


# ---- threads


REAL_TIME = (os.SCHED_FIFO, 80)


def schedulers(pid):
    """Policy and priority of each thread by its id. Sanitizers have a thread of their own among them."""
    threads = [int(entry) for entry in os.listdir(f"/proc/{pid}/task")]
    return {thread: (os.sched_getscheduler(thread), os.sched_getparam(thread).sched_priority) for thread in threads}


def test_only_the_audio_manager_is_real_time(daemon):
    beats = daemon.receiver(HEARTBEAT_PORT)
    daemon.start()
    daemon.wait_bound()
    beats.recv(16)
    found = list(schedulers(daemon.pid).values())
    assert len(found) >= 3
    assert found.count(REAL_TIME) == 1
    assert found.count((os.SCHED_OTHER, 0)) == len(found) - 1


def test_daemon_goes_on_without_real_time_priority(daemon):
    daemon.start(wrapper=("setpriv", "--bounding-set", "-sys_nice"))
    daemon.wait_log(log_line("ERROR", "AudioManager.cpp", "Failed! Scheduling priority not set."))
    daemon.wait_bound()
    unknown_request(daemon)


def test_idle_loop_runs_about_200_times_a_second(daemon):
    def waits():
        status = pathlib.Path(f"/proc/{daemon.pid}/task/{thread}/status").read_text()
        return int(re.search(r"^voluntary_ctxt_switches:\s+(\d+)$", status, re.MULTILINE)[1])

    beats = daemon.receiver(HEARTBEAT_PORT)
    daemon.start()
    daemon.wait_bound()
    thread = next(thread for thread, found in schedulers(daemon.pid).items() if found == REAL_TIME)
    beats.recv(16)
    begin, before = time.monotonic(), waits()
    beats.recv(16)
    beats.recv(16)
    elapsed, passes = time.monotonic() - begin, waits() - before
    assert 20 * elapsed < passes < 220 * elapsed + 20  # each waits 5 ms or, on a busy machine, longer


# ---- heartbeat


SO_TIMESTAMPNS = 35  # the kernel's own time of a datagram, whenever the test comes to look


def test_heartbeat_is_one_byte_at_once_and_each_second(daemon):
    beats = daemon.receiver(HEARTBEAT_PORT)
    beats.setsockopt(socket.SOL_SOCKET, SO_TIMESTAMPNS, 1)
    daemon.start()
    times = []
    for _ in range(4):
        beat, ((_, _, stamp),), _, _ = beats.recvmsg(16, 64)
        assert beat == b"\x01"
        seconds, nanoseconds = struct.unpack("ll", stamp)
        times.append(seconds + nanoseconds / 1e9)
    gaps = [later - earlier for earlier, later in zip(times, times[1:])]
    assert min(gaps) > 0.99
    assert min(gaps) < 1.5  # a busy machine makes one longer, or two


def test_heartbeat_needs_no_listener(daemon):
    daemon.start()
    daemon.wait_bound()
    beats = daemon.receiver(HEARTBEAT_PORT)  # after the first beat, or a little before it
    beats.recv(16)
    beats.recv(16)
    assert daemon.alive()


def test_beat_that_cannot_be_sent_ends_the_process(tmp_path):
    with Daemon(tmp_path, loopback=False) as daemon:
        daemon.start()
        assert daemon.wait_exit() == 1
        daemon.wait_log(log_line("ERROR", "Heartbeat.cpp", "Cannot send ping to watchdog"))


# ---- control datagrams


@pytest.fixture
def running(daemon):
    daemon.start()
    daemon.wait_log("Spawned heartbeat thread")  # main's last line: the audio manager may be faster
    daemon.wait_bound()
    unknown_request(daemon)
    daemon.mark()
    return daemon


def logged(daemon):
    """The texts logged since the mark, without date, type, file and line; ends at an unknown request sent for it."""
    daemon.send(bytes([2, 0xEE, 0xEE, 0, 0]))
    pattern = r"\A([\s\S]*)^[^\n]+: playlist manager received unknown set request$"
    before = daemon.wait_log(pattern)[1]
    return [re.sub(r"^[^\[]+\[(\w+)\] (\w+\.cpp) \d+:? ", r"\1 \2 ", line) for line in before.splitlines()]


def start_texts(player_id):
    """What a start of a source that is not in the database logs."""
    return [f"DEBUG AudioManager.cpp playlist manager received start request id = {player_id}",
            f"DEBUG AudioService.cpp AudioService::startPlayer id = {player_id}",
            f"ERROR AudioService.cpp No audio source with id = {player_id}"]


def test_start_request_is_passed_to_the_service(running):
    running.send(bytes([2, 0x02, 0x12, 0, 0, 0x39, 0x30, 0, 0]))
    assert logged(running) == start_texts(12345)


def test_player_id_is_signed(running):
    running.start_source(-1)
    assert logged(running) == start_texts(-1)


def test_start_request_has_its_log_line_byte_for_byte(running):
    running.start_source(7)
    running.wait_log(log_line("DEBUG", "AudioManager.cpp", "playlist manager received start request id = 7"))


def test_start_cut_off_after_the_channel_starts_source_0(running):
    running.send(start_request(7)[:5])
    assert logged(running) == start_texts(0)


def test_stop_without_a_player_does_nothing(running):
    running.stop_source()
    assert logged(running) == []


def test_one_byte_is_an_unknown_request(running):
    running.send(b"\x02")
    running.wait_log(log_line("DEBUG", "AudioManager.cpp", "playlist manager received unknown set request"))


def test_other_op_codes_are_dropped_without_a_word(running):
    for op_code in (0, 1, 3, 255):
        running.send(bytes([op_code]) + start_request(7)[1:])
    assert logged(running) == []


def test_zero_length_datagram_does_nothing(running):
    running.send(b"")
    running.start_source(8)
    assert logged(running) == start_texts(8)


def test_long_datagram_is_cut_and_handled(running):
    running.send(start_request(9) + b"\xff" * 3000)
    assert logged(running) == start_texts(9)


def test_datagrams_in_flight_are_taken_in_turn(running):
    with running.socket(socket.SOCK_DGRAM) as sender:
        for player_id in range(1, 6):
            sender.sendto(start_request(player_id), ("127.0.0.1", CONTROL_PORT))
    assert logged(running) == [text for player_id in range(1, 6) for text in start_texts(player_id)]


def test_nothing_is_sent_back(running):
    with running.socket(socket.SOCK_DGRAM) as sender:
        for request in (start_request(7), stop_request(), b"\x02", b"\x05"):
            sender.sendto(request, ("127.0.0.1", CONTROL_PORT))
        unknown_request(running)  # the daemon is through with them
        sender.setblocking(False)
        with pytest.raises(BlockingIOError):
            sender.recv(16)


def test_log_level_filters_the_requests(daemon):
    daemon.start("-t", "2")
    daemon.wait_bound()
    daemon.start_source(7)
    daemon.wait_log(r"\[ERROR\] AudioService\.cpp \d+ No audio source with id = 7$")
    assert daemon.log().count("\n") == 1


# ---- fatal conditions


def test_port_in_use_ends_the_process(daemon):
    with daemon.receiver(CONTROL_PORT):
        daemon.start()
        assert daemon.wait_exit() == 1
    daemon.wait_log(log_line("ERROR", "AudioManager.cpp", "Cannot bind socket"))


def test_power_cut_and_restart(daemon):
    daemon.start()
    daemon.wait_bound()
    daemon.kill()
    assert daemon.process.returncode == -signal.SIGKILL
    daemon.mark()
    daemon.start()
    daemon.wait_bound()
    unknown_request(daemon)
