#pragma once

/**
 * What the fuzz drivers share: the check that ends the process, the input taken apart, and a file in memory.
 *
 * A driver is LLVMFuzzerTestOneInput(): called again and again in one process, it leaves nothing behind from one input
 * to the next, so that any saved input alone does what it did in the search.
 */

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace fuzz
{

/** Ends the process where the code under test has broken a promise; the search keeps the input. */
[[noreturn]] inline void fail(const char* file, int line, const char* broken)
{
    fprintf(stderr, "%s %d: broken: %s\n", file, line, broken);
    abort();
}

#define MUST_HOLD(condition) ((condition) ? void() : fuzz::fail(__FILE__, __LINE__, #condition))

/** The bytes of one input, taken from the front; after the last come zeros. Integers low byte first. */
class Input
{
public:
    Input(const uint8_t* data, size_t size) : next(data), left(size) {}

    bool isEmpty() const { return left == 0; }
    uint8_t byte()
    {
        if (left == 0) {
            return 0;
        }
        left--;
        return *next++;
    }
    uint64_t integer(unsigned int numBytes)
    {
        uint64_t value = 0;
        for (unsigned int i = 0; i < numBytes; i++) {
            value |= static_cast<uint64_t>(byte()) << (8 * i);
        }
        return value;
    }
    /** Up to `most` bytes. */
    std::string text(size_t most)
    {
        const size_t taken = std::min(most, left);
        std::string bytes(reinterpret_cast<const char*>(next), taken);
        next += taken;
        left -= taken;
        return bytes;
    }
    std::string rest() { return text(left); }

private:
    const uint8_t* next; ///< not owned
    size_t left;
};

/** A file that exists in memory alone, with a path for code that opens files by name. */
class MemoryFile
{
public:
    explicit MemoryFile(const std::string& contents) : fd(memfd_create("fuzz", MFD_CLOEXEC))
    {
        MUST_HOLD(fd >= 0);
        MUST_HOLD(write(fd, contents.data(), contents.size()) == static_cast<ssize_t>(contents.size()));
    }
    ~MemoryFile() { close(fd); }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    std::string path() const { return "/proc/self/fd/" + std::to_string(fd); }

private:
    int fd;
};

} // namespace fuzz
