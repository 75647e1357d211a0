#pragma once

/**
 * The sample loops of the mixer's ring: one input's samples added into the ring's cells. Plain buffers in and out; no
 * port, no lock, no state, no words.
 *
 *   input samples (8, 16 or 32 bits, unsigned/signed/signed) --widened, added--> ring cells (32 bits, native order)
 *
 * Threads: any; the caller holds whatever guards the ring. Real-time safe.
 *
 * The rows differ in how they meet an overflow, and that is meant: a 16-bit input saturates, an 8-bit or 32-bit one
 * wraps. In every row the result 0x80000000 becomes 0x80000001, so the range is symmetric.
 *
 * With more than one cell to a sample (a mono input on a stereo ring) the sum is formed with the first cell alone and
 * stored in all of them: what another input had put in the others is lost.
 */

namespace audioLibrarySpace
{

/** What became of a call: the two refusals have copied nothing. */
enum mixerCopyResult_e {
    MIXER_COPY_DONE,
    MIXER_COPY_INPUT_REFUSED, ///< no such input sample size
    MIXER_COPY_RING_REFUSED,  ///< the ring's sample size can't take this input
};
using mixerCopyResult = mixerCopyResult_e;

/**
 * Adds `nSamples` samples from `src` into the ring cells at `dst`.
 *
 * @param ringBytes  bytes of one ring cell: 4; or 2, which takes 16-bit input only, adds nothing and stores the first
 *                   sample alone
 * @param inputBytes bytes of one input sample: 1, 2 or 4
 * @param numToCopy  consecutive cells that each sum is stored in; nothing is stored for 0 and below
 * @param dst        first cell; room for nSamples times numToCopy cells, does not overlap `src`; any alignment
 * @param src        first sample, any alignment; may be null when nSamples is 0
 */
mixerCopyResult mixerCopyAndAdd(int ringBytes, int inputBytes, int numToCopy, char* dst, const char* src,
                                unsigned int nSamples);

} // namespace audioLibrarySpace
