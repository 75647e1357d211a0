#include "streamUrl.h"

#include "audioLibrary/shoutcastPlaylist.h"

#include <algorithm>
#include <cctype>
#include <charconv>

using namespace audioLibrarySpace;

namespace
{

constexpr size_t MAX_HOST_BYTES = 99; ///< the player's socket keeps so much of a name
constexpr int DEFAULT_PORT = 80;
const std::string SCHEME = "http://";

std::string inLowerCase(std::string text)
{
    (void)formatUrl(text);
    return text;
}

/** What stands between the scheme and the first slash, question mark or hash. */
std::string authorityOf(const std::string& url)
{
    const std::string rest = url.substr(SCHEME.size());
    return rest.substr(0, rest.find_first_of("/?#"));
}

/** The port that the authority names, 80 without one, 0 for what is no port. */
int portOf(const std::string& authority)
{
    const size_t colon = authority.find(':');
    if (colon == std::string::npos)
        return DEFAULT_PORT;
    int port = 0;
    const char* const end = authority.data() + authority.size();
    const auto [stop, error] = std::from_chars(authority.data() + colon + 1, end, port);
    return error == std::errc() && stop == end && port <= 65535 ? port : 0;
}

bool isBlankOrControl(char byte)
{
    const auto value = static_cast<unsigned char>(byte);
    return value <= ' ' || value == 0x7f;
}

} // namespace

std::string urlFault(const std::string& url)
{
    if (inLowerCase(url).rfind(SCHEME, 0) != 0)
        return "the player speaks HTTP without encryption: give the URL with http:// in front";
    if (std::any_of(url.begin(), url.end(), isBlankOrControl))
        return "a URL has no blanks";
    const std::string authority = authorityOf(url);
    if (authority.find('@') != std::string::npos)
        return "the player sends no user name and no password";
    if (authority.find('[') != std::string::npos)
        return "the player speaks IPv4 only";
    const std::string host = inLowerCase(authority.substr(0, authority.find(':')));
    const int port = portOf(authority);
    if (host.empty() || port == 0)
        return "it names no server";
    if (host.size() > MAX_HOST_BYTES)
        return "the server's name is longer than 99 bytes";
    if (extractHostname(url) != host || extractPort(url) != port)
        return "the player would look for a server \"" + extractHostname(url) + "\" at port " +
               std::to_string(extractPort(url)) +
               ": it cuts no name of fewer than 4 letters at its end, and takes the first colon behind that for the "
               "port's";
    return "";
}

std::vector<std::string> urlWarnings(const std::string& url)
{
    std::vector<std::string> warnings;
    const size_t slash = url.find('/', SCHEME.size());
    const std::string path = slash == std::string::npos ? "/" : url.substr(slash);
    if (path != inLowerCase(path))
        warnings.push_back("of a stream (not of a playlist) the player asks for the path in lower case: " +
                           extractPath(url));
    return warnings;
}
