"""What a playlist of WAV and MP3 files must sound like on the card, worked out frame by frame.

The model is a second, independent reading of the audio path: file source, rate converter, mixer, change of files. It
knows nothing of time. What goes to air in the same order whatever the timing is predicted exactly:

    half a ring of silence, then for each file the whole output periods that its converter makes.

One thing is left to timing: whether the mixer still takes the period in which a converter met the end of its file
before the player looks at the file again. So each change of files has two legal outcomes, one output period apart,
and `explain` says which one a recording shows.

    explain(recording, [wav1, mp3, wav1, ...], filter_path)

raises AssertionError at the first frame that is neither, and else answers where each file begins and ends.
"""

import dataclasses
import struct

import numpy as np

import mp3Decode

FILE_PERIOD = 8192      # frames that the WAV source reads at a time
MP3_PERIOD = 2048       # frames that the MP3 source decodes at a time
TONE_PERIOD = 512       # frames in a period of the place-holder tone
OUTPUT_PERIOD = 1024    # frames in a period of the converter's output
RING_FRAMES = 180 * 256
PRE_BUFFER = RING_FRAMES // 2
TAPS = 32


def load_filter(path):
    """The 8192 coefficients and, behind them, coefficient 0 once more: the last tap's neighbour."""
    table = np.fromfile(path, dtype="<i2").astype(np.int64)
    assert len(table) == 8192, f"{path} holds {len(table)} coefficients"
    return np.append(table, table[0])


class Core:
    """The rate converter core: two clocks, a ring of 256 frames, 32 interpolated taps."""

    def __init__(self, channels, in_rate, out_rate, coefficients):
        self.channels = channels
        self.coefficients = coefficients
        self.ring = np.zeros((256, channels), dtype=np.int64)
        self.load = self.write = self.read = 0
        self.running = False
        self.in_acc = self.out_acc = 0
        self.in_rate, self.out_rate = in_rate, out_rate
        self.decrement = min(in_rate, out_rate)
        self.ratio = int(in_rate / out_rate * 65536.0)

    def room(self):
        reader = self.read >> 16
        if reader > self.load:
            return reader - self.load - 1
        return 255 - self.load if reader == 0 else 256 - self.load

    def put(self, frames):
        self.ring[self.load : self.load + len(frames)] = frames
        self.load = (self.load + len(frames)) % 256

    def get(self, wanted):
        """Up to `wanted` output frames, as int64 rows of 16-bit values."""
        positions = []
        if wanted == 0 or self.load == self.write:
            return np.zeros((0, self.channels), dtype=np.int64)
        while True:
            if self.out_acc <= 0:
                depth = (self.write - (self.read >> 16)) % 256
                self.out_acc += self.in_rate
                if depth >= 144 or (self.running and depth >= 32):
                    positions.append(self.read)
                    self.running = True
                    leap = 0 if 142 <= depth <= 146 else (depth - 144) % 256
                    self.read = (self.read + self.ratio + leap) % (1 << 24)
            if self.in_acc <= 0:
                self.in_acc += self.out_rate
                self.write = (self.write + 1) % 256
            self.out_acc -= self.decrement
            self.in_acc -= self.decrement
            if len(positions) == wanted or self.load == self.write:
                break
        return self._filter(np.array(positions, dtype=np.int64))

    def _filter(self, positions):
        if len(positions) == 0:
            return np.zeros((0, self.channels), dtype=np.int64)
        taps = np.arange(TAPS)
        index = taps[None, :] * 256 + ((positions & 0xFFFF) >> 8)[:, None]
        weight = (positions & 0xFF)[:, None]
        blend = (256 - weight) * self.coefficients[index] + weight * self.coefficients[index + 1]
        used = np.where(blend < 0, -((-blend) // 256), blend // 256)
        frames = ((positions >> 16)[:, None] + taps[None, :]) % 256
        window = self.ring[frames]                          # [frame, tap, channel]
        total = np.einsum("ntc,nt->nc", window, used[:, ::-1])
        wrapped = ((total + (1 << 31)) % (1 << 32)) - (1 << 31)
        return (((wrapped >> 15) + 32768) % 65536) - 32768


class WavSource:
    """Reads whole periods from the first byte of audio to the file's physical end, other chunks included."""

    period = FILE_PERIOD

    def __init__(self, path):
        with open(path, "rb") as file:
            raw = file.read()
        self.channels, self.rate = struct.unpack_from("<HI", raw, 22)
        position = 36
        while True:
            chunk, size = struct.unpack_from("<4sI", raw, position)
            position += 8
            if chunk == b"data":
                break
            position += size
        self.total = size // (2 * self.channels)
        self.audio = raw[position:]
        self.offset = self.consumed = 0
        self.done = False

    def take(self):
        count = self.period * 2 * self.channels
        piece = self.audio[self.offset : self.offset + count]
        self.offset += len(piece)
        if not piece:
            self.done = True
            self.consumed = self.total
        samples = np.frombuffer(piece.ljust(count, b"\0"), dtype="<i2")
        if not self.done:
            self.consumed += self.period
        return samples.astype(np.int64).reshape(-1, self.channels)

    def at_end(self):
        """The player's sight of it: no whole millisecond left. Past the end, 32-bit frames wrap to more than a day."""
        left = np.float32((self.total - self.consumed) % (1 << 32))
        return int(left / np.float32(self.rate) * np.float32(1000)) == 0


class Mp3Source:
    """Whole periods of what the decoder gives for the file; the one that is filled up with silence is the end."""

    period = MP3_PERIOD

    def __init__(self, path=None, decoded=None):
        """The file at `path`, or (rate, channels, audio) in its place."""
        self.rate, self.channels, self.audio = decoded or mp3Decode.decode(path)
        self.offset = 0
        self.done = False

    def take(self):
        piece = self.audio[self.offset : self.offset + self.period]
        self.offset += len(piece)
        self.done = self.done or len(piece) < self.period
        return np.pad(piece, ((0, self.period - len(piece)), (0, 0))).astype(np.int64)

    def at_end(self):
        """The length is not known ahead: the end is seen when a period could not be filled."""
        return self.done


def source_of(path):
    return Mp3Source(path) if str(path).endswith(".mp3") else WavSource(path)


class ToneSource:
    """The place-holder at the head of a chain; it is never heard, but its converter runs on it."""

    period = TONE_PERIOD
    channels, rate = 2, 44100

    def take(self):
        return np.zeros((self.period, 2), dtype=np.int64)

    def at_end(self):
        return False


class Converter:
    """The converter block: what stays across a change of files is its positions, not its buffers."""

    def __init__(self, coefficients):
        self.coefficients = coefficients
        self.in_position = self.out_position = 0
        self.full = False

    def connect(self, source):
        self.source = source
        self.core = Core(source.channels, source.rate, 48000, self.coefficients)
        self.inputs = np.zeros((source.period, source.channels), dtype=np.int64)
        self.outputs = np.zeros((OUTPUT_PERIOD, source.channels), dtype=np.int64)

    def service(self):
        last_out = out = 1
        while not self.full:
            if self.in_position >= self.source.period:  # above it when a longer period came before
                self.inputs = self.source.take()
                self.in_position = 0
            if self.in_position < self.source.period:
                count = min(self.core.room(), self.source.period - self.in_position)
                self.core.put(self.inputs[self.in_position : self.in_position + count])
                self.in_position += count
            made = self.core.get(OUTPUT_PERIOD - self.out_position)
            out = len(made)
            if out == 0 and last_out == 0:
                return
            last_out = out
            self.outputs[self.out_position : self.out_position + out] = made
            self.out_position += out
            self.full = self.out_position == OUTPUT_PERIOD

    def take(self):
        """The full output period as the card gets it: two 32-bit channels."""
        assert self.full
        self.full = False
        self.out_position = 0
        return widen(self.outputs)


@dataclasses.dataclass
class Segment:
    """One file on air: the frames that are sure, and the period that timing may or may not let through."""

    path: str
    frames: np.ndarray
    optional: np.ndarray


class Playout:
    """A playlist walked through `paths`: two converters taking turns, one file at a time on air."""

    def __init__(self, filter_path):
        coefficients = load_filter(filter_path)
        self.active, self.standby = Converter(coefficients), Converter(coefficients)
        self.standby.connect(ToneSource())
        self.standby.service()
        self.first = True

    def next_file(self, path):
        """Puts `path`, or a source in its place, on air; the converter that was on air becomes the standby one."""
        if not self.first:
            self.active, self.standby = self.standby, self.active
        self.first = False
        self.active.connect(path if hasattr(path, "take") else source_of(path))
        periods = []
        while True:
            self.active.service()
            if self.active.source.at_end():
                break
            periods.append(self.active.take())
        frames = np.concatenate(periods) if periods else np.zeros((0, 2), dtype=np.int32)
        return Segment(path, frames, widen(self.active.outputs))

    def decide(self, converter, taken):
        """Tells what timing decided of a finished file's last period: a converter whose period was taken runs on."""
        if taken:
            converter.take()
            converter.service()


def explain(recording, paths, filter_path, lead_in=PRE_BUFFER):
    """Compares a recording, int32 rows, with the playlist `paths`, which is as long as the walk may get.

    The recording must begin at the first frame that the card took, and may end anywhere. Answers a list with one
    (path, first frame, number of frames) for each file that is on air in it; raises AssertionError at the first
    frame that cannot be.
    """
    playout = Playout(filter_path)
    position = _expect(recording, 0, np.zeros((lead_in, 2), dtype=np.int32), "the lead-in silence")
    on_air = []
    segment = playout.next_file(paths[0])
    for number in range(len(paths)):
        name = f"item {number} ({segment.path})"
        first = position
        position = _expect(recording, position, segment.frames, name)
        if position >= len(recording) or number + 1 == len(paths):
            on_air.append((segment.path, first, position - first))
            return on_air
        finished = playout.active
        following = playout.next_file(paths[number + 1])
        with_period = _matches(recording, position, np.concatenate([segment.optional, following.frames]))
        without = _matches(recording, position, following.frames)
        assert with_period or without, f"{name}: frame {position} is neither its last period nor the next item's first"
        if with_period:
            position += len(segment.optional)
        playout.decide(finished, with_period)
        on_air.append((segment.path, first, position - first))
        segment = following
    return on_air


def widen(frames):
    """16-bit samples as the card gets them: two 32-bit channels, a mono one doubled; the mixer's range is symmetric."""
    return np.repeat(np.maximum(frames << 16, -0x7FFFFFFF), 3 - frames.shape[1], axis=1).astype(np.int32)


def _matches(recording, position, expected):
    part = recording[position : position + len(expected)]
    return np.array_equal(part, expected[: len(part)])


def _expect(recording, position, expected, name):
    part = recording[position : position + len(expected)]
    differing = np.flatnonzero(np.any(part != expected[: len(part)], axis=1))
    if len(differing):
        first = int(differing[0])
        raise AssertionError(
            f"{name}: frame {position + first} of the recording, {first} within it, is {part[first].tolist()} "
            f"where {expected[first].tolist()} is due; {len(differing)} frames differ"
        )
    return position + len(part)
