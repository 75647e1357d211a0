#include "faultScript.h"

#include <cerrno>
#include <gtest/gtest.h>

using namespace vcard;

namespace
{

FaultScript parsed(const std::string& text)
{
    FaultScript script;
    std::string badWord;
    EXPECT_TRUE(parseFaults(text, script, badWord)) << badWord;
    return script;
}

} // namespace

TEST(FaultScript, EmptyTextHasNoFaults)
{
    EXPECT_TRUE(parsed("").calls.empty());
    EXPECT_TRUE(parsed(" , ").events.empty());
}

TEST(FaultScript, StepWithSkipCountAndError)
{
    const FaultScript script = parsed("prepare+1*3=ENODEV");
    ASSERT_EQ(script.calls.size(), 1U);
    EXPECT_EQ(script.calls[0].step, Step::prepare);
    EXPECT_EQ(script.calls[0].skip, 1);
    EXPECT_EQ(script.calls[0].remaining, 3);
    EXPECT_EQ(script.calls[0].error, ENODEV);
}

TEST(FaultScript, BareStepIsRefusedOnceWithItsUsualError)
{
    const FaultScript script = parsed("open,hwParams swParams prepare start transfer");
    ASSERT_EQ(script.calls.size(), 6U);
    const int32_t errors[] = {EBUSY, EINVAL, EINVAL, EIO, EIO, EIO};
    for (size_t i = 0; i < script.calls.size(); ++i) {
        EXPECT_EQ(static_cast<size_t>(script.calls[i].step), i);
        EXPECT_EQ(script.calls[i].remaining, 1);
        EXPECT_EQ(script.calls[i].skip, 0);
        EXPECT_EQ(script.calls[i].error, errors[i]);
    }
}

TEST(FaultScript, StarAloneRefusesAllCalls)
{
    EXPECT_EQ(parsed("open*").calls.at(0).remaining, -1);
    EXPECT_EQ(parsed("open*=16").calls.at(0).error, EBUSY);
}

TEST(FaultScript, EventsComeInTheOrderOfTheirFrames)
{
    const FaultScript script = parsed("gone@48000 xrun@100 stall@200 resume@300 suspend@50 transfer@60");
    ASSERT_EQ(script.events.size(), 6U);
    const Event order[] = {Event::suspend, Event::transfer, Event::xrun, Event::stall, Event::resume, Event::gone};
    const uint64_t frames[] = {50, 60, 100, 200, 300, 48000};
    for (size_t i = 0; i < script.events.size(); ++i) {
        EXPECT_EQ(script.events[i].event, order[i]);
        EXPECT_EQ(script.events[i].frames, frames[i]);
    }
}

TEST(FaultScript, UnknownWordIsNamedAndNothingIsTaken)
{
    for (const char* bad : {"explode", "open=EWHAT", "open*x", "gone@", "gone@-1", "open+x", "start@100", "open=0"}) {
        FaultScript script = parsed("open");
        std::string badWord;
        EXPECT_FALSE(parseFaults(std::string("gone@5 ") + bad, script, badWord)) << bad;
        EXPECT_EQ(badWord, bad);
        EXPECT_EQ(script.calls.size(), 1U);
        EXPECT_TRUE(script.events.empty());
    }
}
