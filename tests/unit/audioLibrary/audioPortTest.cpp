#include "audioLibrary/audioPort.h"

#include "audioLibrary/graphTestSupport.h"
#include "audioLibrary/osAbstraction/osAbstraction.h"

#include <cmath>
#include <thread>

namespace
{

using namespace graphTest;

/** A port as bare as it comes. */
class BarePort : public CAudioPort
{
public:
    using CAudioPort::CAudioPort;
    using CAudioPort::periodCounter;
    using CAudioPort::pTraceLevel;
    using CAudioPort::resetParams;
    using CAudioPort::resetPortParams;
};

class AudioPort : public GraphTest
{
protected:
    /** A source with one output and a sink with one input. */
    ProbeBlock* source = nullptr;
    ProbeBlock* sink = nullptr;

    void SetUp() override
    {
        GraphTest::SetUp();
        source = new ProbeBlock("SOURCE", 1);
        sink = new ProbeBlock("SINK", 0, 1);
    }
    ProbeUSP& out() { return source->us(); }
    ProbeDSP& in() { return sink->ds(); }

    void expectJoined()
    {
        EXPECT_EQ(out().getDownstream(), &in());
        EXPECT_EQ(in().getUpstream(), &out());
    }
    void expectApartAndReset()
    {
        EXPECT_EQ(out().getDownstream(), nullptr);
        EXPECT_EQ(in().getUpstream(), nullptr);
        expectSameParams(out().params, out().resetParams);
        expectSameParams(in().params, in().resetParams);
        EXPECT_EQ(out().portPlaybackState, AUDIO_STOPPED);
        EXPECT_EQ(in().portPlaybackState, AUDIO_STOPPED);
    }
};

// -------------------------------------------------------------------------------------- the port by itself

TEST_F(AudioPort, StartsStoppedWithTheDefaultsAndNoCount)
{
    BarePort port(source);
    EXPECT_EQ(port.portPlaybackState, AUDIO_STOPPED);
    expectSameParams(port.resetParams, audioPortParam_t());
    expectSameParams(port.params, audioPortParam_t());
    EXPECT_EQ(port.getPeriodCount(), 0);
    EXPECT_TRUE(port.lastCountTime == CServiceTime());
    EXPECT_EQ(port.getParentBlock(), source);
    EXPECT_EQ(port.pTraceLevel, &audioInterfaceTraceLevel);
}

TEST_F(AudioPort, BaseClassesHaveNoId)
{
    EXPECT_EQ(BarePort(source).getRunTimeId(), INVALID_ID);
    EXPECT_EQ(CUpstreamPort(source).getRunTimeId(), INVALID_ID);
    EXPECT_EQ(CDownstreamPort(source).getRunTimeId(), INVALID_ID);
}

TEST_F(AudioPort, TheBaseHasNoPeer)
{
    BarePort port(source);
    EXPECT_FALSE(port.isCompatibleWith(&in()));
    EXPECT_FALSE(port.isConnected(nullptr));
    EXPECT_FALSE(port.isConnected(&in()));
    EXPECT_EQ(port.disconnect(), STREAM_ERROR);
}

TEST_F(AudioPort, TheBaseCarriesNoAudio)
{
    CUpstreamPort upstreamPort(source);
    CDownstreamPort downstreamPort(sink);
    audioPortParam_t record;
    char* buffer = nullptr;
    unsigned int nPeriods = 7;
    EXPECT_EQ(upstreamPort.reconfigPortApply(&record), STREAM_ERROR);
    EXPECT_EQ(downstreamPort.reconfigPortApply(&record), STREAM_ERROR);
    EXPECT_EQ(upstreamPort.reqReadPeriods(buffer, nPeriods), STREAM_ERROR);
    EXPECT_EQ(upstreamPort.ackReadPeriods(1), STREAM_ERROR);
}

TEST_F(AudioPort, ResetRestoresTheOwnParametersAndStops)
{
    BarePort port(source);
    port.resetParams = allFixedOddValues();
    port.resetPortParams();
    expectSameParams(port.params, allFixedOddValues());
    port.params.numChannels = 99;
    port.startAudio();
    port.resetPortParams();
    expectSameParams(port.params, allFixedOddValues());
    EXPECT_EQ(port.portPlaybackState, AUDIO_STOPPED);
}

TEST_F(AudioPort, ReturnsItsParameters)
{
    BarePort port(source);
    port.params = allFixedOddValues();
    audioPortParam_t copy;
    EXPECT_EQ(port.returnPortParams(&copy), STREAM_OK);
    expectSameParams(copy, allFixedOddValues());
    EXPECT_EQ(port.returnPortParams(nullptr), STREAM_ERROR);
}

TEST_F(AudioPort, SizesFollowTheParameters)
{
    BarePort port(source);
    port.params.sampleFormat = SAMPLE_S32BIT_LE;
    port.params.numChannels = 3;
    port.params.periodSize = 131;
    EXPECT_EQ(port.getSampleBytes(), 4U);
    EXPECT_EQ(port.getSampleBits(), 32U);
    EXPECT_EQ(port.getPeriodBytes(), 1572U); // 131 * 3 * 4
    EXPECT_EQ(port.getSampleFormatString(), "SAMPLE_S32BIT_LE");
}

TEST_F(AudioPort, AnUnknownFormatIsToldOnStderr)
{
    BarePort port(source);
    port.params.sampleFormat = SAMPLE_UNKNOWN;
    testing::internal::CaptureStderr();
    EXPECT_EQ(port.getSampleBytes(), 0U);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "invalid sample format: 0\n");
}

TEST_F(AudioPort, StartTakesTheNominalRateAndTheTime)
{
    BarePort port(source);
    port.params.nominalSampleRate = 44100.0F;
    port.lastCountTime.immediateService = true;
    port.lastCountTime.serviceRequired = true;
    clockTime() = {77, 88};
    EXPECT_EQ(port.startAudio(), STREAM_OK);
    EXPECT_EQ(port.portPlaybackState, AUDIO_PLAYING);
    EXPECT_EQ(port.avgRate, 44100.0F);
    EXPECT_EQ(port.lastCountTime.nextServiceTime.tv_sec, 77);
    EXPECT_EQ(port.lastCountTime.nextServiceTime.tv_nsec, 88);
    EXPECT_TRUE(port.lastCountTime.immediateService);
    EXPECT_TRUE(port.lastCountTime.serviceRequired);
    EXPECT_EQ(port.getPlaybackState(), "Playing\n");
}

TEST_F(AudioPort, APausedPortIsAStoppedPort)
{
    BarePort port(source);
    port.startAudio();
    EXPECT_EQ(port.pauseAudio(), STREAM_OK);
    EXPECT_EQ(port.portPlaybackState, AUDIO_STOPPED);
    EXPECT_EQ(port.getPlaybackState(), "Stopped\n");
}

TEST_F(AudioPort, AnyStateFollowsAnyOther)
{
    BarePort port(source);
    EXPECT_EQ(port.muteAudio(), STREAM_OK);
    EXPECT_EQ(port.portPlaybackState, AUDIO_MUTED);
    EXPECT_EQ(port.getPlaybackState(), "Muted \n");
    EXPECT_EQ(port.startAudio(), STREAM_OK);
    EXPECT_EQ(port.portPlaybackState, AUDIO_PLAYING);
    EXPECT_EQ(port.stopAudio(), STREAM_OK);
    EXPECT_EQ(port.portPlaybackState, AUDIO_STOPPED);
}

TEST_F(AudioPort, StateStaysOnOneSideOfAConnection)
{
    ASSERT_EQ(out().connectDownstream(&in(), nullptr), STREAM_OK);
    out().startAudio();
    EXPECT_EQ(in().portPlaybackState, AUDIO_STOPPED);
}

// -------------------------------------------------------------------------------------- check and merge

TEST_F(AudioPort, CheckAdoptsVariableFieldsWithoutAWord)
{
    out().become(allVariable());
    const audioPortParam_t offered = allFixedOddValues();
    audioPortParam_t record = offered;
    const Lines lines = traced(1, [&] { EXPECT_EQ(out().reconfigPortCheck(&record), STREAM_OK); });
    EXPECT_EQ(lines, (Lines{"(1) Reconfig check SOURCE type 0"}));
    audioPortParam_t wanted = offered;
    wanted.nominalSampleRateStatus = wanted.trueSampleRateStatus = wanted.numChannelsStatus = VARIABLE;
    wanted.sampleFormatStatus = wanted.samplesInterleavedStatus = wanted.periodSizeStatus = VARIABLE;
    expectSameParams(out().params, wanted); // the values, never the statuses
    expectSameParams(record, offered);
}

/** A port with an id of its own. */
class PortWithId : public BarePort
{
public:
    using BarePort::BarePort;
    runTimeId getRunTimeId() override { return MIXER_FIFO_USP; }
};

TEST_F(AudioPort, CheckBeginsWithTheBlockAndTheIdOfThePort)
{
    PortWithId port(source);
    audioPortParam_t record;
    EXPECT_EQ(traced(1, [&] { port.reconfigPortCheck(&record); }), (Lines{"(1) Reconfig check SOURCE type 18"}));
}

TEST_F(AudioPort, CheckTellsEveryFixedFieldThatDiffersInOrder)
{
    audioPortParam_t fixed;
    fixed.trueSampleRateStatus = FIXED;
    out().become(fixed);
    const audioPortParam_t offered = allFixedOddValues();
    audioPortParam_t record = offered;
    const Lines lines = traced(1, [&] { EXPECT_EQ(out().reconfigPortCheck(&record), STREAM_ERROR); });
    EXPECT_EQ(lines, (Lines{"(1) Reconfig check SOURCE type 0",
                            "(1) NominalSampleRate (SOURCE):48000.000000 is not compatible with 44100.000000",
                            "(1) TrueSampleRate (SOURCE):0.000000 is not compatible with 44099.500000",
                            "(1) NumChannels (SOURCE):2 is not compatible with 1",
                            "(1) PeriodSize (SOURCE):512 is not compatible with 131",
                            "(1) SampleFormat (SOURCE):2 is not compatible with 4",
                            "(1) SamplesInterleaved (SOURCE):1 is not compatible with 0"}));
    expectSameParams(out().params, fixed);
    expectSameParams(record, offered);
}

TEST_F(AudioPort, CheckIsSilentAtLevelZero)
{
    audioPortParam_t record = allFixedOddValues();
    EXPECT_EQ(traced(0, [&] { out().reconfigPortCheck(&record); }), Lines{});
}

TEST_F(AudioPort, EqualFieldsPassWhateverTheirStatus)
{
    audioPortParam_t own;
    own.numChannelsStatus = INCOMPATIBLE;
    out().become(own);
    audioPortParam_t record;
    EXPECT_EQ(out().reconfigPortCheck(&record), STREAM_OK);
}

TEST_F(AudioPort, AFieldMarkedIncompatibleIsNotAdopted)
{
    audioPortParam_t own;
    own.numChannelsStatus = INCOMPATIBLE;
    out().become(own);
    audioPortParam_t record;
    record.numChannels = 1;
    EXPECT_EQ(out().reconfigPortCheck(&record), STREAM_ERROR);
    EXPECT_EQ(out().params.numChannels, 2U);
}

TEST_F(AudioPort, AdoptedFieldsStayAroundAFailingOne)
{
    audioPortParam_t own = allVariable();
    own.numChannelsStatus = FIXED;
    out().become(own);
    audioPortParam_t record = allFixedOddValues();
    EXPECT_EQ(out().reconfigPortCheck(&record), STREAM_ERROR);
    EXPECT_EQ(out().params.nominalSampleRate, 44100.0F); // before the failure
    EXPECT_EQ(out().params.numChannels, 2U);
    EXPECT_EQ(out().params.periodSize, 131U); // and after it
    EXPECT_FALSE(out().params.samplesInterleaved);
}

TEST_F(AudioPort, RatesAreComparedWithoutTolerance)
{
    audioPortParam_t record;
    record.nominalSampleRate = std::nextafter(48000.0F, 50000.0F);
    EXPECT_EQ(out().reconfigPortCheck(&record), STREAM_ERROR);
}

TEST_F(AudioPort, CheckOfNoRecordFails)
{
    EXPECT_EQ(out().reconfigPortCheck(nullptr), STREAM_ERROR);
}

TEST_F(AudioPort, CompatibilityIsARealCheckOfThePeer)
{
    out().params.numChannels = 1;
    EXPECT_FALSE(out().isCompatibleWith(&in()));
    EXPECT_EQ(in().checks, 1);
    in().become(allVariable());
    EXPECT_TRUE(out().isCompatibleWith(&in()));
    EXPECT_EQ(in().params.numChannels, 1U); // adopted on the way

    in().params.numChannels = 3;
    EXPECT_FALSE(in().isCompatibleWith(&out()));
    EXPECT_EQ(out().checks, 1);
    EXPECT_FALSE(out().isCompatibleWith(nullptr));
    EXPECT_FALSE(in().isCompatibleWith(nullptr));
}

// -------------------------------------------------------------------------------------- connecting

TEST_F(AudioPort, ConnectingEqualPortsIsToldLineByLine)
{
    const Lines lines = traced(1, [&] { EXPECT_EQ(out().connectDownstream(&in(), nullptr), STREAM_OK); });
    EXPECT_EQ(lines, (Lines{"(1) Reconfig check SINK type 0",
                            "(1) connectDownstream: successfully reconfigured port parameters (SOURCE->SINK)",
                            "(1) SOURCE connectDownstream Status: STREAM_OK",
                            "(1) connectupstream called from connect downstream", "(1) Reconfig check SOURCE type 0",
                            "(1) connectUpstream: successfully reconfigured port parameters (SINK->SOURCE)"}));
    expectJoined();
    EXPECT_EQ(in().applies, 1);
    EXPECT_EQ(out().applies, 1);
}

TEST_F(AudioPort, ConnectingIsSilentAtLevelZero)
{
    EXPECT_EQ(traced(0, [&] { EXPECT_EQ(out().connectDownstream(&in(), nullptr), STREAM_OK); }), Lines{});
}

TEST_F(AudioPort, TheMutexPlaysNoPart)
{
    mutexObject noMutexBehindIt;
    EXPECT_EQ(out().connectDownstream(&in(), &noMutexBehindIt), STREAM_OK);
    expectJoined();
}

/** An input that keeps the mutex that the output passed it. */
class MutexKeeper : public ProbeDSP
{
public:
    using ProbeDSP::ProbeDSP;
    streamStatus connectUpstream(CUpstreamPort* port, mutexObject* mutex) override
    {
        passed = mutex;
        return ProbeDSP::connectUpstream(port, mutex);
    }
    mutexObject notYetCalled;
    mutexObject* passed = &notYetCalled;
};

TEST_F(AudioPort, TheMutexIsNotPassedOn)
{
    MutexKeeper keeper(sink, "KEEPER");
    mutexObject mutex;
    EXPECT_EQ(out().connectDownstream(&keeper, &mutex), STREAM_OK);
    EXPECT_EQ(keeper.passed, nullptr);
    out().disconnect();
}

TEST_F(AudioPort, VariableInputTakesTheValuesOfTheOutput)
{
    out().become(allFixedOddValues());
    in().become(allVariable());
    EXPECT_EQ(out().connectDownstream(&in(), nullptr), STREAM_OK);
    // The apply copies the whole record, statuses included, so both sides end with the output's.
    expectSameParams(in().params, allFixedOddValues());
    expectSameParams(out().params, allFixedOddValues());
}

TEST_F(AudioPort, FixedInputPullsAVariableOutputThroughTheReversePass)
{
    out().become(allVariable());
    in().become(allFixedOddValues());
    const Lines lines = traced(1, [&] { EXPECT_EQ(out().connectDownstream(&in(), nullptr), STREAM_OK); });
    EXPECT_EQ(lines, (Lines{"(1) Reconfig check SINK type 0",
                            "(1) NominalSampleRate (SINK):44100.000000 is not compatible with 48000.000000",
                            "(1) TrueSampleRate (SINK):44099.500000 is not compatible with 0.000000",
                            "(1) NumChannels (SINK):1 is not compatible with 2",
                            "(1) PeriodSize (SINK):131 is not compatible with 512",
                            "(1) SampleFormat (SINK):4 is not compatible with 2",
                            "(1) SamplesInterleaved (SINK):0 is not compatible with 1",
                            "(1) connectDownstream: unable to reconfigure port parameters (SOURCE->SINK)",
                            "(1) SOURCE connectDownstream Status: STREAM_ERROR",
                            "(1) connectupstream called from connect downstream", "(1) Reconfig check SOURCE type 0",
                            "(1) connectUpstream: successfully reconfigured port parameters (SINK->SOURCE)"}));
    expectJoined();
    EXPECT_EQ(in().applies, 0);
    expectSameParams(out().params, allFixedOddValues());
    expectSameParams(in().params, allFixedOddValues());
}

TEST_F(AudioPort, FixedAgainstFixedFailsOnTheWayBack)
{
    in().become([] {
        audioPortParam_t mono;
        mono.numChannels = 1;
        return mono;
    }());
    const Lines lines = traced(1, [&] { EXPECT_EQ(out().connectDownstream(&in(), nullptr), STREAM_ERROR); });
    EXPECT_EQ(lines, (Lines{"(1) Reconfig check SINK type 0", "(1) NumChannels (SINK):1 is not compatible with 2",
                            "(1) connectDownstream: unable to reconfigure port parameters (SOURCE->SINK)",
                            "(1) SOURCE connectDownstream Status: STREAM_ERROR",
                            "(1) connectupstream called from connect downstream", "(1) Reconfig check SOURCE type 0",
                            "(1) NumChannels (SOURCE):2 is not compatible with 1",
                            "(1) connectUpstream: unable to reconfigure port parameters (SINK->SOURCE)"}));
    // Each side takes itself down, and each time the other follows.
    EXPECT_EQ(portLog(),
              (Lines{"SINK.ds0 disconnect", "SOURCE.us0 disconnect", "SINK.ds0 disconnect", "SOURCE.us0 disconnect"}));
    expectApartAndReset();
}

TEST_F(AudioPort, AFailedForwardApplyIsToldAndGoesOn)
{
    in().applyAnswer = STREAM_ERROR;
    const Lines lines = traced(1, [&] { EXPECT_EQ(out().connectDownstream(&in(), nullptr), STREAM_OK); });
    EXPECT_EQ(lines, (Lines{"(1) Reconfig check SINK type 0",
                            "(1) connectDownstream: unable to apply port parameters (SOURCE->SINK)",
                            "(1) SOURCE connectDownstream Status: STREAM_ERROR",
                            "(1) connectupstream called from connect downstream", "(1) Reconfig check SOURCE type 0",
                            "(1) connectUpstream: successfully reconfigured port parameters (SINK->SOURCE)"}));
    expectJoined();
}

TEST_F(AudioPort, AFailedReverseApplyFailsWithItsStatus)
{
    out().applyAnswer = NO_MEMORY;
    const Lines lines = traced(1, [&] { EXPECT_EQ(out().connectDownstream(&in(), nullptr), NO_MEMORY); });
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(), "(1) connectUpstream: unable to apply port parameters (SINK->SOURCE)");
    expectApartAndReset();
}

TEST_F(AudioPort, AnOutputWithTheBaseApplyCannotBeConnected)
{
    CUpstreamPort bare(source);
    EXPECT_EQ(bare.connectDownstream(&in(), nullptr), STREAM_ERROR);
    EXPECT_EQ(bare.getDownstream(), nullptr);
    EXPECT_EQ(in().getUpstream(), nullptr);
}

TEST_F(AudioPort, ThePeerIsOfferedACopy)
{
    out().become(allVariable());
    in().become(allFixedOddValues());
    out().connectDownstream(&in(), nullptr);
    // The forward record is the output's as it stood; the reverse one is the input's.
    EXPECT_EQ(out().checkParams.nominalSampleRate, 48000.0F);
    expectSameParams(in().checkParams, allFixedOddValues());
}

TEST_F(AudioPort, ConnectingToNothingFails)
{
    EXPECT_EQ(traced(1, [&] { EXPECT_EQ(out().connectDownstream(nullptr, nullptr), STREAM_ERROR); }), Lines{});
    EXPECT_FALSE(out().isConnected(nullptr));
}

TEST_F(AudioPort, AnInputInUseIsRefusedAndBothConnectionsStand)
{
    ProbeBlock other("OTHER", 1, 1);
    ASSERT_EQ(out().connectDownstream(&in(), nullptr), STREAM_OK);
    EXPECT_EQ(traced(1, [&] { EXPECT_EQ(other.us().connectDownstream(&in(), nullptr), STREAM_ERROR); }), Lines{});
    expectJoined();
    EXPECT_FALSE(other.us().isConnected(nullptr));

    ASSERT_EQ(other.us().connectDownstream(&other.ds(), nullptr), STREAM_OK);
    EXPECT_EQ(traced(1, [&] { EXPECT_EQ(other.us().connectDownstream(&in(), nullptr), STREAM_ERROR); }), Lines{});
    expectJoined();
    EXPECT_TRUE(other.us().isConnected(&other.ds()));
    other.us().disconnect();
}

TEST_F(AudioPort, AnOutputInUseIsRefusedAndItsConnectionStands)
{
    ProbeBlock other("OTHER", 0, 1);
    ASSERT_EQ(out().connectDownstream(&in(), nullptr), STREAM_OK);
    EXPECT_EQ(traced(1, [&] { EXPECT_EQ(out().connectDownstream(&other.ds(), nullptr), STREAM_ERROR); }), Lines{});
    expectJoined();
    EXPECT_FALSE(other.ds().isConnected(nullptr));
}

TEST_F(AudioPort, ConnectingAJoinedPairAgainRenegotiatesNothing)
{
    ASSERT_EQ(out().connectDownstream(&in(), nullptr), STREAM_OK);
    out().checkParams.periodSize = 1;
    const Lines lines = traced(1, [&] { EXPECT_EQ(out().connectDownstream(&in(), nullptr), STREAM_OK); });
    EXPECT_EQ(lines, (Lines{"(1) Reconfig check SINK type 0"}));
    expectJoined();
    EXPECT_EQ(out().checkParams.periodSize, 1U); // no new copy was made
    EXPECT_EQ(in().applies, 1);
    EXPECT_EQ(out().applies, 1);
}

TEST_F(AudioPort, AJoinedPairGrownIncompatibleIsTakenDown)
{
    ASSERT_EQ(out().connectDownstream(&in(), nullptr), STREAM_OK);
    out().params.numChannels = 1;
    const Lines lines = traced(1, [&] { EXPECT_EQ(out().connectDownstream(&in(), nullptr), STREAM_ERROR); });
    EXPECT_EQ(lines, (Lines{"(1) Reconfig check SINK type 0", "(1) NumChannels (SINK):2 is not compatible with 1",
                            "(1) Ports are incompatible"}));
    expectApartAndReset();
}

// -------------------------------------------------------------------------------------- the reverse pass alone

TEST_F(AudioPort, TheReversePassRefusesNothing)
{
    EXPECT_EQ(traced(1, [&] { EXPECT_EQ(in().connectUpstream(nullptr, nullptr), STREAM_ERROR); }), Lines{});
}

TEST_F(AudioPort, TheReversePassRefusesADirectCall)
{
    const Lines lines = traced(1, [&] { EXPECT_EQ(in().connectUpstream(&out(), nullptr), STREAM_ERROR); });
    EXPECT_EQ(lines, (Lines{"(1) connectUpstream() can no longer be called from application, it must",
                            "(1) always be called from within connectDownstream"}));
    EXPECT_FALSE(in().isConnected(nullptr));
}

TEST_F(AudioPort, TheReversePassRefusesASecondOutput)
{
    ProbeBlock other("OTHER", 1, 1);
    ASSERT_EQ(out().connectDownstream(&in(), nullptr), STREAM_OK);
    ASSERT_EQ(other.us().connectDownstream(&other.ds(), nullptr), STREAM_OK);
    const Lines lines = traced(1, [&] { EXPECT_EQ(in().connectUpstream(&other.us(), nullptr), STREAM_ERROR); });
    EXPECT_EQ(lines, (Lines{"(1) connectupstream called from connect downstream"}));
    expectJoined();
    other.us().disconnect();
}

TEST_F(AudioPort, TheReversePassLeavesACompatiblePairAlone)
{
    ASSERT_EQ(out().connectDownstream(&in(), nullptr), STREAM_OK);
    EXPECT_EQ(in().connectUpstream(&out(), nullptr), STREAM_OK);
    expectJoined();
    EXPECT_EQ(out().applies, 1);
}

TEST_F(AudioPort, TheReversePassTakesAnIncompatiblePairDown)
{
    ASSERT_EQ(out().connectDownstream(&in(), nullptr), STREAM_OK);
    in().params.numChannels = 1;
    EXPECT_EQ(in().connectUpstream(&out(), nullptr), STREAM_ERROR);
    expectApartAndReset();
}

// -------------------------------------------------------------------------------------- disconnecting

TEST_F(AudioPort, DisconnectingEitherSideTakesBothDown)
{
    for (const bool fromTheOutput : {true, false}) {
        ASSERT_EQ(out().connectDownstream(&in(), nullptr), STREAM_OK);
        out().params.numChannels = in().params.numChannels = 5;
        out().startAudio();
        in().muteAudio();
        EXPECT_EQ(fromTheOutput ? out().disconnect() : in().disconnect(), STREAM_OK);
        expectApartAndReset();
    }
}

TEST_F(AudioPort, AnUnconnectedOutputIsResetByADisconnect)
{
    out().params.numChannels = 5;
    out().startAudio();
    EXPECT_EQ(out().disconnect(), STREAM_OK);
    EXPECT_EQ(out().params.numChannels, 2U);
    EXPECT_EQ(out().portPlaybackState, AUDIO_STOPPED);
}

TEST_F(AudioPort, AnUnconnectedInputIsLeftByADisconnect)
{
    in().params.numChannels = 5;
    in().startAudio();
    EXPECT_EQ(in().disconnect(), STREAM_OK);
    EXPECT_EQ(in().params.numChannels, 5U);
    EXPECT_EQ(in().portPlaybackState, AUDIO_PLAYING);
}

TEST_F(AudioPort, IsConnectedAsksForAnyPeerOrForOne)
{
    ProbeBlock other("OTHER", 1, 1);
    EXPECT_FALSE(out().isConnected(nullptr));
    EXPECT_FALSE(out().isConnected(&in()));
    ASSERT_EQ(out().connectDownstream(&in(), nullptr), STREAM_OK);
    EXPECT_TRUE(out().isConnected(nullptr));
    EXPECT_TRUE(out().isConnected(&in()));
    EXPECT_FALSE(out().isConnected(&other.ds()));
    EXPECT_TRUE(in().isConnected(nullptr));
    EXPECT_TRUE(in().isConnected(&out()));
    EXPECT_FALSE(in().isConnected(&other.us()));
}

TEST_F(AudioPort, DestructionDoesNotDisconnect)
{
    auto* gone = new ProbeBlock("GONE", 1);
    ProbeUSP* port = &gone->us();
    ASSERT_EQ(port->connectDownstream(&in(), nullptr), STREAM_OK);
    traced(-1, [&] { delete gone; });
    EXPECT_EQ(static_cast<void*>(in().getUpstream()), static_cast<void*>(port)); // stale: only ever compared
}

// -------------------------------------------------------------------------------------- counting and the rate

class PeriodCount : public AudioPort
{
protected:
    /** One call of incPeriodCount `nanoSeconds` after the last, from an average of `avgRate`; the new average. */
    float after(float avgRate, monotonicTime interval, unsigned int nPeriods = 1)
    {
        port.avgRate = avgRate;
        port.lastCountTime = CServiceTime();
        clockTime() = interval;
        port.incPeriodCount(nPeriods);
        return port.avgRate;
    }
    /** The same with no time passed: what remains is the credit of one period, 512 times alpha. */
    float credit(float avgRate)
    {
        port.avgRate = avgRate;
        port.lastCountTime.immediateService = true;
        port.incPeriodCount(1);
        return port.avgRate - avgRate;
    }
    BarePort port{nullptr};
};

TEST_F(PeriodCount, InsideTheBandTheAverageSettlesSlowly)
{
    // 1 s: delta = 1 - 0.002; 0.998 * 48000 + 512 * 0.002 = 47905.024
    EXPECT_NEAR(after(48000.0F, {1, 0}), 47905.024F, 0.004F);
}

TEST_F(PeriodCount, OutsideTheBandTheAverageCatchesUp)
{
    // 0.5 s: delta = 1 - 0.2 * 0.5; 0.9 * 40000 + 512 * 0.2 = 36102.4
    EXPECT_NEAR(after(40000.0F, {0, 500000000}), 36102.4F, 0.004F);
    EXPECT_NEAR(after(60000.0F, {0, 500000000}), 54102.4F, 0.004F);
    EXPECT_EQ(after(0.0F, {0, 500000000}), 102.4F);
}

TEST_F(PeriodCount, TheBandEndsAtTwoInAThousand)
{
    EXPECT_NEAR(credit(47904.0F), 1.024F, 0.004F); // exactly 0.998
    EXPECT_NEAR(credit(std::nextafter(47904.0F, 0.0F)), 102.4F, 0.004F);
    EXPECT_NEAR(credit(48096.0F), 1.024F, 0.004F); // exactly 1.002
    EXPECT_NEAR(credit(std::nextafter(48096.0F, 50000.0F)), 102.4F, 0.004F);
}

TEST_F(PeriodCount, TheBandFollowsTheNominalRate)
{
    port.params.nominalSampleRate = 44100.0F;
    EXPECT_NEAR(credit(44100.0F), 1.024F, 0.004F);
    EXPECT_NEAR(credit(48000.0F), 102.4F, 0.004F);
}

TEST_F(PeriodCount, AnImmediateLastTimeCountsAsNoInterval)
{
    port.avgRate = 40000.0F;
    port.lastCountTime.immediateService = true;
    port.lastCountTime.serviceRequired = true;
    clockTime() = {55, 66};
    port.incPeriodCount(1);
    EXPECT_EQ(port.avgRate, 40000.0F + 102.4F);
    EXPECT_FALSE(port.lastCountTime.immediateService);
    EXPECT_FALSE(port.lastCountTime.serviceRequired);
    EXPECT_EQ(port.lastCountTime.nextServiceTime.tv_sec, 55);
    EXPECT_EQ(port.lastCountTime.nextServiceTime.tv_nsec, 66);
}

TEST_F(PeriodCount, ThreeSecondsAreStillReadRight)
{
    // negative as a signed difference, 3000000000 as an unsigned one: (1 - 0.2 * 3) * 40000 + 102.4
    EXPECT_NEAR(after(40000.0F, {3, 0}), 16102.4F, 0.01F);
}

TEST_F(PeriodCount, FiveSecondsWrap)
{
    // 5000000000 - 2^32 = 705032704: (1 - 0.2 * 0.705032704) * 40000 + 102.4 = 34462.138
    EXPECT_NEAR(after(40000.0F, {5, 0}), 34462.138F, 0.01F);
}

TEST_F(PeriodCount, WithoutAStartTheIntervalIsTheWrappedTimeOfTheClock)
{
    // 1000 s since zero: 1000 * 10^9 mod 2^32 = 3567587328; (1 - 0.2 * 3.567587328) * 10000 + 102.4 = 2967.2253
    BarePort fresh(nullptr);
    fresh.avgRate = 10000.0F; // whatever it holds before the first start
    fresh.incPeriodCount(1);
    EXPECT_NEAR(fresh.avgRate, 2967.2253F, 0.01F);
    EXPECT_EQ(fresh.lastCountTime.nextServiceTime.tv_sec, 1000);
    // At the right pace each call of the fast branch leaves 1 - 0.2 * 0.010666667 of the distance: 4000 calls are more
    // than the 2883 that bring 45033 down to the 96 of the band.
    for (int i = 0; i < 4000; i++) {
        CServiceTime next = fresh.lastCountTime;
        next += 10666667;
        clockTime() = next.nextServiceTime;
        fresh.incPeriodCount(1);
    }
    EXPECT_NEAR(fresh.avgRate, 48000.0F, 100.0F);
}

TEST_F(PeriodCount, SeveralPeriodsEarnOneCredit)
{
    const float one = after(40000.0F, {0, 500000000}, 1);
    const float three = after(40000.0F, {0, 500000000}, 3);
    EXPECT_EQ(one, three);
    EXPECT_EQ(port.getPeriodCount(), 4);
}

TEST_F(PeriodCount, TheCounterWraps)
{
    port.addPeriods(2147483647U);
    port.addPeriods(1);
    EXPECT_EQ(port.getPeriodCount(), -2147483647 - 1);
}

TEST_F(PeriodCount, AddingPeriodsMeasuresNothing)
{
    port.avgRate = 1.0F;
    port.addPeriods(3);
    EXPECT_EQ(port.avgRate, 1.0F);
    EXPECT_EQ(port.getPeriodCount(), 3);
    EXPECT_TRUE(port.lastCountTime == CServiceTime());
}

TEST_F(PeriodCount, ConvergesOnThePeriodsPerSecond)
{
    // A period of 512 every 10.7 ms is 47850.5 frames a second, 0.3 % off: found by the fast branch, kept by the slow.
    port.startAudio();
    port.avgRate = 30000.0F;
    for (int i = 0; i < 20000; i++) {
        CServiceTime next;
        next.nextServiceTime = clockTime();
        next += 10700000;
        clockTime() = next.nextServiceTime;
        port.incPeriodCount(1);
    }
    EXPECT_NEAR(port.avgRate, 47850.5F, 5.0F);
}

TEST_F(PeriodCount, TwoThreadsCountAndRead)
{
    std::thread reader([this] {
        for (int i = 0; i < 10000; i++) {
            port.addPeriods(1);
        }
    });
    for (int i = 0; i < 100; i++) {
        EXPECT_NE(port.printPortStatus(), "");
        port.stopAudio();
    }
    reader.join();
    EXPECT_EQ(port.getPeriodCount(), 10000);
}

// -------------------------------------------------------------------------------------- status text

TEST_F(AudioPort, BaseStatusText)
{
    BarePort port(source);
    port.params.trueSampleRate = 47982.0F;
    port.addPeriods(7);
    EXPECT_EQ(port.printPortStatus(), "  Nominal sample rate:            (FIX) 48000.000000 Hz\n"
                                      "  True sample rate:               (VAR) 47982.000000 Hz\n"
                                      "  Number of channels:             (FIX) 2\n"
                                      "  Sample format type:             (FIX) SAMPLE_S16BIT_LE\n"
                                      "  Samples are interleaved:        (FIX) yes\n"
                                      "  Period size in samples:         (FIX) 512\n"
                                      "  Period count:                     7\n"
                                      "  PlaybackState:                   Stopped\n");
}

TEST_F(AudioPort, EachFieldOfTheStatusTextFollowsItsOwnStatus)
{
    BarePort port(source);
    port.params = allVariable();
    port.params.trueSampleRateStatus = FIXED;
    port.params.numChannelsStatus = INCOMPATIBLE;
    port.params.samplesInterleaved = false;
    port.params.sampleFormat = SAMPLE_S8BIT;
    port.addPeriods(12345);
    port.muteAudio();
    EXPECT_EQ(port.printPortStatus(), "  Nominal sample rate:            (VAR) 48000.000000 Hz\n"
                                      "  True sample rate:               (FIX) 0.000000 Hz\n"
                                      "  Number of channels:             (VAR) 2\n"
                                      "  Sample format type:             (VAR) UNKOWN\n"
                                      "  Samples are interleaved:        (VAR) no\n"
                                      "  Period size in samples:         (VAR) 512\n"
                                      "  Period count:                   12345\n"
                                      "  PlaybackState:                   Muted \n");
}

TEST_F(AudioPort, OutputStatusTextBeginsWithThePeerAndTheRate)
{
    out().avgRate = 47999.5F;
    EXPECT_EQ(out().printPortStatus(), "Upstream port is disconnected\n"
                                       "  Average Rate:                   47999.500000\n" +
                                           out().CAudioPort::printPortStatus());
    out().connectDownstream(&in(), nullptr);
    EXPECT_EQ(out().printPortStatus(), "Upstream port is connected to SINK\n"
                                       "  Average Rate:                   47999.500000\n" +
                                           out().CAudioPort::printPortStatus());
}

TEST_F(AudioPort, InputStatusTextBeginsWithThePeerAndHasNoRate)
{
    EXPECT_EQ(in().printPortStatus(), "Downstream port is disconnected\n" + in().CAudioPort::printPortStatus());
    out().connectDownstream(&in(), nullptr);
    EXPECT_EQ(in().printPortStatus(), "Downstream port is connected to SOURCE\n" + in().CAudioPort::printPortStatus());
}

// -------------------------------------------------------------------------------------- the call trace

TEST_F(AudioPort, EntriesAreTracedAtLevelNine)
{
    BarePort port(source);
    EXPECT_EQ(traced(8, [&] { port.stopAudio(); }), Lines{});
    EXPECT_EQ(traced(9, [&] { port.stopAudio(); }),
              (Lines{"(9) virtual audioLibrarySpace::streamStatus audioLibrarySpace::CAudioPort::stopAudio()"}));
    EXPECT_EQ(traced(9, [&] { out().ackReadPeriods(1); }),
              (Lines{"(9) virtual audioLibrarySpace::streamStatus "
                     "audioLibrarySpace::CUpstreamPort::ackReadPeriods(unsigned int)"}));
}

TEST_F(AudioPort, DestructorsAreTraced)
{
    auto* port = new CUpstreamPort(source);
    EXPECT_EQ(traced(9, [&] { delete port; }), (Lines{"(9) virtual audioLibrarySpace::CUpstreamPort::~CUpstreamPort()",
                                                      "(9) virtual audioLibrarySpace::CAudioPort::~CAudioPort()"}));
}

} // namespace
