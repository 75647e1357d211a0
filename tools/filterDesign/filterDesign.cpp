// filterDesign: makes FilterCoeff.bin, the rate converter's coefficients
/**
 *   filterDesign [--gain DB] [--plain] --output FILE     writes the table: 8192 signed 16-bit little-endian integers
 *   filterDesign --response FILE                         prints frequency (Hz at 44.1 kHz) and level (dB) of a table
 *
 * --gain   level of the pass band in decibels, 0 or less; a table below 0 dB leaves headroom for loud masters
 * --plain  leaves the last step of the design out
 *
 * The same bytes come out of every build: all arithmetic that decides a bit is additions, multiplications and divisions
 * of IEEE doubles in a fixed order, the cosine included, and the build forbids the compiler to fuse them. README.md
 * beside this file tells where the numbers come from.
 */

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

namespace
{

constexpr int kTaps = 32;
constexpr int kPhases = 256;
constexpr int kEntries = kTaps * kPhases;
constexpr int kWeights = 256;                   ///< positions the converter interpolates between two phases
constexpr int kFinePhases = kPhases * kWeights; ///< all read positions inside a frame
constexpr int kUnity = 32752; ///< 16 below 1.0 in Q15: with 32768, truncation noise makes full-scale sines wrap
constexpr double kRate = 44100.0;
constexpr double kPi = 3.14159265358979323846;

using Table = std::vector<int>;

/** Cosine of a quarter turn's part: x from 0 to pi/2. Taylor's series, the same bits everywhere. */
double quarterCosine(double x)
{
    const double square = x * x;
    double term = 1.0;
    double sum = 1.0;
    for (int n = 1; n <= 14; ++n) {
        term = -term * square / static_cast<double>((2 * n - 1) * (2 * n));
        sum += term;
    }
    return sum;
}

/** cos(2 pi * part / whole), exactly even and exactly periodic. */
double cosine(int64_t part, int64_t whole)
{
    part %= whole;
    if (part < 0)
        part += whole;
    if (2 * part > whole)
        part = whole - part;
    const bool negative = 4 * part > whole;
    if (negative)
        part = whole / 2 - part;
    const double value = quarterCosine(2.0 * kPi * static_cast<double>(part) / static_cast<double>(whole));
    return negative ? -value : value;
}

/** The prototype's cosine series; weighted least squares, see README.md. */
constexpr std::array<double, 20> kSeries = {0.500127, 0.999973, 1.000028, 0.999971, 1.000030,  0.999969, 1.000032,
                                            0.999967, 1.000032, 0.999975, 1.000005, 1.000049,  0.999812, 0.999393,
                                            0.926308, 0.606207, 0.195868, 0.016292, -0.000221, 0.000053};

/** The prototype where the angle's cosine is `c`, by Clenshaw's recurrence. */
double prototype(double c)
{
    double last = 0.0;
    double beforeLast = 0.0;
    for (size_t m = kSeries.size() - 1; m > 0; --m) {
        const double next = kSeries[m] + 2.0 * c * last - beforeLast;
        beforeLast = last;
        last = next;
    }
    return (kSeries[0] + c * last - beforeLast) / 16.0;
}

/** The wanted coefficients at every read position, ideal[fine][tap], each position's sum being `unity`. */
std::vector<std::array<double, kTaps>> idealCoefficients(int unity)
{
    constexpr int64_t whole = int64_t{kTaps} * kFinePhases;
    std::vector<std::array<double, kTaps>> ideal(kFinePhases);
    for (int fine = 0; fine < kFinePhases; ++fine) {
        double sum = 0.0;
        for (int k = 0; k < kTaps; ++k) {
            const double value = prototype(cosine(int64_t{k} * kFinePhases + fine - whole / 2, whole));
            ideal[static_cast<size_t>(fine)][static_cast<size_t>(k)] = value;
            sum += value;
        }
        for (double& value : ideal[static_cast<size_t>(fine)])
            value *= unity / sum;
    }
    return ideal;
}

/** Rounds one phase so that it sums to `unity`: floors, then +1 to the largest remainders, the earlier tap first. */
void roundPhase(const std::array<double, kTaps>& wanted, int unity, int phase, Table& table)
{
    std::array<int, kTaps> order{};
    std::array<double, kTaps> remainder{};
    int missing = unity;
    for (int k = 0; k < kTaps; ++k) {
        const double whole = std::floor(wanted[static_cast<size_t>(k)]);
        remainder[static_cast<size_t>(k)] = wanted[static_cast<size_t>(k)] - whole;
        order[static_cast<size_t>(k)] = k;
        table[static_cast<size_t>(k * kPhases + phase)] = static_cast<int>(whole);
        missing -= static_cast<int>(whole);
    }
    std::stable_sort(order.begin(), order.end(), [&](int a, int b) {
        return remainder[static_cast<size_t>(a)] > remainder[static_cast<size_t>(b)];
    });
    for (int i = 0; i < missing; ++i)
        ++table[static_cast<size_t>(order[static_cast<size_t>(i)] * kPhases + phase)];
}

/**
 * What one coefficient's error does to the ear's side of the signal: the correlation of two taps' errors for an input
 * that is half pink noise from 200 Hz and half white noise, both to 18 kHz, by the distance of the taps.
 */
std::array<double, kTaps> noiseCorrelation()
{
    std::array<double, kTaps> correlation{};
    std::array<double, kTaps> pink{};
    double flatPower = 0.0;
    double pinkPower = 0.0;
    for (int hertz = 5; hertz < 18000; hertz += 10) { // midpoints of bands of 10 Hz
        flatPower += 1.0;
        pinkPower += hertz > 200 ? 1.0 / hertz : 0.0;
        for (int distance = 0; distance < kTaps; ++distance) {
            const double c = cosine(int64_t{hertz} * distance, static_cast<int64_t>(kRate));
            correlation[static_cast<size_t>(distance)] += c;
            pink[static_cast<size_t>(distance)] += hertz > 200 ? c / hertz : 0.0;
        }
    }
    for (size_t distance = 0; distance < kTaps; ++distance)
        correlation[distance] = 0.5 * correlation[distance] / flatPower + 0.5 * pink[distance] / pinkPower;
    return correlation;
}

/** What the converter makes of two neighbouring coefficients. */
int interpolated(int here, int next, int weight)
{
    return ((kWeights - weight) * here + weight * next) / kWeights;
}

/**
 * Pair moves: +1 on one tap and -1 on another of the same phase, which keeps the phase's sum, wherever that lowers the
 * noise e'Re summed over all 65536 read positions. e is the coefficient that the converter uses, its truncating
 * interpolation included, minus the ideal one.
 *
 * An entry reaches 512 read positions: those between it and its neighbour on either side. For phase 0 the lower side
 * belongs to the tap before.
 */
class PairMoves
{
public:
    PairMoves(Table& coefficients, const std::vector<std::array<double, kTaps>>& ideal)
        : table(coefficients), correlation(noiseCorrelation()), error(ideal.size()), gradient(ideal.size())
    {
        for (size_t fine = 0; fine < ideal.size(); ++fine) {
            for (size_t k = 0; k < kTaps; ++k) {
                const size_t entry = k * kPhases + fine / kWeights;
                error[fine][k] =
                    interpolated(table[entry], table[(entry + 1) % kEntries], static_cast<int>(fine % kWeights)) -
                    ideal[fine][k];
            }
            for (size_t k = 0; k < kTaps; ++k) {
                double sum = 0.0;
                for (size_t j = 0; j < kTaps; ++j)
                    sum += correlation[k < j ? j - k : k - j] * error[fine][j];
                gradient[fine][k] = sum;
            }
        }
    }

    /** Sweeps over all phases until nothing improves. */
    void run()
    {
        for (int sweep = 0; sweep < kSweeps; ++sweep) {
            bool moved = false;
            for (int phase = 0; phase < kPhases; ++phase)
                while (improve(phase))
                    moved = true;
            if (!moved)
                return;
        }
    }

private:
    static constexpr int kSweeps = 8;
    static constexpr size_t kReach = 2 * kWeights;
    static constexpr double kLeastGain = 1e-6; ///< far above the arithmetic's noise: moves cannot circle

    /** How the used coefficients around one entry change when the entry does. */
    struct Step {
        std::array<double, kReach> change; ///< by read position from the neighbour below to the one above
        double cost;                       ///< of this step alone
    };

    static size_t tapBelow(int k, int phase) { return static_cast<size_t>(phase == 0 ? (k + kTaps - 1) % kTaps : k); }
    static size_t fineAt(int phase, size_t i)
    {
        return (static_cast<size_t>(phase) * kWeights + kFinePhases - kWeights + i) % kFinePhases;
    }

    void prepare(Step& step, int k, int phase, int direction) const
    {
        const size_t entry = static_cast<size_t>(k * kPhases + phase);
        const int value = table[entry];
        const int below = table[(entry + kEntries - 1) % kEntries];
        const int above = table[(entry + 1) % kEntries];
        for (int w = 0; w < kWeights; ++w) {
            const size_t i = static_cast<size_t>(w);
            step.change[i] = interpolated(below, value + direction, w) - interpolated(below, value, w);
            step.change[i + kWeights] = interpolated(value + direction, above, w) - interpolated(value, above, w);
        }
        double lower = 0.0;
        double upper = 0.0;
        double squares = 0.0;
        const std::array<double, kTaps>* low = &gradient[fineAt(phase, 0)];
        const std::array<double, kTaps>* high = &gradient[fineAt(phase, kWeights)];
        const size_t tap = tapBelow(k, phase);
        for (size_t i = 0; i < kWeights; ++i) {
            lower += step.change[i] * low[i][tap];
            upper += step.change[i + kWeights] * high[i][static_cast<size_t>(k)];
            squares += step.change[i] * step.change[i] + step.change[i + kWeights] * step.change[i + kWeights];
        }
        step.cost = 2.0 * (lower + upper) + correlation[0] * squares;
    }

    double pairCost(const Step& up, int upTap, const Step& down, int downTap, int phase) const
    {
        double lower = 0.0;
        double upper = 0.0;
        for (size_t i = 0; i < kWeights; ++i) {
            lower += up.change[i] * down.change[i];
            upper += up.change[i + kWeights] * down.change[i + kWeights];
        }
        const auto distance = [](size_t a, size_t b) { return a < b ? b - a : a - b; };
        return up.cost + down.cost +
               2.0 * (correlation[distance(tapBelow(upTap, phase), tapBelow(downTap, phase))] * lower +
                      correlation[distance(static_cast<size_t>(upTap), static_cast<size_t>(downTap))] * upper);
    }

    void apply(const Step& step, int k, int phase, int direction)
    {
        for (size_t i = 0; i < kReach; ++i) {
            if (step.change[i] == 0.0)
                continue;
            const size_t fine = fineAt(phase, i);
            const size_t tap = i < kWeights ? tapBelow(k, phase) : static_cast<size_t>(k);
            error[fine][tap] += step.change[i];
            for (size_t j = 0; j < kTaps; ++j)
                gradient[fine][j] += step.change[i] * correlation[tap < j ? j - tap : tap - j];
        }
        table[static_cast<size_t>(k * kPhases + phase)] += direction;
    }

    /** Makes the phase's best move, if one helps. */
    bool improve(int phase)
    {
        for (int k = 0; k < kTaps; ++k) {
            prepare(ups[static_cast<size_t>(k)], k, phase, 1);
            prepare(downs[static_cast<size_t>(k)], k, phase, -1);
        }
        double best = -kLeastGain;
        int bestUp = -1;
        int bestDown = -1;
        for (int a = 0; a < kTaps; ++a) {
            for (int b = 0; b < kTaps; ++b) {
                const Step& up = ups[static_cast<size_t>(a)];
                const Step& down = downs[static_cast<size_t>(b)];
                // two steps of opposite sign never cost less than this together: most pairs end here
                if (a == b || up.cost + down.cost - 2.0 * correlation[1] * kMostOverlap > best)
                    continue;
                const double cost = pairCost(up, a, down, b, phase);
                if (cost < best) {
                    best = cost;
                    bestUp = a;
                    bestDown = b;
                }
            }
        }
        if (bestUp < 0)
            return false;
        apply(ups[static_cast<size_t>(bestUp)], bestUp, phase, 1);
        apply(downs[static_cast<size_t>(bestDown)], bestDown, phase, -1);
        return true;
    }

    static constexpr double kMostOverlap = kReach; ///< every change is 0 or 1 in size

    Table& table;
    std::array<double, kTaps> correlation;
    std::vector<std::array<double, kTaps>> error;    ///< e, by read position and tap
    std::vector<std::array<double, kTaps>> gradient; ///< Re
    std::array<Step, kTaps> ups, downs;
};

Table designTable(double gainDb, bool plain)
{
    const int unity = static_cast<int>(std::lround(kUnity * std::pow(10.0, gainDb / 20.0)));
    const auto ideal = idealCoefficients(unity);
    Table table(kEntries);
    for (int phase = 0; phase < kPhases; ++phase)
        roundPhase(ideal[static_cast<size_t>(phase * kWeights)], unity, phase, table);
    if (!plain)
        PairMoves(table, ideal).run();
    return table;
}

bool writeTable(const Table& table, const std::string& path)
{
    std::ofstream file(path, std::ios::binary);
    for (const int value : table) {
        const auto bits = static_cast<uint16_t>(value);
        file.put(static_cast<char>(bits & 0xFF));
        file.put(static_cast<char>(bits >> 8));
    }
    return static_cast<bool>(file.flush());
}

bool readTable(const std::string& path, Table& table)
{
    std::ifstream file(path, std::ios::binary);
    std::array<char, 2> bytes{};
    table.clear();
    while (file.read(bytes.data(), 2))
        table.push_back(static_cast<int16_t>(
            static_cast<uint16_t>(static_cast<uint8_t>(bytes[0]) | (static_cast<uint8_t>(bytes[1]) << 8))));
    return table.size() == kEntries;
}

/** Level of the prototype at `hertz`, for an input of 44.1 kHz: pass band, and what remains of the images above. */
double levelDb(const Table& table, double hertz)
{
    double re = 0.0;
    double im = 0.0;
    for (size_t i = 0; i < table.size(); ++i) {
        const double angle = 2.0 * kPi * hertz / (kRate * kPhases) * (static_cast<double>(i) - kEntries / 2);
        re += table[i] * std::cos(angle);
        im += table[i] * std::sin(angle);
    }
    return 10.0 * std::log10((re * re + im * im) / (32768.0 * 32768.0 * kPhases * kPhases) + 1e-20);
}

int printResponse(const std::string& path)
{
    Table table;
    if (!readTable(path, table)) {
        std::fprintf(stderr, "filterDesign: %s is no table of %d coefficients\n", path.c_str(), kEntries);
        return 1;
    }
    for (int hertz = 0; hertz <= 88200; hertz += 50)
        std::printf("%d %.4f\n", hertz, levelDb(table, hertz));
    return 0;
}

int usage()
{
    std::fprintf(stderr,
                 "usage: filterDesign [--gain DB] [--plain] --output FILE\n       filterDesign --response FILE\n");
    return 2;
}

} // namespace

int main(int argc, char** argv)
{
    double gainDb = 0.0;
    bool plain = false;
    std::string output;
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        const bool hasValue = i + 1 < argc;
        if (option == "--plain")
            plain = true;
        else if (option == "--gain" && hasValue)
            gainDb = std::strtod(argv[++i], nullptr);
        else if (option == "--output" && hasValue)
            output = argv[++i];
        else if (option == "--response" && hasValue)
            return printResponse(argv[++i]);
        else
            return usage();
    }
    if (output.empty() || !(gainDb <= 0.0) || gainDb < -60.0)
        return usage();
    if (!writeTable(designTable(gainDb, plain), output)) {
        std::fprintf(stderr, "filterDesign: cannot write %s\n", output.c_str());
        return 1;
    }
    return 0;
}
