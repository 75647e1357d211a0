#include "PlaylistType.h"

void PlaylistType::readSQLColumns(sqlite3_stmt* stmt)
{
    type_id = sqlite3_column_int(stmt, 0);
    const unsigned char* text = sqlite3_column_text(stmt, 1);
    if (text != nullptr)
        name = reinterpret_cast<const char*>(text);
}
