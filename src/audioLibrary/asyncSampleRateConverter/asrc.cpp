// asyncSampleRateConverter/asrc
#include "audioLibrary/asyncSampleRateConverter/asrc.h"

#include "audioLibrary/asyncSampleRateConverter/asrcKernels.h"
#include "audioLibrary/asyncSampleRateConverter/asrcObject.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

namespace
{

constexpr unsigned int kMaxChannels = 2;
/// Largest step between neighbouring phases that multiply-high interpolation can hold: twice it must fit in 16 bits.
constexpr int kGentleStep = 16383;

asrcObject* record(asrcHandle handle)
{
    return static_cast<asrcObject*>(handle);
}

sampleint* allocateSamples(size_t count)
{
    return static_cast<sampleint*>(std::malloc(count * sizeof(sampleint)));
}

void freeRecord(asrcObject* object)
{
    std::free(object->FilterCoeff);
    std::free(object->InputBuffer);
    std::free(object->FilterBuffer);
    object->~asrcObject();
    std::free(object);
}

/** The record at an address fit for vector loads, all zero. */
asrcObject* allocateRecord()
{
    void* memory = std::aligned_alloc(alignof(asrcObject), sizeof(asrcObject));
    return memory ? new (memory) asrcObject{} : nullptr;
}

bool allocateBuffers(asrcObject* object)
{
    object->InputBuffer = allocateSamples(size_t{object->nChannels} * kAsrcRingAndMirror);
    object->FilterBuffer = allocateSamples(kAsrcTaps);
    object->FilterCoeff = allocateSamples(kAsrcCoefficients);
    return object->InputBuffer && object->FilterBuffer && object->FilterCoeff;
}

/** Lays the filter out by phase: see asrcObject::rows. */
void buildRows(asrcObject* object)
{
    for (unsigned int q = 0; q <= kAsrcPhases; ++q)
        for (unsigned int j = 0; j < kAsrcTaps; ++j)
            object->rows[q][j] = object->FilterCoeff[((kAsrcTaps - 1 - j) * kAsrcPhases + q) % kAsrcCoefficients];
}

/** Whether multiply-high interpolation is exact for this filter; any real low-pass qualifies. */
bool isGentle(const asrcObject* object)
{
    for (unsigned int i = 0; i < kAsrcCoefficients; ++i) {
        const int step = object->FilterCoeff[(i + 1) % kAsrcCoefficients] - object->FilterCoeff[i];
        if (step > kGentleStep || step < -kGentleStep)
            return false;
    }
    return true;
}

/** Takes the form of the converter's kernel that fits its channel count and its filter. */
void selectForm(asrcObject* object)
{
    object->reader = object->kernel->readers[object->nChannels - 1][isGentle(object) ? 1 : 0];
}

/** Brings frames `first` to `first + nFrames - 1` of the ring into the planes. */
void splitToPlanes(asrcObject* object, unsigned int first, unsigned int nFrames)
{
    object->kernel->splitter(object->InputBuffer + 2 * first, object->planes[0] + first, object->planes[1] + first,
                             nFrames);
}

} // namespace

const asrcKernel& asrcBestKernel()
{
    for (const asrcKernel* kernel : {asrcKernelAvx2(), asrcKernelSse2(), asrcKernelNeon()})
        if (kernel)
            return *kernel;
    return asrcKernelPlain;
}

void asrcUseKernel(asrcHandle handle, const asrcKernel& kernel)
{
    asrcObject* object = record(handle);
    object->kernel = &kernel;
    selectForm(object);
    if (object->nChannels == 2)
        splitToPlanes(object, 0, kAsrcRingAndMirror);
}

asrcHandle asrcInit(asrcConfig* config)
{
    if (config->nChannels != 1 && config->nChannels != 2) {
        // Both numbers print as they were given: a count above 2^31 shows negative.
        std::fprintf(stderr, "Maximum of %d channels supported - %d requested\n", static_cast<int>(kMaxChannels),
                     static_cast<int>(config->nChannels));
        return nullptr;
    }
    std::printf("Filter taps: %d\n", static_cast<int>(kAsrcTaps));
    asrcObject* object = allocateRecord();
    if (!object) {
        std::fprintf(stderr, "Out of memory\n");
        return nullptr;
    }
    object->nChannels = config->nChannels;
    if (!allocateBuffers(object)) {
        std::fprintf(stderr, "Out of memory\n");
        freeRecord(object);
        return nullptr;
    }
    // 256 samples, not frames: in stereo the rest of the ring is written before the start-up depth lets it be read.
    std::memset(object->InputBuffer, 0, kAsrcRingFrames * sizeof(sampleint));
    std::memset(object->FilterCoeff, 0, kAsrcCoefficients * sizeof(sampleint));
    object->ClkRatio = 1.0;
    object->ratio = 65536;
    object->accDecrement = 1;
    object->inputFreq = 44100;
    object->outputFreq = 44100;
    object->kernel = &asrcBestKernel();
    selectForm(object);
    return object;
}

int asrcSetRates(asrcHandle handle, unsigned int inRate, unsigned int outRate)
{
    asrcObject* object = record(handle);
    if (inRate > outRate * 21u / 20u) { // the product wraps above 204522252 Hz, harmlessly: it refuses more
        std::fprintf(stderr, "ASRC only supports interpolation (Fout > Fin)\n");
        return ASRC_ERROR;
    }
    // A file's header may name a rate of 0, and the block asks again on every pass: refused without a word. No quotient
    // exists for it, and a clock charged with it would fire for ever or never.
    if (inRate == 0 || outRate == 0)
        return ASRC_ERROR;
    object->accDecrement = static_cast<int>(std::min(inRate, outRate));
    object->inputFreq = static_cast<int>(inRate);
    object->outputFreq = static_cast<int>(outRate);
    object->ClkRatio = static_cast<double>(inRate) / static_cast<double>(outRate);
    object->ratio = static_cast<uint32_t>(object->ClkRatio * 65536.0);
    return ASRC_OK;
}

int asrcReqInFrameBuffer(asrcHandle handle, short** buffer, unsigned int* nFrames)
{
    asrcObject* object = record(handle);
    const unsigned int reader = object->IRead >> 16;
    const unsigned int load = object->ILoadWrite;
    if (reader > load)
        *nFrames = reader - load - 1;
    else if (reader == 0) // the end of the ring is the reader's own place: full must not look like empty
        *nFrames = kAsrcRingFrames - 1 - load;
    else
        *nFrames = kAsrcRingFrames - load;
    *buffer = object->InputBuffer + size_t{object->nChannels} * load;
    return ASRC_OK;
}

int asrcWriteInFrames(asrcHandle handle, unsigned int nFrames)
{
    asrcObject* object = record(handle);
    const unsigned int load = object->ILoadWrite;
    unsigned int mirrored = 0;
    if (load < kAsrcMirrorFrames) {
        mirrored = std::min(nFrames, kAsrcMirrorFrames - load);
        std::memcpy(object->InputBuffer + size_t{object->nChannels} * (kAsrcRingFrames + load),
                    object->InputBuffer + size_t{object->nChannels} * load,
                    size_t{object->nChannels} * mirrored * sizeof(sampleint));
    }
    if (object->nChannels == 2) {
        // A count beyond the ring's end claims frames that nobody placed: the position moves, the copy stays inside.
        splitToPlanes(object, load, std::min(nFrames, kAsrcRingFrames - load));
        splitToPlanes(object, kAsrcRingFrames + load, mirrored);
    }
    object->ILoadWrite = (load + nFrames) % kAsrcRingFrames;
    return ASRC_OK;
}

unsigned int asrcReadOutFrames(asrcHandle handle, short* buf, unsigned int n)
{
    asrcObject* object = record(handle);
    object->OutputBuffer = buf;
    object->OutputIndex = 0;
    if (n == 0 || (object->ILoadWrite - object->IWrite) % kAsrcRingFrames == 0)
        return 0;
    object->reader(*object, n);
    return object->OutputIndex;
}

unsigned int asrcGetStoredFilterLength(asrcHandle)
{
    return kAsrcCoefficients;
}

int asrcCopyStoredFilter(asrcHandle handle, short* coefficients)
{
    asrcObject* object = record(handle);
    std::memcpy(object->FilterCoeff, coefficients, kAsrcCoefficients * sizeof(sampleint));
    buildRows(object);
    selectForm(object);
    return ASRC_OK;
}

int asrcDestroy(asrcHandle handle)
{
    if (handle)
        freeRecord(record(handle));
    return ASRC_OK;
}
