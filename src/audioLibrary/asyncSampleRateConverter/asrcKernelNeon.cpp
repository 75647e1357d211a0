// asyncSampleRateConverter/asrcKernelNeon
// The form for ARM processors with NEON, in 32-bit and in 64-bit mode: where the compiler may use it, so may we.

#include "audioLibrary/asyncSampleRateConverter/asrcKernels.h"

#if defined(__ARM_NEON)

#include "audioLibrary/asyncSampleRateConverter/asrcReadLoop.h"

#include <arm_neon.h>

namespace
{

using Row = sampleint[kAsrcTaps];

/** The 32 coefficients of one phase, oldest frame first. */
struct Filter {
    int16x8_t part[4];
};

/**
 * Between two phases at most 16383 apart: here + w * step / 256, truncated towards zero.
 *
 * The doubling multiply of 2 * step and 64 * w gives 256 * w * step. Its high word is floor(w * step / 256), and the low
 * word of the plain product of 2 * step and 128 * w is not 0 exactly where that division left a remainder. The floor is
 * one too low where the result is negative and has one. The doubling cannot saturate: 64 * w is below 2^15.
 */
class MultiplyHigh
{
public:
    explicit MultiplyHigh(unsigned int weight)
        : half(vdupq_n_s16(static_cast<int16_t>(weight << 6))), whole(vdupq_n_s16(static_cast<int16_t>(weight << 7)))
    {
    }

    int16x8_t between(const sampleint* here, const sampleint* next) const
    {
        const int16x8_t start = vld1q_s16(here);
        const int16x8_t step = vsubq_s16(vld1q_s16(next), start);
        const int16x8_t twice = vaddq_s16(step, step);
        const int16x8_t below = vaddq_s16(start, vqdmulhq_s16(twice, half));
        const uint16x8_t remains = vreinterpretq_u16_s16(vmulq_s16(twice, whole));
        // the sign bit as 1, kept only where the unsigned remainder is at least 1
        const uint16x8_t up = vminq_u16(vshrq_n_u16(vreinterpretq_u16_s16(below), 15), remains);
        return vaddq_s16(below, vreinterpretq_s16_u16(up));
    }

private:
    int16x8_t half, whole;
};

/** Between any two phases: (256 - w) * here + w * next in 32 bits, divided by 256 towards zero. */
class MultiplyAdd
{
public:
    explicit MultiplyAdd(unsigned int weight)
        : hereWeight(static_cast<int16_t>(256u - weight)), nextWeight(static_cast<int16_t>(weight))
    {
    }

    int16x8_t between(const sampleint* here, const sampleint* next) const
    {
        const int16x8_t a = vld1q_s16(here);
        const int16x8_t b = vld1q_s16(next);
        return vcombine_s16(weigh(vget_low_s16(a), vget_low_s16(b)), weigh(vget_high_s16(a), vget_high_s16(b)));
    }

private:
    int16x4_t weigh(int16x4_t here, int16x4_t next) const
    {
        const int32x4_t sum = vmlal_n_s16(vmull_n_s16(here, hereWeight), next, nextWeight);
        // 255 is added to negative sums, so that the shift's floor becomes truncation
        const uint32x4_t bias = vshrq_n_u32(vreinterpretq_u32_s32(vshrq_n_s32(sum, 31)), 24);
        return vshrn_n_s32(vaddq_s32(sum, vreinterpretq_s32_u32(bias)), 8);
    }

    int16_t hereWeight, nextWeight;
};

template <class Interpolation> inline Filter filterAt(const Row* row, unsigned int weight)
{
    const Interpolation interpolation(weight);
    return {{interpolation.between(row[0], row[1]), interpolation.between(row[0] + 8, row[1] + 8),
             interpolation.between(row[0] + 16, row[1] + 16), interpolation.between(row[0] + 24, row[1] + 24)}};
}

/** Adds the products of eight frames of one channel to four partial sums. Both wrap in 32 bits, as they must. */
inline int32x4_t accumulate(int32x4_t sums, int16x8_t frames, int16x8_t filter)
{
    sums = vmlal_s16(sums, vget_low_s16(frames), vget_low_s16(filter));
    return vmlal_s16(sums, vget_high_s16(frames), vget_high_s16(filter));
}

/** The sum of the four parts, bits 15 to 30. */
inline sampleint outputSample(int32x4_t sums)
{
    int32x2_t pair = vadd_s32(vget_low_s32(sums), vget_high_s32(sums));
    pair = vpadd_s32(pair, pair);
    return static_cast<sampleint>(static_cast<uint16_t>(static_cast<uint32_t>(vget_lane_s32(pair, 0)) >> 15));
}

inline void storeReversed(const Filter& filter, sampleint* to)
{
    for (unsigned int i = 0; i < 4; ++i) {
        const int16x8_t inHalves = vrev64q_s16(filter.part[3 - i]);
        vst1q_s16(to + 8 * i, vcombine_s16(vget_high_s16(inHalves), vget_low_s16(inHalves)));
    }
}

template <class Interpolation> class MonoEngine
{
public:
    explicit MonoEngine(const asrcObject& object) : ring(object.InputBuffer) {}

    void makeFrame(const Row* row, unsigned int weight, unsigned int firstFrame, sampleint* out) const
    {
        const Filter filter = filterAt<Interpolation>(row, weight);
        const sampleint* window = ring + firstFrame;
        int32x4_t sums = vdupq_n_s32(0);
        for (unsigned int i = 0; i < 4; ++i)
            sums = accumulate(sums, vld1q_s16(window + 8 * i), filter.part[i]);
        *out = outputSample(sums);
    }

    void storeFilter(const Row* row, unsigned int weight, sampleint* filter) const
    {
        storeReversed(filterAt<Interpolation>(row, weight), filter);
    }

private:
    const sampleint* ring;
};

template <class Interpolation> class StereoEngine
{
public:
    explicit StereoEngine(const asrcObject& object) : ring(object.InputBuffer) {}

    void makeFrame(const Row* row, unsigned int weight, unsigned int firstFrame, sampleint* out) const
    {
        const Filter filter = filterAt<Interpolation>(row, weight);
        const sampleint* window = ring + 2 * firstFrame;
        int32x4_t left = vdupq_n_s32(0);
        int32x4_t right = vdupq_n_s32(0);
        for (unsigned int i = 0; i < 4; ++i) {
            const int16x8x2_t frames = vld2q_s16(window + 16 * i); // takes the channels apart on the way in
            left = accumulate(left, frames.val[0], filter.part[i]);
            right = accumulate(right, frames.val[1], filter.part[i]);
        }
        out[0] = outputSample(left);
        out[1] = outputSample(right);
    }

    void storeFilter(const Row* row, unsigned int weight, sampleint* filter) const
    {
        storeReversed(filterAt<Interpolation>(row, weight), filter);
    }

private:
    const sampleint* ring;
};

/** This form reads the interleaved ring itself. */
void splitNothing(const sampleint*, sampleint*, sampleint*, unsigned int) {}

constexpr asrcKernel kernel = {
    "NEON",
    splitNothing,
    {{asrcRead<MonoEngine<MultiplyAdd>, 1>, asrcRead<MonoEngine<MultiplyHigh>, 1>},
     {asrcRead<StereoEngine<MultiplyAdd>, 2>, asrcRead<StereoEngine<MultiplyHigh>, 2>}},
};

} // namespace

const asrcKernel* asrcKernelNeon()
{
    return &kernel;
}

#else

const asrcKernel* asrcKernelNeon()
{
    return nullptr;
}

#endif
