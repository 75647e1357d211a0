#include "audioLibrary/wavFilePlay.h"

#include "audioLibrary/wavFiles.h"

#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sstream>
#include <unistd.h>

using namespace audioLibrarySpace;
using namespace testing;
using wavFiles::bytes;
using wavFiles::counting;
using wavFiles::encode;
using wavFiles::header;
using wavFiles::putChunk;
using wavFiles::putText;

namespace
{

/** A block whose insides can be looked at and set. */
struct OpenWav : CWavFilePlay {
    explicit OpenWav(std::string name = "WAV") : CWavFilePlay(std::move(name)) {}

    using CWavFilePlay::allocateWorkBuffer;
    using CWavFilePlay::fileSizeBytes;
    using CWavFilePlay::fileStatus;
    using CWavFilePlay::fnum;
    using CWavFilePlay::framesConsumed;
    using CWavFilePlay::isInitialized;
    using CWavFilePlay::openFile;
    using CWavFilePlay::upstream;
    using CWavFilePlay::workBuffer;
    using CWavFilePlay::workBufferEmpty;
    using CWavFilePlay::workBufferSize;

    CUpstreamPort& port() { return *upstream[0]; }
    audioPortParam_t& params() { return port().params; }

    /** One request; the period that was lent, as bytes. */
    bytes request()
    {
        char* lent = nullptr;
        unsigned int nPeriods = 77;
        EXPECT_EQ(port().reqReadPeriods(lent, nPeriods), STREAM_OK);
        EXPECT_EQ(nPeriods, 1U);
        EXPECT_EQ(lent, workBuffer);
        return bytes(lent, lent + workBufferSize);
    }

    /** One request, acknowledged. */
    bytes read()
    {
        const bytes period = request();
        EXPECT_EQ(port().ackReadPeriods(1), STREAM_OK);
        return period;
    }
};

/** A reader with a period of its own that takes any rate, channel count and format. */
class ReaderPort : public CDownstreamPort
{
public:
    ReaderPort(CAudioBlock* parent, uint32_t periodSize) : CDownstreamPort(parent)
    {
        resetParams.nominalSampleRateStatus = VARIABLE;
        resetParams.numChannelsStatus = VARIABLE;
        resetParams.sampleFormatStatus = VARIABLE;
        resetParams.periodSizeStatus = FIXED;
        resetParams.periodSize = periodSize;
        resetPortParams();
    }
    streamStatus reconfigPortApply(audioPortParam_t* newParams) override
    {
        params = *newParams;
        return STREAM_OK;
    }
};

struct ReaderBlock : CAudioBlock {
    explicit ReaderBlock(uint32_t periodSize) : CAudioBlock("READER")
    {
        downstream.push_back(new ReaderPort(this, periodSize));
    }
    CDownstreamPort* port() { return downstream[0]; }
};

class WavFile : public Test
{
protected:
    WavFile()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "wavFileXXXXXX").string();
        directory = mkdtemp(pattern.data());
    }
    ~WavFile() override
    {
        audioInterfaceTraceLevel = 0;
        std::filesystem::remove_all(directory);
    }

    std::string path() const { return (directory / "item.wav").string(); }

    std::string store(const bytes& contents) const
    {
        wavFiles::write(path(), contents);
        return path();
    }

    /** A good file of that shape with `data` as its audio. */
    std::string storeAudio(const bytes& data, const header& fields = {}) const
    {
        bytes contents = encode(fields);
        putChunk(contents, "data", data);
        return store(contents);
    }

    std::filesystem::path directory;
};

/** "3 text" of the trace line "seconds.microseconds (3): text"; told apart if it hasn't that shape. */
std::string withoutTime(const std::string& line)
{
    unsigned int seconds = 0;
    unsigned int microseconds = 0;
    int level = -1;
    int begin = 0;
    if (std::sscanf(line.c_str(), "%u.%6u (%1d): %n", &seconds, &microseconds, &level, &begin) != 3 || begin == 0) {
        return "UNEXPECTED: " + line;
    }
    return std::to_string(level) + " " + line.substr(static_cast<size_t>(begin));
}

/** What `action` traces at `level`: "level text" a line, the time cut off. */
std::vector<std::string> traced(int level, const std::function<void()>& action)
{
    audioInterfaceTraceLevel = level;
    testing::internal::CaptureStdout();
    action();
    std::istringstream output(testing::internal::GetCapturedStdout());
    audioInterfaceTraceLevel = 0;
    std::vector<std::string> lines;
    for (std::string line; std::getline(output, line);) {
        lines.push_back(withoutTime(line));
    }
    return lines;
}

size_t openDescriptors()
{
    size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        (void)entry;
        count++;
    }
    return count;
}

void expectNoFile(OpenWav& wav)
{
    EXPECT_EQ(wav.fnum, -1);
    EXPECT_EQ(wav.fileStatus, FILE_NONE);
    EXPECT_EQ(wav.params().periodSize, 8192U);
    EXPECT_EQ(wav.params().periodSizeStatus, VARIABLE);
}

// ---- a new block

TEST_F(WavFile, NewBlockHasNoFileAndVariableStereoPort)
{
    OpenWav wav;
    EXPECT_EQ(wav.getRunTimeId(), WAV_FILE_PLAY);
    EXPECT_EQ(wav.port().getRunTimeId(), WAV_FILE_PLAY_USP);
    ASSERT_EQ(wav.numUpstreamPorts(), 1U);
    EXPECT_EQ(wav.numDownstreamPorts(), 0U);
    EXPECT_EQ(wav.fnum, -1);
    EXPECT_TRUE(wav.workBufferEmpty);
    EXPECT_EQ(wav.workBuffer, nullptr);
    EXPECT_EQ(wav.workBufferSize, 0U);
    const audioPortParam_t& params = wav.params();
    EXPECT_EQ(params.nominalSampleRateStatus, VARIABLE);
    EXPECT_EQ(params.nominalSampleRate, 44100.0F);
    EXPECT_EQ(params.numChannelsStatus, VARIABLE);
    EXPECT_EQ(params.numChannels, 2U);
    EXPECT_EQ(params.sampleFormatStatus, VARIABLE);
    EXPECT_EQ(params.sampleFormat, SAMPLE_S16BIT_LE);
    EXPECT_EQ(params.samplesInterleavedStatus, FIXED);
    EXPECT_TRUE(params.samplesInterleaved);
    EXPECT_EQ(params.periodSizeStatus, VARIABLE);
    EXPECT_EQ(params.periodSize, 512U);
    EXPECT_EQ(params.trueSampleRateStatus, VARIABLE);
    EXPECT_EQ(params.trueSampleRate, 0.0F);
}

TEST_F(WavFile, WantsNoTimedService)
{
    OpenWav wav;
    CServiceTime next;
    next.immediateService = true;
    EXPECT_EQ(wav.service(next), STREAM_OK);
    EXPECT_EQ(next.nextServiceTime.tv_sec, INT32_MAX);
    EXPECT_EQ(next.nextServiceTime.tv_nsec, 0);
    EXPECT_FALSE(next.immediateService);
    EXPECT_EQ(wav.init(), STREAM_OK);
    EXPECT_TRUE(wav.isInitialized);
}

// ---- opening: what the port takes from the file

TEST_F(WavFile, MonoFileFixesRateChannelsAndFormatAndLeavesThePeriod)
{
    header mono;
    mono.numChannels = 1;
    mono.sampleRate = 44100;
    OpenWav wav;
    ASSERT_EQ(wav.setNewFile(storeAudio(counting(100), mono)), STREAM_OK);
    const audioPortParam_t& params = wav.params();
    EXPECT_EQ(params.numChannelsStatus, FIXED);
    EXPECT_EQ(params.numChannels, 1U);
    EXPECT_EQ(params.nominalSampleRateStatus, FIXED);
    EXPECT_EQ(params.nominalSampleRate, 44100.0F);
    EXPECT_EQ(params.sampleFormatStatus, FIXED);
    EXPECT_EQ(params.sampleFormat, SAMPLE_S16BIT_LE);
    EXPECT_EQ(params.periodSizeStatus, VARIABLE);
    EXPECT_EQ(params.periodSize, 8192U);
    EXPECT_EQ(params.trueSampleRateStatus, VARIABLE);
    EXPECT_EQ(params.trueSampleRate, 0.0F); // a file is never steered
    EXPECT_EQ(wav.fileStatus, FILE_OK);
    EXPECT_EQ(wav.fileSizeBytes, 100U);
    EXPECT_EQ(wav.framesConsumed, 0U);
    EXPECT_EQ(wav.getFilename(), path());
}

TEST_F(WavFile, WidthDecidesTheSampleFormat)
{
    const std::pair<uint16_t, sampleFormat_e> widths[] = {
        {8, SAMPLE_S8BIT}, {16, SAMPLE_S16BIT_LE}, {32, SAMPLE_S32BIT_LE}};
    for (const auto& [bits, format] : widths) {
        header fields;
        fields.bitsPerSample = bits;
        OpenWav wav;
        EXPECT_EQ(wav.setNewFile(storeAudio(counting(16), fields)), STREAM_OK) << bits;
        EXPECT_EQ(wav.params().sampleFormat, format) << bits;
    }
}

struct headerCase {
    const char* name;
    std::function<void(header&)> change;
    streamStatus answer;
};

TEST_F(WavFile, HeaderLimitsHoldOnBothSides)
{
    const headerCase cases[] = {
        {"RIFX", [](header& h) { h.chunkId = "RIFX"; }, INVALID_FORMAT},
        {"riff", [](header& h) { h.chunkId = "riff"; }, INVALID_FORMAT},
        {"AVI", [](header& h) { h.format = "AVI "; }, INVALID_FORMAT},
        {"fmt without blank", [](header& h) { h.subchunk1Id = "fmt_"; }, INVALID_FORMAT},
        {"format 0", [](header& h) { h.audioFormat = 0; }, INVALID_FORMAT},
        {"format 2", [](header& h) { h.audioFormat = 2; }, INVALID_FORMAT},
        {"format 3", [](header& h) { h.audioFormat = 3; }, INVALID_FORMAT},
        {"format 257", [](header& h) { h.audioFormat = 257; }, INVALID_FORMAT},
        {"no channel", [](header& h) { h.numChannels = 0; }, STREAM_OK},
        {"mono", [](header& h) { h.numChannels = 1; }, STREAM_OK},
        {"stereo", [](header& h) { h.numChannels = 2; }, STREAM_OK},
        {"three channels", [](header& h) { h.numChannels = 3; }, INVALID_FORMAT},
        {"65535 channels", [](header& h) { h.numChannels = 65535; }, INVALID_FORMAT},
        {"0 Hz", [](header& h) { h.sampleRate = 0; }, STREAM_OK},
        {"1 Hz", [](header& h) { h.sampleRate = 1; }, STREAM_OK},
        {"48000 Hz", [](header& h) { h.sampleRate = 48000; }, STREAM_OK},
        {"48001 Hz", [](header& h) { h.sampleRate = 48001; }, INVALID_FORMAT},
        {"4294967295 Hz", [](header& h) { h.sampleRate = 4294967295U; }, INVALID_FORMAT},
        {"0 bits", [](header& h) { h.bitsPerSample = 0; }, INVALID_FORMAT},
        {"7 bits", [](header& h) { h.bitsPerSample = 7; }, INVALID_FORMAT},
        {"8 bits", [](header& h) { h.bitsPerSample = 8; }, STREAM_OK},
        {"12 bits", [](header& h) { h.bitsPerSample = 12; }, INVALID_FORMAT},
        {"24 bits", [](header& h) { h.bitsPerSample = 24; }, INVALID_FORMAT},
        {"32 bits", [](header& h) { h.bitsPerSample = 32; }, STREAM_OK},
        {"64 bits", [](header& h) { h.bitsPerSample = 64; }, INVALID_FORMAT},
        {"264 bits", [](header& h) { h.bitsPerSample = 264; }, INVALID_FORMAT},
        {"any chunk size", [](header& h) { h.chunkSize = 4294967295U; }, STREAM_OK},
        {"any format chunk size", [](header& h) { h.subchunk1Size = 0; }, STREAM_OK},
        {"any byte rate", [](header& h) { h.byteRate = 0; }, STREAM_OK},
        {"any block align", [](header& h) { h.blockAlign = 65535; }, STREAM_OK},
    };
    const size_t descriptorsBefore = openDescriptors();
    for (const headerCase& one : cases) {
        header fields;
        one.change(fields);
        OpenWav wav;
        streamStatus answer = STREAM_ERROR;
        const std::string name = storeAudio(counting(16), fields);
        const auto lines = traced(0, [&] { answer = wav.setNewFile(name); });
        EXPECT_EQ(answer, one.answer) << one.name;
        if (one.answer == STREAM_OK) {
            EXPECT_THAT(lines, ElementsAre("0 Found chunk at 44. ID: data, size: 16", "0 Found 16 bytes of data."))
                << one.name;
        } else {
            EXPECT_THAT(lines, ElementsAre("0 ERROR invalid WAV file header")) << one.name;
            expectNoFile(wav);
            EXPECT_EQ(openDescriptors(), descriptorsBefore) << one.name;
        }
    }
}

TEST_F(WavFile, HeaderIsPrintedFieldByFieldAtLevel3)
{
    header fields;
    fields.chunkSize = 4000000001U;
    fields.subchunk1Size = 17;
    fields.sampleRate = 22050;
    fields.byteRate = 4000000002U;
    fields.blockAlign = 65530;
    const std::string name = storeAudio(counting(4), fields);
    OpenWav wav;
    EXPECT_THAT(traced(3, [&] { (void)wav.setNewFile(name); }),
                ElementsAre("2 Opening WAV file " + name,             //
                            "3 ChunkID:           RIFF",              //
                            "3 ChunkSize:         4000000001",        //
                            "3 Format:            WAVE",              //
                            "3 Subchunk1ID:       fmt ",              //
                            "3 Subchunk1Size:     17",                //
                            "3 AudioFormat:       1",                 //
                            "3 NumChannels:       2",                 //
                            "3 SampleRate:        22050",             //
                            "3 ByteRate:          4000000002",        //
                            "3 BlockAlign:        65530",             //
                            "3 BitsPerSample:     16",                //
                            "0 Found chunk at 44. ID: data, size: 4", //
                            "0 Found 4 bytes of data."));
    EXPECT_THAT(traced(2, [&] { (void)wav.setNewFile(name); }),
                ElementsAre("2 Opening WAV file " + name, "0 Found chunk at 44. ID: data, size: 4",
                            "0 Found 4 bytes of data."));
}

TEST_F(WavFile, HeaderOfABadFileIsPrintedBeforeItIsRefused)
{
    header fields;
    fields.chunkId = "MThd";
    const std::string name = storeAudio({}, fields);
    OpenWav wav;
    const auto lines = traced(3, [&] { (void)wav.setNewFile(name); });
    ASSERT_EQ(lines.size(), 13U);
    EXPECT_EQ(lines[1], "3 ChunkID:           MThd");
    EXPECT_EQ(lines.back(), "0 ERROR invalid WAV file header");
}

// ---- opening: failures

TEST_F(WavFile, MissingFileIsNotFoundAndToldWithTheTextOfMinusOne)
{
    OpenWav wav;
    streamStatus answer = STREAM_OK;
    EXPECT_THAT(traced(1, [&] { answer = wav.setNewFile(path()); }),
                ElementsAre("1 ERROR opening file: " + std::string(strerror(-1))));
    EXPECT_EQ(answer, FILE_NOT_FOUND);
    expectNoFile(wav);
    EXPECT_THAT(traced(0, [&] { (void)wav.setNewFile(path()); }), IsEmpty());
}

TEST_F(WavFile, ShortHeaderIsAnErrorWithBothCounts)
{
    const size_t descriptorsBefore = openDescriptors();
    OpenWav wav;
    const bytes whole = encode({});
    streamStatus answer = STREAM_OK;
    std::string name = store(bytes(whole.begin(), whole.end() - 1));
    EXPECT_THAT(traced(0, [&] { answer = wav.setNewFile(name); }),
                ElementsAre("0 ERROR reading WAV file header (35 bytes read/ expected 36 bytes)"));
    EXPECT_EQ(answer, STREAM_ERROR);
    expectNoFile(wav);

    name = store({});
    EXPECT_THAT(traced(0, [&] { answer = wav.setNewFile(name); }),
                ElementsAre("0 ERROR reading WAV file header (0 bytes read/ expected 36 bytes)"));
    EXPECT_EQ(answer, STREAM_ERROR);

    EXPECT_THAT(traced(0, [&] { answer = wav.setNewFile(directory.string()); }), // opens, but can't be read
                ElementsAre("0 ERROR reading WAV file header (-1 bytes read/ expected 36 bytes)"));
    EXPECT_EQ(answer, STREAM_ERROR);
    EXPECT_EQ(openDescriptors(), descriptorsBefore);
}

TEST_F(WavFile, FileWithoutDataChunkFailsAtItsPhysicalEnd)
{
    const size_t descriptorsBefore = openDescriptors();
    OpenWav wav;
    bytes contents = encode({});
    streamStatus answer = STREAM_OK;
    std::string name = store(contents);
    EXPECT_THAT(traced(0, [&] { answer = wav.setNewFile(name); }),
                ElementsAre("0 ERROR reading WAV file header (0 bytes read/ expected 8 bytes)"));
    EXPECT_EQ(answer, STREAM_ERROR);
    expectNoFile(wav);

    putChunk(contents, "LIST", counting(10));
    putText(contents, "data\x08");
    name = store(contents);
    EXPECT_THAT(traced(0, [&] { answer = wav.setNewFile(name); }),
                ElementsAre("0 Found chunk at 44. ID: LIST, size: 10", "0 Skipping 10 bytes of junk",
                            "0 ERROR reading WAV file header (5 bytes read/ expected 8 bytes)"));
    EXPECT_EQ(answer, STREAM_ERROR);
    expectNoFile(wav);
    EXPECT_EQ(openDescriptors(), descriptorsBefore);
}

// ---- opening: the walk through the chunks

TEST_F(WavFile, ListChunkBeforeDataIsSkipped)
{
    bytes contents = encode({});
    putChunk(contents, "LIST", counting(26));
    putChunk(contents, "data", {11, 12, 13, 14});
    const std::string name = store(contents);
    OpenWav wav;
    ReaderBlock reader(1);
    EXPECT_THAT(traced(0, [&] { EXPECT_EQ(wav.setNewFile(name), STREAM_OK); }),
                ElementsAre("0 Found chunk at 44. ID: LIST, size: 26", "0 Skipping 26 bytes of junk",
                            "0 Found chunk at 78. ID: data, size: 4", "0 Found 4 bytes of data."));
    ASSERT_EQ(wav.port().connectDownstream(reader.port(), nullptr), STREAM_OK);
    EXPECT_EQ(wav.read(), (bytes{11, 12, 13, 14}));
}

TEST_F(WavFile, ChunksOfOddLengthAreNotPadded)
{
    bytes contents = encode({});
    putChunk(contents, "fact", counting(3));
    putChunk(contents, "none", {});
    putChunk(contents, "data", {21, 22, 23, 24});
    const std::string name = store(contents);
    OpenWav wav;
    EXPECT_THAT(traced(0, [&] { EXPECT_EQ(wav.setNewFile(name), STREAM_OK); }),
                ElementsAre("0 Found chunk at 44. ID: fact, size: 3", "0 Skipping 3 bytes of junk",
                            "0 Found chunk at 55. ID: none, size: 0", // nothing to skip
                            "0 Found chunk at 63. ID: data, size: 4", "0 Found 4 bytes of data."));
}

TEST_F(WavFile, LongerFormatChunkPutsTheWalkOutOfStep)
{
    header fields;
    fields.subchunk1Size = 18;
    bytes contents = encode(fields);
    contents.push_back('x');
    contents.push_back('y');
    putChunk(contents, "data", {1, 2, 3, 4});
    const std::string name = store(contents);
    OpenWav wav;
    // "xyda" and, as its size, 't', 'a', 4, 0
    EXPECT_THAT(traced(0, [&] { EXPECT_EQ(wav.setNewFile(name), STREAM_ERROR); }),
                ElementsAre("0 Found chunk at 44. ID: xyda, size: 287092", "0 Skipping 287092 bytes of junk",
                            "0 ERROR reading WAV file header (0 bytes read/ expected 8 bytes)"));
}

TEST_F(WavFile, BroadcastExtensionIsReadAndNotSkipped)
{
    for (const uint32_t size : {602U, 752U}) {
        bytes contents = encode({});
        putChunk(contents, "bext", counting(size));
        putChunk(contents, "data", {31, 32, 33, 34});
        const std::string name = store(contents);
        OpenWav wav;
        ReaderBlock reader(1);
        EXPECT_THAT(traced(0, [&] { EXPECT_EQ(wav.setNewFile(name), STREAM_OK); }),
                    ElementsAre("0 Found chunk at 44. ID: bext, size: " + std::to_string(size),
                                "0 Found chunk at " + std::to_string(52 + size) + ". ID: data, size: 4",
                                "0 Found 4 bytes of data."));
        ASSERT_EQ(wav.port().connectDownstream(reader.port(), nullptr), STREAM_OK);
        EXPECT_EQ(wav.read(), (bytes{31, 32, 33, 34}));
    }
}

TEST_F(WavFile, BroadcastExtensionLongerThanItsRecordIsSkippedToItsEnd)
{
    for (const uint32_t size : {753U, 70000U}) {
        bytes contents = encode({});
        putChunk(contents, "bext", counting(size));
        putChunk(contents, "data", {41, 42, 43, 44});
        const std::string name = store(contents);
        OpenWav wav;
        ReaderBlock reader(1);
        EXPECT_THAT(traced(0, [&] { EXPECT_EQ(wav.setNewFile(name), STREAM_OK); }),
                    ElementsAre("0 Found chunk at 44. ID: bext, size: " + std::to_string(size),
                                "0 Skipping " + std::to_string(size - 752) + " bytes of junk",
                                "0 Found chunk at " + std::to_string(52 + size) + ". ID: data, size: 4",
                                "0 Found 4 bytes of data."));
        ASSERT_EQ(wav.port().connectDownstream(reader.port(), nullptr), STREAM_OK);
        EXPECT_EQ(wav.read(), (bytes{41, 42, 43, 44}));
    }
}

TEST_F(WavFile, BroadcastExtensionCutOffByTheEndOfTheFileEndsTheWalk)
{
    bytes contents = encode({});
    putChunk(contents, "bext", 602, counting(100));
    const std::string name = store(contents);
    OpenWav wav;
    EXPECT_THAT(traced(0, [&] { EXPECT_EQ(wav.setNewFile(name), STREAM_ERROR); }),
                ElementsAre("0 Found chunk at 44. ID: bext, size: 602", "0 Skipping 502 bytes of junk",
                            "0 ERROR reading WAV file header (0 bytes read/ expected 8 bytes)"));
}

TEST_F(WavFile, HugeChunkSizesMoveForwardAndEndTheWalk)
{
    // As numbers with a sign both would lead back: a walk that followed them would never end.
    const std::pair<uint32_t, const char*> sizes[] = {
        {4294967295U, "-1"}, {2147483648U, "-2147483648"}, {4294967288U, "-8"}};
    for (const auto& [size, text] : sizes) {
        bytes contents = encode({});
        putChunk(contents, "JUNK", size, counting(500));
        const std::string name = store(contents);
        OpenWav wav;
        EXPECT_THAT(traced(0, [&] { EXPECT_EQ(wav.setNewFile(name), STREAM_ERROR); }),
                    ElementsAre(std::string("0 Found chunk at 44. ID: JUNK, size: ") + text,
                                std::string("0 Skipping ") + text + " bytes of junk",
                                "0 ERROR reading WAV file header (0 bytes read/ expected 8 bytes)"));
    }
}

TEST_F(WavFile, DataLongerThanTheFileIsTakenAtItsWord)
{
    bytes contents = encode({});
    putChunk(contents, "data", 4294967292U, {1, 2, 3, 4});
    const std::string name = store(contents);
    OpenWav wav;
    EXPECT_THAT(traced(0, [&] { EXPECT_EQ(wav.setNewFile(name), STREAM_OK); }),
                ElementsAre("0 Found chunk at 44. ID: data, size: -4", "0 Found -4 bytes of data."));
    EXPECT_EQ(wav.fileSizeBytes, 4294967292U);
}

TEST_F(WavFile, FirstDataChunkIsThePlayedOne)
{
    bytes contents = encode({});
    putChunk(contents, "data", {1, 2, 3, 4});
    putChunk(contents, "data", {5, 6, 7, 8});
    OpenWav wav;
    ASSERT_EQ(wav.setNewFile(store(contents)), STREAM_OK);
    EXPECT_EQ(wav.fileSizeBytes, 4U);
    EXPECT_EQ(lseek(wav.fnum, 0, SEEK_CUR), 44);
}

// ---- changing the file

TEST_F(WavFile, NewFileReplacesTheOpenOne)
{
    OpenWav wav;
    ASSERT_EQ(wav.setNewFile(storeAudio(counting(40))), STREAM_OK);
    wav.framesConsumed = 7;
    const size_t descriptors = openDescriptors();
    header mono;
    mono.numChannels = 1;
    ASSERT_EQ(wav.setNewFile(storeAudio(counting(20), mono)), STREAM_OK);
    EXPECT_EQ(openDescriptors(), descriptors);
    EXPECT_EQ(wav.params().numChannels, 1U);
    EXPECT_EQ(wav.fileSizeBytes, 20U);
    EXPECT_EQ(wav.framesConsumed, 0U);
}

TEST_F(WavFile, NewFileOnAConnectedPortClosesTheOldOneAndFails)
{
    OpenWav wav;
    ReaderBlock reader(4);
    const size_t descriptorsBefore = openDescriptors();
    ASSERT_EQ(wav.setNewFile(storeAudio(counting(40))), STREAM_OK);
    ASSERT_EQ(wav.port().connectDownstream(reader.port(), nullptr), STREAM_OK);
    streamStatus answer = STREAM_OK;
    EXPECT_THAT(traced(3, [&] { answer = wav.setNewFile(path()); }), IsEmpty());
    EXPECT_EQ(answer, STREAM_ERROR);
    expectNoFile(wav);
    EXPECT_EQ(openDescriptors(), descriptorsBefore);
    EXPECT_TRUE(wav.port().isConnected(nullptr));
}

TEST_F(WavFile, AfterADisconnectAnotherFileGivesThePortItsFormat)
{
    OpenWav wav;
    ReaderBlock reader(4);
    ASSERT_EQ(wav.setNewFile(storeAudio(counting(40))), STREAM_OK);
    ASSERT_EQ(wav.port().connectDownstream(reader.port(), nullptr), STREAM_OK);
    ASSERT_EQ(wav.port().disconnect(), STREAM_OK);
    EXPECT_EQ(wav.params().nominalSampleRateStatus, VARIABLE);
    EXPECT_EQ(wav.params().nominalSampleRate, 44100.0F);
    header fields;
    fields.sampleRate = 32000;
    fields.numChannels = 1;
    ASSERT_EQ(wav.setNewFile(storeAudio({9, 8, 7, 6}, fields)), STREAM_OK);
    ASSERT_EQ(wav.port().connectDownstream(reader.port(), nullptr), STREAM_OK);
    EXPECT_EQ(reader.port()->params.nominalSampleRate, 32000.0F);
    EXPECT_EQ(reader.port()->params.numChannels, 1U);
    EXPECT_EQ(wav.workBufferSize, 8U); // 4 frames of one 16-bit channel
    EXPECT_EQ(wav.read(), (bytes{9, 8, 7, 6, 0, 0, 0, 0}));
}

TEST_F(WavFile, CloseFileGoesBackToNoFile)
{
    const size_t descriptorsBefore = openDescriptors();
    OpenWav wav;
    ASSERT_EQ(wav.setNewFile(storeAudio(counting(40))), STREAM_OK);
    wav.params().periodSize = 3;
    wav.params().periodSizeStatus = FIXED;
    wav.closeFile();
    expectNoFile(wav);
    EXPECT_EQ(openDescriptors(), descriptorsBefore);
    wav.params().periodSize = 3;
    wav.closeFile(); // in every case
    expectNoFile(wav);
}

TEST_F(WavFile, DestructorClosesTheFile)
{
    const size_t descriptorsBefore = openDescriptors();
    {
        OpenWav wav;
        ASSERT_EQ(wav.setNewFile(storeAudio(counting(40))), STREAM_OK);
        EXPECT_EQ(openDescriptors(), descriptorsBefore + 1);
    }
    EXPECT_EQ(openDescriptors(), descriptorsBefore);
}

TEST_F(WavFile, RewindGoesToTheFirstByteOfTheFile)
{
    OpenWav wav;
    EXPECT_EQ(wav.rewindFile(), STREAM_OK); // without a file too
    ASSERT_EQ(wav.setNewFile(storeAudio(counting(40))), STREAM_OK);
    EXPECT_EQ(wav.rewindFile(), STREAM_OK);
    EXPECT_EQ(lseek(wav.fnum, 0, SEEK_CUR), 0);
}

// ---- a port that becomes connected while the file is opened

/** Answers "not connected" once, then "connected"; counts the disconnects. */
struct LateConnectedPort : CWavFilePlayUSP {
    using CWavFilePlayUSP::CWavFilePlayUSP;
    bool isConnected(CAudioPort*) override { return asked++ > 0; }
    streamStatus disconnect() override
    {
        disconnects++;
        return STREAM_OK;
    }
    int asked = 0;
    int disconnects = 0;
};

struct LateConnectedWav : OpenWav {
    LateConnectedWav()
    {
        delete upstream[0];
        late = new LateConnectedPort(this);
        upstream[0] = late;
        late->params.numChannels = 2;
        late->params.nominalSampleRate = 48000.0F;
        late->params.sampleFormat = SAMPLE_S16BIT_LE;
    }
    LateConnectedPort* late;
};

TEST_F(WavFile, ConnectedPortThatDisagreesIsDisconnected)
{
    const std::function<void(header&)> differences[] = {
        [](header& h) { h.numChannels = 1; },
        [](header& h) { h.sampleRate = 47999; },
        [](header& h) { h.bitsPerSample = 8; },
        [](header& h) { h.bitsPerSample = 32; },
    };
    for (const auto& difference : differences) {
        header fields;
        difference(fields);
        const std::string name = storeAudio(counting(8), fields);
        LateConnectedWav wav;
        streamStatus answer = STREAM_OK;
        const auto lines = traced(1, [&] { answer = wav.setNewFile(name); });
        ASSERT_FALSE(lines.empty());
        EXPECT_EQ(lines.back(), "1 Unexpected port configuration error");
        EXPECT_EQ(answer, PORT_CFG_ERROR);
        EXPECT_EQ(wav.late->disconnects, 1);
        expectNoFile(wav);
    }
}

TEST_F(WavFile, ConnectedPortThatAgreesStaysAsItIs)
{
    LateConnectedWav wav;
    wav.params().numChannelsStatus = VARIABLE;
    ASSERT_EQ(wav.setNewFile(storeAudio(counting(8))), STREAM_OK);
    EXPECT_EQ(wav.late->disconnects, 0);
    EXPECT_EQ(wav.params().numChannelsStatus, VARIABLE);
    EXPECT_EQ(wav.fileStatus, FILE_OK);
}

// ---- negotiation

/** A record that differs from a new port in all six fields, each status FIXED. */
audioPortParam_t differentRecord()
{
    audioPortParam_t record;
    record.nominalSampleRate = 32000.0F;
    record.trueSampleRateStatus = FIXED;
    record.trueSampleRate = 123.0F;
    record.numChannels = 1;
    record.periodSize = 99;
    record.sampleFormat = SAMPLE_S32BIT_BE;
    record.samplesInterleaved = false;
    return record;
}

TEST_F(WavFile, CheckMarksEveryFixedFieldThatDiffersAndAdoptsNothing)
{
    OpenWav wav;
    audioPortParam_t& own = wav.params();
    own.nominalSampleRateStatus = FIXED;
    own.numChannelsStatus = FIXED;
    own.periodSizeStatus = FIXED;
    own.sampleFormatStatus = FIXED;
    own.samplesInterleavedStatus = FIXED;
    own.trueSampleRateStatus = FIXED;
    audioPortParam_t asked = differentRecord();
    EXPECT_EQ(wav.port().reconfigPortCheck(&asked), STREAM_ERROR);
    EXPECT_EQ(asked.nominalSampleRateStatus, INCOMPATIBLE);
    EXPECT_EQ(asked.numChannelsStatus, INCOMPATIBLE);
    EXPECT_EQ(asked.periodSizeStatus, INCOMPATIBLE);
    EXPECT_EQ(asked.sampleFormatStatus, INCOMPATIBLE);
    EXPECT_EQ(asked.samplesInterleavedStatus, INCOMPATIBLE);
    EXPECT_EQ(asked.trueSampleRateStatus, FIXED); // not looked at
    EXPECT_EQ(own.nominalSampleRate, 44100.0F);
    EXPECT_EQ(own.numChannels, 2U);
    EXPECT_EQ(own.periodSize, 512U);
    EXPECT_EQ(own.sampleFormat, SAMPLE_S16BIT_LE);
    EXPECT_TRUE(own.samplesInterleaved);
}

TEST_F(WavFile, CheckLetsVariableFieldsDiffer)
{
    OpenWav wav;
    audioPortParam_t asked = differentRecord();
    asked.samplesInterleaved = true; // the one field that a new port needs as it is
    EXPECT_EQ(wav.port().reconfigPortCheck(&asked), STREAM_OK);
    EXPECT_EQ(asked.nominalSampleRateStatus, FIXED);
    EXPECT_EQ(wav.params().nominalSampleRate, 44100.0F);

    asked.samplesInterleaved = false;
    EXPECT_EQ(wav.port().reconfigPortCheck(&asked), STREAM_ERROR);
    EXPECT_EQ(asked.samplesInterleavedStatus, INCOMPATIBLE);
    EXPECT_EQ(asked.numChannelsStatus, FIXED);
}

TEST_F(WavFile, FieldMarkedIncompatibleOnThePortCountsAsFixed)
{
    OpenWav wav;
    wav.params().numChannelsStatus = INCOMPATIBLE;
    audioPortParam_t asked = wav.params();
    asked.numChannelsStatus = VARIABLE;
    EXPECT_EQ(wav.port().reconfigPortCheck(&asked), STREAM_OK);
    asked.numChannels = 1;
    EXPECT_EQ(wav.port().reconfigPortCheck(&asked), STREAM_ERROR);
    EXPECT_EQ(asked.numChannelsStatus, INCOMPATIBLE);
}

TEST_F(WavFile, ApplyTakesARecordThatPassesAndSizesTheBuffer)
{
    OpenWav wav;
    ReaderBlock reader(5);
    ASSERT_EQ(wav.setNewFile(storeAudio(counting(40))), STREAM_OK);
    ASSERT_EQ(wav.port().connectDownstream(reader.port(), nullptr), STREAM_OK);
    EXPECT_EQ(wav.params().periodSize, 5U);
    EXPECT_EQ(wav.params().periodSizeStatus, FIXED); // the reader's record, statuses and all
    EXPECT_EQ(wav.workBufferSize, 20U);
    EXPECT_TRUE(wav.workBufferEmpty);
}

TEST_F(WavFile, ApplyOfARecordThatFailsKeepsTheParametersAndStillMakesABuffer)
{
    OpenWav wav;
    ReaderBlock reader(5);
    ASSERT_EQ(wav.setNewFile(storeAudio(counting(40))), STREAM_OK);
    ASSERT_EQ(wav.port().connectDownstream(reader.port(), nullptr), STREAM_OK);
    wav.workBufferEmpty = false;
    audioPortParam_t asked = wav.params();
    asked.periodSize = 6;
    EXPECT_EQ(wav.port().reconfigPortApply(&asked), STREAM_ERROR);
    EXPECT_EQ(wav.params().periodSize, 5U);
    EXPECT_EQ(wav.workBufferSize, 20U);
    EXPECT_TRUE(wav.workBufferEmpty);
}

TEST_F(WavFile, FreePortHasNoBuffer)
{
    OpenWav wav;
    audioPortParam_t asked = wav.params();
    EXPECT_EQ(wav.port().reconfigPortApply(&asked), STREAM_OK);
    EXPECT_EQ(wav.workBuffer, nullptr);
    EXPECT_EQ(wav.workBufferSize, 0U);
}

// ---- reading: 2 frames of 16-bit stereo a period, 8 bytes

class WavReading : public WavFile
{
protected:
    /** Opens a file whose audio is `data` and connects a reader of two-frame periods. */
    void play(const bytes& data)
    {
        ASSERT_EQ(wav.setNewFile(storeAudio(data)), STREAM_OK);
        connect();
    }
    void connect()
    {
        ASSERT_EQ(wav.port().connectDownstream(reader.port(), nullptr), STREAM_OK);
        ASSERT_EQ(wav.port().startAudio(), STREAM_OK);
    }

    ReaderBlock reader{2};
    OpenWav wav;
    const bytes silence = bytes(8, 0);
};

TEST_F(WavReading, DeliversTheBytesAsTheyLieInTheFile)
{
    play(counting(16));
    EXPECT_EQ(wav.read(), (bytes{1, 2, 3, 4, 5, 6, 7, 8}));
    EXPECT_EQ(wav.read(), (bytes{9, 10, 11, 12, 13, 14, 15, 16}));
    EXPECT_EQ(wav.framesConsumed, 4U);
    EXPECT_EQ(wav.fileStatus, FILE_OK); // the end is only seen by the next request
}

TEST_F(WavReading, EveryRequestMovesOnWithoutAnAcknowledgement)
{
    play(counting(16));
    EXPECT_EQ(wav.request(), (bytes{1, 2, 3, 4, 5, 6, 7, 8}));
    EXPECT_FALSE(wav.workBufferEmpty);
    EXPECT_EQ(wav.request(), (bytes{9, 10, 11, 12, 13, 14, 15, 16}));
    EXPECT_EQ(wav.framesConsumed, 0U);
}

TEST_F(WavReading, LastPeriodIsPaddedAndTheNextOneIsSilentAndDone)
{
    play(counting(11));
    EXPECT_EQ(wav.read(), (bytes{1, 2, 3, 4, 5, 6, 7, 8}));
    EXPECT_EQ(wav.request(), (bytes{9, 10, 11, 0, 0, 0, 0, 0}));
    EXPECT_FALSE(wav.workBufferEmpty);
    wav.port().ackReadPeriods(1);
    EXPECT_EQ(wav.fileStatus, FILE_OK);
    EXPECT_EQ(wav.framesConsumed, 4U); // two more than the 11 bytes hold
    EXPECT_EQ(wav.request(), silence);
    EXPECT_EQ(wav.fileStatus, FILE_DONE);
    EXPECT_EQ(wav.framesConsumed, 2U);
    wav.port().ackReadPeriods(1);
    EXPECT_EQ(wav.framesConsumed, 2U); // grows no more
    EXPECT_EQ(wav.read(), silence);
    EXPECT_EQ(wav.fileStatus, FILE_DONE);
}

TEST_F(WavReading, RewindingPlaysASilentPeriodAndThenTheHeader)
{
    wav.setRewindAtEndOfFile(true);
    play(counting(8));
    EXPECT_EQ(wav.read(), (bytes{1, 2, 3, 4, 5, 6, 7, 8}));
    EXPECT_EQ(wav.read(), silence);
    EXPECT_EQ(wav.read(), (bytes{'R', 'I', 'F', 'F', 0xe8, 0x03, 0, 0})); // 1000, low byte first
    EXPECT_EQ(wav.fileStatus, FILE_DONE);
    EXPECT_EQ(wav.framesConsumed, 2U);
    wav.setRewindAtEndOfFile(false);
    for (int period = 1; period < 7; period++) { // 52 bytes: six more whole or partial periods
        (void)wav.read();
    }
    EXPECT_EQ(wav.read(), silence);
    EXPECT_EQ(wav.read(), silence);
}

TEST_F(WavReading, WhatFollowsTheDataChunkPlaysToo)
{
    bytes contents = encode({});
    putChunk(contents, "data", {1, 2, 3, 4, 5, 6, 7, 8});
    putText(contents, "LIST1234");
    ASSERT_EQ(wav.setNewFile(store(contents)), STREAM_OK);
    connect();
    EXPECT_EQ(wav.read(), (bytes{1, 2, 3, 4, 5, 6, 7, 8}));
    EXPECT_EQ(wav.read(), (bytes{'L', 'I', 'S', 'T', '1', '2', '3', '4'}));
    EXPECT_EQ(wav.framesConsumed, 4U); // past the two frames of the chunk
    EXPECT_EQ(wav.read(), silence);
    EXPECT_EQ(wav.framesConsumed, 2U);
}

TEST_F(WavReading, WithoutAFileEachRequestGivesAPeriodOfSilence)
{
    connect(); // no file was ever set
    ASSERT_EQ(wav.workBufferSize, 8U);
    wav.workBuffer[3] = 5;
    EXPECT_EQ(wav.request(), silence);
    EXPECT_EQ(wav.request(), silence);
    EXPECT_EQ(wav.fileStatus, FILE_NONE);
    EXPECT_EQ(wav.port().ackReadPeriods(1), STREAM_OK);
    EXPECT_EQ(wav.framesConsumed, 0U);
}

TEST_F(WavReading, ClosedFileLeavesSilence)
{
    play(counting(16));
    EXPECT_EQ(wav.read(), (bytes{1, 2, 3, 4, 5, 6, 7, 8}));
    wav.closeFile();
    EXPECT_EQ(wav.request(), silence); // the port is connected, so the file can't come back
    EXPECT_EQ(wav.fnum, -1);
}

TEST_F(WavReading, FreePortWithoutAFileTriesToOpenIt)
{
    OpenWav fresh;
    (void)fresh.setNewFile(path()); // nothing is there yet
    ASSERT_EQ(fresh.fnum, -1);
    (void)storeAudio(counting(8));
    fresh.workBufferEmpty = false;
    EXPECT_EQ(fresh.request(), bytes{});
    EXPECT_EQ(fresh.fnum, -1); // only with an empty buffer
    fresh.workBufferEmpty = true;
    EXPECT_EQ(fresh.request(), bytes{});
    EXPECT_GE(fresh.fnum, 0);
}

TEST_F(WavReading, FailingReadDeliversTheBufferAsItStands)
{
    play(counting(16));
    const bytes first = wav.read();
    close(wav.fnum);
    wav.fnum = open(directory.c_str(), O_RDONLY | O_CLOEXEC); // opens, but can't be read
    ASSERT_GE(wav.fnum, 0);
    EXPECT_EQ(wav.request(), first);
    EXPECT_TRUE(wav.workBufferEmpty);
    EXPECT_EQ(wav.fileStatus, FILE_OK);
}

TEST_F(WavReading, BufferThatWasNeverFilledIsSilent)
{
    play(counting(16));
    close(wav.fnum);
    wav.fnum = open(directory.c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(wav.request(), silence);
}

TEST_F(WavReading, ReadingIsTracedAtLevel8)
{
    play(counting(8));
    const auto requestOnce = [this] { (void)wav.request(); };
    EXPECT_THAT(traced(8, requestOnce), ElementsAre("8 Reading wave file(8)"));
    EXPECT_THAT(traced(7, requestOnce), IsEmpty()); // the end of the file
    EXPECT_THAT(traced(8, requestOnce), ElementsAre("8 Reading wave file(8)", "8 End of file reached"));
    wav.setRewindAtEndOfFile(true);
    EXPECT_THAT(traced(8, requestOnce), ElementsAre("8 Reading wave file(8)", "8 End of file reached - rewinding"));
}

TEST_F(WavReading, AcknowledgingNothingChangesNothing)
{
    play(counting(16));
    (void)wav.request();
    const int32_t periods = wav.port().getPeriodCount();
    EXPECT_EQ(wav.port().ackReadPeriods(0), STREAM_OK);
    EXPECT_FALSE(wav.workBufferEmpty);
    EXPECT_EQ(wav.framesConsumed, 0U);
    EXPECT_EQ(wav.port().getPeriodCount(), periods);
    EXPECT_EQ(wav.port().ackReadPeriods(3), STREAM_OK);
    EXPECT_TRUE(wav.workBufferEmpty);
    EXPECT_EQ(wav.framesConsumed, 6U);
    EXPECT_EQ(wav.port().getPeriodCount(), periods + 3);
}

TEST_F(WavReading, FramesConsumedWrap)
{
    play(counting(16));
    wav.framesConsumed = 4294967295U;
    wav.port().ackReadPeriods(1);
    EXPECT_EQ(wav.framesConsumed, 1U);
    wav.port().ackReadPeriods(4294967295U); // 2 * (2^32 - 1) = -2
    EXPECT_EQ(wav.framesConsumed, 4294967295U);
}

// ---- time left

TEST_F(WavFile, TimeLeftIsTheLengthBeforeAnythingIsRead)
{
    header fields; // 48000 Hz, 4 bytes a frame
    bytes contents = encode(fields);
    putChunk(contents, "data", 48000U * 4 * 5 / 2, {}); // two and a half seconds
    OpenWav wav;
    ASSERT_EQ(wav.setNewFile(store(contents)), STREAM_OK);
    EXPECT_EQ(wav.timeLeft(), 2500);
    wav.framesConsumed = 48000;
    EXPECT_EQ(wav.timeLeft(), 1500);
    wav.framesConsumed = 120000 - 47; // 0.979 ms
    EXPECT_EQ(wav.timeLeft(), 0);
    wav.framesConsumed = 120000 - 49; // 1.02 ms
    EXPECT_EQ(wav.timeLeft(), 1);
    wav.framesConsumed = 120000;
    EXPECT_EQ(wav.timeLeft(), 0);
}

TEST_F(WavFile, TimeLeftCountsWholeFramesOfTheFilesShape)
{
    header fields;
    fields.numChannels = 1;
    fields.bitsPerSample = 8;
    fields.sampleRate = 1000;
    OpenWav wav;
    ASSERT_EQ(wav.setNewFile(storeAudio(counting(250), fields)), STREAM_OK);
    EXPECT_EQ(wav.timeLeft(), 250);
    fields.numChannels = 2;
    fields.bitsPerSample = 32;
    ASSERT_EQ(wav.setNewFile(storeAudio(counting(255), fields)), STREAM_OK);
    EXPECT_EQ(wav.timeLeft(), 31); // 255 / 8
}

TEST_F(WavFile, TimeLeftWrapsToAVeryLargeNumberWhenMoreWasTakenThanTheChunkHeld)
{
    OpenWav wav;
    ASSERT_EQ(wav.setNewFile(storeAudio(counting(8))), STREAM_OK);
    wav.framesConsumed = 3;              // of 2: 4294967295 frames left, as a float 4294967296
    EXPECT_EQ(wav.timeLeft(), 89478488); // 4294967296 / 48000 * 1000, in single precision
}

TEST_F(WavReading, TimeLeftIsZeroAfterTheEnd)
{
    play(counting(16)); // 4 frames
    (void)wav.read();
    (void)wav.read();
    EXPECT_EQ(wav.timeLeft(), 0);
    (void)wav.read();
    EXPECT_EQ(wav.timeLeft(), 0);
}

TEST_F(WavFile, TimeLeftIsTracedAtLevel6)
{
    header fields;
    fields.sampleRate = 1000;
    OpenWav wav;
    ASSERT_EQ(wav.setNewFile(storeAudio(counting(40), fields)), STREAM_OK);
    EXPECT_THAT(traced(6, [&] { (void)wav.timeLeft(); }), ElementsAre("6 Time to end of file: 10"));
    EXPECT_THAT(traced(5, [&] { (void)wav.timeLeft(); }), IsEmpty());
}

TEST_F(WavReading, FileWithoutChannelsEndsAtOnce)
{
    header fields;
    fields.numChannels = 0;
    ASSERT_EQ(wav.setNewFile(storeAudio(counting(40), fields)), STREAM_OK);
    EXPECT_EQ(wav.timeLeft(), 0);
    connect();
    EXPECT_EQ(wav.workBufferSize, 0U);
    EXPECT_EQ(wav.read(), bytes{});
}

TEST_F(WavReading, FileWithoutARateNeverTrapsAndEnds)
{
    header fields;
    fields.sampleRate = 0;
    ASSERT_EQ(wav.setNewFile(storeAudio(counting(8), fields)), STREAM_OK);
    connect();
    EXPECT_EQ(wav.timeLeft(), -1); // without end, in 32 bits
    (void)wav.read();
    EXPECT_EQ(wav.read(), silence);
    EXPECT_EQ(wav.timeLeft(), 0);
}

TEST_F(WavFile, TimeLeftWithoutAFileIsZero)
{
    OpenWav wav;
    EXPECT_EQ(wav.timeLeft(), 0);
}

// ---- the call trace

TEST_F(WavFile, CallsAreTracedAtLevelNine)
{
    ReaderBlock reader(4);
    const std::string name = storeAudio(counting(64));
    const std::vector<std::string> lines = traced(9, [&] {
        OpenWav wav;
        wav.getRunTimeId();
        wav.port().getRunTimeId();
        (void)wav.setNewFile(name);
        (void)wav.port().connectDownstream(reader.port(), nullptr);
        CServiceTime next;
        (void)wav.service(next);
        (void)wav.read();
        (void)wav.timeLeft();
        (void)wav.rewindFile();
        wav.setRewindAtEndOfFile(true);
        (void)wav.port().disconnect();
        wav.closeFile();
    });
    for (const char* function :
         {"CWavFilePlay::CWavFilePlay(", "CWavFilePlayUSP::CWavFilePlayUSP(", "CWavFilePlay::getRunTimeId()",
          "CWavFilePlayUSP::getRunTimeId()", "CWavFilePlay::setNewFile(", "CWavFilePlay::openFile()",
          "CWavFilePlayUSP::connectDownstream(", "CWavFilePlayUSP::reconfigPortCheck(",
          "CWavFilePlayUSP::reconfigPortApply(", "CWavFilePlay::allocateWorkBuffer()", "CWavFilePlay::service(",
          "CWavFilePlayUSP::reqReadPeriods(", "CWavFilePlayUSP::ackReadPeriods(", "CWavFilePlay::timeLeft()",
          "CWavFilePlay::rewindFile()", "CWavFilePlay::setRewindAtEndOfFile(", "CWavFilePlay::closeFile()",
          "CWavFilePlay::~CWavFilePlay()", "CWavFilePlayUSP::~CWavFilePlayUSP()"}) {
        EXPECT_THAT(lines, Contains(AllOf(StartsWith("9 "), HasSubstr(function))));
    }
}

} // namespace
