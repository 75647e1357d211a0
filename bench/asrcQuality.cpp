// bench/asrcQuality
/**
 * Sound quality of the complete rate converter with a filter table:
 *
 *   bench_asrc_quality [TABLE]      (the built FilterCoeff.bin)
 */

#include "asrcMeasure.h"

#include <cstdio>

namespace
{

struct RatePair {
    unsigned int in, out;
};

void printTones(const std::vector<int16_t>& table, RatePair rates)
{
    std::fprintf(stderr, "\n%u -> %u Hz, sine at -1 dBFS, 1 to 3 s\n%8s %10s %10s %12s %13s\n", rates.in, rates.out,
                 "Hz", "level dB", "THD+N dB", "image dB", "any line dB");
    for (const unsigned int hertz : {20u, 100u, 997u, 3001u, 5003u, 10007u, 15013u, 16001u, 18013u, 19001u, 20011u}) {
        const ToneFigures figures = measureTone(table, rates.in, rates.out, hertz, -1.0);
        std::fprintf(stderr, "%8u %10.3f %10.2f %12.1f %13.1f\n", hertz, figures.levelDb, figures.noiseDb,
                     figures.worstImageDb, figures.largestSpurDb);
    }
}

void printDeviations(const std::vector<int16_t>& table)
{
    std::fprintf(stderr, "\nfull-scale sines of 20 Hz to 20 kHz: largest distance of a sample from the tone\n");
    for (const RatePair rates : {RatePair{44100, 48000}, {48000, 47982}, {48000, 48000}, {44100, 47982}}) {
        double largest = 0.0;
        for (unsigned int hertz = 20; hertz <= 20000; hertz += 333)
            largest = std::max(largest, largestDeviation(table, rates.in, rates.out, hertz));
        std::fprintf(stderr, "%u -> %u Hz: %.1f%s\n", rates.in, rates.out, largest, largest > 32768 ? " WRAPS" : "");
    }
}

} // namespace

int main(int argc, char** argv)
{
    const std::vector<int16_t> table = readFilterTable(argc > 1 ? argv[1] : ASRC_FILTER_TABLE);
    if (table.size() != 8192) {
        std::fprintf(stderr, "bench_asrc_quality: no filter table\n");
        return 2;
    }
    printTones(table, {44100, 48000});
    printTones(table, {48000, 47982});
    printDeviations(table);
    return 0;
}
