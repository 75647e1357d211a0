/** What keeps the library free of jumps that the player does not survive. */

#include "ItemType.h"
#include "libraryPrivate.h"

#include <algorithm>

std::vector<JumpEntry> Library::entriesOfAll()
{
    Query query(db,
                "SELECT a.playlist_id, a.sequence, a.id, i.item_type, i.pathname FROM T_Playlist_Item_Association a "
                "LEFT JOIN T_Items i ON i.id = a.item_id WHERE EXISTS (SELECT 1 FROM T_Items WHERE item_type = ?) "
                "ORDER BY a.playlist_id, a.sequence, a.id;",
                "list_all_entries");
    query.bind(1, ItemType::JUMP);
    std::vector<JumpEntry> entries;
    while (query.next()) {
        const bool isJump = query.number(3) == ItemType::JUMP;
        entries.push_back({query.number(0), query.number(1), query.number(2), isJump, isJump ? query.text(4) : ""});
    }
    return entries;
}

std::vector<JumpTrap> Library::jumpTraps()
{
    return findJumpTraps(entriesOfAll());
}

void Library::expectNoNewTrap(const std::vector<JumpTrap>& before)
{
    for (const JumpTrap& trap : jumpTraps()) {
        const auto isSame = [&](const JumpTrap& old) { return old.entry.placeId == trap.entry.placeId; };
        if (std::none_of(before.begin(), before.end(), isSame))
            throw Failure(EXIT_REFUSED, "refused, for then " + trap.text());
    }
}

void Library::expectSurvivable(int sourceId)
{
    Query query(db,
                "SELECT s.player_id FROM T_Audio_Sources s JOIN T_Audio_Source_Types t ON t.id = s.source_type_id "
                "WHERE t.name = 'STR_PLAYLIST' AND s.id = ?;",
                "find_playlist_of_source");
    if (!query.bind(1, sourceId).next())
        return; // a stream has no jumps
    const std::vector<JumpEntry> entries = entriesOfAll();
    const std::vector<int> reached = playlistsWithinReach(entries, query.number(0));
    for (const JumpTrap& trap : findJumpTraps(entries)) {
        if (std::find(reached.begin(), reached.end(), trap.entry.playlistId) != reached.end())
            throw Failure(EXIT_REFUSED, "not started: " + trap.text());
    }
}
