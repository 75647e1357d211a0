/** The memory dump of the console and of the sockets' traces. Apart, so that it stands without the sockets. */

#include "audioLibrary/osAbstraction/osAbstraction.h"

#include <array>
#include <cstdint>
#include <cstdio>

namespace
{

/** One line of a memory dump while it fills. */
class HexdumpLine
{
public:
    static constexpr unsigned int numBytesPerLine = 16;

    explicit HexdumpLine(const unsigned char* firstByte) : first(firstByte) {}

    bool isFull() const { return numBytes == numBytesPerLine; }

    void add(unsigned char byte)
    {
        const bool graphic = byte >= 0x21 && byte <= 0x7e;
        snprintf(&hex[numBytes * 3], 4, " %02x", byte);
        ascii[numBytes] = graphic ? static_cast<char>(byte) : '.';
        numBytes++;
    }

    /** Prints the line; an address shows its low 32 bits. */
    void print() const
    {
        printf("%08x: %-48s | %-16s\n", static_cast<unsigned int>(reinterpret_cast<uintptr_t>(first)), hex.data(),
               ascii.data());
    }

private:
    const unsigned char* first; ///< the first byte of the line in the memory dumped, not owned
    unsigned int numBytes = 0;
    std::array<char, numBytesPerLine * 3 + 1> hex{};
    std::array<char, numBytesPerLine + 1> ascii{};
};

} // namespace

void osaHexdump(void* ptr, unsigned int count)
{
    const auto* bytes = static_cast<const unsigned char*>(ptr);
    HexdumpLine line(bytes);
    for (unsigned int i = 0; i < count; i++) {
        if (line.isFull()) {
            line.print();
            line = HexdumpLine(bytes + i);
        }
        line.add(bytes[i]);
    }
    line.print();
}
