/**
 * The converter block: whole periods in and out around the converter core, all on the thread that services the blocks.
 */

#include "audioLibrary/sampleRateConverter.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace audioLibrarySpace
{

namespace
{

constexpr unsigned int defaultChannels = 2;

/** Reads `numBytes` bytes from `fd`, in as many pieces as it takes; false where the file has fewer or can't be read. */
bool readWhole(int fd, void* to, size_t numBytes)
{
    auto* next = static_cast<char*>(to);
    while (numBytes > 0) {
        const ssize_t got = read(fd, next, numBytes);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return false;
        }
        next += got;
        numBytes -= static_cast<size_t>(got);
    }
    return true;
}

} // namespace

// ---- CSampleRateConverter ----

CSampleRateConverter::CSampleRateConverter(std::string name) : CAudioBlock(std::move(name))
{
    AUDIO_TRACE_CALL();
    upstream.push_back(new CSampleRateConverterUSP(this));
    downstream.push_back(new CSampleRateConverterDSP(this));
}

CSampleRateConverter::~CSampleRateConverter()
{
    AUDIO_TRACE_CALL();
    delete[] in_workbuffer_frames;
    delete[] out_workbuffer_frames;
    if (asrc != nullptr) {
        asrcDestroy(asrc);
    }
}

runTimeId CSampleRateConverter::getRunTimeId()
{
    AUDIO_TRACE_CALL();
    return SAMPLE_RATE_CONVERTER;
}

streamStatus CSampleRateConverter::init()
{
    AUDIO_TRACE_CALL();
    if (asrc != nullptr) {
        asrcDestroy(asrc);
    }
    const streamStatus status = buildConverter(defaultChannels);
    if (isInitialized) {
        return STREAM_OK;
    }
    (void)CAudioBlock::init(); // can't fail
    return status;
}

/** Makes the converter, in place of whatever `asrc` holds, and loads its filter. A filter that's missing is silence. */
streamStatus CSampleRateConverter::buildConverter(unsigned int nChannels)
{
    streamStatus status = STREAM_OK;
    asrcCfg.nChannels = nChannels;
    asrc = asrcInit(&asrcCfg);
    if (asrc == nullptr) {
        AUDIO_TRACE_PUTS(0, "Unable to allocate ASRC object");
        isConfigured = false;
        status = STREAM_ERROR;
    }
    if (populateFilterCoeff(asrc) != ASRC_OK) {
        AUDIO_TRACE_PUTS(0, "Unable to populate filter coefficients");
    }
    return status;
}

asrcStatus CSampleRateConverter::populateFilterCoeff(asrcHandle handle)
{
    AUDIO_TRACE_CALL();
    const unsigned int filterlength = asrcGetStoredFilterLength(handle);
    printf("Loading %d taps\n", static_cast<int>(filterlength));
    std::vector<short> coefficients(filterlength);

    const int fd = open("FilterCoeff.bin", O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        fprintf(stderr, "Unable to open filter coefficent file\n"); // sic
        return ASRC_ERROR;
    }
    const bool whole = readWhole(fd, coefficients.data(), coefficients.size() * sizeof(short));
    close(fd);
    if (!whole) {
        // Half a filter would be noise; none is silence.
        fprintf(stderr, "Unable to read filter coefficient file\n");
        return ASRC_ERROR;
    }
    if (handle != nullptr) {
        (void)asrcCopyStoredFilter(handle, coefficients.data()); // can't fail
    }
    return ASRC_OK;
}

streamStatus CSampleRateConverter::myInit()
{
    AUDIO_TRACE_CALL();
    streamStatus status = STREAM_OK;
    const audioPortParam_t& in = inputPort().params;
    const audioPortParam_t& out = outputPort().params;

    isConfigured = false;
    if (in.numChannels != asrcCfg.nChannels || asrc == nullptr) {
        AUDIO_TRACE_PUTS(0, "Reinitialize asrc.");
        // The converter of another channel count is let go of, not destroyed: a known leak, once in a block's life as
        // the players use it.
        status = buildConverter(in.numChannels);
    }
    AUDIO_TRACE_PRINTF(0, "Rates %f Hz => %f Hz Ratio: %f, %d channels\n", static_cast<double>(in.nominalSampleRate),
                       static_cast<double>(out.nominalSampleRate),
                       static_cast<double>(in.nominalSampleRate / out.nominalSampleRate),
                       static_cast<int>(in.numChannels));
    if (asrc == nullptr) {
        return status;
    }
    const unsigned int inRate = saturatingToUnsigned(in.nominalSampleRate);
    const unsigned int outRate = saturatingToUnsigned(out.nominalSampleRate);
    if (asrcSetRates(asrc, inRate, outRate) != ASRC_OK) {
        AUDIO_TRACE_PRINTF(0, "Unable to set interpolation rates of %d=>%d\n", static_cast<int>(inRate),
                           static_cast<int>(outRate));
        status = STREAM_ERROR;
    }
    makeWorkBuffers();
    isConfigured = true;
    return status;
}

/** Each of one cleared period. A buffer that exists is kept at its old size. */
void CSampleRateConverter::makeWorkBuffers()
{
    if (in_workbuffer_frames == nullptr) {
        inWorkBufferBytes = inputPort().getPeriodBytes();
        in_workbuffer_frames = new char[inWorkBufferBytes]();
    }
    if (out_workbuffer_frames == nullptr) {
        outWorkBufferBytes = outputPort().getPeriodBytes();
        out_workbuffer_frames = new char[outWorkBufferBytes]();
    }
}

/** After a disconnect: the next myInit() builds anew. How far the periods had got stays as it is. */
void CSampleRateConverter::releaseConverter()
{
    if (asrc == nullptr) {
        return;
    }
    asrcDestroy(asrc);
    isConfigured = false;
    asrc = nullptr;
    delete[] in_workbuffer_frames;
    in_workbuffer_frames = nullptr;
    inWorkBufferBytes = 0;
    delete[] out_workbuffer_frames;
    out_workbuffer_frames = nullptr;
    outWorkBufferBytes = 0;
}

streamStatus CSampleRateConverter::setRates(int inRate, int outRate)
{
    AUDIO_TRACE_CALL();
    isManualRateConfig = true;
    (void)myInit(); // its rates are about to be replaced
    if (asrc == nullptr ||
        asrcSetRates(asrc, static_cast<unsigned int>(inRate), static_cast<unsigned int>(outRate)) != ASRC_OK) {
        AUDIO_TRACE_PRINTF(0, "Unable to set interpolation rates of %d=>%d\n", inRate, outRate);
        return STREAM_ERROR;
    }
    AUDIO_TRACE_PRINTF(0, "Rates %d Hz => %d Hz Ratio: %f, %d channels\n", inRate, outRate,
                       static_cast<double>(static_cast<float>(inRate) / static_cast<float>(outRate)),
                       static_cast<int>(asrcCfg.nChannels));
    return STREAM_OK;
}

streamStatus CSampleRateConverter::reconfigBlockCheck(audioPortParam_t& usp, audioPortParam_t dsp)
{
    AUDIO_TRACE_CALL();
    streamStatus status = STREAM_OK;
    const auto merge = [&status](auto& own, const auto& offered, paramStatus_e ownStatus) {
        if (own == offered) {
            return;
        }
        if (ownStatus == VARIABLE) {
            own = offered;
        } else {
            status = STREAM_ERROR;
        }
    };
    merge(usp.nominalSampleRate, dsp.nominalSampleRate, usp.nominalSampleRateStatus);
    merge(usp.numChannels, dsp.numChannels, usp.numChannelsStatus);
    merge(usp.sampleFormat, dsp.sampleFormat, usp.sampleFormatStatus);
    merge(usp.samplesInterleaved, dsp.samplesInterleaved, usp.samplesInterleavedStatus);
    merge(usp.trueSampleRate, dsp.trueSampleRate, usp.trueSampleRateStatus);
    return status;
}

bool CSampleRateConverter::bothPortsConnected()
{
    return inputPort().isConnected(nullptr) && outputPort().isConnected(nullptr);
}

streamStatus CSampleRateConverter::service(CServiceTime& nextService)
{
    AUDIO_TRACE_CALL();
    if (bothPortsConnected() && !isConfigured) {
        (void)myInit(); // tells its failures itself; the next pass tries again
    }
    if (bothPortsConnected() && isConfigured) {
        retune();
        (void)serviceBuffers(); // always STREAM_OK
    }
    nextService.setNeverService();
    return STREAM_OK;
}

/** Brings the converter to the rates in force; refused rates leave the old ones, without a word. */
void CSampleRateConverter::retune()
{
    const audioPortParam_t& out = outputPort().params;
    if (out.trueSampleRate > 0.0F) {
        followDemand(*downstream.front()->getUpstream(), *upstream.front()->getDownstream());
    } else {
        (void)asrcSetRates(asrc, saturatingToUnsigned(inputPort().params.nominalSampleRate),
                           saturatingToUnsigned(out.nominalSampleRate));
    }
}

/** Takes over the source's nominal rate and the mixer's demand where either has moved, in whole hertz. */
void CSampleRateConverter::followDemand(const CAudioPort& source, const CAudioPort& mix)
{
    audioPortParam_t& in = inputPort().params;
    audioPortParam_t& out = outputPort().params;
    if (source.params.nominalSampleRate == in.nominalSampleRate && mix.params.trueSampleRate == out.trueSampleRate) {
        return;
    }
    in.nominalSampleRate = source.params.nominalSampleRate;
    out.trueSampleRate = mix.params.trueSampleRate;
    (void)asrcSetRates(asrc, saturatingToUnsigned(in.nominalSampleRate), saturatingToUnsigned(out.trueSampleRate));
    AUDIO_TRACE_PRINTF(5, "Tracking rate to   %f => %f    Ratio: %f.\n", static_cast<double>(in.nominalSampleRate),
                       static_cast<double>(out.trueSampleRate),
                       static_cast<double>(in.nominalSampleRate / out.trueSampleRate));
}

streamStatus CSampleRateConverter::serviceBuffers()
{
    AUDIO_TRACE_CALL();
    if (!isConfigured) {
        return STREAM_OK; // there is nothing to move, and nowhere to move it to
    }
    lastOutFrames = 1;
    bool failedToRequestPeriod = false;
    unsigned int outFrames = 1; // nothing has failed yet
    while (!workBufferFull) {
        // At least, not exactly: a count that a longer period left behind would otherwise never be refilled.
        if (in_ptr_frames >= inputPort().params.periodSize && !refillInput()) {
            failedToRequestPeriod = true;
        }
        if (in_ptr_frames < inputPort().params.periodSize) {
            feedConverter();
        }
        if (outFrames == 0 && failedToRequestPeriod) {
            AUDIO_TRACE_PUTS(8, "ASRC Produced 0 frames and failed to request new samples from downstream block");
            return STREAM_OK;
        }
        outFrames = drainConverter();
        if (outFrames == 0 && lastOutFrames == 0) {
            AUDIO_TRACE_PUTS(8, "ASRC Failed to produce samples twice in a row.");
            return STREAM_OK;
        }
        lastOutFrames = static_cast<int>(outFrames);
        out_ptr_frames += outFrames;
        workBufferFull = out_ptr_frames >= outputPort().params.periodSize;
        AUDIO_TRACE_PRINTF(8, "Total Frames in output buffer: %d \n", static_cast<int>(out_ptr_frames));
    }
    return STREAM_OK;
}

/** Takes exactly one period from the source, however many it offers; false if it offers none. */
bool CSampleRateConverter::refillInput()
{
    CUpstreamPort* source = downstream.front()->getUpstream();
    if (source == nullptr) {
        return false;
    }
    char* ptr = nullptr;
    unsigned int nPeriods = 0;
    const streamStatus status = source->reqReadPeriods(ptr, nPeriods);
    if (status != STREAM_OK || nPeriods < 1 || ptr == nullptr) {
        return false;
    }
    std::memcpy(in_workbuffer_frames, ptr, std::min<size_t>(inputPort().getPeriodBytes(), inWorkBufferBytes));
    in_ptr_frames = 0;
    (void)source->ackReadPeriods(1); // the period is ours already
    inputPort().addPeriods(1);
    return true;
}

/** Hands the converter as much of the input period as its ring has room for. */
void CSampleRateConverter::feedConverter()
{
    short* samplePtr = nullptr;
    unsigned int asrcReqInput = 0;
    if (asrcReqInFrameBuffer(asrc, &samplePtr, &asrcReqInput) != ASRC_OK) {
        AUDIO_TRACE_PUTS(0, "ASRC ERROR! Unable to find space for more samples.");
        return;
    }
    asrcReqInput = std::min(asrcReqInput, inputPort().params.periodSize - in_ptr_frames);
    AUDIO_TRACE_PRINTF(9, "Input (req):  %d samples\n", static_cast<int>(asrcReqInput));
    copyInput(samplePtr, asrcReqInput);
    if (asrcWriteInFrames(asrc, asrcReqInput) != ASRC_OK) {
        AUDIO_TRACE_PUTS(0, "ASRC ERROR! Unable to write new samples");
        return;
    }
    AUDIO_TRACE_PRINTF(9, "Input (read): %d samples\n", static_cast<int>(asrcReqInput));
    in_ptr_frames += asrcReqInput;
}

/** Frames from the work buffer; what lies beyond a buffer made for a shorter period is silence. */
void CSampleRateConverter::copyInput(sampleint* destination, unsigned int numFrames) const
{
    const size_t wantedBytes = numFrames * converterFrameBytes();
    const size_t offset = std::min(inWorkBufferBytes, in_ptr_frames * converterFrameBytes());
    const size_t thereBytes = std::min(wantedBytes, inWorkBufferBytes - offset);
    auto* to = reinterpret_cast<char*>(destination);
    if (thereBytes > 0) {
        std::memcpy(to, in_workbuffer_frames + offset, thereBytes);
    }
    if (wantedBytes > thereBytes) {
        std::memset(to + thereBytes, 0, wantedBytes - thereBytes);
    }
}

/** Converts into what is left of the output period, and of the buffer made for it; answers the frames made. */
unsigned int CSampleRateConverter::drainConverter()
{
    const size_t bufferFrames = outWorkBufferBytes / converterFrameBytes();
    const auto endFrame = static_cast<unsigned int>(std::min<size_t>(outputPort().params.periodSize, bufferFrames));
    if (out_ptr_frames > endFrame) {
        return 0;
    }
    char* to = out_workbuffer_frames + out_ptr_frames * converterFrameBytes();
    return asrcReadOutFrames(asrc, reinterpret_cast<short*>(to), endFrame - out_ptr_frames);
}

/**
 * Whether a complete period waits, in memory that holds one. It may wait without memory: across a disconnect, until
 * the next service makes the buffers anew.
 */
bool CSampleRateConverter::lendableOutput()
{
    return workBufferFull && out_workbuffer_frames != nullptr && outWorkBufferBytes >= outputPort().getPeriodBytes();
}

std::string CSampleRateConverter::printBlockStatus()
{
    AUDIO_TRACE_CALL();
    const audioPortParam_t& out = outputPort().params;
    const float outRate = out.trueSampleRate > 0.0F ? out.trueSampleRate : out.nominalSampleRate;
    return CAudioBlock::printBlockStatus() + "Ratio: " + toString(inputPort().params.nominalSampleRate / outRate) +
           "\n";
}

void* asrcThreadHelper(void* block)
{
    (void)static_cast<CSampleRateConverter*>(block)->serviceBuffers(); // always STREAM_OK
    return nullptr;
}

// ---- CSampleRateConverterUSP ----

CSampleRateConverterUSP::CSampleRateConverterUSP(CSampleRateConverter* parent) : CUpstreamPort(parent)
{
    AUDIO_TRACE_CALL();
    resetParams.nominalSampleRateStatus = FIXED;
    resetParams.nominalSampleRate = 48000.0F;
    resetParams.trueSampleRateStatus = VARIABLE;
    resetParams.trueSampleRate = 0.0F; // no one is steering
    resetParams.numChannelsStatus = VARIABLE;
    resetParams.numChannels = 2;
    resetParams.sampleFormatStatus = FIXED;
    resetParams.sampleFormat = SAMPLE_S16BIT_LE;
    resetParams.samplesInterleavedStatus = FIXED;
    resetParams.samplesInterleaved = true;
    resetParams.periodSizeStatus = VARIABLE;
    resetParams.periodSize = 1024;
    resetPortParams();
}

CSampleRateConverterUSP::~CSampleRateConverterUSP()
{
    AUDIO_TRACE_CALL();
}

runTimeId CSampleRateConverterUSP::getRunTimeId()
{
    AUDIO_TRACE_CALL();
    return SAMPLE_RATE_CONVERTER_USP;
}

streamStatus CSampleRateConverterUSP::reconfigPortCheck(audioPortParam_t* newParams)
{
    AUDIO_TRACE_CALL();
    params.nominalSampleRate = newParams->nominalSampleRate;
    return CUpstreamPort::reconfigPortCheck(newParams);
}

streamStatus CSampleRateConverterUSP::reconfigPortApply(audioPortParam_t* newParams)
{
    AUDIO_TRACE_CALL();
    params = *newParams;
    return STREAM_OK;
}

streamStatus CSampleRateConverterUSP::disconnect()
{
    AUDIO_TRACE_CALL();
    const streamStatus status = CUpstreamPort::disconnect();
    converter().releaseConverter();
    return status;
}

streamStatus CSampleRateConverterUSP::reqReadPeriods(char*& pbuffer, unsigned int& nPeriods)
{
    AUDIO_TRACE_CALL();
    if (!converter().lendableOutput()) {
        nPeriods = 0;
        return STREAM_OK;
    }
    AUDIO_TRACE_PRINTF(8, "Sent away a full buffer: %d.\n", static_cast<int>(converter().out_ptr_frames));
    pbuffer = converter().out_workbuffer_frames;
    nPeriods = 1;
    return STREAM_OK;
}

streamStatus CSampleRateConverterUSP::ackReadPeriods(unsigned int nPeriods)
{
    AUDIO_TRACE_CALL();
    if (converter().workBufferFull) {
        converter().out_ptr_frames = 0;
        converter().workBufferFull = false;
        AUDIO_TRACE_PRINTF(8, "Ack %d periods.\n", static_cast<int>(nPeriods));
        addPeriods(nPeriods);
        return STREAM_OK;
    }
    if (nPeriods == 0) {
        return STREAM_OK;
    }
    AUDIO_TRACE_PRINTF(0, "ERROR! The workbuffer was not full and ack was received for %d periods.\n",
                       static_cast<int>(nPeriods));
    return STREAM_ERROR;
}

// ---- CSampleRateConverterDSP ----

CSampleRateConverterDSP::CSampleRateConverterDSP(CSampleRateConverter* parent) : CDownstreamPort(parent)
{
    AUDIO_TRACE_CALL();
    resetParams.nominalSampleRateStatus = VARIABLE;
    resetParams.nominalSampleRate = 44100.0F;
    resetParams.numChannelsStatus = VARIABLE;
    resetParams.numChannels = 2;
    resetParams.sampleFormatStatus = FIXED;
    resetParams.sampleFormat = SAMPLE_S16BIT_LE;
    resetParams.samplesInterleavedStatus = FIXED;
    resetParams.samplesInterleaved = true;
    resetParams.periodSizeStatus = VARIABLE;
    resetParams.periodSize = 2048;
    resetPortParams();
}

CSampleRateConverterDSP::~CSampleRateConverterDSP()
{
    AUDIO_TRACE_CALL();
}

runTimeId CSampleRateConverterDSP::getRunTimeId()
{
    AUDIO_TRACE_CALL();
    return SAMPLE_RATE_CONVERTER_DSP;
}

streamStatus CSampleRateConverterDSP::reconfigPortCheck(audioPortParam_t* newParams)
{
    AUDIO_TRACE_CALL();
    (void)CDownstreamPort::reconfigPortCheck(newParams); // told, not judged: the reverse pass decides
    return converter().reconfigBlockCheck(converter().outputPort().params, params);
}

streamStatus CSampleRateConverterDSP::reconfigPortApply(audioPortParam_t* newParams)
{
    AUDIO_TRACE_CALL();
    params = *newParams;
    return STREAM_OK;
}

streamStatus CSampleRateConverterDSP::disconnect()
{
    AUDIO_TRACE_CALL();
    const streamStatus status = CDownstreamPort::disconnect();
    converter().releaseConverter();
    return status;
}

} // namespace audioLibrarySpace
