// bench/asrcExactness
#include "asrcExactness.h"

#include "asrcLiteral.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace
{

/** xorshift64*: the same numbers on every processor and library. */
class Random
{
public:
    explicit Random(uint64_t seed) : state(seed * 0x9E3779B97F4A7C15u + 1) {}

    uint32_t bits()
    {
        state ^= state >> 12;
        state ^= state << 25;
        state ^= state >> 27;
        return static_cast<uint32_t>((state * 0x2545F4914F6CDD1Du) >> 32);
    }
    uint32_t below(uint32_t limit) { return static_cast<uint32_t>((uint64_t{bits()} * limit) >> 32); }
    uint32_t between(uint32_t low, uint32_t high) { return low + below(high - low + 1); }
    bool oneIn(uint32_t n) { return below(n) == 0; }
    int16_t sample() { return static_cast<int16_t>(static_cast<uint16_t>(bits())); }

private:
    uint64_t state;
};

enum class Values { FULL_RANGE, EXTREMES, SMALL, WALK };

/** Fills with numbers of one kind; WALK moves by at most 16383 a step, as a filter must for multiply-high. */
void fill(Random& random, Values kind, int16_t* to, size_t count)
{
    int walk = random.sample();
    for (size_t i = 0; i < count; ++i) {
        switch (kind) {
        case Values::FULL_RANGE:
            to[i] = random.sample();
            break;
        case Values::EXTREMES:
            to[i] = random.oneIn(2) ? int16_t{-32768} : int16_t{32767};
            break;
        case Values::SMALL:
            to[i] = static_cast<int16_t>(static_cast<int>(random.below(7)) - 3);
            break;
        case Values::WALK:
            walk = std::clamp(walk + static_cast<int>(random.below(2 * 16383 + 1)) - 16383, -32768, 32767);
            to[i] = static_cast<int16_t>(walk);
            break;
        }
    }
}

/** A table of one kind; a walk is turned so that its ends, which are neighbours too, meet. */
std::vector<int16_t> randomTable(Random& random)
{
    std::vector<int16_t> table(kAsrcCoefficients);
    fill(random, static_cast<Values>(random.below(4)), table.data(), table.size());
    if (random.oneIn(3)) { // its second half mirrored: gentle wherever the first half is
        for (size_t i = 0; i < table.size() / 2; ++i)
            table[table.size() - 1 - i] = table[i];
    }
    if (random.oneIn(4)) // one step exactly at or just above the limit
        table[4097] = static_cast<int16_t>((table[4096] = -8000) + static_cast<int>(random.between(16382, 16385)));
    return table;
}

class Session
{
public:
    Session(const asrcKernel& kernel, uint64_t seed)
        : random(seed), nChannels(random.between(1, 2)), table(randomTable(random)), literal(nChannels, table.data())
    {
        asrcConfig config{nChannels};
        handle = asrcInit(&config);
        asrcUseKernel(handle, kernel);
        asrcCopyStoredFilter(handle, table.data());
        object = static_cast<asrcObject*>(handle);
        // the ring's start is not part of the contract: both begin with the same frames
        std::memset(object->InputBuffer, 0, literal.InputBuffer.size() * sizeof(int16_t));
        asrcUseKernel(handle, kernel);
    }
    ~Session() { asrcDestroy(handle); }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    /** One session; true when all was equal. */
    bool run(ExactnessReport& report)
    {
        inputKind = static_cast<Values>(random.below(4));
        // Before rates are set the decrement is 1 and a frame takes 44100 ticks: one ring full of it is enough.
        if (!random.oneIn(30))
            setRates(report);
        const uint32_t rounds = random.between(20, 200);
        for (uint32_t round = 0; round < rounds && difference.empty(); ++round) {
            if (random.oneIn(40))
                forceState();
            if (!random.oneIn(10))
                write();
            read(report);
            if (random.oneIn(20) || round == 0)
                setRates(report);
        }
        compareRings();
        report.difference = difference;
        return difference.empty();
    }

private:
    void differ(const char* what)
    {
        if (!difference.empty())
            return;
        char text[200];
        std::snprintf(text, sizeof text, "%s: %u channels, %d to %d Hz, IRead %u, IWrite %u", what, nChannels,
                      literal.inputFreq, literal.outputFreq, literal.IRead, literal.IWrite);
        difference = text;
    }

    template <class A, class B> void equal(const char* what, A a, B b)
    {
        if (a != b)
            differ(what);
    }

    void setRates(ExactnessReport& report)
    {
        while (!tryRates(report)) {
        }
    }

    /** False when the pair was refused or would take too long. */
    bool tryRates(ExactnessReport& report)
    {
        static constexpr std::array<std::array<uint32_t, 2>, 8> usual = {{{44100, 48000},
                                                                          {48000, 47982},
                                                                          {48000, 48000},
                                                                          {44100, 47952},
                                                                          {32000, 48000},
                                                                          {50400, 48000},
                                                                          {22050, 48000},
                                                                          {48000, 48048}}};
        uint32_t in = 0;
        uint32_t out = 0;
        switch (random.below(4)) {
        case 0: // near by, as the steering moves
            out = static_cast<uint32_t>(literal.outputFreq) + random.below(200) - 100;
            in = static_cast<uint32_t>(literal.inputFreq);
            break;
        case 1: // any
            out = random.between(1, 200000);
            in = random.between(out / 40, out + out / 20 + 1);
            break;
        case 2: // where 32 bits end: most are refused, some wrap
            out = random.bits();
            in = random.between(out / 40, out);
            break;
        default: {
            const auto& pair = usual[random.below(usual.size())];
            in = pair[0];
            out = pair[1];
        }
        }
        // an input clock that needs thousands of ticks a frame would only take time
        if (in != 0 && out / in > 60)
            return false;
        const int status = literal.setRates(in, out);
        if (status != 0) // the refusal's text is a test of its own
            return false;
        equal("asrcSetRates", asrcSetRates(handle, in, out), status);
        ++report.rateChanges;
        // what high rates left in the accumulators, a low one would take millions of ticks to bring down
        if (std::max(literal.inputAcc, literal.outputAcc) / 2000 > std::abs(literal.accDecrement))
            object->inputAcc = literal.inputAcc = object->outputAcc = literal.outputAcc = 0;
        return true;
    }

    /** Positions and accumulators that no steady run reaches. */
    void forceState()
    {
        if (random.oneIn(2)) {
            object->IRead = literal.IRead = random.bits() & 0xFFFFFF;
            object->IWrite = literal.IWrite = random.below(256);
        }
        if (random.oneIn(2)) {
            const int range = std::clamp(literal.outputFreq, 1, 1 << 24);
            const auto any = [&] { return static_cast<int>(random.below(2 * static_cast<uint32_t>(range))) - range; };
            object->inputAcc = literal.inputAcc = any();
            object->outputAcc = literal.outputAcc = any();
        }
        if (random.oneIn(2)) {
            object->UseInput = literal.UseInput = static_cast<int>(random.below(2));
            object->leapticks = literal.leapticks = static_cast<uint8_t>(random.bits());
        }
    }

    void write()
    {
        short* ourPlace = nullptr;
        int16_t* theirPlace = nullptr;
        unsigned int ourRoom = 0;
        unsigned int theirRoom = 0;
        asrcReqInFrameBuffer(handle, &ourPlace, &ourRoom);
        literal.reqInFrameBuffer(&theirPlace, &theirRoom);
        equal("offered frames", ourRoom, theirRoom);
        equal("offered place", ourPlace - object->InputBuffer, theirPlace - literal.InputBuffer.data());
        uint32_t nFrames = random.oneIn(3) ? random.below(theirRoom + 1) : theirRoom;
        fill(random, inputKind, theirPlace, size_t{nFrames} * nChannels);
        std::memcpy(ourPlace, theirPlace, size_t{nFrames} * nChannels * sizeof(int16_t));
        if (random.oneIn(100)) // a caller that claims more than it was offered
            nFrames = std::max(nFrames, random.below(1500));
        literal.writeInFrames(nFrames);
        asrcWriteInFrames(handle, nFrames);
    }

    void read(ExactnessReport& report)
    {
        const uint32_t n = random.oneIn(4) ? random.below(1501) : random.below(300);
        ourFrames.assign(size_t{n} * nChannels + 2, 0x5A5A);
        theirFrames.assign(size_t{n} * nChannels + 2, 0x5A5A); // what lies behind the request must stay
        equal("frames made", asrcReadOutFrames(handle, ourFrames.data(), n),
              literal.readOutFrames(theirFrames.data(), n));
        if (ourFrames != theirFrames)
            differ("output");
        compareState();
        report.frames += literal.OutputIndex;
    }

    void compareState()
    {
        equal("ClkRatio", object->ClkRatio, literal.ClkRatio);
        equal("IWrite", object->IWrite, literal.IWrite);
        equal("IRead", object->IRead, literal.IRead);
        equal("ILoadWrite", object->ILoadWrite, literal.ILoadWrite);
        equal("OutputBuffer", object->OutputBuffer == ourFrames.data(), literal.OutputBuffer == theirFrames.data());
        equal("OutputIndex", object->OutputIndex, literal.OutputIndex);
        equal("UseInput", object->UseInput, literal.UseInput);
        equal("leapticks", object->leapticks, literal.leapticks);
        equal("ratio", object->ratio, literal.ratio);
        equal("accDecrement", object->accDecrement, literal.accDecrement);
        equal("inputAcc", object->inputAcc, literal.inputAcc);
        equal("inputFreq", object->inputFreq, literal.inputFreq);
        equal("outputAcc", object->outputAcc, literal.outputAcc);
        equal("outputFreq", object->outputFreq, literal.outputFreq);
        anyFrame = anyFrame || literal.OutputIndex != 0;
        if (anyFrame && !std::equal(literal.FilterBuffer.begin(), literal.FilterBuffer.end(), object->FilterBuffer))
            differ("FilterBuffer");
    }

    void compareRings()
    {
        if (!std::equal(literal.InputBuffer.begin(), literal.InputBuffer.end(), object->InputBuffer))
            differ("InputBuffer");
        if (!std::equal(table.begin(), table.end(), object->FilterCoeff))
            differ("FilterCoeff");
    }

    Random random;
    unsigned int nChannels;
    std::vector<int16_t> table;
    asrcLiteral::Converter literal;
    asrcHandle handle = nullptr;
    asrcObject* object = nullptr;
    Values inputKind = Values::FULL_RANGE;
    bool anyFrame = false; ///< FilterBuffer holds nothing before
    std::vector<int16_t> ourFrames, theirFrames;
    std::string difference;
};

} // namespace

ExactnessReport proveExactness(const asrcKernel& kernel, uint64_t nFrames, uint64_t seed)
{
    ExactnessReport report;
    while (report.frames < nFrames) {
        Session session(kernel, seed + report.sessions);
        ++report.sessions;
        if (!session.run(report))
            break;
    }
    return report;
}
