/**
 * The WAV source: opened and walked through to its audio on the thread that owns the player, read on the reader's.
 */

#include "audioLibrary/wavFilePlay.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

namespace audioLibrarySpace
{

// What opens a file: one RIFF header with the format chunk in it, 36 bytes, then chunks one after the other. The format
// chunk is taken to be 16 bytes long whatever its size field says, and chunks are not padded to even lengths.

/** The first 36 bytes of the file, decoded from little-endian. */
struct wavHeader {
    char ChunkID[4];
    uint32_t ChunkSize;
    char Format[4];
    char Subchunk1ID[4];
    uint32_t Subchunk1Size;
    uint16_t AudioFormat;
    uint16_t NumChannels;
    uint32_t SampleRate;
    uint32_t ByteRate;
    uint16_t BlockAlign;
    uint16_t BitsPerSample;
};

/** What stands ahead of each chunk, decoded. */
struct wavChunk {
    char ChunkID[4];
    uint32_t ChunkSize;
};

namespace
{

constexpr uint32_t headerBytes = 36;
constexpr uint32_t chunkHeaderBytes = 8;
constexpr uint32_t filePeriodSize = 8192; ///< frames; only a wish, the reader decides
constexpr uint16_t formatPcm = 1;
constexpr uint16_t maxChannels = 2;
constexpr uint32_t maxSampleRate = 48000; ///< Hz

/** A broadcast extension chunk without its unlimited tail. Read past, never looked at. */
struct bextRecord {
    char bextChunkID[4];
    uint32_t bextChunkSize;
    char bextData[752];
};

uint16_t littleEndian16(const unsigned char* bytes)
{
    return static_cast<uint16_t>(bytes[0] | (bytes[1] << 8));
}

uint32_t littleEndian32(const unsigned char* bytes)
{
    return littleEndian16(bytes) | (static_cast<uint32_t>(littleEndian16(bytes + 2)) << 16);
}

wavHeader decodeHeader(const unsigned char* bytes)
{
    wavHeader header;
    std::memcpy(header.ChunkID, bytes, sizeof header.ChunkID);
    header.ChunkSize = littleEndian32(bytes + 4);
    std::memcpy(header.Format, bytes + 8, sizeof header.Format);
    std::memcpy(header.Subchunk1ID, bytes + 12, sizeof header.Subchunk1ID);
    header.Subchunk1Size = littleEndian32(bytes + 16);
    header.AudioFormat = littleEndian16(bytes + 20);
    header.NumChannels = littleEndian16(bytes + 22);
    header.SampleRate = littleEndian32(bytes + 24);
    header.ByteRate = littleEndian32(bytes + 28);
    header.BlockAlign = littleEndian16(bytes + 32);
    header.BitsPerSample = littleEndian16(bytes + 34);
    return header;
}

wavChunk decodeChunk(const unsigned char* bytes)
{
    wavChunk chunk;
    std::memcpy(chunk.ChunkID, bytes, sizeof chunk.ChunkID);
    chunk.ChunkSize = littleEndian32(bytes + 4);
    return chunk;
}

bool isId(const char (&id)[4], const char* text)
{
    return std::memcmp(id, text, sizeof id) == 0;
}

/** The format that a width in bits goes out as; SAMPLE_UNKNOWN for a width that isn't played. */
sampleFormat_e formatOfWidth(uint16_t bitsPerSample)
{
    switch (bitsPerSample) {
    case 8:
        return SAMPLE_S8BIT;
    case 16:
        return SAMPLE_S16BIT_LE;
    case 32:
        return SAMPLE_S32BIT_LE;
    default:
        return SAMPLE_UNKNOWN;
    }
}

/** No channel at all passes, and the rate has no lower limit. */
bool isPlayable(const wavHeader& header)
{
    return isId(header.ChunkID, "RIFF") && isId(header.Format, "WAVE") && isId(header.Subchunk1ID, "fmt ") &&
           header.AudioFormat == formatPcm && header.NumChannels <= maxChannels && header.SampleRate <= maxSampleRate &&
           formatOfWidth(header.BitsPerSample) != SAMPLE_UNKNOWN;
}

/** Marks a field that this port can't change to what is asked; answers whether it had to. */
template <typename Value>
bool markIfIncompatible(paramStatus_e ownStatus, Value ownValue, paramStatus_e& askedStatus, Value askedValue)
{
    if (ownStatus == VARIABLE || ownValue == askedValue) {
        return false;
    }
    askedStatus = INCOMPATIBLE;
    return true;
}

} // namespace

CWavFilePlayUSP::CWavFilePlayUSP(CWavFilePlay* parent) : CUpstreamPort(parent)
{
    AUDIO_TRACE_CALL();
    resetParams.nominalSampleRateStatus = VARIABLE;
    resetParams.nominalSampleRate = 44100.0F;
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

CWavFilePlayUSP::~CWavFilePlayUSP()
{
    AUDIO_TRACE_CALL();
}

runTimeId CWavFilePlayUSP::getRunTimeId()
{
    AUDIO_TRACE_CALL();
    return WAV_FILE_PLAY_USP;
}

CWavFilePlay* CWavFilePlayUSP::block() const
{
    return static_cast<CWavFilePlay*>(parentBlock);
}

streamStatus CWavFilePlayUSP::reconfigPortCheck(audioPortParam_t* newParams)
{
    AUDIO_TRACE_CALL();
    audioPortParam_t& asked = *newParams;
    bool failed = markIfIncompatible(params.nominalSampleRateStatus, params.nominalSampleRate,
                                     asked.nominalSampleRateStatus, asked.nominalSampleRate);
    failed |=
        markIfIncompatible(params.numChannelsStatus, params.numChannels, asked.numChannelsStatus, asked.numChannels);
    failed |= markIfIncompatible(params.periodSizeStatus, params.periodSize, asked.periodSizeStatus, asked.periodSize);
    failed |= markIfIncompatible(params.sampleFormatStatus, params.sampleFormat, asked.sampleFormatStatus,
                                 asked.sampleFormat);
    failed |= markIfIncompatible(params.samplesInterleavedStatus, params.samplesInterleaved,
                                 asked.samplesInterleavedStatus, asked.samplesInterleaved);
    return failed ? STREAM_ERROR : STREAM_OK;
}

streamStatus CWavFilePlayUSP::reconfigPortApply(audioPortParam_t* newParams)
{
    AUDIO_TRACE_CALL();
    const streamStatus status = reconfigPortCheck(newParams);
    if (status == STREAM_OK) {
        params = *newParams;
    }
    (void)block()->allocateWorkBuffer(); // can't fail
    return status;
}

streamStatus CWavFilePlayUSP::connectDownstream(CDownstreamPort* port, mutexObject* mutex)
{
    AUDIO_TRACE_CALL();
    return CUpstreamPort::connectDownstream(port, mutex);
}

streamStatus CWavFilePlayUSP::reqReadPeriods(char*& pbuffer, unsigned int& nPeriods)
{
    AUDIO_TRACE_CALL();
    CWavFilePlay& wav = *block();
    if (wav.workBufferEmpty && wav.fnum == -1) {
        (void)wav.openFile(); // without a file there is silence, whatever the reason
    }
    if (wav.fnum < 0) {
        wav.silenceFrom(0);
    } else {
        wav.readPeriod();
    }
    pbuffer = wav.workBuffer;
    nPeriods = 1;
    return STREAM_OK;
}

streamStatus CWavFilePlayUSP::ackReadPeriods(unsigned int nPeriods)
{
    AUDIO_TRACE_CALL();
    CWavFilePlay& wav = *block();
    if (nPeriods != 0) {
        wav.workBufferEmpty = true;
        incPeriodCount(nPeriods);
    }
    if (wav.fileStatus == FILE_OK) {
        wav.framesConsumed += params.periodSize * nPeriods;
    }
    return STREAM_OK;
}

CWavFilePlay::CWavFilePlay(std::string name) : CAudioFilePlay(std::move(name))
{
    AUDIO_TRACE_CALL();
    upstream.push_back(new CWavFilePlayUSP(this));
}

CWavFilePlay::~CWavFilePlay()
{
    AUDIO_TRACE_CALL();
    forgetFile();
    delete[] workBuffer;
}

runTimeId CWavFilePlay::getRunTimeId()
{
    AUDIO_TRACE_CALL();
    return WAV_FILE_PLAY;
}

streamStatus CWavFilePlay::setNewFile(std::string newName)
{
    AUDIO_TRACE_CALL();
    filename = std::move(newName);
    const streamStatus status = openFile();
    if (status == STREAM_ERROR) {
        forgetFile();
    }
    return status;
}

void CWavFilePlay::setRewindAtEndOfFile(bool rewind)
{
    AUDIO_TRACE_CALL();
    rewindAtEndOfFile = rewind;
}

streamStatus CWavFilePlay::service(CServiceTime& nextService)
{
    AUDIO_TRACE_CALL();
    nextService.setNeverService();
    return STREAM_OK;
}

int32_t CWavFilePlay::timeLeft()
{
    AUDIO_TRACE_CALL();
    const uint32_t left = dataFrames() - framesConsumed; // wraps when the reader has taken more than there was
    const float seconds = static_cast<float>(left) / upstream[0]->params.nominalSampleRate;
    const auto milliseconds = static_cast<int32_t>(saturatingToUnsigned(seconds * 1000.0F));
    AUDIO_TRACE_PRINTF(6, "Time to end of file: %ld\n", static_cast<long>(milliseconds));
    return milliseconds;
}

/** Frames in the data chunk by the port's present shape; 0 for a shape without bytes. */
uint32_t CWavFilePlay::dataFrames() const
{
    CUpstreamPort& out = *upstream[0];
    const uint32_t frameBytes = out.params.numChannels * out.getSampleBytes();
    return frameBytes == 0 ? 0 : fileSizeBytes / frameBytes;
}

void CWavFilePlay::closeFile()
{
    AUDIO_TRACE_CALL();
    forgetFile();
}

void CWavFilePlay::forgetFile()
{
    if (fnum >= 0) {
        ::close(fnum);
    }
    fnum = -1;
    fileStatus = FILE_NONE;
    upstream[0]->params.periodSize = filePeriodSize;
    upstream[0]->params.periodSizeStatus = VARIABLE;
}

streamStatus CWavFilePlay::rewindFile()
{
    AUDIO_TRACE_CALL();
    if (fnum >= 0) {
        (void)::lseek(fnum, 0, SEEK_SET); // the next read tells
    }
    return STREAM_OK;
}

streamStatus CWavFilePlay::allocateWorkBuffer()
{
    AUDIO_TRACE_CALL();
    delete[] workBuffer;
    workBuffer = nullptr;
    workBufferSize = 0;
    CUpstreamPort& out = *upstream[0];
    if (out.isConnected(nullptr)) {
        workBufferSize = out.getPeriodBytes();
        workBuffer = new char[workBufferSize](); // silent: a failing read delivers it as it stands
    }
    workBufferEmpty = true;
    return STREAM_OK;
}

streamStatus CWavFilePlay::openFile()
{
    AUDIO_TRACE_CALL();
    CUpstreamPort& out = *upstream[0];
    if (out.isConnected(nullptr)) {
        return STREAM_ERROR; // the format can only be taken on while the port is free
    }
    AUDIO_TRACE_PRINTF(2, "Opening WAV file %s\n", filename.c_str());
    forgetFile();
    fnum = ::open(filename.c_str(), O_RDONLY | O_CLOEXEC);
    if (fnum < 0) {
        AUDIO_TRACE_PRINTF(1, "ERROR opening file: %s\n", std::strerror(fnum)); // sic: the text of -1
        return FILE_NOT_FOUND;
    }
    wavHeader header;
    if (!readHeader(header)) {
        return refuse(STREAM_ERROR);
    }
    if (!isPlayable(header)) {
        AUDIO_TRACE_PUTS(0, "ERROR invalid WAV file header");
        return refuse(INVALID_FORMAT);
    }
    wavChunk data;
    if (!findData(data)) {
        return refuse(STREAM_ERROR);
    }
    if (!out.isConnected(nullptr)) {
        configurePort(header);
    }
    if (out.isConnected(nullptr) && !portAgreesWith(header)) {
        AUDIO_TRACE_PUTS(1, "Unexpected port configuration error");
        (void)out.disconnect(); // always STREAM_OK
        return refuse(PORT_CFG_ERROR);
    }
    fileSizeBytes = data.ChunkSize;
    fileStatus = FILE_OK;
    framesConsumed = 0;
    return STREAM_OK;
}

/** Closes a file that can't be played and passes `status` on. */
streamStatus CWavFilePlay::refuse(streamStatus status)
{
    closeFile();
    return status;
}

/** Reads `numBytes` of a record of the file; tells when there are fewer. */
bool CWavFilePlay::readRecord(unsigned char* bytes, uint32_t numBytes)
{
    const ssize_t numRead = ::read(fnum, bytes, numBytes);
    if (numRead == static_cast<ssize_t>(numBytes)) {
        return true;
    }
    AUDIO_TRACE_PRINTF(0, "ERROR reading WAV file header (%d bytes read/ expected %d bytes)\n",
                       static_cast<int>(numRead), static_cast<int>(numBytes));
    return false;
}

bool CWavFilePlay::readHeader(wavHeader& header)
{
    unsigned char bytes[headerBytes];
    if (!readRecord(bytes, headerBytes)) {
        return false;
    }
    header = decodeHeader(bytes);
    const char* id = header.ChunkID;
    AUDIO_TRACE_PRINTF(3, "ChunkID:           %c%c%c%c\n", id[0], id[1], id[2], id[3]);
    AUDIO_TRACE_PRINTF(3, "ChunkSize:         %u\n", header.ChunkSize);
    id = header.Format;
    AUDIO_TRACE_PRINTF(3, "Format:            %c%c%c%c\n", id[0], id[1], id[2], id[3]);
    id = header.Subchunk1ID;
    AUDIO_TRACE_PRINTF(3, "Subchunk1ID:       %c%c%c%c\n", id[0], id[1], id[2], id[3]);
    AUDIO_TRACE_PRINTF(3, "Subchunk1Size:     %u\n", header.Subchunk1Size);
    AUDIO_TRACE_PRINTF(3, "AudioFormat:       %u\n", unsigned{header.AudioFormat});
    AUDIO_TRACE_PRINTF(3, "NumChannels:       %u\n", unsigned{header.NumChannels});
    AUDIO_TRACE_PRINTF(3, "SampleRate:        %u\n", header.SampleRate);
    AUDIO_TRACE_PRINTF(3, "ByteRate:          %u\n", header.ByteRate);
    AUDIO_TRACE_PRINTF(3, "BlockAlign:        %u\n", unsigned{header.BlockAlign});
    AUDIO_TRACE_PRINTF(3, "BitsPerSample:     %u\n", unsigned{header.BitsPerSample});
    return true;
}

/**
 * Walks the chunks from behind the header until it stands at the first byte of audio.
 *
 * Each turn takes eight bytes off a file that is only ever moved forward in, so a made-up size ends the walk at the
 * file's end at the latest.
 */
bool CWavFilePlay::findData(wavChunk& chunk)
{
    uint32_t position = headerBytes;
    for (;;) {
        unsigned char bytes[chunkHeaderBytes];
        if (!readRecord(bytes, chunkHeaderBytes)) {
            return false;
        }
        chunk = decodeChunk(bytes);
        position += chunkHeaderBytes;
        AUDIO_TRACE_PRINTF(0, "Found chunk at %d. ID: %s, size: %d\n", static_cast<int>(position),
                           std::string(chunk.ChunkID, sizeof chunk.ChunkID).c_str(), static_cast<int>(chunk.ChunkSize));
        uint32_t rbytes = 0;
        if (isId(chunk.ChunkID, "bext")) {
            rbytes = readBroadcastExtension(chunk);
            position += rbytes;
        }
        if (isId(chunk.ChunkID, "data")) {
            AUDIO_TRACE_PRINTF(0, "Found %d bytes of data.\n", static_cast<int>(chunk.ChunkSize));
            return true;
        }
        const uint32_t seek = chunk.ChunkSize - rbytes;
        if (seek > 0) {
            position = static_cast<uint32_t>(::lseek(fnum, static_cast<off_t>(seek), SEEK_CUR));
            AUDIO_TRACE_PRINTF(0, "Skipping %d bytes of junk\n", static_cast<int>(seek));
        }
    }
}

/** Reads what the record holds of the chunk and answers how many bytes that was; the walk skips what is left of it. */
uint32_t CWavFilePlay::readBroadcastExtension(const wavChunk& chunk)
{
    bextRecord bext;
    std::memcpy(bext.bextChunkID, chunk.ChunkID, sizeof bext.bextChunkID);
    bext.bextChunkSize = chunk.ChunkSize;
    const size_t wanted = std::min<size_t>(bext.bextChunkSize, sizeof bext.bextData);
    const ssize_t numRead = ::read(fnum, bext.bextData, wanted);
    return numRead < 0 ? 0 : static_cast<uint32_t>(numRead);
}

void CWavFilePlay::configurePort(const wavHeader& header)
{
    audioPortParam_t& params = upstream[0]->params;
    params.nominalSampleRateStatus = FIXED;
    params.nominalSampleRate = static_cast<float>(header.SampleRate);
    params.numChannelsStatus = FIXED;
    params.numChannels = header.NumChannels;
    params.sampleFormatStatus = FIXED;
    params.sampleFormat = formatOfWidth(header.BitsPerSample);
    params.periodSizeStatus = VARIABLE;
    params.periodSize = filePeriodSize;
}

bool CWavFilePlay::portAgreesWith(const wavHeader& header) const
{
    const audioPortParam_t& params = upstream[0]->params;
    return params.numChannels == header.NumChannels &&
           params.nominalSampleRate == static_cast<float>(header.SampleRate) &&
           params.sampleFormat == formatOfWidth(header.BitsPerSample);
}

/** Fills the work buffer with the next period of the open file. */
void CWavFilePlay::readPeriod()
{
    AUDIO_TRACE_PRINTF(8, "Reading wave file(%d)\n", static_cast<int>(workBufferSize));
    const ssize_t numRead = ::read(fnum, workBuffer, workBufferSize);
    if (numRead < 0) {
        return; // the buffer goes out as it stands
    }
    if (numRead == static_cast<ssize_t>(workBufferSize)) {
        workBufferEmpty = false;
        return;
    }
    if (numRead > 0) {
        workBufferEmpty = false;
    } else {
        endOfFile();
    }
    silenceFrom(static_cast<uint32_t>(numRead));
}

/** The end, from which a file does not come back: looped or not, it stays done and its frames stay counted. */
void CWavFilePlay::endOfFile()
{
    framesConsumed = dataFrames();
    if (rewindAtEndOfFile) {
        (void)rewindFile(); // always STREAM_OK
        AUDIO_TRACE_PUTS(8, "End of file reached - rewinding");
    } else {
        AUDIO_TRACE_PUTS(8, "End of file reached");
    }
    fileStatus = FILE_DONE;
}

/** Silences the work buffer from byte `firstByte` on; does nothing without a buffer. */
void CWavFilePlay::silenceFrom(uint32_t firstByte)
{
    if (firstByte < workBufferSize) {
        std::memset(workBuffer + firstByte, 0, workBufferSize - firstByte);
    }
}

} // namespace audioLibrarySpace
