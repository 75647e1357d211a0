#include "audioLibrary/audioTrace.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

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
    timeval before{};
    gettimeofday(&before, nullptr);
    const std::string line = printedBy([&] { object.say(2, 17); });
    timeval after{};
    gettimeofday(&after, nullptr);

    ASSERT_THAT(line, testing::MatchesRegex("[0-9]{10}\\.[0-9]{6} \\(2\\): number 17\n"));
    const long long micros = std::stoll(line.substr(0, 10)) * 1000000 + std::stoll(line.substr(11, 6));
    EXPECT_GE(micros, before.tv_sec * 1000000LL + before.tv_usec);
    EXPECT_LE(micros, after.tv_sec * 1000000LL + after.tv_usec);
}

TEST(AudioTrace, APutsLineGetsItsLineEnd)
{
    int level = 0;
    Traced object{&level};
    const std::string line = printedBy([&] { object.sayText(0); });
    EXPECT_THAT(line, testing::MatchesRegex("[0-9]{10}\\.[0-9]{6} \\(0\\): a text\n"));
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
