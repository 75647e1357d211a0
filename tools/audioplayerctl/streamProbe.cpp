#include "streamProbe.h"

#include "asPlayed.h"
#include "audioLibrary/mp3ShoutcastPlay.h"
#include "audioLibrary/osAbstraction/osAbstraction.h"
#include "failure.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <sstream>
#include <strings.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace audioLibrarySpace;

namespace
{

using Json = nlohmann::json;
using Clock = std::chrono::steady_clock;

constexpr useconds_t TURN_US = 10000;  ///< how long a stream player waits before each service of the block
constexpr int TRACE_LEVEL = 6;         ///< shows each step of the block
constexpr int ENOUGH_TURNS_FAILED = 5; ///< in a state that nothing leads out of
constexpr size_t MAX_TRACE_BYTES = 1 << 20;
constexpr double REPORT_GRACE_SECONDS = 5; ///< a look-up of a name may hold the block up

// ---- the child: the block, and a line of JSON about it whenever it has moved

class ProbedStream : public CMp3ShoutcastPlay
{
public:
    ProbedStream() : CMp3ShoutcastPlay("PROBE") {}

    connectState_e state() const { return connectState; }

    /** Notes what the state that has just been left, or is about to be, shows of the server. */
    void observe(StreamProbe& probe) const;

    /** Whether the step to come would end the process. */
    bool isHeaderTooLong() const
    {
        return connectState == PARSE_PLAYLIST_ITEM_HEADERS && headerEnd() > MAX_STREAM_HEADER_BYTES;
    }

private:
    int headerEnd() const;
    void observeEntry(ProbedEntry& entry) const;
};

/** Index of the empty line that ends the entry's header, as the block looks for it; -1 without one. */
int ProbedStream::headerEnd() const
{
    const std::string received(recieveBuffer, headerBytes);
    const size_t end = received.find("\r\n\r\n");
    return end == std::string::npos || end + 5 > received.size() ? -1 : static_cast<int>(end);
}

void ProbedStream::observeEntry(ProbedEntry& entry) const
{
    entry.headerBytes = headerEnd();
    entry.bytesReceived = static_cast<int>(headerBytes);
    entry.header.assign(recieveBuffer, entry.headerBytes >= 0 ? static_cast<size_t>(entry.headerBytes) : headerBytes);
}

const char* wordOf(CMp3ShoutcastPlay::streamMode_e mode)
{
    switch (mode) {
    case CMp3ShoutcastPlay::UNKNOWN:
        return "";
    case CMp3ShoutcastPlay::SHOUTCAST:
        return "pls";
    case CMp3ShoutcastPlay::ICECAST_M3U:
        return "m3u";
    case CMp3ShoutcastPlay::ICECAST_XSPF:
        return "xspf";
    case CMp3ShoutcastPlay::DIRECT_CONNECTION:
        return "direct";
    }
    return "";
}

void ProbedStream::observe(StreamProbe& probe) const
{
    if (connectState == PARSE_PLAY_LIST) {
        probe.reply = rawData;
        probe.wasReplyAwaited = true;
    }
    probe.kind = wordOf(streamMode);
    probe.urls.clear();
    for (const CShoutcastPlaylistItem* item : playlist)
        probe.urls.push_back(item->file);
    const CShoutcastPlaylistItem* const item = currentItem();
    const bool wasOpening = probe.state == OPEN_PLAYLIST_ITEM || probe.state == FAILED_TO_OPEN_PLAYLIST_ITEM;
    if (wasOpening && connectState != probe.state && item != nullptr)
        probe.entries.push_back({item->file, "", -1, 0});
    const bool isReading = connectState == READ_PLAYLIST_ITEM_HEADERS || connectState == PARSE_PLAYLIST_ITEM_HEADERS;
    if (isReading && !probe.entries.empty())
        observeEntry(probe.entries.back());
    if (connectState == SHOUTCAST_ITEM_READY || connectState == PARSE_PORT_PARAMS) {
        probe.rateHz = rate;
        probe.numChannels = channels;
    }
}

Json toJson(const StreamProbe& probe)
{
    Json entries = Json::array();
    for (const ProbedEntry& entry : probe.entries)
        entries.push_back({entry.url, entry.header, entry.headerBytes, entry.bytesReceived});
    return {{"reply", probe.reply},
            {"awaited", probe.wasReplyAwaited},
            {"kind", probe.kind},
            {"urls", probe.urls},
            {"entries", entries},
            {"rate", probe.rateHz},
            {"channels", probe.numChannels},
            {"state", probe.state},
            {"status", probe.status},
            {"end", static_cast<int>(probe.end)}};
}

void report(int fd, const StreamProbe& probe)
{
    const std::string line = toJson(probe).dump(-1, ' ', true, Json::error_handler_t::replace) + "\n";
    for (size_t done = 0; done < line.size();) {
        const ssize_t written = write(fd, line.data() + done, line.size() - done);
        if (written <= 0)
            return; // the parent has had enough
        done += static_cast<size_t>(written);
    }
}

/** The wait of a stream player for its source, with the reasons noted for which it ends. */
void drive(ProbedStream& block, StreamProbe& probe, int reportFd, double seconds)
{
    const Clock::time_point end =
        Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    (void)block.setNewTopUrl(probe.url);
    int numTurnsFailed = 0;
    while (Clock::now() < end) {
        usleep(TURN_US);
        if (block.isHeaderTooLong()) {
            probe.end = StreamProbe::HEADER_ENDS;
            return;
        }
        const CMp3ShoutcastPlay::connectState_e before = block.state();
        probe.state = before;
        CServiceTime next;
        probe.status = block.service(next);
        block.observe(probe);
        if (block.getShoutcastConnected()) {
            probe.end = StreamProbe::READY;
            return;
        }
        numTurnsFailed = block.state() == before && before < CMp3ShoutcastPlay::NOT_READY ? numTurnsFailed + 1 : 0;
        if (probe.status != STREAM_OK || numTurnsFailed == ENOUGH_TURNS_FAILED) {
            probe.end = StreamProbe::GIVEN_UP;
            return;
        }
        if (block.state() != before || before == CMp3ShoutcastPlay::READ_PLAYLIST_ITEM_HEADERS)
            report(reportFd, probe);
    }
}

[[noreturn]] void runChild(StreamProbe probe, int reportFd, int traceFd, double seconds)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL); // nothing of it outlives the tool
    const rlimit none = {0, 0};
    setrlimit(RLIMIT_CORE, &none);
    signal(SIGPIPE, SIG_IGN);
    dup2(traceFd, STDOUT_FILENO);
    dup2(traceFd, STDERR_FILENO);
    setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    audioInterfaceTraceLevel = TRACE_LEVEL;
    (void)osaInit();
    auto* const block = new ProbedStream; // never deleted: the process ends here
    drive(*block, probe, reportFd, seconds);
    report(reportFd, probe);
    fflush(stdout);
    _exit(0);
}

// ---- the parent

class Pipe
{
public:
    Pipe()
    {
        if (pipe2(ends, O_CLOEXEC) != 0)
            throw Failure(EXIT_FAILED, std::string("cannot make a pipe: ") + strerror(errno));
    }
    ~Pipe()
    {
        close(ends[0]);
        closeWriting();
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    void closeWriting()
    {
        if (ends[1] >= 0)
            close(ends[1]);
        ends[1] = -1;
    }
    int reading() const { return ends[0]; }
    int writing() const { return ends[1]; }

private:
    int ends[2];
};

/** Takes what has come; false at the end. */
bool take(int fd, std::string& text)
{
    char bytes[4096];
    const ssize_t count = read(fd, bytes, sizeof bytes);
    if (count > 0)
        text.append(bytes, static_cast<size_t>(count));
    return count > 0 || (count < 0 && errno == EINTR);
}

/** Gathers both texts until both ends are closed, or the time is over. */
void gather(int reports, int trace, double seconds, std::string& reported, std::string& traced)
{
    const Clock::time_point end =
        Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    pollfd waited[2] = {{reports, POLLIN, 0}, {trace, POLLIN, 0}};
    std::string* const texts[2] = {&reported, &traced};
    while (waited[0].fd >= 0 || waited[1].fd >= 0) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
        if (left <= 0 || (poll(waited, 2, static_cast<int>(left)) < 0 && errno != EINTR))
            return;
        for (int n = 0; n < 2; n++) {
            if (waited[n].fd >= 0 && (waited[n].revents & (POLLIN | POLLHUP | POLLERR)) != 0 &&
                !take(waited[n].fd, *texts[n]))
                waited[n].fd = -1;
        }
        if (traced.size() > MAX_TRACE_BYTES)
            traced.resize(MAX_TRACE_BYTES);
    }
}

/** Takes on the last whole line of what the child has told. */
void adopt(const std::string& reported, StreamProbe& probe)
{
    std::istringstream lines(reported.substr(0, reported.rfind('\n') + 1));
    std::string line;
    std::string last;
    while (std::getline(lines, line))
        last = line;
    if (last.empty())
        return;
    const Json json = Json::parse(last);
    probe.reply = json["reply"];
    probe.wasReplyAwaited = json["awaited"];
    probe.kind = json["kind"];
    probe.urls = json["urls"].get<std::vector<std::string>>();
    for (const Json& entry : json["entries"])
        probe.entries.push_back({entry[0], entry[1], entry[2], entry[3]});
    probe.rateHz = json["rate"];
    probe.numChannels = json["channels"];
    probe.state = json["state"];
    probe.status = json["status"];
    probe.end = static_cast<StreamProbe::end_e>(json["end"].get<int>());
}

} // namespace

StreamProbe probeStream(const std::string& url, double seconds)
{
    StreamProbe probe;
    probe.url = url;
    Pipe reports;
    Pipe trace;
    fflush(nullptr); // or the child would write it again
    const pid_t child = fork();
    if (child < 0)
        throw Failure(EXIT_FAILED, std::string("cannot make a process: ") + strerror(errno));
    if (child == 0)
        runChild(probe, reports.writing(), trace.writing(), seconds);
    reports.closeWriting();
    trace.closeWriting();
    std::string reported;
    gather(reports.reading(), trace.reading(), seconds + REPORT_GRACE_SECONDS, reported, probe.trace);
    kill(child, SIGKILL); // one that hangs in a look-up
    int status = 0;
    waitpid(child, &status, 0);
    adopt(reported, probe);
    if (WIFSIGNALED(status) && WTERMSIG(status) != SIGKILL)
        probe.end = StreamProbe::DIED;
    return probe;
}

// ---- what it means

std::string firstLine(const std::string& answer)
{
    return printable(answer.substr(0, answer.find_first_of("\r\n")));
}

std::string headerValue(const std::string& answer, const std::string& name)
{
    std::istringstream lines(answer.substr(0, answer.find("\r\n\r\n")));
    std::string line;
    while (std::getline(lines, line)) {
        const size_t colon = line.find(':');
        if (colon != name.size() || strncasecmp(line.c_str(), name.c_str(), colon) != 0)
            continue;
        const size_t first = line.find_first_not_of(" \t", colon + 1);
        const size_t last = line.find_last_not_of(" \t\r");
        return first == std::string::npos ? "" : printable(line.substr(first, last - first + 1));
    }
    return "";
}

namespace
{

std::string quoted(const std::string& text)
{
    return "\"" + text + "\"";
}

/** Why the answer to the whole URL leads nowhere. */
std::string reasonOfReply(const StreamProbe& probe)
{
    const std::string location = headerValue(probe.reply, "Location");
    const std::string type = headerValue(probe.reply, "Content-Type");
    if (!location.empty())
        return "the server leads on to " + location + ", which the player does not follow: try that URL";
    if (probe.reply.find("HTTP/1.1 200 OK") != std::string::npos && probe.kind.empty())
        return "the server sends " + (type.empty() ? "no content type" : "the content type " + quoted(type)) +
               " for the URL, which is none of the playlist types that the player takes: audio/x-scpls, "
               "application/pls+xml, audio/x-mpegurl, application/xspf+xml, text/xml";
    if (!probe.kind.empty())
        return "the playlist that the server sends has no entry that the player can read";
    return "the server answers " + quoted(firstLine(probe.reply)) +
           " to the request for the whole URL, which the player does not take: only \"HTTP/1.1 200 OK\" with a "
           "playlist, \"ICY 404 Resource Not Found\", \"HTTP/1.0 400 Bad Request\" or silence lead on";
}

/** What the last server that was asked for the stream has answered, in front of what was wrong with it. */
std::string answerOf(const ProbedEntry& entry)
{
    if (entry.header.empty())
        return "";
    const std::string type = headerValue(entry.header, "Content-Type");
    return " (it answers " + quoted(firstLine(entry.header)) + (type.empty() ? "" : ", " + type) + ")";
}

std::string reasonOfEntry(const StreamProbe& probe, const ProbedEntry& entry)
{
    const std::string who = entry.url + answerOf(entry);
    switch (probe.state) {
    case CMp3ShoutcastPlay::READ_PLAYLIST_ITEM_HEADERS:
        return who + " has sent " + std::to_string(entry.bytesReceived) +
               " of the 4096 bytes that the player waits for, without a limit of time";
    case CMp3ShoutcastPlay::PARSE_PLAYLIST_ITEM_HEADERS:
        return who + " sends no end of a header in its first 4096 bytes";
    case CMp3ShoutcastPlay::GET_PORT_PARAMS:
    case CMp3ShoutcastPlay::PARSE_PORT_PARAMS:
        return who + " sends nothing in which an MP3 decoder finds a frame";
    case CMp3ShoutcastPlay::CONNECTING_PLAYLIST_ITEM:
        return "no connection to the server of " + entry.url + " comes about";
    default:
        return who + (entry.bytesReceived == 0 ? " refuses the connection, or closes it without a byte"
                                               : " closes the connection before it has sent 4096 bytes");
    }
}

} // namespace

std::string reasonAgainst(const StreamProbe& probe)
{
    switch (probe.end) {
    case StreamProbe::READY:
        return "";
    case StreamProbe::HEADER_ENDS:
        return "the header of " + probe.entries.back().url + " has " +
               std::to_string(probe.entries.back().headerBytes) +
               " bytes: THE PLAYER'S PROCESS WOULD END, as it does from 2044 bytes on";
    case StreamProbe::DIED:
        return "THE PLAYER'S PROCESS WOULD END on what the server sends";
    case StreamProbe::GIVEN_UP:
    case StreamProbe::NOT_IN_TIME:
        break;
    }
    if (!probe.entries.empty())
        return reasonOfEntry(probe, probe.entries.back());
    if (probe.wasReplyAwaited)
        return reasonOfReply(probe);
    if (probe.state == CMp3ShoutcastPlay::OPEN_CONNECTION)
        return "the server's name can't be found";
    if (probe.state == CMp3ShoutcastPlay::CONNECTING)
        return "no connection to the server comes about";
    return "the server's answer does not come to an end";
}
