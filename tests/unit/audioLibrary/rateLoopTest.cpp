/**
 * The rate loop with its real parts: a source, the converter on the real core, the mixer, and a reader in the card's
 * place. The filter is a single unit tap, so that samples can be followed by hand.
 */

#include "audioLibrary/allocationCounter.h"
#include "audioLibrary/literalBlocks.h"
#include "audioLibrary/mixerBlock.h"
#include "audioLibrary/ownDirectory.h"
#include "audioLibrary/sampleRateConverter.h"
#include "audioLibrary/wavFilePlay.h"
#include "audioLibrary/wavFiles.h"

#include <gmock/gmock.h>
#include <numeric>

using namespace audioLibrarySpace;
using namespace literal;
using testing::Contains;
using testing::HasSubstr;
using testing::Not;

namespace
{

class OpenMixer : public CMixer
{
public:
    using CMixer::CMixer;
    using CMixer::m_bufferSizeFrame;
    using CMixer::m_frameCount;
};

class OpenConverter : public CSampleRateConverter
{
public:
    using CSampleRateConverter::asrc;
    using CSampleRateConverter::asrcCfg;
    using CSampleRateConverter::CSampleRateConverter;
};

/** Tap 16 is all but unity at each of its phases: at equal rates, output n is input n + 15, scaled by 32767 / 32768. */
std::vector<short> singleTap()
{
    std::vector<short> table(8192, 0);
    std::fill_n(table.begin() + 16 * 256, 256, short{32767});
    return table;
}

audioPortParam_t card(uint32_t period)
{
    audioPortParam_t p = shape(48000.0F, 47982.0F, 2, SAMPLE_S32BIT_LE, period);
    p.trueSampleRateStatus = FIXED;
    return p;
}

/** Connected as the players do it: the mixer to the card first, then source, converter and mixer from the front. */
class RateLoop : public testing::Test
{
protected:
    OwnDirectory directory;
    OpenMixer mixer{"MUX", 180};
    OpenConverter converter{"RATE_CONVERTER"};
    Sink sink{card(256), "CARD"};
    CServiceTime next;

    void SetUp() override
    {
        directory.write("FilterCoeff.bin", singleTap());
        ASSERT_EQ(converter.init(), STREAM_OK);
        ASSERT_EQ(output().connectDownstream(&sink.port(), nullptr), STREAM_OK);
        output().startAudio();
    }
    CUpstreamPort& output() { return *mixer.getUpstreamPort(0); }
    CAudioPort& converterOut() { return *converter.getUpstreamPort(0); }
    CMixerDSP& mixerIn() { return *static_cast<CMixerDSP*>(mixer.getDownstreamPort(0)); }

    void connect(CUpstreamPort& source)
    {
        ASSERT_EQ(source.connectDownstream(converter.getDownstreamPort(0), nullptr), STREAM_OK);
        ASSERT_EQ(converter.getUpstreamPort(0)->connectDownstream(mixer.getNextDownstreamPort(), nullptr), STREAM_OK);
        source.startAudio();
        converter.getUpstreamPort(0)->startAudio();
        converter.getDownstreamPort(0)->startAudio();
        mixerIn().startAudio();
    }
    void pass()
    {
        ASSERT_EQ(converter.service(next), STREAM_OK);
        ASSERT_EQ(mixer.service(next), STREAM_OK);
    }
    /** One period as the card takes it; false if the ring had run dry. */
    bool takePeriod(std::vector<int32_t>* into = nullptr)
    {
        char* p = nullptr;
        unsigned int n = 0;
        output().reqReadPeriods(p, n);
        const bool dry = n == 23040; // half the ring, in frames
        if (into != nullptr) {
            std::vector<int32_t> samples(512);
            std::memcpy(samples.data(), p, 2048);
            into->insert(into->end(), samples.begin(), samples.end());
        }
        output().ackReadPeriods(1);
        return !dry;
    }
};

/** A WAV file whose left (or only) channel counts up from 1 and whose right one counts down from -1. */
std::string rampFile(uint16_t numChannels, uint32_t sampleRate, int frames)
{
    wavFiles::header header;
    header.numChannels = numChannels;
    header.sampleRate = sampleRate;
    wavFiles::bytes samples;
    for (int i = 1; i <= frames; i++) {
        wavFiles::put16(samples, static_cast<uint16_t>(i));
        if (numChannels == 2) {
            wavFiles::put16(samples, static_cast<uint16_t>(-i));
        }
    }
    wavFiles::bytes file = wavFiles::encode(header);
    wavFiles::putChunk(file, "data", samples);
    wavFiles::write("ramp.wav", file);
    return "ramp.wav";
}

} // namespace

TEST_F(RateLoop, AFileIsRateFixedAndNeverSteered)
{
    CWavFilePlay wav("WAV");
    ASSERT_EQ(wav.setNewFile(rampFile(2, 44100, 20000)), STREAM_OK);
    connect(*wav.getUpstreamPort(0));
    EXPECT_EQ(mixerIn().params.trueSampleRate, 0.0F);
    EXPECT_EQ(converterOut().params.trueSampleRate, 0.0F);
    Trace trace(9);
    pass();
    pass();
    const auto lines = trace.lines();
    EXPECT_THAT(lines, Contains("9 Rate Fixed, TrueSampleRate: 0.000000"));
    EXPECT_THAT(lines, Not(Contains(HasSubstr("Tracking rate"))));
    EXPECT_EQ(mixerIn().params.trueSampleRate, 0.0F);
    EXPECT_EQ(converterOut().params.trueSampleRate, 0.0F);
}

TEST_F(RateLoop, ASourceThatOffersItsTrueRateIsSteeredToTheCard)
{
    Source stream(shape(48000.0F, 48000.0F, 2, SAMPLE_S16BIT_LE, 240));
    stream.port().audio.resize(240 * 4 * 10);
    connect(stream.port());
    EXPECT_EQ(converterOut().params.trueSampleRate, 48000.0F);
    EXPECT_EQ(mixerIn().params.trueSampleRate, 48000.0F);
    Trace trace(5);
    pass(); // the mixer's first demand is the card's own rate
    EXPECT_EQ(mixerIn().params.trueSampleRate, 47982.0F);
    pass(); // 48000 / 47982 = 1.0003751
    EXPECT_EQ(converterOut().params.trueSampleRate, 47982.0F);
    EXPECT_THAT(trace.lines(), Contains("5 Tracking rate to   48000.000000 => 47982.000000    Ratio: 1.000375."));
}

TEST_F(RateLoop, AFileAtTheCardsNominalRateArrivesFrameByFrame)
{
    CWavFilePlay wav("WAV");
    ASSERT_EQ(wav.setNewFile(rampFile(2, 48000, 12000)), STREAM_OK);
    connect(*wav.getUpstreamPort(0));
    std::vector<int32_t> heard;
    for (int i = 0; i < 150; i++) {
        pass();
        ASSERT_TRUE(takePeriod(&heard));
    }
    // Half a ring of silence, the converter's cleared first period of 8192 frames, and 15 frames less for the window.
    // The tap of 32767 / 32768, rounded down, takes one off what is positive and nothing off what is negative.
    constexpr int silent = 23040 + 8192 - 15;
    for (int f = 0; f < 150 * 256; f++) {
        const int number = f < silent ? 0 : f - silent + 1;
        ASSERT_EQ(heard[static_cast<size_t>(2 * f)], (number > 0 ? number - 1 : 0) * 65536) << f;
        ASSERT_EQ(heard[static_cast<size_t>(2 * f) + 1], -number * 65536) << f;
    }
}

TEST_F(RateLoop, AMonoFileGetsAConverterOfOneChannelAndIsHeardOnBoth)
{
    CWavFilePlay wav("WAV");
    ASSERT_EQ(wav.setNewFile(rampFile(1, 48000, 12000)), STREAM_OK);
    const asrcHandle dropped = converter.asrc; // nobody destroys it
    connect(*wav.getUpstreamPort(0));
    EXPECT_EQ(converterOut().params.numChannels, 1U);
    EXPECT_EQ(mixerIn().params.numChannels, 1U);
    std::vector<int32_t> heard;
    for (int i = 0; i < 150; i++) {
        pass();
        ASSERT_TRUE(takePeriod(&heard));
    }
    EXPECT_EQ(converter.asrcCfg.nChannels, 1U);
    EXPECT_NE(converter.asrc, dropped);
    constexpr int silent = 23040 + 8192 - 15;
    for (int f = silent; f < 150 * 256; f++) {
        ASSERT_EQ(heard[static_cast<size_t>(2 * f)], (f - silent) * 65536) << f;
        ASSERT_EQ(heard[static_cast<size_t>(2 * f) + 1], (f - silent) * 65536) << f;
    }
    asrcDestroy(dropped);
}

// Period sizes differ between kinds of sources, and the block keeps its place in a period across the change.
TEST_F(RateLoop, ASourceWithAShorterPeriodIsHeardAfterALongOne)
{
    CWavFilePlay wav("WAV"); // 8192 frames to a period
    ASSERT_EQ(wav.setNewFile(rampFile(2, 48000, 12000)), STREAM_OK);
    connect(*wav.getUpstreamPort(0));
    for (int i = 0; i < 20; i++) {
        pass(); // well into the first period
    }
    wav.getUpstreamPort(0)->disconnect();
    converter.getUpstreamPort(0)->disconnect();
    Source stream(shape(48000.0F, 0.0F, 2, SAMPLE_S16BIT_LE, 240));
    stream.port().give(std::vector<int16_t>(240 * 2 * 50, 1000));
    connect(stream.port());
    // The mixer may come first: a period that waited for it has no memory now.
    ASSERT_EQ(mixer.service(next), STREAM_OK);
    for (int i = 0; i < 20; i++) {
        pass();
    }
    EXPECT_GT(stream.port().taken, 0U);
}

// 20 seconds of a source at 48000 Hz by its own clock and a card at 47982 Hz, in steps of one card period.
TEST_F(RateLoop, HoldsTheRingNearHalfFull)
{
    constexpr int steps = 20 * 47982 / 256;
    Source stream(shape(48000.0F, 48000.0F, 2, SAMPLE_S16BIT_LE, 240));
    stream.port().audio.resize(21 * 48000 * 4);
    stream.port().acks.reserve(10000);
    double deliveredFrames = 0.0;
    stream.port().onRequest = [&] {
        const auto periods = static_cast<size_t>(deliveredFrames / 240.0);
        stream.port().offerAtMost = static_cast<unsigned int>(periods - stream.port().taken / 960);
    };
    connect(stream.port());
    pass();
    const unsigned int atStart = allocationsSoFar();
    double demandSum = 0.0;
    for (int i = 0; i < steps; i++) {
        deliveredFrames += 256.0 * 48000.0 / 47982.0;
        pass();
        pass();
        ASSERT_TRUE(takePeriod()) << i;
        const double percent = 100.0 * mixer.m_frameCount / mixer.m_bufferSizeFrame;
        ASSERT_GE(percent, 41.0) << i;
        ASSERT_LE(percent, 57.0) << i;
        const double demand = static_cast<double>(mixerIn().params.trueSampleRate);
        ASSERT_GE(demand, 47934.0);
        ASSERT_LE(demand, 48030.0);
        demandSum += demand;
    }
    EXPECT_NEAR(demandSum / steps, 47982.0, 48.0);
    EXPECT_EQ(allocationsSoFar() - atStart, 0U);
}
