#pragma once

/** What the graphs of all players share: the mixer's ring, the card, and how long a graph may be left alone. */

#include <cstdint>

/** ns that the blocks may leave the player alone. */
constexpr int32_t longestServiceWaitNs = 500000000;

/** Length of the mixer's ring, in periods of the card. */
constexpr int mixerPeriods = 180;

// What the card is opened for.
constexpr unsigned int cardChannels = 2;
constexpr float cardSampleRate = 48000.0F; ///< Hz
constexpr unsigned int cardPeriods = 18;
constexpr unsigned int cardPeriodSize = 256; ///< frames
constexpr const char* cardDevice = "plughw:0,0";
