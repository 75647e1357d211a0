#include "audioLibrary/audioBlock.h"

#include "audioLibrary/graphTestSupport.h"

namespace
{

using namespace graphTest;

class AudioBlock : public GraphTest
{
};

/** The base as it is, with its inside open. */
class PlainBlock : public CAudioBlock
{
public:
    using CAudioBlock::CAudioBlock;
    using CAudioBlock::downstream;
    using CAudioBlock::isInitialized;
    using CAudioBlock::pTraceLevel;
    using CAudioBlock::upstream;
};

TEST_F(AudioBlock, StartsWithoutPortsAndUninitialized)
{
    PlainBlock block("BLOCK");
    EXPECT_EQ(block.name(), "BLOCK");
    EXPECT_EQ(block.getRunTimeId(), INVALID_ID);
    EXPECT_EQ(block.numUpstreamPorts(), 0U);
    EXPECT_EQ(block.numDownstreamPorts(), 0U);
    EXPECT_FALSE(block.isInitialized);
    EXPECT_EQ(block.pTraceLevel, &audioInterfaceTraceLevel);
}

TEST_F(AudioBlock, InitMarksIt)
{
    PlainBlock block("BLOCK");
    EXPECT_EQ(block.init(), STREAM_OK);
    EXPECT_TRUE(block.isInitialized);
}

TEST_F(AudioBlock, PortsAreFoundByIndex)
{
    ProbeBlock block("BLOCK", 2, 3);
    EXPECT_EQ(block.numUpstreamPorts(), 2U);
    EXPECT_EQ(block.numDownstreamPorts(), 3U);
    EXPECT_EQ(block.getUpstreamPort(1), &block.us(1));
    EXPECT_EQ(block.getUpstreamPort(2), nullptr);
    EXPECT_EQ(block.getDownstreamPort(2), &block.ds(2));
    EXPECT_EQ(block.getDownstreamPort(3), nullptr);
}

TEST_F(AudioBlock, TheNextPortIsTheFirstFreeOne)
{
    ProbeBlock block("BLOCK", 2, 2);
    ProbeBlock peer("PEER", 2, 2);
    EXPECT_EQ(block.getNextUpstreamPort(), &block.us(0));
    EXPECT_EQ(block.getNextDownstreamPort(), &block.ds(0));
    block.us(0).connectDownstream(&peer.ds(0), nullptr);
    peer.us(0).connectDownstream(&block.ds(0), nullptr);
    EXPECT_EQ(block.getNextUpstreamPort(), &block.us(1));
    EXPECT_EQ(block.getNextDownstreamPort(), &block.ds(1));
    block.us(1).connectDownstream(&peer.ds(1), nullptr);
    peer.us(1).connectDownstream(&block.ds(1), nullptr);
    EXPECT_EQ(block.getNextUpstreamPort(), nullptr);
    EXPECT_EQ(block.getNextDownstreamPort(), nullptr);
    block.us(0).disconnect();
    EXPECT_EQ(block.getNextUpstreamPort(), &block.us(0));
}

TEST_F(AudioBlock, ABlockWithoutPortsHasNoNext)
{
    PlainBlock block("BLOCK");
    EXPECT_EQ(block.getNextUpstreamPort(), nullptr);
    EXPECT_EQ(block.getNextDownstreamPort(), nullptr);
}

TEST_F(AudioBlock, ParameterCheckAdoptsWhatIsVariable)
{
    PlainBlock block("BLOCK");
    audioPortParam_t own = allVariable();
    EXPECT_EQ(traced(1, [&] { EXPECT_EQ(block.reconfigBlockCheck(own, allFixedOddValues()), STREAM_OK); }), Lines{});
    EXPECT_EQ(own.nominalSampleRate, 44100.0F);
    EXPECT_EQ(own.trueSampleRate, 44099.5F);
    EXPECT_EQ(own.numChannels, 1U);
    EXPECT_EQ(own.periodSize, 131U);
    EXPECT_EQ(own.sampleFormat, SAMPLE_S32BIT_LE);
    EXPECT_FALSE(own.samplesInterleaved);
    EXPECT_EQ(own.nominalSampleRateStatus, VARIABLE);
}

TEST_F(AudioBlock, ParameterCheckFailsOnEachFixedFieldAndSaysNothing)
{
    PlainBlock block("BLOCK");
    paramStatus_e audioPortParam_t::*const statuses[] = {
        &audioPortParam_t::nominalSampleRateStatus,  &audioPortParam_t::trueSampleRateStatus,
        &audioPortParam_t::numChannelsStatus,        &audioPortParam_t::sampleFormatStatus,
        &audioPortParam_t::samplesInterleavedStatus, &audioPortParam_t::periodSizeStatus};
    for (const auto status : statuses) {
        audioPortParam_t own = allVariable();
        own.*status = FIXED;
        EXPECT_EQ(traced(1, [&] { EXPECT_EQ(block.reconfigBlockCheck(own, allFixedOddValues()), STREAM_ERROR); }),
                  Lines{});
        // The five others are adopted all the same.
        const audioPortParam_t untouched;
        const int kept = (own.nominalSampleRate == untouched.nominalSampleRate) +
                         (own.trueSampleRate == untouched.trueSampleRate) + (own.numChannels == untouched.numChannels) +
                         (own.periodSize == untouched.periodSize) + (own.sampleFormat == untouched.sampleFormat) +
                         (own.samplesInterleaved == untouched.samplesInterleaved);
        EXPECT_EQ(kept, 1);
    }
}

TEST_F(AudioBlock, ParameterApplyDoesNothing)
{
    PlainBlock block("BLOCK");
    EXPECT_EQ(block.reconfigBlockApply(audioPortParam_t()), STREAM_OK);
}

TEST_F(AudioBlock, WantsNoService)
{
    PlainBlock block("BLOCK");
    CServiceTime next;
    next.immediateService = true;
    EXPECT_EQ(block.service(next), STREAM_OK);
    EXPECT_EQ(next.nextServiceTime.tv_sec, 2147483647);
    EXPECT_EQ(next.nextServiceTime.tv_nsec, 0);
    EXPECT_FALSE(next.immediateService);
}

TEST_F(AudioBlock, StatusPadsTheNameTo32Columns)
{
    PlainBlock block("BLOCK");
    EXPECT_EQ(block.printBlockStatus(), "BLOCK                           Ports:                       \n");
}

TEST_F(AudioBlock, ANameOf32CharactersGetsNoPad)
{
    PlainBlock block("12345678901234567890123456789012");
    EXPECT_EQ(block.printBlockStatus(), "12345678901234567890123456789012Ports:                       \n");
}

TEST_F(AudioBlock, ALongerNameIsPrintedWhole)
{
    PlainBlock block("12345678901234567890123456789012X");
    EXPECT_EQ(block.printBlockStatus(), "12345678901234567890123456789012XPorts:                       \n");
}

TEST_F(AudioBlock, StatusOfABlockWithAnOutput)
{
    ProbeBlock block("BLOCK", 1);
    EXPECT_EQ(block.printBlockStatus(),
              "BLOCK                           Ports: upstream              \n" + block.us().printPortStatus());
}

TEST_F(AudioBlock, StatusOfABlockWithAnInput)
{
    ProbeBlock block("BLOCK", 0, 1);
    EXPECT_EQ(block.printBlockStatus(),
              "BLOCK                           Ports:            downstream \n" + block.ds().printPortStatus());
}

TEST_F(AudioBlock, StatusListsInputsBeforeOutputs)
{
    ProbeBlock block("BLOCK", 2, 2);
    block.us(0).addPeriods(1);
    block.us(1).addPeriods(2);
    block.ds(0).addPeriods(3);
    block.ds(1).addPeriods(4);
    EXPECT_EQ(block.printBlockStatus(), "BLOCK                           Ports: upstream   downstream \n" +
                                            block.ds(0).printPortStatus() + block.ds(1).printPortStatus() +
                                            block.us(0).printPortStatus() + block.us(1).printPortStatus());
}

// -------------------------------------------------------------------------------------- the registry

TEST_F(AudioBlock, BlocksJoinTheRegistryInOrder)
{
    PlainBlock a("A");
    auto* b = new PlainBlock("B");
    PlainBlock c("C");
    EXPECT_EQ(CAudioBlock::returnAudioBlock(0), &a);
    EXPECT_EQ(CAudioBlock::returnAudioBlock(1), b);
    EXPECT_EQ(CAudioBlock::returnAudioBlock(2), &c);
    EXPECT_EQ(CAudioBlock::returnAudioBlock(3), nullptr);
    traced(0, [&] { delete b; });
    EXPECT_EQ(CAudioBlock::returnAudioBlock(1), &c);
    EXPECT_EQ(CAudioBlock::returnAudioBlock(2), nullptr);
    EXPECT_EQ(CAudioBlock::returnAudioBlock(4294967295U), nullptr);
}

TEST_F(AudioBlock, InitOfAllIgnoresFailures)
{
    EXPECT_EQ(CAudioBlock::initAllBlocks(), STREAM_OK);
    ProbeBlock a("A");
    ProbeBlock b("B");
    a.initAnswer = STREAM_ERROR;
    EXPECT_EQ(CAudioBlock::initAllBlocks(), STREAM_OK);
    EXPECT_EQ(portLog(), (Lines{"A init", "B init"}));
    EXPECT_TRUE(b.initialized());
}

TEST_F(AudioBlock, PrintsAllWithTheirNumbers)
{
    EXPECT_EQ(CAudioBlock::printAllBlocks(), "");
    std::string wanted;
    for (int i = 0; i < 11; i++) {
        auto* block = new PlainBlock("B" + std::to_string(i));
        wanted += (i < 10 ? "( " : "(") + std::to_string(i) + ") " + block->printBlockStatus();
    }
    EXPECT_EQ(CAudioBlock::printAllBlocks(), wanted);
}

TEST_F(AudioBlock, DestructionIsToldAtLevelZero)
{
    auto* block = new PlainBlock("BLOCK");
    EXPECT_EQ(traced(0, [&] { delete block; }), (Lines{"(0) Removed BLOCK from CAudioBlock::allBlocks"}));
    block = new PlainBlock("BLOCK");
    EXPECT_EQ(traced(-1, [&] { delete block; }), Lines{});
}

TEST_F(AudioBlock, DestructionDeletesOutputsThenInputsLastFirst)
{
    auto* block = new ProbeBlock("B", 2, 2);
    traced(0, [&] { delete block; });
    EXPECT_EQ(portLog(), (Lines{"B deleted", "B.us1 deleted", "B.us0 deleted", "B.ds1 deleted", "B.ds0 deleted"}));
    EXPECT_EQ(CAudioBlock::returnAudioBlock(0), nullptr);
}

TEST_F(AudioBlock, DeletionOfAllGoesFromTheFront)
{
    new ProbeBlock("A");
    new ProbeBlock("B");
    const Lines lines = traced(0, [] { CAudioBlock::deleteAllBlocks(); });
    EXPECT_EQ(lines, (Lines{"(0) Removed A from CAudioBlock::allBlocks", "(0) Removed B from CAudioBlock::allBlocks"}));
    EXPECT_EQ(CAudioBlock::returnAudioBlock(0), nullptr);
}

TEST_F(AudioBlock, DeletionOfAllBeginsWithTheFirstCardBlock)
{
    new ProbeBlock("A");
    new ProbeBlock("B");
    (new ProbeBlock("CARD1"))->id = ALSA_SOURCE;
    new ProbeBlock("C");
    (new ProbeBlock("CARD2"))->id = ALSA_SOURCE;
    new ProbeBlock("D");
    traced(0, [] { CAudioBlock::deleteAllBlocks(); });
    EXPECT_EQ(portLog(), (Lines{"CARD1 deleted", "A deleted", "B deleted", "C deleted", "CARD2 deleted", "D deleted"}));
    EXPECT_EQ(CAudioBlock::returnAudioBlock(0), nullptr);
}

TEST_F(AudioBlock, EntriesAreTracedAtLevelNine)
{
    PlainBlock block("BLOCK");
    EXPECT_EQ(traced(9, [&] { block.init(); }),
              (Lines{"(9) virtual audioLibrarySpace::streamStatus audioLibrarySpace::CAudioBlock::init()"}));
}

} // namespace
