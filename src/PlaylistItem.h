#pragma once

/**
 * One place in one playlist: the association row and what the player needs of the item it names. A value record,
 * copied freely and passed by value.
 *
 *   in:  AudioDatabase::getNextPlaylistItem fills it from the tables, read() from the wire
 *   out: insert_item / insert_playlist_item store it, write() puts its place on the wire
 *
 * Ids of items and playlists are held in 16 bits, as the wire carries them.
 */

#include "ItemType.h"

#include <cstdint>
#include <sqlite3.h>
#include <string>

class ByteArray;

class PlaylistItem
{
public:
    /** As a sequence it asks for the next free one; as an id it is refused (AudioDatabase::insert_playlist_item). */
    static constexpr int RESERVED_ID = 65535;

    /** Longest path the wire record may carry, in bytes without the terminator. */
    static constexpr unsigned int MAX_WIRE_PATH_BYTES = 1023;

    const std::string& getPath() const { return path; }
    /** Copies `newPath`, which must not be null. */
    void setPath(const char* newPath) { path = newPath; }

    uint16_t getItemID() const { return item_id; }
    void setItemID(uint16_t id) { item_id = id; }

    uint16_t getPlaylistID() const { return playlist_id; }
    void setPlaylistID(uint16_t id) { playlist_id = id; }

    uint32_t getSequence() const { return sequence; }
    void setSequence(uint32_t newSequence) { sequence = newSequence; }

    uint32_t getPlaylistItemID() const { return playlist_item_id; }
    void setPlaylistItemID(uint32_t id) { playlist_item_id = id; }

    uint32_t getLengthSamples() const { return length_in_samples; }
    void setLengthSamples(uint32_t numFrames) { length_in_samples = numFrames; }

    uint32_t getSampleRate() const { return sample_rate; }
    void setSampleRate(uint32_t rateHz) { sample_rate = rateHz; }

    ItemType getType() const { return type; }
    /** The type itself, for whoever fills it in; lives as long as the record. */
    ItemType& getTypeReference() { return type; }

    bool isJump() const { return type.isJMP(); }

    /** Fills the four fields of the current row of T_Playlist_Item_Association; path, type and figures stay. */
    void readSQLiteColumns(sqlite3_stmt* stmt);

    /** Prints one line, sequence and path, to stdout. */
    void printString() const;

    /**
     * Reads item id, path, type id, playlist id, sequence and association id, and looks the type up in the process's
     * audio database.
     *
     * @return false if the record is cut short or its path is longer than MAX_WIRE_PATH_BYTES; then only the item id
     *         may have changed
     * Thread: audio manager, for the lookup.
     */
    bool read(ByteArray* ba);

    /** Writes the association id and the sequence, the latter cut to 16 bits; false if the sequence did not fit. */
    bool write(ByteArray* ba) const;

private:
    std::string path;              ///< the item's pathname; of a jump, its target
    uint16_t item_id = 0;          ///< id in T_Items
    uint16_t playlist_id = 0;      ///< id in T_Playlists
    uint32_t sequence = 0;         ///< place in the playlist
    uint32_t playlist_item_id = 0; ///< id in T_Playlist_Item_Association
    uint32_t length_in_samples = 0;
    uint32_t sample_rate = 0; ///< Hz
    ItemType type;
    [[maybe_unused]] int* pTraceLevel = nullptr; ///< not owned; the record itself traces nothing
};
