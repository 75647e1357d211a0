#pragma once

/**
 * Ports: the points where two blocks meet.
 *
 *   CUpstreamPort (a block's output)  --audio-->  CDownstreamPort (the next block's input)
 *
 * Audio is pulled: the reading block asks its peer with reqReadPeriods(), copies what it can use out of the lent
 * memory and confirms with ackReadPeriods(). Connecting two ports negotiates the stream's shape in audioPortParam_t.
 *
 * Threads: connecting, disconnecting and status on the thread that owns the player; reads on the pulling thread of
 * the block downstream. The base classes take no lock; only the playback state is shared between threads without one.
 * Destroying a port does not disconnect it: chains go before blocks.
 */

#include "audioLibrary/audioTrace.h"
#include "audioLibrary/audioTypes.h"
#include "audioLibrary/serviceTime.h"

#include <atomic>
#include <string>

struct mutexObject;

namespace audioLibrarySpace
{

class CAudioBlock;
class CUpstreamPort;
class CDownstreamPort;

class CAudioPort
{
public:
    /** Whether this port now plays. Set after everything a reader needs, so a reader that sees it sees the rest. */
    std::atomic<playbackState> portPlaybackState{AUDIO_STOPPED};
    CServiceTime lastCountTime;   ///< when a period was last counted
    float avgRate = 0.0F;         ///< smoothed rate in frames per second; first valid after startAudio()
    audioPortParam_t params;      ///< the port's current parameters
    audioPortParam_t checkParams; ///< scratch copy offered to the peer during a connect

    explicit CAudioPort(CAudioBlock* parent);
    virtual ~CAudioPort();
    CAudioPort(const CAudioPort&) = delete;
    CAudioPort& operator=(const CAudioPort&) = delete;

    virtual runTimeId getRunTimeId(); ///< of the concrete class; INVALID_ID in the bases
    /** Whether `port` could live with this port's live parameters. A real check: it may change `port`'s record. */
    virtual bool isCompatibleWith(CAudioPort* port);
    /** The status text of this port, several lines. */
    virtual std::string printPortStatus();
    /**
     * Merges `newParams` into this port: VARIABLE fields take the offered value, any other difference is a failure,
     * told at trace level 1. Every field is visited and adopted fields stay adopted. `newParams` is not changed here,
     * though an override may mark fields of it INCOMPATIBLE.
     */
    virtual streamStatus reconfigPortCheck(audioPortParam_t* newParams);
    /** Takes on the final record. The base answers STREAM_ERROR: a port that carries audio overrides it. */
    virtual streamStatus reconfigPortApply(audioPortParam_t* newParams);
    /** Copies the parameters to `out`; STREAM_ERROR for a null `out`. */
    virtual streamStatus returnPortParams(audioPortParam_t* out);
    /**
     * Takes down both ends: both peers are null, both ports stopped and at their reset parameters. A free output is reset
     * all the same, a free input is left as it is. STREAM_OK, always; STREAM_ERROR in the base, which has no peer.
     */
    virtual streamStatus disconnect();
    /** Null: whether connected at all. Otherwise: whether connected to just this port. */
    virtual bool isConnected(CAudioPort* port);
    virtual streamStatus startAudio(); ///< AUDIO_PLAYING; avgRate starts at the nominal rate
    virtual streamStatus stopAudio();  ///< AUDIO_STOPPED
    virtual streamStatus pauseAudio(); ///< AUDIO_STOPPED too: a paused port is a stopped port
    virtual streamStatus muteAudio();  ///< AUDIO_MUTED

    CAudioBlock* getParentBlock() { return parentBlock; } ///< the owner of this port
    /** Counts periods and updates avgRate, a leaky average. One clock read, no allocation; real-time safe. */
    void incPeriodCount(unsigned int nPeriods);
    unsigned int getSampleBytes();       ///< bytes of one sample
    unsigned int getSampleBits();        ///< bits of one sample
    unsigned int getPeriodBytes();       ///< bytes of one period
    std::string getSampleFormatString(); ///< the status text of the sample format
    std::string getPlaybackState();      ///< the status text of the state, with its own line end
    /** Adds to the period count without measuring a rate, as a reader does on its own side. */
    void addPeriods(unsigned int nPeriods);
    int32_t getPeriodCount() const { return periodCounter.load(std::memory_order_relaxed); }

protected:
    void resetPortParams(); ///< params becomes resetParams, the state AUDIO_STOPPED
    /**
     * One pass of a connect: offers checkParams to `peer`, lets it apply them if its check accepts, and tells the
     * outcome at trace level 1 under the name `operation`.
     *
     * @return the status of the check, or of the apply where the check was good
     */
    streamStatus offerParams(CAudioPort& peer, const char* operation);
    std::string blockNameOf(const CAudioPort& port) const; ///< of the block that owns `port`; empty without one

    CAudioBlock* parentBlock = nullptr; ///< not owned
    int* pTraceLevel = nullptr;         ///< the library's common trace level
    audioPortParam_t resetParams;       ///< what resetPortParams() restores
    /** Periods counted since construction. Atomic: the playback thread counts what a status printer reads. */
    std::atomic<int32_t> periodCounter{0};

    friend class CUpstreamPort;
    friend class CDownstreamPort;
};

/** A block's output. The two read operations are the data path of the whole graph. */
class CUpstreamPort : public CAudioPort
{
public:
    explicit CUpstreamPort(CAudioBlock* parent);
    ~CUpstreamPort() override;

    runTimeId getRunTimeId() override;
    bool isCompatibleWith(CAudioPort* port) override;
    std::string printPortStatus() override;
    streamStatus disconnect() override;
    bool isConnected(CAudioPort* port) override;

    /**
     * Joins this port to `port` and negotiates: the one entry point for connecting. Only the reverse pass decides
     * success. `mutex` is ignored. After a failure both ports are disconnected and back at their reset parameters.
     */
    virtual streamStatus connectDownstream(CDownstreamPort* port, mutexObject* mutex);
    /**
     * Asks what may be read.
     *
     * @param[out] pbuffer   audio in this block's own memory; lent until ackReadPeriods()
     * @param[out] nPeriods  whole periods available there; 0 with STREAM_OK means nothing is ready now
     */
    virtual streamStatus reqReadPeriods(char*& pbuffer, unsigned int& nPeriods);
    /** Tells how many of the offered periods were taken. Only this consumes. */
    virtual streamStatus ackReadPeriods(unsigned int nPeriods);

    CDownstreamPort* getDownstream() const { return downstream; } ///< the peer, or null

protected:
    CDownstreamPort* downstream = nullptr; ///< the peer; not owned, null while unconnected
};

/** A block's input. */
class CDownstreamPort : public CAudioPort
{
public:
    explicit CDownstreamPort(CAudioBlock* parent);
    ~CDownstreamPort() override;

    runTimeId getRunTimeId() override;
    bool isCompatibleWith(CAudioPort* port) override;
    std::string printPortStatus() override;
    streamStatus disconnect() override;
    bool isConnected(CAudioPort* port) override;

    /** The reverse pass of a connect; refuses unless called from within connectDownstream(). `mutex` is ignored. */
    virtual streamStatus connectUpstream(CUpstreamPort* port, mutexObject* mutex);

    CUpstreamPort* getUpstream() const { return upstream; } ///< the peer, or null

protected:
    CUpstreamPort* upstream = nullptr; ///< the peer; not owned, null while unconnected
};

} // namespace audioLibrarySpace
