/**
 * Texts, sizes and conversions of the graph's vocabulary: values in, values out, on any thread.
 */

#include "audioLibrary/audioTypes.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>

namespace audioLibrarySpace
{

namespace
{

/** Characters of a formatted number, its terminator included; what is longer is cut. */
constexpr size_t NUMBER_TEXT_SIZE = 31;

/** The conversion for both widths: a float widens to double without loss. */
template <typename Integer> Integer saturate(double value)
{
    if (std::isnan(value)) {
        return 0;
    }
    // The limits of both 32-bit types are exact in double, so no value slips past them.
    if (value <= static_cast<double>(std::numeric_limits<Integer>::min())) {
        return std::numeric_limits<Integer>::min();
    }
    if (value >= static_cast<double>(std::numeric_limits<Integer>::max())) {
        return std::numeric_limits<Integer>::max();
    }
    return static_cast<Integer>(value);
}

} // namespace

uint32_t sampleFormatBytes(sampleFormat_e format)
{
    switch (format) {
    case SAMPLE_S8BIT:
        return 1;
    case SAMPLE_S16BIT_LE:
    case SAMPLE_S16BIT_BE:
        return 2;
    case SAMPLE_S32BIT_LE:
    case SAMPLE_S32BIT_BE:
        return 4;
    case SAMPLE_UNKNOWN:
        break;
    }
    fprintf(stderr, "invalid sample format: %d\n", static_cast<int>(format));
    return 0;
}

std::string sampleFormatText(sampleFormat_e format)
{
    switch (format) {
    case SAMPLE_S16BIT_LE:
        return "SAMPLE_S16BIT_LE";
    case SAMPLE_S16BIT_BE:
        return "SAMPLE_S16BIT_BE";
    case SAMPLE_S32BIT_LE:
        return "SAMPLE_S32BIT_LE";
    case SAMPLE_S32BIT_BE:
        return "SAMPLE_S32BIT_BE";
    case SAMPLE_UNKNOWN:
    case SAMPLE_S8BIT:
        break;
    }
    return "UNKOWN"; // sic
}

std::string portStateText(playbackState state)
{
    switch (state) {
    case AUDIO_PLAYING:
        return "Playing\n";
    case AUDIO_STOPPED:
        return "Stopped\n";
    case AUDIO_MUTED:
        return "Muted \n"; // sic: the blank before the line end is part of the text
    case AUDIO_PAUSED:
        break;
    }
    return "Unknown\n";
}

std::string toString(long value)
{
    char text[NUMBER_TEXT_SIZE];
    snprintf(text, sizeof text, "%3ld", value);
    return text;
}

std::string toString(int value)
{
    char text[NUMBER_TEXT_SIZE];
    snprintf(text, sizeof text, "%d", value);
    return text;
}

std::string toString(unsigned int value)
{
    char text[NUMBER_TEXT_SIZE];
    snprintf(text, sizeof text, "%u", value);
    return text;
}

std::string toString(float value)
{
    char text[NUMBER_TEXT_SIZE];
    snprintf(text, sizeof text, "%f", static_cast<double>(value));
    return text;
}

std::string toString(double value)
{
    return toString(static_cast<float>(value));
}

uint32_t saturatingToUnsigned(float value)
{
    return saturate<uint32_t>(static_cast<double>(value));
}

uint32_t saturatingToUnsigned(double value)
{
    return saturate<uint32_t>(value);
}

int32_t saturatingToInt(float value)
{
    return saturate<int32_t>(static_cast<double>(value));
}

int32_t saturatingToInt(double value)
{
    return saturate<int32_t>(value);
}

int32_t saturatingDecimal(const char* text)
{
    const long value = strtol(text, nullptr, 10);
    return static_cast<int32_t>(
        std::clamp<long>(value, std::numeric_limits<int32_t>::min(), std::numeric_limits<int32_t>::max()));
}

} // namespace audioLibrarySpace
