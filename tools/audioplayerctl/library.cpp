#include "library.h"

#include "AsPlayedLog.h"
#include "audioFile.h"
#include "libraryPrivate.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <unistd.h>
#include <unordered_map>

namespace fs = std::filesystem;

namespace
{

/** A person can wait longer for a busy database than the daemon's 300 ms. */
constexpr int BUSY_TIMEOUT_MS = 3000;

constexpr size_t MAX_PATH_BYTES = 1023; ///< the column and the wire record hold 1023 and a zero
constexpr int MAX_NAME_BYTES = 127;
constexpr const char* NOT_MOUNTED = "/mnt/usb/unmounted.usb"; ///< the player starts no playlist while it is there
constexpr int NEXT_FREE = PlaylistItem::RESERVED_ID;
constexpr int MAX_SEQUENCE = 65534; ///< sequences travel in 16 bits, and 65535 asks for the next free one

/** The whole text as a decimal number, or none. */
std::optional<int> wholeNumber(const std::string& text)
{
    int value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return value;
}

void warn(const std::string& text)
{
    fprintf(stderr, "audioplayerctl: warning: %s\n", text.c_str());
}

/** The path that the daemon, with its own working directory, opens as well. */
std::string absolutePath(const std::string& file)
{
    const std::string path = fs::absolute(file).lexically_normal().string();
    if (path.size() > MAX_PATH_BYTES)
        throw Failure(EXIT_REFUSED, "the path is longer than 1023 bytes: " + path);
    return path;
}

} // namespace

struct Library::InspectedFile {
    std::string path;
    AudioFile figures;
};

Library::InspectedFile Library::jumpEntry(const std::string& path)
{
    AudioFile figures;
    figures.itemType = ItemType::JUMP;
    figures.rateHz = 1; // a rate of 0 would leave the playlist without a length
    return {path, figures};
}

// ---- opening

// It delegates, so that the destructor closes what a constructor that throws has opened.
Library::Library(const std::string& filename, access_e access) : Library()
{
    const bool isThere = fs::exists(filename);
    if (!isThere && access != CREATE)
        throw Failure(EXIT_NOT_FOUND,
                      "there is no database " + filename + " (choose one by --db, or make one by \"playlist create\")");
    if (!isThere && fs::path(filename).has_parent_path()) {
        std::error_code error;
        fs::create_directories(fs::path(filename).parent_path(), error); // a failure shows in the open that follows
    }
    if (!database.open_audio_database(filename.c_str(), false))
        throw Failure(EXIT_FAILED, "cannot open the database " + filename);
    db = database.getDatabase();
    sqlite3_busy_timeout(db, BUSY_TIMEOUT_MS);

    bool isAudioDatabase = false;
    {
        Query tables(db, "SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = 'T_Audio_Sources';",
                     "find_tables");
        isAudioDatabase = tables.next();
    }
    if (isAudioDatabase)
        return;
    if (access != CREATE)
        throw Failure(EXIT_FAILED, filename + " is not an audio database");
    database.close_audio_database();
    if (!database.open_audio_database(filename.c_str(), true))
        throw Failure(EXIT_FAILED, "cannot make the database " + filename);
    wasMissing = true;
    db = database.getDatabase();
    sqlite3_busy_timeout(db, BUSY_TIMEOUT_MS);
}

Library::~Library()
{
    database.close_audio_database();
}

void Library::expectDone(int rc, const char* what)
{
    if (rc != SQLITE_DONE)
        throw Failure(EXIT_FAILED, std::string("cannot ") + what + ": " + sqlite3_errstr(rc));
}

// ---- looking

std::vector<PlaylistRow> Library::playlists()
{
    Query query(db,
                "SELECT p.id, p.sequence, p.name, t.name, c.count, c.playlist_length_seconds FROM T_Playlists p LEFT "
                "JOIN T_Playlist_Types t ON t.id = p.playlist_type LEFT JOIN T_Playlists_Item_Count c ON c.playlist_id "
                "= p.id ORDER BY p.sequence, p.id;",
                "list_playlists");
    std::vector<PlaylistRow> rows;
    while (query.next()) {
        PlaylistRow row = {query.number(0), query.number(1), query.text(2), query.text(3), query.number(4), {}};
        if (!query.isNull(5))
            row.lengthSeconds = query.number64(5);
        rows.push_back(row);
    }
    return rows;
}

std::vector<EntryRow> Library::entries(int playlistId)
{
    Query query(db,
                "SELECT a.sequence, a.id, a.item_id, t.name, i.pathname, i.item_length_in_samples, i.item_sample_rate "
                "FROM T_Playlist_Item_Association a LEFT JOIN T_Items i ON i.id = a.item_id LEFT JOIN T_Item_Types t "
                "ON t.id = i.item_type WHERE a.playlist_id = ? ORDER BY a.sequence, a.id;",
                "list_entries");
    query.bind(1, playlistId);
    std::vector<EntryRow> rows;
    while (query.next())
        rows.push_back({query.number(0), query.number(1), query.number(2), query.text(3), query.text(4),
                        query.number64(5), query.number64(6)});
    return rows;
}

std::vector<SourceRow> Library::sources()
{
    Query query(db,
                "SELECT s.id, t.name, s.player_id, s.player_name FROM T_Audio_Sources s LEFT JOIN "
                "T_Audio_Source_Types t ON t.id = s.source_type_id ORDER BY s.id;",
                "list_sources");
    std::vector<SourceRow> rows;
    while (query.next())
        rows.push_back({query.number(0), query.text(1), query.number(2), query.text(3)});
    return rows;
}

int Library::findByIdOrName(const std::string& idOrName, const char* byId, const char* byName, const char* what)
{
    const std::optional<int> id = wholeNumber(idOrName);
    if (id.has_value()) {
        Query query(db, byId, "find_by_id");
        if (query.bind(1, *id).next())
            return *id;
    }
    Query query(db, byName, "find_by_name");
    query.bind(1, idOrName);
    if (!query.next())
        throw Failure(EXIT_NOT_FOUND, std::string("there is no ") + what + " \"" + idOrName + "\"");
    const int found = query.number(0);
    if (query.next())
        throw Failure(EXIT_REFUSED,
                      std::string("more than one ") + what + " has the name \"" + idOrName + "\": give its id instead");
    return found;
}

int Library::findPlaylist(const std::string& idOrName)
{
    return findByIdOrName(idOrName, "SELECT id FROM T_Playlists WHERE id = ?;",
                          "SELECT id FROM T_Playlists WHERE name = ?;", "playlist");
}

int Library::findSource(const std::string& idOrName)
{
    return findByIdOrName(idOrName, "SELECT id FROM T_Audio_Sources WHERE id = ?;",
                          "SELECT id FROM T_Audio_Sources WHERE player_name = ?;", "source");
}

int Library::sourceOf(int playlistId)
{
    Query query(db,
                "SELECT s.id FROM T_Audio_Sources s JOIN T_Audio_Source_Types t ON t.id = s.source_type_id WHERE "
                "t.name = 'STR_PLAYLIST' AND s.player_id = ? ORDER BY s.id;",
                "find_source_of_playlist");
    if (!query.bind(1, playlistId).next())
        throw Failure(EXIT_REFUSED,
                      "playlist " + std::to_string(playlistId) + " is no source: a cart can't be started");
    return query.number(0);
}

int Library::placeAt(int playlistId, int sequence, int& itemId)
{
    Query query(db, "SELECT id, item_id FROM T_Playlist_Item_Association WHERE playlist_id = ? AND sequence = ?;",
                "find_entry");
    if (!query.bind(1, playlistId).bind(2, sequence).next())
        throw Failure(EXIT_NOT_FOUND, "the playlist has no entry at sequence " + std::to_string(sequence));
    itemId = query.number(1);
    return query.number(0);
}

// ---- changing

int Library::createPlaylist(const std::string& name, bool isCart)
{
    if (name.empty() || name.size() > MAX_NAME_BYTES)
        throw Failure(EXIT_REFUSED, "a playlist's name has 1 to 127 bytes");
    Transaction transaction(*this);
    if (database.getPlaylistId(name.c_str()) != -1)
        throw Failure(EXIT_REFUSED, "there is a playlist \"" + name + "\" already");
    const int type = isCart ? PlaylistType::CART : PlaylistType::PLAYLIST;
    expectDone(database.insert_playlist(name.c_str(), NEXT_FREE, type), "create the playlist");
    const int id = database.getPlaylistId(name.c_str());
    transaction.commit();
    return id;
}

std::string Library::jumpPath(const std::string& target)
{
    const size_t colon = target.rfind(':'); // a name may hold one too
    const std::optional<int> sequence =
        colon == std::string::npos ? std::nullopt : wholeNumber(target.substr(colon + 1));
    if (!sequence.has_value())
        throw Failure(EXIT_USAGE, "a jump is given as PLAYLIST:SEQUENCE, not \"" + target + "\"");
    const int id = findPlaylist(target.substr(0, colon));

    // The player takes one digit for the playlist and one for the sequence.
    if (id > 9)
        throw Failure(EXIT_REFUSED,
                      "a jump can't lead to playlist " + std::to_string(id) + ": only the ids 0 to 9 can be expressed");
    if (*sequence < 0 || *sequence > 9)
        throw Failure(EXIT_REFUSED,
                      "a jump can't lead to sequence " + std::to_string(*sequence) + ": only 0 to 9 can be expressed");

    // The last character of the set I, T, E, M, _, Y, P, J, U must be the P in front of the first separator.
    return "ITEM_TYPE_JUMP:" + std::to_string(id) + ":" + std::to_string(*sequence);
}

int Library::insertItem(const InspectedFile& file)
{
    PlaylistItem item;
    item.setPath(file.path.c_str());
    item.getTypeReference().setTypeID(file.figures.itemType);
    item.setLengthSamples(file.figures.numFrames);
    item.setSampleRate(file.figures.rateHz);
    expectDone(database.insert_item(item), "add the item");
    return static_cast<int>(sqlite3_last_insert_rowid(db));
}

/**
 * Appends within the caller's transaction, which the player's own writes wait for, 300 ms and no longer: what is looked
 * up is looked up once, whatever the number of files.
 */
void Library::append(int playlistId, const std::vector<InspectedFile>& files)
{
    std::unordered_map<std::string, int> items;
    for (Query known(db, "SELECT pathname, id FROM T_Items ORDER BY id;", "list_items"); known.next();)
        items.try_emplace(known.text(0), known.number(1)); // the player, too, takes the first of a name

    Query last(db, "SELECT max(sequence) FROM T_Playlist_Item_Association WHERE playlist_id = ?;", "find_last_entry");
    last.bind(1, playlistId).next();
    int sequence = last.number(0);

    Query place(db, "INSERT INTO T_Playlist_Item_Association (sequence, playlist_id, item_id) VALUES (?, ?, ?);",
                "add_entry");
    for (const InspectedFile& file : files) {
        const auto [item, isNew] = items.try_emplace(file.path, 0);
        if (isNew)
            item->second = insertItem(file);
        if (item->second >= PlaylistItem::RESERVED_ID)
            throw Failure(EXIT_REFUSED, "the library is full: the player can't name items with ids above 65534");
        if (++sequence > MAX_SEQUENCE)
            throw Failure(EXIT_REFUSED, "the playlist is full: a sequence lies from 1 to 65534");
        place.bind(1, sequence).bind(2, playlistId).bind(3, item->second).next();
        place.reset();
    }
}

std::vector<Library::InspectedFile> Library::inspect(const std::vector<std::string>& files)
{
    std::vector<InspectedFile> inspected;
    for (const std::string& file : files) {
        AudioFile figures;
        const std::string path = absolutePath(file);
        if (!inspectAudioFile(path, figures))
            throw Failure(EXIT_NOT_FOUND, "cannot read " + path + ": " + strerror(errno));
        for (const std::string& warning : figures.warnings)
            warn(path + ": " + warning);
        inspected.push_back({path, figures});
    }
    return inspected;
}

void Library::add(int playlistId, const std::vector<std::string>& files, const std::string& jump)
{
    if (playlistId >= PlaylistItem::RESERVED_ID)
        throw Failure(EXIT_REFUSED, "the player can't name playlists with ids above 65534");
    if (files.empty() && jump.empty())
        throw Failure(EXIT_USAGE, "nothing to add: give files or --jump");

    // Everything slow, and everything that may refuse, comes before the database is held.
    std::vector<InspectedFile> inspected = inspect(files);
    if (!jump.empty())
        inspected.push_back(jumpEntry(jumpPath(jump)));

    Transaction transaction(*this);
    const std::vector<JumpTrap> before = jumpTraps();
    append(playlistId, inspected);
    expectNoNewTrap(before);
    transaction.commit();
}

bool Library::upload(const std::string& name, const std::vector<std::string>& files)
{
    const std::vector<InspectedFile> inspected = inspect(files);
    Transaction transaction(*this);
    const std::vector<JumpTrap> before = jumpTraps();
    int id = database.getPlaylistId(name.c_str());
    const bool isNew = id == -1;
    if (isNew) {
        expectDone(database.insert_playlist(name.c_str(), NEXT_FREE, PlaylistType::PLAYLIST), "create the playlist");
        id = database.getPlaylistId(name.c_str());
    } else {
        expectDone(database.delete_all_playlist_items(id), "clear the playlist");
    }
    if (id >= PlaylistItem::RESERVED_ID)
        throw Failure(EXIT_REFUSED, "the player can't name playlists with ids above 65534");
    append(id, inspected);
    expectNoNewTrap(before);
    transaction.commit();
    return isNew;
}

void Library::move(int playlistId, int from, int to)
{
    if (to < 1 || to > MAX_SEQUENCE)
        throw Failure(EXIT_REFUSED, "a sequence lies from 1 to 65534");
    Transaction transaction(*this);
    const std::vector<JumpTrap> before = jumpTraps();
    int itemId = 0;
    const int placeId = placeAt(playlistId, from, itemId);
    if (from != to) {
        // Two entries of one sequence are one to the player, which asks for the next greater: make room first.
        std::vector<EntryRow> inTheWay;
        int expected = to;
        for (const EntryRow& entry : entries(playlistId)) {
            if (entry.placeId != placeId && entry.sequence == expected) {
                inTheWay.push_back(entry);
                ++expected;
            }
        }
        for (auto entry = inTheWay.rbegin(); entry != inTheWay.rend(); ++entry)
            expectDone(database.update_playlist_item(entry->placeId, entry->sequence + 1), "move an entry");
        expectDone(database.update_playlist_item(placeId, to), "move the entry");
    }
    expectNoNewTrap(before);
    transaction.commit();
}

void Library::remove(int playlistId, int sequence)
{
    Transaction transaction(*this);
    const std::vector<JumpTrap> before = jumpTraps();
    int itemId = 0;
    const int placeId = placeAt(playlistId, sequence, itemId);
    database.delete_playlist_item(placeId, itemId);
    expectNoNewTrap(before);
    transaction.commit();
}

void Library::deletePlaylist(int playlistId)
{
    Transaction transaction(*this);
    const std::vector<JumpTrap> before = jumpTraps();
    expectDone(database.delete_playlist(playlistId), "delete the playlist");
    expectNoNewTrap(before);
    transaction.commit();
}

void Library::deletePlaylistAlone(int playlistId)
{
    Transaction transaction(*this);
    const std::vector<JumpTrap> before = jumpTraps();
    expectDone(database.delete_all_playlist_items(playlistId), "clear the playlist");
    expectDone(database.delete_playlist(playlistId), "delete the playlist");
    expectNoNewTrap(before);
    transaction.commit();
}

void Library::expectSomethingToPlay(int sourceId, bool isHere)
{
    Query query(db,
                "SELECT s.player_id FROM T_Audio_Sources s JOIN T_Audio_Source_Types t ON t.id = s.source_type_id "
                "WHERE t.name = 'STR_PLAYLIST' AND s.id = ?;",
                "find_playlist_of_source");
    if (!query.bind(1, sourceId).next())
        return; // a stream
    const std::vector<EntryRow> rows = entries(query.number(0));
    if (rows.empty())
        throw Failure(EXIT_REFUSED, "not started: the playlist has no entries, and what plays would stop for it");
    if (!isHere)
        return;
    if (access(NOT_MOUNTED, R_OK) == 0)
        throw Failure(EXIT_REFUSED, std::string("not started: ") + NOT_MOUNTED +
                                        " is there, so the player would stop what plays and start no playlist");
    const auto mayPlay = [](const EntryRow& row) {
        return row.type == "ITEM_TYPE_JUMP" || access(row.path.c_str(), R_OK) == 0;
    };
    if (std::none_of(rows.begin(), rows.end(), mayPlay))
        warn("none of the playlist's files can be read: nothing will be heard");
}

std::vector<std::string> Library::filesOnlyIn(int playlistId)
{
    Query query(
        db,
        "SELECT DISTINCT i.pathname, EXISTS (SELECT 1 FROM T_Playlist_Item_Association o WHERE o.item_id = i.id "
        "AND o.playlist_id <> a.playlist_id) FROM T_Playlist_Item_Association a JOIN T_Items i ON i.id = "
        "a.item_id WHERE a.playlist_id = ? AND i.item_type IN (1, 2) AND i.pathname <> '' ORDER BY a.sequence;",
        "find_files");
    query.bind(1, playlistId);
    std::vector<std::string> files;
    while (query.next()) {
        if (query.number(1) == 0)
            files.push_back(query.text(0));
        else
            warn(query.text(0) + " stays: another playlist uses it");
    }
    return files;
}

// ---- the as-played log

bool Library::hasAsPlayedTable()
{
    Query query(db, "SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = 'T_As_Played_Log';", "find_log");
    return query.next();
}

std::vector<AsPlayedRow> Library::asPlayedWhere(const char* condition, int value)
{
    std::vector<AsPlayedRow> rows;
    if (!hasAsPlayedTable())
        return rows;
    const std::string sql =
        "SELECT l.id, l.log_time_sec, l.log_time_usec, l.entry_type, p.name, i.pathname, l.desc, "
        "i.item_length_in_samples, i.item_sample_rate, l.playlist_id FROM T_As_Played_Log l LEFT JOIN T_Items i ON i.id = "
        "l.playlist_item_id LEFT JOIN T_Playlists p ON p.id = l.playlist_id WHERE " +
        std::string(condition) + ";";
    Query query(db, sql.c_str(), "list_as_played");
    query.bind(1, value);
    while (query.next()) {
        const int entryType = query.number(3);
        AsPlayedRow row;
        row.id = query.number(0);
        row.seconds = query.number64(1);
        row.time = asPlayedTime(row.seconds, query.number64(2));
        row.type = asPlayedWord(entryType);
        row.playlistId = query.number(9);
        row.isOfItem = entryType == AS_PLAYED_LOG_ENTRY_TYPE_START_ITEM ||
                       entryType == AS_PLAYED_LOG_ENTRY_TYPE_MISSING_PLAYLIST_ITEM;
        if (row.isOfItem && !query.isNull(4))
            row.playlist = query.text(4);
        if (row.isOfItem && !query.isNull(5))
            row.file = query.text(5);
        if (row.isOfItem && query.number64(7) > 0 && query.number64(8) > 0)
            row.lengthSeconds = query.number64(7) / query.number64(8);
        if (entryType == AS_PLAYED_LOG_ENTRY_TYPE_LOG_TRIMMED)
            row.text = query.text(6).substr(0, query.text(6).find('\n'));
        rows.push_back(row);
    }
    return rows;
}

std::vector<AsPlayedRow> Library::asPlayed(int afterId)
{
    return asPlayedWhere("l.id > ? ORDER BY l.id", afterId);
}

std::vector<AsPlayedRow> Library::finishedAsPlayed()
{
    return asPlayedWhere("l.log_time_sec < coalesce((SELECT log_time_sec FROM T_As_Played_Log WHERE entry_type = ? "
                         "ORDER BY log_time_sec DESC, log_time_usec DESC LIMIT 1), strftime('%s', 'now') + 0) ORDER BY "
                         "l.id",
                         AS_PLAYED_LOG_ENTRY_TYPE_START_ITEM);
}

std::optional<AsPlayedRow> Library::lastStarted()
{
    const std::vector<AsPlayedRow> rows =
        asPlayedWhere("l.entry_type = ? ORDER BY l.id DESC LIMIT 1", AS_PLAYED_LOG_ENTRY_TYPE_START_ITEM);
    return rows.empty() ? std::nullopt : std::optional(rows.front());
}

bool Library::hasAsPlayed(const AsPlayedRow& row)
{
    if (row.id == 0)
        return true;
    const std::vector<AsPlayedRow> found = asPlayedWhere("l.id = ?", row.id);
    return !found.empty() && found.front().time == row.time;
}

void Library::removeAsPlayed(const std::vector<AsPlayedRow>& rows)
{
    if (rows.empty())
        return;
    Transaction transaction(*this);
    for (const AsPlayedRow& row : rows) {
        Query query(db, "DELETE FROM T_As_Played_Log WHERE id = ? AND log_time_sec = CAST(? AS INTEGER);",
                    "remove_as_played");
        query.bind(1, row.id).bind(2, std::to_string(row.seconds)).next();
    }
    transaction.commit();
}

void Library::clearAsPlayed()
{
    if (!hasAsPlayedTable())
        return;
    Transaction transaction(*this);
    Query(db, "DELETE FROM T_As_Played_Log;", "clear_as_played").next();
    transaction.commit();
}
