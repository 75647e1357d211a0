#include "AsPlayedLog.h"

#include "audioLibrary/audioTypes.h"
#include "globals.h"
#include "sqlite3Wrapper.h"
#include "xmlText.h"

#include <cassert>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <tinyxml.h>

namespace
{

/** Run on every start: neither text changes anything when it is run again. */
// clang-format off
constexpr const char* CREATE_TABLE = " CREATE TABLE IF NOT EXISTS T_As_Played_Log  (id INTEGER PRIMARY KEY,  log_time_sec  UNSIGNED INTEGER, log_time_usec UNSIGNED INTEGER, playlist_assoc_id INTEGER,  playlist_id INTEGER,  playlist_item_id INTEGER, entry_type INTEGER, player_status INTEGER, tx_status INTEGER, desc VARCHAR(256));";
constexpr const char* CREATE_INDEX = " create index if not exists idx_log_time on T_As_Played_Log (log_time_sec, log_time_usec);";
constexpr const char* INSERT_ENTRY = " INSERT INTO T_As_Played_Log  (log_time_sec, log_time_usec, playlist_assoc_id, playlist_id, playlist_item_id, entry_type, player_status, tx_status, desc)  VALUES ( ?, ?, ?, ?, ?, ?, ?, ?, ? ); ";
constexpr const char* DELETE_OLDEST = " DELETE from T_As_Played_Log  WHERE id IN(select id from T_As_Played_Log  ORDER by log_time_sec ASC, log_time_usec ASC LIMIT ?); ";
constexpr const char* SELECT_NEWEST_START = " SELECT * from T_As_Played_Log  WHERE entry_type = 0 ORDER by log_time_sec DESC, log_time_usec DESC LIMIT 1";
constexpr const char* SELECT_ALL_BEFORE = " SELECT * from T_As_Played_Log  left join T_Items on T_As_Played_Log.playlist_item_id = T_items.id  left join T_Playlists on T_As_Played_log.playlist_id = T_Playlists.id  WHERE log_time_sec < ?  ORDER by log_time_sec ASC, log_time_usec ASC";
constexpr const char* SELECT_SOME_BEFORE = " SELECT * from T_As_Played_Log  left join T_Items on T_As_Played_Log.playlist_item_id = T_items.id  left join T_Playlists on T_As_Played_log.playlist_id = T_Playlists.id  WHERE log_time_sec < ?  ORDER by log_time_sec ASC, log_time_usec ASC LIMIT ?";
constexpr const char* DELETE_REPORTED = " DELETE from T_As_Played_Log  WHERE log_time_sec <= ? OR       (log_time_sec =  ? AND log_time_usec <= ?)";
// clang-format on

/** Columns of a row; the last two are there only where the row is joined with T_Items and then T_Playlists. */
enum column_e : int {
    COLUMN_SEC = 1,
    COLUMN_USEC = 2,
    COLUMN_ENTRY_TYPE = 6,
    COLUMN_DESC = 9,
    COLUMN_ITEM_PATHNAME = 11,
    COLUMN_PLAYLIST_NAME = 17,
};

constexpr long NANOSECONDS_PER_SECOND = 1000000000;
constexpr long NANOSECONDS_PER_MICROSECOND = 1000;

/** Room for a time in text form. */
constexpr size_t TIME_TEXT_BYTES = 128;

uint32_t bits(int value)
{
    return static_cast<uint32_t>(value);
}

unsigned int columnUnsigned(sqlite3_stmt* row, int column)
{
    return bits(sqlite3_column_int(row, column));
}

/** The text of a column, `otherwise` for a null one; lives until the statement is stepped or finalized. */
const char* columnText(sqlite3_stmt* row, int column, const char* otherwise)
{
    const unsigned char* text = sqlite3_column_text(row, column);
    return text == nullptr ? otherwise : reinterpret_cast<const char*>(text);
}

bool isYes(const TiXmlAttribute& attribute)
{
    return cmpIStr(attribute.Value(), "yes") == 0;
}

bool isLater(const timespec& time, const timespec& other)
{
    return time.tv_sec > other.tv_sec || (time.tv_sec == other.tv_sec && time.tv_nsec > other.tv_nsec);
}

/** What an answer calls an entry of that type. */
const char* wordOf(int entryType)
{
    switch (entryType) {
    case AS_PLAYED_LOG_ENTRY_TYPE_START_ITEM:
        return "startPlaylistItem";
    case AS_PLAYED_LOG_ENTRY_TYPE_END_ITEM:
        return "stopAudioFile";
    case AS_PLAYED_LOG_ENTRY_TYPE_MISSING_PLAYLIST_ITEM:
        return "missingPlaylistItem";
    case AS_PLAYED_LOG_ENTRY_TYPE_LOG_TRIMMED:
        return "logTrimmed";
    default: // the two that nothing writes, and whatever an old file may hold
        return "unknown";
    }
}

/** Adds the playlist and the item of a joined row to its element. */
void linkNames(TiXmlElement& logEntry, sqlite3_stmt* row, const char* unknownFile)
{
    auto* playlist = new TiXmlElement("Playlist");
    playlist->SetAttribute("name", columnText(row, COLUMN_PLAYLIST_NAME, "(unknown)"));
    logEntry.LinkEndChild(playlist);

    auto* item = new TiXmlElement("PlaylistItem");
    item->SetAttribute("type", "file");
    item->SetAttribute("filename", columnText(row, COLUMN_ITEM_PATHNAME, unknownFile));
    logEntry.LinkEndChild(item);
}

/** The text of `asctime` without its line end; empty for a time that has none. */
std::string localTimeText()
{
    const time_t now = time(nullptr);
    tm local = {};
    char text[64] = "";
    if (localtime_r(&now, &local) == nullptr || asctime_r(&local, text) == nullptr)
        return "";
    return std::string(text, strcspn(text, "\n"));
}

} // namespace

CAsPlayedLog::CAsPlayedLog(sqlite3* db) : database(db)
{
    (void)createSqlTable(); // always 0
}

CAsPlayedLog::~CAsPlayedLog()
{
    clearAllEntries();
}

int CAsPlayedLog::createSqlTable()
{
    execute_sql(database, CREATE_TABLE);
    execute_sql(database, CREATE_INDEX);
    return 0;
}

// ---- writing

void CAsPlayedLog::addEntry(asPlayedLogEntry* entry)
{
    assert(entry != nullptr);
    entries.push_back(entry);
}

void CAsPlayedLog::clearAllEntries()
{
    for (asPlayedLogEntry* entry : entries)
        delete entry;
    entries.clear();
}

int CAsPlayedLog::writeToDb()
{
    int result = writeEntries();
    entryDesc[0] = '\0';
    if (trimLog() == 0)
        return result;

    auto* trimmed = new asPlayedLogEntry(0, 0, 0, AS_PLAYED_LOG_ENTRY_TYPE_LOG_TRIMMED, AS_PLAYED_LOG_STATUS_STARTED,
                                         AS_PLAYED_LOG_TX_STATUS);
    snprintf(trimmed->desc, sizeof trimmed->desc, "%s", entryDesc);
    addEntry(trimmed);
    const int trimmedResult = writeEntries();
    if (trimmedResult != SQLITE_DONE)
        result = trimmedResult;

    // Finds nothing to do. Where the rows could not be removed it tries once more, but notes nothing: each note would
    // call for the next.
    entryDesc[0] = '\0';
    (void)trimLog();
    return result;
}

/** Writes and frees the entries held; answers SQLITE_DONE or the code of the last insert that failed. */
int CAsPlayedLog::writeEntries()
{
    int result = SQLITE_DONE;
    for (const asPlayedLogEntry* entry : entries) {
        const int rc = insertEntry(*entry);
        if (rc != SQLITE_DONE)
            result = rc;
    }
    clearAllEntries(); // a failed one isn't tried again
    return result;
}

int CAsPlayedLog::insertEntry(const asPlayedLogEntry& entry)
{
    const char* const name = "write_as_played_log";
    sqlite3_stmt* stmt = prepare_statement(database, INSERT_ENTRY, name);
    unsigned int sec = 0;
    unsigned int usec = 0;
    (void)getCurrentTime(sec, usec); // always 0
    bind_int(database, stmt, 1, sec, name, "log_time_sec");
    bind_int(database, stmt, 2, usec, name, "log_time_usec");
    bind_int(database, stmt, 3, bits(entry.playlist_assoc_id), name, "playlist_assoc_id");
    bind_int(database, stmt, 4, bits(entry.playlist_id), name, "playlist_id");
    bind_int(database, stmt, 5, bits(entry.item_id), name, "playlist_item_id");
    bind_int(database, stmt, 6, bits(entry.entry_type), name, "entry_type");
    bind_int(database, stmt, 7, bits(entry.status), name, "player_status");
    bind_int(database, stmt, 8, bits(entry.tx_status), name, "tx_status");
    bind_text(database, stmt, 9, entry.desc, name, "desc");
    const int rc = step_statement(database, stmt, name);
    if (rc != SQLITE_DONE)
        LogEvent(LOG_ERROR, "%s %d: As played log entry failed %d", __FILE__, __LINE__, rc);
    finalize_statement(database, stmt, name);
    return rc;
}

int CAsPlayedLog::clearDbEntries()
{
    sqlite3_stmt* stmt = prepare_statement(database, " DELETE from T_As_Played_Log ", "clear_db");
    (void)step_statement(database, stmt, "clear_db"); // a failure is reported below this layer, or not at all
    finalize_statement(database, stmt, "clear_db");
    return 0;
}

// ---- times

int CAsPlayedLog::getCurrentTime(unsigned int& sec, unsigned int& usec)
{
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    if (isLater(now, last_ts)) {
        last_ts = now;
    } else {
        last_ts.tv_nsec += NANOSECONDS_PER_MICROSECOND;
        if (last_ts.tv_nsec >= NANOSECONDS_PER_SECOND) {
            last_ts.tv_nsec -= NANOSECONDS_PER_SECOND;
            last_ts.tv_sec++;
        }
    }
    sec = static_cast<uint32_t>(last_ts.tv_sec);
    usec = static_cast<uint32_t>(last_ts.tv_nsec / NANOSECONDS_PER_MICROSECOND);
    return 0;
}

/** Writes "Fri Jun 20 10:00:00 2014 123.456ms", in local time, into the TIME_TEXT_BYTES bytes of `buf`. */
void CAsPlayedLog::formatTime(char* buf, unsigned int sec, unsigned int usec)
{
    const time_t seconds = static_cast<time_t>(sec);
    char text[64] = "";
    if (ctime_r(&seconds, text) == nullptr)
        text[0] = '\0'; // a year that has no text
    text[strcspn(text, "\n")] = '\0';
    // Single precision holds every microsecond of a second exactly; the quotient is a double.
    snprintf(buf, TIME_TEXT_BYTES, "%s %07.3fms", text, static_cast<double>(static_cast<float>(usec)) / 1000.0);
}

// ---- trimming

/** Removes the oldest rows of a full table and leaves the words for it in entryDesc; answers how many were to go. */
int CAsPlayedLog::trimLog()
{
    const unsigned int numEntries = getNumEntries();
    if (numEntries < maxLogHistoryEntries + ivLogHistoryEntries)
        return 0;

    unsigned int sec = 0;
    unsigned int usec = 0;
    char from[TIME_TEXT_BYTES];
    (void)getOldestEntryTime(sec, usec); // always 0
    formatTime(from, sec, usec);
    LogEvent(LOG_INFO, "%s %d: Trimming As Played Log based on entries (%d/%d+%d)", __FILE__, __LINE__,
             static_cast<int>(numEntries), static_cast<int>(maxLogHistoryEntries),
             static_cast<int>(ivLogHistoryEntries));

    const int trimEntries = static_cast<int>(numEntries - maxLogHistoryEntries);
    sqlite3_stmt* stmt = prepare_statement(database, DELETE_OLDEST, "trim_log");
    bind_int(database, stmt, 1, bits(trimEntries), "trim_log", "trimEntries");
    (void)step_statement(database, stmt, "trim_log"); // a failure costs nothing but the trim
    finalize_statement(database, stmt, "trim_log");

    char to[TIME_TEXT_BYTES];
    (void)getOldestEntryTime(sec, usec);
    formatTime(to, sec, usec);
    snprintf(entryDesc, sizeof entryDesc, "Trimmed %d entries from %.100s to %.100s\n", trimEntries, from, to);
    return trimEntries;
}

unsigned int CAsPlayedLog::getNumEntries()
{
    unsigned int numEntries = 0;
    sqlite3_stmt* stmt = prepare_statement(database, " SELECT COUNT(id) from T_As_Played_Log; ", "get_num_entries");
    if (step_statement(database, stmt, "get_num_entries") == SQLITE_ROW)
        numEntries = columnUnsigned(stmt, 0);
    finalize_statement(database, stmt, "get_num_entries");
    return numEntries;
}

int CAsPlayedLog::getOldestEntryTime(unsigned int& sec, unsigned int& usec)
{
    sqlite3_stmt* stmt = prepare_statement(
        database, " SELECT * from T_As_Played_Log  ORDER by log_time_sec ASC, log_time_usec ASC LIMIT 1",
        "get_oldest_entry");
    if (step_statement(database, stmt, "get_oldest_entry") == SQLITE_ROW) {
        sec = columnUnsigned(stmt, COLUMN_SEC);
        usec = columnUnsigned(stmt, COLUMN_USEC);
    }
    finalize_statement(database, stmt, "get_oldest_entry");
    return 0;
}

// ---- the request of automation

int CAsPlayedLog::parseAsPlayedLogRequest(TiXmlNode* pParent, TiXmlElement* response, std::string& responseLog)
{
    assert(pParent != nullptr);
    if (pParent->ToComment() != nullptr || pParent->ToDocument() != nullptr)
        return 0;
    const TiXmlElement* element = pParent->ToElement();
    if (element == nullptr)
        return -1;
    if (cmpIStr(element->ValueStr(), "Parameters") != 0) {
        responseLog += "Invalid element " + element->ValueStr() + "\n";
        return -1;
    }
    readParameters(*element);
    return sendAsPlayedLogResponse(response, responseLog);
}

void CAsPlayedLog::readParameters(const TiXmlElement& parameters)
{
    paramsDelete = false;
    paramsMaxLogEntries = 0;
    for (const TiXmlAttribute* attribute = parameters.FirstAttribute(); attribute != nullptr;
         attribute = attribute->Next()) {
        if (cmpIStr(attribute->Name(), "maxLogEntries") == 0)
            paramsMaxLogEntries = audioLibrarySpace::saturatingDecimal(attribute->Value());
        else if (cmpIStr(attribute->Name(), "delete") == 0)
            paramsDelete = isYes(*attribute);
        else if (cmpIStr(attribute->Name(), "enablePlayingNow") == 0)
            playingNowEnabled = isYes(*attribute);
    }
}

int CAsPlayedLog::sendAsPlayedLogResponse(TiXmlElement* response, std::string&)
{
    auto* info = new TiXmlElement("Info");
    info->SetAttribute("entriesInLog", static_cast<int>(getNumEntries()));
    response->LinkEndChild(info);

    unsigned int newest_sec = getReportBound();
    unsigned int newest_usec = 0;
    sqlite3_stmt* stmt = prepareReport(newest_sec);
    int numEntries = 0;
    while (step_statement(database, stmt, "read_as_played_log1") == SQLITE_ROW) {
        newest_sec = columnUnsigned(stmt, COLUMN_SEC);
        newest_usec = columnUnsigned(stmt, COLUMN_USEC);
        linkLogEntry(*response, stmt, newest_sec, newest_usec);
        ++numEntries;
    }
    info->SetAttribute("numEntries", numEntries);
    finalize_statement(database, stmt, "read_as_played_log1");

    if (numEntries > 0 && newest_sec != 0 && paramsDelete)
        deleteReported(newest_sec, newest_usec);
    return 0;
}

/** The second of the newest start of an item, from which on nothing is reported; now, if there is none. */
unsigned int CAsPlayedLog::getReportBound()
{
    unsigned int sec = 0;
    unsigned int usec = 0;
    sqlite3_stmt* stmt = prepare_statement(database, SELECT_NEWEST_START, "read_as_played_log0");
    if (step_statement(database, stmt, "read_as_played_log0") == SQLITE_ROW)
        sec = columnUnsigned(stmt, COLUMN_SEC);
    else
        (void)getCurrentTime(sec, usec); // always 0
    finalize_statement(database, stmt, "read_as_played_log0");
    return sec;
}

/** The select of the rows below the bound, as many as the request wants; the caller finalizes it. */
sqlite3_stmt* CAsPlayedLog::prepareReport(unsigned int bound)
{
    const char* const name = "read_as_played_log1";
    const bool isLimited = paramsMaxLogEntries >= 1;
    sqlite3_stmt* stmt = prepare_statement(database, isLimited ? SELECT_SOME_BEFORE : SELECT_ALL_BEFORE, name);
    bind_int(database, stmt, 1, bound, name, "newest_sec");
    if (isLimited)
        bind_int(database, stmt, 2, bits(paramsMaxLogEntries), name, "paramsMaxLogEntries");
    return stmt;
}

void CAsPlayedLog::linkLogEntry(TiXmlElement& response, sqlite3_stmt* row, unsigned int sec, unsigned int usec)
{
    char timeText[TIME_TEXT_BYTES];
    formatTime(timeText, sec, usec);
    auto* logEntry = new TiXmlElement("LogEntry");
    logEntry->SetAttribute("time", timeText);
    const int entryType = sqlite3_column_int(row, COLUMN_ENTRY_TYPE);
    response.LinkEndChild(logEntry);
    logEntry->SetAttribute("type", wordOf(entryType));
    if (entryType == AS_PLAYED_LOG_ENTRY_TYPE_START_ITEM)
        linkNames(*logEntry, row, "(unknown)");
    else if (entryType == AS_PLAYED_LOG_ENTRY_TYPE_MISSING_PLAYLIST_ITEM)
        linkNames(*logEntry, row, "(unknonw)"); // sic
    else if (entryType == AS_PLAYED_LOG_ENTRY_TYPE_LOG_TRIMMED)
        (void)linkLines(*logEntry, columnText(row, COLUMN_DESC, "")); // all of it is linked
}

/**
 * Removes what was reported. The first condition covers the whole second of the last row, so that rows of that second
 * which a limit cut off go unreported: that is how it is meant to stay.
 */
void CAsPlayedLog::deleteReported(unsigned int newest_sec, unsigned int newest_usec)
{
    const char* const bindName = "read_as_played_log1"; // sic: the binds go by the name of the select
    sqlite3_stmt* stmt = prepare_statement(database, DELETE_REPORTED, "delete_as_played_log");
    bind_int(database, stmt, 1, newest_sec, bindName, "newest_sec");
    bind_int(database, stmt, 2, newest_sec, bindName, "newest_sec");
    bind_int(database, stmt, 3, newest_usec, bindName, "newest_usec");
    (void)step_statement(database, stmt, "delete_as_played_log"); // the peer is told what was there, not what went
    finalize_statement(database, stmt, "delete_as_played_log");
}

// ---- the text log

void writeAsPlayedLog(std::string message)
{
    LogEvent(LOG_DEBUG, "%s %d: write as-played: %s", __FILE__, __LINE__, message.c_str());
    FILE* file = fopen("/vorelk/audioplayerdatabase/as_played_log.txt", "a+");
    const std::string line = localTimeText() + ":  " + (message.empty() ? "No message\n" : message);
    if (file == nullptr)
        return;
    fputs(line.c_str(), file);
    fclose(file);
}
