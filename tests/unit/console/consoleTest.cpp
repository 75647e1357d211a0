/**
 * The console on a pipe in place of standard input, scripts in memory, and a clock that the test sets.
 */

#include "console/console.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

/** The monotonic clock, once a test has set it. */
struct Clock {
    bool isSet = false;
    bool isBroken = false;
    struct timespec now = {};
    int numReads = 0;
};
Clock fakeClock;

} // namespace

extern "C" {
int __real_clock_gettime(clockid_t clock, struct timespec* time);
int __wrap_clock_gettime(clockid_t clock, struct timespec* time)
{
    if (clock != CLOCK_MONOTONIC || !fakeClock.isSet) {
        return __real_clock_gettime(clock, time);
    }
    fakeClock.numReads++;
    if (fakeClock.isBroken) {
        *time = {1000000, 999999999}; // not to be taken for a time
        return -1;
    }
    *time = fakeClock.now;
    return 0;
}
}

namespace
{

constexpr int32_t second = 1000000000;

/** A call of a handler: its context and its line. */
struct Call {
    const void* context;
    std::string line;
    bool operator==(const Call&) const = default;
};
std::vector<Call> calls;

void record(const void* context, const char* line)
{
    calls.push_back({context, line});
}

void recordOther(const void* context, const char* line)
{
    calls.push_back({context, std::string("other ") + line});
}

/** The lines that handlers were given. */
std::vector<std::string> lines()
{
    std::vector<std::string> found;
    for (const Call& call : calls) {
        found.push_back(call.line);
    }
    return found;
}

/** A script in memory, with a path short enough to be typed. */
class Script
{
public:
    explicit Script(const std::string& text) : fd(memfd_create("script", MFD_CLOEXEC))
    {
        EXPECT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    ~Script() { close(fd); }
    Script(const Script&) = delete;
    Script& operator=(const Script&) = delete;
    std::string path() const { return "/proc/self/fd/" + std::to_string(fd); }

private:
    int fd;
};

size_t openDescriptors()
{
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(all), end(all)));
}

std::string outputOf(const std::function<void()>& action)
{
    testing::internal::CaptureStdout();
    action();
    return testing::internal::GetCapturedStdout();
}

/** Standard input is a pipe; the console has the prompt "$ " and the command "cmd", which is written down. */
class Console : public testing::Test
{
protected:
    Console()
    {
        calls.clear();
        fakeClock = {};
        savedInput = dup(STDIN_FILENO);
        int ends[2];
        EXPECT_EQ(pipe(ends), 0);
        dup2(ends[0], STDIN_FILENO);
        close(ends[0]);
        keyboard = ends[1];
        make("$ ");
        cmd->addCmd(&context, "cmd", "cmd\n  Is written down.\n", record);
    }
    ~Console() override
    {
        cmd.reset();
        hangUp();
        dup2(savedInput, STDIN_FILENO);
        close(savedInput);
        fakeClock = {};
    }
    /** A console with another prompt; what its construction writes. */
    std::string make(const char* prompt)
    {
        cmd.reset();
        return outputOf([&] { cmd = std::make_unique<console>(prompt); });
    }
    void type(const std::string& text)
    {
        ASSERT_EQ(write(keyboard, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    void hangUp()
    {
        if (keyboard >= 0) {
            close(keyboard);
        }
        keyboard = -1;
    }
    std::string service()
    {
        return outputOf([this] { cmd->service(); });
    }
    /** What the console writes when it is given a line. */
    std::string enter(const std::string& line)
    {
        type(line);
        return service();
    }
    static void setClock(time_t seconds, long nanoseconds) { fakeClock = {true, false, {seconds, nanoseconds}, 0}; }
    /** Whether a line that waits is left to wait at that time. */
    bool sleepsAt(time_t seconds, long nanoseconds)
    {
        setClock(seconds, nanoseconds);
        type("#\n");
        const bool sleeps = service().empty();
        if (sleeps) {
            char waiting[2];
            EXPECT_EQ(read(STDIN_FILENO, waiting, sizeof waiting), 2);
        }
        return sleeps;
    }

    int context = 0;
    int savedInput = -1;
    int keyboard = -1; ///< the pipe's other end; -1 when hung up
    std::unique_ptr<console> cmd;
};

class ConsolePrompt : public Console
{
};
class ConsoleHelp : public Console
{
};
class ConsoleScript : public Console
{
};
class ConsoleSleep : public Console
{
};

// ---- Prompt ----

TEST_F(ConsolePrompt, IsWrittenByTheConstructorWithoutALineEnd)
{
    EXPECT_EQ(make("ab> "), "ab> ");
    EXPECT_EQ(outputOf([this] { cmd->setPrompt(); }), "ab> ");
}

TEST_F(ConsolePrompt, IsCutAfterEightCharacters)
{
    EXPECT_EQ(make("12345678"), "12345678");
    EXPECT_EQ(make("123456789"), "12345678");
    EXPECT_EQ(make("Player:> "), "Player:>");
}

TEST_F(ConsolePrompt, NullGivesOneOfItsOwn)
{
    EXPECT_EQ(make(nullptr), "CMD:> ");
}

TEST_F(ConsolePrompt, ServesAsAFormat)
{
    EXPECT_EQ(make("100%%> "), "100%> ");
    EXPECT_EQ(make("%%%%"), "%%");
}

TEST_F(ConsolePrompt, ConversionIsTakenLiterally)
{
    EXPECT_EQ(make("%s%n> "), "%s%n> ");
    EXPECT_EQ(make("%%%n"), "%%%n");
    EXPECT_EQ(make("half %"), "half %");
}

TEST_F(ConsolePrompt, IsWrittenAsItStandsAndNotAsAFormat)
{
    make("%%s");
    EXPECT_EQ(enter("#\n"), "%s");
}

TEST_F(Console, MakesStandardInputNonBlockingAndKeepsItsOtherFlags)
{
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
    fcntl(STDIN_FILENO, F_SETFL, O_ASYNC);
    make("$ ");
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFL) & (O_NONBLOCK | O_ASYNC), O_NONBLOCK | O_ASYNC);
}

// ---- Lines ----

TEST_F(Console, NothingTypedWritesNothing)
{
    EXPECT_EQ(service(), "");
    EXPECT_EQ(service(), "");
}

TEST_F(Console, NothingTypedCostsNoMoreThanTheRead)
{
    setClock(100, 0);
    service();
    enter("cmd\n");
    EXPECT_EQ(fakeClock.numReads, 0);
}

TEST_F(Console, EndOfInputIsSilent)
{
    hangUp();
    EXPECT_EQ(service(), "");
    EXPECT_EQ(service(), "");
    EXPECT_THAT(calls, IsEmpty());
}

TEST_F(Console, NullDeviceIsSilent)
{
    const int null = open("/dev/null", O_RDONLY | O_CLOEXEC);
    dup2(null, STDIN_FILENO);
    close(null);
    EXPECT_EQ(make("$ "), "$ ");
    EXPECT_EQ(service(), "");
    EXPECT_EQ(service(), "");
}

TEST_F(Console, ClosedInputIsSilent)
{
    cmd.reset();
    const std::string written = outputOf([this] {
        close(STDIN_FILENO); // not earlier: capturing opens files
        cmd = std::make_unique<console>("$ ");
        cmd->service();
    });
    EXPECT_EQ(written, "$ ");
}

TEST_F(Console, HandlerIsGivenItsContextAndTheWholeLineWithItsNewline)
{
    EXPECT_EQ(enter("cmd  1 2 \n"), "$ ");
    EXPECT_THAT(calls, ElementsAre(Call{&context, "cmd  1 2 \n"}));
    EXPECT_EQ(enter("cmd\n"), "$ ");
    EXPECT_EQ(calls.back(), (Call{&context, "cmd\n"}));
}

TEST_F(Console, AddedCommandAnswersZero)
{
    EXPECT_EQ(cmd->addCmd(nullptr, "x", "x\n", record), 0);
}

TEST_F(Console, WordAndHelpAreCopied)
{
    char word[] = "mine";
    char help[] = "my help";
    cmd->addCmd(nullptr, word, help, record);
    strcpy(word, "####");
    strcpy(help, "#######");
    enter("mine\n");
    EXPECT_THAT(lines(), ElementsAre("mine\n"));
    EXPECT_THAT(outputOf([this] { cmd->showHelp(); }), testing::HasSubstr("\nmy help\n"));
}

TEST_F(Console, LongerWordDoesNotMatch)
{
    EXPECT_EQ(enter("cmds\n"), "Command not recognized\n$ ");
    EXPECT_EQ(enter("cmd\t1\n"), "Command not recognized\n$ ");
    EXPECT_EQ(enter(" cmd\n"), "Command not recognized\n$ ");
    EXPECT_EQ(enter("cm\n"), "Command not recognized\n$ ");
    EXPECT_EQ(enter("CMD\n"), "Command not recognized\n$ ");
    EXPECT_THAT(calls, IsEmpty());
}

TEST_F(Console, WordAtTheVeryEndOfTheInputDoesNotMatch)
{
    EXPECT_EQ(enter("cmd"), "Command not recognized\n$ ");
    EXPECT_EQ(enter("cmd "), "$ ");
    EXPECT_THAT(lines(), ElementsAre("cmd "));
}

TEST_F(Console, LaterCommandShadowsAnEarlierOneOfItsName)
{
    cmd->addCmd(nullptr, "cmd", "newer\n", recordOther);
    enter("cmd\n");
    EXPECT_THAT(lines(), ElementsAre("other cmd\n"));
}

TEST_F(Console, NewestMatchEndsTheWalkEvenIfAnOlderWordIsLonger)
{
    cmd->addCmd(nullptr, "cmd two", "", recordOther);
    enter("cmd two\n");
    EXPECT_THAT(lines(), ElementsAre("other cmd two\n"));
    cmd->addCmd(nullptr, "cmd", "", record);
    enter("cmd two\n");
    EXPECT_EQ(lines().back(), "cmd two\n");
}

TEST_F(Console, OneLineIsHandledPerCall)
{
    type("cmd 1\n");
    EXPECT_EQ(service(), "$ ");
    type("cmd 2\n");
    EXPECT_EQ(service(), "$ ");
    EXPECT_EQ(service(), "");
    EXPECT_THAT(lines(), ElementsAre("cmd 1\n", "cmd 2\n"));
}

TEST_F(Console, LinesThatComeInOneReadAreOneLine)
{
    EXPECT_EQ(enter("cmd 1\ncmd 2\n"), "$ ");
    EXPECT_THAT(lines(), ElementsAre("cmd 1\ncmd 2\n"));
}

TEST_F(Console, NinetyNineBytesAreTakenAtOnceAndTheRestIsTheNextLine)
{
    const std::string first = "cmd " + std::string(95, 'a');
    ASSERT_EQ(first.size(), 99U);
    type(first + "cmd b\n");
    EXPECT_EQ(service(), "$ ");
    EXPECT_THAT(lines(), ElementsAre(first));
    EXPECT_EQ(service(), "$ ");
    EXPECT_THAT(lines(), ElementsAre(first, "cmd b\n"));
}

TEST_F(Console, NinetyNineBytesAreRepeatedWhole)
{
    const std::string full = "cmd " + std::string(95, 'a');
    enter(full);
    enter("\n");
    EXPECT_THAT(lines(), ElementsAre(full, full));
}

TEST_F(Console, ShorterLineIsNotFollowedByWhatAnEarlierOneLeft)
{
    enter("cmd " + std::string(60, 'a') + "\n");
    enter("cmd b\n");
    EXPECT_EQ(lines().back(), "cmd b\n");
}

TEST_F(Console, ZeroByteEndsTheLine)
{
    using namespace std::string_literals;
    EXPECT_EQ(enter("cmd 1\0 2\n"s), "$ ");
    EXPECT_THAT(lines(), ElementsAre("cmd 1"));
    EXPECT_EQ(enter("\n"), "$ ");
    EXPECT_EQ(lines().back(), "cmd 1");
    EXPECT_EQ(enter("cmd\0\n"s), "Command not recognized\n$ ");
    EXPECT_EQ(enter("\0cmd\n"s), "Command not recognized\n$ ");
}

TEST_F(Console, EmptyLineRepeatsTheLastCommand)
{
    enter("cmd 1\n");
    EXPECT_EQ(enter("\n"), "$ ");
    EXPECT_EQ(enter("\n"), "$ ");
    EXPECT_THAT(lines(), ElementsAre("cmd 1\n", "cmd 1\n", "cmd 1\n"));
}

TEST_F(Console, WhatStandsBehindALeadingNewlineIsLost)
{
    enter("cmd 1\n");
    enter("\ncmd 2\n");
    EXPECT_THAT(lines(), ElementsAre("cmd 1\n", "cmd 1\n"));
}

TEST_F(Console, EmptyLineAtTheStartIsNoCommand)
{
    EXPECT_EQ(enter("\n"), "Command not recognized\n$ ");
}

TEST_F(Console, UnknownCommandIsKeptAndRepeated)
{
    enter("cmd 1\n");
    enter("late 1\n");
    cmd->addCmd(nullptr, "late", "", record);
    EXPECT_EQ(enter("\n"), "$ ");
    EXPECT_EQ(lines().back(), "late 1\n");
}

TEST_F(Console, CommentWritesThePromptAndLeavesTheLastCommandAlone)
{
    enter("cmd 1\n");
    EXPECT_EQ(enter("#cmd 2\n"), "$ ");
    EXPECT_EQ(enter("#\n"), "$ ");
    EXPECT_THAT(lines(), ElementsAre("cmd 1\n"));
    enter("\n");
    EXPECT_THAT(lines(), ElementsAre("cmd 1\n", "cmd 1\n"));
}

TEST_F(Console, LineThatOnlyContainsAHashIsNoComment)
{
    EXPECT_EQ(enter(" #\n"), "Command not recognized\n$ ");
}

TEST_F(Console, EmptyWordMatchesALineThatBeginsWithABlank)
{
    cmd->addCmd(nullptr, "", "", recordOther);
    enter(" x\n");
    EXPECT_THAT(lines(), ElementsAre("other  x\n"));
}

// ---- Help ----

constexpr auto builtinHelp = "run [script]\n  Executes a script file\n\n"
                             "sleep [n]\n  Delays execution of subsequent commands for n ms\n\n"
                             "help\n  Displays a list of supported commands\n\n";

TEST_F(ConsoleHelp, ListsTheNewestCommandFirst)
{
    EXPECT_EQ(enter("help\n"), "Supported commands: \n\ncmd\n  Is written down.\n\n" + std::string(builtinHelp) + "$ ");
}

TEST_F(ConsoleHelp, MayHaveAnythingBehindItsWord)
{
    EXPECT_THAT(enter("help me\n"), testing::StartsWith("Supported commands: \n\ncmd\n"));
}

TEST_F(ConsoleHelp, ShowsTheWordOfACommandThatHasNoText)
{
    cmd->addCmd(nullptr, "bare", nullptr, record);
    EXPECT_THAT(enter("help\n"), testing::StartsWith("Supported commands: \n\nbare\ncmd\n"));
}

TEST_F(ConsoleHelp, NeedsAMatchFirst)
{
    EXPECT_EQ(enter("helpless\n"), "Command not recognized\n$ ");
}

TEST_F(ConsoleHelp, IsShownForEveryCommandThatBeginsWithItsWord)
{
    cmd->addCmd(nullptr, "helpless", "helpless\n", record);
    EXPECT_THAT(enter("helpless\n"), testing::StartsWith("Supported commands: \n\nhelpless\n"));
    EXPECT_THAT(calls, IsEmpty());
}

TEST_F(ConsoleHelp, CannotBeShadowed)
{
    cmd->addCmd(nullptr, "help", "mine\n", record);
    EXPECT_THAT(enter("help\n"), testing::StartsWith("Supported commands: \n\nmine\n"));
    EXPECT_THAT(calls, IsEmpty());
}

TEST_F(ConsoleHelp, IsRepeatedByAnEmptyLine)
{
    const std::string first = enter("help\n");
    EXPECT_EQ(enter("\n"), first);
}

// ---- Scripts ----

TEST_F(ConsoleScript, RunsALinePerCallWithItsEcho)
{
    const Script script("cmd 1\n# a comment\nwhat\n\ncmd 2\n");
    EXPECT_EQ(enter("run " + script.path() + "\n"), "Opening " + script.path() + "\n$ ");
    EXPECT_TRUE(cmd->scriptActive());
    EXPECT_EQ(service(), "cmd 1\n\n$ ");
    EXPECT_EQ(service(), "# a comment\n\n$ ");
    EXPECT_EQ(service(), "what\n\nCommand not recognized\n$ ");
    EXPECT_EQ(service(), "\n\nCommand not recognized\n$ "); // repeats the unknown one
    EXPECT_EQ(service(), "cmd 2\n\n$ ");
    EXPECT_TRUE(cmd->scriptActive());
    EXPECT_EQ(service(), ""); // the end of the file: no prompt
    EXPECT_FALSE(cmd->scriptActive());
    EXPECT_THAT(lines(), ElementsAre("cmd 1\n", "cmd 2\n"));
}

TEST_F(ConsoleScript, StandardInputWaitsForItsEnd)
{
    const Script script("cmd script\n");
    enter("run " + script.path() + "\n");
    type("cmd typed\n");
    service();
    service();
    EXPECT_THAT(lines(), ElementsAre("cmd script\n"));
    service();
    EXPECT_THAT(lines(), ElementsAre("cmd script\n", "cmd typed\n"));
}

TEST_F(ConsoleScript, LastLineWithoutANewlineDoesNotMatchByItsWordAlone)
{
    const Script script("cmd");
    enter("run " + script.path() + "\n");
    EXPECT_EQ(service(), "cmd\nCommand not recognized\n$ ");
    EXPECT_EQ(service(), "");
}

TEST_F(ConsoleScript, LastLineWithoutANewlineMatchesWithABlankBehindItsWord)
{
    const Script script("cmd 1");
    enter("run " + script.path() + "\n");
    EXPECT_EQ(service(), "cmd 1\n$ ");
    EXPECT_THAT(lines(), ElementsAre("cmd 1"));
}

TEST_F(ConsoleScript, NinetyEightBytesAreTakenAtOnceAndTheRestIsTheNextLine)
{
    const std::string first = "cmd " + std::string(94, 'a');
    ASSERT_EQ(first.size(), 98U);
    const Script script(first + "cmd b\n");
    enter("run " + script.path() + "\n");
    EXPECT_EQ(service(), first + "\n$ ");
    EXPECT_EQ(service(), "cmd b\n\n$ ");
    EXPECT_THAT(lines(), ElementsAre(first, "cmd b\n"));
}

TEST_F(ConsoleScript, ZeroByteEndsTheLine)
{
    using namespace std::string_literals;
    const Script script("cmd 1\0 2\n\0\ncmd 3\n"s);
    enter("run " + script.path() + "\n");
    EXPECT_EQ(service(), "cmd 1\n$ ");
    EXPECT_EQ(service(), "\nCommand not recognized\n$ ");
    EXPECT_EQ(service(), "cmd 3\n\n$ ");
    EXPECT_THAT(lines(), ElementsAre("cmd 1", "cmd 3\n"));
}

TEST_F(ConsoleScript, MissingFileIsToldByItsName)
{
    EXPECT_EQ(enter("run /nowhere/script\n"), "unable to open script file (/nowhere/script)\n$ ");
    EXPECT_FALSE(cmd->scriptActive());
}

TEST_F(ConsoleScript, WithoutANameNothingIsOpened)
{
    EXPECT_EQ(enter("run\n"), "unable to open script file ()\n$ ");
    EXPECT_EQ(enter("run \n"), "unable to open script file ()\n$ ");
    EXPECT_EQ(enter("run  \n"), "unable to open script file ( )\n$ ");
}

TEST_F(ConsoleScript, TheLastCharacterIsCutWhateverItIs)
{
    EXPECT_EQ(enter("run /nowhere/script"), "unable to open script file (/nowhere/scrip)\n$ ");
    EXPECT_EQ(enter("run "), "unable to open script file ()\n$ ");
}

TEST_F(ConsoleScript, RepeatedRunLosesACharacterOfTheNameEachTime)
{
    enter("run ?a\n");
    EXPECT_EQ(enter("\n"), "unable to open script file (?)\n$ ");
    EXPECT_EQ(enter("\n"), "unable to open script file ()\n$ ");
    EXPECT_EQ(enter("\n"), "unable to open script file ()\n$ "); // "run " is cut to "run"
    EXPECT_EQ(enter("\n"), "Command not recognized\n$ ");
    EXPECT_EQ(enter("\n"), "Command not recognized\n$ ");
}

TEST_F(ConsoleScript, IsRunForEveryCommandThatBeginsWithItsWord)
{
    cmd->addCmd(nullptr, "runner", "", record);
    EXPECT_EQ(enter("runner\n"), "unable to open script file (er)\n$ ");
    EXPECT_EQ(enter("runners\n"), "Command not recognized\n$ ");
    EXPECT_THAT(calls, IsEmpty());
}

TEST_F(ConsoleScript, LongestNameIsCutAtTheLinesEnd)
{
    const std::string name(95, 'x');
    EXPECT_EQ(enter("run " + name), "unable to open script file (" + name.substr(1) + ")\n$ ");
}

TEST_F(ConsoleScript, DirectoryEndsAtOnce)
{
    EXPECT_EQ(enter("run /proc\n"), "Opening /proc\n$ ");
    EXPECT_TRUE(cmd->scriptActive());
    EXPECT_EQ(service(), "");
    EXPECT_FALSE(cmd->scriptActive());
}

TEST_F(ConsoleScript, EmptyFileEndsAtOnce)
{
    const Script script("");
    enter("run " + script.path() + "\n");
    EXPECT_EQ(service(), "");
    EXPECT_FALSE(cmd->scriptActive());
}

TEST_F(ConsoleScript, RunWithinAScriptTakesItsPlace)
{
    const Script inner("cmd inner\n");
    const Script outer("run " + inner.path() + "\ncmd outer\n");
    enter("run " + outer.path() + "\n");
    const size_t withOneOpen = openDescriptors();
    EXPECT_EQ(service(), "run " + inner.path() + "\n\nOpening " + inner.path() + "\n$ ");
    EXPECT_EQ(openDescriptors(), withOneOpen);
    EXPECT_EQ(service(), "cmd inner\n\n$ ");
    EXPECT_EQ(service(), "");
    EXPECT_FALSE(cmd->scriptActive());
    EXPECT_THAT(lines(), ElementsAre("cmd inner\n"));
}

TEST_F(ConsoleScript, FailedRunWithinAScriptEndsIt)
{
    const Script script("run /nowhere\ncmd after\n");
    enter("run " + script.path() + "\n");
    EXPECT_EQ(service(), "run /nowhere\n\nunable to open script file (/nowhere)\n$ ");
    EXPECT_FALSE(cmd->scriptActive());
    EXPECT_EQ(service(), "");
    EXPECT_THAT(calls, IsEmpty());
}

TEST_F(ConsoleScript, NoDescriptorIsLeft)
{
    const Script script("#\n");
    const size_t before = openDescriptors();
    for (int i = 0; i < 20; i++) {
        enter("run " + script.path() + "\n");
        service();
        service();
    }
    EXPECT_EQ(openDescriptors(), before);
    outputOf([&] { cmd->runScript(script.path().c_str()); });
    outputOf([&] { cmd->runScript(script.path().c_str()); });
    EXPECT_EQ(openDescriptors(), before + 1);
    cmd.reset();
    EXPECT_EQ(openDescriptors(), before);
}

// ---- Sleep ----

TEST_F(ConsoleSleep, WaitsWhileBothPartsOfTheTimeLieAhead)
{
    setClock(100, 300000000);
    EXPECT_EQ(enter("sleep 2000\n"), "Sleeping for 2000 ms.\n$ "); // until 102 s and twice 300 ms
    EXPECT_TRUE(sleepsAt(100, 300000000));
    EXPECT_TRUE(sleepsAt(100, 599999999));
    EXPECT_TRUE(sleepsAt(101, 0));
    EXPECT_TRUE(sleepsAt(101, 599999999));
    EXPECT_FALSE(sleepsAt(102, 0));
}

TEST_F(ConsoleSleep, EndsEarlyAtTheFirstMomentThatTheNanosecondsPass)
{
    setClock(100, 300000000);
    enter("sleep 2000\n");
    EXPECT_FALSE(sleepsAt(100, 600000000));
    EXPECT_FALSE(sleepsAt(100, 300000000)); // it is over for good
}

TEST_F(ConsoleSleep, ReadsNothingMeanwhile)
{
    setClock(100, 0);
    enter("sleep 1500\n"); // until 101 s and twice 500 ms
    type("cmd 1\n");
    EXPECT_EQ(service(), "");
    EXPECT_THAT(calls, IsEmpty());
    setClock(101, 0);
    EXPECT_EQ(service(), "$ ");
    EXPECT_THAT(lines(), ElementsAre("cmd 1\n"));
}

TEST_F(ConsoleSleep, HoldsUpAScript)
{
    const Script script("sleep 1500\ncmd 1\n");
    setClock(100, 0);
    enter("run " + script.path() + "\n");
    EXPECT_EQ(service(), "sleep 1500\n\nSleeping for 1500 ms.\n$ ");
    EXPECT_EQ(service(), "");
    setClock(101, 0);
    EXPECT_EQ(service(), "cmd 1\n\n$ ");
}

TEST_F(ConsoleSleep, WithinTheSecondIsOverAtOnce)
{
    setClock(100, 300000000);
    enter("sleep 699\n"); // until 100 s
    EXPECT_FALSE(sleepsAt(100, 300000000));
}

TEST_F(ConsoleSleep, CarriesIntoTheNextSecond)
{
    setClock(100, 300000000);
    enter("sleep 700\n"); // until 101 s and 1000 + 0 ms
    EXPECT_TRUE(sleepsAt(100, 999999999));
    EXPECT_FALSE(sleepsAt(101, 0));

    setClock(100, 900000000);
    enter("sleep 3200\n"); // 1100 ms: until 104 s and 1100 + 100 ms
    EXPECT_TRUE(sleepsAt(100, 999999999));
    EXPECT_TRUE(sleepsAt(103, 999999999));
    EXPECT_FALSE(sleepsAt(104, 0));
}

TEST_F(ConsoleSleep, NanosecondsWrapIn32Bits)
{
    setClock(100, 574741823); // 999 ms later 1573741823 ns: with those beyond the second 2147483646, which fits
    enter("sleep 999\n");
    EXPECT_TRUE(sleepsAt(100, 574741823));
    EXPECT_FALSE(sleepsAt(101, 0));

    setClock(100, 574741824); // one more: 2147483648, which is negative
    enter("sleep 999\n");
    EXPECT_FALSE(sleepsAt(100, 574741824));

    setClock(100, second - 1);
    enter("sleep 999999\n");
    EXPECT_FALSE(sleepsAt(100, 0));
}

TEST_F(ConsoleSleep, OfZeroIsOverAtTheNextCall)
{
    setClock(100, 300000000);
    EXPECT_EQ(enter("sleep 0\n"), "Sleeping for 0 ms.\n$ ");
    EXPECT_FALSE(sleepsAt(100, 300000000));
}

TEST_F(ConsoleSleep, InTheClocksFirstSecondIsNone)
{
    setClock(0, 0);
    enter("sleep 999\n");
    EXPECT_FALSE(sleepsAt(0, 0));
}

TEST_F(ConsoleSleep, TakesNumbersAsA32BitMachineDoes)
{
    const std::vector<std::pair<std::string, std::string>> numbers = {{"4294967295", "4294967295"},
                                                                      {"4294967296", "4294967295"},
                                                                      {"99999999999999999999999", "4294967295"},
                                                                      {"18446744073709551611", "4294967295"},
                                                                      {"-1", "4294967295"},
                                                                      {"-5", "4294967291"},
                                                                      {"-4294967295", "1"},
                                                                      {"-4294967296", "4294967295"},
                                                                      {"-18446744073709551615", "4294967295"}};
    for (const auto& [typed, taken] : numbers) {
        setClock(100, 0);
        EXPECT_EQ(enter("sleep " + typed + "\n"), "Sleeping for " + taken + " ms.\n$ ");
        sleepsAt(100000000, 0);
    }
}

TEST_F(ConsoleSleep, LongestEndsAfterItsSeconds)
{
    setClock(100, 0);
    enter("sleep 4294967295\n"); // until 4295067 s and twice 295 ms
    EXPECT_TRUE(sleepsAt(100, 589999999));
    EXPECT_TRUE(sleepsAt(4295066, 589999999));
    EXPECT_FALSE(sleepsAt(4295067, 0));
}

TEST_F(ConsoleSleep, WithoutANumberTellsItsUsage)
{
    setClock(100, 0);
    EXPECT_EQ(enter("sleep\n"), "Incorrect usage of sleep [n].\n$ ");
    EXPECT_EQ(enter("sleep soon\n"), "Incorrect usage of sleep [n].\n$ ");
    EXPECT_FALSE(sleepsAt(100, 0));
}

TEST_F(ConsoleSleep, IsTriedForEveryCommandThatBeginsWithItsWord)
{
    cmd->addCmd(nullptr, "sleepy", "", record);
    EXPECT_EQ(enter("sleepy 5\n"), "Incorrect usage of sleep [n].\n$ ");
    EXPECT_THAT(calls, IsEmpty());
}

TEST_F(ConsoleSleep, WithoutAClockIsRefused)
{
    fakeClock = {true, true, {}, 0};
    EXPECT_EQ(enter("sleep 5000\n"), "Unable to sleep.\n$ ");
    EXPECT_FALSE(sleepsAt(100, 0));
}

TEST_F(ConsoleSleep, EndsWhenTheClockFails)
{
    setClock(100, 0);
    enter("sleep 5500\n");
    fakeClock.isBroken = true;
    EXPECT_EQ(enter("cmd 1\n"), "$ ");
    EXPECT_FALSE(sleepsAt(100, 0));
}

} // namespace
