/**
 * Anything typed on the console and anything in a script, side by side with a plain model of the console: after each
 * step both have called the same handlers with the same lines, started the same sources and written the same text.
 *
 *   input: operations: one byte that chooses it, and its arguments
 *     type      a length, that many bytes: what the next read of standard input gives, 99 bytes at a time
 *     end       standard input is at its end for one call
 *     script    a length, that many bytes: what the next script to be opened contains; without one none can be opened
 *     clock     moves on; a second byte breaks it
 */

#include "fuzz.h"

#include "AudioService.h"
#include "console/console.h"
#include "console/consoleCommands.h"
#include "globals.h"

#include <cstring>
#include <ctime>
#include <deque>
#include <optional>

namespace
{

/** What the system answers the console while it is under test. */
struct System {
    bool inCharge = false;
    std::deque<std::string> typed;     ///< what reads will give; empty: nothing is there
    std::optional<std::string> script; ///< what the next fopen finds
    struct timespec now = {1, 0};
    bool clockIsBroken = false;
};
System machine;

/** What the console has done. */
struct Done {
    std::string written;
    std::vector<std::string> calls;
    bool operator==(const Done&) const = default;
};
Done done;

/** The next 99 bytes of what was typed. */
std::string nextRead(std::deque<std::string>& typed)
{
    std::string taken = typed.front().substr(0, 99);
    typed.front().erase(0, taken.size());
    if (typed.front().empty()) {
        typed.pop_front();
    }
    return taken;
}

} // namespace

extern "C" {

ssize_t __real_read(int fd, void* bytes, size_t numBytes);
ssize_t __wrap_read(int fd, void* bytes, size_t numBytes)
{
    if (!machine.inCharge || fd != STDIN_FILENO) {
        return __real_read(fd, bytes, numBytes);
    }
    MUST_HOLD(numBytes == 99);
    if (machine.typed.empty()) {
        return -1;
    }
    const std::string taken = nextRead(machine.typed);
    std::memcpy(bytes, taken.data(), taken.size());
    return static_cast<ssize_t>(taken.size());
}

// What fopen is with 64-bit file offsets.
FILE* __real_fopen64(const char* path, const char* mode);
FILE* __wrap_fopen64(const char* path, const char* mode)
{
    if (!machine.inCharge) {
        return __real_fopen64(path, mode);
    }
    MUST_HOLD(std::strcmp(mode, "r") == 0 && std::strlen(path) <= 95);
    if (!machine.script) {
        return nullptr;
    }
    FILE* file = tmpfile();
    MUST_HOLD(file != nullptr);
    MUST_HOLD(fwrite(machine.script->data(), 1, machine.script->size(), file) == machine.script->size());
    rewind(file);
    return file;
}

int __real_clock_gettime(clockid_t clock, struct timespec* time);
int __wrap_clock_gettime(clockid_t clock, struct timespec* time)
{
    if (!machine.inCharge || clock != CLOCK_MONOTONIC) {
        return __real_clock_gettime(clock, time);
    }
    *time = machine.now;
    return machine.clockIsBroken ? -1 : 0;
}
}

// The service that the handlers ask, in place of the real one: it has no player and no database.
AudioService::AudioService() = default;
AudioService::~AudioService() = default;
PlayerStatus AudioService::startPlayer(int id)
{
    done.calls.push_back("source " + std::to_string(id));
    return PLAYER_STARTED;
}
PlayerStatus AudioService::stopPlayer()
{
    done.calls.emplace_back("no source");
    return PLAYER_OK;
}

namespace
{

AudioService service;

/** A handler that only writes down its line. */
void written(const void* name, const char* line)
{
    done.calls.push_back(std::string(static_cast<const char*>(name)) + ": " + line);
}

struct Word {
    const char* word;
    const char* help;
};

// Newest first. The real handlers are called for the first two, "blocks" not: it trusts its user.
constexpr Word words[] = {{"start", "start it\n"},
                          {"stop", nullptr},
                          {"helpless", "not help\n"},
                          {"sleepy", "not sleep\n"},
                          {"runner", "no\n"},
                          {"stop", "is never called\n"},
                          {"graph", "records\n"},
                          {"", "blanks\n"},
                          {"run", "run [script]\n  Executes a script file\n"},
                          {"sleep", "sleep [n]\n  Delays execution of subsequent commands for n ms\n"},
                          {"help", "help\n  Displays a list of supported commands\n"}};

void addCommands(console& cmd)
{
    const auto record = [&](const char* word, const char* help) {
        cmd.addCmd(const_cast<char*>(word), word, help, written);
    };
    record("", "blanks\n");
    record("graph", "records\n");
    record("stop", "is never called\n");
    record("runner", "no\n");
    record("sleepy", "not sleep\n");
    record("helpless", "not help\n");
    cmd.addCmd(nullptr, "stop", nullptr, cmdStop);
    cmd.addCmd(nullptr, "start", "start it\n", cmdStart);
}

/** The console as docs/console.md tells it. Lines are texts up to their first zero byte. */
class Model
{
public:
    Done expected;

    void service(std::deque<std::string>& typed)
    {
        if (sleeping) {
            const bool waits =
                !machine.clockIsBroken && machine.now.tv_sec < untilSec && machine.now.tv_nsec < untilNsec;
            if (waits) {
                return;
            }
            sleeping = false;
        }
        std::string line;
        if (script) {
            if (!nextScriptLine(line)) {
                script.reset();
                return;
            }
            expected.written += line + "\n";
        } else if (typed.empty()) {
            return;
        } else {
            line = nextRead(typed);
            if (line.empty()) {
                return;
            }
            line = line.c_str();
        }
        execute(line);
        expected.written += "> ";
    }

private:
    std::optional<std::string> script;
    std::string last;
    bool sleeping = false;
    int64_t untilSec = 0;
    int32_t untilNsec = 0;

    bool nextScriptLine(std::string& line)
    {
        if (script->empty()) {
            return false;
        }
        const size_t lineEnd = script->find('\n');
        const size_t numBytes = std::min({lineEnd == std::string::npos ? script->size() : lineEnd + 1, size_t{98}});
        line = script->substr(0, numBytes).c_str();
        script->erase(0, numBytes);
        return true;
    }
    void execute(std::string line)
    {
        if (line.starts_with("\n")) {
            line = last;
        }
        if (line.starts_with("#")) {
            return;
        }
        const Word* found = nullptr;
        for (const Word& word : words) {
            const std::string text = word.word;
            const char behind = line.size() > text.size() ? line[text.size()] : '\0';
            if (found == nullptr && line.starts_with(text) && (behind == ' ' || behind == '\n')) {
                found = &word;
            }
        }
        if (found == nullptr) {
            expected.written += "Command not recognized\n";
        } else {
            carryOut(*found, line);
        }
        last = line;
    }
    void carryOut(const Word& word, std::string& line)
    {
        if (line.starts_with("help")) {
            help();
        } else if (line.starts_with("run")) {
            line.pop_back();
            run(line.size() > 4 ? line.substr(4) : "");
        } else if (line.starts_with("sleep")) {
            sleep(line);
        } else if (line.starts_with("start")) {
            if (const std::optional<int64_t> number = numberBehind(line, "start")) {
                const auto id = static_cast<int>(std::clamp<int64_t>(*number, INT32_MIN, INT32_MAX));
                expected.written += "Starting play list #" + std::to_string(id) + "\n";
                expected.calls.push_back("source " + std::to_string(id));
            }
        } else if (line.starts_with("stop")) {
            expected.written += "Stopping play list\n";
            expected.calls.emplace_back("no source");
        } else {
            expected.calls.push_back(std::string(word.word) + ": " + line);
        }
    }
    void help()
    {
        expected.written += "Supported commands: \n\n";
        for (const Word& word : words) {
            expected.written += std::string(word.help != nullptr ? word.help : word.word) + "\n";
        }
    }
    void run(const std::string& name)
    {
        script = machine.script;
        expected.written += script ? "Opening " + name + "\n" : "unable to open script file (" + name + ")\n";
    }
    void sleep(const std::string& line)
    {
        const std::optional<int64_t> number = numberBehind(line, "sleep");
        if (!number) {
            expected.written += "Incorrect usage of sleep [n].\n";
            return;
        }
        sleeping = false;
        if (machine.clockIsBroken) {
            expected.written += "Unable to sleep.\n";
            return;
        }
        // As a machine of 32 bits: a minus wraps around, what is too large either way is the largest.
        constexpr int64_t most = UINT32_MAX;
        const int64_t ms = *number < -most || *number > most ? most : *number < 0 ? *number + most + 1 : *number;
        const int64_t nsec = ms % 1000 * 1000000 + machine.now.tv_nsec;
        untilSec = machine.now.tv_sec + ms / 1000 + nsec / 1000000000;
        untilNsec = static_cast<int32_t>(static_cast<uint32_t>(nsec + nsec % 1000000000));
        sleeping = untilSec > 0;
        expected.written += "Sleeping for " + std::to_string(ms) + " ms.\n";
    }
    /** The decimal number behind a word and any white space; cut at what is far beyond 32 bits. */
    static std::optional<int64_t> numberBehind(const std::string& line, const std::string& word)
    {
        if (!line.starts_with(word)) {
            return std::nullopt;
        }
        size_t at = line.find_first_not_of(" \t\n\v\f\r", word.size());
        if (at == std::string::npos) {
            return std::nullopt;
        }
        const bool negative = line[at] == '-';
        at += line[at] == '-' || line[at] == '+' ? 1 : 0;
        if (at >= line.size() || line[at] < '0' || line[at] > '9') {
            return std::nullopt;
        }
        constexpr int64_t cut = int64_t{1} << 40;
        int64_t value = 0;
        for (; at < line.size() && line[at] >= '0' && line[at] <= '9'; at++) {
            value = std::min(value * 10 + (line[at] - '0'), cut);
        }
        return negative ? -value : value;
    }
};

/** Standard output in memory for as long as it lives. */
class CapturedOutput
{
public:
    CapturedOutput() : before(stdout) { stdout = open_memstream(&text, &numBytes); }
    ~CapturedOutput()
    {
        fclose(stdout);
        stdout = before;
        free(text);
    }
    CapturedOutput(const CapturedOutput&) = delete;
    CapturedOutput& operator=(const CapturedOutput&) = delete;
    std::string sofar()
    {
        fflush(stdout);
        return std::string(text, numBytes);
    }

private:
    FILE* before;
    char* text = nullptr;
    size_t numBytes = 0;
};

void setUp(fuzz::Input& input)
{
    switch (input.byte() % 8) {
    case 0:
        machine.typed.emplace_back(); // an end
        break;
    case 1:
        machine.script = input.text(input.byte());
        break;
    case 2:
        machine.script.reset();
        break;
    case 3: {
        const uint64_t step = input.integer(4);
        machine.now.tv_sec += static_cast<time_t>(step >> 30);
        machine.now.tv_nsec = static_cast<long>((step & 0x3fffffff) % 1000000000);
        break;
    }
    case 4:
        machine.clockIsBroken = !machine.clockIsBroken;
        break;
    default: {
        const std::string typed = input.text(input.byte());
        if (!typed.empty()) {
            machine.typed.push_back(typed);
        }
        break;
    }
    }
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::Input input(data, size);
    audioService = &service;
    machine = System();
    done = Done();
    Model model;
    model.expected.written = "> ";
    CapturedOutput output;
    {
        console cmd("> ");
        addCommands(cmd);
        while (!input.isEmpty()) {
            setUp(input);
            for (int i = 0; i < 4; i++) { // the longest thing typed and more
                std::deque<std::string> typed = machine.typed;
                machine.inCharge = true;
                cmd.service();
                machine.inCharge = false;
                model.service(typed);
                done.written = output.sofar();
                MUST_HOLD(machine.typed == typed);
                MUST_HOLD(done == model.expected);
            }
        }
    }
    return 0;
}
