#include "AsPlayedLog.h"

#include "AudioDatabase.h"
#include "globals.h"
#include "persistenceSupport.h"

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <iterator>
#include <limits>
#include <map>
#include <memory>
#include <sstream>
#include <tinyxml.h>

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

// ---- the test's clocks and the test's text log

namespace
{

timespec realTime = {};
time_t wholeTime = 0;
std::vector<std::string> logFilesOpened; ///< "path mode" of what was opened below /vorelk
bool logFileOpens = true;

} // namespace

extern "C" {

int __real_clock_gettime(clockid_t clock, timespec* time);
int __wrap_clock_gettime(clockid_t clock, timespec* time)
{
    if (clock != CLOCK_REALTIME)
        return __real_clock_gettime(clock, time);
    *time = realTime;
    return 0;
}

time_t __wrap_time(time_t* result)
{
    if (result != nullptr)
        *result = wholeTime;
    return wholeTime;
}

// With 64-bit file offsets fopen is fopen64 to the linker.
FILE* __real_fopen64(const char* path, const char* mode);
FILE* __wrap_fopen64(const char* path, const char* mode)
{
    if (strncmp(path, "/vorelk/", 8) != 0)
        return __real_fopen64(path, mode);
    logFilesOpened.push_back(std::string(path) + " " + mode);
    return logFileOpens ? __real_fopen64("text.log", mode) : nullptr;
}

} // extern "C"

namespace
{

using Lines = std::vector<std::string>;

const char* const CREATE_TABLE =
    " CREATE TABLE IF NOT EXISTS T_As_Played_Log  (id INTEGER PRIMARY KEY,  log_time_sec  UNSIGNED INTEGER, "
    "log_time_usec UNSIGNED INTEGER, playlist_assoc_id INTEGER,  playlist_id INTEGER,  playlist_item_id INTEGER, "
    "entry_type INTEGER, player_status INTEGER, tx_status INTEGER, desc VARCHAR(256));";
const char* const CREATE_INDEX =
    " create index if not exists idx_log_time on T_As_Played_Log (log_time_sec, log_time_usec);";
const char* const INSERT =
    " INSERT INTO T_As_Played_Log  (log_time_sec, log_time_usec, playlist_assoc_id, playlist_id, playlist_item_id, "
    "entry_type, player_status, tx_status, desc)  VALUES ( ?, ?, ?, ?, ?, ?, ?, ?, ? ); ";
const char* const COUNT = " SELECT COUNT(id) from T_As_Played_Log; ";
const char* const OLDEST = " SELECT * from T_As_Played_Log  ORDER by log_time_sec ASC, log_time_usec ASC LIMIT 1";
const char* const TRIM = " DELETE from T_As_Played_Log  WHERE id IN(select id from T_As_Played_Log  ORDER by "
                         "log_time_sec ASC, log_time_usec ASC LIMIT ?); ";
const char* const NEWEST_START = " SELECT * from T_As_Played_Log  WHERE entry_type = 0 ORDER by log_time_sec DESC, "
                                 "log_time_usec DESC LIMIT 1";
const std::string SELECT_ALL =
    " SELECT * from T_As_Played_Log  left join T_Items on T_As_Played_Log.playlist_item_id = T_items.id  left join "
    "T_Playlists on T_As_Played_log.playlist_id = T_Playlists.id  WHERE log_time_sec < ?  ORDER by log_time_sec ASC, "
    "log_time_usec ASC";
const std::string SELECT_SOME = SELECT_ALL + " LIMIT ?";
const char* const DELETE_REPORTED = " DELETE from T_As_Played_Log  WHERE log_time_sec <= ? OR       (log_time_sec =  ? "
                                    "AND log_time_usec <= ?)";
const char* const CLEAR = " DELETE from T_As_Played_Log ";

/** Friday, June 20, 2014, 10:00:00 UTC. */
constexpr time_t TEN = 1403258400;

const char* const ROWS = "SELECT * FROM T_As_Played_Log ORDER BY id";
const char* const TIMES = "SELECT log_time_sec, log_time_usec FROM T_As_Played_Log ORDER BY id";

/** Makes the clock show that many seconds and nanoseconds past ten o'clock. */
void setClock(time_t sec, long nsec)
{
    realTime = {TEN + sec, nsec};
}

/** The words of SQLite as the wrapper reports them, lines of the log and direct ones alike, without SQLite's own. */
Lines labelsIn(const Lines& reported)
{
    Lines labels;
    for (const std::string& line : reported)
        if (line.rfind("ERROR: Cannot ", 0) == 0)
            labels.push_back(line.substr(14, line.find(".  ") - 14));
    return labels;
}

class AsPlayedLog : public PrivateDirectoryTest
{
protected:
    AsPlayedLog()
    {
        log_level = LOG_ERROR | LOG_INFO;
        setTimeZone("UTC");
        setClock(0, 123456789);
        wholeTime = TEN; // the lines of the log carry it too
        database.open_audio_database("test.db", true);
        db = database.getDatabase();
        sqlite3_busy_timeout(db, 0); // no test waits for a lock
        sqliteSpy = SqliteSpy();
        log = std::make_unique<CAsPlayedLog>(db);
    }
    ~AsPlayedLog() override
    {
        log.reset();
        sqliteSpy = SqliteSpy();
        EXPECT_EQ(sqlite3_next_stmt(db, nullptr), nullptr) << "a statement was not finalized";
        EXPECT_THAT(stderrOf([this] { database.close_audio_database(); }), IsEmpty());
        setTimeZone("UTC");
    }

    static void setTimeZone(const char* zone)
    {
        setenv("TZ", zone, 1);
        tzset();
    }

    void add(int item, asPlayedLogEntryType_e type = AS_PLAYED_LOG_ENTRY_TYPE_START_ITEM, const char* desc = "")
    {
        auto* entry = new asPlayedLogEntry(item, 20, 30, type, AS_PLAYED_LOG_STATUS_STARTED, 100);
        snprintf(entry->desc, sizeof entry->desc, "%s", desc);
        log->addEntry(entry);
    }

    /** Adds a row behind the log's back, `sec` past ten o'clock. */
    void row(time_t sec, int usec, int type, const std::string& desc = "''", int item = 1, int playlist = 1)
    {
        must(db, "INSERT INTO T_As_Played_Log VALUES(NULL, " + std::to_string(TEN + sec) + ", " + std::to_string(usec) +
                     ", 30, " + std::to_string(playlist) + ", " + std::to_string(item) + ", " + std::to_string(type) +
                     ", 1, 100, " + desc + ")");
    }

    /** Rows 1 to `numRows`: 5 microseconds after the first, second, ... second past ten o'clock. */
    void fill(int numRows)
    {
        must(db, "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < " + std::to_string(numRows) +
                     ") INSERT INTO T_As_Played_Log SELECT i, " + std::to_string(TEN) +
                     " + i, 5, 3, 2, 1, 0, 1, 100, '' FROM n");
    }

    int numRows() { return std::stoi(rowsOf(db, "SELECT COUNT(*) FROM T_As_Played_Log").at(0)); }

    /** An item and a playlist of id 1 for rows to name. */
    void addNames()
    {
        must(db, "INSERT INTO T_Items VALUES(1, '/mnt/usb/a & b.wav', 1, 48000, 48000)");
        must(db, "INSERT INTO T_Playlists VALUES(1, 1, 'Morning', 1)");
    }

    /** Gives the children of `xml`, in order, to the log, and answers the last result. */
    int request(const std::string& xml)
    {
        TiXmlDocument document;
        document.Parse(("<Transaction>" + xml + "</Transaction>").c_str());
        EXPECT_FALSE(document.Error()) << xml;
        int result = -2;
        for (TiXmlNode* child = document.RootElement()->FirstChild(); child != nullptr; child = child->NextSibling())
            result = log->parseAsPlayedLogRequest(child, &response, responseLog);
        return result;
    }

    /** The answer to a request that is to succeed, printed as the server prints it. */
    std::string answerTo(const std::string& xml)
    {
        response.Clear();
        EXPECT_EQ(request(xml), 0);
        EXPECT_EQ(responseLog, "");
        return printed();
    }

    std::string printed()
    {
        TiXmlPrinter printer;
        printer.SetIndent("  ");
        response.Accept(&printer);
        return printer.Str();
    }

    /** An attribute of the answer's `Info`. */
    std::string info(const char* name)
    {
        const char* value = response.FirstChildElement("Info")->Attribute(name);
        return value == nullptr ? "none" : value;
    }

    /** The `time` of each entry in the answer, without the day. */
    Lines reportedTimes()
    {
        Lines times;
        for (TiXmlElement* entry = response.FirstChildElement("LogEntry"); entry != nullptr;
             entry = entry->NextSiblingElement("LogEntry"))
            times.push_back(std::string(entry->Attribute("time")).substr(11));
        return times;
    }

    AudioDatabase database;
    sqlite3* db = nullptr;
    std::unique_ptr<CAsPlayedLog> log;
    TiXmlElement response{"Transaction"};
    std::string responseLog;
};

} // namespace

// ---- the table

TEST_F(AsPlayedLog, TheConstructorCreatesTheTableAndThenItsIndex)
{
    EXPECT_THAT(sqliteSpy.executed, ElementsAre(CREATE_TABLE, CREATE_INDEX));
    EXPECT_THAT(rowsOf(db, "SELECT type, name FROM sqlite_master WHERE tbl_name = 'T_As_Played_Log' ORDER BY type"),
                ElementsAre("index|idx_log_time", "table|T_As_Played_Log"));
}

TEST_F(AsPlayedLog, CreateSqlTableRunsTheSameTwoTexts)
{
    sqliteSpy = SqliteSpy();
    EXPECT_EQ(log->createSqlTable(), 0);
    EXPECT_THAT(sqliteSpy.executed, ElementsAre(CREATE_TABLE, CREATE_INDEX));
}

TEST_F(AsPlayedLog, ASecondStartLeavesTheRows)
{
    add(10);
    log->writeToDb();
    const Lines before = rowsOf(db, ROWS);
    EXPECT_THAT(reportedBy([this] { log = std::make_unique<CAsPlayedLog>(db); }), IsEmpty());
    EXPECT_EQ(rowsOf(db, ROWS), before);
    EXPECT_EQ(before.size(), 1u);
}

TEST_F(AsPlayedLog, CreateSqlTableAnswersZeroAlsoWhenItFails)
{
    must(db, "DROP TABLE T_As_Played_Log");
    must(db, "CREATE VIEW idx_log_time AS SELECT 1"); // holds the index's name
    int result = -1;
    EXPECT_EQ(labelsIn(reportedBy([&] { result = log->createSqlTable(); })).size(), 1u);
    EXPECT_EQ(result, 0);
}

TEST_F(AsPlayedLog, OnANullConnectionEverythingFailsAndNothingStops)
{
    std::unique_ptr<CAsPlayedLog> lost;
    EXPECT_THAT(reportedBy([&] { lost = std::make_unique<CAsPlayedLog>(nullptr); }),
                Contains(HasSubstr("ERROR: Cannot execute  CREATE TABLE")));
    lost->addEntry(new asPlayedLogEntry(1, 2, 3, AS_PLAYED_LOG_ENTRY_TYPE_START_ITEM, AS_PLAYED_LOG_STATUS_STARTED, 0));
    int result = SQLITE_OK;
    EXPECT_THAT(reportedBy([&] { result = lost->writeToDb(); }), Contains("ERROR: As played log entry failed 21"));
    EXPECT_EQ(result, SQLITE_MISUSE);
    EXPECT_THAT(reportedBy([&] { EXPECT_EQ(lost->clearDbEntries(), 0); }), Not(IsEmpty()));
    EXPECT_THAT(reportedBy([&] { EXPECT_EQ(lost->sendAsPlayedLogResponse(&response, responseLog), 0); }),
                Not(IsEmpty()));
    EXPECT_EQ(printed(), "<Transaction>\n  <Info entriesInLog=\"0\" numEntries=\"0\" />\n</Transaction>\n");
}

// ---- entries

TEST(AsPlayedLogEntry, TheConstructorTakesSixFieldsAndLeavesTheTextEmpty)
{
    asPlayedLogEntry entry(1, 2, 3, AS_PLAYED_LOG_ENTRY_TYPE_MISSING_PLAYLIST_ITEM, AS_PLAYED_LOG_STATUS_STARTED, 100);
    EXPECT_EQ(entry.getItemID(), 1);
    EXPECT_EQ(entry.getPlaylistID(), 2);
    EXPECT_EQ(entry.getPlaylistAssocID(), 3);
    EXPECT_EQ(entry.getEntryType(), AS_PLAYED_LOG_ENTRY_TYPE_MISSING_PLAYLIST_ITEM);
    EXPECT_EQ(entry.getStatus(), AS_PLAYED_LOG_STATUS_STARTED);
    EXPECT_EQ(entry.getTxStatus(), 100);
    EXPECT_EQ(entry.timeStr, "");
    EXPECT_STREQ(entry.desc, "");
    EXPECT_EQ(sizeof entry.desc, 256u);
}

TEST(AsPlayedLogEntry, EachFieldCanBeSet)
{
    asPlayedLogEntry entry(0, 0, 0, AS_PLAYED_LOG_ENTRY_TYPE_START_ITEM, AS_PLAYED_LOG_STATUS_STARTED, 0);
    entry.setItemID(4);
    entry.setPlaylistID(5);
    entry.setPlaylistAssocID(6);
    entry.setEntryType(AS_PLAYED_LOG_ENTRY_TYPE_STOP);
    entry.setStatus(AS_PLAYED_LOG_STATUS_STOPPED);
    entry.setTxStatus(7);
    EXPECT_EQ(entry.getItemID(), 4);
    EXPECT_EQ(entry.getPlaylistID(), 5);
    EXPECT_EQ(entry.getPlaylistAssocID(), 6);
    EXPECT_EQ(entry.getEntryType(), AS_PLAYED_LOG_ENTRY_TYPE_STOP);
    EXPECT_EQ(entry.getStatus(), AS_PLAYED_LOG_STATUS_STOPPED);
    EXPECT_EQ(entry.getTxStatus(), 7);
}

TEST_F(AsPlayedLog, AnEntryIsInTheTableOnlyOnceItIsWritten)
{
    add(10);
    EXPECT_EQ(numRows(), 0);
    EXPECT_EQ(log->writeToDb(), SQLITE_DONE);
    EXPECT_EQ(numRows(), 1);
    EXPECT_EQ(log->writeToDb(), SQLITE_DONE); // nothing is left to write
    EXPECT_EQ(numRows(), 1);
}

TEST_F(AsPlayedLog, EachEntryTypeIsStoredByItsNumber)
{
    log->addEntry(
        new asPlayedLogEntry(11, 12, 13, AS_PLAYED_LOG_ENTRY_TYPE_START_ITEM, AS_PLAYED_LOG_STATUS_STARTED, 14));
    log->addEntry(
        new asPlayedLogEntry(21, 22, 23, AS_PLAYED_LOG_ENTRY_TYPE_END_ITEM, AS_PLAYED_LOG_STATUS_STOPPED, 24));
    log->addEntry(new asPlayedLogEntry(31, 32, 33, AS_PLAYED_LOG_ENTRY_TYPE_START, AS_PLAYED_LOG_STATUS_STARTED, 34));
    log->addEntry(new asPlayedLogEntry(41, 42, 43, AS_PLAYED_LOG_ENTRY_TYPE_STOP, AS_PLAYED_LOG_STATUS_STOPPED, -44));
    add(51, AS_PLAYED_LOG_ENTRY_TYPE_MISSING_PLAYLIST_ITEM);
    add(61, AS_PLAYED_LOG_ENTRY_TYPE_LOG_TRIMMED, "it's text\n");
    EXPECT_EQ(log->writeToDb(), SQLITE_DONE);
    EXPECT_THAT(rowsOf(db, ROWS), ElementsAre("1|1403258400|123456|13|12|11|0|1|14|",  //
                                              "2|1403258400|123457|23|22|21|1|0|24|",  //
                                              "3|1403258400|123458|33|32|31|2|1|34|",  //
                                              "4|1403258400|123459|43|42|41|3|0|-44|", //
                                              "5|1403258400|123460|30|20|51|4|1|100|", //
                                              "6|1403258400|123461|30|20|61|5|1|100|it's text\n"));
}

TEST_F(AsPlayedLog, AWriteInsertsBindsInOrderAndThenCounts)
{
    sqliteSpy = SqliteSpy();
    add(10, AS_PLAYED_LOG_ENTRY_TYPE_MISSING_PLAYLIST_ITEM, "text");
    log->writeToDb();
    EXPECT_THAT(sqliteSpy.prepared, ElementsAre(INSERT, COUNT));
    EXPECT_THAT(sqliteSpy.bound,
                ElementsAre("1=1403258400", "2=123456", "3=30", "4=20", "5=10", "6=4", "7=1", "8=100", "9='text'"));
}

TEST_F(AsPlayedLog, AWriteNamesItsStatementsAndValues)
{
    add(10);
    sqliteSpy.refuseEverything = true;
    const Lines lines = reportedBy([this] { log->writeToDb(); });
    EXPECT_THAT(labelsIn(lines),
                ElementsAre("prepare statement write_as_played_log", "bind log_time_sec to write_as_played_log",
                            "bind log_time_usec to write_as_played_log",
                            "bind playlist_assoc_id to write_as_played_log", "bind playlist_id to write_as_played_log",
                            "bind playlist_item_id to write_as_played_log", "bind entry_type to write_as_played_log",
                            "bind player_status to write_as_played_log", "bind tx_status to write_as_played_log",
                            "bind desc to write_as_played_log", "step statement write_as_played_log",
                            "finalize statement write_as_played_log", "prepare statement get_num_entries",
                            "step statement get_num_entries", "finalize statement get_num_entries"));
}

TEST_F(AsPlayedLog, ClearedEntriesAreNeverWritten)
{
    add(10);
    add(11);
    log->clearAllEntries();
    add(12);
    log->writeToDb();
    EXPECT_THAT(rowsOf(db, "SELECT playlist_item_id FROM T_As_Played_Log"), ElementsAre("12"));
}

TEST_F(AsPlayedLog, EntriesLeftAtTheEndAreFreedUnwritten)
{
    add(10); // the address sanitizer would tell of it
    log.reset();
    EXPECT_EQ(numRows(), 0);
}

TEST_F(AsPlayedLog, AFailedEntryIsLoggedAndLostAndTheOthersGoOn)
{
    must(db, "CREATE TRIGGER Refuse BEFORE INSERT ON T_As_Played_Log WHEN NEW.playlist_item_id = 11 "
             "BEGIN SELECT RAISE(ABORT, 'refused'); END");
    add(10);
    add(11);
    add(12);
    int result = SQLITE_OK;
    const Lines lines = reportedBy([&] { result = log->writeToDb(); });
    Lines expected = {"ERROR: As played log entry failed 19"};
    for (const std::string& line : twice("Cannot finalize statement write_as_played_log.  refused"))
        expected.push_back(line);
    EXPECT_EQ(lines, expected);
    EXPECT_EQ(result, SQLITE_CONSTRAINT);
    EXPECT_THAT(rowsOf(db, "SELECT playlist_item_id FROM T_As_Played_Log"), ElementsAre("10", "12"));

    must(db, "DROP TRIGGER Refuse");
    EXPECT_EQ(log->writeToDb(), SQLITE_DONE);
    EXPECT_EQ(numRows(), 2); // no second try
}

TEST_F(AsPlayedLog, TheCodeOfTheLastFailedEntryIsAnswered)
{
    for (int item = 10; item < 14; ++item)
        add(item);
    sqliteSpy.stepAnswers = {SQLITE_BUSY, -1, SQLITE_FULL, -1};
    int result = SQLITE_OK;
    EXPECT_THAT(reportedBy([&] { result = log->writeToDb(); }),
                ElementsAre("ERROR: As played log entry failed 5", "ERROR: As played log entry failed 13"));
    EXPECT_EQ(result, SQLITE_FULL);
    EXPECT_EQ(numRows(), 2);
}

// ---- times

TEST_F(AsPlayedLog, TheTimeIsThatOfWritingNotOfAdding)
{
    add(10);
    setClock(7, 1000);
    log->writeToDb();
    EXPECT_THAT(rowsOf(db, TIMES), ElementsAre("1403258407|1"));
}

namespace
{

/** What the clock shows at each of several calls, and the times that are to be handed out. */
struct ClockCase {
    const char* name;
    std::vector<timespec> clock;
    Lines times;
};

const std::vector<ClockCase>& clockCases()
{
    static const std::vector<ClockCase> all = {
        {"ALaterSecondIsTakenWithEarlierNanoseconds", {{5, 900000000}, {6, 1000}}, {"5|900000", "6|1"}},
        {"ALaterNanosecondIsTaken", {{5, 1999}, {5, 2000}}, {"5|1", "5|2"}},
        // A nanosecond is progress enough for the rule, though the table can't show it.
        {"WithinOneMicrosecondTheTimeRepeats", {{5, 1000}, {5, 1001}}, {"5|1", "5|1"}},
        {"TheSameNanosecondGivesTheNextMicrosecond", {{5, 1234}, {5, 1234}, {5, 1234}}, {"5|1", "5|2", "5|3"}},
        // From 5 s 1234 ns the second time is 2234 ns, so 2233 is not past it and 2235 is.
        {"NanosecondsAreKept", {{5, 1234}, {5, 1234}, {5, 2234}, {5, 3235}}, {"5|1", "5|2", "5|3", "5|3"}},
        {"AClockSetBackBySecondsIsNotFollowed", {{5, 7000}, {2, 900000000}, {2, 0}}, {"5|7", "5|8", "5|9"}},
        {"AClockSetBackByNanosecondsIsNotFollowed", {{5, 7000}, {5, 6999}}, {"5|7", "5|8"}},
        {"AClockThatHasCaughtUpIsFollowedAgain", {{5, 7000}, {2, 0}, {5, 8001}}, {"5|7", "5|8", "5|8"}},
        {"TheLastNanosecondDoesNotCarry", {{5, 999998999}, {5, 0}}, {"5|999998", "5|999999"}},
        {"PastTheLastNanosecondItCarries", {{5, 999999000}, {5, 0}, {5, 0}}, {"5|999999", "6|0", "6|1"}},
        {"TheCarryKeepsTheNanoseconds", {{5, 999999999}, {5, 0}, {6, 1000}}, {"5|999999", "6|0", "6|1"}},
        {"TheFirstTimeIsAfterTheEpoch", {{0, 0}}, {"0|1"}},
        {"AClockBeforeTheEpochIsNotFollowed", {{-5, 0}, {-5, 0}}, {"0|1", "0|2"}},
    };
    return all;
}

class AsPlayedTimes : public AsPlayedLog, public testing::WithParamInterface<ClockCase>
{
};

} // namespace

TEST_P(AsPlayedTimes, CurrentTime)
{
    Lines times;
    for (const timespec& now : GetParam().clock) {
        realTime = now;
        unsigned int sec = 77;
        unsigned int usec = 77;
        EXPECT_EQ(log->getCurrentTime(sec, usec), 0);
        times.push_back(std::to_string(sec) + "|" + std::to_string(usec));
    }
    EXPECT_EQ(times, GetParam().times);
}

TEST_P(AsPlayedTimes, WrittenRows)
{
    for (const timespec& now : GetParam().clock) {
        realTime = now;
        add(10);
        log->writeToDb();
    }
    EXPECT_EQ(rowsOf(db, TIMES), GetParam().times);
}

INSTANTIATE_TEST_SUITE_P(Rule, AsPlayedTimes, testing::ValuesIn(clockCases()),
                         [](const testing::TestParamInfo<ClockCase>& tested) { return tested.param.name; });

TEST_F(AsPlayedLog, SecondsAreStoredAsThirtyTwoSignedBits)
{
    for (const time_t sec : {time_t{2147483647}, time_t{2147483648}}) { // January 19, 2038, 03:14:07 and a second later
        realTime = {sec, 0};
        add(10);
        log->writeToDb();
    }
    EXPECT_THAT(rowsOf(db, TIMES), ElementsAre("2147483647|0", "-2147483648|0"));
}

TEST_F(AsPlayedLog, RowsSortInTheOrderOfWritingWhenTheClockIsSetBack)
{
    for (int item = 10; item < 20; ++item) {
        setClock(item < 15 ? item : -item, 0);
        add(item);
        log->writeToDb();
    }
    EXPECT_THAT(rowsOf(db, "SELECT playlist_item_id FROM T_As_Played_Log ORDER BY log_time_sec, log_time_usec"),
                ElementsAre("10", "11", "12", "13", "14", "15", "16", "17", "18", "19"));
}

TEST_F(AsPlayedLog, ANewRunFollowsTheClockAnew)
{
    setClock(100, 0);
    add(10);
    log->writeToDb();
    setClock(50, 0);
    log = std::make_unique<CAsPlayedLog>(db);
    add(11);
    log->writeToDb();
    EXPECT_THAT(rowsOf(db, TIMES), ElementsAre("1403258500|0", "1403258450|0"));
}

// ---- trimming

TEST_F(AsPlayedLog, BelowTwelveThousandRowsNothingIsTrimmed)
{
    fill(11998);
    setClock(20000, 0);
    add(10);
    EXPECT_THAT(reportedBy([this] { EXPECT_EQ(log->writeToDb(), SQLITE_DONE); }), IsEmpty());
    EXPECT_EQ(numRows(), 11999);
}

TEST_F(AsPlayedLog, AtTwelveThousandRowsTheOldestTwoThousandGoAndTheTrimIsNoted)
{
    fill(11999);
    setClock(20000, 0);
    add(10);
    EXPECT_THAT(reportedBy([this] { EXPECT_EQ(log->writeToDb(), SQLITE_DONE); }),
                ElementsAre("INFO: Trimming As Played Log based on entries (12000/10000+2000)"));
    EXPECT_EQ(numRows(), 10001);
    EXPECT_THAT(rowsOf(db, "SELECT MIN(id) FROM T_As_Played_Log"), ElementsAre("2001"));
    EXPECT_THAT(rowsOf(db, std::string("SELECT * FROM T_As_Played_Log WHERE id >= 12000 ORDER BY log_time_sec, "
                                       "log_time_usec")),
                ElementsAre("12000|1403278400|0|30|20|10|0|1|100|",
                            "12001|1403278400|1|0|0|0|5|1|100|Trimmed 2000 entries from Fri Jun 20 10:00:01 2014 "
                            "000.005ms to Fri Jun 20 10:33:21 2014 000.005ms\n"));
}

TEST_F(AsPlayedLog, ATrimGoesDownToTenThousandHoweverManyRowsThereAre)
{
    fill(12500);
    setClock(20000, 0);
    add(10);
    EXPECT_THAT(reportedBy([this] { log->writeToDb(); }),
                ElementsAre("INFO: Trimming As Played Log based on entries (12501/10000+2000)"));
    EXPECT_EQ(numRows(), 10001);
    EXPECT_THAT(rowsOf(db, "SELECT desc FROM T_As_Played_Log WHERE entry_type = 5"),
                ElementsAre("Trimmed 2501 entries from Fri Jun 20 10:00:01 2014 000.005ms to Fri Jun 20 10:41:42 2014 "
                            "000.005ms\n"));
}

TEST_F(AsPlayedLog, TheOldestAreFoundByTimeNotById)
{
    fill(11999);
    must(db, "UPDATE T_As_Played_Log SET log_time_sec = 1403258400 + (12000 - id)");
    must(db, "UPDATE T_As_Played_Log SET log_time_sec = 1403258401, log_time_usec = 4 WHERE id = 1");
    setClock(20000, 0);
    add(10);
    reportedBy([this] { log->writeToDb(); });
    // Of the 2000 one is row 1, which ties with row 11999 but for its microsecond.
    EXPECT_THAT(rowsOf(db, "SELECT MIN(id), MAX(id) FROM T_As_Played_Log WHERE id < 12000"), ElementsAre("2|10000"));
    EXPECT_THAT(rowsOf(db, "SELECT substr(desc, 14, 49) FROM T_As_Played_Log WHERE entry_type = 5"),
                ElementsAre("entries from Fri Jun 20 10:00:01 2014 000.004ms t"));
}

TEST_F(AsPlayedLog, ATrimReadsTheOldestDeletesReadsItAgainAndWritesItsNote)
{
    fill(11999);
    sqliteSpy = SqliteSpy();
    setClock(20000, 0);
    add(10);
    reportedBy([this] { log->writeToDb(); });
    EXPECT_THAT(sqliteSpy.prepared, ElementsAre(INSERT, COUNT, OLDEST, TRIM, OLDEST, INSERT, COUNT));
    ASSERT_EQ(sqliteSpy.bound.size(), 19u);
    EXPECT_EQ(sqliteSpy.bound[9], "1=2000");
}

TEST_F(AsPlayedLog, ATrimNamesItsStatements)
{
    fill(12000);
    sqliteSpy = SqliteSpy();
    sqliteSpy.refuseFrom = 1; // all after the count
    const Lines labels = labelsIn(reportedBy([this] { log->writeToDb(); }));
    ASSERT_GE(labels.size(), 10u);
    EXPECT_THAT(Lines(labels.begin(), labels.begin() + 10),
                ElementsAre("prepare statement get_oldest_entry", "step statement get_oldest_entry",
                            "finalize statement get_oldest_entry", "prepare statement trim_log",
                            "bind trimEntries to trim_log", "step statement trim_log", "finalize statement trim_log",
                            "prepare statement get_oldest_entry", "step statement get_oldest_entry",
                            "finalize statement get_oldest_entry"));
}

TEST_F(AsPlayedLog, ATrimThatFailsIsNotedOnceAndNotForEver)
{
    fill(11999);
    must(db, "CREATE TRIGGER Refuse BEFORE DELETE ON T_As_Played_Log BEGIN SELECT RAISE(ABORT, 'refused'); END");
    setClock(20000, 0);
    add(10);
    int result = SQLITE_OK;
    reportedBy([&] { result = log->writeToDb(); });
    EXPECT_EQ(result, SQLITE_DONE);
    EXPECT_EQ(numRows(), 12001);
    // The oldest time is the same before and after: nothing went.
    EXPECT_THAT(rowsOf(db, "SELECT desc FROM T_As_Played_Log WHERE entry_type = 5"),
                ElementsAre("Trimmed 2000 entries from Fri Jun 20 10:00:01 2014 000.005ms to Fri Jun 20 10:00:01 2014 "
                            "000.005ms\n"));
}

TEST_F(AsPlayedLog, ANoteOfATrimThatCannotBeWrittenIsAFailedEntry)
{
    fill(11999);
    must(db, "CREATE TRIGGER Refuse BEFORE INSERT ON T_As_Played_Log WHEN NEW.entry_type = 5 "
             "BEGIN SELECT RAISE(ABORT, 'refused'); END");
    add(10);
    int result = SQLITE_OK;
    EXPECT_THAT(reportedBy([&] { result = log->writeToDb(); }), Contains("ERROR: As played log entry failed 19"));
    EXPECT_EQ(result, SQLITE_CONSTRAINT);
    EXPECT_EQ(numRows(), 10000);
}

TEST_F(AsPlayedLog, AFailedEntryIsStillAnsweredAfterATrim)
{
    fill(12000);
    add(10);
    sqliteSpy.stepAnswers = {SQLITE_BUSY};
    int result = SQLITE_OK;
    reportedBy([&] { result = log->writeToDb(); });
    EXPECT_EQ(result, SQLITE_BUSY);
    EXPECT_EQ(numRows(), 10001);
}

TEST_F(AsPlayedLog, ClearDbEntriesRemovesAllRows)
{
    fill(100);
    sqliteSpy = SqliteSpy();
    EXPECT_THAT(reportedBy([this] { EXPECT_EQ(log->clearDbEntries(), 0); }), IsEmpty());
    EXPECT_THAT(sqliteSpy.prepared, ElementsAre(CLEAR));
    EXPECT_EQ(numRows(), 0);
}

TEST_F(AsPlayedLog, ClearDbEntriesAnswersZeroAlsoWhenItFails)
{
    fill(100);
    sqliteSpy.refuseEverything = true;
    const Lines lines = reportedBy([this] { EXPECT_EQ(log->clearDbEntries(), 0); });
    sqliteSpy = SqliteSpy();
    EXPECT_THAT(labelsIn(lines),
                ElementsAre("prepare statement clear_db", "step statement clear_db", "finalize statement clear_db"));
    EXPECT_EQ(numRows(), 100);
}

// ---- the request

TEST_F(AsPlayedLog, CommentsAreAnsweredWithZeroAndAddNothing)
{
    EXPECT_EQ(request("<!-- all of it -->"), 0);
    EXPECT_EQ(printed(), "<Transaction />\n");
    EXPECT_EQ(responseLog, "");
}

TEST_F(AsPlayedLog, ADocumentIsAnsweredWithZeroAndAddsNothing)
{
    TiXmlDocument document;
    document.Parse("<Parameters/>");
    EXPECT_EQ(log->parseAsPlayedLogRequest(&document, &response, responseLog), 0);
    EXPECT_EQ(printed(), "<Transaction />\n");
}

TEST_F(AsPlayedLog, NodesOfAnyOtherKindAreRefusedInSilence)
{
    EXPECT_EQ(request("some text"), -1);
    EXPECT_EQ(request("<![CDATA[Parameters]]>"), -1);
    EXPECT_EQ(request("<!unknown>"), -1);
    TiXmlDeclaration declaration("1.0", "", "");
    EXPECT_EQ(log->parseAsPlayedLogRequest(&declaration, &response, responseLog), -1);
    EXPECT_EQ(printed(), "<Transaction />\n");
    EXPECT_EQ(responseLog, "");
}

TEST_F(AsPlayedLog, AnElementOfAnotherNameIsRefusedWithALine)
{
    responseLog = "before\n";
    EXPECT_EQ(request("<Parameter delete='yes'/>"), -1);
    EXPECT_EQ(request("<Parameters2/>"), -1);
    EXPECT_EQ(responseLog, "before\nInvalid element Parameter\nInvalid element Parameters2\n");
    EXPECT_EQ(printed(), "<Transaction />\n");
}

TEST_F(AsPlayedLog, AnEmptyTableIsAnsweredWithZerosAndNothingIsDeleted)
{
    sqliteSpy = SqliteSpy();
    EXPECT_EQ(answerTo("<Parameters delete='yes'/>"),
              "<Transaction>\n  <Info entriesInLog=\"0\" numEntries=\"0\" />\n</Transaction>\n");
    EXPECT_THAT(sqliteSpy.prepared, ElementsAre(COUNT, NEWEST_START, SELECT_ALL));
}

TEST_F(AsPlayedLog, EachTypeOfEntryIsReportedWithItsWordAndWhatBelongsToIt)
{
    addNames();
    row(0, 5, 0);
    row(61, 999999, 1);
    row(3600, 120000, 2);
    row(3600, 120001, 3, "'kept to itself'");
    row(3601, 0, 4);
    row(3602, 0, 5, "'Trimmed some\nentries <\n'");
    row(3603, 0, 6);
    row(3603, 1, -1);
    row(4000, 0, 0);
    EXPECT_EQ(answerTo("<Parameters/>"), //
              "<Transaction>\n"
              "  <Info entriesInLog=\"9\" numEntries=\"8\" />\n"
              "  <LogEntry time=\"Fri Jun 20 10:00:00 2014 000.005ms\" type=\"startPlaylistItem\">\n"
              "    <Playlist name=\"Morning\" />\n"
              "    <PlaylistItem type=\"file\" filename=\"/mnt/usb/a &amp; b.wav\" />\n"
              "  </LogEntry>\n"
              "  <LogEntry time=\"Fri Jun 20 10:01:01 2014 999.999ms\" type=\"stopAudioFile\" />\n"
              "  <LogEntry time=\"Fri Jun 20 11:00:00 2014 120.000ms\" type=\"unknown\" />\n"
              "  <LogEntry time=\"Fri Jun 20 11:00:00 2014 120.001ms\" type=\"unknown\" />\n"
              "  <LogEntry time=\"Fri Jun 20 11:00:01 2014 000.000ms\" type=\"missingPlaylistItem\">\n"
              "    <Playlist name=\"Morning\" />\n"
              "    <PlaylistItem type=\"file\" filename=\"/mnt/usb/a &amp; b.wav\" />\n"
              "  </LogEntry>\n"
              "  <LogEntry time=\"Fri Jun 20 11:00:02 2014 000.000ms\" type=\"logTrimmed\">\n"
              "    Trimmed some\n"
              "    entries &lt;\n"
              "    \n"
              "  </LogEntry>\n"
              "  <LogEntry time=\"Fri Jun 20 11:00:03 2014 000.000ms\" type=\"unknown\" />\n"
              "  <LogEntry time=\"Fri Jun 20 11:00:03 2014 000.001ms\" type=\"unknown\" />\n"
              "</Transaction>\n");
}

TEST_F(AsPlayedLog, WhatIsGoneFromTheLibraryIsUnknown)
{
    row(0, 0, 0, "''", 8, 9);
    row(1, 0, 4, "''", 8, 9);
    row(9, 0, 0);
    EXPECT_EQ(answerTo("<Parameters/>"), //
              "<Transaction>\n"
              "  <Info entriesInLog=\"3\" numEntries=\"2\" />\n"
              "  <LogEntry time=\"Fri Jun 20 10:00:00 2014 000.000ms\" type=\"startPlaylistItem\">\n"
              "    <Playlist name=\"(unknown)\" />\n"
              "    <PlaylistItem type=\"file\" filename=\"(unknown)\" />\n"
              "  </LogEntry>\n"
              "  <LogEntry time=\"Fri Jun 20 10:00:01 2014 000.000ms\" type=\"missingPlaylistItem\">\n"
              "    <Playlist name=\"(unknown)\" />\n"
              "    <PlaylistItem type=\"file\" filename=\"(unknonw)\" />\n"
              "  </LogEntry>\n"
              "</Transaction>\n");
}

TEST_F(AsPlayedLog, TheItemIsFoundByTheColumnNamedForThePlaylistItem)
{
    must(db, "INSERT INTO T_Items VALUES(30, '/association', 1, 1, 1), (5, '/item', 1, 1, 1), (6, '/list', 1, 1, 1)");
    must(db, "INSERT INTO T_Playlists VALUES(5, 1, 'item', 1), (6, 1, 'list', 1)");
    row(0, 0, 0, "''", 5, 6);
    row(9, 0, 0);
    const std::string answer = answerTo("<Parameters/>");
    EXPECT_THAT(answer, HasSubstr("<Playlist name=\"list\" />"));
    EXPECT_THAT(answer, HasSubstr("filename=\"/item\""));
}

TEST_F(AsPlayedLog, NullTextsReadAsUnknownAndANullNoteAsEmpty)
{
    must(db, "INSERT INTO T_Items VALUES(1, NULL, 1, 1, 1)");
    must(db, "INSERT INTO T_Playlists VALUES(1, 1, NULL, 1)");
    row(0, 0, 4);
    row(1, 0, 5, "NULL");
    row(9, 0, 0);
    EXPECT_EQ(answerTo("<Parameters/>"), //
              "<Transaction>\n"
              "  <Info entriesInLog=\"3\" numEntries=\"2\" />\n"
              "  <LogEntry time=\"Fri Jun 20 10:00:00 2014 000.000ms\" type=\"missingPlaylistItem\">\n"
              "    <Playlist name=\"(unknown)\" />\n"
              "    <PlaylistItem type=\"file\" filename=\"(unknonw)\" />\n"
              "  </LogEntry>\n"
              "  <LogEntry time=\"Fri Jun 20 10:00:01 2014 000.000ms\" type=\"logTrimmed\"></LogEntry>\n"
              "</Transaction>\n");
}

TEST_F(AsPlayedLog, EmptyTextsAreNotUnknown)
{
    must(db, "INSERT INTO T_Items VALUES(1, '', 1, 1, 1)");
    must(db, "INSERT INTO T_Playlists VALUES(1, 1, '', 1)");
    row(0, 0, 0);
    row(9, 0, 0);
    const std::string answer = answerTo("<Parameters/>");
    EXPECT_THAT(answer, HasSubstr("<Playlist name=\"\" />"));
    EXPECT_THAT(answer, HasSubstr("filename=\"\" />"));
}

TEST_F(AsPlayedLog, ARowOfNullsIsReportedAsAStartAtTheEpoch)
{
    must(db, "INSERT INTO T_As_Played_Log VALUES(1, 0, NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL)");
    row(9, 0, 0);
    EXPECT_EQ(answerTo("<Parameters/>"), //
              "<Transaction>\n"
              "  <Info entriesInLog=\"2\" numEntries=\"1\" />\n"
              "  <LogEntry time=\"Thu Jan  1 00:00:00 1970 000.000ms\" type=\"startPlaylistItem\">\n"
              "    <Playlist name=\"(unknown)\" />\n"
              "    <PlaylistItem type=\"file\" filename=\"(unknown)\" />\n"
              "  </LogEntry>\n"
              "</Transaction>\n");
}

TEST_F(AsPlayedLog, TimesAreLocal)
{
    setTimeZone("HOME-2"); // two hours east
    row(0, 0, 1);
    row(9, 0, 0);
    answerTo("<Parameters/>");
    EXPECT_THAT(reportedTimes(), ElementsAre("12:00:00 2014 000.000ms"));
}

TEST_F(AsPlayedLog, MicrosecondsGoThroughSinglePrecision)
{
    row(0, 16777217, 1); // 2^24 + 1, which single precision can't hold; no such time is ever written
    row(9, 0, 0);
    answerTo("<Parameters/>");
    EXPECT_THAT(reportedTimes(), ElementsAre("10:00:00 2014 16777.216ms"));
}

TEST_F(AsPlayedLog, NumbersBeyondAnyTimeAreReportedAll32BitsOfThem)
{
    must(db, "INSERT INTO T_As_Played_Log VALUES(1, -1, -1, 0, 0, 0, 1, 0, 0, '')");
    row(9, 0, 0);
    answerTo("<Parameters/>");
    // February 7, 2106, 06:28:15
    EXPECT_THAT(reportedTimes(), ElementsAre("06:28:15 2106 4294967.296ms"));
}

TEST_F(AsPlayedLog, AmongThemselvesTheTimesAfterThirtyTwoSignedBitsAreInOrder)
{
    for (const int sec : {0, 1, 2}) {
        realTime = {time_t{2147483648} + sec, 0}; // January 19, 2038, 03:14:08
        add(10);
        log->writeToDb();
    }
    answerTo("<Parameters/>");
    EXPECT_THAT(reportedTimes(), ElementsAre("03:14:08 2038 000.000ms", "03:14:09 2038 000.000ms"));
}

// ---- what a request reports

TEST_F(AsPlayedLog, NothingOfTheSecondOfTheNewestStartIsReported)
{
    row(0, 0, 0);
    row(1, 999999, 1);
    row(2, 0, 1); // before the start, but in its second
    row(2, 500, 0);
    row(2, 501, 1);
    row(3, 0, 4);
    answerTo("<Parameters/>");
    EXPECT_EQ(info("entriesInLog"), "6");
    EXPECT_EQ(info("numEntries"), "2");
    EXPECT_THAT(reportedTimes(), ElementsAre("10:00:00 2014 000.000ms", "10:00:01 2014 999.999ms"));
}

TEST_F(AsPlayedLog, TheNewestStartIsFoundByTimeNotById)
{
    row(5, 0, 0);
    row(2, 0, 0);
    row(5, 0, 4);
    answerTo("<Parameters/>");
    EXPECT_THAT(reportedTimes(), ElementsAre("10:00:02 2014 000.000ms"));
    EXPECT_EQ(sqliteSpy.bound.back(), "1=1403258405");
}

TEST_F(AsPlayedLog, WithOneStartOnlyNothingIsReported)
{
    row(0, 0, 0);
    EXPECT_EQ(answerTo("<Parameters/>"),
              "<Transaction>\n  <Info entriesInLog=\"1\" numEntries=\"0\" />\n</Transaction>\n");
}

TEST_F(AsPlayedLog, WithoutAStartAllBeforeTheCurrentSecondIsReported)
{
    setClock(2, 700000000);
    row(0, 0, 4);
    row(1, 999999, 4);
    row(2, 0, 4);
    answerTo("<Parameters/>");
    EXPECT_EQ(info("entriesInLog"), "3");
    EXPECT_THAT(reportedTimes(), ElementsAre("10:00:00 2014 000.000ms", "10:00:01 2014 999.999ms"));
}

TEST_F(AsPlayedLog, WithoutAStartTheBoundIsALogTimeLikeAnyOther)
{
    setClock(2, 999999000);
    add(10, AS_PLAYED_LOG_ENTRY_TYPE_MISSING_PLAYLIST_ITEM);
    log->writeToDb();
    setClock(0, 0);
    answerTo("<Parameters/>"); // a microsecond after the entry, which carries into the next second
    EXPECT_THAT(reportedTimes(), ElementsAre("10:00:02 2014 999.999ms"));
    unsigned int sec = 0;
    unsigned int usec = 0;
    log->getCurrentTime(sec, usec);
    EXPECT_EQ(sec, static_cast<unsigned int>(TEN + 3));
    EXPECT_EQ(usec, 1u); // the request has used up 0
}

TEST_F(AsPlayedLog, RowsAreReportedOldestFirst)
{
    row(9, 0, 0);
    row(3, 0, 1);
    row(1, 7, 1);
    row(1, 6, 1);
    row(2, 0, 1);
    answerTo("<Parameters/>");
    EXPECT_THAT(reportedTimes(), ElementsAre("10:00:01 2014 000.006ms", "10:00:01 2014 000.007ms",
                                             "10:00:02 2014 000.000ms", "10:00:03 2014 000.000ms"));
}

TEST_F(AsPlayedLog, ALimitTakesTheOldest)
{
    row(3, 0, 1);
    row(1, 0, 1);
    row(2, 0, 1);
    row(9, 0, 0);
    sqliteSpy = SqliteSpy();
    answerTo("<Parameters maxLogEntries='2'/>");
    EXPECT_EQ(info("entriesInLog"), "4");
    EXPECT_EQ(info("numEntries"), "2");
    EXPECT_THAT(reportedTimes(), ElementsAre("10:00:01 2014 000.000ms", "10:00:02 2014 000.000ms"));
    EXPECT_THAT(sqliteSpy.prepared, ElementsAre(COUNT, NEWEST_START, SELECT_SOME));
    EXPECT_THAT(sqliteSpy.bound, ElementsAre("1=1403258409", "2=2"));
}

TEST_F(AsPlayedLog, TheLimitIsADecimalNumberAndBelowOneThereIsNone)
{
    for (int sec = 0; sec < 12; ++sec)
        row(sec, 0, 1);
    row(20, 0, 0);
    const std::map<std::string, std::string> numbers = {{"1", "1"},
                                                        {"10", "10"},
                                                        {"12", "12"},
                                                        {"13", "12"},
                                                        {" 3", "3"},
                                                        {"+3", "3"},
                                                        {"010", "10"},
                                                        {"3x", "3"},
                                                        {"0", "12"},
                                                        {"-1", "12"},
                                                        {"", "12"},
                                                        {"many", "12"},
                                                        {"0x1", "12"},
                                                        {"2147483648", "12"},
                                                        {"4294967297", "12"},
                                                        {"-4294967295", "12"},
                                                        {"99999999999999999999", "12"},
                                                        {"-99999999999999999999", "12"}};
    for (const auto& [text, numEntries] : numbers) {
        answerTo("<Parameters maxLogEntries='" + text + "'/>");
        EXPECT_EQ(info("numEntries"), numEntries) << "'" << text << "'";
    }
}

TEST_F(AsPlayedLog, AHugeLimitIsCutTo32Bits)
{
    row(20, 0, 0);
    for (const char* text : {"2147483647", "2147483648", "4294967297", "99999999999999999999"}) {
        answerTo("<Parameters maxLogEntries='" + std::string(text) + "'/>");
        EXPECT_EQ(sqliteSpy.bound.back(), "2=2147483647") << text;
    }
    sqliteSpy.bound.clear();
    answerTo("<Parameters maxLogEntries='-99999999999999999999'/>");
    EXPECT_THAT(sqliteSpy.bound, ElementsAre("1=1403258420"));
}

TEST_F(AsPlayedLog, NamesAndYesCountInAnyCaseAndUnknownAttributesDoNot)
{
    for (int sec = 0; sec < 3; ++sec)
        row(sec, 0, 1);
    row(20, 0, 0);
    EXPECT_EQ(request("<pARAMETERS other='yes' MAXLOGENTRIES='1' DELETE='YES' EnablePlayingnow='nO'/>"), 0);
    EXPECT_EQ(info("numEntries"), "1");
    EXPECT_EQ(numRows(), 3);
    EXPECT_FALSE(log->isPlayingNowEnabled());
    request("<PARAMETERS enableplayingnow='yEs'/>");
    EXPECT_TRUE(log->isPlayingNowEnabled());
}

TEST_F(AsPlayedLog, NothingButYesDeletes)
{
    row(0, 0, 1);
    row(20, 0, 0);
    for (const char* text : {"no", "", "true", "1", "y", "yes ", "yess"}) {
        answerTo("<Parameters delete='" + std::string(text) + "'/>");
        EXPECT_EQ(numRows(), 2) << text;
    }
}

TEST_F(AsPlayedLog, LimitAndDeleteAreClearedForEachRequest)
{
    for (int sec = 0; sec < 5; ++sec)
        row(sec, 0, 1);
    row(20, 0, 0);
    answerTo("<Parameters maxLogEntries='2' delete='yes'/>");
    EXPECT_EQ(numRows(), 4);
    answerTo("<Parameters/>");
    EXPECT_EQ(info("numEntries"), "3");
    EXPECT_EQ(numRows(), 4);
}

TEST_F(AsPlayedLog, ASecondParametersElementAddsASecondBlock)
{
    row(0, 0, 1);
    row(1, 0, 1);
    row(9, 0, 0);
    EXPECT_EQ(answerTo("<Parameters maxLogEntries='1' delete='yes'/><!-- and --><Parameters/>"), //
              "<Transaction>\n"
              "  <Info entriesInLog=\"3\" numEntries=\"1\" />\n"
              "  <LogEntry time=\"Fri Jun 20 10:00:00 2014 000.000ms\" type=\"stopAudioFile\" />\n"
              "  <Info entriesInLog=\"2\" numEntries=\"1\" />\n"
              "  <LogEntry time=\"Fri Jun 20 10:00:01 2014 000.000ms\" type=\"stopAudioFile\" />\n"
              "</Transaction>\n");
}

TEST_F(AsPlayedLog, PlayingNowIsOnFromTheStartAndChangesOnlyWhenNamed)
{
    EXPECT_TRUE(log->isPlayingNowEnabled());
    request("<Parameters/>");
    EXPECT_TRUE(log->isPlayingNowEnabled());
    request("<Parameters enablePlayingNow='no'/>");
    EXPECT_FALSE(log->isPlayingNowEnabled());
    request("<Parameters maxLogEntries='1'/>");
    EXPECT_FALSE(log->isPlayingNowEnabled());
    request("<Parameters enablePlayingNow='yes'/>");
    EXPECT_TRUE(log->isPlayingNowEnabled());
    request("<Parameters enablePlayingNow='maybe'/>");
    EXPECT_FALSE(log->isPlayingNowEnabled());
}

// ---- deleting what was reported

TEST_F(AsPlayedLog, ADeleteTakesTheWholeSecondOfTheLastRowReported)
{
    row(-5, 0, 1);
    row(0, 1, 1);
    row(0, 2, 1); // cut off by the limit, and lost
    row(1, 0, 1);
    row(9, 0, 0);
    sqliteSpy = SqliteSpy();
    answerTo("<Parameters maxLogEntries='2' delete='yes'/>");
    EXPECT_EQ(info("entriesInLog"), "5");
    EXPECT_THAT(reportedTimes(), ElementsAre("09:59:55 2014 000.000ms", "10:00:00 2014 000.001ms"));
    EXPECT_THAT(rowsOf(db, TIMES), ElementsAre("1403258401|0", "1403258409|0"));
    ASSERT_EQ(sqliteSpy.prepared.size(), 5u); // the last is the test's own
    EXPECT_EQ(sqliteSpy.prepared[3], DELETE_REPORTED);
    EXPECT_THAT(sqliteSpy.bound, ElementsAre("1=1403258409", "2=2", "1=1403258400", "2=1403258400", "3=1"));
}

TEST_F(AsPlayedLog, ADeleteOfALimitOfTenTakesThoseTen)
{
    fill(25); // starts, of which the newest is the bound
    answerTo("<Parameters maxLogEntries='10' delete='yes'/>");
    EXPECT_EQ(info("numEntries"), "10");
    EXPECT_THAT(rowsOf(db, "SELECT COUNT(*), MIN(id) FROM T_As_Played_Log"), ElementsAre("15|11"));
}

TEST_F(AsPlayedLog, PagingWithDeleteEndsWithZeroEntriesAndTheItemOnAirLeft)
{
    fill(25);
    Lines pages;
    do {
        answerTo("<Parameters maxLogEntries='10' delete='yes'/>");
        pages.push_back(info("numEntries"));
    } while (pages.back() != "0");
    EXPECT_THAT(pages, ElementsAre("10", "10", "4", "0"));
    EXPECT_THAT(rowsOf(db, "SELECT id FROM T_As_Played_Log"), ElementsAre("25"));
}

TEST_F(AsPlayedLog, WithNothingReportedNothingIsDeleted)
{
    row(0, 0, 0);
    row(0, 5, 1);
    answerTo("<Parameters delete='yes'/>");
    EXPECT_EQ(info("numEntries"), "0");
    EXPECT_EQ(numRows(), 2);
}

TEST_F(AsPlayedLog, RowsOfSecondZeroAreReportedButNotDeleted)
{
    must(db, "INSERT INTO T_As_Played_Log VALUES(1, 0, 5, 0, 0, 0, 1, 0, 0, '')");
    row(0, 0, 0);
    answerTo("<Parameters delete='yes'/>");
    EXPECT_EQ(info("numEntries"), "1");
    EXPECT_EQ(numRows(), 2);
}

// ---- failures of a request

TEST_F(AsPlayedLog, ALockedDatabaseIsAnsweredWithZeroEntries)
{
    row(0, 0, 1);
    row(9, 0, 0);
    sqlite3* other = nullptr;
    ASSERT_EQ(sqlite3_open("test.db", &other), SQLITE_OK);
    must(other, "BEGIN EXCLUSIVE");
    std::string answer;
    reportedBy([&] { answer = answerTo("<Parameters delete='yes'/>"); });
    EXPECT_EQ(answer, "<Transaction>\n  <Info entriesInLog=\"0\" numEntries=\"0\" />\n</Transaction>\n");
    must(other, "ROLLBACK");
    sqlite3_close(other);
    EXPECT_EQ(numRows(), 2);
}

TEST_F(AsPlayedLog, ASelectThatFailsInTheMiddleReportsWhatItHad)
{
    for (int sec = 0; sec < 5; ++sec)
        row(sec, 0, 1);
    row(9, 0, 0);
    constexpr int real = -1;
    sqliteSpy.stepAnswers = {real, real, real, real, SQLITE_IOERR};
    answerTo("<Parameters/>");
    EXPECT_EQ(info("entriesInLog"), "6");
    EXPECT_EQ(info("numEntries"), "2");
    EXPECT_EQ(reportedTimes().size(), 2u);
}

TEST_F(AsPlayedLog, ARequestNamesItsStatementsAndValues)
{
    sqliteSpy.refuseEverything = true;
    const Lines lines = reportedBy([this] { request("<Parameters maxLogEntries='3'/>"); });
    EXPECT_THAT(labelsIn(lines),
                ElementsAre("prepare statement get_num_entries", "step statement get_num_entries",
                            "finalize statement get_num_entries", "prepare statement read_as_played_log0",
                            "step statement read_as_played_log0", "finalize statement read_as_played_log0",
                            "prepare statement read_as_played_log1", "bind newest_sec to read_as_played_log1",
                            "bind paramsMaxLogEntries to read_as_played_log1", "step statement read_as_played_log1",
                            "finalize statement read_as_played_log1"));
}

TEST_F(AsPlayedLog, TheBindsOfADeleteGoByTheNameOfTheSelect)
{
    row(0, 0, 1);
    row(9, 0, 0);
    sqliteSpy = SqliteSpy();
    sqliteSpy.refuseFrom = 3; // from the delete on
    const Lines lines = reportedBy([this] { request("<Parameters delete='yes'/>"); });
    EXPECT_THAT(labelsIn(lines),
                ElementsAre("prepare statement delete_as_played_log", "bind newest_sec to read_as_played_log1",
                            "bind newest_sec to read_as_played_log1", "bind newest_usec to read_as_played_log1",
                            "step statement delete_as_played_log", "finalize statement delete_as_played_log"));
}

// ---- cost

TEST_F(AsPlayedLog, TheIndexServesAllOrderedReads)
{
    for (const std::string& text :
         {std::string(OLDEST), std::string(TRIM), std::string(NEWEST_START), SELECT_ALL, SELECT_SOME}) {
        std::string plan;
        for (const std::string& step : rowsOf(db, "EXPLAIN QUERY PLAN " + text))
            plan += step + "\n";
        EXPECT_THAT(plan, HasSubstr("idx_log_time")) << text;
        EXPECT_THAT(plan, Not(HasSubstr("TEMP B-TREE"))) << text;
    }
}

// ---- the text log

namespace
{

class TextLog : public AsPlayedLog
{
protected:
    TextLog()
    {
        log_level = LOG_ALL;
        logFilesOpened.clear();
        logFileOpens = true;
    }

    static Lines writing(const std::string& message)
    {
        return reportedBy([&] { writeAsPlayedLog(message); });
    }

    static std::string text()
    {
        std::ifstream file("text.log");
        std::ostringstream all;
        all << file.rdbuf();
        return all.str();
    }
};

} // namespace

TEST_F(TextLog, AMessageIsWrittenAsItStandsBehindTheLocalTime)
{
    setTimeZone("HOME-2");
    EXPECT_THAT(writing("on air"), ElementsAre("DEBUG: write as-played: on air"));
    EXPECT_EQ(text(), "Fri Jun 20 12:00:00 2014:  on air");
    EXPECT_THAT(logFilesOpened, ElementsAre("/vorelk/audioplayerdatabase/as_played_log.txt a+"));
}

TEST_F(TextLog, AnEmptyMessageIsNoMessageAndALineEnd)
{
    EXPECT_THAT(writing(""), ElementsAre("DEBUG: write as-played: "));
    EXPECT_EQ(text(), "Fri Jun 20 10:00:00 2014:  No message\n");
}

TEST_F(TextLog, LinesAreAdded)
{
    writing("one\n");
    wholeTime = TEN + 1;
    writing("100%s\n");
    EXPECT_EQ(text(), "Fri Jun 20 10:00:00 2014:  one\nFri Jun 20 10:00:01 2014:  100%s\n");
}

TEST_F(TextLog, TheFileIsClosedAfterEachLine)
{
    const auto numDescriptors = [] {
        const std::filesystem::directory_iterator all("/proc/self/fd");
        return std::distance(begin(all), end(all));
    };
    const auto before = numDescriptors();
    writing("one\n");
    EXPECT_EQ(numDescriptors(), before);
}

TEST_F(TextLog, AFileThatCannotBeOpenedLosesTheLineSilently)
{
    logFileOpens = false;
    EXPECT_THAT(writing("lost"), ElementsAre("DEBUG: write as-played: lost"));
    EXPECT_EQ(logFilesOpened.size(), 1u);
}

TEST_F(TextLog, ATimeWithoutATextIsLeftOut)
{
    wholeTime = std::numeric_limits<time_t>::max();
    writing("late\n");
    EXPECT_EQ(text(), ":  late\n");
}
