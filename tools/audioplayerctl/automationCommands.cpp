#include "automationCommands.h"

#include "asPlayed.h"
#include "failure.h"
#include "fileList.h"
#include "library.h"
#include "xmlText.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <nlohmann/json.hpp>
#include <thread>
#include <tinyxml.h>
#include <unistd.h>

namespace
{

using Json = nlohmann::ordered_json;

constexpr size_t MAX_NAME_BYTES = 127;
constexpr int PAGE_ENTRIES = 50; ///< an answer that doesn't fit into the connection is lost, and its rows with it
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
    session.carryOut({"uploadPlaylist", {playlist}});
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
    const bool isNew = library.upload(options.playlist, files);
    printf("%s playlist \"%s\": %zu files\n", isNew ? "Created" : "Replaced", options.playlist.c_str(), files.size());
}

// ---- delete

namespace
{

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
    session.carryOut({"deletePlaylists", {playlist}});
}

void removeFiles(const std::vector<std::string>& files)
{
    bool isComplete = true;
    for (const std::string& file : files) {
        if (remove(file.c_str()) == 0) {
            printf("Removed %s\n", printable(file).c_str());
        } else {
            warn("cannot remove " + file + ": " + strerror(errno));
            isComplete = false;
        }
    }
    if (!isComplete)
        throw Failure(EXIT_FAILED, "the playlist is deleted, but not all of its files");
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
    library.deletePlaylist(id);
    if (options.isLogCleared)
        library.clearAsPlayed();
    printf("Deleted playlist %d\n", id);
    removeFiles(files);
}

// ---- play, stop

void playPlaylist(const Options& options)
{
    if (isOverTcp(options)) {
        const AutomationElement playlist = playlistElement(options.playlist);
        warn("over the automation connection the player starts the source whose id is the playlist's: whether that is "
             "this playlist can't be seen from here");
        AutomationSession session = takeSeat(options);
        session.carryOut({"startPlaylist", {playlist}});
        puts("Asked the player to start the playlist");
        return;
    }
    Library library(options.database, Library::READ);
    const int source = library.sourceOf(library.findPlaylist(options.playlist));
    library.expectSurvivable(source);
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
            const AsPlayedRow& row = page.rows.back();
            page.text += row.time + row.type + row.file.value_or("") + "\n";
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

/** Fetches and removes page after page, until none is left. */
void takeLogOverTcp(const Options& options, AutomationSession& session, AsPlayedListing& listing)
{
    int64_t numDone = 0;
    int64_t numInAll = 0;
    int64_t numUnreported = 0;
    Page before;
    for (;;) {
        const int64_t numWanted = options.limit > 0 ? options.limit - numDone : PAGE_ENTRIES;
        if (numWanted <= 0)
            break;
        const Page page = askForPage(session, static_cast<int>(std::min<int64_t>(numWanted, PAGE_ENTRIES)), true);
        numInAll = std::max(numInAll, numDone + page.numInLog);
        // The player removes the whole second of a page's last entry; the log may have grown meanwhile.
        const auto numListed = static_cast<int64_t>(before.rows.size());
        numUnreported += std::max<int64_t>(before.numInLog - numListed - page.numInLog, 0);
        if (page.rows.empty())
            break;
        if (page.text == before.text && page.numInLog >= before.numInLog)
            throw Failure(EXIT_PLAYER_ERROR, "the player does not remove what it has reported");
        for (const AsPlayedRow& row : page.rows)
            listing.write(row);
        listing.flush(); // what is removed there must be safe here
        numDone += static_cast<int64_t>(page.rows.size());
        showProgress(numDone, numInAll);
        before = page;
    }
    if (isatty(STDERR_FILENO) != 0 && numInAll > 0)
        fputs("\n", stderr);
    if (numUnreported > 0)
        warn("the player removed " + std::to_string(numUnreported) +
             " entries that it did not report: they were of the same second as the last of a page");
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
    const int64_t age = std::max<int64_t>(time(nullptr) - row.seconds, 0);
    printf("On air: %s from \"%s\" since %s (%s)\n", printable(row.file.value_or("(unknown)")).c_str(),
           printable(row.playlist.value_or("(unknown)")).c_str(), row.time.substr(0, 19).c_str(), elapsed(age).c_str());
    // The log knows starts of files only: no stops, no streams.
    if (row.lengthSeconds.has_value() && age > *row.lengthSeconds + 1)
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
    fflush(stdout);
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
    const std::optional<AsPlayedRow> row = isKnown && !isRunning ? std::nullopt : lastItem(options);
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
