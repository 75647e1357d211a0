/**
 * One page of shared memory for each card, in the card's own file: others ask for faults and rate changes while it
 * runs, and read where it is. The file is also the card itself: it exists or it doesn't (no such card), and whoever
 * has it open holds its lock (busy). README.md documents the layout; virtualCardPage.py reads and writes it.
 *
 * Requests are written by others and may change at any moment. The status is written by the card alone, under a
 * sequence number that is odd while it is being written.
 */
#pragma once

#include "faultScript.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

namespace vcard
{

constexpr char pageMagic[8] = {'V', 'C', 'A', 'R', 'D', 'P', 'G', '\0'};
constexpr uint32_t pageVersion = 1;
constexpr size_t pageBytes = 4096;

/** Refusal of one kind of call. */
struct FaultSlot {
    std::atomic<int32_t> remaining; ///< calls to refuse; 0 none, -1 all
    std::atomic<int32_t> skip;      ///< calls that pass before the first is refused
    std::atomic<int32_t> error;     ///< positive errno
};

/** What others ask of the card. */
struct PageRequests {
    std::atomic<uint64_t> ppmBits;     ///< double; NaN: as configured
    std::atomic<int64_t> forgiveNs;    ///< lateness that is forgiven; 0 strict, -1 as configured
    std::atomic<int32_t> gone;         ///< 1 while the card is unplugged
    std::atomic<int32_t> stalled;      ///< 1 while its clock stands
    std::atomic<int32_t> forceXrun;    ///< underruns or overruns to come; the card counts down
    std::atomic<int32_t> forceSuspend; ///< suspensions to come; the card counts down
    FaultSlot faults[numSteps];        ///< in the order of Step
};

enum class CardState : uint64_t { closed, open, prepared, running, xrun, suspended, gone };

/** Where the card is. Every field has 8 bytes. */
struct PageStatus {
    CardState state = CardState::closed;
    uint64_t pid = 0;
    uint64_t opens = 0;       ///< successful opens since the page was made
    int64_t updatedNs = 0;    ///< CLOCK_MONOTONIC of this status
    int64_t openedNs = 0;     ///< of the last open
    int64_t startedNs = 0;    ///< of the last start
    uint64_t rateHz = 0;      ///< granted
    uint64_t channels = 0;    ///< granted
    uint64_t sampleBytes = 0; ///< granted
    uint64_t periodFrames = 0;
    uint64_t bufferFrames = 0;
    double trueHz = 0.0;        ///< with the deviation
    double ppm = 0.0;           ///< in force
    int64_t referenceNs = 0;    ///< position now = referenceFrames + (now - referenceNs) x trueHz / 1e9 while running,
    double referenceFrames = 0; ///< at most `applied` on playback
    uint64_t position = 0;      ///< frames passed since the last prepare
    uint64_t applied = 0;       ///< frames written (playback) or read (capture) since the last prepare
    uint64_t totalFrames = 0;   ///< frames passed since the open, without gaps
    uint64_t xruns = 0;         ///< underruns or overruns since the open
    uint64_t xrunsEver = 0;     ///< since the page was made
    int64_t lastXrunNs = 0;     ///< when it happened, not when it was seen
    uint64_t gapFrames = 0;     ///< frames without data after underruns, since the open
    uint64_t droppedFrames = 0; ///< written and thrown away by stop or prepare, since the open
    uint64_t lateWakes = 0;     ///< forgiven, since the open
    int64_t lateNs = 0;         ///< their sum
    uint64_t faultsDelivered = 0; ///< calls refused since the page was made, opens excepted
    double peak[2] = {};          ///< of the last period, channel 0 and 1, full scale 1.0
    double rms[2] = {};
};

struct PageLayout {
    char magic[8];
    std::atomic<uint32_t> version;
    uint32_t bytes;
    char reserved1[48];
    PageRequests requests; ///< at 64
    char reserved2[256 - 64 - sizeof(PageRequests)];
    std::atomic<uint64_t> sequence; ///< at 256
    std::atomic<uint64_t> status[sizeof(PageStatus) / 8];
    char reserved3[1024 - 264 - sizeof(PageStatus)];
    char recordingPath[1024]; ///< at 1024; of the current or last recording, ends with a zero
};

static_assert(offsetof(PageLayout, requests) == 64 && offsetof(PageRequests, gone) == 16 &&
              offsetof(PageRequests, faults) == 32 && sizeof(FaultSlot) == 12);
static_assert(offsetof(PageLayout, sequence) == 256 && offsetof(PageLayout, status) == 264 &&
              sizeof(PageStatus) == 30 * 8);
static_assert(offsetof(PageLayout, recordingPath) == 1024 && sizeof(PageLayout) <= pageBytes);

class ControlPage
{
public:
    ControlPage() = default;
    ~ControlPage();
    ControlPage(const ControlPage&) = delete;
    ControlPage& operator=(const ControlPage&) = delete;

    /**
     * Maps the card file @p path and fills it in if it is empty or of another version.
     * @param create  make a missing file
     * @return 0 or -errno; -ENOENT: there is no such card
     */
    int map(const std::string& path, bool create);
    /** Takes the card for this open. @return 0, or -EBUSY while another one has it. Freed by the kernel on exit */
    int lock();
    /** Unmaps, and frees the lock. */
    void unmap();

    PageRequests& requests() { return page->requests; }
    /** Publishes @p status; one writer at a time: the holder of the lock. */
    void publish(const PageStatus& status);
    /** The status as last published; for the holder of the lock, and for tests. */
    PageStatus status() const;
    void publishRecordingPath(const std::string& path);

    /** True if a call of this kind is to be refused now; counts it. @param[out] error positive errno */
    bool takeFault(Step step, int32_t& error);
    /** The deviation asked for, or @p configured. */
    double ppm(double configured) const;
    void requestPpm(double ppm);

private:
    void initialize();

    int fd = -1; ///< owned; carries the lock
    PageLayout* page = nullptr;
};

/** Counts one off @p pending if there is any. @return true if so */
bool takeOne(std::atomic<int32_t>& pending);

} // namespace vcard
