// Time is set by hand: a frame lasts 1/48 ms, so a period of 48 frames passes in 1 ms and a ring of 480 in 10 ms.
#include "virtualCard.h"

#include "temporaryDirectory.h"

#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>

using namespace vcard;

namespace
{

constexpr int64_t ms = 1000000;
constexpr int64_t t0 = 5000000000;
constexpr uint64_t ringFrames = 480;
constexpr uint64_t periodFrames = 48;

class Card : public testing::Test
{
protected:
    Card()
    {
        settings.cardsDirectory = directory.path;
        settings.logPath = directory.file("log");
        settings.recordDirectory = directory.path;
        directory.write("0-0-playback", "");
        directory.write("0-0-capture", "");
    }

    VirtualCard& openCard(bool capture = false)
    {
        card = std::make_unique<VirtualCard>(settings, capture);
        EXPECT_EQ(card->open(t0), 0);
        EXPECT_EQ(card->setHardwareParameters({48000, 1, 2, periodFrames, ringFrames}, t0), 0);
        EXPECT_EQ(card->setSoftwareParameters(periodFrames, ringFrames, t0), 0);
        EXPECT_EQ(card->prepare(t0), 0);
        others.map(directory.file(capture ? "0-0-capture" : "0-0-playback"), false);
        return *card;
    }
    /** Writes @p count frames numbered from where the last call ended. */
    void writeFrames(uint64_t count, int64_t nowNs)
    {
        std::vector<int16_t> samples(static_cast<size_t>(count));
        for (int16_t& sample : samples)
            sample = next++;
        EXPECT_EQ(card->write(reinterpret_cast<char*>(samples.data()), count, nowNs), static_cast<int64_t>(count));
    }
    std::vector<int16_t> recorded(const std::string& file = "0-0-0001.wav") const
    {
        const std::string bytes = directory.content(file);
        std::vector<int16_t> samples(bytes.size() < wavHeaderBytes ? 0 : (bytes.size() - wavHeaderBytes) / 2);
        std::memcpy(samples.data(), bytes.data() + wavHeaderBytes, samples.size() * 2);
        return samples;
    }
    static std::vector<int16_t> counted(int16_t first, size_t count)
    {
        std::vector<int16_t> samples(static_cast<size_t>(count));
        for (int16_t& sample : samples)
            sample = first++;
        return samples;
    }
    bool logHas(const std::string& text) const { return directory.content("log").find(text) != std::string::npos; }

    TemporaryDirectory directory;
    Settings settings;
    std::unique_ptr<VirtualCard> card;
    ControlPage others; ///< the page as another process sees it
    int16_t next = 1;
};

using VirtualCardPlayback = Card;
using VirtualCardCapture = Card;
using VirtualCardOpen = Card;

} // namespace

TEST_F(VirtualCardOpen, MissingNumberIsEnoentMissingNameIsEnodev)
{
    settings.device = 7;
    EXPECT_EQ(VirtualCard(settings, false).open(t0), -ENOENT);
    settings.card = "Axia";
    EXPECT_EQ(VirtualCard(settings, false).open(t0), -ENODEV);
}

TEST_F(VirtualCardOpen, SecondOpenIsBusyUntilTheFirstCloses)
{
    VirtualCard first(settings, false);
    VirtualCard second(settings, false);
    ASSERT_EQ(first.open(t0), 0);
    EXPECT_EQ(second.open(t0), -EBUSY);
    EXPECT_EQ(VirtualCard(settings, true).open(t0), 0); // the other direction is another device
    first.close(t0);
    EXPECT_EQ(second.open(t0), 0);
}

TEST_F(VirtualCardOpen, UnpluggedCardIsEnodev)
{
    others.map(directory.file("0-0-playback"), false);
    others.requests().gone = 1;
    EXPECT_EQ(VirtualCard(settings, false).open(t0), -ENODEV);
}

TEST_F(VirtualCardOpen, ScriptRefusesOpensOncePerProcess)
{
    settings.set("faults", "open*2=EBUSY");
    VirtualCard tried(settings, false);
    EXPECT_EQ(tried.open(t0), -EBUSY);
    EXPECT_EQ(VirtualCard(settings, false).open(t0), -EBUSY);
    EXPECT_EQ(VirtualCard(settings, false).open(t0), 0);
    EXPECT_EQ(VirtualCard(settings, false).open(t0), 0);
    EXPECT_TRUE(logHas("open refused error=16"));
}

TEST_F(VirtualCardOpen, EachStepCanBeRefused)
{
    settings.set("faults", "hwParams=EBUSY swParams prepare+1 start=ENODEV transfer");
    VirtualCard refusing(settings, false);
    ASSERT_EQ(refusing.open(t0), 0);
    EXPECT_EQ(refusing.setHardwareParameters({}, t0), -EBUSY);
    EXPECT_EQ(refusing.setHardwareParameters({}, t0), 0);
    EXPECT_EQ(refusing.setSoftwareParameters(256, 4608, t0), -EINVAL);
    EXPECT_EQ(refusing.prepare(t0), 0);
    EXPECT_EQ(refusing.prepare(t0), -EIO);
    EXPECT_EQ(refusing.start(t0), -ENODEV);
    char frame[8] = {};
    EXPECT_EQ(refusing.write(frame, 1, t0), -EIO);
    EXPECT_EQ(refusing.write(frame, 1, t0), 1);
}

TEST_F(VirtualCardPlayback, OnlyFramesTheClockHasPassedAreRecorded)
{
    openCard();
    writeFrames(ringFrames, t0);
    EXPECT_EQ(card->start(t0), 0);
    EXPECT_EQ(card->advance(t0 + ms, false), Motion::moved);
    EXPECT_EQ(card->position(), 48U);
    EXPECT_EQ(recorded(), counted(1, 48));
    // [NNNN....OOOO] the ring wraps: new frames go where passed ones were
    writeFrames(48, t0 + ms);
    card->advance(t0 + 9 * ms, false);
    writeFrames(100, t0 + 9 * ms);
    card->advance(t0 + 11 * ms, false);
    EXPECT_EQ(recorded(), counted(1, 528));
}

TEST_F(VirtualCardPlayback, UnderrunHappensWhenTheLastFrameHasPassed)
{
    openCard();
    writeFrames(ringFrames, t0);
    card->start(t0);
    EXPECT_EQ(card->advance(t0 + 10 * ms - 1, false), Motion::moved);
    EXPECT_EQ(card->advance(t0 + 25 * ms, false), Motion::xrun);
    EXPECT_EQ(card->advance(t0 + 26 * ms, false), Motion::xrun);
    EXPECT_EQ(recorded(), counted(1, ringFrames));
    EXPECT_EQ(others.status().xruns, 1U);
    EXPECT_EQ(others.status().lastXrunNs, t0 + 10 * ms);
    EXPECT_TRUE(logHas("underrun at=5.010000000 seen_after_ms=15.000 position=480 total=480 forced=0 number=1"));
}

TEST_F(VirtualCardPlayback, UnderrunIsSeenAtTheVeryMomentTheRingIsEmpty)
{
    openCard();
    writeFrames(ringFrames, t0);
    card->start(t0);
    EXPECT_EQ(card->advance(t0 + 10 * ms, false), Motion::xrun);
}

TEST_F(VirtualCardPlayback, GapAfterAnUnderrunIsRecordedAsSilence)
{
    openCard();
    writeFrames(ringFrames, t0);
    card->start(t0);
    card->advance(t0 + 25 * ms, false);
    card->prepare(t0 + 25 * ms);
    writeFrames(ringFrames, t0 + 30 * ms);
    card->start(t0 + 30 * ms); // 20 ms after the underrun: 960 frames
    card->advance(t0 + 31 * ms, false);
    std::vector<int16_t> expected = counted(1, 480);
    expected.insert(expected.end(), 960, 0);
    const std::vector<int16_t> rest = counted(481, 48);
    expected.insert(expected.end(), rest.begin(), rest.end());
    EXPECT_EQ(recorded(), expected);
    EXPECT_EQ(others.status().gapFrames, 960U);
}

TEST_F(VirtualCardPlayback, GapCanBeLeftOut)
{
    settings.set("gap", "none");
    openCard();
    writeFrames(ringFrames, t0);
    card->start(t0);
    card->advance(t0 + 25 * ms, false);
    card->prepare(t0 + 25 * ms);
    writeFrames(ringFrames, t0 + 30 * ms);
    card->start(t0 + 30 * ms);
    card->advance(t0 + 31 * ms, false);
    EXPECT_EQ(recorded(), counted(1, 528));
}

TEST_F(VirtualCardPlayback, ForcedUnderrunLosesWhatIsQueued)
{
    openCard();
    writeFrames(ringFrames, t0);
    card->start(t0);
    others.requests().forceXrun = 1;
    EXPECT_EQ(card->advance(t0 + 2 * ms, false), Motion::xrun);
    card->prepare(t0 + 2 * ms);
    EXPECT_EQ(recorded(), counted(1, 96));
    EXPECT_EQ(others.status().droppedFrames, 480U - 96U);
    EXPECT_EQ(others.requests().forceXrun, 0);
}

TEST_F(VirtualCardPlayback, StopPlaysUpToNowAndDropsTheRest)
{
    openCard();
    writeFrames(ringFrames, t0);
    card->start(t0);
    card->stop(t0 + 3 * ms);
    EXPECT_EQ(recorded(), counted(1, 144));
    EXPECT_TRUE(logHas("stop position=144 dropped=336 total=144"));
}

TEST_F(VirtualCardPlayback, DrainingEndsWithTheLastFrameAndIsNoUnderrun)
{
    openCard();
    writeFrames(100, t0);
    card->start(t0);
    EXPECT_EQ(card->armWake(t0, true), t0 + 2083334); // 100 frames of 20833.3 ns, rounded up
    EXPECT_EQ(card->advance(t0 + 50 * ms, true), Motion::moved);
    EXPECT_EQ(card->position(), 100U);
    EXPECT_EQ(others.status().xruns, 0U);
}

TEST_F(VirtualCardPlayback, WithoutAStopThresholdTheCardPlaysSilence)
{
    openCard();
    card->setSoftwareParameters(periodFrames, 1ULL << 62, t0);
    writeFrames(48, t0);
    card->start(t0);
    EXPECT_EQ(card->advance(t0 + 2 * ms, false), Motion::moved);
    EXPECT_EQ(card->position(), 96U);
    std::vector<int16_t> expected = counted(1, 48);
    expected.insert(expected.end(), 48, 0);
    EXPECT_EQ(recorded(), expected);
}

TEST_F(VirtualCardPlayback, WakeComesWhenAPeriodIsFree)
{
    openCard();
    writeFrames(ringFrames, t0);
    EXPECT_EQ(card->armWake(t0, false), t0); // not running: at once
    card->start(t0);
    EXPECT_EQ(card->armWake(t0, false), t0 + ms);
    EXPECT_EQ(card->afterWake(t0 + ms - 1, false), Readiness::notYet);
    card->armWake(t0, false);
    EXPECT_EQ(card->afterWake(t0 + ms, false), Readiness::ready);
}

TEST_F(VirtualCardPlayback, WakeLaterThanTheThresholdIsForgiven)
{
    openCard();
    writeFrames(ringFrames, t0);
    card->start(t0);
    card->armWake(t0, false);
    EXPECT_EQ(card->afterWake(t0 + 151 * ms, false), Readiness::ready);
    EXPECT_EQ(card->advance(t0 + 151 * ms, false), Motion::moved);
    EXPECT_EQ(card->position(), 48U);
    EXPECT_EQ(others.status().lateWakes, 1U);
    EXPECT_EQ(others.status().lateNs, 150 * ms);
    EXPECT_TRUE(logHas("late_wake late_ms=150.000 position=48"));
}

TEST_F(VirtualCardPlayback, WakeAtTheThresholdIsNotForgiven)
{
    settings.set("forgiveMs", "5");
    openCard();
    writeFrames(ringFrames, t0);
    card->start(t0);
    card->armWake(t0, false);
    card->afterWake(t0 + 6 * ms, false);
    card->advance(t0 + 6 * ms, false);
    EXPECT_EQ(card->position(), 288U);
    EXPECT_EQ(others.status().lateWakes, 0U);
}

TEST_F(VirtualCardPlayback, StrictCardForgivesNothing)
{
    settings.set("forgiveMs", "0");
    openCard();
    writeFrames(ringFrames, t0);
    card->start(t0);
    card->armWake(t0, false);
    card->afterWake(t0 + 151 * ms, false);
    EXPECT_EQ(card->advance(t0 + 151 * ms, false), Motion::xrun);
}

TEST_F(VirtualCardPlayback, ThresholdOnThePageBeatsTheConfiguredOne)
{
    openCard();
    others.requests().forgiveNs = 0;
    writeFrames(ringFrames, t0);
    card->start(t0);
    card->armWake(t0, false);
    card->afterWake(t0 + 151 * ms, false);
    EXPECT_EQ(card->advance(t0 + 151 * ms, false), Motion::xrun);
}

TEST_F(VirtualCardPlayback, TimeBetweenCallsIsNotForgiven)
{
    openCard();
    writeFrames(ringFrames, t0);
    card->start(t0);
    EXPECT_EQ(card->advance(t0 + 151 * ms, false), Motion::xrun);
}

TEST_F(VirtualCardPlayback, RateChangesWhileRunning)
{
    openCard();
    writeFrames(ringFrames, t0);
    card->start(t0);
    card->advance(t0 + ms, false);
    others.requestPpm(1000000.0); // twice as fast
    card->advance(t0 + ms, false);
    card->advance(t0 + 2 * ms, false);
    EXPECT_EQ(card->position(), 48U + 96U);
    EXPECT_TRUE(logHas("ppm value=1e+06 rate=96000.0000 position=48"));
}

TEST_F(VirtualCardPlayback, UnpluggedCardIsGoneForEveryCall)
{
    openCard();
    writeFrames(ringFrames, t0);
    card->start(t0);
    card->advance(t0 + ms, false);
    others.requests().gone = 1;
    EXPECT_EQ(card->afterWake(t0 + 2 * ms, false), Readiness::ready);
    EXPECT_EQ(card->advance(t0 + 2 * ms, false), Motion::gone);
    EXPECT_EQ(card->position(), 48U);
    EXPECT_EQ(card->prepare(t0), -ENODEV);
    EXPECT_EQ(card->start(t0), -ENODEV);
    EXPECT_EQ(card->resume(t0), -ENODEV);
}

TEST_F(VirtualCardPlayback, ScriptedEventsHappenAtTheirFrames)
{
    settings.set("faults", "xrun@96 gone@120");
    openCard();
    writeFrames(ringFrames, t0);
    card->start(t0);
    EXPECT_EQ(card->advance(t0 + ms, false), Motion::moved);
    EXPECT_EQ(card->advance(t0 + 2 * ms, false), Motion::xrun);
    card->prepare(t0 + 2 * ms);
    writeFrames(ringFrames, t0 + 2 * ms);
    card->start(t0 + 2 * ms);
    EXPECT_EQ(card->advance(t0 + 3 * ms, false), Motion::gone);
}

TEST_F(VirtualCardPlayback, SuspendedCardGoesOnFromItsFrame)
{
    openCard();
    writeFrames(ringFrames, t0);
    card->start(t0);
    others.requests().forceSuspend = 1;
    EXPECT_EQ(card->advance(t0 + ms, false), Motion::suspended);
    EXPECT_EQ(card->advance(t0 + 90 * ms, false), Motion::suspended);
    EXPECT_EQ(card->resume(t0 + 100 * ms), 0);
    EXPECT_EQ(card->advance(t0 + 101 * ms, false), Motion::moved);
    EXPECT_EQ(card->position(), 96U);
}

TEST_F(VirtualCardPlayback, StalledClockAnswersAnErrorAfterItsTime)
{
    settings.set("stallTimeoutMs", "200");
    openCard();
    writeFrames(ringFrames, t0);
    card->start(t0);
    others.requests().stalled = 1;
    card->advance(t0, false);
    EXPECT_EQ(card->armWake(t0, false), t0 + 50 * ms);
    EXPECT_EQ(card->afterWake(t0 + 199 * ms, false), Readiness::notYet);
    EXPECT_EQ(card->afterWake(t0 + 200 * ms, false), Readiness::error);
    others.requests().stalled = 0;
    EXPECT_EQ(card->afterWake(t0 + 250 * ms, false), Readiness::notYet);
    EXPECT_EQ(card->afterWake(t0 + 251 * ms, false), Readiness::ready);
}

TEST_F(VirtualCardPlayback, StatusTellsLevelAndTotals)
{
    openCard();
    std::vector<int16_t> loud(ringFrames, 16384);
    card->write(reinterpret_cast<char*>(loud.data()), ringFrames, t0);
    card->start(t0);
    card->advance(t0 + 2 * ms, false);
    const PageStatus status = others.status();
    EXPECT_EQ(status.state, CardState::running);
    EXPECT_EQ(status.totalFrames, 96U);
    EXPECT_EQ(status.applied, 480U);
    EXPECT_DOUBLE_EQ(status.peak[0], 0.5);
    EXPECT_DOUBLE_EQ(status.rms[0], 0.5);
    EXPECT_EQ(status.updatedNs, t0 + 2 * ms);
}

TEST_F(VirtualCardCapture, ReadsWhatTheClockHasPassed)
{
    settings.set("toneHz", "12000"); // 0, +peak, 0, -peak
    settings.set("toneDb", "0");
    openCard(true);
    card->start(t0);
    card->advance(t0 + ms, false);
    EXPECT_EQ(card->position(), 48U);
    int16_t samples[4] = {9, 9, 9, 9};
    EXPECT_EQ(card->read(reinterpret_cast<char*>(samples), 4, t0 + ms), 4);
    EXPECT_EQ(samples[0], 0);
    EXPECT_EQ(samples[1], 32767);
    EXPECT_EQ(samples[3], -32768);
}

TEST_F(VirtualCardCapture, OverrunWhenTheBufferIsFullAndTheSourceGoesOn)
{
    std::string wav;
    unsigned char header[wavHeaderBytes];
    makeWavHeader({48000, 1, 2}, 4000 * 2, header);
    wav.assign(reinterpret_cast<char*>(header), sizeof header);
    const std::vector<int16_t> samples = counted(0, 4000);
    wav.append(reinterpret_cast<const char*>(samples.data()), samples.size() * 2);
    directory.write("0-0.wav", wav);
    settings.sourceDirectory = directory.path;
    openCard(true);
    card->start(t0);
    EXPECT_EQ(card->advance(t0 + 10 * ms - 1, false), Motion::moved);
    EXPECT_EQ(card->advance(t0 + 15 * ms, false), Motion::xrun);
    EXPECT_TRUE(logHas("overrun at=5.010000000"));
    card->prepare(t0 + 15 * ms);
    card->start(t0 + 20 * ms);
    card->advance(t0 + 21 * ms, false);
    int16_t first = 0;
    card->read(reinterpret_cast<char*>(&first), 1, t0 + 21 * ms);
    EXPECT_EQ(first, 960); // 20 ms have passed in the source as well
}

TEST_F(VirtualCardCapture, WakeComesWhenAPeriodIsThere)
{
    openCard(true);
    card->start(t0);
    EXPECT_EQ(card->armWake(t0, false), t0 + ms);
    EXPECT_EQ(card->afterWake(t0 + ms - 1, false), Readiness::notYet);
    EXPECT_EQ(card->afterWake(t0 + ms, false), Readiness::ready);
}

TEST_F(VirtualCardCapture, CaptureHasItsOwnFaults)
{
    settings.set("faults", "start=EBUSY");
    settings.set("captureFaults", "start=ENODEV");
    openCard(true);
    EXPECT_EQ(card->start(t0), -ENODEV);
    EXPECT_EQ(card->start(t0), 0);
}

TEST_F(VirtualCardCapture, CaptureHasItsOwnRate)
{
    settings.set("ppm", "500");
    settings.set("capturePpm", "1000000");
    openCard(true);
    card->start(t0);
    card->advance(t0 + ms, false);
    EXPECT_EQ(card->position(), 96U);
}
