#include "audioLibrary/audioChain.h"

#include "audioLibrary/graphTestSupport.h"

namespace
{

using namespace graphTest;

class AudioChain : public GraphTest
{
protected:
    CAudioChain* chain = nullptr;
    ProbeBlock* a = nullptr; // an output
    ProbeBlock* b = nullptr; // both
    ProbeBlock* c = nullptr; // an input

    void SetUp() override
    {
        GraphTest::SetUp();
        chain = new CAudioChain("CHAIN");
        a = new ProbeBlock("A", 1);
        b = new ProbeBlock("B", 1, 1);
        c = new ProbeBlock("C", 0, 1);
    }
    void fill()
    {
        chain->addAudioBlock(a, -1);
        chain->addAudioBlock(b, -1);
        chain->addAudioBlock(c, -1);
    }
    void fillAndConnect()
    {
        fill();
        ASSERT_EQ(chain->connectChain(), STREAM_OK);
        portLog().clear();
    }
    /** Lets no stereo stream pass the input of `block`. */
    static void refuseStereo(ProbeBlock* block)
    {
        audioPortParam_t mono;
        mono.numChannels = 1;
        block->ds().become(mono);
    }
    Lines names()
    {
        Lines list;
        for (int i = 0; i < static_cast<int>(chain->numAudioBlocks()); i++) {
            list.push_back(chain->getAudioBlock(i)->name());
        }
        return list;
    }
};

TEST_F(AudioChain, StartsEmptyUnconnectedAndStopped)
{
    EXPECT_EQ(chain->numAudioBlocks(), 0U);
    EXPECT_FALSE(chain->isChainConnected());
    EXPECT_EQ(chain->chainPlaybackState, AUDIO_STOPPED);
    EXPECT_EQ(chain->getRunTimeId(), AUDIO_CHAIN);
}

// -------------------------------------------------------------------------------------- editing

TEST_F(AudioChain, ANegativePositionAppends)
{
    EXPECT_EQ(chain->addAudioBlock(a, -1), STREAM_OK);
    EXPECT_EQ(chain->addAudioBlock(b, -7), STREAM_OK);
    EXPECT_EQ(names(), (Lines{"A", "B"}));
}

TEST_F(AudioChain, AddsBeforeThePosition)
{
    fill();
    auto* d = new ProbeBlock("D");
    EXPECT_EQ(chain->addAudioBlock(d, 0), STREAM_OK);
    EXPECT_EQ(names(), (Lines{"D", "A", "B", "C"}));
    EXPECT_EQ(chain->addAudioBlock(d, 2), STREAM_OK); // twice in one chain is no one's concern
    EXPECT_EQ(names(), (Lines{"D", "A", "D", "B", "C"}));
    EXPECT_EQ(chain->addAudioBlock(d, 5), STREAM_OK);
    EXPECT_EQ(names(), (Lines{"D", "A", "D", "B", "C", "D"}));
}

TEST_F(AudioChain, APositionBeyondTheSizeIsRefused)
{
    fill();
    EXPECT_EQ(chain->addAudioBlock(a, 4), STREAM_ERROR);
    EXPECT_EQ(chain->numAudioBlocks(), 3U);
}

TEST_F(AudioChain, NoBlockIsRefused)
{
    EXPECT_EQ(chain->addAudioBlock(nullptr, 0), STREAM_ERROR);
    EXPECT_EQ(chain->numAudioBlocks(), 0U);
}

TEST_F(AudioChain, RemovingReturnsTheBlockAlive)
{
    fill();
    EXPECT_EQ(chain->remAudioBlock(1), b);
    EXPECT_EQ(names(), (Lines{"A", "C"}));
    EXPECT_EQ(chain->remAudioBlock(0), a);
    EXPECT_EQ(chain->remAudioBlock(0), c);
    EXPECT_EQ(chain->numAudioBlocks(), 0U);
    EXPECT_EQ(portLog(), Lines{});
}

TEST_F(AudioChain, RemovingOutsideTheChainGivesNothing)
{
    EXPECT_EQ(chain->remAudioBlock(0), nullptr);
    fill();
    EXPECT_EQ(chain->remAudioBlock(-1), nullptr);
    EXPECT_EQ(chain->remAudioBlock(3), nullptr); // the size itself
    EXPECT_EQ(chain->remAudioBlock(4), nullptr);
    EXPECT_EQ(chain->numAudioBlocks(), 3U);
}

TEST_F(AudioChain, BlocksAreFoundByPosition)
{
    fill();
    EXPECT_EQ(chain->getAudioBlock(-1), nullptr);
    EXPECT_EQ(chain->getAudioBlock(0), a);
    EXPECT_EQ(chain->getAudioBlock(2), c);
    EXPECT_EQ(chain->getAudioBlock(3), nullptr);
}

TEST_F(AudioChain, AConnectedChainIsNotEdited)
{
    fillAndConnect();
    EXPECT_EQ(chain->addAudioBlock(a, 0), STREAM_ERROR);
    EXPECT_EQ(chain->remAudioBlock(0), nullptr);
    EXPECT_EQ(names(), (Lines{"A", "B", "C"}));
    EXPECT_EQ(chain->getAudioBlock(0), a);
}

// -------------------------------------------------------------------------------------- connecting

TEST_F(AudioChain, ConnectsNeighboursFromTheFront)
{
    fill();
    const Lines lines = traced(1, [&] { EXPECT_EQ(chain->connectChain(), STREAM_OK); });
    EXPECT_EQ(
        lines,
        (Lines{"(1) Reconfig check B type 0", "(1) connectDownstream: successfully reconfigured port parameters (A->B)",
               "(1) A connectDownstream Status: STREAM_OK", "(1) connectupstream called from connect downstream",
               "(1) Reconfig check A type 0", "(1) connectUpstream: successfully reconfigured port parameters (B->A)",
               "(1) Successfully connected (A)->(B).", "(1) Reconfig check C type 0",
               "(1) connectDownstream: successfully reconfigured port parameters (B->C)",
               "(1) B connectDownstream Status: STREAM_OK", "(1) connectupstream called from connect downstream",
               "(1) Reconfig check B type 0", "(1) connectUpstream: successfully reconfigured port parameters (C->B)",
               "(1) Successfully connected (B)->(C)."}));
    EXPECT_TRUE(chain->isChainConnected());
    EXPECT_TRUE(a->us().isConnected(&b->ds()));
    EXPECT_TRUE(b->us().isConnected(&c->ds()));
}

TEST_F(AudioChain, OuterPortsStayFree)
{
    chain->addAudioBlock(b, -1);
    auto* d = new ProbeBlock("D", 1, 1);
    chain->addAudioBlock(d, -1);
    ASSERT_EQ(chain->connectChain(), STREAM_OK);
    EXPECT_FALSE(b->ds().isConnected(nullptr));
    EXPECT_FALSE(d->us().isConnected(nullptr));
}

TEST_F(AudioChain, AConnectedChainIsNotConnectedAgain)
{
    fillAndConnect();
    EXPECT_EQ(chain->connectChain(), STREAM_ERROR);
    EXPECT_TRUE(chain->isChainConnected());
}

TEST_F(AudioChain, OneBlockAnswersOkAndDoesNotCountAsConnected)
{
    chain->addAudioBlock(a, 0);
    EXPECT_EQ(chain->connectChain(), STREAM_OK);
    EXPECT_FALSE(chain->isChainConnected());
    EXPECT_EQ(chain->startAudio(), STREAM_ERROR);
    EXPECT_EQ(chain->chainPlaybackState, AUDIO_STOPPED);
}

TEST_F(AudioChain, AnEmptyChainCountsAsConnected)
{
    EXPECT_EQ(chain->connectChain(), STREAM_OK);
    EXPECT_TRUE(chain->isChainConnected());
    EXPECT_EQ(chain->startAudio(), STREAM_OK);
    EXPECT_EQ(chain->chainPlaybackState, AUDIO_PLAYING);
}

TEST_F(AudioChain, ABlockWithoutAnOutputIsToldWithoutLineEnd)
{
    chain->addAudioBlock(c, -1);
    chain->addAudioBlock(b, -1);
    const Lines lines = traced(1, [&] { EXPECT_EQ(chain->connectChain(), CHAIN_ERROR_NO_PORT_AVAILABLE); });
    EXPECT_EQ(lines, (Lines{"(1) C did not provide an upstream port.<no line end>"}));
    EXPECT_FALSE(chain->isChainConnected());
}

TEST_F(AudioChain, ABlockWithoutAnInputIsToldWithoutLineEnd)
{
    chain->addAudioBlock(b, -1);
    chain->addAudioBlock(a, -1);
    const Lines lines = traced(1, [&] { EXPECT_EQ(chain->connectChain(), CHAIN_ERROR_NO_PORT_AVAILABLE); });
    EXPECT_EQ(lines, (Lines{"(1) A did not provide a downstream port.<no line end>"}));
    EXPECT_FALSE(chain->isChainConnected());
    EXPECT_FALSE(b->us().isConnected(nullptr));
}

TEST_F(AudioChain, AFailureAtTheSecondPairLeavesTheFirstJoined)
{
    fill();
    refuseStereo(c);
    EXPECT_EQ(chain->connectChain(), STREAM_ERROR);
    EXPECT_FALSE(chain->isChainConnected());
    EXPECT_TRUE(a->us().isConnected(&b->ds()));
    EXPECT_FALSE(b->us().isConnected(nullptr));
    // A retry finds the pair in place and no other port to use.
    EXPECT_EQ(chain->connectChain(), CHAIN_ERROR_NO_PORT_AVAILABLE);
    EXPECT_TRUE(a->us().isConnected(&b->ds()));
}

TEST_F(AudioChain, TheStatusOfTheFailingPairIsAnswered)
{
    fill();
    b->us().applyAnswer = NO_MEMORY;
    EXPECT_EQ(chain->connectChain(), NO_MEMORY);
}

TEST_F(AudioChain, EachConnectTakesTheNextFreePorts)
{
    auto* twoOutputs = new ProbeBlock("TWO", 2);
    auto* other = new ProbeBlock("OTHER", 0, 1);
    chain->addAudioBlock(twoOutputs, -1);
    chain->addAudioBlock(c, -1);
    ASSERT_EQ(twoOutputs->us(0).connectDownstream(&other->ds(), nullptr), STREAM_OK);
    ASSERT_EQ(chain->connectChain(), STREAM_OK);
    EXPECT_TRUE(c->ds().isConnected(&twoOutputs->us(1)));
    chain->disconnectChain();
    twoOutputs->us(0).disconnect();
    ASSERT_EQ(chain->connectChain(), STREAM_OK);
    EXPECT_TRUE(c->ds().isConnected(&twoOutputs->us(0)));
}

TEST_F(AudioChain, ABlockMayStandInTwoChains)
{
    auto* mixer = new ProbeBlock("MIXER", 0, 2);
    auto* second = new CAudioChain("SECOND");
    chain->addAudioBlock(a, -1);
    chain->addAudioBlock(mixer, -1);
    second->addAudioBlock(b, -1);
    second->addAudioBlock(mixer, -1);
    ASSERT_EQ(chain->connectChain(), STREAM_OK);
    ASSERT_EQ(second->connectChain(), STREAM_OK);
    EXPECT_TRUE(mixer->ds(0).isConnected(&a->us()));
    EXPECT_TRUE(mixer->ds(1).isConnected(&b->us()));
    ASSERT_EQ(second->startAudio(), STREAM_OK); // only its own ports
    EXPECT_EQ(mixer->ds(0).portPlaybackState, AUDIO_STOPPED);
    EXPECT_EQ(mixer->ds(1).portPlaybackState, AUDIO_PLAYING);
    chain->disconnectChain();
    EXPECT_TRUE(mixer->ds(1).isConnected(&b->us()));
}

// -------------------------------------------------------------------------------------- disconnecting

TEST_F(AudioChain, DisconnectingTakesEachPairDownOnce)
{
    fillAndConnect();
    chain->startAudio();
    portLog().clear();
    EXPECT_EQ(chain->disconnectChain(), STREAM_OK);
    // The second line of each pair is the mutual call; no third or fourth follows.
    EXPECT_EQ(portLog(), (Lines{"A.us0 disconnect", "B.ds0 disconnect", "A.us0 disconnect", "B.us0 disconnect",
                                "C.ds0 disconnect", "B.us0 disconnect"}));
    EXPECT_FALSE(chain->isChainConnected());
    EXPECT_FALSE(a->us().isConnected(nullptr));
    EXPECT_FALSE(b->ds().isConnected(nullptr));
    EXPECT_FALSE(b->us().isConnected(nullptr));
    EXPECT_FALSE(c->ds().isConnected(nullptr));
    EXPECT_EQ(chain->chainPlaybackState, AUDIO_PLAYING); // the last command stands
    EXPECT_EQ(a->us().portPlaybackState, AUDIO_STOPPED);
}

TEST_F(AudioChain, DisconnectingAnUnconnectedChainDoesNothing)
{
    fill();
    EXPECT_EQ(chain->disconnectChain(), STREAM_OK);
    EXPECT_EQ(portLog(), Lines{});
}

TEST_F(AudioChain, ATrackChangeSwapsTheHead)
{
    fillAndConnect();
    auto* next = new ProbeBlock("NEXT", 1);
    EXPECT_EQ(chain->disconnectChain(), STREAM_OK);
    EXPECT_EQ(chain->remAudioBlock(0), a);
    EXPECT_EQ(chain->addAudioBlock(next, 0), STREAM_OK);
    EXPECT_EQ(chain->connectChain(), STREAM_OK);
    EXPECT_EQ(chain->startAudio(), STREAM_OK);
    EXPECT_EQ(next->us().portPlaybackState, AUDIO_PLAYING);
    EXPECT_EQ(c->ds().portPlaybackState, AUDIO_PLAYING);
    EXPECT_EQ(a->us().portPlaybackState, AUDIO_STOPPED);
}

// -------------------------------------------------------------------------------------- states

struct StateOperation {
    streamStatus (CAudioChain::*run)();
    const char* portOperation;
    playbackState state;
    const char* text;
};

class AudioChainState : public AudioChain, public testing::WithParamInterface<StateOperation>
{
protected:
    streamStatus run()
    {
        const auto operation = GetParam().run;
        return (chain->*operation)();
    }
    Lines onPorts(std::initializer_list<const char*> ports)
    {
        Lines lines;
        for (const char* port : ports) {
            lines.push_back(std::string(port) + " " + GetParam().portOperation);
        }
        return lines;
    }
};

TEST_P(AudioChainState, ReachesEachPortInTheDirectionOfTheAudio)
{
    fillAndConnect();
    chain->chainPlaybackState = static_cast<playbackState>(17);
    EXPECT_EQ(run(), STREAM_OK);
    EXPECT_EQ(chain->chainPlaybackState, GetParam().state);
    EXPECT_EQ(portLog(), onPorts({"A.us0", "B.us0", "B.ds0", "C.ds0"}));
    EXPECT_EQ(chain->getPlaybackState(), GetParam().text);
}

TEST_P(AudioChainState, AnUnconnectedChainIsNotTouched)
{
    fill();
    chain->chainPlaybackState = static_cast<playbackState>(17);
    EXPECT_EQ(run(), STREAM_ERROR);
    EXPECT_EQ(chain->chainPlaybackState, static_cast<playbackState>(17));
    EXPECT_EQ(portLog(), Lines{});
}

TEST_P(AudioChainState, AFailingPortFailsTheAnswerAndNotTheWalk)
{
    fillAndConnect();
    a->us().stateAnswer = NO_MEMORY;
    EXPECT_EQ(run(), STREAM_ERROR);
    EXPECT_EQ(portLog().size(), 4U);
    EXPECT_EQ(chain->chainPlaybackState, GetParam().state);
}

TEST_P(AudioChainState, APortTakenDownFromOutsideIsPassedBy)
{
    fillAndConnect();
    b->us().disconnect();
    portLog().clear();
    EXPECT_EQ(run(), STREAM_OK);
    EXPECT_EQ(portLog(), onPorts({"A.us0", "B.ds0"}));
}

INSTANTIATE_TEST_SUITE_P(All, AudioChainState,
                         testing::Values(StateOperation{&CAudioChain::startAudio, "startAudio", AUDIO_PLAYING,
                                                        "Playing"},
                                         StateOperation{&CAudioChain::stopAudio, "stopAudio", AUDIO_STOPPED, "Stopped"},
                                         StateOperation{&CAudioChain::pauseAudio, "pauseAudio", AUDIO_PAUSED, "Paused"},
                                         StateOperation{&CAudioChain::muteAudio, "muteAudio", AUDIO_MUTED, "Muted"}),
                         [](const auto& entry) { return std::string(entry.param.portOperation); });

// -------------------------------------------------------------------------------------- status text

TEST_F(AudioChain, StatusListsTheBlocks)
{
    EXPECT_EQ(chain->printChainStatus(), "Audio chain CHAIN is disconnected (0 audio blocks): Stopped\n");
    fillAndConnect();
    chain->startAudio();
    EXPECT_EQ(chain->printChainStatus(), "Audio chain CHAIN is connected (3 audio blocks): Playing\n"
                                         " (0) A\n"
                                         " (1) B\n"
                                         " (2) C\n");
}

TEST_F(AudioChain, AStateWithoutANameIsUnkown)
{
    chain->chainPlaybackState = static_cast<playbackState>(4);
    EXPECT_EQ(chain->getPlaybackState(), "UNKOWN");
}

// -------------------------------------------------------------------------------------- the registry

TEST_F(AudioChain, ChainsJoinTheRegistryInOrder)
{
    auto* second = new CAudioChain("SECOND");
    EXPECT_EQ(CAudioChain::returnAudioChain(0), chain);
    EXPECT_EQ(CAudioChain::returnAudioChain(1), second);
    EXPECT_EQ(CAudioChain::returnAudioChain(2), nullptr);
    traced(0, [&] { delete chain; });
    EXPECT_EQ(CAudioChain::returnAudioChain(0), second);
}

TEST_F(AudioChain, PrintsAllWithTheirNumbers)
{
    new CAudioChain("SECOND");
    chain->addAudioBlock(a, 0);
    EXPECT_EQ(CAudioChain::printAllChains(), "( 0) Audio chain CHAIN is disconnected (1 audio blocks): Stopped\n"
                                             " (0) A\n"
                                             "( 1) Audio chain SECOND is disconnected (0 audio blocks): Stopped\n");
}

TEST_F(AudioChain, DestructionLeavesPortsAndBlocks)
{
    fillAndConnect();
    EXPECT_EQ(traced(0, [&] { delete chain; }), (Lines{"(0) Removed CHAIN from CAudioChain::allChains"}));
    EXPECT_EQ(portLog(), Lines{});
    EXPECT_TRUE(a->us().isConnected(&b->ds()));
    EXPECT_EQ(CAudioChain::returnAudioChain(0), nullptr);
}

TEST_F(AudioChain, DeletionOfAllGoesFromTheFront)
{
    new CAudioChain("SECOND");
    const Lines lines = traced(0, [] { CAudioChain::deleteAllChains(); });
    EXPECT_EQ(lines, (Lines{"(0) Removed CHAIN from CAudioChain::allChains",
                            "(0) Removed SECOND from CAudioChain::allChains"}));
    EXPECT_EQ(CAudioChain::returnAudioChain(0), nullptr);
}

TEST_F(AudioChain, EntriesAreTracedAtLevelNine)
{
    EXPECT_EQ(traced(9, [&] { chain->disconnectChain(); }),
              (Lines{"(9) audioLibrarySpace::streamStatus audioLibrarySpace::CAudioChain::disconnectChain()"}));
}

} // namespace
