// asyncSampleRateConverter/asrcKernelPlain
// The form for any processor: no vector instruction, no intrinsic.

#include "audioLibrary/asyncSampleRateConverter/asrcKernels.h"
#include "audioLibrary/asyncSampleRateConverter/asrcReadLoop.h"

#include <utility>

namespace
{

using Row = sampleint[kAsrcTaps];

/** Between two neighbouring phases, truncating towards zero. */
inline sampleint interpolate(sampleint here, sampleint next, unsigned int weight)
{
    const int w = static_cast<int>(weight);
    return static_cast<sampleint>(((256 - w) * here + w * next) / 256);
}

/** A product that wraps in 32 bits when summed, as the sums do. */
inline uint32_t product(sampleint a, sampleint b)
{
    return static_cast<uint32_t>(int32_t{a} * int32_t{b});
}

/** Q30 to Q15: bits 15 to 30 of the sum. No rounding, no saturation: what does not fit wraps. */
inline sampleint outputSample(uint32_t sum)
{
    return static_cast<sampleint>(static_cast<uint16_t>(sum >> 15));
}

template <unsigned int nChannels> class PlainEngine
{
public:
    explicit PlainEngine(const asrcObject& object) : ring(object.InputBuffer) {}

    void makeFrame(const Row* row, unsigned int weight, unsigned int firstFrame, sampleint* out) const
    {
        sampleint filter[kAsrcTaps];
        for (unsigned int j = 0; j < kAsrcTaps; ++j)
            filter[j] = interpolate(row[0][j], row[1][j], weight);
        convolve(ring + firstFrame * nChannels, filter, out, std::make_integer_sequence<unsigned int, kAsrcTaps>{});
    }

    void storeFilter(const Row* row, unsigned int weight, sampleint* filter) const
    {
        for (unsigned int j = 0; j < kAsrcTaps; ++j)
            filter[kAsrcTaps - 1 - j] = interpolate(row[0][j], row[1][j], weight);
    }

private:
    /** All 32 taps written out, each coefficient used for every channel while it is at hand. */
    template <unsigned int... taps>
    static void convolve(const sampleint* window, const sampleint* filter, sampleint* out,
                         std::integer_sequence<unsigned int, taps...>)
    {
        if constexpr (nChannels == 1) {
            out[0] = outputSample((product(window[taps], filter[taps]) + ...));
        } else {
            uint32_t left = 0;
            uint32_t right = 0;
            ((left += product(window[2 * taps], filter[taps]), right += product(window[2 * taps + 1], filter[taps])),
             ...);
            out[0] = outputSample(left);
            out[1] = outputSample(right);
        }
    }

    const sampleint* ring;
};

/** This form reads the interleaved ring itself. */
void splitNothing(const sampleint*, sampleint*, sampleint*, unsigned int) {}

} // namespace

const asrcKernel asrcKernelPlain = {
    "plain",
    splitNothing,
    {{asrcRead<PlainEngine<1>, 1>, asrcRead<PlainEngine<1>, 1>},
     {asrcRead<PlainEngine<2>, 2>, asrcRead<PlainEngine<2>, 2>}},
};
