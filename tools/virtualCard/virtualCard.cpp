#include "virtualCard.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <map>
#include <mutex>
#include <sys/stat.h>
#include <unistd.h>

namespace vcard
{
namespace
{

// A waiting program is woken this often at least, so that requests on the control page are noticed.
constexpr int64_t longestWaitNs = 100000000;
constexpr int64_t stalledWaitNs = 50000000;

/** Events of the run's script that are still to come, by card file: a reopened card does not begin it anew. */
struct ScriptsOfThisProcess {
    std::mutex mutex;
    std::map<std::string, std::vector<TimedFault>> events;
};

ScriptsOfThisProcess& scripts()
{
    static ScriptsOfThisProcess theScripts;
    return theScripts;
}

std::string ownCardsDirectory()
{
    const std::string directory = "/tmp/virtualCard-" + std::to_string(getuid());
    (void)mkdir(directory.c_str(), 0700); // it may be there already; if not, opening the card tells
    return directory;
}

bool isNumber(const std::string& text)
{
    return text.find_first_not_of("0123456789") == std::string::npos;
}

} // namespace

VirtualCard::VirtualCard(const Settings& cardSettings, bool isCapture)
    : settings(cardSettings), capture(isCapture), name(cardSettings.fileName(isCapture))
{
}

VirtualCard::~VirtualCard() = default;

int VirtualCard::open(int64_t nowNs)
{
    const int logged = settings.logPath.empty() ? 0 : log.open(settings.logPath, name);
    if (logged != 0)
        return logged;
    const int result = openCardFile(nowNs);
    if (result != 0) {
        log.write(nowNs, "open refused error=%d (%s)", -result, std::strerror(-result));
        page.unmap();
        return result;
    }
    isOpen = true;
    const PageStatus before = page.status();
    status.opens = before.opens + 1;
    status.xrunsEver = before.xrunsEver;
    status.faultsDelivered = before.faultsDelivered;
    status.state = CardState::open;
    status.pid = static_cast<uint64_t>(getpid());
    status.openedNs = nowNs;
    log.write(nowNs, "open pid=%d number=%" PRIu64, getpid(), status.opens);
    if (capture)
        loadSource(nowNs);
    publish(nowNs);
    return 0;
}

int VirtualCard::openCardFile(int64_t nowNs)
{
    const bool openList = settings.cardsDirectory.empty();
    const std::string directory = openList ? ownCardsDirectory() : settings.cardsDirectory;
    scriptKey = directory + "/" + name;
    const int mapped = page.map(scriptKey, openList);
    if (mapped == -ENOENT)
        return isNumber(settings.card) ? -ENOENT : -ENODEV;
    if (mapped != 0)
        return mapped;
    if (isGone())
        return -ENODEV;
    loadScript(scriptKey);
    const int refused = refuse(Step::open, "open", nowNs);
    return refused != 0 ? refused : page.lock();
}

void VirtualCard::loadScript(const std::string& cardPath)
{
    const std::lock_guard<std::mutex> guard(scripts().mutex);
    const FaultScript& script = capture ? settings.captureFaults : settings.faults;
    if (!scripts().events.try_emplace(cardPath, script.events).second)
        return;
    for (const CallFault& fault : script.calls) {
        FaultSlot& slot = page.requests().faults[static_cast<size_t>(fault.step)];
        slot.skip = fault.skip;
        slot.error = fault.error;
        slot.remaining = fault.remaining;
    }
}

int VirtualCard::refuse(Step step, const char* what, int64_t nowNs)
{
    int32_t error = 0;
    if (!page.takeFault(step, error))
        return 0;
    ++status.faultsDelivered;
    log.write(nowNs, "fault %s error=%d (%s)", what, error, std::strerror(error));
    return -error;
}

void VirtualCard::loadSource(int64_t nowNs)
{
    source.setTone(settings.toneHz, settings.toneDb);
    if (settings.sourceDirectory.empty())
        return;
    const std::string path =
        settings.sourceDirectory + "/" + settings.card + "-" + std::to_string(settings.device) + ".wav";
    const int result = source.loadWav(path);
    if (result == 0)
        log.write(nowNs, "source file=%s rate=%u", path.c_str(), source.fileRateHz());
    else
        log.write(nowNs, "source tone (%s: %s)", path.c_str(), std::strerror(-result));
}

int VirtualCard::setHardwareParameters(const StreamShape& newShape, int64_t nowNs)
{
    const int refused = refuse(Step::hwParams, "hwParams", nowNs);
    if (refused != 0)
        return refused;
    const bool sameFormat = recorder.isOpen() && newShape.rateHz == shape.rateHz &&
                            newShape.channels == shape.channels && newShape.sampleBytes == shape.sampleBytes;
    shape = newShape;
    if (!capture)
        ring.assign(static_cast<size_t>(shape.bufferFrames * shape.frameBytes()), 0);
    stopThresholdFrames = shape.bufferFrames;
    availMinFrames = shape.periodFrames;
    clock.configure(shape.rateHz, page.ppm(capture ? settings.capturePpm : settings.ppm));
    meter.configure(shape.channels, shape.sampleBytes, shape.periodFrames);
    log.write(nowNs, "hw_params format=S%u_LE channels=%u rate=%u period=%" PRIu64 " buffer=%" PRIu64,
              shape.sampleBytes * 8, shape.channels, shape.rateHz, shape.periodFrames, shape.bufferFrames);
    if (!capture && !sameFormat)
        openRecording(nowNs);
    publish(nowNs);
    return 0;
}

void VirtualCard::openRecording(int64_t nowNs)
{
    if (settings.recordDirectory.empty())
        return;
    const std::string stem = settings.card + "-" + std::to_string(settings.device);
    const WavFormat format{shape.rateHz, shape.channels, shape.sampleBytes};
    const int result = recorder.open(settings.recordDirectory, stem, format, settings.recordLimitBytes);
    if (result != 0) {
        log.write(nowNs, "record failed directory=%s (%s)", settings.recordDirectory.c_str(), std::strerror(-result));
        return;
    }
    log.write(nowNs, "record file=%s", recorder.path().c_str());
    page.publishRecordingPath(recorder.path());
}

int VirtualCard::setSoftwareParameters(uint64_t availMin, uint64_t stopThreshold, int64_t nowNs)
{
    const int refused = refuse(Step::swParams, "swParams", nowNs);
    if (refused != 0)
        return refused;
    availMinFrames = availMin;
    stopThresholdFrames = stopThreshold;
    log.write(nowNs, "sw_params avail_min=%" PRIu64 " stop_threshold=%" PRIu64, availMin, stopThreshold);
    return 0;
}

int VirtualCard::prepare(int64_t nowNs)
{
    if (isGone())
        return -ENODEV;
    const int refused = refuse(Step::prepare, "prepare", nowNs);
    if (refused != 0)
        return refused;
    discardQueued();
    halt(nowNs);
    if (capture) // a restarted card goes on in its source where it stopped
        sourceFrames += positionFrames;
    positionFrames = appliedFrames = 0;
    clock.start(nowNs, 0.0);
    clock.stop(nowNs);
    status.state = CardState::prepared;
    log.write(nowNs, "prepare");
    publish(nowNs);
    return 0;
}

int VirtualCard::start(int64_t nowNs)
{
    if (isGone())
        return -ENODEV;
    const int refused = refuse(Step::start, "start", nowNs);
    if (refused != 0)
        return refused;
    closeGap(nowNs);
    clock.start(nowNs, 0.0);
    status.state = CardState::running;
    status.startedNs = nowNs;
    nextReport = status.totalFrames + shape.rateHz;
    log.write(nowNs, "start queued=%" PRIu64 " rate=%.4f ppm=%g total=%" PRIu64, appliedFrames, clock.trueHz(),
              clock.ppm(), status.totalFrames);
    publish(nowNs);
    return 0;
}

// The time without data, in frames of the card's true clock: silence in the recording, or frames nobody captured.
void VirtualCard::closeGap(int64_t nowNs)
{
    if (!gapIsOpen)
        return;
    gapIsOpen = false;
    const double seconds = static_cast<double>(std::max(nowNs - gapSinceNs, int64_t{0})) * 1e-9;
    const uint64_t gap = static_cast<uint64_t>(seconds * clock.trueHz() + 0.5);
    status.gapFrames += gap;
    log.write(nowNs, "gap frames=%" PRIu64 " as=%s", gap, settings.gapSilence ? "silence" : "none");
    if (!settings.gapSilence)
        return;
    if (capture)
        sourceFrames += gap;
    else
        recorderResult(recorder.appendSilence(gap), nowNs);
}

void VirtualCard::stop(int64_t nowNs)
{
    if (status.state == CardState::open) // closing stops once more
        return;
    const bool wasRunning = clock.running();
    if (wasRunning && !capture)
        passFrames(std::min(clock.position(nowNs), appliedFrames), nowNs);
    const uint64_t dropped = capture ? 0 : appliedFrames - std::min(positionFrames, appliedFrames);
    discardQueued();
    halt(nowNs);
    if (status.state != CardState::gone)
        status.state = CardState::open;
    log.write(nowNs, "stop position=%" PRIu64 " dropped=%" PRIu64 " total=%" PRIu64, positionFrames, dropped,
              status.totalFrames);
    publish(nowNs);
}

void VirtualCard::discardQueued()
{
    if (capture || appliedFrames <= positionFrames)
        return;
    status.droppedFrames += appliedFrames - positionFrames;
    appliedFrames = positionFrames;
}

void VirtualCard::halt(int64_t nowNs)
{
    clock.stop(nowNs);
    meter.silence();
    armedNs = 0;
}

int VirtualCard::resume(int64_t nowNs)
{
    if (isGone())
        return -ENODEV;
    clock.start(nowNs, static_cast<double>(positionFrames));
    status.state = CardState::running;
    log.write(nowNs, "resume position=%" PRIu64, positionFrames);
    publish(nowNs);
    return 0;
}

void VirtualCard::close(int64_t nowNs)
{
    if (!isOpen)
        return;
    isOpen = false;
    recorder.close();
    log.write(nowNs, "close total=%" PRIu64 " xruns=%" PRIu64 " gap=%" PRIu64 " dropped=%" PRIu64 " late=%" PRIu64,
              status.totalFrames, status.xruns, status.gapFrames, status.droppedFrames, status.lateWakes);
    status.state = CardState::closed;
    publish(nowNs);
    page.unmap();
}

bool VirtualCard::isGone()
{
    return page.requests().gone != 0;
}

void VirtualCard::applyRequests(int64_t nowNs)
{
    const double ppm = page.ppm(capture ? settings.capturePpm : settings.ppm);
    if (ppm != clock.ppm()) {
        clock.changePpm(nowNs, ppm);
        log.write(nowNs, "ppm value=%g rate=%.4f position=%" PRIu64, ppm, clock.trueHz(), clock.position(nowNs));
    }
    const bool stalled = page.requests().stalled != 0;
    if (stalled != clock.stalled() && clock.running()) {
        clock.setStalled(nowNs, stalled);
        stalledSinceNs = nowNs;
        log.write(nowNs, "%s position=%" PRIu64, stalled ? "stall" : "stall_end", clock.position(nowNs));
    }
}

void VirtualCard::fireScript()
{
    const std::lock_guard<std::mutex> guard(scripts().mutex);
    std::vector<TimedFault>& events = scripts().events[scriptKey];
    PageRequests& requests = page.requests();
    while (!events.empty() && events.front().frames <= status.totalFrames) {
        switch (events.front().event) {
        case Event::xrun:
            ++requests.forceXrun;
            break;
        case Event::suspend:
            ++requests.forceSuspend;
            break;
        case Event::gone:
            requests.gone = 1;
            break;
        case Event::stall:
            requests.stalled = 1;
            break;
        case Event::resume:
            requests.stalled = 0;
            break;
        case Event::transfer:
            requests.faults[static_cast<size_t>(Step::transfer)].error = EIO;
            requests.faults[static_cast<size_t>(Step::transfer)].remaining = 1;
            break;
        }
        events.erase(events.begin());
    }
}

Motion VirtualCard::advance(int64_t nowNs, bool draining)
{
    if (isGone())
        return disconnect(nowNs);
    if (status.state == CardState::xrun)
        return Motion::xrun;
    if (!clock.running())
        return status.state == CardState::suspended ? Motion::suspended : Motion::moved;
    applyRequests(nowNs);
    const uint64_t stopAt = stopPosition(draining);
    const uint64_t reached = clock.position(nowNs);
    passFrames(std::min(reached, stopAt), nowNs);
    fireScript();
    if (isGone())
        return disconnect(nowNs);
    if (takeOne(page.requests().forceSuspend))
        return suspend(nowNs);
    if (reached >= stopAt && !draining)
        return xrun(clock.timeOf(stopAt), nowNs, false);
    if (takeOne(page.requests().forceXrun))
        return xrun(nowNs, nowNs, true);
    reportPosition(nowNs);
    publish(nowNs);
    return Motion::moved;
}

// The frame at which the frames available (playback: room, capture: frames to read) reach the stop threshold.
uint64_t VirtualCard::stopPosition(bool draining) const
{
    if (capture)
        return appliedFrames + stopThresholdFrames;
    return draining ? appliedFrames : appliedFrames + stopThresholdFrames - shape.bufferFrames;
}

void VirtualCard::passFrames(uint64_t untilFrames, int64_t nowNs)
{
    if (untilFrames <= positionFrames)
        return;
    status.totalFrames += untilFrames - positionFrames;
    if (!capture) {
        const uint64_t queued = appliedFrames > positionFrames ? appliedFrames - positionFrames : 0;
        const uint64_t fromRing = std::min(untilFrames - positionFrames, queued);
        passFromRing(fromRing, nowNs);
        // A program with a stop threshold beyond the buffer lets the card run on without data.
        recorderResult(recorder.appendSilence(untilFrames - positionFrames - fromRing), nowNs);
    }
    positionFrames = untilFrames;
}

void VirtualCard::passFromRing(uint64_t numFrames, int64_t nowNs)
{
    uint64_t frame = positionFrames;
    while (numFrames > 0) {
        const uint64_t index = frame % shape.bufferFrames;
        const uint64_t piece = std::min(numFrames, shape.bufferFrames - index);
        const char* samples = ring.data() + index * shape.frameBytes();
        recorderResult(recorder.append(samples, piece), nowNs);
        meter.measure(samples, piece);
        frame += piece;
        numFrames -= piece;
    }
}

void VirtualCard::recorderResult(int result, int64_t nowNs)
{
    if (result != 0)
        log.write(nowNs, "record failed file=%s (%s)", recorder.path().c_str(), std::strerror(-result));
}

Motion VirtualCard::xrun(int64_t happenedNs, int64_t seenNs, bool forced)
{
    ++status.xruns;
    ++status.xrunsEver;
    status.lastXrunNs = happenedNs;
    status.state = CardState::xrun;
    log.write(seenNs, "%s at=%.9f seen_after_ms=%.3f position=%" PRIu64 " total=%" PRIu64 " forced=%d number=%" PRIu64,
              capture ? "overrun" : "underrun", static_cast<double>(happenedNs) * 1e-9,
              static_cast<double>(seenNs - happenedNs) * 1e-6, positionFrames, status.totalFrames, forced ? 1 : 0,
              status.xruns);
    gapIsOpen = true;
    gapSinceNs = happenedNs;
    clock.stop(happenedNs);
    meter.silence();
    publish(seenNs);
    return Motion::xrun;
}

Motion VirtualCard::suspend(int64_t nowNs)
{
    clock.stop(nowNs);
    meter.silence();
    status.state = CardState::suspended;
    log.write(nowNs, "suspend position=%" PRIu64, positionFrames);
    publish(nowNs);
    return Motion::suspended;
}

Motion VirtualCard::disconnect(int64_t nowNs)
{
    if (status.state == CardState::gone)
        return Motion::gone;
    clock.stop(nowNs);
    meter.silence();
    status.state = CardState::gone;
    log.write(nowNs, "gone position=%" PRIu64 " total=%" PRIu64, positionFrames, status.totalFrames);
    publish(nowNs);
    return Motion::gone;
}

void VirtualCard::reportPosition(int64_t nowNs)
{
    if (status.totalFrames < nextReport)
        return;
    nextReport += shape.rateHz;
    log.write(nowNs, "position frames=%" PRIu64 " total=%" PRIu64, positionFrames, status.totalFrames);
}

int64_t VirtualCard::write(const char* samples, uint64_t numFrames, int64_t nowNs)
{
    const int refused = refuse(Step::transfer, "transfer", nowNs);
    if (refused != 0)
        return refused;
    const uint64_t frameBytes = shape.frameBytes();
    uint64_t done = 0;
    while (done < numFrames) {
        const uint64_t index = (appliedFrames + done) % shape.bufferFrames;
        const uint64_t piece = std::min(numFrames - done, shape.bufferFrames - index);
        std::memcpy(ring.data() + index * frameBytes, samples + done * frameBytes,
                    static_cast<size_t>(piece * frameBytes));
        done += piece;
    }
    appliedFrames += numFrames;
    return static_cast<int64_t>(numFrames);
}

int64_t VirtualCard::read(char* samples, uint64_t numFrames, int64_t nowNs)
{
    const int refused = refuse(Step::transfer, "transfer", nowNs);
    if (refused != 0)
        return refused;
    source.fill(samples, sourceFrames + appliedFrames, numFrames, shape.channels, shape.sampleBytes, shape.rateHz);
    meter.measure(samples, numFrames);
    appliedFrames += numFrames;
    return static_cast<int64_t>(numFrames);
}

uint64_t VirtualCard::wakePosition(bool draining) const
{
    if (capture)
        return appliedFrames + availMinFrames;
    if (draining)
        return appliedFrames;
    const uint64_t room = appliedFrames + availMinFrames;
    return room > shape.bufferFrames ? room - shape.bufferFrames : 0;
}

int64_t VirtualCard::armWake(int64_t nowNs, bool draining)
{
    armedNs = 0;
    if (!clock.running())
        return nowNs;
    if (clock.stalled())
        return nowNs + stalledWaitNs;
    armedNs = std::min(clock.timeOf(wakePosition(draining)), nowNs + longestWaitNs);
    return armedNs;
}

Readiness VirtualCard::afterWake(int64_t nowNs, bool draining)
{
    const int64_t lateNs = armedNs > 0 ? nowNs - armedNs : 0;
    armedNs = 0;
    const int64_t forgiven = forgiveNs();
    if (forgiven > 0 && lateNs > forgiven && clock.running() && !clock.stalled()) {
        clock.pushBack(lateNs);
        ++status.lateWakes;
        status.lateNs += lateNs;
        log.write(nowNs, "late_wake late_ms=%.3f position=%" PRIu64, static_cast<double>(lateNs) * 1e-6,
                  clock.position(nowNs));
    }
    if (!clock.running() || isGone())
        return Readiness::ready;
    applyRequests(nowNs);
    const PageRequests& requests = page.requests();
    if (requests.forceXrun > 0 || requests.forceSuspend > 0 || clock.position(nowNs) >= wakePosition(draining))
        return Readiness::ready;
    // Without an answer the program would wait for ever: libasound has no limit of its own.
    if (clock.stalled() && static_cast<double>(nowNs - stalledSinceNs) >= settings.stallTimeoutMs * 1e6) {
        log.write(nowNs, "stall_error position=%" PRIu64, clock.position(nowNs));
        return Readiness::error;
    }
    return Readiness::notYet;
}

int64_t VirtualCard::forgiveNs()
{
    const int64_t asked = page.requests().forgiveNs;
    return asked >= 0 ? asked : static_cast<int64_t>(settings.forgiveMs * 1e6);
}

void VirtualCard::publish(int64_t nowNs)
{
    status.updatedNs = nowNs;
    status.rateHz = shape.rateHz;
    status.channels = shape.channels;
    status.sampleBytes = shape.sampleBytes;
    status.periodFrames = shape.periodFrames;
    status.bufferFrames = shape.bufferFrames;
    status.trueHz = clock.trueHz();
    status.ppm = clock.ppm();
    status.referenceNs = clock.referenceNs();
    status.referenceFrames = clock.referenceFrames();
    status.position = positionFrames;
    status.applied = appliedFrames;
    for (unsigned channel = 0; channel < LevelMeter::mostChannels; ++channel) {
        status.peak[channel] = meter.peak(channel);
        status.rms[channel] = meter.rms(channel);
    }
    page.publish(status);
}

} // namespace vcard
