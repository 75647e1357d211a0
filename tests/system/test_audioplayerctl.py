"""audioplayerctl, run as a person runs it: each test in its own directory, the network ones in their own namespace."""

import json
import os
import pathlib
import sqlite3
import struct
import subprocess
import sys

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ.get("AUDIOPLAYER_BUILD") or ROOT / "build" / "release").resolve()
TOOL = BUILD / "tools" / "audioplayerctl" / "audioplayerctl"

DONE, FAILED, USAGE, DOWN, NOT_FOUND, REFUSED, IN_USE = range(7)


def wav(frames, rate=48000, channels=2, bits=16, fmt=b"", before=b"", after=b"", declared=None, coding=1):
    """The bytes of a WAV file."""
    data = bytes(frames * channels * bits // 8)
    size = len(data) if declared is None else declared
    head = struct.pack("<HHIIHH", coding, channels, rate, rate * channels * bits // 8, channels * bits // 8, bits) + fmt
    body = b"WAVEfmt " + struct.pack("<I", len(head)) + head + before + b"data" + struct.pack("<I", size) + data + after
    return b"RIFF" + struct.pack("<I", len(body)) + body


class Station:
    """The tool's working directory run/, whose "../audioplayerdatabase" is the test's own."""

    def __init__(self, root):
        self.run = root / "run"
        self.run.mkdir()
        self.database = root / "audioplayerdatabase" / "audioDatabase.db"

    def ctl(self, *arguments, expect=DONE):
        result = subprocess.run([TOOL, *map(str, arguments)], cwd=self.run, capture_output=True, text=True, timeout=30)
        assert result.returncode == expect, (arguments, result.stdout, result.stderr)
        return result

    def json(self, *arguments):
        return json.loads(self.ctl(*arguments, "--json").stdout)

    def file(self, name, content):
        path = self.run / name
        path.write_bytes(content)
        return path

    def query(self, sql):
        connection = sqlite3.connect(self.database)
        try:
            return connection.execute(sql).fetchall()
        finally:
            connection.close()

    def walk(self, name):
        return [(row["sequence"], pathlib.Path(row["path"]).name) for row in self.json("playlist", "show", name)]

    def warnings(self, content, name="x.wav"):
        """What adding a file of this content says, without the tool's name and the path."""
        path = self.file(name, content)
        lead = f"audioplayerctl: warning: {path}: "
        lines = self.ctl("playlist", "add", "morning", path).stderr.splitlines()
        assert all(line.startswith(lead) for line in lines), lines
        return [line[len(lead):] for line in lines]


@pytest.fixture
def station(tmp_path):
    return Station(tmp_path)


@pytest.fixture
def morning(station):
    station.ctl("playlist", "create", "morning")
    return station


# ---- the library


def test_create_makes_the_directory_and_the_database_beside_the_working_directory(station):
    result = station.ctl("playlist", "create", "morning")
    assert result.stdout == 'Created playlist 1 "morning"\n'
    assert result.stderr == ""
    assert station.query("SELECT id, sequence, name, playlist_type FROM T_Playlists") == [(1, 1, "morning", 1)]
    assert station.query("SELECT count(*) FROM sqlite_master WHERE type = 'trigger'") == [(8,)]


def test_the_first_write_puts_the_database_into_wal_mode(morning):
    assert morning.query("PRAGMA journal_mode") == [("wal",)]


def test_reading_leaves_the_journal_mode(station):
    station.ctl("playlist", "create", "morning")
    connection = sqlite3.connect(station.database)
    connection.execute("PRAGMA journal_mode = DELETE")
    connection.close()
    station.ctl("playlist", "list")
    station.ctl("sources")
    assert station.query("PRAGMA journal_mode") == [("delete",)]
    station.ctl("playlist", "create", "evening")
    assert station.query("PRAGMA journal_mode") == [("wal",)]


def test_a_name_in_use_is_refused(morning):
    assert 'there is a playlist "morning" already' in morning.ctl("playlist", "create", "morning", expect=REFUSED).stderr


def test_a_cart_is_no_source(morning):
    morning.ctl("playlist", "create", "--cart", "jingles")
    assert [row["name"] for row in morning.json("sources")] == ["morning"]
    assert [row["type"] for row in morning.json("playlist", "list")] == ["STR_PLAYLIST", "STR_CART"]


def test_json_output_is_json_alone(morning):
    assert morning.json("playlist", "list") == [
        {"id": 1, "sequence": 1, "name": "morning", "type": "STR_PLAYLIST", "entries": 0, "seconds": 0}
    ]
    assert morning.json("sources") == [{"id": 1, "type": "STR_PLAYLIST", "player_id": 1, "name": "morning"}]
    assert morning.json("playlist", "create", "noon") == {"id": 2, "name": "noon"}


def test_add_stores_absolute_paths_with_type_length_and_rate(morning):
    morning.file("a.wav", wav(96000 - 100))
    morning.ctl("playlist", "add", "morning", "./sub/../a.wav")
    assert morning.query("SELECT pathname, item_type, item_length_in_samples, item_sample_rate FROM T_Items") == [
        (str(morning.run / "a.wav"), 1, 95900, 48000)
    ]
    assert morning.json("playlist", "list")[0]["seconds"] == 1


def test_entries_follow_each_other_from_sequence_1(morning):
    for name in "abc":
        morning.file(name + ".wav", wav(5000))
    morning.ctl("playlist", "add", "morning", "a.wav", "b.wav")
    morning.ctl("playlist", "add", "1", "c.wav", "a.wav")
    assert morning.walk("morning") == [(1, "a.wav"), (2, "b.wav"), (3, "c.wav"), (4, "a.wav")]
    assert morning.query("SELECT count(*) FROM T_Items") == [(3,)]


def test_add_is_all_or_nothing(morning):
    morning.file("a.wav", wav(5000))
    result = morning.ctl("playlist", "add", "morning", "a.wav", "missing.wav", expect=NOT_FOUND)
    assert f"cannot read {morning.run / 'missing.wav'}: No such file or directory" in result.stderr
    assert morning.walk("morning") == []


def test_a_path_of_1023_bytes_is_taken_and_of_1024_refused(morning):
    deep = morning.run
    while len(str(deep)) < 900:
        deep = deep / ("d" * 60)
    deep.mkdir(parents=True)
    for length, expect in ((1023, DONE), (1024, REFUSED)):
        path = str(deep) + "/" + "f" * (length - len(str(deep)) - 5) + ".wav"
        assert len(path) == length
        pathlib.Path(path).write_bytes(wav(5000))
        morning.ctl("playlist", "add", "morning", path, expect=expect)
    assert len(morning.json("playlist", "show", "morning")) == 1


def test_nothing_to_add_is_a_usage_error(morning):
    morning.ctl("playlist", "add", "morning", expect=USAGE)


def test_move_makes_room_and_keeps_every_entry(morning):
    for name in "abcd":
        morning.file(name + ".wav", wav(5000))
    morning.ctl("playlist", "add", "morning", "a.wav", "b.wav", "c.wav", "d.wav")
    morning.ctl("playlist", "move", "morning", 3, 1)
    assert morning.walk("morning") == [(1, "c.wav"), (2, "a.wav"), (3, "b.wav"), (4, "d.wav")]
    morning.ctl("playlist", "move", "morning", 1, 9)
    assert morning.walk("morning") == [(2, "a.wav"), (3, "b.wav"), (4, "d.wav"), (9, "c.wav")]
    morning.ctl("playlist", "move", "morning", 2, 2)
    assert len({sequence for sequence, _ in morning.walk("morning")}) == 4
    morning.ctl("playlist", "move", "morning", 7, 1, expect=NOT_FOUND)
    morning.ctl("playlist", "move", "morning", 2, 0, expect=REFUSED)
    morning.ctl("playlist", "move", "morning", 2, 65535, expect=REFUSED)


def test_remove_takes_the_item_with_its_last_use_and_leaves_the_file(morning):
    path = morning.file("a.wav", wav(5000))
    morning.ctl("playlist", "add", "morning", path, path)
    morning.ctl("playlist", "remove", "morning", 1)
    assert morning.query("SELECT count(*) FROM T_Items") == [(1,)]
    morning.ctl("playlist", "remove", "morning", 2)
    assert morning.query("SELECT count(*) FROM T_Items") == [(0,)]
    assert path.exists()
    morning.ctl("playlist", "remove", "morning", 2, expect=NOT_FOUND)


def test_delete_takes_entries_and_source(morning):
    morning.file("a.wav", wav(5000))
    morning.ctl("playlist", "add", "morning", "a.wav")
    morning.ctl("playlist", "delete", "morning")
    for table in ("T_Playlists", "T_Items", "T_Playlist_Item_Association", "T_Audio_Sources"):
        assert morning.query(f"SELECT * FROM {table}") == []


def test_digits_are_an_id_if_there_is_one_and_else_a_name(morning):
    morning.ctl("playlist", "create", "1")
    morning.ctl("playlist", "create", "2024")
    morning.ctl("playlist", "delete", "2024")
    morning.ctl("playlist", "delete", "1")
    assert [row["name"] for row in morning.json("playlist", "list")] == ["1"]


def test_a_name_that_two_have_is_refused(morning):
    connection = sqlite3.connect(morning.database)
    connection.execute("INSERT INTO T_Playlists VALUES(NULL, 5, 'morning', 1)")
    connection.commit()
    connection.close()
    assert "more than one" in morning.ctl("playlist", "show", "morning", expect=REFUSED).stderr
    morning.ctl("playlist", "show", "2")


def test_what_is_not_there_is_told(station):
    assert "there is no database" in station.ctl("playlist", "list", expect=NOT_FOUND).stderr
    assert not station.database.exists()
    station.ctl("playlist", "create", "morning")
    assert 'there is no playlist "noon"' in station.ctl("playlist", "show", "noon", expect=NOT_FOUND).stderr
    station.file("text.db", b"no database at all, and long enough to be looked at as one" * 20)
    station.ctl("--db", "text.db", "playlist", "list", expect=FAILED)
    station.file("empty.db", b"")
    assert "is not an audio database" in station.ctl("--db", "empty.db", "sources", expect=FAILED).stderr


def test_another_database_is_chosen_on_either_side_of_the_command(morning):
    morning.ctl("--db", "sub/other.db", "playlist", "create", "other")
    assert [row["name"] for row in morning.json("playlist", "list", "--db", "sub/other.db")] == ["other"]


def test_a_reader_is_not_held_up_by_a_writer(morning):
    writer = sqlite3.connect(morning.database, isolation_level=None)
    writer.execute("BEGIN IMMEDIATE")
    writer.execute("INSERT INTO T_Playlists VALUES(NULL, 5, 'unseen', 1)")
    assert [row["name"] for row in morning.json("playlist", "list")] == ["morning"]
    writer.close()


def test_a_write_into_a_held_database_fails_and_changes_nothing(morning):
    morning.file("a.wav", wav(5000))
    writer = sqlite3.connect(morning.database, isolation_level=None)
    writer.execute("BEGIN IMMEDIATE")
    result = morning.ctl("playlist", "add", "morning", "a.wav", expect=FAILED)
    assert "cannot write to the database: database is locked" in result.stderr
    writer.close()
    assert morning.walk("morning") == []


# ---- jumps


@pytest.fixture
def filled(morning):
    morning.file("a.wav", wav(5000))
    morning.ctl("playlist", "add", "morning", "a.wav", "a.wav")
    return morning


def test_a_jump_is_written_in_the_players_form(filled):
    filled.ctl("playlist", "create", "noon: news")
    filled.ctl("playlist", "add", "noon: news", "a.wav", "--jump", "morning:2")
    filled.ctl("playlist", "add", "morning", "--jump", "noon: news:0")
    entry = filled.json("playlist", "show", "noon: news")[1]
    assert (entry["type"], entry["path"]) == ("ITEM_TYPE_JUMP", "ITEM_TYPE_JUMP:1:2")
    assert filled.json("playlist", "show", "1")[2]["path"] == "ITEM_TYPE_JUMP:2:0"
    # What the player does with it: the last character of the set, then one digit two and four places behind it.
    position = max(entry["path"].rfind(letter) for letter in "ITEM_TYPE_JUMP")
    assert (entry["path"][position + 2], entry["path"][position + 4]) == ("1", "2")
    assert filled.json("playlist", "list")[1]["seconds"] is not None


@pytest.mark.parametrize("target, expect", [
    ("morning:10", REFUSED), ("morning:-1", REFUSED), ("noon:1", NOT_FOUND), ("morning", USAGE), ("morning:", USAGE),
    ("morning:1x", USAGE), ("morning:4", REFUSED), ("morning:5", REFUSED)])
def test_a_jump_that_cannot_be_expressed_or_would_hang_the_player_is_refused(filled, target, expect):
    filled.ctl("playlist", "add", "morning", "a.wav", "--jump", target, expect=expect)  # the jump would be entry 4
    assert len(filled.walk("morning")) == 2


def test_a_new_playlist_may_be_filled_and_jump_to_its_own_beginning_at_once(morning):
    morning.file("a.wav", wav(5000))
    morning.ctl("playlist", "add", "morning", "a.wav", "--jump", "morning:1")
    assert morning.walk("morning") == [(1, "a.wav"), (2, "ITEM_TYPE_JUMP:1:1")]


def test_a_jump_to_playlist_9_is_taken_and_to_10_refused(filled):
    for number in range(2, 11):
        filled.ctl("playlist", "create", f"list{number}")
        filled.ctl("playlist", "add", f"list{number}", "a.wav")
    filled.ctl("playlist", "add", "morning", "--jump", "list9:1")
    result = filled.ctl("playlist", "add", "morning", "--jump", "list10:1", expect=REFUSED)
    assert "only the ids 0 to 9 can be expressed" in result.stderr


@pytest.fixture
def jumping(filled):
    """morning: two files, then jumps to noon, whose one file is followed by a jump back."""
    filled.ctl("playlist", "create", "noon")
    filled.ctl("playlist", "add", "noon", "a.wav", "--jump", "morning:2")
    filled.ctl("playlist", "add", "morning", "--jump", "noon:1")
    return filled


def test_jumps_that_would_only_name_each_other_are_refused(filled):
    filled.ctl("playlist", "create", "circle")
    filled.ctl("playlist", "add", "circle", "--jump", "morning:1")
    filled.ctl("playlist", "add", "morning", "--jump", "circle:1")  # there are files in this one
    filled.ctl("playlist", "remove", "morning", "1")
    result = filled.ctl("playlist", "remove", "morning", "2", expect=REFUSED)
    assert result.stderr == ('audioplayerctl: refused, for then playlist 1, sequence 3: the jump "ITEM_TYPE_JUMP:2:1" '
                             "leads to nothing but jumps: the player would hang in it\n")
    assert filled.walk("morning") == [(2, "a.wav"), (3, "ITEM_TYPE_JUMP:2:1")]


@pytest.mark.parametrize("command, trap", [
    (("playlist", "delete", "noon"), "playlist 1, sequence 3"),
    (("delete", "noon"), "playlist 1, sequence 3"),
    (("upload", "morning", "a.wav"), "playlist 2, sequence 2"),  # leaves morning without a second entry
])
def test_a_change_that_takes_the_target_from_a_jump_is_refused(jumping, command, trap):
    before = jumping.walk("morning"), jumping.walk("noon")
    result = jumping.ctl(*command, expect=REFUSED)
    assert "refused, for then " + trap in result.stderr
    assert "leads to no entry: the player would hang in it" in result.stderr
    assert (jumping.walk("morning"), jumping.walk("noon")) == before


def test_a_move_that_puts_a_jump_in_front_of_what_it_leads_to_is_refused(filled):
    filled.ctl("playlist", "add", "morning", "--jump", "morning:2")
    filled.ctl("playlist", "move", "morning", "1", "9")
    result = filled.ctl("playlist", "move", "morning", "2", "8", expect=REFUSED)
    assert "leads to nothing but jumps" in result.stderr
    assert filled.walk("morning") == [(2, "a.wav"), (3, "ITEM_TYPE_JUMP:1:2"), (9, "a.wav")]


def test_a_playlist_that_jumps_to_itself_alone_can_be_deleted(filled):
    filled.ctl("playlist", "add", "morning", "--jump", "morning:1")
    filled.ctl("playlist", "delete", "morning")
    assert filled.json("playlist", "list") == []


def spoil(station, path):
    """Puts a jump of this text behind the entries of playlist 1, as another program would."""
    connection = sqlite3.connect(station.database)
    item = connection.execute("INSERT INTO T_Items VALUES(NULL, ?, 3, 0, 1)", (path,)).lastrowid
    connection.execute("INSERT INTO T_Playlist_Item_Association VALUES(NULL, 50, 1, ?)", (item,))
    connection.commit()
    connection.close()


@pytest.mark.parametrize("path, fate", [("ITEM_TYPE_JUMP:1", "end in it"), ("ITEM_TYPE_JUMP:7:1", "hang in it")])
def test_a_source_that_comes_to_a_jump_which_is_not_survived_is_not_started(filled, path, fate):
    filled.ctl("playlist", "create", "noon")
    filled.ctl("playlist", "add", "noon", "a.wav", "--jump", "morning:1")
    filled.ctl("playlist", "create", "evening")
    filled.ctl("playlist", "add", "evening", "a.wav")
    spoil(filled, path)
    for command in (("start", "morning"), ("start", "noon"), ("play", "noon")):
        result = filled.ctl(*command, expect=REFUSED)
        assert f'not started: playlist 1, sequence 50: the jump "{path}"' in result.stderr
        assert f"the player would {fate}" in result.stderr
    in_namespace(filled, LISTEN.format(port=7004) + "assert ctl('start', 'evening').returncode == 0\n")


def test_a_bad_jump_that_is_there_is_in_nobodys_way_and_can_be_removed(filled):
    spoil(filled, "ITEM_TYPE_JUMP")
    filled.ctl("playlist", "add", "morning", "a.wav")
    filled.ctl("playlist", "remove", "morning", "50")
    assert filled.walk("morning") == [(1, "a.wav"), (2, "a.wav"), (51, "a.wav")]


# ---- what files will do


@pytest.mark.parametrize("content, reason", [
    (b"RIFF", "it is too short for a WAV header"),
    (b"ID3" + bytes(60), "it is not a WAV file"),
    (wav(9).replace(b"fmt ", b"JUNK"), 'its first chunk is not "fmt "'),
    (wav(9, coding=3, bits=32), "its samples are not plain PCM (format 3, needed is 1)"),
    (wav(9, channels=3), "it has 3 channels, at most 2 can be"),
    (wav(9, rate=48001), "its sample rate is 48001 Hz, at most 48000 can be"),
    (wav(9, bits=24), "it has 24 bits a sample, needed are 16"),
    (wav(9000, rate=44100, bits=8), "it has 8 bits a sample, needed are 16"),
    (wav(9000, rate=47999, bits=32), "it has 32 bits a sample, needed are 16"),
    (wav(9000, channels=0), "its header says 0 channels"),
    (wav(9000, rate=0), "its header says a sample rate of 0"),
    (wav(9000, bits=8, channels=0), "its header says 0 channels"),
    (wav(9000)[:36], "no data chunk is found"),
    (wav(9000, before=b"LIST" + struct.pack("<I", 3) + b"abc\0"), "no data chunk is found"),
    (wav(9000, fmt=b"\0\0"), "its fmt chunk has 18 bytes, needed are 16, and the data is not found behind it"),
], ids=lambda value: "" if isinstance(value, bytes) else value)  # the bytes are no name for a test
def test_a_file_that_will_not_play_is_told_and_added(morning, content, reason):
    assert morning.warnings(content) == ["it will not play: " + reason]
    assert len(morning.walk("morning")) == 1


@pytest.mark.parametrize("bits", [8, 32])
@pytest.mark.parametrize("channels", [1, 2])
def test_an_odd_width_at_the_mixers_rate_is_told_to_be_noise(morning, channels, bits):
    """Nothing refuses such a file: unlike at other rates the converter's input takes its format over."""
    assert morning.warnings(wav(9000, rate=48000, channels=channels, bits=bits)) == [
        f"it is heard as noise: it has {bits} bits a sample, needed are 16"]


@pytest.mark.parametrize("content", [
    wav(9000), wav(9000, channels=1), wav(9000, rate=8000),
    wav(9000, before=b"LIST" + struct.pack("<I", 4) + b"abcd"),
    wav(9000, before=b"bext" + struct.pack("<I", 602) + bytes(602)),
    wav(9000, declared=0xFFFFFFFF),
], ids=["stereo", "mono", "8000 Hz", "LIST", "bext", "streamed"])
def test_a_good_file_is_not_mentioned(morning, content):
    assert morning.warnings(content) == []
    assert morning.query("SELECT item_length_in_samples FROM T_Items") == [(9000,)]


CUT = "its length is a multiple of 8192 frames, or less than a millisecond above one"


@pytest.mark.parametrize("frames, rate, expected", [
    # (8192 + 255) / 48 = 175.98; (8192 + 47 + 255) is not lost whole: the 47 are counted too
    (3 * 8192, 48000, [f"it is cut at its end by up to 176 ms: {CUT}"]),
    (3 * 8192 + 47, 48000, [f"it is cut at its end by up to 177 ms: {CUT}"]),
    (3 * 8192 + 48, 48000, []),
    (3 * 8192, 44100, [f"it is cut at its end by up to 192 ms: {CUT}"]),
    (3 * 8192 + 44, 44100, [f"it is cut at its end by up to 193 ms: {CUT}"]),
    (3 * 8192 + 45, 44100, []),
    (8192, 48000, [f"it is cut at its end by up to 171 ms: {CUT}"]),
    (3 * 8192 - 255, 48000, []),
    (3 * 8192 - 254, 48000, ["it is cut at its end by up to 1 ms: only 254 frames are left to the next multiple of "
                             "8192, fewer than the rate converter holds"]),
    (3 * 8192 - 1, 48000, ["it is cut at its end by up to 6 ms: only 1 frames are left to the next multiple of 8192, "
                           "fewer than the rate converter holds"]),
    (48, 48000, []),
    (47, 48000, ["it is not heard: it is shorter than a millisecond"]),
])
def test_the_end_of_a_file_depends_on_its_length(morning, frames, rate, expected):
    assert morning.warnings(wav(frames, rate)) == expected


def test_chunks_behind_the_audio_are_heard(morning):
    chunk = b"LIST" + struct.pack("<I", 4) + b"abcd"
    assert morning.warnings(wav(9000, after=chunk)) == ["12 bytes follow its audio and are heard as noise"]
    # A file left by its count is not read to its end.
    assert morning.warnings(wav(8192, after=chunk), "y.wav") == [f"it is cut at its end by up to 171 ms: {CUT}"]


def test_a_file_cut_off_within_its_data_ends_where_the_file_ends(morning):
    short = 2 * 8192 + 4000
    assert morning.warnings(wav(short, declared=4 * (2 * 8192 + 8000))) == []
    # The padded last read makes the count reach the declared length: left at once.
    assert morning.warnings(wav(short, declared=4 * 3 * 8192), "y.wav")[0].startswith("it is cut at its end by up to")


def test_an_mp3_file_gets_its_figures(morning):
    frame = b"\xff\xfb\x90\x00" + bytes(413)  # MPEG 1 layer III, 128 kbit/s, 44100 Hz: 417 bytes, 1152 samples
    assert morning.warnings(frame * 40, "x.MP3") == []
    item_type, length, rate = morning.query(
        "SELECT item_type, item_length_in_samples, item_sample_rate FROM T_Items")[0]
    assert (item_type, rate) == (2, 44100)
    assert abs(length - 40 * 1152) <= 2 * 1152


def test_an_mp3_file_without_audio_is_told(morning):
    hangs = ["the player will hang on it for ever: no MPEG audio is found in it"]
    for number, content in enumerate([bytes(5000), b"", b"no audio " * 4000]):
        assert morning.warnings(content, f"{number}.mp3") == hangs


def test_the_length_of_an_mp3_file_is_that_of_its_audio(morning, tmp_path):
    """The encoder's delay and padding are told by its tag frame; they are not played and not counted."""
    source, mp3 = tmp_path / "source.wav", tmp_path / "song.mp3"
    source.write_bytes(wav(30000, rate=44100))
    subprocess.run(["lame", "--quiet", source, mp3], check=True)
    junk = bytes(3000)  # ahead of the audio: the decoder looks further when it is fed
    assert morning.warnings(mp3.read_bytes(), "song.mp3") == []
    assert morning.warnings(junk + mp3.read_bytes(), "junk.mp3") == []
    assert morning.query("SELECT item_length_in_samples, item_sample_rate FROM T_Items")[0] == (30000, 44100)


# ---- the daemon: each in a network namespace of its own, where nothing but loopback is


def in_namespace(station, script, *more):
    """Runs Python lines in an own namespace, with `more` options of unshare; `ctl(*arguments)` answers the tool."""
    prelude = (
        "import socket, subprocess, sys\n"
        "subprocess.run(['ip', 'link', 'set', 'lo', 'up'], check=True)\n"
        "def ctl(*arguments):\n"
        f"    return subprocess.run([{str(TOOL)!r}, *arguments], capture_output=True, text=True, timeout=30)\n"
    )
    result = subprocess.run(["unshare", "-n", *more, sys.executable, "-c", prelude + script], cwd=station.run,
                            capture_output=True, text=True, timeout=60)
    assert result.returncode == 0, result.stderr
    return result.stdout


LISTEN = ("daemon = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)\n"
          "daemon.bind(('127.0.0.1', {port}))\n"
          "daemon.settimeout(5)\n")


def test_start_sends_the_id_of_the_source_that_has_the_name(morning):
    connection = sqlite3.connect(morning.database)
    connection.execute("INSERT INTO T_Streams VALUES(7, 'net', 2, 'http://x', 0, 0)")
    connection.execute("INSERT INTO T_Playlists VALUES(600, 5, 'noon', 1)")
    connection.execute("UPDATE T_Audio_Sources SET id = 70000 WHERE player_name = 'noon'")
    connection.commit()
    connection.close()
    morning.file("a.wav", wav(48000))
    for playlist in ("morning", "noon"):
        morning.ctl("playlist", "add", playlist, "a.wav")
    out = in_namespace(morning, LISTEN.format(port=7004) +
                       "for source in ('noon', 'net', '1'):\n"
                       "    assert ctl('start', source).returncode == 0\n"
                       "    print(daemon.recv(100).hex())\n")
    # 2, 0x1202 low byte first, the id low byte first: 70000 is 0x11170
    assert out.splitlines() == ["020212000070110100", "020212000002000000", "020212000001000000"]


def test_stop_sends_its_datagram_to_the_chosen_port(station):
    out = in_namespace(station, LISTEN.format(port=7100) +
                       "assert ctl('stop', '--port', '7100', '--host', 'localhost').returncode == 0\n"
                       "print(daemon.recv(100).hex())\n")
    assert out == "0203120000\n"


def test_start_of_an_unknown_source_sends_nothing(morning):
    morning.ctl("start", "noon", expect=NOT_FOUND)


def test_a_start_that_would_only_stop_what_plays_is_refused(morning):
    for command in ("start", "play"):
        assert "the playlist has no entries" in morning.ctl(command, "morning", expect=REFUSED).stderr
        assert "no entries" in morning.ctl(command, "morning", "--port", "7100", expect=REFUSED).stderr
    assert "no entries" in morning.ctl("--host", "localhost", "start", "morning", expect=REFUSED).stderr


def test_a_start_of_files_that_are_not_here_is_told_unless_it_goes_elsewhere(morning):
    path = morning.file("a.wav", wav(48000))
    morning.ctl("playlist", "add", "morning", path)
    path.unlink()
    out = in_namespace(morning, LISTEN.format(port=7004) +
                       "for more in ([], ['--host', '127.0.0.1']):\n"
                       "    result = ctl('start', 'morning', *more)\n"
                       "    print(result.returncode, result.stderr.strip())\n")
    assert out.splitlines() == [
        "0 audioplayerctl: warning: none of the playlist's files can be read: nothing will be heard", "0 "]


def test_a_store_that_is_not_mounted_refuses_a_start(morning):
    morning.file("a.wav", wav(48000))
    morning.ctl("playlist", "add", "morning", "a.wav")
    script = ("subprocess.run(['mount', '-t', 'tmpfs', 'none', '/mnt'], check=True)\n"
              "import os\n"
              "os.mkdir('/mnt/usb')\n"
              "open('/mnt/usb/unmounted.usb', 'w').close()\n"
              "result = ctl('play', 'morning')\n"
              "print(result.returncode, result.stderr.strip())\n")
    out = in_namespace(morning, script, "--mount")
    assert out == ("5 audioplayerctl: not started: /mnt/usb/unmounted.usb is there, so the player would stop what plays "
                   "and start no playlist\n")


def test_the_host_may_have_the_automation_port_behind_it(station):
    out = in_namespace(station, LISTEN.format(port=7004) +
                       "assert ctl('stop', '--host', '127.0.0.1:8500').returncode == 0\n"
                       "print(daemon.recv(100).hex())\n")
    assert out == "0203120000\n"


@pytest.mark.parametrize("command", [("status",), ("sources",), ("playlist", "list"), ("playlist", "create", "x"),
                                     ("stream", "list")])
def test_what_looks_at_this_machine_only_is_not_asked_of_another(morning, command):
    result = morning.ctl("--host", "player.studio", *command, expect=USAGE)
    assert f'"{command[0]}" looks at this machine only' in result.stderr


def test_start_and_stop_tell_that_nothing_listens(morning):
    morning.file("a.wav", wav(48000))
    morning.ctl("playlist", "add", "morning", "a.wav")
    out = in_namespace(morning, "for command in (['start', 'morning'], ['stop']):\n"
                                "    result = ctl(*command)\n"
                                "    print(result.returncode, result.stderr, end='')\n")
    line = "3 audioplayerctl: nothing listens on 127.0.0.1 port 7004: the player is not running"
    assert out.splitlines() == [line, line]


def test_status_hears_the_heartbeat(station):
    out = in_namespace(station,
                       "import threading\n"
                       "over = threading.Event()\n"
                       "def beat():\n"
                       "    heart = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)\n"
                       "    while not over.wait(0.05):\n"
                       "        heart.sendto(b'no', ('127.0.0.1', 7009))\n"
                       "        heart.sendto(b'\\1', ('127.0.0.1', 7009))\n"
                       "threading.Thread(target=beat).start()\n"
                       "result = ctl('status')\n"
                       "over.set()\n"
                       "print(result.returncode, result.stdout, end='')\n")
    assert out == "0 The player is running\n"


def test_status_without_a_heartbeat_is_down(station):
    out = in_namespace(station, "result = ctl('status')\nprint(result.returncode, result.stderr, end='')\n")
    assert out == "3 audioplayerctl: no heartbeat within 2.5 s: the player is not running\n"


def test_status_says_plainly_that_the_port_is_in_use(station):
    out = in_namespace(station, LISTEN.format(port=7009) +
                       "result = ctl('status')\nprint(result.returncode, result.stderr, end='')\n")
    assert out.startswith("6 audioplayerctl: UDP port 7009 is in use")


# ---- the command line


@pytest.mark.parametrize("arguments", [[], ["playlist"], ["start"], ["status"], ["playlist", "add"], ["upload"],
                                       ["delete"], ["play"], ["as-played"], ["now-playing"], ["stream"],
                                       ["stream", "add"], ["stream", "probe"]])
def test_every_command_has_help(station, arguments):
    result = station.ctl(*arguments, "--help")
    assert "Usage: audioplayerctl" in result.stdout
    assert "Exit status" in result.stdout


@pytest.mark.parametrize("arguments", [[], ["playlist"], ["dance"], ["start"], ["stop", "--port", "0"],
                                       ["playlist", "move", "1", "one", "2"]])
def test_a_command_line_without_sense_is_a_usage_error(station, arguments):
    station.ctl(*arguments, expect=USAGE)


def completions(station, *words):
    """What the shell offers for the last of the words."""
    script = ROOT / "tools" / "audioplayerctl" / "audioplayerctl.bash-completion"
    line = " ".join(f"'{word}'" for word in ("audioplayerctl", *words))
    result = subprocess.run(
        ["bash", "-c", f"source {script}; COMP_WORDS=({line}); COMP_CWORD={len(words)}; _audioplayerctl; "
                       'printf "%s\\n" "${COMPREPLY[@]}"'],
        cwd=station.run, env=dict(os.environ, PATH=f"{TOOL.parent}:{os.environ['PATH']}"), capture_output=True,
        text=True, check=True)
    return result.stdout.split("\n")[:-1]


def test_the_completion_knows_the_commands(station):
    assert completions(station, "playlist", "de") == ["delete"]
    assert completions(station, "de") == ["delete"]
    assert completions(station, "--host", "x", "as-played", "--") == [
        "--help", "--db", "--host", "--port", "--csv", "--delete", "--follow", "--json", "--limit", "--take-seat",
        "--timeout"]


def test_the_completion_knows_the_playlists(morning):
    morning.ctl("playlist", "create", "late night")
    assert completions(morning, "play", "") == ["morning", "late night"]
    assert completions(morning, "delete", "l") == ["late night"]
    assert completions(morning, "upload", "m") == ["morning"]
    assert completions(morning, "play", "morning", "") == [""]
