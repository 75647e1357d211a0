#include "audioLibrary/audioPlay.h"

#include "audioLibrary/graphTestSupport.h"

namespace
{

using namespace graphTest;

class AudioPlay : public GraphTest
{
};

/** A source with an output that the test sets up. */
class PlayWithOutput : public CAudioPlay
{
public:
    PlayWithOutput() : CAudioPlay("PLAY") { upstream.push_back(new CUpstreamPort(this)); }
    void dropOutput()
    {
        delete upstream.front();
        upstream.front() = nullptr;
    }
};

/** A stream source as it stands after it found its server. */
class FilledStream : public CAudioStreamPlay
{
public:
    FilledStream() : CAudioStreamPlay("STREAM")
    {
        topUrl = "top";
        serverName = "name";
        serverUrl = "url";
        genre = "genre";
    }
};

TEST(FileStatus, NumbersAreFixed)
{
    EXPECT_EQ(FILE_DONE, 1);
    EXPECT_EQ(FILE_OK, 0);
    EXPECT_EQ(FILE_ERROR, -1);
    EXPECT_EQ(FILE_NONE, -2);
    EXPECT_EQ(sizeof(fileStatus_e), 4U);
}

TEST_F(AudioPlay, BasesHaveNoIdAndNoEnd)
{
    CAudioPlay play("PLAY");
    CAudioFilePlay file("FILE");
    CAudioStreamPlay stream("STREAM");
    for (CAudioPlay* base : {&play, static_cast<CAudioPlay*>(&file), static_cast<CAudioPlay*>(&stream)}) {
        EXPECT_EQ(base->getRunTimeId(), INVALID_ID);
        EXPECT_EQ(base->timeLeft(), -1);
        EXPECT_EQ(base->getCalculatedAvgRate(), 0);
    }
}

TEST_F(AudioPlay, NamesReachTheRegistry)
{
    CAudioPlay play("PLAY");
    CAudioFilePlay file("FILE");
    CAudioStreamPlay stream("STREAM");
    EXPECT_EQ(CAudioBlock::returnAudioBlock(0)->name(), "PLAY");
    EXPECT_EQ(CAudioBlock::returnAudioBlock(1)->name(), "FILE");
    EXPECT_EQ(CAudioBlock::returnAudioBlock(2)->name(), "STREAM");
}

TEST_F(AudioPlay, ABaseCannotOpenAnything)
{
    CAudioFilePlay file("FILE");
    EXPECT_EQ(file.setNewFile("a.wav"), STREAM_ERROR);
    EXPECT_EQ(file.getFilename(), "");
    CAudioStreamPlay stream("STREAM");
    EXPECT_EQ(stream.setNewTopUrl("http://station/"), STREAM_ERROR);
    EXPECT_EQ(stream.getTopUrl(), "");
    EXPECT_EQ(stream.getServerName(), "");
    EXPECT_EQ(stream.getServerUrl(), "");
    EXPECT_EQ(stream.getGenre(), "");
}

TEST_F(AudioPlay, StreamTextsAreToldApart)
{
    FilledStream stream;
    EXPECT_EQ(stream.getTopUrl(), "top");
    EXPECT_EQ(stream.getServerName(), "name");
    EXPECT_EQ(stream.getServerUrl(), "url");
    EXPECT_EQ(stream.getGenre(), "genre");
}

TEST_F(AudioPlay, TheAverageRateIsCutToHertzBeforeItBecomesMillihertz)
{
    PlayWithOutput play;
    play.getUpstreamPort(0)->avgRate = 47981.75F;
    EXPECT_EQ(play.getCalculatedAvgRate(), 47981000);
    play.getUpstreamPort(0)->avgRate = -1.5F;
    EXPECT_EQ(play.getCalculatedAvgRate(), -1000);
}

TEST_F(AudioPlay, AWildAverageRateIsHarmless)
{
    PlayWithOutput play;
    play.getUpstreamPort(0)->avgRate = 1e30F;
    // 2147483647 * 1000 = 2147483647000, which is 500 * 2^32 - 1000
    EXPECT_EQ(play.getCalculatedAvgRate(), -1000);
}

TEST_F(AudioPlay, AMissingOutputHasNoRate)
{
    PlayWithOutput play;
    play.getUpstreamPort(0)->avgRate = 48000.0F;
    play.dropOutput();
    EXPECT_EQ(play.getCalculatedAvgRate(), 0);
}

} // namespace
