// asyncSampleRateConverter/asrcKernels
#pragma once

/**
 * The forms in which the inner work of the converter exists, one for each instruction set. All give the same bits: the
 * outputs and every public field of the record. bench/prove_asrc compares them with a literal form.
 */

#include "audioLibrary/asyncSampleRateConverter/asrcObject.h"

/** Splits interleaved stereo frames into the two planes beside the ring. */
using asrcSplitter = void (*)(const sampleint* frames, sampleint* left, sampleint* right, unsigned int nFrames);

struct asrcKernel {
    const char* name;
    asrcSplitter splitter;
    /// By channel count - 1 and by whether neighbouring phases lie close enough for multiply-high interpolation.
    asrcReader readers[2][2];
};

/** Runs everywhere. */
extern const asrcKernel asrcKernelPlain;
/** x86 with SSE2; null elsewhere. */
const asrcKernel* asrcKernelSse2();
/** x86 with AVX2, asked of the processor at run time; null elsewhere. */
const asrcKernel* asrcKernelAvx2();
/** ARM with NEON; null elsewhere. */
const asrcKernel* asrcKernelNeon();

/** The fastest form this processor runs. */
const asrcKernel& asrcBestKernel();

/** Switches a converter to another form; keeps all its state. For tests and benchmarks. */
void asrcUseKernel(asrcHandle handle, const asrcKernel& kernel);
