/**
 * The process's entry on stand-ins for the four long-lived objects and the two threads; it ends by the exception of a
 * nap too many. What needs a process of its own, such as becoming a daemon, is tested on the real one.
 */

#include "AsPlayedLog.h"
#include "AudioDatabase.h"
#include "AudioManager.h"
#include "AudioService.h"
#include "AutomationAPI.h"
#include "Heartbeat.h"
#include "globals.h"

#include <array>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <string>
#include <unistd.h>
#include <vector>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;

/** The main of the daemon, renamed: the test has one of its own. */
int playerMain(int argc, char* argv[]);

namespace
{

struct EndOfScript {
};

std::vector<std::string> calls;
size_t numNaps = 0; ///< naps that return

/** The connection that the database hands out; never looked into. */
sqlite3* const connection = reinterpret_cast<sqlite3*>(&calls);

/** The long-lived objects that have their place already. */
std::string globalsSet()
{
    return std::string(audio_database != nullptr ? " database" : "") + (audioService != nullptr ? " service" : "") +
           (asPlayedLog != nullptr ? " log" : "") + (api != nullptr ? " automation" : "");
}

} // namespace

// ---- the objects that main builds

sqlite3* AudioDatabase::getDatabase()
{
    calls.emplace_back("connection asked for");
    return connection;
}

AudioService::AudioService()
{
    calls.push_back("service after" + globalsSet());
}

AudioService::~AudioService() = default;

CAsPlayedLog::CAsPlayedLog(sqlite3* db) : database(db)
{
    calls.push_back(std::string("log on ") + (db == connection ? "the connection" : "?") + " after" + globalsSet());
}

CAsPlayedLog::~CAsPlayedLog() = default;

AutomationAPI::AutomationAPI(AudioDatabase* database) : db(database)
{
    calls.push_back(std::string("automation on ") + (database == audio_database ? "the database" : "?") + " after" +
                    globalsSet());
}

AutomationAPI::~AutomationAPI() = default;

// ---- the threads that it starts

void* AudioManager(void*)
{
    return nullptr;
}

void* Heartbeat(void*)
{
    return nullptr;
}

extern "C" {
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*start)(void*), void* argument)
{
    size_t stackBytes = 0;
    pthread_attr_getstacksize(attr, &stackBytes);
    const bool manager = start == AudioManager && thread == &audio_manager;
    const bool beat = start == Heartbeat && thread == &heartbeat;
    calls.push_back(std::string(manager ? "manager"
                                : beat  ? "heartbeat"
                                        : "?") +
                    " on " + std::to_string(stackBytes) + (argument == nullptr ? "" : " with an argument") + " after" +
                    globalsSet());
    return 0;
}

int __wrap_pthread_detach(pthread_t)
{
    return 0;
}

int __wrap_usleep(useconds_t us)
{
    calls.push_back("nap " + std::to_string(us));
    if (numNaps == 0) {
        throw EndOfScript();
    }
    numNaps--;
    return -1; // cut short by a signal: nobody looks at it
}
}

namespace
{

class Main : public testing::Test
{
protected:
    void TearDown() override
    {
        delete api;
        api = nullptr;
        delete asPlayedLog;
        asPlayedLog = nullptr;
        delete audioService;
        audioService = nullptr;
        delete audio_database;
        audio_database = nullptr;
        log_level = LOG_ALL;
        port_number = 7004;
    }

    /** Runs main with these arguments through `naps` naps and into one more; what it prints and what it logs. */
    void run(std::vector<std::string> arguments, size_t naps = 0)
    {
        arguments.insert(arguments.begin(), "AudioPlayer");
        std::vector<char*> argv;
        for (auto& argument : arguments) {
            argv.push_back(argument.data());
        }
        argv.push_back(nullptr);
        calls.clear();
        numNaps = naps;
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        EXPECT_THROW(playerMain(static_cast<int>(arguments.size()), argv.data()), EndOfScript);
        logged = testing::internal::GetCapturedStderr();
        printed = testing::internal::GetCapturedStdout();
    }

    std::string printed;
    std::string logged;
};

TEST_F(Main, BuildsEachObjectIntoItsGlobalThenStartsTheThreadsAndNaps)
{
    run({}, 2);
    EXPECT_THAT(calls, ElementsAre("service after database", "connection asked for",
                                   "log on the connection after database service",
                                   "automation on the database after database service log",
                                   "manager on 400000 after database service log automation",
                                   "heartbeat on 32384 after database service log automation", "nap 30000000",
                                   "nap 30000000", "nap 30000000"));
}

TEST_F(Main, NamesTheThreadsInTheLog)
{
    run({});
    EXPECT_THAT(logged, MatchesRegex("[^\n]+\\[INFO\\] globals.cpp [0-9]+: Spawned audio_manager thread\n"
                                     "[^\n]+\\[INFO\\] globals.cpp [0-9]+: Spawned heartbeat thread\n"));
}

TEST_F(Main, BannerIsTheVersionAndTheBuild)
{
    run({});
    EXPECT_THAT(printed, MatchesRegex("Vorelk Audio Player Version 1\\.1\\.0\\.15\n"
                                      "compiled on [A-Z][a-z][a-z] [ 0-9][0-9] [0-9]+ at [0-9]+:[0-9]+:[0-9]+\n"));
}

TEST_F(Main, LogsEverythingWhateverTheLevelWasBefore)
{
    log_level = 3;
    run({});
    EXPECT_EQ(log_level, 2047);
    EXPECT_EQ(port_number, 7004);
}

TEST_F(Main, OptionsTakeEffectBeforeTheObjectsAreBuilt)
{
    run({"-p", "7100", "-t", "2"});
    EXPECT_EQ(log_level, 2);
    EXPECT_EQ(port_number, 7100);
    EXPECT_THAT(printed, testing::StartsWith("Port:       7100\nTracelevel: 2\nVorelk Audio Player"));
    EXPECT_EQ(logged, "") << "the threads are started with the new level";
}

TEST_F(Main, LastOfRepeatedOptionsCounts)
{
    run({"-t1", "2", "-p", "abc", "-t", "-5"});
    EXPECT_EQ(log_level, -5);
    EXPECT_EQ(port_number, 0);
    EXPECT_THAT(printed, HasSubstr("Tracelevel: 2\nPort:       0\nTracelevel: -5\n"));
}

} // namespace
