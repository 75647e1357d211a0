/** The log, the date, the memory dump, thread creation and the globals' first values. */

#include "globals.h"

#include "audioLibrary/audioTrace.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits>
#include <optional>
#include <semaphore.h>
#include <string>
#include <vector>

using testing::MatchesRegex;
using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

namespace
{

std::optional<time_t> presentTime; // what the clock says, if not the truth
std::optional<int> threadAnswer;   // what the system says to a new thread, if it is not asked
std::atomic<int> numFormatted = 0; // calls of the formatting behind LogEvent

} // namespace

extern "C" {
time_t __real_time(time_t* out);
time_t __wrap_time(time_t* out)
{
    return presentTime ? *presentTime : __real_time(out);
}

int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*start)(void*), void* argument);
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*start)(void*), void* argument)
{
    return threadAnswer ? *threadAnswer : __real_pthread_create(thread, attr, start, argument);
}

struct tm* __real_localtime_r(const time_t* stamp, struct tm* result);
struct tm* __wrap_localtime_r(const time_t* stamp, struct tm* result)
{
    numFormatted++;
    return __real_localtime_r(stamp, result);
}
}

namespace
{

// Seconds of 2012-06-19 11:03:28 UTC: 15510 days (42 years, of them 10 leap, and 170 days) and 39808 s.
constexpr time_t aDate = 1340103808;

/** In UTC, at a known time, with every type enabled. */
class Log : public testing::Test
{
protected:
    void SetUp() override
    {
        setenv("TZ", "UTC", 1);
        tzset();
        presentTime = aDate;
        log_level = LOG_ALL;
    }
    void TearDown() override
    {
        presentTime.reset();
        log_level = LOG_ALL;
    }

    /** What a line of this type prints. */
    static std::string printed(int type)
    {
        CaptureStderr();
        LogEvent(type, "%s %d: text", "File.cpp", 7);
        return GetCapturedStderr();
    }
};

std::string dump(const std::vector<uint8_t>& bytes)
{
    CaptureStdout();
    hexdump(const_cast<uint8_t*>(bytes.data()), static_cast<unsigned int>(bytes.size()));
    return GetCapturedStdout();
}

/** The low 32 bits of an address, as the dump begins its lines. */
std::string addressText(const void* pointer)
{
    std::array<char, 9> text;
    snprintf(text.data(), text.size(), "%08x", static_cast<uint32_t>(reinterpret_cast<uintptr_t>(pointer)));
    return text.data();
}

} // namespace

// ---- first values

TEST(Globals, HaveTheirFirstValues)
{
    EXPECT_EQ(log_level, 2047);
    EXPECT_EQ(port_number, 7004);
    EXPECT_EQ(pTraceLevel, &audioLibrarySpace::audioInterfaceTraceLevel);
    EXPECT_EQ(*pTraceLevel, 0);
    EXPECT_EQ(serverInterfaceTraceLevel, 0);
    EXPECT_EQ(tracelevel, 8);
    EXPECT_EQ(audio_database, nullptr);
    EXPECT_EQ(audioService, nullptr);
    EXPECT_EQ(asPlayedLog, nullptr);
    EXPECT_EQ(api, nullptr);
}

TEST(LogTypes, EachHasItsBitAndItsLabel)
{
    EXPECT_STREQ(translate_log_level(1), "INFO");
    EXPECT_STREQ(translate_log_level(2), "ERROR");
    EXPECT_STREQ(translate_log_level(4), "REQ");
    EXPECT_STREQ(translate_log_level(8), "RES");
    EXPECT_STREQ(translate_log_level(16), "SERIAL");
    EXPECT_STREQ(translate_log_level(32), "BO");
    EXPECT_STREQ(translate_log_level(64), "SUB");
    EXPECT_STREQ(translate_log_level(128), "CONN");
    EXPECT_STREQ(translate_log_level(256), "SL");
    EXPECT_STREQ(translate_log_level(512), "SERIAL_RESP");
    EXPECT_STREQ(translate_log_level(1024), "DEBUG");
}

TEST(LogTypes, NumbersAreFixed)
{
    EXPECT_EQ(LOG_INFO, 1);
    EXPECT_EQ(LOG_ERROR, 2);
    EXPECT_EQ(LOG_REQ, 4);
    EXPECT_EQ(LOG_RES, 8);
    EXPECT_EQ(LOG_SERIAL, 16);
    EXPECT_EQ(LOG_BO, 32);
    EXPECT_EQ(LOG_SUB, 64);
    EXPECT_EQ(LOG_CONN, 128);
    EXPECT_EQ(LOG_SL, 256);
    EXPECT_EQ(LOG_SERIAL_RESP, 512);
    EXPECT_EQ(LOG_DEBUG, 1024);
    EXPECT_EQ(LOG_ALL, 2047);
    EXPECT_EQ(END_OF_LOG_TYPES, 2048);
}

TEST(LogTypes, MasksAndStrangersAreUnknown)
{
    EXPECT_STREQ(translate_log_level(LOG_ALL), "UNKNOWN");
    EXPECT_STREQ(translate_log_level(END_OF_LOG_TYPES), "UNKNOWN");
    EXPECT_STREQ(translate_log_level(3), "UNKNOWN");
    EXPECT_STREQ(translate_log_level(0), "UNKNOWN");
    EXPECT_STREQ(translate_log_level(-1), "UNKNOWN");
}

// ---- LogEvent

TEST_F(Log, LineIsDateTypeText)
{
    EXPECT_EQ(printed(LOG_DEBUG), "June 19, 2012 11:03:28 AM [DEBUG] File.cpp 7: text\n");
    EXPECT_EQ(printed(LOG_ERROR), "June 19, 2012 11:03:28 AM [ERROR] File.cpp 7: text\n");
    EXPECT_EQ(printed(LOG_INFO), "June 19, 2012 11:03:28 AM [INFO] File.cpp 7: text\n");
}

TEST_F(Log, LevelZeroPrintsAndFormatsNothing)
{
    log_level = 0;
    numFormatted = 0;
    for (int type : {LOG_INFO, LOG_ERROR, LOG_DEBUG, LOG_ALL}) {
        EXPECT_EQ(printed(type), "");
    }
    EXPECT_EQ(numFormatted, 0);
    log_level = LOG_ERROR;
    printed(LOG_ERROR);
    EXPECT_EQ(numFormatted, 1);
}

TEST_F(Log, LevelTwoPrintsFailuresOnly)
{
    log_level = 2;
    EXPECT_EQ(printed(LOG_ERROR), "June 19, 2012 11:03:28 AM [ERROR] File.cpp 7: text\n");
    EXPECT_EQ(printed(LOG_INFO), "");
    EXPECT_EQ(printed(LOG_DEBUG), "");
}

TEST_F(Log, MixedTypePassesByAnyBitAndIsUnknown)
{
    log_level = LOG_ERROR;
    EXPECT_EQ(printed(LOG_ERROR | LOG_DEBUG), "June 19, 2012 11:03:28 AM [UNKNOWN] File.cpp 7: text\n");
    EXPECT_EQ(printed(LOG_INFO | LOG_DEBUG), "");
}

TEST_F(Log, MessageIsCutAtItsBuffer)
{
    const std::string prefix = "June 19, 2012 11:03:28 AM [INFO] ";
    CaptureStderr();
    LogEvent(LOG_INFO, "%s", std::string(1023, 'a').c_str());
    EXPECT_EQ(GetCapturedStderr(), prefix + std::string(1023, 'a') + "\n");
    CaptureStderr();
    LogEvent(LOG_INFO, "%s", std::string(5000, 'b').c_str());
    EXPECT_EQ(GetCapturedStderr(), prefix + std::string(1023, 'b') + "\n");
}

TEST_F(Log, LineIsPrintedWithoutADateToo)
{
    presentTime = std::numeric_limits<time_t>::max(); // no year that fits an int
    EXPECT_THAT(printed(LOG_INFO),
                MatchesRegex("[^\n]+\nUnknown \\[INFO\\] File.cpp 7: text\n")); // perror's line first
}

// ---- GetDate

TEST_F(Log, DateIsLocalTimeOnATwelveHourClock)
{
    std::array<char, 50> text;
    GetDate(aDate + 3600, text.data(), 50);
    EXPECT_STREQ(text.data(), "June 19, 2012 12:03:28 PM");
    GetDate(0, text.data(), 50);
    EXPECT_STREQ(text.data(), "January 01, 1970 12:00:00 AM");
    setenv("TZ", "EST5", 1);
    tzset();
    GetDate(0, text.data(), 50);
    EXPECT_STREQ(text.data(), "December 31, 1969 07:00:00 PM");
}

TEST_F(Log, DateOutOfRangeIsUnknownWhateverTheLength)
{
    std::array<char, 9> text = {'x', 'x', 'x', 'x', 'x', 'x', 'x', 'x', 'x'};
    CaptureStderr();
    errno = 0;
    GetDate(std::numeric_limits<time_t>::max(), text.data(), 3);
    EXPECT_EQ(GetCapturedStderr(), "Value too large for defined data type\n");
    EXPECT_EQ(std::string(text.data()), "Unknown");
    EXPECT_EQ(text[8], 'x'); // eight bytes and no more
}

TEST_F(Log, DateThatDoesNotFitIsEmpty)
{
    std::array<char, 10> text = {'x', 'x', 'x', 'x', 'x', 'x', 'x', 'x', 'x', 'x'};
    GetDate(aDate, text.data(), 9);
    EXPECT_STREQ(text.data(), "");
    EXPECT_EQ(text[9], 'x');
}

// ---- hexdump

TEST(Hexdump, OfNothingIsOneLineWithEmptyColumns)
{
    int here = 0;
    CaptureStdout();
    hexdump(&here, 0);
    EXPECT_EQ(GetCapturedStdout(),
              addressText(&here) + ": " + std::string(48, ' ') + " | " + std::string(16, ' ') + "\n");
}

TEST(Hexdump, SixteenBytesAreOneLine)
{
    const std::vector<uint8_t> bytes = {'A', 'B', 'C', 'D', 'E', 'F', 'G', 'H', 'I', 'J', 'K', 'L', 'M', 'N', 'O', 'P'};
    EXPECT_EQ(dump(bytes),
              addressText(bytes.data()) + ":  41 42 43 44 45 46 47 48 49 4a 4b 4c 4d 4e 4f 50 | ABCDEFGHIJKLMNOP\n");
}

TEST(Hexdump, SeventeenthByteStartsAPaddedLine)
{
    const std::vector<uint8_t> bytes(17, '7');
    EXPECT_EQ(dump(bytes), addressText(bytes.data()) +
                               ":  37 37 37 37 37 37 37 37 37 37 37 37 37 37 37 37 | 7777777777777777\n" +
                               addressText(bytes.data() + 16) + ":  37" + std::string(45, ' ') + " | 7" +
                               std::string(15, ' ') + "\n");
}

TEST(Hexdump, OnlyGraphicBytesPrintAsThemselves)
{
    const std::vector<uint8_t> bytes = {0x20, 0x21, 0x7e, 0x7f, 0x00, 0x0a, 0x80, 0xff};
    EXPECT_EQ(dump(bytes), addressText(bytes.data()) + ":  20 21 7e 7f 00 0a 80 ff" + std::string(24, ' ') +
                               " | .!~....." + std::string(8, ' ') + "\n");
}

// ---- create_thread

namespace
{

/** What a new thread sees, and a way to wait for it: a detached thread can't be joined. */
struct Witness {
    sem_t done;
    size_t stackBytes = 0;
    int detachState = -1;
    Witness() { sem_init(&done, 0, 0); }
    ~Witness() { sem_destroy(&done); }
    Witness(const Witness&) = delete;
    Witness& operator=(const Witness&) = delete;
};

void* witnessStart(void* data)
{
    auto* witness = static_cast<Witness*>(data);
    pthread_attr_t attr;
    pthread_getattr_np(pthread_self(), &attr);
    pthread_attr_getstacksize(&attr, &witness->stackBytes);
    pthread_attr_destroy(&attr);
    sem_post(&witness->done);
    return nullptr;
}

void* waitForGo(void* data)
{
    auto* go = static_cast<Witness*>(data);
    sem_wait(&go->done);
    return nullptr;
}

} // namespace

TEST_F(Log, ThreadIsStartedWithItsArgumentAndStack)
{
    static Witness witness;
    pthread_t thread;
    CaptureStderr();
    EXPECT_EQ(create_thread(&thread, witnessStart, &witness, "heartbeat", 400000), 0);
    sem_wait(&witness.done);
    EXPECT_THAT(GetCapturedStderr(),
                MatchesRegex("June 19, 2012 11:03:28 AM \\[INFO\\] globals.cpp [0-9]+: Spawned heartbeat thread\n"));
    EXPECT_GE(witness.stackBytes, 390000U); // the library may take a page of it
    EXPECT_LT(witness.stackBytes, 1000000U);
}

TEST_F(Log, ThreadIsDetached)
{
    static Witness go;
    pthread_t thread;
    CaptureStderr();
    create_thread(&thread, waitForGo, &go, nullptr, 100000);
    EXPECT_THAT(GetCapturedStderr(),
                MatchesRegex("June 19, 2012 11:03:28 AM \\[INFO\\] globals.cpp [0-9]+: Spawning anonymous thread\n"));
    pthread_attr_t attr;
    int detachState = -1;
    pthread_getattr_np(thread, &attr); // it is still waiting
    pthread_attr_getdetachstate(&attr, &detachState);
    pthread_attr_destroy(&attr);
    EXPECT_EQ(detachState, PTHREAD_CREATE_DETACHED);
    sem_post(&go.done);
}

using LogDeathTest = Log;

TEST_F(LogDeathTest, RefusedThreadWithANameEndsTheProcess)
{
    pthread_t thread;
    threadAnswer = EAGAIN;
    // sic: a number stands where the file's name belongs, and the text ends in a blank
    EXPECT_EXIT(create_thread(&thread, witnessStart, nullptr, "audio_manager", 400000), testing::ExitedWithCode(255),
                "^June 19, 2012 11:03:28 AM \\[ERROR\\] -?[0-9]+ [0-9]+: Unable to spawn audio_manager thread \n$");
    threadAnswer.reset();
}

TEST_F(LogDeathTest, RefusedAnonymousThreadEndsTheProcess)
{
    pthread_t thread;
    threadAnswer = EAGAIN;
    EXPECT_EXIT(create_thread(&thread, witnessStart, nullptr, nullptr, 400000), testing::ExitedWithCode(255),
                "^June 19, 2012 11:03:28 AM \\[ERROR\\] globals.cpp [0-9]+: Unable to Spawn anonymous thread\n$");
    threadAnswer.reset();
}
