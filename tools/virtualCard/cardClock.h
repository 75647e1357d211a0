/**
 * The crystal of the virtual card: turns monotonic time into a frame position and back.
 *
 *   position = reference frames + (now - reference time) x true rate,   true rate = nominal x (1 + ppm / 1e6)
 *
 * Pure arithmetic: time comes in as an argument (nanoseconds of CLOCK_MONOTONIC), nothing is read from the system,
 * so a test moves time by hand. No lock: the card that owns the clock holds its own.
 */
#pragma once

#include <cstdint>

namespace vcard
{

class CardClock
{
public:
    /** Sets the nominal rate in Hz and the deviation in parts per million; to be called while the clock stands. */
    void configure(double nominalHz, double ppm);
    /** Lets the clock run from @p frames at @p nowNs. A stall is over. */
    void start(int64_t nowNs, double frames);
    /** Freezes the clock at its position of @p nowNs. */
    void stop(int64_t nowNs);
    /** Changes the deviation from @p nowNs on; the position reached stays what it is. */
    void changePpm(int64_t nowNs, double ppm);
    /** Makes a running clock stand still (a hung card) and go on again; the time in between is not made up for. */
    void setStalled(int64_t nowNs, bool stalled);
    /** Forgives @p lateNs of time that was stolen from the program: the clock acts as if it had not passed. */
    void pushBack(int64_t lateNs);

    /** Whole frames passed at @p nowNs. */
    uint64_t position(int64_t nowNs) const;
    /** The first nanosecond at which position() answers at least @p frames; a clock that stands answers "never". */
    int64_t timeOf(uint64_t frames) const;

    bool running() const { return isRunning; }
    bool stalled() const { return isStalled; }
    double ppm() const { return deviationPpm; }
    /** Frames a second, deviation included. */
    double trueHz() const { return nominal * (1.0 + deviationPpm / 1e6); }
    int64_t referenceNs() const { return refNs; }
    double referenceFrames() const { return refFrames; }

    static constexpr int64_t never = INT64_MAX;

private:
    double exactPosition(int64_t nowNs) const;
    void rebase(int64_t nowNs);

    double nominal = 48000.0;
    double deviationPpm = 0.0;
    int64_t refNs = 0;      ///< when refFrames held
    double refFrames = 0.0; ///< with its fraction, so that a change of ppm loses nothing
    bool isRunning = false;
    bool isStalled = false;
};

} // namespace vcard
