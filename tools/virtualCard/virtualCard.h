/**
 * One open virtual card: a ring, a clock, and everything that is known, recorded and told about them.
 *
 *   playback: write() --> [ring] --clock passes--> recorder, level meter
 *   capture:  source --clock passes--> read()
 *
 * Knows nothing of ALSA and reads no clock: every call says what time it is (nanoseconds of CLOCK_MONOTONIC). Nothing
 * happens between calls: positions, underruns and recordings catch up at the next one. Results are 0 or -errno as the
 * PCM interface has them. Not thread-safe: the caller holds one lock over each call. Units: frames.
 */
#pragma once

#include "captureSource.h"
#include "cardClock.h"
#include "controlPage.h"
#include "eventLog.h"
#include "levelMeter.h"
#include "settings.h"
#include "wavRecorder.h"

#include <cstdint>
#include <string>
#include <vector>

namespace vcard
{

/** What the program and the card have agreed on. */
struct StreamShape {
    uint32_t rateHz = 48000;
    uint32_t channels = 2;
    uint32_t sampleBytes = 4;
    uint64_t periodFrames = 256;
    uint64_t bufferFrames = 4608;

    uint32_t frameBytes() const { return channels * sampleBytes; }
};

/** What a look at the card found. */
enum class Motion { moved, xrun, suspended, gone };

/** What a poll of the card answers. */
enum class Readiness { notYet, ready, error };

class VirtualCard
{
public:
    VirtualCard(const Settings& cardSettings, bool isCapture);
    ~VirtualCard();
    VirtualCard(const VirtualCard&) = delete;
    VirtualCard& operator=(const VirtualCard&) = delete;

    /** Takes the card. @return 0; -ENOENT no card of this number, -ENODEV of this name or unplugged, -EBUSY taken */
    int open(int64_t nowNs);
    /** Fixes the shape; makes the ring and, on playback, the recording. */
    int setHardwareParameters(const StreamShape& newShape, int64_t nowNs);
    /** @param stopThreshold frames available at which the card stops: the buffer size as a rule */
    int setSoftwareParameters(uint64_t availMin, uint64_t stopThreshold, int64_t nowNs);
    /** Empties the ring and stands at frame 0. */
    int prepare(int64_t nowNs);
    int start(int64_t nowNs);
    /** Stops at once; what was written and not yet heard is lost. */
    void stop(int64_t nowNs);
    /** Goes on after a suspension, from the frame it stopped at. */
    int resume(int64_t nowNs);
    /** Gives the card back. */
    void close(int64_t nowNs);

    /**
     * Brings everything up to @p nowNs.
     * @param draining the last frames are being played out: an empty ring is no underrun
     */
    Motion advance(int64_t nowNs, bool draining);
    /** Frames passed since prepare(), as the last advance() found it. */
    uint64_t position() const { return positionFrames; }

    /** Takes @p numFrames frames; the caller has seen that there is room. @return frames or -errno */
    int64_t write(const char* samples, uint64_t numFrames, int64_t nowNs);
    /** Gives @p numFrames frames; the caller has seen that they are there. @return frames or -errno */
    int64_t read(char* samples, uint64_t numFrames, int64_t nowNs);

    /** When the program that waits now should be woken; a time past for "at once". */
    int64_t armWake(int64_t nowNs, bool draining);
    /** The wake came: forgives a late one if so configured, and says what the poll should answer. */
    Readiness afterWake(int64_t nowNs, bool draining);

private:
    int openCardFile(int64_t nowNs);
    int refuse(Step step, const char* what, int64_t nowNs);
    void loadScript(const std::string& cardPath);
    void fireScript();
    void applyRequests(int64_t nowNs);
    bool isGone();
    Motion disconnect(int64_t nowNs);
    Motion suspend(int64_t nowNs);
    Motion xrun(int64_t happenedNs, int64_t seenNs, bool forced);
    void halt(int64_t nowNs);
    uint64_t stopPosition(bool draining) const;
    uint64_t wakePosition(bool draining) const;
    void passFrames(uint64_t untilFrames, int64_t nowNs);
    void passFromRing(uint64_t numFrames, int64_t nowNs);
    void recorderResult(int result, int64_t nowNs);
    void closeGap(int64_t nowNs);
    void reportPosition(int64_t nowNs);
    void discardQueued();
    void openRecording(int64_t nowNs);
    void loadSource(int64_t nowNs);
    int64_t forgiveNs();
    void publish(int64_t nowNs);

    const Settings settings;
    const bool capture;
    const std::string name;

    ControlPage page;
    EventLog log;
    CardClock clock;
    WavRecorder recorder;
    LevelMeter meter;
    CaptureSource source;
    PageStatus status;
    std::string scriptKey; ///< path of the card's file: the script of a run belongs to it
    bool isOpen = false;

    StreamShape shape;
    std::vector<char> ring; ///< playback: bufferFrames frames
    uint64_t availMinFrames = 256;
    uint64_t stopThresholdFrames = 4608;
    uint64_t positionFrames = 0; ///< since prepare
    uint64_t appliedFrames = 0;  ///< written or read since prepare
    uint64_t nextReport = 0;     ///< totalFrames at which the next position line is due
    bool gapIsOpen = false;      ///< an xrun stopped the card and no start has followed
    int64_t gapSinceNs = 0;
    uint64_t sourceFrames = 0; ///< capture: source frame number of position 0
    int64_t stalledSinceNs = 0;
    int64_t armedNs = 0; ///< wake asked for; 0: none, or at once
};

} // namespace vcard
