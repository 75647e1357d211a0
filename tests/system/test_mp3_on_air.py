"""MP3 items on the virtual card: what goes to air, compared sample by sample with what libmpg123 gives for the files.

The material is made by the encoder `lame`; playoutModel.py decodes it on its own (mp3Decode.py).
"""

import re
import sqlite3

import numpy as np
import pytest

import mp3Decode
import playoutModel
from daemonHarness import ROOT
from station import noise

FILTER = ROOT / "data" / "FilterCoeff.bin"
RING = playoutModel.RING_FRAMES


def cover_picture(path, size=300000):
    """A file that passes for a JPEG picture, of the size that a large cover has."""
    path.write_bytes(b"\xff\xd8\xff\xe0\x00\x10JFIF\x00" + noise(size // 4, seed=9).tobytes())
    return path


def items_on_air(station, paths, number=-1):
    return playoutModel.explain(station.recording(number), [str(path) for path in paths], FILTER)


def played_paths(text):
    return re.findall(r"(?:Wav|Mp3)FilePlayer: (.*)$", text, re.MULTILINE)


def play_until(station, files, walk):
    """Plays a playlist of `files` until those of `walk` have been opened and the last of them is on air."""
    station.boot().on_air(station.playlist("files", files))
    station.daemon.wait_until(lambda: played_paths(station.daemon.log())[: len(walk)] == [str(path) for path in walk], 60,
                              f"{len(walk)} items opened")
    station.wait_frames(station.card.frames() + RING)
    station.daemon.kill()


@pytest.mark.parametrize("rate, channels, options", [
    (44100, 2, ()),
    (48000, 2, ()),
    (22050, 1, ()),
    (32000, 2, ("-V", "2")),
    (16000, 1, ("-t",)),
    (24000, 2, ("-V", "4", "-t")),
], ids=["44100-stereo", "48000-stereo", "22050-mono", "32000-stereo-vbr", "16000-mono-no-tag", "24000-stereo-vbr-no-tag"])
def test_an_mp3_playlist_goes_round_sample_by_sample(station, rate, channels, options):
    files = [station.mp3(f"item{n}.mp3", rate=rate, channels=channels, frames=rate * 2 // 3 + 1000 * n, options=options)
             for n in range(3)]
    for path in files:
        assert mp3Decode.decode(path)[:2] == (rate, channels)
    play_until(station, files, files * 2)
    assert len(items_on_air(station, files * 3)) >= 5, "the playlist did not go round"
    assert station.card.underruns() == 0


def test_a_playlist_of_wav_and_mp3_at_all_rates_goes_round_twice_sample_by_sample(station):
    picture = cover_picture(station.directory / "cover.jpg")
    tags = ("--tt", "Title", "--ta", "Artist", "--add-id3v2", "--ti", picture)
    files = [
        station.mp3("stereo-44100.mp3", frames=20011, options=tags),
        station.wav("mono-48000.wav", rate=48000, channels=1, frames=17001),
        station.mp3("mono-22050.mp3", rate=22050, channels=1, frames=9001),
        station.wav("stereo-44100.wav", rate=44100, frames=8500),
        station.mp3("stereo-48000.mp3", rate=48000, frames=24576, options=("-V", "2", "--tt", "Title", "--id3v1-only")),
    ]
    play_until(station, files, files * 2 + files[:2])
    assert len(items_on_air(station, files * 3)) >= 11, "the playlist did not go round twice"
    assert station.card.underruns() == 0


def loud_frames(recording, first, count):
    """The places, within the recording, of the frames of an item that hold sound."""
    loud = np.any(np.abs(recording[first : first + count].astype(np.int64)) > 200 << 16, axis=1)
    return first + np.flatnonzero(loud)


# An MP3 ends when its last period could not be filled: that period is in front of the converter then, and most of it is
# not heard. The silence depends on the kind that follows, whose input period is 2048 or 8192 frames. The ranges are
# those of docs/change-of-file.md at 48 kHz.
@pytest.mark.parametrize("ending, following, length, cut_ms, silence_ms", [
    ("mp3", "mp3", 15 * 2048, (0, 17), (40, 57)),
    ("mp3", "mp3", 15 * 2048 + 1250, (18, 43), (33, 57)),
    ("mp3", "wav", 15 * 2048, (0, 17), (168, 185)),
    ("wav", "mp3", 3 * 8192 + 7500, (0, 3), (33, 58)),
], ids=["mp3-to-mp3-whole-periods", "mp3-to-mp3", "mp3-to-wav", "wav-to-mp3"])
def test_what_a_change_of_files_costs(station, ending, following, length, cut_ms, silence_ms):
    tone = np.repeat((9000 * np.sin(np.arange(length) * 1.3)).round().astype("<i2")[:, None], 2, axis=1)
    make = {"mp3": lambda name: station.mp3(f"{name}.mp3", rate=48000, samples=tone),
            "wav": lambda name: station.wav(f"{name}.wav", rate=48000, samples=tone)}
    files = [make[ending]("ending"), make[following]("following")]
    play_until(station, files, files * 3)
    on_air = items_on_air(station, files * 4)
    recording = station.recording()
    ended = loud_frames(recording, *on_air[2][1:])  # both converters have been used by then
    begun = loud_frames(recording, *on_air[3][1:])
    tolerance = 3  # ms: what the encoder blurs
    cut = (length - (ended[-1] - ended[0] + 1)) / 48
    assert cut_ms[0] - tolerance <= cut <= cut_ms[1] + tolerance
    assert silence_ms[0] - tolerance <= (begun[0] - ended[-1] - 1) / 48 <= silence_ms[1] + tolerance


def test_a_cut_off_file_ends_with_its_last_frame_and_noise_behind_the_audio_does_not_hold_up_the_list(station):
    whole = station.mp3("whole.mp3", rate=48000, frames=40000)
    cut = station.directory / "cut.mp3"
    cut.write_bytes(whole.read_bytes()[: whole.stat().st_size // 2])
    dressed = station.directory / "dressed.mp3"
    dressed.write_bytes(whole.read_bytes() + noise(2000, seed=3).tobytes())
    files = [cut, dressed, whole]
    assert 10000 < len(mp3Decode.decode(cut)[2]) < 30000
    play_until(station, files, files * 2)
    assert len(items_on_air(station, files * 3)) >= 5


def test_a_missing_mp3_is_passed_over_and_leaves_no_as_played_row(station):
    good = station.mp3("good.mp3", frames=30000)
    missing_wav, missing_mp3 = station.directory / "missing.wav", station.directory / "missing.mp3"
    station.boot()
    station.on_air(station.playlist("forms", [missing_mp3, missing_wav, good]))
    text = station.daemon.log().split("Active chain started\n")[0]  # the walk goes on behind it
    assert f"Cannot create MP3 player for {missing_mp3}\n" in text
    assert f"Cannot create WAV player for {missing_wav}\n" in text
    assert played_paths(text) == [str(good)]
    station.wait_frames(RING)
    station.daemon.kill()
    playoutModel.explain(station.recording()[:RING], [str(good)] * 4, FILTER)  # the walk holds up what follows
    with sqlite3.connect(station.daemon.database) as db:
        missing = db.execute("SELECT pathname FROM T_As_Played_Log l JOIN T_Items i ON i.id = l.playlist_item_id "
                             "WHERE entry_type = 4").fetchall()
    db.close()
    assert set(missing) == {(str(missing_wav),)}


def reads_of(process):
    with open(f"/proc/{process}/io", encoding="ascii") as io:
        return int(re.search(r"^syscr: (\d+)$", io.read(), re.MULTILINE).group(1))


@pytest.mark.busy_core
def test_a_file_without_a_frame_holds_the_daemon_until_the_file_has_one(station):
    """The search for the first frame knows no end of the file: it reads there until the file has grown."""
    good = station.mp3("good.mp3", frames=40000)
    late = station.directory / "late.mp3"
    late.write_bytes(bytes(3000))
    station.boot()
    source = station.playlist("late", [late])
    station.daemon.mark()
    station.daemon.start_source(source)
    station.daemon.wait_log(r"FilePlayer::start$")
    before = reads_of(station.daemon.pid)
    station.daemon.wait_until(lambda: reads_of(station.daemon.pid) > before + 20000, what="the file is read at its end")
    station.daemon.stop_source()  # is taken when the loop runs again
    assert "Mp3FilePlayer" not in station.daemon.log()
    assert station.daemon.alive()
    with open(late, "ab") as file:
        file.write(good.read_bytes())
    station.daemon.wait_log(r"Mp3FilePlayer: .*late\.mp3$")
    station.daemon.wait_log(r"FilePlayer destructor$")
