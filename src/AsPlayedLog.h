#pragma once

/**
 * The station's record of what went to air.
 *
 *   in:  entries from the players and from automation, collected in a list
 *   out: rows of T_As_Played_Log, written by writeToDb()
 *
 * Callers use it as clearAllEntries, addEntry, writeToDb. The rows are not kept yet: entries are taken and freed.
 * Thread: audio manager. No lock.
 */

#include <list>
#include <sqlite3.h>
#include <string>
#include <time.h>

/** What an entry tells; the numbers are stored. */
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
    /** @param db  the connection to the audio database; not owned, may be null as long as nothing is written */
    explicit CAsPlayedLog(sqlite3* db);
    ~CAsPlayedLog();
    CAsPlayedLog(const CAsPlayedLog&) = delete;
    CAsPlayedLog& operator=(const CAsPlayedLog&) = delete;

    /** Takes ownership of `entry` and holds it until writeToDb or clearAllEntries. */
    void addEntry(asPlayedLogEntry* entry);

    /** Frees the entries held. Answers SQLITE_OK: no row was written. */
    int writeToDb();

    /** Frees the entries held without writing them. */
    void clearAllEntries();

    /** Answers 0. */
    int clearDbEntries();

    /** Answers 0. */
    int createSqlTable();

    /** Answers 0 and leaves the arguments alone. */
    int getCurrentTime(unsigned int& sec, unsigned int& usec);

    /** Whether automation is told what plays; true from start. */
    bool isPlayingNowEnabled() const { return playingNowEnabled; }

private:
    unsigned int maxLogHistoryEntries = 10000; ///< rows kept after a trim
    unsigned int ivLogHistoryEntries = 2000;   ///< rows allowed above that before a trim
    std::list<asPlayedLogEntry*> entries;      ///< owned, not yet written
    sqlite3* database;                         ///< not owned
    timespec last_ts = {};                     ///< last time handed out
    int paramsMaxLogEntries = 0;               ///< of the request being handled
    bool paramsDelete = false;                 ///< of the request being handled
    char entryDesc[256] = "";                  ///< text of the last trim
    bool playingNowEnabled = true;
};
