#include "jumps.h"

#include <algorithm>
#include <cstdlib>
#include <set>

namespace
{

/** The number that the one character at `position` is; 0 for anything but a digit, and for the end of the text. */
int digitAt(const std::string& text, size_t position)
{
    return static_cast<int>(strtol(text.substr(position, 1).c_str(), nullptr, 10));
}

bool isOrdered(const JumpEntry& entry, const JumpTarget& target)
{
    return entry.playlistId != target.playlistId ? entry.playlistId < target.playlistId
                                                 : entry.sequence < target.sequence;
}

/** What the player finds there: the lowest entry at or behind the target; null if there is none. */
const JumpEntry* entryAt(const std::vector<JumpEntry>& entries, JumpTarget target)
{
    target.sequence = std::max(target.sequence, 1); // it asks for what lies above 0
    const auto found = std::lower_bound(entries.begin(), entries.end(), target, isOrdered);
    return found == entries.end() || found->playlistId != target.playlistId ? nullptr : &*found;
}

/** Whether the player, once it stands on this entry, tries a file or passes on rather than jumps. */
bool endsTheJumping(const JumpEntry& entry)
{
    return !entry.isJump || readJump(entry.path).isSkipped;
}

/** What becomes of the player that takes this jump; none if it comes to an entry that is no jump. */
std::optional<JumpTrap::kind_e> follow(const std::vector<JumpEntry>& entries, const JumpEntry& jump)
{
    std::set<int> taken;
    for (const JumpEntry* entry = &jump; !endsTheJumping(*entry);) {
        const std::optional<JumpTarget> target = readJump(entry->path).target;
        if (!target.has_value())
            return JumpTrap::CUT_SHORT;
        if (!taken.insert(entry->placeId).second)
            return JumpTrap::CIRCLE;
        entry = entryAt(entries, *target);
        if (entry == nullptr)
            return JumpTrap::NOWHERE;
    }
    return std::nullopt;
}

} // namespace

JumpReading readJump(const std::string& text)
{
    // The name is not looked for: what counts is the last of its letters, wherever it stands.
    const size_t position = text.find_last_of("ITEM_TYPE_JUMP");
    JumpReading reading;
    reading.isSkipped = position == std::string::npos;
    if (!reading.isSkipped && position + 4 <= text.size())
        reading.target = {digitAt(text, position + 2), digitAt(text, position + 4)};
    return reading;
}

std::string JumpTrap::text() const
{
    const std::string where = "playlist " + std::to_string(entry.playlistId) + ", sequence " +
                              std::to_string(entry.sequence) + ": the jump \"" + entry.path + "\" ";
    switch (kind) {
    case CUT_SHORT:
        return where + "is cut short, or leads to one that is: the player would end in it";
    case NOWHERE:
        return where + "leads to no entry: the player would hang in it";
    case CIRCLE:
        return where + "leads to nothing but jumps: the player would hang in it";
    }
    return where;
}

std::vector<JumpTrap> findJumpTraps(const std::vector<JumpEntry>& entries)
{
    std::vector<JumpTrap> traps;
    for (const JumpEntry& entry : entries) {
        const std::optional<JumpTrap::kind_e> kind = follow(entries, entry);
        if (kind.has_value())
            traps.push_back({entry, *kind});
    }
    return traps;
}

std::vector<int> playlistsWithinReach(const std::vector<JumpEntry>& entries, int playlistId)
{
    std::vector<int> reached = {playlistId};
    for (size_t next = 0; next < reached.size(); next++) {
        for (const JumpEntry& entry : entries) {
            if (!entry.isJump || entry.playlistId != reached[next])
                continue;
            const std::optional<JumpTarget> target = readJump(entry.path).target;
            if (target.has_value() && std::find(reached.begin(), reached.end(), target->playlistId) == reached.end())
                reached.push_back(target->playlistId);
        }
    }
    return reached;
}
