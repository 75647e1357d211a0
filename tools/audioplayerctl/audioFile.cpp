#include "audioFile.h"

#include "ItemType.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mpg123.h>
#include <strings.h>
#include <sys/stat.h>

namespace
{

using File = std::unique_ptr<FILE, int (*)(FILE*)>;

constexpr uint32_t WAV_HEADER_BYTES = 36; ///< what the player reads at once: RIFF header and a fmt chunk of 16 bytes
constexpr uint32_t CHUNK_HEADER_BYTES = 8;
constexpr uint32_t FMT_CHUNK_BYTES = 16;
constexpr uint32_t MAX_RATE_HZ = 48000;
constexpr size_t MP3_READ_BYTES = 2048; ///< what the player hands to the decoder at a time
constexpr uint32_t MIXER_RATE_HZ = 48000;

uint32_t littleEndian16(const unsigned char* bytes)
{
    return bytes[0] | static_cast<uint32_t>(bytes[1]) << 8;
}

uint32_t littleEndian32(const unsigned char* bytes)
{
    return littleEndian16(bytes) | littleEndian16(bytes + 2) << 16;
}

bool hasId(const unsigned char* bytes, const char* id)
{
    return memcmp(bytes, id, 4) == 0;
}

std::string number(uint64_t value)
{
    return std::to_string(value);
}

/** The player's millisecond count of what is left, in its own arithmetic, is 0. */
bool readsAsNothingLeft(uint64_t leftFrames, uint32_t rateHz)
{
    return static_cast<float>(leftFrames) / static_cast<float>(rateHz) * 1000.0F < 1.0F;
}

struct WavHeader {
    uint32_t numChannels;
    uint32_t rateHz;
    uint32_t bitsPerSample;
};

/** The header tests of the player; a reason for the first that fails, empty if all pass. */
std::string headerRefusal(const unsigned char* header)
{
    if (!hasId(header, "RIFF") || !hasId(header + 8, "WAVE"))
        return "it is not a WAV file";
    if (!hasId(header + 12, "fmt "))
        return "its first chunk is not \"fmt \"";
    if (littleEndian16(header + 20) != 1)
        return "its samples are not plain PCM (format " + number(littleEndian16(header + 20)) + ", needed is 1)";
    if (littleEndian16(header + 22) > 2)
        return "it has " + number(littleEndian16(header + 22)) + " channels, at most 2 can be";
    if (littleEndian32(header + 24) > MAX_RATE_HZ)
        return "its sample rate is " + number(littleEndian32(header + 24)) + " Hz, at most 48000 can be";
    const uint32_t bits = littleEndian16(header + 34);
    if (bits != 8 && bits != 16 && bits != 32)
        return "it has " + number(bits) + " bits a sample, needed are 16";
    return "";
}

/** What passes the header tests and is still not heard as it should be; empty for a format that plays. */
std::string unplayableFormat(const WavHeader& header)
{
    if (header.numChannels == 0)
        return "it will not play: its header says 0 channels";
    if (header.rateHz == 0)
        return "it will not play: its header says a sample rate of 0";
    if (header.bitsPerSample == 16)
        return "";
    // The rate converter works on 16 bits. Where it has rates to convert its input refuses another format; at the
    // mixer's own rate it takes the file's over, and reads the bytes as 16-bit samples all the same.
    return (header.rateHz == MIXER_RATE_HZ ? "it is heard as noise: it has " : "it will not play: it has ") +
           number(header.bitsPerSample) + " bits a sample, needed are 16";
}

/**
 * Walks the chunks as the player does: from byte 36 whatever the fmt chunk's length, without padding to even lengths.
 * On true the file stands at the first byte of audio.
 */
bool findData(FILE* file, uint32_t& dataBytes)
{
    unsigned char chunk[CHUNK_HEADER_BYTES];
    while (fread(chunk, 1, sizeof(chunk), file) == sizeof(chunk)) {
        const uint32_t chunkBytes = littleEndian32(chunk + 4);
        if (hasId(chunk, "data")) {
            dataBytes = chunkBytes;
            return true;
        }
        if (fseeko(file, static_cast<off_t>(chunkBytes), SEEK_CUR) != 0)
            return false;
    }
    return false;
}

std::string milliseconds(uint64_t numFrames, uint32_t rateHz)
{
    return number((numFrames * 1000 + rateHz - 1) / rateHz);
}

void warnOfEnd(AudioFile& result, const WavEnd& end, uint32_t trailingBytes)
{
    if (end.isNeverHeard) {
        result.warnings.push_back("it is not heard: it is shorter than a millisecond");
        return;
    }
    if (end.lostFrames >= WAV_PERIOD_FRAMES)
        result.warnings.push_back("it is cut at its end by up to " + milliseconds(end.lostFrames, result.rateHz) +
                                  " ms: its length is a multiple of 8192 frames, or less than a millisecond above one");
    else if (end.lostFrames != 0)
        result.warnings.push_back("it is cut at its end by up to " + milliseconds(end.lostFrames, result.rateHz) +
                                  " ms: only " + number(end.padFrames) +
                                  " frames are left to the next multiple of 8192, fewer than the rate converter holds");
    if (trailingBytes != 0)
        result.warnings.push_back(number(trailingBytes) + " bytes follow its audio and are heard as noise");
}

void inspectWav(FILE* file, AudioFile& result)
{
    result.itemType = ItemType::WAV;
    unsigned char bytes[WAV_HEADER_BYTES];
    if (fread(bytes, 1, sizeof(bytes), file) != sizeof(bytes)) {
        result.warnings.push_back("it will not play: it is too short for a WAV header");
        return;
    }
    const std::string refusal = headerRefusal(bytes);
    if (!refusal.empty()) {
        result.warnings.push_back("it will not play: " + refusal);
        return;
    }
    const WavHeader header = {littleEndian16(bytes + 22), littleEndian32(bytes + 24), littleEndian16(bytes + 34)};
    result.rateHz = header.rateHz;
    const uint32_t fmtBytes = littleEndian32(bytes + 16);
    uint32_t dataBytes = 0;
    if (!findData(file, dataBytes)) {
        result.warnings.push_back(fmtBytes == FMT_CHUNK_BYTES
                                      ? "it will not play: no data chunk is found"
                                      : "it will not play: its fmt chunk has " + number(fmtBytes) +
                                            " bytes, needed are 16, and the data is not found behind it");
        return;
    }
    const std::string fault = unplayableFormat(header);
    if (!fault.empty())
        result.warnings.push_back(fault);
    if (header.numChannels == 0 || header.rateHz == 0)
        return;

    struct stat info;
    const off_t dataStart = ftello(file);
    if (dataStart < 0 || fstat(fileno(file), &info) != 0)
        return;
    const uint64_t storedBytes = info.st_size > dataStart ? static_cast<uint64_t>(info.st_size - dataStart) : 0;
    const uint32_t frameBytes = header.numChannels * header.bitsPerSample / 8;
    const uint64_t declaredFrames = dataBytes / frameBytes;
    const uint64_t storedFrames = (storedBytes + frameBytes - 1) / frameBytes;
    result.numFrames = static_cast<uint32_t>(std::min(declaredFrames, storedFrames));
    if (!fault.empty())
        return;
    if (storedBytes == 0) {
        result.warnings.push_back("it is not heard: it holds no audio");
        return;
    }
    const WavEnd end = predictWavEnd(declaredFrames, storedFrames, header.rateHz);
    // A player that leaves a file by its count never reads what follows the audio.
    const bool isReadToItsEnd = end.lostFrames < WAV_PERIOD_FRAMES;
    const uint64_t trailing = isReadToItsEnd && storedBytes > dataBytes ? storedBytes - dataBytes : 0;
    warnOfEnd(result, end, static_cast<uint32_t>(std::min<uint64_t>(trailing, UINT32_MAX)));
}

using Decoder = std::unique_ptr<mpg123_handle, void (*)(mpg123_handle*)>;

Decoder newDecoder()
{
    mpg123_init();
    Decoder decoder(mpg123_new(nullptr, nullptr), mpg123_delete);
    if (decoder != nullptr)
        mpg123_param(decoder.get(), MPG123_ADD_FLAGS, MPG123_QUIET, 0.0); // its words are not ours
    return decoder;
}

/**
 * Looks for the first frame as the player does: the decoder is fed from the start of the file until it tells a format.
 * Reading a file by itself, it takes less for a file than when it is fed.
 *
 * @return the rate in Hz; 0 when the file ends first, where the player goes on looking for ever
 */
uint32_t rateOfFirstFrame(FILE* file)
{
    const Decoder decoder = newDecoder();
    if (decoder == nullptr || mpg123_open_feed(decoder.get()) != MPG123_OK)
        return 0;
    unsigned char bytes[MP3_READ_BYTES];
    rewind(file);
    while (const size_t numRead = fread(bytes, 1, sizeof bytes, file)) {
        const int status = mpg123_decode(decoder.get(), bytes, numRead, nullptr, 0, nullptr);
        long rate = 0;
        int numChannels = 0;
        int encoding = 0;
        mpg123_getformat(decoder.get(), &rate, &numChannels, &encoding);
        if (status == MPG123_NEW_FORMAT)
            return rate > 0 ? static_cast<uint32_t>(rate) : 0;
    }
    return 0;
}

/** Frames in the file as they are decoded, without the encoder's delay and padding; 0 if that can't be told. */
uint32_t lengthOfMp3(const std::string& path)
{
    const Decoder decoder = newDecoder();
    if (decoder == nullptr || mpg123_open(decoder.get(), path.c_str()) != MPG123_OK ||
        mpg123_scan(decoder.get()) != MPG123_OK)
        return 0;
    const off_t length = mpg123_length(decoder.get());
    return length > 0 ? static_cast<uint32_t>(std::min<off_t>(length, UINT32_MAX)) : 0;
}

void inspectMp3(const std::string& path, FILE* file, AudioFile& result)
{
    result.itemType = ItemType::MP3;
    result.rateHz = rateOfFirstFrame(file);
    if (result.rateHz == 0) {
        result.warnings.push_back("the player will hang on it for ever: no MPEG audio is found in it");
        return;
    }
    result.numFrames = lengthOfMp3(path);
}

} // namespace

WavEnd predictWavEnd(uint64_t declaredFrames, uint64_t storedFrames, uint32_t rateHz)
{
    WavEnd end;
    if (readsAsNothingLeft(declaredFrames, rateHz)) {
        end.isNeverHeard = true;
        end.lostFrames = storedFrames;
        return end;
    }
    const uint64_t numReads = (storedFrames + WAV_PERIOD_FRAMES - 1) / WAV_PERIOD_FRAMES; // those that find audio
    const uint64_t wholePeriods = declaredFrames / WAV_PERIOD_FRAMES;
    const uint64_t aboveMultiple = declaredFrames % WAV_PERIOD_FRAMES;
    if (wholePeriods <= numReads && readsAsNothingLeft(aboveMultiple, rateHz)) {
        // The count says "nothing left" with the period that it has just counted still in front of the converter, and
        // with up to a ring of the one before inside it.
        const uint64_t heardAtLeast = (wholePeriods - 1) * WAV_PERIOD_FRAMES;
        const uint64_t audioFrames = std::min(declaredFrames, storedFrames);
        end.lostFrames =
            audioFrames - std::min(audioFrames, heardAtLeast) + (wholePeriods > 1 ? CONVERTER_RING_FRAMES : 0);
        return end;
    }
    end.padFrames = static_cast<uint32_t>(numReads * WAV_PERIOD_FRAMES - storedFrames);
    // What follows the audio in the file, noise though it be, stands behind it in the ring as the fill does.
    const uint64_t behindAudio = end.padFrames + (storedFrames > declaredFrames ? storedFrames - declaredFrames : 0);
    if (behindAudio < CONVERTER_RING_FRAMES)
        end.lostFrames = std::min<uint64_t>(CONVERTER_RING_FRAMES - behindAudio, storedFrames);
    return end;
}

bool inspectAudioFile(const std::string& path, AudioFile& file)
{
    const File opened(fopen(path.c_str(), "rb"), fclose);
    if (opened == nullptr)
        return false;
    struct stat info;
    if (fstat(fileno(opened.get()), &info) == 0 && S_ISDIR(info.st_mode)) {
        errno = EISDIR;
        return false;
    }
    AudioFile result;
    if (strcasecmp(std::filesystem::path(path).extension().c_str(), ".mp3") == 0)
        inspectMp3(path, opened.get(), result);
    else
        inspectWav(opened.get(), result);
    file = result;
    return true;
}
