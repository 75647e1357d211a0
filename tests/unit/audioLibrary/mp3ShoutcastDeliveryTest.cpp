/**
 * CMp3ShoutcastPlay once it runs: service() and the ways back, and the pull. The sockets are stand-ins defined here; the
 * decoder is the real one, behind a wrap that looks on and can answer in its place.
 */

#include "audioLibrary/mp3ShoutcastPlay.h"

#include "audioLibrary/allocationCounter.h"
#include "audioLibrary/graphTestSupport.h"
#include "audioLibrary/mp3Files.h"

#include <algorithm>
#include <cstring>
#include <deque>
#include <gmock/gmock.h>
#include <memory>
#include <mpg123.h>

using namespace graphTest;
using namespace testing;
using mp3Files::bytes;

namespace
{

// ---- the network

/** What one read of the socket brings: a status, or bytes, which a read takes as far as it has room. */
struct readAnswer {
    int status = 0;
    bytes data;
};

struct Network {
    std::deque<osaStatus> opens;    ///< answers; else OSA_OK
    std::deque<osaStatus> connects; ///< answers; else OSA_OK
    std::deque<readAnswer> reads;   ///< answers; else 0
    Lines events;
    bool recording = true;
    int nsPerOpen = 0; ///< how long an opening takes on the test's clock

    void note(const std::string& event)
    {
        if (recording) {
            events.push_back(event);
        }
    }
} network;

osaStatus next(std::deque<osaStatus>& answers)
{
    if (answers.empty()) {
        return OSA_OK;
    }
    const osaStatus answer = answers.front();
    answers.pop_front();
    return answer;
}

// ---- the decoder

struct decodeCall {
    const unsigned char* in;
    size_t inBytes;
    unsigned char* out;
    size_t room;
};

struct decodeAnswer {
    int status;
    size_t numBytes; ///< of the value 7
    int times = 1;
};

struct Decoder {
    std::deque<decodeAnswer> script; ///< in place of the real one's answers to calls without input
    std::vector<decodeCall> calls;
    bool recording = true;
} decoder;

} // namespace

osaStatus osaSockOpen(sockObject* sock)
{
    network.note("open " + std::string(sock->txAddr.host) + ":" + std::to_string(sock->txPort));
    clockTime().tv_nsec += network.nsPerOpen;
    const osaStatus status = next(network.opens);
    sock->open = status == OSA_OK ? 1 : 0;
    return status;
}
osaStatus osaSockClose(sockObject* sock)
{
    network.note("close");
    sock->open = 0;
    return OSA_OK;
}
osaStatus osaSockConnect(sockObject*)
{
    network.note("connect");
    return next(network.connects);
}
int osaSockWrite(sockObject*, char* buf, unsigned int len)
{
    network.note("write " + std::string(buf, len));
    return static_cast<int>(len);
}
int osaSockRead(sockObject*, char* buf, unsigned int len)
{
    if (network.recording) {
        network.note("read " + std::to_string(len));
    }
    if (network.reads.empty()) {
        return 0;
    }
    readAnswer& answer = network.reads.front();
    const size_t numBytes = std::min<size_t>(len, answer.data.size());
    const int result = answer.data.empty() ? answer.status : static_cast<int>(numBytes);
    std::copy_n(answer.data.begin(), numBytes, reinterpret_cast<unsigned char*>(buf));
    answer.data.erase(answer.data.begin(), answer.data.begin() + static_cast<long>(numBytes));
    if (answer.data.empty()) {
        network.reads.pop_front();
    }
    return result;
}

extern "C" {
int __real_mpg123_decode(mpg123_handle*, const unsigned char*, size_t, unsigned char*, size_t, size_t*);

int __wrap_mpg123_decode(mpg123_handle* mh, const unsigned char* in, size_t inBytes, unsigned char* out, size_t room,
                         size_t* done)
{
    if (decoder.recording) {
        decoder.calls.push_back({in, inBytes, out, room});
    }
    if (in != nullptr || decoder.script.empty()) {
        return __real_mpg123_decode(mh, in, inBytes, out, room, done);
    }
    decodeAnswer& answer = decoder.script.front();
    *done = std::min(answer.numBytes, room);
    std::memset(out, 7, *done);
    const int status = answer.status;
    if (--answer.times == 0) {
        decoder.script.pop_front();
    }
    return status;
}
}

namespace
{

/** The block with its inside open. */
class Stream : public CMp3ShoutcastPlay
{
public:
    Stream() : CMp3ShoutcastPlay("STREAM") {}

    using CMp3ShoutcastPlay::connectState;
    using CMp3ShoutcastPlay::currentPlaylistNum;
    using CMp3ShoutcastPlay::decodedBytes;
    using CMp3ShoutcastPlay::decodeStatus;
    using CMp3ShoutcastPlay::fileStatus;
    using CMp3ShoutcastPlay::hoardedBytes;
    using CMp3ShoutcastPlay::idle_time;
    using CMp3ShoutcastPlay::isShoutcastConnected;
    using CMp3ShoutcastPlay::mh;
    using CMp3ShoutcastPlay::mp3InBuf;
    using CMp3ShoutcastPlay::mp3OutBuf;
    using CMp3ShoutcastPlay::newInBytes;
    using CMp3ShoutcastPlay::nodata_start;
    using CMp3ShoutcastPlay::nodata_stop;
    using CMp3ShoutcastPlay::playlist;
    using CMp3ShoutcastPlay::playlistfailcount;
    using CMp3ShoutcastPlay::shoutcastUrl;
    using CMp3ShoutcastPlay::streamMode;
    using CMp3ShoutcastPlay::streamRequestFailCount;
    using CMp3ShoutcastPlay::workBuffer;
    using CMp3ShoutcastPlay::workBufferEmpty;
    using CMp3ShoutcastPlay::workBufferSize;

    CUpstreamPort& port() { return *upstream[0]; }
};

using state = CMp3ShoutcastPlay::connectState_e;

constexpr uint32_t PERIOD = 300; ///< frames; no divisor of an MP3 frame
constexpr uint32_t PERIOD_BYTES = PERIOD * 4;
constexpr timespec NO_TIME = {};

timespec at(time_t seconds, long ns)
{
    timespec time = {};
    time.tv_sec = seconds;
    time.tv_nsec = ns;
    return time;
}

std::string text(const timespec& time)
{
    return std::to_string(time.tv_sec) + ":" + std::to_string(time.tv_nsec);
}

class ShoutcastTest : public GraphTest
{
protected:
    void SetUp() override
    {
        GraphTest::SetUp();
        network = Network();
        decoder = Decoder();
        stream = new Stream; // deleted with the registry
        sink = new ProbeBlock("SINK", 0, 1);
        audioPortParam_t wanted = allVariable();
        wanted.periodSizeStatus = FIXED;
        wanted.periodSize = PERIOD;
        sink->ds().become(wanted);
    }

    /** A playlist of that many entries: file "http://host0/Path", title "Title 0", and so on. */
    void list(int numEntries)
    {
        for (int i = 0; i < numEntries; i++) {
            const std::string number = std::to_string(i);
            stream->playlist.push_back(
                new CShoutcastPlaylistItem{"http://host" + number + "/Path", "Title " + number, ""});
        }
    }

    streamStatus service()
    {
        streamStatus status = STREAM_OK;
        next = ASKED;
        lines = traced(0, [&] { status = stream->service(next); });
        return status;
    }

    streamStatus pull()
    {
        char untouched = 0;
        streamStatus status = STREAM_OK;
        buffer = &untouched;
        nPeriods = 99;
        lines = traced(0, [&] { status = stream->port().reqReadPeriods(buffer, nPeriods); });
        return status;
    }

    /** Takes the block, as if connected by hand, to where audio may be pulled, with a decoder of its own making. */
    void becomeReady()
    {
        stream->connectState = state::INITIALIZE_MPG123;
        if (stream->playlist.empty()) {
            list(1);
        }
        ASSERT_EQ(service(), STREAM_OK);
        stream->isShoutcastConnected = true;
        stream->connectState = state::SHOUTCAST_ITEM_READY;
        stream->fileStatus = FILE_OK;
        if (!stream->port().isConnected(nullptr)) {
            stream->port().params.numChannelsStatus = FIXED;
            stream->port().params.sampleFormatStatus = FIXED;
            testing::internal::CaptureStdout();
            ASSERT_EQ(stream->port().connectDownstream(&sink->ds(), nullptr), STREAM_OK);
            (void)testing::internal::GetCapturedStdout();
            ASSERT_EQ(stream->workBufferSize, PERIOD_BYTES);
        }
        network.events.clear();
        decoder.calls.clear();
    }

    static void arrives(const bytes& data) { network.reads.push_back({0, data}); }
    static void fails(int status) { network.reads.push_back({status, {}}); }

    /** The period that was lent. */
    bytes period() const { return {buffer, buffer + PERIOD_BYTES}; }

    /** Expects a pull that ends with nothing to give. */
    void expectNothing(streamStatus status)
    {
        EXPECT_EQ(pull(), status);
        EXPECT_EQ(buffer, nullptr);
        EXPECT_EQ(nPeriods, 0U);
    }

    static CServiceTime moment(int32_t seconds, int32_t ns)
    {
        CServiceTime time;
        time.nextServiceTime = {seconds, ns};
        return time;
    }

    /** What the caller brings: flags that must not stay, a time that shows whether it was touched. */
    static const CServiceTime ASKED;

    Stream* stream = nullptr;
    ProbeBlock* sink = nullptr;
    CServiceTime next;
    Lines lines;
    char* buffer = nullptr;
    unsigned int nPeriods = 0;
};

const CServiceTime ShoutcastTest::ASKED = [] {
    CServiceTime time;
    time.immediateService = true;
    time.serviceRequired = true;
    time.nextServiceTime = {5, 6};
    return time;
}();

const bytes& material()
{
    static const bytes file = mp3Files::encode({});
    return file;
}

bytes slice(const bytes& all, size_t first, size_t count)
{
    const auto begin = all.begin() + static_cast<long>(std::min(first, all.size()));
    return {begin, begin + static_cast<long>(std::min(count, all.size() - std::min(first, all.size())))};
}

// ---- service: the cases in order

TEST_F(ShoutcastTest, ReadyStreamWantsNoServiceAndForgetsFailures)
{
    stream->isShoutcastConnected = true;
    stream->connectState = state::FAILED_TO_OPEN_PLAYLIST_ITEM; // comes second
    stream->playlistfailcount = 4;
    EXPECT_EQ(service(), STREAM_OK);
    EXPECT_EQ(stream->playlistfailcount, 0);
    CServiceTime never;
    never.setNeverService();
    EXPECT_EQ(next, never);
    EXPECT_THAT(lines, IsEmpty());
    EXPECT_THAT(network.events, IsEmpty());
}

TEST_F(ShoutcastTest, DiscoveryTakesOneStepAHundredMillisecondsApart)
{
    stream->shoutcastUrl = "http://Where/list";
    network.connects = {OSA_IN_PROGRESS, OSA_OK};
    const std::tuple<state, std::string, state> steps[] = {
        {state::OPEN_CONNECTION, "open where:80", state::CONNECTING},
        {state::CONNECTING, "connect", state::CONNECTING},
        {state::CONNECTING, "connect", state::REQUEST_PLAYLIST},
        {state::REQUEST_PLAYLIST, "write GET http://Where/list HTTP/1.0\r\n\r\n", state::READ_PLAYLIST},
    };
    stream->connectState = state::OPEN_CONNECTION;
    for (const auto& [from, event, to] : steps) {
        ASSERT_EQ(stream->connectState, from);
        network.events.clear();
        clockTime() = {1000, 950000000};
        EXPECT_EQ(service(), STREAM_OK);
        EXPECT_EQ(network.events.back(), event);
        EXPECT_EQ(stream->connectState, to);
        EXPECT_EQ(next, moment(1001, 50000000)); // both flags clear
    }
}

TEST_F(ShoutcastTest, EachStateOfDiscoveryLeavesASourceThatDoesNotPlay)
{
    for (int number = state::OPEN_CONNECTION; number <= state::CALL_OPEN_PLAY_LIST_ITEM; number++) {
        stream->connectState = static_cast<state>(number);
        stream->fileStatus = FILE_OK;
        testing::internal::CaptureStderr();
        (void)service();
        (void)testing::internal::GetCapturedStderr();
        EXPECT_EQ(stream->fileStatus, FILE_ERROR) << number;
        EXPECT_EQ(stream->timeLeft(), 0) << number;
        EXPECT_EQ(next, moment(1000, 100000000)) << number;
    }
}

TEST_F(ShoutcastTest, FailedStepIsAnsweredAndStillServicedAgain)
{
    stream->connectState = state::OPEN_CONNECTION;
    network.opens = {OSA_SOCK_ERROR};
    EXPECT_EQ(service(), STREAM_ERROR);
    EXPECT_EQ(next, moment(1000, 100000000));
}

TEST_F(ShoutcastTest, NextServiceCountsFromTheCallHoweverLongTheStepTakes)
{
    network.nsPerOpen = 70000000;
    list(1);
    for (const state from : {state::OPEN_CONNECTION, state::OPEN_PLAYLIST_ITEM}) {
        clockTime() = {1000, 0};
        stream->connectState = from;
        (void)service();
        EXPECT_EQ(next, moment(1000, 100000000));
    }
}

TEST_F(ShoutcastTest, BlockWithoutAUrlIsServicedAndDoesNothing)
{
    EXPECT_EQ(service(), STREAM_OK);
    EXPECT_EQ(next, moment(1000, 100000000));
    EXPECT_THAT(lines, IsEmpty());
    EXPECT_THAT(network.events, IsEmpty());
    EXPECT_EQ(stream->connectState, state::NOT_READY);
}

TEST_F(ShoutcastTest, FailedEntryIsFollowedByTheNext)
{
    list(3);
    stream->connectState = state::FAILED_TO_OPEN_PLAYLIST_ITEM;
    EXPECT_EQ(service(), STREAM_OK);
    EXPECT_THAT(lines, ElementsAre("(0) Trying next shoutcast playlist item: Title 1"));
    EXPECT_THAT(network.events, ElementsAre("open host1:80"));
    EXPECT_EQ(stream->connectState, state::CONNECTING_PLAYLIST_ITEM);
    EXPECT_EQ(stream->currentPlaylistNum, 1U);
    EXPECT_EQ(stream->playlistfailcount, 0); // the opening has cleared it
    EXPECT_EQ(next, moment(1000, 100000000));
}

TEST_F(ShoutcastTest, NextEntryThatCannotBeOpenedCounts)
{
    list(3);
    stream->connectState = state::FAILED_TO_OPEN_PLAYLIST_ITEM;
    network.opens = {OSA_SOCK_ERROR};
    EXPECT_EQ(service(), STREAM_ERROR);
    EXPECT_EQ(stream->playlistfailcount, 1);
    EXPECT_EQ(stream->connectState, state::FAILED_TO_OPEN_CONNECTION);
    EXPECT_EQ(next, moment(1000, 100000000));
}

TEST_F(ShoutcastTest, AsManyFailuresAsEntriesEndTheTrying)
{
    for (const int entries : {0, 2}) {
        list(entries);
        stream->connectState = state::FAILED_TO_OPEN_PLAYLIST_ITEM;
        stream->playlistfailcount = entries;
        for (int call = 0; call < 3; call++) { // each repeats the outcome
            stream->fileStatus = FILE_OK;
            EXPECT_EQ(service(), STREAM_OK);
            EXPECT_THAT(lines, ElementsAre("(0) ERROR! Failed to open any shoutcast servers"));
            EXPECT_EQ(stream->timeLeft(), 0);
            EXPECT_EQ(stream->fileStatus, FILE_ERROR);
            EXPECT_EQ(next, ASKED); // as it was
            EXPECT_EQ(stream->connectState, state::FAILED_TO_OPEN_PLAYLIST_ITEM);
            EXPECT_EQ(stream->currentPlaylistNum, 0U);
            EXPECT_EQ(stream->playlistfailcount, entries);
        }
    }
    EXPECT_THAT(network.events, IsEmpty());
}

TEST_F(ShoutcastTest, IndexAtOrPastTheEndOfTheListIsAnError)
{
    list(3);
    for (const unsigned int last : {2U, 3U, 40U}) {
        stream->connectState = state::FAILED_TO_OPEN_PLAYLIST_ITEM;
        stream->currentPlaylistNum = last;
        stream->playlistfailcount = 1;
        EXPECT_EQ(service(), STREAM_ERROR) << last;
        EXPECT_EQ(stream->currentPlaylistNum, last + 1);
        EXPECT_EQ(stream->playlistfailcount, 2);
        EXPECT_EQ(stream->connectState, state::FAILED_TO_OPEN_PLAYLIST_ITEM);
        EXPECT_THAT(lines, IsEmpty());
    }
    EXPECT_THAT(network.events, IsEmpty());
}

TEST_F(ShoutcastTest, FailedConnectionIsReportedOnceAndThenMovesOn)
{
    list(2);
    stream->connectState = state::FAILED_TO_OPEN_CONNECTION;
    stream->fileStatus = FILE_OK;
    EXPECT_EQ(service(), STREAM_OK);
    EXPECT_THAT(lines, ElementsAre("(0) ERROR! Failed to open shoutcast connection"));
    EXPECT_EQ(stream->connectState, state::FAILED_TO_OPEN_PLAYLIST_ITEM);
    EXPECT_EQ(stream->fileStatus, FILE_ERROR);
    EXPECT_EQ(next, ASKED); // as it was
    EXPECT_THAT(network.events, IsEmpty());
    EXPECT_EQ(service(), STREAM_OK);
    EXPECT_THAT(lines, ElementsAre("(0) Trying next shoutcast playlist item: Title 1"));
}

TEST_F(ShoutcastTest, StatesOfAnEntryStepTowardsTheEntryInUse)
{
    list(3);
    stream->currentPlaylistNum = 1;
    for (int number = state::OPEN_PLAYLIST_ITEM; number <= state::SHOUTCAST_ITEM_READY; number++) {
        if (number == state::PARSE_PLAYLIST_ITEM_HEADERS || number == state::GET_PORT_PARAMS) {
            continue; // need what the states before them leave
        }
        stream->connectState = static_cast<state>(number);
        stream->playlistfailcount = 2;
        (void)service();
        ASSERT_FALSE(lines.empty()) << number;
        EXPECT_EQ(lines[0], "(0) Opening item http://host1/Path ") << number;
        EXPECT_EQ(next, moment(1000, 100000000)) << number;
        stream->isShoutcastConnected = false; // PARSE_PORT_PARAMS has set it
    }
    EXPECT_THAT(network.events,
                ElementsAre("open host1:80", "connect", "write GET /path HTTP/1.0\r\n\r\n", StartsWith("read ")));
}

TEST_F(ShoutcastTest, StateOfAnEntryWithEveryEntryFailedEndsTheTrying)
{
    list(2);
    stream->connectState = state::OPEN_PLAYLIST_ITEM;
    stream->playlistfailcount = 2;
    EXPECT_EQ(service(), STREAM_OK);
    EXPECT_THAT(lines, ElementsAre("(0) ERROR! Failed to open any shoutcast servers"));
    EXPECT_EQ(stream->fileStatus, FILE_ERROR);
    EXPECT_EQ(next, ASKED);
    EXPECT_EQ(stream->connectState, state::OPEN_PLAYLIST_ITEM);
    EXPECT_THAT(network.events, IsEmpty());
}

TEST_F(ShoutcastTest, EntryInUsePastTheEndOfAShorterListIsAnError)
{
    list(2);
    stream->currentPlaylistNum = 2;
    stream->connectState = state::OPEN_PLAYLIST_ITEM;
    EXPECT_EQ(service(), STREAM_ERROR);
    EXPECT_THAT(network.events, IsEmpty());
}

TEST_F(ShoutcastTest, EntriesAreTriedOnceInOrderAndNeverFromTheStart)
{
    list(3);
    const auto lose = [this] {
        becomeReady();
        fails(OSA_CONNECTION_LOST);
        expectNothing(LOST_CONNECTION_TO_SERVER);
    };
    Lines opened;
    for (int entry = 0; entry < 2; entry++) {
        lose();
        network.events.clear();
        EXPECT_EQ(service(), STREAM_OK);
        opened.insert(opened.end(), network.events.begin(), network.events.end());
        EXPECT_EQ(stream->playlistfailcount, 0);
    }
    EXPECT_THAT(opened, ElementsAre("open host1:80", "open host2:80"));
    lose();
    network.events.clear();
    // The index is past the end; the count of failures only now comes up to the number of entries.
    EXPECT_EQ(service(), STREAM_ERROR);
    EXPECT_EQ(service(), STREAM_ERROR);
    EXPECT_EQ(service(), STREAM_ERROR);
    EXPECT_EQ(service(), STREAM_OK);
    EXPECT_THAT(lines, ElementsAre("(0) ERROR! Failed to open any shoutcast servers"));
    EXPECT_THAT(network.events, IsEmpty());
    EXPECT_EQ(stream->timeLeft(), 0);
}

TEST_F(ShoutcastTest, LossOfASingleEntryIsAnError)
{
    becomeReady();
    fails(OSA_CONNECTION_LOST);
    expectNothing(LOST_CONNECTION_TO_SERVER);
    EXPECT_EQ(service(), STREAM_ERROR);
    EXPECT_EQ(stream->currentPlaylistNum, 1U);
}

// ---- the ways back

struct wayBack {
    const char* name;
    int read;                    ///< what the socket answers
    bool brings;                 ///< bytes come with it
    time_t idle;                 ///< seconds of gap so far
    Lines lines;                 ///< of the pull
    state becomes;               ///< the state after it
    std::vector<Lines> services; ///< lines of the calls that follow
    const char* opens;           ///< the entry that these open
};

const std::vector<wayBack> waysBack = {
    {"peer closed",
     OSA_CONNECTION_LOST,
     false,
     0,
     {"(0) ERROR! Connection lost."},
     state::FAILED_TO_OPEN_PLAYLIST_ITEM,
     {{"(0) Trying next shoutcast playlist item: Title 1"}},
     "open host1:80"},
    {"peer closed at the end of a gap",
     OSA_CONNECTION_LOST,
     false,
     6,
     {"(0) ERROR! Connection lost."},
     state::FAILED_TO_OPEN_PLAYLIST_ITEM,
     {{"(0) Trying next shoutcast playlist item: Title 1"}},
     "open host1:80"},
    {"socket error",
     OSA_SOCK_ERROR,
     false,
     0,
     {"(0) Got a -6 errorcode from shoutcast stream"},
     state::OPEN_PLAYLIST_ITEM,
     {{"(0) Opening item http://host0/Path "}},
     "open host0:80"},
    {"socket error at the end of a gap",
     OSA_ERROR,
     false,
     6,
     {"(0) Got a -1 errorcode from shoutcast stream"},
     state::OPEN_PLAYLIST_ITEM,
     {{"(0) Opening item http://host0/Path "}},
     "open host0:80"},
    {"no data for six seconds",
     0,
     false,
     6,
     {"streamMode = 4, streamRequestFailCount = 12, Time:6:0", "(0) Shoutcast gave up on playlist item: Title 0.",
      "(0) Retrying item: Title 0."},
     state::FAILED_TO_OPEN_CONNECTION,
     {{"(0) ERROR! Failed to open shoutcast connection"}, {"(0) Trying next shoutcast playlist item: Title 1"}},
     "open host1:80"},
    {"data after six seconds",
     0,
     true,
     6,
     {"streamMode = 4, streamRequestFailCount = 12, Time:6:0", "(0) Shoutcast gave up on playlist item: Title 0.",
      "(0) Retrying item: Title 0."},
     state::FAILED_TO_OPEN_CONNECTION,
     {{"(0) ERROR! Failed to open shoutcast connection"}, {"(0) Trying next shoutcast playlist item: Title 1"}},
     "open host1:80"},
};

class ShoutcastWaysBack : public ShoutcastTest, public WithParamInterface<wayBack>
{
};

TEST_P(ShoutcastWaysBack, LeadToAnEntry)
{
    const wayBack& way = GetParam();
    list(2);
    becomeReady();
    network.opens = {OSA_OK};
    stream->streamMode = CMp3ShoutcastPlay::DIRECT_CONNECTION;
    stream->streamRequestFailCount = 12;
    stream->idle_time.tv_sec = way.idle;
    stream->nodata_start = at(900, 1);
    stream->nodata_stop = at(906, 1);
    const bool gaveUp = way.becomes == state::FAILED_TO_OPEN_CONNECTION;
    network.reads.push_back({way.read, way.brings ? slice(material(), 0, 2048) : bytes()});

    expectNothing(LOST_CONNECTION_TO_SERVER);
    EXPECT_EQ(lines, way.lines);
    EXPECT_EQ(stream->connectState, way.becomes);
    EXPECT_FALSE(stream->isShoutcastConnected);
    EXPECT_EQ(stream->mh, nullptr);
    EXPECT_EQ(decoder.calls.size(), 1U) << "nothing is decoded of a stream that is given up";
    EXPECT_EQ(text(stream->nodata_start), gaveUp ? "0:0" : "900:1");
    EXPECT_EQ(text(stream->nodata_stop), gaveUp ? "0:0" : "906:1");
    EXPECT_EQ(stream->idle_time.tv_sec, gaveUp ? 0 : way.idle);
    EXPECT_EQ(stream->streamRequestFailCount, gaveUp ? 0 : 12);

    // From here on the pulls give nothing, without a look at the socket.
    network.events.clear();
    EXPECT_EQ(pull(), STREAM_OK);
    EXPECT_EQ(nPeriods, 0U);
    EXPECT_EQ(buffer, reinterpret_cast<char*>(stream->workBuffer));
    EXPECT_THAT(network.events, IsEmpty());

    for (const Lines& expected : way.services) {
        EXPECT_EQ(service(), STREAM_OK);
        EXPECT_EQ(lines, expected);
    }
    EXPECT_THAT(network.events, ElementsAre(way.opens));
    EXPECT_EQ(stream->connectState, state::CONNECTING_PLAYLIST_ITEM);
}

INSTANTIATE_TEST_SUITE_P(Table, ShoutcastWaysBack, ValuesIn(waysBack), [](const auto& one) {
    std::string name = one.param.name;
    std::erase_if(name, [](char letter) { return letter == ' '; });
    return name;
});

TEST_F(ShoutcastTest, ConnectionOfALostStreamIsClosed)
{
    list(2);
    stream->connectState = state::OPEN_PLAYLIST_ITEM;
    (void)service(); // opens it
    becomeReady();
    fails(OSA_CONNECTION_LOST);
    expectNothing(LOST_CONNECTION_TO_SERVER);
    EXPECT_THAT(network.events, ElementsAre("read 2048", "close"));
}

TEST_F(ShoutcastTest, EntryWithoutATitleIsGivenUpAllTheSame)
{
    becomeReady();
    stream->currentPlaylistNum = 7; // a list that has been replaced
    stream->idle_time.tv_sec = 6;
    expectNothing(LOST_CONNECTION_TO_SERVER);
    EXPECT_THAT(lines, Contains("(0) Retrying item: ."));
}

TEST_F(ShoutcastTest, StepThatFailsIsReportedAsAStallIs)
{
    list(2);
    stream->connectState = state::OPEN_PLAYLIST_ITEM;
    network.opens = {OSA_SOCK_ERROR};
    EXPECT_EQ(service(), STREAM_ERROR);
    EXPECT_EQ(service(), STREAM_OK);
    EXPECT_THAT(lines, ElementsAre("(0) ERROR! Failed to open shoutcast connection"));
    EXPECT_EQ(service(), STREAM_OK);
    EXPECT_THAT(lines, ElementsAre("(0) Trying next shoutcast playlist item: Title 1"));
}

TEST_F(ShoutcastTest, HeaderWithoutAnEndMovesToTheNextEntry)
{
    list(2);
    stream->connectState = state::REQUEST_PLAYLIST_ITEM_HEADERS;
    (void)service();
    arrives(bytes(4096, 'x'));
    (void)service();
    testing::internal::CaptureStderr();
    EXPECT_EQ(service(), INVALID_SHOUTCAST_HEADER);
    (void)testing::internal::GetCapturedStderr();
    EXPECT_EQ(stream->connectState, state::FAILED_TO_OPEN_PLAYLIST_ITEM);
    EXPECT_EQ(service(), STREAM_OK);
    EXPECT_THAT(lines, ElementsAre("(0) Trying next shoutcast playlist item: Title 1"));
}

TEST_F(ShoutcastTest, StreamOfAnotherFormatIsRefusedOnTheConnectedPort)
{
    list(2);
    becomeReady(); // stereo
    stream->port().params.numChannelsStatus = FIXED;
    fails(OSA_CONNECTION_LOST);
    expectNothing(LOST_CONNECTION_TO_SERVER);
    mp3Files::recipe mono;
    mono.channels = 1;
    const bytes other = mp3Files::encode(mono);
    std::string header = "ICY 200 OK\r\n\r\n";
    bytes sent(header.begin(), header.end());
    sent.insert(sent.end(), other.begin(), other.end());
    arrives(sent);
    streamStatus status = STREAM_OK;
    for (int calls = 0; calls < 20 && status == STREAM_OK; calls++) {
        status = service();
    }
    EXPECT_EQ(status, INVALID_SHOUTCAST_PARAM);
    EXPECT_EQ(stream->connectState, state::FAILED_TO_OPEN_CONNECTION);
}

TEST_F(ShoutcastTest, StreamComesBackOnTheNextEntryThroughAllItsStates)
{
    list(2);
    becomeReady();
    fails(OSA_CONNECTION_LOST);
    expectNothing(LOST_CONNECTION_TO_SERVER);
    const std::string header = "ICY 200 OK\r\n\r\n";
    bytes sent(header.begin(), header.end());
    sent.insert(sent.end(), material().begin(), material().end());
    arrives(sent);
    int calls = 0;
    while (!stream->isShoutcastConnected && calls < 20) {
        ASSERT_EQ(service(), STREAM_OK);
        EXPECT_EQ(next, moment(1000, 100000000));
        calls++;
    }
    // open, connect, decoder, clear, headers, end of headers, feed, format known, port
    EXPECT_EQ(calls, 9);
    EXPECT_EQ(stream->timeLeft(), -1);
    EXPECT_EQ(pull(), STREAM_OK);
    EXPECT_EQ(nPeriods, 1U);
    EXPECT_EQ(service(), STREAM_OK);
    EXPECT_EQ(next.nextServiceTime.tv_sec, INT32_MAX);
}

// ---- the pull

TEST_F(ShoutcastTest, PullBeforeTheStreamIsReadyGivesTheBufferAndNoPeriod)
{
    EXPECT_EQ(pull(), STREAM_OK);
    EXPECT_EQ(buffer, nullptr);
    EXPECT_EQ(nPeriods, 0U);
    becomeReady();
    stream->isShoutcastConnected = false;
    stream->decodedBytes = PERIOD_BYTES; // not even a complete one
    EXPECT_EQ(pull(), STREAM_OK);
    EXPECT_EQ(buffer, reinterpret_cast<char*>(stream->workBuffer));
    EXPECT_NE(buffer, nullptr);
    EXPECT_EQ(nPeriods, 0U);
    EXPECT_THAT(network.events, IsEmpty());
    EXPECT_THAT(decoder.calls, IsEmpty());
    EXPECT_THAT(lines, IsEmpty());
}

TEST_F(ShoutcastTest, PullsGiveWhatTheDecoderMakesOfTheStreamPeriodByPeriod)
{
    becomeReady();
    arrives(material());
    bytes got;
    while (pull() == STREAM_OK && nPeriods != 0) {
        ASSERT_EQ(nPeriods, 1U);
        ASSERT_EQ(buffer, reinterpret_cast<char*>(stream->workBuffer));
        ASSERT_EQ(stream->decodedBytes, 0);
        const bytes one = period();
        got.insert(got.end(), one.begin(), one.end());
    }
    got.insert(got.end(), stream->workBuffer, stream->workBuffer + stream->decodedBytes);
    const bytes expected = mp3Files::decodeFed(material(), 2048).audio;
    EXPECT_GE(expected.size(), 100U * PERIOD_BYTES);
    EXPECT_TRUE(got == expected);
    for (const std::string& event : network.events) {
        EXPECT_EQ(event, "read 2048");
    }
}

TEST_F(ShoutcastTest, DecoderIsFedWithTheReadAndAskedForTheRestOfThePeriod)
{
    becomeReady();
    arrives(slice(material(), 0, 100));
    decoder.script = {{MPG123_OK, 500}, {MPG123_NEED_MORE, 0}, {MPG123_OK, 5000}};
    EXPECT_EQ(pull(), STREAM_OK);
    EXPECT_EQ(nPeriods, 1U);
    EXPECT_EQ(period(), bytes(PERIOD_BYTES, 7));
    ASSERT_EQ(decoder.calls.size(), 4U);
    const auto expectCollects = [this](const decodeCall& call, size_t filled) {
        EXPECT_EQ(call.in, nullptr);
        EXPECT_EQ(call.inBytes, 0U);
        EXPECT_EQ(call.out, stream->workBuffer + filled);
        EXPECT_EQ(call.room, PERIOD_BYTES - filled);
    };
    expectCollects(decoder.calls[0], 0);
    expectCollects(decoder.calls[1], 500);
    EXPECT_EQ(decoder.calls[2].in, stream->mp3InBuf);
    EXPECT_EQ(decoder.calls[2].inBytes, 100U);
    EXPECT_EQ(decoder.calls[2].out, stream->mp3OutBuf);
    EXPECT_EQ(decoder.calls[2].room, 0U);
    expectCollects(decoder.calls[3], 500);
    EXPECT_EQ(stream->newInBytes, 100);
    EXPECT_EQ(stream->decodeStatus, MPG123_OK);
}

TEST_F(ShoutcastTest, OutputIsCollectedUntilThereIsNoneWhateverTheDecoderSaysWithIt)
{
    becomeReady();
    decoder.script = {{MPG123_NEED_MORE, 400}, {MPG123_ERR, 400}, {MPG123_NEW_FORMAT, 400}};
    EXPECT_EQ(pull(), STREAM_OK);
    EXPECT_EQ(nPeriods, 1U);
    EXPECT_EQ(decoder.calls.size(), 3U);
    EXPECT_THAT(network.events, IsEmpty()) << "no read while there is output";
}

TEST_F(ShoutcastTest, FilledPeriodIsGivenWithoutTheDecoder)
{
    becomeReady();
    stream->decodedBytes = PERIOD_BYTES + 1;
    stream->decodeStatus = MPG123_DONE; // comes second
    EXPECT_EQ(pull(), STREAM_OK);
    EXPECT_EQ(nPeriods, 1U);
    EXPECT_EQ(buffer, reinterpret_cast<char*>(stream->workBuffer));
    EXPECT_EQ(stream->decodedBytes, 0);
    EXPECT_THAT(decoder.calls, IsEmpty());
    EXPECT_THAT(lines, IsEmpty());
}

TEST_F(ShoutcastTest, HalfFilledPeriodWaitsForTheRestOfIt)
{
    becomeReady();
    const bytes expected = mp3Files::decodeFed(material(), 2048).audio;
    size_t sent = 0;
    size_t given = 0;
    // In pieces smaller than an MP3 frame, with a pull that finds nothing after each.
    while (given < 20 * PERIOD_BYTES) {
        arrives(slice(material(), sent, 150));
        sent += 150;
        while (pull() == STREAM_OK && nPeriods == 1) {
            ASSERT_TRUE(period() == slice(expected, given, PERIOD_BYTES)) << given;
            given += PERIOD_BYTES;
        }
        ASSERT_EQ(buffer, nullptr);
        const int kept = stream->decodedBytes;
        expectNothing(STREAM_OK);
        ASSERT_EQ(stream->decodedBytes, kept);
    }
}

TEST_F(ShoutcastTest, HalfFilledPeriodIsCompletedWithTheAudioOfTheNextConnection)
{
    list(2);
    becomeReady();
    decoder.script = {{MPG123_OK, 500}, {MPG123_NEED_MORE, 0}};
    fails(OSA_CONNECTION_LOST);
    expectNothing(LOST_CONNECTION_TO_SERVER);
    EXPECT_EQ(stream->decodedBytes, 500);
    becomeReady();
    arrives(material());
    EXPECT_EQ(pull(), STREAM_OK);
    ASSERT_EQ(nPeriods, 1U);
    bytes expected(500, 7);
    const bytes fresh = slice(mp3Files::decodeFed(material(), 2048).audio, 0, PERIOD_BYTES - 500);
    expected.insert(expected.end(), fresh.begin(), fresh.end());
    EXPECT_TRUE(period() == expected);
}

TEST_F(ShoutcastTest, EndOfTheStreamIsSilencePeriodByPeriod)
{
    becomeReady();
    stream->decodeStatus = MPG123_DONE;
    for (int times = 0; times < 2; times++) {
        std::memset(stream->workBuffer, 1, PERIOD_BYTES);
        stream->decodedBytes = 8;
        stream->workBufferEmpty = true;
        EXPECT_EQ(pull(), STREAM_OK);
        EXPECT_EQ(nPeriods, 1U);
        EXPECT_EQ(period(), bytes(PERIOD_BYTES, 0));
        EXPECT_THAT(lines, ElementsAre("(0) WARNING: End of file."));
        EXPECT_EQ(stream->fileStatus, FILE_DONE);
        EXPECT_EQ(stream->timeLeft(), 0);
        EXPECT_FALSE(stream->workBufferEmpty);
        EXPECT_EQ(stream->decodedBytes, 0);
    }
    EXPECT_THAT(decoder.calls, IsEmpty());
    EXPECT_THAT(network.events, IsEmpty());
}

TEST_F(ShoutcastTest, EndWithThePeriodIsToldByTheNextPull)
{
    becomeReady();
    decoder.script = {{MPG123_DONE, PERIOD_BYTES}};
    EXPECT_EQ(pull(), STREAM_OK);
    EXPECT_EQ(nPeriods, 1U);
    EXPECT_EQ(period(), bytes(PERIOD_BYTES, 7));
    EXPECT_EQ(stream->fileStatus, FILE_OK);
    EXPECT_EQ(pull(), STREAM_OK);
    EXPECT_EQ(period(), bytes(PERIOD_BYTES, 0));
    EXPECT_EQ(stream->fileStatus, FILE_DONE);
}

TEST_F(ShoutcastTest, DecoderThatGivesErrorsAndNoOutputHoldsThePull)
{
    for (const int status : {MPG123_ERR, MPG123_DONE, MPG123_OK, MPG123_NEW_FORMAT}) {
        becomeReady();
        decoder.script = {{status, 0, 100000}, {MPG123_NEED_MORE, 0}};
        decoder.calls.reserve(100002);
        network.reads.clear();
        expectNothing(STREAM_OK);
        EXPECT_EQ(decoder.calls.size(), 100001U);
        EXPECT_THAT(network.events, ElementsAre("read 2048")) << "asked of the socket only when the decoder wants more";
        EXPECT_THAT(lines, IsEmpty()) << "an error of the decoder is not told";
    }
}

/** What announces a tag of `numBytes`, seven bits a byte. */
bytes tagHeader(uint32_t numBytes)
{
    bytes header = {'I', 'D', '3', 3, 0, 0};
    for (const int shift : {21, 14, 7, 0}) {
        header.push_back(static_cast<unsigned char>(numBytes >> shift & 0x7F));
    }
    return header;
}

TEST_F(ShoutcastTest, TagThatClaimsMoreThanTheMemoryIsGivenUpAtSixteenMegabytes)
{
    list(2);
    becomeReady();
    network.recording = false;
    decoder.recording = false;
    stream->hoardedBytes = 16777216 - 4096; // the rest, without the time that it takes
    arrives(tagHeader(0x0FFFFFFF));
    arrives(bytes(2048 - 10, 0));
    arrives(bytes(2048, 0));
    expectNothing(STREAM_OK); // all of it taken
    EXPECT_EQ(stream->hoardedBytes, 16777216U);
    arrives(bytes(1, 0));
    testing::internal::CaptureStderr();
    expectNothing(LOST_CONNECTION_TO_SERVER);
    EXPECT_THAT(testing::internal::GetCapturedStderr(), EndsWith("no audio in 16777217 bytes of the stream\n"));
    EXPECT_EQ(stream->connectState, state::FAILED_TO_OPEN_PLAYLIST_ITEM);
    EXPECT_EQ(stream->mh, nullptr);
    EXPECT_EQ(stream->hoardedBytes, 0U);
    EXPECT_EQ(service(), STREAM_OK);
    EXPECT_THAT(lines, ElementsAre("(0) Trying next shoutcast playlist item: Title 1"));
}

TEST_F(ShoutcastTest, TagWithALargePictureIsPassedOver)
{
    becomeReady();
    constexpr uint32_t tagBytes = 1000000;
    bytes sent = tagHeader(tagBytes);
    sent.resize(sent.size() + tagBytes, 0);
    arrives(sent);
    expectNothing(STREAM_OK);
    EXPECT_GE(stream->hoardedBytes, tagBytes);
    arrives(material());
    EXPECT_EQ(pull(), STREAM_OK);
    EXPECT_EQ(nPeriods, 1U);
    EXPECT_LT(stream->hoardedBytes, 4096U); // audio counts from its own
}

TEST_F(ShoutcastTest, GarbageIsNoHoardHoweverMuchOfItComes)
{
    becomeReady();
    arrives(material());
    while (pull() == STREAM_OK && nPeriods != 0) {
    }
    stream->hoardedBytes = 16777216 - 80000;
    arrives(bytes(400000, 0x11)); // the decoder says that it found no frame, time and again
    testing::internal::CaptureStderr();
    expectNothing(STREAM_OK);
    EXPECT_THAT(testing::internal::GetCapturedStderr(), Not(HasSubstr("no audio in")));
    EXPECT_LT(stream->hoardedBytes, 80000U);
    EXPECT_TRUE(stream->isShoutcastConnected);
}

TEST_F(ShoutcastTest, ChangeOfFormatWithinTheStreamLeavesThePortAsItIs)
{
    becomeReady();
    const audioPortParam_t before = stream->port().params;
    mp3Files::recipe other;
    other.rate = 48000;
    other.channels = 1;
    other.infoTag = false;
    bytes both = slice(material(), 0, 20000);
    const bytes second = mp3Files::encode(other);
    both.insert(both.end(), second.begin(), second.end());
    arrives(both);
    int periods = 0;
    while (pull() == STREAM_OK && nPeriods == 1) {
        EXPECT_THAT(lines, IsEmpty());
        periods++;
    }
    EXPECT_GT(periods, 150); // more than the first part has
    expectSameParams(stream->port().params, before);
    EXPECT_TRUE(stream->isShoutcastConnected);
}

TEST_F(ShoutcastTest, PullAllocatesNothing)
{
    becomeReady();
    arrives(material());
    network.recording = false;
    decoder.recording = false;
    audioInterfaceTraceLevel = -1;
    unsigned int numPeriods = 0;
    const unsigned int before = allocationsSoFar();
    for (int pulls = 0; pulls < 1000; pulls++) {
        (void)stream->port().reqReadPeriods(buffer, nPeriods);
        (void)stream->port().ackReadPeriods(nPeriods);
        numPeriods += nPeriods;
    }
    EXPECT_EQ(allocationsSoFar(), before);
    EXPECT_GE(numPeriods, 100U);
}

// ---- a gap in the stream

TEST_F(ShoutcastTest, FirstEmptyReadBeginsAGapAndTheOthersMeasureIt)
{
    struct row {
        monotonicTime now;
        time_t idle;
    };
    const row rows[] = {
        {{1000, 500000000}, 0}, // at once again
        {{1001, 499999999}, 0}, {{1001, 500000000}, 1}, {{1005, 499999999}, 4},
        {{1005, 500000000}, 5}, {{1006, 499999999}, 5},
    };
    becomeReady();
    clockTime() = {1000, 500000000};
    expectNothing(STREAM_OK);
    EXPECT_EQ(text(stream->nodata_start), "1000:500000000");
    EXPECT_EQ(text(stream->nodata_stop), "0:0");
    EXPECT_EQ(stream->streamRequestFailCount, 1);
    int count = 1;
    for (const row& one : rows) {
        clockTime() = one.now;
        expectNothing(STREAM_OK);
        EXPECT_EQ(text(stream->nodata_start), "1000:500000000");
        EXPECT_EQ(text(stream->nodata_stop), text(at(one.now.tv_sec, one.now.tv_nsec)));
        EXPECT_EQ(stream->idle_time.tv_sec, one.idle) << one.now.tv_sec << ":" << one.now.tv_nsec;
        EXPECT_EQ(stream->idle_time.tv_nsec, 0);
        EXPECT_EQ(stream->streamRequestFailCount, ++count);
        EXPECT_THAT(lines, IsEmpty());
    }
}

TEST_F(ShoutcastTest, GapOfSixSecondsIsSeenByTheReadThatFollowsIt)
{
    becomeReady();
    clockTime() = {1000, 500000000};
    expectNothing(STREAM_OK);
    clockTime() = {1006, 500000000};
    expectNothing(STREAM_OK);
    EXPECT_EQ(stream->idle_time.tv_sec, 6);
    EXPECT_TRUE(stream->isShoutcastConnected);
    arrives(material()); // too late
    expectNothing(LOST_CONNECTION_TO_SERVER);
    EXPECT_THAT(lines, Contains("streamMode = 0, streamRequestFailCount = 2, Time:6:0"));
}

TEST_F(ShoutcastTest, GapOfFiveSecondsEndsWithItsTimesAndTheAudioGoesOn)
{
    becomeReady();
    clockTime() = {1000, 500000000};
    expectNothing(STREAM_OK);
    clockTime() = {1005, 900000000};
    expectNothing(STREAM_OK);
    EXPECT_EQ(stream->idle_time.tv_sec, 5);
    clockTime() = {1006, 100000007};
    arrives(material());
    EXPECT_EQ(pull(), STREAM_OK);
    EXPECT_EQ(nPeriods, 1U);
    EXPECT_THAT(lines,
                ElementsAre("Start_Time: 1000:500000000 Stop_Time: 1006:100000007 Time between data: 5:600000007"));
    EXPECT_EQ(text(stream->nodata_start), text(NO_TIME));
    EXPECT_EQ(text(stream->nodata_stop), text(NO_TIME));
    EXPECT_EQ(text(stream->idle_time), text(NO_TIME));
    EXPECT_EQ(stream->streamRequestFailCount, 0);
    EXPECT_EQ(pull(), STREAM_OK); // and is told once
    EXPECT_THAT(lines, IsEmpty());
}

TEST_F(ShoutcastTest, GapOfOneEmptyReadIsToldToo)
{
    becomeReady();
    clockTime() = {1000, 999999999};
    expectNothing(STREAM_OK);
    clockTime() = {1001, 0};
    arrives(material());
    EXPECT_EQ(pull(), STREAM_OK);
    EXPECT_THAT(lines, ElementsAre("Start_Time: 1000:999999999 Stop_Time: 1001:0 Time between data: 0:1"));
}

TEST_F(ShoutcastTest, GapThatBeginsInTheFirstSecondOfTheClockBeginsAnewWithEachEmptyRead)
{
    becomeReady();
    clockTime() = {0, 700};
    expectNothing(STREAM_OK);
    clockTime() = {0, 900};
    expectNothing(STREAM_OK);
    EXPECT_EQ(text(stream->nodata_start), "0:900");
    EXPECT_EQ(text(stream->nodata_stop), "0:0");
    stream->nodata_stop = at(3, 0); // only its nanoseconds are looked at
    expectNothing(STREAM_OK);
    EXPECT_EQ(text(stream->nodata_start), "0:900");
    EXPECT_EQ(text(stream->nodata_stop), "3:0");
    // Nanoseconds alone are a gap all the same.
    arrives(material());
    EXPECT_EQ(pull(), STREAM_OK);
    EXPECT_THAT(lines, ElementsAre("Start_Time: 0:900 Stop_Time: 0:900 Time between data: 0:0"));
}

TEST_F(ShoutcastTest, GapThatALostConnectionCutsOffGoesOnOnTheNextOne)
{
    list(2);
    becomeReady();
    clockTime() = {1000, 1};
    expectNothing(STREAM_OK);
    fails(OSA_CONNECTION_LOST);
    expectNothing(LOST_CONNECTION_TO_SERVER);
    becomeReady();
    clockTime() = {1009, 1};
    arrives(material());
    EXPECT_EQ(pull(), STREAM_OK);
    EXPECT_THAT(lines, ElementsAre("Start_Time: 1000:1 Stop_Time: 1009:1 Time between data: 9:0"));
}

TEST_F(ShoutcastTest, TimesAreSubtractedWithABorrowedSecond)
{
    EXPECT_EQ(text(CMp3ShoutcastPlay::timediff(at(3, 5), at(7, 5))), "4:0");
    EXPECT_EQ(text(CMp3ShoutcastPlay::timediff(at(3, 5), at(7, 9))), "4:4");
    EXPECT_EQ(text(CMp3ShoutcastPlay::timediff(at(3, 5), at(7, 4))), "3:999999999");
    EXPECT_EQ(text(CMp3ShoutcastPlay::timediff(at(3, 999999999), at(4, 0))), "0:1");
    EXPECT_EQ(text(CMp3ShoutcastPlay::timediff(at(3, 5), at(3, 4))), "-1:999999999");
}

TEST_F(ShoutcastTest, TimeLeftTellsWhetherTheStreamPlays)
{
    EXPECT_EQ(stream->timeLeft(), -1);
    const std::pair<fileStatus_e, int32_t> rows[] = {{FILE_OK, -1}, {FILE_NONE, -1}, {FILE_DONE, 0}, {FILE_ERROR, 0}};
    for (const auto& [status, left] : rows) {
        stream->fileStatus = status;
        EXPECT_EQ(stream->timeLeft(), left) << status;
    }
}

// ---- the port

TEST_F(ShoutcastTest, PortIsNotConnectedBeforeTheStreamIsReady)
{
    EXPECT_EQ(stream->port().connectDownstream(&sink->ds(), nullptr), STREAM_ERROR);
    EXPECT_FALSE(stream->port().isConnected(nullptr));
    EXPECT_FALSE(sink->ds().isConnected(nullptr));
    EXPECT_EQ(sink->ds().checks, 0);
    stream->isShoutcastConnected = true;
    EXPECT_EQ(stream->port().connectDownstream(&sink->ds(), nullptr), STREAM_OK);
    EXPECT_TRUE(stream->port().isConnected(&sink->ds()));
    EXPECT_EQ(stream->port().connectDownstream(nullptr, nullptr), STREAM_ERROR);
}

TEST_F(ShoutcastTest, ConnectedPortTakesTheReadersPeriodAndMakesABufferForIt)
{
    becomeReady();
    EXPECT_EQ(stream->port().params.periodSize, PERIOD);
    EXPECT_EQ(stream->workBufferSize, 300U * 2 * 2);
    EXPECT_NE(stream->workBuffer, nullptr);
}

TEST_F(ShoutcastTest, RecordThatDoesNotFitChangesNothingButTheBuffer)
{
    becomeReady();
    stream->port().params.numChannelsStatus = FIXED;
    const audioPortParam_t before = stream->port().params;
    audioPortParam_t odd = before;
    odd.numChannels = 6;
    odd.periodSize = 77;
    std::memset(stream->workBuffer, 1, PERIOD_BYTES);
    EXPECT_EQ(stream->port().reconfigPortApply(&odd), STREAM_ERROR);
    expectSameParams(stream->port().params, before);
    EXPECT_EQ(stream->workBufferSize, PERIOD_BYTES);
    EXPECT_EQ(bytes(stream->workBuffer, stream->workBuffer + PERIOD_BYTES), bytes(PERIOD_BYTES, 0)); // a new one
    EXPECT_EQ(stream->port().reconfigPortApply(nullptr), STREAM_ERROR);
    expectSameParams(stream->port().params, before);
    EXPECT_EQ(stream->workBufferSize, PERIOD_BYTES);
}

TEST_F(ShoutcastTest, RecordThatFitsIsTakenWhole)
{
    becomeReady();
    stream->port().params.periodSizeStatus = VARIABLE;
    audioPortParam_t wanted = stream->port().params;
    wanted.periodSize = 77;
    wanted.periodSizeStatus = FIXED; // the peer's word counts for the status too
    wanted.trueSampleRate = 44099.0F;
    EXPECT_EQ(stream->port().reconfigPortApply(&wanted), STREAM_OK);
    expectSameParams(stream->port().params, wanted);
    EXPECT_EQ(stream->workBufferSize, 77U * 4);
}

TEST_F(ShoutcastTest, BufferHoldsOnePeriodOfTheConnectedPort)
{
    const std::tuple<int, uint32_t, std::string> rows[] = {
        {1, 7 * 3, ""},     {2, 7 * 3 * 2, ""}, {3, 7 * 3 * 2, ""},
        {4, 7 * 3 * 4, ""}, {5, 7 * 3 * 4, ""}, {0, 0, "invalid sample format: 0\n"},
    };
    becomeReady();
    stream->port().params.periodSize = 7;
    stream->port().params.numChannels = 3;
    for (const auto& [format, size, line] : rows) {
        stream->port().params.sampleFormat = static_cast<sampleFormat_e>(format);
        stream->workBufferEmpty = false;
        testing::internal::CaptureStderr();
        EXPECT_EQ(stream->allocateWorkBuffer(), STREAM_OK);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), line);
        EXPECT_EQ(stream->workBufferSize, size);
        EXPECT_NE(stream->workBuffer, nullptr);
        EXPECT_FALSE(stream->workBufferEmpty);
    }
}

TEST_F(ShoutcastTest, FreePortHasNoBuffer)
{
    becomeReady();
    (void)stream->port().disconnect();
    stream->workBufferEmpty = true;
    EXPECT_EQ(stream->allocateWorkBuffer(), STREAM_OK);
    EXPECT_EQ(stream->workBuffer, nullptr);
    EXPECT_EQ(stream->workBufferSize, 0U);
    EXPECT_TRUE(stream->workBufferEmpty);
}

TEST_F(ShoutcastTest, BufferThatShrinksBelowWhatWasDecodedIsGivenAsItIs)
{
    becomeReady();
    stream->decodedBytes = 1000;
    stream->port().params.periodSize = 100;
    (void)stream->allocateWorkBuffer();
    EXPECT_EQ(pull(), STREAM_OK);
    EXPECT_EQ(nPeriods, 1U);
    EXPECT_EQ(bytes(buffer, buffer + 400), bytes(400, 0));
    EXPECT_THAT(decoder.calls, IsEmpty());
}

TEST_F(ShoutcastTest, AcknowledgementFreesThePeriodAndCountsIt)
{
    becomeReady();
    stream->workBufferEmpty = false;
    const long before = stream->port().getPeriodCount();
    EXPECT_EQ(stream->port().ackReadPeriods(0), STREAM_OK);
    EXPECT_FALSE(stream->workBufferEmpty);
    EXPECT_EQ(stream->port().getPeriodCount(), before);
    EXPECT_EQ(stream->port().ackReadPeriods(3), STREAM_OK);
    EXPECT_TRUE(stream->workBufferEmpty);
    EXPECT_EQ(stream->port().getPeriodCount(), before + 3);
}

TEST_F(ShoutcastTest, CallTraceNamesServiceAndPull)
{
    list(1);
    Lines trace = traced(9, [this] {
        (void)stream->service(next);
        (void)stream->reqReadPeriods(buffer, nPeriods);
    });
    EXPECT_THAT(trace, Contains(AllOf(StartsWith("(9) "), HasSubstr("CMp3ShoutcastPlay::service("))));
    EXPECT_THAT(trace, Contains(AllOf(StartsWith("(9) "), HasSubstr("CMp3ShoutcastPlay::reqReadPeriods("))));
}

} // namespace
