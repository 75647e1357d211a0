#include "audioLibrary/mp3FilePlay.h"

#include "audioLibrary/mp3Decoding.h"

#include <cstring>
#include <fcntl.h>
#include <mpg123.h>
#include <unistd.h>
#include <utility>

namespace audioLibrarySpace
{

namespace
{

constexpr uint32_t filePeriodSize = 2048; ///< frames; only a wish, the reader decides

} // namespace

// ----------------------------------------------------------------------------------------------- CMp3FilePlayUSP

CMp3FilePlayUSP::CMp3FilePlayUSP(CMp3FilePlay* parent) : CUpstreamPort(parent)
{
    AUDIO_TRACE_CALL();
    resetParams.nominalSampleRateStatus = VARIABLE;
    resetParams.nominalSampleRate = 44100.0F;
    resetParams.numChannelsStatus = FIXED;
    resetParams.numChannels = 2;
    resetParams.sampleFormatStatus = VARIABLE;
    resetParams.sampleFormat = SAMPLE_S16BIT_LE;
    resetParams.samplesInterleavedStatus = FIXED;
    resetParams.samplesInterleaved = true;
    resetParams.periodSizeStatus = FIXED;
    resetParams.periodSize = 4096;
    resetParams.trueSampleRateStatus = VARIABLE;
    resetParams.trueSampleRate = 0.0F;
    resetPortParams();
}

CMp3FilePlayUSP::~CMp3FilePlayUSP()
{
    AUDIO_TRACE_CALL();
}

runTimeId CMp3FilePlayUSP::getRunTimeId()
{
    AUDIO_TRACE_CALL();
    return MP3_FILE_PLAY_USP;
}

CMp3FilePlay* CMp3FilePlayUSP::block() const
{
    return static_cast<CMp3FilePlay*>(parentBlock);
}

streamStatus CMp3FilePlayUSP::reconfigPortApply(audioPortParam_t* newParams)
{
    AUDIO_TRACE_CALL();
    const streamStatus status = reconfigPortCheck(newParams);
    if (status == STREAM_OK) {
        params = *newParams;
    }
    (void)block()->allocateWorkBuffer(); // can't fail
    return status;
}

streamStatus CMp3FilePlayUSP::disconnect()
{
    AUDIO_TRACE_CALL();
    if (!isConnected(nullptr)) {
        return STREAM_OK;
    }
    (void)block()->closeFile(); // always STREAM_OK
    return CUpstreamPort::disconnect();
}

void CMp3FilePlayUSP::forgetDeadPeer()
{
    if (downstream != nullptr && !CAudioBlock::ownsPort(downstream)) {
        downstream = nullptr;
    }
}

streamStatus CMp3FilePlayUSP::connectDownstream(CDownstreamPort* port, mutexObject* mutex)
{
    AUDIO_TRACE_CALL();
    return CUpstreamPort::connectDownstream(port, mutex);
}

streamStatus CMp3FilePlayUSP::reqReadPeriods(char*& pbuffer, unsigned int& nPeriods)
{
    AUDIO_TRACE_CALL();
    return block()->reqReadPeriods(pbuffer, nPeriods);
}

streamStatus CMp3FilePlayUSP::ackReadPeriods(unsigned int nPeriods)
{
    AUDIO_TRACE_CALL();
    CMp3FilePlay& mp3 = *block();
    if (nPeriods != 0) {
        mp3.workBufferEmpty = true;
        incPeriodCount(nPeriods);
    }
    if (mp3.decodeStatus == MPG123_DONE && params.numChannels != 0) {
        mp3.framesConsumed = static_cast<uint32_t>(mp3.fileSizeSamples) / params.numChannels;
    } else {
        mp3.framesConsumed += params.periodSize * nPeriods;
    }
    return STREAM_OK;
}

// -------------------------------------------------------------------------------------------------- CMp3FilePlay

CMp3FilePlay::CMp3FilePlay(std::string name) : CAudioFilePlay(std::move(name))
{
    AUDIO_TRACE_CALL();
    upstream.push_back(new CMp3FilePlayUSP(this));
    mp3InBuf = newMp3Buffer(mp3InBufSize);
    mp3OutBuf = newMp3Buffer(mp3OutBufSize); // no smaller than what the decoder is told
}

CMp3FilePlay::~CMp3FilePlay()
{
    AUDIO_TRACE_CALL();
    // A player deletes its blocks oldest first, so the converter that reads this one may be gone.
    auto* port = static_cast<CMp3FilePlayUSP*>(upstream[0]);
    port->forgetDeadPeer();
    (void)port->disconnect(); // always STREAM_OK
    forgetFile();
    delete[] workBuffer;
    delete[] mp3OutBuf;
    delete[] mp3InBuf;
}

runTimeId CMp3FilePlay::getRunTimeId()
{
    AUDIO_TRACE_CALL();
    return MP3_FILE_PLAY;
}

streamStatus CMp3FilePlay::setNewFile(std::string newName)
{
    AUDIO_TRACE_CALL();
    filename = std::move(newName);
    const streamStatus status = openFile();
    if (status == STREAM_ERROR) {
        forgetFile();
    }
    return status;
}

streamStatus CMp3FilePlay::service(CServiceTime& nextService)
{
    AUDIO_TRACE_CALL();
    nextService.setNeverService();
    return STREAM_OK;
}

int32_t CMp3FilePlay::timeLeft()
{
    AUDIO_TRACE_CALL();
    if (fileSizeSamples == 0) {
        return 0;
    }
    const audioPortParam_t& params = upstream[0]->params;
    AUDIO_TRACE_PRINTF(6, "FileSS: %d, FrC: %d, SR: %f\n", fileSizeSamples, static_cast<int>(framesConsumed),
                       static_cast<double>(params.nominalSampleRate));
    // The unknown length, -1, is the largest of the unsigned numbers: the end is far off until it is there.
    const uint32_t left = static_cast<uint32_t>(fileSizeSamples) - framesConsumed * params.numChannels;
    const float seconds = static_cast<float>(left) / params.nominalSampleRate;
    const auto milliseconds = static_cast<int32_t>(saturatingToUnsigned(seconds * 1000.0F));
    AUDIO_TRACE_PRINTF(6, "Time to end of file: %ld\n", static_cast<long>(milliseconds));
    return milliseconds;
}

streamStatus CMp3FilePlay::closeFile()
{
    AUDIO_TRACE_CALL();
    forgetFile();
    return STREAM_OK;
}

void CMp3FilePlay::forgetFile()
{
    if (fnum >= 0) {
        ::close(fnum);
    }
    fnum = -1;
    upstream[0]->params.periodSize = filePeriodSize;
    upstream[0]->params.periodSizeStatus = VARIABLE;
    if (mh != nullptr) {
        mpg123_delete(mh);
        mh = nullptr;
    }
}

streamStatus CMp3FilePlay::allocateWorkBuffer()
{
    AUDIO_TRACE_CALL();
    delete[] workBuffer;
    workBuffer = nullptr;
    workBufferSize = 0;
    CUpstreamPort& out = *upstream[0];
    if (out.isConnected(nullptr)) {
        workBufferSize = out.getPeriodBytes();
        workBuffer = new unsigned char[workBufferSize]();
        workBufferEmpty = true;
    }
    return STREAM_OK;
}

// ---- opening

streamStatus CMp3FilePlay::openFile()
{
    AUDIO_TRACE_CALL();
    if (upstream[0]->isConnected(nullptr)) {
        return STREAM_ERROR; // the format can only be taken on while the port is free
    }
    AUDIO_TRACE_PRINTF(2, "Opening MP3 file %s\n", filename.c_str());
    forgetFile();
    if (mp3InBuf == nullptr || mp3OutBuf == nullptr) {
        return NO_MEMORY;
    }
    fnum = ::open(filename.c_str(), O_RDONLY | O_CLOEXEC);
    if (fnum < 0) {
        AUDIO_TRACE_PRINTF(1, "ERROR opening file: %s\n", std::strerror(fnum)); // sic: the text of -1
        return FILE_NOT_FOUND;
    }
    decodeStatus = MPG123_NEED_MORE;
    newInBytes = 0;
    decodedBytes = 0;
    streamStatus status = startDecoder();
    if (status != STREAM_OK) {
        return refuse(status);
    }
    fileSizeSamples = -1;
    framesConsumed = 0;
    long rate = 0;
    int channels = 0;
    int encoding = 0;
    status = findFormat(rate, channels, encoding);
    if (status != STREAM_OK) {
        return refuse(status);
    }
    AUDIO_TRACE_PRINTF(2, "MP3 at %d Hz %d channels %x encoding\n", static_cast<int>(rate), channels,
                       static_cast<unsigned int>(encoding));
    return configurePort(rate, channels, encoding);
}

/** Closes a file that can't be played and passes `status` on. */
streamStatus CMp3FilePlay::refuse(streamStatus status)
{
    (void)closeFile(); // always STREAM_OK
    return status;
}

/** Makes a decoder that waits to be fed. */
streamStatus CMp3FilePlay::startDecoder()
{
    int error = mpg123_init();
    if (error != MPG123_OK) {
        AUDIO_TRACE_PRINTF(5, "Could not init MPG123: %d - %s\n", error, mpg123_plain_strerror(error));
        return STREAM_ERROR;
    }
    mh = mpg123_new(nullptr, &error);
    if (mh == nullptr) {
        AUDIO_TRACE_PRINTF(5, "Could not create mpg123 handle: %d - %s\n", error, mpg123_plain_strerror(error));
        return STREAM_ERROR;
    }
    applyMp3Settings(mh);
    error = mpg123_open_feed(mh);
    if (error != MPG123_OK) {
        AUDIO_TRACE_PRINTF(5, "Could not open mpg123 feed: %d - %s\n", error, mpg123_plain_strerror(error));
        return STREAM_ERROR;
    }
    return STREAM_OK;
}

/**
 * Feeds the decoder until it tells the format of the first frame. What it has taken in stays in it, so that no audio is
 * lost: it says the format before it gives any.
 *
 * There is no way out at the end of the file: one without a frame keeps this reading there for ever.
 */
streamStatus CMp3FilePlay::findFormat(long& rate, int& channels, int& encoding)
{
    AUDIO_TRACE_PUTS(1, "Start initial decode for file params.");
    while (decodeStatus != MPG123_NEW_FORMAT) {
        newInBytes = static_cast<int>(::read(fnum, mp3InBuf, mp3InBufSize));
        if (newInBytes <= 0) {
            continue;
        }
        size_t numDecoded = 0;
        decodeStatus =
            mpg123_decode(mh, mp3InBuf, static_cast<size_t>(newInBytes), mp3OutBuf, mp3OutBufSize, &numDecoded);
        if (decodeStatus > 0) {
            AUDIO_TRACE_PRINTF(5, "Could not feed mpg123: read %d Bytes %d from file %d - %s\n",
                               static_cast<int>(numDecoded), newInBytes, decodeStatus,
                               mpg123_plain_strerror(decodeStatus));
            return STREAM_ERROR;
        }
        (void)mpg123_getformat(mh, &rate, &channels, &encoding); // knows nothing before the first frame
    }
    return STREAM_OK;
}

/** Gives the port the shape of the file; an encoding without a sample format closes the file again. */
streamStatus CMp3FilePlay::configurePort(long rate, int channels, int encoding)
{
    CUpstreamPort& out = *upstream[0];
    audioPortParam_t& params = out.params;
    params.nominalSampleRateStatus = FIXED;
    params.nominalSampleRate = static_cast<float>(rate);
    params.numChannelsStatus = FIXED;
    params.numChannels = static_cast<uint32_t>(channels);
    params.sampleFormatStatus = FIXED;
    params.sampleFormat = formatOfEncoding(encoding);
    params.periodSize = filePeriodSize;
    params.periodSizeStatus = VARIABLE;
    if (params.sampleFormat == SAMPLE_UNKNOWN) {
        AUDIO_TRACE_PUTS(1, "ERROR! Unexpected port configuration error");
        (void)out.disconnect(); // always STREAM_OK
        return refuse(PORT_CFG_ERROR);
    }
    return STREAM_OK;
}

// ---- reading

streamStatus CMp3FilePlay::reqReadPeriods(char*& pbuffer, unsigned int& nPeriods)
{
    AUDIO_TRACE_CALL();
    nPeriods = 0;
    pbuffer = nullptr;
    decodeStatus = MPG123_NEED_MORE;
    if (workBufferEmpty) {
        if (fnum == -1) {
            (void)openFile(); // whatever the reason, what follows tells that there is no file
        }
        if (fnum < 0 || !workBufferEmpty) {
            AUDIO_TRACE_PRINTF(5, "ERROR! file not open: %s\n", std::strerror(fnum)); // sic: the text of -1
            silenceFrom(0);
        } else if (decodePeriod()) {
            endOfFile();
            pbuffer = reinterpret_cast<char*>(workBuffer);
            nPeriods = 1;
            return STREAM_OK;
        }
    }
    AUDIO_TRACE_PRINTF(8, "Decoded %d MP3 samples, buffer state: %d\n", decodedBytes,
                       static_cast<int>(workBufferEmpty));
    if (isPeriodComplete()) {
        pbuffer = reinterpret_cast<char*>(workBuffer);
        nPeriods = 1;
        workBufferEmpty = false;
        decodedBytes = 0;
    }
    return STREAM_OK;
}

/** Whether the work buffer is full; without a buffer there is never a period to lend. */
bool CMp3FilePlay::isPeriodComplete() const
{
    return workBufferSize != 0 && static_cast<uint32_t>(decodedBytes) >= workBufferSize;
}

/**
 * Decodes into the work buffer until it is full or the file can't be read; answers whether the file has ended.
 *
 * Anything else that the decoder says with no output, a change of format in mid-file among it, is passed over: the port
 * keeps the format that it has.
 */
bool CMp3FilePlay::decodePeriod()
{
    while (static_cast<uint32_t>(decodedBytes) < workBufferSize) {
        size_t numDecoded = 0;
        decodeStatus = mpg123_decode(mh, nullptr, 0, workBuffer + decodedBytes,
                                     workBufferSize - static_cast<uint32_t>(decodedBytes), &numDecoded);
        decodedBytes += static_cast<int>(numDecoded);
        if (decodeStatus == MPG123_DONE) {
            AUDIO_TRACE_PUTS(1, "WARNING: End of file.");
            return true;
        }
        if (numDecoded != 0 || decodeStatus != MPG123_NEED_MORE) {
            continue;
        }
        bool ended = false;
        if (!feedDecoder(ended)) {
            return ended;
        }
    }
    return false;
}

/** Hands the decoder the next bytes of the file; false when there are none, `ended` when there will be none. */
bool CMp3FilePlay::feedDecoder(bool& ended)
{
    newInBytes = static_cast<int>(::read(fnum, mp3InBuf, mp3InBufSize));
    if (newInBytes < 0) {
        AUDIO_TRACE_PRINTF(0, "Error reading MP3 file: %d.\n", newInBytes);
        return false;
    }
    if (newInBytes == 0) {
        ended = true;
        return false;
    }
    decodeStatus = mpg123_decode(mh, mp3InBuf, static_cast<size_t>(newInBytes), nullptr, 0, nullptr);
    return true;
}

/** The end of the file: the period goes out with silence behind what there was, and nothing is left. */
void CMp3FilePlay::endOfFile()
{
    fileSizeSamples = 0;
    framesConsumed = 0;
    silenceFrom(decodedBytes);
    workBufferEmpty = false;
    decodedBytes = 0;
}

/** Silences the work buffer from byte `firstByte` on; does nothing without a buffer. */
void CMp3FilePlay::silenceFrom(int firstByte)
{
    const auto first = static_cast<uint32_t>(firstByte);
    if (first < workBufferSize) {
        std::memset(workBuffer + first, 0, workBufferSize - first);
    }
}

} // namespace audioLibrarySpace
