#include "settings.h"

#include <gtest/gtest.h>

using vcard::Settings;

TEST(Settings, CardFileNameTellsCardDeviceAndDirection)
{
    Settings settings;
    EXPECT_EQ(settings.fileName(false), "0-0-playback");
    EXPECT_TRUE(settings.set("card", "Axia"));
    EXPECT_TRUE(settings.set("device", "3"));
    EXPECT_EQ(settings.fileName(true), "Axia-3-capture");
}

TEST(Settings, EmptyTextKeepsTheDefault)
{
    Settings settings;
    for (const char* key : {"ppm", "forgiveMs", "gap", "rates", "formats", "periods", "faults", "recordLimitBytes"})
        EXPECT_TRUE(settings.set(key, "")) << key;
    EXPECT_EQ(settings.forgiveMs, 40.0);
    EXPECT_EQ(settings.rates, std::vector<unsigned>{48000});
    EXPECT_TRUE(settings.gapSilence);
}

TEST(Settings, NumbersAreReadWhole)
{
    Settings settings;
    EXPECT_TRUE(settings.set("ppm", "-375"));
    EXPECT_EQ(settings.ppm, -375.0);
    EXPECT_TRUE(settings.set("ppm", "+0.5"));
    EXPECT_EQ(settings.ppm, 0.5);
    EXPECT_FALSE(settings.set("ppm", "0,5"));
    EXPECT_FALSE(settings.set("ppm", "12x"));
    EXPECT_FALSE(settings.set("ppm", "nan"));
    EXPECT_FALSE(settings.set("ppm", "-1000000"));
    EXPECT_EQ(settings.ppm, 0.5);
}

TEST(Settings, RangesAndLists)
{
    Settings settings;
    EXPECT_TRUE(settings.set("periods", "2:8"));
    EXPECT_EQ(settings.periods.least, 2U);
    EXPECT_EQ(settings.periods.most, 8U);
    EXPECT_TRUE(settings.set("channels", "6"));
    EXPECT_EQ(settings.channels.least, 6U);
    EXPECT_EQ(settings.channels.most, 6U);
    EXPECT_TRUE(settings.set("rates", "44100 96000"));
    EXPECT_EQ(settings.rates, (std::vector<unsigned>{44100, 96000}));
    EXPECT_TRUE(settings.set("formats", "S16_LE"));
    EXPECT_EQ(settings.formats, std::vector<std::string>{"S16_LE"});
}

TEST(Settings, NonsenseIsRefused)
{
    Settings settings;
    EXPECT_FALSE(settings.set("noSuchKey", "1"));
    EXPECT_FALSE(settings.set("periods", "0"));
    EXPECT_FALSE(settings.set("periods", "2:"));
    EXPECT_FALSE(settings.set("rates", "0"));
    EXPECT_FALSE(settings.set("formats", "FLOAT_LE"));
    EXPECT_FALSE(settings.set("gap", "maybe"));
    EXPECT_FALSE(settings.set("device", "-1"));
    EXPECT_FALSE(settings.set("faults", "explode"));
}

TEST(Settings, CardNameStaysInsideTheCardDirectory)
{
    Settings settings;
    EXPECT_FALSE(settings.set("card", "../0"));
    EXPECT_FALSE(settings.set("card", ".."));
    EXPECT_EQ(settings.card, "0");
}
