/**
 * The mixer: inputs are pulled into the ring on the thread that owns the player, the output is read on the playback
 * thread. Everything between the two goes through bufferMutex.
 */

#include "audioLibrary/mixerBlock.h"

#include "audioLibrary/mixerCopy.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <utility>

namespace audioLibrarySpace
{

namespace
{

constexpr uint32_t maxInputs = 512;
constexpr unsigned int nameColumns = 32;
constexpr size_t graphColumns = 80;

constexpr int32_t afterAFailureNs = 500000000;
constexpr int32_t whileIdleNs = 100000000;
constexpr int32_t whileSteeredNs = 9600000;
constexpr int32_t whileRateFixedNs = 6399999;

/** `index` within a ring of `ringFrames` frames; 0 for a ring without frames. */
int ringIndex(unsigned int index, int ringFrames)
{
    return ringFrames > 0 ? static_cast<int>(index % static_cast<unsigned int>(ringFrames)) : 0;
}

/** Whole periods in `frames`; 0 for a period without frames. */
unsigned int wholePeriods(unsigned int frames, unsigned int periodFrames)
{
    return periodFrames > 0 ? frames / periodFrames : 0;
}

unsigned int addressText(const char* address)
{
    return static_cast<unsigned int>(reinterpret_cast<uintptr_t>(address));
}

} // namespace

// ---- CMixer ----

CMixer::CMixer(std::string name, int periodsToBuffer) : CAudioBlock(std::move(name)), m_periodsToBuffer(periodsToBuffer)
{
    AUDIO_TRACE_CALL();
    MAX_DS_PORTS = maxInputs;
    osaCreateMutex(&bufferMutex);
    lastCountTime.setCurrentTime();
    // Room for every input from the start: the list never moves while the playback thread waits for the mutex.
    downstream.reserve(maxInputs);
    upstream.push_back(new CMixerUSP(this));
    ringPeriodFrames = outputPort().params.periodSize;
}

CMixer::~CMixer()
{
    AUDIO_TRACE_CALL();
    delete[] mixerBuffer;
    mixerBuffer = nullptr;
    osaReleaseMutex(&bufferMutex);
}

runTimeId CMixer::getRunTimeId()
{
    AUDIO_TRACE_CALL();
    return MIXER_FIFO;
}

streamStatus CMixer::init()
{
    AUDIO_TRACE_CALL();
    return STREAM_OK;
}

streamStatus CMixer::myInit()
{
    AUDIO_TRACE_CALL();
    osaLockGuard lock(bufferMutex);
    CAudioPort& output = outputPort();
    const unsigned int sampleBytes = output.getSampleBytes();
    const unsigned int numChannels = output.params.numChannels;

    m_bufferSizeFrame = static_cast<int>(output.params.periodSize * static_cast<unsigned int>(m_periodsToBuffer));
    buffer_size_bytes = static_cast<int>(sampleBytes * numChannels * static_cast<unsigned int>(m_bufferSizeFrame));
    ringPeriodFrames = output.params.periodSize;
    ringFrameBytes = static_cast<size_t>(sampleBytes) * numChannels;

    delete[] mixerBuffer;
    mixerBuffer = new char[static_cast<unsigned int>(buffer_size_bytes)]();
    AUDIO_TRACE_PRINTF(0, "********* Buffer starts at %08x to %08x bsb:%d c:%d sB: %d\n", addressText(mixerBuffer),
                       addressText(mixerBuffer + buffer_size_bytes), buffer_size_bytes, static_cast<int>(numChannels),
                       static_cast<int>(sampleBytes));

    m_mixerState = STATE_EMPTY;
    restartHalfFull();
    printCounter = 0;
    return STREAM_OK;
}

/** The pre-buffer: the output can run at once and the inputs have half a ring of time to begin. Under bufferMutex. */
void CMixer::restartHalfFull()
{
    m_readFramePtr = 0;
    m_writeFramePtr = m_bufferSizeFrame / 2;
    m_frameCount = static_cast<unsigned int>(m_bufferSizeFrame / 2);
}

CMixerDSP& CMixer::inputPort(size_t i)
{
    return *static_cast<CMixerDSP*>(downstream[i]);
}

CDownstreamPort* CMixer::getNextDownstreamPort()
{
    AUDIO_TRACE_CALL();
    for (size_t i = 0; i < downstream.size(); i++) {
        CMixerDSP& input = inputPort(i);
        if (!input.isConnected(nullptr)) {
            input.resetPortParams();
            return &input;
        }
    }
    if (downstream.size() >= MAX_DS_PORTS) {
        return nullptr;
    }
    auto* input = new CMixerDSP(this, outputPort().params, 0);
    osaLockGuard lock(bufferMutex);
    input->m_writeFramePtr = m_readFramePtr;
    downstream.push_back(input);
    return input;
}

streamStatus CMixer::reconfigBlockCheck(audioPortParam_t& usp, audioPortParam_t dsp)
{
    AUDIO_TRACE_CALL();
    streamStatus status = STREAM_OK;
    if (usp.nominalSampleRate != dsp.nominalSampleRate) {
        if (usp.nominalSampleRateStatus == VARIABLE) {
            usp.nominalSampleRate = dsp.nominalSampleRate;
        } else {
            status = STREAM_ERROR;
        }
    }
    if (usp.samplesInterleaved != dsp.samplesInterleaved) {
        if (usp.samplesInterleavedStatus == VARIABLE) {
            usp.samplesInterleaved = dsp.samplesInterleaved;
        } else {
            status = STREAM_ERROR;
        }
    }
    if (usp.trueSampleRate != dsp.trueSampleRate) {
        if (usp.trueSampleRateStatus == VARIABLE) {
            usp.trueSampleRate = dsp.trueSampleRate;
        } else {
            status = STREAM_ERROR;
        }
    }
    return status;
}

streamStatus CMixer::service(CServiceTime& nextService)
{
    AUDIO_TRACE_CALL();
    CServiceTime now;
    now.setCurrentTime();
    nextService = now + afterAFailureNs;
    if (m_mixerState == STATE_UNINITIALIZED) {
        cmd_start = true;
    }

    CMixerDSP* lastHandled = nullptr;
    for (size_t i = 0; i < downstream.size(); i++) {
        CMixerDSP& input = inputPort(i);
        if (!isToBeServed(input)) {
            continue;
        }
        const streamStatus status = serviceInput(input);
        if (status != STREAM_OK) {
            return status;
        }
        lastHandled = &input;
    }
    if (lastHandled == nullptr) {
        nextService = now + whileIdleNs;
        return STREAM_OK;
    }

    osaLockGuard lock(bufferMutex);
    updateCompleteRegion(lastHandled);
    const float agression = updateDepth();
    publishDemand(agression, now, nextService);
    if (printCounter == 0 && traceWanted(pTraceLevel, 7)) {
        printGraph();
    }
    printCounter = (printCounter + 1) % sampleRate;
    return STREAM_OK;
}

bool CMixer::isToBeServed(CMixerDSP& input)
{
    return input.isConnected(nullptr) && m_mixerState != STATE_UNINITIALIZED &&
           input.portPlaybackState == AUDIO_PLAYING;
}

/** Moves what one input offers into the ring. An input without room in the ring is left alone: that is STREAM_OK. */
streamStatus CMixer::serviceInput(CMixerDSP& input)
{
    osaLockGuard lock(bufferMutex);
    if (underflow) {
        AUDIO_TRACE_PRINTF(1, "%s is resuming operation\n", blockName.c_str());
        underflow = false;
    }
    if (!hasRoomFor(input)) {
        return STREAM_OK;
    }

    CUpstreamPort& source = *input.getUpstream();
    char* periods = nullptr;
    unsigned int nPeriods = 0;
    if (requestUnlocked(source, periods, nPeriods) != STREAM_OK) {
        return STREAM_ERROR;
    }

    const unsigned int periodFrames = input.params.periodSize;
    nPeriods = periods != nullptr ? periodsThatFit(periodFrames, nPeriods) : 0;
    const unsigned int frames = periodFrames * nPeriods;
    addToRing(input, periods, frames);
    {
        osaUnlockGuard unlock(bufferMutex);
        (void)source.ackReadPeriods(nPeriods); // what the source says can't take the frames out of the ring again
    }
    input.addPeriods(nPeriods);
    input.m_frameCount += static_cast<int>(frames);
    input.m_writeFramePtr =
        ringIndex(static_cast<unsigned int>(input.m_writeFramePtr.load()) + frames, m_bufferSizeFrame);
    return STREAM_OK;
}

/** Under bufferMutex. Unsigned throughout: an input whose count is below zero has no room. */
bool CMixer::hasRoomFor(CMixerDSP& input)
{
    const unsigned int limit =
        static_cast<unsigned int>(m_bufferSizeFrame) - input.params.periodSize - outputPort().params.periodSize;
    return limit > static_cast<unsigned int>(input.m_frameCount.load());
}

/** Asks a source, with the mutex released: a source may block or take locks of its own. */
streamStatus CMixer::requestUnlocked(CUpstreamPort& source, char*& periods, unsigned int& nPeriods)
{
    osaUnlockGuard unlock(bufferMutex);
    if (source.reqReadPeriods(periods, nPeriods) == STREAM_OK) {
        return STREAM_OK;
    }
    (void)source.ackReadPeriods(0); // there was nothing to acknowledge
    fprintf(stderr, "Unable to call reqReadPeriods()\n");
    return STREAM_ERROR;
}

/**
 * At most `nPeriods`: as many as fit beside the block's complete frames. It is the block's count, not the input's own,
 * so an input far ahead may reach round the ring.
 */
unsigned int CMixer::periodsThatFit(unsigned int periodFrames, unsigned int nPeriods) const
{
    const auto ringFrames = static_cast<unsigned int>(m_bufferSizeFrame);
    if (periodFrames * nPeriods + m_frameCount <= ringFrames) {
        return nPeriods;
    }
    // Never more than was offered, even if a reader took more than the ring had and the count wrapped.
    return std::min(nPeriods, wholePeriods(ringFrames - m_frameCount, periodFrames));
}

/** Adds `frames` frames at the input's write position, in two pieces where they reach over the ring's end. */
void CMixer::addToRing(CMixerDSP& input, char* src, unsigned int frames)
{
    CAudioPort& output = outputPort();
    const unsigned int ringSampleBytes = output.getSampleBytes();
    const unsigned int inputSampleBytes = input.getSampleBytes();
    const unsigned int numChannels = input.params.numChannels;
    const int numToCopy = static_cast<int>(output.params.numChannels + 1 - numChannels);
    const size_t frameBytes = static_cast<size_t>(ringSampleBytes) * output.params.numChannels;
    const auto writeFrame = static_cast<unsigned int>(input.m_writeFramePtr.load());
    const auto ringFrames = static_cast<unsigned int>(m_bufferSizeFrame);

    unsigned int samplesAtEnd = numChannels * frames;
    unsigned int samplesAtStart = 0;
    if (frames + writeFrame > ringFrames) {
        samplesAtEnd = numChannels * (ringFrames - writeFrame);
        samplesAtStart = numChannels * frames - samplesAtEnd;
    }
    addWithinRing(writeFrame * frameBytes, static_cast<int>(ringSampleBytes), static_cast<int>(inputSampleBytes),
                  numToCopy, src, samplesAtEnd);
    if (samplesAtStart > 0) {
        addWithinRing(0, static_cast<int>(ringSampleBytes), static_cast<int>(inputSampleBytes), numToCopy,
                      src + static_cast<size_t>(samplesAtEnd) * inputSampleBytes, samplesAtStart);
    }
}

/** One piece, cut to the ring's memory: with formats that were negotiated for this ring nothing is ever cut. */
void CMixer::addWithinRing(size_t offsetBytes, int ringSampleBytes, int inputSampleBytes, int numToCopy, char* src,
                           unsigned int nSamples)
{
    const auto ringBytes = static_cast<size_t>(static_cast<unsigned int>(buffer_size_bytes));
    const size_t roomBytes = offsetBytes < ringBytes ? ringBytes - offsetBytes : 0;
    if (numToCopy > 0 && ringSampleBytes > 0) {
        const size_t bytesPerSample = static_cast<size_t>(numToCopy) * static_cast<size_t>(ringSampleBytes);
        nSamples = static_cast<unsigned int>(std::min<size_t>(nSamples, roomBytes / bytesPerSample));
    }
    copyAndAdd(ringSampleBytes, inputSampleBytes, numToCopy, mixerBuffer + (roomBytes > 0 ? offsetBytes : 0), src,
               nSamples);
}

void CMixer::copyAndAdd(int upstreamSampleBytes, int downstreamSampleBytes, int numToCopy, char* dst, char* src,
                        unsigned int nSamples)
{
    AUDIO_TRACE_CALL();
    switch (mixerCopyAndAdd(upstreamSampleBytes, downstreamSampleBytes, numToCopy, dst, src, nSamples)) {
    case MIXER_COPY_DONE:
        break;
    case MIXER_COPY_INPUT_REFUSED:
        AUDIO_TRACE_PRINTF(0, "ERROR: Downstream sampleBytes(%d) not supported\n", downstreamSampleBytes);
        break;
    case MIXER_COPY_RING_REFUSED:
        AUDIO_TRACE_PRINTF(0, "ERROR: Upstream sampleBytes(%d) not supported\n", upstreamSampleBytes);
        break;
    }
}

/**
 * Moves the end of the readable region to what the slowest playing input has delivered; faster ones run ahead.
 * `lowest` is the input that was handled last, and wins every tie. Under bufferMutex.
 */
void CMixer::updateCompleteRegion(CMixerDSP* lowest)
{
    for (size_t i = 0; i < downstream.size(); i++) {
        CMixerDSP& input = inputPort(i);
        if (input.isConnected(nullptr) && input.portPlaybackState == AUDIO_PLAYING &&
            input.m_frameCount < lowest->m_frameCount) {
            lowest = &input;
        }
    }
    const auto lowestCount = static_cast<unsigned int>(lowest->m_frameCount.load());
    m_writeFramePtr =
        ringIndex(lowestCount - m_frameCount + static_cast<unsigned int>(m_writeFramePtr), m_bufferSizeFrame);
    m_frameCount = lowestCount;
}

/**
 * Answers the correction of the demand, from the average as it was, and then brings the average up to date.
 * The correction reaches its limit of 0.1 per cent at a fill of 52 or 48 per cent. Under bufferMutex.
 */
float CMixer::updateDepth()
{
    auto agression = static_cast<float>((static_cast<double>(averageBufferDepth) - 50.0) * 0.0005);
    if (static_cast<double>(agression) > 0.001) {
        agression = 0.001F;
    } else if (static_cast<double>(agression) < -0.001) {
        agression = -0.001F;
    }
    const float fill = static_cast<float>(m_frameCount) / static_cast<float>(m_bufferSizeFrame);
    averageBufferDepth =
        static_cast<float>(static_cast<double>(averageBufferDepth) * 0.98 + 2.0 * static_cast<double>(fill));
    AUDIO_TRACE_PRINTF(6, "SourceRate: %f      BufferDepth: %f\n", static_cast<double>(sourceBlockRate),
                       static_cast<double>(averageBufferDepth));
    return agression;
}

/**
 * Tells each input the rate that the ring wants; a fuller ring wants less. An input whose true rate is 0 can't be
 * steered. Every input sets the next service time anew, so the last one decides. Under bufferMutex.
 */
void CMixer::publishDemand(float agression, const CServiceTime& now, CServiceTime& nextService)
{
    if (outputPort().portPlaybackState != AUDIO_PLAYING) {
        nextService = now + whileIdleNs;
        return;
    }
    for (size_t i = 0; i < downstream.size(); i++) {
        CMixerDSP& input = inputPort(i);
        if (input.isConnected(nullptr) && input.params.trueSampleRate > 0.0F) {
            input.params.trueSampleRate = sourceBlockRate - sourceBlockRate * agression;
            nextService = now + whileSteeredNs;
        } else {
            AUDIO_TRACE_PRINTF(9, "Rate Fixed, TrueSampleRate: %f\n", static_cast<double>(input.params.trueSampleRate));
            nextService = now + whileRateFixedNs;
        }
    }
}

void CMixer::graphBuffer()
{
    AUDIO_TRACE_CALL();
    osaLockGuard lock(bufferMutex);
    printGraph();
}

/** Under bufferMutex. */
void CMixer::printGraph()
{
    const float fill = static_cast<float>(m_frameCount) / static_cast<float>(m_bufferSizeFrame);
    const int marker = saturatingToInt(fill * 80.0F);
    std::array<char, graphColumns + 1> columns{};
    for (size_t c = 0; c < graphColumns; c++) {
        const int column = static_cast<int>(c);
        columns[c] = column == marker ? '|' : (column < marker ? '+' : '-');
    }
    AUDIO_TRACE_PRINTF(0, "[%s] Wptr[%d] Rptr[%d] FC[%u] MAX[%d]\n", columns.data(), m_writeFramePtr, m_readFramePtr,
                       m_frameCount, m_bufferSizeFrame);
}

std::string CMixer::printBlockStatus()
{
    AUDIO_TRACE_CALL();
    std::string text = blockName;
    text.append(text.size() < nameColumns ? nameColumns - text.size() : 0, ' ');
    {
        osaLockGuard lock(bufferMutex);
        text += "BufferDepth: " + toString(averageBufferDepth) + "\n";
        text += "Ports: ";
        text += upstream.empty() ? "           " : "upstream   ";
        text += downstream.empty() ? "           " : "downstream ";
        text += "\n";
        text += "Read pointer(#samples): " + toString(m_readFramePtr);
        text += " Write pointer(#samples): " + toString(m_writeFramePtr);
        text += " Sample Count: " + toString(m_frameCount) + "\n";
    }
    for (CDownstreamPort* input : downstream) {
        text += input->printPortStatus();
    }
    for (CUpstreamPort* output : upstream) {
        text += output->printPortStatus();
    }
    return text;
}

/** Clears frames from `firstFrame` on, at most to the ring's end. Under bufferMutex. */
void CMixer::clearFrames(int firstFrame, unsigned int numFrames)
{
    const auto ringBytes = static_cast<size_t>(static_cast<unsigned int>(buffer_size_bytes));
    const size_t offset = std::min(ringBytes, static_cast<size_t>(firstFrame) * ringFrameBytes);
    const size_t length = std::min(ringBytes - offset, static_cast<size_t>(numFrames) * ringFrameBytes);
    if (length > 0) {
        std::memset(mixerBuffer + offset, 0, length);
    }
}

/**
 * The ring ran dry: clears it and starts over as myInit() does, with every input at mid-ring. Audio goes on with half
 * a ring of silence. Answers FRAMES where the caller's caller expects periods, see reqReadPeriods(). Under bufferMutex.
 */
unsigned int CMixer::recoverFromDryRing()
{
    clearFrames(0, static_cast<unsigned int>(m_bufferSizeFrame));
    const int half = m_bufferSizeFrame / 2;
    for (size_t i = 0; i < downstream.size(); i++) {
        inputPort(i).m_frameCount = half;
        inputPort(i).m_writeFramePtr = half;
    }
    restartHalfFull();
    return static_cast<unsigned int>(half);
}

/** Whole complete periods from the read position on, never past the ring's end. Under bufferMutex. */
unsigned int CMixer::readablePeriods() const
{
    const int end = m_readFramePtr < m_writeFramePtr ? m_writeFramePtr : m_bufferSizeFrame;
    return wholePeriods(static_cast<unsigned int>(end - m_readFramePtr), ringPeriodFrames);
}

/** Moves the read position on, and with it how far the block and each input are ahead of it. Under bufferMutex. */
void CMixer::consume(unsigned int frames)
{
    m_readFramePtr = ringIndex(static_cast<unsigned int>(m_readFramePtr) + frames, m_bufferSizeFrame);
    m_frameCount -= frames;
    for (size_t i = 0; i < downstream.size(); i++) {
        CMixerDSP& input = inputPort(i);
        if (input.hasSource && input.m_frameCount != 0) {
            input.m_frameCount -= static_cast<int>(frames);
        }
    }
}

// ---- CMixerDSP ----

CMixerDSP::CMixerDSP(CMixer* parent, const audioPortParam_t& ringParams, int firstFrame)
    : CDownstreamPort(parent), m_writeFramePtr(firstFrame)
{
    AUDIO_TRACE_CALL();
    resetParams = ringParams;
    resetPortParams();
}

CMixerDSP::~CMixerDSP()
{
    AUDIO_TRACE_CALL();
}

runTimeId CMixerDSP::getRunTimeId()
{
    AUDIO_TRACE_CALL();
    return MIXER_FIFO_DSP;
}

CMixer& CMixerDSP::mixer()
{
    return *static_cast<CMixer*>(parentBlock);
}

/** Takes up the end of the region that every playing input has delivered. Takes bufferMutex. */
void CMixerDSP::joinRing()
{
    CMixer& block = mixer();
    osaLockGuard lock(block.bufferMutex);
    m_writeFramePtr = block.m_writeFramePtr;
    m_frameCount = static_cast<int>(block.m_frameCount);
}

/** Without the mutex: what is written has no bearing on the ring, and the playback thread passes by a count of 0. */
void CMixerDSP::leaveRing()
{
    m_writeFramePtr.store(0, std::memory_order_relaxed);
    m_frameCount.store(0, std::memory_order_relaxed);
}

std::string CMixerDSP::printPortStatus()
{
    AUDIO_TRACE_CALL();
    std::string text = CDownstreamPort::printPortStatus();
    osaLockGuard lock(mixer().bufferMutex);
    text += "  *WritePointer: " + toString(m_writeFramePtr.load()) + "\n";
    text += "  *FrameCount: " + toString(m_frameCount.load()) + "\n";
    return text;
}

streamStatus CMixerDSP::reconfigPortCheck(audioPortParam_t* newParams)
{
    AUDIO_TRACE_CALL();
    CAudioPort& output = mixer().outputPort();
    if (!output.isConnected(nullptr)) {
        return STREAM_ERROR;
    }
    checkNominalSampleRate(output.params, *newParams);
    checkTrueSampleRate(output.params, *newParams);
    checkNumChannels(output.params, *newParams);
    checkPeriodSize(output.params, *newParams);
    checkSampleFormat(*newParams);
    checkSamplesInterleaved(*newParams);
    return mixer().reconfigBlockCheck(output.params, params);
}

void CMixerDSP::checkNominalSampleRate(const audioPortParam_t& output, const audioPortParam_t& offered)
{
    if (offered.nominalSampleRate == output.nominalSampleRate) {
        return;
    }
    if (output.nominalSampleRateStatus == VARIABLE) {
        params.nominalSampleRate = offered.nominalSampleRate;
        return;
    }
    AUDIO_TRACE_PRINTF(0, "This %s failed due to nominal sample rate myUSP: %f incoming: %f\n",
                       parentBlock->name().c_str(), static_cast<double>(output.nominalSampleRate),
                       static_cast<double>(offered.nominalSampleRate));
    params.nominalSampleRate = output.nominalSampleRate;
}

void CMixerDSP::checkTrueSampleRate(const audioPortParam_t& output, const audioPortParam_t& offered)
{
    if (offered.trueSampleRate == output.trueSampleRate) {
        return;
    }
    if (output.trueSampleRateStatus == VARIABLE) {
        params.trueSampleRate = offered.trueSampleRate;
        return;
    }
    AUDIO_TRACE_PUTS(9, "Failed due to true sample rate");
}

/** A mono source may join a ring of any width; everybody else takes the ring's channels. */
void CMixerDSP::checkNumChannels(const audioPortParam_t& output, const audioPortParam_t& offered)
{
    AUDIO_TRACE_PRINTF(9, "START Channels, thisC: %d, newC: %d\n", static_cast<int>(params.numChannels),
                       static_cast<int>(offered.numChannels));
    if (offered.numChannels != output.numChannels) {
        if (output.numChannels != 0 && offered.numChannels == 1) {
            params.numChannels = 1;
            AUDIO_TRACE_PRINTF(9, "0 Channels, thisC: %d, newC: %d\n", static_cast<int>(params.numChannels),
                               static_cast<int>(offered.numChannels));
        } else {
            params.numChannels = output.numChannels;
            if (output.numChannels != 0) {
                AUDIO_TRACE_PRINTF(9, "Failed due to num Channels, thisC: %d, newC: %d\n",
                                   static_cast<int>(params.numChannels), static_cast<int>(offered.numChannels));
            } else {
                AUDIO_TRACE_PUTS(9, "FAILED! Channels: Trying to connect with USP settings");
            }
        }
    }
    AUDIO_TRACE_PRINTF(9, "END Channels, thisC: %d, newC: %d\n", static_cast<int>(params.numChannels),
                       static_cast<int>(offered.numChannels));
}

/** Two of the input's periods and one of the output's have to fit the ring with room to spare. */
void CMixerDSP::checkPeriodSize(const audioPortParam_t& output, const audioPortParam_t& offered)
{
    if (offered.periodSize == params.periodSize) {
        return;
    }
    const uint64_t needed = 2 * static_cast<uint64_t>(offered.periodSize) + output.periodSize;
    if (needed < static_cast<uint64_t>(mixer().m_bufferSizeFrame)) {
        params.periodSize = offered.periodSize;
        return;
    }
    AUDIO_TRACE_PUTS(9, "Failed due to periodSize");
}

void CMixerDSP::checkSampleFormat(const audioPortParam_t& offered)
{
    if (offered.sampleFormat == params.sampleFormat) {
        return;
    }
    if (offered.sampleFormat == SAMPLE_S8BIT || offered.sampleFormat == SAMPLE_S16BIT_LE ||
        offered.sampleFormat == SAMPLE_S32BIT_LE) {
        params.sampleFormat = offered.sampleFormat;
        return;
    }
    AUDIO_TRACE_PUTS(9, "Failed due to sampleFormat");
}

void CMixerDSP::checkSamplesInterleaved(const audioPortParam_t& offered)
{
    if (offered.samplesInterleaved == params.samplesInterleaved) {
        return;
    }
    if (params.samplesInterleavedStatus == VARIABLE) {
        params.samplesInterleaved = offered.samplesInterleaved;
        return;
    }
    AUDIO_TRACE_PUTS(9, "Failed due to interleaved status");
}

streamStatus CMixerDSP::reconfigPortApply(audioPortParam_t* newParams)
{
    AUDIO_TRACE_CALL();
    params = *newParams;
    joinRing();
    return STREAM_OK;
}

streamStatus CMixerDSP::disconnect()
{
    AUDIO_TRACE_CALL();
    hasSource.store(false, std::memory_order_relaxed);
    leaveRing();
    return CDownstreamPort::disconnect();
}

streamStatus CMixerDSP::startAudio()
{
    AUDIO_TRACE_CALL();
    joinRing();
    portPlaybackState = AUDIO_PLAYING;
    return STREAM_OK;
}

streamStatus CMixerDSP::stopAudio()
{
    AUDIO_TRACE_CALL();
    portPlaybackState = AUDIO_STOPPED;
    leaveRing();
    return STREAM_OK;
}

streamStatus CMixerDSP::muteAudio()
{
    AUDIO_TRACE_CALL();
    portPlaybackState = AUDIO_MUTED;
    return STREAM_OK;
}

streamStatus CMixerDSP::connectUpstream(CUpstreamPort* port, mutexObject* mutex)
{
    AUDIO_TRACE_CALL();
    const streamStatus status = CDownstreamPort::connectUpstream(port, mutex);
    if (status != STREAM_OK) {
        return status;
    }
    joinRing();
    hasSource.store(true, std::memory_order_relaxed);
    return STREAM_OK;
}

// ---- CMixerUSP ----

CMixerUSP::CMixerUSP(CMixer* parent) : CUpstreamPort(parent)
{
    AUDIO_TRACE_CALL();
    resetParams.nominalSampleRateStatus = VARIABLE;
    resetParams.nominalSampleRate = 48000.0F;
    resetParams.numChannelsStatus = VARIABLE;
    resetParams.numChannels = 2;
    resetParams.sampleFormatStatus = VARIABLE;
    resetParams.sampleFormat = SAMPLE_S16BIT_LE;
    resetParams.samplesInterleavedStatus = FIXED;
    resetParams.samplesInterleaved = true;
    resetParams.periodSizeStatus = VARIABLE;
    resetParams.periodSize = 2048;
    resetPortParams();
}

CMixerUSP::~CMixerUSP()
{
    AUDIO_TRACE_CALL();
}

runTimeId CMixerUSP::getRunTimeId()
{
    AUDIO_TRACE_CALL();
    return MIXER_FIFO_USP;
}

CMixer& CMixerUSP::mixer()
{
    return *static_cast<CMixer*>(parentBlock);
}

streamStatus CMixerUSP::reconfigPortCheck(audioPortParam_t* newParams)
{
    AUDIO_TRACE_CALL();
    streamStatus status = CUpstreamPort::reconfigPortCheck(newParams);
    for (CDownstreamPort* input : mixer().downstream) {
        // Replaced, not joined: with inputs present the last input's verdict stands alone.
        status = mixer().reconfigBlockCheck(input->params, params);
    }
    return status;
}

streamStatus CMixerUSP::reconfigPortApply(audioPortParam_t* newParams)
{
    AUDIO_TRACE_CALL();
    for (CDownstreamPort* input : mixer().downstream) {
        if (input->isConnected(nullptr)) {
            AUDIO_TRACE_PUTS(0, "ERROR: can't modify upstream port after downstreams have been connected!!!!!");
            return STREAM_ERROR;
        }
    }
    params = *newParams;
    AUDIO_TRACE_PRINTF(1, "Setting format to %d\n", static_cast<int>(params.sampleFormat));
    (void)mixer().myInit(); // always STREAM_OK
    osaLockGuard lock(mixer().bufferMutex);
    mixer().sourceBlockRate = params.trueSampleRate;
    return STREAM_OK;
}

streamStatus CMixerUSP::connectDownstream(CDownstreamPort* port, mutexObject* mutex)
{
    AUDIO_TRACE_CALL();
    return CUpstreamPort::connectDownstream(port, mutex);
}

streamStatus CMixerUSP::reqReadPeriods(char*& pbuffer, unsigned int& nPeriods)
{
    AUDIO_TRACE_CALL();
    CMixer& block = mixer();
    {
        osaLockGuard lock(block.bufferMutex);
        if (block.m_frameCount < block.ringPeriodFrames) {
            AUDIO_TRACE_PUTS(1, "ERROR! *** Inserting zeroes to recover buffer ***");
            nPeriods = block.recoverFromDryRing();
        } else {
            nPeriods = block.readablePeriods();
        }
        pbuffer = block.mixerBuffer + static_cast<size_t>(block.m_readFramePtr) * block.ringFrameBytes;
    }
    AUDIO_TRACE_PRINTF(8, "Mixer transfering %d periods.\n", static_cast<int>(nPeriods));
    return STREAM_OK;
}

streamStatus CMixerUSP::ackReadPeriods(unsigned int nPeriods)
{
    AUDIO_TRACE_CALL();
    if (nPeriods == 0) {
        return STREAM_OK;
    }
    CMixer& block = mixer();
    osaLockGuard lock(block.bufferMutex);
    const unsigned int frames = block.ringPeriodFrames * nPeriods;
    block.clearFrames(block.m_readFramePtr, frames);
    addPeriods(nPeriods);
    block.consume(frames);
    return STREAM_OK;
}

} // namespace audioLibrarySpace
