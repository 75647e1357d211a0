#include "FilePlayer.h"

#include "AsPlayedLog.h"
#include "AudioDatabase.h"
#include "AutomationAPI.h"
#include "ByteArray.h"
#include "Playlist.h"
#include "globals.h"
#include "playerGraph.h"

#include "audioLibrary/alsaSource.h"
#include "audioLibrary/mixerBlock.h"
#include "audioLibrary/mp3FilePlay.h"
#include "audioLibrary/sampleRateConverter.h"
#include "audioLibrary/toneGenerator.h"
#include "audioLibrary/wavFilePlay.h"

#include <cstdlib>
#include <string>
#include <unistd.h>

using namespace audioLibrarySpace;

// %S takes a wide string; widened, the file's name comes out as it does with %s.
#define WIDE_TEXT(text) L##text
#define WIDE(text) WIDE_TEXT(text)
#define WIDE_FILE WIDE(__FILE__)

namespace
{

/** A readable file of this name marks the USB store, which holds the media, as not mounted. */
constexpr const char* unmountedMarker = "/mnt/usb/unmounted.usb";

constexpr int32_t timeRemainingConnectThreshold =
    3000; ///< ms; a standby chain still unconnected is filled from here on
[[maybe_unused]] constexpr int32_t timeRemainingStartThreshold = 75; ///< ms; read by nothing

constexpr useconds_t unplayableEntryPauseUs = 500000;

constexpr float placeHolderRate = 44100.0F; ///< Hz, of the tones that hold the place of the first two files

/** Block 0 of `chain` as a source; null if there is no such chain or block. */
CAudioPlay* headOf(CAudioChain* chain)
{
    return chain == nullptr ? nullptr : dynamic_cast<CAudioPlay*>(chain->getAudioBlock(0));
}

/** The digit at `position` as a number, 0 for anything else and just behind the end; further out it throws. */
int digitAt(const std::string& text, size_t position)
{
    return static_cast<int>(std::strtol(text.substr(position, 1).c_str(), nullptr, 10));
}

/** The sequence after `sequence`; wraps, since the number came out of the database. */
int sequenceAfter(int sequence)
{
    return static_cast<int>(static_cast<uint32_t>(sequence) + 1U);
}

} // namespace

struct FilePlayer::playlistWalk {
    PlaylistItem currentEntry;           ///< after a failed lookup what it held before
    int count = 0;                       ///< entries in the current playlist
    CAudioBlock* player = nullptr;       ///< of the last entry tried; only ever compared with null
    int numberOfAttempts = 0;            ///< jumps that were taken are none
    streamStatus sstatus = STREAM_ERROR; ///< of the last player connected
};

FilePlayer::FilePlayer(int playlist_id)
{
    LogEvent(LOG_DEBUG, "%s %d: FilePlayer constructor", __FILE__, __LINE__);
    status = PLAYER_NOT_INITIALIZED;
    const bool storeIsUnmounted = access(unmountedMarker, R_OK) == 0;
    currentPlaylistID = playlist_id;
    const int count = getAudioDatabase()->getPlaylistItemCount(currentPlaylistID);
    if (count == 0 || storeIsUnmounted) {
        return;
    }
    if (createAudioBlocks() != STREAM_OK) {
        deleteBlocks();
        status = PLAYER_ERROR;
        return;
    }
    if (createChains() != STREAM_OK) {
        deleteChains();
        deleteBlocks();
        status = PLAYER_ERROR;
        return;
    }
    status = PLAYER_READY;
}

FilePlayer::~FilePlayer()
{
    LogEvent(LOG_DEBUG, "%s %d: FilePlayer destructor", __FILE__, __LINE__);
    status = PLAYER_NOT_INITIALIZED;
    deleteChains();
    deleteBlocks();
}

void FilePlayer::deleteChains()
{
    CAudioChain::deleteAllChains();
    sourceChain = nullptr;
    activeChain = nullptr;
    standbyChain = nullptr;
}

void FilePlayer::deleteBlocks()
{
    CAudioBlock::deleteAllBlocks();
    playerBlock1 = nullptr;
    playerBlock2 = nullptr;
    rateConverter1 = nullptr;
    rateConverter2 = nullptr;
    mixerBlock = nullptr;
    alsaSource = nullptr;
}

streamStatus FilePlayer::createAudioBlocks()
{
    mixerBlock = new CMixer("MUX", mixerPeriods);
    streamStatus sstatus = mixerBlock->init();
    if (sstatus != STREAM_OK) {
        LogEvent(LOG_DEBUG, "%s %d: FilePlayer::createAudioBlocks failed to initialize mixer block", __FILE__,
                 __LINE__);
        return sstatus;
    }
    alsaSource = new CALSASource("ALSA_SOURCE", cardChannels, cardSampleRate, cardPeriods, cardPeriodSize,
                                 cardSampleFormat, cardDevice);
    sstatus = alsaSource->init();
    if (sstatus != STREAM_OK) {
        LogEvent(LOG_DEBUG, "%s %d: FilePlayer::createAudioBlocks failed to initialize ALSA source", __FILE__,
                 __LINE__);
        return sstatus;
    }
    playerBlock1 = new CToneGenerator("TONE_1", placeHolderRate);
    sstatus = playerBlock1->init();
    if (sstatus != STREAM_OK) {
        LogEvent(LOG_DEBUG, "%s %d: FilePlayer::createAudioBlocks failed to initialize player block 1", __FILE__,
                 __LINE__);
        return sstatus;
    }
    rateConverter1 = new CSampleRateConverter("RATE_CONVERTER_1");
    sstatus = rateConverter1->init();
    if (sstatus != STREAM_OK) {
        LogEvent(LOG_DEBUG, "%s %d: FilePlayer::createAudioBlocks failed to initialize rate converter 1", __FILE__,
                 __LINE__);
        return sstatus;
    }
    playerBlock2 = new CToneGenerator("TONE_2", placeHolderRate);
    sstatus = playerBlock2->init();
    if (sstatus != STREAM_OK) {
        LogEvent(LOG_DEBUG, "%s %d: FilePlayer::createAudioBlocks failed to initialize player block 2", __FILE__,
                 __LINE__);
        return sstatus;
    }
    rateConverter2 = new CSampleRateConverter("RATE_CONVERTER_2");
    sstatus = rateConverter2->init();
    if (sstatus != STREAM_OK) {
        LogEvent(LOG_DEBUG, "%s %d: FilePlayer::createAudioBlocks failed to initialize rate converter 2", __FILE__,
                 __LINE__);
        return sstatus;
    }
    return STREAM_OK;
}

streamStatus FilePlayer::createChains()
{
    streamStatus sstatus = createSourceChain();
    if (sstatus != STREAM_OK) {
        LogEvent(LOG_ERROR, "%S %d: FilePlayer::createChains - cannot create source chain", WIDE_FILE, __LINE__); // sic
        deleteChains();
        return sstatus;
    }
    sstatus = createActiveChain();
    if (sstatus != STREAM_OK) {
        LogEvent(LOG_ERROR, "%S %d: FilePlayer::createChains - cannot create active chain", WIDE_FILE, __LINE__); // sic
        deleteChains();
        return sstatus;
    }
    sstatus = createStandbyChain();
    if (sstatus != STREAM_OK) {
        LogEvent(LOG_ERROR, "%S %d: FilePlayer::createChains - cannot create standby chain", WIDE_FILE,
                 __LINE__); // sic
        deleteChains();
        return sstatus;
    }
    return STREAM_OK;
}

streamStatus FilePlayer::createSourceChain()
{
    LogEvent(LOG_DEBUG, "%s %d: FilePlayer::createSourceChain", __FILE__, __LINE__);
    sourceChain = new CAudioChain("SOURCE_CHAIN");
    streamStatus sstatus = sourceChain->addAudioBlock(mixerBlock, -1);
    if (sstatus != STREAM_OK) {
        LogEvent(LOG_ERROR, "%s %d: Cannot add mixer block to source chain", __FILE__, __LINE__);
        deleteChains();
        return sstatus;
    }
    sstatus = sourceChain->addAudioBlock(alsaSource, -1);
    if (sstatus != STREAM_OK) {
        LogEvent(LOG_ERROR, "%s %d: Cannot add ALSA source to source chain", __FILE__, __LINE__);
        deleteChains();
        return sstatus;
    }
    sstatus = sourceChain->connectChain();
    if (sstatus != STREAM_OK) {
        LogEvent(LOG_ERROR, "%s %d: Cannot connect source chain", __FILE__, __LINE__);
        deleteChains();
        return sstatus;
    }
    return STREAM_OK;
}

streamStatus FilePlayer::createActiveChain()
{
    LogEvent(LOG_DEBUG, "%s %d: FilePlayer::createActiveChain", __FILE__, __LINE__);
    activeChain = new CAudioChain("ACTIVE_PLAYER_CHAIN");
    streamStatus sstatus = activeChain->addAudioBlock(playerBlock1, -1);
    if (sstatus != STREAM_OK) {
        LogEvent(LOG_ERROR, "%s %d: Cannot add player to active chain", __FILE__, __LINE__);
        deleteChains();
        return sstatus;
    }
    sstatus = activeChain->addAudioBlock(rateConverter1, -1);
    if (sstatus != STREAM_OK) {
        LogEvent(LOG_ERROR, "%s %d: Cannot add rate converter to active chain", __FILE__, __LINE__);
        deleteChains();
        return sstatus;
    }
    sstatus = activeChain->addAudioBlock(mixerBlock, -1);
    if (sstatus != STREAM_OK) {
        LogEvent(LOG_ERROR, "%s %d: Cannot add mixer block to active chain", __FILE__, __LINE__);
        deleteChains();
        return sstatus;
    }
    sstatus = activeChain->connectChain();
    if (sstatus != STREAM_OK) {
        LogEvent(LOG_ERROR, "%s %d: Cannot connect active chain", __FILE__, __LINE__);
        deleteChains();
        return sstatus;
    }
    return STREAM_OK;
}

streamStatus FilePlayer::createStandbyChain()
{
    LogEvent(LOG_DEBUG, "%s %d: FilePlayer::createStandbyChain", __FILE__, __LINE__);
    standbyChain = new CAudioChain("STANDBY_PLAYER_CHAIN");
    streamStatus sstatus = standbyChain->addAudioBlock(playerBlock2, -1);
    if (sstatus != STREAM_OK) {
        LogEvent(LOG_ERROR, "%s %d: Cannot add player to standby chain", __FILE__, __LINE__);
        deleteChains();
        return sstatus;
    }
    sstatus = standbyChain->addAudioBlock(rateConverter2, -1);
    if (sstatus != STREAM_OK) {
        LogEvent(LOG_ERROR, "%s %d: Cannot add rate converter to standby chain", __FILE__, __LINE__);
        deleteChains();
        return sstatus;
    }
    sstatus = standbyChain->addAudioBlock(mixerBlock, -1);
    if (sstatus != STREAM_OK) {
        LogEvent(LOG_ERROR, "%s %d: Cannot add mixer block to standby chain", __FILE__, __LINE__);
        deleteChains();
        return sstatus;
    }
    sstatus = standbyChain->connectChain();
    if (sstatus != STREAM_OK) {
        LogEvent(LOG_ERROR, "%s %d: Cannot connect standby chain", __FILE__, __LINE__);
        deleteChains();
        return sstatus;
    }
    return STREAM_OK;
}

PlayerStatus FilePlayer::start()
{
    LogEvent(LOG_DEBUG, "%s %d: FilePlayer::start", __FILE__, __LINE__);
    if (status != PLAYER_READY) {
        LogEvent(LOG_DEBUG, "%s %d: FilePlayer::start - player not ready", __FILE__, __LINE__);
        return status;
    }
    currentSequence = 0;
    if (connectNextPlayer(activeChain) != STREAM_OK) {
        LogEvent(LOG_ERROR, "%s %d: Cannot connect next player to active chain", __FILE__, __LINE__);
        status = PLAYER_ERROR;
        return status;
    }
    playerBlock1 = headOf(activeChain);
    LogEvent(LOG_DEBUG, "%s %d: active player has runtime ID %d", __FILE__, __LINE__, playerBlock1->getRunTimeId());
    // A port that will not start shows in the service of its block.
    (void)sourceChain->startAudio();
    (void)activeChain->startAudio();
    LogEvent(LOG_DEBUG, "%s %d: Active chain started", __FILE__, __LINE__);
    status = PLAYER_STARTED;
    return status;
}

PlayerStatus FilePlayer::stop()
{
    LogEvent(LOG_DEBUG, "%s %d: FilePlayer::stop", __FILE__, __LINE__);
    if (activeChain == nullptr) {
        status = PLAYER_ERROR;
        return status;
    }
    status = activeChain->stopAudio() == STREAM_OK ? PLAYER_READY : PLAYER_ERROR;
    return status;
}

PlayerStatus FilePlayer::serviceAudioBlocks()
{
    if (status != PLAYER_STARTED) {
        return status;
    }
    CServiceTime latest;
    (void)latest.setCurrentTime(); // always STREAM_OK
    latest += longestServiceWaitNs;
    nextServiceTime = latest;

    streamStatus sstatus = serviceAudioBlock(playerBlock1);
    if (sstatus != STREAM_OK) {
        LogEvent(LOG_ERROR, "%s %d: Cannot service player 1 - streamStatus = %d", __FILE__, __LINE__, sstatus);
        return status = PLAYER_ERROR;
    }
    checkTimeRemaining(playerBlock1);
    // From here on the heads of the chains may be others: the change of roles takes effect within this pass.
    sstatus = serviceAudioBlock(playerBlock2);
    if (sstatus != STREAM_OK) {
        LogEvent(LOG_ERROR, "%s %d: Cannot service player 2 - streamStatus = %d", __FILE__, __LINE__, sstatus);
        return status = PLAYER_ERROR;
    }
    sstatus = serviceAudioBlock(rateConverter1);
    if (sstatus != STREAM_OK) {
        LogEvent(LOG_ERROR, "%s %d: Cannot service rate converter 1 - streamStatus = %d", __FILE__, __LINE__, sstatus);
        return status = PLAYER_ERROR;
    }
    sstatus = serviceAudioBlock(rateConverter2);
    if (sstatus != STREAM_OK) {
        LogEvent(LOG_ERROR, "%s %d: Cannot service rate converter 2 - streamStatus = %d", __FILE__, __LINE__, sstatus);
        return status = PLAYER_ERROR;
    }
    sstatus = serviceAudioBlock(mixerBlock);
    if (sstatus != STREAM_OK) {
        LogEvent(LOG_ERROR, "%s %d: Cannot service mixer block - streamStatus = %d", __FILE__, __LINE__, sstatus);
        return status = PLAYER_ERROR;
    }
    sstatus = serviceAudioBlock(alsaSource);
    if (sstatus != STREAM_OK) {
        LogEvent(LOG_ERROR, "%s %d: Cannot service ALSA source - streamStatus = %d", __FILE__, __LINE__, sstatus);
        return status = PLAYER_ERROR;
    }
    return PLAYER_STARTED;
}

void FilePlayer::writeStatus(ByteArray* ba)
{
    // What does not fit is left out: the buffer is the caller's to size.
    (void)ba->writeByte(isStarted() ? 1 : 0);
    (void)ba->writeInt(0);
    (void)ba->writeShort(0);
}

CAudioPlay* FilePlayer::getPlayerBlock() const
{
    return headOf(activeChain);
}

void FilePlayer::checkTimeRemaining(CAudioPlay* player)
{
    const int32_t timeRemaining = player->timeLeft();
    if (timeRemaining == 0) {
        changeRoles();
    } else if (timeRemaining >= 1 && timeRemaining <= timeRemainingConnectThreshold &&
               !standbyChain->isChainConnected()) {
        LogEvent(LOG_DEBUG, "%s %d: Creating next player block", __FILE__, __LINE__);
        (void)connectNextPlayer(standbyChain); // tried again until the file ends
        playerBlock2 = headOf(standbyChain);   // the head before may be gone
    }
}

void FilePlayer::changeRoles()
{
    (void)connectNextPlayer(standbyChain); // without a next file, what the chain holds goes on air
    (void)activeChain->stopAudio();
    if (standbyChain->chainPlaybackState == AUDIO_STOPPED) {
        (void)standbyChain->startAudio();
    }
    CAudioChain* tempChain = activeChain;
    activeChain = standbyChain;
    standbyChain = tempChain;
    playerBlock1 = headOf(activeChain);
    playerBlock2 = headOf(standbyChain);
}

streamStatus FilePlayer::connectNextPlayer(CAudioChain* chain)
{
    playlistWalk walk;
    walk.count = getAudioDatabase()->getPlaylistItemCount(currentPlaylistID);
    if (walk.count == 0) {
        LogEvent(LOG_DEBUG, "%s %d: Playlist is empty", __FILE__, __LINE__);
        return STREAM_ERROR;
    }
    for (;;) {
        if (currentIndex >= walk.count) { // the playlist is finished and starts over
            currentIndex = 0;
            currentSequence = 0;
        }
        // A lookup that finds nothing leaves the entry of the turn before, which is then taken again.
        (void)getAudioDatabase()->getNextPlaylistItem(currentPlaylistID, currentSequence, walk.currentEntry);
        if (walk.currentEntry.isJump()) {
            followJump(walk); // two playlists of nothing but jumps to each other keep us here: not bounded
        } else {
            playEntry(walk, chain);
        }
        const bool triedEveryEntry = walk.numberOfAttempts > walk.count;
        if (triedEveryEntry) {
            LogEvent(LOG_DEBUG, "%s %d: Could not create player - tried every entry in playlist", __FILE__, __LINE__);
        }
        if (walk.player != nullptr && walk.sstatus == STREAM_OK) {
            return STREAM_OK;
        }
        if (triedEveryEntry) {
            return walk.sstatus;
        }
    }
}

void FilePlayer::playEntry(playlistWalk& walk, CAudioChain* chain)
{
    walk.player = createPlayer(walk.currentEntry);
    if (walk.player == nullptr) {
        LogEvent(LOG_DEBUG, "%s %d: Could not create player", __FILE__, __LINE__);
        usleep(unplayableEntryPauseUs);
    } else {
        walk.sstatus = connectPlayer(chain, walk.player);
        Playlist playlist;
        getAudioDatabase()->getPlaylist(walk.currentEntry.getPlaylistID(), playlist);
        api->sendPlayingNowTransaction(&walk.currentEntry); // whatever became of the connection
    }
    currentIndex++;
    currentSequence = static_cast<int>(walk.currentEntry.getSequence());
    walk.numberOfAttempts++;
}

/**
 * Takes the jump that the current entry is. Its path reads: type name, separator, digit of the playlist, separator,
 * digit of the sequence. A path that is cut short behind the name throws std::out_of_range, which nothing catches.
 */
void FilePlayer::followJump(playlistWalk& walk)
{
    const std::string& path = walk.currentEntry.getPath();
    const size_t pos = path.find_last_of("ITEM_TYPE_JUMP"); // sic: any of these letters, not the name
    if (pos == std::string::npos) {
        currentIndex++;
        currentSequence = sequenceAfter(currentSequence);
        walk.numberOfAttempts++;
        walk.count = getAudioDatabase()->getPlaylistItemCount(currentPlaylistID);
        return;
    }
    currentIndex = 0;
    currentPlaylistID = digitAt(path, pos + 2);
    currentSequence = digitAt(path, pos + 4);
    Playlist playlist;
    getAudioDatabase()->getPlaylist(currentPlaylistID, playlist);
    LogEvent(LOG_DEBUG, "%s %d: Jumping to Playlist %s, sequence %d", __FILE__, __LINE__, playlist.getName().c_str(),
             currentSequence);
    if (currentSequence > 0) {
        currentSequence--; // the lookup takes the next greater one: the target itself
    }
    walk.count = getAudioDatabase()->getPlaylistItemCount(currentPlaylistID);
}

streamStatus FilePlayer::connectPlayer(CAudioChain* chain, CAudioBlock* player)
{
    for (;;) {
        streamStatus sstatus = chain->disconnectChain();
        if (sstatus != STREAM_OK) {
            LogEvent(LOG_ERROR, "%s %d: Cannot disconnect chain", __FILE__, __LINE__);
            return sstatus;
        }
        CAudioBlock* oldPlayer = nullptr;
        if (chain->numAudioBlocks() > 1) {
            oldPlayer = chain->remAudioBlock(0);
            if (oldPlayer == nullptr) {
                LogEvent(LOG_ERROR, "%s %d: Cannot remove old player from chain", __FILE__, __LINE__);
                return STREAM_ERROR;
            }
        }
        sstatus = chain->addAudioBlock(player, 0);
        if (sstatus != STREAM_OK) {
            LogEvent(LOG_ERROR, "%s %d: Cannot add new player to chain", __FILE__, __LINE__);
        } else {
            sstatus = chain->connectChain();
            if (sstatus == STREAM_OK) {
                delete oldPlayer; // only now that the new one is in place
                return STREAM_OK;
            }
            LogEvent(LOG_ERROR, "%s %d: Cannot connect chain", __FILE__, __LINE__);
        }
        if (oldPlayer == nullptr) {
            return sstatus;
        }
        player = oldPlayer; // the old block goes back, and what stands in its place comes out
    }
}

CAudioBlock* FilePlayer::createPlayer(PlaylistItem& playlist_item)
{
    const ItemType& type = playlist_item.getTypeReference();
    if (type.isWAV()) {
        return createWavFilePlayer(playlist_item);
    }
    if (type.isMP3()) {
        return createMp3FilePlayer(playlist_item);
    }
    LogEvent(LOG_ERROR, "%s %d: Undefined player type", __FILE__, __LINE__);
    return nullptr;
}

CAudioPlay* FilePlayer::createWavFilePlayer(PlaylistItem& playlist_item)
{
    auto* block = new CWavFilePlay("WAV_PLAYER");
    const std::string& path = playlist_item.getPath();
    if (block->setNewFile(path) == STREAM_OK) {
        LogEvent(LOG_DEBUG, "%s %d: WavFilePlayer: %s", __FILE__, __LINE__, path.c_str());
        (void)block->init(); // has nothing that can fail
        return block;
    }
    LogEvent(LOG_DEBUG, "%s %d: Cannot create WAV player for %s", __FILE__, __LINE__, path.c_str());
    writeMissingItem(playlist_item);
    delete block;
    return nullptr;
}

void FilePlayer::writeMissingItem(PlaylistItem& playlist_item)
{
    Playlist playlist;
    getAudioDatabase()->getPlaylist(playlist_item.getPlaylistID(), playlist);
    asPlayedLog->clearAllEntries();
    asPlayedLog->addEntry(new asPlayedLogEntry(
        playlist_item.getItemID(), playlist.getPlaylistID(), static_cast<int>(playlist_item.getPlaylistItemID()),
        AS_PLAYED_LOG_ENTRY_TYPE_MISSING_PLAYLIST_ITEM, AS_PLAYED_LOG_STATUS_STARTED, AS_PLAYED_LOG_TX_STATUS));
    (void)asPlayedLog->writeToDb(); // reports its own failures
}

CAudioPlay* FilePlayer::createMp3FilePlayer(PlaylistItem& playlist_item)
{
    auto* block = new CMp3FilePlay("MP3_PLAYER");
    const std::string& path = playlist_item.getPath();
    if (block->setNewFile(path) == STREAM_OK) {
        LogEvent(LOG_DEBUG, "%s %d: Mp3FilePlayer: %s", __FILE__, __LINE__, path.c_str());
        (void)block->init(); // the file is open: what init() adds is not needed to play
        return block;
    }
    // Unlike a missing WAV, a missing MP3 leaves no trace in the as-played log.
    LogEvent(LOG_DEBUG, "%s %d: Cannot create MP3 player for %s", __FILE__, __LINE__, path.c_str());
    delete block;
    return nullptr;
}
