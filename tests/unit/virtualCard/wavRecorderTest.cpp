#include "wavRecorder.h"

#include "temporaryDirectory.h"

#include <cerrno>
#include <gtest/gtest.h>

using namespace vcard;

namespace
{

const WavFormat s16Stereo{48000, 2, 2};
const std::string header16(uint32_t dataBytes)
{
    unsigned char bytes[wavHeaderBytes];
    makeWavHeader(s16Stereo, dataBytes, bytes);
    return {reinterpret_cast<const char*>(bytes), wavHeaderBytes};
}

} // namespace

TEST(WavHeader, BytesOfAnS32StereoFile)
{
    unsigned char bytes[wavHeaderBytes];
    makeWavHeader({48000, 2, 4}, 0x01020304, bytes);
    const std::string expected("RIFF\x28\x03\x02\x01WAVEfmt \x10\0\0\0\x01\0\x02\0\x80\xBB\0\0\0\xDC\x05\0\x08\0\x20\0"
                               "data\x04\x03\x02\x01",
                               wavHeaderBytes);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(bytes), wavHeaderBytes), expected);
}

TEST(WavHeader, MostDataBytesFillTheRiffSize)
{
    unsigned char bytes[wavHeaderBytes];
    makeWavHeader(s16Stereo, static_cast<uint32_t>(wavMostDataBytes), bytes);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(bytes) + 4, 4), "\xFF\xFF\xFF\xFF");
}

TEST(WavRecorder, NewFileIsAValidEmptyWav)
{
    TemporaryDirectory directory;
    WavRecorder recorder;
    ASSERT_EQ(recorder.open(directory.path, "0-0", s16Stereo, UINT64_MAX), 0);
    EXPECT_EQ(recorder.path(), directory.file("0-0-0001.wav"));
    EXPECT_EQ(directory.content("0-0-0001.wav"), header16(0));
}

TEST(WavRecorder, FileIsValidAfterEachAppendWithoutClose)
{
    TemporaryDirectory directory;
    WavRecorder recorder;
    ASSERT_EQ(recorder.open(directory.path, "0-0", s16Stereo, UINT64_MAX), 0);
    ASSERT_EQ(recorder.append("abcdefgh", 2), 0);
    EXPECT_EQ(directory.content("0-0-0001.wav"), header16(8) + "abcdefgh");
    ASSERT_EQ(recorder.append("ijkl", 1), 0);
    EXPECT_EQ(directory.content("0-0-0001.wav"), header16(12) + "abcdefghijkl");
}

TEST(WavRecorder, SilenceIsZeros)
{
    TemporaryDirectory directory;
    WavRecorder recorder;
    ASSERT_EQ(recorder.open(directory.path, "0-0", s16Stereo, UINT64_MAX), 0);
    recorder.append("abcd", 1);
    recorder.appendSilence(2);
    recorder.append("efgh", 1);
    EXPECT_EQ(directory.content("0-0-0001.wav"), header16(16) + "abcd" + std::string(8, '\0') + "efgh");
}

TEST(WavRecorder, RollsOverAtWholeFramesAndLosesNothing)
{
    TemporaryDirectory directory;
    WavRecorder recorder;
    ASSERT_EQ(recorder.open(directory.path, "0-0", s16Stereo, 11), 0); // 11 bytes hold 2 frames of 4
    recorder.append("aaaabbbbccccdddd", 4);
    recorder.appendSilence(1);
    EXPECT_EQ(directory.content("0-0-0001.wav"), header16(8) + "aaaabbbb");
    EXPECT_EQ(directory.content("0-0-0001-2.wav"), header16(8) + "ccccdddd");
    EXPECT_EQ(directory.content("0-0-0001-3.wav"), header16(4) + std::string(4, '\0'));
    EXPECT_EQ(recorder.path(), directory.file("0-0-0001-3.wav"));
}

TEST(WavRecorder, NeverOverwritesARecording)
{
    TemporaryDirectory directory;
    directory.write("0-0-0001.wav", "old");
    WavRecorder recorder;
    ASSERT_EQ(recorder.open(directory.path, "0-0", s16Stereo, UINT64_MAX), 0);
    EXPECT_EQ(recorder.path(), directory.file("0-0-0002.wav"));
    EXPECT_EQ(directory.content("0-0-0001.wav"), "old");
}

TEST(WavRecorder, MissingDirectoryIsAnErrorAndRecordsNothing)
{
    TemporaryDirectory directory;
    WavRecorder recorder;
    EXPECT_EQ(recorder.open(directory.file("none"), "0-0", s16Stereo, UINT64_MAX), -ENOENT);
    EXPECT_FALSE(recorder.isOpen());
    EXPECT_EQ(recorder.append("abcd", 1), 0);
}

TEST(WavRecorder, FailedRollOverEndsTheRecordingAndKeepsTheFile)
{
    TemporaryDirectory directory;
    WavRecorder recorder;
    ASSERT_EQ(recorder.open(directory.path, "0-0", s16Stereo, 4), 0);
    ASSERT_EQ(recorder.append("abcd", 1), 0);
    directory.write("0-0-0001-2.wav", "in the way");
    EXPECT_EQ(recorder.append("efgh", 1), -EEXIST);
    EXPECT_FALSE(recorder.isOpen());
    EXPECT_EQ(directory.content("0-0-0001.wav"), header16(4) + "abcd");
}
