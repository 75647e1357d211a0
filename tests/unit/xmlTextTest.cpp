/**
 * Names without regard to case, and the parse: what the parser gets to see is written down.
 */

#include "xmlText.h"

#include <cstring>
#include <gtest/gtest.h>
#include <pthread.h>
#include <string>
#include <tinyxml.h>
#include <vector>

namespace
{

/** A document that writes down what its parser is given. */
class SpyDocument : public TiXmlDocument
{
public:
    const char* Parse(const char* given, TiXmlParsingData* data, TiXmlEncoding givenEncoding) override
    {
        calls++;
        text = given;
        behindText.assign(given + text.size(), 5);
        hasParsingData = data != nullptr;
        encoding = givenEncoding;
        return TiXmlDocument::Parse(given, data, givenEncoding);
    }

    int calls = 0;
    std::string text;
    std::string behindText; ///< the text's own zero and the four bytes behind it
    bool hasParsingData = false;
    TiXmlEncoding encoding = TIXML_ENCODING_LEGACY;
};

constexpr size_t none = static_cast<size_t>(-1);

std::string times(int count, const std::string& text)
{
    std::string all;
    for (int i = 0; i < count; i++)
        all += text;
    return all;
}

/** `depth` elements, each in the one before. */
std::string nested(int depth)
{
    return times(depth, "<a>") + times(depth, "</a>");
}

std::string attributes(int count)
{
    std::string all;
    for (int i = 0; i < count; i++)
        all += " a" + std::to_string(i) + "=\"v\"";
    return all;
}

enum Verdict { PARSED, NOT_PARSED, REFUSED };

std::ostream& operator<<(std::ostream& out, Verdict verdict)
{
    return out << (verdict == PARSED ? "parsed" : verdict == NOT_PARSED ? "not parsed" : "refused ahead of the parser");
}

/** What becomes of a text, with a line end behind it that the parser wants. */
Verdict verdictOn(const std::string& text)
{
    SpyDocument document;
    const bool parsed = parseXml(document, text + "\n");
    if (document.calls == 0) {
        EXPECT_FALSE(parsed);
        EXPECT_TRUE(document.NoChildren());
        return REFUSED;
    }
    return parsed ? PARSED : NOT_PARSED;
}

std::vector<std::string> textsOf(const TiXmlElement& element)
{
    std::vector<std::string> texts;
    for (const TiXmlNode* node = element.FirstChild(); node != nullptr; node = node->NextSibling()) {
        EXPECT_NE(node->ToText(), nullptr);
        texts.emplace_back(node->Value());
    }
    return texts;
}

using lines = std::vector<std::string>;

} // namespace

TEST(CmpIStr, EqualNamesAreEqualInAnyCase)
{
    EXPECT_EQ(cmpIStr("Transaction", "Transaction"), 0);
    EXPECT_EQ(cmpIStr("TRANSACTION", "transaction"), 0);
    EXPECT_EQ(cmpIStr("tRANSACTION", "Transaction"), 0);
    EXPECT_EQ(cmpIStr("", ""), 0);
}

TEST(CmpIStr, OthersAreMinusOneWhicheverComesFirst)
{
    EXPECT_EQ(cmpIStr("a", "b"), -1);
    EXPECT_EQ(cmpIStr("b", "a"), -1);
    EXPECT_EQ(cmpIStr("name", "nama"), -1);
}

TEST(CmpIStr, APrefixIsNotEqual)
{
    EXPECT_EQ(cmpIStr("type", "types"), -1);
    EXPECT_EQ(cmpIStr("types", "type"), -1);
    EXPECT_EQ(cmpIStr("", "a"), -1);
    EXPECT_EQ(cmpIStr("a", ""), -1);
}

TEST(CmpIStr, OnlyLettersOfAsciiHaveTwoCases)
{
    EXPECT_EQ(cmpIStr("\xC4", "\xE4"), -1);
    EXPECT_EQ(cmpIStr("\xE4", "\xE4"), 0);
    EXPECT_EQ(cmpIStr("@[", "`{"), -1); // beside the letters, 32 apart
}

TEST(FindIStr, FindsTheFirstOccurrenceInAnyCase)
{
    EXPECT_EQ(findIStr("song.MP3.mp3", ".mp3"), 4u);
    EXPECT_EQ(findIStr(".Mp3", ".mP3"), 0u);
    EXPECT_EQ(findIStr("ab.mp3", ".MP3"), 2u);
    EXPECT_EQ(findIStr("<<Transaction", "<Transaction"), 1u);
}

TEST(FindIStr, AnswersMinusOneWhereThereIsNone)
{
    EXPECT_EQ(findIStr("song.wav", ".mp3"), none);
    EXPECT_EQ(findIStr("song.mp", ".mp3"), none);
    EXPECT_EQ(findIStr("", "a"), none);
}

TEST(FindIStr, AnswersMinusOneForATextLongerThanTheOneSearched)
{
    EXPECT_EQ(findIStr("mp3", "mp3s"), none);
    EXPECT_EQ(findIStr("mp3", "mp3"), 0u);
}

TEST(FindIStr, NothingIsFoundAtTheBeginning)
{
    EXPECT_EQ(findIStr("abc", ""), 0u);
    EXPECT_EQ(findIStr("", ""), 0u);
}

TEST(FindIStrFrom, BeginsWhereItIsTold)
{
    EXPECT_EQ(findIStrFrom("abcABC", "abc", 0), 0u);
    EXPECT_EQ(findIStrFrom("abcABC", "abc", 1), 3u);
    EXPECT_EQ(findIStrFrom("abcABC", "abc", 3), 3u);
    EXPECT_EQ(findIStrFrom("abcABC", "abc", 4), none);
    EXPECT_EQ(findIStrFrom("abcABC", "abc", 6), none);
    EXPECT_EQ(findIStrFrom("abcABC", "abc", 1000), none);
}

TEST(ParseXml, ParsesWhatIsSane)
{
    TiXmlDocument document;
    ASSERT_TRUE(
        parseXml(document, "<Transaction type=\"request\"><Playlist name='Morning &amp; Noon'/></Transaction>\n\n"));
    const TiXmlElement* root = document.RootElement();
    ASSERT_NE(root, nullptr);
    EXPECT_STREQ(root->Value(), "Transaction");
    EXPECT_STREQ(root->Attribute("type"), "request");
    ASSERT_NE(root->FirstChildElement(), nullptr);
    EXPECT_STREQ(root->FirstChildElement()->Attribute("name"), "Morning & Noon");
}

TEST(ParseXml, GivesTheParserTheTextWithFourZeroesBehindIt)
{
    SpyDocument document;
    EXPECT_TRUE(parseXml(document, "<a b='c'>d</a>\n"));
    EXPECT_EQ(document.calls, 1);
    EXPECT_EQ(document.text, "<a b='c'>d</a>\n");
    EXPECT_EQ(document.behindText, std::string(5, '\0'));
    EXPECT_FALSE(document.hasParsingData);
    EXPECT_EQ(document.encoding, TIXML_ENCODING_UNKNOWN);
}

TEST(ParseXml, IsFalseWhereTheParserAnswersNull)
{
    for (const char* text : {"", "<", "no element", "<a>", "<a></b>", "<a b=c'/>", "<a b/>", "<a b='1' b='2'/>",
                             "<a><b></a></b>", "<a>&#xyz;</a>", "<a>text</a", "<!--", "<![CDATA[", "<?xml"}) {
        EXPECT_EQ(verdictOn(text), NOT_PARSED) << text;
    }
}

TEST(ParseXml, WantsALineEndBehindTheLastElement)
{
    TiXmlDocument document;
    EXPECT_FALSE(parseXml(document, "<a/>"));
}

TEST(ParseXml, TextEndsAtItsFirstZeroByte)
{
    SpyDocument document;
    EXPECT_TRUE(parseXml(document, std::string("<a/>\n\0<b>", 9)));
    EXPECT_EQ(document.text, "<a/>\n");
    EXPECT_EQ(document.behindText, std::string(5, '\0'));
}

TEST(ParseXml, TextThatEndsInTheStartOfACharacterIsNotReadPastItsEnd)
{
    for (const char* lead : {"\xC3", "\xE2", "\xEF", "\xEF\xBB", "\xF0", "\xF4", "\xF5", "\xFF"}) {
        for (const char* before :
             {"<?xml version='1.0'?><a>", "<?xml version='1.0'?><a b='", "\xEF\xBB\xBF<a b='", "<a>"}) {
            TiXmlDocument document;
            EXPECT_FALSE(parseXml(document, std::string(before) + lead));
        }
    }
}

TEST(ParseXml, AllowsADepthOf200)
{
    EXPECT_EQ(verdictOn(nested(200)), PARSED);
    EXPECT_EQ(verdictOn(times(199, "<a>") + "<b/>" + times(199, "</a>")), PARSED);
    EXPECT_EQ(verdictOn(times(200, "<a>") + "text<!-- --><![CDATA[<b>]]>" + times(200, "</a>")), PARSED);
}

TEST(ParseXml, RefusesADepthOf201)
{
    EXPECT_EQ(verdictOn(nested(201)), REFUSED);
    EXPECT_EQ(verdictOn(times(200, "<a>") + "<b/>" + times(200, "</a>")), REFUSED);
    EXPECT_EQ(verdictOn(times(200, "<a>") + "<b"), REFUSED);
    EXPECT_EQ(verdictOn("<c></c>" + nested(201)), REFUSED);
    EXPECT_EQ(verdictOn("<c>" + times(300, "<d></d>") + nested(200) + "</c>"), REFUSED);
}

TEST(ParseXml, RefusesADepthThatWouldEndTheProcess)
{
    EXPECT_EQ(verdictOn(times(1000000, "<a>")), REFUSED);
}

TEST(ParseXml, SiblingsAreNoDepth)
{
    EXPECT_EQ(verdictOn("<Transaction>" + times(20000, "<a></a>") + times(20000, "<b/>") + times(300, nested(199)) +
                        "</Transaction>"),
              PARSED);
}

TEST(ParseXml, TwoHundredLevelsFitTheAudioManagersStack)
{
    std::string text = times(200, "<a b=\"c\">d") + "<!-- e --><![CDATA[f]]>" + times(200, "</a>") + "\n";
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    ASSERT_EQ(pthread_attr_setstacksize(&attr, 400000), 0);
    pthread_t thread;
    ASSERT_EQ(pthread_create(
                  &thread, &attr,
                  [](void* argument) -> void* {
                      TiXmlDocument document; // parsed, printed and deleted here
                      const bool parsed = parseXml(document, *static_cast<std::string*>(argument));
                      TiXmlPrinter printer;
                      document.Accept(&printer);
                      return parsed && printer.Size() > 0 ? argument : nullptr;
                  },
                  &text),
              0);
    void* result = nullptr;
    pthread_join(thread, &result);
    pthread_attr_destroy(&attr);
    EXPECT_EQ(result, &text);
}

TEST(ParseXml, Allows256AttributesInEachElement)
{
    const std::string full = "<a" + attributes(256);
    EXPECT_EQ(verdictOn(full + "/>"), PARSED);
    EXPECT_EQ(verdictOn(full + ">" + full + "/>" + full + "></a></a>"), PARSED);
}

TEST(ParseXml, Refuses257AttributesInOneElement)
{
    const std::string tooMany = "<a" + attributes(257);
    EXPECT_EQ(verdictOn(tooMany + "/>"), REFUSED);
    EXPECT_EQ(verdictOn(tooMany + "></a>"), REFUSED);
    EXPECT_EQ(verdictOn("<b><c/>" + tooMany + "/></b>"), REFUSED);
    EXPECT_EQ(verdictOn("<b" + attributes(100000)), REFUSED);
}

TEST(ParseXml, CountsAttributesInEveryShape)
{
    std::string all;
    for (int i = 0; i < 257; i++) {
        const std::string name = (i % 2 != 0 ? "_a.b:c-" : "\xC3\xA4") + std::to_string(i);
        const char* const shapes[] = {"='>'", "=\">'<\"", "=bare<b ", " = ' '", "=''", "\n=\n\"/>\"\n"};
        all += (i % 6 == 3 ? " " : "") + name + shapes[i % 6]; // values in quotes need no space behind them
    }
    EXPECT_EQ(verdictOn("<a " + all + "/>"), REFUSED);
    const size_t last = all.rfind("256");
    EXPECT_EQ(verdictOn("<a " + all.substr(0, all.rfind("\xC3\xA4", last)) + "/>"), PARSED);
}

TEST(ParseXml, WhatOnlyLooksLikeElementsIsNoDepth)
{
    const std::string tags = times(300, "<b>");
    for (const std::string& text : {
             "<a><!--" + tags + "--></a>",
             "<a><!-->" + tags + "--></a>", // a comment does not end in its own beginning
             "<!--" + tags + "--><a/>",
             "<a><![CDATA[" + tags + "]]></a>",
             "<a b='" + tags + "'/>",
             "<a b=\"" + tags + "\"></a>",
             "<a b=" + times(300, "<b") + " ></a>",
             "<a>" + times(300, "<b c=d/>") + "</a>", // a value without quotes ends at the '/'
             "<a>" + times(300, "<!b>") + "</a>",
             "<a>" + times(300, "<?b>") + "</a>",
             "<a>" + times(300, "<?xml version='1.0'?>") + "</a>",
             "<a>" + times(300, "< b>") + "</a>",
             "<a>" + times(300, "<1>") + "</a>",
             "<a>&#x" + tags + "x41;</a>", // the entity reaches to its ';'
             "<a>&#" + tags + "#65;</a>",
             "<a b='&#x'" + tags + "x41;'/>",
             "<a/>end of the document for the parser" + tags,
         }) {
        EXPECT_EQ(verdictOn(text), PARSED) << text.substr(0, 30);
    }
}

TEST(ParseXml, WhatLooksLikeCommentsDoesNotHideDepth)
{
    const std::string deep = nested(200);
    for (const std::string& text : {
             "<r><b c='<!--'/>" + deep + "</r>",
             "<r><b c=\"<![CDATA[\"/>" + deep + "</r>",
             "<r><b c=<!--></b>" + deep + "</r>",
             "<r><! <!-->" + deep + "</r>",
             "<r><?pi <!--?>" + deep + "</r>",
             "<r><?xml <!-- ?>" + deep + "</r>",
             "<r><!-- -- -->" + deep + "</r>",
             "<r><![CDATA[]]]]>" + deep + "</r>",
             "<r><![cdata[>" + deep + "</r>", // only in capitals
             "<r>&#x<!--x41;" + deep + "</r>",
             "<r>&#<!--#65;" + deep + "</r>",
             "<r b='&#x\"'<!-- x41;'>" + deep + "</r>",
             "<r>&lt;!--" + deep + "</r>",
             "<r b='\"'>" + deep + "</r>",
             "<r\n\t b = 'c'\v>" + deep + "</r >",
             "<_r>" + deep + "</_r>",
             "<\xC3\xA4>" + deep + "</\xC3\xA4>",
             "<\x7F>" + deep + "</\x7F>", // a letter for the parser
             "</ignored>" + times(201, "<a>"),
             "<?XML?>" + times(201, "<a>"),
         }) {
        EXPECT_EQ(verdictOn(text), REFUSED) << text.substr(0, 30);
    }
}

TEST(ParseXml, InUtf8AWholeCharacterIsTakenWithWhateverIsInIt)
{
    // E2 begins a character of three bytes: in UTF-8 the parser does not see the comment, or the end of the value.
    const std::string comment = "<r>\xE2<!--" + nested(200) + "</r>";
    const std::string value = "<r b='\xE2''>" + nested(200) + "'>' c='></r>";
    EXPECT_EQ(verdictOn("<?xml version='1.0'?>" + comment), REFUSED);
    EXPECT_EQ(verdictOn("<?xml version='1.0' encoding='utf-8'?>" + comment), REFUSED);
    EXPECT_EQ(verdictOn("<?xml encoding='UTF8'?>" + comment), REFUSED);
    EXPECT_EQ(verdictOn("<?xml encoding='UTF&#45;8'?>" + comment), REFUSED);
    EXPECT_EQ(verdictOn("\xEF\xBB\xBF" + comment), REFUSED);
    EXPECT_EQ(verdictOn("<q/><?xml version='1.0'?>" + comment), REFUSED);
    EXPECT_EQ(verdictOn("<?xml?><r b='\xF0'''>" + nested(200) + "</r>"), NOT_PARSED);

    EXPECT_EQ(verdictOn(comment + "-->"), NOT_PARSED) << "the comment is seen";
    EXPECT_EQ(verdictOn("<?xml encoding='latin1'?>" + comment), NOT_PARSED);
    EXPECT_EQ(verdictOn("<?xml encoding='latin1'?><?xml version='1.0'?>" + comment), NOT_PARSED);
    EXPECT_EQ(verdictOn("<r><?xml version='1.0'?>" + comment + "</r>"), NOT_PARSED) << "within an element";
    EXPECT_EQ(verdictOn(value), NOT_PARSED);
}

TEST(ParseXml, ByteOrderMarksAreWhiteSpaceInUtf8Alone)
{
    const std::string marks = "\xEF\xBB\xBF\xEF\xBF\xBE\xEF\xBF\xBF";
    const std::string text = "<r>" + marks + "<" + marks + "s" + marks + "/></r>";
    EXPECT_EQ(verdictOn("\xEF\xBB\xBF" + text), PARSED);
    EXPECT_EQ(verdictOn("\xEF\xBB\xBF<" + marks + "r>" + nested(200) + "</r>"), REFUSED);
    EXPECT_EQ(verdictOn("\xEF\xBB\xBF<r" + marks + ">" + nested(200) + "</r" + marks + ">"), REFUSED);
    EXPECT_EQ(verdictOn("<?xml?><r/>" + marks + nested(201)), REFUSED);
    // Read byte by byte they end the document, as any text does, or are letters of a name.
    EXPECT_EQ(verdictOn("<r/>" + marks + nested(201)), PARSED);
    EXPECT_EQ(verdictOn("<r><\xEF\xBB\xBFs></s></r>"), NOT_PARSED);
    EXPECT_EQ(verdictOn("<r><\xEF\xBB\xBFs></\xEF\xBB\xBFs></r>"), PARSED);
}

TEST(LinkLines, OneTextNodeForEachLine)
{
    TiXmlElement element("TransactionLog");
    EXPECT_EQ(linkLines(element, "first\n\n  third"), "  third");
    EXPECT_EQ(textsOf(element), (lines{"first", "", "  third"}));
}

TEST(LinkLines, ALogThatEndsInANewlineGivesALastEmptyNode)
{
    TiXmlElement element("TransactionLog");
    EXPECT_EQ(linkLines(element, "first\nsecond\n"), "");
    EXPECT_EQ(textsOf(element), (lines{"first", "second", ""}));
}

TEST(LinkLines, ALogWithoutANewlineIsOneNode)
{
    TiXmlElement element("TransactionLog");
    EXPECT_EQ(linkLines(element, "only"), "only");
    EXPECT_EQ(textsOf(element), lines{"only"});
}

TEST(LinkLines, AddsToWhatIsThere)
{
    TiXmlElement element("LogEntry");
    element.LinkEndChild(new TiXmlText("before"));
    EXPECT_EQ(linkLines(element, "\n"), "");
    EXPECT_EQ(textsOf(element), (lines{"before", "", ""}));
}
