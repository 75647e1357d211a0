"""Reads and writes the control page of a virtual sound card (layout: README.md, controlPage.h).

A card is a file in the card directory. Requests may be written at any time, by anyone, while the card runs or before
it is opened; the status is read under the card's sequence number.
"""
import math
import mmap
import os
import struct
import time

MAGIC = b"VCARDPG\0"
VERSION = 1
PAGE_BYTES = 4096

STEPS = ("open", "hwParams", "swParams", "prepare", "start", "transfer")
STATES = ("closed", "open", "prepared", "running", "xrun", "suspended", "gone")

_PPM, _FORGIVE_NS, _GONE, _STALLED, _FORCE_XRUN, _FORCE_SUSPEND, _FAULTS = 64, 72, 80, 84, 88, 92, 96
_FAULT_SLOT_BYTES = 12
_SEQUENCE, _STATUS, _RECORDING_PATH, _RECORDING_PATH_BYTES = 256, 264, 1024, 1024

# Name and struct letter of each 8-byte field, in the order of the page.
_FIELDS = (
    ("state", "Q"), ("pid", "Q"), ("opens", "Q"), ("updatedNs", "q"), ("openedNs", "q"), ("startedNs", "q"),
    ("rateHz", "Q"), ("channels", "Q"), ("sampleBytes", "Q"), ("periodFrames", "Q"), ("bufferFrames", "Q"),
    ("trueHz", "d"), ("ppm", "d"), ("referenceNs", "q"), ("referenceFrames", "d"), ("position", "Q"),
    ("applied", "Q"), ("totalFrames", "Q"), ("xruns", "Q"), ("xrunsEver", "Q"), ("lastXrunNs", "q"),
    ("gapFrames", "Q"), ("droppedFrames", "Q"), ("lateWakes", "Q"), ("lateNs", "q"), ("faultsDelivered", "Q"),
    ("peak0", "d"), ("peak1", "d"), ("rms0", "d"), ("rms1", "d"),
)
_STATUS_FORMAT = "<" + "".join(letter for _, letter in _FIELDS)


def decibels(level):
    """Full scale 1.0 is 0 dB; silence is -inf."""
    return 20.0 * math.log10(level) if level > 0.0 else -math.inf


class CardPage:
    """The page of one card; `create=True` makes the card if there is none."""

    def __init__(self, path, create=False):
        flags = os.O_RDWR | (os.O_CREAT if create else 0)
        descriptor = os.open(path, flags, 0o644)
        try:
            if os.fstat(descriptor).st_size < PAGE_BYTES:
                os.ftruncate(descriptor, PAGE_BYTES)
            self._map = mmap.mmap(descriptor, PAGE_BYTES)
        finally:
            os.close(descriptor)
        if self._map[0:8] != MAGIC or self._get("<I", 8) != VERSION:
            self._initialize()

    def _initialize(self):
        self._map[0:PAGE_BYTES] = bytes(PAGE_BYTES)
        self._put("<d", _PPM, math.nan)
        self._put("<q", _FORGIVE_NS, -1)
        self._put("<II", 8, VERSION, PAGE_BYTES)
        self._map[0:8] = MAGIC

    def _put(self, letters, offset, *values):
        struct.pack_into(letters, self._map, offset, *values)

    def _get(self, letters, offset):
        return struct.unpack_from(letters, self._map, offset)[0]

    # --- requests ---

    def set_ppm(self, ppm):
        """Deviation of the clock from now on; None: as configured."""
        self._put("<d", _PPM, math.nan if ppm is None else ppm)

    def set_forgive_ms(self, milliseconds):
        """Lateness the clock forgives; 0: strict; None: as configured."""
        self._put("<q", _FORGIVE_NS, -1 if milliseconds is None else int(milliseconds * 1e6))

    def set_gone(self, gone=True):
        self._put("<i", _GONE, int(gone))

    def set_stalled(self, stalled=True):
        self._put("<i", _STALLED, int(stalled))

    def force_xrun(self, count=1):
        self._put("<i", _FORCE_XRUN, count)

    def force_suspend(self, count=1):
        self._put("<i", _FORCE_SUSPEND, count)

    def fail(self, step, count=1, error=5, skip=0):
        """Refuses `count` calls (-1: all) of `step` with errno `error`, after `skip` that pass."""
        offset = _FAULTS + STEPS.index(step) * _FAULT_SLOT_BYTES
        self._put("<ii", offset + 4, skip, error)
        self._put("<i", offset, count)

    def clear_requests(self):
        for step in STEPS:
            self.fail(step, 0)
        self.set_ppm(None)
        self.set_forgive_ms(None)
        self.set_gone(False)
        self.set_stalled(False)
        self.force_xrun(0)
        self.force_suspend(0)

    def failures_left(self, step):
        return self._get("<i", _FAULTS + STEPS.index(step) * _FAULT_SLOT_BYTES)

    def gone(self):
        return self._get("<i", _GONE) != 0

    # --- status ---

    def status(self):
        """All fields of the status by name; `state` as a word."""
        for _ in range(1000):
            before = self._get("<Q", _SEQUENCE)
            values = struct.unpack_from(_STATUS_FORMAT, self._map, _STATUS)
            # An odd number stays for good if the card was killed in the middle of a status.
            if before % 2 == 0 and before == self._get("<Q", _SEQUENCE):
                break
        fields = {name: value for (name, _), value in zip(_FIELDS, values)}
        fields["state"] = STATES[fields["state"]] if fields["state"] < len(STATES) else "unknown"
        return fields

    def recording_path(self):
        raw = self._map[_RECORDING_PATH:_RECORDING_PATH + _RECORDING_PATH_BYTES]
        return raw.split(b"\0", 1)[0].decode()

    def position_now(self, now_ns=None):
        """Frames passed since the last start by now, also if the program has not called the card for a while."""
        fields = self.status()
        if fields["state"] != "running":
            return float(fields["position"])
        now_ns = time.monotonic_ns() if now_ns is None else now_ns
        elapsed = max(now_ns - fields["referenceNs"], 0)
        return fields["referenceFrames"] + elapsed * fields["trueHz"] / 1e9
