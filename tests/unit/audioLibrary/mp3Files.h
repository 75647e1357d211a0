#pragma once

/** MP3 files for tests, encoded in this process, and what libmpg123 itself makes of them. */

#include <cstdint>
#include <string>
#include <vector>

namespace mp3Files
{

using bytes = std::vector<unsigned char>;

/** What to encode. The signal is always the same: a tone on each channel that swells, with a little noise. */
struct recipe {
    int rate = 44100;   ///< Hz, of the signal and of the file
    int channels = 2;   ///< 1 or 2
    int frames = 30000; ///< length of the signal
    bool variableRate = false;
    bool freeFormat = false; ///< constant, at a bit rate that the frames' headers don't tell; has no tag frame
    bool infoTag = true;     ///< the encoder's tag frame, by which a decoder cuts the encoder's delay and padding off
    bool id3v1 = false;      ///< 128 bytes behind the audio
    uint32_t coverBytes = 0; ///< size of the picture in an ID3v2 tag ahead of the audio; 0: no such tag
};

/** The file of that recipe. */
bytes encode(const recipe& wanted);
/** An ID3v2.3 tag that holds a title and, when `coverBytes` isn't 0, a picture of that size, full of sync words. */
bytes id3v2(uint32_t coverBytes);
/** An ID3v1 tag. */
bytes id3v1();

/** What the decoder gave: 16-bit samples as bytes, and the format that it told first. */
struct decoded {
    long rate = 0;
    int channels = 0;
    int encoding = 0;
    bytes audio;
    int lastResult = 0; ///< what ended the decoding
};

/** libmpg123 fed with `file` in pieces of `pieceBytes`, at the settings of the player. */
decoded decodeFed(const bytes& file, size_t pieceBytes);
/** libmpg123 reading the file at `path` itself, at the same settings. */
decoded decodeOpened(const std::string& path);

} // namespace mp3Files
