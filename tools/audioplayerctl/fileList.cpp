#include "fileList.h"

#include "failure.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <iterator>
#include <sstream>

namespace fs = std::filesystem;

namespace
{

const std::string USB = "/mnt/usb/";
const std::string BYTE_ORDER_MARK = "\xef\xbb\xbf";
constexpr size_t MAX_PATH_BYTES = 1023; ///< the player's column and its records hold 1023 and a zero

std::string trimmed(const std::string& line)
{
    const size_t first = line.find_first_not_of(" \t\r\n");
    if (first == std::string::npos)
        return "";
    return line.substr(first, line.find_last_not_of(" \t\r\n") + 1 - first);
}

} // namespace

std::vector<std::string> readM3u(std::istream& list)
{
    std::string text{std::istreambuf_iterator<char>(list), {}};
    if (text.starts_with("\xff\xfe") || text.starts_with("\xfe\xff"))
        throw Failure(EXIT_REFUSED, "the list is in UTF-16: save it as UTF-8, which file names here are in");
    if (text.starts_with(BYTE_ORDER_MARK))
        text.erase(0, BYTE_ORDER_MARK.size());
    std::replace(text.begin(), text.end(), '\r', '\n'); // a line end of its own on some systems; empty lines are none
    std::istringstream lines(text);
    std::vector<std::string> entries;
    for (std::string line; std::getline(lines, line);) {
        line = trimmed(line);
        if (line.empty() || line.front() == '#')
            continue;
        if (line.find("://") != std::string::npos)
            throw Failure(EXIT_REFUSED, "a playlist holds files, not URLs: " + line);
        entries.push_back(line);
    }
    return entries;
}

std::vector<std::string> expandFiles(const std::vector<std::string>& given, std::istream& list, const std::string& base)
{
    std::vector<std::string> files;
    for (const std::string& file : given) {
        const std::vector<std::string> named = file == "-" ? readM3u(list) : std::vector<std::string>{file};
        for (const std::string& one : named) {
            if (one.empty())
                throw Failure(EXIT_USAGE, "a file's name is empty");
            files.push_back((fs::path(base) / one).string()); // an absolute path stays
        }
    }
    if (files.empty())
        throw Failure(EXIT_USAGE, "the list names no files");
    return files;
}

std::string usbName(const std::string& file)
{
    const std::string path = fs::absolute(file).lexically_normal().string();
    if (!path.starts_with(USB) || path.size() == USB.size())
        throw Failure(EXIT_REFUSED, path + ": over the automation connection the player takes files below /mnt/usb/ "
                                           "only; --base /mnt/usb has relative names begin there");
    if (path.size() > MAX_PATH_BYTES)
        throw Failure(EXIT_REFUSED, "the path is longer than 1023 bytes: " + path);
    return path.substr(USB.size());
}
