#include "audioLibrary/mp3Decoding.h"

#include <cstdio>
#include <mpg123.h>
#include <new>

namespace audioLibrarySpace
{

namespace
{

constexpr long libraryVerbosity = 9; ///< the decoder tells all that it has to say, on the error stream
constexpr long outputScale = 32767;  ///< full scale of the output; the decoder's own would be 32768

} // namespace

unsigned char* newMp3Buffer(uint32_t numBytes)
{
    auto* buffer = new (std::nothrow) unsigned char[numBytes]();
    if (buffer == nullptr) {
        std::fputs("out of memory\n", stderr);
    }
    return buffer;
}

void applyMp3Settings(mpg123_handle_struct* mh)
{
    (void)mpg123_param(mh, MPG123_VERBOSE, libraryVerbosity, 0.0);
    (void)mpg123_format_all(mh);
    (void)mpg123_param(mh, MPG123_OUTSCALE, outputScale, 0.0);
}

sampleFormat_e formatOfEncoding(int encoding)
{
    switch (encoding) {
    case MPG123_ENC_SIGNED_8:
    case MPG123_ENC_SIGNED | MPG123_ENC_8:
        return SAMPLE_S8BIT;
    case MPG123_ENC_SIGNED_16:
    case MPG123_ENC_SIGNED | MPG123_ENC_16:
        return SAMPLE_S16BIT_LE;
    default:
        return SAMPLE_UNKNOWN;
    }
}

} // namespace audioLibrarySpace
