/**
 * Any bytes on the automation connection, split into reads in any way, on the audio manager's stack and a database in
 * memory.
 *
 *   input: a count, that many events (one byte each), then the bytes of the peer
 *   event: 255 a read fails, 254 the socket closes, 253 it does not open again, 252 an item goes on air, 251 the read
 *          finds nothing, below that a read of that many bytes times 16, or one byte; afterwards each read takes 4095
 *
 * What is taken for a transaction, on each pass, is compared with a framing that searches all bytes anew each time.
 * No file is ever removed: what would have been is only looked at.
 */

#include "smallStack.h"

#include "AsPlayedLog.h"
#include "AudioDatabase.h"
#include "AudioService.h"
#include "AutomationAPI.h"
#include "globals.h"
#include "xmlText.h"

#include <cctype>
#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>

namespace
{

enum event_e : uint8_t {
    NOTHING_TO_READ = 251,
    ITEM_ON_AIR = 252,
    OPEN_FAILS = 253,
    SOCKET_CLOSES = 254,
    READ_FAILS = 255,
};

constexpr unsigned int longestRead = 4095;

/** The peer, and what came of it. */
struct Peer {
    std::string events;
    std::string stream; ///< what is still to be read
    std::string taken;  ///< the last read, up to its first zero byte
    std::vector<std::string> parsed;
    int written = 0;
    bool open = false; ///< the server's socket
    sockObject* sock = nullptr;
    char* buffer = nullptr;

    std::optional<uint8_t> nextEvent() const
    {
        return events.empty() ? std::nullopt : std::optional<uint8_t>(static_cast<uint8_t>(events[0]));
    }
    bool isDue(event_e event) const { return nextEvent() == event; }
};
Peer peer;

/** What the text looks for must end it, so that its reader finds the end. */
bool endsWith(const std::string& text, const std::string& end)
{
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

} // namespace

// AudioService::startPlayer(int) and AudioService::stopPlayer()
extern "C" PlayerStatus __wrap__ZN12AudioService11startPlayerEi(AudioService*, int)
{
    return PLAYER_STARTED;
}

extern "C" PlayerStatus __wrap__ZN12AudioService10stopPlayerEv(AudioService*)
{
    return PLAYER_ERROR;
}

/** In the place of the C library's: nothing of this machine goes. */
extern "C" int __wrap_remove(const char* path)
{
    const std::string text(path);
    MUST_HOLD(text == "(unknown)" || text.starts_with("/mnt/usb/"));
    errno = text.size() % 2 == 0 ? ENOENT : EROFS;
    return text.size() % 3 == 0 ? 0 : -1;
}

// osaSockOpen(sockObject*)
extern "C" osaStatus __wrap__Z11osaSockOpenP10sockObject(sockObject* sock)
{
    MUST_HOLD(sock->rxPort == 8500 && sock->type == SOCKTYPE_TCP_SINGLE_SERVER && sock->blocking == 0);
    if (peer.isDue(OPEN_FAILS)) {
        peer.events.erase(0, 1);
        return OSA_SOCK_ERROR;
    }
    peer.sock = sock;
    sock->open = 1;
    sock->dataOpen = 1;
    peer.open = true;
    return OSA_OK;
}

// osaSockRead(sockObject*, char*, unsigned int)
extern "C" int __wrap__Z11osaSockReadP10sockObjectPcj(sockObject* sock, char* buffer, unsigned int numBytes)
{
    MUST_HOLD(numBytes <= longestRead);
    peer.sock = sock;
    peer.buffer = buffer;
    size_t wanted = longestRead;
    if (const std::optional<uint8_t> event = peer.nextEvent()) {
        peer.events.erase(0, 1);
        if (*event == READ_FAILS) {
            return OSA_SOCK_ERROR;
        }
        if (*event == SOCKET_CLOSES) {
            sock->open = 0;
            sock->dataOpen = 0;
            peer.open = false;
            return OSA_CONNECTION_LOST;
        }
        wanted = *event >= NOTHING_TO_READ ? 0 : std::max<size_t>(1, size_t{*event} * 16);
    }
    const size_t count = std::min({wanted, size_t{numBytes}, peer.stream.size()});
    memcpy(buffer, peer.stream.data(), count);
    peer.taken = std::string(peer.stream.substr(0, count).c_str());
    peer.stream.erase(0, count);
    return static_cast<int>(count);
}

// osaSockWrite(sockObject*, char*, unsigned int)
extern "C" int __wrap__Z12osaSockWriteP10sockObjectPcj(sockObject*, char* bytes, unsigned int numBytes)
{
    const std::string text(bytes, numBytes);
    MUST_HOLD(text.starts_with("<?xml version=\"1.0\" ?>\n<Transaction type=\""));
    MUST_HOLD(endsWith(text, "</Transaction>\n") || endsWith(text, " />\n"));
    peer.written++;
    return static_cast<int>(numBytes);
}

// parseXml(TiXmlDocument&, std::string const&)
#define PARSE_XML(prefix) prefix##_Z8parseXmlR13TiXmlDocumentRKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE
extern "C" bool PARSE_XML(__real_)(TiXmlDocument& document, const std::string& text);
extern "C" bool PARSE_XML(__wrap_)(TiXmlDocument& document, const std::string& text)
{
    peer.parsed.push_back(text);
    return PARSE_XML(__real_)(document, text);
}

namespace
{

/** The framing in its plainest form: everything that is still there is searched from its start. */
class Framing
{
public:
    struct Transaction {
        std::string text;
        bool refused = false; ///< a closing tag too far ahead: nothing that could be parsed
    };

    /** Takes in what was read and gives the transaction that is then due, if one is. */
    std::optional<Transaction> pass(const std::string& read)
    {
        all += read;
        const std::string small = lowered();
        const size_t start = small.find("<transaction");
        const size_t end = small.find("</transaction>");
        if (start == std::string::npos) {
            return std::nullopt;
        }
        return end != std::string::npos ? closed(start, end) : selfClosed(start);
    }

private:
    Transaction closed(size_t start, size_t end)
    {
        const size_t behind = end + strlen("</transaction>");
        Transaction found;
        found.refused = behind < start;
        found.text = found.refused ? "" : all.substr(start, behind - start) + "\n\n";
        all.erase(1, behind);
        return found;
    }
    std::optional<Transaction> selfClosed(size_t start)
    {
        const std::string rest = all.substr(start);
        const size_t slash = rest.find("/>");
        const size_t angle = rest.find('>');
        if (slash == std::string::npos || angle == std::string::npos || slash > angle) {
            return std::nullopt;
        }
        // What is taken and what goes have the same length, start + 2 + slash, from different places.
        const size_t length = start + 2 + slash;
        Transaction found;
        found.text = rest.substr(0, length) + "\n";
        all.erase(1, length);
        return found;
    }
    std::string lowered() const
    {
        std::string small = all;
        for (char& c : small) {
            c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
        }
        return small;
    }

    std::string all;
};

void must(const char* sql)
{
    MUST_HOLD(sqlite3_exec(audio_database->getDatabase(), sql, nullptr, nullptr, nullptr) == SQLITE_OK);
}

/** The database and the service, made once; each input works in a savepoint and is undone. */
void makeStation()
{
    if (audio_database != nullptr) {
        return;
    }
    audio_database = new AudioDatabase;
    MUST_HOLD(audio_database->open_audio_database(":memory:", true));
    audioService = new AudioService;
    must("INSERT INTO T_Playlists (name, sequence, playlist_type) VALUES ('Morning', 1, 1), ('Night', 2, 1);"
         "INSERT INTO T_Items (pathname, item_type, item_length_in_samples, item_sample_rate)"
         " VALUES ('/mnt/usb/a.wav', 1, 480000, 48000), ('/mnt/usb/b.mp3', 2, 0, 0), ('', 1, 0, 0);"
         "INSERT INTO T_Playlist_Item_Association (sequence, playlist_id, item_id)"
         " VALUES (2, 1, 1), (3, 1, 2), (4, 1, 3), (2, 2, 2);");
    const CAsPlayedLog log(audio_database->getDatabase());
    must("INSERT INTO T_As_Played_Log (log_time_sec, log_time_usec, playlist_id, playlist_item_id, entry_type, desc)"
         " VALUES (100, 1, 1, 1, 0, ''), (100, 2, 9, 9, 0, ''), (101, 3, 9, 9, 4, ''), (102, 4, 0, 0, 5, 'Trimmed'),"
         " (-1, -1, 0, 0, 7, NULL), (103, 5, 1, 2, 0, '');");
}

void itemOnAir(AutomationAPI& server)
{
    PlaylistItem item;
    item.setPlaylistID(1);
    item.setItemID(2);
    item.setPath("/mnt/usb/<b> & \"c\".mp3");
    server.sendPlayingNowTransaction(&item);
    peer.written = 0;
}

/** What one pass handled is what the plain framing says it is. */
void mustAgree(const std::optional<Framing::Transaction>& expected)
{
    if (!expected.has_value()) {
        MUST_HOLD(peer.parsed.empty() && peer.written == 0);
        return;
    }
    MUST_HOLD(peer.written <= 1);
    if (expected->refused) {
        MUST_HOLD(peer.parsed.empty() || peer.parsed[0].find_first_not_of('\n') == std::string::npos);
        MUST_HOLD(peer.written == 1);
        return;
    }
    MUST_HOLD(peer.parsed.size() == 1);
    MUST_HOLD(peer.parsed[0] == expected->text);
}

void serve(AutomationAPI& server)
{
    Framing framing;
    (void)server.init();
    bool busy = true;
    for (int passes = 0; passes < 400 && (busy || !peer.stream.empty() || !peer.events.empty()); passes++) {
        if (peer.isDue(ITEM_ON_AIR)) {
            itemOnAir(server);
        }
        peer.taken.clear();
        peer.parsed.clear();
        peer.written = 0;
        const bool wasOpen = peer.open; // a pass that opens the socket does nothing else
        (void)server.service();
        const auto expected = wasOpen ? framing.pass(peer.taken) : std::nullopt;
        mustAgree(expected);
        busy = expected.has_value() || !wasOpen;
    }
}

/** Destroys the server and, as its destructor does not, its socket object and its buffer. */
void destroy(AutomationAPI* server)
{
    peer = Peer();
    (void)server->service(); // opens the socket where it is closed
    (void)server->service(); // reads
    MUST_HOLD(peer.sock != nullptr && peer.buffer != nullptr);
    delete server;
    delete peer.sock;
    delete[] peer.buffer;
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::Input input(data, size);
    peer = Peer();
    peer.events = input.text(input.byte());
    peer.stream = input.rest();

    makeStation();
    must("SAVEPOINT untouched");
    fuzz::onSmallStack([] {
        asPlayedLog = new CAsPlayedLog(audio_database->getDatabase());
        auto* server = new AutomationAPI(audio_database);
        serve(*server);
        destroy(server);
        delete asPlayedLog;
    });
    MUST_HOLD(sqlite3_next_stmt(audio_database->getDatabase(), nullptr) == nullptr); // every statement is finalized
    must("ROLLBACK TO untouched; RELEASE untouched");
    return 0;
}
