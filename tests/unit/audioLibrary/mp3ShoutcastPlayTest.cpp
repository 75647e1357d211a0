/**
 * The stream block on its way from a URL to a known format, on sockets and a decoder that follow a script.
 *
 * A row of the state machine is one test: the state, what the peer does, and then the step's status, the next state
 * and the lines printed.
 */

#include "audioLibrary/mp3ShoutcastPlay.h"

#include "audioLibrary/graphTestSupport.h"
#include "audioLibrary/literalBlocks.h"
#include "audioLibrary/mp3Files.h"

#include <cstdio>
#include <cstring>
#include <deque>
#include <functional>
#include <gmock/gmock.h>
#include <limits>
#include <mpg123.h>
#include <new>
#include <optional>
#include <sstream>

using namespace audioLibrarySpace;
using namespace testing;
using graphTest::clockTime;
using graphTest::GraphTest;
using graphTest::Lines;

// ---- stand-ins

namespace
{

/** One read of the peer's bytes: what comes, or the status that comes instead. */
struct Read {
    std::string bytes = {};
    int status = 0;
};

/** What the network and the decoder do next, and what they were asked. */
struct Script {
    std::deque<osaStatus> opens;    ///< OSA_OK once they are used up
    std::deque<osaStatus> connects; ///< OSA_OK once they are used up
    std::deque<Read> reads;         ///< nothing more comes once they are used up
    Lines calls;                    ///< of the sockets, and of the decoder's setting up
    std::vector<sockObject> opened; ///< as they stood when they were opened
    std::string written;            ///< the last request
    int socketsOpen = 0;

    std::optional<int> init, newError, openFeed;
    std::deque<int> decode; ///< results of the next decodes, with no work done
    std::optional<int> rate, channels, encoding;
    size_t decodeInBytes = 0, decodeOutBytes = 0; ///< of the last decode
    std::string decoded;                          ///< all input of the decoder
    int decodersOpen = 0;
};

Script script;

template <typename... Parts> void called(const Parts&... parts)
{
    std::ostringstream line;
    (line << ... << parts);
    script.calls.push_back(line.str());
}

template <typename Answer> Answer next(std::deque<Answer>& answers, Answer otherwise)
{
    if (answers.empty()) {
        return otherwise;
    }
    const Answer answer = answers.front();
    answers.pop_front();
    return answer;
}

int refusedAllocations = 0; ///< how many of the next allocations that may fail do fail

} // namespace

void* operator new[](size_t numBytes, const std::nothrow_t&) noexcept
{
    if (refusedAllocations > 0) {
        refusedAllocations--;
        return nullptr;
    }
    return ::operator new[](numBytes);
}

osaStatus osaSockOpen(sockObject* sock)
{
    EXPECT_EQ(sock->open, 0) << "the socket that was there is left behind";
    called("open ", sock->txAddr.host, ":", sock->txPort);
    script.opened.push_back(*sock);
    const osaStatus answer = next(script.opens, OSA_OK);
    if (answer == OSA_OK) {
        sock->open = 1;
        sock->id.index = 7;
        const unsigned char ip[4] = {10, 1, 200, 3};
        memcpy(sock->txAddr.ip, ip, sizeof ip);
        script.socketsOpen++;
    }
    return answer;
}

osaStatus osaSockClose(sockObject* sock)
{
    called("close");
    EXPECT_EQ(sock->open, 1) << "a second close";
    sock->open = 0;
    script.socketsOpen--;
    return OSA_OK;
}

osaStatus osaSockConnect(sockObject*)
{
    called("connect");
    return next(script.connects, OSA_OK);
}

int osaSockRead(sockObject*, char* buf, unsigned int len)
{
    called("read ", len);
    const Read read = next(script.reads, Read());
    if (read.status != 0) {
        return read.status;
    }
    const size_t numBytes = std::min<size_t>(len, read.bytes.size());
    memcpy(buf, read.bytes.data(), numBytes);
    if (numBytes < read.bytes.size()) {
        script.reads.push_front({read.bytes.substr(numBytes)});
    }
    return static_cast<int>(numBytes);
}

int osaSockWrite(sockObject*, char* buf, unsigned int len)
{
    called("write");
    script.written.assign(buf, len);
    return static_cast<int>(len);
}

extern "C" {

int __real_mpg123_init(void);
mpg123_handle* __real_mpg123_new(const char*, int*);
void __real_mpg123_delete(mpg123_handle*);
int __real_mpg123_param2(mpg123_handle*, int, long, double);
int __real_mpg123_format_all(mpg123_handle*);
int __real_mpg123_open_feed(mpg123_handle*);
int __real_mpg123_decode(mpg123_handle*, const unsigned char*, size_t, unsigned char*, size_t, size_t*);
int __real_mpg123_getformat(mpg123_handle*, long*, int*, int*);

int __wrap_mpg123_init(void)
{
    called("init");
    return script.init ? *script.init : __real_mpg123_init();
}

mpg123_handle* __wrap_mpg123_new(const char* decoder, int* error)
{
    called(decoder == nullptr ? "new" : "new of a kind");
    if (script.newError) {
        *error = *script.newError;
        return nullptr;
    }
    script.decodersOpen++;
    return __real_mpg123_new(decoder, error);
}

void __wrap_mpg123_delete(mpg123_handle* mh)
{
    called("delete");
    script.decodersOpen--;
    __real_mpg123_delete(mh);
}

// The header maps mpg123_param to this one.
int __wrap_mpg123_param2(mpg123_handle* mh, int type, long value, double fvalue)
{
    called("param ", type == MPG123_VERBOSE ? "VERBOSE " : type == MPG123_OUTSCALE ? "OUTSCALE " : "other ", value);
    if (type == MPG123_VERBOSE) {
        value = 0; // the library's words would drown the test's
    }
    return __real_mpg123_param2(mh, type, value, fvalue);
}

int __wrap_mpg123_format_all(mpg123_handle* mh)
{
    called("format_all");
    return __real_mpg123_format_all(mh);
}

int __wrap_mpg123_open_feed(mpg123_handle* mh)
{
    called("open_feed");
    return script.openFeed ? *script.openFeed : __real_mpg123_open_feed(mh);
}

int __wrap_mpg123_decode(mpg123_handle* mh, const unsigned char* in, size_t inBytes, unsigned char* out,
                         size_t outBytes, size_t* done)
{
    script.decodeInBytes = inBytes;
    script.decodeOutBytes = outBytes;
    script.decoded.append(reinterpret_cast<const char*>(in), inBytes);
    memset(out, 0x55, outBytes); // there must be as much room as was told
    if (!script.decode.empty()) {
        *done = 12;
        return next(script.decode, 0);
    }
    return __real_mpg123_decode(mh, in, inBytes, out, outBytes, done);
}

int __wrap_mpg123_getformat(mpg123_handle* mh, long* rate, int* channels, int* encoding)
{
    called("getformat");
    const int result = __real_mpg123_getformat(mh, rate, channels, encoding);
    *rate = script.rate.value_or(static_cast<int>(*rate));
    *channels = script.channels.value_or(*channels);
    *encoding = script.encoding.value_or(*encoding);
    return result;
}

} // extern "C"

namespace
{

/** A block whose insides can be looked at and set. */
struct OpenStream : CMp3ShoutcastPlay {
    OpenStream() : CMp3ShoutcastPlay("STREAM") {}

    using CMp3ShoutcastPlay::become;
    using CMp3ShoutcastPlay::bytesRecieved;
    using CMp3ShoutcastPlay::channels;
    using CMp3ShoutcastPlay::connection;
    using CMp3ShoutcastPlay::connectShoutcast;
    using CMp3ShoutcastPlay::connectState;
    using CMp3ShoutcastPlay::currentPlaylistNum;
    using CMp3ShoutcastPlay::decodedBytes;
    using CMp3ShoutcastPlay::decodeStatus;
    using CMp3ShoutcastPlay::encoding;
    using CMp3ShoutcastPlay::fileStatus;
    using CMp3ShoutcastPlay::fnum;
    using CMp3ShoutcastPlay::headerBytes;
    using CMp3ShoutcastPlay::hoardedBytes;
    using CMp3ShoutcastPlay::idle_time;
    using CMp3ShoutcastPlay::isShoutcastConnected;
    using CMp3ShoutcastPlay::MAX_US_PORTS;
    using CMp3ShoutcastPlay::mh;
    using CMp3ShoutcastPlay::mp3InBuf;
    using CMp3ShoutcastPlay::mp3InBufSize;
    using CMp3ShoutcastPlay::mp3OutBuf;
    using CMp3ShoutcastPlay::mp3OutBufSize;
    using CMp3ShoutcastPlay::mpg123Status;
    using CMp3ShoutcastPlay::newInBytes;
    using CMp3ShoutcastPlay::nodata_start;
    using CMp3ShoutcastPlay::nodata_stop;
    using CMp3ShoutcastPlay::noresponse;
    using CMp3ShoutcastPlay::now;
    using CMp3ShoutcastPlay::openTopUrl;
    using CMp3ShoutcastPlay::playlist;
    using CMp3ShoutcastPlay::playlistfailcount;
    using CMp3ShoutcastPlay::rate;
    using CMp3ShoutcastPlay::rawData;
    using CMp3ShoutcastPlay::recieveBuffer;
    using CMp3ShoutcastPlay::shoutcastUrl;
    using CMp3ShoutcastPlay::startTime;
    using CMp3ShoutcastPlay::streamMode;
    using CMp3ShoutcastPlay::streamRequestFailCount;
    using CMp3ShoutcastPlay::transmitBuffer;
    using CMp3ShoutcastPlay::upstream;
    using CMp3ShoutcastPlay::workBuffer;
    using CMp3ShoutcastPlay::workBufferEmpty;
    using CMp3ShoutcastPlay::workBufferSize;

    CUpstreamPort& port() { return *upstream[0]; }
    audioPortParam_t& params() { return port().params; }
};

using S = CMp3ShoutcastPlay; // the states

const std::string topUrl = "http://Radio.Example.com:8000/Live";

/** What a step comes to. */
struct Outcome {
    streamStatus status;
    S::connectState_e next;
    Lines printed = {};      ///< a trace line as "(level) message"
    std::string errors = {}; ///< on the error stream
};

class Stream : public GraphTest
{
protected:
    void SetUp() override
    {
        GraphTest::SetUp(); // clears the registries
        script = Script();
        stream = new OpenStream;
    }
    void TearDown() override
    {
        audioInterfaceTraceLevel = -1; // no "Removed" line
        delete stream;
        EXPECT_EQ(script.socketsOpen, 0);
        EXPECT_EQ(script.decodersOpen, 0);
        GraphTest::TearDown();
    }

    /** The block in `state`, with a connection that stands as far as that state needs one. */
    OpenStream& in(S::connectState_e state)
    {
        (void)stream->setNewTopUrl(topUrl);
        if (state != S::OPEN_CONNECTION) {
            (void)osaSockOpen(&stream->connection);
        }
        if (state > S::CALL_OPEN_PLAY_LIST_ITEM && stream->playlist.empty()) {
            item(topUrl);
        }
        stream->become(state);
        script.calls.clear();
        return *stream;
    }
    /** A block with an entry that is about to be parsed, or has been. */
    OpenStream& withDecoder(S::connectState_e state)
    {
        in(S::INITIALIZE_MPG123);
        (void)stream->connectShoutcast(topUrl);
        stream->become(state);
        script.calls.clear();
        return *stream;
    }
    void item(const std::string& file, const std::string& title = "", const std::string& length = "") const
    {
        stream->playlist.push_back(new CShoutcastPlaylistItem{file, title, length});
    }
    /** One step with every trace line but the call trace. */
    Outcome step(int level = 8)
    {
        const bool discovery = stream->connectState <= S::CALL_OPEN_PLAY_LIST_ITEM;
        Outcome outcome = {};
        internal::CaptureStderr();
        internal::CaptureStdout();
        audioInterfaceTraceLevel = level;
        outcome.status = discovery ? stream->openTopUrl(stream->shoutcastUrl)
                                   : stream->connectShoutcast(stream->playlist[stream->currentPlaylistNum]->file);
        audioInterfaceTraceLevel = 0;
        raw = internal::GetCapturedStdout();
        outcome.printed = graphTest::traceLines(raw);
        outcome.errors = internal::GetCapturedStderr();
        outcome.next = stream->connectState;
        return outcome;
    }
    void expectStep(const Outcome& wanted, int level = 8)
    {
        const Outcome got = step(level);
        EXPECT_EQ(got.status, wanted.status);
        EXPECT_EQ(got.next, wanted.next);
        EXPECT_EQ(got.printed, wanted.printed);
        EXPECT_EQ(got.errors, wanted.errors);
    }
    /** The parse of a reply. */
    void expectParse(const std::string& reply, const Outcome& wanted)
    {
        in(S::PARSE_PLAY_LIST).rawData = reply;
        expectStep(wanted, 1);
    }

    OpenStream* stream = nullptr;
    std::string raw; ///< all that the last step printed
};

Lines entriesOf(const shoutcastPlaylist& playlist)
{
    Lines all;
    for (const CShoutcastPlaylistItem* item : playlist) {
        all.push_back(item->file + "|" + item->title + "|" + item->length);
    }
    return all;
}

// ---- the block

TEST_F(Stream, StartsNotReady)
{
    EXPECT_FALSE(stream->isShoutcastConnected);
    EXPECT_FALSE(stream->getShoutcastConnected());
    EXPECT_EQ(stream->mh, nullptr);
    EXPECT_EQ(stream->fnum, -1);
    EXPECT_TRUE(stream->workBufferEmpty);
    EXPECT_EQ(stream->workBufferSize, 0U);
    EXPECT_EQ(stream->workBuffer, nullptr);
    EXPECT_EQ(stream->mp3InBufSize, 2048U);
    EXPECT_EQ(stream->mp3OutBufSize, 32768U);
    EXPECT_EQ(std::string(stream->mp3InBuf, stream->mp3InBuf + 2048), std::string(2048, '\0'));
    EXPECT_EQ(std::string(stream->mp3OutBuf, stream->mp3OutBuf + 32768), std::string(32768, '\0'));
    EXPECT_EQ(stream->newInBytes, 0);
    EXPECT_EQ(stream->decodeStatus, -10); // MPG123_NEED_MORE
    EXPECT_EQ(stream->decodedBytes, 0);
    EXPECT_EQ(stream->shoutcastUrl, "");
    EXPECT_EQ(stream->connection.open, 0);
    EXPECT_THAT(stream->playlist, IsEmpty());
    EXPECT_EQ(stream->currentPlaylistNum, 0U);
    EXPECT_EQ(stream->connectState, S::NOT_READY);
    EXPECT_EQ(stream->streamMode, S::UNKNOWN);
    EXPECT_EQ(stream->bytesRecieved, 0);
    EXPECT_EQ(stream->headerBytes, 0U);
    EXPECT_EQ(stream->rawData, "");
    EXPECT_EQ(std::string(stream->recieveBuffer, sizeof stream->recieveBuffer), std::string(4096, '\0'));
    EXPECT_EQ(std::string(stream->transmitBuffer, sizeof stream->transmitBuffer), std::string(4096, '\0'));
    EXPECT_FALSE(stream->startTime.immediateService);
    EXPECT_EQ(stream->startTime.nextServiceTime.tv_sec, 0);
    EXPECT_EQ(stream->mpg123Status, 0);
    EXPECT_EQ(stream->channels, 0);
    EXPECT_EQ(stream->encoding, 0);
    EXPECT_EQ(stream->rate, 0);
    EXPECT_EQ(stream->playlistfailcount, 0);
    EXPECT_EQ(stream->streamRequestFailCount, 0);
    EXPECT_FALSE(stream->noresponse);
    for (const timespec& time : {stream->nodata_start, stream->nodata_stop, stream->idle_time}) {
        EXPECT_EQ(time.tv_sec, 0);
        EXPECT_EQ(time.tv_nsec, 0);
    }
    EXPECT_EQ(stream->fileStatus, FILE_OK);
    EXPECT_EQ(stream->MAX_US_PORTS, 1U);
    EXPECT_EQ(stream->numUpstreamPorts(), 1U);
    EXPECT_EQ(stream->name(), "STREAM");
}

TEST_F(Stream, NumbersOfStatesAndModesAreFixed)
{
    EXPECT_EQ(S::FAILED_TO_OPEN_PLAYLIST_ITEM, -2);
    EXPECT_EQ(S::FAILED_TO_OPEN_CONNECTION, -1);
    EXPECT_EQ(S::NOT_READY, 0);
    EXPECT_EQ(S::OPEN_CONNECTION, 1);
    EXPECT_EQ(S::CALL_OPEN_PLAY_LIST_ITEM, 6);
    EXPECT_EQ(S::OPEN_PLAYLIST_ITEM, 7);
    EXPECT_EQ(S::REQUEST_PLAYLIST_ITEM_HEADERS, 9);
    EXPECT_EQ(S::INITIALIZE_MPG123, 10);
    EXPECT_EQ(S::SHOUTCAST_ITEM_READY, 15);
    EXPECT_EQ(S::SHOUTCAST, 1);
    EXPECT_EQ(S::ICECAST_M3U, 2);
    EXPECT_EQ(S::ICECAST_XSPF, 3);
    EXPECT_EQ(S::DIRECT_CONNECTION, 4);
}

TEST_F(Stream, TellsWhatItIs)
{
    EXPECT_EQ(stream->getRunTimeId(), MP3_SHOUTCAST_PLAY);
    EXPECT_EQ(stream->port().getRunTimeId(), MP3_SHOUTCAST_PLAY_USP);
}

TEST_F(Stream, PortStartsWithAStreamsUsualShape)
{
    audioPortParam_t wanted = graphTest::allVariable();
    wanted.nominalSampleRate = 44100.0F;
    wanted.samplesInterleavedStatus = FIXED;
    graphTest::expectSameParams(stream->params(), wanted);
    EXPECT_EQ(wanted.numChannels, 2U);
    EXPECT_EQ(wanted.sampleFormat, SAMPLE_S16BIT_LE);
    EXPECT_EQ(wanted.periodSize, 512U);
}

TEST_F(Stream, WithoutMemoryItIsMadeAndOpensNothing)
{
    internal::CaptureStderr();
    delete stream;
    refusedAllocations = 2;
    stream = new OpenStream;
    EXPECT_EQ(internal::GetCapturedStderr(), "out of memory\nout of memory\n");
    in(S::INITIALIZE_MPG123);
    expectStep({NO_MEMORY, S::FAILED_TO_OPEN_CONNECTION, {"(6) Initialize MPG123...."}});
}

TEST_F(Stream, StatusTextEndsWithTheEntryInUse)
{
    const std::string base = stream->CAudioBlock::printBlockStatus();
    EXPECT_EQ(stream->printBlockStatus(), base + "Playlist is empty\n");
    EXPECT_EQ(stream->printPlayList(), "Playlist is empty\n");
    item("http://a", "A", "1");
    item("http://b", "B", "2");
    stream->currentPlaylistNum = 1;
    EXPECT_EQ(stream->printCurrentItem(), "Item: 1\nURL:    (http://b)\nTitle:  (B)\nLength: (2)\n");
    EXPECT_EQ(stream->printBlockStatus(), base + stream->printCurrentItem());
    EXPECT_EQ(stream->printPlayList(), "Item: 0\nURL:    (http://a)\nTitle:  (A)\nLength: (1)\n"
                                       "Item: 1\nURL:    (http://b)\nTitle:  (B)\nLength: (2)\n");
    stream->currentPlaylistNum = 2;
    EXPECT_EQ(stream->printCurrentItem(), "Playlist is empty\n");
}

TEST_F(Stream, NewTopUrlStartsAgainFromAnyState)
{
    withDecoder(S::SHOUTCAST_ITEM_READY);
    stream->isShoutcastConnected = true;
    stream->bytesRecieved = 5;
    stream->headerBytes = 6;
    stream->rawData = "text";
    EXPECT_EQ(stream->setNewTopUrl("http://Other/X"), STREAM_OK);
    EXPECT_THAT(script.calls, ElementsAre("close", "delete"));
    EXPECT_FALSE(stream->isShoutcastConnected);
    EXPECT_EQ(stream->mh, nullptr);
    EXPECT_EQ(stream->shoutcastUrl, "http://Other/X");
    EXPECT_EQ(stream->getTopUrl(), "http://Other/X");
    EXPECT_EQ(stream->connectState, S::OPEN_CONNECTION);
    EXPECT_EQ(stream->bytesRecieved, 0);
    EXPECT_EQ(stream->headerBytes, 0U);
    EXPECT_EQ(stream->rawData, "");
    EXPECT_EQ(stream->playlist.size(), 1U); // until another is read
}

TEST_F(Stream, DisconnectingClosesDecoderAndConnectionOnce)
{
    withDecoder(S::SHOUTCAST_ITEM_READY);
    stream->isShoutcastConnected = true;
    EXPECT_EQ(stream->disconnectShoutcast(), STREAM_OK);
    EXPECT_THAT(script.calls, ElementsAre("delete", "close"));
    EXPECT_FALSE(stream->isShoutcastConnected);
    EXPECT_EQ(stream->connectState, S::SHOUTCAST_ITEM_READY);
    EXPECT_EQ(stream->connection.id.index, 0U); // names no slot any more
    EXPECT_EQ(stream->disconnectShoutcast(), STREAM_OK);
    EXPECT_THAT(script.calls, ElementsAre("delete", "close"));
}

TEST_F(Stream, DeletingItClosesWhatIsOpen)
{
    withDecoder(S::READ_PLAYLIST_ITEM_HEADERS);
    delete stream;
    stream = nullptr;
    EXPECT_EQ(script.socketsOpen, 0);
    EXPECT_EQ(script.decodersOpen, 0);
}

TEST_F(Stream, CallTraceNamesEachOperation)
{
    // At level 9 an operation starts with its own signature, whatever it calls.
    const auto first = [](const std::function<void()>& operation) { return traced(9, operation).at(0); };
    CUpstreamPort& port = stream->port();
    audioPortParam_t params = stream->params();
    CServiceTime next;
    char* buffer = nullptr;
    unsigned int nPeriods = 0;
    const std::pair<std::string, std::function<void()>> rows[] = {
        {"Play::getRunTimeId()", [&] { (void)stream->getRunTimeId(); }},
        {"Play::printBlockStatus()", [&] { (void)stream->printBlockStatus(); }},
        {"Play::printCurrentItem() const", [&] { (void)stream->printCurrentItem(); }},
        {"Play::printPlayList() const", [&] { (void)stream->printPlayList(); }},
        {"Play::timeLeft()", [&] { (void)stream->timeLeft(); }},
        {"Play::service(", [&] { (void)stream->service(next); }},
        {"Play::openTopUrl(", [&] { (void)stream->openTopUrl(topUrl); }},
        {"Play::connectShoutcast(", [&] { (void)stream->connectShoutcast(topUrl); }},
        {"Play::disconnectShoutcast()", [&] { (void)stream->disconnectShoutcast(); }},
        {"Play::allocateWorkBuffer()", [&] { (void)stream->allocateWorkBuffer(); }},
        {"Play::reqReadPeriods(", [&] { (void)stream->reqReadPeriods(buffer, nPeriods); }},
        {"Play::setNewTopUrl(", [&] { (void)stream->setNewTopUrl(topUrl); }},
        {"PlayUSP::getRunTimeId()", [&] { (void)port.getRunTimeId(); }},
        {"PlayUSP::reconfigPortApply(", [&] { (void)port.reconfigPortApply(&params); }},
        {"PlayUSP::connectDownstream(", [&] { (void)port.connectDownstream(nullptr, nullptr); }},
        {"PlayUSP::reqReadPeriods(", [&] { (void)port.reqReadPeriods(buffer, nPeriods); }},
        {"PlayUSP::ackReadPeriods(", [&] { (void)port.ackReadPeriods(0); }},
    };
    for (const auto& [signature, operation] : rows) {
        EXPECT_THAT(first(operation), AllOf(StartsWith("(9) "), HasSubstr("CMp3Shoutcast" + signature)));
    }
}

TEST_F(Stream, CallTraceNamesConstructionAndDestruction)
{
    const auto tells = [](const char* signature) {
        return Contains(AllOf(StartsWith("(9) "), HasSubstr(signature))).Times(1);
    };
    delete stream;
    const Lines made = traced(9, [this] { stream = new OpenStream; });
    EXPECT_THAT(made, tells("CMp3ShoutcastPlay::CMp3ShoutcastPlay("));
    EXPECT_THAT(made, tells("CMp3ShoutcastPlayUSP::CMp3ShoutcastPlayUSP("));
    const Lines gone = traced(9, [this] { delete stream; });
    EXPECT_THAT(gone, tells("CMp3ShoutcastPlay::~CMp3ShoutcastPlay()"));
    EXPECT_THAT(gone, tells("CMp3ShoutcastPlayUSP::~CMp3ShoutcastPlayUSP()"));
    stream = nullptr;
}

TEST_F(Stream, StatesOfTheOtherHalfDoNothing)
{
    for (int state = S::FAILED_TO_OPEN_PLAYLIST_ITEM; state <= S::SHOUTCAST_ITEM_READY; state++) {
        in(static_cast<S::connectState_e>(state));
        const bool discovery = state >= S::OPEN_CONNECTION && state <= S::CALL_OPEN_PLAY_LIST_ITEM;
        const bool connecting = state >= S::OPEN_PLAYLIST_ITEM && state <= S::PARSE_PORT_PARAMS;
        if (!discovery) {
            stream->fileStatus = FILE_OK;
            EXPECT_EQ(stream->openTopUrl(topUrl), STREAM_OK);
            EXPECT_EQ(stream->fileStatus, FILE_ERROR) << state;
        }
        if (!connecting) {
            stream->fileStatus = FILE_OK;
            EXPECT_EQ(stream->connectShoutcast(topUrl), STREAM_OK);
            EXPECT_EQ(stream->fileStatus, FILE_OK) << state;
        }
        if (!discovery || !connecting) {
            EXPECT_EQ(stream->connectState, state);
            EXPECT_THAT(script.calls, IsEmpty()) << state;
        }
    }
}

// ---- OPEN_CONNECTION

TEST_F(Stream, OpenConnectionOpensASocketToTheHost)
{
    in(S::OPEN_CONNECTION);
    expectStep({STREAM_OK, S::CONNECTING, {"(1) connecting to radio.example.com:8000..."}});
    EXPECT_THAT(script.calls, ElementsAre("open radio.example.com:8000"));
    EXPECT_EQ(script.opened.back().type, SOCKTYPE_TCP_CLIENT);
    EXPECT_EQ(script.opened.back().blocking, 0);
    EXPECT_EQ(stream->fileStatus, FILE_ERROR); // not playing while it looks
    EXPECT_EQ(stream->shoutcastUrl, topUrl);   // only the copy was lowered
}

TEST_F(Stream, OpenConnectionGoesOnAfterAFailure)
{
    in(S::OPEN_CONNECTION);
    script.opens = {OSA_SOCK_ERROR};
    expectStep({STREAM_ERROR, S::CONNECTING, {"(1) failed to open connection"}});
    script.connects = {OSA_ERROR}; // a socket that isn't open
    expectStep({STREAM_OK, S::REQUEST_PLAYLIST, {"(1) opened connection", "(1) Host is at 0.0.0.0"}});
}

TEST_F(Stream, OpenConnectionDropsAReadyStreamFirst)
{
    withDecoder(S::OPEN_CONNECTION);
    stream->isShoutcastConnected = true;
    expectStep({STREAM_OK, S::CONNECTING, {"(1) connecting to radio.example.com:8000..."}});
    EXPECT_THAT(script.calls, ElementsAre("delete", "close", "open radio.example.com:8000"));
    EXPECT_FALSE(stream->isShoutcastConnected);
}

TEST_F(Stream, OpenConnectionForgetsTheSettingsOfAnEarlierSocket)
{
    in(S::OPEN_CONNECTION);
    stream->connection.packetBufferSize = 5;
    stream->connection.rxPort = 6;
    (void)step();
    EXPECT_EQ(script.opened.back().packetBufferSize, 0U);
    EXPECT_EQ(script.opened.back().rxPort, 0);
}

TEST_F(Stream, HostIsCutToItsField)
{
    in(S::OPEN_CONNECTION).shoutcastUrl = "http://" + std::string(150, 'h') + "/";
    (void)step();
    EXPECT_EQ(std::string(script.opened.back().txAddr.host), std::string(99, 'h'));
}

// ---- CONNECTING

TEST_F(Stream, ConnectingStaysWhileInProgress)
{
    in(S::CONNECTING);
    script.connects = {OSA_IN_PROGRESS};
    expectStep({STREAM_OK, S::CONNECTING});
    EXPECT_THAT(script.calls, ElementsAre("connect"));
}

TEST_F(Stream, ConnectingTakesAnyOtherAnswerAsConnected)
{
    for (const osaStatus answer : {OSA_OK, OSA_SOCK_ERROR, OSA_ERROR, OSA_CONNECTION_LOST, OSA_EINVAL}) {
        in(S::CONNECTING);
        script.connects = {answer};
        expectStep({STREAM_OK, S::REQUEST_PLAYLIST, {"(1) opened connection", "(1) Host is at 10.1.200.3"}});
    }
}

// ---- REQUEST_PLAYLIST

TEST_F(Stream, RequestPlaylistAsksForTheWholeUrlAsItWasTyped)
{
    in(S::REQUEST_PLAYLIST).rawData = "old";
    clockTime() = {1234, 5678};
    expectStep({STREAM_OK,
                S::READ_PLAYLIST,
                {"GET http://Radio.Example.com:8000/Live HTTP/1.0",
                 "(0) Requesting http://Radio.Example.com:8000/Live from stream"}});
    EXPECT_EQ(script.written, "GET http://Radio.Example.com:8000/Live HTTP/1.0\r\n\r\n");
    EXPECT_THAT(script.calls, ElementsAre("write"));
    EXPECT_EQ(stream->rawData, "");
    EXPECT_EQ(stream->startTime.nextServiceTime.tv_sec, 1234);
    EXPECT_EQ(stream->startTime.nextServiceTime.tv_nsec, 5678);
}

TEST_F(Stream, RequestPlaylistCutsARequestThatIsTooLong)
{
    in(S::REQUEST_PLAYLIST).shoutcastUrl = "http://" + std::string(5000, 'a');
    (void)step();
    EXPECT_EQ(script.written, "GET http://" + std::string(4095 - 11, 'a'));
    in(S::REQUEST_PLAYLIST).shoutcastUrl = "http://" + std::string(4095 - 24, 'a'); // what just fits
    (void)step();
    EXPECT_EQ(script.written, "GET http://" + std::string(4095 - 24, 'a') + " HTTP/1.0\r\n\r\n");
}

// ---- READ_PLAYLIST

TEST_F(Stream, ReadPlaylistGathersWhatComes)
{
    in(S::READ_PLAYLIST).noresponse = true;
    script.reads = {{"HTTP/1.1 "}, {"200 OK and more"}};
    expectStep({STREAM_OK, S::READ_PLAYLIST, {"1 read 9 bytes"}});
    EXPECT_FALSE(stream->noresponse);
    expectStep({STREAM_OK, S::READ_PLAYLIST, {"1 read 15 bytes"}});
    EXPECT_EQ(stream->rawData, "HTTP/1.1 200 OK and more");
    EXPECT_THAT(script.calls, ElementsAre("read 4095", "read 4095"));
    EXPECT_EQ(stream->bytesRecieved, 15);
}

TEST_F(Stream, ReadPlaylistCarriesTheTailOfALongerReadAlong)
{
    in(S::READ_PLAYLIST);
    script.reads = {{"0123456789"}, {"ab"}};
    (void)step();
    (void)step();
    EXPECT_EQ(stream->rawData, "0123456789ab23456789");
}

TEST_F(Stream, ReadPlaylistTakesTheTextUpToAZero)
{
    in(S::READ_PLAYLIST);
    script.reads = {{std::string("ab\0cd", 5)}};
    expectStep({STREAM_OK, S::READ_PLAYLIST, {"1 read 5 bytes"}});
    EXPECT_EQ(stream->rawData, "ab");
}

TEST_F(Stream, ReadPlaylistEndsAFullBufferWithAZero)
{
    in(S::READ_PLAYLIST);
    memset(stream->recieveBuffer, 'x', sizeof stream->recieveBuffer);
    script.reads = {{std::string(4095, 'y')}};
    expectStep({STREAM_OK, S::READ_PLAYLIST, {"1 read 4095 bytes"}});
    EXPECT_EQ(stream->rawData, std::string(4095, 'y'));
    EXPECT_EQ(stream->recieveBuffer[4095], '\0');
}

TEST_F(Stream, ReadPlaylistTakesTheReplyAsCompleteWhenAPollFindsNothing)
{
    for (const int nothing : {0, static_cast<int>(OSA_CONNECTION_LOST), static_cast<int>(OSA_SOCK_ERROR)}) {
        in(S::READ_PLAYLIST).rawData = "HTTP/1.1 200 OK";
        stream->noresponse = true;
        script.reads = {{"", nothing}};
        expectStep({STREAM_OK, S::PARSE_PLAY_LIST, {"2 read " + std::to_string(nothing) + " bytes"}});
        EXPECT_FALSE(stream->noresponse);
    }
}

TEST_F(Stream, ReadPlaylistKeepsNoMoreOfAReplyThanAPlaylistCanHave)
{
    in(S::READ_PLAYLIST);
    for (int i = 0; i < 17; i++) {
        script.reads.push_back({std::string(4095, 'a')});
        EXPECT_EQ(step().printed, Lines{"1 read 4095 bytes"});
    }
    EXPECT_EQ(stream->rawData.size(), 65536U);
    expectStep({STREAM_OK, S::PARSE_PLAY_LIST, {"2 read 0 bytes"}});
}

/** How long after the request a poll comes that finds nothing, and whether the waiting is over. */
TEST_F(Stream, ReadPlaylistGivesTheTopUrlTwoSeconds)
{
    const struct {
        monotonicTime now;
        bool over;
    } rows[] = {
        {{1000, 500000000}, false}, {{1002, 500000000}, false}, // 2000000000 is not above it
        {{1002, 500000001}, true},  {{1002, 647483647}, true},  // 2147483647
        {{1002, 647483648}, false},                             // turns negative
        {{1004, 794967296}, false},                             // 2^32: none
        {{1006, 794967296}, false}, {{1006, 794967297}, true},  // 2^32 + 2000000001
    };
    for (const auto& row : rows) {
        in(S::READ_PLAYLIST).noresponse = false;
        clockTime() = {1000, 500000000};
        (void)stream->startTime.setCurrentTime();
        clockTime() = row.now;
        const Lines told = row.over ? Lines{"READ_PLAYLIST: No data received"} : Lines();
        expectStep({STREAM_OK, row.over ? S::PARSE_PLAY_LIST : S::READ_PLAYLIST, told});
        EXPECT_EQ(stream->noresponse, row.over) << row.now.tv_sec << "." << row.now.tv_nsec;
        EXPECT_EQ(stream->now.nextServiceTime.tv_nsec, row.now.tv_nsec);
    }
}

TEST_F(Stream, ReadPlaylistWaitsOnWhileTheStartMeansAtOnce)
{
    in(S::READ_PLAYLIST).startTime.immediateService = true;
    clockTime() = {1002, 1};
    expectStep({STREAM_OK, S::READ_PLAYLIST});
}

// ---- PARSE_PLAY_LIST

const Lines direct = {"case: DIRECT_SHOUTCAST or Direct_ICECAST"};

Lines plus(Lines first, const Lines& second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

TEST_F(Stream, NoResponseIsADirectStream)
{
    in(S::PARSE_PLAY_LIST).noresponse = true;
    item("http://old");
    stream->currentPlaylistNum = 5;
    expectStep({STREAM_OK, S::OPEN_PLAYLIST_ITEM, plus({"(6) Parsing playlist...."}, direct)});
    EXPECT_EQ(stream->streamMode, S::DIRECT_CONNECTION);
    EXPECT_THAT(entriesOf(stream->playlist), ElementsAre(topUrl + "|" + topUrl + "|"));
    EXPECT_EQ(stream->currentPlaylistNum, 0U);
    EXPECT_THAT(script.calls, IsEmpty()); // the connection is left to the next state
    EXPECT_EQ(stream->connection.open, 1);
}

TEST_F(Stream, NoResponseIsLookedAtFirst)
{
    in(S::PARSE_PLAY_LIST).noresponse = true;
    stream->rawData = "HTTP/1.1 200 OK\r\n";
    expectStep({STREAM_OK, S::OPEN_PLAYLIST_ITEM, direct}, 1);
}

TEST_F(Stream, RefusalOfAShoutcastServerIsADirectStream)
{
    expectParse(
        "icy 404 Resource not Found\r\n",
        {STREAM_OK, S::OPEN_PLAYLIST_ITEM,
         plus({"(0) ICY acknowledgement received or NO RESPONSE, direct shoutcast stream identified"}, direct)});
    EXPECT_EQ(stream->streamMode, S::DIRECT_CONNECTION);
}

TEST_F(Stream, RefusalOfAnIcecastServerIsADirectStream)
{
    expectParse("HTTP/1.0 400 Bad Request\r\n",
                {STREAM_OK, S::OPEN_PLAYLIST_ITEM,
                 plus({"(0) BAD request received or NO RESPONSE, direct icecast stream identified"}, direct)});
    EXPECT_EQ(stream->streamMode, S::DIRECT_CONNECTION);
}

TEST_F(Stream, FirstLinesAreTestedInTheirOrder)
{
    expectParse(
        "HTTP/1.0 400 Bad Request ICY 404 Resource Not Found ",
        {STREAM_OK, S::OPEN_PLAYLIST_ITEM,
         plus({"(0) ICY acknowledgement received or NO RESPONSE, direct shoutcast stream identified"}, direct)});
    expectParse("ICY 404 Resource Not Found HTTP/1.1 200 OK ",
                {INVALID_SERVER,
                 S::FAILED_TO_OPEN_CONNECTION,
                 {"(0) HTTP acknowledgment received, Identifying stream", "case: UNKNOWN"},
                 "Incorrect content type found\n"});
}

TEST_F(Stream, AnyOtherFirstLineIsRefused)
{
    for (const char* reply : {"HTTP/1.0 200 OK\r\nContent-Type: audio/x-scpls\r", "ICY 200 OK\r", "HTTP/1.1 200 OK",
                              "HTTP/1.1 404 Not Found\r", "garbage"}) {
        stream->streamMode = S::DIRECT_CONNECTION;
        in(S::PARSE_PLAY_LIST).rawData = reply;
        const Outcome got = step(1);
        EXPECT_EQ(got.status, INVALID_SERVER) << reply;
        EXPECT_EQ(got.next, S::FAILED_TO_OPEN_CONNECTION) << reply;
        EXPECT_THAT(got.printed, Contains("(0) Neither HTTP nor ICY acknowledgement received.")) << reply;
        EXPECT_THAT(raw, EndsWith("\nrawData: " + std::string(reply) + "\ncase: UNKNOWN\n"));
        EXPECT_EQ(got.errors, "Incorrect content type found\n");
        EXPECT_EQ(stream->streamMode, S::UNKNOWN);
        EXPECT_THAT(script.calls, ElementsAre("close"));
    }
}

std::string ok(const std::string& contentType, const std::string& body)
{
    return "HTTP/1.1 200 OK\r\nContent-Type: " + contentType + "\r\n\r\n" + body;
}
const std::string onePls = "[playlist]\nnumberofentries=1\nFile1=http://a\nTitle1=A\nLength1=-1\n\n";
const std::string oneM3u = "http://a\n";
const std::string oneXspf = "<title>A</title><location>http://a</location>\n";
const char* const identifying = "(0) HTTP acknowledgment received, Identifying stream";

TEST_F(Stream, ContentTypeSaysWhichPlaylistItIs)
{
    const struct {
        const char* type;
        const std::string& body;
        S::streamMode_e mode;
        const char* told;
    } rows[] = {
        {"audio/x-scpls", onePls, S::SHOUTCAST, "case: SHOUTCAST"},
        {"application/pls+xml", onePls, S::SHOUTCAST, "case: SHOUTCAST"},
        {"AUDIO/x-mpegurl", oneM3u, S::ICECAST_M3U, "case: ICECAST_M3U"},
        {"application/xspf+xml", oneXspf, S::ICECAST_XSPF, "ICECAST_XSPF"},
        {"text/xml; charset=utf-8", oneXspf, S::ICECAST_XSPF, "ICECAST_XSPF"},
    };
    for (const auto& row : rows) {
        in(S::PARSE_PLAY_LIST).rawData = ok(row.type, row.body);
        item("http://old");
        const Outcome got = step(1);
        EXPECT_EQ(got.status, STREAM_OK) << row.type;
        EXPECT_EQ(got.next, S::CALL_OPEN_PLAY_LIST_ITEM) << row.type;
        EXPECT_EQ(got.printed.at(0), identifying);
        EXPECT_EQ(got.printed.at(1), row.told);
        EXPECT_EQ(got.errors, "");
        EXPECT_EQ(stream->streamMode, row.mode) << row.type;
        EXPECT_EQ(stream->playlist.size(), 1U);
        EXPECT_EQ(stream->playlist.at(0)->file, "http://a") << row.type;
        EXPECT_THAT(script.calls, ElementsAre("close"));
    }
}

TEST_F(Stream, ContentTypesAreTestedInTheirOrder)
{
    const std::string all = "Content-Type: text/xml\r\nContent-Type: audio/x-mpegurl\r\n";
    in(S::PARSE_PLAY_LIST).rawData = ok("audio/x-scpls", all + onePls);
    (void)step();
    EXPECT_EQ(stream->streamMode, S::SHOUTCAST);
    in(S::PARSE_PLAY_LIST).rawData = ok("none", all + oneM3u);
    (void)step();
    EXPECT_EQ(stream->streamMode, S::ICECAST_M3U);
}

TEST_F(Stream, OtherContentIsRefused)
{
    stream->streamMode = S::SHOUTCAST;
    expectParse(ok("audio/mpegurl", oneM3u), {INVALID_SERVER,
                                              S::FAILED_TO_OPEN_CONNECTION,
                                              {identifying, "case: UNKNOWN"},
                                              "Incorrect content type found\n"});
    EXPECT_EQ(stream->streamMode, S::UNKNOWN);
    EXPECT_THAT(script.calls, ElementsAre("close"));
}

TEST_F(Stream, PlsThatIsNoneIsRefused)
{
    item("http://old");
    expectParse(ok("audio/x-scpls", "nothing\n"), {INVALID_SERVER,
                                                   S::FAILED_TO_OPEN_CONNECTION,
                                                   {identifying, "case: SHOUTCAST"},
                                                   "No playlist definition found\n"});
    EXPECT_THAT(script.calls, ElementsAre("close"));
    expectParse(ok("audio/x-scpls", "[playlist]\n"), {INVALID_SERVER,
                                                      S::FAILED_TO_OPEN_CONNECTION,
                                                      {identifying, "case: SHOUTCAST"},
                                                      "Play list has no server entries\n"});
    EXPECT_THAT(script.calls, ElementsAre("close"));
    EXPECT_THAT(entriesOf(stream->playlist), ElementsAre("http://old||")); // stays until another is read
}

TEST_F(Stream, PlsWithoutEntriesEndsInTheNextState)
{
    expectParse(ok("audio/x-scpls", "[playlist]\nnumberofentries=0\n" + onePls),
                {STREAM_OK, S::CALL_OPEN_PLAY_LIST_ITEM, {identifying, "case: SHOUTCAST"}});
    expectStep(
        {INVALID_SERVER, S::FAILED_TO_OPEN_CONNECTION, {"(6) Call open play list item....", "Playlist is empty"}});
}

TEST_F(Stream, M3uWithoutAUrlIsRefused)
{
    item("http://old");
    expectParse(ok("audio/x-mpegurl", "#EXTM3U\r\n"), {INVALID_SERVER,
                                                       S::FAILED_TO_OPEN_CONNECTION,
                                                       {identifying, "case: ICECAST_M3U", "Strpos: -1"},
                                                       "Playlist Empty\n"});
    EXPECT_THAT(script.calls, ElementsAre("close"));
    EXPECT_THAT(stream->playlist, IsEmpty());
}

TEST_F(Stream, XspfWithoutALocationIsRefused)
{
    item("http://old");
    expectParse(ok("text/xml", "<playlist/>\r\n"), {INVALID_SERVER,
                                                    S::FAILED_TO_OPEN_CONNECTION,
                                                    {identifying, "ICECAST_XSPF", "strpos: -1 strpos2: -1 "},
                                                    "Playlist Empty\n"});
    EXPECT_THAT(script.calls, ElementsAre("close"));
    EXPECT_THAT(stream->playlist, IsEmpty());
}

TEST_F(Stream, ParsersTraceAtTheLevelOfTheBlock)
{
    in(S::PARSE_PLAY_LIST).rawData = ok("audio/x-scpls", onePls);
    EXPECT_THAT(step(3).printed, Contains("(3) Entry 0"));
}

TEST_F(Stream, ReplyInTwoReadsWithAPauseIsParsedAfterTheFirst)
{
    in(S::READ_PLAYLIST);
    script.reads = {{"HTTP/1.1 200 OK\r\nContent-Type: audio/x-scpls\r\n\r\n"}, {}, {onePls}};
    (void)step();
    EXPECT_EQ(step().next, S::PARSE_PLAY_LIST);
    EXPECT_EQ(step().errors, "No playlist definition found\n");
}

// ---- CALL_OPEN_PLAY_LIST_ITEM

TEST_F(Stream, CallOpenPlayListItemListsTheEntries)
{
    in(S::CALL_OPEN_PLAY_LIST_ITEM);
    item("http://a", "A title", "-1");
    item("http://b", "", "");
    expectStep(
        {STREAM_OK,
         S::OPEN_PLAYLIST_ITEM,
         {"(6) Call open play list item....", "PLAYITEM 0:", "http://a A title -1", "PLAYITEM 1:", "http://b  "}});
}

// ---- OPEN_PLAYLIST_ITEM

TEST_F(Stream, OpenPlaylistItemOpensASocketToTheEntry)
{
    in(S::OPEN_PLAYLIST_ITEM).playlistfailcount = 3;
    expectStep({STREAM_OK,
                S::CONNECTING_PLAYLIST_ITEM,
                {"(6) Open playlist item....", "(1) Opening shoutcast stream at http://Radio.Example.com:8000/Live",
                 "(1) Connecting to playlist item radio.example.com:8000..."}});
    // What the discovery left is closed before it is replaced.
    EXPECT_THAT(script.calls, ElementsAre("close", "open radio.example.com:8000"));
    EXPECT_EQ(script.opened.back().type, SOCKTYPE_TCP_CLIENT);
    EXPECT_EQ(stream->playlistfailcount, 0);
}

TEST_F(Stream, OpenPlaylistItemReportsAFailure)
{
    in(S::OPEN_PLAYLIST_ITEM).playlistfailcount = 3;
    script.opens = {OSA_SOCK_ERROR};
    expectStep({STREAM_ERROR,
                S::FAILED_TO_OPEN_CONNECTION,
                {"(6) Open playlist item....", "(1) Opening shoutcast stream at http://Radio.Example.com:8000/Live",
                 "(1) failed to open connection"}});
    EXPECT_EQ(stream->playlistfailcount, 3);
}

TEST_F(Stream, OpenPlaylistItemDropsAReadyStreamFirst)
{
    withDecoder(S::OPEN_PLAYLIST_ITEM);
    stream->isShoutcastConnected = true;
    (void)step();
    EXPECT_THAT(script.calls, ElementsAre("delete", "close", "open radio.example.com:8000"));
    EXPECT_FALSE(stream->isShoutcastConnected);
}

TEST_F(Stream, OpenPlaylistItemLeavesTheFileStatus)
{
    in(S::OPEN_PLAYLIST_ITEM).fileStatus = FILE_DONE;
    (void)step();
    EXPECT_EQ(stream->fileStatus, FILE_DONE);
}

// ---- CONNECTING_PLAYLIST_ITEM

TEST_F(Stream, ConnectingPlaylistItemAsksForTheLoweredPath)
{
    for (const osaStatus answer : {OSA_OK, OSA_SOCK_ERROR, OSA_CONNECTION_LOST}) {
        in(S::CONNECTING_PLAYLIST_ITEM);
        memset(stream->transmitBuffer, 'x', sizeof stream->transmitBuffer);
        script.connects = {answer};
        expectStep(
            {STREAM_OK,
             S::INITIALIZE_MPG123,
             {"(1) opened connection", "(1) Host is at 10.1.200.3", "(6) Request play list item headers....",
              "pUrl = http://Radio.Example.com:8000/Live", "extractPath(pUrl) = /live", "GET /live HTTP/1.0\r", "\r"}});
        EXPECT_EQ(script.written, "GET /live HTTP/1.0\r\n\r\n");
        EXPECT_THAT(script.calls, ElementsAre("connect", "write"));
        EXPECT_EQ(std::string(stream->transmitBuffer + 22, 4096 - 22), std::string(4096 - 22, '\0'));
    }
}

TEST_F(Stream, ConnectingPlaylistItemAsksForTheRootOfAUrlWithoutAPath)
{
    in(S::CONNECTING_PLAYLIST_ITEM).playlist[0]->file = "http://radio.example.com";
    (void)step();
    EXPECT_EQ(script.written, "GET / HTTP/1.0\r\n\r\n");
}

TEST_F(Stream, ConnectingPlaylistItemCutsARequestThatIsTooLong)
{
    in(S::CONNECTING_PLAYLIST_ITEM).playlist[0]->file = "http://host/" + std::string(5000, 'a');
    (void)step();
    EXPECT_EQ(script.written, "GET /" + std::string(4095 - 5, 'a'));
}

TEST_F(Stream, ConnectingPlaylistItemLooksTwiceAndStays)
{
    for (const osaStatus second : {OSA_IN_PROGRESS, OSA_OK, OSA_SOCK_ERROR}) {
        in(S::CONNECTING_PLAYLIST_ITEM);
        script.connects = {OSA_IN_PROGRESS, second};
        expectStep({STREAM_OK, S::CONNECTING_PLAYLIST_ITEM});
        EXPECT_THAT(script.calls, ElementsAre("connect", "connect"));
    }
}

TEST_F(Stream, ConnectingPlaylistItemGivesUpALostConnection)
{
    in(S::CONNECTING_PLAYLIST_ITEM);
    script.connects = {OSA_IN_PROGRESS, OSA_CONNECTION_LOST};
    expectStep({LOST_CONNECTION_TO_SERVER, S::FAILED_TO_OPEN_CONNECTION, {"(1) ERROR! Lost connection."}});
    EXPECT_THAT(script.calls, ElementsAre("connect", "connect", "close"));
}

// ---- REQUEST_PLAYLIST_ITEM_HEADERS

TEST_F(Stream, RequestPlaylistItemHeadersClearsTheInput)
{
    in(S::REQUEST_PLAYLIST_ITEM_HEADERS).headerBytes = 5;
    stream->bytesRecieved = 6;
    stream->rawData = "old";
    clockTime() = {77, 88};
    expectStep({STREAM_OK, S::READ_PLAYLIST_ITEM_HEADERS, {"Request playlist item headers."}});
    EXPECT_EQ(stream->headerBytes, 0U);
    EXPECT_EQ(stream->bytesRecieved, 0);
    EXPECT_EQ(stream->rawData, "");
    EXPECT_EQ(stream->startTime.nextServiceTime.tv_nsec, 88);
    EXPECT_THAT(script.calls, IsEmpty());
}

// ---- INITIALIZE_MPG123

TEST_F(Stream, InitializeMpg123MakesADecoderThatIsFed)
{
    in(S::INITIALIZE_MPG123);
    expectStep({STREAM_OK, S::REQUEST_PLAYLIST_ITEM_HEADERS, {"(6) Initialize MPG123...."}});
    EXPECT_THAT(script.calls,
                ElementsAre("init", "new", "param VERBOSE 9", "format_all", "param OUTSCALE 32767", "open_feed"));
    EXPECT_NE(stream->mh, nullptr);
    EXPECT_EQ(stream->mpg123Status, MPG123_OK);
}

TEST_F(Stream, InitializeMpg123ReplacesADecoderThatWasLeft)
{
    withDecoder(S::INITIALIZE_MPG123);
    (void)step();
    EXPECT_EQ(script.decodersOpen, 1);
}

TEST_F(Stream, InitializeMpg123TellsWhatFailed)
{
    const struct {
        int step;
        const char* told;
        Lines calls;
    } rows[] = {
        {0, "Could not init MPG123: ", {"init", "close"}},
        {1, "Could not create mpg123 handle: ", {"init", "new", "close"}},
        {2,
         "Could not open mpg123 feed: ",
         {"init", "new", "param VERBOSE 9", "format_all", "param OUTSCALE 32767", "open_feed", "delete", "close"}},
    };
    for (const auto& row : rows) {
        in(S::INITIALIZE_MPG123);
        script.init.reset();
        (row.step == 0 ? script.init : row.step == 1 ? script.newError : script.openFeed) = MPG123_OUT_OF_MEM;
        expectStep({STREAM_ERROR,
                    S::FAILED_TO_OPEN_CONNECTION,
                    {"(6) Initialize MPG123...."},
                    row.told + std::string("7 - ") + mpg123_plain_strerror(MPG123_OUT_OF_MEM) + "\n"});
        EXPECT_EQ(script.calls, row.calls) << row.told;
        EXPECT_EQ(stream->mh, nullptr);
        script.newError.reset();
    }
}

// ---- READ_PLAYLIST_ITEM_HEADERS

TEST_F(Stream, ReadPlaylistItemHeadersWaitsForAFullBuffer)
{
    in(S::READ_PLAYLIST_ITEM_HEADERS);
    script.reads = {{std::string(4000, 'a')}, {}, {std::string(95, 'b')}, {"cd"}};
    expectStep({STREAM_OK,
                S::READ_PLAYLIST_ITEM_HEADERS,
                {"Read playlist item headers.", "bytesReceived>0", "(6) ReadBytes 4000"}});
    expectStep({STREAM_OK, S::READ_PLAYLIST_ITEM_HEADERS, {"Read playlist item headers."}});
    expectStep({STREAM_OK,
                S::READ_PLAYLIST_ITEM_HEADERS,
                {"Read playlist item headers.", "bytesReceived>0", "(6) ReadBytes 95"}});
    expectStep({STREAM_OK,
                S::PARSE_PLAYLIST_ITEM_HEADERS,
                {"Read playlist item headers.", "bytesReceived>0", "(6) ReadBytes 1", "headerBytes>=IOBUF_SIZE"}});
    EXPECT_THAT(script.calls, ElementsAre("read 4096", "read 96", "read 96", "read 1"));
    EXPECT_EQ(std::string(stream->recieveBuffer, 4096), std::string(4000, 'a') + std::string(95, 'b') + "c");
    EXPECT_EQ(stream->headerBytes, 4096U);
}

TEST_F(Stream, ReadPlaylistItemHeadersGivesUpALostConnection)
{
    for (const int lost : {static_cast<int>(OSA_CONNECTION_LOST), static_cast<int>(OSA_SOCK_ERROR)}) {
        in(S::READ_PLAYLIST_ITEM_HEADERS);
        script.reads = {{"", lost}};
        expectStep({STREAM_OK, S::FAILED_TO_OPEN_CONNECTION, {"Read playlist item headers.", "bytesReceived<0"}});
        EXPECT_THAT(script.calls, ElementsAre("read 4096", "close"));
    }
}

// ---- PARSE_PLAYLIST_ITEM_HEADERS

/** A full buffer: a header of `headerBytes` up to its empty line, then audio that counts up. */
std::string fullBuffer(size_t headerBytes)
{
    std::string text = "ICY 200 OK\r\nicy-name:";
    text.resize(headerBytes, 'h');
    text += "\r\n\r\n";
    for (size_t i = 0; text.size() < 4096; i++) {
        text += static_cast<char>(i * 7 % 251);
    }
    return text;
}

class StreamHeader : public Stream
{
protected:
    OpenStream& holding(const std::string& bytes)
    {
        in(S::PARSE_PLAYLIST_ITEM_HEADERS);
        memcpy(stream->recieveBuffer, bytes.data(), bytes.size());
        stream->headerBytes = static_cast<unsigned int>(bytes.size());
        return *stream;
    }
};

TEST_F(StreamHeader, EndsAtTheEmptyLine)
{
    const std::string bytes = fullBuffer(30);
    holding(bytes).mpg123Status = 5;
    stream->decodeStatus = MPG123_NEW_FORMAT;
    expectStep(
        {STREAM_OK, S::GET_PORT_PARAMS, {"(6) Parse playlist item headers....", "ICY 200 OK\r", "icy-name:hhhhhhhhh"}});
    EXPECT_EQ(stream->rawData, bytes.substr(0, 30));
    EXPECT_EQ(stream->bytesRecieved, 4062); // 4096 - 4 - 30
    EXPECT_EQ(std::string(stream->mp3InBuf, stream->mp3InBuf + 2048), bytes.substr(34, 2048));
    EXPECT_EQ(stream->mpg123Status, -1);
    EXPECT_EQ(stream->decodeStatus, MPG123_NEED_MORE);
}

TEST_F(StreamHeader, MayBeEmpty)
{
    std::string bytes = "\r\n\r\n";
    bytes.resize(4096, 'a');
    holding(bytes);
    expectStep({STREAM_OK, S::GET_PORT_PARAMS, {"(6) Parse playlist item headers....", ""}});
    EXPECT_EQ(stream->bytesRecieved, 4092);
}

TEST_F(StreamHeader, WithoutAnEndFailsTheEntry)
{
    holding(std::string(4096, 'h'));
    expectStep({INVALID_SHOUTCAST_HEADER,
                S::FAILED_TO_OPEN_PLAYLIST_ITEM,
                {"(6) Parse playlist item headers...."},
                "no MP3 start marker found\n"});
    EXPECT_THAT(script.calls, ElementsAre("close"));
}

TEST_F(StreamHeader, EndAtTheEndOfTheBufferIsNotSeen)
{
    holding(std::string(4092, 'h') + "\r\n\r\n"); // at index headerBytes - 4
    EXPECT_EQ(step().status, INVALID_SHOUTCAST_HEADER);
}

TEST_F(StreamHeader, Of2043BytesIsTheLongest)
{
    const std::string bytes = fullBuffer(2043);
    holding(bytes);
    EXPECT_EQ(step().next, S::GET_PORT_PARAMS);
    EXPECT_EQ(stream->bytesRecieved, 2049);
    EXPECT_EQ(std::string(stream->mp3InBuf, stream->mp3InBuf + 2048), bytes.substr(2047, 2048));
}

using StreamHeaderDeathTest = StreamHeader;

TEST_F(StreamHeaderDeathTest, Of2044BytesEndsTheProcess)
{
    EXPECT_DEATH(
        {
            holding(fullBuffer(2044));
            (void)stream->connectShoutcast(topUrl);
        },
        "mp3InBufSize < headerBytes-i-4");
}

TEST_F(StreamHeaderDeathTest, WithItsEndInTheLastPlaceEndsTheProcess)
{
    EXPECT_DEATH(
        {
            holding(std::string(4091, 'h') + "\r\n\r\n" + "a"); // at index headerBytes - 5
            (void)stream->connectShoutcast(topUrl);
        },
        "mp3InBufSize < headerBytes-i-4");
}

// ---- GET_PORT_PARAMS

const Lines getting = {"Getting Port Params...", "MPG123_NEW_FORMAT != decodeStatus"};
const Lines gettingMore = {"Getting Port Params...", "MPG123_NEW_FORMAT != decodeStatus", "Getting more params..."};

TEST_F(Stream, GetPortParamsStaysWhileNothingComes)
{
    for (const int nothing : {0, static_cast<int>(OSA_CONNECTION_LOST)}) {
        withDecoder(S::GET_PORT_PARAMS).bytesRecieved = 4062;
        script.reads = {{"", nothing}};
        expectStep({STREAM_OK, S::GET_PORT_PARAMS, gettingMore});
        EXPECT_THAT(script.calls, ElementsAre("read 2048"));
        EXPECT_EQ(stream->bytesRecieved, nothing);
        EXPECT_EQ(script.decodeInBytes, 0U);
    }
}

TEST_F(Stream, GetPortParamsFeedsTheDecoderUntilItKnowsTheFormat)
{
    withDecoder(S::GET_PORT_PARAMS);
    script.reads = {{std::string(3000, '\0')}};
    script.decode = {MPG123_NEED_MORE, MPG123_NEW_FORMAT};
    expectStep({STREAM_OK, S::GET_PORT_PARAMS, gettingMore});
    EXPECT_EQ(script.decodeInBytes, 2048U);
    EXPECT_EQ(script.decodeOutBytes, 32768U);
    EXPECT_EQ(stream->decodeStatus, MPG123_NEED_MORE);
    script.rate = 22050;
    script.channels = 1;
    script.encoding = MPG123_ENC_SIGNED_16;
    expectStep(
        {STREAM_OK, S::GET_PORT_PARAMS, plus(gettingMore, {"bytesReceived > 0 and MPG123_NEW_FORMAT==decodeStatus"})});
    EXPECT_EQ(script.decodeInBytes, 952U);
    EXPECT_EQ(stream->rate, 22050);
    EXPECT_EQ(stream->channels, 1);
    EXPECT_EQ(stream->encoding, 0xD0);
    expectStep({STREAM_OK, S::PARSE_PORT_PARAMS, {"Getting Port Params...", "MPG123_NEW_FORMAT == decodeStatus"}});
    EXPECT_THAT(script.calls, ElementsAre("read 2048", "read 2048", "getformat"));
}

TEST_F(Stream, GetPortParamsGivesUpWhatTheDecoderRefuses)
{
    for (const int result : {MPG123_OK, MPG123_ERR, MPG123_DONE}) {
        withDecoder(S::GET_PORT_PARAMS).decodeStatus = MPG123_NEED_MORE;
        stream->mpg123Status = -1;
        script.reads = {{"0123456789"}};
        script.decode = {result};
        expectStep(
            {STREAM_ERROR, S::FAILED_TO_OPEN_CONNECTION, gettingMore,
             "Could not feed mpg123: read 12 Bytes 10 from file-1 - " + std::string(mpg123_plain_strerror(-1)) + "\n"});
        EXPECT_THAT(script.calls, ElementsAre("read 2048", "delete", "close"));
        EXPECT_EQ(stream->decodeStatus, result);
        script.reads.clear();
    }
}

TEST_F(Stream, GetPortParamsPassesOverAnEntryThatFeedsTheDecoderForNothing)
{
    withDecoder(S::GET_PORT_PARAMS).hoardedBytes = 16777216 - 2048;
    script.reads = {{std::string(2049, '\0')}};
    script.decode = {MPG123_NEED_MORE, MPG123_NEED_MORE};
    expectStep({STREAM_OK, S::GET_PORT_PARAMS, gettingMore}); // 16 MB are not too much
    expectStep({STREAM_OK, S::FAILED_TO_OPEN_CONNECTION, gettingMore, "no audio in 16777217 bytes of the stream\n"});
    EXPECT_THAT(script.calls, ElementsAre("read 2048", "read 2048", "delete", "close"));
    EXPECT_EQ(stream->hoardedBytes, 0U); // the next decoder starts without
}

TEST_F(Stream, GetPortParamsReadsOnlyForADecoderThatWantsMore)
{
    withDecoder(S::GET_PORT_PARAMS).decodeStatus = MPG123_OK;
    stream->bytesRecieved = 4062; // no more than the buffer holds is decoded
    script.decode = {MPG123_NEED_MORE};
    expectStep({STREAM_OK, S::GET_PORT_PARAMS, getting});
    EXPECT_EQ(script.decodeInBytes, 2048U);
    EXPECT_THAT(script.calls, IsEmpty());
}

// ---- PARSE_PORT_PARAMS

class StreamFormat : public Stream
{
protected:
    OpenStream& of(int rate, int channels, int encoding)
    {
        withDecoder(S::PARSE_PORT_PARAMS).rate = rate;
        stream->channels = channels;
        stream->encoding = encoding;
        stream->fileStatus = FILE_ERROR;
        return *stream;
    }
    void expectReady(const std::string& told)
    {
        expectStep({STREAM_OK, S::SHOUTCAST_ITEM_READY, {told, "(6) Shoutcast is ready."}});
        EXPECT_TRUE(stream->isShoutcastConnected);
        EXPECT_EQ(stream->fileStatus, FILE_OK);
    }
};

TEST_F(StreamFormat, IsTakenOnByAFreePort)
{
    const struct {
        int encoding;
        sampleFormat_e format;
    } rows[] = {{0x82, SAMPLE_S8BIT}, {0x8F, SAMPLE_S8BIT}, {0xD0, SAMPLE_S16BIT_LE}, {0xC0, SAMPLE_S16BIT_LE}};
    for (const auto& row : rows) {
        of(32000, 1, row.encoding).params().periodSizeStatus = FIXED;
        expectReady("(1) Stream parameters: 32000 Hz, 1 channels, " + std::to_string(row.encoding) + " encoding");
        audioPortParam_t wanted;
        wanted.nominalSampleRate = 32000.0F;
        wanted.numChannels = 1;
        wanted.sampleFormat = row.format;
        wanted.periodSize = 1024;
        wanted.periodSizeStatus = VARIABLE;
        graphTest::expectSameParams(stream->params(), wanted);
        stream->isShoutcastConnected = false;
    }
}

TEST_F(StreamFormat, WithoutASampleFormatIsRefusedOnEachService)
{
    for (const int encoding : {0, 0x60, 0x1180, 0x200, 0x81}) {
        of(44100, 2, encoding);
        for (int i = 0; i < 2; i++) {
            expectStep({PORT_CFG_ERROR,
                        S::PARSE_PORT_PARAMS,
                        {"(1) Stream parameters: 44100 Hz, 2 channels, " + std::to_string(encoding) + " encoding",
                         "(1) Unexpected port configuration error"}});
        }
        EXPECT_FALSE(stream->isShoutcastConnected);
        EXPECT_EQ(stream->params().nominalSampleRateStatus, VARIABLE); // as before the stream
        EXPECT_EQ(stream->params().periodSize, 512U);
        EXPECT_EQ(stream->fileStatus, FILE_ERROR);
    }
}

/** Connects the port of a stream that is ready, and then what the next entry of the playlist brings. */
class StreamOnAConnectedPort : public StreamFormat
{
protected:
    void SetUp() override
    {
        StreamFormat::SetUp();
        of(44100, 2, 0xD0);
        (void)step();
        audioPortParam_t wanted = graphTest::allVariable();
        sink = new literal::Sink(wanted);
        ASSERT_EQ(stream->port().connectDownstream(&sink->port(), nullptr), STREAM_OK);
        stream->isShoutcastConnected = false;
    }
    void TearDown() override
    {
        if (stream != nullptr) {
            (void)stream->port().disconnect();
        }
        StreamFormat::TearDown(); // deletes the sink
    }
    literal::Sink* sink = nullptr;
};

TEST_F(StreamOnAConnectedPort, TheSameFormatFits)
{
    const audioPortParam_t before = stream->params();
    of(44100, 2, 0xD0);
    expectReady("(1) Stream parameters: 44100 Hz, 2 channels, 208 encoding");
    graphTest::expectSameParams(stream->params(), before);
}

TEST_F(StreamOnAConnectedPort, AnotherFormatIsRefused)
{
    const struct {
        int rate, channels, encoding;
    } rows[] = {{48000, 2, 0xD0}, {44100, 1, 0xD0}, {44100, 2, 0x82}, {44100, 2, 0x8F}};
    for (const auto& row : rows) {
        of(row.rate, row.channels, row.encoding);
        expectStep({INVALID_SHOUTCAST_PARAM,
                    S::FAILED_TO_OPEN_CONNECTION,
                    {"(1) Stream parameters: " + std::to_string(row.rate) + " Hz, " + std::to_string(row.channels) +
                         " channels, " + std::to_string(row.encoding) + " encoding",
                     "(1) Port is configured with different parameters"}});
        EXPECT_THAT(script.calls, ElementsAre("delete", "close"));
        EXPECT_FALSE(stream->isShoutcastConnected);
        EXPECT_EQ(stream->fileStatus, FILE_ERROR);
    }
}

TEST_F(StreamOnAConnectedPort, WhatIsVariableNeedNotFit)
{
    stream->params().nominalSampleRateStatus = VARIABLE;
    stream->params().numChannelsStatus = VARIABLE;
    stream->params().sampleFormatStatus = VARIABLE;
    of(48000, 1, 0x82);
    expectReady("(1) Stream parameters: 48000 Hz, 1 channels, 130 encoding");
    EXPECT_EQ(stream->params().nominalSampleRate, 44100.0F); // the port keeps its own
}

TEST_F(StreamOnAConnectedPort, SixteenBitsPassOnAPortOfEight)
{
    stream->params().sampleFormat = SAMPLE_S8BIT;
    of(44100, 2, 0xD0);
    expectReady("(1) Stream parameters: 44100 Hz, 2 channels, 208 encoding");
    of(44100, 2, 0x82);
    expectReady("(1) Stream parameters: 44100 Hz, 2 channels, 130 encoding");
}

// A player deletes its blocks oldest first, and a stream is younger than what reads it.
TEST_F(StreamOnAConnectedPort, DestructionBehindTheReaderTouchesNothingOfTheReader)
{
    const CDownstreamPort* const gone = &sink->port();
    delete sink;
    EXPECT_FALSE(CAudioBlock::ownsPort(gone));
    EXPECT_EQ(script.decodersOpen, 1);
    EXPECT_EQ(script.socketsOpen, 1);
    delete stream;
    EXPECT_EQ(script.decodersOpen, 0);
    EXPECT_EQ(script.socketsOpen, 0);
    stream = nullptr;
}

TEST_F(StreamOnAConnectedPort, AnEncodingWithoutASampleFormatPasses)
{
    of(44100, 2, 0x200);
    expectReady("(1) Stream parameters: 44100 Hz, 2 channels, 512 encoding");
}

// ---- whole ways

class StreamWay : public Stream
{
protected:
    /** Steps until the state is `wanted`; the states that were passed. */
    std::vector<int> walkTo(S::connectState_e wanted)
    {
        std::vector<int> states;
        for (int i = 0; i < 100 && stream->connectState != wanted; i++) {
            states.push_back(step().next);
        }
        return states;
    }
    /** An ICY header and a stream of `recipe`, as a server sends it. */
    static std::string streamOf(const mp3Files::recipe& recipe)
    {
        const mp3Files::bytes mp3 = mp3Files::encode(recipe);
        return "ICY 200 OK\r\nicy-name:Radio\r\n\r\n" + std::string(mp3.begin(), mp3.end());
    }
};

TEST_F(StreamWay, FromAPlsToTheFormat)
{
    (void)stream->setNewTopUrl("http://Station.example/Listen.pls");
    mp3Files::recipe mono;
    mono.rate = 48000;
    mono.channels = 1;
    const std::string sent = streamOf(mono);
    script.reads = {{ok("audio/x-scpls", onePls + "\n")}, {}, {sent}};
    EXPECT_THAT(walkTo(S::SHOUTCAST_ITEM_READY), ElementsAre(2, 3, 4, 4, 5, 6, 7, 8, 10, 9, 11, 12, 13, 13, 14, 15));
    EXPECT_TRUE(stream->getShoutcastConnected());
    EXPECT_EQ(stream->params().nominalSampleRate, 48000.0F);
    EXPECT_EQ(stream->params().numChannels, 1U);
    EXPECT_EQ(stream->params().sampleFormat, SAMPLE_S16BIT_LE);
    EXPECT_EQ(stream->params().periodSize, 1024U);
    // What came with the header is never decoded: the first audio is what was read behind the first 4096 bytes.
    EXPECT_EQ(script.decoded, sent.substr(4096, 2048));
}

TEST_F(StreamWay, FromSilenceToADirectStream)
{
    (void)stream->setNewTopUrl("http://Station.example:8000/Live.MP3");
    EXPECT_THAT(walkTo(S::READ_PLAYLIST), ElementsAre(2, 3, 4));
    EXPECT_EQ(script.written, "GET http://Station.example:8000/Live.MP3 HTTP/1.0\r\n\r\n");
    EXPECT_EQ(step().next, S::READ_PLAYLIST);
    clockTime() = {1002, 1};
    script.reads = {{}, {streamOf(mp3Files::recipe())}};
    EXPECT_THAT(walkTo(S::INITIALIZE_MPG123), ElementsAre(5, 7, 8, 10));
    EXPECT_EQ(script.written, "GET /live.mp3 HTTP/1.0\r\n\r\n");
    EXPECT_THAT(walkTo(S::SHOUTCAST_ITEM_READY), ElementsAre(9, 11, 12, 13, 13, 14, 15));
    EXPECT_EQ(stream->params().nominalSampleRate, 44100.0F);
    EXPECT_EQ(stream->params().numChannels, 2U);
}

TEST_F(StreamWay, AThousandTimesLeavesOneSocketOneDecoderAndOneEntry)
{
    script.calls.clear();
    for (int i = 0; i < 1000; i++) {
        (void)stream->setNewTopUrl(topUrl);
        script.reads = {{"ICY 404 Resource Not Found\r\n"}, {}, {}, {"", OSA_CONNECTION_LOST}};
        (void)walkTo(S::FAILED_TO_OPEN_CONNECTION); // lost while it waits for the header
        ASSERT_EQ(stream->connectState, S::FAILED_TO_OPEN_CONNECTION);
        ASSERT_LE(script.socketsOpen, 1);
        ASSERT_LE(script.decodersOpen, 1);
        ASSERT_EQ(stream->playlist.size(), 1U);
        script.calls.clear();
        script.opened.clear();
    }
}

TEST_F(StreamWay, ReconnectingReplacesTheDecoderOfAnEntryThatFailedInItsHeader)
{
    item(topUrl);
    for (int i = 0; i < 1000; i++) {
        stream->become(S::OPEN_PLAYLIST_ITEM);
        script.reads = {{std::string(4096, 'h')}};
        (void)walkTo(S::FAILED_TO_OPEN_PLAYLIST_ITEM);
        ASSERT_EQ(script.decodersOpen, 1);
        ASSERT_EQ(script.socketsOpen, 0);
        script.calls.clear();
        script.opened.clear();
    }
}

TEST_F(StreamWay, RefusedAtOnceIsNeverClosedTwice)
{
    in(S::CONNECTING);
    script.connects = {OSA_SOCK_ERROR};
    (void)osaSockClose(&stream->connection); // as the refusal does within the connecting
    EXPECT_EQ(step().next, S::REQUEST_PLAYLIST);
    EXPECT_EQ(stream->setNewTopUrl(topUrl), STREAM_OK); // the stand-in reports a second close
}

} // namespace
