/**
 * The playback block on the card of alsaFake.h, between a source port of the test's own and frames that can be told
 * apart: the sample of frame n, channel c is 2n + c.
 */

#include "audioLibrary/alsaSource.h"
#include "audioLibrary/alsaFake.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <new>
#include <numeric>
#include <sstream>

using namespace audioLibrarySpace;
using alsaFake::card;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace
{
std::atomic<long> allocationsOfPlayback{0};
std::atomic<bool> countAllocations{false};

void* countedAllocation(std::size_t size) noexcept
{
    if (countAllocations && alsaFake::onPlaybackThread()) {
        allocationsOfPlayback++;
    }
    return std::malloc(size);
}

void* countedAllocationOrThrow(std::size_t size)
{
    void* const memory = countedAllocation(size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}
} // namespace

void* operator new(std::size_t size)
{
    return countedAllocationOrThrow(size);
}

void* operator new[](std::size_t size)
{
    return countedAllocationOrThrow(size);
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    return countedAllocation(size);
}

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept
{
    return countedAllocation(size);
}

void operator delete(void* memory) noexcept
{
    std::free(memory);
}

void operator delete[](void* memory) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept
{
    std::free(memory);
}

void operator delete[](void* memory, std::size_t) noexcept
{
    std::free(memory);
}

namespace
{

constexpr const char* STOPPING = "Stopping ALSA Device and dropping remaining frames.\n";
constexpr const char* RESTARTING = "Success, restarting ....\n";

/** Offers numbered frames, each until it is acknowledged. Touched by the playback thread while that runs. */
class NumberedPort : public CUpstreamPort
{
public:
    explicit NumberedPort(CAudioBlock* parent) : CUpstreamPort(parent), frames(2 * 65536)
    {
        resetParams.nominalSampleRateStatus = VARIABLE;
        resetParams.trueSampleRateStatus = VARIABLE;
        resetParams.numChannelsStatus = VARIABLE;
        resetParams.sampleFormatStatus = VARIABLE;
        resetParams.samplesInterleavedStatus = VARIABLE;
        resetParams.periodSizeStatus = VARIABLE;
        resetPortParams();
        std::iota(frames.begin(), frames.end(), 0);
    }

    streamStatus reconfigPortApply(audioPortParam_t* newParams) override
    {
        params = *newParams;
        return STREAM_OK;
    }

    streamStatus reqReadPeriods(char*& pbuffer, unsigned int& nPeriods) override
    {
        if (noting) {
            card().note("req");
        }
        pbuffer = reinterpret_cast<char*>(&frames[size_t{2} * readFrame]);
        nPeriods = numPeriodsOffered;
        return answer;
    }

    streamStatus ackReadPeriods(unsigned int nPeriods) override
    {
        if (noting) {
            card().note("ack " + std::to_string(nPeriods));
        }
        readFrame = (readFrame + nPeriods * 256) % 32768;
        return STREAM_OK;
    }

    unsigned int numPeriodsOffered = 2;
    streamStatus answer = STREAM_OK;
    bool noting = true;

private:
    std::vector<int32_t> frames;
    unsigned int readFrame = 0;
};

class NumberedBlock : public CAudioBlock
{
public:
    NumberedBlock() : CAudioBlock("NUMBERED")
    {
        auto* const port = new NumberedPort(this);
        upstream.push_back(port);
        out = port;
    }
    NumberedPort* out; ///< owned by the block
};

/** Samples of the frames [first, first + numFrames). */
std::vector<int32_t> framesFrom(int32_t first, unsigned int numFrames)
{
    std::vector<int32_t> samples(size_t{2} * numFrames);
    std::iota(samples.begin(), samples.end(), 2 * first);
    return samples;
}

std::vector<int32_t> operator+(std::vector<int32_t> left, const std::vector<int32_t>& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

/** Takes the time off the front of each trace line, so that "(1): text" remains. */
std::string withoutTimes(const std::string& text)
{
    constexpr size_t leastTimeLength = 8 + 1 + 6; // "%8u.%06u"
    std::istringstream lines(text);
    std::string result;
    for (std::string line; std::getline(lines, line);) {
        const size_t timeLength = line.find_first_not_of(" 0123456789.");
        const bool traced = timeLength != std::string::npos && timeLength > leastTimeLength &&
                            line[timeLength] == '(' && line[timeLength - 1 - 7] == '.';
        result += traced ? line.substr(timeLength) : line;
        result += '\n';
    }
    return result;
}

void setTraceLevel(int level)
{
    std::atomic_ref<int>(audioInterfaceTraceLevel).store(level);
}

class AlsaSource : public testing::Test
{
protected:
    void SetUp() override { card().reset(); }

    void TearDown() override
    {
        setTraceLevel(0);
        countAllocations = false;
        removeBlock();
        EXPECT_EQ(card().numMisuses(), 0);
    }

    /** A block as the players build it, its thread in its first idle sleep. */
    void build(const std::string& device = "plughw:0,0", float rate = 48000.0F,
               sampleFormat_e format = SAMPLE_S32BIT_LE)
    {
        block = std::make_unique<CALSASource>("ALSA_SOURCE", 2, rate, 18, 256, format, device);
        port = block->getDownstreamPort(0);
        ASSERT_EQ(card().waitForSleep(), 10000U);
    }

    /** A block with its device open, connected to the numbered frames and playing; the thread still idles. */
    void buildPlaying()
    {
        build();
        ASSERT_EQ(block->init(), STREAM_OK);
        connect();
        port->startAudio();
        card().clearCalls();
    }

    void connect() { ASSERT_EQ(source.out->connectDownstream(port, nullptr), STREAM_OK); }

    void removeBlock()
    {
        block.reset();
        port = nullptr;
    }

    /** What init() writes to the standard error stream. */
    std::string initErrors(streamStatus expected)
    {
        testing::internal::CaptureStderr();
        EXPECT_EQ(block->init(), expected);
        return testing::internal::GetCapturedStderr();
    }

    /** What the thread prints between the idle sleep that it is in and its next sleep, of `expectedSleep`. */
    std::string printedUntilSleep(unsigned int expectedSleep)
    {
        testing::internal::CaptureStdout();
        EXPECT_EQ(card().nextSleep(), expectedSleep);
        return withoutTimes(testing::internal::GetCapturedStdout());
    }

    NumberedBlock source;
    std::unique_ptr<CALSASource> block;
    CDownstreamPort* port = nullptr; ///< the block's input
};

// ------------------------------------------------------------------------------------------------------- formats

TEST(AlsaFormats, GraphFormatsHaveTheirDeviceNames)
{
    EXPECT_EQ(streamToDeviceSampleFormat(SAMPLE_S16BIT_LE), SND_PCM_FORMAT_S16_LE);
    EXPECT_EQ(streamToDeviceSampleFormat(SAMPLE_S16BIT_BE), SND_PCM_FORMAT_S16_BE);
    EXPECT_EQ(streamToDeviceSampleFormat(SAMPLE_S32BIT_LE), SND_PCM_FORMAT_S32_LE);
    EXPECT_EQ(streamToDeviceSampleFormat(SAMPLE_S32BIT_BE), SND_PCM_FORMAT_S32_BE);
}

TEST(AlsaFormats, OtherGraphFormatsAreRefusedWithTheirNumber)
{
    testing::internal::CaptureStderr();
    EXPECT_EQ(static_cast<int>(streamToDeviceSampleFormat(SAMPLE_UNKNOWN)), -1);
    EXPECT_EQ(static_cast<int>(streamToDeviceSampleFormat(SAMPLE_S8BIT)), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "invalid sample format: 0\ninvalid sample format: 1\n");
}

TEST(AlsaFormats, DeviceFormatsHaveTheirGraphNames)
{
    EXPECT_EQ(deviceToStreamSampleFormat(SND_PCM_FORMAT_S16_LE), SAMPLE_S16BIT_LE);
    EXPECT_EQ(deviceToStreamSampleFormat(SND_PCM_FORMAT_S16_BE), SAMPLE_S16BIT_BE);
    EXPECT_EQ(deviceToStreamSampleFormat(SND_PCM_FORMAT_S32_LE), SAMPLE_S32BIT_LE);
    EXPECT_EQ(deviceToStreamSampleFormat(SND_PCM_FORMAT_S32_BE), SAMPLE_S32BIT_BE);
    testing::internal::CaptureStderr();
    EXPECT_EQ(deviceToStreamSampleFormat(SND_PCM_FORMAT_U8), SAMPLE_UNKNOWN);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "invalid sample format: 1\n");
}

// --------------------------------------------------------------------------------------------------- as it is built

TEST_F(AlsaSource, InputIsFixedToWhatTheBlockWasBuiltWith)
{
    block = std::make_unique<CALSASource>("ALSA", 6, 44100.0F, 4, 333, SAMPLE_S16BIT_BE, "plughw:0,0");
    const audioPortParam_t& params = block->getDownstreamPort(0)->params;
    EXPECT_EQ(params.nominalSampleRate, 44100.0F);
    EXPECT_EQ(params.trueSampleRate, 44100.0F);
    EXPECT_EQ(params.numChannels, 6U);
    EXPECT_EQ(params.sampleFormat, SAMPLE_S16BIT_BE);
    EXPECT_TRUE(params.samplesInterleaved);
    EXPECT_EQ(params.periodSize, 333U);
    EXPECT_EQ(params.nominalSampleRateStatus, FIXED);
    EXPECT_EQ(params.trueSampleRateStatus, FIXED);
    EXPECT_EQ(params.numChannelsStatus, FIXED);
    EXPECT_EQ(params.sampleFormatStatus, FIXED);
    EXPECT_EQ(params.samplesInterleavedStatus, FIXED);
    EXPECT_EQ(params.periodSizeStatus, FIXED);
}

TEST_F(AlsaSource, NeedsOfTheCardReachThePeer)
{
    build();
    ASSERT_EQ(block->init(), STREAM_OK);
    connect();
    EXPECT_EQ(source.out->params.nominalSampleRate, 48000.0F);
    EXPECT_EQ(source.out->params.trueSampleRate, 47982.0F);
    EXPECT_EQ(source.out->params.sampleFormat, SAMPLE_S32BIT_LE);
    EXPECT_EQ(source.out->params.periodSize, 256U);
}

TEST_F(AlsaSource, IsOneInputAndNoOutput)
{
    build();
    EXPECT_EQ(block->numDownstreamPorts(), 1U);
    EXPECT_EQ(block->numUpstreamPorts(), 0U);
    EXPECT_EQ(block->getRunTimeId(), ALSA_SOURCE);
    EXPECT_EQ(port->getRunTimeId(), ALSA_SOURCE_DSP);
}

TEST_F(AlsaSource, ServiceNeverWantsToBeCalledAgain)
{
    build();
    CServiceTime next;
    next.immediateService = true;
    EXPECT_EQ(block->service(next), STREAM_OK);
    CServiceTime never;
    never.setNeverService();
    EXPECT_TRUE(next == never);
}

TEST_F(AlsaSource, StatusIsTheNameThePortKindsAndThePort)
{
    build();
    EXPECT_EQ(block->printBlockStatus(), "ALSA_SOURCE                     Ports:            downstream \n"
                                         "Downstream port is disconnected\n"
                                         "  Nominal sample rate:            (FIX) 48000.000000 Hz\n"
                                         "  True sample rate:               (FIX) 48000.000000 Hz\n"
                                         "  Number of channels:             (FIX) 2\n"
                                         "  Sample format type:             (FIX) " +
                                             sampleFormatText(SAMPLE_S32BIT_LE) +
                                             "\n"
                                             "  Samples are interleaved:        (FIX) yes\n"
                                             "  Period size in samples:         (FIX) 256\n"
                                             "  Period count:                     0\n"
                                             "  PlaybackState:                   Stopped\n");
}

TEST_F(AlsaSource, ConstructionStartsTheThreadAndLeavesTheCardAlone)
{
    testing::internal::CaptureStdout();
    build();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "ALSA Playback getting real-time priority....\n"
                                                      "Success! Policy = RealTime-FIFO, Priority = 99\n");
    EXPECT_EQ(card().scheduledPolicy(), SCHED_FIFO);
    EXPECT_EQ(card().scheduledPriority(), 99);
    EXPECT_THAT(card().calls(), IsEmpty());
}

TEST_F(AlsaSource, ThreadRunsOnWithoutThePriority)
{
    card().refusePriority();
    testing::internal::CaptureStdout();
    buildPlaying();
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                testing::StartsWith("ALSA Playback getting real-time priority....\nFailed!\n"));
    EXPECT_TRUE(card().play(512));
    EXPECT_EQ(card().written(), framesFrom(0, 512));
}

// --------------------------------------------------------------------------------------------------------- init

TEST_F(AlsaSource, InitConfiguresTheCardInThisOrder)
{
    build();
    EXPECT_EQ(initErrors(STREAM_OK), "");
    EXPECT_THAT(card().calls(),
                ElementsAre("snd_pcm_open(plughw:0,0, PLAYBACK, 0)", "snd_pcm_hw_params_any()",
                            "snd_pcm_hw_params_set_access(RW_INTERLEAVED)", "snd_pcm_hw_params_set_format(10)",
                            "snd_pcm_hw_params_set_rate_resample(0)", "snd_pcm_hw_params_set_rate_near(48000)",
                            "snd_pcm_hw_params_set_channels(2)", "snd_pcm_hw_params_set_periods_near(18)",
                            "snd_pcm_hw_params_set_buffer_size_near(4608)", "snd_pcm_hw_params()"));
    EXPECT_THAT(card().ownerSleeps(), IsEmpty());
}

TEST_F(AlsaSource, InitTellsTheConfigurationAtTraceLevelOne)
{
    build();
    setTraceLevel(1);
    testing::internal::CaptureStdout();
    ASSERT_EQ(block->init(), STREAM_OK);
    EXPECT_EQ(withoutTimes(testing::internal::GetCapturedStdout()), "(1): Initializing ALSA Device...\n"
                                                                    "(1):    Playback device:\tplughw:0,0\n"
                                                                    "(1):    Access: \t\tInterleaved\n"
                                                                    "(1):    Format: \t\t" +
                                                                        sampleFormatText(SAMPLE_S32BIT_LE) +
                                                                        "\n"
                                                                        "(1):    Rate: \t\t48000.000000\n"
                                                                        "(1):    Channels: \t\t2\n"
                                                                        "(1):    Periods: \t\t18\n"
                                                                        "(1):    Periodsize: \t\t256\n"
                                                                        "(1):    HardwareBufferSize:   4608 \n");
}

TEST_F(AlsaSource, InitIsSilentAtTraceLevelZero)
{
    build();
    testing::internal::CaptureStdout();
    ASSERT_EQ(block->init(), STREAM_OK);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST_F(AlsaSource, BufferSizeAskedIsToldAtTraceLevelNine)
{
    build();
    card().grantBufferSize(4096);
    setTraceLevel(9);
    testing::internal::CaptureStdout();
    EXPECT_THAT(initErrors(STREAM_OK), HasSubstr("The buffer size"));
    setTraceLevel(0);
    const std::string printed = withoutTimes(testing::internal::GetCapturedStdout());
    EXPECT_THAT(printed, HasSubstr("(1):    Periodsize: \t\t256\n"
                                   "(9): Attempting to set Hardware buffer size to: 4608 \n"
                                   "(1):    HardwareBufferSize:   4096 \n"));
}

TEST_F(AlsaSource, PortThatIsNotInterleavedIsConfiguredSoButSaidToBe)
{
    build();
    port->params.samplesInterleaved = false;
    setTraceLevel(1);
    testing::internal::CaptureStdout();
    ASSERT_EQ(block->init(), STREAM_OK);
    EXPECT_THAT(testing::internal::GetCapturedStdout(), HasSubstr("   Access: \t\tInterleaved\n"));
    EXPECT_EQ(card().calls()[2], "snd_pcm_hw_params_set_access(RW_NONINTERLEAVED)");
}

TEST_F(AlsaSource, FormatWithoutADeviceNameIsToldAndRefusedByTheCard)
{
    build("plughw:0,0", 48000.0F, SAMPLE_S8BIT);
    card().fail("snd_pcm_hw_params_set_format", -EINVAL);
    EXPECT_EQ(initErrors(STREAM_ERROR), "invalid sample format: 1\nError setting format.\n");
    EXPECT_EQ(card().calls().back(), "snd_pcm_hw_params_set_format(-1)");
}

struct FailingStep {
    const char* function;
    int error;
    const char* text;
};

class AlsaSourceStep : public AlsaSource, public testing::WithParamInterface<FailingStep>
{
};

TEST_P(AlsaSourceStep, FailureEndsInitAndKeepsTheThreadOffTheCard)
{
    build();
    card().fail(GetParam().function, GetParam().error);
    EXPECT_EQ(initErrors(STREAM_ERROR), GetParam().text);
    EXPECT_THAT(card().calls().back(), testing::StartsWith(std::string(GetParam().function) + "("));

    connect();
    port->startAudio();
    card().clearCalls();
    EXPECT_EQ(card().nextSleep(), 10000U);
    EXPECT_EQ(card().nextSleep(), 10000U);
    EXPECT_THAT(card().calls(), IsEmpty());
}

TEST_P(AlsaSourceStep, FailureLeavesTheDeviceOpenForTheNextInitToClose)
{
    build();
    card().fail(GetParam().function, GetParam().error);
    testing::internal::CaptureStdout();
    initErrors(STREAM_ERROR);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_TRUE(card().isOpen());

    card().clearCalls();
    testing::internal::CaptureStdout();
    EXPECT_EQ(initErrors(STREAM_OK), "");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), std::string(STOPPING) + RESTARTING);
    EXPECT_EQ(card().calls().at(0), "snd_pcm_drop()");
    EXPECT_EQ(card().calls().at(1), "snd_pcm_close()");
    EXPECT_EQ(card().calls().at(2), "snd_pcm_open(plughw:0,0, PLAYBACK, 0)");
    EXPECT_EQ(card().calls().size(), 12U);
}

INSTANTIATE_TEST_SUITE_P(
    Init, AlsaSourceStep,
    testing::Values(FailingStep{"snd_pcm_hw_params_any", -EINVAL,
                                "Cannot set any hwparams, failed: Invalid argument\n"},
                    FailingStep{"snd_pcm_hw_params_set_access", -EINVAL, "Error setting access.\n"},
                    FailingStep{"snd_pcm_hw_params_set_format", -EINVAL, "Error setting format.\n"},
                    FailingStep{"snd_pcm_hw_params_set_rate_near", -EINVAL, "Error setting rate.\n"},
                    FailingStep{"snd_pcm_hw_params_set_channels", -EINVAL, "Error setting channels.\n"},
                    FailingStep{"snd_pcm_hw_params_set_periods_near", -EBUSY, "Error setting periods. (-16)\n"},
                    FailingStep{"snd_pcm_hw_params_set_buffer_size_near", -EINVAL, "Error setting buffersize.\n"},
                    FailingStep{"snd_pcm_hw_params", -EBUSY, "Error setting HW params: Device or resource busy\n"}),
    [](const testing::TestParamInfo<FailingStep>& step) { return std::string(step.param.function); });

TEST_F(AlsaSource, CardThatCannotPromiseItsOwnRatesIsConfiguredAllTheSame)
{
    build();
    card().fail("snd_pcm_hw_params_set_rate_resample", -EINVAL);
    EXPECT_EQ(initErrors(STREAM_OK), "Failed to set rates to only hardware supported ones: Invalid argument\n");
    EXPECT_EQ(card().calls().back(), "snd_pcm_hw_params()");
}

TEST_F(AlsaSource, DeviceThatCannotBeOpenedCostsFourSleepsOfHalfASecond)
{
    build();
    card().fail("snd_pcm_open", -ENOENT, 5);
    EXPECT_EQ(initErrors(STREAM_ERROR), "Error opening PCM device plughw:0,0 No such file or directory. Retrying...\n"
                                        "Error opening PCM device plughw:0,0 No such file or directory. Retrying...\n"
                                        "Error opening PCM device plughw:0,0 No such file or directory. Retrying...\n"
                                        "Error opening PCM device plughw:0,0 No such file or directory. Retrying...\n"
                                        "Error opening PCM device plughw:0,0 No such file or directory. Failed!\n");
    EXPECT_THAT(card().calls(), testing::SizeIs(5));
    EXPECT_THAT(card().ownerSleeps(), ElementsAre(500000U, 500000U, 500000U, 500000U));

    card().clearCalls();
    EXPECT_EQ(initErrors(STREAM_OK), "") << "nothing was open, so nothing is to be closed";
    EXPECT_EQ(card().calls().at(0), "snd_pcm_open(plughw:0,0, PLAYBACK, 0)");
}

TEST_F(AlsaSource, DeviceThatOpensAtTheFifthAttemptIsTaken)
{
    build();
    card().fail("snd_pcm_open", -EBUSY, 4);
    EXPECT_EQ(initErrors(STREAM_OK), "Error opening PCM device plughw:0,0 Device or resource busy. Retrying...\n"
                                     "Error opening PCM device plughw:0,0 Device or resource busy. Retrying...\n"
                                     "Error opening PCM device plughw:0,0 Device or resource busy. Retrying...\n"
                                     "Error opening PCM device plughw:0,0 Device or resource busy. Retrying...\n");
    EXPECT_THAT(card().ownerSleeps(), testing::SizeIs(4));
}

TEST_F(AlsaSource, Granted48000RunsAtTheTrueClockOfTheHardware)
{
    build();
    EXPECT_EQ(initErrors(STREAM_OK), "");
    EXPECT_EQ(port->params.nominalSampleRate, 48000.0F);
    EXPECT_EQ(port->params.trueSampleRate, 47982.0F);
}

TEST_F(AlsaSource, Granted44100IsTakenWithoutCorrection)
{
    build();
    card().grantRate(44100);
    EXPECT_EQ(initErrors(STREAM_OK), "The rate 48000.000000 Hz is not supported by your hardware.\n"
                                     " ==> Using 44100.000000 Hz instead.\n");
    EXPECT_EQ(port->params.nominalSampleRate, 44100.0F);
    EXPECT_EQ(port->params.trueSampleRate, 44100.0F);
}

TEST_F(AlsaSource, Asked44100AndGranted48000RunsAtTheTrueClock)
{
    build("plughw:0,0", 44100.0F);
    card().grantRate(48000);
    EXPECT_EQ(initErrors(STREAM_OK), "The rate 44100.000000 Hz is not supported by your hardware.\n"
                                     " ==> Using 48000.000000 Hz instead.\n");
    EXPECT_EQ(port->params.nominalSampleRate, 48000.0F);
    EXPECT_EQ(port->params.trueSampleRate, 47982.0F);
}

TEST_F(AlsaSource, RateNextTo48000IsNotCorrected)
{
    build();
    card().grantRate(48001);
    initErrors(STREAM_OK);
    EXPECT_EQ(port->params.nominalSampleRate, 48001.0F);
    EXPECT_EQ(port->params.trueSampleRate, 48001.0F);
}

TEST_F(AlsaSource, FractionOfTheNominalRateIsNotAskedFor)
{
    build("plughw:0,0", 44100.75F);
    EXPECT_EQ(initErrors(STREAM_OK), "The rate 44100.750000 Hz is not supported by your hardware.\n"
                                     " ==> Using 44100.000000 Hz instead.\n");
    EXPECT_EQ(card().calls().at(5), "snd_pcm_hw_params_set_rate_near(44100)");
}

TEST_F(AlsaSource, RateBeyondAllNumbersIsAskedForAsTheLargest)
{
    build("plughw:0,0", 1e20F);
    initErrors(STREAM_OK);
    EXPECT_EQ(card().calls().at(5), "snd_pcm_hw_params_set_rate_near(4294967295)");
}

TEST_F(AlsaSource, OtherNumberOfPeriodsIsToldAndForgotten)
{
    build();
    card().grantPeriods(8);
    setTraceLevel(1);
    testing::internal::CaptureStdout();
    EXPECT_EQ(initErrors(STREAM_OK), "The num of Periods 18 is not supported by your hardware.\n"
                                     " ==> Using 8 instead.\n");
    EXPECT_THAT(testing::internal::GetCapturedStdout(), HasSubstr("   Periods: \t\t8\n"));

    setTraceLevel(0);
    card().clearCalls();
    card().grantPeriods(0);
    EXPECT_EQ(initErrors(STREAM_OK), "");
    EXPECT_THAT(card().calls(), testing::Contains("snd_pcm_hw_params_set_periods_near(18)"));
    EXPECT_THAT(card().calls(), testing::Contains("snd_pcm_hw_params_set_buffer_size_near(4608)"));
}

TEST_F(AlsaSource, OtherBufferSizeIsToldAndBoundsAWrite)
{
    build();
    card().grantBufferSize(1024);
    EXPECT_EQ(initErrors(STREAM_OK), "The buffer size 4608 is not supported by your hardware.\n"
                                     " ==> Using 1024 instead.\n");
    connect();
    source.out->numPeriodsOffered = 18;
    port->startAudio();
    ASSERT_TRUE(card().play(4608));
    EXPECT_THAT(card().calls(), testing::Contains("snd_pcm_writei(1024) = 1024"));
    EXPECT_EQ(card().written(), framesFrom(0, 4608));

    card().grantBufferSize(0);
    card().clearCalls();
    testing::internal::CaptureStdout();
    EXPECT_EQ(initErrors(STREAM_OK), "");
    testing::internal::GetCapturedStdout();
    EXPECT_THAT(card().calls(), testing::Contains("snd_pcm_hw_params_set_buffer_size_near(4608)"));
}

TEST_F(AlsaSource, InitOnAnOpenDeviceClosesItFirst)
{
    build();
    ASSERT_EQ(block->init(), STREAM_OK);
    card().clearCalls();
    setTraceLevel(1);
    testing::internal::CaptureStdout();
    EXPECT_EQ(initErrors(STREAM_OK), "");
    EXPECT_THAT(withoutTimes(testing::internal::GetCapturedStdout()),
                testing::StartsWith(std::string(STOPPING) + RESTARTING + "(1): Initializing ALSA Device...\n"));
    const auto calls = card().calls();
    ASSERT_EQ(calls.size(), 12U);
    EXPECT_EQ(calls[0], "snd_pcm_drop()");
    EXPECT_EQ(calls[1], "snd_pcm_close()");
    EXPECT_EQ(calls[2], "snd_pcm_open(plughw:0,0, PLAYBACK, 0)");
    EXPECT_EQ(calls[11], "snd_pcm_hw_params()");
}

TEST_F(AlsaSource, FreshHandleOfARestartPlays)
{
    build();
    ASSERT_EQ(block->init(), STREAM_OK);
    ASSERT_EQ(block->init(), STREAM_OK);
    connect();
    port->startAudio();
    ASSERT_TRUE(card().play(512));
    EXPECT_EQ(card().written(), framesFrom(0, 512));
}

TEST_F(AlsaSource, InitClosesNothingUnderAWriteInProgress)
{
    buildPlaying();
    ASSERT_TRUE(card().play(0));
    card().clearCalls();
    testing::internal::CaptureStdout();
    ASSERT_EQ(block->init(), STREAM_OK);
    testing::internal::GetCapturedStdout();
    const auto calls = card().calls();
    ASSERT_GE(calls.size(), 5U);
    EXPECT_EQ(calls[0], "snd_pcm_drop()");
    EXPECT_EQ(calls[1], "snd_pcm_writei(512) = -77");
    EXPECT_EQ(calls[2], "snd_pcm_prepare()");
    EXPECT_EQ(calls[3], "snd_pcm_close()");
    EXPECT_EQ(calls[4], "snd_pcm_open(plughw:0,0, PLAYBACK, 0)");

    ASSERT_TRUE(card().play(512)) << "and the fresh handle plays on";
    EXPECT_EQ(card().written(), framesFrom(0, 512));
}

// ------------------------------------------------------------------------------------------------- setDeviceName

TEST_F(AlsaSource, DeviceNameIsCutAtTwentyCharacters)
{
    build("plughw:CARD=ABCDEFGHIJKLMNOPQRSTUVWXYZ,DEV=0");
    ASSERT_EQ(block->init(), STREAM_OK);
    EXPECT_EQ(card().calls().at(0), "snd_pcm_open(plughw:CARD=ABCDEFGH, PLAYBACK, 0)");
}

TEST_F(AlsaSource, NewDeviceNameMovesToThatDevice)
{
    build();
    ASSERT_EQ(block->init(), STREAM_OK);
    card().clearCalls();
    testing::internal::CaptureStdout();
    EXPECT_EQ(block->setDeviceName("hw:1"), STREAM_OK);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), std::string(STOPPING) + RESTARTING);
    EXPECT_EQ(card().calls().at(1), "snd_pcm_close()");
    EXPECT_EQ(card().calls().at(2), "snd_pcm_open(hw:1, PLAYBACK, 0)");
}

TEST_F(AlsaSource, NewDeviceNameIsCutAtTwentyCharacters)
{
    build();
    EXPECT_EQ(block->setDeviceName("12345678901234567890X"), STREAM_OK);
    EXPECT_EQ(card().calls().at(0), "snd_pcm_open(12345678901234567890, PLAYBACK, 0)");
}

TEST_F(AlsaSource, NewDeviceThatFailsIsClosedAndStillOk)
{
    build();
    card().fail("snd_pcm_hw_params_set_channels", -EINVAL);
    setTraceLevel(1);
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    EXPECT_EQ(block->setDeviceName("hw:1"), STREAM_OK);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Error setting channels.\n");
    const std::string printed = withoutTimes(testing::internal::GetCapturedStdout());
    EXPECT_THAT(printed, testing::EndsWith(
                             std::string("(1):    Channels: \t\t2\n(1): Failed to initialize, stopping ALSA Device and "
                                         "dropping remaining frames.\n") +
                             RESTARTING));
    const auto calls = card().calls();
    EXPECT_EQ(calls[calls.size() - 2], "snd_pcm_drop()");
    EXPECT_EQ(calls[calls.size() - 1], "snd_pcm_close()");

    setTraceLevel(0);
    card().clearCalls();
    ASSERT_EQ(block->init(), STREAM_OK);
    EXPECT_EQ(card().calls().at(0), "snd_pcm_open(hw:1, PLAYBACK, 0)") << "it was closed once";
}

TEST_F(AlsaSource, NewDeviceThatCannotBeOpenedClosesNothing)
{
    build();
    card().fail("snd_pcm_open", -ENODEV, 5);
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    EXPECT_EQ(block->setDeviceName("hw:7"), STREAM_OK);
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                testing::EndsWith("Error opening PCM device hw:7 No such device. Failed!\n"));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_THAT(card().calls(), testing::SizeIs(5));
}

TEST_F(AlsaSource, GraphBufferDoesNothing)
{
    build();
    block->graphBuffer();
    EXPECT_THAT(card().calls(), IsEmpty());
}

// ----------------------------------------------------------------------------------------------------- the thread

TEST_F(AlsaSource, StoppedInputMakesNoRequestAndWakesEveryTenMilliseconds)
{
    build();
    ASSERT_EQ(block->init(), STREAM_OK);
    connect();
    card().clearCalls();
    EXPECT_EQ(card().nextSleep(), 10000U);
    EXPECT_EQ(card().nextSleep(), 10000U);
    EXPECT_EQ(card().nextSleep(), 10000U);
    EXPECT_THAT(card().calls(), IsEmpty());
}

TEST_F(AlsaSource, MutedInputMakesNoRequest)
{
    buildPlaying();
    port->muteAudio();
    EXPECT_EQ(card().nextSleep(), 10000U);
    EXPECT_EQ(card().nextSleep(), 10000U);
    EXPECT_THAT(card().calls(), IsEmpty());
}

TEST_F(AlsaSource, UnconnectedInputMakesNoWrite)
{
    build();
    ASSERT_EQ(block->init(), STREAM_OK);
    port->startAudio();
    card().clearCalls();
    EXPECT_EQ(card().nextSleep(), 10000U);
    EXPECT_EQ(card().nextSleep(), 10000U);
    EXPECT_THAT(card().calls(), IsEmpty());
}

TEST_F(AlsaSource, DeviceThatIsNotConfiguredGetsNoWrite)
{
    build();
    connect();
    port->startAudio();
    card().clearCalls();
    EXPECT_EQ(card().nextSleep(), 10000U);
    EXPECT_EQ(card().nextSleep(), 10000U);
    EXPECT_THAT(card().calls(), IsEmpty());
}

TEST_F(AlsaSource, StoppingEndsTheRequestsAfterTheWriteInProgress)
{
    buildPlaying();
    ASSERT_TRUE(card().play(512));
    port->stopAudio();
    card().clearCalls();
    card().allow(512);
    EXPECT_EQ(card().waitForSleep(), 100U);
    EXPECT_EQ(card().nextSleep(), 10000U);
    EXPECT_EQ(card().nextSleep(), 10000U);
    EXPECT_THAT(card().calls(), ElementsAre("snd_pcm_writei(512) = 512", "ack 2"));
}

TEST_F(AlsaSource, NothingOfferedIsAMillisecondsSleepAndNoWrite)
{
    buildPlaying();
    source.out->numPeriodsOffered = 0;
    EXPECT_EQ(card().nextSleep(), 1000U);
    EXPECT_EQ(card().nextSleep(), 1000U);
    EXPECT_THAT(card().calls(), ElementsAre("req", "req"));
}

TEST_F(AlsaSource, OfferedPeriodsAreWrittenAndAcknowledged)
{
    buildPlaying();
    card().answerWrites({512, 512});
    EXPECT_EQ(card().nextSleep(), 100U);
    EXPECT_EQ(card().nextSleep(), 100U);
    EXPECT_THAT(card().calls(),
                ElementsAre("req", "snd_pcm_writei(512) = 512", "ack 2", "req", "snd_pcm_writei(512) = 512", "ack 2"));
    EXPECT_EQ(card().written(), framesFrom(0, 1024));
    EXPECT_EQ(port->getPeriodCount(), 4);
}

TEST_F(AlsaSource, RateOfTheInputStaysAsStartAudioSetIt)
{
    buildPlaying();
    ASSERT_TRUE(card().play(5120));
    EXPECT_EQ(port->avgRate, 48000.0F) << "the input counts periods without measuring";
}

TEST_F(AlsaSource, ShortWriteOfWholePeriodsIsAcknowledgedAsFarAsItWent)
{
    buildPlaying();
    source.out->numPeriodsOffered = 4;
    card().answerWrites({256, 1024});
    const std::string printed = printedUntilSleep(100);
    EXPECT_EQ(card().nextSleep(), 100U);
    EXPECT_EQ(printed, "");
    EXPECT_THAT(card().calls(), ElementsAre("req", "snd_pcm_writei(1024) = 256", "ack 1", "req",
                                            "snd_pcm_writei(1024) = 1024", "ack 4"));
    EXPECT_EQ(card().written(), framesFrom(0, 1280));
}

TEST_F(AlsaSource, BusyCardIsOfferedTheSameAgainWithoutAnAcknowledge)
{
    buildPlaying();
    card().answerWrites({-EAGAIN, -EAGAIN, 512});
    EXPECT_EQ(printedUntilSleep(100), "");
    EXPECT_THAT(card().calls(), ElementsAre("req", "snd_pcm_writei(512) = -11", "req", "snd_pcm_writei(512) = -11",
                                            "req", "snd_pcm_writei(512) = 512", "ack 2"));
    EXPECT_EQ(card().written(), framesFrom(0, 512));
    EXPECT_EQ(port->getPeriodCount(), 2);
}

TEST_F(AlsaSource, WriteOfNothingIsFollowedByAnotherRequest)
{
    buildPlaying();
    card().answerWrites({0, 512});
    EXPECT_EQ(printedUntilSleep(100), "");
    EXPECT_THAT(card().calls(),
                ElementsAre("req", "snd_pcm_writei(512) = 0", "req", "snd_pcm_writei(512) = 512", "ack 2"));
}

TEST_F(AlsaSource, UnderrunIsPreparedToldAndTheSameFramesOfferedAgain)
{
    buildPlaying();
    card().answerWrites({256, -EPIPE, 512});
    source.out->numPeriodsOffered = 2;
    ASSERT_EQ(card().nextSleep(), 100U);
    card().clearCalls();
    EXPECT_EQ(printedUntilSleep(100), "(0): -32 <<<<<<<<<<<<<<< Buffer Underrun >>>>>>>>>>>>>>>>>>>>>\n");
    EXPECT_THAT(card().calls(), ElementsAre("req", "snd_pcm_writei(512) = -32", "snd_pcm_prepare()", "req",
                                            "snd_pcm_writei(512) = 512", "ack 2"));
    EXPECT_EQ(card().written(), framesFrom(0, 768));
}

TEST_F(AlsaSource, EveryOtherErrorIsTreatedAsAnUnderrunForEver)
{
    buildPlaying();
    card().answerWrites({-ENODEV, -EIO, -ESTRPIPE, 512});
    card().fail("snd_pcm_prepare", -ENODEV, 3);
    EXPECT_EQ(printedUntilSleep(100), "(0): -19 <<<<<<<<<<<<<<< Buffer Underrun >>>>>>>>>>>>>>>>>>>>>\n"
                                      "(0): -5 <<<<<<<<<<<<<<< Buffer Underrun >>>>>>>>>>>>>>>>>>>>>\n"
                                      "(0): -86 <<<<<<<<<<<<<<< Buffer Underrun >>>>>>>>>>>>>>>>>>>>>\n");
    EXPECT_EQ(card().written(), framesFrom(0, 512));
}

TEST_F(AlsaSource, PartOfAPeriodIsToldAndSentASecondTime)
{
    buildPlaying();
    card().answerWrites({300, 512});
    EXPECT_EQ(printedUntilSleep(100), "(0): ERROR! Transferred 300 frames to the buffer. PS: 256\n");
    EXPECT_EQ(card().nextSleep(), 100U);
    EXPECT_THAT(card().calls(),
                ElementsAre("req", "snd_pcm_writei(512) = 300", "ack 1", "req", "snd_pcm_writei(512) = 512", "ack 2"));
    EXPECT_EQ(card().written(), framesFrom(0, 300) + framesFrom(256, 512));
    EXPECT_EQ(port->getPeriodCount(), 3);
}

TEST_F(AlsaSource, LessThanAPeriodAcknowledgesNone)
{
    buildPlaying();
    card().answerWrites({255, 512});
    EXPECT_EQ(printedUntilSleep(100), "(0): ERROR! Transferred 255 frames to the buffer. PS: 256\n");
    EXPECT_EQ(port->getPeriodCount(), 0);
    EXPECT_EQ(card().nextSleep(), 100U);
    EXPECT_THAT(card().calls(),
                ElementsAre("req", "snd_pcm_writei(512) = 255", "ack 0", "req", "snd_pcm_writei(512) = 512", "ack 2"));
    EXPECT_EQ(card().written(), framesFrom(0, 255) + framesFrom(0, 512));
}

TEST_F(AlsaSource, WriteTakesAtMostTheCardsBuffer)
{
    buildPlaying();
    source.out->numPeriodsOffered = 19;
    card().answerWrites({1 << 20});
    EXPECT_EQ(card().nextSleep(), 100U);
    EXPECT_THAT(card().calls(), ElementsAre("req", "snd_pcm_writei(4608) = 4608", "ack 18"));
}

TEST_F(AlsaSource, CountOfFramesAfterARunDryRingIsBoundByTheCardsBuffer)
{
    buildPlaying();
    source.out->numPeriodsOffered = 23040; // half of a ring of 180 periods, in frames
    card().answerWrites({1 << 20});
    EXPECT_EQ(card().nextSleep(), 100U);
    EXPECT_THAT(card().calls(), ElementsAre("req", "snd_pcm_writei(4608) = 4608", "ack 18"));
    EXPECT_EQ(card().written(), framesFrom(0, 4608));
}

TEST_F(AlsaSource, OfferWhoseFramesPassThirtyTwoBitsIsBoundToo)
{
    buildPlaying();
    source.out->numPeriodsOffered = 0x01000000; // times 256 is 2^32
    card().answerWrites({1 << 20});
    EXPECT_EQ(card().nextSleep(), 100U);
    EXPECT_THAT(card().calls(), ElementsAre("req", "snd_pcm_writei(4608) = 4608", "ack 18"));
}

TEST_F(AlsaSource, StatusOfARequestIsNotLookedAt)
{
    buildPlaying();
    source.out->answer = STREAM_ERROR;
    card().answerWrites({512});
    EXPECT_EQ(card().nextSleep(), 100U);
    EXPECT_THAT(card().calls(), ElementsAre("req", "snd_pcm_writei(512) = 512", "ack 2"));
}

TEST_F(AlsaSource, EachPassIsToldAtTraceLevelEight)
{
    buildPlaying();
    setTraceLevel(8);
    card().answerWrites({256});
    EXPECT_EQ(printedUntilSleep(100), "(8): Mixer request returned 2 periods.\n"
                                      "(8): ALSA accepted 256 frames and 1 periods.\n");
}

TEST_F(AlsaSource, FramesOfSixteenBitsReachTheCardAsTheyAre)
{
    build("plughw:0,0", 48000.0F, SAMPLE_S16BIT_LE);
    ASSERT_EQ(block->init(), STREAM_OK);
    EXPECT_EQ(card().calls().at(3), "snd_pcm_hw_params_set_format(2)");
    connect();
    port->startAudio();
    ASSERT_TRUE(card().play(256));
    EXPECT_EQ(card().writtenBytes().size(), 256U * 4);
}

TEST_F(AlsaSource, LoopAllocatesNothingOverThousandsOfPeriods)
{
    buildPlaying();
    ASSERT_TRUE(card().play(512));
    card().record(false);
    source.out->noting = false;
    source.out->numPeriodsOffered = 1;
    countAllocations = true;
    ASSERT_TRUE(card().play(512 + 5000 * 256));
    countAllocations = false;
    EXPECT_EQ(allocationsOfPlayback, 0);
    EXPECT_EQ(port->getPeriodCount(), 2 + 2 + 5000);
}

// -------------------------------------------------------------------------------------------------- destruction

TEST_F(AlsaSource, DestructorEndsTheThreadThenStopsTheDevice)
{
    build();
    ASSERT_EQ(block->init(), STREAM_OK);
    card().clearCalls();
    testing::internal::CaptureStdout();
    removeBlock();
    EXPECT_EQ(withoutTimes(testing::internal::GetCapturedStdout()),
              std::string("(0): ASLA Write samples terminating\n") + STOPPING + STOPPING +
                  "(0): Removed ALSA_SOURCE from CAudioBlock::allBlocks\n");
    EXPECT_THAT(card().calls(), ElementsAre("snd_pcm_drop()", "snd_pcm_close()"));
    EXPECT_THAT(card().ownerSleeps(), ElementsAre(10000U, 10000U));
    EXPECT_FALSE(card().isOpen());
}

TEST_F(AlsaSource, DestructorWithoutADeviceMakesNoCallToTheCard)
{
    build();
    testing::internal::CaptureStdout();
    removeBlock();
    EXPECT_EQ(withoutTimes(testing::internal::GetCapturedStdout()),
              std::string("(0): ASLA Write samples terminating\n") + STOPPING +
                  "(0): Removed ALSA_SOURCE from CAudioBlock::allBlocks\n");
    EXPECT_THAT(card().calls(), IsEmpty());
}

TEST_F(AlsaSource, DestructorLeavesADeviceThatWasNeverConfigured)
{
    build();
    card().fail("snd_pcm_hw_params", -EBUSY);
    initErrors(STREAM_ERROR);
    card().clearCalls();
    testing::internal::CaptureStdout();
    removeBlock();
    EXPECT_EQ(withoutTimes(testing::internal::GetCapturedStdout()),
              std::string("(0): ASLA Write samples terminating\n") + STOPPING +
                  "(0): Removed ALSA_SOURCE from CAudioBlock::allBlocks\n");
    EXPECT_THAT(card().calls(), IsEmpty());
}

TEST_F(AlsaSource, DestructorWaitsForTheWriteInProgress)
{
    buildPlaying();
    ASSERT_TRUE(card().play(512));
    card().clearCalls();
    removeBlock();
    EXPECT_EQ(card().calls().at(0), "snd_pcm_writei(512) = -11");
    EXPECT_EQ(card().calls()[card().calls().size() - 2], "snd_pcm_drop()");
    EXPECT_EQ(card().calls().back(), "snd_pcm_close()");
}

TEST_F(AlsaSource, BlocksComeAndGoWithoutALeftover)
{
    testing::internal::CaptureStdout();
    for (int i = 0; i < 100; i++) { // more than there are slots for threads and mutexes
        build();
        ASSERT_EQ(block->init(), STREAM_OK);
        removeBlock();
    }
    EXPECT_THAT(testing::internal::GetCapturedStdout(), testing::Not(HasSubstr("ERROR")));
    EXPECT_FALSE(card().isOpen());
}

} // namespace
