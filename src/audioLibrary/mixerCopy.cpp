/**
 * The sample loops: plain buffers in and out, on any thread.
 */

#include "audioLibrary/mixerCopy.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace audioLibrarySpace
{

namespace
{

// memcpy because the buffers are bytes of any alignment; the compiler makes one load or store of it, or a vector.
template <typename T> T load(const char* from)
{
    T value;
    std::memcpy(&value, from, sizeof value);
    return value;
}

template <typename T> void store(char* to, T value)
{
    std::memcpy(to, &value, sizeof value);
}

/** 0x80000000 has no positive counterpart and becomes 0x80000001. */
int32_t symmetric(int32_t value)
{
    return std::max(value, -INT32_MAX);
}

struct wrappingSum {
    int32_t operator()(int32_t a, int32_t b) const
    {
        return symmetric(static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b)));
    }
};

/**
 * Equals the 64-bit sum clamped to -0x7FFFFFFF..0x7FFFFFFF, without the widening: in this form the compiler turns the
 * loop into vector instructions, about four times the speed with SSE2.
 */
struct saturatingSum {
    int32_t operator()(int32_t a, int32_t b) const
    {
        const int32_t sum = static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
        const int32_t overflow = ~(a ^ b) & (a ^ sum); // negative where both had the sign that the sum lacks
        const int32_t limit = (a >> 31) ^ INT32_MAX;   // the end of the range on a's side
        return symmetric(overflow < 0 ? limit : sum);
    }
};

struct widen8 {
    using sample = uint8_t;
    int32_t operator()(sample s) const { return static_cast<int32_t>(static_cast<uint32_t>(s) << 24); }
};

struct widen16 {
    using sample = int16_t;
    int32_t operator()(sample s) const { return static_cast<int32_t>(s) * 65536; }
};

struct take32 {
    using sample = int32_t;
    int32_t operator()(sample s) const { return s; }
};

constexpr size_t cellBytes = sizeof(int32_t);

/** The loop of a 32-bit ring. Inlined, so that each constant count of cells gets a vector loop of its own. */
template <typename Widen, typename Sum>
[[gnu::always_inline]] inline void addSamples(char* __restrict dst, const char* __restrict src, size_t nSamples,
                                              size_t cellsPerSample)
{
    for (size_t i = 0; i < nSamples; i++) {
        const int32_t sample = Widen{}(load<typename Widen::sample>(src + i * sizeof(typename Widen::sample)));
        char* cell = dst + i * cellsPerSample * cellBytes;
        const int32_t sum = Sum{}(load<int32_t>(cell), sample);
        for (size_t n = 0; n < cellsPerSample; n++) {
            store(cell + n * cellBytes, sum);
        }
    }
}

template <typename Widen, typename Sum> void addRow(char* dst, const char* src, unsigned int nSamples, int numToCopy)
{
    if (numToCopy == 1) {
        addSamples<Widen, Sum>(dst, src, nSamples, 1);
    } else if (numToCopy == 2) {
        addSamples<Widen, Sum>(dst, src, nSamples, 2);
    } else if (numToCopy > 2) {
        addSamples<Widen, Sum>(dst, src, nSamples, static_cast<size_t>(numToCopy));
    }
}

/** A 16-bit ring carries no audio: one sample is stored, whatever nSamples says beyond the first. */
void storeFirst16(char* dst, const char* src, unsigned int nSamples, int numToCopy)
{
    if (nSamples == 0) {
        return;
    }
    const int16_t sample = load<int16_t>(src);
    for (int n = 0; n < numToCopy; n++) {
        store(dst + static_cast<size_t>(n) * sizeof sample, sample);
    }
}

} // namespace

mixerCopyResult mixerCopyAndAdd(int ringBytes, int inputBytes, int numToCopy, char* dst, const char* src,
                                unsigned int nSamples)
{
    // A three-byte input is no known size either, but it is the ring's size that is blamed for it.
    if (inputBytes < 1 || inputBytes > 4) {
        return MIXER_COPY_INPUT_REFUSED;
    }
    if (ringBytes == 4 && inputBytes == 1) {
        addRow<widen8, wrappingSum>(dst, src, nSamples, numToCopy);
    } else if (ringBytes == 4 && inputBytes == 2) {
        addRow<widen16, saturatingSum>(dst, src, nSamples, numToCopy);
    } else if (ringBytes == 4 && inputBytes == 4) {
        addRow<take32, wrappingSum>(dst, src, nSamples, numToCopy);
    } else if (ringBytes == 2 && inputBytes == 2) {
        storeFirst16(dst, src, nSamples, numToCopy);
    } else {
        return MIXER_COPY_RING_REFUSED;
    }
    return MIXER_COPY_DONE;
}

} // namespace audioLibrarySpace
