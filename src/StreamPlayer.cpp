#include "StreamPlayer.h"

#include "ByteArray.h"
#include "globals.h"
#include "playerGraph.h"

#include "audioLibrary/alsaSource.h"
#include "audioLibrary/livewireStreamPlay.h"
#include "audioLibrary/mp3ShoutcastPlay.h"

#include <unistd.h>

using namespace audioLibrarySpace;

namespace
{

// The wait for an internet stream: 100 seconds in all.
constexpr int connectTurns = 10000;
constexpr useconds_t connectPauseUs = 10000;

/** The number of the ALSA subdevice that carries destination `dst`; wraps, since the number came out of the database. */
int subdeviceOf(int dst)
{
    return static_cast<int>(static_cast<uint32_t>(dst) - 1U);
}

/** Takes `chain` apart, without deleting anything. */
void empty(CAudioChain* chain)
{
    if (chain == nullptr) {
        return;
    }
    (void)chain->disconnectChain(); // always STREAM_OK
    while (chain->remAudioBlock(0) != nullptr) {
    }
}

} // namespace

// --------------------------------------------------------------------------------------------------- StreamPlayer

StreamPlayer::StreamPlayer(int aStreamId) : streamId(aStreamId)
{
    LogEvent(LOG_DEBUG, "%s %d: StreamPlayer constructor id = %d", __FILE__, __LINE__, streamId);
}

StreamPlayer::~StreamPlayer()
{
    deleteChains();
    deleteBlocks();
}

void StreamPlayer::deleteChains()
{
    CAudioChain::deleteAllChains();
    sourceChain = nullptr;
    playerChain = nullptr;
}

void StreamPlayer::deleteBlocks()
{
    CAudioBlock::deleteAllBlocks();
    alsaSource = nullptr;
    mixerBlock = nullptr;
    rateConverter = nullptr;
    playerBlock = nullptr;
}

void StreamPlayer::emptyChains()
{
    empty(sourceChain);
    empty(playerChain);
}

void StreamPlayer::buildGraph()
{
    status = PLAYER_NOT_INITIALIZED;
    if (createAudioBlocks() != STREAM_OK) {
        deleteBlocks();
        return;
    }
    if (createChains() != STREAM_OK) {
        // The chains outlive their blocks, until the player goes: nobody who looks at them may find the dead.
        emptyChains();
        deleteBlocks();
        status = PLAYER_ERROR;
        return;
    }
    status = PLAYER_READY;
}

streamStatus StreamPlayer::createAudioBlocks()
{
    mixerBlock = new CMixer("MUX", mixerPeriods);
    streamStatus sstatus = mixerBlock->init();
    if (sstatus != STREAM_OK) {
        return sstatus;
    }
    alsaSource = new CALSASource("ALSA_SOURCE", cardChannels, cardSampleRate, cardPeriods, cardPeriodSize,
                                 cardSampleFormat, cardDevice);
    sstatus = alsaSource->init();
    if (sstatus != STREAM_OK) {
        return sstatus;
    }
    rateConverter = new CSampleRateConverter("RATE_CONVERTER");
    return rateConverter->init();
}

streamStatus StreamPlayer::createChains()
{
    const streamStatus sstatus = createSourceChain();
    if (sstatus != STREAM_OK) {
        return sstatus;
    }
    return createPlayerChain();
}

streamStatus StreamPlayer::createSourceChain()
{
    LogEvent(LOG_DEBUG, "%s %d: StreamPlayer::createSourceChain", __FILE__, __LINE__);
    sourceChain = new CAudioChain("SOURCE_CHAIN");
    streamStatus sstatus = sourceChain->addAudioBlock(mixerBlock, -1);
    if (sstatus != STREAM_OK) {
        LogEvent(LOG_ERROR, "%s %d: Cannot add mixer block to source chain", __FILE__, __LINE__);
        return sstatus;
    }
    sstatus = sourceChain->addAudioBlock(alsaSource, -1);
    if (sstatus != STREAM_OK) {
        LogEvent(LOG_ERROR, "%s %d: Cannot add ALSA source to source chain", __FILE__, __LINE__);
        return sstatus;
    }
    sstatus = sourceChain->connectChain();
    if (sstatus != STREAM_OK) {
        LogEvent(LOG_ERROR, "%s %d: Cannot connect source chain", __FILE__, __LINE__);
        return sstatus;
    }
    return STREAM_OK;
}

streamStatus StreamPlayer::createPlayerChain()
{
    LogEvent(LOG_DEBUG, "%s %d: StreamPlayer::createPlayerChain", __FILE__, __LINE__);
    playerChain = new CAudioChain("PLAYER_CHAIN");
    streamStatus sstatus = playerChain->addAudioBlock(rateConverter, -1);
    if (sstatus != STREAM_OK) {
        LogEvent(LOG_ERROR, "%s %d: Cannot add rate converter to player chain", __FILE__, __LINE__);
        deleteChains();
        return sstatus;
    }
    LogEvent(LOG_DEBUG, "%s %d: StreamPlayer::createPlayerChain - rate converter added to player chain", __FILE__,
             __LINE__);
    sstatus = playerChain->addAudioBlock(mixerBlock, -1);
    if (sstatus != STREAM_OK) {
        LogEvent(LOG_ERROR, "%s %d: Cannot add mixer block to player chain", __FILE__, __LINE__);
        deleteChains();
        return sstatus;
    }
    LogEvent(LOG_DEBUG, "%s %d: StreamPlayer::createPlayerChain - mixer block added to player chain", __FILE__,
             __LINE__);
    return STREAM_OK;
}

streamStatus StreamPlayer::connectPlayerBlock()
{
    streamStatus sstatus = playerChain->addAudioBlock(playerBlock, 0);
    if (sstatus != STREAM_OK) {
        LogEvent(LOG_DEBUG, "%s %d: Cannot add player block to player chain", __FILE__, __LINE__);
        return sstatus;
    }
    sstatus = playerChain->connectChain();
    if (sstatus != STREAM_OK) {
        LogEvent(LOG_DEBUG, "%s %d: Cannot connect player chain", __FILE__, __LINE__);
        return sstatus;
    }
    return STREAM_OK;
}

PlayerStatus StreamPlayer::start()
{
    LogEvent(LOG_DEBUG, "%s %d StreamPlayer::start", __FILE__, __LINE__); // sic: no colon
    if (sourceChain == nullptr || playerChain == nullptr) {
        return PLAYER_ERROR;
    }
    if (sourceChain->startAudio() != STREAM_OK) {
        status = PLAYER_ERROR; // and on: the player chain has the last word
    }
    status = playerChain->startAudio() == STREAM_OK ? PLAYER_STARTED : PLAYER_ERROR;
    return status;
}

PlayerStatus StreamPlayer::stop()
{
    if (playerChain == nullptr) {
        return PLAYER_ERROR;
    }
    status = playerChain->stopAudio() == STREAM_OK ? PLAYER_READY : PLAYER_ERROR;
    return status;
}

PlayerStatus StreamPlayer::serviceAudioBlocks()
{
    if (status != PLAYER_STARTED) {
        return status;
    }
    CServiceTime latest;
    (void)latest.setCurrentTime(); // always STREAM_OK
    latest += longestServiceWaitNs;
    nextServiceTime = latest;

    streamStatus sstatus = serviceAudioBlock(playerBlock);
    if (sstatus != STREAM_OK) {
        LogEvent(LOG_ERROR, "%s %d: Cannot service player block - streamStatus = %d", __FILE__, __LINE__, sstatus);
        return status = PLAYER_ERROR;
    }
    sstatus = serviceAudioBlock(rateConverter);
    if (sstatus != STREAM_OK) {
        LogEvent(LOG_ERROR, "%s %d: Cannot service rate converter - streamStatus = %d", __FILE__, __LINE__, sstatus);
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

void StreamPlayer::writeStatus(ByteArray* ba)
{
    // What does not fit is left out: the buffer is the caller's to size.
    (void)ba->writeByte(isStarted() ? 1 : 0);
    (void)ba->writeInt(isStarted() ? static_cast<uint32_t>(streamId) : 0);
    (void)ba->writeShort(0);
}

CAudioPlay* StreamPlayer::getPlayerBlock() const
{
    return playerBlock;
}

// ------------------------------------------------------------------------------------------------- LivewirePlayer

LivewirePlayer::LivewirePlayer(int aStreamId, int aDst) : StreamPlayer(aStreamId), dst(aDst)
{
    LogEvent(LOG_DEBUG, "%s %d: LivewirePlayer constructor aDst = %d", __FILE__, __LINE__, aDst);
    buildGraph();
}

LivewirePlayer::~LivewirePlayer() = default;

streamStatus LivewirePlayer::createAudioBlocks()
{
    return StreamPlayer::createAudioBlocks();
}

streamStatus LivewirePlayer::createPlayerChain()
{
    LogEvent(LOG_DEBUG, "%s %d: LivewirePlayer::createPlayerChain", __FILE__, __LINE__);
    streamStatus sstatus = StreamPlayer::createPlayerChain();
    if (sstatus != STREAM_OK) {
        LogEvent(LOG_DEBUG, "%s %d: Cannot create player chain", __FILE__, __LINE__);
        return sstatus;
    }
    sstatus = createPlayerBlock();
    if (sstatus != STREAM_OK) {
        LogEvent(LOG_DEBUG, "%s %d: Cannot create player block", __FILE__, __LINE__);
        return sstatus;
    }
    return connectPlayerBlock();
}

streamStatus LivewirePlayer::createPlayerBlock()
{
    const std::string deviceName = "hw:Axia," + std::to_string(subdeviceOf(dst));
    LogEvent(LOG_DEBUG, "%s %d: deviceName = %s\n", __FILE__, __LINE__,
             deviceName.c_str()); // sic: a line end of its own
    playerBlock = new ClivewireStreamPlay("LIVEWIRE_PLAYER", deviceName);
    return playerBlock->init();
}

// ------------------------------------------------------------------------------------------------ ShoutcastPlayer

ShoutcastPlayer::ShoutcastPlayer(int aStreamId, const char* aUri) : StreamPlayer(aStreamId), uri(aUri)
{
    LogEvent(LOG_DEBUG, "%s %d: ShoutcastPlayer constructor uri = %s", __FILE__, __LINE__, aUri);
    buildGraph();
}

ShoutcastPlayer::~ShoutcastPlayer() = default;

streamStatus ShoutcastPlayer::createAudioBlocks()
{
    return StreamPlayer::createAudioBlocks();
}

streamStatus ShoutcastPlayer::createPlayerChain()
{
    LogEvent(LOG_DEBUG, "%s %d: ShoutcastPlayer::createPlayerChain", __FILE__, __LINE__);
    streamStatus sstatus = StreamPlayer::createPlayerChain();
    if (sstatus != STREAM_OK) {
        LogEvent(LOG_DEBUG, "%s %d: ShoutcastPlayer::createPlayerChain - StreamPlayer create player chain", __FILE__,
                 __LINE__);
        return sstatus;
    }
    LogEvent(LOG_DEBUG, "%s %d: ShoutcastPlayer::createPlayerChain - Player chain created by StreamPlayer", __FILE__,
             __LINE__);
    sstatus = createPlayerBlock();
    if (sstatus != STREAM_OK) {
        LogEvent(LOG_DEBUG, "%s %d: Cannot create player block", __FILE__, __LINE__);
        return sstatus;
    }
    // sic: the same words again, of the source block this time
    LogEvent(LOG_DEBUG, "%s %d: ShoutcastPlayer::createPlayerChain - Player chain created by StreamPlayer", __FILE__,
             __LINE__);
    return connectPlayerBlock();
}

streamStatus ShoutcastPlayer::createPlayerBlock()
{
    LogEvent(LOG_DEBUG, "%s %d: ShoutcastPlayer::createPlayerBlock", __FILE__, __LINE__);
    auto* block = new CMp3ShoutcastPlay("SHOUTCAST_PLAYER");
    playerBlock = block;
    streamStatus sstatus = block->init();
    if (sstatus != STREAM_OK) {
        return sstatus;
    }
    sstatus = block->setNewTopUrl(uri);
    if (sstatus != STREAM_OK) {
        return sstatus;
    }
    if (block->getShoutcastConnected()) {
        return STREAM_OK;
    }
    for (int turn = 0; turn < connectTurns; turn++) {
        usleep(connectPauseUs);
        CServiceTime next; // the wish is not heard: the pause alone sets the pace
        sstatus = block->service(next);
        if (sstatus != STREAM_OK) {
            LogEvent(LOG_DEBUG, "%s %d: Shoutcast unable to recover!", __FILE__, __LINE__);
            return sstatus;
        }
        if (block->getShoutcastConnected()) {
            return STREAM_OK;
        }
    }
    return STREAM_ERROR;
}
