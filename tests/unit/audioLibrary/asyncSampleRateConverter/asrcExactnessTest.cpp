// asrcExactnessTest: every form that this processor runs equals the literal one. prove_asrc runs the same for longer.
#include "asrcExactness.h"

#include <gtest/gtest.h>

namespace
{

constexpr uint64_t kFrames = 1'000'000;

void expectExact(const asrcKernel* kernel)
{
    if (!kernel)
        return;                         // another processor's
    testing::internal::CaptureStdout(); // each converter announces itself
    const ExactnessReport report = proveExactness(*kernel, kFrames, 1);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(report.difference, "");
    EXPECT_GE(report.frames, kFrames);
    EXPECT_GT(report.rateChanges, report.sessions);
}

TEST(AsrcExactness, PlainFormEqualsTheLiteralOne)
{
    expectExact(&asrcKernelPlain);
}
TEST(AsrcExactness, Sse2FormEqualsTheLiteralOne)
{
    expectExact(asrcKernelSse2());
}
TEST(AsrcExactness, Avx2FormEqualsTheLiteralOne)
{
    expectExact(asrcKernelAvx2());
}
TEST(AsrcExactness, NeonFormEqualsTheLiteralOne)
{
    expectExact(asrcKernelNeon());
}

} // namespace
