#include "eventLog.h"

#include "temporaryDirectory.h"

#include <cerrno>
#include <gtest/gtest.h>

using vcard::EventLog;

TEST(EventLog, LineHasTimeCardAndText)
{
    TemporaryDirectory directory;
    EventLog log;
    ASSERT_EQ(log.open(directory.file("log"), "0-0-playback"), 0);
    log.write(12000000034, "gap frames=%d", 7);
    EXPECT_EQ(directory.content("log"), "12.000000034 0-0-playback gap frames=7\n");
}

TEST(EventLog, AppendsToWhatOthersWrote)
{
    TemporaryDirectory directory;
    directory.write("log", "first\n");
    EventLog log;
    ASSERT_EQ(log.open(directory.file("log"), "c"), 0);
    log.write(0, "second");
    EXPECT_EQ(directory.content("log"), "first\n0.000000000 c second\n");
}

TEST(EventLog, LongLineIsCutAndStillEnds)
{
    TemporaryDirectory directory;
    EventLog log;
    ASSERT_EQ(log.open(directory.file("log"), "c"), 0);
    log.write(0, "%s", std::string(2000, 'x').c_str());
    const std::string line = directory.content("log");
    EXPECT_EQ(line.size(), 501U);
    EXPECT_EQ(line.substr(498), "xx\n");
}

TEST(EventLog, WithoutAFileNothingHappens)
{
    EventLog log;
    log.write(0, "nowhere");
    EXPECT_EQ(log.open("/nonexistent/directory/log", "c"), -ENOENT);
}
