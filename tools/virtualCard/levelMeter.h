/**
 * Peak and RMS of the first two channels over the last whole period that went to air, 1.0 being full scale.
 * Fed by the card with the frames it records; read through the control page.
 */
#pragma once

#include <cstdint>

namespace vcard
{

class LevelMeter
{
public:
    static constexpr unsigned mostChannels = 2;

    /** @param sampleBytes 2 or 4: signed little-endian integers, interleaved */
    void configure(unsigned channels, unsigned sampleBytes, uint64_t periodFrames);
    /** Measures @p numFrames frames; the result changes when a period is complete. */
    void measure(const char* samples, uint64_t numFrames);
    /** The air is silent: both levels are 0 and the period begins anew. */
    void silence();

    double peak(unsigned channel) const { return peaks[channel]; }
    double rms(unsigned channel) const { return rmsLevels[channel]; }

private:
    void finishPeriod();

    unsigned numChannels = 2;
    unsigned bytesPerSample = 4;
    uint64_t framesPerPeriod = 256;
    uint64_t framesSoFar = 0;
    double peakSoFar[mostChannels] = {};
    double squaresSoFar[mostChannels] = {};
    double peaks[mostChannels] = {};
    double rmsLevels[mostChannels] = {};
};

} // namespace vcard
