/**
 * Any datagram on the control socket, and any record of a playlist item, read as the wire has them.
 *
 *   input: the bytes; of a datagram, the first 1024, as the receive cuts it
 *
 * A player is started or stopped exactly when the datagram says so, with the id that it gives.
 */

#include "fuzz.h"

#include "AudioDatabase.h"
#include "AudioManager.h"
#include "AudioService.h"
#include "ByteArray.h"
#include "globals.h"

#include <cstring>

namespace
{

/** What the service was asked for. */
struct Requests {
    std::vector<int> started;
    int stopped = 0;
};
Requests requests;

} // namespace

// AudioService::startPlayer(int) and AudioService::stopPlayer()
extern "C" PlayerStatus __wrap__ZN12AudioService11startPlayerEi(AudioService*, int id)
{
    requests.started.push_back(id);
    return PLAYER_STARTED;
}

extern "C" PlayerStatus __wrap__ZN12AudioService10stopPlayerEv(AudioService*)
{
    requests.stopped++;
    return PLAYER_OK;
}

namespace
{

constexpr size_t receivedAtMost = 1024;

/** The little-endian integer at `offset`; 0 if the datagram ends before its last byte. */
uint32_t integerAt(const std::string& bytes, size_t offset, size_t numBytes)
{
    uint32_t value = 0;
    for (size_t i = 0; offset + numBytes <= bytes.size() && i < numBytes; i++) {
        value |= static_cast<uint32_t>(static_cast<uint8_t>(bytes[offset + i])) << (8 * i);
    }
    return value;
}

const uint8_t* asBytes(const std::string& text)
{
    return reinterpret_cast<const uint8_t*>(text.data());
}

/** A service on a database in memory, made once: neither is changed by what is tried here. */
void makeService()
{
    if (audioService != nullptr) {
        return;
    }
    audio_database = new AudioDatabase;
    MUST_HOLD(audio_database->open_audio_database(":memory:", true));
    audioService = new AudioService;
}

void controlRequest(const std::string& bytes)
{
    requests = Requests();
    ByteArray request(asBytes(bytes), static_cast<uint16_t>(bytes.size()));
    handleControlRequest(request);

    const bool isSet = integerAt(bytes, 0, 1) == 2;
    const bool isStart = isSet && integerAt(bytes, 1, 4) == 0x1202;
    const bool isStop = isSet && integerAt(bytes, 1, 4) == 0x1203;
    MUST_HOLD(requests.started.size() == (isStart ? 1 : 0));
    MUST_HOLD(!isStart || requests.started[0] == static_cast<int32_t>(integerAt(bytes, 5, 4)));
    MUST_HOLD(requests.stopped == (isStop ? 1 : 0));
}

void playlistItem(const std::string& bytes)
{
    ByteArray record(asBytes(bytes), static_cast<uint16_t>(bytes.size()));
    PlaylistItem item;
    item.setItemID(77);
    item.setPath("before");
    const bool taken = item.read(&record);

    const size_t pathBytes = integerAt(bytes, 2, 2);
    const bool whole = bytes.size() >= 4 && pathBytes + 9 < bytes.size() - 4 && pathBytes <= 1023;
    MUST_HOLD(taken == whole);
    MUST_HOLD(item.getItemID() == (bytes.size() < 4 ? 77 : integerAt(bytes, 0, 2)));
    if (!whole) {
        MUST_HOLD(item.getPath() == "before" && item.getSequence() == 0);
        return;
    }
    const size_t tail = 4 + pathBytes;
    MUST_HOLD(item.getPath() == bytes.substr(4, pathBytes).c_str());
    MUST_HOLD(item.getPlaylistID() == integerAt(bytes, tail + 2, 2));
    MUST_HOLD(item.getSequence() == integerAt(bytes, tail + 4, 2));
    MUST_HOLD(item.getPlaylistItemID() == integerAt(bytes, tail + 6, 4));

    ByteArray written(7);
    MUST_HOLD(item.write(&written));
    MUST_HOLD(written.getLength() == 6);
    MUST_HOLD(std::memcmp(written.getBytes(), bytes.data() + tail + 6, 4) == 0);
    MUST_HOLD(std::memcmp(written.getBytes() + 4, bytes.data() + tail + 4, 2) == 0);
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string bytes = fuzz::Input(data, size).rest();
    makeService();
    if (!bytes.empty()) { // an empty one is not looked at
        controlRequest(bytes.substr(0, receivedAtMost));
    }
    playlistItem(bytes);
    return 0;
}
