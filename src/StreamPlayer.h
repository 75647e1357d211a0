#pragma once

/**
 * Players of streams: one source without an end and one input chain, a Livewire capture or an internet stream.
 *
 * Threads: audio_manager only; no lock.
 */

#include "AudioPlayer.h"

class StreamPlayer : public AudioPlayer
{
public:
    explicit StreamPlayer(int aStreamId); ///< `aStreamId` is the row in T_Streams
    ~StreamPlayer() override;

    PlayerStatus start() override;
    PlayerStatus stop() override;
    PlayerStatus serviceAudioBlocks() override;
    void writeStatus(ByteArray* ba) override;

protected:
    audioLibrarySpace::CAudioPlay* getPlayerBlock() const override;

    int streamId; ///< row id in T_Streams
};

class LivewirePlayer : public StreamPlayer
{
public:
    LivewirePlayer(int aStreamId, int aDst); ///< `aDst` is the Livewire destination number
    ~LivewirePlayer() override;
};

class ShoutcastPlayer : public StreamPlayer
{
public:
    ShoutcastPlayer(int aStreamId, const char* aUri); ///< `aUri` is copied
    ~ShoutcastPlayer() override;
};
