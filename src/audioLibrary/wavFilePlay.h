#pragma once

/**
 * CWavFilePlay: source block that plays one PCM WAV file.
 *
 *   file --read, one period a request--> workBuffer --lent--> CWavFilePlayUSP (the one output)
 *
 * The file decides the output's rate, channels and sample format, so it is opened before the port is connected; the
 * reader decides the period. Bytes are delivered as they lie in the file: nothing is swapped or scaled, and 8-bit data,
 * unsigned on disk, goes out under the label of signed samples. A block without a file delivers silence.
 *
 * Threads: setNewFile(), closeFile() and connecting on the thread that owns the player, with the port free; reads on
 * the reader's thread, which waits for the storage. No lock.
 */

#include "audioLibrary/audioPlay.h"

#include <cstdint>
#include <string>

namespace audioLibrarySpace
{

class CWavFilePlay;
struct wavHeader;
struct wavChunk;

/** The output of a CWavFilePlay. */
class CWavFilePlayUSP : public CUpstreamPort
{
public:
    explicit CWavFilePlayUSP(CWavFilePlay* parent);
    ~CWavFilePlayUSP() override;

    runTimeId getRunTimeId() override;
    /**
     * Adopts nothing: each field but trueSampleRate that this port needs otherwise is marked INCOMPATIBLE in
     * `newParams`, and the answer is then STREAM_ERROR.
     */
    streamStatus reconfigPortCheck(audioPortParam_t* newParams) override;
    /** Takes on a record that passes the check; makes the work buffer either way. Answers the check's status. */
    streamStatus reconfigPortApply(audioPortParam_t* newParams) override;
    streamStatus connectDownstream(CDownstreamPort* port, mutexObject* mutex) override;
    /**
     * Reads the next period of the file. Every request reads, acknowledged or not: a reader never asks twice.
     * The last period of the file is filled up with silence; after it, and without a file, all is silence.
     *
     * @param[out] pbuffer   one period, lent until ackReadPeriods()
     * @param[out] nPeriods  always 1
     * @return STREAM_OK, always
     * Thread: the reader's; blocks for as long as the storage takes.
     */
    streamStatus reqReadPeriods(char*& pbuffer, unsigned int& nPeriods) override;
    streamStatus ackReadPeriods(unsigned int nPeriods) override;

private:
    CWavFilePlay* block() const;
};

class CWavFilePlay : public CAudioFilePlay
{
public:
    explicit CWavFilePlay(std::string name);
    /** Closes the file and frees the work buffer. */
    ~CWavFilePlay() override;

    runTimeId getRunTimeId() override;
    /**
     * Opens the file `newName` and configures the free port for it.
     *
     * @return FILE_NOT_FOUND, INVALID_FORMAT, or STREAM_ERROR for a file without audio and for a connected port; the
     *         block then has no file. On a connected port the file that was open is closed all the same.
     */
    streamStatus setNewFile(std::string newName) override;
    /** No timed work: never service, STREAM_OK. */
    streamStatus service(CServiceTime& nextService) override;
    /**
     * Milliseconds until the end of the data chunk by what the reader has acknowledged; 0 once the file has ended. A
     * reader that has taken more than the chunk held before the end was seen gets a very large number.
     */
    int32_t timeLeft() override;
    /** Whether the file starts over at its end, from its first byte: the header is then heard as samples. */
    void setRewindAtEndOfFile(bool rewind);
    /** Back to no file. The period of the port becomes 8192 frames and free to change. */
    void closeFile();
    /** Goes to byte 0 of the file, if one is open. Always STREAM_OK. */
    streamStatus rewindFile();

protected:
    friend class CWavFilePlayUSP;

    /** Opens `filename`, finds its audio and configures the port, which must be free. */
    streamStatus openFile();
    /** One period of the connected port, silent; no buffer while the port is free. Always STREAM_OK. */
    streamStatus allocateWorkBuffer();

    int fnum = -1;                  ///< file descriptor, closed by closeFile(); -1 without a file
    bool workBufferEmpty = true;    ///< until the buffer is filled from the file after an acknowledgement
    uint32_t workBufferSize = 0;    ///< bytes in workBuffer, one period
    char* workBuffer = nullptr;     ///< owned; null until the port is connected
    uint32_t framesConsumed = 0;    ///< frames acknowledged so far; wraps
    uint32_t fileSizeBytes = 0;     ///< bytes in the data chunk, as its header says
    bool rewindAtEndOfFile = false; ///< loop at the end of the file

private:
    void forgetFile();
    streamStatus refuse(streamStatus status);
    bool readRecord(unsigned char* bytes, uint32_t numBytes);
    bool readHeader(wavHeader& header);
    bool findData(wavChunk& chunk);
    uint32_t readBroadcastExtension(const wavChunk& chunk);
    void configurePort(const wavHeader& header);
    bool portAgreesWith(const wavHeader& header) const;
    void readPeriod();
    void endOfFile();
    void silenceFrom(uint32_t firstByte);
    uint32_t dataFrames() const;
};

} // namespace audioLibrarySpace
