#pragma once

#include <cstdint>

/**
 * The bounded byte buffer in which the control wire format is read and written: a fixed capacity, one cursor for
 * reading and writing, integers low byte first whatever the host.
 *
 *   0 <= position <= length <= allocated_size
 *
 * Nothing throws and nothing grows: a write that does not fit answers false and changes nothing, a read that does not
 * fit answers zero, which can't be told from a true zero, and changes nothing. A write or a cursor beyond `length`
 * raises `length`. The bounds of the writes are part of the wire's habits and differ from one another: see each.
 *
 * Threads: no lock; an object belongs to one thread.
 */
class ByteArray
{
public:
    /** A buffer of `size` zero bytes, length 0. */
    explicit ByteArray(uint16_t size);
    /** A buffer filled with a copy of the `size` bytes at `data`; the cursor is at the first. */
    ByteArray(const uint8_t* data, uint16_t size);
    ~ByteArray();
    ByteArray(const ByteArray&) = delete;
    ByteArray& operator=(const ByteArray&) = delete;

    uint16_t getAllocatedSize() const { return allocated_size; }
    uint16_t getLength() const { return length; }
    uint16_t getPosition() const { return position; }
    /** The whole buffer, getAllocatedSize() bytes; owned by the object. */
    uint8_t* getBytes() const { return bytes; }
    /** Bytes from the cursor to the end of the data. */
    uint16_t getBytesAvailable() const { return static_cast<uint16_t>(length - position); }

    /** Sets the number of valid bytes, held within 0 and the capacity; a cursor beyond it comes down to it. */
    void setLength(int newLength);
    /** Moves the cursor; `p` must be below the capacity, or nothing moves. Skipped bytes become data. */
    void setPosition(uint16_t p);
    /** Zeroes the whole capacity; length and cursor 0. */
    void clear();

    bool readBoolean();   ///< one byte, true if not zero; false at the end
    uint8_t readByte();   ///< one byte; 0 at the end
    uint16_t readShort(); ///< two bytes; 0 if fewer are left
    uint32_t readInt();   ///< four bytes; 0 if fewer are left
    /** Copies `count` bytes to `dst` + `offset`; if fewer are left, copies nothing and does not report it. */
    void readBytes(void* dst, uint16_t offset, uint16_t count);

    bool writeBoolean(bool value);    ///< one byte, 1 or 0; may take the last byte
    bool writeByte(uint8_t value);    ///< one byte; may take the last byte
    bool writeShort(uint16_t value);  ///< two bytes; at least one byte must stay free behind them
    bool writeInt(uint32_t value);    ///< four bytes; at least one byte must stay free behind them
    bool writeUint64(uint64_t value); ///< eight bytes; the room is counted from the length, not from the cursor
    /** Copies in `count` bytes, at least one; may take the last byte. */
    bool writeBytes(const void* src, int count);

    /** Prints "[index] = 0xvalue" on stdout, a line for each valid byte. */
    void dump() const;
    /** Sends the valid bytes, from the first whatever the cursor, by ::send; true if all of them went. */
    bool send(int fd, int flags) const;

    /**
     * Writes the valid bytes as one frame at the cursor of `result`: 0xFF, a size field of four zero bytes, the bytes
     * with the reserved values escaped, 0xFE. What does not fit is skipped, byte by byte and without a report: a cut
     * frame shows by its missing 0xFE alone.
     */
    void pack(ByteArray* result) const;
    /**
     * Undoes the escapes of this array from its start, writing at the cursor of `result`. Delimiters are copied like
     * data; an escape that ends the input is dropped; what does not fit is lost. Leaves the cursor at the end.
     */
    void unpack(ByteArray* result);

private:
    /** The bytes of `value` into the buffer at the cursor, low byte first; the caller has seen to the room. */
    void store(uint64_t value, unsigned int numBytes);
    /** The next `numBytes` as an integer, low byte first; 0 if fewer are left. */
    uint64_t load(unsigned int numBytes);
    /** Moves the cursor over bytes just written. */
    void advance(unsigned int numBytes);

    uint16_t allocated_size; ///< capacity, bytes
    uint8_t* bytes;          ///< owned; deleted in the destructor
    uint16_t length = 0;     ///< number of valid bytes
    uint16_t position = 0;   ///< the cursor, shared by reads and writes
};
