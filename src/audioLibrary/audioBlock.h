#pragma once

/**
 * CAudioBlock: the base of everything that handles audio, and the registry of all blocks in the process.
 *
 * A block owns its ports, has a name, is initialised, connected through chains, serviced from the player's loop and
 * prints its status. The audio work happens in derived classes, on their ports.
 *
 * Threads: all of it on the thread that owns the players; the registry has no lock.
 * Order of destruction: chains, then blocks (ports do not disconnect themselves).
 */

#include "audioLibrary/audioPort.h"
#include "audioLibrary/audioTrace.h"
#include "audioLibrary/audioTypes.h"
#include "audioLibrary/serviceTime.h"

#include <list>
#include <string>
#include <vector>

namespace audioLibrarySpace
{

class CAudioBlock
{
public:
    /** Joins the registry under `name` (at most 32 characters). */
    explicit CAudioBlock(std::string name);
    /** Leaves the registry and deletes the ports, upstream ones first, each list from its end. */
    virtual ~CAudioBlock();
    CAudioBlock(const CAudioBlock&) = delete;
    CAudioBlock& operator=(const CAudioBlock&) = delete;

    virtual runTimeId getRunTimeId(); ///< of the concrete class; INVALID_ID in the base
    virtual streamStatus init();      ///< sets isInitialized
    /** The first unconnected input, or null. A block may make one on demand. */
    virtual CDownstreamPort* getNextDownstreamPort();
    /** Merges `newParams` into `paramsToCheck` by the ports' rule, without any words: a port's reach across its block. */
    virtual streamStatus reconfigBlockCheck(audioPortParam_t& paramsToCheck, audioPortParam_t newParams);
    virtual streamStatus reconfigBlockApply(audioPortParam_t newParams); ///< does nothing: STREAM_OK. Called by nobody
    /**
     * Does what is due now and says in `nextService` when the block wants to run next; never, in the base.
     * A status other than STREAM_OK fails the player.
     */
    virtual streamStatus service(CServiceTime& nextService);
    virtual std::string printBlockStatus(); ///< name, kinds of ports and the status of each port, several lines

    unsigned int numUpstreamPorts() const { return static_cast<unsigned int>(upstream.size()); }
    unsigned int numDownstreamPorts() const { return static_cast<unsigned int>(downstream.size()); }
    std::string name() const { return blockName; }
    CUpstreamPort* getUpstreamPort(unsigned int index);     ///< null when out of range
    CDownstreamPort* getDownstreamPort(unsigned int index); ///< null when out of range
    CUpstreamPort* getNextUpstreamPort();                   ///< the first unconnected output, or null

    static streamStatus initAllBlocks();                  ///< init() on each, results ignored; always STREAM_OK
    static void deleteAllBlocks();                        ///< the first ALSA_SOURCE, then the rest from the front
    static std::string printAllBlocks();                  ///< "(%2d) " and the status of each
    static CAudioBlock* returnAudioBlock(unsigned int n); ///< the n-th from 0, or null

    /** Whether a block that lives has this downstream port: a peer's pointer outlives its block. Only compares. */
    static bool ownsPort(const CDownstreamPort* port);

protected:
    std::vector<CUpstreamPort*> upstream;     ///< outputs, owned
    std::vector<CDownstreamPort*> downstream; ///< inputs, owned
    uint32_t MAX_DS_PORTS = 0;                ///< bound for a block that makes inputs on demand; unused in the base
    uint32_t MAX_US_PORTS = 0;                ///< the same for outputs
    int* pTraceLevel = nullptr;               ///< the library's common trace level
    std::string blockName;                    ///< in every status and log line
    bool isInitialized = false;               ///< set by init()

    static std::list<CAudioBlock*> allBlocks; ///< in order of construction; owns nothing
};

} // namespace audioLibrarySpace
