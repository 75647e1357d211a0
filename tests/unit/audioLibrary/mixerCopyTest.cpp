#include "audioLibrary/mixerCopy.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <gmock/gmock.h>
#include <vector>

using namespace audioLibrarySpace;
using testing::ElementsAre;

namespace
{

template <typename Sample>
std::vector<int32_t> added(std::vector<int32_t> ring, const std::vector<Sample>& input, int numToCopy)
{
    EXPECT_EQ(mixerCopyAndAdd(4, sizeof(Sample), numToCopy, reinterpret_cast<char*>(ring.data()),
                              reinterpret_cast<const char*>(input.data()), static_cast<unsigned int>(input.size())),
              MIXER_COPY_DONE);
    return ring;
}

/** The rows in so many words: one sample, one cell. */
int32_t literalSum(int32_t cell, int inputBytes, int64_t sample)
{
    int64_t sum = 0;
    if (inputBytes == 2) {
        sum = int64_t{cell} + sample * 65536;
    } else {
        const uint32_t widened = inputBytes == 1 ? static_cast<uint32_t>(sample) << 24 : static_cast<uint32_t>(sample);
        sum = static_cast<int32_t>(static_cast<uint32_t>(cell) + widened);
    }
    if (sum < -int64_t{0x7FFFFFFF}) {
        return -0x7FFFFFFF;
    }
    if (sum > 0x7FFFFFFF) {
        return 0x7FFFFFFF;
    }
    return static_cast<int32_t>(sum);
}

template <typename Sample>
std::vector<int32_t> literallyAdded(std::vector<int32_t> ring, const std::vector<Sample>& input, size_t numToCopy)
{
    size_t cell = 0;
    for (const Sample sample : input) {
        const int32_t sum = literalSum(ring[cell], sizeof(Sample), sample);
        for (size_t n = 0; n < numToCopy; n++) {
            ring[cell++] = sum;
        }
    }
    return ring;
}

const std::vector<int32_t> edgeCells = {0,           1,           -1,         2,           -2,          0x00FFFFFF,
                                        0x01000000,  -0x01000000, 0x7F000000, -0x7F000000, 0x7FFEFFFF,  0x7FFF0000,
                                        0x7FFF0001,  0x7FFFFFFE,  0x7FFFFFFF, -0x7FFEFFFF, -0x7FFF0000, -0x7FFF0001,
                                        -0x7FFFFFFF, INT32_MIN,   0x40000000, -0x40000000, 0x3FFFFFFF,  -0x3FFFFFFF};

template <typename Sample> std::vector<Sample> edgeSamples()
{
    if constexpr (sizeof(Sample) == 4) {
        return {edgeCells.begin(), edgeCells.end()};
    } else if constexpr (sizeof(Sample) == 2) {
        return {0, 1, -1, 255, 256, 16383, 16384, -16384, 32766, 32767, -32766, -32767, -32768};
    } else {
        return {0, 1, 2, 63, 64, 127, 128, 129, 191, 192, 254, 255};
    }
}

/** Every cell with every sample, at every length up to a few vectors, and at an odd address. */
template <typename Sample> void compareWithLiteralForm(int numToCopy)
{
    std::vector<int32_t> cells;
    std::vector<Sample> samples;
    for (const Sample sample : edgeSamples<Sample>()) {
        for (const int32_t cell : edgeCells) {
            samples.push_back(sample);
            cells.push_back(cell);
            // What stands in the other cells of a sample has no say.
            cells.resize(cells.size() + static_cast<size_t>(numToCopy) - 1, 0x5A5A5A5A);
        }
    }
    ASSERT_EQ(added(cells, samples, numToCopy), literallyAdded(cells, samples, static_cast<size_t>(numToCopy)));

    for (size_t length = 0; length <= 37; length++) {
        const std::vector<Sample> some(samples.end() - static_cast<std::ptrdiff_t>(length), samples.end());
        ASSERT_EQ(added(cells, some, numToCopy), literallyAdded(cells, some, static_cast<size_t>(numToCopy))) << length;
    }

    std::vector<char> oddRing(cells.size() * 4 + 1), oddInput(samples.size() * sizeof(Sample) + 1);
    std::memcpy(oddRing.data() + 1, cells.data(), cells.size() * 4);
    std::memcpy(oddInput.data() + 1, samples.data(), samples.size() * sizeof(Sample));
    mixerCopyAndAdd(4, sizeof(Sample), numToCopy, oddRing.data() + 1, oddInput.data() + 1,
                    static_cast<unsigned int>(samples.size()));
    const auto expected = literallyAdded(cells, samples, static_cast<size_t>(numToCopy));
    ASSERT_EQ(std::memcmp(oddRing.data() + 1, expected.data(), expected.size() * 4), 0);
}

} // namespace

TEST(MixerCopy, EightBitSamplesAreUnsignedAndWrap)
{
    // 1 is 0x01000000, 128 is 0x80000000, 255 is 0xFF000000 = -0x01000000
    EXPECT_THAT(added<uint8_t>({5, 0x7F000000, 0x10, 0x00000003}, {1, 1, 255, 128}, 1),
                ElementsAre(0x01000005, -0x7FFFFFFF, -0x00FFFFF0, -0x7FFFFFFD));
}

TEST(MixerCopy, SixteenBitSamplesAreSignedAndSaturateAtBothSymmetricEnds)
{
    EXPECT_THAT(
        added<int16_t>({7, 7, 0x7FFF0000, 0x00010000, -0x7FFF0000, -0x00010000}, {1, -1, 1, 32767, -1, -32768}, 1),
        ElementsAre(0x00010007, -0x0000FFF9, 0x7FFFFFFF, 0x7FFFFFFF, -0x7FFFFFFF, -0x7FFFFFFF));
}

TEST(MixerCopy, TwoSixteenBitFullScaleInputsNeverGiveTheLowestNumber)
{
    // One lowest sample onto a cleared cell is 0x80000000 already, and is lifted to 0x80000001.
    EXPECT_THAT(added<int16_t>({0}, {-32768}, 1), ElementsAre(-0x7FFFFFFF));
    EXPECT_THAT(added<int16_t>(added<int16_t>({0}, {-32768}, 1), {-32768}, 1), ElementsAre(-0x7FFFFFFF));
    EXPECT_THAT(added<int16_t>(added<int16_t>({0}, {32767}, 1), {32767}, 1), ElementsAre(0x7FFFFFFF));
}

TEST(MixerCopy, ThirtyTwoBitSamplesWrap)
{
    EXPECT_THAT(added<int32_t>({0x7FFFFFFF, -0x7FFFFFFF, 100, 0x7FFFFFFF, 0}, {2, -4, -300, 1, INT32_MIN}, 1),
                ElementsAre(-0x7FFFFFFF, 0x7FFFFFFD, -200, -0x7FFFFFFF, -0x7FFFFFFF));
}

TEST(MixerCopy, MonoSampleFormsItsSumWithTheFirstCellAndOverwritesTheOther)
{
    EXPECT_THAT(added<int16_t>({10, 999, 20, 888}, {1, 2}, 2), ElementsAre(65546, 65546, 131092, 131092));
    EXPECT_THAT(added<int32_t>({10, 999, 20, 888}, {1, 2}, 2), ElementsAre(11, 11, 22, 22));
    EXPECT_THAT(added<uint8_t>({10, 999, 20, 888}, {0, 1}, 2), ElementsAre(10, 10, 0x01000014, 0x01000014));
    EXPECT_THAT(added<int32_t>({1, 2, 3, 4, 5, 6}, {10, 20}, 3), ElementsAre(11, 11, 11, 24, 24, 24));
}

TEST(MixerCopy, NothingIsStoredForNoCellsToASample)
{
    EXPECT_THAT(added<int16_t>({1, 2}, {5, 6}, 0), ElementsAre(1, 2));
    EXPECT_THAT(added<int32_t>({1, 2}, {5, 6}, -1), ElementsAre(1, 2));
}

TEST(MixerCopy, SixteenBitRingStoresTheFirstSampleAndAddsNothing)
{
    std::array<int16_t, 4> ring = {100, 101, 102, 103};
    const std::array<int16_t, 3> input = {7, 8, 9};
    EXPECT_EQ(
        mixerCopyAndAdd(2, 2, 2, reinterpret_cast<char*>(ring.data()), reinterpret_cast<const char*>(input.data()), 3),
        MIXER_COPY_DONE);
    EXPECT_THAT(ring, ElementsAre(7, 7, 102, 103));
}

TEST(MixerCopy, SixteenBitRingStoresNothingOfNoSamples)
{
    std::array<int16_t, 2> ring = {100, 101};
    EXPECT_EQ(mixerCopyAndAdd(2, 2, 1, reinterpret_cast<char*>(ring.data()), nullptr, 0), MIXER_COPY_DONE);
    EXPECT_THAT(ring, ElementsAre(100, 101));
}

TEST(MixerCopy, EveryOtherPairOfSizesIsRefusedWithNothingCopied)
{
    const std::array<int32_t, 2> input = {0x01020304, 0x05060708};
    for (int ringBytes = 0; ringBytes <= 5; ringBytes++) {
        for (int inputBytes = -1; inputBytes <= 8; inputBytes++) {
            const bool exists = (ringBytes == 4 && (inputBytes == 1 || inputBytes == 2 || inputBytes == 4)) ||
                                (ringBytes == 2 && inputBytes == 2);
            if (exists) {
                continue;
            }
            std::array<int32_t, 2> ring = {11, 12};
            const bool knownInput = inputBytes >= 1 && inputBytes <= 4; // three bytes are blamed on the ring
            EXPECT_EQ(mixerCopyAndAdd(ringBytes, inputBytes, 1, reinterpret_cast<char*>(ring.data()),
                                      reinterpret_cast<const char*>(input.data()), 1),
                      knownInput ? MIXER_COPY_RING_REFUSED : MIXER_COPY_INPUT_REFUSED)
                << ringBytes << " " << inputBytes;
            EXPECT_THAT(ring, ElementsAre(11, 12)) << ringBytes << " " << inputBytes;
        }
    }
}

TEST(MixerCopy, EightBitRowEqualsTheLiteralForm)
{
    compareWithLiteralForm<uint8_t>(1);
    compareWithLiteralForm<uint8_t>(2);
    compareWithLiteralForm<uint8_t>(3);
}

TEST(MixerCopy, SixteenBitRowEqualsTheLiteralForm)
{
    compareWithLiteralForm<int16_t>(1);
    compareWithLiteralForm<int16_t>(2);
    compareWithLiteralForm<int16_t>(6);
}

TEST(MixerCopy, ThirtyTwoBitRowEqualsTheLiteralForm)
{
    compareWithLiteralForm<int32_t>(1);
    compareWithLiteralForm<int32_t>(2);
    compareWithLiteralForm<int32_t>(5);
}
