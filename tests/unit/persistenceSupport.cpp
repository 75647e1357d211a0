#include "persistenceSupport.h"

#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <regex>
#include <sstream>

SqliteSpy sqliteSpy;

namespace
{

/** How many of the calls below are under way: SQLite calls itself by the same names, and that is not ours to see. */
int depth = 0;

/** Calls SQLite's own function of that name. */
template <typename Function, typename... Arguments> int realSqlite(Function, const char* name, Arguments... arguments)
{
    ++depth;
    const int rc = reinterpret_cast<Function>(dlsym(RTLD_NEXT, name))(arguments...);
    --depth;
    return rc;
}

bool isRefused()
{
    return depth == 0 && (sqliteSpy.refuseEverything || sqliteSpy.prepared.size() > sqliteSpy.refuseFrom);
}

} // namespace

// The executable's own definitions come before the library's, so the code under test calls these.
extern "C" {

int sqlite3_open(const char* filename, sqlite3** db)
{
    if (sqliteSpy.openLeavesNoHandle) {
        *db = nullptr;
        return SQLITE_NOMEM;
    }
    return realSqlite(&sqlite3_open, "sqlite3_open", filename, db);
}

int sqlite3_threadsafe(void)
{
    return sqliteSpy.threadsafe == -1 ? realSqlite(&sqlite3_threadsafe, "sqlite3_threadsafe") : sqliteSpy.threadsafe;
}

int sqlite3_busy_timeout(sqlite3* db, int ms)
{
    if (depth == 0)
        sqliteSpy.busyTimeoutsMs.push_back(ms);
    return realSqlite(&sqlite3_busy_timeout, "sqlite3_busy_timeout", db, ms);
}

int sqlite3_exec(sqlite3* db, const char* sql, int (*callback)(void*, int, char**, char**), void* arg, char** error)
{
    if (depth == 0)
        sqliteSpy.executed.emplace_back(sql);
    if (depth == 0 && sqliteSpy.foreignKeysStayOff && strncmp(sql, "PRAGMA foreign_keys", 19) == 0)
        sql = "PRAGMA foreign_keys = OFF; PRAGMA foreign_keys;";
    return realSqlite(&sqlite3_exec, "sqlite3_exec", db, sql, callback, arg, error);
}

int sqlite3_prepare_v2(sqlite3* db, const char* sql, int numBytes, sqlite3_stmt** stmt, const char** tail)
{
    if (depth == 0)
        sqliteSpy.prepared.emplace_back(sql);
    if (isRefused()) {
        *stmt = nullptr;
        return SQLITE_ERROR;
    }
    return realSqlite(&sqlite3_prepare_v2, "sqlite3_prepare_v2", db, sql, numBytes, stmt, tail);
}

int sqlite3_bind_int(sqlite3_stmt* stmt, int index, int value)
{
    if (depth == 0)
        sqliteSpy.bound.push_back(std::to_string(index) + "=" + std::to_string(value));
    if (isRefused())
        return SQLITE_ERROR;
    return realSqlite(&sqlite3_bind_int, "sqlite3_bind_int", stmt, index, value);
}

int sqlite3_bind_text(sqlite3_stmt* stmt, int index, const char* text, int numBytes, void (*release)(void*))
{
    if (depth == 0)
        sqliteSpy.bound.push_back(std::to_string(index) + "='" + text + "'");
    if (isRefused())
        return SQLITE_ERROR;
    return realSqlite(&sqlite3_bind_text, "sqlite3_bind_text", stmt, index, text, numBytes, release);
}

int sqlite3_step(sqlite3_stmt* stmt)
{
    if (isRefused())
        return SQLITE_ERROR;
    if (depth == 0 && !sqliteSpy.stepAnswers.empty()) {
        const int answer = sqliteSpy.stepAnswers.front();
        sqliteSpy.stepAnswers.pop_front();
        if (answer != -1)
            return answer;
    }
    return realSqlite(&sqlite3_step, "sqlite3_step", stmt);
}

int sqlite3_finalize(sqlite3_stmt* stmt)
{
    if (isRefused())
        return SQLITE_ERROR;
    return realSqlite(&sqlite3_finalize, "sqlite3_finalize", stmt);
}

} // extern "C"

std::string stderrOf(const std::function<void()>& action)
{
    testing::internal::CaptureStderr();
    action();
    return testing::internal::GetCapturedStderr();
}

std::string stdoutOf(const std::function<void()>& action)
{
    testing::internal::CaptureStdout();
    action();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

std::vector<std::string> reportedBy(const std::function<void()>& action)
{
    static const std::regex logged(
        R"(^[A-Z][a-z]+ \d\d, \d{4} \d\d:\d\d:\d\d [AP]M \[([A-Z]+)\] [A-Za-z0-9]+\.cpp \d+: (.*)$)");
    static const std::regex written(R"(^[A-Za-z0-9]+\.cpp \d+: (.*)$)");
    std::vector<std::string> lines;
    std::istringstream all(stderrOf(action));
    for (std::string line; std::getline(all, line);) {
        std::smatch match;
        if (std::regex_match(line, match, logged))
            lines.push_back(match[1].str() + ": " + match[2].str());
        else if (std::regex_match(line, match, written))
            lines.push_back(match[1].str());
        else
            lines.push_back("MALFORMED: " + line);
    }
    return lines;
}

std::vector<std::string> twice(const std::string& text, const std::string& type)
{
    return {type + ": " + text, text};
}

std::vector<std::string> rowsOf(sqlite3* db, const std::string& sql)
{
    std::vector<std::string> rows;
    sqlite3_stmt* stmt = nullptr;
    EXPECT_EQ(sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
    while (sqlite3_step(stmt) == SQLITE_ROW) {
        std::string row;
        for (int column = 0; column < sqlite3_column_count(stmt); ++column) {
            const unsigned char* text = sqlite3_column_text(stmt, column);
            row += column == 0 ? "" : "|";
            row += text == nullptr ? "NULL" : reinterpret_cast<const char*>(text);
        }
        rows.push_back(row);
    }
    sqlite3_finalize(stmt);
    return rows;
}

void must(sqlite3* db, const std::string& sql)
{
    ASSERT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
}

PrivateDirectoryTest::PrivateDirectoryTest()
{
    std::string pattern = (std::filesystem::temp_directory_path() / "persistenceTest.XXXXXX").string();
    root = mkdtemp(pattern.data());
    std::filesystem::create_directory(root / "run");
    std::filesystem::current_path(root / "run");
    sqliteSpy = SqliteSpy();
}

PrivateDirectoryTest::~PrivateDirectoryTest()
{
    std::filesystem::current_path("/");
    std::filesystem::remove_all(root);
}
