#include "PlaylistItem.h"

#include "AudioDatabase.h"
#include "ByteArray.h"
#include "globals.h"

#include <cstdio>

namespace
{

/** Bytes of the wire record after the path, less one: type, playlist id and sequence as shorts, association id as int. */
constexpr unsigned int TAIL_BYTES_LESS_ONE = 9;

} // namespace

void PlaylistItem::readSQLiteColumns(sqlite3_stmt* stmt)
{
    playlist_item_id = static_cast<uint32_t>(sqlite3_column_int(stmt, 0));
    sequence = static_cast<uint32_t>(sqlite3_column_int(stmt, 1));
    playlist_id = static_cast<uint16_t>(sqlite3_column_int(stmt, 2));
    item_id = static_cast<uint16_t>(sqlite3_column_int(stmt, 3));
}

void PlaylistItem::printString() const
{
    printf("Entry #%u\tFile\t%s\n", sequence, path.c_str());
}

bool PlaylistItem::read(ByteArray* ba)
{
    if (ba->getBytesAvailable() < 4)
        return false;
    item_id = ba->readShort();
    const unsigned int pathBytes = ba->readShort();
    if (!(pathBytes + TAIL_BYTES_LESS_ONE < ba->getBytesAvailable()) || pathBytes > MAX_WIRE_PATH_BYTES)
        return false;

    char buffer[MAX_WIRE_PATH_BYTES + 1];
    ba->readBytes(buffer, 0, static_cast<uint16_t>(pathBytes));
    buffer[pathBytes] = '\0';
    setPath(buffer);

    const int typeId = ba->readShort();
    AudioDatabase* library = getAudioDatabase();
    if (library != nullptr)
        library->getItemType(typeId, type);
    playlist_id = ba->readShort();
    sequence = ba->readShort();
    playlist_item_id = ba->readInt();
    LogEvent(LOG_DEBUG, "%s %d: sequence: %d, item_id: %d, path: %s\ntype: %d, playlist_id: %d, playlist_item_id: %u",
             __FILE__, __LINE__, static_cast<int>(sequence), item_id, path.c_str(), type.getTypeID(), playlist_id,
             playlist_item_id);
    return true;
}

bool PlaylistItem::write(ByteArray* ba) const
{
    (void)ba->writeInt(playlist_item_id); // the last write alone is the answer
    return ba->writeShort(static_cast<uint16_t>(sequence));
}
