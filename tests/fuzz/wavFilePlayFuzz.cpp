/**
 * Any bytes as a WAV file: opened, connected to a reader, played to the end and opened again.
 *
 *   input: one byte of choices (looping, requests without acknowledgement), the reader's period, then the file
 */

#include "fileReader.h"

#include "audioLibrary/wavFilePlay.h"

using namespace audioLibrarySpace;

namespace
{

struct OpenWav : CWavFilePlay {
    OpenWav() : CWavFilePlay("WAV") {}
    using CWavFilePlay::upstream;
    using CWavFilePlay::workBufferSize;
};

/** One request; the file's end is near enough if it comes within what the file holds. */
void readOnce(OpenWav& wav, bool acknowledge)
{
    CUpstreamPort& port = *wav.upstream[0];
    char* lent = nullptr;
    unsigned int nPeriods = 0;
    MUST_HOLD(port.reqReadPeriods(lent, nPeriods) == STREAM_OK);
    MUST_HOLD(nPeriods == 1 && wav.workBufferSize == port.getPeriodBytes());
    volatile unsigned int sum = fuzz::sumOf(lent, wav.workBufferSize);
    (void)sum;
    MUST_HOLD(port.ackReadPeriods(acknowledge ? 1 : 0) == STREAM_OK);
    (void)wav.timeLeft();
}

void play(OpenWav& wav, uint32_t periodSize, uint8_t choices)
{
    fuzz::Reader reader(periodSize);
    wav.setRewindAtEndOfFile((choices & 1) != 0);
    if (wav.upstream[0]->connectDownstream(reader.port(), nullptr) != STREAM_OK) {
        return;
    }
    MUST_HOLD(wav.upstream[0]->params.numChannels <= 2);
    MUST_HOLD(wav.upstream[0]->params.nominalSampleRate <= 48000.0F);
    for (int i = 0; i < 24; i++) {
        readOnce(wav, (choices & 2) == 0 || i % 3 != 0);
    }
    MUST_HOLD(wav.upstream[0]->disconnect() == STREAM_OK);
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::Input input(data, size);
    const uint8_t choices = input.byte();
    const auto periodSize = static_cast<uint32_t>(input.integer(2) % 1025);
    const fuzz::MemoryFile file(input.rest());

    audioInterfaceTraceLevel = (choices & 4) != 0 ? 9 : 0;
    OpenWav wav;
    for (int times = 0; times < 2; times++) {
        const streamStatus status = wav.setNewFile(file.path());
        MUST_HOLD(status == STREAM_OK || status == STREAM_ERROR || status == INVALID_FORMAT);
        play(wav, periodSize, choices); // a file that can't be played is silence
        wav.closeFile();
    }
    return 0;
}
