#include "faultScript.h"

#include "textParsing.h"

#include <algorithm>
#include <cerrno>

namespace vcard
{
namespace
{

struct StepRow {
    const char* name;
    Step step;
    int32_t usualError;
};
constexpr StepRow stepRows[] = {
    {"open", Step::open, EBUSY},     {"hwParams", Step::hwParams, EINVAL}, {"swParams", Step::swParams, EINVAL},
    {"prepare", Step::prepare, EIO}, {"start", Step::start, EIO},          {"transfer", Step::transfer, EIO},
};

struct EventRow {
    const char* name;
    Event event;
};
constexpr EventRow eventRows[] = {
    {"xrun", Event::xrun},   {"gone", Event::gone},     {"suspend", Event::suspend},
    {"stall", Event::stall}, {"resume", Event::resume}, {"transfer", Event::transfer},
};

struct ErrorRow {
    const char* name;
    int32_t number;
};
constexpr ErrorRow errorRows[] = {
    {"EBUSY", EBUSY},   {"EINVAL", EINVAL}, {"EIO", EIO},       {"ENODEV", ENODEV}, {"ENOENT", ENOENT},
    {"EAGAIN", EAGAIN}, {"EPIPE", EPIPE},   {"EBADFD", EBADFD}, {"ENOMEM", ENOMEM}, {"ESTRPIPE", ESTRPIPE},
    {"EACCES", EACCES}, {"EPERM", EPERM},   {"ENXIO", ENXIO},
};

/** Cuts what follows @p mark off @p word. @return false if the mark is not there */
bool cutAt(std::string& word, char mark, std::string& rest)
{
    const size_t at = word.find(mark);
    if (at == std::string::npos)
        return false;
    rest = word.substr(at + 1);
    word.resize(at);
    return true;
}

bool parseEvent(std::string word, TimedFault& fault)
{
    std::string frames;
    if (!cutAt(word, '@', frames) || !parseNumber(frames, fault.frames))
        return false;
    for (const EventRow& row : eventRows) {
        if (word == row.name) {
            fault.event = row.event;
            return true;
        }
    }
    return false;
}

bool parseCall(std::string word, CallFault& fault)
{
    std::string error, count, skip;
    const bool hasError = cutAt(word, '=', error);
    const bool hasCount = cutAt(word, '*', count);
    const bool hasSkip = cutAt(word, '+', skip);
    for (const StepRow& row : stepRows) {
        if (word != row.name)
            continue;
        fault = {row.step, 0, hasCount ? -1 : 1, hasError ? errorNumber(error) : row.usualError};
        return fault.error > 0 && (!hasSkip || parseNumber(skip, fault.skip)) &&
               (count.empty() || parseNumber(count, fault.remaining));
    }
    return false;
}

} // namespace

int32_t errorNumber(const std::string& name)
{
    for (const ErrorRow& row : errorRows) {
        if (name == row.name)
            return row.number;
    }
    int32_t number = 0;
    return parseNumber(name, number) && number > 0 ? number : 0;
}

bool parseFaults(const std::string& text, FaultScript& script, std::string& badWord)
{
    FaultScript parsed;
    for (const std::string& word : splitWords(text)) {
        TimedFault event{};
        CallFault call{};
        if (parseEvent(word, event)) {
            parsed.events.push_back(event);
        } else if (parseCall(word, call)) {
            parsed.calls.push_back(call);
        } else {
            badWord = word;
            return false;
        }
    }
    std::stable_sort(parsed.events.begin(), parsed.events.end(),
                     [](const TimedFault& a, const TimedFault& b) { return a.frames < b.frames; });
    script = parsed;
    return true;
}

} // namespace vcard
