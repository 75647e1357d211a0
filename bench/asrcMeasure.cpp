// bench/asrcMeasure
#include "asrcMeasure.h"

#include "asrcFeed.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <fstream>
#include <numbers>

namespace
{

using Complex = std::complex<double>;
constexpr double kTurn = 2.0 * std::numbers::pi;
constexpr unsigned int kImageOrders = 6; ///< beyond, the filter's stop band is at its floor

double toDb(double ratio)
{
    return 20.0 * std::log10(ratio + 1e-15);
}

/**
 * A frequency as it stands in the output: `turns` / `whole` turns a frame. The read step is cut to 1/65536 frame, so a
 * tone of 997 Hz comes out a few millihertz lower; measured against 997 Hz sharp, that drift would pass for distortion.
 */
struct OutputFrequency {
    uint64_t turns, whole;

    /** cos and sin at frame n, exact in the argument however long the tone lasts. */
    Complex at(uint64_t n) const
    {
        return std::polar(1.0, kTurn * static_cast<double>(turns * n % whole) / static_cast<double>(whole));
    }
};

/** Where the input's frequency of `hertz` comes to lie; images beyond the input's range fold by themselves. */
OutputFrequency atOutput(uint64_t hertz, unsigned int inRate, unsigned int outRate)
{
    const uint64_t ratio = static_cast<uint64_t>(static_cast<double>(inRate) / outRate * 65536.0);
    const uint64_t whole = uint64_t{inRate} * 65536;
    return {hertz * ratio % whole, whole};
}

std::vector<int16_t> convertTone(const std::vector<int16_t>& table, unsigned int inRate, unsigned int outRate,
                                 unsigned int hertz, double amplitude, unsigned int seconds)
{
    const OutputFrequency tone{hertz, inRate};
    std::vector<int16_t> in(size_t{inRate} * seconds);
    for (size_t n = 0; n < in.size(); ++n)
        in[n] = static_cast<int16_t>(std::lround(amplitude * tone.at(n).imag()));
    std::vector<int16_t> out(size_t{outRate} * (seconds + 1));
    AsrcConverter converter(1, table, inRate, outRate);
    out.resize(feedBlock(converter, in.data(), static_cast<unsigned int>(in.size()), out.data(),
                         static_cast<unsigned int>(out.size()), 1));
    return out;
}

/** The signal's part at one frequency, by least squares, as amplitude and phase. */
Complex line(const std::vector<double>& signal, OutputFrequency frequency)
{
    double cc = 0, cs = 0, ss = 0, xc = 0, xs = 0;
    for (size_t n = 0; n < signal.size(); ++n) {
        const Complex tone = frequency.at(n);
        cc += tone.real() * tone.real();
        cs += tone.real() * tone.imag();
        ss += tone.imag() * tone.imag();
        xc += signal[n] * tone.real();
        xs += signal[n] * tone.imag();
    }
    const double determinant = cc * ss - cs * cs;
    return {(xc * ss - xs * cs) / determinant, -(xs * cc - xc * cs) / determinant};
}

/** All lines by the mixed-radix recursion; the length's prime factors should be small. */
std::vector<Complex> spectrum(const std::vector<Complex>& signal)
{
    const size_t n = signal.size();
    size_t radix = 2;
    while (radix < n && n % radix != 0)
        ++radix;
    if (n <= 1)
        return signal;
    const size_t part = n / radix;
    std::vector<std::vector<Complex>> parts;
    for (size_t r = 0; r < radix; ++r) {
        std::vector<Complex> comb(part);
        for (size_t i = 0; i < part; ++i)
            comb[i] = signal[i * radix + r];
        parts.push_back(spectrum(comb));
    }
    std::vector<Complex> lines(n);
    for (size_t k = 0; k < n; ++k)
        for (size_t r = 0; r < radix; ++r)
            lines[k] +=
                parts[r][k % part] * std::polar(1.0, -kTurn * static_cast<double>(r * k % n) / static_cast<double>(n));
    return lines;
}

double largestLine(const std::vector<double>& signal)
{
    // Hann's window, its gain taken out: lines between two bins read at most 1.4 dB low
    const double size = static_cast<double>(signal.size());
    std::vector<Complex> windowed(signal.size());
    for (size_t n = 0; n < signal.size(); ++n)
        windowed[n] = signal[n] * (1.0 - std::cos(kTurn * static_cast<double>(n) / size));
    double largest = 0.0;
    const std::vector<Complex> lines = spectrum(windowed);
    for (size_t k = 2; k < lines.size() / 2; ++k)
        largest = std::max(largest, std::abs(lines[k]) * 2.0 / size);
    return largest;
}

double worstImage(const std::vector<double>& rest, unsigned int inRate, unsigned int outRate, unsigned int hertz)
{
    double worst = 0.0;
    for (unsigned int m = 1; m <= kImageOrders; ++m)
        for (const unsigned int image : {m * inRate - hertz, m * inRate + hertz})
            worst = std::max(worst, std::abs(line(rest, atOutput(image, inRate, outRate))));
    return worst;
}

/** Splits the tone and the constant part off; returns the tone's amplitude. */
double removeTone(std::vector<double>& signal, OutputFrequency frequency)
{
    double constant = 0.0;
    for (const double sample : signal)
        constant += sample / static_cast<double>(signal.size());
    for (double& sample : signal)
        sample -= constant;
    const Complex tone = line(signal, frequency);
    for (size_t n = 0; n < signal.size(); ++n)
        signal[n] -= (tone * frequency.at(n)).real();
    return std::abs(tone);
}

} // namespace

std::vector<int16_t> readFilterTable(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    std::vector<int16_t> table;
    for (char bytes[2]; file.read(bytes, 2);)
        table.push_back(static_cast<int16_t>(
            static_cast<uint16_t>(static_cast<uint8_t>(bytes[0]) | (static_cast<uint8_t>(bytes[1]) << 8))));
    return table;
}

ToneFigures measureTone(const std::vector<int16_t>& table, unsigned int inRate, unsigned int outRate,
                        unsigned int hertz, double dbfs)
{
    const double amplitude = 32768.0 * std::pow(10.0, dbfs / 20.0);
    const std::vector<int16_t> out = convertTone(table, inRate, outRate, hertz, amplitude, 4);
    std::vector<double> rest(out.begin() + outRate, out.begin() + 3 * static_cast<std::ptrdiff_t>(outRate));
    const double tone = removeTone(rest, atOutput(hertz, inRate, outRate));
    double power = 0.0;
    for (const double sample : rest)
        power += sample * sample;
    const double noise = std::sqrt(power / static_cast<double>(rest.size()));
    return {toDb(tone / amplitude), toDb(noise / (tone / std::numbers::sqrt2)),
            toDb(worstImage(rest, inRate, outRate, hertz) / tone), toDb(largestLine(rest) / tone)};
}

double largestDeviation(const std::vector<int16_t>& table, unsigned int inRate, unsigned int outRate,
                        unsigned int hertz)
{
    const std::vector<int16_t> out = convertTone(table, inRate, outRate, hertz, 32767.0, 2);
    std::vector<double> rest(out.begin() + outRate / 2, out.begin() + outRate / 2 + outRate);
    removeTone(rest, atOutput(hertz, inRate, outRate));
    double largest = 0.0;
    for (const double sample : rest)
        largest = std::max(largest, std::abs(sample));
    return largest;
}
