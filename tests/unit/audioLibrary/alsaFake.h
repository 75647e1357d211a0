#pragma once

/**
 * A sound card for tests: the functions of the ALSA library that playback and capture use, linked in its place, and a
 * clock that stands still until the test lets it run.
 *
 * To use it, list audioLibrary/alsaFake.cpp among the SOURCES of the test. It defines
 *   - the snd_pcm_* functions of the playback and the capture block and snd_strerror; they win over libasound if that is linked too;
 *   - usleep(), for the whole test program: no call of it takes any time;
 *   - sched_setscheduler(), which changes nothing and marks its caller as the playback thread.
 *
 * The playback thread stops in each of its sleeps, and in each write for which the card has no room, until the test
 * moves it on. So a test always knows where the thread is:
 *
 *   card().reset();
 *   ... build the graph, init() the block, start the audio ...
 *   ASSERT_TRUE(card().play(512));            // the card takes 512 frames, and the thread waits in its next write
 *   EXPECT_EQ(card().written(), expected);    // 2 x 512 samples
 *   ... delete the block: the sleep of 10 ms in its destructor lets the thread go ...
 *
 * Between two calls of play() the thread touches nothing, so the test may look at the graph and service it. All waits
 * have a limit, and answer false or 0 when it is reached; the limit is long and never met by a good test.
 *
 * Capture never waits. Its frames are numbered from 1 on, the number as a 32-bit word in the place of two 16-bit samples:
 *
 *   card().answerReads({1024, 300, -EPIPE});  // two counts and an error; after them there is nothing, -EAGAIN
 *
 * Threads: any. One block, thus one playback thread, at a time.
 */

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

namespace alsaFake
{

/** The one card of the test program. */
class Card
{
public:
    /** A card as new: nothing recorded, nothing fails, all is granted as asked, no room for frames. */
    void reset();

    // What the card answers to init().

    /** The next `times` calls of `function` ("snd_pcm_open") answer `error` (-EBUSY); open sets errno to match. */
    void fail(const std::string& function, int error, int times = 1);
    void grantRate(unsigned int rate);            ///< in place of the one asked; 0: as asked
    void grantPeriods(unsigned int numPeriods);   ///< in place of the number asked; 0: as asked
    void grantBufferSize(unsigned int numFrames); ///< in place of the size asked; 0: as asked
    void refusePriority();                        ///< sched_setscheduler() fails

    // What came in.

    /**
     * Every call in order, in the form "snd_pcm_hw_params_set_rate_near(48000)", of the playback thread too:
     * "snd_pcm_writei(256) = -11". What note() added stands between them.
     */
    std::vector<std::string> calls() const;
    void clearCalls();                      ///< forgets the calls so far
    void note(const std::string& event);    ///< adds a line of the test's own to calls()
    std::vector<int32_t> written() const;   ///< the samples that the card took, interleaved; the format must be S32_LE
    std::vector<char> writtenBytes() const; ///< the same as bytes, in any format
    unsigned int numFramesWritten() const;  ///< frames that the card took
    std::vector<unsigned int> ownerSleeps() const; ///< microseconds of each usleep() outside the playback thread
    bool isOpen() const;                           ///< a handle is open now
    int numMisuses() const;        ///< calls on a handle that isn't open, and parameter records that didn't come zeroed
    int scheduledPolicy() const;   ///< what the playback thread asked for; -1 before
    int scheduledPriority() const; ///< what the playback thread asked for; -1 before
    /** Whether calls(), written() and the rest grow; without it the fake itself allocates nothing. */
    void record(bool wanted);

    // The course of time.

    /** The next writes answer these: a count (at most what is offered), 0 or an error. They go before play(). */
    void answerWrites(std::initializer_list<long> results);
    /** The next reads answer these: a count (what a read doesn't take stays for the next one), 0 or an error. */
    void answerReads(std::initializer_list<long> results);
    /** Frames that have been read. The next one has this number plus 1. */
    uint32_t numFramesRead() const;
    /** Runs `action` within every call but writes, before it is answered; null: no more. */
    void duringEachCall(std::function<void()> action);
    /** The card has room for `numFrames` more frames. A write takes what fits, and waits only while nothing does. */
    void allow(unsigned int numFrames);
    /**
     * allow(), and lets the thread run until the card took all of it and the thread waits in the next write.
     * play(0) lets it run up to a write that waits.
     */
    bool play(unsigned int numFrames);
    /** Waits until the playback thread sleeps, and answers for how many microseconds. It stays in that sleep. */
    unsigned int waitForSleep();
    /** Ends the sleep that the thread is in, or comes into first, and waits for the next one: its microseconds. */
    unsigned int nextSleep();
    /** Waits until the thread waits in a write for room. It does not end a sleep. */
    bool waitForBlockedWrite();
};

Card& card();

/** Whether the calling thread is the playback thread. */
bool onPlaybackThread();

} // namespace alsaFake
