#pragma once

/**
 * The station's record of what went to air.
 *
 *   in:  entries from the players and from automation, collected in a list; requests of automation
 *   out: rows of T_As_Played_Log, each with a later time than the one before it; the answers to the requests
 *
 * Callers use it as clearAllEntries, addEntry, writeToDb. The table runs between 10000 and 12000 rows, so that the
 * removal of the oldest is a rare event of 2000 rows and not one on every write.
 * Thread: audio manager. No lock. Everything here holds up the audio loop for as long as the database takes.
 */

#include <list>
#include <sqlite3.h>
#include <string>
#include <time.h>

class TiXmlElement;
class TiXmlNode;

/** What an entry tells; the numbers are stored in the table. */
enum asPlayedLogEntryType_e : int {
    AS_PLAYED_LOG_ENTRY_TYPE_START_ITEM = 0,            ///< an item was connected
    AS_PLAYED_LOG_ENTRY_TYPE_END_ITEM = 1,              ///< written by nothing
    AS_PLAYED_LOG_ENTRY_TYPE_START = 2,                 ///< written by nothing
    AS_PLAYED_LOG_ENTRY_TYPE_STOP = 3,                  ///< written by nothing
    AS_PLAYED_LOG_ENTRY_TYPE_MISSING_PLAYLIST_ITEM = 4, ///< a WAV file can't be opened
    AS_PLAYED_LOG_ENTRY_TYPE_LOG_TRIMMED = 5,           ///< old rows were removed
};

enum asPlayedLogStatus_e : int {
    AS_PLAYED_LOG_STATUS_STOPPED = 0,
    AS_PLAYED_LOG_STATUS_STARTED = 1,
};

inline constexpr int AS_PLAYED_LOG_TX_STATUS = 100; ///< status of the transmit side; all entries carry it

/** One entry; the log owns it once it has been added. */
class asPlayedLogEntry
{
public:
    asPlayedLogEntry(int itemId, int playlistId, int playlistAssocId, asPlayedLogEntryType_e entryType,
                     asPlayedLogStatus_e entryStatus, int txStatus)
        : item_id(itemId), playlist_id(playlistId), playlist_assoc_id(playlistAssocId), entry_type(entryType),
          status(entryStatus), tx_status(txStatus)
    {
    }

    int getItemID() const { return item_id; }
    void setItemID(int id) { item_id = id; }
    int getPlaylistID() const { return playlist_id; }
    void setPlaylistID(int id) { playlist_id = id; }
    int getPlaylistAssocID() const { return playlist_assoc_id; }
    void setPlaylistAssocID(int id) { playlist_assoc_id = id; }
    asPlayedLogEntryType_e getEntryType() const { return entry_type; }
    void setEntryType(asPlayedLogEntryType_e newType) { entry_type = newType; }
    asPlayedLogStatus_e getStatus() const { return status; }
    void setStatus(asPlayedLogStatus_e newStatus) { status = newStatus; }
    int getTxStatus() const { return tx_status; }
    void setTxStatus(int newStatus) { tx_status = newStatus; }

    std::string timeStr;   ///< not used
    int item_id;           ///< id in T_Items
    int playlist_id;       ///< id in T_Playlists
    int playlist_assoc_id; ///< id in T_Playlist_Item_Association
    asPlayedLogEntryType_e entry_type;
    asPlayedLogStatus_e status;
    int tx_status;       ///< status of the transmit side; all entries carry 100
    char desc[256] = ""; ///< free text, zero-terminated
};

class CAsPlayedLog
{
public:
    /**
     * Creates the table and its index where missing. Failures are reported by the SQLite layer and stop nothing.
     *
     * @param db  the connection to the audio database; not owned. On a null one every statement fails and is reported
     */
    explicit CAsPlayedLog(sqlite3* db);
    ~CAsPlayedLog();
    CAsPlayedLog(const CAsPlayedLog&) = delete;
    CAsPlayedLog& operator=(const CAsPlayedLog&) = delete;

    /** Takes ownership of `entry` (never null) and holds it until writeToDb or clearAllEntries. */
    void addEntry(asPlayedLogEntry* entry);

    /**
     * Writes the entries held, each with the time of its writing, and frees them; one that fails is logged and lost.
     * Then trims the table, and notes a trim in a row of its own.
     *
     * @return SQLITE_DONE, or the code of the last insert that failed
     */
    int writeToDb();

    /** Frees the entries held without writing them. */
    void clearAllEntries();

    /** Removes all rows. Answers 0 whatever happened; a failure is reported by the SQLite layer only. */
    int clearDbEntries();

    /** Creates the table and its index where missing, as the constructor does. Answers 0. */
    int createSqlTable();

    /**
     * Hands out a log time: the clock's, or the last one handed out plus a microsecond where the clock is not past it,
     * so that times never repeat or fall in one run, even when the clock is set back.
     *
     * @param[out] sec   seconds since the epoch
     * @param[out] usec  microseconds within that second
     * @return 0
     */
    int getCurrentTime(unsigned int& sec, unsigned int& usec);

    /** Whether automation is told what plays; true from start. */
    bool isPlayingNowEnabled() const { return playingNowEnabled; }

    /**
     * Carries out one child of a "getAsPlayedLog" transaction: for `Parameters`, reads the attributes and adds a block
     * of log entries to the answer.
     *
     * @param pParent      the child, never null; not owned
     * @param response     root of the answer, which gets the new elements
     * @param responseLog  gets a line for an element of another name
     * @return 0, also for a comment or a document; -1 for an element of another name and for any other node
     */
    int parseAsPlayedLogRequest(TiXmlNode* pParent, TiXmlElement* response, std::string& responseLog);

    /**
     * Adds `Info` and the `LogEntry` elements to the answer, oldest first, and removes what it reported if the request
     * says so. Only rows older than the second of the newest start of an item are reported, so never the item on air.
     *
     * @param response     root of the answer
     * @param responseLog  left alone: a select that fails comes out as an answer without entries
     * @return 0
     */
    int sendAsPlayedLogResponse(TiXmlElement* response, std::string& responseLog);

private:
    int insertEntry(const asPlayedLogEntry& entry);
    int writeEntries();
    int trimLog();
    unsigned int getNumEntries();
    int getOldestEntryTime(unsigned int& sec, unsigned int& usec);
    void formatTime(char* buf, unsigned int sec, unsigned int usec);

    void readParameters(const TiXmlElement& parameters);
    unsigned int getReportBound();
    sqlite3_stmt* prepareReport(unsigned int bound);
    void linkLogEntry(TiXmlElement& response, sqlite3_stmt* row, unsigned int sec, unsigned int usec);
    void deleteReported(unsigned int newest_sec, unsigned int newest_usec);

    unsigned int maxLogHistoryEntries = 10000; ///< rows kept after a trim
    unsigned int ivLogHistoryEntries = 2000;   ///< rows allowed above that before a trim
    std::list<asPlayedLogEntry*> entries;      ///< owned, not yet written
    sqlite3* database;                         ///< not owned
    timespec last_ts = {};                     ///< last time handed out, in nanoseconds; starts anew in each run
    int paramsMaxLogEntries = 0;               ///< of the request being handled; below 1 means all
    bool paramsDelete = false;                 ///< of the request being handled
    char entryDesc[256] = "";                  ///< text of the last trim
    bool playingNowEnabled = true;             ///< set by a request, not saved
};

/**
 * Appends a line to the text log beside the table, "/vorelk/audioplayerdatabase/as_played_log.txt": the local time, a
 * colon, two blanks, and the message as it stands, without a line end of its own; "No message" and a line end for an
 * empty one. Nothing calls it: the table is the log of record. A file that can't be opened loses the line silently.
 */
void writeAsPlayedLog(std::string message);
