/**
 * The stream players step by step, on stand-ins: those of the graph in graphStandIns, the two sources defined here.
 * They write down what is done to them and answer what the test wants.
 */

#include "StreamPlayer.h"

#include "ByteArray.h"
#include "globals.h"
#include "graphStandIns.h"
#include "playersSupport.h"

#include "audioLibrary/livewireStreamPlay.h"
#include "audioLibrary/mp3ShoutcastPlay.h"

#include <algorithm>
#include <climits>
#include <functional>
#include <gmock/gmock.h>
#include <memory>

using namespace audioLibrarySpace;
using namespace testing;
using namespace graphStandIns;

// ---- the sources

namespace
{

/** After how many services the stream is ready; -1 for never. */
int servicesUntilConnected = 0;
/** What the block finds set in the argument of its service. */
std::vector<CServiceTime> serviceArguments;

} // namespace

/** CAudioBlock::init(), which the sources leave as it is: the linker puts this in its place. */
extern "C" streamStatus __wrap__ZN17audioLibrarySpace11CAudioBlock4initEv(CAudioBlock* block)
{
    return answerTo(block->name() + " init");
}

namespace audioLibrarySpace
{

ClivewireStreamPlay::ClivewireStreamPlay(std::string pName, std::string pDevicename) : CAudioPlay(pName)
{
    happened("ClivewireStreamPlay " + pName + " " + pDevicename);
}
ClivewireStreamPlay::~ClivewireStreamPlay()
{
    happened("~" + blockName);
}
runTimeId ClivewireStreamPlay::getRunTimeId()
{
    return LIVEWIRE_PLAY;
}
streamStatus ClivewireStreamPlay::service(CServiceTime& next)
{
    return serviceOf(blockName, next);
}
int32_t ClivewireStreamPlay::timeLeft()
{
    happened("timeLeft");
    return 0;
}

CMp3ShoutcastPlay::CMp3ShoutcastPlay(std::string pName) : CAudioStreamPlay(pName)
{
    happened("CMp3ShoutcastPlay " + blockName);
}
CMp3ShoutcastPlay::~CMp3ShoutcastPlay()
{
    happened("~" + blockName);
}
runTimeId CMp3ShoutcastPlay::getRunTimeId()
{
    return MP3_SHOUTCAST_PLAY;
}
streamStatus CMp3ShoutcastPlay::setNewTopUrl(std::string pUrl)
{
    isShoutcastConnected = servicesUntilConnected == 0;
    return answerTo(blockName + " top " + pUrl);
}
streamStatus CMp3ShoutcastPlay::service(CServiceTime& next)
{
    serviceArguments.push_back(next);
    isShoutcastConnected = static_cast<int>(serviceArguments.size()) == servicesUntilConnected;
    return serviceOf(blockName, next);
}
int32_t CMp3ShoutcastPlay::timeLeft()
{
    happened("timeLeft");
    return 0;
}
std::string CMp3ShoutcastPlay::printBlockStatus()
{
    return "";
}

} // namespace audioLibrarySpace

namespace
{

constexpr int STREAM_ID = 0x12345678;

const std::vector<std::string> BLOCKS = {"CMixer MUX 180",
                                         "MUX init",
                                         "CALSASource ALSA_SOURCE 2 48000.000000 18 256 4 plughw:0,0",
                                         "ALSA_SOURCE init",
                                         "CSampleRateConverter RATE_CONVERTER",
                                         "RATE_CONVERTER init"};
const std::vector<std::string> SOURCE_CHAIN = {"new SOURCE_CHAIN", "SOURCE_CHAIN add MUX at -1",
                                               "SOURCE_CHAIN add ALSA_SOURCE at -1", "SOURCE_CHAIN connect"};
const std::vector<std::string> PLAYER_CHAIN = {"new PLAYER_CHAIN", "PLAYER_CHAIN add RATE_CONVERTER at -1",
                                               "PLAYER_CHAIN add MUX at -1"};

using Strings = std::vector<std::string>;

Strings operator+(Strings all, const Strings& more)
{
    all.insert(all.end(), more.begin(), more.end());
    return all;
}

/** The log of a construction up to the player chain of that class. */
Strings linesOfBuilding(const std::string& player, const std::string& constructor)
{
    return {"DEBUG: StreamPlayer constructor id = 305419896",
            "DEBUG: " + player + " constructor " + constructor,
            "DEBUG: StreamPlayer::createSourceChain",
            "DEBUG: " + player + "::createPlayerChain",
            "DEBUG: StreamPlayer::createPlayerChain",
            "DEBUG: StreamPlayer::createPlayerChain - rate converter added to player chain",
            "DEBUG: StreamPlayer::createPlayerChain - mixer block added to player chain"};
}

/** `list` up to and with `last`. */
Strings upTo(const Strings& list, const std::string& last)
{
    const auto found = std::find(list.begin(), list.end(), last);
    EXPECT_NE(found, list.end()) << last;
    return {list.begin(), found == list.end() ? found : found + 1};
}

class StreamPlayerTest : public Test
{
protected:
    StreamPlayerTest()
    {
        log_level = LOG_ALL;
        reset();
    }
    ~StreamPlayerTest() override
    {
        quietly([this] { player.reset(); });
        EXPECT_EQ(CAudioBlock::returnAudioBlock(0), nullptr);
    }

    /** A script as new, and no player. */
    void reset()
    {
        quietly([this] { player.reset(); });
        script = Script();
        servicesUntilConnected = 0;
        serviceArguments.clear();
    }

    void buildLivewire(int dst = 3)
    {
        lines = loggedFrom("StreamPlayer.cpp", [&] { player = std::make_unique<LivewirePlayer>(STREAM_ID, dst); });
    }
    void buildShoutcast(const char* uri = "http://Radio/x")
    {
        lines = loggedFrom("StreamPlayer.cpp", [&] { player = std::make_unique<ShoutcastPlayer>(STREAM_ID, uri); });
    }

    PlayerStatus start()
    {
        return run([this] { return player->start(); });
    }
    PlayerStatus stop()
    {
        return run([this] { return player->stop(); });
    }
    PlayerStatus service()
    {
        return run([this] { return player->serviceAudioBlocks(); });
    }
    PlayerStatus run(const std::function<PlayerStatus()>& action)
    {
        PlayerStatus answer = PLAYER_OK;
        script.events.clear();
        lines = loggedFrom("StreamPlayer.cpp", [&] { answer = action(); });
        return answer;
    }

    Strings statusRecord()
    {
        ByteArray record(16);
        player->writeStatus(&record);
        Strings bytes;
        for (int i = 0; i < record.getLength(); i++) {
            bytes.push_back(std::to_string(record.getBytes()[i]));
        }
        return bytes;
    }

    static long numEvents(const std::string& event)
    {
        return std::count(script.events.begin(), script.events.end(), event);
    }

    std::unique_ptr<StreamPlayer> player;
    Strings lines;
};

// ---- building the graph

TEST_F(StreamPlayerTest, LivewirePlayerBuildsAndConnectsItsGraphInOrder)
{
    buildLivewire(3);
    EXPECT_EQ(player->getStatus(), PLAYER_READY);
    EXPECT_EQ(script.events, BLOCKS + SOURCE_CHAIN + PLAYER_CHAIN +
                                 Strings({"ClivewireStreamPlay LIVEWIRE_PLAYER hw:Axia,2", "LIVEWIRE_PLAYER init",
                                          "PLAYER_CHAIN add LIVEWIRE_PLAYER at 0", "PLAYER_CHAIN connect"}));
    EXPECT_EQ(lines, linesOfBuilding("LivewirePlayer", "aDst = 3") + Strings({"DEBUG: deviceName = hw:Axia,2"}));
    CAudioChain* chain = CAudioChain::returnAudioChain(1);
    ASSERT_EQ(chain->numAudioBlocks(), 3U);
    EXPECT_EQ(chain->getAudioBlock(0)->name(), "LIVEWIRE_PLAYER"); // upstream first
    EXPECT_EQ(chain->getAudioBlock(1)->name(), "RATE_CONVERTER");
    EXPECT_EQ(chain->getAudioBlock(2)->name(), "MUX");
}

TEST_F(StreamPlayerTest, NameOfTheCaptureDeviceIsFollowedByAnEmptyLine)
{
    testing::internal::CaptureStderr();
    player = std::make_unique<LivewirePlayer>(1, 2);
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr(": deviceName = hw:Axia,1\n\n"));
}

TEST_F(StreamPlayerTest, CaptureDeviceIsTheDestinationLessOne)
{
    const std::pair<int, const char*> rows[] = {
        {1, "hw:Axia,0"},  {10, "hw:Axia,9"},  {100, "hw:Axia,99"},
        {0, "hw:Axia,-1"}, {-7, "hw:Axia,-8"}, {INT_MIN, "hw:Axia,2147483647"},
    };
    for (const auto& [dst, device] : rows) {
        reset();
        buildLivewire(dst);
        EXPECT_THAT(script.events, Contains(std::string("ClivewireStreamPlay LIVEWIRE_PLAYER ") + device));
        EXPECT_EQ(player->getStatus(), PLAYER_READY) << "the device is the block's to refuse";
    }
}

TEST_F(StreamPlayerTest, ShoutcastPlayerBuildsAndConnectsItsGraphInOrder)
{
    servicesUntilConnected = 1;
    buildShoutcast("http://Radio/x");
    EXPECT_EQ(player->getStatus(), PLAYER_READY);
    EXPECT_EQ(script.events,
              BLOCKS + SOURCE_CHAIN + PLAYER_CHAIN +
                  Strings({"CMp3ShoutcastPlay SHOUTCAST_PLAYER", "SHOUTCAST_PLAYER init",
                           "SHOUTCAST_PLAYER top http://Radio/x", "sleep 10000", "SHOUTCAST_PLAYER service",
                           "PLAYER_CHAIN add SHOUTCAST_PLAYER at 0", "PLAYER_CHAIN connect"}));
    EXPECT_EQ(lines, linesOfBuilding("ShoutcastPlayer", "uri = http://Radio/x") +
                         Strings({"DEBUG: ShoutcastPlayer::createPlayerChain - Player chain created by StreamPlayer",
                                  "DEBUG: ShoutcastPlayer::createPlayerBlock",
                                  "DEBUG: ShoutcastPlayer::createPlayerChain - Player chain created by StreamPlayer"}));
    CAudioChain* chain = CAudioChain::returnAudioChain(1);
    ASSERT_EQ(chain->numAudioBlocks(), 3U);
    EXPECT_EQ(chain->getAudioBlock(0)->name(), "SHOUTCAST_PLAYER");
}

TEST_F(StreamPlayerTest, UriIsTakenUpToAnyLength)
{
    const std::string widest(1024, 'u');
    buildShoutcast(widest.c_str());
    EXPECT_THAT(script.events, Contains("SHOUTCAST_PLAYER top " + widest));
}

TEST_F(StreamPlayerTest, EmptyUriIsTheBlocksToRefuse)
{
    buildShoutcast("");
    EXPECT_THAT(script.events, Contains("SHOUTCAST_PLAYER top "));
    EXPECT_THAT(lines, Contains("DEBUG: ShoutcastPlayer constructor uri = "));
}

// ---- the wait for an internet stream

TEST_F(StreamPlayerTest, StreamThatIsReadyAtOnceIsNotWaitedFor)
{
    buildShoutcast();
    EXPECT_EQ(player->getStatus(), PLAYER_READY);
    EXPECT_THAT(script.events, Not(Contains("sleep 10000")));
    EXPECT_THAT(script.events, Not(Contains("SHOUTCAST_PLAYER service")));
}

TEST_F(StreamPlayerTest, WaitPausesTenMillisecondsBeforeEachService)
{
    servicesUntilConnected = 3;
    buildShoutcast();
    EXPECT_EQ(player->getStatus(), PLAYER_READY);
    const auto first = std::find(script.events.begin(), script.events.end(), "sleep 10000");
    EXPECT_THAT(Strings(first, script.events.end()),
                ElementsAre("sleep 10000", "SHOUTCAST_PLAYER service", "sleep 10000", "SHOUTCAST_PLAYER service",
                            "sleep 10000", "SHOUTCAST_PLAYER service", "PLAYER_CHAIN add SHOUTCAST_PLAYER at 0",
                            "PLAYER_CHAIN connect"));
    ASSERT_EQ(serviceArguments.size(), 3U);
    for (const CServiceTime& argument : serviceArguments) {
        EXPECT_EQ(argument, CServiceTime()); // a fresh one, though the block has written into the last one
    }
}

TEST_F(StreamPlayerTest, StreamThatComesUpInTheLastTurnIsInTime)
{
    servicesUntilConnected = 10000;
    buildShoutcast();
    EXPECT_EQ(player->getStatus(), PLAYER_READY);
    EXPECT_EQ(numEvents("sleep 10000"), 10000);
}

TEST_F(StreamPlayerTest, StreamThatNeverComesUpEndsThePlayerAfterTenThousandTurns)
{
    servicesUntilConnected = -1;
    buildShoutcast();
    EXPECT_EQ(player->getStatus(), PLAYER_ERROR);
    EXPECT_EQ(numEvents("sleep 10000"), 10000);
    EXPECT_EQ(numEvents("SHOUTCAST_PLAYER service"), 10000);
    EXPECT_EQ(lines.back(), "DEBUG: Cannot create player block");
    EXPECT_THAT(lines, Not(Contains("DEBUG: Shoutcast unable to recover!")));
    EXPECT_EQ(CAudioBlock::returnAudioBlock(0), nullptr);
}

TEST_F(StreamPlayerTest, ServiceThatFailsEndsTheWaitAtOnce)
{
    servicesUntilConnected = -1;
    script.answers["SHOUTCAST_PLAYER service"] = {STREAM_OK, INVALID_SERVER};
    buildShoutcast();
    EXPECT_EQ(player->getStatus(), PLAYER_ERROR);
    EXPECT_EQ(numEvents("SHOUTCAST_PLAYER service"), 2);
    EXPECT_THAT(Strings(lines.end() - 2, lines.end()),
                ElementsAre("DEBUG: Shoutcast unable to recover!", "DEBUG: Cannot create player block"));
}

TEST_F(StreamPlayerTest, FailureOfTheServiceThatConnectsIsAFailure)
{
    servicesUntilConnected = 1;
    script.answers["SHOUTCAST_PLAYER service"] = {PORT_CFG_ERROR};
    buildShoutcast();
    EXPECT_EQ(player->getStatus(), PLAYER_ERROR);
    EXPECT_THAT(lines, Contains("DEBUG: Shoutcast unable to recover!"));
}

// ---- what can't be built

TEST_F(StreamPlayerTest, BlockThatFailsToInitializeLeavesNothingInitialized)
{
    for (const std::string block : {"MUX", "ALSA_SOURCE", "RATE_CONVERTER"}) {
        for (const bool livewire : {true, false}) {
            reset();
            script.answers[block + " init"] = {NO_MEMORY};
            livewire ? buildLivewire() : buildShoutcast();
            EXPECT_EQ(player->getStatus(), PLAYER_NOT_INITIALIZED) << block;
            EXPECT_EQ(lines.size(), 2U) << "a constructor's two lines, and none of the failure";
            Strings built = upTo(BLOCKS, block + " init");
            ASSERT_GE(script.events.size(), built.size());
            EXPECT_EQ(Strings(script.events.begin(), script.events.begin() + static_cast<long>(built.size())), built);
            EXPECT_THAT(script.events, Not(Contains("new SOURCE_CHAIN")));
            EXPECT_THAT(script.events, Contains("~" + block));
            EXPECT_EQ(CAudioBlock::returnAudioBlock(0), nullptr);
            // There are no chains: nothing starts, and the status stays.
            EXPECT_EQ(start(), PLAYER_ERROR);
            EXPECT_THAT(script.events, IsEmpty());
            EXPECT_EQ(stop(), PLAYER_ERROR);
            EXPECT_EQ(service(), PLAYER_NOT_INITIALIZED);
            EXPECT_EQ(player->getStatus(), PLAYER_NOT_INITIALIZED);
            EXPECT_EQ(player->getAvgSampleRate(), 0);
        }
    }
}

/** A step that fails, what the log ends with, and whether the chains are deleted then. */
struct failingStep {
    const char* step;
    Strings lastLines;
    bool chainsGo;
};

const failingStep sourceChainSteps[] = {
    {"SOURCE_CHAIN add MUX at -1", {"ERROR: Cannot add mixer block to source chain"}, false},
    {"SOURCE_CHAIN add ALSA_SOURCE at -1", {"ERROR: Cannot add ALSA source to source chain"}, false},
    {"SOURCE_CHAIN connect", {"ERROR: Cannot connect source chain"}, false},
};

const failingStep livewireSteps[] = {
    {"PLAYER_CHAIN add RATE_CONVERTER at -1",
     {"DEBUG: StreamPlayer::createPlayerChain", "ERROR: Cannot add rate converter to player chain",
      "DEBUG: Cannot create player chain"},
     true},
    {"PLAYER_CHAIN add MUX at -1",
     {"DEBUG: StreamPlayer::createPlayerChain - rate converter added to player chain",
      "ERROR: Cannot add mixer block to player chain", "DEBUG: Cannot create player chain"},
     true},
    {"LIVEWIRE_PLAYER init", {"DEBUG: deviceName = hw:Axia,2", "DEBUG: Cannot create player block"}, false},
    {"PLAYER_CHAIN add LIVEWIRE_PLAYER at 0",
     {"DEBUG: deviceName = hw:Axia,2", "DEBUG: Cannot add player block to player chain"},
     false},
    {"PLAYER_CHAIN connect", {"DEBUG: deviceName = hw:Axia,2", "DEBUG: Cannot connect player chain"}, false},
};

const char* const createdByStreamPlayer =
    "DEBUG: ShoutcastPlayer::createPlayerChain - Player chain created by StreamPlayer";

const failingStep shoutcastSteps[] = {
    {"PLAYER_CHAIN add RATE_CONVERTER at -1",
     {"DEBUG: StreamPlayer::createPlayerChain", "ERROR: Cannot add rate converter to player chain",
      "DEBUG: ShoutcastPlayer::createPlayerChain - StreamPlayer create player chain"},
     true},
    {"PLAYER_CHAIN add MUX at -1",
     {"DEBUG: StreamPlayer::createPlayerChain - rate converter added to player chain",
      "ERROR: Cannot add mixer block to player chain",
      "DEBUG: ShoutcastPlayer::createPlayerChain - StreamPlayer create player chain"},
     true},
    {"SHOUTCAST_PLAYER init",
     {createdByStreamPlayer, "DEBUG: ShoutcastPlayer::createPlayerBlock", "DEBUG: Cannot create player block"},
     false},
    {"SHOUTCAST_PLAYER top http://Radio/x",
     {createdByStreamPlayer, "DEBUG: ShoutcastPlayer::createPlayerBlock", "DEBUG: Cannot create player block"},
     false},
    {"PLAYER_CHAIN add SHOUTCAST_PLAYER at 0",
     {"DEBUG: ShoutcastPlayer::createPlayerBlock", createdByStreamPlayer,
      "DEBUG: Cannot add player block to player chain"},
     false},
    {"PLAYER_CHAIN connect",
     {"DEBUG: ShoutcastPlayer::createPlayerBlock", createdByStreamPlayer, "DEBUG: Cannot connect player chain"},
     false},
};

class StreamPlayerThatFails : public StreamPlayerTest
{
protected:
    void fail(const failingStep& one, const std::function<void()>& build)
    {
        SCOPED_TRACE(one.step);
        reset();
        script.answers[one.step] = {CHAIN_ERROR_NO_PORT_AVAILABLE};
        build();
        EXPECT_EQ(player->getStatus(), PLAYER_ERROR);
        ASSERT_GE(lines.size(), one.lastLines.size());
        EXPECT_EQ(Strings(lines.end() - static_cast<long>(one.lastLines.size()), lines.end()), one.lastLines);
        expectNothingAfterTheStep(one);
        expectNoBlocks();
        // The source chain may have been whole, and its blocks are gone: nothing may reach for them.
        EXPECT_EQ(start(), PLAYER_ERROR);
        EXPECT_EQ(stop(), PLAYER_ERROR);
        EXPECT_EQ(service(), PLAYER_ERROR);
        EXPECT_THAT(script.events, IsEmpty());
        EXPECT_EQ(player->getAvgSampleRate(), 0);
        EXPECT_THAT(statusRecord(), ElementsAre("0", "0", "0", "0", "0", "0", "0"));
    }

    void expectNothingAfterTheStep(const failingStep& one)
    {
        const auto failed = std::find(script.events.begin(), script.events.end(), one.step);
        ASSERT_NE(failed, script.events.end());
        const Strings after(failed + 1, script.events.end());
        EXPECT_EQ(one.chainsGo, std::count(after.begin(), after.end(), "delete chains") == 1);
        EXPECT_EQ(CAudioChain::returnAudioChain(0) == nullptr, one.chainsGo);
        for (const std::string& event : after) {
            EXPECT_THAT(event, Not(HasSubstr(" add "))) << "the constructor goes on";
            EXPECT_THAT(event, Not(HasSubstr(" connect")));
            EXPECT_THAT(event, Not(StartsWith("new ")));
        }
    }
    /** Every block is gone, and no chain that is left holds one. */
    static void expectNoBlocks()
    {
        EXPECT_EQ(CAudioBlock::returnAudioBlock(0), nullptr);
        for (unsigned int i = 0; CAudioChain::returnAudioChain(i) != nullptr; i++) {
            EXPECT_EQ(CAudioChain::returnAudioChain(i)->numAudioBlocks(), 0U);
            EXPECT_FALSE(CAudioChain::returnAudioChain(i)->isChainConnected());
        }
    }
};

TEST_F(StreamPlayerThatFails, EachStepOfTheSourceChainEndsTheConstruction)
{
    for (const failingStep& one : sourceChainSteps) {
        fail(one, [this] { buildLivewire(); });
        EXPECT_THAT(script.events, Not(Contains("new PLAYER_CHAIN")));
        fail(one, [this] { buildShoutcast(); });
    }
}

TEST_F(StreamPlayerThatFails, EachStepOfTheLivewirePlayersChainEndsTheConstruction)
{
    for (const failingStep& one : livewireSteps) {
        fail(one, [this] { buildLivewire(); });
    }
}

TEST_F(StreamPlayerThatFails, EachStepOfTheShoutcastPlayersChainEndsTheConstruction)
{
    for (const failingStep& one : shoutcastSteps) {
        fail(one, [this] { buildShoutcast(); });
    }
}

TEST_F(StreamPlayerThatFails, ChainsGoWithThePlayer)
{
    script.answers["PLAYER_CHAIN connect"] = {STREAM_ERROR};
    buildLivewire();
    script.events.clear();
    quietly([this] { player.reset(); });
    EXPECT_THAT(script.events, ElementsAre("delete chains", "~SOURCE_CHAIN", "~PLAYER_CHAIN"));
}

// ---- start and stop

/** A player that is given its chains by the test. */
struct BarePlayer : StreamPlayer {
    BarePlayer(CAudioChain* source, CAudioChain* stream) : StreamPlayer(1)
    {
        sourceChain = source;
        playerChain = stream;
        status = PLAYER_READY;
    }
};

CAudioChain* connectedChain(const std::string& name)
{
    auto* chain = new CAudioChain(name);
    EXPECT_EQ(chain->connectChain(), STREAM_OK);
    return chain;
}

TEST_F(StreamPlayerTest, StartNeedsBothChainsAndLeavesTheStatusWithoutThem)
{
    for (const bool hasSource : {false, true}) {
        quietly([&] {
            player = std::make_unique<BarePlayer>(hasSource ? connectedChain("SOURCE_CHAIN") : nullptr,
                                                  hasSource ? nullptr : connectedChain("PLAYER_CHAIN"));
        });
        EXPECT_EQ(start(), PLAYER_ERROR);
        EXPECT_THAT(script.events, IsEmpty());
        EXPECT_EQ(player->getStatus(), PLAYER_READY);
        quietly([this] { player.reset(); });
    }
}

TEST_F(StreamPlayerTest, StartStartsTheSourceChainThenThePlayerChain)
{
    buildLivewire();
    EXPECT_EQ(start(), PLAYER_STARTED);
    EXPECT_THAT(script.events, ElementsAre("SOURCE_CHAIN start", "PLAYER_CHAIN start"));
    EXPECT_THAT(lines, ElementsAre("DEBUG StreamPlayer::start")); // no colon
    EXPECT_EQ(player->getStatus(), PLAYER_STARTED);
}

TEST_F(StreamPlayerTest, PlayerChainDecidesWhetherThePlayerHasStarted)
{
    struct row {
        streamStatus source;
        streamStatus player;
        PlayerStatus answer;
    };
    const row rows[] = {{STREAM_OK, STREAM_ERROR, PLAYER_ERROR},
                        {STREAM_ERROR, STREAM_OK, PLAYER_STARTED},
                        {STREAM_ERROR, STREAM_ERROR, PLAYER_ERROR}};
    for (const row& one : rows) {
        reset();
        buildLivewire();
        script.answers["SOURCE_CHAIN start"] = {one.source};
        script.answers["PLAYER_CHAIN start"] = {one.player};
        EXPECT_EQ(start(), one.answer);
        EXPECT_THAT(script.events, ElementsAre("SOURCE_CHAIN start", "PLAYER_CHAIN start"));
        EXPECT_EQ(player->getStatus(), one.answer);
    }
}

TEST_F(StreamPlayerTest, StopStopsThePlayerChainOnly)
{
    buildLivewire();
    (void)start();
    EXPECT_EQ(stop(), PLAYER_READY);
    EXPECT_THAT(script.events, ElementsAre("PLAYER_CHAIN stop"));
    EXPECT_THAT(lines, IsEmpty());
    EXPECT_EQ(player->getStatus(), PLAYER_READY);
    EXPECT_EQ(start(), PLAYER_STARTED); // and on it goes
}

TEST_F(StreamPlayerTest, PlayerChainThatDoesNotStopIsAnError)
{
    buildLivewire();
    (void)start();
    script.answers["PLAYER_CHAIN stop"] = {STREAM_ERROR};
    EXPECT_EQ(stop(), PLAYER_ERROR);
    EXPECT_EQ(player->getStatus(), PLAYER_ERROR);
}

TEST_F(StreamPlayerTest, DestructorDeletesChainsThenBlocksThePlaybackFirst)
{
    servicesUntilConnected = 1;
    buildShoutcast();
    script.events.clear();
    quietly([this] { player.reset(); });
    EXPECT_THAT(script.events, ElementsAre("delete chains", "~SOURCE_CHAIN", "~PLAYER_CHAIN", "~ALSA_SOURCE", "~MUX",
                                           "~RATE_CONVERTER", "~SHOUTCAST_PLAYER"));
}

// ---- service

TEST_F(StreamPlayerTest, OnlyAStartedPlayerServicesItsBlocks)
{
    buildLivewire();
    EXPECT_EQ(service(), PLAYER_READY);
    EXPECT_THAT(script.events, IsEmpty());
}

TEST_F(StreamPlayerTest, ServiceTakesTheBlocksFromTheSourceToTheCardAndAsksForNoTimeLeft)
{
    buildLivewire();
    (void)start();
    EXPECT_EQ(service(), PLAYER_STARTED);
    EXPECT_THAT(script.events,
                ElementsAre("LIVEWIRE_PLAYER service", "RATE_CONVERTER service", "MUX service", "ALSA_SOURCE service"));
    EXPECT_THAT(lines, IsEmpty());
}

TEST_F(StreamPlayerTest, BlockThatFailsEndsThePlayer)
{
    const std::pair<const char*, const char*> rows[] = {
        {"LIVEWIRE_PLAYER", "ERROR: Cannot service player block - streamStatus = -1"},
        {"RATE_CONVERTER", "ERROR: Cannot service rate converter - streamStatus = -1"},
        {"MUX", "ERROR: Cannot service mixer block - streamStatus = -1"},
        {"ALSA_SOURCE", "ERROR: Cannot service ALSA source - streamStatus = -1"},
    };
    Strings serviced;
    for (const auto& [block, line] : rows) {
        reset();
        buildLivewire();
        (void)start();
        script.answers[std::string(block) + " service"] = {STREAM_ERROR};
        serviced.push_back(std::string(block) + " service");
        EXPECT_EQ(service(), PLAYER_ERROR);
        EXPECT_EQ(script.events, serviced) << "none behind the one that failed";
        EXPECT_THAT(lines, ElementsAre(line));
        EXPECT_EQ(player->getStatus(), PLAYER_ERROR);
        EXPECT_EQ(service(), PLAYER_ERROR); // and is left alone from now on
        EXPECT_THAT(script.events, IsEmpty());
    }
}

TEST_F(StreamPlayerTest, NextServiceIsTheEarliestWishAndHalfASecondAtMost)
{
    setClockSource([] { return monotonicTime{1000, 600000000}; });
    buildLivewire();
    (void)start();
    (void)service();
    CServiceTime next = player->getNextServiceTime();
    EXPECT_EQ(next.nextServiceTime.tv_sec, 1001);
    EXPECT_EQ(next.nextServiceTime.tv_nsec, 100000000);
    EXPECT_FALSE(next.immediateService);
    EXPECT_FALSE(next.serviceRequired);

    CServiceTime wish;
    wish.nextServiceTime = {1000, 642000000};
    script.wishes["MUX"] = wish;
    wish.nextServiceTime = {1000, 700000000};
    script.wishes["LIVEWIRE_PLAYER"] = wish;
    (void)service();
    next = player->getNextServiceTime();
    EXPECT_EQ(next.nextServiceTime.tv_sec, 1000);
    EXPECT_EQ(next.nextServiceTime.tv_nsec, 642000000);
    setClockSource(nullptr);
}

TEST_F(StreamPlayerTest, UrgencyOfTheLastServiceIsForgotten)
{
    buildLivewire();
    (void)start();
    for (bool CServiceTime::*flag : {&CServiceTime::immediateService, &CServiceTime::serviceRequired}) {
        script.wishes["MUX"].*flag = true;
        (void)service();
        EXPECT_TRUE(player->getNextServiceTime().*flag);
        script.wishes.clear();
        (void)service();
        EXPECT_FALSE(player->getNextServiceTime().*flag);
    }
}

// ---- what it tells of itself

TEST_F(StreamPlayerTest, StatusRecordCarriesTheStreamOnlyWhileItRuns)
{
    const Strings stopped = {"0", "0", "0", "0", "0", "0", "0"};
    buildLivewire();
    EXPECT_EQ(statusRecord(), stopped);
    (void)start();
    EXPECT_EQ(statusRecord(), Strings({"1", "120", "86", "52", "18", "0", "0"})); // 0x12345678, low byte first
    (void)stop();
    EXPECT_EQ(statusRecord(), stopped);
}

TEST_F(StreamPlayerTest, NegativeStreamIdIsWrittenAsItIs)
{
    quietly([this] { player = std::make_unique<LivewirePlayer>(-2, 1); });
    (void)start();
    EXPECT_THAT(statusRecord(), ElementsAre("1", "254", "255", "255", "255", "0", "0"));
}

} // namespace
