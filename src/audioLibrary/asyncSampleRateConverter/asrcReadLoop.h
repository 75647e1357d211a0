// asyncSampleRateConverter/asrcReadLoop
#pragma once

/**
 * The clocks around the arithmetic: the loop of asrcReadOutFrames, written once and compiled into every kernel.
 *
 * An Engine does the arithmetic of one frame for one channel count and one instruction set:
 *   explicit Engine(const asrcObject&);
 *   void makeFrame(const sampleint (*row)[32], unsigned weight, unsigned firstFrame, sampleint* out);
 *   void storeFilter(const sampleint (*row)[32], unsigned weight, sampleint* filter);
 * Each kernel's engines live in an unnamed namespace, so no two files share an instance built for different processors.
 *
 * The state stays in locals during a call: with it in the record every 16-bit store of an output sample would make the
 * compiler fetch it again. All sums are unsigned, so rates beyond 2^31 wrap and are never undefined.
 */

#include "audioLibrary/asyncSampleRateConverter/asrcObject.h"

namespace
{

/** What both clocks and the read position need during one call. */
struct asrcClocks {
    uint32_t iWrite, iRead, iLoadWrite;
    uint32_t inputAcc, outputAcc;
    uint32_t inputFreq, outputFreq, accDecrement;
    uint32_t ratio, leapticks;
    uint32_t leastDepth; ///< 144 until the first frame has been made, then 32
    uint32_t outputIndex;
    uint32_t lastRead; ///< read position of the last frame made
};

inline bool asrcFires(uint32_t accumulator)
{
    return static_cast<int32_t>(accumulator) <= 0;
}

/** The correction that holds the depth near 144, as the unsigned byte it is kept in: below 142 it is large. */
inline uint32_t asrcCorrection(uint32_t depth)
{
    if (depth - kAsrcQuietLow <= kAsrcQuietHigh - kAsrcQuietLow) [[likely]]
        return 0;
    return (depth - kAsrcTargetDepth) & 0xFFu;
}

/**
 * Counts off at once the ticks at which neither clock fires. With a decrement of the smaller rate there are none; with
 * the 1 that a converter starts with, which a source without a valid rate never changes, there are tens of thousands a
 * frame, and the audio loop would stand still over them.
 */
inline void asrcSkipIdleTicks(asrcClocks& c)
{
    if (asrcFires(c.outputAcc) || asrcFires(c.inputAcc) || static_cast<int32_t>(c.accDecrement) <= 0)
        return;
    const uint32_t nearest = c.outputAcc < c.inputAcc ? c.outputAcc : c.inputAcc;
    const uint32_t ticks = (nearest - 1) / c.accDecrement + 1; // the first of them at which it is 0 or less
    c.outputAcc -= ticks * c.accDecrement;
    c.inputAcc -= ticks * c.accDecrement;
}

/**
 * Runs clock ticks until `nFrames` frames are made or the input is used up. The clock of the faster side fires on every
 * tick; where the caller has found that out, the constant spares the test.
 */
template <bool outputAlwaysFires, bool inputAlwaysFires, class Engine>
inline void asrcRunClocks(asrcClocks& clocks, Engine& engine, const sampleint (*rows)[kAsrcTaps], sampleint* out,
                          unsigned int nFrames, unsigned int nChannels)
{
    asrcClocks c = clocks;
    do {
        if (!outputAlwaysFires && !inputAlwaysFires)
            asrcSkipIdleTicks(c);
        if (outputAlwaysFires || asrcFires(c.outputAcc)) {
            const uint32_t depth = (c.iWrite - (c.iRead >> 16)) & (kAsrcRingFrames - 1);
            if (!outputAlwaysFires)
                c.outputAcc += c.inputFreq;
            if (depth >= c.leastDepth) [[likely]] {
                engine.makeFrame(rows + ((c.iRead >> 8) & 0xFFu), c.iRead & 0xFFu, c.iRead >> 16,
                                 out + c.outputIndex * nChannels);
                ++c.outputIndex;
                c.leastDepth = kAsrcLeastDepth;
                c.lastRead = c.iRead;
                c.leapticks = asrcCorrection(depth);
                c.iRead = (c.iRead + c.ratio + c.leapticks) & 0xFFFFFFu;
            }
        }
        if (!outputAlwaysFires)
            c.outputAcc -= c.accDecrement;
        // Without a branch: at 44100 to 48000 the input clock misses one tick in twelve, which no predictor likes.
        const uint32_t inputFires = inputAlwaysFires || asrcFires(c.inputAcc) ? 1 : 0;
        if (!inputAlwaysFires)
            c.inputAcc += (c.outputFreq & (0u - inputFires)) - c.accDecrement;
        c.iWrite = (c.iWrite + inputFires) & (kAsrcRingFrames - 1);
    } while (c.outputIndex != nFrames && c.iWrite != c.iLoadWrite);
    clocks = c;
}

inline asrcClocks asrcLoadClocks(const asrcObject& object)
{
    asrcClocks c;
    c.iWrite = object.IWrite;
    c.iRead = object.IRead;
    c.iLoadWrite = object.ILoadWrite;
    c.inputAcc = static_cast<uint32_t>(object.inputAcc);
    c.outputAcc = static_cast<uint32_t>(object.outputAcc);
    c.inputFreq = static_cast<uint32_t>(object.inputFreq);
    c.outputFreq = static_cast<uint32_t>(object.outputFreq);
    c.accDecrement = static_cast<uint32_t>(object.accDecrement);
    c.ratio = object.ratio;
    c.leapticks = object.leapticks;
    c.leastDepth = object.UseInput ? kAsrcLeastDepth : kAsrcTargetDepth;
    c.outputIndex = 0;
    c.lastRead = 0;
    return c;
}

inline void asrcStoreClocks(asrcObject& object, const asrcClocks& c)
{
    object.IWrite = c.iWrite;
    object.IRead = c.iRead;
    object.inputAcc = static_cast<int32_t>(c.inputAcc);
    object.outputAcc = static_cast<int32_t>(c.outputAcc);
    object.leapticks = static_cast<uint8_t>(c.leapticks);
    object.OutputIndex = c.outputIndex;
}

/** The reader of one kernel: see asrcReader. OutputBuffer is set, there is input and nFrames is not 0. */
template <class Engine, unsigned int nChannels> void asrcRead(asrcObject& object, unsigned int nFrames)
{
    asrcClocks clocks = asrcLoadClocks(object);
    Engine engine(object);
    sampleint* const out = object.OutputBuffer;
    // A clock whose charge equals the decrement and that fires now stands still and fires for ever. Both conditions are
    // needed: the decrement starts at 1, and a change of rates leaves accumulators of any sign.
    if (clocks.accDecrement == clocks.inputFreq && asrcFires(clocks.outputAcc))
        asrcRunClocks<true, false>(clocks, engine, object.rows, out, nFrames, nChannels);
    else if (clocks.accDecrement == clocks.outputFreq && asrcFires(clocks.inputAcc))
        asrcRunClocks<false, true>(clocks, engine, object.rows, out, nFrames, nChannels);
    else
        asrcRunClocks<false, false>(clocks, engine, object.rows, out, nFrames, nChannels);
    asrcStoreClocks(object, clocks);
    if (clocks.outputIndex == 0)
        return;
    object.UseInput = 1;
    engine.storeFilter(object.rows + ((clocks.lastRead >> 8) & 0xFFu), clocks.lastRead & 0xFFu, object.FilterBuffer);
}

} // namespace
