/**
 * The tone: configured on the thread that owns the player, read on the thread of the reader.
 */

#include "audioLibrary/toneGenerator.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <numbers>
#include <utility>

namespace audioLibrarySpace
{

namespace
{

/** Table value at an amplitude of 1.0: short of full scale by design. */
constexpr float TABLE_SCALE = 10000.0F;

/** A table entry: cut toward zero, and held to what 16 bits can say. */
int16_t toTableEntry(double value)
{
    const int32_t whole = saturatingToInt(value);
    return static_cast<int16_t>(
        std::clamp<int32_t>(whole, std::numeric_limits<int16_t>::min(), std::numeric_limits<int16_t>::max()));
}

} // namespace

// --------------------------------------------------------------------------------------------- CToneGeneratorUSP

CToneGeneratorUSP::CToneGeneratorUSP(CToneGenerator* parent, float sampleRate) : CUpstreamPort(parent), tone(parent)
{
    AUDIO_TRACE_CALL();
    resetParams.nominalSampleRateStatus = VARIABLE;
    resetParams.nominalSampleRate = sampleRate;
    resetParams.numChannelsStatus = VARIABLE;
    resetParams.numChannels = 2;
    resetParams.sampleFormatStatus = VARIABLE;
    resetParams.sampleFormat = SAMPLE_S16BIT_LE;
    resetParams.samplesInterleavedStatus = FIXED;
    resetParams.samplesInterleaved = true;
    resetParams.periodSizeStatus = VARIABLE;
    resetParams.periodSize = 512;
    resetParams.trueSampleRateStatus = VARIABLE;
    resetParams.trueSampleRate = 0.0F;
    resetPortParams();
}

CToneGeneratorUSP::~CToneGeneratorUSP()
{
    AUDIO_TRACE_CALL();
}

runTimeId CToneGeneratorUSP::getRunTimeId()
{
    AUDIO_TRACE_CALL();
    return TONE_GENERATOR_USP;
}

streamStatus CToneGeneratorUSP::reconfigPortCheck(audioPortParam_t* newParams)
{
    AUDIO_TRACE_CALL();
    (void)newParams; // a tone can be anything
    return STREAM_OK;
}

streamStatus CToneGeneratorUSP::reconfigPortApply(audioPortParam_t* newParams)
{
    AUDIO_TRACE_CALL();
    params = *newParams;
    (void)tone->allocateWorkBuffer(); // it has no failure
    return STREAM_OK;
}

streamStatus CToneGeneratorUSP::reqReadPeriods(char*& pbuffer, unsigned int& nPeriods)
{
    AUDIO_TRACE_CALL();
    // No buffer, or one of an earlier connection that is too short for the parameters in force: nothing to lend.
    if (tone->workBuffer == nullptr || getPeriodBytes() > tone->workBufferSize) {
        pbuffer = nullptr;
        nPeriods = 0;
        return STREAM_OK;
    }
    if (!workBufferFull) {
        fillWorkBuffer();
        workBufferFull = true;
    }
    pbuffer = tone->workBuffer.get();
    nPeriods = 1;
    return STREAM_OK;
}

void CToneGeneratorUSP::fillWorkBuffer()
{
    const uint32_t stride = getSampleBytes();
    const uint32_t bufferBytes = tone->workBufferSize;
    char* const buffer = tone->workBuffer.get();
    uint32_t position = 0;
    for (uint32_t frame = 0; frame < params.periodSize; frame++) {
        const auto sample = static_cast<int16_t>(tone->getSample() / 65536);
        for (uint32_t channel = 0; channel < params.numChannels; channel++) {
            // Always 16 bits in the host's order, whatever the format: the last write of a narrower one ends with
            // the buffer.
            const size_t bytes = std::min<size_t>(sizeof sample, bufferBytes - position);
            std::memcpy(buffer + position, &sample, bytes);
            position = std::min(position + stride, bufferBytes);
        }
    }
}

streamStatus CToneGeneratorUSP::ackReadPeriods(unsigned int nPeriods)
{
    AUDIO_TRACE_CALL();
    if (nPeriods != 0) {
        workBufferFull = false;
        incPeriodCount(nPeriods);
    }
    return STREAM_OK;
}

// ------------------------------------------------------------------------------------------------ CToneGenerator

CToneGenerator::CToneGenerator(std::string name, float sampleRate) : CAudioPlay(std::move(name))
{
    AUDIO_TRACE_CALL();
    upstream.push_back(new CToneGeneratorUSP(this, sampleRate));
}

CToneGenerator::~CToneGenerator()
{
    AUDIO_TRACE_CALL();
}

runTimeId CToneGenerator::getRunTimeId()
{
    AUDIO_TRACE_CALL();
    return TONE_GENERATOR;
}

streamStatus CToneGenerator::init()
{
    AUDIO_TRACE_CALL();
    if (amplitude == -1.0F) {
        (void)cfgTone(1000.0F, 0.5F); // it has no failure
    }
    started.setCurrentTime();
    totalFrames = 0;
    return STREAM_OK;
}

streamStatus CToneGenerator::service(CServiceTime& nextService)
{
    AUDIO_TRACE_CALL();
    nextService.setNeverService();
    return STREAM_OK;
}

streamStatus CToneGenerator::cfgTone(float freq, float amp)
{
    AUDIO_TRACE_CALL();
    amplitude = amp;
    nco_acc = 0;
    // Single precision to the end: 1000 Hz at 48000 Hz comes to 89478488, not 89478485.
    nco_tw = saturatingToUnsigned(freq * 4294967296.0F / upstream.front()->params.nominalSampleRate);
    generateSineTable();
    return STREAM_OK;
}

void CToneGenerator::generateSineTable()
{
    AUDIO_TRACE_CALL();
    const double scale = static_cast<double>(amplitude * TABLE_SCALE);
    for (uint32_t i = 0; i < TABLE_SIZE; i++) {
        const double angle = static_cast<double>(2.0F * static_cast<float>(i)) * std::numbers::pi / TABLE_SIZE;
        // The half and the cut round positive values to nearest and lift negative ones toward zero.
        sineTable[i] = toTableEntry(scale * std::sin(angle) + 0.5);
    }
}

int32_t CToneGenerator::getSample()
{
    const uint32_t idx = nco_acc >> 23;
    const auto frac = static_cast<int32_t>((nco_acc & 0x7FFFFFU) >> 7);
    const uint32_t next = (idx + 1) & (TABLE_SIZE - 1);
    // The weights are complements, so they sum to 65535: two full 16-bit values stay within 32 bits.
    const int32_t temp = sineTable[idx] * (65535 - frac) + sineTable[next] * frac;
    nco_acc += nco_tw;
    return temp;
}

streamStatus CToneGenerator::allocateWorkBuffer()
{
    AUDIO_TRACE_CALL();
    workBuffer.reset();
    workBufferSize = 0;
    auto* port = static_cast<CToneGeneratorUSP*>(upstream.front());
    if (port->isConnected(nullptr)) {
        workBufferSize = port->getPeriodBytes();
        workBuffer = std::make_unique<char[]>(workBufferSize); // zeroed: what no write reaches is silence
    }
    port->workBufferFull = false; // the first request fills it
    return STREAM_OK;
}

} // namespace audioLibrarySpace
