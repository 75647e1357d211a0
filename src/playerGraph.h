#pragma once

/** What the graphs of all players share: the mixer's ring, the card, and how long a graph may be left alone. */

#include "audioLibrary/audioTypes.h"

#include <cstdint>

/** ns that the blocks may leave the player alone. */
inline constexpr int32_t longestServiceWaitNs = 500000000;

/** Length of the mixer's ring, in periods of the card. */
inline constexpr int mixerPeriods = 180;

// What the card is opened for.
inline constexpr unsigned int cardChannels = 2;
inline constexpr audioLibrarySpace::sampleFormat_e cardSampleFormat = audioLibrarySpace::SAMPLE_S32BIT_LE;
inline constexpr float cardSampleRate = 48000.0F; ///< Hz
inline constexpr unsigned int cardPeriods = 18;
inline constexpr unsigned int cardPeriodSize = 256; ///< frames
inline constexpr const char* cardDevice = "plughw:0,0";
