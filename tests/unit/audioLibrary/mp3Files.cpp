#include "audioLibrary/mp3Files.h"

#include <cmath>
#include <lame/lame.h>
#include <memory>
#include <mpg123.h>
#include <stdexcept>

namespace mp3Files
{

namespace
{

std::vector<short> signal(const recipe& wanted)
{
    std::vector<short> samples;
    uint32_t noise = 12345;
    for (int frame = 0; frame < wanted.frames; frame++) {
        const double swell = 9000.0 * (1.1 + std::sin(frame * 0.0007));
        for (int channel = 0; channel < wanted.channels; channel++) {
            noise = noise * 1664525U + 1013904223U;
            const double tone = std::sin(frame * (0.05 + 0.021 * channel));
            samples.push_back(static_cast<short>(swell * tone + static_cast<double>(noise >> 21) - 1024.0));
        }
    }
    return samples;
}

void check(bool good, const char* what)
{
    if (!good) {
        throw std::runtime_error(what);
    }
}

using encoder = std::unique_ptr<lame_global_flags, int (*)(lame_global_flags*)>;

encoder newEncoder(const recipe& wanted)
{
    encoder lame(lame_init(), lame_close);
    check(lame != nullptr, "no encoder");
    lame_set_in_samplerate(lame.get(), wanted.rate);
    lame_set_out_samplerate(lame.get(), wanted.rate);
    lame_set_num_channels(lame.get(), wanted.channels);
    lame_set_mode(lame.get(), wanted.channels == 1 ? MONO : JOINT_STEREO);
    lame_set_quality(lame.get(), 7);
    if (wanted.variableRate) {
        lame_set_VBR(lame.get(), vbr_default);
        lame_set_VBR_q(lame.get(), 4);
    } else if (wanted.freeFormat) {
        lame_set_free_format(lame.get(), 1);
        lame_set_brate(lame.get(), 100);
    } else {
        lame_set_brate(lame.get(), wanted.rate < 32000 ? 64 : 128);
    }
    lame_set_bWriteVbrTag(lame.get(), wanted.infoTag);
    lame_set_write_id3tag_automatic(lame.get(), 0);
    check(lame_init_params(lame.get()) >= 0, "encoder refuses its parameters");
    return lame;
}

/** The frames of the signal, the tag frame first. */
bytes encodeFrames(const recipe& wanted)
{
    const encoder lame = newEncoder(wanted);
    std::vector<short> samples = signal(wanted);
    bytes file(samples.size() * 4 + 20000);
    const int room = static_cast<int>(file.size());
    int size = wanted.channels == 1
                   ? lame_encode_buffer(lame.get(), samples.data(), nullptr, wanted.frames, file.data(), room)
                   : lame_encode_buffer_interleaved(lame.get(), samples.data(), wanted.frames, file.data(), room);
    check(size >= 0, "encoder fails");
    const int rest = lame_encode_flush(lame.get(), file.data() + size, room - size);
    check(rest >= 0, "encoder fails at the end");
    file.resize(static_cast<size_t>(size + rest));
    if (wanted.infoTag) { // written last, into the place that was left for it
        const size_t tagBytes = lame_get_lametag_frame(lame.get(), file.data(), file.size());
        check(tagBytes > 0 && tagBytes < file.size(), "no tag frame");
    }
    return file;
}

void append(bytes& to, const bytes& more)
{
    to.insert(to.end(), more.begin(), more.end());
}

void appendText(bytes& to, const std::string& text)
{
    to.insert(to.end(), text.begin(), text.end());
}

void append32(bytes& to, uint32_t value)
{
    for (const int shift : {24, 16, 8, 0}) {
        to.push_back(static_cast<unsigned char>(value >> shift));
    }
}

/** A frame of an ID3v2.3 tag. */
void appendTagFrame(bytes& to, const std::string& id, const bytes& contents)
{
    appendText(to, id);
    append32(to, static_cast<uint32_t>(contents.size()));
    to.insert(to.end(), {0, 0});
    append(to, contents);
}

using decoder = std::unique_ptr<mpg123_handle, void (*)(mpg123_handle*)>;

decoder newDecoder()
{
    mpg123_init();
    decoder mpg(mpg123_new(nullptr, nullptr), mpg123_delete);
    check(mpg != nullptr, "no decoder");
    mpg123_param(mpg.get(), MPG123_ADD_FLAGS, MPG123_QUIET, 0.0);
    mpg123_format_all(mpg.get());
    mpg123_param(mpg.get(), MPG123_OUTSCALE, 32767, 0.0);
    return mpg;
}

/** Takes what the decoder has now; answers what it said last. */
int take(mpg123_handle* mpg, decoded& result)
{
    int status = MPG123_OK;
    do {
        unsigned char audio[5000];
        size_t numBytes = 0;
        status = mpg123_read(mpg, audio, sizeof audio, &numBytes);
        result.audio.insert(result.audio.end(), audio, audio + numBytes);
        if (status == MPG123_NEW_FORMAT && result.rate == 0) {
            mpg123_getformat(mpg, &result.rate, &result.channels, &result.encoding);
        }
    } while (status == MPG123_OK || status == MPG123_NEW_FORMAT);
    return status;
}

} // namespace

bytes encode(const recipe& wanted)
{
    bytes file;
    if (wanted.coverBytes != 0) {
        file = id3v2(wanted.coverBytes);
    }
    append(file, encodeFrames(wanted));
    if (wanted.id3v1) {
        append(file, id3v1());
    }
    return file;
}

bytes id3v2(uint32_t coverBytes)
{
    bytes frames;
    bytes title;
    title.push_back(0);
    appendText(title, "Title");
    appendTagFrame(frames, "TIT2", title);
    if (coverBytes != 0) {
        bytes picture;
        picture.push_back(0);
        appendText(picture, "image/jpeg");
        picture.insert(picture.end(), {0, 3, 0});
        for (uint32_t i = 0; i < coverBytes; i++) { // what a decoder that looked into it would take for frames
            picture.push_back(i % 4 == 0 ? 0xff : i % 4 == 1 ? 0xfb : 0x90);
        }
        appendTagFrame(frames, "APIC", picture);
    }
    bytes tag;
    appendText(tag, "ID3");
    tag.insert(tag.end(), {3, 0, 0});
    for (const int shift : {21, 14, 7, 0}) { // seven bits a byte
        tag.push_back(static_cast<unsigned char>((frames.size() >> shift) & 0x7f));
    }
    append(tag, frames);
    return tag;
}

bytes id3v1()
{
    bytes tag;
    appendText(tag, "TAGTitle");
    tag.resize(128, 0);
    return tag;
}

decoded decodeFed(const bytes& file, size_t pieceBytes)
{
    const decoder mpg = newDecoder();
    check(mpg123_open_feed(mpg.get()) == MPG123_OK, "decoder can't be fed");
    decoded result;
    for (size_t at = 0; at < file.size(); at += pieceBytes) {
        mpg123_feed(mpg.get(), file.data() + at, std::min(pieceBytes, file.size() - at));
        // An error leaves the decoder where it stood: asked again, it goes on from there.
        while ((result.lastResult = take(mpg.get(), result)) == MPG123_ERR) {
        }
    }
    return result;
}

decoded decodeOpened(const std::string& path)
{
    const decoder mpg = newDecoder();
    check(mpg123_open(mpg.get(), path.c_str()) == MPG123_OK, "decoder can't open the file");
    decoded result;
    result.lastResult = take(mpg.get(), result);
    return result;
}

} // namespace mp3Files
