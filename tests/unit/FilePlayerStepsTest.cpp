/**
 * FilePlayer step by step: its blocks, chains, log and automation are stand-ins, those of the graph in graphStandIns,
 * the others defined here. They write down what is done to them and answer what the test wants.
 */

#include "FilePlayer.h"

#include "ByteArray.h"
#include "globals.h"
#include "graphStandIns.h"
#include "playersSupport.h"

#include "audioLibrary/mp3FilePlay.h"
#include "audioLibrary/toneGenerator.h"
#include "audioLibrary/wavFilePlay.h"

#include <deque>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <map>
#include <sys/syscall.h>
#include <unistd.h>

using namespace audioLibrarySpace;
using namespace testing;
using namespace graphStandIns;

extern "C" int access(const char* path, int mode) noexcept
{
    if (std::string(path) != "/mnt/usb/unmounted.usb") {
        return static_cast<int>(syscall(SYS_faccessat, AT_FDCWD, path, mode));
    }
    happened("access " + std::to_string(mode));
    return script.unmounted ? 0 : -1;
}

// ---- the sources

namespace audioLibrarySpace
{

CToneGenerator::CToneGenerator(std::string name, float sampleRate) : CAudioPlay(name)
{
    happened("CToneGenerator " + name + " " + std::to_string(sampleRate));
}
CToneGenerator::~CToneGenerator()
{
    happened("~" + blockName);
}
runTimeId CToneGenerator::getRunTimeId()
{
    return TONE_GENERATOR;
}
streamStatus CToneGenerator::init()
{
    return answerTo(blockName + " init");
}
streamStatus CToneGenerator::service(CServiceTime& next)
{
    return serviceOf(blockName, next);
}

// A file's block goes by the name of its file.
CWavFilePlay::CWavFilePlay(std::string name) : CAudioFilePlay(name) {}
CWavFilePlay::~CWavFilePlay()
{
    happened("~" + blockName);
}
runTimeId CWavFilePlay::getRunTimeId()
{
    return WAV_FILE_PLAY;
}
streamStatus CWavFilePlay::setNewFile(std::string newName)
{
    const streamStatus status = answerTo(blockName + " open " + newName);
    blockName = filename = newName;
    return status;
}
streamStatus CWavFilePlay::service(CServiceTime& next)
{
    return serviceOf(blockName, next);
}
int32_t CWavFilePlay::timeLeft()
{
    const auto left = script.timeLeft.find(filename);
    return left == script.timeLeft.end() ? 60000 : left->second;
}

CMp3FilePlay::CMp3FilePlay(std::string name) : CAudioFilePlay(name) {}
CMp3FilePlay::~CMp3FilePlay()
{
    happened("~" + blockName);
}
runTimeId CMp3FilePlay::getRunTimeId()
{
    return MP3_FILE_PLAY;
}
streamStatus CMp3FilePlay::setNewFile(std::string newName)
{
    const streamStatus status = answerTo(blockName + " open " + newName);
    blockName = filename = newName;
    return status;
}
streamStatus CMp3FilePlay::service(CServiceTime& next)
{
    return serviceOf(blockName, next);
}
int32_t CMp3FilePlay::timeLeft()
{
    const auto left = script.timeLeft.find(filename);
    return left == script.timeLeft.end() ? 60000 : left->second;
}

} // namespace audioLibrarySpace

// ---- the log and automation

CAsPlayedLog::CAsPlayedLog(sqlite3* db) : database(db) {}
CAsPlayedLog::~CAsPlayedLog() = default;
void CAsPlayedLog::clearAllEntries()
{
    happened("log clear");
}
void CAsPlayedLog::addEntry(asPlayedLogEntry* entry)
{
    happened("log item " + std::to_string(entry->getItemID()) + " playlist " + std::to_string(entry->getPlaylistID()) +
             " place " + std::to_string(entry->getPlaylistAssocID()) + " type " +
             std::to_string(entry->getEntryType()) + " status " + std::to_string(entry->getStatus()) + " tx " +
             std::to_string(entry->getTxStatus()) + " '" + entry->desc + "'");
    delete entry;
}
int CAsPlayedLog::writeToDb()
{
    happened("log write");
    return SQLITE_DONE;
}

AutomationAPI::AutomationAPI(AudioDatabase* automationDatabase) : db(automationDatabase) {}
AutomationAPI::~AutomationAPI() = default;
void AutomationAPI::sendPlayingNowTransaction(PlaylistItem* pli)
{
    happened("playing now " + pli->getPath());
}

namespace
{

constexpr const char* ACTIVE = "ACTIVE_PLAYER_CHAIN";
constexpr const char* STANDBY = "STANDBY_PLAYER_CHAIN";

class FilePlayerSteps : public PlayersTest
{
protected:
    FilePlayerSteps()
    {
        script = Script();
        openDatabase();
        playlist = addPlaylist("first");
        sqliteSpy = SqliteSpy();
    }
    ~FilePlayerSteps() override
    {
        quietly([this] { player.reset(); });
        EXPECT_EQ(CAudioBlock::returnAudioBlock(0), nullptr);
    }

    void build()
    {
        quietly([this] { player.reset(); }); // it deletes all blocks of the process, so it goes first
        lines = loggedFrom("FilePlayer.cpp", [this] { player = std::make_unique<FilePlayer>(playlist); });
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
        lines = loggedFrom("FilePlayer.cpp", [&] { answer = action(); });
        return answer;
    }
    using PlayersTest::run;

    /** A started player of those WAV files; the first one is on air. */
    void play(const std::vector<std::string>& files)
    {
        int sequence = 0;
        for (const std::string& file : files) {
            addEntry(playlist, ++sequence, ItemType::WAV, file);
        }
        build();
        ASSERT_EQ(start(), PLAYER_STARTED);
    }

    /** Services once with the file on air at its end. */
    PlayerStatus endOf(const std::string& file)
    {
        script.timeLeft[file] = 0;
        const PlayerStatus answer = service();
        script.timeLeft.erase(file);
        return answer;
    }

    /** The files that were tried since the last step, in order. */
    static std::vector<std::string> opened()
    {
        std::vector<std::string> files;
        for (const std::string& event : script.events) {
            const size_t at = event.find(" open ");
            if (at != std::string::npos) {
                files.push_back(event.substr(at + 6));
            }
        }
        return files;
    }

    static long sleeps() { return std::count(script.events.begin(), script.events.end(), "sleep 500000"); }

    static CAudioChain* chain(const std::string& name)
    {
        const std::map<std::string, unsigned int> order = {{"SOURCE_CHAIN", 0}, {ACTIVE, 1}, {STANDBY, 2}};
        return CAudioChain::returnAudioChain(order.at(name));
    }
    static void leaveOnlyTheHeadOf(const std::string& name)
    {
        while (chain(name)->numAudioBlocks() > 1) {
            (void)chain(name)->remAudioBlock(1);
        }
    }
    static std::string head(const std::string& name) { return chain(name)->getAudioBlock(0)->name(); }

    int playlist = 0;
    std::unique_ptr<FilePlayer> player;
    std::vector<std::string> lines;
};

// ---- building

TEST_F(FilePlayerSteps, ConstructorBuildsAndConnectsTheGraphInOrder)
{
    addEntry(playlist, 1, ItemType::WAV, "a.wav");
    script.events.clear();
    build();
    EXPECT_EQ(player->getStatus(), PLAYER_READY);
    EXPECT_THAT(script.events,
                ElementsAre("access 4",                                                                       //
                            "CMixer MUX 180", "MUX init",                                                     //
                            "CALSASource ALSA_SOURCE 2 48000.000000 18 256 4 plughw:0,0", "ALSA_SOURCE init", //
                            "CToneGenerator TONE_1 44100.000000", "TONE_1 init",                              //
                            "CSampleRateConverter RATE_CONVERTER_1", "RATE_CONVERTER_1 init",                 //
                            "CToneGenerator TONE_2 44100.000000", "TONE_2 init",                              //
                            "CSampleRateConverter RATE_CONVERTER_2", "RATE_CONVERTER_2 init",                 //
                            "new SOURCE_CHAIN", "SOURCE_CHAIN add MUX at -1",                                 //
                            "SOURCE_CHAIN add ALSA_SOURCE at -1", "SOURCE_CHAIN connect",                     //
                            "new ACTIVE_PLAYER_CHAIN", "ACTIVE_PLAYER_CHAIN add TONE_1 at -1",                //
                            "ACTIVE_PLAYER_CHAIN add RATE_CONVERTER_1 at -1",                                 //
                            "ACTIVE_PLAYER_CHAIN add MUX at -1", "ACTIVE_PLAYER_CHAIN connect",               //
                            "new STANDBY_PLAYER_CHAIN", "STANDBY_PLAYER_CHAIN add TONE_2 at -1",              //
                            "STANDBY_PLAYER_CHAIN add RATE_CONVERTER_2 at -1",                                //
                            "STANDBY_PLAYER_CHAIN add MUX at -1", "STANDBY_PLAYER_CHAIN connect"));
    EXPECT_THAT(lines, ElementsAre("DEBUG: FilePlayer constructor", "DEBUG: FilePlayer::createSourceChain",
                                   "DEBUG: FilePlayer::createActiveChain", "DEBUG: FilePlayer::createStandbyChain"));
}

TEST_F(FilePlayerSteps, EmptyPlaylistBuildsNothingAndDeclinesToStart)
{
    build();
    EXPECT_EQ(player->getStatus(), PLAYER_NOT_INITIALIZED);
    EXPECT_THAT(script.events, ElementsAre("access 4"));
    EXPECT_EQ(start(), PLAYER_NOT_INITIALIZED);
    EXPECT_THAT(lines, ElementsAre("DEBUG: FilePlayer::start", "DEBUG: FilePlayer::start - player not ready"));
    EXPECT_EQ(service(), PLAYER_NOT_INITIALIZED);
    EXPECT_EQ(player->getAvgSampleRate(), 0);
    EXPECT_EQ(stop(), PLAYER_ERROR); // there is no active chain
    EXPECT_THAT(lines, ElementsAre("DEBUG: FilePlayer::stop"));
}

TEST_F(FilePlayerSteps, UnmountedStoreBuildsNothing)
{
    addEntry(playlist, 1, ItemType::WAV, "a.wav");
    script.unmounted = true;
    script.events.clear();
    build();
    EXPECT_EQ(player->getStatus(), PLAYER_NOT_INITIALIZED);
    EXPECT_THAT(script.events, ElementsAre("access 4"));
    EXPECT_EQ(start(), PLAYER_NOT_INITIALIZED);
}

TEST_F(FilePlayerSteps, MarkerIsLookedForInTheConstructorOnly)
{
    play({"a.wav", "b.wav"});
    script.unmounted = true;
    EXPECT_EQ(endOf("a.wav"), PLAYER_STARTED);
    EXPECT_THAT(script.events, Not(Contains("access 4")));
    EXPECT_THAT(opened(), ElementsAre("b.wav"));
}

TEST_F(FilePlayerSteps, BlockThatFailsToInitializeEndsTheConstruction)
{
    const std::pair<const char*, const char*> rows[] = {
        {"MUX", "DEBUG: FilePlayer::createAudioBlocks failed to initialize mixer block"},
        {"ALSA_SOURCE", "DEBUG: FilePlayer::createAudioBlocks failed to initialize ALSA source"},
        {"TONE_1", "DEBUG: FilePlayer::createAudioBlocks failed to initialize player block 1"},
        {"RATE_CONVERTER_1", "DEBUG: FilePlayer::createAudioBlocks failed to initialize rate converter 1"},
        {"TONE_2", "DEBUG: FilePlayer::createAudioBlocks failed to initialize player block 2"},
        {"RATE_CONVERTER_2", "DEBUG: FilePlayer::createAudioBlocks failed to initialize rate converter 2"},
    };
    addEntry(playlist, 1, ItemType::WAV, "a.wav");
    for (const auto& [block, line] : rows) {
        script = Script();
        script.answers[std::string(block) + " init"] = {NO_MEMORY};
        build();
        EXPECT_EQ(player->getStatus(), PLAYER_ERROR) << block;
        EXPECT_THAT(lines, ElementsAre("DEBUG: FilePlayer constructor", line)) << block;
        EXPECT_THAT(script.events, Contains(std::string("~") + block));
        EXPECT_THAT(script.events, Not(Contains("new SOURCE_CHAIN"))) << block;
        EXPECT_EQ(CAudioBlock::returnAudioBlock(0), nullptr) << block;
        EXPECT_EQ(start(), PLAYER_ERROR) << block;
        EXPECT_EQ(stop(), PLAYER_ERROR) << block;
    }
}

TEST_F(FilePlayerSteps, ChainThatCannotBeBuiltEndsTheConstruction)
{
    struct row {
        const char* step;
        int failingCall; ///< which of the calls of that step fails
        const char* line;
        const char* chainLine;
    };
    const char* source = "ERROR: FilePlayer::createChains - cannot create source chain";
    const char* active = "ERROR: FilePlayer::createChains - cannot create active chain";
    const char* standby = "ERROR: FilePlayer::createChains - cannot create standby chain";
    const row rows[] = {
        {"SOURCE_CHAIN add MUX at -1", 0, "ERROR: Cannot add mixer block to source chain", source},
        {"SOURCE_CHAIN add ALSA_SOURCE at -1", 0, "ERROR: Cannot add ALSA source to source chain", source},
        {"SOURCE_CHAIN connect", 0, "ERROR: Cannot connect source chain", source},
        {"ACTIVE_PLAYER_CHAIN add TONE_1 at -1", 0, "ERROR: Cannot add player to active chain", active},
        {"ACTIVE_PLAYER_CHAIN add RATE_CONVERTER_1 at -1", 0, "ERROR: Cannot add rate converter to active chain",
         active},
        {"ACTIVE_PLAYER_CHAIN add MUX at -1", 0, "ERROR: Cannot add mixer block to active chain", active},
        {"ACTIVE_PLAYER_CHAIN connect", 0, "ERROR: Cannot connect active chain", active},
        {"STANDBY_PLAYER_CHAIN add TONE_2 at -1", 0, "ERROR: Cannot add player to standby chain", standby},
        {"STANDBY_PLAYER_CHAIN add RATE_CONVERTER_2 at -1", 0, "ERROR: Cannot add rate converter to standby chain",
         standby},
        {"STANDBY_PLAYER_CHAIN add MUX at -1", 0, "ERROR: Cannot add mixer block to standby chain", standby},
        {"STANDBY_PLAYER_CHAIN connect", 0, "ERROR: Cannot connect standby chain", standby},
    };
    addEntry(playlist, 1, ItemType::WAV, "a.wav");
    for (const row& one : rows) {
        script = Script();
        script.answers[one.step] = {CHAIN_ERROR_NO_PORT_AVAILABLE};
        build();
        EXPECT_EQ(player->getStatus(), PLAYER_ERROR) << one.step;
        ASSERT_GE(lines.size(), 3U);
        EXPECT_EQ(lines[lines.size() - 2], one.line); // the step, then the chain
        EXPECT_EQ(lines.back(), one.chainLine);
        const auto failed = std::find(script.events.begin(), script.events.end(), one.step);
        ASSERT_NE(failed, script.events.end());
        EXPECT_EQ(*(failed + 1), "delete chains") << one.step;
        EXPECT_EQ(CAudioBlock::returnAudioBlock(0), nullptr) << one.step;
        EXPECT_EQ(stop(), PLAYER_ERROR) << one.step; // as the service does with a player that did not start
        EXPECT_EQ(player->getAvgSampleRate(), 0);
    }
}

TEST_F(FilePlayerSteps, DestructorDeletesChainsAndThenBlocks)
{
    play({"a.wav"});
    script.events.clear();
    EXPECT_THAT(loggedFrom("FilePlayer.cpp", [this] { player.reset(); }), ElementsAre("DEBUG: FilePlayer destructor"));
    EXPECT_THAT(script.events,
                ElementsAre("delete chains", "~SOURCE_CHAIN", "~ACTIVE_PLAYER_CHAIN", "~STANDBY_PLAYER_CHAIN",
                            "~ALSA_SOURCE", "~MUX", "~RATE_CONVERTER_1", "~TONE_2", "~RATE_CONVERTER_2", "~a.wav"));
}

// ---- start and stop

TEST_F(FilePlayerSteps, StartPutsTheFirstFileInPlaceOfTheTone)
{
    addEntry(playlist, 3, ItemType::WAV, "a.wav");
    build();
    EXPECT_EQ(start(), PLAYER_STARTED);
    EXPECT_TRUE(player->isStarted());
    EXPECT_THAT(script.events, ElementsAre("WAV_PLAYER open a.wav",                                             //
                                           "ACTIVE_PLAYER_CHAIN disconnect", "ACTIVE_PLAYER_CHAIN remove 0",    //
                                           "ACTIVE_PLAYER_CHAIN add a.wav at 0", "ACTIVE_PLAYER_CHAIN connect", //
                                           "~TONE_1", "playing now a.wav",                                      //
                                           "SOURCE_CHAIN start", "ACTIVE_PLAYER_CHAIN start"));
    EXPECT_THAT(lines, ElementsAre("DEBUG: FilePlayer::start", "DEBUG: WavFilePlayer: a.wav",
                                   "DEBUG: active player has runtime ID 14", "DEBUG: Active chain started"));
}

TEST_F(FilePlayerSteps, StartDoesNotLookAtWhatTheChainsAnswer)
{
    addEntry(playlist, 1, ItemType::WAV, "a.wav");
    build();
    script.answers["SOURCE_CHAIN start"] = {STREAM_ERROR};
    script.answers["ACTIVE_PLAYER_CHAIN start"] = {STREAM_ERROR};
    EXPECT_EQ(start(), PLAYER_STARTED);
}

TEST_F(FilePlayerSteps, StartWithNothingPlayableIsFatal)
{
    addEntry(playlist, 1, ItemType::WAV, "gone.wav");
    build();
    script.answers["WAV_PLAYER open gone.wav"] = {FILE_NOT_FOUND, FILE_NOT_FOUND};
    EXPECT_EQ(start(), PLAYER_ERROR);
    EXPECT_EQ(player->getStatus(), PLAYER_ERROR);
    EXPECT_EQ(lines.back(), "ERROR: Cannot connect next player to active chain");
    EXPECT_EQ(sleeps(), 2); // one more than there are entries
    EXPECT_THAT(script.events, Not(Contains("SOURCE_CHAIN start")));
}

TEST_F(FilePlayerSteps, PlaylistEmptiedBeforeTheStartIsFatal)
{
    addEntry(playlist, 1, ItemType::WAV, "a.wav");
    build();
    quietly([this] { database.delete_all_playlist_items(playlist); });
    EXPECT_EQ(start(), PLAYER_ERROR);
    EXPECT_THAT(lines, ElementsAre("DEBUG: FilePlayer::start", "DEBUG: Playlist is empty",
                                   "ERROR: Cannot connect next player to active chain"));
}

TEST_F(FilePlayerSteps, StartedPlayerDeclinesAnotherStart)
{
    play({"a.wav"});
    EXPECT_EQ(start(), PLAYER_STARTED);
    EXPECT_THAT(lines, ElementsAre("DEBUG: FilePlayer::start", "DEBUG: FilePlayer::start - player not ready"));
    EXPECT_THAT(script.events, IsEmpty());
}

TEST_F(FilePlayerSteps, StopStopsTheActiveChainAlone)
{
    play({"a.wav"});
    EXPECT_EQ(stop(), PLAYER_READY);
    EXPECT_EQ(player->getStatus(), PLAYER_READY);
    EXPECT_THAT(script.events, ElementsAre("ACTIVE_PLAYER_CHAIN stop"));
    EXPECT_THAT(lines, ElementsAre("DEBUG: FilePlayer::stop"));
    EXPECT_EQ(service(), PLAYER_READY); // no more
    EXPECT_THAT(script.events, IsEmpty());
}

TEST_F(FilePlayerSteps, StopThatFailsIsAnError)
{
    play({"a.wav"});
    script.answers["ACTIVE_PLAYER_CHAIN stop"] = {STREAM_ERROR};
    EXPECT_EQ(stop(), PLAYER_ERROR);
    EXPECT_EQ(player->getStatus(), PLAYER_ERROR);
}

TEST_F(FilePlayerSteps, RestartBeginsAtTheTopWithTheIndexWhereItWas)
{
    play({"a.wav", "b.wav", "c.wav"});
    (void)endOf("a.wav"); // two of three consumed
    (void)stop();
    EXPECT_EQ(start(), PLAYER_STARTED);
    EXPECT_THAT(opened(), ElementsAre("a.wav")); // sequence 0, and now three are consumed
    EXPECT_EQ(head(STANDBY), "a.wav");           // the chains had changed roles
    (void)endOf("a.wav");
    EXPECT_THAT(opened(), ElementsAre("a.wav")); // the playlist starts over after one file of it
}

TEST_F(FilePlayerSteps, StatusRecordTellsRunningAndNoMore)
{
    play({"a.wav"});
    ByteArray started(16);
    player->writeStatus(&started);
    ASSERT_EQ(started.getLength(), 7);
    EXPECT_EQ(started.getBytes()[0], 1);
    for (int i = 1; i < 7; i++) {
        EXPECT_EQ(started.getBytes()[i], 0);
    }
    (void)stop();
    ByteArray stopped(16);
    player->writeStatus(&stopped);
    ASSERT_EQ(stopped.getLength(), 7);
    EXPECT_EQ(stopped.getBytes()[0], 0);
}

// ---- service

TEST_F(FilePlayerSteps, BlocksAreServicedInOrder)
{
    play({"a.wav"});
    EXPECT_EQ(service(), PLAYER_STARTED);
    EXPECT_THAT(script.events, ElementsAre("a.wav service", "TONE_2 service", "RATE_CONVERTER_1 service",
                                           "RATE_CONVERTER_2 service", "MUX service", "ALSA_SOURCE service"));
    EXPECT_THAT(lines, IsEmpty());
}

TEST_F(FilePlayerSteps, NextServiceIsHalfASecondAheadUnlessABlockWantsItEarlier)
{
    play({"a.wav"});
    CServiceTime earliest;
    earliest.setCurrentTime();
    earliest += 500000000;
    (void)service();
    CServiceTime latest;
    latest.setCurrentTime();
    latest += 500000000;
    const CServiceTime half = player->getNextServiceTime();
    EXPECT_FALSE(half < earliest);
    EXPECT_FALSE(latest < half);
    EXPECT_FALSE(half.immediateService);
    EXPECT_FALSE(half.serviceRequired);

    CServiceTime soon;
    soon.nextServiceTime.tv_sec = 1;
    soon.immediateService = true;
    soon.serviceRequired = true;
    script.wishes["MUX"] = soon;
    (void)service();
    EXPECT_TRUE(player->getNextServiceTime() == soon);
    script.wishes.clear();
    (void)service();
    const CServiceTime anew = player->getNextServiceTime(); // nothing of the last pass is left
    EXPECT_FALSE(anew < half);
    EXPECT_FALSE(anew.immediateService);
    EXPECT_FALSE(anew.serviceRequired);
}

TEST_F(FilePlayerSteps, BlockThatFailsInServiceFailsThePlayer)
{
    const std::pair<const char*, const char*> rows[] = {
        {"a.wav", "ERROR: Cannot service player 1 - streamStatus = -11"},
        {"TONE_2", "ERROR: Cannot service player 2 - streamStatus = -11"},
        {"RATE_CONVERTER_1", "ERROR: Cannot service rate converter 1 - streamStatus = -11"},
        {"RATE_CONVERTER_2", "ERROR: Cannot service rate converter 2 - streamStatus = -11"},
        {"MUX", "ERROR: Cannot service mixer block - streamStatus = -11"},
        {"ALSA_SOURCE", "ERROR: Cannot service ALSA source - streamStatus = -11"},
    };
    addEntry(playlist, 1, ItemType::WAV, "a.wav");
    for (const auto& [block, line] : rows) {
        build();
        ASSERT_EQ(start(), PLAYER_STARTED);
        script.answers[std::string(block) + " service"] = {LOST_CONNECTION_TO_SERVER};
        EXPECT_EQ(service(), PLAYER_ERROR) << block;
        EXPECT_EQ(player->getStatus(), PLAYER_ERROR) << block;
        EXPECT_THAT(lines, ElementsAre(line));
        EXPECT_EQ(script.events.back(), std::string(block) + " service"); // and none after it
        EXPECT_EQ(service(), PLAYER_ERROR);
        EXPECT_THAT(script.events, IsEmpty());
    }
}

// ---- the end of a file

TEST_F(FilePlayerSteps, AtTheEndOfTheFileTheChainsChangeRoles)
{
    play({"a.wav", "b.wav", "c.wav"});
    EXPECT_EQ(endOf("a.wav"), PLAYER_STARTED);
    EXPECT_THAT(script.events,
                ElementsAre("a.wav service",                                                        //
                            "WAV_PLAYER open b.wav", "STANDBY_PLAYER_CHAIN disconnect",             //
                            "STANDBY_PLAYER_CHAIN remove 0", "STANDBY_PLAYER_CHAIN add b.wav at 0", //
                            "STANDBY_PLAYER_CHAIN connect", "~TONE_2", "playing now b.wav",         //
                            "ACTIVE_PLAYER_CHAIN stop", "STANDBY_PLAYER_CHAIN start",               //
                            "a.wav service",                                                        // it stands by now
                            "RATE_CONVERTER_1 service", "RATE_CONVERTER_2 service", "MUX service",
                            "ALSA_SOURCE service"));
    EXPECT_EQ(head(ACTIVE), "a.wav"); // stopped and connected until the next change
    EXPECT_TRUE(chain(ACTIVE)->isChainConnected());

    (void)service();
    EXPECT_THAT(script.events, ElementsAre("b.wav service", "a.wav service", "RATE_CONVERTER_1 service",
                                           "RATE_CONVERTER_2 service", "MUX service", "ALSA_SOURCE service"));

    (void)endOf("b.wav");
    EXPECT_THAT(script.events, Contains("~a.wav"));
    EXPECT_THAT(script.events, Contains("STANDBY_PLAYER_CHAIN stop"));
    EXPECT_THAT(script.events, Contains("ACTIVE_PLAYER_CHAIN start"));
    EXPECT_EQ(head(ACTIVE), "c.wav");
    EXPECT_EQ(head(STANDBY), "b.wav");
}

TEST_F(FilePlayerSteps, StandbyChainThatIsNotStoppedIsNotStarted)
{
    play({"a.wav", "b.wav"});
    chain(STANDBY)->chainPlaybackState = AUDIO_MUTED;
    (void)endOf("a.wav");
    EXPECT_THAT(script.events, Contains("ACTIVE_PLAYER_CHAIN stop"));
    EXPECT_THAT(script.events, Not(Contains("STANDBY_PLAYER_CHAIN start")));
    (void)service();
    EXPECT_EQ(script.events.front(), "b.wav service"); // the roles changed all the same
}

TEST_F(FilePlayerSteps, WithoutANextFileTheStandbyToneGoesOnAirAndStays)
{
    play({"a.wav"});
    script.answers["WAV_PLAYER open a.wav"] = {FILE_NOT_FOUND, FILE_NOT_FOUND};
    EXPECT_EQ(endOf("a.wav"), PLAYER_STARTED);
    EXPECT_EQ(sleeps(), 2);
    EXPECT_THAT(script.events, Contains("STANDBY_PLAYER_CHAIN start"));
    EXPECT_EQ(service(), PLAYER_STARTED);
    EXPECT_EQ(script.events.front(), "TONE_2 service");
    EXPECT_THAT(opened(), IsEmpty()); // its time left of -1 leads to no change
}

TEST_F(FilePlayerSteps, ConnectedStandbyChainWaitsForTheEnd)
{
    play({"a.wav", "b.wav"});
    for (const int32_t timeLeft : {3001, 3000, 1, -1, -3000, INT32_MAX}) {
        script.timeLeft["a.wav"] = timeLeft;
        EXPECT_EQ(service(), PLAYER_STARTED);
        EXPECT_THAT(opened(), IsEmpty()) << timeLeft;
        EXPECT_THAT(lines, IsEmpty()) << timeLeft;
    }
}

TEST_F(FilePlayerSteps, UnconnectedStandbyChainIsFilledInTheLastThreeSeconds)
{
    for (const auto& [timeLeft, filled] :
         std::map<int32_t, bool>{{-1, false}, {1, true}, {2999, true}, {3000, true}, {3001, false}}) {
        quietly([this] { player.reset(); });
        quietly([this] { database.delete_all_playlist_items(playlist); });
        play({"a.wav", "b.wav"});
        (void)chain(STANDBY)->disconnectChain();
        script.timeLeft["a.wav"] = timeLeft;
        EXPECT_EQ(service(), PLAYER_STARTED);
        if (filled) {
            EXPECT_THAT(lines, ElementsAre("DEBUG: Creating next player block", "DEBUG: WavFilePlayer: b.wav"));
            EXPECT_EQ(head(STANDBY), "b.wav");
            // The tone that stood there is gone, so the service went to the new head.
            EXPECT_THAT(script.events, Contains("~TONE_2"));
            EXPECT_THAT(script.events, Contains("b.wav service"));
            EXPECT_THAT(script.events, Not(Contains("STANDBY_PLAYER_CHAIN start")));
        } else {
            EXPECT_THAT(lines, IsEmpty()) << timeLeft;
            EXPECT_EQ(head(STANDBY), "TONE_2");
        }
    }
}

// ---- putting a player at the head of a chain

TEST_F(FilePlayerSteps, ChainThatDoesNotDisconnectFailsTheEntry)
{
    addEntry(playlist, 1, ItemType::WAV, "a.wav");
    build();
    script.answers["ACTIVE_PLAYER_CHAIN disconnect"] = {NO_MEMORY, NO_MEMORY};
    EXPECT_EQ(start(), PLAYER_ERROR);
    EXPECT_THAT(lines, Contains("ERROR: Cannot disconnect chain").Times(2));
    EXPECT_THAT(script.events, Contains("playing now a.wav").Times(2)); // told whatever became of it
    EXPECT_EQ(head(ACTIVE), "TONE_1");
    EXPECT_EQ(sleeps(), 0);
}

TEST_F(FilePlayerSteps, HeadThatCannotBeRemovedFailsTheEntry)
{
    addEntry(playlist, 1, ItemType::WAV, "a.wav");
    build();
    script.answers["ACTIVE_PLAYER_CHAIN remove 0"] = {STREAM_ERROR}; // null
    EXPECT_EQ(start(), PLAYER_STARTED);                              // the second attempt
    EXPECT_THAT(lines, Contains("ERROR: Cannot remove old player from chain"));
    EXPECT_EQ(head(ACTIVE), "a.wav");
}

TEST_F(FilePlayerSteps, PlayerThatCannotBeAddedFailsTheEntry)
{
    play({"a.wav", "b.wav"});
    leaveOnlyTheHeadOf(STANDBY);
    script.answers["STANDBY_PLAYER_CHAIN add b.wav at 0"] = {STREAM_ERROR};
    (void)endOf("a.wav");
    EXPECT_THAT(lines, Contains("ERROR: Cannot add new player to chain").Times(1));
    EXPECT_THAT(opened(), ElementsAre("b.wav", "a.wav"));
    EXPECT_EQ(head(STANDBY), "a.wav");
}

TEST_F(FilePlayerSteps, FailedConnectionPutsTheOldHeadBackAndDeletesTheNewOne)
{
    play({"a.wav", "b.wav"});
    script.answers["STANDBY_PLAYER_CHAIN connect"] = {PORT_CFG_ERROR};
    EXPECT_EQ(endOf("a.wav"), PLAYER_STARTED);
    EXPECT_THAT(std::vector<std::string>(script.events.begin() + 1, script.events.begin() + 13),
                ElementsAre("WAV_PLAYER open b.wav", "STANDBY_PLAYER_CHAIN disconnect",              //
                            "STANDBY_PLAYER_CHAIN remove 0", "STANDBY_PLAYER_CHAIN add b.wav at 0",  //
                            "STANDBY_PLAYER_CHAIN connect", "STANDBY_PLAYER_CHAIN disconnect",       //
                            "STANDBY_PLAYER_CHAIN remove 0", "STANDBY_PLAYER_CHAIN add TONE_2 at 0", //
                            "STANDBY_PLAYER_CHAIN connect", "~b.wav", "playing now b.wav",           //
                            "ACTIVE_PLAYER_CHAIN stop"));
    EXPECT_THAT(lines, Contains("ERROR: Cannot connect chain").Times(1));
    EXPECT_EQ(head(STANDBY), "TONE_2"); // and that is on air now
}

TEST_F(FilePlayerSteps, OldAndNewHeadTakeTurnsUntilOneConnects)
{
    play({"a.wav", "b.wav"});
    script.answers["STANDBY_PLAYER_CHAIN connect"] = {PORT_CFG_ERROR, PORT_CFG_ERROR, PORT_CFG_ERROR, PORT_CFG_ERROR};
    (void)endOf("a.wav"); // b, the tone, b and the tone again fail; then b connects
    EXPECT_THAT(lines, Contains("ERROR: Cannot connect chain").Times(4));
    EXPECT_EQ(head(STANDBY), "b.wav");
    EXPECT_THAT(script.events, Contains("~TONE_2"));
}

TEST_F(FilePlayerSteps, ChainOfOneBlockHasNoOldHeadToPutBack)
{
    play({"a.wav", "b.wav"});
    leaveOnlyTheHeadOf(STANDBY);
    script.answers["STANDBY_PLAYER_CHAIN connect"] = {PORT_CFG_ERROR};
    (void)endOf("a.wav");
    EXPECT_THAT(lines, Contains("ERROR: Cannot connect chain").Times(1));
    EXPECT_THAT(opened(), ElementsAre("b.wav", "a.wav")); // failed, so the walk went on
    EXPECT_EQ(sleeps(), 0);
}

// ---- the walk

TEST_F(FilePlayerSteps, PlaylistOfOneFileRepeatsIt)
{
    play({"a.wav"});
    for (int turn = 0; turn < 3; turn++) {
        (void)endOf("a.wav");
        EXPECT_THAT(opened(), ElementsAre("a.wav"));
    }
}

TEST_F(FilePlayerSteps, EntriesComeBySequenceAndTheListStartsOver)
{
    addEntry(playlist, 40, ItemType::WAV, "c.wav");
    addEntry(playlist, 7, ItemType::WAV, "a.wav");
    addEntry(playlist, 9, ItemType::WAV, "b.wav");
    build();
    (void)start();
    EXPECT_THAT(opened(), ElementsAre("a.wav"));
    (void)endOf("a.wav");
    EXPECT_THAT(opened(), ElementsAre("b.wav"));
    (void)endOf("b.wav");
    EXPECT_THAT(opened(), ElementsAre("c.wav"));
    (void)endOf("c.wav");
    EXPECT_THAT(opened(), ElementsAre("a.wav"));
}

TEST_F(FilePlayerSteps, UnplayableFileCostsHalfASecondAndIsSkipped)
{
    play({"a.wav", "gone.wav", "c.wav"});
    script.answers["WAV_PLAYER open gone.wav"] = {INVALID_FORMAT};
    (void)endOf("a.wav");
    EXPECT_THAT(opened(), ElementsAre("gone.wav", "c.wav"));
    EXPECT_EQ(sleeps(), 1);
    EXPECT_THAT(lines, ElementsAre("DEBUG: Cannot create WAV player for gone.wav", "DEBUG: Could not create player",
                                   "DEBUG: WavFilePlayer: c.wav"));
    EXPECT_THAT(script.events, Not(Contains("playing now gone.wav")));
}

TEST_F(FilePlayerSteps, PlaylistOfUnplayableFilesIsTriedOnceAndOneMore)
{
    addEntry(playlist, 1, ItemType::WAV, "x.wav");
    addEntry(playlist, 2, ItemType::WAV, "y.wav");
    build();
    script.answers["WAV_PLAYER open x.wav"] = {FILE_NOT_FOUND, FILE_NOT_FOUND};
    script.answers["WAV_PLAYER open y.wav"] = {FILE_NOT_FOUND};
    EXPECT_EQ(start(), PLAYER_ERROR);
    EXPECT_THAT(opened(), ElementsAre("x.wav", "y.wav", "x.wav")); // the list started over
    EXPECT_EQ(sleeps(), 3);
    EXPECT_THAT(lines, Contains("DEBUG: Could not create player - tried every entry in playlist").Times(1));
}

TEST_F(FilePlayerSteps, SuccessOnTheLastAttemptIsASuccessWithTheLine)
{
    addEntry(playlist, 1, ItemType::WAV, "x.wav");
    build();
    script.answers["WAV_PLAYER open x.wav"] = {FILE_NOT_FOUND};
    EXPECT_EQ(start(), PLAYER_STARTED);
    EXPECT_THAT(lines, Contains("DEBUG: Could not create player - tried every entry in playlist").Times(1));
}

TEST_F(FilePlayerSteps, GosubEntryCostsHalfASecondAndIsSkipped)
{
    addEntry(playlist, 1, ItemType::GOSUB, "ITEM_TYPE_GOSUB:1:1");
    addEntry(playlist, 2, ItemType::WAV, "a.wav");
    build();
    EXPECT_EQ(start(), PLAYER_STARTED);
    EXPECT_EQ(sleeps(), 1);
    EXPECT_THAT(lines, ElementsAre("DEBUG: FilePlayer::start", "ERROR: Undefined player type",
                                   "DEBUG: Could not create player", "DEBUG: WavFilePlayer: a.wav",
                                   "DEBUG: active player has runtime ID 14", "DEBUG: Active chain started"));
}

// ---- files

TEST_F(FilePlayerSteps, MissingWavIsWrittenToTheAsPlayedLog)
{
    run("INSERT INTO T_Items VALUES (30, 'unused', 1, 0, 48000)"); // so that no two ids agree
    run("INSERT INTO T_Playlists VALUES (50, 1, 'other', 1)");
    run("INSERT INTO T_Playlist_Item_Association VALUES (70, 1, 50, 30)");
    playlist = 50;
    addEntry(playlist, 2, ItemType::WAV, "a.wav"); // item 31 at place 71
    run("DELETE FROM T_Playlist_Item_Association WHERE id = 70");
    build();
    script.answers["WAV_PLAYER open a.wav"] = {FILE_NOT_FOUND};
    (void)start();
    EXPECT_THAT(std::vector<std::string>(script.events.begin(), script.events.begin() + 6),
                ElementsAre("WAV_PLAYER open a.wav", "log clear",
                            "log item 31 playlist 50 place 71 type 4 status 1 tx 100 ''", "log write", "~a.wav",
                            "sleep 500000"));
}

TEST_F(FilePlayerSteps, MissingMp3LeavesNoTraceInTheAsPlayedLog)
{
    addEntry(playlist, 1, ItemType::MP3, "a.mp3");
    build();
    script.answers["MP3_PLAYER open a.mp3"] = {STREAM_ERROR, STREAM_ERROR};
    EXPECT_EQ(start(), PLAYER_ERROR);
    EXPECT_THAT(script.events, ElementsAre("MP3_PLAYER open a.mp3", "~a.mp3", "sleep 500000", //
                                           "MP3_PLAYER open a.mp3", "~a.mp3", "sleep 500000"));
    EXPECT_EQ(lines[1], "DEBUG: Cannot create MP3 player for a.mp3");
}

TEST_F(FilePlayerSteps, Mp3FileGoesToTheHeadOfTheChain)
{
    addEntry(playlist, 1, ItemType::MP3, "a.mp3");
    build();
    EXPECT_EQ(start(), PLAYER_STARTED);
    EXPECT_EQ(lines[1], "DEBUG: Mp3FilePlayer: a.mp3");
    EXPECT_EQ(head(ACTIVE), "a.mp3");
    EXPECT_THAT(script.events, Contains("playing now a.mp3"));
}

TEST_F(FilePlayerSteps, Mp3AndWavFilesFollowEachOtherAtTheirEnds)
{
    addEntry(playlist, 1, ItemType::MP3, "a.mp3");
    addEntry(playlist, 2, ItemType::WAV, "b.wav");
    build();
    ASSERT_EQ(start(), PLAYER_STARTED);
    EXPECT_EQ(service(), PLAYER_STARTED);
    EXPECT_TRUE(opened().empty());
    EXPECT_EQ(endOf("a.mp3"), PLAYER_STARTED);
    EXPECT_THAT(opened(), ElementsAre("b.wav"));
    EXPECT_EQ(head(ACTIVE), "a.mp3"); // the names stay with the chains; their roles have changed
    EXPECT_EQ(head(STANDBY), "b.wav");
    EXPECT_EQ(endOf("b.wav"), PLAYER_STARTED);
    EXPECT_THAT(opened(), ElementsAre("a.mp3"));
    EXPECT_THAT(script.events, Contains("~a.mp3")); // the block of its first round gives way
}

// ---- jumps

/** Adds an entry to playlist 2, on a connection of its own, when the fifth lookup begins. */
struct LateEntry {
    static int statementBegins(unsigned int, void* context, void*, void* sql)
    {
        auto* self = static_cast<LateEntry*>(context);
        const std::string lookup = " SELECT * FROM T_Playlist_Item_Association WHERE playlist_id = ? AND sequence";
        if (std::string(static_cast<const char*>(sql)).starts_with(lookup) && ++self->lookups == 5) {
            sqlite3* db = nullptr;
            EXPECT_EQ(sqlite3_open("../audioplayerdatabase/audioDatabase.db", &db), SQLITE_OK);
            must(db, "INSERT INTO T_Items VALUES (90, 'late.wav', 1, 0, 48000)");
            must(db, "INSERT INTO T_Playlist_Item_Association VALUES (90, 1, 2, 90)");
            sqlite3_close(db);
        }
        return 0;
    }
    int lookups = 0;
};

class FilePlayerJumps : public FilePlayerSteps
{
protected:
    /** Playlist 1 begins with a jump of that path. Playlist 2 has files at 1, 2 and 3. */
    void jump(const std::string& path)
    {
        second = addPlaylist("second");
        ASSERT_EQ(second, 2);
        for (int sequence = 1; sequence <= 3; sequence++) {
            addEntry(second, sequence, ItemType::WAV, "second" + std::to_string(sequence) + ".wav");
        }
        addEntry(playlist, 1, ItemType::JUMP, path);
        addEntry(playlist, 2, ItemType::WAV, "first.wav");
        build();
    }
    int second = 0;
};

TEST_F(FilePlayerJumps, JumpGoesToTheNamedSequenceOfTheNamedPlaylist)
{
    jump("ITEM_TYPE_JUMP:2:2");
    EXPECT_EQ(start(), PLAYER_STARTED);
    EXPECT_THAT(opened(), ElementsAre("second2.wav"));
    EXPECT_THAT(lines, Contains("DEBUG: Jumping to Playlist second, sequence 2"));
    (void)endOf("second2.wav");
    EXPECT_THAT(opened(), ElementsAre("second3.wav"));
    EXPECT_EQ(sleeps(), 0);
}

TEST_F(FilePlayerJumps, IndexStartsAnewInTheTargetPlaylist)
{
    jump("ITEM_TYPE_JUMP:2:2");
    (void)start();
    (void)endOf("second2.wav"); // second3.wav: two of three consumed, and the last of the list
    (void)endOf("second3.wav");
    // The third of three finds nothing: an entry without a type, at a cost of half a second. Then the list starts over.
    EXPECT_THAT(lines, ElementsAre("ERROR: Undefined player type", "DEBUG: Could not create player",
                                   "DEBUG: WavFilePlayer: second1.wav"));
    EXPECT_EQ(sleeps(), 1);
    EXPECT_THAT(opened(), ElementsAre("second1.wav"));
}

TEST_F(FilePlayerJumps, EntriesBeforeTheJumpDoNotCountInTheTargetPlaylist)
{
    ASSERT_EQ(addPlaylist("second"), 2);
    addEntry(2, 1, ItemType::WAV, "x.wav");
    addEntry(2, 2, ItemType::WAV, "y.wav");
    addEntry(playlist, 1, ItemType::WAV, "first.wav");
    addEntry(playlist, 2, ItemType::JUMP, "ITEM_TYPE_JUMP:2:1");
    build();
    (void)start();
    (void)endOf("first.wav");
    EXPECT_THAT(opened(), ElementsAre("x.wav"));
    (void)endOf("x.wav");
    EXPECT_THAT(opened(), ElementsAre("y.wav"));
}

TEST_F(FilePlayerJumps, SequencesZeroAndOneAreTheStartOfThePlaylist)
{
    jump("ITEM_TYPE_JUMP 2 0");
    (void)start();
    EXPECT_THAT(opened(), ElementsAre("second1.wav"));
    EXPECT_THAT(lines, Contains("DEBUG: Jumping to Playlist second, sequence 0"));
}

TEST_F(FilePlayerJumps, SequenceOneIsTheStartOfThePlaylist)
{
    jump("ITEM_TYPE_JUMP 2 1");
    (void)start();
    EXPECT_THAT(opened(), ElementsAre("second1.wav"));
}

TEST_F(FilePlayerJumps, OnlyOneDigitOfAPlaylistCounts)
{
    // Of 22 the first digit names the playlist, and the sequence is read from the separator behind the second: 0.
    jump("ITEM_TYPE_JUMP:22:3");
    EXPECT_EQ(start(), PLAYER_STARTED);
    EXPECT_THAT(lines, Contains("DEBUG: Jumping to Playlist second, sequence 0"));
    EXPECT_THAT(opened(), ElementsAre("second1.wav"));
}

TEST_F(FilePlayerJumps, LastLetterOfTheTypeNameAnywhereInThePathCounts)
{
    // The 'E' of the separator is one of the letters, so positions count from there.
    jump("ITEM_TYPE_JUMP:9:9E:2:3");
    EXPECT_EQ(start(), PLAYER_STARTED);
    EXPECT_THAT(opened(), ElementsAre("second3.wav"));
}

TEST_F(FilePlayerJumps, AnyOfTheLettersWillDo)
{
    jump("_:2:2");
    EXPECT_EQ(start(), PLAYER_STARTED);
    EXPECT_THAT(opened(), ElementsAre("second2.wav"));
}

TEST_F(FilePlayerJumps, PathWithNoneOfTheLettersIsSkipped)
{
    jump("goto 2 2"); // small letters are others
    EXPECT_EQ(start(), PLAYER_STARTED);
    EXPECT_THAT(opened(), ElementsAre("first.wav")); // sequence 0 + 1, so the next is 2
    EXPECT_EQ(sleeps(), 0);
    EXPECT_THAT(lines, Not(Contains(HasSubstr("Jumping"))));
}

TEST_F(FilePlayerJumps, SkippedJumpsCountAsAttempts)
{
    addEntry(playlist, 1, ItemType::JUMP, "x");
    addEntry(playlist, 2, ItemType::JUMP, "y");
    build();
    EXPECT_EQ(start(), PLAYER_ERROR); // after three of them
    EXPECT_THAT(lines, Contains("DEBUG: Could not create player - tried every entry in playlist").Times(1));
}

TEST_F(FilePlayerJumps, SkippedJumpMovesTheSequenceByOneOnly)
{
    addEntry(playlist, 10, ItemType::JUMP, "x");
    addEntry(playlist, 20, ItemType::WAV, "a.wav");
    build();
    // Sequences 0, 1 and then, with two consumed, 0 again: the jump at 10 is found each time.
    EXPECT_EQ(start(), PLAYER_ERROR);
    EXPECT_THAT(opened(), IsEmpty());
}

TEST_F(FilePlayerJumps, PositionAtTheEndReadsAsZero)
{
    jump("ITEM_TYPE_JUMP:2:"); // the sequence would stand just behind the end
    EXPECT_EQ(start(), PLAYER_STARTED);
    EXPECT_THAT(opened(), ElementsAre("second1.wav"));
}

TEST_F(FilePlayerJumps, OtherThanADigitReadsAsZero)
{
    jump("ITEM_TYPE_JUMP:2:x");
    EXPECT_EQ(start(), PLAYER_STARTED);
    EXPECT_THAT(opened(), ElementsAre("second1.wav"));
}

using FilePlayerJumpsDeathTest = FilePlayerJumps;

TEST_F(FilePlayerJumpsDeathTest, PathThatIsCutShortEndsTheProcess)
{
    // The positions of the two digits lie past the end of one and of the other.
    for (const char* path : {"ITEM_TYPE_JUMP", "ITEM_TYPE_JUMP:2"}) {
        quietly([&] {
            player.reset();
            database.delete_all_playlist_items(playlist);
        });
        addEntry(playlist, 1, ItemType::JUMP, path);
        build();
        const auto onAThread = [this]() noexcept { (void)player->start(); }; // where nothing catches
        EXPECT_DEATH(onAThread(), "out_of_range") << path;
    }
}

TEST_F(FilePlayerJumps, TakenJumpIsNoAttempt)
{
    jump("ITEM_TYPE_JUMP:2:1");
    script.answers["WAV_PLAYER open second1.wav"] = {FILE_NOT_FOUND};
    script.answers["WAV_PLAYER open second2.wav"] = {FILE_NOT_FOUND};
    script.answers["WAV_PLAYER open second3.wav"] = {FILE_NOT_FOUND};
    EXPECT_EQ(start(), PLAYER_STARTED);
    // Three attempts in playlist 2; the fourth is the last allowed one and succeeds.
    EXPECT_THAT(opened(), ElementsAre("second1.wav", "second2.wav", "second3.wav", "second1.wav"));
    EXPECT_EQ(sleeps(), 3);
}

TEST_F(FilePlayerJumps, JumpToAnEmptyPlaylistAfterAnAttemptEndsTheWalk)
{
    ASSERT_EQ(addPlaylist("empty"), 2);
    addEntry(playlist, 1, ItemType::WAV, "gone.wav");
    addEntry(playlist, 2, ItemType::JUMP, "ITEM_TYPE_JUMP:2:1");
    build();
    script.answers["WAV_PLAYER open gone.wav"] = {FILE_NOT_FOUND};
    EXPECT_EQ(start(), PLAYER_ERROR);
    // One attempt is more than the none that playlist 2 has.
    EXPECT_THAT(lines, Contains("DEBUG: Jumping to Playlist empty, sequence 1").Times(1));
    EXPECT_THAT(lines, Contains("DEBUG: Could not create player - tried every entry in playlist").Times(1));
    EXPECT_EQ(sleeps(), 1);
}

TEST_F(FilePlayerJumps, JumpToAnEmptyPlaylistIsTakenAgainUntilSomethingIsThere)
{
    ASSERT_EQ(addPlaylist("empty"), 2);
    addEntry(playlist, 1, ItemType::JUMP, "ITEM_TYPE_JUMP:2:1");
    build();
    // Without an attempt nothing ends the walk. An entry that another program adds lets the test out of it.
    LateEntry late;
    sqlite3_trace_v2(database.getDatabase(), SQLITE_TRACE_STMT, LateEntry::statementBegins, &late);
    EXPECT_EQ(start(), PLAYER_STARTED);
    sqlite3_trace_v2(database.getDatabase(), 0, nullptr, nullptr);
    EXPECT_THAT(opened(), ElementsAre("late.wav"));
    EXPECT_THAT(lines, Contains("DEBUG: Jumping to Playlist empty, sequence 1").Times(4));
    EXPECT_EQ(sleeps(), 0);
}

TEST_F(FilePlayerJumps, JumpToAPlaylistThatDoesNotExistHasNoName)
{
    addEntry(playlist, 1, ItemType::WAV, "gone.wav");
    addEntry(playlist, 2, ItemType::JUMP, "ITEM_TYPE_JUMP:7:1");
    build();
    script.answers["WAV_PLAYER open gone.wav"] = {FILE_NOT_FOUND};
    EXPECT_EQ(start(), PLAYER_ERROR);
    EXPECT_THAT(lines, Contains("DEBUG: Jumping to Playlist , sequence 1"));
}

} // namespace
