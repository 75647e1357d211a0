/**
 * Any text as a URL, and any two texts to the search without regard to case, beside a model of each.
 *
 *   input: what is sought, a line end, then the URL, which is searched too
 */

#include "fuzz.h"

#include "audioLibrary/shoutcastPlaylist.h"

#include <cstring>
#include <optional>

using namespace audioLibrarySpace;

namespace
{

std::string lowered(std::string text)
{
    for (char& c : text) {
        const char* letter = c == '\0' ? nullptr : strchr("ABCDEFGHIJKLMNOPQRSTUVWXYZ", c);
        c = letter == nullptr ? c : static_cast<char>(c + 32);
    }
    return text;
}

/** Everywhere but at the very end. */
size_t modelFind(const std::string& text, const std::string& sought)
{
    return text.empty() ? std::string::npos : lowered(text).substr(0, text.size() - 1).find(lowered(sought));
}

void search(const std::string& text, const std::string& sought)
{
    MUST_HOLD(findStr(text, sought.c_str()) == modelFind(text, sought.c_str()));
}

/** strtol() without its errno, its locale and its width: the digits, saturated at 32 bits, cut to 16. */
uint16_t modelPort(const std::string& text)
{
    size_t i = std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size());
    const bool negative = i < text.size() && text[i] == '-';
    i += i < text.size() && (text[i] == '-' || text[i] == '+') ? 1 : 0;
    int64_t value = 0;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; i++) {
        value = std::min<int64_t>(value * 10 + (text[i] - '0'), INT64_C(0x80000000));
    }
    value = negative ? -value : std::min<int64_t>(value, INT64_C(0x7fffffff));
    return static_cast<uint16_t>(static_cast<uint64_t>(value) & 0xffff);
}

void takeApart(const std::string& url)
{
    const std::string lower = lowered(url);
    const size_t scheme = lower.find("://");
    const std::string text = scheme == std::string::npos ? lower : lower.substr(scheme + 3);
    const size_t from = scheme == std::string::npos ? 0 : scheme;

    const std::string host = extractHostname(url);
    MUST_HOLD(text.compare(0, host.size(), host) == 0);
    MUST_HOLD(host.find_first_of(":/", from) == std::string::npos);
    MUST_HOLD(host.size() == text.size() || strchr(":/", text[host.size()]) != nullptr);

    const size_t colon = text.find(':', from);
    const uint16_t port = extractPort(url);
    if (colon == std::string::npos) {
        MUST_HOLD(port == 80);
    } else {
        const std::string behind = text.substr(colon + 1);
        MUST_HOLD(port == modelPort(behind.substr(0, behind.find('/'))));
    }

    const std::string path = extractPath(url);
    const size_t slash = scheme == std::string::npos ? std::string::npos : text.find('/', from);
    MUST_HOLD(path == (slash == std::string::npos ? "/" : text.substr(slash)));

    std::string formatted = url;
    MUST_HOLD(formatUrl(formatted) == STREAM_OK);
    MUST_HOLD(formatted == lower);
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string text = fuzz::Input(data, size).rest();
    const size_t lineEnd = std::min(text.find('\n'), text.size());
    const std::string url = text.substr(std::min(lineEnd + 1, text.size()));
    search(url, text.substr(0, lineEnd));
    takeApart(url);
    return 0;
}
