#pragma once

/**
 * Asynchronous sample-rate converter core: interleaved signed 16-bit audio of one or two channels, from an input rate
 * to an output rate that may both change while it runs. It knows nothing of the audio graph.
 *
 * Calling order: asrcInit, asrcCopyStoredFilter, asrcSetRates (again whenever the rates change), then repeatedly
 * asrcReqInFrameBuffer, a copy of frames into that buffer, asrcWriteInFrames, asrcReadOutFrames; lastly asrcDestroy.
 *
 * Threads: one at a time per handle, no lock; two handles are independent. Real-time safe: asrcSetRates and the
 * three transfer functions.
 */

#include <cstdint>

using sampleint = int16_t;
using asrcHandle = void*; ///< to the converter's private record

enum asrcStatus : int {
    ASRC_OK = 0,
    ASRC_ERROR = -1,
    ASRC_INVALID_CONFIG = -2, ///< answered by none of these functions
};

struct asrcConfig {
    unsigned int nChannels; ///< 1 or 2
};

/**
 * Makes a converter at 44100 Hz to 44100 Hz with an all-zero filter, and prints the number of taps. The caller owns it
 * until asrcDestroy. Null after a channel count other than 1 or 2 or without memory; the reason goes to stderr.
 */
asrcHandle asrcInit(asrcConfig* config);

/**
 * Sets the rates, in whole hertz. The input may exceed the output by up to 5 per cent; beyond, stderr says so. That and
 * a rate of 0 answer ASRC_ERROR and leave the old rates in force. Neither clocks nor positions are touched, so no click.
 */
int asrcSetRates(asrcHandle handle, unsigned int inRate, unsigned int outRate);

/**
 * The place where the next input frames go, interleaved, and how many fit there; 0 when the ring is full. The place is
 * the converter's own and good until the next call. Always ASRC_OK.
 */
int asrcReqInFrameBuffer(asrcHandle handle, short** buffer, unsigned int* nFrames);

/**
 * Tells that `nFrames` frames have been placed there. More than were offered spoils the audio until the reader has
 * passed, and nothing else: the position wraps inside the ring. Always ASRC_OK.
 */
int asrcWriteInFrames(asrcHandle handle, unsigned int nFrames);

/**
 * Produces up to `n` interleaved frames into `buf` and returns how many; 0 when the input is used up or fewer than 144
 * frames have come in since the start. A sample beyond 16 bits wraps.
 */
unsigned int asrcReadOutFrames(asrcHandle handle, short* buf, unsigned int n);

/** The number of filter coefficients: 8192. */
unsigned int asrcGetStoredFilterLength(asrcHandle handle);

/** Copies the 8192 coefficients, Q15, entry k * 256 + q for tap k at phase q / 256. Always ASRC_OK. */
int asrcCopyStoredFilter(asrcHandle handle, short* coefficients);

/** Frees the converter. Always ASRC_OK. */
int asrcDestroy(asrcHandle handle);
