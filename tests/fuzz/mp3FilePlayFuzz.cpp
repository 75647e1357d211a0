/**
 * Any bytes as an MP3 file: opened, connected to a reader, played to the end, and opened again.
 *
 *   input: one byte of choices (requests without acknowledgement, call trace), the reader's period, then the file
 *
 * A file without a frame is read at its end for ever; here the reads at the end give up in its stead.
 */

#include "fileReader.h"

#include "audioLibrary/mp3FilePlay.h"

using namespace audioLibrarySpace;

namespace
{

/** Thrown out of a read: the block would look for a frame for ever. */
struct NoFrame {
};

bool opening = false;
int readsAtEnd = 0;
constexpr int mostReadsAtEnd = 3;

struct OpenMp3 : CMp3FilePlay {
    OpenMp3() : CMp3FilePlay("MP3") {}
    using CMp3FilePlay::upstream;
    using CMp3FilePlay::workBufferSize;
};

} // namespace

extern "C" ssize_t __real_read(int fd, void* bytes, size_t numBytes);
extern "C" ssize_t __wrap_read(int fd, void* bytes, size_t numBytes)
{
    const ssize_t numRead = __real_read(fd, bytes, numBytes);
    readsAtEnd = numRead == 0 ? readsAtEnd + 1 : 0;
    if (opening && readsAtEnd > mostReadsAtEnd) {
        throw NoFrame();
    }
    return numRead;
}

namespace
{

streamStatus open(OpenMp3& mp3, const std::string& path)
{
    opening = true;
    readsAtEnd = 0;
    streamStatus status = FILE_NOT_FOUND;
    try {
        status = mp3.setNewFile(path);
    } catch (const NoFrame&) {
        (void)mp3.closeFile();
    }
    opening = false;
    return status;
}

/** One request; answers whether a period came. */
bool readOnce(OpenMp3& mp3, bool acknowledge)
{
    CUpstreamPort& port = *mp3.upstream[0];
    char* lent = nullptr;
    unsigned int nPeriods = 77;
    MUST_HOLD(port.reqReadPeriods(lent, nPeriods) == STREAM_OK);
    MUST_HOLD(nPeriods <= 1 && (nPeriods == 1) == (lent != nullptr));
    if (nPeriods == 1) {
        MUST_HOLD(mp3.workBufferSize == port.getPeriodBytes());
        volatile unsigned int sum = fuzz::sumOf(lent, mp3.workBufferSize);
        (void)sum;
    }
    MUST_HOLD(port.ackReadPeriods(acknowledge ? nPeriods : 0) == STREAM_OK);
    (void)mp3.timeLeft();
    return nPeriods == 1;
}

void play(OpenMp3& mp3, uint32_t periodSize, uint8_t choices)
{
    fuzz::Reader reader(periodSize);
    CUpstreamPort& port = *mp3.upstream[0];
    if (port.connectDownstream(reader.port(), nullptr) != STREAM_OK) {
        return;
    }
    for (int i = 0; i < 40 && mp3.timeLeft() != 0; i++) {
        const bool acknowledge = (choices & 1) == 0 || i % 3 != 0;
        if (readOnce(mp3, acknowledge) && !acknowledge) {
            MUST_HOLD(!readOnce(mp3, false)); // not before the one that is out has come back
            MUST_HOLD(port.ackReadPeriods(1) == STREAM_OK);
        }
    }
    MUST_HOLD(port.disconnect() == STREAM_OK);
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::Input input(data, size);
    const uint8_t choices = input.byte();
    const auto periodSize = static_cast<uint32_t>(input.integer(2) % 4097);
    const fuzz::MemoryFile file(input.rest());

    audioInterfaceTraceLevel = (choices & 4) != 0 ? 9 : 0;
    OpenMp3 mp3;
    for (int times = 0; times < 2; times++) {
        const streamStatus status = open(mp3, file.path());
        if (status == STREAM_OK) {
            MUST_HOLD(mp3.upstream[0]->params.numChannels >= 1 && mp3.upstream[0]->params.numChannels <= 2);
            MUST_HOLD(mp3.upstream[0]->params.nominalSampleRate > 0.0F);
        }
        play(mp3, periodSize, choices); // without a file there is nothing to read
    }
    return 0;
}
