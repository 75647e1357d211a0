#pragma once

/**
 * AudioService: owner of the one current player, and the audio manager's window on it.
 *
 * In: ids of audio sources from datagrams, the console and automation. Out: the player's status and next service time.
 * Threads: audio_manager only; no lock. Exactly one exists, in the global `audioService`.
 */

#include "AudioPlayer.h"

class AudioDatabase;
class ByteArray;
struct sqlite3_stmt;

class AudioService
{
public:
    /** Opens the audio database: the global `audio_database` must be set. No player. */
    AudioService();
    /** Deletes the player, then closes the database. Never runs in the process's normal course. */
    virtual ~AudioService();
    AudioService(const AudioService&) = delete;
    AudioService& operator=(const AudioService&) = delete;

    /**
     * Replaces the current player by one for the row `id` of T_Audio_Sources and starts it.
     *
     * The current player goes first, so a bad id leaves silence.
     * @return the player's status for a playlist; PLAYER_ERROR for everything that has to do with a stream, a started
     *         one included: whether a stream runs is told by getStatus()
     */
    PlayerStatus startPlayer(int id);
    /** Stops and deletes the player: PLAYER_OK; PLAYER_ERROR if there is none. */
    PlayerStatus stopPlayer();
    /** Services a started player and answers its status; PLAYER_NOT_INITIALIZED in every other case. */
    PlayerStatus servicePlayer();
    /** The player's next service time; without a player half a second from now, taken afresh at each call. */
    audioLibrarySpace::CServiceTime getNextServiceTime() const;
    /** The player's status; PLAYER_ERROR without one. */
    PlayerStatus getStatus() const;
    /** The player's average rate in millihertz; 0 without one. */
    int getAvgSampleRate() const;
    /** Writes the player's status record to `ba` (not null), or the empty record without a player. */
    void writePlayerStatus(ByteArray* ba);

private:
    /** Stops and deletes the player, out of everyone's reach first. */
    void deletePlayer();
    /** Installs a player for playlist `playlistId` and starts it; a player that does not start is deleted. */
    PlayerStatus startPlaylist(int playlistId);
    /** Installs and starts a player for row `streamRowId` of T_Streams; `id` is the audio source it was asked by. */
    void startStream(int id, int streamRowId);
    /** Installs and starts the player that the current row of the T_Streams query asks for, if it asks for any. */
    void startStreamOfRow(sqlite3_stmt* row);
    /** Takes over `streamPlayer` and starts it if it is ready; one that is not ready stays installed, unstarted. */
    void installStreamPlayer(AudioPlayer* streamPlayer);

    AudioPlayer* player = nullptr; ///< the current player, owned, deleted by deletePlayer(); null when there is none
};

/** The one gateway to the database file: the global `audio_database`. */
AudioDatabase* getAudioDatabase();
