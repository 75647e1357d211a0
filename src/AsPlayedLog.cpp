#include "AsPlayedLog.h"

CAsPlayedLog::CAsPlayedLog(sqlite3* db) : database(db) {}

CAsPlayedLog::~CAsPlayedLog()
{
    clearAllEntries();
}

void CAsPlayedLog::addEntry(asPlayedLogEntry* entry)
{
    entries.push_back(entry);
}

int CAsPlayedLog::writeToDb()
{
    clearAllEntries();
    return SQLITE_OK; // not SQLITE_DONE: no row was written
}

void CAsPlayedLog::clearAllEntries()
{
    for (asPlayedLogEntry* entry : entries)
        delete entry;
    entries.clear();
}

int CAsPlayedLog::clearDbEntries()
{
    return 0;
}

int CAsPlayedLog::createSqlTable()
{
    return 0;
}

int CAsPlayedLog::getCurrentTime(unsigned int&, unsigned int&)
{
    return 0;
}
