// asyncSampleRateConverter/asrcObject
#pragma once

/**
 * The converter's private record, shared by asrc.cpp, the kernels and the tests. Nothing outside this folder's code
 * and tests includes it: callers hold the opaque asrcHandle.
 *
 *   caller --> InputBuffer [256 frames | mirror of the first 32] --32-frame window x 32 coefficients--> OutputBuffer
 *                  ^ILoadWrite   ^IWrite        ^IRead >> 16
 *
 * The caller fills the ring up to ILoadWrite, the input clock moves IWrite after it, the output trails at IRead, and
 * the depth IWrite - (IRead >> 16) is steered towards 144 frames.
 */

#include "audioLibrary/asyncSampleRateConverter/asrc.h"

#include <cstdint>

constexpr unsigned int kAsrcTaps = 32;                              ///< length of the filter in input frames
constexpr unsigned int kAsrcPhases = 256;                           ///< stored phases of each tap
constexpr unsigned int kAsrcCoefficients = kAsrcTaps * kAsrcPhases; ///< 8192
constexpr unsigned int kAsrcRingFrames = 256;                       ///< the ring proper; positions wrap here
constexpr unsigned int kAsrcMirrorFrames = 32; ///< first frames again behind the end: a window never wraps
constexpr unsigned int kAsrcRingAndMirror = kAsrcRingFrames + kAsrcMirrorFrames;
constexpr unsigned int kAsrcTargetDepth =
    144; ///< frames between the pointers before the first output, and the steering's aim
constexpr unsigned int kAsrcLeastDepth = 32; ///< frames between the pointers that a running converter needs: the window
constexpr unsigned int kAsrcQuietLow = 142;  ///< from this depth ...
constexpr unsigned int kAsrcQuietHigh = 146; ///< ... up to this one the read step is not corrected

struct asrcKernel;
struct asrcObject;

/** Makes up to `nFrames` output frames into OutputBuffer; the body of asrcReadOutFrames, one for each kernel. */
using asrcReader = void (*)(asrcObject& object, unsigned int nFrames);

struct asrcObject {
    unsigned int nChannels;  ///< 1 or 2
    double ClkRatio;         ///< input rate / output rate
    unsigned int IWrite;     ///< frame index 0..255: virtual write position, moved by the input clock
    unsigned int IRead;      ///< read position, 8.16 fixed point: frame index and fraction, wraps at 24 bits
    unsigned int ILoadWrite; ///< frame index 0..255: where the caller's next frame goes
    sampleint* FilterBuffer; ///< owned: the 32 coefficients of the last frame made, valid between calls
    sampleint* InputBuffer;  ///< owned: the ring, interleaved, 256 frames and the mirror of the first 32
    sampleint* OutputBuffer; ///< not owned: the caller's buffer during asrcReadOutFrames
    sampleint* FilterCoeff;  ///< owned: the 8192 coefficients as they were stored
    uint32_t OutputIndex;    ///< frames produced so far in the call
    int UseInput;            ///< 0 until the first frame has been made, then 1 for good
    uint8_t leapticks; ///< correction of the read step, 1/65536 frame; unsigned, so a shallow ring reads faster too
    uint32_t ratio;    ///< read step per output frame, 1/65536 frame
    int accDecrement;  ///< taken off both accumulators at each tick: the smaller rate
    int inputAcc;      ///< input clock; fires at 0 or less
    int inputFreq;     ///< input rate, Hz
    int outputAcc;     ///< output clock; fires at 0 or less
    int outputFreq;    ///< output rate, Hz

    // What follows is derived from the fields above, for speed alone.

    const asrcKernel* kernel; ///< the form in use; not owned
    asrcReader reader;        ///< of that form, for this channel count and this filter
    /**
     * The filter by phase: row q holds the 32 coefficients that meet a window at phase q/256, oldest frame first:
     * rows[q][j] = FilterCoeff[((31 - j) * 256 + q) mod 8192]. Row 256 is row 0 moved by one tap, so the neighbour of
     * phase 255 needs no test, and its oldest coefficient is the filter's first: the wrap of the last tap.
     */
    alignas(64) sampleint rows[kAsrcPhases + 1][kAsrcTaps];
    /// Stereo only: the ring's two channels apart, so that one vector load fetches frames of one channel.
    alignas(64) sampleint planes[2][kAsrcRingAndMirror];
};
