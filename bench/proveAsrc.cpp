// bench/proveAsrc
/**
 * Proves that every form of the rate converter that this processor runs equals the literal one:
 *
 *   prove_asrc [FRAMES [SEED]]      FRAMES output frames for each form (20 million), sessions numbered from SEED (1)
 *
 * The exit status is 0 only if every output sample and every state field was equal.
 */

#include "asrcExactness.h"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv)
{
    const uint64_t nFrames = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 20'000'000;
    const uint64_t seed = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 1;
    bool equal = true;
    for (const asrcKernel* kernel : {&asrcKernelPlain, asrcKernelSse2(), asrcKernelAvx2(), asrcKernelNeon()}) {
        if (!kernel)
            continue;
        const ExactnessReport report = proveExactness(*kernel, nFrames, seed);
        // stderr: each converter announces itself on stdout
        std::fprintf(stderr, "%-5s %" PRIu64 " frames, %" PRIu64 " converters, %" PRIu64 " rate changes: %s\n",
                     kernel->name, report.frames, report.sessions, report.rateChanges,
                     report.difference.empty() ? "every bit equal" : report.difference.c_str());
        equal = equal && report.difference.empty();
    }
    return equal ? 0 : 1;
}
