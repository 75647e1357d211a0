#include "cardClock.h"

#include <gtest/gtest.h>

using vcard::CardClock;

namespace
{

constexpr int64_t second = 1000000000;
constexpr int64_t startNs = 7000 * second;

CardClock runningClock(double ppm)
{
    CardClock clock;
    clock.configure(48000.0, ppm);
    clock.start(startNs, 0.0);
    return clock;
}

} // namespace

TEST(CardClock, OneSecondAtNominalRateIs48000Frames)
{
    const CardClock clock = runningClock(0.0);
    EXPECT_EQ(clock.position(startNs), 0U);
    EXPECT_EQ(clock.position(startNs + second - 1), 47999U);
    EXPECT_EQ(clock.position(startNs + second), 48000U);
}

TEST(CardClock, Minus375PpmIs47982FramesASecond)
{
    const CardClock clock = runningClock(-375.0);
    EXPECT_DOUBLE_EQ(clock.trueHz(), 47982.0);
    EXPECT_EQ(clock.position(startNs + 400 * second), 400U * 47982U);
}

TEST(CardClock, PositionBeforeTheStartIsTheStart)
{
    const CardClock clock = runningClock(0.0);
    EXPECT_EQ(clock.position(startNs - second), 0U);
}

TEST(CardClock, TimeOfIsTheFirstNanosecondOfAFrame)
{
    const CardClock clock = runningClock(100.0);
    for (const uint64_t frames : {1ULL, 255ULL, 256ULL, 4608ULL, 48005ULL, 19201921ULL}) {
        const int64_t at = clock.timeOf(frames);
        EXPECT_GE(clock.position(at), frames);
        EXPECT_LT(clock.position(at - 25), frames); // a frame lasts 20833 ns, rounding far less than 25
    }
}

TEST(CardClock, ChangingPpmKeepsThePosition)
{
    CardClock clock = runningClock(0.0);
    clock.changePpm(startNs + second, 5000.0);
    EXPECT_EQ(clock.position(startNs + second), 48000U);
    EXPECT_EQ(clock.position(startNs + 2 * second), 48000U + 48240U);
}

TEST(CardClock, ManyChangesOfPpmLoseNoFraction)
{
    CardClock clock = runningClock(0.0);
    // 10 microseconds are 0.48 frames: cut to whole frames each time the clock would never move.
    for (int i = 1; i <= 1000; ++i)
        clock.changePpm(startNs + i * 10000, i % 2);
    EXPECT_EQ(clock.position(startNs + 1000 * 10000 + 1000), 480U);
}

TEST(CardClock, StalledClockStandsAndMakesNothingUp)
{
    CardClock clock = runningClock(0.0);
    clock.setStalled(startNs + second, true);
    EXPECT_EQ(clock.position(startNs + 5 * second), 48000U);
    EXPECT_EQ(clock.timeOf(48001), CardClock::never);
    clock.setStalled(startNs + 5 * second, false);
    EXPECT_EQ(clock.position(startNs + 6 * second), 96000U);
}

TEST(CardClock, PushedBackClockForgetsTheLateness)
{
    CardClock clock = runningClock(0.0);
    clock.pushBack(second / 2);
    EXPECT_EQ(clock.position(startNs + second), 24000U);
}

TEST(CardClock, StoppedClockKeepsItsPosition)
{
    CardClock clock = runningClock(0.0);
    clock.stop(startNs + second);
    EXPECT_FALSE(clock.running());
    EXPECT_EQ(clock.position(startNs + 9 * second), 48000U);
    EXPECT_EQ(clock.timeOf(48001), CardClock::never);
}

TEST(CardClock, TenDaysAreExact)
{
    const CardClock clock = runningClock(0.0);
    EXPECT_EQ(clock.position(startNs + 864000 * second), 864000ULL * 48000ULL);
}
