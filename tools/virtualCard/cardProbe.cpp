/**
 * Uses a sound card the way the daemon does and tells what happened, one JSON object a line on standard output.
 *
 *   cardProbe play    [--device plughw:0,0] [--frames 48000] [--resample 0|1] [--hold] [--starve-ms MS] [--starve-at F]
 *                     [--errors N]
 *   cardProbe capture [--device hw:Axia,0] [--frames 48000] [--out FILE] [--pause-ms MS] [--pause-at F] [--hold]
 *
 * Playback writes S32_LE stereo whose left sample is the number of the frame and whose right sample is its complement;
 * after an error it prepares the card and offers the same frames again, until N errors (default 4) have been met.
 * Capture reads S16_LE stereo without blocking every 42 ms and stores the raw samples in FILE.
 * --hold: when done, prints {"step":"holding"} and keeps the card open until standard input ends.
 */
#include <alsa/asoundlib.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <string>
#include <unistd.h>
#include <vector>

namespace
{

struct Options {
    std::string device;
    int64_t frames = 48000;
    unsigned resample = 0;
    bool hold = false;
    int64_t pauseMs = 0;
    int64_t pauseAt = 0;
    int errors = 4;
    std::string out;
};

int64_t nowNs()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

void pauseFor(int64_t ms)
{
    timespec length{};
    length.tv_sec = static_cast<time_t>(ms / 1000);
    length.tv_nsec = static_cast<long>(ms % 1000) * 1000000;
    nanosleep(&length, nullptr);
}

int report(const char* step, int64_t result)
{
    std::printf("{\"step\":\"%s\",\"result\":%lld,\"time\":%.6f}\n", step, static_cast<long long>(result),
                static_cast<double>(nowNs()) * 1e-9);
    std::fflush(stdout);
    return static_cast<int>(result);
}

int openCard(snd_pcm_t** pcm, const Options& options, snd_pcm_stream_t stream, int mode)
{
    errno = 0;
    const int result = snd_pcm_open(pcm, options.device.c_str(), stream, mode);
    const int error = errno;
    report("open", result);
    if (result < 0)
        report("open_errno", error);
    return result;
}

int setUpPlayback(snd_pcm_t* pcm, const Options& options)
{
    snd_pcm_hw_params_t* params;
    snd_pcm_hw_params_alloca(&params);
    unsigned rate = 48000;
    unsigned periods = 18;
    snd_pcm_uframes_t buffer = 4608;
    if (report("any", snd_pcm_hw_params_any(pcm, params)) < 0 ||
        report("access", snd_pcm_hw_params_set_access(pcm, params, SND_PCM_ACCESS_RW_INTERLEAVED)) < 0 ||
        report("format", snd_pcm_hw_params_set_format(pcm, params, SND_PCM_FORMAT_S32_LE)) < 0)
        return -1;
    report("resample", snd_pcm_hw_params_set_rate_resample(pcm, params, options.resample));
    if (report("rate", snd_pcm_hw_params_set_rate_near(pcm, params, &rate, nullptr)) < 0 ||
        report("channels", snd_pcm_hw_params_set_channels(pcm, params, 2)) < 0 ||
        report("periods", snd_pcm_hw_params_set_periods_near(pcm, params, &periods, nullptr)) < 0 ||
        report("buffer", snd_pcm_hw_params_set_buffer_size_near(pcm, params, &buffer)) < 0 ||
        report("hw_params", snd_pcm_hw_params(pcm, params)) < 0)
        return -1;
    snd_pcm_uframes_t period = 0;
    snd_pcm_hw_params_get_period_size(params, &period, nullptr);
    report("granted_rate", rate);
    report("granted_periods", periods);
    report("granted_buffer", static_cast<int64_t>(buffer));
    report("granted_period", static_cast<int64_t>(period));
    report("state", snd_pcm_state(pcm));
    return 0;
}

void holdUntilInputEnds(const Options& options)
{
    if (!options.hold)
        return;
    report("holding", 0);
    char byte;
    while (read(STDIN_FILENO, &byte, 1) > 0) {
    }
}

void fillCounted(std::vector<int32_t>& samples, int64_t firstFrame, int64_t numFrames)
{
    for (int64_t i = 0; i < numFrames; ++i) {
        samples[static_cast<size_t>(2 * i)] = static_cast<int32_t>(firstFrame + i);
        samples[static_cast<size_t>(2 * i + 1)] = static_cast<int32_t>(~(firstFrame + i));
    }
}

void playFrames(snd_pcm_t* pcm, const Options& options)
{
    constexpr int64_t framesAWrite = 4608;
    std::vector<int32_t> samples(2 * framesAWrite);
    int64_t done = 0;
    int errors = 0;
    bool paused = options.pauseMs == 0;
    while (done < options.frames && errors < options.errors) {
        if (!paused && done >= options.pauseAt) {
            paused = true;
            pauseFor(options.pauseMs);
        }
        const int64_t wanted = std::min(framesAWrite, options.frames - done);
        fillCounted(samples, done, wanted);
        const snd_pcm_sframes_t written = snd_pcm_writei(pcm, samples.data(), static_cast<snd_pcm_uframes_t>(wanted));
        report("write", written);
        if (written >= 0) {
            done += written;
            continue;
        }
        ++errors;
        report("prepare", snd_pcm_prepare(pcm));
    }
    report("written", done);
}

int play(const Options& options)
{
    snd_pcm_t* pcm = nullptr;
    if (openCard(&pcm, options, SND_PCM_STREAM_PLAYBACK, 0) < 0)
        return 1;
    const bool usable = setUpPlayback(pcm, options) == 0;
    if (usable) {
        playFrames(pcm, options);
        holdUntilInputEnds(options);
        report("drop", snd_pcm_drop(pcm));
    }
    report("close", snd_pcm_close(pcm));
    return usable ? 0 : 1;
}

int setUpCapture(snd_pcm_t* pcm)
{
    snd_pcm_hw_params_t* params;
    snd_pcm_hw_params_alloca(&params);
    unsigned rate = 48000;
    snd_pcm_uframes_t buffer = 16384;
    if (report("any", snd_pcm_hw_params_any(pcm, params)) != 0 ||
        report("access", snd_pcm_hw_params_set_access(pcm, params, SND_PCM_ACCESS_RW_INTERLEAVED)) != 0 ||
        report("format", snd_pcm_hw_params_set_format(pcm, params, SND_PCM_FORMAT_S16_LE)) != 0 ||
        report("rate", snd_pcm_hw_params_set_rate_near(pcm, params, &rate, nullptr)) != 0 ||
        report("channels", snd_pcm_hw_params_set_channels(pcm, params, 2)) != 0 ||
        report("periods", snd_pcm_hw_params_set_periods(pcm, params, 16, 0)) != 0 ||
        report("buffer", snd_pcm_hw_params_set_buffer_size_near(pcm, params, &buffer)) != 0 ||
        report("hw_params", snd_pcm_hw_params(pcm, params)) != 0)
        return -1;
    report("granted_rate", rate);
    report("granted_buffer", static_cast<int64_t>(buffer));
    if (report("prepare", snd_pcm_prepare(pcm)) != 0)
        return -1;
    return report("start", snd_pcm_start(pcm));
}

/** Reads until the card has nothing more. @return false when the card can't be used any longer */
bool drainCard(snd_pcm_t* pcm, std::ofstream& out, int64_t& done)
{
    constexpr snd_pcm_uframes_t framesARead = 1024;
    constexpr std::streamsize frameBytes = 4;
    char samples[framesARead * frameBytes];
    for (;;) {
        const snd_pcm_sframes_t frames = snd_pcm_readi(pcm, samples, framesARead);
        report("read", frames);
        if (frames == -EAGAIN)
            return true;
        if (frames == -EPIPE) {
            report("prepare", snd_pcm_prepare(pcm));
            return report("restart", snd_pcm_start(pcm)) == 0;
        }
        if (frames < 0) {
            const int recovered = snd_pcm_recover(pcm, static_cast<int>(frames), 1);
            report("recover", recovered);
            return recovered == 0 || recovered == -EAGAIN;
        }
        done += frames;
        out.write(samples, frames * frameBytes);
    }
}

int capture(const Options& options)
{
    snd_pcm_t* pcm = nullptr;
    if (openCard(&pcm, options, SND_PCM_STREAM_CAPTURE, SND_PCM_NONBLOCK) < 0)
        return 1;
    std::ofstream out(options.out, std::ios::binary);
    const bool usable = setUpCapture(pcm) == 0;
    int64_t done = 0;
    bool paused = options.pauseMs == 0;
    while (usable && done < options.frames && drainCard(pcm, out, done)) {
        const bool pauseNow = !paused && done >= options.pauseAt;
        constexpr int64_t passMs = 42;
        pauseFor(pauseNow ? options.pauseMs : passMs);
        paused = paused || pauseNow;
    }
    report("captured", done);
    if (usable)
        holdUntilInputEnds(options);
    report("close", snd_pcm_close(pcm));
    return usable ? 0 : 1;
}

/** The text after @p name among the arguments, or @p otherwise. */
std::string valueOf(int argc, char** argv, const char* name, const std::string& otherwise)
{
    for (int i = 2; i + 1 < argc; ++i) {
        if (std::strcmp(argv[i], name) == 0)
            return argv[i + 1];
    }
    return otherwise;
}

Options readOptions(int argc, char** argv, bool playing)
{
    Options options;
    options.device = valueOf(argc, argv, "--device", playing ? "plughw:0,0" : "hw:Axia,0");
    options.frames = std::atoll(valueOf(argc, argv, "--frames", "48000").c_str());
    options.resample = valueOf(argc, argv, "--resample", "0") == "1" ? 1 : 0;
    options.pauseMs = std::atoll(valueOf(argc, argv, playing ? "--starve-ms" : "--pause-ms", "0").c_str());
    options.pauseAt = std::atoll(valueOf(argc, argv, playing ? "--starve-at" : "--pause-at", "0").c_str());
    options.errors = std::atoi(valueOf(argc, argv, "--errors", "4").c_str());
    options.out = valueOf(argc, argv, "--out", "/dev/null");
    for (int i = 2; i < argc; ++i)
        options.hold = options.hold || std::strcmp(argv[i], "--hold") == 0;
    return options;
}

} // namespace

int main(int argc, char** argv)
{
    const std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "play")
        return play(readOptions(argc, argv, true));
    if (mode == "capture")
        return capture(readOptions(argc, argv, false));
    std::fprintf(stderr, "usage: cardProbe play|capture [OPTION ...]\n");
    return 2;
}
