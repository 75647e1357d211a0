#pragma once

/**
 * What the tests of automation share: a scripted peer in place of the socket, a player service that only writes down
 * what it is asked, and the process's globals around a real database in a directory of the test's own.
 */

#include "AsPlayedLog.h"
#include "AudioDatabase.h"
#include "AutomationAPI.h"
#include "persistenceSupport.h"

#include <deque>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

/** The peer of the one automation socket: what it sends by script, and what it was sent. */
struct ScriptedPeer {
    std::deque<std::string> sends;     ///< one a read; what a read does not take stays for the next one
    std::vector<std::string> received; ///< one text a write
    bool isConnected = true;           ///< a read sets the socket's dataOpen by it, as accepting does
    osaStatus openAnswer = OSA_OK;     ///< with any other one the socket stays closed
    int emptyReadAnswer = 0;           ///< of a read when nothing is there to be read
    int writeAnswer = 1;               ///< of a write: the length if positive, else this status
    std::vector<sockObject> opened;    ///< the object as it was at each open
    std::vector<unsigned int> lengths; ///< asked for by each read
};
extern ScriptedPeer scriptedPeer;

/** What the player service was asked for: "start 3", "stop". */
struct ScriptedService {
    std::vector<std::string> calls;
    std::function<void(int)> onStart; ///< runs inside startPlayer, with its id
};
extern ScriptedService scriptedService;

/** Each test has its own database, as-played log and automation server behind the process's globals. */
class AutomationTest : public PrivateDirectoryTest
{
protected:
    AutomationTest();
    ~AutomationTest() override;

    /** One pass of the server, which keeps what it printed and logged; its answer. */
    int pass();

    /** The peer sends `request`, which is handled in one pass; what came back, all writes in one. */
    std::string answerTo(const std::string& request);

    /** Runs `action` and keeps what it printed and logged. */
    void watch(const std::function<void()>& action);

    std::vector<std::string> rows(const std::string& sql) { return rowsOf(database.getDatabase(), sql); }
    void run(const std::string& sql) { must(database.getDatabase(), sql); }

    std::string printed;             ///< to stdout in the last pass or watch
    std::vector<std::string> logged; ///< to stderr: "INFO File.cpp: text" of a log line, anything else as it stands

    AudioDatabase database;
    std::unique_ptr<CAsPlayedLog> log;
    AutomationAPI* automation = nullptr; ///< its socket is open; not owned
};
