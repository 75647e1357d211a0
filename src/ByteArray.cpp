/** The bounded byte buffer of the control wire format. */

#include "ByteArray.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <sys/socket.h>

namespace
{

// The frame: 0xFF ... 0xFE, and within it each reserved value as the escape and its distance from the escape.
constexpr uint8_t startOfFrame = 0xFF;
constexpr uint8_t endOfFrame = 0xFE;
constexpr uint8_t escape = 0xFD;

/** Writes one byte of a frame's inside; the two bytes of an escaped one are written, or refused, one by one. */
void writeStuffed(ByteArray& result, uint8_t value)
{
    if (value < escape) {
        result.writeByte(value);
        return;
    }
    result.writeByte(escape);
    result.writeByte(static_cast<uint8_t>(value - escape));
}

} // namespace

ByteArray::ByteArray(uint16_t size) : allocated_size(size), bytes(new uint8_t[size]()) {}

ByteArray::ByteArray(const uint8_t* data, uint16_t size) : ByteArray(size)
{
    std::copy_n(data, size, bytes);
    length = size;
}

ByteArray::~ByteArray()
{
    delete[] bytes;
    bytes = nullptr;
}

void ByteArray::setLength(int newLength)
{
    length = static_cast<uint16_t>(std::clamp(newLength, 0, static_cast<int>(allocated_size)));
    position = std::min(position, length);
}

void ByteArray::setPosition(uint16_t p)
{
    if (p < allocated_size) {
        position = p;
    }
    length = std::max(length, position);
}

void ByteArray::clear()
{
    std::fill_n(bytes, allocated_size, uint8_t{0});
    length = 0;
    position = 0;
}

uint64_t ByteArray::load(unsigned int numBytes)
{
    if (getBytesAvailable() < numBytes) {
        return 0;
    }
    uint64_t value = 0;
    for (unsigned int i = 0; i < numBytes; i++) {
        value |= static_cast<uint64_t>(bytes[position + i]) << (8 * i);
    }
    position = static_cast<uint16_t>(position + numBytes);
    return value;
}

bool ByteArray::readBoolean()
{
    return load(1) != 0;
}

uint8_t ByteArray::readByte()
{
    return static_cast<uint8_t>(load(1));
}

uint16_t ByteArray::readShort()
{
    return static_cast<uint16_t>(load(2));
}

uint32_t ByteArray::readInt()
{
    return static_cast<uint32_t>(load(4));
}

void ByteArray::readBytes(void* dst, uint16_t offset, uint16_t count)
{
    if (count > getBytesAvailable()) {
        return;
    }
    std::copy_n(bytes + position, count, static_cast<uint8_t*>(dst) + offset);
    position = static_cast<uint16_t>(position + count);
}

void ByteArray::advance(unsigned int numBytes)
{
    position = static_cast<uint16_t>(position + numBytes);
    length = std::max(length, position);
}

void ByteArray::store(uint64_t value, unsigned int numBytes)
{
    for (unsigned int i = 0; i < numBytes; i++) {
        bytes[position + i] = static_cast<uint8_t>(value >> (8 * i));
    }
    advance(numBytes);
}

bool ByteArray::writeBoolean(bool value)
{
    return writeByte(value ? 1 : 0);
}

bool ByteArray::writeByte(uint8_t value)
{
    if (position >= allocated_size) {
        return false;
    }
    store(value, 1);
    return true;
}

bool ByteArray::writeShort(uint16_t value)
{
    if (position + 2 >= allocated_size) {
        return false;
    }
    store(value, 2);
    return true;
}

bool ByteArray::writeInt(uint32_t value)
{
    if (position + 4 >= allocated_size) {
        return false;
    }
    store(value, 4);
    return true;
}

bool ByteArray::writeUint64(uint64_t value)
{
    if (length + 8 >= allocated_size) { // sic: length, though the bytes go to the cursor
        return false;
    }
    store(value, 8);
    return true;
}

bool ByteArray::writeBytes(const void* src, int count)
{
    if (count <= 0 || count > allocated_size - position) {
        return false;
    }
    std::copy_n(static_cast<const uint8_t*>(src), count, bytes + position);
    advance(static_cast<unsigned int>(count));
    return true;
}

void ByteArray::dump() const
{
    for (int i = 0; i < length; i++) {
        printf("[%d] = 0x%02x\n", i, bytes[i]);
    }
}

bool ByteArray::send(int fd, int flags) const
{
    return ::send(fd, bytes, length, flags) == length;
}

void ByteArray::pack(ByteArray* result) const
{
    result->writeByte(startOfFrame);

    // Four bytes refuse an integer, so the size field of every frame is four zero bytes. Receivers know it so and find
    // the end of a frame by its 0xFE.
    ByteArray size(4);
    ByteArray packedSize(8);
    (void)size.writeInt(length);
    for (int i = 0; i < size.getAllocatedSize(); i++) {
        writeStuffed(packedSize, size.getBytes()[i]);
    }
    result->writeBytes(packedSize.getBytes(), packedSize.getLength());

    for (int i = 0; i < length; i++) {
        writeStuffed(*result, bytes[i]);
    }
    result->writeByte(endOfFrame);
}

void ByteArray::unpack(ByteArray* result)
{
    setPosition(0);
    bool stuffed = false;
    while (position != length) {
        const uint8_t value = readByte();
        if (value == escape) {
            stuffed = true;
            continue;
        }
        result->writeByte(stuffed ? static_cast<uint8_t>(value + escape) : value);
        stuffed = false;
    }
}
