#pragma once

/**
 * Jump entries as the player takes them, and those among them that it does not survive.
 *
 * The player follows a jump without looking where it comes from or how often. A jump that leads to no entry, and jumps
 * that lead to nothing but each other, are followed for ever: nothing plays, no command is heard, and the heartbeat
 * goes on. A jump whose text is cut short ends the player's process.
 */

#include <optional>
#include <string>
#include <vector>

/** Where a jump leads: the lowest entry at or behind `sequence`, which counts from 1. */
struct JumpTarget {
    int playlistId;
    int sequence;

    bool operator==(const JumpTarget&) const = default;
};

/** An entry of a playlist. */
struct JumpEntry {
    int playlistId;
    int sequence;
    int placeId; ///< id in T_Playlist_Item_Association
    bool isJump;
    std::string path; ///< of a jump: its text
};

/** A jump that the player does not survive. */
struct JumpTrap {
    enum kind_e {
        CUT_SHORT, ///< its text ends before the digit of its playlist or sequence
        NOWHERE,   ///< there is no entry at or behind the place that it names, perhaps by way of other jumps
        CIRCLE,    ///< it leads to nothing but jumps
    };

    JumpEntry entry;
    kind_e kind;

    /** "playlist 2, sequence 3: the jump \"...\" ...", and what the player would do. */
    std::string text() const;
};

/** How the player reads a jump's text. */
struct JumpReading {
    bool isSkipped = false;           ///< no letter of the type's name is in it: the entry is passed over
    std::optional<JumpTarget> target; ///< none if it is skipped or cut short
};

JumpReading readJump(const std::string& text);

/** The jumps among `entries`, all of the library in the order of playlist and sequence, that the player would not survive. */
std::vector<JumpTrap> findJumpTraps(const std::vector<JumpEntry>& entries);

/** The playlists that the player can come to from `playlistId` by jumps, itself included. */
std::vector<int> playlistsWithinReach(const std::vector<JumpEntry>& entries, int playlistId);
