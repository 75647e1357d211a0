#include "audioLibrary/toneGenerator.h"

#include "audioLibrary/graphTestSupport.h"

#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>

namespace
{

/** Allocations since the program began: the data path must add none. */
unsigned long allocations = 0;

} // namespace

// Not inlined: the compiler would see malloc's memory go to delete, and free given what new returned.
__attribute__((noinline)) void* operator new(std::size_t size)
{
    allocations++;
    if (void* memory = std::malloc(size == 0 ? 1 : size)) {
        return memory;
    }
    throw std::bad_alloc();
}

__attribute__((noinline)) void operator delete(void* memory) noexcept
{
    std::free(memory);
}

__attribute__((noinline)) void operator delete(void* memory, std::size_t) noexcept
{
    std::free(memory);
}

namespace
{

using namespace graphTest;

class OpenTone : public CToneGenerator
{
public:
    using CToneGenerator::amplitude;
    using CToneGenerator::CToneGenerator;
    using CToneGenerator::generateSineTable;
    using CToneGenerator::getSample;
    using CToneGenerator::isInitialized;
    using CToneGenerator::nco_acc;
    using CToneGenerator::nco_tw;
    using CToneGenerator::sineTable;
    using CToneGenerator::started;
    using CToneGenerator::totalFrames;
    using CToneGenerator::workBuffer;
    using CToneGenerator::workBufferSize;
};

class ToneGenerator : public GraphTest
{
protected:
    OpenTone* tone = nullptr;
    ProbeBlock* sink = nullptr;

    void SetUp() override
    {
        GraphTest::SetUp();
        tone = new OpenTone("TONE_1", 48000.0F);
        sink = new ProbeBlock("SINK", 0, 1);
    }
    CUpstreamPort& out() { return *tone->getUpstreamPort(0); }

    /** Joins the tone to a sink that insists on this shape. */
    void connect(uint32_t numChannels, sampleFormat_e format, uint32_t periodSize)
    {
        audioPortParam_t wanted;
        wanted.numChannels = numChannels;
        wanted.sampleFormat = format;
        wanted.periodSize = periodSize;
        sink->ds().become(wanted);
        ASSERT_EQ(out().connectDownstream(&sink->ds(), nullptr), STREAM_OK);
    }
    /** The period on offer, as 16-bit values. */
    std::vector<int16_t> request()
    {
        char* buffer = nullptr;
        unsigned int nPeriods = 0;
        EXPECT_EQ(out().reqReadPeriods(buffer, nPeriods), STREAM_OK);
        EXPECT_EQ(nPeriods, 1U);
        std::vector<int16_t> samples(out().getPeriodBytes() / 2);
        if (buffer != nullptr && !samples.empty()) {
            std::memcpy(samples.data(), buffer, samples.size() * 2);
        }
        return samples;
    }
    /** A table that rises by 100 a step, and a phase that moves one step a frame. */
    void useRamp()
    {
        for (size_t i = 0; i < tone->sineTable.size(); i++) {
            tone->sineTable[i] = static_cast<int16_t>(100 * static_cast<int>(i % 128));
        }
        tone->nco_acc = 0;
        tone->nco_tw = 1U << 23;
    }
};

TEST_F(ToneGenerator, StartsUnconfigured)
{
    EXPECT_EQ(tone->name(), "TONE_1");
    EXPECT_EQ(tone->getRunTimeId(), TONE_GENERATOR);
    EXPECT_EQ(out().getRunTimeId(), TONE_GENERATOR_USP);
    EXPECT_EQ(tone->numUpstreamPorts(), 1U);
    EXPECT_EQ(tone->numDownstreamPorts(), 0U);
    EXPECT_EQ(tone->amplitude, -1.0F);
    EXPECT_EQ(tone->workBuffer, nullptr);
    EXPECT_EQ(tone->workBufferSize, 0U);
    EXPECT_EQ(out().getParentBlock(), tone);
}

TEST_F(ToneGenerator, TheOutputIsVariableInAllButInterleaving)
{
    CToneGenerator other("TONE_2", 44100.0F);
    audioPortParam_t params;
    other.getUpstreamPort(0)->returnPortParams(&params);
    audioPortParam_t wanted = allVariable();
    wanted.nominalSampleRate = 44100.0F;
    wanted.samplesInterleavedStatus = FIXED;
    expectSameParams(params, wanted);
    other.getUpstreamPort(0)->params.numChannels = 9;
    other.getUpstreamPort(0)->disconnect();
    expectSameParams(other.getUpstreamPort(0)->params, wanted);
}

TEST_F(ToneGenerator, WantsNoService)
{
    CServiceTime next;
    EXPECT_EQ(tone->service(next), STREAM_OK);
    EXPECT_EQ(next.nextServiceTime.tv_sec, 2147483647);
}

TEST_F(ToneGenerator, HasNoEnd)
{
    EXPECT_EQ(tone->timeLeft(), -1);
}

// -------------------------------------------------------------------------------------- configuration

TEST_F(ToneGenerator, InitConfiguresOneKilohertzAtHalfAmplitude)
{
    tone->totalFrames = 5;
    clockTime() = {12, 34};
    EXPECT_EQ(tone->init(), STREAM_OK);
    EXPECT_EQ(tone->amplitude, 0.5F);
    EXPECT_EQ(tone->nco_tw, 89478488U); // 89478485.33, in steps of 8 that single precision has there
    EXPECT_EQ(tone->sineTable[128], 5000);
    EXPECT_EQ(tone->started.nextServiceTime.tv_sec, 12);
    EXPECT_EQ(tone->started.nextServiceTime.tv_nsec, 34);
    EXPECT_EQ(tone->totalFrames, 0);
    EXPECT_FALSE(tone->isInitialized); // the base is not asked
}

TEST_F(ToneGenerator, InitLeavesAConfiguredTone)
{
    tone->cfgTone(440.0F, 0.25F);
    tone->nco_acc = 77;
    const uint32_t tuning = tone->nco_tw;
    EXPECT_EQ(tone->init(), STREAM_OK);
    EXPECT_EQ(tone->amplitude, 0.25F);
    EXPECT_EQ(tone->nco_tw, tuning);
    EXPECT_EQ(tone->nco_acc, 77U);
}

TEST_F(ToneGenerator, TheTuningWordFollowsTheRateInForce)
{
    out().params.nominalSampleRate = 44100.0F;
    EXPECT_EQ(tone->cfgTone(1000.0F, 0.5F), STREAM_OK);
    EXPECT_EQ(tone->nco_tw, 97391552U);        // 97391548.66, in steps of 8
    out().params.nominalSampleRate = 48000.0F; // doesn't retune
    EXPECT_EQ(tone->nco_tw, 97391552U);
    tone->cfgTone(12000.0F, 0.5F);
    EXPECT_EQ(tone->nco_tw, 1U << 30);
}

TEST_F(ToneGenerator, ConfiguringRestartsThePhase)
{
    tone->nco_acc = 77;
    tone->cfgTone(1000.0F, 0.5F);
    EXPECT_EQ(tone->nco_acc, 0U);
}

TEST_F(ToneGenerator, ATuningWordOutOfRangeSaturates)
{
    tone->cfgTone(48000.0F, 0.5F); // 2^32 exactly
    EXPECT_EQ(tone->nco_tw, 4294967295U);
    tone->cfgTone(-1000.0F, 0.5F);
    EXPECT_EQ(tone->nco_tw, 0U);
    out().params.nominalSampleRate = 0.0F;
    tone->cfgTone(0.0F, 0.5F); // not a number
    EXPECT_EQ(tone->nco_tw, 0U);
}

TEST_F(ToneGenerator, TheTableRoundsPositiveAndLiftsNegativeValues)
{
    tone->cfgTone(1000.0F, 0.5F);
    EXPECT_EQ(tone->sineTable[0], 0);
    EXPECT_EQ(tone->sineTable[1], 61);      // 61.36 + 0.5
    EXPECT_EQ(tone->sineTable[64], 3536);   // 3535.53 + 0.5
    EXPECT_EQ(tone->sineTable[128], 5000);  // 5000.5
    EXPECT_EQ(tone->sineTable[256], 0);     // 0.5
    EXPECT_EQ(tone->sineTable[384], -4999); // -4999.5
    EXPECT_EQ(tone->sineTable[448], -3535); // -3535.03
    EXPECT_EQ(tone->sineTable[511], -60);   // -60.86
}

TEST_F(ToneGenerator, AmplitudeOneReachesTenThousand)
{
    tone->cfgTone(1000.0F, 1.0F);
    EXPECT_EQ(tone->sineTable[128], 10000);
    EXPECT_EQ(tone->sineTable[384], -9999);
}

TEST_F(ToneGenerator, AnAmplitudeBeyondSixteenBitsIsHeld)
{
    tone->cfgTone(1000.0F, 1e6F);
    EXPECT_EQ(tone->sineTable[128], 32767);
    EXPECT_EQ(tone->sineTable[384], -32768);
    tone->cfgTone(1000.0F, std::numeric_limits<float>::quiet_NaN());
    EXPECT_EQ(tone->sineTable[128], 0);
}

TEST_F(ToneGenerator, TheTableAloneLeavesThePhase)
{
    tone->nco_acc = 77;
    tone->nco_tw = 88;
    tone->amplitude = 1.0F;
    tone->generateSineTable();
    EXPECT_EQ(tone->sineTable[128], 10000);
    EXPECT_EQ(tone->nco_acc, 77U);
    EXPECT_EQ(tone->nco_tw, 88U);
}

// -------------------------------------------------------------------------------------- one sample

TEST_F(ToneGenerator, ASampleIsInterpolatedWithWeightsThatSumTo65535)
{
    tone->sineTable[0] = 1000;
    tone->sineTable[1] = 2000;
    tone->nco_acc = 0;
    EXPECT_EQ(tone->getSample(), 65535000); // 1000 * 65535
    tone->nco_acc = 0x8000U << 7;
    EXPECT_EQ(tone->getSample(), 98303000); // 1000 * 32767 + 2000 * 32768
    tone->nco_acc = 0x7FFFFF;
    EXPECT_EQ(tone->getSample(), 131070000); // 2000 * 65535
}

TEST_F(ToneGenerator, TheLowSevenBitsOfThePhaseAreNotUsed)
{
    tone->sineTable[0] = 1000;
    tone->sineTable[1] = 2000;
    tone->nco_acc = 0x7F;
    EXPECT_EQ(tone->getSample(), 65535000);
    tone->nco_acc = 0x80;
    EXPECT_EQ(tone->getSample(), 65536000); // 1000 * 65534 + 2000 * 1
}

TEST_F(ToneGenerator, TheEndOfTheTableLeadsToItsStart)
{
    tone->sineTable[511] = 300;
    tone->sineTable[0] = 100;
    tone->nco_acc = (511U << 23) + (0x8000U << 7);
    EXPECT_EQ(tone->getSample(), 13106900); // 300 * 32767 + 100 * 32768
}

TEST_F(ToneGenerator, ThePhaseWraps)
{
    tone->nco_acc = 0xFFFFFFFFU;
    tone->nco_tw = 2;
    tone->getSample();
    EXPECT_EQ(tone->nco_acc, 1U);
}

TEST_F(ToneGenerator, FullScaleStaysWithin32Bits)
{
    tone->sineTable[0] = tone->sineTable[1] = -32768;
    tone->nco_acc = 0x8000U << 7;
    EXPECT_EQ(tone->getSample(), -2147450880); // -32768 * 65535
}

// -------------------------------------------------------------------------------------- periods

TEST_F(ToneGenerator, AStereoPeriodHasTheSameSignalTwice)
{
    connect(2, SAMPLE_S16BIT_LE, 5);
    EXPECT_EQ(tone->workBufferSize, 20U);
    useRamp();
    // 100 * n * 65535 / 65536, cut: one less than the table but for 0
    EXPECT_EQ(request(), (std::vector<int16_t>{0, 0, 99, 99, 199, 199, 299, 299, 399, 399}));
    EXPECT_EQ(tone->nco_acc, 5U << 23);
}

TEST_F(ToneGenerator, AMonoPeriodHasOneValueAFrame)
{
    connect(1, SAMPLE_S16BIT_LE, 5);
    EXPECT_EQ(tone->workBufferSize, 10U);
    useRamp();
    EXPECT_EQ(request(), (std::vector<int16_t>{0, 99, 199, 299, 399}));
}

TEST_F(ToneGenerator, NegativeSamplesAreRoundedTowardZero)
{
    connect(1, SAMPLE_S16BIT_LE, 2);
    tone->sineTable.fill(-1000);
    EXPECT_EQ(request(), (std::vector<int16_t>{-999, -999})); // -999.98
}

TEST_F(ToneGenerator, TheBigEndianFormatGetsHostOrderToo)
{
    connect(1, SAMPLE_S16BIT_BE, 2);
    useRamp();
    EXPECT_EQ(request(), (std::vector<int16_t>{0, 99}));
}

TEST_F(ToneGenerator, WiderSamplesAreWrittenInTheirFirstHalf)
{
    connect(1, SAMPLE_S32BIT_LE, 3);
    EXPECT_EQ(tone->workBufferSize, 12U);
    useRamp();
    EXPECT_EQ(request(), (std::vector<int16_t>{0, 0, 99, 0, 199, 0}));
}

TEST_F(ToneGenerator, OneByteSamplesEndWithTheBuffer)
{
    connect(1, SAMPLE_S8BIT, 3);
    EXPECT_EQ(tone->workBufferSize, 3U);
    useRamp();
    char* buffer = nullptr;
    unsigned int nPeriods = 0;
    EXPECT_EQ(out().reqReadPeriods(buffer, nPeriods), STREAM_OK);
    EXPECT_EQ(nPeriods, 1U);
    // 0, 99 and 199 (0xC7), each over the high byte of the one before; the last high byte has no place
    EXPECT_EQ(buffer[0], 0);
    EXPECT_EQ(buffer[1], 99);
    EXPECT_EQ(static_cast<unsigned char>(buffer[2]), 0xC7);
}

TEST_F(ToneGenerator, WithoutChannelsOnlyThePhaseMoves)
{
    connect(0, SAMPLE_S16BIT_LE, 5);
    EXPECT_EQ(tone->workBufferSize, 0U);
    useRamp();
    EXPECT_EQ(request(), std::vector<int16_t>{});
    EXPECT_EQ(tone->nco_acc, 5U << 23);
}

TEST_F(ToneGenerator, AnInvalidFormatLeavesABufferOfNoBytes)
{
    testing::internal::CaptureStderr();
    connect(2, SAMPLE_UNKNOWN, 5);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "invalid sample format: 0\n");
    EXPECT_EQ(tone->workBufferSize, 0U);
    ASSERT_NE(tone->workBuffer, nullptr);
    testing::internal::CaptureStderr();
    char* buffer = nullptr;
    unsigned int nPeriods = 0;
    EXPECT_EQ(out().reqReadPeriods(buffer, nPeriods), STREAM_OK);
    EXPECT_NE(testing::internal::GetCapturedStderr(), "");
}

TEST_F(ToneGenerator, AnUnacknowledgedPeriodIsOfferedAgain)
{
    connect(1, SAMPLE_S16BIT_LE, 5);
    useRamp();
    char* first = nullptr;
    char* second = nullptr;
    unsigned int nPeriods = 0;
    out().reqReadPeriods(first, nPeriods);
    const std::vector<char> bytes(first, first + 10);
    const uint32_t phase = tone->nco_acc;
    out().reqReadPeriods(second, nPeriods);
    EXPECT_EQ(nPeriods, 1U);
    EXPECT_EQ(second, first);
    EXPECT_EQ(std::vector<char>(second, second + 10), bytes);
    EXPECT_EQ(tone->nco_acc, phase);
}

TEST_F(ToneGenerator, AcknowledgingNothingKeepsThePeriod)
{
    connect(1, SAMPLE_S16BIT_LE, 5);
    useRamp();
    const std::vector<int16_t> first = request();
    EXPECT_EQ(out().ackReadPeriods(0), STREAM_OK);
    EXPECT_EQ(out().getPeriodCount(), 0);
    EXPECT_EQ(request(), first);
}

TEST_F(ToneGenerator, AcknowledgingCountsAndMakesRoom)
{
    connect(1, SAMPLE_S16BIT_LE, 5);
    useRamp();
    request();
    out().startAudio();
    EXPECT_EQ(out().ackReadPeriods(1), STREAM_OK);
    EXPECT_EQ(out().getPeriodCount(), 1);
    EXPECT_NE(out().avgRate, 48000.0F); // measured, not only counted
    EXPECT_EQ(request(), (std::vector<int16_t>{499, 599, 699, 799, 899}));
}

TEST_F(ToneGenerator, EveryAcknowledgedPeriodIsCounted)
{
    connect(1, SAMPLE_S16BIT_LE, 5);
    out().ackReadPeriods(3);
    EXPECT_EQ(out().getPeriodCount(), 3);
}

TEST_F(ToneGenerator, AnyRecordIsAcceptedUnchanged)
{
    audioPortParam_t record = allFixedOddValues();
    const audioPortParam_t before = out().params;
    EXPECT_EQ(out().reconfigPortCheck(&record), STREAM_OK);
    expectSameParams(record, allFixedOddValues());
    expectSameParams(out().params, before);
}

TEST_F(ToneGenerator, ApplyTakesTheWholeRecordAndAFreshBuffer)
{
    connect(1, SAMPLE_S16BIT_LE, 5);
    useRamp();
    request();
    audioPortParam_t record = allFixedOddValues();
    EXPECT_EQ(out().reconfigPortApply(&record), STREAM_OK);
    expectSameParams(out().params, allFixedOddValues());
    EXPECT_EQ(tone->workBufferSize, 524U); // 131 frames, one channel, four bytes
    const uint32_t phase = tone->nco_acc;
    request();
    EXPECT_NE(tone->nco_acc, phase); // the old period is not offered from the new buffer
}

TEST_F(ToneGenerator, ApplyWithoutAPeerMakesNoBuffer)
{
    audioPortParam_t record;
    EXPECT_EQ(out().reconfigPortApply(&record), STREAM_OK);
    EXPECT_EQ(tone->workBuffer, nullptr);
    EXPECT_EQ(tone->workBufferSize, 0U);
}

TEST_F(ToneGenerator, WithoutABufferNothingIsReady)
{
    char* buffer = reinterpret_cast<char*>(this);
    unsigned int nPeriods = 7;
    EXPECT_EQ(out().reqReadPeriods(buffer, nPeriods), STREAM_OK);
    EXPECT_EQ(buffer, nullptr);
    EXPECT_EQ(nPeriods, 0U);
}

TEST_F(ToneGenerator, ABufferTooShortForTheParametersIsNotLent)
{
    connect(1, SAMPLE_S16BIT_LE, 5);
    out().disconnect(); // back to periods of 2048 bytes, the buffer still has 10
    char* buffer = nullptr;
    unsigned int nPeriods = 7;
    EXPECT_EQ(out().reqReadPeriods(buffer, nPeriods), STREAM_OK);
    EXPECT_EQ(buffer, nullptr);
    EXPECT_EQ(nPeriods, 0U);
}

TEST_F(ToneGenerator, TransfersAllocateNothing)
{
    connect(2, SAMPLE_S16BIT_LE, 512);
    tone->init();
    const unsigned long before = allocations;
    for (int i = 0; i < 5000; i++) {
        char* buffer = nullptr;
        unsigned int nPeriods = 0;
        out().reqReadPeriods(buffer, nPeriods);
        out().ackReadPeriods(nPeriods);
    }
    EXPECT_EQ(allocations, before);
    EXPECT_EQ(out().getPeriodCount(), 5000);
}

} // namespace
