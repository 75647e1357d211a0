/**
 * audioplayerctl: the person's hand on the player daemon.
 *
 *   audioplayerctl playlist create|add|list|show|move|remove|delete ...   the library in the database
 *   audioplayerctl stream add|list|edit|remove|probe ...                  streams: rows of the database, and a trial
 *   audioplayerctl sources | start ID|NAME | stop | status                the running daemon
 *   audioplayerctl upload|delete|play NAME ..., as-played, now-playing    what automation does; from afar in its seat
 *
 * One thread, one command, then the end. What is asked for goes to stdout, warnings and failures to stderr.
 */

#include "asPlayed.h"
#include "automationCommands.h"
#include "failure.h"
#include "globals.h"
#include "library.h"
#include "options.h"
#include "streamCommands.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <functional>
#include <nlohmann/json.hpp>
#include <set>

namespace
{

using Json = nlohmann::ordered_json;

/** Names and paths may hold bytes that are no UTF-8: those come out as the replacement character. */
void print(const Json& json)
{
    puts(json.dump(2, ' ', false, Json::error_handler_t::replace).c_str());
}

std::string duration(const std::optional<int64_t>& lengthSeconds)
{
    if (!lengthSeconds.has_value())
        return "unknown";
    char text[32];
    snprintf(text, sizeof(text), "%d:%02d:%02d", static_cast<int>(*lengthSeconds / 3600),
             static_cast<int>(*lengthSeconds / 60 % 60), static_cast<int>(*lengthSeconds % 60));
    return text;
}

void listPlaylists(const Options& options)
{
    const std::vector<PlaylistRow> rows = Library(options.database, Library::READ).playlists();
    if (options.isJson) {
        Json json = Json::array();
        for (const PlaylistRow& row : rows)
            json.push_back({{"id", row.id},
                            {"sequence", row.sequence},
                            {"name", row.name},
                            {"type", row.type},
                            {"entries", row.count},
                            {"seconds", row.lengthSeconds.has_value() ? Json(*row.lengthSeconds) : Json()}});
        print(json);
        return;
    }
    printf("%5s %8s %9s  %s\n", "ID", "ENTRIES", "LENGTH", "NAME");
    for (const PlaylistRow& row : rows)
        printf("%5d %8d %9s  %s%s\n", row.id, row.count, duration(row.lengthSeconds).c_str(),
               printable(row.name).c_str(), row.type == "STR_CART" ? " (cart)" : "");
}

void showPlaylist(const Options& options)
{
    Library library(options.database, Library::READ);
    const std::vector<EntryRow> rows = library.entries(library.findPlaylist(options.playlist));
    if (options.isJson) {
        Json json = Json::array();
        for (const EntryRow& row : rows)
            json.push_back({{"sequence", row.sequence},
                            {"entry_id", row.placeId},
                            {"item_id", row.itemId},
                            {"type", row.type},
                            {"path", row.path},
                            {"samples", row.numFrames},
                            {"sample_rate", row.rateHz}});
        print(json);
        return;
    }
    printf("%8s %9s %6s  %s\n", "SEQUENCE", "LENGTH", "RATE", "PATH");
    for (const EntryRow& row : rows) {
        const bool isJump = row.type == "ITEM_TYPE_JUMP";
        const std::optional<int64_t> seconds =
            row.rateHz > 0 ? std::optional<int64_t>(row.numFrames / row.rateHz) : std::nullopt;
        printf("%8d %9s %6s  %s\n", row.sequence, isJump ? "-" : duration(seconds).c_str(),
               isJump ? "-" : std::to_string(row.rateHz).c_str(), printable(row.path).c_str());
    }
}

void createPlaylist(const Options& options)
{
    Library library(options.database, Library::CREATE);
    const int id = library.createPlaylist(options.playlist, options.isCart);
    if (options.isJson)
        print(Json({{"id", id}, {"name", options.playlist}}));
    else
        printf("Created playlist %d \"%s\"\n", id, printable(options.playlist).c_str());
}

void addToPlaylist(const Options& options)
{
    Library library(options.database, Library::WRITE);
    library.add(library.findPlaylist(options.playlist), options.files, options.jump);
}

void moveEntry(const Options& options)
{
    Library library(options.database, Library::WRITE);
    library.move(library.findPlaylist(options.playlist), options.sequence, options.newSequence);
}

void removeEntry(const Options& options)
{
    Library library(options.database, Library::WRITE);
    library.remove(library.findPlaylist(options.playlist), options.sequence);
}

void deletePlaylist(const Options& options)
{
    Library library(options.database, Library::WRITE);
    library.deletePlaylist(library.findPlaylist(options.playlist));
}

void start(const Options& options)
{
    Library library(options.database, Library::READ);
    const int id = library.findSource(options.source);
    library.expectSurvivable(id);
    library.expectSomethingToPlay(id, options.host.empty());
    tellOfStreamStart(library, id);
    sendStart(options.control, id);
    printf("Asked the player to start source %d\n", id);
}

void stop(const Options& options)
{
    if (options.isOverTcp) {
        stopOverTcp(options);
        return;
    }
    sendStop(options.control);
    puts("Asked the player to stop");
}

const char* const FOOTER =
    "Exit status: 0 done (status: the player runs; stream probe: it will play), 1 the database or the system refused, 2 bad "
    "command line,\n3 the player is not running, 4 not found, 5 refused, 6 the heartbeat's port "
    "is in use.\nSee audioplayerctl(1).";

void addPlaylistCommands(CLI::App& app, Options& options, std::function<void(const Options&)>& chosen)
{
    CLI::App* playlist = app.add_subcommand("playlist", "Make, fill, look at and delete playlists");
    playlist->require_subcommand(1);
    const auto command = [&](const char* name, const char* help, void (*action)(const Options&)) {
        CLI::App* added = playlist->add_subcommand(name, help);
        added->callback([&chosen, action] { chosen = action; });
        return added;
    };
    const auto wantsPlaylist = [&](CLI::App* to) {
        to->add_option("PLAYLIST", options.playlist, "Its id or name")->required();
    };

    CLI::App* create = command("create", "Make an empty playlist; the database too, if there is none", createPlaylist);
    create->add_option("NAME", options.playlist, "Its name, not in use yet")->required();
    create->add_flag("--cart", options.isCart, "A cart: it can't be started as a source");
    create->add_flag("--json", options.isJson, "Answer in JSON");

    CLI::App* add = command("add", "Append files, and then a jump; files that will not play are told", addToPlaylist);
    wantsPlaylist(add);
    add->add_option("FILE", options.files, "WAV files (and .mp3), stored with their absolute paths");
    add->add_option("--jump", options.jump,
                    "PLAYLIST:SEQUENCE: go on there; the playlist's id and the sequence must lie from 0 to 9");

    CLI::App* list = command("list", "List the playlists", listPlaylists);
    list->add_flag("--json", options.isJson, "List in JSON");

    CLI::App* show = command("show", "List the entries of a playlist in order", showPlaylist);
    wantsPlaylist(show);
    show->add_flag("--json", options.isJson, "List in JSON");

    CLI::App* move = command("move", "Give an entry another sequence; entries in the way move up by one", moveEntry);
    wantsPlaylist(move);
    move->add_option("SEQUENCE", options.sequence, "Where the entry is")->required();
    move->add_option("NEW_SEQUENCE", options.newSequence, "Where it goes, from 1")->required();

    CLI::App* remove = command("remove", "Remove an entry; the file on disk stays", removeEntry);
    wantsPlaylist(remove);
    remove->add_option("SEQUENCE", options.sequence, "Where the entry is")->required();

    wantsPlaylist(command("delete", "Delete a playlist and its entries; the files on disk stay", deletePlaylist));
}

void addStreamCommands(CLI::App& app, Options& options, std::function<void(const Options&)>& chosen)
{
    CLI::App* stream =
        app.add_subcommand("stream", "Add, look at, change, remove and try internet and Livewire streams");
    stream->require_subcommand(1);
    const auto command = [&](const char* name, const char* help, void (*action)(const Options&)) {
        CLI::App* added = stream->add_subcommand(name, help);
        added->callback([&chosen, action] { chosen = action; });
        return added;
    };
    const auto takesTarget = [&](CLI::App* to, CLI::Option* url) {
        to->add_option("--livewire", options.livewire,
                       "A Livewire destination, from 1: the card \"hw:Axia,\" and one less")
            ->check(CLI::Range(1, 32767))
            ->excludes(url);
    };

    CLI::App* add = command("add", "Add a stream, and with it a source; the database too, if there is none", addStream);
    add->add_option("NAME", options.stream, "Its name, no other source's yet")->required();
    takesTarget(add, add->add_option("URL", options.url, "http://... of an internet stream or of its playlist"));
    add->add_flag("--json", options.isJson, "Answer in JSON");

    command("list", "List the streams", listStreams)->add_flag("--json", options.isJson, "List in JSON");

    CLI::App* edit = command("edit", "Change a stream; what is on air goes on as it is", editStream);
    edit->add_option("STREAM", options.stream, "Its id or name")->required();
    edit->add_option("--name", options.newName, "Its new name; its source has it too");
    takesTarget(edit, edit->add_option("--url", options.url, "http://...: it is an internet stream"));

    command("remove", "Remove a stream and its source; what is on air goes on", removeStream)
        ->add_option("STREAM", options.stream, "Its id or name")
        ->required();

    CLI::App* probe = command("probe", "Tell what the player would make of a URL: nothing is heard", probeStreamOrUrl);
    probe->add_option("URL", options.url, "http://..., or a stream's id or name")->required();
    probe->add_option("--timeout", options.probeSeconds, "Seconds to try; the player would for 100")
        ->check(CLI::Range(0.1, 100.0))
        ->capture_default_str();
    probe->add_flag("--trace", options.isTraced, "Show what the player would print, too, on standard error");
    probe->add_flag("--json", options.isJson, "Answer in JSON");
}

void addSeatOptions(CLI::App& command, Options& options)
{
    command.add_flag("--take-seat", options.isSeatTaken,
                     "With --host: connect also while another peer is connected, and throw it out");
    command.add_option("--timeout", options.timeoutSeconds, "With --host: seconds to wait for an answer")
        ->check(CLI::Range(0.001, 86400.0))
        ->capture_default_str();
}

void addDaemonCommands(CLI::App& app, Options& options, std::function<void(const Options&)>& chosen)
{
    const auto command = [&](const char* name, const char* help, void (*action)(const Options&)) {
        CLI::App* added = app.add_subcommand(name, help);
        added->callback([&chosen, action] { chosen = action; });
        return added;
    };
    command("sources", "List what can be started", listSources)->add_flag("--json", options.isJson, "List in JSON");
    command("start", "Start a source; what plays is replaced", start)
        ->add_option("SOURCE", options.source, "Its id or name, as \"sources\" lists them")
        ->required();
    CLI::App* stopping = command("stop", "Stop what plays", stop);
    stopping->add_flag("--tcp", options.isOverTcp, "With --host: by a transaction, not by a datagram");
    addSeatOptions(*stopping, options);
    command("status", "Listen for the player's heartbeat, up to 2.5 s, and tell what went on air last", showStatus)
        ->add_flag("--json", options.isJson, "Answer in JSON");
}

void addAutomationCommands(CLI::App& app, Options& options, std::function<void(const Options&)>& chosen)
{
    const auto command = [&](const char* name, const char* help, void (*action)(const Options&)) {
        CLI::App* added = app.add_subcommand(name, help);
        added->callback([&chosen, action] { chosen = action; });
        addSeatOptions(*added, options);
        return added;
    };

    CLI::App* upload = command("upload", "Have a playlist hold these files and nothing else", uploadPlaylist);
    upload->add_option("NAME", options.playlist, "Its name; made if there is none")->required();
    upload->add_option("FILE", options.files, "Audio files; - reads an M3U list from standard input")->required();
    upload->add_option("--base", options.base, "Where relative files begin; the working directory if not given");

    CLI::App* remove = command("delete", "Delete a playlist; files and the as-played log stay", deletePlaylistWithLog);
    remove->add_option("NAME", options.playlist, "Its name, or without --host its id")->required();
    remove->add_flag("--audio-files", options.isAudioDeleted, "Remove its files from the disk");
    CLI::Option* clearing = remove->add_flag("--clear-log", options.isLogCleared, "Clear the whole as-played log");
    remove->add_flag("--keep-log", options.isLogKept, "Keep the as-played log, as without --clear-log")
        ->excludes(clearing);

    command("play", "Start a playlist; what plays is replaced", playPlaylist)
        ->add_option("NAME", options.playlist, "Its name, or without --host its id")
        ->required();

    CLI::App* log = command("as-played", "List what went on air", showAsPlayed);
    CLI::Option* asJson = log->add_flag("--json", options.isJson, "List in JSON; with --follow an object a line");
    log->add_flag("--csv", options.isCsv, "List in CSV")->excludes(asJson);
    log->add_flag("--follow", options.isFollowed, "Go on with what comes, until interrupted; without --host");
    log->add_flag("--delete", options.isLogDeleted, "Remove from the log what was listed");
    log->add_option("--limit", options.limit, "The oldest entries only, as many")->check(CLI::Range(1, 1000000));

    CLI::App* now = command("now-playing", "Tell what went on air last; with --host, next", showNowPlaying);
    now->add_flag("--json", options.isJson, "Answer in JSON; with --follow an object a line");
    now->add_flag("--follow", options.isFollowed, "Go on with what comes, until interrupted");
}

/**
 * --host names a machine for datagrams; the automation commands see by it that they are to go over TCP. The others work
 * on this machine alone: they would answer for it as if for that one.
 */
void shareHost(const CLI::App& app, Options& options)
{
    if (options.host.empty())
        return;
    options.control.host = parseAutomationAddress(options.host).host;
    static const std::set<std::string> REACHING = {"start", "stop",      "upload",     "delete",
                                                   "play",  "as-played", "now-playing"};
    const std::string command = app.get_subcommands().front()->get_name();
    if (!REACHING.contains(command))
        throw Failure(EXIT_USAGE, "\"" + command + "\" looks at this machine only: it can't be asked of --host");
}

} // namespace

int main(int argc, char** argv)
{
    log_level = 0; // the log of the library's code is the daemon's; what fails is told once, below
    Options options;
    std::function<void(const Options&)> chosen;

    CLI::App app("Controls the AudioPlayer daemon and its library of playlists.", "audioplayerctl");
    app.footer(FOOTER);
    app.set_version_flag("--version", AUDIOPLAYER_VERSION);
    app.require_subcommand(1);
    app.fallthrough();
    app.add_option("--db", options.database,
                   "The database; a relative path starts at the working directory, as the daemon's does")
        ->capture_default_str();
    app.add_option("--host", options.host,
                   "Where the player runs: start and stop send their datagrams there (127.0.0.1 if not given), the "
                   "others connect to HOST[:PORT], TCP port 8500, and take the place of the studio's automation");
    app.add_option("--port", options.control.port, "The player's control port, for start and stop")
        ->check(CLI::Range(1, 65535))
        ->capture_default_str();
    addPlaylistCommands(app, options, chosen);
    addStreamCommands(app, options, chosen);
    addDaemonCommands(app, options, chosen);
    addAutomationCommands(app, options, chosen);

    try {
        app.parse(argc, argv);
        shareHost(app, options);
        chosen(options);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? EXIT_OK : EXIT_USAGE; // help and version end here too
    } catch (const Failure& failure) {
        fprintf(stderr, "audioplayerctl: %s\n", failure.what());
        return failure.status;
    } catch (const std::exception& error) { // the standard library's: memory, or a path that can't be made absolute
        fprintf(stderr, "audioplayerctl: %s\n", error.what());
        return EXIT_FAILED;
    }
    return EXIT_OK;
}
