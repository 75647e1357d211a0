/**
 * The debug console: lines of standard input or of a script come in, handlers are called; on the audio manager's thread.
 */

#include "console/console.h"

#include <cassert>
#include <cinttypes>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace
{

/** The most that one read takes: what the line holds with its terminator. */
constexpr int longestRead = 99;

constexpr uint32_t nsInSecond = 1000000000;
constexpr uint32_t nsInMs = 1000000;
constexpr uint32_t msInSecond = 1000;

/** A copy that delete[] frees; null for null. */
char* copyOf(const char* text)
{
    if (text == nullptr) {
        return nullptr;
    }
    const size_t numBytes = strlen(text) + 1;
    char* copy = new char[numBytes];
    memcpy(copy, text, numBytes);
    return copy;
}

bool beginsWith(const char* text, const char* beginning)
{
    return strncmp(text, beginning, strlen(beginning)) == 0;
}

/** Whether a format asks for an argument; "%%" does not. */
bool hasConversion(const char* format)
{
    for (const char* p = strchr(format, '%'); p != nullptr; p = strchr(p + 2, '%')) {
        if (p[1] != '%') {
            return true;
        }
    }
    return false;
}

/**
 * What "%u" makes of a number where `long` is 32 bits wide, from a signed scan in 64: a minus sign wraps around, what
 * has too many digits becomes the largest, whatever its sign.
 */
uint32_t unsigned32(int64_t scanned)
{
    constexpr int64_t most = UINT32_MAX;
    return scanned < -most || scanned > most ? UINT32_MAX : static_cast<uint32_t>(scanned);
}

/**
 * The end of a sleep of `ms` that begins at `time`. The nanoseconds count those beyond the second twice and wrap in 32
 * bits: with the comparison of isSleeping() that only ends a sleep early, never late.
 */
void addSleep(struct timespec& time, uint32_t ms)
{
    const uint32_t nsec = ms % msInSecond * nsInMs + static_cast<uint32_t>(time.tv_nsec);
    time.tv_sec += static_cast<time_t>(ms / msInSecond + nsec / nsInSecond);
    time.tv_nsec = static_cast<int32_t>(nsec + nsec % nsInSecond);
}

} // namespace

console::console(const char* p)
{
    fcntl(STDIN_FILENO, F_SETFL, fcntl(STDIN_FILENO, F_GETFL, 0) | O_NONBLOCK);
    const char* text = p == nullptr ? "CMD:> " : p;
    if (hasConversion(text)) {
        snprintf(prompt, 9, "%s", text); // there is nothing to convert
    } else {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
        snprintf(prompt, 9, text); // so that "%%" is one percent sign
#pragma GCC diagnostic pop
    }
    registerBuiltins();
    setPrompt();
}

void console::registerBuiltins()
{
    addCmd(nullptr, "help", "help\n  Displays a list of supported commands\n", nullptr);
    addCmd(nullptr, "sleep", "sleep [n]\n  Delays execution of subsequent commands for n ms\n", nullptr);
    addCmd(nullptr, "run", "run [script]\n  Executes a script file\n", nullptr);
}

console::~console()
{
    while (cCtxt != nullptr) {
        entry* first = cCtxt;
        cCtxt = static_cast<entry*>(first->next);
        delete[] first->cmd;
        delete[] first->help;
        delete first;
    }
    closeScript();
}

int console::addCmd(void* ptr, const char* c, const char* h, void (*handler)(const void*, const char*))
{
    assert(c != nullptr);
    cCtxt = new entry{copyOf(c), copyOf(h), handler, ptr, cCtxt};
    return 0;
}

void console::service()
{
    if (isSleeping()) {
        return;
    }
    const int numBytes = readLine();
    if (numBytes <= 0) {
        return;
    }
    cline[numBytes] = '\0';
    if (cline[0] == '\n') {
        memcpy(cline, last_cline, sizeof cline);
    }
    if (cline[0] != '#') {
        executeLine();
    }
    setPrompt();
}

/**
 * Whether a sleep is running and goes on. Both parts of the time have to lie ahead, so it ends at the first moment at
 * which the nanoseconds have passed, in whatever second.
 */
bool console::isSleeping()
{
    if (nextCommandTime.tv_sec <= 0) {
        return false;
    }
    struct timespec now = {};
    if (clock_gettime(CLOCK_MONOTONIC, &now) == 0 && now.tv_sec < nextCommandTime.tv_sec &&
        now.tv_nsec < nextCommandTime.tv_nsec) {
        return true;
    }
    nextCommandTime.tv_sec = 0;
    return false;
}

/** Takes the next line into `cline`; the place of its terminator, at most 99, or 0 and less if there is no line. */
int console::readLine()
{
    if (script != nullptr) {
        return readScriptLine();
    }
    return static_cast<int>(read(STDIN_FILENO, cline, longestRead));
}

int console::readScriptLine()
{
    if (fgets(cline, longestRead, script) == nullptr) {
        closeScript();
        return 0;
    }
    puts(cline);
    return static_cast<int>(strlen(cline)) + 1;
}

void console::closeScript()
{
    if (script != nullptr) {
        fclose(script);
        script = nullptr;
    }
}

/** Carries out `cline` and keeps it, known or not, for an empty line to repeat. */
void console::executeLine()
{
    const entry* command = findCommand();
    if (command != nullptr) {
        dispatch(*command);
    } else {
        puts("Command not recognized");
    }
    memcpy(last_cline, cline, sizeof last_cline);
}

/** The newest command whose word stands in front of `cline` with a blank or a newline behind it, or null. */
const console::entry* console::findCommand() const
{
    for (const entry* e = cCtxt; e != nullptr; e = static_cast<const entry*>(e->next)) {
        if (beginsWith(cline, e->cmd)) {
            const char behind = cline[strlen(e->cmd)];
            if (behind == ' ' || behind == '\n') {
                return e;
            }
        }
    }
    return nullptr;
}

/** The console's own commands are known by how the line begins, whichever command was found for it. */
void console::dispatch(const entry& command)
{
    if (beginsWith(cline, "help")) {
        showHelp();
    } else if (beginsWith(cline, "run")) {
        runScriptOfLine();
    } else if (beginsWith(cline, "sleep")) {
        startSleep();
    } else {
        command.handler(command.ptr, cline);
    }
}

/**
 * Cuts the newline off the line, and off what an empty line repeats: a repeated "run" loses one more character of the
 * name each time.
 */
void console::runScriptOfLine()
{
    // The line has at least four characters, for a blank or a newline stands behind the command's word: the name
    // begins at its end at the latest.
    cline[strlen(cline) - 1] = '\0';
    runScript(cline + 4);
}

void console::startSleep()
{
    int64_t scanned = 0;
    if (sscanf(cline, "sleep %" SCNd64, &scanned) != 1) {
        puts("Incorrect usage of sleep [n].");
        return;
    }
    if (clock_gettime(CLOCK_MONOTONIC, &nextCommandTime) != 0) {
        puts("Unable to sleep.");
        nextCommandTime.tv_sec = 0;
        return;
    }
    const uint32_t ms = unsigned32(scanned);
    addSleep(nextCommandTime, ms);
    printf("Sleeping for %u ms.\n", ms);
}

void console::runScript(const char* script_name)
{
    closeScript();
    script = fopen(script_name, "r");
    if (script != nullptr) {
        printf("Opening %s\n", script_name);
    } else {
        printf("unable to open script file (%s)\n", script_name);
    }
}

int console::scriptActive()
{
    return script != nullptr;
}

void console::showHelp()
{
    puts("Supported commands: \n");
    if (cCtxt == nullptr) {
        puts("(no commands found)");
    }
    for (const entry* e = cCtxt; e != nullptr; e = static_cast<const entry*>(e->next)) {
        puts(e->help != nullptr ? e->help : e->cmd);
    }
}

void console::setPrompt()
{
    fputs(prompt, stdout);
}
