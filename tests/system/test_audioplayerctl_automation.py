"""audioplayerctl beside and in place of the studio's automation: through the database, and over TCP port 8500."""

import csv
import io
import json
import os
import pathlib
import select
import sqlite3
import subprocess
import time

import pytest

from automationPeer import AutomationPeer
from daemonHarness import AUTOMATION_PORT, DEFAULT_TIMEOUT, HEARTBEAT_PORT
from station import noise, wav_bytes

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ.get("AUDIOPLAYER_BUILD") or ROOT / "build" / "release").resolve()
TOOL = BUILD / "tools" / "audioplayerctl" / "audioplayerctl"

DONE, FAILED, USAGE, DOWN, NOT_FOUND, REFUSED, IN_USE, PLAYER_ERROR, SEAT_TAKEN, NO_ANSWER = range(10)

HOST = ("--host", "127.0.0.1")
NOON = 1700000000  # a second of the log


def ctl(daemon, *arguments, expect=DONE, **options):
    result = daemon.run(TOOL, *arguments, **options)
    assert result.returncode == expect, (arguments, result.stdout, result.stderr)
    return result


def query(daemon, sql, *values):
    connection = sqlite3.connect(daemon.database, timeout=10)
    try:
        with connection:
            return connection.execute(sql, values).fetchall()
    finally:
        connection.close()


def played(daemon, second, microsecond=0, kind=0, file=None, playlist=0, desc=""):
    """Adds a row to the as-played log as the player does."""
    item = 0
    if file is not None:
        query(daemon, "INSERT INTO T_Items (pathname, item_type, item_length_in_samples, item_sample_rate) "
                      "SELECT ?, 1, 96000, 48000 WHERE NOT EXISTS (SELECT 1 FROM T_Items WHERE pathname = ?)",
              file, file)
        item = query(daemon, "SELECT id FROM T_Items WHERE pathname = ?", file)[0][0]
    query(daemon, "INSERT INTO T_As_Played_Log (log_time_sec, log_time_usec, playlist_assoc_id, playlist_id, "
                  "playlist_item_id, entry_type, player_status, tx_status, desc) VALUES (?, ?, 0, ?, ?, ?, 1, 100, ?)",
          second, microsecond, playlist, item, kind, desc)


def entries(daemon, name):
    return query(daemon, "SELECT a.sequence, i.pathname FROM T_Playlists p JOIN T_Playlist_Item_Association a ON "
                         "a.playlist_id = p.id JOIN T_Items i ON i.id = a.item_id WHERE p.name = ? ORDER BY a.sequence",
                 name)


def log_size(daemon):
    return query(daemon, "SELECT count(*) FROM T_As_Played_Log")[0][0]


def usb(daemon, *names):
    for name in names:
        (daemon.usb / name).write_bytes(wav_bytes(noise(48000), 48000))
    return [f"/mnt/usb/{name}" for name in names]


def connections(daemon):
    return daemon.output().count("New TCP connection")


@pytest.fixture
def server(daemon):
    """A daemon whose automation port is open."""
    daemon.start()
    daemon.wait_bound(AUTOMATION_PORT, "tcp")
    return daemon


# ---- upload


def test_upload_over_tcp_names_the_files_below_the_stick(server):
    result = ctl(server, *HOST, "upload", "morning", "/mnt/usb/a.wav", "/mnt/usb/sub/b.wav")
    assert entries(server, "morning") == [(2, "/mnt/usb/a.wav"), (3, "/mnt/usb/sub/b.wav")]
    assert result.stdout.splitlines()[0] == "Created new playlist morning"
    assert "Adding audio item /mnt/usb/sub/b.wav to playlist" in result.stdout.splitlines()
    assert result.stderr == "audioplayerctl: connecting to 127.0.0.1 port 8500, the player's one automation seat\n"


@pytest.mark.parametrize("file", ["/srv/a.wav", "/mnt/usb/../a.wav", "a.wav", "/mnt/usb/", "/mnt/usbx/a.wav"])
def test_upload_over_tcp_refuses_files_elsewhere_and_does_not_connect(server, file):
    result = ctl(server, *HOST, "upload", "morning", "/mnt/usb/a.wav", file, expect=REFUSED)
    assert "the player takes files below /mnt/usb/ only" in result.stderr
    assert connections(server) == 0


M3U = b"\xef\xbb\xbf#EXTM3U\r\n#EXTINF:12,a title\r\n a.wav \r\n\r\n/mnt/usb/b.wav\r\n# note\nsub/c.wav"


def test_upload_reads_an_m3u_list_from_standard_input(server):
    ctl(server, *HOST, "upload", "morning", "-", "--base", "/mnt/usb", text=False, input=M3U)
    assert [path for _, path in entries(server, "morning")] == ["/mnt/usb/a.wav", "/mnt/usb/b.wav",
                                                                "/mnt/usb/sub/c.wav"]


def test_relative_lines_begin_at_the_working_directory(server):
    (server.run_dir / "a.wav").write_bytes(wav_bytes(noise(48000), 48000))
    ctl(server, "upload", "morning", "-", input="a.wav\n")
    assert entries(server, "morning") == [(1, str(server.run_dir / "a.wav"))]


def test_a_list_without_files_or_with_a_url_is_refused(server):
    assert "the list names no files" in ctl(server, "upload", "morning", "-", input="#EXTM3U\n", expect=USAGE).stderr
    result = ctl(server, "upload", "morning", "-", input="http://radio/a.mp3\n", expect=REFUSED)
    assert "a playlist holds files, not URLs: http://radio/a.mp3" in result.stderr
    assert query(server, "SELECT * FROM T_Playlists") == []


def test_upload_without_a_host_stores_lengths_and_leaves_the_seat_alone(server):
    with AutomationPeer.seat(server) as studio:
        files = usb(server, "a.wav", "b.wav", "c.wav")
        assert ctl(server, "upload", "morning", *files[:2]).stdout == 'Created playlist "morning": 2 files\n'
        before = query(server, "SELECT id FROM T_Playlists UNION ALL SELECT id FROM T_Audio_Sources")
        assert ctl(server, "upload", "morning", files[2]).stdout == 'Replaced playlist "morning": 1 files\n'
        assert query(server, "SELECT id FROM T_Playlists UNION ALL SELECT id FROM T_Audio_Sources") == before
        assert entries(server, "morning") == [(1, files[2])]
        assert query(server, "SELECT DISTINCT item_length_in_samples, item_sample_rate FROM T_Items") == [(48000, 48000)]
        assert query(server, "SELECT count(*) FROM T_Items") == [(3,)]  # the log still finds the names
        assert studio.fence() == []


def test_upload_without_a_host_is_all_or_nothing(server):
    files = usb(server, "a.wav")
    ctl(server, "upload", "morning", *files)
    ctl(server, "upload", "morning", "/mnt/usb/none.wav", expect=NOT_FOUND)
    assert entries(server, "morning") == [(1, files[0])]


def test_an_upload_of_many_files_without_a_host_keeps_their_order_and_stores_each_once(server):
    store = server.work_dir / "many"
    store.mkdir()
    first = store / "0.wav"
    first.write_bytes(wav_bytes(noise(48), 48000))
    for number in range(1, 3000):
        os.link(first, store / f"{number}.wav")
    files = [str(store / f"{number}.wav") for number in range(3000)] + [str(first)]
    ctl(server, "upload", "many", "-", input="\n".join(files))
    assert entries(server, "many") == list(enumerate(files, start=1))
    assert query(server, "SELECT count(*) FROM T_Items") == [(3000,)]
    assert query(server, "SELECT count FROM T_Playlists_Item_Count") == [(3001,)]


def test_names_that_look_like_markup_arrive_as_they_are(server):
    name = "a<b>\"c'&#x41;</Transaction>"
    ctl(server, *HOST, "upload", name, "/mnt/usb/" + name)
    assert entries(server, name) == [(2, "/mnt/usb/" + name)]


def test_traps_of_an_upload_over_tcp_are_told(server):
    result = ctl(server, *HOST, "upload", "m", "/mnt/usb/x.MP3.wav", *["/mnt/usb/a.wav"] * 20)
    assert "warning: x.MP3.wav: the player takes it for an MP3 file" in result.stderr
    assert "warning: the player stands still while it stores 21 files" in result.stderr


def test_an_upload_that_the_player_took_in_part_or_not_at_all_fails(daemon):
    for log, count in ((b"", 0), (b"<TransactionLog>\n    Created new playlist m\n    Adding audio item /mnt/usb/a.wav "
                                  b"to playlist\n    \n</TransactionLog>\n", 1)):
        *_, err = serve(daemon, lambda number: response(number, inner=log), "upload", "m", "/mnt/usb/a.wav",
                        "/mnt/usb/b.wav", expect=PLAYER_ERROR)
        assert f"the player took {count} of 2 files" in err


def test_an_upload_that_makes_a_database_says_where(server):
    usb(server, "a.wav")
    result = ctl(server, "--db", "elsewhere/x.db", "upload", "m", "/mnt/usb/a.wav")
    assert result.stderr == f"audioplayerctl: there was no database: made {server.run_dir}/elsewhere/x.db\n"
    assert ctl(server, "--db", "elsewhere/x.db", "upload", "m", "/mnt/usb/a.wav").stderr == ""


def test_a_full_library_takes_no_item_that_the_player_could_not_name(server):
    files = usb(server, "a.wav", "b.wav")
    query(server, "INSERT INTO T_Items VALUES (65533, '/x', 1, 1, 1)")
    ctl(server, "upload", "m", files[0])
    result = ctl(server, "upload", "m", *files, expect=REFUSED)
    assert "the library is full" in result.stderr
    assert entries(server, "m") == [(1, files[0])]


# ---- the seat


def test_a_seat_that_is_held_is_not_taken_unasked(server):
    with AutomationPeer.seat(server) as studio:
        studio.fence()
        result = ctl(server, *HOST, "stop", "--tcp", expect=SEAT_TAKEN)
        assert "another peer, such as the studio's automation, is connected to 127.0.0.1 port 8500" in result.stderr
        assert studio.fence() == []  # still there
        assert connections(server) == 1


def test_take_seat_throws_the_peer_out_and_says_so(server):
    with AutomationPeer.seat(server) as studio:
        studio.fence()
        result = ctl(server, *HOST, "stop", "--tcp", "--take-seat")
        assert "automation seat: the peer that holds it is thrown out\n" in result.stderr
        assert result.stdout == "Asked the player to stop\n"
        studio.wait_closed()


def test_another_port_is_given_behind_the_host(daemon):
    result = ctl(daemon, "--host", "127.0.0.1:8501", "play", "morning", expect=DOWN)
    assert "127.0.0.1 port 8501: cannot connect: Connection refused" in result.stderr
    for host in ("127.0.0.1:", "127.0.0.1:0", "127.0.0.1:65536", "127.0.0.1:x", ":8500"):
        ctl(daemon, "--host", host, "play", "morning", expect=USAGE)
    assert "IPv4 only" in ctl(daemon, "--host", "::1", "play", "morning", expect=USAGE).stderr


def test_half_a_transaction_of_a_lost_peer_is_neither_carried_out_nor_in_the_way(server):
    files = usb(server, "a.wav")
    ctl(server, "upload", "morning", *files)
    with AutomationPeer.seat(server) as lost:
        lost.send_raw('<Transaction type="request" command="deletePlaylists" transactionNumber="1">'
                      '<Playlist name="morning" deleteAudioFiles="yes"/>')
        server.wait_output("New TCP connection")
    ctl(server, *HOST, "upload", "evening", "/mnt/usb/b.wav", "--take-seat")
    assert entries(server, "morning") == [(1, files[0])]
    assert entries(server, "evening") == [(2, "/mnt/usb/b.wav")]
    assert (server.usb / "a.wav").exists()


def serve(daemon, answer, *arguments, expect):
    """Runs the tool against a server that answers its one transaction by `answer(number)` and closes at the end."""
    with daemon.listen(AUTOMATION_PORT) as listener:
        process = subprocess.Popen(daemon.command([TOOL, *HOST, *arguments]), stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE, text=True)
        peer, _ = listener.accept()
        with peer:
            peer.settimeout(DEFAULT_TIMEOUT)
            received = b""
            while received.count(b"</Transaction>") < 2:  # the flush and the request
                received += peer.recv(65536)
            number = received.split(b'transactionNumber="')[1].split(b'"')[0]
            data = answer(number)
            if data is not None:
                peer.sendall(data)
                out, err = process.communicate(timeout=30)
        if data is None:
            out, err = process.communicate(timeout=30)
    assert process.returncode == expect, (out, err)
    return received, out, err


def response(number, status=b"success", inner=b""):
    return (b'<?xml version="1.0" ?>\n<Transaction type="response" command="x" transactionNumber="' + number +
            b'" status="' + status + b'">\n' + inner + b"</Transaction>\n")


def test_no_answer_half_an_answer_and_a_lost_seat_have_their_own_words(daemon):
    *_, err = serve(daemon, lambda number: b"", "play", "m", "--timeout", "0.1", expect=NO_ANSWER)
    assert "the player did not answer in time" in err
    *_, err = serve(daemon, lambda number: response(number)[:70], "as-played", "--timeout", "3", expect=NO_ANSWER)
    assert "the answer stopped in its midst: it was too long for the connection" in err
    *_, err = serve(daemon, lambda number: None, "play", "m", expect=SEAT_TAKEN)
    assert "the player closed the connection: another peer took the seat, or the player ended" in err


def test_answers_to_others_and_information_are_passed_over(daemon):
    def answer(number):
        return response(b"-1", b"ERROR") + response(b"7", b"ERROR") + \
            b'<?xml version="1.0" ?>\n<Transaction type="info" command="playingNow" transactionNumber="0" />\n' + \
            response(number)
    serve(daemon, answer, "play", "m", expect=DONE)


# ---- delete


@pytest.fixture
def logged(server):
    """A playlist, and three entries in the as-played log."""
    ctl(server, "upload", "morning", *usb(server, "a.wav"))
    for second in range(3):
        played(server, NOON + second, file="/mnt/usb/a.wav", playlist=1)
    return server


@pytest.mark.parametrize("options, rows", [((), 3), (("--keep-log",), 3), (("--clear-log",), 0)])
@pytest.mark.parametrize("host", [(), HOST])
def test_a_delete_keeps_the_log_unless_asked_to_clear_it(logged, host, options, rows):
    ctl(logged, *host, "delete", "morning", *options)
    assert query(logged, "SELECT * FROM T_Playlists") == []
    assert log_size(logged) == rows


def test_a_delete_of_nothing_keeps_the_log_and_fails(logged):
    result = ctl(logged, *HOST, "delete", "evening", expect=PLAYER_ERROR)
    assert result.stdout == ""
    assert result.stderr.splitlines()[1:] == [
        "Deleting playlist evening and keeping audio files", "  ERROR: Playlist not found",
        'audioplayerctl: the player answers "ERROR" to deletePlaylists']
    ctl(logged, "delete", "evening", expect=NOT_FOUND)
    assert log_size(logged) == 3


def test_the_two_answers_to_the_log_exclude_each_other(logged):
    ctl(logged, "delete", "morning", "--keep-log", "--clear-log", expect=USAGE)
    assert entries(logged, "morning") != []


def test_files_are_removed_only_on_request(logged):
    ctl(logged, *HOST, "delete", "morning")
    assert (logged.usb / "a.wav").exists()


def test_over_tcp_the_player_removes_the_files_and_the_trap_is_told(logged):
    result = ctl(logged, *HOST, "delete", "morning", "--audio-files")
    assert not (logged.usb / "a.wav").exists()
    assert "  Deleting /mnt/usb/a.wav OK" in result.stdout.splitlines()
    assert "warning: the player removes the files also where other playlists use them" in result.stderr


def test_without_a_host_a_file_of_another_playlist_stays(logged):
    files = usb(logged, "a.wav", "b.wav")
    ctl(logged, "upload", "morning", *files)
    ctl(logged, "upload", "evening", files[0])
    result = ctl(logged, "delete", "morning", "--audio-files")
    assert (logged.usb / "a.wav").exists() and not (logged.usb / "b.wav").exists()
    assert result.stdout == "Deleted playlist 1\nRemoved /mnt/usb/b.wav\n"
    assert "warning: /mnt/usb/a.wav stays: another playlist uses it" in result.stderr


def test_over_tcp_a_file_that_cannot_be_removed_is_told(logged):
    (logged.usb / "a.wav").unlink()
    result = ctl(logged, *HOST, "delete", "morning", "--audio-files", expect=FAILED)
    assert "  Deleting /mnt/usb/a.wav ERROR: No such file or directory" in result.stdout.splitlines()
    assert "the playlist is deleted, but not all of its files" in result.stderr


@pytest.mark.parametrize("host", [(), HOST])
def test_after_a_delete_the_log_still_names_the_files(logged, host):
    ctl(logged, *host, "delete", "morning")
    rows = json.loads(ctl(logged, "as-played", "--json").stdout)
    assert [(row["playlist"], row["file"]) for row in rows] == [(None, "/mnt/usb/a.wav")] * 3


def test_a_delete_of_what_may_be_on_air_is_told(logged):
    files = usb(logged, "a.wav")
    ctl(logged, "upload", "evening", *files)
    played(logged, int(time.time()) + 3600, file=files[0], playlist=1)
    assert "warning" not in ctl(logged, "delete", "evening").stderr
    assert "warning: the playlist went on air last" in ctl(logged, "delete", "morning").stderr


def test_a_file_that_cannot_be_removed_is_told(logged):
    (logged.usb / "a.wav").unlink()
    result = ctl(logged, "delete", "morning", "--audio-files", expect=FAILED)
    assert "cannot remove /mnt/usb/a.wav: No such file or directory" in result.stderr
    assert query(logged, "SELECT * FROM T_Playlists") == []


# ---- play, stop


def test_play_without_a_host_names_the_source_and_over_tcp_the_trap_is_told(server):
    query(server, "INSERT INTO T_Streams (name, stream_type_id, uri, channel, dst) VALUES ('s', 1, '', 0, 0)")
    ctl(server, "upload", "morning", *usb(server, "a.wav"))
    assert query(server, "SELECT id, player_id, player_name FROM T_Audio_Sources") == [(1, 1, "s"), (2, 1, "morning")]
    assert ctl(server, "play", "morning").stdout == "Asked the player to start source 2\n"
    server.wait_log("received start request id = 2$")
    server.mark()
    result = ctl(server, *HOST, "play", "morning")
    assert "starts the source whose id is the playlist's, which need not be this playlist" in result.stderr
    server.wait_log("AudioService::startPlayer id = 1$")


def on_air(playlist, file=b"/mnt/usb/a.wav"):
    return (b'<?xml version="1.0" ?>\n<Transaction type="info" command="playingNow" transactionNumber="0">\n'
            b'  <Playlist name="' + playlist + b'" />\n  <PlaylistItem type="file" filename="' + file +
            b'" />\n</Transaction>\n')


def test_a_start_over_tcp_is_confirmed_by_what_went_on_air(daemon):
    _, out, err = serve(daemon, lambda number: on_air(b"noon") + on_air(b"m") + response(number), "play", "m",
                        expect=DONE)
    assert out == 'Asked the player to start the playlist\nOn air: /mnt/usb/a.wav from "m"\n'
    assert "warning" not in err
    *_, err = serve(daemon, lambda number: on_air(b"m") + on_air(b"noon") + response(number), "play", "m",
                    expect=PLAYER_ERROR)
    assert 'what went on air is /mnt/usb/a.wav from "noon"' in err
    *_, err = serve(daemon, response, "play", "m", expect=DONE)
    assert "warning: the player did not tell what it started" in err


def test_a_cart_can_not_be_played(server):
    ctl(server, "playlist", "create", "--cart", "jingles")
    assert "is no source: a cart can't be started" in ctl(server, "play", "jingles", expect=REFUSED).stderr


def test_playing_what_is_not_there(server):
    ctl(server, "play", "none", expect=NOT_FOUND)
    result = ctl(server, *HOST, "play", "none", expect=PLAYER_ERROR)
    assert "Playlist none was not found\n" in result.stderr


def test_stop_goes_by_datagram_unless_told_otherwise(server):
    with AutomationPeer.seat(server) as studio:
        studio.fence()
        ctl(server, *HOST, "stop")
        assert studio.fence() == []
    ctl(server, "stop", "--tcp", expect=USAGE)


# ---- the as-played log


def at(daemon, second, microsecond=0):
    """A time as the tool writes it, in the daemon's zone, which is the test's."""
    return time.strftime("%Y-%m-%d %H:%M:%S", time.localtime(second)) + f".{microsecond:06}"


@pytest.fixture
def history(server):
    """All the kinds of entries, the newest start last and with company in its second."""
    ctl(server, "upload", 'mor"ning', *usb(server, "a.wav"))
    played(server, NOON, 123, 0, "/mnt/usb/a.wav", 1)
    played(server, NOON + 1, 999999, 4, "/mnt/usb/gone,\n.wav", 1)
    played(server, NOON + 2, 5000, 4)
    played(server, NOON + 3, 0, 5, desc="Trimmed 2000 entries from x to y\n")
    played(server, NOON + 4, 0, 1)
    played(server, NOON + 5, 0, 2)
    played(server, NOON + 6, 7, 5, desc="of the newest second\n")
    played(server, NOON + 6, 8, 0, "/mnt/usb/a.wav", 99)
    return server


def expected(daemon, rows):
    rows = [{"time": at(daemon, NOON, 123), "type": "startPlaylistItem", "playlist": 'mor"ning',
             "file": "/mnt/usb/a.wav"},
            {"time": at(daemon, NOON + 1, 999999), "type": "missingPlaylistItem", "playlist": 'mor"ning',
             "file": "/mnt/usb/gone,\n.wav"},
            {"time": at(daemon, NOON + 2, 5000), "type": "missingPlaylistItem", "playlist": None, "file": None},
            {"time": at(daemon, NOON + 3), "type": "logTrimmed", "text": "Trimmed 2000 entries from x to y"},
            {"time": at(daemon, NOON + 4), "type": "stopAudioFile"},
            {"time": at(daemon, NOON + 5), "type": "unknown"},
            {"time": at(daemon, NOON + 6, 7), "type": "logTrimmed", "text": "of the newest second"},
            {"time": at(daemon, NOON + 6, 8), "type": "startPlaylistItem", "playlist": None,
             "file": "/mnt/usb/a.wav"}][:rows]
    return rows


def test_the_database_tells_all_and_the_player_all_but_the_newest_second(history):
    assert json.loads(ctl(history, "as-played", "--json").stdout) == expected(history, 8)
    assert json.loads(ctl(history, *HOST, "as-played", "--json").stdout) == expected(history, 6)
    assert log_size(history) == 8  # asking removes nothing


def test_csv_holds_the_same_whatever_is_in_the_names(history):
    for host in ((), HOST):
        rows = list(csv.DictReader(io.StringIO(ctl(history, *host, "as-played", "--csv").stdout)))
        wanted = expected(history, 6 if host else 8)
        assert rows == [{key: row.get(key) or "" for key in ("time", "type", "playlist", "file", "text")}
                        for row in wanted]


def test_the_table_keeps_a_row_to_a_line(history):
    for host in ((), HOST):
        lines = ctl(history, *host, "as-played").stdout.splitlines()
        assert lines[:4] == [at(history, NOON, 123) + '  startPlaylistItem  mor"ning  /mnt/usb/a.wav',
                             at(history, NOON + 1, 999999) + '  missingPlaylistItem  mor"ning  /mnt/usb/gone,?.wav',
                             at(history, NOON + 2, 5000) + "  missingPlaylistItem  (unknown)  (unknown)",
                             at(history, NOON + 3) + "  logTrimmed  Trimmed 2000 entries from x to y"]


@pytest.mark.parametrize("host", [(), HOST])
def test_limit_lists_the_oldest(history, host):
    assert json.loads(ctl(history, *host, "as-played", "--json", "--limit", "2").stdout) == expected(history, 2)


@pytest.mark.parametrize("host", [(), HOST])
def test_delete_removes_what_it_lists_and_leaves_the_newest_second(history, host):
    rows = json.loads(ctl(history, *host, "as-played", "--json", "--delete", "--limit", "2").stdout)
    assert rows == expected(history, 2)
    assert log_size(history) == 6
    rows += json.loads(ctl(history, *host, "as-played", "--json", "--delete").stdout)
    assert rows == expected(history, 6)
    assert log_size(history) == 2
    assert ctl(history, *host, "as-played", "--json", "--delete").stdout == "[]\n"
    assert log_size(history) == 2


def test_delete_over_tcp_takes_a_long_log_page_by_page(server):
    query(server, "WITH RECURSIVE n (i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM n WHERE i < 119) "
                  "INSERT INTO T_As_Played_Log (log_time_sec, log_time_usec, entry_type) SELECT ? + i, 0, 0 FROM n",
          NOON)
    result = ctl(server, *HOST, "as-played", "--csv", "--delete")
    times = [row["time"] for row in csv.DictReader(io.StringIO(result.stdout))]
    assert times == [at(server, NOON + i) for i in range(119)]
    assert log_size(server) == 1
    assert "warning" not in result.stderr


def take_log(server, *options):
    """Takes the log over TCP: the microseconds of its rows."""
    result = ctl(server, *HOST, "as-played", "--csv", "--delete", *options)
    assert "warning" not in result.stderr
    return [int(row["time"][-6:]) for row in csv.DictReader(io.StringIO(result.stdout))]


# A page has 50 rows, and the player removes the whole second of the last row that it returns.
@pytest.mark.parametrize("seconds", [[min(place, 49) for place in range(53)],  # goes on behind the page
                                     [place // 3 for place in range(200)],
                                     [0] * 50, [0] * 51, [0] * 230,  # longer than a page
                                     [0] * 49 + [1] * 120 + [2]])
def test_no_row_goes_unreported_where_a_second_goes_on_behind_a_page(server, seconds):
    for place, second in enumerate(seconds):
        played(server, NOON + second, place)
    played(server, NOON + 1000)
    assert take_log(server) == list(range(len(seconds)))
    assert log_size(server) == 1


def test_a_limit_takes_whole_seconds(server):
    for place, second in enumerate([0, 1, 2, 2, 2, 3]):
        played(server, NOON + second, place)
    played(server, NOON + 1000)
    assert take_log(server, "--limit", "2") == [0, 1]
    assert take_log(server, "--limit", "1") == [2, 3, 4]
    assert take_log(server, "--limit", "9") == [5]


def answers(daemon, inners, *arguments, expect):
    """Runs the tool against a server that answers its transactions by these, in turn."""
    with daemon.listen(AUTOMATION_PORT) as listener:
        process = subprocess.Popen(daemon.command([TOOL, *HOST, *arguments]), stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE, text=True)
        peer, _ = listener.accept()
        requests = []
        with peer:
            peer.settimeout(DEFAULT_TIMEOUT)
            for inner in inners:
                received = b""
                while b'Number="' not in received or not received.endswith(b"</Transaction>\n"):
                    received += peer.recv(65536)
                requests.append(received)
                peer.sendall(response(received.split(b'Number="')[1].split(b'"')[0], inner=inner))
            out, err = process.communicate(timeout=30)
    assert process.returncode == expect, (out, err)
    return requests, out, err


def block(in_log, *times):
    entries = b"".join(b'  <LogEntry time="' + time + b'" type="unknown" />\n' for time in times)
    return b'  <Info entriesInLog="%d" numEntries="%d" />\n' % (in_log, len(times)) + entries


def test_rows_that_a_trimmed_log_gives_up_instead_are_listed_too(daemon):
    # Between the two requests the player drops the rows that were listed: it removes the next ones.
    requests, out, _ = answers(daemon, [block(3, b"a 1.000ms", b"b 1.000ms"), block(1, b"c 1.000ms"), block(0)],
                               "as-played", "--delete", expect=DONE)
    assert out.splitlines() == ["a 1.000ms  unknown", "b 1.000ms  unknown", "c 1.000ms  unknown"]
    assert [b'maxLogEntries="50" delete="no"' in requests[0], b'maxLogEntries="2" delete="yes"' in requests[1],
            b'maxLogEntries="50" delete="no"' in requests[2]] == [True] * 3


def test_a_player_that_does_not_remove_ends_the_pages(daemon):
    _, out, err = answers(daemon, [block(9, b"x")] * 3, "as-played", "--delete", expect=PLAYER_ERROR)
    assert out == "x  unknown\n"
    assert "the player does not remove what it has reported" in err


def test_an_empty_log_and_no_log_list_nothing(server, tmp_path):
    assert ctl(server, "as-played", "--json").stdout == "[]\n"
    assert ctl(server, *HOST, "as-played", "--json").stdout == "[]\n"
    assert ctl(server, "as-played").stdout == ""
    other = tmp_path / "other.db"
    ctl(server, "--db", other, "playlist", "create", "x")  # no player has run on it
    assert ctl(server, "--db", other, "as-played", "--csv").stdout.splitlines() == [
        '"time","type","playlist","file","text"']
    ctl(server, "--db", other, "as-played", "--delete")
    ctl(server, "--db", other, "delete", "x", "--clear-log")


@pytest.mark.parametrize("arguments", [("--csv", "--json"), ("--limit", "0"), ("--follow", "--delete"),
                                       ("--follow", *HOST)])
def test_lists_that_can_not_be_asked_for(server, arguments):
    ctl(server, "as-played", *arguments, expect=USAGE)


def test_output_that_can_not_be_written_removes_nothing(history):
    with open("/dev/full", "w") as full:
        ctl(history, "as-played", "--delete", expect=FAILED, capture_output=False, stdout=full, stderr=subprocess.PIPE)
    assert log_size(history) == 8


class Following:
    """The tool, running on, line by line."""

    def __init__(self, daemon, *arguments):
        self.process = subprocess.Popen(daemon.command([TOOL, *arguments]), stdout=subprocess.PIPE,
                                        stderr=subprocess.PIPE)
        self.read = b""

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.communicate()

    def line(self):
        """The next line it writes; fails if none comes."""
        while b"\n" not in self.read:
            ready, _, _ = select.select([self.process.stdout], [], [], DEFAULT_TIMEOUT)
            more = os.read(self.process.stdout.fileno(), 65536) if ready else b""
            assert more, (self.process.poll(), self.read)
            self.read += more
        line, _, self.read = self.read.partition(b"\n")
        return line.decode() + "\n"


def test_follow_goes_on_with_what_comes_also_after_the_log_was_cleared(history):
    with Following(history, "as-played", "--follow", "--json") as following:
        assert [json.loads(following.line()) for _ in range(8)] == expected(history, 8)
        played(history, NOON + 10, kind=1)
        assert json.loads(following.line()) == {"time": at(history, NOON + 10), "type": "stopAudioFile"}
        query(history, "DELETE FROM T_As_Played_Log")
        played(history, NOON + 20, kind=2)
        assert json.loads(following.line()) == {"time": at(history, NOON + 20), "type": "unknown"}


# ---- now-playing, status


def test_now_playing_tells_the_newest_start(history):
    assert json.loads(ctl(history, "now-playing", "--json").stdout) == {
        "since": at(history, NOON + 6, 8), "playlist": None, "file": "/mnt/usb/a.wav"}
    text = ctl(history, "now-playing").stdout
    assert text.startswith(f'On air: /mnt/usb/a.wav from "(unknown)" since {at(history, NOON + 6)[:19]} (')
    assert "That is longer than the file (0:00:01): the player was stopped, or plays a stream\n" in text


def test_now_playing_without_a_start_is_not_found(server):
    played(server, NOON, kind=5)
    assert "the as-played log has no item" in ctl(server, "now-playing", expect=NOT_FOUND).stderr


def test_now_playing_follows_starts_only(history):
    with Following(history, "now-playing", "--follow") as following:
        assert following.line() == f"{at(history, NOON + 6, 8)}  (unknown)  /mnt/usb/a.wav\n"
        played(history, NOON + 10, kind=5)
        played(history, NOON + 11, 0, 0, "/mnt/usb/a.wav", 1)
        assert following.line() == f'{at(history, NOON + 11)}  mor"ning  /mnt/usb/a.wav\n'


def test_now_playing_over_tcp_waits_for_the_next_item_and_no_longer_than_told(server):
    result = ctl(server, *HOST, "now-playing", "--timeout", "0.1", expect=NO_ANSWER)
    assert "no item went on air in time" in result.stderr


def test_status_tells_that_the_player_runs_and_what_is_on_air(history):
    text = ctl(history, "status").stdout
    assert text.startswith("The player is running\nOn air: /mnt/usb/a.wav from")
    told = json.loads(ctl(history, "status", "--json").stdout)
    assert told["running"] is True and told["on_air"]["file"] == "/mnt/usb/a.wav"
    history.kill()
    result = ctl(history, "status", "--json", expect=DOWN)
    assert json.loads(result.stdout) == {"running": False, "on_air": None}


def test_status_beside_a_watchdog_still_tells_what_is_on_air(history):
    with history.receiver(HEARTBEAT_PORT):
        result = ctl(history, "status", expect=IN_USE)
        assert result.stdout.startswith("On air: /mnt/usb/a.wav from")
        told = json.loads(ctl(history, "status", "--json", expect=IN_USE).stdout)
        assert told["running"] is None and told["on_air"]["file"] == "/mnt/usb/a.wav"


def test_status_with_a_database_that_is_none_tells_the_heartbeat_and_fails(server):
    (server.run_dir / "junk.db").write_bytes(b"junk" * 100)
    result = ctl(server, "--db", "junk.db", "status", expect=FAILED)
    assert result.stdout == "The player is running\n"
    assert "file is not a database" in result.stderr


def test_following_ends_when_nobody_reads_any_more(history):
    process = subprocess.Popen(history.command(["sh", "-c", "trap '' PIPE; exec \"$@\"", "sh", TOOL, "now-playing",
                                                "--follow"]), stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    process.stdout.readline()
    process.stdout.close()
    played(history, NOON + 20, 0, 0, "/mnt/usb/a.wav", 1)
    assert process.wait(DEFAULT_TIMEOUT) == FAILED
    assert b"Broken pipe" in process.stderr.read()
    process.stderr.close()


def test_status_without_a_database_tells_the_heartbeat_alone(server):
    assert ctl(server, "--db", "none.db", "status").stdout == "The player is running\n"


def test_on_air_every_way_to_look_agrees(station):
    daemon = station.daemon
    daemon.start()
    daemon.wait_bound(AUTOMATION_PORT, "tcp")
    first, second = station.wav("first.wav", seconds=0.4), station.wav("second.wav", seconds=0.4)
    ctl(daemon, "upload", "morning", first, second)
    ctl(daemon, "play", "morning")
    with Following(daemon, *HOST, "now-playing", "--follow", "--json") as following:
        seen = [json.loads(following.line()) for _ in range(4)]
        assert [row["playlist"] for row in seen] == ["morning"] * 4
        files = [row["file"] for row in seen]
        assert files in ([str(first), str(second)] * 2, [str(second), str(first)] * 2)
        with AutomationPeer.seat(daemon) as studio:
            assert following.process.wait(DEFAULT_TIMEOUT) == SEAT_TAKEN
            studio.fence()
    assert json.loads(ctl(daemon, "now-playing", "--json").stdout)["playlist"] == "morning"
    assert 'from "morning" since' in ctl(daemon, "status").stdout
    ctl(daemon, *HOST, "stop", "--tcp", "--take-seat")
    rows = json.loads(ctl(daemon, "as-played", "--json").stdout)
    assert len(rows) >= 4 and {row["type"] for row in rows} == {"startPlaylistItem"}
