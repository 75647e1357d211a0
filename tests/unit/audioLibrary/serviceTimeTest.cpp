#include "audioLibrary/serviceTime.h"

#include <gtest/gtest.h>

#include <ctime>
#include <string>

namespace
{

using namespace audioLibrarySpace;

CServiceTime at(int32_t seconds, int32_t nanoseconds)
{
    CServiceTime time;
    time.nextServiceTime = {seconds, nanoseconds};
    return time;
}

CServiceTime immediate(CServiceTime time)
{
    time.immediateService = true;
    return time;
}

CServiceTime required(CServiceTime time)
{
    time.serviceRequired = true;
    return time;
}

void expectTime(const CServiceTime& time, int32_t seconds, int32_t nanoseconds)
{
    EXPECT_EQ(time.nextServiceTime.tv_sec, seconds);
    EXPECT_EQ(time.nextServiceTime.tv_nsec, nanoseconds);
}

TEST(ServiceTime, StartsAtZeroWithoutFlags)
{
    const CServiceTime time;
    EXPECT_FALSE(time.immediateService);
    EXPECT_FALSE(time.serviceRequired);
    expectTime(time, 0, 0);
}

TEST(ServiceTime, CurrentTimeIsTheMonotonicClock)
{
    timespec before{};
    clock_gettime(CLOCK_MONOTONIC, &before);
    CServiceTime time;
    EXPECT_EQ(time.setCurrentTime(), STREAM_OK);
    timespec after{};
    clock_gettime(CLOCK_MONOTONIC, &after);

    const int64_t got = time.nextServiceTime.tv_sec * INT64_C(1000000000) + time.nextServiceTime.tv_nsec;
    EXPECT_GE(got, before.tv_sec * INT64_C(1000000000) + before.tv_nsec);
    EXPECT_LE(got, after.tv_sec * INT64_C(1000000000) + after.tv_nsec);
}

TEST(ServiceTime, CurrentTimeLeavesTheFlags)
{
    CServiceTime time = immediate(required(at(0, 0)));
    time.setCurrentTime();
    EXPECT_TRUE(time.immediateService);
    EXPECT_TRUE(time.serviceRequired);
}

TEST(ServiceTime, AnotherClockCanBeSetAndTakenBack)
{
    setClockSource([] { return monotonicTime{17, 23}; });
    CServiceTime time;
    time.setCurrentTime();
    expectTime(time, 17, 23);

    setClockSource(nullptr);
    timespec before{};
    clock_gettime(CLOCK_MONOTONIC, &before);
    time.setCurrentTime();
    EXPECT_GE(time.nextServiceTime.tv_sec, before.tv_sec);
}

TEST(ServiceTime, NeverIsTheLastSecondWithoutFlags)
{
    CServiceTime time = immediate(required(at(5, 6)));
    time.setNeverService();
    EXPECT_FALSE(time.immediateService);
    EXPECT_FALSE(time.serviceRequired);
    expectTime(time, 2147483647, 0);
}

TEST(ServiceTime, NeverIsLaterThanNow)
{
    CServiceTime never;
    never.setNeverService();
    CServiceTime now;
    now.setCurrentTime();
    EXPECT_FALSE(never < now);
    EXPECT_TRUE(now < never);
}

TEST(ServiceTime, AssignmentCopiesAllFields)
{
    const CServiceTime original = immediate(required(at(5, 6)));
    CServiceTime copy;
    copy = original;
    EXPECT_TRUE(copy.immediateService);
    EXPECT_TRUE(copy.serviceRequired);
    expectTime(copy, 5, 6);
}

TEST(ServiceTime, AdditionCarriesIntoTheSeconds)
{
    expectTime(at(10, 999999999) + 500000000, 11, 499999999);
    expectTime(at(10, 700000000) + 500000000, 11, 200000000);
    expectTime(at(10, 499999999) + 500000000, 10, 999999999);
    expectTime(at(10, 500000000) + 500000000, 11, 0);
    expectTime(at(10, 0) + 2100000000, 12, 100000000);
}

TEST(ServiceTime, AdditionKeepsTheFlagsAndTheOriginal)
{
    const CServiceTime original = immediate(required(at(1, 2)));
    const CServiceTime sum = original + 3;
    EXPECT_TRUE(sum.immediateService);
    EXPECT_TRUE(sum.serviceRequired);
    expectTime(sum, 1, 5);
    expectTime(original, 1, 2);
}

TEST(ServiceTime, ANegativeSumCutsTowardZero)
{
    // 100 - 1500000000 = -1499999900: -1 second and a remainder of -499999900
    expectTime(at(10, 100) + -1500000000, 9, -499999900);
}

TEST(ServiceTime, ASumBeyond32BitsWraps)
{
    // 999999999 + 2147483647 = 3147483646, less 2^32 = -1147483650: -1 second, remainder -147483650
    expectTime(at(10, 999999999) + 2147483647, 9, -147483650);
    // the seconds wrap too
    expectTime(at(2147483647, 999999999) + 1, -2147483647 - 1, 0);
}

TEST(ServiceTime, AdditionInPlaceIsTheSameSum)
{
    CServiceTime time = at(10, 999999999);
    CServiceTime& answer = (time += 500000000);
    EXPECT_EQ(&answer, &time);
    expectTime(time, 11, 499999999);
}

TEST(ServiceTime, DifferenceIsInNanoseconds)
{
    EXPECT_EQ(at(11, 100) - at(10, 999999900), 200);
    EXPECT_EQ(at(10, 999999900) - at(11, 100), -200);
    EXPECT_EQ(at(12, 147483647) - at(10, 0), 2147483647); // the widest that is right
}

TEST(ServiceTime, DifferenceOfThreeSecondsWrapsNegative)
{
    // 3000000000 - 2^32
    EXPECT_EQ(at(13, 0) - at(10, 0), -1294967296);
}

TEST(ServiceTime, DifferenceOfFiveSecondsWrapsPositive)
{
    // 5000000000 - 2^32
    EXPECT_EQ(at(15, 0) - at(10, 0), 705032704);
}

TEST(ServiceTime, DifferenceToAnImmediateTimeIsZero)
{
    EXPECT_EQ(at(13, 5) - immediate(at(10, 0)), 0);
    EXPECT_EQ(immediate(at(13, 5)) - immediate(at(10, 0)), 0);
    EXPECT_EQ(immediate(at(11, 5)) - at(11, 0), 5); // the flag on the left plays no part
    EXPECT_EQ(at(11, 5) - required(at(11, 0)), 5);
}

TEST(ServiceTime, EarlierBySecondsThenNanoseconds)
{
    EXPECT_TRUE(at(10, 900) < at(11, 100));
    EXPECT_FALSE(at(11, 100) < at(10, 900));
    EXPECT_TRUE(at(10, 100) < at(10, 101));
    EXPECT_FALSE(at(10, 101) < at(10, 100));
    EXPECT_FALSE(at(10, 100) < at(10, 100));
}

TEST(ServiceTime, ImmediateOnTheLeftIsAlwaysEarlier)
{
    CServiceTime never;
    never.setNeverService();
    EXPECT_TRUE(immediate(at(10, 0)) < never);
    EXPECT_TRUE(immediate(at(10, 0)) < at(5, 0));
    EXPECT_TRUE(immediate(at(10, 0)) < required(at(5, 0)));
    EXPECT_TRUE(immediate(at(10, 0)) < immediate(at(5, 0)));
}

TEST(ServiceTime, ImmediateOnTheRightIsNotLookedAt)
{
    EXPECT_TRUE(at(5, 0) < immediate(at(10, 0)));
    EXPECT_FALSE(at(15, 0) < immediate(at(10, 0)));
}

TEST(ServiceTime, RequiredBeatsAnyTimeWithoutTheFlag)
{
    EXPECT_TRUE(required(at(10, 0)) < at(5, 0));
    EXPECT_FALSE(at(5, 0) < required(at(10, 0)));
    EXPECT_TRUE(required(at(5, 0)) < required(at(10, 0)));
    EXPECT_FALSE(required(at(10, 0)) < required(at(5, 0)));
}

TEST(ServiceTime, EqualityIsOfAllThreeFields)
{
    EXPECT_TRUE(at(1, 2) == at(1, 2));
    EXPECT_FALSE(at(1, 2) == at(1, 3));
    EXPECT_FALSE(at(1, 2) == at(2, 2));
    EXPECT_FALSE(at(1, 2) == immediate(at(1, 2)));
    EXPECT_FALSE(at(1, 2) == required(at(1, 2)));
}

TEST(ServiceTime, TextShowsTheTimeAndTheFlags)
{
    EXPECT_EQ(static_cast<std::string>(at(12, 5)), "12.000000005");
    EXPECT_EQ(static_cast<std::string>(immediate(required(at(12, 5)))), "12.000000005 immediate required");
}

} // namespace
