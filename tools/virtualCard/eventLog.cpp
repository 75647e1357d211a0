#include "eventLog.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace vcard
{

EventLog::~EventLog()
{
    if (fd >= 0)
        ::close(fd);
}

int EventLog::open(const std::string& path, const std::string& card)
{
    cardName = card;
    fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    return fd < 0 ? -errno : 0;
}

void EventLog::write(int64_t nowNs, const char* format, ...)
{
    if (fd < 0)
        return;
    constexpr int64_t nsPerSecond = 1000000000;
    char line[502];
    constexpr size_t textBytes = sizeof line - 1; // the line end always fits
    const int stamp = std::snprintf(line, textBytes, "%lld.%09lld %s ", static_cast<long long>(nowNs / nsPerSecond),
                                    static_cast<long long>(nowNs % nsPerSecond), cardName.c_str());
    size_t used = std::min(static_cast<size_t>(std::max(stamp, 0)), textBytes - 1);
    va_list arguments;
    va_start(arguments, format);
    const int text = std::vsnprintf(line + used, textBytes - used, format, arguments);
    va_end(arguments);
    used = std::min(used + static_cast<size_t>(std::max(text, 0)), textBytes - 1);
    line[used++] = '\n';
    // A full disk must not disturb the audio: the line is lost, nothing else.
    (void)!::write(fd, line, used);
}

} // namespace vcard
