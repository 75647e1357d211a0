#pragma once

/**
 * CMp3FilePlay: source block that plays one MP3 file.
 *
 *   file --read, 2048 bytes at a time--> libmpg123 --decodes into--> workBuffer --lent--> CMp3FilePlayUSP (one output)
 *
 * The decoder is fed by hand, so that no read is longer than the storage can answer at once. The file decides the
 * output's rate, channels and sample format, so it is opened, and decoded as far as its first frame, before the port is
 * connected; the reader decides the period. The length is never known ahead: the file ends when it has ended.
 *
 * Threads: setNewFile(), closeFile() and connecting on the thread that owns the player, with the port free; reads on
 * the reader's thread, which waits for the storage and the decoder. No lock. A transfer allocates nothing here; what
 * the decoder keeps of its input it holds in memory of its own.
 */

#include "audioLibrary/audioPlay.h"

#include <cstdint>
#include <string>

struct mpg123_handle_struct;

namespace audioLibrarySpace
{

class CMp3FilePlay;

/** The output of a CMp3FilePlay. Its check is the base's: it adopts what it may. */
class CMp3FilePlayUSP : public CUpstreamPort
{
public:
    explicit CMp3FilePlayUSP(CMp3FilePlay* parent);
    ~CMp3FilePlayUSP() override;

    runTimeId getRunTimeId() override;
    /** Takes on a record that passes the check; makes the work buffer either way. Answers the check's status. */
    streamStatus reconfigPortApply(audioPortParam_t* newParams) override;
    /**
     * Closes the file of a connected port, then disconnects. A free port is left as it is, so that the second visit of
     * a chain does not undo what a file has configured since. Always STREAM_OK.
     */
    streamStatus disconnect() override;

    /** Drops the pointer to a peer whose block has been deleted: ports do not tell each other of their end. */
    void forgetDeadPeer();
    streamStatus connectDownstream(CDownstreamPort* port, mutexObject* mutex) override;
    /** CMp3FilePlay::reqReadPeriods(). */
    streamStatus reqReadPeriods(char*& pbuffer, unsigned int& nPeriods) override;
    /** Frees the period for the next request and counts its frames; 0 changes nothing. Always STREAM_OK. */
    streamStatus ackReadPeriods(unsigned int nPeriods) override;

private:
    CMp3FilePlay* block() const;
};

class CMp3FilePlay : public CAudioFilePlay
{
public:
    explicit CMp3FilePlay(std::string name);
    /** Disconnects the port, closes the file and frees the buffers. */
    ~CMp3FilePlay() override;

    runTimeId getRunTimeId() override;
    /**
     * Opens the file `newName`, decodes up to its first frame and configures the free port for it.
     *
     * A file in which the decoder finds no frame, a directory too, is read at its end for ever: this does not return
     * before the file has grown one. The decoder believes a frame when it has seen the header of the next, so a file of
     * a single frame has none.
     *
     * @return FILE_NOT_FOUND; PORT_CFG_ERROR for an encoding without a sample format; NO_MEMORY for a block whose
     *         buffers could not be made; STREAM_ERROR for a decoder that does not start, a file that it refuses, and a
     *         connected port. The block then has no file, whatever it had before.
     */
    streamStatus setNewFile(std::string newName) override;
    /** No timed work: never service, STREAM_OK. */
    streamStatus service(CServiceTime& nextService) override;
    /**
     * Milliseconds until the end of the file: 0 once it has ended, and before that a very large number that falls as
     * the reader acknowledges. It is no estimate of the length: whoever waits for the end sees it at the end.
     */
    int32_t timeLeft() override;
    /**
     * Back to no file and no decoder. The period of the port becomes 2048 frames and free to change. Always STREAM_OK.
     */
    streamStatus closeFile();

protected:
    friend class CMp3FilePlayUSP;

    /** Opens `filename`, decodes up to its first frame and configures the port, which must be free. */
    streamStatus openFile();
    /** One period of the connected port, silent; no buffer while the port is free. Always STREAM_OK. */
    streamStatus allocateWorkBuffer();
    /**
     * Decodes until the work buffer holds a period, which may take several requests, and lends it.
     *
     * The last period of the file is filled up with silence; after it all is silence.
     *
     * @param[out] pbuffer   one period, lent until the acknowledgement; null without one
     * @param[out] nPeriods  1, or 0 when there is no whole period, no file, or one that has yet to be acknowledged
     * @return STREAM_OK, always
     * Thread: the reader's; blocks for as long as the storage takes.
     */
    streamStatus reqReadPeriods(char*& pbuffer, unsigned int& nPeriods);

    mpg123_handle_struct* mh = nullptr;   ///< the decoder, deleted by closeFile(); null without a file
    int fnum = -1;                        ///< file descriptor, closed by closeFile(); -1 without a file
    bool workBufferEmpty = false;         ///< the next period has yet to be delivered; false until there is a buffer
    uint32_t workBufferSize = 0;          ///< bytes in workBuffer, one period
    unsigned char* workBuffer = nullptr;  ///< owned; null until the port is connected
    const uint32_t mp3InBufSize = 2048;   ///< bytes read from the file at a time
    const uint32_t mp3OutBufSize = 32768; ///< bytes of output that the decoder is offered while it looks for a frame
    unsigned char* mp3InBuf = nullptr;    ///< compressed input, owned
    unsigned char* mp3OutBuf = nullptr;   ///< output of the search for the format, owned; never looked at
    int newInBytes = 0;                   ///< what the last read of the file gave
    int decodeStatus = 0;                 ///< the decoder's last result
    int decodedBytes = 0;                 ///< bytes of workBuffer that are filled for the next period
    uint32_t framesConsumed = 0;          ///< frames acknowledged so far; wraps
    int fileSizeSamples = -1;             ///< -1 while the length isn't known, 0 after the end

private:
    streamStatus startDecoder();
    streamStatus findFormat(long& rate, int& channels, int& encoding);
    streamStatus configurePort(long rate, int channels, int encoding);
    streamStatus refuse(streamStatus status);
    void forgetFile();
    bool isPeriodComplete() const;
    bool decodePeriod();
    bool feedDecoder(bool& ended);
    void endOfFile();
    void silenceFrom(int firstByte);
};

} // namespace audioLibrarySpace
