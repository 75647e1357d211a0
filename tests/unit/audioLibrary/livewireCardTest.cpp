/**
 * The Livewire source through the real ALSA library, on the virtual capture card in the place of "hw:Axia,0".
 *
 * The card's crystal runs on CLOCK_MONOTONIC, and the test is that clock: clock_gettime() below comes before libc's for
 * the whole program, the card's module included. So no test waits, and each knows to the frame what the card has.
 *
 * The card hears a file of 30011 frames, a prime number, over and over; a frame is its number as a 32-bit word.
 */

#include "audioLibrary/literalBlocks.h"
#include "audioLibrary/livewireStreamPlay.h"
#include "audioLibrary/sampleRateConverter.h"
#include "audioLibrary/wavFiles.h"
#include "controlPage.h"

#include <alsa/asoundlib.h>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>
#include <vector>

using namespace audioLibrarySpace;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace
{

constexpr int64_t SECOND_NS = 1000000000;

/** What CLOCK_MONOTONIC shows. */
std::atomic<int64_t> clockNs{1000 * SECOND_NS};

} // namespace

extern "C" int clock_gettime(clockid_t clock, timespec* time) noexcept
{
    if (clock == CLOCK_MONOTONIC) {
        const int64_t now = clockNs;
        time->tv_sec = static_cast<time_t>(now / SECOND_NS);
        time->tv_nsec = static_cast<long>(now % SECOND_NS);
        return 0;
    }
#ifdef SYS_clock_gettime64 // where the other has times of 32 bits
    return static_cast<int>(syscall(SYS_clock_gettime64, clock, time));
#else
    return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
#endif
}

namespace
{

constexpr uint32_t FILE_FRAMES = 30011;
constexpr uint32_t PERIOD = 1024;
constexpr uint32_t PASS_FRAMES = 2016; // 42 ms

using Frames = std::vector<uint32_t>;
using Lines = std::vector<std::string>;

/** The frames [first, first + numFrames) of the card's source. */
Frames heard(uint64_t first, uint32_t numFrames)
{
    Frames frames(numFrames);
    for (uint32_t n = 0; n < numFrames; n++) {
        frames[n] = static_cast<uint32_t>((first + n) % FILE_FRAMES);
    }
    return frames;
}

Frames operator+(Frames left, const Frames& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

class LivewireCard : public testing::Test
{
protected:
    void SetUp() override
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "livewireCardXXXXXX").string();
        directory = mkdtemp(pattern.data());
        std::filesystem::create_directory(directory / "cards");
        std::filesystem::create_directory(directory / "source");
        std::ofstream(directory / "cards" / "Axia-0-capture");
        writeSource();
        for (const char* name : {"VCARD_CAPTURE_FAULTS", "VCARD_CAPTURE_PPM", "VCARD_PERIODS", "VCARD_BUFFER_BYTES",
                                 "VCARD_RECORD", "VCARD_MODULE_DIR"}) {
            unsetenv(name);
        }
        setenv("ALSA_CONFIG_PATH", VIRTUAL_CARD_CONFIGURATION, 1);
        setenv("VCARD_CARDS", (directory / "cards").c_str(), 1);
        setenv("VCARD_SOURCE", (directory / "source").c_str(), 1);
        setenv("VCARD_LOG", (directory / "log").c_str(), 1);
        setenv("VCARD_FORGIVE_MS", "0", 1);
        setenv("VCARD_GAP", "silence", 1);
        // The page as another process sees it.
        ASSERT_EQ(page.map((directory / "cards" / "Axia-0-capture").string(), false), 0);
    }

    void TearDown() override
    {
        removeBlock();
        page.unmap();
        snd_config_update_free_global();
        std::filesystem::remove_all(directory);
    }

    /** Without its last words. */
    void removeBlock()
    {
        const literal::Trace quiet(0);
        block.reset();
    }

    void writeSource() const
    {
        wavFiles::header fields;
        fields.chunkSize = 36 + FILE_FRAMES * 4;
        wavFiles::bytes file = wavFiles::encode(fields);
        wavFiles::putText(file, "data");
        wavFiles::put32(file, FILE_FRAMES * 4);
        for (uint32_t frame = 0; frame < FILE_FRAMES; frame++) {
            wavFiles::put32(file, frame);
        }
        wavFiles::write((directory / "source" / "Axia-0.wav").string(), file);
    }

    /** Builds the block; what it traces at `level`. */
    Lines build(int level = 0)
    {
        literal::Trace trace(level);
        block = std::make_unique<ClivewireStreamPlay>("LIVEWIRE_PLAYER", "hw:Axia,0");
        return trace.lines();
    }

    /** A block that plays, its capture started: the card has nothing yet. */
    void buildStarted()
    {
        build();
        ASSERT_EQ(block->timeLeft(), -1);
        port().startAudio();
        EXPECT_THAT(service(), IsEmpty());
        sinceStart = 0;
        startNs = clockNs;
    }

    CUpstreamPort& port() { return *block->getUpstreamPort(0); }

    /** Lets the card capture `numFrames` frames, at 48 kHz. A microsecond more, so that rounding can't take one. */
    void elapse(uint64_t numFrames)
    {
        sinceStart += numFrames;
        clockNs = startNs + static_cast<int64_t>(std::ceil(static_cast<double>(sinceStart) * 1e9 / 48000)) + 1000;
    }

    /** The card has been started again just now. */
    void restarted()
    {
        sinceStart = 0;
        startNs = clockNs;
    }

    /** A service, and what it traces at level 0 but the harmless word about copies near the top. */
    Lines service()
    {
        literal::Trace trace(0);
        EXPECT_EQ(block->service(next), STREAM_OK);
        Lines lines;
        for (const std::string& line : trace.lines()) {
            if (line.find("ERROR! Just clobbered the buffer") == std::string::npos) {
                lines.push_back(line);
            }
        }
        return lines;
    }

    bool neverServiced() const
    {
        CServiceTime never;
        never.setNeverService();
        return CServiceTime(next) == never;
    }

    /** One offer, taken whole. */
    Frames take()
    {
        char* address = nullptr;
        unsigned int nPeriods = 0;
        EXPECT_EQ(port().reqReadPeriods(address, nPeriods), STREAM_OK);
        Frames frames(size_t{nPeriods} * PERIOD);
        if (!frames.empty()) {
            std::memcpy(frames.data(), address, frames.size() * sizeof(uint32_t));
        }
        EXPECT_EQ(port().ackReadPeriods(nPeriods), STREAM_OK);
        return frames;
    }

    /** Two offers: what lies below the ring's top comes by itself. */
    Frames takeAll()
    {
        const Frames first = take();
        return first + take();
    }

    void refuse(vcard::Step step, int error, int callsBefore = 0)
    {
        vcard::FaultSlot& slot = page.requests().faults[static_cast<size_t>(step)];
        slot.error = error;
        slot.skip = callsBefore;
        slot.remaining = 1;
    }

    std::string log() const
    {
        std::ifstream file(directory / "log");
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }

    std::filesystem::path directory;
    vcard::ControlPage page;
    std::unique_ptr<ClivewireStreamPlay> block;
    CServiceTime next;
    uint64_t sinceStart = 0;
    int64_t startNs = clockNs;
};

// ---------------------------------------------------------------------------------------------------------- opening

TEST_F(LivewireCard, GrantsAllThatIsAskedFor)
{
    testing::internal::CaptureStderr();
    build();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(block->timeLeft(), -1);
    EXPECT_THAT(log(), HasSubstr("hw_params format=S16_LE channels=2 rate=48000 period=1024 buffer=16384"));
    EXPECT_EQ(page.status().state, vcard::CardState::prepared);
}

TEST_F(LivewireCard, TellsWhatIsGranted)
{
    const Lines lines = build(1);
    ASSERT_EQ(lines.size(), 7U);
    EXPECT_EQ(Lines(lines.begin(), lines.begin() + 6),
              (Lines{"1    Access: \t\tInterleaved", "1    Format: \t\tSAMPLE_S16BIT_LE", "1    Rate: \t\t48000.000000",
                     "1    Channels: \t\t2", "1    Periodsize: \t\t1024", "1    HardwareBufferSize:   16384 "}));
    EXPECT_THAT(lines[6], HasSubstr("0 BufferPointers, workbuffer: "));
}

TEST_F(LivewireCard, MissingCardIsASourceThatHasEnded)
{
    std::filesystem::remove(directory / "cards" / "Axia-0-capture");
    testing::internal::CaptureStderr(); // the library has words of its own
    build();
    (void)testing::internal::GetCapturedStderr();
    EXPECT_EQ(block->timeLeft(), 0);
    EXPECT_THAT(service(), IsEmpty());
    EXPECT_TRUE(neverServiced());
    EXPECT_THAT(take(), IsEmpty());
}

TEST_F(LivewireCard, CardThatIsTakenIsASourceThatHasEnded)
{
    build();
    const literal::Trace quiet(-1);
    ClivewireStreamPlay second("SECOND", "hw:Axia,0");
    EXPECT_EQ(second.timeLeft(), 0);
    EXPECT_EQ(block->timeLeft(), -1);
}

TEST_F(LivewireCard, CardIsFreeAfterTheBlock)
{
    build();
    build();
    EXPECT_EQ(block->timeLeft(), 0); // make_unique builds the second before the first goes
    removeBlock();
    build();
    EXPECT_EQ(block->timeLeft(), -1);
    EXPECT_EQ(page.status().opens, 2U);
}

TEST_F(LivewireCard, RefusedStepsLeaveTheCardClosed)
{
    for (const vcard::Step step : {vcard::Step::open, vcard::Step::hwParams, vcard::Step::swParams}) {
        refuse(step, EBUSY);
        build();
        EXPECT_EQ(block->timeLeft(), 0);
        EXPECT_EQ(page.status().state, vcard::CardState::closed);
        removeBlock();
    }
    build();
    EXPECT_EQ(block->timeLeft(), -1);
}

TEST_F(LivewireCard, RefusedPrepareIsTold)
{
    refuse(vcard::Step::prepare, EIO, 1); // the library prepares once by itself when it takes the parameters
    EXPECT_THAT(build(), ElementsAre("0 Unable to prepare device: Input/output error",
                                     HasSubstr("0 BufferPointers, workbuffer: ")));
    EXPECT_EQ(block->timeLeft(), 0);
    EXPECT_EQ(page.status().state, vcard::CardState::closed);
}

TEST_F(LivewireCard, CardWithoutSixteenPeriodsIsRefused)
{
    setenv("VCARD_PERIODS", "2:8", 1);
    testing::internal::CaptureStderr();
    build();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Error setting periods. (-22)\n");
    EXPECT_EQ(block->timeLeft(), 0);
}

TEST_F(LivewireCard, SmallerBufferIsToldAndUsed)
{
    setenv("VCARD_BUFFER_BYTES", "128:8192", 1);
    testing::internal::CaptureStderr();
    const Lines lines = build(1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "The buffer size 16384 is not supported by your hardware.\n ==> Using 2048 instead.\n");
    EXPECT_EQ(lines[5], "1    HardwareBufferSize:   2048 ");
    EXPECT_EQ(block->timeLeft(), -1);
}

// ---------------------------------------------------------------------------------------------------------- capture

TEST_F(LivewireCard, CapturesFromTheFirstService)
{
    build();
    port().startAudio();
    EXPECT_EQ(page.status().state, vcard::CardState::prepared);
    service();
    EXPECT_EQ(page.status().state, vcard::CardState::running);
    EXPECT_EQ(next.nextServiceTime.tv_sec, clockNs / SECOND_NS);
    EXPECT_EQ(next.nextServiceTime.tv_nsec, clockNs % SECOND_NS + 42000000);
}

TEST_F(LivewireCard, OffersWholePeriodsOfWhatItHeard)
{
    buildStarted();
    elapse(1023);
    EXPECT_THAT(service(), IsEmpty());
    EXPECT_THAT(take(), IsEmpty());
    elapse(1);
    service();
    EXPECT_EQ(take(), heard(0, 1024));
    elapse(2500);
    service();
    EXPECT_EQ(take(), heard(1024, 2048));
    EXPECT_THAT(take(), IsEmpty());
}

TEST_F(LivewireCard, EveryFrameComesOnceAndInOrderForTenLaps)
{
    buildStarted();
    uint64_t received = 0;
    for (uint64_t captured = PASS_FRAMES; captured <= 10 * ClivewireStreamPlay::workBufferFrames;
         captured += PASS_FRAMES) {
        elapse(PASS_FRAMES);
        ASSERT_THAT(service(), IsEmpty());
        const Frames frames = takeAll();
        ASSERT_EQ(frames, heard(received, static_cast<uint32_t>(frames.size())));
        received += frames.size();
        ASSERT_LT(captured - received, PERIOD);
    }
    EXPECT_EQ(page.status().xruns, 0U);
}

TEST_F(LivewireCard, StoppedSourceIsDrainedAndBeginsWithFreshAudio)
{
    build();
    service();
    restarted();
    for (int pass = 0; pass < 30; pass++) { // more than the ring holds
        elapse(PASS_FRAMES);
        EXPECT_THAT(service(), IsEmpty());
        EXPECT_THAT(take(), IsEmpty());
    }
    EXPECT_EQ(page.status().xruns, 0U);
    port().startAudio();
    elapse(PASS_FRAMES);
    service();
    EXPECT_EQ(take(), heard(30 * PASS_FRAMES, 1024));
}

TEST_F(LivewireCard, MutedSourceIsHeardButForOneFrameARead)
{
    buildStarted();
    elapse(1024);
    service();
    (void)take();
    port().muteAudio();
    elapse(1024);
    service();
    EXPECT_EQ(take(), Frames{0} + heard(1025, 1023));
}

TEST_F(LivewireCard, FullRingKeepsTheNewestThatFitAndGoesOn)
{
    buildStarted();
    for (int pass = 1; pass <= 24; pass++) {
        elapse(PASS_FRAMES);
        ASSERT_THAT(service(), IsEmpty());
    }
    // 48384 frames; 767 of the next read fit, none of the one after.
    elapse(PASS_FRAMES);
    EXPECT_THAT(service(), ElementsAre("0 work buffer is partially full dropping 257 frames.",
                                       "0 work buffer is full dropping 992 frames."));
    EXPECT_EQ(take(), heard(0, 47 * PERIOD));
    EXPECT_THAT(take(), IsEmpty()); // one frame short
    elapse(PASS_FRAMES);
    EXPECT_THAT(service(), IsEmpty());
    EXPECT_EQ(take(), heard(48128, 256) + heard(48384 + 257, 767) + heard(50400, 1));
    EXPECT_EQ(take(), heard(50401, 1024));
    EXPECT_EQ(page.status().xruns, 0U);
}

TEST_F(LivewireCard, FollowsTheCardsClock)
{
    page.requestPpm(1000);
    buildStarted();
    clockNs += 1000;
    size_t received = 0;
    for (int pass = 0; pass < 25; pass++) {
        clockNs += 40000000;
        EXPECT_THAT(service(), IsEmpty());
        received += takeAll().size();
    }
    EXPECT_EQ(received, 46U * PERIOD); // of 48048 frames in a second
    EXPECT_EQ(page.status().applied, 48048U);
}

// ---------------------------------------------------------------------------------------------- failures of the card

TEST_F(LivewireCard, OverrunLosesWhatTheCardHeldAndGoesOn)
{
    buildStarted();
    elapse(1024);
    service();
    elapse(17000); // the card holds 16384
    EXPECT_THAT(service(), ElementsAre("0 Read: error -32"));
    EXPECT_EQ(page.status().xruns, 1U);
    EXPECT_EQ(page.status().state, vcard::CardState::running);
    restarted();
    elapse(1024);
    EXPECT_THAT(service(), IsEmpty());
    EXPECT_EQ(take(), heard(0, 1024) + heard(18024, 1024));
    EXPECT_EQ(block->timeLeft(), -1);
}

TEST_F(LivewireCard, ForcedOverrunsInARowEachRestartTheCard)
{
    buildStarted();
    for (int pass = 0; pass < 5; pass++) {
        elapse(PASS_FRAMES);
        page.requests().forceXrun = 1;
        EXPECT_THAT(service(), ElementsAre("0 Read: error -32"));
        restarted();
    }
    EXPECT_EQ(page.status().xruns, 5U);
    elapse(1024);
    EXPECT_THAT(service(), IsEmpty());
    EXPECT_EQ(take().size(), 1024U);
}

TEST_F(LivewireCard, SuspendedCardIsRecovered)
{
    buildStarted();
    elapse(1000);
    service();
    elapse(500);
    page.requests().forceSuspend = 1;
    EXPECT_THAT(service(), ElementsAre("0 Read: error -86"));
    EXPECT_EQ(page.status().state, vcard::CardState::running);
    EXPECT_EQ(block->timeLeft(), -1);
    restarted();
    elapse(600); // after the 500 of before
    EXPECT_THAT(service(), IsEmpty());
    EXPECT_EQ(takeAll(), heard(0, 2048));
}

TEST_F(LivewireCard, UnpluggedCardEndsTheSource)
{
    buildStarted();
    elapse(1024);
    service();
    page.requests().gone = 1;
    elapse(1024);
    Lines lines = service();
    if (lines.empty()) {
        lines = service(); // the library may first say that there is nothing
    }
    EXPECT_THAT(lines, ElementsAre("0 Read: error -19"));
    EXPECT_EQ(block->timeLeft(), 0);
    EXPECT_THAT(service(), IsEmpty());
    EXPECT_TRUE(neverServiced());
    EXPECT_EQ(page.status().state, vcard::CardState::closed);
    EXPECT_EQ(take(), heard(0, 1024)); // what was captured is still there
    EXPECT_THAT(take(), IsEmpty());

    page.requests().gone = 0;
    EXPECT_THAT(service(), IsEmpty());
    EXPECT_EQ(block->timeLeft(), 0); // back in its place it takes a new block
    removeBlock();
    build();
    EXPECT_EQ(block->timeLeft(), -1);
}

TEST_F(LivewireCard, RefusedStartEndsTheSource)
{
    build();
    refuse(vcard::Step::start, EIO);
    literal::Trace trace(1);
    EXPECT_EQ(block->service(next), STREAM_OK);
    EXPECT_THAT(trace.lines(), ElementsAre("1 Unable to start capture device: Input/output error"));
    EXPECT_EQ(block->timeLeft(), 0);
    EXPECT_EQ(page.status().state, vcard::CardState::closed);
}

TEST_F(LivewireCard, OpeningAndClosingManyTimesLeavesNothingOpen)
{
    const auto numDescriptors = [] {
        const std::filesystem::directory_iterator descriptors("/proc/self/fd");
        return std::distance(begin(descriptors), end(descriptors));
    };
    buildStarted();
    removeBlock();
    const auto before = numDescriptors();
    for (int run = 0; run < 50; run++) {
        buildStarted();
        elapse(1024);
        service();
        EXPECT_EQ(take().size(), 1024U);
        removeBlock();
    }
    EXPECT_EQ(numDescriptors(), before);
    EXPECT_EQ(page.status().opens, 51U);
}

// ---------------------------------------------------------------------------------------------------------- the graph

TEST_F(LivewireCard, FeedsARateConverter)
{
    buildStarted();
    CSampleRateConverter converter("RATE_CONVERTER");
    const literal::Trace quiet(-1);
    CDownstreamPort& input = *converter.getDownstreamPort(0);
    ASSERT_EQ(port().connectDownstream(&input, nullptr), STREAM_OK);
    EXPECT_EQ(input.params.nominalSampleRate, 48000.0F);
    EXPECT_EQ(input.params.periodSize, 1024U);
    EXPECT_EQ(input.params.sampleFormat, SAMPLE_S16BIT_LE);
    EXPECT_EQ(port().params.trueSampleRate, 48000.0F);
    EXPECT_EQ(port().disconnect(), STREAM_OK);
}

} // namespace
