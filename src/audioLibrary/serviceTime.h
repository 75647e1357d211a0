#pragma once

#include "audioLibrary/audioTypes.h"

#include <cstdint>
#include <string>

namespace audioLibrarySpace
{

/** A moment on the monotonic clock, in the width of the 32-bit target on every machine. */
struct monotonicTime {
    int32_t tv_sec = 0;  ///< seconds
    int32_t tv_nsec = 0; ///< nanoseconds within the second
};

/** Reads a moment of the monotonic clock. Called from every thread; real-time safe. */
using clockSource = monotonicTime (*)();

/**
 * Replaces the clock behind every CServiceTime::setCurrentTime(); null restores CLOCK_MONOTONIC. The daemon runs on the
 * real clock: this is for tests, which set the time themselves instead of waiting for it.
 */
void setClockSource(clockSource source);

/**
 * A time value on the monotonic clock, with which blocks tell their owner when they next want attention.
 *
 * All arithmetic is 32-bit and wraps, on every machine: a difference beyond about 2.147 s comes out wrong, even in
 * sign, and its callers (the audio manager's sleep rule, incPeriodCount) are built for that.
 */
class CServiceTime
{
public:
    bool immediateService = false; ///< at once, ahead of any clock time
    bool serviceRequired = false;  ///< beats any value without the flag
    monotonicTime nextServiceTime; ///< the moment itself

    CServiceTime() = default;
    CServiceTime(const CServiceTime&) = default;
    CServiceTime& operator=(const CServiceTime&) = default;

    /** Reads CLOCK_MONOTONIC into nextServiceTime; the flags stay. Always STREAM_OK. */
    streamStatus setCurrentTime();

    /** The latest time there is, flags false: no timed attention wanted. */
    void setNeverService();

    /** A copy advanced by `ns` nanoseconds; one addition spans at most about 2.1 s. */
    const CServiceTime operator+(const int32_t& ns) const;
    CServiceTime& operator+=(const int32_t& ns); ///< the same sum in place

    /** Nanoseconds from `rhs` to this, wrapping in 32 bits; 0 when `rhs` means immediate service. */
    int32_t operator-(const CServiceTime& rhs) const;

    bool operator==(const CServiceTime& rhs) const; ///< all three fields equal
    /** Earlier than `rhs`: this one's immediate flag, then the required flags, then the clock time decide. */
    bool operator<(const CServiceTime& rhs) const;

    operator std::string() const; ///< "seconds.nanoseconds" and the flags that are set
};

} // namespace audioLibrarySpace
