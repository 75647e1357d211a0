#pragma once

/**
 * What the implementation files of Library share: statements of the tool's own, and transactions. Nothing else includes
 * it.
 */

#include "failure.h"
#include "library.h"
#include "sqlite3Wrapper.h"

#include <cstdint>
#include <sqlite3.h>
#include <string>

/** A statement of the tool's own, in the wrapper's pattern. */
class Library::Query
{
public:
    Query(sqlite3* connection, const char* sql, const char* label)
        : db(connection), name(label), stmt(prepare_statement(connection, sql, label))
    {
        if (stmt == nullptr)
            throw Failure(EXIT_FAILED, std::string("the database refuses a question: ") + sqlite3_errmsg(db));
    }
    ~Query() { sqlite3_finalize(stmt); } // its failure is that of the step, which has been told
    Query(const Query&) = delete;
    Query& operator=(const Query&) = delete;

    Query& bind(int index, int value)
    {
        bind_int(db, stmt, index, static_cast<uint32_t>(value), name, "value");
        return *this;
    }
    Query& bind(int index, const std::string& value)
    {
        bind_text(db, stmt, index, value.c_str(), name, "value");
        return *this;
    }
    /** Goes to the next row; false at the end. */
    bool next()
    {
        const int rc = step_statement(db, stmt, name);
        if (rc != SQLITE_ROW && rc != SQLITE_DONE)
            throw Failure(EXIT_FAILED,
                          std::string(sqlite3_stmt_readonly(stmt) != 0 ? "the database can't be read: "
                                                                       : "cannot write to the database: ") +
                              sqlite3_errmsg(db));
        return rc == SQLITE_ROW;
    }
    /** Puts it back to before its first row, so that it takes other values. */
    void reset() { sqlite3_reset(stmt); }
    int number(int column) const { return sqlite3_column_int(stmt, column); }
    int64_t number64(int column) const { return sqlite3_column_int64(stmt, column); }
    bool isNull(int column) const { return sqlite3_column_type(stmt, column) == SQLITE_NULL; }
    std::string text(int column) const
    {
        const unsigned char* found = sqlite3_column_text(stmt, column);
        return found == nullptr ? "" : reinterpret_cast<const char*>(found);
    }

private:
    sqlite3* db;
    const char* name;
    sqlite3_stmt* stmt;
};

/** All that is written between construction and commit(), or nothing of it. */
class Library::Transaction
{
public:
    explicit Transaction(Library& library) : db(library.db)
    {
        // Already there after the first time. Refused while another program is in the file: then the next write tries.
        sqlite3_exec(db, "PRAGMA journal_mode = WAL;", nullptr, nullptr, nullptr);
        run("BEGIN IMMEDIATE;"); // the write lock at once: no read that turns out stale at the first write
    }
    ~Transaction()
    {
        if (!isCommitted)
            sqlite3_exec(db, "ROLLBACK;", nullptr, nullptr, nullptr);
    }
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

    void commit()
    {
        run("COMMIT;");
        isCommitted = true;
    }

private:
    void run(const char* sql)
    {
        if (sqlite3_exec(db, sql, nullptr, nullptr, nullptr) != SQLITE_OK)
            throw Failure(EXIT_FAILED, std::string("cannot write to the database: ") + sqlite3_errmsg(db));
    }

    sqlite3* db;
    bool isCommitted = false;
};
