#include "audioLibrary/sampleRateConverter.h"
#include "audioLibrary/asrcFake.h"
#include "audioLibrary/literalBlocks.h"
#include "audioLibrary/ownDirectory.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <limits>
#include <memory>
#include <numeric>
#include <unistd.h>

using namespace audioLibrarySpace;
using namespace literal;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

namespace
{

class OpenConverter : public CSampleRateConverter
{
public:
    using CSampleRateConverter::asrc;
    using CSampleRateConverter::asrcCfg;
    using CSampleRateConverter::CSampleRateConverter;
    using CSampleRateConverter::in_ptr_frames;
    using CSampleRateConverter::in_workbuffer_frames;
    using CSampleRateConverter::isConfigured;
    using CSampleRateConverter::isInitialized;
    using CSampleRateConverter::isManualRateConfig;
    using CSampleRateConverter::lastOutFrames;
    using CSampleRateConverter::out_ptr_frames;
    using CSampleRateConverter::out_workbuffer_frames;
    using CSampleRateConverter::workBufferFull;
};

/** A converter on a scripted core: source of 6 frames to a period at 44100 Hz, reader of 4 frames at 48000 Hz. */
class Converter : public testing::Test
{
protected:
    Converter()
    {
        asrcFake = AsrcFake{};
        std::vector<short> filter(8192);
        std::iota(filter.begin(), filter.end(), short{-100});
        directory.write("FilterCoeff.bin", filter);
    }

    OwnDirectory directory;
    Source source{shape(44100.0F, 0.0F, 2, SAMPLE_S16BIT_LE, 6)};
    Sink mix{shape(48000.0F, 0.0F, 2, SAMPLE_S16BIT_LE, 4), "MIX"};
    std::unique_ptr<OpenConverter> converter = std::make_unique<OpenConverter>("RATE_CONVERTER_1");
    CServiceTime next;

    CUpstreamPort& out() { return *converter->getUpstreamPort(0); }
    CDownstreamPort& in() { return *converter->getDownstreamPort(0); }
    void connectIn() { ASSERT_EQ(source.port().connectDownstream(&in(), nullptr), STREAM_OK); }
    void connectOut() { ASSERT_EQ(out().connectDownstream(&mix.port(), nullptr), STREAM_OK); }
    /** Initialised, connected and configured, with nothing moved and no call noted yet. */
    void configure()
    {
        converter->init();
        connectIn();
        connectOut();
        converter->myInit();
        asrcFake.calls.clear();
    }
    streamStatus service() { return converter->service(next); }
    bool nextIsNever()
    {
        CServiceTime never;
        never.setNeverService();
        return next == never;
    }
    std::vector<short> outSamples(size_t count)
    {
        std::vector<short> samples(count);
        std::memcpy(samples.data(), converter->out_workbuffer_frames, count * 2);
        return samples;
    }
};

using ConverterFilter = Converter;
using ConverterSetup = Converter;
using ConverterService = Converter;
using ConverterBuffers = Converter;
using ConverterOutput = Converter;
using ConverterNegotiation = Converter;

std::vector<int16_t> numbers(int from, int count)
{
    std::vector<int16_t> all(static_cast<size_t>(count));
    std::iota(all.begin(), all.end(), static_cast<int16_t>(from));
    return all;
}

int lowestFreeDescriptor()
{
    const int fd = open("/dev/null", O_RDONLY);
    close(fd);
    return fd;
}

} // namespace

// ---- Construction ----

TEST_F(Converter, StartsWithoutAConverter)
{
    EXPECT_EQ(converter->getRunTimeId(), SAMPLE_RATE_CONVERTER);
    EXPECT_EQ(out().getRunTimeId(), SAMPLE_RATE_CONVERTER_USP);
    EXPECT_EQ(in().getRunTimeId(), SAMPLE_RATE_CONVERTER_DSP);
    EXPECT_EQ(converter->asrc, nullptr);
    EXPECT_EQ(converter->in_workbuffer_frames, nullptr);
    EXPECT_EQ(converter->out_workbuffer_frames, nullptr);
    EXPECT_EQ(converter->in_ptr_frames, 0U);
    EXPECT_EQ(converter->out_ptr_frames, 0U);
    EXPECT_FALSE(converter->workBufferFull);
    EXPECT_FALSE(converter->isConfigured);
    EXPECT_EQ(converter->lastOutFrames, -1);
    EXPECT_THAT(asrcFake.calls, IsEmpty());
}

TEST_F(Converter, OutputFollowsWithAllButFormatInterleavingAndNominalRate)
{
    const audioPortParam_t& p = out().params;
    EXPECT_EQ(p.nominalSampleRate, 48000.0F);
    EXPECT_EQ(p.nominalSampleRateStatus, FIXED);
    EXPECT_EQ(p.trueSampleRate, 0.0F);
    EXPECT_EQ(p.trueSampleRateStatus, VARIABLE);
    EXPECT_EQ(p.numChannels, 2U);
    EXPECT_EQ(p.numChannelsStatus, VARIABLE);
    EXPECT_EQ(p.sampleFormat, SAMPLE_S16BIT_LE);
    EXPECT_EQ(p.sampleFormatStatus, FIXED);
    EXPECT_TRUE(p.samplesInterleaved);
    EXPECT_EQ(p.samplesInterleavedStatus, FIXED);
    EXPECT_EQ(p.periodSize, 1024U);
    EXPECT_EQ(p.periodSizeStatus, VARIABLE);
}

TEST_F(Converter, InputFollowsWithAllButFormatAndInterleaving)
{
    const audioPortParam_t& p = in().params;
    EXPECT_EQ(p.nominalSampleRate, 44100.0F);
    EXPECT_EQ(p.nominalSampleRateStatus, VARIABLE);
    EXPECT_EQ(p.trueSampleRate, 0.0F);
    EXPECT_EQ(p.trueSampleRateStatus, VARIABLE);
    EXPECT_EQ(p.numChannels, 2U);
    EXPECT_EQ(p.numChannelsStatus, VARIABLE);
    EXPECT_EQ(p.sampleFormat, SAMPLE_S16BIT_LE);
    EXPECT_EQ(p.sampleFormatStatus, FIXED);
    EXPECT_TRUE(p.samplesInterleaved);
    EXPECT_EQ(p.samplesInterleavedStatus, FIXED);
    EXPECT_EQ(p.periodSize, 2048U);
    EXPECT_EQ(p.periodSizeStatus, VARIABLE);
}

// ---- The filter file ----

TEST_F(ConverterFilter, IsLoadedWhole)
{
    Trace output(0);
    const int fd = lowestFreeDescriptor();
    EXPECT_EQ(converter->populateFilterCoeff(&asrcFake), ASRC_OK);
    EXPECT_EQ(lowestFreeDescriptor(), fd);
    EXPECT_EQ(output.stop(), "Loading 8192 taps\n");
    ASSERT_EQ(asrcFake.coefficients.size(), 8192U);
    EXPECT_EQ(asrcFake.coefficients.front(), -100);
    EXPECT_EQ(asrcFake.coefficients.back(), 8091);
}

TEST_F(ConverterFilter, MissingFileIsTold)
{
    directory.remove("FilterCoeff.bin");
    ErrorText errors;
    EXPECT_EQ(converter->populateFilterCoeff(&asrcFake), ASRC_ERROR);
    EXPECT_EQ(errors.stop(), "Unable to open filter coefficent file\n");
    EXPECT_THAT(asrcFake.calls, IsEmpty());
}

TEST_F(ConverterFilter, ShortFileEndsTheLoadAndStoresNothing)
{
    directory.write("FilterCoeff.bin", std::vector<short>(8191, 1));
    ErrorText errors;
    const int fd = lowestFreeDescriptor();
    EXPECT_EQ(converter->populateFilterCoeff(&asrcFake), ASRC_ERROR);
    EXPECT_EQ(lowestFreeDescriptor(), fd);
    EXPECT_EQ(errors.stop(), "Unable to read filter coefficient file\n");
    EXPECT_THAT(asrcFake.calls, IsEmpty());
}

TEST_F(ConverterFilter, EmptyFileAndDirectoryEndTheLoad)
{
    directory.write("FilterCoeff.bin", {});
    ErrorText errors;
    EXPECT_EQ(converter->populateFilterCoeff(&asrcFake), ASRC_ERROR);
    directory.remove("FilterCoeff.bin");
    std::filesystem::create_directory("FilterCoeff.bin");
    EXPECT_EQ(converter->populateFilterCoeff(&asrcFake), ASRC_ERROR);
    errors.stop();
}

TEST_F(ConverterFilter, WhatFollowsTheTableIsNotRead)
{
    directory.write("FilterCoeff.bin", std::vector<short>(9000, 3));
    EXPECT_EQ(converter->populateFilterCoeff(&asrcFake), ASRC_OK);
    EXPECT_THAT(asrcFake.coefficients, Each(3));
}

// ---- init and myInit ----

TEST_F(ConverterSetup, InitMakesAStereoConverterWithItsFilter)
{
    EXPECT_EQ(converter->init(), STREAM_OK);
    EXPECT_THAT(asrcFake.calls, ElementsAre("init 2", "copyFilter"));
    EXPECT_EQ(converter->asrcCfg.nChannels, 2U);
    EXPECT_NE(converter->asrc, nullptr);
    EXPECT_TRUE(converter->isInitialized);
    EXPECT_FALSE(converter->isConfigured);
}

TEST_F(ConverterSetup, InitWithoutAConverterStillReadsTheFilterAndFails)
{
    asrcFake.initFails = true;
    Trace trace(0);
    EXPECT_EQ(converter->init(), STREAM_ERROR);
    EXPECT_THAT(trace.lines(), ElementsAre("0 Unable to allocate ASRC object", "Loading 8192 taps"));
    EXPECT_TRUE(converter->isInitialized);
    EXPECT_EQ(converter->init(), STREAM_OK); // already initialised
}

TEST_F(ConverterSetup, InitWithoutAFilterGoesOnInSilence)
{
    directory.remove("FilterCoeff.bin");
    ErrorText errors;
    Trace trace(0);
    EXPECT_EQ(converter->init(), STREAM_OK);
    EXPECT_THAT(trace.lines(), ElementsAre("Loading 8192 taps", "0 Unable to populate filter coefficients"));
    EXPECT_EQ(errors.stop(), "Unable to open filter coefficent file\n");
    EXPECT_NE(converter->asrc, nullptr);
}

TEST_F(ConverterSetup, InitAgainReplacesTheConverter)
{
    converter->init();
    const asrcHandle first = converter->asrc;
    EXPECT_EQ(converter->init(), STREAM_OK);
    EXPECT_NE(converter->asrc, first);
    EXPECT_THAT(asrcFake.destroyed, ElementsAre(first));
}

TEST_F(ConverterSetup, MyInitKeepsAConverterOfTheSameChannels)
{
    converter->init();
    connectIn();
    connectOut();
    asrcFake.calls.clear();
    Trace trace(0);
    EXPECT_EQ(converter->myInit(), STREAM_OK);
    EXPECT_THAT(trace.lines(), ElementsAre("0 Rates 44100.000000 Hz => 48000.000000 Hz Ratio: 0.918750, 2 channels"));
    EXPECT_THAT(asrcFake.calls, ElementsAre("setRates 44100 48000"));
    EXPECT_TRUE(converter->isConfigured);
    ASSERT_NE(converter->in_workbuffer_frames, nullptr);
    ASSERT_NE(converter->out_workbuffer_frames, nullptr);
    EXPECT_THAT(std::vector<char>(converter->in_workbuffer_frames, converter->in_workbuffer_frames + 24), Each('\0'));
    EXPECT_THAT(std::vector<char>(converter->out_workbuffer_frames, converter->out_workbuffer_frames + 16), Each('\0'));
}

TEST_F(ConverterSetup, MyInitRebuildsForAnotherChannelCountAndDropsTheOldHandle)
{
    converter->init();
    const asrcHandle old = converter->asrc;
    in().params.numChannels = 1;
    asrcFake.calls.clear();
    Trace trace(0);
    EXPECT_EQ(converter->myInit(), STREAM_OK);
    EXPECT_THAT(trace.lines(), ElementsAre("0 Reinitialize asrc.", "Loading 8192 taps",
                                           "0 Rates 44100.000000 Hz => 48000.000000 Hz Ratio: 0.918750, 1 channels"));
    EXPECT_THAT(asrcFake.calls, ElementsAre("init 1", "copyFilter", "setRates 44100 48000"));
    EXPECT_EQ(converter->asrcCfg.nChannels, 1U);
    EXPECT_NE(converter->asrc, old);
    EXPECT_THAT(asrcFake.destroyed, IsEmpty());
}

TEST_F(ConverterSetup, MyInitWithoutAConverterEndsUnconfigured)
{
    asrcFake.initFails = true;
    Trace trace(0);
    EXPECT_EQ(converter->myInit(), STREAM_ERROR);
    EXPECT_THAT(trace.lines(),
                ElementsAre("0 Reinitialize asrc.", "0 Unable to allocate ASRC object", "Loading 8192 taps",
                            "0 Rates 44100.000000 Hz => 48000.000000 Hz Ratio: 0.918750, 2 channels"));
    EXPECT_FALSE(converter->isConfigured);
    EXPECT_EQ(converter->in_workbuffer_frames, nullptr);
    EXPECT_THAT(asrcFake.calls, ElementsAre("init 2"));
}

TEST_F(ConverterSetup, MyInitTellsRefusedRatesAndRunsAllTheSame)
{
    converter->init();
    asrcFake.setRatesAnswer = ASRC_ERROR;
    Trace trace(0);
    EXPECT_EQ(converter->myInit(), STREAM_ERROR);
    EXPECT_THAT(trace.lines(), ElementsAre("0 Rates 44100.000000 Hz => 48000.000000 Hz Ratio: 0.918750, 2 channels",
                                           "0 Unable to set interpolation rates of 44100=>48000"));
    EXPECT_TRUE(converter->isConfigured);
}

TEST_F(ConverterSetup, MyInitAgainKeepsTheWorkBuffers)
{
    configure();
    char* const inBuffer = converter->in_workbuffer_frames;
    char* const outBuffer = converter->out_workbuffer_frames;
    in().params.periodSize = 100;
    EXPECT_EQ(converter->myInit(), STREAM_OK);
    EXPECT_EQ(converter->in_workbuffer_frames, inBuffer);
    EXPECT_EQ(converter->out_workbuffer_frames, outBuffer);
}

TEST_F(ConverterSetup, RatesAreSetByHandWithAWordOnFailure)
{
    configure();
    {
        Trace trace(0);
        EXPECT_EQ(converter->setRates(32000, 48000), STREAM_OK);
        EXPECT_THAT(trace.lines(), ElementsAre("0 Rates 44100.000000 Hz => 48000.000000 Hz Ratio: 0.918750, 2 channels",
                                               "0 Rates 32000 Hz => 48000 Hz Ratio: 0.666667, 2 channels"));
    }
    EXPECT_TRUE(converter->isManualRateConfig);
    EXPECT_THAT(asrcFake.calls, ElementsAre("setRates 44100 48000", "setRates 32000 48000"));
    asrcFake.setRatesAnswer = ASRC_ERROR;
    Trace trace(0);
    EXPECT_EQ(converter->setRates(96000, 48000), STREAM_ERROR);
    const auto lines = trace.lines();
    EXPECT_EQ(lines.back(), "0 Unable to set interpolation rates of 96000=>48000");
}

TEST_F(ConverterSetup, RatesByHandWithoutAConverterFail)
{
    asrcFake.initFails = true;
    EXPECT_EQ(converter->setRates(44100, 48000), STREAM_ERROR);
}

TEST_F(ConverterSetup, DestructionDestroysTheConverter)
{
    configure();
    const asrcHandle handle = converter->asrc;
    source.port().disconnect(); // destroys it, and leaves nothing to the destructor
    EXPECT_THAT(asrcFake.destroyed, ElementsAre(handle));
    converter->init();
    const asrcHandle second = converter->asrc;
    converter.reset();
    EXPECT_THAT(asrcFake.destroyed, ElementsAre(handle, second));
}

TEST_F(ConverterSetup, DisconnectOnEitherSideFreesConverterAndBuffers)
{
    for (const bool atInput : {true, false}) {
        configure();
        converter->in_ptr_frames = 3;
        converter->out_ptr_frames = 2;
        converter->workBufferFull = true;
        asrcFake.destroyed.clear();
        const asrcHandle handle = converter->asrc;
        EXPECT_EQ(atInput ? in().disconnect() : out().disconnect(), STREAM_OK);
        EXPECT_THAT(asrcFake.destroyed, ElementsAre(handle));
        EXPECT_EQ(converter->asrc, nullptr);
        EXPECT_FALSE(converter->isConfigured);
        EXPECT_EQ(converter->in_workbuffer_frames, nullptr);
        EXPECT_EQ(converter->out_workbuffer_frames, nullptr);
        EXPECT_EQ(converter->in_ptr_frames, 3U); // how far it had got is kept
        EXPECT_EQ(converter->out_ptr_frames, 2U);
        EXPECT_TRUE(converter->workBufferFull);
        EXPECT_FALSE((atInput ? static_cast<CAudioPort&>(in()) : out()).isConnected(nullptr));
        in().disconnect();
        out().disconnect();
    }
}

TEST_F(ConverterSetup, AfterADisconnectEverythingIsBuiltAnew)
{
    configure();
    in().disconnect();
    connectIn();
    Trace trace(0);
    service();
    EXPECT_THAT(trace.lines(), Contains("0 Reinitialize asrc."));
    EXPECT_TRUE(converter->isConfigured);
}

// ---- service ----

TEST_F(ConverterService, WithOnePortUnconnectedDoesNothing)
{
    converter->init();
    asrcFake.calls.clear();
    connectIn();
    EXPECT_EQ(service(), STREAM_OK);
    EXPECT_TRUE(nextIsNever());
    in().disconnect();
    connectOut();
    asrcFake.calls.clear();
    next = CServiceTime();
    EXPECT_EQ(service(), STREAM_OK);
    EXPECT_TRUE(nextIsNever());
    EXPECT_THAT(asrcFake.calls, IsEmpty());
    EXPECT_FALSE(converter->isConfigured);
}

TEST_F(ConverterService, FirstPassConfiguresAndRuns)
{
    converter->init();
    connectIn();
    connectOut();
    asrcFake.calls.clear();
    EXPECT_EQ(service(), STREAM_OK);
    EXPECT_TRUE(nextIsNever());
    EXPECT_THAT(asrcFake.calls,
                ElementsAre("setRates 44100 48000", "setRates 44100 48000", "reqIn", "write 6", "readOut 4"));
    EXPECT_TRUE(converter->workBufferFull);
}

TEST_F(ConverterService, WithoutAConverterNothingRunsAndTheNextPassTriesAgain)
{
    connectIn();
    connectOut();
    asrcFake.initFails = true;
    EXPECT_EQ(service(), STREAM_OK);
    EXPECT_THAT(asrcFake.calls, ElementsAre("init 2"));
    asrcFake.initFails = false;
    EXPECT_EQ(service(), STREAM_OK);
    EXPECT_TRUE(converter->isConfigured);
}

TEST_F(ConverterService, UnsteeredSetsTheNominalRatesOnEveryPassWithoutAWord)
{
    configure();
    converter->workBufferFull = true;
    Trace trace(5);
    service();
    service();
    EXPECT_THAT(asrcFake.calls, ElementsAre("setRates 44100 48000", "setRates 44100 48000"));
    EXPECT_THAT(trace.lines(), IsEmpty());
}

TEST_F(ConverterService, ABelowZeroTrueRateIsUnsteered)
{
    configure();
    converter->workBufferFull = true;
    out().params.trueSampleRate = -1.0F;
    mix.port().params.trueSampleRate = 47982.0F;
    service();
    EXPECT_THAT(asrcFake.calls, ElementsAre("setRates 44100 48000"));
}

TEST_F(ConverterService, SteeredFollowsTheDemandInWholeHertz)
{
    configure();
    converter->workBufferFull = true;
    out().params.trueSampleRate = 48000.0F;
    mix.port().params.trueSampleRate = 47982.75F;
    Trace trace(5);
    service();
    EXPECT_THAT(asrcFake.calls, ElementsAre("setRates 44100 47982"));
    EXPECT_EQ(out().params.trueSampleRate, 47982.75F);
    service(); // nothing has moved
    EXPECT_EQ(asrcFake.calls.size(), 1U);
    mix.port().params.trueSampleRate = 47982.5F; // less than a hertz
    service();
    EXPECT_THAT(asrcFake.calls, ElementsAre("setRates 44100 47982", "setRates 44100 47982"));
    // 44100 / 47982.75 and 44100 / 47982.5
    EXPECT_THAT(trace.lines(), ElementsAre("5 Tracking rate to   44100.000000 => 47982.750000    Ratio: 0.919080.",
                                           "5 Tracking rate to   44100.000000 => 47982.500000    Ratio: 0.919085."));
}

TEST_F(ConverterService, ARateThatIsNoWholeNumberOf32BitsSaturates)
{
    configure();
    converter->workBufferFull = true;
    in().params.nominalSampleRate = 5e9F;
    service();
    in().params.nominalSampleRate = -1.0F;
    service();
    in().params.nominalSampleRate = std::numeric_limits<float>::quiet_NaN();
    service();
    EXPECT_THAT(asrcFake.calls, ElementsAre("setRates 4294967295 48000", "setRates 0 48000", "setRates 0 48000"));
}

TEST_F(ConverterService, SteeredFollowsASourceThatLearnsItsRateLate)
{
    configure();
    converter->workBufferFull = true;
    out().params.trueSampleRate = mix.port().params.trueSampleRate = 48000.0F;
    source.port().params.nominalSampleRate = 22050.0F;
    service();
    EXPECT_THAT(asrcFake.calls, ElementsAre("setRates 22050 48000"));
    EXPECT_EQ(in().params.nominalSampleRate, 22050.0F);
}

TEST_F(ConverterService, RefusedRatesStopNothing)
{
    configure();
    asrcFake.setRatesAnswer = ASRC_ERROR;
    out().params.trueSampleRate = 48000.0F;
    EXPECT_EQ(service(), STREAM_OK);
    EXPECT_TRUE(converter->workBufferFull);
    EXPECT_TRUE(nextIsNever());
}

// ---- serviceBuffers ----

TEST_F(ConverterBuffers, FeedsOnePeriodOfSilenceBeforeItAsksTheSource)
{
    configure();
    source.port().give(numbers(1, 24));
    asrcFake.outFrames = {0, 4};
    EXPECT_EQ(converter->serviceBuffers(), STREAM_OK);
    EXPECT_THAT(asrcFake.calls, ElementsAre("reqIn", "write 6", "readOut 4", "reqIn", "write 6", "readOut 4"));
    std::vector<short> expected(12, 0);
    const auto first = numbers(1, 12);
    expected.insert(expected.end(), first.begin(), first.end());
    EXPECT_EQ(asrcFake.written, expected);
    EXPECT_EQ(source.port().requests, 1U);
}

TEST_F(ConverterBuffers, TakesOnePeriodHoweverManyAreOffered)
{
    configure();
    converter->in_ptr_frames = 6;
    source.port().give(numbers(1, 12 * 8));
    EXPECT_EQ(converter->serviceBuffers(), STREAM_OK);
    EXPECT_THAT(source.port().acks, ElementsAre(1U));
    EXPECT_EQ(in().getPeriodCount(), 1);
    EXPECT_EQ(asrcFake.written, numbers(1, 12));
    EXPECT_EQ(converter->in_ptr_frames, 6U);
}

TEST_F(ConverterBuffers, FeedsInThePiecesThatTheConverterTakes)
{
    configure();
    converter->in_ptr_frames = 6;
    source.port().give(numbers(1, 24));
    asrcFake.roomFrames = 4;
    asrcFake.outFrames = {1, 1, 1, 1};
    converter->serviceBuffers();
    EXPECT_THAT(asrcFake.calls, ElementsAre("reqIn", "write 4", "readOut 4", "reqIn", "write 2", "readOut 3", "reqIn",
                                            "write 4", "readOut 2", "reqIn", "write 2", "readOut 1"));
    EXPECT_EQ(asrcFake.written, numbers(1, 24));
    EXPECT_EQ(outSamples(8), numbers(1, 8)); // four frames, each behind the other
    EXPECT_TRUE(converter->workBufferFull);
    EXPECT_EQ(converter->out_ptr_frames, 4U);
    EXPECT_EQ(converter->lastOutFrames, 1);
}

TEST_F(ConverterBuffers, AFullPeriodWaitsForTheReader)
{
    configure();
    converter->workBufferFull = true;
    EXPECT_EQ(converter->serviceBuffers(), STREAM_OK);
    EXPECT_THAT(asrcFake.calls, IsEmpty());
    EXPECT_EQ(converter->lastOutFrames, 1);
}

TEST_F(ConverterBuffers, ASourceWithoutDataEndsThePassAfterAnEmptyConversion)
{
    configure();
    converter->in_ptr_frames = 6;
    asrcFake.outFrames = {2, 0, 0};
    Trace trace(8);
    EXPECT_EQ(converter->serviceBuffers(), STREAM_OK);
    // What the converter still holds comes out first.
    EXPECT_THAT(asrcFake.calls, ElementsAre("readOut 4", "readOut 2"));
    EXPECT_THAT(trace.lines(),
                ElementsAre("8 Total Frames in output buffer: 2 ", "8 Total Frames in output buffer: 2 ",
                            "8 ASRC Produced 0 frames and failed to request new samples from downstream block"));
    EXPECT_EQ(source.port().requests, 3U);
    EXPECT_THAT(source.port().acks, IsEmpty());
    EXPECT_FALSE(converter->workBufferFull);
    EXPECT_EQ(in().getPeriodCount(), 0);
}

TEST_F(ConverterBuffers, TwoEmptyConversionsEndThePass)
{
    configure();
    asrcFake.roomFrames = 1;
    asrcFake.outFrames = {0, 0};
    Trace trace(8);
    EXPECT_EQ(converter->serviceBuffers(), STREAM_OK);
    EXPECT_THAT(asrcFake.calls, ElementsAre("reqIn", "write 1", "readOut 4", "reqIn", "write 1", "readOut 4"));
    EXPECT_THAT(trace.lines(),
                ElementsAre("8 Total Frames in output buffer: 0 ", "8 ASRC Failed to produce samples twice in a row."));
    EXPECT_EQ(converter->lastOutFrames, 0);
}

TEST_F(ConverterBuffers, TransfersAreTracedAtLevel9)
{
    configure();
    Trace trace(9);
    converter->serviceBuffers();
    EXPECT_THAT(trace.lines(), ElementsAre("9 Input (req):  6 samples", "9 Input (read): 6 samples",
                                           "8 Total Frames in output buffer: 4 "));
}

TEST_F(ConverterBuffers, AConverterWithoutRoomOrThatRefusesIsTold)
{
    configure();
    {
        asrcFake.reqInAnswer = ASRC_ERROR;
        Trace trace(0);
        EXPECT_EQ(converter->serviceBuffers(), STREAM_OK);
        EXPECT_THAT(trace.lines(), ElementsAre("0 ASRC ERROR! Unable to find space for more samples."));
        EXPECT_THAT(asrcFake.calls, ElementsAre("reqIn", "readOut 4"));
        EXPECT_EQ(converter->in_ptr_frames, 0U);
    }
    out().ackReadPeriods(1);
    asrcFake.reqInAnswer = ASRC_OK;
    asrcFake.writeAnswer = ASRC_ERROR;
    Trace trace(9);
    EXPECT_EQ(converter->serviceBuffers(), STREAM_OK);
    const auto lines = trace.lines();
    EXPECT_THAT(lines, Contains("0 ASRC ERROR! Unable to write new samples"));
    EXPECT_THAT(lines, Not(Contains("9 Input (read): 6 samples")));
    EXPECT_EQ(converter->in_ptr_frames, 0U);
}

TEST_F(ConverterBuffers, AFailedRequestDeliversNothing)
{
    configure();
    converter->in_ptr_frames = 6;
    source.port().answer = STREAM_ERROR;
    asrcFake.outFrames = {0};
    EXPECT_EQ(converter->serviceBuffers(), STREAM_OK);
    EXPECT_EQ(converter->in_ptr_frames, 6U);
    EXPECT_THAT(source.port().acks, IsEmpty());
}

TEST_F(ConverterBuffers, NothingMovesBeforeTheBlockIsConfigured)
{
    converter->init();
    asrcFake.calls.clear();
    EXPECT_EQ(converter->serviceBuffers(), STREAM_OK);
    EXPECT_THAT(asrcFake.calls, IsEmpty());
}

TEST_F(ConverterBuffers, TheThreadHelperServicesTheBlockItIsGiven)
{
    configure();
    EXPECT_EQ(asrcThreadHelper(static_cast<CSampleRateConverter*>(converter.get())), nullptr);
    EXPECT_TRUE(converter->workBufferFull);
}

// A block keeps its place in a period across a change of sources; the next source's period may be shorter.
TEST_F(ConverterBuffers, APlaceBeyondAShorterPeriodIsRefilled)
{
    configure();
    converter->in_ptr_frames = 100;
    source.port().give(numbers(1, 12));
    converter->serviceBuffers();
    EXPECT_THAT(source.port().acks, ElementsAre(1U));
    EXPECT_EQ(asrcFake.written, numbers(1, 12));
    out().ackReadPeriods(1);
    converter->out_ptr_frames = 100;
    converter->serviceBuffers();
    EXPECT_TRUE(converter->workBufferFull);
}

TEST_F(ConverterBuffers, APeriodThatShrankIsTakenAlone)
{
    configure();
    in().params.periodSize = source.port().params.periodSize = 2;
    converter->in_ptr_frames = 2;
    source.port().give(numbers(1, 12));
    asrcFake.outFrames = {4};
    converter->serviceBuffers();
    EXPECT_EQ(asrcFake.written, numbers(1, 4));
    // The rest of the buffer, made for six frames, is not filled from what the source lent.
    EXPECT_THAT(std::vector<char>(converter->in_workbuffer_frames + 8, converter->in_workbuffer_frames + 24),
                Each('\0'));
}

TEST_F(ConverterBuffers, APeriodThatOutgrewItsBufferStaysInBounds)
{
    configure();
    in().params.periodSize = 50;
    out().params.periodSize = 50;
    source.port().params.periodSize = 50;
    source.port().give(numbers(1, 100));
    converter->in_ptr_frames = 50;
    converter->serviceBuffers();
    std::vector<short> expected = numbers(1, 12); // all that the old buffer holds, then silence
    expected.resize(100, 0);
    EXPECT_EQ(asrcFake.written, expected);
    EXPECT_EQ(converter->out_ptr_frames, 4U);
    converter->workBufferFull = true;
    char* p = nullptr;
    unsigned int n = 9;
    EXPECT_EQ(out().reqReadPeriods(p, n), STREAM_OK);
    EXPECT_EQ(n, 0U); // a period of 50 frames is not there to lend
    EXPECT_EQ(p, nullptr);
}

// ---- Output side ----

TEST_F(ConverterOutput, APartlyFilledPeriodIsNotOffered)
{
    configure();
    converter->out_ptr_frames = 3;
    char mark = 0;
    char* p = &mark;
    unsigned int n = 9;
    EXPECT_EQ(out().reqReadPeriods(p, n), STREAM_OK);
    EXPECT_EQ(n, 0U);
    EXPECT_EQ(p, &mark);
}

TEST_F(ConverterOutput, AFullPeriodIsOfferedUntilAcknowledged)
{
    configure();
    converter->serviceBuffers();
    char* p = nullptr;
    unsigned int n = 0;
    Trace trace(8);
    EXPECT_EQ(out().reqReadPeriods(p, n), STREAM_OK);
    EXPECT_EQ(n, 1U);
    EXPECT_EQ(p, converter->out_workbuffer_frames);
    EXPECT_EQ(out().ackReadPeriods(1), STREAM_OK);
    EXPECT_THAT(trace.lines(), ElementsAre("8 Sent away a full buffer: 4.", "8 Ack 1 periods."));
    EXPECT_FALSE(converter->workBufferFull);
    EXPECT_EQ(converter->out_ptr_frames, 0U);
    EXPECT_EQ(out().getPeriodCount(), 1);
    EXPECT_EQ(out().reqReadPeriods(p, n), STREAM_OK);
    EXPECT_EQ(n, 0U);
}

TEST_F(ConverterOutput, AnAcknowledgeOfNothingDropsAFullPeriod)
{
    configure();
    converter->serviceBuffers();
    EXPECT_EQ(out().ackReadPeriods(0), STREAM_OK);
    EXPECT_FALSE(converter->workBufferFull);
    EXPECT_EQ(converter->out_ptr_frames, 0U);
    EXPECT_EQ(out().getPeriodCount(), 0);
}

TEST_F(ConverterOutput, OnlyAnAcknowledgeOfNothingIsRightOnAnEmptyPeriod)
{
    configure();
    converter->out_ptr_frames = 3;
    Trace trace(0);
    EXPECT_EQ(out().ackReadPeriods(0), STREAM_OK);
    EXPECT_EQ(out().ackReadPeriods(2), STREAM_ERROR);
    EXPECT_THAT(trace.lines(), ElementsAre("0 ERROR! The workbuffer was not full and ack was received for 2 periods."));
    EXPECT_EQ(converter->out_ptr_frames, 3U);
    EXPECT_EQ(out().getPeriodCount(), 0);
}

TEST_F(ConverterOutput, APeriodThatLostItsMemoryToADisconnectIsNotLent)
{
    configure();
    converter->serviceBuffers();
    out().disconnect();
    connectOut();
    char* p = nullptr;
    unsigned int n = 9;
    EXPECT_EQ(out().reqReadPeriods(p, n), STREAM_OK);
    EXPECT_EQ(n, 0U);
    EXPECT_EQ(p, nullptr);
    EXPECT_EQ(out().ackReadPeriods(0), STREAM_OK); // drops it
    EXPECT_FALSE(converter->workBufferFull);
}

// ---- Negotiation and status ----

TEST_F(ConverterNegotiation, OutputTakesTheReadersNominalRateWithoutAWord)
{
    audioPortParam_t offer = out().params;
    offer.nominalSampleRate = 32000.0F;
    Trace trace(1);
    EXPECT_EQ(out().reconfigPortCheck(&offer), STREAM_OK);
    EXPECT_THAT(trace.lines(), ElementsAre("1 Reconfig check RATE_CONVERTER_1 type 21"));
    EXPECT_EQ(out().params.nominalSampleRate, 32000.0F);
    EXPECT_EQ(out().params.nominalSampleRateStatus, FIXED);
}

TEST_F(ConverterNegotiation, OutputTakesTheOthersByStatusAndSaysWhatItCannotMeet)
{
    audioPortParam_t offer = shape(44100.0F, 47982.0F, 1, SAMPLE_S32BIT_LE, 8);
    offer.samplesInterleaved = false;
    {
        Trace trace(1);
        EXPECT_EQ(out().reconfigPortCheck(&offer), STREAM_ERROR);
        EXPECT_THAT(trace.lines(), ElementsAre("1 Reconfig check RATE_CONVERTER_1 type 21",
                                               "1 SampleFormat (RATE_CONVERTER_1):2 is not compatible with 4",
                                               "1 SamplesInterleaved (RATE_CONVERTER_1):1 is not compatible with 0"));
    }
    EXPECT_EQ(out().params.nominalSampleRate, 44100.0F);
    EXPECT_EQ(out().params.trueSampleRate, 47982.0F);
    EXPECT_EQ(out().params.numChannels, 1U);
    EXPECT_EQ(out().params.periodSize, 8U);

    out().params.trueSampleRateStatus = out().params.numChannelsStatus = out().params.periodSizeStatus = FIXED;
    offer = shape(44100.0F, 1.0F, 2, SAMPLE_S16BIT_LE, 9);
    Trace trace(1);
    EXPECT_EQ(out().reconfigPortCheck(&offer), STREAM_ERROR);
    EXPECT_THAT(trace.lines(),
                ElementsAre("1 Reconfig check RATE_CONVERTER_1 type 21",
                            "1 TrueSampleRate (RATE_CONVERTER_1):47982.000000 is not compatible with 1.000000",
                            "1 NumChannels (RATE_CONVERTER_1):1 is not compatible with 2",
                            "1 PeriodSize (RATE_CONVERTER_1):8 is not compatible with 9"));
}

TEST_F(ConverterNegotiation, InputTellsAFailureButLetsTheBlockDecide)
{
    audioPortParam_t offer = shape(48000.0F, 0.0F, 2, SAMPLE_S32BIT_LE, 8);
    Trace trace(1);
    EXPECT_EQ(in().reconfigPortCheck(&offer), STREAM_OK); // both sides keep 16 bits
    EXPECT_THAT(trace.lines(), ElementsAre("1 Reconfig check RATE_CONVERTER_1 type 22",
                                           "1 SampleFormat (RATE_CONVERTER_1):2 is not compatible with 4"));
    EXPECT_EQ(in().params.sampleFormat, SAMPLE_S16BIT_LE);
    EXPECT_EQ(in().params.periodSize, 8U);
}

TEST_F(ConverterNegotiation, InputCarriesChannelsAndTrueRateAcross)
{
    audioPortParam_t offer = shape(48000.0F, 48000.0F, 1, SAMPLE_S16BIT_LE, 8);
    EXPECT_EQ(in().reconfigPortCheck(&offer), STREAM_OK);
    EXPECT_EQ(out().params.numChannels, 1U);
    EXPECT_EQ(out().params.trueSampleRate, 48000.0F);
    EXPECT_EQ(out().params.periodSize, 1024U); // periods are independent
}

TEST_F(ConverterNegotiation, ASourceAtAnotherRateFailsTheForwardPassAndConnectsAllTheSame)
{
    Trace trace(1);
    connectIn(); // 44100 Hz against the output's fixed 48000 Hz
    EXPECT_THAT(trace.lines(), Contains("1 connectDownstream: unable to reconfigure port parameters "
                                        "(SOURCE->RATE_CONVERTER_1)"));
    EXPECT_TRUE(in().isConnected(&source.port()));
    EXPECT_EQ(in().params.nominalSampleRate, 44100.0F);
    EXPECT_EQ(in().params.periodSize, 6U);
}

TEST_F(ConverterNegotiation, BlockMergesFiveFieldsByStatus)
{
    const audioPortParam_t original = shape(48000.0F, 1.0F, 2, SAMPLE_S16BIT_LE, 100);
    audioPortParam_t dsp = shape(44100.0F, 2.0F, 1, SAMPLE_S32BIT_LE, 200);
    dsp.samplesInterleaved = false;
    for (int fixed = -1; fixed < 5; fixed++) {
        audioPortParam_t usp = original;
        usp.nominalSampleRateStatus = fixed == 0 ? FIXED : VARIABLE;
        usp.numChannelsStatus = fixed == 1 ? FIXED : VARIABLE;
        usp.sampleFormatStatus = fixed == 2 ? INCOMPATIBLE : VARIABLE;
        usp.samplesInterleavedStatus = fixed == 3 ? FIXED : VARIABLE;
        usp.trueSampleRateStatus = fixed == 4 ? FIXED : VARIABLE;
        EXPECT_EQ(converter->reconfigBlockCheck(usp, dsp), fixed == -1 ? STREAM_OK : STREAM_ERROR);
        EXPECT_EQ(usp.nominalSampleRate, fixed == 0 ? 48000.0F : 44100.0F);
        EXPECT_EQ(usp.numChannels, fixed == 1 ? 2U : 1U);
        EXPECT_EQ(usp.sampleFormat, fixed == 2 ? SAMPLE_S16BIT_LE : SAMPLE_S32BIT_LE);
        EXPECT_EQ(usp.samplesInterleaved, fixed == 3);
        EXPECT_EQ(usp.trueSampleRate, fixed == 4 ? 1.0F : 2.0F);
        EXPECT_EQ(usp.periodSize, 100U);
    }
}

TEST_F(ConverterNegotiation, ApplyCopiesTheRecordAndLeavesTheConverterAlone)
{
    configure();
    audioPortParam_t record = shape(32000.0F, 3.0F, 1, SAMPLE_S32BIT_LE, 7);
    EXPECT_EQ(in().reconfigPortApply(&record), STREAM_OK);
    EXPECT_EQ(out().reconfigPortApply(&record), STREAM_OK);
    for (const CAudioPort* port : {static_cast<CAudioPort*>(&in()), static_cast<CAudioPort*>(&out())}) {
        EXPECT_EQ(port->params.nominalSampleRate, 32000.0F);
        EXPECT_EQ(port->params.periodSizeStatus, FIXED);
        EXPECT_EQ(port->params.periodSize, 7U);
        EXPECT_EQ(port->params.sampleFormat, SAMPLE_S32BIT_LE);
    }
    EXPECT_THAT(asrcFake.calls, IsEmpty());
    EXPECT_TRUE(converter->isConfigured);
}

TEST_F(ConverterNegotiation, StatusEndsWithTheRatio)
{
    const std::string common = converter->CAudioBlock::printBlockStatus();
    EXPECT_EQ(converter->printBlockStatus(), common + "Ratio: 0.918750\n");
    out().params.trueSampleRate = 44100.0F;
    EXPECT_TRUE(converter->printBlockStatus().ends_with("Ratio: 1.000000\n"));
}

// ---- The call trace ----

TEST_F(Converter, CallsAreTracedAtLevelNine)
{
    Trace trace(9);
    configure();
    service();
    converter->getRunTimeId();
    out().getRunTimeId();
    in().getRunTimeId();
    audioPortParam_t same = in().params; // a connection with another rate applies nothing to the input
    in().reconfigPortApply(&same);
    converter->printBlockStatus();
    converter->setRates(44100, 48000);
    char* lent = nullptr;
    unsigned int nPeriods = 0;
    out().reqReadPeriods(lent, nPeriods);
    out().ackReadPeriods(nPeriods);
    in().disconnect();
    out().disconnect();
    converter.reset();
    const std::string text = trace.stop();
    for (const char* function : {"CSampleRateConverter::getRunTimeId()",
                                 "CSampleRateConverter::init()",
                                 "CSampleRateConverter::myInit()",
                                 "CSampleRateConverter::reconfigBlockCheck(",
                                 "CSampleRateConverter::service(",
                                 "CSampleRateConverter::serviceBuffers()",
                                 "CSampleRateConverter::setRates(",
                                 "CSampleRateConverter::populateFilterCoeff(",
                                 "CSampleRateConverter::printBlockStatus()",
                                 "CSampleRateConverter::~CSampleRateConverter()",
                                 "CSampleRateConverterUSP::getRunTimeId()",
                                 "CSampleRateConverterUSP::reconfigPortCheck(",
                                 "CSampleRateConverterUSP::reconfigPortApply(",
                                 "CSampleRateConverterUSP::reqReadPeriods(",
                                 "CSampleRateConverterUSP::ackReadPeriods(",
                                 "CSampleRateConverterUSP::disconnect()",
                                 "CSampleRateConverterUSP::~CSampleRateConverterUSP()",
                                 "CSampleRateConverterDSP::getRunTimeId()",
                                 "CSampleRateConverterDSP::reconfigPortCheck(",
                                 "CSampleRateConverterDSP::reconfigPortApply(",
                                 "CSampleRateConverterDSP::disconnect()",
                                 "CSampleRateConverterDSP::~CSampleRateConverterDSP()"}) {
        EXPECT_NE(text.find(std::string("audioLibrarySpace::") + function), std::string::npos) << function;
    }
}
