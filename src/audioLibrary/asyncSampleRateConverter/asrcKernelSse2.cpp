// asyncSampleRateConverter/asrcKernelSse2
// The form for every 64-bit x86 processor: SSE2 is part of that architecture.

#include "audioLibrary/asyncSampleRateConverter/asrcKernels.h"

#if defined(__SSE2__)

#include "audioLibrary/asyncSampleRateConverter/asrcReadLoop.h"

#include <cstring>
#include <emmintrin.h>

namespace
{

using Row = sampleint[kAsrcTaps];

/** The 32 coefficients of one phase, oldest frame first. */
struct Filter {
    __m128i part[4];
};

inline __m128i loadAligned(const sampleint* from)
{
    return _mm_load_si128(reinterpret_cast<const __m128i*>(from));
}
inline __m128i loadAnywhere(const sampleint* from)
{
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(from));
}

/**
 * Between two phases at most 16383 apart: here + w * step / 256, truncated towards zero.
 *
 * The product of 2 * step and 128 * w is 256 * w * step. Its high word is floor(w * step / 256), and its low word is not
 * 0 exactly where that division left a remainder. The floor is one too low where the result is negative and has one.
 */
class MultiplyHigh
{
public:
    explicit MultiplyHigh(unsigned int weight) : scaledWeight(_mm_set1_epi16(static_cast<short>(weight << 7))) {}

    __m128i between(const sampleint* here, const sampleint* next) const
    {
        const __m128i start = loadAligned(here);
        const __m128i step = _mm_sub_epi16(loadAligned(next), start);
        const __m128i twice = _mm_add_epi16(step, step);
        const __m128i below = _mm_add_epi16(start, _mm_mulhi_epi16(twice, scaledWeight));
        const __m128i exact = _mm_cmpeq_epi16(_mm_mullo_epi16(twice, scaledWeight), _mm_setzero_si128());
        const __m128i minusOne = _mm_andnot_si128(exact, _mm_srai_epi16(below, 15));
        return _mm_sub_epi16(below, minusOne);
    }

private:
    __m128i scaledWeight;
};

/** Between any two phases: (256 - w) * here + w * next in 32 bits, divided by 256 towards zero. */
class MultiplyAdd
{
public:
    explicit MultiplyAdd(unsigned int weight)
        : weights(_mm_set1_epi32(static_cast<int>(256u - weight) | static_cast<int>(weight << 16)))
    {
    }

    __m128i between(const sampleint* here, const sampleint* next) const
    {
        const __m128i a = loadAligned(here);
        const __m128i b = loadAligned(next);
        return _mm_packs_epi32(weigh(_mm_unpacklo_epi16(a, b)), weigh(_mm_unpackhi_epi16(a, b)));
    }

private:
    __m128i weigh(__m128i pairs) const
    {
        const __m128i sum = _mm_madd_epi16(pairs, weights);
        // 255 is added to negative sums, so that the shift's floor becomes truncation
        return _mm_srai_epi32(_mm_add_epi32(sum, _mm_srli_epi32(_mm_srai_epi32(sum, 31), 24)), 8);
    }

    __m128i weights;
};

template <class Interpolation> inline Filter filterAt(const Row* row, unsigned int weight)
{
    const Interpolation interpolation(weight);
    return {{interpolation.between(row[0], row[1]), interpolation.between(row[0] + 8, row[1] + 8),
             interpolation.between(row[0] + 16, row[1] + 16), interpolation.between(row[0] + 24, row[1] + 24)}};
}

/** Four partial sums of one channel. Products and sums wrap in 32 bits, as they must. */
inline __m128i convolve(const sampleint* window, const Filter& filter)
{
    const __m128i older = _mm_add_epi32(_mm_madd_epi16(loadAnywhere(window), filter.part[0]),
                                        _mm_madd_epi16(loadAnywhere(window + 8), filter.part[1]));
    const __m128i newer = _mm_add_epi32(_mm_madd_epi16(loadAnywhere(window + 16), filter.part[2]),
                                        _mm_madd_epi16(loadAnywhere(window + 24), filter.part[3]));
    return _mm_add_epi32(older, newer);
}

/** Eight 16-bit values in reverse order. */
inline __m128i reverse(__m128i v)
{
    v = _mm_shufflelo_epi16(v, _MM_SHUFFLE(0, 1, 2, 3));
    v = _mm_shufflehi_epi16(v, _MM_SHUFFLE(0, 1, 2, 3));
    return _mm_shuffle_epi32(v, _MM_SHUFFLE(1, 0, 3, 2));
}

inline void storeReversed(const Filter& filter, sampleint* to)
{
    __m128i* out = reinterpret_cast<__m128i*>(to);
    _mm_storeu_si128(out, reverse(filter.part[3]));
    _mm_storeu_si128(out + 1, reverse(filter.part[2]));
    _mm_storeu_si128(out + 2, reverse(filter.part[1]));
    _mm_storeu_si128(out + 3, reverse(filter.part[0]));
}

template <class Interpolation> class MonoEngine
{
public:
    explicit MonoEngine(const asrcObject& object) : ring(object.InputBuffer) {}

    void makeFrame(const Row* row, unsigned int weight, unsigned int firstFrame, sampleint* out) const
    {
        __m128i sum = convolve(ring + firstFrame, filterAt<Interpolation>(row, weight));
        sum = _mm_add_epi32(sum, _mm_unpackhi_epi64(sum, sum));
        sum = _mm_add_epi32(sum, _mm_shuffle_epi32(sum, _MM_SHUFFLE(1, 1, 1, 1)));
        *out = static_cast<sampleint>(static_cast<uint16_t>(static_cast<uint32_t>(_mm_cvtsi128_si32(sum)) >> 15));
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
    explicit StereoEngine(const asrcObject& object) : leftPlane(object.planes[0]), rightPlane(object.planes[1]) {}

    void makeFrame(const Row* row, unsigned int weight, unsigned int firstFrame, sampleint* out) const
    {
        const Filter filter = filterAt<Interpolation>(row, weight);
        const __m128i left = convolve(leftPlane + firstFrame, filter);
        const __m128i right = convolve(rightPlane + firstFrame, filter);
        // left and right alternate from here on, so one reduction serves both
        __m128i sum = _mm_add_epi32(_mm_unpacklo_epi32(left, right), _mm_unpackhi_epi32(left, right));
        sum = _mm_add_epi32(sum, _mm_unpackhi_epi64(sum, sum));
        // bits 15 to 30 of both sums, side by side: one store of a frame
        sum = _mm_shufflelo_epi16(_mm_slli_epi32(sum, 1), _MM_SHUFFLE(3, 3, 3, 1));
        const int frame = _mm_cvtsi128_si32(sum);
        std::memcpy(out, &frame, sizeof frame);
    }

    void storeFilter(const Row* row, unsigned int weight, sampleint* filter) const
    {
        storeReversed(filterAt<Interpolation>(row, weight), filter);
    }

private:
    const sampleint* leftPlane;
    const sampleint* rightPlane;
};

/** Eight frames at a time: each 32-bit lane is a frame, its low half the left sample. */
void splitFrames(const sampleint* frames, sampleint* left, sampleint* right, unsigned int nFrames)
{
    unsigned int i = 0;
    for (; i + 8 <= nFrames; i += 8) {
        const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(frames + 2 * i));
        const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(frames + 2 * i + 8));
        const __m128i lowHalves =
            _mm_packs_epi32(_mm_srai_epi32(_mm_slli_epi32(a, 16), 16), _mm_srai_epi32(_mm_slli_epi32(b, 16), 16));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(left + i), lowHalves);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(right + i),
                         _mm_packs_epi32(_mm_srai_epi32(a, 16), _mm_srai_epi32(b, 16)));
    }
    for (; i < nFrames; ++i) {
        left[i] = frames[2 * i];
        right[i] = frames[2 * i + 1];
    }
}

constexpr asrcKernel kernel = {
    "SSE2",
    splitFrames,
    {{asrcRead<MonoEngine<MultiplyAdd>, 1>, asrcRead<MonoEngine<MultiplyHigh>, 1>},
     {asrcRead<StereoEngine<MultiplyAdd>, 2>, asrcRead<StereoEngine<MultiplyHigh>, 2>}},
};

} // namespace

const asrcKernel* asrcKernelSse2()
{
    return &kernel;
}

#else

const asrcKernel* asrcKernelSse2()
{
    return nullptr;
}

#endif
