/**
 * AudioService with players of the test's own in place of the real ones: their classes are defined here, so the
 * linker takes nothing of theirs from the library.
 */

#include "AudioService.h"

#include "ByteArray.h"
#include "FilePlayer.h"
#include "StreamPlayer.h"
#include "globals.h"
#include "playersSupport.h"

#include <gmock/gmock.h>

using namespace audioLibrarySpace;
using namespace testing;

namespace
{

/** How the players behave, and what happened to them. */
struct Script {
    PlayerStatus afterConstruction = PLAYER_READY;
    PlayerStatus startAnswer = PLAYER_STARTED;
    PlayerStatus afterStart = PLAYER_STARTED;
    PlayerStatus serviceAnswer = PLAYER_STARTED;
    CAudioPlay* source = nullptr;
    CServiceTime nextService;
    std::vector<std::string> events;
    AudioService* service = nullptr;
} script;

void happened(const std::string& event)
{
    script.events.push_back(event);
}

/** Whether the player can still be reached through the service. */
std::string reachable()
{
    return script.service->getStatus() == PLAYER_ERROR ? " unreachable" : " reachable";
}

} // namespace

FilePlayer::FilePlayer(int playlist_id)
{
    happened("FilePlayer(" + std::to_string(playlist_id) + ")");
    status = script.afterConstruction;
    nextServiceTime = script.nextService;
}
FilePlayer::~FilePlayer()
{
    happened("~FilePlayer");
}
PlayerStatus FilePlayer::start()
{
    happened("start");
    status = script.afterStart;
    return script.startAnswer;
}
PlayerStatus FilePlayer::stop()
{
    happened("stop" + reachable());
    return PLAYER_ERROR;
}
PlayerStatus FilePlayer::serviceAudioBlocks()
{
    happened("service");
    return script.serviceAnswer;
}
void FilePlayer::writeStatus(ByteArray* ba)
{
    (void)ba->writeByte(77);
}
CAudioPlay* FilePlayer::getPlayerBlock() const
{
    return script.source;
}

StreamPlayer::StreamPlayer(int aStreamId) : streamId(aStreamId)
{
    status = script.afterConstruction;
}
StreamPlayer::~StreamPlayer()
{
    happened("~StreamPlayer");
}
PlayerStatus StreamPlayer::start()
{
    happened("start");
    status = script.afterStart;
    return script.startAnswer;
}
PlayerStatus StreamPlayer::stop()
{
    happened("stop" + reachable());
    return PLAYER_READY;
}
PlayerStatus StreamPlayer::serviceAudioBlocks()
{
    happened("service");
    return script.serviceAnswer;
}
void StreamPlayer::writeStatus(ByteArray*) {}
CAudioPlay* StreamPlayer::getPlayerBlock() const
{
    return nullptr;
}

streamStatus StreamPlayer::createAudioBlocks()
{
    return STREAM_OK;
}
streamStatus StreamPlayer::createPlayerChain()
{
    return STREAM_OK;
}

LivewirePlayer::LivewirePlayer(int aStreamId, int aDst) : StreamPlayer(aStreamId), dst(aDst)
{
    happened("LivewirePlayer(" + std::to_string(aStreamId) + ", " + std::to_string(aDst) + ")");
}
LivewirePlayer::~LivewirePlayer() = default;
streamStatus LivewirePlayer::createAudioBlocks()
{
    return STREAM_OK;
}
streamStatus LivewirePlayer::createPlayerChain()
{
    return STREAM_OK;
}

ShoutcastPlayer::ShoutcastPlayer(int aStreamId, const char* aUri) : StreamPlayer(aStreamId), uri(aUri)
{
    happened("ShoutcastPlayer(" + std::to_string(aStreamId) + ", " + aUri + ")");
}
ShoutcastPlayer::~ShoutcastPlayer() = default;
streamStatus ShoutcastPlayer::createAudioBlocks()
{
    return STREAM_OK;
}
streamStatus ShoutcastPlayer::createPlayerChain()
{
    return STREAM_OK;
}

namespace
{

class AudioServiceTest : public PlayersTest
{
protected:
    AudioServiceTest()
    {
        script = Script();
        quietly([this] { service = new AudioService; });
        script.service = service;
        run("PRAGMA foreign_keys = OFF");
        // Ids that can't be taken for one another.
        run("INSERT INTO T_Audio_Sources VALUES (5, 1, 70, 'playlist')");
        run("INSERT INTO T_Audio_Sources VALUES (6, 2, 80, 'internet')");
        run("INSERT INTO T_Audio_Sources VALUES (7, 2, 81, 'livewire')");
        run("INSERT INTO T_Audio_Sources VALUES (8, 2, 82, 'neither')");
        run("INSERT INTO T_Audio_Sources VALUES (9, 2, 83, 'no stream')");
        run("INSERT INTO T_Audio_Sources VALUES (10, 3, 70, 'no type')");
        run("DROP TRIGGER Streams_Insert_Trigger");
        run("INSERT INTO T_Streams VALUES (80, 'internet', 2, 'http://radio/', 3, 4)");
        run("INSERT INTO T_Streams VALUES (81, 'livewire', 1, 'unused', 3, 12)");
        run("INSERT INTO T_Streams VALUES (82, 'neither', 3, 'unused', 3, 4)");
        sqliteSpy = SqliteSpy();
    }
    ~AudioServiceTest() override
    {
        quietly([this] { delete service; });
    }

    PlayerStatus start(int id)
    {
        PlayerStatus answer = PLAYER_OK;
        lines = loggedFrom("AudioService.cpp", [&] { answer = service->startPlayer(id); });
        return answer;
    }

    AudioService* service = nullptr;
    std::vector<std::string> lines;
};

// ---- without a player

TEST_F(AudioServiceTest, ConstructorOpensTheDatabase)
{
    EXPECT_EQ(rowsOf(database.getDatabase(), "SELECT name FROM T_Item_Types WHERE id = 1"),
              std::vector<std::string>{"ITEM_TYPE_WAV"});
    EXPECT_TRUE(std::filesystem::exists("../audioplayerdatabase/audioDatabase.db"));
    EXPECT_EQ(getAudioDatabase(), &database);
}

TEST_F(AudioServiceTest, WithoutAPlayerNothingIsStarted)
{
    EXPECT_EQ(service->getStatus(), PLAYER_ERROR);
    EXPECT_EQ(service->servicePlayer(), PLAYER_NOT_INITIALIZED);
    EXPECT_EQ(service->getAvgSampleRate(), 0);
    EXPECT_EQ(service->stopPlayer(), PLAYER_ERROR);
    EXPECT_THAT(script.events, IsEmpty());
}

TEST_F(AudioServiceTest, WithoutAPlayerNextServiceIsHalfASecondAheadAtEachCall)
{
    for (int call = 0; call < 2; call++) {
        CServiceTime earliest;
        earliest.setCurrentTime();
        earliest += 500000000;
        const CServiceTime next = service->getNextServiceTime();
        CServiceTime latest;
        latest.setCurrentTime();
        latest += 500000000;
        EXPECT_FALSE(next < earliest);
        EXPECT_FALSE(latest < next);
        EXPECT_FALSE(next.immediateService);
        EXPECT_FALSE(next.serviceRequired);
    }
}

TEST_F(AudioServiceTest, WithoutAPlayerTheStatusRecordIsSevenZeroes)
{
    ByteArray record(16);
    service->writePlayerStatus(&record);
    ASSERT_EQ(record.getLength(), 7);
    for (int i = 0; i < 7; i++) {
        EXPECT_EQ(record.getBytes()[i], 0);
    }
}

// ---- starting a playlist

TEST_F(AudioServiceTest, PlaylistSourceStartsAFilePlayer)
{
    EXPECT_EQ(start(5), PLAYER_STARTED);
    EXPECT_THAT(script.events, ElementsAre("FilePlayer(70)", "start"));
    EXPECT_THAT(lines, ElementsAre("DEBUG: AudioService::startPlayer id = 5"));
    EXPECT_EQ(service->getStatus(), PLAYER_STARTED);
    EXPECT_THAT(sqliteSpy.prepared, ElementsAre(" SELECT * FROM T_Audio_Sources WHERE id = ?; "));
    EXPECT_THAT(sqliteSpy.bound, ElementsAre("1=5"));
}

TEST_F(AudioServiceTest, StartAnswersThePlayersStatus)
{
    script.afterStart = PLAYER_READY; // its start() says otherwise
    EXPECT_EQ(start(5), PLAYER_READY);
    EXPECT_EQ(service->getStatus(), PLAYER_READY);
}

TEST_F(AudioServiceTest, FilePlayerThatIsNotReadyIsStillAskedToStartAndThenGoes)
{
    script.afterConstruction = PLAYER_NOT_INITIALIZED;
    script.startAnswer = PLAYER_NOT_INITIALIZED;
    script.afterStart = PLAYER_NOT_INITIALIZED;
    EXPECT_EQ(start(5), PLAYER_ERROR);
    EXPECT_THAT(script.events, ElementsAre("FilePlayer(70)", "start", "stop unreachable", "~FilePlayer"));
    EXPECT_EQ(service->servicePlayer(), PLAYER_NOT_INITIALIZED);
    EXPECT_EQ(service->stopPlayer(), PLAYER_ERROR); // there is none
}

TEST_F(AudioServiceTest, NewPlayerComesAfterTheOldOneIsStoppedAndGone)
{
    (void)start(5);
    script.events.clear();
    EXPECT_EQ(start(5), PLAYER_STARTED);
    EXPECT_THAT(script.events, ElementsAre("stop unreachable", "~FilePlayer", "FilePlayer(70)", "start"));
}

TEST_F(AudioServiceTest, UnknownSourceStopsWhatPlays)
{
    (void)start(5);
    script.events.clear();
    EXPECT_EQ(start(99), PLAYER_ERROR);
    EXPECT_THAT(script.events, ElementsAre("stop unreachable", "~FilePlayer"));
    EXPECT_THAT(lines, ElementsAre("DEBUG: AudioService::startPlayer id = 99", "ERROR No audio source with id = 99"));
    EXPECT_EQ(service->getStatus(), PLAYER_ERROR);
    EXPECT_EQ(service->servicePlayer(), PLAYER_NOT_INITIALIZED);
}

TEST_F(AudioServiceTest, OtherSourceTypeIsToldWithTheSourcesId)
{
    EXPECT_EQ(start(10), PLAYER_ERROR);
    EXPECT_THAT(lines, ElementsAre("DEBUG: AudioService::startPlayer id = 10", "ERROR No source type = 10"));
    EXPECT_THAT(script.events, IsEmpty());
}

TEST_F(AudioServiceTest, NegativeIdIsLookedUpAsItIs)
{
    run("INSERT INTO T_Audio_Sources VALUES (-3, 1, 71, 'negative')");
    EXPECT_EQ(start(-3), PLAYER_STARTED);
    EXPECT_THAT(script.events, ElementsAre("FilePlayer(71)", "start"));
}

TEST_F(AudioServiceTest, StatementsCarryTheirLabels)
{
    sqliteSpy.refuseEverything = true;
    const auto wrapperLines = loggedFrom("sqlite3Wrapper.cpp", [this] { (void)service->startPlayer(5); });
    sqliteSpy.refuseEverything = false;
    ASSERT_THAT(wrapperLines, Not(IsEmpty()));
    EXPECT_THAT(wrapperLines[0], StartsWith("ERROR: Cannot prepare statement select_audio_source.  "));
    EXPECT_THAT(wrapperLines, Contains(StartsWith("ERROR: Cannot bind id to select_audio_source.  ")));
}

TEST_F(AudioServiceTest, StreamStatementCarriesItsLabel)
{
    sqliteSpy.refuseFrom = 1; // the source is found, its stream is not answered
    const auto wrapperLines = loggedFrom("sqlite3Wrapper.cpp", [this] { (void)service->startPlayer(6); });
    sqliteSpy.refuseFrom = SIZE_MAX;
    EXPECT_THAT(wrapperLines,
                ElementsAre(StartsWith("ERROR: Cannot prepare statement select_stream_by_id.  "),
                            AllOf(StartsWith("ERROR: Cannot bind "), HasSubstr(" to select_stream_by_id.  ")),
                            StartsWith("ERROR: Cannot step statement select_stream_by_id.  "),
                            StartsWith("ERROR: Cannot finalize statement select_stream_by_id.  ")));
}

// ---- starting a stream

TEST_F(AudioServiceTest, StartedInternetStreamAnswersAnErrorAndRuns)
{
    EXPECT_EQ(start(6), PLAYER_ERROR);
    EXPECT_EQ(service->getStatus(), PLAYER_STARTED);
    EXPECT_THAT(script.events, ElementsAre("ShoutcastPlayer(80, http://radio/)", "start"));
    EXPECT_THAT(lines, ElementsAre("DEBUG: AudioService::startPlayer id = 6", //
                                   "DEBUG: AudioService Start stream",        //
                                   "DEBUG: AudioService streamID: 80, streamTypeID: 2",
                                   "DEBUG: AudioService::startPlayer should start shoutcast stream"));
    EXPECT_THAT(sqliteSpy.prepared,
                ElementsAre(" SELECT * FROM T_Audio_Sources WHERE id = ?; ",
                            " SELECT id, stream_type_id, uri, channel, dst FROM T_Streams WHERE id = ?; "));
    EXPECT_THAT(sqliteSpy.bound, ElementsAre("1=6", "1=80"));
    EXPECT_EQ(sqlite3_next_stmt(database.getDatabase(), nullptr), nullptr); // all finalized
}

TEST_F(AudioServiceTest, LivewireStreamIsGivenItsDestination)
{
    EXPECT_EQ(start(7), PLAYER_ERROR);
    EXPECT_EQ(service->getStatus(), PLAYER_STARTED);
    EXPECT_THAT(script.events, ElementsAre("LivewirePlayer(81, 12)", "start"));
    EXPECT_THAT(lines, ElementsAre("DEBUG: AudioService::startPlayer id = 7", //
                                   "DEBUG: AudioService Start stream",        //
                                   "DEBUG: AudioService streamID: 81, streamTypeID: 1",
                                   "DEBUG: AudioService::startPlayer should start livewire stream"));
}

TEST_F(AudioServiceTest, StreamPlayerThatIsNotReadyStaysUnstarted)
{
    for (const int source : {6, 7}) {
        script = Script();
        script.service = service;
        script.afterConstruction = PLAYER_NOT_INITIALIZED;
        EXPECT_EQ(start(source), PLAYER_ERROR);
        EXPECT_EQ(script.events.size(), 1U); // no start, no stop
        EXPECT_EQ(service->getStatus(), PLAYER_NOT_INITIALIZED);
        EXPECT_EQ(service->stopPlayer(), PLAYER_OK); // it was there
    }
}

TEST_F(AudioServiceTest, StreamPlayerThatDoesNotStartGoes)
{
    script.startAnswer = PLAYER_ERROR;
    EXPECT_EQ(start(6), PLAYER_ERROR);
    EXPECT_THAT(script.events,
                ElementsAre("ShoutcastPlayer(80, http://radio/)", "start", "stop unreachable", "~StreamPlayer"));
    EXPECT_EQ(service->stopPlayer(), PLAYER_ERROR);
    script.events.clear();
    EXPECT_EQ(start(7), PLAYER_ERROR);
    EXPECT_THAT(script.events, ElementsAre("LivewirePlayer(81, 12)", "start", "stop unreachable", "~StreamPlayer"));
}

TEST_F(AudioServiceTest, OtherStreamTypeLeavesNoPlayerAndNoWordMore)
{
    EXPECT_EQ(start(8), PLAYER_ERROR);
    EXPECT_THAT(script.events, IsEmpty());
    EXPECT_THAT(lines, ElementsAre("DEBUG: AudioService::startPlayer id = 8", //
                                   "DEBUG: AudioService Start stream",        //
                                   "DEBUG: AudioService streamID: 82, streamTypeID: 3"));
    EXPECT_EQ(service->getStatus(), PLAYER_ERROR);
    EXPECT_EQ(sqlite3_next_stmt(database.getDatabase(), nullptr), nullptr);
}

TEST_F(AudioServiceTest, MissingStreamIsToldWithTheSourcesId)
{
    EXPECT_EQ(start(9), PLAYER_ERROR);
    EXPECT_THAT(lines, ElementsAre("DEBUG: AudioService::startPlayer id = 9", //
                                   "DEBUG: AudioService Start stream", "ERROR No stream with id = 9"));
    EXPECT_EQ(sqlite3_next_stmt(database.getDatabase(), nullptr), nullptr);
}

TEST_F(AudioServiceTest, UriIsTakenUpToItsColumnsWidth)
{
    const std::string widest(1024, 'u');
    run("UPDATE T_Streams SET uri = '" + widest + "' WHERE id = 80");
    (void)start(6);
    EXPECT_EQ(script.events[0], "ShoutcastPlayer(80, " + widest + ")");
    run("UPDATE T_Streams SET uri = '" + widest + "x' WHERE id = 80"); // SQLite keeps no widths
    script.events.clear();
    (void)start(6);
    EXPECT_THAT(script.events, Contains("ShoutcastPlayer(80, " + widest + ")"));
}

TEST_F(AudioServiceTest, MissingUriReadsAsEmpty)
{
    run("UPDATE T_Streams SET uri = NULL WHERE id = 80");
    (void)start(6);
    EXPECT_EQ(script.events[0], "ShoutcastPlayer(80, )");
}

// ---- with a player

TEST_F(AudioServiceTest, StopDeletesThePlayer)
{
    (void)start(5);
    script.events.clear();
    EXPECT_EQ(service->stopPlayer(), PLAYER_OK); // whatever its stop() gave
    EXPECT_THAT(script.events, ElementsAre("stop unreachable", "~FilePlayer"));
    EXPECT_EQ(service->stopPlayer(), PLAYER_ERROR);
}

TEST_F(AudioServiceTest, OnlyAStartedPlayerIsServiced)
{
    for (const PlayerStatus status : {PLAYER_NOT_INITIALIZED, PLAYER_READY, PLAYER_ERROR}) {
        script.afterStart = status;
        (void)start(5);
        script.events.clear();
        EXPECT_EQ(service->servicePlayer(), PLAYER_NOT_INITIALIZED);
        EXPECT_THAT(script.events, IsEmpty());
        EXPECT_EQ(service->getStatus(), status);
    }
    script.afterStart = PLAYER_STARTED;
    (void)start(5);
    script.events.clear();
    script.serviceAnswer = PLAYER_ERROR;
    EXPECT_EQ(service->servicePlayer(), PLAYER_ERROR);
    EXPECT_THAT(script.events, ElementsAre("service"));
}

TEST_F(AudioServiceTest, NextServiceTimeIsThePlayersAlsoLongPast)
{
    script.nextService.nextServiceTime.tv_sec = 3;
    script.nextService.nextServiceTime.tv_nsec = 4;
    script.nextService.serviceRequired = true;
    (void)start(5);
    EXPECT_TRUE(service->getNextServiceTime() == script.nextService);
}

TEST_F(AudioServiceTest, StatusRecordAndAverageRateAreThePlayers)
{
    struct Source : CAudioPlay {
        Source() : CAudioPlay("SOURCE")
        {
            upstream.push_back(new CUpstreamPort(this));
            upstream[0]->avgRate = 44100.7F;
        }
    };
    (void)start(5);
    quietly([this] {
        Source source;
        script.source = &source;
        EXPECT_EQ(service->getAvgSampleRate(), 44100000);
        script.source = nullptr;
    });
    EXPECT_EQ(service->getAvgSampleRate(), 0);
    ByteArray record(16);
    service->writePlayerStatus(&record);
    ASSERT_EQ(record.getLength(), 1);
    EXPECT_EQ(record.getBytes()[0], 77);
}

TEST_F(AudioServiceTest, DestructorDeletesThePlayerAndClosesTheDatabase)
{
    (void)start(5);
    script.events.clear();
    AudioService* dying = service;
    service = nullptr;
    // Its address is still good while the player is deleted.
    quietly([&] { delete dying; });
    EXPECT_THAT(script.events, ElementsAre("stop unreachable", "~FilePlayer"));
    // Opened anew, not refused as already open.
    EXPECT_THAT(loggedFrom("AudioDatabase.cpp", [this] { database.open_audio_database(); }), IsEmpty());
}

} // namespace
