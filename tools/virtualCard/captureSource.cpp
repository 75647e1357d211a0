#include "captureSource.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <fstream>
#include <iterator>

namespace vcard
{
namespace
{

uint32_t littleEndian(const std::vector<unsigned char>& bytes, size_t offset, unsigned numBytes)
{
    uint32_t value = 0;
    for (unsigned i = 0; i < numBytes; ++i)
        value |= static_cast<uint32_t>(bytes[offset + i]) << (8 * i);
    return value;
}

/** Offset and length of the body of chunk @p name; false if the file has no such chunk. */
bool findChunk(const std::vector<unsigned char>& file, const char* name, size_t& body, size_t& length)
{
    size_t offset = 12;
    while (offset + 8 <= file.size()) {
        length = littleEndian(file, offset + 4, 4);
        body = offset + 8;
        if (std::memcmp(&file[offset], name, 4) == 0) {
            length = std::min(length, file.size() - body);
            return true;
        }
        if (length > file.size() - body)
            return false;
        offset = body + length + (length & 1); // chunks are padded to even length
    }
    return false;
}

} // namespace

int CaptureSource::loadWav(const std::string& path)
{
    std::ifstream stream(path, std::ios::binary);
    if (!stream)
        return -ENOENT;
    const std::vector<unsigned char> file((std::istreambuf_iterator<char>(stream)), std::istreambuf_iterator<char>());
    size_t format = 0, formatBytes = 0, data = 0, dataBytes = 0;
    if (file.size() < 12 || std::memcmp(&file[0], "RIFF", 4) != 0 || std::memcmp(&file[8], "WAVE", 4) != 0 ||
        !findChunk(file, "fmt ", format, formatBytes) || formatBytes < 16 || !findChunk(file, "data", data, dataBytes))
        return -EINVAL;
    const unsigned channels = littleEndian(file, format + 2, 2);
    const unsigned bits = littleEndian(file, format + 14, 2);
    if (littleEndian(file, format, 2) != 1 || channels == 0 || (bits != 16 && bits != 32))
        return -EINVAL;
    const unsigned sampleBytes = bits / 8;
    const size_t numFrames = dataBytes / (sampleBytes * channels);
    if (numFrames == 0)
        return -EINVAL;
    fileSamples.resize(numFrames * channels);
    for (size_t i = 0; i < fileSamples.size(); ++i) {
        const uint32_t aligned = littleEndian(file, data + i * sampleBytes, sampleBytes) << (32 - bits);
        fileSamples[i] = static_cast<int32_t>(aligned);
    }
    fileChannels = channels;
    fileRate = littleEndian(file, format + 4, 4);
    return 0;
}

void CaptureSource::setTone(double hertz, double decibels)
{
    toneHz = hertz;
    toneAmplitude = std::pow(10.0, std::fmin(decibels, 0.0) / 20.0);
}

int32_t CaptureSource::fileSample(uint64_t frame, unsigned channel) const
{
    const uint64_t numFrames = fileSamples.size() / fileChannels;
    return fileSamples[static_cast<size_t>((frame % numFrames) * fileChannels + channel % fileChannels)];
}

int32_t CaptureSource::toneSample(uint64_t frame, double rateHz) const
{
    // The phase is reduced before the sine, so it stays exact after days.
    const double turns = std::fmod(static_cast<double>(frame) * toneHz, rateHz) / rateHz;
    return static_cast<int32_t>(std::lround(toneAmplitude * std::sin(turns * 2.0 * M_PI) * 2147483647.0));
}

void CaptureSource::fill(char* out, uint64_t firstFrame, uint64_t numFrames, unsigned channels, unsigned sampleBytes,
                         double rateHz) const
{
    for (uint64_t i = 0; i < numFrames; ++i) {
        for (unsigned channel = 0; channel < channels; ++channel) {
            const uint64_t frame = firstFrame + i;
            const int32_t sample = fileSamples.empty() ? toneSample(frame, rateHz) : fileSample(frame, channel);
            const int16_t narrow = static_cast<int16_t>(sample >> 16);
            if (sampleBytes == sizeof narrow)
                std::memcpy(out, &narrow, sizeof narrow);
            else
                std::memcpy(out, &sample, sizeof sample);
            out += sampleBytes;
        }
    }
}

} // namespace vcard
