#pragma once

/**
 * A source that offers exactly the bytes it was given and a sink that insists on one format, to stand on either side
 * of the block under test; and the trace lines of a captured output.
 */

#include "audioLibrary/audioBlock.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace literal
{

using namespace audioLibrarySpace;

inline audioPortParam_t shape(float rate, float trueRate, uint32_t channels, sampleFormat_e format, uint32_t period)
{
    audioPortParam_t p;
    p.nominalSampleRateStatus = FIXED;
    p.nominalSampleRate = rate;
    p.trueSampleRateStatus = VARIABLE;
    p.trueSampleRate = trueRate;
    p.numChannelsStatus = FIXED;
    p.numChannels = channels;
    p.sampleFormatStatus = FIXED;
    p.sampleFormat = format;
    p.samplesInterleavedStatus = FIXED;
    p.samplesInterleaved = true;
    p.periodSizeStatus = FIXED;
    p.periodSize = period;
    return p;
}

class SourcePort : public CUpstreamPort
{
public:
    std::vector<char> audio; ///< what is still to come starts at `taken`
    size_t taken = 0;
    unsigned int offerAtMost = 1000000;
    streamStatus answer = STREAM_OK;
    unsigned int requests = 0;
    std::vector<unsigned int> acks;
    std::function<void()> onRequest, onAck;

    SourcePort(CAudioBlock* parent, const audioPortParam_t& wanted) : CUpstreamPort(parent)
    {
        resetParams = wanted;
        resetPortParams();
    }
    streamStatus reconfigPortApply(audioPortParam_t* p) override
    {
        params = *p;
        return STREAM_OK;
    }
    streamStatus reqReadPeriods(char*& pbuffer, unsigned int& nPeriods) override
    {
        requests++;
        if (onRequest) {
            onRequest();
        }
        if (answer != STREAM_OK) {
            return answer;
        }
        nPeriods = std::min(offerAtMost, static_cast<unsigned int>((audio.size() - taken) / getPeriodBytes()));
        pbuffer = nPeriods > 0 ? audio.data() + taken : nullptr;
        return STREAM_OK;
    }
    streamStatus ackReadPeriods(unsigned int nPeriods) override
    {
        acks.push_back(nPeriods);
        if (onAck) {
            onAck();
        }
        taken += nPeriods * getPeriodBytes();
        return STREAM_OK;
    }
    template <typename T> void give(const std::vector<T>& samples)
    {
        const char* bytes = reinterpret_cast<const char*>(samples.data());
        audio.insert(audio.end(), bytes, bytes + samples.size() * sizeof(T));
    }
};

class Source : public CAudioBlock
{
public:
    explicit Source(const audioPortParam_t& wanted, std::string name = "SOURCE") : CAudioBlock(name)
    {
        upstream.push_back(new SourcePort(this, wanted));
    }
    SourcePort& port() { return *static_cast<SourcePort*>(upstream[0]); }
};

class SinkPort : public CDownstreamPort
{
public:
    SinkPort(CAudioBlock* parent, const audioPortParam_t& wanted) : CDownstreamPort(parent)
    {
        resetParams = wanted;
        resetPortParams();
    }
    streamStatus reconfigPortApply(audioPortParam_t* p) override
    {
        params = *p;
        return STREAM_OK;
    }
};

class Sink : public CAudioBlock
{
public:
    explicit Sink(const audioPortParam_t& wanted, std::string name = "SINK") : CAudioBlock(name)
    {
        downstream.push_back(new SinkPort(this, wanted));
    }
    SinkPort& port() { return *static_cast<SinkPort*>(downstream[0]); }
};

/** Sets the library's trace level for a scope and keeps what is printed to standard output in it. */
class Trace
{
public:
    explicit Trace(int level) : before(audioInterfaceTraceLevel)
    {
        audioInterfaceTraceLevel = level;
        testing::internal::CaptureStdout();
    }
    ~Trace()
    {
        if (!stopped) {
            stop();
        }
    }
    Trace(const Trace&) = delete;
    Trace& operator=(const Trace&) = delete;

    std::string stop()
    {
        stopped = true;
        audioInterfaceTraceLevel = before;
        return testing::internal::GetCapturedStdout();
    }
    /**
     * The printed lines; a trace line as its level, a blank and its message: "0 Reinitialize asrc.". Lines of the call
     * trace, which are signatures, are left out.
     */
    std::vector<std::string> lines()
    {
        std::vector<std::string> all;
        const std::string text = stop();
        size_t begin = 0;
        while (begin < text.size()) {
            const size_t end = std::min(text.find('\n', begin), text.size());
            addLine(all, text.substr(begin, end - begin));
            begin = end + 1;
        }
        return all;
    }

private:
    int before;
    bool stopped = false;

    static void addLine(std::vector<std::string>& all, const std::string& line)
    {
        // "%8u.%06u (%1d): "
        const size_t mark = line.find("): ");
        const bool traced = mark != std::string::npos && mark >= 18 && line[mark - 2] == '(' && line[mark - 10] == '.';
        if (!traced) {
            all.push_back(line);
            return;
        }
        const std::string message = line.substr(mark + 3);
        if (line[mark - 1] == '9' && message.find("audioLibrarySpace::") != std::string::npos) {
            return;
        }
        all.push_back(std::string(1, line[mark - 1]) + " " + message);
    }
};

/** Standard error of a scope. */
class ErrorText
{
public:
    ErrorText() { testing::internal::CaptureStderr(); }
    std::string stop() { return testing::internal::GetCapturedStderr(); }
};

} // namespace literal
