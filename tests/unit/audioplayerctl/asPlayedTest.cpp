// The player's log entries, read from its answer and written for a person or a program.

#include "asPlayed.h"

#include <gtest/gtest.h>
#include <tinyxml.h>

namespace
{

AsPlayedRow rowOf(const std::string& xml)
{
    TiXmlDocument document;
    document.Parse((xml + "\n").c_str());
    return asPlayedRow(*document.RootElement());
}

std::string written(AsPlayedListing::form_e form, const std::vector<AsPlayedRow>& rows)
{
    testing::internal::CaptureStdout();
    AsPlayedListing listing(form);
    listing.begin();
    for (const AsPlayedRow& row : rows)
        listing.write(row);
    listing.end();
    return testing::internal::GetCapturedStdout();
}

const std::string TIME = "time=\"Tue Jun 19 11:03:28 2012 007.045ms\"";

} // namespace

TEST(AsPlayedTime, ThePlayersTextIsRewritten)
{
    EXPECT_EQ(asPlayedTime("Tue Jun 19 11:03:28 2012 007.045ms"), "2012-06-19 11:03:28.007045");
    EXPECT_EQ(asPlayedTime("Fri Jun  1 00:00:00 2012 999.999ms"), "2012-06-01 00:00:00.999999");
    EXPECT_EQ(asPlayedTime("Fri Jun  1 00:00:00 2012 000.000ms"), "2012-06-01 00:00:00.000000");
}

TEST(AsPlayedTime, OtherTextsStayAsTheyAre)
{
    for (const std::string text :
         {"", "soon", "Tue Jun 19 11:03:28 2012", "Tue Jun 19 11:03:28 2012 007.045", "Tue Jun 19 11:03:28 2012 7ms",
          "Tue Jun 19 11:03:28 2012 -07.045ms", "Tue Jun 19 11:03:28 2012 007.045ms more"})
        EXPECT_EQ(asPlayedTime(text), text);
}

TEST(AsPlayedTime, SecondsAndMicrosecondsAreOfThisMachinesZone)
{
    setenv("TZ", "UTC", 1);
    tzset();
    EXPECT_EQ(asPlayedTime(1340103808, 7045), "2012-06-19 11:03:28.007045");
    EXPECT_EQ(asPlayedTime(4294967295, 999999), "2106-02-07 06:28:15.999999"); // as far as the log's seconds go
}

TEST(AsPlayedWord, IsThePlayersForEachType)
{
    const char* const words[] = {"startPlaylistItem",   "stopAudioFile", "unknown", "unknown",
                                 "missingPlaylistItem", "logTrimmed",    "unknown"};
    for (int type = 0; type < 7; ++type)
        EXPECT_STREQ(asPlayedWord(type), words[type]) << type;
    EXPECT_STREQ(asPlayedWord(-1), "unknown");
}

TEST(AsPlayedRow, AnItemHasItsPlaylistAndFile)
{
    const AsPlayedRow row = rowOf("<LogEntry " + TIME + " type=\"startPlaylistItem\"><Playlist name=\"M\" />" +
                                  "<PlaylistItem type=\"file\" filename=\"/mnt/usb/a.wav\" /></LogEntry>");
    EXPECT_EQ(row.time, "2012-06-19 11:03:28.007045");
    EXPECT_EQ(row.type, "startPlaylistItem");
    EXPECT_EQ(row.playlist, "M");
    EXPECT_EQ(row.file, "/mnt/usb/a.wav");
}

TEST(AsPlayedRow, BothSpellingsOfUnknownAreNone)
{
    const AsPlayedRow row =
        rowOf("<LogEntry " + TIME + " type=\"missingPlaylistItem\"><Playlist name=\"(unknown)\" />" +
              "<PlaylistItem type=\"file\" filename=\"(unknonw)\" /></LogEntry>");
    EXPECT_TRUE(row.isOfItem);
    EXPECT_FALSE(row.playlist.has_value());
    EXPECT_FALSE(row.file.has_value());
}

TEST(AsPlayedListing, CsvDoublesQuotesAndKeepsCommasAndLines)
{
    AsPlayedRow row;
    row.time = "t";
    row.type = "x";
    row.isOfItem = true;
    row.playlist = "a\"b,c\nd";
    EXPECT_EQ(written(AsPlayedListing::CSV, {row}),
              "\"time\",\"type\",\"playlist\",\"file\",\"text\"\n\"t\",\"x\",\"a\"\"b,c\nd\",\"\",\"\"\n");
}

TEST(AsPlayedListing, JsonIsAnArrayAlsoOfNothing)
{
    EXPECT_EQ(written(AsPlayedListing::JSON, {}), "[]\n");
    AsPlayedRow row;
    row.time = "t";
    row.type = "x";
    EXPECT_EQ(written(AsPlayedListing::JSON, {row, row}),
              "[\n  {\"time\":\"t\",\"type\":\"x\"},\n  {\"time\":\"t\",\"type\":\"x\"}\n]\n");
    EXPECT_EQ(written(AsPlayedListing::JSON_LINES, {row}), "{\"time\":\"t\",\"type\":\"x\"}\n");
}

TEST(AsPlayedListing, BytesThatAreNoUtf8DoNotBreakJson)
{
    AsPlayedRow row;
    row.isOfItem = true;
    row.file = "caf\xe9";
    EXPECT_NE(written(AsPlayedListing::JSON, {row}).find("\"file\":\"caf\xef\xbf\xbd\""), std::string::npos);
}

TEST(AsPlayedListing, NothingMovesTheTerminalsCursor)
{
    AsPlayedRow row;
    row.time = "t";
    row.type = "x";
    row.isOfItem = true;
    row.playlist = "\x1b[2J";
    row.file = "a\r\n\x7f";
    EXPECT_EQ(written(AsPlayedListing::TABLE, {row}), "t  x  ?[2J  a???\n");
}
