#include "audioLibrary/audioTrace.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

namespace
{

/** The time of day that a trace line reads. */
timeval timeOfDay{};

} // namespace

/** Stands in for the C library's, so that the test sets the time of day. */
extern "C" int gettimeofday(struct timeval* __restrict now, void* __restrict) noexcept
{
    *now = timeOfDay;
    return 0;
}

namespace
{

using namespace audioLibrarySpace;

/** An object of the library, as far as tracing goes. */
struct Traced {
    int* pTraceLevel;

    void say(int level, int number) { AUDIO_TRACE_PRINTF(level, "number %d\n", number); }
    void sayText(int level) { AUDIO_TRACE_PUTS(level, "a text"); }
    void enter() { AUDIO_TRACE_CALL(); }
    void sayCounted(int level, int& evaluations) { AUDIO_TRACE_PRINTF(level, "%d\n", ++evaluations); }
};

template <typename Action> std::string printedBy(Action action)
{
    testing::internal::CaptureStdout();
    action();
    return testing::internal::GetCapturedStdout();
}

TEST(AudioTrace, TheCommonLevelIsZeroAtStart)
{
    EXPECT_EQ(audioInterfaceTraceLevel, 0);
}

TEST(AudioTrace, ALineHasTheTimeAndItsLevelInFront)
{
    int level = 3;
    Traced object{&level};
    timeOfDay = {1340118208, 987654};
    EXPECT_EQ(printedBy([&] { object.say(2, 17); }), "1340118208.987654 (2): number 17\n");
    timeOfDay = {2147483647, 0};
    EXPECT_EQ(printedBy([&] { object.say(3, 17); }), "2147483647.000000 (3): number 17\n");
    timeOfDay = {1234567, 42};
    EXPECT_EQ(printedBy([&] { object.say(2, 17); }), " 1234567.000042 (2): number 17\n");
}

TEST(AudioTrace, APutsLineGetsItsLineEnd)
{
    int level = 0;
    Traced object{&level};
    timeOfDay = {12345678, 7};
    EXPECT_EQ(printedBy([&] { object.sayText(0); }), "12345678.000007 (0): a text\n");
}

TEST(AudioTrace, ALinePrintsFromItsLevelUp)
{
    int level = 4;
    Traced object{&level};
    EXPECT_EQ(printedBy([&] { object.say(5, 1); }), "");
    EXPECT_EQ(printedBy([&] { object.sayText(5); }), "");
    EXPECT_NE(printedBy([&] { object.say(4, 1); }), "");
    EXPECT_NE(printedBy([&] { object.sayText(4); }), "");
    EXPECT_NE(printedBy([&] { object.say(3, 1); }), "");
}

TEST(AudioTrace, LevelZeroIsSilentOnlyBelowZero)
{
    int level = 0;
    Traced object{&level};
    EXPECT_NE(printedBy([&] { object.say(0, 1); }), "");
    level = -1;
    EXPECT_EQ(printedBy([&] { object.say(0, 1); }), "");
    EXPECT_EQ(printedBy([&] { object.sayText(0); }), "");
}

TEST(AudioTrace, TheFunctionsFilterByThemselvesToo)
{
    int level = 1;
    EXPECT_EQ(printedBy([&] { tracePrintf(&level, 2, "signature", "x\n"); }), "");
    EXPECT_EQ(printedBy([&] { tracePuts(&level, 2, "signature", "x"); }), "");
}

TEST(AudioTrace, WithoutALevelPointerTheSignatureIsPrintedInstead)
{
    Traced object{nullptr};
    EXPECT_EQ(printedBy([&] { object.say(9, 1); }),
              "pTraceLevel not defined: void {anonymous}::Traced::say(int, int)\n");
    EXPECT_EQ(printedBy([&] { object.sayText(9); }),
              "pTraceLevel not defined: void {anonymous}::Traced::sayText(int)\n");
    EXPECT_EQ(printedBy([&] { object.enter(); }), "pTraceLevel not defined: void {anonymous}::Traced::enter()\n");
}

TEST(AudioTrace, TheCallTraceIsTheSignatureAtLevelNine)
{
    int level = 8;
    Traced object{&level};
    EXPECT_EQ(printedBy([&] { object.enter(); }), "");
    level = 9;
    const std::string line = printedBy([&] { object.enter(); });
    EXPECT_EQ(line.substr(line.find('(')), "(9): void {anonymous}::Traced::enter()\n");
}

TEST(AudioTrace, ASilentLineEvaluatesNothing)
{
    int level = 0;
    Traced object{&level};
    int evaluations = 0;
    object.sayCounted(1, evaluations);
    EXPECT_EQ(evaluations, 0);
    printedBy([&] { object.sayCounted(0, evaluations); });
    EXPECT_EQ(evaluations, 1);
}

/** Bytes that reached a file in the place of stdout by the time `action` returned, before any other flush. */
template <typename Action> off_t bytesFlushedBy(Action action)
{
    fflush(stdout);
    FILE* file = tmpfile();
    const int saved = dup(STDOUT_FILENO);
    dup2(fileno(file), STDOUT_FILENO);
    action();
    struct stat written {
    };
    fstat(fileno(file), &written);
    fflush(stdout);
    dup2(saved, STDOUT_FILENO);
    close(saved);
    fclose(file);
    return written.st_size;
}

TEST(AudioTrace, ALineIsFlushedAtOnce)
{
    int level = 0;
    // No line end, so that a line-buffered stream does not flush by itself.
    EXPECT_GT(bytesFlushedBy([&] { tracePrintf(&level, 0, "signature", "unfinished"); }), 0);
    EXPECT_GT(bytesFlushedBy([&] { tracePuts(&level, 0, "signature", "whole"); }), 0);
}

} // namespace
