#include "AudioService.h"

#include "AudioDatabase.h"
#include "ByteArray.h"
#include "FilePlayer.h"
#include "StreamPlayer.h"
#include "globals.h"
#include "sqlite3Wrapper.h"

#include <cstdio>

using namespace audioLibrarySpace;

namespace
{

// T_Audio_Sources.source_type_id
constexpr int sourceTypePlaylist = 1;
constexpr int sourceTypeStream = 2;

// T_Streams.stream_type_id
constexpr int streamTypeLivewire = 1;
constexpr int streamTypeInternet = 2;

constexpr size_t maxUriBytes = 1024; ///< the width of T_Streams.uri

constexpr int32_t idleWaitNs = 500000000; ///< how far ahead the next service lies while there is no player

} // namespace

AudioService::AudioService()
{
    getAudioDatabase()->open_audio_database();
}

AudioService::~AudioService()
{
    deletePlayer();
    getAudioDatabase()->close_audio_database();
}

void AudioService::deletePlayer()
{
    if (player == nullptr) {
        return;
    }
    AudioPlayer* dying = player;
    player = nullptr;    // nothing reaches a dying player
    (void)dying->stop(); // it goes whatever that gave
    delete dying;
}

PlayerStatus AudioService::startPlayer(int id)
{
    LogEvent(LOG_DEBUG, "%s %d: AudioService::startPlayer id = %d", __FILE__, __LINE__, id);
    deletePlayer();

    sqlite3* db = getAudioDatabase()->getDatabase();
    const char* label = "select_audio_source";
    sqlite3_stmt* stmt = prepare_statement(db, " SELECT * FROM T_Audio_Sources WHERE id = ?; ", label);
    bind_int(db, stmt, 1, static_cast<uint32_t>(id), label, "id");
    const int code = step_statement(db, stmt, label);
    const int source_type = sqlite3_column_int(stmt, 1); // 0 where there is no row
    const int source_id = sqlite3_column_int(stmt, 2);
    finalize_statement(db, stmt, label);

    if (code != SQLITE_ROW) {
        LogEvent(LOG_ERROR, "%s %d No audio source with id = %d", __FILE__, __LINE__, id); // sic: no colon
        return PLAYER_ERROR;
    }
    switch (source_type) {
    case sourceTypePlaylist:
        return startPlaylist(source_id);
    case sourceTypeStream:
        startStream(id, source_id);
        return PLAYER_ERROR; // also for a stream that plays
    default:
        LogEvent(LOG_ERROR, "%s %d No source type = %d", __FILE__, __LINE__, id); // sic: the id
        return PLAYER_ERROR;
    }
}

PlayerStatus AudioService::startPlaylist(int playlistId)
{
    player = new FilePlayer(playlistId);
    if (player->start() != PLAYER_STARTED) {
        deletePlayer();
        return PLAYER_ERROR;
    }
    return player->getStatus();
}

void AudioService::startStream(int id, int streamRowId)
{
    LogEvent(LOG_DEBUG, "%s %d: AudioService Start stream", __FILE__, __LINE__);
    sqlite3* db = getAudioDatabase()->getDatabase();
    const char* label = "select_stream_by_id";
    sqlite3_stmt* stmt =
        prepare_statement(db, " SELECT id, stream_type_id, uri, channel, dst FROM T_Streams WHERE id = ?; ", label);
    bind_int(db, stmt, 1, static_cast<uint32_t>(streamRowId), label, "id");
    if (step_statement(db, stmt, label) == SQLITE_ROW) {
        startStreamOfRow(stmt);
    } else {
        LogEvent(LOG_ERROR, "%s %d No stream with id = %d", __FILE__, __LINE__, id); // sic: no colon
    }
    finalize_statement(db, stmt, label);
}

void AudioService::startStreamOfRow(sqlite3_stmt* row)
{
    const int streamId = sqlite3_column_int(row, 0);
    const int type = sqlite3_column_int(row, 1);
    LogEvent(LOG_DEBUG, "%s %d: AudioService streamID: %d, streamTypeID: %d", __FILE__, __LINE__, streamId, type);
    if (type == streamTypeInternet) {
        LogEvent(LOG_DEBUG, "%s %d: AudioService::startPlayer should start shoutcast stream", __FILE__, __LINE__);
        const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(row, 2));
        char uri[maxUriBytes + 1];
        std::snprintf(uri, sizeof uri, "%s", text == nullptr ? "" : text); // a wider row is cut
        installStreamPlayer(new ShoutcastPlayer(streamId, uri));
    } else if (type == streamTypeLivewire) {
        LogEvent(LOG_DEBUG, "%s %d: AudioService::startPlayer should start livewire stream", __FILE__, __LINE__);
        const int dst = sqlite3_column_int(row, 4);
        installStreamPlayer(new LivewirePlayer(streamId, dst));
    }
}

void AudioService::installStreamPlayer(AudioPlayer* streamPlayer)
{
    player = streamPlayer;
    if (player->getStatus() != PLAYER_READY) {
        return; // it stays until the next start or stop
    }
    if (player->start() != PLAYER_STARTED) {
        deletePlayer();
    }
}

PlayerStatus AudioService::stopPlayer()
{
    if (player == nullptr) {
        return PLAYER_ERROR;
    }
    deletePlayer();
    return PLAYER_OK;
}

PlayerStatus AudioService::servicePlayer()
{
    if (player == nullptr || !player->isStarted()) {
        return PLAYER_NOT_INITIALIZED; // for a failed player too
    }
    return player->serviceAudioBlocks();
}

CServiceTime AudioService::getNextServiceTime() const
{
    if (player != nullptr) {
        return player->getNextServiceTime();
    }
    CServiceTime next;
    (void)next.setCurrentTime(); // always STREAM_OK
    next += idleWaitNs;
    return next;
}

PlayerStatus AudioService::getStatus() const
{
    return player == nullptr ? PLAYER_ERROR : player->getStatus();
}

int AudioService::getAvgSampleRate() const
{
    return player == nullptr ? 0 : player->getAvgSampleRate();
}

void AudioService::writePlayerStatus(ByteArray* ba)
{
    if (player != nullptr) {
        player->writeStatus(ba);
        return;
    }
    // What does not fit is left out: the buffer is the caller's to size.
    (void)ba->writeByte(0);
    (void)ba->writeInt(0);
    (void)ba->writeShort(0);
}
