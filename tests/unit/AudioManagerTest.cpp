/**
 * The audio manager's thread on a scripted system: player, automation and console only write down that they were
 * called, and the system's calls answer what the test has laid out. The thread ends when the script does.
 */

#include "AudioManager.h"

#include "AudioService.h"
#include "AutomationAPI.h"
#include "ByteArray.h"
#include "console/console.h"
#include "console/consoleCommands.h"
#include "globals.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <optional>
#include <sched.h>
#include <string>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

using audioLibrarySpace::CServiceTime;
using audioLibrarySpace::monotonicTime;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::MatchesRegex;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace
{

using Bytes = std::vector<uint8_t>;

/** Thrown out of the scripted select when the passes laid out are over. */
struct EndOfScript {
};

/** One pass as the system plays it. */
struct Pass {
    bool readable = false;                            ///< select leaves the socket in the set
    Bytes datagram = {};                              ///< what recv gives, if `error` is 0
    int error = 0;                                    ///< errno with which recv fails
    std::optional<int> emptyWithErrno = std::nullopt; ///< recv answers 0, this errno left from before
};

/** What the system is to do, and all that was called meanwhile, in order. */
struct Script {
    std::vector<std::string> calls;
    std::deque<Pass> passes;
    Pass current;
    bool recording = false;

    PlayerStatus playerStatus = PLAYER_NOT_INITIALIZED;
    monotonicTime present = {100, 0};
    monotonicTime next = {100, 500000000};

    int socketAnswer = 0; ///< -1 refuses
    int bindAnswer = 0;
    int schedulerAnswer = 0;
    sockaddr_in bound = {};
    int fd = -1;
    bool nonBlocking = false;
    size_t receiveBytes = 0;
    int receiveFlags = -1;

    struct Command {
        void* context;
        std::string word;
        std::string help;
        void (*handler)(const void*, const char*);
    };
    std::vector<Command> commands;
};

Script script;

void note(const std::string& call)
{
    if (script.recording) {
        script.calls.push_back(call);
    }
}

monotonicTime scriptedClock()
{
    note("clock");
    return script.present;
}

} // namespace

// ---- the system

extern "C" {
int __real_socket(int domain, int type, int protocol);
int __wrap_socket(int domain, int type, int protocol)
{
    if (!script.recording) {
        return __real_socket(domain, type, protocol);
    }
    note("socket " + std::string(domain == AF_INET ? "inet" : "?") + (type == SOCK_DGRAM ? " dgram " : " ? ") +
         std::to_string(protocol));
    if (script.socketAnswer == 0) {
        script.fd = __real_socket(domain, type, protocol);
        return script.fd;
    }
    return script.socketAnswer;
}

int __wrap_bind(int, const struct sockaddr* address, socklen_t numBytes)
{
    EXPECT_EQ(numBytes, sizeof script.bound);
    memcpy(&script.bound, address, sizeof script.bound);
    note("bind");
    return script.bindAnswer;
}

int __wrap_sched_setscheduler(pid_t pid, int policy, const struct sched_param* param)
{
    note("scheduler " + std::to_string(pid) + (policy == SCHED_FIFO ? " fifo " : " ? ") +
         std::to_string(param->sched_priority));
    return script.schedulerAnswer;
}

int __real_fflush(FILE* stream);
int __wrap_fflush(FILE* stream)
{
    if (stream == stdout) {
        note("flush");
    }
    return __real_fflush(stream);
}

int __wrap_select(int numDescriptors, fd_set* readSet, fd_set* writeSet, fd_set* exceptSet, struct timeval* timeout)
{
    EXPECT_EQ(numDescriptors, script.fd + 1);
    EXPECT_TRUE(FD_ISSET(script.fd, readSet));
    EXPECT_EQ(writeSet, nullptr);
    EXPECT_EQ(exceptSet, nullptr);
    script.nonBlocking = (fcntl(script.fd, F_GETFL) & O_NONBLOCK) != 0;
    note("select " + std::to_string(timeout->tv_sec) + "." + std::to_string(timeout->tv_usec));
    if (script.passes.empty()) {
        throw EndOfScript();
    }
    script.current = script.passes.front();
    script.passes.pop_front();
    if (!script.current.readable) {
        FD_ZERO(readSet);
    }
    return -1; // nobody looks at it
}

ssize_t __wrap_recv(int fd, void* buffer, size_t numBytes, int flags)
{
    EXPECT_EQ(fd, script.fd);
    note("recv");
    script.receiveBytes = numBytes;
    script.receiveFlags = flags;
    if (script.current.emptyWithErrno) {
        errno = *script.current.emptyWithErrno;
        return 0;
    }
    if (script.current.error != 0) {
        errno = script.current.error;
        return -1;
    }
    const Bytes& datagram = script.current.datagram;
    std::copy_n(datagram.data(), std::min(numBytes, datagram.size()), static_cast<uint8_t*>(buffer));
    return static_cast<ssize_t>(std::min(numBytes, datagram.size()));
}
}

// ---- the parts that the audio manager calls

AudioService::AudioService() = default;
AudioService::~AudioService() = default;

PlayerStatus AudioService::startPlayer(int id)
{
    note("start " + std::to_string(id));
    return PLAYER_ERROR; // nobody looks at it
}

PlayerStatus AudioService::stopPlayer()
{
    note("stop");
    return PLAYER_ERROR; // nobody looks at it
}

PlayerStatus AudioService::servicePlayer()
{
    note("service");
    return script.playerStatus;
}

CServiceTime AudioService::getNextServiceTime() const
{
    note("next");
    CServiceTime answer;
    answer.nextServiceTime = script.next;
    return answer;
}

int AudioService::getAvgSampleRate() const
{
    note("average");
    return 0;
}

AutomationAPI::AutomationAPI(AudioDatabase* database) : db(database) {}

AutomationAPI::~AutomationAPI() = default;

int AutomationAPI::init()
{
    note("automation init");
    return 0;
}

int AutomationAPI::service()
{
    note("automation");
    return 0;
}

console::console(const char* p)
{
    note("console made with " + std::string(p));
}

console::~console() = default;

int console::addCmd(void* ptr, const char* c, const char* h, void (*handler)(const void*, const char*))
{
    note("command " + std::string(c));
    ::script.commands.push_back({ptr, c, h, handler});
    return 0;
}

void console::service()
{
    note("console");
}

void console::setPrompt()
{
    note("prompt");
}

void cmdPrintAllBlocks(const void*, const char*) {}
void cmdPrintAllChains(const void*, const char*) {}
void cmdStart(const void*, const char*) {}
void cmdStop(const void*, const char*) {}
void cmdConnect(const void*, const char*) {}
void cmdGraphFIFO(const void*, const char*) {}
void cmdSetTracelevel(const void*, const char*) {}

namespace
{

/** A moment at whole seconds and nanoseconds. */
CServiceTime at(int32_t seconds, int32_t nanoseconds)
{
    CServiceTime time;
    time.nextServiceTime = {seconds, nanoseconds};
    return time;
}

/** The wait at `now` when the player gives these answers, one for each time it is asked; the last one stays. */
uint32_t waitFor(const CServiceTime& now, const std::vector<CServiceTime>& answers, size_t* numQuestions = nullptr)
{
    size_t asked = 0;
    const uint32_t wait = sleepTimeNs(now, [&] { return answers[std::min(asked++, answers.size() - 1)]; });
    if (numQuestions != nullptr) {
        *numQuestions = asked;
    }
    return wait;
}

constexpr uint32_t CUT = 5000000;

class AudioManagerThread : public testing::Test
{
protected:
    void SetUp() override
    {
        script = Script();
        audioService = new AudioService;
        api = new AutomationAPI(nullptr);
        audioLibrarySpace::setClockSource(scriptedClock);
        port_number = 7004;
        log_level = LOG_ALL;
    }
    void TearDown() override
    {
        script.recording = false;
        audioLibrarySpace::setClockSource(nullptr);
        if (script.fd >= 0) {
            close(script.fd);
        }
        delete api;
        api = nullptr;
        delete audioService;
        audioService = nullptr;
    }

    /** Runs the thread through these passes and into the select of one more; answers what it logged. */
    static std::string run(std::deque<Pass> passes = {})
    {
        script.passes = std::move(passes);
        CaptureStderr();
        script.recording = true;
        EXPECT_THROW(AudioManager(nullptr), EndOfScript);
        script.recording = false;
        return GetCapturedStderr();
    }

    /** The calls of the loop, from the first pass on. */
    static std::vector<std::string> loopCalls()
    {
        auto init = std::find(script.calls.begin(), script.calls.end(), "automation init");
        return {init + 1, script.calls.end()};
    }

    /** What the loop did besides the round that each pass makes. */
    static std::vector<std::string> actions()
    {
        std::vector<std::string> found;
        for (const auto& call : loopCalls()) {
            if (call == "stop" || call.starts_with("start")) {
                found.push_back(call);
            }
        }
        return found;
    }

    /** The lines of the log after the one that tells the priority. */
    static std::string afterPriority(const std::string& log) { return log.substr(log.find('\n') + 1); }

    static std::string line(const std::string& type, const std::string& text)
    {
        return "[A-Z][a-z]+ [0-9][0-9], [0-9]+ [0-9:]+ [AP]M \\[" + type + "\\] AudioManager.cpp [0-9]+: " + text +
               "\n";
    }
};

/** What one datagram leads to, without a socket. */
class ControlDatagram : public AudioManagerThread
{
protected:
    static std::string handle(const Bytes& datagram)
    {
        ByteArray request(datagram.data(), static_cast<uint16_t>(datagram.size()));
        CaptureStderr();
        script.recording = true;
        handleControlRequest(request);
        script.recording = false;
        return GetCapturedStderr();
    }
};

const Bytes START_7 = {2, 0x02, 0x12, 0, 0, 7, 0, 0, 0};
const Bytes STOP = {2, 0x03, 0x12, 0, 0};

} // namespace

// ---- the sleep rule

TEST(SleepRule, WhatIsDueIsNotWaitedFor)
{
    size_t numQuestions = 0;
    EXPECT_EQ(waitFor(at(10, 500), {at(10, 500)}, &numQuestions), 0U);
    EXPECT_EQ(numQuestions, 1U);
    EXPECT_EQ(waitFor(at(10, 500), {at(10, 499)}), 0U);
    EXPECT_EQ(waitFor(at(10, 500), {at(9, 500)}), 0U);
}

TEST(SleepRule, WaitsUpToTenMillisecondsAreSleptInFull)
{
    size_t numQuestions = 0;
    EXPECT_EQ(waitFor(at(10, 500), {at(10, 501)}, &numQuestions), 1U);
    EXPECT_EQ(numQuestions, 2U);
    EXPECT_EQ(waitFor(at(10, 0), {at(10, 5000001)}), 5000001U);
    EXPECT_EQ(waitFor(at(10, 0), {at(10, 9999999)}), 9999999U);
    EXPECT_EQ(waitFor(at(10, 0), {at(10, 10000000)}), 10000000U);
    EXPECT_EQ(waitFor(at(10, 999999999), {at(11, 1)}), 2U);
}

TEST(SleepRule, LongerWaitsAreCutToFive)
{
    EXPECT_EQ(waitFor(at(10, 0), {at(10, 10000001)}), CUT);
    EXPECT_EQ(waitFor(at(10, 0), {at(10, 500000000)}), CUT);
    EXPECT_EQ(waitFor(at(10, 0), {at(12, 0)}), CUT);
}

TEST(SleepRule, DifferenceWrapsAtThirtyTwoBits)
{
    EXPECT_EQ(waitFor(at(10, 0), {at(12, 147483647)}), CUT); // 2^31 - 1 ns
    EXPECT_EQ(waitFor(at(10, 0), {at(12, 147483648)}), 0U);  // 2^31 ns reads as negative
    EXPECT_EQ(waitFor(at(10, 0), {at(14, 294967295)}), 0U);  // 2^32 - 1 ns reads as -1
    EXPECT_EQ(waitFor(at(10, 0), {at(14, 294967296)}), 0U);  // 2^32 ns reads as 0
    EXPECT_EQ(waitFor(at(10, 0), {at(14, 294967297)}), 1U);  // 2^32 + 1 ns
    EXPECT_EQ(waitFor(at(10, 0), {at(14, 300000000)}), 5032704U);
    EXPECT_EQ(waitFor(at(14, 294967295), {at(10, 0)}), 1U); // 2^32 - 1 ns ago
    // Never, (2^31 - 11) s from here: 2^31 s vanish in the wrap, and -11 s are 1884901888 ns modulo 2^32.
    EXPECT_EQ(waitFor(at(10, 0), {at(2147483647, 0)}), CUT);
}

TEST(SleepRule, SecondAnswerCounts)
{
    EXPECT_EQ(waitFor(at(10, 0), {at(10, 9), at(10, 4000)}), 4000U);
    EXPECT_EQ(waitFor(at(10, 0), {at(10, 9), at(10, 20000000)}), CUT);
    EXPECT_EQ(waitFor(at(10, 0), {at(10, 9), at(10, 0)}), 0U);
    EXPECT_EQ(waitFor(at(10, 5), {at(10, 9), at(10, 4)}), CUT); // -1 ns, read as unsigned
}

TEST(SleepRule, FlagsOfTheNextTimeAreNotLookedAt)
{
    CServiceTime next = at(10, 7000);
    next.immediateService = true;
    next.serviceRequired = true;
    EXPECT_EQ(waitFor(at(10, 0), {next}), 7000U);
}

TEST(SleepRule, OnlyAnImmediateNowIsLookedAt)
{
    CServiceTime now = at(10, 0);
    now.serviceRequired = true;
    EXPECT_EQ(waitFor(now, {at(10, 7000)}), 7000U);
    now.immediateService = true;
    EXPECT_EQ(waitFor(now, {at(10, 7000)}), 0U);
}

// ---- the control datagram

TEST_F(ControlDatagram, StartStartsTheSource)
{
    EXPECT_THAT(handle(START_7), MatchesRegex(line("DEBUG", "playlist manager received start request id = 7")));
    EXPECT_THAT(script.calls, ElementsAre("start 7"));
}

TEST_F(ControlDatagram, PlayerIdIsSignedAndLowByteFirst)
{
    EXPECT_THAT(handle({2, 0x02, 0x12, 0, 0, 0xFE, 0xFF, 0xFF, 0xFF}),
                MatchesRegex(line("DEBUG", "playlist manager received start request id = -2")));
    handle({2, 0x02, 0x12, 0, 0, 0x04, 0x03, 0x02, 0x01});
    EXPECT_THAT(script.calls, ElementsAre("start -2", "start 16909060"));
}

TEST_F(ControlDatagram, BytesBehindTheRequestAreIgnored)
{
    handle({2, 0x02, 0x12, 0, 0, 7, 0, 0, 0, 9, 9});
    EXPECT_THAT(script.calls, ElementsAre("start 7"));
}

TEST_F(ControlDatagram, StopStopsWithoutAWord)
{
    EXPECT_EQ(handle(STOP), "");
    EXPECT_THAT(script.calls, ElementsAre("stop"));
}

TEST_F(ControlDatagram, OtherChannelIsLoggedAndDropped)
{
    const auto unknown = MatchesRegex(line("DEBUG", "playlist manager received unknown set request"));
    EXPECT_THAT(handle({2, 0x04, 0x12, 0, 0, 7, 0, 0, 0}), unknown);
    EXPECT_THAT(handle({2, 0x02, 0x12, 0, 1, 7, 0, 0, 0}), unknown); // all four bytes count
    EXPECT_THAT(script.calls, ElementsAre());
}

TEST_F(ControlDatagram, OfOneByteIsAnUnknownChannel)
{
    EXPECT_THAT(handle({2}), MatchesRegex(line("DEBUG", "playlist manager received unknown set request")));
    EXPECT_THAT(handle({2, 0x02, 0x12, 0}),
                MatchesRegex(line("DEBUG", "playlist manager received unknown set request")));
    EXPECT_THAT(script.calls, ElementsAre());
}

TEST_F(ControlDatagram, OtherOpCodeIsDroppedWithoutAWord)
{
    EXPECT_EQ(handle({1, 0x02, 0x12, 0, 0, 7, 0, 0, 0}), "");
    EXPECT_EQ(handle({0}), "");
    EXPECT_EQ(handle({0xFF, 0x03, 0x12, 0, 0}), "");
    EXPECT_THAT(script.calls, ElementsAre());
}

TEST_F(ControlDatagram, StartCutOffAfterTheChannelStartsSourceZero)
{
    EXPECT_THAT(handle({2, 0x02, 0x12, 0, 0}),
                MatchesRegex(line("DEBUG", "playlist manager received start request id = 0")));
    handle({2, 0x02, 0x12, 0, 0, 7, 0, 0});
    EXPECT_THAT(script.calls, ElementsAre("start 0", "start 0"));
}

// ---- before the loop

TEST_F(AudioManagerThread, SetsUpInOrder)
{
    EXPECT_THAT(run(), MatchesRegex(line("DEBUG", "Success! Policy = RealTime-FIFO, Priority = 80")));
    const std::vector<std::string> calls(script.calls.begin(), script.calls.begin() + 13);
    EXPECT_THAT(calls, ElementsAre("console made with Player:> ", "command blocks", "command chains", "command start",
                                   "command stop", "command connect", "command graph", "command tl",
                                   "scheduler 0 fifo 80", "socket inet dgram 0", "bind", "prompt", "automation init"));
}

TEST_F(AudioManagerThread, RegistersSevenCommandsInOrder)
{
    run();
    struct Row {
        const char* word;
        void (*handler)(const void*, const char*);
        const char* help;
    };
    const std::array<Row, 7> rows = {{
        {"blocks", cmdPrintAllBlocks, "blocks\n  Displays a list of all instantiated blocks.\n"},
        {"chains", cmdPrintAllChains, "chains\n  Displays a list of all instantiated chains.\n"},
        {"start", cmdStart, "start [playlist ID]\n  Starts the following playlist ID.\n"},
        {"stop", cmdStop, "stop\n  Stops the current playlist ID.\n"},
        {"connect", cmdConnect, "connect [upstream] [downstream]\n  Connects two audio blocks together.\n"},
        {"graph", cmdGraphFIFO, "graph [block#]\n  Graphs the buffer of the mixer/alsa block\n"},
        {"tl", cmdSetTracelevel, "tl [tracelevel]\n  Sets the global trace level verboseness level (9-call trace).\n"},
    }};
    ASSERT_EQ(script.commands.size(), rows.size());
    for (size_t i = 0; i < rows.size(); i++) {
        EXPECT_EQ(script.commands[i].word, rows[i].word);
        EXPECT_EQ(script.commands[i].help, rows[i].help);
        EXPECT_EQ(script.commands[i].handler, rows[i].handler);
        EXPECT_EQ(script.commands[i].context, nullptr);
    }
}

TEST_F(AudioManagerThread, BindsEveryLocalAddressAndDoesNotBlock)
{
    run();
    EXPECT_EQ(script.bound.sin_family, AF_INET);
    EXPECT_EQ(script.bound.sin_addr.s_addr, htonl(INADDR_ANY));
    EXPECT_EQ(script.bound.sin_port, htons(7004));
    EXPECT_TRUE(script.nonBlocking);
}

TEST_F(AudioManagerThread, PortIsCutToItsLowSixteenBits)
{
    port_number = 65536 + 258;
    run();
    EXPECT_EQ(script.bound.sin_port, htons(258));
}

TEST_F(AudioManagerThread, GoesOnWithoutPriority)
{
    script.schedulerAnswer = -1;
    EXPECT_THAT(run(), MatchesRegex(line("ERROR", "Failed! Scheduling priority not set.")));
    EXPECT_THAT(loopCalls(), testing::Contains("service"));
}

// ---- the loop

TEST_F(AudioManagerThread, PassIsARoundInThisOrder)
{
    run();
    EXPECT_THAT(loopCalls(),
                ElementsAre("automation", "console", "flush", "clock", "service", "next", "next", "select 0.5000"));
}

TEST_F(AudioManagerThread, AverageRateIsAskedForOnlyOfAStartedPlayer)
{
    script.playerStatus = PLAYER_STARTED;
    run();
    EXPECT_THAT(loopCalls(), ElementsAre("automation", "console", "flush", "clock", "service", "average", "next",
                                         "next", "select 0.5000"));
    for (PlayerStatus status : {PLAYER_READY, PLAYER_OK, PLAYER_ERROR, PLAYER_NOT_INITIALIZED}) {
        script.calls.clear();
        script.playerStatus = status;
        close(script.fd);
        run();
        EXPECT_THAT(script.calls, testing::Not(testing::Contains("average")));
    }
}

TEST_F(AudioManagerThread, WaitsWholeMicroseconds)
{
    script.next = {100, 7000999};
    run();
    EXPECT_EQ(script.calls.back(), "select 0.7000");
}

TEST_F(AudioManagerThread, DoesNotWaitForWhatIsDue)
{
    script.next = {100, 0};
    run();
    EXPECT_EQ(script.calls.back(), "select 0.0");
}

TEST_F(AudioManagerThread, ReceivesOnlyWhenReadable)
{
    run({{.readable = false, .datagram = START_7}});
    EXPECT_THAT(script.calls, testing::Not(testing::Contains("recv")));
    EXPECT_THAT(actions(), ElementsAre());
}

TEST_F(AudioManagerThread, ActsOnADatagram)
{
    const std::string log = run({{.readable = true, .datagram = START_7}});
    EXPECT_THAT(afterPriority(log), MatchesRegex(line("DEBUG", "playlist manager received start request id = 7")));
    EXPECT_THAT(actions(), ElementsAre("start 7"));
    EXPECT_EQ(script.receiveBytes, 1024U);
    EXPECT_EQ(script.receiveFlags, 0);
}

TEST_F(AudioManagerThread, TakesTwoDatagramsInTwoPasses)
{
    run({{.readable = true, .datagram = START_7}, {.readable = true, .datagram = STOP}});
    const std::vector<std::string> expected = {
        "automation", "console", "flush", "clock", "service", "next", "next", "select 0.5000", "recv", "start 7", // 1
        "automation", "console", "flush", "clock", "service", "next", "next", "select 0.5000", "recv", "stop",    // 2
        "automation", "console", "flush", "clock", "service", "next", "next", "select 0.5000",
    };
    EXPECT_THAT(loopCalls(), ElementsAreArray(expected));
}

TEST_F(AudioManagerThread, LongestDatagramIsHandled)
{
    Bytes longest(1500, 0xAA);
    std::copy(START_7.begin(), START_7.end(), longest.begin());
    run({{.readable = true, .datagram = longest}});
    EXPECT_THAT(actions(), ElementsAre("start 7"));
}

TEST_F(AudioManagerThread, ClosedOrDrainedSocketIsPassedOverInSilence)
{
    const std::string log = run({{.readable = true, .error = EBADF}, {.readable = true, .error = EAGAIN}});
    EXPECT_EQ(afterPriority(log), "");
    EXPECT_EQ(std::count(script.calls.begin(), script.calls.end(), "service"), 3);
}

TEST_F(AudioManagerThread, ZeroLengthDatagramDoesNothing)
{
    for (int left : {0, EINTR, EAGAIN, EBADF}) {
        script.calls.clear();
        const std::string log = run({{.readable = true, .emptyWithErrno = left}});
        EXPECT_EQ(afterPriority(log), "") << left;
        EXPECT_THAT(actions(), ElementsAre());
        close(script.fd);
        script.fd = -1;
    }
}

TEST_F(AudioManagerThread, OtherReceiveErrorIsLoggedAndTheLoopGoesOn)
{
    const std::string log = run({{.readable = true, .error = ECONNREFUSED}, {.readable = true, .datagram = STOP}});
    EXPECT_THAT(afterPriority(log),
                MatchesRegex(line("ERROR", "playlist manager received error 111 on recv. RecvSize -1") +
                             "Connection refused\n"));
    EXPECT_THAT(actions(), ElementsAre("stop"));
}

// ---- what ends the process

using AudioManagerDeathTest = AudioManagerThread;

TEST_F(AudioManagerDeathTest, NoSocket)
{
    script.socketAnswer = -1;
    EXPECT_EXIT(
        script.recording = true;
        AudioManager(nullptr), testing::ExitedWithCode(1),
        "AudioManager.cpp [0-9]+: Success[^\n]*\n[^\n]*\\[ERROR\\] AudioManager.cpp [0-9]+: Cannot create socket\n$");
}

TEST_F(AudioManagerDeathTest, NoPort)
{
    script.bindAnswer = -1;
    EXPECT_EXIT(script.recording = true; AudioManager(nullptr), testing::ExitedWithCode(1),
                                         "\\[ERROR\\] AudioManager.cpp [0-9]+: Cannot bind socket\n$");
}

TEST_F(AudioManagerDeathTest, ReceiveOnWhatIsNoSocket)
{
    script.passes = {{.readable = true, .error = ENOTSOCK}};
    EXPECT_EXIT(script.recording = true;
                AudioManager(nullptr), testing::ExitedWithCode(1),
                "\\[ERROR\\] AudioManager.cpp [0-9]+: Sockfd is not a socket, sockfd [0-9]+.\n$");
}

TEST_F(AudioManagerDeathTest, ZeroLengthDatagramAfterALeftOverError)
{
    script.passes = {{.readable = true, .emptyWithErrno = ENOTSOCK}};
    EXPECT_EXIT(script.recording = true;
                AudioManager(nullptr), testing::ExitedWithCode(1),
                "\\[ERROR\\] AudioManager.cpp [0-9]+: Sockfd is not a socket, sockfd [0-9]+.\n$");
}
