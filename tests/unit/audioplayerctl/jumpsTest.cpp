// Jump entries as the player takes them, and those that it does not survive.

#include "jumps.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

JumpEntry file(int playlist, int sequence)
{
    return {playlist, sequence, playlist * 100 + sequence, false, ""};
}

JumpEntry jump(int playlist, int sequence, const std::string& text)
{
    return {playlist, sequence, playlist * 100 + sequence, true, text};
}

std::vector<std::pair<int, JumpTrap::kind_e>> trapped(const std::vector<JumpEntry>& entries)
{
    std::vector<std::pair<int, JumpTrap::kind_e>> found;
    for (const JumpTrap& trap : findJumpTraps(entries))
        found.emplace_back(trap.entry.placeId, trap.kind);
    return found;
}

std::optional<JumpTarget> target(const std::string& text)
{
    return readJump(text).target;
}

} // namespace

TEST(JumpText, NamesAPlaylistAndASequenceByOneDigitEach)
{
    EXPECT_EQ(target("ITEM_TYPE_JUMP:3:7"), (JumpTarget{3, 7}));
    EXPECT_EQ(target("ITEM_TYPE_JUMP 3/7"), (JumpTarget{3, 7}));  // no separator is looked at
    EXPECT_EQ(target("ITEM_TYPE_JUMP:12:4"), (JumpTarget{1, 0})); // the colon is no digit
    EXPECT_EQ(target("U:3:7"), (JumpTarget{3, 7}));
}

TEST(JumpText, TheLastLetterOfTheNameCountsWhereverItStands)
{
    EXPECT_EQ(target("ITEM_TYPE_JUMP:3:7 P:4:8"), (JumpTarget{4, 8}));
}

TEST(JumpText, OneThatEndsAtItsSequenceReadsAsZeroAndAnEarlierEndIsCutShort)
{
    EXPECT_EQ(target("ITEM_TYPE_JUMP:3:"), (JumpTarget{3, 0})); // just behind the end is no error yet
    for (const char* text : {"ITEM_TYPE_JUMP", "ITEM_TYPE_JUMP:", "ITEM_TYPE_JUMP:3", "P"}) {
        EXPECT_EQ(target(text), std::nullopt) << text;
        EXPECT_FALSE(readJump(text).isSkipped) << text;
    }
}

TEST(JumpText, OneWithoutALetterOfTheNameIsPassedOver)
{
    EXPECT_TRUE(readJump(":3:7").isSkipped);
    EXPECT_TRUE(readJump("").isSkipped);
}

TEST(JumpTraps, AJumpToAFileIsNone)
{
    EXPECT_THAT(trapped({file(1, 1), jump(1, 2, "P:1:1")}), IsEmpty());
    EXPECT_THAT(trapped({file(1, 4), jump(1, 5, "P:1:0"), jump(1, 6, "P:1:2")}), IsEmpty()); // the next one behind
}

TEST(JumpTraps, AJumpBehindTheLastEntryOrToNoPlaylistLeadsNowhere)
{
    EXPECT_THAT(trapped({file(1, 1), jump(1, 2, "P:1:3")}), ElementsAre(std::pair(102, JumpTrap::NOWHERE)));
    EXPECT_THAT(trapped({file(1, 1), jump(1, 2, "P:2:1")}), ElementsAre(std::pair(102, JumpTrap::NOWHERE)));
    EXPECT_THAT(trapped({jump(1, 1, "P:3:1"), file(2, 9), file(4, 9)}), ElementsAre(std::pair(101, JumpTrap::NOWHERE)));
}

TEST(JumpTraps, AnEntryAtSequenceZeroIsNeverComeTo)
{
    EXPECT_THAT(trapped({file(1, 0), jump(2, 1, "P:1:0")}), ElementsAre(std::pair(201, JumpTrap::NOWHERE)));
}

TEST(JumpTraps, JumpsThatOnlyNameEachOtherAreACircle)
{
    EXPECT_THAT(trapped({jump(1, 1, "P:1:1")}), ElementsAre(std::pair(101, JumpTrap::CIRCLE)));
    EXPECT_THAT(trapped({jump(1, 1, "P:2:1"), jump(2, 1, "P:1:1")}),
                ElementsAre(std::pair(101, JumpTrap::CIRCLE), std::pair(201, JumpTrap::CIRCLE)));
}

TEST(JumpTraps, OneThatLeadsIntoACircleIsAsBad)
{
    EXPECT_THAT(trapped({file(1, 1), jump(1, 2, "P:2:1"), jump(2, 1, "P:2:1"), file(2, 2)}),
                ElementsAre(std::pair(102, JumpTrap::CIRCLE), std::pair(201, JumpTrap::CIRCLE)));
}

TEST(JumpTraps, ACircleWithAFileInItPlays)
{
    EXPECT_THAT(trapped({jump(1, 1, "P:2:1"), file(2, 1), jump(2, 2, "P:1:1")}), IsEmpty());
}

TEST(JumpTraps, OneThatIsPassedOverEndsTheJumping)
{
    EXPECT_THAT(trapped({jump(1, 1, "P:1:2"), jump(1, 2, ":1:1")}), IsEmpty());
}

TEST(JumpTraps, ACutTextIsOneAndSoIsWhatLeadsToIt)
{
    EXPECT_THAT(trapped({file(1, 1), jump(1, 2, "ITEM_TYPE_JUMP"), jump(2, 1, "P:1:2")}),
                ElementsAre(std::pair(102, JumpTrap::CUT_SHORT), std::pair(201, JumpTrap::CUT_SHORT)));
}

TEST(JumpTraps, TheTextTellsPlaceAndFate)
{
    EXPECT_EQ(findJumpTraps({jump(3, 4, "P:1:2")}).at(0).text(),
              "playlist 3, sequence 4: the jump \"P:1:2\" leads to no entry: the player would hang in it");
    EXPECT_EQ(findJumpTraps({jump(3, 4, "P:3:4")}).at(0).text(),
              "playlist 3, sequence 4: the jump \"P:3:4\" leads to nothing but jumps: the player would hang in it");
    EXPECT_EQ(
        findJumpTraps({jump(3, 4, "P")}).at(0).text(),
        "playlist 3, sequence 4: the jump \"P\" is cut short, or leads to one that is: the player would end in it");
}

TEST(JumpReach, GoesByEveryJumpOfEveryPlaylistThatIsReached)
{
    const std::vector<JumpEntry> entries = {file(1, 1), jump(1, 2, "P:3:1"), file(2, 1),          jump(2, 2, "P:4:1"),
                                            file(3, 1), jump(3, 2, "P:1:1"), jump(3, 3, "P:5:1"), jump(3, 4, "P")};
    EXPECT_THAT(playlistsWithinReach(entries, 1), ElementsAre(1, 3, 5));
    EXPECT_THAT(playlistsWithinReach(entries, 9), ElementsAre(9));
}
