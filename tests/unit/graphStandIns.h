#pragma once

/**
 * Chains, mixer, playback block and rate converter that build nothing: they write down what is done to them and answer
 * what the test wants. A player's test that lists graphStandIns.cpp among its SOURCES gets these in place of the audio
 * library's, and a usleep() that takes no time; it defines its player's sources itself.
 */

#include "audioLibrary/audioBlock.h"

#include <deque>
#include <map>
#include <string>
#include <vector>

namespace graphStandIns
{

struct Script {
    std::vector<std::string> events;
    std::map<std::string, std::deque<audioLibrarySpace::streamStatus>> answers; ///< by event; else STREAM_OK
    std::map<std::string, int32_t> timeLeft;                                    ///< of a file by name; else a minute
    std::map<std::string, audioLibrarySpace::CServiceTime> wishes;              ///< of a block by name; else never
    bool unmounted = false; ///< the marker file of the store is readable
};
extern Script script;

/** Writes `event` down. */
void happened(const std::string& event);
/** Writes `event` down and answers what the test has for it. */
audioLibrarySpace::streamStatus answerTo(const std::string& event);
/** The service of the block of that name. */
audioLibrarySpace::streamStatus serviceOf(const std::string& name, audioLibrarySpace::CServiceTime& next);

} // namespace graphStandIns
