#include "automationSupport.h"

#include "AudioService.h"
#include "globals.h"
#include "lastingServer.h"

#include <algorithm>
#include <sstream>

ScriptedPeer scriptedPeer;
ScriptedService scriptedService;

// ---- the socket, defined here so that the linker takes nothing of it from the library

osaStatus osaSockOpen(sockObject* sock)
{
    scriptedPeer.opened.push_back(*sock);
    sock->open = scriptedPeer.openAnswer == OSA_OK ? 1 : 0;
    return scriptedPeer.openAnswer;
}

int osaSockRead(sockObject* sock, char* buf, unsigned int len)
{
    sock->dataOpen = scriptedPeer.isConnected ? 1 : 0;
    scriptedPeer.lengths.push_back(len);
    if (scriptedPeer.sends.empty())
        return scriptedPeer.emptyReadAnswer;
    std::string& next = scriptedPeer.sends.front();
    const size_t taken = next.copy(buf, len);
    next.erase(0, taken);
    if (next.empty())
        scriptedPeer.sends.pop_front();
    return static_cast<int>(taken);
}

int osaSockWrite(sockObject*, char* buf, unsigned int len)
{
    scriptedPeer.received.emplace_back(buf, len);
    return scriptedPeer.writeAnswer > 0 ? static_cast<int>(len) : scriptedPeer.writeAnswer;
}

// ---- the player service

AudioService::AudioService() = default;
AudioService::~AudioService() = default;

PlayerStatus AudioService::startPlayer(int id)
{
    scriptedService.calls.push_back("start " + std::to_string(id));
    if (scriptedService.onStart)
        scriptedService.onStart(id);
    return PLAYER_ERROR;
}

PlayerStatus AudioService::stopPlayer()
{
    scriptedService.calls.emplace_back("stop");
    return PLAYER_ERROR;
}

// ---- the fixture

namespace
{

/** "TYPE File.cpp: text" of "date [TYPE] File.cpp line: text"; a line of any other shape as it stands. */
std::string withoutDateAndLine(const std::string& line)
{
    const size_t type = line.find("M [");
    const size_t file = line.find("] ");
    const size_t number = file == std::string::npos ? file : line.find(' ', file + 2);
    const size_t text = number == std::string::npos ? number : line.find_first_not_of("0123456789", number + 1);
    if (type == std::string::npos || text == std::string::npos || line[text] != ':')
        return line;
    return line.substr(type + 3, file - (type + 3)) + line.substr(file + 1, number - (file + 1)) + line.substr(text);
}

} // namespace

AutomationTest::AutomationTest()
{
    scriptedPeer = ScriptedPeer();
    scriptedService = ScriptedService();
    log_level = LOG_ALL;
    audio_database = &database;
    watch([this] {
        database.open_audio_database();
        log = std::make_unique<CAsPlayedLog>(database.getDatabase());
        automation = &lastingServer(&database);
        audioService = new AudioService();
        (void)automation->init();
    });
    asPlayedLog = log.get();
    api = automation;
    sqliteSpy = SqliteSpy();
}

AutomationTest::~AutomationTest()
{
    watch([this] { database.close_audio_database(); });
    delete audioService;
    audioService = nullptr;
    audio_database = nullptr;
    asPlayedLog = nullptr;
    api = nullptr;
}

void AutomationTest::watch(const std::function<void()>& action)
{
    std::string all;
    printed = stdoutOf([&] { all = stderrOf(action); });
    logged.clear();
    std::istringstream lines(all);
    for (std::string line; std::getline(lines, line);)
        logged.push_back(withoutDateAndLine(line));
}

int AutomationTest::pass()
{
    int answer = 0;
    watch([&] { answer = automation->service(); });
    return answer;
}

std::string AutomationTest::answerTo(const std::string& request)
{
    scriptedPeer.sends.push_back(request);
    scriptedPeer.received.clear();
    int numPasses = 0;
    while (!scriptedPeer.sends.empty() && ++numPasses < 10000)
        EXPECT_EQ(pass(), 0);
    std::string all;
    for (const std::string& text : scriptedPeer.received)
        all += text;
    return all;
}
