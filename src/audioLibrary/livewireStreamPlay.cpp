/**
 * The Livewire source: capture and reading alike on the thread that services the blocks. The one place of this program
 * where the capture side of the ALSA library is called.
 */

#include "audioLibrary/livewireStreamPlay.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

namespace audioLibrarySpace
{

namespace
{

/** Between two passes the device gathers about two of its sixteen periods. */
constexpr int32_t SERVICE_INTERVAL_NS = 42000000;

/** The low 32 bits of an address, as the buffers' addresses are told on the 32-bit target. */
unsigned int shortAddress(const void* pointer)
{
    return static_cast<unsigned int>(reinterpret_cast<uintptr_t>(pointer));
}

std::unique_ptr<ClivewireStreamPlay::frame_t[]> allocateFrames(uint32_t numFrames)
{
    return std::unique_ptr<ClivewireStreamPlay::frame_t[]>(new (std::nothrow)
                                                               ClivewireStreamPlay::frame_t[numFrames]());
}

} // namespace

// ---------------------------------------------------------------------------------------- ClivewireStreamPlayUSP

ClivewireStreamPlayUSP::ClivewireStreamPlayUSP(ClivewireStreamPlay* parent) : CUpstreamPort(parent)
{
    AUDIO_TRACE_CALL();
    resetParams.nominalSampleRateStatus = FIXED;
    resetParams.nominalSampleRate = static_cast<float>(ClivewireStreamPlay::def_sample_rate);
    resetParams.trueSampleRateStatus = FIXED;
    resetParams.trueSampleRate = static_cast<float>(ClivewireStreamPlay::def_sample_rate);
    resetParams.numChannelsStatus = FIXED;
    resetParams.numChannels = ClivewireStreamPlay::def_num_channels_per_frame;
    resetParams.sampleFormatStatus = FIXED;
    resetParams.sampleFormat = SAMPLE_S16BIT_LE;
    resetParams.samplesInterleavedStatus = FIXED;
    resetParams.samplesInterleaved = true;
    resetParams.periodSizeStatus = FIXED;
    resetParams.periodSize = ClivewireStreamPlay::def_frames_per_sw_period;
    resetPortParams();
}

ClivewireStreamPlayUSP::~ClivewireStreamPlayUSP()
{
    AUDIO_TRACE_CALL();
}

ClivewireStreamPlay* ClivewireStreamPlayUSP::block() const
{
    return static_cast<ClivewireStreamPlay*>(parentBlock);
}

runTimeId ClivewireStreamPlayUSP::getRunTimeId()
{
    AUDIO_TRACE_CALL();
    return LIVEWIRE_PLAY_USP;
}

streamStatus ClivewireStreamPlayUSP::reconfigPortApply(audioPortParam_t* newParams)
{
    AUDIO_TRACE_CALL();
    const streamStatus status = reconfigPortCheck(newParams);
    if (status != STREAM_OK) {
        return status;
    }
    params = *newParams;
    return STREAM_OK;
}

streamStatus ClivewireStreamPlayUSP::connectDownstream(CDownstreamPort* port, mutexObject* mutex)
{
    AUDIO_TRACE_CALL();
    return CUpstreamPort::connectDownstream(port, mutex);
}

streamStatus ClivewireStreamPlayUSP::reqReadPeriods(char*& pbuffer, unsigned int& nPeriods)
{
    AUDIO_TRACE_CALL();
    return block()->reqReadPeriods(pbuffer, nPeriods, params.periodSize);
}

streamStatus ClivewireStreamPlayUSP::ackReadPeriods(unsigned int nPeriods)
{
    AUDIO_TRACE_CALL();
    addPeriods(nPeriods); // the request has counted them too: this port's period count runs at double speed
    return block()->ackReadPeriods(nPeriods, params.periodSize);
}

// ------------------------------------------------------------------------------------------- opening the device

ClivewireStreamPlay::ClivewireStreamPlay(std::string pName, std::string pDevicename)
    : CAudioPlay(std::move(pName)), device_parameters(std::make_unique<alsaDevice_t>())
{
    AUDIO_TRACE_CALL();
    upstream.push_back(new ClivewireStreamPlayUSP(this));
    (void)osaCreateMutex(&captureBufferMutex); // it has told its failure
    fillDeviceRecord(pDevicename);
    configureDevice();
    if (!isOpen()) {
        closeDevice();
    }
    allocateBuffers();
}

void ClivewireStreamPlay::fillDeviceRecord(const std::string& deviceName)
{
    alsaDevice_t& device = *device_parameters; // comes zeroed, so a name that was cut has its end
    std::memcpy(device.pcm_name, deviceName.data(), std::min(deviceName.size(), sizeof device.pcm_name - 1));
    device.mode = SND_PCM_NONBLOCK;
    device.stream = SND_PCM_STREAM_CAPTURE;
    device.format = streamToDeviceSampleFormat(output()->params.sampleFormat);
    device.bufferSizeFrames = def_num_periods_in_hw_buffer * def_frames_per_hw_period;
    device.num_periods = def_num_periods_in_hw_buffer;
    device.periodsize = def_frames_per_hw_period;
    device.access_type = SND_PCM_ACCESS_RW_INTERLEAVED;
}

/** Opens the device and narrows what it can do down to what the output needs; sets is_open if all of it is granted. */
void ClivewireStreamPlay::configureDevice()
{
    if (openPcm() != 0) {
        return;
    }
    snd_pcm_t* const handle = device_parameters->pcm_handle;
    snd_pcm_hw_params_t* hwParams = nullptr;
    snd_pcm_hw_params_alloca(&hwParams); // comes zeroed
    if (snd_pcm_hw_params_any(handle, hwParams) != 0 || configureAccess(hwParams) != 0 ||
        configureFormat(hwParams) != 0 || configureRate(hwParams) != 0 || configureChannels(hwParams) != 0 ||
        configurePeriods(hwParams) != 0 || configureBufferSize(hwParams) != 0 ||
        snd_pcm_hw_params(handle, hwParams) != 0) {
        return;
    }
    if (prepareDevice() == 0) {
        setOpen(true);
    }
}

int ClivewireStreamPlay::openPcm()
{
    alsaDevice_t& device = *device_parameters;
    const int error = snd_pcm_open(&device.pcm_handle, device.pcm_name, device.stream, device.mode);
    if (error < 0) {
        device.pcm_handle = nullptr; // whatever the failed call left there is no device
    }
    return error;
}

int ClivewireStreamPlay::configureAccess(snd_pcm_hw_params_t* hwParams)
{
    AUDIO_TRACE_PRINTF(1, "   Access: \t\t%s\n", "Interleaved");
    return snd_pcm_hw_params_set_access(device_parameters->pcm_handle, hwParams, device_parameters->access_type);
}

int ClivewireStreamPlay::configureFormat(snd_pcm_hw_params_t* hwParams)
{
    AUDIO_TRACE_PRINTF(1, "   Format: \t\t%s\n", output()->getSampleFormatString().c_str());
    return snd_pcm_hw_params_set_format(device_parameters->pcm_handle, hwParams, device_parameters->format);
}

int ClivewireStreamPlay::configureRate(snd_pcm_hw_params_t* hwParams)
{
    audioPortParam_t& params = output()->params;
    params.trueSampleRate = params.nominalSampleRate;
    unsigned int sampleRate = saturatingToUnsigned(params.trueSampleRate);
    const int error = snd_pcm_hw_params_set_rate_near(device_parameters->pcm_handle, hwParams, &sampleRate, nullptr);
    if (error != 0) {
        return error;
    }
    params.trueSampleRate = static_cast<float>(sampleRate);
    params.trueSampleRateStatus = FIXED;
    AUDIO_TRACE_PRINTF(1, "   Rate: \t\t%f\n", static_cast<double>(params.trueSampleRate));
    if (params.nominalSampleRate != params.trueSampleRate) {
        fprintf(stderr, "The rate %d Hz is not supported by your hardware.\n ==> Using %d Hz instead.\n",
                saturatingToInt(params.nominalSampleRate), saturatingToInt(params.trueSampleRate));
    }
    return 0;
}

int ClivewireStreamPlay::configureChannels(snd_pcm_hw_params_t* hwParams)
{
    const uint32_t numChannels = output()->params.numChannels;
    AUDIO_TRACE_PRINTF(1, "   Channels: \t\t%d\n", static_cast<int>(numChannels));
    return snd_pcm_hw_params_set_channels(device_parameters->pcm_handle, hwParams, numChannels);
}

int ClivewireStreamPlay::configurePeriods(snd_pcm_hw_params_t* hwParams)
{
    const alsaDevice_t& device = *device_parameters;
    const int error = snd_pcm_hw_params_set_periods(device.pcm_handle, hwParams, device.num_periods, 0);
    if (error != 0) {
        fprintf(stderr, "Error setting periods. (%d)\n", error);
    }
    return error;
}

int ClivewireStreamPlay::configureBufferSize(snd_pcm_hw_params_t* hwParams)
{
    alsaDevice_t& device = *device_parameters;
    AUDIO_TRACE_PRINTF(1, "   Periodsize: \t\t%d\n", static_cast<int>(device.periodsize));
    snd_pcm_uframes_t actual_size = device.bufferSizeFrames;
    const int error = snd_pcm_hw_params_set_buffer_size_near(device.pcm_handle, hwParams, &actual_size);
    if (error != 0) {
        return error;
    }
    AUDIO_TRACE_PRINTF(9, "Attempting to set Hardware buffer size to: %ld \n",
                       static_cast<long>(device.bufferSizeFrames));
    if (actual_size != device.bufferSizeFrames) {
        fprintf(stderr, "The buffer size %d is not supported by your hardware.\n ==> Using %d instead.\n",
                static_cast<int>(device.bufferSizeFrames), static_cast<int>(actual_size));
        device.bufferSizeFrames = actual_size;
    }
    AUDIO_TRACE_PRINTF(1, "   HardwareBufferSize:   %ld \n", static_cast<long>(device.bufferSizeFrames));
    return 0;
}

int ClivewireStreamPlay::prepareDevice()
{
    const int error = snd_pcm_prepare(device_parameters->pcm_handle);
    if (error != 0) {
        AUDIO_TRACE_PRINTF(0, "Unable to prepare device: %s\n", snd_strerror(error));
    }
    return error;
}

void ClivewireStreamPlay::allocateBuffers()
{
    workBuffer = allocateFrames(workBufferFrames);
    if (workBuffer == nullptr) {
        AUDIO_TRACE_PUTS(0, "Out of memory, could not create workbuffer.");
        exit(-1);
    }
    temp_LinearizingBuffer = allocateFrames(def_frames_per_sw_period);
    if (temp_LinearizingBuffer == nullptr) {
        AUDIO_TRACE_PUTS(0, "Out of memory, could not create temp_LinearizingBuffer.");
        exit(-1);
    }
    tempCaptureBuffer = allocateFrames(def_frames_per_hw_period);
    if (tempCaptureBuffer == nullptr) {
        AUDIO_TRACE_PUTS(0, "Out of memory, could not create tempCaptureBuffer.");
        exit(-1);
    }
    AUDIO_TRACE_PRINTF(0, "BufferPointers, workbuffer: %08x, temp_LinearizingBuffer: %08x, tempCaptureBuffer: %08x\n",
                       shortAddress(workBuffer.get()), shortAddress(temp_LinearizingBuffer.get()),
                       shortAddress(tempCaptureBuffer.get()));
}

ClivewireStreamPlay::~ClivewireStreamPlay()
{
    AUDIO_TRACE_CALL();
    puts("Stopping Livewire Capture Device and dropping remaining frames.");
    if (isOpen()) {
        dropAndCloseDevice();
    }
    (void)osaReleaseMutex(&captureBufferMutex); // it has no failure
    workBuffer.reset();
    temp_LinearizingBuffer.reset();
    tempCaptureBuffer.reset();
    device_parameters.reset();
}

bool ClivewireStreamPlay::isOpen()
{
    osaLockGuard lock(captureBufferMutex);
    return is_open;
}

void ClivewireStreamPlay::setOpen(bool open)
{
    osaLockGuard lock(captureBufferMutex);
    is_open = open;
}

void ClivewireStreamPlay::closeDevice()
{
    if (device_parameters->pcm_handle != nullptr) {
        snd_pcm_close(device_parameters->pcm_handle);
        device_parameters->pcm_handle = nullptr;
    }
}

void ClivewireStreamPlay::dropAndCloseDevice()
{
    if (device_parameters->pcm_handle != nullptr) {
        snd_pcm_drop(device_parameters->pcm_handle);
        closeDevice();
    }
}

// ---------------------------------------------------------------------------------------------------- capturing

runTimeId ClivewireStreamPlay::getRunTimeId()
{
    AUDIO_TRACE_CALL();
    return LIVEWIRE_PLAY;
}

int32_t ClivewireStreamPlay::timeLeft()
{
    AUDIO_TRACE_CALL();
    return isOpen() ? CAudioPlay::timeLeft() : 0;
}

streamStatus ClivewireStreamPlay::service(CServiceTime& nextService)
{
    AUDIO_TRACE_CALL();
    CServiceTime now;
    now.setCurrentTime();
    if (!isOpen()) {
        nextService.setNeverService();
        return STREAM_OK;
    }
    while (getSamples() != 0 && isOpen()) {
    }
    nextService = now + SERVICE_INTERVAL_NS;
    return STREAM_OK;
}

unsigned int ClivewireStreamPlay::getSamples()
{
    AUDIO_TRACE_CALL();
    if (device_parameters->pcm_handle == nullptr || !startCapture()) {
        return 0;
    }
    const snd_pcm_sframes_t result =
        snd_pcm_readi(device_parameters->pcm_handle, tempCaptureBuffer.get(), def_frames_per_hw_period);
    if (result < 0) {
        handleReadError(static_cast<int>(result));
        return 0;
    }
    const auto frames = static_cast<uint32_t>(result);

    const playbackState state = output()->portPlaybackState;
    if (state == AUDIO_STOPPED || state == AUDIO_PAUSED) {
        return frames; // thrown away, so that no old audio waits for the moment of starting
    }
    if (state == AUDIO_MUTED) {
        tempCaptureBuffer[0] = {}; // one frame of them all: a muted source is heard
    }
    osaLockGuard lock(captureBufferMutex);
    storeFrames(frames);
    return frames;
}

/** Starts the device unless it has been. A refusal closes it for good. */
bool ClivewireStreamPlay::startCapture()
{
    {
        osaLockGuard lock(captureBufferMutex);
        if (isstarted) {
            return true;
        }
    }
    const int error = snd_pcm_start(device_parameters->pcm_handle);
    if (error < 0) {
        AUDIO_TRACE_PRINTF(1, "Unable to start capture device: %s\n", snd_strerror(error));
        dropAndCloseDevice();
        setOpen(false);
        return false;
    }
    osaLockGuard lock(captureBufferMutex);
    isstarted = true;
    return true;
}

void ClivewireStreamPlay::handleReadError(int error)
{
    if (error == -EAGAIN) {
        return; // nothing there now
    }
    AUDIO_TRACE_PRINTF(0, "Read: error %d\n", error);
    snd_pcm_t* const handle = device_parameters->pcm_handle;
    if (error == -EPIPE) {
        // An overrun: what the device held is lost. A refusal shows in the next read.
        snd_pcm_prepare(handle);
        snd_pcm_start(handle);
        return;
    }
    const int recovered = snd_pcm_recover(handle, error, 1);
    if (recovered != 0 && recovered != -EAGAIN) {
        setOpen(false);
        dropAndCloseDevice();
    }
}

uint32_t ClivewireStreamPlay::framesFree(uint32_t head, uint32_t tail)
{
    if (head < tail) {
        return tail - 1 - head;
    }
    const uint32_t space_available_from_head_to_top = workBufferFrames - head;
    if (tail == 0) {
        return space_available_from_head_to_top - 1; // the free slot is the last one of the ring
    }
    const uint32_t space_available_from_bottom_to_tail = tail - 1;
    return space_available_from_head_to_top + space_available_from_bottom_to_tail;
}

/** Puts what was read, `frames` of tempCaptureBuffer, in the ring; of too many the newest. The mutex is held. */
void ClivewireStreamPlay::storeFrames(uint32_t frames)
{
    const uint32_t number_of_frames_available = framesFree(workBufferHead, workBufferConsumingTail);
    if (number_of_frames_available == 0) {
        AUDIO_TRACE_PRINTF(0, "work buffer is full dropping %d frames.\n", static_cast<int>(frames));
        return;
    }
    uint32_t first_frame_to_copy = 0;
    uint32_t number_of_frames_to_copy = frames;
    if (number_of_frames_available < frames) {
        first_frame_to_copy = frames - number_of_frames_available;
        number_of_frames_to_copy = number_of_frames_available;
        AUDIO_TRACE_PRINTF(0, "work buffer is partially full dropping %d frames.\n",
                           static_cast<int>(first_frame_to_copy));
    }

    const uint32_t number_of_frames_to_top = workBufferFrames - workBufferHead;
    if (number_of_frames_to_copy <= number_of_frames_to_top) {
        copyIntoRing(first_frame_to_copy, number_of_frames_to_copy);
        // Counted twice, so a copy near the top that has hurt nothing is told as well.
        tellIfClobbered(workBufferHead + number_of_frames_to_copy);
        return;
    }
    tellIfClobbered(copyIntoRing(first_frame_to_copy, number_of_frames_to_top));
    tellIfClobbered(copyIntoRing(first_frame_to_copy + number_of_frames_to_top,
                                 number_of_frames_to_copy - number_of_frames_to_top));
}

/**
 * Copies `numFrames` of tempCaptureBuffer, which fit below the ring's top, to the head, and moves the head past them.
 *
 * @return the new head before it wraps: at most workBufferFrames
 */
uint32_t ClivewireStreamPlay::copyIntoRing(uint32_t firstFrame, uint32_t numFrames)
{
    std::copy_n(&tempCaptureBuffer[firstFrame], numFrames, &workBuffer[workBufferHead]);
    const uint32_t end = workBufferHead + numFrames;
    workBufferHead = end % workBufferFrames;
    return end;
}

void ClivewireStreamPlay::tellIfClobbered(uint32_t position)
{
    if (position > workBufferFrames) {
        AUDIO_TRACE_PRINTF(0, "%s %d ERROR! Just clobbered the buffer\n", __FILE__, __LINE__);
    }
}

// ------------------------------------------------------------------------------------------------------ reading

streamStatus ClivewireStreamPlay::reqReadPeriods(char*& pbuffer, unsigned int& nPeriods, unsigned int nFramesPerPeriod)
{
    AUDIO_TRACE_CALL();
    osaLockGuard lock(captureBufferMutex);
    pbuffer = nullptr;
    nPeriods = 0;
    const bool framesWait = workBufferHead != workBufferConsumingTail;
    const bool inFlight = workBufferConsumingHead != workBufferConsumingTail;
    if (!framesWait || inFlight || nFramesPerPeriod == 0) {
        return STREAM_OK;
    }
    // [..TOOOOH..] the frames lie together, or [OOH....TOO] some lie below the top and the others at the bottom
    const bool wraps = workBufferConsumingTail >= workBufferHead;
    const uint32_t numFramesTogether = (wraps ? workBufferFrames : workBufferHead) - workBufferConsumingTail;
    if (numFramesTogether >= nFramesPerPeriod) {
        offerFromRing(pbuffer, nPeriods, numFramesTogether, nFramesPerPeriod);
    } else if (wraps && numFramesTogether + workBufferHead >= nFramesPerPeriod) {
        offerAcrossEnd(pbuffer, nPeriods, numFramesTogether, nFramesPerPeriod);
    }
    return STREAM_OK;
}

/** Lends the whole periods of the `numFramesTogether` frames from the tail on. */
void ClivewireStreamPlay::offerFromRing(char*& pbuffer, unsigned int& nPeriods, uint32_t numFramesTogether,
                                        uint32_t nFramesPerPeriod)
{
    const uint32_t num_periods_to_send = numFramesTogether / nFramesPerPeriod;
    const uint32_t num_frames_to_send = num_periods_to_send * nFramesPerPeriod;
    AUDIO_TRACE_PRINTF(8, "Sending %d frames (%d periods) of data.\n", static_cast<int>(num_frames_to_send),
                       static_cast<int>(num_periods_to_send));
    workBufferConsumingHead = (workBufferConsumingTail + num_frames_to_send) % workBufferFrames;
    pbuffer = reinterpret_cast<char*>(&workBuffer[workBufferConsumingTail]);
    nPeriods = num_periods_to_send;
    output()->incPeriodCount(num_periods_to_send);
}

/** Lends a copy of the one period whose first `num_frames_to_top` frames lie below the top, the rest at the bottom. */
void ClivewireStreamPlay::offerAcrossEnd(char*& pbuffer, unsigned int& nPeriods, uint32_t num_frames_to_top,
                                         uint32_t nFramesPerPeriod)
{
    if (nFramesPerPeriod > def_frames_per_sw_period) {
        // Nowhere to join them. Waiting would stop the source for good, so these frames go and the next request finds
        // the others together.
        workBufferConsumingTail = 0;
        workBufferConsumingHead = 0;
        return;
    }
    const uint32_t num_frames_from_bottom = nFramesPerPeriod - num_frames_to_top;
    std::copy_n(&workBuffer[workBufferConsumingTail], num_frames_to_top, &temp_LinearizingBuffer[0]);
    std::copy_n(&workBuffer[0], num_frames_from_bottom, &temp_LinearizingBuffer[num_frames_to_top]);
    workBufferConsumingHead = num_frames_from_bottom;
    pbuffer = reinterpret_cast<char*>(temp_LinearizingBuffer.get());
    nPeriods = 1;
    output()->incPeriodCount(1);
}

streamStatus ClivewireStreamPlay::ackReadPeriods(unsigned int nPeriods, unsigned int nFramesPerPeriod)
{
    AUDIO_TRACE_CALL();
    osaLockGuard lock(captureBufferMutex);
    uint32_t num_frames_pending = workBufferConsumingHead - workBufferConsumingTail;
    if (workBufferConsumingHead <= workBufferConsumingTail) {
        num_frames_pending += workBufferFrames; // also when nothing was lent
    }
    const uint32_t num_frames_acknowledged = nPeriods * nFramesPerPeriod;
    const uint32_t num_frames_taken = std::min(num_frames_pending, num_frames_acknowledged);
    workBufferConsumingTail = (workBufferConsumingTail + num_frames_taken) % workBufferFrames;
    workBufferConsumingHead = workBufferConsumingTail;
    return STREAM_OK;
}

} // namespace audioLibrarySpace
