/**
 * The ports: connecting and negotiating on the thread that owns the player, reading on the thread of the reader.
 */

#include "audioLibrary/audioPort.h"

#include "audioLibrary/audioBlock.h"

namespace audioLibrarySpace
{

namespace
{

/** The label, then "(FIX) " or "(VAR) ": whatever isn't FIXED counts as variable here. */
std::string statusLabel(const char* label, paramStatus_e status)
{
    return std::string(label) + (status == FIXED ? "(FIX) " : "(VAR) ");
}

/**
 * How fast avgRate follows: in one call it moves this fraction of the way. More than 0.2 % off the nominal rate it
 * catches up, inside it settles. The bounds are compared in double, so a ratio of exactly 0.998F is inside.
 */
float rateAlpha(float avgRate, float nominalSampleRate)
{
    const double rate = static_cast<double>(avgRate / nominalSampleRate);
    return (rate < 0.998 || rate > 1.002) ? 0.2F : 0.002F;
}

} // namespace

// ---------------------------------------------------------------------------------------------------- CAudioPort

CAudioPort::CAudioPort(CAudioBlock* parent) : parentBlock(parent), pTraceLevel(&audioInterfaceTraceLevel)
{
    AUDIO_TRACE_CALL();
    resetPortParams();
}

CAudioPort::~CAudioPort()
{
    AUDIO_TRACE_CALL();
}

runTimeId CAudioPort::getRunTimeId()
{
    AUDIO_TRACE_CALL();
    return INVALID_ID;
}

bool CAudioPort::isCompatibleWith(CAudioPort* port)
{
    AUDIO_TRACE_CALL();
    (void)port; // a bare port has no peer to be compatible with
    return false;
}

std::string CAudioPort::printPortStatus()
{
    AUDIO_TRACE_CALL();
    std::string text;
    text += statusLabel("  Nominal sample rate:            ", params.nominalSampleRateStatus);
    text += toString(params.nominalSampleRate) + " Hz\n";
    text += statusLabel("  True sample rate:               ", params.trueSampleRateStatus);
    text += toString(params.trueSampleRate) + " Hz\n";
    text += statusLabel("  Number of channels:             ", params.numChannelsStatus);
    text += toString(params.numChannels) + "\n";
    text += statusLabel("  Sample format type:             ", params.sampleFormatStatus);
    text += getSampleFormatString() + "\n";
    text += statusLabel("  Samples are interleaved:        ", params.samplesInterleavedStatus);
    text += params.samplesInterleaved ? "yes\n" : "no\n";
    text += statusLabel("  Period size in samples:         ", params.periodSizeStatus);
    text += toString(params.periodSize) + "\n";
    text += "  Period count:                   " + toString(static_cast<long>(getPeriodCount())) + "\n";
    text += "  PlaybackState:                   " + getPlaybackState(); // the state text brings its line end
    return text;
}

streamStatus CAudioPort::reconfigPortCheck(audioPortParam_t* newParams)
{
    AUDIO_TRACE_CALL();
    AUDIO_TRACE_PRINTF(1, "Reconfig check %s type %d\n", blockNameOf(*this).c_str(), getRunTimeId());
    if (newParams == nullptr) {
        return STREAM_ERROR;
    }

    // Each field is visited whatever became of those before it, so that one check tells all its conflicts.
    streamStatus status = STREAM_OK;
    if (!mergeParam(params.nominalSampleRate, params.nominalSampleRateStatus, newParams->nominalSampleRate)) {
        AUDIO_TRACE_PRINTF(1, "NominalSampleRate (%s):%f is not compatible with %f\n", blockNameOf(*this).c_str(),
                           static_cast<double>(params.nominalSampleRate),
                           static_cast<double>(newParams->nominalSampleRate));
        status = STREAM_ERROR;
    }
    if (!mergeParam(params.trueSampleRate, params.trueSampleRateStatus, newParams->trueSampleRate)) {
        AUDIO_TRACE_PRINTF(1, "TrueSampleRate (%s):%f is not compatible with %f\n", blockNameOf(*this).c_str(),
                           static_cast<double>(params.trueSampleRate), static_cast<double>(newParams->trueSampleRate));
        status = STREAM_ERROR;
    }
    if (!mergeParam(params.numChannels, params.numChannelsStatus, newParams->numChannels)) {
        AUDIO_TRACE_PRINTF(1, "NumChannels (%s):%d is not compatible with %d\n", blockNameOf(*this).c_str(),
                           params.numChannels, newParams->numChannels);
        status = STREAM_ERROR;
    }
    if (!mergeParam(params.periodSize, params.periodSizeStatus, newParams->periodSize)) {
        AUDIO_TRACE_PRINTF(1, "PeriodSize (%s):%d is not compatible with %d\n", blockNameOf(*this).c_str(),
                           params.periodSize, newParams->periodSize);
        status = STREAM_ERROR;
    }
    if (!mergeParam(params.sampleFormat, params.sampleFormatStatus, newParams->sampleFormat)) {
        AUDIO_TRACE_PRINTF(1, "SampleFormat (%s):%d is not compatible with %d\n", blockNameOf(*this).c_str(),
                           params.sampleFormat, newParams->sampleFormat);
        status = STREAM_ERROR;
    }
    if (!mergeParam(params.samplesInterleaved, params.samplesInterleavedStatus, newParams->samplesInterleaved)) {
        AUDIO_TRACE_PRINTF(1, "SamplesInterleaved (%s):%d is not compatible with %d\n", blockNameOf(*this).c_str(),
                           params.samplesInterleaved, newParams->samplesInterleaved);
        status = STREAM_ERROR;
    }
    return status;
}

streamStatus CAudioPort::reconfigPortApply(audioPortParam_t* newParams)
{
    AUDIO_TRACE_CALL();
    (void)newParams; // a port that carries audio overrides this
    return STREAM_ERROR;
}

streamStatus CAudioPort::returnPortParams(audioPortParam_t* out)
{
    AUDIO_TRACE_CALL();
    if (out == nullptr) {
        return STREAM_ERROR;
    }
    *out = params;
    return STREAM_OK;
}

streamStatus CAudioPort::disconnect()
{
    AUDIO_TRACE_CALL();
    return STREAM_ERROR;
}

bool CAudioPort::isConnected(CAudioPort* port)
{
    AUDIO_TRACE_CALL();
    (void)port; // a bare port has no peer
    return false;
}

streamStatus CAudioPort::startAudio()
{
    AUDIO_TRACE_CALL();
    avgRate = params.nominalSampleRate;
    lastCountTime.setCurrentTime();
    // Last: a reader on another thread that sees the port playing finds the rest in place.
    portPlaybackState = AUDIO_PLAYING;
    return STREAM_OK;
}

streamStatus CAudioPort::stopAudio()
{
    AUDIO_TRACE_CALL();
    portPlaybackState = AUDIO_STOPPED;
    return STREAM_OK;
}

streamStatus CAudioPort::pauseAudio()
{
    AUDIO_TRACE_CALL();
    portPlaybackState = AUDIO_STOPPED; // a paused port is a stopped port
    return STREAM_OK;
}

streamStatus CAudioPort::muteAudio()
{
    AUDIO_TRACE_CALL();
    portPlaybackState = AUDIO_MUTED;
    return STREAM_OK;
}

void CAudioPort::incPeriodCount(unsigned int nPeriods)
{
    AUDIO_TRACE_CALL();
    const float alpha = rateAlpha(avgRate, params.nominalSampleRate);

    CServiceTime now;
    now.setCurrentTime();
    // Unsigned: the interval spans up to 4.29 s before it wraps. After a longer stall the average jumps, and the fast
    // branch pulls it back.
    const uint32_t nanoSeconds = static_cast<uint32_t>(now - lastCountTime);
    const float delta = 1.0F + alpha * (static_cast<float>(nanoSeconds) / -1000000000.0F);
    // One period's credit a call, however many were taken.
    avgRate = delta * avgRate + static_cast<float>(params.periodSize) * alpha;

    lastCountTime = now;
    addPeriods(nPeriods);
}

void CAudioPort::addPeriods(unsigned int nPeriods)
{
    // An atomic sum wraps without overflow; nothing but the number itself is shared.
    periodCounter.fetch_add(static_cast<int32_t>(nPeriods), std::memory_order_relaxed);
}

unsigned int CAudioPort::getSampleBytes()
{
    AUDIO_TRACE_CALL();
    return sampleFormatBytes(params.sampleFormat);
}

unsigned int CAudioPort::getSampleBits()
{
    AUDIO_TRACE_CALL();
    return getSampleBytes() * 8;
}

unsigned int CAudioPort::getPeriodBytes()
{
    AUDIO_TRACE_CALL();
    return params.periodSize * params.numChannels * getSampleBytes();
}

std::string CAudioPort::getSampleFormatString()
{
    AUDIO_TRACE_CALL();
    return sampleFormatText(params.sampleFormat);
}

std::string CAudioPort::getPlaybackState()
{
    AUDIO_TRACE_CALL();
    return portStateText(portPlaybackState);
}

void CAudioPort::resetPortParams()
{
    AUDIO_TRACE_CALL();
    params = resetParams;
    portPlaybackState = AUDIO_STOPPED;
}

streamStatus CAudioPort::offerParams(CAudioPort& peer, const char* operation)
{
    const streamStatus checked = peer.reconfigPortCheck(&checkParams);
    const streamStatus applied = checked == STREAM_OK ? peer.reconfigPortApply(&checkParams) : checked;
    if (checked != STREAM_OK) {
        AUDIO_TRACE_PRINTF(1, "%s: unable to reconfigure port parameters (%s->%s)\n", operation,
                           blockNameOf(*this).c_str(), blockNameOf(peer).c_str());
    } else if (applied != STREAM_OK) {
        AUDIO_TRACE_PRINTF(1, "%s: unable to apply port parameters (%s->%s)\n", operation, blockNameOf(*this).c_str(),
                           blockNameOf(peer).c_str());
    } else {
        AUDIO_TRACE_PRINTF(1, "%s: successfully reconfigured port parameters (%s->%s)\n", operation,
                           blockNameOf(*this).c_str(), blockNameOf(peer).c_str());
    }
    return applied;
}

std::string CAudioPort::blockNameOf(const CAudioPort& port) const
{
    return port.parentBlock == nullptr ? std::string() : port.parentBlock->name();
}

// ------------------------------------------------------------------------------------------------- CUpstreamPort

CUpstreamPort::CUpstreamPort(CAudioBlock* parent) : CAudioPort(parent)
{
    AUDIO_TRACE_CALL();
}

CUpstreamPort::~CUpstreamPort()
{
    AUDIO_TRACE_CALL();
}

runTimeId CUpstreamPort::getRunTimeId()
{
    AUDIO_TRACE_CALL();
    return INVALID_ID;
}

bool CUpstreamPort::isCompatibleWith(CAudioPort* port)
{
    AUDIO_TRACE_CALL();
    return port != nullptr && port->reconfigPortCheck(&params) == STREAM_OK;
}

std::string CUpstreamPort::printPortStatus()
{
    AUDIO_TRACE_CALL();
    std::string text = downstream == nullptr ? std::string("Upstream port is disconnected\n")
                                             : "Upstream port is connected to " + blockNameOf(*downstream) + "\n";
    text += "  Average Rate:                   " + toString(avgRate) + "\n";
    return text + CAudioPort::printPortStatus();
}

streamStatus CUpstreamPort::disconnect()
{
    AUDIO_TRACE_CALL();
    if (downstream != nullptr) {
        CDownstreamPort* peer = downstream;
        downstream = nullptr; // first: the peer disconnects this port in its turn
        (void)peer->disconnect();
    }
    resetPortParams();
    return STREAM_OK;
}

bool CUpstreamPort::isConnected(CAudioPort* port)
{
    AUDIO_TRACE_CALL();
    return port == nullptr ? downstream != nullptr : downstream == port;
}

streamStatus CUpstreamPort::connectDownstream(CDownstreamPort* port, mutexObject* mutex)
{
    AUDIO_TRACE_CALL();
    (void)mutex; // plays no part in connecting
    if (port == nullptr) {
        return STREAM_ERROR;
    }
    if (port->isConnected(nullptr) && !port->isConnected(this)) {
        return STREAM_ERROR;
    }
    if (isConnected(nullptr)) {
        if (!isConnected(port)) {
            return STREAM_ERROR;
        }
        if (isCompatibleWith(port)) {
            return STREAM_OK;
        }
        AUDIO_TRACE_PUTS(1, "Ports are incompatible");
        (void)disconnect();
        return STREAM_ERROR;
    }

    downstream = port;
    checkParams = params;
    const streamStatus forward = offerParams(*port, "connectDownstream");
    AUDIO_TRACE_PRINTF(1, "%s connectDownstream Status: %s\n", blockNameOf(*this).c_str(),
                       forward == STREAM_OK ? "STREAM_OK" : "STREAM_ERROR");

    // A forward failure is told and no more: where the peer's fields are fixed and ours variable, the way back adopts
    // them. Only the reverse pass decides.
    const streamStatus reverse = port->connectUpstream(this, nullptr);
    if (reverse != STREAM_OK) {
        (void)disconnect();
        return reverse;
    }
    return STREAM_OK;
}

streamStatus CUpstreamPort::reqReadPeriods(char*& pbuffer, unsigned int& nPeriods)
{
    AUDIO_TRACE_CALL();
    (void)pbuffer; // a port that carries audio overrides this
    (void)nPeriods;
    return STREAM_ERROR;
}

streamStatus CUpstreamPort::ackReadPeriods(unsigned int nPeriods)
{
    AUDIO_TRACE_CALL();
    (void)nPeriods; // a port that carries audio overrides this
    return STREAM_ERROR;
}

// ----------------------------------------------------------------------------------------------- CDownstreamPort

CDownstreamPort::CDownstreamPort(CAudioBlock* parent) : CAudioPort(parent)
{
    AUDIO_TRACE_CALL();
}

CDownstreamPort::~CDownstreamPort()
{
    AUDIO_TRACE_CALL();
}

runTimeId CDownstreamPort::getRunTimeId()
{
    AUDIO_TRACE_CALL();
    return INVALID_ID;
}

bool CDownstreamPort::isCompatibleWith(CAudioPort* port)
{
    AUDIO_TRACE_CALL();
    return port != nullptr && port->reconfigPortCheck(&params) == STREAM_OK;
}

std::string CDownstreamPort::printPortStatus()
{
    AUDIO_TRACE_CALL();
    std::string text = upstream == nullptr ? std::string("Downstream port is disconnected\n")
                                           : "Downstream port is connected to " + blockNameOf(*upstream) + "\n";
    return text + CAudioPort::printPortStatus();
}

streamStatus CDownstreamPort::disconnect()
{
    AUDIO_TRACE_CALL();
    if (upstream != nullptr) {
        CUpstreamPort* peer = upstream;
        upstream = nullptr; // first: the peer disconnects this port in its turn
        (void)peer->disconnect();
        resetPortParams(); // only here: an input that had no peer keeps its parameters
    }
    return STREAM_OK;
}

bool CDownstreamPort::isConnected(CAudioPort* port)
{
    AUDIO_TRACE_CALL();
    return port == nullptr ? upstream != nullptr : upstream == port;
}

streamStatus CDownstreamPort::connectUpstream(CUpstreamPort* port, mutexObject* mutex)
{
    AUDIO_TRACE_CALL();
    (void)mutex; // plays no part in connecting
    if (port == nullptr) {
        return STREAM_ERROR;
    }
    if (!port->isConnected(nullptr)) {
        AUDIO_TRACE_PUTS(1, "connectUpstream() can no longer be called from application, it must");
        AUDIO_TRACE_PUTS(1, "always be called from within connectDownstream");
        return STREAM_ERROR;
    }
    AUDIO_TRACE_PUTS(1, "connectupstream called from connect downstream");
    if (isConnected(nullptr)) {
        if (!isConnected(port)) {
            return STREAM_ERROR;
        }
        if (isCompatibleWith(port)) {
            return STREAM_OK;
        }
        (void)disconnect();
        return STREAM_ERROR;
    }

    upstream = port;
    checkParams = params; // as the forward pass left them
    const streamStatus status = offerParams(*port, "connectUpstream");
    if (status != STREAM_OK) {
        (void)disconnect();
    }
    return status;
}

} // namespace audioLibrarySpace
