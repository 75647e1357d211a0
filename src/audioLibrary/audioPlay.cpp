/**
 * The bases of the sources; all of it runs on the thread that owns the player.
 */

#include "audioLibrary/audioPlay.h"

#include <utility>

namespace audioLibrarySpace
{

CAudioPlay::CAudioPlay(std::string name) : CAudioBlock(std::move(name))
{
    AUDIO_TRACE_CALL();
}

CAudioPlay::~CAudioPlay()
{
    AUDIO_TRACE_CALL();
}

runTimeId CAudioPlay::getRunTimeId()
{
    AUDIO_TRACE_CALL();
    return INVALID_ID;
}

int32_t CAudioPlay::timeLeft()
{
    AUDIO_TRACE_CALL();
    return -1;
}

int CAudioPlay::getCalculatedAvgRate()
{
    AUDIO_TRACE_CALL();
    if (upstream.empty() || upstream.front() == nullptr) {
        return 0;
    }
    // Cut first: whole hertz, told in millihertz. A rate gone wild after a stall wraps and does no more harm.
    const int32_t hertz = saturatingToInt(upstream.front()->avgRate);
    return static_cast<int32_t>(static_cast<uint32_t>(hertz) * 1000U);
}

CAudioFilePlay::CAudioFilePlay(std::string name) : CAudioPlay(std::move(name))
{
    AUDIO_TRACE_CALL();
}

CAudioFilePlay::~CAudioFilePlay()
{
    AUDIO_TRACE_CALL();
}

runTimeId CAudioFilePlay::getRunTimeId()
{
    AUDIO_TRACE_CALL();
    return INVALID_ID;
}

streamStatus CAudioFilePlay::setNewFile(std::string name)
{
    AUDIO_TRACE_CALL();
    (void)name; // only a concrete source can open it
    return STREAM_ERROR;
}

CAudioStreamPlay::CAudioStreamPlay(std::string name) : CAudioPlay(std::move(name))
{
    AUDIO_TRACE_CALL();
}

CAudioStreamPlay::~CAudioStreamPlay()
{
    AUDIO_TRACE_CALL();
}

runTimeId CAudioStreamPlay::getRunTimeId()
{
    AUDIO_TRACE_CALL();
    return INVALID_ID;
}

streamStatus CAudioStreamPlay::setNewTopUrl(std::string url)
{
    AUDIO_TRACE_CALL();
    (void)url; // only a concrete source can play it
    return STREAM_ERROR;
}

} // namespace audioLibrarySpace
