/**
 * The faults a run asks for in one line of text, words separated by blanks or commas:
 *
 *   STEP[+SKIP][*COUNT][=ERROR]   a call is refused: the first SKIP calls pass, then COUNT are refused ("*" alone:
 *                                 all of them; nothing: one). STEP: open hwParams swParams prepare start transfer
 *   EVENT@FRAMES                  happens when that many frames have passed since the open.
 *                                 EVENT: xrun gone suspend stall resume transfer
 *
 *   "open*3=EBUSY gone@24000"     three opens find the card busy; half a second into the fourth it is unplugged
 */
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vcard
{

/** Calls that can be refused, in the order of the control page's slots. */
enum class Step { open, hwParams, swParams, prepare, start, transfer };
constexpr unsigned numSteps = 6;

enum class Event { xrun, gone, suspend, stall, resume, transfer };

/** A call to refuse. */
struct CallFault {
    Step step;
    int32_t skip;      ///< calls that pass first
    int32_t remaining; ///< calls refused then; -1: all
    int32_t error;     ///< positive errno
};

/** Something that happens at a frame of the card's clock, counted since the open. */
struct TimedFault {
    Event event;
    uint64_t frames;
};

struct FaultScript {
    std::vector<CallFault> calls;
    std::vector<TimedFault> events; ///< in the order of their frames
};

/** Reads @p text into @p script. @return false, script unchanged, if a word can't be understood (then in @p badWord) */
bool parseFaults(const std::string& text, FaultScript& script, std::string& badWord);

/** errno of a name such as "EBUSY", or of a number; 0 if there is none. */
int32_t errorNumber(const std::string& name);

} // namespace vcard
