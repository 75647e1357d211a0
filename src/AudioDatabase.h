#pragma once

/**
 * The one gateway to the audio database: playlists, items, their places in playlists, and streams.
 *
 *   in:  ids, names and records from the players and from automation
 *   out: rows of the file "../audioplayerdatabase/audioDatabase.db"; records filled from them; SQLite's step codes
 *
 * Derived rows (audio sources, item counts, playlist lengths) are kept by triggers inside the file. Operations log and
 * return, they never throw and never stop; SQLITE_DONE from an operation that answers a code is its success. Several
 * statements of one operation are not one transaction: a failure part way leaves what was done.
 *
 * Threads: main before the audio manager starts, the audio manager afterwards. No lock.
 */

#include "ItemType.h"
#include "Playlist.h"
#include "PlaylistItem.h"
#include "PlaylistType.h"

#include <cstdint>
#include <sqlite3.h>

class AudioDatabase
{
public:
    AudioDatabase() = default;
    /** The connection is not closed: the one of the daemon lives as long as the process. */
    ~AudioDatabase() = default;
    AudioDatabase(const AudioDatabase&) = delete;
    AudioDatabase& operator=(const AudioDatabase&) = delete;

    /**
     * Opens the file, creates it and its directory where missing, and runs the whole schema, which changes nothing on
     * a file that has it. Prints to stdout whether SQLite is threadsafe and whether foreign keys are enforced. A
     * failure is logged and leaves what SQLite gave in the handle. A second call only logs.
     */
    void open_audio_database();

    /**
     * Opens another file with the same connection set-up but without a word on stdout, for programs beside the daemon.
     * No directory is made.
     *
     * @param runSchema  whether to run the schema; a reader of an existing file needs none, and so takes no write lock
     * @return true if the file is open; on failure the object stays closed and may be opened again
     */
    bool open_audio_database(const char* filename, bool runSchema);

    /** Closes the connection of the object, if it has one. The daemon never does. */
    void close_audio_database();

    /** The connection, opened by open_audio_database() if it is not open yet. Not to be closed by the caller. */
    sqlite3* getDatabase();

    // ---- playlists

    /** The id of the first playlist of that name, -1 if there is none. `name` is never null. */
    int getPlaylistId(const char* name);

    /** Fills the record from the row; a playlist that is not there logs and leaves the record unchanged. */
    void getPlaylist(int playlist_id, Playlist& playlist);

    /** Fills the record from the row; a type that is not there logs and leaves the record unchanged. */
    void getPlaylistType(int type_id, PlaylistType& playlist_type);

    /**
     * Adds a playlist, also beside one of the same name.
     *
     * @param sequence       65535 asks for the highest present plus one, any other value is taken as it stands
     * @param playlist_type  id in T_Playlist_Types
     * @return the step's code; the new id is had by getPlaylistId
     */
    int insert_playlist(const char* name, int sequence, int playlist_type);

    /** Renames and moves a playlist; its type stays. Answers the step's code, SQLITE_DONE also if there is no row. */
    int update_playlist(int playlist_id, const char* name, int sequence);

    /** Deletes a playlist, its places, and the items that no other playlist uses. Answers the last step's code. */
    int delete_playlist(int playlist_id);

    /** The number of places in the playlist, 0 if there is no such playlist (logged). */
    int getPlaylistItemCount(int playlist_id);

    /** Whole seconds of the playlist as the triggers count them, 0 if there is no such playlist (logged). */
    uint64_t getPlaylistLengthSeconds(int playlist_id);

    /**
     * Overwrites the record with each of the playlist's association rows in turn, so that it ends holding the last
     * one's values. Nothing calls it, and nothing new is to be built on it.
     */
    void getPlaylistItems(Playlist& playlist);

    // ---- items

    /** The id of the item with exactly that path, -1 if there is none. `filename` is never null. */
    int getItemIdByPath(const char* filename);

    /** Fills the record from the row; a type that is not there logs and leaves the record unchanged. */
    void getItemType(int type_id, ItemType& type);

    /** Adds an item with the record's path, type, length and rate. Answers the step's code. */
    int insert_item(PlaylistItem playlist_item);

    /**
     * The place with the lowest sequence above `sequence` in the playlist, with its item's path and type.
     *
     * @param playlist_item  filled; its length and rate keep what they held. Without a row the record is unchanged;
     *                       without an item or a path the fields of the association are filled and the path stays
     * @return true if an item with a path was found; the end of a playlist logs an error line and answers false
     */
    bool getNextPlaylistItem(int playlist_id, int sequence, PlaylistItem& playlist_item);

    // ---- places of items in playlists

    /** Adds a place. The first argument is the id of the playlist, whatever its name says. Answers the step's code. */
    int insert_playlist_asoc(int playlist_item_id, int sequence, int item_id);

    /** Gives a place (by its association id) another sequence. Answers the step's code. */
    int update_playlist_item(int playlist_item_id, int sequence);

    /** Removes all places of a playlist and leaves their items. Answers the step's code. */
    int delete_all_playlist_items(int playlist_id);

    /**
     * Finds the record's item by path, or adds it, and gives it a place in the record's playlist at the record's
     * sequence (65535: the highest plus one). Answers the last step's code.
     */
    int insert_playlist_item(PlaylistItem playlist_item);

    /** Removes a place, and its item too if no other place uses it. The file on disk stays. Always answers 0. */
    int delete_playlist_item(int playlist_item_id, int item_id);

    // ---- streams

    /** Adds a stream. Answers the step's code. */
    int insert_stream(const char* name, int stream_type_id, const char* uri, int channel, int dst);

    /** Overwrites a stream's row. Answers the step's code. */
    int update_stream(int stream_id, const char* name, int stream_type_id, const char* uri, int channel, int dst);

    /** Deletes a stream. Answers the step's code. */
    int delete_stream(int stream_id);

private:
    int delete_item(int item_id);
    int update_item(PlaylistItem playlist_item); // declared only: it has no body and nothing calls it

    sqlite3* database = nullptr; ///< the one connection of the process; null until opened
};

/** The process's audio database, made by main; null before that. Not owned by the caller. */
AudioDatabase* getAudioDatabase();
