#pragma once

/**
 * FilePlayer: plays one playlist of WAV and MP3 files without a gap, for ever, following jumps between playlists.
 *
 *   active chain    playerBlock1 -> rateConverter1 --\
 *                                                     mixerBlock -> alsaSource     (source chain)
 *   standby chain   playerBlock2 -> rateConverter2 --/
 *
 * The file on air plays through the active chain. At its end the next file goes to the head of the standby chain and
 * the two chains change roles. All blocks but the two heads are built once.
 *
 * Threads: audio_manager only; no lock. alsaSource pulls the mixer from a thread of its own.
 * Ownership: the graph is released through the registries of chains and blocks, so the player must be the only owner of
 * blocks in the process.
 */

#include "AudioPlayer.h"
#include "PlaylistItem.h"

#include "audioLibrary/audioChain.h"
#include "audioLibrary/audioPlay.h"

class FilePlayer : public AudioPlayer
{
public:
    /**
     * Builds and connects the graph for playlist `playlist_id`: PLAYER_READY. A playlist without items, or a USB store
     * that is not mounted, leaves PLAYER_NOT_INITIALIZED; a graph that can't be built, PLAYER_ERROR; neither has blocks.
     */
    explicit FilePlayer(int playlist_id);
    /** Deletes all chains, then all blocks. */
    ~FilePlayer() override;

    /** Puts the first playable entry on air. The half-second sleeps for unplayable entries hold up the caller. */
    PlayerStatus start() override;
    /** Stops the active chain; the source chain runs on until the blocks go. */
    PlayerStatus stop() override;
    /** Services the blocks in their order; at the end of the file on air the chains change roles. */
    PlayerStatus serviceAudioBlocks() override;
    /** The status record; its 32-bit word is always 0. */
    void writeStatus(ByteArray* ba) override;

protected:
    /** The head of the active chain, or null. */
    audioLibrarySpace::CAudioPlay* getPlayerBlock() const override;

private:
    struct playlistWalk; ///< what one search for the next playable entry carries from turn to turn

    audioLibrarySpace::streamStatus createAudioBlocks();
    audioLibrarySpace::streamStatus createChains();
    audioLibrarySpace::streamStatus createSourceChain();
    audioLibrarySpace::streamStatus createActiveChain();
    audioLibrarySpace::streamStatus createStandbyChain();
    /** Walks the playlist until an entry's player is connected to `chain`; a failure when no entry can be played. */
    audioLibrarySpace::streamStatus connectNextPlayer(audioLibrarySpace::CAudioChain* chain);
    /** Replaces the head of `chain` by `player`. If that fails the old head goes back, which counts as success. */
    audioLibrarySpace::streamStatus connectPlayer(audioLibrarySpace::CAudioChain* chain,
                                                  audioLibrarySpace::CAudioBlock* player);
    /** A block that plays the entry, owned by the caller; null for an entry that can't be played. */
    audioLibrarySpace::CAudioBlock* createPlayer(PlaylistItem& playlist_item);
    audioLibrarySpace::CAudioPlay* createWavFilePlayer(PlaylistItem& playlist_item);
    audioLibrarySpace::CAudioPlay* createMp3FilePlayer(PlaylistItem& playlist_item);
    /** Changes roles at the end of the file; fills a standby chain that is not connected shortly before it. */
    void checkTimeRemaining(audioLibrarySpace::CAudioPlay* player);

    void changeRoles();
    void playEntry(playlistWalk& walk, audioLibrarySpace::CAudioChain* chain);
    void followJump(playlistWalk& walk);
    void writeMissingItem(PlaylistItem& playlist_item);
    void deleteChains(); ///< all chains of the process; the pointers to them become null
    void deleteBlocks(); ///< all blocks of the process; the pointers to them become null

    int currentIndex = 0;                                     ///< entries consumed in this pass of the playlist
    int currentSequence = 0;                                  ///< the next lookup takes the lowest sequence above this
    int currentPlaylistID = 0;                                ///< the playlist being walked; a jump changes it
    audioLibrarySpace::CAudioPlay* playerBlock1 = nullptr;    ///< head of the active chain
    audioLibrarySpace::CAudioPlay* playerBlock2 = nullptr;    ///< head of the standby chain
    audioLibrarySpace::CAudioBlock* rateConverter1 = nullptr; ///< of the chain that was built as the active one
    audioLibrarySpace::CAudioBlock* rateConverter2 = nullptr; ///< of the chain that was built as the standby one
    audioLibrarySpace::CAudioBlock* mixerBlock = nullptr;     ///< the one mixer
    audioLibrarySpace::CAudioBlock* alsaSource = nullptr;     ///< the playback block
    audioLibrarySpace::CAudioChain* sourceChain = nullptr;    ///< mixer to playback
    audioLibrarySpace::CAudioChain* activeChain = nullptr;    ///< the chain on air
    audioLibrarySpace::CAudioChain* standbyChain = nullptr;   ///< the chain waiting
};
