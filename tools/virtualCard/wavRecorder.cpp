#include "wavRecorder.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace vcard
{
namespace
{

void putLittleEndian(unsigned char* out, uint32_t value, unsigned numBytes)
{
    for (unsigned i = 0; i < numBytes; ++i)
        out[i] = static_cast<unsigned char>(value >> (8 * i));
}

int writeAll(int fd, const char* bytes, uint64_t numBytes, uint64_t offset)
{
    while (numBytes > 0) {
        const ssize_t written = pwrite(fd, bytes, static_cast<size_t>(numBytes), static_cast<off_t>(offset));
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return written < 0 ? -errno : -ENOSPC;
        bytes += written;
        numBytes -= static_cast<uint64_t>(written);
        offset += static_cast<uint64_t>(written);
    }
    return 0;
}

} // namespace

void makeWavHeader(const WavFormat& format, uint32_t dataBytes, unsigned char (&header)[wavHeaderBytes])
{
    constexpr uint32_t formatChunkBytes = 16;
    constexpr uint32_t pcmTag = 1;
    std::memcpy(header, "RIFF", 4);
    putLittleEndian(header + 4, wavHeaderBytes - 8 + dataBytes, 4);
    std::memcpy(header + 8, "WAVEfmt ", 8);
    putLittleEndian(header + 16, formatChunkBytes, 4);
    putLittleEndian(header + 20, pcmTag, 2);
    putLittleEndian(header + 22, format.channels, 2);
    putLittleEndian(header + 24, format.rateHz, 4);
    putLittleEndian(header + 28, format.rateHz * format.frameBytes(), 4);
    putLittleEndian(header + 32, format.frameBytes(), 2);
    putLittleEndian(header + 34, format.sampleBytes * 8, 2);
    std::memcpy(header + 36, "data", 4);
    putLittleEndian(header + 40, dataBytes, 4);
}

WavRecorder::~WavRecorder()
{
    close();
}

int WavRecorder::open(const std::string& directory, const std::string& stem, const WavFormat& format,
                      uint64_t mostDataBytes)
{
    close();
    wavFormat = format;
    const uint64_t frameBytes = format.frameBytes();
    mostBytes = std::max(std::min(mostDataBytes, wavMostDataBytes) / frameBytes, uint64_t{1}) * frameBytes;
    constexpr unsigned mostRecordings = 9999;
    for (unsigned number = 1; number <= mostRecordings; ++number) {
        char digits[16];
        std::snprintf(digits, sizeof digits, "-%04u", number);
        firstPathStem = directory + "/" + stem + digits;
        const int result = createFile(firstPathStem + ".wav");
        if (result != -EEXIST)
            return result;
    }
    return -EEXIST;
}

int WavRecorder::createFile(const std::string& path)
{
    const int newFd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (newFd < 0)
        return -errno;
    close();
    fd = newFd;
    dataBytes = 0;
    currentPath = path;
    return writeSizes();
}

int WavRecorder::rollOver()
{
    ++partNumber;
    return createFile(firstPathStem + "-" + std::to_string(partNumber) + ".wav");
}

template <typename Store> int WavRecorder::appendPieces(uint64_t numFrames, Store store)
{
    if (fd < 0)
        return 0;
    const uint64_t frameBytes = wavFormat.frameBytes();
    uint64_t doneFrames = 0;
    while (doneFrames < numFrames) {
        if (dataBytes >= mostBytes) {
            const int result = rollOver();
            if (result != 0)
                return fail(result);
        }
        const uint64_t pieceFrames = std::min(numFrames - doneFrames, (mostBytes - dataBytes) / frameBytes);
        const int result = store(doneFrames * frameBytes, pieceFrames * frameBytes);
        if (result != 0)
            return fail(result);
        dataBytes += pieceFrames * frameBytes;
        doneFrames += pieceFrames;
        const int sizesResult = writeSizes();
        if (sizesResult != 0)
            return fail(sizesResult);
    }
    return 0;
}

int WavRecorder::append(const char* samples, uint64_t numFrames)
{
    return appendPieces(numFrames, [&](uint64_t fromByte, uint64_t numBytes) {
        return writeAll(fd, samples + fromByte, numBytes, wavHeaderBytes + dataBytes);
    });
}

int WavRecorder::appendSilence(uint64_t numFrames)
{
    return appendPieces(numFrames, [&](uint64_t, uint64_t numBytes) {
        const uint64_t fileBytes = wavHeaderBytes + dataBytes + numBytes;
        return ftruncate(fd, static_cast<off_t>(fileBytes)) == 0 ? 0 : -errno;
    });
}

// One write of the whole header: the two sizes can't come apart when the process is killed.
int WavRecorder::writeSizes()
{
    unsigned char header[wavHeaderBytes];
    makeWavHeader(wavFormat, static_cast<uint32_t>(dataBytes), header);
    return writeAll(fd, reinterpret_cast<const char*>(header), sizeof header, 0);
}

int WavRecorder::fail(int error)
{
    close();
    return error;
}

void WavRecorder::close()
{
    if (fd >= 0)
        ::close(fd);
    fd = -1;
}

} // namespace vcard
