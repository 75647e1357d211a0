#include "controlPage.h"

#include "temporaryDirectory.h"

#include <cerrno>
#include <cmath>
#include <gtest/gtest.h>
#include <limits>

using namespace vcard;

TEST(ControlPage, MissingFileIsNoCardUnlessItMayBeMade)
{
    TemporaryDirectory directory;
    ControlPage page;
    EXPECT_EQ(page.map(directory.file("0-0-playback"), false), -ENOENT);
    EXPECT_EQ(page.map(directory.file("0-0-playback"), true), 0);
    EXPECT_EQ(directory.content("0-0-playback").size(), pageBytes);
}

TEST(ControlPage, EmptyFileBecomesAPage)
{
    TemporaryDirectory directory;
    directory.write("card", "");
    ControlPage page;
    ASSERT_EQ(page.map(directory.file("card"), false), 0);
    const std::string bytes = directory.content("card");
    EXPECT_EQ(bytes.substr(0, 8), std::string("VCARDPG\0", 8));
    EXPECT_EQ(bytes[8], 1); // version
    EXPECT_EQ(page.requests().forgiveNs, -1);
    EXPECT_EQ(page.ppm(12.5), 12.5);
}

TEST(ControlPage, RequestsOutliveTheOpen)
{
    TemporaryDirectory directory;
    ControlPage page;
    ASSERT_EQ(page.map(directory.file("card"), true), 0);
    page.requests().gone = 1;
    page.requestPpm(-375.0);
    page.unmap();
    ASSERT_EQ(page.map(directory.file("card"), false), 0);
    EXPECT_EQ(page.requests().gone, 1);
    EXPECT_EQ(page.ppm(0.0), -375.0);
}

TEST(ControlPage, PageOfAnotherVersionIsMadeAnew)
{
    TemporaryDirectory directory;
    ControlPage page;
    ASSERT_EQ(page.map(directory.file("card"), true), 0);
    page.requests().gone = 1;
    page.unmap();
    std::string bytes = directory.content("card");
    bytes[8] = 99;
    directory.write("card", bytes);
    ASSERT_EQ(page.map(directory.file("card"), false), 0);
    EXPECT_EQ(page.requests().gone, 0);
}

TEST(ControlPage, NonsenseRatesAreIgnored)
{
    TemporaryDirectory directory;
    ControlPage page;
    ASSERT_EQ(page.map(directory.file("card"), true), 0);
    for (const double bad : {std::numeric_limits<double>::infinity(), -1e6, -2e9}) {
        page.requestPpm(bad);
        EXPECT_EQ(page.ppm(3.0), 3.0);
    }
}

TEST(ControlPage, SecondLockIsBusyUntilTheFirstIsGone)
{
    TemporaryDirectory directory;
    ControlPage first;
    ControlPage second;
    ASSERT_EQ(first.map(directory.file("card"), true), 0);
    ASSERT_EQ(second.map(directory.file("card"), false), 0);
    EXPECT_EQ(first.lock(), 0);
    EXPECT_EQ(second.lock(), -EBUSY);
    first.unmap();
    EXPECT_EQ(second.lock(), 0);
}

TEST(ControlPage, FaultSkipsThenRefusesThenPasses)
{
    TemporaryDirectory directory;
    ControlPage page;
    ASSERT_EQ(page.map(directory.file("card"), true), 0);
    FaultSlot& slot = page.requests().faults[static_cast<size_t>(Step::prepare)];
    slot.skip = 1;
    slot.error = EBUSY;
    slot.remaining = 2;
    int32_t error = 0;
    EXPECT_FALSE(page.takeFault(Step::prepare, error));
    EXPECT_FALSE(page.takeFault(Step::start, error));
    EXPECT_TRUE(page.takeFault(Step::prepare, error));
    EXPECT_EQ(error, EBUSY);
    EXPECT_TRUE(page.takeFault(Step::prepare, error));
    EXPECT_FALSE(page.takeFault(Step::prepare, error));
}

TEST(ControlPage, FaultForEverNeverEndsAndNeedsNoErrorNumber)
{
    TemporaryDirectory directory;
    ControlPage page;
    ASSERT_EQ(page.map(directory.file("card"), true), 0);
    page.requests().faults[static_cast<size_t>(Step::open)].remaining = -1;
    int32_t error = 0;
    for (int i = 0; i < 100; ++i)
        EXPECT_TRUE(page.takeFault(Step::open, error));
    EXPECT_EQ(error, EIO);
}

TEST(ControlPage, StatusIsReadAsWrittenUnderAnEvenSequence)
{
    TemporaryDirectory directory;
    ControlPage page;
    ASSERT_EQ(page.map(directory.file("card"), true), 0);
    PageStatus status;
    status.state = CardState::running;
    status.position = 1ULL << 40;
    status.rms[1] = 0.25;
    page.publish(status);
    EXPECT_EQ(page.status().state, CardState::running);
    EXPECT_EQ(page.status().position, 1ULL << 40);
    EXPECT_EQ(page.status().rms[1], 0.25);
    EXPECT_EQ(directory.content("card")[256], 2);
    page.publishRecordingPath(std::string(5000, 'p'));
    EXPECT_EQ(directory.content("card").substr(1024, 1024), std::string(1023, 'p') + '\0');
}
