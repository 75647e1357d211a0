#pragma once

/**
 * The sample-rate converter between a source and the mixer.
 *
 *   source --whole input periods--> [input work buffer] --> converter core --> [output work buffer] --one period--> mixer
 *
 * On each service the block reads the rate that the mixer demands, out of the mixer's input port, and retunes the
 * converter core to it: that closes the rate loop of the graph. It never asks for service at a time of its own, never
 * fails a service, and starts no thread.
 *
 * Threads: all of it on the thread that services the blocks; the mixer pulls from there too. No lock.
 * Units: frames, unless a name says periods or bytes. The transfer allocates nothing.
 */

#include "audioLibrary/asyncSampleRateConverter/asrc.h"
#include "audioLibrary/audioBlock.h"
#include "audioLibrary/osAbstraction/osAbstraction.h"

#include <cstddef>
#include <string>

namespace audioLibrarySpace
{

class CSampleRateConverter : public CAudioBlock
{
public:
    explicit CSampleRateConverter(std::string name);
    ~CSampleRateConverter() override; ///< frees the work buffers and the converter

    runTimeId getRunTimeId() override;
    /** Makes a two-channel converter and loads the filter; STREAM_ERROR if the converter can't be made. */
    streamStatus init() override;
    /** Merges all fields but the period size: input and output periods are independent. */
    streamStatus reconfigBlockCheck(audioPortParam_t& usp, audioPortParam_t dsp) override;
    /** Configures if need be, retunes, and fills the output period. Always STREAM_OK, `nextService` never. */
    streamStatus service(CServiceTime& nextService) override;
    std::string printBlockStatus() override;

    /** Matches the converter to the connected ports: channels, nominal rates, work buffers. Safe to repeat. */
    streamStatus myInit();
    /** Moves frames until one output period is complete or the input has no more. Always STREAM_OK. */
    streamStatus serviceBuffers();
    /** Sets the rates, in whole hertz, for a caller that steers by itself. The next service() retunes again. */
    streamStatus setRates(int inRate, int outRate);
    /**
     * Loads the coefficients from FilterCoeff.bin in the working directory. A file that is missing or too short leaves
     * the converter's filter as it was and answers ASRC_ERROR.
     */
    asrcStatus populateFilterCoeff(asrcHandle handle);

protected:
    friend class CSampleRateConverterUSP;
    friend class CSampleRateConverterDSP;

    asrcConfig asrcCfg{2};                 ///< the channel count that the converter was built with
    asrcHandle asrc = nullptr;             ///< the converter, owned; null before init() and after a disconnect
    char* in_workbuffer_frames = nullptr;  ///< one input period in the input port's format; owned
    char* out_workbuffer_frames = nullptr; ///< one output period in the output port's format; owned
    unsigned int in_ptr_frames = 0;        ///< frames of the input period handed on; the period size: used up
    unsigned int out_ptr_frames = 0;       ///< frames of the output period made
    bool workBufferFull = false;           ///< the output period is complete and waits for the mixer
    threadObject audioThread;              ///< no thread is started on it
    bool isConfigured = false;             ///< myInit() has completed: the converter may run
    bool isManualRateConfig = false;       ///< set by setRates(); nothing reads it
    int lastOutFrames = -1;                ///< frames that the last conversion gave

private:
    // What the work buffers were made for: a port can be renegotiated while its buffer stays.
    size_t inWorkBufferBytes = 0;
    size_t outWorkBufferBytes = 0;

    CAudioPort& inputPort() { return *downstream.front(); }
    CAudioPort& outputPort() { return *upstream.front(); }
    bool bothPortsConnected();
    streamStatus buildConverter(unsigned int nChannels);
    void makeWorkBuffers();
    void releaseConverter();
    void retune();
    void followDemand(const CAudioPort& source, const CAudioPort& mix);
    size_t converterFrameBytes() const { return asrcCfg.nChannels * sizeof(sampleint); }
    bool refillInput();
    void feedConverter();
    void copyInput(sampleint* destination, unsigned int numFrames) const;
    unsigned int drainConverter();
    bool lendableOutput();
};

/** Calls serviceBuffers() on the block given. The body of a thread that nobody starts. Answers null. */
void* asrcThreadHelper(void* block);

/** The converter's output: at most one period at a time. */
class CSampleRateConverterUSP : public CUpstreamPort
{
public:
    explicit CSampleRateConverterUSP(CSampleRateConverter* parent);
    ~CSampleRateConverterUSP() override;

    runTimeId getRunTimeId() override;
    /** Takes the reader's nominal rate, whatever its status: the output rate follows its consumer. */
    streamStatus reconfigPortCheck(audioPortParam_t* newParams) override;
    streamStatus reconfigPortApply(audioPortParam_t* newParams) override;
    streamStatus disconnect() override; ///< also frees the converter and the work buffers
    /** One period, lent until acknowledged, or 0 periods and `pbuffer` untouched. STREAM_OK. Allocates nothing. */
    streamStatus reqReadPeriods(char*& pbuffer, unsigned int& nPeriods) override;
    /**
     * Frees the waiting period for any `nPeriods`, also 0: an offer that isn't taken is dropped. With no period
     * waiting, anything but 0 is STREAM_ERROR.
     */
    streamStatus ackReadPeriods(unsigned int nPeriods) override;

private:
    CSampleRateConverter& converter() { return *static_cast<CSampleRateConverter*>(parentBlock); }
};

/** The converter's input. */
class CSampleRateConverterDSP : public CDownstreamPort
{
public:
    explicit CSampleRateConverterDSP(CSampleRateConverter* parent);
    ~CSampleRateConverterDSP() override;

    runTimeId getRunTimeId() override;
    /** As the base, but a failure is only told: whether the output can live with it decides. */
    streamStatus reconfigPortCheck(audioPortParam_t* newParams) override;
    streamStatus reconfigPortApply(audioPortParam_t* newParams) override;
    streamStatus disconnect() override; ///< also frees the converter and the work buffers

private:
    CSampleRateConverter& converter() { return *static_cast<CSampleRateConverter*>(parentBlock); }
};

} // namespace audioLibrarySpace
