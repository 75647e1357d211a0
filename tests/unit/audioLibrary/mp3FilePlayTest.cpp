#include "audioLibrary/mp3FilePlay.h"

#include "audioLibrary/graphTestSupport.h"
#include "audioLibrary/mp3Files.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gmock/gmock.h>
#include <mpg123.h>
#include <new>
#include <optional>
#include <sstream>
#include <unistd.h>

using namespace audioLibrarySpace;
using namespace testing;
using graphTest::GraphTest;
using mp3Files::bytes;
using mp3Files::recipe;

// ---- stand-ins: each does the real thing unless the script has an answer

namespace
{

constexpr int REAL_READ = 1;

/** What the decoder library and the storage do next, and what they were asked. */
struct Script {
    bool recording = false;
    std::vector<std::string> calls; ///< while recording

    std::optional<int> init, newError, openFeed;
    std::optional<int> encoding, rate, channels; ///< in place of what getformat tells
    size_t decodedBytes = 0;                     ///< the next decode gives so many bytes of 0x33 and wants more
    std::deque<int> decode;                      ///< results of the next decodes with no work done
    bool fillsOutput = false;                    ///< a decode with input writes all the output that it was offered
    std::deque<int> reads;  ///< answers of the next reads, none of which moves the file but REAL_READ
    size_t mostBytes = 0;   ///< what a read gives at most; 0: all that was asked for
    long readsAtTheEnd = 0; ///< how often a read answered 0 or less
    std::function<void(int file)> afterManyReads; ///< what becomes of the file after 1000 of those
    int deleted = 0;
    int created = 0;
};

Script script;

/** Notes a call. Builds nothing unless it is asked to: a test counts allocations. */
template <typename... Parts> void called(const char* what, const Parts&... parts)
{
    if (script.recording) {
        std::ostringstream line;
        line << what;
        ((line << ' ' << parts), ...);
        script.calls.push_back(line.str());
    }
}

std::atomic<unsigned int> allocations{0};
int refusedAllocations = 0; ///< how many of the next allocations that may fail do fail

void* allocate(size_t numBytes)
{
    allocations++;
    void* memory = std::malloc(numBytes > 0 ? numBytes : 1);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

} // namespace

void* operator new(size_t numBytes)
{
    return allocate(numBytes);
}
void* operator new[](size_t numBytes)
{
    return allocate(numBytes);
}
void* operator new(size_t numBytes, const std::nothrow_t&) noexcept
{
    allocations++;
    return std::malloc(numBytes > 0 ? numBytes : 1);
}
void* operator new[](size_t numBytes, const std::nothrow_t&) noexcept
{
    if (refusedAllocations > 0) {
        refusedAllocations--;
        return nullptr;
    }
    allocations++;
    return std::malloc(numBytes > 0 ? numBytes : 1);
}
void operator delete(void* memory) noexcept
{
    std::free(memory);
}
void operator delete[](void* memory) noexcept
{
    std::free(memory);
}
void operator delete(void* memory, size_t) noexcept
{
    std::free(memory);
}
void operator delete[](void* memory, size_t) noexcept
{
    std::free(memory);
}

extern "C" {

int __real_mpg123_init(void);
mpg123_handle* __real_mpg123_new(const char*, int*);
void __real_mpg123_delete(mpg123_handle*);
int __real_mpg123_param2(mpg123_handle*, int, long, double);
int __real_mpg123_format_all(mpg123_handle*);
int __real_mpg123_open_feed(mpg123_handle*);
int __real_mpg123_decode(mpg123_handle*, const unsigned char*, size_t, unsigned char*, size_t, size_t*);
int __real_mpg123_getformat(mpg123_handle*, long*, int*, int*);
ssize_t __real_read(int, void*, size_t);

int __wrap_mpg123_init(void)
{
    called("init");
    return script.init ? *script.init : __real_mpg123_init();
}

mpg123_handle* __wrap_mpg123_new(const char* decoder, int* error)
{
    called(decoder == nullptr ? "new" : "new of a kind");
    if (script.newError) {
        *error = *script.newError;
        return nullptr;
    }
    script.created++;
    return __real_mpg123_new(decoder, error);
}

void __wrap_mpg123_delete(mpg123_handle* mh)
{
    called("delete");
    script.deleted++;
    __real_mpg123_delete(mh);
}

// The header maps mpg123_param to this one.
int __wrap_mpg123_param2(mpg123_handle* mh, int type, long value, double fvalue)
{
    called("param", type == MPG123_VERBOSE ? "VERBOSE" : type == MPG123_OUTSCALE ? "OUTSCALE" : "other", value);
    if (type == MPG123_VERBOSE) {
        value = 0; // the library's words would drown the test's
    }
    return __real_mpg123_param2(mh, type, value, fvalue);
}

int __wrap_mpg123_format_all(mpg123_handle* mh)
{
    called("format_all");
    return __real_mpg123_format_all(mh);
}

int __wrap_mpg123_open_feed(mpg123_handle* mh)
{
    called("open_feed");
    return script.openFeed ? *script.openFeed : __real_mpg123_open_feed(mh);
}

int __wrap_mpg123_decode(mpg123_handle* mh, const unsigned char* in, size_t inBytes, unsigned char* out,
                         size_t outBytes, size_t* done)
{
    called("decode", inBytes, "into", outBytes);
    if (script.fillsOutput && in != nullptr && out != nullptr) {
        std::memset(out, 0x55, outBytes);
    }
    if (script.decodedBytes != 0) {
        *done = std::min(script.decodedBytes, outBytes);
        std::memset(out, 0x33, *done);
        script.decodedBytes = 0;
        return MPG123_NEED_MORE;
    }
    if (!script.decode.empty()) {
        if (done != nullptr) {
            *done = 0;
        }
        const int result = script.decode.front();
        script.decode.pop_front();
        return result;
    }
    return __real_mpg123_decode(mh, in, inBytes, out, outBytes, done);
}

int __wrap_mpg123_getformat(mpg123_handle* mh, long* rate, int* channels, int* encoding)
{
    called("getformat");
    const int result = __real_mpg123_getformat(mh, rate, channels, encoding);
    *rate = script.rate.value_or(static_cast<int>(*rate));
    *channels = script.channels.value_or(*channels);
    *encoding = script.encoding.value_or(*encoding);
    return result;
}

ssize_t __wrap_read(int file, void* buffer, size_t numBytes)
{
    called("read", numBytes);
    int answer = REAL_READ;
    if (!script.reads.empty()) {
        answer = script.reads.front();
        script.reads.pop_front();
    }
    const size_t most = script.mostBytes == 0 ? numBytes : std::min(numBytes, script.mostBytes);
    const ssize_t result = answer == REAL_READ ? __real_read(file, buffer, most) : answer;
    if (result <= 0) {
        script.readsAtTheEnd++;
        if (script.readsAtTheEnd == 1000 && script.afterManyReads) {
            script.afterManyReads(file);
        }
    }
    return result;
}

} // extern "C"

namespace
{

/** A block whose insides can be looked at and set. */
struct OpenMp3 : CMp3FilePlay {
    OpenMp3() : CMp3FilePlay("MP3") {}

    using CMp3FilePlay::allocateWorkBuffer;
    using CMp3FilePlay::decodedBytes;
    using CMp3FilePlay::decodeStatus;
    using CMp3FilePlay::fileSizeSamples;
    using CMp3FilePlay::fnum;
    using CMp3FilePlay::framesConsumed;
    using CMp3FilePlay::isInitialized;
    using CMp3FilePlay::mh;
    using CMp3FilePlay::mp3InBufSize;
    using CMp3FilePlay::mp3OutBufSize;
    using CMp3FilePlay::newInBytes;
    using CMp3FilePlay::openFile;
    using CMp3FilePlay::upstream;
    using CMp3FilePlay::workBuffer;
    using CMp3FilePlay::workBufferEmpty;
    using CMp3FilePlay::workBufferSize;

    CUpstreamPort& port() { return *upstream[0]; }
    audioPortParam_t& params() { return port().params; }
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

size_t openDescriptors()
{
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(all), end(all)));
}

bytes plus(bytes first, const bytes& second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

/** Silence behind the audio up to the next whole period; a whole one when the audio fills its last. */
bytes padded(bytes audio, uint32_t periodBytes)
{
    audio.resize((audio.size() / periodBytes + 1) * periodBytes, 0);
    return audio;
}

void expectSameBytes(const bytes& got, const bytes& wanted)
{
    ASSERT_EQ(got.size(), wanted.size());
    const auto at = std::mismatch(got.begin(), got.end(), wanted.begin());
    EXPECT_EQ(at.first, got.end()) << "first difference at byte " << at.first - got.begin();
}

class Mp3File : public GraphTest
{
protected:
    void SetUp() override
    {
        GraphTest::SetUp();
        script = Script();
        std::string pattern = (std::filesystem::temp_directory_path() / "mp3FileXXXXXX").string();
        directory = mkdtemp(pattern.data());
    }
    void TearDown() override
    {
        GraphTest::TearDown();                     // deletes the blocks that are left
        EXPECT_EQ(script.created, script.deleted); // no decoder is left behind
        std::filesystem::remove_all(directory);
        script = Script();
    }

    std::string path() const { return (directory / "item.mp3").string(); }

    std::string store(const bytes& contents) const
    {
        std::ofstream file(path(), std::ios::binary);
        file.write(reinterpret_cast<const char*>(contents.data()), static_cast<std::streamsize>(contents.size()));
        return path();
    }
    std::string storeEncoded(const recipe& wanted = {}) const { return store(mp3Files::encode(wanted)); }

    static void expectNoFile(OpenMp3& mp3)
    {
        EXPECT_EQ(mp3.fnum, -1);
        EXPECT_EQ(mp3.mh, nullptr);
        EXPECT_EQ(mp3.params().periodSize, 2048U);
        EXPECT_EQ(mp3.params().periodSizeStatus, VARIABLE);
    }

    std::filesystem::path directory;
};

/** A block connected to a reader. Both are deleted with all blocks at the end. */
class Mp3Reading : public Mp3File
{
protected:
    void SetUp() override
    {
        Mp3File::SetUp();
        block = new OpenMp3;
    }
    void play(const bytes& contents, uint32_t periodSize = 2048)
    {
        ASSERT_EQ(block->setNewFile(store(contents)), STREAM_OK);
        connect(periodSize);
    }
    void connect(uint32_t periodSize = 2048)
    {
        reader = new ReaderBlock(periodSize);
        ASSERT_EQ(block->port().connectDownstream(reader->port(), nullptr), STREAM_OK);
    }

    /** One request; the period that was lent, as bytes, or nothing. */
    bytes request()
    {
        lent = reinterpret_cast<char*>(this);
        nPeriods = 77;
        EXPECT_EQ(block->port().reqReadPeriods(lent, nPeriods), STREAM_OK);
        if (nPeriods == 0) {
            EXPECT_EQ(lent, nullptr);
            return {};
        }
        EXPECT_EQ(nPeriods, 1U);
        EXPECT_EQ(lent, reinterpret_cast<char*>(block->workBuffer));
        return bytes(lent, lent + block->workBufferSize);
    }
    void acknowledge() { EXPECT_EQ(block->port().ackReadPeriods(1), STREAM_OK); }
    bytes read()
    {
        const bytes period = request();
        acknowledge();
        return period;
    }
    /** All periods up to the one that ended the file. */
    bytes readToTheEnd()
    {
        bytes all;
        while (block->timeLeft() != 0) {
            const bytes period = read();
            if (period.empty()) {
                ADD_FAILURE() << "no period from a file that can be read";
                break;
            }
            all.insert(all.end(), period.begin(), period.end());
        }
        return all;
    }

    OpenMp3* block = nullptr;
    ReaderBlock* reader = nullptr;
    char* lent = nullptr;
    unsigned int nPeriods = 0;
};

// ---- a new block

TEST_F(Mp3File, NewBlockHasNoFileNoDecoderAndAStereoPort)
{
    OpenMp3 mp3;
    EXPECT_EQ(mp3.getRunTimeId(), MP3_FILE_PLAY);
    EXPECT_EQ(mp3.port().getRunTimeId(), MP3_FILE_PLAY_USP);
    ASSERT_EQ(mp3.numUpstreamPorts(), 1U);
    EXPECT_EQ(mp3.numDownstreamPorts(), 0U);
    EXPECT_EQ(mp3.fnum, -1);
    EXPECT_EQ(mp3.mh, nullptr);
    EXPECT_EQ(mp3.workBuffer, nullptr);
    EXPECT_EQ(mp3.workBufferSize, 0U);
    EXPECT_EQ(mp3.mp3InBufSize, 2048U);
    EXPECT_EQ(mp3.mp3OutBufSize, 32768U);
    audioPortParam_t wanted;
    wanted.nominalSampleRateStatus = VARIABLE;
    wanted.nominalSampleRate = 44100.0F;
    wanted.numChannelsStatus = FIXED;
    wanted.numChannels = 2;
    wanted.sampleFormatStatus = VARIABLE;
    wanted.sampleFormat = SAMPLE_S16BIT_LE;
    wanted.samplesInterleavedStatus = FIXED;
    wanted.samplesInterleaved = true;
    wanted.periodSizeStatus = FIXED;
    wanted.periodSize = 4096;
    wanted.trueSampleRateStatus = VARIABLE;
    wanted.trueSampleRate = 0.0F;
    graphTest::expectSameParams(mp3.params(), wanted);
}

TEST_F(Mp3File, WantsNoTimedService)
{
    OpenMp3 mp3;
    CServiceTime next;
    next.immediateService = true;
    EXPECT_EQ(mp3.service(next), STREAM_OK);
    EXPECT_EQ(next.nextServiceTime.tv_sec, INT32_MAX);
    EXPECT_EQ(next.nextServiceTime.tv_nsec, 0);
    EXPECT_FALSE(next.immediateService);
    EXPECT_EQ(mp3.init(), STREAM_OK);
    EXPECT_TRUE(mp3.isInitialized);
}

TEST_F(Mp3File, BufferWithoutMemoryIsToldAndTheBlockOpensNothing)
{
    const std::string name = storeEncoded();
    for (const int refused : {1, 2}) {
        refusedAllocations = refused;
        testing::internal::CaptureStderr();
        OpenMp3 mp3;
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  refused == 1 ? "out of memory\n" : "out of memory\nout of memory\n");
        EXPECT_EQ(mp3.setNewFile(name), NO_MEMORY);
        expectNoFile(mp3);
    }
}

// ---- opening: what the port takes from the file

TEST_F(Mp3File, StereoFileFixesRateChannelsAndFormatAndLeavesThePeriod)
{
    OpenMp3 mp3;
    ASSERT_EQ(mp3.setNewFile(storeEncoded()), STREAM_OK);
    audioPortParam_t wanted;
    wanted.nominalSampleRateStatus = FIXED;
    wanted.nominalSampleRate = 44100.0F;
    wanted.numChannelsStatus = FIXED;
    wanted.numChannels = 2;
    wanted.sampleFormatStatus = FIXED;
    wanted.sampleFormat = SAMPLE_S16BIT_LE;
    wanted.samplesInterleavedStatus = FIXED;
    wanted.samplesInterleaved = true;
    wanted.periodSizeStatus = VARIABLE;
    wanted.periodSize = 2048;
    wanted.trueSampleRateStatus = VARIABLE;
    wanted.trueSampleRate = 0.0F; // a file is never steered
    graphTest::expectSameParams(mp3.params(), wanted);
    EXPECT_GE(mp3.fnum, 0);
    EXPECT_NE(mp3.mh, nullptr);
    EXPECT_EQ(mp3.fileSizeSamples, -1);
    EXPECT_EQ(mp3.framesConsumed, 0U);
    EXPECT_EQ(mp3.decodedBytes, 0);
    EXPECT_EQ(mp3.getFilename(), path());
}

TEST_F(Mp3File, MonoFileFixesOneChannel)
{
    recipe mono;
    mono.rate = 22050;
    mono.channels = 1;
    OpenMp3 mp3;
    ASSERT_EQ(mp3.setNewFile(storeEncoded(mono)), STREAM_OK);
    EXPECT_EQ(mp3.params().nominalSampleRate, 22050.0F);
    EXPECT_EQ(mp3.params().numChannelsStatus, FIXED);
    EXPECT_EQ(mp3.params().numChannels, 1U);
}

TEST_F(Mp3File, EncodingDecidesTheSampleFormat)
{
    const std::string name = storeEncoded();
    const std::pair<int, sampleFormat_e> encodings[] = {
        {0x82, SAMPLE_S8BIT}, {0x8f, SAMPLE_S8BIT}, {0xd0, SAMPLE_S16BIT_LE}, {0xc0, SAMPLE_S16BIT_LE}};
    for (const auto& [encoding, format] : encodings) {
        script.encoding = encoding;
        OpenMp3 mp3;
        EXPECT_EQ(mp3.setNewFile(name), STREAM_OK) << encoding;
        EXPECT_EQ(mp3.params().sampleFormat, format) << encoding;
    }
}

TEST_F(Mp3File, EncodingWithoutASampleFormatIsAPortConfigurationError)
{
    const std::string name = storeEncoded();
    const size_t descriptorsBefore = openDescriptors();
    for (const int encoding : {0x01, 0x04, 0x60, 0x1180, 0x200, 0x400, 0}) {
        script.encoding = encoding;
        OpenMp3 mp3;
        streamStatus answer = STREAM_OK;
        const auto lines = traced(1, [&] { answer = mp3.setNewFile(name); });
        EXPECT_EQ(answer, PORT_CFG_ERROR) << encoding;
        EXPECT_THAT(lines, ElementsAre("(1) Start initial decode for file params.",
                                       "(1) ERROR! Unexpected port configuration error"));
        EXPECT_EQ(mp3.params().sampleFormat, SAMPLE_UNKNOWN);
        EXPECT_EQ(mp3.params().sampleFormatStatus, FIXED);
        EXPECT_EQ(mp3.params().nominalSampleRateStatus, FIXED); // a free port is not reset by its disconnect
        expectNoFile(mp3);
        EXPECT_EQ(openDescriptors(), descriptorsBefore);
    }
}

TEST_F(Mp3File, OpeningIsTold)
{
    const std::string name = storeEncoded();
    OpenMp3 mp3;
    EXPECT_THAT(traced(2, [&] { (void)mp3.setNewFile(name); }),
                ElementsAre("(2) Opening MP3 file " + name, "(1) Start initial decode for file params.",
                            "(2) MP3 at 44100 Hz 2 channels d0 encoding"));
    EXPECT_THAT(traced(1, [&] { (void)mp3.setNewFile(name); }),
                ElementsAre("(1) Start initial decode for file params."));
    EXPECT_THAT(traced(0, [&] { (void)mp3.setNewFile(name); }), IsEmpty());
}

TEST_F(Mp3File, DecoderIsSetUpInOrderAndFed2048BytesAtATime)
{
    const std::string name = storeEncoded();
    OpenMp3 mp3;
    script.recording = true;
    ASSERT_EQ(mp3.setNewFile(name), STREAM_OK);
    EXPECT_THAT(script.calls, ElementsAre("init", "new", "param VERBOSE 9", "format_all", "param OUTSCALE 32767",
                                          "open_feed", "read 2048", "decode 2048 into 32768", "getformat"));
    script.calls.clear();
    ASSERT_EQ(mp3.setNewFile(name), STREAM_OK); // all of it again
    EXPECT_THAT(script.calls,
                ElementsAre("delete", "init", "new", "param VERBOSE 9", "format_all", "param OUTSCALE 32767",
                            "open_feed", "read 2048", "decode 2048 into 32768", "getformat"));
}

TEST_F(Mp3File, FormatIsAskedForAfterEveryDecode)
{
    recipe wanted;
    wanted.coverBytes = 5000; // the third read brings the first frame
    const std::string name = storeEncoded(wanted);
    OpenMp3 mp3;
    script.recording = true;
    ASSERT_EQ(mp3.setNewFile(name), STREAM_OK);
    script.calls.erase(script.calls.begin(), script.calls.begin() + 6);
    EXPECT_THAT(script.calls, ElementsAre("read 2048", "decode 2048 into 32768", "getformat", //
                                          "read 2048", "decode 2048 into 32768", "getformat", //
                                          "read 2048", "decode 2048 into 32768", "getformat"));
}

TEST_F(Mp3File, DecoderThatWritesAllTheOutputItWasToldStaysInTheBuffer)
{
    script.fillsOutput = true; // an overrun is for the sanitizer to see
    OpenMp3 mp3;
    EXPECT_EQ(mp3.setNewFile(storeEncoded()), STREAM_OK);
}

// ---- opening: failures

TEST_F(Mp3File, MissingFileIsNotFoundAndToldWithTheTextOfMinusOne)
{
    OpenMp3 mp3;
    streamStatus answer = STREAM_OK;
    EXPECT_THAT(traced(2, [&] { answer = mp3.setNewFile(path()); }),
                ElementsAre("(2) Opening MP3 file " + path(), "(1) ERROR opening file: " + std::string(strerror(-1))));
    EXPECT_EQ(answer, FILE_NOT_FOUND);
    expectNoFile(mp3);
    EXPECT_EQ(script.created, 0);
    EXPECT_THAT(traced(0, [&] { (void)mp3.setNewFile(path()); }), IsEmpty());
}

TEST_F(Mp3File, MissingFileClosesTheOneBefore)
{
    OpenMp3 mp3;
    const size_t descriptorsBefore = openDescriptors();
    ASSERT_EQ(mp3.setNewFile(storeEncoded()), STREAM_OK);
    EXPECT_EQ(openDescriptors(), descriptorsBefore + 1);
    EXPECT_EQ(mp3.setNewFile(path() + ".gone"), FILE_NOT_FOUND);
    EXPECT_EQ(openDescriptors(), descriptorsBefore);
    EXPECT_EQ(script.deleted, 1);
    expectNoFile(mp3);
    EXPECT_EQ(mp3.getFilename(), path() + ".gone");
}

TEST_F(Mp3File, NewFileTakesThePlaceOfTheOneBefore)
{
    OpenMp3 mp3;
    const size_t descriptorsBefore = openDescriptors();
    ASSERT_EQ(mp3.setNewFile(storeEncoded()), STREAM_OK);
    recipe other;
    other.rate = 32000;
    other.channels = 1;
    ASSERT_EQ(mp3.setNewFile(storeEncoded(other)), STREAM_OK);
    EXPECT_EQ(openDescriptors(), descriptorsBefore + 1);
    EXPECT_EQ(mp3.params().nominalSampleRate, 32000.0F);
    EXPECT_EQ(mp3.params().numChannels, 1U);
    EXPECT_EQ(script.created, 2);
    EXPECT_EQ(script.deleted, 1);
}

TEST_F(Mp3File, DecoderThatDoesNotStartIsAnErrorWithItsCodeAndText)
{
    struct row {
        const char* name;
        std::function<void()> refuse;
        const char* line;
    };
    const row rows[] = {
        {"init", [] { script.init = MPG123_ERR; }, "(5) Could not init MPG123: -1 - A generic mpg123 error."},
        {"new", [] { script.newError = MPG123_OUT_OF_MEM; },
         "(5) Could not create mpg123 handle: 7 - Out of memory -- some malloc() failed. (code 7)"},
        {"open_feed", [] { script.openFeed = MPG123_BAD_HANDLE; },
         "(5) Could not open mpg123 feed: 10 - Invalid mpg123 handle. (code 10)"},
        {"open_feed, negative", [] { script.openFeed = MPG123_ERR; },
         "(5) Could not open mpg123 feed: -1 - A generic mpg123 error."},
    };
    const std::string name = storeEncoded();
    const size_t descriptorsBefore = openDescriptors();
    for (const row& one : rows) {
        script = Script();
        one.refuse();
        OpenMp3 mp3;
        streamStatus answer = STREAM_OK;
        EXPECT_THAT(traced(5, [&] { answer = mp3.setNewFile(name); }),
                    ElementsAre("(2) Opening MP3 file " + name, one.line))
            << one.name;
        EXPECT_EQ(answer, STREAM_ERROR) << one.name;
        expectNoFile(mp3);
        EXPECT_EQ(openDescriptors(), descriptorsBefore) << one.name;
        EXPECT_THAT(traced(1, [&] { (void)mp3.setNewFile(name); }), IsEmpty()) << one.name;
        EXPECT_EQ(script.created, script.deleted) << one.name;
    }
}

TEST_F(Mp3File, FileThatTheDecoderRefusesIsAnErrorWithAllFourFigures)
{
    const std::string name = storeEncoded();
    const size_t descriptorsBefore = openDescriptors();
    script.decode = {MPG123_NEED_MORE, MPG123_NO_SPACE};
    OpenMp3 mp3;
    streamStatus answer = STREAM_OK;
    EXPECT_THAT(traced(5, [&] { answer = mp3.setNewFile(name); }),
                ElementsAre("(2) Opening MP3 file " + name, "(1) Start initial decode for file params.",
                            "(5) Could not feed mpg123: read 0 Bytes 2048 from file 14 - " +
                                std::string(mpg123_plain_strerror(14))));
    EXPECT_EQ(answer, STREAM_ERROR);
    expectNoFile(mp3);
    EXPECT_EQ(openDescriptors(), descriptorsBefore);
}

TEST_F(Mp3File, OpeningThatIsRefusedClosesTheFileItself)
{
    const std::string name = storeEncoded();
    const size_t descriptorsBefore = openDescriptors();
    OpenMp3 mp3;
    ASSERT_EQ(mp3.setNewFile(name), STREAM_OK);
    script.openFeed = MPG123_ERR;
    EXPECT_EQ(mp3.openFile(), STREAM_ERROR);
    expectNoFile(mp3);
    EXPECT_EQ(openDescriptors(), descriptorsBefore);
    script.openFeed.reset();
    script.decode = {MPG123_NO_SPACE};
    EXPECT_EQ(mp3.openFile(), STREAM_ERROR);
    expectNoFile(mp3);
    EXPECT_EQ(openDescriptors(), descriptorsBefore);
}

TEST_F(Mp3File, LengthAndCountOfTheFileBeforeStayUntilTheDecoderHasStarted)
{
    const std::string name = storeEncoded();
    OpenMp3 mp3;
    mp3.fileSizeSamples = 0;
    mp3.framesConsumed = 77;
    mp3.decodeStatus = MPG123_DONE;
    mp3.newInBytes = 88;
    mp3.decodedBytes = 99;
    EXPECT_EQ(mp3.setNewFile(name + ".gone"), FILE_NOT_FOUND);
    EXPECT_EQ(mp3.decodeStatus, MPG123_DONE);
    EXPECT_EQ(mp3.newInBytes, 88);
    EXPECT_EQ(mp3.decodedBytes, 99);
    script.openFeed = MPG123_ERR;
    EXPECT_EQ(mp3.setNewFile(name), STREAM_ERROR);
    EXPECT_EQ(mp3.decodeStatus, MPG123_NEED_MORE);
    EXPECT_EQ(mp3.newInBytes, 0);
    EXPECT_EQ(mp3.decodedBytes, 0);
    EXPECT_EQ(mp3.fileSizeSamples, 0);
    EXPECT_EQ(mp3.framesConsumed, 77U);
    EXPECT_EQ(mp3.timeLeft(), 0);
    script.openFeed.reset();
    ASSERT_EQ(mp3.setNewFile(name), STREAM_OK);
    EXPECT_EQ(mp3.fileSizeSamples, -1);
    EXPECT_EQ(mp3.framesConsumed, 0U);
}

TEST_F(Mp3File, SearchGoesOnAfterAnErrorThatIsNegative)
{
    script.decode = {MPG123_ERR, MPG123_NEED_MORE, MPG123_OK, MPG123_DONE};
    OpenMp3 mp3;
    script.recording = true;
    EXPECT_EQ(mp3.setNewFile(storeEncoded()), STREAM_OK);
    EXPECT_EQ(std::count(script.calls.begin(), script.calls.end(), "decode 2048 into 32768"), 5);
}

TEST_F(Mp3Reading, NewFileOnAConnectedPortClosesTheFileAndIsRefusedWithoutAWord)
{
    const size_t descriptorsBefore = openDescriptors();
    play(mp3Files::encode({}));
    streamStatus answer = STREAM_OK;
    EXPECT_THAT(traced(8, [&] { answer = block->setNewFile(path()); }), IsEmpty());
    EXPECT_EQ(answer, STREAM_ERROR);
    expectNoFile(*block);
    EXPECT_EQ(openDescriptors(), descriptorsBefore);
    EXPECT_TRUE(block->port().isConnected(nullptr));
}

// ---- opening: the search without an end

TEST_F(Mp3Reading, FileWithoutAFrameIsReadAtItsEndUntilItHasOne)
{
    // The file is empty, then can't be read, then is empty again, and then has grown.
    script.reads.assign(5000, 0);
    script.reads.insert(script.reads.end(), 3000, -1);
    script.reads.insert(script.reads.end(), 2000, 0);
    const bytes file = mp3Files::encode({});
    script.recording = true;
    ASSERT_EQ(block->setNewFile(store(file)), STREAM_OK);
    script.recording = false;
    EXPECT_EQ(script.readsAtTheEnd, 10000);
    EXPECT_TRUE(script.reads.empty());
    EXPECT_EQ(std::count(script.calls.begin(), script.calls.end(), "read 2048"), 10001);
    EXPECT_EQ(std::count(script.calls.begin(), script.calls.end(), "getformat"), 1); // nothing was fed till then
    connect();
    expectSameBytes(readToTheEnd(), padded(mp3Files::decodeFed(file, 2048).audio, 8192));
}

TEST_F(Mp3Reading, SearchGoesOnWhereItWasWhenTheFileHasGrown)
{
    const bytes file = mp3Files::encode({.coverBytes = 6000}); // the fourth piece has the first frame
    script.reads = {REAL_READ, REAL_READ, 0, -1, 0, REAL_READ, 0};
    ASSERT_EQ(block->setNewFile(store(file)), STREAM_OK);
    EXPECT_TRUE(script.reads.empty());
    connect();
    expectSameBytes(readToTheEnd(), padded(mp3Files::decodeFed(file, 2048).audio, 8192));
}

// A single frame is none to the decoder: it believes a header only when it has seen the next one.
TEST_F(Mp3File, FileOfASingleFrameIsReadAtItsEndUntilTheNextOneBegins)
{
    const bytes file = mp3Files::encode({.infoTag = false});
    const auto frameBytes = static_cast<ptrdiff_t>(144 * 128000 / 44100); // the first is not padded
    const bytes rest(file.begin() + frameBytes, file.end());
    ASSERT_EQ(rest[0], file[0]);
    ASSERT_EQ(rest[1], file[1]);
    for (const bytes& tail : {bytes(), mp3Files::id3v1()}) {
        const std::string name = store(plus(bytes(file.begin(), file.begin() + frameBytes), tail));
        script.readsAtTheEnd = 0;
        script.afterManyReads = [&](int) {
            std::ofstream grown(name, std::ios::binary | std::ios::app);
            grown.write(reinterpret_cast<const char*>(rest.data()), static_cast<std::streamsize>(rest.size()));
        };
        OpenMp3 mp3;
        EXPECT_EQ(mp3.setNewFile(name), STREAM_OK);
        EXPECT_EQ(script.readsAtTheEnd, 1000);
    }
}

TEST_F(Mp3File, DirectoryIsReadForEver)
{
    const std::string name = storeEncoded();
    script.afterManyReads = [&](int file) { // the only way out: a file in its place
        const int other = open(name.c_str(), O_RDONLY);
        EXPECT_EQ(dup2(other, file), file);
        close(other);
    };
    OpenMp3 mp3;
    EXPECT_EQ(mp3.setNewFile(directory.string()), STREAM_OK);
    EXPECT_EQ(script.readsAtTheEnd, 1000);
}

// ---- the audio is what the library's own decoder gives

struct kind {
    const char* name;
    recipe encoded;
    uint32_t periodSize;
};

void PrintTo(const kind& one, std::ostream* out)
{
    *out << one.name;
}

class Mp3Kinds : public Mp3Reading, public WithParamInterface<kind>
{
};

// The decoder is used here as its own feed interface is meant to be used: fed in pieces of another size than the
// block's, and read with mpg123_read. On these files that gives just what the library gives when it opens the file
// itself, to the last sample: it trims the encoder's delay and padding by the tag frame in both. They differ only in
// files with foreign bytes between or behind the frames, where the library's file reader gives up and a fed decoder goes
// on; see below.
TEST_P(Mp3Kinds, DecodedAudioIsTheLibrarysOwnFromTheFirstSampleToTheLast)
{
    const kind& one = GetParam();
    const bytes file = mp3Files::encode(one.encoded);
    const mp3Files::decoded wanted = mp3Files::decodeFed(file, 3001);
    ASSERT_EQ(wanted.rate, one.encoded.rate);
    ASSERT_EQ(wanted.channels, one.encoded.channels);
    ASSERT_EQ(wanted.encoding, MPG123_ENC_SIGNED_16);
    play(file, one.periodSize);
    const mp3Files::decoded opened = mp3Files::decodeOpened(path());
    EXPECT_EQ(opened.lastResult, MPG123_DONE);
    expectSameBytes(wanted.audio, opened.audio);

    EXPECT_EQ(block->params().nominalSampleRate, static_cast<float>(one.encoded.rate));
    EXPECT_EQ(block->params().numChannels, static_cast<uint32_t>(one.encoded.channels));
    EXPECT_EQ(block->params().sampleFormat, SAMPLE_S16BIT_LE);
    const uint32_t frameBytes = static_cast<uint32_t>(one.encoded.channels) * 2;
    ASSERT_EQ(block->workBufferSize, one.periodSize * frameBytes);
    expectSameBytes(readToTheEnd(), padded(wanted.audio, block->workBufferSize));

    if (one.encoded.infoTag) { // the encoder's delay and padding are cut off: what went in comes out
        EXPECT_EQ(wanted.audio.size(), static_cast<size_t>(one.encoded.frames) * frameBytes);
    } else { // whole frames, the encoder's delay among them
        EXPECT_EQ(wanted.audio.size() % (576 * frameBytes), 0U);
        EXPECT_GT(wanted.audio.size(), static_cast<size_t>(one.encoded.frames) * frameBytes);
    }
}

const kind kinds[] = {
    {"Cbr8000Mono", {.rate = 8000, .channels = 1}, 2048},
    {"Vbr11025Stereo", {.rate = 11025, .variableRate = true}, 2048},
    {"Cbr12000Stereo", {.rate = 12000}, 2048},
    {"Cbr16000Stereo", {.rate = 16000}, 2048},
    {"Cbr16000Mono", {.rate = 16000, .channels = 1}, 2048},
    {"Cbr22050Stereo", {.rate = 22050}, 2048},
    {"Cbr22050Mono", {.rate = 22050, .channels = 1}, 8192},
    {"Cbr24000Stereo", {.rate = 24000}, 2048},
    {"Cbr24000Mono", {.rate = 24000, .channels = 1}, 2048},
    {"Cbr32000Stereo", {.rate = 32000}, 4096},
    {"Cbr32000Mono", {.rate = 32000, .channels = 1}, 2048},
    {"Cbr44100Stereo", {.rate = 44100}, 2048},
    {"Cbr44100Mono", {.rate = 44100, .channels = 1}, 2048},
    {"Cbr48000Stereo", {.rate = 48000}, 2048},
    {"Cbr48000Mono", {.rate = 48000, .channels = 1}, 2048},
    {"Cbr44100StereoNoTag", {.infoTag = false}, 2048},
    {"Cbr48000StereoNoTag", {.rate = 48000, .infoTag = false}, 2048},
    {"Cbr22050MonoNoTag", {.rate = 22050, .channels = 1, .infoTag = false}, 2048},
    {"FreeFormat44100Stereo", {.freeFormat = true, .infoTag = false}, 2048},
    {"FreeFormat24000Mono", {.rate = 24000, .channels = 1, .freeFormat = true, .infoTag = false}, 2048},
    {"FreeFormatBehindALargeCover", {.freeFormat = true, .infoTag = false, .coverBytes = 300000}, 2048},
    {"Vbr44100Stereo", {.variableRate = true}, 2048},
    {"Vbr48000Stereo", {.rate = 48000, .variableRate = true}, 2048},
    {"Vbr32000Mono", {.rate = 32000, .channels = 1, .variableRate = true}, 2048},
    {"Vbr24000Stereo", {.rate = 24000, .variableRate = true}, 2048},
    {"Vbr22050Mono", {.rate = 22050, .channels = 1, .variableRate = true}, 2048},
    {"Vbr16000Stereo", {.rate = 16000, .variableRate = true}, 2048},
    {"Vbr44100StereoNoTag", {.variableRate = true, .infoTag = false}, 2048},
    {"Vbr16000MonoNoTag", {.rate = 16000, .channels = 1, .variableRate = true, .infoTag = false}, 2048},
    {"Id3v1Behind", {.id3v1 = true}, 2048},
    {"Id3v1BehindWithoutTagFrame", {.infoTag = false, .id3v1 = true}, 2048},
    {"SmallId3v2InFront", {.coverBytes = 100}, 2048},
    {"LargeCoverInFront", {.coverBytes = 300000}, 2048},
    {"LargeCoverInFrontWithoutTagFrame", {.infoTag = false, .coverBytes = 300000}, 2048},
    {"TagsAtBothEnds", {.variableRate = true, .id3v1 = true, .coverBytes = 300000}, 2048},
    {"MonoTagsAtBothEnds", {.rate = 22050, .channels = 1, .id3v1 = true, .coverBytes = 70000}, 2048},
    {"PeriodOf1Frame", {.frames = 3000}, 1},
    {"PeriodOf256Frames", {}, 256},
    {"PeriodOfAPrime", {}, 1153},
    {"PeriodOfTheWholeFile", {}, 65536},
    {"AudioThatFillsItsLastPeriod", {.frames = 10240}, 1024},
    {"OneFrameShortOfAPeriod", {.frames = 10239}, 1024},
    {"OneFrameBeyondAPeriod", {.frames = 10241}, 1024},
};

INSTANTIATE_TEST_SUITE_P(All, Mp3Kinds, ValuesIn(kinds),
                         [](const TestParamInfo<kind>& one) { return std::string(one.param.name); });

bytes noise(size_t size)
{
    bytes contents;
    uint32_t state = 99;
    while (contents.size() < size) {
        state = state * 1664525U + 1013904223U;
        contents.push_back(static_cast<unsigned char>(state >> 24));
    }
    return contents;
}

TEST_F(Mp3Reading, CutOffFileEndsWithItsLastWholeFrame)
{
    bytes file = mp3Files::encode({});
    file.resize(file.size() / 2 + 77);
    const mp3Files::decoded wanted = mp3Files::decodeFed(file, 2048);
    play(file);
    expectSameBytes(wanted.audio, mp3Files::decodeOpened(path()).audio);
    expectSameBytes(readToTheEnd(), padded(wanted.audio, block->workBufferSize));
}

TEST_F(Mp3Reading, FileThatShrinksWhileItPlaysEndsWithWhatHasBeenRead)
{
    const bytes file = mp3Files::encode({});
    play(file);
    bytes got = read();
    const auto at = static_cast<ptrdiff_t>(lseek(block->fnum, 0, SEEK_CUR));
    ASSERT_GT(at, 1000);
    std::filesystem::resize_file(path(), 1000);
    const bytes rest = readToTheEnd();
    got.insert(got.end(), rest.begin(), rest.end());
    expectSameBytes(got, padded(mp3Files::decodeFed(bytes(file.begin(), file.begin() + at), 2048).audio, 8192));
}

TEST_F(Mp3Reading, FileThatIsRemovedWhileItPlaysPlaysToItsEnd)
{
    const bytes file = mp3Files::encode({});
    play(file);
    std::filesystem::remove(path());
    expectSameBytes(readToTheEnd(), padded(mp3Files::decodeFed(file, 2048).audio, 8192));
}

TEST_F(Mp3Reading, StorageThatGivesLessThanItIsAskedForChangesNothing)
{
    const bytes file = mp3Files::encode({});
    for (const size_t most : {1U, 7U, 417U, 2047U}) {
        script.mostBytes = most;
        play(file);
        expectSameBytes(readToTheEnd(), padded(mp3Files::decodeFed(file, 2048).audio, 8192));
        (void)block->port().disconnect();
    }
}

TEST_F(Mp3Reading, NoiseInMidFileIsPassedOverWhereAFileReaderGivesUp)
{
    const bytes good = mp3Files::encode({.infoTag = false});
    const auto middle = good.begin() + static_cast<ptrdiff_t>(good.size() / 2);
    const bytes file = plus(plus(bytes(good.begin(), middle), noise(6000)), bytes(middle, good.end()));
    const mp3Files::decoded wanted = mp3Files::decodeFed(file, 2048);
    play(file);
    const mp3Files::decoded opened = mp3Files::decodeOpened(path());
    EXPECT_LT(opened.audio.size(), wanted.audio.size());
    expectSameBytes(readToTheEnd(), padded(wanted.audio, block->workBufferSize));
}

TEST_F(Mp3Reading, NoiseBehindTheAudioEndsTheFileAllTheSame)
{
    for (const bool infoTag : {true, false}) {
        const bytes good = mp3Files::encode({.infoTag = infoTag});
        const bytes file = plus(good, noise(5000));
        const mp3Files::decoded wanted = mp3Files::decodeFed(file, 2048);
        const bytes audio = mp3Files::decodeFed(good, 2048).audio;
        ASSERT_GE(wanted.audio.size(), audio.size());
        play(file);
        expectSameBytes(readToTheEnd(), padded(wanted.audio, block->workBufferSize));
        (void)block->port().disconnect();
    }
}

TEST_F(Mp3Reading, NoiseInFrontIsPassedOver)
{
    const bytes good = mp3Files::encode({.infoTag = false});
    const bytes file = plus(bytes(5000, 0), good);
    play(file);
    expectSameBytes(readToTheEnd(), padded(mp3Files::decodeFed(good, 2048).audio, block->workBufferSize));
}

TEST_F(Mp3Reading, ChangeOfFormatInMidFileKeepsThePortsFormat)
{
    const bytes file =
        plus(mp3Files::encode({.infoTag = false}), mp3Files::encode({.rate = 22050, .channels = 1, .infoTag = false}));
    const mp3Files::decoded wanted = mp3Files::decodeFed(file, 2048);
    play(file);
    expectSameBytes(readToTheEnd(), padded(wanted.audio, block->workBufferSize));
    EXPECT_EQ(block->params().nominalSampleRate, 44100.0F);
    EXPECT_EQ(block->params().numChannels, 2U);
}

// ---- reading, step by step

TEST_F(Mp3Reading, ConnectingMakesOneSilentPeriodOfBuffer)
{
    play(mp3Files::encode({}), 300);
    EXPECT_EQ(block->workBufferSize, 1200U);
    EXPECT_TRUE(block->workBufferEmpty);
    EXPECT_EQ(bytes(block->workBuffer, block->workBuffer + 1200), bytes(1200, 0));
}

TEST_F(Mp3Reading, InputIsReadOnlyWhenTheDecoderAsksForMore)
{
    play(mp3Files::encode({}), 100);
    script.recording = true;
    (void)read();
    const auto reads = [] { return std::count(script.calls.begin(), script.calls.end(), "read 2048"); };
    EXPECT_EQ(reads(), 0); // what the search had taken in holds the first frames
    EXPECT_EQ(script.calls.front(), "decode 0 into 400");
    while (reads() == 0) {
        (void)read();
    }
    ASSERT_GE(script.calls.size(), 3U);
    const auto at = std::find(script.calls.begin(), script.calls.end(), "read 2048");
    EXPECT_THAT(*(at + 1), "decode 2048 into 0");
    EXPECT_EQ(block->newInBytes, 2048);
}

TEST_F(Mp3Reading, SecondRequestWithoutAcknowledgementHasNoPeriod)
{
    play(mp3Files::encode({}));
    const bytes first = request();
    EXPECT_EQ(first.size(), 8192U);
    EXPECT_FALSE(block->workBufferEmpty);
    (void)request();
    EXPECT_EQ(nPeriods, 0U);
    EXPECT_EQ(bytes(block->workBuffer, block->workBuffer + 8192), first); // still lent
    EXPECT_EQ(block->port().ackReadPeriods(0), STREAM_OK);
    (void)request();
    EXPECT_EQ(nPeriods, 0U);
    acknowledge();
    EXPECT_EQ(request().size(), 8192U);
}

TEST_F(Mp3Reading, RequestThatCannotFillAPeriodKeepsWhatItHasAndTheNextGoesOnFromThere)
{
    const bytes file = mp3Files::encode({});
    const bytes wanted = mp3Files::decodeFed(file, 2048).audio;
    play(file, 4096);
    script.reads = {-1};
    bytes none{1};
    EXPECT_THAT(traced(0, [&] { none = request(); }), ElementsAre("(0) Error reading MP3 file: -1."));
    EXPECT_TRUE(none.empty());
    EXPECT_EQ(block->newInBytes, -1);
    ASSERT_GT(block->decodedBytes, 0);
    const auto decoded = static_cast<size_t>(block->decodedBytes);
    ASSERT_LT(decoded, 16384U);
    EXPECT_EQ(bytes(block->workBuffer, block->workBuffer + decoded),
              bytes(wanted.begin(), wanted.begin() + block->decodedBytes));
    EXPECT_TRUE(block->workBufferEmpty);
    script.recording = true;
    const bytes period = request();
    EXPECT_EQ(script.calls.front(), "decode 0 into " + std::to_string(16384 - decoded));
    EXPECT_EQ(period, bytes(wanted.begin(), wanted.begin() + 16384));
    EXPECT_EQ(block->decodedBytes, 0);
}

TEST_F(Mp3Reading, DecoderThatGivesNothingIsAskedAgain)
{
    const bytes file = mp3Files::encode({});
    play(file);
    script.decode = {MPG123_OK, MPG123_ERR, MPG123_NEW_FORMAT, MPG123_NO_SPACE};
    expectSameBytes(readToTheEnd(), padded(mp3Files::decodeFed(file, 2048).audio, block->workBufferSize));
    EXPECT_TRUE(script.decode.empty());
}

TEST_F(Mp3Reading, PeriodThatIsFullNeedsNoMoreOfTheFile)
{
    play(mp3Files::encode({}), 100);
    script.recording = true;
    script.decodedBytes = 400;
    EXPECT_EQ(request(), bytes(400, 0x33));
    EXPECT_THAT(script.calls, ElementsAre("decode 0 into 400"));
    acknowledge();
    script.calls.clear();
    script.decodedBytes = 300; // it wants more, but what it has is asked for first
    const bytes second = request();
    EXPECT_EQ(bytes(second.begin(), second.begin() + 300), bytes(300, 0x33));
    EXPECT_THAT(script.calls, ElementsAre("decode 0 into 400", "decode 0 into 100"));
}

TEST_F(Mp3Reading, NewFileStartsWithNothingDecodedAndNothingConsumed)
{
    const bytes file = mp3Files::encode({});
    play(file, 4096);
    (void)read();
    script.reads = {-1};
    (void)traced(-1, [&] { (void)request(); });
    ASSERT_GT(block->decodedBytes, 0);
    ASSERT_GT(block->framesConsumed, 0U);
    (void)block->port().disconnect();
    play(file, 4096);
    EXPECT_EQ(block->decodedBytes, 0);
    EXPECT_EQ(block->framesConsumed, 0U);
    expectSameBytes(readToTheEnd(), padded(mp3Files::decodeFed(file, 2048).audio, 16384));
}

TEST_F(Mp3Reading, EachRequestIsToldAtLevel8)
{
    play(mp3Files::encode({}), 100);
    EXPECT_THAT(traced(8, [&] { (void)request(); }), ElementsAre("(8) Decoded 400 MP3 samples, buffer state: 1"));
    EXPECT_THAT(traced(8, [&] { (void)request(); }), ElementsAre("(8) Decoded 0 MP3 samples, buffer state: 0"));
    acknowledge();
    EXPECT_THAT(traced(7, [&] { (void)request(); }), IsEmpty());
}

TEST_F(Mp3Reading, AcknowledgingCountsFramesAndPeriods)
{
    play(mp3Files::encode({}));
    (void)read();
    EXPECT_EQ(block->framesConsumed, 2048U);
    EXPECT_EQ(block->port().getPeriodCount(), 1);
    EXPECT_TRUE(block->workBufferEmpty);
    (void)request();
    EXPECT_EQ(block->port().ackReadPeriods(0), STREAM_OK);
    EXPECT_FALSE(block->workBufferEmpty);
    EXPECT_EQ(block->framesConsumed, 2048U);
    EXPECT_EQ(block->port().getPeriodCount(), 1);
    EXPECT_EQ(block->port().ackReadPeriods(3), STREAM_OK);
    EXPECT_EQ(block->framesConsumed, 4 * 2048U);
    EXPECT_EQ(block->port().getPeriodCount(), 4);
    block->framesConsumed = 4294967295U;
    EXPECT_EQ(block->port().ackReadPeriods(1), STREAM_OK);
    EXPECT_EQ(block->framesConsumed, 2047U); // wraps
}

TEST_F(Mp3Reading, EndOfTheFileIsOnePaddedPeriodAndThenSilence)
{
    const bytes file = mp3Files::encode({.frames = 5000});
    const bytes wanted = padded(mp3Files::decodeFed(file, 2048).audio, 8192);
    ASSERT_EQ(wanted.size(), 3 * 8192U); // 5000 = 2 * 2048 + 904
    play(file);
    (void)read();
    (void)read();
    EXPECT_EQ(block->fileSizeSamples, -1);
    EXPECT_NE(block->timeLeft(), 0);
    std::memset(block->workBuffer, 0x77, 8192);
    const bytes last = request();
    EXPECT_EQ(last, bytes(wanted.begin() + 2 * 8192, wanted.end()));
    EXPECT_EQ(block->decodeStatus, MPG123_NEED_MORE); // it was the file that ended
    EXPECT_EQ(block->fileSizeSamples, 0);
    EXPECT_EQ(block->framesConsumed, 0U);
    EXPECT_EQ(block->decodedBytes, 0);
    EXPECT_FALSE(block->workBufferEmpty);
    EXPECT_EQ(block->timeLeft(), 0);
    (void)request();
    EXPECT_EQ(nPeriods, 0U);
    acknowledge();
    EXPECT_EQ(block->framesConsumed, 2048U);
    EXPECT_EQ(block->timeLeft(), 0);
    for (int i = 0; i < 3; i++) {
        std::memset(block->workBuffer, 0x77, 8192);
        EXPECT_EQ(read(), bytes(8192, 0));
        EXPECT_EQ(block->timeLeft(), 0);
    }
}

TEST_F(Mp3Reading, EndOfTheFileIsNotTraced)
{
    play(mp3Files::encode({.frames = 100}));
    EXPECT_THAT(traced(8, [&] { (void)request(); }), IsEmpty());
    EXPECT_EQ(block->timeLeft(), 0);
}

TEST_F(Mp3Reading, DecoderThatIsDoneEndsTheFileWithAWord)
{
    play(mp3Files::encode({}));
    (void)read();
    script.reads = {-1};
    (void)traced(-1, [&] { (void)request(); });
    const int decoded = block->decodedBytes;
    ASSERT_GT(decoded, 0);
    const bytes audio(block->workBuffer, block->workBuffer + decoded);
    block->framesConsumed = 5;
    script.decode = {MPG123_DONE};
    bytes last;
    EXPECT_THAT(traced(1, [&] { last = request(); }), ElementsAre("(1) WARNING: End of file."));
    EXPECT_EQ(last, plus(audio, bytes(8192 - audio.size(), 0)));
    EXPECT_EQ(block->fileSizeSamples, 0);
    EXPECT_EQ(block->framesConsumed, 0U);
    EXPECT_EQ(block->decodedBytes, 0);
    EXPECT_EQ(block->timeLeft(), 0);
    block->framesConsumed = 7;
    acknowledge();
    EXPECT_EQ(block->framesConsumed, 0U); // of no samples at all
    EXPECT_EQ(block->port().getPeriodCount(), 2);
}

TEST_F(Mp3Reading, RequestForgetsThatTheDecoderWasDone)
{
    play(mp3Files::encode({}));
    script.decode = {MPG123_DONE};
    (void)traced(-1, [&] { (void)request(); });
    EXPECT_EQ(block->decodeStatus, MPG123_DONE);
    block->framesConsumed = 7;
    EXPECT_TRUE(request().empty()); // the last period is still out
    EXPECT_EQ(block->decodeStatus, MPG123_NEED_MORE);
    acknowledge();
    EXPECT_EQ(block->framesConsumed, 7U + 2048U); // so it is counted like any other
}

TEST_F(Mp3Reading, NothingOfOursIsAllocatedFromTheFirstPeriodToTheLast)
{
    play(mp3Files::encode({.rate = 48000, .frames = 200000}));
    audioInterfaceTraceLevel = 0;
    const unsigned int before = allocations;
    unsigned int periods = 0;
    while (block->timeLeft() != 0) {
        char* period = nullptr;
        unsigned int offered = 0;
        (void)block->port().reqReadPeriods(period, offered);
        (void)block->port().ackReadPeriods(offered);
        periods += offered;
    }
    EXPECT_EQ(allocations, before);
    EXPECT_EQ(periods, 98U); // 200000 / 2048, rounded up
}

// ---- the port

TEST_F(Mp3Reading, DisconnectClosesTheFileAndTheNextRequestFindsNone)
{
    const size_t descriptorsBefore = openDescriptors();
    play(mp3Files::encode({}));
    (void)read();
    EXPECT_EQ(block->port().disconnect(), STREAM_OK);
    EXPECT_EQ(block->fnum, -1);
    EXPECT_EQ(block->mh, nullptr);
    EXPECT_EQ(openDescriptors(), descriptorsBefore);
    EXPECT_EQ(script.deleted, 1);
    EXPECT_FALSE(block->port().isConnected(nullptr));
    EXPECT_FALSE(reader->port()->isConnected(nullptr));
    EXPECT_EQ(block->params().periodSize, 4096U); // as a new port
    EXPECT_EQ(block->params().periodSizeStatus, FIXED);
    EXPECT_EQ(block->params().nominalSampleRateStatus, VARIABLE);

    connect(4096); // the chain comes back, and no file was set
    std::memset(block->workBuffer, 0x77, block->workBufferSize);
    EXPECT_THAT(traced(5, [&] { EXPECT_TRUE(request().empty()); }),
                ElementsAre("(5) ERROR! file not open: " + std::string(strerror(-1))));
    EXPECT_EQ(nPeriods, 0U);
    EXPECT_EQ(bytes(block->workBuffer, block->workBuffer + block->workBufferSize), bytes(16384, 0));
    EXPECT_TRUE(block->workBufferEmpty);
    EXPECT_THAT(traced(4, [&] { EXPECT_TRUE(request().empty()); }), IsEmpty());
}

TEST_F(Mp3Reading, DisconnectFromTheReadersSideClosesTheFileToo)
{
    play(mp3Files::encode({}));
    EXPECT_EQ(reader->port()->disconnect(), STREAM_OK);
    EXPECT_EQ(block->fnum, -1);
    EXPECT_EQ(block->mh, nullptr);
    EXPECT_FALSE(block->port().isConnected(nullptr));
    EXPECT_EQ(block->params().periodSize, 4096U);
}

TEST_F(Mp3Reading, FileCanBeSetAgainAfterADisconnect)
{
    const bytes file = mp3Files::encode({.rate = 32000, .channels = 1});
    play(mp3Files::encode({}));
    (void)read();
    (void)block->port().disconnect();
    play(file);
    expectSameBytes(readToTheEnd(), padded(mp3Files::decodeFed(file, 2048).audio, 4096));
}

TEST_F(Mp3File, DisconnectOfAFreePortLeavesItsFileAndParameters)
{
    OpenMp3 mp3;
    ASSERT_EQ(mp3.setNewFile(storeEncoded({.rate = 32000, .channels = 1})), STREAM_OK);
    EXPECT_EQ(mp3.port().disconnect(), STREAM_OK);
    EXPECT_GE(mp3.fnum, 0);
    EXPECT_NE(mp3.mh, nullptr);
    EXPECT_EQ(mp3.params().nominalSampleRate, 32000.0F);
    EXPECT_EQ(mp3.params().numChannels, 1U);
    EXPECT_EQ(mp3.params().periodSize, 2048U);
}

TEST_F(Mp3Reading, RequestWithoutAFileOnAFreePortTriesToOpenIt)
{
    play(mp3Files::encode({}));
    (void)block->port().disconnect();
    EXPECT_THAT(traced(2, [&] { (void)request(); }),
                ElementsAre("(2) Opening MP3 file " + path(), "(1) Start initial decode for file params.",
                            "(2) MP3 at 44100 Hz 2 channels d0 encoding"));
    EXPECT_GE(block->fnum, 0);
}

TEST_F(Mp3File, RequestOfANewBlockHasNothing)
{
    OpenMp3 mp3;
    char* lent = reinterpret_cast<char*>(this);
    unsigned int nPeriods = 77;
    EXPECT_EQ(mp3.port().reqReadPeriods(lent, nPeriods), STREAM_OK);
    EXPECT_EQ(lent, nullptr);
    EXPECT_EQ(nPeriods, 0U);
    EXPECT_EQ(mp3.port().ackReadPeriods(0), STREAM_OK);
}

TEST_F(Mp3File, PortAdoptsWhatItMayAndRefusesTheRest)
{
    OpenMp3 mp3;
    ASSERT_EQ(mp3.setNewFile(storeEncoded()), STREAM_OK);
    audioPortParam_t asked = mp3.params();
    asked.periodSize = 777;
    asked.trueSampleRate = 44099.0F;
    EXPECT_EQ(mp3.port().reconfigPortCheck(&asked), STREAM_OK);
    EXPECT_EQ(mp3.params().periodSize, 777U);
    EXPECT_EQ(mp3.params().trueSampleRate, 44099.0F);
    asked.numChannels = 1;
    asked.periodSize = 778;
    EXPECT_EQ(mp3.port().reconfigPortCheck(&asked), STREAM_ERROR);
    EXPECT_EQ(mp3.params().numChannels, 2U);
    EXPECT_EQ(mp3.params().periodSize, 778U);
    EXPECT_EQ(asked.numChannelsStatus, FIXED); // nothing is marked
}

TEST_F(Mp3Reading, ApplyTakesARecordThatPassesAndMakesTheBufferEitherWay)
{
    play(mp3Files::encode({}), 500);
    audioPortParam_t good = block->params();
    good.trueSampleRateStatus = FIXED;
    EXPECT_EQ(block->port().reconfigPortApply(&good), STREAM_OK);
    EXPECT_EQ(block->params().trueSampleRateStatus, FIXED); // the record is copied whole

    block->params().numChannelsStatus = FIXED;
    block->params().sampleFormatStatus = FIXED;
    audioPortParam_t bad = block->params();
    bad.numChannels = 1;
    bad.sampleFormatStatus = VARIABLE;
    block->workBufferEmpty = false;
    std::memset(block->workBuffer, 0x77, block->workBufferSize);
    EXPECT_EQ(block->port().reconfigPortApply(&bad), STREAM_ERROR);
    EXPECT_EQ(block->params().numChannels, 2U);
    EXPECT_EQ(block->params().sampleFormatStatus, FIXED);
    EXPECT_TRUE(block->workBufferEmpty);
    EXPECT_EQ(block->workBuffer[0], 0);
}

TEST_F(Mp3Reading, BufferThatShrinksUnderDecodedBytesIsNotOverrun)
{
    play(mp3Files::encode({}), 4096);
    script.reads = {-1};
    (void)traced(-1, [&] { (void)request(); });
    ASSERT_GT(block->decodedBytes, 400);
    audioPortParam_t smaller = block->params();
    block->params().periodSizeStatus = VARIABLE;
    smaller.periodSize = 100;
    ASSERT_EQ(block->port().reconfigPortApply(&smaller), STREAM_OK);
    EXPECT_EQ(read(), bytes(400, 0));
    EXPECT_EQ(read().size(), 400U);
}

TEST_F(Mp3Reading, AllocatingWithoutAConnectionFreesTheBufferAndLeavesItsMark)
{
    play(mp3Files::encode({}));
    (void)block->port().disconnect();
    for (const bool mark : {false, true}) {
        block->workBufferEmpty = mark;
        EXPECT_EQ(block->allocateWorkBuffer(), STREAM_OK);
        EXPECT_EQ(block->workBuffer, nullptr);
        EXPECT_EQ(block->workBufferSize, 0U);
        EXPECT_EQ(block->workBufferEmpty, mark);
    }
}

TEST_F(Mp3File, ReaderOfAnotherShapeEndsTheConnectionAndTheFile)
{
    OpenMp3 mp3;
    ASSERT_EQ(mp3.setNewFile(storeEncoded()), STREAM_OK);
    ReaderBlock reader(2048);
    reader.port()->params.numChannelsStatus = FIXED;
    reader.port()->params.numChannels = 1;
    EXPECT_EQ(mp3.port().connectDownstream(reader.port(), nullptr), STREAM_ERROR);
    EXPECT_EQ(mp3.fnum, -1);
    EXPECT_EQ(mp3.mh, nullptr);
    EXPECT_EQ(mp3.params().periodSize, 4096U);
}

TEST_F(Mp3File, ClosingIsHarmlessWithoutAFileAndFreesThePeriod)
{
    OpenMp3 mp3;
    EXPECT_EQ(mp3.closeFile(), STREAM_OK);
    expectNoFile(mp3);
    const size_t descriptorsBefore = openDescriptors();
    ASSERT_EQ(mp3.setNewFile(storeEncoded()), STREAM_OK);
    EXPECT_EQ(mp3.closeFile(), STREAM_OK);
    EXPECT_EQ(mp3.closeFile(), STREAM_OK);
    expectNoFile(mp3);
    EXPECT_EQ(openDescriptors(), descriptorsBefore);
    EXPECT_EQ(script.deleted, 1);
}

TEST_F(Mp3File, DestructionBehindTheReadersTouchesNothingOfTheReader)
{
    const std::string name = storeEncoded();
    const size_t descriptorsBefore = openDescriptors();
    auto mp3 = std::make_unique<OpenMp3>();
    auto reader = std::make_unique<ReaderBlock>(2048);
    ASSERT_EQ(mp3->setNewFile(name), STREAM_OK);
    ASSERT_EQ(mp3->port().connectDownstream(reader->port(), nullptr), STREAM_OK);
    EXPECT_TRUE(CAudioBlock::ownsPort(reader->port()));
    const CDownstreamPort* const gone = reader->port();
    reader.reset();
    EXPECT_FALSE(CAudioBlock::ownsPort(gone));
    static_cast<CMp3FilePlayUSP&>(mp3->port()).forgetDeadPeer();
    EXPECT_FALSE(mp3->port().isConnected(nullptr));
    mp3.reset();
    EXPECT_EQ(openDescriptors(), descriptorsBefore);
    EXPECT_EQ(script.deleted, 1);
}

TEST_F(Mp3File, PeerThatLivesIsNotForgotten)
{
    const std::string name = storeEncoded();
    ReaderBlock reader(2048);
    OpenMp3 mp3;
    ASSERT_EQ(mp3.setNewFile(name), STREAM_OK);
    ASSERT_EQ(mp3.port().connectDownstream(reader.port(), nullptr), STREAM_OK);
    static_cast<CMp3FilePlayUSP&>(mp3.port()).forgetDeadPeer();
    EXPECT_TRUE(mp3.port().isConnected(reader.port()));
}

TEST_F(Mp3File, DestructionDisconnectsAndClosesTheFile)
{
    const std::string name = storeEncoded();
    const size_t descriptorsBefore = openDescriptors();
    ReaderBlock reader(2048);
    {
        OpenMp3 mp3;
        ASSERT_EQ(mp3.setNewFile(name), STREAM_OK);
        ASSERT_EQ(mp3.port().connectDownstream(reader.port(), nullptr), STREAM_OK);
    }
    EXPECT_FALSE(reader.port()->isConnected(nullptr));
    EXPECT_EQ(openDescriptors(), descriptorsBefore);
    EXPECT_EQ(script.deleted, 1);
}

// ---- the call trace

TEST_F(Mp3File, CallsAreTracedAtLevelNine)
{
    ReaderBlock reader(2048);
    const std::string name = storeEncoded();
    const graphTest::Lines lines = traced(9, [&] {
        OpenMp3 mp3;
        mp3.getRunTimeId();
        mp3.port().getRunTimeId();
        (void)mp3.setNewFile(name);
        (void)mp3.port().connectDownstream(reader.port(), nullptr);
        CServiceTime next;
        (void)mp3.service(next);
        char* lent = nullptr;
        unsigned int nPeriods = 0;
        (void)mp3.port().reqReadPeriods(lent, nPeriods);
        (void)mp3.port().ackReadPeriods(nPeriods);
        (void)mp3.timeLeft();
        (void)mp3.port().disconnect();
    });
    for (const char* function :
         {"CMp3FilePlay::CMp3FilePlay(", "CMp3FilePlayUSP::CMp3FilePlayUSP(", "CMp3FilePlay::getRunTimeId()",
          "CMp3FilePlayUSP::getRunTimeId()", "CMp3FilePlay::setNewFile(", "CMp3FilePlay::openFile()",
          "CMp3FilePlayUSP::connectDownstream(", "CMp3FilePlayUSP::reconfigPortApply(",
          "CMp3FilePlay::allocateWorkBuffer()", "CMp3FilePlay::service(", "CMp3FilePlayUSP::reqReadPeriods(",
          "CMp3FilePlay::reqReadPeriods(", "CMp3FilePlayUSP::ackReadPeriods(", "CMp3FilePlay::timeLeft()",
          "CMp3FilePlayUSP::disconnect()", "CMp3FilePlay::closeFile()", "CMp3FilePlay::~CMp3FilePlay()",
          "CMp3FilePlayUSP::~CMp3FilePlayUSP()"}) {
        EXPECT_THAT(lines, Contains(AllOf(HasSubstr("(9) "), HasSubstr(function))));
    }
}

// ---- time left

TEST_F(Mp3Reading, TimeLeftIsVeryLargeWhileTheFilePlaysAndZeroAfterIt)
{
    play(mp3Files::encode({}));
    // 4294967295 samples as a float are 4294967296; / 44100 * 1000 in single precision
    EXPECT_EQ(block->timeLeft(), 97391544);
    block->framesConsumed = 22050000; // 4250867295 samples, as a float 4250867200
    EXPECT_EQ(block->timeLeft(), 96391544);
    block->framesConsumed = 0x80000000U; // times two channels: nothing, in 32 bits
    EXPECT_EQ(block->timeLeft(), 97391544);
    block->framesConsumed = 0x7fffffffU; // one sample left
    EXPECT_EQ(block->timeLeft(), 0);
    block->framesConsumed = 0;
    (void)readToTheEnd();
    EXPECT_EQ(block->timeLeft(), 0);
    block->framesConsumed = 123456;
    EXPECT_EQ(block->timeLeft(), 0);
}

TEST_F(Mp3File, TimeLeftOfALowRateSaturates)
{
    script.rate = 0;
    OpenMp3 mp3;
    ASSERT_EQ(mp3.setNewFile(storeEncoded()), STREAM_OK);
    EXPECT_EQ(mp3.timeLeft(), -1); // without end, in 32 bits
}

TEST_F(Mp3File, TimeLeftIsTracedAtLevel6)
{
    OpenMp3 mp3;
    ASSERT_EQ(mp3.setNewFile(storeEncoded()), STREAM_OK);
    mp3.framesConsumed = 2048;
    EXPECT_THAT(traced(6, [&] { (void)mp3.timeLeft(); }),
                ElementsAre("(6) FileSS: -1, FrC: 2048, SR: 44100.000000", "(6) Time to end of file: 97391456"));
    EXPECT_THAT(traced(5, [&] { (void)mp3.timeLeft(); }), IsEmpty());
    mp3.fileSizeSamples = 0;
    EXPECT_THAT(traced(6, [&] { (void)mp3.timeLeft(); }), IsEmpty());
}

TEST_F(Mp3Reading, FileWithoutChannelsNeverTraps)
{
    script.channels = 0;
    play(mp3Files::encode({}));
    EXPECT_EQ(block->workBufferSize, 0U);
    (void)request();
    EXPECT_EQ(nPeriods, 0U);
    block->decodeStatus = MPG123_DONE;
    acknowledge();
    EXPECT_NE(block->timeLeft(), 0);
}

} // namespace
