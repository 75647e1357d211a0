#pragma once

/**
 * The one place that calls SQLite: each call is made, a failure is reported twice (LogEvent and stderr) with the
 * statement's short label and SQLite's own words, and the caller carries on.
 *
 *   in:  a connection or statement, the SQL text or the value, labels for the messages
 *   out: SQLite's handle or step code, as SQLite gave it
 *
 * No state, no retry, no transaction, no statement cache, no lock. The functions own neither handle: who opens a
 * connection closes it, who prepares a statement finalizes it. After a failed prepare the null statement goes on to
 * SQLite, which refuses it by its own rules.
 *
 * Labels: `stmt_name` is a short name of the statement, `data_name` that of the value bound; both are for messages
 * only. Bind indexes count from 1.
 *
 * Threads: main before the audio manager starts, the audio manager afterwards.
 */

#include <cstdint>
#include <sqlite3.h>

/**
 * Opens the file, creating it if it is missing. The answer is whatever SQLite left in the handle, also after a failure
 * that is reported here; the caller owns it.
 */
sqlite3* open_database(const char* filename);

/** Closes a connection; a refusal (statements still open) is reported as LOG_INFO and the connection stays. */
void close_database(sqlite3* db);

/** Runs all the statements of `sql` and drops their rows. A failure is reported with the whole text. */
void execute_sql(sqlite3* db, const char* sql);

/** Compiles the first statement of `sql`; null after a failure. The caller finalizes it. */
sqlite3_stmt* prepare_statement(sqlite3* db, const char* sql, const char* stmt_name);

/**
 * Steps and answers SQLite's code. Only SQLITE_ERROR is reported here: a busy file, a violated constraint or a misuse
 * reaches the caller in silence, and its own test against SQLITE_ROW or SQLITE_DONE speaks.
 */
int step_statement(sqlite3* db, sqlite3_stmt* stmt, const char* stmt_name);

/** Makes the statement ready for another run; it repeats the failure of the run before, if there was one. */
void reset_statement(sqlite3* db, sqlite3_stmt* stmt, const char* stmt_name);

/** Frees the statement; null is harmless. It repeats the failure of the last step, if there was one. */
void finalize_statement(sqlite3* db, sqlite3_stmt* stmt, const char* stmt_name);

/** Binds 32 bits; SQLite takes them as a signed number. */
void bind_int(sqlite3* db, sqlite3_stmt* stmt, int index, uint32_t data, const char* stmt_name, const char* data_name);

/** Binds 64 bits; SQLite takes them as a signed number. */
void bind_int64(sqlite3* db, sqlite3_stmt* stmt, int index, uint64_t data, const char* stmt_name,
                const char* data_name);

/** Binds a zero-terminated text, never null; SQLite takes its own copy, so `data` may die before the step. */
void bind_text(sqlite3* db, sqlite3_stmt* stmt, int index, const char* data, const char* stmt_name,
               const char* data_name);

/** Binds `data_size` bytes; SQLite takes its own copy. */
void bind_blob(sqlite3* db, sqlite3_stmt* stmt, int index, void* data, uint16_t data_size, const char* stmt_name,
               const char* data_name);

/** The row id of the connection's last insert, cut to 32 bits; 0 if there was none, -1 if the question failed. */
int select_last_insert_rowid(sqlite3* db);
