#pragma once

/**
 * Players of streams: one source without an end, one input chain, no alternation.
 *
 *   player chain    playerBlock -> rateConverter -> mixerBlock -> alsaSource    source chain
 *
 * StreamPlayer builds what all streams share; LivewirePlayer puts the capture of a Livewire destination at the head,
 * ShoutcastPlayer an internet stream. Losing a stream that was up, and finding it again, is the source block's
 * business; a block whose service fails ends the player in PLAYER_ERROR.
 *
 * Threads: audio_manager only; no lock. alsaSource pulls the mixer from a thread of its own.
 * Ownership: the graph is released through the registries of chains and blocks, so the player must be the only owner of
 * blocks in the process.
 */

#include "AudioPlayer.h"

#include "audioLibrary/audioChain.h"
#include "audioLibrary/audioPlay.h"
#include "audioLibrary/mixerBlock.h"
#include "audioLibrary/sampleRateConverter.h"

#include <string>

class StreamPlayer : public AudioPlayer
{
public:
    /** Builds nothing: that is the derived constructors' to do, with buildGraph(). `aStreamId`: row in T_Streams. */
    explicit StreamPlayer(int aStreamId);
    /** Deletes all chains, then all blocks. */
    ~StreamPlayer() override;

    /**
     * Starts the source chain, then the player chain. The latter decides: a source chain that does not start is not
     * told by the answer. PLAYER_ERROR without both chains, the status then stays.
     */
    PlayerStatus start() override;
    /** Stops the player chain; the source chain runs on until the blocks go. PLAYER_ERROR without a player chain. */
    PlayerStatus stop() override;
    /** Services the blocks in their order. The time left is not looked at: a stream player never moves on. */
    PlayerStatus serviceAudioBlocks() override;
    /** The status record; its 32-bit word is the stream's id while it runs, else 0. */
    void writeStatus(ByteArray* ba) override;

protected:
    /** The source block, or null. */
    audioLibrarySpace::CAudioPlay* getPlayerBlock() const override;

    /** Makes and initializes mixer, playback block and converter; a failure ends the sequence. */
    virtual audioLibrarySpace::streamStatus createAudioBlocks();
    /**
     * Builds the player chain of converter and mixer, unconnected; the derived class puts its source at the head and
     * connects it. A failure deletes all chains.
     */
    virtual audioLibrarySpace::streamStatus createPlayerChain();

    /** Builds and connects the source chain. After a failure it stays as far as it got. */
    audioLibrarySpace::streamStatus createSourceChain();
    /** The source chain, then the player chain of the derived class. */
    audioLibrarySpace::streamStatus createChains();
    /**
     * Puts the source block at the head of the player chain and connects the chain. The step that fails is logged and
     * its status answered; the chain stays as far as it got.
     */
    audioLibrarySpace::streamStatus connectPlayerBlock();
    /**
     * The common course of the derived constructors, which are the only callers: PLAYER_READY; PLAYER_NOT_INITIALIZED
     * without blocks; PLAYER_ERROR when a chain or the source could not be had. Neither of these two has blocks.
     */
    void buildGraph();

    int streamId;                                                     ///< row id in T_Streams
    audioLibrarySpace::CAudioBlock* alsaSource = nullptr;             ///< the playback block
    audioLibrarySpace::CMixer* mixerBlock = nullptr;                  ///< the mixer
    audioLibrarySpace::CSampleRateConverter* rateConverter = nullptr; ///< between source and mixer
    audioLibrarySpace::CAudioPlay* playerBlock = nullptr;             ///< the source; made by the derived class
    audioLibrarySpace::CAudioChain* sourceChain = nullptr;            ///< mixer to playback
    audioLibrarySpace::CAudioChain* playerChain = nullptr;            ///< source, converter, mixer

private:
    void deleteChains(); ///< all chains of the process; the pointers to them become null
    void deleteBlocks(); ///< all blocks of the process; the pointers to them become null
    void emptyChains();  ///< leaves chains without blocks, for those are about to go
};

/** Plays what a Livewire destination receives. */
class LivewirePlayer : public StreamPlayer
{
public:
    /** Builds the graph on the capture device of destination `aDst`, counted from 1. */
    LivewirePlayer(int aStreamId, int aDst);
    ~LivewirePlayer() override;

protected:
    audioLibrarySpace::streamStatus createAudioBlocks() override;
    audioLibrarySpace::streamStatus createPlayerChain() override;
    /** Opens the capture device. One that can't be had is no failure: it leaves a source that delivers nothing. */
    audioLibrarySpace::streamStatus createPlayerBlock();

    int dst; ///< the Livewire destination number, from 1
};

/** Plays an internet stream. */
class ShoutcastPlayer : public StreamPlayer
{
public:
    /**
     * Builds the graph for the stream at `aUri` (not null; copied) and waits for the stream to come up: up to 100
     * seconds, in which the caller's thread does nothing else.
     */
    ShoutcastPlayer(int aStreamId, const char* aUri);
    ~ShoutcastPlayer() override;

protected:
    audioLibrarySpace::streamStatus createAudioBlocks() override;
    audioLibrarySpace::streamStatus createPlayerChain() override;
    /**
     * Makes the source and services it by hand, for nothing else does yet, until the stream is ready. Only then has
     * its port a format, and can be connected.
     *
     * @return the source's own failure; STREAM_ERROR when the stream has not come up in the time
     */
    audioLibrarySpace::streamStatus createPlayerBlock();

    std::string uri; ///< where the stream is looked for first
};
