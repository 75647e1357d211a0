#include "AudioDatabase.h"

#include "globals.h"
#include "persistenceSupport.h"

#include <gmock/gmock.h>

using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

namespace
{

using Lines = std::vector<std::string>;

const char* const SELECT_TYPE = " SELECT * FROM T_Playlist_Types WHERE id = ?; ";
const char* const INSERT_PLACE =
    " INSERT INTO T_Playlist_Item_Association  (sequence, playlist_id, item_id)  VALUES ( ?, ?, ? ); ";
const char* const INSERT_ITEM =
    " INSERT INTO T_Items  ( pathname, item_type, item_length_in_samples, item_sample_rate )  VALUES ( ?, ?, ?, ? ); ";

PlaylistItem itemRecord(const char* path, uint16_t playlistId = 1, uint32_t sequence = 65535)
{
    PlaylistItem item;
    item.setPath(path);
    item.getTypeReference().setTypeID(1);
    item.setLengthSamples(96000);
    item.setSampleRate(48000);
    item.setPlaylistID(playlistId);
    item.setSequence(sequence);
    return item;
}

class Database : public PrivateDirectoryTest
{
protected:
    Database()
    {
        log_level = LOG_ERROR | LOG_INFO;
        database.open_audio_database("test.db", true);
        db = database.getDatabase();
        sqliteSpy = SqliteSpy();
    }
    ~Database() override
    {
        sqliteSpy = SqliteSpy();
        while (sqlite3_stmt* stmt = sqlite3_next_stmt(db, nullptr))
            sqlite3_finalize(stmt);
        database.close_audio_database();
    }

    /** Playlist `id` with items /1, /2, ... (item ids 1, 2, ...) at sequences 1, 2, ... and association ids 1, 2, ... */
    void fill(int id, int numItems)
    {
        must(db, "INSERT INTO T_Playlists VALUES(" + std::to_string(id) + ", 1, 'list', 1)");
        for (int n = 1; n <= numItems; ++n) {
            const std::string number = std::to_string(n);
            must(db, "INSERT INTO T_Items VALUES(" + number + ", '/" + number + "', 1, 48000, 48000)");
            must(db, "INSERT INTO T_Playlist_Item_Association VALUES(" + number + ", " + number + ", " +
                         std::to_string(id) + ", " + number + ")");
        }
        sqliteSpy = SqliteSpy();
    }

    AudioDatabase database;
    sqlite3* db = nullptr;
};

} // namespace

// ---- statement texts, binds and labels

namespace
{

struct Operation {
    const char* name;
    std::function<void(AudioDatabase&)> call;
    Lines texts;  ///< whole texts prepared
    Lines binds;  ///< values bound
    Lines labels; ///< what the wrapper reports when every call is refused, without the words "Cannot " and SQLite's
};

const std::vector<Operation>& operations()
{
    static const std::vector<Operation> all = {
        {"getPlaylistId",
         [](AudioDatabase& d) { d.getPlaylistId("songs"); },
         {" SELECT * FROM T_Playlists WHERE name = ?; "},
         {"1='songs'"},
         {"prepare statement select_playlist_by_name", "bind songs to select_playlist_by_name",
          "step statement select_playlist_by_name", "finalize statement select_playlist_by_name"}},
        {"getPlaylist",
         [](AudioDatabase& d) {
             Playlist playlist;
             d.getPlaylist(5, playlist);
         },
         {" SELECT * FROM T_Playlists WHERE id = ?; "},
         {"1=5"},
         {"prepare statement select_playlist_by_id", "bind playlist_id to select_playlist_by_id",
          "step statement select_playlist_by_id", "finalize statement select_playlist_by_id"}},
        {"getPlaylistType",
         [](AudioDatabase& d) {
             PlaylistType type;
             d.getPlaylistType(2, type);
         },
         {SELECT_TYPE},
         {"1=2"},
         {"prepare statement select_type_by_id", "bind type_id to select_type_by_id",
          "step statement select_type_by_id", "finalize statement select_type_by_id"}},
        {"insert_playlist",
         [](AudioDatabase& d) { d.insert_playlist("songs", 4, 1); },
         {" INSERT INTO T_Playlists  ( sequence, name, playlist_type )  VALUES ( ?, ?, ? ); "},
         {"1=4", "2='songs'", "3=1"},
         {"prepare statement insert_playlist", "bind playlist_sequence to insert_playlist",
          "bind playlist_name to insert_playlist", "bind playlist_type to insert_playlist",
          "step statement insert_playlist", "finalize statement insert_playlist"}},
        {"insert_playlist_next",
         [](AudioDatabase& d) { d.insert_playlist("songs", 65535, 1); },
         {" SELECT MAX( sequence ) FROM T_Playlists; ",
          " INSERT INTO T_Playlists  ( sequence, name, playlist_type )  VALUES ( ?, ?, ? ); "},
         {"1=1", "2='songs'", "3=1"},
         {"prepare statement select_max_sequence", "step statement select_max_sequence",
          "finalize statement select_max_sequence", "prepare statement insert_playlist",
          "bind playlist_sequence to insert_playlist", "bind playlist_name to insert_playlist",
          "bind playlist_type to insert_playlist", "step statement insert_playlist",
          "finalize statement insert_playlist"}},
        {"update_playlist",
         [](AudioDatabase& d) { d.update_playlist(3, "new", 8); },
         {" UPDATE T_Playlists SET sequence = ?,  name = ?  WHERE id = ?; "},
         {"1=8", "2='new'", "3=3"},
         {"prepare statement insert_playlist", "bind playlist_sequence to insert_playlist",
          "bind playlist_name to insert_playlist", "bind playlist_id to insert_playlist",
          "step statement insert_playlist", "finalize statement insert_playlist"}},
        {"delete_playlist",
         [](AudioDatabase& d) { d.delete_playlist(6); },
         {" SELECT * FROM T_Playlist_Item_Association WHERE playlist_id = ? ORDER BY sequence; ",
          " DELETE FROM T_Playlists WHERE id = ?; "},
         {"1=6", "1=6"},
         {"prepare statement select_items_in_playlist", "bind playlist_id to select_items_in_playlist",
          "step statement select_items_in_playlist", "finalize statement select_items_in_playlist",
          "prepare statement delete_playlist", "bind playlist_id to delete_playlist", "step statement delete_playlist",
          "finalize statement delete_playlist"}},
        {"getPlaylistItemCount",
         [](AudioDatabase& d) { d.getPlaylistItemCount(2); },
         {" SELECT count FROM T_Playlists_Item_Count WHERE playlist_id = ?; "},
         {"1=2"},
         {"prepare statement select_playlist_item_count", "bind playlist_id to select_playlist_item_count",
          "step statement select_playlist_item_count", "finalize statement select_playlist_item_count"}},
        {"getPlaylistLengthSeconds",
         [](AudioDatabase& d) { d.getPlaylistLengthSeconds(2); },
         {" SELECT playlist_length_seconds FROM T_Playlists_Item_Count WHERE playlist_id = ?; "},
         {"1=2"},
         {"prepare statement select_playlist_length", "bind playlist_id to select_playlist_length",
          "step statement select_playlist_length"}}, // and no finalize on this path
        {"getPlaylistItems",
         [](AudioDatabase& d) {
             Playlist playlist;
             playlist.setPlaylistID(4);
             d.getPlaylistItems(playlist);
         },
         {" SELECT * FROM T_Playlist_Item_Association WHERE playlist_id = ? ORDER BY sequence; "},
         {"1=4"},
         {"prepare statement select_playlist_entries", "bind playlist_id to select_playlist_entries",
          "step statement select_playlist_entries", "finalize statement select_playlist_entries"}},
        {"getItemIdByPath",
         [](AudioDatabase& d) { d.getItemIdByPath("/a.wav"); },
         {"SELECT * FROM T_Items WHERE pathname = ?; "},
         {"1='/a.wav'"},
         {"prepare statement select_item_by_filename", "bind /a.wav to select_item_by_filename",
          "step statement select_item_by_filename", "finalize statement select_item_by_filename"}},
        {"getItemType",
         [](AudioDatabase& d) {
             ItemType type;
             d.getItemType(3, type);
         },
         {" SELECT * FROM T_Item_Types WHERE id = ?; "},
         {"1=3"},
         {"prepare statement select_type_by_id", "bind type_id to select_type_by_id",
          "step statement select_type_by_id", "finalize statement select_type_by_id"}},
        {"insert_item",
         [](AudioDatabase& d) { d.insert_item(itemRecord("/a.wav")); },
         {INSERT_ITEM},
         {"1='/a.wav'", "2=1", "3=96000", "4=48000"},
         {"prepare statement insert_item", "bind item_pathname to insert_item",
          "bind item_type to insert_playlist_item", "bind item_length_samples to insert_playlist_item",
          "bind item_sample_rate to insert_playlist_item", "step statement insert_playlist_item",
          "finalize statement insert_item"}},
        {"getNextPlaylistItem",
         [](AudioDatabase& d) {
             PlaylistItem item;
             d.getNextPlaylistItem(2, 7, item);
         },
         {" SELECT * FROM T_Playlist_Item_Association WHERE playlist_id = ? AND sequence > ?  ORDER BY sequence LIMIT "
          "1; "},
         {"1=2", "2=7"},
         {"prepare statement select_next_playlist_item", "bind playlist_id to select_next_playlist_item",
          "bind sequence to select_next_playlist_item", "step statement select_next_playlist_item",
          "finalize statement select_next_playlist_item"}},
        {"insert_playlist_asoc",
         [](AudioDatabase& d) { d.insert_playlist_asoc(2, 7, 9); },
         {INSERT_PLACE},
         {"1=7", "2=2", "3=9"},
         {"prepare statement insert_playlist_asoc", "bind sequence to insert_playlist_asoc",
          "bind playlist_item_id to insert_playlist_asoc", "bind item_id to insert_playlist_asoc",
          "step statement insert_playlist_asoc", "finalize statement insert_playlist_asoc"}},
        {"update_playlist_item",
         [](AudioDatabase& d) { d.update_playlist_item(2, 7); },
         {" UPDATE T_Playlist_Item_Association SET  sequence = ?  WHERE id = ?; "},
         {"1=7", "2=2"},
         {"prepare statement update_item_sequence", "bind sequence to update_item_sequence",
          "bind playlist_id to update_item_sequence", "step statement update_item_sequence",
          "finalize statement update_item_sequence"}},
        {"delete_all_playlist_items",
         [](AudioDatabase& d) { d.delete_all_playlist_items(2); },
         {"DELETE FROM T_Playlist_Item_Association WHERE playlist_id = ?; "},
         {"1=2"},
         {"prepare statement delete_all_playlist_items", "bind playlist_id to delete_all_playlist_item",
          "step statement delete_all_playlist_items", "finalize statement delete_all_playlist_items"}},
        {"insert_playlist_item",
         [](AudioDatabase& d) { d.insert_playlist_item(itemRecord("/a.wav", 2)); },
         {INSERT_PLACE, " SELECT * FROM T_Items WHERE pathname = ?; ", INSERT_ITEM,
          " SELECT MAX( sequence ) FROM T_Playlist_Item_Association WHERE playlist_id = ?; "},
         {"1='/a.wav'", "1='/a.wav'", "2=1", "3=96000", "4=48000", "1=2", "1=1", "2=2", "3=1"},
         {"prepare statement insert_playlist_item", "prepare statement select_item_by_path",
          "bind item_path to select_item_by_path", "step statement select_item_by_path",
          "finalize statement select_item_by_path", "prepare statement select_max_sequence",
          "bind playlist_id to select_max_sequence", "step statement select_max_sequence",
          "finalize statement select_max_sequence", "finalize statement insert_playlist_item"}},
        {"insert_playlist_item_at",
         [](AudioDatabase& d) { d.insert_playlist_item(itemRecord("/a.wav", 2, 6)); },
         {INSERT_PLACE, " SELECT * FROM T_Items WHERE pathname = ?; ", INSERT_ITEM},
         {"1='/a.wav'", "1='/a.wav'", "2=1", "3=96000", "4=48000", "1=6", "2=2", "3=1"},
         {"prepare statement insert_playlist_item", "prepare statement select_item_by_path",
          "bind item_path to select_item_by_path", "step statement select_item_by_path",
          "finalize statement select_item_by_path", "bind item_sequence to insert_playlist_item",
          "bind playlist_id to insert_playlist_item", "bind item_id to insert_playlist_item",
          "step statement insert_playlist_item", "finalize statement insert_playlist_item"}},
        {"delete_playlist_item",
         [](AudioDatabase& d) { d.delete_playlist_item(2, 9); },
         {" DELETE FROM T_Playlist_Item_Association WHERE id = ?; ",
          " SELECT * FROM T_Playlist_Item_Association WHERE item_id = ?; ", " DELETE FROM T_Items WHERE id = ?; "},
         {"1=2", "1=9", "1=9"},
         {"prepare statement delete_playlist_item", "bind playlist_item_id to delete_playlist_item",
          "step statement delete_playlist_item", "finalize statement delete_playlist_item",
          "prepare statement select_playlists_that_use_item", "bind item_id to select_playlists_that_use_item",
          "step statement select_playlists_that_use_item", "prepare statement delete_item",
          "bind item_id to delete_item", "step statement delete_item", "finalize statement delete_item",
          "finalize statement select_playlists_that_use_item"}},
        {"insert_stream",
         [](AudioDatabase& d) { d.insert_stream("net", 2, "http://x", 3, 4); },
         {" INSERT INTO T_Streams  ( name, stream_type_id, uri, channel, dst ) VALUES ( ?, ?, ?, ?, ? ); "},
         {"1='net'", "2=2", "3='http://x'", "4=3", "5=4"},
         {"prepare statement insert_stream", "bind name to insert_stream", "bind stream_type_id to insert_stream",
          "bind uri to insert_stream", "bind channel to insert_stream", "bind dst to insert_stream",
          "step statement insert_stream", "finalize statement insert_stream"}},
        {"update_stream",
         [](AudioDatabase& d) { d.update_stream(8, "net", 2, "http://x", 3, 4); },
         {" UPDATE T_Streams  SET name = ?,  stream_type_id = ?,  uri = ?,  channel = ?,  dst = ?  WHERE id = ?; "},
         {"1='net'", "2=2", "3='http://x'", "4=3", "5=4", "6=8"},
         {"prepare statement update_stream", "bind name to update_stream", "bind stream_type_id to update_stream",
          "bind uri to update_stream", "bind channel to update_stream", "bind dst to update_stream",
          "bind stream_id to update_stream", "step statement update_stream", "finalize statement update_stream"}},
        {"delete_stream",
         [](AudioDatabase& d) { d.delete_stream(8); },
         {" DELETE FROM T_Streams WHERE id = ?; "},
         {"1=8"},
         {"prepare statement delete_stream", "bind stream_id to delete_stream", "step statement delete_stream",
          "finalize statement delete_stream"}},
    };
    return all;
}

class DatabaseOperation : public Database, public testing::WithParamInterface<size_t>
{
protected:
    const Operation& operation() const { return operations()[GetParam()]; }
};

} // namespace

TEST_P(DatabaseOperation, PreparesItsTextsByteForByteAndBindsInOrder)
{
    stderrOf([&] { operation().call(database); });
    EXPECT_EQ(sqliteSpy.prepared, operation().texts);
    EXPECT_EQ(sqliteSpy.bound, operation().binds);
}

TEST_P(DatabaseOperation, ReportsEachRefusedCallUnderItsLabels)
{
    log_level = 0; // the direct lines alone
    sqliteSpy.refuseEverything = true;
    Lines expected;
    for (const std::string& label : operation().labels)
        expected.push_back("Cannot " + label + ".  not an error");
    EXPECT_EQ(reportedBy([&] { operation().call(database); }), expected);
}

TEST_P(DatabaseOperation, SurvivesAnObjectWithoutConnection)
{
    sqliteSpy.openLeavesNoHandle = true;
    AudioDatabase unopened;
    EXPECT_NE(stderrOf([&] { operation().call(unopened); }), "");
}

INSTANTIATE_TEST_SUITE_P(All, DatabaseOperation, testing::Range<size_t>(0, operations().size()),
                         [](const auto& param) { return std::string(operations()[param.param].name); });

// ---- failure lines

TEST_F(Database, MissingRowsAreToldWithTheirCodeAndLeaveTheRecordUnchanged)
{
    Playlist playlist;
    playlist.setName("kept");
    EXPECT_THAT(reportedBy([&] { database.getPlaylist(5, playlist); }),
                ElementsAre("ERROR: Select Playlist by id: 101 failed."));
    EXPECT_EQ(playlist.getName(), "kept");
    EXPECT_EQ(playlist.getPlaylistID(), 65536);

    PlaylistType playlistType;
    EXPECT_THAT(reportedBy([&] { database.getPlaylistType(9, playlistType); }),
                ElementsAre("ERROR: Get playlist type failed. typeID: 9, sqliteRC: 101"));
    EXPECT_EQ(playlistType.getTypeID(), 0);

    ItemType itemType;
    itemType.setTypeID(2);
    EXPECT_THAT(reportedBy([&] { database.getItemType(9, itemType); }),
                ElementsAre("ERROR: Get item type failed. typeID: 9, sqliteRC: 101"));
    EXPECT_EQ(itemType.getTypeID(), 2);

    int count = -1;
    EXPECT_THAT(reportedBy([&] { count = database.getPlaylistItemCount(9); }),
                ElementsAre("ERROR: Select playlist item count: 101 failed."));
    EXPECT_EQ(count, 0);
}

TEST_F(Database, AMissingLengthLeavesItsStatementUnfinalizedAndAPresentOneDoesNot)
{
    uint64_t seconds = 1;
    EXPECT_THAT(reportedBy([&] { seconds = database.getPlaylistLengthSeconds(9); }),
                ElementsAre("ERROR: Select playlist length failed. 101"));
    EXPECT_EQ(seconds, 0u);
    sqlite3_stmt* left = sqlite3_next_stmt(db, nullptr);
    ASSERT_NE(left, nullptr);
    sqlite3_finalize(left);

    must(db, "INSERT INTO T_Playlists_Item_Count VALUES(1, NULL, 0, 6000000000)");
    must(db, "INSERT INTO T_Playlists VALUES(4, 1, 'long', 1)");
    must(db, "UPDATE T_Playlists_Item_Count SET playlist_length_seconds = 6000000000 WHERE playlist_id = 4");
    EXPECT_EQ(database.getPlaylistLengthSeconds(4), 6000000000u);
    EXPECT_EQ(sqlite3_next_stmt(db, nullptr), nullptr);
}

TEST_F(Database, AnAbsentNameOrPathIsAnOrdinaryAnswer)
{
    EXPECT_THAT(reportedBy([&] { EXPECT_EQ(database.getPlaylistId("nobody"), -1); }), IsEmpty());
    EXPECT_THAT(reportedBy([&] { EXPECT_EQ(database.getItemIdByPath("/nothing"), -1); }), IsEmpty());
}

namespace
{

struct Failure {
    const char* name;
    std::function<int(AudioDatabase&)> call;
    const char* line;
};

const std::vector<Failure>& failures()
{
    // Each step answers SQLITE_BUSY, 5, which the wrapper passes on in silence.
    static const std::vector<Failure> all = {
        {"insert_playlist", [](AudioDatabase& d) { return d.insert_playlist("a", 1, 1); },
         "ERROR: Playlist insert/update failed. error-code 5"},
        {"update_playlist", [](AudioDatabase& d) { return d.update_playlist(1, "a", 1); },
         "ERROR: Playlist insert/update failed. not an error, error-code 5"},
        {"insert_item", [](AudioDatabase& d) { return d.insert_item(itemRecord("/a")); },
         "ERROR: Item insert failed. 5"},
        {"insert_playlist_asoc", [](AudioDatabase& d) { return d.insert_playlist_asoc(1, 1, 1); },
         "ERROR: Playlist item delete failed. Error-code 5"},
        {"delete_all_playlist_items", [](AudioDatabase& d) { return d.delete_all_playlist_items(1); },
         "ERROR: Playlist item delete failed. Error-code 5"},
        {"update_playlist_item", [](AudioDatabase& d) { return d.update_playlist_item(1, 1); },
         "ERROR: Playlist Item update failed. 5"},
        {"insert_stream", [](AudioDatabase& d) { return d.insert_stream("a", 1, "u", 1, 1); },
         "ERROR: Stream insert failed. 5"},
        {"update_stream", [](AudioDatabase& d) { return d.update_stream(1, "a", 1, "u", 1, 1); },
         "ERROR: Stream update failed. 5"},
        {"delete_stream", [](AudioDatabase& d) { return d.delete_stream(1); }, "ERROR: Stream delete failed. 5"},
    };
    return all;
}

class DatabaseFailure : public Database, public testing::WithParamInterface<size_t>
{
};

} // namespace

TEST_P(DatabaseFailure, AStepThatIsNotDoneIsLoggedAndItsCodeReturned)
{
    const Failure& failure = failures()[GetParam()];
    sqliteSpy.stepAnswers = {SQLITE_BUSY};
    int rc = 0;
    EXPECT_THAT(reportedBy([&] { rc = failure.call(database); }), ElementsAre(failure.line));
    EXPECT_EQ(rc, SQLITE_BUSY);
}

INSTANTIATE_TEST_SUITE_P(All, DatabaseFailure, testing::Range<size_t>(0, failures().size()),
                         [](const auto& param) { return std::string(failures()[param.param].name); });

TEST_F(Database, TheErrorTextOfAFailedUpdateIsSqlitesOwn)
{
    fill(1, 0);
    must(db, "CREATE TRIGGER refuse BEFORE UPDATE ON T_Playlists BEGIN SELECT RAISE(ABORT, 'not today'); END");
    EXPECT_THAT(reportedBy([&] { EXPECT_EQ(database.update_playlist(1, "a", 1), SQLITE_CONSTRAINT); }),
                ElementsAre("ERROR: Playlist insert/update failed. not today, error-code 19",
                            "ERROR: Cannot finalize statement insert_playlist.  not today",
                            "Cannot finalize statement insert_playlist.  not today"));
}

TEST_F(Database, AFailedDeleteOfAPlaylistNamesItAndItsCode)
{
    sqliteSpy.stepAnswers = {SQLITE_DONE, SQLITE_BUSY};
    EXPECT_THAT(reportedBy([&] { EXPECT_EQ(database.delete_playlist(7), SQLITE_BUSY); }),
                ElementsAre("ERROR: Playlist id 7 delete. error-code 5"));
}

TEST_F(Database, DeletingAPlaceReportsEachFailureAndAnswersZero)
{
    sqliteSpy.stepAnswers = {SQLITE_BUSY, SQLITE_DONE, SQLITE_LOCKED};
    EXPECT_THAT(
        reportedBy([&] { EXPECT_EQ(database.delete_playlist_item(1, 2), 0); }),
        ElementsAre("ERROR: Playlist item delete failed. Error-code 5", "ERROR: Item delete failed. Error-code 6"));
}

// ---- playlists

TEST_F(Database, InsertPlaylistAssignsOneOnAnEmptyTableAndThenTheHighestPlusOne)
{
    log_level = LOG_DEBUG;
    EXPECT_THAT(reportedBy([&] { EXPECT_EQ(database.insert_playlist("a", 65535, 1), SQLITE_DONE); }),
                ElementsAre("DEBUG: Select max result: 1"));
    EXPECT_EQ(database.insert_playlist("b", 40, 2), SQLITE_DONE);
    EXPECT_EQ(database.insert_playlist("c", 65536, 1), SQLITE_DONE); // as it stands
    must(db, "DELETE FROM T_Playlists WHERE name = 'c'");
    EXPECT_THAT(reportedBy([&] { database.insert_playlist("d", 65535, 1); }),
                ElementsAre("DEBUG: Select max result: 41"));
    EXPECT_THAT(rowsOf(db, "SELECT sequence, name, playlist_type FROM T_Playlists"),
                ElementsAre("1|a|1", "40|b|2", "41|d|1"));
}

TEST_F(Database, AFailedMaximumIsLoggedAndTheSequenceStays)
{
    sqliteSpy.stepAnswers = {SQLITE_BUSY};
    EXPECT_THAT(reportedBy([&] { EXPECT_EQ(database.insert_playlist("a", 65535, 1), SQLITE_DONE); }),
                ElementsAre("ERROR: Select max sequence failed. not an error, error-code 5"));
    EXPECT_THAT(rowsOf(db, "SELECT sequence FROM T_Playlists"), ElementsAre("65535"));
}

TEST_F(Database, AFailedInsertOfAPlaylistIsFinalizedBeforeItIsTold)
{
    EXPECT_THAT(reportedBy([&] { EXPECT_EQ(database.insert_playlist("a", 1, 9), SQLITE_CONSTRAINT); }), // no type 9
                ElementsAre("ERROR: Cannot finalize statement insert_playlist.  FOREIGN KEY constraint failed",
                            "Cannot finalize statement insert_playlist.  FOREIGN KEY constraint failed",
                            "ERROR: Playlist insert/update failed. error-code 19"));
}

TEST_F(Database, ASecondPlaylistOfTheSameNameIsAddedAndTheFirstIsFound)
{
    database.insert_playlist("twin", 1, 1);
    database.insert_playlist("other", 2, 1);
    EXPECT_EQ(database.insert_playlist("twin", 3, 1), SQLITE_DONE);
    EXPECT_THAT(rowsOf(db, "SELECT id FROM T_Playlists WHERE name = 'twin'"), ElementsAre("1", "3"));
    EXPECT_EQ(database.getPlaylistId("twin"), 1);
    EXPECT_EQ(database.getPlaylistId("other"), 2);
}

TEST_F(Database, GetPlaylistFillsTheRecord)
{
    must(db, "INSERT INTO T_Playlists VALUES(12, 34, 'songs', 2)");
    Playlist playlist;
    EXPECT_THAT(reportedBy([&] { database.getPlaylist(12, playlist); }), IsEmpty());
    EXPECT_EQ(playlist.getName(), "songs");
    EXPECT_EQ(playlist.getPlaylistID(), 12);
    EXPECT_EQ(playlist.getSequence(), 34);
    EXPECT_EQ(playlist.getPlaylistType().getTypeID(), 2);
    EXPECT_EQ(playlist.getPlaylistType().getName(), "STR_CART");
}

TEST_F(Database, ANullNameLeavesTheRecordsNameAndReadsAsEmptyInANewOne)
{
    must(db, "INSERT INTO T_Playlists VALUES(12, 34, NULL, 1)");
    Playlist fresh;
    database.getPlaylist(12, fresh);
    EXPECT_EQ(fresh.getName(), "");
    EXPECT_EQ(fresh.getPlaylistID(), 12);
    Playlist used;
    used.setName("before");
    database.getPlaylist(12, used);
    EXPECT_EQ(used.getName(), "before");
}

TEST_F(Database, UpdatePlaylistRenamesAndMovesAndLeavesTheType)
{
    must(db, "INSERT INTO T_Playlists VALUES(3, 1, 'old', 2)");
    EXPECT_EQ(database.update_playlist(3, "new", 65535), SQLITE_DONE);
    EXPECT_THAT(rowsOf(db, "SELECT * FROM T_Playlists"), ElementsAre("3|65535|new|2"));
    EXPECT_EQ(database.update_playlist(99, "new", 1), SQLITE_DONE);
}

TEST_F(Database, DeletingAMissingPlaylistSucceeds)
{
    EXPECT_THAT(reportedBy([&] { EXPECT_EQ(database.delete_playlist(5), SQLITE_DONE); }), IsEmpty());
}

TEST_F(Database, DeletePlaylistTakesPlacesItemsAndDerivedRows)
{
    fill(1, 3);
    EXPECT_THAT(reportedBy([&] { EXPECT_EQ(database.delete_playlist(1), SQLITE_DONE); }), IsEmpty());
    for (const char* table :
         {"T_Playlists", "T_Playlist_Item_Association", "T_Items", "T_Audio_Sources", "T_Playlists_Item_Count"})
        EXPECT_THAT(rowsOf(db, std::string("SELECT * FROM ") + table), IsEmpty()) << table;
}

TEST_F(Database, AnItemOfTwoPlaylistsGoesWithTheSecond)
{
    fill(1, 2);
    must(db, "INSERT INTO T_Playlists VALUES(2, 2, 'second', 1)");
    must(db, "INSERT INTO T_Playlist_Item_Association VALUES(NULL, 1, 2, 1)");
    EXPECT_EQ(database.getPlaylistItemCount(1), 2);
    EXPECT_EQ(database.getPlaylistItemCount(2), 1);
    database.delete_playlist(1);
    EXPECT_THAT(rowsOf(db, "SELECT pathname FROM T_Items"), ElementsAre("/1"));
    EXPECT_EQ(database.getPlaylistItemCount(2), 1);
    database.delete_playlist(2);
    EXPECT_THAT(rowsOf(db, "SELECT pathname FROM T_Items"), IsEmpty());
}

TEST_F(Database, ThePlaylistsLengthFollowsItsPlaces)
{
    fill(1, 3);
    EXPECT_EQ(database.getPlaylistLengthSeconds(1), 3u);
    database.delete_playlist_item(2, 2);
    EXPECT_EQ(database.getPlaylistLengthSeconds(1), 2u);
    EXPECT_EQ(database.getPlaylistItemCount(1), 2);
}

TEST_F(Database, GetPlaylistItemsEndsWithTheLastRowsValues)
{
    must(db, "INSERT INTO T_Playlists VALUES(5, 1, 'list', 1)");
    must(db, "INSERT INTO T_Items VALUES(2, '/2', 1, 1, 1), (1, '/1', 1, 1, 1)");
    must(db, "INSERT INTO T_Playlist_Item_Association VALUES(31, 8, 5, 2), (30, 4, 5, 1)");
    Playlist playlist;
    playlist.setPlaylistID(5);
    database.getPlaylistItems(playlist);
    EXPECT_EQ(playlist.getPlaylistID(), 31);
    EXPECT_EQ(playlist.getSequence(), 8);
    EXPECT_EQ(playlist.getName(), "5");
    EXPECT_EQ(playlist.getPlaylistType().getName(), "STR_CART"); // column 3, the item's id, taken for a type
}

// ---- items and places

TEST_F(Database, TheWalkTakesTheLowestSequenceAboveTheGivenOne)
{
    fill(1, 3);
    PlaylistItem item;
    item.setLengthSamples(11);
    item.setSampleRate(22);
    EXPECT_TRUE(database.getNextPlaylistItem(1, 0, item));
    EXPECT_EQ(item.getSequence(), 1u);
    EXPECT_EQ(item.getPath(), "/1");
    EXPECT_EQ(item.getItemID(), 1);
    EXPECT_EQ(item.getPlaylistID(), 1);
    EXPECT_EQ(item.getPlaylistItemID(), 1u);
    EXPECT_TRUE(item.getType().isWAV());
    EXPECT_EQ(item.getType().getName(), "ITEM_TYPE_WAV");
    EXPECT_EQ(item.getLengthSamples(), 11u); // not loaded
    EXPECT_EQ(item.getSampleRate(), 22u);
    EXPECT_TRUE(database.getNextPlaylistItem(1, 1, item));
    EXPECT_EQ(item.getSequence(), 2u);
    EXPECT_TRUE(database.getNextPlaylistItem(1, -5, item));
    EXPECT_EQ(item.getSequence(), 1u);
}

TEST_F(Database, TheEndOfThePlaylistIsAnErrorLineAndLeavesTheRecord)
{
    fill(1, 3);
    PlaylistItem item;
    ASSERT_TRUE(database.getNextPlaylistItem(1, 1, item));
    for (int sequence : {3, 4}) {
        bool found = true;
        EXPECT_THAT(reportedBy([&] { found = database.getNextPlaylistItem(1, sequence, item); }),
                    ElementsAre("ERROR: Select playlist by id: 101 failed."));
        EXPECT_FALSE(found);
        EXPECT_EQ(item.getPath(), "/2");
    }
}

TEST_F(Database, TheWalkPreparesTheItemsLookupInsideThePlaces)
{
    fill(1, 1);
    PlaylistItem item;
    database.getNextPlaylistItem(1, 0, item);
    EXPECT_THAT(
        sqliteSpy.prepared,
        ElementsAre(
            " SELECT * FROM T_Playlist_Item_Association WHERE playlist_id = ? AND sequence > ?  ORDER BY sequence LIMIT 1; ",
            " SELECT * FROM T_Items WHERE id = ?; ", " SELECT * FROM T_Item_Types WHERE id = ?; "));
    EXPECT_THAT(sqliteSpy.bound, ElementsAre("1=1", "2=0", "1=1", "1=1"));
    EXPECT_EQ(sqlite3_next_stmt(db, nullptr), nullptr);
}

TEST_F(Database, TheWalkLooksTheItemUpUnderItsOwnLabelAndFinalizesItFirst)
{
    fill(1, 1);
    sqliteSpy.refuseFrom = 1; // the place is found, then nothing more is answered
    PlaylistItem item;
    const Lines lines = reportedBy([&] { EXPECT_FALSE(database.getNextPlaylistItem(1, 0, item)); });
    const Lines labels = {"prepare statement select_item", "bind item_id to select_item", "step statement select_item",
                          "finalize statement select_item", "finalize statement select_next_playlist_item"};
    Lines expected;
    for (size_t call = 0; call < labels.size(); ++call) {
        if (call == 3)
            expected.push_back("ERROR: Select playlist by id: 1 failed."); // told before the statements go
        for (const std::string& line : twice("Cannot " + labels[call] + ".  " + sqlite3_errstr(SQLITE_ROW)))
            expected.push_back(line);
    }
    EXPECT_EQ(lines, expected);
    EXPECT_EQ(item.getSequence(), 1u);
}

TEST_F(Database, AnItemWithoutPathIsNotFoundButItsTypeIsRead)
{
    fill(1, 2);
    must(db, "UPDATE T_Items SET pathname = NULL, item_type = 3 WHERE id = 2");
    PlaylistItem item;
    ASSERT_TRUE(database.getNextPlaylistItem(1, 0, item));
    EXPECT_FALSE(database.getNextPlaylistItem(1, 1, item));
    EXPECT_EQ(item.getPath(), "/1");
    EXPECT_EQ(item.getSequence(), 2u);
    EXPECT_TRUE(item.isJump());
}

TEST_F(Database, APlaceWhoseItemIsGoneHasItsOwnFieldsAndAnErrorLine)
{
    fill(1, 1);
    must(db, "PRAGMA foreign_keys = OFF; DELETE FROM T_Items");
    PlaylistItem item;
    item.setPath("/before");
    EXPECT_THAT(reportedBy([&] { EXPECT_FALSE(database.getNextPlaylistItem(1, 0, item)); }),
                ElementsAre("ERROR: Select playlist by id: 101 failed."));
    EXPECT_EQ(item.getSequence(), 1u);
    EXPECT_EQ(item.getPath(), "/before");
    EXPECT_EQ(item.getType().getTypeID(), 0);
    EXPECT_EQ(sqlite3_next_stmt(db, nullptr), nullptr);
}

TEST_F(Database, AGapIsSteppedOverAndTheNextSequenceIsTheHighestPlusOne)
{
    fill(1, 3);
    database.delete_playlist_item(2, 2);
    PlaylistItem item;
    EXPECT_TRUE(database.getNextPlaylistItem(1, 1, item));
    EXPECT_EQ(item.getSequence(), 3u);
    EXPECT_EQ(database.insert_playlist_item(itemRecord("/new")), SQLITE_DONE);
    EXPECT_THAT(rowsOf(db, "SELECT sequence FROM T_Playlist_Item_Association ORDER BY sequence"),
                ElementsAre("1", "3", "4"));
}

TEST_F(Database, ADeletedLastPlaceIsReused)
{
    fill(1, 3);
    database.delete_playlist_item(3, 3);
    EXPECT_EQ(database.insert_playlist_item(itemRecord("/new")), SQLITE_DONE);
    EXPECT_THAT(rowsOf(db, "SELECT sequence FROM T_Playlist_Item_Association ORDER BY sequence"),
                ElementsAre("1", "2", "3"));
}

TEST_F(Database, SequencesAreNumberedWithinEachPlaylist)
{
    fill(1, 3);
    must(db, "INSERT INTO T_Playlists VALUES(2, 2, 'second', 1)");
    EXPECT_EQ(database.insert_playlist_item(itemRecord("/1", 2)), SQLITE_DONE);
    EXPECT_THAT(rowsOf(db, "SELECT sequence, item_id FROM T_Playlist_Item_Association WHERE playlist_id = 2"),
                ElementsAre("1|1"));
    EXPECT_THAT(rowsOf(db, "SELECT count(*) FROM T_Items"), ElementsAre("3")); // found, not added again
}

TEST_F(Database, APlaceOfANewItemAddsTheItemWithItsFigures)
{
    fill(1, 0);
    EXPECT_EQ(database.insert_playlist_item(itemRecord("/new", 1, 17)), SQLITE_DONE);
    EXPECT_THAT(rowsOf(db, "SELECT pathname, item_type, item_length_in_samples, item_sample_rate FROM T_Items"),
                ElementsAre("/new|1|96000|48000"));
    EXPECT_THAT(rowsOf(db, "SELECT sequence, playlist_id, item_id FROM T_Playlist_Item_Association"),
                ElementsAre("17|1|1"));
}

TEST_F(Database, AnItemThatCannotBeAddedIsToldAndTheInsertIsTriedWithZero)
{
    fill(1, 0);
    log_level = LOG_ALL;
    PlaylistItem item = itemRecord("/new", 1, 3);
    item.getTypeReference().setTypeID(9); // no such type
    int rc = 0;
    const Lines lines = reportedBy([&] { rc = database.insert_playlist_item(item); });
    EXPECT_EQ(rc, SQLITE_CONSTRAINT);
    EXPECT_THAT(lines, Contains("ERROR: Item insert failed. 19"));
    EXPECT_THAT(lines, Contains("DEBUG: Failed to select new item. sqlcode-101"));
    EXPECT_THAT(lines, Contains("ERROR: Playlist Item insert failed. 19"));
    EXPECT_EQ(sqliteSpy.bound.back(), "3=0");
}

TEST_F(Database, AFailedLookupOfTheItemInsertsWithZeroToo)
{
    fill(1, 0);
    sqliteSpy.stepAnswers = {SQLITE_BUSY};
    EXPECT_THAT(reportedBy([&] { EXPECT_EQ(database.insert_playlist_item(itemRecord("/a", 1, 3)), 19); }),
                Contains("ERROR: Playlist Item insert failed. 19"));
    EXPECT_EQ(sqliteSpy.bound.back(), "3=0");
    EXPECT_THAT(rowsOf(db, "SELECT * FROM T_Items"), IsEmpty());
}

TEST_F(Database, AFailedMaximumOfAPlaylistSkipsTheInsert)
{
    fill(1, 1);
    sqliteSpy.stepAnswers = {-1, SQLITE_BUSY}; // the item is found, its maximum is not
    int rc = 0;
    EXPECT_THAT(reportedBy([&] { rc = database.insert_playlist_item(itemRecord("/1")); }),
                ElementsAre("ERROR: Select max sequence failed. error - 5", "ERROR: Playlist Item insert failed."));
    EXPECT_EQ(rc, SQLITE_BUSY);
    EXPECT_EQ(database.getPlaylistItemCount(1), 1);
}

TEST_F(Database, TheReservedIdIsRefusedAsPlaylistAsItemAndAsAssignedSequence)
{
    fill(1, 1);
    EXPECT_THAT(reportedBy([&] { database.insert_playlist_item(itemRecord("/1", 65535, 1)); }),
                ElementsAre("ERROR: Playlist Item insert failed."));
    must(db, "INSERT INTO T_Items VALUES(65535, '/last', 1, 1, 1)");
    EXPECT_THAT(reportedBy([&] { database.insert_playlist_item(itemRecord("/last", 1, 1)); }),
                ElementsAre("ERROR: Playlist Item insert failed."));
    must(db, "INSERT INTO T_Playlist_Item_Association VALUES(NULL, 65534, 1, 1)");
    EXPECT_THAT(reportedBy([&] { database.insert_playlist_item(itemRecord("/1", 1)); }),
                ElementsAre("ERROR: Playlist Item insert failed."));
    EXPECT_EQ(database.getPlaylistItemCount(1), 2);
}

TEST_F(Database, InsertPlaylistAsocTakesTheSequenceAsItStands)
{
    fill(1, 1);
    EXPECT_EQ(database.insert_playlist_asoc(1, 65535, 1), SQLITE_DONE);
    EXPECT_THAT(rowsOf(db, "SELECT sequence FROM T_Playlist_Item_Association"), ElementsAre("1", "65535"));
}

TEST_F(Database, UpdatePlaylistItemMovesAPlace)
{
    fill(1, 2);
    EXPECT_EQ(database.update_playlist_item(1, 30), SQLITE_DONE);
    EXPECT_THAT(rowsOf(db, "SELECT id, sequence FROM T_Playlist_Item_Association"), ElementsAre("1|30", "2|2"));
}

TEST_F(Database, DeletingAPlaceTakesItsItemOnlyWithTheLastUse)
{
    fill(1, 1);
    must(db, "INSERT INTO T_Playlist_Item_Association VALUES(9, 2, 1, 1)");
    log_level = LOG_ALL;
    EXPECT_THAT(reportedBy([&] { database.delete_playlist_item(1, 1); }), IsEmpty());
    EXPECT_THAT(rowsOf(db, "SELECT id FROM T_Items"), ElementsAre("1"));
    EXPECT_THAT(reportedBy([&] { database.delete_playlist_item(9, 1); }), ElementsAre("DEBUG: Delete item 1"));
    EXPECT_THAT(rowsOf(db, "SELECT id FROM T_Items"), IsEmpty());
}

TEST_F(Database, AFailedLookForOtherUsersDeletesTheItemAndTheForeignKeyRefuses)
{
    fill(1, 1);
    must(db, "INSERT INTO T_Playlist_Item_Association VALUES(9, 2, 1, 1)");
    sqliteSpy.stepAnswers = {-1, SQLITE_BUSY};
    EXPECT_THAT(reportedBy([&] { EXPECT_EQ(database.delete_playlist_item(1, 1), 0); }),
                Contains("ERROR: Item delete failed. Error-code 19"));
    EXPECT_THAT(rowsOf(db, "SELECT id FROM T_Items"), ElementsAre("1"));
}

TEST_F(Database, DeleteAllPlaylistItemsLeavesTheItems)
{
    fill(1, 3);
    EXPECT_EQ(database.delete_all_playlist_items(1), SQLITE_DONE);
    EXPECT_THAT(rowsOf(db, "SELECT count(*) FROM T_Items"), ElementsAre("3"));
    EXPECT_THAT(rowsOf(db, "SELECT count(*) FROM T_Playlist_Item_Association"), ElementsAre("0"));
    EXPECT_EQ(database.getPlaylistItemCount(1), 0);
    EXPECT_EQ(database.getPlaylistLengthSeconds(1), 0u);
}

TEST_F(Database, PathsDifferInCase)
{
    fill(1, 0);
    database.insert_item(itemRecord("/Song.wav"));
    EXPECT_EQ(database.getItemIdByPath("/Song.wav"), 1);
    EXPECT_EQ(database.getItemIdByPath("/song.wav"), -1);
}

// ---- streams

TEST_F(Database, StreamsAreInsertedUpdatedAndDeleted)
{
    EXPECT_EQ(database.insert_stream("net", 2, "http://x", 3, 4), SQLITE_DONE);
    EXPECT_THAT(rowsOf(db, "SELECT * FROM T_Streams"), ElementsAre("1|net|2|http://x|3|4"));
    EXPECT_EQ(database.update_stream(1, "axia", 1, "", 5, 6), SQLITE_DONE);
    EXPECT_THAT(rowsOf(db, "SELECT * FROM T_Streams"), ElementsAre("1|axia|1||5|6"));
    EXPECT_EQ(database.delete_stream(1), SQLITE_DONE);
    EXPECT_THAT(rowsOf(db, "SELECT * FROM T_Streams"), IsEmpty());
}

// ---- the process's object

TEST_F(Database, TheProcessHasOneObject)
{
    EXPECT_EQ(getAudioDatabase(), nullptr);
    audio_database = &database;
    EXPECT_EQ(getAudioDatabase(), &database);
    audio_database = nullptr;
}

TEST_F(Database, AskingForTheConnectionOpensIt)
{
    AudioDatabase lazy;
    sqlite3* connection = nullptr;
    stdoutOf([&] { stderrOf([&] { connection = lazy.getDatabase(); }); });
    ASSERT_NE(connection, nullptr);
    EXPECT_EQ(lazy.getDatabase(), connection);
    EXPECT_TRUE(std::filesystem::exists("../audioplayerdatabase/audioDatabase.db"));
    lazy.close_audio_database();
}
