#include "audioLibrary/mp3ShoutcastPlay.h"

#include "audioLibrary/mp3Decoding.h"

#include <algorithm>
#include <cassert>
#include <cstdio>
#include <cstring>
#include <mpg123.h>
#include <utility>

namespace audioLibrarySpace
{

namespace
{

constexpr uint32_t streamPeriodSize = 1024;    ///< frames; only a wish, the reader decides
constexpr int32_t longestSilence = 2000000000; ///< ns that a top URL may take to say its first word

/**
 * Bytes of a reply that are looked at. A stream that is taken for a playlist sends for as long as it is read; the
 * playlist of a station has a few hundred bytes.
 */
constexpr size_t maxReplyBytes = 65536;

/** Whether the reply `text` holds the words of `header`. */
bool has(const std::string& text, const char* header)
{
    return findStr(text, header) != std::string::npos;
}

} // namespace

// ------------------------------------------------------------------------------------------- CMp3ShoutcastPlayUSP

CMp3ShoutcastPlayUSP::CMp3ShoutcastPlayUSP(CMp3ShoutcastPlay* parent) : CUpstreamPort(parent)
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
    resetPortParams();
}

CMp3ShoutcastPlayUSP::~CMp3ShoutcastPlayUSP()
{
    AUDIO_TRACE_CALL();
}

runTimeId CMp3ShoutcastPlayUSP::getRunTimeId()
{
    AUDIO_TRACE_CALL();
    return MP3_SHOUTCAST_PLAY_USP;
}

CMp3ShoutcastPlay* CMp3ShoutcastPlayUSP::block() const
{
    return static_cast<CMp3ShoutcastPlay*>(parentBlock);
}

// ---------------------------------------------------------------------------------------------- CMp3ShoutcastPlay

CMp3ShoutcastPlay::CMp3ShoutcastPlay(std::string name)
    : CAudioStreamPlay(std::move(name)), decodeStatus(MPG123_NEED_MORE)
{
    AUDIO_TRACE_CALL();
    MAX_US_PORTS = 1;
    fileStatus = FILE_OK;
    upstream.push_back(new CMp3ShoutcastPlayUSP(this));
    mp3InBuf = newMp3Buffer(mp3InBufSize);
    mp3OutBuf = newMp3Buffer(mp3OutBufSize); // no smaller than what the decoder is told
}

CMp3ShoutcastPlay::~CMp3ShoutcastPlay()
{
    AUDIO_TRACE_CALL();
    closeConnection();
    closeDecoder();
    clearPlaylist(playlist);
    delete[] workBuffer;
    delete[] mp3OutBuf;
    delete[] mp3InBuf;
}

runTimeId CMp3ShoutcastPlay::getRunTimeId()
{
    AUDIO_TRACE_CALL();
    return MP3_SHOUTCAST_PLAY;
}

std::string CMp3ShoutcastPlay::printBlockStatus()
{
    AUDIO_TRACE_CALL();
    return CAudioBlock::printBlockStatus() + printCurrentItem();
}

streamStatus CMp3ShoutcastPlay::setNewTopUrl(std::string pUrl)
{
    AUDIO_TRACE_CALL();
    isShoutcastConnected = false;
    closeConnection();
    closeDecoder();
    topUrl = pUrl;
    shoutcastUrl = std::move(pUrl);
    become(OPEN_CONNECTION);
    bytesRecieved = 0;
    headerBytes = 0;
    rawData.clear();
    return STREAM_OK;
}

streamStatus CMp3ShoutcastPlay::disconnectShoutcast()
{
    AUDIO_TRACE_CALL();
    closeDecoder();
    isShoutcastConnected = false;
    closeConnection();
    return STREAM_OK;
}

/**
 * Closes the connection once, however often it is asked to: a second close of the same socket object could reach the
 * socket that has got its slot since.
 */
void CMp3ShoutcastPlay::closeConnection()
{
    if (connection.open != 0) {
        (void)osaSockClose(&connection); // nothing is left to be done about it
    }
    connection = sockObject();
}

void CMp3ShoutcastPlay::closeDecoder()
{
    if (mh != nullptr) {
        (void)mpg123_close(mh); // always succeeds on a decoder that is fed
        mpg123_delete(mh);
        mh = nullptr;
        hoardedBytes = 0;
    }
}

// ---- status

const CShoutcastPlaylistItem* CMp3ShoutcastPlay::currentItem() const
{
    return currentPlaylistNum < playlist.size() ? playlist[currentPlaylistNum] : nullptr;
}

std::string CMp3ShoutcastPlay::printCurrentItem() const
{
    AUDIO_TRACE_CALL();
    const CShoutcastPlaylistItem* item = currentItem();
    if (item == nullptr) {
        return "Playlist is empty\n";
    }
    return "Item: " + toString(currentPlaylistNum) + "\n" + std::string(*item);
}

std::string CMp3ShoutcastPlay::printPlayList() const
{
    AUDIO_TRACE_CALL();
    if (playlist.empty()) {
        return "Playlist is empty\n";
    }
    std::string text;
    for (unsigned int i = 0; i < playlist.size(); i++) {
        text += "Item: " + toString(i) + "\n" + std::string(*playlist[i]);
    }
    return text;
}

// ------------------------------------------------------------------------------------------- from URL to playlist

streamStatus CMp3ShoutcastPlay::openTopUrl(std::string pUrl)
{
    AUDIO_TRACE_CALL();
    fileStatus = FILE_ERROR; // a source that is still looking does not play
    // clang-format off
    switch (connectState) {
    //   state                     step                                goes to, or stays:
    case OPEN_CONNECTION:          return stepOpenConnection(pUrl);    // CONNECTING, after a failure too
    case CONNECTING:               return stepConnecting();            // REQUEST_PLAYLIST
    case REQUEST_PLAYLIST:         return stepRequestPlaylist(pUrl);   // READ_PLAYLIST
    case READ_PLAYLIST:            return stepReadPlaylist();          // PARSE_PLAY_LIST
    case PARSE_PLAY_LIST:          return stepParsePlayList(pUrl);     // CALL_OPEN_PLAY_LIST_ITEM with a playlist,
                                                                       // OPEN_PLAYLIST_ITEM with the stream itself,
                                                                       // FAILED_TO_OPEN_CONNECTION
    case CALL_OPEN_PLAY_LIST_ITEM: return stepCallOpenPlayListItem();  // OPEN_PLAYLIST_ITEM, FAILED_TO_OPEN_CONNECTION
    // the other half's
    case FAILED_TO_OPEN_PLAYLIST_ITEM:
    case FAILED_TO_OPEN_CONNECTION:
    case NOT_READY:
    case OPEN_PLAYLIST_ITEM:
    case CONNECTING_PLAYLIST_ITEM:
    case REQUEST_PLAYLIST_ITEM_HEADERS:
    case INITIALIZE_MPG123:
    case READ_PLAYLIST_ITEM_HEADERS:
    case PARSE_PLAYLIST_ITEM_HEADERS:
    case GET_PORT_PARAMS:
    case PARSE_PORT_PARAMS:
    case SHOUTCAST_ITEM_READY:
        return STREAM_OK;
    }
    // clang-format on
    return STREAM_OK;
}

/** Gives up what `state` is about: closes the connection and passes `status` on. */
streamStatus CMp3ShoutcastPlay::fail(connectState_e state, streamStatus status)
{
    closeConnection();
    become(state);
    return status;
}

/**
 * Opens a socket to the server of `pUrl`. What is still open is closed first: a stream that was found by asking for it
 * as a playlist leaves its first connection behind.
 */
bool CMp3ShoutcastPlay::openSocket(std::string pUrl)
{
    (void)formatUrl(pUrl); // always STREAM_OK
    closeConnection();
    connection.type = SOCKTYPE_TCP_CLIENT;
    (void)snprintf(connection.txAddr.host, sizeof connection.txAddr.host, "%s", extractHostname(pUrl).c_str());
    connection.txPort = extractPort(pUrl);
    return osaSockOpen(&connection) == OSA_OK;
}

streamStatus CMp3ShoutcastPlay::stepOpenConnection(const std::string& pUrl)
{
    if (isShoutcastConnected) {
        (void)disconnectShoutcast(); // always STREAM_OK
    }
    const bool opened = openSocket(pUrl);
    become(CONNECTING); // sic: after a failure too
    if (!opened) {
        AUDIO_TRACE_PUTS(1, "failed to open connection");
        return STREAM_ERROR;
    }
    AUDIO_TRACE_PRINTF(1, "connecting to %s:%d...\n", connection.txAddr.host, connection.txPort);
    return STREAM_OK;
}

/** Any answer but "in progress" counts as connected: what it is worth shows on the first read. */
streamStatus CMp3ShoutcastPlay::stepConnecting()
{
    if (osaSockConnect(&connection) == OSA_IN_PROGRESS) {
        return STREAM_OK;
    }
    tellHost();
    become(REQUEST_PLAYLIST);
    return STREAM_OK;
}

void CMp3ShoutcastPlay::tellHost()
{
    const unsigned char* ip = connection.txAddr.ip;
    AUDIO_TRACE_PUTS(1, "opened connection");
    AUDIO_TRACE_PRINTF(1, "Host is at %u.%u.%u.%u\n", ip[0], ip[1], ip[2], ip[3]);
}

/** Asks for the whole URL, scheme and host included: by its refusal a Shoutcast server shows that it is one. */
streamStatus CMp3ShoutcastPlay::stepRequestPlaylist(const std::string& pUrl)
{
    printf("GET %s HTTP/1.0\n", pUrl.c_str());
    (void)snprintf(transmitBuffer, sizeof transmitBuffer, "GET %s HTTP/1.0\r\n\r\n", pUrl.c_str());
    AUDIO_TRACE_PRINTF(0, "Requesting %s from stream\n", pUrl.c_str());
    // A request that could not be sent is one that nobody answers.
    (void)osaSockWrite(&connection, transmitBuffer, static_cast<unsigned int>(strlen(transmitBuffer)));
    (void)startTime.setCurrentTime(); // always STREAM_OK
    rawData.clear();
    become(READ_PLAYLIST);
    return STREAM_OK;
}

/** The reply is complete as soon as a poll finds no new bytes. */
streamStatus CMp3ShoutcastPlay::stepReadPlaylist()
{
    (void)now.setCurrentTime(); // always STREAM_OK
    recieveBuffer[IOBUF_SIZE - 1] = '\0';
    bytesRecieved = osaSockRead(&connection, recieveBuffer, IOBUF_SIZE - 1);
    if (bytesRecieved > 0) {
        takeReply();
        printf("1 read %d bytes\n", bytesRecieved);
        noresponse = false;
    } else if (!rawData.empty()) {
        printf("2 read %d bytes\n", bytesRecieved);
        noresponse = false;
        become(PARSE_PLAY_LIST);
    } else if (!startTime.immediateService && now - startTime > longestSilence) {
        puts("READ_PLAYLIST: No data received");
        noresponse = true;
        become(PARSE_PLAY_LIST);
    }
    return STREAM_OK;
}

/** Adds the bytes read, and, sic, whatever an earlier and longer read has left behind them, up to the first zero. */
void CMp3ShoutcastPlay::takeReply()
{
    rawData.append(recieveBuffer, std::min(strlen(recieveBuffer), maxReplyBytes - rawData.size()));
}

streamStatus CMp3ShoutcastPlay::stepParsePlayList(const std::string& pUrl)
{
    AUDIO_TRACE_PUTS(6, "Parsing playlist....");
    if (noresponse) {
        return playDirectly(pUrl);
    }
    if (has(rawData, "HTTP/1.1 200 OK")) {
        AUDIO_TRACE_PUTS(0, "HTTP acknowledgment received, Identifying stream");
        return parseByContentType();
    }
    if (has(rawData, "ICY 404 Resource Not Found")) {
        AUDIO_TRACE_PUTS(0, "ICY acknowledgement received or NO RESPONSE, direct shoutcast stream identified");
        return playDirectly(pUrl);
    }
    if (has(rawData, "HTTP/1.0 400 Bad Request")) {
        AUDIO_TRACE_PUTS(0, "BAD request received or NO RESPONSE, direct icecast stream identified");
        return playDirectly(pUrl);
    }
    AUDIO_TRACE_PUTS(0, "Neither HTTP nor ICY acknowledgement received.");
    printf("rawData: %s\n", rawData.c_str());
    return refuseContent();
}

/** The URL is the stream itself: a playlist of one. The connection stays for the next state to replace. */
streamStatus CMp3ShoutcastPlay::playDirectly(const std::string& pUrl)
{
    streamMode = DIRECT_CONNECTION;
    puts("case: DIRECT_SHOUTCAST or Direct_ICECAST");
    clearPlaylist(playlist);
    playlist.push_back(new CShoutcastPlaylistItem{pUrl, pUrl, ""});
    currentPlaylistNum = 0;
    become(OPEN_PLAYLIST_ITEM);
    return STREAM_OK;
}

streamStatus CMp3ShoutcastPlay::parseByContentType()
{
    if (has(rawData, "Content-Type: audio/x-scpls") || has(rawData, "Content-Type: application/pls+xml")) {
        streamMode = SHOUTCAST;
        puts("case: SHOUTCAST");
        return parsePlsReply();
    }
    if (has(rawData, "Content-Type: audio/x-mpegurl")) {
        streamMode = ICECAST_M3U;
        puts("case: ICECAST_M3U");
        parseM3u(rawData, playlist);
        return takeEntries();
    }
    if (has(rawData, "Content-Type: application/xspf+xml") || has(rawData, "Content-Type: text/xml")) {
        streamMode = ICECAST_XSPF;
        puts("ICECAST_XSPF"); // sic: the other cases say so
        parseXspf(rawData, playlist);
        return takeEntries();
    }
    return refuseContent();
}

/** A .pls may be without entries: the next state says so. */
streamStatus CMp3ShoutcastPlay::parsePlsReply()
{
    if (!parsePls(rawData, playlist, pTraceLevel)) {
        return fail(FAILED_TO_OPEN_CONNECTION, INVALID_SERVER);
    }
    closeConnection();
    become(CALL_OPEN_PLAY_LIST_ITEM);
    return STREAM_OK;
}

streamStatus CMp3ShoutcastPlay::takeEntries()
{
    if (playlist.empty()) {
        std::fputs("Playlist Empty\n", stderr);
        return fail(FAILED_TO_OPEN_CONNECTION, INVALID_SERVER);
    }
    closeConnection();
    become(CALL_OPEN_PLAY_LIST_ITEM);
    return STREAM_OK;
}

streamStatus CMp3ShoutcastPlay::refuseContent()
{
    streamMode = UNKNOWN;
    puts("case: UNKNOWN");
    std::fputs("Incorrect content type found\n", stderr);
    return fail(FAILED_TO_OPEN_CONNECTION, INVALID_SERVER);
}

streamStatus CMp3ShoutcastPlay::stepCallOpenPlayListItem()
{
    AUDIO_TRACE_PUTS(6, "Call open play list item....");
    if (playlist.empty()) {
        puts("Playlist is empty");
        become(FAILED_TO_OPEN_CONNECTION);
        return INVALID_SERVER;
    }
    int index = 0;
    for (const CShoutcastPlaylistItem* item : playlist) {
        printf("PLAYITEM %d:\n%s %s %s\n", index++, item->file.c_str(), item->title.c_str(), item->length.c_str());
    }
    become(OPEN_PLAYLIST_ITEM);
    return STREAM_OK;
}

// ------------------------------------------------------------------------------------------- from entry to format

streamStatus CMp3ShoutcastPlay::connectShoutcast(std::string pUrl)
{
    AUDIO_TRACE_CALL();
    // clang-format off
    switch (connectState) {
    //   state                          step                                     goes to, or stays; or fails:
    case OPEN_PLAYLIST_ITEM:            return stepOpenPlaylistItem(pUrl);       // CONNECTING_PLAYLIST_ITEM; fails
    case CONNECTING_PLAYLIST_ITEM:      return stepConnectingPlaylistItem(pUrl); // INITIALIZE_MPG123; fails
    case INITIALIZE_MPG123:             return stepInitializeMpg123();           // REQUEST_PLAYLIST_ITEM_HEADERS; fails
    case REQUEST_PLAYLIST_ITEM_HEADERS: return stepRequestPlaylistItemHeaders(); // READ_PLAYLIST_ITEM_HEADERS
    case READ_PLAYLIST_ITEM_HEADERS:    return stepReadPlaylistItemHeaders();    // PARSE_PLAYLIST_ITEM_HEADERS; fails
    case PARSE_PLAYLIST_ITEM_HEADERS:   return stepParsePlaylistItemHeaders();   // GET_PORT_PARAMS,
                                                                                 // FAILED_TO_OPEN_PLAYLIST_ITEM
    case GET_PORT_PARAMS:               return stepGetPortParams();              // PARSE_PORT_PARAMS; fails
    case PARSE_PORT_PARAMS:             return stepParsePortParams();            // SHOUTCAST_ITEM_READY; fails
    // fails: FAILED_TO_OPEN_CONNECTION. The other half's states, and the end:
    case FAILED_TO_OPEN_PLAYLIST_ITEM:
    case FAILED_TO_OPEN_CONNECTION:
    case NOT_READY:
    case OPEN_CONNECTION:
    case CONNECTING:
    case REQUEST_PLAYLIST:
    case READ_PLAYLIST:
    case PARSE_PLAY_LIST:
    case CALL_OPEN_PLAY_LIST_ITEM:
    case SHOUTCAST_ITEM_READY:
        return STREAM_OK;
    }
    // clang-format on
    return STREAM_OK;
}

streamStatus CMp3ShoutcastPlay::stepOpenPlaylistItem(const std::string& pUrl)
{
    AUDIO_TRACE_PUTS(6, "Open playlist item....");
    if (isShoutcastConnected) {
        (void)disconnectShoutcast(); // always STREAM_OK
    }
    AUDIO_TRACE_PRINTF(1, "Opening shoutcast stream at %s\n", pUrl.c_str());
    if (!openSocket(pUrl)) {
        AUDIO_TRACE_PUTS(1, "failed to open connection");
        become(FAILED_TO_OPEN_CONNECTION);
        return STREAM_ERROR;
    }
    AUDIO_TRACE_PRINTF(1, "Connecting to playlist item %s:%d...\n", connection.txAddr.host, connection.txPort);
    playlistfailcount = 0;
    become(CONNECTING_PLAYLIST_ITEM);
    return STREAM_OK;
}

streamStatus CMp3ShoutcastPlay::stepConnectingPlaylistItem(const std::string& pUrl)
{
    if (osaSockConnect(&connection) != OSA_IN_PROGRESS) {
        return requestItem(pUrl);
    }
    if (osaSockConnect(&connection) == OSA_CONNECTION_LOST) {
        AUDIO_TRACE_PUTS(1, "ERROR! Lost connection.");
        return fail(FAILED_TO_OPEN_CONNECTION, LOST_CONNECTION_TO_SERVER);
    }
    return STREAM_OK;
}

/** Asks the connected server for the path alone. */
streamStatus CMp3ShoutcastPlay::requestItem(const std::string& pUrl)
{
    tellHost();
    AUDIO_TRACE_PUTS(6, "Request play list item headers....");
    const std::string path = extractPath(pUrl);
    memset(transmitBuffer, 0, sizeof transmitBuffer);
    printf("pUrl = %s\n", pUrl.c_str());
    printf("extractPath(pUrl) = %s\n", path.c_str());
    (void)snprintf(transmitBuffer, sizeof transmitBuffer, "GET %s HTTP/1.0\r\n\r\n", path.c_str());
    printf("%s", transmitBuffer);
    // A request that could not be sent is one that nobody answers.
    (void)osaSockWrite(&connection, transmitBuffer, static_cast<unsigned int>(strlen(transmitBuffer)));
    become(INITIALIZE_MPG123);
    return STREAM_OK;
}

streamStatus CMp3ShoutcastPlay::stepRequestPlaylistItemHeaders()
{
    puts("Request playlist item headers.");
    headerBytes = 0;
    bytesRecieved = 0;
    rawData.clear();
    (void)startTime.setCurrentTime(); // always STREAM_OK
    become(READ_PLAYLIST_ITEM_HEADERS);
    return STREAM_OK;
}

streamStatus CMp3ShoutcastPlay::stepInitializeMpg123()
{
    AUDIO_TRACE_PUTS(6, "Initialize MPG123....");
    if (mp3InBuf == nullptr || mp3OutBuf == nullptr) {
        return fail(FAILED_TO_OPEN_CONNECTION, NO_MEMORY); // told when the block was made
    }
    closeDecoder(); // an entry that failed in its headers has left one
    const streamStatus status = startDecoder();
    become(status == STREAM_OK ? REQUEST_PLAYLIST_ITEM_HEADERS : FAILED_TO_OPEN_CONNECTION);
    return status;
}

/** Makes a decoder that waits to be fed. */
streamStatus CMp3ShoutcastPlay::startDecoder()
{
    mpg123Status = mpg123_init();
    if (mpg123Status != MPG123_OK) {
        return refuseDecoder("Could not init MPG123: ");
    }
    mh = mpg123_new(nullptr, &mpg123Status);
    if (mh == nullptr) {
        return refuseDecoder("Could not create mpg123 handle: ");
    }
    applyMp3Settings(mh);
    mpg123Status = mpg123_open_feed(mh);
    if (mpg123Status != MPG123_OK) {
        return refuseDecoder("Could not open mpg123 feed: ");
    }
    return STREAM_OK;
}

streamStatus CMp3ShoutcastPlay::refuseDecoder(const char* what)
{
    fprintf(stderr, "%s%d - %s\n", what, mpg123Status, mpg123_plain_strerror(mpg123Status));
    (void)disconnectShoutcast(); // always STREAM_OK
    return STREAM_ERROR;
}

/** Waits, without a limit, for a full buffer of header and audio. */
streamStatus CMp3ShoutcastPlay::stepReadPlaylistItemHeaders()
{
    puts("Read playlist item headers.");
    bytesRecieved = osaSockRead(&connection, recieveBuffer + headerBytes, IOBUF_SIZE - headerBytes);
    if (bytesRecieved < 0) {
        puts("bytesReceived<0");
        return fail(FAILED_TO_OPEN_CONNECTION, STREAM_OK);
    }
    if (bytesRecieved > 0) {
        puts("bytesReceived>0");
        headerBytes += static_cast<unsigned int>(bytesRecieved);
        AUDIO_TRACE_PRINTF(6, "ReadBytes %d\n", bytesRecieved);
    }
    if (headerBytes >= IOBUF_SIZE) {
        puts("headerBytes>=IOBUF_SIZE");
        become(PARSE_PLAYLIST_ITEM_HEADERS);
    }
    return STREAM_OK;
}

/** Looks for the empty line that ends the header, where at least one byte follows it; `i` is its index. */
bool CMp3ShoutcastPlay::findHeaderEnd(unsigned int& i) const
{
    for (i = 0; i + 5 <= headerBytes; i++) {
        if (memcmp(recieveBuffer + i, "\r\n\r\n", 4) == 0) {
            return true;
        }
    }
    return false;
}

streamStatus CMp3ShoutcastPlay::stepParsePlaylistItemHeaders()
{
    AUDIO_TRACE_PUTS(6, "Parse playlist item headers....");
    unsigned int i = 0;
    if (!findHeaderEnd(i)) {
        std::fputs("no MP3 start marker found\n", stderr);
        return fail(FAILED_TO_OPEN_PLAYLIST_ITEM, INVALID_SHOUTCAST_HEADER);
    }
    recieveBuffer[i] = '\0';
    rawData += recieveBuffer;
    puts(rawData.c_str());
    // clang-format off
    assert(mp3InBufSize < headerBytes-i-4); // sic: a header of 2044 bytes or more ends the process
    // clang-format on
    memcpy(mp3InBuf, recieveBuffer + i + 4, mp3InBufSize);
    mpg123Status = -1;
    bytesRecieved = static_cast<int>(headerBytes - i - 4);
    decodeStatus = MPG123_NEED_MORE;
    become(GET_PORT_PARAMS);
    return STREAM_OK;
}

/** Feeds the decoder; the first read replaces, sic, the audio that came with the header. */
streamStatus CMp3ShoutcastPlay::stepGetPortParams()
{
    puts("Getting Port Params...");
    if (decodeStatus == MPG123_NEW_FORMAT) {
        puts("MPG123_NEW_FORMAT == decodeStatus");
        become(PARSE_PORT_PARAMS);
        return STREAM_OK;
    }
    puts("MPG123_NEW_FORMAT != decodeStatus");
    if (decodeStatus == MPG123_NEED_MORE) {
        puts("Getting more params...");
        bytesRecieved = osaSockRead(&connection, reinterpret_cast<char*>(mp3InBuf), mp3InBufSize);
    }
    return bytesRecieved < 1 ? STREAM_OK : searchFormat();
}

/** Decodes what was read; the audio is not wanted yet, only its format. */
streamStatus CMp3ShoutcastPlay::searchFormat()
{
    const size_t numBytes = std::min(static_cast<size_t>(bytesRecieved), static_cast<size_t>(mp3InBufSize));
    size_t numDecoded = 0;
    decodeStatus = mpg123_decode(mh, mp3InBuf, numBytes, mp3OutBuf, mp3OutBufSize, &numDecoded);
    if (decodeStatus == MPG123_NEW_FORMAT) {
        puts("bytesReceived > 0 and MPG123_NEW_FORMAT==decodeStatus");
        long hertz = 0;
        (void)mpg123_getformat(mh, &hertz, &channels, &encoding); // has just been told that there is one
        rate = static_cast<int32_t>(hertz);
        return STREAM_OK;
    }
    if (decodeStatus == MPG123_NEED_MORE) {
        hoardedBytes += static_cast<uint32_t>(numBytes);
        return waitForFormat();
    }
    fprintf(stderr, "Could not feed mpg123: read %zu Bytes %d from file%d - %s\n", numDecoded, bytesRecieved,
            mpg123Status, mpg123_plain_strerror(mpg123Status));
    (void)disconnectShoutcast(); // always STREAM_OK
    become(FAILED_TO_OPEN_CONNECTION);
    return STREAM_ERROR;
}

/** Stays, unless the decoder has been fed too much for nothing: then the entry is passed over. */
streamStatus CMp3ShoutcastPlay::waitForFormat()
{
    if (decoderHoards()) {
        tellHoard();
        (void)disconnectShoutcast(); // always STREAM_OK
        become(FAILED_TO_OPEN_CONNECTION);
    }
    return STREAM_OK;
}

streamStatus CMp3ShoutcastPlay::stepParsePortParams()
{
    AUDIO_TRACE_PRINTF(1, "Stream parameters: %d Hz, %d channels, %d encoding\n", rate, channels, encoding);
    if (!upstream[0]->isConnected(nullptr)) {
        if (!configureFreePort()) {
            AUDIO_TRACE_PUTS(1, "Unexpected port configuration error");
            (void)upstream[0]->disconnect(); // always STREAM_OK
            return PORT_CFG_ERROR;
        }
    } else if (!portFitsStream()) {
        AUDIO_TRACE_PUTS(1, "Port is configured with different parameters");
        (void)disconnectShoutcast(); // always STREAM_OK
        become(FAILED_TO_OPEN_CONNECTION);
        return INVALID_SHOUTCAST_PARAM;
    }
    isShoutcastConnected = true;
    become(SHOUTCAST_ITEM_READY);
    fileStatus = FILE_OK;
    AUDIO_TRACE_PUTS(6, "Shoutcast is ready.");
    return STREAM_OK;
}

/** Gives the free port the shape of the stream; false for an encoding without a sample format. */
bool CMp3ShoutcastPlay::configureFreePort()
{
    audioPortParam_t& params = upstream[0]->params;
    params.nominalSampleRateStatus = FIXED;
    params.nominalSampleRate = static_cast<float>(rate);
    params.numChannelsStatus = FIXED;
    params.numChannels = static_cast<uint32_t>(channels);
    params.sampleFormatStatus = FIXED;
    params.sampleFormat = formatOfEncoding(encoding);
    params.periodSize = streamPeriodSize;
    params.periodSizeStatus = VARIABLE;
    return params.sampleFormat != SAMPLE_UNKNOWN;
}

/** Whether a port that is connected can carry the stream. Sic: one that is fixed at 8 bits takes 16 bits too. */
bool CMp3ShoutcastPlay::portFitsStream() const
{
    const audioPortParam_t& params = upstream[0]->params;
    if (params.nominalSampleRateStatus == FIXED && params.nominalSampleRate != static_cast<float>(rate)) {
        return false;
    }
    if (params.numChannelsStatus == FIXED && params.numChannels != static_cast<uint32_t>(channels)) {
        return false;
    }
    const bool eightBits = formatOfEncoding(encoding) == SAMPLE_S8BIT;
    return params.sampleFormatStatus != FIXED || !eightBits || params.sampleFormat == SAMPLE_S8BIT;
}

} // namespace audioLibrarySpace
