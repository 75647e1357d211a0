#pragma once

/**
 * What the persistence tests share: a private directory to run in, a spy between the code and SQLite, and the lines
 * that a call reported.
 */

#include <cstddef>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <string>
#include <vector>

/** Stands between our code and SQLite: writes down what is asked, and answers by script where a script is set. */
struct SqliteSpy {
    std::vector<std::string> prepared; ///< whole texts given to sqlite3_prepare_v2
    std::vector<std::string> executed; ///< whole texts given to sqlite3_exec
    std::vector<std::string> bound;    ///< "index=value", texts in apostrophes
    std::vector<int> busyTimeoutsMs;   ///< given to sqlite3_busy_timeout
    std::deque<int> stepAnswers;       ///< codes that the next steps give without a look at the statement; -1: real
    bool refuseEverything = false;     ///< prepare, bind, step and finalize answer SQLITE_ERROR
    size_t refuseFrom = SIZE_MAX;      ///< the same from this prepare on; 0 is the first
    bool openLeavesNoHandle = false;   ///< sqlite3_open answers SQLITE_NOMEM and a null handle
    int threadsafe = -1;               ///< sqlite3_threadsafe's answer; -1: real
    bool foreignKeysStayOff = false;   ///< the pragma that asks for foreign keys does not take effect
};
extern SqliteSpy sqliteSpy;

/** What `action` wrote to stderr, as it stands. */
std::string stderrOf(const std::function<void()>& action);

/** What `action` wrote to stdout. */
std::string stdoutOf(const std::function<void()>& action);

/**
 * The lines of what `action` wrote to stderr, without date, file and line: "ERROR: text" for those of LogEvent, "text"
 * for those written directly. The file is named without a folder, as those at the top of the sources are. A line that
 * has not that shape comes out as "MALFORMED: " and itself.
 */
std::vector<std::string> reportedBy(const std::function<void()>& action);

/** The text twice, as a failed SQLite call reports it: through LogEvent and directly. */
std::vector<std::string> twice(const std::string& text, const std::string& type = "ERROR");

/** The rows of a query, columns joined by '|', null as "NULL". */
std::vector<std::string> rowsOf(sqlite3* db, const std::string& sql);

/** Runs a statement of the test's own and expects it to succeed. */
void must(sqlite3* db, const std::string& sql);

/** Each test runs in its own directory ".../run", so that "../audioplayerdatabase" is its own too. */
class PrivateDirectoryTest : public testing::Test
{
protected:
    PrivateDirectoryTest();
    ~PrivateDirectoryTest() override;

private:
    std::filesystem::path root;
};
