#pragma once

/**
 * CToneGenerator: a sine wave from a numerically controlled oscillator, the source that stands in for a file.
 *
 *   nco_acc, + nco_tw a frame --top nine bits--> sineTable --interpolation--> workBuffer --one period--> output
 *
 * It has no clock and no pacing: a period is ready whenever the last one was acknowledged.
 *
 * Threads: configuration on the thread that owns the player, the output port on the reader's; no lock. Nothing on the
 * data path computes in floating point or allocates.
 */

#include "audioLibrary/audioPlay.h"

#include <array>
#include <cstdint>
#include <memory>
#include <string>

namespace audioLibrarySpace
{

class CToneGenerator;

/** The tone's output. It accepts whatever its peer needs. */
class CToneGeneratorUSP : public CUpstreamPort
{
public:
    /** Starts variable in all but interleaving, at `sampleRate` Hz. `parent` owns this port. */
    CToneGeneratorUSP(CToneGenerator* parent, float sampleRate);
    ~CToneGeneratorUSP() override;

    runTimeId getRunTimeId() override;
    streamStatus reconfigPortCheck(audioPortParam_t* newParams) override; ///< any record will do; nothing changes
    streamStatus reconfigPortApply(audioPortParam_t* newParams) override; ///< copies the record, makes the buffer
    /** Exactly one period, the same until it is acknowledged; none while there is no buffer. Real-time safe. */
    streamStatus reqReadPeriods(char*& pbuffer, unsigned int& nPeriods) override;
    /** Takes the period; 0 changes nothing. Real-time safe. */
    streamStatus ackReadPeriods(unsigned int nPeriods) override;

protected:
    friend class CToneGenerator;
    void fillWorkBuffer(); ///< one period of samples into the block's buffer, bounded by its size

    CToneGenerator* tone;        ///< the parent, not owned
    bool workBufferFull = false; ///< the work buffer holds a period that has not been acknowledged
};

class CToneGenerator : public CAudioPlay
{
public:
    /** One output at `sampleRate` Hz; the tone itself comes with init() or cfgTone(). */
    CToneGenerator(std::string name, float sampleRate);
    ~CToneGenerator() override;

    runTimeId getRunTimeId() override;
    /** Gives an unconfigured generator 1000 Hz at amplitude 0.5. isInitialized stays false. */
    streamStatus init() override;
    streamStatus service(CServiceTime& nextService) override; ///< never: no timed work

    /**
     * Sets the tone and restarts its phase.
     *
     * @param freq  Hz, at the rate that the output has now: a later change of rate doesn't retune
     * @param amp   relative amplitude; 1.0 peaks at 10000 of 32767
     * @return STREAM_OK, always
     */
    streamStatus cfgTone(float freq, float amp);

protected:
    friend class CToneGeneratorUSP;

    static constexpr uint32_t TABLE_SIZE = 512; ///< a power of two: the accumulator's top nine bits

    void generateSineTable(); ///< sineTable from amplitude
    /** One frame: the interpolated sample times 65536, and the phase moves on. Real-time safe. */
    int32_t getSample();
    /** A fresh buffer of one period for a connected output, none for an unconnected one. Always STREAM_OK. */
    streamStatus allocateWorkBuffer();

    uint32_t workBufferSize = 0;        ///< bytes in workBuffer
    std::unique_ptr<char[]> workBuffer; ///< one period of output; null until the port is configured
    float amplitude = -1.0F;            ///< relative amplitude; -1.0 means not configured
    uint32_t nco_acc = 0;               ///< phase, 2^32 to the cycle
    uint32_t nco_tw = 0;                ///< tuning word: phase per frame
    /** One cycle of sine, scaled by amplitude. */
    std::array<int16_t, TABLE_SIZE> sineTable{};
    CServiceTime started;    ///< the time of init(); read by nothing
    int32_t totalFrames = 0; ///< zeroed by init(); read by nothing
};

} // namespace audioLibrarySpace
