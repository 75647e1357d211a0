#include "asPlayed.h"

#include "AutomationClient.h"
#include "failure.h"
#include "xmlText.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <nlohmann/json.hpp>
#include <tinyxml.h>

namespace
{

using Json = nlohmann::ordered_json;

constexpr int START_ITEM = 0;
constexpr int MISSING_ITEM = 4;

const TiXmlElement* childOf(const TiXmlElement& element, const char* name)
{
    for (const TiXmlElement* child = element.FirstChildElement(); child != nullptr; child = child->NextSiblingElement())
        if (cmpIStr(child->ValueStr(), name) == 0)
            return child;
    return nullptr;
}

/** The attribute, unless the player says that it doesn't know it. */
std::optional<std::string> known(const TiXmlElement* element, const char* name)
{
    if (element == nullptr)
        return std::nullopt;
    const std::string value = automationAttribute(*element, name, "(unknown)");
    if (value == "(unknown)" || value == "(unknonw)") // sic: as the player writes it for a missing file
        return std::nullopt;
    return value;
}

std::string quoted(const std::string& field)
{
    std::string text = "\"";
    for (const char byte : field)
        text += byte == '"' ? std::string("\"\"") : std::string(1, byte);
    return text + "\"";
}

Json orNull(const std::optional<std::string>& text)
{
    return text.has_value() ? Json(*text) : Json();
}

std::string jsonOf(const AsPlayedRow& row)
{
    Json json = {{"time", row.time}, {"type", row.type}};
    if (row.isOfItem) {
        json["playlist"] = orNull(row.playlist);
        json["file"] = orNull(row.file);
    }
    if (!row.text.empty())
        json["text"] = row.text;
    return json.dump(-1, ' ', false, Json::error_handler_t::replace); // names may hold bytes that are no UTF-8
}

std::string csvOf(const AsPlayedRow& row)
{
    return quoted(row.time) + "," + quoted(row.type) + "," + quoted(row.playlist.value_or("")) + "," +
           quoted(row.file.value_or("")) + "," + quoted(row.text);
}

std::string lineOf(const AsPlayedRow& row)
{
    std::string line = row.time + "  " + row.type;
    if (row.isOfItem)
        line += "  " + row.playlist.value_or("(unknown)") + "  " + row.file.value_or("(unknown)");
    if (!row.text.empty())
        line += "  " + row.text;
    return printable(line);
}

} // namespace

const char* asPlayedWord(int entryType)
{
    switch (entryType) {
    case START_ITEM:
        return "startPlaylistItem";
    case 1:
        return "stopAudioFile";
    case MISSING_ITEM:
        return "missingPlaylistItem";
    case 5:
        return "logTrimmed";
    default:
        return "unknown";
    }
}

std::string asPlayedTime(int64_t seconds, int64_t microseconds)
{
    const time_t clock = seconds;
    tm parts = {};
    localtime_r(&clock, &parts);
    char day[32];
    strftime(day, sizeof(day), "%Y-%m-%d %H:%M:%S", &parts);
    char text[64];
    snprintf(text, sizeof(text), "%s.%06d", day, static_cast<int>(microseconds));
    return text;
}

std::string asPlayedTime(const std::string& playersText)
{
    tm parts = {};
    const char* rest = strptime(playersText.c_str(), "%a %b %e %H:%M:%S %Y", &parts);
    int milliseconds = 0;
    int microseconds = 0;
    int length = 0;
    if (rest == nullptr || sscanf(rest, " %3d.%3dms%n", &milliseconds, &microseconds, &length) != 2 || length == 0 ||
        milliseconds < 0 || microseconds < 0 || rest[length] != '\0')
        return playersText;
    char day[32];
    strftime(day, sizeof(day), "%Y-%m-%d %H:%M:%S", &parts);
    char text[64];
    snprintf(text, sizeof(text), "%s.%03d%03d", day, milliseconds, microseconds);
    return text;
}

AsPlayedRow asPlayedRow(const TiXmlElement& logEntry)
{
    AsPlayedRow row;
    row.time = asPlayedTime(automationAttribute(logEntry, "time"));
    row.type = automationAttribute(logEntry, "type");
    const TiXmlElement* playlist = childOf(logEntry, "Playlist");
    const TiXmlElement* item = childOf(logEntry, "PlaylistItem");
    row.isOfItem = playlist != nullptr || item != nullptr;
    row.playlist = known(playlist, "name");
    row.file = known(item, "filename");
    for (const std::string& line : automationLines(logEntry))
        if (!row.isOfItem && !line.empty())
            row.text += (row.text.empty() ? "" : "\n") + line;
    return row;
}

std::string printable(const std::string& text)
{
    std::string shown = text;
    for (char& byte : shown)
        if (static_cast<unsigned char>(byte) < ' ' || byte == '\x7f')
            byte = '?';
    return shown;
}

void AsPlayedListing::begin()
{
    if (form == CSV)
        puts("\"time\",\"type\",\"playlist\",\"file\",\"text\"");
    if (form == JSON)
        fputs("[", stdout);
}

void AsPlayedListing::write(const AsPlayedRow& row)
{
    switch (form) {
    case TABLE:
        puts(lineOf(row).c_str());
        break;
    case CSV:
        puts(csvOf(row).c_str());
        break;
    case JSON:
        printf("%s\n  %s", isFirst ? "" : ",", jsonOf(row).c_str());
        break;
    case JSON_LINES:
        puts(jsonOf(row).c_str());
        break;
    }
    isFirst = false;
}

void AsPlayedListing::end()
{
    if (form == JSON)
        puts(isFirst ? "]" : "\n]");
    flush();
}

void AsPlayedListing::flush()
{
    flushOutput();
}

void flushOutput()
{
    if (fflush(stdout) != 0 || ferror(stdout) != 0)
        throw Failure(EXIT_FAILED, std::string("cannot write the listing: ") + strerror(errno));
}
