#pragma once

/**
 * What the player will make of an audio file: its figures for the database, and what a listener would notice.
 *
 *   in:  the path of a file
 *   out: item type, length in frames, rate; the reasons why it does not play, or does not play as it should
 *
 * The file is only read. docs/audio-files.md tells the same for people.
 */

#include <cstdint>
#include <string>
#include <vector>

/** Frames that the player reads of a WAV file at a time: the period that CWavFilePlay offers and its reader takes. */
constexpr uint32_t WAV_PERIOD_FRAMES = 8192;

/**
 * Input frames that the rate converter may still hold when a file is left: its ring has 256 places, one of them always
 * free. About 5 ms.
 */
constexpr uint32_t CONVERTER_RING_FRAMES = 255;

/** How a WAV file comes to its end on air. */
struct WavEnd {
    bool isNeverHeard = false; ///< the player leaves it before it has read anything
    uint64_t lostFrames = 0;   ///< at most so many of its last frames are not heard
    uint32_t padFrames = 0;    ///< silence that fills the last period, heard before the next file
};

/**
 * Works out the end of a WAV file.
 *
 * The player takes the file in periods of 8192 frames, counts a whole period each time one goes into the rate
 * converter, and changes to the next file as soon as less than a millisecond is left by that count, or when a read
 * finds the end of the file. The converter is not emptied at the change. So:
 *
 *  - The length is a multiple of 8192 frames, or less than a millisecond above one: the count says "nothing left" when
 *    the last whole period has only just gone into the converter, and that period is lost.
 *  - Any other length: the count passes the length, which reads as a very long time left, and the player goes on until
 *    a read finds the end of the file. By then the last period, filled up with silence, has gone through the converter
 *    but for the frames in its ring. Those are silence, unless the fill is shorter than the ring.
 *
 * @param declaredFrames  length as the data chunk's header says it
 * @param storedFrames    frames from the start of the data to the end of the file, a part of one counted whole; more
 *                        than declared if chunks follow, which play as audio; fewer if the file was cut
 * @param rateHz          not 0
 */
WavEnd predictWavEnd(uint64_t declaredFrames, uint64_t storedFrames, uint32_t rateHz);

struct AudioFile {
    int itemType = 0;                  ///< ItemType::WAV or ItemType::MP3
    uint32_t numFrames = 0;            ///< length
    uint32_t rateHz = 0;               ///< 0 if unknown
    std::vector<std::string> warnings; ///< sentences without the file's name; empty for a good file
};

/** Looks at a file. @return false if it can't be opened (errno tells); `file` is then unchanged. */
bool inspectAudioFile(const std::string& path, AudioFile& file);
