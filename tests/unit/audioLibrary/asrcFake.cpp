#include "audioLibrary/asrcFake.h"

#include <algorithm>

AsrcFake asrcFake;

namespace
{

void note(const std::string& call)
{
    asrcFake.calls.push_back(call);
}

} // namespace

asrcHandle asrcInit(asrcConfig* config)
{
    note("init " + std::to_string(config->nChannels));
    if (asrcFake.initFails) {
        return nullptr;
    }
    asrcFake.nChannels = config->nChannels;
    return &asrcFake.handles.emplace_back();
}

int asrcSetRates(asrcHandle, unsigned int inRate, unsigned int outRate)
{
    note("setRates " + std::to_string(inRate) + " " + std::to_string(outRate));
    return asrcFake.setRatesAnswer;
}

int asrcReqInFrameBuffer(asrcHandle, short** buffer, unsigned int* nFrames)
{
    note("reqIn");
    *buffer = asrcFake.ring.data();
    *nFrames = asrcFake.roomFrames;
    return asrcFake.reqInAnswer;
}

int asrcWriteInFrames(asrcHandle, unsigned int nFrames)
{
    note("write " + std::to_string(nFrames));
    asrcFake.written.insert(asrcFake.written.end(), asrcFake.ring.begin(),
                            asrcFake.ring.begin() + nFrames * asrcFake.nChannels);
    return asrcFake.writeAnswer;
}

unsigned int asrcReadOutFrames(asrcHandle, short* buf, unsigned int n)
{
    note("readOut " + std::to_string(n));
    unsigned int made = n;
    if (!asrcFake.outFrames.empty()) {
        made = std::min(n, asrcFake.outFrames.front());
        asrcFake.outFrames.pop_front();
    }
    for (unsigned int i = 0; i < made * asrcFake.nChannels; i++) {
        buf[i] = asrcFake.nextSample++;
    }
    return made;
}

unsigned int asrcGetStoredFilterLength(asrcHandle)
{
    return 8192;
}

int asrcCopyStoredFilter(asrcHandle, short* coefficients)
{
    note("copyFilter");
    asrcFake.coefficients.assign(coefficients, coefficients + 8192);
    return ASRC_OK;
}

int asrcDestroy(asrcHandle handle)
{
    note("destroy");
    asrcFake.destroyed.push_back(handle);
    return ASRC_OK;
}
