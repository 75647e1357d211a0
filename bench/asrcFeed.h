// bench/asrcFeed
#pragma once

/**
 * Feeds whole blocks of interleaved frames through a rate converter, as the sample-rate converter block does: copy in as
 * much as the ring takes, read out what there is, until the block is used up.
 */

#include "asrcLiteral.h"
#include "audioLibrary/asyncSampleRateConverter/asrc.h"
#include "audioLibrary/asyncSampleRateConverter/asrcKernels.h"

#include <algorithm>
#include <cstring>
#include <vector>

/** The converter itself, in one form; owns it. */
class AsrcConverter
{
public:
    AsrcConverter(unsigned int channels, const std::vector<int16_t>& table, unsigned int inRate, unsigned int outRate,
                  const asrcKernel& kernel = asrcBestKernel())
    {
        asrcConfig config{channels};
        handle = asrcInit(&config);
        std::vector<int16_t> copy(table);
        asrcUseKernel(handle, kernel);
        asrcCopyStoredFilter(handle, copy.data());
        asrcSetRates(handle, inRate, outRate);
    }
    ~AsrcConverter() { asrcDestroy(handle); }
    AsrcConverter(const AsrcConverter&) = delete;
    AsrcConverter& operator=(const AsrcConverter&) = delete;

    void reqInFrameBuffer(int16_t** place, unsigned int* nFrames) { asrcReqInFrameBuffer(handle, place, nFrames); }
    void writeInFrames(unsigned int nFrames) { asrcWriteInFrames(handle, nFrames); }
    unsigned int readOutFrames(int16_t* out, unsigned int n) { return asrcReadOutFrames(handle, out, n); }

private:
    asrcHandle handle;
};

/** Converts `nFrames` frames; returns the frames made, which `out` must have room for. */
template <class Converter>
unsigned int feedBlock(Converter& converter, const int16_t* in, unsigned int nFrames, int16_t* out,
                       unsigned int outRoom, unsigned int channels)
{
    unsigned int taken = 0;
    unsigned int made = 0;
    for (;;) {
        int16_t* place = nullptr;
        unsigned int room = 0;
        converter.reqInFrameBuffer(&place, &room);
        room = std::min(room, nFrames - taken);
        std::memcpy(place, in + size_t{taken} * channels, size_t{room} * channels * sizeof(int16_t));
        converter.writeInFrames(room);
        taken += room;
        made += converter.readOutFrames(out + size_t{made} * channels, outRoom - made);
        if (taken == nFrames)
            return made;
    }
}
