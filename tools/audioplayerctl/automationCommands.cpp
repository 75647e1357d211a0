#include "automationCommands.h"

#include "asPlayed.h"
#include "failure.h"
#include "fileList.h"
#include "library.h"
#include "xmlText.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <nlohmann/json.hpp>
#include <set>
#include <thread>
#include <tinyxml.h>
#include <unistd.h>

namespace
{

using Json = nlohmann::ordered_json;

constexpr size_t MAX_NAME_BYTES = 127;
constexpr int PAGE_ENTRIES = 50;          ///< an answer that doesn't fit into the connection is lost
constexpr int64_t MAX_GROWTH = 1024;      ///< of a page: more than the player's log ever holds
constexpr size_t QUICK_UPLOAD_FILES = 20; ///< more hold the player up long enough to be heard
constexpr auto FOLLOW_INTERVAL = std::chrono::milliseconds(500);

void note(const std::string& text)
{
    fprintf(stderr, "audioplayerctl: %s\n", text.c_str());
}

void warn(const std::string& text)
{
    note("warning: " + text);
}

bool isOverTcp(const Options& options)
{
    return !options.host.empty();
}

AutomationSession takeSeat(const Options& options)
{
    return AutomationSession(parseAutomationAddress(options.host), options.isSeatTaken, options.timeoutSeconds);
}

void expectName(const std::string& name)
{
    if (name.empty() || name.size() > MAX_NAME_BYTES)
        throw Failure(EXIT_REFUSED, "a playlist's name has 1 to 127 bytes");
}

AutomationElement playlistElement(const std::string& name)
{
    expectName(name);
    return {"Playlist", {{"name", name}}, {}};
}

// ---- upload

std::string inLowerCase(std::string text)
{
    for (char& byte : text)
        byte = static_cast<char>(tolower(static_cast<unsigned char>(byte)));
    return text;
}

void uploadOverTcp(const Options& options, const std::vector<std::string>& files)
{
    AutomationElement playlist = playlistElement(options.playlist);
    for (const std::string& file : files) {
        const std::string name = usbName(file);
        const std::string lower = inLowerCase(name);
        if (lower.find(".mp3") != std::string::npos && !lower.ends_with(".mp3"))
            warn(name + ": the player takes it for an MP3 file, for \".mp3\" is in its name");
        playlist.children.push_back({"PlaylistItem", {{"filename", name}}, {}});
    }
    if (files.size() > QUICK_UPLOAD_FILES)
        warn("the player stands still while it stores " + std::to_string(files.size()) +
             " files, and what is on air may be heard to stop; an upload without --host does not hold it up");
    AutomationSession session = takeSeat(options);
    const std::vector<std::string> lines = session.carryOut({"uploadPlaylist", {playlist}});
    // The player says "success" as well where its database refuses the playlist: only the lines tell.
    const auto numAdded = static_cast<size_t>(std::count_if(
        lines.begin(), lines.end(), [](const std::string& line) { return line.ends_with(" to playlist"); }));
    if (numAdded < files.size())
        throw Failure(EXIT_PLAYER_ERROR,
                      "the player took " + std::to_string(numAdded) + " of " + std::to_string(files.size()) + " files");
}

} // namespace

void uploadPlaylist(const Options& options)
{
    const std::vector<std::string> files = expandFiles(options.files, std::cin, options.base);
    if (isOverTcp(options)) {
        uploadOverTcp(options, files);
        return;
    }
    expectName(options.playlist);
    Library library(options.database, Library::CREATE);
    if (library.isMade()) // in a working directory that is not the player's, a library that no player reads
        note("there was no database: made " + std::filesystem::absolute(options.database).lexically_normal().string());
    const bool isNew = library.upload(options.playlist, files);
    printf("%s playlist \"%s\": %zu files\n", isNew ? "Created" : "Replaced", printable(options.playlist).c_str(),
           files.size());
}

// ---- delete

namespace
{

constexpr const char* NOT_ALL_FILES = "the playlist is deleted, but not all of its files";

int64_t ageOf(const AsPlayedRow& row)
{
    return std::max<int64_t>(time(nullptr) - row.seconds, 0);
}

/** The file is shorter than the time since its start. The log knows starts of files only: no stops, no streams. */
bool isOver(const AsPlayedRow& row)
{
    return row.lengthSeconds.has_value() && ageOf(row) > *row.lengthSeconds + 1;
}

const char* yesOrNo(bool isYes)
{
    return isYes ? "yes" : "no";
}

void deleteOverTcp(const Options& options)
{
    AutomationElement playlist = playlistElement(options.playlist);
    // The player clears the whole as-played log unless it is told not to.
    playlist.attributes.emplace_back("clearAsPlayedLog", yesOrNo(options.isLogCleared));
    playlist.attributes.emplace_back("deleteAudioFiles", yesOrNo(options.isAudioDeleted));
    if (options.isAudioDeleted)
        warn("the player removes the files also where other playlists use them");
    AutomationSession session = takeSeat(options);
    const std::vector<std::string> lines = session.carryOut({"deletePlaylists", {playlist}});
    // A file that it can't remove is a "success" to the player.
    if (std::any_of(lines.begin(), lines.end(), [](const std::string& line) {
            return line.starts_with("  Deleting ") && line.find(" ERROR: ") != std::string::npos;
        }))
        throw Failure(EXIT_FAILED, NOT_ALL_FILES);
}

/** Tells of silence to come: the player looks after the playlist on air no more than after any other. */
void warnIfOnAir(Library& library, int playlistId)
{
    const std::optional<AsPlayedRow> row = library.lastStarted();
    if (row.has_value() && row->playlistId == playlistId && !isOver(*row))
        warn("the playlist went on air last. If it is still there, its file plays to the end, and then there is "
             "silence, or a test tone, until another is started");
}

void removeFiles(const std::vector<std::string>& files)
{
    bool isComplete = true;
    for (const std::string& file : files) {
        if (remove(file.c_str()) == 0) {
            printf("Removed %s\n", printable(file).c_str());
        } else {
            warn("cannot remove " + printable(file) + ": " + strerror(errno));
            isComplete = false;
        }
    }
    if (!isComplete)
        throw Failure(EXIT_FAILED, NOT_ALL_FILES);
}

} // namespace

void deletePlaylistWithLog(const Options& options)
{
    if (isOverTcp(options)) {
        deleteOverTcp(options);
        return;
    }
    Library library(options.database, Library::WRITE);
    const int id = library.findPlaylist(options.playlist);
    const std::vector<std::string> files =
        options.isAudioDeleted ? library.filesOnlyIn(id) : std::vector<std::string>();
    warnIfOnAir(library, id);
    library.deletePlaylistAlone(id);
    if (options.isLogCleared)
        library.clearAsPlayed();
    printf("Deleted playlist %d\n", id);
    removeFiles(files);
}

// ---- play, stop

namespace
{

/** The player's "success" means that it knows the name; what it starts it tells in front of its answer. */
void playOverTcp(const Options& options)
{
    const AutomationElement playlist = playlistElement(options.playlist);
    AutomationSession session = takeSeat(options);
    session.carryOut({"startPlaylist", {playlist}});
    puts("Asked the player to start the playlist");
    const AutomationDocument& info = session.lastInfo();
    const AsPlayedRow row = info.root() != nullptr ? asPlayedRow(*info.root()) : AsPlayedRow();
    const std::string file = printable(row.file.value_or("(unknown)"));
    if (!row.playlist.has_value()) {
        warn("the player did not tell what it started: nothing, or a stream, or its \"playingNow\" is switched off. "
             "It starts the source whose id is the playlist's, which need not be this playlist");
        return;
    }
    if (*row.playlist != options.playlist)
        throw Failure(EXIT_PLAYER_ERROR,
                      "what went on air is " + file + " from \"" + printable(*row.playlist) +
                          "\": over the automation connection the player starts the source whose id is the playlist's");
    printf("On air: %s from \"%s\"\n", file.c_str(), printable(*row.playlist).c_str());
}

} // namespace

void playPlaylist(const Options& options)
{
    if (isOverTcp(options)) {
        playOverTcp(options);
        return;
    }
    Library library(options.database, Library::READ);
    const int source = library.sourceOf(library.findPlaylist(options.playlist));
    library.expectSurvivable(source);
    library.expectSomethingToPlay(source, true);
    sendStart(options.control, source);
    printf("Asked the player to start source %d\n", source);
}

void stopOverTcp(const Options& options)
{
    if (!isOverTcp(options))
        throw Failure(EXIT_USAGE, "--tcp needs --host");
    AutomationSession session = takeSeat(options);
    session.carryOut({"stopPlaylist"});
    puts("Asked the player to stop");
}

// ---- as-played

namespace
{

AsPlayedListing::form_e formOf(const Options& options)
{
    return options.isCsv                          ? AsPlayedListing::CSV
           : options.isJson && options.isFollowed ? AsPlayedListing::JSON_LINES
           : options.isJson                       ? AsPlayedListing::JSON
                                                  : AsPlayedListing::TABLE;
}

/** Tells rows apart: times never repeat while the player runs. */
std::string keyOf(const AsPlayedRow& row)
{
    return row.time + row.type + row.file.value_or("");
}

/** The time without the part of the second, in either form. */
std::string secondOf(const AsPlayedRow& row)
{
    return row.time.substr(0, row.time.rfind(row.time.ends_with("ms") ? ' ' : '.'));
}

/** How many of the rows stand before the second of the last one, of which there may be more behind them. */
size_t numBeforeLastSecond(const std::vector<AsPlayedRow>& rows)
{
    size_t count = rows.size();
    while (count > 0 && secondOf(rows[count - 1]) == secondOf(rows.back()))
        --count;
    return count;
}

/** One answer to getAsPlayedLog. */
struct Page {
    std::vector<AsPlayedRow> rows;
    int64_t numInLog = 0; ///< before a delete
    std::string text;     ///< of the rows: two pages that are the same tell that nothing was removed
};

Page readPage(const AutomationDocument& answer)
{
    expectSuccess(answer);
    Page page;
    for (const TiXmlElement* child = answer.root()->FirstChildElement(); child != nullptr;
         child = child->NextSiblingElement()) {
        if (cmpIStr(child->ValueStr(), "Info") == 0)
            page.numInLog = strtoll(automationAttribute(*child, "entriesInLog", "0").c_str(), nullptr, 10);
        if (cmpIStr(child->ValueStr(), "LogEntry") == 0) {
            page.rows.push_back(asPlayedRow(*child));
            page.text += keyOf(page.rows.back()) + "\n";
        }
    }
    return page;
}

Page askForPage(AutomationSession& session, int limit, bool isDeleted)
{
    const AutomationElement parameters = {
        "Parameters", {{"maxLogEntries", std::to_string(limit)}, {"delete", yesOrNo(isDeleted)}}, {}};
    return readPage(session.request({"getAsPlayedLog", {parameters}}));
}

void showProgress(int64_t numDone, int64_t numInAll)
{
    constexpr int64_t WIDTH = 40;
    if (isatty(STDERR_FILENO) == 0 || numInAll <= 0)
        return;
    const auto filled = static_cast<size_t>(std::min(numDone, numInAll) * WIDTH / numInAll);
    fprintf(stderr, "\r[%s%s] %lld/%lld", std::string(filled, '#').c_str(),
            std::string(static_cast<size_t>(WIDTH) - filled, ' ').c_str(), static_cast<long long>(numDone),
            static_cast<long long>(numInAll));
}

/** Removes as many rows as were listed; lists what the player removes beyond them, having dropped others meanwhile. */
void removeListed(AutomationSession& session, AsPlayedListing& listing, const std::vector<AsPlayedRow>& listed)
{
    std::set<std::string> keys;
    for (const AsPlayedRow& row : listed)
        keys.insert(keyOf(row));
    for (const AsPlayedRow& row : askForPage(session, static_cast<int>(listed.size()), true).rows)
        if (!keys.contains(keyOf(row)))
            listing.write(row);
    listing.flush();
}

/**
 * Fetches and removes page after page, until none is left. The player removes the whole second of the last row that it
 * returns, reported or not; and a row is removed only when it is safe here. So each page is asked for twice: first to
 * list what is before its last second, then to remove just that.
 */
void takeLogOverTcp(const Options& options, AutomationSession& session, AsPlayedListing& listing)
{
    int64_t numDone = 0;
    int64_t numInAll = 0;
    int64_t growth = 1; // beyond 1 where one second fills a page
    Page before;
    while (options.limit == 0 || numDone < options.limit) {
        const int64_t numLeft = options.limit == 0 ? PAGE_ENTRIES : options.limit - numDone;
        const int64_t numWanted = std::min<int64_t>(numLeft, PAGE_ENTRIES) * growth;
        Page page = askForPage(session, static_cast<int>(numWanted), false);
        numInAll = std::max(numInAll, numDone + page.numInLog);
        if (page.rows.empty())
            break;
        if (growth == 1 && page.text == before.text && page.numInLog >= before.numInLog)
            throw Failure(EXIT_PLAYER_ERROR, "the player does not remove what it has reported");
        const bool isLast = static_cast<int64_t>(page.rows.size()) < numWanted;
        const size_t numWhole = isLast ? page.rows.size() : numBeforeLastSecond(page.rows);
        if (numWhole == 0 && growth < MAX_GROWTH) {
            growth *= 2;
            continue;
        }
        if (numWhole == 0)
            throw Failure(EXIT_PLAYER_ERROR, "the player has too many entries of one second");
        before = page;
        page.rows.resize(numWhole);
        for (const AsPlayedRow& row : page.rows)
            listing.write(row);
        listing.flush();
        removeListed(session, listing, page.rows);
        numDone += static_cast<int64_t>(numWhole);
        growth = 1;
        showProgress(numDone, numInAll);
    }
    if (isatty(STDERR_FILENO) != 0 && numInAll > 0)
        fputs("\n", stderr);
}

void listLogOverTcp(const Options& options)
{
    if (options.isFollowed)
        throw Failure(EXIT_USAGE, "--follow reads the database: with --host, use \"now-playing --follow\"");
    AutomationSession session = takeSeat(options);
    AsPlayedListing listing(formOf(options));
    listing.begin();
    if (options.isLogDeleted) {
        takeLogOverTcp(options, session, listing);
    } else {
        for (const AsPlayedRow& row : askForPage(session, options.limit, false).rows)
            listing.write(row);
    }
    listing.end();
}

/** Rows that the table gets from now on, for ever. `last` is the newest that was shown. */
template <typename Show> [[noreturn]] void follow(Library& library, AsPlayedRow last, const Show& show)
{
    for (;;) {
        std::this_thread::sleep_for(FOLLOW_INTERVAL);
        // Rows go oldest first or all at once, and ids then begin anew: without the last, all of them are new.
        if (!library.hasAsPlayed(last))
            last = AsPlayedRow();
        for (const AsPlayedRow& row : library.asPlayed(last.id)) {
            show(row);
            last = row;
        }
    }
}

} // namespace

void showAsPlayed(const Options& options)
{
    if (isOverTcp(options)) {
        listLogOverTcp(options);
        return;
    }
    if (options.isFollowed && options.isLogDeleted)
        throw Failure(EXIT_USAGE, "--follow and --delete do not go together");
    Library library(options.database, options.isLogDeleted ? Library::WRITE : Library::READ);
    AsPlayedListing listing(formOf(options));
    // As the player does for automation: the item on air, and what is of its second, is not taken away.
    std::vector<AsPlayedRow> rows = options.isLogDeleted ? library.finishedAsPlayed() : library.asPlayed(0);
    AsPlayedRow last = rows.empty() ? AsPlayedRow() : rows.back();
    if (options.limit > 0 && rows.size() > static_cast<size_t>(options.limit))
        rows.resize(static_cast<size_t>(options.limit));
    listing.begin();
    for (const AsPlayedRow& row : rows)
        listing.write(row);
    listing.flush();
    if (options.isFollowed)
        follow(library, last, [&listing](const AsPlayedRow& row) {
            listing.write(row);
            listing.flush();
        });
    listing.end();
    if (options.isLogDeleted)
        library.removeAsPlayed(rows);
}

// ---- now-playing, status

namespace
{

Json jsonOf(const AsPlayedRow& row)
{
    return {{"since", row.time},
            {"playlist", row.playlist.has_value() ? Json(*row.playlist) : Json()},
            {"file", row.file.has_value() ? Json(*row.file) : Json()}};
}

std::string elapsed(int64_t seconds)
{
    char text[32];
    snprintf(text, sizeof(text), "%lld:%02d:%02d", static_cast<long long>(seconds / 3600),
             static_cast<int>(seconds / 60 % 60), static_cast<int>(seconds % 60));
    return text;
}

void printItem(const AsPlayedRow& row)
{
    const int64_t age = ageOf(row);
    printf("On air: %s from \"%s\" since %s (%s)\n", printable(row.file.value_or("(unknown)")).c_str(),
           printable(row.playlist.value_or("(unknown)")).c_str(), row.time.substr(0, 19).c_str(), elapsed(age).c_str());
    if (isOver(row))
        printf("That is longer than the file (%s): the player was stopped, or plays a stream\n",
               elapsed(*row.lengthSeconds).c_str());
}

void showItem(const Options& options, const AsPlayedRow& row)
{
    if (options.isJson)
        puts(jsonOf(row).dump(options.isFollowed ? -1 : 2, ' ', false, Json::error_handler_t::replace).c_str());
    else if (options.isFollowed)
        printf("%s  %s  %s\n", row.time.c_str(), printable(row.playlist.value_or("(unknown)")).c_str(),
               printable(row.file.value_or("(unknown)")).c_str());
    else
        printItem(row);
    flushOutput(); // who follows for days ends when nobody reads any more
}

AsPlayedRow rowOfInfo(const AutomationDocument& info)
{
    AsPlayedRow row = asPlayedRow(*info.root());
    const auto now =
        std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch())
            .count();
    row.seconds = now / 1000000;
    row.time = asPlayedTime(row.seconds, now % 1000000); // it comes as the item is connected
    return row;
}

void listenOverTcp(const Options& options)
{
    AutomationSession session = takeSeat(options);
    note("the player tells of the next item as it goes on air, unless \"playingNow\" was switched off");
    do {
        const AutomationDocument info = session.nextInfo(options.isFollowed);
        if (cmpIStr(info.command, "playingNow") == 0 && info.root() != nullptr)
            showItem(options, rowOfInfo(info));
    } while (options.isFollowed);
}

/** What went on air last; none without a database, too. */
std::optional<AsPlayedRow> lastItem(const Options& options)
{
    if (!std::filesystem::exists(options.database))
        return std::nullopt;
    return Library(options.database, Library::READ).lastStarted();
}

} // namespace

void showNowPlaying(const Options& options)
{
    if (isOverTcp(options)) {
        listenOverTcp(options);
        return;
    }
    Library library(options.database, Library::READ);
    const std::optional<AsPlayedRow> row = library.lastStarted();
    if (!row.has_value() && !options.isFollowed)
        throw Failure(EXIT_NOT_FOUND, "the as-played log has no item");
    if (row.has_value())
        showItem(options, *row);
    if (options.isFollowed)
        follow(library, row.value_or(AsPlayedRow()), [&options](const AsPlayedRow& next) {
            if (next.type == asPlayedWord(0))
                showItem(options, next);
        });
}

void showStatus(const Options& options)
{
    // On a station the watchdog listens for the heartbeat: what the log tells is told all the same.
    std::optional<Failure> trouble;
    bool isRunning = false;
    try {
        isRunning = hearsHeartbeat();
        if (!isRunning)
            trouble.emplace(EXIT_DAEMON_DOWN, "no heartbeat within 2.5 s: the player is not running");
    } catch (const Failure& failure) {
        trouble.emplace(failure);
    }
    const bool isKnown = isRunning || trouble->status == EXIT_DAEMON_DOWN;
    std::optional<AsPlayedRow> row;
    try {
        if (isRunning || !isKnown)
            row = lastItem(options);
    } catch (const Failure& failure) { // that the player runs is told all the same
        if (!trouble.has_value())
            trouble.emplace(failure);
    }
    if (options.isJson) {
        const Json json = {{"running", isKnown ? Json(isRunning) : Json()},
                           {"on_air", row.has_value() ? jsonOf(*row) : Json()}};
        puts(json.dump(2, ' ', false, Json::error_handler_t::replace).c_str());
    } else {
        if (isRunning)
            puts("The player is running");
        if (row.has_value())
            printItem(*row);
    }
    if (trouble.has_value())
        throw Failure(*trouble);
}
