"""A station for system tests: audio files made from numbers, a library filled through SQL, and the daemon on air on
the virtual card.

    station = Station(daemon)                          # fixture of conftest.py
    news = station.wav("news.wav", rate=44100, seconds=0.5)
    song = station.mp3("song.mp3", rate=44100, seconds=0.5)
    source = station.playlist("morning", [news, ...])  # the id that a start datagram names
    station.on_air(source)
    station.wait_frames(100000)                        # frames on the card, by its own clock
    rows = station.recording()                         # what went to air: int32, one row of two channels a frame
"""

import pathlib
import sqlite3
import struct
import subprocess

import numpy as np

ITEM_TYPES = {"wav": 1, "mp3": 2, "jump": 3, "gosub": 4}


def noise(frames, channels=2, seed=1, amplitude=12000):
    """Audio in which no two places are alike, soft enough that no filter makes it wrap."""
    generator = np.random.default_rng(seed)
    return generator.integers(-amplitude, amplitude, size=(frames, channels)).astype("<i2")


def sine(frames, rate, frequency, channels=2, amplitude=16384.0):
    wave = amplitude * np.sin(2 * np.pi * frequency * np.arange(frames) / rate)
    return np.repeat(wave.round().astype("<i2")[:, None], channels, axis=1)


def sweep(frames, rate, channels=2, seed=1):
    """A tone that never repeats itself, from 200 Hz up, with some noise: what an encoder keeps and a listener knows."""
    place = np.arange(frames) / rate
    hiss = np.random.default_rng(seed).integers(-600, 600, size=(frames, channels))
    tones = [9000 * np.sin(2 * np.pi * (200 + 37 * (seed % 7) + 90 * n + 400 * place) * place) for n in range(channels)]
    return (np.stack(tones, axis=1) + hiss).round().astype("<i2")


def wav_bytes(samples, rate, bits=16, before=b"", after=b"", **header):
    """A WAV file: `samples` are rows of frames; `before` and `after` are whole chunks around the data chunk.

    `header` replaces fields of the fmt chunk: audio_format, channels_field, rate_field, bits_field, fmt_size.
    """
    data = samples.tobytes()
    channels = header.get("channels_field", samples.shape[1])
    align = channels * bits // 8
    fmt = struct.pack("<4sIHHIIHH", b"fmt ", header.get("fmt_size", 16), header.get("audio_format", 1), channels,
                      header.get("rate_field", rate), rate * align, align, header.get("bits_field", bits))
    body = b"WAVE" + fmt + before + struct.pack("<4sI", b"data", len(data)) + data + after
    return b"RIFF" + struct.pack("<I", len(body)) + body


def chunk(identifier, content):
    return struct.pack("<4sI", identifier, len(content)) + content


def item_kind(path):
    return "mp3" if str(path).endswith(".mp3") else "wav"


class Station:
    def __init__(self, daemon, card):
        self.daemon = daemon
        self.directory = daemon.work_dir / "audio"
        self.directory.mkdir()
        self.card = card

    # -- material -----------------------------------------------------------------------------------------------------

    def wav(self, name, rate=48000, channels=2, frames=None, seconds=0.5, seed=None, samples=None, **options):
        """Writes a WAV file and answers its path; its audio is noise unless `samples` gives it."""
        path = self.directory / name
        if samples is None:
            count = frames if frames is not None else int(rate * seconds)
            samples = noise(count, channels, seed if seed is not None else sum(name.encode()))
        path.write_bytes(wav_bytes(samples, rate, **options))
        return path

    def mp3(self, name, rate=44100, channels=2, frames=None, seconds=0.5, samples=None, options=(), seed=None):
        """Encodes an MP3 file and answers its path; its audio is a tone unless `samples` gives it.

        `options` go to the encoder: ("-V", "2") for a variable bit rate, ("-t",) for a file without the tag frame.
        """
        path = self.directory / name
        if samples is None:
            count = frames if frames is not None else int(rate * seconds)
            samples = sweep(count, rate, channels, seed if seed is not None else sum(name.encode()))
        wav = path.with_suffix(".source.wav")
        wav.write_bytes(wav_bytes(samples, rate))
        subprocess.run(["lame", "--quiet", "--resample", str(rate / 1000), *options, wav, path], check=True)
        wav.unlink()
        return path

    # -- library ------------------------------------------------------------------------------------------------------

    def playlist(self, name, entries):
        """Adds a playlist of `entries` (paths, or (type, path) pairs) and answers the id of its audio source.

        A path alone is an MP3 file by its name's end, or else a WAV file.
        """
        with sqlite3.connect(self.daemon.database, timeout=10) as db:
            db.execute("PRAGMA foreign_keys = ON")
            sequence = db.execute("SELECT coalesce(max(sequence), 0) + 1 FROM T_Playlists").fetchone()[0]
            playlist = db.execute("INSERT INTO T_Playlists (sequence, name, playlist_type) VALUES (?, ?, 1)",
                                  (sequence, name)).lastrowid
            for place, entry in enumerate(entries, start=1):
                kind, path = entry if isinstance(entry, tuple) else (item_kind(entry), entry)
                item = db.execute(
                    "INSERT INTO T_Items (pathname, item_type, item_length_in_samples, item_sample_rate) "
                    "VALUES (?, ?, 48000, 48000)", (str(path), ITEM_TYPES[kind])).lastrowid
                db.execute("INSERT INTO T_Playlist_Item_Association (sequence, playlist_id, item_id) VALUES (?, ?, ?)",
                           (place, playlist, item))
            source = db.execute("SELECT id FROM T_Audio_Sources WHERE source_type_id = 1 AND player_id = ?",
                                (playlist,)).fetchone()[0]
        db.close()
        return source

    def stream(self, name, uri):
        """Adds an internet stream and answers the id of its audio source."""
        return self._stream(name, 2, uri, 0)

    def livewire(self, name, destination):
        """Adds a Livewire destination, counted from 1, and answers the id of its audio source."""
        return self._stream(name, 1, None, destination)

    def _stream(self, name, stream_type, uri, destination):
        with sqlite3.connect(self.daemon.database, timeout=10) as db:
            db.execute("PRAGMA foreign_keys = ON")
            stream = db.execute("INSERT INTO T_Streams (name, stream_type_id, uri, channel, dst) VALUES (?, ?, ?, 0, ?)",
                                (name, stream_type, uri, destination)).lastrowid
            source = db.execute("SELECT id FROM T_Audio_Sources WHERE source_type_id = 2 AND player_id = ?",
                                (stream,)).fetchone()[0]
        db.close()
        return source

    # -- on air -------------------------------------------------------------------------------------------------------

    def boot(self, *arguments):
        """Starts the daemon and waits until it takes datagrams; its database is there then."""
        self.daemon.start(*arguments)
        self.daemon.wait_bound()
        return self

    def on_air(self, source):
        self.daemon.mark()
        self.daemon.start_source(source)
        self.daemon.wait_log(r"Active chain started$")

    def wait_frames(self, frames, timeout=60):
        """Waits until so many frames have left the card since it was opened."""
        self.daemon.wait_until(lambda: self.card.frames() >= frames, timeout, f"{frames} frames on the card")

    def wait_item(self, path, timeout=60):
        """Waits until the daemon says that it plays `path`."""
        self.daemon.wait_log(r"(Wav|Mp3)FilePlayer: " + str(path) + "$", timeout)

    def recording(self, number=-1):
        """What went to air in one opening of the card: the last one unless `number` says otherwise."""
        return read_recording(self.card.recordings()[number])


def read_recording(path):
    """The frames of a recording: int32, one row of two channels each."""
    raw = pathlib.Path(path).read_bytes()
    assert raw[:4] == b"RIFF" and raw[8:12] == b"WAVE", f"{path} is no WAV file"
    position = 12
    while True:
        identifier, size = struct.unpack_from("<4sI", raw, position)
        position += 8
        if identifier == b"data":
            break
        position += size + size % 2
    data = raw[position : position + size]
    return np.frombuffer(data[: len(data) // 8 * 8], dtype="<i4").reshape(-1, 2)
