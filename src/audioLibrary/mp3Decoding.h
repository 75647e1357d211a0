#pragma once

/**
 * What the MP3 sources, file and stream, share of libmpg123 in feed mode: compressed bytes are handed in, audio comes
 * out. Thread: that of the source.
 */

#include "audioLibrary/audioTypes.h"

#include <cstdint>
#include <mpg123.h>

namespace audioLibrarySpace
{

/**
 * A zeroed buffer, the caller's, for a constructor: without memory it writes "out of memory" as a line to the standard
 * error stream and answers null.
 */
unsigned char* newMp3Buffer(uint32_t numBytes);

/** Settings of a new decoder, before its feed is opened. One that is refused leaves the decoder's own, which plays. */
void applyMp3Settings(mpg123_handle* mh);

/** The format that an encoding of the decoder goes out as; SAMPLE_UNKNOWN for one that has none. */
sampleFormat_e formatOfEncoding(int encoding);

} // namespace audioLibrarySpace
