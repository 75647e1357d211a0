#include "playersSupport.h"

#include "globals.h"

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

namespace
{

/** "ERROR: text" of a line that `file` logged: "date [ERROR] path/file line: text"; empty for any other. */
std::string withoutDateAndLine(const std::string& text, const std::string& file)
{
    const size_t type = text.find("M [");
    const size_t name = text.find("] ");
    const size_t afterFile = text.find(file + " ");
    if (type == std::string::npos || name == std::string::npos || afterFile == std::string::npos) {
        return "";
    }
    const std::string folder = text.substr(name + 2, afterFile - (name + 2));
    const size_t number = afterFile + file.size() + 1;
    const size_t rest = text.find_first_not_of("0123456789", number);
    if (folder.find(' ') != std::string::npos || (!folder.empty() && folder.back() != '/') || rest == number ||
        rest == std::string::npos) {
        return "";
    }
    return text.substr(type + 3, name - (type + 3)) + text.substr(rest);
}

} // namespace

std::vector<std::string> loggedFrom(const std::string& file, const std::function<void()>& action)
{
    std::vector<std::string> lines;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    action();
    std::istringstream all(testing::internal::GetCapturedStderr());
    (void)testing::internal::GetCapturedStdout();
    for (std::string text; std::getline(all, text);) {
        const std::string line = withoutDateAndLine(text, file);
        if (!line.empty()) {
            lines.push_back(line);
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
    api = &automation;
}

PlayersTest::~PlayersTest()
{
    log.reset();
    quietly([this] { database.close_audio_database(); });
    audio_database = nullptr;
    asPlayedLog = nullptr;
    api = nullptr;
}

void PlayersTest::openDatabase()
{
    quietly([this] {
        database.open_audio_database();
        log = std::make_unique<CAsPlayedLog>(database.getDatabase());
    });
    asPlayedLog = log.get();
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
