#pragma once

/**
 * A stand-in for the rate converter core, linked in its place: notes every call and answers as told.
 */

#include "audioLibrary/asyncSampleRateConverter/asrc.h"

#include <deque>
#include <string>
#include <vector>

struct AsrcFake {
    std::vector<std::string> calls; ///< "init 2", "setRates 44100 48000", "reqIn", "write 5", "readOut 4", ...
    bool initFails = false;
    int setRatesAnswer = ASRC_OK;
    int reqInAnswer = ASRC_OK;
    int writeAnswer = ASRC_OK;
    unsigned int roomFrames = 255;      ///< what each reqIn offers
    std::deque<unsigned int> outFrames; ///< what each readOut makes, at most what is asked for; then all that is asked
    std::vector<short> written;         ///< all samples written, in order
    std::vector<short> coefficients;    ///< what was stored last
    std::vector<asrcHandle> destroyed;
    short nextSample = 1; ///< readOut numbers the samples that it makes
    unsigned int nChannels = 0;

    std::vector<short> ring = std::vector<short>(1024);
    std::deque<char> handles; ///< one element to each converter; addresses stay
};

/** The one fake; assign AsrcFake{} to begin anew. */
extern AsrcFake asrcFake;
