#include "AudioPlayer.h"

using namespace audioLibrarySpace;

AudioPlayer::AudioPlayer()
{
    (void)nextServiceTime.setCurrentTime(); // always STREAM_OK
}

AudioPlayer::~AudioPlayer() = default;

streamStatus AudioPlayer::serviceAudioBlock(CAudioBlock* block)
{
    CServiceTime next;
    const streamStatus sstatus = block->service(next);
    if (sstatus != STREAM_OK) {
        return sstatus;
    }
    if (next < nextServiceTime) {
        nextServiceTime = next;
    }
    return STREAM_OK;
}
