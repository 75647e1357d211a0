#pragma once

/**
 * What kind of playlist a playlist is: a row of T_Playlist_Types. A value record, copied freely.
 */

#include <sqlite3.h>
#include <string>

class PlaylistType
{
public:
    // The ids that a fresh database seeds, in the order of its seed texts (AudioDatabase.cpp).
    static constexpr int PLAYLIST = 1;
    static constexpr int CART = 2;

    int getTypeID() const { return type_id; }
    const std::string& getName() const { return name; }

    /** Fills the record from the current row of T_Playlist_Types; a null name leaves the name as it was. */
    void readSQLColumns(sqlite3_stmt* stmt);

private:
    int type_id = 0;  ///< id in T_Playlist_Types; 0 is no type
    std::string name; ///< such as "STR_PLAYLIST"
};
