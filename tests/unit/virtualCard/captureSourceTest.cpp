#include "captureSource.h"

#include "temporaryDirectory.h"
#include "wavRecorder.h"

#include <cerrno>
#include <cmath>
#include <cstring>
#include <gtest/gtest.h>

using namespace vcard;

namespace
{

/** A stereo file whose left samples are @p left and whose right samples are their negatives. */
std::string wavOf(const std::vector<int16_t>& left)
{
    unsigned char header[wavHeaderBytes];
    makeWavHeader({44100, 2, 2}, static_cast<uint32_t>(left.size() * 4), header);
    std::string bytes(reinterpret_cast<char*>(header), sizeof header);
    for (const int16_t sample : left) {
        const int16_t frame[2] = {sample, static_cast<int16_t>(-sample)};
        bytes.append(reinterpret_cast<const char*>(frame), sizeof frame);
    }
    return bytes;
}

template <typename Sample>
std::vector<Sample> filled(const CaptureSource& source, uint64_t first, uint64_t frames, unsigned channels = 2)
{
    std::vector<Sample> samples(static_cast<size_t>(frames * channels));
    source.fill(reinterpret_cast<char*>(samples.data()), first, frames, channels, sizeof(Sample), 48000.0);
    return samples;
}

} // namespace

TEST(CaptureSource, WavIsLoopedByFrameNumberBitForBit)
{
    TemporaryDirectory directory;
    directory.write("in.wav", wavOf({1, -32767, 3}));
    CaptureSource source;
    ASSERT_EQ(source.loadWav(directory.file("in.wav")), 0);
    EXPECT_EQ(source.fileRateHz(), 44100U);
    EXPECT_EQ(filled<int16_t>(source, 1, 3), (std::vector<int16_t>{-32767, 32767, 3, -3, 1, -1}));
    EXPECT_EQ(filled<int16_t>(source, 3000000000001ULL, 1), (std::vector<int16_t>{-32767, 32767}));
}

TEST(CaptureSource, SixteenBitsAreShiftedUpToThirtyTwo)
{
    TemporaryDirectory directory;
    directory.write("in.wav", wavOf({-2}));
    CaptureSource source;
    ASSERT_EQ(source.loadWav(directory.file("in.wav")), 0);
    EXPECT_EQ(filled<int32_t>(source, 0, 1), (std::vector<int32_t>{-131072, 131072}));
}

TEST(CaptureSource, OtherChunksAreSkipped)
{
    TemporaryDirectory directory;
    std::string bytes = wavOf({5});
    bytes.insert(36, std::string("LIST\x03\0\0\0abc\0", 12)); // odd length, padded
    directory.write("in.wav", bytes);
    CaptureSource source;
    ASSERT_EQ(source.loadWav(directory.file("in.wav")), 0);
    EXPECT_EQ(filled<int16_t>(source, 0, 1), (std::vector<int16_t>{5, -5}));
}

TEST(CaptureSource, BrokenFilesAreRefusedAndTheToneStays)
{
    TemporaryDirectory directory;
    CaptureSource source;
    EXPECT_EQ(source.loadWav(directory.file("none.wav")), -ENOENT);
    const std::string good = wavOf({1, 2});
    for (size_t length = 0; length < 48; ++length) {
        directory.write("in.wav", good.substr(0, length));
        EXPECT_EQ(source.loadWav(directory.file("in.wav")), -EINVAL) << length;
    }
    std::string huge = good;
    huge.replace(16, 4, "\xFF\xFF\xFF\xFF");
    directory.write("in.wav", huge);
    EXPECT_EQ(source.loadWav(directory.file("in.wav")), -EINVAL);
    EXPECT_EQ(filled<int16_t>(source, 0, 1), (std::vector<int16_t>{0, 0})); // a sine starts at 0
}

TEST(CaptureSource, ToneHasItsLevelAndFrequency)
{
    CaptureSource source;
    source.setTone(1000.0, -6.0206);
    const std::vector<int16_t> samples = filled<int16_t>(source, 0, 48, 1);
    EXPECT_EQ(samples[0], 0);
    EXPECT_NEAR(samples[12], 16384, 2); // a quarter of 48 frames
    EXPECT_NEAR(samples[36], -16384, 2);
    EXPECT_EQ(filled<int16_t>(source, 48000ULL * 86400, 48, 1), samples);
}
