/**
 * The commands of studio automation, driven as a peer drives them: transactions in, answers out, on a real database.
 */

#include "automationSupport.h"

#include "globals.h"

#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace testing;

namespace
{

using lines = std::vector<std::string>;

/** A request with number 7. */
std::string request(const std::string& command, const std::string& children)
{
    return "<Transaction type=\"request\" command=\"" + command + "\" transactionNumber=\"7\">" + children +
           "</Transaction>";
}

/** The answer to it; `log` without the empty line that ends every log. */
std::string answer(const std::string& command, const std::string& status, const lines& log)
{
    std::string text = "<?xml version=\"1.0\" ?>\n<Transaction type=\"response\" command=\"" + command +
                       "\" transactionNumber=\"7\" status=\"" + status + "\"";
    if (log.empty())
        return text + " />\n";
    text += ">\n  <TransactionLog>\n";
    for (const std::string& line : log)
        text += "    " + line + "\n";
    return text + "    \n  </TransactionLog>\n</Transaction>\n";
}

std::string item(const std::string& filename)
{
    return "<PlaylistItem filename=\"" + filename + "\"/>";
}

std::string playlist(const std::string& name, const std::string& items)
{
    return "<Playlist name=\"" + name + "\">" + items + "</Playlist>";
}

void writeFile(const std::string& path)
{
    std::ofstream(path) << "audio";
}

bool exists(const std::string& path)
{
    return access(path.c_str(), F_OK) == 0;
}

/** Another process that works on the audio database, from here to the end of its block. */
class AnotherProcess
{
public:
    explicit AnotherProcess(const std::string& beginStatement)
    {
        sqlite3_open("../audioplayerdatabase/audioDatabase.db", &db);
        must(db, beginStatement);
    }
    ~AnotherProcess() { sqlite3_close(db); }
    AnotherProcess(const AnotherProcess&) = delete;
    AnotherProcess& operator=(const AnotherProcess&) = delete;

private:
    sqlite3* db = nullptr;
};

class AutomationCommands : public AutomationTest
{
protected:
    std::string upload(const std::string& children) { return answerTo(request("uploadPlaylist", children)); }
    std::string remove(const std::string& children) { return answerTo(request("deletePlaylists", children)); }
    std::string start(const std::string& children) { return answerTo(request("startPlaylist", children)); }

    /** The places of a playlist in their order: "sequence|path". */
    lines placesOf(const std::string& name)
    {
        return rows("SELECT a.sequence, i.pathname FROM T_Playlist_Item_Association a JOIN T_Items i ON a.item_id = "
                    "i.id JOIN T_Playlists p ON a.playlist_id = p.id WHERE p.name = '" +
                    name + "' ORDER BY a.sequence");
    }
    lines playlists() { return rows("SELECT id, name FROM T_Playlists ORDER BY id"); }

    /** Adds a playlist (whose id is the next one, 1 at first) with an item for each path, in SQL; null is "NULL". */
    void addPlaylist(const std::string& name, const lines& paths)
    {
        run("INSERT INTO T_Playlists (sequence, name, playlist_type) VALUES (65536, '" + name + "', 1)");
        int sequence = 1;
        for (const std::string& path : paths) {
            const std::string literal = path == "NULL" ? path : "'" + path + "'";
            run("INSERT INTO T_Items (pathname, item_type) SELECT " + literal +
                ", 1 WHERE NOT EXISTS (SELECT 1 FROM T_Items WHERE pathname IS " + literal + ")");
            run("INSERT INTO T_Playlist_Item_Association (sequence, playlist_id, item_id) VALUES (" +
                std::to_string(++sequence) +
                ", (SELECT max(id) FROM T_Playlists), (SELECT id FROM T_Items WHERE "
                "pathname IS " +
                literal + "))");
        }
        sqliteSpy = SqliteSpy();
    }

    void addAsPlayedRow()
    {
        log->addEntry(
            new asPlayedLogEntry(1, 1, 1, AS_PLAYED_LOG_ENTRY_TYPE_START_ITEM, AS_PLAYED_LOG_STATUS_STARTED, 100));
        EXPECT_EQ(log->writeToDb(), SQLITE_DONE);
    }
    std::string numAsPlayedRows() { return rows("SELECT count(*) FROM T_As_Played_Log").front(); }

    /** A statement gives up at once where another process is in the way. */
    void dontWaitForOthers() { sqlite3_busy_timeout(database.getDatabase(), 0); }
};

// ---- uploadPlaylist

TEST_F(AutomationCommands, UploadStoresPlaylistItemsAndPlacesAndTellsThePeer)
{
    EXPECT_EQ(upload("<Playlist name=\"Morning\" automationRef=\"r1\">"
                     "<PlaylistItem filename=\"a.wav\" automationRef=\"r2\"/><PlaylistItem filename=\"b.mp3\"/>"
                     "</Playlist>"),
              "<?xml version=\"1.0\" ?>\n"
              "<Transaction type=\"response\" command=\"uploadPlaylist\" transactionNumber=\"7\" status=\"success\">\n"
              "  <TransactionLog>\n"
              "    Created new playlist Morning\n"
              "    Adding audio item /mnt/usb/a.wav to local library\n"
              "    Adding audio item /mnt/usb/a.wav to playlist\n"
              "    Adding audio item /mnt/usb/b.mp3 to local library\n"
              "    Adding audio item /mnt/usb/b.mp3 to playlist\n"
              "    \n"
              "  </TransactionLog>\n"
              "</Transaction>\n");
    EXPECT_THAT(logged, ElementsAre("INFO AutomationCommands.cpp: Created New Playlist Morning with id 1", "",
                                    "INFO AutomationCommands.cpp: Adding audio item /mnt/usb/a.wav to local library",
                                    "INFO AutomationCommands.cpp: Adding audio item 1 to playlist 1",
                                    "INFO AutomationCommands.cpp: Adding audio item /mnt/usb/b.mp3 to local library",
                                    "INFO AutomationCommands.cpp: Adding audio item 2 to playlist 1"));
    EXPECT_EQ(printed, "");
    EXPECT_THAT(rows("SELECT * FROM T_Playlists"), ElementsAre("1|65536|Morning|1"));
    EXPECT_THAT(rows("SELECT * FROM T_Items"), ElementsAre("1|/mnt/usb/a.wav|1|0|0", "2|/mnt/usb/b.mp3|2|0|0"));
    EXPECT_THAT(rows("SELECT * FROM T_Playlist_Item_Association"), ElementsAre("1|2|1|1", "2|3|1|2"));
    EXPECT_THAT(rows("SELECT * FROM T_Playlists_Item_Count"), ElementsAre("1|1|2|NULL"));
    EXPECT_THAT(rows("SELECT * FROM T_Audio_Sources"), ElementsAre("1|1|1|Morning"));
}

TEST_F(AutomationCommands, UploadOfAKnownNameKeepsTheIdAndHoldsExactlyTheNewItems)
{
    upload(playlist("Noon", item("n.wav")));
    upload(playlist("Morning", item("a.wav") + item("b.wav") + item("c.wav")));
    EXPECT_EQ(upload(playlist("Morning", item("d.wav") + item("b.wav"))),
              answer("uploadPlaylist", "success",
                     {"Clearing existing playlist Morning", "Adding audio item /mnt/usb/d.wav to local library",
                      "Adding audio item /mnt/usb/d.wav to playlist", "Adding audio item /mnt/usb/b.wav to playlist"}));
    EXPECT_THAT(logged, ElementsAre("INFO AutomationCommands.cpp: Clearing Playlist Morning with id 2", "",
                                    "INFO AutomationCommands.cpp: Adding audio item /mnt/usb/d.wav to local library",
                                    "INFO AutomationCommands.cpp: Adding audio item 5 to playlist 2",
                                    "INFO AutomationCommands.cpp: Adding audio item 3 to playlist 2"));
    EXPECT_THAT(playlists(), ElementsAre("1|Noon", "2|Morning"));
    EXPECT_THAT(placesOf("Morning"), ElementsAre("2|/mnt/usb/d.wav", "3|/mnt/usb/b.wav"));
    EXPECT_THAT(placesOf("Noon"), ElementsAre("2|/mnt/usb/n.wav"));
    EXPECT_EQ(rows("SELECT * FROM T_Items").size(), 5U) << "items outlive their places";
    EXPECT_THAT(rows("SELECT count FROM T_Playlists_Item_Count"), ElementsAre("1", "2"));
}

TEST_F(AutomationCommands, UploadWithoutItemsEmptiesThePlaylist)
{
    upload(playlist("Morning", item("a.wav")));
    EXPECT_EQ(upload("<Playlist name=\"Morning\"/>"),
              answer("uploadPlaylist", "success", {"Clearing existing playlist Morning"}));
    EXPECT_THAT(placesOf("Morning"), IsEmpty());
}

TEST_F(AutomationCommands, OneFilenameTwiceInAnUploadIsOneItemInTwoPlaces)
{
    EXPECT_EQ(upload(playlist("Morning", item("a.wav") + item("a.wav"))),
              answer("uploadPlaylist", "success",
                     {"Created new playlist Morning", "Adding audio item /mnt/usb/a.wav to local library",
                      "Adding audio item /mnt/usb/a.wav to playlist", "Adding audio item /mnt/usb/a.wav to playlist"}));
    EXPECT_THAT(rows("SELECT pathname FROM T_Items"), ElementsAre("/mnt/usb/a.wav"));
    EXPECT_THAT(placesOf("Morning"), ElementsAre("2|/mnt/usb/a.wav", "3|/mnt/usb/a.wav"));
}

TEST_F(AutomationCommands, Mp3AnywhereInTheFilenameInAnyCaseMakesTheTypeMp3)
{
    upload(playlist("Morning", item("a.mp3") + item("b.MP3") + item("c.Mp3.wav") + item(".mp3/d.ogg") +
                                   item("mp3.wav") + item("e.wav") + item("f.WAV") + item("g.mp") + item("h")));
    EXPECT_THAT(rows("SELECT pathname, item_type FROM T_Items"),
                ElementsAre("/mnt/usb/a.mp3|2", "/mnt/usb/b.MP3|2", "/mnt/usb/c.Mp3.wav|2", "/mnt/usb/.mp3/d.ogg|2",
                            "/mnt/usb/mp3.wav|1", "/mnt/usb/e.wav|1", "/mnt/usb/f.WAV|1", "/mnt/usb/g.mp|1",
                            "/mnt/usb/h|1"));
}

TEST_F(AutomationCommands, ItemWithoutFilenameStoresTheStoreItself)
{
    upload(playlist("Morning", "<PlaylistItem/>"));
    EXPECT_THAT(rows("SELECT * FROM T_Items"), ElementsAre("1|/mnt/usb/|1|0|0"));
    EXPECT_THAT(placesOf("Morning"), ElementsAre("2|/mnt/usb/"));
}

TEST_F(AutomationCommands, FilenameIsStoredAsItIs)
{
    upload(playlist("Morning", item("../x/ y.wav") + item("it's; --%s%n")));
    EXPECT_THAT(placesOf("Morning"), ElementsAre("2|/mnt/usb/../x/ y.wav", "3|/mnt/usb/it's; --%s%n"));
}

TEST_F(AutomationCommands, AllUploadedPlaylistsCarryTheSameSequence)
{
    upload(playlist("Morning", ""));
    upload(playlist("Noon", ""));
    EXPECT_THAT(rows("SELECT sequence, name FROM T_Playlists"), ElementsAre("65536|Morning", "65536|Noon"));
}

TEST_F(AutomationCommands, UploadWithoutANameIsRefused)
{
    for (const char* start : {"<Playlist>", "<Playlist name=\"\">", "<Playlist automationRef=\"r\">"}) {
        EXPECT_EQ(upload(start + item("a.wav") + "</Playlist>" + playlist("Second", "")),
                  answer("uploadPlaylist", "ERROR", {"ERROR: invalid playlist name"}));
        EXPECT_THAT(logged, ElementsAre("ERROR AutomationCommands.cpp: New Playlist must have a name", ""));
    }
    EXPECT_THAT(playlists(), IsEmpty());
    EXPECT_THAT(rows("SELECT * FROM T_Items"), IsEmpty());
}

TEST_F(AutomationCommands, ANameDoesNotLastToTheNextUpload)
{
    upload(playlist("Morning", ""));
    EXPECT_EQ(upload("<Playlist/>"), answer("uploadPlaylist", "ERROR", {"ERROR: invalid playlist name"}));
}

TEST_F(AutomationCommands, UploadOfAPlaylistThatCannotBeInsertedIsASuccessWithoutALine)
{
    sqliteSpy.stepAnswers = {-1, SQLITE_FULL}; // the look-up, the insert
    EXPECT_EQ(upload(playlist("Morning", item("a.wav")) + playlist("Second", "")),
              answer("uploadPlaylist", "success", {}));
    EXPECT_THAT(logged, ElementsAre("ERROR AudioDatabase.cpp: Playlist insert/update failed. error-code 13"));
    EXPECT_THAT(playlists(), IsEmpty());
    EXPECT_THAT(rows("SELECT * FROM T_Items"), IsEmpty());
}

TEST_F(AutomationCommands, WrongElementWhereAPlaylistBelongsEndsTheUploadAsASuccess)
{
    EXPECT_EQ(upload("<Song name=\"x\"/>" + playlist("Morning", "")), answer("uploadPlaylist", "success", {}));
    EXPECT_EQ(printed, "Invalid element (Song) looking for Transaction uploadPlaylist\n");
    EXPECT_THAT(playlists(), IsEmpty());
}

TEST_F(AutomationCommands, WrongElementAmongTheItemsLeavesThoseBeforeIt)
{
    EXPECT_EQ(upload(playlist("Morning", item("a.wav") + "<Song/>" + item("b.wav"))),
              answer("uploadPlaylist", "success",
                     {"Created new playlist Morning", "Adding audio item /mnt/usb/a.wav to local library",
                      "Adding audio item /mnt/usb/a.wav to playlist"}));
    EXPECT_EQ(printed, "Invalid element (Song) looking for Transaction PlaylistItem\n");
    EXPECT_THAT(placesOf("Morning"), ElementsAre("2|/mnt/usb/a.wav"));
}

TEST_F(AutomationCommands, TextAndCommentsInAnUploadAreSkipped)
{
    upload("text<!-- comment -->" +
           playlist("Morning", "text<!-- comment -->" + item("a.wav") + "more<![CDATA[x]]>" + item("b.wav")));
    EXPECT_EQ(printed, "");
    EXPECT_THAT(placesOf("Morning"), ElementsAre("2|/mnt/usb/a.wav", "3|/mnt/usb/b.wav"));
}

TEST_F(AutomationCommands, OnlyTheFirstPlaylistOfAnUploadIsHandled)
{
    upload(playlist("Morning", item("a.wav")) + playlist("Noon", item("b.wav")));
    EXPECT_THAT(playlists(), ElementsAre("1|Morning"));
    EXPECT_THAT(rows("SELECT pathname FROM T_Items"), ElementsAre("/mnt/usb/a.wav"));
}

TEST_F(AutomationCommands, ItemThatCannotBeInsertedGoesOnAsMinusOneAndUsesUpItsSequence)
{
    // playlist look-up, insert, look-up; item look-up, insert
    sqliteSpy.stepAnswers = {-1, -1, -1, -1, SQLITE_FULL};
    EXPECT_EQ(
        upload(playlist("Morning", item("a.wav") + item("b.wav"))),
        answer("uploadPlaylist", "success",
               {"Created new playlist Morning", "Adding audio item /mnt/usb/a.wav to local library",
                "Adding audio item /mnt/usb/a.wav to playlist", "Adding audio item /mnt/usb/b.wav to local library",
                "Adding audio item /mnt/usb/b.wav to playlist"}));
    EXPECT_THAT(logged, IsSupersetOf({"ERROR AudioDatabase.cpp: Item insert failed. 13",
                                      "INFO AutomationCommands.cpp: Adding audio item -1 to playlist 1",
                                      "ERROR AudioDatabase.cpp: Playlist item delete failed. Error-code 19",
                                      "INFO AutomationCommands.cpp: Adding audio item 1 to playlist 1"}));
    EXPECT_THAT(placesOf("Morning"), ElementsAre("3|/mnt/usb/b.wav"));
}

TEST_F(AutomationCommands, PlaceThatCannotBeInsertedIsPassedOver)
{
    // playlist look-up, insert, look-up; item look-up, insert, look-up, place
    sqliteSpy.stepAnswers = {-1, -1, -1, -1, -1, -1, SQLITE_FULL};
    upload(playlist("Morning", item("a.wav") + item("b.wav")));
    EXPECT_THAT(placesOf("Morning"), ElementsAre("3|/mnt/usb/b.wav"));
}

TEST_F(AutomationCommands, PlacesThatCannotBeClearedStayBesideTheNewOnes)
{
    upload(playlist("Morning", item("a.wav")));
    sqliteSpy.stepAnswers = {-1, SQLITE_BUSY};
    upload(playlist("Morning", item("b.wav")));
    EXPECT_THAT(logged, Contains("ERROR AudioDatabase.cpp: Playlist item delete failed. Error-code 5"));
    EXPECT_THAT(placesOf("Morning"), UnorderedElementsAre("2|/mnt/usb/a.wav", "2|/mnt/usb/b.wav"));
}

TEST_F(AutomationCommands, PlaylistThatGoesAwayDuringItsUploadGetsNoPlaces)
{
    run("CREATE TRIGGER vanish AFTER INSERT ON T_Items BEGIN DELETE FROM T_Playlists; END");
    EXPECT_EQ(upload(playlist("Morning", item("a.wav"))),
              answer("uploadPlaylist", "success",
                     {"Created new playlist Morning", "Adding audio item /mnt/usb/a.wav to local library",
                      "Adding audio item /mnt/usb/a.wav to playlist"}));
    EXPECT_THAT(logged, Contains("ERROR AudioDatabase.cpp: Playlist item delete failed. Error-code 19"));
    EXPECT_THAT(rows("SELECT * FROM T_Playlist_Item_Association"), IsEmpty());
}

TEST_F(AutomationCommands, NamesOfElementsAndAttributesCountInAnyCase)
{
    upload("<PLAYLIST NAME=\"Morning\"><playlistitem FileName=\"a.wav\"/></PLAYLIST>");
    EXPECT_THAT(placesOf("Morning"), ElementsAre("2|/mnt/usb/a.wav"));
    start("<pLaYlIsT nAmE=\"Morning\"/>");
    EXPECT_THAT(scriptedService.calls, ElementsAre("start 1"));
    addAsPlayedRow();
    remove("<playlist NAME=\"Morning\" CLEARasplayedlog=\"NO\" DELETEaudiofiles=\"No\"/>");
    EXPECT_THAT(playlists(), IsEmpty());
    EXPECT_EQ(numAsPlayedRows(), "1");
}

TEST_F(AutomationCommands, OfAttributesThatDifferByCaseTheLastOneCounts)
{
    upload("<Playlist name=\"First\" NAME=\"Last\"/>");
    EXPECT_THAT(playlists(), ElementsAre("1|Last"));
}

TEST_F(AutomationCommands, EntitiesInValuesAreTheCharactersThatTheyName)
{
    EXPECT_EQ(upload(playlist("Rock &amp; &quot;Roll&quot; &lt;1&gt; &#x41;", item("it&apos;s.wav"))),
              answer("uploadPlaylist", "success",
                     {"Created new playlist Rock &amp; &quot;Roll&quot; &lt;1&gt; A",
                      "Adding audio item /mnt/usb/it&apos;s.wav to local library",
                      "Adding audio item /mnt/usb/it&apos;s.wav to playlist"}));
    EXPECT_THAT(playlists(), ElementsAre("1|Rock & \"Roll\" <1> A"));
    EXPECT_THAT(rows("SELECT pathname FROM T_Items"), ElementsAre("/mnt/usb/it's.wav"));
}

TEST_F(AutomationCommands, BytesAbove127StayAsTheyAreAndAReferenceToThemIsOneByte)
{
    // A transaction has no declaration that names an encoding, so the parser reads bytes, not UTF-8.
    EXPECT_THAT(upload(playlist("M\xC3\xA4rz", item("&#228;.wav"))),
                AllOf(HasSubstr("playlist M\xC3\xA4rz\n"), HasSubstr("item /mnt/usb/\xE4.wav to playlist\n")));
    EXPECT_THAT(playlists(), ElementsAre("1|M\xC3\xA4rz"));
    EXPECT_THAT(rows("SELECT hex(substr(pathname, 10)) FROM T_Items"), ElementsAre("E42E776176"));
}

TEST_F(AutomationCommands, AValueEndsAtItsFirstZeroByte)
{
    EXPECT_EQ(upload(playlist("Mor&#0;ning", "")), answer("uploadPlaylist", "success", {"Created new playlist Mor"}));
    EXPECT_THAT(playlists(), ElementsAre("1|Mor"));
    EXPECT_EQ(upload(playlist("&#0;ning", "")), answer("uploadPlaylist", "ERROR", {"ERROR: invalid playlist name"}));
}

TEST_F(AutomationCommands, LongNamesAreCutInTheLogAlone)
{
    const std::string name(3000, 'n');
    const std::string file(3000, 'f');
    EXPECT_EQ(upload(playlist(name, item(file))),
              answer("uploadPlaylist", "success",
                     {"Created new playlist " + name, "Adding audio item /mnt/usb/" + file + " to local library",
                      "Adding audio item /mnt/usb/" + file + " to playlist"}));
    EXPECT_THAT(playlists(), ElementsAre("1|" + name));
    EXPECT_THAT(rows("SELECT pathname FROM T_Items"), ElementsAre("/mnt/usb/" + file));
    for (const std::string& line : logged)
        EXPECT_LT(line.size(), 1100U);
    start("<Playlist name=\"" + name + "\"/>");
    EXPECT_EQ(printed, "EEEEE " + name + " 1\n");
    EXPECT_THAT(remove("<Playlist name=\"" + name + "\" deleteAudioFiles=\"yes\"/>"),
                HasSubstr("      Deleting /mnt/usb/" + file + " ERROR: File name too long\n"));
    EXPECT_THAT(playlists(), IsEmpty());
}

// ---- deletePlaylists

TEST_F(AutomationCommands, DeleteOfAMissingPlaylistIsAnError)
{
    EXPECT_EQ(answerTo("<Transaction type=\"request\" command=\"deletePlaylists\" transactionNumber=\"42\">"
                       "<Playlist name=\"Morning\" clearAsPlayedLog=\"no\"/></Transaction>\n"),
              "<?xml version=\"1.0\" ?>\n"
              "<Transaction type=\"response\" command=\"deletePlaylists\" transactionNumber=\"42\" status=\"ERROR\">\n"
              "  <TransactionLog>\n"
              "    Deleting playlist Morning and keeping audio files\n"
              "      ERROR: Playlist not found\n"
              "    \n"
              "  </TransactionLog>\n"
              "</Transaction>\n");
}

TEST_F(AutomationCommands, DeletedPlaylistLeavesItemsAndFiles)
{
    writeFile("a.wav");
    addPlaylist("Morning", {"a.wav"});
    addPlaylist("Noon", {"b.wav"});
    EXPECT_EQ(remove("<Playlist name=\"Morning\"/>"),
              answer("deletePlaylists", "success", {"Deleting playlist Morning and keeping audio files"}));
    EXPECT_THAT(playlists(), ElementsAre("2|Noon"));
    EXPECT_THAT(rows("SELECT player_id FROM T_Audio_Sources"), ElementsAre("2"));
    EXPECT_THAT(rows("SELECT playlist_id FROM T_Playlists_Item_Count"), ElementsAre("2"));
    EXPECT_THAT(rows("SELECT playlist_id FROM T_Playlist_Item_Association"), ElementsAre("2"));
    EXPECT_THAT(rows("SELECT pathname FROM T_Items"), ElementsAre("a.wav", "b.wav"));
    EXPECT_TRUE(exists("a.wav"));
    EXPECT_THAT(scriptedService.calls, IsEmpty()) << "the player is left alone, whatever it plays";
}

TEST_F(AutomationCommands, UploadAfterADeleteFindsTheItemAgain)
{
    upload(playlist("Morning", item("a.wav")));
    remove("<Playlist name=\"Morning\"/>");
    EXPECT_EQ(upload(playlist("Morning", item("a.wav"))),
              answer("uploadPlaylist", "success",
                     {"Created new playlist Morning", "Adding audio item /mnt/usb/a.wav to playlist"}));
}

TEST_F(AutomationCommands, DeleteRunsItsStatementsInOrder)
{
    addPlaylist("Morning", {});
    remove("<Playlist name=\"Morning\" deleteAudioFiles=\"yes\"/>");
    EXPECT_THAT(
        sqliteSpy.prepared,
        ElementsAre(" SELECT * FROM T_Playlists WHERE name = ?; ",
                    " SELECT * from T_Playlist_Item_Association  JOIN T_Items on T_Playlist_Item_Association.item_id = "
                    "T_items.id WHERE playlist_id = ?",
                    "DELETE FROM T_Playlist_Item_Association WHERE playlist_id = ?; ",
                    " SELECT * FROM T_Playlist_Item_Association WHERE playlist_id = ? ORDER BY sequence; ",
                    " DELETE FROM T_Playlists WHERE id = ?; ", " DELETE from T_As_Played_Log "));
    EXPECT_THAT(sqliteSpy.bound, ElementsAre("1='Morning'", "1=1", "1=1", "1=1", "1=1"));
}

TEST_F(AutomationCommands, DeleteWithFilesRemovesWhatItCanAndTellsOfTheRest)
{
    writeFile("a.wav");
    std::filesystem::create_directory("empty");
    std::filesystem::create_directory("full");
    writeFile("full/b.wav");
    writeFile("other.wav");
    addPlaylist("Morning",
                {"a.wav", "missing.wav", "full", "empty", "NULL", "", "ITEM_TYPE_JUMP 1 1", "a.wav", "full/b.wav"});
    addPlaylist("Other", {"other.wav", "a.wav"});
    EXPECT_EQ(
        remove("<Playlist name=\"Morning\" deleteAudioFiles=\"YES\"/>"),
        answer("deletePlaylists", "success",
               {"Deleting playlist Morning and associated audio files", "  Deleting a.wav OK",
                "  Deleting missing.wav ERROR: No such file or directory", "  Deleting full ERROR: Directory not empty",
                "  Deleting empty OK", "  Deleting (unknown) ERROR: No such file or directory",
                "  Deleting (unknown) ERROR: No such file or directory",
                "  Deleting ITEM_TYPE_JUMP 1 1 ERROR: No such file or directory",
                "  Deleting a.wav ERROR: No such file or directory", "  Deleting full/b.wav OK"}));
    EXPECT_FALSE(exists("a.wav")) << "though another playlist has it";
    EXPECT_FALSE(exists("empty"));
    EXPECT_TRUE(exists("full"));
    EXPECT_TRUE(exists("other.wav"));
    EXPECT_THAT(placesOf("Other"), ElementsAre("2|other.wav", "3|a.wav"));
    EXPECT_THAT(playlists(), ElementsAre("2|Other"));
}

TEST_F(AutomationCommands, FilesThatCannotBeLookedUpStayAndTheFailuresNameTheStatement)
{
    writeFile("a.wav");
    addPlaylist("Morning", {"a.wav"});
    sqliteSpy.refuseFrom = 1; // the look-up of the name is answered
    EXPECT_EQ(remove("<Playlist name=\"Morning\" deleteAudioFiles=\"yes\"/>"),
              answer("deletePlaylists", "success", {"Deleting playlist Morning and associated audio files"}));
    EXPECT_THAT(logged, IsSupersetOf({HasSubstr("Cannot prepare statement get_all_files. "),
                                      HasSubstr("Cannot bind playlist_id to get_all_files. "),
                                      HasSubstr("Cannot step statement get_all_files. "),
                                      HasSubstr("Cannot finalize statement get_all_files. ")}));
    EXPECT_TRUE(exists("a.wav"));
}

TEST_F(AutomationCommands, NoStatementIsLeftOpen)
{
    writeFile("a.wav");
    upload(playlist("Morning", item("b.wav")));
    addPlaylist("Noon", {"a.wav"});
    start("<Playlist name=\"Noon\"/>");
    remove("<Playlist name=\"Noon\" deleteAudioFiles=\"yes\"/>");
    EXPECT_EQ(sqlite3_next_stmt(database.getDatabase(), nullptr), nullptr);
}

TEST_F(AutomationCommands, OnlyYesDeletesFiles)
{
    for (const char* word : {"no", "true", "1", "ye", "yess", " yes", ""}) {
        writeFile("a.wav");
        addPlaylist("Morning", {"a.wav"});
        EXPECT_EQ(remove("<Playlist name=\"Morning\" deleteAudioFiles=\"" + std::string(word) + "\"/>"),
                  answer("deletePlaylists", "success", {"Deleting playlist Morning and keeping audio files"}));
        EXPECT_TRUE(exists("a.wav")) << word;
    }
    for (const char* word : {"yes", "YES", "Yes", "yEs"}) {
        writeFile("a.wav");
        addPlaylist("Morning", {"a.wav"});
        remove("<Playlist name=\"Morning\" deleteAudioFiles=\"" + std::string(word) + "\"/>");
        EXPECT_FALSE(exists("a.wav")) << word;
    }
}

TEST_F(AutomationCommands, DeleteClearsTheAsPlayedLogUnlessToldOtherwise)
{
    for (const char* attribute : {"", "clearAsPlayedLog=\"yes\"", "clearAsPlayedLog=\"YES\""}) {
        addPlaylist("Morning", {});
        addAsPlayedRow();
        remove("<Playlist name=\"Morning\" " + std::string(attribute) + "/>");
        EXPECT_EQ(numAsPlayedRows(), "0") << attribute;
    }
    for (const char* attribute : {"clearAsPlayedLog=\"no\"", "clearAsPlayedLog=\"\"", "clearAsPlayedLog=\"true\""}) {
        run("DELETE FROM T_As_Played_Log");
        addPlaylist("Morning", {});
        addAsPlayedRow();
        remove("<Playlist name=\"Morning\" " + std::string(attribute) + "/>");
        EXPECT_EQ(numAsPlayedRows(), "1") << attribute;
        EXPECT_THAT(playlists(), IsEmpty());
    }
}

TEST_F(AutomationCommands, DeleteOfAMissingPlaylistClearsTheAsPlayedLogToo)
{
    addAsPlayedRow();
    remove("<Playlist name=\"Nobody\" clearAsPlayedLog=\"no\"/>");
    EXPECT_EQ(numAsPlayedRows(), "1");
    remove("<Playlist name=\"Nobody\"/>");
    EXPECT_EQ(numAsPlayedRows(), "0");
}

TEST_F(AutomationCommands, DeleteWithoutANameDoesNothingAndGoesOn)
{
    addAsPlayedRow();
    addPlaylist("", {});
    addPlaylist("Morning", {});
    EXPECT_EQ(remove("<Playlist name=\"\" deleteAudioFiles=\"yes\"/><Playlist/>"),
              answer("deletePlaylists", "success", {}));
    EXPECT_THAT(playlists(), ElementsAre("1|", "2|Morning"));
    EXPECT_EQ(numAsPlayedRows(), "1");
    remove("<Playlist name=\"\"/><Playlist name=\"Morning\"/>");
    EXPECT_THAT(playlists(), ElementsAre("1|"));
}

TEST_F(AutomationCommands, APlaylistThatIsMissingMakesTheWholeDeleteAnError)
{
    addPlaylist("Morning", {});
    EXPECT_EQ(remove("<Playlist name=\"Nobody\"/><Playlist name=\"Morning\"/>"),
              answer("deletePlaylists", "ERROR",
                     {"Deleting playlist Nobody and keeping audio files", "  ERROR: Playlist not found",
                      "Deleting playlist Morning and keeping audio files"}));
    EXPECT_THAT(playlists(), IsEmpty());
}

TEST_F(AutomationCommands, EachPlaylistOfADeleteHasItsOwnAttributes)
{
    writeFile("b.wav");
    addPlaylist("Morning", {});
    addPlaylist("Noon", {"b.wav"});
    addAsPlayedRow();
    EXPECT_EQ(remove("<Playlist name=\"Morning\" deleteAudioFiles=\"yes\" clearAsPlayedLog=\"no\"/>"
                     "<Playlist name=\"Noon\"/>"),
              answer("deletePlaylists", "success",
                     {"Deleting playlist Morning and associated audio files",
                      "Deleting playlist Noon and keeping audio files"}));
    EXPECT_TRUE(exists("b.wav"));
    EXPECT_EQ(numAsPlayedRows(), "0");
}

TEST_F(AutomationCommands, WrongElementEndsTheDeleteAsASuccess)
{
    addPlaylist("Morning", {});
    addPlaylist("Noon", {});
    EXPECT_EQ(remove("<Playlist name=\"Morning\"/><Song name=\"x\"/><Playlist name=\"Noon\"/>"),
              answer("deletePlaylists", "success",
                     {"Deleting playlist Morning and keeping audio files", "Invalid element Song"}));
    EXPECT_EQ(printed, "");
    EXPECT_THAT(playlists(), ElementsAre("2|Noon"));
}

TEST_F(AutomationCommands, CommentsInADeleteAreSkippedAndTextEndsIt)
{
    addPlaylist("Morning", {});
    addPlaylist("Noon", {});
    EXPECT_EQ(remove("<!-- comment --><Playlist name=\"Morning\"/>text<Playlist name=\"Noon\"/>"),
              answer("deletePlaylists", "success", {"Deleting playlist Morning and keeping audio files"}));
    EXPECT_THAT(playlists(), ElementsAre("2|Noon"));
}

// ---- startPlaylist

TEST_F(AutomationCommands, StartTakesThePlaylistsIdForTheSources)
{
    run("INSERT INTO T_Streams (name, stream_type_id) VALUES ('news', 1)"); // takes source id 1
    addPlaylist("Morning", {});
    ASSERT_THAT(rows("SELECT id, source_type_id, player_id FROM T_Audio_Sources"), ElementsAre("1|2|1", "2|1|1"));
    EXPECT_EQ(
        start("<Playlist name=\"Morning\"/>"),
        "<?xml version=\"1.0\" ?>\n"
        "<Transaction type=\"response\" command=\"startPlaylist\" transactionNumber=\"7\" status=\"success\" />\n")
        << "though the service answered with an error";
    EXPECT_EQ(printed, "EEEEE Morning 1\n");
    EXPECT_THAT(scriptedService.calls, ElementsAre("start 1"));
}

TEST_F(AutomationCommands, StartOfAMissingPlaylistIsAnError)
{
    EXPECT_EQ(start("<Playlist name=\"Nobody\"/>"),
              answer("startPlaylist", "ERROR", {"Playlist Nobody was not found"}));
    EXPECT_EQ(printed, "EEEEE Nobody -1\n");
    EXPECT_EQ(start("<Playlist/>"), answer("startPlaylist", "ERROR", {"Playlist  was not found"}));
    EXPECT_EQ(printed, "EEEEE  -1\n");
    EXPECT_THAT(scriptedService.calls, IsEmpty());
}

TEST_F(AutomationCommands, AllPlaylistsOfAStartAreStartedInTurn)
{
    addPlaylist("Morning", {});
    addPlaylist("Noon", {});
    EXPECT_EQ(start("<Playlist name=\"Noon\"/><Playlist name=\"Morning\"/>"), answer("startPlaylist", "success", {}));
    EXPECT_THAT(scriptedService.calls, ElementsAre("start 2", "start 1"));
    EXPECT_EQ(printed, "EEEEE Noon 2\nEEEEE Morning 1\n");
}

TEST_F(AutomationCommands, TheLastPlaylistOfAStartDecidesTheVerdict)
{
    addPlaylist("Morning", {});
    EXPECT_EQ(start("<Playlist name=\"Nobody\"/><Playlist name=\"Morning\"/>"),
              answer("startPlaylist", "success", {"Playlist Nobody was not found"}));
    EXPECT_EQ(start("<Playlist name=\"Morning\"/><Playlist name=\"Nobody\"/>"),
              answer("startPlaylist", "ERROR", {"Playlist Nobody was not found"}));
    EXPECT_THAT(scriptedService.calls, ElementsAre("start 1", "start 1"));
}

TEST_F(AutomationCommands, WrongElementTextOrCommentEndsAStartAsAnError)
{
    addPlaylist("Morning", {});
    EXPECT_EQ(start("<Playlist name=\"Morning\"/><Song name=\"Morning\"/><Playlist name=\"Morning\"/>"),
              answer("startPlaylist", "ERROR", {}));
    EXPECT_EQ(printed, "EEEEE Morning 1\nInvalid element (Song) looking for Transaction 0\n");
    EXPECT_THAT(scriptedService.calls, ElementsAre("start 1"));
    for (const char* node : {"text", "<!-- comment -->"}) {
        EXPECT_EQ(start(node + std::string("<Playlist name=\"Morning\"/>")), answer("startPlaylist", "ERROR", {}));
        EXPECT_EQ(printed, "");
    }
    EXPECT_THAT(scriptedService.calls, ElementsAre("start 1"));
}

// ---- a database that another process holds

TEST_F(AutomationCommands, LockedDatabaseFailsCommandsInTheirOwnWaysAndPasses)
{
    addPlaylist("Morning", {"a.wav"});
    addAsPlayedRow();
    dontWaitForOthers();
    {
        const AnotherProcess other("BEGIN EXCLUSIVE");
        EXPECT_EQ(upload(playlist("Morning", item("b.wav"))), answer("uploadPlaylist", "success", {}));
        EXPECT_THAT(logged, Contains("ERROR AudioDatabase.cpp: Playlist insert/update failed. error-code 5"));
        EXPECT_EQ(remove("<Playlist name=\"Morning\"/>"),
                  answer("deletePlaylists", "ERROR",
                         {"Deleting playlist Morning and keeping audio files", "  ERROR: Playlist not found"}));
        EXPECT_EQ(start("<Playlist name=\"Morning\"/>"),
                  answer("startPlaylist", "ERROR", {"Playlist Morning was not found"}));
    }
    EXPECT_THAT(scriptedService.calls, IsEmpty());
    EXPECT_THAT(placesOf("Morning"), ElementsAre("2|a.wav"));
    EXPECT_EQ(numAsPlayedRows(), "1");
    EXPECT_EQ(start("<Playlist name=\"Morning\"/>"), answer("startPlaylist", "success", {}));
}

TEST_F(AutomationCommands, AnotherWriterLeavesThePlaylistAndThePeerSeesSuccess)
{
    writeFile("a.wav");
    addPlaylist("Morning", {"a.wav"});
    dontWaitForOthers();
    {
        const AnotherProcess other("BEGIN IMMEDIATE"); // others may read still
        EXPECT_EQ(remove("<Playlist name=\"Morning\" deleteAudioFiles=\"yes\"/>"),
                  answer("deletePlaylists", "success",
                         {"Deleting playlist Morning and associated audio files", "  Deleting a.wav OK"}));
    }
    EXPECT_THAT(placesOf("Morning"), ElementsAre("2|a.wav"));
}

TEST_F(AutomationCommands, DatabaseThatRefusesEveryStatementCostsNoMoreThanTheCommand)
{
    addPlaylist("Morning", {"a.wav"});
    sqliteSpy.refuseEverything = true;
    EXPECT_EQ(upload(playlist("Morning", item("b.wav"))), answer("uploadPlaylist", "success", {}));
    EXPECT_EQ(remove("<Playlist name=\"Morning\" deleteAudioFiles=\"yes\"/>"),
              answer("deletePlaylists", "ERROR",
                     {"Deleting playlist Morning and associated audio files", "  ERROR: Playlist not found"}));
    EXPECT_EQ(start("<Playlist name=\"Morning\"/>"),
              answer("startPlaylist", "ERROR", {"Playlist Morning was not found"}));
}

// ---- playingNow

class PlayingNow : public AutomationCommands
{
protected:
    PlayingNow()
    {
        addPlaylist("Noon", {});
        addPlaylist("Morning", {"/mnt/usb/a.wav"});
        entry.setPath("/mnt/usb/a.wav");
        entry.setItemID(5);
        entry.setPlaylistID(2);
        entry.setPlaylistItemID(70000);
        pass(); // a peer is there
    }

    void send()
    {
        watch([this] { automation->sendPlayingNowTransaction(&entry); });
    }

    lines asPlayed()
    {
        return rows("SELECT playlist_assoc_id, playlist_id, playlist_item_id, entry_type, player_status, tx_status, "
                    "desc FROM T_As_Played_Log ORDER BY id");
    }

    std::string told(const std::string& name, const std::string& filename)
    {
        return "<?xml version=\"1.0\" ?>\n"
               "<Transaction type=\"info\" command=\"playingNow\" transactionNumber=\"0\">\n"
               "  <Playlist name=" +
               name +
               " />\n"
               "  <PlaylistItem type=\"file\" filename=" +
               filename +
               " />\n"
               "</Transaction>\n";
    }

    PlaylistItem entry;
};

TEST_F(PlayingNow, GoesOutInOneWriteAndIntoTheAsPlayedLog)
{
    send();
    EXPECT_THAT(scriptedPeer.received, ElementsAre(told("\"Morning\"", "\"/mnt/usb/a.wav\"")));
    EXPECT_THAT(asPlayed(), ElementsAre("70000|2|5|0|1|100|"));
    EXPECT_THAT(logged, IsEmpty());
    EXPECT_EQ(printed, "");
}

TEST_F(PlayingNow, WithoutAPeerTheAsPlayedEntryIsWrittenAllTheSame)
{
    scriptedPeer.isConnected = false;
    pass();
    send();
    EXPECT_THAT(scriptedPeer.received, IsEmpty());
    EXPECT_EQ(asPlayed().size(), 1U);
    scriptedPeer.isConnected = true;
    pass();
    EXPECT_THAT(scriptedPeer.received, IsEmpty()) << "nothing is kept for later";
}

TEST_F(PlayingNow, OfAPlaylistThatIsGoneHasAnEmptyNameAndNoPlaylistsId)
{
    entry.setPlaylistID(9);
    send();
    EXPECT_THAT(scriptedPeer.received, ElementsAre(told("\"\"", "\"/mnt/usb/a.wav\"")));
    EXPECT_THAT(asPlayed(), ElementsAre("70000|65536|5|0|1|100|"));
    EXPECT_THAT(logged, ElementsAre("ERROR AudioDatabase.cpp: Select Playlist by id: 101 failed."));
}

TEST_F(PlayingNow, OfAPlaylistWithoutANameHasAnEmptyName)
{
    run("UPDATE T_Playlists SET name = NULL WHERE id = 2");
    send();
    EXPECT_THAT(scriptedPeer.received, ElementsAre(told("\"\"", "\"/mnt/usb/a.wav\"")));
    EXPECT_THAT(asPlayed(), ElementsAre("70000|2|5|0|1|100|"));
}

TEST_F(PlayingNow, NamesAndPathsAreEncoded)
{
    run("UPDATE T_Playlists SET name = 'Rock & Roll' WHERE id = 2");
    entry.setPath("/mnt/usb/\"<x>\"\x01.mp3");
    send();
    EXPECT_THAT(scriptedPeer.received,
                ElementsAre(told("\"Rock &amp; Roll\"", "'/mnt/usb/&quot;&lt;x&gt;&quot;&#x01;.mp3'")));
}

TEST_F(PlayingNow, DropsWhatWaitsInTheAsPlayedLog)
{
    log->addEntry(new asPlayedLogEntry(8, 8, 8, AS_PLAYED_LOG_ENTRY_TYPE_MISSING_PLAYLIST_ITEM,
                                       AS_PLAYED_LOG_STATUS_STARTED, 100));
    send();
    EXPECT_THAT(asPlayed(), ElementsAre("70000|2|5|0|1|100|"));
}

TEST_F(PlayingNow, EntriesGoOnWhileThePeerDoesNotWantToBeTold)
{
    const auto ask = [this](const std::string& attributes) {
        answerTo(request("getAsPlayedLog", "<Parameters " + attributes + "/>"));
        scriptedPeer.received.clear();
        send();
        return scriptedPeer.received.size();
    };
    EXPECT_EQ(ask("enablePlayingNow=\"off\""), 0U);
    EXPECT_EQ(ask(""), 0U) << "until a request turns it on again";
    EXPECT_EQ(asPlayed().size(), 2U);
    EXPECT_EQ(ask("enablePlayingNow=\"Yes\""), 1U);
    EXPECT_EQ(asPlayed().size(), 3U);
}

TEST_F(PlayingNow, AWriteThatFailsIsNotTriedAgain)
{
    scriptedPeer.writeAnswer = OSA_ERROR;
    send();
    pass();
    EXPECT_EQ(scriptedPeer.received.size(), 1U);
    EXPECT_EQ(asPlayed().size(), 1U);
}

TEST_F(PlayingNow, ALockedDatabaseLosesTheEntryAndTheName)
{
    dontWaitForOthers();
    {
        const AnotherProcess other("BEGIN EXCLUSIVE");
        send();
    }
    EXPECT_THAT(scriptedPeer.received, ElementsAre(told("\"\"", "\"/mnt/usb/a.wav\"")));
    EXPECT_THAT(logged, IsSupersetOf({"ERROR AudioDatabase.cpp: Select Playlist by id: 5 failed.",
                                      "ERROR AsPlayedLog.cpp: As played log entry failed 5"}));
    EXPECT_THAT(asPlayed(), IsEmpty());
}

TEST_F(PlayingNow, OfAnItemThatACommandStartsGoesOutBeforeTheAnswer)
{
    scriptedService.onStart = [this](int) { automation->sendPlayingNowTransaction(&entry); };
    start("<Playlist name=\"Morning\"/>");
    EXPECT_THAT(scriptedPeer.received,
                ElementsAre(told("\"Morning\"", "\"/mnt/usb/a.wav\""), answer("startPlaylist", "success", {})));
}

} // namespace
