#include "cardClock.h"

#include <cmath>

namespace vcard
{

void CardClock::configure(double nominalHz, double ppm)
{
    nominal = nominalHz;
    deviationPpm = ppm;
}

void CardClock::start(int64_t nowNs, double frames)
{
    refNs = nowNs;
    refFrames = frames;
    isRunning = true;
    isStalled = false;
}

void CardClock::stop(int64_t nowNs)
{
    rebase(nowNs);
    isRunning = false;
    isStalled = false;
}

void CardClock::changePpm(int64_t nowNs, double ppm)
{
    rebase(nowNs);
    deviationPpm = ppm;
}

void CardClock::setStalled(int64_t nowNs, bool stalled)
{
    if (stalled == isStalled || !isRunning)
        return;
    rebase(nowNs);
    isStalled = stalled;
}

void CardClock::pushBack(int64_t lateNs)
{
    if (isRunning && !isStalled)
        refNs += lateNs;
}

double CardClock::exactPosition(int64_t nowNs) const
{
    // A clock pushed back may have its reference ahead of now: it stands until then and never runs backwards.
    if (!isRunning || isStalled || nowNs <= refNs)
        return refFrames;
    return refFrames + static_cast<double>(nowNs - refNs) * 1e-9 * trueHz();
}

void CardClock::rebase(int64_t nowNs)
{
    refFrames = exactPosition(nowNs);
    if (nowNs > refNs)
        refNs = nowNs;
}

uint64_t CardClock::position(int64_t nowNs) const
{
    return static_cast<uint64_t>(exactPosition(nowNs));
}

int64_t CardClock::timeOf(uint64_t frames) const
{
    const double missing = static_cast<double>(frames) - refFrames;
    if (missing <= 0.0)
        return refNs;
    if (!isRunning || isStalled)
        return never;
    int64_t timeNs = refNs + static_cast<int64_t>(std::ceil(missing / trueHz() * 1e9));
    // Rounding may leave the product a hair below the frame.
    while (position(timeNs) < frames)
        ++timeNs;
    return timeNs;
}

} // namespace vcard
