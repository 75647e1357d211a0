/** The heartbeat's thread on a scripted system; it ends by the exception of a pause too many. */

#include "Heartbeat.h"

#include "globals.h"

#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

using testing::ElementsAre;

namespace
{

struct EndOfScript {
};

std::vector<std::string> calls;
int socketAnswer = 33;
size_t numBeatsBeforeFailure = 0; ///< sends that succeed
size_t numPauses = 0;             ///< pauses that return

/** What the thread did until its last pause. */
std::vector<std::string> beat(size_t pauses)
{
    calls.clear();
    numPauses = pauses;
    numBeatsBeforeFailure = 100;
    EXPECT_THROW(Heartbeat(nullptr), EndOfScript);
    return calls;
}

} // namespace

extern "C" {
int __wrap_socket(int domain, int type, int protocol)
{
    calls.push_back(std::string("socket ") + (domain == AF_INET ? "inet" : "?") +
                    (type == SOCK_DGRAM ? " dgram " : " ? ") + std::to_string(protocol));
    return socketAnswer;
}

ssize_t __wrap_sendto(int fd, const void* data, size_t numBytes, int flags, const struct sockaddr* to,
                      socklen_t toBytes)
{
    sockaddr_in address;
    EXPECT_EQ(toBytes, sizeof address);
    memcpy(&address, to, sizeof address);
    calls.push_back(
        "send " + std::to_string(numBytes) + ": " + std::to_string(*static_cast<const uint8_t*>(data)) + " on " +
        std::to_string(fd) + " flags " + std::to_string(flags) + " to " +
        (address.sin_family == AF_INET && address.sin_addr.s_addr == htonl(0x7F000001) ? "127.0.0.1" : "?") + ":" +
        std::to_string(ntohs(address.sin_port)));
    if (numBeatsBeforeFailure == 0) {
        return -1;
    }
    numBeatsBeforeFailure--;
    return static_cast<ssize_t>(numBytes);
}

int __wrap_usleep(useconds_t us)
{
    calls.push_back("pause " + std::to_string(us));
    if (numPauses == 0) {
        throw EndOfScript();
    }
    numPauses--;
    return -1; // cut short by a signal: nobody looks at it
}
}

TEST(Heartbeat, BeatsAtOnceAndAfterEachSecond)
{
    const std::string send = "send 1: 1 on 33 flags 0 to 127.0.0.1:7009";
    EXPECT_THAT(beat(1), ElementsAre("socket inet dgram 0", send, "pause 1000000", send, "pause 1000000"));
}

TEST(HeartbeatDeathTest, NoSocketEndsTheProcess)
{
    socketAnswer = -1;
    EXPECT_EXIT(Heartbeat(nullptr), testing::ExitedWithCode(1),
                "^[^\n]+\\[ERROR\\] Heartbeat.cpp [0-9]+: Cannot create socket for audio player heartbeat\n$");
    socketAnswer = 33;
}

TEST(HeartbeatDeathTest, UnsentBeatEndsTheProcess)
{
    numPauses = 10;
    numBeatsBeforeFailure = 2;
    EXPECT_EXIT(Heartbeat(nullptr), testing::ExitedWithCode(1),
                "^[^\n]+\\[ERROR\\] Heartbeat.cpp [0-9]+: Cannot send ping to watchdog\n$");
}
