#include "AudioPlayer.h"

#include <gtest/gtest.h>

using namespace audioLibrarySpace;

namespace
{

/** Asks for what the test says. */
struct ScriptedBlock : CAudioPlay {
    ScriptedBlock() : CAudioPlay("SCRIPTED") {}
    streamStatus service(CServiceTime& next) override
    {
        given = next;
        next = wish;
        return answer;
    }
    CServiceTime given;
    CServiceTime wish;
    streamStatus answer = STREAM_OK;
};

struct BlockWithOutput : ScriptedBlock {
    BlockWithOutput() { upstream.push_back(new CUpstreamPort(this)); }
    CUpstreamPort& port() { return *upstream[0]; }
};

struct BlockWithNullOutput : ScriptedBlock {
    BlockWithNullOutput() { upstream.push_back(nullptr); }
};

struct PlainPlayer : AudioPlayer {
    using AudioPlayer::nextServiceTime;
    using AudioPlayer::serviceAudioBlock;
    using AudioPlayer::status;
    PlayerStatus start() override { return status; }
    PlayerStatus stop() override { return status; }
    PlayerStatus serviceAudioBlocks() override { return status; }
    void writeStatus(ByteArray*) override {}
    CAudioPlay* getPlayerBlock() const override { return source; }
    CAudioPlay* source = nullptr;
};

CServiceTime at(int32_t seconds, int32_t nanoseconds, bool required = false, bool immediate = false)
{
    CServiceTime time;
    time.nextServiceTime.tv_sec = seconds;
    time.nextServiceTime.tv_nsec = nanoseconds;
    time.serviceRequired = required;
    time.immediateService = immediate;
    return time;
}

class AudioPlayerService : public testing::Test
{
protected:
    AudioPlayerService() { testing::internal::CaptureStdout(); }
    ~AudioPlayerService() override { (void)testing::internal::GetCapturedStdout(); }

    /** Where the player's next service time ends when it stood at `own` and the block wishes `next`. */
    CServiceTime merged(const CServiceTime& own, const CServiceTime& next)
    {
        ScriptedBlock block;
        block.wish = next;
        player.nextServiceTime = own;
        EXPECT_EQ(player.serviceAudioBlock(&block), STREAM_OK);
        return player.nextServiceTime;
    }

    PlainPlayer player;
};

TEST(PlayerStatus, ValuesAreFixed)
{
    EXPECT_EQ(PLAYER_NOT_INITIALIZED, 0);
    EXPECT_EQ(PLAYER_READY, 1);
    EXPECT_EQ(PLAYER_STARTED, 2);
    EXPECT_EQ(PLAYER_OK, 3);
    EXPECT_EQ(PLAYER_ERROR, 4);
}

TEST_F(AudioPlayerService, NewPlayerIsDueNow)
{
    CServiceTime before;
    before.setCurrentTime();
    const PlainPlayer fresh;
    CServiceTime after;
    after.setCurrentTime();
    const CServiceTime next = fresh.getNextServiceTime();
    EXPECT_FALSE(next < before);
    EXPECT_FALSE(after < next);
    EXPECT_FALSE(next.immediateService);
    EXPECT_FALSE(next.serviceRequired);
}

TEST_F(AudioPlayerService, BlockIsGivenAFreshTime)
{
    ScriptedBlock block;
    block.given = at(1, 1, true, true);
    EXPECT_EQ(player.serviceAudioBlock(&block), STREAM_OK);
    EXPECT_TRUE(block.given == CServiceTime());
}

TEST_F(AudioPlayerService, FailureIsPassedOnAndLeavesTheTime)
{
    ScriptedBlock block;
    block.wish = at(0, 0, true, true);
    block.answer = LOST_CONNECTION_TO_SERVER;
    player.nextServiceTime = at(10, 5);
    EXPECT_EQ(player.serviceAudioBlock(&block), LOST_CONNECTION_TO_SERVER);
    EXPECT_TRUE(player.nextServiceTime == at(10, 5));
}

TEST_F(AudioPlayerService, EarlierSecondsThenNanosecondsWin)
{
    EXPECT_TRUE(merged(at(10, 5), at(9, 999)) == at(9, 999));
    EXPECT_TRUE(merged(at(10, 5), at(10, 4)) == at(10, 4));
    EXPECT_TRUE(merged(at(10, 5), at(10, 6)) == at(10, 5));
    EXPECT_TRUE(merged(at(10, 5), at(11, 0)) == at(10, 5));
}

TEST_F(AudioPlayerService, ImmediateServiceWinsOverEverything)
{
    EXPECT_TRUE(merged(at(10, 5, true), at(99, 0, false, true)) == at(99, 0, false, true));
}

TEST_F(AudioPlayerService, RequiredServiceBeatsAnEarlierTimeWithoutIt)
{
    EXPECT_TRUE(merged(at(10, 5), at(99, 0, true)) == at(99, 0, true));
    EXPECT_TRUE(merged(at(10, 5, true), at(1, 0)) == at(10, 5, true));
}

TEST_F(AudioPlayerService, OfTwoRequiredServicesTheEarlierIsKept)
{
    EXPECT_TRUE(merged(at(10, 5, true), at(10, 4, true)) == at(10, 4, true));
    EXPECT_TRUE(merged(at(10, 4, true), at(10, 5, true)) == at(10, 4, true));
}

TEST_F(AudioPlayerService, EqualTimesLeaveThePlayersOwn)
{
    // Told apart by a flag that the comparison looks at on the left side only.
    EXPECT_TRUE(merged(at(10, 5, false, true), at(10, 5)) == at(10, 5, false, true));
}

TEST_F(AudioPlayerService, BlockThatWantsNoServiceDisplacesNothing)
{
    CServiceTime never;
    never.setNeverService();
    EXPECT_TRUE(merged(at(10, 5, true), never) == at(10, 5, true));
    EXPECT_TRUE(merged(at(10, 5), never) == at(10, 5));
}

TEST_F(AudioPlayerService, IsStartedInThatStateOnly)
{
    for (const PlayerStatus status : {PLAYER_NOT_INITIALIZED, PLAYER_READY, PLAYER_STARTED, PLAYER_OK, PLAYER_ERROR}) {
        player.status = status;
        EXPECT_EQ(player.getStatus(), status);
        EXPECT_EQ(player.isStarted(), status == PLAYER_STARTED);
    }
}

TEST_F(AudioPlayerService, AverageRateIsCutToHertzBeforeItBecomesMillihertz)
{
    EXPECT_EQ(player.getAvgSampleRate(), 0); // no source block
    ScriptedBlock withoutOutput;
    player.source = &withoutOutput;
    EXPECT_EQ(player.getAvgSampleRate(), 0);
    BlockWithNullOutput withNullOutput;
    player.source = &withNullOutput;
    EXPECT_EQ(player.getAvgSampleRate(), 0);
    BlockWithOutput source;
    source.port().avgRate = 47999.9F;
    player.source = &source;
    EXPECT_EQ(player.getAvgSampleRate(), 47999000);
}

} // namespace
