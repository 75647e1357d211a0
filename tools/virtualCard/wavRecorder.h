/**
 * Writes what went to air into WAV files that are valid at every moment, also after kill -9.
 *
 *   frames --append()--> pwrite of the samples, then one pwrite of the header with the new sizes
 *
 * Runs on the thread that calls the card (FIFO 99 in the daemon): record to a tmpfs. A file that reaches the limit of
 * the 32-bit size fields is left finished and the next one, "name-2.wav", goes on without losing a frame.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace vcard
{

/** What the samples are: signed little-endian integers, interleaved. */
struct WavFormat {
    uint32_t rateHz = 48000;
    uint32_t channels = 2;
    uint32_t sampleBytes = 4;

    uint32_t frameBytes() const { return channels * sampleBytes; }
};

/** Bytes of the RIFF, fmt and data headers in front of the first sample. */
constexpr uint32_t wavHeaderBytes = 44;
/** The most data bytes that leave the RIFF size (header - 8 + data) inside 32 bits. */
constexpr uint64_t wavMostDataBytes = UINT32_MAX - (wavHeaderBytes - 8);

/** Fills @p header with a PCM WAV header for @p dataBytes of samples. */
void makeWavHeader(const WavFormat& format, uint32_t dataBytes, unsigned char (&header)[wavHeaderBytes]);

class WavRecorder
{
public:
    WavRecorder() = default;
    ~WavRecorder();
    WavRecorder(const WavRecorder&) = delete;
    WavRecorder& operator=(const WavRecorder&) = delete;

    /**
     * Creates "<directory>/<stem>-NNNN.wav" with the first free number; never overwrites a file.
     *
     * @param mostDataBytes  rolls over before a file holds more; cut to what the size fields can say
     * @return 0 or -errno; after a failure nothing is recorded
     */
    int open(const std::string& directory, const std::string& stem, const WavFormat& format, uint64_t mostDataBytes);
    /** Appends @p numFrames frames. @return 0 or -errno; a failed disk ends the recording for good */
    int append(const char* samples, uint64_t numFrames);
    /** Appends silence; a hole in the file, however long. @return as append() */
    int appendSilence(uint64_t numFrames);
    /** Closes the file; the sizes are already right. */
    void close();

    bool isOpen() const { return fd >= 0; }
    /** The file being written, or the last one. */
    const std::string& path() const { return currentPath; }

private:
    int createFile(const std::string& path);
    int rollOver();
    int writeSizes();
    int fail(int error);
    template <typename Store> int appendPieces(uint64_t numFrames, Store store);

    int fd = -1; ///< owned
    WavFormat wavFormat;
    uint64_t mostBytes = wavMostDataBytes; ///< in one file, whole frames
    uint64_t dataBytes = 0;                ///< in the current file
    unsigned partNumber = 1;
    std::string firstPathStem; ///< path of part 1 without ".wav"
    std::string currentPath;
};

} // namespace vcard
