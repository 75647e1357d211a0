#pragma once

/**
 * The as-played log as a person or a program reads it, from the database or from the player's answer.
 *
 *   in:  rows of the table, or LogEntry elements
 *   out: a table, CSV, or JSON on stdout
 */

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

class TiXmlElement;

/** The words of the entry types: "unknown" for those that nothing writes. */
const char* asPlayedWord(int entryType);

struct AsPlayedRow {
    int id = 0;                           ///< in the table; 0 from an answer
    int64_t seconds = 0;                  ///< since the epoch; 0 from an answer
    std::string time;                     ///< "2012-06-19 11:03:28.000123", by the player's clock and in its zone
    std::string type;                     ///< such as "startPlaylistItem"
    bool isOfItem = false;                ///< names a playlist and a file, as far as they are known
    std::optional<std::string> playlist;  ///< none: gone from the library
    std::optional<std::string> file;      ///< likewise
    std::optional<int64_t> lengthSeconds; ///< of the file, if the library knows it
    int playlistId = 0;                   ///< 0 from an answer
    std::string text;                     ///< what a "logTrimmed" says
};

/** "2012-06-19 11:03:28.000123" in this machine's zone. */
std::string asPlayedTime(int64_t seconds, int64_t microseconds);

/** The player's "Tue Jun 19 11:03:28 2012 000.123ms" in the same form; as it is if it reads differently. */
std::string asPlayedTime(const std::string& playersText);

/** A LogEntry of an answer. */
AsPlayedRow asPlayedRow(const TiXmlElement& logEntry);

/** A text without what would move a terminal's cursor or colour it. */
std::string printable(const std::string& text);

/** Makes sure that what was written to stdout has gone out. Throws Failure, EXIT_FAILED, if it could not. */
void flushOutput();

/** Writes rows in one of the forms, in one run or as they come. */
class AsPlayedListing
{
public:
    enum form_e {
        TABLE,
        CSV,       ///< a head line, then one a row; quoted as RFC 4180 has it, with newlines for line ends
        JSON,      ///< one array
        JSON_LINES ///< one object a line, for rows that keep coming
    };

    explicit AsPlayedListing(form_e wanted) : form(wanted) {}

    void begin();
    void write(const AsPlayedRow& row);
    /** Ends the listing and makes sure that it has gone out. Throws Failure, EXIT_FAILED, if it could not. */
    void end();
    /** Makes sure that all so far has gone out; throws likewise. */
    void flush();

private:
    const form_e form;
    bool isFirst = true;
};
