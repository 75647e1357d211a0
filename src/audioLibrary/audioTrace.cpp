/**
 * Trace lines out: callers of every thread come in, standard output is where they end.
 */

#include "audioLibrary/audioTrace.h"

#include <cstdarg>
#include <cstdio>
#include <sys/time.h>

namespace audioLibrarySpace
{

int audioInterfaceTraceLevel = 0;

namespace
{

/** "pTraceLevel not defined: " and the signature: an object that nobody gave a level still says where it stands. */
void printWithoutLevel(const char* signature)
{
    printf("pTraceLevel not defined: ");
    puts(signature);
}

/** The time of day and the level ahead of a message. */
void printPrefix(int level)
{
    timeval now{};
    gettimeofday(&now, nullptr);
    printf("%8u.%06u (%1d): ", static_cast<unsigned int>(now.tv_sec), static_cast<unsigned int>(now.tv_usec), level);
}

} // namespace

void tracePrintf(int* pTraceLevel, int level, const char* signature, const char* format, ...)
{
    if (pTraceLevel == nullptr) {
        printWithoutLevel(signature);
        return;
    }
    if (!traceWanted(pTraceLevel, level)) {
        return;
    }
    printPrefix(level);
    va_list arguments;
    va_start(arguments, format);
    vprintf(format, arguments);
    va_end(arguments);
    fflush(stdout);
}

void tracePuts(int* pTraceLevel, int level, const char* signature, const char* text)
{
    if (pTraceLevel == nullptr) {
        printWithoutLevel(signature);
        return;
    }
    if (!traceWanted(pTraceLevel, level)) {
        return;
    }
    printPrefix(level);
    puts(text);
    fflush(stdout);
}

} // namespace audioLibrarySpace
