#include "AutomationClient.h"

#include "xmlText.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <random>
#include <sys/socket.h>
#include <tinyxml.h>
#include <unistd.h>

// ---- documents

namespace
{

/** The parser keeps line ends and blanks in texts: the lines of a log are told apart by them. */
class KeepWhiteSpace
{
public:
    KeepWhiteSpace() : wasCondensed(TiXmlBase::IsWhiteSpaceCondensed()) { TiXmlBase::SetCondenseWhiteSpace(false); }
    ~KeepWhiteSpace() { TiXmlBase::SetCondenseWhiteSpace(wasCondensed); }
    KeepWhiteSpace(const KeepWhiteSpace&) = delete;
    KeepWhiteSpace& operator=(const KeepWhiteSpace&) = delete;

private:
    const bool wasCondensed;
};

constexpr size_t INDENT_BLANKS = 2; ///< the player indents each level by

size_t levelOf(const TiXmlNode& node)
{
    size_t level = 0;
    for (const TiXmlNode* parent = node.Parent(); parent != nullptr; parent = parent->Parent())
        ++level;
    return level; // the document counts, so this is the level of the texts in an element
}

/** Without the blanks of its level; a line that has fewer loses what it has. */
std::string withoutIndent(const std::string& line, size_t blanks)
{
    const size_t first = std::min(line.find_first_not_of(' '), line.size());
    return line.substr(std::min(first, blanks));
}

} // namespace

AutomationDocument::AutomationDocument() = default;
AutomationDocument::~AutomationDocument() = default;
AutomationDocument::AutomationDocument(AutomationDocument&&) noexcept = default;
AutomationDocument& AutomationDocument::operator=(AutomationDocument&&) noexcept = default;

AutomationDocument::AutomationDocument(DocumentStream::Document&& document)
    : text(std::move(document.text)), isCut(document.isCut)
{
    if (isCut)
        return;
    // The declaration would have the parser take the text for UTF-8, and stumble over a name that isn't.
    auto parsed = std::make_unique<TiXmlDocument>();
    const KeepWhiteSpace keep;
    // TinyXML answers null where nothing at all stands behind the last tag.
    if (!parseXml(*parsed, text.substr(document.rootOffset) + "\n") || parsed->RootElement() == nullptr)
        return;
    xml = std::move(parsed);
    type = automationAttribute(*root(), "type");
    command = automationAttribute(*root(), "command");
    number = automationAttribute(*root(), "transactionNumber");
    status = automationAttribute(*root(), "status");
}

const TiXmlElement* AutomationDocument::root() const
{
    return xml == nullptr ? nullptr : xml->RootElement();
}

std::vector<std::string> AutomationDocument::log() const
{
    if (root() == nullptr)
        return {};
    for (const TiXmlElement* child = root()->FirstChildElement(); child != nullptr; child = child->NextSiblingElement())
        if (cmpIStr(child->ValueStr(), "TransactionLog") == 0)
            return automationLines(*child);
    return {};
}

std::string automationAttribute(const TiXmlElement& element, const char* name, const std::string& missing)
{
    for (const TiXmlAttribute* found = element.FirstAttribute(); found != nullptr; found = found->Next())
        if (cmpIStr(found->NameTStr(), name) == 0)
            return found->ValueStr();
    return missing;
}

std::vector<std::string> automationLines(const TiXmlElement& element)
{
    std::string text;
    for (const TiXmlNode* child = element.FirstChild(); child != nullptr; child = child->NextSibling())
        if (child->ToText() != nullptr)
            text += child->ValueStr();

    // A single line stands between the tags; several each in a line of their own, and the end tag in the last one.
    std::vector<std::string> lines;
    size_t begin = 0;
    for (size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n', begin)) {
        lines.push_back(withoutIndent(text.substr(begin, end - begin), levelOf(element) * INDENT_BLANKS));
        begin = end + 1;
    }
    if (lines.empty())
        return text.empty() ? lines : std::vector<std::string>{text};
    lines.erase(lines.begin());
    if (!lines.empty() && lines.back().empty()) // a log that ends in a newline
        lines.pop_back();
    return lines;
}

// ---- requests

namespace
{

/** No byte of a value can be taken for markup, by the parser or by the player's search for tags. */
std::string escaped(const std::string& value)
{
    std::string text;
    for (const char byte : value) {
        switch (byte) {
        case '&':
            text += "&amp;";
            break;
        case '<':
            text += "&lt;";
            break;
        case '>':
            text += "&gt;";
            break;
        case '"':
            text += "&quot;";
            break;
        case '\'':
            text += "&apos;";
            break;
        default:
            if (static_cast<unsigned char>(byte) < ' ') {
                char reference[8];
                snprintf(reference, sizeof(reference), "&#x%02X;", static_cast<unsigned int>(byte));
                text += reference;
            } else {
                text += byte;
            }
        }
    }
    return text;
}

void appendAttribute(std::string& text, const std::string& name, const std::string& value)
{
    text += " " + name + "=\"" + escaped(value) + "\"";
}

void appendElement(std::string& text, const AutomationElement& element)
{
    text += "<" + element.name;
    for (const auto& [name, value] : element.attributes)
        appendAttribute(text, name, value);
    if (element.children.empty()) {
        text += "/>";
        return;
    }
    text += ">";
    for (const AutomationElement& child : element.children)
        appendElement(text, child);
    text += "</" + element.name + ">";
}

} // namespace

std::string AutomationClient::compose(const AutomationRequest& request, const std::string& number)
{
    std::string text = "<Transaction";
    appendAttribute(text, "type", request.type);
    appendAttribute(text, "command", request.command);
    appendAttribute(text, "transactionNumber", number);
    for (const auto& [name, value] : request.attributes)
        appendAttribute(text, name, value);
    text += ">";
    for (const AutomationElement& child : request.children)
        appendElement(text, child);
    return text + "</Transaction>\n";
}

// ---- the connection

namespace
{

/** Asked for before connecting, so that the player's one write of a long answer has where to go. */
constexpr int RECEIVE_BUFFER_BYTES = 8 << 20;

} // namespace

struct AutomationClient::Deadline {
    explicit Deadline(int timeoutMs) : end(Clock::now() + std::chrono::milliseconds(timeoutMs)) {}

    int leftMs() const
    {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
        return left < 0 ? 0 : static_cast<int>(left);
    }

    using Clock = std::chrono::steady_clock;
    const Clock::time_point end;
};

AutomationClient::AutomationClient(size_t maxDocumentBytes) : stream(maxDocumentBytes)
{
    char lead[16];
    snprintf(lead, sizeof(lead), "%08x", static_cast<unsigned int>(std::random_device()()));
    numberLead = lead;
}

AutomationClient::~AutomationClient()
{
    close();
}

void AutomationClient::close()
{
    if (fd >= 0)
        ::close(fd);
    fd = -1;
}

void AutomationClient::adopt(int descriptor)
{
    close();
    fd = descriptor;
}

AutomationResult AutomationClient::failed(AutomationResult result, const std::string& why)
{
    error = why;
    return result;
}

AutomationResult AutomationClient::connect(const std::string& host, uint16_t port, int timeoutMs)
{
    const Deadline deadline(timeoutMs);
    addrinfo hints = {};
    hints.ai_family = AF_INET; // the player listens on IPv4 only
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int resolved = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
    if (resolved != 0)
        return failed(AutomationResult::FAILED, "cannot find " + host + ": " + gai_strerror(resolved));
    adopt(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (fd >= 0) // a refusal costs nothing but room
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &RECEIVE_BUFFER_BYTES, sizeof(RECEIVE_BUFFER_BYTES));
    int status = fd < 0 || ::connect(fd, found->ai_addr, found->ai_addrlen) == 0 ? 0 : errno;
    freeaddrinfo(found);
    if (fd < 0)
        return failed(AutomationResult::FAILED, std::string("cannot create a socket: ") + strerror(errno));
    if (status == EINPROGRESS) {
        short ready = 0;
        const AutomationResult result = wait(POLLOUT, deadline, ready);
        if (result != AutomationResult::OK) {
            close();
            return result;
        }
        socklen_t length = sizeof(status);
        getsockopt(fd, SOL_SOCKET, SO_ERROR, &status, &length);
    }
    if (status != 0) {
        close();
        return failed(AutomationResult::FAILED, std::string("cannot connect: ") + strerror(status));
    }
    return AutomationResult::OK;
}

AutomationResult AutomationClient::wait(short events, const Deadline& deadline, short& ready)
{
    for (;;) {
        pollfd waited = {fd, events, 0};
        const int count = poll(&waited, 1, deadline.leftMs());
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return failed(AutomationResult::FAILED, std::string("cannot wait: ") + strerror(errno));
        if (count == 0)
            return failed(AutomationResult::TIMEOUT, "the player did not answer in time");
        ready = waited.revents;
        return AutomationResult::OK;
    }
}

/** Takes in what is there, in one read, without waiting. */
AutomationResult AutomationClient::receive()
{
    char bytes[65536];
    const ssize_t count = recv(fd, bytes, sizeof(bytes), MSG_DONTWAIT);
    if (count > 0) {
        if (stream.append({bytes, static_cast<size_t>(count)}))
            return AutomationResult::OK;
        return failed(AutomationResult::OVERSIZE, "the player sends a document longer than it may be");
    }
    if (count < 0 && (errno == EAGAIN || errno == EINTR))
        return AutomationResult::OK;
    isClosedByPeer = true;
    return AutomationResult::OK;
}

AutomationResult AutomationClient::sendRaw(std::string_view bytes, int timeoutMs)
{
    if (fd < 0)
        return failed(AutomationResult::FAILED, "not connected");
    const Deadline deadline(timeoutMs);
    while (!bytes.empty()) {
        short ready = 0;
        AutomationResult result = wait(isClosedByPeer ? POLLOUT : POLLIN | POLLOUT, deadline, ready);
        // What the player tells meanwhile is taken in: it drops what does not fit into the connection.
        if (result == AutomationResult::OK && (ready & POLLIN) != 0 && !isClosedByPeer)
            result = receive();
        if (result != AutomationResult::OK)
            return result;
        if ((ready & ~POLLIN) == 0)
            continue;
        const ssize_t count = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count >= 0)
            bytes.remove_prefix(static_cast<size_t>(count));
        else if (errno == EPIPE || errno == ECONNRESET)
            return failed(AutomationResult::CLOSED, "the player closed the connection");
        else if (errno != EAGAIN && errno != EINTR)
            return failed(AutomationResult::FAILED, std::string("cannot send: ") + strerror(errno));
    }
    return AutomationResult::OK;
}

AutomationResult AutomationClient::next(AutomationDocument& document, int timeoutMs)
{
    if (fd < 0)
        return failed(AutomationResult::FAILED, "not connected");
    const Deadline deadline(timeoutMs);
    for (;;) {
        DocumentStream::Document found;
        if (stream.take(found)) {
            document = AutomationDocument(std::move(found));
            return AutomationResult::OK;
        }
        if (isClosedByPeer)
            return failed(AutomationResult::CLOSED, "the player closed the connection");
        short ready = 0;
        AutomationResult result = wait(POLLIN, deadline, ready);
        if (result == AutomationResult::OK)
            result = receive();
        if (result != AutomationResult::OK)
            return result;
    }
}

std::string AutomationClient::nextNumber()
{
    return numberLead + "-" + std::to_string(++numberCount);
}

AutomationResult AutomationClient::send(const AutomationRequest& request, std::string& number, int timeoutMs)
{
    number = request.number.empty() ? nextNumber() : request.number;
    const std::string text = (isFlushFirst ? std::string(FLUSH) : "") + compose(request, number);
    isFlushFirst = false;
    return sendRaw(text, timeoutMs);
}

AutomationResult AutomationClient::request(const AutomationRequest& request, AutomationDocument& answer, int timeoutMs)
{
    const Deadline deadline(timeoutMs);
    std::string number;
    AutomationResult result = send(request, number, timeoutMs);
    while (result == AutomationResult::OK) {
        AutomationDocument document;
        result = next(document, deadline.leftMs());
        if (result == AutomationResult::TIMEOUT && stream.pendingBytes() > 0)
            return failed(AutomationResult::CUT, "the answer stopped in its midst");
        if (result != AutomationResult::OK)
            return result;
        if (document.isCut)
            return failed(AutomationResult::CUT, "the player sent a piece of a document only");
        if (cmpIStr(document.type, "response") == 0 && document.number == number) {
            answer = std::move(document);
            return AutomationResult::OK;
        }
        const auto& handler = cmpIStr(document.type, "info") == 0 ? onInfo : onStray;
        if (handler)
            handler(std::move(document));
    }
    return result;
}
