#include "StreamPlayer.h"

StreamPlayer::StreamPlayer(int aStreamId) : streamId(aStreamId) {}

StreamPlayer::~StreamPlayer() = default;

PlayerStatus StreamPlayer::start()
{
    return status;
}

PlayerStatus StreamPlayer::stop()
{
    return status;
}

PlayerStatus StreamPlayer::serviceAudioBlocks()
{
    return status;
}

void StreamPlayer::writeStatus(ByteArray* /*ba*/) {}

audioLibrarySpace::CAudioPlay* StreamPlayer::getPlayerBlock() const
{
    return nullptr;
}

LivewirePlayer::LivewirePlayer(int aStreamId, int /*aDst*/) : StreamPlayer(aStreamId) {}

LivewirePlayer::~LivewirePlayer() = default;

ShoutcastPlayer::ShoutcastPlayer(int aStreamId, const char* /*aUri*/) : StreamPlayer(aStreamId) {}

ShoutcastPlayer::~ShoutcastPlayer() = default;
