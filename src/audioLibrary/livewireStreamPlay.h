#pragma once

/**
 * ClivewireStreamPlay: source block for one Livewire destination, which the sound-card driver presents as an ALSA
 * capture device "hw:Axia," and a number.
 *
 *   device --snd_pcm_readi, never waits--> tempCaptureBuffer --> workBuffer --lent, whole periods--> reader
 *                                                   (ring)  [..TOOOOOCOOOOOH....]
 *
 *   T  workBufferConsumingTail   first frame not yet acknowledged
 *   C  workBufferConsumingHead   end of what is lent; equal to T while nothing is
 *   H  workBufferHead            where the next captured frame goes
 *
 * The source is live: it has no end but the failure of its device, and a failed device is not opened again. A ring
 * that is full drops what comes; nothing slows the device.
 *
 * Threads: all of it on the thread that services the blocks; no call waits for the device.
 * Lock: captureBufferMutex guards the two flags and the three indices, and is released around every call into ALSA.
 * Lent frames are read without it: they stay put until they are acknowledged.
 * Units: frames, unless a name says periods. No transfer allocates.
 */

#include "audioLibrary/alsaSource.h"
#include "audioLibrary/audioPlay.h"
#include "audioLibrary/osAbstraction/osAbstraction.h"

#include <cstdint>
#include <memory>
#include <string>

namespace audioLibrarySpace
{

class ClivewireStreamPlay;

/** The output of a ClivewireStreamPlay. All its parameters are fixed: it takes nothing from its peer. */
class ClivewireStreamPlayUSP : public CUpstreamPort
{
public:
    explicit ClivewireStreamPlayUSP(ClivewireStreamPlay* parent);
    ~ClivewireStreamPlayUSP() override;

    runTimeId getRunTimeId() override;
    /** Takes on a record that its own check accepts, and answers that check's status. */
    streamStatus reconfigPortApply(audioPortParam_t* newParams) override;
    streamStatus connectDownstream(CDownstreamPort* port, mutexObject* mutex) override;
    /** The block's, with this port's period. Real-time safe. */
    streamStatus reqReadPeriods(char*& pbuffer, unsigned int& nPeriods) override;
    /** The block's, with this port's period. Counts the periods, which the request has counted too. Real-time safe. */
    streamStatus ackReadPeriods(unsigned int nPeriods) override;

private:
    ClivewireStreamPlay* block() const;
};

class ClivewireStreamPlay : public CAudioPlay
{
public:
    static constexpr uint32_t def_num_channels_per_frame = 2;
    static constexpr uint32_t def_bytes_per_sample = 2;
    static constexpr uint32_t def_sample_rate = 48000;           ///< Hz, asked of the device
    static constexpr uint32_t def_frames_per_sw_period = 1024;   ///< a period of the output
    static constexpr uint32_t def_frames_per_hw_period = 1024;   ///< a period of the device
    static constexpr uint32_t def_num_periods_in_sw_buffer = 48; ///< periods in the ring: about a second
    static constexpr uint32_t def_num_periods_in_hw_buffer = 16; ///< periods in the device's buffer: 341 ms
    static constexpr uint32_t workBufferFrames = def_num_periods_in_sw_buffer * def_frames_per_sw_period;

    /** One sample of every channel. */
    struct frame_t {
        int16_t samples[def_num_channels_per_frame];
    };

    /**
     * Opens and configures the capture device `pDevicename` (20 characters of it) and makes the buffers. A device that
     * can't be had leaves a block that delivers nothing and whose timeLeft() is 0; most causes are not told. Ends the
     * process with exit(-1) if there is no memory for a buffer.
     */
    ClivewireStreamPlay(std::string pName, std::string pDevicename);
    /** Drops what the device still holds and closes it. */
    ~ClivewireStreamPlay() override;

    runTimeId getRunTimeId() override;
    /**
     * Drains the device into the ring. The first service starts the capture.
     *
     * @param[out] nextService  42 ms from now, or never once the device is closed
     * @return STREAM_OK, always
     */
    streamStatus service(CServiceTime& nextService) override;
    /** -1 while the device is usable, 0 once it has failed: then this source has ended. */
    int32_t timeLeft() override;

    /**
     * Reads once from the device, at most a device period, and puts the frames in the ring; while the output is
     * stopped they are thrown away. Starts the device if that has not been done.
     *
     * @return frames read; 0 when the device has none now, after an overrun and after a failure, which may have closed
     *         the device
     */
    unsigned int getSamples();
    /**
     * Offers the whole periods that lie together in the ring, or the one that crosses the ring's end as a copy.
     * Nothing is offered while an offer has not been acknowledged.
     *
     * @param[out] pbuffer           first frame, lent until ackReadPeriods(); null with 0 periods
     * @param[out] nPeriods          periods there
     * @param      nFramesPerPeriod  frames of the reader's period. No period of more than def_frames_per_sw_period
     *                               can be joined across the ring's end: the frames before it are then dropped.
     * @return STREAM_OK, always. Real-time safe.
     */
    streamStatus reqReadPeriods(char*& pbuffer, unsigned int& nPeriods, unsigned int nFramesPerPeriod);
    /**
     * Frees `nPeriods` of the last offer; the rest of it will be offered again. Without an offer this moves the ring's
     * tail over frames that nobody has seen: a reader must not do that.
     *
     * @return STREAM_OK, always. Real-time safe.
     */
    streamStatus ackReadPeriods(unsigned int nPeriods, unsigned int nFramesPerPeriod);

    /** Frames that a ring with these indices takes: one slot stays free, so that full never looks empty. */
    static uint32_t framesFree(uint32_t head, uint32_t tail);

protected:
    bool is_open = false;   ///< the device is usable; cleared for good when it fails. Under captureBufferMutex
    bool isstarted = false; ///< snd_pcm_start has been called. Under captureBufferMutex
    std::unique_ptr<alsaDevice_t> device_parameters; ///< touched by the servicing thread only
    std::unique_ptr<frame_t[]> workBuffer;           ///< the ring, workBufferFrames of it
    uint32_t workBufferHead = 0; ///< index where the next captured frame goes. Under captureBufferMutex
    /** Index of the end of what was handed out and not yet acknowledged. Under captureBufferMutex. */
    uint32_t workBufferConsumingHead = 0;
    uint32_t workBufferConsumingTail = 0; ///< index of the first frame not yet acknowledged. Under captureBufferMutex
    std::unique_ptr<frame_t[]> temp_LinearizingBuffer; ///< one period: joins a period that crosses the ring's end
    std::unique_ptr<frame_t[]> tempCaptureBuffer;      ///< one device period: receives one read
    mutexObject captureBufferMutex;

private:
    CUpstreamPort* output() const { return upstream.front(); }

    // The constructor's steps. Those of the device answer ALSA's result; anything but 0 ends the configuration.
    void fillDeviceRecord(const std::string& deviceName);
    void configureDevice();
    int openPcm();
    int configureAccess(snd_pcm_hw_params_t* hwParams);
    int configureFormat(snd_pcm_hw_params_t* hwParams);
    int configureRate(snd_pcm_hw_params_t* hwParams);
    int configureChannels(snd_pcm_hw_params_t* hwParams);
    int configurePeriods(snd_pcm_hw_params_t* hwParams);
    int configureBufferSize(snd_pcm_hw_params_t* hwParams);
    int prepareDevice();
    void allocateBuffers();

    bool isOpen();
    void setOpen(bool open);
    void closeDevice();
    void dropAndCloseDevice();

    // Capture.
    bool startCapture();
    void handleReadError(int error);
    void storeFrames(uint32_t frames);
    uint32_t copyIntoRing(uint32_t firstFrame, uint32_t numFrames);
    void tellIfClobbered(uint32_t position);

    // Reading, with the mutex held.
    void offerFromRing(char*& pbuffer, unsigned int& nPeriods, uint32_t numFramesTogether, uint32_t nFramesPerPeriod);
    void offerAcrossEnd(char*& pbuffer, unsigned int& nPeriods, uint32_t num_frames_to_top, uint32_t nFramesPerPeriod);
};

static_assert(sizeof(ClivewireStreamPlay::frame_t) ==
              ClivewireStreamPlay::def_num_channels_per_frame * ClivewireStreamPlay::def_bytes_per_sample);

} // namespace audioLibrarySpace
