#include "ItemType.h"
#include "Playlist.h"
#include "PlaylistType.h"
#include "persistenceSupport.h"

namespace
{

/** A statement standing on the row of "SELECT <columns>". */
class Row
{
public:
    explicit Row(const std::string& columns)
    {
        sqlite3_open(":memory:", &db);
        sqlite3_prepare_v2(db, ("SELECT " + columns).c_str(), -1, &stmt, nullptr);
        EXPECT_EQ(sqlite3_step(stmt), SQLITE_ROW);
    }
    ~Row()
    {
        sqlite3_finalize(stmt);
        sqlite3_close(db);
    }
    Row(const Row&) = delete;
    Row& operator=(const Row&) = delete;

    sqlite3* db = nullptr;
    sqlite3_stmt* stmt = nullptr;
};

template <typename Type> class TypeRecord : public testing::Test
{
};
using TypeRecords = testing::Types<ItemType, PlaylistType>;
TYPED_TEST_SUITE(TypeRecord, TypeRecords);

} // namespace

TYPED_TEST(TypeRecord, StartsWithoutTypeAndName)
{
    const TypeParam type;
    EXPECT_EQ(type.getTypeID(), 0);
    EXPECT_EQ(type.getName(), "");
}

TYPED_TEST(TypeRecord, ReadsIdAndName)
{
    Row row("2, 'SECOND'");
    TypeParam type;
    type.readSQLColumns(row.stmt);
    EXPECT_EQ(type.getTypeID(), 2);
    EXPECT_EQ(type.getName(), "SECOND");
}

TYPED_TEST(TypeRecord, ANullNameLeavesTheNameAsItWas)
{
    Row first("1, 'FIRST'");
    Row second("2, NULL");
    TypeParam type;
    type.readSQLColumns(first.stmt);
    type.readSQLColumns(second.stmt);
    EXPECT_EQ(type.getTypeID(), 2);
    EXPECT_EQ(type.getName(), "FIRST");
}

TEST(ItemType, TestsCompareTheSeededIds)
{
    for (int id = 0; id <= 5; ++id) {
        ItemType type;
        type.setTypeID(id);
        EXPECT_EQ(type.isWAV(), id == 1);
        EXPECT_EQ(type.isMP3(), id == 2);
        EXPECT_EQ(type.isJMP(), id == 3);
        EXPECT_EQ(type.isGOSUB(), id == 4);
    }
}

TEST(Playlist, StartsAsNoPlaylist)
{
    const Playlist playlist;
    EXPECT_EQ(playlist.getName(), "");
    EXPECT_EQ(playlist.getPlaylistID(), 65536);
    EXPECT_EQ(playlist.getSequence(), 0);
    EXPECT_EQ(playlist.getPlaylistType().getTypeID(), 0);
}

TEST(Playlist, GivesBackWhatWasSetAndCopies)
{
    Row row("2, 'STR_CART'");
    PlaylistType type;
    type.readSQLColumns(row.stmt);
    Playlist playlist;
    playlist.setName("songs");
    playlist.setPlaylistID(7);
    playlist.setPlaylistType(type);
    playlist.setSequence(65536);
    const Playlist copy = playlist;
    EXPECT_EQ(copy.getName(), "songs");
    EXPECT_EQ(copy.getPlaylistID(), 7);
    EXPECT_EQ(copy.getPlaylistType().getTypeID(), 2);
    EXPECT_EQ(copy.getPlaylistType().getName(), "STR_CART");
    EXPECT_EQ(copy.getSequence(), 65536);
}
