#pragma once

/**
 * Studio automation's hand on the player: XML transactions over the one TCP connection on port 8500.
 *
 *   in:  bytes of the peer, found to be transactions, parsed, dispatched by their `command`
 *   out: one answer for each request, and `playingNow` for each item that goes on air
 *
 * Polled: init() once, then service() once on each pass of the audio manager's loop, so a command may work on the
 * database and start or stop a player directly, and holds up the pass for as long as it takes.
 * Thread: audio_manager. No lock.
 *
 * AutomationAPI.cpp is the server (framing, dispatch, answer), AutomationCommands.cpp the commands.
 */

#include "TransactionSearch.h"
#include "audioLibrary/osAbstraction/osAbstraction.h"

#include <string>

class AudioDatabase;
class PlaylistItem;
class TiXmlDocument;
class TiXmlElement;
class TiXmlNode;

class AutomationAPI
{
public:
    /** Opens nothing. @param database  not owned */
    explicit AutomationAPI(AudioDatabase* database);
    /** Never run in the daemon. The receive buffer stays, and the socket as it is: one that is open refers to `sock`. */
    ~AutomationAPI();
    AutomationAPI(const AutomationAPI&) = delete;
    AutomationAPI& operator=(const AutomationAPI&) = delete;

    /**
     * Opens the listening socket; called once at the head of the audio manager's thread.
     * @return 0; -1 if the socket can't be opened, which service() then tries again on each pass
     */
    int init();

    /**
     * One polling step: takes in at most 4095 bytes and carries out at most one transaction; a second one waits for
     * the next step. Bytes are kept across a change of peers, and without a limit until a transaction is found in them.
     * A step that finds the socket closed opens it, and does nothing else.
     * @return 0; -1 if a closed socket can't be opened again
     */
    int service();

    /**
     * Writes the as-played entry of an item that has just been connected, and tells the peer, if one is connected and
     * wants to know. `pli` is not owned and not kept.
     */
    void sendPlayingNowTransaction(PlaylistItem* pli);

private:
    enum responseStatus_e : int { RESPONSE_SUCCESS = 0, RESPONSE_ERROR = 1 };

    int openSocket();
    void receive();
    bool takeTransaction();
    void handleTransaction();
    void noteParseError();
    void sendAnswer(TiXmlDocument& answer, TiXmlElement& root);

    /**
     * Dispatches a parsed transaction. `responseStatus` holds the verdict; it stays RESPONSE_ERROR unless a command is
     * reached.
     *
     * @param pParent   a document, or an element of one; never null
     * @param response  root of the answer, which commands add children to
     * @return 1 if it was a transaction, with whatever command; -1 for what is none; 0 for a document without children
     */
    int parseTransaction(TiXmlNode* pParent, TiXmlElement* response);
    void readAttributes(const TiXmlElement& element);

    // The commands. Each walks the children of the transaction, in order, until one of them stops it.
    struct Command {
        const char* name;
        void (AutomationAPI::*run)(TiXmlNode& transactionElement, TiXmlElement* response);
    };
    static const Command commands[];
    void runCommand(TiXmlNode& transactionElement, TiXmlElement* response);
    void uploadPlaylist(TiXmlNode& transactionElement, TiXmlElement* response);
    void deletePlaylists(TiXmlNode& transactionElement, TiXmlElement* response);
    void getAsPlayedLog(TiXmlNode& transactionElement, TiXmlElement* response);
    void startPlaylist(TiXmlNode& transactionElement, TiXmlElement* response);
    void stopPlaylist(TiXmlNode& transactionElement, TiXmlElement* response);

    // The commands on one child of the transaction each; `log` is responseLog.

    /** @return 1 once a playlist has been filled; 0 for what is no element; -1 on failure */
    int parseUploadPlaylist(TiXmlNode* pParent);
    /** @return 0; -1 for an element that is no item */
    int parseUploadPlaylistItems(TiXmlNode* pParent);
    /** @return 0 to go on, also after a playlist that is missing; -1 to stop */
    int parseDeletePlaylists(TiXmlNode* pParent, TiXmlElement* response, std::string& log);
    /** @return 1 for a playlist, started or missing; -1 for anything else */
    int parseStartPlaylist(TiXmlNode* pParent, TiXmlElement* response, std::string& log);

    // All of these live from one pass to the next.
    AudioDatabase* db;                                  ///< not owned
    sockObject* sock;                                   ///< the listening socket and its one peer; never deleted
    char* buffer;                                       ///< receive buffer, 4096 bytes; never deleted
    std::string allxml;                                 ///< every byte received and not yet consumed
    std::string transaction;                            ///< text of the transaction being handled
    std::string transCmd;                               ///< its `command`
    std::string transNum;                               ///< its `transactionNumber`
    std::string transType;                              ///< its `type`
    std::string playlistName;                           ///< name in the upload in progress
    std::string playlistAutoRef;                        ///< `automationRef` in the upload in progress
    int playlistId = 0;                                 ///< id of the playlist in the upload in progress
    unsigned int playlistItemSeq = 0;                   ///< running sequence of the upload in progress
    int playlistItemId = 0;                             ///< id of the last item handled in the upload
    responseStatus_e responseStatus = RESPONSE_SUCCESS; ///< verdict on the transaction being handled
    std::string responseLog;                            ///< lines of text for the peer, each ending in a newline
    TransactionSearch search;                           ///< how far allxml has been searched
};
