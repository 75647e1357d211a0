/**
 * The card's diary: one line an event, each line one write() on an O_APPEND descriptor, so that the lines of several
 * cards and processes never mix and survive kill -9.
 *
 *   <monotonic seconds, 9 decimals> <card> <event> [key=value ...]
 */
#pragma once

#include <cstdint>
#include <string>

namespace vcard
{

class EventLog
{
public:
    EventLog() = default;
    ~EventLog();
    EventLog(const EventLog&) = delete;
    EventLog& operator=(const EventLog&) = delete;

    /** Opens @p path for appending; @p card is the second word of every line. @return 0 or -errno */
    int open(const std::string& path, const std::string& card);
    /** Writes one line; formatted as printf does, cut at 500 characters. Without an open file nothing happens. */
    void write(int64_t nowNs, const char* format, ...) __attribute__((format(printf, 3, 4)));

private:
    int fd = -1; ///< owned
    std::string cardName;
};

} // namespace vcard
