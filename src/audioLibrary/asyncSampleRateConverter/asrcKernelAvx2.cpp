// asyncSampleRateConverter/asrcKernelAvx2
// The form for x86 processors with AVX2. The build compiles this file alone with -mavx2, so nothing outside the unnamed
// namespace may be an inline function that another file could come to share.

#include "audioLibrary/asyncSampleRateConverter/asrcKernels.h"

#if defined(__AVX2__)

#include "audioLibrary/asyncSampleRateConverter/asrcReadLoop.h"

#include <cstring>
#include <immintrin.h>

namespace
{

using Row = sampleint[kAsrcTaps];

/** The 32 coefficients of one phase, oldest frame first. */
struct Filter {
    __m256i older, newer;
};

inline __m256i loadAligned(const sampleint* from)
{
    return _mm256_load_si256(reinterpret_cast<const __m256i*>(from));
}
inline __m256i loadAnywhere(const sampleint* from)
{
    return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(from));
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
    explicit MultiplyHigh(unsigned int weight) : scaledWeight(_mm256_set1_epi16(static_cast<short>(weight << 7))) {}

    __m256i between(const sampleint* here, const sampleint* next) const
    {
        const __m256i start = loadAligned(here);
        const __m256i step = _mm256_sub_epi16(loadAligned(next), start);
        const __m256i twice = _mm256_add_epi16(step, step);
        const __m256i below = _mm256_add_epi16(start, _mm256_mulhi_epi16(twice, scaledWeight));
        const __m256i remainder = _mm256_mullo_epi16(twice, scaledWeight);
        // the sign bit as 1, kept only where the unsigned remainder is at least 1
        const __m256i up = _mm256_min_epu16(_mm256_srli_epi16(below, 15), remainder);
        return _mm256_add_epi16(below, up);
    }

private:
    __m256i scaledWeight;
};

/** Between any two phases: (256 - w) * here + w * next in 32 bits, divided by 256 towards zero. */
class MultiplyAdd
{
public:
    explicit MultiplyAdd(unsigned int weight)
        : weights(_mm256_set1_epi32(static_cast<int>(256u - weight) | static_cast<int>(weight << 16)))
    {
    }

    __m256i between(const sampleint* here, const sampleint* next) const
    {
        const __m256i a = loadAligned(here);
        const __m256i b = loadAligned(next);
        // unpack and pack both work inside the 128-bit halves, so the order comes out as it went in
        return _mm256_packs_epi32(weigh(_mm256_unpacklo_epi16(a, b)), weigh(_mm256_unpackhi_epi16(a, b)));
    }

private:
    __m256i weigh(__m256i pairs) const
    {
        const __m256i sum = _mm256_madd_epi16(pairs, weights);
        // 255 is added to negative sums, so that the shift's floor becomes truncation
        return _mm256_srai_epi32(_mm256_add_epi32(sum, _mm256_srli_epi32(_mm256_srai_epi32(sum, 31), 24)), 8);
    }

    __m256i weights;
};

template <class Interpolation> inline Filter filterAt(const Row* row, unsigned int weight)
{
    const Interpolation interpolation(weight);
    return {interpolation.between(row[0], row[1]), interpolation.between(row[0] + 16, row[1] + 16)};
}

/** Eight partial sums of one channel. Products and sums wrap in 32 bits, as they must. */
inline __m256i convolve(const sampleint* window, const Filter& filter)
{
    return _mm256_add_epi32(_mm256_madd_epi16(loadAnywhere(window), filter.older),
                            _mm256_madd_epi16(loadAnywhere(window + 16), filter.newer));
}

/** Upper and lower half added. */
inline __m128i fold(__m256i sums)
{
    return _mm_add_epi32(_mm256_castsi256_si128(sums), _mm256_extracti128_si256(sums, 1));
}

/** Eight 16-bit values in reverse order. */
inline __m128i reverse(__m128i v)
{
    return _mm_shuffle_epi8(v, _mm_set_epi8(1, 0, 3, 2, 5, 4, 7, 6, 9, 8, 11, 10, 13, 12, 15, 14));
}

inline void storeReversed(const Filter& filter, sampleint* to)
{
    __m128i* out = reinterpret_cast<__m128i*>(to);
    _mm_storeu_si128(out, reverse(_mm256_extracti128_si256(filter.newer, 1)));
    _mm_storeu_si128(out + 1, reverse(_mm256_castsi256_si128(filter.newer)));
    _mm_storeu_si128(out + 2, reverse(_mm256_extracti128_si256(filter.older, 1)));
    _mm_storeu_si128(out + 3, reverse(_mm256_castsi256_si128(filter.older)));
}

template <class Interpolation> class MonoEngine
{
public:
    explicit MonoEngine(const asrcObject& object) : ring(object.InputBuffer) {}

    void makeFrame(const Row* row, unsigned int weight, unsigned int firstFrame, sampleint* out) const
    {
        __m128i sum = fold(convolve(ring + firstFrame, filterAt<Interpolation>(row, weight)));
        sum = _mm_add_epi32(sum, _mm_unpackhi_epi64(sum, sum));
        const auto total =
            static_cast<uint32_t>(_mm_cvtsi128_si32(sum)) + static_cast<uint32_t>(_mm_extract_epi32(sum, 1));
        *out = static_cast<sampleint>(static_cast<uint16_t>(total >> 15));
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
        const __m256i left = convolve(leftPlane + firstFrame, filter);
        const __m256i right = convolve(rightPlane + firstFrame, filter);
        // left and right alternate from here on, so one reduction serves both
        __m128i sum = fold(_mm256_add_epi32(_mm256_unpacklo_epi32(left, right), _mm256_unpackhi_epi32(left, right)));
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

/**
 * The entry points. g++ 12 puts no vzeroupper before a tail call, and 128-bit code after it runs several times slower;
 * so each of these clears the upper halves itself after the loop, on its way out.
 */
template <class Engine, unsigned int nChannels> void readFrames(asrcObject& object, unsigned int nFrames)
{
    asrcRead<Engine, nChannels>(object, nFrames);
    _mm256_zeroupper();
}

constexpr asrcKernel kernel = {
    "AVX2",
    splitFrames,
    {{readFrames<MonoEngine<MultiplyAdd>, 1>, readFrames<MonoEngine<MultiplyHigh>, 1>},
     {readFrames<StereoEngine<MultiplyAdd>, 2>, readFrames<StereoEngine<MultiplyHigh>, 2>}},
};

} // namespace

const asrcKernel* asrcKernelAvx2()
{
    return __builtin_cpu_supports("avx2") ? &kernel : nullptr;
}

#else

const asrcKernel* asrcKernelAvx2()
{
    return nullptr;
}

#endif
