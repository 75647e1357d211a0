/**
 * The Livewire source on the card of alsaFake.h, whose frames are numbered: each is a 32-bit word, 1 for the first.
 */

#include "audioLibrary/livewireStreamPlay.h"
#include "audioLibrary/alsaFake.h"
#include "audioLibrary/graphTestSupport.h"
#include "audioLibrary/literalBlocks.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <numeric>
#include <thread>
#include <unistd.h>

using namespace audioLibrarySpace;
using alsaFake::card;
using graphTest::Lines;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;

namespace
{

std::atomic<int> allocations{0};
/** Which of the coming arrays asked for without an exception is refused; 1 the next one, 0 none. */
std::atomic<int> refusedArray{0};

void* countedAllocation(std::size_t numBytes) noexcept
{
    allocations++;
    return std::malloc(numBytes > 0 ? numBytes : 1);
}

void* countedAllocationOrThrow(std::size_t numBytes)
{
    void* const memory = countedAllocation(numBytes);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

} // namespace

void* operator new(std::size_t numBytes)
{
    return countedAllocationOrThrow(numBytes);
}

void* operator new[](std::size_t numBytes)
{
    return countedAllocationOrThrow(numBytes);
}

void* operator new(std::size_t numBytes, const std::nothrow_t&) noexcept
{
    return countedAllocation(numBytes);
}

void* operator new[](std::size_t numBytes, const std::nothrow_t&) noexcept
{
    if (refusedArray > 0 && --refusedArray == 0) {
        return nullptr;
    }
    return countedAllocation(numBytes);
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

constexpr uint32_t RING = 49152;
constexpr unsigned int PERIOD = 1024;
constexpr const char* REMOVED = "(0) Removed LIVEWIRE_PLAYER from CAudioBlock::allBlocks"; // the base's last word
constexpr const char* STOPPING = "Stopping Livewire Capture Device and dropping remaining frames.";

/** The block, with its inside open. */
class Livewire : public ClivewireStreamPlay
{
public:
    explicit Livewire(const std::string& device) : ClivewireStreamPlay("LIVEWIRE_PLAYER", device) {}

    using ClivewireStreamPlay::captureBufferMutex;
    using ClivewireStreamPlay::device_parameters;
    using ClivewireStreamPlay::is_open;
    using ClivewireStreamPlay::isstarted;
    using ClivewireStreamPlay::temp_LinearizingBuffer;
    using ClivewireStreamPlay::tempCaptureBuffer;
    using ClivewireStreamPlay::workBuffer;
    using ClivewireStreamPlay::workBufferConsumingHead;
    using ClivewireStreamPlay::workBufferConsumingTail;
    using ClivewireStreamPlay::workBufferHead;
};

using Frames = std::vector<uint32_t>;

/** `numFrames` frames from the address on, each as one word. */
Frames framesAt(const void* address, uint32_t numFrames)
{
    Frames frames(numFrames);
    if (numFrames > 0) {
        std::memcpy(frames.data(), address, numFrames * sizeof(uint32_t));
    }
    return frames;
}

/** The numbers [first, first + numFrames). */
Frames numbered(uint32_t first, uint32_t numFrames)
{
    Frames frames(numFrames);
    std::iota(frames.begin(), frames.end(), first);
    return frames;
}

Frames operator+(Frames left, const Frames& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

struct Offer {
    Frames frames;
    unsigned int nPeriods;
    const char* address;
};

/** ALSA's calls of the constructor, in their order. */
Lines configurationCalls()
{
    return {"snd_pcm_open(hw:Axia,0, CAPTURE, 1)", // SND_PCM_NONBLOCK
            "snd_pcm_hw_params_any()",
            "snd_pcm_hw_params_set_access(RW_INTERLEAVED)",
            "snd_pcm_hw_params_set_format(2)", // SND_PCM_FORMAT_S16_LE
            "snd_pcm_hw_params_set_rate_near(48000)",
            "snd_pcm_hw_params_set_channels(2)",
            "snd_pcm_hw_params_set_periods(16, 0)",
            "snd_pcm_hw_params_set_buffer_size_near(16384)",
            "snd_pcm_hw_params()",
            "snd_pcm_prepare()"};
}

/** What the constructor traces at level 1 while all is granted, but for the addresses of the buffers. */
Lines configurationLines()
{
    return {"(1)    Access: \t\tInterleaved", "(1)    Format: \t\tSAMPLE_S16BIT_LE",
            "(1)    Rate: \t\t48000.000000",  "(1)    Channels: \t\t2",
            "(1)    Periodsize: \t\t1024",    "(1)    HardwareBufferSize:   16384 "};
}

Lines firstOf(const Lines& lines, size_t count)
{
    return {lines.begin(), lines.begin() + static_cast<Lines::difference_type>(count)};
}

class LivewirePlay : public graphTest::GraphTest
{
protected:
    void SetUp() override
    {
        GraphTest::SetUp();
        card().reset();
    }

    void TearDown() override
    {
        refusedArray = 0;
        (void)traced(-1, [this] { block.reset(); });
        EXPECT_FALSE(card().isOpen());
        EXPECT_EQ(card().numMisuses(), 0);
        GraphTest::TearDown();
    }

    /** Builds the block and answers what that traces at `level`. */
    Lines build(int level = 0, const std::string& device = "hw:Axia,0")
    {
        return traced(level, [&] { block = std::make_unique<Livewire>(device); });
    }

    /** A block with an open device and a started port, its calls so far forgotten. */
    void buildPlaying()
    {
        build();
        port().startAudio();
        card().clearCalls();
    }

    CUpstreamPort& port() { return *block->getUpstreamPort(0); }

    CServiceTime serviced()
    {
        CServiceTime next;
        next.immediateService = true;
        next.serviceRequired = true;
        EXPECT_EQ(block->service(next), STREAM_OK);
        return next;
    }

    static CServiceTime never()
    {
        CServiceTime time;
        time.setNeverService();
        return time;
    }

    /** An empty ring if head and tail are equal; nothing is lent. */
    void setRing(uint32_t head, uint32_t tail)
    {
        block->workBufferHead = head;
        block->workBufferConsumingHead = tail;
        block->workBufferConsumingTail = tail;
    }

    /** The frame with index i in the ring becomes 1000000 + i. */
    void numberRing()
    {
        const Frames frames = numbered(1000000, RING);
        std::memcpy(block->workBuffer.get(), frames.data(), frames.size() * sizeof(uint32_t));
    }

    Frames ringAt(uint32_t index, uint32_t numFrames) { return framesAt(&block->workBuffer[index], numFrames); }

    /** One read of the device, in which `numFrames` come; what it traces at level 0. */
    Lines read(long numFrames)
    {
        card().answerReads({numFrames});
        return traced(0, [&] { EXPECT_EQ(block->getSamples(), numFrames); });
    }

    Offer request(unsigned int nFramesPerPeriod = PERIOD)
    {
        static char unchanged;
        char* address = &unchanged;
        unsigned int nPeriods = 77;
        EXPECT_EQ(block->reqReadPeriods(address, nPeriods, nFramesPerPeriod), STREAM_OK);
        EXPECT_EQ(address == nullptr, nPeriods == 0);
        return {framesAt(address, nPeriods * nFramesPerPeriod), nPeriods, address};
    }

    void acknowledge(unsigned int nPeriods, unsigned int nFramesPerPeriod = PERIOD)
    {
        EXPECT_EQ(block->ackReadPeriods(nPeriods, nFramesPerPeriod), STREAM_OK);
    }

    /** Indices of head, end of what is lent, tail. */
    std::vector<uint32_t> indices() const
    {
        return {block->workBufferHead, block->workBufferConsumingHead, block->workBufferConsumingTail};
    }

    std::unique_ptr<Livewire> block;
};

// --------------------------------------------------------------------------------------------------- as it is built

TEST_F(LivewirePlay, ConstantsMakeARingOf48Periods)
{
    EXPECT_EQ(ClivewireStreamPlay::def_num_channels_per_frame, 2U);
    EXPECT_EQ(ClivewireStreamPlay::def_bytes_per_sample, 2U);
    EXPECT_EQ(ClivewireStreamPlay::def_sample_rate, 48000U);
    EXPECT_EQ(ClivewireStreamPlay::def_frames_per_sw_period, 1024U);
    EXPECT_EQ(ClivewireStreamPlay::def_frames_per_hw_period, 1024U);
    EXPECT_EQ(ClivewireStreamPlay::def_num_periods_in_sw_buffer, 48U);
    EXPECT_EQ(ClivewireStreamPlay::def_num_periods_in_hw_buffer, 16U);
    EXPECT_EQ(ClivewireStreamPlay::workBufferFrames, 49152U);
    EXPECT_EQ(sizeof(ClivewireStreamPlay::frame_t), 4U);
}

TEST_F(LivewirePlay, IsOneOutputAndNoInput)
{
    build();
    EXPECT_EQ(block->name(), "LIVEWIRE_PLAYER");
    EXPECT_EQ(block->getRunTimeId(), LIVEWIRE_PLAY);
    EXPECT_EQ(block->numUpstreamPorts(), 1U);
    EXPECT_EQ(block->numDownstreamPorts(), 0U);
    EXPECT_EQ(port().getRunTimeId(), LIVEWIRE_PLAY_USP);
    EXPECT_EQ(port().getParentBlock(), block.get());
    EXPECT_EQ(block->init(), STREAM_OK);
}

TEST_F(LivewirePlay, OutputIsFixedInEveryField)
{
    build();
    const audioPortParam_t wanted{FIXED, 48000.0F,         FIXED, 48000.0F, FIXED, 2,
                                  FIXED, SAMPLE_S16BIT_LE, FIXED, true,     FIXED, 1024};
    graphTest::expectSameParams(port().params, wanted);
    port().params = graphTest::allVariable();
    port().disconnect(); // back to the reset parameters
    graphTest::expectSameParams(port().params, wanted);
}

TEST_F(LivewirePlay, DeviceIsOpenedAndConfiguredInOrder)
{
    testing::internal::CaptureStderr();
    build();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(card().calls(), configurationCalls());
    EXPECT_TRUE(block->is_open);
    EXPECT_FALSE(block->isstarted);
    EXPECT_EQ(block->timeLeft(), -1);
    EXPECT_EQ(indices(), (std::vector<uint32_t>{0, 0, 0}));
}

TEST_F(LivewirePlay, DeviceRecordHoldsWhatWasAsked)
{
    build();
    const alsaDevice_t& device = *block->device_parameters;
    EXPECT_STREQ(device.pcm_name, "hw:Axia,0");
    EXPECT_EQ(device.mode, SND_PCM_NONBLOCK);
    EXPECT_EQ(device.stream, SND_PCM_STREAM_CAPTURE);
    EXPECT_EQ(device.format, SND_PCM_FORMAT_S16_LE);
    EXPECT_EQ(device.bufferSizeFrames, 16384U);
    EXPECT_EQ(device.num_periods, 16U);
    EXPECT_EQ(device.periodsize, 1024U);
    EXPECT_EQ(device.access_type, SND_PCM_ACCESS_RW_INTERLEAVED);
    EXPECT_NE(device.pcm_handle, nullptr);
}

TEST_F(LivewirePlay, TwentyCharactersOfTheDeviceNameAreTaken)
{
    build(0, "hw:Axia,012345678901");
    EXPECT_STREQ(block->device_parameters->pcm_name, "hw:Axia,012345678901");
    (void)traced(-1, [this] { block.reset(); });
    card().clearCalls();
    build(0, "hw:Axia,0123456789012345678901234567890123456789");
    EXPECT_STREQ(block->device_parameters->pcm_name, "hw:Axia,012345678901");
    EXPECT_EQ(card().calls().front(), "snd_pcm_open(hw:Axia,012345678901, CAPTURE, 1)");
}

/** The low 32 bits of an address, in eight digits or more. */
std::string shortAddress(const void* pointer)
{
    char text[20];
    snprintf(text, sizeof text, "%08x", static_cast<unsigned int>(reinterpret_cast<uintptr_t>(pointer)));
    return text;
}

TEST_F(LivewirePlay, LevelOneTellsWhatIsAskedAndGranted)
{
    const Lines lines = build(1);
    Lines wanted = configurationLines();
    wanted.push_back("(0) BufferPointers, workbuffer: " + shortAddress(block->workBuffer.get()) +
                     ", temp_LinearizingBuffer: " + shortAddress(block->temp_LinearizingBuffer.get()) +
                     ", tempCaptureBuffer: " + shortAddress(block->tempCaptureBuffer.get()));
    EXPECT_EQ(lines, wanted);
}

TEST_F(LivewirePlay, LevelZeroTellsOnlyTheBuffers)
{
    EXPECT_THAT(build(0), ElementsAre(HasSubstr("(0) BufferPointers, workbuffer: ")));
}

TEST_F(LivewirePlay, BufferSizeAskedIsToldAtLevelNineBetweenPeriodAndBuffer)
{
    Lines lines = build(9);
    lines.erase(std::remove_if(lines.begin(), lines.end(),
                               [](const std::string& line) { return line.find("audioLibrarySpace::") != line.npos; }),
                lines.end());
    Lines wanted = configurationLines();
    wanted.insert(wanted.end() - 1, "(9) Attempting to set Hardware buffer size to: 16384 ");
    ASSERT_EQ(lines.size(), 8U);
    EXPECT_EQ(firstOf(lines, 7), wanted);
}

TEST_F(LivewirePlay, OtherRateIsToldTakenAsTheTrueRateAndPlayed)
{
    card().grantRate(44100);
    testing::internal::CaptureStderr();
    const Lines lines = build(1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "The rate 48000 Hz is not supported by your hardware.\n ==> Using 44100 Hz instead.\n");
    EXPECT_THAT(lines, Contains("(1)    Rate: \t\t44100.000000"));
    EXPECT_EQ(port().params.nominalSampleRate, 48000.0F);
    EXPECT_EQ(port().params.trueSampleRate, 44100.0F);
    EXPECT_EQ(port().params.trueSampleRateStatus, FIXED);
    EXPECT_TRUE(block->is_open);
}

TEST_F(LivewirePlay, OtherBufferSizeIsToldAndStored)
{
    card().grantBufferSize(8192);
    testing::internal::CaptureStderr();
    const Lines lines = build(1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "The buffer size 16384 is not supported by your hardware.\n ==> Using 8192 instead.\n");
    EXPECT_THAT(lines, Contains("(1)    HardwareBufferSize:   8192 "));
    EXPECT_EQ(block->device_parameters->bufferSizeFrames, 8192U);
    EXPECT_TRUE(block->is_open);
}

struct Step {
    const char* function;
    size_t numCalls; ///< calls of the constructor up to the one refused
    size_t numLines; ///< trace lines of level 1 before it
};

void PrintTo(const Step& step, std::ostream* out)
{
    *out << step.function;
}

class LivewireStep : public LivewirePlay, public testing::WithParamInterface<Step>
{
protected:
    /** A block whose device refuses the step with `result`. */
    void expectRefused(int result)
    {
        card().fail(GetParam().function, result);
        testing::internal::CaptureStderr();
        const Lines lines = build(1);
        const std::string errors = testing::internal::GetCapturedStderr();
        const std::string function = GetParam().function;

        Lines calls = firstOf(configurationCalls(), GetParam().numCalls);
        if (function != "snd_pcm_open") {
            calls.push_back("snd_pcm_close()");
        }
        EXPECT_EQ(card().calls(), calls);

        Lines wanted = firstOf(configurationLines(), GetParam().numLines);
        if (function == "snd_pcm_prepare") {
            wanted.push_back(std::string("(0) Unable to prepare device: ") + strerror(-result));
        }
        ASSERT_EQ(lines.size(), wanted.size() + 1); // and the buffers
        EXPECT_EQ(firstOf(lines, wanted.size()), wanted);
        EXPECT_THAT(lines.back(), HasSubstr("(0) BufferPointers, "));
        EXPECT_EQ(errors, function == "snd_pcm_hw_params_set_periods"
                              ? "Error setting periods. (" + std::to_string(result) + ")\n"
                              : "");
        expectDeliversNothing();
    }

    void expectDeliversNothing()
    {
        EXPECT_FALSE(block->is_open);
        EXPECT_EQ(block->device_parameters->pcm_handle, nullptr);
        EXPECT_NE(block->workBuffer, nullptr);
        EXPECT_NE(block->temp_LinearizingBuffer, nullptr);
        EXPECT_NE(block->tempCaptureBuffer, nullptr);
        card().clearCalls();
        EXPECT_EQ(block->timeLeft(), 0);
        EXPECT_TRUE(serviced() == never());
        EXPECT_EQ(block->getSamples(), 0U);
        EXPECT_EQ(request().nPeriods, 0U);
        EXPECT_THAT(traced(0, [this] { block.reset(); }), ElementsAre(STOPPING, REMOVED));
        EXPECT_THAT(card().calls(), IsEmpty());
    }
};

TEST_P(LivewireStep, RefusedLeavesABlockThatDeliversNothing)
{
    expectRefused(-EINVAL);
}

INSTANTIATE_TEST_SUITE_P(
    Each, LivewireStep,
    testing::Values(Step{"snd_pcm_open", 1, 0}, Step{"snd_pcm_hw_params_any", 2, 0},
                    Step{"snd_pcm_hw_params_set_access", 3, 1}, Step{"snd_pcm_hw_params_set_format", 4, 2},
                    Step{"snd_pcm_hw_params_set_rate_near", 5, 2}, Step{"snd_pcm_hw_params_set_channels", 6, 4},
                    Step{"snd_pcm_hw_params_set_periods", 7, 4}, Step{"snd_pcm_hw_params_set_buffer_size_near", 8, 5},
                    Step{"snd_pcm_hw_params", 9, 6}, Step{"snd_pcm_prepare", 10, 6}));

class LivewireStepAnsweringOne : public LivewireStep
{
};

TEST_P(LivewireStepAnsweringOne, CountsAsRefused)
{
    expectRefused(1);
}

INSTANTIATE_TEST_SUITE_P(
    Each, LivewireStepAnsweringOne,
    testing::Values(Step{"snd_pcm_hw_params_any", 2, 0}, Step{"snd_pcm_hw_params_set_access", 3, 1},
                    Step{"snd_pcm_hw_params_set_format", 4, 2}, Step{"snd_pcm_hw_params_set_rate_near", 5, 2},
                    Step{"snd_pcm_hw_params_set_channels", 6, 4}, Step{"snd_pcm_hw_params_set_periods", 7, 4},
                    Step{"snd_pcm_hw_params_set_buffer_size_near", 8, 5}, Step{"snd_pcm_hw_params", 9, 6},
                    Step{"snd_pcm_prepare", 10, 6}));

TEST_F(LivewirePlay, RefusedRateStandsAtTheNominalOne)
{
    card().grantRate(44100);
    card().fail("snd_pcm_hw_params_set_rate_near", -EINVAL);
    build();
    EXPECT_EQ(port().params.trueSampleRate, 48000.0F);
}

// ----------------------------------------------------------------------------------------------------- out of memory

/** Builds a block whose `number`-th buffer can't be had, standard output in the place of standard error. */
void buildWithoutBuffer(int number)
{
    dup2(STDERR_FILENO, STDOUT_FILENO);
    refusedArray = number;
    const Livewire ended("hw:Axia,0");
}

TEST_F(LivewirePlay, NoMemoryForABufferEndsTheProcess)
{
    const auto exited = testing::ExitedWithCode(255);
    const auto saysOnly = [](const std::string& text) {
        return AllOf(HasSubstr(" (0): " + text + "\n"), Not(HasSubstr("BufferPointers")));
    };
    EXPECT_EXIT(buildWithoutBuffer(1), exited, saysOnly("Out of memory, could not create workbuffer."));
    EXPECT_EXIT(buildWithoutBuffer(2), exited, saysOnly("Out of memory, could not create temp_LinearizingBuffer."));
    EXPECT_EXIT(buildWithoutBuffer(3), exited, saysOnly("Out of memory, could not create tempCaptureBuffer."));
}

// ---------------------------------------------------------------------------------------------------------- the end

TEST_F(LivewirePlay, DestructorDropsAndClosesAnOpenDevice)
{
    build();
    card().clearCalls();
    EXPECT_THAT(traced(0, [this] { block.reset(); }), ElementsAre(STOPPING, REMOVED));
    EXPECT_THAT(card().calls(), ElementsAre("snd_pcm_drop()", "snd_pcm_close()"));
}

TEST_F(LivewirePlay, DestructorSaysItAtEveryTraceLevel)
{
    build();
    EXPECT_THAT(traced(-1, [this] { block.reset(); }), ElementsAre(STOPPING));
}

// ---------------------------------------------------------------------------------------------------------- service

TEST_F(LivewirePlay, FirstServiceStartsTheDeviceAndEndsWhenItHasNothing)
{
    buildPlaying();
    EXPECT_THAT(traced(0, [this] { serviced(); }), IsEmpty());
    EXPECT_THAT(card().calls(), ElementsAre("snd_pcm_start()", "snd_pcm_readi(1024) = -11"));
    EXPECT_TRUE(block->isstarted);
    card().clearCalls();
    serviced();
    EXPECT_THAT(card().calls(), ElementsAre("snd_pcm_readi(1024) = -11"));
}

TEST_F(LivewirePlay, ServiceWantsToRunAgainIn42Milliseconds)
{
    buildPlaying();
    graphTest::clockTime() = {2000, 990000000};
    const CServiceTime next = serviced();
    EXPECT_EQ(next.nextServiceTime.tv_sec, 2001);
    EXPECT_EQ(next.nextServiceTime.tv_nsec, 32000000);
    EXPECT_FALSE(next.immediateService);
    EXPECT_FALSE(next.serviceRequired);
}

TEST_F(LivewirePlay, ServiceCountsFromItsBeginning)
{
    buildPlaying();
    graphTest::clockTime() = {2000, 0};
    card().duringEachCall([] { graphTest::clockTime() = {2000, 500000000}; });
    EXPECT_EQ(serviced().nextServiceTime.tv_nsec, 42000000);
}

TEST_F(LivewirePlay, ServiceDrainsTheDevice)
{
    buildPlaying();
    card().answerReads({2500});
    serviced();
    EXPECT_THAT(card().calls(),
                ElementsAre("snd_pcm_start()", "snd_pcm_readi(1024) = 1024", "snd_pcm_readi(1024) = 1024",
                            "snd_pcm_readi(1024) = 452", "snd_pcm_readi(1024) = -11"));
    EXPECT_EQ(indices(), (std::vector<uint32_t>{2500, 0, 0}));
    EXPECT_EQ(ringAt(0, 2500), numbered(1, 2500));
}

TEST_F(LivewirePlay, ServiceEndsAtAReadOfNothing)
{
    buildPlaying();
    card().answerReads({10, 0, 20});
    serviced();
    EXPECT_EQ(ringAt(0, 11), numbered(1, 10) + Frames{0});
    EXPECT_EQ(block->workBufferHead, 10U);
    serviced();
    EXPECT_EQ(ringAt(0, 30), numbered(1, 30));
}

TEST_F(LivewirePlay, NoCallOfTheDeviceHoldsTheLock)
{
    buildPlaying();
    int visits = 0;
    card().duringEachCall([&] {
        visits++;
        EXPECT_EQ(osaTryLock(&block->captureBufferMutex), OSA_OK);
        osaUnlock(&block->captureBufferMutex);
    });
    card().answerReads({1024, -EPIPE});
    serviced(); // start, two reads, prepare, start
    card().fail("snd_pcm_recover", -ENODEV);
    card().answerReads({-ESTRPIPE});
    serviced(); // read, recover, drop, close
    card().duringEachCall(nullptr);
    EXPECT_EQ(visits, 9);
}

// --------------------------------------------------------------------------------------------- failures of the device

TEST_F(LivewirePlay, RefusedStartClosesTheDeviceForGood)
{
    buildPlaying();
    card().fail("snd_pcm_start", -EIO);
    CServiceTime next;
    EXPECT_THAT(traced(1, [&] { next = serviced(); }),
                ElementsAre("(1) Unable to start capture device: Input/output error"));
    EXPECT_EQ(next.nextServiceTime.tv_nsec, 42000000);
    EXPECT_THAT(card().calls(), ElementsAre("snd_pcm_start()", "snd_pcm_drop()", "snd_pcm_close()"));
    EXPECT_EQ(block->device_parameters->pcm_handle, nullptr);
    EXPECT_FALSE(block->is_open);
    EXPECT_FALSE(block->isstarted);
    EXPECT_EQ(block->timeLeft(), 0);

    card().clearCalls();
    EXPECT_TRUE(serviced() == never());
    EXPECT_THAT(traced(0, [this] { block.reset(); }), ElementsAre(STOPPING, REMOVED));
    EXPECT_THAT(card().calls(), IsEmpty());
}

TEST_F(LivewirePlay, RefusedStartIsSilentAtLevelZero)
{
    buildPlaying();
    card().fail("snd_pcm_start", -EIO);
    EXPECT_THAT(traced(0, [this] { serviced(); }), IsEmpty());
}

TEST_F(LivewirePlay, OverrunRestartsTheDevice)
{
    buildPlaying();
    card().answerReads({100, -EPIPE, 200});
    EXPECT_THAT(traced(0, [this] { serviced(); }), ElementsAre("(0) Read: error -32"));
    EXPECT_THAT(card().calls(), ElementsAre("snd_pcm_start()", "snd_pcm_readi(1024) = 100", "snd_pcm_readi(1024) = -32",
                                            "snd_pcm_prepare()", "snd_pcm_start()"));
    EXPECT_EQ(block->timeLeft(), -1);
    serviced();
    EXPECT_EQ(ringAt(0, 300), numbered(1, 300));
}

TEST_F(LivewirePlay, RefusedRestartAfterAnOverrunIsNoEnd)
{
    buildPlaying();
    card().answerReads({-EPIPE, -EPIPE, 5});
    card().fail("snd_pcm_prepare", -EIO);
    serviced();
    EXPECT_EQ(block->timeLeft(), -1);
    card().fail("snd_pcm_start", -EIO);
    serviced();
    EXPECT_EQ(block->timeLeft(), -1);
    serviced();
    EXPECT_EQ(block->workBufferHead, 5U);
}

TEST_F(LivewirePlay, OtherReadErrorIsRecovered)
{
    buildPlaying();
    card().answerReads({-ESTRPIPE, 7});
    EXPECT_THAT(traced(0, [this] { serviced(); }), ElementsAre("(0) Read: error -86"));
    EXPECT_THAT(card().calls(), ElementsAre("snd_pcm_start()", "snd_pcm_readi(1024) = -86", "snd_pcm_recover(-86, 1)"));
    EXPECT_EQ(block->timeLeft(), -1);
    serviced();
    EXPECT_EQ(block->workBufferHead, 7U);
}

TEST_F(LivewirePlay, RecoveryStillUnderWayIsNoEnd)
{
    buildPlaying();
    card().answerReads({-ESTRPIPE, 7});
    card().fail("snd_pcm_recover", -EAGAIN);
    serviced();
    EXPECT_EQ(block->timeLeft(), -1);
    serviced();
    EXPECT_EQ(block->workBufferHead, 7U);
}

TEST_F(LivewirePlay, FailedRecoveryClosesTheDeviceForGood)
{
    buildPlaying();
    card().answerReads({10, -ENODEV, 10});
    card().fail("snd_pcm_recover", -ENODEV);
    CServiceTime next;
    EXPECT_THAT(traced(0, [&] { next = serviced(); }), ElementsAre("(0) Read: error -19"));
    EXPECT_EQ(next.nextServiceTime.tv_nsec, 42000000); // only the next pass finds it closed
    EXPECT_THAT(card().calls(), ElementsAre("snd_pcm_start()", "snd_pcm_readi(1024) = 10", "snd_pcm_readi(1024) = -19",
                                            "snd_pcm_recover(-19, 1)", "snd_pcm_drop()", "snd_pcm_close()"));
    EXPECT_EQ(block->device_parameters->pcm_handle, nullptr);
    EXPECT_EQ(block->timeLeft(), 0);
    EXPECT_TRUE(serviced() == never());
    EXPECT_EQ(block->getSamples(), 0U);
    card().clearCalls();
    EXPECT_THAT(traced(0, [this] { block.reset(); }), ElementsAre(STOPPING, REMOVED));
    EXPECT_THAT(card().calls(), IsEmpty());
}

TEST_F(LivewirePlay, RecoveryAnsweringAnythingElseIsAFailure)
{
    buildPlaying();
    card().answerReads({-EIO});
    card().fail("snd_pcm_recover", 1);
    serviced();
    EXPECT_EQ(block->timeLeft(), 0);
}

TEST_F(LivewirePlay, FramesOfAFailedDeviceAreStillOffered)
{
    buildPlaying();
    card().answerReads({1024, -ENODEV});
    card().fail("snd_pcm_recover", -ENODEV);
    serviced();
    EXPECT_EQ(request().frames, numbered(1, 1024));
}

// ------------------------------------------------------------------------------------------- the state of the output

TEST_F(LivewirePlay, StoppedOutputDrainsTheDeviceAndKeepsTheRingEmpty)
{
    build();
    card().answerReads({3000});
    serviced();
    EXPECT_EQ(card().numFramesRead(), 3000U);
    EXPECT_EQ(indices(), (std::vector<uint32_t>{0, 0, 0}));
    EXPECT_EQ(ringAt(0, 1), Frames{0});
    port().startAudio();
    card().answerReads({1024});
    serviced();
    EXPECT_EQ(request().frames, numbered(3001, 1024));
}

TEST_F(LivewirePlay, PausedStateDrainsTheDeviceToo)
{
    build();
    port().portPlaybackState = AUDIO_PAUSED;
    card().answerReads({3000});
    serviced();
    EXPECT_EQ(card().numFramesRead(), 3000U);
    EXPECT_EQ(block->workBufferHead, 0U);
}

TEST_F(LivewirePlay, FramesThrownAwayCountAsRead)
{
    build();
    card().answerReads({333});
    EXPECT_EQ(block->getSamples(), 333U);
}

TEST_F(LivewirePlay, MutedOutputClearsTheFirstFrameOfEachRead)
{
    buildPlaying();
    port().muteAudio();
    card().answerReads({1024, 500});
    serviced();
    EXPECT_EQ(ringAt(0, 1524), Frames{0} + numbered(2, 1023) + Frames{0} + numbered(1026, 499));
}

// ------------------------------------------------------------------------------------------- putting frames in the ring

TEST(LivewireRing, OneSlotStaysFree)
{
    const auto free = ClivewireStreamPlay::framesFree;
    EXPECT_EQ(free(0, 0), 49151U);
    EXPECT_EQ(free(1, 0), 49150U);
    EXPECT_EQ(free(49150, 0), 1U);
    EXPECT_EQ(free(49151, 0), 0U);
    EXPECT_EQ(free(0, 1), 0U);
    EXPECT_EQ(free(1, 1), 49151U);
    EXPECT_EQ(free(49151, 1), 1U);
    EXPECT_EQ(free(0, 49151), 49150U);
    EXPECT_EQ(free(49150, 49151), 0U);
    EXPECT_EQ(free(49151, 49151), 49151U);
    EXPECT_EQ(free(20000, 10000), 39151U);
    EXPECT_EQ(free(10000, 20000), 9999U);
}

TEST_F(LivewirePlay, FramesGoToTheHead)
{
    buildPlaying();
    setRing(100, 2000); // [OO..TOOO]
    EXPECT_THAT(read(1024), IsEmpty());
    EXPECT_EQ(indices(), (std::vector<uint32_t>{1124, 2000, 2000}));
    EXPECT_EQ(ringAt(99, 1026), Frames{0} + numbered(1, 1024) + Frames{0});
}

TEST_F(LivewirePlay, FramesPassTheTopInTwoPieces)
{
    buildPlaying();
    setRing(49000, 5000); // [...TOOO..]
    EXPECT_THAT(read(1024), IsEmpty());
    EXPECT_EQ(indices(), (std::vector<uint32_t>{872, 5000, 5000}));
    EXPECT_EQ(ringAt(48999, 153), Frames{0} + numbered(1, 152));
    EXPECT_EQ(ringAt(0, 873), numbered(153, 872) + Frames{0});
}

TEST_F(LivewirePlay, FramesThatEndAtTheTopMoveTheHeadToTheBottom)
{
    buildPlaying();
    setRing(48128, 5000);
    EXPECT_THAT(read(1024), IsEmpty());
    EXPECT_EQ(block->workBufferHead, 0U);
    EXPECT_EQ(ringAt(48128, 1024), numbered(1, 1024));
    EXPECT_EQ(ringAt(0, 1), Frames{0});
}

TEST_F(LivewirePlay, FullRingDropsAllFrames)
{
    for (const auto& [head, tail] : {std::pair{49151U, 0U}, std::pair{4999U, 5000U}, std::pair{0U, 1U}}) {
        card().reset();
        buildPlaying();
        numberRing();
        setRing(head, tail);
        EXPECT_THAT(read(1000), ElementsAre("(0) work buffer is full dropping 1000 frames."));
        EXPECT_EQ(indices(), (std::vector<uint32_t>{head, tail, tail}));
        EXPECT_EQ(ringAt(0, RING), numbered(1000000, RING));
        (void)traced(-1, [this] { block.reset(); });
    }
}

TEST_F(LivewirePlay, FullRingTellsOfAReadOfNothingToo)
{
    buildPlaying();
    setRing(49151, 0);
    EXPECT_THAT(read(0), ElementsAre("(0) work buffer is full dropping 0 frames."));
}

TEST_F(LivewirePlay, With24FreeTheLast24Of1024AreKept)
{
    buildPlaying();
    setRing(4975, 5000);
    EXPECT_THAT(read(1024), ElementsAre("(0) work buffer is partially full dropping 1000 frames."));
    EXPECT_EQ(indices(), (std::vector<uint32_t>{4999, 5000, 5000}));
    EXPECT_EQ(ringAt(4974, 26), Frames{0} + numbered(1001, 24) + Frames{0});
}

TEST_F(LivewirePlay, PartialDropKeepsTheNewestAcrossTheTop)
{
    buildPlaying();
    setRing(49000, 200);
    EXPECT_THAT(read(1024), ElementsAre("(0) work buffer is partially full dropping 673 frames."));
    EXPECT_EQ(indices(), (std::vector<uint32_t>{199, 200, 200}));
    EXPECT_EQ(ringAt(49000, 152), numbered(674, 152));
    EXPECT_EQ(ringAt(0, 200), numbered(826, 199) + Frames{0});
}

TEST_F(LivewirePlay, WithTheTailAtTheBottomTheLastSlotStaysFree)
{
    buildPlaying();
    setRing(48640, 0); // 511 free
    const Lines lines = read(1024);
    EXPECT_EQ(lines.front(), "(0) work buffer is partially full dropping 513 frames.");
    EXPECT_EQ(block->workBufferHead, 49151U);
    EXPECT_EQ(ringAt(48640, 512), numbered(514, 511) + Frames{0});
}

TEST_F(LivewirePlay, ExactlyAllFreeSlotsAreFilledWithoutAWord)
{
    buildPlaying();
    setRing(3000, 4025); // 1024 free
    EXPECT_THAT(read(1024), IsEmpty());
    EXPECT_EQ(block->workBufferHead, 4024U);
}

TEST_F(LivewirePlay, LentFramesAreNotOverwritten)
{
    buildPlaying();
    numberRing();
    setRing(4096, 5000); // [OOOO..TOOOO]
    const Offer offer = request();
    EXPECT_EQ(offer.nPeriods, 43U); // 44152 frames up to the top
    read(1024);                     // 903 free
    EXPECT_EQ(block->workBufferHead, 4999U);
    EXPECT_EQ(framesAt(offer.address, 43 * PERIOD), offer.frames);
}

TEST_F(LivewirePlay, CopyNearTheTopIsToldAsClobberingThoughItIsNot)
{
    buildPlaying();
    setRing(47105, 47105); // new head 48129, and 1024 once more is one too many
    EXPECT_THAT(read(1024), ElementsAre(MatchesRegex("\\(0\\) (src/)?audioLibrary/livewireStreamPlay\\.cpp [0-9]+ "
                                                     "ERROR! Just clobbered the buffer")));
    EXPECT_EQ(ringAt(47105, 1024), numbered(1, 1024));
    EXPECT_EQ(block->workBufferHead, 48129U);
}

TEST_F(LivewirePlay, WholePeriodsNeverTellOfClobbering)
{
    buildPlaying();
    setRing(47104, 47104); // new head 48128, and 1024 once more just fits
    EXPECT_THAT(read(1024), IsEmpty());
    EXPECT_THAT(read(1024), IsEmpty()); // up to the top
    EXPECT_EQ(block->workBufferHead, 0U);
}

// ------------------------------------------------------------------------------------------------------------ reading

TEST_F(LivewirePlay, EmptyRingOffersNothing)
{
    buildPlaying();
    EXPECT_EQ(request().nPeriods, 0U);
    setRing(12345, 12345);
    EXPECT_EQ(request().nPeriods, 0U);
    EXPECT_EQ(indices(), (std::vector<uint32_t>{12345, 12345, 12345}));
}

TEST_F(LivewirePlay, OneFrameLessThanAPeriodIsNotOffered)
{
    buildPlaying();
    numberRing();
    setRing(1023, 0);
    EXPECT_EQ(request().nPeriods, 0U);
    EXPECT_EQ(indices(), (std::vector<uint32_t>{1023, 0, 0}));
    setRing(1024, 0);
    EXPECT_EQ(request().nPeriods, 1U);
}

TEST_F(LivewirePlay, ThreePeriodsAreOfferedInOneRequest)
{
    buildPlaying();
    numberRing();
    setRing(2048 + 3072, 2048);
    Offer offer;
    EXPECT_THAT(traced(8, [&] { offer = request(); }), ElementsAre("(8) Sending 3072 frames (3 periods) of data."));
    EXPECT_EQ(offer.nPeriods, 3U);
    EXPECT_EQ(offer.frames, numbered(1002048, 3072));
    EXPECT_EQ(offer.address, reinterpret_cast<const char*>(&block->workBuffer[2048]));
    EXPECT_EQ(indices(), (std::vector<uint32_t>{5120, 5120, 2048}));
    EXPECT_EQ(port().getPeriodCount(), 3);
}

TEST_F(LivewirePlay, SendingIsSilentAtLevelSeven)
{
    buildPlaying();
    setRing(3072, 0);
    EXPECT_THAT(traced(7, [&] { request(); }), IsEmpty());
}

TEST_F(LivewirePlay, RestOfAPeriodStaysInTheRing)
{
    buildPlaying();
    numberRing();
    setRing(2500, 0);
    EXPECT_EQ(request().nPeriods, 2U);
    acknowledge(2);
    EXPECT_EQ(indices(), (std::vector<uint32_t>{2500, 2048, 2048}));
    EXPECT_EQ(request().nPeriods, 0U);
}

TEST_F(LivewirePlay, SecondRequestBeforeTheAcknowledgeGetsNothing)
{
    buildPlaying();
    setRing(3072, 0);
    EXPECT_EQ(request().nPeriods, 3U);
    card().answerReads({1024});
    serviced(); // more has come meanwhile
    EXPECT_EQ(request().nPeriods, 0U);
    EXPECT_EQ(indices(), (std::vector<uint32_t>{4096, 3072, 0}));
    EXPECT_EQ(port().getPeriodCount(), 3);
}

TEST_F(LivewirePlay, WrappedFramesAreOfferedUpToTheTop)
{
    buildPlaying();
    numberRing();
    setRing(4096, RING - 3000); // [OOOOH....TOO]
    Offer offer;
    EXPECT_THAT(traced(8, [&] { offer = request(); }), ElementsAre("(8) Sending 2048 frames (2 periods) of data."));
    EXPECT_EQ(offer.frames, numbered(1000000 + RING - 3000, 2048));
    EXPECT_EQ(indices(), (std::vector<uint32_t>{4096, RING - 952, RING - 3000}));
    EXPECT_EQ(port().getPeriodCount(), 2);
}

TEST_F(LivewirePlay, WrappedOfferThatEndsAtTheTopEndsAtIndexZero)
{
    buildPlaying();
    numberRing();
    setRing(10, RING - 2048);
    EXPECT_EQ(request().frames, numbered(1000000 + RING - 2048, 2048));
    EXPECT_EQ(indices(), (std::vector<uint32_t>{10, 0, RING - 2048}));
    acknowledge(2);
    EXPECT_EQ(indices(), (std::vector<uint32_t>{10, 0, 0}));
}

TEST_F(LivewirePlay, FramesUpToTheTopWithTheHeadAtZeroAreOffered)
{
    buildPlaying();
    numberRing();
    setRing(0, RING - 1024);
    EXPECT_EQ(request().frames, numbered(1000000 + RING - 1024, 1024));
    EXPECT_EQ(indices(), (std::vector<uint32_t>{0, 0, RING - 1024}));
}

TEST_F(LivewirePlay, PeriodAcrossTheTopIsJoinedInTheLinearizingBuffer)
{
    buildPlaying();
    numberRing();
    setRing(1900, RING - 100); // 2000 frames
    Offer offer;
    EXPECT_THAT(traced(8, [&] { offer = request(); }), IsEmpty());
    EXPECT_EQ(offer.nPeriods, 1U);
    EXPECT_EQ(offer.address, reinterpret_cast<const char*>(block->temp_LinearizingBuffer.get()));
    EXPECT_EQ(offer.frames, numbered(1000000 + RING - 100, 100) + numbered(1000000, 924));
    EXPECT_EQ(indices(), (std::vector<uint32_t>{1900, 924, RING - 100}));
    EXPECT_EQ(port().getPeriodCount(), 1);
    acknowledge(1);
    EXPECT_EQ(indices(), (std::vector<uint32_t>{1900, 924, 924}));
    EXPECT_EQ(request().nPeriods, 0U); // 976 frames
}

TEST_F(LivewirePlay, PeriodAcrossTheTopWaitsUntilItIsWhole)
{
    buildPlaying();
    numberRing();
    setRing(923, RING - 100);
    EXPECT_EQ(request().nPeriods, 0U);
    EXPECT_EQ(indices(), (std::vector<uint32_t>{923, RING - 100, RING - 100}));
    setRing(924, RING - 100);
    EXPECT_EQ(request().nPeriods, 1U);
    EXPECT_EQ(block->workBufferConsumingHead, 924U);
}

TEST_F(LivewirePlay, PeriodOfNoFramesIsNeverOffered)
{
    buildPlaying();
    setRing(3072, 0);
    EXPECT_EQ(request(0).nPeriods, 0U);
}

TEST_F(LivewirePlay, PeriodTooLongToBeJoinedLosesTheFramesBelowTheTop)
{
    buildPlaying();
    numberRing();
    setRing(1900, RING - 100);
    EXPECT_EQ(request(1901).nPeriods, 0U);
    EXPECT_EQ(indices(), (std::vector<uint32_t>{1900, 0, 0}));
    EXPECT_EQ(request(1901).nPeriods, 0U);
    card().answerReads({1});
    serviced();
    EXPECT_EQ(request(1901).frames, numbered(1000000, 1900) + Frames{1});
}

TEST_F(LivewirePlay, PeriodTooLongToBeJoinedWaitsUntilItIsWhole)
{
    buildPlaying();
    setRing(1900, RING - 100);
    EXPECT_EQ(request(2001).nPeriods, 0U);
    EXPECT_EQ(indices(), (std::vector<uint32_t>{1900, RING - 100, RING - 100}));
}

TEST_F(LivewirePlay, LongPeriodsAreOfferedWhereTheyLieTogether)
{
    buildPlaying();
    numberRing();
    setRing(20000, 100);
    EXPECT_EQ(request(5000).frames, numbered(1000100, 15000));
}

// -------------------------------------------------------------------------------------------------- the acknowledgement

TEST_F(LivewirePlay, WhatIsNotAcknowledgedIsOfferedAgain)
{
    buildPlaying();
    numberRing();
    setRing(3072, 0);
    ASSERT_EQ(request().nPeriods, 3U);
    acknowledge(1);
    EXPECT_EQ(indices(), (std::vector<uint32_t>{3072, 1024, 1024}));
    EXPECT_EQ(request().frames, numbered(1001024, 2048));
}

TEST_F(LivewirePlay, AcknowledgingNoneOffersAllAgain)
{
    buildPlaying();
    numberRing();
    setRing(3072, 0);
    ASSERT_EQ(request().nPeriods, 3U);
    acknowledge(0);
    EXPECT_EQ(request().frames, numbered(1000000, 3072));
}

TEST_F(LivewirePlay, AcknowledgingMoreThanWasOfferedFreesTheOffer)
{
    buildPlaying();
    setRing(5000, 0);
    ASSERT_EQ(request().nPeriods, 4U);
    acknowledge(47);
    EXPECT_EQ(indices(), (std::vector<uint32_t>{5000, 4096, 4096}));
}

TEST_F(LivewirePlay, PartOfAnOfferUpToTheTopIsAcknowledged)
{
    buildPlaying();
    setRing(10, RING - 2048);
    ASSERT_EQ(request().nPeriods, 2U);
    acknowledge(1);
    EXPECT_EQ(indices(), (std::vector<uint32_t>{10, RING - 1024, RING - 1024}));
}

TEST_F(LivewirePlay, AcknowledgeWithoutARequestMovesTheTail)
{
    buildPlaying();
    setRing(500, 300);
    acknowledge(1);
    EXPECT_EQ(indices(), (std::vector<uint32_t>{500, 1324, 1324}));
    setRing(500, 49000);
    acknowledge(1);
    EXPECT_EQ(indices(), (std::vector<uint32_t>{500, 872, 872}));
}

TEST_F(LivewirePlay, AcknowledgeWithoutARequestMovesTheTailOnceRoundAtMost)
{
    buildPlaying();
    setRing(500, 300);
    acknowledge(1000000);
    EXPECT_EQ(indices(), (std::vector<uint32_t>{500, 300, 300}));
}

// ------------------------------------------------------------------------------------------------------ whole streams

/** Ten laps of the ring: reads of `readFrames`, a reader of `periodFrames`; all frames come, once and in order. */
class LivewireStream : public LivewirePlay, public testing::WithParamInterface<std::pair<long, unsigned int>>
{
};

TEST_P(LivewireStream, EveryFrameComesOnceAndInOrder)
{
    const auto [readFrames, periodFrames] = GetParam();
    buildPlaying();
    card().record(false);
    audioInterfaceTraceLevel = -1; // copies near the top are told
    uint32_t received = 0;
    while (received < 10 * RING) {
        card().answerReads({readFrames, readFrames});
        serviced();
        for (Offer offer = request(periodFrames); offer.nPeriods > 0; offer = request(periodFrames)) {
            ASSERT_EQ(offer.frames, numbered(received + 1, offer.nPeriods * periodFrames));
            acknowledge(offer.nPeriods, periodFrames);
            received += offer.nPeriods * periodFrames;
        }
    }
    EXPECT_LT(card().numFramesRead() - received, periodFrames);
}

INSTANTIATE_TEST_SUITE_P(ReadsAndPeriods, LivewireStream,
                         testing::Values(std::pair{1024L, 1024U}, std::pair{1008L, 1024U}, std::pair{997L, 1024U},
                                         std::pair{1024L, 1000U}, std::pair{997L, 1009U}, std::pair{1L, 7U},
                                         std::pair{331L, 1U}));

TEST_F(LivewirePlay, TransferAllocatesNothing)
{
    buildPlaying();
    card().record(false);
    audioInterfaceTraceLevel = -1; // copies near the top are told
    char* address = nullptr;
    unsigned int nPeriods = 0;
    CServiceTime next;
    for (int pass = 0; pass < 1000; pass++) {
        card().answerReads({1024, 1000});
        const int before = allocations;
        block->service(next);
        port().reqReadPeriods(address, nPeriods);
        port().ackReadPeriods(nPeriods);
        ASSERT_EQ(allocations, before);
    }
    EXPECT_EQ(card().numFramesRead(), 2024000U);
}

TEST_F(LivewirePlay, ReaderOnAThreadOfItsOwnGetsEveryFrame)
{
    buildPlaying();
    card().record(false);
    audioInterfaceTraceLevel = -1;
    constexpr uint32_t NUM_FRAMES = 8 * RING;
    std::atomic<uint32_t> received{0};
    std::thread reader([&] {
        char* address = nullptr;
        unsigned int nPeriods = 0;
        while (received < NUM_FRAMES) {
            port().reqReadPeriods(address, nPeriods);
            const uint32_t numFrames = nPeriods * PERIOD;
            EXPECT_EQ(framesAt(address, numFrames), numbered(received + 1, numFrames));
            port().ackReadPeriods(nPeriods);
            received += numFrames;
            std::this_thread::yield();
        }
    });
    while (received < NUM_FRAMES) {
        if (card().numFramesRead() - received < 40000) {
            card().answerReads({1024, 990});
        } else {
            std::this_thread::yield();
        }
        serviced();
        EXPECT_EQ(block->timeLeft(), -1);
    }
    reader.join();
    audioInterfaceTraceLevel = 0;
}

// ----------------------------------------------------------------------------------------------------------- the port

TEST_F(LivewirePlay, PortReadsInPeriodsOfItsOwn)
{
    buildPlaying();
    numberRing();
    setRing(3072, 0);
    port().params.periodSize = 500;
    char* address = nullptr;
    unsigned int nPeriods = 0;
    EXPECT_EQ(port().reqReadPeriods(address, nPeriods), STREAM_OK);
    EXPECT_EQ(nPeriods, 6U);
    EXPECT_EQ(framesAt(address, 3000), numbered(1000000, 3000));
    EXPECT_EQ(port().ackReadPeriods(5), STREAM_OK);
    EXPECT_EQ(block->workBufferConsumingTail, 2500U);
}

TEST_F(LivewirePlay, PortCountsAPeriodOnRequestAndOnAcknowledge)
{
    buildPlaying();
    setRing(3072, 0);
    graphTest::clockTime() = {1000, 21333333};
    char* address = nullptr;
    unsigned int nPeriods = 0;
    port().reqReadPeriods(address, nPeriods);
    EXPECT_EQ(port().getPeriodCount(), 3);
    EXPECT_EQ(port().lastCountTime.nextServiceTime.tv_nsec, 21333333);
    graphTest::clockTime() = {1000, 30000000};
    port().ackReadPeriods(2);
    EXPECT_EQ(port().getPeriodCount(), 5);
    EXPECT_EQ(port().lastCountTime.nextServiceTime.tv_nsec, 21333333); // the rate is measured by the requests alone
    port().ackReadPeriods(0);
    EXPECT_EQ(port().getPeriodCount(), 5);
}

TEST_F(LivewirePlay, RequestWithoutAnOfferCountsNothing)
{
    buildPlaying();
    char* address = nullptr;
    unsigned int nPeriods = 5;
    EXPECT_EQ(port().reqReadPeriods(address, nPeriods), STREAM_OK);
    EXPECT_EQ(nPeriods, 0U);
    EXPECT_EQ(port().getPeriodCount(), 0);
}

TEST_F(LivewirePlay, PortAppliesARecordThatItsCheckAccepts)
{
    build();
    audioPortParam_t offered = port().params;
    offered.periodSizeStatus = VARIABLE;
    EXPECT_EQ(port().reconfigPortApply(&offered), STREAM_OK);
    graphTest::expectSameParams(port().params, offered);
}

TEST_F(LivewirePlay, PortRefusesARecordThatDiffersInAnyField)
{
    build();
    const audioPortParam_t own = port().params;
    const auto refused = [&](auto change) {
        audioPortParam_t offered = own;
        offered.numChannelsStatus = VARIABLE; // would show if the record were copied
        change(offered);
        EXPECT_EQ(port().reconfigPortApply(&offered), STREAM_ERROR);
        graphTest::expectSameParams(port().params, own);
    };
    refused([](audioPortParam_t& p) { p.nominalSampleRate = 44100.0F; });
    refused([](audioPortParam_t& p) { p.trueSampleRate = 47982.0F; });
    refused([](audioPortParam_t& p) { p.numChannels = 1; });
    refused([](audioPortParam_t& p) { p.sampleFormat = SAMPLE_S32BIT_LE; });
    refused([](audioPortParam_t& p) { p.samplesInterleaved = false; });
    refused([](audioPortParam_t& p) { p.periodSize = 512; });
    EXPECT_EQ(port().reconfigPortApply(nullptr), STREAM_ERROR);
}

TEST_F(LivewirePlay, PeerThatInsistsOnAnotherPeriodIsRefused)
{
    build();
    literal::Sink fits(literal::shape(48000.0F, 0.0F, 2, SAMPLE_S16BIT_LE, 1024), "FITS");
    literal::Sink other(literal::shape(48000.0F, 0.0F, 2, SAMPLE_S16BIT_LE, 512), "OTHER");
    EXPECT_EQ(port().connectDownstream(&other.port(), nullptr), STREAM_ERROR);
    EXPECT_FALSE(port().isConnected(nullptr));
    EXPECT_EQ(port().connectDownstream(&fits.port(), nullptr), STREAM_OK);
    EXPECT_EQ(fits.port().params.trueSampleRate, 48000.0F);
    EXPECT_EQ(port().params.periodSize, 1024U);
    EXPECT_EQ(port().disconnect(), STREAM_OK);
}

TEST_F(LivewirePlay, CallsAreTracedAtLevelNine)
{
    buildPlaying();
    char* address = nullptr;
    unsigned int nPeriods = 0;
    const Lines lines = traced(9, [&] {
        block->getRunTimeId();
        block->timeLeft();
        serviced();
        port().getRunTimeId();
        port().reqReadPeriods(address, nPeriods);
        port().ackReadPeriods(0);
    });
    for (const char* name :
         {"ClivewireStreamPlay::getRunTimeId()", "ClivewireStreamPlay::timeLeft()", "ClivewireStreamPlay::service(",
          "ClivewireStreamPlay::getSamples()", "ClivewireStreamPlayUSP::getRunTimeId()",
          "ClivewireStreamPlayUSP::reqReadPeriods(", "ClivewireStreamPlay::reqReadPeriods(",
          "ClivewireStreamPlayUSP::ackReadPeriods(", "ClivewireStreamPlay::ackReadPeriods("}) {
        EXPECT_THAT(lines, Contains(AllOf(HasSubstr("(9) "), HasSubstr(name))));
    }
}

} // namespace
