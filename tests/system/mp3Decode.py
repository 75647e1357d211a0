"""The MP3 decoder that the system tests measure the player against: libmpg123 itself, fed by hand.

    rate, channels, audio = decode(path)     # audio: int16, one row a frame

The library is fed with the file's bytes in pieces and read until it wants more, at the settings of the player: any
format that it offers, and a full scale of 32767. No code of the player is involved.
"""

import ctypes

import numpy as np

OK, NEED_MORE, NEW_FORMAT, ERROR = 0, -10, -11, -1
ADD_FLAGS, OUTSCALE = 2, 11         # of enum mpg123_parms
QUIET = 0x20
SIGNED_16 = 0xD0
PIECE = 2048


def _library():
    library = ctypes.CDLL("libmpg123.so.0")
    library.mpg123_new.restype = ctypes.c_void_p
    for name, arguments in {
        "mpg123_new": [ctypes.c_char_p, ctypes.POINTER(ctypes.c_int)],
        "mpg123_delete": [ctypes.c_void_p],
        "mpg123_param": [ctypes.c_void_p, ctypes.c_int, ctypes.c_long, ctypes.c_double],
        "mpg123_format_all": [ctypes.c_void_p],
        "mpg123_open_feed": [ctypes.c_void_p],
        "mpg123_feed": [ctypes.c_void_p, ctypes.c_char_p, ctypes.c_size_t],
        "mpg123_read": [ctypes.c_void_p, ctypes.c_void_p, ctypes.c_size_t, ctypes.POINTER(ctypes.c_size_t)],
        "mpg123_getformat": [ctypes.c_void_p, ctypes.POINTER(ctypes.c_long), ctypes.POINTER(ctypes.c_int),
                             ctypes.POINTER(ctypes.c_int)],
    }.items():
        getattr(library, name).argtypes = arguments
    library.mpg123_init()
    return library


def decode(path):
    """Answers (rate, channels, audio) of the file; the format is the first that the decoder tells."""
    library = _library()
    handle = library.mpg123_new(None, None)
    try:
        library.mpg123_param(handle, ADD_FLAGS, QUIET, 0.0)
        library.mpg123_format_all(handle)
        library.mpg123_param(handle, OUTSCALE, 32767, 0.0)
        assert library.mpg123_open_feed(handle) == OK
        return _decode_fed(library, handle, path)
    finally:
        library.mpg123_delete(handle)


def _decode_fed(library, handle, path):
    rate, channels, encoding = ctypes.c_long(), ctypes.c_int(), ctypes.c_int()
    output = ctypes.create_string_buffer(65536)
    filled = ctypes.c_size_t()
    audio = bytearray()
    with open(path, "rb") as file:
        while piece := file.read(PIECE):
            library.mpg123_feed(handle, piece, len(piece))
            status = OK
            while status != NEED_MORE:  # asked again, the decoder goes on behind an error
                status = library.mpg123_read(handle, output, len(output), ctypes.byref(filled))
                audio += output.raw[: filled.value]
                if status == NEW_FORMAT and not rate.value:
                    library.mpg123_getformat(handle, ctypes.byref(rate), ctypes.byref(channels), ctypes.byref(encoding))
    assert encoding.value == SIGNED_16, f"{path}: encoding {encoding.value:#x}"
    whole = len(audio) // (2 * channels.value) * 2 * channels.value
    return rate.value, channels.value, np.frombuffer(bytes(audio[:whole]), dtype="<i2").reshape(-1, channels.value)
