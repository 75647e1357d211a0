#pragma once

/**
 * The studio's end of the automation connection: TCP port 8500 of the player, XML transactions.
 *
 *   in:  requests (a command and its elements), or raw bytes
 *   out: the answer to each, told by its transactionNumber; `playingNow` and other information in between
 *
 * One request at a time. Every call ends within its time limit. Thread: any, one at a time; no global state but the
 * white space switch of TinyXML, which is put back after each parse.
 *
 * The seat. The player serves one peer, the one that connected last: connecting throws the studio's automation out, and
 * a call that ends in CLOSED means that another peer has taken the seat, or that the player ended.
 *
 * How the player takes a stream apart, and what this end does about it
 *
 * It collects bytes until it has both "<Transaction" and "</Transaction>", cuts the text between the first of either
 * out, and carries that out. Then it erases as many bytes as it has consumed, but from the second byte on: the first
 * byte it ever received stays for good, and the byte behind the closing tag goes. Nothing is kept per connection: what
 * a lost peer left behind (noise, half a transaction, transactions not yet carried out) stands in front of our bytes.
 *
 *  - A transaction ends in a newline, which is the byte that goes. Without it the next `<` would go, and the byte that
 *    stays would stand in for it only if that happens to be a `<` and nothing stands between.
 *  - What is sent begins with `<`: on a fresh player this becomes the byte that stays, the one value of it that lets
 *    careless peers after us through.
 *  - A transaction always has its closing tag. `<Transaction .../>` followed by another before the player looks is taken
 *    as one text, and the second is dropped without an answer.
 *  - Values are escaped here, `<`, `>` and both quotes always: no value can look like a tag to the player's search.
 *    TinyXML's own writer is not used for it: it passes "&#x" through, and what follows.
 *  - The first request of a connection is led by FLUSH, since nobody knows what the last peer left:
 *
 *        <\n<Transaction <</Transaction>\n
 *
 *    With a clean player this is a transaction that can't be parsed, and costs one answer with the number "-1", which
 *    nobody waits for. Behind half a transaction it is the end of it, and makes sure that the whole can't be parsed
 *    either, wherever the half stopped: in a tag `<` is an error; in a value or a comment the end never comes; in
 *    content `<\n` begins an unknown tag, which takes in everything to the one `>`, and the end tag with it. A closing
 *    tag alone would complete the half and carry it out: a stop or a delete that nobody is there for any more. Behind
 *    a stray closing tag the first round ends there, and FLUSH is a round of its own. The lone `<` in front is for a
 *    whole transaction that waits without its newline: that `<` goes, not the one of the tag.
 *
 *    So from any state the request behind it is cut out alone and carried out exactly once. It is sent in one piece
 *    with FLUSH, without waiting for the "-1": a pending `<Transaction .../>` takes FLUSH in and leaves no "-1".
 *
 * What can't be done: whole transactions of the lost peer that wait in the player are carried out, and answered to us
 * (their numbers are not ours: they come as strays); of several pending `<Transaction .../>` only the first is; half a
 * transaction can't be saved; noise stays in the player's memory; if we lose the seat half-way through a request, its
 * half is what the next peer finds. An answer that is longer than the connection takes at once is cut by the player and
 * the rest is lost: CUT.
 */

#include "documentStream.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

class TiXmlDocument;
class TiXmlElement;

/** An element of a request. */
struct AutomationElement {
    std::string name;
    std::vector<std::pair<std::string, std::string>> attributes;
    std::vector<AutomationElement> children;
};

struct AutomationRequest {
    std::string command;
    std::vector<AutomationElement> children = {};
    std::string type = "request"; ///< any other type is carried out and not answered
    std::string number = {};      ///< transactionNumber; empty: one that this client never used
    std::vector<std::pair<std::string, std::string>> attributes = {}; ///< more of the root, behind the three
};

/** A document of the player; movable. */
class AutomationDocument
{
public:
    AutomationDocument();
    ~AutomationDocument();
    AutomationDocument(AutomationDocument&&) noexcept;
    AutomationDocument& operator=(AutomationDocument&&) noexcept;

    /** Takes the text over and parses it, byte by byte whatever encoding a name in it has. */
    explicit AutomationDocument(DocumentStream::Document&& document);

    /** The Transaction; null if the text didn't parse. Owned by the document. */
    const TiXmlElement* root() const;

    /** The lines of the TransactionLog, without the indent and the empty last one. */
    std::vector<std::string> log() const;

    std::string text; ///< as received, from the declaration to the root's last `>`
    bool isCut = false;
    std::string type, command, number, status; ///< of the root; empty where it has none

private:
    std::unique_ptr<TiXmlDocument> xml;
};

/** An attribute's value, its name in any case; `missing` if there is none. */
std::string automationAttribute(const TiXmlElement& element, const char* name, const std::string& missing = "");

/** The lines of text that the player wrote into the element, without the indent of their level. */
std::vector<std::string> automationLines(const TiXmlElement& element);

enum class AutomationResult : int {
    OK = 0,
    TIMEOUT = -1,  ///< nothing whole came, or not all was sent, in time
    CLOSED = -2,   ///< the player closed: another peer took the seat, or it ended
    CUT = -3,      ///< a document whose rest was lost came where an answer was awaited
    OVERSIZE = -4, ///< a document is longer than the bound: the connection is of no use any more
    FAILED = -5,   ///< the system refused; or not connected. errorText() says what
};

class AutomationClient
{
public:
    static constexpr uint16_t PORT = 8500;
    static constexpr size_t DEFAULT_MAX_DOCUMENT_BYTES = 64u << 20; ///< a full log takes less than a tenth of it
    static constexpr std::string_view FLUSH = "<\n<Transaction <</Transaction>\n";

    explicit AutomationClient(size_t maxDocumentBytes = DEFAULT_MAX_DOCUMENT_BYTES);
    ~AutomationClient();
    AutomationClient(const AutomationClient&) = delete;
    AutomationClient& operator=(const AutomationClient&) = delete;

    /** Takes the seat. TIMEOUT or FAILED leave the client unconnected. To be called once. */
    AutomationResult connect(const std::string& host, uint16_t port, int timeoutMs);

    /** Uses a connected descriptor from now on, and closes it in the end. */
    void adopt(int descriptor);

    void close();
    bool isConnected() const { return fd >= 0; }

    /** Whether the next request is led by FLUSH; on from the start, and off after a request. */
    void setFlushFirst(bool isWanted) { isFlushFirst = isWanted; }

    /** Called for each document of type "info" that comes while an answer is awaited; without it they are dropped. */
    std::function<void(AutomationDocument&&)> onInfo;

    /** Likewise for answers to something else: a lost peer's, or the "-1" of FLUSH. */
    std::function<void(AutomationDocument&&)> onStray;

    /** Sends bytes as they are. On TIMEOUT some may have gone. */
    AutomationResult sendRaw(std::string_view bytes, int timeoutMs);

    /** Sends a request without awaiting its answer. @return number  the transactionNumber sent */
    AutomationResult send(const AutomationRequest& request, std::string& number, int timeoutMs);

    /**
     * Sends a request and waits for the answer that carries its number. What comes in between goes to onInfo and
     * onStray.
     *
     * @param[out] answer  unchanged unless OK
     */
    AutomationResult request(const AutomationRequest& request, AutomationDocument& answer, int timeoutMs);

    /**
     * The next document of any kind. Documents that came before the player closed are handed out before CLOSED. A cut
     * document is handed out with isCut set, and OK.
     */
    AutomationResult next(AutomationDocument& document, int timeoutMs);

    /** Bytes of a document that has begun to come and not ended. */
    size_t pendingBytes() const { return stream.pendingBytes(); }

    /** Why the last call failed, for a person. */
    const std::string& errorText() const { return error; }

    /** The text of a request, ending in a newline. */
    static std::string compose(const AutomationRequest& request, const std::string& number);

private:
    struct Deadline;

    AutomationResult failed(AutomationResult result, const std::string& why);
    AutomationResult wait(short events, const Deadline& deadline, short& ready);
    AutomationResult receive();
    std::string nextNumber();

    int fd = -1;
    bool isFlushFirst = true;
    bool isClosedByPeer = false; ///< nothing more comes; what came is still handed out
    DocumentStream stream;
    std::string numberLead; ///< a random word: no peer before us used it
    unsigned int numberCount = 0;
    std::string error;
};
