#include "AudioDatabase.h"
#include "globals.h"
#include "persistenceSupport.h"

#include <cstring>
#include <filesystem>
#include <gmock/gmock.h>
#include <sys/stat.h>

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

namespace
{

// clang-format off
const char* const SCHEMA_TEXTS[] = {
    R"sql( CREATE TABLE IF NOT EXISTS T_Audio_Source_Types  ( id INTEGER PRIMARY KEY,  name VARCHAR(128) NOT NULL UNIQUE); )sql",
    R"sql( INSERT OR IGNORE INTO T_Audio_Source_Types  VALUES ( NULL, "STR_PLAYLIST" ); )sql",
    R"sql( INSERT OR IGNORE INTO T_Audio_Source_Types  VALUES ( NULL, "STR_STREAM" ); )sql",
    R"sql( CREATE TABLE IF NOT EXISTS T_Audio_Sources  (id INTEGER PRIMARY KEY,  source_type_id INTEGER,  player_id INTEGER,  player_name VARCHAR(128),  FOREIGN KEY(source_type_id) REFERENCES T_Audio_Source_Types(id)); )sql",
    R"sql( CREATE TABLE IF NOT EXISTS T_Playlists_Item_Count  (id INTEGER PRIMARY KEY,  playlist_id INTEGER,  count INTEGER,  playlist_length_seconds INTEGER,  FOREIGN KEY(playlist_id) REFERENCES T_Playlists(id)); )sql",
    R"sql( CREATE TABLE IF NOT EXISTS T_Playlist_Types  (id INTEGER PRIMARY KEY,  name VARCHAR(128) UNIQUE); )sql",
    R"sql( INSERT OR IGNORE INTO T_Playlist_Types  VALUES ( NULL, "STR_PLAYLIST" ); )sql",
    R"sql( INSERT OR IGNORE INTO T_Playlist_Types  VALUES ( NULL, "STR_CART" ); )sql",
    R"sql( CREATE TABLE IF NOT EXISTS T_Playlists  (id INTEGER PRIMARY KEY,  sequence INTEGER NOT NULL,  name VARCHAR(128),  playlist_type INTEGER NOT NULL,  FOREIGN KEY(playlist_type) REFERENCES T_Playlist_Types(id)); )sql",
    R"sql( CREATE TABLE IF NOT EXISTS T_Item_Types  (id INTEGER PRIMARY KEY,  name VARCHAR(128) UNIQUE); )sql",
    R"sql( INSERT OR IGNORE INTO T_Item_Types  VALUES ( NULL, "ITEM_TYPE_WAV" ); )sql",
    R"sql( INSERT OR IGNORE INTO T_Item_Types  VALUES ( NULL, "ITEM_TYPE_MP3" ); )sql",
    R"sql( INSERT OR IGNORE INTO T_Item_Types  VALUES ( NULL, "ITEM_TYPE_JUMP" ); )sql",
    R"sql( INSERT OR IGNORE INTO T_Item_Types  VALUES ( NULL, "ITEM_TYPE_GOSUB" ); )sql",
    R"sql( CREATE TABLE IF NOT EXISTS T_Items  (id INTEGER PRIMARY KEY,  pathname VARCHAR(1024),  item_type INTEGER,  item_length_in_samples INTEGER,  item_sample_rate INTEGER,  FOREIGN KEY(item_type) REFERENCES T_Item_Types(id)); )sql",
    R"sql( CREATE TABLE IF NOT EXISTS T_Playlist_Item_Association  (id INTEGER PRIMARY KEY,  sequence INTEGER NOT NULL,  playlist_id INTEGER,  item_id INTEGER,  FOREIGN KEY(playlist_id) REFERENCES T_Playlists(id),  FOREIGN KEY(item_id) REFERENCES T_Items(id));  CREATE INDEX IF NOT EXISTS idx_pl_assoc1 on T_Playlist_item_association (playlist_id);  CREATE INDEX IF NOT EXISTS idx_pl_assoc2 on T_Playlist_item_association (item_id);)sql",
    R"sql( CREATE TABLE IF NOT EXISTS T_Stream_types  ( id INTEGER PRIMARY KEY,  name VARCHAR(128) NOT NULL UNIQUE); )sql",
    R"sql( INSERT OR IGNORE INTO T_Stream_Types  VALUES ( NULL, "STR_LIVEWIRE" ); )sql",
    R"sql( INSERT OR IGNORE INTO T_Stream_Types  VALUES ( NULL, "STR_SHOUTCAST" ); )sql",
    R"sql( CREATE TABLE IF NOT EXISTS T_Streams  ( id INTEGER PRIMARY KEY,  name VARCHAR(128) NOT NULL,  stream_type_id INTEGER,  uri VARCHAR(1024),  channel INT,  dst INT,  FOREIGN KEY(stream_type_id) REFERENCES T_Stream_types(id)); )sql",
    R"sql( CREATE TRIGGER IF NOT EXISTS "Streams_Insert_Trigger"  AFTER INSERT ON T_Streams BEGIN  INSERT INTO T_Audio_Sources  VALUES (  NULL,  (SELECT id FROM T_Audio_Source_Types WHERE name = "STR_STREAM"),  NEW.id,  NEW.name  );  END; )sql",
    R"sql( CREATE TRIGGER IF NOT EXISTS "Streams_Delete_Trigger"  AFTER DELETE ON T_Streams BEGIN  DELETE FROM T_Audio_Sources  WHERE player_id = OLD.id AND source_type_id = (  SELECT id FROM T_Audio_Source_Types WHERE name = "STR_STREAM"  ); END; )sql",
    R"sql( CREATE TRIGGER IF NOT EXISTS "Playlists_Insert_Trigger"  AFTER INSERT ON T_Playlists WHEN NEW.playlist_type =  (SELECT id FROM T_Playlist_Types WHERE name = "STR_PLAYLIST")  BEGIN  INSERT INTO T_Audio_Sources  VALUES ( NULL,  (SELECT id FROM T_Audio_Source_Types WHERE name = "STR_PLAYLIST"),  NEW.id, NEW.name );  END; )sql",
    R"sql( CREATE TRIGGER IF NOT EXISTS "Playlists_Delete_Trigger"  AFTER DELETE ON T_Playlists BEGIN  DELETE FROM T_Audio_Sources  WHERE player_id = OLD.id AND source_type_id = (  SELECT id FROM T_Audio_Source_Types WHERE name = "STR_PLAYLIST"  ); END; )sql",
    R"sql( CREATE TRIGGER IF NOT EXISTS "Item_Count_Playlists_Insert_Trigger"  AFTER INSERT ON T_Playlists BEGIN  INSERT INTO T_Playlists_Item_Count  VALUES (NULL, NEW.id, 0, 0); END; )sql",
    R"sql( CREATE TRIGGER IF NOT EXISTS "Item_Count_Playlists_Delete_Trigger"  AFTER DELETE ON T_Playlists BEGIN  DELETE FROM T_Playlists_Item_Count  WHERE playlist_id = OLD.id; END; )sql",
    R"sql( CREATE TRIGGER IF NOT EXISTS "Item_Count_PlaylistItemAssociation_Insert_Trigger"  AFTER INSERT ON T_Playlist_Item_Association BEGIN  UPDATE T_Playlists_Item_Count SET count =  ((SELECT count FROM T_Playlists_Item_Count  WHERE playlist_id = NEW.playlist_id) + 1)  WHERE playlist_id = NEW.playlist_id;  UPDATE T_Playlists_Item_Count SET playlist_length_seconds =  ((SELECT playlist_length_seconds FROM T_Playlists_Item_Count  WHERE id = NEW.playlist_id) + ((SELECT item_length_in_samples FROM T_Items  WHERE id = NEW.item_id) / (SELECT item_sample_rate FROM T_Items  WHERE id = NEW.item_id)))  WHERE playlist_id = NEW.playlist_id;  END; )sql",
    R"sql( CREATE TRIGGER IF NOT EXISTS "Item_Count_PlaylistItemAssociation_Delete_Trigger"  AFTER DELETE ON T_Playlist_Item_Association BEGIN  UPDATE T_Playlists_Item_Count SET count =  ((SELECT count FROM T_Playlists_Item_Count  WHERE playlist_id = OLD.playlist_id) - 1)  WHERE playlist_id = OLD.playlist_id;  UPDATE T_Playlists_Item_Count SET playlist_length_seconds =  ((SELECT playlist_length_seconds FROM T_Playlists_Item_Count  WHERE id = OLD.playlist_id) - ((SELECT item_length_in_samples FROM T_Items  WHERE id = OLD.item_id) / (SELECT item_sample_rate FROM T_Items  WHERE id = OLD.item_id)))  WHERE playlist_id = OLD.playlist_id;  END; )sql",
};
// clang-format on

/** What SQLite keeps of the first statement of a CREATE text: without IF NOT EXISTS, up to its end. */
std::string keptText(const std::string& text)
{
    const bool isTable = text.find("CREATE TABLE") != std::string::npos; // a trigger's body has semicolons of its own
    const size_t end = isTable ? text.find(';') : text.rfind(';');
    std::string kept = text.substr(1, end - 1);
    const std::string ifNotExists = "IF NOT EXISTS ";
    kept.erase(kept.find(ifNotExists), ifNotExists.size());
    return kept;
}

class AudioDatabaseSchema : public PrivateDirectoryTest
{
protected:
    AudioDatabaseSchema() { log_level = LOG_ALL; }
    ~AudioDatabaseSchema() override { database.close_audio_database(); }

    /** Opens the file as the daemon does, with the reports swallowed. */
    sqlite3* open()
    {
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        sqlite3* db = database.getDatabase();
        fflush(stdout);
        testing::internal::GetCapturedStdout();
        testing::internal::GetCapturedStderr();
        return db;
    }

    AudioDatabase database;
};

} // namespace

TEST_F(AudioDatabaseSchema, AMissingDirectoryIsLoggedAndMade)
{
    std::vector<std::string> lines;
    stdoutOf([&] { lines = reportedBy([&] { database.open_audio_database(); }); });
    EXPECT_THAT(lines,
                ElementsAre("INFO: Playlist directory ../audioplayerdatabase does not exist.  Creating directory now.",
                            "MALFORMED: ")); // the text itself ends its line, and the log adds another end
    EXPECT_TRUE(std::filesystem::is_directory("../audioplayerdatabase"));
    EXPECT_TRUE(std::filesystem::is_regular_file("../audioplayerdatabase/audioDatabase.db"));
}

TEST_F(AudioDatabaseSchema, TheDirectoryIsMadeForEveryoneThatTheUmaskLeaves)
{
    const mode_t before = umask(0);
    open();
    umask(before);
    EXPECT_EQ(std::filesystem::status("../audioplayerdatabase").permissions(), std::filesystem::perms::all);
}

TEST_F(AudioDatabaseSchema, AnExistingDirectoryIsNotMentioned)
{
    std::filesystem::create_directory("../audioplayerdatabase");
    std::vector<std::string> lines;
    stdoutOf([&] { lines = reportedBy([&] { database.open_audio_database(); }); });
    EXPECT_THAT(lines, IsEmpty());
}

TEST_F(AudioDatabaseSchema, OpeningShowsThreadSafetyAndForeignKeys)
{
    std::string words;
    stderrOf([&] { words = stdoutOf([&] { database.open_audio_database(); }); });
    const std::string threadsafe = sqlite3_threadsafe() == 1 ? "TRUE" : "FALSE";
    EXPECT_EQ(words, "Threadsafe: " + threadsafe + "\nForeign Keys: ON\n");
}

TEST_F(AudioDatabaseSchema, OnlyTheAnswerOneIsThreadsafe)
{
    const std::pair<int, const char*> answers[] = {{0, "FALSE"}, {1, "TRUE"}, {2, "FALSE"}};
    for (const auto& [answer, word] : answers) {
        sqliteSpy.threadsafe = answer;
        AudioDatabase fresh;
        std::string words;
        stderrOf([&] { words = stdoutOf([&] { fresh.open_audio_database(); }); });
        fresh.close_audio_database();
        EXPECT_EQ(words, std::string("Threadsafe: ") + word + "\nForeign Keys: ON\n");
    }
}

TEST_F(AudioDatabaseSchema, ForeignKeysThatStayOffAreShownOff)
{
    sqliteSpy.foreignKeysStayOff = true;
    std::string words;
    stderrOf([&] { words = stdoutOf([&] { database.open_audio_database(); }); });
    EXPECT_THAT(words, testing::EndsWith("\nForeign Keys: OFF\n"));
}

TEST_F(AudioDatabaseSchema, TheTextsRunInOrderByteForByteAfterThePragma)
{
    open();
    ASSERT_EQ(sqliteSpy.executed.size(), 29u);
    EXPECT_EQ(sqliteSpy.executed[0], "PRAGMA foreign_keys = ON; PRAGMA foreign_keys;");
    sqliteSpy.executed.erase(sqliteSpy.executed.begin());
    EXPECT_THAT(sqliteSpy.executed, ElementsAreArray(SCHEMA_TEXTS));
    EXPECT_THAT(sqliteSpy.busyTimeoutsMs, ElementsAre(300));
}

TEST_F(AudioDatabaseSchema, TheFileKeepsEveryTableAndTriggerAsWritten)
{
    sqlite3* db = open();
    const std::vector<std::string> found = rowsOf(db, "SELECT sql FROM sqlite_master WHERE sql IS NOT NULL");
    for (const char* text : SCHEMA_TEXTS) {
        if (strncmp(text, " CREATE", 7) == 0) {
            EXPECT_THAT(found, testing::Contains(keptText(text)));
        }
    }
    EXPECT_EQ(found.size(), 20u); // 10 tables, 2 indexes, 8 triggers
}

TEST_F(AudioDatabaseSchema, AFreshFileHoldsTheSeeds)
{
    sqlite3* db = open();
    EXPECT_THAT(rowsOf(db, "SELECT * FROM T_Audio_Source_Types"), ElementsAre("1|STR_PLAYLIST", "2|STR_STREAM"));
    EXPECT_THAT(rowsOf(db, "SELECT * FROM T_Playlist_Types ORDER BY id"), ElementsAre("1|STR_PLAYLIST", "2|STR_CART"));
    EXPECT_THAT(rowsOf(db, "SELECT * FROM T_Item_Types ORDER BY id"),
                ElementsAre("1|ITEM_TYPE_WAV", "2|ITEM_TYPE_MP3", "3|ITEM_TYPE_JUMP", "4|ITEM_TYPE_GOSUB"));
    EXPECT_THAT(rowsOf(db, "SELECT * FROM T_Stream_types"), ElementsAre("1|STR_LIVEWIRE", "2|STR_SHOUTCAST"));
    EXPECT_THAT(rowsOf(db, "SELECT name FROM sqlite_master WHERE type = 'index' AND sql IS NOT NULL ORDER BY name"),
                ElementsAre("idx_pl_assoc1", "idx_pl_assoc2"));
}

TEST_F(AudioDatabaseSchema, ASecondStartLeavesRowsAndIdsAsTheyWere)
{
    const std::string everything = "SELECT type, name, sql FROM sqlite_master ORDER BY name";
    sqlite3* db = open();
    must(db, "INSERT INTO T_Playlists VALUES(NULL, 1, 'one', 1)");
    const std::vector<std::string> schemaBefore = rowsOf(db, everything);
    database.close_audio_database();

    AudioDatabase second;
    std::vector<std::string> lines;
    stdoutOf([&] { lines = reportedBy([&] { second.open_audio_database(); }); });
    db = second.getDatabase();
    EXPECT_THAT(lines, IsEmpty());
    EXPECT_EQ(rowsOf(db, everything), schemaBefore);
    EXPECT_THAT(rowsOf(db, "SELECT id FROM T_Item_Types ORDER BY id"), ElementsAre("1", "2", "3", "4"));
    EXPECT_THAT(rowsOf(db, "SELECT * FROM T_Audio_Sources"), ElementsAre("1|1|1|one"));
    second.close_audio_database();
}

TEST_F(AudioDatabaseSchema, ASecondOpenOfTheObjectOnlyLogs)
{
    sqlite3* db = open();
    sqliteSpy = SqliteSpy();
    EXPECT_THAT(reportedBy([&] { database.open_audio_database(); }),
                ElementsAre("ERROR: Audio data base is already opened by this process.", "MALFORMED: "));
    EXPECT_EQ(database.getDatabase(), db);
    EXPECT_THAT(sqliteSpy.executed, IsEmpty());
}

TEST_F(AudioDatabaseSchema, AFailedOpenRunsEveryTextAndKeepsTheHandle)
{
    std::filesystem::create_directories(
        "../audioplayerdatabase/audioDatabase.db"); // a directory where the file belongs
    std::vector<std::string> lines;
    stdoutOf([&] { lines = reportedBy([&] { database.open_audio_database(); }); });
    ASSERT_EQ(lines.size(), 2u + 2u * 28u);
    EXPECT_EQ(lines[0], "ERROR: Cannot open ../audioplayerdatabase/audioDatabase.db.  unable to open database file");
    EXPECT_EQ(lines[2].rfind(std::string("ERROR: Cannot execute ") + SCHEMA_TEXTS[0], 0), 0u) << lines[2];
    EXPECT_EQ(lines[57].rfind(std::string("Cannot execute ") + SCHEMA_TEXTS[27], 0), 0u) << lines[57];
    EXPECT_THAT(reportedBy([&] { EXPECT_NE(database.getDatabase(), nullptr); }), IsEmpty());
}

TEST_F(AudioDatabaseSchema, AnOpenWithoutMemoryForAHandleDoesNotStopTheProcess)
{
    sqliteSpy.openLeavesNoHandle = true;
    stdoutOf([&] { stderrOf([&] { database.open_audio_database(); }); });
    EXPECT_EQ(sqliteSpy.executed.size(), 29u);
    EXPECT_THAT(sqliteSpy.busyTimeoutsMs, IsEmpty());
}

TEST_F(AudioDatabaseSchema, OneTextThatFailsDoesNotStopTheNext)
{
    std::filesystem::create_directory("../audioplayerdatabase");
    sqlite3* old = nullptr;
    sqlite3_open("../audioplayerdatabase/audioDatabase.db", &old);
    must(old, "CREATE TABLE T_Item_Types (id INTEGER PRIMARY KEY, name TEXT, extra TEXT)"); // one column too many
    sqlite3_close(old);

    std::vector<std::string> lines;
    stdoutOf([&] { lines = reportedBy([&] { database.open_audio_database(); }); });
    EXPECT_EQ(lines.size(), 8u); // four seeds, each reported twice
    EXPECT_THAT(rowsOf(database.getDatabase(), "SELECT count(*) FROM sqlite_master WHERE type = 'trigger'"),
                ElementsAre("8"));
}

TEST_F(AudioDatabaseSchema, TheQuietOpenSaysNothingAndRunsTheSchemaOnlyWhenAsked)
{
    AudioDatabase reader;
    bool opened = false;
    EXPECT_EQ(stdoutOf([&] { opened = database.open_audio_database("other.db", true); }), "");
    EXPECT_TRUE(opened);
    EXPECT_EQ(sqliteSpy.executed.size(), 29u);
    EXPECT_THAT(sqliteSpy.busyTimeoutsMs, ElementsAre(300));
    sqliteSpy = SqliteSpy();
    EXPECT_EQ(stdoutOf([&] { opened = reader.open_audio_database("other.db", false); }), "");
    EXPECT_TRUE(opened);
    EXPECT_THAT(sqliteSpy.executed, ElementsAre("PRAGMA foreign_keys = ON;"));
    EXPECT_THAT(rowsOf(reader.getDatabase(), "PRAGMA foreign_keys"), ElementsAre("1"));
    EXPECT_FALSE(reader.open_audio_database("third.db", false));
    reader.close_audio_database();
}

TEST_F(AudioDatabaseSchema, AFailedQuietOpenLeavesTheObjectClosed)
{
    bool opened = true;
    EXPECT_THAT(reportedBy([&] { opened = database.open_audio_database("missing/x.db", true); }),
                ElementsAreArray(twice("Cannot open missing/x.db.  unable to open database file")));
    EXPECT_FALSE(opened);
    EXPECT_TRUE(database.open_audio_database("x.db", true));
}

TEST_F(AudioDatabaseSchema, APlaylistGetsASourceAndACountRowAndLosesBoth)
{
    sqlite3* db = open();
    must(db, "INSERT INTO T_Playlists VALUES(7, 1, 'songs', 1)");
    EXPECT_THAT(rowsOf(db, "SELECT * FROM T_Audio_Sources"), ElementsAre("1|1|7|songs"));
    EXPECT_THAT(rowsOf(db, "SELECT * FROM T_Playlists_Item_Count"), ElementsAre("1|7|0|0"));
    must(db, "DELETE FROM T_Playlists WHERE id = 7"); // its count row, which refers to it, goes in the same statement
    EXPECT_THAT(rowsOf(db, "SELECT * FROM T_Audio_Sources"), IsEmpty());
    EXPECT_THAT(rowsOf(db, "SELECT * FROM T_Playlists_Item_Count"), IsEmpty());
}

TEST_F(AudioDatabaseSchema, ACartGetsACountRowAndNoSource)
{
    sqlite3* db = open();
    must(db, "INSERT INTO T_Playlists VALUES(NULL, 1, 'cart', 2)");
    EXPECT_THAT(rowsOf(db, "SELECT * FROM T_Audio_Sources"), IsEmpty());
    EXPECT_THAT(rowsOf(db, "SELECT * FROM T_Playlists_Item_Count"), ElementsAre("1|1|0|0"));
}

TEST_F(AudioDatabaseSchema, AStreamGetsASourceAndItsDeleteLeavesThePlaylistOfTheSameId)
{
    sqlite3* db = open();
    must(db, "INSERT INTO T_Playlists VALUES(1, 1, 'songs', 1)");
    must(db, "INSERT INTO T_Streams VALUES(1, 'net', 2, 'http://x', 0, 0)");
    EXPECT_THAT(rowsOf(db, "SELECT * FROM T_Audio_Sources"), ElementsAre("1|1|1|songs", "2|2|1|net"));
    must(db, "DELETE FROM T_Streams WHERE id = 1");
    EXPECT_THAT(rowsOf(db, "SELECT * FROM T_Audio_Sources"), ElementsAre("1|1|1|songs"));
}

TEST_F(AudioDatabaseSchema, EachItemCountsItsWholeSecondsAndTheDeleteTakesThemBack)
{
    sqlite3* db = open();
    must(db, "INSERT INTO T_Playlists VALUES(1, 1, 'songs', 1)");
    must(db, "INSERT INTO T_Items VALUES(1, '/a', 1, 88199, 44100)");  // 1.99998 s: 1
    must(db, "INSERT INTO T_Items VALUES(2, '/b', 1, 144000, 48000)"); // 3 s
    must(db, "INSERT INTO T_Playlist_Item_Association VALUES(1, 1, 1, 1)");
    must(db, "INSERT INTO T_Playlist_Item_Association VALUES(2, 2, 1, 2)");
    EXPECT_THAT(rowsOf(db, "SELECT count, playlist_length_seconds FROM T_Playlists_Item_Count"), ElementsAre("2|4"));
    must(db, "DELETE FROM T_Playlist_Item_Association WHERE id = 1");
    EXPECT_THAT(rowsOf(db, "SELECT count, playlist_length_seconds FROM T_Playlists_Item_Count"), ElementsAre("1|3"));
}

TEST_F(AudioDatabaseSchema, AnItemWithoutRateMakesTheLengthNullForGood)
{
    sqlite3* db = open();
    must(db, "INSERT INTO T_Playlists VALUES(1, 1, 'songs', 1)");
    must(
        db,
        "INSERT INTO T_Items VALUES(1, '/zero', 1, 100, 0), (2, '/null', 1, 100, NULL), (3, '/good', 1, 96000, 48000)");
    for (const char* item : {"1", "2", "3"}) {
        must(db, std::string("INSERT INTO T_Playlist_Item_Association VALUES(NULL, 1, 1, ") + item + ")");
        const std::string expected = std::string(item) + "|NULL";
        EXPECT_THAT(rowsOf(db, "SELECT count, playlist_length_seconds FROM T_Playlists_Item_Count"),
                    ElementsAre(expected));
    }
}

TEST_F(AudioDatabaseSchema, TheLengthStartsFromTheCountRowWhoseIdIsThePlaylists)
{
    sqlite3* db = open();
    must(db, "INSERT INTO T_Playlists VALUES(2, 1, 'two', 1)");                // count row 1
    must(db, "INSERT INTO T_Playlists VALUES(1, 1, 'one', 1)");                // count row 2
    must(db, "INSERT INTO T_Items VALUES(1, '/a', 1, 480000, 48000)");         // 10 s
    must(db, "INSERT INTO T_Playlist_Item_Association VALUES(NULL, 1, 2, 1)"); // row 2 holds 0: 0 + 10
    must(db, "INSERT INTO T_Playlist_Item_Association VALUES(NULL, 2, 2, 1)"); // row 2 still holds 0: 10 again
    EXPECT_THAT(rowsOf(db, "SELECT * FROM T_Playlists_Item_Count ORDER BY id"), ElementsAre("1|2|2|10", "2|1|0|0"));
    must(db, "INSERT INTO T_Playlist_Item_Association VALUES(NULL, 1, 1, 1)"); // row 1 holds 10: 20
    EXPECT_THAT(rowsOf(db, "SELECT * FROM T_Playlists_Item_Count ORDER BY id"), ElementsAre("1|2|2|10", "2|1|1|20"));

    must(db, "INSERT INTO T_Playlists VALUES(9, 1, 'nine', 1)"); // no count row 9: from nothing
    must(db, "INSERT INTO T_Playlist_Item_Association VALUES(NULL, 1, 9, 1)");
    EXPECT_THAT(rowsOf(db, "SELECT * FROM T_Playlists_Item_Count WHERE playlist_id = 9"), ElementsAre("3|9|1|NULL"));
}

TEST_F(AudioDatabaseSchema, AnAssociationCannotNameWhatIsMissingNorLoseWhatItNames)
{
    sqlite3* db = open();
    must(db, "INSERT INTO T_Playlists VALUES(1, 1, 'songs', 1)");
    must(db, "INSERT INTO T_Items VALUES(1, '/a', 1, 1, 1)");
    must(db, "INSERT INTO T_Playlist_Item_Association VALUES(1, 1, 1, 1)");
    const auto refused = [&](const char* sql) {
        return sqlite3_exec(db, sql, nullptr, nullptr, nullptr) == SQLITE_CONSTRAINT;
    };
    EXPECT_TRUE(refused("INSERT INTO T_Playlist_Item_Association VALUES(NULL, 1, 5, 1)"));
    EXPECT_TRUE(refused("INSERT INTO T_Playlist_Item_Association VALUES(NULL, 1, 1, 5)"));
    EXPECT_TRUE(refused("DELETE FROM T_Items WHERE id = 1"));
    EXPECT_TRUE(refused("DELETE FROM T_Playlists WHERE id = 1"));
    must(db, "DELETE FROM T_Playlist_Item_Association WHERE id = 1");
    EXPECT_FALSE(refused("DELETE FROM T_Items WHERE id = 1"));
    EXPECT_FALSE(refused("DELETE FROM T_Playlists WHERE id = 1"));
}
