#include "settings.h"

#include "textParsing.h"

#include <functional>
#include <map>

namespace vcard
{
namespace
{

using Setter = std::function<bool(Settings&, const std::string&)>;

Setter text(std::string Settings::*field)
{
    return [field](Settings& settings, const std::string& value) {
        settings.*field = value;
        return true;
    };
}

template <typename Number> Setter number(Number Settings::*field, Number least)
{
    return [field, least](Settings& settings, const std::string& value) {
        Number parsed{};
        if (!parseNumber(value, parsed) || !(parsed >= least))
            return false;
        settings.*field = parsed;
        return true;
    };
}

bool parseRange(const std::string& value, Range& range)
{
    const size_t colon = value.find(':');
    Range parsed{};
    if (!parseNumber(value.substr(0, colon), parsed.least))
        return false;
    parsed.most = parsed.least;
    if (colon != std::string::npos && !parseNumber(value.substr(colon + 1), parsed.most))
        return false;
    // Contradictory limits are let through: that is how a card without any configuration is made.
    range = parsed;
    return parsed.least > 0 && parsed.most > 0;
}

Setter range(Range Settings::*field)
{
    return [field](Settings& settings, const std::string& value) {
        Range parsed{};
        if (!parseRange(value, parsed))
            return false;
        settings.*field = parsed;
        return true;
    };
}

Setter faults(FaultScript Settings::*field)
{
    return [field](Settings& settings, const std::string& value) {
        std::string badWord;
        return parseFaults(value, settings.*field, badWord);
    };
}

bool setGap(Settings& settings, const std::string& value)
{
    if (value != "silence" && value != "none")
        return false;
    settings.gapSilence = value == "silence";
    return true;
}

bool setFormats(Settings& settings, const std::string& value)
{
    const std::vector<std::string> words = splitWords(value);
    for (const std::string& word : words) {
        if (word != "S16_LE" && word != "S32_LE")
            return false;
    }
    settings.formats = words;
    return !words.empty();
}

bool setRates(Settings& settings, const std::string& value)
{
    std::vector<unsigned> rates;
    for (const std::string& word : splitWords(value)) {
        unsigned rate = 0;
        if (!parseNumber(word, rate) || rate == 0)
            return false;
        rates.push_back(rate);
    }
    if (rates.empty())
        return false;
    settings.rates = rates;
    return true;
}

bool setCard(Settings& settings, const std::string& value)
{
    // The name becomes a file name in the card directory and must stay inside it.
    if (value.find('/') != std::string::npos || value.front() == '.')
        return false;
    settings.card = value;
    return true;
}

constexpr double mostNegativePpm = -999999.0; // the clock must go forward

const std::map<std::string, Setter>& setters()
{
    static const std::map<std::string, Setter> table = {
        {"card", setCard},
        {"device", number(&Settings::device, 0U)},
        {"cards", text(&Settings::cardsDirectory)},
        {"log", text(&Settings::logPath)},
        {"record", text(&Settings::recordDirectory)},
        {"source", text(&Settings::sourceDirectory)},
        {"ppm", number(&Settings::ppm, mostNegativePpm)},
        {"capturePpm", number(&Settings::capturePpm, mostNegativePpm)},
        {"forgiveMs", number(&Settings::forgiveMs, 0.0)},
        {"gap", setGap},
        {"toneHz", number(&Settings::toneHz, 0.0)},
        {"toneDb", number(&Settings::toneDb, -1000.0)},
        {"stallTimeoutMs", number(&Settings::stallTimeoutMs, 0.0)},
        {"recordLimitBytes", number(&Settings::recordLimitBytes, uint64_t{1})},
        {"faults", faults(&Settings::faults)},
        {"captureFaults", faults(&Settings::captureFaults)},
        {"formats", setFormats},
        {"channels", range(&Settings::channels)},
        {"rates", setRates},
        {"periods", range(&Settings::periods)},
        {"periodBytes", range(&Settings::periodBytes)},
        {"bufferBytes", range(&Settings::bufferBytes)},
    };
    return table;
}

} // namespace

bool Settings::set(const std::string& key, const std::string& value)
{
    const auto row = setters().find(key);
    if (row == setters().end())
        return false;
    return value.empty() || row->second(*this, value);
}

std::string Settings::fileName(bool capture) const
{
    return card + "-" + std::to_string(device) + (capture ? "-capture" : "-playback");
}

} // namespace vcard
