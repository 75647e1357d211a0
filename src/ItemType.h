#pragma once

/**
 * What kind of thing a playlist item is: a row of T_Item_Types. A value record: copied freely, owns nothing outside
 * itself, touches no thread.
 */

#include <sqlite3.h>
#include <string>

class ItemType
{
public:
    // The ids that a fresh database seeds, in the order of its seed texts (AudioDatabase.cpp).
    static constexpr int WAV = 1;
    static constexpr int MP3 = 2;
    static constexpr int JUMP = 3;
    static constexpr int GOSUB = 4;

    int getTypeID() const { return type_id; }
    const std::string& getName() const { return name; }

    /** Sets the id alone; the name stays as it was. For records of items that are not in the database yet. */
    void setTypeID(int id) { type_id = id; }

    bool isWAV() const { return type_id == WAV; }
    bool isMP3() const { return type_id == MP3; }
    bool isJMP() const { return type_id == JUMP; }
    bool isGOSUB() const { return type_id == GOSUB; }

    /** Fills the record from the current row of T_Item_Types; a null name leaves the name as it was. */
    void readSQLColumns(sqlite3_stmt* stmt);

private:
    int type_id = 0;  ///< id in T_Item_Types; 0 is no type
    std::string name; ///< such as "ITEM_TYPE_WAV"
};
