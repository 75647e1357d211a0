#pragma once

/**
 * What the graph's tests share: blocks and ports that show their inside, a clock that the test sets, and the reading
 * of trace lines from standard output.
 */

#include "audioLibrary/audioBlock.h"
#include "audioLibrary/audioChain.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace graphTest
{

using namespace audioLibrarySpace;

/** A field-by-field comparison of two records. */
inline void expectSameParams(const audioPortParam_t& got, const audioPortParam_t& wanted)
{
    EXPECT_EQ(got.nominalSampleRateStatus, wanted.nominalSampleRateStatus);
    EXPECT_EQ(got.nominalSampleRate, wanted.nominalSampleRate);
    EXPECT_EQ(got.trueSampleRateStatus, wanted.trueSampleRateStatus);
    EXPECT_EQ(got.trueSampleRate, wanted.trueSampleRate);
    EXPECT_EQ(got.numChannelsStatus, wanted.numChannelsStatus);
    EXPECT_EQ(got.numChannels, wanted.numChannels);
    EXPECT_EQ(got.sampleFormatStatus, wanted.sampleFormatStatus);
    EXPECT_EQ(got.sampleFormat, wanted.sampleFormat);
    EXPECT_EQ(got.samplesInterleavedStatus, wanted.samplesInterleavedStatus);
    EXPECT_EQ(got.samplesInterleaved, wanted.samplesInterleaved);
    EXPECT_EQ(got.periodSizeStatus, wanted.periodSizeStatus);
    EXPECT_EQ(got.periodSize, wanted.periodSize);
}

/** A record whose every field is VARIABLE, with the default values. */
inline audioPortParam_t allVariable()
{
    audioPortParam_t params;
    params.nominalSampleRateStatus = VARIABLE;
    params.trueSampleRateStatus = VARIABLE;
    params.numChannelsStatus = VARIABLE;
    params.sampleFormatStatus = VARIABLE;
    params.samplesInterleavedStatus = VARIABLE;
    params.periodSizeStatus = VARIABLE;
    return params;
}

/** A record whose every field is FIXED, none with a default value. */
inline audioPortParam_t allFixedOddValues()
{
    return {FIXED, 44100.0F, FIXED, 44099.5F, FIXED, 1, FIXED, SAMPLE_S32BIT_LE, FIXED, false, FIXED, 131};
}

/** What a port was asked to do, in order, over all ports of a test: "A.us0 startAudio". */
inline std::vector<std::string>& portLog()
{
    static std::vector<std::string> log;
    return log;
}

/** A port of either direction that applies what it is given, opens its fields and can be told to fail. */
template <typename Base> class ProbePort : public Base
{
public:
    ProbePort(CAudioBlock* parent, std::string portLabel) : Base(parent), label(std::move(portLabel)) {}
    ~ProbePort() override { portLog().push_back(label + " deleted"); }

    using Base::resetParams;
    using Base::resetPortParams;

    void become(const audioPortParam_t& wanted)
    {
        resetParams = wanted;
        resetPortParams();
    }
    streamStatus reconfigPortCheck(audioPortParam_t* newParams) override
    {
        checks++;
        return Base::reconfigPortCheck(newParams);
    }
    streamStatus reconfigPortApply(audioPortParam_t* newParams) override
    {
        applies++;
        if (applyAnswer == STREAM_OK) {
            this->params = *newParams;
        }
        return applyAnswer;
    }
    streamStatus startAudio() override { return note("startAudio", Base::startAudio()); }
    streamStatus stopAudio() override { return note("stopAudio", Base::stopAudio()); }
    streamStatus pauseAudio() override { return note("pauseAudio", Base::pauseAudio()); }
    streamStatus muteAudio() override { return note("muteAudio", Base::muteAudio()); }
    streamStatus disconnect() override
    {
        portLog().push_back(label + " disconnect");
        return Base::disconnect();
    }

    streamStatus applyAnswer = STREAM_OK;
    streamStatus stateAnswer = STREAM_OK;
    int checks = 0;
    int applies = 0;

private:
    streamStatus note(const char* operation, streamStatus status)
    {
        portLog().push_back(label + " " + operation);
        return stateAnswer == STREAM_OK ? status : stateAnswer;
    }
    std::string label;
};

using ProbeUSP = ProbePort<CUpstreamPort>;
using ProbeDSP = ProbePort<CDownstreamPort>;

/** A block with a given number of probes for ports. */
class ProbeBlock : public CAudioBlock
{
public:
    explicit ProbeBlock(const std::string& blockLabel, unsigned int numOutputs = 0, unsigned int numInputs = 0)
        : CAudioBlock(blockLabel)
    {
        for (unsigned int i = 0; i < numOutputs; i++) {
            upstream.push_back(new ProbeUSP(this, blockLabel + ".us" + std::to_string(i)));
        }
        for (unsigned int i = 0; i < numInputs; i++) {
            downstream.push_back(new ProbeDSP(this, blockLabel + ".ds" + std::to_string(i)));
        }
    }
    ~ProbeBlock() override { portLog().push_back(blockName + " deleted"); }

    runTimeId getRunTimeId() override { return id; }
    streamStatus init() override
    {
        portLog().push_back(blockName + " init");
        return initAnswer == STREAM_OK ? CAudioBlock::init() : initAnswer;
    }
    ProbeUSP& us(unsigned int i = 0) { return *static_cast<ProbeUSP*>(upstream.at(i)); }
    ProbeDSP& ds(unsigned int i = 0) { return *static_cast<ProbeDSP*>(downstream.at(i)); }
    bool initialized() const { return isInitialized; }
    int* traceLevelPointer() const { return pTraceLevel; }

    runTimeId id = INVALID_ID;
    streamStatus initAnswer = STREAM_OK;
};

/** The moment that the graph's clock shows while a GraphTest runs. */
inline monotonicTime& clockTime()
{
    static monotonicTime now;
    return now;
}

/**
 * The length of the prefix "%8u.%06u (%1d): " at the start of `line`, its level in brackets at the end; 0 when
 * the line has another shape.
 */
inline size_t tracePrefixLength(const std::string& line)
{
    const std::string digits = "0123456789";
    const size_t seconds = line.find_first_not_of(' ');
    const size_t point = line.find_first_not_of(digits, seconds);
    if (seconds == std::string::npos || point == std::string::npos || point == seconds || point < 8) {
        return 0;
    }
    const size_t length = point + sizeof ".123456 (1): " - 1;
    if (line.size() < length || line[point] != '.' || line.find_first_not_of(digits, point + 1) != point + 7 ||
        line.compare(point + 7, 2, " (") != 0 || digits.find(line[point + 9]) == std::string::npos ||
        line.compare(point + 10, 3, "): ") != 0) {
        return 0;
    }
    return length;
}

/**
 * The trace lines within `output`, each as "(level) message". Anything without the prefix of a trace line comes as it
 * is, so a comparison with whole lines sees it.
 */
inline std::vector<std::string> traceLines(const std::string& output)
{
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < output.size()) {
        const size_t lineEnd = output.find('\n', start);
        const size_t end = lineEnd == std::string::npos ? output.size() : lineEnd;
        std::string text = output.substr(start, end - start);
        if (const size_t prefix = tracePrefixLength(text)) {
            text = text.substr(prefix - 5, 3) + " " + text.substr(prefix);
        }
        lines.push_back(lineEnd == std::string::npos ? text + "<no line end>" : text);
        start = end + 1;
    }
    return lines;
}

/** Starts with empty registries and the trace level 0, on a clock that stands; leaves nothing behind. */
class GraphTest : public testing::Test
{
protected:
    void SetUp() override
    {
        clockTime() = {1000, 0};
        setClockSource([] { return clockTime(); });
        clearRegistries();
    }
    void TearDown() override
    {
        clearRegistries();
        setClockSource(nullptr);
    }

    /** What `action` traces at `level`. */
    static std::vector<std::string> traced(int level, const std::function<void()>& action)
    {
        testing::internal::CaptureStdout();
        audioInterfaceTraceLevel = level;
        action();
        audioInterfaceTraceLevel = 0;
        return traceLines(testing::internal::GetCapturedStdout());
    }

    static void clearRegistries()
    {
        audioInterfaceTraceLevel = -1; // no "Removed" lines from the tidying
        CAudioChain::deleteAllChains();
        CAudioBlock::deleteAllBlocks();
        audioInterfaceTraceLevel = 0;
        portLog().clear();
    }
};

using Lines = std::vector<std::string>;

} // namespace graphTest
