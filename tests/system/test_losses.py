"""What docs/operation.md says of losses: the card, the disk, the database, the store."""

import os
import pathlib
import sqlite3

import numpy as np
import pytest

from daemonHarness import DEFAULT_TIMEOUT, HEARTBEAT_PORT, log_line

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ.get("AUDIOPLAYER_BUILD") or ROOT / "build" / "release").resolve()
TOOL = BUILD / "tools" / "audioplayerctl" / "audioplayerctl"

UNPLUGGED = r"^.*\(0\): -19 <<<<<<<<<<<<<<< Buffer Underrun >>>>>>>>>>>>>>>>>>>>>$"


@pytest.mark.busy_core
def test_an_unplugged_card_is_told_without_end_and_a_start_finds_it_when_it_is_back(station):
    station.boot()
    source = station.playlist("morning", [station.wav("a.wav")])
    station.on_air(source)
    station.wait_frames(4800)
    with station.daemon.receiver(HEARTBEAT_PORT) as watchdog:
        station.card.page.set_gone()
        station.daemon.wait_output(UNPLUGGED)
        assert watchdog.recv(16) == b"\1"  # one that waited, perhaps
        assert watchdog.recv(16) == watchdog.recv(16) == b"\1"
    station.daemon.mark()
    station.daemon.stop_source()  # there is a core left for the control loop
    station.daemon.wait_log("FilePlayer destructor$")

    station.daemon.start_source(source)
    for _ in range(4):
        station.daemon.wait_log(r"^Error opening PCM device plughw:0,0 No such device\. Retrying\.\.\.$")
    station.daemon.wait_log(r"^Error opening PCM device plughw:0,0 No such device\. Failed!$")
    station.daemon.wait_log("FilePlayer::start - player not ready$")
    station.card.page.set_gone(False)
    station.on_air(source)
    station.wait_frames(4800)


def test_a_full_disk_costs_entries_of_the_log_and_no_audio(station):
    daemon = station.daemon
    folder = daemon.database.parent
    folder.mkdir()
    assert daemon.run("mount", "-t", "tmpfs", "-o", "size=256k", "tmpfs", folder).returncode == 0
    station.boot()
    file = station.wav("a.wav", seconds=0.3)
    assert daemon.run(TOOL, "upload", "morning", file).returncode == 0
    station.on_air(1)
    daemon.run("dd", "if=/dev/zero", f"of={folder}/fill", "bs=4096")
    for _ in range(3):
        daemon.mark()
        daemon.wait_log(log_line("ERROR", "AsPlayedLog.cpp", "As played log entry failed 13"))
    assert station.card.underruns() == 0
    daemon.run("rm", f"{folder}/fill")
    daemon.wait_until(lambda: daemon.run(TOOL, "now-playing").returncode == 0, what="an entry in the log")


def locked_out(station, mode):
    """Holds the database as another program would, for two files' time; what the daemon logs meanwhile."""
    source = station.playlist("morning", [station.wav("a.wav", seconds=0.3)])
    writer = sqlite3.connect(station.daemon.database, isolation_level=None)
    writer.execute(f"PRAGMA journal_mode={mode}")
    station.on_air(source)
    for _ in range(2):  # past the first change of files
        station.daemon.mark()
        station.wait_item(station.directory / "a.wav")
    writer.execute("BEGIN IMMEDIATE" if mode == "wal" else "BEGIN EXCLUSIVE")
    return writer


def test_a_locked_database_in_rollback_mode_stops_the_playlist_until_the_lock_is_gone(station):
    station.boot()
    writer = locked_out(station, "delete")
    station.daemon.mark()
    station.daemon.wait_log(log_line("ERROR", "AudioDatabase.cpp", "Select playlist item count: 5 failed."))
    station.daemon.wait_log(log_line("DEBUG", "FilePlayer.cpp", "Playlist is empty"))
    writer.close()
    station.daemon.mark()
    station.wait_item(station.directory / "a.wav")


def test_in_write_ahead_mode_a_writer_takes_nothing_from_the_playlist(station):
    station.boot()
    writer = locked_out(station, "wal")
    for _ in range(3):
        station.daemon.mark()
        station.wait_item(station.directory / "a.wav")
    writer.close()
    assert "Playlist is empty" not in station.daemon.log()


def test_files_that_are_gone_are_tried_until_they_are_back(station):
    station.boot()
    file = station.wav("a.wav", seconds=0.3)
    station.on_air(station.playlist("morning", [file]))
    for _ in range(2):  # past the first change of files
        station.daemon.mark()
        station.wait_item(file)
    away = file.rename(file.with_suffix(".away"))
    station.daemon.mark()
    station.daemon.wait_log(f"Cannot create WAV player for {file}$")
    station.daemon.wait_log("Could not create player - tried every entry in playlist$")
    away.rename(file)
    station.daemon.mark()
    station.wait_item(file)


def test_files_that_are_gone_at_the_first_change_leave_a_test_tone_until_the_next_start(station):
    station.boot()
    file = station.wav("a.wav", seconds=6)  # gone long before the first change, however slow the machine
    source = station.playlist("morning", [file])
    station.on_air(source)
    away = file.rename(file.with_suffix(".away"))
    station.daemon.wait_log("Could not create player - tried every entry in playlist$")
    assert station.daemon.log().count(f"WavFilePlayer: {file}\n") == 1
    away.rename(file)
    station.wait_frames(station.card.frames() + 192000)
    heard = station.recording()[-144000:, 0].astype(float)
    spectrum = abs(np.fft.rfft(heard * np.hanning(len(heard))))
    assert abs(np.argmax(spectrum) * 48000 / len(heard) - 1000) < 5
    station.on_air(source)
    station.wait_item(file)
