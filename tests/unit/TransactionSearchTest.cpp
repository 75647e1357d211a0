/**
 * Transactions found in bytes as they come, and compared with a search of everything from its beginning each time.
 */

#include "TransactionSearch.h"

#include "xmlText.h"

#include <gtest/gtest.h>
#include <random>
#include <vector>

namespace
{

/** What a step of the server takes out of the bytes received. */
struct Taken {
    int kind = 0;
    std::string text;
    bool operator==(const Taken&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Taken& taken)
{
    return out << taken.kind << " \"" << taken.text << "\"";
}

/** Bytes received, and the search under test. */
class Received
{
public:
    explicit Received(const std::string& text = "") : bytes(text) {}

    std::optional<Taken> take(const std::string& more = "")
    {
        bytes += more;
        const auto place = search.find(bytes);
        if (!place)
            return std::nullopt;
        const Taken taken{place->kind, bytes.substr(place->begin, place->length)};
        search.consume(bytes, place->consumed);
        return taken;
    }

    std::string bytes;

private:
    TransactionSearch search;
};

/** The same, told as plainly as can be. */
std::optional<Taken> takePlainly(std::string& bytes)
{
    const size_t start = findIStr(bytes, "<Transaction");
    const size_t end = findIStr(bytes, "</Transaction>");
    const size_t none = static_cast<size_t>(-1);
    Taken taken;
    size_t consumed = 0;
    if (start != none && end != none) {
        const long length = static_cast<long>(end) + 14 - static_cast<long>(start);
        taken.kind = length < 0 ? TransactionPlace::CLOSED_BEFORE_OPENED : TransactionPlace::WITH_CLOSING_TAG;
        taken.text = length < 0 ? "" : bytes.substr(start, static_cast<size_t>(length));
        consumed = end + 14;
    } else if (start != none) {
        const std::string rest = bytes.substr(start);
        const size_t selfClosing = rest.find("/>");
        const size_t bracket = rest.find('>');
        if (selfClosing == none || bracket == none || selfClosing >= bracket)
            return std::nullopt;
        taken.kind = TransactionPlace::SELF_CLOSED;
        taken.text = bytes.substr(start, start + 2 + selfClosing);
        consumed = start + 2 + selfClosing;
    } else {
        return std::nullopt;
    }
    bytes.erase(1, consumed);
    return taken;
}

Taken whole(const std::string& text)
{
    return {TransactionPlace::WITH_CLOSING_TAG, text};
}

Taken selfClosed(const std::string& text)
{
    return {TransactionPlace::SELF_CLOSED, text};
}

const Taken closedBeforeOpened{TransactionPlace::CLOSED_BEFORE_OPENED, ""};

} // namespace

TEST(TransactionSearch, FindsATransactionFromItsTagThroughItsClosingTag)
{
    Received received("<?xml version=\"1.0\"?>\n<Transaction type=\"request\">text</Transaction> more");
    EXPECT_EQ(received.take(), whole("<Transaction type=\"request\">text</Transaction>"));
}

TEST(TransactionSearch, TheTagsMatchInAnyCase)
{
    EXPECT_EQ(Received("<TRANSACTION></TRANSACTION>").take(), whole("<TRANSACTION></TRANSACTION>"));
    EXPECT_EQ(Received("<transaction></tRANSACTIOn>").take(), whole("<transaction></tRANSACTIOn>"));
    EXPECT_EQ(Received("<tRaNsAcTiOn/>").take(), selfClosed("<tRaNsAcTiOn/>"));
}

TEST(TransactionSearch, ANameThatOnlyBeginsSoIsFoundToo)
{
    EXPECT_EQ(Received("<Transactions><a/></Transaction>").take(), whole("<Transactions><a/></Transaction>"));
    EXPECT_EQ(Received("<TransactionLog/>").take(), selfClosed("<TransactionLog/>"));
}

TEST(TransactionSearch, WaitsForTheClosingTag)
{
    Received received;
    EXPECT_EQ(received.take("<Transaction a='b'><c/>"), std::nullopt);
    EXPECT_EQ(received.take("<d>/></d></Transaction"), std::nullopt);
    EXPECT_EQ(received.take(">"), whole("<Transaction a='b'><c/><d>/></d></Transaction>"));
}

TEST(TransactionSearch, WaitsForTheEndOfASelfClosedTag)
{
    Received received;
    EXPECT_EQ(received.take("<Transaction"), std::nullopt);
    EXPECT_EQ(received.take(" a='/' /"), std::nullopt);
    EXPECT_EQ(received.take(">"), selfClosed("<Transaction a='/' />"));
}

TEST(TransactionSearch, TagThatEndsInABracketAloneIsNotSelfClosed)
{
    Received received;
    EXPECT_EQ(received.take("<Transaction>"), std::nullopt);
    EXPECT_EQ(received.take("<a/>"), std::nullopt);
    EXPECT_EQ(received.take("/>"), std::nullopt);
    EXPECT_EQ(received.take("</Transaction>"), whole("<Transaction><a/>/></Transaction>"));
}

TEST(TransactionSearch, TheFirstBracketCountsWhereverItStands)
{
    EXPECT_EQ(Received("<Transaction a='/>' b='c'></x>").take(), selfClosed("<Transaction a='/>"));
}

TEST(TransactionSearch, ASelfClosedTransactionBeforeAWholeOneIsTakenWithIt)
{
    Received received("<Transaction a='b'/><Transaction></Transaction>");
    EXPECT_EQ(received.take(), whole("<Transaction a='b'/><Transaction></Transaction>"));
}

TEST(TransactionSearch, SelfClosedTextIsLongerByWhatStandsAheadOfIt)
{
    Received received("12345<Transaction/>abcdefgh");
    EXPECT_EQ(received.take(), selfClosed("<Transaction/>abcde"));
    EXPECT_EQ(received.bytes, "1bcdefgh"); // but consumed is only what it is
    EXPECT_EQ(Received("12345<Transaction/>ab").take(), selfClosed("<Transaction/>ab"));
}

TEST(TransactionSearch, TheFirstByteStaysAndTheLineEndBehindGoes)
{
    Received received("<Transaction></Transaction>\n");
    received.take();
    EXPECT_EQ(received.bytes, "<");
    EXPECT_EQ(received.take("<Transaction>2</Transaction>\n"), whole("<Transaction>2</Transaction>"));
    EXPECT_EQ(received.bytes, "<");
    EXPECT_EQ(received.take("<Transaction n='3'/>\n"), selfClosed("<Transaction n='3'/>\n"));
    EXPECT_EQ(received.bytes, "<");
}

TEST(TransactionSearch, WithNothingBetweenThemTheFirstBytesTakeTurns)
{
    Received received("<Transaction>1</Transaction><Transaction>2</Transaction>");
    EXPECT_EQ(received.take(), whole("<Transaction>1</Transaction>"));
    EXPECT_EQ(received.bytes, "<Transaction>2</Transaction>");
    EXPECT_EQ(received.take(), whole("<Transaction>2</Transaction>"));
    EXPECT_EQ(received.bytes, "<");
    EXPECT_EQ(received.take(), std::nullopt);
}

TEST(TransactionSearch, AFirstByteThatIsNoTagSpoilsATransactionWithNothingBetween)
{
    Received received("\n<Transaction>1</Transaction><Transaction>2</Transaction>");
    EXPECT_EQ(received.take(), whole("<Transaction>1</Transaction>"));
    EXPECT_EQ(received.bytes, "\nTransaction>2</Transaction>");
    EXPECT_EQ(received.take(), std::nullopt);
}

TEST(TransactionSearch, TheFirstByteCanCompleteATag)
{
    Received received("<Transaction></Transaction>");
    received.take();
    EXPECT_EQ(received.take("Transaction>x</Transaction>"), whole("<Transaction>x</Transaction>"));
}

TEST(TransactionSearch, ClosingTagAheadOfTheOpeningOneGoesWithoutAText)
{
    Received received("</Transaction>\n<Transaction>1</Transaction>");
    EXPECT_EQ(received.take(), closedBeforeOpened);
    EXPECT_EQ(received.bytes, "<<Transaction>1</Transaction>");
    EXPECT_EQ(received.take(), whole("<Transaction>1</Transaction>"));
}

TEST(TransactionSearch, ClosingTagRightAheadOfTheOpeningOneGivesAnEmptyText)
{
    Received received("</Transaction><Transaction>1</Transaction>");
    EXPECT_EQ(received.take(), whole(""));
    EXPECT_EQ(received.bytes, "<Transaction>1</Transaction>");
    EXPECT_EQ(received.take(), whole("<Transaction>1</Transaction>"));
}

TEST(TransactionSearch, NoiseStays)
{
    Received received;
    for (int i = 0; i < 100; i++)
        EXPECT_EQ(received.take("noise > /> </Transact "), std::nullopt);
    EXPECT_EQ(received.bytes.size(), 2200u);
    EXPECT_EQ(received.take(), std::nullopt);
    EXPECT_EQ(received.take("</Transaction>"), std::nullopt);
}

TEST(TransactionSearch, NothingReceivedHoldsNothing)
{
    EXPECT_EQ(Received().take(), std::nullopt);
}

TEST(TransactionSearch, WhatHasBeenSearchedIsNotLookedAtAgain)
{
    const std::string opened = "<Transaction>";
    const std::string closed = "</Transaction>";
    const std::string noise(1000, '.');

    TransactionSearch opening; // tags put where the search has been are not seen
    EXPECT_FALSE(opening.find(noise));
    EXPECT_FALSE(opening.find(opened + noise));
    EXPECT_EQ(opening.find(opened + noise + opened + closed)->begin, 13 + 1000u);

    TransactionSearch closing;
    EXPECT_FALSE(closing.find(opened + noise));
    EXPECT_FALSE(closing.find(opened + closed + noise));
    EXPECT_EQ(closing.find(opened + closed + noise + closed)->length, 13 + 14 + 1000 + 14u);

    TransactionSearch bracket;
    EXPECT_FALSE(bracket.find("<Transaction" + noise));
    EXPECT_FALSE(bracket.find("<Transaction/>" + noise.substr(2)));
    EXPECT_EQ(bracket.find("<Transaction/>" + noise.substr(2) + "/>")->length, 12 + 1000 + 2u);
}

TEST(TransactionSearch, WhatHasBeenSearchedIsNotLookedAtAgainAfterATransaction)
{
    const std::string noise(1000, '.');

    TransactionSearch opening; // found behind the noise already when the closing tag ahead of it goes
    std::string bytes = "</Transaction>" + noise + "<Transaction>";
    ASSERT_TRUE(opening.find(bytes));
    opening.consume(bytes, 14);
    EXPECT_EQ(bytes, "<" + noise.substr(1) + "<Transaction>");
    bytes.replace(100, 13, "<Transaction>");
    EXPECT_EQ(opening.find(bytes + "</Transaction>")->begin, 1000u);

    TransactionSearch closing; // the noise behind a self-closed one holds no closing tag
    bytes = "<Transaction/>" + noise;
    ASSERT_TRUE(closing.find(bytes));
    closing.consume(bytes, 14);
    EXPECT_EQ(bytes, "<" + noise.substr(1));
    bytes.replace(100, 14, "</Transaction>");
    bytes += "<Transaction></Transaction>";
    EXPECT_EQ(closing.find(bytes)->length, 13 + 14u);
}

TEST(TransactionSearch, FindsInWhateverPiecesWhatASearchOfTheWholeFinds)
{
    const std::vector<std::string> tokens = {"<Transaction",
                                             "</Transaction>",
                                             "<TRANSACTION>",
                                             "</transaction>",
                                             "<Transaction/>",
                                             "Transaction",
                                             "/Transaction>",
                                             "<Trans",
                                             "action",
                                             "</",
                                             "<",
                                             "/",
                                             ">",
                                             "/>",
                                             "\n",
                                             "a='b'",
                                             "noise noise",
                                             "</Transaction"};
    std::mt19937 random(20120619); // the same texts in each run
    const auto below = [&random](size_t limit) { return random() % limit; };
    int taken[3] = {};
    for (int round = 0; round < 8000; round++) {
        Received received;
        std::string plain;
        std::string history;
        for (size_t piece = 0; piece < 12; piece++) {
            std::string more = below(4) == 0 ? "" : tokens[below(tokens.size())];
            more = below(3) == 0 ? more.substr(below(more.size() + 1)) : more;
            for (size_t i = below(4); i > 0; i--)
                more += tokens[below(tokens.size())];
            history += more + "|";
            plain += more;
            const auto expected = takePlainly(plain);
            ASSERT_EQ(received.take(more), expected) << history;
            ASSERT_EQ(received.bytes, plain) << history;
            if (expected)
                taken[expected->kind]++;
        }
    }
    EXPECT_GT(taken[TransactionPlace::WITH_CLOSING_TAG], 1000);
    EXPECT_GT(taken[TransactionPlace::SELF_CLOSED], 1000);
    EXPECT_GT(taken[TransactionPlace::CLOSED_BEFORE_OPENED], 1000);
}
