#include "levelMeter.h"

#include <gtest/gtest.h>
#include <vector>

using vcard::LevelMeter;

TEST(LevelMeter, PeakAndRmsOfTheLastWholePeriod)
{
    LevelMeter meter;
    meter.configure(2, 2, 4);
    const std::vector<int16_t> frames = {16384, 0, -16384, 0, 16384, -32768, -16384, 0};
    meter.measure(reinterpret_cast<const char*>(frames.data()), 3);
    EXPECT_EQ(meter.peak(0), 0.0); // not yet a period
    meter.measure(reinterpret_cast<const char*>(frames.data() + 6), 1);
    EXPECT_DOUBLE_EQ(meter.peak(0), 0.5);
    EXPECT_DOUBLE_EQ(meter.rms(0), 0.5);
    EXPECT_DOUBLE_EQ(meter.peak(1), 1.0);
    EXPECT_DOUBLE_EQ(meter.rms(1), 0.5);
}

TEST(LevelMeter, ThirtyTwoBitFullScale)
{
    LevelMeter meter;
    meter.configure(1, 4, 1);
    const int32_t sample = INT32_MIN;
    meter.measure(reinterpret_cast<const char*>(&sample), 1);
    EXPECT_DOUBLE_EQ(meter.peak(0), 1.0);
    EXPECT_EQ(meter.peak(1), 0.0);
}

TEST(LevelMeter, SilenceClearsAndBeginsAPeriod)
{
    LevelMeter meter;
    meter.configure(1, 2, 2);
    const int16_t samples[] = {16384, 16384, 16384};
    meter.measure(reinterpret_cast<const char*>(samples), 3);
    meter.silence();
    EXPECT_EQ(meter.peak(0), 0.0);
    meter.measure(reinterpret_cast<const char*>(samples), 1);
    EXPECT_EQ(meter.peak(0), 0.0);
}
