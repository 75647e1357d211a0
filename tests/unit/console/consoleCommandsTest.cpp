/**
 * The daemon's console commands on blocks of the test's own, a player that only writes down what it is asked, and a
 * card that is not there.
 */

#include "console/consoleCommands.h"

#include "AudioService.h"
#include "audioLibrary/alsaFake.h"
#include "audioLibrary/alsaSource.h"
#include "audioLibrary/graphTestSupport.h"
#include "audioLibrary/mixerBlock.h"
#include "globals.h"

#include <gmock/gmock.h>
#include <memory>
#include <regex>

using namespace graphTest;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace
{

std::vector<std::string> asked;
PlayerStatus playerAnswer = PLAYER_OK;

} // namespace

AudioService::AudioService() = default;
AudioService::~AudioService() = default;
PlayerStatus AudioService::startPlayer(int id)
{
    asked.push_back("start " + std::to_string(id));
    return playerAnswer;
}
PlayerStatus AudioService::stopPlayer()
{
    asked.push_back("stop");
    return playerAnswer;
}

namespace
{

using Handler = void (*)(const void*, const char*);

const std::string rule = "--------------------\n";

class Commands : public GraphTest
{
protected:
    Commands()
    {
        asked.clear();
        playerAnswer = PLAYER_OK;
        audioService = &service;
    }
    ~Commands() override { audioService = nullptr; }

    /** What a command writes to standard output, given a line as it comes from the console. */
    static std::string run(Handler handler, const std::string& line)
    {
        testing::internal::CaptureStdout();
        handler(nullptr, (line + "\n").c_str());
        return testing::internal::GetCapturedStdout();
    }

    AudioService service;
};

class BlocksCommand : public Commands
{
};
using BlocksCommandDeathTest = BlocksCommand;
class ChainsCommand : public Commands
{
};
class StartCommand : public Commands
{
};
class StopCommand : public Commands
{
};
class ConnectCommand : public Commands
{
};
class GraphCommand : public Commands
{
};
class TraceLevelCommand : public Commands
{
};

// ---- blocks ----

TEST_F(BlocksCommand, ListsAllBlocks)
{
    ProbeBlock first("FIRST", 1, 0);
    ProbeBlock second("SECOND", 0, 1);
    EXPECT_EQ(run(cmdPrintAllBlocks, "blocks"), "Created Audio Blocks\n" + rule + CAudioBlock::printAllBlocks());
    EXPECT_THAT(CAudioBlock::printAllBlocks(), testing::StartsWith("( 0) FIRST"));
}

TEST_F(BlocksCommand, ListsNoBlocks)
{
    EXPECT_EQ(run(cmdPrintAllBlocks, "blocks"), "Created Audio Blocks\n" + rule);
}

TEST_F(BlocksCommand, NumberChoosesABlock)
{
    ProbeBlock first("FIRST", 1, 0);
    ProbeBlock second("SECOND", 0, 1);
    EXPECT_EQ(run(cmdPrintAllBlocks, "blocks 0"), "Printing Block: FIRST\n" + rule + first.printBlockStatus());
    EXPECT_EQ(run(cmdPrintAllBlocks, "blocks   1 2"), "Printing Block: SECOND\n" + rule + second.printBlockStatus());
}

TEST_F(BlocksCommand, WordInPlaceOfANumberListsAllBlocks)
{
    ProbeBlock first("FIRST");
    EXPECT_EQ(run(cmdPrintAllBlocks, "blocks one"), run(cmdPrintAllBlocks, "blocks"));
}

TEST_F(BlocksCommandDeathTest, BlockThatIsNotThereIsNotSurvived)
{
    ProbeBlock only("ONLY");
    // 4294967296 is no way to say 0.
    for (const char* line : {"blocks 1\n", "blocks -1\n", "blocks 4294967296\n", "blocks -4294967296\n"}) {
        EXPECT_DEATH(cmdPrintAllBlocks(nullptr, line), "") << line;
    }
}

// ---- chains ----

TEST_F(ChainsCommand, ListsAllChains)
{
    ProbeBlock block("BLOCK");
    CAudioChain chain("CHAIN");
    chain.addAudioBlock(&block, -1);
    const std::string expected = "Created Audio Chains\n" + rule + CAudioChain::printAllChains();
    EXPECT_THAT(expected, HasSubstr("( 0) Audio chain CHAIN is disconnected (1 audio blocks): Stopped\n (0) BLOCK\n"));
    EXPECT_EQ(run(cmdPrintAllChains, "chains"), expected);
    EXPECT_EQ(run(cmdPrintAllChains, "chains 5"), expected);
    audioInterfaceTraceLevel = -1; // not a word from the chain's destructor
}

// ---- start and stop ----

TEST_F(StartCommand, StartsTheSource)
{
    EXPECT_EQ(run(cmdStart, "start 12"), "Starting play list #12\n");
    EXPECT_EQ(run(cmdStart, "start  -3 x"), "Starting play list #-3\n");
    EXPECT_THAT(asked, ElementsAre("start 12", "start -3"));
}

TEST_F(StartCommand, TellsNothingOfAFailure)
{
    playerAnswer = PLAYER_ERROR;
    EXPECT_EQ(run(cmdStart, "start 1"), "Starting play list #1\n");
}

TEST_F(StartCommand, BadLineIsDroppedWithoutAWord)
{
    EXPECT_EQ(run(cmdStart, "start"), "");
    EXPECT_EQ(run(cmdStart, "start morning"), "");
    EXPECT_THAT(asked, IsEmpty());
}

TEST_F(StartCommand, NumberThatDoesNotFitIsTheNearestThatDoes)
{
    run(cmdStart, "start 2147483648");
    run(cmdStart, "start -2147483649");
    run(cmdStart, "start 4294967297");
    run(cmdStart, "start 99999999999999999999");
    EXPECT_THAT(asked, ElementsAre("start 2147483647", "start -2147483648", "start 2147483647", "start 2147483647"));
}

TEST_F(StopCommand, StopsThePlayer)
{
    EXPECT_EQ(run(cmdStop, "stop"), "Stopping play list\n");
    EXPECT_THAT(asked, ElementsAre("stop"));
}

TEST_F(StopCommand, TellsNothingOfAMissingPlayer)
{
    playerAnswer = PLAYER_ERROR;
    EXPECT_EQ(run(cmdStop, "stop 5"), "Stopping play list\n");
    EXPECT_THAT(asked, ElementsAre("stop"));
}

// ---- connect ----

TEST_F(ConnectCommand, ConnectsTheFirstOutputToTheNextFreeInput)
{
    ProbeBlock from("FROM", 2, 0);
    ProbeBlock other("OTHER", 1, 0);
    ProbeBlock to("TO", 0, 2);
    EXPECT_EQ(run(cmdConnect, "connect 0 2"), "Connection established.\n");
    EXPECT_TRUE(from.us(0).isConnected(&to.ds(0)));
    EXPECT_EQ(run(cmdConnect, "connect 1 2"), "Connection established.\n");
    EXPECT_TRUE(other.us(0).isConnected(&to.ds(1)));
    EXPECT_FALSE(from.us(1).isConnected(nullptr));
}

TEST_F(ConnectCommand, OutputInUseIsNotPassedOver)
{
    ProbeBlock from("FROM", 2, 0);
    ProbeBlock to("TO", 0, 2);
    run(cmdConnect, "connect 0 1");
    EXPECT_EQ(run(cmdConnect, "connect 0 1"), "ERROR establishing connection\n");
    EXPECT_FALSE(from.us(1).isConnected(nullptr));
    EXPECT_FALSE(to.ds(1).isConnected(nullptr));
}

TEST_F(ConnectCommand, MissingBlockIsToldOnWhicheverSide)
{
    ProbeBlock from("FROM", 1, 0);
    ProbeBlock to("TO", 0, 1);
    for (const char* line : {"connect 2 1", "connect 0 2", "connect 7 8", "connect -1 1", "connect 4294967296 1"}) {
        EXPECT_EQ(run(cmdConnect, line), "Invalid audio block identified\n") << line;
    }
    EXPECT_FALSE(to.ds(0).isConnected(nullptr));
}

TEST_F(ConnectCommand, MissingPortIsToldOnWhicheverSide)
{
    ProbeBlock from("FROM", 1, 0);
    ProbeBlock to("TO", 0, 1);
    EXPECT_EQ(run(cmdConnect, "connect 1 1"), "Invalid port combinations\n");
    EXPECT_EQ(run(cmdConnect, "connect 0 0"), "Invalid port combinations\n");
    EXPECT_EQ(run(cmdConnect, "connect 1 0"), "Invalid port combinations\n");
}

TEST_F(ConnectCommand, AnInputIsMadeEvenIfThereIsNoOutput)
{
    CMixer mixer("MIXER", 4);
    ProbeBlock silent("SILENT", 0, 0);
    EXPECT_EQ(run(cmdConnect, "connect 1 0"), "Invalid port combinations\n");
    EXPECT_EQ(mixer.numDownstreamPorts(), 1U);
    audioInterfaceTraceLevel = -1;
}

TEST_F(ConnectCommand, RefusedConnectionIsTold)
{
    ProbeBlock from("FROM", 1, 0);
    ProbeBlock to("TO", 0, 1);
    from.us(0).applyAnswer = STREAM_ERROR;
    to.ds(0).applyAnswer = STREAM_ERROR;
    EXPECT_EQ(run(cmdConnect, "connect 0 1"), "ERROR establishing connection\n");
    EXPECT_FALSE(to.ds(0).isConnected(nullptr));
}

TEST_F(ConnectCommand, BadLineIsDroppedWithoutAWord)
{
    ProbeBlock from("FROM", 1, 0);
    ProbeBlock to("TO", 0, 1);
    EXPECT_EQ(run(cmdConnect, "connect"), "");
    EXPECT_EQ(run(cmdConnect, "connect 0"), "");
    EXPECT_EQ(run(cmdConnect, "connect 0 to"), "");
    EXPECT_EQ(run(cmdConnect, "connect 0, 1"), "");
    EXPECT_FALSE(to.ds(0).isConnected(nullptr));
}

// ---- graph ----

TEST_F(GraphCommand, DrawsTheRingOfAMixer)
{
    ProbeBlock other("OTHER");
    CMixer mixer("MIXER", 4);
    const Lines lines = traced(0, [] { cmdGraphFIFO(nullptr, "graph 1\n"); });
    EXPECT_THAT(lines,
                ElementsAre("-----------MIXER GRAPH----------", testing::MatchesRegex("\\(0\\) \\[[|+-]{80}\\] .*")));
    audioInterfaceTraceLevel = -1;
}

TEST_F(GraphCommand, HasNothingToDrawOfTheAlsaBlock)
{
    alsaFake::card().reset();
    audioInterfaceTraceLevel = -1;
    testing::internal::CaptureStdout();
    auto alsa = std::make_unique<CALSASource>("ALSA", 2, 48000.0F, 8, 256, SAMPLE_S32BIT_LE, "plughw:0,0");
    cmdGraphFIFO(nullptr, "graph 0\n");
    alsa.reset(); // with its thread, which tells of its priority when it comes to it
    const std::regex ofTheThread("(ALSA Playback getting real-time priority|Success!|Failed!).*\n");
    EXPECT_EQ(std::regex_replace(testing::internal::GetCapturedStdout(), ofTheThread, ""),
              "-----------ALSA GRAPH----------\nStopping ALSA Device and dropping remaining frames.\n");
}

TEST_F(GraphCommand, RefusesEveryOtherBlock)
{
    ProbeBlock other("OTHER");
    EXPECT_EQ(run(cmdGraphFIFO, "graph 0"), "ERROR, block is not of type CMixer or ALSASource\n");
    other.id = MIXER_FIFO_DSP;
    EXPECT_EQ(run(cmdGraphFIFO, "graph 0"), "ERROR, block is not of type CMixer or ALSASource\n");
}

TEST_F(GraphCommand, MissingBlockIsTold)
{
    ProbeBlock only("ONLY");
    for (const char* line : {"graph 1", "graph -1", "graph 4294967296"}) {
        EXPECT_EQ(run(cmdGraphFIFO, line), "Block not found\n") << line;
    }
}

TEST_F(GraphCommand, BadLineIsAnsweredWithTheUsageOfAnother)
{
    EXPECT_EQ(run(cmdGraphFIFO, "graph"), "Incorrect usage, setMixerRate [blockNum] [newRate]\n");
    EXPECT_EQ(run(cmdGraphFIFO, "graph mixer"), "Incorrect usage, setMixerRate [blockNum] [newRate]\n");
}

// ---- trace level ----

TEST_F(TraceLevelCommand, SetsTheLevelOfTheLibrary)
{
    EXPECT_EQ(run(cmdSetTracelevel, "tl 6"), "");
    EXPECT_EQ(audioInterfaceTraceLevel, 6);
    run(cmdSetTracelevel, "tl -1");
    EXPECT_EQ(audioInterfaceTraceLevel, -1);
    run(cmdSetTracelevel, "tl 99999999999");
    EXPECT_EQ(audioInterfaceTraceLevel, 2147483647);
}

TEST_F(TraceLevelCommand, NineTurnsOnTheCallTraceAtOnce)
{
    ProbeBlock block("BLOCK");
    run(cmdSetTracelevel, "tl 9");
    EXPECT_THAT(run(cmdGraphFIFO, "graph 5"),
                HasSubstr(" (9): static audioLibrarySpace::CAudioBlock* "
                          "audioLibrarySpace::CAudioBlock::returnAudioBlock(unsigned int)\n"));
    audioInterfaceTraceLevel = 0;
}

TEST_F(TraceLevelCommand, BadLineIsToldAndChangesNothing)
{
    audioInterfaceTraceLevel = 3;
    EXPECT_EQ(run(cmdSetTracelevel, "tl"), "Invalid arguments\n");
    EXPECT_EQ(run(cmdSetTracelevel, "tl high"), "Invalid arguments\n");
    EXPECT_EQ(audioInterfaceTraceLevel, 3);
}

TEST_F(Commands, ListOfStreamsIsEmpty)
{
    testing::internal::CaptureStdout();
    listStreams();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

} // namespace
