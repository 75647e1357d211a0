"""The as-played log of the running daemon: its times, its trim, what a peer reads of it, and what a power cut leaves."""

import contextlib
import re
import shutil
import socket
import sqlite3
import struct
import time

import pytest

import playoutModel
from automationPeer import AUTOMATION_PORT, AutomationPeer
from hostShim import HostShim
from station import noise, wav_bytes
from test_automation import DECLARATION, FILTER, answer, deleting, exchange, playing_now, request

SECOND = 1_000_000_000  # ns
NOON = 1_700_000_000  # "Tue Nov 14 22:13:20 2023" in UTC

START_ITEM, LOG_TRIMMED = 0, 5
KEPT, TRIMMED_FROM = 10_000, 12_000

PERIOD = 8192  # frames; a file of one period is on air for a sixth of a second
SHORT, LONG = PERIOD - 255, 20 * 48000  # one that ends within a test, one that does not

COLUMNS = ("log_time_sec, log_time_usec, playlist_assoc_id, playlist_id, playlist_item_id, entry_type, player_status, "
           "tx_status, desc")


class Log:
    """A station whose clock and power the test has in hand, and its log."""

    def __init__(self, station, host):
        self.station, self.host = station, host
        self.daemon, self.card = station.daemon, station.card
        self.daemon.env["TZ"] = "UTC"

    def boot(self):
        self.daemon.start(wrapper=self.host.wrapper)
        self.daemon.wait_bound()
        return self

    def playlist(self, name, **files):
        """A playlist of files of so many frames; the id of its source."""
        paths = []
        for file, frames in files.items():
            (self.daemon.usb / f"{file}.wav").write_bytes(wav_bytes(noise(frames, channels=1), 48000))
            paths.append(f"/mnt/usb/{file}.wav")
        return self.station.playlist(name, paths)

    def seat(self):
        """A peer that has been accepted. Once closed behind a daemon that was killed, it leaves the port free at once."""
        sock = self.daemon.connect(AUTOMATION_PORT)
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        peer = AutomationPeer(sock)
        assert peer.fence() == []
        return peer

    def sql(self, statement, values=()):
        with contextlib.closing(sqlite3.connect(self.daemon.database, timeout=10)) as database, database:
            return database.execute(statement, values).fetchall()

    def fill(self, count):
        """So many old rows, a second apart, each in its second's last millisecond."""
        with contextlib.closing(sqlite3.connect(self.daemon.database, timeout=10)) as database, database:
            database.executemany(f"INSERT INTO T_As_Played_Log ({COLUMNS}) VALUES (?, ?, 1, 1, 1, 0, 1, 100, '')",
                                 ((1_000_000 + n, 999_000) for n in range(count)))

    def count(self):
        return self.sql("SELECT count(*) FROM T_As_Played_Log")[0][0]

    def rows(self):
        """Every row in the order of writing, by the columns above."""
        return self.sql(f"SELECT {COLUMNS} FROM T_As_Played_Log ORDER BY id")

    def files(self):
        return [path for (path,) in self.sql("SELECT i.pathname FROM T_As_Played_Log l "
                                             "LEFT JOIN T_Items i ON i.id = l.playlist_item_id ORDER BY l.id")]

    def times(self):
        """The times of all rows, in microseconds."""
        return [row[0] * 1_000_000 + row[1] for row in self.rows()]

    def wait_rows(self, more):
        """Until so many more rows have been written."""
        count = self.count()
        self.daemon.wait_until(lambda: self.count() >= count + more, what=f"{more} more rows")


@pytest.fixture
def log(station, tmp_path):
    return Log(station, HostShim(tmp_path))


def microseconds(nanoseconds):
    return nanoseconds // 1000


# ---- times


def test_times_rise_by_a_microsecond_while_the_clock_does_not(log):
    log.boot()
    log.host.set_clock(NOON * SECOND)
    log.daemon.start_source(log.playlist("Round", a=SHORT, b=SHORT))
    # It stands still; it is set back, an hour and to the day of the epoch; it goes on, to the last moment of a second.
    settings = [NOON * SECOND, (NOON - 3600) * SECOND, 1, NOON * SECOND + 500_000_000, (NOON + 2) * SECOND - 500]
    log.daemon.wait_until(lambda: log.count() >= 2, what="2 rows")
    for setting in settings[1:]:
        log.host.set_clock(setting)
        log.wait_rows(2)
    log.daemon.kill()

    times = log.times()
    assert times[0] == microseconds(settings[0])
    jumps = [time for last, time in zip(times, times[1:]) if time != last + 1]
    # The second's end is a jump too, as it carries the half microsecond: ...999999, then ...000000.
    assert jumps == [microseconds(settings[3]), microseconds(settings[4])]
    assert (NOON + 2) * 1_000_000 in times
    assert all(0 <= row[1] < 1_000_000 for row in log.rows())
    assert log.files() == [f"/mnt/usb/{'ab'[n % 2]}.wav" for n in range(len(times))]
    assert log.card.underruns() == 0

    # The memory of the last time ends with the run.
    log.host.set_clock(NOON * SECOND)
    before = len(times)
    log.boot().daemon.start_source(1)
    log.daemon.wait_until(lambda: log.count() > before, what="another row")
    assert log.times()[before] == times[0]


def test_times_are_the_clocks_own_while_it_runs(log):
    log.boot()
    source = log.playlist("Round", a=SHORT, b=SHORT)
    before = microseconds(time.time_ns())
    log.daemon.start_source(source)
    log.daemon.wait_until(lambda: log.count() >= 4, what="4 rows")
    log.daemon.kill()
    times = log.times()
    assert before <= times[0] and times[-1] <= microseconds(time.time_ns())
    assert all(last < time for last, time in zip(times, times[1:]))


# ---- what a peer reads


def entry(time, kind, playlist=None, file=None, lines=()):
    inside = f'      <Playlist name="{playlist}" />\n      <PlaylistItem type="file" filename="{file}" />\n' if playlist else ""
    inside = inside.replace("      ", "    ") + "".join(f"    {line}\n" for line in lines)
    return f'  <LogEntry time="{time}" type="{kind}">\n{inside}  </LogEntry>\n'


def log_answer(number, in_log, *entries):
    return DECLARATION + (
        f'<Transaction type="response" command="getAsPlayedLog" transactionNumber="{number}" status="success">\n'
        f'  <Info entriesInLog="{in_log}" numEntries="{len(entries)}" />\n{"".join(entries)}</Transaction>').encode()


def started(clock, microsecond, file):
    return entry(f"Tue Nov 14 {clock} 2023 {microsecond // 1000:03}.{microsecond % 1000:03}ms", "startPlaylistItem",
                 "Round", f"/mnt/usb/{file}.wav")


def test_items_of_one_second_are_told_in_order_once_a_later_second_has_one(log):
    log.boot()
    source = log.playlist("Round", a=SHORT, b=SHORT)
    peer = log.seat()
    log.host.set_clock(NOON * SECOND + 250_000_000)
    log.daemon.start_source(source)
    for file in "abab":
        assert peer.next_document() == playing_now("Round", f"/mnt/usb/{file}.wav")
    exchange_stop(peer)
    # All are in the second of the newest.
    count = log.count()
    assert count >= 4
    exchange(peer, request("1", inside="<Parameters/>") + b"\n", log_answer("1", count))

    log.host.set_clock((NOON + 1) * SECOND)
    log.daemon.start_source(source)
    peer.next_document()
    exchange_stop(peer)
    in_log = log.count()
    first = [started("22:13:20", 250_000 + n, "ab"[n % 2]) for n in range(count)]
    exchange(peer, request("2", inside="<Parameters/>") + b"\n", log_answer("2", in_log, *first))
    exchange(peer, request("3", inside='<Parameters maxLogEntries="2"/>') + b"\n", log_answer("3", in_log, *first[:2]))
    # The delete takes the whole second of what it tells, told or not.
    exchange(peer, request("4", inside='<Parameters maxLogEntries="1" delete="yes"/>') + b"\n",
             log_answer("4", in_log, first[0]))
    assert {row[0] for row in log.rows()} == {NOON + 1}
    exchange(peer, request("5", inside='<Parameters delete="yes"/>') + b"\n", log_answer("5", in_log - count))
    assert log.count() == in_log - count


def exchange_stop(peer):
    """Stops what plays; whatever was told before the answer goes."""
    peer.send_raw(request("stop", "stopPlaylist") + b"\n")
    while peer.next_document() != answer("stop", "stopPlaylist"):
        pass


def test_delete_of_a_playlist_clears_the_log_unless_it_is_told_not_to(log):
    log.boot()
    log.daemon.start_source(log.playlist("Round", a=LONG))
    log.daemon.wait_until(lambda: log.count() == 1, what="a row")
    peer = log.seat()
    lines = ["Deleting playlist none and keeping audio files", "  ERROR: Playlist not found", ""]
    exchange(peer, deleting("1", "none", clearAsPlayedLog="no") + b"\n", answer("1", "deletePlaylists", "ERROR", lines))
    assert log.count() == 1
    exchange(peer, deleting("2", "none") + b"\n", answer("2", "deletePlaylists", "ERROR", lines))
    assert log.count() == 0


# ---- the trim


def test_item_that_makes_12000_rows_has_the_oldest_2000_removed(log):
    log.boot()
    log.fill(TRIMMED_FROM - 2)
    first = log.playlist("Round", a=3 * PERIOD - 255, b=LONG)
    log.host.set_clock(NOON * SECOND + 250_000_000)
    peer = log.seat()
    log.daemon.start_source(first)
    assert peer.next_document() == playing_now("Round", "/mnt/usb/a.wav")  # row 11999
    assert peer.next_document() == playing_now("Round", "/mnt/usb/b.wav")  # row 12000
    log.station.wait_frames(playoutModel.PRE_BUFFER + 10 * PERIOD)  # past the change
    log.daemon.kill()
    peer.close()

    rows = log.rows()
    assert len(rows) == KEPT + 1
    assert rows[0][0] == 1_000_000 + 2000
    assert [row[:2] for row in rows[-3:]] == [(NOON, 250_000), (NOON, 250_001), (NOON, 250_002)]
    text = "Trimmed 2000 entries from Mon Jan 12 13:46:40 1970 999.000ms to Mon Jan 12 14:20:00 1970 999.000ms"
    assert rows[-1][2:] == (0, 0, 0, LOG_TRIMMED, 1, 100, text + "\n")
    assert re.findall(r"Trimming As Played Log.*$", log.daemon.log(), re.MULTILINE) == \
        ["Trimming As Played Log based on entries (12000/10000+2000)"]
    assert log.card.underruns() == 0
    files = [str(log.daemon.usb / name) for name in ("a.wav", "b.wav")]
    assert len(playoutModel.explain(log.station.recording(), files, FILTER)) == 2

    # A later second has an item: the trim is told as any entry.
    log.sql("DELETE FROM T_As_Played_Log WHERE log_time_sec < ?", (NOON,))
    log.host.set_clock((NOON + 5) * SECOND)
    log.boot()
    peer = log.seat()
    log.daemon.start_source(log.playlist("Late", c=LONG))
    assert peer.next_document() == playing_now("Late", "/mnt/usb/c.wav")
    exchange(peer, request("1", inside="<Parameters/>") + b"\n", log_answer(
        "1", 4, started("22:13:20", 250_000, "a"), started("22:13:20", 250_001, "b"),
        entry("Tue Nov 14 22:13:20 2023 250.002ms", "logTrimmed", lines=[text, ""])))


# ---- power cuts


def recovered(log):
    """The rows after a start of the daemon on what a power cut left."""
    log.boot()
    assert log.sql("PRAGMA integrity_check") == [("ok",)]
    return log.rows()


def test_power_cut_between_any_two_writes_loses_no_item_that_was_told(log):
    """The cut comes ahead of the first write of the run, of the second, and so on, to the end of the second entry."""
    log.boot()
    source = log.playlist("Round", a=SHORT, b=SHORT)
    log.daemon.kill()
    kept, journals = [], []
    told = []
    for write in range(1, 100):
        if len(told) == 2:
            break
        rows = recovered(log)
        assert rows == kept
        peer = log.seat()
        log.host.kill_at(write)
        log.daemon.start_source(source)
        log.daemon.wait_exit()
        journals.append(log.daemon.database.with_name("audioDatabase.db-journal").stat().st_size)

        told = [document.raw for document in peer.wait_closed()]
        peer.close()
        assert told == [playing_now("Round", f"/mnt/usb/{'ab'[n % 2]}.wav") for n in range(len(told))]
        fresh = recovered(log)
        log.daemon.kill()
        assert fresh[: len(rows)] == rows
        files = log.files()[len(rows) :]
        assert len(told) <= len(files) <= len(told) + 1
        assert files == [f"/mnt/usb/{'ab'[n % 2]}.wav" for n in range(len(files))]
        times = log.times()[len(rows) :]
        assert all(last < time for last, time in zip(times, times[1:]))
        kept = fresh
    assert len(told) == 2
    assert journals[0] == 0 and max(journals) > 4096  # the cut came ahead of all writes, and between them


def test_power_cut_within_a_trim_leaves_all_rows_or_those_that_stay(log):
    log.boot()
    log.fill(TRIMMED_FROM - 1)
    source = log.playlist("Round", a=LONG)
    log.daemon.kill()
    full = log.daemon.work_dir / "full.db"
    shutil.copy(log.daemon.database, full)

    log.boot()
    before = log.host.writes()
    log.daemon.start_source(source)
    log.daemon.wait_until(lambda: log.count() == KEPT + 1, what="the trim")
    log.daemon.stop_source()
    log.daemon.wait_log("FilePlayer destructor$")
    writes = log.host.writes() - before
    log.daemon.kill()

    oldest, counts = 1_000_000, []
    for step in range(1, 13):
        shutil.copy(full, log.daemon.database)
        log.boot()
        log.host.kill_at(1 + (writes - 1) * step // 12)
        log.daemon.start_source(source)
        log.daemon.wait_exit()
        rows = recovered(log)
        log.daemon.kill()
        counts.append(len(rows))
        removed = 2000 if len(rows) <= KEPT + 1 else 0
        old = [row[0] for row in rows if row[0] < NOON]
        assert old == list(range(oldest + removed, oldest + TRIMMED_FROM - 1))
        assert [row[5] for row in rows[len(old) :]] == [START_ITEM, LOG_TRIMMED][: len(rows) - len(old)]
    assert set(counts) <= {TRIMMED_FROM - 1, TRIMMED_FROM, KEPT, KEPT + 1}
    assert len(set(counts)) >= 2
