#include "audioLibrary/mp3ShoutcastPlay.h"

namespace audioLibrarySpace
{

streamStatus CMp3ShoutcastPlayUSP::reconfigPortApply(audioPortParam_t* newParams)
{
    const streamStatus status = reconfigPortCheck(newParams);
    if (status == STREAM_OK) {
        params = *newParams;
    }
    (void)block()->allocateWorkBuffer();
    return status;
}

streamStatus CMp3ShoutcastPlayUSP::connectDownstream(CDownstreamPort* port, mutexObject* mutex)
{
    return block()->isShoutcastConnected ? CUpstreamPort::connectDownstream(port, mutex) : STREAM_ERROR;
}

streamStatus CMp3ShoutcastPlayUSP::reqReadPeriods(char*& pbuffer, unsigned int& nPeriods)
{
    return block()->reqReadPeriods(pbuffer, nPeriods);
}

streamStatus CMp3ShoutcastPlayUSP::ackReadPeriods(unsigned int nPeriods)
{
    if (nPeriods != 0) {
        block()->workBufferEmpty = true;
        incPeriodCount(nPeriods);
    }
    return STREAM_OK;
}

streamStatus CMp3ShoutcastPlay::service(CServiceTime& nextService)
{
    nextService.setNeverService();
    return STREAM_OK;
}

int32_t CMp3ShoutcastPlay::timeLeft()
{
    return fileStatus == FILE_ERROR || fileStatus == FILE_DONE ? 0 : -1;
}

streamStatus CMp3ShoutcastPlay::allocateWorkBuffer()
{
    return STREAM_OK;
}

streamStatus CMp3ShoutcastPlay::reqReadPeriods(char*& pbuffer, unsigned int& nPeriods)
{
    pbuffer = nullptr;
    nPeriods = 0;
    return STREAM_OK;
}

timespec CMp3ShoutcastPlay::timediff(timespec start, timespec end)
{
    (void)start;
    return end;
}

} // namespace audioLibrarySpace
