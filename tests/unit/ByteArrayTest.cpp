/** The wire buffer: bounds of each operation, byte order, framing. */

#include "ByteArray.h"

#include <array>
#include <climits>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace
{

using Bytes = std::vector<uint8_t>;

/** The valid bytes. */
Bytes contents(const ByteArray& array)
{
    return Bytes(array.getBytes(), array.getBytes() + array.getLength());
}

/** The whole capacity. */
Bytes capacity(const ByteArray& array)
{
    return Bytes(array.getBytes(), array.getBytes() + array.getAllocatedSize());
}

/** A buffer that holds just these bytes. */
struct Filled : ByteArray {
    explicit Filled(const Bytes& data) : ByteArray(data.data(), static_cast<uint16_t>(data.size())) {}
};

Bytes packed(const Bytes& data, uint16_t room = 100)
{
    Filled source(data);
    ByteArray result(room);
    source.pack(&result);
    return contents(result);
}

Bytes unpacked(const Bytes& data, uint16_t room = 100)
{
    Filled source(data);
    ByteArray result(room);
    source.unpack(&result);
    return contents(result);
}

} // namespace

// ---- construction, length, cursor

TEST(ByteArray, IsZeroedWhenMade)
{
    ByteArray array(3);
    EXPECT_EQ(array.getAllocatedSize(), 3);
    EXPECT_EQ(array.getLength(), 0);
    EXPECT_EQ(array.getPosition(), 0);
    EXPECT_EQ(array.getBytesAvailable(), 0);
    EXPECT_THAT(capacity(array), ElementsAre(0, 0, 0));
}

TEST(ByteArray, CopiesTheDataItIsMadeOf)
{
    std::array<uint8_t, 3> data = {1, 2, 3};
    ByteArray array(data.data(), 3);
    data[0] = 9;
    EXPECT_EQ(array.getAllocatedSize(), 3);
    EXPECT_EQ(array.getLength(), 3);
    EXPECT_EQ(array.getPosition(), 0);
    EXPECT_EQ(array.getBytesAvailable(), 3);
    EXPECT_THAT(contents(array), ElementsAre(1, 2, 3));
}

TEST(ByteArray, OfNoCapacityTakesNothing)
{
    ByteArray array(nullptr, 0);
    EXPECT_FALSE(array.writeByte(1));
    EXPECT_FALSE(array.writeBytes("x", 1));
    EXPECT_EQ(array.readByte(), 0);
    array.setPosition(0);
    array.clear();
    EXPECT_EQ(array.getLength(), 0);
}

TEST(ByteArray, LengthIsHeldWithinTheCapacity)
{
    ByteArray array(4);
    array.setLength(3);
    EXPECT_EQ(array.getLength(), 3);
    array.setLength(4);
    EXPECT_EQ(array.getLength(), 4);
    array.setLength(5);
    EXPECT_EQ(array.getLength(), 4);
    array.setLength(70000);
    EXPECT_EQ(array.getLength(), 4);
    array.setLength(-1);
    EXPECT_EQ(array.getLength(), 0);
}

TEST(ByteArray, LengthBelowTheCursorTakesTheCursorAlong)
{
    ByteArray array(4);
    array.setPosition(3);
    array.setLength(2);
    EXPECT_EQ(array.getPosition(), 2);
    EXPECT_EQ(array.getBytesAvailable(), 0);
    array.setLength(4);
    EXPECT_EQ(array.getPosition(), 2);
    EXPECT_EQ(array.getBytesAvailable(), 2);
}

TEST(ByteArray, CursorAtTheCapacityIsIgnored)
{
    ByteArray array(4);
    array.setPosition(2);
    array.setPosition(4);
    EXPECT_EQ(array.getPosition(), 2);
    EXPECT_EQ(array.getLength(), 2);
    array.setPosition(3);
    EXPECT_EQ(array.getPosition(), 3);
}

TEST(ByteArray, CursorForwardMakesTheSkippedBytesData)
{
    ByteArray array(4);
    array.setPosition(3);
    EXPECT_EQ(array.getLength(), 3);
    array.setPosition(1);
    EXPECT_EQ(array.getPosition(), 1);
    EXPECT_EQ(array.getLength(), 3);
    EXPECT_EQ(array.getBytesAvailable(), 2);
}

TEST(ByteArray, ClearZeroesTheWholeCapacity)
{
    Filled array({1, 2, 3, 4});
    array.readShort();
    array.setLength(2);
    array.clear();
    EXPECT_EQ(array.getLength(), 0);
    EXPECT_EQ(array.getPosition(), 0);
    EXPECT_THAT(capacity(array), ElementsAre(0, 0, 0, 0));
}

// ---- reading

TEST(ByteArrayRead, IntegersAreLowByteFirst)
{
    Filled array({0x01, 0x02, 0xF1, 0x04, 0x05, 0x06, 0x87});
    EXPECT_EQ(array.readByte(), 0x01);
    EXPECT_EQ(array.readShort(), 0xF102);
    EXPECT_EQ(array.readInt(), 0x87060504U);
    EXPECT_EQ(array.getPosition(), 7);
}

TEST(ByteArrayRead, BooleanIsAnyByteButZero)
{
    Filled array({0, 1, 0x80});
    EXPECT_FALSE(array.readBoolean());
    EXPECT_TRUE(array.readBoolean());
    EXPECT_TRUE(array.readBoolean());
    EXPECT_EQ(array.getPosition(), 3);
    EXPECT_FALSE(array.readBoolean());
    EXPECT_EQ(array.getPosition(), 3);
}

TEST(ByteArrayRead, PastTheEndIsZeroAndStays)
{
    Filled array({7});
    EXPECT_EQ(array.readByte(), 7);
    EXPECT_EQ(array.readByte(), 0);
    EXPECT_EQ(array.readShort(), 0);
    EXPECT_EQ(array.readInt(), 0U);
    EXPECT_EQ(array.getPosition(), 1);
}

TEST(ByteArrayRead, EndsAtTheLengthNotAtTheCapacity)
{
    Filled array({7, 8, 9});
    array.setLength(1);
    EXPECT_EQ(array.readShort(), 0);
    EXPECT_EQ(array.readByte(), 7);
    EXPECT_EQ(array.readByte(), 0);
}

TEST(ByteArrayRead, IntWithThreeBytesLeftLeavesThem)
{
    Filled array({5, 6, 7});
    EXPECT_EQ(array.readInt(), 0U);
    EXPECT_EQ(array.getPosition(), 0);
    EXPECT_EQ(array.readByte(), 5);
}

TEST(ByteArrayRead, ShortWithOneByteLeftLeavesIt)
{
    Filled array({5});
    EXPECT_EQ(array.readShort(), 0);
    EXPECT_EQ(array.readByte(), 5);
}

TEST(ByteArrayRead, ExactlyEnoughIsRead)
{
    Filled four({1, 0, 0, 0});
    EXPECT_EQ(four.readInt(), 1U);
    Filled two({2, 0});
    EXPECT_EQ(two.readShort(), 2);
}

TEST(ByteArrayRead, BytesGoToTheOffset)
{
    Filled array({1, 2, 3});
    std::array<uint8_t, 5> out = {9, 9, 9, 9, 9};
    array.readByte();
    array.readBytes(out.data(), 2, 2);
    EXPECT_THAT(out, ElementsAre(9, 9, 2, 3, 9));
    EXPECT_EQ(array.getPosition(), 3);
}

TEST(ByteArrayRead, MoreBytesThanAreLeftCopiesNothing)
{
    Filled array({1, 2, 3});
    std::array<uint8_t, 4> out = {9, 9, 9, 9};
    array.readBytes(out.data(), 0, 4);
    EXPECT_THAT(out, ElementsAre(9, 9, 9, 9));
    EXPECT_EQ(array.getPosition(), 0);
}

// ---- writing

TEST(ByteArrayWrite, IntegersAreLowByteFirst)
{
    ByteArray array(100);
    EXPECT_TRUE(array.writeByte(0xAB));
    EXPECT_TRUE(array.writeShort(0x0102));
    EXPECT_TRUE(array.writeInt(0x03040506));
    EXPECT_TRUE(array.writeUint64(0x0708090A0B0C0D0E));
    EXPECT_TRUE(array.writeBoolean(true));
    EXPECT_TRUE(array.writeBoolean(false));
    EXPECT_THAT(contents(array), ElementsAre(0xAB, 0x02, 0x01, 0x06, 0x05, 0x04, 0x03, 0x0E, 0x0D, 0x0C, 0x0B, 0x0A,
                                             0x09, 0x08, 0x07, 1, 0));
    EXPECT_EQ(array.getPosition(), 17);
}

TEST(ByteArrayWrite, FourBytesRefuseAnIntButTakeFourBytes)
{
    ByteArray array(4);
    EXPECT_FALSE(array.writeInt(0x01020304));
    EXPECT_EQ(array.getLength(), 0);
    EXPECT_THAT(capacity(array), ElementsAre(0, 0, 0, 0));
    for (uint8_t i = 1; i <= 4; i++) {
        EXPECT_TRUE(array.writeByte(i));
    }
    EXPECT_FALSE(array.writeByte(5));
    EXPECT_FALSE(array.writeBoolean(true));
    EXPECT_THAT(contents(array), ElementsAre(1, 2, 3, 4));
}

TEST(ByteArrayWrite, FiveBytesTakeOneInt)
{
    ByteArray array(5);
    EXPECT_TRUE(array.writeInt(0x01020304));
    EXPECT_EQ(array.getLength(), 4);
    EXPECT_FALSE(array.writeInt(0x05060708));
    EXPECT_THAT(contents(array), ElementsAre(4, 3, 2, 1));
}

TEST(ByteArrayWrite, TwoBytesRefuseAShortButTakeTwoBytes)
{
    ByteArray array(2);
    EXPECT_FALSE(array.writeShort(0x0102));
    EXPECT_EQ(array.getPosition(), 0);
    EXPECT_TRUE(array.writeBytes("ab", 2));
    EXPECT_THAT(contents(array), ElementsAre('a', 'b'));
}

TEST(ByteArrayWrite, ThreeBytesTakeAShort)
{
    ByteArray array(3);
    EXPECT_TRUE(array.writeShort(0x0102));
    EXPECT_THAT(contents(array), ElementsAre(2, 1));
    EXPECT_FALSE(array.writeShort(0x0304));
}

TEST(ByteArrayWrite, Uint64CountsItsRoomFromTheLength)
{
    ByteArray array(9);
    array.setLength(1); // [X........] with the cursor at 0: eight bytes would fit there
    EXPECT_FALSE(array.writeUint64(1));
    EXPECT_EQ(array.getPosition(), 0);
    EXPECT_THAT(capacity(array), ElementsAre(0, 0, 0, 0, 0, 0, 0, 0, 0));
    array.setLength(0);
    EXPECT_TRUE(array.writeUint64(1));
    EXPECT_EQ(array.getLength(), 8);
}

TEST(ByteArrayWrite, Uint64GoesToTheCursor)
{
    ByteArray array(12);
    array.writeByte(0xAA);
    array.writeByte(0xBB);
    array.setPosition(1);
    EXPECT_TRUE(array.writeUint64(0x0807060504030201));
    EXPECT_THAT(contents(array), ElementsAre(0xAA, 1, 2, 3, 4, 5, 6, 7, 8));
    EXPECT_EQ(array.getPosition(), 9);
}

TEST(ByteArrayWrite, Uint64RefusesToFillTheBuffer)
{
    ByteArray array(8);
    EXPECT_FALSE(array.writeUint64(1));
    EXPECT_EQ(array.getLength(), 0);
}

TEST(ByteArrayWrite, OfNoBytesOrFewerIsRefused)
{
    ByteArray array(4);
    EXPECT_FALSE(array.writeBytes("abcd", 0));
    EXPECT_FALSE(array.writeBytes("abcd", -1));
    EXPECT_FALSE(array.writeBytes("abcd", INT_MIN));
    EXPECT_EQ(array.getLength(), 0);
}

TEST(ByteArrayWrite, OfTooManyBytesIsRefusedWhole)
{
    ByteArray array(4);
    array.writeByte('x');
    EXPECT_FALSE(array.writeBytes("abcd", 4));
    EXPECT_FALSE(array.writeBytes("abcd", INT_MAX));
    EXPECT_THAT(contents(array), ElementsAre('x'));
    EXPECT_TRUE(array.writeBytes("abc", 3));
    EXPECT_THAT(contents(array), ElementsAre('x', 'a', 'b', 'c'));
}

TEST(ByteArrayWrite, WithinTheDataLeavesTheLength)
{
    Filled array({1, 2, 3, 4, 5, 6});
    EXPECT_TRUE(array.writeShort(0x0908));
    EXPECT_EQ(array.getLength(), 6);
    EXPECT_EQ(array.getPosition(), 2);
    EXPECT_THAT(contents(array), ElementsAre(8, 9, 3, 4, 5, 6));
}

TEST(ByteArrayWrite, ReachesTheLastByteOfTheLargestCapacity)
{
    ByteArray array(UINT16_MAX);
    array.setPosition(65534);
    EXPECT_FALSE(array.writeShort(1));
    EXPECT_FALSE(array.writeInt(1));
    EXPECT_FALSE(array.writeUint64(1));
    EXPECT_TRUE(array.writeByte(1));
    EXPECT_EQ(array.getLength(), 65535);
    EXPECT_FALSE(array.writeByte(1));
}

// ---- dump and send

TEST(ByteArrayDump, PrintsIndexAndValueOfTheValidBytes)
{
    ByteArray array(4);
    array.writeByte(0x0A);
    array.writeByte(0xFF);
    CaptureStdout();
    array.dump();
    EXPECT_EQ(GetCapturedStdout(), "[0] = 0x0a\n[1] = 0xff\n");
}

TEST(ByteArrayDump, PrintsNothingWhenEmpty)
{
    CaptureStdout();
    ByteArray(4).dump();
    EXPECT_EQ(GetCapturedStdout(), "");
}

TEST(ByteArraySend, SendsFromTheStartWhateverTheCursor)
{
    std::array<int, 2> ends;
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, ends.data()), 0);
    ByteArray array(8);
    array.writeShort(0x0201);
    EXPECT_TRUE(array.send(ends[0], 0));
    std::array<uint8_t, 8> received{};
    EXPECT_EQ(recv(ends[1], received.data(), received.size(), 0), 2);
    EXPECT_THAT(received, ElementsAre(1, 2, 0, 0, 0, 0, 0, 0));
    close(ends[0]);
    close(ends[1]);
}

TEST(ByteArraySend, PassesTheFlags)
{
    std::array<int, 2> ends;
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), 0);
    close(ends[1]);
    EXPECT_FALSE(Filled({1}).send(ends[0], MSG_NOSIGNAL)); // without the flag the signal ends the process
    close(ends[0]);
}

TEST(ByteArraySend, FailsWithoutASocket)
{
    EXPECT_FALSE(Filled({1}).send(-1, 0));
    EXPECT_FALSE(Filled({}).send(-1, 0));
}

TEST(ByteArraySend, ShortSendIsAFailure)
{
    std::array<int, 2> ends;
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), 0);
    ByteArray array(UINT16_MAX);
    array.setLength(UINT16_MAX);
    bool sent = true;
    for (int i = 0; i < 1000 && sent; i++) {
        sent = array.send(ends[0], MSG_DONTWAIT); // until the socket's buffer is full
    }
    EXPECT_FALSE(sent);
    close(ends[0]);
    close(ends[1]);
}

// ---- framing

TEST(ByteArrayPack, EmptyIsDelimitersAndAZeroSize)
{
    EXPECT_THAT(packed({}), ElementsAre(0xFF, 0, 0, 0, 0, 0xFE));
}

TEST(ByteArrayPack, ReservedValuesAreEscaped)
{
    EXPECT_THAT(packed({0xFF}), ElementsAre(0xFF, 0, 0, 0, 0, 0xFD, 0x02, 0xFE));
    EXPECT_THAT(packed({0xFE}), ElementsAre(0xFF, 0, 0, 0, 0, 0xFD, 0x01, 0xFE));
    EXPECT_THAT(packed({0xFD}), ElementsAre(0xFF, 0, 0, 0, 0, 0xFD, 0x00, 0xFE));
    EXPECT_THAT(packed({0xFC, 0x00}), ElementsAre(0xFF, 0, 0, 0, 0, 0xFC, 0x00, 0xFE));
}

TEST(ByteArrayPack, SizeFieldIsZeroWhateverTheLength)
{
    EXPECT_THAT(packed({1, 2, 3, 4, 5}), ElementsAre(0xFF, 0, 0, 0, 0, 1, 2, 3, 4, 5, 0xFE));
}

TEST(ByteArrayPack, BeginsAtTheFirstByteAndAtTheResultsCursor)
{
    Filled source({1, 2});
    source.readByte();
    ByteArray result(20);
    result.writeByte(0x77);
    source.pack(&result);
    EXPECT_THAT(contents(result), ElementsAre(0x77, 0xFF, 0, 0, 0, 0, 1, 2, 0xFE));
    EXPECT_EQ(source.getPosition(), 1);
}

TEST(ByteArrayPack, WhatDoesNotFitIsSkipped)
{
    EXPECT_THAT(packed({1, 2, 3}, 7), ElementsAre(0xFF, 0, 0, 0, 0, 1, 2));
    EXPECT_THAT(packed({1}, 6), ElementsAre(0xFF, 0, 0, 0, 0, 1)); // the end is missing
    EXPECT_THAT(packed({}, 0), ElementsAre());
}

TEST(ByteArrayPack, HalfAnEscapeCanBeLeft)
{
    EXPECT_THAT(packed({0xFF}, 6), ElementsAre(0xFF, 0, 0, 0, 0, 0xFD));
}

TEST(ByteArrayPack, SizeFieldFitsWholeOrNotAtAll)
{
    EXPECT_THAT(packed({9}, 4), ElementsAre(0xFF, 9, 0xFE));
}

TEST(ByteArrayUnpack, EscapesAreRestored)
{
    EXPECT_THAT(unpacked({0xFD, 0x02}), ElementsAre(0xFF));
    EXPECT_THAT(unpacked({0xFD, 0x01}), ElementsAre(0xFE));
    EXPECT_THAT(unpacked({0xFD, 0x00}), ElementsAre(0xFD));
    EXPECT_THAT(unpacked({0xFD, 0x05, 0x05}), ElementsAre(0x02, 0x05)); // 0x05 + 0xFD = 0x102
}

TEST(ByteArrayUnpack, DelimitersAreCopied)
{
    EXPECT_THAT(unpacked({0xFF, 0, 0xFE}), ElementsAre(0xFF, 0, 0xFE));
}

TEST(ByteArrayUnpack, EscapeAtTheEndIsDropped)
{
    EXPECT_THAT(unpacked({1, 0xFD}), ElementsAre(1));
}

TEST(ByteArrayUnpack, EscapeAfterAnEscapeKeepsTheFlag)
{
    EXPECT_THAT(unpacked({0xFD, 0xFD, 0x02, 0x02}), ElementsAre(0xFF, 0x02));
}

TEST(ByteArrayUnpack, StartsFromTheFirstByteAndEndsAtTheLength)
{
    Filled source({1, 2, 3});
    source.readShort();
    ByteArray result(10);
    source.unpack(&result);
    EXPECT_THAT(contents(result), ElementsAre(1, 2, 3));
    EXPECT_EQ(source.getPosition(), 3);
}

TEST(ByteArrayUnpack, WhatDoesNotFitIsLostAndTheFlagClears)
{
    Filled source({7, 0xFD, 0x01, 0x05});
    ByteArray result(1);
    source.unpack(&result);
    EXPECT_THAT(contents(result), ElementsAre(7));
    EXPECT_EQ(source.getPosition(), 4);
}

TEST(ByteArrayUnpack, OfNoCapacityDoesNothing)
{
    EXPECT_THAT(unpacked({}), ElementsAre());
}

TEST(ByteArrayUnpack, EveryByteValueSurvivesTheFrame)
{
    Bytes all;
    for (int i = 0; i < 256; i++) {
        all.push_back(static_cast<uint8_t>(i));
    }
    const Bytes frame = packed(all, 1000);
    ASSERT_EQ(frame.size(), 1U + 4 + 256 + 3 + 1);
    EXPECT_THAT(unpacked(Bytes(frame.begin() + 5, frame.end() - 1), 1000), ElementsAreArray(all));
}
