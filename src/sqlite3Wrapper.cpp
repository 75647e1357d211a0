#include "sqlite3Wrapper.h"

#include "globals.h"

#include <cstdio>
#include <cstring>

namespace
{

/** Every bind fails with the same words; `line` is the failing function's. SQLite's text is fetched for each write. */
void reportBindFailure(sqlite3* db, int line, const char* stmt_name, const char* data_name)
{
    LogEvent(LOG_ERROR, "%s %d: Cannot bind %s to %s.  %s", __FILE__, line, data_name, stmt_name, sqlite3_errmsg(db));
    fprintf(stderr, "%s %d: Cannot bind %s to %s.  %s\n", __FILE__, line, data_name, stmt_name, sqlite3_errmsg(db));
}

} // namespace

sqlite3* open_database(const char* filename)
{
    sqlite3* db = nullptr;
    if (sqlite3_open(filename, &db) == SQLITE_OK)
        return db;
    if (db != nullptr) {
        LogEvent(LOG_ERROR, "%s %d: Cannot open %s.  %s", __FILE__, __LINE__, filename, sqlite3_errmsg(db));
        fprintf(stderr, "%s %d: Cannot open %s.  %s\n", __FILE__, __LINE__, filename, sqlite3_errmsg(db));
    } else {
        LogEvent(LOG_ERROR, "%s %d: Cannot open %s and db is NULL", __FILE__, __LINE__, filename);
        fprintf(stderr, "%s %d: Cannot open %s and db is NULL", __FILE__, __LINE__, filename); // sic: no line end
    }
    fflush(stderr);
    return db;
}

void close_database(sqlite3* db)
{
    if (sqlite3_close(db) != SQLITE_OK) {
        LogEvent(LOG_INFO, "%s %d: Cannot close database.  %s", __FILE__, __LINE__, sqlite3_errmsg(db));
        fprintf(stderr, "%s %d: Cannot close database.  %s\n", __FILE__, __LINE__, sqlite3_errmsg(db));
    }
}

void execute_sql(sqlite3* db, const char* sql)
{
    if (sqlite3_exec(db, sql, nullptr, nullptr, nullptr) != SQLITE_OK) {
        LogEvent(LOG_ERROR, "%s %d: Cannot execute %s.  %s", __FILE__, __LINE__, sql, sqlite3_errmsg(db));
        fprintf(stderr, "%s %d: Cannot execute %s.  %s\n", __FILE__, __LINE__, sql, sqlite3_errmsg(db));
    }
}

sqlite3_stmt* prepare_statement(sqlite3* db, const char* sql, const char* stmt_name)
{
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr) != SQLITE_OK) {
        LogEvent(LOG_ERROR, "%s %d: Cannot prepare statement %s.  %s", __FILE__, __LINE__, stmt_name,
                 sqlite3_errmsg(db));
        fprintf(stderr, "%s %d: Cannot prepare statement %s.  %s\n", __FILE__, __LINE__, stmt_name, sqlite3_errmsg(db));
    }
    return stmt;
}

int step_statement(sqlite3* db, sqlite3_stmt* stmt, const char* stmt_name)
{
    const int rc = sqlite3_step(stmt);
    if (rc == SQLITE_ERROR) { // all other failures are the caller's to tell
        LogEvent(LOG_ERROR, "%s %d: Cannot step statement %s.  %s", __FILE__, __LINE__, stmt_name, sqlite3_errmsg(db));
        fprintf(stderr, "%s %d: Cannot step statement %s.  %s\n", __FILE__, __LINE__, stmt_name, sqlite3_errmsg(db));
    }
    return rc;
}

void reset_statement(sqlite3* db, sqlite3_stmt* stmt, const char* stmt_name)
{
    if (sqlite3_reset(stmt) != SQLITE_OK) {
        LogEvent(LOG_ERROR, "%s %d: Cannot reset statement %s.  %s", __FILE__, __LINE__, stmt_name, sqlite3_errmsg(db));
        fprintf(stderr, "%s %d: Cannot reset statement %s.  %s\n", __FILE__, __LINE__, stmt_name, sqlite3_errmsg(db));
    }
}

void finalize_statement(sqlite3* db, sqlite3_stmt* stmt, const char* stmt_name)
{
    if (sqlite3_finalize(stmt) != SQLITE_OK) {
        LogEvent(LOG_ERROR, "%s %d: Cannot finalize statement %s.  %s", __FILE__, __LINE__, stmt_name,
                 sqlite3_errmsg(db));
        fprintf(stderr, "%s %d: Cannot finalize statement %s.  %s\n", __FILE__, __LINE__, stmt_name,
                sqlite3_errmsg(db));
    }
}

void bind_int(sqlite3* db, sqlite3_stmt* stmt, int index, uint32_t data, const char* stmt_name, const char* data_name)
{
    if (sqlite3_bind_int(stmt, index, static_cast<int>(data)) != SQLITE_OK)
        reportBindFailure(db, __LINE__, stmt_name, data_name);
}

void bind_int64(sqlite3* db, sqlite3_stmt* stmt, int index, uint64_t data, const char* stmt_name, const char* data_name)
{
    if (sqlite3_bind_int64(stmt, index, static_cast<sqlite3_int64>(data)) != SQLITE_OK)
        reportBindFailure(db, __LINE__, stmt_name, data_name);
}

void bind_text(sqlite3* db, sqlite3_stmt* stmt, int index, const char* data, const char* stmt_name,
               const char* data_name)
{
    if (sqlite3_bind_text(stmt, index, data, static_cast<int>(strlen(data)), SQLITE_TRANSIENT) != SQLITE_OK)
        reportBindFailure(db, __LINE__, stmt_name, data_name);
}

void bind_blob(sqlite3* db, sqlite3_stmt* stmt, int index, void* data, uint16_t data_size, const char* stmt_name,
               const char* data_name)
{
    if (sqlite3_bind_blob(stmt, index, data, data_size, SQLITE_TRANSIENT) != SQLITE_OK)
        reportBindFailure(db, __LINE__, stmt_name, data_name);
}

int select_last_insert_rowid(sqlite3* db)
{
    int rowid = -1;
    sqlite3_stmt* stmt = prepare_statement(db, "SELECT last_insert_rowid()", "select_last_insert_rowid");
    if (step_statement(db, stmt, "select_last_insert_rowid") == SQLITE_ROW)
        rowid = sqlite3_column_int(stmt, 0);
    finalize_statement(db, stmt, "select_last_insert_rowid");
    return rowid;
}
