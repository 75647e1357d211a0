#include "audioLibrary/mixerBlock.h"
#include "audioLibrary/allocationCounter.h"
#include "audioLibrary/literalBlocks.h"

#include <atomic>
#include <gmock/gmock.h>
#include <memory>
#include <thread>
#include <vector>

using namespace audioLibrarySpace;
using namespace literal;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

namespace
{

class OpenMixer : public CMixer
{
public:
    using CMixer::averageBufferDepth;
    using CMixer::buffer_size_bytes;
    using CMixer::bufferMutex;
    using CMixer::cmd_start;
    using CMixer::CMixer;
    using CMixer::m_bufferSizeFrame;
    using CMixer::m_frameCount;
    using CMixer::m_mixerState;
    using CMixer::m_readFramePtr;
    using CMixer::m_writeFramePtr;
    using CMixer::MAX_DS_PORTS;
    using CMixer::mixerBuffer;
    using CMixer::printCounter;
    using CMixer::sourceBlockRate;
    using CMixer::underflow;

    bool mutexIsFree()
    {
        if (osaTryLock(&bufferMutex) != OSA_OK) {
            return false;
        }
        osaUnlock(&bufferMutex);
        return true;
    }
};

/** What a card asks for: everything fixed. */
audioPortParam_t cardShape(float trueRate, uint32_t channels, sampleFormat_e format, uint32_t period)
{
    audioPortParam_t p = shape(48000.0F, trueRate, channels, format, period);
    p.trueSampleRateStatus = FIXED;
    return p;
}

/** A mixer with its output connected: by default a stereo 32-bit ring of 5 periods of 4 frames. */
class Mixer : public testing::Test
{
protected:
    OpenMixer mixer{"MUX", 5};
    std::unique_ptr<Sink> sink;
    std::vector<std::unique_ptr<Source>> sources;
    CServiceTime before, after, next;

    void connectOutput(const audioPortParam_t& card = cardShape(48000.0F, 2, SAMPLE_S32BIT_LE, 4))
    {
        sink = std::make_unique<Sink>(card);
        ASSERT_EQ(output().connectDownstream(&sink->port(), nullptr), STREAM_OK);
    }
    CUpstreamPort& output() { return *mixer.getUpstreamPort(0); }
    CMixerDSP& input(unsigned int i) { return *static_cast<CMixerDSP*>(mixer.getDownstreamPort(i)); }
    SourcePort& source(size_t i) { return sources[i]->port(); }

    /** Connects one more source, 3 frames to a period, and starts its input. */
    void addSource(uint32_t channels = 2, sampleFormat_e format = SAMPLE_S16BIT_LE, float trueRate = 0.0F,
                   uint32_t period = 3)
    {
        sources.push_back(std::make_unique<Source>(shape(48000.0F, trueRate, channels, format, period)));
        CDownstreamPort* in = mixer.getNextDownstreamPort();
        ASSERT_EQ(sources.back()->port().connectDownstream(in, nullptr), STREAM_OK);
        ASSERT_EQ(in->startAudio(), STREAM_OK);
    }
    streamStatus service()
    {
        before.setCurrentTime();
        const streamStatus status = mixer.service(next);
        after.setCurrentTime();
        return status;
    }
    /** Whether `next` lies `ns` after the moment at which service() ran. */
    bool nextIsAfter(int32_t ns) { return !(next < before + ns) && !(after + ns < next); }
    int32_t cell(int frame, int channel)
    {
        int32_t value = 0;
        std::memcpy(&value, mixer.mixerBuffer + (frame * 2 + channel) * 4, 4);
        return value;
    }
    /** The left cells of the ring in units of one 16-bit step. */
    std::vector<int> left()
    {
        std::vector<int> all;
        for (int f = 0; f < mixer.m_bufferSizeFrame; f++) {
            all.push_back(cell(f, 0) / 65536);
        }
        return all;
    }
    std::vector<int> right()
    {
        std::vector<int> all;
        for (int f = 0; f < mixer.m_bufferSizeFrame; f++) {
            all.push_back(cell(f, 1) / 65536);
        }
        return all;
    }
    void request(char*& p, unsigned int& n) { ASSERT_EQ(output().reqReadPeriods(p, n), STREAM_OK); }
    unsigned int offered()
    {
        char* p = nullptr;
        unsigned int n = 77;
        request(p, n);
        return n;
    }
    void place(int read, int write, unsigned int count)
    {
        mixer.m_readFramePtr = read;
        mixer.m_writeFramePtr = write;
        mixer.m_frameCount = count;
    }
};

using MixerInput = Mixer;
using MixerOutput = Mixer;
using MixerDemand = Mixer;
using MixerNegotiation = Mixer;
using MixerStatus = Mixer;

std::vector<int16_t> stereoRamp(int from, int frames)
{
    std::vector<int16_t> samples;
    for (int i = 0; i < frames; i++) {
        samples.push_back(static_cast<int16_t>(from + i));
        samples.push_back(static_cast<int16_t>(from + i + 100));
    }
    return samples;
}

} // namespace

// ---- Construction and the ring ----

TEST_F(Mixer, StartsWithoutARing)
{
    EXPECT_EQ(mixer.getRunTimeId(), MIXER_FIFO);
    EXPECT_EQ(output().getRunTimeId(), MIXER_FIFO_USP);
    EXPECT_EQ(mixer.numUpstreamPorts(), 1U);
    EXPECT_EQ(mixer.numDownstreamPorts(), 0U);
    EXPECT_EQ(mixer.MAX_DS_PORTS, 512U);
    EXPECT_EQ(mixer.m_mixerState, STATE_UNINITIALIZED);
    EXPECT_EQ(mixer.mixerBuffer, nullptr);
    EXPECT_EQ(mixer.m_frameCount, 0U);
    EXPECT_EQ(mixer.m_readFramePtr, 0);
    EXPECT_EQ(mixer.m_writeFramePtr, 0);
    EXPECT_EQ(mixer.averageBufferDepth, 50.0F);
    EXPECT_EQ(mixer.sourceBlockRate, 0.0F);
    EXPECT_TRUE(mixer.underflow);
    EXPECT_FALSE(mixer.cmd_start);
    EXPECT_EQ(mixer.init(), STREAM_OK);
    EXPECT_EQ(mixer.mixerBuffer, nullptr);
}

TEST_F(Mixer, OutputStartsVariableButForInterleaving)
{
    const audioPortParam_t& p = output().params;
    EXPECT_EQ(p.nominalSampleRate, 48000.0F);
    EXPECT_EQ(p.nominalSampleRateStatus, VARIABLE);
    EXPECT_EQ(p.trueSampleRate, 0.0F);
    EXPECT_EQ(p.trueSampleRateStatus, VARIABLE);
    EXPECT_EQ(p.numChannels, 2U);
    EXPECT_EQ(p.numChannelsStatus, VARIABLE);
    EXPECT_EQ(p.sampleFormat, SAMPLE_S16BIT_LE);
    EXPECT_EQ(p.sampleFormatStatus, VARIABLE);
    EXPECT_TRUE(p.samplesInterleaved);
    EXPECT_EQ(p.samplesInterleavedStatus, FIXED);
    EXPECT_EQ(p.periodSize, 2048U);
    EXPECT_EQ(p.periodSizeStatus, VARIABLE);
}

TEST_F(Mixer, ConnectingTheOutputBuildsARingHalfFullOfSilence)
{
    mixer.printCounter = 9;
    connectOutput(cardShape(47982.0F, 2, SAMPLE_S32BIT_LE, 4));
    EXPECT_EQ(mixer.m_mixerState, STATE_EMPTY);
    EXPECT_EQ(mixer.m_bufferSizeFrame, 20);
    EXPECT_EQ(mixer.buffer_size_bytes, 160);
    EXPECT_EQ(mixer.m_readFramePtr, 0);
    EXPECT_EQ(mixer.m_writeFramePtr, 10);
    EXPECT_EQ(mixer.m_frameCount, 10U);
    EXPECT_EQ(mixer.printCounter, 0);
    EXPECT_EQ(mixer.sourceBlockRate, 47982.0F);
    EXPECT_THAT(left(), Each(0));
    EXPECT_THAT(right(), Each(0));
}

TEST_F(Mixer, OutputCanReadAtOnceInWholePeriodsFromFrameZero)
{
    connectOutput();
    char* p = nullptr;
    unsigned int n = 0;
    request(p, n);
    EXPECT_EQ(p, mixer.mixerBuffer);
    EXPECT_EQ(n, 2U); // 10 frames of silence, 4 to a period
}

TEST_F(Mixer, BuildingTheRingTellsWhereItLies)
{
    connectOutput();
    Trace trace(0);
    ASSERT_EQ(mixer.myInit(), STREAM_OK);
    char expected[200];
    const auto start = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(mixer.mixerBuffer));
    snprintf(expected, sizeof expected, "0 ********* Buffer starts at %08x to %08x bsb:160 c:2 sB: 4", start,
             start + 160);
    EXPECT_THAT(trace.lines(), ElementsAre(std::string(expected)));
}

TEST_F(Mixer, BuildingTheRingAgainDropsItsContents)
{
    connectOutput();
    addSource();
    source(0).give(stereoRamp(1, 3));
    service();
    place(7, 13, 6);
    mixer.myInit();
    EXPECT_THAT(left(), Each(0));
    EXPECT_EQ(mixer.m_readFramePtr, 0);
    EXPECT_EQ(mixer.m_writeFramePtr, 10);
    EXPECT_EQ(mixer.m_frameCount, 10U);
}

// ---- Input side ----

TEST_F(MixerInput, WithoutInputsServiceIsDueIn100Milliseconds)
{
    connectOutput();
    EXPECT_EQ(service(), STREAM_OK);
    EXPECT_TRUE(nextIsAfter(100000000));
    EXPECT_FALSE(mixer.cmd_start);
}

TEST_F(MixerInput, WithoutARingNothingIsPulledAndTheStartIsNoted)
{
    connectOutput();
    addSource();
    source(0).give(stereoRamp(1, 3));
    mixer.m_mixerState = STATE_UNINITIALIZED;
    EXPECT_EQ(service(), STREAM_OK);
    EXPECT_TRUE(mixer.cmd_start);
    EXPECT_EQ(source(0).requests, 0U);
    EXPECT_TRUE(nextIsAfter(100000000));
    EXPECT_EQ(mixer.averageBufferDepth, 50.0F);
}

TEST_F(MixerInput, NothingIsPulledByAnInputThatDoesNotPlay)
{
    connectOutput();
    addSource();
    input(0).stopAudio();
    EXPECT_EQ(service(), STREAM_OK);
    input(0).muteAudio();
    EXPECT_EQ(service(), STREAM_OK);
    EXPECT_EQ(source(0).requests, 0U);
    EXPECT_TRUE(nextIsAfter(100000000));
    EXPECT_TRUE(mixer.underflow);
}

TEST_F(MixerInput, AddsAtTheEndOfTheRegionAndMovesItOn)
{
    connectOutput();
    addSource();
    source(0).give(stereoRamp(1, 3));
    EXPECT_EQ(service(), STREAM_OK);
    // [ssssssssssOOO.......]
    EXPECT_THAT(left(), ElementsAre(0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 2, 3, 0, 0, 0, 0, 0, 0, 0));
    EXPECT_THAT(right(), ElementsAre(0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 101, 102, 103, 0, 0, 0, 0, 0, 0, 0));
    EXPECT_THAT(source(0).acks, ElementsAre(1U));
    EXPECT_EQ(input(0).m_frameCount, 13);
    EXPECT_EQ(input(0).m_writeFramePtr, 13);
    EXPECT_EQ(input(0).getPeriodCount(), 1);
    EXPECT_EQ(mixer.m_frameCount, 13U);
    EXPECT_EQ(mixer.m_writeFramePtr, 13);
    EXPECT_EQ(mixer.m_readFramePtr, 0);
}

TEST_F(MixerInput, TheFirstTransferResumesOnce)
{
    connectOutput();
    addSource();
    Trace trace(1);
    service();
    service();
    EXPECT_THAT(trace.lines(), ElementsAre("1 MUX is resuming operation"));
    EXPECT_FALSE(mixer.underflow);
    Trace silent(0);
    mixer.underflow = true;
    service();
    EXPECT_THAT(silent.lines(), IsEmpty());
}

TEST_F(MixerInput, RoomIsTheRingLessOnePeriodOfEachSide)
{
    connectOutput();
    addSource();
    source(0).give(stereoRamp(1, 30));
    source(0).offerAtMost = 1;
    input(0).m_frameCount = 13; // limit: 20 - 3 - 4
    service();
    EXPECT_EQ(source(0).requests, 0U);
    EXPECT_EQ(mixer.m_frameCount, 13U); // handled all the same
    input(0).m_frameCount = 12;
    service();
    EXPECT_EQ(source(0).requests, 1U);
    EXPECT_EQ(input(0).m_frameCount, 15);
}

TEST_F(MixerInput, ACountBelowZeroHasNoRoom)
{
    connectOutput();
    addSource();
    source(0).give(stereoRamp(1, 30));
    input(0).m_frameCount = -1;
    service();
    EXPECT_EQ(source(0).requests, 0U);
}

TEST_F(MixerInput, OfferIsCutToWhatFitsBesideTheBlocksCount)
{
    connectOutput();
    addSource();
    source(0).give(stereoRamp(1, 30)); // offers 10 periods
    service();
    EXPECT_THAT(source(0).acks, ElementsAre(3U)); // (20 - 10) / 3
    EXPECT_EQ(input(0).m_frameCount, 19);
    EXPECT_EQ(input(0).getPeriodCount(), 3);
}

TEST_F(MixerInput, OfferThatJustFitsIsNotCut)
{
    connectOutput();
    addSource(2, SAMPLE_S16BIT_LE, 0.0F, 5);
    source(0).give(stereoRamp(1, 10));
    service();
    EXPECT_THAT(source(0).acks, ElementsAre(2U)); // 10 + 10 frames
}

TEST_F(MixerInput, TheCutLooksAtTheBlocksCountNotAtTheInputsOwn)
{
    connectOutput();
    addSource();
    source(0).give(stereoRamp(1, 9));
    input(0).m_frameCount = 12; // 12 + 9 is more than the ring, 10 + 9 is not
    input(0).m_writeFramePtr = 12;
    service();
    EXPECT_THAT(source(0).acks, ElementsAre(3U));
    EXPECT_EQ(input(0).m_frameCount, 21);
}

TEST_F(MixerInput, AnOfferCutToNothingIsStillAcknowledged)
{
    connectOutput();
    addSource();
    source(0).give(stereoRamp(1, 3));
    mixer.m_frameCount = 18; // (20 - 18) / 3 is 0
    service();
    EXPECT_THAT(source(0).acks, ElementsAre(0U));
    EXPECT_EQ(input(0).m_frameCount, 10);
    EXPECT_EQ(input(0).m_writeFramePtr, 10);
    EXPECT_EQ(input(0).getPeriodCount(), 0);
    EXPECT_THAT(left(), Each(0));
}

TEST_F(MixerInput, NothingReadyIsAcknowledgedAsNothing)
{
    connectOutput();
    addSource();
    EXPECT_EQ(service(), STREAM_OK);
    EXPECT_THAT(source(0).acks, ElementsAre(0U));
    EXPECT_EQ(input(0).m_frameCount, 10);
}

TEST_F(MixerInput, PeriodsWithoutMemoryAreNotTaken)
{
    class PromisingPort : public SourcePort
    {
    public:
        using SourcePort::SourcePort;
        streamStatus reqReadPeriods(char*& pbuffer, unsigned int& nPeriods) override
        {
            pbuffer = nullptr;
            nPeriods = 1;
            return STREAM_OK;
        }
    };
    connectOutput();
    PromisingPort promising(nullptr, shape(48000.0F, 0.0F, 2, SAMPLE_S16BIT_LE, 3));
    CDownstreamPort* in = mixer.getNextDownstreamPort();
    ASSERT_EQ(promising.connectDownstream(in, nullptr), STREAM_OK);
    in->startAudio();
    EXPECT_EQ(service(), STREAM_OK);
    EXPECT_THAT(promising.acks, ElementsAre(0U));
    EXPECT_EQ(input(0).m_frameCount, 10);
    promising.disconnect();
}

TEST_F(MixerInput, FramesOverTheRingsEndAreSplitIntoTwoCopies)
{
    connectOutput();
    addSource();
    source(0).give(stereoRamp(1, 3));
    place(8, 19, 11);
    input(0).startAudio();
    service();
    // [OO......ssssssssssssO] with the read position at 8
    EXPECT_THAT(left(), ElementsAre(2, 3, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1));
    EXPECT_THAT(right(), ElementsAre(102, 103, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 101));
    EXPECT_EQ(input(0).m_writeFramePtr, 2);
    EXPECT_EQ(mixer.m_writeFramePtr, 2);
    EXPECT_EQ(mixer.m_frameCount, 14U);
}

TEST_F(MixerInput, FramesThatEndExactlyAtTheRingsEndAreOneCopy)
{
    connectOutput();
    addSource();
    source(0).give(stereoRamp(1, 3));
    place(7, 17, 10);
    input(0).startAudio();
    service();
    EXPECT_THAT(left(), ElementsAre(0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 2, 3));
    EXPECT_EQ(input(0).m_writeFramePtr, 0);
    EXPECT_EQ(mixer.m_writeFramePtr, 0);
}

TEST_F(MixerInput, MonoIsStoredInBothChannelsAlsoAcrossTheRingsEnd)
{
    connectOutput();
    addSource(1);
    ASSERT_EQ(input(0).params.numChannels, 1U);
    source(0).give(std::vector<int16_t>{4, 5, 6});
    place(8, 18, 10);
    input(0).startAudio();
    service();
    EXPECT_THAT(left(), ElementsAre(6, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 4, 5));
    EXPECT_THAT(right(), left());
}

TEST_F(MixerInput, MonoOverwritesTheRightChannelOfAnotherInput)
{
    connectOutput();
    addSource(2);
    addSource(1);
    source(0).give(stereoRamp(1, 3));
    source(1).give(std::vector<int16_t>{10, 20, 30});
    service();
    EXPECT_THAT(left(), ElementsAre(0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 11, 22, 33, 0, 0, 0, 0, 0, 0, 0));
    EXPECT_THAT(right(), left());
}

TEST_F(MixerInput, TwoInputsAdd)
{
    connectOutput();
    addSource();
    addSource();
    source(0).give(stereoRamp(1, 3));
    source(1).give(stereoRamp(1000, 3));
    service();
    EXPECT_THAT(left(), ElementsAre(0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1001, 1003, 1005, 0, 0, 0, 0, 0, 0, 0));
    EXPECT_THAT(right(), ElementsAre(0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1201, 1203, 1205, 0, 0, 0, 0, 0, 0, 0));
}

TEST_F(MixerInput, EightAndThirtyTwoBitSourcesJoinTheRing)
{
    connectOutput();
    addSource(1, SAMPLE_S8BIT);
    addSource(2, SAMPLE_S32BIT_LE);
    source(0).give(std::vector<uint8_t>{1, 2, 255});
    source(1).give(std::vector<int32_t>{5, 6, 7, 8, 9, 10});
    service();
    EXPECT_EQ(cell(10, 0), 0x01000005);
    EXPECT_EQ(cell(10, 1), 0x01000006);
    EXPECT_EQ(cell(12, 0), -0x01000000 + 9);
}

TEST_F(MixerInput, TheMutexIsFreeDuringEveryCallIntoASource)
{
    connectOutput();
    addSource();
    source(0).give(stereoRamp(1, 3));
    int freeCalls = 0;
    const auto look = [&] { freeCalls += mixer.mutexIsFree() ? 1 : 0; };
    source(0).onRequest = look;
    source(0).onAck = look;
    service();
    EXPECT_EQ(freeCalls, 2);
    EXPECT_TRUE(mixer.mutexIsFree());
    source(0).answer = STREAM_ERROR;
    input(0).m_frameCount = 10; // room for one more
    ErrorText errors;
    service();
    errors.stop();
    EXPECT_EQ(freeCalls, 4);
    EXPECT_TRUE(mixer.mutexIsFree());
}

TEST_F(MixerInput, AFailedRequestEndsTheService)
{
    connectOutput();
    addSource();
    addSource();
    addSource();
    source(0).give(stereoRamp(1, 3));
    source(2).give(stereoRamp(1, 3));
    source(1).answer = NO_MEMORY;
    output().startAudio();
    ErrorText errors;
    EXPECT_EQ(service(), STREAM_ERROR);
    EXPECT_EQ(errors.stop(), "Unable to call reqReadPeriods()\n");
    EXPECT_THAT(source(1).acks, ElementsAre(0U));
    EXPECT_EQ(source(2).requests, 0U);
    EXPECT_EQ(input(0).m_frameCount, 13); // the one before it was served
    EXPECT_EQ(mixer.m_frameCount, 10U);
    EXPECT_EQ(mixer.averageBufferDepth, 50.0F);
    EXPECT_EQ(mixer.printCounter, 0);
    EXPECT_TRUE(nextIsAfter(500000000));
}

TEST_F(MixerInput, AnUnknownFormatCountsAsNoBytes)
{
    connectOutput();
    addSource();
    source(0).give(stereoRamp(1, 3));
    input(0).params.sampleFormat = SAMPLE_UNKNOWN;
    ErrorText errors;
    Trace trace(0);
    EXPECT_EQ(service(), STREAM_OK);
    EXPECT_THAT(trace.lines(), ElementsAre("0 ERROR: Downstream sampleBytes(0) not supported"));
    EXPECT_EQ(errors.stop(), "invalid sample format: 0\n");
    EXPECT_THAT(left(), Each(0));
}

TEST_F(MixerInput, UnsupportedSampleSizesAreNamed)
{
    char ring[16] = {}, samples[16] = {1, 2, 3, 4};
    Trace trace(0);
    mixer.copyAndAdd(4, 0, 1, ring, samples, 1);
    mixer.copyAndAdd(4, 5, 1, ring, samples, 1);
    mixer.copyAndAdd(4, 3, 1, ring, samples, 1);
    mixer.copyAndAdd(2, 1, 1, ring, samples, 1);
    mixer.copyAndAdd(2, 4, 1, ring, samples, 1);
    mixer.copyAndAdd(1, 2, 1, ring, samples, 1);
    EXPECT_THAT(trace.lines(), ElementsAre("0 ERROR: Downstream sampleBytes(0) not supported",
                                           "0 ERROR: Downstream sampleBytes(5) not supported",
                                           "0 ERROR: Upstream sampleBytes(4) not supported",
                                           "0 ERROR: Upstream sampleBytes(2) not supported",
                                           "0 ERROR: Upstream sampleBytes(2) not supported",
                                           "0 ERROR: Upstream sampleBytes(1) not supported"));
    EXPECT_THAT(ring, Each('\0'));
}

// ---- The complete region ----

TEST_F(MixerInput, TheSlowestPlayingInputEndsTheRegion)
{
    connectOutput();
    addSource();
    addSource();
    addSource();
    source(0).give(stereoRamp(1, 6));
    source(1).give(stereoRamp(1, 3));
    source(2).give(stereoRamp(1, 9));
    service();
    EXPECT_EQ(input(0).m_frameCount, 16);
    EXPECT_EQ(input(1).m_frameCount, 13);
    EXPECT_EQ(input(2).m_frameCount, 19);
    EXPECT_EQ(mixer.m_frameCount, 13U);
    EXPECT_EQ(mixer.m_writeFramePtr, 13);
}

// An input behind the region's end by more than the write position takes the sum below zero. It is unsigned, so the
// remainder is that of 2^32 - 5: 2^32 leaves 16 of 20, less 5 is 11.
TEST_F(MixerInput, TheEndOfTheRegionMovesByAnUnsignedSum)
{
    connectOutput();
    addSource();
    place(0, 3, 10);
    input(0).m_frameCount = 2;
    service();
    EXPECT_EQ(mixer.m_writeFramePtr, 11);
    EXPECT_EQ(mixer.m_frameCount, 2U);
}

TEST_F(MixerInput, AStalledInputLetsTheRingRunDryAndAllStartOverAtMidRing)
{
    connectOutput();
    addSource();
    addSource();
    source(0).give(stereoRamp(1, 3));
    service();
    EXPECT_EQ(mixer.m_frameCount, 10U); // the second delivered nothing
    EXPECT_EQ(mixer.m_writeFramePtr, 10);
    ASSERT_EQ(offered(), 2U);
    output().ackReadPeriods(2);
    EXPECT_EQ(mixer.m_frameCount, 2U);
    EXPECT_EQ(input(0).m_frameCount, 5);
    EXPECT_EQ(input(1).m_frameCount, 2);

    EXPECT_EQ(offered(), 10U); // 2 frames are less than a period: dry
    EXPECT_THAT(left(), Each(0));
    for (unsigned int i = 0; i < 2; i++) {
        EXPECT_EQ(input(i).m_frameCount, 10);
        EXPECT_EQ(input(i).m_writeFramePtr, 10);
    }
}

TEST_F(MixerInput, AMutedInputHoldsNobodyBack)
{
    connectOutput();
    addSource();
    addSource();
    source(0).give(stereoRamp(1, 3));
    input(1).m_writeFramePtr = 5;
    EXPECT_EQ(input(1).muteAudio(), STREAM_OK);
    service();
    EXPECT_EQ(mixer.m_frameCount, 13U);
    EXPECT_EQ(input(1).portPlaybackState, AUDIO_MUTED);
    EXPECT_EQ(input(1).m_frameCount, 10); // both fields are kept
    EXPECT_EQ(input(1).m_writeFramePtr, 5);
    EXPECT_EQ(source(1).requests, 0U);
}

TEST_F(MixerInput, AStoppedInputHoldsNobodyBackAndForgetsItsPlace)
{
    connectOutput();
    addSource();
    addSource();
    source(0).give(stereoRamp(1, 3));
    EXPECT_EQ(input(1).stopAudio(), STREAM_OK);
    service();
    EXPECT_EQ(mixer.m_frameCount, 13U);
    EXPECT_EQ(input(1).portPlaybackState, AUDIO_STOPPED);
    EXPECT_EQ(input(1).m_frameCount, 0);
    EXPECT_EQ(input(1).m_writeFramePtr, 0);
}

TEST_F(MixerInput, APausedInputStopsAndKeepsItsPlace)
{
    connectOutput();
    addSource();
    input(0).m_writeFramePtr = 5;
    EXPECT_EQ(input(0).pauseAudio(), STREAM_OK);
    EXPECT_EQ(input(0).portPlaybackState, AUDIO_STOPPED);
    EXPECT_EQ(input(0).m_frameCount, 10);
    EXPECT_EQ(input(0).m_writeFramePtr, 5);
}

TEST_F(MixerInput, StartJoinsAtTheEndOfTheRegionAndLeavesTheRateAlone)
{
    connectOutput();
    addSource();
    input(0).stopAudio();
    place(3, 17, 14);
    input(0).avgRate = 123.0F;
    const CServiceTime counted = input(0).lastCountTime;
    EXPECT_EQ(input(0).startAudio(), STREAM_OK);
    EXPECT_EQ(input(0).portPlaybackState, AUDIO_PLAYING);
    EXPECT_EQ(input(0).m_writeFramePtr, 17);
    EXPECT_EQ(input(0).m_frameCount, 14);
    EXPECT_EQ(input(0).avgRate, 123.0F);
    EXPECT_TRUE(input(0).lastCountTime == counted);
}

TEST_F(MixerInput, ConnectingAndApplyingJoinAtTheEndOfTheRegion)
{
    connectOutput();
    place(3, 17, 14);
    addSource();
    source(0).disconnect();
    EXPECT_EQ(input(0).m_writeFramePtr, 0);
    EXPECT_EQ(input(0).m_frameCount, 0);
    EXPECT_FALSE(input(0).isConnected(nullptr));
    ASSERT_EQ(source(0).connectDownstream(&input(0), nullptr), STREAM_OK);
    EXPECT_EQ(input(0).m_writeFramePtr, 17);
    EXPECT_EQ(input(0).m_frameCount, 14);

    place(3, 18, 15);
    audioPortParam_t p = input(0).params;
    p.periodSize = 2;
    EXPECT_EQ(input(0).reconfigPortApply(&p), STREAM_OK);
    EXPECT_EQ(input(0).params.periodSize, 2U);
    EXPECT_EQ(input(0).m_writeFramePtr, 18);
    EXPECT_EQ(input(0).m_frameCount, 15);
}

// ---- Output side ----

TEST_F(MixerOutput, RunDryOffersHalfTheRingInFrames)
{
    connectOutput();
    addSource();
    source(0).give(stereoRamp(1, 3));
    service();
    place(13, 16, 3);
    Trace trace(1);
    char* p = nullptr;
    unsigned int n = 0;
    request(p, n);
    EXPECT_THAT(trace.lines(), ElementsAre("1 ERROR! *** Inserting zeroes to recover buffer ***"));
    EXPECT_EQ(n, 10U);
    EXPECT_EQ(p, mixer.mixerBuffer);
    EXPECT_THAT(left(), Each(0));
    EXPECT_EQ(mixer.m_readFramePtr, 0);
    EXPECT_EQ(mixer.m_writeFramePtr, 10);
    EXPECT_EQ(mixer.m_frameCount, 10U);
}

TEST_F(MixerOutput, OnePeriodIsNotDry)
{
    connectOutput();
    place(12, 16, 4);
    char* p = nullptr;
    unsigned int n = 0;
    request(p, n);
    EXPECT_EQ(n, 1U);
    EXPECT_EQ(p, mixer.mixerBuffer + 12 * 8);
}

TEST_F(MixerOutput, OffersWholePeriodsUpToTheWritePosition)
{
    connectOutput();
    place(3, 16, 13);
    EXPECT_EQ(offered(), 3U); // 13 frames
}

TEST_F(MixerOutput, OffersUpToTheRingsEndWhereTheRegionWraps)
{
    connectOutput();
    place(9, 5, 16);
    EXPECT_EQ(offered(), 2U); // 11 frames up to the end
    place(12, 12, 20);
    EXPECT_EQ(offered(), 2U); // read position on the write position: 8 frames up to the end
}

TEST_F(MixerOutput, EveryRequestIsCountedAtLevel8)
{
    connectOutput();
    Trace trace(8);
    offered();
    EXPECT_THAT(trace.lines(), ElementsAre("8 Mixer transfering 2 periods."));
}

TEST_F(MixerOutput, AcknowledgeClearsWhatWasReadAndMovesEveryoneOn)
{
    connectOutput();
    addSource();
    addSource();
    addSource();
    source(0).give(stereoRamp(1, 6)); // at frames 10 to 15
    service();
    place(8, 16, 8);
    input(0).m_frameCount = 8;
    input(1).m_frameCount = 2;
    input(2).m_frameCount = 0;
    EXPECT_EQ(output().ackReadPeriods(1), STREAM_OK); // frames 8 to 11
    EXPECT_THAT(left(), ElementsAre(0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 3, 4, 5, 6, 0, 0, 0, 0));
    EXPECT_EQ(output().getPeriodCount(), 1);
    EXPECT_EQ(mixer.m_readFramePtr, 12);
    EXPECT_EQ(mixer.m_frameCount, 4U);
    EXPECT_EQ(input(0).m_frameCount, 4);
    EXPECT_EQ(input(1).m_frameCount, -2); // below zero
    EXPECT_EQ(input(2).m_frameCount, 0);  // not at all
}

TEST_F(MixerOutput, AcknowledgeAtTheRingsEndWrapsTheReadPosition)
{
    connectOutput();
    place(12, 4, 12);
    EXPECT_EQ(output().ackReadPeriods(2), STREAM_OK);
    EXPECT_EQ(mixer.m_readFramePtr, 0);
    EXPECT_EQ(mixer.m_frameCount, 4U);
    EXPECT_EQ(output().getPeriodCount(), 2);
}

TEST_F(MixerOutput, AnUnconnectedInputIsNotCounted)
{
    connectOutput();
    addSource();
    source(0).disconnect();
    input(0).m_frameCount = 9;
    output().ackReadPeriods(1);
    EXPECT_EQ(input(0).m_frameCount, 9);
}

TEST_F(MixerOutput, AcknowledgeOfNothingChangesNothing)
{
    connectOutput();
    addSource();
    output().ackReadPeriods(0);
    EXPECT_EQ(mixer.m_readFramePtr, 0);
    EXPECT_EQ(mixer.m_frameCount, 10U);
    EXPECT_EQ(input(0).m_frameCount, 10);
    EXPECT_EQ(output().getPeriodCount(), 0);
}

TEST_F(MixerOutput, WithoutARingThereIsNothingToLend)
{
    char* p = mixer.mixerBuffer;
    unsigned int n = 7;
    request(p, n);
    EXPECT_EQ(n, 0U);
    EXPECT_EQ(p, nullptr);
}

// A reader may take more than there was: the offer after a dry read is in frames.
TEST_F(MixerOutput, AReaderThatTookTooMuchCorruptsNothing)
{
    connectOutput();
    addSource();
    source(0).give(stereoRamp(1, 3));
    output().ackReadPeriods(10); // 40 of 20 frames; the block's count is 30 below zero
    EXPECT_EQ(mixer.m_readFramePtr, 0);
    input(0).startAudio();
    input(0).m_frameCount = 10;
    service();
    EXPECT_THAT(source(0).acks, ElementsAre(1U)); // never more than was offered
}

TEST_F(MixerOutput, AnOutputTakenDownUnderAPlayingInputCorruptsNothing)
{
    connectOutput(cardShape(48000.0F, 1, SAMPLE_S16BIT_LE, 4)); // a ring of 40 bytes
    addSource(1);
    source(0).give(std::vector<int16_t>(30, 5));
    output().disconnect(); // its parameters are back at stereo, 2048 frames to a period
    EXPECT_EQ(service(), STREAM_OK);
    EXPECT_EQ(service(), STREAM_OK);
    offered();
    output().ackReadPeriods(1);
}

// ---- Depth and demand ----

TEST_F(MixerDemand, DepthFollowsTheFillByTwoPercent)
{
    connectOutput();
    addSource();
    source(0).give(stereoRamp(1, 3));
    service();
    // 50 * 0.98 + 2 * 13 / 20
    EXPECT_FLOAT_EQ(mixer.averageBufferDepth, 50.3F);
    mixer.averageBufferDepth = 100.0F;
    service(); // count is still 13
    EXPECT_FLOAT_EQ(mixer.averageBufferDepth, 99.3F);
}

TEST_F(MixerDemand, StartsAtTheCardsTrueRate)
{
    connectOutput(cardShape(47982.0F, 2, SAMPLE_S32BIT_LE, 4));
    addSource(2, SAMPLE_S16BIT_LE, 48000.0F);
    EXPECT_EQ(input(0).params.trueSampleRate, 48000.0F);
    output().startAudio();
    source(0).give(stereoRamp(1, 9));
    EXPECT_EQ(service(), STREAM_OK);
    EXPECT_EQ(input(0).params.trueSampleRate, 47982.0F);
    EXPECT_TRUE(nextIsAfter(9600000));
    // The ring is at 19 of 20 now, but the next demand looks at the average: 50 * 0.98 + 2 * 0.95 = 50.9.
    // 47982 - 47982 * 0.00045 = 47960.4081
    service();
    EXPECT_NEAR(input(0).params.trueSampleRate, 47960.408F, 0.004F);
}

TEST_F(MixerDemand, FallsAsTheRingFillsUpToATenthOfAPercent)
{
    connectOutput();
    addSource(2, SAMPLE_S16BIT_LE, 48000.0F);
    output().startAudio();
    const auto demandAt = [&](float depth) {
        mixer.averageBufferDepth = depth;
        service();
        return input(0).params.trueSampleRate;
    };
    EXPECT_EQ(demandAt(50.0F), 48000.0F);
    EXPECT_EQ(demandAt(51.0F), 47976.0F); // 48000 * 0.0005 less
    EXPECT_EQ(demandAt(49.0F), 48024.0F);
    EXPECT_EQ(demandAt(52.0F), 47952.0F); // the limit
    EXPECT_EQ(demandAt(60.0F), 47952.0F);
    EXPECT_EQ(demandAt(53.0F), 47952.0F);
    EXPECT_EQ(demandAt(48.0F), 48048.0F);
    EXPECT_EQ(demandAt(47.0F), 48048.0F);
    EXPECT_EQ(demandAt(0.0F), 48048.0F);
}

TEST_F(MixerDemand, TellsRateAndDepthAtLevel6)
{
    connectOutput(cardShape(47982.0F, 2, SAMPLE_S32BIT_LE, 4));
    addSource();
    mixer.underflow = false;
    Trace trace(6);
    service(); // 50 * 0.98 + 2 * 0.5
    EXPECT_THAT(trace.lines(), ElementsAre("6 SourceRate: 47982.000000      BufferDepth: 50.000000"));
}

TEST_F(MixerDemand, IsNotPublishedWhileTheOutputDoesNotPlay)
{
    connectOutput();
    addSource(2, SAMPLE_S16BIT_LE, 44444.0F);
    service();
    EXPECT_EQ(input(0).params.trueSampleRate, 44444.0F);
    EXPECT_TRUE(nextIsAfter(100000000));
}

TEST_F(MixerDemand, ARateOfZeroIsFixed)
{
    connectOutput();
    addSource();
    mixer.underflow = false;
    output().startAudio();
    Trace trace(9);
    service();
    EXPECT_THAT(trace.lines(), Contains("9 Rate Fixed, TrueSampleRate: 0.000000"));
    EXPECT_EQ(input(0).params.trueSampleRate, 0.0F);
    EXPECT_TRUE(nextIsAfter(6399999));
}

TEST_F(MixerDemand, TheLastInputDecidesTheInterval)
{
    connectOutput();
    output().startAudio();
    addSource(2, SAMPLE_S16BIT_LE, 48000.0F);
    addSource();
    service();
    EXPECT_TRUE(nextIsAfter(6399999));
    addSource(2, SAMPLE_S16BIT_LE, 48000.0F);
    service();
    EXPECT_TRUE(nextIsAfter(9600000));
    source(2).disconnect(); // an input without a source can't be steered, whatever its rate says
    Trace trace(9);
    service();
    EXPECT_THAT(trace.lines(), Contains("9 Rate Fixed, TrueSampleRate: 48000.000000"));
    EXPECT_TRUE(nextIsAfter(6399999));
}

TEST_F(MixerDemand, AnInputThatDoesNotPlayIsToldAsWell)
{
    connectOutput();
    output().startAudio();
    addSource();
    addSource(2, SAMPLE_S16BIT_LE, 44444.0F);
    input(1).stopAudio();
    service();
    EXPECT_EQ(input(1).params.trueSampleRate, 48000.0F);
}

// ---- Negotiation ----

TEST_F(MixerNegotiation, AnInputRefusesWhileTheOutputIsUnconnected)
{
    audioPortParam_t offer = shape(48000.0F, 0.0F, 2, SAMPLE_S16BIT_LE, 3);
    CDownstreamPort* in = mixer.getNextDownstreamPort();
    EXPECT_EQ(in->reconfigPortCheck(&offer), STREAM_ERROR);
    EXPECT_EQ(in->params.periodSize, 2048U);
}

TEST_F(MixerNegotiation, AnInputStartsWithTheOutputsParametersAsItsReset)
{
    connectOutput();
    place(7, 13, 6);
    auto& in = *static_cast<CMixerDSP*>(mixer.getNextDownstreamPort());
    EXPECT_EQ(in.getRunTimeId(), MIXER_FIFO_DSP);
    EXPECT_EQ(in.m_writeFramePtr, 7);
    EXPECT_EQ(in.m_frameCount, 0);
    EXPECT_EQ(in.params.nominalSampleRate, 48000.0F);
    EXPECT_EQ(in.params.nominalSampleRateStatus, FIXED);
    EXPECT_EQ(in.params.trueSampleRate, 48000.0F);
    EXPECT_EQ(in.params.trueSampleRateStatus, FIXED);
    EXPECT_EQ(in.params.numChannels, 2U);
    EXPECT_EQ(in.params.numChannelsStatus, FIXED);
    EXPECT_EQ(in.params.sampleFormat, SAMPLE_S32BIT_LE);
    EXPECT_EQ(in.params.sampleFormatStatus, FIXED);
    EXPECT_TRUE(in.params.samplesInterleaved);
    EXPECT_EQ(in.params.samplesInterleavedStatus, FIXED);
    EXPECT_EQ(in.params.periodSize, 4U);
    EXPECT_EQ(in.params.periodSizeStatus, FIXED);
}

TEST_F(MixerNegotiation, AFreeInputIsGivenOutAgainAtItsResetParameters)
{
    connectOutput();
    addSource();
    addSource();
    source(0).disconnect();
    input(0).params.periodSize = 99;
    input(0).portPlaybackState = AUDIO_MUTED;
    EXPECT_EQ(mixer.getNextDownstreamPort(), &input(0));
    EXPECT_EQ(input(0).params.periodSize, 4U);
    EXPECT_EQ(input(0).portPlaybackState, AUDIO_STOPPED);
    EXPECT_EQ(mixer.numDownstreamPorts(), 2U);
}

TEST_F(MixerNegotiation, NoInputIsMadeBeyondTheLimit)
{
    connectOutput();
    mixer.MAX_DS_PORTS = 2;
    addSource();
    addSource();
    EXPECT_EQ(mixer.getNextDownstreamPort(), nullptr);
    EXPECT_EQ(mixer.numDownstreamPorts(), 2U);
}

TEST_F(MixerNegotiation, InputTakesTheOutputsNominalRateUnlessThatIsVariable)
{
    connectOutput();
    CMixerDSP& in = *static_cast<CMixerDSP*>(mixer.getNextDownstreamPort());
    audioPortParam_t offer = output().params;
    offer.nominalSampleRate = 44100.0F;
    in.params.nominalSampleRate = 1.0F;
    {
        Trace trace(0);
        EXPECT_EQ(in.reconfigPortCheck(&offer), STREAM_OK);
        EXPECT_THAT(trace.lines(), ElementsAre("0 This MUX failed due to nominal sample rate myUSP: 48000.000000 "
                                               "incoming: 44100.000000"));
    }
    EXPECT_EQ(in.params.nominalSampleRate, 48000.0F);
    output().params.nominalSampleRateStatus = VARIABLE;
    EXPECT_EQ(in.reconfigPortCheck(&offer), STREAM_OK);
    EXPECT_EQ(in.params.nominalSampleRate, 44100.0F);
    EXPECT_EQ(output().params.nominalSampleRate, 44100.0F); // the block's check carries it across
}

TEST_F(MixerNegotiation, InputKeepsItsTrueRateUnlessTheOutputsIsVariable)
{
    connectOutput();
    CMixerDSP& in = *static_cast<CMixerDSP*>(mixer.getNextDownstreamPort());
    audioPortParam_t offer = output().params;
    offer.trueSampleRate = 47000.0F;
    {
        Trace trace(9);
        EXPECT_EQ(in.reconfigPortCheck(&offer), STREAM_OK);
        EXPECT_THAT(trace.lines(), Contains("9 Failed due to true sample rate"));
    }
    EXPECT_EQ(in.params.trueSampleRate, 48000.0F);
    output().params.trueSampleRateStatus = VARIABLE;
    EXPECT_EQ(in.reconfigPortCheck(&offer), STREAM_OK);
    EXPECT_EQ(in.params.trueSampleRate, 47000.0F);
    EXPECT_EQ(output().params.trueSampleRate, 47000.0F);
}

TEST_F(MixerNegotiation, OnlyMonoMayDifferInChannels)
{
    connectOutput();
    CMixerDSP& in = *static_cast<CMixerDSP*>(mixer.getNextDownstreamPort());
    audioPortParam_t offer = output().params;
    {
        offer.numChannels = 1;
        Trace trace(9);
        EXPECT_EQ(in.reconfigPortCheck(&offer), STREAM_OK);
        EXPECT_THAT(trace.lines(), ElementsAre("9 START Channels, thisC: 2, newC: 1", "9 0 Channels, thisC: 1, newC: 1",
                                               "9 END Channels, thisC: 1, newC: 1"));
        EXPECT_EQ(in.params.numChannels, 1U);
    }
    {
        offer.numChannels = 6;
        Trace trace(9);
        EXPECT_EQ(in.reconfigPortCheck(&offer), STREAM_OK);
        EXPECT_THAT(trace.lines(), ElementsAre("9 START Channels, thisC: 1, newC: 6",
                                               "9 Failed due to num Channels, thisC: 2, newC: 6",
                                               "9 END Channels, thisC: 2, newC: 6"));
        EXPECT_EQ(in.params.numChannels, 2U);
    }
    {
        output().params.numChannels = 0;
        offer.numChannels = 1;
        Trace trace(9);
        EXPECT_EQ(in.reconfigPortCheck(&offer), STREAM_OK);
        EXPECT_THAT(trace.lines(), ElementsAre("9 START Channels, thisC: 2, newC: 1",
                                               "9 FAILED! Channels: Trying to connect with USP settings",
                                               "9 END Channels, thisC: 0, newC: 1"));
        EXPECT_EQ(in.params.numChannels, 0U);
    }
    {
        output().params.numChannels = 2;
        offer.numChannels = 2;
        in.params.numChannels = 1; // left alone
        Trace trace(9);
        EXPECT_EQ(in.reconfigPortCheck(&offer), STREAM_OK);
        EXPECT_THAT(trace.lines(),
                    ElementsAre("9 START Channels, thisC: 1, newC: 2", "9 END Channels, thisC: 1, newC: 2"));
        EXPECT_EQ(in.params.numChannels, 1U);
    }
}

TEST_F(MixerNegotiation, TwoInputPeriodsAndAnOutputPeriodStayBelowTheRing)
{
    connectOutput();
    CMixerDSP& in = *static_cast<CMixerDSP*>(mixer.getNextDownstreamPort());
    audioPortParam_t offer = output().params;
    const auto checked = [&](uint32_t period) {
        in.params.periodSize = 1;
        offer.periodSize = period;
        Trace trace(9);
        EXPECT_EQ(in.reconfigPortCheck(&offer), STREAM_OK);
        EXPECT_THAT(trace.lines(), in.params.periodSize == 1 ? testing::Matcher<std::vector<std::string>>(
                                                                   Contains("9 Failed due to periodSize"))
                                                             : Not(Contains("9 Failed due to periodSize")));
        return in.params.periodSize;
    };
    EXPECT_EQ(checked(7), 7U);           // 14 + 4 < 20
    EXPECT_EQ(checked(8), 1U);           // 16 + 4 is not
    EXPECT_EQ(checked(0x80000000U), 1U); // no wrap lets a monster in
}

TEST_F(MixerNegotiation, InputTakesTheThreeFormatsThatCanBeAdded)
{
    connectOutput();
    CMixerDSP& in = *static_cast<CMixerDSP*>(mixer.getNextDownstreamPort());
    audioPortParam_t offer = output().params;
    for (const sampleFormat_e format : {SAMPLE_S8BIT, SAMPLE_S16BIT_LE, SAMPLE_S32BIT_LE}) {
        offer.sampleFormat = format;
        EXPECT_EQ(in.reconfigPortCheck(&offer), STREAM_OK);
        EXPECT_EQ(in.params.sampleFormat, format);
    }
    for (const sampleFormat_e format : {SAMPLE_UNKNOWN, SAMPLE_S16BIT_BE, SAMPLE_S32BIT_BE}) {
        offer.sampleFormat = format;
        Trace trace(9);
        EXPECT_EQ(in.reconfigPortCheck(&offer), STREAM_OK);
        EXPECT_THAT(trace.lines(), Contains("9 Failed due to sampleFormat"));
        EXPECT_EQ(in.params.sampleFormat, SAMPLE_S32BIT_LE);
    }
}

TEST_F(MixerNegotiation, InputTakesInterleavingOnlyWhereItsOwnIsVariable)
{
    connectOutput();
    CMixerDSP& in = *static_cast<CMixerDSP*>(mixer.getNextDownstreamPort());
    audioPortParam_t offer = output().params;
    offer.samplesInterleaved = false;
    {
        Trace trace(9);
        EXPECT_EQ(in.reconfigPortCheck(&offer), STREAM_OK);
        EXPECT_THAT(trace.lines(), Contains("9 Failed due to interleaved status"));
        EXPECT_TRUE(in.params.samplesInterleaved);
    }
    in.params.samplesInterleavedStatus = VARIABLE;
    EXPECT_EQ(in.reconfigPortCheck(&offer), STREAM_ERROR); // the ring is fixed
    EXPECT_FALSE(in.params.samplesInterleaved);
}

TEST_F(MixerNegotiation, BlockMergesThreeFieldsByStatus)
{
    audioPortParam_t usp = shape(48000.0F, 1.0F, 2, SAMPLE_S16BIT_LE, 100);
    audioPortParam_t dsp = shape(44100.0F, 2.0F, 1, SAMPLE_S32BIT_LE, 200);
    dsp.samplesInterleaved = false;
    const audioPortParam_t original = usp;

    usp.nominalSampleRateStatus = usp.samplesInterleavedStatus = usp.trueSampleRateStatus = VARIABLE;
    EXPECT_EQ(mixer.reconfigBlockCheck(usp, dsp), STREAM_OK);
    EXPECT_EQ(usp.nominalSampleRate, 44100.0F);
    EXPECT_EQ(usp.trueSampleRate, 2.0F);
    EXPECT_FALSE(usp.samplesInterleaved);
    EXPECT_EQ(usp.numChannels, 2U); // the rest is not looked at
    EXPECT_EQ(usp.periodSize, 100U);
    EXPECT_EQ(usp.sampleFormat, SAMPLE_S16BIT_LE);

    for (int fixed = 0; fixed < 3; fixed++) {
        usp = original;
        usp.nominalSampleRateStatus = fixed == 0 ? FIXED : VARIABLE;
        usp.samplesInterleavedStatus = fixed == 1 ? INCOMPATIBLE : VARIABLE;
        usp.trueSampleRateStatus = fixed == 2 ? FIXED : VARIABLE;
        EXPECT_EQ(mixer.reconfigBlockCheck(usp, dsp), STREAM_ERROR);
        EXPECT_EQ(usp.nominalSampleRate, fixed == 0 ? 48000.0F : 44100.0F);
        EXPECT_EQ(usp.samplesInterleaved, fixed == 1);
        EXPECT_EQ(usp.trueSampleRate, fixed == 2 ? 1.0F : 2.0F);
    }
}

TEST_F(MixerNegotiation, OutputIsStrictAndSaysWhatItCannotMeet)
{
    CUpstreamPort& out = output();
    out.params = cardShape(48000.0F, 2, SAMPLE_S32BIT_LE, 4);
    audioPortParam_t offer = shape(44100.0F, 1.0F, 1, SAMPLE_S16BIT_LE, 8);
    offer.samplesInterleaved = false;
    {
        Trace trace(1);
        EXPECT_EQ(out.reconfigPortCheck(&offer), STREAM_ERROR);
        EXPECT_THAT(trace.lines(),
                    ElementsAre("1 Reconfig check MUX type 18",
                                "1 NominalSampleRate (MUX):48000.000000 is not compatible with 44100.000000",
                                "1 TrueSampleRate (MUX):48000.000000 is not compatible with 1.000000",
                                "1 NumChannels (MUX):2 is not compatible with 1",
                                "1 PeriodSize (MUX):4 is not compatible with 8",
                                "1 SampleFormat (MUX):4 is not compatible with 2",
                                "1 SamplesInterleaved (MUX):1 is not compatible with 0"));
    }
    out.params.nominalSampleRateStatus = out.params.trueSampleRateStatus = out.params.numChannelsStatus =
        out.params.periodSizeStatus = out.params.sampleFormatStatus = out.params.samplesInterleavedStatus = VARIABLE;
    EXPECT_EQ(out.reconfigPortCheck(&offer), STREAM_OK);
    EXPECT_EQ(out.params.nominalSampleRate, 44100.0F);
    EXPECT_EQ(out.params.trueSampleRate, 1.0F);
    EXPECT_EQ(out.params.numChannels, 1U);
    EXPECT_EQ(out.params.periodSize, 8U);
    EXPECT_EQ(out.params.sampleFormat, SAMPLE_S16BIT_LE);
    EXPECT_FALSE(out.params.samplesInterleaved);
}

TEST_F(MixerNegotiation, WithInputsTheLastInputsVerdictIsTheOutputs)
{
    connectOutput();
    addSource();
    addSource();
    input(0).params.trueSampleRateStatus = VARIABLE;
    input(1).params.trueSampleRateStatus = VARIABLE;
    audioPortParam_t offer = output().params;
    offer.numChannels = 6; // a mark, but no input minds
    EXPECT_EQ(output().reconfigPortCheck(&offer), STREAM_OK);
    input(0).params.nominalSampleRate = 1.0F; // fixed, and not the last
    EXPECT_EQ(output().reconfigPortCheck(&offer), STREAM_OK);
    input(1).params.nominalSampleRate = 1.0F;
    EXPECT_EQ(output().reconfigPortCheck(&offer), STREAM_ERROR);
    input(1).params.nominalSampleRateStatus = VARIABLE;
    EXPECT_EQ(output().reconfigPortCheck(&offer), STREAM_OK);
    EXPECT_EQ(input(1).params.nominalSampleRate, 48000.0F); // taken over from the output
}

TEST_F(MixerNegotiation, AChangedOutputIsRefusedWhileAnInputIsConnected)
{
    connectOutput();
    addSource();
    audioPortParam_t changed = output().params;
    changed.periodSize = 2;
    {
        Trace trace(0);
        EXPECT_EQ(output().reconfigPortApply(&changed), STREAM_ERROR);
        EXPECT_THAT(trace.lines(),
                    ElementsAre("0 ERROR: can't modify upstream port after downstreams have been connected!!!!!"));
    }
    EXPECT_EQ(output().params.periodSize, 4U);
    source(0).disconnect();
    {
        Trace trace(1);
        changed.trueSampleRate = 47990.0F;
        EXPECT_EQ(output().reconfigPortApply(&changed), STREAM_OK);
        // The format is told before the ring of that format is built.
        EXPECT_THAT(trace.lines(),
                    ElementsAre("1 Setting format to 4", testing::StartsWith("0 ********* Buffer starts at ")));
    }
    EXPECT_EQ(mixer.m_bufferSizeFrame, 10);
    EXPECT_EQ(mixer.sourceBlockRate, 47990.0F);
}

// ---- Status ----

TEST_F(MixerStatus, CallsAreTracedAtLevelNine)
{
    Trace trace(9);
    connectOutput();
    addSource();
    service();
    mixer.init();
    mixer.getRunTimeId();
    mixer.graphBuffer();
    mixer.printBlockStatus();
    offered();
    output().ackReadPeriods(0);
    output().getRunTimeId();
    input(0).getRunTimeId();
    input(0).muteAudio();
    input(0).stopAudio();
    input(0).disconnect();
    const std::string text = trace.stop();
    for (const char* function : {"CMixer::getRunTimeId()",
                                 "CMixer::init()",
                                 "CMixer::myInit()",
                                 "CMixer::getNextDownstreamPort()",
                                 "CMixer::reconfigBlockCheck(",
                                 "CMixer::service(",
                                 "CMixer::copyAndAdd(",
                                 "CMixer::graphBuffer()",
                                 "CMixer::printBlockStatus()",
                                 "CMixerDSP::CMixerDSP(",
                                 "CMixerDSP::getRunTimeId()",
                                 "CMixerDSP::printPortStatus()",
                                 "CMixerDSP::reconfigPortCheck(",
                                 "CMixerDSP::reconfigPortApply(",
                                 "CMixerDSP::connectUpstream(",
                                 "CMixerDSP::startAudio()",
                                 "CMixerDSP::stopAudio()",
                                 "CMixerDSP::muteAudio()",
                                 "CMixerDSP::disconnect()",
                                 "CMixerUSP::getRunTimeId()",
                                 "CMixerUSP::connectDownstream(",
                                 "CMixerUSP::reconfigPortCheck(",
                                 "CMixerUSP::reconfigPortApply(",
                                 "CMixerUSP::reqReadPeriods(",
                                 "CMixerUSP::ackReadPeriods("}) {
        EXPECT_NE(text.find(std::string("audioLibrarySpace::") + function), std::string::npos) << function;
    }
}

TEST_F(MixerStatus, GraphShowsTheFillIn80Columns)
{
    connectOutput();
    const auto graph = [&](unsigned int count) {
        place(7, 17, count);
        Trace trace(0);
        mixer.graphBuffer();
        return trace.lines().at(0);
    };
    EXPECT_EQ(graph(10),
              "0 [" + std::string(40, '+') + "|" + std::string(39, '-') + "] Wptr[17] Rptr[7] FC[10] MAX[20]");
    EXPECT_EQ(graph(0), "0 [|" + std::string(79, '-') + "] Wptr[17] Rptr[7] FC[0] MAX[20]");
    EXPECT_EQ(graph(20), "0 [" + std::string(80, '+') + "] Wptr[17] Rptr[7] FC[20] MAX[20]");
    EXPECT_TRUE(mixer.mutexIsFree());
}

TEST_F(MixerStatus, GraphIsPrintedEveryHundredthServiceAboveLevel6)
{
    connectOutput();
    addSource();
    mixer.underflow = false;
    const auto servicesWithGraph = [&](int level, int services) {
        std::vector<int> with;
        for (int i = 0; i < services; i++) {
            Trace trace(level);
            service();
            for (const std::string& line : trace.lines()) {
                if (line.starts_with("0 [")) {
                    with.push_back(i);
                }
            }
        }
        return with;
    };
    EXPECT_THAT(servicesWithGraph(7, 201), ElementsAre(0, 100, 200));
    mixer.printCounter = 0;
    EXPECT_THAT(servicesWithGraph(6, 1), IsEmpty());
    EXPECT_EQ(mixer.printCounter, 1);
}

TEST_F(MixerStatus, BlockStatusTellsDepthPortsAndPositions)
{
    EXPECT_TRUE(mixer.printBlockStatus().starts_with("MUX                             BufferDepth: 50.000000\n"
                                                     "Ports: upstream              \n"
                                                     "Read pointer(#samples): 0 Write pointer(#samples): 0 Sample "
                                                     "Count: 0\n"));
    connectOutput();
    addSource();
    place(3, 17, 14);
    EXPECT_EQ(mixer.printBlockStatus(), "MUX                             BufferDepth: 50.000000\n"
                                        "Ports: upstream   downstream \n"
                                        "Read pointer(#samples): 3 Write pointer(#samples): 17 Sample Count: 14\n" +
                                            input(0).printPortStatus() + output().printPortStatus());
}

TEST_F(MixerStatus, InputStatusAddsItsPlaceInTheRing)
{
    connectOutput();
    addSource();
    input(0).m_writeFramePtr = 12;
    input(0).m_frameCount = -3;
    const std::string text = input(0).printPortStatus();
    EXPECT_TRUE(text.starts_with("Downstream port is connected to SOURCE\n"));
    EXPECT_TRUE(text.ends_with("  PlaybackState:                   Playing\n  *WritePointer: 12\n  *FrameCount: -3\n"));
    EXPECT_TRUE(mixer.mutexIsFree());
}

// ---- Real time ----

TEST_F(Mixer, TransfersAllocateNothing)
{
    connectOutput();
    addSource();
    addSource(1, SAMPLE_S16BIT_LE, 48000.0F);
    output().startAudio();
    source(0).acks.reserve(10000);
    source(1).acks.reserve(10000);
    source(0).give(stereoRamp(1, 3 * 3000));
    source(1).give(std::vector<int16_t>(3 * 3000, 1));
    source(0).offerAtMost = source(1).offerAtMost = 1;

    const unsigned int atStart = allocationsSoFar();
    for (int i = 0; i < 3000; i++) {
        mixer.service(next);
        char* p = nullptr;
        unsigned int n = 0;
        output().reqReadPeriods(p, n);
        output().ackReadPeriods(n > 1 ? 1 : n);
    }
    EXPECT_EQ(allocationsSoFar() - atStart, 0U);
    EXPECT_GT(input(0).getPeriodCount(), 1000);
}

namespace
{

/** Numbers its frames without end, one period an offer, in 32-bit mono. */
class CountingPort : public SourcePort
{
public:
    using SourcePort::SourcePort;
    streamStatus reqReadPeriods(char*& pbuffer, unsigned int& nPeriods) override
    {
        for (int32_t& frame : period) {
            frame = ++number;
        }
        pbuffer = reinterpret_cast<char*>(period);
        nPeriods = 1;
        return STREAM_OK;
    }
    streamStatus ackReadPeriods(unsigned int nPeriods) override
    {
        if (nPeriods == 0) {
            number -= 3; // comes again
        }
        return STREAM_OK;
    }

private:
    int32_t number = 0;
    int32_t period[3] = {};
};

class CountingSource : public CAudioBlock
{
public:
    CountingSource() : CAudioBlock("COUNTING")
    {
        upstream.push_back(new CountingPort(this, shape(48000.0F, 0.0F, 1, SAMPLE_S32BIT_LE, 3)));
    }
};

} // namespace

// The reader runs beside service() and beside inputs that come and go: what it gets is the source's frames in order,
// each at most once, with silence where the ring ran dry.
TEST(MixerThreads, AReaderBesideTheServiceGetsFramesInOrder)
{
    OpenMixer mixer("MUX", 32);
    Sink sink(cardShape(48000.0F, 1, SAMPLE_S32BIT_LE, 4));
    CountingSource counting;
    Source passing(shape(48000.0F, 0.0F, 1, SAMPLE_S32BIT_LE, 3));
    CUpstreamPort& output = *mixer.getUpstreamPort(0);
    ASSERT_EQ(output.connectDownstream(&sink.port(), nullptr), STREAM_OK);
    CDownstreamPort* in = mixer.getNextDownstreamPort();
    ASSERT_EQ(counting.getUpstreamPort(0)->connectDownstream(in, nullptr), STREAM_OK);
    in->startAudio();
    output.startAudio();

    std::atomic<bool> done{false};
    std::atomic<int> outOfOrder{0};
    std::thread reader([&] {
        int32_t last = 0;
        for (int heard = 0; heard < 20000;) {
            char* p = nullptr;
            unsigned int n = 0;
            output.reqReadPeriods(p, n);
            n = std::min(n, 1U);
            for (unsigned int i = 0; i < 4 * n; i++) {
                int32_t frame = 0;
                std::memcpy(&frame, p + i * 4, 4);
                if (frame != 0) {
                    outOfOrder += frame <= last ? 1 : 0;
                    last = frame;
                    heard++;
                }
            }
            output.ackReadPeriods(n);
        }
        done = true;
    });

    CServiceTime next;
    unsigned int passes = 0;
    while (!done) {
        mixer.service(next);
        if (++passes % 64 == 0) {
            CDownstreamPort* guest = mixer.getNextDownstreamPort();
            passing.port().connectDownstream(guest, nullptr);
            mixer.printBlockStatus();
            mixer.service(next);
            guest->stopAudio();
            passing.port().disconnect();
        }
    }
    reader.join();
    EXPECT_EQ(outOfOrder, 0);
}
