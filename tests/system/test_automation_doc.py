"""docs/automation.md: its examples are one session that is played to a fresh daemon, and what it says of quirks holds."""

import functools
import re
import signal
import sqlite3
import sys

import pytest

from automationPeer import AUTOMATION_PORT, AutomationPeer, element
from documentExamples import blocks, pattern, the_block
from station import noise, wav_bytes

DOCUMENT = "automation.md"

# The only thing that differs from run to run: local time, a year, milliseconds of three decimals.
TIME = r"[A-Z][a-z]{2} [A-Z][a-z]{2} [ \d]\d \d\d:\d\d:\d\d \d{4} \d{3}\.\d{3}ms"

SHORT, LONG = 4, 60  # seconds of audio; a test is quicker than the short ones, and at its end before the long one's


@functools.cache
def audio(seconds):
    return wav_bytes(noise(int(8000 * seconds), channels=1), 8000)


@pytest.fixture
def studio(station):
    """The running daemon with the audio files of the document's examples in its store."""
    for name, seconds in {"jingle.wav": SHORT, "news.wav": SHORT, "show.wav": LONG, "late.wav": SHORT}.items():
        (station.daemon.usb / name).write_bytes(audio(seconds))
    station.boot()
    return station.daemon


def unread(daemon):
    """Bytes that have been sent to the automation port and not been read."""
    def queued(address, queue):
        with open(f"/proc/{daemon.pid}/net/tcp") as table:
            rows = [line.split() for line in table.readlines()[1:]]
        return sum(int(row[4].split(":")[queue], 16) for row in rows
                   if row[address].endswith(f":{AUTOMATION_PORT:04X}") and row[3] == "01")

    on_the_way = queued(2, 0)  # looked at first: what has left the peer is with the daemon
    return on_the_way + queued(1, 1)


def take_in(daemon, peer, text):
    """Sends part of a transaction, or more than one, and waits until the daemon has read it."""
    peer.send_raw(text)
    daemon.wait_until(lambda: unread(daemon) == 0, what="everything read")


def lose(daemon, peer, text):
    """Sends part of a transaction and breaks the connection once the daemon has taken it in."""
    take_in(daemon, peer, text)
    peer.close()


def steps(session):
    """The session's requests in order, each with the documents that follow it: (kind, text, [(kind, text), ...])."""
    found = []
    for block in session:
        if block.kind in ("request", "lost"):
            found.append((block.kind, block.text, []))
        elif block.kind in ("info", "answer"):
            found[-1][2].append((block.kind, block.text))
    return found


def kind_of(raw):
    return "info" if re.search(rb'^<Transaction type="info"', raw, re.MULTILINE) else "answer"


def play(daemon, session):
    """Plays the session to the daemon; yields (request, kind expected, text expected, kind received, text received)."""
    peer = AutomationPeer.seat(daemon)
    for kind, text, expected in steps(session):
        if kind == "lost":
            lose(daemon, peer, text)
            peer = AutomationPeer.seat(daemon)
            continue
        peer.send_raw(text + "\n")
        for expected_kind, expected_text in expected:
            raw = peer.next_document()
            yield text, expected_kind, expected_text, kind_of(raw), raw.decode()
    assert peer.fence() == []  # nothing has come that the document doesn't show


def as_pattern(text):
    return pattern(re.sub(TIME, "<time>", text), {"<time>": TIME})


def test_every_request_is_answered_to_the_letter(studio):
    session = blocks(DOCUMENT)
    played = 0
    for request, kind, expected, received_kind, received in play(studio, session):
        assert (received_kind == kind and re.fullmatch(as_pattern(expected), received)), \
            f"after\n{request}\nthe document says\n{expected}\nthe daemon says\n{received}"
        played += 1
    assert played == sum(block.kind in ("info", "answer") for block in session) > 25


# ---- what a client must know


@pytest.fixture
def peer(studio):
    found = AutomationPeer.seat(studio)
    upload(found, "Morning", "show.wav")
    return found


def upload(peer, name, *files):
    answer = peer.transaction("uploadPlaylist", element("Playlist", *(element("PlaylistItem", filename=file) for file in files),
                                                        name=name))
    assert answer.status == "success"
    return answer


def request(number, command="getAsPlayedLog", inside="", type="request"):
    return f'<Transaction type="{type}" command="{command}" transactionNumber="{number}">{inside}</Transaction>'


def self_closed(number):
    return request(number).replace("></Transaction>", "/>")


def numbers(answers):
    return [answer.number for answer in answers]


def playlists(daemon):
    return [name for (name,) in rows(daemon, "SELECT name FROM T_Playlists ORDER BY id")]


def rows(daemon, statement, *values):
    with sqlite3.connect(daemon.database, timeout=10) as database:
        return database.execute(statement, values).fetchall()


def test_transactions_with_a_newline_behind_each_are_all_answered_whatever_stands_between(peer):
    for between in ("\n", "\r\n", "\n\n", '\n<?xml version="1.0"?>\n', "\n noise > & \n"):
        peer.send_raw("".join(request(f"{i}") + between for i in range(4)))
        assert numbers(peer.fence()) == ["0", "1", "2", "3"]


def test_without_the_newline_a_first_byte_that_is_a_tag_stands_in_for_the_one_swallowed(peer):
    peer.send_raw(request("1") + request("2") + request("3") + "\n")
    assert numbers(peer.fence()) == ["1", "2", "3"]


def test_without_the_newline_behind_a_blank_line_every_second_transaction_is_lost(studio):
    peer = AutomationPeer.seat(studio)
    peer.send_raw("\n" + request("1") + request("2") + "\n")
    # What is left of 2 ends in a closing tag, which spoils one more; with a newline behind it, 3 is then carried out.
    peer.send_raw(request("3") + "\n")
    answers = [peer.next_answer() for _ in range(3)]
    assert numbers(answers) == ["1", "-1", "3"]


def test_stray_closing_tag_costs_one_answer_and_no_transaction(peer):
    peer.send_raw("</Transaction>\n" + request("1") + "\n")
    assert numbers(peer.fence()) == ["-1", "1"]


def test_second_error_begins_with_the_last_line_of_the_first(peer):
    peer.send_raw("</Transaction>\n<Transaction></Playlist></Transaction>\n")
    first, second = peer.fence()
    assert first.log[0] == "Error parsing the XML message"
    assert first.log[-1] == "()"
    assert second.log[0] == "()Error parsing the XML message"


def test_closing_tag_in_a_comment_ends_the_transaction(peer):
    peer.send_raw(request("1", inside="<!-- </Transaction> -->") + "\n")
    assert numbers(peer.fence())[0] == "-1"


def test_self_closed_transaction_swallows_the_one_that_has_come_behind_it(peer):
    peer.send_raw(self_closed("1") + "\n" + request("2") + "\n" + request("3") + "\n")
    assert numbers(peer.fence()) == ["1", "3"]


def test_self_closed_transaction_alone_is_answered(peer):
    peer.send_raw(self_closed("1") + "\n")
    assert peer.next_answer().number == "1"
    assert peer.fence() == []


def test_what_stands_in_front_of_a_self_closed_transaction_has_as_much_behind_it_parsed_with_it(peer):
    peer.send_raw('<?xml version="1.0"?>\n' + self_closed("1") + "\n" + request("2")[:12])
    assert peer.next_answer().number == "-1"
    peer.send_raw(request("2")[12:] + "\n")
    assert numbers(peer.fence()) == ["2"]


def test_greater_than_in_a_self_closed_transaction_keeps_it_waiting(peer):
    peer.send_raw(self_closed("1>") + "\n")
    peer.send_raw(request("2") + "\n")
    assert numbers(peer.fence()) == ["1>"]  # as one text


def test_zero_byte_drops_the_rest_of_the_read(peer):
    peer.send_raw(request("1") + "\n\0" + request("2") + "\n")
    assert numbers(peer.fence()) == ["1"]


def test_other_types_are_carried_out_and_not_answered(peer, studio):
    peer.send_raw(request("1", "uploadPlaylist", '<Playlist name="Quiet"/>', type="info") + "\n")
    assert peer.fence() == []
    assert playlists(studio) == ["Morning", "Quiet"]


def test_missing_attributes_are_those_of_the_transaction_before_whoever_sent_it(peer, studio):
    peer.send_raw(request("17", "stopPlaylist") + "\n")
    peer.next_answer()
    newcomer = AutomationPeer.seat(studio)
    newcomer.send_raw("<Transaction></Transaction>\n")
    answer = newcomer.next_answer()
    assert (answer.command, answer.number, answer.status) == ("stopPlaylist", "17", "success")
    newcomer.send_raw(request("18", type="response") + "\n<Transaction></Transaction>\n")
    assert newcomer.fence() == []


def test_names_are_read_in_any_case_and_values_too(peer):
    peer.send_raw('<TRANSACTION Type="Request" COMMAND="STOPPLAYLIST" TransactionNUMBER="1"></TRANSACTION>\n')
    answer = peer.next_answer()
    assert (answer.command, answer.number, answer.status) == ("STOPPLAYLIST", "1", "success")


def test_text_passes_byte_for_byte_and_a_numbered_character_as_one_byte(peer, studio):
    peer.send_raw(request("1", "uploadPlaylist", '<Playlist name="Früh &amp; spät"/>') + "\n")
    peer.next_answer()
    peer.send_raw(request("2", "uploadPlaylist", '<Playlist name="Fr&#252;h"/>') + "\n")
    peer.next_answer()
    names = [name for (name,) in rows(studio, "SELECT CAST(name AS BLOB) FROM T_Playlists ORDER BY id")]
    assert names == [b"Morning", "Früh & spät".encode(), b"Fr\xfch"]


@pytest.mark.parametrize("depth, number", [(200, "1"), (201, "-1")])
def test_depth_is_limited_to_200(peer, depth, number):
    inside = depth - 1  # the Transaction is one
    peer.send_raw(request("1", "stopPlaylist", "<a>" * inside + "</a>" * inside) + "\n")
    assert numbers(peer.fence()) == [number]


@pytest.mark.parametrize("count, number", [(256, "1"), (257, "-1")])
def test_attributes_are_limited_to_256(peer, count, number):
    attributes = " ".join(f'a{i}=""' for i in range(count))
    peer.send_raw(request("1", "stopPlaylist", f"<a {attributes}/>") + "\n")
    assert numbers(peer.fence()) == [number]


def test_newest_connection_takes_the_seat_and_the_answers(peer, studio):
    newcomer = AutomationPeer.seat(studio)
    peer.wait_closed()
    assert newcomer.transaction("getAsPlayedLog").status == "success"


# ---- recovery


BEGIN = the_block(DOCUMENT, "text", "Recovery") + "\n"


def test_no_half_transaction_is_carried_out_behind_the_lines_that_begin_a_connection(peer, studio):
    half = request("x", "deletePlaylists", '<!-- a --><Playlist name="Morning"/>text<').removesuffix("</Transaction>")
    for length in range(1, len(half) + 1):
        lose(studio, peer, half[:length])
        peer = AutomationPeer.seat(studio)
        peer.send_raw(BEGIN + request("0") + "\n" + request("1") + "\n")
        assert numbers(peer.fence()) in (["-1", "0", "1"], ["-1", "-1", "0", "1"]), half[:length]
    assert playlists(studio) == ["Morning"]


def test_mere_request_carries_out_what_was_half_behind_an_opening_bracket(peer, studio):
    lose(studio, peer, request("x", "deletePlaylists", '<Playlist name="Morning"/><').removesuffix("</Transaction>"))
    newcomer = AutomationPeer.seat(studio)
    newcomer.send_raw(request("1") + "\n")
    assert newcomer.next_answer().number == "x"
    assert playlists(studio) == []


def test_lone_closing_tag_carries_out_what_was_half(peer, studio):
    lose(studio, peer, request("x", "deletePlaylists", '<Playlist name="Morning"/>').removesuffix("</Transaction>"))
    AutomationPeer.seat(studio).send_raw("</Transaction>\n")
    studio.wait_until(lambda: playlists(studio) == [], what="deleted")


def test_whole_transaction_of_a_lost_peer_is_carried_out_and_answered_to_the_next(peer, studio):
    # One is carried out in each pass: they are read within a few, and last for hundreds. The others are as the first.
    take_in(studio, peer, request("x") + "\n" + "<Transaction></Transaction>\n" * 400)
    studio.process.send_signal(signal.SIGSTOP)
    peer.close()
    newcomer = AutomationPeer.seat(studio)
    studio.process.send_signal(signal.SIGCONT)
    assert numbers(newcomer.fence())[-1:] == ["x"]


# ---- commands


def test_upload_reads_only_the_first_playlist(peer, studio):
    peer.send_raw(request("1", "uploadPlaylist", '<Playlist name="A"/><Playlist name="B"/>') + "\n")
    assert peer.next_answer().log == ["Created new playlist A"]
    assert playlists(studio) == ["Morning", "A"]


@pytest.mark.parametrize("inside, status, log", [
    ('<List name="A"/>', "success", []),
    ('<Playlist name="A"><PlaylistItem filename="show.wav"/><Item/><PlaylistItem filename="show.wav"/></Playlist>', "success",
     ["Created new playlist A", "Adding audio item /mnt/usb/show.wav to playlist"]),
])
def test_upload_with_a_wrong_element_succeeds(peer, inside, status, log):
    peer.send_raw(request("1", "uploadPlaylist", inside) + "\n")
    answer = peer.next_answer()
    assert (answer.status, answer.log) == (status, log)


def test_upload_numbers_places_from_2_and_stores_no_length(peer, studio):
    upload(peer, "A", "show.wav", "show.wav", "old.MP3.wav", "")
    placed = rows(studio, "SELECT a.sequence, i.pathname, i.item_type FROM T_Playlist_Item_Association a "
                          "JOIN T_Items i ON i.id = a.item_id WHERE a.playlist_id = 2 ORDER BY a.sequence")
    assert placed == [(2, "/mnt/usb/show.wav", 1), (3, "/mnt/usb/show.wav", 1), (4, "/mnt/usb/old.MP3.wav", 2),
                      (5, "/mnt/usb/", 1)]
    assert rows(studio, "SELECT playlist_length_seconds FROM T_Playlists_Item_Count WHERE playlist_id = 2") == [(None,)]


def on_air(peer, name):
    """Starts the playlist and waits for its first playingNow; the file."""
    assert peer.transaction("startPlaylist", element("Playlist", name=name)).status == "success"
    return playing(peer.infos()[-1], name)


def playing(info, name):
    assert (info.command, info.xml.find("Playlist").get("name")) == ("playingNow", name)
    return info.xml.find("PlaylistItem").get("filename").removeprefix("/mnt/usb/")


def test_upload_to_the_playlist_on_air_goes_on_with_the_place_after_the_one_on_air(peer):
    upload(peer, "Day", "jingle.wav", "missing.wav", "missing.wav")
    assert on_air(peer, "Day") == "jingle.wav"
    upload(peer, "Day", "late.wav", "show.wav", "news.wav")
    assert playing(peer.next_answer(), "Day") == "show.wav"


@pytest.mark.parametrize("inside, status", [("", "success"), ("<!-- now -->", "ERROR"), ("now", "ERROR"), ("<List/>", "ERROR")])
def test_start_without_a_playlist_leaves_what_is_on_air(peer, inside, status):
    on_air(peer, "Morning")
    peer.send_raw(request("1", "startPlaylist", inside) + "\n")
    (answer,) = peer.fence()
    assert (answer.status, answer.log) == (status, [])


def test_start_succeeds_with_a_playlist_that_has_nothing_to_play(peer):
    upload(peer, "Gone", "missing.wav")
    assert peer.transaction("startPlaylist", element("Playlist", name="Gone")).status == "success"
    assert peer.fence() == []


def test_query_finds_the_playlists_that_start_as_something_else(peer, studio):
    query = next(block.text for block in blocks(DOCUMENT, "sql", "startPlaylist"))
    upload(peer, "Noon", "show.wav")
    peer.transaction("deletePlaylists", element("Playlist", name="Noon"))
    upload(peer, "Evening", "show.wav")
    assert rows(studio, query) == []  # deletes alone do no harm
    rows(studio, "INSERT INTO T_Streams (name, stream_type_id, uri) VALUES ('Abroad', 2, 'http://127.0.0.1:1/')")
    upload(peer, "Night", "jingle.wav")
    upload(peer, "Late", "news.wav")
    rows(studio, "INSERT INTO T_Playlists (sequence, name, playlist_type) VALUES (1, 'Carts', 2)")
    assert rows(studio, query) == [("Night", 3, 4), ("Late", 4, 5), ("Carts", 5, None)]
    peer.transaction("startPlaylist", element("Playlist", name="Late"))  # its number is the source of Night
    assert playing(peer.infos()[-1], "Night") == "jingle.wav"


def test_item_without_a_file_name_is_passed_over(peer, studio):
    upload(peer, "A", "", "jingle.wav")
    assert on_air(peer, "A") == "jingle.wav"
    studio.wait_log("Cannot create WAV player for /mnt/usb/\n")


@pytest.mark.parametrize("files, tone", [(["blip.wav"], True), (["jingle.wav", "blip.wav"], False)])
def test_emptied_playlist_ends_in_a_tone_after_its_first_file_and_in_silence_after_a_later_one(station, peer, files, tone):
    (station.daemon.usb / "blip.wav").write_bytes(audio(3))
    upload(peer, "A", *files)
    on_air(peer, "A")
    for file in files[1:]:
        assert playing(peer.next_answer(), "A") == file
    upload(peer, "A")
    station.daemon.wait_log("Playlist is empty$")
    end = station.card.frames() + 96000  # the ring holds less than half of that
    station.wait_frames(end)
    station.daemon.kill()
    assert bool(station.recording()[-9600:].any()) == tone


@pytest.mark.parametrize("kind", ["item", "playlist"])
def test_ids_above_65535_are_cut_to_16_bits(peer, studio, kind):
    if kind == "item":
        rows(studio, "INSERT INTO T_Items VALUES (65536, '/mnt/usb/', 1, 0, 0)")
    else:
        rows(studio, "INSERT INTO T_Playlists VALUES (65536, 1, 'full', 2)")
    upload(peer, "Night", "jingle.wav")
    ((source,),) = rows(studio, "SELECT id FROM T_Audio_Sources WHERE player_name = 'Night'")
    studio.start_source(source)
    info = peer.next_answer()
    if kind == "item":
        assert playing(info, "Night") == "show.wav"  # the first ever uploaded
    else:
        assert playing(info, "Morning") == "jingle.wav"


def test_log_request_with_two_parameters_has_two_blocks(peer):
    peer.send_raw(request("1", inside="<Parameters/><Parameters/>") + "\n")
    assert [child.tag for child in peer.next_answer().xml] == ["Info", "Info"]


def test_log_request_with_another_element_is_refused(peer):
    peer.send_raw(request("1", inside="<Parameter/>") + "\n")
    answer = peer.next_answer()
    assert (answer.status, answer.log) == ("ERROR", ["Invalid element Parameter"])


def test_delete_with_another_element_ends_there_with_success(peer, studio):
    peer.send_raw(request("1", "deletePlaylists", '<List/><Playlist name="Morning"/>') + "\n")
    answer = peer.next_answer()
    assert (answer.status, answer.log) == ("success", ["Invalid element List"])
    assert playlists(studio) == ["Morning"]


def test_deleted_files_are_those_of_other_playlists_too_and_of_any_directory(peer, studio):
    (studio.work_dir / "elsewhere").write_text("")
    upload(peer, "A", "late.wav", f"../..{studio.work_dir}/elsewhere")
    upload(peer, "B", "late.wav")
    peer.transaction("deletePlaylists", element("Playlist", name="A", deleteAudioFiles="YES"))
    assert not (studio.usb / "late.wav").exists()
    assert not (studio.work_dir / "elsewhere").exists()
    assert playlists(studio) == ["Morning", "B"]


def test_as_played_entries_outlive_the_playlist_and_name_the_file(peer, studio):
    add_entries(studio, [1000, 2000])
    peer.transaction("deletePlaylists", element("Playlist", name="Morning", clearAsPlayedLog="no"))
    answer = peer.transaction("getAsPlayedLog", element("Parameters"))
    (entry,) = answer.xml.findall("LogEntry")
    assert entry.find("Playlist").get("name") == "(unknown)"
    assert entry.find("PlaylistItem").get("filename") == "/mnt/usb/show.wav"


def add_entries(daemon, times):
    """As-played entries of the first item of the first playlist, at these seconds, a millisecond apart within one."""
    for count, second in enumerate(times):
        rows(daemon, "INSERT INTO T_As_Played_Log (log_time_sec, log_time_usec, playlist_assoc_id, playlist_id, "
                     "playlist_item_id, entry_type, player_status, tx_status, desc) VALUES (?, ?, 1, 1, 1, 0, 1, 100, '')",
             second, 1000 * count)


def test_delete_takes_the_whole_second_of_the_last_entry(peer, studio):
    add_entries(studio, [1000, 1000, 2000, 3000])
    answer = peer.transaction("getAsPlayedLog", element("Parameters", maxLogEntries="1", delete="yes"))
    assert len(answer.xml.findall("LogEntry")) == 1
    assert rows(studio, "SELECT log_time_sec FROM T_As_Played_Log ORDER BY id") == [(2000,), (3000,)]


# ---- the client of the document


def run_client(daemon, text):
    """Runs the document's client with `text` behind it; what it prints."""
    (client,) = [block.text for block in blocks(DOCUMENT, "python", "A client in Python")]
    done = daemon.run(sys.executable, "-c", f'{client}\n\nautomation = Automation("127.0.0.1")\n{text}')
    assert done.returncode == 0, done.stderr
    return done.stdout.splitlines()


def test_client_recovers_uploads_and_starts(peer, studio):
    lose(studio, peer, request("x", "deletePlaylists", '<Playlist name="Morn')[:90])
    printed = run_client(studio, """
upload(automation, "Früh & spät", ["show.wav", 'a "quoted" <name>.wav'])
print(automation.request("startPlaylist", '<Playlist name="Früh &amp; spät"/>').get("status"))
print(log(automation.request("startPlaylist", '<Playlist name="None"/>')))
""")
    assert printed == ["Früh & spät /mnt/usb/show.wav", "success", "['Playlist None was not found']"]
    assert rows(studio, "SELECT pathname FROM T_Items ORDER BY id") == [
        ("/mnt/usb/show.wav",), ('/mnt/usb/a "quoted" <name>.wav',)]


@pytest.mark.parametrize("page", [1, 2, 3, 4, 100])
def test_client_takes_the_log_whole_and_once(peer, studio, page):
    times = [1000, 1001, 1001, 1001, 1001, 1001, 1002, 1003, 1003, 1004, 1005, 1005, 9000]
    add_entries(studio, times)
    peer.close()
    printed = run_client(studio, f"for entry in take_log(automation, {page}): print(entry.get('time'))")
    assert len(printed) == len(set(printed)) == len(times) - 1
    assert printed == sorted(printed)
    assert rows(studio, "SELECT log_time_sec FROM T_As_Played_Log") == [(9000,)]
