#pragma once

/**
 * The vocabulary of the audio graph: status codes, run-time identifiers, playback states, sample formats and the
 * record in which two ports negotiate a stream's shape, and the conversions of numbers that all share. No state.
 */

#include <cstdint>
#include <string>

namespace audioLibrarySpace
{

/** What every graph, port, block and chain operation answers. Anything but STREAM_OK is a failure. */
enum streamStatus_e : int32_t {
    STREAM_OK = 0,
    STREAM_ERROR = -1,                   ///< generic failure
    FILE_NOT_FOUND = -2,                 ///< a source file can't be opened
    INVALID_FORMAT = -3,                 ///< a source file's contents aren't acceptable
    PORT_CFG_ERROR = -4,                 ///< a port can't be configured to what a source needs
    INVALID_SERVER = -5,                 ///< internet stream: the server can't be used
    INVALID_SHOUTCAST_PLAYLIST = -6,     ///< internet stream: the playlist can't be parsed
    INVALID_SHOUTCAST_HEADER = -7,       ///< internet stream: the response header can't be parsed
    NO_MEMORY = -8,                      ///< an allocation failed
    INVALID_SHOUTCAST_PARAM = -9,        ///< internet stream: a parameter is unusable
    CHAIN_ERROR_NO_PORT_AVAILABLE = -10, ///< connectChain found a block without a free port
    LOST_CONNECTION_TO_SERVER = -11,     ///< internet stream: the connection dropped
};
using streamStatus = streamStatus_e;

/**
 * What getRunTimeId of a block, port or chain answers. The numbers are fixed; those marked reserved have no class and
 * hold the numbering. The odd order of some pairs is how the numbers were given out and is not to be tidied.
 */
enum runTimeId_e : int32_t {
    INVALID_ID = 0,
    TONE_GENERATOR = 1,
    TONE_GENERATOR_USP = 2,
    AUDIO_DEBUG_SCOPE = 3,     // reserved
    AUDIO_DEBUG_SCOPE_USP = 4, // reserved
    AUDIO_DEBUG_SCOPE_DSP = 5, // reserved
    NULL_SOURCE = 6,           // reserved
    NULL_SOURCE_DSP = 7,       // reserved
    ALSA_SOURCE = 8,
    ALSA_SOURCE_DSP = 9,
    MP3_FILE_PLAY = 10,
    MP3_FILE_PLAY_USP = 11,
    MP3_SHOUTCAST_PLAY = 12,
    MP3_SHOUTCAST_PLAY_USP = 13,
    WAV_FILE_PLAY = 14,
    WAV_FILE_PLAY_USP = 15,
    MIXER_FIFO = 16,
    MIXER_FIFO_DSP = 17,
    MIXER_FIFO_USP = 18,
    AUDIO_CHAIN = 19,
    SAMPLE_RATE_CONVERTER = 20,
    SAMPLE_RATE_CONVERTER_USP = 21,
    SAMPLE_RATE_CONVERTER_DSP = 22,
    GAIN_CONTROL = 23,     // reserved
    GAIN_CONTROL_USP = 24, // reserved
    GAIN_CONTROL_DSP = 25, // reserved
    LIVEWIRE_PLAY_USP = 26,
    LIVEWIRE_PLAY = 27,
    SPS_CLIENT_DSP = 28,    // reserved
    SPS_CLIENT_USP = 29,    // reserved
    SPS_CLIENT = 30,        // reserved
    SMOOTH_CLIP = 31,       // reserved
    SMOOTH_CLIP_USP = 32,   // reserved
    SMOOTH_CLIP_DSP = 33,   // reserved
    LOOKAHEAD_AGC_DSP = 34, // reserved
    LOOKAHEAD_AGC_USP = 35, // reserved
    LOOKAHEAD_AGC = 36,     // reserved
    RTP_SOURCE = 37,        // reserved
    RTP_SOURCE_DSP = 38,    // reserved
};
using runTimeId = runTimeId_e;

/** State of a port and of a chain. */
enum playbackState_e : int32_t {
    AUDIO_PLAYING = 0,
    AUDIO_STOPPED = 1,
    AUDIO_PAUSED = 2, ///< never written by a port: a paused port is a stopped port
    AUDIO_MUTED = 3,
};
using playbackState = playbackState_e;

/** One sample of one channel. */
enum sampleFormat_e : int32_t {
    SAMPLE_UNKNOWN = 0,
    SAMPLE_S8BIT = 1,
    SAMPLE_S16BIT_LE = 2,
    SAMPLE_S16BIT_BE = 3,
    SAMPLE_S32BIT_LE = 4,
    SAMPLE_S32BIT_BE = 5,
};

/** How far a field of audioPortParam_t may move in a negotiation. */
enum paramStatus_e : int32_t {
    VARIABLE = 0,     ///< takes whatever the peer offers
    FIXED = 1,        ///< needs exactly this value
    INCOMPATIBLE = 2, ///< written by a check into the record it was handed, on the field that could not be met
};

/** What flows through a port: six fields, each with its status ahead of it. Copied whole by assignment. */
struct audioPortParam_t {
    paramStatus_e nominalSampleRateStatus = FIXED;
    float nominalSampleRate = 48000.0F; ///< the stream's rate by name, Hz
    paramStatus_e trueSampleRateStatus = VARIABLE;
    float trueSampleRate = 0.0F; ///< the rate measured or demanded, Hz; 0.0 while unknown
    paramStatus_e numChannelsStatus = FIXED;
    uint32_t numChannels = 2; ///< channels per frame
    paramStatus_e sampleFormatStatus = FIXED;
    sampleFormat_e sampleFormat = SAMPLE_S16BIT_LE; ///< the sample encoding
    paramStatus_e samplesInterleavedStatus = FIXED;
    bool samplesInterleaved = true; ///< channels alternate frame by frame
    paramStatus_e periodSizeStatus = FIXED;
    uint32_t periodSize = 512; ///< frames in one period, the unit in which the graph moves audio
};

/**
 * One field of a negotiation: an equal value stands, a differing one is adopted while the own `status` is VARIABLE and
 * refused otherwise, with `own` kept. Floats are compared exactly. Any thread, real-time safe.
 *
 * @return whether `own` now equals what was offered
 */
template <typename Value> bool mergeParam(Value& own, paramStatus_e status, const Value& offered)
{
    if (own == offered) {
        return true;
    }
    if (status != VARIABLE) {
        return false;
    }
    own = offered;
    return true;
}

/**
 * Bytes of one sample of `format`: 1, 2 or 4. A format outside 1 to 5 writes "invalid sample format: " and the number,
 * as a line, to the standard error stream and answers 0. Any thread.
 */
uint32_t sampleFormatBytes(sampleFormat_e format);

/** The text of a format in status output; "UNKOWN" (sic) for SAMPLE_UNKNOWN, SAMPLE_S8BIT and anything else. */
std::string sampleFormatText(sampleFormat_e format);

/** The text of a port's state in status output, with its own line end; "Unknown\n" for AUDIO_PAUSED and anything else. */
std::string portStateText(playbackState state);

// Number formatting of the library's status texts: each is formatted into a buffer of 31 characters, so 30 remain.
std::string toString(long value);         ///< "%3ld"
std::string toString(int value);          ///< "%d"
std::string toString(unsigned int value); ///< "%u"
std::string toString(float value);        ///< "%f"
std::string toString(double value);       ///< "%f", narrowed to float first

/**
 * Conversions of a float to an integer as the ARM target's instructions do them: truncation toward zero, NaN gives 0,
 * what is out of range saturates. (In C++ the plain cast is undefined there.) Any thread, real-time safe.
 */
uint32_t saturatingToUnsigned(float value);
uint32_t saturatingToUnsigned(double value); ///< the same for a double
int32_t saturatingToInt(float value);        ///< the same, signed
int32_t saturatingToInt(double value);       ///< the same for a double

/** strtol() in base 10 with the range of the target's 32-bit `long`, on every machine; null ends the process. Any thread. */
int32_t saturatingDecimal(const char* text);

} // namespace audioLibrarySpace
