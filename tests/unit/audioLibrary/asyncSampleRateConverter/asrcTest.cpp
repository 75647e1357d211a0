// asrcTest: the rate converter's functions, one by one. Expected values are worked out by hand.
#include "audioLibrary/asyncSampleRateConverter/asrc.h"
#include "audioLibrary/asyncSampleRateConverter/asrcKernels.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kOwnAllocator = true; ///< a sanitizer brings its own malloc, which may not be replaced
#else
constexpr bool kOwnAllocator = false;
#endif

namespace
{

int allocationsUntilRefusal = -1; ///< counts down at each allocation; at 0 one is refused
unsigned int allocationCount = 0;

} // namespace

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
namespace
{

bool granted()
{
    ++allocationCount;
    if (allocationsUntilRefusal < 0)
        return true;
    return allocationsUntilRefusal-- > 0;
}

} // namespace

// The C library's own, under the names it keeps for such stand-ins. The compiler may turn malloc and memset into calloc.
extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_memalign(size_t, size_t);

void* malloc(size_t size)
{
    return granted() ? __libc_malloc(size) : nullptr;
}
void* calloc(size_t count, size_t size)
{
    return granted() ? __libc_calloc(count, size) : nullptr;
}
void* aligned_alloc(size_t alignment, size_t size)
{
    return granted() ? __libc_memalign(alignment, size) : nullptr;
}
}
#endif

namespace
{

using Samples = std::vector<int16_t>;

class AsrcTest : public testing::Test
{
protected:
    ~AsrcTest() override { asrcDestroy(handle); }

    asrcObject& make(unsigned int nChannels)
    {
        asrcDestroy(handle);
        asrcConfig config{nChannels};
        handle = asrcInit(&config);
        return *static_cast<asrcObject*>(handle);
    }

    asrcObject& make(unsigned int nChannels, Samples table)
    {
        asrcObject& object = make(nChannels);
        EXPECT_EQ(asrcCopyStoredFilter(handle, table.data()), ASRC_OK);
        return object;
    }

    unsigned int offered(short** place = nullptr)
    {
        short* buffer = nullptr;
        unsigned int nFrames = 0;
        EXPECT_EQ(asrcReqInFrameBuffer(handle, &buffer, &nFrames), ASRC_OK);
        if (place)
            *place = buffer;
        return nFrames;
    }

    /** Places frames, the first sample of frame i being `first + i`, the second its negative. */
    void write(unsigned int nFrames, int first = 0)
    {
        short* place = nullptr;
        ASSERT_GE(offered(&place), nFrames);
        const unsigned int nChannels = static_cast<asrcObject*>(handle)->nChannels;
        for (unsigned int i = 0; i < nFrames; ++i) {
            place[i * nChannels] = static_cast<int16_t>(first + static_cast<int>(i));
            if (nChannels == 2)
                place[i * 2 + 1] = static_cast<int16_t>(-(first + static_cast<int>(i)));
        }
        EXPECT_EQ(asrcWriteInFrames(handle, nFrames), ASRC_OK);
    }

    void writeConstant(unsigned int nFrames, int16_t value)
    {
        short* place = nullptr;
        ASSERT_GE(offered(&place), nFrames);
        const unsigned int nChannels = static_cast<asrcObject*>(handle)->nChannels;
        for (unsigned int i = 0; i < nFrames * nChannels; ++i)
            place[i] = value;
        asrcWriteInFrames(handle, nFrames);
    }

    /** Reads up to n frames of the converter's channel count. */
    Samples read(unsigned int n)
    {
        const unsigned int nChannels = static_cast<asrcObject*>(handle)->nChannels;
        Samples out(size_t{n} * nChannels);
        out.resize(size_t{asrcReadOutFrames(handle, out.data(), n)} * nChannels);
        return out;
    }

    asrcHandle handle = nullptr;
};

/** All 256 phases of one tap hold `value`, the others 0: the tap at j frames after the window's start is 31 - tap. */
Samples oneTap(unsigned int tap, int16_t value)
{
    Samples table(8192);
    for (unsigned int q = 0; q < 256; ++q)
        table[tap * 256 + q] = value;
    return table;
}

// --- asrcInit

TEST_F(AsrcTest, InitPrintsTheNumberOfTaps)
{
    testing::internal::CaptureStdout();
    make(2);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Filter taps: 32\n");
}

TEST_F(AsrcTest, OtherChannelCountsAreRefusedInWords)
{
    for (const unsigned int count : {0u, 3u, 8u}) {
        testing::internal::CaptureStderr();
        testing::internal::CaptureStdout();
        asrcConfig config{count};
        EXPECT_EQ(asrcInit(&config), nullptr);
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  "Maximum of 2 channels supported - " + std::to_string(count) + " requested\n");
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    }
}

TEST_F(AsrcTest, StartingValues)
{
    const asrcObject& object = make(1);
    EXPECT_EQ(object.nChannels, 1u);
    EXPECT_EQ(object.ClkRatio, 1.0);
    EXPECT_EQ(object.ratio, 65536u);
    EXPECT_EQ(object.accDecrement, 1);
    EXPECT_EQ(object.inputFreq, 44100);
    EXPECT_EQ(object.outputFreq, 44100);
    EXPECT_EQ(object.IWrite, 0u);
    EXPECT_EQ(object.IRead, 0u);
    EXPECT_EQ(object.ILoadWrite, 0u);
    EXPECT_EQ(object.OutputIndex, 0u);
    EXPECT_EQ(object.UseInput, 0);
    EXPECT_EQ(object.leapticks, 0);
    EXPECT_EQ(object.inputAcc, 0);
    EXPECT_EQ(object.outputAcc, 0);
    EXPECT_EQ(asrcGetStoredFilterLength(handle), 8192u);
}

TEST_F(AsrcTest, FirstQuarterKilosampleAndFilterStartCleared)
{
    const asrcObject& object = make(2);
    for (unsigned int i = 0; i < 256; ++i)
        ASSERT_EQ(object.InputBuffer[i], 0) << i;
    for (unsigned int i = 0; i < 8192; ++i)
        ASSERT_EQ(object.FilterCoeff[i], 0) << i;
}

TEST_F(AsrcTest, ExhaustedMemoryIsToldAndAnswersNull)
{
    if (kOwnAllocator)
        return;                                  // the refusal needs allocators of our own
    for (int before = 0; before < 4; ++before) { // the record and its three buffers
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        std::fflush(nullptr);
        asrcConfig config{2};
        std::printf(" "); // stdout gets its buffer before allocations are counted
        allocationsUntilRefusal = before;
        asrcHandle refused = asrcInit(&config);
        allocationsUntilRefusal = -1;
        testing::internal::GetCapturedStdout();
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "Out of memory\n") << before;
        EXPECT_EQ(refused, nullptr) << before;
    }
}

// --- asrcSetRates

TEST_F(AsrcTest, RatesSetTheStepAndTheClocks)
{
    const asrcObject& object = make(2);
    EXPECT_EQ(asrcSetRates(handle, 44100, 48000), ASRC_OK);
    EXPECT_EQ(object.ratio, 60211u); // 0.91875 x 65536 = 60211.2
    EXPECT_EQ(object.ClkRatio, 0.91875);
    EXPECT_EQ(object.accDecrement, 44100);
    EXPECT_EQ(object.inputFreq, 44100);
    EXPECT_EQ(object.outputFreq, 48000);
    EXPECT_EQ(asrcSetRates(handle, 48000, 47982), ASRC_OK);
    EXPECT_EQ(object.ratio, 65560u); // 65536 x 48000 / 47982 = 65560.58
    EXPECT_EQ(object.accDecrement, 47982);
}

TEST_F(AsrcTest, EqualRatesStepByWholeFramesAndFireOnEveryTick)
{
    const asrcObject& object = make(1, oneTap(31, 32767));
    ASSERT_EQ(asrcSetRates(handle, 48000, 48000), ASRC_OK);
    EXPECT_EQ(object.ratio, 65536u);
    EXPECT_EQ(object.accDecrement, 48000);
    write(200);
    // 144 ticks bring the depth to 144; each of the other 56 makes a frame and takes one.
    EXPECT_EQ(read(1000).size(), 56u);
    EXPECT_EQ(object.IWrite, 200u);
    EXPECT_EQ(object.IRead, 56u << 16);
    EXPECT_EQ(object.inputAcc, 0);
    EXPECT_EQ(object.outputAcc, 0);
}

TEST_F(AsrcTest, InputMayExceedOutputByFivePercent)
{
    const asrcObject& object = make(2);
    testing::internal::CaptureStderr();
    EXPECT_EQ(asrcSetRates(handle, 50400, 48000), ASRC_OK);
    EXPECT_EQ(object.ratio, 68812u); // 1.05 x 65536 = 68812.8
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");

    testing::internal::CaptureStderr();
    EXPECT_EQ(asrcSetRates(handle, 50401, 48000), ASRC_ERROR);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "ASRC only supports interpolation (Fout > Fin)\n");
    EXPECT_EQ(object.inputFreq, 50400);
    EXPECT_EQ(object.outputFreq, 48000);
    EXPECT_EQ(object.accDecrement, 48000);
    EXPECT_EQ(object.ratio, 68812u);
}

TEST_F(AsrcTest, TheFivePercentAreReckonedIn32Bits)
{
    make(2);
    // 204522253 x 21 = 4294967313 = 2^32 + 17, and 17 / 20 = 0: even 1 Hz is too much
    testing::internal::CaptureStderr();
    EXPECT_EQ(asrcSetRates(handle, 1, 204522253), ASRC_ERROR);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "ASRC only supports interpolation (Fout > Fin)\n");
    EXPECT_EQ(asrcSetRates(handle, 1, 204522252), ASRC_OK);
}

TEST_F(AsrcTest, AnInputRateOfZeroIsRefusedSilently)
{
    const asrcObject& object = make(2);
    asrcSetRates(handle, 44100, 48000);
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    EXPECT_EQ(asrcSetRates(handle, 0, 48000), ASRC_ERROR);
    EXPECT_EQ(asrcSetRates(handle, 0, 0), ASRC_ERROR);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(object.inputFreq, 44100);
    EXPECT_EQ(object.outputFreq, 48000);
    EXPECT_EQ(object.accDecrement, 44100);
    EXPECT_EQ(object.ratio, 60211u);
}

TEST_F(AsrcTest, AnOutputRateOfZeroIsBelowAnyInputRate)
{
    const asrcObject& object = make(2);
    testing::internal::CaptureStderr();
    EXPECT_EQ(asrcSetRates(handle, 44100, 0), ASRC_ERROR);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "ASRC only supports interpolation (Fout > Fin)\n");
    EXPECT_EQ(object.outputFreq, 44100);
    EXPECT_EQ(object.ratio, 65536u);
}

TEST_F(AsrcTest, ARateChangeInFlightTouchesNeitherClocksNorPositions)
{
    const asrcObject& object = make(1, oneTap(16, 16384));
    asrcSetRates(handle, 44100, 48000);
    write(255);
    const size_t made = read(20).size();
    ASSERT_EQ(made, 20u);
    const asrcObject before = object;
    EXPECT_NE(before.inputAcc, 0);
    ASSERT_EQ(asrcSetRates(handle, 44100, 47990), ASRC_OK);
    EXPECT_EQ(object.inputAcc, before.inputAcc);
    EXPECT_EQ(object.outputAcc, before.outputAcc);
    EXPECT_EQ(object.IRead, before.IRead);
    EXPECT_EQ(object.IWrite, before.IWrite);
    EXPECT_EQ(object.ILoadWrite, before.ILoadWrite);
    EXPECT_EQ(object.UseInput, 1);
    EXPECT_EQ(read(1).size(), 1u);
    EXPECT_EQ(object.IRead, before.IRead + 60223u + object.leapticks); // 65536 x 44100 / 47990 = 60223.8
}

// --- the ring

TEST_F(AsrcTest, AnEmptyRingOffersAllButOneFrame)
{
    const asrcObject& object = make(2);
    short* place = nullptr;
    EXPECT_EQ(offered(&place), 255u);
    EXPECT_EQ(place, object.InputBuffer);
}

TEST_F(AsrcTest, TheRoomEndsOneBeforeTheReader)
{
    asrcObject& object = make(2);
    object.ILoadWrite = 10;
    object.IRead = (11u << 16) | 0xFFFF; // the fraction does not count
    EXPECT_EQ(offered(), 0u);
    object.IRead = 200u << 16;
    short* place = nullptr;
    EXPECT_EQ(offered(&place), 189u);
    EXPECT_EQ(place, object.InputBuffer + 20);
}

TEST_F(AsrcTest, TheRoomEndsWithTheRingBehindTheReader)
{
    asrcObject& object = make(1);
    object.ILoadWrite = 250;
    object.IRead = 250u << 16; // r == w: not greater
    EXPECT_EQ(offered(), 6u);
    object.IRead = 1u << 16;
    EXPECT_EQ(offered(), 6u);
    object.IRead = 0xFFFF; // frame 0: the ring's end is the reader's place
    EXPECT_EQ(offered(), 5u);
    object.ILoadWrite = 255;
    EXPECT_EQ(offered(), 0u);
}

TEST_F(AsrcTest, FortyFramesFromPositionTenMirrorTwentyTwo)
{
    asrcObject& object = make(2);
    write(10, 100);
    for (unsigned int i = 0; i < 2 * kAsrcRingAndMirror; ++i)
        if (i >= 2 * 256)
            object.InputBuffer[i] = 7777;
    write(40, 1000);
    for (unsigned int frame = 0; frame < 10; ++frame)
        EXPECT_EQ(object.InputBuffer[2 * (256 + frame)], 7777) << "mirrored again: " << frame;
    for (unsigned int frame = 10; frame < 32; ++frame) {
        EXPECT_EQ(object.InputBuffer[2 * (256 + frame)], static_cast<int>(990 + frame));
        EXPECT_EQ(object.InputBuffer[2 * (256 + frame) + 1], -static_cast<int>(990 + frame));
    }
    EXPECT_EQ(object.ILoadWrite, 50u);
}

TEST_F(AsrcTest, FramesFromPosition32OnAreNotMirrored)
{
    asrcObject& object = make(1);
    write(32, 1);
    object.InputBuffer[256] = 7777;
    write(20, 500);
    EXPECT_EQ(object.InputBuffer[256], 7777);
    EXPECT_EQ(object.InputBuffer[256 + 31], 32);
}

TEST_F(AsrcTest, LoadPositionWrapsAt256EvenForACountThatWasNotOffered)
{
    asrcObject& object = make(2);
    object.ILoadWrite = 20;
    EXPECT_EQ(asrcWriteInFrames(handle, 4000000000u), ASRC_OK); // no overflow yet: below 2^32
    EXPECT_EQ(object.ILoadWrite, 4000000020u % 256u);
    object.ILoadWrite = 250;
    EXPECT_EQ(asrcWriteInFrames(handle, 1000), ASRC_OK);
    EXPECT_EQ(object.ILoadWrite, 226u); // 1250 mod 256
}

// --- start-up and stop conditions

TEST_F(AsrcTest, NothingComesOutBelowADepthOf144)
{
    const asrcObject& object = make(2, oneTap(16, 32767));
    asrcSetRates(handle, 48000, 48000);
    write(144);
    EXPECT_EQ(read(100).size(), 0u);
    EXPECT_EQ(object.IWrite, 144u); // the input clock was used up all the same
    EXPECT_EQ(object.UseInput, 0);
    write(1);
    EXPECT_EQ(read(100).size(), 2u); // one stereo frame, at depth 144
    EXPECT_EQ(object.UseInput, 1);
}

TEST_F(AsrcTest, ARunningConverterGoesOnDownToADepthOf32)
{
    asrcObject& object = make(1, oneTap(16, 32767));
    asrcSetRates(handle, 48000, 48000);
    write(200);
    object.UseInput = 1;
    object.IWrite = 100;
    object.IRead = (100u - 32u) << 16;
    EXPECT_EQ(read(1).size(), 1u);
    EXPECT_EQ(object.IWrite, 101u);

    object.IWrite = 100;
    object.IRead = (100u - 31u) << 16;
    EXPECT_EQ(read(1).size(), 1u);
    EXPECT_EQ(object.IWrite, 102u); // a depth of 31 makes none: the input clock has to fire first
}

TEST_F(AsrcTest, AnEmptyRingAndARequestOfNothingGiveNothing)
{
    asrcObject& object = make(2, oneTap(16, 32767));
    asrcSetRates(handle, 48000, 48000);
    short out[2] = {};
    object.OutputIndex = 9;
    EXPECT_EQ(asrcReadOutFrames(handle, out, 1), 0u);
    EXPECT_EQ(object.OutputIndex, 0u);
    EXPECT_EQ(object.OutputBuffer, out);
    write(100);
    EXPECT_EQ(asrcReadOutFrames(handle, out, 0), 0u);
    EXPECT_EQ(object.IWrite, 0u);
}

TEST_F(AsrcTest, ReadingStopsAtTheRequestedCount)
{
    const asrcObject& object = make(1, oneTap(16, 32767));
    asrcSetRates(handle, 48000, 48000);
    write(250);
    EXPECT_EQ(read(7).size(), 7u);
    EXPECT_EQ(object.IWrite, 151u); // 144 ticks of filling, then 7
}

TEST_F(AsrcTest, BeforeRatesAreSetATickTakesOneOffTheClocks)
{
    const asrcObject& object = make(1, oneTap(16, 32767));
    write(2);
    EXPECT_EQ(read(5).size(), 0u);
    // Tick 1 charges both clocks with 44100. They fire again at tick 44101, where the second frame ends the call.
    EXPECT_EQ(object.IWrite, 2u);
    EXPECT_EQ(object.inputAcc, 44099);
    EXPECT_EQ(object.outputAcc, 44099);
}

TEST_F(AsrcTest, TheOutputClockFiresInProportionToTheRates)
{
    make(1, oneTap(16, 32767));
    asrcSetRates(handle, 44100, 48000);
    size_t made = 0;
    size_t written = 0;
    while (written < 44100) {
        short* place = nullptr;
        unsigned int nFrames = std::min<unsigned int>(offered(&place), static_cast<unsigned int>(44100 - written));
        std::memset(place, 0, nFrames * sizeof(short));
        asrcWriteInFrames(handle, nFrames);
        written += nFrames;
        made += read(1000).size();
    }
    // 48000 ticks; the output fires on each, idle until the input clock has fired 144 times: ticks 1 to 157 or so.
    EXPECT_NEAR(static_cast<double>(made), 48000.0 - 144.0 * 48000.0 / 44100.0, 2.0);
}

// --- the steering

struct DepthCase {
    unsigned int depth;
    unsigned int leapticks;
};

class AsrcSteering : public AsrcTest, public testing::WithParamInterface<DepthCase>
{
};

TEST_P(AsrcSteering, CorrectionIsTheDepthsDistanceAsAnUnsignedByte)
{
    asrcObject& object = make(1, oneTap(16, 32767));
    asrcSetRates(handle, 44100, 48000);
    object.UseInput = 1;
    object.leapticks = 77;
    object.IRead = 0x123456;
    object.IWrite = (0x12 + GetParam().depth) % 256;
    object.ILoadWrite = (object.IWrite + 1) % 256;
    short out = 0;
    ASSERT_EQ(asrcReadOutFrames(handle, &out, 1), 1u);
    EXPECT_EQ(object.leapticks, GetParam().leapticks);
    EXPECT_EQ(object.IRead, 0x123456u + 60211u + GetParam().leapticks);
}

INSTANTIATE_TEST_SUITE_P(Depths, AsrcSteering,
                         testing::Values(DepthCase{142, 0}, DepthCase{144, 0}, DepthCase{146, 0}, DepthCase{147, 3},
                                         DepthCase{255, 111},
                                         // below 142 the reader does not slow down: it leaps
                                         DepthCase{141, 253}, DepthCase{140, 252}, DepthCase{100, 212},
                                         DepthCase{32, 144}));

TEST_F(AsrcTest, TheReadPositionWrapsAt24Bits)
{
    asrcObject& object = make(1, oneTap(16, 32767));
    asrcSetRates(handle, 48000, 48000);
    object.UseInput = 1;
    object.IRead = 0xFF8000;
    object.IWrite = (0xFF + 144) % 256;
    object.ILoadWrite = (object.IWrite + 1) % 256;
    short out = 0;
    ASSERT_EQ(asrcReadOutFrames(handle, &out, 1), 1u);
    EXPECT_EQ(object.IRead, 0x008000u);
}

// --- making a frame, with every kernel

class AsrcFrame : public AsrcTest, public testing::WithParamInterface<const asrcKernel*>
{
protected:
    /** A running converter at equal rates, 255 frames loaded, about to read at `iRead` with a depth of 144. */
    asrcObject& ready(unsigned int nChannels, Samples table, uint32_t iRead)
    {
        asrcObject& object = make(nChannels, std::move(table));
        asrcUseKernel(handle, *GetParam());
        asrcSetRates(handle, 48000, 48000);
        write(255, 1);
        object.UseInput = 1;
        object.IRead = iRead;
        object.IWrite = ((iRead >> 16) + 144) % 256;
        return object;
    }
};

std::vector<const asrcKernel*> availableKernels()
{
    std::vector<const asrcKernel*> kernels = {&asrcKernelPlain};
    for (const asrcKernel* kernel : {asrcKernelSse2(), asrcKernelAvx2(), asrcKernelNeon()})
        if (kernel)
            kernels.push_back(kernel);
    return kernels;
}

INSTANTIATE_TEST_SUITE_P(Kernels, AsrcFrame, testing::ValuesIn(availableKernels()),
                         [](const auto& test) { return std::string(test.param->name); });

TEST_P(AsrcFrame, TheOldestFrameMeetsTheLastTap)
{
    ready(2, oneTap(31, 16384), 5u << 16);
    // frame 5 holds 6 and -6: 6 x 16384 >> 15 = 3, and -6 gives -3
    EXPECT_EQ(read(1), (Samples{3, -3}));
}

TEST_P(AsrcFrame, TheNewestFrameMeetsTheFirstTap)
{
    ready(2, oneTap(0, 16384), 5u << 16);
    // frame 36 holds 37: 37 x 16384 >> 15 = 18, and -37 floors to -19
    EXPECT_EQ(read(1), (Samples{18, -19}));
}

TEST_P(AsrcFrame, AWindowAcrossTheRingsEndReadsTheMirror)
{
    asrcObject& object = ready(1, oneTap(0, 16384), 250u << 16);
    object.InputBuffer[256 + 25] = 0; // the newest frame of the window is frame 281: the mirror of frame 25
    EXPECT_EQ(read(1), (Samples{0}));
    ready(1, oneTap(0, 16384), 250u << 16);
    EXPECT_EQ(read(1), (Samples{13})); // 26 x 16384 >> 15
}

TEST_P(AsrcFrame, PhasesAreInterpolatedTruncatingTowardsZero)
{
    Samples table(8192);
    table[3 * 256 + 7] = 100;
    table[3 * 256 + 8] = -101;
    table[4 * 256 + 7] = -3;
    table[4 * 256 + 8] = -4;
    const asrcObject& object = ready(2, table, (9u << 16) | 0x0740); // phase 7, weight 64 of 256
    read(1);
    EXPECT_EQ(object.FilterBuffer[3], 49); // (192 x 100 - 64 x 101) / 256 = 49.75
    EXPECT_EQ(object.FilterBuffer[4], -3); // -832 / 256 = -3.25, not -4
    EXPECT_EQ(object.FilterBuffer[5], 0);
}

TEST_P(AsrcFrame, NegativeWholeResultsStayWhole)
{
    Samples table(8192);
    table[4 * 256 + 7] = -8;
    table[4 * 256 + 8] = -4;
    const asrcObject& object = ready(1, table, (9u << 16) | 0x0740);
    read(1);
    EXPECT_EQ(object.FilterBuffer[4], -7); // -1792 / 256 exactly
}

TEST_P(AsrcFrame, TheLastTapsLastNeighbourIsCoefficientZero)
{
    Samples table(8192);
    table[0] = 25600;
    const asrcObject& object = ready(1, table, (9u << 16) | 0xFFFF); // phase 255, weight 255
    read(1);
    EXPECT_EQ(object.FilterBuffer[31], 25500); // 255 x 25600 / 256
    EXPECT_EQ(object.FilterBuffer[0], 0);
}

TEST_P(AsrcFrame, TheEndOfATapsPhasesIsTheNextTap)
{
    Samples table(8192);
    table[256] = 512;
    const asrcObject& object = ready(1, table, (9u << 16) | 0xFF80); // phase 255, weight 128
    read(1);
    EXPECT_EQ(object.FilterBuffer[0], 256);
    EXPECT_EQ(object.FilterBuffer[1], 0);
}

TEST_P(AsrcFrame, AnOutputBeyond16BitsWraps)
{
    make(2, [] {
        Samples table = oneTap(10, 32767);
        for (unsigned int q = 0; q < 256; ++q)
            table[11 * 256 + q] = 32767;
        return table;
    }());
    asrcUseKernel(handle, *GetParam());
    asrcSetRates(handle, 48000, 48000);
    writeConstant(150, 20000);
    const Samples out = read(1);
    // 2 x 20000 x 32767 = 1310680000, >> 15 = 39998, - 65536 = -25538
    EXPECT_EQ(out, (Samples{-25538, -25538}));
}

TEST_P(AsrcFrame, ASumBeyond32BitsWraps)
{
    make(1, Samples(8192, -32768));
    asrcUseKernel(handle, *GetParam());
    asrcSetRates(handle, 48000, 48000);
    writeConstant(150, -32768);
    EXPECT_EQ(read(1), (Samples{0})); // 32 x 2^30 is a multiple of 2^32
}

TEST_P(AsrcFrame, AFilterOfSteepStepsIsInterpolatedAllTheSame)
{
    Samples table(8192);
    table[4 * 256 + 7] = -32768;
    table[4 * 256 + 8] = 32767;
    const asrcObject& object = ready(2, table, (9u << 16) | 0x0740);
    read(1);
    EXPECT_EQ(object.FilterBuffer[4], -16384); // (192 x -32768 + 64 x 32767) / 256 = -16384.25
}

TEST_P(AsrcFrame, StepsAroundTheLimitOf16BitInterpolationAreExact)
{
    Samples table(8192);
    table[4 * 256 + 7] = -8000;
    table[5 * 256 + 7] = 8000;
    for (const int step : {16383, 16384}) {
        table[4 * 256 + 8] = static_cast<int16_t>(-8000 + step);
        table[5 * 256 + 8] = static_cast<int16_t>(8000 - step);
        const asrcObject& object = ready(2, table, (9u << 16) | 0x0740);
        read(1);
        // 16383: -8000 + 64 x 16383 / 256 = -3904.25; 16384: -3904 exactly
        EXPECT_EQ(object.FilterBuffer[4], -3904) << step;
        EXPECT_EQ(object.FilterBuffer[5], 3904) << step;
    }
}

TEST_P(AsrcFrame, NoAllocationOnceTheFilterIsStored)
{
    make(2, oneTap(16, 32767));
    asrcUseKernel(handle, *GetParam());
    short in[512] = {};
    short out[512] = {};
    const unsigned int before = allocationCount;
    for (int i = 0; i < 3000; ++i) {
        asrcSetRates(handle, 44100, static_cast<unsigned int>(48000 + i % 40));
        short* place = nullptr;
        unsigned int nFrames = 0;
        asrcReqInFrameBuffer(handle, &place, &nFrames);
        std::memcpy(place, in, nFrames * 2 * sizeof(short));
        asrcWriteInFrames(handle, nFrames);
        asrcReadOutFrames(handle, out, 256);
    }
    EXPECT_EQ(allocationCount, before);
}

TEST(AsrcRecord, StaysBelow64KibibytesWithItsBuffers)
{
    const size_t buffers = 2 * (2 * kAsrcRingAndMirror + kAsrcTaps + kAsrcCoefficients);
    EXPECT_LE(sizeof(asrcObject) + buffers, size_t{65536});
}

TEST(AsrcKernels, TheBestOneIsAvailable)
{
    const asrcKernel& best = asrcBestKernel();
    EXPECT_EQ(&best, availableKernels().back());
    EXPECT_NE(std::string(best.name), "");
}

TEST(AsrcHandles, AreIndependent)
{
    asrcConfig config{1};
    asrcHandle a = asrcInit(&config);
    asrcHandle b = asrcInit(&config);
    asrcSetRates(a, 44100, 48000);
    EXPECT_EQ(static_cast<asrcObject*>(b)->outputFreq, 44100);
    EXPECT_EQ(asrcDestroy(a), ASRC_OK);
    EXPECT_EQ(asrcDestroy(b), ASRC_OK);
}

} // namespace
