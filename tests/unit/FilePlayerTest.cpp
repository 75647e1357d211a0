/**
 * FilePlayer on its whole graph: real files, converters, mixer and playback thread, and a card that the test runs.
 */

#include "FilePlayer.h"
#include "AudioService.h"

#include "globals.h"
#include "playersSupport.h"

#include "audioLibrary/alsaFake.h"
#include "audioLibrary/wavFiles.h"

#include <algorithm>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/syscall.h>
#include <unistd.h>

using namespace audioLibrarySpace;
using namespace testing;
using alsaFake::card;
using wavFiles::bytes;

extern "C" int access(const char* path, int mode) noexcept
{
    if (std::string(path) == "/mnt/usb/unmounted.usb") {
        return -1; // the store is mounted, whatever machine this is
    }
    return static_cast<int>(syscall(SYS_faccessat, AT_FDCWD, path, mode));
}

namespace
{

class FilePlayerTest : public PlayersTest
{
protected:
    FilePlayerTest()
    {
        card().reset();
        openDatabase();
        playlist = addPlaylist("list");
        // A moving average over the 32 taps: 32 * 1024 is 1.0, so a level goes through as it is.
        bytes filter;
        for (int i = 0; i < 8192; i++) {
            wavFiles::put16(filter, 1024);
        }
        wavFiles::write("FilterCoeff.bin", filter);
    }
    ~FilePlayerTest() override
    {
        quietly([this] { player.reset(); });
    }

    void add(const std::string& file, const wavFiles::header& fields, const bytes& data)
    {
        bytes contents = wavFiles::encode(fields);
        wavFiles::putChunk(contents, "data", data);
        wavFiles::write(file, contents);
        addEntry(playlist, ++sequence, ItemType::WAV, file);
    }
    /** Adds a stereo file at 48000 Hz with `level` on the left and its negative on the right. */
    void addLevel(const std::string& file, int16_t level, int numFrames)
    {
        bytes data;
        for (int frame = 0; frame < numFrames; frame++) {
            wavFiles::put16(data, static_cast<uint16_t>(level));
            wavFiles::put16(data, static_cast<uint16_t>(-level));
        }
        add(file, {}, data);
    }

    PlayerStatus start()
    {
        PlayerStatus answer = PLAYER_OK;
        lines = loggedFrom("FilePlayer.cpp", [&] {
            player = std::make_unique<FilePlayer>(playlist);
            answer = player->start();
        });
        return answer;
    }

    /** As many turns of the loop as it takes the card to play `numFrames`. */
    void play(int numFrames)
    {
        lines = loggedFrom("FilePlayer.cpp", [&] {
            for (int played = 0; played < numFrames; played += 256) {
                ASSERT_EQ(player->serviceAudioBlocks(), PLAYER_STARTED);
                ASSERT_TRUE(card().play(256));
            }
        });
    }

    int playlist = 0;
    int sequence = 0;
    std::unique_ptr<FilePlayer> player;
    std::vector<std::string> lines;
};

/** Frames in a row that the card was given with one value on the left. */
struct span {
    int left;
    size_t numFrames;
    bool operator==(const span&) const = default;
};
void PrintTo(const span& one, std::ostream* to)
{
    *to << one.numFrames << " x " << one.left;
}

/** The left samples that the card took, in 16 bits. */
std::vector<int> leftOnAir()
{
    const std::vector<int32_t> samples = card().written();
    std::vector<int> left;
    for (size_t i = 0; i < samples.size(); i += 2) {
        left.push_back(samples[i] >> 16);
    }
    return left;
}

/** The runs of more than 100 frames, silence left out. */
std::vector<span> levelsOnAir()
{
    std::vector<span> runs;
    for (const int left : leftOnAir()) {
        if (runs.empty() || runs.back().left != left) {
            runs.push_back({left, 0});
        }
        runs.back().numFrames++;
    }
    std::erase_if(runs, [](const span& one) { return one.left == 0 || one.numFrames <= 100; });
    return runs;
}

std::string headOf(unsigned int chain)
{
    return CAudioChain::returnAudioChain(chain)->getAudioBlock(0)->name();
}
/** Less than what the average over 32 frames leaves of 1000 Hz at a peak of 5000: a third. */
constexpr int TONE = 1500;
constexpr unsigned int ACTIVE = 1;
constexpr unsigned int STANDBY = 2;

TEST_F(FilePlayerTest, EachFileIsInTheAsPlayedLogOnceItIsConnected)
{
    addLevel("a.wav", 1000, 20000);
    addLevel("b.wav", 2000, 30000);
    const auto asPlayed = [this] {
        return rowsOf(database.getDatabase(),
                      "SELECT playlist_item_id, playlist_id, playlist_assoc_id, entry_type FROM "
                      "T_As_Played_Log ORDER BY log_time_sec, log_time_usec");
    };
    ASSERT_EQ(start(), PLAYER_STARTED);
    EXPECT_THAT(asPlayed(), ElementsAre("1|1|1|0"));
    play(30000);
    EXPECT_THAT(asPlayed(), ElementsAre("1|1|1|0", "2|1|2|0"));
}

TEST_F(FilePlayerTest, FilesGoToTheCardWholeAndInOrderAndTheListStartsOver)
{
    addLevel("a.wav", 1000, 20000);
    addLevel("b.wav", 2000, 30000);
    addLevel("c.wav", 3000, 10000);
    ASSERT_EQ(start(), PLAYER_STARTED);
    play(150000);
    lines.resize(4);
    EXPECT_THAT(lines, ElementsAre("DEBUG: WavFilePlayer: b.wav", "DEBUG: WavFilePlayer: c.wav",
                                   "DEBUG: WavFilePlayer: a.wav", "DEBUG: WavFilePlayer: b.wav"));
    // The average of 32 frames is full as long as all of them are, in 31 frames fewer than the file has.
    EXPECT_THAT(levelsOnAir(), ElementsAre(span{1000, 20000 - 31}, span{2000, 30000 - 31}, span{3000, 10000 - 31},
                                           span{1000, 20000 - 31}));
}

TEST_F(FilePlayerTest, FirstFileFollowsHalfARingAndOnePeriodOfSilence)
{
    addLevel("a.wav", 3200, 20000);
    ASSERT_EQ(start(), PLAYER_STARTED);
    play(40000);
    const std::vector<int32_t> samples = card().written();
    const size_t first = 180 * 256 / 2 + 8192; // the mixer's ring, then the converter's head start
    for (size_t frame = 0; frame < first - 31; frame++) {
        ASSERT_EQ(samples[2 * frame], 0) << frame;
        ASSERT_EQ(samples[2 * frame + 1], 0) << frame;
    }
    for (size_t frame = first - 31; frame < first; frame++) {
        const int taps = static_cast<int>(frame - (first - 32)); // how many of the 32 are in the file by now
        ASSERT_EQ(samples[2 * frame] >> 16, 100 * taps) << frame;
        ASSERT_EQ(samples[2 * frame + 1] >> 16, -100 * taps) << frame;
    }
    for (size_t frame = first; frame < 40000; frame++) {
        ASSERT_EQ(samples[2 * frame] >> 16, 3200) << frame;
        ASSERT_EQ(samples[2 * frame + 1] >> 16, -3200) << frame;
    }
    EXPECT_EQ(card().numMisuses(), 0);
}

TEST_F(FilePlayerTest, MonoFileAtAnotherRatePlaysOnBothChannels)
{
    wavFiles::header fields;
    fields.numChannels = 1;
    fields.sampleRate = 44100;
    bytes data;
    for (int frame = 0; frame < 20000; frame++) {
        wavFiles::put16(data, 1500);
    }
    add("a.wav", fields, data);
    ASSERT_EQ(start(), PLAYER_STARTED);
    play(60000);
    EXPECT_THAT(levelsOnAir(), Contains(Field(&span::left, 1500)));
    const std::vector<int32_t> samples = card().written();
    for (size_t i = 0; i < samples.size(); i += 2) {
        ASSERT_EQ(samples[i], samples[i + 1]) << i / 2;
    }
}

TEST_F(FilePlayerTest, FileIsNotSteered)
{
    addLevel("a.wav", 1000, 20000);
    ASSERT_EQ(start(), PLAYER_STARTED);
    play(10000);
    CAudioBlock* mixer = CAudioBlock::returnAudioBlock(0);
    ASSERT_EQ(mixer->name(), "MUX");
    EXPECT_EQ(mixer->getUpstreamPort(0)->params.trueSampleRate, 47982.0F); // the card's own
    EXPECT_EQ(mixer->getDownstreamPort(0)->params.trueSampleRate, 0.0F);
    EXPECT_EQ(mixer->getDownstreamPort(0)->getUpstream()->params.trueSampleRate, 0.0F);
}

TEST_F(FilePlayerTest, StopSilencesAndStartBeginsAnew)
{
    addLevel("a.wav", 1000, 60000);
    ASSERT_EQ(start(), PLAYER_STARTED);
    play(40000);
    quietly([this] {
        EXPECT_EQ(player->stop(), PLAYER_READY);
        ASSERT_TRUE(card().play(60000)); // more than the ring holds
    });
    EXPECT_EQ(leftOnAir().back(), 0);
    quietly([this] { EXPECT_EQ(player->start(), PLAYER_STARTED); });
    play(110000);
    EXPECT_THAT(levelsOnAir(), Contains(span{1000, 60000 - 31})); // from its first frame to its last
}

TEST_F(FilePlayerTest, FirstFileThatCannotJoinLeavesTheToneOnAirAsASuccess)
{
    for (const uint16_t bits : {uint16_t{8}, uint16_t{32}}) {
        card().reset();
        wavFiles::header fields;
        fields.bitsPerSample = bits;
        fields.sampleRate = 44100;
        quietly([this] {
            player.reset();
            database.delete_all_playlist_items(playlist);
        });
        add("odd" + std::to_string(bits) + ".wav", fields, wavFiles::counting(20000));
        EXPECT_EQ(start(), PLAYER_STARTED) << bits;
        EXPECT_THAT(lines, Contains("ERROR: Cannot connect chain").Times(1));
        EXPECT_THAT(lines, Contains("DEBUG: active player has runtime ID 1"));
        EXPECT_EQ(headOf(ACTIVE), "TONE_1");
        EXPECT_TRUE(CAudioChain::returnAudioChain(ACTIVE)->isChainConnected());
        play(60000);
        EXPECT_THAT(lines, IsEmpty()); // a tone has no end
        const std::vector<int> left = leftOnAir();
        EXPECT_GT(*std::max_element(left.begin(), left.end()), TONE);
    }
}

TEST_F(FilePlayerTest, LaterFileThatCannotJoinPutsTheStandbyToneOnAir)
{
    addLevel("a.wav", 1000, 20000);
    wavFiles::header fields;
    fields.bitsPerSample = 8;
    fields.sampleRate = 44100;
    add("odd.wav", fields, wavFiles::counting(20000));
    ASSERT_EQ(start(), PLAYER_STARTED);
    play(100000);
    EXPECT_THAT(lines, ElementsAre("DEBUG: WavFilePlayer: odd.wav", "ERROR: Cannot connect chain"));
    EXPECT_EQ(headOf(STANDBY), "TONE_2");
    EXPECT_EQ(CAudioChain::returnAudioChain(STANDBY)->chainPlaybackState, AUDIO_PLAYING);
    const std::vector<int> left = leftOnAir();
    EXPECT_GT(*std::max_element(left.end() - 1000, left.end()), TONE);
}

TEST_F(FilePlayerTest, EndedFileThatIsPutBackGivesWayAtTheNextPass)
{
    addLevel("a.wav", 1000, 20000);
    addLevel("b.wav", 2000, 20000);
    wavFiles::header fields;
    fields.bitsPerSample = 8;
    fields.sampleRate = 44100;
    add("odd.wav", fields, wavFiles::counting(20000));
    ASSERT_EQ(start(), PLAYER_STARTED);
    play(150000);
    std::vector<span> levels = levelsOnAir();
    levels.resize(3); // what follows is the list once more
    EXPECT_THAT(levels, ElementsAre(span{1000, 20000 - 31}, span{2000, 20000 - 31}, span{1000, 20000 - 31}));
}

TEST_F(FilePlayerTest, EightBitFileAtTheMixersRateJoins)
{
    wavFiles::header fields;
    fields.bitsPerSample = 8;
    add("a.wav", fields, wavFiles::counting(20000));
    ASSERT_EQ(start(), PLAYER_STARTED);
    EXPECT_EQ(headOf(ACTIVE), "WAV_PLAYER");
    play(60000);
}

TEST_F(FilePlayerTest, FileWithoutChannelsIsOverAtEachPass)
{
    wavFiles::header fields;
    fields.numChannels = 0;
    add("a.wav", fields, wavFiles::counting(20000));
    ASSERT_EQ(start(), PLAYER_STARTED);
    play(256 * 5);
    EXPECT_THAT(lines, Contains("DEBUG: WavFilePlayer: a.wav").Times(5));
}

TEST_F(FilePlayerTest, CardThatCannotBeOpenedFailsThePlayerAfterTwoSeconds)
{
    addLevel("a.wav", 1000, 100);
    card().fail("snd_pcm_open", -EBUSY, 5);
    EXPECT_EQ(start(), PLAYER_ERROR);
    EXPECT_THAT(lines, Contains("DEBUG: FilePlayer::createAudioBlocks failed to initialize ALSA source"));
    EXPECT_EQ(CAudioBlock::returnAudioBlock(0), nullptr);
    EXPECT_EQ(CAudioChain::returnAudioChain(0), nullptr);
    const std::vector<unsigned int> sleeps = card().ownerSleeps();
    EXPECT_EQ(std::count(sleeps.begin(), sleeps.end(), 500000U), 4);
}

TEST_F(FilePlayerTest, PlaylistOfMissingFilesCostsHalfASecondForEachAndOneMore)
{
    addEntry(playlist, 1, ItemType::WAV, "gone.wav");
    addEntry(playlist, 2, ItemType::MP3, "gone.mp3");
    EXPECT_EQ(start(), PLAYER_ERROR);
    const std::vector<unsigned int> sleeps = card().ownerSleeps();
    EXPECT_EQ(std::count(sleeps.begin(), sleeps.end(), 500000U), 3);
}

TEST_F(FilePlayerTest, DestructorLeavesNothingBehind)
{
    addLevel("a.wav", 1000, 20000);
    ASSERT_EQ(start(), PLAYER_STARTED);
    play(2560);
    quietly([this] { player.reset(); });
    EXPECT_EQ(CAudioBlock::returnAudioBlock(0), nullptr);
    EXPECT_EQ(CAudioChain::returnAudioChain(0), nullptr);
    EXPECT_FALSE(card().isOpen());
    EXPECT_EQ(card().numMisuses(), 0);
}

TEST_F(FilePlayerTest, ServiceReplacesAPlayerByAnother)
{
    addLevel("a.wav", 1000, 20000);
    ASSERT_EQ(addPlaylist("empty"), 2);
    quietly([this] {
        database.close_audio_database();
        AudioService service;
        EXPECT_EQ(service.startPlayer(1), PLAYER_STARTED);
        EXPECT_EQ(service.startPlayer(1), PLAYER_STARTED);
        EXPECT_EQ(service.servicePlayer(), PLAYER_STARTED);
        EXPECT_EQ(service.getAvgSampleRate(), 48000000);
        EXPECT_EQ(service.startPlayer(2), PLAYER_ERROR); // the one that ran is gone too
        EXPECT_EQ(service.servicePlayer(), PLAYER_NOT_INITIALIZED);
        EXPECT_FALSE(card().isOpen());
    });
}

} // namespace
