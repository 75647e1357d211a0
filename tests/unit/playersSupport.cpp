#include "playersSupport.h"

#include "globals.h"

#include <regex>
#include <sstream>
#include <unistd.h>

// A test's database need not outlive a power cut: without these each test waits for the disk some thirty times.
extern "C" {
int fsync(int)
{
    return 0;
}
int fdatasync(int)
{
    return 0;
}
}

std::vector<std::string> loggedFrom(const std::string& file, const std::function<void()>& action)
{
    static const std::regex line(
        R"(^[A-Z][a-z]+ \d\d, \d{4} \d\d:\d\d:\d\d [AP]M \[([A-Z]+)\] (?:[A-Za-z0-9]+/)*([A-Za-z0-9]+\.cpp) \d+(.*)$)");
    std::vector<std::string> lines;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    action();
    std::istringstream all(testing::internal::GetCapturedStderr());
    (void)testing::internal::GetCapturedStdout();
    for (std::string text; std::getline(all, text);) {
        std::smatch match;
        if (std::regex_match(text, match, line) && match[2] == file) {
            lines.push_back(match[1].str() + match[3].str());
        }
    }
    return lines;
}

void quietly(const std::function<void()>& action)
{
    (void)loggedFrom("", action);
}

PlayersTest::PlayersTest()
{
    log_level = LOG_ALL;
    audio_database = &database;
    asPlayedLog = &log;
    api = &automation;
}

PlayersTest::~PlayersTest()
{
    quietly([this] { database.close_audio_database(); });
    audio_database = nullptr;
    asPlayedLog = nullptr;
    api = nullptr;
}

void PlayersTest::openDatabase()
{
    quietly([this] { database.open_audio_database(); });
}

int PlayersTest::addPlaylist(const std::string& name)
{
    int id = -1;
    quietly([&] {
        constexpr int playlist = 1;
        EXPECT_EQ(database.insert_playlist(name.c_str(), PlaylistItem::RESERVED_ID, playlist), SQLITE_DONE);
        id = database.getPlaylistId(name.c_str());
    });
    return id;
}

void PlayersTest::addEntry(int playlistId, int sequence, int itemType, const std::string& path)
{
    PlaylistItem item;
    item.setPath(path.c_str());
    item.setPlaylistID(static_cast<uint16_t>(playlistId));
    item.setSequence(static_cast<uint32_t>(sequence));
    item.setSampleRate(48000);
    item.getTypeReference().setTypeID(itemType);
    quietly([&] { EXPECT_EQ(database.insert_playlist_item(item), SQLITE_DONE); });
}

void PlayersTest::run(const std::string& sql)
{
    must(database.getDatabase(), sql);
}
