#include "audioLibrary/audioTypes.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

namespace
{

using namespace audioLibrarySpace;

TEST(StreamStatus, NumbersAreFixed)
{
    EXPECT_EQ(STREAM_OK, 0);
    EXPECT_EQ(STREAM_ERROR, -1);
    EXPECT_EQ(FILE_NOT_FOUND, -2);
    EXPECT_EQ(INVALID_FORMAT, -3);
    EXPECT_EQ(PORT_CFG_ERROR, -4);
    EXPECT_EQ(INVALID_SERVER, -5);
    EXPECT_EQ(INVALID_SHOUTCAST_PLAYLIST, -6);
    EXPECT_EQ(INVALID_SHOUTCAST_HEADER, -7);
    EXPECT_EQ(NO_MEMORY, -8);
    EXPECT_EQ(INVALID_SHOUTCAST_PARAM, -9);
    EXPECT_EQ(CHAIN_ERROR_NO_PORT_AVAILABLE, -10);
    EXPECT_EQ(LOST_CONNECTION_TO_SERVER, -11);
    EXPECT_EQ(sizeof(streamStatus), 4U);
}

TEST(RunTimeId, NumbersAreFixed)
{
    // clang-format off
    const int inOrder[] = {
        INVALID_ID, TONE_GENERATOR, TONE_GENERATOR_USP, AUDIO_DEBUG_SCOPE, AUDIO_DEBUG_SCOPE_USP, AUDIO_DEBUG_SCOPE_DSP,
        NULL_SOURCE, NULL_SOURCE_DSP, ALSA_SOURCE, ALSA_SOURCE_DSP, MP3_FILE_PLAY, MP3_FILE_PLAY_USP,
        MP3_SHOUTCAST_PLAY, MP3_SHOUTCAST_PLAY_USP, WAV_FILE_PLAY, WAV_FILE_PLAY_USP, MIXER_FIFO, MIXER_FIFO_DSP,
        MIXER_FIFO_USP, AUDIO_CHAIN, SAMPLE_RATE_CONVERTER, SAMPLE_RATE_CONVERTER_USP, SAMPLE_RATE_CONVERTER_DSP,
        GAIN_CONTROL, GAIN_CONTROL_USP, GAIN_CONTROL_DSP, LIVEWIRE_PLAY_USP, LIVEWIRE_PLAY, SPS_CLIENT_DSP,
        SPS_CLIENT_USP, SPS_CLIENT, SMOOTH_CLIP, SMOOTH_CLIP_USP, SMOOTH_CLIP_DSP, LOOKAHEAD_AGC_DSP,
        LOOKAHEAD_AGC_USP, LOOKAHEAD_AGC, RTP_SOURCE, RTP_SOURCE_DSP};
    // clang-format on
    for (int i = 0; i <= 38; i++) {
        EXPECT_EQ(inOrder[i], i);
    }
    EXPECT_EQ(sizeof(runTimeId), 4U);
}

TEST(PlaybackState, NumbersAreFixed)
{
    EXPECT_EQ(AUDIO_PLAYING, 0);
    EXPECT_EQ(AUDIO_STOPPED, 1);
    EXPECT_EQ(AUDIO_PAUSED, 2);
    EXPECT_EQ(AUDIO_MUTED, 3);
    EXPECT_EQ(sizeof(playbackState), 4U);
}

TEST(PlaybackState, PortTextsBringTheirLineEnd)
{
    EXPECT_EQ(portStateText(AUDIO_PLAYING), "Playing\n");
    EXPECT_EQ(portStateText(AUDIO_STOPPED), "Stopped\n");
    EXPECT_EQ(portStateText(AUDIO_PAUSED), "Unknown\n");
    EXPECT_EQ(portStateText(AUDIO_MUTED), "Muted \n");
    EXPECT_EQ(portStateText(static_cast<playbackState>(4)), "Unknown\n");
    EXPECT_EQ(portStateText(static_cast<playbackState>(-1)), "Unknown\n");
}

TEST(SampleFormat, NumbersAreFixed)
{
    EXPECT_EQ(SAMPLE_UNKNOWN, 0);
    EXPECT_EQ(SAMPLE_S8BIT, 1);
    EXPECT_EQ(SAMPLE_S16BIT_LE, 2);
    EXPECT_EQ(SAMPLE_S16BIT_BE, 3);
    EXPECT_EQ(SAMPLE_S32BIT_LE, 4);
    EXPECT_EQ(SAMPLE_S32BIT_BE, 5);
    EXPECT_EQ(sizeof(sampleFormat_e), 4U);
}

TEST(SampleFormat, BytesOfOneSample)
{
    testing::internal::CaptureStderr();
    EXPECT_EQ(sampleFormatBytes(SAMPLE_S8BIT), 1U);
    EXPECT_EQ(sampleFormatBytes(SAMPLE_S16BIT_LE), 2U);
    EXPECT_EQ(sampleFormatBytes(SAMPLE_S16BIT_BE), 2U);
    EXPECT_EQ(sampleFormatBytes(SAMPLE_S32BIT_LE), 4U);
    EXPECT_EQ(sampleFormatBytes(SAMPLE_S32BIT_BE), 4U);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(SampleFormat, AnInvalidFormatIsToldOnStderrAndHasNoBytes)
{
    testing::internal::CaptureStderr();
    EXPECT_EQ(sampleFormatBytes(SAMPLE_UNKNOWN), 0U);
    EXPECT_EQ(sampleFormatBytes(static_cast<sampleFormat_e>(6)), 0U);
    EXPECT_EQ(sampleFormatBytes(static_cast<sampleFormat_e>(-3)), 0U);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "invalid sample format: 0\ninvalid sample format: 6\ninvalid sample format: -3\n");
}

TEST(SampleFormat, Texts)
{
    EXPECT_EQ(sampleFormatText(SAMPLE_UNKNOWN), "UNKOWN");
    EXPECT_EQ(sampleFormatText(SAMPLE_S8BIT), "UNKOWN");
    EXPECT_EQ(sampleFormatText(SAMPLE_S16BIT_LE), "SAMPLE_S16BIT_LE");
    EXPECT_EQ(sampleFormatText(SAMPLE_S16BIT_BE), "SAMPLE_S16BIT_BE");
    EXPECT_EQ(sampleFormatText(SAMPLE_S32BIT_LE), "SAMPLE_S32BIT_LE");
    EXPECT_EQ(sampleFormatText(SAMPLE_S32BIT_BE), "SAMPLE_S32BIT_BE");
    EXPECT_EQ(sampleFormatText(static_cast<sampleFormat_e>(6)), "UNKOWN");
}

TEST(PortParam, StatusNumbersAreFixed)
{
    EXPECT_EQ(VARIABLE, 0);
    EXPECT_EQ(FIXED, 1);
    EXPECT_EQ(INCOMPATIBLE, 2);
    EXPECT_EQ(sizeof(paramStatus_e), 4U);
}

TEST(PortParam, Defaults)
{
    const audioPortParam_t params;
    EXPECT_EQ(params.nominalSampleRateStatus, FIXED);
    EXPECT_EQ(params.nominalSampleRate, 48000.0F);
    EXPECT_EQ(params.trueSampleRateStatus, VARIABLE);
    EXPECT_EQ(params.trueSampleRate, 0.0F);
    EXPECT_EQ(params.numChannelsStatus, FIXED);
    EXPECT_EQ(params.numChannels, 2U);
    EXPECT_EQ(params.sampleFormatStatus, FIXED);
    EXPECT_EQ(params.sampleFormat, SAMPLE_S16BIT_LE);
    EXPECT_EQ(params.samplesInterleavedStatus, FIXED);
    EXPECT_TRUE(params.samplesInterleaved);
    EXPECT_EQ(params.periodSizeStatus, FIXED);
    EXPECT_EQ(params.periodSize, 512U);
}

TEST(PortParam, MergeAdoptsOnlyWhatIsVariable)
{
    uint32_t own = 2;
    EXPECT_TRUE(mergeParam(own, FIXED, 2U));
    EXPECT_FALSE(mergeParam(own, FIXED, 3U));
    EXPECT_FALSE(mergeParam(own, INCOMPATIBLE, 3U));
    EXPECT_EQ(own, 2U);
    EXPECT_TRUE(mergeParam(own, VARIABLE, 3U));
    EXPECT_EQ(own, 3U);
}

TEST(PortParam, MergeHasNoTolerance)
{
    float own = 48000.0F;
    EXPECT_FALSE(mergeParam(own, FIXED, std::nextafter(48000.0F, 0.0F)));
    EXPECT_EQ(own, 48000.0F);
}

TEST(NumberTexts, Formats)
{
    EXPECT_EQ(toString(7L), "  7");
    EXPECT_EQ(toString(-7L), " -7");
    EXPECT_EQ(toString(1234L), "1234");
    EXPECT_EQ(toString(7), "7");
    EXPECT_EQ(toString(-7), "-7");
    EXPECT_EQ(toString(7U), "7");
    EXPECT_EQ(toString(4294967295U), "4294967295");
    EXPECT_EQ(toString(1.5F), "1.500000");
    EXPECT_EQ(toString(-48000.0F), "-48000.000000");
}

TEST(NumberTexts, ADoubleIsNarrowedFirst)
{
    // 0.1F is 0.100000001490116; 16777217 has no float of its own.
    EXPECT_EQ(toString(16777217.0), "16777216.000000");
}

TEST(NumberTexts, AreCutAtThirtyCharacters)
{
    // 3.4028234663852886e38 has 39 digits ahead of the point.
    EXPECT_EQ(toString(std::numeric_limits<float>::max()), "340282346638528859811704183484");
}

TEST(Saturating, CutsTowardZero)
{
    EXPECT_EQ(saturatingToInt(1.999F), 1);
    EXPECT_EQ(saturatingToInt(-1.999F), -1);
    EXPECT_EQ(saturatingToInt(1.999), 1);
    EXPECT_EQ(saturatingToInt(-1.999), -1);
    EXPECT_EQ(saturatingToUnsigned(1.999F), 1U);
    EXPECT_EQ(saturatingToUnsigned(1.999), 1U);
    EXPECT_EQ(saturatingToUnsigned(-0.999F), 0U);
}

TEST(Saturating, HoldsAtBothEdges)
{
    EXPECT_EQ(saturatingToInt(2147483648.0F), 2147483647);
    EXPECT_EQ(saturatingToInt(2147483520.0F), 2147483520); // the largest float below the edge
    EXPECT_EQ(saturatingToInt(-2147483648.0F), std::numeric_limits<int32_t>::min());
    EXPECT_EQ(saturatingToInt(-3e9F), std::numeric_limits<int32_t>::min());
    EXPECT_EQ(saturatingToInt(2147483646.5), 2147483646);
    EXPECT_EQ(saturatingToInt(-2147483647.5), -2147483647);
    EXPECT_EQ(saturatingToInt(1e300), 2147483647);
    EXPECT_EQ(saturatingToUnsigned(4294967296.0F), 4294967295U);
    EXPECT_EQ(saturatingToUnsigned(4294967040.0F), 4294967040U); // the largest float below the edge
    EXPECT_EQ(saturatingToUnsigned(-1.0F), 0U);
    EXPECT_EQ(saturatingToUnsigned(4294967294.5), 4294967294U);
    EXPECT_EQ(saturatingToUnsigned(-1e300), 0U);
    EXPECT_EQ(saturatingToUnsigned(std::numeric_limits<float>::infinity()), 4294967295U);
    EXPECT_EQ(saturatingToInt(-std::numeric_limits<float>::infinity()), std::numeric_limits<int32_t>::min());
}

TEST(Saturating, NotANumberIsZero)
{
    EXPECT_EQ(saturatingToInt(std::numeric_limits<float>::quiet_NaN()), 0);
    EXPECT_EQ(saturatingToInt(std::numeric_limits<double>::quiet_NaN()), 0);
    EXPECT_EQ(saturatingToUnsigned(std::numeric_limits<float>::quiet_NaN()), 0U);
    EXPECT_EQ(saturatingToUnsigned(std::numeric_limits<double>::quiet_NaN()), 0U);
}

TEST(SaturatingDecimal, ReadsADecimalNumberAndStopsAtTheFirstOtherCharacter)
{
    EXPECT_EQ(saturatingDecimal("42"), 42);
    EXPECT_EQ(saturatingDecimal("  -7x"), -7);
    EXPECT_EQ(saturatingDecimal("0x10"), 0);
    EXPECT_EQ(saturatingDecimal(""), 0);
    EXPECT_EQ(saturatingDecimal("ten"), 0);
}

TEST(SaturatingDecimal, EndsWhereTheTargetsLongEnds)
{
    EXPECT_EQ(saturatingDecimal("2147483647"), 2147483647);
    EXPECT_EQ(saturatingDecimal("2147483648"), 2147483647);
    EXPECT_EQ(saturatingDecimal("99999999999999999999"), 2147483647);
    EXPECT_EQ(saturatingDecimal("-2147483648"), -2147483647 - 1);
    EXPECT_EQ(saturatingDecimal("-2147483649"), -2147483647 - 1);
}

} // namespace
