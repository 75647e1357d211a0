#include "automationLink.h"

#include "asPlayed.h"
#include "failure.h"
#include "xmlText.h"

#include <arpa/inet.h>
#include <charconv>
#include <cstdio>
#include <fstream>
#include <ifaddrs.h>
#include <netdb.h>
#include <sstream>

namespace
{

constexpr int ESTABLISHED = 1; ///< TCP_ESTABLISHED, as the kernel's table has it

in_addr_t resolve(const std::string& host)
{
    addrinfo hints = {};
    hints.ai_family = AF_INET; // the player listens on IPv4 only
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int error = getaddrinfo(host.c_str(), nullptr, &hints, &found);
    if (error != 0)
        throw Failure(EXIT_NOT_FOUND, "cannot find " + host + ": " + gai_strerror(error));
    const in_addr_t address = reinterpret_cast<const sockaddr_in*>(found->ai_addr)->sin_addr.s_addr;
    freeaddrinfo(found);
    return address;
}

/** Whether the address is one of this machine's: only its own connections can be seen. */
bool isHere(in_addr_t address)
{
    if ((ntohl(address) >> 24) == IN_LOOPBACKNET)
        return true;
    ifaddrs* interfaces = nullptr;
    if (getifaddrs(&interfaces) != 0)
        return false;
    bool isFound = false;
    for (const ifaddrs* one = interfaces; one != nullptr; one = one->ifa_next)
        if (one->ifa_addr != nullptr && one->ifa_addr->sa_family == AF_INET)
            isFound |= reinterpret_cast<const sockaddr_in*>(one->ifa_addr)->sin_addr.s_addr == address;
    freeifaddrs(interfaces);
    return isFound;
}

std::string tcpTable()
{
    std::ifstream file("/proc/net/tcp");
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

exitStatus_e statusOf(AutomationResult result)
{
    switch (result) {
    case AutomationResult::CLOSED:
        return EXIT_SEAT_TAKEN;
    case AutomationResult::TIMEOUT:
    case AutomationResult::CUT:
    case AutomationResult::OVERSIZE:
        return EXIT_NO_ANSWER;
    case AutomationResult::OK:
    case AutomationResult::FAILED:
        break;
    }
    return EXIT_FAILED;
}

[[noreturn]] void fail(AutomationResult result, const std::string& why)
{
    const std::string more = result == AutomationResult::CLOSED ? ": another peer took the seat, or the player ended"
                             : result == AutomationResult::CUT
                                 ? ": it was too long for the connection (what was asked for is done all the same)"
                                 : "";
    throw Failure(statusOf(result), why + more);
}

} // namespace

AutomationAddress parseAutomationAddress(const std::string& text)
{
    const size_t colon = text.rfind(':');
    AutomationAddress address;
    address.host = text.substr(0, colon);
    if (address.host.find(':') != std::string::npos)
        throw Failure(EXIT_USAGE, "the player listens on IPv4 only: \"" + text + "\" is no HOST or HOST:PORT");
    if (colon != std::string::npos) {
        const char* const end = text.data() + text.size();
        const auto [stop, error] = std::from_chars(text.data() + colon + 1, end, address.port);
        if (error != std::errc() || stop != end || address.port == 0)
            throw Failure(EXIT_USAGE, "the host is given as HOST or HOST:PORT, not \"" + text + "\"");
    }
    if (address.host.empty())
        throw Failure(EXIT_USAGE, "the host is given as HOST or HOST:PORT, not \"" + text + "\"");
    return address;
}

bool isSeatHeld(const std::string& table, uint16_t port)
{
    std::istringstream lines(table);
    std::string line;
    std::getline(lines, line); // the head
    while (std::getline(lines, line)) {
        unsigned int localPort = 0;
        unsigned int state = 0;
        if (sscanf(line.c_str(), " %*d: %*8x:%4x %*8x:%*4x %2x", &localPort, &state) == 2 && localPort == port &&
            state == ESTABLISHED)
            return true;
    }
    return false;
}

AutomationSession::AutomationSession(const AutomationAddress& address, bool isSeatTaken, double timeoutSeconds)
    : timeoutMs(static_cast<int>(timeoutSeconds * 1000))
{
    const std::string where = address.host + " port " + std::to_string(address.port);
    const bool isSeen = isHere(resolve(address.host));
    const bool isHeld = isSeen && isSeatHeld(tcpTable(), address.port);
    if (isHeld && !isSeatTaken)
        throw Failure(EXIT_SEAT_TAKEN, "another peer, such as the studio's automation, is connected to " + where +
                                           ", and connecting would throw it out: --take-seat does so all the same");
    fprintf(stderr, "audioplayerctl: connecting to %s, the player's one automation seat%s\n", where.c_str(),
            isHeld   ? ": the peer that holds it is thrown out"
            : isSeen ? ""
                     : "; whether another peer holds it, and is thrown out, can't be seen from here");
    client.onInfo = [this](AutomationDocument&& document) { info = std::move(document); };
    const AutomationResult result = client.connect(address.host, address.port, timeoutMs);
    if (result == AutomationResult::FAILED)
        throw Failure(EXIT_DAEMON_DOWN, where + ": " + client.errorText());
    if (result != AutomationResult::OK)
        fail(result, where + ": " + client.errorText());
}

AutomationDocument AutomationSession::request(const AutomationRequest& request)
{
    AutomationDocument answer;
    const AutomationResult result = client.request(request, answer, timeoutMs);
    if (result != AutomationResult::OK)
        fail(result, client.errorText());
    return answer;
}

void expectSuccess(const AutomationDocument& answer)
{
    if (cmpIStr(answer.status, "success") == 0)
        return;
    for (const std::string& line : answer.log())
        fprintf(stderr, "%s\n", printable(line).c_str());
    throw Failure(EXIT_PLAYER_ERROR, "the player answers \"" + answer.status + "\" to " + answer.command);
}

std::vector<std::string> AutomationSession::carryOut(const AutomationRequest& wanted)
{
    const AutomationDocument answer = request(wanted);
    expectSuccess(answer);
    std::vector<std::string> lines = answer.log();
    for (const std::string& line : lines)
        puts(printable(line).c_str());
    return lines;
}

AutomationDocument AutomationSession::nextInfo(bool isPatient)
{
    for (;;) {
        AutomationDocument document;
        const AutomationResult result = client.next(document, timeoutMs);
        if (result == AutomationResult::TIMEOUT && isPatient)
            continue;
        if (result != AutomationResult::OK)
            fail(result, result == AutomationResult::TIMEOUT ? "no item went on air in time" : client.errorText());
        if (cmpIStr(document.type, "info") == 0)
            return document;
    }
}
