// The bytes a player sends, taken apart into documents: whole, in pieces, cut and hostile.

#include "documentStream.h"

#include <gtest/gtest.h>
#include <vector>

namespace
{

const std::string HEAD = "<?xml version=\"1.0\" ?>\n";
const std::string ANSWER = HEAD + "<Transaction type=\"response\" status=\"success\" />";
const std::string INFO = HEAD + "<Transaction type=\"info\">\n  <Playlist name=\"a\" />\n</Transaction>";

std::vector<DocumentStream::Document> documentsOf(DocumentStream& stream)
{
    std::vector<DocumentStream::Document> found;
    for (DocumentStream::Document document; stream.take(document);)
        found.push_back(document);
    return found;
}

/** Texts of the documents in `bytes`, cut ones with "cut: " in front. */
std::vector<std::string> texts(const std::string& bytes, size_t portion = 1000)
{
    DocumentStream stream(10000);
    for (size_t at = 0; at < bytes.size(); at += portion)
        EXPECT_TRUE(stream.append(bytes.substr(at, portion)));
    std::vector<std::string> found;
    for (const DocumentStream::Document& document : documentsOf(stream))
        found.push_back((document.isCut ? "cut: " : "") + document.text);
    return found;
}

using Texts = std::vector<std::string>;

} // namespace

TEST(DocumentStream, LineEndsBetweenDocumentsAreDropped)
{
    EXPECT_EQ(texts(ANSWER + "\n" + INFO + "\n" + ANSWER), (Texts{ANSWER, INFO, ANSWER}));
}

TEST(DocumentStream, PortionsOfAnySizeGiveTheSame)
{
    const std::string bytes = ANSWER + "\n" + INFO + "\n" + INFO.substr(0, 40) + ANSWER + "\n";
    for (size_t portion = 1; portion < 40; ++portion)
        EXPECT_EQ(texts(bytes, portion), (Texts{ANSWER, INFO, "cut: " + INFO.substr(0, 40), ANSWER})) << portion;
}

TEST(DocumentStream, RootBeginsBehindTheDeclaration)
{
    DocumentStream stream(1000);
    stream.append(INFO + "<a/>" + INFO);
    const auto found = documentsOf(stream);
    ASSERT_EQ(found.size(), 3u);
    EXPECT_EQ(found[0].rootOffset, HEAD.size());
    EXPECT_EQ(found[1].rootOffset, 0u);
    EXPECT_EQ(found[2].rootOffset, HEAD.size());
}

TEST(DocumentStream, NestedElementsEndWithTheRoot)
{
    const std::string nested = "<a><b><c/></b>text<b></b ></a>";
    EXPECT_EQ(texts(nested + "<d></d>"), (Texts{nested, "<d></d>"}));
}

TEST(DocumentStream, MarkupInsideValuesIsNone)
{
    const std::string quoted = "<a x=\"/>\" y='\">'><b z='/>'/></a>";
    EXPECT_EQ(texts(quoted), Texts{quoted});
}

TEST(DocumentStream, ASlashInAnUnquotedPlaceEndsNothing)
{
    const std::string slash = "<a x=1/2><b/></a>";
    EXPECT_EQ(texts(slash), Texts{slash});
}

TEST(DocumentStream, CommentsAndDataMayHoldTags)
{
    const std::string comments = "<!-- </a> > --><a><!--><a>--><![CDATA[<a>]>]]></a>";
    EXPECT_EQ(texts(comments), Texts{comments});
}

TEST(DocumentStream, ADoctypeEndsAtItsFirstBracket)
{
    const std::string doctype = "<!DOCTYPE Transaction><a></a>";
    EXPECT_EQ(texts(doctype), Texts{doctype});
}

TEST(DocumentStream, NoiseInFrontIsDropped)
{
    EXPECT_EQ(texts("noise > \" \n" + ANSWER), Texts{ANSWER});
}

// The player drops what the connection doesn't take: the next document then begins anywhere in this one.
TEST(DocumentStream, ADocumentCutAnywhereIsToldAndTheNextIsWhole)
{
    const std::string whole = HEAD + "<Transaction a='b'><E c=\"d\">text</E><F/></Transaction>";
    for (size_t length = 1; length < whole.size(); ++length) {
        const std::string piece = whole.substr(0, length);
        EXPECT_EQ(texts(piece + INFO), (Texts{"cut: " + piece, INFO})) << piece;
    }
}

TEST(DocumentStream, AnEndWithoutABeginningIsAPiece)
{
    EXPECT_EQ(texts("</Transaction>" + ANSWER), (Texts{"cut: </Transaction>", ANSWER}));
}

TEST(DocumentStream, BytesOfAnUnfinishedDocumentArePending)
{
    DocumentStream stream(1000);
    stream.append(ANSWER + "\n\n<Tra");
    EXPECT_EQ(stream.pendingBytes(), 4u);
    stream.append("nsaction/>");
    EXPECT_EQ(stream.pendingBytes(), 0u);
    EXPECT_EQ(documentsOf(stream).size(), 2u);
}

TEST(DocumentStream, ADocumentOfTheBoundPassesAndOneByteMoreDoesNot)
{
    DocumentStream exact(10);
    EXPECT_TRUE(exact.append("<a>34567/>")); // not ended: ten bytes
    DocumentStream stream(10);
    EXPECT_FALSE(stream.append("<a>45678901"));
    EXPECT_FALSE(stream.append("<b/>")); // for good
}

TEST(DocumentStream, TheBoundIsForEachDocument)
{
    DocumentStream stream(10);
    for (int round = 0; round < 100; ++round)
        ASSERT_TRUE(stream.append("<a></a>\n\n\n\n\n\n\n\n\n\n\n\n"));
    EXPECT_EQ(documentsOf(stream).size(), 100u);
}
