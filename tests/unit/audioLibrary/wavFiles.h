#pragma once

/** WAV files for tests, put together byte by byte. */

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace wavFiles
{

using bytes = std::vector<unsigned char>;

inline void put16(bytes& to, uint32_t value)
{
    to.push_back(static_cast<unsigned char>(value & 0xff));
    to.push_back(static_cast<unsigned char>((value >> 8) & 0xff));
}

inline void put32(bytes& to, uint32_t value)
{
    put16(to, value & 0xffff);
    put16(to, value >> 16);
}

inline void putText(bytes& to, const std::string& text)
{
    to.insert(to.end(), text.begin(), text.end());
}

/** The fields of a header that a test wants otherwise. */
struct header {
    std::string chunkId = "RIFF";
    uint32_t chunkSize = 1000;
    std::string format = "WAVE";
    std::string subchunk1Id = "fmt ";
    uint32_t subchunk1Size = 16;
    uint16_t audioFormat = 1;
    uint16_t numChannels = 2;
    uint32_t sampleRate = 48000;
    uint32_t byteRate = 192000;
    uint16_t blockAlign = 4;
    uint16_t bitsPerSample = 16;
};

/** The 36 bytes of a header. */
inline bytes encode(const header& fields)
{
    bytes to;
    putText(to, fields.chunkId);
    put32(to, fields.chunkSize);
    putText(to, fields.format);
    putText(to, fields.subchunk1Id);
    put32(to, fields.subchunk1Size);
    put16(to, fields.audioFormat);
    put16(to, fields.numChannels);
    put32(to, fields.sampleRate);
    put32(to, fields.byteRate);
    put16(to, fields.blockAlign);
    put16(to, fields.bitsPerSample);
    return to;
}

/** Appends a chunk whose header says `size`, whatever its contents are. */
inline void putChunk(bytes& to, const std::string& id, uint32_t size, const bytes& contents)
{
    putText(to, id);
    put32(to, size);
    to.insert(to.end(), contents.begin(), contents.end());
}

inline void putChunk(bytes& to, const std::string& id, const bytes& contents)
{
    putChunk(to, id, static_cast<uint32_t>(contents.size()), contents);
}

/** `size` bytes that count up from 1 and never are 0. */
inline bytes counting(size_t size)
{
    bytes contents(size);
    for (size_t i = 0; i < size; i++) {
        contents[i] = static_cast<unsigned char>(i % 251 + 1);
    }
    return contents;
}

inline void write(const std::filesystem::path& path, const bytes& contents)
{
    std::ofstream file(path, std::ios::binary);
    file.write(reinterpret_cast<const char*>(contents.data()), static_cast<std::streamsize>(contents.size()));
}

} // namespace wavFiles
