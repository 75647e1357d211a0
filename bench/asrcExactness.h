// bench/asrcExactness
#pragma once

/**
 * Drives one kernel of the rate converter and the literal form through the same random sessions and compares every
 * output sample and every state field after every call. Deterministic for a seed, on every processor.
 */

#include "audioLibrary/asyncSampleRateConverter/asrcKernels.h"

#include <cstdint>
#include <string>

struct ExactnessReport {
    uint64_t frames = 0;      ///< output frames compared
    uint64_t sessions = 0;    ///< converters built
    uint64_t rateChanges = 0; ///< accepted, while audio flowed
    std::string difference;   ///< empty when all was equal; else where the first difference lay
};

/** Runs sessions until at least `nFrames` output frames have been compared, or one differs. */
ExactnessReport proveExactness(const asrcKernel& kernel, uint64_t nFrames, uint64_t seed);
