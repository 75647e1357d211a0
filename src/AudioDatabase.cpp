#include "AudioDatabase.h"

#include "globals.h"
#include "sqlite3Wrapper.h"

#include <cstdio>
#include <cstring>
#include <sys/stat.h>

namespace
{

constexpr const char* DATABASE_DIRECTORY = "../audioplayerdatabase";
constexpr const char* DATABASE_FILE = "../audioplayerdatabase/audioDatabase.db";

/** How long a statement waits for another process that holds the file; nothing above it tries again. */
constexpr int BUSY_TIMEOUT_MS = 300;

/** As a sequence it asks for the highest one present plus one; as an id it is refused. */
constexpr int RESERVED_ID = PlaylistItem::RESERVED_ID;

/**
 * The schema, run on every start in this order: every text changes nothing when it is run again. The triggers come last
 * because they name all the tables. Spellings that differ in case (T_Stream_types, T_Playlist_item_association) are one
 * table to SQLite; the texts stay as the files in the field were made.
 */
// clang-format off
constexpr const char* SCHEMA[] = {
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

/** Shows whether enforcement of foreign keys really took effect: the row of the pragma that asks for it. */
int exec_callback(void*, int numColumns, char** values, char**)
{
    for (int column = 0; column < numColumns; ++column) {
        printf("Foreign Keys: ");
        puts(values[column] != nullptr && strcmp(values[column], "1") == 0 ? "ON" : "OFF");
    }
    return 0;
}

void run_schema(sqlite3* db)
{
    for (const char* text : SCHEMA)
        execute_sql(db, text);
}

void set_busy_timeout(sqlite3* db)
{
    if (db != nullptr) // there is no handle when SQLite had no memory for one
        sqlite3_busy_timeout(db, BUSY_TIMEOUT_MS);
}

uint32_t bits(int value)
{
    return static_cast<uint32_t>(value);
}

/** The sequence after the highest: column 0 of the maximum plus one, 1 for an empty table, whose maximum is null. */
int next_sequence(sqlite3_stmt* max)
{
    const unsigned int highest = bits(sqlite3_column_int(max, 0));
    return static_cast<int>(highest + 1u);
}

/** The text of a column, null for a null column; lives until the statement is stepped or finalized. */
const char* column_text(sqlite3_stmt* stmt, int column)
{
    return reinterpret_cast<const char*>(sqlite3_column_text(stmt, column));
}

} // namespace

AudioDatabase* getAudioDatabase()
{
    return audio_database;
}

// ---- opening

void AudioDatabase::open_audio_database()
{
    if (database != nullptr) {
        LogEvent(LOG_ERROR, "%s %d: Audio data base is already opened by this process.\n", __FILE__, __LINE__);
        return;
    }
    struct stat info;
    if (stat(DATABASE_DIRECTORY, &info) != 0) {
        LogEvent(LOG_INFO, "%s %d: Playlist directory %s does not exist.  Creating directory now.\n", __FILE__,
                 __LINE__, DATABASE_DIRECTORY);
        (void)mkdir(DATABASE_DIRECTORY, 0777); // a failure shows in the open that follows
    }
    sqlite3* db = open_database(DATABASE_FILE);
    set_busy_timeout(db);
    printf("Threadsafe: %s\n", sqlite3_threadsafe() == 1 ? "TRUE" : "FALSE");
    sqlite3_exec(db, "PRAGMA foreign_keys = ON; PRAGMA foreign_keys;", exec_callback, nullptr, nullptr);
    run_schema(db);
    database = db;
}

bool AudioDatabase::open_audio_database(const char* filename, bool runSchema)
{
    if (database != nullptr)
        return false;
    sqlite3* db = open_database(filename);
    if (sqlite3_errcode(db) != SQLITE_OK) {
        sqlite3_close(db);
        return false;
    }
    set_busy_timeout(db);
    sqlite3_exec(db, "PRAGMA foreign_keys = ON;", nullptr, nullptr, nullptr);
    if (runSchema)
        run_schema(db);
    database = db;
    return true;
}

void AudioDatabase::close_audio_database()
{
    if (database != nullptr)
        close_database(database);
    database = nullptr;
}

sqlite3* AudioDatabase::getDatabase()
{
    if (database == nullptr)
        open_audio_database();
    return database;
}

// ---- playlists

int AudioDatabase::getPlaylistId(const char* name)
{
    int id = -1;
    sqlite3_stmt* stmt =
        prepare_statement(database, " SELECT * FROM T_Playlists WHERE name = ?; ", "select_playlist_by_name");
    bind_text(database, stmt, 1, name, "select_playlist_by_name", name);
    if (step_statement(database, stmt, "select_playlist_by_name") == SQLITE_ROW)
        id = sqlite3_column_int(stmt, 0);
    finalize_statement(database, stmt, "select_playlist_by_name");
    return id;
}

void AudioDatabase::getPlaylist(int playlist_id, Playlist& playlist)
{
    sqlite3_stmt* stmt =
        prepare_statement(database, " SELECT * FROM T_Playlists WHERE id = ?; ", "select_playlist_by_id");
    bind_int(database, stmt, 1, bits(playlist_id), "select_playlist_by_id", "playlist_id");
    const int rc = step_statement(database, stmt, "select_playlist_by_id");
    if (rc == SQLITE_ROW) {
        const char* name = column_text(stmt, 2);
        if (name != nullptr)
            playlist.setName(name);
        playlist.setPlaylistID(sqlite3_column_int(stmt, 0));
        PlaylistType type = playlist.getPlaylistType();
        getPlaylistType(sqlite3_column_int(stmt, 3), type);
        playlist.setPlaylistType(type);
        playlist.setSequence(sqlite3_column_int(stmt, 1));
    } else {
        LogEvent(LOG_ERROR, "%s %d: Select Playlist by id: %d failed.", __FILE__, __LINE__, rc);
    }
    finalize_statement(database, stmt, "select_playlist_by_id");
}

void AudioDatabase::getPlaylistType(int type_id, PlaylistType& playlist_type)
{
    sqlite3_stmt* stmt =
        prepare_statement(database, " SELECT * FROM T_Playlist_Types WHERE id = ?; ", "select_type_by_id");
    bind_int(database, stmt, 1, bits(type_id), "select_type_by_id", "type_id");
    const int rc = step_statement(database, stmt, "select_type_by_id");
    if (rc == SQLITE_ROW)
        playlist_type.readSQLColumns(stmt);
    else
        LogEvent(LOG_ERROR, "%s %d: Get playlist type failed. typeID: %d, sqliteRC: %d", __FILE__, __LINE__, type_id,
                 rc);
    finalize_statement(database, stmt, "select_type_by_id");
}

int AudioDatabase::insert_playlist(const char* name, int sequence, int playlist_type)
{
    if (sequence == RESERVED_ID) {
        sqlite3_stmt* max =
            prepare_statement(database, " SELECT MAX( sequence ) FROM T_Playlists; ", "select_max_sequence");
        const int maxRc = step_statement(database, max, "select_max_sequence");
        if (maxRc == SQLITE_ROW) {
            sequence = next_sequence(max);
            LogEvent(LOG_DEBUG, "%s %d: Select max result: %d", __FILE__, __LINE__, sequence);
        } else {
            LogEvent(LOG_ERROR, "%s %d: Select max sequence failed. %s, error-code %d", __FILE__, __LINE__,
                     sqlite3_errmsg(database), maxRc);
        }
        finalize_statement(database, max, "select_max_sequence");
    }
    sqlite3_stmt* stmt =
        prepare_statement(database, " INSERT INTO T_Playlists  ( sequence, name, playlist_type )  VALUES ( ?, ?, ? ); ",
                          "insert_playlist");
    bind_int(database, stmt, 1, bits(sequence), "insert_playlist", "playlist_sequence");
    bind_text(database, stmt, 2, name, "insert_playlist", "playlist_name");
    bind_int(database, stmt, 3, bits(playlist_type), "insert_playlist", "playlist_type");
    const int rc = step_statement(database, stmt, "insert_playlist");
    finalize_statement(database, stmt, "insert_playlist");
    if (rc != SQLITE_DONE)
        LogEvent(LOG_ERROR, "%s %d: Playlist insert/update failed. error-code %d", __FILE__, __LINE__, rc);
    return rc;
}

int AudioDatabase::update_playlist(int playlist_id, const char* name, int sequence)
{
    sqlite3_stmt* stmt = prepare_statement(database, " UPDATE T_Playlists SET sequence = ?,  name = ?  WHERE id = ?; ",
                                           "insert_playlist"); // sic: the insert's label
    bind_int(database, stmt, 1, bits(sequence), "insert_playlist", "playlist_sequence");
    bind_text(database, stmt, 2, name, "insert_playlist", "playlist_name");
    bind_int(database, stmt, 3, bits(playlist_id), "insert_playlist", "playlist_id");
    const int rc = step_statement(database, stmt, "insert_playlist");
    if (rc != SQLITE_DONE)
        LogEvent(LOG_ERROR, "%s %d: Playlist insert/update failed. %s, error-code %d", __FILE__, __LINE__,
                 sqlite3_errmsg(database), rc);
    finalize_statement(database, stmt, "insert_playlist");
    return rc;
}

int AudioDatabase::delete_playlist(int playlist_id)
{
    // The places are deleted while the select that finds them is still open on their table.
    sqlite3_stmt* places = prepare_statement(
        database, " SELECT * FROM T_Playlist_Item_Association WHERE playlist_id = ? ORDER BY sequence; ",
        "select_items_in_playlist");
    bind_int(database, places, 1, bits(playlist_id), "select_items_in_playlist", "playlist_id");
    while (step_statement(database, places, "select_items_in_playlist") == SQLITE_ROW)
        delete_playlist_item(sqlite3_column_int(places, 0), sqlite3_column_int(places, 3));
    finalize_statement(database, places, "select_items_in_playlist");

    sqlite3_stmt* stmt = prepare_statement(database, " DELETE FROM T_Playlists WHERE id = ?; ", "delete_playlist");
    bind_int(database, stmt, 1, bits(playlist_id), "delete_playlist", "playlist_id");
    const int rc = step_statement(database, stmt, "delete_playlist");
    if (rc != SQLITE_DONE)
        LogEvent(LOG_ERROR, "%s %d: Playlist id %d delete. error-code %d", __FILE__, __LINE__, playlist_id, rc);
    finalize_statement(database, stmt, "delete_playlist");
    return rc;
}

int AudioDatabase::getPlaylistItemCount(int playlist_id)
{
    int numItems = 0;
    sqlite3_stmt* stmt = prepare_statement(
        database, " SELECT count FROM T_Playlists_Item_Count WHERE playlist_id = ?; ", "select_playlist_item_count");
    bind_int(database, stmt, 1, bits(playlist_id), "select_playlist_item_count", "playlist_id");
    const int rc = step_statement(database, stmt, "select_playlist_item_count");
    if (rc == SQLITE_ROW)
        numItems = sqlite3_column_int(stmt, 0);
    else
        LogEvent(LOG_ERROR, "%s %d: Select playlist item count: %d failed.", __FILE__, __LINE__, rc);
    finalize_statement(database, stmt, "select_playlist_item_count");
    return numItems;
}

uint64_t AudioDatabase::getPlaylistLengthSeconds(int playlist_id)
{
    sqlite3_stmt* stmt = prepare_statement(
        database, " SELECT playlist_length_seconds FROM T_Playlists_Item_Count WHERE playlist_id = ?; ",
        "select_playlist_length");
    bind_int(database, stmt, 1, bits(playlist_id), "select_playlist_length", "playlist_id");
    const int rc = step_statement(database, stmt, "select_playlist_length");
    if (rc != SQLITE_ROW) {
        LogEvent(LOG_ERROR, "%s %d: Select playlist length failed. %d", __FILE__, __LINE__, rc);
        return 0; // the statement stays unfinalized on this path alone
    }
    const uint64_t lengthSeconds = static_cast<uint64_t>(sqlite3_column_int64(stmt, 0));
    finalize_statement(database, stmt, "select_playlist_length");
    return lengthSeconds;
}

void AudioDatabase::getPlaylistItems(Playlist& playlist)
{
    sqlite3_stmt* stmt = prepare_statement(
        database, " SELECT * FROM T_Playlist_Item_Association WHERE playlist_id = ? ORDER BY sequence; ",
        "select_playlist_entries");
    bind_int(database, stmt, 1, bits(playlist.getPlaylistID()), "select_playlist_entries", "playlist_id");
    while (step_statement(database, stmt, "select_playlist_entries") == SQLITE_ROW) {
        playlist.setPlaylistID(sqlite3_column_int(stmt, 0));
        playlist.setSequence(sqlite3_column_int(stmt, 1));
        PlaylistType type = playlist.getPlaylistType();
        getPlaylistType(sqlite3_column_int(stmt, 3), type);
        playlist.setPlaylistType(type);
        const char* name = column_text(stmt, 2);
        if (name != nullptr)
            playlist.setName(name);
    }
    finalize_statement(database, stmt, "select_playlist_entries");
}

// ---- items

int AudioDatabase::getItemIdByPath(const char* filename)
{
    int id = -1;
    sqlite3_stmt* stmt =
        prepare_statement(database, "SELECT * FROM T_Items WHERE pathname = ?; ", "select_item_by_filename");
    bind_text(database, stmt, 1, filename, "select_item_by_filename", filename);
    if (step_statement(database, stmt, "select_item_by_filename") == SQLITE_ROW)
        id = sqlite3_column_int(stmt, 0);
    finalize_statement(database, stmt, "select_item_by_filename");
    return id;
}

void AudioDatabase::getItemType(int type_id, ItemType& type)
{
    sqlite3_stmt* stmt = prepare_statement(database, " SELECT * FROM T_Item_Types WHERE id = ?; ", "select_type_by_id");
    bind_int(database, stmt, 1, bits(type_id), "select_type_by_id", "type_id");
    const int rc = step_statement(database, stmt, "select_type_by_id");
    if (rc == SQLITE_ROW)
        type.readSQLColumns(stmt);
    else
        LogEvent(LOG_ERROR, "%s %d: Get item type failed. typeID: %d, sqliteRC: %d", __FILE__, __LINE__, type_id, rc);
    finalize_statement(database, stmt, "select_type_by_id");
}

int AudioDatabase::insert_item(PlaylistItem playlist_item)
{
    sqlite3_stmt* stmt = prepare_statement(
        database,
        " INSERT INTO T_Items  ( pathname, item_type, item_length_in_samples, item_sample_rate )  VALUES ( ?, ?, ?, ? ); ",
        "insert_item");
    bind_text(database, stmt, 1, playlist_item.getPath().c_str(), "insert_item", "item_pathname");
    bind_int(database, stmt, 2, bits(playlist_item.getType().getTypeID()), "insert_playlist_item", "item_type");
    bind_int(database, stmt, 3, playlist_item.getLengthSamples(), "insert_playlist_item", "item_length_samples");
    bind_int(database, stmt, 4, playlist_item.getSampleRate(), "insert_playlist_item", "item_sample_rate");
    const int rc = step_statement(database, stmt, "insert_playlist_item");
    if (rc != SQLITE_DONE)
        LogEvent(LOG_ERROR, "%s %d: Item insert failed. %d", __FILE__, __LINE__, rc);
    finalize_statement(database, stmt, "insert_item");
    return rc;
}

int AudioDatabase::delete_item(int item_id)
{
    sqlite3_stmt* stmt = prepare_statement(database, " DELETE FROM T_Items WHERE id = ?; ", "delete_item");
    bind_int(database, stmt, 1, bits(item_id), "delete_item", "item_id");
    const int rc = step_statement(database, stmt, "delete_item");
    if (rc != SQLITE_DONE)
        LogEvent(LOG_ERROR, "%s %d: Item delete failed. Error-code %d", __FILE__, __LINE__, rc);
    finalize_statement(database, stmt, "delete_item");
    return rc;
}

bool AudioDatabase::getNextPlaylistItem(int playlist_id, int sequence, PlaylistItem& playlist_item)
{
    sqlite3_stmt* place = prepare_statement(
        database,
        " SELECT * FROM T_Playlist_Item_Association WHERE playlist_id = ? AND sequence > ?  ORDER BY sequence LIMIT 1; ",
        "select_next_playlist_item");
    bind_int(database, place, 1, bits(playlist_id), "select_next_playlist_item", "playlist_id");
    bind_int(database, place, 2, bits(sequence), "select_next_playlist_item", "sequence");
    const int placeRc = step_statement(database, place, "select_next_playlist_item");
    if (placeRc != SQLITE_ROW) { // the end of a playlist too: the caller wraps
        LogEvent(LOG_ERROR, "%s %d: Select playlist by id: %d failed.", __FILE__, __LINE__, placeRc);
        finalize_statement(database, place, "select_next_playlist_item");
        return false;
    }
    playlist_item.readSQLiteColumns(place);

    bool hasPath = false;
    sqlite3_stmt* item = prepare_statement(database, " SELECT * FROM T_Items WHERE id = ?; ", "select_item");
    bind_int(database, item, 1, playlist_item.getItemID(), "select_item", "item_id");
    const int itemRc = step_statement(database, item, "select_item");
    if (itemRc == SQLITE_ROW) {
        const char* pathname = column_text(item, 1);
        hasPath = pathname != nullptr;
        if (hasPath)
            playlist_item.setPath(pathname);
        getItemType(sqlite3_column_int(item, 2), playlist_item.getTypeReference());
    } else {
        LogEvent(LOG_ERROR, "%s %d: Select playlist by id: %d failed.", __FILE__, __LINE__, itemRc);
    }
    finalize_statement(database, item, "select_item");
    finalize_statement(database, place, "select_next_playlist_item");
    return hasPath;
}

// ---- places of items in playlists

int AudioDatabase::insert_playlist_asoc(int playlist_item_id, int sequence, int item_id)
{
    sqlite3_stmt* stmt = prepare_statement(
        database, " INSERT INTO T_Playlist_Item_Association  (sequence, playlist_id, item_id)  VALUES ( ?, ?, ? ); ",
        "insert_playlist_asoc");
    bind_int(database, stmt, 1, bits(sequence), "insert_playlist_asoc", "sequence");
    bind_int(database, stmt, 2, bits(playlist_item_id), "insert_playlist_asoc",
             "playlist_item_id"); // sic: a playlist's id
    bind_int(database, stmt, 3, bits(item_id), "insert_playlist_asoc", "item_id");
    const int rc = step_statement(database, stmt, "insert_playlist_asoc");
    if (rc != SQLITE_DONE)
        LogEvent(LOG_ERROR, "%s %d: Playlist item delete failed. Error-code %d", __FILE__, __LINE__,
                 rc); // sic: "delete"
    finalize_statement(database, stmt, "insert_playlist_asoc");
    return rc;
}

int AudioDatabase::update_playlist_item(int playlist_item_id, int sequence)
{
    sqlite3_stmt* stmt = prepare_statement(
        database, " UPDATE T_Playlist_Item_Association SET  sequence = ?  WHERE id = ?; ", "update_item_sequence");
    bind_int(database, stmt, 1, bits(sequence), "update_item_sequence", "sequence");
    bind_int(database, stmt, 2, bits(playlist_item_id), "update_item_sequence",
             "playlist_id"); // sic: the association's id
    const int rc = step_statement(database, stmt, "update_item_sequence");
    if (rc != SQLITE_DONE)
        LogEvent(LOG_ERROR, "%s %d: Playlist Item update failed. %d", __FILE__, __LINE__, rc);
    finalize_statement(database, stmt, "update_item_sequence");
    return rc;
}

int AudioDatabase::delete_all_playlist_items(int playlist_id)
{
    sqlite3_stmt* stmt = prepare_statement(database, "DELETE FROM T_Playlist_Item_Association WHERE playlist_id = ?; ",
                                           "delete_all_playlist_items");
    bind_int(database, stmt, 1, bits(playlist_id), "delete_all_playlist_item",
             "playlist_id"); // sic: the bind's own label
    const int rc = step_statement(database, stmt, "delete_all_playlist_items");
    if (rc != SQLITE_DONE)
        LogEvent(LOG_ERROR, "%s %d: Playlist item delete failed. Error-code %d", __FILE__, __LINE__, rc);
    finalize_statement(database, stmt, "delete_all_playlist_items");
    return rc;
}

int AudioDatabase::insert_playlist_item(PlaylistItem playlist_item)
{
    sqlite3_stmt* insert = prepare_statement(
        database, " INSERT INTO T_Playlist_Item_Association  (sequence, playlist_id, item_id)  VALUES ( ?, ?, ? ); ",
        "insert_playlist_item");
    sqlite3_stmt* select =
        prepare_statement(database, " SELECT * FROM T_Items WHERE pathname = ?; ", "select_item_by_path");
    bind_text(database, select, 1, playlist_item.getPath().c_str(), "select_item_by_path", "item_path");

    int item_id = 0;
    int rc = step_statement(database, select, "select_item_by_path");
    if (rc == SQLITE_DONE) {
        (void)insert_item(playlist_item); // a failure shows in the select, which SQLite resets by itself
        rc = step_statement(database, select, "select_item_by_path");
        if (rc != SQLITE_ROW)
            LogEvent(LOG_DEBUG, "%s %d: Failed to select new item. sqlcode-%d", __FILE__, __LINE__, rc);
        item_id = sqlite3_column_int(select, 0);
    } else if (rc == SQLITE_ROW) {
        item_id = sqlite3_column_int(select, 0);
    }
    finalize_statement(database, select, "select_item_by_path");

    int sequence = static_cast<int>(playlist_item.getSequence());
    const int playlist_id = playlist_item.getPlaylistID();
    if (sequence == RESERVED_ID) {
        sqlite3_stmt* max = prepare_statement(
            database, " SELECT MAX( sequence ) FROM T_Playlist_Item_Association WHERE playlist_id = ?; ",
            "select_max_sequence");
        bind_int(database, max, 1, bits(playlist_id), "select_max_sequence", "playlist_id");
        rc = step_statement(database, max, "select_max_sequence");
        if (rc == SQLITE_ROW)
            sequence = next_sequence(max);
        else
            LogEvent(LOG_ERROR, "%s %d: Select max sequence failed. error - %d", __FILE__, __LINE__, rc);
        finalize_statement(database, max, "select_max_sequence");
    }

    if (item_id == RESERVED_ID || playlist_id == RESERVED_ID || sequence == RESERVED_ID) {
        LogEvent(LOG_ERROR, "%s %d: Playlist Item insert failed.", __FILE__, __LINE__);
    } else {
        bind_int(database, insert, 1, bits(sequence), "insert_playlist_item", "item_sequence");
        bind_int(database, insert, 2, bits(playlist_id), "insert_playlist_item", "playlist_id");
        bind_int(database, insert, 3, bits(item_id), "insert_playlist_item", "item_id");
        rc = step_statement(database, insert, "insert_playlist_item");
        if (rc != SQLITE_DONE)
            LogEvent(LOG_ERROR, "%s %d: Playlist Item insert failed. %d", __FILE__, __LINE__, rc);
    }
    finalize_statement(database, insert, "insert_playlist_item");
    return rc;
}

int AudioDatabase::delete_playlist_item(int playlist_item_id, int item_id)
{
    // The place goes first: its delete trigger needs the item's length and rate.
    sqlite3_stmt* place =
        prepare_statement(database, " DELETE FROM T_Playlist_Item_Association WHERE id = ?; ", "delete_playlist_item");
    bind_int(database, place, 1, bits(playlist_item_id), "delete_playlist_item", "playlist_item_id");
    const int placeRc = step_statement(database, place, "delete_playlist_item");
    if (placeRc != SQLITE_DONE)
        LogEvent(LOG_ERROR, "%s %d: Playlist item delete failed. Error-code %d", __FILE__, __LINE__, placeRc);
    finalize_statement(database, place, "delete_playlist_item");

    sqlite3_stmt* users = prepare_statement(database, " SELECT * FROM T_Playlist_Item_Association WHERE item_id = ?; ",
                                            "select_playlists_that_use_item");
    bind_int(database, users, 1, bits(item_id), "select_playlists_that_use_item", "item_id");
    if (step_statement(database, users, "select_playlists_that_use_item") != SQLITE_ROW) {
        LogEvent(LOG_DEBUG, "%s %d: Delete item %d", __FILE__, __LINE__, item_id);
        sqlite3_stmt* item = prepare_statement(database, " DELETE FROM T_Items WHERE id = ?; ", "delete_item");
        bind_int(database, item, 1, bits(item_id), "delete_item", "item_id");
        const int itemRc = step_statement(database, item, "delete_item");
        if (itemRc != SQLITE_DONE)
            LogEvent(LOG_ERROR, "%s %d: Item delete failed. Error-code %d", __FILE__, __LINE__, itemRc);
        finalize_statement(database, item, "delete_item");
    }
    finalize_statement(database, users, "select_playlists_that_use_item");
    return 0;
}

// ---- streams

int AudioDatabase::insert_stream(const char* name, int stream_type_id, const char* uri, int channel, int dst)
{
    sqlite3_stmt* stmt = prepare_statement(
        database, " INSERT INTO T_Streams  ( name, stream_type_id, uri, channel, dst ) VALUES ( ?, ?, ?, ?, ? ); ",
        "insert_stream");
    bind_text(database, stmt, 1, name, "insert_stream", "name");
    bind_int(database, stmt, 2, bits(stream_type_id), "insert_stream", "stream_type_id");
    bind_text(database, stmt, 3, uri, "insert_stream", "uri");
    bind_int(database, stmt, 4, bits(channel), "insert_stream", "channel");
    bind_int(database, stmt, 5, bits(dst), "insert_stream", "dst");
    const int rc = step_statement(database, stmt, "insert_stream");
    if (rc != SQLITE_DONE)
        LogEvent(LOG_ERROR, "%s %d: Stream insert failed. %d", __FILE__, __LINE__, rc);
    finalize_statement(database, stmt, "insert_stream");
    return rc;
}

int AudioDatabase::update_stream(int stream_id, const char* name, int stream_type_id, const char* uri, int channel,
                                 int dst)
{
    sqlite3_stmt* stmt = prepare_statement(
        database,
        " UPDATE T_Streams  SET name = ?,  stream_type_id = ?,  uri = ?,  channel = ?,  dst = ?  WHERE id = ?; ",
        "update_stream");
    bind_text(database, stmt, 1, name, "update_stream", "name");
    bind_int(database, stmt, 2, bits(stream_type_id), "update_stream", "stream_type_id");
    bind_text(database, stmt, 3, uri, "update_stream", "uri");
    bind_int(database, stmt, 4, bits(channel), "update_stream", "channel");
    bind_int(database, stmt, 5, bits(dst), "update_stream", "dst");
    bind_int(database, stmt, 6, bits(stream_id), "update_stream", "stream_id");
    const int rc = step_statement(database, stmt, "update_stream");
    if (rc != SQLITE_DONE)
        LogEvent(LOG_ERROR, "%s %d: Stream update failed. %d", __FILE__, __LINE__, rc);
    finalize_statement(database, stmt, "update_stream");
    return rc;
}

int AudioDatabase::delete_stream(int stream_id)
{
    sqlite3_stmt* stmt = prepare_statement(database, " DELETE FROM T_Streams WHERE id = ?; ", "delete_stream");
    bind_int(database, stmt, 1, bits(stream_id), "delete_stream", "stream_id");
    const int rc = step_statement(database, stmt, "delete_stream");
    if (rc != SQLITE_DONE)
        LogEvent(LOG_ERROR, "%s %d: Stream delete failed. %d", __FILE__, __LINE__, rc);
    finalize_statement(database, stmt, "delete_stream");
    return rc;
}
