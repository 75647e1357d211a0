/** The daemon's console commands: lines in; the player, the graph and standard output out. */

#include "console/consoleCommands.h"

#include "AudioService.h"
#include "audioLibrary/alsaSource.h"
#include "audioLibrary/audioBlock.h"
#include "audioLibrary/audioChain.h"
#include "audioLibrary/audioTrace.h"
#include "audioLibrary/mixerBlock.h"
#include "globals.h"

#include <algorithm>
#include <atomic>
#include <cinttypes>
#include <cstdint>
#include <cstdio>

using namespace audioLibrarySpace;

namespace
{

/** What "%d" makes of a number where `long` is 32 bits wide, from a scan in 64: the nearest that fits. */
int int32(int64_t scanned)
{
    return static_cast<int>(std::clamp<int64_t>(scanned, INT32_MIN, INT32_MAX));
}

/** The block with that number, or null; a negative number is beyond every list. */
CAudioBlock* blockOf(int64_t scanned)
{
    return CAudioBlock::returnAudioBlock(static_cast<unsigned int>(int32(scanned)));
}

/** A list's or a block's status text, which has its own line ends, below the rule that sets it off. */
void printBelowRule(const std::string& status)
{
    puts("--------------------");
    fputs(status.c_str(), stdout);
}

/** A block that is not there is not survived: the command trusts its user. */
void printBlock(CAudioBlock* block)
{
    printf("Printing Block: %s\n", block->name().c_str());
    printBelowRule(block->printBlockStatus());
}

} // namespace

void cmdPrintAllBlocks(const void*, const char* a)
{
    int64_t number = 0;
    if (sscanf(a, "blocks %" SCNd64, &number) == 1) {
        printBlock(blockOf(number));
        return;
    }
    puts("Created Audio Blocks");
    printBelowRule(CAudioBlock::printAllBlocks());
}

void cmdPrintAllChains(const void*, const char*)
{
    puts("Created Audio Chains");
    printBelowRule(CAudioChain::printAllChains());
}

void cmdStart(const void*, const char* a)
{
    int64_t number = 0;
    if (sscanf(a, "start %" SCNd64, &number) != 1) {
        return;
    }
    printf("Starting play list #%d\n", int32(number));
    (void)audioService->startPlayer(int32(number)); // the service has logged what went wrong
}

void cmdStop(const void*, const char*)
{
    puts("Stopping play list");
    (void)audioService->stopPlayer(); // no player is no failure here
}

void cmdConnect(const void*, const char* a)
{
    int64_t usn = 0;
    int64_t dsn = 0;
    if (sscanf(a, "connect %" SCNd64 " %" SCNd64, &usn, &dsn) != 2) {
        return;
    }
    CAudioBlock* us = blockOf(usn);
    CAudioBlock* ds = blockOf(dsn);
    if (us == nullptr || ds == nullptr) {
        puts("Invalid audio block identified");
        return;
    }
    CUpstreamPort* usp = us->getUpstreamPort(0);
    CDownstreamPort* dsp = ds->getNextDownstreamPort();
    if (usp == nullptr || dsp == nullptr) {
        puts("Invalid port combinations");
        return;
    }
    puts(usp->connectDownstream(dsp, nullptr) == STREAM_OK ? "Connection established."
                                                           : "ERROR establishing connection");
}

void cmdGraphFIFO(const void*, const char* a)
{
    int64_t number = 0;
    if (sscanf(a, "graph %" SCNd64, &number) != 1) {
        puts("Incorrect usage, setMixerRate [blockNum] [newRate]"); // sic
        return;
    }
    CAudioBlock* block = blockOf(number);
    if (block == nullptr) {
        puts("Block not found");
        return;
    }
    switch (block->getRunTimeId()) {
    case MIXER_FIFO:
        puts("-----------MIXER GRAPH----------");
        static_cast<CMixer*>(block)->graphBuffer();
        break;
    case ALSA_SOURCE:
        puts("-----------ALSA GRAPH----------");
        static_cast<CALSASource*>(block)->graphBuffer();
        break;
    default:
        puts("ERROR, block is not of type CMixer or ALSASource");
        break;
    }
}

void cmdSetTracelevel(const void*, const char* a)
{
    int64_t number = 0;
    if (sscanf(a, "tl %" SCNd64, &number) != 1) {
        puts("Invalid arguments");
        return;
    }
    // Every thread of the library reads it.
    std::atomic_ref<int>(audioInterfaceTraceLevel).store(int32(number), std::memory_order_relaxed);
}

void listStreams() {}
