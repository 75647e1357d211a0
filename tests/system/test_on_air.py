"""The daemon on the virtual card: what goes to air, compared sample by sample with the model of playoutModel.py."""

import re
import signal
import subprocess

import numpy as np
import pytest

import playoutModel
from daemonHarness import ROOT
from station import chunk, noise, sine

FILTER = ROOT / "data" / "FilterCoeff.bin"
RING = playoutModel.RING_FRAMES
PERIOD = 256  # frames of the card


def items_on_air(station, paths, number=-1):
    return playoutModel.explain(station.recording(number), paths, FILTER)


def played_paths(text):
    return re.findall(r"WavFilePlayer: (.*)$", text, re.MULTILINE)


def test_a_playlist_of_all_rates_and_widths_goes_round_sample_by_sample(station):
    files = [
        station.wav("stereo-44100.wav", rate=44100, frames=20011),
        station.wav("mono-48000.wav", rate=48000, channels=1, frames=17001),
        station.wav("mono-8000.wav", rate=8000, channels=1, frames=9001),
        station.wav("stereo-22050.wav", rate=22050, frames=8500),
        station.wav("stereo-48000.wav", rate=48000, frames=9999),
    ]
    station.boot().on_air(station.playlist("all", files))
    station.daemon.wait_log(r"(?s)WavFilePlayer: .*stereo-48000.*WavFilePlayer: .*mono-48000", 60)
    station.wait_frames(station.card.frames() + RING)
    station.daemon.kill()
    on_air = items_on_air(station, [str(f) for f in files * 2])
    assert len(on_air) >= 6, "the playlist did not go round"
    assert station.card.underruns() == 0


@pytest.mark.parametrize("length", [8191, 8192, 8193, 8239, 8240, 16000, 16384], ids=lambda n: f"{n}-frames")
def test_change_of_file_by_length(station, length):
    """A file that ends less than a millisecond into a file period loses the end of the period before; others end whole.

    The player takes the next file when no whole millisecond is left by the frames it has read, and at such a length
    that is so while the last 8192 of them still stand in front of the converter.
    """
    files = [station.wav(f"item{n}.wav", frames=length, seed=n + 1) for n in range(3)]
    station.boot().on_air(station.playlist("changes", files))
    station.daemon.wait_log(r"(?s)item1.*item2.*item0", 30)
    station.wait_frames(station.card.frames() + RING)
    station.daemon.kill()
    on_air = items_on_air(station, [str(f) for f in files * 3])
    assert len(on_air) >= 3
    recording = station.recording()
    _, first, count = on_air[1]
    heard = np.count_nonzero(np.any(recording[first : first + count] != 0, axis=1))
    if length % playoutModel.FILE_PERIOD < 48:
        assert heard < length - 4000, "the last period was heard although the file's end was counted early"
    else:
        assert abs(heard - length) <= 400, "a file of odd length is heard to its end, but for the filter's own length"


def test_list_and_bext_chunks_are_not_heard(station):
    plain = station.wav("plain.wav", frames=12000, seed=5)
    dressed = station.wav("dressed.wav", samples=noise(12000, seed=5),
                          before=chunk(b"LIST", b"x" * 26) + chunk(b"bext", b"y" * 602) + chunk(b"bext", b"z" * 2000))
    station.boot().on_air(station.playlist("chunks", [plain, dressed]))
    station.daemon.wait_log(r"(?s)dressed.*plain", 30)
    station.wait_frames(station.card.frames() + RING // 2)
    station.daemon.kill()
    items_on_air(station, [str(plain), str(dressed)] * 2)
    station.daemon.wait_output(r"Skipping 26 bytes of junk$")


def test_pitch_and_level_are_right(station):
    """997 Hz at -6 dBFS from 44.1 kHz: measured in the recording, not compared with the model."""
    tone = station.wav("tone.wav", rate=44100, samples=sine(3 * 44100, 44100, 997.0))
    station.boot().on_air(station.playlist("tone", [tone]))
    station.wait_frames(RING // 2 + 8 * 8192 + 2 * 48000)
    station.daemon.kill()
    sound = station.recording()[RING // 2 + 3 * 8192 :][: 48000 + 8192, 0].astype(float) / 2**31
    spectrum = np.abs(np.fft.rfft(sound * np.hanning(len(sound))))
    peak = int(np.argmax(spectrum))
    left, top, right = np.log(spectrum[peak - 1 : peak + 2])
    frequency = (peak + 0.5 * (left - right) / (left - 2 * top + right)) * 48000 / len(sound)
    assert abs(frequency / 997.0 - 1) < 0.0015
    level = 20 * np.log10(np.sqrt(2 * np.mean(sound**2)))
    assert abs(level - 20 * np.log10(16384 / 32768)) < 0.05


def test_refused_forms_are_passed_over_with_their_words(station):
    """Each refusal costs half a second and a missing-item entry, and the walk goes on."""
    good = station.wav("good.wav", frames=9000, seed=3)
    quiet = np.zeros((1000, 2), dtype="<i2")
    refused = {
        "three-channels.wav": ({"channels_field": 3}, r"ERROR invalid WAV file header$"),
        "float.wav": ({"audio_format": 3}, r"ERROR invalid WAV file header$"),
        "24-bit.wav": ({"bits_field": 24}, r"ERROR invalid WAV file header$"),
        "48001-Hz.wav": ({"rate_field": 48001}, r"ERROR invalid WAV file header$"),
    }
    entries = []
    for name, (fields, _) in refused.items():
        entries.append(station.wav(name, samples=quiet, **fields))
    short = station.directory / "short.wav"
    short.write_bytes(b"RIFF" + b"\0" * 20)
    without_data = station.directory / "without-data.wav"
    without_data.write_bytes(good.read_bytes()[:36] + chunk(b"junk", b"1234"))
    entries += [short, without_data, station.directory / "missing.wav", good]
    station.boot().on_air(station.playlist("forms", entries))
    text = station.daemon.log().split("Active chain started\n")[0]  # the walk goes on behind it
    for entry in entries[:-1]:
        assert f"Cannot create WAV player for {entry}\n" in text
    assert played_paths(text) == [str(good)]
    station.daemon.wait_output(r"ERROR reading WAV file header \(24 bytes read/ expected 36 bytes\)$")
    station.daemon.wait_output(r"ERROR reading WAV file header \(0 bytes read/ expected 8 bytes\)$")
    station.wait_frames(RING)
    station.daemon.kill()
    # What was written ahead: the walk holds up what follows.
    playoutModel.explain(station.recording()[:RING], [str(good)] * 6, FILTER)


@pytest.mark.parametrize("bits, kind", [(8, "u1"), (32, "<i4")])
def test_a_width_that_cannot_join_leaves_the_old_block_in_place(station, bits, kind):
    """The file opens, its port can't join the 16-bit converter, and the block that stood there goes back: the tone."""
    odd = station.wav("odd.wav", rate=44100, samples=np.zeros((30000, 2), dtype=kind), bits=bits)
    station.boot().on_air(station.playlist("widths", [odd]))
    assert "Cannot connect chain\n" in station.daemon.log()
    assert played_paths(station.daemon.log()) == [str(odd)]
    station.daemon.wait_log(r"active player has runtime ID 1$")
    station.wait_frames(RING)
    assert station.daemon.alive()
    station.daemon.kill()
    assert np.any(station.recording()[RING // 2 + 4096 :]), "the tone is on air"


@pytest.mark.parametrize("bits, kind", [(8, "u1"), (32, "<i4")])
def test_at_48_khz_an_odd_width_joins_and_does_no_harm(station, bits, kind):
    """At the mixer's own rate the converter's input takes the whole record over: what plays is noise, file after file."""
    odd = station.wav("odd.wav", rate=48000, samples=np.zeros((30000, 2), dtype=kind), bits=bits)
    good = station.wav("good.wav", frames=9000)
    station.boot().on_air(station.playlist("widths", [odd, good]))
    station.daemon.wait_log(r"(?s)WavFilePlayer: .*odd.*WavFilePlayer: .*good.*WavFilePlayer: .*odd", 30)
    assert "Cannot connect chain\n" not in station.daemon.log()
    assert station.daemon.alive()


@pytest.mark.parametrize("field", ["rate_field", "channels_field"])
def test_a_header_that_says_zero_does_not_hold_up_the_playlist(station, field):
    """Such a file opens and is got through; a rate of 0 leaves the converter at the clocks it was made with."""
    odd = station.wav("odd.wav", samples=noise(20000, seed=4), **{field: 0})
    good = station.wav("good.wav", frames=60000)
    station.boot().on_air(station.playlist("zero", [odd, good]))
    station.daemon.wait_log(r"(?s)WavFilePlayer: .*odd.*WavFilePlayer: .*good.*WavFilePlayer: .*odd", 30)
    assert station.daemon.alive()


def test_restart_on_the_same_database_plays_again(station):
    item = station.wav("item.wav", frames=30000)
    station.boot()
    source = station.playlist("again", [item])
    for _ in range(2):
        station.on_air(source)
        station.wait_frames(RING)
        station.daemon.kill()
        items_on_air(station, [str(item)] * 6)
        station.boot()
    assert "Cannot" not in station.daemon.log()


def test_killed_at_any_moment_the_recording_and_the_library_are_whole(station):
    item = station.wav("item.wav", frames=12000)
    station.boot()
    source = station.playlist("kill", [item])
    for moment in (0, 1, 10000, 23040, 40000):
        station.on_air(source)
        if moment:
            station.wait_frames(moment)
        station.daemon.kill()
        recordings = station.card.recordings()
        if recordings:
            items_on_air(station, [str(item)] * 10)
        station.boot()


def test_the_second_of_two_starts_in_a_row_stays(station):
    one, two = station.wav("one.wav", frames=50000), station.wav("two.wav", frames=50000)
    station.boot()
    first, second = station.playlist("one", [one]), station.playlist("two", [two])
    station.daemon.mark()
    station.daemon.process.send_signal(signal.SIGSTOP)  # until both are there
    station.daemon.start_source(first)
    station.daemon.start_source(second)
    station.daemon.process.send_signal(signal.SIGCONT)
    station.daemon.wait_log(r"(?s)Active chain started.*FilePlayer destructor.*Active chain started$")
    station.wait_frames(RING)
    station.daemon.kill()
    items_on_air(station, [str(two)] * 3)
    assert played_paths(station.daemon.log())[:2] == [str(one), str(two)]


def test_an_unknown_source_stops_what_plays(station):
    item = station.wav("item.wav", frames=50000)
    station.boot().on_air(station.playlist("one", [item]))
    station.wait_frames(1000)
    station.daemon.start_source(999)
    station.daemon.wait_log(r"No audio source with id = 999$")
    station.daemon.wait_until(station.card.closed, what="the card is closed")
    assert station.daemon.alive()


def test_stop_and_start_again(station):
    item = station.wav("item.wav", frames=50000)
    station.boot()
    source = station.playlist("one", [item])
    station.on_air(source)
    station.wait_frames(5000)
    station.daemon.stop_source()
    station.daemon.wait_log(r"FilePlayer destructor$")
    station.daemon.wait_until(station.card.closed, what="the card is closed")
    station.on_air(source)
    station.wait_frames(RING)
    station.daemon.kill()
    items_on_air(station, [str(item)] * 3)


def test_a_jump_leads_to_another_playlist_and_back(station):
    here, there = station.wav("here.wav", frames=9000), station.wav("there.wav", frames=9500)
    station.boot()
    source = station.playlist("one", [here, ("jump", "ITEM_TYPE_JUMP:2:1")])
    station.playlist("two", [there, ("jump", "ITEM_TYPE_JUMP:1:1")])
    station.on_air(source)
    station.daemon.wait_log(r"(?s)Jumping to Playlist two, sequence 1$.*Jumping to Playlist one, sequence 1$.*here", 30)
    station.wait_frames(station.card.frames() + 2 * RING)
    station.daemon.kill()
    on_air = items_on_air(station, [str(here), str(there)] * 4)
    assert len(on_air) >= 3


def test_the_usb_marker_is_looked_at_once_for_each_start(station):
    item = station.wav("item.wav", frames=50000)
    marker = station.daemon.usb / "unmounted.usb"
    station.boot()
    source = station.playlist("one", [item])
    marker.write_text("")
    station.daemon.mark()
    station.daemon.start_source(source)
    station.daemon.wait_log(r"FilePlayer::start - player not ready$")
    marker.unlink()
    station.on_air(source)
    marker.write_text("")
    station.wait_frames(RING)
    station.daemon.kill()
    items_on_air(station, [str(item)] * 3)


def test_a_stopped_process_underruns_and_goes_on_with_the_same_frames(station):
    """The card is starved for half a second: the underrun is told, and nothing of the audio is lost."""
    item = station.wav("item.wav", seconds=20)
    station.daemon.env["VCARD_GAP"] = "none"
    station.boot().on_air(station.playlist("one", [item]))
    station.wait_frames(30000)
    station.card.strict()
    station.daemon.process.send_signal(signal.SIGSTOP)
    station.daemon.wait_until(station.card.starved, what="the card has run empty")
    station.daemon.process.send_signal(signal.SIGCONT)
    station.daemon.wait_output(r"-32 <<<<<<<<<<<<<<< Buffer Underrun >>>>>>>>>>>>>>>>>>>>>$")
    station.card.forgiving()
    station.wait_frames(station.card.frames() + 30000)
    station.daemon.kill()
    assert station.card.underruns() == 1
    recording = station.recording()
    playout = playoutModel.Playout(FILTER)
    due = np.concatenate([np.zeros((RING // 2, 2), dtype=np.int32), playout.next_file(str(item)).frames])[: len(recording)]
    broken = int(np.flatnonzero(np.any(recording != due, axis=1))[0])
    # The write was cut short within a period, which counts as not taken and is sent once more from its start.
    station.daemon.wait_output(rf"ERROR! Transferred \d+ frames to the buffer. PS: {PERIOD}$")
    again = broken % PERIOD
    assert len(recording) > broken + 20000
    assert np.array_equal(recording[broken:], due[broken - again : len(recording) - again])


def test_a_file_is_not_steered(station):
    """The rate that a file offers through the ports is 0: the converter runs at the nominal ratio for ever."""
    item = station.wav("item.wav", rate=44100, frames=90000)
    station.card.set_ppm(500)
    station.boot().on_air(station.playlist("one", [item]))
    station.wait_frames(2 * RING)
    station.daemon.kill()
    items_on_air(station, [str(item)] * 3)
    assert "Tracking rate" not in station.daemon.output()


def test_no_card_no_player(station):
    """A card that can't be opened costs two seconds and the player, not the daemon."""
    item = station.wav("item.wav", frames=9000)
    station.card.refuse_open()
    station.boot()
    station.daemon.mark()
    station.daemon.start_source(station.playlist("one", [item]))
    station.daemon.wait_log(r"Error opening PCM device plughw:0,0 .*\. Failed!$", 30)
    station.daemon.wait_log(r"FilePlayer::createAudioBlocks failed to initialize ALSA source$")
    assert station.daemon.log().count("Retrying...") == 4
    assert station.daemon.alive()


@pytest.mark.busy_core
def test_no_underrun_beside_a_busy_core(station):
    item = station.wav("item.wav", rate=44100, frames=200000)
    station.boot().on_air(station.playlist("one", [item]))
    hog = subprocess.Popen(["sh", "-c", "while :; do :; done"])
    try:
        station.wait_frames(12 * 48000)
    finally:
        hog.kill()
        hog.wait()
    station.daemon.kill()
    items_on_air(station, [str(item)] * 6)
    assert station.card.underruns() == 0
