#pragma once

/**
 * The station's library as audioplayerctl sees it: commands on the audio database, beside a daemon that plays from it.
 *
 *   in:  names, ids, sequences and files from the command line
 *   out: rows of the database; records for printing; warnings on stderr
 *
 * Every write is one short transaction, and nothing is held while a file is looked at, so the daemon, which waits 300 ms
 * at most, is never kept from the database. The first write puts the file into WAL mode: from then on a reader and the
 * one writer do not wait for each other at all. Failures are thrown as Failure.
 */

#include "AudioDatabase.h"
#include "asPlayed.h"
#include "jumps.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

struct PlaylistRow {
    int id;
    int sequence;
    std::string name;
    std::string type; ///< such as "STR_PLAYLIST"
    int count;
    std::optional<int64_t> lengthSeconds; ///< none while an item of unknown length is or was in it
};

struct EntryRow {
    int sequence;
    int placeId; ///< id in T_Playlist_Item_Association
    int itemId;
    std::string type; ///< such as "ITEM_TYPE_WAV"
    std::string path;
    int64_t numFrames;
    int64_t rateHz;
};

struct SourceRow {
    int id;           ///< what a start command names
    std::string type; ///< "STR_PLAYLIST" or "STR_STREAM"
    int playerId;     ///< id of the playlist or stream
    std::string name;
};

/** A row of T_Streams. */
struct StreamRow {
    static constexpr int LIVEWIRE = 1; ///< `type`: a Livewire destination
    static constexpr int INTERNET = 2; ///< `type`: an internet stream

    int id;
    std::string name;
    int type;
    std::string url; ///< of an internet stream
    int channel;     ///< nothing reads it
    int dst;         ///< of a Livewire destination its number, from 1
    int sourceId;    ///< what a start command names; 0 if the stream has lost its source
};

class Library
{
public:
    enum access_e { READ, WRITE, CREATE };

    /**
     * Opens the database file. READ and WRITE need an audio database that is there; CREATE makes the file and its
     * directory where missing.
     */
    Library(const std::string& filename, access_e access);
    ~Library();
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;

    /** Whether the database was made just now: by CREATE, where there was none. */
    bool isMade() const { return wasMissing; }

    std::vector<PlaylistRow> playlists();
    std::vector<EntryRow> entries(int playlistId);
    std::vector<SourceRow> sources();

    /** The playlist's id, from its id or name: digits that are no id may be a name. Throws if there is none. */
    int findPlaylist(const std::string& idOrName);

    /** The source's id, found likewise. */
    int findSource(const std::string& idOrName);

    /** The source that plays the playlist. Throws if there is none: a cart has no source. */
    int sourceOf(int playlistId);

    /** Adds a playlist, a cart if `isCart`, and answers its id. Throws if the name is taken. */
    int createPlaylist(const std::string& name, bool isCart);

    // No change of playlists is made that would leave a jump which the player does not survive: it is refused.

    /** Appends the files, in order, and then the jump "PLAYLIST:SEQUENCE" if it is not empty. All or nothing. */
    void add(int playlistId, const std::vector<std::string>& files, const std::string& jump);

    /**
     * Has the playlist hold these files and nothing else; made where there is none of that name, otherwise its id and
     * its source stay. What it held stays in the library, where the as-played log finds its names. All or nothing.
     *
     * @return true if it was made
     */
    bool upload(const std::string& name, const std::vector<std::string>& files);

    /** Gives the entry at sequence `from` the sequence `to`; entries in the way move up by one. */
    void move(int playlistId, int from, int to);

    /** Removes the entry at the sequence, and its item if no other entry uses it. The file on disk stays. */
    void remove(int playlistId, int sequence);

    /** Deletes the playlist, its entries, and the items that no other playlist uses. The files on disk stay. */
    void deletePlaylist(int playlistId);

    /** The same, but the items stay in the library, where the as-played log finds the names of the files. */
    void deletePlaylistAlone(int playlistId);

    /** Throws if the player would come, from this source on, to a jump that it does not survive. */
    void expectSurvivable(int sourceId);

    /**
     * Throws if the source is a playlist without an entry: its start would take what plays off the air for nothing.
     *
     * @param isHere  the player runs on this machine: throws too if its store is marked as not mounted, and tells if
     *                none of the files is there
     */
    void expectSomethingToPlay(int sourceId, bool isHere);

    /** The audio files of the playlist, each once; those that another playlist uses as well are told and left out. */
    std::vector<std::string> filesOnlyIn(int playlistId);

    // ---- streams

    std::vector<StreamRow> streams();

    /** The stream's row. Throws if there is none. */
    StreamRow stream(int streamId);

    /** The stream's id, from its id or name. Throws if there is none. */
    int findStream(const std::string& idOrName);

    /** The stream that the source plays; none if it plays a playlist. */
    std::optional<StreamRow> streamOf(int sourceId);

    /** Adds a stream of that name, type, URL and destination; answers it with its ids. Throws if the name is taken. */
    StreamRow addStream(const StreamRow& wanted);

    /** Overwrites the stream of that id, and renames its source. Throws if the new name is taken. */
    void editStream(const StreamRow& wanted);

    /** Removes the stream, and with it its source. What is on air stays there. */
    void removeStream(int streamId);

    // ---- the as-played log: empty as long as no player has run on the database

    /** Rows in the order of writing, those behind the row of that id only. */
    std::vector<AsPlayedRow> asPlayed(int afterId);

    /** The rows that the player reports to automation: those before the second of the newest start. */
    std::vector<AsPlayedRow> finishedAsPlayed();

    /** What went on air last, as far as the log knows: files only, and no stops. */
    std::optional<AsPlayedRow> lastStarted();

    /** Whether the row is still there; true for a row without an id. */
    bool hasAsPlayed(const AsPlayedRow& row);

    /** Removes rows that were listed. All or nothing. */
    void removeAsPlayed(const std::vector<AsPlayedRow>& rows);

    /** Removes all rows. */
    void clearAsPlayed();

private:
    Library() = default;

    class Query;
    class Transaction;
    struct InspectedFile;

    bool exists(const char* sql, int id);
    int findByIdOrName(const std::string& idOrName, const char* byId, const char* byName, const char* what);
    int placeAt(int playlistId, int sequence, int& itemId);
    std::string jumpPath(const std::string& target);
    void expectNoSource(const std::string& name);
    std::vector<JumpEntry> entriesOfAll(); ///< nothing if there is no jump at all
    std::vector<JumpTrap> jumpTraps();
    void expectNoNewTrap(const std::vector<JumpTrap>& before);
    static std::vector<InspectedFile> inspect(const std::vector<std::string>& files);
    static InspectedFile jumpEntry(const std::string& path);
    bool hasAsPlayedTable();
    std::vector<AsPlayedRow> asPlayedWhere(const char* condition, int value);
    void append(int playlistId, const std::vector<InspectedFile>& files);
    int insertItem(const InspectedFile& file);
    void expectDone(int rc, const char* what);

    AudioDatabase database;
    sqlite3* db = nullptr; ///< of `database`, not owned
    bool wasMissing = false;
};
