#include "AutomationAPI.h"

AutomationAPI::AutomationAPI(AudioDatabase* database) : db(database) {}

int AutomationAPI::init()
{
    return 0;
}

int AutomationAPI::service()
{
    return 0;
}

void AutomationAPI::sendPlayingNowTransaction(PlaylistItem*) {}
