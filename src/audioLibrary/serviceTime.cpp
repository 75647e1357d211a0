/**
 * 32-bit time arithmetic: the monotonic clock in, moments and differences out, on any thread.
 */

#include "audioLibrary/serviceTime.h"

#include <atomic>
#include <cstdio>
#include <ctime>
#include <limits>

namespace audioLibrarySpace
{

namespace
{

constexpr int32_t NS_PER_SECOND = 1000000000;

/** Sum, difference and product as a 32-bit register has them: the wrap is meant. */
int32_t wrappingAdd(int32_t a, int32_t b)
{
    return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}

int32_t wrappingSubtract(int32_t a, int32_t b)
{
    return static_cast<int32_t>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b));
}

int32_t wrappingMultiply(int32_t a, int32_t b)
{
    return static_cast<int32_t>(static_cast<uint32_t>(a) * static_cast<uint32_t>(b));
}

monotonicTime readMonotonicClock()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return {static_cast<int32_t>(now.tv_sec), static_cast<int32_t>(now.tv_nsec)};
}

/** Constant-initialised, so a static object may read the clock before main. */
constinit std::atomic<clockSource> currentClock{&readMonotonicClock};

} // namespace

void setClockSource(clockSource source)
{
    currentClock.store(source == nullptr ? &readMonotonicClock : source, std::memory_order_relaxed);
}

streamStatus CServiceTime::setCurrentTime()
{
    nextServiceTime = currentClock.load(std::memory_order_relaxed)();
    return STREAM_OK;
}

void CServiceTime::setNeverService()
{
    nextServiceTime.tv_sec = std::numeric_limits<int32_t>::max();
    nextServiceTime.tv_nsec = 0;
    immediateService = false;
    serviceRequired = false;
}

const CServiceTime CServiceTime::operator+(const int32_t& ns) const
{
    CServiceTime advanced(*this);
    advanced += ns;
    return advanced;
}

CServiceTime& CServiceTime::operator+=(const int32_t& ns)
{
    const int32_t sum = wrappingAdd(nextServiceTime.tv_nsec, ns);
    nextServiceTime.tv_sec = wrappingAdd(nextServiceTime.tv_sec, sum / NS_PER_SECOND);
    nextServiceTime.tv_nsec = sum % NS_PER_SECOND;
    return *this;
}

int32_t CServiceTime::operator-(const CServiceTime& rhs) const
{
    if (rhs.immediateService) {
        return 0;
    }
    const int32_t seconds = wrappingSubtract(nextServiceTime.tv_sec, rhs.nextServiceTime.tv_sec);
    const int32_t nanoseconds = wrappingSubtract(nextServiceTime.tv_nsec, rhs.nextServiceTime.tv_nsec);
    return wrappingAdd(wrappingMultiply(seconds, NS_PER_SECOND), nanoseconds);
}

bool CServiceTime::operator==(const CServiceTime& rhs) const
{
    return immediateService == rhs.immediateService && serviceRequired == rhs.serviceRequired &&
           nextServiceTime.tv_sec == rhs.nextServiceTime.tv_sec &&
           nextServiceTime.tv_nsec == rhs.nextServiceTime.tv_nsec;
}

bool CServiceTime::operator<(const CServiceTime& rhs) const
{
    if (immediateService) {
        return true;
    }
    if (serviceRequired != rhs.serviceRequired) {
        return serviceRequired;
    }
    if (nextServiceTime.tv_sec != rhs.nextServiceTime.tv_sec) {
        return nextServiceTime.tv_sec < rhs.nextServiceTime.tv_sec;
    }
    return nextServiceTime.tv_nsec < rhs.nextServiceTime.tv_nsec;
}

CServiceTime::operator std::string() const
{
    char text[32];
    snprintf(text, sizeof text, "%d.%09d", nextServiceTime.tv_sec, nextServiceTime.tv_nsec);
    return std::string(text) + (immediateService ? " immediate" : "") + (serviceRequired ? " required" : "");
}

} // namespace audioLibrarySpace
