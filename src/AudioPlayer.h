#pragma once

/**
 * AudioPlayer: the base of the objects that build the audio graph for one kind of source and keep it running.
 *
 * In: service calls from the audio manager's loop. Out: the player's status and the moment of its next service.
 * Threads: audio_manager only; no lock.
 */

#include "audioLibrary/audioPlay.h"
#include "audioLibrary/serviceTime.h"

class ByteArray;

/** State of a player, and the answer of the operations on players. */
enum player_status_e : int {
    PLAYER_NOT_INITIALIZED = 0, ///< nothing built, or nothing to service
    PLAYER_READY = 1,           ///< graph built, or stopped
    PLAYER_STARTED = 2,         ///< running and serviced
    PLAYER_OK = 3,              ///< a successful AudioService::stopPlayer(); never the state of a player
    PLAYER_ERROR = 4,           ///< failed; stays installed, is serviced no more
};
using PlayerStatus = player_status_e;

class AudioPlayer
{
public:
    /** The next service is due now. `status` is each derived constructor's to set. */
    AudioPlayer();
    virtual ~AudioPlayer();
    AudioPlayer(const AudioPlayer&) = delete;
    AudioPlayer& operator=(const AudioPlayer&) = delete;

    /** Puts the source on air; PLAYER_STARTED on success. */
    virtual PlayerStatus start() = 0;
    /** Takes the source off air; PLAYER_READY on success. */
    virtual PlayerStatus stop() = 0;
    /** Services every block once and works out when the next service is due. */
    virtual PlayerStatus serviceAudioBlocks() = 0;
    /** Writes the seven bytes of the status record: running (byte), the player's word (int), 0 (short). */
    virtual void writeStatus(ByteArray* ba) = 0;

    audioLibrarySpace::CServiceTime getNextServiceTime() const { return nextServiceTime; }
    PlayerStatus getStatus() const { return status; }
    bool isStarted() const { return status == PLAYER_STARTED; }
    /** Average rate of the source block in millihertz, whole hertz times 1000; 0 without a source block. */
    int getAvgSampleRate() const
    {
        audioLibrarySpace::CAudioPlay* block = getPlayerBlock();
        return block == nullptr ? 0 : block->getCalculatedAvgRate();
    }

protected:
    /** The source block on air, or null. Not owned by the caller. */
    virtual audioLibrarySpace::CAudioPlay* getPlayerBlock() const = 0;

    /**
     * Services `block` and brings the next service time forward if the block wants to run earlier.
     *
     * @param block  not null: every block that a player hands over exists
     * @return the block's answer; after a failure the next service time is as it was
     */
    audioLibrarySpace::streamStatus serviceAudioBlock(audioLibrarySpace::CAudioBlock* block);

    PlayerStatus status = PLAYER_NOT_INITIALIZED;
    audioLibrarySpace::CServiceTime nextServiceTime; ///< when the player next wants serviceAudioBlocks()
};
