/**
 * The base of all blocks and their registry; all of it runs on the thread that owns the players.
 */

#include "audioLibrary/audioBlock.h"

#include <algorithm>
#include <cstdio>
#include <utility>

namespace audioLibrarySpace
{

// Made before any object of ordinary static storage, and destroyed after it: a block may be one.
__attribute__((init_priority(101))) std::list<CAudioBlock*> CAudioBlock::allBlocks;

namespace
{

/** Columns of the block's name in the status. */
constexpr size_t NAME_COLUMNS = 32;

/** The first port that has no peer, or null. */
template <typename Port> Port* firstFreePort(const std::vector<Port*>& ports)
{
    for (Port* port : ports) {
        if (!port->isConnected(nullptr)) {
            return port;
        }
    }
    return nullptr;
}

/** Deletes the ports, last first; each has left the list when its destructor runs. */
template <typename Port> void deletePorts(std::vector<Port*>& ports)
{
    while (!ports.empty()) {
        Port* port = ports.back();
        ports.pop_back();
        delete port;
    }
}

} // namespace

CAudioBlock::CAudioBlock(std::string name) : pTraceLevel(&audioInterfaceTraceLevel), blockName(std::move(name))
{
    AUDIO_TRACE_CALL();
    allBlocks.push_back(this);
}

CAudioBlock::~CAudioBlock()
{
    AUDIO_TRACE_CALL();
    AUDIO_TRACE_PRINTF(0, "Removed %s from CAudioBlock::allBlocks\n", blockName.c_str());
    allBlocks.remove(this);
    deletePorts(upstream);
    deletePorts(downstream);
}

runTimeId CAudioBlock::getRunTimeId()
{
    AUDIO_TRACE_CALL();
    return INVALID_ID;
}

streamStatus CAudioBlock::init()
{
    AUDIO_TRACE_CALL();
    isInitialized = true;
    return STREAM_OK;
}

CDownstreamPort* CAudioBlock::getNextDownstreamPort()
{
    AUDIO_TRACE_CALL();
    return firstFreePort(downstream);
}

CUpstreamPort* CAudioBlock::getNextUpstreamPort()
{
    AUDIO_TRACE_CALL();
    return firstFreePort(upstream);
}

CUpstreamPort* CAudioBlock::getUpstreamPort(unsigned int index)
{
    AUDIO_TRACE_CALL();
    return index < upstream.size() ? upstream[index] : nullptr;
}

CDownstreamPort* CAudioBlock::getDownstreamPort(unsigned int index)
{
    AUDIO_TRACE_CALL();
    return index < downstream.size() ? downstream[index] : nullptr;
}

streamStatus CAudioBlock::reconfigBlockCheck(audioPortParam_t& paramsToCheck, audioPortParam_t newParams)
{
    AUDIO_TRACE_CALL();
    audioPortParam_t& own = paramsToCheck;
    bool allMet = mergeParam(own.nominalSampleRate, own.nominalSampleRateStatus, newParams.nominalSampleRate);
    allMet &= mergeParam(own.numChannels, own.numChannelsStatus, newParams.numChannels);
    allMet &= mergeParam(own.periodSize, own.periodSizeStatus, newParams.periodSize);
    allMet &= mergeParam(own.sampleFormat, own.sampleFormatStatus, newParams.sampleFormat);
    allMet &= mergeParam(own.samplesInterleaved, own.samplesInterleavedStatus, newParams.samplesInterleaved);
    allMet &= mergeParam(own.trueSampleRate, own.trueSampleRateStatus, newParams.trueSampleRate);
    return allMet ? STREAM_OK : STREAM_ERROR;
}

streamStatus CAudioBlock::reconfigBlockApply(audioPortParam_t newParams)
{
    AUDIO_TRACE_CALL();
    (void)newParams; // nothing of the base depends on them
    return STREAM_OK;
}

streamStatus CAudioBlock::service(CServiceTime& nextService)
{
    AUDIO_TRACE_CALL();
    nextService.setNeverService();
    return STREAM_OK;
}

std::string CAudioBlock::printBlockStatus()
{
    AUDIO_TRACE_CALL();
    std::string text = blockName;
    if (text.size() < NAME_COLUMNS) {
        text.resize(NAME_COLUMNS, ' ');
    }
    text += "Ports: ";
    text += upstream.empty() ? "           " : "upstream   ";
    text += downstream.empty() ? "           " : "downstream ";
    text += "\n";
    for (CDownstreamPort* port : downstream) {
        text += port->printPortStatus();
    }
    for (CUpstreamPort* port : upstream) {
        text += port->printPortStatus();
    }
    return text;
}

streamStatus CAudioBlock::initAllBlocks()
{
    AUDIO_TRACE_PUTS_TO(&audioInterfaceTraceLevel, 9, __PRETTY_FUNCTION__);
    for (CAudioBlock* block : allBlocks) {
        (void)block->init(); // a block that can fail is checked by its owner
    }
    return STREAM_OK;
}

void CAudioBlock::deleteAllBlocks()
{
    AUDIO_TRACE_PUTS_TO(&audioInterfaceTraceLevel, 9, __PRETTY_FUNCTION__);
    // The output block goes first: its thread reads from the others.
    for (CAudioBlock* block : allBlocks) {
        if (block->getRunTimeId() == ALSA_SOURCE) {
            delete block;
            break; // the destructor changed the list under this loop
        }
    }
    while (!allBlocks.empty()) {
        delete allBlocks.front();
    }
}

bool CAudioBlock::ownsPort(const CDownstreamPort* port)
{
    return std::any_of(allBlocks.begin(), allBlocks.end(), [port](const CAudioBlock* block) {
        return std::find(block->downstream.begin(), block->downstream.end(), port) != block->downstream.end();
    });
}

std::string CAudioBlock::printAllBlocks()
{
    AUDIO_TRACE_PUTS_TO(&audioInterfaceTraceLevel, 9, __PRETTY_FUNCTION__);
    std::string text;
    int index = 0;
    for (CAudioBlock* block : allBlocks) {
        char number[16];
        snprintf(number, sizeof number, "(%2d) ", index++);
        text += number + block->printBlockStatus();
    }
    return text;
}

CAudioBlock* CAudioBlock::returnAudioBlock(unsigned int n)
{
    AUDIO_TRACE_PUTS_TO(&audioInterfaceTraceLevel, 9, __PRETTY_FUNCTION__);
    if (n >= allBlocks.size()) {
        return nullptr;
    }
    return *std::next(allBlocks.begin(), static_cast<std::ptrdiff_t>(n));
}

} // namespace audioLibrarySpace
