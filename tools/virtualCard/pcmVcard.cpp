/**
 * The module libasound loads: turns the callbacks of an external I/O plug-in into calls of VirtualCard.
 *
 * libasound calls start, stop, pointer and transfer under its own lock for the PCM, so none of them may call a PCM
 * function; the poll callbacks, prepare and the parameter callbacks come without it. One mutex here covers them all.
 * The poll descriptor is a one-shot timer set for the moment the program can go on.
 */
#include "virtualCard.h"

#include <alsa/asoundlib.h>
#include <alsa/pcm_external.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <mutex>
#include <sys/timerfd.h>
#include <unistd.h>

using namespace vcard;

namespace
{

constexpr int64_t nsPerSecond = 1000000000;

int64_t monotonicNs()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * nsPerSecond + now.tv_nsec;
}

struct CardPcm {
    CardPcm(const Settings& settings, bool capture) : card(settings, capture) {}
    ~CardPcm()
    {
        if (timerFd >= 0)
            ::close(timerFd);
    }
    CardPcm(const CardPcm&) = delete;
    CardPcm& operator=(const CardPcm&) = delete;

    snd_pcm_ioplug_t io{};
    VirtualCard card;
    std::mutex mutex; ///< guards card
    int timerFd = -1; ///< owned
    snd_pcm_uframes_t boundary = 1UL << 30;

    bool draining() const { return io.state == SND_PCM_STATE_DRAINING; }
};

CardPcm& pcmOf(snd_pcm_ioplug_t* io)
{
    return *static_cast<CardPcm*>(io->private_data);
}

/** The caller prints errno, so a refusal sets it as well. */
int withErrno(int result)
{
    if (result < 0)
        errno = -result;
    return result;
}

void armTimer(CardPcm& pcm)
{
    const int64_t wakeNs = std::max(pcm.card.armWake(monotonicNs(), pcm.draining()), int64_t{1});
    itimerspec when{};
    when.it_value.tv_sec = static_cast<time_t>(wakeNs / nsPerSecond);
    when.it_value.tv_nsec = static_cast<long>(wakeNs % nsPerSecond);
    timerfd_settime(pcm.timerFd, TFD_TIMER_ABSTIME, &when, nullptr);
}

int onStart(snd_pcm_ioplug_t* io)
{
    CardPcm& pcm = pcmOf(io);
    const std::lock_guard<std::mutex> guard(pcm.mutex);
    return withErrno(pcm.card.start(monotonicNs()));
}

int onStop(snd_pcm_ioplug_t* io)
{
    CardPcm& pcm = pcmOf(io);
    const std::lock_guard<std::mutex> guard(pcm.mutex);
    pcm.card.stop(monotonicNs());
    return 0;
}

snd_pcm_sframes_t onPointer(snd_pcm_ioplug_t* io)
{
    CardPcm& pcm = pcmOf(io);
    const std::lock_guard<std::mutex> guard(pcm.mutex);
    switch (pcm.card.advance(monotonicNs(), pcm.draining())) {
    case Motion::xrun:
        return -EPIPE;
    // Any negative answer would be taken for an underrun: these two are told by the state.
    case Motion::gone:
        snd_pcm_ioplug_set_state(io, SND_PCM_STATE_DISCONNECTED);
        break;
    case Motion::suspended:
        snd_pcm_ioplug_set_state(io, SND_PCM_STATE_SUSPENDED);
        break;
    case Motion::moved:
        break;
    }
    return static_cast<snd_pcm_sframes_t>(pcm.card.position() % pcm.boundary);
}

snd_pcm_sframes_t onTransfer(snd_pcm_ioplug_t* io, const snd_pcm_channel_area_t* areas, snd_pcm_uframes_t offset,
                             snd_pcm_uframes_t size)
{
    CardPcm& pcm = pcmOf(io);
    const std::lock_guard<std::mutex> guard(pcm.mutex);
    // Interleaved, so the first area's address and step (in bits) describe all channels.
    char* samples = static_cast<char*>(areas[0].addr) + (areas[0].first + areas[0].step * offset) / 8;
    const int64_t result = io->stream == SND_PCM_STREAM_PLAYBACK ? pcm.card.write(samples, size, monotonicNs())
                                                                 : pcm.card.read(samples, size, monotonicNs());
    return static_cast<snd_pcm_sframes_t>(result);
}

int onClose(snd_pcm_ioplug_t* io)
{
    const std::unique_ptr<CardPcm> pcm(&pcmOf(io));
    pcm->card.close(monotonicNs());
    return 0;
}

int onHwParams(snd_pcm_ioplug_t* io, snd_pcm_hw_params_t*)
{
    CardPcm& pcm = pcmOf(io);
    const std::lock_guard<std::mutex> guard(pcm.mutex);
    StreamShape shape;
    shape.rateHz = io->rate;
    shape.channels = io->channels;
    shape.sampleBytes = static_cast<uint32_t>(snd_pcm_format_physical_width(io->format)) / 8;
    shape.periodFrames = io->period_size;
    shape.bufferFrames = io->buffer_size;
    return withErrno(pcm.card.setHardwareParameters(shape, monotonicNs()));
}

int onSwParams(snd_pcm_ioplug_t* io, snd_pcm_sw_params_t* params)
{
    CardPcm& pcm = pcmOf(io);
    const std::lock_guard<std::mutex> guard(pcm.mutex);
    snd_pcm_uframes_t availMin = 0;
    snd_pcm_uframes_t stopThreshold = 0;
    snd_pcm_sw_params_get_avail_min(params, &availMin);
    snd_pcm_sw_params_get_stop_threshold(params, &stopThreshold);
    snd_pcm_sw_params_get_boundary(params, &pcm.boundary);
    return withErrno(pcm.card.setSoftwareParameters(availMin, stopThreshold, monotonicNs()));
}

int onPrepare(snd_pcm_ioplug_t* io)
{
    CardPcm& pcm = pcmOf(io);
    const std::lock_guard<std::mutex> guard(pcm.mutex);
    return withErrno(pcm.card.prepare(monotonicNs()));
}

// libasound ignores the result and leaves the state to the plug-in.
int onResume(snd_pcm_ioplug_t* io)
{
    CardPcm& pcm = pcmOf(io);
    const std::lock_guard<std::mutex> guard(pcm.mutex);
    const int result = pcm.card.resume(monotonicNs());
    snd_pcm_ioplug_set_state(io, result == 0 ? SND_PCM_STATE_RUNNING : SND_PCM_STATE_DISCONNECTED);
    return result;
}

int onPollDescriptorsCount(snd_pcm_ioplug_t*)
{
    return 1;
}

int onPollDescriptors(snd_pcm_ioplug_t* io, pollfd* descriptors, unsigned int space)
{
    if (space < 1)
        return 0;
    CardPcm& pcm = pcmOf(io);
    const std::lock_guard<std::mutex> guard(pcm.mutex);
    armTimer(pcm);
    descriptors[0].fd = pcm.timerFd;
    descriptors[0].events = POLLIN;
    descriptors[0].revents = 0;
    return 1;
}

int onPollRevents(snd_pcm_ioplug_t* io, pollfd* descriptors, unsigned int count, unsigned short* revents)
{
    *revents = 0;
    if (count < 1 || (descriptors[0].revents & POLLIN) == 0)
        return 0;
    CardPcm& pcm = pcmOf(io);
    const std::lock_guard<std::mutex> guard(pcm.mutex);
    uint64_t expirations = 0;
    (void)!::read(pcm.timerFd, &expirations, sizeof expirations); // empties it; how often it fired is of no use
    switch (pcm.card.afterWake(monotonicNs(), pcm.draining())) {
    case Readiness::ready:
        *revents = io->stream == SND_PCM_STREAM_PLAYBACK ? POLLOUT : POLLIN;
        break;
    case Readiness::error:
        *revents = POLLERR;
        break;
    case Readiness::notYet:
        armTimer(pcm);
        break;
    }
    return 0;
}

snd_pcm_ioplug_callback_t makeCallbacks()
{
    snd_pcm_ioplug_callback_t callbacks{};
    callbacks.start = onStart;
    callbacks.stop = onStop;
    callbacks.pointer = onPointer;
    callbacks.transfer = onTransfer;
    callbacks.close = onClose;
    callbacks.hw_params = onHwParams;
    callbacks.sw_params = onSwParams;
    callbacks.prepare = onPrepare;
    callbacks.resume = onResume;
    callbacks.poll_descriptors_count = onPollDescriptorsCount;
    callbacks.poll_descriptors = onPollDescriptors;
    callbacks.poll_revents = onPollRevents;
    return callbacks;
}

/** Reads the keys of the card's block in the configuration. @return 0, or -EINVAL for one that makes no sense */
int readSettings(snd_config_t* block, Settings& settings)
{
    snd_config_iterator_t entry;
    snd_config_iterator_t next;
    snd_config_for_each(entry, next, block)
    {
        snd_config_t* node = snd_config_iterator_entry(entry);
        const char* key = nullptr;
        if (snd_config_get_id(node, &key) < 0)
            continue;
        const std::string keyText = key;
        if (keyText == "type" || keyText == "comment" || keyText == "hint")
            continue;
        char* text = nullptr;
        const bool readable = snd_config_get_ascii(node, &text) >= 0;
        const std::string valueText = readable && text != nullptr ? text : "";
        std::free(text);
        if (!readable || !settings.set(keyText, valueText)) {
            SNDERR("virtual card: %s \"%s\" makes no sense", key, valueText.c_str());
            return -EINVAL;
        }
    }
    return 0;
}

int limitParameters(snd_pcm_ioplug_t& io, const Settings& settings)
{
    const unsigned accesses[] = {SND_PCM_ACCESS_RW_INTERLEAVED, SND_PCM_ACCESS_MMAP_INTERLEAVED};
    std::vector<unsigned> formats;
    for (const std::string& format : settings.formats)
        formats.push_back(static_cast<unsigned>(snd_pcm_format_value(format.c_str())));
    const auto list = [&io](int type, const unsigned* values, size_t count) {
        return snd_pcm_ioplug_set_param_list(&io, type, static_cast<unsigned>(count), values);
    };
    const auto range = [&io](int type, const Range& limits) {
        return snd_pcm_ioplug_set_param_minmax(&io, type, limits.least, limits.most);
    };
    int result = list(SND_PCM_IOPLUG_HW_ACCESS, accesses, std::size(accesses));
    if (result >= 0)
        result = list(SND_PCM_IOPLUG_HW_FORMAT, formats.data(), formats.size());
    if (result >= 0)
        result = list(SND_PCM_IOPLUG_HW_RATE, settings.rates.data(), settings.rates.size());
    if (result >= 0)
        result = range(SND_PCM_IOPLUG_HW_CHANNELS, settings.channels);
    if (result >= 0)
        result = range(SND_PCM_IOPLUG_HW_PERIODS, settings.periods);
    if (result >= 0)
        result = range(SND_PCM_IOPLUG_HW_PERIOD_BYTES, settings.periodBytes);
    if (result >= 0)
        result = range(SND_PCM_IOPLUG_HW_BUFFER_BYTES, settings.bufferBytes);
    return result;
}

int openCard(snd_pcm_t** pcmp, const char* name, const Settings& settings, snd_pcm_stream_t stream, int mode)
{
    static const snd_pcm_ioplug_callback_t callbacks = makeCallbacks();
    auto pcm = std::make_unique<CardPcm>(settings, stream == SND_PCM_STREAM_CAPTURE);
    const int opened = pcm->card.open(monotonicNs());
    if (opened != 0)
        return opened;
    pcm->timerFd = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    if (pcm->timerFd < 0)
        return -errno;
    pcm->io.version = SND_PCM_IOPLUG_VERSION;
    pcm->io.name = "Virtual sound card";
    pcm->io.flags = SND_PCM_IOPLUG_FLAG_MONOTONIC | SND_PCM_IOPLUG_FLAG_BOUNDARY_WA | SND_PCM_IOPLUG_FLAG_LISTED;
    pcm->io.mmap_rw = 0;
    pcm->io.callback = &callbacks;
    pcm->io.private_data = pcm.get();
    pcm->io.poll_fd = pcm->timerFd;
    pcm->io.poll_events = POLLIN;
    const int created = snd_pcm_ioplug_create(&pcm->io, name, stream, mode);
    if (created < 0)
        return created;
    CardPcm* owned = pcm.release(); // from here on closing the PCM frees it
    const int limited = limitParameters(owned->io, settings);
    if (limited < 0) {
        snd_pcm_ioplug_delete(&owned->io);
        return limited;
    }
    *pcmp = owned->io.pcm;
    return 0;
}

} // namespace

extern "C" {

// The macros declare symbols that only the loader of modules looks for.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmissing-declarations"
#pragma GCC diagnostic ignored "-Wunused-parameter"

SND_PCM_PLUGIN_DEFINE_FUNC(vcard)
{
    Settings settings;
    int result = readSettings(conf, settings);
    if (result == 0)
        result = openCard(pcmp, name, settings, stream, mode);
    return withErrno(result);
}

SND_PCM_PLUGIN_SYMBOL(vcard);

#pragma GCC diagnostic pop
}
