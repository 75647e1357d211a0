#include "PlaylistItem.h"

#include "AudioDatabase.h"
#include "ByteArray.h"
#include "globals.h"
#include "persistenceSupport.h"

#include <algorithm>
#include <gmock/gmock.h>

namespace
{

class PlaylistItemTest : public PrivateDirectoryTest
{
protected:
    PlaylistItemTest()
    {
        log_level = LOG_DEBUG;
        database.open_audio_database("test.db", true);
        audio_database = &database;
    }
    ~PlaylistItemTest() override
    {
        audio_database = nullptr;
        database.close_audio_database();
    }

    /** The wire record of item 0x1234 with this path, of type 2, in playlist 5 at sequence 9, association 0x01020304. */
    static std::vector<uint8_t> record(const std::string& path)
    {
        const std::string head = {0x34, 0x12, static_cast<char>(path.size() & 0xFF),
                                  static_cast<char>(path.size() >> 8)};
        const std::string tail = {2, 0, 5, 0, 9, 0, 4, 3, 2, 1};
        const std::string all = head + path + tail;
        std::vector<uint8_t> bytes(all.size());
        std::copy(all.begin(), all.end(), bytes.begin());
        return bytes;
    }

    static bool readFrom(PlaylistItem& item, const std::vector<uint8_t>& bytes)
    {
        ByteArray wire(bytes.data(), static_cast<uint16_t>(bytes.size()));
        bool result = false;
        stderrOf([&] { result = item.read(&wire); });
        return result;
    }

    AudioDatabase database;
};

} // namespace

TEST_F(PlaylistItemTest, StartsWithoutPathAndType)
{
    PlaylistItem item;
    EXPECT_EQ(item.getPath(), "");
    EXPECT_EQ(item.getType().getTypeID(), 0);
    EXPECT_EQ(item.getType().getName(), "");
    EXPECT_FALSE(item.isJump());
    item.getTypeReference().setTypeID(3);
    EXPECT_TRUE(item.isJump());
}

TEST_F(PlaylistItemTest, ReadsAnAssociationRowInTableOrder)
{
    sqlite3* db = database.getDatabase();
    sqlite3_stmt* stmt = nullptr;
    sqlite3_prepare_v2(db, "SELECT 70001, 70002, 65537, 65538", -1, &stmt, nullptr);
    sqlite3_step(stmt);
    PlaylistItem item;
    item.setPath("/kept");
    item.readSQLiteColumns(stmt);
    sqlite3_finalize(stmt);
    EXPECT_EQ(item.getPlaylistItemID(), 70001u);
    EXPECT_EQ(item.getSequence(), 70002u);
    EXPECT_EQ(item.getPlaylistID(), 1); // 65537 and 65538 in 16 bits
    EXPECT_EQ(item.getItemID(), 2);
    EXPECT_EQ(item.getPath(), "/kept");
}

TEST_F(PlaylistItemTest, PrintsSequenceAndPath)
{
    PlaylistItem item;
    item.setSequence(12);
    item.setPath("/mnt/usb/a.wav");
    EXPECT_EQ(stdoutOf([&] { item.printString(); }), "Entry #12\tFile\t/mnt/usb/a.wav\n");
}

TEST_F(PlaylistItemTest, ReadsTheWireRecordAndLooksTheTypeUp)
{
    PlaylistItem item;
    EXPECT_TRUE(readFrom(item, record("/a.mp3")));
    EXPECT_EQ(item.getItemID(), 0x1234);
    EXPECT_EQ(item.getPath(), "/a.mp3");
    EXPECT_EQ(item.getType().getTypeID(), 2);
    EXPECT_EQ(item.getType().getName(), "ITEM_TYPE_MP3");
    EXPECT_EQ(item.getPlaylistID(), 5);
    EXPECT_EQ(item.getSequence(), 9u);
    EXPECT_EQ(item.getPlaylistItemID(), 0x01020304u);
}

TEST_F(PlaylistItemTest, ReadLogsWhatItRead)
{
    PlaylistItem item;
    const std::vector<uint8_t> bytes = record("/a.mp3");
    ByteArray wire(bytes.data(), static_cast<uint16_t>(bytes.size()));
    EXPECT_THAT(stderrOf([&] { item.read(&wire); }),
                testing::MatchesRegex(".*\\[DEBUG\\] PlaylistItem.cpp [0-9]+: sequence: 9, item_id: 4660, path: "
                                      "/a.mp3\ntype: 2, playlist_id: 5, playlist_item_id: 16909060\n"));
}

TEST_F(PlaylistItemTest, FewerThanFourBytesChangeNothing)
{
    PlaylistItem item;
    item.setItemID(77);
    EXPECT_FALSE(readFrom(item, {0x34, 0x12, 0x00}));
    EXPECT_EQ(item.getItemID(), 77);
}

TEST_F(PlaylistItemTest, ARecordCutAfterThePathLengthHasTheItemIdAlone)
{
    PlaylistItem item;
    item.setPath("/before");
    item.setPlaylistID(3);
    EXPECT_FALSE(readFrom(item, {0x34, 0x12, 0x06, 0x00}));
    EXPECT_EQ(item.getItemID(), 0x1234);
    EXPECT_EQ(item.getPath(), "/before");
    EXPECT_EQ(item.getPlaylistID(), 3);
}

TEST_F(PlaylistItemTest, ARecordOneByteShortIsRefusedAndAWholeOneTaken)
{
    PlaylistItem item;
    std::vector<uint8_t> bytes = record("/path");
    bytes.pop_back();
    EXPECT_FALSE(readFrom(item, bytes));
    EXPECT_EQ(item.getPath(), "");
    EXPECT_TRUE(readFrom(item, record("/path")));
}

TEST_F(PlaylistItemTest, APathOf1023BytesIsTakenAndOf1024Refused)
{
    PlaylistItem item;
    EXPECT_TRUE(readFrom(item, record(std::string(1023, 'x'))));
    EXPECT_EQ(item.getPath(), std::string(1023, 'x'));
    EXPECT_FALSE(readFrom(item, record(std::string(1024, 'y'))));
    EXPECT_EQ(item.getPath(), std::string(1023, 'x'));
}

TEST_F(PlaylistItemTest, AnEmptyPathIsRead)
{
    PlaylistItem item;
    item.setPath("/before");
    EXPECT_TRUE(readFrom(item, record("")));
    EXPECT_EQ(item.getPath(), "");
}

TEST_F(PlaylistItemTest, WithoutADatabaseTheTypeStays)
{
    audio_database = nullptr;
    PlaylistItem item;
    EXPECT_TRUE(readFrom(item, record("/a")));
    EXPECT_EQ(item.getType().getTypeID(), 0);
    EXPECT_EQ(item.getSequence(), 9u);
}

TEST_F(PlaylistItemTest, WritesAssociationAndSequenceAndNothingElse)
{
    PlaylistItem item;
    item.setPlaylistItemID(0x0A0B0C0D);
    item.setSequence(0x00010203);
    ByteArray wire(16);
    EXPECT_TRUE(item.write(&wire));
    ASSERT_EQ(wire.getLength(), 6);
    const uint8_t expected[] = {0x0D, 0x0C, 0x0B, 0x0A, 0x03, 0x02};
    EXPECT_EQ(std::vector<uint8_t>(wire.getBytes(), wire.getBytes() + 6), std::vector<uint8_t>(expected, expected + 6));
}

TEST_F(PlaylistItemTest, TheLastWriteAloneIsTheAnswer)
{
    PlaylistItem item;
    ByteArray six(6); // takes the integer, then refuses a short that would fill it to the last byte
    EXPECT_FALSE(item.write(&six));
    EXPECT_EQ(six.getLength(), 4);
    ByteArray three(3); // refuses the integer, then takes the short
    EXPECT_TRUE(item.write(&three));
    EXPECT_EQ(three.getLength(), 2);
}
