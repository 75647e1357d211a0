#pragma once

/**
 * What the implementation files of the operating system abstraction share: the form of their reports, and the slots of
 * their tables. Nothing outside this folder includes it.
 *
 * Reports go to standard output. An error always prints; a trace line of level N prints when `*tl` is at least N, and
 * one of level 0 prints always.
 */

#include "audioLibrary/osAbstraction/osAbstraction.h"

#include <cstdio>

/** Reports an error of `function` whose message has its own line end, or none. Unfiltered. */
#define OSA_ERROR_PRINTF_OF(function, ...)                                                                             \
    do {                                                                                                               \
        printf("ERROR: %s()-%d:", (function), __LINE__);                                                               \
        printf(__VA_ARGS__);                                                                                           \
    } while (false)

/** Reports an error of `function` whose message gets its line end from puts. Unfiltered. */
#define OSA_ERROR_PUTS_OF(function, text)                                                                              \
    do {                                                                                                               \
        printf("ERROR: %s()-%d:", (function), __LINE__);                                                               \
        puts(text);                                                                                                    \
    } while (false)

// Within the operation itself:
#define OSA_ERROR_PRINTF(...) OSA_ERROR_PRINTF_OF(__FUNCTION__, __VA_ARGS__)
#define OSA_ERROR_PUTS(text) OSA_ERROR_PUTS_OF(__FUNCTION__, text)

/** A trace line in the format that follows, which has its own line end, or none. */
#define OSA_TRACE_PRINTF(level, ...)                                                                                   \
    do {                                                                                                               \
        if (osaTraceWanted(level)) {                                                                                   \
            printf("T%d: ", (level));                                                                                  \
            printf(__VA_ARGS__);                                                                                       \
        }                                                                                                              \
    } while (false)

/** A trace line with a text that gets its line end from puts. */
#define OSA_TRACE_PUTS(level, text)                                                                                    \
    do {                                                                                                               \
        if (osaTraceWanted(level)) {                                                                                   \
            printf("T%d: ", (level));                                                                                  \
            puts(text);                                                                                                \
        }                                                                                                              \
    } while (false)

/** Whether a trace line of `level` is to print. */
inline bool osaTraceWanted(unsigned int level)
{
    return *tl >= level;
}

/** Slots of one kind; also the index of an object that has no slot. */
constexpr unsigned int numSlots = 64;

/** The lowest free slot from `first` on, or numSlots if all are taken. */
template <typename Context> unsigned int lowestFreeSlot(Context* const (&table)[numSlots], unsigned int first = 0)
{
    unsigned int slot = first;
    while (slot < numSlots && table[slot] != nullptr) {
        slot++;
    }
    return slot;
}
