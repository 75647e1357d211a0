"""
The host below a daemon, as a system test wants it: its wall clock, and the end of its power (tests/support/hostShim.cpp).

    host = HostShim(tmp_path)
    daemon.start(wrapper=host.wrapper)
    host.set_clock(1_700_000_000_250_000_000)      # ns since the epoch; it stands still there
    host.kill_at(3)                                # the third write of the database from here on is the end
    host.writes()                                  # so many were made up to now
"""

import mmap
import os
import struct

from daemonHarness import BUILD

LIBRARY = BUILD / "tests" / "support" / "libhostShim.so"

_CLOCK, _KILL, _WRITES = 0, 8, 16


class HostShim:
    def __init__(self, work_dir):
        path = work_dir / "hostShim"
        path.write_bytes(bytes(24))
        with open(path, "r+b") as file:
            self._page = mmap.mmap(file.fileno(), 24)
        # A sanitizer wants to be the first library of all, but does well behind one that wraps nothing of its own.
        sanitizer = f"{os.environ.get('ASAN_OPTIONS', '')}:verify_asan_link_order=0".lstrip(":")
        self.wrapper = ("env", f"LD_PRELOAD={LIBRARY}", f"HOST_SHIM_PAGE={path}", f"ASAN_OPTIONS={sanitizer}")

    def set_clock(self, nanoseconds):
        struct.pack_into("<q", self._page, _CLOCK, nanoseconds)

    def kill_at(self, write):
        struct.pack_into("<q", self._page, _KILL, write)

    def writes(self):
        return struct.unpack_from("<q", self._page, _WRITES)[0]
