/**
 * What strangers write: URLs, .pls, M3U and XSPF, with the entries and the printed lines worked out by hand.
 */

#include "audioLibrary/shoutcastPlaylist.h"

#include "audioLibrary/graphTestSupport.h"

#include <gmock/gmock.h>

using namespace audioLibrarySpace;
using namespace testing;
using graphTest::Lines;

namespace
{

constexpr size_t NOT_FOUND = static_cast<size_t>(-1);

// ---- texts

TEST(FindStr, ComparesWithoutRegardToCase)
{
    EXPECT_EQ(findStr("Content-TYPE: x", "content-type"), 0U);
    EXPECT_EQ(findStr("a File b", "fILE"), 2U);
    EXPECT_EQ(findStr("no such text", "file"), NOT_FOUND);
    EXPECT_EQ(findStr("[ { @ `", "{ ["), NOT_FOUND); // only letters have two cases
    EXPECT_EQ(findStr("[ {", "{"), NOT_FOUND);
}

TEST(FindStr, AnswersTheFirstOccurrence)
{
    EXPECT_EQ(findStr("abcabcabc", "bc"), 1U);
}

TEST(FindStr, WhatEndsWithTheTextIsNotFound)
{
    EXPECT_EQ(findStr("abc", "bc"), NOT_FOUND);
    EXPECT_EQ(findStr("abc ", "bc"), 1U);
    EXPECT_EQ(findStr("abc", "abc"), NOT_FOUND);
    EXPECT_EQ(findStr("abcd", "abc"), 0U);
    EXPECT_EQ(findStr("abcxbc", "bc"), 1U);
}

TEST(FindStr, NothingIsFoundInATextThatIsTooShort)
{
    EXPECT_EQ(findStr("", "a"), NOT_FOUND);
    EXPECT_EQ(findStr("a", "abcdef"), NOT_FOUND);
    EXPECT_EQ(findStr("", ""), NOT_FOUND);
    EXPECT_EQ(findStr("a", ""), 0U);
}

TEST(FormatUrl, LowersLettersInPlaceAndNothingElse)
{
    std::string url = "HTTP://Radio.ExampleZA:80/[@`{\xC3\x89";
    EXPECT_EQ(formatUrl(url), STREAM_OK);
    EXPECT_EQ(url, "http://radio.exampleza:80/[@`{\xC3\x89");
}

// ---- URLs

struct UrlRow {
    const char* url;
    const char* host;
    uint16_t port;
    const char* path;
};

class Url : public TestWithParam<UrlRow>
{
};

TEST_P(Url, IsTakenApart)
{
    EXPECT_EQ(extractHostname(GetParam().url), GetParam().host);
    EXPECT_EQ(extractPort(GetParam().url), GetParam().port);
    EXPECT_EQ(extractPath(GetParam().url), GetParam().path);
}

INSTANTIATE_TEST_SUITE_P(OfTheUsualKind, Url,
                         Values(UrlRow{"http://radio.example.com:8000/live", "radio.example.com", 8000, "/live"},
                                UrlRow{"http://radio.example.com", "radio.example.com", 80, "/"},
                                UrlRow{"http://radio.example.com/", "radio.example.com", 80, "/"},
                                UrlRow{"http://radio.example.com:8000", "radio.example.com", 8000, "/"},
                                UrlRow{"HTTP://Radio.Example.COM:8000/Live.MP3", "radio.example.com", 8000,
                                       "/live.mp3"},
                                UrlRow{"http://10.0.0.1:80/a/b?c=D", "10.0.0.1", 80, "/a/b?c=d"}));

INSTANTIATE_TEST_SUITE_P(WithoutAScheme, Url,
                         Values(UrlRow{"radio.example.com:8000/live", "radio.example.com", 8000, "/"},
                                UrlRow{"ab:81/live", "ab", 81, "/"}, UrlRow{"", "", 80, "/"},
                                UrlRow{"http", "http", 80, "/"}));

// The search begins at the index of "://": a host shorter than the scheme keeps what ends it.
INSTANTIATE_TEST_SUITE_P(WithAShortHost, Url,
                         Values(UrlRow{"http://abc:8000/x", "abc:8000", 80, "/x"}, // abc:|8000/x
                                UrlRow{"http://abcd:8000/x", "abcd", 8000, "/x"},  // abcd|:8000/x
                                UrlRow{"http://ab/c/d:9", "ab/c", 9, "/d:9"},      // ab/c|/d:9
                                UrlRow{"https://abcd:81/", "abcd:81", 80, "/"},    // abcd:|81/
                                UrlRow{"https://abcde:81/", "abcde", 81, "/"},     // abcde|:81/
                                UrlRow{"://ab:82/x", "ab", 82, "/x"},              // |ab:82/x
                                UrlRow{"http://a", "a", 80, "/"}, UrlRow{"http://", "", 80, "/"}));

INSTANTIATE_TEST_SUITE_P(WithAnOddPort, Url,
                         Values(UrlRow{"http://host:65535/", "host", 65535, "/"},
                                UrlRow{"http://host:65536/", "host", 0, "/"},
                                UrlRow{"http://host:65617/", "host", 81, "/"},
                                UrlRow{"http://host:-1/", "host", 65535, "/"}, UrlRow{"http://host:/", "host", 0, "/"},
                                UrlRow{"http://host:8x/", "host", 8, "/"}, UrlRow{"http://host: 8/", "host", 8, "/"},
                                UrlRow{"http://host:99999999999/", "host", 65535, "/"}, // 0x7fffffff
                                UrlRow{"http://host:-99999999999/", "host", 0, "/"},    // -0x80000000
                                UrlRow{"http://host/a:7/b", "host", 7, "/a:7/b"}));

// ---- entries

TEST(PlaylistItem, AsTextHasThreeLines)
{
    const CShoutcastPlaylistItem item{"http://a/", "A title", "-1"};
    EXPECT_EQ(std::string(item), "URL:    (http://a/)\nTitle:  (A title)\nLength: (-1)\n");
}

/** A playlist that is owned by the test, with one entry from before; prints are kept. */
class Parsing : public graphTest::GraphTest
{
protected:
    Parsing() { playlist.push_back(new CShoutcastPlaylistItem{"old", "old", "old"}); }
    ~Parsing() override { clearPlaylist(playlist); }

    /** Each entry as "file|title|length". */
    Lines entries() const
    {
        Lines all;
        for (const CShoutcastPlaylistItem* item : playlist) {
            all.push_back(item->file + "|" + item->title + "|" + item->length);
        }
        return all;
    }
    bool pls(const std::string& reply)
    {
        bool isPls = false;
        text = reply;
        capture([&] { isPls = parsePls(text, playlist, &level); });
        return isPls;
    }
    void m3u(const std::string& reply)
    {
        text = reply;
        capture([&] { parseM3u(text, playlist); });
    }
    void xspf(const std::string& reply)
    {
        text = reply;
        capture([&] { parseXspf(text, playlist); });
    }
    void capture(const std::function<void()>& action)
    {
        internal::CaptureStdout();
        internal::CaptureStderr();
        action();
        printed = internal::GetCapturedStdout();
        errors = internal::GetCapturedStderr();
    }

    shoutcastPlaylist playlist;
    std::string text;    ///< what the parser left of the reply
    std::string printed; ///< on standard output
    std::string errors;
    int level = -1;
};

// ---- .pls

const std::string plsHead = "HTTP/1.1 200 OK\r\nContent-Type: audio/x-scpls\r\n\r\n";

TEST_F(Parsing, PlsEntriesAreReadInOrder)
{
    EXPECT_TRUE(pls(plsHead + "[playlist]\r\nNumberOfEntries=2\r\n"
                              "File1=http://a.example:8000/\r\nTitle1=One = first\r\nLength1=-1\r\n"
                              "File2=http://b.example/Live\nTitle2=Two\nLength2=60\n"));
    EXPECT_THAT(entries(), ElementsAre("http://a.example:8000/|One = first|-1", "http://b.example/Live|Two|60"));
    EXPECT_EQ(errors, "");
}

TEST_F(Parsing, PlsPrintsWhatIsLeftAheadOfEachValue)
{
    level = 3;
    EXPECT_TRUE(pls("[playlist]\nnumberofentries=2\nFile1=f\nTitle1=t\nLength1=9\nversion=2\n"));
    EXPECT_THAT(graphTest::traceLines(printed),
                ElementsAre("(3) Entry 0",                                                       //
                            "substring 1:", "File1=f", "Title1=t", "Length1=9", "version=2", "", //
                            "substring 2:", "Title1=t", "Length1=9", "version=2", "",            //
                            "substring 3:", "Length1=9", "version=2", "", "(3) Entry 1", "(3) End of playlist (file)"));
    EXPECT_THAT(entries(), ElementsAre("f|t|9"));
}

TEST_F(Parsing, PlsTracesNothingBelowLevelThree)
{
    level = 2;
    EXPECT_TRUE(pls("[playlist]\nnumberofentries=1\n\n"));
    EXPECT_EQ(printed, "");
}

TEST_F(Parsing, PlsWithoutItsSectionIsNone)
{
    EXPECT_FALSE(pls(plsHead + "numberofentries=1\r\nFile1=f\r\nTitle1=t\r\nLength1=9\r\n"));
    EXPECT_EQ(errors, "No playlist definition found\n");
    EXPECT_THAT(entries(), ElementsAre("old|old|old"));
}

TEST_F(Parsing, PlsWithoutACountIsNone)
{
    EXPECT_FALSE(pls(plsHead + "numberofentries=1\r\n[Playlist]\r\nFile1=f\r\nTitle1=t\r\nLength1=9\r\n"));
    EXPECT_EQ(errors, "Play list has no server entries\n");
    EXPECT_THAT(entries(), ElementsAre("old|old|old"));
}

std::string plsOf(const std::string& count, int numEntries)
{
    std::string body = "[playlist]\nnumberofentries=" + count + "\n";
    for (int i = 0; i < numEntries; i++) {
        const std::string n = std::to_string(i);
        body += "File" + n + "=f" + n + "\nTitle" + n + "=t\nLength" + n + "=9\n";
    }
    return body;
}

TEST_F(Parsing, PlsReadsAsManyEntriesAsItSays)
{
    const struct {
        const char* count;
        size_t read;
    } rows[] = {{"0", 0},     {"-1", 0},   {"1", 1},        {"99", 99},           {"100", 100},
                {"250", 100}, {"none", 0}, {" 3 or so", 3}, {"99999999999", 100}, {"-99999999999", 0}};
    for (const auto& row : rows) {
        EXPECT_TRUE(pls(plsOf(row.count, 250))) << row.count;
        EXPECT_EQ(playlist.size(), row.read) << row.count;
    }
}

TEST_F(Parsing, PlsEndsWithItsEntriesWhateverItSays)
{
    EXPECT_TRUE(pls(plsOf("7", 2)));
    EXPECT_THAT(entries(), ElementsAre("f0|t|9", "f1|t|9"));
}

/** A whole entry, then this text: what stops the walk, if it is told. */
struct BrokenRow {
    const char* rest;
    const char* told;
};

TEST_F(Parsing, PlsDropsAnEntryThatIsNotWholeAndEnds)
{
    const BrokenRow rows[] = {
        {"\n", "(3) End of playlist (file)"},
        {"File2=x", ""},           // no line end
        {"File2\nTitle2\n", ""},   // no '='
        {"File2\nTitle2=t\n", ""}, // the line ends ahead of the '='
        {"File2=x\nLength2=9\n", "(3) End of playlist(title)"},
        {"File2=x\nTitle", "(3) End of playlist(title)"}, // at the end of the text it is not found
        {"File2=x\nTitle2=t\n", "(3) End of playlist(length)"},
        {"File2=x\nTitle2=t\nLength", "(3) End of playlist(length)"},
    };
    level = 3;
    for (const BrokenRow& row : rows) {
        EXPECT_TRUE(pls("[playlist]\nnumberofentries=9\nFile1=f\nTitle1=t\nLength1=9\n" + std::string(row.rest)));
        EXPECT_THAT(entries(), ElementsAre("f|t|9")) << row.rest;
        Lines told;
        for (const std::string& line : graphTest::traceLines(printed)) {
            if (line.find("End of playlist") != std::string::npos) {
                told.push_back(line);
            }
        }
        EXPECT_EQ(told, *row.told == '\0' ? Lines() : Lines{row.told}) << row.rest;
    }
}

TEST_F(Parsing, PlsValueWithoutItsEqualSignTakesWhatThereIs)
{
    EXPECT_TRUE(pls("[playlist]\nnumberofentries=1\nFile1=f\nTitle1\nLength1=9\n"));
    EXPECT_THAT(entries(), ElementsAre("f|9\n|9")); // the next '=' is behind the line's end
    EXPECT_TRUE(pls("[playlist]\nnumberofentries=1\nFile1=f\nTitle1=t\nLength1 9\n"));
    EXPECT_THAT(entries(), ElementsAre("f|t|Length1 9"));
    EXPECT_TRUE(pls("[playlist]\nnumberofentries=1\nFile1=f\nTitle1=t\nLength1=9 and no end"));
    EXPECT_THAT(entries(), ElementsAre("f|t|9 and no end"));
}

TEST_F(Parsing, PlsKeepsNoMoreOfAValueThanCanBeAskedFor)
{
    EXPECT_TRUE(pls("[playlist]\nnumberofentries=1\nFile1=" + std::string(5000, 'f') +
                    "\nTitle1=" + std::string(4096, 't') + "\nLength1=9\n"));
    EXPECT_THAT(entries(), ElementsAre(std::string(4096, 'f') + "|" + std::string(4096, 't') + "|9"));
}

// ---- M3U

TEST_F(Parsing, M3uTakesEachUrlUpToItsLineEnd)
{
    m3u("#EXTM3U\r\n#EXTINF:-1,http://title.example\r\nhttp://a.example:8000/Live\r\n\r\nHTTP://b.example/\nx");
    EXPECT_THAT(entries(), ElementsAre("http://title.example|http://title.example|",
                                       "http://a.example:8000/Live|http://a.example:8000/Live|",
                                       "HTTP://b.example/|HTTP://b.example/|"));
    EXPECT_EQ(text, "x");
    EXPECT_EQ(errors, "");
}

TEST_F(Parsing, M3uPrintsItsWay)
{
    m3u("ab\r\nhttp://c\r\nhttp://d\nef");
    EXPECT_EQ(printed, "Strpos: 4\nStrpos1: 12\nrawdata:\n\nhttp://d\nef\n"
                       "Strpos: 1\nStrpos1: 9\nrawdata:\nef\n"
                       "Strpos: -1\n");
}

TEST_F(Parsing, M3uLooksThroughTheHeadersToo)
{
    m3u("HTTP/1.1 200 OK\r\nX-Home: http://home.example/\r\n\r\nhttp://a.example/\r\n");
    EXPECT_THAT(entries(), ElementsAre("http://home.example/|http://home.example/|", //
                                       "http://a.example/|http://a.example/|"));
}

TEST_F(Parsing, M3uEndsAtAnEmptyText)
{
    m3u("http://a\n");
    EXPECT_EQ(printed, "Strpos: 0\nStrpos1: 8\nrawdata:\n\n"); // no further search
    EXPECT_EQ(text, "");
}

TEST_F(Parsing, M3uUrlWithoutALineEndIsTheLast)
{
    m3u("http://a\nhttp://b");
    EXPECT_THAT(entries(), ElementsAre("http://a|http://a|", "http://b|http://b|"));
    EXPECT_EQ(printed, "Strpos: 0\nStrpos1: 8\nrawdata:\nhttp://b\n"
                       "Strpos: 0\nStrpos1: -1\nrawdata:\nhttp://b\n");
}

TEST_F(Parsing, M3uWithoutAUrlIsEmpty)
{
    m3u("HTTP/1.1 200 OK\r\n\r\nhttps://a\r\n/live\r\n");
    EXPECT_THAT(entries(), IsEmpty());
    m3u("");
    EXPECT_THAT(entries(), IsEmpty());
    EXPECT_EQ(printed, "");
}

// ---- XSPF

TEST_F(Parsing, XspfTakesEachLocationUnderTheOneTitle)
{
    xspf(
        "HTTP/1.1 200 OK\r\n\r\n<playlist>\n<title>The Station</title>\n<trackList>\n"
        "<track><location>http://a.example:8000/Live</location>\n</track>\n"
        "<track><title>ignored</title>\n<Location>http://b.example/</LOCATION>\n</track>\n</trackList>\n</playlist>\n");
    EXPECT_THAT(entries(), ElementsAre("http://a.example:8000/Live|The Station|", "http://b.example/|The Station|"));
    EXPECT_EQ(text, "");
    EXPECT_EQ(errors, "");
}

TEST_F(Parsing, XspfPrintsWhereTheTitleStands)
{
    xspf("ab<title>c</title>\n");
    EXPECT_EQ(printed, "strpos: 2 strpos2: 10 \n");
    xspf("nothing\n");
    EXPECT_EQ(printed, "strpos: -1 strpos2: -1 \n");
}

TEST_F(Parsing, XspfLocationAheadOfTheTitleIsNotSeen)
{
    xspf("<location>a</location>\n<title>t</title>\n<location>b</location>\n\n\n");
    EXPECT_THAT(entries(), ElementsAre("b|t|"));
}

TEST_F(Parsing, XspfGoesOnTwentyCharactersBehindTheLocation)
{
    // What follows begins 20 characters after the start of "</location>", of which the tag is 11.
    xspf("<location>a</location>123456789<location>b</location>\n        \n");
    EXPECT_THAT(entries(), ElementsAre("a||", "b||"));
    xspf("<location>a</location>12345678<location>b</location>\n        \n"); // the '<' is cut off
    EXPECT_THAT(entries(), ElementsAre("a||"));
}

TEST_F(Parsing, XspfThatEndsWithinThoseTwentyTakesWhatIsThere)
{
    xspf("<location>a</location>\n");
    EXPECT_THAT(entries(), ElementsAre("a||"));
    EXPECT_EQ(text, "");
}

TEST_F(Parsing, XspfThatDoesNotEndInALineEndEndsWithWhatWasFound)
{
    xspf("<location>a</location>\n</track>\n</trackList>\nlast line");
    EXPECT_THAT(entries(), ElementsAre("a||"));
    EXPECT_EQ(text, "last line");
    xspf("no line end at all");
    EXPECT_THAT(entries(), IsEmpty());
    EXPECT_EQ(text, "no line end at all");
}

TEST_F(Parsing, XspfTagAtTheVeryEndIsNotFound)
{
    xspf("<location>a</location>");
    EXPECT_THAT(entries(), IsEmpty());
}

TEST_F(Parsing, XspfWithHalfATitleHasNone)
{
    xspf("<title>t\n<location>a</location>\n");
    EXPECT_THAT(entries(), ElementsAre("a||"));
    xspf("t</title>\n<location>a</location>\n");
    EXPECT_THAT(entries(), ElementsAre("a||"));
}

TEST_F(Parsing, XspfTagsInTheWrongOrderTakeTheRest)
{
    xspf("</location><location>abc\n");
    EXPECT_THAT(entries(), ElementsAre("abc\n||"));
    EXPECT_EQ(text, "");
}

TEST_F(Parsing, XspfKeepsNoMoreOfATextThanCanBeAskedFor)
{
    xspf("<title>" + std::string(5000, 't') + "</title><location>" + std::string(4097, 'a') + "</location>\n");
    EXPECT_THAT(entries(), ElementsAre(std::string(4096, 'a') + "|" + std::string(4096, 't') + "|"));
}

} // namespace
