// bench/asrcBench
/**
 * Speed of the rate converter, each form beside the literal one and beside other converters:
 *
 *   bench_asrc [--check] [ROUNDS]     (41 rounds)
 *
 * All get and give interleaved 16-bit stereo in blocks of 1024 frames, the copies in and out included. Each round runs
 * every converter for about the same time, one after the other, and takes its ratio to the literal form of that round; the
 * figures are medians of those ratios, so that a slow spell of the machine hits both sides alike. Time is the thread's
 * own processor time: what other programs take does not count.
 * --check exits with 1 when a form misses its aim: 9.5 times the literal form with SSE2, 14 times with AVX2.
 */

#include "asrcFeed.h"

#include <samplerate.h>
#include <soxr.h>
#include <speex/speex_resampler.h>
#include <zita-resampler/vresampler.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <time.h>

namespace
{

constexpr unsigned int kBlockFrames = 1024;
constexpr unsigned int kBlocks = 60;    ///< of test audio, played in a circle
constexpr double kSliceSeconds = 0.008; ///< of each converter in each round
constexpr unsigned int kOutRoom = 2048; ///< more than a block can become

using ConvertBlock = std::function<unsigned int(const int16_t* in, int16_t* out)>;

struct Candidate {
    std::string name;
    unsigned int channels;
    ConvertBlock convert;
    double aim;              ///< times the literal form; 0 for none
    unsigned int blocks = 0; ///< a slice's worth
    std::vector<double> ratios = {};
    std::vector<double> framesPerSecond = {};
};

std::vector<int16_t> loadTable(const char* path)
{
    std::vector<int16_t> table(8192);
    std::ifstream file(path, std::ios::binary);
    if (!file.read(reinterpret_cast<char*>(table.data()), 16384)) {
        std::fprintf(stderr, "cannot read %s\n", path);
        std::exit(2);
    }
    return table;
}

ConvertBlock literalForm(unsigned int channels, const std::vector<int16_t>& table, unsigned int in, unsigned int out)
{
    auto converter = std::make_shared<asrcLiteral::Converter>(channels, table.data());
    converter->setRates(in, out);
    return [=](const int16_t* from, int16_t* to) {
        return feedBlock(*converter, from, kBlockFrames, to, kOutRoom, channels);
    };
}

ConvertBlock ourForm(unsigned int channels, const std::vector<int16_t>& table, unsigned int in, unsigned int out,
                     const asrcKernel& kernel)
{
    auto converter = std::make_shared<AsrcConverter>(channels, table, in, out, kernel);
    return [=](const int16_t* from, int16_t* to) {
        return feedBlock(*converter, from, kBlockFrames, to, kOutRoom, channels);
    };
}

ConvertBlock libsamplerateFastest(unsigned int in, unsigned int out)
{
    int error = 0;
    std::shared_ptr<SRC_STATE> state(src_new(SRC_SINC_FASTEST, 2, &error), src_delete);
    std::vector<float> input(2 * kBlockFrames);
    std::vector<float> output(2 * kOutRoom);
    return [=](const int16_t* from, int16_t* to) mutable {
        src_short_to_float_array(from, input.data(), 2 * kBlockFrames);
        SRC_DATA data{};
        data.data_in = input.data();
        data.data_out = output.data();
        data.input_frames = kBlockFrames;
        data.output_frames = kOutRoom;
        data.src_ratio = static_cast<double>(out) / in;
        src_process(state.get(), &data);
        src_float_to_short_array(output.data(), to, static_cast<int>(2 * data.output_frames_gen));
        return static_cast<unsigned int>(data.output_frames_gen);
    };
}

ConvertBlock speexQuality3(unsigned int in, unsigned int out)
{
    int error = 0;
    std::shared_ptr<SpeexResamplerState> state(speex_resampler_init(2, in, out, 3, &error), speex_resampler_destroy);
    return [=](const int16_t* from, int16_t* to) {
        spx_uint32_t taken = kBlockFrames;
        spx_uint32_t made = kOutRoom;
        speex_resampler_process_interleaved_int(state.get(), from, &taken, to, &made);
        return made;
    };
}

ConvertBlock soxrLow(unsigned int in, unsigned int out)
{
    const soxr_io_spec_t io = soxr_io_spec(SOXR_INT16_I, SOXR_INT16_I);
    const soxr_quality_spec_t quality = soxr_quality_spec(SOXR_LQ, 0);
    std::shared_ptr<soxr> state(soxr_create(in, out, 2, nullptr, &io, &quality, nullptr), soxr_delete);
    return [=](const int16_t* from, int16_t* to) {
        size_t taken = 0;
        size_t made = 0;
        soxr_process(state.get(), from, kBlockFrames, &taken, to, kOutRoom, &made);
        return static_cast<unsigned int>(made);
    };
}

ConvertBlock zitaVariable(unsigned int in, unsigned int out)
{
    auto state = std::make_shared<VResampler>();
    state->setup(static_cast<double>(out) / in, 2, 16);
    std::vector<float> input(2 * kBlockFrames);
    std::vector<float> output(2 * kOutRoom);
    return [=](const int16_t* from, int16_t* to) mutable {
        for (size_t i = 0; i < input.size(); ++i)
            input[i] = static_cast<float>(from[i]) * (1.0f / 32768.0f);
        state->inp_count = kBlockFrames;
        state->inp_data = input.data();
        state->out_count = kOutRoom;
        state->out_data = output.data();
        state->process();
        const unsigned int made = kOutRoom - state->out_count;
        for (size_t i = 0; i < 2 * size_t{made}; ++i) {
            const float scaled = std::min(32767.0f, std::max(-32768.0f, output[i] * 32768.0f));
            to[i] = static_cast<int16_t>(std::lrintf(scaled));
        }
        return made;
    };
}

double processorSeconds()
{
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

/** Seconds a block takes, averaged over `nBlocks`. */
double secondsPerBlock(const Candidate& candidate, const std::vector<int16_t>& audio, unsigned int nBlocks)
{
    static int16_t out[2 * kOutRoom];
    const double start = processorSeconds();
    for (unsigned int block = 0; block < nBlocks; ++block)
        candidate.convert(audio.data() + size_t{block % kBlocks} * kBlockFrames * candidate.channels, out);
    return (processorSeconds() - start) / nBlocks;
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

std::vector<int16_t> testAudio()
{
    std::vector<int16_t> audio(2 * size_t{kBlocks} * kBlockFrames);
    uint32_t noise = 1;
    for (size_t i = 0; i < audio.size(); ++i) {
        noise = noise * 1664525u + 1013904223u;
        audio[i] = static_cast<int16_t>(12000.0 * std::sin(static_cast<double>(i / 2) * 0.13) +
                                        static_cast<double>(noise >> 20));
    }
    return audio;
}

/** One table of figures; false when a form misses its aim. */
bool compare(const char* title, std::vector<Candidate> candidates, unsigned int rounds)
{
    const std::vector<int16_t> audio = testAudio();
    for (Candidate& candidate : candidates) // caches, clocks and the converters themselves come up to speed
        candidate.blocks = 1 + static_cast<unsigned int>(kSliceSeconds / secondsPerBlock(candidate, audio, kBlocks));
    for (unsigned int round = 0; round < rounds; ++round) {
        double literal = 0;
        for (Candidate& candidate : candidates) {
            const double time = secondsPerBlock(candidate, audio, candidate.blocks);
            if (literal == 0)
                literal = time; // the first candidate is the literal form
            candidate.ratios.push_back(literal / time);
            candidate.framesPerSecond.push_back(kBlockFrames / time);
        }
    }
    bool reached = true;
    std::fprintf(stderr, "\n%s\n%-26s %12s %16s\n", title, "", "x literal", "frames/s (in)");
    for (const Candidate& candidate : candidates) {
        const double ratio = median(candidate.ratios);
        const bool missed = ratio < candidate.aim;
        std::fprintf(stderr, "%-26s %12.2f %16.1fM%s\n", candidate.name.c_str(), ratio,
                     median(candidate.framesPerSecond) * 1e-6, missed ? "  below its aim" : "");
        reached = reached && !missed;
    }
    return reached;
}

std::vector<Candidate> ownForms(unsigned int channels, const std::vector<int16_t>& table, unsigned int in,
                                unsigned int out)
{
    std::vector<Candidate> forms;
    forms.push_back({"literal", channels, literalForm(channels, table, in, out), 0});
    forms.push_back({"plain", channels, ourForm(channels, table, in, out, asrcKernelPlain), 0});
    if (const asrcKernel* kernel = asrcKernelSse2())
        forms.push_back({"SSE2", channels, ourForm(channels, table, in, out, *kernel), channels == 2 ? 9.5 : 0});
    if (const asrcKernel* kernel = asrcKernelAvx2())
        forms.push_back({"AVX2", channels, ourForm(channels, table, in, out, *kernel), channels == 2 ? 14.0 : 0});
    if (const asrcKernel* kernel = asrcKernelNeon())
        forms.push_back({"NEON", channels, ourForm(channels, table, in, out, *kernel), 0});
    return forms;
}

std::vector<Candidate> withPeers(std::vector<Candidate> forms, unsigned int in, unsigned int out)
{
    forms.push_back({"libsamplerate SINC_FASTEST", 2, libsamplerateFastest(in, out), 0});
    forms.push_back({"speexdsp q3", 2, speexQuality3(in, out), 0});
    forms.push_back({"soxr LQ", 2, soxrLow(in, out), 0});
    forms.push_back({"zita VResampler hlen 16", 2, zitaVariable(in, out), 0});
    return forms;
}

} // namespace

int main(int argc, char** argv)
{
    bool check = false;
    unsigned int rounds = 41;
    for (int i = 1; i < argc; ++i) {
        if (std::string(argv[i]) == "--check")
            check = true;
        else
            rounds = static_cast<unsigned int>(std::max(1, std::atoi(argv[i])));
    }
    const std::vector<int16_t> table = loadTable(ASRC_FILTER_TABLE);
    bool reached =
        compare("44100 -> 48000 Hz, stereo", withPeers(ownForms(2, table, 44100, 48000), 44100, 48000), rounds);
    reached &= compare("48000 -> 47982 Hz, stereo", withPeers(ownForms(2, table, 48000, 47982), 48000, 47982), rounds);
    reached &= compare("48000 -> 48000 Hz, stereo", ownForms(2, table, 48000, 48000), rounds);
    reached &= compare("44100 -> 48000 Hz, mono", ownForms(1, table, 44100, 48000), rounds);
    return check && !reached ? 1 : 0;
}
