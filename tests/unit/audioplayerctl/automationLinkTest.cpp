// The address of the automation seat, and who is seen in it.

#include "automationLink.h"
#include "failure.h"

#include <gtest/gtest.h>

namespace
{

const std::string HEAD =
    "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode\n";
const std::string TAIL = " 00000000:00000000 00:00000000 00000000     0        0 1 1 0 100 0 0 10 0\n";

bool isHeld(const std::string& line)
{
    return isSeatHeld(HEAD + "   0: 0100007F:1F90 00000000:0000 0A" + TAIL + line + TAIL, 8500); // 8500 is 2134
}

} // namespace

TEST(AutomationAddress, HasThePlayersPortUnlessOneIsGiven)
{
    EXPECT_EQ(parseAutomationAddress("player").host, "player");
    EXPECT_EQ(parseAutomationAddress("player").port, 8500);
    EXPECT_EQ(parseAutomationAddress("10.0.0.1:65535").host, "10.0.0.1");
    EXPECT_EQ(parseAutomationAddress("10.0.0.1:65535").port, 65535);
}

TEST(AutomationAddress, ThatMakesNoSenseIsAUsageError)
{
    for (const std::string text : {"", ":8500", "a:", "a:0", "a:65536", "a:-1", "a:8500x", "a: 1", "::1", "[::1]:8500"}) {
        try {
            parseAutomationAddress(text);
            ADD_FAILURE() << text;
        } catch (const Failure& failure) {
            EXPECT_EQ(failure.status, EXIT_USAGE) << text;
        }
    }
}

TEST(AutomationSeat, AnEstablishedConnectionOnThePortHoldsIt)
{
    EXPECT_TRUE(isHeld("   1: 0100007F:2134 0100007F:D431 01"));
    EXPECT_TRUE(isHeld("  10: 0A00000A:2134 0B00000A:0001 01"));
}

TEST(AutomationSeat, AnythingElseDoesNot)
{
    EXPECT_FALSE(isHeld("   1: 00000000:2134 00000000:0000 0A")); // listening
    EXPECT_FALSE(isHeld("   1: 0100007F:D431 0100007F:2134 01")); // the peer's own end
    EXPECT_FALSE(isHeld("   1: 0100007F:2134 0100007F:D431 08")); // the peer has gone
    EXPECT_FALSE(isHeld("   1: 0100007F:2134 0100007F:D431 06"));
    EXPECT_FALSE(isHeld("   1: 0100007F:2135 0100007F:D431 01"));
    EXPECT_FALSE(isHeld("nonsense"));
    EXPECT_FALSE(isSeatHeld("", 8500));
}
