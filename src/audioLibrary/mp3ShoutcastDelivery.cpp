/**
 * The running half of CMp3ShoutcastPlay: service() and the ways back after a loss, and the audio, which moves only when
 * the reader asks for it.
 */

#include "audioLibrary/mp3ShoutcastPlay.h"

#include <cstdio>
#include <cstring>
#include <mpg123.h>

namespace audioLibrarySpace
{

namespace
{

constexpr int32_t stepNs = 100000000; ///< from one step of the connection to the next

/** Whole seconds without data that a stream survives; one more and it is given up. */
constexpr time_t longestGapSeconds = 5;

/** The present on the clock of the service times. */
timespec monotonicNow()
{
    CServiceTime present;
    (void)present.setCurrentTime(); // always STREAM_OK
    timespec time = {};
    time.tv_sec = present.nextServiceTime.tv_sec;
    time.tv_nsec = present.nextServiceTime.tv_nsec;
    return time;
}

bool isZero(const timespec& time)
{
    return time.tv_sec == 0 && time.tv_nsec == 0;
}

/** Either part of a time as the lines print it. */
int printed(int64_t part)
{
    return static_cast<int>(part);
}

} // namespace

// ------------------------------------------------------------------------------------------- CMp3ShoutcastPlayUSP

streamStatus CMp3ShoutcastPlayUSP::reconfigPortApply(audioPortParam_t* newParams)
{
    AUDIO_TRACE_CALL();
    const streamStatus status = reconfigPortCheck(newParams);
    if (status == STREAM_OK) {
        params = *newParams;
    }
    (void)block()->allocateWorkBuffer(); // always STREAM_OK
    return status;
}

streamStatus CMp3ShoutcastPlayUSP::connectDownstream(CDownstreamPort* port, mutexObject* mutex)
{
    AUDIO_TRACE_CALL();
    if (!block()->isShoutcastConnected) {
        return STREAM_ERROR; // there is no format to connect with
    }
    return CUpstreamPort::connectDownstream(port, mutex);
}

streamStatus CMp3ShoutcastPlayUSP::reqReadPeriods(char*& pbuffer, unsigned int& nPeriods)
{
    AUDIO_TRACE_CALL();
    return block()->reqReadPeriods(pbuffer, nPeriods);
}

streamStatus CMp3ShoutcastPlayUSP::ackReadPeriods(unsigned int nPeriods)
{
    AUDIO_TRACE_CALL();
    if (nPeriods != 0) {
        block()->workBufferEmpty = true;
        incPeriodCount(nPeriods);
    }
    return STREAM_OK;
}

// ------------------------------------------------------------------------------------------- service and recovery

streamStatus CMp3ShoutcastPlay::service(CServiceTime& nextService)
{
    AUDIO_TRACE_CALL();
    CServiceTime due;
    (void)due.setCurrentTime(); // always STREAM_OK
    due += stepNs;              // from the moment of the call, however long the step takes

    if (isShoutcastConnected) {
        playlistfailcount = 0;
        nextService.setNeverService();
        return STREAM_OK;
    }
    switch (connectState) {
    case OPEN_CONNECTION:
    case CONNECTING:
    case REQUEST_PLAYLIST:
    case READ_PLAYLIST:
    case PARSE_PLAY_LIST:
    case CALL_OPEN_PLAY_LIST_ITEM:
        nextService = due;
        return openTopUrl(shoutcastUrl);
    case FAILED_TO_OPEN_PLAYLIST_ITEM:
        return tryNextItem(nextService, due);
    case FAILED_TO_OPEN_CONNECTION:
        return reportFailedConnection();
    case NOT_READY:
        nextService = due;
        return STREAM_OK;
    case OPEN_PLAYLIST_ITEM:
    case CONNECTING_PLAYLIST_ITEM:
    case REQUEST_PLAYLIST_ITEM_HEADERS:
    case INITIALIZE_MPG123:
    case READ_PLAYLIST_ITEM_HEADERS:
    case PARSE_PLAYLIST_ITEM_HEADERS:
    case GET_PORT_PARAMS:
    case PARSE_PORT_PARAMS:
    case SHOUTCAST_ITEM_READY:
        break;
    }
    return openCurrentItem(nextService, due);
}

/** After a failure of an entry. The list is gone through once: an entry past its end is the end of the trying. */
streamStatus CMp3ShoutcastPlay::tryNextItem(CServiceTime& nextService, const CServiceTime& due)
{
    if (playlistfailcount >= static_cast<int>(playlist.size())) {
        return giveUpForGood();
    }
    playlistfailcount++;
    currentPlaylistNum++;
    const CShoutcastPlaylistItem* item = currentItem();
    if (item == nullptr) {
        return STREAM_ERROR;
    }
    AUDIO_TRACE_PRINTF(0, "Trying next shoutcast playlist item: %s\n", item->title.c_str());
    become(OPEN_PLAYLIST_ITEM);
    nextService = due;
    return connectShoutcast(item->file);
}

/** A step towards the entry in use. */
streamStatus CMp3ShoutcastPlay::openCurrentItem(CServiceTime& nextService, const CServiceTime& due)
{
    if (playlistfailcount >= static_cast<int>(playlist.size())) {
        return giveUpForGood();
    }
    const CShoutcastPlaylistItem* item = currentItem();
    if (item == nullptr) {
        return STREAM_ERROR; // a new playlist may be shorter than the one that the index was in
    }
    AUDIO_TRACE_PRINTF(0, "Opening item %s \n", item->file.c_str()); // sic: the blank
    nextService = due;
    return connectShoutcast(item->file);
}

/** Told once; the next call moves to the next entry. The wish of the caller's last call stays. */
streamStatus CMp3ShoutcastPlay::reportFailedConnection()
{
    AUDIO_TRACE_PUTS(0, "ERROR! Failed to open shoutcast connection");
    become(FAILED_TO_OPEN_PLAYLIST_ITEM);
    fileStatus = FILE_ERROR;
    return STREAM_OK;
}

/** No entry is left. Each further call comes here again. */
streamStatus CMp3ShoutcastPlay::giveUpForGood()
{
    AUDIO_TRACE_PUTS(0, "ERROR! Failed to open any shoutcast servers");
    fileStatus = FILE_ERROR;
    return STREAM_OK;
}

int32_t CMp3ShoutcastPlay::timeLeft()
{
    AUDIO_TRACE_CALL();
    return fileStatus == FILE_ERROR || fileStatus == FILE_DONE ? 0 : -1;
}

// ------------------------------------------------------------------------------------------------------- delivery

streamStatus CMp3ShoutcastPlay::allocateWorkBuffer()
{
    AUDIO_TRACE_CALL();
    delete[] workBuffer;
    workBuffer = nullptr;
    workBufferSize = 0;
    CUpstreamPort* port = upstream.front();
    if (!port->isConnected(nullptr)) {
        return STREAM_OK;
    }
    const audioPortParam_t& params = port->params;
    workBufferSize = params.periodSize * params.numChannels * sampleFormatBytes(params.sampleFormat); // tells a bad one
    // Silent: a period that was being filled goes on from where it was, behind what is now silence.
    workBuffer = new unsigned char[workBufferSize]();
    return STREAM_OK;
}

streamStatus CMp3ShoutcastPlay::reqReadPeriods(char*& pbuffer, unsigned int& nPeriods)
{
    pbuffer = nullptr;
    nPeriods = 0;
    AUDIO_TRACE_CALL();
    if (!isShoutcastConnected) {
        pbuffer = reinterpret_cast<char*>(workBuffer);
        return STREAM_OK;
    }
    if (isPeriodComplete()) {
        deliver(pbuffer, nPeriods);
        return STREAM_OK;
    }
    if (decodeStatus == MPG123_DONE) {
        deliverEnd(pbuffer, nPeriods);
        return STREAM_OK;
    }
    const streamStatus status = decodePeriod();
    if (isPeriodComplete()) {
        deliver(pbuffer, nPeriods);
    }
    return status;
}

bool CMp3ShoutcastPlay::isPeriodComplete() const
{
    return static_cast<uint32_t>(decodedBytes) >= workBufferSize;
}

void CMp3ShoutcastPlay::deliver(char*& pbuffer, unsigned int& nPeriods)
{
    pbuffer = reinterpret_cast<char*>(workBuffer);
    nPeriods = 1;
    decodedBytes = 0;
}

/** One period of silence, for a stream that the decoder has declared at its end. */
void CMp3ShoutcastPlay::deliverEnd(char*& pbuffer, unsigned int& nPeriods)
{
    AUDIO_TRACE_PUTS(0, "WARNING: End of file.");
    fileStatus = FILE_DONE;
    std::memset(workBuffer, 0, workBufferSize);
    workBufferEmpty = false;
    deliver(pbuffer, nPeriods);
}

/**
 * Decodes until the period is complete or the socket has nothing more. Any answer of the decoder but that it needs
 * input is asked for once more: one that never changes, without output, holds the pull here.
 */
streamStatus CMp3ShoutcastPlay::decodePeriod()
{
    while (!isPeriodComplete()) {
        if (decodeIntoWorkBuffer() != 0 || decodeStatus != MPG123_NEED_MORE) {
            hoardedBytes = 0;
            continue;
        }
        if (decoderHoards()) {
            tellHoard();
            return lose(FAILED_TO_OPEN_PLAYLIST_ITEM);
        }
        const streamStatus status = readStream();
        if (status != STREAM_OK || newInBytes == 0) {
            return status; // what is decoded so far waits for the next pull
        }
        feedDecoder();
    }
    return STREAM_OK;
}

/** What the decoder has ready, up to the end of the period; answers the bytes. */
size_t CMp3ShoutcastPlay::decodeIntoWorkBuffer()
{
    const auto filled = static_cast<size_t>(decodedBytes);
    size_t numBytes = 0;
    decodeStatus = mpg123_decode(mh, nullptr, 0, workBuffer + filled, workBufferSize - filled, &numBytes);
    decodedBytes += static_cast<int>(numBytes);
    return numBytes;
}

void CMp3ShoutcastPlay::feedDecoder()
{
    size_t numBytes = 0;
    decodeStatus = mpg123_decode(mh, mp3InBuf, static_cast<size_t>(newInBytes), mp3OutBuf, 0, &numBytes);
    hoardedBytes += static_cast<uint32_t>(newInBytes);
}

bool CMp3ShoutcastPlay::decoderHoards() const
{
    return hoardedBytes > maxHoardedBytes;
}

void CMp3ShoutcastPlay::tellHoard() const
{
    fprintf(stderr, "no audio in %u bytes of the stream\n", hoardedBytes);
}

/** Reads what the socket has, and decides what becomes of a stream that it has nothing of. */
streamStatus CMp3ShoutcastPlay::readStream()
{
    newInBytes = osaSockRead(&connection, reinterpret_cast<char*>(mp3InBuf), mp3InBufSize);
    if (newInBytes == OSA_CONNECTION_LOST) {
        AUDIO_TRACE_PUTS(0, "ERROR! Connection lost.");
        return lose(FAILED_TO_OPEN_PLAYLIST_ITEM);
    }
    if (newInBytes < 0) {
        AUDIO_TRACE_PRINTF(0, "Got a %d errorcode from shoutcast stream\n", newInBytes);
        return lose(OPEN_PLAYLIST_ITEM); // the same entry again
    }
    if (idle_time.tv_sec > longestGapSeconds) {
        return giveUpOnStalledItem(); // whatever this read has brought
    }
    if (newInBytes == 0) {
        countEmptyRead();
    } else {
        endGap();
    }
    return STREAM_OK;
}

/** The connection is of no more use; service() goes on from `state`. */
streamStatus CMp3ShoutcastPlay::lose(connectState_e state)
{
    become(state);
    (void)disconnectShoutcast(); // always STREAM_OK
    return LOST_CONNECTION_TO_SERVER;
}

streamStatus CMp3ShoutcastPlay::giveUpOnStalledItem()
{
    const CShoutcastPlaylistItem* item = currentItem();
    const char* title = item == nullptr ? "" : item->title.c_str();
    printf("streamMode = %d, streamRequestFailCount = %d, Time:%d:%d\n", streamMode, streamRequestFailCount,
           printed(idle_time.tv_sec), printed(idle_time.tv_nsec));
    AUDIO_TRACE_PRINTF(0, "Shoutcast gave up on playlist item: %s.\n", title);
    AUDIO_TRACE_PRINTF(0, "Retrying item: %s.\n", title); // sic: the step goes on to the next one
    idle_time = {};
    streamRequestFailCount = 0;
    nodata_start = {};
    nodata_stop = {};
    return lose(FAILED_TO_OPEN_CONNECTION);
}

/** The first empty read begins a gap, the others measure it, in whole seconds. */
void CMp3ShoutcastPlay::countEmptyRead()
{
    if (nodata_start.tv_sec == 0 && nodata_stop.tv_nsec == 0) {
        nodata_start = monotonicNow();
    } else {
        nodata_stop = monotonicNow();
        idle_time.tv_sec = nodata_stop.tv_sec - nodata_start.tv_sec;
        if (nodata_stop.tv_nsec < nodata_start.tv_nsec) {
            idle_time.tv_sec--;
        }
    }
    streamRequestFailCount++;
}

void CMp3ShoutcastPlay::endGap()
{
    if (!isZero(nodata_start)) {
        nodata_stop = monotonicNow();
        idle_time = timediff(nodata_start, nodata_stop);
        printf("Start_Time: %d:%d Stop_Time: %d:%d Time between data: %d:%d\n", printed(nodata_start.tv_sec),
               printed(nodata_start.tv_nsec), printed(nodata_stop.tv_sec), printed(nodata_stop.tv_nsec),
               printed(idle_time.tv_sec), printed(idle_time.tv_nsec));
        nodata_start = {};
        nodata_stop = {};
        idle_time = {};
    }
    streamRequestFailCount = 0;
}

timespec CMp3ShoutcastPlay::timediff(timespec start, timespec end)
{
    timespec difference = {};
    difference.tv_sec = end.tv_sec - start.tv_sec;
    difference.tv_nsec = end.tv_nsec - start.tv_nsec;
    if (difference.tv_nsec < 0) {
        difference.tv_sec--;
        difference.tv_nsec += 1000000000;
    }
    return difference;
}

} // namespace audioLibrarySpace
