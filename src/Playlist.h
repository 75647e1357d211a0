#pragma once

/**
 * One row of T_Playlists with its type looked up. A value record, copied freely; AudioDatabase::getPlaylist fills it.
 */

#include "PlaylistType.h"

#include <string>

class Playlist
{
public:
    /** The id of a playlist that was not found: wider than any id the wire can carry. */
    static constexpr int NO_PLAYLIST_ID = 65536;

    const std::string& getName() const { return name; }
    void setName(const std::string& newName) { name = newName; }

    int getPlaylistID() const { return playlist_id; }
    void setPlaylistID(int id) { playlist_id = id; }

    const PlaylistType& getPlaylistType() const { return playlist_type; }
    void setPlaylistType(const PlaylistType& newType) { playlist_type = newType; }

    int getSequence() const { return sequence; }
    void setSequence(int newSequence) { sequence = newSequence; }

private:
    std::string name;
    int playlist_id = NO_PLAYLIST_ID; ///< id in T_Playlists
    PlaylistType playlist_type;
    int sequence = 0;                            ///< place among the playlists; means nothing for uploaded ones
    [[maybe_unused]] int* pTraceLevel = nullptr; ///< not owned; the record itself traces nothing
};
