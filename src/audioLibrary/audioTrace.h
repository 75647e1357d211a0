#pragma once

/**
 * Trace lines of the audio library, on standard output.
 *
 * A line of level N prints when the level that the object's `pTraceLevel` points at is at least N:
 *
 *   "%8u.%06u (%1d): " seconds, microseconds, N   then the message, then a flush.
 *
 * An object whose `pTraceLevel` is null prints "pTraceLevel not defined: " and the enclosing function's signature
 * instead. Level 9 is the call trace, 0 marks events that always show, 1 connection results, 2 and 3 file details,
 * 5 decoder errors and rate tracking, 6 time-left figures, 8 per-period detail.
 *
 * Nothing is formatted, and no clock is read, while the level is too low: the macros below test first, so a silent
 * trace line is real-time safe.
 */

#include <atomic>

namespace audioLibrarySpace
{

/** The common trace level of the library; 0 at process start. Written by the console command "tl", read everywhere. */
extern int audioInterfaceTraceLevel;

/** Whether a line of `level` is to be handled at all: also true for a null pointer. Any thread, real-time safe. */
inline bool traceWanted(int* pTraceLevel, int level)
{
    return pTraceLevel == nullptr || std::atomic_ref<int>(*pTraceLevel).load(std::memory_order_relaxed) >= level;
}

/** Prints one trace line whose message is formatted by printf rules. Use AUDIO_TRACE_PRINTF. */
void tracePrintf(int* pTraceLevel, int level, const char* signature, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

/** Prints one trace line whose message is `text` and a newline. Use AUDIO_TRACE_PUTS. */
void tracePuts(int* pTraceLevel, int level, const char* signature, const char* text);

} // namespace audioLibrarySpace

/** A trace line of `level` in the format that follows; `traceLevelPointer` is the object's `pTraceLevel`. */
#define AUDIO_TRACE_PRINTF_TO(traceLevelPointer, level, ...)                                                           \
    do {                                                                                                               \
        if (::audioLibrarySpace::traceWanted((traceLevelPointer), (level))) {                                          \
            ::audioLibrarySpace::tracePrintf((traceLevelPointer), (level), __PRETTY_FUNCTION__, __VA_ARGS__);          \
        }                                                                                                              \
    } while (false)

/** A trace line of `level` with a text that gets its line end from puts. */
#define AUDIO_TRACE_PUTS_TO(traceLevelPointer, level, text)                                                            \
    do {                                                                                                               \
        if (::audioLibrarySpace::traceWanted((traceLevelPointer), (level))) {                                          \
            ::audioLibrarySpace::tracePuts((traceLevelPointer), (level), __PRETTY_FUNCTION__, (text));                 \
        }                                                                                                              \
    } while (false)

// Within an object that has a `pTraceLevel` member:
#define AUDIO_TRACE_PRINTF(level, ...) AUDIO_TRACE_PRINTF_TO(pTraceLevel, level, __VA_ARGS__)
#define AUDIO_TRACE_PUTS(level, text) AUDIO_TRACE_PUTS_TO(pTraceLevel, level, text)

/** The call trace: the enclosing function's full signature at level 9. The first statement of a traced function. */
#define AUDIO_TRACE_CALL() AUDIO_TRACE_PUTS(9, __PRETTY_FUNCTION__)
