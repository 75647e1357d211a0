/**
 * What the commands of studio automation do, and the word that goes out when an item goes on air.
 *
 *   in:  the children of a parsed transaction, one by one; items that the file player has connected
 *   out: rows of the audio database, files removed, players started; lines for the peer in responseLog and the verdict
 *        in responseStatus
 *
 * Names of elements and attributes are matched without regard to case. A value ends at its first zero byte, for the
 * database and the file system see no further either.
 * Thread: audio_manager. No lock.
 */

#include "AutomationAPI.h"

#include "AsPlayedLog.h"
#include "AudioDatabase.h"
#include "AudioService.h"
#include "globals.h"
#include "sqlite3Wrapper.h"
#include "xmlText.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <tinyxml.h>

namespace
{

/** Where the audio files of uploaded items lie. */
constexpr const char* AUDIO_STORE = "/mnt/usb/";

/** All uploaded playlists carry it: one above the value that would ask for the next free one. */
constexpr int UPLOADED_PLAYLIST_SEQUENCE = PlaylistItem::RESERVED_ID + 1;

/** Before the first item of an upload, which so gets 2. */
constexpr unsigned int SEQUENCE_BEFORE_UPLOAD = 1;

/** The value of the attribute, of the last one where several differ by case alone; null if there is none. Not owned. */
const char* findAttribute(const TiXmlElement& element, const char* name)
{
    const char* value = nullptr;
    for (const TiXmlAttribute* one = element.FirstAttribute(); one != nullptr; one = one->Next()) {
        if (cmpIStr(one->Name(), name) == 0)
            value = one->Value();
    }
    return value;
}

std::string textAttribute(const TiXmlElement& element, const char* name)
{
    const char* value = findAttribute(element, name);
    return value == nullptr ? "" : value;
}

/** True for "yes" in any case, false for any other value. */
bool yesAttribute(const TiXmlElement& element, const char* name, bool valueIfAbsent)
{
    const char* value = findAttribute(element, name);
    return value == nullptr ? valueIfAbsent : cmpIStr(value, "yes") == 0;
}

bool isNamed(const TiXmlElement& element, const char* name)
{
    return cmpIStr(element.Value(), name) == 0;
}

/** The type id that a file is stored with. Its name alone decides, and ".mp3" counts wherever in it. */
int itemTypeOf(const std::string& path)
{
    return findIStr(path, ".mp3") == static_cast<size_t>(-1) ? ItemType::WAV : ItemType::MP3;
}

/**
 * Empties the playlist of that name, or adds one, so that an upload keeps the id of a playlist and replaces its places.
 *
 * @param[out] id  of the playlist; -1 if it can't be added, or is not found again after that
 * @return false if the playlist can't be added
 */
bool openPlaylist(AudioDatabase& db, const std::string& name, int& id, std::string& responseLog)
{
    id = db.getPlaylistId(name.c_str());
    if (id >= 0) {
        LogEvent(LOG_INFO, "%s %d: Clearing Playlist %s with id %d\n", __FILE__, __LINE__, name.c_str(), id);
        responseLog += "Clearing existing playlist " + name + "\n";
        (void)db.delete_all_playlist_items(id); // logged there; the new items then join the old ones
        return true;
    }
    if (db.insert_playlist(name.c_str(), UPLOADED_PLAYLIST_SEQUENCE, PlaylistType::PLAYLIST) != SQLITE_DONE)
        return false;
    id = db.getPlaylistId(name.c_str());
    LogEvent(LOG_INFO, "%s %d: Created New Playlist %s with id %d\n", __FILE__, __LINE__, name.c_str(), id);
    responseLog += "Created new playlist " + name + "\n";
    return true;
}

/** Adds an item whose length nobody has measured: its playlists' lengths become null. */
void addItem(AudioDatabase& db, const std::string& path)
{
    PlaylistItem item;
    item.setPath(path.c_str());
    item.getTypeReference().setTypeID(itemTypeOf(path));
    item.setLengthSamples(0);
    item.setSampleRate(0);
    (void)db.insert_item(item); // logged there; the look-up that follows finds nothing
}

/** Removes a file, or an empty directory, and tells the peer how that went. */
void removeFile(const char* path, std::string& responseLog)
{
    responseLog += "  Deleting ";
    responseLog += path;
    if (remove(path) == 0) {
        responseLog += " OK\n";
        return;
    }
    const char* reason = strerror(errno);
    responseLog += " ERROR: ";
    responseLog += reason;
    responseLog += "\n";
}

/** Removes the files of all places of the playlist, whether or not another playlist uses them too. */
void removeAudioFiles(AudioDatabase& audioDatabase, int playlistId, std::string& responseLog)
{
    sqlite3* db = audioDatabase.getDatabase();
    const char* label = "get_all_files";
    sqlite3_stmt* rows = prepare_statement(
        db,
        " SELECT * from T_Playlist_Item_Association  JOIN T_Items on T_Playlist_Item_Association.item_id = T_items.id WHERE playlist_id = ?",
        label);
    bind_int(db, rows, 1, static_cast<uint32_t>(playlistId), label, "playlist_id");
    while (step_statement(db, rows, label) == SQLITE_ROW) {
        const auto* pathname = reinterpret_cast<const char*>(sqlite3_column_text(rows, 5));
        const bool isKnown = pathname != nullptr && *pathname != '\0';
        removeFile(isKnown ? pathname : "(unknown)", responseLog);
    }
    finalize_statement(db, rows, label);
}

/**
 * Deletes a playlist and, if asked to, the files of its items; the items stay, and a later upload finds them again.
 * @return false if there is no playlist of that name
 */
bool deletePlaylist(AudioDatabase& db, const std::string& name, bool deleteAudioFiles, std::string& responseLog)
{
    responseLog += "Deleting playlist " + name;
    responseLog += deleteAudioFiles ? " and associated audio files\n" : " and keeping audio files\n";
    const int id = db.getPlaylistId(name.c_str());
    if (id < 0) {
        responseLog += "  ERROR: Playlist not found\n";
        return false;
    }
    if (deleteAudioFiles)
        removeAudioFiles(db, id, responseLog);
    // The places go first: delete_playlist would take the items of those that it finds. Failures are logged there.
    (void)db.delete_all_playlist_items(id);
    (void)db.delete_playlist(id);
    return true;
}

/** The text that tells the peer what plays. */
std::string playingNowText(const std::string& playlistName, const std::string& path)
{
    auto* playlist = new TiXmlElement("Playlist"); // each node goes to its parent, which deletes it
    playlist->SetAttribute("name", playlistName.c_str());
    auto* item = new TiXmlElement("PlaylistItem");
    item->SetAttribute("type", "file");
    item->SetAttribute("filename", path.c_str());

    auto* root = new TiXmlElement("Transaction");
    root->SetAttribute("type", "info");
    root->SetAttribute("command", "playingNow");
    root->SetAttribute("transactionNumber", "0");
    root->LinkEndChild(playlist);
    root->LinkEndChild(item);

    TiXmlDocument document;
    document.LinkEndChild(new TiXmlDeclaration("1.0", "", ""));
    document.LinkEndChild(root);
    TiXmlPrinter printer;
    printer.SetIndent("  ");
    document.Accept(&printer);
    return printer.CStr();
}

} // namespace

// ---- uploadPlaylist

int AutomationAPI::parseUploadPlaylist(TiXmlNode* pParent)
{
    const TiXmlElement* element = pParent->ToElement();
    if (element == nullptr) {
        for (TiXmlNode* child = pParent->FirstChild(); child != nullptr; child = child->NextSibling()) {
            if (parseUploadPlaylist(child) != 0)
                break;
        }
        return 0;
    }
    if (!isNamed(*element, "Playlist")) {
        printf("Invalid element (%s) looking for Transaction %s\n", element->Value(), "uploadPlaylist");
        return -1;
    }
    playlistItemSeq = SEQUENCE_BEFORE_UPLOAD;
    playlistName = textAttribute(*element, "name");
    playlistAutoRef = textAttribute(*element, "automationRef");
    if (playlistName.empty()) {
        LogEvent(LOG_ERROR, "%s %d: New Playlist must have a name\n", __FILE__, __LINE__);
        responseLog += "ERROR: invalid playlist name\n";
        responseStatus = RESPONSE_ERROR;
        return -1;
    }
    if (!openPlaylist(*db, playlistName, playlistId, responseLog))
        return -1; // sic: the peer sees "success"

    for (TiXmlNode* child = pParent->FirstChild(); child != nullptr; child = child->NextSibling()) {
        if (parseUploadPlaylistItems(child) != 0)
            break; // the items before a bad one stay
    }
    return 1;
}

int AutomationAPI::parseUploadPlaylistItems(TiXmlNode* pParent)
{
    const TiXmlElement* element = pParent->ToElement();
    if (element == nullptr)
        return 0;
    if (!isNamed(*element, "PlaylistItem")) {
        printf("Invalid element (%s) looking for Transaction %s\n", element->Value(), "PlaylistItem");
        return -1;
    }
    const std::string path = AUDIO_STORE + textAttribute(*element, "filename");
    playlistItemId = db->getItemIdByPath(path.c_str());
    if (playlistItemId < 0) {
        LogEvent(LOG_INFO, "%s %d: Adding audio item %s to local library", __FILE__, __LINE__, path.c_str());
        responseLog += "Adding audio item " + path + " to local library\n";
        addItem(*db, path);
        playlistItemId = db->getItemIdByPath(path.c_str());
    }
    LogEvent(LOG_INFO, "%s %d: Adding audio item %d to playlist %d", __FILE__, __LINE__, playlistItemId, playlistId);
    responseLog += "Adding audio item " + path + " to playlist\n";
    playlistItemSeq++;
    // Logged there; an item that could not be added (-1) is refused there too.
    (void)db->insert_playlist_asoc(playlistId, static_cast<int>(playlistItemSeq), playlistItemId);
    return 0;
}

// ---- deletePlaylists

int AutomationAPI::parseDeletePlaylists(TiXmlNode* pParent, TiXmlElement*, std::string& log)
{
    if (pParent->ToComment() != nullptr || pParent->ToDocument() != nullptr)
        return 0;
    const TiXmlElement* element = pParent->ToElement();
    if (element == nullptr)
        return -1;
    if (!isNamed(*element, "Playlist")) {
        log += std::string("Invalid element ") + element->Value() + "\n";
        return -1; // sic: the peer sees "success"
    }
    const std::string name = textAttribute(*element, "name");
    if (name.empty())
        return 0;
    if (!deletePlaylist(*db, name, yesAttribute(*element, "deleteAudioFiles", false), log))
        responseStatus = RESPONSE_ERROR; // a playlist that follows does not turn it back
    if (yesAttribute(*element, "clearAsPlayedLog", true))
        (void)asPlayedLog->clearDbEntries(); // also where there was no such playlist
    return 0;
}

// ---- startPlaylist

int AutomationAPI::parseStartPlaylist(TiXmlNode* pParent, TiXmlElement* response, std::string& log)
{
    if (pParent->ToDocument() != nullptr) { // never among a transaction's children
        for (TiXmlNode* child = pParent->FirstChild(); child != nullptr; child = child->NextSibling()) {
            if (parseTransaction(child, response) != 0)
                break;
        }
        return -1;
    }
    const TiXmlElement* element = pParent->ToElement();
    if (element == nullptr)
        return -1;
    if (!isNamed(*element, "Playlist")) {
        printf("Invalid element (%s) looking for Transaction %d\n", element->Value(), 0);
        return -1;
    }
    const std::string name = textAttribute(*element, "name");
    const int id = db->getPlaylistId(name.c_str());
    printf("EEEEE %s %d\n", name.c_str(), id);
    if (id == -1) {
        responseStatus = RESPONSE_ERROR;
        log += "Playlist " + name + " was not found\n";
        return 1;
    }
    responseStatus = RESPONSE_SUCCESS;
    (void)audioService->startPlayer(id); // sic: the playlist's id, not its source's; success means the name was found
    return 1;
}

// ---- playingNow

void AutomationAPI::sendPlayingNowTransaction(PlaylistItem* pli)
{
    Playlist playlist;
    db->getPlaylist(pli->getPlaylistID(), playlist);

    asPlayedLog->clearAllEntries(); // also what waits unwritten
    asPlayedLog->addEntry(new asPlayedLogEntry(
        pli->getItemID(), playlist.getPlaylistID(), static_cast<int>(pli->getPlaylistItemID()),
        AS_PLAYED_LOG_ENTRY_TYPE_START_ITEM, AS_PLAYED_LOG_STATUS_STARTED, AS_PLAYED_LOG_TX_STATUS));
    (void)asPlayedLog->writeToDb(); // logged there; what is on air goes on

    if (asPlayedLog->isPlayingNowEnabled()) {
        std::string text = playingNowText(playlist.getName(), pli->getPath());
        if (sock->dataOpen != 0) // nobody listens otherwise, and nothing is kept for later
            (void)osaSockWrite(sock, text.data(), static_cast<unsigned int>(text.size()));
    }
    transaction.clear();
}
