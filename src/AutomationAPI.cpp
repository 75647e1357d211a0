#include "AutomationAPI.h"

AutomationAPI::AutomationAPI(AudioDatabase* database) : db(database) {}

AutomationAPI::~AutomationAPI() = default;

int AutomationAPI::init()
{
    return 0;
}

int AutomationAPI::service()
{
    return 0;
}
