/**
 * What one card is and what one run wants of it: the keys of the ALSA configuration, each of which virtualCard.conf
 * fills from an environment variable. README.md lists them. All values arrive as text; an empty one means the default.
 */
#pragma once

#include "faultScript.h"

#include <cstdint>
#include <string>
#include <vector>

namespace vcard
{

/** Inclusive limits of a hardware parameter. */
struct Range {
    unsigned least;
    unsigned most;
};

struct Settings {
    std::string card = "0"; ///< "0" of "plughw:0,0", "Axia" of "hw:Axia,3"
    unsigned device = 0;

    std::string cardsDirectory;  ///< one file a card; empty: a directory of the user's own below /tmp
    std::string logPath;         ///< event log; empty: none
    std::string recordDirectory; ///< recordings of playback; empty: none
    std::string sourceDirectory; ///< "<card>-<device>.wav" for capture; empty or no such file: the tone

    double ppm = 0.0;        ///< deviation of playback
    double capturePpm = 0.0; ///< deviation of capture
    double forgiveMs = 40.0; ///< a wake later than this is forgiven by the clock; 0: strict
    bool gapSilence = true;  ///< the time without data after an underrun is recorded as silence
    double toneHz = 440.0;
    double toneDb = -20.0;
    double stallTimeoutMs = 10000.0;        ///< a stalled clock answers an error after this time
    uint64_t recordLimitBytes = UINT64_MAX; ///< data bytes in one file of a recording
    FaultScript faults;                     ///< for playback
    FaultScript captureFaults;              ///< for capture
    std::vector<std::string> formats{"S16_LE", "S32_LE"};
    Range channels{2, 2};
    std::vector<unsigned> rates{48000};
    Range periods{2, 1024};
    Range periodBytes{64, 1U << 20};
    Range bufferBytes{128, 1U << 22};

    /**
     * Takes one key of the configuration.
     * @return false if there is no such key or the text makes no sense for it; nothing is changed then
     */
    bool set(const std::string& key, const std::string& text);

    /** "0-0-playback" or "Axia-3-capture": the card's name in the card directory and in the log. */
    std::string fileName(bool capture) const;
};

} // namespace vcard
