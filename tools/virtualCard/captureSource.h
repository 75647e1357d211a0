/**
 * What a capture card hears: a WAV file looped by frame number, or a sine tone. The sample of a frame depends on its
 * number alone, so a reader can check bit by bit what it got and where frames are missing.
 */
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vcard
{

class CaptureSource
{
public:
    /**
     * Takes a PCM WAV file of 16 or 32 bits into memory.
     * @return 0, -errno, or -EINVAL for anything but such a file; the tone stays the source then
     */
    int loadWav(const std::string& path);
    /** A sine of @p hertz at @p decibels below full scale (0 or less) on every channel. */
    void setTone(double hertz, double decibels);

    /**
     * Writes frames @p firstFrame and following into @p out as signed little-endian integers.
     * @param sampleBytes 2 or 4; between 16 and 32 bits the samples are shifted, never dithered
     */
    void fill(char* out, uint64_t firstFrame, uint64_t numFrames, unsigned channels, unsigned sampleBytes,
              double rateHz) const;

    /** Rate in the file's header, 0 for the tone. The file is played frame by frame, whatever it says. */
    uint32_t fileRateHz() const { return fileRate; }

private:
    int32_t fileSample(uint64_t frame, unsigned channel) const;
    int32_t toneSample(uint64_t frame, double rateHz) const;

    std::vector<int32_t> fileSamples; ///< left-aligned to 32 bits, interleaved
    unsigned fileChannels = 0;
    uint32_t fileRate = 0;
    double toneHz = 440.0;
    double toneAmplitude = 0.1;
};

} // namespace vcard
