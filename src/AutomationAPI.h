#pragma once

/**
 * Studio automation's hand on the player, polled by the audio manager loop.
 *
 * Nothing listens yet: no socket is opened and nothing is sent. Thread: audio manager. No lock.
 */

class AudioDatabase;
class PlaylistItem;

class AutomationAPI
{
public:
    /** @param database  not owned */
    explicit AutomationAPI(AudioDatabase* database);
    AutomationAPI(const AutomationAPI&) = delete;
    AutomationAPI& operator=(const AutomationAPI&) = delete;

    /** Called once at the head of the audio manager's thread. Answers 0. */
    int init();

    /** One polling step, called on each pass of the audio manager's loop. Answers 0. */
    int service();

    /** Called each time an item has been connected. `pli` is not owned and not kept. */
    void sendPlayingNowTransaction(PlaylistItem* pli);

private:
    [[maybe_unused]] AudioDatabase* db; ///< not owned
};
