#include "audioLibrary/shoutcastPlaylist.h"

#include "audioLibrary/audioTrace.h"

#include <algorithm>
#include <cstdio>
#include <memory>

namespace audioLibrarySpace
{

namespace
{

constexpr const char* lineEnds = "\r\n";
constexpr int32_t maxPlsEntries = 100;
constexpr uint16_t httpPort = 80;
constexpr size_t maxFieldBytes = 4096; ///< of an entry's text; no more of a URL can be asked for

/** The letters of ASCII alone: what a stranger's bytes mean is not for the locale to say. */
char lowered(char letter)
{
    return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
}

/** Cuts a URL through its "://", and answers where that stood: there the search for what ends the host begins. */
size_t cutScheme(std::string& url)
{
    const size_t schemeEnd = url.find("://");
    if (schemeEnd == std::string::npos) {
        return 0;
    }
    url.erase(0, schemeEnd + 3);
    return schemeEnd;
}

/** The first `numBytes` bytes are no longer wanted; more than there are is all of them. */
void cutFront(std::string& text, size_t numBytes)
{
    text.erase(0, std::min(numBytes, text.size()));
}

/** What stands from `from` up to `to`; all the rest when `to` does not follow `from`. Cut to what a field may hold. */
std::string textBetween(const std::string& text, size_t from, size_t to)
{
    const size_t begin = std::min(from, text.size());
    const size_t length = to >= begin ? to - begin : std::string::npos;
    return text.substr(begin, std::min(length, maxFieldBytes));
}

} // namespace

// ---- entries

CShoutcastPlaylistItem::operator std::string() const
{
    return "URL:    (" + file + ")\n" + "Title:  (" + title + ")\n" + "Length: (" + length + ")\n";
}

void clearPlaylist(shoutcastPlaylist& playlist)
{
    for (CShoutcastPlaylistItem* item : playlist) {
        delete item;
    }
    playlist.clear();
}

// ---- texts and URLs

size_t findStr(const std::string& text, const char* sought)
{
    const std::string wanted = sought;
    const auto sameLetter = [](char a, char b) { return lowered(a) == lowered(b); };
    for (size_t i = 0; i + wanted.size() < text.size(); i++) {
        if (std::equal(wanted.begin(), wanted.end(), text.begin() + static_cast<std::ptrdiff_t>(i), sameLetter)) {
            return i;
        }
    }
    return std::string::npos;
}

streamStatus formatUrl(std::string& url)
{
    std::transform(url.begin(), url.end(), url.begin(), lowered);
    return STREAM_OK;
}

std::string extractHostname(std::string url)
{
    (void)formatUrl(url); // always STREAM_OK
    const size_t from = cutScheme(url);
    return url.substr(0, url.find_first_of(":/", from));
}

uint16_t extractPort(std::string url)
{
    (void)formatUrl(url); // always STREAM_OK
    const size_t from = cutScheme(url);
    const size_t colon = url.find(':', from);
    if (colon == std::string::npos) {
        return httpPort;
    }
    const std::string behind = url.substr(colon + 1);
    return static_cast<uint16_t>(saturatingDecimal(behind.substr(0, behind.find('/')).c_str())); // the low 16 bits
}

std::string extractPath(std::string url)
{
    (void)formatUrl(url); // always STREAM_OK
    if (url.find("://") == std::string::npos) {
        return "/";
    }
    const size_t from = cutScheme(url);
    const size_t slash = url.find('/', from);
    return slash == std::string::npos ? "/" : url.substr(slash);
}

// ---- .pls

namespace
{

/** The text behind the first '=', up to the line's end. Without a '=' it is the text from its start. */
std::string valueOfLine(const std::string& text)
{
    return textBetween(text, text.find('=') + 1, text.find_first_of(lineEnds)); // npos + 1 is 0
}

/** Cuts `text` to begin with the first `key`; false when there is none. */
bool cutToKey(std::string& text, const char* key)
{
    const size_t at = findStr(text, key);
    if (at == std::string::npos) {
        return false;
    }
    text.erase(0, at);
    return true;
}

/** Whether the line that `text` begins with has a value: a '=' with the line's end behind it. */
bool lineHasValue(const std::string& text)
{
    const size_t equalSign = text.find('=');
    const size_t lineEnd = text.find_first_of(lineEnds);
    return equalSign != std::string::npos && lineEnd != std::string::npos && lineEnd > equalSign;
}

/** The next entry of a .pls, the caller's; null at the end of the list, or where an entry is not whole. */
std::unique_ptr<CShoutcastPlaylistItem> nextPlsEntry(std::string& text, int* pTraceLevel)
{
    if (!cutToKey(text, "File")) {
        AUDIO_TRACE_PUTS(3, "End of playlist (file)");
        return nullptr;
    }
    auto item = std::make_unique<CShoutcastPlaylistItem>();
    printf("substring 1:\n%s\n", text.c_str());
    if (!lineHasValue(text)) {
        return nullptr;
    }
    item->file = valueOfLine(text);
    if (!cutToKey(text, "Title")) {
        AUDIO_TRACE_PUTS(3, "End of playlist(title)");
        return nullptr;
    }
    printf("substring 2:\n%s\n", text.c_str());
    item->title = valueOfLine(text);
    if (!cutToKey(text, "Length")) {
        AUDIO_TRACE_PUTS(3, "End of playlist(length)");
        return nullptr;
    }
    printf("substring 3:\n%s\n", text.c_str());
    item->length = valueOfLine(text);
    return item;
}

} // namespace

bool parsePls(std::string& text, shoutcastPlaylist& playlist, int* pTraceLevel)
{
    static const std::string countKey = "numberofentries=";
    if (!cutToKey(text, "[playlist]")) {
        std::fputs("No playlist definition found\n", stderr);
        return false;
    }
    const size_t countAt = findStr(text, countKey.c_str());
    if (countAt == std::string::npos) {
        std::fputs("Play list has no server entries\n", stderr);
        return false;
    }
    const int32_t numEntries =
        std::clamp(saturatingDecimal(text.c_str() + countAt + countKey.size()), 0, maxPlsEntries);
    clearPlaylist(playlist);
    for (int32_t i = 0; i < numEntries; i++) {
        AUDIO_TRACE_PRINTF(3, "Entry %d\n", i);
        std::unique_ptr<CShoutcastPlaylistItem> item = nextPlsEntry(text, pTraceLevel);
        if (item == nullptr) {
            break;
        }
        playlist.push_back(item.release());
    }
    return true;
}

// ---- M3U

void parseM3u(std::string& text, shoutcastPlaylist& playlist)
{
    clearPlaylist(playlist);
    while (!text.empty()) {
        const size_t urlAt = findStr(text, "http://");
        printf("Strpos: %d\n", static_cast<int>(urlAt));
        if (urlAt == std::string::npos) {
            return;
        }
        const size_t lineEnd = text.find_first_of(lineEnds, urlAt);
        printf("Strpos1: %d\n", static_cast<int>(lineEnd));
        const std::string url = textBetween(text, urlAt, lineEnd);
        cutFront(text, lineEnd + 1); // npos + 1 is 0
        playlist.push_back(new CShoutcastPlaylistItem{url, url, ""});
        printf("rawdata:\n%s\n", text.c_str());
        if (lineEnd == std::string::npos) {
            return; // nothing was cut: the same URL would be found for ever
        }
    }
}

// ---- XSPF

namespace
{

/** Takes the title off the front of `text`; empty, and nothing is taken, unless it has both its tags. */
std::string takeXspfTitle(std::string& text)
{
    static const std::string openTag = "<title>";
    static const std::string closeTag = "</title>";
    const size_t openAt = findStr(text, openTag.c_str());
    const size_t closeAt = findStr(text, closeTag.c_str());
    printf("strpos: %d ", static_cast<int>(openAt));
    printf("strpos2: %d \n", static_cast<int>(closeAt));
    if (openAt == std::string::npos || closeAt == std::string::npos) {
        return "";
    }
    std::string title = textBetween(text, openAt + openTag.size(), closeAt);
    cutFront(text, closeAt + closeTag.size());
    return title;
}

/** Cuts `text` to what follows its last line; nothing is cut from a text without a line end. */
void cutToLastLine(std::string& text)
{
    cutFront(text, text.find_last_of(lineEnds) + 1); // npos + 1 is 0
}

} // namespace

void parseXspf(std::string& text, shoutcastPlaylist& playlist)
{
    static const std::string openTag = "<location>";
    constexpr size_t trackEnd = 20; // sic: not the 11 of the tag; "</location>" and what closes the track behind it
    clearPlaylist(playlist);
    const std::string title = takeXspfTitle(text);
    while (!text.empty()) {
        const size_t openAt = findStr(text, openTag.c_str());
        const size_t closeAt = findStr(text, "</location>");
        if (openAt == std::string::npos || closeAt == std::string::npos) {
            cutToLastLine(text);
            return; // what is left of the last line holds no entry either
        }
        playlist.push_back(new CShoutcastPlaylistItem{textBetween(text, openAt + openTag.size(), closeAt), title, ""});
        cutFront(text, closeAt + trackEnd);
    }
}

} // namespace audioLibrarySpace
