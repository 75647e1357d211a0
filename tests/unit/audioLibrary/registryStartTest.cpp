#include "audioLibrary/audioBlock.h"
#include "audioLibrary/audioChain.h"

#include <gtest/gtest.h>

namespace
{

using namespace audioLibrarySpace;

/** Builds a block and a chain ahead of every ordinary static object, the lists of the registries among them. */
struct EarlyGraph {
    EarlyGraph()
    {
        audioInterfaceTraceLevel = -1;
        block = new CAudioBlock("EARLY_BLOCK");
        chain = new CAudioChain("EARLY_CHAIN");
    }
    CAudioBlock* block;
    CAudioChain* chain;
};

__attribute__((init_priority(200))) EarlyGraph early;

/** Outlives main: its destructor finds the registry in place. */
CAudioBlock lateBlock("LATE_BLOCK");

TEST(Registries, TakeObjectsBuiltBeforeMain)
{
    EXPECT_EQ(CAudioBlock::returnAudioBlock(0), early.block);
    EXPECT_EQ(CAudioBlock::returnAudioBlock(1), &lateBlock);
    EXPECT_EQ(CAudioChain::returnAudioChain(0), early.chain);
    delete early.chain;
    delete early.block;
    EXPECT_EQ(CAudioBlock::returnAudioBlock(0), &lateBlock);
}

} // namespace
