#pragma once

#include "AutomationAPI.h"

#include <vector>

/**
 * A new automation server that lasts until the process ends, as the daemon's does: its destructor would leave a socket
 * object and a buffer behind.
 *
 * @param database  not owned; what the server is not asked to do needs none
 */
inline AutomationAPI& lastingServer(AudioDatabase* database)
{
    static auto* const servers = new std::vector<AutomationAPI*>; // reachable to the end, and so no leak
    return *servers->emplace_back(new AutomationAPI(database));
}
