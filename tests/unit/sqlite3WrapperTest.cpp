#include "sqlite3Wrapper.h"

#include "globals.h"
#include "persistenceSupport.h"

#include <cstring>
#include <gmock/gmock.h>

using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

/** Words that SQLite itself puts on a refused bind index, whatever its release. */
std::string rangeText()
{
    return sqlite3_errstr(SQLITE_RANGE);
}

class SqliteWrapper : public PrivateDirectoryTest
{
protected:
    SqliteWrapper()
    {
        log_level = LOG_ALL;
        db = open_database("test.db");
        must(db, "CREATE TABLE T (id INTEGER PRIMARY KEY, value UNIQUE)");
    }
    ~SqliteWrapper() override { EXPECT_EQ(sqlite3_close(db), SQLITE_OK); }

    sqlite3* db = nullptr;
};

} // namespace

TEST_F(SqliteWrapper, AFailedOpenReportsTwiceAndReturnsTheHandle)
{
    sqlite3* opened = nullptr;
    EXPECT_THAT(reportedBy([&] { opened = open_database("missing/x.db"); }),
                testing::ElementsAreArray(twice("Cannot open missing/x.db.  unable to open database file")));
    ASSERT_NE(opened, nullptr);
    EXPECT_EQ(sqlite3_errcode(opened), SQLITE_CANTOPEN);
    sqlite3_close(opened);
}

TEST_F(SqliteWrapper, AnOpenWithoutHandleSaysSoAndItsOwnLineHasNoEnd)
{
    sqliteSpy.openLeavesNoHandle = true;
    sqlite3* opened = db;
    const std::string text = stderrOf([&] { opened = open_database("x.db"); });
    EXPECT_EQ(opened, nullptr);
    EXPECT_THAT(text, testing::MatchesRegex(".*\\[ERROR\\] sqlite3Wrapper.cpp [0-9]+: Cannot open x.db and db is NULL\n"
                                            "sqlite3Wrapper.cpp [0-9]+: Cannot open x.db and db is NULL"));
}

TEST_F(SqliteWrapper, ARefusedCloseIsInformationNotAnError)
{
    sqlite3_stmt* stmt = prepare_statement(db, "SELECT 1", "one");
    EXPECT_THAT(
        reportedBy([&] { close_database(db); }),
        testing::ElementsAreArray(twice(
            "Cannot close database.  unable to close due to unfinalized statements or unfinished backups", "INFO")));
    finalize_statement(db, stmt, "one");
}

TEST_F(SqliteWrapper, ACloseOfAnIdleConnectionIsSilent)
{
    sqlite3* other = open_database("other.db");
    EXPECT_THAT(reportedBy([&] { close_database(other); }), IsEmpty());
}

TEST_F(SqliteWrapper, AFailedExecuteShowsTheWholeText)
{
    EXPECT_THAT(reportedBy([&] { execute_sql(db, " SELEC 1; "); }),
                testing::ElementsAreArray(twice("Cannot execute  SELEC 1; .  near \"SELEC\": syntax error")));
}

TEST_F(SqliteWrapper, ExecuteRunsAllStatementsOfTheText)
{
    EXPECT_THAT(reportedBy([&] { execute_sql(db, "INSERT INTO T VALUES(1, 5); INSERT INTO T VALUES(2, 6);"); }),
                IsEmpty());
    EXPECT_THAT(rowsOf(db, "SELECT * FROM T"), ElementsAre("1|5", "2|6"));
}

TEST_F(SqliteWrapper, AFailedPrepareGivesNullAndTheCallsOnItGoOnToSqlite)
{
    sqlite3_stmt* stmt = reinterpret_cast<sqlite3_stmt*>(db);
    EXPECT_THAT(reportedBy([&] { stmt = prepare_statement(db, "SELECT * FROM Nowhere", "lost"); }),
                testing::ElementsAreArray(twice("Cannot prepare statement lost.  no such table: Nowhere")));
    EXPECT_EQ(stmt, nullptr);

    const std::vector<std::string> bindLines = reportedBy([&] { bind_int(db, stmt, 1, 7, "lost", "number"); });
    ASSERT_EQ(bindLines.size(), 2u);
    EXPECT_EQ(bindLines[0].rfind("ERROR: Cannot bind number to lost.  ", 0), 0u) << bindLines[0];
    EXPECT_EQ("ERROR: " + bindLines[1], bindLines[0]);

    int rc = SQLITE_ROW;
    EXPECT_THAT(reportedBy([&] { rc = step_statement(db, stmt, "lost"); }), IsEmpty());
    EXPECT_EQ(rc, SQLITE_MISUSE);
    EXPECT_THAT(reportedBy([&] { finalize_statement(db, stmt, "lost"); }), IsEmpty());
}

TEST_F(SqliteWrapper, AStepThatErrsIsReportedAndSoAreResetAndFinalizeAfterIt)
{
    // The absolute value of the lowest 64-bit number does not fit: SQLITE_ERROR at the step.
    sqlite3_stmt* stmt = prepare_statement(db, "SELECT abs(-9223372036854775807 - 1)", "overflow");
    int rc = SQLITE_OK;
    EXPECT_THAT(reportedBy([&] { rc = step_statement(db, stmt, "overflow"); }),
                testing::ElementsAreArray(twice("Cannot step statement overflow.  integer overflow")));
    EXPECT_EQ(rc, SQLITE_ERROR);
    EXPECT_THAT(reportedBy([&] { reset_statement(db, stmt, "overflow"); }),
                testing::ElementsAreArray(twice("Cannot reset statement overflow.  integer overflow")));
    EXPECT_THAT(reportedBy([&] { reset_statement(db, stmt, "overflow"); }), IsEmpty());
    (void)sqlite3_step(stmt);
    EXPECT_THAT(reportedBy([&] { finalize_statement(db, stmt, "overflow"); }),
                testing::ElementsAreArray(twice("Cannot finalize statement overflow.  integer overflow")));
}

TEST_F(SqliteWrapper, AViolatedConstraintIsSilentAtTheStep)
{
    must(db, "INSERT INTO T VALUES(1, 'taken')");
    sqlite3_stmt* stmt = prepare_statement(db, "INSERT INTO T VALUES(2, 'taken')", "insert");
    int rc = SQLITE_OK;
    EXPECT_THAT(reportedBy([&] { rc = step_statement(db, stmt, "insert"); }), IsEmpty());
    EXPECT_EQ(rc, SQLITE_CONSTRAINT);
    EXPECT_THAT(
        reportedBy([&] { finalize_statement(db, stmt, "insert"); }),
        testing::ElementsAreArray(twice("Cannot finalize statement insert.  UNIQUE constraint failed: T.value")));
}

TEST_F(SqliteWrapper, ABusyFileIsSilentAtTheStep)
{
    sqlite3* other = open_database("test.db");
    must(other, "BEGIN EXCLUSIVE");
    sqlite3_stmt* stmt = prepare_statement(other, "SELECT 1", "own");
    finalize_statement(other, stmt, "own");
    int rc = SQLITE_OK;
    sqlite3_stmt* insert = nullptr;
    EXPECT_THAT(reportedBy([&] { insert = prepare_statement(db, "INSERT INTO T VALUES(1, 1)", "insert"); }), IsEmpty());
    EXPECT_THAT(reportedBy([&] { rc = step_statement(db, insert, "insert"); }), IsEmpty());
    EXPECT_EQ(rc, SQLITE_BUSY);
    sqlite3_finalize(insert);
    must(other, "ROLLBACK");
    close_database(other);
}

TEST_F(SqliteWrapper, StepsGoFromRowToDone)
{
    sqlite3_stmt* stmt = prepare_statement(db, "SELECT 1", "one");
    EXPECT_EQ(step_statement(db, stmt, "one"), SQLITE_ROW);
    EXPECT_EQ(step_statement(db, stmt, "one"), SQLITE_DONE);
    finalize_statement(db, stmt, "one");
}

TEST_F(SqliteWrapper, EveryBindBindsItsValue)
{
    sqlite3_stmt* stmt = prepare_statement(db, "SELECT ?, ?, ?, ?", "values");
    bind_int(db, stmt, 1, 0xFFFFFFFFu, "values", "int");
    bind_int64(db, stmt, 2, 0x123456789ABCDEF0u, "values", "int64");
    bind_text(db, stmt, 3, "text", "values", "text");
    unsigned char blob[] = {1, 0, 3};
    bind_blob(db, stmt, 4, blob, 3, "values", "blob");
    ASSERT_EQ(step_statement(db, stmt, "values"), SQLITE_ROW);
    EXPECT_EQ(sqlite3_column_int64(stmt, 0), -1);
    EXPECT_EQ(sqlite3_column_int64(stmt, 1), 0x123456789ABCDEF0);
    EXPECT_STREQ(reinterpret_cast<const char*>(sqlite3_column_text(stmt, 2)), "text");
    EXPECT_EQ(sqlite3_column_bytes(stmt, 3), 3);
    EXPECT_EQ(memcmp(sqlite3_column_blob(stmt, 3), blob, 3), 0);
    finalize_statement(db, stmt, "values");
}

TEST_F(SqliteWrapper, TextAndBlobAreCopiedAtTheBind)
{
    sqlite3_stmt* stmt = prepare_statement(db, "SELECT ?, ?", "copies");
    char text[] = "before";
    char blob[] = "before";
    bind_text(db, stmt, 1, text, "copies", "text");
    bind_blob(db, stmt, 2, blob, 6, "copies", "blob");
    memcpy(text, "AFTER!", 6);
    memcpy(blob, "AFTER!", 6);
    ASSERT_EQ(step_statement(db, stmt, "copies"), SQLITE_ROW);
    EXPECT_STREQ(reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0)), "before");
    EXPECT_EQ(memcmp(sqlite3_column_blob(stmt, 1), "before", 6), 0);
    finalize_statement(db, stmt, "copies");
}

TEST_F(SqliteWrapper, EveryRefusedBindNamesTheValueAndTheStatement)
{
    sqlite3_stmt* stmt = prepare_statement(db, "SELECT ?", "one");
    const std::vector<std::string> expected = twice("Cannot bind datum to one.  " + rangeText());
    char blob[1] = {};
    EXPECT_EQ(reportedBy([&] { bind_int(db, stmt, 2, 0, "one", "datum"); }), expected);
    EXPECT_EQ(reportedBy([&] { bind_int64(db, stmt, 2, 0, "one", "datum"); }), expected);
    EXPECT_EQ(reportedBy([&] { bind_text(db, stmt, 2, "", "one", "datum"); }), expected);
    EXPECT_EQ(reportedBy([&] { bind_blob(db, stmt, 2, blob, 1, "one", "datum"); }), expected);
    sqlite3_finalize(stmt);
}

TEST_F(SqliteWrapper, LastInsertRowidIsZeroBeforeAnyInsertAndThenTheRow)
{
    EXPECT_EQ(select_last_insert_rowid(db), 0);
    must(db, "INSERT INTO T VALUES(41, 'a')");
    EXPECT_EQ(select_last_insert_rowid(db), 41);
    EXPECT_EQ(sqliteSpy.prepared.back(), "SELECT last_insert_rowid()");
}

TEST_F(SqliteWrapper, LastInsertRowidIsCutTo32Bits)
{
    must(db, "INSERT INTO T VALUES(4294967301, 'a')"); // 2^32 + 5
    EXPECT_EQ(select_last_insert_rowid(db), 5);
}

TEST_F(SqliteWrapper, LastInsertRowidIsMinusOneWhenTheStepGivesNoRow)
{
    sqliteSpy.stepAnswers = {SQLITE_BUSY};
    EXPECT_EQ(select_last_insert_rowid(db), -1);
}

TEST_F(SqliteWrapper, LastInsertRowidReportsUnderItsOwnLabel)
{
    sqliteSpy.refuseEverything = true;
    const std::vector<std::string> lines = reportedBy([&] { select_last_insert_rowid(db); });
    sqliteSpy.refuseEverything = false;
    EXPECT_THAT(lines, ElementsAre("ERROR: Cannot prepare statement select_last_insert_rowid.  not an error",
                                   "Cannot prepare statement select_last_insert_rowid.  not an error",
                                   "ERROR: Cannot step statement select_last_insert_rowid.  not an error",
                                   "Cannot step statement select_last_insert_rowid.  not an error",
                                   "ERROR: Cannot finalize statement select_last_insert_rowid.  not an error",
                                   "Cannot finalize statement select_last_insert_rowid.  not an error"));
}

TEST_F(SqliteWrapper, TheDirectLineIsWrittenAlsoWhenTheLogIsOff)
{
    log_level = 0;
    EXPECT_THAT(reportedBy([&] { execute_sql(db, "SELEC"); }),
                ElementsAre("Cannot execute SELEC.  near \"SELEC\": syntax error"));
}
