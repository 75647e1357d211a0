#include "AutomationAPI.h"

int AutomationAPI::parseUploadPlaylist(TiXmlNode*)
{
    return -1;
}

int AutomationAPI::parseUploadPlaylistItems(TiXmlNode*)
{
    return -1;
}

int AutomationAPI::parseDeletePlaylists(TiXmlNode*, TiXmlElement*, std::string&)
{
    return -1;
}

int AutomationAPI::parseStartPlaylist(TiXmlNode*, TiXmlElement*, std::string&)
{
    return -1;
}

void AutomationAPI::sendPlayingNowTransaction(PlaylistItem*) {}
