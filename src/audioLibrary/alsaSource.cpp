/**
 * The playback block: init() on the thread that owns the player, the transfer loop on a thread of its own. The one
 * place of this program where the playback side of the ALSA library is called.
 */

#include "audioLibrary/alsaSource.h"

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <unistd.h>
#include <utility>

namespace audioLibrarySpace
{

namespace
{

/** The top of the SCHED_FIFO range: nothing may hold up the card. */
constexpr int PLAYBACK_PRIORITY = 99;

constexpr int OPEN_ATTEMPTS = 5;
constexpr unsigned int OPEN_RETRY_US = 500000;

// The loop's sleeps keep a thread of the highest priority from starving the system.
constexpr unsigned int IDLE_US = 10000;           ///< no open device, or the input doesn't play
constexpr unsigned int NOTHING_OFFERED_US = 1000; ///< the mixer has nothing to give
constexpr unsigned int AFTER_WRITE_US = 100;
constexpr unsigned int NO_SLEEP = 0;

/** How often the owner looks whether the thread has let go of the device. */
constexpr unsigned int LET_GO_US = 1000;

constexpr float NOMINAL_RATE = 48000.0F;
/** The measured output clock of the station's hardware at nominal 48 kHz, and what the rate loop steers towards. */
constexpr float TRUE_RATE_AT_NOMINAL = 47982.0F;

} // namespace

snd_pcm_format_t streamToDeviceSampleFormat(sampleFormat_e format)
{
    switch (format) {
    case SAMPLE_S16BIT_LE:
        return SND_PCM_FORMAT_S16_LE;
    case SAMPLE_S16BIT_BE:
        return SND_PCM_FORMAT_S16_BE;
    case SAMPLE_S32BIT_LE:
        return SND_PCM_FORMAT_S32_LE;
    case SAMPLE_S32BIT_BE:
        return SND_PCM_FORMAT_S32_BE;
    case SAMPLE_UNKNOWN:
    case SAMPLE_S8BIT:
        break;
    }
    fprintf(stderr, "invalid sample format: %d\n", static_cast<int>(format));
    return SND_PCM_FORMAT_UNKNOWN;
}

sampleFormat_e deviceToStreamSampleFormat(snd_pcm_format_t format)
{
    if (format == SND_PCM_FORMAT_S16_LE) {
        return SAMPLE_S16BIT_LE;
    }
    if (format == SND_PCM_FORMAT_S16_BE) {
        return SAMPLE_S16BIT_BE;
    }
    if (format == SND_PCM_FORMAT_S32_LE) {
        return SAMPLE_S32BIT_LE;
    }
    if (format == SND_PCM_FORMAT_S32_BE) {
        return SAMPLE_S32BIT_BE;
    }
    fprintf(stderr, "invalid sample format: %d\n", static_cast<int>(format));
    return SAMPLE_UNKNOWN;
}

// ------------------------------------------------------------------------------------------------ CALSASourceDSP

CALSASourceDSP::CALSASourceDSP(CALSASource* parent, unsigned int numChannels, float sampleRate, unsigned int periodSize,
                               sampleFormat_e sampleFormat)
    : CDownstreamPort(parent)
{
    AUDIO_TRACE_CALL();
    resetParams.nominalSampleRateStatus = FIXED;
    resetParams.nominalSampleRate = sampleRate;
    resetParams.trueSampleRateStatus = FIXED;
    resetParams.trueSampleRate = sampleRate;
    resetParams.numChannelsStatus = FIXED;
    resetParams.numChannels = numChannels;
    resetParams.sampleFormatStatus = FIXED;
    resetParams.sampleFormat = sampleFormat;
    resetParams.samplesInterleavedStatus = FIXED;
    resetParams.samplesInterleaved = true;
    resetParams.periodSizeStatus = FIXED;
    resetParams.periodSize = periodSize;
    resetPortParams();
}

CALSASourceDSP::~CALSASourceDSP()
{
    AUDIO_TRACE_CALL();
}

runTimeId CALSASourceDSP::getRunTimeId()
{
    AUDIO_TRACE_CALL();
    return ALSA_SOURCE_DSP;
}

// --------------------------------------------------------------------------------------------------- CALSASource

CALSASource::CALSASource(std::string pName, unsigned int pNChannels, float pSampleRate, unsigned int pNPeriods,
                         unsigned int pPeriodSize, sampleFormat_e pSampleFormat, std::string pDeviceName)
    : CAudioBlock(std::move(pName)), device_parameters(std::make_unique<alsaDevice_t>())
{
    AUDIO_TRACE_CALL();
    (void)osaCreateMutex(&initMutex); // it has told its failure, and nothing locks it
    downstream.push_back(new CALSASourceDSP(this, pNChannels, pSampleRate, pPeriodSize, pSampleFormat));
    setPcmName(pDeviceName.c_str());
    device_parameters->num_periods = pNPeriods;
    device_parameters->periodsize = pPeriodSize;

    // Last: the thread runs from here on and finds the block complete.
    audioThread.threadPtr = this;
    audioThread.threadFn = audioThreadHelper;
    (void)osaCreateThread(&audioThread); // it has told its failure
}

CALSASource::~CALSASource()
{
    AUDIO_TRACE_CALL();
    terminateThread = true;
    usleep(IDLE_US);
    (void)osaExitThread(&audioThread); // it has no failure
    usleep(IDLE_US);

    puts("Stopping ALSA Device and dropping remaining frames.");
    if (hardwareInitialized) {
        puts("Stopping ALSA Device and dropping remaining frames.");
        snd_pcm_drop(device_parameters->pcm_handle);
        snd_pcm_close(device_parameters->pcm_handle);
        device_parameters->pcm_handle = nullptr;
        hardwareInitialized = false;
    }
    (void)osaReleaseMutex(&initMutex); // it has no failure
    device_parameters.reset();
}

runTimeId CALSASource::getRunTimeId()
{
    AUDIO_TRACE_CALL();
    return ALSA_SOURCE;
}

streamStatus CALSASource::service(CServiceTime& nextService)
{
    AUDIO_TRACE_CALL();
    nextService.setNeverService();
    return STREAM_OK;
}

std::string CALSASource::printBlockStatus()
{
    AUDIO_TRACE_CALL();
    return CAudioBlock::printBlockStatus();
}

void CALSASource::graphBuffer()
{
    AUDIO_TRACE_CALL();
}

streamStatus CALSASource::setDeviceName(const char* name)
{
    AUDIO_TRACE_CALL();
    assert(name != nullptr);
    setPcmName(name);
    if (init() != STREAM_OK && device_parameters->pcm_handle != nullptr) {
        AUDIO_TRACE_PUTS(1, "Failed to initialize, stopping ALSA Device and dropping remaining frames.");
        closeDevice();
    }
    return STREAM_OK;
}

void CALSASource::setPcmName(const char* name)
{
    char* const pcmName = device_parameters->pcm_name;
    const size_t length = strnlen(name, sizeof device_parameters->pcm_name - 1);
    std::memset(pcmName, 0, sizeof device_parameters->pcm_name);
    std::memcpy(pcmName, name, length);
}

/** Stops and closes the open device. The thread may be within a write: it is taken off the device before the close. */
void CALSASource::closeDevice()
{
    hardwareInitialized = false; // first, so that the thread begins no further pass on this handle
    snd_pcm_drop(device_parameters->pcm_handle);
    while (transferRunning) {
        usleep(LET_GO_US); // the drop has woken it
    }
    snd_pcm_close(device_parameters->pcm_handle);
    puts("Success, restarting ....");
    device_parameters->pcm_handle = nullptr;
}

// ------------------------------------------------------------------------------------------- opening the device

streamStatus CALSASource::init()
{
    AUDIO_TRACE_CALL();
    if (device_parameters->pcm_handle != nullptr) {
        puts("Stopping ALSA Device and dropping remaining frames.");
        closeDevice();
    }
    AUDIO_TRACE_PUTS(1, "Initializing ALSA Device...");
    fillDeviceRecord();
    AUDIO_TRACE_PRINTF(1, "   Playback device:\t%s\n", device_parameters->pcm_name);

    streamStatus status = openDevice();
    if (status != STREAM_OK) {
        return status;
    }
    snd_pcm_hw_params_t* hwParams = nullptr;
    snd_pcm_hw_params_alloca(&hwParams); // comes zeroed
    status = configureDevice(hwParams);
    if (status != STREAM_OK) {
        return status;
    }
    hardwareInitialized = true; // from here on the thread may use the device
    return STREAM_OK;
}

void CALSASource::fillDeviceRecord()
{
    const audioPortParam_t& params = input()->params;
    alsaDevice_t& device = *device_parameters;
    device.format = streamToDeviceSampleFormat(params.sampleFormat);
    device.mode = 0;
    device.stream = SND_PCM_STREAM_PLAYBACK;
    device.access_type = params.samplesInterleaved ? SND_PCM_ACCESS_RW_INTERLEAVED : SND_PCM_ACCESS_RW_NONINTERLEAVED;
    device.bufferSizeFrames = device.num_periods * device.periodsize;
}

streamStatus CALSASource::openDevice()
{
    alsaDevice_t& device = *device_parameters;
    for (int attempt = 1;; attempt++) {
        if (snd_pcm_open(&device.pcm_handle, device.pcm_name, device.stream, device.mode) >= 0) {
            return STREAM_OK;
        }
        const char* const cause = strerror(errno);
        device.pcm_handle = nullptr;
        if (attempt == OPEN_ATTEMPTS) {
            fprintf(stderr, "Error opening PCM device %s %s. Failed!\n", device.pcm_name, cause);
            return STREAM_ERROR;
        }
        fprintf(stderr, "Error opening PCM device %s %s. Retrying...\n", device.pcm_name, cause);
        usleep(OPEN_RETRY_US);
    }
}

/**
 * Narrows what the card can do down to what the port needs, in the order in which one choice limits the next, and
 * installs it. The period size follows from the number of periods and the buffer size.
 */
streamStatus CALSASource::configureDevice(snd_pcm_hw_params_t* hwParams)
{
    using step = streamStatus (CALSASource::*)(snd_pcm_hw_params_t*);
    static constexpr step steps[] = {
        &CALSASource::beginHwParams,       &CALSASource::configureAccess,   &CALSASource::configureFormat,
        &CALSASource::configureRate,       &CALSASource::configureChannels, &CALSASource::configurePeriods,
        &CALSASource::configureBufferSize, &CALSASource::installHwParams,
    };
    for (const step next : steps) {
        const streamStatus status = (this->*next)(hwParams);
        if (status != STREAM_OK) {
            return status;
        }
    }
    return STREAM_OK;
}

streamStatus CALSASource::beginHwParams(snd_pcm_hw_params_t* hwParams)
{
    const int error = snd_pcm_hw_params_any(device_parameters->pcm_handle, hwParams);
    if (error < 0) {
        fprintf(stderr, "Cannot set any hwparams, failed: %s\n", snd_strerror(error));
        return STREAM_ERROR;
    }
    return STREAM_OK;
}

streamStatus CALSASource::configureAccess(snd_pcm_hw_params_t* hwParams)
{
    AUDIO_TRACE_PRINTF(1, "   Access: \t\t%s\n", "Interleaved"); // the one mode that is used, said of both
    if (snd_pcm_hw_params_set_access(device_parameters->pcm_handle, hwParams, device_parameters->access_type) < 0) {
        fprintf(stderr, "Error setting access.\n");
        return STREAM_ERROR;
    }
    return STREAM_OK;
}

streamStatus CALSASource::configureFormat(snd_pcm_hw_params_t* hwParams)
{
    AUDIO_TRACE_PRINTF(1, "   Format: \t\t%s\n", input()->getSampleFormatString().c_str());
    if (snd_pcm_hw_params_set_format(device_parameters->pcm_handle, hwParams, device_parameters->format) < 0) {
        fprintf(stderr, "Error setting format.\n");
        return STREAM_ERROR;
    }
    return STREAM_OK;
}

streamStatus CALSASource::configureRate(snd_pcm_hw_params_t* hwParams)
{
    snd_pcm_t* const handle = device_parameters->pcm_handle;
    const int error = snd_pcm_hw_params_set_rate_resample(handle, hwParams, 0);
    if (error < 0) {
        // A card that can't promise it still plays.
        fprintf(stderr, "Failed to set rates to only hardware supported ones: %s\n", snd_strerror(error));
    }
    unsigned int sampleRate = saturatingToUnsigned(input()->params.nominalSampleRate);
    if (snd_pcm_hw_params_set_rate_near(handle, hwParams, &sampleRate, nullptr) < 0) {
        fprintf(stderr, "Error setting rate.\n");
        return STREAM_ERROR;
    }
    adoptRate(sampleRate);
    return STREAM_OK;
}

/** Takes on the rate that the card runs at: what the mixer learns when it is connected, and steers towards. */
void CALSASource::adoptRate(unsigned int grantedRate)
{
    audioPortParam_t& params = input()->params;
    params.trueSampleRate = static_cast<float>(grantedRate);
    AUDIO_TRACE_PRINTF(1, "   Rate: \t\t%f\n", static_cast<double>(params.trueSampleRate));
    if (params.nominalSampleRate != params.trueSampleRate) {
        fprintf(stderr, "The rate %f Hz is not supported by your hardware.\n ==> Using %f Hz instead.\n",
                static_cast<double>(params.nominalSampleRate), static_cast<double>(params.trueSampleRate));
        params.nominalSampleRate = params.trueSampleRate;
    }
    if (params.nominalSampleRate == NOMINAL_RATE) {
        params.trueSampleRate = TRUE_RATE_AT_NOMINAL;
    }
}

streamStatus CALSASource::configureChannels(snd_pcm_hw_params_t* hwParams)
{
    const uint32_t numChannels = input()->params.numChannels;
    AUDIO_TRACE_PRINTF(1, "   Channels: \t\t%d\n", static_cast<int>(numChannels));
    if (snd_pcm_hw_params_set_channels(device_parameters->pcm_handle, hwParams, numChannels) < 0) {
        fprintf(stderr, "Error setting channels.\n");
        return STREAM_ERROR;
    }
    return STREAM_OK;
}

streamStatus CALSASource::configurePeriods(snd_pcm_hw_params_t* hwParams)
{
    const alsaDevice_t& device = *device_parameters;
    unsigned int exact_num_periods = device.num_periods;
    const int error = snd_pcm_hw_params_set_periods_near(device.pcm_handle, hwParams, &exact_num_periods, nullptr);
    if (error < 0) {
        fprintf(stderr, "Error setting periods. (%d)\n", error);
        return STREAM_ERROR;
    }
    AUDIO_TRACE_PRINTF(1, "   Periods: \t\t%d\n", static_cast<int>(exact_num_periods));
    if (exact_num_periods != device.num_periods) {
        // Said, and not stored: the next init() asks for the wanted number again.
        fprintf(stderr, "The num of Periods %d is not supported by your hardware.\n ==> Using %d instead.\n",
                static_cast<int>(device.num_periods), static_cast<int>(exact_num_periods));
    }
    return STREAM_OK;
}

streamStatus CALSASource::configureBufferSize(snd_pcm_hw_params_t* hwParams)
{
    alsaDevice_t& device = *device_parameters;
    AUDIO_TRACE_PRINTF(1, "   Periodsize: \t\t%d\n", static_cast<int>(device.periodsize));
    snd_pcm_uframes_t actual_size = device.bufferSizeFrames;
    if (snd_pcm_hw_params_set_buffer_size_near(device.pcm_handle, hwParams, &actual_size) < 0) {
        fprintf(stderr, "Error setting buffersize.\n");
        return STREAM_ERROR;
    }
    AUDIO_TRACE_PRINTF(9, "Attempting to set Hardware buffer size to: %ld \n",
                       static_cast<long>(device.bufferSizeFrames));
    if (actual_size != device.bufferSizeFrames) {
        fprintf(stderr, "The buffer size %d is not supported by your hardware.\n ==> Using %d instead.\n",
                static_cast<int>(device.bufferSizeFrames), static_cast<int>(actual_size));
        device.bufferSizeFrames = actual_size;
    }
    AUDIO_TRACE_PRINTF(1, "   HardwareBufferSize:   %ld \n", static_cast<long>(device.bufferSizeFrames));
    return STREAM_OK;
}

streamStatus CALSASource::installHwParams(snd_pcm_hw_params_t* hwParams)
{
    const int error = snd_pcm_hw_params(device_parameters->pcm_handle, hwParams);
    if (error < 0) {
        fprintf(stderr, "Error setting HW params: %s\n", snd_strerror(error));
        return STREAM_ERROR;
    }
    return STREAM_OK;
}

// ----------------------------------------------------------------------------------------- the playback thread

void* CALSASource::audioThreadHelper(void* source)
{
    static_cast<CALSASource*>(source)->writeSamples();
    return nullptr;
}

void CALSASource::writeSamples()
{
    AUDIO_TRACE_CALL();
    getRealTimePriority();
    char* urptr = nullptr;
    unsigned int nPeriods = 0;
    while (!terminateThread) {
        transferRunning = true;
        CUpstreamPort* const peer = readyPeer();
        const unsigned int sleepUs = peer != nullptr ? transferOnce(*peer, urptr, nPeriods) : IDLE_US;
        transferRunning = false;
        if (sleepUs != NO_SLEEP) {
            usleep(sleepUs);
        }
    }
    AUDIO_TRACE_PUTS(0, "ASLA Write samples terminating"); // sic
}

void CALSASource::getRealTimePriority()
{
    puts("ALSA Playback getting real-time priority....");
    threadScheduling.params.sched_priority = PLAYBACK_PRIORITY;
    threadScheduling.policy = SCHED_FIFO;
    if (sched_setscheduler(0, threadScheduling.policy, &threadScheduling.params) == 0) {
        printf("Success! Policy = RealTime-FIFO, Priority = %d\n", threadScheduling.params.sched_priority);
    } else {
        puts("Failed!"); // playback goes on at the priority that it has
    }
}

/**
 * The port to read from, or null unless the device and the input are ready. The order counts: each flag was set after
 * what the next test looks at. Real-time safe.
 */
CUpstreamPort* CALSASource::readyPeer() const
{
    if (!hardwareInitialized || input()->portPlaybackState != AUDIO_PLAYING) {
        return nullptr;
    }
    return input()->getUpstream();
}

/**
 * One pass: what the mixer offers goes to the card, which blocks until it has room, and so paces the whole graph.
 * Only whole periods are acknowledged: what the card took of a further one is offered to it again.
 *
 * @param peer      the mixer's output
 * @param urptr     the mixer's last offer, a pointer into its ring
 * @param nPeriods  periods there; after a transfer the number acknowledged
 * @return microseconds to sleep before the next pass
 * Real-time safe.
 */
unsigned int CALSASource::transferOnce(CUpstreamPort& peer, char*& urptr, unsigned int& nPeriods)
{
    CALSASourceDSP& port = *input();
    snd_pcm_t* const handle = device_parameters->pcm_handle;
    const uint32_t periodSize = port.params.periodSize;

    (void)peer.reqReadPeriods(urptr, nPeriods); // an offer without periods tells all that matters here
    AUDIO_TRACE_PRINTF(8, "Mixer request returned %d periods.\n", static_cast<int>(nPeriods));
    // The mixer's answer after it ran dry is a count of frames: the card's buffer is what bounds it.
    const auto frames = static_cast<snd_pcm_uframes_t>(
        std::min<uint64_t>(uint64_t{periodSize} * nPeriods, device_parameters->bufferSizeFrames));
    if (frames == 0) {
        return NOTHING_OFFERED_US;
    }

    const snd_pcm_sframes_t framesTx = snd_pcm_writei(handle, urptr, frames);
    if (framesTx == -EAGAIN || framesTx == 0) {
        return NO_SLEEP;
    }
    if (framesTx < 0) {
        snd_pcm_prepare(handle); // the whole recovery: the next write starts the stream again
        AUDIO_TRACE_PRINTF(0, "%d <<<<<<<<<<<<<<< Buffer Underrun >>>>>>>>>>>>>>>>>>>>>\n", static_cast<int>(framesTx));
        return NO_SLEEP;
    }

    const auto framesTaken = static_cast<snd_pcm_uframes_t>(framesTx);
    if (framesTaken % periodSize != 0) {
        AUDIO_TRACE_PRINTF(0, "ERROR! Transferred %d frames to the buffer. PS: %d\n", static_cast<int>(framesTx),
                           static_cast<int>(periodSize));
    }
    nPeriods = static_cast<unsigned int>(framesTaken / periodSize);
    (void)peer.ackReadPeriods(nPeriods); // nothing could be done about a refusal
    port.addPeriods(nPeriods);
    AUDIO_TRACE_PRINTF(8, "ALSA accepted %d frames and %d periods.\n", static_cast<int>(framesTx),
                       static_cast<int>(nPeriods));
    return AFTER_WRITE_US;
}

} // namespace audioLibrarySpace
