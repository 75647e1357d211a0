/**
 * Any text as a .pls, as an M3U and as an XSPF.
 *
 *   input: the reply of a server, headers and all
 *
 * Each walk ends, keeps no more than it may, and leaves a list that is not read alone.
 */

#include "fuzz.h"

#include "audioLibrary/audioTrace.h"
#include "audioLibrary/shoutcastPlaylist.h"

using namespace audioLibrarySpace;

namespace
{

constexpr size_t maxFieldBytes = 4096;
constexpr size_t maxPlsEntries = 100;
constexpr size_t xspfStep = 20; ///< bytes that each entry of an XSPF takes at least, but for the last

/** A playlist with an entry from before. */
class Entries
{
public:
    Entries() { list.push_back(new CShoutcastPlaylistItem{"old", "old", "old"}); }
    ~Entries() { clearPlaylist(list); }
    Entries(const Entries&) = delete;
    Entries& operator=(const Entries&) = delete;

    bool isOld() const { return list.size() == 1 && list[0]->file == "old"; }

    shoutcastPlaylist list;
};

void checkFields(const shoutcastPlaylist& list)
{
    for (const CShoutcastPlaylistItem* item : list) {
        MUST_HOLD(item->file.size() <= maxFieldBytes && item->title.size() <= maxFieldBytes &&
                  item->length.size() <= maxFieldBytes);
        MUST_HOLD(std::string(*item).size() == item->file.size() + item->title.size() + item->length.size() + 33);
    }
}

void readPls(std::string text)
{
    const size_t before = text.size();
    Entries entries;
    const bool isPls = parsePls(text, entries.list, &audioInterfaceTraceLevel);
    MUST_HOLD(isPls || entries.isOld());
    MUST_HOLD(entries.list.size() <= maxPlsEntries);
    MUST_HOLD(text.size() <= before);
    checkFields(entries.list);
}

void readM3u(std::string text)
{
    const std::string before = text;
    Entries entries;
    parseM3u(text, entries.list);
    checkFields(entries.list);
    size_t from = 0;
    for (const CShoutcastPlaylistItem* item : entries.list) {
        MUST_HOLD(findStr(item->file + " ", "http://") == 0);
        MUST_HOLD(item->file.find_first_of("\r\n") == std::string::npos);
        MUST_HOLD(item->title == item->file && item->length.empty());
        from = before.find(item->file, from); // in their order
        MUST_HOLD(from != std::string::npos);
        from += item->file.size();
    }
    MUST_HOLD(before.compare(before.size() - text.size(), text.size(), text) == 0);
    MUST_HOLD(findStr(text, "http://") == std::string::npos || text.find_first_of("\r\n") == std::string::npos ||
              text.find_first_of("\r\n", findStr(text, "http://")) == std::string::npos);
}

void readXspf(std::string text)
{
    const std::string before = text;
    Entries entries;
    parseXspf(text, entries.list);
    checkFields(entries.list);
    MUST_HOLD(entries.list.size() <= before.size() / xspfStep + 1);
    for (const CShoutcastPlaylistItem* item : entries.list) {
        MUST_HOLD(item->title == entries.list[0]->title && item->length.empty());
        MUST_HOLD(before.find(item->file) != std::string::npos);
    }
    MUST_HOLD(text.find_first_of("\r\n") == std::string::npos);
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string text = fuzz::Input(data, size).rest();
    audioInterfaceTraceLevel = 3;
    readPls(text);
    readM3u(text);
    readXspf(text);
    return 0;
}
