// bench/asrcLiteral
#include "asrcLiteral.h"

namespace asrcLiteral
{

namespace
{

int wrappingSum(int a, int b)
{
    return static_cast<int>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}

int wrappingDifference(int a, int b)
{
    return static_cast<int>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b));
}

/** Arithmetic shift by 15, low 16 bits. */
int16_t shifted(uint32_t sum)
{
    return static_cast<int16_t>(static_cast<uint16_t>(static_cast<int32_t>(sum) >> 15));
}

} // namespace

Converter::Converter(unsigned int channels, const int16_t* coefficients)
    : nChannels(channels), FilterBuffer(32), InputBuffer(channels * 288u),
      FilterCoeff(coefficients, coefficients + 8192)
{
}

int Converter::setRates(unsigned int inRate, unsigned int outRate)
{
    if (inRate == 0 || outRate == 0)
        return -1;
    if (inRate > outRate * 21u / 20u)
        return -1;
    accDecrement = static_cast<int>(inRate < outRate ? inRate : outRate);
    inputFreq = static_cast<int>(inRate);
    outputFreq = static_cast<int>(outRate);
    ClkRatio = static_cast<double>(inRate) / static_cast<double>(outRate);
    ratio = static_cast<uint32_t>(ClkRatio * 65536.0);
    return 0;
}

void Converter::reqInFrameBuffer(int16_t** buffer, unsigned int* nFrames)
{
    const unsigned int r = IRead >> 16;
    const unsigned int w = ILoadWrite;
    if (r > w) {
        *nFrames = r - w - 1;
    } else {
        *nFrames = 256 - w;
        if (r == 0)
            *nFrames = 255 - w;
    }
    *buffer = InputBuffer.data() + nChannels * w;
}

void Converter::writeInFrames(unsigned int nFrames)
{
    if (ILoadWrite < 32) {
        unsigned int m = 32 - ILoadWrite;
        if (nFrames < m)
            m = nFrames;
        for (unsigned int i = 0; i < m * nChannels; ++i)
            InputBuffer[(256 + ILoadWrite) * nChannels + i] = InputBuffer[ILoadWrite * nChannels + i];
    }
    ILoadWrite = (ILoadWrite + nFrames) % 256;
}

unsigned int Converter::readOutFrames(int16_t* buf, unsigned int n)
{
    OutputBuffer = buf;
    OutputIndex = 0;
    const unsigned int loadWrite = ILoadWrite;
    if (n == 0 || (loadWrite - IWrite) % 256 == 0)
        return 0;
    do {
        clockTick();
    } while (OutputIndex != n && (loadWrite - IWrite) % 256 != 0);
    return OutputIndex;
}

void Converter::clockTick()
{
    if (outputAcc <= 0) {
        const unsigned int depth = (IWrite - (IRead >> 16)) % 256;
        outputAcc = wrappingSum(outputAcc, inputFreq);
        if (depth >= 144 || (UseInput && depth >= 32))
            makeFrame(depth);
    }
    if (inputAcc <= 0) {
        inputAcc = wrappingSum(inputAcc, outputFreq);
        IWrite = (IWrite + 1) % 256;
    }
    outputAcc = wrappingDifference(outputAcc, accDecrement);
    inputAcc = wrappingDifference(inputAcc, accDecrement);
}

void Converter::makeFrame(unsigned int depth)
{
    const unsigned int frac = IRead & 0xFFFF;
    const int w8 = static_cast<int>(IRead & 0xFF);
    int16_t* const filter = FilterBuffer.data();
    const int16_t* const coefficients = FilterCoeff.data();
    for (unsigned int k = 0; k < 32; ++k) {
        const unsigned int i = (frac + k * 65536) >> 8;
        filter[k] = static_cast<int16_t>(((256 - w8) * coefficients[i] + w8 * coefficients[(i + 1) % 8192]) / 256);
    }
    UseInput = 1;
    const int16_t* const window = InputBuffer.data() + (IRead >> 16) * nChannels;
    int16_t* const out = OutputBuffer + OutputIndex * nChannels;
    if (nChannels == 1) {
        uint32_t sum = 0;
        for (unsigned int j = 0; j < 32; ++j)
            sum += static_cast<uint32_t>(window[j] * filter[31 - j]);
        out[0] = shifted(sum);
    } else {
        uint32_t left = 0;
        uint32_t right = 0;
        for (unsigned int j = 0; j < 32; ++j) {
            left += static_cast<uint32_t>(window[2 * j] * filter[31 - j]);
            right += static_cast<uint32_t>(window[2 * j + 1] * filter[31 - j]);
        }
        out[0] = shifted(left);
        out[1] = shifted(right);
    }
    OutputIndex += 1;
    if (depth >= 142 && depth <= 146)
        leapticks = 0;
    else
        leapticks = static_cast<uint8_t>((depth + 112) & 0xFF);
    IRead = (IRead + ratio + leapticks) & 0xFFFFFF;
}

} // namespace asrcLiteral
