// bench/asrcMeasure
#pragma once

/**
 * Measures the complete converter, table and arithmetic and clocks, with sine tones. The figures follow from integers
 * alone up to the last step, so they are the same on every machine.
 */

#include <cstdint>
#include <string>
#include <vector>

struct ToneFigures {
    double levelDb;       ///< tone at the output against the tone at the input
    double noiseDb;       ///< THD+N: all that is not the tone, against the tone
    double worstImageDb;  ///< largest image of the tone that the filter let through, against the tone
    double largestSpurDb; ///< largest single line of the spectrum beside the tone, against the tone
};

/** The table in a file, or an empty vector. */
std::vector<int16_t> readFilterTable(const std::string& path);

/**
 * Plays a tone of `hertz` (a whole number) at `dbfs` through a new converter and looks at the output from 1 s to 3 s:
 * before the read step's first correction, which a steady pair of rates brings after 4 s at the earliest.
 */
ToneFigures measureTone(const std::vector<int16_t>& table, unsigned int inRate, unsigned int outRate,
                        unsigned int hertz, double dbfs);

/** Largest distance of an output sample from the ideal tone, full scale in; a wrapped sample is some 65536 away. */
double largestDeviation(const std::vector<int16_t>& table, unsigned int inRate, unsigned int outRate,
                        unsigned int hertz);
