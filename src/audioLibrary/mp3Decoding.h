#pragma once

/**
 * What the MP3 sources, file and stream, share of libmpg123 in feed mode: compressed bytes are handed in, audio comes
 * out. Threads: whichever builds or opens the source; nothing here is real-time safe but formatOfEncoding().
 */

#include "audioLibrary/audioTypes.h"

#include <cstdint>

struct mpg123_handle_struct;

namespace audioLibrarySpace
{

/**
 * A zeroed buffer, which the caller frees with delete[]. For a constructor: without memory it writes "out of memory" as
 * a line to the standard error stream and answers null; the block lives on, and opens nothing.
 */
unsigned char* newMp3Buffer(uint32_t numBytes);

/**
 * Settings of a new decoder, before its feed is opened. One that is refused leaves the decoder's own, which plays. `mh`
 * is not null and stays the caller's.
 */
void applyMp3Settings(mpg123_handle_struct* mh);

/** The format that an encoding of the decoder goes out as; SAMPLE_UNKNOWN for one that has none. */
sampleFormat_e formatOfEncoding(int encoding);

} // namespace audioLibrarySpace
