/**
 * Chains of blocks and their registry; all of it runs on the thread that owns the player.
 */

#include "audioLibrary/audioChain.h"

#include <cstdio>
#include <utility>

namespace audioLibrarySpace
{

// Made before any object of ordinary static storage, and destroyed after it: a chain may be one.
__attribute__((init_priority(101))) std::list<CAudioChain*> CAudioChain::allChains;

CAudioChainElement::CAudioChainElement(CAudioBlock* pBlock) : pTraceLevel(&audioInterfaceTraceLevel), block(pBlock)
{
    AUDIO_TRACE_CALL();
}

CAudioChain::CAudioChain(std::string chainName) : name(std::move(chainName)), pTraceLevel(&audioInterfaceTraceLevel)
{
    AUDIO_TRACE_CALL();
    allChains.push_back(this);
}

CAudioChain::~CAudioChain()
{
    AUDIO_TRACE_CALL();
    while (!chain.empty()) {
        CAudioChainElement* element = chain.front();
        chain.pop_front();
        delete element;
    }
    AUDIO_TRACE_PRINTF(0, "Removed %s from CAudioChain::allChains\n", name.c_str());
    allChains.remove(this);
}

runTimeId CAudioChain::getRunTimeId()
{
    AUDIO_TRACE_CALL();
    return AUDIO_CHAIN;
}

streamStatus CAudioChain::addAudioBlock(CAudioBlock* pBlock, int pos)
{
    AUDIO_TRACE_CALL();
    if (chainConnected || pBlock == nullptr) {
        return STREAM_ERROR;
    }
    const size_t position = pos < 0 ? chain.size() : static_cast<size_t>(pos);
    if (position > chain.size()) {
        return STREAM_ERROR;
    }
    chain.insert(chain.begin() + static_cast<std::ptrdiff_t>(position), new CAudioChainElement(pBlock));
    return STREAM_OK;
}

CAudioBlock* CAudioChain::remAudioBlock(int pos)
{
    AUDIO_TRACE_CALL();
    // A position equal to the size names no element: it is refused like those above it.
    if (chainConnected || pos < 0 || static_cast<size_t>(pos) >= chain.size()) {
        return nullptr;
    }
    const auto position = chain.begin() + pos;
    CAudioChainElement* element = *position;
    chain.erase(position);
    CAudioBlock* block = element->block;
    delete element;
    return block;
}

CAudioBlock* CAudioChain::getAudioBlock(int pos)
{
    AUDIO_TRACE_CALL();
    if (pos < 0 || static_cast<size_t>(pos) >= chain.size()) {
        return nullptr;
    }
    return chain[static_cast<size_t>(pos)]->block;
}

streamStatus CAudioChain::connectChain()
{
    AUDIO_TRACE_CALL();
    if (chainConnected) {
        return STREAM_ERROR;
    }
    if (chain.size() == 1) {
        return STREAM_OK; // nothing to join, so it doesn't count as connected
    }
    for (size_t i = 1; i < chain.size(); i++) {
        const streamStatus status = connectPair(*chain[i - 1], *chain[i]);
        if (status != STREAM_OK) {
            // Without effect, as the chain isn't connected yet: the pairs joined so far stay joined.
            (void)disconnectChain();
            return status;
        }
    }
    chainConnected = true;
    return STREAM_OK;
}

streamStatus CAudioChain::connectPair(CAudioChainElement& cur, CAudioChainElement& next)
{
    cur.upstream = cur.block->getNextUpstreamPort();
    if (cur.upstream == nullptr) {
        AUDIO_TRACE_PRINTF(1, "%s did not provide an upstream port.", cur.block->name().c_str()); // sic: no line end
        return CHAIN_ERROR_NO_PORT_AVAILABLE;
    }
    next.downstream = next.block->getNextDownstreamPort();
    if (next.downstream == nullptr) {
        AUDIO_TRACE_PRINTF(1, "%s did not provide a downstream port.", next.block->name().c_str()); // sic: no line end
        return CHAIN_ERROR_NO_PORT_AVAILABLE;
    }
    const streamStatus status = cur.upstream->connectDownstream(next.downstream, nullptr);
    if (status != STREAM_OK) {
        return status;
    }
    AUDIO_TRACE_PRINTF(1, "Successfully connected (%s)->(%s).\n", cur.block->name().c_str(),
                       next.block->name().c_str());
    return STREAM_OK;
}

streamStatus CAudioChain::disconnectChain()
{
    AUDIO_TRACE_CALL();
    if (!chainConnected) {
        return STREAM_OK;
    }
    // One disconnect takes down both ends of a pair; the second visit finds the pair gone and passes by.
    for (CAudioChainElement* element : chain) {
        if (element->upstream != nullptr && element->upstream->isConnected(nullptr)) {
            (void)element->upstream->disconnect();
        }
        if (element->downstream != nullptr && element->downstream->isConnected(nullptr)) {
            (void)element->downstream->disconnect();
        }
    }
    chainConnected = false;
    return STREAM_OK;
}

streamStatus CAudioChain::startAudio()
{
    AUDIO_TRACE_CALL();
    return setState(AUDIO_PLAYING, &CAudioPort::startAudio);
}

streamStatus CAudioChain::stopAudio()
{
    AUDIO_TRACE_CALL();
    return setState(AUDIO_STOPPED, &CAudioPort::stopAudio);
}

streamStatus CAudioChain::pauseAudio()
{
    AUDIO_TRACE_CALL();
    return setState(AUDIO_PAUSED, &CAudioPort::pauseAudio);
}

streamStatus CAudioChain::muteAudio()
{
    AUDIO_TRACE_CALL();
    return setState(AUDIO_MUTED, &CAudioPort::muteAudio);
}

streamStatus CAudioChain::setState(playbackState state, streamStatus (CAudioPort::*operation)())
{
    if (!chainConnected) {
        return STREAM_ERROR;
    }
    chainPlaybackState = state;
    streamStatus status = STREAM_OK;
    const auto apply = [&status, operation](CAudioPort* port) {
        if (port != nullptr && port->isConnected(nullptr) && (port->*operation)() != STREAM_OK) {
            status = STREAM_ERROR; // and on: the other ports follow all the same
        }
    };
    for (CAudioChainElement* element : chain) {
        apply(element->upstream);
        apply(element->downstream);
    }
    return status;
}

std::string CAudioChain::getPlaybackState()
{
    AUDIO_TRACE_CALL();
    // Not the texts of the ports: no line end, and a pause has a word.
    switch (chainPlaybackState) {
    case AUDIO_PLAYING:
        return "Playing";
    case AUDIO_STOPPED:
        return "Stopped";
    case AUDIO_PAUSED:
        return "Paused";
    case AUDIO_MUTED:
        return "Muted";
    }
    return "UNKOWN"; // sic
}

std::string CAudioChain::printChainStatus()
{
    AUDIO_TRACE_CALL();
    std::string text = "Audio chain " + name + (chainConnected ? " is connected (" : " is disconnected (");
    text += toString(numAudioBlocks()) + " audio blocks): " + getPlaybackState() + "\n";
    int position = 0;
    for (CAudioChainElement* element : chain) {
        text += " (" + toString(position++) + ") " + element->block->name() + "\n";
    }
    return text;
}

void CAudioChain::deleteAllChains()
{
    AUDIO_TRACE_PUTS_TO(&audioInterfaceTraceLevel, 9, __PRETTY_FUNCTION__);
    while (!allChains.empty()) {
        delete allChains.front();
    }
}

std::string CAudioChain::printAllChains()
{
    AUDIO_TRACE_PUTS_TO(&audioInterfaceTraceLevel, 9, __PRETTY_FUNCTION__);
    std::string text;
    int index = 0;
    for (CAudioChain* audioChain : allChains) {
        char number[16];
        snprintf(number, sizeof number, "(%2d) ", index++);
        text += number + audioChain->printChainStatus();
    }
    return text;
}

CAudioChain* CAudioChain::returnAudioChain(unsigned int n)
{
    AUDIO_TRACE_PUTS_TO(&audioInterfaceTraceLevel, 9, __PRETTY_FUNCTION__);
    if (n >= allChains.size()) {
        return nullptr;
    }
    return *std::next(allChains.begin(), static_cast<std::ptrdiff_t>(n));
}

} // namespace audioLibrarySpace
