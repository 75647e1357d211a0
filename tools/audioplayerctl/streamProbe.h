#pragma once

/**
 * What the player would make of a URL, found out by the player's own source block on this machine.
 *
 *   URL --> a process of its own: CMp3ShoutcastPlay, serviced as a stream player does --> StreamProbe
 *
 * The block is not connected to anything and nothing is heard. It runs in a child process, since there are answers of
 * servers that end the process which reads them.
 */

#include <string>
#include <vector>

/** One server that was asked for the stream itself. */
struct ProbedEntry {
    std::string url;
    std::string header;    ///< what it answered, up to the empty line, or as far as it came
    int headerBytes = -1;  ///< without the empty line; -1: the end of the header has not come
    int bytesReceived = 0; ///< header and audio, until the player had enough
};

struct StreamProbe {
    /** How it ended. */
    enum end_e {
        READY,       ///< the player plays it
        GIVEN_UP,    ///< the player gives up and stays silent
        NOT_IN_TIME, ///< nothing was decided in the time given
        HEADER_ENDS, ///< the player's process would end: the header is too long
        DIED,        ///< the process that tried has ended
    };

    std::string url;
    std::string reply;                ///< the server's answer to the request for the whole URL
    bool wasReplyAwaited = false;     ///< the answer has come, or the time for it has passed
    std::string kind;                 ///< "pls", "m3u", "xspf", "direct"; empty if it was none of these
    std::vector<std::string> urls;    ///< the entries of the playlist; of a direct stream the URL
    std::vector<ProbedEntry> entries; ///< those that were tried, in order
    int rateHz = 0;                   ///< of the stream; 0 as long as it is not known
    int numChannels = 0;
    int state = 0;  ///< connectState before the step that ended it
    int status = 0; ///< of that step, a streamStatus
    end_e end = NOT_IN_TIME;
    std::string trace; ///< what the block has printed
};

/** Longest header of a stream that the player survives: of its 4096 bytes more than 2048 must be audio. */
constexpr int MAX_STREAM_HEADER_BYTES = 2043;

/** Tries the URL for up to `seconds`. The player itself would try for 100. Throws Failure if no process can be made. */
StreamProbe probeStream(const std::string& url, double seconds);

/** Why the player does not play it, in one sentence without an end; empty if it does. */
std::string reasonAgainst(const StreamProbe& probe);

/** The first line of an answer, as it may be printed. */
std::string firstLine(const std::string& answer);

/** The value of a header of an answer, without regard to case; empty if it has none. */
std::string headerValue(const std::string& answer, const std::string& name);
