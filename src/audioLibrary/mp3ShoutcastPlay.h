#pragma once

/**
 * CMp3ShoutcastPlay: source block for internet MP3 streams, Shoutcast and Icecast.
 *
 *   URL --discovery: .pls, M3U, XSPF or the stream itself--> playlist --an entry is opened--> header, format
 *   socket --2048 bytes at a time--> libmpg123 --decodes into--> workBuffer --lent--> CMp3ShoutcastPlayUSP (one output)
 *
 * Discovery and connection are one state machine in `connectState`, advanced by one step a call of service(), every
 * 100 ms. A step makes one read or one write of a socket that never waits, and only the resolver is waited for. Once
 * the format is known the port takes it on, and from then on the audio moves when the reader asks. A stream that stalls
 * or is lost never stalls the reader: it gets no period, and service() looks for the next entry.
 *
 *   mp3ShoutcastPlay.cpp      the block, its states up to SHOUTCAST_ITEM_READY
 *   mp3ShoutcastDelivery.cpp  service(), recovery, delivery of audio
 *   shoutcastPlaylist.cpp     URLs and playlists as text
 *
 * Threads: all of it on the thread that services the blocks, the reads too. No lock. A pull allocates nothing.
 */

#include "audioLibrary/audioPlay.h"
#include "audioLibrary/osAbstraction/osAbstraction.h"
#include "audioLibrary/shoutcastPlaylist.h"

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>

struct mpg123_handle_struct;

namespace audioLibrarySpace
{

class CMp3ShoutcastPlay;

/** The output of a CMp3ShoutcastPlay. It can be connected once the stream is ready and has given it its format. */
class CMp3ShoutcastPlayUSP : public CUpstreamPort
{
public:
    explicit CMp3ShoutcastPlayUSP(CMp3ShoutcastPlay* parent);
    ~CMp3ShoutcastPlayUSP() override;

    runTimeId getRunTimeId() override;
    /** Takes on a record that passes the check; makes the work buffer either way. Answers the check's status. */
    streamStatus reconfigPortApply(audioPortParam_t* newParams) override;
    /** STREAM_ERROR until the stream is ready. */
    streamStatus connectDownstream(CDownstreamPort* port, mutexObject* mutex) override;
    /** CMp3ShoutcastPlay::reqReadPeriods(). */
    streamStatus reqReadPeriods(char*& pbuffer, unsigned int& nPeriods) override;
    /** Frees the period for the next request and counts its frames; 0 changes nothing. Always STREAM_OK. */
    streamStatus ackReadPeriods(unsigned int nPeriods) override;

private:
    CMp3ShoutcastPlay* block() const;
};

class CMp3ShoutcastPlay : public CAudioStreamPlay
{
public:
    /** What the top URL turned out to be. */
    enum streamMode_e : int32_t {
        UNKNOWN = 0,
        SHOUTCAST = 1,         ///< a .pls playlist
        ICECAST_M3U = 2,       ///< an M3U playlist
        ICECAST_XSPF = 3,      ///< an XSPF playlist
        DIRECT_CONNECTION = 4, ///< the stream itself
    };

    /** Where the block stands on its way to the audio. */
    enum connectState_e : int32_t {
        FAILED_TO_OPEN_PLAYLIST_ITEM = -2, ///< service() moves to the next entry
        FAILED_TO_OPEN_CONNECTION = -1,    ///< service() reports, then moves to the next entry
        NOT_READY = 0,                     ///< no URL yet
        OPEN_CONNECTION = 1,               ///< a socket for the top URL
        CONNECTING = 2,                    ///< its connection is being made
        REQUEST_PLAYLIST = 3,              ///< the top URL is asked for
        READ_PLAYLIST = 4,                 ///< the reply is gathered until a poll finds nothing new
        PARSE_PLAY_LIST = 5,               ///< the reply is identified and read
        CALL_OPEN_PLAY_LIST_ITEM = 6,      ///< the entries are listed
        OPEN_PLAYLIST_ITEM = 7,            ///< a socket for the current entry
        CONNECTING_PLAYLIST_ITEM = 8,      ///< its connection is being made; then the entry is asked for
        REQUEST_PLAYLIST_ITEM_HEADERS = 9, ///< the input is cleared
        INITIALIZE_MPG123 = 10,            ///< a decoder for the entry; ahead of the headers
        READ_PLAYLIST_ITEM_HEADERS = 11,   ///< 4096 bytes of header and audio are gathered
        PARSE_PLAYLIST_ITEM_HEADERS = 12,  ///< the end of the header is looked for
        GET_PORT_PARAMS = 13,              ///< the decoder is fed until it knows the format
        PARSE_PORT_PARAMS = 14,            ///< the port takes the format on, or must match it
        SHOUTCAST_ITEM_READY = 15,         ///< audio may be pulled
    };

    explicit CMp3ShoutcastPlay(std::string name);
    /** Closes the connection and the decoder, and frees the playlist and the buffers. */
    ~CMp3ShoutcastPlay() override;

    runTimeId getRunTimeId() override;
    /** The base text, then the entry in use. */
    std::string printBlockStatus() override;
    /**
     * Drops what is connected and sets out for `pUrl`: service() does the rest, step by step. The playlist stays until
     * another is read. Always STREAM_OK.
     */
    streamStatus setNewTopUrl(std::string pUrl) override;
    /**
     * Makes one step towards the audio, or decides what follows a failure. Asks for the next call 100 ms from now while
     * there is a step to make, and for none once the stream is ready.
     *
     * @return the step's status
     */
    streamStatus service(CServiceTime& nextService) override;
    /** 0 for a stream that has ended, has failed or is still being looked for; otherwise -1: it has no known end. */
    int32_t timeLeft() override;
    /**
     * Decodes what the socket has, up to one period, and lends it. Never waits.
     *
     * @param[out] pbuffer   one period, lent until the acknowledgement; may be null without one
     * @param[out] nPeriods  1, or 0 when there is no whole period yet
     * @return STREAM_OK; LOST_CONNECTION_TO_SERVER when the connection was given up in this very call
     * Real-time safe but for the closing of a lost connection.
     */
    streamStatus reqReadPeriods(char*& pbuffer, unsigned int& nPeriods);
    /** Closes the decoder and the connection; the stream is no longer ready. Always STREAM_OK. */
    streamStatus disconnectShoutcast();
    /** One period of the connected port; no buffer while the port is free. Always STREAM_OK. */
    streamStatus allocateWorkBuffer();

    bool getShoutcastConnected() const { return isShoutcastConnected; } ///< whether audio may be pulled
    std::string printPlayList() const;                                  ///< every entry, or that there is none
    std::string printCurrentItem() const;                               ///< the entry in use, or that there is none

    /** `end` minus `start`, with the nanoseconds from 0 to 999999999. */
    static timespec timediff(timespec start, timespec end);

protected:
    friend class CMp3ShoutcastPlayUSP;

    static constexpr uint32_t IOBUF_SIZE = 4096; ///< bytes of each buffer of the state machine

    bool isShoutcastConnected = false;    ///< the stream is ready and audio may be pulled
    mpg123_handle_struct* mh = nullptr;   ///< the decoder, deleted by closeDecoder(); null without one
    int fnum = -1;                        ///< read by nothing
    bool workBufferEmpty = true;          ///< a period has been taken
    uint32_t workBufferSize = 0;          ///< bytes in workBuffer, one period
    unsigned char* workBuffer = nullptr;  ///< one period of decoded audio, owned; null until the port is connected
    const uint32_t mp3InBufSize = 2048;   ///< bytes read from the socket at a time
    const uint32_t mp3OutBufSize = 32768; ///< bytes of output that the decoder is offered while it looks for a format
    unsigned char* mp3InBuf = nullptr;    ///< compressed input, owned
    unsigned char* mp3OutBuf = nullptr;   ///< output of the search for the format, owned; never looked at
    int newInBytes = 0;                   ///< what the last read of a pull gave
    int decodeStatus;                     ///< the last result of decoding; MPG123_NEED_MORE at first
    int decodedBytes = 0;                 ///< bytes of workBuffer that are filled for the next period
    std::string shoutcastUrl;             ///< the top URL
    sockObject connection;                ///< the one socket of the block; closed by closeConnection()
    shoutcastPlaylist playlist;           ///< the entries found, owned
    unsigned int currentPlaylistNum = 0;  ///< index of the entry in use; may be past the end: currentItem()
    connectState_e connectState = NOT_READY; ///< the state; written by become()
    streamMode_e streamMode = UNKNOWN;       ///< what the top URL turned out to be
    int bytesRecieved = 0;                   ///< what the last read of the state machine gave
    unsigned int headerBytes = 0;            ///< bytes gathered in recieveBuffer
    std::string rawData;                     ///< text of the reply that is being looked at
    char recieveBuffer[IOBUF_SIZE] = {};     ///< input of the state machine
    char transmitBuffer[IOBUF_SIZE] = {};    ///< the request
    CServiceTime startTime;                  ///< when the reply of the top URL began to be waited for
    CServiceTime now;                        ///< when it was last looked for
    int mpg123Status = 0;                    ///< status of the decoder's last setting-up call
    int channels = 0;                        ///< of the stream, as the decoder tells it
    int encoding = 0;                        ///< of the decoder's output, in its own numbers
    int32_t rate = 0;                        ///< of the stream, Hz
    int playlistfailcount = 0;               ///< entries that have failed in a row
    int streamRequestFailCount = 0;          ///< reads in a row that brought nothing
    bool noresponse = false;                 ///< the top URL answered nothing at all
    timespec nodata_start = {};              ///< the first empty read of a gap; zero when there is no gap
    timespec nodata_stop = {};               ///< the latest empty read of a gap
    timespec idle_time = {};                 ///< length of the gap so far
    uint32_t hoardedBytes = 0;               ///< fed to the decoder since it last gave anything, an error included

    /**
     * Compressed bytes that the decoder may keep to itself. It gathers a tag whole before it passes it over, and a tag
     * may claim 256 MB; no cover picture comes near this.
     */
    static constexpr uint32_t maxHoardedBytes = 16 * 1024 * 1024;

    /** One step of the states from OPEN_CONNECTION to CALL_OPEN_PLAY_LIST_ITEM towards the playlist at `pUrl`. */
    streamStatus openTopUrl(std::string pUrl);
    /** One step of the states from OPEN_PLAYLIST_ITEM to PARSE_PORT_PARAMS towards the stream at `pUrl`. */
    streamStatus connectShoutcast(std::string pUrl);
    /** The entry in use; null when currentPlaylistNum is past the end. Lives until the playlist is replaced. */
    const CShoutcastPlaylistItem* currentItem() const;
    /** The one writer of connectState. */
    void become(connectState_e state) { connectState = state; }

private:
    // The steps of openTopUrl().
    streamStatus stepOpenConnection(const std::string& pUrl);
    streamStatus stepConnecting();
    streamStatus stepRequestPlaylist(const std::string& pUrl);
    streamStatus stepReadPlaylist();
    streamStatus stepParsePlayList(const std::string& pUrl);
    streamStatus stepCallOpenPlayListItem();

    // The steps of connectShoutcast().
    streamStatus stepOpenPlaylistItem(const std::string& pUrl);
    streamStatus stepConnectingPlaylistItem(const std::string& pUrl);
    streamStatus stepRequestPlaylistItemHeaders();
    streamStatus stepInitializeMpg123();
    streamStatus stepReadPlaylistItemHeaders();
    streamStatus stepParsePlaylistItemHeaders();
    streamStatus stepGetPortParams();
    streamStatus stepParsePortParams();

    bool openSocket(std::string pUrl);
    void closeConnection();
    void closeDecoder();
    void takeReply();
    void tellHost();
    streamStatus fail(connectState_e state, streamStatus status);
    streamStatus playDirectly(const std::string& pUrl);
    streamStatus parseByContentType();
    streamStatus parsePlsReply();
    streamStatus takeEntries();
    streamStatus refuseContent();
    streamStatus requestItem(const std::string& pUrl);
    streamStatus startDecoder();
    streamStatus refuseDecoder(const char* what);
    bool findHeaderEnd(unsigned int& i) const;
    streamStatus searchFormat();
    streamStatus waitForFormat();
    bool configureFreePort();
    bool portFitsStream() const;

    // Recovery: what service() does by state.
    streamStatus tryNextItem(CServiceTime& nextService, const CServiceTime& due);
    streamStatus openCurrentItem(CServiceTime& nextService, const CServiceTime& due);
    streamStatus reportFailedConnection();
    streamStatus giveUpForGood();

    // Delivery.
    bool isPeriodComplete() const;
    void deliver(char*& pbuffer, unsigned int& nPeriods);
    void deliverEnd(char*& pbuffer, unsigned int& nPeriods);
    streamStatus decodePeriod();
    size_t decodeIntoWorkBuffer();
    streamStatus readStream();
    streamStatus lose(connectState_e state);
    streamStatus giveUpOnStalledItem();
    void countEmptyRead();
    void endGap();
    void feedDecoder();
    bool decoderHoards() const;
    void tellHoard() const;
};

} // namespace audioLibrarySpace
