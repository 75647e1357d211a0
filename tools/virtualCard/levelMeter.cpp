#include "levelMeter.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace vcard
{
namespace
{

double sampleAt(const char* bytes, unsigned sampleBytes)
{
    if (sampleBytes == sizeof(int16_t)) {
        int16_t value;
        std::memcpy(&value, bytes, sizeof value);
        return value / 32768.0;
    }
    int32_t value;
    std::memcpy(&value, bytes, sizeof value);
    return value / 2147483648.0;
}

} // namespace

void LevelMeter::configure(unsigned channels, unsigned sampleBytes, uint64_t periodFrames)
{
    numChannels = channels;
    bytesPerSample = sampleBytes;
    framesPerPeriod = std::max(periodFrames, uint64_t{1});
    silence();
}

void LevelMeter::measure(const char* samples, uint64_t numFrames)
{
    const unsigned measured = std::min(numChannels, mostChannels);
    for (uint64_t frame = 0; frame < numFrames; ++frame) {
        const char* first = samples + frame * numChannels * bytesPerSample;
        for (unsigned channel = 0; channel < measured; ++channel) {
            const double value = sampleAt(first + channel * bytesPerSample, bytesPerSample);
            peakSoFar[channel] = std::max(peakSoFar[channel], std::fabs(value));
            squaresSoFar[channel] += value * value;
        }
        if (++framesSoFar == framesPerPeriod)
            finishPeriod();
    }
}

void LevelMeter::finishPeriod()
{
    for (unsigned channel = 0; channel < mostChannels; ++channel) {
        peaks[channel] = peakSoFar[channel];
        rmsLevels[channel] = std::sqrt(squaresSoFar[channel] / static_cast<double>(framesPerPeriod));
        peakSoFar[channel] = squaresSoFar[channel] = 0.0;
    }
    framesSoFar = 0;
}

void LevelMeter::silence()
{
    framesSoFar = 0;
    for (unsigned channel = 0; channel < mostChannels; ++channel)
        peaks[channel] = rmsLevels[channel] = peakSoFar[channel] = squaresSoFar[channel] = 0.0;
}

} // namespace vcard
