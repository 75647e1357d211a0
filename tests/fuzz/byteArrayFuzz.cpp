/**
 * Any sequence of operations on a ByteArray, side by side with the plainest thing that could be one: after each
 * operation both hold the same bytes, length and cursor, and both have answered the same.
 *
 *   input: capacity (1 or 2 bytes), then operations: one byte that chooses it, and its arguments
 */

#include "fuzz.h"

#include "ByteArray.h"

#include <sys/socket.h>

namespace
{

/** What the socket is given to send, and what it answers. */
struct Socket {
    std::string sent;
    ssize_t answer = 0;
};
Socket wire;

} // namespace

extern "C" ssize_t __wrap_send(int, const void* bytes, size_t numBytes, int)
{
    wire.sent.assign(static_cast<const char*>(bytes), numBytes);
    return wire.answer;
}

namespace
{

using Bytes = std::vector<uint8_t>;

/** The buffer as its contract tells it, byte by byte. */
struct Model {
    explicit Model(size_t capacity) : bytes(capacity) {}

    Bytes bytes;
    size_t length = 0;
    size_t position = 0;

    size_t capacity() const { return bytes.size(); }
    size_t left() const { return length - position; }

    uint64_t read(unsigned int numBytes)
    {
        uint64_t value = 0;
        for (unsigned int i = 0; i < numBytes && left() >= numBytes - i; i++) {
            value += static_cast<uint64_t>(bytes[position++]) << (8 * i);
        }
        return value;
    }
    /** Writes if the bytes up to `needed` fit, and answers whether they did. */
    bool write(uint64_t value, unsigned int numBytes, bool fits)
    {
        for (unsigned int i = 0; fits && i < numBytes; i++) {
            bytes[position++] = static_cast<uint8_t>(value >> (8 * i));
        }
        length = std::max(length, position);
        return fits;
    }
    bool writeByte(uint8_t value) { return write(value, 1, position < capacity()); }
    void setPosition(size_t wanted)
    {
        if (wanted < capacity()) {
            position = wanted;
        }
        length = std::max(length, position);
    }
    void setLength(int wanted)
    {
        length = wanted < 0 ? 0 : std::min(static_cast<size_t>(wanted), capacity());
        position = std::min(position, length);
    }
};

void mustAgree(const ByteArray& array, const Model& model)
{
    MUST_HOLD(array.getPosition() <= array.getLength() && array.getLength() <= array.getAllocatedSize());
    MUST_HOLD(array.getAllocatedSize() == model.capacity());
    MUST_HOLD(array.getLength() == model.length);
    MUST_HOLD(array.getPosition() == model.position);
    MUST_HOLD(array.getBytesAvailable() == model.left());
    MUST_HOLD(std::equal(model.bytes.begin(), model.bytes.end(), array.getBytes()));
}

void readBytes(ByteArray& array, Model& model, uint16_t offset, uint16_t numBytes)
{
    Bytes got(size_t{offset} + numBytes, 0xA5);
    Bytes expected = got;
    if (numBytes <= model.left()) {
        std::copy_n(model.bytes.begin() + static_cast<ptrdiff_t>(model.position), numBytes, expected.begin() + offset);
        model.position += numBytes;
    }
    array.readBytes(got.data(), offset, numBytes);
    MUST_HOLD(got == expected);
}

void writeBytes(ByteArray& array, Model& model, fuzz::Input& input)
{
    const auto numBytes = static_cast<int>(static_cast<int16_t>(input.integer(2)));
    std::string source = input.text(static_cast<size_t>(std::max(numBytes, 0)));
    source.resize(static_cast<size_t>(std::max(numBytes, 0)), '#');
    const bool fits = numBytes > 0 && model.position + static_cast<size_t>(numBytes) <= model.capacity();
    MUST_HOLD(array.writeBytes(source.data(), numBytes) == fits);
    for (size_t i = 0; fits && i < source.size(); i++) {
        MUST_HOLD(model.writeByte(static_cast<uint8_t>(source[i])));
    }
}

void stuff(Model& frame, uint8_t value)
{
    if (value >= 0xFD) {
        (void)frame.writeByte(0xFD);
        value = static_cast<uint8_t>(value - 0xFD);
    }
    (void)frame.writeByte(value);
}

void pack(const ByteArray& array, const Model& model, uint16_t frameBytes)
{
    ByteArray frame(frameBytes);
    Model expected(frameBytes);
    array.pack(&frame);
    (void)expected.writeByte(0xFF);
    if (frameBytes >= 5) { // the size field goes as a whole
        (void)expected.write(0, 4, true);
    }
    for (size_t i = 0; i < model.length; i++) {
        stuff(expected, model.bytes[i]);
    }
    (void)expected.writeByte(0xFE);
    mustAgree(frame, expected);
}

/** A frame that had room enough gives its contents back. */
void packAndUnpack(const ByteArray& array, const Model& model)
{
    if (model.length > 30000) {
        return;
    }
    ByteArray frame(static_cast<uint16_t>(2 * model.length + 6));
    array.pack(&frame);
    ByteArray back(static_cast<uint16_t>(frame.getLength() + 1));
    frame.unpack(&back);
    MUST_HOLD(back.getLength() == model.length + 6);
    MUST_HOLD(back.getBytes()[0] == 0xFF && back.getBytes()[back.getLength() - 1] == 0xFE);
    MUST_HOLD(std::equal(model.bytes.begin(), model.bytes.begin() + static_cast<ptrdiff_t>(model.length),
                         back.getBytes() + 5));
}

void unpack(ByteArray& array, Model& model, uint16_t resultBytes)
{
    ByteArray result(resultBytes);
    Model expected(resultBytes);
    array.unpack(&result);
    model.setPosition(0);
    uint8_t added = 0;
    while (model.left() > 0) {
        const auto value = static_cast<uint8_t>(model.read(1));
        if (value == 0xFD) {
            added = 0xFD;
        } else {
            (void)expected.writeByte(static_cast<uint8_t>(value + added));
            added = 0;
        }
    }
    mustAgree(result, expected);
}

void send(const ByteArray& array, const Model& model, uint8_t numShort)
{
    wire.answer = static_cast<ssize_t>(model.length) - numShort;
    MUST_HOLD(array.send(0, 0) == (numShort == 0));
    const std::string expected(model.bytes.begin(), model.bytes.begin() + static_cast<ptrdiff_t>(model.length));
    MUST_HOLD(wire.sent == expected);
}

void operate(ByteArray& array, Model& model, fuzz::Input& input)
{
    const size_t p = model.position;
    const size_t room = model.capacity();
    switch (input.byte() % 20) {
    case 0:
        MUST_HOLD(array.readBoolean() == (model.read(1) != 0));
        break;
    case 1:
        MUST_HOLD(array.readByte() == model.read(1));
        break;
    case 2:
        MUST_HOLD(array.readShort() == model.read(2));
        break;
    case 3:
        MUST_HOLD(array.readInt() == model.read(4));
        break;
    case 4: {
        const auto offset = static_cast<uint16_t>(input.byte());
        readBytes(array, model, offset, static_cast<uint16_t>(input.integer(2)));
        break;
    }
    case 5: {
        const bool value = (input.byte() & 1) != 0;
        MUST_HOLD(array.writeBoolean(value) == model.writeByte(value ? 1 : 0));
        break;
    }
    case 6:
    case 7: {
        const uint8_t value = input.byte();
        MUST_HOLD(array.writeByte(value) == model.writeByte(value));
        break;
    }
    case 8: {
        const auto value = static_cast<uint16_t>(input.integer(2));
        MUST_HOLD(array.writeShort(value) == model.write(value, 2, p + 2 < room));
        break;
    }
    case 9: {
        const auto value = static_cast<uint32_t>(input.integer(4));
        MUST_HOLD(array.writeInt(value) == model.write(value, 4, p + 4 < room));
        break;
    }
    case 10: {
        const uint64_t value = input.integer(8);
        MUST_HOLD(array.writeUint64(value) == model.write(value, 8, model.length + 8 < room));
        break;
    }
    case 11:
        writeBytes(array, model, input);
        break;
    case 12: {
        const auto wanted = static_cast<int>(static_cast<uint32_t>(input.integer(4)));
        array.setLength(wanted);
        model.setLength(wanted);
        break;
    }
    case 13:
    case 14: {
        const auto wanted = static_cast<uint16_t>(input.integer(1 + input.byte() % 2));
        array.setPosition(wanted);
        model.setPosition(wanted);
        break;
    }
    case 15:
        array.clear();
        model = Model(room);
        break;
    case 16:
        pack(array, model, static_cast<uint16_t>(input.integer(1 + input.byte() % 2)));
        break;
    case 17:
        unpack(array, model, static_cast<uint16_t>(input.integer(1 + input.byte() % 2)));
        break;
    case 18:
        packAndUnpack(array, model);
        break;
    case 19:
        send(array, model, input.byte());
        break;
    }
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::Input input(data, size);
    const bool large = (input.byte() & 0x80) != 0;
    const auto capacity = static_cast<uint16_t>(input.integer(large ? 2 : 1));
    ByteArray array(capacity);
    Model model(capacity);
    for (int i = 0; i < 1000 && !input.isEmpty(); i++) {
        operate(array, model, input);
        mustAgree(array, model);
    }
    if (model.length < 16) {
        array.dump();
    }
    const ByteArray copy(array.getBytes(), array.getLength());
    MUST_HOLD(copy.getLength() == model.length && copy.getPosition() == 0);
    return 0;
}
