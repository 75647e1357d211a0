#pragma once

/**
 * What the tests of the players share: a real audio database in a directory of the test's own, and the lines of the
 * log with the file that each came from.
 */

#include "AsPlayedLog.h"
#include "AudioDatabase.h"
#include "AutomationAPI.h"
#include "lastingServer.h"
#include "persistenceSupport.h"

#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

/**
 * The log lines of `action` that came from `file` ("FilePlayer.cpp"), as "TYPE text": the text begins with the colon
 * behind the line's number, where there is one.
 */
std::vector<std::string> loggedFrom(const std::string& file, const std::function<void()>& action);

/** Runs `action` and drops what it writes to both outputs. */
void quietly(const std::function<void()>& action);

/** Each test has its own database, behind the process's global, and the other globals that a player calls. */
class PlayersTest : public PrivateDirectoryTest
{
protected:
    PlayersTest();
    ~PlayersTest() override;

    /** Opens the database, and the as-played log on its connection. */
    void openDatabase();

    /** Adds a playlist and answers its id; the first one of a test has id 1. */
    int addPlaylist(const std::string& name);
    /** Adds a place with an item of that type (ItemType::WAV and so on) and answers its sequence. */
    void addEntry(int playlistId, int sequence, int itemType, const std::string& path);
    void run(const std::string& sql);

    AudioDatabase database;
    std::unique_ptr<CAsPlayedLog> log; ///< null until openDatabase
    AutomationAPI& automation = lastingServer(&database);
};
