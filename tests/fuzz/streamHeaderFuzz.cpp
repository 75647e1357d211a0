/**
 * Any server behind a stream's URL: what it answers to the first request and to the second, up to the known format.
 *
 *   input: one byte of choices (how a connection ends, what connecting answers, call trace), the size of the pieces that
 *          come at a time, the length of the first reply, the first reply, then what comes on the second connection
 *
 * A header that ends the process by its length is left out. Audio is not pulled: a decoder that only complains holds a
 * pull for ever.
 */

#include "fuzz.h"

#include "audioLibrary/mp3ShoutcastPlay.h"

#include <cstring>

using namespace audioLibrarySpace;

namespace
{

/** The network, which has one server. */
struct Server {
    std::string replies[2]; ///< by connection; later ones get what is left of the second
    size_t connection = 0;
    size_t pieceBytes = 1;
    uint8_t choices = 0;
    int open = 0;
} server;

constexpr int mostSteps = 120;
constexpr size_t maxReplyBytes = 65536;
constexpr unsigned int bufferBytes = 4096;

struct OpenStream : CMp3ShoutcastPlay {
    OpenStream() : CMp3ShoutcastPlay("STREAM") {}
    using CMp3ShoutcastPlay::connectState;
    using CMp3ShoutcastPlay::headerBytes;
    using CMp3ShoutcastPlay::mp3InBufSize;
    using CMp3ShoutcastPlay::rawData;
    using CMp3ShoutcastPlay::recieveBuffer;
    using CMp3ShoutcastPlay::upstream;
};

} // namespace

extern "C" osaStatus __wrap__Z11osaSockOpenP10sockObject(sockObject* sock)
{
    MUST_HOLD(sock->open == 0 && server.open == 0); // the one before is not left behind
    MUST_HOLD(memchr(sock->txAddr.host, '\0', sizeof sock->txAddr.host) != nullptr);
    if ((server.choices & 1) != 0 && sock->txAddr.host[0] == '\0') {
        return OSA_SOCK_ERROR;
    }
    sock->open = 1;
    server.open++;
    server.connection++;
    return OSA_OK;
}

extern "C" osaStatus __wrap__Z12osaSockCloseP10sockObject(sockObject* sock)
{
    MUST_HOLD(sock->open == 1 && server.open == 1);
    sock->open = 0;
    server.open--;
    return OSA_OK;
}

extern "C" osaStatus __wrap__Z14osaSockConnectP10sockObject(sockObject*)
{
    return (server.choices & 2) != 0 ? OSA_SOCK_ERROR : OSA_OK;
}

extern "C" int __wrap__Z11osaSockReadP10sockObjectPcj(sockObject*, char* buf, unsigned int len)
{
    std::string& reply = server.replies[server.connection < 2 ? 0 : 1];
    if (reply.empty()) {
        return (server.choices & 4) != 0 ? OSA_CONNECTION_LOST : 0;
    }
    const size_t numBytes = std::min<size_t>({len, server.pieceBytes, reply.size()});
    memcpy(buf, reply.data(), numBytes);
    reply.erase(0, numBytes);
    return static_cast<int>(numBytes);
}

extern "C" int __wrap__Z12osaSockWriteP10sockObjectPcj(sockObject*, char* buf, unsigned int len)
{
    MUST_HOLD(len < bufferBytes && memchr(buf, '\0', len) == nullptr && memcmp(buf, "GET ", 4) == 0);
    return static_cast<int>(len);
}

namespace
{

monotonicTime& now()
{
    static monotonicTime time;
    return time;
}

/** Whether the next step finds a header that leaves too little audio in the buffer. */
bool headerEndsTheProcess(const OpenStream& stream)
{
    if (stream.connectState != CMp3ShoutcastPlay::PARSE_PLAYLIST_ITEM_HEADERS) {
        return false;
    }
    MUST_HOLD(stream.headerBytes == bufferBytes);
    const std::string bytes(stream.recieveBuffer, bufferBytes - 1);
    const size_t at = bytes.find("\r\n\r\n");
    return at != std::string::npos && bufferBytes - at - 4 <= stream.mp3InBufSize;
}

void checkBounds(OpenStream& stream)
{
    MUST_HOLD(stream.headerBytes <= bufferBytes);
    MUST_HOLD(stream.rawData.size() <= maxReplyBytes);
    MUST_HOLD(stream.getShoutcastConnected() == (stream.connectState == CMp3ShoutcastPlay::SHOUTCAST_ITEM_READY));
    MUST_HOLD(stream.timeLeft() == (stream.getShoutcastConnected() ? -1 : 0) ||
              stream.connectState >= CMp3ShoutcastPlay::OPEN_PLAYLIST_ITEM);
    (void)stream.printBlockStatus();
    (void)stream.printPlayList();
}

void checkFormat(OpenStream& stream)
{
    const audioPortParam_t& params = stream.upstream[0]->params;
    MUST_HOLD(params.numChannels == 1 || params.numChannels == 2);
    MUST_HOLD(params.nominalSampleRate > 0.0F);
    MUST_HOLD(params.sampleFormat == SAMPLE_S8BIT || params.sampleFormat == SAMPLE_S16BIT_LE);
    MUST_HOLD(params.periodSize == 1024);
}

void listen()
{
    OpenStream stream;
    MUST_HOLD(stream.setNewTopUrl("http://Station.example:8000/Live") == STREAM_OK);
    for (int i = 0; i < mostSteps && !stream.getShoutcastConnected(); i++) {
        if (headerEndsTheProcess(stream)) {
            return;
        }
        now().tv_nsec += 100000000;
        now().tv_sec += now().tv_nsec / 1000000000;
        now().tv_nsec %= 1000000000;
        CServiceTime next;
        (void)stream.service(next); // any status
        checkBounds(stream);
    }
    if (stream.getShoutcastConnected()) {
        checkFormat(stream);
    }
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::Input input(data, size);
    server = Server();
    server.choices = input.byte();
    server.pieceBytes = static_cast<size_t>(input.integer(2) % 5000 + 1);
    const auto firstBytes = static_cast<size_t>(input.integer(2));
    server.replies[0] = input.text(firstBytes);
    server.replies[1] = input.rest();

    now() = {1000, 0};
    setClockSource([] { return now(); });
    audioInterfaceTraceLevel = (server.choices & 8) != 0 ? 9 : 0;
    listen();
    MUST_HOLD(server.open == 0);
    setClockSource(nullptr);
    return 0;
}
