#pragma once

/** A reader for blocks that play files: takes any shape, with a period of its own, and touches every byte lent. */

#include "fuzz.h"

#include "audioLibrary/audioPlay.h"

namespace fuzz
{

using namespace audioLibrarySpace;

class ReaderPort : public CDownstreamPort
{
public:
    ReaderPort(CAudioBlock* parent, uint32_t periodSize) : CDownstreamPort(parent)
    {
        resetParams.nominalSampleRateStatus = VARIABLE;
        resetParams.numChannelsStatus = VARIABLE;
        resetParams.sampleFormatStatus = VARIABLE;
        resetParams.samplesInterleavedStatus = FIXED;
        resetParams.samplesInterleaved = true;
        resetParams.periodSizeStatus = FIXED;
        resetParams.periodSize = periodSize;
        resetPortParams();
    }
    streamStatus reconfigPortApply(audioPortParam_t* newParams) override
    {
        params = *newParams;
        return STREAM_OK;
    }
};

class Reader : public CAudioBlock
{
public:
    explicit Reader(uint32_t periodSize) : CAudioBlock("READER")
    {
        downstream.push_back(new ReaderPort(this, periodSize));
    }
    CDownstreamPort* port() { return downstream[0]; }
};

/** Adds up all that was lent: what can't be read shows under the address sanitizer. */
inline unsigned int sumOf(const char* lent, size_t numBytes)
{
    unsigned int sum = 0;
    for (size_t i = 0; i < numBytes; i++) {
        sum += static_cast<unsigned char>(lent[i]);
    }
    return sum;
}

} // namespace fuzz
