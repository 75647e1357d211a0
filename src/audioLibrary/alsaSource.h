#pragma once

/**
 * The end of every graph and the clock that pulls it: a real-time thread that moves frames from the mixer to the card.
 *
 *   CMixerUSP --reqReadPeriods: a pointer into the ring--> CALSASource's thread --snd_pcm_writei--> sound card
 *             <--ackReadPeriods: whole periods written---
 *
 * It is called a source because it is where the card gets its samples from.
 *
 * Threads: construction, init(), setDeviceName(), status and destruction on the thread that owns the player;
 * writeSamples() on a thread of the block's own (SCHED_FIFO 99), which lives as long as the block.
 * Lock: none of its own. `hardwareInitialized` lends the open device to the thread, and `transferRunning` tells when
 * the thread has let go of it. The mixer's lock is taken only inside its two read operations.
 * What the thread may wait for: the card, the mixer's lock, and sleeps of 10 ms, 1 ms and 100 us. It never allocates.
 * Units: frames, unless a name says periods.
 */

#include "audioLibrary/audioBlock.h"
#include "audioLibrary/osAbstraction/osAbstraction.h"

#include <alsa/asoundlib.h>
#include <atomic>
#include <memory>
#include <sched.h>
#include <string>

namespace audioLibrarySpace
{

/**
 * The card's name for a sample format of the graph. A format without one, SAMPLE_S8BIT among them, writes
 * "invalid sample format: " and the number, as a line, to the standard error stream and answers
 * SND_PCM_FORMAT_UNKNOWN, which is -1. Any thread.
 */
snd_pcm_format_t streamToDeviceSampleFormat(sampleFormat_e format);

/** The way back, with the same words and SAMPLE_UNKNOWN for a format that the graph doesn't have. Any thread. */
sampleFormat_e deviceToStreamSampleFormat(snd_pcm_format_t format);

/** What a block knows of its sound device. */
struct alsaDevice_t {
    char pcm_name[21] = {};                            ///< the device string, cut at 20 characters
    unsigned int num_periods = 0;                      ///< periods asked of the card's buffer
    snd_pcm_uframes_t periodsize = 0;                  ///< frames of a card period
    snd_pcm_t* pcm_handle = nullptr;                   ///< the open device, or null
    snd_pcm_format_t format = SND_PCM_FORMAT_UNKNOWN;  ///< sample format
    snd_pcm_stream_t stream = SND_PCM_STREAM_PLAYBACK; ///< direction
    snd_pcm_uframes_t bufferSizeFrames = 0;            ///< the card's buffer, asked or granted: bounds a write
    snd_pcm_access_t access_type = SND_PCM_ACCESS_RW_INTERLEAVED; ///< how samples are handed over
    int mode = 0;                                                 ///< open mode; 0 blocks
};

class CALSASource;

/** The block's one input. All its parameters are fixed: what the card needs goes up the graph unchanged. */
class CALSASourceDSP : public CDownstreamPort
{
public:
    CALSASourceDSP(CALSASource* parent, unsigned int numChannels, float sampleRate, unsigned int periodSize,
                   sampleFormat_e sampleFormat);
    ~CALSASourceDSP() override;
    runTimeId getRunTimeId() override;
};

class CALSASource : public CAudioBlock
{
public:
    /**
     * Builds the block around the device `pDeviceName` (20 characters of it) and starts its thread, which idles until
     * init() has opened the device and the input plays.
     *
     * @param pNChannels     channels of a frame
     * @param pSampleRate    Hz
     * @param pNPeriods      periods in the card's buffer
     * @param pPeriodSize    frames of a period, the card's and the input port's
     * @param pSampleFormat  one of the 16-bit and 32-bit formats
     */
    CALSASource(std::string pName, unsigned int pNChannels, float pSampleRate, unsigned int pNPeriods,
                unsigned int pPeriodSize, sampleFormat_e pSampleFormat, std::string pDeviceName);
    /** Ends the thread, which may first finish a write to the card, then drops and closes a configured device. */
    ~CALSASource() override;

    runTimeId getRunTimeId() override;
    /**
     * Opens and configures the device, closing it first if it is open: start and restart are one. A device that can't
     * be opened costs four sleeps of 500 ms.
     *
     * @return STREAM_ERROR, with the cause on the standard error stream, if the device can't be had as needed; a
     *         device that was opened by then stays open, unused, until the next init() closes it
     */
    streamStatus init() override;
    /** Sets `nextService` to never: the block's own thread does the work. */
    streamStatus service(CServiceTime& nextService) override;
    std::string printBlockStatus() override;

    /** Moves to the device `name` (20 characters of it). Always STREAM_OK: the cause of a failure is on stderr. */
    streamStatus setDeviceName(const char* name);
    /** The body of the thread; returns once the destructor has asked it to. Real-time safe but for its first lines. */
    void writeSamples();
    void graphBuffer(); ///< does nothing

private:
    /** How the thread is scheduled; the thread's own. */
    struct threadScheduling_t {
        sched_param params = {};
        int policy = SCHED_OTHER;
    };

    // The steps of init(), in order. Those with a status have told the cause of a failure when they answer.
    void fillDeviceRecord();
    streamStatus openDevice();
    streamStatus configureDevice(snd_pcm_hw_params_t* hwParams);
    streamStatus beginHwParams(snd_pcm_hw_params_t* hwParams);
    streamStatus configureAccess(snd_pcm_hw_params_t* hwParams);
    streamStatus configureFormat(snd_pcm_hw_params_t* hwParams);
    streamStatus configureRate(snd_pcm_hw_params_t* hwParams);
    void adoptRate(unsigned int grantedRate);
    streamStatus configureChannels(snd_pcm_hw_params_t* hwParams);
    streamStatus configurePeriods(snd_pcm_hw_params_t* hwParams);
    streamStatus configureBufferSize(snd_pcm_hw_params_t* hwParams);
    streamStatus installHwParams(snd_pcm_hw_params_t* hwParams);

    void setPcmName(const char* name);
    void closeDevice();

    // The thread's side.
    static void* audioThreadHelper(void* source);
    void getRealTimePriority();
    CUpstreamPort* readyPeer() const;
    unsigned int transferOnce(CUpstreamPort& peer, char*& urptr, unsigned int& nPeriods);

    CALSASourceDSP* input() const { return static_cast<CALSASourceDSP*>(downstream.front()); }

    /** The device is open and configured, and lent to the thread. */
    std::atomic<bool> hardwareInitialized{false};
    mutexObject initMutex; ///< created and released with the block; nothing locks it
    threadScheduling_t threadScheduling;
    std::unique_ptr<alsaDevice_t> device_parameters; ///< the thread reads it while hardwareInitialized
    threadObject audioThread;
    std::atomic<bool> terminateThread{false}; ///< asks the thread to leave
    /** The thread is within a pass and may be using the device. */
    std::atomic<bool> transferRunning{false};
};

} // namespace audioLibrarySpace
