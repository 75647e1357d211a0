#include "graphStandIns.h"

#include "audioLibrary/alsaSource.h"
#include "audioLibrary/audioChain.h"
#include "audioLibrary/mixerBlock.h"
#include "audioLibrary/sampleRateConverter.h"

#include <unistd.h>

using namespace audioLibrarySpace;
using namespace graphStandIns;

extern "C" int usleep(useconds_t us)
{
    happened("sleep " + std::to_string(us));
    return 0;
}

namespace graphStandIns
{

Script script;

void happened(const std::string& event)
{
    script.events.push_back(event);
}

streamStatus answerTo(const std::string& event)
{
    happened(event);
    auto& answers = script.answers[event];
    if (answers.empty()) {
        return STREAM_OK;
    }
    const streamStatus answer = answers.front();
    answers.pop_front();
    return answer;
}

streamStatus serviceOf(const std::string& name, CServiceTime& next)
{
    next.setNeverService();
    const auto wish = script.wishes.find(name);
    if (wish != script.wishes.end()) {
        next = wish->second;
    }
    return answerTo(name + " service");
}

} // namespace graphStandIns

namespace audioLibrarySpace
{

std::list<CAudioChain*> CAudioChain::allChains;

CAudioChainElement::CAudioChainElement(CAudioBlock* pBlock) : pTraceLevel(nullptr), block(pBlock) {}

CAudioChain::CAudioChain(std::string chainName) : name(std::move(chainName)), pTraceLevel(nullptr)
{
    happened("new " + name);
    allChains.push_back(this);
}
CAudioChain::~CAudioChain()
{
    happened("~" + name);
    allChains.remove(this);
    for (CAudioChainElement* element : chain) {
        delete element;
    }
}
runTimeId CAudioChain::getRunTimeId()
{
    return AUDIO_CHAIN;
}
streamStatus CAudioChain::addAudioBlock(CAudioBlock* pBlock, int pos)
{
    const streamStatus status = answerTo(name + " add " + pBlock->name() + " at " + std::to_string(pos));
    if (status == STREAM_OK) {
        chain.insert(pos < 0 ? chain.end() : chain.begin() + pos, new CAudioChainElement(pBlock));
    }
    return status;
}
CAudioBlock* CAudioChain::remAudioBlock(int pos)
{
    if (static_cast<size_t>(pos) >= chain.size() || answerTo(name + " remove " + std::to_string(pos)) != STREAM_OK) {
        return nullptr;
    }
    CAudioChainElement* element = chain[static_cast<size_t>(pos)];
    CAudioBlock* block = element->block;
    delete element;
    chain.erase(chain.begin() + pos);
    return block;
}
CAudioBlock* CAudioChain::getAudioBlock(int pos)
{
    return static_cast<size_t>(pos) < chain.size() ? chain[static_cast<size_t>(pos)]->block : nullptr;
}
streamStatus CAudioChain::connectChain()
{
    const streamStatus status = answerTo(name + " connect");
    chainConnected = status == STREAM_OK;
    return status;
}
streamStatus CAudioChain::disconnectChain()
{
    const streamStatus status = answerTo(name + " disconnect");
    chainConnected = chainConnected && status != STREAM_OK;
    return status;
}
streamStatus CAudioChain::startAudio()
{
    if (!chainConnected) {
        return STREAM_ERROR;
    }
    chainPlaybackState = AUDIO_PLAYING;
    return answerTo(name + " start");
}
streamStatus CAudioChain::stopAudio()
{
    if (!chainConnected) {
        return STREAM_ERROR;
    }
    chainPlaybackState = AUDIO_STOPPED;
    return answerTo(name + " stop");
}
void CAudioChain::deleteAllChains()
{
    happened("delete chains");
    while (!allChains.empty()) {
        delete allChains.front();
    }
}
CAudioChain* CAudioChain::returnAudioChain(unsigned int n)
{
    if (n >= allChains.size()) {
        return nullptr;
    }
    auto chain = allChains.begin();
    std::advance(chain, n);
    return *chain;
}

CMixer::CMixer(std::string name, int periodsToBuffer) : CAudioBlock(name), m_periodsToBuffer(periodsToBuffer)
{
    happened("CMixer " + name + " " + std::to_string(periodsToBuffer));
}
CMixer::~CMixer()
{
    happened("~MUX");
}
runTimeId CMixer::getRunTimeId()
{
    return MIXER_FIFO;
}
streamStatus CMixer::init()
{
    return answerTo("MUX init");
}
streamStatus CMixer::myInit()
{
    return STREAM_OK;
}
CDownstreamPort* CMixer::getNextDownstreamPort()
{
    return nullptr;
}
streamStatus CMixer::reconfigBlockCheck(audioPortParam_t&, audioPortParam_t)
{
    return STREAM_OK;
}
streamStatus CMixer::service(CServiceTime& next)
{
    return serviceOf("MUX", next);
}
std::string CMixer::printBlockStatus()
{
    return "";
}

CALSASource::CALSASource(std::string pName, unsigned int pNChannels, float pSampleRate, unsigned int pNPeriods,
                         unsigned int pPeriodSize, sampleFormat_e pSampleFormat, std::string pDeviceName)
    : CAudioBlock(pName)
{
    happened("CALSASource " + pName + " " + std::to_string(pNChannels) + " " + std::to_string(pSampleRate) + " " +
             std::to_string(pNPeriods) + " " + std::to_string(pPeriodSize) + " " + std::to_string(pSampleFormat) + " " +
             pDeviceName);
}
CALSASource::~CALSASource()
{
    happened("~ALSA_SOURCE");
}
runTimeId CALSASource::getRunTimeId()
{
    return ALSA_SOURCE;
}
streamStatus CALSASource::init()
{
    return answerTo("ALSA_SOURCE init");
}
streamStatus CALSASource::service(CServiceTime& next)
{
    return serviceOf("ALSA_SOURCE", next);
}
std::string CALSASource::printBlockStatus()
{
    return "";
}

CSampleRateConverter::CSampleRateConverter(std::string name) : CAudioBlock(name)
{
    happened("CSampleRateConverter " + name);
}
CSampleRateConverter::~CSampleRateConverter()
{
    happened("~" + blockName);
}
runTimeId CSampleRateConverter::getRunTimeId()
{
    return SAMPLE_RATE_CONVERTER;
}
streamStatus CSampleRateConverter::init()
{
    return answerTo(blockName + " init");
}
streamStatus CSampleRateConverter::reconfigBlockCheck(audioPortParam_t&, audioPortParam_t)
{
    return STREAM_OK;
}
streamStatus CSampleRateConverter::service(CServiceTime& next)
{
    return serviceOf(blockName, next);
}
std::string CSampleRateConverter::printBlockStatus()
{
    return "";
}

} // namespace audioLibrarySpace
