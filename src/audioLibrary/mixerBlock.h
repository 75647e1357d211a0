#pragma once

/**
 * The ring between the sources and the sound card, and the clock reference of the graph.
 *
 *   inputs (CMixerDSP, up to 512) --add--> [....OOOOOOOO....] --lend whole periods--> output (CMixerUSP)
 *
 * Each input has a write position of its own and adds into the ring; the output may read what the slowest playing
 * input has delivered. The ring starts half full of silence and is kept near half full: from the smoothed fill the
 * mixer computes the rate that it wants of each input and publishes it in that input port's `trueSampleRate`, where
 * the rate converter upstream reads it.
 *
 * A cell of the ring is zero before any input adds to it: the output clears what it has read. So there is no first
 * writer; every input adds, the first one onto zeros.
 *
 * Threads: service(), connecting and status on the thread that owns the player; the output port's two read operations
 * on the playback thread.
 * Lock: bufferMutex guards the ring, its indices and counts; it is released around every call into a source.
 * Units: frames, unless a name says periods or bytes. The output never waits for an input; no transfer allocates.
 * Order of use: the output is connected first, which builds the ring; then the inputs.
 */

#include "audioLibrary/audioBlock.h"
#include "audioLibrary/osAbstraction/osAbstraction.h"

#include <atomic>
#include <cstddef>
#include <string>

namespace audioLibrarySpace
{

class CMixerDSP;
class CMixerUSP;

/** Only the first two are ever assigned: nothing in the ring's behaviour depends on a watermark. */
enum mixerState_e : int32_t {
    STATE_UNINITIALIZED = 0, ///< no ring yet: no input is pulled
    STATE_EMPTY = 1,         ///< the ring exists
    STATE_BELOW_WATER_MARK = 2,
    STATE_ABOVE_WATER_MARK = 3,
    STATE_FULL = 4,
};

class CMixer : public CAudioBlock
{
public:
    /** Makes the output port and the mutex; the ring is built when the output is connected. */
    CMixer(std::string name, int periodsToBuffer);
    ~CMixer() override; ///< frees the ring and the mutex

    runTimeId getRunTimeId() override;
    streamStatus init() override; ///< does nothing; STREAM_OK
    /** A free input at its reset parameters, made if needed with the output's parameters; null at 512. */
    CDownstreamPort* getNextDownstreamPort() override;
    /** Merges nominal rate, interleaving and true rate, in that order; the other fields are the input's own affair. */
    streamStatus reconfigBlockCheck(audioPortParam_t& usp, audioPortParam_t dsp) override;
    /**
     * Pulls from every playing input, then updates the region that the output may read, the smoothed fill and the
     * rate demand. STREAM_ERROR when an input's request failed: the inputs after it are not served in this call.
     */
    streamStatus service(CServiceTime& nextService) override;
    std::string printBlockStatus() override;

    /** Builds the ring from the output port's parameters, half full of silence. Drops the old one. STREAM_OK. */
    virtual streamStatus myInit();

    /** Prints the ring's fill as one line of 80 columns and figures, at trace level 0. Takes bufferMutex. */
    void graphBuffer();
    /**
     * Adds samples into the ring; the rules are mixerCopy.h's. A pair of sizes that doesn't exist is told at trace
     * level 0 and copies nothing. Real-time safe but for those words. "Upstream" is the ring, "downstream" the input.
     */
    void copyAndAdd(int upstreamSampleBytes, int downstreamSampleBytes, int numToCopy, char* dst, char* src,
                    unsigned int nSamples);

protected:
    friend class CMixerDSP;
    friend class CMixerUSP;

    // All guarded by bufferMutex, and so are both fields of every CMixerDSP; the thread that owns the player may read
    // without it what only that thread writes (everything but the read position, the counts and the write position).
    int sampleRate = 100;             ///< service() calls between two graph lines; nothing to do with audio rate
    bool underflow = true;            ///< the first input transfer announces itself and clears this for good
    unsigned int m_frameCount = 0;    ///< frames that every playing input has delivered: what the output may read
    int m_readFramePtr = 0;           ///< index of the next frame that the output reads
    int m_periodsToBuffer;            ///< ring length in output periods
    mutexObject bufferMutex;          ///< released in the destructor
    int printCounter = 0;             ///< service() calls modulo sampleRate
    float averageRate = 48000.0F;     ///< not otherwise used
    int lastPeriodCount = 0;          ///< not otherwise used
    CServiceTime lastCountTime;       ///< not otherwise used
    float averageBufferDepth = 50.0F; ///< smoothed ring fill, percent of the ring
    float sourceBlockRate = 0.0F;     ///< the card's true rate, Hz: the base of the rate demand
    mixerState_e m_mixerState = STATE_UNINITIALIZED;
    char* mixerBuffer = nullptr; ///< the ring; owned, freed by myInit() and the destructor
    int buffer_size_bytes = 0;   ///< bytes of the ring
    int m_writeFramePtr = 0;     ///< index of the end of the complete region, where a started input begins to write
    int m_bufferSizeFrame = 0;   ///< ring length in frames
    bool cmd_start = false;      ///< service() was called before there was a ring; nothing reads it

private:
    // The layout that the ring was built with, for the playback thread: the output port's own parameters change on
    // another thread, without the mutex, when the port is taken down.
    unsigned int ringPeriodFrames; ///< frames of an output period
    size_t ringFrameBytes = 0;     ///< bytes of one frame

    CAudioPort& outputPort() { return *upstream.front(); }
    CMixerDSP& inputPort(size_t i);
    void restartHalfFull();
    void clearFrames(int firstFrame, unsigned int numFrames);
    bool isToBeServed(CMixerDSP& input);
    streamStatus serviceInput(CMixerDSP& input);
    bool hasRoomFor(CMixerDSP& input);
    streamStatus requestUnlocked(CUpstreamPort& source, char*& periods, unsigned int& nPeriods);
    unsigned int periodsThatFit(unsigned int periodFrames, unsigned int nPeriods) const;
    void addToRing(CMixerDSP& input, char* src, unsigned int frames);
    void addWithinRing(size_t offsetBytes, int ringSampleBytes, int inputSampleBytes, int numToCopy, char* src,
                       unsigned int nSamples);
    void updateCompleteRegion(CMixerDSP* lowest);
    float updateDepth();
    void publishDemand(float agression, const CServiceTime& now, CServiceTime& nextService);
    void printGraph();
    unsigned int recoverFromDryRing();
    unsigned int readablePeriods() const;
    void consume(unsigned int frames);
};

/** An input of the mixer. Joins the ring at the end of the region that all inputs have delivered. */
class CMixerDSP : public CDownstreamPort
{
public:
    /** Ring index where this input's next frame is added. Atomic: stopAudio() and disconnect() write without the lock. */
    std::atomic<int> m_writeFramePtr;
    /** Frames that this input is ahead of the read position. May go below zero: a muted input is read past. */
    std::atomic<int> m_frameCount{0};

    /** `ringParams` becomes this port's reset parameters. */
    CMixerDSP(CMixer* parent, const audioPortParam_t& ringParams, int firstFrame);
    ~CMixerDSP() override;

    runTimeId getRunTimeId() override;
    std::string printPortStatus() override;
    /**
     * Forgiving: a mismatch is resolved into this port's own parameters, and only the block's check decides. Fails
     * at once while the output is unconnected, because there is no ring to fit.
     */
    streamStatus reconfigPortCheck(audioPortParam_t* newParams) override;
    streamStatus reconfigPortApply(audioPortParam_t* newParams) override;
    streamStatus disconnect() override;
    streamStatus startAudio() override; ///< rejoins the ring; leaves avgRate and lastCountTime alone
    streamStatus stopAudio() override;
    streamStatus muteAudio() override; ///< keeps both fields: no longer pulled, no longer holding the others back
    streamStatus connectUpstream(CUpstreamPort* port, mutexObject* mutex) override;

private:
    friend class CMixer;
    friend class CMixerUSP;

    /** Whether a source is connected, for the playback thread, which may not look at the peer pointer. */
    std::atomic<bool> hasSource{false};

    CMixer& mixer();
    void joinRing();
    void leaveRing();
    void checkNominalSampleRate(const audioPortParam_t& output, const audioPortParam_t& offered);
    void checkTrueSampleRate(const audioPortParam_t& output, const audioPortParam_t& offered);
    void checkNumChannels(const audioPortParam_t& output, const audioPortParam_t& offered);
    void checkPeriodSize(const audioPortParam_t& output, const audioPortParam_t& offered);
    void checkSampleFormat(const audioPortParam_t& offered);
    void checkSamplesInterleaved(const audioPortParam_t& offered);
};

/** The output of the mixer: lends the ring in whole periods, in place. Read on the playback thread. */
class CMixerUSP : public CUpstreamPort
{
public:
    explicit CMixerUSP(CMixer* parent);
    ~CMixerUSP() override;

    runTimeId getRunTimeId() override;
    /** Strict, as the base is; but with inputs present the last input's block check is the answer. */
    streamStatus reconfigPortCheck(audioPortParam_t* newParams) override;
    /** Takes on the format and builds the ring; refused while an input is connected. */
    streamStatus reconfigPortApply(audioPortParam_t* newParams) override;
    streamStatus connectDownstream(CDownstreamPort* port, mutexObject* mutex) override;
    /**
     * Offers, without copying, what every playing input has delivered.
     *
     * @param[out] pbuffer   first frame, interleaved, in this port's format; lent until ackReadPeriods()
     * @param[out] nPeriods  whole periods there, up to the ring's end. After the ring ran dry a count of FRAMES, half
     *                       the ring: the reader bounds what it takes
     * @return STREAM_OK, always
     * Thread: playback, real-time safe. Lock: takes bufferMutex.
     */
    streamStatus reqReadPeriods(char*& pbuffer, unsigned int& nPeriods) override;
    /** Clears and frees what was read; at most what one request gave. Playback thread, real-time safe; bufferMutex. */
    streamStatus ackReadPeriods(unsigned int nPeriods) override;

private:
    CMixer& mixer();
};

} // namespace audioLibrarySpace
