#pragma once

/**
 * CAudioChain: an ordered run of blocks, from the most upstream at position 0 to the last, that is connected, started,
 * stopped and muted as a unit. A block may stand in several chains; a chain owns its elements, not their blocks.
 *
 * Threads: only the one that owns the player; no lock.
 * Nothing derives from a chain, so that its destructor need not be virtual.
 */

#include "audioLibrary/audioBlock.h"

#include <deque>
#include <list>
#include <string>

namespace audioLibrarySpace
{

/** One position of a chain: a block and the ports that the last connectChain() chose on it. */
class CAudioChainElement
{
public:
    explicit CAudioChainElement(CAudioBlock* pBlock);

protected:
    friend class CAudioChain;
    int* pTraceLevel;
    CAudioBlock* block;                    ///< not owned
    CUpstreamPort* upstream = nullptr;     ///< feeds the next position; null until connected, stale after a disconnect
    CDownstreamPort* downstream = nullptr; ///< fed by the previous position; the same
};

class CAudioChain final
{
public:
    playbackState chainPlaybackState = AUDIO_STOPPED; ///< the last commanded state

    explicit CAudioChain(std::string chainName); ///< joins the registry
    ~CAudioChain();                              ///< leaves it; disconnects nothing, deletes no block
    CAudioChain(const CAudioChain&) = delete;
    CAudioChain& operator=(const CAudioChain&) = delete;
    virtual runTimeId getRunTimeId(); ///< AUDIO_CHAIN

    /** Puts `pBlock` in before `pos` (at the back for a negative one). Refused while connected or beyond the size. */
    streamStatus addAudioBlock(CAudioBlock* pBlock, int pos);
    /** Takes position `pos` out and returns its block, not deleted; null while connected or out of range. */
    CAudioBlock* remAudioBlock(int pos);
    CAudioBlock* getAudioBlock(int pos); ///< null when out of range
    /**
     * Joins neighbours by the next free ports that their blocks offer. A failure leaves the pairs joined so far as
     * they are. A chain of one block answers STREAM_OK and stays unconnected; an empty one counts as connected.
     */
    streamStatus connectChain();
    streamStatus disconnectChain(); ///< always STREAM_OK
    streamStatus startAudio();      ///< each joined port, in the direction of the audio; STREAM_ERROR if unconnected
    streamStatus stopAudio();       ///< the same, to AUDIO_STOPPED
    streamStatus pauseAudio();      ///< the same, to AUDIO_PAUSED; the ports are then stopped ones
    streamStatus muteAudio();       ///< the same, to AUDIO_MUTED
    std::string getPlaybackState(); ///< the status text of the state, without a line end
    unsigned int numAudioBlocks() const { return static_cast<unsigned int>(chain.size()); }
    bool isChainConnected() const { return chainConnected; }
    std::string printChainStatus(); ///< the chain on one line, then a line for each block

    static void deleteAllChains();                        ///< from the front; deletes no block
    static std::string printAllChains();                  ///< "(%2d) " and the status of each
    static CAudioChain* returnAudioChain(unsigned int n); ///< the n-th from 0, or null

protected:
    bool chainConnected = false; ///< between a successful connectChain() and disconnectChain()
    std::string name;
    std::deque<CAudioChainElement*> chain; ///< front first; owned. A deque: the commonest edit is at the head
    int* pTraceLevel;

    static std::list<CAudioChain*> allChains; ///< in order of construction

private:
    streamStatus connectPair(CAudioChainElement& cur, CAudioChainElement& next);
    streamStatus setState(playbackState state, streamStatus (CAudioPort::*operation)());
};

} // namespace audioLibrarySpace
