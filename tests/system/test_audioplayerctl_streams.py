"""audioplayerctl and streams: rows of the library, and what a probe says of servers, beside what the player then does."""

import json
import os
import pathlib
import sqlite3
import subprocess

import pytest

import test_stream_servers as real_servers
from streamServers import (BAD_REQUEST, HEADER, ICY_HEADER, SHOUTCAST_REFUSAL, Icecast, ScriptedServer, heard, http_answer,
                           m3u, pls, tone, xspf)

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ.get("AUDIOPLAYER_BUILD") or ROOT / "build" / "release").resolve()
TOOL = BUILD / "tools" / "audioplayerctl" / "audioplayerctl"

DONE, FAILED, USAGE, DOWN, NOT_FOUND, REFUSED = range(6)

URL = "http://127.0.0.1:8000/"
WARNING = ("audioplayerctl: warning: playlists that are made from now on get other ids than their sources, and the "
           "studio's startPlaylist goes by the playlist's id: see audioplayerctl(1)\n")


def ctl(daemon, *arguments, expect=DONE, **options):
    result = daemon.run(TOOL, *map(str, arguments), **options)
    assert result.returncode == expect, (arguments, result.stdout, result.stderr)
    return result


def as_json(daemon, *arguments, expect=DONE):
    return json.loads(ctl(daemon, *arguments, "--json", expect=expect).stdout)


def query(daemon, sql):
    connection = sqlite3.connect(daemon.database, timeout=10)
    try:
        with connection:
            return connection.execute(sql).fetchall()
    finally:
        connection.close()


def streams(daemon):
    return query(daemon, "SELECT id, name, stream_type_id, uri, channel, dst FROM T_Streams ORDER BY id")


def sources(daemon):
    return query(daemon, "SELECT id, source_type_id, player_id, player_name FROM T_Audio_Sources ORDER BY id")


# ---- the library


def test_an_internet_stream_is_a_row_of_type_2_and_a_source(daemon):
    result = ctl(daemon, "stream", "add", "live", URL + "live.mp3")
    assert result.stdout == (f'Added stream 1 "live" as source 1: {URL}live.mp3\n'
                             "Try it before it goes on air: audioplayerctl stream probe 1\n")
    assert result.stderr == WARNING
    assert streams(daemon) == [(1, "live", 2, URL + "live.mp3", 0, 0)]
    assert sources(daemon) == [(1, 2, 1, "live")]


def test_a_livewire_destination_is_a_row_of_type_1(daemon):
    ctl(daemon, "playlist", "create", "morning")
    result = ctl(daemon, "stream", "add", "studio", "--livewire", 3)
    assert result.stdout == 'Added stream 1 "studio" as source 2: Livewire 3\n'
    assert streams(daemon) == [(1, "studio", 1, "", 0, 3)]
    assert sources(daemon) == [(1, 1, 1, "morning"), (2, 2, 1, "studio")]


def test_add_answers_in_json(daemon):
    assert as_json(daemon, "stream", "add", "live", URL) == {"id": 1, "source": 1, "name": "live", "url": URL}
    assert as_json(daemon, "stream", "add", "studio", "--livewire", 1) == \
        {"id": 2, "source": 2, "name": "studio", "livewire": 1}


@pytest.fixture
def filled(daemon):
    ctl(daemon, "playlist", "create", "morning")
    ctl(daemon, "stream", "add", "live", URL)
    ctl(daemon, "stream", "add", "studio", "--livewire", 2)
    return daemon


def test_streams_are_listed_with_their_sources(filled):
    assert ctl(filled, "stream", "list").stdout == ("   ID SOURCE  NAME                 WHAT\n"
                                                    f"    1      2  live                 {URL}\n"
                                                    "    2      3  studio               Livewire 2\n")
    assert as_json(filled, "stream", "list") == [{"id": 1, "source": 2, "name": "live", "url": URL},
                                                 {"id": 2, "source": 3, "name": "studio", "livewire": 2}]


def test_sources_tell_what_a_stream_is(filled):
    assert ctl(filled, "sources").stdout.splitlines()[1:] == [
        "    1  STR_PLAYLIST          1  morning", f"    2  STR_STREAM            1  live ({URL})",
        "    3  STR_STREAM            2  studio (Livewire 2)"]
    assert as_json(filled, "sources")[1:] == [
        {"id": 2, "type": "STR_STREAM", "player_id": 1, "name": "live", "url": URL},
        {"id": 3, "type": "STR_STREAM", "player_id": 2, "name": "studio", "livewire": 2}]


def test_a_stream_that_has_lost_its_source_is_still_listed(filled):
    query(filled, "DELETE FROM T_Audio_Sources WHERE player_name = 'live'")
    assert as_json(filled, "stream", "list")[0]["source"] is None
    assert ctl(filled, "stream", "list").stdout.splitlines()[1] == f"    1      -  live                 {URL}"


def test_an_edit_changes_what_is_named_and_keeps_the_source(filled):
    ctl(filled, "stream", "edit", "live", "--url", URL + "two")
    ctl(filled, "stream", "edit", 2, "--name", "booth")
    assert streams(filled) == [(1, "live", 2, URL + "two", 0, 0), (2, "booth", 1, "", 0, 2)]
    assert sources(filled)[1:] == [(2, 2, 1, "live"), (3, 2, 2, "booth")]


def test_an_edit_makes_one_kind_of_the_other(filled):
    ctl(filled, "stream", "edit", "live", "--livewire", 9)
    ctl(filled, "stream", "edit", "studio", "--url", URL)
    assert streams(filled) == [(1, "live", 1, "", 0, 9), (2, "studio", 2, URL, 0, 0)]


def test_a_remove_takes_the_source_with_it(filled):
    ctl(filled, "stream", "remove", "live")
    assert [row[1] for row in streams(filled)] == ["studio"]
    assert [row[3] for row in sources(filled)] == ["morning", "studio"]


def test_names_of_sources_are_not_given_twice(filled):
    for command in (("stream", "add", "morning", URL), ("stream", "add", "live", URL),
                    ("stream", "edit", "studio", "--name", "morning")):
        assert "already" in ctl(filled, *command, expect=REFUSED).stderr
    ctl(filled, "stream", "edit", "studio", "--name", "studio", "--livewire", 5)  # its own is no other's
    assert len(streams(filled)) == 2


@pytest.mark.parametrize("name", ["", "n" * 128])
def test_a_name_has_1_to_127_bytes(daemon, name):
    ctl(daemon, "stream", "add", name, URL, expect=REFUSED)
    ctl(daemon, "stream", "add", "n" * 127, URL)


def test_a_url_has_at_most_1024_bytes(daemon):
    assert "longer than 1024 bytes" in ctl(daemon, "stream", "add", "a", URL + "x" * (1025 - len(URL)), expect=REFUSED).stderr
    ctl(daemon, "stream", "add", "a", URL + "x" * (1024 - len(URL)))
    assert len(streams(daemon)[0][3]) == 1024


@pytest.mark.parametrize("url, word", [("https://radio.example/", "http:// in front"), ("http://abc:8000/", '"abc:8000"'),
                                       ("http://me@radio.example/", "no user name")])
def test_a_url_that_leads_the_player_elsewhere_is_refused(filled, url, word):
    before = streams(filled)
    assert word in ctl(filled, "stream", "add", "x", url, expect=REFUSED).stderr
    assert word in ctl(filled, "stream", "edit", "live", "--url", url, expect=REFUSED).stderr
    assert word in ctl(filled, "stream", "probe", url, expect=REFUSED).stderr
    assert streams(filled) == before


def test_capitals_in_a_path_are_told(daemon):
    result = ctl(daemon, "stream", "add", "live", URL + "Live.mp3")
    assert "of a stream (not of a playlist) the player asks for the path in lower case: /live.mp3" in result.stderr


@pytest.mark.parametrize("arguments", [("add", "x"), ("add", "x", URL, "--livewire", "1"), ("add", "x", "--livewire", "0"),
                                       ("edit", "live"), ("edit",), ("probe",), ("probe", URL, "--timeout", "101"), ()])
def test_a_command_line_without_sense_is_a_usage_error(filled, arguments):
    ctl(filled, "stream", *arguments, expect=USAGE)


def test_what_is_not_there_is_told(filled):
    for command in (("edit", "none", "--name", "x"), ("remove", "none"), ("probe", "none")):
        assert 'there is no stream "none"' in ctl(filled, "stream", *command, expect=NOT_FOUND).stderr
    assert "there is nothing to ask" in ctl(filled, "stream", "probe", "studio", expect=REFUSED).stderr


def test_start_knows_streams_by_name_and_tells_what_the_start_of_an_internet_stream_costs(filled):
    filled.start()
    filled.wait_bound()
    note = ("audioplayerctl: until the stream is up, or for 100 s, the player attends to nothing else; if it does not come "
            "up there is silence: \"audioplayerctl stream probe\" tells beforehand\n")
    result = ctl(filled, "start", "studio")
    assert (result.stdout, result.stderr) == ("Asked the player to start source 3\n", "")
    filled.wait_log(r"received start request id = 3$")
    result = ctl(filled, "start", "live")
    assert (result.stdout, result.stderr) == ("Asked the player to start source 2\n", note)
    filled.wait_log(r"received start request id = 2$")


# ---- probe


@pytest.fixture(scope="module")
def audio(tmp_path_factory):
    return tone(tmp_path_factory.mktemp("audio"), rate=44100)


def padded(header, size):
    """The header, made `size` bytes long without the empty line at its end."""
    lines = header[:-4]
    return lines + b"\r\nx-filler: " + b"x" * (size - len(lines) - 12) + b"\r\n\r\n"


def server(daemon, first, entry=None):
    """Answers `first` to a whole URL, or does it if it is a function; and `entry` likewise to what follows."""
    def answer(peer):
        does = first if "://" in peer.request else entry
        does(peer) if callable(does) else peer.send(does)
    return ScriptedServer(daemon, answer)


def streaming(audio, header=HEADER):
    def entry(peer):
        peer.send(header)
        peer.play(audio)
    return entry


def close(peer):
    peer.close()


def hold(peer):
    peer.hold()


def send(data):
    """Sends it all and then waits: what is closed at once can be lost on a server's side."""
    def step(peer):
        peer.send(data)
        peer.hold()
    return step


REDIRECTION = b"HTTP/1.1 302 Found\r\nLocation: http://other.example/live\r\n\r\n"

# what the server answers to the whole URL, the case
WAYS = {
    "silence": (hold, "direct"),
    "refusal of Shoutcast": (SHOUTCAST_REFUSAL, "direct"),
    "refusal of an old Icecast": (BAD_REQUEST, "direct"),
    "pls": (http_answer("audio/x-scpls", pls([URL + "a", URL + "b"])), "pls"),
    "the other type of pls": (http_answer("application/pls+xml", pls([URL + "a", URL + "b"])), "pls"),
    "m3u": (http_answer("audio/x-mpegurl", m3u([URL + "a", URL + "b"])), "m3u"),
    "xspf": (http_answer("application/xspf+xml", xspf([URL + "a", URL + "b"])), "xspf"),
    "xml": (http_answer("text/xml", xspf([URL + "a", URL + "b"])), "xspf"),
}


@pytest.mark.parametrize("way", WAYS)
def test_every_way_to_a_stream_is_told(daemon, audio, way):
    first, case = WAYS[way]
    with server(daemon, first, streaming(audio)) as asked:
        found = as_json(daemon, "stream", "probe", URL + "live")
        assert asked.requests == [URL + "live", "/live" if case == "direct" else "/a"]
    assert found["plays"] is True and found["reason"] is None
    assert found["case"] == case
    assert found["answer"] == (None if first is hold else first.split(b"\r\n")[0].decode())
    assert found["entries"] == ([URL + "live"] if case == "direct" else [URL + "a", URL + "b"])
    assert found["tried"] == [{"url": found["entries"][0], "answer": "HTTP/1.0 200 OK", "content_type": "audio/mpeg",
                               "header_bytes": len(HEADER) - 4}]
    assert (found["rate"], found["channels"]) == (44100, 2)


@pytest.mark.parametrize("rate, channels", [(48000, 2), (32000, 1), (22050, 2)])
def test_the_shape_of_the_stream_is_told(daemon, tmp_path, rate, channels):
    with server(daemon, BAD_REQUEST, streaming(tone(tmp_path, rate=rate, channels=channels), ICY_HEADER)):
        result = ctl(daemon, "stream", "probe", URL)
    assert result.stdout.splitlines() == [
        f"The player asks 127.0.0.1 port 8000 for {URL}", "  answer:  HTTP/1.0 400 Bad Request",
        "  so it is the stream itself", "The player asks 127.0.0.1 port 8000 for /", "  answer:  ICY 200 OK, audio/mpeg",
        f"  header:  {len(ICY_HEADER) - 4} bytes, 2043 at most can be",
        f"The player will play it: {rate} Hz, {'mono' if channels == 1 else 'stereo'}"]


def test_a_playlist_is_shown_and_a_stream_may_be_given_by_its_name(filled, audio):
    with server(filled, http_answer("audio/x-scpls", pls([URL + "only"])), streaming(audio)):
        lines = ctl(filled, "stream", "probe", "live").stdout.splitlines()
    assert lines[1:4] == ["  answer:  HTTP/1.1 200 OK, audio/x-scpls", "  so it is a .pls playlist with 1 entry",
                          "The player asks 127.0.0.1 port 8000 for /only"]


# what the server answers first, what it answers to an entry, the case, words of the reason
REFUSALS = {
    "another type": (http_answer("audio/mpeg", b"x" * 99), None, None, 'the content type "audio/mpeg"'),
    "no type": (b"HTTP/1.1 200 OK\r\n\r\nx", None, None, "sends no content type"),
    "another version": (http_answer("audio/x-scpls", pls([URL]), "HTTP/1.0 200 OK"), None, None,
                        'the server answers "HTTP/1.0 200 OK"'),
    "not found": (b"HTTP/1.1 404 Not Found\r\n\r\n", None, None, 'the server answers "HTTP/1.1 404 Not Found"'),
    "redirection": (REDIRECTION, None, None, "leads on to http://other.example/live, which the player does not follow"),
    "no list in the list": (http_answer("audio/x-scpls", b"nothing"), None, "pls", "no entry that the player can read"),
    "an empty list": (http_answer("audio/x-mpegurl", b"#EXTM3U\r\n"), None, "m3u", "no entry that the player can read"),
    "entry that closes": (BAD_REQUEST, close, "direct", "refuses the connection, or closes it without a byte"),
    "entry that says little": (BAD_REQUEST, b"HTTP/1.0 404 Not Found\r\n\r\nnone", "direct",
                               'it answers "HTTP/1.0 404 Not Found") closes the connection before it has sent 4096 bytes'),
    "entry without an end of its header": (BAD_REQUEST, send(b"x" * 5000), "direct", "no end of a header"),
    "entry that is no MP3": (BAD_REQUEST, send(HEADER + b"<html>" * 2000), "direct", "in which an MP3 decoder finds a frame"),
}


@pytest.mark.parametrize("case", REFUSALS)
def test_what_the_player_refuses_is_told_with_its_reason(daemon, case):
    first, entry, kind, words = REFUSALS[case]
    with server(daemon, first, entry):
        result = ctl(daemon, "stream", "probe", URL + "live", "--json", "--timeout", 5, expect=REFUSED)
    found = json.loads(result.stdout)
    assert (found["plays"], found["case"]) == (False, kind)
    assert words in found["reason"]
    assert result.stderr == f"audioplayerctl: the player will not play it: {found['reason']}\n"


def test_a_server_that_nobody_runs_is_told(daemon):
    result = ctl(daemon, "stream", "probe", URL, "--json", expect=REFUSED)
    assert "refuses the connection, or closes it without a byte" in json.loads(result.stdout)["reason"]


def test_a_name_that_nobody_has_is_told(daemon):
    result = ctl(daemon, "stream", "probe", "http://nobody.invalid/", expect=REFUSED)
    assert "the server's name can't be found" in result.stderr


def test_a_stream_that_says_too_little_is_given_up_when_the_time_is_over(daemon):
    with server(daemon, BAD_REQUEST, send(HEADER + b"\xff" * 100)):
        result = ctl(daemon, "stream", "probe", URL, "--timeout", "0.5", "--json", expect=REFUSED)
    assert f"has sent {len(HEADER) + 100} of the 4096 bytes" in json.loads(result.stdout)["reason"]


def test_every_entry_that_was_tried_is_told(daemon, audio):
    def entry(peer):
        peer.close() if peer.request == "/a" else streaming(audio)(peer)
    with server(daemon, http_answer("audio/x-scpls", pls([URL + "a", URL + "b"])), entry):
        found = as_json(daemon, "stream", "probe", URL + "list")
    assert [(tried["url"], tried["answer"]) for tried in found["tried"]] == [(URL + "a", None), (URL + "b", "HTTP/1.0 200 OK")]
    assert found["plays"] is True


def test_a_header_of_2043_bytes_plays_and_one_of_2044_would_end_the_player(daemon, audio):
    with server(daemon, BAD_REQUEST, streaming(audio, padded(HEADER, 2043))):
        assert as_json(daemon, "stream", "probe", URL)["tried"][0]["header_bytes"] == 2043
    with server(daemon, BAD_REQUEST, streaming(audio, padded(HEADER, 2044))):
        result = ctl(daemon, "stream", "probe", URL, expect=REFUSED)
    assert "has 2044 bytes: THE PLAYER'S PROCESS WOULD END, as it does from 2044 bytes on" in result.stderr


def test_the_trace_is_what_the_player_prints(daemon, audio):
    with server(daemon, BAD_REQUEST, streaming(audio)):
        lines = ctl(daemon, "stream", "probe", URL + "live", "--trace").stderr.splitlines()
    assert "GET http://127.0.0.1:8000/live HTTP/1.0" in lines
    assert any(line.endswith("(6): Shoutcast is ready.") for line in lines)


# ---- beside the player


def live(station, url):
    """Adds the URL and starts it; whether it gets on air, "ends" if the player's process does."""
    name = f"stream {len(streams(station.daemon))}"
    ctl(station.daemon, "stream", "add", name, url)
    station.daemon.mark()
    ctl(station.daemon, "start", name)
    try:
        word = station.daemon.wait_log(r"Shoutcast unable to recover!$|\d StreamPlayer::start$", 30).group(0)
    except AssertionError:
        assert not station.daemon.alive()
        return "ends"
    if "unable" in word:
        return False
    station.daemon.wait_until(lambda: heard(station.card), what="sound on the card")
    return True


@pytest.mark.parametrize("first, entry, header", [
    (BAD_REQUEST, "audio", HEADER), (http_answer("audio/x-scpls", pls([URL + "a"])), "audio", HEADER),
    (http_answer("audio/mpeg", b"x" * 99), None, None), (BAD_REQUEST, close, None),
    (BAD_REQUEST, "audio", padded(HEADER, 2043)), (BAD_REQUEST, "audio", padded(HEADER, 2044)),
], ids=["direct", "pls", "type", "closes", "2043 bytes", "2044 bytes"])
@pytest.mark.busy_core
def test_the_player_does_what_the_probe_has_said(station, audio, first, entry, header):
    station.boot()
    with server(station.daemon, first, streaming(audio, header) if entry == "audio" else entry):
        result = station.daemon.run(TOOL, "stream", "probe", URL + "live")
        said = {DONE: True, REFUSED: "ends" if "PROCESS WOULD END" in result.stderr else False}[result.returncode]
        assert live(station, URL + "live") == said


def expect_rows(daemon, name, running):
    """A probe says of each row of the table in docs/streams.md what the table says."""
    wrong = []
    for path, first_line, content_type, verdict in real_servers.rows_of(name):
        found = json.loads(daemon.run(TOOL, "stream", "probe", running.url(path), "--json").stdout)
        if (found["answer"], found["content_type"], found["plays"]) != (first_line, content_type, verdict):
            wrong.append((path, found))
    assert not wrong


@pytest.mark.parametrize("name", ["Icecast 2.4", *real_servers.WEB_SERVERS])
def test_a_probe_says_of_real_servers_what_the_table_says(daemon, audio, name):
    with Icecast(daemon, real_servers.STREAM_PORT, files=real_servers.FILES) as stream:
        for mount in ("live.mp3", "Upper.mp3"):
            stream.source(mount, audio)
        if name == "Icecast 2.4":
            expect_rows(daemon, name, stream)
            return
        with real_servers.WEB_SERVERS[name](daemon) as web:
            expect_rows(daemon, name, web)


# ---- the shell


def completions(daemon, *words):
    """What the shell offers for the last of the words."""
    script = ROOT / "tools" / "audioplayerctl" / "audioplayerctl.bash-completion"
    line = " ".join(f"'{word}'" for word in ("audioplayerctl", *words))
    result = subprocess.run(
        ["bash", "-c", f"source {script}; COMP_WORDS=({line}); COMP_CWORD={len(words)}; _audioplayerctl; "
                       'printf "%s\\n" "${COMPREPLY[@]}"'],
        cwd=daemon.run_dir, env=dict(os.environ, PATH=f"{TOOL.parent}:{os.environ['PATH']}"), capture_output=True,
        text=True, check=True)
    return result.stdout.split("\n")[:-1]


def test_the_completion_knows_the_stream_commands_and_the_streams(filled):
    assert completions(filled, "st") == ["stream", "start", "stop", "status"]
    assert completions(filled, "stream", "") == ["add", "list", "edit", "remove", "probe"]
    assert completions(filled, "stream", "add", "--") == ["--help", "--db", "--host", "--port", "--json", "--livewire"]
    assert completions(filled, "stream", "probe", "--t") == ["--timeout", "--trace"]
    for action in ("edit", "remove", "probe"):
        assert completions(filled, "stream", action, "") == ["live", "studio"]
