// bench/asrcLiteral
#pragma once

/**
 * The rate converter written down step by step as it is defined, with nothing done for speed. It is the yardstick: the
 * exactness proof compares every output and every state field with it, and the benchmark counts in multiples of it.
 */

#include <cstdint>
#include <vector>

namespace asrcLiteral
{

struct Converter {
    explicit Converter(unsigned int channels, const int16_t* coefficients);

    /** Answers 0, or -1 for a refused pair of rates, with the state kept. Says nothing. */
    int setRates(unsigned int inRate, unsigned int outRate);
    void reqInFrameBuffer(int16_t** buffer, unsigned int* nFrames);
    void writeInFrames(unsigned int nFrames);
    unsigned int readOutFrames(int16_t* buf, unsigned int n);

    unsigned int nChannels;
    double ClkRatio = 1.0;
    unsigned int IWrite = 0;
    unsigned int IRead = 0;
    unsigned int ILoadWrite = 0;
    std::vector<int16_t> FilterBuffer;
    std::vector<int16_t> InputBuffer;
    int16_t* OutputBuffer = nullptr;
    std::vector<int16_t> FilterCoeff;
    uint32_t OutputIndex = 0;
    int UseInput = 0;
    uint8_t leapticks = 0;
    uint32_t ratio = 65536;
    int accDecrement = 1;
    int inputAcc = 0;
    int inputFreq = 44100;
    int outputAcc = 0;
    int outputFreq = 44100;

private:
    void clockTick();
    void makeFrame(unsigned int depth);
};

} // namespace asrcLiteral
