/**
 * The stream players on their whole graph: the real sources, converter, mixer and playback thread, a card that the test
 * runs, and a network of the test's own.
 */

#include "StreamPlayer.h"

#include "globals.h"
#include "playersSupport.h"

#include "audioLibrary/alsaFake.h"
#include "audioLibrary/mp3Files.h"
#include "audioLibrary/osAbstraction/osAbstraction.h"
#include "audioLibrary/wavFiles.h"

#include <algorithm>
#include <cstdlib>
#include <deque>
#include <gmock/gmock.h>
#include <memory>

using namespace audioLibrarySpace;
using namespace testing;
using alsaFake::card;

namespace
{

/** A Shoutcast server: refuses the first request, and answers each later one with the stream, over and over. */
struct Server {
    bool reachable = true;
    int connections = 0;
    mp3Files::bytes reply; ///< what the connection has still to bring
    mp3Files::bytes audio;
    enum { SENDS, IS_SILENT, HAS_CLOSED } behaviour = SENDS;
} server;

} // namespace

extern "C" {
osaStatus __wrap__Z11osaSockOpenP10sockObject(sockObject* sock)
{
    if (!server.reachable) {
        return OSA_SOCK_ERROR;
    }
    sock->open = 1;
    server.connections++;
    const std::string text = server.connections == 1 ? "ICY 404 Resource Not Found\r\n\r\n" : "ICY 200 OK\r\n\r\n";
    server.reply.assign(text.begin(), text.end());
    return OSA_OK;
}
osaStatus __wrap__Z12osaSockCloseP10sockObject(sockObject* sock)
{
    sock->open = 0;
    return OSA_OK;
}
osaStatus __wrap__Z14osaSockConnectP10sockObject(sockObject*)
{
    return OSA_OK;
}
int __wrap__Z12osaSockWriteP10sockObjectPcj(sockObject*, char*, unsigned int len)
{
    return static_cast<int>(len);
}
int __wrap__Z11osaSockReadP10sockObjectPcj(sockObject*, char* buf, unsigned int len)
{
    if (server.behaviour != Server::SENDS) {
        return server.behaviour == Server::IS_SILENT ? 0 : OSA_CONNECTION_LOST;
    }
    if (server.connections > 1 && server.reply.size() < len) {
        server.reply.insert(server.reply.end(), server.audio.begin(), server.audio.end());
    }
    const size_t numBytes = std::min<size_t>(len, server.reply.size());
    std::copy_n(server.reply.begin(), numBytes, reinterpret_cast<unsigned char*>(buf));
    server.reply.erase(server.reply.begin(), server.reply.begin() + static_cast<long>(numBytes));
    return static_cast<int>(numBytes);
}
}

namespace
{

constexpr unsigned int RING = 180 * 256; ///< frames in the mixer's ring

class StreamPlayerGraph : public PrivateDirectoryTest
{
protected:
    StreamPlayerGraph()
    {
        log_level = LOG_ALL;
        card().reset();
        server = Server();
        mp3Files::recipe recipe;
        recipe.infoTag = false;
        server.audio = mp3Files::encode(recipe);
        // A moving average over the 32 taps: 32 * 1024 is 1.0, so a level goes through as it is.
        wavFiles::bytes filter;
        for (int i = 0; i < 8192; i++) {
            wavFiles::put16(filter, 1024);
        }
        wavFiles::write("FilterCoeff.bin", filter);
    }
    ~StreamPlayerGraph() override
    {
        quietly([this] { player.reset(); });
        EXPECT_EQ(CAudioBlock::returnAudioBlock(0), nullptr);
        EXPECT_EQ(CAudioChain::returnAudioChain(0), nullptr);
        EXPECT_EQ(card().numMisuses(), 0);
    }

    void build()
    {
        lines =
            loggedFrom("StreamPlayer.cpp", [this] { player = std::make_unique<ShoutcastPlayer>(1, "http://radio/"); });
    }
    PlayerStatus start()
    {
        PlayerStatus answer = PLAYER_OK;
        quietly([&] { answer = player->start(); });
        return answer;
    }
    /** As many turns of the loop as it takes the card to play `numFrames`; answers the last turn's status. */
    PlayerStatus play(unsigned int numFrames)
    {
        PlayerStatus answer = PLAYER_OK;
        lines = loggedFrom("StreamPlayer.cpp", [&] {
            for (unsigned int played = 0; played < numFrames; played += 256) {
                answer = player->serviceAudioBlocks();
                ASSERT_TRUE(card().play(256));
            }
        });
        return answer;
    }

    /** The largest left sample among the last `numFrames` that the card took, in 16 bits. */
    static int loudest(size_t numFrames)
    {
        const std::vector<int32_t> samples = card().written();
        int peak = 0;
        for (size_t i = samples.size() - 2 * numFrames; i < samples.size(); i += 2) {
            peak = std::max(peak, std::abs(samples[i] >> 16));
        }
        return peak;
    }

    std::unique_ptr<StreamPlayer> player;
    std::vector<std::string> lines;
};

/** What the average over 32 frames leaves of the material's tone at least. */
constexpr int TONE = 1000;

TEST_F(StreamPlayerGraph, InternetStreamGoesToTheCardStopsAndStartsAgain)
{
    build();
    ASSERT_EQ(player->getStatus(), PLAYER_READY);
    EXPECT_EQ(server.connections, 2);
    ASSERT_EQ(start(), PLAYER_STARTED);
    EXPECT_EQ(play(3 * RING), PLAYER_STARTED);
    EXPECT_THAT(lines, IsEmpty());
    EXPECT_GT(loudest(10000), TONE);
    EXPECT_GT(player->getAvgSampleRate(), 0);

    quietly([this] { EXPECT_EQ(player->stop(), PLAYER_READY); });
    quietly([] { ASSERT_TRUE(card().play(2 * RING)); });
    EXPECT_EQ(loudest(256), 0);
    ASSERT_EQ(start(), PLAYER_STARTED);
    EXPECT_EQ(play(2 * RING), PLAYER_STARTED);
    EXPECT_GT(loudest(10000), TONE);
}

TEST_F(StreamPlayerGraph, StallIsSilenceAndTheStreamGoesOnAfterIt)
{
    build();
    ASSERT_EQ(start(), PLAYER_STARTED);
    (void)play(2 * RING);
    server.behaviour = Server::IS_SILENT;
    EXPECT_EQ(play(2 * RING), PLAYER_STARTED);
    EXPECT_EQ(loudest(1000), 0);
    server.behaviour = Server::SENDS;
    EXPECT_EQ(play(2 * RING), PLAYER_STARTED);
    EXPECT_GT(loudest(10000), TONE);
}

TEST_F(StreamPlayerGraph, LossOfTheOnlyEntryEndsThePlayer)
{
    build();
    ASSERT_EQ(start(), PLAYER_STARTED);
    (void)play(2 * RING);
    server.behaviour = Server::HAS_CLOSED;
    EXPECT_EQ(play(2 * RING), PLAYER_ERROR);
    EXPECT_THAT(lines, ElementsAre("ERROR: Cannot service player block - streamStatus = -1"));
    EXPECT_EQ(loudest(256), 0);
    EXPECT_EQ(player->getStatus(), PLAYER_ERROR);
}

TEST_F(StreamPlayerGraph, PlayerWithoutAStreamHoldsChainsWithoutBlocks)
{
    server.reachable = false;
    build();
    EXPECT_EQ(player->getStatus(), PLAYER_ERROR);
    EXPECT_THAT(lines, Contains("DEBUG: Shoutcast unable to recover!"));
    EXPECT_EQ(CAudioBlock::returnAudioBlock(0), nullptr);
    EXPECT_EQ(CAudioChain::printAllChains(),
              "( 0) Audio chain SOURCE_CHAIN is disconnected (0 audio blocks): Stopped\n"
              "( 1) Audio chain PLAYER_CHAIN is disconnected (0 audio blocks): Stopped\n");
    EXPECT_EQ(start(), PLAYER_ERROR);
    quietly([this] { EXPECT_EQ(player->stop(), PLAYER_ERROR); });
    EXPECT_FALSE(card().isOpen());
}

TEST_F(StreamPlayerGraph, UnreachableHostIsWaitedForAHundredSeconds)
{
    server.behaviour = Server::IS_SILENT; // says nothing to the first request, for as long as the clock stands
    setClockSource([] { return monotonicTime{1000, 0}; });
    build();
    setClockSource(nullptr);
    EXPECT_EQ(player->getStatus(), PLAYER_ERROR);
    const std::vector<unsigned int> sleeps = card().ownerSleeps();
    EXPECT_EQ(std::count(sleeps.begin(), sleeps.end(), 10000U), 10000 + 2); // and two of the card's that goes
    EXPECT_THAT(lines, Not(Contains("DEBUG: Shoutcast unable to recover!")));
    EXPECT_EQ(lines.back(), "DEBUG: Cannot create player block");
}

TEST_F(StreamPlayerGraph, CardThatCannotBeOpenedLeavesNothingBuilt)
{
    card().fail("snd_pcm_open", -EBUSY, 5);
    build();
    EXPECT_EQ(player->getStatus(), PLAYER_NOT_INITIALIZED);
    EXPECT_EQ(server.connections, 0);
    EXPECT_EQ(start(), PLAYER_ERROR);
    EXPECT_EQ(player->getStatus(), PLAYER_NOT_INITIALIZED);
}

} // namespace
