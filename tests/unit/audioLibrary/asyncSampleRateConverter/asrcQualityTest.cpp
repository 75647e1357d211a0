// asrcQualityTest: the filter table and the sound of the complete converter. The figures follow from integers and do
// not depend on the machine; the limits leave a few tenths of a decibel.
#include "asrcMeasure.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <numeric>
#include <string>

namespace
{

std::vector<int16_t> builtTable()
{
    return readFilterTable(ASRC_FILTER_TABLE);
}

ToneFigures tone(unsigned int hertz)
{
    testing::internal::CaptureStdout(); // the converter announces itself
    const ToneFigures figures = measureTone(builtTable(), 44100, 48000, hertz, -1.0);
    testing::internal::GetCapturedStdout();
    return figures;
}

void expectPhaseSums(const std::vector<int16_t>& table, int sum)
{
    ASSERT_EQ(table.size(), 8192u);
    for (unsigned int q = 0; q < 256; ++q) {
        int total = 0;
        for (unsigned int k = 0; k < 32; ++k)
            total += table[k * 256 + q];
        ASSERT_EQ(total, sum) << "phase " << q;
    }
}

TEST(FilterTable, TheBuiltOneEqualsTheKeptOne)
{
    ASSERT_EQ(builtTable().size(), 8192u);
    EXPECT_EQ(builtTable(), readFilterTable(ASRC_KEPT_FILTER_TABLE));
}

TEST(FilterTable, EveryPhaseSumsToUnityLess16)
{
    expectPhaseSums(builtTable(), 32752);
}

TEST(FilterTable, TheCentreIsTheLargestAndTheTableIsNearlyEven)
{
    const std::vector<int16_t> table = builtTable();
    ASSERT_EQ(table.size(), 8192u);
    for (unsigned int i = 1; i < 8192; ++i) {
        EXPECT_LE(table[i], table[4096] + 2) << i;
        EXPECT_NEAR(table[i], table[8192 - i], 6) << i; // rounding for less noise is not symmetrical
    }
}

#ifdef ASRC_FILTER_DESIGN
TEST(FilterTable, HeadroomTableSumsToItsGain)
{
    const std::string file = testing::TempDir() + "filterTableHeadroom.bin";
    const std::string command = std::string(ASRC_FILTER_DESIGN) + " --gain -1.5 --output '" + file + "'";
    ASSERT_EQ(std::system(command.c_str()), 0);
    expectPhaseSums(readFilterTable(file), 27557); // 32752 x 10^(-1.5 / 20) = 27557.3
    std::remove(file.c_str());
}

TEST(FilterTable, GainAboveUnityIsRefused)
{
    const std::string command = std::string(ASRC_FILTER_DESIGN) + " --gain 1 --output /dev/null 2>/dev/null";
    EXPECT_NE(std::system(command.c_str()), 0);
}
#endif

TEST(AsrcQuality, DistortionAndNoise)
{
    EXPECT_LE(tone(997).noiseDb, -86.0);
    for (const unsigned int hertz : {100u, 3001u, 5003u, 10007u, 15013u})
        EXPECT_LE(tone(hertz).noiseDb, -84.0) << hertz;
}

TEST(AsrcQuality, PassBandIsFlatToSixteenKilohertz)
{
    const double reference = tone(997).levelDb;
    EXPECT_NEAR(reference, -0.004, 0.005); // unity is 32752 / 32768
    for (const unsigned int hertz : {20u, 100u, 3001u, 5003u, 10007u, 15013u, 16001u})
        EXPECT_NEAR(tone(hertz).levelDb, reference, 0.005) << hertz;
    EXPECT_GE(tone(18013).levelDb, -0.03);
    EXPECT_GE(tone(19001).levelDb, -0.5);
}

TEST(AsrcQuality, ImagesAreSuppressed)
{
    for (const unsigned int hertz : {997u, 5003u, 10007u, 15013u})
        EXPECT_LE(tone(hertz).worstImageDb, -95.0) << hertz;
    EXPECT_LE(tone(18013).worstImageDb, -79.0);
}

TEST(AsrcQuality, FullScaleSinesDoNotWrap)
{
    testing::internal::CaptureStdout();
    const std::vector<int16_t> table = builtTable();
    for (unsigned int hertz = 20; hertz <= 20000; hertz += 666) {
        EXPECT_LT(largestDeviation(table, 44100, 48000, hertz), 1000.0) << hertz;
        EXPECT_LT(largestDeviation(table, 48000, 47982, hertz), 1000.0) << hertz;
    }
    testing::internal::GetCapturedStdout();
}

} // namespace
