#include "streamCommands.h"

#include "asPlayed.h"
#include "audioLibrary/shoutcastPlaylist.h"
#include "failure.h"
#include "streamProbe.h"
#include "streamUrl.h"

#include <cstdio>
#include <nlohmann/json.hpp>
#include <sstream>

namespace
{

using Json = nlohmann::ordered_json;

void print(const Json& json)
{
    puts(json.dump(2, ' ', false, Json::error_handler_t::replace).c_str());
}

void note(const std::string& text)
{
    fprintf(stderr, "audioplayerctl: %s\n", text.c_str());
}

void warn(const std::string& text)
{
    note("warning: " + text);
}

/** "http://..." or "Livewire 3". */
std::string targetOf(const StreamRow& row)
{
    if (row.type == StreamRow::INTERNET)
        return printable(row.url);
    return row.type == StreamRow::LIVEWIRE ? "Livewire " + std::to_string(row.dst) : "(no kind that the player knows)";
}

/** The fields that say what is played, for JSON. */
void addTarget(Json& json, const StreamRow& row)
{
    if (row.type == StreamRow::INTERNET)
        json["url"] = row.url;
    if (row.type == StreamRow::LIVEWIRE)
        json["livewire"] = row.dst;
}

Json jsonOf(const StreamRow& row)
{
    Json json = {{"id", row.id}, {"source", row.sourceId != 0 ? Json(row.sourceId) : Json()}, {"name", row.name}};
    addTarget(json, row);
    return json;
}

const StreamRow* rowOf(const std::vector<StreamRow>& rows, const SourceRow& source)
{
    for (const StreamRow& row : rows)
        if (row.sourceId == source.id)
            return &row;
    return nullptr;
}

/** Sets what the command line says of URL and destination. */
void setTarget(StreamRow& row, const Options& options)
{
    if (!options.url.empty()) {
        const std::string fault = urlFault(options.url);
        if (!fault.empty())
            throw Failure(EXIT_REFUSED, fault);
        for (const std::string& warning : urlWarnings(options.url))
            warn(warning);
        row.type = StreamRow::INTERNET;
        row.url = options.url;
        row.dst = 0;
    }
    if (options.livewire != 0) {
        row.type = StreamRow::LIVEWIRE;
        row.url = "";
        row.dst = options.livewire;
    }
}

} // namespace

void listSources(const Options& options)
{
    Library library(options.database, Library::READ);
    const std::vector<SourceRow> rows = library.sources();
    const std::vector<StreamRow> streams = library.streams();
    if (options.isJson) {
        Json json = Json::array();
        for (const SourceRow& row : rows) {
            json.push_back({{"id", row.id}, {"type", row.type}, {"player_id", row.playerId}, {"name", row.name}});
            if (const StreamRow* const stream = rowOf(streams, row))
                addTarget(json.back(), *stream);
        }
        print(json);
        return;
    }
    printf("%5s  %-13s %9s  %s\n", "ID", "TYPE", "PLAYER ID", "NAME");
    for (const SourceRow& row : rows) {
        const StreamRow* const stream = rowOf(streams, row);
        printf("%5d  %-13s %9d  %s%s\n", row.id, row.type.c_str(), row.playerId, row.name.c_str(),
               stream != nullptr ? (" (" + targetOf(*stream) + ")").c_str() : "");
    }
}

void addStream(const Options& options)
{
    if (options.url.empty() && options.livewire == 0)
        throw Failure(EXIT_USAGE, "what is the stream? Give a URL or --livewire");
    StreamRow wanted = {};
    wanted.name = options.stream;
    setTarget(wanted, options);
    Library library(options.database, Library::CREATE);
    const StreamRow added = library.addStream(wanted);
    if (options.isJson) {
        print(jsonOf(added));
    } else {
        printf("Added stream %d \"%s\" as source %d: %s\n", added.id, added.name.c_str(), added.sourceId,
               targetOf(added).c_str());
        if (added.type == StreamRow::INTERNET)
            printf("Try it before it goes on air: audioplayerctl stream probe %d\n", added.id);
    }
    warn("playlists that are made from now on get other ids than their sources, and the studio's startPlaylist goes by "
         "the playlist's id: see audioplayerctl(1)");
}

void listStreams(const Options& options)
{
    const std::vector<StreamRow> rows = Library(options.database, Library::READ).streams();
    if (options.isJson) {
        Json json = Json::array();
        for (const StreamRow& row : rows)
            json.push_back(jsonOf(row));
        print(json);
        return;
    }
    printf("%5s %6s  %-20s %s\n", "ID", "SOURCE", "NAME", "WHAT");
    for (const StreamRow& row : rows)
        printf("%5d %6s  %-20s %s\n", row.id, row.sourceId != 0 ? std::to_string(row.sourceId).c_str() : "-",
               row.name.c_str(), targetOf(row).c_str());
}

void editStream(const Options& options)
{
    if (options.url.empty() && options.livewire == 0 && options.newName.empty())
        throw Failure(EXIT_USAGE, "nothing to change: give --name, --url or --livewire");
    Library library(options.database, Library::WRITE);
    StreamRow row = library.stream(library.findStream(options.stream));
    if (!options.newName.empty())
        row.name = options.newName;
    setTarget(row, options);
    library.editStream(row);
}

void removeStream(const Options& options)
{
    Library library(options.database, Library::WRITE);
    library.removeStream(library.findStream(options.stream));
}

void tellOfStreamStart(Library& library, int sourceId)
{
    const std::optional<StreamRow> stream = library.streamOf(sourceId);
    if (stream.has_value() && stream->type == StreamRow::INTERNET)
        note(
            "until the stream is up, or for 100 s, the player attends to nothing else; if it does not come up there is "
            "silence: \"audioplayerctl stream probe\" tells beforehand");
}

// ---- probe

namespace
{

std::string urlToProbe(const Options& options)
{
    if (options.url.find("://") != std::string::npos)
        return options.url;
    Library library(options.database, Library::READ);
    const StreamRow row = library.stream(library.findStream(options.url));
    if (row.type != StreamRow::INTERNET)
        throw Failure(EXIT_REFUSED, "the stream \"" + row.name + "\" is no internet stream: there is nothing to ask");
    return row.url;
}

const char* nameOfKind(const std::string& kind)
{
    return kind == "pls"    ? "a .pls playlist"
           : kind == "m3u"  ? "an M3U playlist"
           : kind == "xspf" ? "an XSPF playlist"
                            : "the stream itself";
}

std::string numberOfEntries(size_t count)
{
    return count == 1 ? "1 entry" : std::to_string(count) + " entries";
}

Json orNull(const std::string& text)
{
    return text.empty() ? Json() : Json(text);
}

Json jsonOf(const StreamProbe& probe, const std::string& reason)
{
    Json entries = Json::array();
    for (const ProbedEntry& entry : probe.entries)
        entries.push_back({{"url", entry.url},
                           {"answer", orNull(firstLine(entry.header))},
                           {"content_type", orNull(headerValue(entry.header, "Content-Type"))},
                           {"header_bytes", entry.headerBytes >= 0 ? Json(entry.headerBytes) : Json()}});
    return {{"url", probe.url},
            {"plays", reason.empty()},
            {"reason", orNull(reason)},
            {"answer", orNull(firstLine(probe.reply))},
            {"content_type", orNull(headerValue(probe.reply, "Content-Type"))},
            {"case", orNull(probe.kind)},
            {"entries", probe.urls},
            {"tried", entries},
            {"rate", probe.rateHz != 0 ? Json(probe.rateHz) : Json()},
            {"channels", probe.numChannels != 0 ? Json(probe.numChannels) : Json()}};
}

void printAsked(const StreamProbe& probe)
{
    printf("The player asks %s port %d for %s\n", audioLibrarySpace::extractHostname(probe.url).c_str(),
           audioLibrarySpace::extractPort(probe.url), printable(probe.url).c_str());
    if (!probe.wasReplyAwaited)
        return;
    const std::string type = headerValue(probe.reply, "Content-Type");
    if (probe.reply.empty())
        puts("  answer:  none for 2 s");
    else
        printf("  answer:  %s%s\n", firstLine(probe.reply).c_str(), type.empty() ? "" : (", " + type).c_str());
    if (probe.kind == "direct")
        puts("  so it is the stream itself");
    else if (!probe.kind.empty())
        printf("  so it is %s with %s\n", nameOfKind(probe.kind), numberOfEntries(probe.urls.size()).c_str());
}

void printEntry(const ProbedEntry& entry)
{
    printf("The player asks %s port %d for %s\n", audioLibrarySpace::extractHostname(entry.url).c_str(),
           audioLibrarySpace::extractPort(entry.url), printable(audioLibrarySpace::extractPath(entry.url)).c_str());
    const std::string type = headerValue(entry.header, "Content-Type");
    if (entry.header.empty())
        puts("  answer:  none");
    else
        printf("  answer:  %s%s\n", firstLine(entry.header).c_str(), type.empty() ? "" : (", " + type).c_str());
    if (entry.headerBytes >= 0)
        printf("  header:  %d bytes, %d at most can be\n", entry.headerBytes, MAX_STREAM_HEADER_BYTES);
}

void printTrace(const std::string& trace)
{
    std::istringstream lines(trace);
    std::string line;
    while (std::getline(lines, line))
        fprintf(stderr, "%s\n", printable(line).c_str());
}

} // namespace

void probeStreamOrUrl(const Options& options)
{
    const std::string url = urlToProbe(options);
    const std::string fault = urlFault(url);
    if (!fault.empty())
        throw Failure(EXIT_REFUSED, "the player will not play " + printable(url) + ": " + fault);
    const StreamProbe probe = probeStream(url, options.probeSeconds);
    const std::string reason = reasonAgainst(probe);
    if (options.isTraced)
        printTrace(probe.trace);
    if (options.isJson) {
        print(jsonOf(probe, reason));
    } else {
        printAsked(probe);
        for (const ProbedEntry& entry : probe.entries)
            printEntry(entry);
        if (reason.empty())
            printf("The player will play it: %d Hz, %s\n", probe.rateHz, probe.numChannels == 1 ? "mono" : "stereo");
    }
    if (!reason.empty())
        throw Failure(EXIT_REFUSED, "the player will not play it: " + reason);
}
